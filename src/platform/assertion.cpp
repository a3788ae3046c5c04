#include "basekit2/assertion.h"

#include <atomic>

#include "platform/log.h"

namespace basekit2 {
namespace {

void logAssertion(const assertion_report_t& report)
{
    VM_LOG(log4cplus::ERROR_LOG_LEVEL, ::velmark_3_11::logging::numbers_t::asIs, false,
           L"Assertion failed: " << report.expression << (*report.message ? L" (" : L"") << report.message
                                 << (*report.message ? L")" : L"") << L" in " << report.function << L", "
                                 << report.file << L":" << report.line);
}

std::atomic<assertion_handler_t> s_handler{&logAssertion};

} // namespace

void report_assertion(const assertion_report_t& report)
{
    if (::velmark_3_11::logging::DeferredLog* deferred = ::velmark_3_11::logging::DeferredLog::current()) {
        deferred->add(report);
        return;
    }
    s_handler.load()(report);
}

assertion_handler_t set_assertion_handler(assertion_handler_t handler)
{
    return s_handler.exchange(handler ? handler : &logAssertion);
}

} // namespace basekit2
