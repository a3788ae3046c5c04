#include "tracewriter/trace_writer.h"

#include <fstream>
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

// Raw id, token, isInline, load time, one range, module and arch, name, class, source file,
// checksum type, checksum, language; a row in the first and in the last line table.
const MethodLoad kLoad{0x11223344, 0x06000001, 1, 0x0102030405060708ULL, {{0x7f00001000ULL, 0x10, {0xc3}}}, "m", 1,
                       "f", "C", "s.cs", 2, "ab", 5, {{1, 2, 3}}, {}, {{7, 8, 0x0a0b0c0d}}};

const Bytes kRawId = {0x44, 0x33, 0x22, 0x11};
const Bytes kToken = {0x01, 0x00, 0x00, 0x06};
const Bytes kLoadTime = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
const Bytes kItems = {
    0x01, 0x00, 0x00, 0x10, 0x00, 0x00, 0x7f, 0, 0, 0, // rangeCount, startAddr
    0x10, 0, 0, 0, 0x01, 0, 0, 0, 0xc3,                // size, byteCount, code
    0x01, 0x00, 'm', 0x01, 0x00,                       // module path, module arch
    0x01, 0x00, 'f', 0x01, 0x00, 'C',                  // method name, class name
    0x04, 0x00, 's', '.', 'c', 's',                    // source file
    0x02, 0x00, 0x02, 0x00, 'a', 'b', 0x05, 0x00,      // checksum type, checksum, language type
};
const Bytes kRow1 = {0x01, 0, 0, 0, 0x02, 0, 0, 0, 0x03, 0, 0, 0};
const Bytes kRow3 = {0x07, 0, 0, 0, 0x08, 0, 0, 0, 0x0d, 0x0c, 0x0b, 0x0a};
const Bytes kTables16 = cat({{1, 0}, kRow1, {0, 0}, {1, 0}, kRow3});
const Bytes kTables32 = cat({{1, 0, 0, 0}, kRow1, {0, 0, 0, 0}, {1, 0, 0, 0}, kRow3});
const Bytes kForm1 = cat({kToken, kLoadTime, kItems, kTables16}); // 0x56 bytes
const Bytes kForm2 = cat({kToken, kLoadTime, kItems, kTables32});

} // namespace

TEST(TraceWriter, LoadPayloadsMatchTheirFormLayout)
{
    const Bytes form3 = cat({kRawId, kForm2});
    const Bytes form4 = cat({kRawId, kToken, {0x01}, kLoadTime, kItems, kTables32});
    const std::pair<std::uint32_t, const Bytes*> cases[] = {
        {kFunctionLoad32, &kForm1},    {kFunctionLoad64, &kForm1}, {kFunctionLoad32_v1, &kForm2},
        {kFunctionLoad64_v1, &kForm2}, {kFunctionLoad32_v2, &form3}, {kFunctionLoad64_v2, &form3},
        {kFunctionLoad32_v3, &form4},  {kFunctionLoad64_v3, &form4}, {kFunctionUpdate, &form4},
    };
    for (const auto& c : cases)
        EXPECT_EQ(encodeMethodLoad(c.first, kLoad), *c.second) << "type " << c.first;
}

TEST(TraceWriter, InlineAndUpdatePayloadsMatchTheirLayout)
{
    // rangeCount 2 is a lie, written as given.
    const InlineLoad in{0x21, 0x20, 0x99, 2, 0x4000, 8, {0x90, 0x90}, "", 0, "g", "", "", 3, {{0, 2, 9}}};
    const Bytes inlineGolden = {
        0x21, 0, 0, 0, 0x20, 0, 0, 0,                   // rawMethodId, parentRawMethodId
        0x99, 0, 0, 0, 0, 0, 0, 0, 0x02, 0x00,          // loadTime, rangeCount
        0x00, 0x40, 0, 0, 0, 0, 0, 0, 0x08, 0, 0, 0,    // startAddr, size
        0x02, 0, 0, 0, 0x90, 0x90,                      // byteCount, code
        0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 'g',        // module path "", module arch, method name
        0x00, 0x00, 0x00, 0x00, 0x03, 0x00,             // class name "", source file "", language type
        0x01, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0x09, 0, 0, 0, // native-to-source count (32 bits), row
    };
    EXPECT_EQ(encodeInlineLoad(in), inlineGolden);

    const UpdateV2 up{2, 0x1234, 1, "stub", 0x4004, 4, {0xcc, 0xcc}};
    const Bytes updateGolden = {
        0x02, 0, 0, 0, 0x34, 0x12, 0, 0, 0, 0, 0, 0, // segmentType, loadTime
        0x01, 0x00, 0x04, 0x00, 's', 't', 'u', 'b',  // module arch, name
        0x04, 0x40, 0, 0, 0, 0, 0, 0, 0x04, 0, 0, 0, // codeAddr, codeLen
        0x02, 0, 0, 0, 0xcc, 0xcc,                   // byteCount, code
    };
    EXPECT_EQ(encodeUpdateV2(up), updateGolden);
}

TEST(TraceWriter, FramesMatchTheirLayout)
{
    const struct {
        const char* name;
        Bytes actual;
        Bytes expected;
    } cases[] = {
        {"load frame", TraceWriter().load(kFunctionLoad64, kLoad).bytes(), cat({{2, 0, 0, 0, 0x56, 0, 0, 0}, kForm1})},
        {"empty frame", TraceWriter().emptyFrame(9).bytes(), {0x09, 0, 0, 0, 0, 0, 0, 0}},
        {"truncated", TraceWriter().truncatedFrame(12, {1, 2, 3, 4}, 1).bytes(), {0x0c, 0, 0, 0, 0x04, 0, 0, 0, 0x01}},
        {"any size", TraceWriter().frameWithSize(2, 0xffffffff, {7}).bytes(), {2, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 7}},
        {"string of 512", Payload().string(std::string(512, 'x')).u8(0x5a).bytes(),
         cat({{0x00, 0x02}, Bytes(512, 'x'), {0x5a}})},
        {"lying string count", Payload().string(3, "ab").bytes(), {0x03, 0x00, 'a', 'b'}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.actual, c.expected) << c.name;
}

TEST(TraceWriter, RejectsMistakesAndWritesFiles)
{
    TraceWriter writer;
    EXPECT_THROW(writer.load(1, kLoad), std::invalid_argument);
    EXPECT_THROW(writer.load(kFunctionInlineLoad64, kLoad), std::invalid_argument);
    EXPECT_THROW(writer.inlineLoad(kFunctionLoad32, InlineLoad()), std::invalid_argument);
    EXPECT_THROW(writer.truncatedFrame(4, {1, 2}, 2), std::invalid_argument);
    EXPECT_EQ(writer.size(), 0u); // no mistake wrote anything

    jrtest::TempDir dir;
    writer.magic().collectorType(1).writeTo(dir.file("a.jit"));
    std::ifstream in(dir.file("a.jit"), std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), writer.bytes());
    EXPECT_THROW(writer.writeTo(dir.file("missing/a.jit")), std::runtime_error);
}
