#include "jitreader/module_evaluator.h"

#include <gtest/gtest.h>

namespace velmark_3_11 {
namespace {

TEST(ModuleEvaluator, MatchesTheFourPatternsCaseAndSlashSensitively)
{
    const struct { const wchar_t* path; velmark_error_t result; } cases[] = {
        {L"C:\\Windows\\assembly\\GAC_MSIL\\System\\System.dll", meSuccess},
        {L"C:\\Windows\\assembly\\NativeImages_v4.0_64\\mscorlib.ni.dll", meSuccess},
        {L"/dev/ashmem/dalvik-jit-code-cache (deleted)", meSuccess},
        {L"/anon_hugepage", meSuccess},
        {L"x anon_hugepage y", meSuccess},
        {L"C:\\Windows\\ASSEMBLY\\GAC\\a.dll", meFail},
        {L"/mnt/assembly/GAC/a.dll", meFail},
        {L"assembly\\gac", meFail},
        {L"", meFail},
        {L"/usr/lib/libc.so.6", meFail},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, isNativeImage(c.path)) << c.path;
        EXPECT_EQ(c.result, boost::intrusive_ptr<ModuleEvaluator>(new ModuleEvaluator(c.path))->isNativeImage())
            << c.path;
    }
    EXPECT_EQ(meFail, boost::intrusive_ptr<ModuleEvaluator>(new ModuleEvaluator(nullptr))->isNativeImage());
}

} // namespace
} // namespace velmark_3_11
