#include "read_failures.h"

#include <mutex>

#include <log4cplus/spi/loggingevent.h>

namespace jitreader_tool {
namespace {

const std::string kReadFailure = "Could not read jit file ";
const std::string kSuffix = ", at file: ";

} // namespace

class ReadFailures::Appender : public log4cplus::Appender {
public:
    explicit Appender(std::ostream& err) : m_err(err) {}
    ~Appender() override { destructorImpl(); }
    void close() override {}

    std::set<std::string> files() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_files;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const std::string& text = event.getMessage();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_err << log4cplus::getLogLevelManager().toString(event.getLogLevel()) << " " << text << "\n";
        if (text.compare(0, kReadFailure.size(), kReadFailure) == 0) {
            const std::size_t end = text.rfind(kSuffix);
            m_files.insert(text.substr(kReadFailure.size(),
                                       end == std::string::npos ? std::string::npos : end - kReadFailure.size()));
        }
    }

private:
    std::ostream& m_err;
    mutable std::mutex m_mutex;
    std::set<std::string> m_files;
};

ReadFailures::ReadFailures(std::ostream& err)
    : m_logger(log4cplus::Logger::getInstance("velmark.jitreader")), m_appender(new Appender(err)),
      m_savedAppenders(m_logger.getAllAppenders()), m_savedLevel(m_logger.getLogLevel())
{
    m_logger.removeAllAppenders();
    m_logger.addAppender(m_appender);
    m_logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
}

ReadFailures::~ReadFailures()
{
    m_logger.removeAllAppenders();
    for (const auto& appender : m_savedAppenders)
        m_logger.addAppender(appender);
    m_logger.setLogLevel(m_savedLevel);
}

std::set<std::string> ReadFailures::files() const
{
    return static_cast<Appender&>(*m_appender).files();
}

int ReadFailures::report(std::size_t traceFiles, bool strict, std::ostream& err) const
{
    const std::size_t failed = files().size();
    if (failed == 0)
        return 0;
    err << failed << " of " << traceFiles << " trace files could not be read completely; see the messages above\n";
    return strict ? 3 : 0;
}

} // namespace jitreader_tool
