#include <iostream>

#include "commands.h"
#include "options.h"
#include "platform/text.h"
#include "result_directories.h"

using namespace velmark_3_11;

namespace jitreader_tool {

int runProcesses(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("processes", "DIR...", "Lists the hosts and the processes that have trace files.");
    options.example("jitreader processes demo/alpha demo/beta");
    if (!options.parse(args, out, err))
        return options.exitCode();
    const std::vector<std::string>& directories = options.positional();
    if (const int code = checkDirectoryOperands("processes", directories, err))
        return code;

    JitFilesManager files;
    auto iterator = directoryIterator(directories);
    if (files.scanDirectories(iterator, 0) != meSuccess) {
        err << "jitreader processes: the result directories could not be scanned\n";
        return 1;
    }

    out << "host  pid       files  bytes       host name\n";
    for (const auto& host : files.hosts()) {
        for (const auto& process : host.second) {
            unsigned long long bytes = 0;
            for (const auto& file : process.second.files)
                bytes += file.size;
            char line[64];
            std::snprintf(line, sizeof line, "%-5u %-9u %-6zu %-11llu ", host.first, process.first,
                          process.second.files.size(), bytes);
            out << line << toUtf8(files.getHostName(host.first)) << "\n";
        }
    }
    return 0;
}

} // namespace jitreader_tool
