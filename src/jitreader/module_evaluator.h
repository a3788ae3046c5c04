// The test whether a module is a native image or a mapping of JIT code.
#pragma once

#include <string>

#include "jitreader/jit_loader.h"

namespace velmark_3_11 {

class ModuleEvaluator : public IModuleEvaluator {
public:
    /// Copies `modulePath`; null leaves the path empty.
    explicit ModuleEvaluator(const wchar_t* modulePath) : m_modulePath(modulePath ? modulePath : L"") {}

    velmark_error_t isNativeImage() const override;

private:
    std::wstring m_modulePath;
};

} // namespace velmark_3_11
