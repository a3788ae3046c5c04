#include "platform/metadata/metadata_tables.h"

#include <cstring>

#include "platform/byte_cursor.h"
#include "platform/metadata/metadata_bytes.h"

namespace velmark_3_11 {
namespace {

// Column kinds of the table schema: fixed widths, heap indexes, simple indexes into a
// table (kTable + table number) and coded indexes (kCoded + coded_t).
constexpr std::uint16_t kU16 = 1;
constexpr std::uint16_t kU32 = 2;
constexpr std::uint16_t kString = 3;
constexpr std::uint16_t kGuid = 4;
constexpr std::uint16_t kBlob = 5;
constexpr std::uint16_t kTable = 0x100;
constexpr std::uint16_t kCoded = 0x200;

constexpr std::uint16_t T(std::uint32_t table)
{
    return static_cast<std::uint16_t>(kTable + table);
}
constexpr std::uint16_t C(MetadataTables::coded_t kind)
{
    return static_cast<std::uint16_t>(kCoded + kind);
}

using M = MetadataTables;

struct Schema {
    std::uint8_t count;
    std::uint16_t columns[9];
};

// II.22 and the Portable PDB tables 0x30-0x37; a count of 0 marks numbers no table has.
constexpr Schema kSchema[MetadataTables::kTableCount] = {
    {5, {kU16, kString, kGuid, kGuid, kGuid}},                                   // 0x00 Module
    {3, {C(M::ciResolutionScope), kString, kString}},                            // 0x01 TypeRef
    {6, {kU32, kString, kString, C(M::ciTypeDefOrRef), T(0x04), T(0x06)}},       // 0x02 TypeDef
    {1, {T(0x04)}},                                                              // 0x03 FieldPtr
    {3, {kU16, kString, kBlob}},                                                 // 0x04 Field
    {1, {T(0x06)}},                                                              // 0x05 MethodPtr
    {6, {kU32, kU16, kU16, kString, kBlob, T(0x08)}},                            // 0x06 MethodDef
    {1, {T(0x08)}},                                                              // 0x07 ParamPtr
    {3, {kU16, kU16, kString}},                                                  // 0x08 Param
    {2, {T(0x02), C(M::ciTypeDefOrRef)}},                                        // 0x09 InterfaceImpl
    {3, {C(M::ciMemberRefParent), kString, kBlob}},                              // 0x0A MemberRef
    {3, {kU16, C(M::ciHasConstant), kBlob}},                                     // 0x0B Constant
    {3, {C(M::ciHasCustomAttribute), C(M::ciCustomAttributeType), kBlob}},       // 0x0C CustomAttribute
    {2, {C(M::ciHasFieldMarshal), kBlob}},                                       // 0x0D FieldMarshal
    {3, {kU16, C(M::ciHasDeclSecurity), kBlob}},                                 // 0x0E DeclSecurity
    {3, {kU16, kU32, T(0x02)}},                                                  // 0x0F ClassLayout
    {2, {kU32, T(0x04)}},                                                        // 0x10 FieldLayout
    {1, {kBlob}},                                                                // 0x11 StandAloneSig
    {2, {T(0x02), T(0x14)}},                                                     // 0x12 EventMap
    {1, {T(0x14)}},                                                              // 0x13 EventPtr
    {3, {kU16, kString, C(M::ciTypeDefOrRef)}},                                  // 0x14 Event
    {2, {T(0x02), T(0x17)}},                                                     // 0x15 PropertyMap
    {1, {T(0x17)}},                                                              // 0x16 PropertyPtr
    {3, {kU16, kString, kBlob}},                                                 // 0x17 Property
    {3, {kU16, T(0x06), C(M::ciHasSemantics)}},                                  // 0x18 MethodSemantics
    {3, {T(0x02), C(M::ciMethodDefOrRef), C(M::ciMethodDefOrRef)}},              // 0x19 MethodImpl
    {1, {kString}},                                                              // 0x1A ModuleRef
    {1, {kBlob}},                                                                // 0x1B TypeSpec
    {4, {kU16, C(M::ciMemberForwarded), kString, T(0x1A)}},                      // 0x1C ImplMap
    {2, {kU32, T(0x04)}},                                                        // 0x1D FieldRVA
    {2, {kU32, kU32}},                                                           // 0x1E ENCLog
    {1, {kU32}},                                                                 // 0x1F ENCMap
    {9, {kU32, kU16, kU16, kU16, kU16, kU32, kBlob, kString, kString}},          // 0x20 Assembly
    {1, {kU32}},                                                                 // 0x21 AssemblyProcessor
    {3, {kU32, kU32, kU32}},                                                     // 0x22 AssemblyOS
    {9, {kU16, kU16, kU16, kU16, kU32, kBlob, kString, kString, kBlob}},         // 0x23 AssemblyRef
    {2, {kU32, T(0x23)}},                                                        // 0x24 AssemblyRefProcessor
    {4, {kU32, kU32, kU32, T(0x23)}},                                            // 0x25 AssemblyRefOS
    {3, {kU32, kString, kBlob}},                                                 // 0x26 File
    {5, {kU32, kU32, kString, kString, C(M::ciImplementation)}},                 // 0x27 ExportedType
    {4, {kU32, kU32, kString, C(M::ciImplementation)}},                          // 0x28 ManifestResource
    {2, {T(0x02), T(0x02)}},                                                     // 0x29 NestedClass
    {4, {kU16, kU16, C(M::ciTypeOrMethodDef), kString}},                         // 0x2A GenericParam
    {2, {C(M::ciMethodDefOrRef), kBlob}},                                        // 0x2B MethodSpec
    {2, {T(0x2A), C(M::ciTypeDefOrRef)}},                                        // 0x2C GenericParamConstraint
    {0, {}}, {0, {}}, {0, {}},                                                   // 0x2D-0x2F
    {4, {kBlob, kGuid, kBlob, kGuid}},                                           // 0x30 Document
    {2, {T(0x30), kBlob}},                                                       // 0x31 MethodDebugInformation
    {6, {T(0x06), T(0x35), T(0x33), T(0x34), kU32, kU32}},                       // 0x32 LocalScope
    {3, {kU16, kU16, kString}},                                                  // 0x33 LocalVariable
    {2, {kString, kBlob}},                                                       // 0x34 LocalConstant
    {2, {T(0x35), kBlob}},                                                       // 0x35 ImportScope
    {2, {T(0x06), T(0x06)}},                                                     // 0x36 StateMachineMethod
    {3, {C(M::ciHasCustomDebugInformation), kGuid, kBlob}},                      // 0x37 CustomDebugInformation
};

constexpr std::uint8_t kUnused = 0xFF;

struct CodedKind {
    std::uint8_t tagBits;
    std::uint8_t count;
    std::uint8_t tables[27];
};

constexpr CodedKind kCodedKinds[MetadataTables::ciCount] = {
    {2, 3, {0x02, 0x01, 0x1B}},
    {2, 3, {0x04, 0x08, 0x17}},
    {5, 22, {0x06, 0x04, 0x01, 0x02, 0x08, 0x09, 0x0A, 0x00, 0x0E, 0x17, 0x14, 0x11, 0x1A, 0x1B, 0x20, 0x23, 0x26,
             0x27, 0x28, 0x2A, 0x2C, 0x2B}},
    {1, 2, {0x04, 0x08}},
    {2, 3, {0x02, 0x06, 0x20}},
    {3, 5, {0x02, 0x01, 0x1A, 0x06, 0x1B}},
    {1, 2, {0x14, 0x17}},
    {1, 2, {0x06, 0x0A}},
    {1, 2, {0x04, 0x06}},
    {2, 3, {0x26, 0x23, 0x27}},
    {3, 5, {kUnused, kUnused, 0x06, 0x0A, kUnused}},
    {2, 4, {0x00, 0x1A, 0x23, 0x01}},
    {1, 2, {0x02, 0x06}},
    {5, 27, {0x06, 0x04, 0x01, 0x02, 0x08, 0x09, 0x0A, 0x00, 0x0E, 0x17, 0x14, 0x11, 0x1A, 0x1B,
             0x20, 0x23, 0x26, 0x27, 0x28, 0x2A, 0x2C, 0x2B, 0x30, 0x32, 0x33, 0x34, 0x35}},
};

// Tokens carry 24-bit row numbers.
constexpr std::uint32_t kMaxRows = 0x00FFFFFF;

// HeapSizes bits.
constexpr std::uint8_t kWideStrings = 0x01;
constexpr std::uint8_t kWideGuids = 0x02;
constexpr std::uint8_t kWideBlobs = 0x04;
// The runtime's writers may put one more 32-bit value behind the row counts.
constexpr std::uint8_t kExtraData = 0x40;

} // namespace

std::unique_ptr<MetadataTables> MetadataTables::create(const std::uint8_t* data, std::size_t size, HRESULT& result)
{
    std::unique_ptr<MetadataTables> tables(new MetadataTables);
    result = tables->initialize(data, size);
    if (FAILED(result))
        tables.reset();
    return tables;
}

HRESULT MetadataTables::initialize(const std::uint8_t* data, std::size_t size)
{
    ByteCursor cursor(data, size);
    if (cursor.read<std::uint32_t>() != 0x424A5342) // "BSJB"
        return COR_E_BADIMAGEFORMAT;
    cursor.skip(8); // versions, reserved
    const std::uint32_t versionLength = cursor.read<std::uint32_t>();
    cursor.skip(versionLength);
    cursor.skip(2); // flags
    const std::uint16_t streamCount = cursor.read<std::uint16_t>();
    if (cursor.overrun())
        return CLDB_E_FILE_CORRUPT;

    bool haveTables = false;
    for (std::uint16_t i = 0; i < streamCount; ++i) {
        const std::uint32_t offset = cursor.read<std::uint32_t>();
        const std::uint32_t length = cursor.read<std::uint32_t>();
        // Names are at most 32 bytes with their terminator, padded to four.
        char name[33] = {};
        std::size_t nameLength = 0;
        while (nameLength < 32) {
            const char c = static_cast<char>(cursor.read<std::uint8_t>());
            if (c == '\0')
                break;
            name[nameLength++] = c;
        }
        if (nameLength == 32 || cursor.overrun())
            return CLDB_E_FILE_CORRUPT;
        cursor.seek((cursor.position() + 3) & ~std::uint64_t(3));
        if (static_cast<std::uint64_t>(offset) + length > size)
            return CLDB_E_FILE_CORRUPT;
        const Stream stream{data + offset, length};
        const std::string streamName(name, nameLength);
        if (streamName == "#~" || streamName == "#-") {
            m_tablesStream = stream;
            haveTables = true;
        } else if (streamName == "#Strings") {
            m_strings = stream;
        } else if (streamName == "#Blob") {
            m_blobs = stream;
        } else if (streamName == "#GUID") {
            m_guids = stream;
        } else if (streamName == "#Pdb") {
            m_pdb = stream;
            m_isPortablePdb = true;
        }
    }
    if (!haveTables)
        return CLDB_E_FILE_CORRUPT;

    std::array<std::uint32_t, kTableCount> externalRows{};
    if (m_isPortablePdb) {
        const HRESULT pdb = readPdbStream(externalRows);
        if (FAILED(pdb))
            return pdb;
    }
    return readTables(externalRows);
}

HRESULT MetadataTables::readPdbStream(std::array<std::uint32_t, kTableCount>& externalRows)
{
    ByteCursor cursor(m_pdb.data, m_pdb.size);
    cursor.read(m_pdbId.data(), m_pdbId.size());
    cursor.skip(4); // entry point
    const std::uint64_t referenced = cursor.read<std::uint64_t>();
    for (std::uint32_t table = 0; table < kTableCount; ++table) {
        if ((referenced >> table) & 1) {
            externalRows[table] = cursor.read<std::uint32_t>();
            if (externalRows[table] > kMaxRows)
                return CLDB_E_FILE_CORRUPT;
        }
    }
    return cursor.overrun() ? CLDB_E_FILE_CORRUPT : S_OK;
}

HRESULT MetadataTables::readTables(const std::array<std::uint32_t, kTableCount>& externalRows)
{
    ByteCursor cursor(m_tablesStream.data, m_tablesStream.size);
    cursor.skip(6); // reserved, versions
    const std::uint8_t heapSizes = cursor.read<std::uint8_t>();
    cursor.skip(1);
    const std::uint64_t valid = cursor.read<std::uint64_t>();
    cursor.skip(8); // sorted
    for (std::uint32_t table = 0; table < kTableCount; ++table) {
        if (((valid >> table) & 1) == 0)
            continue;
        if (kSchema[table].count == 0)
            return CLDB_E_FILE_CORRUPT; // no row size is known for it
        m_rows[table] = cursor.read<std::uint32_t>();
        if (m_rows[table] > kMaxRows)
            return CLDB_E_FILE_CORRUPT;
    }
    if (heapSizes & kExtraData)
        cursor.skip(4);
    if (cursor.overrun())
        return CLDB_E_FILE_CORRUPT;

    // Index widths count the rows of tables that a debug file only references, too.
    std::array<std::uint32_t, kTableCount> sizingRows;
    for (std::uint32_t table = 0; table < kTableCount; ++table)
        sizingRows[table] = m_rows[table] > externalRows[table] ? m_rows[table] : externalRows[table];
    std::uint32_t codedWidths[ciCount];
    for (std::uint32_t kind = 0; kind < ciCount; ++kind) {
        std::uint32_t most = 0;
        for (std::uint32_t i = 0; i < kCodedKinds[kind].count; ++i) {
            const std::uint8_t table = kCodedKinds[kind].tables[i];
            if (table != kUnused && sizingRows[table] > most)
                most = sizingRows[table];
        }
        codedWidths[kind] = most < (1u << (16 - kCodedKinds[kind].tagBits)) ? 2 : 4;
    }

    std::uint64_t offset = cursor.position();
    for (std::uint32_t table = 0; table < kTableCount; ++table) {
        if (m_rows[table] == 0)
            continue;
        Table& layout = m_tables[table];
        std::uint32_t rowSize = 0;
        for (std::uint32_t i = 0; i < kSchema[table].count; ++i) {
            const std::uint16_t kind = kSchema[table].columns[i];
            std::uint32_t width = 0;
            if (kind == kU16)
                width = 2;
            else if (kind == kU32)
                width = 4;
            else if (kind == kString)
                width = (heapSizes & kWideStrings) ? 4 : 2;
            else if (kind == kGuid)
                width = (heapSizes & kWideGuids) ? 4 : 2;
            else if (kind == kBlob)
                width = (heapSizes & kWideBlobs) ? 4 : 2;
            else if (kind >= kCoded)
                width = codedWidths[kind - kCoded];
            else
                width = sizingRows[kind - kTable] < 0x10000 ? 2 : 4;
            layout.columns.push_back(Column{rowSize, width});
            rowSize += width;
        }
        layout.rowSize = rowSize;
        layout.offset = offset;
        offset += static_cast<std::uint64_t>(rowSize) * m_rows[table];
        if (offset > m_tablesStream.size)
            return CLDB_E_FILE_CORRUPT;
    }
    return S_OK;
}

std::uint32_t MetadataTables::cell(std::uint32_t table, std::uint32_t row, std::uint32_t column) const
{
    if (table >= kTableCount || row == 0 || row > m_rows[table] || column >= m_tables[table].columns.size())
        return 0;
    const Table& layout = m_tables[table];
    const Column& where = layout.columns[column];
    ByteCursor cursor(m_tablesStream.data, m_tablesStream.size);
    cursor.seek(layout.offset + static_cast<std::uint64_t>(row - 1) * layout.rowSize + where.offset);
    return where.width == 2 ? cursor.read<std::uint16_t>() : cursor.read<std::uint32_t>();
}

mdToken MetadataTables::decode(coded_t kind, std::uint32_t value)
{
    if (kind >= ciCount)
        return 0;
    const CodedKind& coded = kCodedKinds[kind];
    const std::uint32_t tag = value & ((1u << coded.tagBits) - 1);
    if (tag >= coded.count || coded.tables[tag] == kUnused)
        return 0;
    return (static_cast<mdToken>(coded.tables[tag]) << 24) | ((value >> coded.tagBits) & kMaxRows);
}

bool MetadataTables::string(std::uint32_t index, std::string& text) const
{
    ByteCursor cursor(m_strings.data, m_strings.size);
    cursor.seek(index);
    const std::size_t left = cursor.remaining();
    const unsigned char* start = cursor.take(left);
    const void* end = left != 0 ? std::memchr(start, 0, left) : nullptr;
    if (end == nullptr)
        return false;
    text.assign(reinterpret_cast<const char*>(start), static_cast<const char*>(end));
    return true;
}

bool MetadataTables::blob(std::uint32_t index, const std::uint8_t*& data, std::uint32_t& size) const
{
    if (index == 0) {
        // Index 0 is the empty blob, also of a heap that is absent.
        static const std::uint8_t empty = 0;
        data = &empty;
        size = 0;
        return true;
    }
    ByteCursor cursor(m_blobs.data, m_blobs.size);
    cursor.seek(index);
    std::uint32_t length = 0;
    if (!readCompressedUnsigned(cursor, length))
        return false;
    const unsigned char* bytes = cursor.take(length);
    if (bytes == nullptr)
        return false;
    data = bytes;
    size = length;
    return true;
}

bool MetadataTables::guid(std::uint32_t index, GUID& value) const
{
    if (index == 0) {
        value = GUID{};
        return true;
    }
    const std::uint64_t offset = (static_cast<std::uint64_t>(index) - 1) * 16;
    if (offset + 16 > m_guids.size)
        return false;
    ByteCursor cursor(m_guids.data + offset, 16);
    value = readGuid(cursor);
    return true;
}

} // namespace velmark_3_11
