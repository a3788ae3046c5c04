#include "jitreader/jit_file_decoder.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using tracewriter::Bytes;
using tracewriter::TraceWriter;

Bytes u32(std::uint32_t value) { return tracewriter::Payload().u32(value).bytes(); }

TEST(JitFileDecoder, WalksFramesAndReportsEveryBrokenShape)
{
    const Bytes load = tracewriter::encodeMethodLoad(tracewriter::kFunctionLoad64_v3, tracewriter::MethodLoad());
    const char* const unknown = "Couldn't recognize type of the jit trace";
    const char* const noContent = "Couldn't read content of the jit trace";
    const struct {
        const char* name;
        Bytes bytes;
        std::vector<velmark_error_t> results; // of successive getNextRecord calls
        const char* error;                    // the one ERROR line, or null for none
        bool missing = false;                 // no file at all
    } cases[] = {
        {"missing", {}, {meOpenFailed}, "Couldn't open the jit file", true},
        {"magic without value", u32(tracewriter::kMagic), {meBadTrace}, "Couldn't process the magic trace"},
        {"collector without value", TraceWriter().magic().raw(u32(13)).raw({1, 0}).bytes(), {meSuccess, meBadTrace},
         "Couldn't process the collector type trace"},
        {"type 1", TraceWriter().frame(1, {1, 2, 3}).bytes(), {meBadTrace}, unknown},
        {"type 3", TraceWriter().frame(3, {1}).bytes(), {meBadTrace}, unknown},
        {"size cut short", TraceWriter().raw(u32(8)).raw({4, 0}).bytes(), {meBadTrace},
         "Couldn't read size of the jit trace"},
        {"size 0", TraceWriter().emptyFrame(8).bytes(), {meBadTrace}, noContent},
        {"size beyond the end", TraceWriter().magic().truncatedFrame(9, load, 10).bytes(), {meSuccess, meBadTrace},
         noContent},
        {"huge size", TraceWriter().frameWithSize(14, 0xFFFFFFFFu, {1, 2}).bytes(), {meBadTrace}, noContent},
        {"intact frames, end inside a type", TraceWriter().magic(7).collectorType(1).frame(9, load).raw({9, 0}).bytes(),
         {meSuccess, meSuccess, meSuccess, meEndOfTrace}, nullptr},
    };
    jrtest::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        dir.write("walk.jit", c.bytes);
        jrtest::LogCapture log(log4cplus::INFO_LOG_LEVEL);
        JitFileDecoder decoder(dir.wide(c.missing ? "absent.jit" : "walk.jit"), 7003, 1, 0, decoding_mode_full);
        Record record;
        for (velmark_error_t expected : c.results)
            EXPECT_EQ(decoder.getNextRecord(record), expected);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        const std::string expected = c.error ? std::string(c.error) + jrtest::kAtFileSuffix : "";
        EXPECT_TRUE(c.error ? errors.size() == 1 && errors[0].rfind(expected, 0) == 0 : errors.empty()) << log.dump();
    }
}

TEST(JitFileDecoder, HandsOutEveryKnownTypeWithItsPayloadAndTheLastCollectorType)
{
    const std::uint32_t types[] = {0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14};
    const Bytes payload = {1, 2, 3, 4, 5};
    TraceWriter writer;
    writer.collectorType(1).collectorType(2);
    for (std::uint32_t type : types)
        writer.frame(type, payload);
    jrtest::TempDir dir;
    dir.write("frames.jit", writer.bytes());
    JitFileDecoder decoder(dir.wide("frames.jit"), 7003, 1, 0, decoding_mode_full);
    Record record;
    ASSERT_TRUE(decoder.getNextRecord(record) == meSuccess && decoder.getNextRecord(record) == meSuccess);
    EXPECT_EQ(decoder.collectorType(), 2u); // the last frame counts
    for (std::uint32_t type : types) {
        ASSERT_EQ(decoder.getNextRecord(record), meSuccess) << type;
        EXPECT_TRUE(record.type == type && record.data == payload) << type;
    }
    EXPECT_EQ(decoder.getNextRecord(record), meEndOfTrace);
}

TEST(JitFileDecoder, JitRvasRunThroughTheFileRangeThenOnceIntoItsOverflowWindow)
{
    constexpr unsigned long long kBase = JitFileDecoder::kOverflowWindowBase;
    constexpr unsigned long long kWindow = JitFileDecoder::kOverflowWindowSize;
    constexpr unsigned long long kInvalid = kInvalidJitRva;
    const struct {
        const char* name;
        bool bounded; // a file before the last: range [100, 200), window 3
        std::vector<std::pair<unsigned int, unsigned long long>> takes; // size, expected jit rva
    } cases[] = {
        {"exact fit stays in the range", true, {{60, 100}, {40, 160}, {0, 200}}},
        {"overflow moves once, the rest follows", true,
         {{60, 100}, {41, kBase + 3 * kWindow}, {1000, kBase + 3 * kWindow + 41}, {0, kBase + 3 * kWindow + 1041}}},
        {"window used up: refused, counter stays", true,
         {{0xFFFFFFF0u, kBase + 3 * kWindow}, {0x100, kInvalid}, {0x10, kBase + 3 * kWindow + 0xFFFFFFF0u},
          {1, kInvalid}}},
        {"last file runs on past its size", false, {{60, 100}, {1000, 160}, {0xFFFFFFFFu, 1160}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        JitFileDecoder decoder(L"/traces/host.7.jit", 7, 1, 100, decoding_mode_full);
        if (c.bounded)
            decoder.setOverflowWindow(200, 3);
        std::size_t refusals = 0;
        for (const auto& take : c.takes) {
            EXPECT_EQ(take.second, decoder.allocJitRva(take.first)) << take.first;
            refusals += take.second == kInvalid;
        }
        EXPECT_EQ(refusals, log.count(log4cplus::ERROR_LOG_LEVEL, "bytes in jit file /traces/host.7.jit, at file: "))
            << log.dump();
    }

    // The last file's open range ends where the first window begins.
    JitFileDecoder last(L"host.7.jit", 7, 1, kBase - 0x10, decoding_mode_full);
    EXPECT_EQ(kBase - 0x10, last.allocJitRva(0x10));
    EXPECT_EQ(kInvalid, last.allocJitRva(1));
}

} // namespace
} // namespace velmark_3_11
