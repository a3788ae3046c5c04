#include "support/log_capture.h"

#include <log4cplus/spi/loggingevent.h>

namespace jrtest {

class LogCapture::Recorder : public log4cplus::Appender {
public:
    ~Recorder() override { destructorImpl(); }
    void close() override {}

    std::vector<LogLine> lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(LogLine{event.getLogLevel(), event.getMessage()});
    }

private:
    mutable std::mutex m_mutex;
    std::vector<LogLine> m_lines;
};

LogCapture::LogCapture(log4cplus::LogLevel level)
    : m_logger(log4cplus::Logger::getInstance("velmark.jitreader")), m_recorder(new Recorder)
{
    m_savedAppenders = m_logger.getAllAppenders();
    m_savedLevel = m_logger.getLogLevel();
    m_logger.removeAllAppenders();
    m_logger.addAppender(m_recorder);
    m_logger.setLogLevel(level);
}

LogCapture::~LogCapture()
{
    m_logger.removeAllAppenders();
    for (auto& appender : m_savedAppenders)
        m_logger.addAppender(appender);
    m_logger.setLogLevel(m_savedLevel);
}

std::vector<LogLine> LogCapture::lines() const
{
    return static_cast<Recorder&>(*m_recorder).lines();
}

std::vector<std::string> LogCapture::texts(log4cplus::LogLevel level) const
{
    std::vector<std::string> result;
    for (const LogLine& line : lines())
        if (line.level == level)
            result.push_back(line.text);
    return result;
}

std::size_t LogCapture::count(log4cplus::LogLevel level, const std::string& fragment) const
{
    std::size_t n = 0;
    for (const LogLine& line : lines())
        if (line.level == level && line.text.find(fragment) != std::string::npos)
            ++n;
    return n;
}

void LogCapture::clear()
{
    static_cast<Recorder&>(*m_recorder).clear();
}

std::string LogCapture::dump() const
{
    std::string text;
    for (const LogLine& line : lines())
        text += log4cplus::getLogLevelManager().toString(line.level) + " " + line.text + "\n";
    return text;
}

} // namespace jrtest
