#include "jitreader/line_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

using namespace velmark_3_11;

namespace velmark_3_11 {
bool operator==(const LineNumberEntry& a, const LineNumberEntry& b)
{
    return a.start == b.start && a.end == b.end && a.value == b.value;
}
} // namespace velmark_3_11

// Rows come back exactly as an agent wrote them, in order, however far they jump: backwards,
// past 2^31 or ending before they start.
TEST(LineTable, EveryRowComesBackExactly)
{
    const std::vector<std::vector<LineNumberEntry>> cases = {
        {{0, 32, 10}, {32, 64, 11}, {64, 96, 11}, {96, 100, 9}},
        {{0, 0, 0}},
        {{UINT_MAX, 0, UINT_MAX}, {0, UINT_MAX, 0}, {0x80000000u, 0x7fffffffu, 0x80000000u}},
        {{100, 50, 7}, {10, 20, 3000000000u}, {10, 20, 1}, {5, 5, 5}},
    };
    for (const auto& rows : cases) {
        const LineTable table(rows);
        EXPECT_EQ(table.size(), rows.size());
        unsigned int maxEnd = 0;
        for (const LineNumberEntry& row : rows)
            maxEnd = std::max(maxEnd, row.end);
        EXPECT_EQ(table.maxEnd(), maxEnd);
        EXPECT_EQ(table.rows(), rows);
        const LineTable copy = table;
        EXPECT_EQ(copy.rows(), rows);

        LineNumberEntry found{};
        EXPECT_TRUE(table.findIf([&](const LineNumberEntry& r) { return r == rows.back(); }, found));
        EXPECT_EQ(found, rows.back());
        EXPECT_FALSE(table.findIf([](const LineNumberEntry&) { return false; }, found));
    }
    // A table larger than the scratch space kept between tables, and a small one after it.
    std::vector<LineNumberEntry> large;
    for (unsigned int i = 0; i < 10000; ++i)
        large.push_back({i * 0x12345u, i * 0x12345u + 0x1000000u, 0x7fffffffu - i * 77u});
    EXPECT_EQ(LineTable(large).rows(), large);
    EXPECT_EQ(LineTable(cases[0]).rows(), cases[0]);
    EXPECT_TRUE(LineTable().empty());
    EXPECT_TRUE(LineTable(std::vector<LineNumberEntry>()).rows().empty());
}
