// The subcommands of the jitreader tool.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace jitreader_tool {

/// `jitreader processes DIR...`
int runProcesses(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader methods DIR...`
int runMethods(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader resolve DIR... --samples FILE`
int runResolve(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader report DIR... --samples FILE`
int runReport(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader assembly FILE [--pdb FILE] [--token T]`
int runAssembly(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader import-jitdump FILE... -o DIR [--host NAME]`
int runImportJitdump(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
/// `jitreader flamegraph DIR... --samples FILE -o OUT.svg`
int runFlameGraph(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

} // namespace jitreader_tool
