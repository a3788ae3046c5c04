// Text dumps of a method for the log: identity, module, source file, regions with their
// disassembly and line tables.
#pragma once

#include <ostream>
#include <string>

namespace velmark_3_11 {

class JitMethod;

/// Writes the whole dump of `method`; the stream's format flags are restored afterwards.
std::wostream& dumpMethod(std::wostream& stream, JitMethod& method);

/// The live regions of `method` with their inlines, one "Code region #" line each.
std::wstring dumpCodeRegions(const JitMethod& method);

/// The name of an architecture as the dump prints it ("farad64", or "UNKNOWN").
const wchar_t* archName(unsigned int arch);

} // namespace velmark_3_11
