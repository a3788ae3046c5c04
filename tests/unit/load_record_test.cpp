// Load records of all four forms, written by the trace writer and read back.
#include "jitreader/jit_file_decoder.h"

#include <functional>

#include <gtest/gtest.h>

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

MethodLoad sampleLoad()
{
    MethodLoad load;
    load.rawMethodId = 16;
    load.metadataToken = 0x06000001;
    load.loadTime = 0x5000;
    load.ranges = {{0x401000, 64, Bytes(64, 0xC3)}, {0x402000, 32, {0x90, 0x90}}};
    load.modulePath = "/opt/app/libapp.so";
    load.moduleArch = 1;
    load.methodName = "Run";
    load.className = "App.Worker";
    load.sourceFile = "Worker.cs";
    load.checksumType = 2;
    load.checksum = "ab12";
    load.languageType = 3;
    load.managedToSource = {{0, 4, 10}, {4, 8, 11}};
    load.nativeToManaged = {{0, 16, 0}, {16, 32, 4}};
    load.nativeToSource = {{0, 16, 10}, {16, 64, 11}};
    return load;
}

bool decode(JitFileDecoder& decoder, const Record& record, boost::intrusive_ptr<JitMethod>& method,
            unsigned char* isInline = nullptr)
{
    switch (record.type) {
    case 0: case 2: return decoder.decodeMethodLoadRecord(record, method);
    case 4: case 5: return decoder.decodeMethodLoadRecordV1(record, method);
    case 6: case 7: return decoder.decodeMethodLoadRecordV2(record, method);
    default: return decoder.decodeMethodLoadRecordV3(record, method, isInline);
    }
}

void expectRows(const std::vector<LineNumberEntry>& actual, const std::vector<tracewriter::LineRow>& expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].start, expected[i].first);
        EXPECT_EQ(actual[i].end, expected[i].second);
        EXPECT_EQ(actual[i].value, expected[i].third);
    }
}

TEST(LoadRecord, EveryFormRoundTripsInBothModes)
{
    struct Form {
        std::uint32_t type;
        int form;
    };
    const Form forms[] = {{0, 1}, {2, 1}, {4, 2}, {5, 2}, {6, 3}, {7, 3}, {8, 4}, {9, 4}, {10, 4}};
    const MethodLoad load = sampleLoad();
    for (const Form& f : forms) {
        for (decoding_mode_t mode : {decoding_mode_full, decoding_mode_modules}) {
            SCOPED_TRACE(testing::Message() << "type " << f.type << " mode " << mode);
            JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, mode);
            const Record record{0, f.type, tracewriter::encodeMethodLoad(f.type, load)};
            boost::intrusive_ptr<JitMethod> method(new JitMethod);
            jrtest::LogCapture log(log4cplus::INFO_LOG_LEVEL);
            ASSERT_TRUE(decode(decoder, record, method));
            EXPECT_EQ(log.count(log4cplus::INFO_LOG_LEVEL, "Raw JIT file data:\n"), f.form == 4 ? 1u : 0u);

            EXPECT_EQ(method->getStartJitRva(), kBase);
            EXPECT_EQ(decoder.allocJitRva(0), kBase + 96);
            EXPECT_EQ(method->getMetadataToken(), 0x06000001u);
            EXPECT_EQ(method->getLoadTime(), 0x5000u);
            EXPECT_EQ(method->getRawMethodId(), f.form == 4 ? 16u : 0u);
            ASSERT_EQ(method->regionCount(), 2u);
            const unsigned long long jitRvas[] = {kBase, kBase + 64};
            for (std::size_t i = 0; i < 2; ++i) {
                const Region& region = *method->regions()[i];
                EXPECT_EQ(region.startJitRva(), jitRvas[i]);
                EXPECT_EQ(region.startAddress(), load.ranges[i].startAddr);
                EXPECT_EQ(region.length(), load.ranges[i].size);
                EXPECT_EQ(region.processId(), 7003u);
                EXPECT_EQ(region.hostId(), 1u);
                EXPECT_EQ(region.loadTime(), 0x5000u);
                if (mode == decoding_mode_full) {
                    ASSERT_TRUE(region.getContent());
                    const auto* data = static_cast<const unsigned char*>(region.getContent()->getData());
                    EXPECT_EQ(Bytes(data, data + region.getContent()->getSize()), load.ranges[i].bytes);
                } else {
                    EXPECT_FALSE(region.getContent());
                }
            }
            EXPECT_STREQ(method->getModule()->getName(), L"/opt/app/libapp.so");
            EXPECT_EQ(method->getModule()->getType(), 4u);
            EXPECT_EQ(method->getModule()->getArch(), 1u);

            if (f.form <= 2 && mode == decoding_mode_modules) {
                // The old forms stop at the module.
                EXPECT_STREQ(method->getName(), L"");
                EXPECT_FALSE(method->getSourceFile());
                EXPECT_TRUE(method->lineNumberInfo().empty());
                EXPECT_TRUE(method->getMethodId().isEmpty());
                continue;
            }
            EXPECT_STREQ(method->getClassName(), L"App::Worker");
            EXPECT_STREQ(method->getName(), L"App::Worker::Run");
            const SourceFile& source = method->sourceFile();
            EXPECT_STREQ(source.getName(), L"Worker.cs");
            EXPECT_STREQ(source.getChecksum(), L"ab12");
            EXPECT_EQ(source.getChecksumType(), 2u);
            EXPECT_EQ(source.getLanguageType(), 3u);
            ASSERT_EQ(method->lineNumberInfo().size(), 1u);
            const auto& entry = *method->lineNumberInfo().begin();
            EXPECT_EQ(entry.first, Range(kBase, 64));
            expectRows(entry.second.tables[ltManagedToSource], load.managedToSource);
            expectRows(entry.second.tables[ltNativeToManaged], load.nativeToManaged);
            expectRows(entry.second.tables[ltNativeToSource], load.nativeToSource);
            EXPECT_FALSE(method->getMethodId().isEmpty());
            EXPECT_EQ(method->getMethodId(), MethodIdMaker().makeMethodId(f.form <= 2 ? 0 : 16, *method));
        }
    }
}

