// Captures every line of the "velmark.jitreader" logger for the life of the object.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>

namespace jrtest {

struct LogLine { log4cplus::LogLevel level; std::string text; };

/// Replaces the logger's appenders by a recording one and sets its level; restores both at the end.
class LogCapture {
public:
    explicit LogCapture(log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL)
        : m_logger(log4cplus::Logger::getInstance("velmark.jitreader")), m_recorder(new Recorder),
          m_savedAppenders(m_logger.getAllAppenders()), m_savedLevel(m_logger.getLogLevel())
    {
        m_logger.removeAllAppenders();
        m_logger.addAppender(m_recorder);
        m_logger.setLogLevel(level);
    }
    ~LogCapture()
    {
        m_logger.removeAllAppenders();
        for (auto& appender : m_savedAppenders)
            m_logger.addAppender(appender);
        m_logger.setLogLevel(m_savedLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const
    {
        const Recorder& recorder = static_cast<const Recorder&>(*m_recorder);
        std::lock_guard<std::mutex> lock(recorder.mutex);
        return recorder.lines;
    }
    /// Texts of the lines at `level`, in order.
    std::vector<std::string> texts(log4cplus::LogLevel level) const
    {
        std::vector<std::string> result;
        for (const LogLine& line : lines())
            if (line.level == level)
                result.push_back(line.text);
        return result;
    }
    /// Number of lines at `level` whose text contains `fragment`.
    std::size_t count(log4cplus::LogLevel level, const std::string& fragment) const
    {
        std::size_t n = 0;
        for (const std::string& text : texts(level))
            n += text.find(fragment) != std::string::npos;
        return n;
    }
    bool contains(log4cplus::LogLevel level, const std::string& fragment) const { return count(level, fragment) != 0; }
    void clear()
    {
        Recorder& recorder = static_cast<Recorder&>(*m_recorder);
        std::lock_guard<std::mutex> lock(recorder.mutex);
        recorder.lines.clear();
    }
    /// All lines as "LEVEL text", one a line, for failure messages.
    std::string dump() const
    {
        std::string text;
        for (const LogLine& line : lines())
            text += log4cplus::getLogLevelManager().toString(line.level) + " " + line.text + "\n";
        return text;
    }

private:
    struct Recorder : log4cplus::Appender {
        ~Recorder() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override
        {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(LogLine{event.getLogLevel(), event.getMessage()});
        }
        mutable std::mutex mutex;
        std::vector<LogLine> lines;
    };

    log4cplus::Logger m_logger;
    log4cplus::SharedAppenderPtr m_recorder;
    log4cplus::SharedAppenderPtrList m_savedAppenders;
    log4cplus::LogLevel m_savedLevel;
};

/// The text that ", at file: <source>:<line>" adds, as a pattern fragment.
inline const char* kAtFileSuffix = ", at file: ";

} // namespace jrtest
