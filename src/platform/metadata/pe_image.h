// Reader of the PE/COFF structures of a managed image: headers, sections, data
// directories, the CLI header and the debug directory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/metadata/cor.h"

namespace velmark_3_11 {

/// One entry of the debug directory.
struct PeDebugEntry {
    std::uint32_t timeStamp;
    std::uint16_t majorVersion;
    std::uint16_t minorVersion;
    std::uint32_t type;
    std::uint32_t size;
    std::uint32_t fileOffset;
};

/// The CodeView ("RSDS") record of the debug directory.
struct CodeViewRecord {
    GUID signature;
    std::uint32_t age;
    std::string path;
    std::uint32_t timeStamp;
    /// The entry's version marks a Portable PDB, whose id is the signature and the time stamp.
    bool portable;
};

/// A PdbChecksum entry: hash algorithm name and the debug file's hash.
struct PdbChecksum {
    std::string algorithm;
    std::vector<std::uint8_t> checksum;
};

class PeImage {
public:
    static constexpr std::uint32_t kDebugCodeView = 2;
    static constexpr std::uint32_t kDebugEmbeddedPortablePdb = 17;
    static constexpr std::uint32_t kDebugPdbChecksum = 19;

    /// Reads the headers of `bytes`. Null with `result` COR_E_BADIMAGEFORMAT when this is
    /// no managed PE image, CLDB_E_FILE_CORRUPT when its structures do not fit the file.
    static std::unique_ptr<PeImage> create(std::vector<std::uint8_t> bytes, HRESULT& result);
    /// As create, over the file at `path`; HRESULT_FILE_NOT_FOUND when it cannot be read.
    static std::unique_ptr<PeImage> open(const std::wstring& path, HRESULT& result);

    const std::vector<std::uint8_t>& bytes() const { return m_bytes; }
    /// The file offset of `size` bytes at `rva`, when all of them lie in one section's raw data.
    bool rvaToOffset(std::uint32_t rva, std::uint32_t size, std::uint32_t& offset) const;
    /// File offset and size of the metadata root, inside the file.
    std::uint32_t metadataOffset() const { return m_metadataOffset; }
    std::uint32_t metadataSize() const { return m_metadataSize; }
    const std::vector<PeDebugEntry>& debugEntries() const { return m_debugEntries; }
    /// The first CodeView record; false when there is none or it is malformed.
    bool codeView(CodeViewRecord& record) const;
    std::vector<PdbChecksum> pdbChecksums() const;
    /// Inflates the first embedded Portable PDB; false when there is none or it is corrupt.
    bool embeddedPdb(std::vector<std::uint8_t>& pdb) const;

private:
    struct Section {
        std::uint32_t virtualAddress;
        std::uint32_t virtualSize;
        std::uint32_t rawSize;
        std::uint32_t rawOffset;
    };

    explicit PeImage(std::vector<std::uint8_t> bytes) : m_bytes(std::move(bytes)) {}
    HRESULT initialize();
    void readDebugDirectory(std::uint32_t rva, std::uint32_t size);

    std::vector<std::uint8_t> m_bytes;
    std::vector<Section> m_sections;
    std::uint32_t m_metadataOffset = 0;
    std::uint32_t m_metadataSize = 0;
    std::vector<PeDebugEntry> m_debugEntries;
};

/// Reads a whole file; HRESULT_FILE_NOT_FOUND when it cannot be opened or read.
HRESULT readFileBytes(const std::wstring& path, std::vector<std::uint8_t>& bytes);

} // namespace velmark_3_11
