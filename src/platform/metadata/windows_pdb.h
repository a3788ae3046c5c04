// Reader of the managed symbols of a Windows PDB: the info stream's identity and named
// streams, the DBI stream's modules, each module's managed procedures, and the C13 line
// information that ties their IL offsets to lines, columns and documents.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "platform/metadata/cor.h"
#include "platform/metadata/debug_symbols.h"

namespace velmark_3_11 {

class WindowsPdb final : public DebugSymbols {
public:
    /// Reads `bytes` as a Windows PDB, all of its line information at once. Null with
    /// `result` COR_E_BADIMAGEFORMAT when it is no MSF 7.00 container, CLDB_E_FILE_CORRUPT
    /// when a stream it needs is missing or does not hold together.
    static std::unique_ptr<WindowsPdb> create(std::vector<std::uint8_t> bytes, HRESULT& result);

    /// True when the file is the one a CodeView record of `signature` and `age` names.
    bool matches(const GUID& signature, std::uint32_t age) const;
    std::uint32_t documentCount() const { return static_cast<std::uint32_t>(m_documents.size()); }
    /// Documents are numbered from 1 in the order their first line refers to them.
    bool document(std::uint32_t id, PdbDocument& document) const override;
    bool sequencePoints(std::uint32_t methodRow, std::vector<PdbSequencePoint>& points) const override;

private:
    class Builder;

    WindowsPdb() = default;

    GUID m_signature{};
    std::uint32_t m_age = 0;
    std::vector<PdbDocument> m_documents;
    std::map<std::uint32_t, std::vector<PdbSequencePoint>> m_methods; // by method def row
};

} // namespace velmark_3_11