TEST(LoadRecord, OddRecordsOfTheNewestForm)
{
    struct Case {
        const char* name;
        std::function<void(MethodLoad&)> change;
        bool result;
        const char* error;
        std::vector<unsigned long long> jitRvas;
        unsigned long long counter;
        const wchar_t* module;
        unsigned int moduleType;
        const wchar_t* className;
        const wchar_t* methodName;
    };
    const Bytes code(64, 0xC3);
    const Case cases[] = {
        {"inline ranges count from 0", [&](MethodLoad& l) { l.isInline = 1; l.ranges.push_back({0x403000, 16, code}); },
         true, nullptr, {0, 1, 2}, kBase, L"/opt/app/libapp.so", 4, L"App::Worker", L"App::Worker::Run"},
        {"empty first range", [&](MethodLoad& l) { l.ranges = {{0x400000, 0, {1, 2}}, {0x401000, 64, code}}; }, true,
         nullptr, {kBase}, kBase + 64, L"/opt/app/libapp.so", 4, L"App::Worker", L"App::Worker::Run"},
        {"all ranges empty", [](MethodLoad& l) { l.ranges = {{0x401000, 0, {}}, {0x402000, 0, {1}}}; }, false,
         "The bytes of the code are not supplied", {}, kBase, nullptr, 0, nullptr, nullptr},
        {"no ranges", [](MethodLoad& l) { l.ranges.clear(); }, false, nullptr, {}, kBase, L"/opt/app/libapp.so", 4,
         L"App::Worker", L"App::Worker::Run"},
        {"module path of 600 bytes", [](MethodLoad& l) { l.modulePath.assign(600, 'm'); }, true, nullptr,
         {kBase, kBase + 64}, kBase + 96, L"[Dynamic code]", 0, L"App::Worker", L"App::Worker::Run"},
        {"descriptor class, language 3",
         [](MethodLoad& l) { l.modulePath.clear(); l.className = "Ljava/lang/String;"; }, true, nullptr,
         {kBase, kBase + 64}, kBase + 96, L"[Dynamic code]", 0, L"java::lang::String", L"java::lang::String::Run"},
        {"java without module and name",
         [](MethodLoad& l) { l.modulePath.clear(); l.languageType = 5; l.methodName.clear(); }, true, nullptr,
         {kBase, kBase + 64}, kBase + 96, L"[Compiled Java code]", 0, L"App::Worker", L""},
        {"java descriptors",
         [](MethodLoad& l) { l.languageType = 5; l.className = "Lcom/acme/Main;"; l.methodName = "run(I)V"; }, true,
         nullptr, {kBase, kBase + 64}, kBase + 96, L"/opt/app/libapp.so", 4, L"com::acme::Main",
         L"com::acme::Main::run"},
        {"string of 512 bytes, NUL in a name",
         [](MethodLoad& l) { l.sourceFile.assign(512, 's'); l.methodName = std::string("Run\0junk", 8); }, true,
         nullptr, {kBase, kBase + 64}, kBase + 96, L"/opt/app/libapp.so", 4, L"App::Worker", L"App::Worker::Run"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MethodLoad load = sampleLoad();
        c.change(load);
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
        const Record record{0, 9, tracewriter::encodeMethodLoad(9, load)};
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        unsigned char isInline = 0xFF;
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        EXPECT_EQ(decoder.decodeMethodLoadRecordV3(record, method, &isInline), c.result);
        EXPECT_EQ(isInline, load.isInline);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        EXPECT_EQ(errors, c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{});
        ASSERT_EQ(method->regionCount(), c.jitRvas.size());
        for (std::size_t i = 0; i < c.jitRvas.size(); ++i)
            EXPECT_EQ(method->regions()[i]->startJitRva(), c.jitRvas[i]);
        EXPECT_EQ(decoder.allocJitRva(0), c.counter);
        if (c.module == nullptr)
            continue;
        EXPECT_STREQ(method->getModule()->getName(), c.module);
        EXPECT_EQ(method->getModule()->getType(), c.moduleType);
        EXPECT_STREQ(method->getClassName(), c.className);
        EXPECT_STREQ(method->getName(), c.methodName);
        EXPECT_EQ(method->sourceFile().getLanguageType(), load.languageType);
        if (!c.jitRvas.empty()) { // the tables stay with the first region that holds code
            EXPECT_EQ(method->lineNumberInfo().begin()->first, Range(c.jitRvas[0], method->regions()[0]->length()));
        }
    }
}

TEST(LoadRecord, CollectorTypeAndArchitecturesComeFromTheStream)
{
    MethodLoad load = sampleLoad();
    jrtest::TempDir dir;
    dir.write("p.jit", tracewriter::TraceWriter().collectorType(1).bytes());
    JitFileDecoder decoder(dir.wide("p.jit"), 7003, 1, kBase, decoding_mode_full);
    Record frame;
    ASSERT_EQ(decoder.getNextRecord(frame), meSuccess);
    for (std::uint32_t type : {5u, 7u, 9u, 8u}) { // old forms leave the architecture flags alone
        load.moduleArch = type == 9 ? 0 : 1;
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        ASSERT_TRUE(decode(decoder, Record{0, type, tracewriter::encodeMethodLoad(type, load)}, method));
        EXPECT_EQ(method->getModule()->getType(), type >= 8 ? 0u : 4u) << type; // a profiler's modules
        EXPECT_EQ(decoder.bothArchitecturesSeen(), type == 8) << type;
    }
}

TEST(LoadRecord, LyingCountsReportAndStayInsideThePayload)
{
    const Bytes head = Payload().u32(1).u32(2).u8(0).u64(3).u16(1).bytes(); // up to the one range
    struct Case {
        const char* name;
        std::uint32_t type;
        Bytes payload;
        const char* assertion; // null: the form makes none
    };
    const Case cases[] = {
        {"three ranges announced, one given", 9,
         Payload().u32(1).u32(2).u8(0).u64(3).u16(3).codeRange({0x401000, 8, {1, 2}}).bytes(),
         "bytesRead < traceSize"},
        {"code bytes beyond the end", 9, Payload().raw(head).u64(0x401000).u32(8).u32(0xFFFFFFF0).u8(1).bytes(),
         "bytesRead < traceSize"},
        {"string beyond the end", 9,
         Payload().raw(head).codeRange({0x401000, 8, {1}}).string(400, "abc").bytes(), "bytesRead < traceSize"},
        {"table rows beyond the end", 9,
         Payload().raw(head).codeRange({0x401000, 8, {1}}).string("").u16(0).string("").string("").string("")
             .u16(0).string("").u16(0).u32(0).u32(0).u32(0xFFFFFFFF).u32(1).bytes(),
         "bytesRead <= traceSize"},
        {"old form, table rows beyond the end", 5,
         Payload().u32(1).u64(3).u16(1).codeRange({0x401000, 8, {1}}).string("").u16(0).string("").string("")
             .string("").u16(0).string("").u16(0).u32(0xFFFFFFFF).bytes(),
         nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::AssertionCapture assertions;
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        decode(decoder, Record{0, c.type, c.payload}, method); // exact-size payload: overreads show
        if (c.assertion)
            EXPECT_TRUE(assertions.contains(c.assertion));
        else
            EXPECT_TRUE(assertions.reports().empty());
    }
}

TEST(LoadRecord, EveryTruncatedPrefixDecodesWithoutHarm)
{
    const Bytes valid = tracewriter::encodeMethodLoad(9, sampleLoad());
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    for (std::size_t length = 0; length <= valid.size(); ++length) {
        jrtest::AssertionCapture assertions;
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        const Record record{0, 9, Bytes(valid.begin(), valid.begin() + static_cast<std::ptrdiff_t>(length))};
        decoder.decodeMethodLoadRecordV3(record, method, nullptr);
        EXPECT_EQ(assertions.reports().empty(), length == valid.size()) << length;
    }
}

} // namespace
} // namespace velmark_3_11
