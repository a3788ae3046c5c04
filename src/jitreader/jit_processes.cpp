#include "jitreader/jit_processes.h"

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
    JitProcesses* processes = new JitProcesses;
    if (processes->filesManager().scanDirectories(directories, 0) != meSuccess) {
        delete processes;
        return nullptr;
    }
    return boost::intrusive_ptr<IJitProcesses>(processes);
}

} // namespace velmark_3_11
