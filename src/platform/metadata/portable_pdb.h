// Reader of a Portable PDB debug file by the published format: its id, the Document table
// and the sequence points of MethodDebugInformation, several documents per method included.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/metadata/cor.h"
#include "platform/metadata/debug_symbols.h"
#include "platform/metadata/metadata_tables.h"

namespace velmark_3_11 {

class PortablePdb final : public DebugSymbols {
public:
    /// Reads `bytes` as a Portable PDB. Null with `result` COR_E_BADIMAGEFORMAT when it is
    /// no metadata with a #Pdb stream, CLDB_E_FILE_CORRUPT when its tables do not fit.
    static std::unique_ptr<PortablePdb> create(std::vector<std::uint8_t> bytes, HRESULT& result);

    /// GUID and time stamp that the assembly's CodeView entry names.
    const std::array<std::uint8_t, 20>& id() const { return m_tables->pdbId(); }
    /// True when the id is the one of the CodeView record `signature` with `timeStamp`.
    bool matches(const GUID& signature, std::uint32_t timeStamp) const;
    std::uint32_t documentCount() const { return m_tables->rowCount(MetadataTables::kDocument); }
    /// The document of 1-based `row`; false when the row lies outside or is corrupt.
    bool document(std::uint32_t row, PdbDocument& document) const override;
    /// The points of method def row `methodRow`, in blob order; false when the row lies
    /// outside the table or its blob is corrupt. A method without points gives none.
    bool sequencePoints(std::uint32_t methodRow, std::vector<PdbSequencePoint>& points) const override;

private:
    PortablePdb() = default;

    std::vector<std::uint8_t> m_bytes;
    std::unique_ptr<MetadataTables> m_tables;
};

} // namespace velmark_3_11
