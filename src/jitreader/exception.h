// An exception type with a result code and a wide message. No code path of the library
// throws it; it exists for callers that want to wrap a result code.
#pragma once

#include <exception>
#include <string>

namespace velmark_3_11 {

class Exception : public std::exception {
public:
    Exception(unsigned int code, const std::wstring& message) : m_code(code), m_message(message) {}

    unsigned int getCode() const { return m_code; }
    std::wstring getMessage() const { return m_message; }
    /// Null on purpose: the text is wide and is read through getMessage().
    const char* what() const noexcept override { return nullptr; }

private:
    unsigned int m_code;
    std::wstring m_message;
    std::wstring m_details; // never set
};

} // namespace velmark_3_11
