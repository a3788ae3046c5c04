// Sample points resolved to what the traces say of them: a status, and for resolved points
// the jit rva, the module and the frames from the method down to the innermost inline.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "samples.h"

namespace jitreader_tool {

enum class PointStatus { resolved, noCode, unknownProcess, unknownHost, error };
constexpr int kPointStatusCount = 5;

/// "resolved", "no-code", "unknown-process", "unknown-host" or "error".
const char* statusName(PointStatus status);

/// One frame as text: the method, its module and the source line of the point in it.
struct StackFrame {
    std::string method;
    std::string module; ///< "" when unknown
    std::string source; ///< source file, "" when unknown
    unsigned int line = 0; ///< 0 when unknown
};

struct ResolvedPoint {
    SamplePoint sample;
    PointStatus status = PointStatus::error;
    std::string reason;               ///< why not, when not resolved
    unsigned long long jitRva = 0;    ///< when resolved
    std::string module;               ///< when resolved
    std::vector<StackFrame> frames;   ///< the method, then its inlines outermost first; empty with lazy
};

struct Resolution {
    std::vector<ResolvedPoint> points;
    std::size_t processesRead = 0; ///< processes whose traces a point made the loader read
    std::size_t processesAll = 0;  ///< processes with traces

    /// The points with the status resolved.
    std::size_t resolvedCount() const;
};

/// Reads the sample points of `samplesPath` ('-' is standard input) and resolves them against
/// the traces of `directories`; with `lazy`, only to jit rva and module. Returns 0, or 1 with a
/// message naming `command` on `err`. .NET modules are looked for in `symbolDirectories`;
/// `fullNames` names methods with their parameter lists where the library has them.
int resolveSampleFile(const std::string& command, const std::vector<std::string>& directories,
                      const std::string& samplesPath, bool lazy, Resolution& result, std::ostream& err,
                      const std::vector<std::string>& symbolDirectories = {}, bool fullNames = false);

} // namespace jitreader_tool
