// The read loop over whole trace files, into a real store.
#include "jitreader/jit_file_reader.h"

#include <sstream>

#include <gtest/gtest.h>

#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/module.h"
#include "platform/text.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using namespace tracewriter;

const char* const kFinalizeEnter = "ENTER: void velmark_3_11::JitDataManager::finalize(void)";

MethodLoad load(std::uint32_t rawId, std::uint64_t address, std::uint32_t size, std::uint64_t time,
                const std::string& name)
{
    MethodLoad record;
    record.rawMethodId = rawId;
    record.loadTime = time;
    record.ranges.push_back({address, size, Bytes(size, 0x90)});
    record.modulePath = "/opt/app.dll";
    record.moduleArch = 1;
    record.methodName = name;
    return record;
}

struct ReadResult { velmark_error_t result; std::vector<std::wstring> names; bool finalized; };

class Reader {
public:
    ReadResult read(const TraceWriter& trace, unsigned int filter = bfAll, decoding_mode_t mode = decoding_mode_full)
    {
        m_root.write("host.7.jit", trace.bytes());
        JitFileDecoder decoder(m_root.wide("host.7.jit"), 7, 1, 1, mode);
        decoder.setSearchRegionCallback(&store);
        ReadResult out;
        out.result = readJitFile(decoder, filter, store);
        out.finalized = log.contains(log4cplus::TRACE_LOG_LEVEL, kFinalizeEnter);
        for (const auto& method : store.methodList())
            out.names.push_back(method->getName());
        return out;
    }

    JitDataManager store;
    jrtest::LogCapture log; // every line of the reading, at every level

private:
    jrtest::TempDir m_root;
};

// Each case with the one ERROR line that only it leaves, if any.
TEST(JitFileReader, WhereTheReadingEndsAndWhetherTheStoreIsFinalised)
{
    const UpdateV2 update{1, 10, 0, "", 0x9000, 4, {1, 2, 3, 4}}; // nothing lives at 0x9000
    const InlineLoad inlined{0, 1, 10, 1, 0x1000, 4, {1, 2, 3, 4}, "", 0, "", "", "", 0, {}}; // raw id 0: refused
    const MethodLoad a = load(1, 0x1000, 16, 10, "a"), b = load(2, 0x2000, 16, 10, "b");
    const struct {
        const char* what;
        TraceWriter trace;
        unsigned int filter;
        velmark_error_t result;
        std::vector<std::wstring> names;
        bool finalized;
        const char* error = nullptr;
    } cases[] = {
        {"empty file", TraceWriter(), bfAll, meSuccess, {}, true},
        {"no Magic at the start", TraceWriter().load(kFunctionLoad64_v3, a).load(kFunctionLoad64_v3, b), bfAll,
         meSuccess, {L"a", L"b"}, true},
        {"Magic further on", TraceWriter().magic().load(kFunctionLoad64_v3, a).magic().load(kFunctionLoad64_v3, b),
         bfAll, meSuccess, {L"a"}, true},
        {"corrupt frame", TraceWriter().load(kFunctionLoad64_v3, a).frame(15, {0}).load(kFunctionLoad64_v3, b), bfAll,
         meBadTrace, {L"a"}, false},
        {"store refuses a load", TraceWriter().load(kFunctionLoad64_v3, a).load(kFunctionLoad64_v3, a), bfAll,
         meBadTrace, {L"a"}, false},
        {"failed range update, the reading goes on", TraceWriter().magic().updateV2(update).load(kFunctionLoad64_v3, a),
         bfAll, meSuccess, {L"a"}, true, "Failed to decode a UPDATE_V2 record, at file: "},
        {"refused inline, of a type that no filter drops",
         TraceWriter().magic().collectorType(1).inlineLoad(kFunctionInlineLoad64, inlined).load(kFunctionLoad64_v3, a),
         bfOnly32, meBadTrace, {}, false},
    };
    for (const auto& c : cases) {
        Reader reader;
        const ReadResult read = reader.read(c.trace, c.filter);
        EXPECT_EQ(c.result, read.result) << c.what;
        EXPECT_EQ(c.names, read.names) << c.what;
        EXPECT_EQ(c.finalized, read.finalized) << c.what;
        if (c.error) {
            EXPECT_EQ(1u, reader.log.count(log4cplus::ERROR_LOG_LEVEL, c.error)) << c.what;
        }
    }
}

