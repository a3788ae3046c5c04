#include "speedscope_writer.h"

#include <map>
#include <utility>

#include "table.h"

namespace jitreader_tool {

void writeSpeedscope(std::ostream& out, const std::vector<Stack>& stacks, const std::string& name)
{
    // Frames are numbered in the order the profiles first use them, and profiles come by host
    // and process, so the same stacks always give the same file.
    std::map<std::pair<std::string, unsigned int>, std::vector<const Stack*>> processes;
    for (const Stack& stack : stacks)
        processes[{stack.host, stack.processId}].push_back(&stack);
    std::map<StackFrame, std::size_t> frameIndex;
    std::vector<const StackFrame*> frames;
    auto indexOf = [&](const StackFrame& frame) {
        const auto found = frameIndex.emplace(frame, frames.size());
        if (found.second)
            frames.push_back(&found.first->first);
        return found.first->second;
    };

    std::string profiles;
    for (const auto& process : processes) {
        std::string samples, weights;
        std::size_t total = 0;
        for (const Stack* stack : process.second) {
            std::string sample;
            if (stack->status == PointStatus::resolved) {
                for (const StackFrame& frame : stack->frames)
                    sample += (sample.empty() ? "" : ",") + std::to_string(indexOf(frame));
            } else {
                sample = std::to_string(indexOf(StackFrame{frameNames(*stack).front(), "", "", 0}));
            }
            samples += (samples.empty() ? "[" : ", [") + sample + "]";
            weights += (weights.empty() ? "" : ", ") + std::to_string(stack->count);
            total += stack->count;
        }
        profiles += std::string(profiles.empty() ? "\n  " : ",\n  ") + "{\"type\": \"sampled\", \"name\": " +
                    jsonString(validUtf8(process.first.first + " pid " + std::to_string(process.first.second))) +
                    ", \"unit\": \"none\", \"startValue\": 0, \"endValue\": " + std::to_string(total) +
                    ",\n   \"samples\": [" + samples + "],\n   \"weights\": [" + weights + "]}";
    }

    out << "{\"$schema\": \"https://www.speedscope.app/file-format-schema.json\",\n \"exporter\": \"jitreader\","
        << "\n \"name\": " << jsonString(validUtf8(name))
        << ",\n \"activeProfileIndex\": 0,\n \"shared\": {\"frames\": [";
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const StackFrame& frame = *frames[i];
        out << (i ? ",\n  " : "\n  ") << "{\"name\": " << jsonString(validUtf8(frame.method));
        if (!frame.source.empty())
            out << ", \"file\": " << jsonString(validUtf8(frame.source));
        if (frame.line)
            out << ", \"line\": " << frame.line;
        out << "}";
    }
    out << (frames.empty() ? "]},\n" : "\n ]},\n") << " \"profiles\": [" << profiles
        << (profiles.empty() ? "]" : "\n ]") << "\n}\n";
}

} // namespace jitreader_tool
