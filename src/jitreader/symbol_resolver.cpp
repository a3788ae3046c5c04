#include "jitreader/symbol_resolver.h"

#include <memory>
#include <string>
#include <vector>

#include <tbb/concurrent_hash_map.h>

#include "jitreader/assembly_reader.h"
#include "jitreader/boundary.h"
#include "jitreader/dot_net_method.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_files_manager.h"
#include "platform/path.h"

namespace velmark_3_11 {
namespace {

/// Hashes module paths: h = (h * 17) xor character, from 0, in 64 bits.
struct ModulePathHash {
    static std::size_t hash(const std::wstring& path)
    {
        std::uint64_t h = 0;
        for (const wchar_t c : path) {
            if (c == L'\0')
                break;
            h = (h * 17) ^ static_cast<std::uint64_t>(static_cast<std::uint32_t>(c));
        }
        return static_cast<std::size_t>(h);
    }
    static bool equal(const std::wstring& a, const std::wstring& b) { return a == b; }
};

typedef tbb::concurrent_hash_map<std::wstring, boost::intrusive_ptr<IAssemblyReader>, ModulePathHash>
    AssemblyReaderMap;

/// Fills in from the assembly what the trace left out of a .NET method. False when no
/// method of the assembly answered, so that a later request tries again.
bool enrichMethod(JitMethod& method, DotNetMethod& dotNetMethod)
{
    unsigned int count = 0;
    // A method without any table entry fails this query and is left alone.
    if (method.getLineNumberInfo(ltManagedToSource, nullptr, &count, 0) == meSuccess && count == 0) {
        std::vector<LineNumberEntry> rows;
        if (dotNetMethod.getReaderKind() == 2) {
            // One row per native range: its IL offset and the line of that offset.
            unsigned int nativeCount = 0;
            if (method.getLineNumberInfo(ltNativeToManaged, nullptr, &nativeCount, 0) == meSuccess &&
                nativeCount > 0) {
                std::vector<LineNumberEntry> native(nativeCount);
                if (method.getLineNumberInfo(ltNativeToManaged, native.data(), &nativeCount, 0) == meSuccess) {
                    native.resize(std::min<std::size_t>(nativeCount, native.size()));
                    for (const LineNumberEntry& row : native)
                        rows.push_back({row.value, row.value, dotNetMethod.getLineForOffset(row.value)});
                }
            }
        } else {
            unsigned int lineCount = 0;
            if (dotNetMethod.getLineTable(nullptr, &lineCount) == meSuccess && lineCount > 0) {
                // The list keeps its size when the filling call fails.
                std::vector<LineRow> lines(lineCount, LineRow{0, 0, 0});
                unsigned int written = lineCount;
                if (dotNetMethod.getLineTable(lines.data(), &written) == meSuccess && written <= lineCount)
                    lines.resize(written);
                rows.reserve(lines.size());
                for (const LineRow& line : lines)
                    rows.push_back({line.startOffset, line.endOffset, line.line});
            }
        }
        if (!rows.empty())
            for (const boost::intrusive_ptr<Region>& region : method.regions())
                method.addLineNumberInfo(ltManagedToSource, rows, Range(region->startJitRva(), region->length()));
    }
    const std::wstring& sourceName = method.sourceFile().name();
    if (sourceName.empty() || (sourceName == L"Dynamic Code" && dotNetMethod.getReaderKind() == 2)) {
        SourceFile file;
        if (dotNetMethod.getSourceFile(file) == meSuccess)
            method.setSourceFile(std::move(file));
    }
    if (*method.getClassName() == L'\0')
        method.setClassName(dotNetMethod.getClassName());
    if (*method.getName() == L'\0') {
        std::wstring name = dotNetMethod.getMethodName();
        if (!name.empty())
            name += dotNetMethod.getSignature();
        method.setName(name);
    }
    return true;
}

class SymbolResolver : public ISymbolResolver {
public:
    explicit SymbolResolver(const boost::intrusive_ptr<ISymbolFileLocator>& locator)
        : m_symbolFileLocator(locator), m_ready(false)
    {
    }

    /// Registers and reads every trace file; false when the scan failed.
    bool initialize(basekit2::generic_iterator_t<const wchar_t*>& directories, unsigned int bitnessFilter,
                    const LoadProgress& progress)
    {
        if (m_filesManager.scanDirectories(directories, bitnessFilter) != meSuccess)
            return false;
        m_filesManager.readAllFiles(decoding_mode_full, m_dataManager, progress);
        m_ready = true;
        return true;
    }

    velmark_error_t getHostName(unsigned int hostId, const wchar_t** name) override
    {
        if (name == nullptr)
            return meInvalidArgument;
        *name = m_filesManager.getHostName(hostId);
        return meSuccess;
    }

    boost::intrusive_ptr<ISymbol> resolveSymbol(unsigned long long jitRva) override
    {
        // The caller's reference is the only one taken.
        JitMethod* method = nullptr;
        if (m_dataManager.resolveJitPoint(jitRva, method) != meSuccess || method == nullptr)
            return nullptr;
        if (method->getMetadataToken() != 0)
            enrich(*method);
        return boost::intrusive_ptr<ISymbol>(method);
    }

