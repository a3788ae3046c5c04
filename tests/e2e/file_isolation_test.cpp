// Every trace file numbers its code in a space of its own: what one file holds, damaged or
// outgrowing its range, never changes the answers for another.
#include <gtest/gtest.h>

#include "e2e_util.h"
#include "support/log_capture.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

constexpr unsigned long long kWindowBase = 1ull << 48;
constexpr unsigned long long kWindowSize = 1ull << 32;

/// A load record whose range claims `size` bytes while carrying `byteCount` of them.
MethodLoad claiming(std::uint32_t rawId, std::uint64_t address, std::uint32_t size, std::uint32_t byteCount,
                    std::uint64_t loadTime, const std::string& name)
{
    MethodLoad record = e2e::method(rawId, address, byteCount, loadTime, name);
    record.ranges[0].size = size;
    record.nativeToSource.clear();
    return record;
}

UpdateV2 patch(std::uint64_t address, std::uint64_t loadTime)
{
    return UpdateV2{1, loadTime, 0, "patch", address, 0x10, e2e::code(0x10)};
}

TEST(FileIsolation, AMiddleFileThatOutgrowsItsRangeChangesNoOtherFileAndKeepsItsCode)
{
    TraceWriter first, last;
    first.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "a"));
    last.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "c"));
    TraceWriter intact, flipped, patched, overrun;
    intact.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0xA0, 0xA0, 100, "b"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 100, "b2"));
    // One flipped byte: the range size 0xA0 became 0x070000A0.
    flipped.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0x070000A0, 0xA0, 100, "b"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 100, "b2"));
    // Each update takes the whole old region's length of jit rvas for a record of a few bytes.
    patched.magic().load(kFunctionLoad64_v3, claiming(1, 0x1000, 0x400, 0x400, 100, "b"));
    for (std::uint64_t time = 200; time <= 600; time += 100)
        patched.updateV2(patch(0x1010, time));
    patched.load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 700, "b2"));
    // The window holds 2^32 jit rvas: the second record is refused, the third still fits.
    overrun.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0xFFFFFFF0u, 0x10, 100, "b"))
        .load(kFunctionLoad64_v3, claiming(3, 0x7000, 0x100, 0x10, 100, "refused"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x8, 100, "b2"));

    const struct {
        const char* name;
        const TraceWriter* middle;
        std::vector<std::wstring> middleNames;
        unsigned long long bTime;
        bool bInWindow;
        std::size_t refusals;
    } cases[] = {
        {"intact", &intact, {L"b", L"b2"}, 150, false, 0},
        {"range size flipped", &flipped, {L"b", L"b2"}, 150, true, 0},
        {"update copies", &patched, {L"b", L"", L"b2"}, 650, true, 0}, // an update's method has no name
        {"window overrun", &overrun, {L"b", L"b2"}, 150, true, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::TempDir root;
        root.write("d/host.1.jit", first.bytes());
        const std::string middlePath = root.write("d/host.2.jit", c.middle->bytes());
        root.write("d/host.3.jit", last.bytes());
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        auto resolver = e2e::resolverOf(e2e::dirs(root, {"d"}));
        auto loader = e2e::loaderOf(e2e::dirs(root, {"d"}));
        ASSERT_TRUE(resolver && loader);

        std::vector<std::wstring> names{L"App::Main::a"};
        for (const std::wstring& name : c.middleNames)
            names.push_back(name.empty() ? name : L"App::Main::" + name);
        names.push_back(L"App::Main::c");
        EXPECT_EQ(names, e2e::methodNames(*resolver));
        const unsigned long long lastBase = 1 + first.size() + c.middle->size();
        const e2e::Answer a = e2e::answer(*loader, *resolver, 150, 0x1010, 1);
        const e2e::Answer cc = e2e::answer(*loader, *resolver, 150, 0x1010, 3);
        EXPECT_TRUE(a.loader == meSuccess && a.jitRva == 0x11 && a.resolved && a.name == L"App::Main::a");
        EXPECT_TRUE(cc.loader == meSuccess && cc.jitRva == lastBase + 0x10 && cc.resolved && cc.name == L"App::Main::c");

        // The middle file's own code: all of it, in its window once its range is used up.
        for (const auto& point : {std::make_pair(c.bTime, 0x1010ull), std::make_pair(800ull, 0x104ull)}) {
            const e2e::Answer b = e2e::answer(*loader, *resolver, point.first, point.second, 2);
            EXPECT_TRUE(b.loader == meSuccess && b.resolved) << point.second;
            const bool inWindow = b.jitRva >= kWindowBase + kWindowSize && b.jitRva < kWindowBase + 2 * kWindowSize;
            EXPECT_EQ(c.bInWindow, inWindow) << std::hex << b.jitRva;
        }
        // Once for the resolver and once for the loader, and nothing else.
        EXPECT_EQ(2 * c.refusals, log.count(log4cplus::ERROR_LOG_LEVEL, "bytes in jit file " + middlePath));
        EXPECT_EQ(2 * c.refusals, log.texts(log4cplus::ERROR_LOG_LEVEL).size()) << log.dump();
    }
}

} // namespace
