#include "jitreader/assembly_reader_impl.h"

#include <cstring>
#include <memory>

#include <boost/make_shared.hpp>

#include "jitreader/boundary.h"
#include "platform/path.h"

namespace velmark_3_11 {
namespace {

/// A portable debug reader together with the path it keeps pointing at and the lock of its
/// file position, so that methods that outlive their assembly reader keep all three.
struct CoreReaderFile {
    explicit CoreReaderFile(const std::wstring& pdbPath) : path(pdbPath), reader(path.c_str()) {}
    std::wstring path;
    std::mutex fileLock;
    CoreCLRSymbolReader reader;
};

constexpr ULONG kAttributeCapacity = 260;

} // namespace

AssemblyReader::AssemblyReader(const wchar_t* assemblyPath, const wchar_t* pdbPath)
    : m_assemblyPath(assemblyPath != nullptr ? assemblyPath : L""),
      m_pdbPath(pdbPath != nullptr ? pdbPath : L""),
      m_module(nullptr),
      m_isCoreClr(false)
{
}

// Only the classic runtime's side is taken down with CoUninitialize; a .NET Core reader
// leaves the apartment as it is, although initialize entered it.
AssemblyReader::~AssemblyReader()
{
    if (!m_isCoreClr) {
        m_symbolReader = ComPtr<ISymUnmanagedReader>();
        m_metadataImport = ComPtr<IMetaDataImport2>();
        if (m_module != nullptr) {
            FreeLibrary(m_module);
            m_module = nullptr;
        }
        CoUninitialize();
    } else {
        m_coreReader.reset();
    }
}

velmark_error_t AssemblyReader::openMetadataImport(const std::wstring& path, ComPtr<IMetaDataImport2>& import)
{
    OSVERSIONINFOEXA version{};
    version.dwOSVersionInfoSize = sizeof version;
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 2;
    DWORDLONG mask = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);

    ComPtr<IMetaDataDispenser> dispenser;
    if (!VerifyVersionInfoA(&version, VER_MAJORVERSION | VER_MINORVERSION, mask)) {
        if (CoCreateInstance(CLSID_CorMetaDataDispenser, nullptr, CLSCTX_INPROC_SERVER, IID_IMetaDataDispenser,
                             reinterpret_cast<void**>(dispenser.put())) != S_OK)
            return meFail;
    } else {
        // The library stays loaded for the life of the process.
        typedef HRESULT (*GetDispenser)(REFCLSID, REFIID, LPVOID*);
        if (HMODULE library = LoadLibraryW(L"rometadata.dll")) {
            if (FARPROC function = GetProcAddress(library, "MetaDataGetDispenser")) {
                IMetaDataDispenserEx* dispenserEx = nullptr;
                const HRESULT result = reinterpret_cast<GetDispenser>(function)(
                    CLSID_CorMetaDataDispenser, IID_IMetaDataDispenserEx, reinterpret_cast<void**>(&dispenserEx));
                dispenser = ComPtr<IMetaDataDispenser>(dispenserEx);
                if (result != S_OK)
                    return meFail;
            }
        }
    }
    if (!dispenser)
        return meFail;
    IUnknown* scope = nullptr;
    const HRESULT result = dispenser->OpenScope(path.c_str(), ofRead, IID_IMetaDataImport2, &scope);
    import = ComPtr<IMetaDataImport2>(static_cast<IMetaDataImport2*>(scope));
    if (FAILED(result) || !import)
        return meFail;
    return meSuccess;
}

// The decision rests on the owner of the image's first custom attribute alone: whatever item
// holds it is taken to carry the framework attribute.
bool AssemblyReader::isCoreAssembly(IMetaDataImport2* import)
{
    if (import == nullptr)
        return false;
    mdCustomAttribute attributes[kAttributeCapacity + 1] = {};
    HCORENUM enumerator = nullptr;
    ULONG count = 0;
    // The enumerator is left open; the scope frees it.
    if (import->EnumCustomAttributes(&enumerator, 0, 0, attributes, kAttributeCapacity, &count) != S_OK ||
        count == 0)
        return false;
    mdToken owner = 0;
    if (import->GetCustomAttributeProps(attributes[0], &owner, nullptr, nullptr, nullptr) != S_OK)
        return false;
    const void* blob = nullptr;
    ULONG size = 0;
    import->GetCustomAttributeByName(owner, L"System.Runtime.Versioning.TargetFrameworkAttribute", &blob, &size);
    if (blob == nullptr || size == 0)
        return false;
    std::string text(static_cast<const char*>(blob), size);
    for (char& c : text)
        if (c == '\0')
            c = ' ';
    return text.find("NETCoreApp") != std::string::npos;
}

// Exactly three characters behind the last dot give way to "pdb", whatever they were: a.winmd
// becomes a.pdbmd, and a path without a dot loses its first three characters.
std::wstring AssemblyReader::derivePdbPath(const std::wstring& assemblyPath)
{
    std::wstring path = assemblyPath;
    const std::size_t dot = path.rfind(L'.');
    const std::size_t from = dot == std::wstring::npos ? 0 : dot + 1;
    path.replace(from, 3, L"pdb");
    return path;
}

