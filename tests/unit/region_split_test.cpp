#include "jitreader/jit_data_manager.h"

#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "unit/store_test_util.h"

using namespace velmark_3_11;
using namespace jrtest;

namespace {

struct Placed {
    unsigned long long start, end, time;
};

/// The pieces that the split added, in the order it added them.
std::vector<std::string> addedPieces(const LogCapture& log)
{
    static const std::regex piece("Added a splitted region \\(ip range = (0x[0-9a-f]+-0x[0-9a-f]+)\\)");
    std::vector<std::string> pieces;
    std::smatch match;
    for (const std::string& text : log.texts(log4cplus::INFO_LOG_LEVEL))
        if (std::regex_match(text, match, piece))
            pieces.push_back(match[1]);
    return pieces;
}

} // namespace

// Each key of the domain as "start-end:load times"; "*" marks the container that the first old
// key had before the split. Copies keep the old times, fresh pieces hold the newcomer only.
TEST(RegionSplitTest, PiecesOfEveryOverlapShape)
{
    const struct {
        const char* shape;
        std::vector<Placed> old;
        Placed incoming;
        std::vector<std::string> order; // pieces in the order of their making
        std::vector<std::string> keys;
    } cases[] = {
        {"same", {{0x1000, 0x1100, 100}}, {0x1000, 0x1100, 200}, {"0x1000-0x1100"}, {"0x1000-0x1100:100,200*"}},
        {"head", {{0x1000, 0x1100, 100}}, {0x1000, 0x1080, 200},
         {"0x1080-0x1100", "0x1000-0x1080"}, {"0x1000-0x1080:100,200*", "0x1080-0x1100:100"}},
        {"past end", {{0x1000, 0x1100, 100}}, {0x1000, 0x1180, 200},
         {"0x1100-0x1180", "0x1000-0x1100"}, {"0x1000-0x1100:100,200*", "0x1100-0x1180:200"}},
        {"tail", {{0x1000, 0x1100, 100}}, {0x1080, 0x1100, 200},
         {"0x1000-0x1080", "0x1080-0x1100"}, {"0x1000-0x1080:100", "0x1080-0x1100:100,200*"}},
        {"inside", {{0x1000, 0x1100, 500}}, {0x1040, 0x1080, 1200},
         {"0x1000-0x1040", "0x1080-0x1100", "0x1040-0x1080"},
         {"0x1000-0x1040:500", "0x1040-0x1080:500,1200*", "0x1080-0x1100:500"}},
        {"tail and past", {{0x1000, 0x1100, 100}}, {0x1080, 0x1180, 200},
         {"0x1000-0x1080", "0x1100-0x1180", "0x1080-0x1100"},
         {"0x1000-0x1080:100", "0x1080-0x1100:100,200*", "0x1100-0x1180:200"}},
        {"before to end", {{0x1000, 0x1100, 100}}, {0xf80, 0x1100, 200},
         {"0xf80-0x1000", "0x1000-0x1100"}, {"0xf80-0x1000:200", "0x1000-0x1100:100,200*"}},
        {"before to inside", {{0x1000, 0x1100, 100}}, {0xf80, 0x1080, 200},
         {"0xf80-0x1000", "0x1080-0x1100", "0x1000-0x1080"},
         {"0xf80-0x1000:200", "0x1000-0x1080:100,200*", "0x1080-0x1100:100"}},
        {"around", {{0x2000, 0x2010, 100}}, {0x1ff0, 0x2020, 200},
         {"0x1ff0-0x2000", "0x2010-0x2020", "0x2000-0x2010"},
         {"0x1ff0-0x2000:200", "0x2000-0x2010:100,200*", "0x2010-0x2020:200"}},
        {"two keys and a hole", {{0x1000, 0x1010, 100}, {0x1020, 0x1030, 150}}, {0x1008, 0x1028, 200},
         {"0x1000-0x1008", "0x1010-0x1028", "0x1008-0x1010", "0x1010-0x1020", "0x1028-0x1030", "0x1020-0x1028"},
         {"0x1000-0x1008:100", "0x1008-0x1010:100,200*", "0x1010-0x1020:200", "0x1020-0x1028:150,200",
          "0x1028-0x1030:150"}},
        {"three keys, covered", {{0x1000, 0x1010, 100}, {0x1020, 0x1030, 100}, {0x1030, 0x1040, 100}},
         {0xff0, 0x1050, 200},
         {"0xff0-0x1000", "0x1010-0x1050", "0x1000-0x1010", "0x1010-0x1020", "0x1030-0x1050", "0x1020-0x1030",
          "0x1040-0x1050", "0x1030-0x1040"},
         {"0xff0-0x1000:200", "0x1000-0x1010:100,200*", "0x1010-0x1020:200", "0x1020-0x1030:100,200",
          "0x1030-0x1040:100,200", "0x1040-0x1050:200"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shape);
        JitDataManager store;
        unsigned long long jitRva = 1;
        unsigned int rawId = 1;
        for (const Placed& p : c.old) {
            const auto length = static_cast<unsigned int>(p.end - p.start);
            ASSERT_EQ(meSuccess, load(store, makeMethod(rawId++, p.time, {{p.start, length, jitRva}})));
            jitRva += length;
        }
        const auto* firstContainer = store.getRegionDomain(7, 1)->begin()->second.get();

        LogCapture log(log4cplus::INFO_LOG_LEVEL);
        const auto length = static_cast<unsigned int>(c.incoming.end - c.incoming.start);
        ASSERT_EQ(meSuccess, load(store, makeMethod(0x99, c.incoming.time, {{c.incoming.start, length, jitRva}})));

        EXPECT_EQ(c.order, addedPieces(log));
        EXPECT_EQ(c.keys, describeDomain(store, 7, 1, firstContainer));
        for (const auto& method : store.methodList())
            EXPECT_EQ(method->getRawMethodId() == 0x99 ? 0u : c.incoming.time, method->regions()[0]->unloadTime());
    }
}

// Unload times follow arrival, not time order: an older late-comer closes nothing, and an
// unload time once set stays.
TEST(RegionSplitTest, LoadOrdersOnOneRange)
{
    const struct {
        std::vector<unsigned long long> loads;
        std::vector<unsigned long long> unloads;
        std::vector<std::pair<unsigned long long, int>> samples; // time, index of the load or -1
    } cases[] = {
        {{100, 200, 300}, {200, 300, 0}, {{99, -1}, {100, 0}, {199, 0}, {200, 1}, {250, 1}, {300, 2}, {9999, 2}}},
        {{300, 100}, {0, 0}, {{150, 1}, {299, 1}, {300, 0}}},
        {{100, 300, 200}, {300, 0, 0}, {{150, 0}, {250, 2}, {300, 1}}},
    };
    for (const auto& c : cases) {
        JitDataManager store;
        for (std::size_t i = 0; i < c.loads.size(); ++i)
            ASSERT_EQ(meSuccess, load(store, makeMethod(static_cast<unsigned int>(i + 1), c.loads[i],
                                                        {{0x1000, 0x100, 1 + 0x100 * i}})));
        for (std::size_t i = 0; i < c.loads.size(); ++i)
            EXPECT_EQ(c.unloads[i], store.methodList()[i]->regions()[0]->unloadTime()) << "load " << i;
        for (const auto& sample : c.samples) {
            MethodPtr method;
            unsigned long long jitRva = 0;
            const auto result = store.resolveJitPoint(0x1010, sample.first, 7, 1, method, jitRva);
            if (sample.second < 0) {
                EXPECT_EQ(meFail, result) << sample.first;
            } else {
                ASSERT_EQ(meSuccess, result) << sample.first;
                EXPECT_EQ(static_cast<unsigned int>(sample.second + 1), method->getRawMethodId()) << sample.first;
                EXPECT_EQ(1 + 0x100 * sample.second + 0x10, jitRva);
            }
        }
    }
}

TEST(RegionSplitTest, SameLoadTimeTwiceIsRefused)
{
    JitDataManager store;
    ASSERT_EQ(meSuccess, load(store, makeMethod(1, 100, {{0x1000, 0x100, 1}})));
    LogCapture log(log4cplus::TRACE_LOG_LEVEL);
    EXPECT_EQ(meBadTrace, load(store, makeMethod(2, 100, {{0x1000, 0x100, 0x101}})));
    EXPECT_EQ((std::vector<std::string>{"Couldn't add a splitted region (ip range = 0x1000-0x1100, loadTime=0x64) in "
                                        "the single time domain"}),
              log.texts(log4cplus::ERROR_LOG_LEVEL));
    EXPECT_EQ(std::vector<std::string>{"0x1000-0x1100:100"}, describeDomain(store));
    EXPECT_EQ(0u, store.methodList()[0]->regions()[0]->unloadTime());
}
