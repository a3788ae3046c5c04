// The demo result directory: two hosts, several processes, a few hundred methods, address
// reuse across generations of code, line tables and inlined methods. The output is the same
// on every run, so that the bundled sample file keeps matching it.
#pragma once

#include <string>

namespace jitreader_demo {

/// Writes the traces into `directory` (subdirectories "alpha" and "beta"), and, unless
/// `samplesPath` is empty, sample points for them. Throws std::runtime_error when a file
/// can't be written.
void writeDemoResults(const std::string& directory, const std::string& samplesPath);

/// The size of a generated fleet.
struct FleetShape {
    unsigned int hosts = 4;
    unsigned int processes = 4;        ///< per host
    unsigned long long samples = 1000; ///< in all
};

/// Writes a fleet into `directory`: one folder per host ("host000.fleet", ...) with the traces
/// of its Java processes, and `samplesPath` with sample points over all of them (decimal
/// numbers, so that CSV readers take them), most inside methods, a few outside any code or
/// in processes without traces. The same on every run. Throws std::runtime_error when a file
/// can't be written.
void writeFleet(const std::string& directory, const FleetShape& shape, const std::string& samplesPath);

} // namespace jitreader_demo
