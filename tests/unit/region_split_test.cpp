// How loads over the same addresses cut keys and end lives, and the version history of one key.
#include "jitreader/jit_data_manager.h"

#include <random>

#include <gtest/gtest.h>

#include "jitreader/version_history.h"
#include "support/log_capture.h"
#include "unit/store_test_util.h"

using namespace velmark_3_11;
using namespace jrtest;

namespace {
struct Placed { unsigned long long start, end, time; };
} // namespace

// Each key of the domain as "start-end:load times": pieces under the newcomer hold the old
// times and its own, the others keep what they had; the holes between old keys are filled. (An
// exact overlap, and one inside, are those of LoadOrdersOnOneRange and of the store's merge test.)
TEST(RegionSplitTest, PiecesOfEveryOverlapShape)
{
    const std::vector<Placed> one = {{0x1000, 0x1100, 100}};
    const struct {
        const char* shape;
        std::vector<Placed> old;
        Placed incoming;
        std::vector<std::string> keys;
    } cases[] = {
        {"head", one, {0x1000, 0x1080, 200}, {"0x1000-0x1080:100,200", "0x1080-0x1100:100"}},
        {"past end", one, {0x1000, 0x1180, 200}, {"0x1000-0x1100:100,200", "0x1100-0x1180:200"}},
        {"tail", one, {0x1080, 0x1100, 200}, {"0x1000-0x1080:100", "0x1080-0x1100:100,200"}},
        {"tail and past", one, {0x1080, 0x1180, 200},
         {"0x1000-0x1080:100", "0x1080-0x1100:100,200", "0x1100-0x1180:200"}},
        {"before to end", one, {0xf80, 0x1100, 200}, {"0xf80-0x1000:200", "0x1000-0x1100:100,200"}},
        {"before to inside", one, {0xf80, 0x1080, 200},
         {"0xf80-0x1000:200", "0x1000-0x1080:100,200", "0x1080-0x1100:100"}},
        {"around", one, {0xf80, 0x1180, 200}, {"0xf80-0x1000:200", "0x1000-0x1100:100,200", "0x1100-0x1180:200"}},
        {"two keys and a hole", {{0x1000, 0x1010, 100}, {0x1020, 0x1030, 150}}, {0x1008, 0x1028, 200},
         {"0x1000-0x1008:100", "0x1008-0x1010:100,200", "0x1010-0x1020:200", "0x1020-0x1028:150,200",
          "0x1028-0x1030:150"}},
        {"three keys, covered", {{0x1000, 0x1010, 100}, {0x1020, 0x1030, 100}, {0x1030, 0x1040, 100}},
         {0xff0, 0x1050, 200},
         {"0xff0-0x1000:200", "0x1000-0x1010:100,200", "0x1010-0x1020:200", "0x1020-0x1030:100,200",
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
        const Placed& n = c.incoming;
        ASSERT_EQ(meSuccess, load(store, makeMethod(0x99, n.time, {{n.start, unsigned(n.end - n.start), jitRva}})));
        EXPECT_EQ(c.keys, describeDomain(store));
        // The whole of every old region is gone from the newcomer's load on.
        for (const auto& method : store.methodList())
            EXPECT_EQ(method->getRawMethodId() == 0x99 ? 0u : n.time, method->regions()[0]->unloadTime());
    }
}

// Unload times follow arrival, not time order: an older late-comer closes nothing, and an
// unload time once set stays.
TEST(RegionSplitTest, LoadOrdersOnOneRange)
{
    const struct {
        std::vector<unsigned long long> loads, unloads;
        std::vector<std::pair<unsigned long long, int>> samples; // time, index of the load or -1
    } cases[] = {
        {{100, 200, 300}, {200, 300, 0}, {{99, -1}, {100, 0}, {199, 0}, {200, 1}, {250, 1}, {300, 2}, {9999, 2}}},
        {{300, 100}, {0, 0}, {{150, 1}, {299, 1}, {300, 0}}},
        {{100, 300, 200}, {300, 0, 0}, {{150, 0}, {250, 2}, {300, 1}}},
    };
    for (const auto& c : cases) {
        JitDataManager store;
        for (unsigned int i = 0; i < c.loads.size(); ++i)
            ASSERT_EQ(meSuccess, load(store, makeMethod(i + 1, c.loads[i], {{0x1000, 0x100, 1 + 0x100ull * i}})));
        for (std::size_t i = 0; i < c.loads.size(); ++i)
            EXPECT_EQ(c.unloads[i], store.methodList()[i]->regions()[0]->unloadTime()) << "load " << i;
        for (const auto& sample : c.samples) {
            MethodPtr method;
            unsigned long long jitRva = 0;
            EXPECT_EQ(sample.second < 0 ? meFail : meSuccess,
                      store.resolveJitPoint(0x1010, sample.first, 7, 1, method, jitRva));
            EXPECT_EQ(sample.second < 0 ? 0 : 0x11 + 0x100ull * sample.second, jitRva) << sample.first;
        }
    }
}

// Keys are cut in place while nothing is logged, and through the logged path otherwise: both
// leave the same keys, times and lives, and refuse the same records with the same message, also
// where a record fails half way.
TEST(RegionSplitTest, QuietAndLoggedCutsAgree)
{
    std::mt19937 random(7);
    const auto draw = [&random](unsigned int below) { return static_cast<unsigned int>(random() % below); };
    JitDataManager quiet, logged;
    unsigned long long jitRva = 1, time = 1000;
    std::size_t refused = 0;
    for (unsigned int rawId = 1; rawId <= 400; ++rawId) {
        // Mostly later code, now and then code as old as or older than some already there.
        time = draw(8) == 0 ? time - draw(20) : time + 1 + draw(3);
        const unsigned int length = 1 + draw(0x80);
        const CodeRange range = {0x1000 + draw(0x400), length, jitRva};
        jitRva += length;
        LogCapture errors(log4cplus::ERROR_LOG_LEVEL);
        const velmark_error_t result = load(quiet, makeMethod(rawId, time, {range}));
        const std::vector<std::string> quietErrors = errors.texts(log4cplus::ERROR_LOG_LEVEL);
        {
            LogCapture all(log4cplus::INFO_LOG_LEVEL);
            ASSERT_EQ(result, load(logged, makeMethod(rawId, time, {range}))) << rawId;
            EXPECT_EQ(all.texts(log4cplus::ERROR_LOG_LEVEL), quietErrors) << rawId;
        }
        refused += result != meSuccess;
        ASSERT_EQ(describeDomain(logged), describeDomain(quiet)) << rawId;
    }
    EXPECT_GT(refused, 5u);
    ASSERT_EQ(logged.methodList().size(), quiet.methodList().size());
    for (std::size_t i = 0; i < quiet.methodList().size(); ++i)
        EXPECT_EQ(logged.methodList()[i]->regions()[0]->unloadTime(),
                  quiet.methodList()[i]->regions()[0]->unloadTime());
}

// Against a model: a key lies between two neighbouring ends of loaded regions and holds the load
// times of all regions over it, whatever order they came in; a region's arrival ends the life of
// the latest region loaded before it over each of its keys, unless that one's has ended already.
// Histories that cut keys share are made again where an older region arrives in one of them.
TEST(RegionSplitTest, KeysAndLivesFollowTheModel)
{
    std::mt19937 random(11);
    const auto draw = [&random](unsigned int below) { return static_cast<unsigned int>(random() % below); };
    std::vector<Placed> loads;
    std::set<unsigned long long> times;
    while (loads.size() < 300) {
        const unsigned long long time = 10 * loads.size() + draw(40); // mostly rising, often not
        if (!times.insert(time).second)
            continue;
        const unsigned long long start = 0x1000 + draw(0x400);
        loads.push_back({start, start + 1 + draw(0x80), time});
    }
    JitDataManager store;
    unsigned long long jitRva = 1;
    for (std::size_t i = 0; i < loads.size(); ++i) {
        const auto length = static_cast<unsigned int>(loads[i].end - loads[i].start);
        const CodeRange range = {loads[i].start, length, jitRva};
        ASSERT_EQ(meSuccess, load(store, makeMethod(unsigned(i + 1), loads[i].time, {range})));
        jitRva += length;
    }

    std::set<unsigned long long> ends;
    for (const Placed& p : loads)
        ends.insert({p.start, p.end});
    std::vector<std::string> keys;
    std::vector<std::vector<std::size_t>> overs; // of each key, the loads over it by arrival
    for (auto it = ends.begin(); std::next(it) != ends.end(); ++it) {
        const unsigned long long a = *it, b = *std::next(it);
        std::vector<std::size_t> over;
        std::vector<unsigned long long> overTimes;
        for (std::size_t i = 0; i < loads.size(); ++i)
            if (loads[i].start <= a && loads[i].end >= b) {
                over.push_back(i);
                overTimes.push_back(loads[i].time);
            }
        if (over.empty())
            continue;
        std::sort(overTimes.begin(), overTimes.end());
        std::string text = hex(a) + "-" + hex(b) + ":";
        for (unsigned long long t : overTimes)
            text += (text.back() == ':' ? "" : ",") + std::to_string(t);
        keys.push_back(text);
        overs.push_back(over);
    }
    std::vector<unsigned long long> unloads(loads.size(), 0);
    for (std::size_t i = 0; i < loads.size(); ++i)
        for (const auto& over : overs) {
            if (std::find(over.begin(), over.end(), i) == over.end())
                continue;
            const std::size_t none = loads.size();
            std::size_t latest = none; // loaded last before it, of those that came before it
            for (std::size_t j : over)
                if (j < i && loads[j].time < loads[i].time && (latest == none || loads[j].time > loads[latest].time))
                    latest = j;
            if (latest != none && unloads[latest] == 0)
                unloads[latest] = loads[i].time;
        }
    EXPECT_EQ(keys, describeDomain(store));
    for (std::size_t i = 0; i < loads.size(); ++i)
        EXPECT_EQ(unloads[i], store.methodList()[i]->regions()[0]->unloadTime()) << i;
}

// Only a region of no bytes can share its start jit rva with another (the jit rva map refuses
// any other): the later one is placed, but keeps the first owner and is reported; a load time
// already there is refused and changes nothing.
TEST(VersionHistoryTest, SharedStartsKeepTheFirstOwner)
{
    const auto fake = [](std::size_t i) { return reinterpret_cast<JitMethod*>(0x1000 + 8 * i); }; // never read
    const auto regionAt = [](unsigned long long loadTime, unsigned long long startJitRva, unsigned int length) {
        return Region(7, 1, loadTime, startJitRva, 0x1000, length, nullptr);
    };
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
    EXPECT_TRUE(history.at(150)->region == &empty && history.after(150)->region == &full);
    EXPECT_TRUE(history.at(99) == nullptr && history.after(200) == nullptr);
}
