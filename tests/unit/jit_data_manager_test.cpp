#include "jitreader/jit_data_manager.h"

#include <thread>

#include <gtest/gtest.h>

#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "unit/store_test_util.h"

using namespace velmark_3_11;
using namespace jrtest;

namespace {

const auto kTrace = log4cplus::TRACE_LOG_LEVEL;
const auto kInfo = log4cplus::INFO_LOG_LEVEL;
const auto kError = log4cplus::ERROR_LOG_LEVEL;

// Method A (0x10) at [0x1000, 0x1100) from 500 and at [0x3000, 0x3080) from 900; method B (0x20)
// at [0x1040, 0x1080) from 1200. Process 7 on host 1.
void loadAandB(JitDataManager& store)
{
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 500, {{0x1000, 0x100, 1}})));
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 900, {{0x3000, 0x80, 0x101}})));
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x20, 1200, {{0x1040, 0x40, 0x181}})));
}

} // namespace

TEST(JitDataManagerTest, SecondRecordMergesAndOverlapSplits)
{
    JitDataManager store;
    LogCapture log(kTrace);
    loadAandB(store);

    ASSERT_EQ(2u, store.methodList().size());
    const MethodPtr a = store.methodList()[0];
    EXPECT_EQ(500u, a->getLoadTime());
    EXPECT_EQ(0x101u, a->getStartJitRva()); // taken from the latest record alone
    EXPECT_EQ(2u, a->regionCount());
    EXPECT_EQ(3u, store.jitRvaDomain().size());
    EXPECT_EQ((std::vector<std::string>{"0x1000-0x1040:500", "0x1040-0x1080:500,1200", "0x1080-0x1100:500",
                                        "0x3000-0x3080:900"}),
              describeDomain(store));
    EXPECT_EQ(1200u, a->regions()[0]->unloadTime());
    EXPECT_TRUE(log.contains(kTrace, "Detected already cached code region with the same method id (method id = "
                                     "0x10, name = , load time = 0x1f4)"));
    EXPECT_TRUE(log.contains(kInfo, "Added a new code region (ip range = 0x3000-0x3080) in method (method id = "
                                    "0x10, name = , load time = 0x1f4)"));
    // The search behind this line already sees the newcomer.
    EXPECT_TRUE(log.contains(kInfo, "Unloaded code region (ip range = 0x1000-0x1100) from method (method id = 0x20, "
                                    "name = , load time = 0x4b0)"));
    EXPECT_EQ(1u, log.count(kInfo, "Updated method's state (method id = 0x20, name = , load time = 0x4b0)"));
}

