// Records the reports of the assertion facility for the life of the object.
#pragma once

#include <string>
#include <vector>

#include "basekit2/assertion.h"

namespace jrtest {

struct AssertionReport { std::string expression; std::string message; std::string function; };

class AssertionCapture {
public:
    AssertionCapture();
    ~AssertionCapture();
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    const std::vector<AssertionReport>& reports() const { return m_reports; }
    /// The failed expressions, in order.
    std::vector<std::string> expressions() const;
    bool contains(const std::string& expression) const;
    void clear() { m_reports.clear(); }

private:
    static void record(const basekit2::assertion_report_t& report);

    basekit2::assertion_handler_t m_previous;
    AssertionCapture* m_outer;
    std::vector<AssertionReport> m_reports;
};

} // namespace jrtest
