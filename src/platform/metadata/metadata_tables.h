// Reader of ECMA-335 metadata (partition II, chapter 24): the metadata root, its streams,
// the #~ or #- tables with row sizes and index widths by the standard, and the heaps.
// Serves managed images and Portable PDB files (whose #Pdb stream it reads too).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/metadata/cor.h"

namespace velmark_3_11 {

class MetadataTables {
public:
    // Table numbers.
    static constexpr std::uint32_t kModule = 0x00;
    static constexpr std::uint32_t kTypeRef = 0x01;
    static constexpr std::uint32_t kTypeDef = 0x02;
    static constexpr std::uint32_t kMethodPtr = 0x05;
    static constexpr std::uint32_t kMethodDef = 0x06;
    static constexpr std::uint32_t kMemberRef = 0x0A;
    static constexpr std::uint32_t kCustomAttribute = 0x0C;
    static constexpr std::uint32_t kDocument = 0x30;
    static constexpr std::uint32_t kMethodDebugInformation = 0x31;
    static constexpr std::uint32_t kTableCount = 64;

    /// Coded index kinds (II.24.2.6), and the Portable PDB's HasCustomDebugInformation.
    enum coded_t : std::uint8_t {
        ciTypeDefOrRef,
        ciHasConstant,
        ciHasCustomAttribute,
        ciHasFieldMarshal,
        ciHasDeclSecurity,
        ciMemberRefParent,
        ciHasSemantics,
        ciMethodDefOrRef,
        ciMemberForwarded,
        ciImplementation,
        ciCustomAttributeType,
        ciResolutionScope,
        ciTypeOrMethodDef,
        ciHasCustomDebugInformation,
        ciCount
    };

    /// Reads the metadata root at `data`, which must outlive the tables. Null with `result`
    /// COR_E_BADIMAGEFORMAT when there is no metadata signature, CLDB_E_FILE_CORRUPT when
    /// streams, tables or heaps do not fit.
    static std::unique_ptr<MetadataTables> create(const std::uint8_t* data, std::size_t size, HRESULT& result);

    std::uint32_t rowCount(std::uint32_t table) const { return table < kTableCount ? m_rows[table] : 0; }
    /// The value of column `column` of row `row` (1-based); 0 for a row or column outside.
    std::uint32_t cell(std::uint32_t table, std::uint32_t row, std::uint32_t column) const;
    /// The token that a coded index stands for; 0 for an unused tag.
    static mdToken decode(coded_t kind, std::uint32_t value);

    /// The #Strings entry at `index`; false when the index or its terminator lies outside.
    bool string(std::uint32_t index, std::string& text) const;
    /// The #Blob entry at `index`; index 0 is the empty blob.
    bool blob(std::uint32_t index, const std::uint8_t*& data, std::uint32_t& size) const;
    /// The #GUID entry of 1-based `index`; index 0 is the nil GUID.
    bool guid(std::uint32_t index, GUID& value) const;

    /// Whether a #Pdb stream was present, and its 20-byte id (GUID and time stamp).
    bool isPortablePdb() const { return m_isPortablePdb; }
    const std::array<std::uint8_t, 20>& pdbId() const { return m_pdbId; }

private:
    struct Column {
        std::uint32_t offset;
        std::uint32_t width;
    };
    struct Table {
        std::uint64_t offset = 0; // in the tables stream
        std::uint32_t rowSize = 0;
        std::vector<Column> columns;
    };
    struct Stream {
        const std::uint8_t* data = nullptr;
        std::uint32_t size = 0;
    };

    MetadataTables() = default;
    HRESULT initialize(const std::uint8_t* data, std::size_t size);
    HRESULT readPdbStream(std::array<std::uint32_t, kTableCount>& sizingRows);
    HRESULT readTables(const std::array<std::uint32_t, kTableCount>& externalRows);

    Stream m_tablesStream;
    Stream m_strings;
    Stream m_blobs;
    Stream m_guids;
    Stream m_pdb;
    std::array<std::uint32_t, kTableCount> m_rows{};
    std::array<Table, kTableCount> m_tables;
    bool m_isPortablePdb = false;
    std::array<std::uint8_t, 20> m_pdbId{};
};

} // namespace velmark_3_11
