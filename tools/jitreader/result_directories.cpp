#include "result_directories.h"

#include <set>

#include <boost/filesystem.hpp>

#include "options.h"
#include "platform/text.h"

namespace fs = boost::filesystem;
using velmark_3_11::JitFilesManager;

namespace jitreader_tool {

basekit2::generic_iterator_t<const wchar_t*> directoryIterator(const std::vector<std::string>& directories)
{
    std::vector<std::wstring> paths;
    for (const std::string& directory : directories)
        paths.push_back(velmark_3_11::toWide(directory));
    return basekit2::make_path_iterator(std::move(paths));
}

bool checkResultDirectories(const std::vector<std::string>& directories, std::ostream& err, std::size_t* traceFiles)
{
    bool good = true;
    std::size_t files = 0;
    // As the library does: a directory given twice is read once.
    for (const std::string& directory : std::set<std::string>(directories.begin(), directories.end())) {
        boost::system::error_code error;
        if (!fs::is_directory(fs::path(directory), error)) {
            err << "jitreader: " << directory << ": not a directory\n";
            good = false;
            continue;
        }
        for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".jit") != 0)
                continue;
            // Directories, FIFOs and dangling links named like traces are not read (the
            // library warns of those that are no directory).
            boost::system::error_code statusError;
            if (!fs::is_regular_file(entry->path(), statusError))
                continue;
            unsigned int processId = 0;
            std::wstring host;
            if (JitFilesManager::parseFileName(velmark_3_11::toWide(name), processId, host) != velmark_3_11::meSuccess) {
                err << "jitreader: " << entry->path().string() << ": trace file name is not of the form HOST.PID.jit\n";
                good = false;
            }
            ++files;
        }
        if (error) {
            err << "jitreader: " << directory << ": " << error.message() << "\n";
            good = false;
        }
    }
    if (traceFiles)
        *traceFiles = files;
    return good;
}

int checkDirectoryOperands(const std::string& command, const std::vector<std::string>& directories,
                           std::ostream& err, std::size_t* traceFiles)
{
    if (directories.empty()) {
        err << "jitreader " << command << ": no result directory given\n";
        return kUsageError;
    }
    return checkResultDirectories(directories, err, traceFiles) ? 0 : 1;
}

} // namespace jitreader_tool
