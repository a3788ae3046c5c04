// The multi-stream container of Windows PDB files (MSF 7.00): a superblock, a stream
// directory, and streams stored as lists of fixed-size blocks anywhere in the file.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/metadata/cor.h"

namespace velmark_3_11 {

class MsfFile {
public:
    /// True when `bytes` start with the MSF 7.00 magic.
    static bool hasMagic(const std::uint8_t* bytes, std::size_t size);

    /// Reads the container of `bytes`. Null with `result` COR_E_BADIMAGEFORMAT without the
    /// magic, CLDB_E_FILE_CORRUPT when the superblock, the directory or a block list of a
    /// stream points outside the file.
    static std::unique_ptr<MsfFile> create(std::vector<std::uint8_t> bytes, HRESULT& result);

    std::uint32_t streamCount() const { return static_cast<std::uint32_t>(m_streams.size()); }
    /// The bytes of stream `index` joined from its blocks; false when there is no such
    /// stream. An absent (nil) stream reads as empty.
    bool stream(std::uint32_t index, std::vector<std::uint8_t>& bytes) const;

private:
    struct Stream {
        std::uint32_t size;
        std::vector<std::uint32_t> blocks;
    };

    MsfFile() = default;

    std::vector<std::uint8_t> m_bytes;
    std::uint32_t m_blockSize = 0;
    std::vector<Stream> m_streams;
};

} // namespace velmark_3_11
