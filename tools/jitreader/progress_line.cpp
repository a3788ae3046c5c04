#include "progress_line.h"

#include <unistd.h>

namespace jitreader_tool {

std::string progressText(unsigned long long done, unsigned long long total)
{
    const double megabyte = 1024.0 * 1024.0;
    const unsigned long long percent = total == 0 || done >= total ? 100 : done * 100 / total;
    char text[96];
    std::snprintf(text, sizeof text, "reading traces: %llu%% (%.1f of %.1f MB)", percent, done / megabyte,
                  total / megabyte);
    return text;
}

ProgressLine::ProgressLine(std::FILE* out, bool enabled)
    : m_out(out), m_enabled(enabled && out && isatty(fileno(out)) == 1)
{
}

ProgressLine::~ProgressLine()
{
    // The next line of output starts on a clean line.
    if (m_drawn)
        std::fprintf(m_out, "\r\033[K");
}

velmark_3_11::LoadProgress ProgressLine::progress()
{
    velmark_3_11::LoadProgress progress;
    if (m_enabled) {
        progress.callback = &ProgressLine::report;
        progress.context = this;
    }
    m_start = std::chrono::steady_clock::now();
    return progress;
}

void ProgressLine::report(unsigned long long done, unsigned long long total, void* context)
{
    ProgressLine& line = *static_cast<ProgressLine*>(context);
    // Short reads stay silent: a line that flashes by says nothing.
    if (std::chrono::steady_clock::now() - line.m_start < std::chrono::seconds(1))
        return;
    std::fprintf(line.m_out, "\r%s\033[K", progressText(done, total).c_str());
    std::fflush(line.m_out);
    line.m_drawn = true;
}

} // namespace jitreader_tool
