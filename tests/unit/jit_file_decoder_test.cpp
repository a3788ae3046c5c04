// The decoder: frames, the jit rvas it hands out, records of every form; the writer's refusals.
#include "jitreader/jit_file_decoder.h"

#include <fstream>
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "platform/text.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using namespace tracewriter;

TEST(JitFileDecoder, WalksFramesAndReportsEveryBrokenShape)
{
    const Bytes load = encodeMethodLoad(kFunctionLoad64_v3, MethodLoad());
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
        {"magic without value", Payload().u32(kMagic).bytes(), {meBadTrace}, "Couldn't process the magic trace"},
        {"collector without value", TraceWriter().magic().raw(Payload().u32(13).bytes()).raw({1, 0}).bytes(),
         {meSuccess, meBadTrace}, "Couldn't process the collector type trace"},
        {"type 1", TraceWriter().frame(1, {1, 2, 3}).bytes(), {meBadTrace}, unknown},
        {"size cut short", TraceWriter().raw(Payload().u32(8).bytes()).raw({4, 0}).bytes(), {meBadTrace},
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

TEST(JitFileDecoder, JitRvasFillTheFileRangeExactlyAndTheLastFileRunsOnUpToTheFirstWindow)
{
    constexpr unsigned long long kBase = JitFileDecoder::kOverflowWindowBase;
    constexpr unsigned long long kInvalid = kInvalidJitRva;
    const struct {
        const char* name;
        bool bounded; // a file before the last: range [100, 200), window 3
        std::vector<std::pair<unsigned int, unsigned long long>> takes; // size, expected jit rva
        unsigned long long start = 100;
    } cases[] = {
        {"exact fit stays in the range", true, {{60, 100}, {40, 160}, {0, 200}}},
        {"last file runs on past its size", false, {{60, 100}, {1000, 160}, {0xFFFFFFFFu, 1160}}},
        {"last file's open range ends where the first window begins", false, {{0x10, kBase - 0x10}, {1, kInvalid}},
         kBase - 0x10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        JitFileDecoder decoder(L"/traces/host.7.jit", 7, 1, c.start, decoding_mode_full);
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
}

// Records start their jit rvas at kBase.
const unsigned long long kBase = 0x1000;

// Raw id, token, isInline, load time, ranges, module and arch, name, class, source file, checksum
// type, checksum, language, then the managed-to-source, native-to-managed and native-to-source tables.
const MethodLoad kLoad{16, 0x06000001, 0, 0x5000, {{0x401000, 64, Bytes(64, 0xC3)}, {0x402000, 32, {0x90, 0x90}}},
                       "/opt/app/libapp.so", 1, "Run", "App.Worker", "Worker.cs", 2, "ab12", 3,
                       {{0, 4, 10}, {4, 8, 11}}, {{0, 16, 0}, {16, 32, 4}}, {{0, 16, 10}, {16, 64, 11}}};

// A decoder of process 7003 on host 1 whose jit rvas start at kBase, and the method it fills.
struct Decoding {
    explicit Decoding(decoding_mode_t mode = decoding_mode_full, const std::wstring& path = L"/nonexistent.jit")
        : decoder(path, 7003, 1, kBase, mode) {}
    bool run(std::uint32_t type, const Bytes& payload)
    {
        const Record record{0, type, payload};
        switch (type) {
        case 0: case 2: return decoder.decodeMethodLoadRecord(record, method);
        case 4: case 5: return decoder.decodeMethodLoadRecordV1(record, method);
        case 6: case 7: return decoder.decodeMethodLoadRecordV2(record, method);
        case 12: return decoder.decodeMethodInlineLoadRecord(record, method);
        case 14: return decoder.decodeMethodUpdateRecordV2(record, method);
        default: return decoder.decodeMethodLoadRecordV3(record, method, nullptr);
        }
    }
    JitFileDecoder decoder;
    boost::intrusive_ptr<JitMethod> method{new JitMethod};
};

// The regions as "jitRva:address+length " in hex, then "| module type | class | name" if the
// method has a module, then "| source checksum checksumType language" if it has a source file.
std::string summary(const JitMethod& method)
{
    std::ostringstream out;
    for (const auto& r : method.regions())
        out << std::hex << r->startJitRva() << ":" << r->startAddress() << "+" << r->length() << " " << std::dec;
    if (method.getModule())
        out << "| " << toUtf8(method.getModule()->getName()) << " " << method.getModule()->getType() << " | "
            << toUtf8(method.getClassName()) << " | " << toUtf8(method.getName());
    const SourceFile& source = method.sourceFile();
    if (method.getSourceFile())
        out << " | " << toUtf8(source.getName()) << " " << toUtf8(source.getChecksum()) << " "
            << source.getChecksumType() << " " << source.getLanguageType();
    return out.str();
}

const std::string kRegions = "1000:401000+40 1040:402000+20 ";
const std::string kNames = "| /opt/app/libapp.so 4 | App::Worker | App::Worker::Run | Worker.cs ab12 2 3";

// A line table as "start-end=value " rows.
std::string rowsOf(const LineTable& table)
{
    std::string text;
    for (const LineNumberEntry& r : table.rows())
        text += std::to_string(r.start) + "-" + std::to_string(r.end) + "=" + std::to_string(r.value) + " ";
    return text;
}

TEST(LoadRecord, EveryFormRoundTripsInBothModes)
{
    for (std::uint32_t type : {0u, 2u, 4u, 5u, 6u, 7u, 8u, 9u, 10u}) {
        const int form = type < 4 ? 1 : type < 6 ? 2 : type < 8 ? 3 : 4;
        for (decoding_mode_t mode : {decoding_mode_full, decoding_mode_modules}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " mode " << mode);
            Decoding d(mode);
            ASSERT_TRUE(d.run(type, encodeMethodLoad(type, kLoad)));
            const JitMethod& m = *d.method;
            EXPECT_EQ(m.getStartJitRva(), kBase);
            EXPECT_EQ(d.decoder.allocJitRva(0), kBase + 96);
            EXPECT_TRUE(m.getMetadataToken() == 0x06000001 && m.getLoadTime() == 0x5000);
            EXPECT_TRUE(m.getRawMethodId() == (form == 4 ? 16u : 0u) && m.getModule()->getArch() == 1);
            ASSERT_EQ(m.regionCount(), 2u);
            for (std::size_t i = 0; i < 2; ++i) {
                const Region& r = *m.regions()[i];
                EXPECT_TRUE(r.processId() == 7003 && r.hostId() == 1 && r.loadTime() == 0x5000);
                const auto content = r.getContent();
                const auto* data = content ? static_cast<const unsigned char*>(content->getData()) : nullptr;
                EXPECT_EQ(data ? Bytes(data, data + content->getSize()) : Bytes(),
                          mode == decoding_mode_full ? kLoad.ranges[i].bytes : Bytes());
            }
            if (form <= 2 && mode == decoding_mode_modules) { // the old forms stop at the module
                EXPECT_EQ(summary(m), kRegions + "| /opt/app/libapp.so 4 |  | ");
                EXPECT_TRUE(m.lineNumberInfo().empty() && m.getMethodId().isEmpty());
                continue;
            }
            EXPECT_EQ(summary(m), kRegions + kNames);
            ASSERT_EQ(m.lineNumberInfo().size(), 1u);
            EXPECT_EQ(m.lineNumberInfo().begin()->first, Range(kBase, 64));
            const auto& tables = m.lineNumberInfo().begin()->second.tables;
            EXPECT_EQ(rowsOf(tables[ltManagedToSource]) + "| " + rowsOf(tables[ltNativeToManaged]) + "| " +
                          rowsOf(tables[ltNativeToSource]), "0-4=10 4-8=11 | 0-16=0 16-32=4 | 0-16=10 16-64=11 ");
            EXPECT_EQ(m.getMethodId(), MethodIdMaker().makeMethodId(form <= 2 ? 0 : 16, m));
        }
    }
}

TEST(LoadRecord, OddRecordsOfTheNewestForm)
{
    const Bytes code(64, 0xC3);
    const struct {
        std::function<void(MethodLoad&)> change;
        bool result;
        const char* error;
        unsigned long long counter;
        std::string summary;
    } cases[] = {
        {[&](MethodLoad& l) { l.isInline = 1; l.ranges.push_back({0x403000, 16, code}); }, true, nullptr, kBase,
         "0:401000+40 1:402000+20 2:403000+10 " + kNames},
        {[&](MethodLoad& l) { l.ranges = {{0x400000, 0, {1, 2}}, {0x401000, 64, code}}; }, true, nullptr, kBase + 64,
         "1000:401000+40 " + kNames},
        {[](MethodLoad& l) { l.ranges = {{0x401000, 0, {}}, {0x402000, 0, {1}}}; }, false,
         "The bytes of the code are not supplied", kBase, ""},
        {[](MethodLoad& l) { l.ranges.clear(); }, false, nullptr, kBase, kNames},
        {[](MethodLoad& l) { l.modulePath.assign(512, 'm'); l.methodName = std::string("Run\0junk", 8); }, true,
         nullptr, kBase + 96, kRegions + "| [Dynamic code] 0 | App::Worker | App::Worker::Run | Worker.cs ab12 2 3"},
        {[](MethodLoad& l) { l.modulePath.clear(); l.className = "Ljava/lang/String;"; l.methodName = "run(I)V"; },
         true, nullptr, kBase + 96,
         kRegions + "| [Dynamic code] 0 | java::lang::String | java::lang::String::run | Worker.cs ab12 2 3"},
        {[](MethodLoad& l) { l.modulePath.clear(); l.languageType = 5; l.methodName.clear(); }, true, nullptr,
         kBase + 96, kRegions + "| [Compiled Java code] 0 | App::Worker |  | Worker.cs ab12 2 5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.summary);
        MethodLoad load = kLoad;
        c.change(load);
        Decoding d;
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        EXPECT_EQ(d.run(9, encodeMethodLoad(9, load)), c.result);
        EXPECT_EQ(log.texts(log4cplus::ERROR_LOG_LEVEL),
                  c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{});
        EXPECT_EQ(d.decoder.allocJitRva(0), c.counter);
        EXPECT_EQ(summary(*d.method), c.summary);
        if (d.method->regionCount() == 0)
            continue; // else the tables go to the first region with code
        const Region& first = *d.method->regions()[0];
        EXPECT_EQ(d.method->lineNumberInfo().begin()->first, Range(first.startJitRva(), first.length()));
    }
}

// The last collector type frame counts; it and the architectures come from the stream.
TEST(JitFileDecoder, HandsOutEveryKnownTypeWithItsPayloadAndTheLastCollectorType)
{
    const std::uint32_t types[] = {0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14};
    const Bytes payload = {1, 2, 3, 4, 5};
    TraceWriter writer;
    writer.collectorType(2).collectorType(1);
    for (std::uint32_t type : types)
        writer.frame(type, payload);
    jrtest::TempDir dir;
    dir.write("frames.jit", writer.bytes());
    Decoding d(decoding_mode_full, dir.wide("frames.jit"));
    Record record;
    ASSERT_TRUE(d.decoder.getNextRecord(record) == meSuccess && d.decoder.getNextRecord(record) == meSuccess);
    EXPECT_EQ(d.decoder.collectorType(), 1u);
    for (std::uint32_t type : types) {
        ASSERT_EQ(d.decoder.getNextRecord(record), meSuccess) << type;
        EXPECT_TRUE(record.type == type && record.data == payload) << type;
    }
    EXPECT_EQ(d.decoder.getNextRecord(record), meEndOfTrace);

    MethodLoad load = kLoad;
    for (std::uint32_t type : {5u, 7u, 9u, 8u}) { // old forms leave the architecture flags alone
        load.moduleArch = type == 9 ? 0 : 1;
        d.method.reset(new JitMethod);
        ASSERT_TRUE(d.run(type, encodeMethodLoad(type, load)));
        EXPECT_EQ(d.method->getModule()->getType(), type >= 8 ? 0u : 4u) << type; // a profiler's modules
        EXPECT_EQ(d.decoder.bothArchitecturesSeen(), type == 8) << type;
    }
}

// Counts far beyond the payload are neither allocated nor looped over; only form 4 reports them.
TEST(LoadRecord, LyingCountsReportAndStayInsideThePayload)
{
    const Bytes head = Payload().u32(1).u32(2).u8(0).u64(3).u16(1).bytes(); // form 4, up to its one range
    const Bytes items = Payload().codeRange({0x401000, 8, {1}}).string("").u16(0).string("").string("").string("")
                            .u16(0).string("").u16(0).bytes(); // a range, then the fields before the tables
    const struct {
        std::uint32_t type;
        Bytes payload;
        const char* assertion; // null: the form makes none
        std::string rows = "";  // kept of the native-to-source table
    } cases[] = {
        {9, Payload().raw(head).u64(0x401000).u32(8).u32(0xFFFFFFF0).u8(1).bytes(), "bytesRead < traceSize"},
        {9, Payload().raw(head).raw(items).u32(0).u32(0).u32(0xFFFFFFFF).u32(1).bytes(), "bytesRead <= traceSize",
         "1-0=0 "}, // a row cut short is kept, its missing fields read as 0
        // A row count of 3 over one whole row keeps that row alone.
        {9, Payload().raw(head).raw(items).u32(0).u32(0).u32(3).u32(0).u32(8).u32(10).bytes(), "bytesRead <= traceSize",
         "0-8=10 "},
        // A table that is not the last one ends the payload: its last row field overruns.
        {9, Payload().raw(head).raw(items).u32(0).u32(1).u32(0).u32(8).u32(10).bytes(), "bytesRead < traceSize"},
        {5, Payload().u32(1).u64(3).u16(1).raw(items).u32(0xFFFFFFFF).bytes(), nullptr},
    };
    for (const auto& c : cases) {
        jrtest::AssertionCapture assertions;
        Decoding d;
        d.run(c.type, c.payload);
        EXPECT_TRUE(c.assertion ? assertions.contains(c.assertion) : assertions.expressions().empty()) << c.type;
        const auto& info = d.method->lineNumberInfo();
        EXPECT_EQ(info.empty() ? "" : rowsOf(info.begin()->second.tables[ltNativeToSource]), c.rows) << c.type;
    }
}

// The one region that the store knows: 64 bytes of 0xCC at 0x401000, of method 16.
struct FakeStore : JitFileDecoder::SearchRegionCallback {
    velmark_error_t searchRegion(unsigned long long address, unsigned long long, unsigned int, unsigned int,
                                 boost::intrusive_ptr<Region>& found,
                                 boost::intrusive_ptr<JitMethod>& owner) const override
    {
        found = region;
        owner = method;
        return address >= 0x401000 && address < 0x401040 ? meSuccess : meFail;
    }
    boost::intrusive_ptr<Region> region{
        new Region(7003, 1, 0x100, 0x5000, 0x401000, 64, makeByteBuffer(Bytes(64, 0xCC).data(), 64))};
    boost::intrusive_ptr<JitMethod> method{[] { auto* m = new JitMethod; m->setRawMethodId(16); return m; }()};
};

// A region as "jitRva:address+length tLoadTime" in hex, then its content as runs of
// "byte x count" with decimal counts.
std::string regionText(const Region& region)
{
    std::ostringstream out;
    out << std::hex << region.startJitRva() << ":" << region.startAddress() << "+" << region.length() << " t"
        << region.loadTime();
    const auto content = region.getContent();
    const auto* data = content ? static_cast<const unsigned char*>(content->getData()) : nullptr;
    for (unsigned int i = 0, run = 1; content && i < content->getSize(); i += run, run = 1) {
        while (i + run < content->getSize() && data[i + run] == data[i])
            ++run;
        out << std::hex << " " << int(data[i]) << "x" << std::dec << run;
    }
    return out.str();
}

Record inlineRecord(const std::function<void(InlineLoad&)>& change = [](InlineLoad&) {})
{
    // Raw id, parent, load time, rangeCount, address, size, code, module, arch, name, class,
    // source file, language, native-to-source rows.
    InlineLoad record{17, 16, 0x300, 1, 0x401010, 8, Bytes(8, 0x90), "", 1, "Inner", "App.Worker", "", 3, {{0, 8, 42}}};
    change(record);
    return Record{0, 12, encodeInlineLoad(record)};
}

Record updateRecord(const std::function<void(UpdateV2&)>& change = [](UpdateV2&) {})
{
    UpdateV2 record{1, 0x400, 1, "patch", 0x401010, 8, Bytes(8, 0x22)}; // segment type, time, arch, name, range
    change(record);
    return Record{0, 14, encodeUpdateV2(record)};
}

TEST(InlineAndUpdateRecords, CheckTheirFieldsAndCopyTheFoundRegion)
{
    const std::string dynamic = " | [Dynamic code] 0 | ";
    const struct {
        const char* name;
        Record record;
        const char* error; // null: the record is taken; "": refused without an ERROR line
        unsigned long long counter;
        std::string summary = ""; // the region, module and type, name and raw id of the method taken
        decoding_mode_t mode = decoding_mode_full;
        int store = 1; // 0: none, 2: its region has no bytes
    } cases[] = {
        {"inline", inlineRecord(), nullptr, kBase, "0:401010+8 t300 90x8" + dynamic + "App::Worker::Inner 17"},
        {"inline without bytes", inlineRecord(), nullptr, kBase, "0:401010+8 t300" + dynamic + "App::Worker::Inner 17",
         decoding_mode_modules},
        {"inline: load time 0", inlineRecord([](InlineLoad& r) { r.loadTime = 0; }), "Invalid load time: 0", kBase},
        {"inline: two ranges", inlineRecord([](InlineLoad& r) { r.rangeCount = 2; }),
         "Invalid number of code regions: 0x2", kBase},
        {"inline: start 0", inlineRecord([](InlineLoad& r) { r.startAddr = 0; }),
         "Invalid start address of code range: 0", kBase},
        {"inline: size 0", inlineRecord([](InlineLoad& r) { r.size = 0; }), "Invalid size of code range: 0", kBase},
        {"inline: no bytes", inlineRecord([](InlineLoad& r) { r.bytes.clear(); }),
         "Invalid number of code range's bytes: 0", kBase},
        {"update, no store", updateRecord(), nullptr, kBase, "0:401010+8 t400 22x8" + dynamic + " 0",
         decoding_mode_full, 0},
        // A region read without bytes has nothing to patch: refused without an ERROR line, after
        // the new version took its jit rvas.
        {"update of a region without bytes", updateRecord(), "", kBase + 64, "", decoding_mode_full, 2},
        {"update inside the region", updateRecord(), nullptr, kBase + 64,
         "1000:401000+40 t400 ccx16 22x8 ccx40" + dynamic + " 16"},
        {"update of the whole region",
         updateRecord([](UpdateV2& u) { u.codeAddr = 0x401000; u.codeLen = 64; u.bytes = Bytes(64, 0x11); }),
         nullptr, kBase + 64, "1000:401000+40 t400 11x64" + dynamic + " 16"},
        {"update without bytes", updateRecord(), nullptr, kBase + 64, "1000:401000+40 t400" + dynamic + " 16",
         decoding_mode_modules},
        {"update: larger than the region", updateRecord([](UpdateV2& u) { u.codeAddr = 0x401000; u.codeLen = 65; }),
         "Couldn't update the detected range (0x401000-0x401040) because it's size is small", kBase},
        {"update: not in the store", updateRecord([](UpdateV2& u) { u.codeAddr = 0x500000; }),
         "Couldn't find a range to be updated", kBase},
        {"update: refused by the region", updateRecord([](UpdateV2& u) { u.segmentType = 7; }),
         "Couldn't update because the input segment type =0x7 is not recognized", kBase + 64},
        {"update: load time 0", updateRecord([](UpdateV2& u) { u.loadTime = 0; }), "Invalid load time: 0", kBase},
        {"update: address 0", updateRecord([](UpdateV2& u) { u.codeAddr = 0; }),
         "Invalid start address of code range: 0", kBase},
        {"update: length 0", updateRecord([](UpdateV2& u) { u.codeLen = 0; }), "Invalid length of code range: 0",
         kBase},
        {"update: no bytes", updateRecord([](UpdateV2& u) { u.bytes.clear(); }),
         "Invalid number of code range's bytes: 0", kBase},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeStore store;
        Decoding d(c.mode);
        if (c.store == 2)
            store.region.reset(new Region(7003, 1, 0x100, 0x5000, 0x401000, 64, nullptr));
        if (c.store)
            d.decoder.setSearchRegionCallback(&store);
        const std::string before = regionText(*store.region);
        jrtest::AssertionCapture assertions; // a record without bytes ends at its byte count
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        const bool taken = d.run(c.record.type, c.record.data);
        EXPECT_EQ(taken, c.error == nullptr);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        const std::string expected = c.error ? std::string(c.error) + jrtest::kAtFileSuffix : "";
        EXPECT_TRUE(c.error && *c.error ? errors.size() == 1 && errors[0].rfind(expected, 0) == 0 : errors.empty())
            << log.dump();
        EXPECT_EQ(d.decoder.allocJitRva(0), c.counter);
        EXPECT_EQ(regionText(*store.region), before); // the store's region is never touched
        EXPECT_EQ(assertions.contains("m_content"), c.store == 2);
        if (!taken)
            continue;
        const JitMethod& method = *d.method;
        ASSERT_EQ(method.regionCount(), 1u);
        EXPECT_EQ(regionText(*method.regions()[0]) + " | " + toUtf8(method.getModule()->getName()) + " " +
                      std::to_string(method.getModule()->getType()) + " | " + toUtf8(method.getName()) + " " +
                      std::to_string(method.getRawMethodId()), c.summary);
        EXPECT_EQ(method.getStartJitRva(), c.record.type == 14 ? kBase : 0u);
        EXPECT_EQ(method.getMethodId(), MethodIdMaker().makeMethodId(method.getRawMethodId(), method));
    }
}

// Bytes behind an update's code are reported too, and the update is taken all the same.
TEST(Records, TruncatedOrTrailingPayloadsAreReported)
{
    FakeStore store;
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    for (const Record& record : {Record{0, 9, encodeMethodLoad(9, kLoad)}, inlineRecord(), updateRecord()})
        for (std::size_t length = 0; length <= record.data.size() + (record.type != 9); ++length) {
            SCOPED_TRACE(testing::Message() << "type " << record.type << " length " << length);
            jrtest::AssertionCapture assertions;
            Decoding d;
            d.decoder.setSearchRegionCallback(&store);
            Bytes prefix = record.data;
            prefix.resize(length);
            const bool taken = d.run(record.type, prefix);
            const bool trailing = length > record.data.size() && record.type == 14;
            if (length < record.data.size())
                EXPECT_FALSE(assertions.expressions().empty());
            else
                EXPECT_TRUE(taken && assertions.expressions() ==
                                         (trailing ? std::vector<std::string>{"bytesRead == traceLen"}
                                                   : std::vector<std::string>{}));
        }
}

TEST(TraceWriter, RejectsMistakesAndWritesFiles)
{
    TraceWriter writer;
    EXPECT_THROW(writer.load(1, MethodLoad()), std::invalid_argument);
    EXPECT_THROW(writer.load(kFunctionInlineLoad64, MethodLoad()), std::invalid_argument);
    EXPECT_THROW(writer.inlineLoad(kFunctionLoad32, InlineLoad()), std::invalid_argument);
    EXPECT_THROW(writer.truncatedFrame(4, {1, 2}, 2), std::invalid_argument);
    EXPECT_EQ(writer.size(), 0u); // no mistake wrote anything

    jrtest::TempDir dir;
    writer.magic().collectorType(1).writeTo(dir.file("a.jit"));
    std::ifstream in(dir.file("a.jit"), std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), writer.bytes());
    EXPECT_THROW(writer.writeTo(dir.file("missing/a.jit")), std::runtime_error);
}

} // namespace
} // namespace velmark_3_11
