#include "jitreader/module.h"

namespace velmark_3_11 {

const wchar_t* const kDynamicCodeModule = L"[Dynamic code]";
const wchar_t* const kCompiledJavaCodeModule = L"[Compiled Java code]";

Module::Module(const std::wstring& path, unsigned int type, unsigned int arch)
    : m_path(path.empty() ? std::wstring(kDynamicCodeModule) : path), m_type(type), m_arch(arch)
{
}

} // namespace velmark_3_11
