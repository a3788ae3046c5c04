#include <gtest/gtest.h>

#include <array>
#include <map>
#include <numeric>
#include <tuple>

#include "record_builder.h"

using namespace jitagent;

namespace {

const std::uint64_t kCode = 0x1000;

// hot (key 1) calls step (key 2) at bytecode 4, and step calls square (key 3) at bytecode 5.
const std::map<std::uint64_t, JavaMethod> kMethods = {
    {1, {"hot(I)I", "Ljitdemo/Hot;", "Hot.java", {{9, 12}, {0, 10}, {4, 11}}, 20}},
    {2, {"step(I)I", "Ljitdemo/Hot;", "Hot.java", {{0, 20}, {5, 21}}, 12}},
    {3, {"square(I)I", "Ljitdemo/Hot;", "Hot.java", {{0, 30}}, 4}},
};

typedef std::array<std::uint32_t, 3> Row;
// id, parent, offset in the code, size, name, rows
typedef std::tuple<std::uint32_t, std::uint32_t, std::uint64_t, std::uint32_t, std::string, std::vector<Row>> Inline;

std::vector<Row> rows(const std::vector<tracewriter::LineRow>& table)
{
    std::vector<Row> out;
    for (const tracewriter::LineRow& row : table)
        out.push_back({row.first, row.second, row.third});
    return out;
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
        std::vector<Row> nativeToManaged, nativeToSource;
        std::vector<Inline> inlines;
    } cases[] = {
        {"no pcs: no rows, no inlines", {}, {}, {}, {}, {}},
        {"a nested inline hangs below its caller's instance",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 4}, {2, 5}, {3, 1}}), at(0x30, {{1, 4}, {2, 6}})}, {},
         {{0, 0x30, 4}}, {{0, 0x30, 11}},
         {{2, 1, 0, 0x30, "step(I)I", {{0, 0x10, 20}, {0x10, 0x30, 21}}}, {3, 2, 0x10, 0x10, "square(I)I", {{0, 0x10, 30}}}}},
        {"one method from two call sites: two instances",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 9}, {2, 0}})}, {},
         {{0, 0x10, 4}, {0x10, 0x20, 9}}, {{0, 0x10, 11}, {0x10, 0x20, 12}},
         {{2, 1, 0, 0x10, "step(I)I", {{0, 0x10, 20}}}, {3, 1, 0x10, 0x10, "step(I)I", {{0, 0x10, 20}}}}},
        {"one call site split by outer code: one instance per piece",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 0}}), at(0x30, {{1, 4}, {2, 5}})}, {},
         {{0, 0x10, 4}, {0x10, 0x20, 0}, {0x20, 0x30, 4}}, {{0, 0x10, 11}, {0x10, 0x20, 10}, {0x20, 0x30, 11}},
         {{2, 1, 0, 0x10, "step(I)I", {{0, 0x10, 20}}}, {3, 1, 0x20, 0x10, "step(I)I", {{0, 0x10, 21}}}}},
        {"pcs out of order, at the start, past the end or repeated",
         {at(0x20, {{1, 4}, {2, 5}}), at(0x200, {{1, 0}}), at(0, {{1, 0}}), at(0x10, {{1, 0}}), at(0x10, {{1, 9}})}, {},
         {{0, 0x10, 0}, {0x10, 0x20, 4}}, {{0, 0x10, 10}, {0x10, 0x20, 11}},
         {{2, 1, 0x10, 0x10, "step(I)I", {{0, 0x10, 21}}}}},
        {"a method the virtual machine told nothing of keeps its place",
         {at(0x10, {{1, 4}, {7, 3}})}, {}, {{0, 0x10, 4}}, {{0, 0x10, 11}}, {{2, 1, 0, 0x10, "", {}}}},
        {"the address map, where given, leads the outer method's tables",
         {at(0x10, {{1, 4}, {2, 0}}), at(0x20, {{1, 4}, {2, 5}})}, {{kCode + 0x08, 0}, {kCode + 0x20, 9}},
         {{0, 0x08, 0}, {0x08, 0x20, 9}}, {{0, 0x08, 10}, {0x08, 0x20, 12}},
         {{2, 1, 0, 0x20, "step(I)I", {{0, 0x10, 20}, {0x10, 0x20, 21}}}}},
    };
    std::vector<std::uint8_t> code(0x100);
    std::iota(code.begin(), code.end(), 0);
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        std::uint32_t lastId = 0;
        const RecordBuilder builder(
            [](std::uint64_t key) { return kMethods.count(key) ? &kMethods.at(key) : nullptr; },
            [&lastId] { return ++lastId; });
        const MethodRecords records = builder.compiledMethod({1, kCode, 0x100, code.data(), test.pcs, test.map}, 77);
        EXPECT_EQ(1u, records.load.rawMethodId);
        EXPECT_EQ(code, records.load.ranges.at(0).bytes);
        // Line table rows run from each entry's first bytecode to the next; the last to the end.
        EXPECT_EQ((std::vector<Row>{{0, 4, 10}, {4, 9, 11}, {9, 20, 12}}), rows(records.load.managedToSource));
        EXPECT_EQ(test.nativeToManaged, rows(records.load.nativeToManaged));
        EXPECT_EQ(test.nativeToSource, rows(records.load.nativeToSource));
        std::vector<Inline> inlines;
        for (const tracewriter::InlineLoad& record : records.inlines) {
            inlines.emplace_back(record.rawMethodId, record.parentRawMethodId, record.startAddr - kCode, record.size,
                                 record.methodName, rows(record.nativeToSource));
            EXPECT_EQ(77u, record.loadTime);
            ASSERT_EQ(record.size, record.bytes.size());
            EXPECT_EQ(record.startAddr - kCode, record.bytes.front());
        }
        EXPECT_EQ(test.inlines, inlines);
    }
}

TEST(RecordBuilder, TextsAreCutToWhatAStringFieldCarries)
{
    // A string field carries 511 bytes at most; the cut keeps a two-byte character whole.
    const std::pair<std::string, std::size_t> texts[] = {
        {"run(I)V", 7}, {std::string(511, 'a'), 511}, {std::string(600, 'a'), 511},
        {std::string(510, 'a') + "\xc3\xa9", 510}, {std::string(70000, 'a'), 511}};
    for (const auto& test : texts)
        EXPECT_EQ(test.second, RecordBuilder::fieldText(test.first).size()) << test.first.size();
}

} // namespace
