// The allocators: arrays on huge pages, the pool of small objects and the arena of code bytes.
#include <algorithm>
#include <cstring>
#include <map>
#include <numeric>
#include <thread>

#include <gtest/gtest.h>

#include "jitreader/code_arena.h"
#include "jitreader/huge_pages.h"
#include "jitreader/small_object_pool.h"

using namespace velmark_3_11;

namespace {

bool alignedTo(const void* p, std::uintptr_t alignment) { return reinterpret_cast<std::uintptr_t>(p) % alignment == 0; }

struct Block { unsigned char* at; std::size_t size; unsigned char mark; };

Block take(std::size_t size, unsigned char mark)
{
    auto* at = static_cast<unsigned char*>(SmallObjectPool::allocate(size));
    std::memset(at, mark, size);
    return {at, size, mark};
}

bool intact(const Block& block)
{
    return std::all_of(block.at, block.at + block.size, [&](unsigned char b) { return b == block.mark; });
}

std::vector<unsigned char> pattern(std::size_t size, unsigned char seed)
{
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), seed);
    return bytes;
}

std::vector<unsigned char> contentOf(IByteBuffer& buffer)
{
    const auto* data = static_cast<const unsigned char*>(buffer.getData());
    return data ? std::vector<unsigned char>(data, data + buffer.getSize()) : std::vector<unsigned char>();
}

} // namespace

// Arrays below half a huge page stay on the heap, larger ones start on one; a move hands over.
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
        EXPECT_TRUE(array.data() == nullptr && array.size() == 0);
        ASSERT_EQ(data, moved.data());
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < c.count; ++i)
            wrong += moved[i] != i * 3 + 1;
        EXPECT_EQ(0u, wrong);
    }
    EXPECT_EQ(nullptr, mapHugePages(0));
    EXPECT_EQ(nullptr, mapHugePages(~std::size_t(0) - 4096)); // rounding it up would wrap
}

// Blocks of every size, freed out of order: aligned, apart, reused; at the end no slab is held.
TEST(SmallObjectPoolTest, BlocksKeepTheirBytesAndAllComeBack)
{
    const SmallObjectPool::Usage before = SmallObjectPool::usage();
    const std::size_t sizes[] = {1, 8, 9, 17, 48, 88, 192, 200, 500, SmallObjectPool::kLargest,
                                 SmallObjectPool::kLargest + 1, 4096};
    std::vector<Block> blocks;
    for (int round = 0; round < 3000; ++round)
        for (std::size_t size : sizes)
            blocks.push_back(take(size, static_cast<unsigned char>(blocks.size())));
    EXPECT_TRUE(std::all_of(blocks.begin(), blocks.end(),
                            [](const Block& b) { return alignedTo(b.at, SmallObjectPool::kAlignment); }));
    EXPECT_EQ(before.objects + 3000 * 10, SmallObjectPool::usage().objects); // the two larger are on the heap
    EXPECT_GT(SmallObjectPool::usage().hugePages, before.hugePages);

    // Every other round's blocks back, then as many again: each size keeps half its slots in
    // use, and the slots freed are the ones taken again.
    auto freedRound = [&](std::size_t i) { return i / std::size(sizes) % 2 == 0; };
    std::vector<unsigned char*> freed;
    for (std::size_t i = 0; i < blocks.size(); ++i)
        if (freedRound(i)) {
            freed.push_back(blocks[i].at);
            SmallObjectPool::deallocate(blocks[i].at, blocks[i].size);
        }
    const std::size_t pagesWithHoles = SmallObjectPool::usage().hugePages;
    for (std::size_t i = 0; i < blocks.size(); ++i)
        if (freedRound(i))
            blocks[i] = take(blocks[i].size, static_cast<unsigned char>(~i));
    EXPECT_EQ(pagesWithHoles, SmallObjectPool::usage().hugePages);
    std::sort(freed.begin(), freed.end());
    std::size_t reused = 0;
    for (std::size_t i = 0; i < blocks.size(); ++i)
        reused += freedRound(i) && blocks[i].size <= SmallObjectPool::kLargest &&
                  std::binary_search(freed.begin(), freed.end(), blocks[i].at);
    EXPECT_EQ(1500u * 10, reused);
    EXPECT_TRUE(std::all_of(blocks.begin(), blocks.end(), intact));

    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it)
        SmallObjectPool::deallocate(it->at, it->size);
    const SmallObjectPool::Usage after = SmallObjectPool::usage();
    EXPECT_TRUE(after.objects == before.objects && after.slabs == before.slabs);
    EXPECT_LE(after.hugePages, std::max<std::size_t>(before.hugePages, 1));
}

