#include "jitreader/range.h"

#include <map>

#include <gtest/gtest.h>

#include "jitreader/method_id.h"

namespace velmark_3_11 {
namespace {

typedef std::map<Range, int, Range::Comparator> RangeMap;

// Overlap as equivalence and the order of touching ranges are what every store test relies on;
// only a range that wraps around the top needs a case of its own.
TEST(Range, RangeRunningPastTheTopOfTheAddressSpaceKeepsTheOrder)
{
    const unsigned long long top = ~0ull;
    RangeMap map;
    ASSERT_TRUE(map.emplace(Range(0x100, 0x100), 1).second);
    ASSERT_TRUE(map.emplace(Range(top - 0xf, 0x20), 2).second); // the sum wraps around
    ASSERT_TRUE(map.emplace(Range(0x1000, 0x10), 3).second);
    EXPECT_FALSE(map.emplace(Range(top - 1, 1), 4).second);
    EXPECT_EQ(2, map.find(Range(top - 0xf, 1))->second);
    EXPECT_EQ(1, map.find(Range(0x180, 1))->second);
    EXPECT_EQ(3, std::prev(map.end(), 2)->second);
    map.erase(map.find(Range(0x1000, 1)));
    EXPECT_EQ(2u, map.size());
    EXPECT_EQ(2, std::prev(map.end())->second);
}

TEST(MethodId, OrderedByHalvesAndEmptyOnlyWhenBothAreZero)
{
    EXPECT_TRUE(MethodId().isEmpty());
    EXPECT_FALSE(MethodId(0, 1).isEmpty());
    EXPECT_FALSE(MethodId(1, 0).isEmpty());
    EXPECT_LT(MethodId(1, 9), MethodId(2, 0));
    EXPECT_LT(MethodId(1, 1), MethodId(1, 2));
    EXPECT_FALSE(MethodId(1, 2) < MethodId(1, 2));
}

} // namespace
} // namespace velmark_3_11
