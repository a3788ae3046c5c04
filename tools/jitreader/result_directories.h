// Checks the result directories named on the command line and registers their trace files,
// with a message that names the offending path when that fails.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "jitreader/jit_files_manager.h"

namespace jitreader_tool {

/// The directories as the library's factories take them.
basekit2::generic_iterator_t<const wchar_t*> directoryIterator(const std::vector<std::string>& directories);

/// Checks that every path is a directory and every trace file name can be parsed; writes
/// one line per problem to `err` and returns false when there is one. `traceFiles`, when not
/// null, receives the number of trace files.
bool checkResultDirectories(const std::vector<std::string>& directories, std::ostream& err,
                            std::size_t* traceFiles = nullptr);

/// The exit code for the directories given to `command`: 0 when they are good, kUsageError
/// when none was given, 1 when one is bad; with a message on `err` in the last two cases.
int checkDirectoryOperands(const std::string& command, const std::vector<std::string>& directories,
                           std::ostream& err, std::size_t* traceFiles = nullptr);

} // namespace jitreader_tool
