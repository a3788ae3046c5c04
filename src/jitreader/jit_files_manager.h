// The registry of trace files: which .jit files exist, which host and process wrote each,
// which jit rva range each owns, and the driver that reads them into a store.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <boost/thread/mutex.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/error.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/load_progress.h"

namespace velmark_3_11 {

class JitDataManager;

class JitFilesManager {
public:
    /// One registered trace file and its jit rva range [firstJitRva, firstJitRva + size).
    struct JitFileEntry {
        unsigned long long firstJitRva;
        unsigned long long size;
        std::wstring path;
        unsigned int index; ///< place in registration order, from 0: the file's overflow window
    };

    /// The trace files of one process, in the order of registration.
    struct JitProcessEntry {
        /// Atomic, as readProcessFiles looks at it before it takes the read lock.
        std::atomic<bool> read{false};
        std::deque<JitFileEntry> files;
    };

    typedef std::map<unsigned int, std::map<unsigned int, JitProcessEntry>> HostMap;

    JitFilesManager();
    JitFilesManager(const JitFilesManager&) = delete;
    JitFilesManager& operator=(const JitFilesManager&) = delete;

    /// Registers every .jit file of `directories`, visited in sorted order: meSuccess,
    /// meNotADirectory for a path that is no directory, meFail for a file name that can't be
    /// parsed.
    velmark_error_t scanDirectories(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                    unsigned int bitnessFilter);
    /// Host and process of a trace file name "<host>.<pid>[-...].<ext>": meSuccess or meFail.
    /// `processId` keeps its value when the text is no number.
    static velmark_error_t parseFileName(const std::wstring& name, unsigned int& processId, std::wstring& hostName);

    /// The name of a host id; null for 0 and unknown ids.
    const wchar_t* getHostName(unsigned int hostId) const;
    /// The id of a host name; 0 when unknown.
    unsigned int getHostId(const std::wstring& hostName) const;
    /// The jit rva range of a registered file: meSuccess or meFileNotRegistered.
    velmark_error_t getFileRange(const wchar_t* path, unsigned long long* begin, unsigned long long* end);
    /// Process ids of all hosts, hosts in id order.
    basekit2::generic_iterator_t<unsigned int> getProcessIds();

    /// Reads every file not yet read into `dataManager`; files that fail are logged and
    /// skipped. Always meSuccess. `progress` hears of the bytes read after each file.
    velmark_error_t readAllFiles(decoding_mode_t mode, JitDataManager& dataManager,
                                 const LoadProgress& progress = LoadProgress());
    /// Reads the files of one process, once: meSuccess, also when a file failed (that is logged,
    /// and what the files gave stays), or meFail for an unknown process.
    velmark_error_t readProcessFiles(unsigned int processId, unsigned int hostId, decoding_mode_t mode,
                                     JitDataManager& dataManager);

    const HostMap& hosts() const { return m_hosts; }

private:
    velmark_error_t registerFile(const std::wstring& path, const std::wstring& name,
                                 unsigned long long& runningJitRva);
    JitProcessEntry* findProcess(unsigned int processId, unsigned int hostId);
    /// Bytes read so far and in all, for a progress callback.
    struct ReadCount {
        const LoadProgress* progress = nullptr;
        unsigned long long done = 0;
        unsigned long long total = 0;
    };
    /// Reads all files of `processes` (process and host ids) into `dataManager`, in that order,
    /// logging each file that fails.
    void readProcesses(const std::vector<std::pair<unsigned int, unsigned int>>& processes, decoding_mode_t mode,
                       JitDataManager& dataManager, ReadCount* count = nullptr) const;

    std::vector<const wchar_t*> m_hostNames;
    std::map<std::wstring, unsigned int> m_hostIds;
    unsigned int m_nextHostId;
    unsigned int m_fileCount;
    HostMap m_hosts;
    unsigned int m_bitnessFilter;
    boost::mutex m_readMutex;
    bool m_allRead;
    boost::mutex m_processMutex;
    std::vector<unsigned int> m_processIds;
};

} // namespace velmark_3_11
