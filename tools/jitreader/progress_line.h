// A one-line display of a long read of traces on a terminal: bytes read against the total,
// redrawn in place and wiped when the read is over.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "jitreader/load_progress.h"

namespace jitreader_tool {

/// "reading traces: 45% (90.0 of 200.0 MB)".
std::string progressText(unsigned long long done, unsigned long long total);

class ProgressLine {
public:
    /// Draws on `out` when `enabled` and `out` is a terminal, once a read has run for a second.
    ProgressLine(std::FILE* out, bool enabled);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// The callback to hand to the library; one without a function when nothing is to be drawn.
    velmark_3_11::LoadProgress progress();

private:
    static void report(unsigned long long done, unsigned long long total, void* context);

    std::FILE* m_out;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

} // namespace jitreader_tool
