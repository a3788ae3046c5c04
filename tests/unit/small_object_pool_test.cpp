#include "jitreader/small_object_pool.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace velmark_3_11;

namespace {

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

} // namespace

// Blocks of every size, many slabs' worth, freed in an order other than the one they came in:
// each is aligned, none overlaps another (each keeps its own bytes), freed slots are handed out
// again, and once all are back the pool holds no slab and at most one huge page.
TEST(SmallObjectPoolTest, BlocksKeepTheirBytesAndAllComeBack)
{
    const SmallObjectPool::Usage before = SmallObjectPool::usage();
    const std::size_t sizes[] = {1, 8, 9, 17, 48, 88, 192, 200, 500, SmallObjectPool::kLargest,
                                 SmallObjectPool::kLargest + 1, 4096};
    std::vector<Block> blocks;
    for (int round = 0; round < 3000; ++round) {
        for (std::size_t size : sizes)
            blocks.push_back(take(size, static_cast<unsigned char>(blocks.size())));
    }
    std::size_t misaligned = 0;
    for (const Block& block : blocks)
        misaligned += reinterpret_cast<std::uintptr_t>(block.at) % SmallObjectPool::kAlignment != 0;
    EXPECT_EQ(0u, misaligned);
    EXPECT_EQ(before.objects + 3000 * 10, SmallObjectPool::usage().objects); // the two larger are on the heap
    EXPECT_GT(SmallObjectPool::usage().hugePages, before.hugePages);

    // Every other round's blocks back, then as many again: each size keeps half its slots in
    // use, and the slots freed are the ones taken again.
    const std::size_t perRound = sizeof sizes / sizeof sizes[0];
    auto freedRound = [&](std::size_t i) { return i / perRound % 2 == 0; };
    std::vector<unsigned char*> freed;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        if (freedRound(i)) {
            freed.push_back(blocks[i].at);
            SmallObjectPool::deallocate(blocks[i].at, blocks[i].size);
        }
    }
    const std::size_t pagesWithHoles = SmallObjectPool::usage().hugePages;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        if (freedRound(i))
            blocks[i] = take(blocks[i].size, static_cast<unsigned char>(~i));
    }
    EXPECT_EQ(pagesWithHoles, SmallObjectPool::usage().hugePages);
    std::sort(freed.begin(), freed.end());
    std::size_t reused = 0;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        reused += freedRound(i) && blocks[i].size <= SmallObjectPool::kLargest &&
                  std::binary_search(freed.begin(), freed.end(), blocks[i].at);
    }
    EXPECT_EQ(1500u * 10, reused);

    std::size_t damaged = 0;
    for (const Block& block : blocks)
        damaged += !intact(block);
    EXPECT_EQ(0u, damaged);

    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it)
        SmallObjectPool::deallocate(it->at, it->size);
    const SmallObjectPool::Usage after = SmallObjectPool::usage();
    EXPECT_EQ(before.objects, after.objects);
    EXPECT_EQ(before.slabs, after.slabs);
    EXPECT_LE(after.hugePages, std::max<std::size_t>(before.hugePages, 1));
}

// Threads that take and give back blocks at once, including blocks that other threads took,
// leave every block intact and the pool as it was.
TEST(SmallObjectPoolTest, ThreadsShareThePool)
{
    const SmallObjectPool::Usage before = SmallObjectPool::usage();
    constexpr int kThreads = 4;
    std::vector<std::vector<Block>> handedOver(kThreads);
    std::vector<std::size_t> damaged(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &handedOver, &damaged] {
            std::vector<Block> own;
            for (int i = 0; i < 20000; ++i) {
                own.push_back(take(16 + (i % 13) * 24, static_cast<unsigned char>(t * 31 + i)));
                if (i % 3 == 0) {
                    damaged[t] += !intact(own.front());
                    SmallObjectPool::deallocate(own.front().at, own.front().size);
                    own.erase(own.begin());
                }
            }
            handedOver[t] = std::move(own);
        });
    }
    for (auto& thread : threads)
        thread.join();
    threads.clear();
    // Each thread gives back another thread's blocks.
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &handedOver, &damaged] {
            for (const Block& block : handedOver[(t + 1) % kThreads]) {
                damaged[t] += !intact(block);
                SmallObjectPool::deallocate(block.at, block.size);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(0u, damaged[t]) << "thread " << t;
    EXPECT_EQ(before.objects, SmallObjectPool::usage().objects);
    EXPECT_EQ(before.slabs, SmallObjectPool::usage().slabs);
}

// The allocator serves a standard map, and refuses a count whose bytes overflow.
TEST(SmallObjectPoolTest, AllocatorServesStandardContainers)
{
    std::map<int, int, std::less<int>, PoolAllocator<std::pair<const int, int>>> map;
    for (int i = 0; i < 10000; ++i)
        map.emplace(i * 7 % 10007, i);
    EXPECT_EQ(10000u, map.size());
    EXPECT_EQ(1, map.at(7));
    PoolAllocator<int> ints;
    EXPECT_THROW(ints.allocate(~std::size_t(0) / 2), std::bad_array_new_length);
}
