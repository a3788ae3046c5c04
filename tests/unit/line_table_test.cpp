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

class LineTableProbe {
public:
    static std::size_t bytes(const LineTable& table) { return table.byteSize(); }
};
} // namespace velmark_3_11

namespace {

/// The rows as a trace file holds them: three little-endian words each.
std::vector<unsigned char> fileRows(const std::vector<LineNumberEntry>& rows)
{
    std::vector<unsigned char> bytes;
    for (const LineNumberEntry& row : rows) {
        for (const unsigned int word : {row.start, row.end, row.value}) {
            for (int shift = 0; shift < 32; shift += 8)
                bytes.push_back(static_cast<unsigned char>(word >> shift));
        }
    }
    return bytes;
}

} // namespace

// Rows come back exactly as an agent wrote them, in order, however far they jump: backwards,
// past 2^31 or ending before they start. A usual row takes one or two bytes; one just past
// what those hold takes the general form. A small table has six bytes of header.
TEST(LineTable, EveryRowComesBackExactly)
{
    const struct { std::vector<LineNumberEntry> rows; std::size_t bytes; } cases[] = {
        {{{0, 32, 10}, {32, 64, 11}, {64, 96, 11}, {96, 100, 9}}, 6 + 2 + 1 + 2 + 2},
        {{{0, 0, 0}}, 6 + 2},
        // The largest length and steps of the two-byte form, then the first ones past them.
        {{{0, 511, 31}, {511, 1022, UINT_MAX}}, 6 + 2 + 2},
        {{{0, 512, 31}}, 6 + 4},
        {{{0, 511, 32}}, 6 + 4},
        {{{0, 511, UINT_MAX - 32}}, 6 + 4},
        // The one-byte form: a step of one and a length under 64, nothing else.
        {{{0, 63, 1}, {63, 63, 2}}, 6 + 1 + 1},
        {{{0, 64, 1}, {64, 127, 1}, {127, 190, 3}}, 6 + 2 + 2 + 2},
        // A gap, an overlap, a row ending before it starts, a first row not at zero.
        {{{0, 10, 1}, {11, 20, 2}, {15, 30, 3}, {30, 25, 4}}, 6 + 1 + 4 + 4 + 3},
        {{{4096, 4100, 1}}, 6 + 5},
        {{{UINT_MAX, 0, UINT_MAX}, {0, UINT_MAX, 0}, {0x80000000u, 0x7fffffffu, 0x80000000u}}, 6 + 4 + 3 + 12},
        {{{100, 50, 7}, {10, 20, 3000000000u}, {10, 20, 1}, {5, 5, 5}}, 6 + 5 + 8 + 8 + 4},
        // Differences wider than the row's three words: the words themselves, and the row after
        // them follows on from those.
        {{{0x40000000u, 0x10000000u, 10000}, {0x10000000u, 0x10000010u, 10001}}, 6 + 13 + 1},
        {{{0x40000000u, 0x10000000u, 100}}, 6 + 13},
        {{{0x40000000u, 0x10000000u, 10}}, 6 + 12},
    };
    for (const auto& c : cases) {
        const std::vector<LineNumberEntry>& rows = c.rows;
        const LineTable table(rows);
        EXPECT_EQ(table.size(), rows.size());
        unsigned int maxEnd = 0;
        for (const LineNumberEntry& row : rows)
            maxEnd = std::max(maxEnd, row.end);
        EXPECT_EQ(table.maxEnd(), maxEnd);
        EXPECT_EQ(table.rows(), rows);
        EXPECT_EQ(LineTableProbe::bytes(table), c.bytes) << "first row " << rows[0].start << "-" << rows[0].end;
        const LineTable copy = table;
        EXPECT_EQ(copy.rows(), rows);
        const std::vector<unsigned char> file = fileRows(rows);
        EXPECT_EQ(LineTable::fromFileRows(file.data(), rows.size()).rows(), rows);

        LineNumberEntry found{};
        EXPECT_TRUE(table.findIf([&](const LineNumberEntry& r) { return r == rows.back(); }, found));
        EXPECT_EQ(found, rows.back());
        EXPECT_FALSE(table.findIf([](const LineNumberEntry&) { return false; }, found));
    }
    // A contiguous table of short rows whose value moves a little either way, larger than the
    // scratch space kept between tables, costs two bytes a row and a header; a small one follows it.
    std::vector<LineNumberEntry> large;
    for (unsigned int i = 0, offset = 0, line = 1200, seed = 7; i < 10000; ++i, offset = large.back().end) {
        seed = seed * 1103515245u + 12345u;
        line += (seed >> 20) % 41 - 20;
        large.push_back({offset, offset + 1 + (seed >> 8) % 400, line});
    }
    const LineTable table(large);
    EXPECT_EQ(table.rows(), large);
    EXPECT_EQ(table.maxEnd(), large.back().end);
    EXPECT_LE(LineTableProbe::bytes(table), 2 * large.size() + 16);
    EXPECT_EQ(LineTable(cases[0].rows).rows(), cases[0].rows);
    EXPECT_TRUE(LineTable().empty());
    EXPECT_TRUE(LineTable(std::vector<LineNumberEntry>()).rows().empty());
}
