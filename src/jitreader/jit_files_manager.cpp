#include "jitreader/jit_files_manager.h"

#include <mutex>
#include <set>
#include <shared_mutex>
#include <sstream>

#include <boost/filesystem.hpp>
#include <boost/thread/locks.hpp>
#include <boost/tokenizer.hpp>

#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_reader.h"
#include "platform/log.h"

namespace fs = boost::filesystem;

namespace velmark_3_11 {
namespace {

constexpr auto kLogNumbers = logging::numbers_t::asIs;

const std::wstring kTraceExtension = L".jit";

typedef boost::tokenizer<boost::char_separator<wchar_t>, std::wstring::const_iterator, std::wstring> WideTokenizer;

bool hasTraceExtension(const std::wstring& name)
{
    return name.size() > kTraceExtension.size() &&
           name.compare(name.size() - kTraceExtension.size(), kTraceExtension.size(), kTraceExtension) == 0;
}

} // namespace

JitFilesManager::JitFilesManager() : m_nextHostId(1), m_fileCount(0), m_bitnessFilter(0), m_allRead(false) {}

velmark_error_t JitFilesManager::scanDirectories(basekit2::generic_iterator_t<const wchar_t*>& directories,
                                                 unsigned int bitnessFilter)
{
    m_hostNames.push_back(nullptr);
    m_bitnessFilter = bitnessFilter;
    unsigned long long runningJitRva = 1;

    // A set: duplicates collapse, and directories are visited in sorted order.
    std::set<std::wstring> sortedDirectories;
    for (; !directories.at_end(); directories.next()) {
        if (const wchar_t* directory = directories.current())
            sortedDirectories.insert(directory);
    }

    for (const std::wstring& directory : sortedDirectories) {
        const fs::path directoryPath(directory);
        if (!fs::is_directory(fs::status(directoryPath)))
            return meNotADirectory;

        std::map<std::wstring, fs::directory_entry> traceFiles;
        for (const fs::directory_entry& entry : fs::directory_iterator(directoryPath)) {
            boost::system::error_code error;
            const fs::file_status status = entry.status(error);
            if (fs::is_directory(status))
                continue;
            std::wstring name = entry.path().filename().wstring();
            if (!hasTraceExtension(name))
                continue;
            // A FIFO would block the read, and a dangling link has no size: neither holds a trace.
            if (!fs::is_regular_file(status)) {
                VM_WARN(L"Skip jit file " << entry.path().wstring() << L" because it is not a regular file");
                continue;
            }
            traceFiles.emplace(std::move(name), entry);
        }

        for (const auto& file : traceFiles) {
            const velmark_error_t result = registerFile(file.second.path().wstring(), file.first, runningJitRva);
            if (result != meSuccess)
                return result;
        }
    }
    return meSuccess;
}

velmark_error_t JitFilesManager::parseFileName(const std::wstring& name, unsigned int& processId,
                                               std::wstring& hostName)
{
    if (name.empty())
        return meFail;

    const WideTokenizer dotTokens(name, boost::char_separator<wchar_t>(L"."));
    const std::vector<std::wstring> tokens(dotTokens.begin(), dotTokens.end());
    if (tokens.size() < 3)
        return meFail;

    const std::wstring& processToken = tokens[tokens.size() - 2];
    const WideTokenizer dashTokens(processToken, boost::char_separator<wchar_t>(L"-"));
    if (dashTokens.begin() != dashTokens.end()) {
        std::wistringstream number(*dashTokens.begin());
        unsigned int value = 0;
        if (number >> value)
            processId = value;
    }

    // The host is all in front of the two last tokens and the dots before them, so that
    // empty tokens in the host part (as in "a..1.jit") stay in it.
    const std::size_t tailLength = tokens.back().size() + processToken.size() + 2;
    hostName = name.substr(0, name.size() - tailLength);
    return meSuccess;
}

velmark_error_t JitFilesManager::registerFile(const std::wstring& path, const std::wstring& name,
                                              unsigned long long& runningJitRva)
{
    unsigned int processId = 0;
    std::wstring hostName;
    const velmark_error_t result = parseFileName(name, processId, hostName);
    if (result != meSuccess)
        return result;

    const auto host = m_hostIds.emplace(hostName, m_nextHostId);
    if (host.second) {
        ++m_nextHostId;
        m_hostNames.push_back(host.first->first.c_str());
    }
    const unsigned int hostId = host.first->second;

    JitProcessEntry& process = m_hosts[hostId][processId];
    process.read = false;
    boost::system::error_code error;
    unsigned long long size = fs::file_size(fs::path(path), error);
    if (error) {
        // Gone since it was listed: it reads as an empty file.
        VM_WARN(L"Could not get the size of jit file " << path << L": " << toWide(error.message()));
        size = 0;
    }
    process.files.push_back(JitFileEntry{runningJitRva, size, path, m_fileCount++});
    runningJitRva += size;
    return meSuccess;
}

const wchar_t* JitFilesManager::getHostName(unsigned int hostId) const
{
    return hostId < m_hostNames.size() ? m_hostNames[hostId] : nullptr;
}

unsigned int JitFilesManager::getHostId(const std::wstring& hostName) const
{
    const auto host = m_hostIds.find(hostName);
    return host == m_hostIds.end() ? 0 : host->second;
}

velmark_error_t JitFilesManager::getFileRange(const wchar_t* path, unsigned long long* begin,
                                              unsigned long long* end)
{
    if (path == nullptr)
        return meFileNotRegistered;
    const fs::path filePath(path);
    unsigned int processId = 0;
    std::wstring hostName;
    parseFileName(filePath.filename().wstring(), processId, hostName);

    const JitProcessEntry* process = findProcess(processId, getHostId(hostName));
    if (process == nullptr)
        return meFileNotRegistered;
    for (const JitFileEntry& file : process->files) {
        if (fs::path(file.path).compare(filePath) == 0) {
            if (begin)
                *begin = file.firstJitRva;
            if (end)
                *end = file.firstJitRva + file.size;
            return meSuccess;
        }
    }
    return meFileNotRegistered;
}

basekit2::generic_iterator_t<unsigned int> JitFilesManager::getProcessIds()
{
    {
        // Checked under the lock, so that two first callers can't fill the list twice.
        boost::unique_lock<boost::mutex> lock(m_processMutex);
        if (m_processIds.empty()) {
            for (const auto& host : m_hosts)
                for (const auto& process : host.second)
                    m_processIds.push_back(process.first);
        }
    }
    return basekit2::make_vector_iterator<unsigned int>(m_processIds);
}

JitFilesManager::JitProcessEntry* JitFilesManager::findProcess(unsigned int processId, unsigned int hostId)
{
    const auto host = m_hosts.find(hostId);
    if (host == m_hosts.end())
        return nullptr;
    const auto process = host->second.find(processId);
    return process == host->second.end() ? nullptr : &process->second;
}

void JitFilesManager::readProcesses(const std::vector<std::pair<unsigned int, unsigned int>>& processes,
                                    decoding_mode_t mode, JitDataManager& dataManager, ReadCount* count) const
{
    std::vector<JitFileRead> files;
    for (const auto& id : processes) {
        const auto& process = m_hosts.at(id.second).at(id.first);
        for (const JitFileEntry& entry : process.files) {
            JitFileRead file;
            file.path = entry.path;
            file.processId = id.first;
            file.hostId = id.second;
            file.firstJitRva = entry.firstJitRva;
            // The last file's range is open, as in a store of one file.
            file.closedRange = entry.index + 1 != m_fileCount;
            file.rangeEnd = entry.firstJitRva + entry.size;
            file.fileIndex = entry.index;
            files.push_back(std::move(file));
        }
    }
    readJitFiles(files, mode, m_bitnessFilter, dataManager, [&](std::size_t i, velmark_error_t result) {
        if (files[i].path.empty()) {
            VM_ERROR_AT(L"Skip reading jit file because path is empty");
            return;
        }
        if (result != meSuccess)
            VM_ERROR_AT(L"Could not read jit file " << files[i].path);
        if (count && count->progress->callback) {
            count->done += files[i].rangeEnd - files[i].firstJitRva;
            count->progress->callback(count->done, count->total, count->progress->context);
        }
    });
}

velmark_error_t JitFilesManager::readAllFiles(decoding_mode_t mode, JitDataManager& dataManager,
                                              const LoadProgress& progress)
{
    boost::unique_lock<boost::mutex> lock(m_readMutex);
    if (m_allRead)
        return meSuccess;

    ReadCount count;
    count.progress = &progress;
    for (const auto& host : m_hosts)
        for (const auto& process : host.second)
            if (!process.second.read)
                for (const JitFileEntry& file : process.second.files)
                    count.total += file.size;
    if (progress.callback)
        progress.callback(0, count.total, progress.context);

    std::vector<std::pair<unsigned int, unsigned int>> unread;
    for (const auto& host : m_hosts)
        for (const auto& process : host.second)
            if (!process.second.read)
                unread.emplace_back(process.first, host.first);
    // A process counts as read once all are: a lookup that reads its process first waits for
    // this read rather than seeing it half done. A file that fails is not retried.
    struct MarkRead {
        JitFilesManager& files;
        const std::vector<std::pair<unsigned int, unsigned int>>& processes;
        ~MarkRead()
        {
            for (const auto& id : processes)
                files.findProcess(id.first, id.second)->read = true;
        }
    } markRead{*this, unread};
    readProcesses(unread, mode, dataManager, &count);
    m_allRead = true;
    return meSuccess;
}

velmark_error_t JitFilesManager::readProcessFiles(unsigned int processId, unsigned int hostId, decoding_mode_t mode,
                                                  JitDataManager& dataManager)
{
    JitProcessEntry* process = findProcess(processId, hostId);
    if (process == nullptr)
        return meFail;
    if (process->read)
        return meSuccess;

    boost::unique_lock<boost::mutex> lock(m_readMutex);
    if (process->read)
        return meSuccess;
    // Read once: reading again would feed the same records into the store a second time, where
    // they collide with their own jit rvas. What the files gave answers; failures are logged.
    readProcesses({{processId, hostId}}, mode, dataManager);
    process->read = true;
    return meSuccess;
}

} // namespace velmark_3_11
