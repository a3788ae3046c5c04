#include "platform/deferred_log.h"

#include <utility>

namespace velmark_3_11 {
namespace logging {
namespace {

thread_local DeferredLog* t_capturing = nullptr;

} // namespace

DeferredLog::Capture::Capture(DeferredLog& log) : m_previous(t_capturing)
{
    t_capturing = &log;
}

DeferredLog::Capture::~Capture()
{
    t_capturing = m_previous;
}

DeferredLog* DeferredLog::current()
{
    return t_capturing;
}

void DeferredLog::add(const log4cplus::Logger& logger, log4cplus::LogLevel level, std::string text, const char* file,
                      int line, const char* function)
{
    m_entries.push_back(Entry{m_step, false, logger, level, std::move(text), {"", "", file, line, function}});
}

void DeferredLog::add(const basekit2::assertion_report_t& report)
{
    m_entries.push_back(Entry{m_step, true, log4cplus::Logger(), log4cplus::NOT_SET_LOG_LEVEL, {}, report});
}

void DeferredLog::writeThrough(std::size_t step)
{
    for (; m_written < m_entries.size() && m_entries[m_written].step <= step; ++m_written) {
        Entry& entry = m_entries[m_written];
        if (entry.assertion)
            basekit2::report_assertion(entry.report);
        else
            entry.logger.forcedLog(entry.level, entry.text, entry.report.file, entry.report.line,
                                   entry.report.function);
    }
}

} // namespace logging
} // namespace velmark_3_11
