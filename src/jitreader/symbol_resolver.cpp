#include "jitreader/symbol_resolver.h"

#include <memory>

#include "jitreader/boundary.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_files_manager.h"

namespace velmark_3_11 {
namespace {

class SymbolResolver : public ISymbolResolver {
public:
    explicit SymbolResolver(const boost::intrusive_ptr<ISymbolFileLocator>& locator)
        : m_symbolFileLocator(locator), m_ready(false)
    {
    }

    /// Registers and reads every trace file; false when the scan failed.
    bool initialize(basekit2::generic_iterator_t<const wchar_t*>& directories, unsigned int bitnessFilter)
    {
        if (m_filesManager.scanDirectories(directories, bitnessFilter) != meSuccess)
            return false;
        m_filesManager.readAllFiles(decoding_mode_full, m_dataManager);
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
        boost::intrusive_ptr<JitMethod> method;
        if (m_dataManager.resolveJitPoint(jitRva, method) != meSuccess || !method)
            return nullptr;
        return method;
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
    JitDataManager m_dataManager;
    JitFilesManager m_filesManager;
    boost::intrusive_ptr<ISymbolFileLocator> m_symbolFileLocator;
    bool m_ready; // set once the load has run; nothing reads it
};

boost::intrusive_ptr<ISymbolResolver> createResolver(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                     boost::intrusive_ptr<ISymbolFileLocator>& locator,
                                                     unsigned int bitnessFilter)
{
    return guardBoundary(L"ISymbolResolver::create", boost::intrusive_ptr<ISymbolResolver>(), [&] {
        std::unique_ptr<SymbolResolver> resolver(new SymbolResolver(locator));
        if (!resolver->initialize(directories, bitnessFilter))
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

} // namespace velmark_3_11
