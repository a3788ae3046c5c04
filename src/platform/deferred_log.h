// Log lines and assertion reports held back on the thread that made them and written later, by
// the thread that takes that thread's results: work done ahead then logs in the order in which
// the same work, done in turn, would have logged.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include "basekit2/assertion.h"

namespace velmark_3_11 {
namespace logging {

/// Lines grouped by the step of the work during which they came: the lines of step i are
/// written just before step i's result is taken, those after the last step at the end.
class DeferredLog {
public:
    /// While a Capture lives, what its thread logs or asserts goes into the log given to it.
    class Capture {
    public:
        explicit Capture(DeferredLog& log);
        ~Capture();
        Capture(const Capture&) = delete;
        Capture& operator=(const Capture&) = delete;

    private:
        DeferredLog* m_previous;
    };

    /// The log that captures this thread's lines; null when they are written at once.
    static DeferredLog* current();

    void add(const log4cplus::Logger& logger, log4cplus::LogLevel level, std::string text, const char* file,
             int line, const char* function);
    void add(const basekit2::assertion_report_t& report);

    /// Lines that come from now on belong to the next step.
    void nextStep() { ++m_step; }
    /// Writes the lines held for steps up to `step`, in the order in which they came.
    void writeThrough(std::size_t step);
    /// Writes every line still held.
    void writeAll() { writeThrough(m_step); }

private:
    struct Entry {
        std::size_t step;
        bool assertion;
        log4cplus::Logger logger;
        log4cplus::LogLevel level;
        std::string text;
        basekit2::assertion_report_t report; // where a line came from, or an assertion; literals all
    };

    std::vector<Entry> m_entries;
    std::size_t m_written = 0;
    std::size_t m_step = 0;
};

} // namespace logging
} // namespace velmark_3_11