TEST(JitFileReader, InlineByteOfALoadRecordStaysForOlderRecordsBehindIt)
{
    // Collector type 0: inlines carry no ids and find their parent by address and time.
    MethodLoad inlined = load(0, 0x1010, 8, 20, "inlined");
    inlined.isInline = 1;
    MethodLoad older = load(0, 0x1020, 8, 20, "older");
    TraceWriter trace;
    trace.magic()
        .load(kFunctionLoad64_v3, load(0, 0x1000, 0x40, 10, "parent"))
        .load(kFunctionLoad64_v3, inlined)
        .load(kFunctionLoad64_v2, older) // takes the inline route too
        .load(kFunctionLoad64_v3, load(0, 0x2000, 16, 30, "plain"))
        .load(kFunctionLoad64_v2, load(0, 0x3000, 16, 30, "older but plain"));

    jrtest::AssertionCapture assertions;
    Reader reader;
    const ReadResult read = reader.read(trace);
    ASSERT_EQ(meSuccess, read.result);
    EXPECT_EQ((std::vector<std::wstring>{L"parent", L"plain", L"older but plain"}), read.names);
    const auto& parentRegion = reader.store.methodList().front()->regions().front();
    ASSERT_EQ(2u, parentRegion->inlinedMethods().size());
    EXPECT_STREQ(L"inlined", parentRegion->inlinedMethods()[0]->getName());
    EXPECT_STREQ(L"older", parentRegion->inlinedMethods()[1]->getName());
    // The older form allocated a jit rva of its own, which an inline region must not have.
    EXPECT_TRUE(assertions.contains("rawRegion->startJitRva() == 0"));
}

TEST(JitFileReader, UpdatesGoToTheStoreOnlyInFullMode)
{
    MethodLoad update = load(5, 0x1004, 4, 10, "");
    update.ranges[0].bytes = {0xAA, 0xBB, 0xCC, 0xDD};
    TraceWriter trace;
    trace.magic().collectorType(1).load(kFunctionLoad64_v3, load(5, 0x1000, 16, 10, "f")).load(kFunctionUpdate, update);

    Reader full;
    ASSERT_EQ(meSuccess, full.read(trace).result);
    const auto content = full.store.methodList().front()->regions().front()->getContent();
    ASSERT_TRUE(content);
    const auto* bytes = static_cast<const unsigned char*>(content->getData());
    EXPECT_EQ((std::vector<unsigned char>{0x90, 0x90, 0x90, 0x90, 0xAA, 0xBB, 0xCC, 0xDD, 0x90}),
              std::vector<unsigned char>(bytes, bytes + 9));
    EXPECT_EQ(1u, full.log.count(log4cplus::INFO_LOG_LEVEL, "Updated code region (ip range = "));

    Reader modules;
    ASSERT_EQ(meSuccess, modules.read(trace, bfAll, decoding_mode_modules).result);
    EXPECT_EQ(0u, modules.log.count(log4cplus::INFO_LOG_LEVEL, "Updated code region (ip range = "));
    EXPECT_EQ(0u, modules.log.count(log4cplus::ERROR_LOG_LEVEL, "Couldn't accept update"));
}

/// Every method of the store as "name raw-id jit-rva module: region start+length@jit-rva ...".
std::string describe(const JitDataManager& store)
{
    std::ostringstream text;
    text << std::hex;
    for (const auto& method : store.methodList()) {
        text << toUtf8(method->getName()) << ' ' << method->getRawMethodId() << ' ' << method->getStartJitRva() << ' '
             << (method->module() ? toUtf8(method->module()->getName()) : "-") << ':';
        for (const auto& region : method->regions())
            text << ' ' << region->startAddress() << '+' << region->length() << '@' << region->startJitRva() << '/'
                 << region->inlinedMethods().size();
        text << '\n';
    }
    return text.str();
}

/// An assertion handler of a program's own, which writes to the log as it is called.
void logAssertionAtOnce(const basekit2::assertion_report_t& report)
{
    log4cplus::Logger::getInstance("velmark.jitreader")
        .forcedLog(log4cplus::ERROR_LOG_LEVEL, std::string("handler: ") + report.expression);
}

