// Watches the library's log while the tool reads traces: passes warnings and errors on to
// standard error and counts the trace files that could not be read completely.
#pragma once

#include <ostream>
#include <set>
#include <string>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

namespace jitreader_tool {

class ReadFailures {
public:
    /// Attaches to the library's logger (level WARN) for the life of the object; lines go to `err`.
    explicit ReadFailures(std::ostream& err);
    ~ReadFailures();
    ReadFailures(const ReadFailures&) = delete;
    ReadFailures& operator=(const ReadFailures&) = delete;

    /// The trace files that the library reported as not read completely.
    std::set<std::string> files() const;

    /// Says on `err` how many of `traceFiles` could not be read, when any; returns the exit code
    /// of that: 3 under `strict`, else 0.
    int report(std::size_t traceFiles, bool strict, std::ostream& err) const;

private:
    class Appender;
    log4cplus::Logger m_logger;
    log4cplus::SharedAppenderPtr m_appender;
    log4cplus::SharedAppenderPtrList m_savedAppenders;
    log4cplus::LogLevel m_savedLevel;
};

} // namespace jitreader_tool
