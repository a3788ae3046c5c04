// Log statements of the library: the level test comes first, so that a disabled line builds
// no text; the text is built in a wide stream and logged as UTF-8.
//
// A source file that logs defines, in an unnamed namespace, how its numbers print:
//     constexpr auto kLogNumbers = logging::numbers_t::hex;
// and then writes VM_INFO(L"Added " << count << L" regions"), VM_ERROR_AT(...) and so on.
#pragma once

#include <sstream>
#include <string>
#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include "platform/component_logger.h"
#include "platform/deferred_log.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace logging {

/// How the numbers of a log line print: as the stream has them, or hexadecimal with "0x".
enum class numbers_t { asIs, hex };

inline void prepare(std::wostringstream& stream, numbers_t numbers)
{
    if (numbers == numbers_t::hex)
        stream << std::showbase << std::hex;
}

/// Writes a line, or holds it back while this thread's lines are deferred. `function` is the
/// caller's, as log4cplus records it.
inline void write(const log4cplus::Logger& logger, log4cplus::LogLevel level, std::string text, const char* file,
                  int line, const char* function = LOG4CPLUS_CALLER_FUNCTION())
{
    if (DeferredLog* deferred = DeferredLog::current())
        deferred->add(logger, level, std::move(text), file, line, function);
    else
        logger.forcedLog(level, text, file, line, function);
}

inline void emit(log4cplus::Logger& logger, log4cplus::LogLevel level, const std::wostringstream& stream,
                 const char* file, int line)
{
    write(logger, level, toUtf8(stream.str()), file, line);
}

/// Logs "ENTER: " and "EXIT:  " with a function's signature at TRACE. Nothing is copied while
/// TRACE is off: on the lookup paths even that would cost more than the lookup.
class TraceScope {
public:
    TraceScope(const char* signature, const char* file, int line)
    {
        if (componentLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
            m_signature = signature;
            m_file = file;
            m_line = line;
            write(componentLogger(), log4cplus::TRACE_LOG_LEVEL, std::string("ENTER: ") + signature, file, line);
        }
    }
    ~TraceScope()
    {
        if (m_signature != nullptr && componentLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL))
            write(componentLogger(), log4cplus::TRACE_LOG_LEVEL, std::string("EXIT:  ") + m_signature, m_file,
                  m_line);
    }
    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;

private:
    const char* m_signature = nullptr;
    const char* m_file = nullptr;
    int m_line = 0;
};

} // namespace logging
} // namespace velmark_3_11

/// One log line at `level`. With `withSuffix` the line ends in ", at file: <path>:<line>",
/// the line number printed with the stream's flags.
#define VM_LOG(level, numbers, withSuffix, message)                                                 \
    do {                                                                                            \
        log4cplus::Logger& vmLogger_ = ::velmark_3_11::componentLogger();                           \
        if (vmLogger_.isEnabledFor(level)) {                                                        \
            std::wostringstream vmStream_;                                                          \
            ::velmark_3_11::logging::prepare(vmStream_, numbers);                                   \
            vmStream_ << message;                                                                   \
            if (withSuffix)                                                                         \
                vmStream_ << L", at file: " << __FILE__ << L":" << __LINE__;                        \
            ::velmark_3_11::logging::emit(vmLogger_, level, vmStream_, __FILE__, __LINE__);         \
        }                                                                                           \
    } while (false)

#define VM_ERROR(message) VM_LOG(log4cplus::ERROR_LOG_LEVEL, kLogNumbers, false, message)
#define VM_ERROR_AT(message) VM_LOG(log4cplus::ERROR_LOG_LEVEL, kLogNumbers, true, message)
#define VM_WARN(message) VM_LOG(log4cplus::WARN_LOG_LEVEL, kLogNumbers, false, message)
#define VM_INFO(message) VM_LOG(log4cplus::INFO_LOG_LEVEL, kLogNumbers, false, message)
#define VM_TRACE(message) VM_LOG(log4cplus::TRACE_LOG_LEVEL, kLogNumbers, false, message)

/// True when a line at `level` would be written; for work that only a log line needs.
#define VM_ENABLED(level) (::velmark_3_11::componentLogger().isEnabledFor(level))

/// Opens a scope that logs "ENTER: " and "EXIT:  " with `signature` at TRACE.
#define VM_TRACE_SCOPE(signature)                                                                   \
    ::velmark_3_11::logging::TraceScope vmTraceScope_(signature, __FILE__, __LINE__)
