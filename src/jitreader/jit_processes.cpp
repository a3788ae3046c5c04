#include "jitreader/jit_processes.h"

#include <memory>

#include "jitreader/boundary.h"
#include "jitreader/jit_files_manager.h"

namespace velmark_3_11 {
namespace {

class JitProcesses : public IJitProcesses {
public:
    basekit2::generic_iterator_t<unsigned int> getProcessIds() override { return m_filesManager.getProcessIds(); }

    JitFilesManager& filesManager() { return m_filesManager; }

private:
    JitFilesManager m_filesManager;
};

} // namespace

boost::intrusive_ptr<IJitProcesses> IJitProcesses::create(basekit2::generic_iterator_t<const wchar_t*>& directories)
{
    return guardBoundary(L"IJitProcesses::create", boost::intrusive_ptr<IJitProcesses>(), [&] {
        std::unique_ptr<JitProcesses> processes(new JitProcesses);
        if (processes->filesManager().scanDirectories(directories, 0) != meSuccess)
            return boost::intrusive_ptr<IJitProcesses>();
        return boost::intrusive_ptr<IJitProcesses>(processes.release());
    });
}

} // namespace velmark_3_11
