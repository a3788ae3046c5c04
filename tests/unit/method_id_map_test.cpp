#include "jitreader/method_id_map.h"

#include <vector>

#include <gtest/gtest.h>

using namespace velmark_3_11;

namespace {

// Stand-ins: the map only keeps and compares pointers.
JitMethod* fake(std::size_t i) { return reinterpret_cast<JitMethod*>(0x1000 + 8 * i); }

} // namespace

// Ids as digests make them and as tools make them up (one half zero, halves equal, a step in the
// high half only) all stay apart through many growths; the first method filed under an id stays.
TEST(MethodIdMapTest, KeepsEveryIdThroughGrowth)
{
    const struct { const char* kind; MethodId (*make)(unsigned long long); } kinds[] = {
        {"digest-like", [](unsigned long long i) { return MethodId(i * 0x9e3779b97f4a7c15ULL, ~i * 0xc2b2ae3dULL); }},
        {"low half only", [](unsigned long long i) { return MethodId(0, i); }},
        {"halves equal", [](unsigned long long i) { return MethodId(i, i); }},
        {"high half steps", [](unsigned long long i) { return MethodId(i << 32, 7); }},
    };
    constexpr std::size_t kCount = 20000;
    for (const auto& kind : kinds) {
        SCOPED_TRACE(kind.kind);
        MethodIdMap map;
        EXPECT_EQ(nullptr, map.find(kind.make(1)));
        for (std::size_t i = 1; i <= kCount; ++i)
            ASSERT_EQ(fake(i), map.insert(kind.make(i), fake(i)));
        for (std::size_t i = 1; i <= kCount; ++i) {
            ASSERT_EQ(fake(i), map.find(kind.make(i))) << i;
            ASSERT_EQ(fake(i), map.insert(kind.make(i), fake(i + kCount))) << i;
        }
        EXPECT_EQ(nullptr, map.find(kind.make(kCount + 1)));
        EXPECT_EQ(kCount, map.size());
        std::size_t visited = 0;
        map.forEach([&visited](JitMethod*) { ++visited; });
        EXPECT_EQ(kCount, visited);
    }
}
