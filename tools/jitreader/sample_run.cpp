#include "sample_run.h"

#include <cstdio>

#include "progress_line.h"
#include "result_directories.h"

namespace jitreader_tool {

int SampleRun::resolve(const std::string& command, const OptionParser& options, bool lazy,
                       const std::vector<std::string>& symbolDirectories, bool fullNames, std::ostream& err)
{
    const std::vector<std::string>& directories = options.positional();
    if (const int code = checkDirectoryOperands(command, directories, err, &traceFiles))
        return code;
    readFailures.emplace(err);
    ProgressLine progressLine(stderr, !options.has("quiet"));
    return resolveSampleFile(command, directories, options.value("samples"), lazy, resolution, err,
                             symbolDirectories, fullNames, progressLine.progress());
}

int SampleRun::finish(const OptionParser& options, std::ostream& err) const
{
    return readFailures->report(traceFiles, options.has("strict"), err);
}

} // namespace jitreader_tool
