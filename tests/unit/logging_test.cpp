#include "platform/log.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "jitreader/boundary.h"

#include "support/log_capture.h"

namespace velmark_3_11 {
namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

// Counts how often it is written, to show that a disabled line builds no text.
struct Costly { int* writes; };
std::wostream& operator<<(std::wostream& stream, const Costly& costly)
{
    ++*costly.writes;
    return stream << L"costly";
}

TEST(Logging, DisabledLinesBuildNothing)
{
    jrtest::LogCapture log(log4cplus::WARN_LOG_LEVEL);
    int writes = 0;
    VM_INFO(L"never " << Costly{&writes});
    VM_TRACE(L"never " << Costly{&writes});
    {
        VM_TRACE_SCOPE("void velmark_3_11::Test::run(void)");
    }
    EXPECT_EQ(0, writes);
    EXPECT_TRUE(log.lines().empty());

    VM_WARN(L"once " << Costly{&writes});
    VM_WARN(std::wstring(L"gr\u00fc\u00dfe")); // wide text goes out as UTF-8
    EXPECT_EQ(1, writes);
    EXPECT_EQ((std::vector<std::string>{"once costly", "gr\xc3\xbc\xc3\x9f" "e"}), log.texts(log4cplus::WARN_LOG_LEVEL));
}

TEST(Logging, ErrorSuffixNamesSourceAndLineInTheStreamsFormat)
{
    jrtest::LogCapture log;
    const int hexLine = __LINE__ + 1;
    VM_ERROR_AT(L"Could not read jit file " << L"/x/a.1.jit");
    const int decimalLine = __LINE__ + 1;
    VM_LOG(log4cplus::ERROR_LOG_LEVEL, logging::numbers_t::asIs, true, L"Skip");

    const auto lines = log.texts(log4cplus::ERROR_LOG_LEVEL);
    ASSERT_EQ(2u, lines.size());
    std::ostringstream hex;
    hex << std::showbase << std::hex << hexLine;
    EXPECT_EQ(std::string("Could not read jit file /x/a.1.jit, at file: ") + __FILE__ + ":" + hex.str(), lines[0]);
    EXPECT_EQ(std::string("Skip, at file: ") + __FILE__ + ":" + std::to_string(decimalLine), lines[1]);
}

void tracedFunction(bool leaveEarly)
{
    VM_TRACE_SCOPE("void velmark_3_11::tracedFunction(bool)");
    if (leaveEarly)
        return;
    VM_TRACE(L"body");
}

TEST(Logging, ScopedTraceLogsEnterAndExitOnEveryWayOut)
{
    jrtest::LogCapture log;
    tracedFunction(false);
    tracedFunction(true);
    EXPECT_EQ((std::vector<std::string>{
                  "ENTER: void velmark_3_11::tracedFunction(bool)",
                  "body",
                  "EXIT:  void velmark_3_11::tracedFunction(bool)",
                  "ENTER: void velmark_3_11::tracedFunction(bool)",
                  "EXIT:  void velmark_3_11::tracedFunction(bool)",
              }),
              log.texts(log4cplus::TRACE_LOG_LEVEL));
}

TEST(Logging, WhatCrossesTheExportedSurfaceIsAResultAndOneErrorLine)
{
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(7, guardBoundary(L"Op", 0, [] { return 7; }));
    EXPECT_EQ(-1, guardBoundary(L"Op", -1, []() -> int { throw std::runtime_error("disk gone"); }));
    EXPECT_EQ(-1, guardBoundary(L"Op", -1, []() -> int { throw 42; }));
    EXPECT_EQ((std::vector<std::string>{"Op failed: disk gone", "Op failed: unknown exception"}),
              log.texts(log4cplus::ERROR_LOG_LEVEL));
}

} // namespace
} // namespace velmark_3_11
