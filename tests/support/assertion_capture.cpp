#include "support/assertion_capture.h"

#include <algorithm>

namespace jrtest {
namespace {
AssertionCapture* s_active = nullptr;
}

AssertionCapture::AssertionCapture() : m_outer(s_active)
{
    s_active = this;
    m_previous = basekit2::set_assertion_handler(&AssertionCapture::record);
}

AssertionCapture::~AssertionCapture()
{
    basekit2::set_assertion_handler(m_previous);
    s_active = m_outer;
}

void AssertionCapture::record(const basekit2::assertion_report_t& report)
{
    if (s_active)
        s_active->m_reports.push_back(AssertionReport{report.expression, report.message, report.function});
}

std::vector<std::string> AssertionCapture::expressions() const
{
    std::vector<std::string> result;
    for (const AssertionReport& report : m_reports)
        result.push_back(report.expression);
    return result;
}

bool AssertionCapture::contains(const std::string& expression) const
{
    return std::any_of(m_reports.begin(), m_reports.end(),
                       [&](const AssertionReport& report) { return report.expression == expression; });
}

} // namespace jrtest
