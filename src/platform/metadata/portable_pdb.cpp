#include "platform/metadata/portable_pdb.h"

#include <cstring>

#include "platform/byte_cursor.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/metadata_bytes.h"

namespace velmark_3_11 {
namespace {

constexpr std::uint32_t kDocumentName = 0, kDocumentHashAlgorithm = 1, kDocumentHash = 2, kDocumentLanguage = 3;
constexpr std::uint32_t kMethodDocument = 0, kMethodSequencePoints = 1;
// Bounds of the format: lines below 0x20000000, columns below 0x10000.
constexpr std::int64_t kLineLimit = 0x20000000;
constexpr std::int64_t kColumnLimit = 0x10000;

} // namespace

std::unique_ptr<PortablePdb> PortablePdb::create(std::vector<std::uint8_t> bytes, HRESULT& result)
{
    std::unique_ptr<PortablePdb> pdb(new PortablePdb);
    pdb->m_bytes = std::move(bytes);
    pdb->m_tables = MetadataTables::create(pdb->m_bytes.data(), pdb->m_bytes.size(), result);
    if (!pdb->m_tables)
        return nullptr;
    if (!pdb->m_tables->isPortablePdb()) {
        result = COR_E_BADIMAGEFORMAT;
        return nullptr;
    }
    result = S_OK;
    return pdb;
}

bool PortablePdb::matches(const GUID& signature, std::uint32_t timeStamp) const
{
    ByteCursor cursor(id().data(), id().size());
    const GUID guid = readGuid(cursor);
    return guid == signature && cursor.read<std::uint32_t>() == timeStamp;
}

bool PortablePdb::document(std::uint32_t row, PdbDocument& document) const
{
    const MetadataTables& t = *m_tables;
    if (row == 0 || row > documentCount())
        return false;
    const std::uint8_t* name = nullptr;
    std::uint32_t nameSize = 0;
    const std::uint8_t* hash = nullptr;
    std::uint32_t hashSize = 0;
    if (!t.blob(t.cell(MetadataTables::kDocument, row, kDocumentName), name, nameSize) ||
        !t.blob(t.cell(MetadataTables::kDocument, row, kDocumentHash), hash, hashSize) ||
        !t.guid(t.cell(MetadataTables::kDocument, row, kDocumentHashAlgorithm), document.hashAlgorithm) ||
        !t.guid(t.cell(MetadataTables::kDocument, row, kDocumentLanguage), document.language))
        return false;
    document.hash.assign(hash, hash + hashSize);

    // The name is a separator byte and parts, each the blob index of UTF-8 text.
    ByteCursor cursor(name, nameSize);
    const char separator = static_cast<char>(cursor.read<std::uint8_t>());
    if (cursor.overrun())
        return false;
    document.name.clear();
    bool first = true;
    while (cursor.remaining() != 0) {
        std::uint32_t index = 0;
        const std::uint8_t* part = nullptr;
        std::uint32_t partSize = 0;
        if (!readCompressedUnsigned(cursor, index) || !t.blob(index, part, partSize))
            return false;
        if (!first && separator != '\0')
            document.name.push_back(separator);
        document.name.append(reinterpret_cast<const char*>(part), partSize);
        first = false;
    }
    return true;
}

bool PortablePdb::sequencePoints(std::uint32_t methodRow, std::vector<PdbSequencePoint>& points) const
{
    const MetadataTables& t = *m_tables;
    points.clear();
    if (methodRow == 0 || methodRow > t.rowCount(MetadataTables::kMethodDebugInformation))
        return false;
    const std::uint8_t* blob = nullptr;
    std::uint32_t blobSize = 0;
    if (!t.blob(t.cell(MetadataTables::kMethodDebugInformation, methodRow, kMethodSequencePoints), blob, blobSize))
        return false;
    if (blobSize == 0)
        return true;

    ByteCursor cursor(blob, blobSize);
    std::uint32_t value = 0;
    if (!readCompressedUnsigned(cursor, value)) // local signature
        return false;
    std::uint32_t document = t.cell(MetadataTables::kMethodDebugInformation, methodRow, kMethodDocument);
    if (document == 0 && !readCompressedUnsigned(cursor, document))
        return false;
    if (document == 0 || document > documentCount())
        return false;

    std::int64_t offset = 0, line = 0, column = 0;
    bool havePoint = false, haveVisible = false;
    while (cursor.remaining() != 0) {
        std::uint32_t offsetDelta = 0;
        if (!readCompressedUnsigned(cursor, offsetDelta))
            return false;
        if (havePoint && offsetDelta == 0) {
            // A document record: the points that follow lie in another document.
            if (!readCompressedUnsigned(cursor, document) || document == 0 || document > documentCount())
                return false;
            continue;
        }
        offset += offsetDelta;
        if (offset > 0x7FFFFFFF)
            return false;
        std::uint32_t lineSpan = 0;
        std::int64_t columnSpan = 0;
        if (!readCompressedUnsigned(cursor, lineSpan))
            return false;
        if (lineSpan == 0) {
            std::uint32_t span = 0;
            if (!readCompressedUnsigned(cursor, span))
                return false;
            columnSpan = span;
        } else {
            std::int32_t span = 0;
            if (!readCompressedSigned(cursor, span))
                return false;
            columnSpan = span;
        }
        PdbSequencePoint point{static_cast<std::uint32_t>(offset), kHiddenLine, 0, kHiddenLine, 0, document};
        if (lineSpan != 0 || columnSpan != 0) {
            // The first visible point's start is absolute, later ones are deltas.
            if (haveVisible) {
                std::int32_t lineDelta = 0, columnDelta = 0;
                if (!readCompressedSigned(cursor, lineDelta) || !readCompressedSigned(cursor, columnDelta))
                    return false;
                line += lineDelta;
                column += columnDelta;
            } else {
                std::uint32_t startLine = 0, startColumn = 0;
                if (!readCompressedUnsigned(cursor, startLine) || !readCompressedUnsigned(cursor, startColumn))
                    return false;
                line = startLine;
                column = startColumn;
            }
            const std::int64_t endLine = line + lineSpan, endColumn = column + columnSpan;
            if (line < 0 || endLine >= kLineLimit || column < 0 || column >= kColumnLimit || endColumn < 0 ||
                endColumn >= kColumnLimit)
                return false;
            point.line = static_cast<std::uint32_t>(line);
            point.column = static_cast<std::uint32_t>(column);
            point.endLine = static_cast<std::uint32_t>(endLine);
            point.endColumn = static_cast<std::uint32_t>(endColumn);
            haveVisible = true;
        }
        points.push_back(point);
        havePoint = true;
    }
    return true;
}

} // namespace velmark_3_11
