// Result codes and architectures shared by every operation of the library.
#pragma once

namespace velmark_3_11 {

/// Result of every operation. The numbers are a binary contract: none is ever renumbered,
/// and the ones not listed are never returned.
enum velmark_error_t : unsigned int {
    meSuccess = 0,            ///< success
    meEndOfTrace = 2,         ///< a trace file has no further record (never leaves the reader)
    meFail = 4,               ///< nothing found, a value absent, or a lookup missed
    meNotADirectory = 8,      ///< a trace directory is no directory
    meFileNotRegistered = 10, ///< a trace file path was not registered at the scan
    meInvalidArgument = 12,   ///< a required pointer is null, or a stored path is empty
    meBadTrace = 14,          ///< trace data cannot be understood or placed
    meBufferTooSmall = 18,    ///< the caller's array is too small; nothing was written
    meOpenFailed = 22,        ///< a trace file could not be opened
};

/// Architecture of a module or of the analysis.
enum velmark_arch : unsigned int {
    farad32 = 0,
    farad64 = 1,
    faradit = 2,
    kolbe = 3,
};

} // namespace velmark_3_11
