// What the commands over sample points (resolve, report, flamegraph) share: the checked
// directory operands, the watch on the traces read, and the resolution of the samples file
// behind a progress line.
#pragma once

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "options.h"
#include "read_failures.h"
#include "resolution.h"

namespace jitreader_tool {

struct SampleRun {
    std::optional<ReadFailures> readFailures; ///< set once the directories passed their check
    Resolution resolution;
    std::size_t traceFiles = 0;

    /// Checks the directories of `options` and resolves its `--samples` file over them, with a
    /// progress line unless `--quiet`: 0, or the exit code after a message on `err`.
    int resolve(const std::string& command, const OptionParser& options, bool lazy,
                const std::vector<std::string>& symbolDirectories, bool fullNames, std::ostream& err);

    /// The exit code that the trace files read give, after saying on `err` which could not be
    /// read completely.
    int finish(const OptionParser& options, std::ostream& err) const;
};

} // namespace jitreader_tool
