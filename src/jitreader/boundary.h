// The edge of the exported surface: the library's own code throws nothing, but Boost and the
// standard library may (a directory that can't be listed, memory that runs out). What they
// throw ends here, as the operation's failure result and one ERROR line.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "platform/log.h"

namespace velmark_3_11 {

/// Runs `operation`; when it throws, logs "<name> failed: <what>" at ERROR and returns `failure`.
template <class Result, class Operation>
Result guardBoundary(const wchar_t* name, Result failure, Operation&& operation) noexcept
{
    constexpr auto kLogNumbers = logging::numbers_t::asIs;
    // The text is logged once the exception is gone, so it is copied here.
    std::string what;
    try {
        try {
            return std::forward<Operation>(operation)();
        } catch (const std::exception& error) {
            what = error.what() ? error.what() : "";
        } catch (...) {
            what = "unknown exception";
        }
        VM_ERROR(name << L" failed: " << toWide(what));
    } catch (...) {
        // Logging failed as well; the result still tells.
    }
    return failure;
}

} // namespace velmark_3_11
