#include "jitreader/clr_symreader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "platform/byte_cursor.h"
#include "platform/log.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace {

constexpr auto kLogNumbers = logging::numbers_t::asIs;

constexpr std::uint32_t kDocumentTable = 48;
constexpr std::uint32_t kMethodDebugTable = 49;
constexpr std::uint32_t kLastSkippableTable = 44;
/// Bits of the Valid mask that can carry a row count.
constexpr std::uint32_t kValidBits = 56;

/// Reads a compressed unsigned integer; returns its size, 1, 2 or 4, or 0 for a first byte
/// with the top bits 111.
unsigned int readCompressedUnsigned(ByteCursor& in, std::uint32_t& value)
{
    const std::uint32_t first = in.read<std::uint8_t>();
    if ((first & 0x80) == 0) {
        value = first;
        return 1;
    }
    if ((first & 0xC0) == 0x80) {
        value = ((first & 0x3F) << 8) | in.read<std::uint8_t>();
        return 2;
    }
    if ((first & 0xE0) == 0xC0) {
        value = first & 0x1F;
        for (int i = 0; i < 3; ++i)
            value = (value << 8) | in.read<std::uint8_t>();
        return 4;
    }
    VM_ERROR_AT(L"PDB error: Compressed integer encoding error");
    return 0;
}

unsigned int readCompressedSigned(ByteCursor& in, std::uint32_t& value)
{
    std::uint32_t raw = 0;
    const unsigned int size = readCompressedUnsigned(in, raw);
    if (size == 0)
        return 0;
    value = raw >> 1;
    if (raw & 1)
        value |= size == 1 ? 0xFFFFFFC0u : size == 2 ? 0xFFFFE000u : 0xF0000000u;
    return size;
}

std::uint32_t readIndex(ByteCursor& in, unsigned int size)
{
    return size == 4 ? in.read<std::uint32_t>() : in.read<std::uint16_t>();
}

} // namespace

CoreCLRSymbolReader::CoreCLRSymbolReader(const wchar_t* pdbPath)
    : m_tablesOffset(0),
      m_blobHeapOffset(0),
      m_stringIndexSize(2),
      m_guidIndexSize(2),
      m_blobIndexSize(2),
      m_documentRowCount(0),
      m_methodRowCount(0),
      m_path(pdbPath),
      m_fileSize(0)
{
}

