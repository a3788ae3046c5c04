// Text dumps of a method for the log: identity, module, source file, regions with their
// disassembly and line tables.
#pragma once

#include <ostream>
#include <string>

namespace velmark_3_11 {

class JitMethod;

/// Writes the whole dump of `method`; the stream's format flags are restored afterwards.
/// Not const: the line tables are read through JitMethod::getLineNumberInfo, which may copy
/// the tables of a region over those of the first one.
std::wostream& dumpMethod(std::wostream& stream, JitMethod& method);

/// The live regions of `method` with their inlines, one "Code region #" line each.
std::wstring dumpCodeRegions(const JitMethod& method);

/// The name of an architecture as the dump prints it ("farad64", or "UNKNOWN").
const wchar_t* archName(unsigned int arch);

/// Streams a method's dump: `VM_INFO(L"Raw JIT file data:\n" << MethodDump(*method))`.
struct MethodDump {
    explicit MethodDump(JitMethod& method_) : method(method_) {}
    JitMethod& method;
};

inline std::wostream& operator<<(std::wostream& stream, const MethodDump& dump)
{
    return dumpMethod(stream, dump.method);
}

} // namespace velmark_3_11
