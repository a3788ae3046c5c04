// Reads the source lines and document names of methods from a portable debug file, by this
// reader's own narrow reading of the format: single-document methods, exact IL offsets.
#pragma once

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "jitreader/error.h"

namespace velmark_3_11 {

class ByteCursor;

class CoreCLRSymbolReader {
public:
    struct DocumentRow {
        std::uint32_t name;          ///< blob offset
        std::uint32_t hashAlgorithm; ///< GUID index
        std::uint32_t hash;          ///< blob offset
        std::uint32_t language;      ///< GUID index
    };
    struct MethodDebugRow {
        std::uint32_t document;       ///< 1-based row of the document table; 0 for several documents
        std::uint32_t sequencePoints; ///< blob offset
    };
    struct SequencePoint {
        std::uint32_t ilOffset;
        std::uint32_t startLine;
        std::uint32_t startColumn;
        std::uint32_t endLine;
        std::uint32_t endColumn;
    };

    /// Touches no file. The caller keeps `pdbPath` alive as long as the reader.
    explicit CoreCLRSymbolReader(const wchar_t* pdbPath);

    /// Reads the file's tables and every method's sequence points; the file stays open.
    velmark_error_t load();
    /// The start line of the point of `methodRow` (1-based) at exactly `ilOffset`.
    velmark_error_t getLineNumber(int methodRow, unsigned int ilOffset, unsigned int* line);
    /// The UTF-8 path of the document of `methodRow`, read afresh from the file.
    velmark_error_t getDocumentName(int methodRow, std::string& name);

private:
    bool readMetadataHeader(ByteCursor& file);
    bool readTableHeader(ByteCursor& file);
    bool skipToDocumentTable(ByteCursor& file);
    bool readDocumentTable(ByteCursor& file);
    bool readMethodDebugTable(ByteCursor& file);
    bool readSequencePoints(ByteCursor& file);
    bool readSequencePointBlob(ByteCursor& file, std::vector<SequencePoint>& points);

    std::uint64_t rowCount(std::uint32_t table);
    unsigned int simpleIndexSize(std::uint32_t table);
    unsigned int codedIndexSize(unsigned int tagBits, std::initializer_list<std::uint32_t> tables);
    unsigned int listIndexSize(std::uint32_t table, std::uint32_t pointerTable);
    unsigned int rowSize(std::uint32_t table);

    bool inside(const ByteCursor& file, std::uint64_t count) const;
    std::vector<unsigned char> readFile(std::uint64_t offset, std::uint64_t count);
    unsigned int readCompressedAt(std::uint64_t offset, std::uint32_t& value);

    std::map<std::uint32_t, std::uint64_t> m_rowCounts;
    std::uint32_t m_tablesOffset;
    std::uint16_t m_blobHeapOffset; ///< 16 bits on purpose: a heap beyond 64 KB is read modulo 64 KB
    std::uint32_t m_stringIndexSize;
    std::uint32_t m_guidIndexSize;
    std::uint32_t m_blobIndexSize;
    std::uint32_t m_documentRowCount;
    std::uint32_t m_methodRowCount;
    std::vector<DocumentRow> m_documents;
    std::vector<MethodDebugRow> m_methods;
    /// The decoded point lists; rows whose blobs start at one place share one list.
    std::vector<std::vector<SequencePoint>> m_sequencePoints;
    std::vector<std::uint32_t> m_sequencePointsOfRow; ///< per row of m_methods
    const wchar_t* m_path;
    std::ifstream m_stream;
    std::int64_t m_fileSize;
};

} // namespace velmark_3_11