velmark_error_t AssemblyReader::initialize()
{
    CoInitialize(nullptr);
    if (openMetadataImport(m_assemblyPath, m_metadataImport) != meSuccess)
        return meFail;
    const bool coreAssembly = isCoreAssembly(m_metadataImport.get());
    if (!coreAssembly) {
        // Both binder classes hand out an object that answers GetReaderForFile2.
        void* binder = nullptr;
        if (FAILED(CoCreateInstance(CLSID_CorSymBinder_SxS, nullptr, CLSCTX_INPROC_SERVER, IID_ISymUnmanagedBinder2,
                                    &binder)) &&
            FAILED(CoCreateInstance(CLSID_CorSymBinder_deprecated, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_ISymUnmanagedBinder, &binder)))
            return meFail;
        if (binder == nullptr)
            return meFail;
        ComPtr<ISymUnmanagedBinder2> symbolBinder(static_cast<ISymUnmanagedBinder2*>(binder));
        // The search path is the named debug file's directory, empty when none was named.
        const std::wstring searchPath = basekit2::path_t(m_pdbPath).get_branch();
        if (symbolBinder->GetReaderForFile2(m_metadataImport.get(), m_assemblyPath.c_str(), searchPath.c_str(),
                                            AllowOriginalPathAccess | AllowReferencePathAccess,
                                            m_symbolReader.put()) != S_OK)
            m_symbolReader = ComPtr<ISymUnmanagedReader>();
    } else {
        m_isCoreClr = true;
    }
    if (m_pdbPath.empty())
        m_pdbPath = derivePdbPath(m_assemblyPath);
    if (!m_isCoreClr)
        return meSuccess;
    // A missing or broken debug file leaves a working reader without line information.
    const boost::shared_ptr<CoreReaderFile> file = boost::make_shared<CoreReaderFile>(m_pdbPath);
    if (file->reader.load() != meFail) {
        m_coreReader = boost::shared_ptr<CoreCLRSymbolReader>(file, &file->reader);
        m_coreFileLock = boost::shared_ptr<std::mutex>(file, &file->fileLock);
    }
    return meSuccess;
}

boost::intrusive_ptr<DotNetMethod> AssemblyReader::getMethod(unsigned int token)
{
    boost::intrusive_ptr<DotNetMethod> method(new DotNetMethod(token));
    if (m_isCoreClr)
        method->setCoreReader(m_coreReader, m_coreFileLock);
    if (!m_metadataImport)
        return nullptr;
    ComPtr<ISymUnmanagedMethod> symbolMethod;
    if (!m_isCoreClr)
        symbolMethod = getSymbolMethod(token);
    method->setSymbols(symbolMethod.get(), m_metadataImport.get());
    return method;
}

ComPtr<ISymUnmanagedMethod> AssemblyReader::getSymbolMethod(unsigned int token)
{
    if (!m_symbolReader)
        return ComPtr<ISymUnmanagedMethod>();
    ComPtr<ISymUnmanagedMethod> method;
    HRESULT result = 1;
    // A fault inside the symbol reader counts as a failed call.
    try {
        result = m_symbolReader->GetMethod(token, method.put());
    } catch (...) {
        result = 1;
    }
    if (result != S_OK)
        return ComPtr<ISymUnmanagedMethod>();
    return method;
}

void AssemblyReader::enumerateMethods(void* context)
{
    if (!m_metadataImport)
        return;
    enumerateTypeMethods(0, context);
    HCORENUM enumerator = nullptr;
    m_metadataImport->EnumTypeDefs(&enumerator, nullptr, 0, nullptr);
    ULONG count = 0;
    if (m_metadataImport->CountEnum(enumerator, &count) != S_OK) {
        m_metadataImport->CloseEnum(enumerator);
        return;
    }
    std::vector<mdTypeDef> types(count);
    ULONG got = 0;
    if (count > 0)
        m_metadataImport->EnumTypeDefs(&enumerator, types.data(), count, &got);
    for (ULONG i = 0; i < got && i < count; ++i)
        enumerateTypeMethods(types[i], context);
    m_metadataImport->CloseEnum(enumerator);
}

void AssemblyReader::enumerateTypeMethods(mdTypeDef type, void* context)
{
    static_cast<void>(context); // handed down, never read
    if (!m_metadataImport)
        return;
    HCORENUM enumerator = nullptr;
    m_metadataImport->EnumMethods(&enumerator, type, nullptr, 0, nullptr);
    ULONG count = 0;
    if (enumerator == nullptr || m_metadataImport->CountEnum(enumerator, &count) != S_OK) {
        m_metadataImport->CloseEnum(enumerator);
        return;
    }
    std::vector<mdMethodDef> methods(count);
    ULONG got = 0;
    if (count > 0)
        m_metadataImport->EnumMethods(&enumerator, type, methods.data(), count, &got);
    for (ULONG i = 0; i < got && i < count; ++i)
        getMethod(methods[i]);
    m_metadataImport->CloseEnum(enumerator);
}

velmark_error_t IAssemblyReader::create(const wchar_t* assemblyPath, const wchar_t* pdbPath,
                                        boost::intrusive_ptr<IAssemblyReader>& reader)
{
    return guardBoundary(L"IAssemblyReader::create", meFail, [&] {
        if (assemblyPath == nullptr)
            return meInvalidArgument;
        boost::intrusive_ptr<AssemblyReader> created(new AssemblyReader(assemblyPath, pdbPath));
        if (created->initialize() != meSuccess)
            return meFail;
        reader = created;
        return meSuccess;
    });
}

bool isDotNetCore(const std::wstring& assemblyPath)
{
    return guardBoundary(L"isDotNetCore", false, [&] {
        if (assemblyPath.empty())
            return false;
        ComPtr<IMetaDataImport2> import;
        if (AssemblyReader::openMetadataImport(assemblyPath, import) != meSuccess)
            return false;
        return AssemblyReader::isCoreAssembly(import.get());
    });
}

bool isDotNetCoreValidPdb(const std::wstring& pdbPath)
{
    return guardBoundary(L"isDotNetCoreValidPdb", false, [&] {
        CoreCLRSymbolReader reader(pdbPath.c_str());
        return reader.load() != meFail;
    });
}

} // namespace velmark_3_11
