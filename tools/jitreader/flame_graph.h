// A flame graph of resolved stacks as one self-contained SVG file: frames as rectangles as
// wide as their samples, inline frames above the methods that inlined them, with tooltips,
// click to zoom and a search box in a few lines of embedded script.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "stacks.h"

namespace jitreader_tool {

/// What kind of code a frame is, which picks its colours.
enum class FrameKind { java, dotnet, otherJit, unresolved, all };

/// The kind of a resolved frame, from its source file's extension, else from its module.
FrameKind frameKind(const StackFrame& frame);

/// One frame of the graph with the samples of every stack that passes through it.
struct FlameNode {
    std::string name;
    std::string module;
    FrameKind kind = FrameKind::all;
    std::size_t samples = 0;
    /// Samples per source file and line, where the points fell in this frame.
    std::map<std::pair<std::string, unsigned int>, std::size_t> lines;
    std::vector<FlameNode> children; ///< by name, then module
};

/// The tree of frames: a root "all" with every sample, then the outermost methods (or one
/// "[status]" frame for points that did not resolve), and above each the frames inlined into
/// it. Frames of one name and module at the same place in the chain are one node.
FlameNode buildFlameTree(const std::vector<Stack>& stacks);

struct FlameGraphOptions {
    std::string title = "Flame graph";
    unsigned int width = 1200; ///< pixels
};

/// Writes the tree as an SVG document. The same tree and options give the same bytes.
void writeFlameGraph(std::ostream& out, const FlameNode& root, const FlameGraphOptions& options);

/// The text as XML character data: markup characters escaped, bytes that are no valid UTF-8
/// and control characters that XML forbids replaced.
std::string xmlText(const std::string& text);

/// The text cut to at most `characters` characters, ending in an ellipsis when it was cut;
/// empty when fewer than two characters of it would be left. Counts characters, not bytes, of UTF-8 text.
std::string fitText(const std::string& text, std::size_t characters);

} // namespace jitreader_tool
