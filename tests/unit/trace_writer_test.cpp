#include "tracewriter/trace_writer.h"

#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

using namespace tracewriter;

namespace {

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes prefix(const Bytes& bytes, std::size_t count)
{
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}

// One record for every load form: two ranges (the second empty), one row per table.
MethodLoad sampleLoad()
{
    MethodLoad r;
    r.rawMethodId = 0x11223344;
    r.metadataToken = 0x06000001;
    r.isInline = 1;
    r.loadTime = 0x0102030405060708ULL;
    r.ranges = {{0x7f00001000ULL, 0x10, {0xc3}}, {0x2000, 0, {}}};
    r.modulePath = "m";
    r.moduleArch = 1;
    r.methodName = "f";
    r.className = "C";
    r.sourceFile = "s.cs";
    r.checksumType = 2;
    r.checksum = "ab";
    r.languageType = 5;
    r.managedToSource = {{1, 2, 3}};
    r.nativeToManaged = {{4, 5, 6}};
    r.nativeToSource = {{7, 8, 0x0a0b0c0d}};
    return r;
}

const Bytes kRawId = {0x44, 0x33, 0x22, 0x11};
const Bytes kToken = {0x01, 0x00, 0x00, 0x06};
const Bytes kIsInline = {0x01};
const Bytes kLoadTime = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
const Bytes kRanges = {
    0x02, 0x00,                                     // rangeCount
    0x00, 0x10, 0x00, 0x00, 0x7f, 0x00, 0x00, 0x00, // startAddr
    0x10, 0x00, 0x00, 0x00,                         // size
    0x01, 0x00, 0x00, 0x00, 0xc3,                   // byteCount, code
    0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // startAddr
    0x00, 0x00, 0x00, 0x00,                         // size 0
    0x00, 0x00, 0x00, 0x00,                         // byteCount 0
};
const Bytes kItems = {
    0x01, 0x00, 'm',                // module path
    0x01, 0x00,                     // module arch
    0x01, 0x00, 'f',                // method name
    0x01, 0x00, 'C',                // class name
    0x04, 0x00, 's', '.', 'c', 's', // source file
    0x02, 0x00,                     // checksum type
    0x02, 0x00, 'a', 'b',           // checksum
    0x05, 0x00,                     // language type
};
const Bytes kRow1 = {0x01, 0, 0, 0, 0x02, 0, 0, 0, 0x03, 0, 0, 0};
const Bytes kRow2 = {0x04, 0, 0, 0, 0x05, 0, 0, 0, 0x06, 0, 0, 0};
const Bytes kRow3 = {0x07, 0, 0, 0, 0x08, 0, 0, 0, 0x0d, 0x0c, 0x0b, 0x0a};
const Bytes kCount16 = {0x01, 0x00};
const Bytes kCount32 = {0x01, 0x00, 0x00, 0x00};
const Bytes kTables16 = cat({kCount16, kRow1, kCount16, kRow2, kCount16, kRow3});
const Bytes kTables32 = cat({kCount32, kRow1, kCount32, kRow2, kCount32, kRow3});

const Bytes kForm1 = cat({kToken, kLoadTime, kRanges, kItems, kTables16}); // 0x72 bytes
const Bytes kForm2 = cat({kToken, kLoadTime, kRanges, kItems, kTables32});
const Bytes kForm3 = cat({kRawId, kForm2});
const Bytes kForm4 = cat({kRawId, kToken, kIsInline, kLoadTime, kRanges, kItems, kTables32});

} // namespace

TEST(TraceWriter, LoadPayloadsMatchTheirFormLayout)
{
    const struct {
        std::uint32_t type;
        const Bytes& expected;
    } cases[] = {
        {kFunctionLoad32, kForm1},    {kFunctionLoad64, kForm1},    {kFunctionLoad32_v1, kForm2},
        {kFunctionLoad64_v1, kForm2}, {kFunctionLoad32_v2, kForm3}, {kFunctionLoad64_v2, kForm3},
        {kFunctionLoad32_v3, kForm4}, {kFunctionLoad64_v3, kForm4}, {kFunctionUpdate, kForm4},
    };
    for (const auto& c : cases)
        EXPECT_EQ(encodeMethodLoad(c.type, sampleLoad()), c.expected) << "type " << c.type;
}