// The same store, results and log lines in the same order; an assertion handler is called when
// the store takes the record.
TEST(JitFileReader, ReadingManyFilesAheadChangesNothing)
{
    jrtest::TempDir root;
    const MethodLoad after = load(5, 0x3100, 16, 20, "after the update"); // the store refuses it twice
    MethodLoad wide = load(2, 0x2000, 32, 10, "wide");
    wide.moduleArch = 0;
    const InlineLoad inlined{3, 1, 10, 1, 0x1004, 4, {1, 2, 3, 4}, "/opt/app.dll", 1, "inlined", "", "", 0, {}};
    InlineLoad timeless = inlined; // refused while decoding, and the reading goes on
    timeless.loadTime = 0;
    const UpdateV2 patch{1, 20, 1, "patch", 0x1000, 4, {0xAA, 0xBB, 0xCC, 0xDD}}; // over "a" of the first file
    const UpdateV2 nowhere{1, 20, 1, "", 0x9000, 4, {1, 2, 3, 4}};
    const struct {
        const char* name;
        unsigned int pid;
        TraceWriter trace;
    } files[] = {
        {"host.7-1.jit", 7,
         TraceWriter().magic().collectorType(1).load(kFunctionLoad64_v3, load(1, 0x1000, 64, 10, "a"))
             .inlineLoad(kFunctionInlineLoad64, timeless).frame(kFunctionLoad64_v3, {1, 2, 3})
             .inlineLoad(kFunctionInlineLoad64, inlined)
             .load(kFunctionLoad64_v3, wide)},
        {"host.7-2.jit", 7,
         TraceWriter().magic().collectorType(1).load(kFunctionLoad64_v3, load(4, 0x3000, 16, 20, "b"))
             .updateV2(patch).updateV2(nowhere).load(kFunctionLoad64_v3, after)
             .load(kFunctionLoad64_v3, after).load(kFunctionLoad64_v3, load(10, 0x3200, 16, 20, "never"))},
        {"host.7-3.jit", 7,
         TraceWriter().magic().load(kFunctionLoad64_v3, load(6, 0x4000, 16, 30, "c")).frame(15, {0})
             .load(kFunctionLoad64_v3, load(7, 0x4100, 16, 30, "beyond the damage"))},
        {"", 7, TraceWriter()},
        {"host.8-1.jit", 8,
         TraceWriter().magic().load(kFunctionLoad64_v3, load(1, 0x1000, 16, 10, "d"))
             .load(kFunctionLoad64_v3, load(1, 0x1000, 16, 10, "d")).inlineLoad(kFunctionInlineLoad64, timeless)},
        {"host.8-2.jit", 8, TraceWriter().magic().load(kFunctionLoad64_v3, load(8, 0x6000, 16, 40, "e"))},
        {"host.8-3.jit", 8, TraceWriter()}, // never written: it can't be opened
    };
    std::vector<JitFileRead> reads;
    unsigned long long firstJitRva = 1;
    for (const auto& file : files) {
        JitFileRead read;
        read.processId = file.pid;
        read.hostId = 1;
        read.firstJitRva = firstJitRva;
        read.closedRange = true;
        read.rangeEnd = firstJitRva += 0x10000;
        read.fileIndex = static_cast<unsigned int>(reads.size());
        if (*file.name) {
            read.path = root.wide(file.name);
            if (&file != &files[6])
                root.write(file.name, file.trace.bytes());
        }
        reads.push_back(read);
    }

    struct Outcome {
        std::string store;
        std::vector<velmark_error_t> results;
        std::string log;
    };
    const auto readAll = [&](read_ahead_t ahead) {
        jrtest::LogCapture log;
        JitDataManager store;
        Outcome out;
        readJitFiles(reads, decoding_mode_full, bfAll, store,
                     [&](std::size_t, velmark_error_t result) { out.results.push_back(result); }, ahead);
        out.store = describe(store);
        out.log = log.dump();
        return out;
    };
    const basekit2::assertion_handler_t handler = basekit2::set_assertion_handler(&logAssertionAtOnce);
    const Outcome inTurn = readAll(read_ahead_t::none);
    const Outcome ahead = readAll(read_ahead_t::everyFile);
    const Outcome shared = readAll(read_ahead_t::helper); // as the threads happen to go
    basekit2::set_assertion_handler(handler);
    EXPECT_EQ((std::vector<velmark_error_t>{meSuccess, meBadTrace, meBadTrace, meInvalidArgument, meBadTrace, meSuccess,
                                            meOpenFailed}),
              inTurn.results);
    for (const Outcome* other : {&ahead, &shared}) {
        EXPECT_EQ(inTurn.results, other->results);
        EXPECT_EQ(inTurn.store, other->store);
        EXPECT_EQ(inTurn.log, other->log);
    }
    // What the cases are there for: lines and assertions logged while decoding, a range update's
    // line, and what follows a range update or a refusal by the store.
    for (const char* line : {"Invalid load time: 0", "Couldn't recognize type of the jit trace",
                             "handler: bytesRead", "Couldn't find a range to be updated"})
        EXPECT_NE(std::string::npos, inTurn.log.find(line)) << line;
    EXPECT_NE(std::string::npos, inTurn.store.find("after the update"));
    EXPECT_EQ(std::string::npos, inTurn.store.find("never"));
}

} // namespace
} // namespace velmark_3_11
