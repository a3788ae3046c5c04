// jitreader-sample-gen: writes the demo result directory of JIT traces and, on request, a
// file of sample points for it; or a fleet of hosts with sample points over all of them.
#include <iostream>
#include <stdexcept>
#include <string>

#include "demo_traces.h"

namespace {

int usage(std::ostream& out, int code)
{
    out << "usage: jitreader-sample-gen [--samples FILE] DIR\n"
           "       jitreader-sample-gen --hosts N [--processes M] [--samples K] DIR\n"
           "Writes a demo result directory of JIT traces into DIR, and sample points into FILE.\n"
           "With --hosts, writes a fleet instead: DIR/HOST/ holds the traces of M processes of each\n"
           "of N hosts (default 4 processes), and DIR/fleet.samples K sample points over all of\n"
           "them (default 1000).\n"
           "\n"
           "example:\n"
           "  jitreader-sample-gen --hosts 32 --processes 4 --samples 10000000 fleet\n";
    return code;
}

/// A count of at least `low` that fills the whole text.
bool parseCount(const std::string& text, unsigned long long low, unsigned long long& value)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 12)
        return false;
    value = std::stoull(text);
    return value >= low;
}

} // namespace

int main(int argc, char** argv)
{
    std::string samples;
    std::string hosts;
    std::string processes;
    std::string directory;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--samples" && i + 1 < argc)
            samples = argv[++i];
        else if (arg == "--hosts" && i + 1 < argc)
            hosts = argv[++i];
        else if (arg == "--processes" && i + 1 < argc)
            processes = argv[++i];
        else if (arg == "--help" || arg == "-h")
            return usage(std::cout, 0);
        else if (directory.empty() && !arg.empty() && arg[0] != '-')
            directory = arg;
        else
            return usage(std::cerr, 2);
    }
    if (directory.empty() || (hosts.empty() && !processes.empty()))
        return usage(std::cerr, 2);
    try {
        if (!hosts.empty()) {
            jitreader_demo::FleetShape shape;
            unsigned long long value = 0;
            if (!parseCount(hosts, 1, value) || value > 100000)
                return usage(std::cerr, 2);
            shape.hosts = static_cast<unsigned int>(value);
            if (!processes.empty() && (!parseCount(processes, 1, value) || value > 1000))
                return usage(std::cerr, 2);
            shape.processes = processes.empty() ? shape.processes : static_cast<unsigned int>(value);
            if (!samples.empty() && !parseCount(samples, 0, shape.samples))
                return usage(std::cerr, 2);
            const std::string samplesPath = directory + "/fleet.samples";
            jitreader_demo::writeFleet(directory, shape, samplesPath);
            std::cout << "wrote a fleet of " << shape.hosts << " hosts with " << shape.processes
                      << " processes each to " << directory << ", and " << shape.samples << " sample points to "
                      << samplesPath << "\n";
            return 0;
        }
        jitreader_demo::writeDemoResults(directory, samples);
    } catch (const std::exception& error) {
        std::cerr << "jitreader-sample-gen: " << error.what() << "\n";
        return 1;
    }
    std::cout << "wrote the demo result directory " << directory << "\n";
    if (!samples.empty())
        std::cout << "wrote its sample points to " << samples << "\n";
    return 0;
}