TEST(TraceWriter, InlineAndUpdatePayloadsMatchTheirLayout)
{
    InlineLoad in;
    in.rawMethodId = 0x21;
    in.parentRawMethodId = 0x20;
    in.loadTime = 0x99;
    in.rangeCount = 2; // a lie, written as given
    in.startAddr = 0x4000;
    in.size = 8;
    in.bytes = {0x90, 0x90};
    in.methodName = "g";
    in.languageType = 3;
    in.nativeToSource = {{0, 2, 9}};
    const Bytes inlineGolden = {
        0x21, 0x00, 0x00, 0x00,                         // rawMethodId
        0x20, 0x00, 0x00, 0x00,                         // parentRawMethodId
        0x99, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // loadTime
        0x02, 0x00,                                     // rangeCount
        0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // startAddr
        0x08, 0x00, 0x00, 0x00,                         // size
        0x02, 0x00, 0x00, 0x00, 0x90, 0x90,             // byteCount, code
        0x00, 0x00,                                     // module path ""
        0x00, 0x00,                                     // module arch
        0x01, 0x00, 'g',                                // method name
        0x00, 0x00, 0x00, 0x00,                         // class name "", source file ""
        0x03, 0x00,                                     // language type
        0x01, 0x00, 0x00, 0x00,                         // native-to-source count (32 bits)
        0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(encodeInlineLoad(in), inlineGolden);

    UpdateV2 up;
    up.segmentType = 2;
    up.loadTime = 0x1234;
    up.moduleArch = 1;
    up.name = "stub";
    up.codeAddr = 0x4004;
    up.codeLen = 4;
    up.bytes = {0xcc, 0xcc};
    const Bytes updateGolden = {
        0x02, 0x00, 0x00, 0x00,                         // segmentType
        0x34, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // loadTime
        0x01, 0x00,                                     // module arch
        0x04, 0x00, 's', 't', 'u', 'b',                 // name
        0x04, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // codeAddr
        0x04, 0x00, 0x00, 0x00,                         // codeLen
        0x02, 0x00, 0x00, 0x00, 0xcc, 0xcc,             // byteCount, code
    };
    EXPECT_EQ(encodeUpdateV2(up), updateGolden);
}

TEST(TraceWriter, FramesMatchTheirLayout)
{
    const Bytes x512(512, 'x');
    const struct {
        const char* name;
        Bytes actual;
        Bytes expected;
    } cases[] = {
        {"magic", TraceWriter().magic().bytes(), {0x00, 0x00, 0x40, 0x00, 0, 0, 0, 0}},
        {"collector type", TraceWriter().collectorType(1).bytes(), {0x0d, 0, 0, 0, 0x01, 0, 0, 0}},
        {"sized frame", TraceWriter().frame(5, {0xaa, 0xbb}).bytes(), {0x05, 0, 0, 0, 0x02, 0, 0, 0, 0xaa, 0xbb}},
        {"load frame", TraceWriter().load(kFunctionLoad64, sampleLoad()).bytes(), cat({{0x02, 0, 0, 0, 0x72, 0, 0, 0}, kForm1})},
        {"empty frame", TraceWriter().emptyFrame(9).bytes(), {0x09, 0, 0, 0, 0, 0, 0, 0}},
        {"truncated", TraceWriter().truncatedFrame(12, {1, 2, 3, 4}, 1).bytes(), {0x0c, 0, 0, 0, 0x04, 0, 0, 0, 0x01}},
        {"explicit size", TraceWriter().frameWithSize(2, 0xffffffff, {7}).bytes(), {0x02, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0x07}},
        {"frames in order", TraceWriter().magic(7).raw({0xee}).emptyFrame(0).bytes(),
         {0x00, 0x00, 0x40, 0x00, 0x07, 0, 0, 0, 0xee, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"string of 512", Payload().string(std::string(x512.begin(), x512.end())).u8(0x5a).bytes(),
         cat({{0x00, 0x02}, x512, {0x5a}})},
        {"lying string count", Payload().string(3, "ab").bytes(), {0x03, 0x00, 'a', 'b'}},
        {"count cut to 16 bits", prefix(Payload().string(std::string(0x10001, 'y')).bytes(), 3), {0x01, 0x00, 'y'}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.actual, c.expected) << c.name;
}

TEST(TraceWriter, RejectsMistakesWithoutWritingAnything)
{
    const std::function<void(TraceWriter&)> mistakes[] = {
        [](TraceWriter& w) { w.load(1, sampleLoad()); },
        [](TraceWriter& w) { w.load(3, sampleLoad()); },
        [](TraceWriter& w) { w.load(kFunctionInlineLoad64, sampleLoad()); },
        [](TraceWriter& w) { w.load(kCollectorType, sampleLoad()); },
        [](TraceWriter& w) { w.load(kFunctionUpdate_v2, sampleLoad()); },
        [](TraceWriter& w) { w.load(kMagic, sampleLoad()); },
        [](TraceWriter& w) { w.inlineLoad(kFunctionLoad32, InlineLoad()); },
        [](TraceWriter& w) { w.truncatedFrame(4, {1, 2}, 2); },
    };
    for (std::size_t i = 0; i < std::size(mistakes); ++i) {
        TraceWriter writer;
        EXPECT_THROW(mistakes[i](writer), std::invalid_argument) << "case " << i;
        EXPECT_EQ(writer.size(), 0u) << "case " << i;
    }
}

TEST(TraceWriter, WritesTheFileOrThrows)
{
    jrtest::TempDir dir;
    TraceWriter writer;
    writer.magic().collectorType(1);
    writer.writeTo(dir.file("a.jit"));
    std::ifstream in(dir.file("a.jit"), std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), writer.bytes());

    EXPECT_THROW(writer.writeTo(dir.file("missing/a.jit")), std::runtime_error);
}
