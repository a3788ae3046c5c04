// What the symbol reader asks of a debug file, whichever format it is in: documents by id
// and the sequence points of a method def.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/metadata/cor.h"

namespace velmark_3_11 {

struct PdbDocument {
    std::string name; // UTF-8
    GUID hashAlgorithm;
    std::vector<std::uint8_t> hash;
    GUID language;
};

/// One sequence point; a hidden one has line and end line 0xFEEFEE and columns 0.
struct PdbSequencePoint {
    std::uint32_t offset;
    std::uint32_t line;
    std::uint32_t column;
    std::uint32_t endLine;
    std::uint32_t endColumn;
    std::uint32_t document; // id for document(), never 0
};

class DebugSymbols {
public:
    virtual ~DebugSymbols() = default;

    /// The document of `id`; false when there is none or it is corrupt.
    virtual bool document(std::uint32_t id, PdbDocument& document) const = 0;
    /// The points of method def row `methodRow`, in file order; false when the row is unknown
    /// or its points are corrupt. A method without points gives none.
    virtual bool sequencePoints(std::uint32_t methodRow, std::vector<PdbSequencePoint>& points) const = 0;
};

} // namespace velmark_3_11
