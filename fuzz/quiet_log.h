// Fuzz entries build every log line, so that the text of each one is exercised, and throw it away.
#pragma once

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/nullappender.h>

namespace jitreader_fuzz {

/// Sets the library's logger to TRACE into a null appender, once.
inline void logEverythingQuietly()
{
    static const bool once = [] {
        log4cplus::Logger logger = log4cplus::Logger::getInstance("velmark.jitreader");
        logger.removeAllAppenders();
        logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
        logger.setAdditivity(false);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        return true;
    }();
    (void)once;
}

} // namespace jitreader_fuzz
