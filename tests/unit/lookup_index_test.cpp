#include "jitreader/lookup_index.h"

#include <random>
#include <set>
#include <utility>

#include <gtest/gtest.h>

namespace velmark_3_11 {
namespace {

// The summary is searched only over blocks that begin inside the run asked about, so runs that
// start and end at every offset of a block, next to runs of larger and smaller keys, are where
// a wrong block bound would show. The store tests cover what the index answers.
TEST(SortedStarts, FindsTheLastKeyAtOrBelowAValueInsideEachRun)
{
    std::mt19937_64 random(7);
    for (int round = 0; round < 50; ++round) {
        SortedStarts starts;
        std::vector<std::pair<std::size_t, std::size_t>> runs;
        for (int run = 0; run < 6; ++run) {
            std::set<unsigned long long> keys;
            const std::size_t length = random() % 70;
            while (keys.size() < length)
                keys.insert(random() % 5000);
            const std::size_t first = starts.size();
            for (const unsigned long long key : keys)
                starts.push_back(key);
            runs.emplace_back(first, starts.size());
        }
        starts.seal();

        for (const auto& run : runs) {
            std::vector<unsigned long long> probes = {0, 4999, ~0ull};
            for (std::size_t i = run.first; i < run.second; ++i)
                probes.insert(probes.end(), {starts[i] - 1, starts[i], starts[i] + 1});
            for (const unsigned long long probe : probes) {
                std::size_t expected = run.second;
                for (std::size_t i = run.first; i < run.second; ++i)
                    if (starts[i] <= probe)
                        expected = i;
                ASSERT_EQ(expected, starts.lastAtOrBelow(run.first, run.second, probe))
                    << "run [" << run.first << ", " << run.second << "), probe " << probe;
            }
        }
    }
}

} // namespace
} // namespace velmark_3_11
