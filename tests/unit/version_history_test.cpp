#include "jitreader/version_history.h"

#include <gtest/gtest.h>

#include "jitreader/region.h"

using namespace velmark_3_11;

namespace {

JitMethod* fake(std::size_t i) { return reinterpret_cast<JitMethod*>(0x1000 + 8 * i); }

Region regionAt(unsigned long long loadTime, unsigned long long startJitRva, unsigned int length)
{
    return Region(7, 1, loadTime, startJitRva, 0x1000, length, nullptr);
}

} // namespace

// Only a region of no bytes can share its start jit rva with another (the jit rva map refuses
// any other): the later one is placed, but keeps the first owner and is reported; a load time
// already there is refused and changes nothing.
TEST(VersionHistoryTest, SharedStartsKeepTheFirstOwner)
{
    VersionHistory::Arena arena;
    Region empty = regionAt(100, 0x50, 0), full = regionAt(200, 0x50, 16), again = regionAt(100, 0x60, 16);
    VersionHistory history;
    EXPECT_TRUE(history.accepts(empty));
    EXPECT_FALSE(history.add(empty, fake(1), arena).startJitRvaTaken);
    EXPECT_FALSE(history.accepts(full));
    const VersionHistory::Placed placed = history.add(full, fake(2), arena);
    EXPECT_TRUE(placed.added && placed.startJitRvaTaken);
    EXPECT_EQ(&empty, placed.closed);
    EXPECT_EQ(200u, empty.unloadTime());
    EXPECT_EQ(fake(1), history.newest()->owner);

    EXPECT_FALSE(history.accepts(again));
    EXPECT_FALSE(history.add(again, fake(3), arena).added);
    EXPECT_EQ(2u, history.size());
    EXPECT_EQ(&empty, history.at(150)->region);
    EXPECT_EQ(&full, history.after(150)->region);
    EXPECT_EQ(nullptr, history.at(99));
    EXPECT_EQ(nullptr, history.after(200));
}
