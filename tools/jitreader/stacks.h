// Resolved sample points grouped into stacks with counts: the one aggregation behind the
// folded output and the report, and the input of any flame graph writer.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "resolution.h"

namespace jitreader_tool {

bool operator<(const StackFrame& a, const StackFrame& b);
bool operator==(const StackFrame& a, const StackFrame& b);

/// The points that share a status, process, module and chain of frames.
struct Stack {
    PointStatus status = PointStatus::resolved;
    std::string host;
    unsigned int processId = 0;
    std::string module;              ///< of the outermost method; "" when not resolved
    std::vector<StackFrame> frames;  ///< outermost first; empty when not resolved
    std::size_t count = 0;
};

/// Puts every point into exactly one stack, so the counts add up to the number of points.
/// Ordered by count, largest first, then by status, process and frames.
std::vector<Stack> collectStacks(const std::vector<ResolvedPoint>& points);

/// The frame names of a stack for flame graph tools, outermost first: the methods, or one
/// "[status]" frame for points that did not resolve.
std::vector<std::string> frameNames(const Stack& stack);

/// One line per distinct chain of frame names, "outer;inner;innermost COUNT", in the order of
/// the chains' text; ';' inside a name is written as ','.
void writeFolded(std::ostream& out, const std::vector<Stack>& stacks);

} // namespace jitreader_tool
