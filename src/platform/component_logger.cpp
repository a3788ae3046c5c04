#include "platform/component_logger.h"

#include <mutex>

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>

#include "platform/text.h"

namespace velmark_3_11 {

const wchar_t* const kComponentLoggerName = L"velmark.jitreader";

void configureComponentLogger(const std::wstring& name)
{
    static std::once_flag once;
    std::call_once(once, [&name] {
        log4cplus::Logger logger = log4cplus::Logger::getInstance(toUtf8(name));
        if (!logger.getAllAppenders().empty() || !log4cplus::Logger::getRoot().getAllAppenders().empty())
            return;
        log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true /* stderr */));
        appender->setLayout(std::unique_ptr<log4cplus::Layout>(
            new log4cplus::PatternLayout(LOG4CPLUS_TEXT("%-5p %c: %m%n"))));
        logger.addAppender(appender);
        logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);
    });
}

log4cplus::Logger& componentLogger()
{
    static log4cplus::Logger logger = [] {
        configureComponentLogger(kComponentLoggerName);
        return log4cplus::Logger::getInstance(toUtf8(kComponentLoggerName));
    }();
    return logger;
}

} // namespace velmark_3_11