velmark_error_t CoreCLRSymbolReader::load()
{
    const wchar_t* path = m_path != nullptr ? m_path : L"";
    const std::string utf8Path = toUtf8(path);
    // Only a regular file has a size to read by; a directory or a device does not count as
    // opened.
    struct stat status {};
    if (m_path != nullptr && stat(utf8Path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
        m_stream.open(utf8Path, std::ios::in | std::ios::binary | std::ios::ate);
    if (!m_stream.is_open()) {
        VM_ERROR_AT(L"Failed to find PDB file %s" << path);
        return meFail;
    }
    m_fileSize = static_cast<std::int64_t>(m_stream.tellg());
    if (m_fileSize < 1) {
        VM_ERROR_AT(L"Corrupted PDB file %s" << path);
        return meFail;
    }

    // The tables are read from one copy of the file; names come from the stream later.
    const std::vector<unsigned char> bytes = readFile(0, static_cast<std::uint64_t>(m_fileSize));
    ByteCursor file(bytes.data(), bytes.size());
    if (!readMetadataHeader(file) || !readTableHeader(file) || !skipToDocumentTable(file) ||
        !readDocumentTable(file) || !readMethodDebugTable(file) || !readSequencePoints(file))
        return meFail;

    // Success is reported at ERROR like every other line of this reader.
    VM_ERROR_AT(L"Located PDB file %s" << path);
    return meSuccess;
}

bool CoreCLRSymbolReader::inside(const ByteCursor& file, std::uint64_t count) const
{
    return file.position() + count <= static_cast<std::uint64_t>(m_fileSize);
}

std::vector<unsigned char> CoreCLRSymbolReader::readFile(std::uint64_t offset, std::uint64_t count)
{
    std::vector<unsigned char> bytes(static_cast<std::size_t>(count), 0);
    if (count == 0 || offset >= static_cast<std::uint64_t>(m_fileSize))
        return bytes;
    m_stream.clear();
    m_stream.seekg(static_cast<std::streamoff>(offset));
    m_stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
    m_stream.clear();
    return bytes;
}

unsigned int CoreCLRSymbolReader::readCompressedAt(std::uint64_t offset, std::uint32_t& value)
{
    const std::vector<unsigned char> bytes = readFile(offset, 4);
    ByteCursor in(bytes.data(), bytes.size());
    return readCompressedUnsigned(in, value);
}

bool CoreCLRSymbolReader::readMetadataHeader(ByteCursor& file)
{
    file.seek(0);
    if (!inside(file, 16)) {
        VM_ERROR_AT(L"PDB error: MetadataHeader too small");
        return false;
    }
    if (file.read<std::uint32_t>() != 0x424A5342) {
        VM_ERROR_AT(L"PDB error: Invalid Metadata Signature");
        return false;
    }
    file.skip(8);
    const std::uint32_t versionLength = file.read<std::uint32_t>();
    if (!inside(file, versionLength)) {
        VM_ERROR_AT(L"PDB error: VersionString not found");
        return false;
    }
    file.skip(versionLength);
    if (!inside(file, 4)) {
        VM_ERROR_AT(L"PDB error: MetadataHeader too small");
        return false;
    }
    file.skip(2);
    const std::uint16_t streams = file.read<std::uint16_t>();

    for (unsigned int i = 0; i < streams; ++i) {
        // A margin of 40 bytes, the longest header we expect, although most are shorter.
        if (!inside(file, 40)) {
            VM_ERROR_AT(L"PDB error: StreamHeader too small");
            return false;
        }
        const std::uint32_t offset = file.read<std::uint32_t>();
        file.skip(4);
        std::string name;
        while (file.remaining() != 0) {
            const char c = static_cast<char>(file.read<std::uint8_t>());
            if (c == '\0')
                break;
            name += c;
        }
        if (file.position() % 4 != 0)
            file.skip(4 - file.position() % 4);
        if (name == "#~")
            m_tablesOffset = offset;
        else if (name == "#Blob")
            m_blobHeapOffset = static_cast<std::uint16_t>(offset);
    }
    return true;
}

bool CoreCLRSymbolReader::readTableHeader(ByteCursor& file)
{
    file.seek(m_tablesOffset);
    if (!inside(file, 24)) {
        VM_ERROR_AT(L"PDB length error :: MetadataTableHeaderTooSmall");
        return false;
    }
    file.skip(6);
    const std::uint8_t heapSizes = file.read<std::uint8_t>();
    file.skip(1);
    const std::uint64_t valid = file.read<std::uint64_t>();
    file.skip(8);
    m_stringIndexSize = (heapSizes & 1) ? 4 : 2;
    m_guidIndexSize = (heapSizes & 2) ? 4 : 2;
    m_blobIndexSize = (heapSizes & 4) ? 4 : 2;

    for (std::uint32_t table = 0; table < kValidBits; ++table) {
        if (((valid >> table) & 1) == 0)
            continue;
        if (!inside(file, 4)) {
            VM_ERROR_AT(L"PDB error: Table rowcounts not found in MetadataTableHeader");
            return false;
        }
        const std::uint32_t rows = file.read<std::uint32_t>();
        m_rowCounts[table] = rows;
        if (table == kDocumentTable)
            m_documentRowCount = rows;
        else if (table == kMethodDebugTable)
            m_methodRowCount = rows;
    }
    return true;
}

std::uint64_t CoreCLRSymbolReader::rowCount(std::uint32_t table)
{
    return m_rowCounts[table];
}

unsigned int CoreCLRSymbolReader::simpleIndexSize(std::uint32_t table)
{
    return rowCount(table) < 0x10000 ? 2 : 4;
}

// A table of exactly 2^(16 - tagBits) rows still counts as small here, one more than the
// standard allows; the files we read are laid out by that rule.
unsigned int CoreCLRSymbolReader::codedIndexSize(unsigned int tagBits, std::initializer_list<std::uint32_t> tables)
{
    const std::uint64_t limit = std::uint64_t(1) << (16 - tagBits);
    for (const std::uint32_t table : tables)
        if (rowCount(table) > limit)
            return 4;
    return 2;
}

unsigned int CoreCLRSymbolReader::listIndexSize(std::uint32_t table, std::uint32_t pointerTable)
{
    return rowCount(pointerTable) >= 0x10000 ? 4 : simpleIndexSize(table);
}

unsigned int CoreCLRSymbolReader::rowSize(std::uint32_t table)
{
    const unsigned int s = m_stringIndexSize;
    const unsigned int g = m_guidIndexSize;
    const unsigned int b = m_blobIndexSize;
    const auto typeDefOrRef = [this] { return codedIndexSize(2, {2, 1, 27}); };
    const auto methodDefOrRef = [this] { return codedIndexSize(1, {6, 10}); };
    const auto implementation = [this] { return codedIndexSize(2, {38, 35, 39}); };
    switch (table) {
    case 0: return 2 + s + 3 * g;                                                         // Module
    case 1: return codedIndexSize(2, {0, 26, 35, 1}) + 2 * s;                             // TypeRef
    case 2: return 4 + 2 * s + typeDefOrRef() + listIndexSize(4, 3) + listIndexSize(6, 5); // TypeDef
    case 3: return simpleIndexSize(4);                                                    // FieldPtr
    case 4: return 2 + s + b;                                                             // Field
    case 5: return simpleIndexSize(6);                                                    // MethodPtr
    case 6: return 8 + s + b + listIndexSize(8, 7);                                       // MethodDef
    case 7: return simpleIndexSize(8);                                                    // ParamPtr
    case 8: return 4 + s;                                                                 // Param
    case 9: return simpleIndexSize(2) + typeDefOrRef();                                   // InterfaceImpl
    case 10: return codedIndexSize(3, {2, 1, 26, 6, 27}) + s + b;                         // MemberRef
    case 11: return 2 + codedIndexSize(2, {4, 8, 23}) + b;                                // Constant
    case 12:                                                                              // CustomAttribute
        return codedIndexSize(5, {6, 4, 1, 2, 8, 9, 10, 0, 14, 23, 20, 17, 26, 27, 32, 35, 38, 39, 40, 42, 44, 43}) +
               codedIndexSize(3, {6, 10}) + b;
    case 13: return codedIndexSize(1, {4, 8}) + b;                                        // FieldMarshal
    case 14: return 2 + codedIndexSize(2, {2, 6, 32}) + b;                                // DeclSecurity
    case 15: return 6 + simpleIndexSize(2);                                               // ClassLayout
    case 16: return 4 + simpleIndexSize(4);                                               // FieldLayout
    case 17: return b;                                                                    // StandAloneSig
    case 18: return simpleIndexSize(2) + listIndexSize(20, 19);                           // EventMap
    case 19: return simpleIndexSize(20);                                                  // EventPtr
    case 20: return 2 + s + typeDefOrRef();                                               // Event
    case 21: return simpleIndexSize(2) + listIndexSize(23, 22);                           // PropertyMap
    case 22: return simpleIndexSize(23);                                                  // PropertyPtr
    case 23: return 2 + s + b;                                                            // Property
    case 24: return 2 + simpleIndexSize(6) + codedIndexSize(1, {20, 23});                 // MethodSemantics
    case 25: return simpleIndexSize(2) + 2 * methodDefOrRef();                            // MethodImpl
    case 26: return s;                                                                    // ModuleRef
    case 27: return b;                                                                    // TypeSpec
    case 28: return 2 + codedIndexSize(1, {4, 6}) + s + simpleIndexSize(26);              // ImplMap
    case 29: return 4 + simpleIndexSize(4);                                               // FieldRVA
    case 30: return 8;                                                                    // ENCLog
    case 31: return 4;                                                                    // ENCMap
    case 32: return 16 + b + 2 * s;                                                       // Assembly
    case 33: return 4;                                                                    // AssemblyProcessor
    case 34: return 12;                                                                   // AssemblyOS
    case 35: return 12 + 2 * b + 2 * s;                                                   // AssemblyRef
    case 36: return 4 + simpleIndexSize(35);                                              // AssemblyRefProcessor
    case 37: return 12 + simpleIndexSize(35);                                             // AssemblyRefOS
    case 38: return 4 + s + b;                                                            // File
    case 39: return 8 + 2 * s + implementation();                                         // ExportedType
    case 40: return 8 + s + implementation();                                             // ManifestResource
    case 41: return 2 * simpleIndexSize(2);                                               // NestedClass
    case 42: return 4 + codedIndexSize(1, {2, 6}) + s;                                    // GenericParam
    case 43: return methodDefOrRef() + b;                                                 // MethodSpec
    case 44: return simpleIndexSize(42) + typeDefOrRef();                                 // GenericParamConstraint
    default: return 0;
    }
}

bool CoreCLRSymbolReader::skipToDocumentTable(ByteCursor& file)
{
    // Only the tables that the header lists are stepped over; the width lookups add others
    // with no rows.
    std::vector<std::uint32_t> present;
    for (const auto& entry : m_rowCounts)
        present.push_back(entry.first);
    for (const std::uint32_t table : present) {
        if (table == kDocumentTable)
            return true;
        if (table > kLastSkippableTable) {
            VM_ERROR_AT(L"PDB error: Unknown physical table type");
            return false;
        }
        file.skip(std::uint64_t(rowSize(table)) * rowCount(table));
    }
    VM_ERROR_AT(L"PDB error: Document Table not found");
    return false;
}

bool CoreCLRSymbolReader::readDocumentTable(ByteCursor& file)
{
    const std::uint64_t rowSize = 2 * m_blobIndexSize + 2 * m_guidIndexSize;
    if (!inside(file, rowSize * m_documentRowCount)) {
        VM_ERROR_AT(L"PDB error: Document Table too small");
        return false;
    }
    m_documents.reserve(m_documentRowCount);
    for (std::uint32_t i = 0; i < m_documentRowCount; ++i) {
        DocumentRow row{};
        row.name = readIndex(file, m_blobIndexSize);
        row.hashAlgorithm = readIndex(file, m_guidIndexSize);
        row.hash = readIndex(file, m_blobIndexSize);
        row.language = readIndex(file, m_guidIndexSize);
        m_documents.push_back(row);
    }
    return true;
}

bool CoreCLRSymbolReader::readMethodDebugTable(ByteCursor& file)
{
    // The document column is always 2 bytes wide: more than 65535 documents are not provided
    // for.
    if (!inside(file, std::uint64_t(2 + m_blobIndexSize) * m_methodRowCount)) {
        VM_ERROR_AT(L"PDB error: MethodDebugInformation Table too small");
        return false;
    }
    m_methods.reserve(m_methodRowCount);
    for (std::uint32_t i = 0; i < m_methodRowCount; ++i) {
        MethodDebugRow row{};
        row.document = file.read<std::uint16_t>();
        row.sequencePoints = readIndex(file, m_blobIndexSize);
        m_methods.push_back(row);
    }
    return true;
}

bool CoreCLRSymbolReader::readSequencePoints(ByteCursor& file)
{
    // A damaged file may point every row at one large blob; it is decoded once.
    std::map<std::uint64_t, std::uint32_t> listAt;
    m_sequencePointsOfRow.reserve(m_methods.size());
    for (const MethodDebugRow& row : m_methods) {
        const std::uint64_t offset = std::uint64_t(m_blobHeapOffset) + row.sequencePoints;
        const auto known = listAt.find(offset);
        if (known != listAt.end()) {
            m_sequencePointsOfRow.push_back(known->second);
            continue;
        }
        file.seek(offset);
        std::vector<SequencePoint> points;
        if (!readSequencePointBlob(file, points))
            return false;
        const auto index = static_cast<std::uint32_t>(m_sequencePoints.size());
        m_sequencePoints.push_back(std::move(points));
        listAt.emplace(offset, index);
        m_sequencePointsOfRow.push_back(index);
    }
    return true;
}

// The blob is read as that of a method in one document: no InitialDocument field, and a
// record with IL delta 0 starts over at offset 0 instead of changing the document.
bool CoreCLRSymbolReader::readSequencePointBlob(ByteCursor& file, std::vector<SequencePoint>& points)
{
    if (!inside(file, 4)) {
        VM_ERROR_AT(L"PDB error: Sequence Record Bytecount not found in Blob Heap");
        return false;
    }
    std::uint32_t length = 0;
    if (readCompressedUnsigned(file, length) == 0)
        return false;
    if (length == 0) {
        points.push_back(SequencePoint{});
        return true;
    }
    if (!inside(file, length)) {
        VM_ERROR_AT(L"PDB error: Sequence Record not found in Blob Heap");
        return false;
    }
    const std::uint64_t start = file.position();
    std::uint32_t localSignature = 0;
    if (readCompressedUnsigned(file, localSignature) == 0)
        return false;

    std::uint32_t runningOffset = 0;
    std::uint32_t previousLine = 0;
    std::uint32_t previousColumn = 0;
    while (file.position() - start < length) {
        std::uint32_t ilDelta = 0, lines = 0, columns = 0, lineDelta = 0, columnDelta = 0;
        if (readCompressedUnsigned(file, ilDelta) == 0 || readCompressedUnsigned(file, lines) == 0)
            return false;
        if ((lines != 0 ? readCompressedSigned(file, columns) : readCompressedUnsigned(file, columns)) == 0)
            return false;
        const bool hidden = lines == 0 && columns == 0;
        if (!hidden) {
            const auto read = previousLine != 0 ? readCompressedSigned : readCompressedUnsigned;
            if (read(file, lineDelta) == 0 || read(file, columnDelta) == 0)
                return false;
        }

        SequencePoint point{};
        if (ilDelta != 0) {
            point.ilOffset = runningOffset + ilDelta;
            runningOffset = point.ilOffset;
            lineDelta += previousLine;
            columnDelta += previousColumn;
        } else {
            runningOffset = 0;
        }
        if (!hidden) {
            point.startLine = lineDelta;
            point.startColumn = columnDelta;
            point.endLine = point.startLine + lines;
            point.endColumn = point.startColumn + columns;
            previousLine = point.startLine;
            previousColumn = point.startColumn;
        }
        points.push_back(point);
    }
    return true;
}

velmark_error_t CoreCLRSymbolReader::getLineNumber(int methodRow, unsigned int ilOffset, unsigned int* line)
{
    // A row past the table is a miss.
    if (methodRow < 1 || static_cast<std::size_t>(methodRow) > m_sequencePointsOfRow.size() || line == nullptr)
        return meFail;
    const std::vector<SequencePoint>& points = m_sequencePoints[m_sequencePointsOfRow[methodRow - 1]];
    for (const SequencePoint& point : points) {
        if (point.ilOffset == ilOffset) {
            *line = point.startLine;
            return meSuccess;
        }
    }
    return meFail;
}

// The name blob is read as a one-byte separator, one skipped byte taken for the empty first
// part, and the offsets of the other parts; a first part that is not empty is lost.
velmark_error_t CoreCLRSymbolReader::getDocumentName(int methodRow, std::string& name)
{
    if (methodRow <= 0) {
        VM_ERROR_AT(L"Invalid functionRowID=" << methodRow);
        return meFail;
    }
    if (static_cast<std::size_t>(methodRow) > m_methods.size())
        return meFail;
    const int documentRow = static_cast<int>(m_methods[methodRow - 1].document);
    if (documentRow <= 0) {
        VM_ERROR_AT(L"Invalid documentRowID=" << documentRow);
        return meFail;
    }
    if (static_cast<std::size_t>(documentRow) > m_documents.size())
        return meFail;

    const std::uint64_t fileSize = static_cast<std::uint64_t>(m_fileSize);
    std::uint64_t position = std::uint64_t(m_blobHeapOffset) + m_documents[documentRow - 1].name;
    if (position + 4 > fileSize) {
        VM_ERROR_AT(L"PDB error: Document Index Bytecount not found in Blob Heap");
        return meFail;
    }
    std::uint32_t length = 0;
    const unsigned int lengthSize = readCompressedAt(position, length);
    if (lengthSize == 0)
        return meFail;
    position += lengthSize;
    if (position + length > fileSize) {
        VM_ERROR_AT(L"PDB error: Document Name Index not found in Blob Heap");
        return meFail;
    }

    // The blob and the bytes behind it that a last offset running over its end reaches.
    const std::vector<unsigned char> blobBytes = readFile(position, std::uint64_t(length) + 4);
    ByteCursor blob(blobBytes.data(), blobBytes.size());
    const char separator = static_cast<char>(blob.read<std::uint8_t>());
    blob.skip(1);
    std::vector<std::uint32_t> parts;
    while (static_cast<std::int64_t>(blob.position()) < static_cast<std::int64_t>(length)) {
        std::uint32_t part = 0;
        if (readCompressedUnsigned(blob, part) == 0)
            return meFail;
        parts.push_back(part);
    }

    std::string result;
    for (const std::uint32_t part : parts) {
        result += separator;
        std::uint64_t at = std::uint64_t(m_blobHeapOffset) + part;
        if (at + 4 > fileSize) {
            VM_ERROR_AT(L"PDB error: Document Name Bytecount not found in Blob Heap");
            return meFail;
        }
        std::uint32_t partLength = 0;
        const unsigned int partLengthSize = readCompressedAt(at, partLength);
        if (partLengthSize == 0)
            return meFail;
        at += partLengthSize;
        // The part ends at its first zero byte, and what lies past the end of the file reads
        // as zero: nothing beyond the file is needed.
        const std::uint64_t available = at < fileSize ? std::min<std::uint64_t>(partLength, fileSize - at) : 0;
        const std::vector<unsigned char> text = readFile(at, available);
        result.append(reinterpret_cast<const char*>(text.data()),
                      strnlen(reinterpret_cast<const char*>(text.data()), text.size()));
    }
    name = result;
    return meSuccess;
}

} // namespace velmark_3_11
