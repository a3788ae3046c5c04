// Captures every line of the "velmark.jitreader" logger for the life of the object.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

namespace jrtest {

struct LogLine { log4cplus::LogLevel level; std::string text; };

/// Replaces the logger's appenders by a recording one and sets its level; restores both when
/// destroyed.
class LogCapture {
public:
    explicit LogCapture(log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    /// Texts of the lines at `level`, in order.
    std::vector<std::string> texts(log4cplus::LogLevel level) const;
    /// Number of lines at `level` whose text contains `fragment`.
    std::size_t count(log4cplus::LogLevel level, const std::string& fragment) const;
    bool contains(log4cplus::LogLevel level, const std::string& fragment) const
    {
        return count(level, fragment) != 0;
    }
    void clear();
    /// All lines as "LEVEL text", one a line, for failure messages.
    std::string dump() const;

private:
    class Recorder;
    log4cplus::Logger m_logger;
    log4cplus::SharedAppenderPtr m_recorder;
    log4cplus::SharedAppenderPtrList m_savedAppenders;
    log4cplus::LogLevel m_savedLevel;
};

/// The text that ", at file: <source>:<line>" adds, as a pattern fragment.
inline const char* kAtFileSuffix = ", at file: ";

} // namespace jrtest