TEST(JitDataManagerTest, SamplePointsResolveByProcessAddressAndTime)
{
    JitDataManager store;
    loadAandB(store);
    struct Case {
        unsigned long long vaddr, time;
        unsigned int pid;
        unsigned int rawId; // 0: no match
        unsigned long long jitRva;
        const char* trace;
    } const cases[] = {
        {0x1050, 600, 7, 0x10, 0x51, nullptr},
        {0x1050, 1300, 7, 0x20, 0x191, nullptr},
        {0x1050, 1200, 7, 0x20, 0x191, nullptr}, // at the load time the new code answers
        {0x1010, 1199, 7, 0x10, 0x11, nullptr},
        {0x107f, 1200, 7, 0x20, 0x1c0, nullptr}, // last byte
        {0x30ff - 0x80, 900, 7, 0x10, 0x180, nullptr},
        {0x1050, 400, 7, 0, 0, "Couldn't find a region domain by tsc = 0x190"},
        {0x1010, 1300, 7, 0, 0,
         "The found range (0x1000-0x1100) with life time (0x1f4-0x4b0) was out of memory when a sample with tsc = "
         "0x514 occurred"},
        {0x1010, 1200, 7, 0, 0, "with life time (0x1f4-0x4b0) was out of memory when a sample with tsc = 0x4b0"},
        {0x3080, 900, 7, 0, 0, "Couldn't find a region for addr = 0x3080"}, // one past the end
        {0x1050, 600, 8, 0, 0, "Couldn't find a region domain for pid = 0x8"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(hex(c.vaddr) + " at " + std::to_string(c.time));
        LogCapture log(kTrace);
        MethodPtr method;
        unsigned long long jitRva = 0;
        const auto result = store.resolveJitPoint(c.vaddr, c.time, c.pid, 1, method, jitRva);
        if (c.rawId == 0) {
            EXPECT_EQ(meFail, result);
            EXPECT_FALSE(method);
            EXPECT_TRUE(log.contains(kTrace, c.trace)) << log.dump();
            EXPECT_TRUE(log.contains(kTrace, "Couldn't match jit point (vaddr = " + hex(c.vaddr) + ", timestamp = " +
                                                 hex(c.time) + ", pid = " + hex(c.pid) +
                                                 ") to any known ip address range."));
        } else {
            ASSERT_EQ(meSuccess, result);
            EXPECT_EQ(c.rawId, method->getRawMethodId());
            EXPECT_EQ(c.jitRva, jitRva);
            EXPECT_TRUE(log.contains(kInfo, "to jit rva = " + hex(c.jitRva) + " of method (method id = " +
                                                hex(c.rawId)));
        }
    }
}

TEST(JitDataManagerTest, JitRvaLookups)
{
    JitDataManager store;
    loadAandB(store);
    struct Case {
        unsigned long long jitRva;
        unsigned int rawId; // 0: no match
        const char* trace;
    } const cases[] = {
        {1, 0x10, nullptr},
        {0x100, 0x10, nullptr},
        {0x101, 0x10, nullptr},
        {0x1c0, 0x20, nullptr},
        {0x1c1, 0, "Couldn't resolve jit rva = 0x1c1 because it is out of the jit rva domain."},
        {0, 0, "Couldn't resolve jit rva = 0 because it is out of the jit rva domain."},
        {0xFFFFFFFFFFFFFFFEull, 0,
         "Couldn't resolve jit rva = 0xfffffffffffffffe because it is out of the jit rva domain."},
        {0xFFFFFFFFFFFFFFFFull, 0, "Couldn't resolve jit rva = 0xffffffffffffffff because it is invalid."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(hex(c.jitRva));
        LogCapture log(kTrace);
        MethodPtr method;
        EXPECT_EQ(c.rawId ? meSuccess : meFail, store.resolveJitPoint(c.jitRva, method));
        if (c.rawId)
            EXPECT_EQ(c.rawId, method->getRawMethodId());
        else
            EXPECT_EQ(1u, log.count(kTrace, c.trace)) << log.dump();
    }

    // The address of a sample, in the process of a jit rva's region and at its load time.
    const struct {
        unsigned long long jitRva, vaddr;
        velmark_error_t result;
        unsigned long long out;
    } byAddress[] = {
        {1, 0x1050, meSuccess, 0x51},
        {0x181, 0x1050, meSuccess, 0x191},
        {0x181, 0x1010, meFail, 0}, // A was gone at B's load time
        {0x5000, 0x1050, meFail, 0},
    };
    for (const auto& c : byAddress) {
        unsigned long long out = 0;
        EXPECT_EQ(c.result, store.resolveJitRvaByAddress(c.jitRva, c.vaddr, out)) << hex(c.jitRva);
        EXPECT_EQ(c.out, out);
    }
}

TEST(JitDataManagerTest, FindNextRegionLooksForward)
{
    JitDataManager store;
    loadAandB(store);
    const struct {
        unsigned long long begin, end, time;
        unsigned int pid;
        unsigned long long loadTime; // 0: none
        const char* trace;
    } cases[] = {
        {0x1040, 0x1080, 600, 7, 1200, nullptr},
        {0x1000, 0x1050, 100, 7, 500, nullptr},
        {0x1000, 0x1040, 600, 7, 0, "Couldn't find overlapped region domain by tsc = 0x258"},
        {0x1040, 0x1080, 1200, 7, 0, "Couldn't find overlapped region domain by tsc = 0x4b0"},
        {0x5000, 0x5010, 600, 7, 0, "Couldn't find a region for addr = 0x5000"},
        {0x1040, 0x1080, 600, 9, 0, "Couldn't find a region domain for pid = 0x9"},
    };
    for (const auto& c : cases) {
        LogCapture log(kTrace);
        boost::intrusive_ptr<ICodeRegion> region;
        const auto result = store.findNextRegion(c.begin, c.end, c.time, c.pid, 1, region);
        if (c.loadTime) {
            ASSERT_EQ(meSuccess, result);
            EXPECT_EQ(c.loadTime, region->loadTime());
        } else {
            EXPECT_EQ(meFail, result);
            EXPECT_TRUE(log.contains(kTrace, c.trace)) << log.dump();
        }
    }
}

TEST(JitDataManagerTest, ProcessesAndHostsOnTheSameAddressesStayApart)
{
    JitDataManager store;
    LogCapture log(kTrace);
    const struct {
        unsigned int rawId, pid, host;
        unsigned long long jitRva;
    } loads[] = {{1, 7, 1, 1}, {2, 8, 1, 0x101}, {3, 7, 2, 0x201}};
    for (const auto& l : loads)
        ASSERT_EQ(meSuccess, load(store, makeMethod(l.rawId, 100, {{0x1000, 0x100, l.jitRva}}, l.pid, l.host),
                                  l.pid, l.host));
    EXPECT_EQ(0u, log.count(log4cplus::INFO_LOG_LEVEL, "Overlapped code region"));
    for (const auto& l : loads) {
        MethodPtr method;
        unsigned long long jitRva = 0;
        ASSERT_EQ(meSuccess, store.resolveJitPoint(0x1010, 200, l.pid, l.host, method, jitRva));
        EXPECT_EQ(l.rawId, method->getRawMethodId());
        EXPECT_EQ(l.jitRva + 0x10, jitRva);
    }
    EXPECT_EQ(nullptr, store.getRegionDomain(9, 1));
    EXPECT_EQ(nullptr, store.getRegionDomain(7, 3));
    EXPECT_EQ(2u, store.regionDomains().at(1).size());
    EXPECT_EQ(2u, store.regionDomains().size());
}

TEST(JitDataManagerTest, RefusedLoadsLeaveWhatWasDone)
{
    // Same range, same time: the second load can't enter the time domain.
    {
        JitDataManager store;
        LogCapture log(kTrace);
        ASSERT_EQ(meSuccess, load(store, makeMethod(1, 100, {{0x1000, 0x100, 1}})));
        EXPECT_EQ(meBadTrace, load(store, makeMethod(1, 100, {{0x1000, 0x100, 0x101}})));
        EXPECT_EQ(1u, log.count(kError, "Couldn't add a splitted region (ip range = 0x1000-0x1100, loadTime=0x64) "
                                        "in the single time domain"));
    }
    // A partly overlapping refusal keeps the jit rva entry: found by jit rva, not by address.
    {
        JitDataManager store;
        ASSERT_EQ(meSuccess, load(store, makeMethod(1, 100, {{0x1000, 0x100, 1}})));
        EXPECT_EQ(meBadTrace, load(store, makeMethod(2, 100, {{0x1080, 0x100, 0x200}})));
        MethodPtr method;
        ASSERT_EQ(meSuccess, store.resolveJitPoint(0x290, method));
        EXPECT_EQ(2u, method->getRawMethodId());
        LogCapture log(kTrace);
        unsigned long long jitRva = 0;
        EXPECT_EQ(meFail, store.resolveJitPoint(0x1110, 100, 7, 1, method, jitRva));
        EXPECT_TRUE(log.contains(kTrace, "Couldn't find a region for addr = 0x1110"));
    }
    // Overlapping jit rvas: the first two regions of the record stay registered.
    {
        JitDataManager store;
        LogCapture log(kTrace);
        ASSERT_EQ(meSuccess, load(store, makeMethod(1, 100, {{0x1000, 0x10, 0x50}})));
        EXPECT_EQ(meBadTrace, load(store, makeMethod(0x30, 100, {{0x2000, 0x10, 1}, {0x3000, 0x10, 0x11},
                                                                  {0x5000, 0x10, 0x55}})));
        EXPECT_EQ(1u, log.count(kError, std::string("Couldn't add a region (addr=0x5000, size=0x10, methodID=0x30, "
                                                    "jitRva=0x55) because jit rva ranges are overlapped.") +
                                            kAtFileSuffix));
        EXPECT_EQ(3u, store.jitRvaDomain().size());
        EXPECT_EQ(2u, store.methodList().size());
    }
    // No region at all: reported, and nothing else breaks.
    {
        JitDataManager store;
        AssertionCapture asserts;
        EXPECT_EQ(meSuccess, load(store, makeMethod(1, 100, {})));
        EXPECT_EQ(std::vector<std::string>{"rawMethod->regionCount()"}, asserts.expressions());
    }
}

TEST(JitDataManagerTest, PreJittedDuplicatesAreDroppedByFirstRegion)
{
    const std::string warning = "Couldn't add a region (methodID=0x5) because there are two pre-jitted code ranges"
                                "                         located on the same address space for the same method";
    const struct {
        unsigned long long secondLoadTime;
        unsigned int secondLength;
        velmark_error_t result;
        bool dropped;
    } cases[] = {
        {1, 0x100, meSuccess, true},
        {1, 0x80, meBadTrace, false}, // merged, then its twin at the same time can't be split in
        {2, 0x100, meSuccess, false},
    };
    for (const auto& c : cases) {
        JitDataManager store;
        LogCapture log(kTrace);
        ASSERT_EQ(meSuccess, load(store, makeMethod(5, 1, {{0x1000, 0x100, 1}})));
        const auto result = load(store, makeMethod(5, c.secondLoadTime, {{0x1000, c.secondLength, 0x101}}));
        EXPECT_EQ(c.result, result);
        EXPECT_EQ(c.dropped ? 1u : 0u, log.count(log4cplus::WARN_LOG_LEVEL, warning));
        EXPECT_EQ(c.dropped ? 1u : 2u, store.methodList()[0]->regionCount());
    }
}

TEST(JitDataManagerTest, UpdatesAreCheckedInOrder)
{
    const std::string blanks(38, ' ');
    const struct {
        unsigned int collector, rawId;
        unsigned long long address;
        unsigned int length;
        unsigned long long time;
        bool twoRanges, noBytes;
        std::string error;
    } cases[] = {
        {0, 0x10, 0x1004, 4, 500, false, false,
         "Couldn't accept update because jit file must be" + blanks + "collected by old version of Tarnwell JIT agent"},
        {1, 0, 0x1004, 4, 500, false, false, "Couldn't accept update because method ID is 0"},
        {1, 0x10, 0x1004, 4, 500, true, false,
         "Couldn't accept update (method id = 0x10) because it has multiple code ranges"},
        {1, 0x10, 0x5004, 4, 500, false, false,
         "Couldn't accept update (method id = 0x10) because a range to be updated is not found"},
        {1, 0x10, 0x1004, 4, 400, false, false,
         "Couldn't accept update (method id = 0x10) because a range to be updated is not found"},
        {1, 0x30, 0x3000, 4, 950, false, false, // after the region's unload time
         "Couldn't accept update (method id = 0x30) because a range to be updated is not found"},
        {1, 0x10, 0x2004, 4, 500, false, false,
         "Couldn't accept update (method id = 0x10) because a range to be updated has different method id = 0x20"},
        {1, 0x10, 0x100d, 4, 500, false, false,
         "Couldn't accept update (method id = 0x10, ip range = 0x100d-0x1011) because it overlaps parent's ip range "
         "0x1000-0x1010"},
        {1, 0x10, 0x1004, 4, 500, false, true,
         "Couldn't accept update (method id = 0x10) because a code range to be updated has no content"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        JitDataManager store;
        load(store, makeMethod(0x10, 500, {{0x1000, 0x10, 1}}));
        load(store, makeMethod(0x20, 500, {{0x2000, 0x10, 0x11}}));
        load(store, makeMethod(0x30, 500, {{0x3000, 0x20, 0x21}}));
        load(store, makeMethod(0x40, 900, {{0x3010, 0x10, 0x41}}));
        store.setCollectorType(c.collector);
        MethodPtr update = makeMethod(c.rawId, c.time, {});
        update->addRegion(RegionPtr(new Region(7, 1, c.time, 0, c.address, c.length,
                                               c.noBytes ? nullptr : addressBytes(0, c.length))));
        if (c.twoRanges)
            update->addRegion(update->regions()[0]);
        LogCapture log(kTrace);
        EXPECT_EQ(meFail, store.processMethodUpdateRecord(7, 1, update));
        EXPECT_EQ(1u, log.count(kError, c.error + kAtFileSuffix)) << log.dump();
        const auto& bytes = store.methodList()[0]->regions()[0]->content();
        EXPECT_EQ(4u, static_cast<const unsigned char*>(bytes->getData())[4]); // untouched
    }
}

TEST(JitDataManagerTest, UpdatesPatchTheLiveRegion)
{
    const struct {
        unsigned long long address;
        unsigned int length;
        std::vector<int> bytes;
    } cases[] = {
        {0x1004, 4, {0, 1, 2, 3, 0xa0, 0xa1, 0xa2, 0xa3, 8, 9, 10, 11, 12, 13, 14, 15}},
        {0x100c, 4, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0xa0, 0xa1, 0xa2, 0xa3}},
        {0x1000, 4, {0xa0, 0xa1, 0xa2, 0xa3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
        {0x1000, 16, {0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xac, 0xad, 0xae, 0xaf}},
    };
    for (const auto& c : cases) {
        JitDataManager store;
        store.setCollectorType(ctJitProfiler);
        load(store, makeMethod(0x10, 500, {{0x1000, 0x10, 1}}));
        MethodPtr update = makeMethod(0x10, 500, {{c.address, c.length, 0}});
        std::vector<unsigned char> patch(c.length);
        for (unsigned int i = 0; i < c.length; ++i)
            patch[i] = static_cast<unsigned char>(0xa0 + i);
        update->regions()[0]->content()->setData(patch.data(), c.length);

        LogCapture log(kTrace);
        ASSERT_EQ(meSuccess, store.processMethodUpdateRecord(7, 1, update));
        EXPECT_EQ(1u, log.count(kInfo, "Updated code region (ip range = 0x1000-0x2010) from method (method id = "
                                       "0x10, name = , load time = 0x1f4)"));
        const auto& content = store.methodList()[0]->regions()[0]->content();
        const auto* data = static_cast<const unsigned char*>(content->getData());
        EXPECT_EQ(c.bytes, std::vector<int>(data, data + content->getSize())) << hex(c.address);
        MethodPtr method;
        unsigned long long jitRva = 0;
        EXPECT_EQ(meSuccess, store.resolveJitPoint(c.address, 500, 7, 1, method, jitRva));
        EXPECT_EQ(1 + c.address - 0x1000, jitRva);
        EXPECT_STORE_CONSISTENT(store);
    }
}

TEST(JitDataManagerTest, TranslateJitAddressBuildsItsTableOnce)
{
    JitDataManager store;
    unsigned long long out = 0;
    EXPECT_EQ(meFail, store.translateJitAddress(0x20, 0x2010, 0x101, 0x501, out)); // empty: nothing kept
    for (unsigned int i = 0; i < 5; ++i)
        load(store, makeMethod(0x10 * (i + 1), 100, {{0x1000 * (i + 1), 0x100, 1 + 0x100ull * i}}));

    // The building call moves the index by the method's entry (B, index 1): it lands on C.
    EXPECT_EQ(meFail, store.translateJitAddress(0x20, 0x2010, 0x101, 0x501, out));
    const struct {
        unsigned long long vaddr, rvaBegin, rvaEnd;
        velmark_error_t result;
        unsigned long long out;
    } cases[] = {
        {0x2010, 0x101, 0x501, meSuccess, 0x111}, // the same call as above, now without offset
        {0x1000, 1, 0x501, meSuccess, 1},
        {0x50ff, 0x401, 0x501, meSuccess, 0x500},
        {0x4020, 0x301, 0x401, meSuccess, 0x321},
        {0x2010, 0x150, 0x501, meSuccess, 0x111}, // a begin inside an entry finds that entry
        {0x2010, 0x101, 0x101, meFail, 0},        // the entry isn't below the end
        {0x1fff, 0x101, 0x501, meFail, 0},
        {0x2100, 0x101, 0x501, meFail, 0},
    };
    for (const auto& c : cases) {
        out = 0;
        EXPECT_EQ(c.result, store.translateJitAddress(0x20, c.vaddr, c.rvaBegin, c.rvaEnd, out)) << hex(c.vaddr);
        EXPECT_EQ(c.out, out);
    }
    // Later loads don't reach the table.
    load(store, makeMethod(0x60, 100, {{0x6000, 0x100, 0x501}}));
    EXPECT_EQ(meFail, store.translateJitAddress(0x60, 0x6010, 0x501, 0x601, out));
}

// Lookups search a flat copy of the maps once one is built, and the maps before: both must give
// the same answers and messages, and a load must drop the copy.
TEST(JitDataManagerTest, LookupsAnswerAlikeFromMapsAndFromTheirIndex)
{
    JitDataManager store;
    loadAandB(store);
    // A zero-length region that fails inside a key leaves a younger time entry behind.
    load(store, makeMethod(0x40, 100, {{0x1000, 0x100, 0x500}}, 8), 8);
    EXPECT_EQ(meBadTrace, load(store, makeMethod(0x41, 200, {{0x1010, 0, 0x500}}, 8), 8));
    store.getOrCreateRegionDomain(9, 1);

    const auto answers = [&store] {
        std::vector<std::string> all;
        for (unsigned int pid : {7u, 8u, 9u, 10u})
            for (unsigned long long vaddr : {0xfffull, 0x1000ull, 0x1010ull, 0x103full, 0x1040ull, 0x10ffull,
                                             0x1100ull, 0x307full, 0x3080ull, ~0ull})
                for (unsigned long long time : {0ull, 100ull, 250ull, 500ull, 1199ull, 1200ull, 5000ull}) {
                    LogCapture log(kTrace);
                    RegionPtr region;
                    MethodPtr method;
                    std::string text = std::to_string(store.searchRegion(vaddr, time, pid, 1, region, method));
                    text += method ? " " + hex(method->getRawMethodId()) : "";
                    text += region ? " " + hex(region->startJitRva()) : "";
                    for (const std::string& line : log.texts(kTrace))
                        text += " | " + line;
                    all.push_back(text);
                }
        return all;
    };
    const auto fromMaps = answers();
    MethodPtr method;
    unsigned long long jitRva = 0;
    for (int i = 0; i < 8; ++i) // enough lookups for the store to build its arrays
        ASSERT_EQ(meSuccess, store.resolveJitPoint(0x1050, 600, 7, 1, method, jitRva));
    EXPECT_EQ(fromMaps, answers());
    RegionPtr region;
    EXPECT_EQ(meSuccess, store.searchRegion(0x1050, 250, 8, 1, region, method)); // the failed one's entry
    EXPECT_EQ(0x40u, method->getRawMethodId());

    ASSERT_EQ(meSuccess, load(store, makeMethod(0x30, 1500, {{0x1000, 0x100, 0x201}})));
    ASSERT_EQ(meSuccess, store.resolveJitPoint(0x1050, 1600, 7, 1, method, jitRva));
    EXPECT_EQ(0x30u, method->getRawMethodId());
    EXPECT_EQ(0x251u, jitRva);
    ASSERT_EQ(meSuccess, store.resolveJitPoint(0x2ff, method));
    EXPECT_EQ(0x30u, method->getRawMethodId());
}

// The first lookups after a load build the shared tables; threads that race there must all see
// whole tables.
TEST(JitDataManagerTest, FirstLookupsMayRunSideBySide)
{
    JitDataManager store;
    for (unsigned int i = 0; i < 64; ++i)
        load(store, makeMethod(i + 1, 100, {{0x1000 + 0x100ull * i, 0x100, 1 + 0x100ull * i}}));
    std::vector<unsigned long long> sums(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < sums.size(); ++t)
        threads.emplace_back([&store, &sum = sums[t]] {
            for (unsigned long long i = 0; i < 64 * 0x100; i += 7) {
                MethodPtr method;
                unsigned long long jitRva = 0, translated = 0;
                if (store.resolveJitPoint(0x1000 + i, 100, 7, 1, method, jitRva) == meSuccess)
                    sum += jitRva;
                if (store.resolveJitPoint(1 + i, method) == meSuccess)
                    sum += method->getRawMethodId();
                if (store.translateJitAddress(0, 0x1000 + i, 1, ~0ull, translated) == meSuccess)
                    sum += translated;
            }
        });
    for (auto& thread : threads)
        thread.join();
    for (unsigned long long sum : sums)
        EXPECT_EQ(sums[0], sum);
    EXPECT_NE(0u, sums[0]);
}
