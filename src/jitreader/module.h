// The module of a method.
#pragma once

#include <string>

#include "jitreader/symbol.h"

namespace velmark_3_11 {

/// Path shown for code without a module file.
extern const wchar_t* const kDynamicCodeModule;
/// Path shown for Java code without a module file.
extern const wchar_t* const kCompiledJavaCodeModule;

class Module : public IModule {
public:
    /// An empty path becomes "[Dynamic code]".
    Module(const std::wstring& path, unsigned int type, unsigned int arch);

    const wchar_t* getName() const override { return m_path.c_str(); }
    unsigned int getType() const override { return m_type; }
    unsigned int getArch() const override { return m_arch; }

private:
    std::wstring m_path;
    unsigned int m_type;
    unsigned int m_arch;
};

} // namespace velmark_3_11
