#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

#include "record_builder.h"
#include "support/temp_dir.h"
#include "trace_file.h"

using namespace jitagent;
using tracewriter::LineRow;

namespace tracewriter {

// Found by argument lookup from inside the comparisons of vectors.
bool operator==(const LineRow& a, const LineRow& b)
{
    return a.first == b.first && a.second == b.second && a.third == b.third;
}

std::ostream& operator<<(std::ostream& out, const LineRow& row)
{
    return out << "(" << row.first << "-" << row.second << ", " << row.third << ")";
}

} // namespace tracewriter

namespace {

const std::uint64_t kCode = 0x1000;

// hot (key 1) calls step (key 2) at bytecode 4, and step calls square (key 3) at bytecode 5.
const std::map<std::uint64_t, JavaMethod> kMethods = {
    {1, {"hot(I)I", "Ljitdemo/Hot;", "Hot.java", {{9, 12}, {0, 10}, {4, 11}}, 20}},
    {2, {"step(I)I", "Ljitdemo/Hot;", "Hot.java", {{0, 20}, {5, 21}}, 12}},
    {3, {"square(I)I", "Ljitdemo/Hot;", "Hot.java", {{0, 30}}, 4}},
};

RecordBuilder builder()
{
    auto next = std::make_shared<std::uint32_t>(0);
    return RecordBuilder(
        [](std::uint64_t key) {
            const auto found = kMethods.find(key);
            return found == kMethods.end() ? nullptr : &found->second;
        },
        [next] { return ++*next; });
}

struct Inline {
    std::uint32_t id;
    std::uint32_t parent;
    std::uint32_t start; // offset in the compiled code
    std::uint32_t size;
    std::string name;
    std::vector<LineRow> rows;

    bool operator==(const Inline& other) const
    {
        return id == other.id && parent == other.parent && start == other.start && size == other.size &&
               name == other.name && rows == other.rows;
    }
};

std::ostream& operator<<(std::ostream& out, const Inline& record)
{
    out << "{id " << record.id << " parent " << record.parent << " at " << record.start << "+" << record.size << " "
        << record.name << " rows";
    for (const LineRow& row : record.rows)
        out << " " << row;
    return out << "}";
}

PcStack at(std::uint64_t offset, std::vector<StackFrame> frames)
{
    return {kCode + offset, std::move(frames)};
}

TEST(RecordBuilder, InlineRecordsFollowTheChainOfCallSitesOverAdjacentCode)
{
    const struct {
        const char* name;
        std::vector<PcStack> pcs;
        std::vector<AddressLocation> map;
        std::vector<LineRow> nativeToManaged;
        std::vector<LineRow> nativeToSource;
        std::vector<Inline> inlines;
    } cases[] = {
        {"no pcs: no rows, no inlines", {}, {}, {}, {}, {}},
        {"outer frames only, two pcs with one line merge into one row",
         {at(0x10, {{1, 0}}), at(0x20, {{1, 2}}), at(0x30, {{1, 4}})},
         {},
         {{0, 0x10, 0}, {0x10, 0x20, 2}, {0x20, 0x30, 4}},
         {{0, 0x20, 10}, {0x20, 0x30, 11}},
         {}},
        {"one inline over two pcs, rows in its own lines and offsets",
         {at(0x10, {{1, 0}}), at(0x20, {{1, 4}, {2, 0}}), at(0x30, {{1, 4}, {2, 5}}), at(0x40, {{1, 9}})},
         {},
         {{0, 0x10, 0}, {0x10, 0x30, 4}, {0x30, 0x40, 9}},
         {{0, 0x10, 10}, {0x10, 0x30, 11}, {0x30, 0x40, 12}},
         {{2, 1, 0x10, 0x20, "step(I)I", {{0, 0x10, 20}, {0x10, 0x20, 21}}}}},
        {"nested inline hangs below its caller's instance",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 4}, {2, 5}, {3, 1}}), at(0x30, {{1, 4}, {2, 6}})},
         {},
         {{0, 0x30, 4}},
         {{0, 0x30, 11}},
         {{2, 1, 0, 0x30, "step(I)I", {{0, 0x10, 20}, {0x10, 0x30, 21}}},
          {3, 2, 0x10, 0x10, "square(I)I", {{0, 0x10, 30}}}}},
        {"the same method from two call sites: two instances",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 9}, {2, 0}})},
         {},
         {{0, 0x10, 4}, {0x10, 0x20, 9}},
         {{0, 0x10, 11}, {0x10, 0x20, 12}},
         {{2, 1, 0, 0x10, "step(I)I", {{0, 0x10, 20}}}, {3, 1, 0x10, 0x10, "step(I)I", {{0, 0x10, 20}}}}},
        {"one call site split by outer code: one instance per piece",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 0}}), at(0x30, {{1, 4}, {2, 5}})},
         {},
         {{0, 0x10, 4}, {0x10, 0x20, 0}, {0x20, 0x30, 4}},
         {{0, 0x10, 11}, {0x10, 0x20, 10}, {0x20, 0x30, 11}},
         {{2, 1, 0, 0x10, "step(I)I", {{0, 0x10, 20}}}, {3, 1, 0x20, 0x10, "step(I)I", {{0, 0x10, 21}}}}},
        {"pcs out of order, at the start, past the end or repeated are sorted or dropped",
         {at(0x20, {{1, 4}, {2, 5}}), at(0x200, {{1, 0}}), at(0, {{1, 0}}), at(0x10, {{1, 0}}),
          at(0x10, {{1, 9}})},
         {},
         {{0, 0x10, 0}, {0x10, 0x20, 4}},
         {{0, 0x10, 10}, {0x10, 0x20, 11}},
         {{2, 1, 0x10, 0x10, "step(I)I", {{0, 0x10, 21}}}}},
        {"a method the virtual machine told nothing of keeps its place, without names or rows",
         {at(0x10, {{1, 4}, {7, 3}})},
         {},
         {{0, 0x10, 4}},
         {{0, 0x10, 11}},
         {{2, 1, 0, 0x10, "", {}}}},
        {"the address map, where given, leads the outer method's tables",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 4}, {2, 5}})},
         {{kCode + 0x08, 0}, {kCode + 0x20, 9}},
         {{0, 0x08, 0}, {0x08, 0x20, 9}},
         {{0, 0x08, 10}, {0x08, 0x20, 12}},
         {{2, 1, 0, 0x20, "step(I)I", {{0, 0x10, 20}, {0x10, 0x20, 21}}}}},
    };
    std::vector<std::uint8_t> code(0x100);
    for (std::size_t i = 0; i < code.size(); ++i)
        code[i] = static_cast<std::uint8_t>(i);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const MethodRecords records = builder().compiledMethod({1, kCode, 0x100, code.data(), test.pcs, test.map}, 77);
        EXPECT_EQ(1u, records.load.rawMethodId);
        EXPECT_EQ(test.nativeToManaged, records.load.nativeToManaged);
        EXPECT_EQ(test.nativeToSource, records.load.nativeToSource);
        std::vector<Inline> inlines;
        for (const tracewriter::InlineLoad& record : records.inlines) {
            inlines.push_back({record.rawMethodId, record.parentRawMethodId,
                               static_cast<std::uint32_t>(record.startAddr - kCode), record.size, record.methodName,
                               record.nativeToSource});
            EXPECT_EQ(77u, record.loadTime);
            EXPECT_EQ(5u, record.languageType);
            // The inline's bytes are those of its range in the compiled code.
            ASSERT_EQ(record.size, record.bytes.size());
            EXPECT_EQ(record.startAddr - kCode, record.bytes.front());
        }
        EXPECT_EQ(test.inlines, inlines);
    }
}

