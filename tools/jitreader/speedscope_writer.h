// Resolved stacks as a speedscope profile file (JSON): one sampled profile per process, the
// frames shared between them, each a method with the source file and line where it ran.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "stacks.h"

namespace jitreader_tool {

/// Writes the stacks as a speedscope file named `name`. Every stack becomes one sample,
/// outermost frame first, weighted by its count, so the weights add up to the number of
/// points; a point that did not resolve is one "[status]" frame.
void writeSpeedscope(std::ostream& out, const std::vector<Stack>& stacks, const std::string& name);

} // namespace jitreader_tool
