// Log statements of the library: the level test comes first, so that a disabled line builds
// no text; the text is built in a wide stream and logged as UTF-8.
//
// A source file that logs defines, in an unnamed namespace, how its numbers print:
//     constexpr auto kLogNumbers = logging::numbers_t::hex;
// and then writes VM_INFO(L"Added " << count << L" regions"), VM_ERROR_AT(...) and so on.
#pragma once

#include <optional>
#include <sstream>
#include <string>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/tracelogger.h>

#include "platform/component_logger.h"
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

inline void emit(log4cplus::Logger& logger, log4cplus::LogLevel level, const std::wostringstream& stream,
                 const char* file, int line)
{
    logger.forcedLog(level, toUtf8(stream.str()), file, line);
}

/// Logs "ENTER: " and "EXIT:  " with a function's signature at TRACE. The trace logger (a copy
/// of the logger and of the text) is made only while TRACE is enabled: on the lookup paths it
/// would cost more than the lookup.
class TraceScope {
public:
    TraceScope(const char* signature, const char* file, int line)
    {
        log4cplus::Logger& logger = componentLogger();
        if (logger.isEnabledFor(log4cplus::TRACE_LOG_LEVEL))
            m_scope.emplace(logger, signature, file, line);
    }

private:
    std::optional<log4cplus::TraceLogger> m_scope;
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