    velmark_error_t resolveJitRvaByAddress(unsigned long long jitRva, unsigned long long address,
                                           unsigned long long* result) override
    {
        unsigned long long jitRvaOfAddress = 0;
        const velmark_error_t error = m_dataManager.resolveJitRvaByAddress(jitRva, address, jitRvaOfAddress);
        if (result)
            *result = jitRvaOfAddress;
        return error;
    }

    basekit2::generic_iterator_t<boost::intrusive_ptr<ISymbol>> getMethods() override
    {
        return m_dataManager.getMethods();
    }

    velmark_error_t translateJitAddress(unsigned int rawMethodId, unsigned long long address,
                                        const wchar_t* jitFilePath, unsigned long long* result) override
    {
        if (rawMethodId == 0) {
            // No JIT address: it passes through.
            if (result)
                *result = address;
            return meSuccess;
        }
        if (jitFilePath == nullptr)
            return meFail;
        unsigned long long begin = 0;
        unsigned long long end = 0;
        const velmark_error_t rangeResult = m_filesManager.getFileRange(jitFilePath, &begin, &end);
        if (rangeResult != meSuccess)
            return rangeResult;
        unsigned long long jitRva = 0;
        const velmark_error_t error = m_dataManager.translateJitAddress(rawMethodId, address, begin, end, jitRva);
        if (result)
            *result = jitRva;
        return error;
    }

private:
    /// The reader of a module path: from the cache, else through the locator, else from the
    /// path itself. A miss is not remembered.
    boost::intrusive_ptr<IAssemblyReader> getAssemblyReader(const wchar_t* modulePath)
    {
        if (modulePath == nullptr)
            return nullptr;
        {
            AssemblyReaderMap::accessor entry;
            if (m_assemblyReaders.find(entry, modulePath))
                return entry->second;
        }
        // Opening an assembly is kept out of every lock; two threads that miss together each
        // open one, and the last to insert stays in the cache.
        boost::intrusive_ptr<IAssemblyReader> reader;
        if (m_symbolFileLocator) {
            boost::intrusive_ptr<ISymbolFile> binary;
            boost::intrusive_ptr<ISymbolFile> debugFile;
            m_symbolFileLocator->locate(modulePath, binary, debugFile);
            if (binary && IAssemblyReader::create(binary->getPath(), debugFile ? debugFile->getPath() : nullptr,
                                                  reader) == meSuccess)
                return insertReader(modulePath, reader);
        }
        if (basekit2::path_t(modulePath).is_exists() &&
            IAssemblyReader::create(modulePath, nullptr, reader) == meSuccess)
            return insertReader(modulePath, reader);
        return nullptr;
    }

    boost::intrusive_ptr<IAssemblyReader> insertReader(const wchar_t* modulePath,
                                                       const boost::intrusive_ptr<IAssemblyReader>& reader)
    {
        AssemblyReaderMap::accessor entry;
        m_assemblyReaders.insert(entry, modulePath);
        entry->second = reader;
        return reader;
    }

    // Once per method: concurrent resolves into one method wait for the first enrichment
    // and all return its result.
    void enrich(JitMethod& method)
    {
        guardBoundary(L"ISymbolResolver::resolveSymbol", false, [&] {
            method.enrichOnce([&] {
                const boost::intrusive_ptr<IModule> module = method.getModule();
                if (!module)
                    return false;
                const boost::intrusive_ptr<IAssemblyReader> reader = getAssemblyReader(module->getName());
                if (!reader)
                    return false;
                const boost::intrusive_ptr<DotNetMethod> dotNetMethod = reader->getMethod(method.getMetadataToken());
                return dotNetMethod && enrichMethod(method, *dotNetMethod);
            });
            return true;
        });
    }

    JitDataManager m_dataManager;
    JitFilesManager m_filesManager;
    boost::intrusive_ptr<ISymbolFileLocator> m_symbolFileLocator;
    bool m_ready; // set once the load has run; nothing reads it
    AssemblyReaderMap m_assemblyReaders;
};

boost::intrusive_ptr<ISymbolResolver> createResolver(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                     boost::intrusive_ptr<ISymbolFileLocator>& locator,
                                                     unsigned int bitnessFilter,
                                                     const LoadProgress& progress = LoadProgress())
{
    return guardBoundary(L"ISymbolResolver::create", boost::intrusive_ptr<ISymbolResolver>(), [&] {
        std::unique_ptr<SymbolResolver> resolver(new SymbolResolver(locator));
        if (!resolver->initialize(directories, bitnessFilter, progress))
            return boost::intrusive_ptr<ISymbolResolver>();
        return boost::intrusive_ptr<ISymbolResolver>(resolver.release());
    });
}

} // namespace

boost::intrusive_ptr<ISymbolResolver> ISymbolResolver::create(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                              boost::intrusive_ptr<ISymbolFileLocator>& locator)
{
    return createResolver(directories, locator, 0);
}

boost::intrusive_ptr<ISymbolResolver> ISymbolResolver::create(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                              boost::intrusive_ptr<ISymbolFileLocator>& locator,
                                                              velmark_arch arch)
{
    // 32-bit records for farad32; every other architecture reads 64-bit records.
    return createResolver(directories, locator, arch == farad32 ? 1 : 2);
}

boost::intrusive_ptr<ISymbolResolver> createSymbolResolver(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                           boost::intrusive_ptr<ISymbolFileLocator>& locator,
                                                           const LoadProgress& progress)
{
    return createResolver(directories, locator, 0, progress);
}

} // namespace velmark_3_11
