#include "jitreader/huge_pages.h"

#include <cstdint>
#include <utility>

#include <gtest/gtest.h>

using namespace velmark_3_11;

namespace {

bool alignedTo(const void* p, std::uintptr_t alignment)
{
    return reinterpret_cast<std::uintptr_t>(p) % alignment == 0;
}

} // namespace

// Arrays below half a huge page stay on the heap, larger ones start on a huge page; all of them
// keep what is written to every element, and a move hands the elements over.
TEST(HugePagesTest, ArraysHoldTheirElementsWhereverTheyLive)
{
    const struct { std::size_t count; bool onHugePage; } cases[] = {
        {0, false}, {1, false}, {3, false}, {1000, false}, {(1 << 17) - 1, false}, {1 << 17, true}, {300001, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.count);
        HugePageArray<unsigned long long> array(c.count);
        ASSERT_EQ(c.count, array.size());
        EXPECT_EQ(c.count == 0, array.data() == nullptr);
        EXPECT_TRUE(alignedTo(array.data(), 64));
        EXPECT_TRUE(!c.onHugePage || alignedTo(array.data(), 2 * 1024 * 1024));
        for (std::size_t i = 0; i < c.count; ++i)
            array[i] = i * 3 + 1;
        const unsigned long long* data = array.data();
        HugePageArray<unsigned long long> moved;
        moved = std::move(array);
        EXPECT_EQ(nullptr, array.data());
        EXPECT_EQ(0u, array.size());
        ASSERT_EQ(data, moved.data());
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < c.count; ++i)
            wrong += moved[i] != i * 3 + 1;
        EXPECT_EQ(0u, wrong);
    }
    EXPECT_EQ(nullptr, mapHugePages(0));
    EXPECT_EQ(nullptr, mapHugePages(~std::size_t(0) - 4096)); // rounding it up would wrap
}
