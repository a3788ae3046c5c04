// ISymUnmanagedReader over a debug file of either format, with the method and document
// objects it hands out. Every object holds the debug file, so any of them may outlive the
// others; none changes after it is made, so they may be queried from several threads.
#pragma once

#include <memory>

#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/debug_symbols.h"

namespace velmark_3_11 {

class SymReader final : public ComObject<ISymUnmanagedReader> {
public:
    /// A reader with one reference, for the caller.
    static SymReader* create(std::shared_ptr<const DebugSymbols> pdb);

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override;
    HRESULT GetMethod(mdMethodDef token, ISymUnmanagedMethod** pRetVal) override;

private:
    explicit SymReader(std::shared_ptr<const DebugSymbols> pdb) : m_pdb(std::move(pdb)) {}

    std::shared_ptr<const DebugSymbols> m_pdb;
};

} // namespace velmark_3_11
