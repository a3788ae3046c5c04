// The library's one logger, "velmark.jitreader", and its set-up when the host has none.
#pragma once

#include <string>

#include <log4cplus/logger.h>

namespace velmark_3_11 {

/// Name of the library's logger.
extern const wchar_t* const kComponentLoggerName;

/// Sets log4cplus up for the component `name` once: when neither that logger nor the root has
/// an appender, it attaches one stderr appender at WARN. Later calls do nothing.
void configureComponentLogger(const std::wstring& name);

/// The library's logger, configured on first use.
log4cplus::Logger& componentLogger();

} // namespace velmark_3_11
