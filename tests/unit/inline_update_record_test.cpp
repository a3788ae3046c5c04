// Inline load and update records: their checks, and how an update copies the region it finds.
#include "jitreader/jit_file_decoder.h"

#include <functional>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "tracewriter/trace_writer.h"

namespace velmark_3_11 {
namespace {

using tracewriter::Bytes;
using tracewriter::InlineLoad;
using tracewriter::UpdateV2;

const unsigned long long kBase = 0x2000;

// The one region that the store knows: 64 bytes of 0xCC at 0x401000, of method 16.
class FakeStore : public JitFileDecoder::SearchRegionCallback {
public:
    FakeStore()
        : region(new Region(7003, 1, 0x100, 0x5000, 0x401000, 64, makeByteBuffer(Bytes(64, 0xCC).data(), 64))),
          method(new JitMethod)
    {
        method->setRawMethodId(16);
    }
    velmark_error_t searchRegion(unsigned long long address, unsigned long long, unsigned int, unsigned int,
                                 boost::intrusive_ptr<Region>& found,
                                 boost::intrusive_ptr<JitMethod>& foundMethod) const override
    {
        if (address < region->startAddress() || address >= region->endAddress())
            return meFail;
        found = region;
        foundMethod = method;
        return meSuccess;
    }
    boost::intrusive_ptr<Region> region;
    boost::intrusive_ptr<JitMethod> method;
};

Bytes contentOf(const Region& region)
{
    if (!region.getContent())
        return Bytes();
    const auto* data = static_cast<const unsigned char*>(region.getContent()->getData());
    return Bytes(data, data + region.getContent()->getSize());
}

std::vector<std::string> errorsOf(const jrtest::LogCapture& log)
{
    std::vector<std::string> errors;
    for (const std::string& text : log.texts(log4cplus::ERROR_LOG_LEVEL))
        errors.push_back(text.substr(0, text.find(jrtest::kAtFileSuffix)));
    return errors;
}

InlineLoad sampleInline()
{
    InlineLoad record;
    record.rawMethodId = 17;
    record.parentRawMethodId = 16;
    record.loadTime = 0x300;
    record.startAddr = 0x401010;
    record.size = 8;
    record.bytes = Bytes(8, 0x90);
    record.moduleArch = 1;
    record.methodName = "Inner";
    record.className = "App.Worker";
    record.languageType = 3;
    record.nativeToSource = {{0, 8, 42}};
    return record;
}

TEST(InlineRecord, ChecksItsFieldsAndKeepsTheCounter)
{
    struct Case {
        const char* name;
        std::function<void(InlineLoad&)> change;
        decoding_mode_t mode;
        const char* error; // null: the record is taken
    };
    const Case cases[] = {
        {"taken", [](InlineLoad&) {}, decoding_mode_full, nullptr},
        {"taken without bytes", [](InlineLoad&) {}, decoding_mode_modules, nullptr},
        {"load time 0", [](InlineLoad& r) { r.loadTime = 0; }, decoding_mode_full, "Invalid load time: 0"},
        {"two ranges", [](InlineLoad& r) { r.rangeCount = 2; }, decoding_mode_full,
         "Invalid number of code regions: 0x2"},
        {"start 0", [](InlineLoad& r) { r.startAddr = 0; }, decoding_mode_full,
         "Invalid start address of code range: 0"},
        {"size 0", [](InlineLoad& r) { r.size = 0; }, decoding_mode_full, "Invalid size of code range: 0"},
        {"no bytes", [](InlineLoad& r) { r.bytes.clear(); }, decoding_mode_full,
         "Invalid number of code range's bytes: 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        InlineLoad input = sampleInline();
        c.change(input);
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, c.mode);
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        const bool taken = decoder.decodeMethodInlineLoadRecord(Record{0, 12, tracewriter::encodeInlineLoad(input)},
                                                                method);
        EXPECT_EQ(taken, c.error == nullptr);
        EXPECT_EQ(errorsOf(log), c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{});
        EXPECT_EQ(decoder.allocJitRva(0), kBase);
        if (!taken)
            continue;
        ASSERT_EQ(method->regionCount(), 1u);
        const Region& region = *method->regions()[0];
        EXPECT_EQ(region.startJitRva(), 0u);
        EXPECT_EQ(region.startAddress(), 0x401010u);
        EXPECT_EQ(region.length(), 8u);
        EXPECT_EQ(contentOf(region), c.mode == decoding_mode_full ? input.bytes : Bytes());
        EXPECT_EQ(method->getRawParentId(), 16u);
        EXPECT_STREQ(method->getName(), L"App::Worker::Inner");
        EXPECT_STREQ(method->getModule()->getName(), L"[Dynamic code]");
        EXPECT_EQ(method->lineNumberInfo().begin()->first, Range(0, 8));
        EXPECT_EQ(method->lineNumberInfo().begin()->second.tables[ltNativeToSource].size(), 1u);
        EXPECT_EQ(method->getMethodId(), MethodIdMaker().makeMethodId(17, *method));
        EXPECT_EQ(method->getParentId(), MethodIdMaker().makeMethodId(16, *method));
    }
}

TEST(UpdateRecord, CopiesTheFoundRegionOrRefuses)
{
    struct Case {
        const char* name;
        std::function<void(UpdateV2&)> change;
        bool withStore;
        decoding_mode_t mode;
        const char* error;  // null: the record is taken
        unsigned long long start, jitRva, counter;
        unsigned int length;
        std::size_t patched; // offset of the new bytes in the content; npos: no content
    };
    const std::size_t none = std::string::npos;
    const Case cases[] = {
        {"no store", [](UpdateV2&) {}, false, decoding_mode_full, nullptr, 0x401010, 0, kBase, 8, 0},
        {"inside the region", [](UpdateV2&) {}, true, decoding_mode_full, nullptr, 0x401000, kBase, kBase + 64, 64,
         16},
        {"the whole region", [](UpdateV2& u) { u.codeAddr = 0x401000; u.codeLen = 64; u.bytes = Bytes(64, 0x11); },
         true, decoding_mode_full, nullptr, 0x401000, kBase, kBase + 64, 64, 0},
        {"modules mode", [](UpdateV2&) {}, true, decoding_mode_modules, nullptr, 0x401000, kBase, kBase + 64, 64, none},
        {"one byte more than the region", [](UpdateV2& u) { u.codeAddr = 0x401000; u.codeLen = 65; }, true,
         decoding_mode_full, "Couldn't update the detected range (0x401000-0x401040) because it's size is small", 0, 0,
         kBase, 0, none},
        {"not in the store", [](UpdateV2& u) { u.codeAddr = 0x500000; }, true, decoding_mode_full,
         "Couldn't find a range to be updated", 0, 0, kBase, 0, none},
        {"refused by the region", [](UpdateV2& u) { u.segmentType = 7; }, true, decoding_mode_full,
         "Couldn't update because the input segment type =0x7 is not recognized", 0, 0, kBase + 64, 0, none},
        {"load time 0", [](UpdateV2& u) { u.loadTime = 0; }, true, decoding_mode_full, "Invalid load time: 0", 0, 0,
         kBase, 0, none},
        {"address 0", [](UpdateV2& u) { u.codeAddr = 0; }, true, decoding_mode_full,
         "Invalid start address of code range: 0", 0, 0, kBase, 0, none},
        {"length 0", [](UpdateV2& u) { u.codeLen = 0; }, true, decoding_mode_full, "Invalid length of code range: 0",
         0, 0, kBase, 0, none},
        {"no bytes", [](UpdateV2& u) { u.bytes.clear(); }, true, decoding_mode_full,
         "Invalid number of code range's bytes: 0", 0, 0, kBase, 0, none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        UpdateV2 input;
        input.loadTime = 0x400;
        input.moduleArch = 1;
        input.name = "patch";
        input.codeAddr = 0x401010;
        input.codeLen = 8;
        input.bytes = Bytes(8, 0x22);
        c.change(input);
        FakeStore store;
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, c.mode);
        if (c.withStore)
            decoder.setSearchRegionCallback(&store);
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        jrtest::AssertionCapture assertions; // a record without bytes ends at its byte count
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        const bool taken = decoder.decodeMethodUpdateRecordV2(Record{0, 14, tracewriter::encodeUpdateV2(input)}, method);
        EXPECT_EQ(taken, c.error == nullptr);
        EXPECT_EQ(errorsOf(log), c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{});
        EXPECT_EQ(decoder.allocJitRva(0), c.counter);
        EXPECT_EQ(contentOf(*store.region), Bytes(64, 0xCC)); // the store's region is never touched
        if (!taken)
            continue;
        EXPECT_EQ(method->getStartJitRva(), kBase);
        EXPECT_EQ(method->getRawMethodId(), c.withStore ? 16u : 0u);
        EXPECT_STREQ(method->getModule()->getName(), L"[Dynamic code]");
        EXPECT_EQ(method->getModule()->getType(), 0u);
        EXPECT_EQ(method->getMethodId(), MethodIdMaker().makeMethodId(method->getRawMethodId(), *method));
        ASSERT_EQ(method->regionCount(), 1u);
        const Region& region = *method->regions()[0];
        EXPECT_EQ(region.startAddress(), c.start);
        EXPECT_EQ(region.length(), c.length);
        EXPECT_EQ(region.startJitRva(), c.jitRva);
        EXPECT_EQ(region.loadTime(), 0x400u);
        Bytes expected;
        if (c.patched != none) {
            expected = c.withStore ? Bytes(64, 0xCC) : Bytes();
            expected.resize(std::max<std::size_t>(expected.size(), c.patched + input.bytes.size()));
            std::copy(input.bytes.begin(), input.bytes.end(), expected.begin() + static_cast<std::ptrdiff_t>(c.patched));
        }
        EXPECT_EQ(contentOf(region), expected);
    }
}

TEST(UpdateRecord, TrailingBytesAreReportedAndDecodingGoesOn)
{
    UpdateV2 input;
    input.loadTime = 0x400;
    input.codeAddr = 0x401010;
    input.codeLen = 8;
    input.bytes = Bytes(8, 0x22);
    Bytes payload = tracewriter::encodeUpdateV2(input);
    payload.push_back(0);
    jrtest::AssertionCapture assertions;
    JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
    boost::intrusive_ptr<JitMethod> method(new JitMethod);
    EXPECT_TRUE(decoder.decodeMethodUpdateRecordV2(Record{0, 14, payload}, method));
    EXPECT_EQ(assertions.expressions(), std::vector<std::string>{"bytesRead == traceLen"});
}

TEST(InlineAndUpdateRecords, EveryTruncatedPrefixDecodesWithoutHarm)
{
    UpdateV2 update;
    update.loadTime = 0x400;
    update.name = "patch";
    update.codeAddr = 0x401010;
    update.codeLen = 8;
    update.bytes = Bytes(8, 0x22);
    const Record valid[] = {{0, 11, tracewriter::encodeInlineLoad(sampleInline())},
                            {0, 14, tracewriter::encodeUpdateV2(update)}};
    FakeStore store;
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    for (const Record& record : valid) {
        for (std::size_t length = 0; length <= record.data.size(); ++length) {
            jrtest::AssertionCapture assertions;
            JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
            decoder.setSearchRegionCallback(&store);
            boost::intrusive_ptr<JitMethod> method(new JitMethod);
            const Record prefix{0, record.type,
                                Bytes(record.data.begin(), record.data.begin() + static_cast<std::ptrdiff_t>(length))};
            if (record.type == 11)
                decoder.decodeMethodInlineLoadRecord(prefix, method);
            else
                decoder.decodeMethodUpdateRecordV2(prefix, method);
            EXPECT_EQ(assertions.reports().empty(), length == record.data.size()) << record.type << " " << length;
        }
    }
}

} // namespace
} // namespace velmark_3_11
