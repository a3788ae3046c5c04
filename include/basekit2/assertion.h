// Assertion facility of the platform layer: a failed check is reported and the caller goes on.
#pragma once

#include "jitreader/export.h"

namespace basekit2 {

/// What a failed assertion reports.
struct assertion_report_t {
    const char* expression; ///< text of the failed expression
    const char* message;    ///< extra text; empty when the check has none
    const char* file;       ///< source path
    int line;               ///< source line
    const char* function;   ///< name of the function that checked
};

/// Receives the reports. The default handler logs them at ERROR.
typedef void (*assertion_handler_t)(const assertion_report_t& report);

/// Reports a failed assertion to the installed handler and returns.
JITREADER_API void report_assertion(const assertion_report_t& report);

/// Installs a handler (null restores the default one) and returns the previous handler.
JITREADER_API assertion_handler_t set_assertion_handler(assertion_handler_t handler);

} // namespace basekit2

/// Checks `condition`; on failure reports it and carries on with the next statement.
#define BASEKIT2_ASSERT(condition)                                                                  \
    do {                                                                                            \
        if (!(condition))                                                                           \
            ::basekit2::report_assertion(                                                           \
                ::basekit2::assertion_report_t{#condition, "", __FILE__, __LINE__, __func__});      \
    } while (false)

/// As BASEKIT2_ASSERT, but reports `text` in place of the expression's own spelling.
#define BASEKIT2_ASSERT_TEXT(condition, text)                                                       \
    do {                                                                                            \
        if (!(condition))                                                                           \
            ::basekit2::report_assertion(                                                           \
                ::basekit2::assertion_report_t{text, "", __FILE__, __LINE__, __func__});            \
    } while (false)
