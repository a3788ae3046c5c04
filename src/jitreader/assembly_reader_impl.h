// The assembly reader behind IAssemblyReader: the metadata scope of one assembly, whether it
// targets .NET Core, and the debug information of the matching kind.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "jitreader/assembly_reader.h"
#include "jitreader/clr_symreader.h"
#include "jitreader/dot_net_method.h"
#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/system_services.h"

namespace velmark_3_11 {

class AssemblyReader final : public IAssemblyReader {
public:
    AssemblyReader(const wchar_t* assemblyPath, const wchar_t* pdbPath);
    ~AssemblyReader() override;

    boost::intrusive_ptr<DotNetMethod> getMethod(unsigned int token) override;
    void enumerateMethods(void* context) override;

    /// Opens the scope, tells .NET Core from the classic runtime and attaches debug
    /// information; only a scope that can't be opened or a missing binder fail.
    velmark_error_t initialize();
    /// The symbol method of `token`, or null.
    ComPtr<ISymUnmanagedMethod> getSymbolMethod(unsigned int token);

    const std::wstring& pdbPath() const { return m_pdbPath; }
    bool isCoreClr() const { return m_isCoreClr; }

    static velmark_error_t openMetadataImport(const std::wstring& path, ComPtr<IMetaDataImport2>& import);
    /// True when the owner of the image's first custom attribute has a framework attribute
    /// that names "NETCoreApp".
    static bool isCoreAssembly(IMetaDataImport2* import);
    /// The assembly path with "pdb" over the three characters behind its last dot.
    static std::wstring derivePdbPath(const std::wstring& assemblyPath);

private:
    void enumerateTypeMethods(mdTypeDef type, void* context);

    std::wstring m_assemblyPath;
    std::wstring m_pdbPath;
    std::vector<unsigned int> m_reserved;
    ComPtr<IMetaDataImport2> m_metadataImport;
    ComPtr<ISymUnmanagedReader> m_symbolReader;
    HMODULE m_module;
    bool m_isCoreClr;
    boost::shared_ptr<CoreCLRSymbolReader> m_coreReader;
    /// Shared by every method of the module: the portable reader has one file position.
    boost::shared_ptr<std::mutex> m_coreFileLock;
};

} // namespace velmark_3_11
