#include "jitreader/jit_file_decoder.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using tracewriter::Bytes;
using tracewriter::TraceWriter;

struct WalkCase {
    const char* name;
    Bytes bytes;                          // file content
    bool missing;                         // no file at all
    std::vector<velmark_error_t> results; // of successive getNextRecord calls
    const char* error;                    // the one ERROR line, or null for none
};

Bytes u32(std::uint32_t value) { return tracewriter::Payload().u32(value).bytes(); }

TEST(JitFileDecoder, WalksFramesAndReportsEveryBrokenShape)
{
    const Bytes load = tracewriter::encodeMethodLoad(tracewriter::kFunctionLoad64_v3, tracewriter::MethodLoad());
    const WalkCase cases[] = {
        {"missing", {}, true, {meOpenFailed}, "Couldn't open the jit file"},
        {"empty", {}, false, {meEndOfTrace}, nullptr},
        {"three bytes", {0, 0, 0}, false, {meEndOfTrace}, nullptr},
        {"magic without value", u32(tracewriter::kMagic), false, {meBadTrace}, "Couldn't process the magic trace"},
        {"collector without value", TraceWriter().magic().raw(u32(13)).raw({1, 0}).bytes(), false,
         {meSuccess, meBadTrace}, "Couldn't process the collector type trace"},
        {"type 1", TraceWriter().frame(1, {1, 2, 3}).bytes(), false, {meBadTrace},
         "Couldn't recognize type of the jit trace"},
        {"type 3", TraceWriter().frame(3, {1}).bytes(), false, {meBadTrace}, "Couldn't recognize type of the jit trace"},
        {"type 15", TraceWriter().frame(15, {1}).bytes(), false, {meBadTrace},
         "Couldn't recognize type of the jit trace"},
        {"size cut short", TraceWriter().raw(u32(8)).raw({4, 0}).bytes(), false, {meBadTrace},
         "Couldn't read size of the jit trace"},
        {"size 0", TraceWriter().emptyFrame(8).bytes(), false, {meBadTrace}, "Couldn't read content of the jit trace"},
        {"size beyond the end", TraceWriter().magic().truncatedFrame(9, load, 10).bytes(), false,
         {meSuccess, meBadTrace}, "Couldn't read content of the jit trace"},
        {"huge size", TraceWriter().frameWithSize(14, 0xFFFFFFFFu, {1, 2}).bytes(), false, {meBadTrace},
         "Couldn't read content of the jit trace"},
        {"intact frames, end inside a type", TraceWriter().magic(7).collectorType(1).frame(9, load).raw({9, 0}).bytes(),
         false, {meSuccess, meSuccess, meSuccess, meEndOfTrace}, nullptr},
    };
    jrtest::TempDir dir;
    for (const WalkCase& c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.missing)
            dir.write("walk.jit", c.bytes);
        jrtest::LogCapture log(log4cplus::INFO_LOG_LEVEL);
        JitFileDecoder decoder(dir.wide(c.missing ? "absent.jit" : "walk.jit"), 7003, 1, 0, decoding_mode_full);
        Record record;
        for (velmark_error_t expected : c.results)
            EXPECT_EQ(decoder.getNextRecord(record), expected);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        if (c.error == nullptr) {
            EXPECT_TRUE(errors.empty()) << log.dump();
        } else {
            ASSERT_EQ(errors.size(), 1u) << log.dump();
            EXPECT_EQ(errors[0].rfind(std::string(c.error) + jrtest::kAtFileSuffix, 0), 0u) << errors[0];
        }
    }
}

TEST(JitFileDecoder, HandsOutFramesWithPositionTypeAndPayload)
{
    const Bytes payload = {1, 2, 3, 4, 5};
    TraceWriter writer;
    writer.magic(0xABCD).collectorType(1).collectorType(2);
    const std::uint32_t types[] = {0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14};
    for (std::uint32_t type : types)
        writer.frame(type, payload);
    jrtest::TempDir dir;
    dir.write("frames.jit", writer.bytes());

    jrtest::LogCapture log(log4cplus::INFO_LOG_LEVEL);
    JitFileDecoder decoder(dir.wide("frames.jit"), 7003, 1, 0, decoding_mode_full);
    Record record;
    ASSERT_EQ(decoder.getNextRecord(record), meSuccess);
    EXPECT_EQ(record.type, unsigned(jtMagic));
    EXPECT_EQ(record.data, u32(0xABCD));
    ASSERT_EQ(decoder.getNextRecord(record), meSuccess);
    EXPECT_EQ(decoder.collectorType(), 1u);
    ASSERT_EQ(decoder.getNextRecord(record), meSuccess);
    EXPECT_EQ(record.position, 16u);
    EXPECT_EQ(decoder.collectorType(), 2u); // the last frame counts
    unsigned long long position = 24;
    for (std::uint32_t type : types) {
        ASSERT_EQ(decoder.getNextRecord(record), meSuccess) << type;
        EXPECT_EQ(record.type, type);
        EXPECT_EQ(record.position, position);
        EXPECT_EQ(record.data, payload);
        position += 8 + payload.size();
    }
    EXPECT_EQ(decoder.getNextRecord(record), meEndOfTrace);

    const std::vector<std::string> expected = {
        "JIT TRACE: MethodLoad", "JIT TRACE: MethodLoad",        "JIT TRACE: MethodLoad",
        "JIT TRACE: MethodLoad", "JIT TRACE: MethodLoad",        "JIT TRACE: MethodLoad",
        "JIT TRACE: MethodLoad", "JIT TRACE: MethodLoad",        "JIT TRACE: MethodUpdate",
        "JIT TRACE: MethodInlineLoad", "JIT TRACE: MethodInlineLoad", "JIT TRACE: MethodUpdate_v2"};
    EXPECT_EQ(log.texts(log4cplus::INFO_LOG_LEVEL), expected);
}

} // namespace
} // namespace velmark_3_11
