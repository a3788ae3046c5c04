#include "jitreader/method_dump.h"

#include "jitreader/jit_method.h"

namespace velmark_3_11 {

// TODO(method_dump)
std::wostream& dumpMethod(std::wostream& stream, JitMethod&)
{
    return stream;
}

std::wstring dumpCodeRegions(const JitMethod&)
{
    return std::wstring();
}

const wchar_t* archName(unsigned int arch)
{
    switch (arch) {
    case 0: return L"farad32";
    case 1: return L"farad64";
    case 2: return L"faradit";
    case 3: return L"kolbe";
    default: return L"UNKNOWN";
    }
}

} // namespace velmark_3_11
