// jitreader: reads JIT trace result directories and answers questions about them.
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "options.h"

namespace {

void printUsage(std::ostream& out)
{
    out << "usage: jitreader <command> [options] DIR...\n"
           "\n"
           "commands:\n"
           "  processes   list the hosts and processes that have trace files\n"
           "  methods     list every method of the traces, or dump them with --dump\n"
           "  resolve     resolve sample points to methods, source lines and inline frames\n"
           "  report      say where the sample points fall: top methods, lines, modules, processes\n"
           "  assembly    list the methods of a .NET assembly with signatures, sources and lines\n"
           "  import-jitdump  convert the jitdump files of perf-profiled runtimes into trace files\n"
           "  flamegraph  draw where the sample points fall as a flame graph (an SVG file)\n"
           "\n"
           "Run 'jitreader <command> --help' for the options of a command.\n"
           "\n"
           "example:\n"
           "  jitreader report demo/alpha demo/beta --samples samples/demo.samples\n";
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        std::cerr << "jitreader: no command given; 'jitreader --help' lists them\n";
        return jitreader_tool::kUsageError;
    }
    if (args[0] == "--help" || args[0] == "-h") {
        printUsage(std::cout);
        return 0;
    }
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "processes")
        return jitreader_tool::runProcesses(args, std::cout, std::cerr);
    if (command == "methods")
        return jitreader_tool::runMethods(args, std::cout, std::cerr);
    if (command == "resolve")
        return jitreader_tool::runResolve(args, std::cout, std::cerr);
    if (command == "report")
        return jitreader_tool::runReport(args, std::cout, std::cerr);
    if (command == "assembly")
        return jitreader_tool::runAssembly(args, std::cout, std::cerr);
    if (command == "import-jitdump")
        return jitreader_tool::runImportJitdump(args, std::cout, std::cerr);
    if (command == "flamegraph")
        return jitreader_tool::runFlameGraph(args, std::cout, std::cerr);
    std::cerr << "jitreader: unknown command '" << command << "'; 'jitreader --help' lists them\n";
    return jitreader_tool::kUsageError;
}