TEST(RecordBuilder, LoadRecordCarriesTheMethodAsTheVirtualMachineNamesIt)
{
    std::vector<std::uint8_t> code(0x40, 0x90);
    const MethodRecords records = builder().compiledMethod({1, kCode, 0x40, code.data(), {}, {}}, 5);
    const tracewriter::MethodLoad& load = records.load;
    EXPECT_EQ("hot(I)I", load.methodName);
    EXPECT_EQ("Ljitdemo/Hot;", load.className);
    EXPECT_EQ("Hot.java", load.sourceFile);
    EXPECT_EQ(5u, load.languageType);
    EXPECT_EQ("", load.modulePath);
    ASSERT_EQ(1u, load.ranges.size());
    EXPECT_EQ(kCode, load.ranges[0].startAddr);
    EXPECT_EQ(code, load.ranges[0].bytes);
    // Line table rows run from each entry's first bytecode to the next; the last to the end.
    EXPECT_EQ((std::vector<LineRow>{{0, 4, 10}, {4, 9, 11}, {9, 20, 12}}), load.managedToSource);

    const tracewriter::MethodLoad stub = builder().stub("flush_icache_stub", 0x2000, 4, code.data(), 9);
    EXPECT_EQ("flush_icache_stub", stub.methodName);
    EXPECT_EQ("", stub.className);
    EXPECT_NE(5u, stub.languageType);
    ASSERT_EQ(1u, stub.ranges.size());
    EXPECT_EQ(4u, stub.ranges[0].bytes.size());
}

TEST(RecordBuilder, LinesAndTextsAsTheTraceCarriesThem)
{
    const struct {
        std::uint32_t bci;
        std::uint32_t line;
    } lines[] = {{0, 10}, {3, 10}, {4, 11}, {9, 12}, {500, 12}};
    for (const auto& test : lines)
        EXPECT_EQ(test.line, RecordBuilder::lineOf(kMethods.at(1), test.bci)) << test.bci;
    EXPECT_EQ(0u, RecordBuilder::lineOf(JavaMethod{"f()V", "", "", {{2, 7}}, 4}, 1));

    const std::string twoByte = "\xc3\xa9"; // one character in two bytes
    const struct {
        std::string text;
        std::size_t size;
    } texts[] = {
        {"run(I)V", 7},
        {std::string(511, 'a'), 511},
        {std::string(600, 'a'), 511},
        {std::string(510, 'a') + twoByte, 510}, // the cut would split the character
        {std::string(70000, 'a'), 511},
    };
    for (const auto& test : texts)
        EXPECT_EQ(test.size, RecordBuilder::fieldText(test.text).size()) << test.text.size();
}

TEST(TraceFile, OpensWithTheCollectorTypeAndRefusesWhatItCannotWrite)
{
    jrtest::TempDir dir;
    EXPECT_EQ("host.example.4242.jit", TraceFile::fileName("host.example", 4242));

    TraceFile file;
    std::string error;
    EXPECT_FALSE(file.open(dir.file("missing/x.jit"), error));
    EXPECT_EQ("can't create " + dir.file("missing/x.jit"), error);
    EXPECT_FALSE(file.append({1, 2, 3}));

    const std::string path = dir.file("h.1.jit");
    ASSERT_TRUE(file.open(path, error));
    EXPECT_FALSE(file.open(path, error));
    EXPECT_EQ("the trace file is open already", error);
    EXPECT_TRUE(file.append({0xAA, 0xBB}));
    file.close();
    EXPECT_FALSE(file.append({0xCC}));

    std::ifstream in(path, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    tracewriter::TraceWriter expected;
    expected.magic().collectorType(1).raw({0xAA, 0xBB});
    EXPECT_EQ(expected.bytes(), bytes);
}

} // namespace
