// The symbol binder: finds the Portable or Windows PDB of an assembly by its CodeView record,
// the search path, the assembly's directory, or the assembly's embedded debug file.
#pragma once

#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"

namespace velmark_3_11 {

class SymBinder final : public ComObject<ISymUnmanagedBinder2> {
public:
    /// A binder with one reference, for the caller.
    static SymBinder* create() { return new SymBinder; }

    HRESULT QueryInterface(REFIID riid, void** ppvObject) override;
    HRESULT GetReaderForFile(IUnknown* importer, const WCHAR* fileName, const WCHAR* searchPath,
                             ISymUnmanagedReader** pRetVal) override;
    /// The assembly is read from `fileName`; `importer` is not needed. Candidates, in order:
    /// the CodeView path (AllowOriginalPathAccess), each directory of the ";"-separated
    /// `searchPath`, the assembly's directory (AllowReferencePathAccess), then the embedded
    /// debug file. A Portable PDB is taken only when its id matches the CodeView record, a
    /// Windows PDB only when its signature and age do. HRESULT_FILE_NOT_FOUND when nothing
    /// matches, the image's failure when the assembly cannot be read.
    HRESULT GetReaderForFile2(IUnknown* importer, const WCHAR* fileName, const WCHAR* searchPath,
                              ULONG32 searchPolicy, ISymUnmanagedReader** pRetVal) override;

private:
    SymBinder() = default;
};

} // namespace velmark_3_11
