#include "stacks.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace jitreader_tool {

bool operator<(const StackFrame& a, const StackFrame& b)
{
    return std::tie(a.method, a.module, a.source, a.line) < std::tie(b.method, b.module, b.source, b.line);
}

bool operator==(const StackFrame& a, const StackFrame& b)
{
    return std::tie(a.method, a.module, a.source, a.line) == std::tie(b.method, b.module, b.source, b.line);
}

std::vector<Stack> collectStacks(const std::vector<ResolvedPoint>& points)
{
    using Key = std::tuple<PointStatus, std::string, unsigned int, std::string, std::vector<StackFrame>>;
    std::map<Key, std::size_t> counts;
    for (const ResolvedPoint& point : points) {
        const bool resolved = point.status == PointStatus::resolved;
        ++counts[Key{point.status, point.sample.host, point.sample.processId, resolved ? point.module : "",
                     resolved ? point.frames : std::vector<StackFrame>{}}];
    }
    std::vector<Stack> stacks;
    for (const auto& entry : counts) {
        const Key& key = entry.first;
        stacks.push_back(Stack{std::get<0>(key), std::get<1>(key), std::get<2>(key), std::get<3>(key),
                               std::get<4>(key), entry.second});
    }
    // The map gave key order; a stable sort keeps it among equal counts.
    std::stable_sort(stacks.begin(), stacks.end(), [](const Stack& a, const Stack& b) { return a.count > b.count; });
    return stacks;
}

std::vector<std::string> frameNames(const Stack& stack)
{
    if (stack.status != PointStatus::resolved)
        return {std::string("[") + statusName(stack.status) + "]"};
    std::vector<std::string> names;
    for (const StackFrame& frame : stack.frames)
        names.push_back(frame.method);
    return names;
}

void writeFolded(std::ostream& out, const std::vector<Stack>& stacks)
{
    std::map<std::string, std::size_t> lines;
    for (const Stack& stack : stacks) {
        std::string line;
        for (std::string name : frameNames(stack)) {
            // The folded format splits frames at ';' and ends a stack at a line break.
            std::replace(name.begin(), name.end(), ';', ',');
            std::replace(name.begin(), name.end(), '\n', ' ');
            line += (line.empty() ? "" : ";") + name;
        }
        lines[line] += stack.count;
    }
    for (const auto& line : lines)
        out << line.first << " " << line.second << "\n";
}

} // namespace jitreader_tool
