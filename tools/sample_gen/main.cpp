// jitreader-sample-gen: writes the demo result directory of JIT traces and, on request, a
// file of sample points for it.
#include <iostream>
#include <string>

#include "demo_traces.h"

namespace {

int usage(std::ostream& out, int code)
{
    out << "usage: jitreader-sample-gen [--samples FILE] DIR\n"
           "Writes a demo result directory of JIT traces into DIR, and sample points into FILE.\n";
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    std::string samplesPath;
    std::string directory;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--samples" && i + 1 < argc)
            samplesPath = argv[++i];
        else if (arg == "--help" || arg == "-h")
            return usage(std::cout, 0);
        else if (directory.empty() && !arg.empty() && arg[0] != '-')
            directory = arg;
        else
            return usage(std::cerr, 2);
    }
    if (directory.empty())
        return usage(std::cerr, 2);
    jitreader_demo::writeDemoResults(directory, samplesPath);
    std::cout << "wrote the demo result directory " << directory << "\n";
    if (!samplesPath.empty())
        std::cout << "wrote its sample points to " << samplesPath << "\n";
    return 0;
}
