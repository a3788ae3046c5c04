// Load records of all four forms, written by the trace writer and read back.
#include "jitreader/jit_file_decoder.h"

#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/text.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using tracewriter::Bytes;
using tracewriter::MethodLoad;
using tracewriter::Payload;

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
            ASSERT_TRUE(d.run(type, tracewriter::encodeMethodLoad(type, kLoad)));
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
        EXPECT_EQ(d.run(9, tracewriter::encodeMethodLoad(9, load)), c.result);
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

TEST(LoadRecord, CollectorTypeAndArchitecturesComeFromTheStream)
{
    MethodLoad load = kLoad;
    jrtest::TempDir dir;
    dir.write("p.jit", tracewriter::TraceWriter().collectorType(1).bytes());
    Decoding d(decoding_mode_full, dir.wide("p.jit"));
    Record frame;
    ASSERT_EQ(d.decoder.getNextRecord(frame), meSuccess);
    for (std::uint32_t type : {5u, 7u, 9u, 8u}) { // old forms leave the architecture flags alone
        load.moduleArch = type == 9 ? 0 : 1;
        d.method.reset(new JitMethod);
        ASSERT_TRUE(d.run(type, tracewriter::encodeMethodLoad(type, load)));
        EXPECT_EQ(d.method->getModule()->getType(), type >= 8 ? 0u : 4u) << type; // a profiler's modules
        EXPECT_EQ(d.decoder.bothArchitecturesSeen(), type == 8) << type;
    }
}

// Truncated payloads, whose counts all lie about what follows: only load form 4 reports the
// bounds it overruns, and nothing is read beyond the payload.
TEST(LoadRecord, LyingCountsReportAndStayInsideThePayload)
{
    const Bytes valid = tracewriter::encodeMethodLoad(9, kLoad);
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    for (std::size_t length = 0; length <= valid.size(); ++length) {
        jrtest::AssertionCapture assertions;
        Decoding().run(9, Bytes(valid.begin(), valid.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_EQ(assertions.reports().empty(), length == valid.size()) << length;
    }
    // Counts far beyond the payload are neither allocated nor looped over.
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
        EXPECT_TRUE(c.assertion ? assertions.contains(c.assertion) : assertions.reports().empty()) << c.type;
        const auto& info = d.method->lineNumberInfo();
        EXPECT_EQ(info.empty() ? "" : rowsOf(info.begin()->second.tables[ltNativeToSource]), c.rows) << c.type;
    }
}

} // namespace
} // namespace velmark_3_11