// Threads give back blocks that other threads took.
TEST(SmallObjectPoolTest, ThreadsShareThePool)
{
    const SmallObjectPool::Usage before = SmallObjectPool::usage();
    constexpr int kThreads = 4;
    std::vector<std::vector<Block>> handedOver(kThreads);
    std::vector<std::size_t> damaged(kThreads);
    // Each thread takes and gives back its own blocks, then gives back another thread's.
    for (const bool own : {true, false}) {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([t, own, &handedOver, &damaged] {
                if (!own)
                    for (const Block& block : handedOver[(t + 1) % kThreads]) {
                        damaged[t] += !intact(block);
                        SmallObjectPool::deallocate(block.at, block.size);
                    }
                for (int i = 0; own && i < 20000; ++i) {
                    handedOver[t].push_back(take(16 + (i % 13) * 24, static_cast<unsigned char>(t * 31 + i)));
                    if (i % 3 == 0) {
                        damaged[t] += !intact(handedOver[t].front());
                        SmallObjectPool::deallocate(handedOver[t].front().at, handedOver[t].front().size);
                        handedOver[t].erase(handedOver[t].begin());
                    }
                }
            });
        for (auto& thread : threads)
            thread.join();
    }
    EXPECT_EQ(std::vector<std::size_t>(kThreads, 0), damaged);
    EXPECT_TRUE(SmallObjectPool::usage().objects == before.objects && SmallObjectPool::usage().slabs == before.slabs);
}

// The allocator serves a standard map, and refuses a count whose bytes overflow.
TEST(SmallObjectPoolTest, AllocatorServesStandardContainers)
{
    std::map<int, int, std::less<int>, PoolAllocator<std::pair<const int, int>>> map;
    for (int i = 0; i < 10000; ++i)
        map.emplace(i * 7 % 10007, i);
    EXPECT_TRUE(map.size() == 10000u && map.at(7) == 1);
    EXPECT_THROW(PoolAllocator<int>().allocate(~std::size_t(0) / 2), std::bad_array_new_length);
}

// Rewrites that fit, that grow, that copy from the buffer's own storage; small buffers share chunks.
TEST(CodeArenaTest, BuffersKeepTheirBytesThroughRewritesAndOutliveTheArena)
{
    constexpr std::size_t kElsewhere = std::string::npos;
    const struct {
        std::size_t size;
        std::size_t rewrite;    // bytes written by setData
        std::size_t fromOffset; // where in the buffer's own bytes the rewrite reads
    } cases[] = {
        {1, 1, kElsewhere}, {100, 40, kElsewhere}, {100, 101, kElsewhere}, {100, 60, 30}, {100, 100, 0},
        {4000, 3000, 1000}, {64 * 1024 + 1, 10, kElsewhere}, {64 * 1024 + 1, 70 * 1024, kElsewhere},
        {300, 0, kElsewhere},
    };
    std::vector<boost::shared_ptr<IByteBuffer>> buffers;
    std::vector<std::vector<unsigned char>> expected;
    {
        CodeArena arena;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.size);
            const std::vector<unsigned char> original = pattern(c.size, static_cast<unsigned char>(c.size));
            buffers.push_back(arena.copy(original.data(), static_cast<unsigned int>(original.size())));
            IByteBuffer& buffer = *buffers.back();
            ASSERT_EQ(original, contentOf(buffer));
            const auto* own = static_cast<const unsigned char*>(buffer.getData());
            expected.push_back(c.fromOffset == kElsewhere
                                   ? pattern(c.rewrite, 7)
                                   : std::vector<unsigned char>(own + c.fromOffset, own + c.fromOffset + c.rewrite));
            buffer.setData(c.fromOffset == kElsewhere ? expected.back().data() : own + c.fromOffset,
                           static_cast<unsigned int>(c.rewrite));
            EXPECT_EQ(expected.back(), contentOf(buffer));
        }
        // A fresh copy after all that lands beside the others without touching them.
        expected.push_back(pattern(500, 99));
        buffers.push_back(arena.copy(expected.back().data(), 500));
    }
    for (std::size_t i = 0; i < buffers.size(); ++i)
        EXPECT_EQ(expected[i], contentOf(*buffers[i])) << "buffer " << i;
}
