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

} // namespace jitreader_demo
