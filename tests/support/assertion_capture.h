// Records the expressions that the assertion facility reports, for the life of the object.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "basekit2/assertion.h"

namespace jrtest {

class AssertionCapture {
public:
    AssertionCapture() : m_previous(basekit2::set_assertion_handler(&record)), m_outer(s_active) { s_active = this; }
    ~AssertionCapture()
    {
        basekit2::set_assertion_handler(m_previous);
        s_active = m_outer;
    }
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    /// The failed expressions, in order.
    const std::vector<std::string>& expressions() const { return m_expressions; }
    bool contains(const std::string& expression) const
    {
        return std::find(m_expressions.begin(), m_expressions.end(), expression) != m_expressions.end();
    }

private:
    static void record(const basekit2::assertion_report_t& report)
    {
        if (s_active)
            s_active->m_expressions.push_back(report.expression);
    }

    inline static AssertionCapture* s_active = nullptr;
    basekit2::assertion_handler_t m_previous;
    AssertionCapture* m_outer;
    std::vector<std::string> m_expressions;
};

} // namespace jrtest
