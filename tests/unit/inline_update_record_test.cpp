// Inline load and update records: their checks, and how an update copies the region it finds.
#include "jitreader/jit_file_decoder.h"

#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "platform/text.h"
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
    return Record{0, 12, tracewriter::encodeInlineLoad(record)};
}

Record updateRecord(const std::function<void(UpdateV2&)>& change = [](UpdateV2&) {})
{
    UpdateV2 record{1, 0x400, 1, "patch", 0x401010, 8, Bytes(8, 0x22)}; // segment type, time, arch, name, range
    change(record);
    return Record{0, 14, tracewriter::encodeUpdateV2(record)};
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
         "2000:401000+40 t400 ccx16 22x8 ccx40" + dynamic + " 16"},
        {"update of the whole region",
         updateRecord([](UpdateV2& u) { u.codeAddr = 0x401000; u.codeLen = 64; u.bytes = Bytes(64, 0x11); }),
         nullptr, kBase + 64, "2000:401000+40 t400 11x64" + dynamic + " 16"},
        {"update without bytes", updateRecord(), nullptr, kBase + 64, "2000:401000+40 t400" + dynamic + " 16",
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
        JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, c.mode);
        if (c.store == 2)
            store.region.reset(new Region(7003, 1, 0x100, 0x5000, 0x401000, 64, nullptr));
        if (c.store)
            decoder.setSearchRegionCallback(&store);
        const std::string before = regionText(*store.region);
        boost::intrusive_ptr<JitMethod> method(new JitMethod);
        jrtest::AssertionCapture assertions; // a record without bytes ends at its byte count
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        const bool taken = c.record.type == 14 ? decoder.decodeMethodUpdateRecordV2(c.record, method)
                                               : decoder.decodeMethodInlineLoadRecord(c.record, method);
        EXPECT_EQ(taken, c.error == nullptr);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        const std::string expected = c.error ? std::string(c.error) + jrtest::kAtFileSuffix : "";
        EXPECT_TRUE(c.error && *c.error ? errors.size() == 1 && errors[0].rfind(expected, 0) == 0 : errors.empty())
            << log.dump();
        EXPECT_EQ(decoder.allocJitRva(0), c.counter);
        EXPECT_EQ(regionText(*store.region), before); // the store's region is never touched
        EXPECT_EQ(assertions.contains("m_content"), c.store == 2);
        if (!taken)
            continue;
        ASSERT_EQ(method->regionCount(), 1u);
        const IModule& module = *method->getModule();
        EXPECT_EQ(regionText(*method->regions()[0]) + " | " + toUtf8(module.getName()) + " " +
                      std::to_string(module.getType()) + " | " + toUtf8(method->getName()) + " " +
                      std::to_string(method->getRawMethodId()), c.summary);
        EXPECT_EQ(method->getStartJitRva(), c.record.type == 14 ? kBase : 0u);
        EXPECT_EQ(method->getMethodId(), MethodIdMaker().makeMethodId(method->getRawMethodId(), *method));
    }
}

// Truncated payloads, whose fields lie about what follows, are reported; so are bytes behind
// an update's code, and the update is taken all the same.
TEST(InlineAndUpdateRecords, TruncatedOrTrailingPayloadsAreReported)
{
    FakeStore store;
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    for (const Record& record : {inlineRecord(), updateRecord()}) {
        for (std::size_t length = 0; length <= record.data.size() + 1; ++length) {
            SCOPED_TRACE(testing::Message() << "type " << record.type << " length " << length);
            jrtest::AssertionCapture assertions;
            JitFileDecoder decoder(L"/nonexistent.jit", 7003, 1, kBase, decoding_mode_full);
            decoder.setSearchRegionCallback(&store);
            boost::intrusive_ptr<JitMethod> method(new JitMethod);
            Record prefix{0, record.type, record.data};
            prefix.data.resize(length);
            const bool taken = record.type == 14 ? decoder.decodeMethodUpdateRecordV2(prefix, method)
                                                 : decoder.decodeMethodInlineLoadRecord(prefix, method);
            std::vector<std::string> expected;
            if (length > record.data.size() && record.type == 14)
                expected.push_back("bytesRead == traceLen");
            if (length < record.data.size())
                EXPECT_FALSE(assertions.reports().empty());
            else
                EXPECT_TRUE(taken && assertions.expressions() == expected);
        }
    }
}

} // namespace
} // namespace velmark_3_11
