#include "jitreader/jit_loader.h"

#include <memory>
#include <shared_mutex>

#include "jitreader/boundary.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_files_manager.h"
#include "jitreader/module_evaluator.h"

namespace velmark_3_11 {
namespace {

class JitLoader : public IJitLoader {
public:
    JitFilesManager& filesManager() { return m_filesManager; }

    velmark_error_t getHostId(const wchar_t* hostName, unsigned int* hostId) override
    {
        if (hostId == nullptr)
            return meInvalidArgument;
        *hostId = hostName ? m_filesManager.getHostId(hostName) : 0;
        return meSuccess;
    }

    velmark_error_t resolveModule(unsigned long long timestamp, unsigned long long address, unsigned int processId,
                                  unsigned int hostId, unsigned long long* jitRva,
                                  boost::intrusive_ptr<IModule>& module) override
    {
        velmark_error_t result = readProcess(L"IJitLoader::resolveModule", processId, hostId);
        if (result != meSuccess)
            return result;
        // The method is only read here, under the lock: the store's own one will do.
        JitMethod* method = nullptr;
        unsigned long long rva = 0;
        // Another thread may be reading another process into the store meanwhile.
        std::shared_lock<std::shared_mutex> lookup(m_dataManager.accessMutex());
        // The store takes the address first, the loader's callers the time stamp.
        result = m_dataManager.resolveJitPoint(address, timestamp, processId, hostId, method, rva);
        if (result != meSuccess)
            return result;
        if (!method || rva == 0)
            return meFail;
        module = method->getModule();
        if (jitRva)
            *jitRva = rva;
        return meSuccess;
    }

    velmark_error_t findNextRegion(unsigned long long timestamp, unsigned long long begin, unsigned long long end,
                                   unsigned int processId, unsigned int hostId,
                                   boost::intrusive_ptr<ICodeRegion>& region) override
    {
        const velmark_error_t result = readProcess(L"IJitLoader::findNextRegion", processId, hostId);
        if (result != meSuccess)
            return result;
        std::shared_lock<std::shared_mutex> lookup(m_dataManager.accessMutex());
        return m_dataManager.findNextRegion(begin, end, timestamp, processId, hostId, region);
    }

    boost::intrusive_ptr<IModuleEvaluator> createModuleEvaluator(const wchar_t* modulePath) override
    {
        if (modulePath == nullptr)
            return nullptr;
        return boost::intrusive_ptr<IModuleEvaluator>(new ModuleEvaluator(modulePath));
    }

private:
    /// Reads a process on first demand; the only step of an operation that meets the file system.
    velmark_error_t readProcess(const wchar_t* operation, unsigned int processId, unsigned int hostId)
    {
        return guardBoundary(operation, meFail, [&] {
            return m_filesManager.readProcessFiles(processId, hostId, decoding_mode_modules, m_dataManager);
        });
    }

    JitDataManager m_dataManager;
    JitFilesManager m_filesManager;
};

} // namespace

boost::intrusive_ptr<IJitLoader> IJitLoader::create(basekit2::generic_iterator_t<const wchar_t*>& directories)
{
    return guardBoundary(L"IJitLoader::create", boost::intrusive_ptr<IJitLoader>(), [&] {
        std::unique_ptr<JitLoader> loader(new JitLoader);
        if (loader->filesManager().scanDirectories(directories, 0) != meSuccess)
            return boost::intrusive_ptr<IJitLoader>();
        return boost::intrusive_ptr<IJitLoader>(loader.release());
    });
}

} // namespace velmark_3_11
