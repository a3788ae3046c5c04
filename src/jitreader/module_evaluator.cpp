#include "jitreader/module_evaluator.h"

namespace velmark_3_11 {
namespace {

// .NET assembly stores and memory mappings of JIT code, in the order they are tested.
const std::wstring kNativeImagePatterns[] = {
    L"assembly\\GAC",
    L"assembly\\NativeImages",
    L"dalvik-jit-code-cache",
    L"anon_hugepage",
};

} // namespace

velmark_error_t isNativeImage(const std::wstring& path)
{
    for (const std::wstring& pattern : kNativeImagePatterns) {
        if (path.find(pattern) != std::wstring::npos)
            return meSuccess;
    }
    return meFail;
}

velmark_error_t ModuleEvaluator::isNativeImage() const
{
    return velmark_3_11::isNativeImage(m_modulePath);
}

} // namespace velmark_3_11
