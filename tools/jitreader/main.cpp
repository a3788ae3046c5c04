// jitreader: reads JIT trace result directories and answers questions about them.
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"

namespace {

void printUsage(std::ostream& out)
{
    out << "usage: jitreader <command> [options] DIR...\n"
           "\n"
           "commands:\n"
           "  processes   list the hosts and processes that have trace files\n"
           "  methods     list every method of the traces, or dump them with --dump\n"
           "  resolve     resolve sample points to methods, source lines and inline frames\n"
           "\n"
           "Run 'jitreader <command> --help' for the options of a command.\n";
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        printUsage(args.empty() ? std::cerr : std::cout);
        return args.empty() ? 2 : 0;
    }
    const std::string command = args[0];
    args.erase(args.begin());
    if (command == "processes")
        return jitreader_tool::runProcesses(args, std::cout, std::cerr);
    if (command == "methods")
        return jitreader_tool::runMethods(args, std::cout, std::cerr);
    if (command == "resolve")
        return jitreader_tool::runResolve(args, std::cout, std::cerr);
    std::cerr << "jitreader: unknown command '" << command << "'\n";
    printUsage(std::cerr);
    return 2;
}
