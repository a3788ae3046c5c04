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

// Method A (0x10) at [0x1000, 0x1100) from 500 and at [0x3000, 0x3080) from 900; method B (0x20)
// at [0x1040, 0x1080) from 1200. Process 7 on host 1.
void loadAandB(JitDataManager& store)
{
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 500, {{0x1000, 0x100, 1}})));
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 900, {{0x3000, 0x80, 0x101}})));
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x20, 1200, {{0x1040, 0x40, 0x181}})));
}

/// 'S' sample at address a and time b; 'J' jit rva a; 'A' address b by jit rva a; 'N' next load
/// over [a, a + 0x40) after time b. The answer: "method jitRva", or the next load time, or else
/// a TRACE line of the refusal.
struct Lookup { char op; unsigned long long a, b; std::string answer; unsigned int pid = 7, host = 1; };

std::string ask(const JitDataManager& store, const Lookup& q)
{
    LogCapture log(kTrace);
    MethodPtr method;
    unsigned long long out = 0;
    boost::intrusive_ptr<ICodeRegion> next;
    velmark_error_t result = meSuccess;
    switch (q.op) {
    case 'S': result = store.resolveJitPoint(q.a, q.b, q.pid, q.host, method, out); break;
    case 'J': result = store.resolveJitPoint(q.a, method); break;
    case 'A': result = store.resolveJitRvaByAddress(q.a, q.b, out); break;
    default: result = store.findNextRegion(q.a, q.a + 0x40, q.b, q.pid, q.host, next); break;
    }
    if (q.op == 'S' || q.op == 'J') { // the lent method: the same one, answer and messages
        const std::string counted = log.dump();
        log.clear();
        JitMethod* lent = reinterpret_cast<JitMethod*>(1);
        unsigned long long lentOut = 0;
        EXPECT_EQ(result, q.op == 'S' ? store.resolveJitPoint(q.a, q.b, q.pid, q.host, lent, lentOut)
                                      : store.resolveJitPoint(q.a, lent));
        EXPECT_EQ(method.get(), lent);
        EXPECT_EQ(out, lentOut);
        EXPECT_EQ(counted, log.dump());
    }
    if (result != meSuccess)
        return log.dump();
    if (next)
        return std::to_string(next->loadTime());
    return (method ? hex(method->getRawMethodId()) : "") + (q.op == 'J' ? "" : " " + hex(out));
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
    EXPECT_EQ((std::vector<std::string>{"0x1000-0x1040:500", "0x1040-0x1080:500,1200", "0x1080-0x1100:500",
                                        "0x3000-0x3080:900"}),
              describeDomain(store));
    EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, "Added a new code region (ip range = 0x3000-0x3080) in method "
                                                        "(method id = 0x10, name = , load time = 0x1f4)"));
    // The search behind this line already sees the newcomer.
    EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, "Unloaded code region (ip range = 0x1000-0x1100) from method "
                                                        "(method id = 0x20, name = , load time = 0x4b0)"));
}

// A and B, with code on the same addresses in process 8 and on host 2, and an empty process 9:
// the maps answer alike and, once lookups have made it, so does their index.
TEST(JitDataManagerTest, LookupsBySamplePointJitRvaAndNextLoad)
{
    JitDataManager store;
    loadAandB(store);
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x30, 100, {{0x1000, 0x100, 0x201}}, 8), 8));
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x40, 100, {{0x1000, 0x100, 0x301}}, 7, 2), 7, 2));
    const std::string lost = "The found range (0x1000-0x1100) with life time (0x1f4-0x4b0) was out of memory when a "
                             "sample with tsc = ";
    const std::string outside = " because it is out of the jit rva domain.";
    const Lookup cases[] = {
        {'S', 0x1050, 600, "0x10 0x51"},
        {'S', 0x1050, 1200, "0x20 0x191"}, // at the load time the new code answers
        {'S', 0x107f, 1200, "0x20 0x1c0"}, // last byte
        {'S', 0x1010, 200, "0x30 0x211", 8},
        {'S', 0x1010, 200, "0x40 0x311", 7, 2},
        {'S', 0x1050, 400, "Couldn't find a region domain by tsc = 0x190"},
        {'S', 0x1010, 1300, lost + "0x514 occurred"},
        {'S', 0x1010, 1200, lost + "0x4b0 occurred"},
        {'S', 0x3080, 900, "Couldn't find a region for addr = 0x3080"}, // one past the end
        {'S', 0xfff, 900, "Couldn't find a region for addr = 0xfff"},
        {'S', 0x1010, 200, "Couldn't find a region for addr = 0x1010", 9},
        {'S', 0x1050, 600, "Couldn't find a region domain for pid = 0xa", 10},
        {'S', 0x1050, 600, "Couldn't find a region domain for pid = 0x7", 7, 0}, // no host 0
        {'J', 1, 0, "0x10"}, {'J', 0x100, 0, "0x10"}, {'J', 0x101, 0, "0x10"}, {'J', 0x1c0, 0, "0x20"},
        {'J', 0x1c1, 0, "Couldn't resolve jit rva = 0x1c1" + outside},
        {'J', 0, 0, "Couldn't resolve jit rva = 0" + outside},
        {'J', ~1ull, 0, "Couldn't resolve jit rva = 0xfffffffffffffffe" + outside},
        {'J', ~0ull, 0, "Couldn't resolve jit rva = 0xffffffffffffffff because it is invalid."},
        // The address in the process of the jit rva's region, at its load time.
        {'A', 0x181, 0x1050, " 0x191"}, {'A', 0x201, 0x1010, " 0x211"}, {'A', 0x5000, 0x1050, ""},
        {'A', 0x181, 0x1010, lost + "0x4b0 occurred"}, // A was gone at B's load time
        {'N', 0x1040, 600, "1200"}, {'N', 0x1000, 100, "500"},
        {'N', 0x1000, 600, "Couldn't find overlapped region domain by tsc = 0x258"},
        {'N', 0x5000, 600, "Couldn't find a region for addr = 0x5000"},
    };
    for (const bool indexed : {false, true}) {
        for (int i = 0; indexed && i < 8; ++i) // enough lookups for the store to build its index
            ask(store, cases[0]);
        for (const Lookup& c : cases) {
            SCOPED_TRACE(std::string(1, c.op) + " " + hex(c.a) + " " + hex(c.b) + (indexed ? " indexed" : ""));
            if (!indexed)
                store.getOrCreateRegionDomain(9, 1); // drops the index, so that the maps answer
            const std::string answer = ask(store, c);
            const bool refused = c.answer.rfind("Couldn't", 0) == 0 || c.answer.rfind("The found", 0) == 0;
            EXPECT_TRUE(refused ? answer.find(c.answer + "\n") != std::string::npos : answer == c.answer) << answer;
            const std::string unmatched = "Couldn't match jit point (vaddr = " + hex(c.a) + ", timestamp = " +
                                          hex(c.b) + ", pid = " + hex(c.pid) + ") to any known ip address range.";
            EXPECT_EQ(c.op == 'S' && refused, answer.find(unmatched) != std::string::npos);
        }
    }
    EXPECT_EQ(nullptr, store.getRegionDomain(10, 1));
    EXPECT_EQ(3u, store.regionDomains().at(1).size()); // processes 7, 8 and 9: asking created nothing
    // A load drops the index.
    ASSERT_EQ(meSuccess, load(store, makeMethod(0x50, 1500, {{0x1000, 0x100, 0x401}})));
    EXPECT_EQ("0x50 0x451", ask(store, {'S', 0x1050, 1600, ""}));
    EXPECT_EQ("0x50", ask(store, {'J', 0x4ff, 0, ""}));
}

// Loads into one store, each with its result and the one message at WARN or above that it leaves.
TEST(JitDataManagerTest, RefusedLoadsKeepWhatWasDoneBefore)
{
    const struct { unsigned int rawId, time; std::vector<CodeRange> ranges; velmark_error_t result; std::string text; }
        loads[] = {
        {1, 100, {{0x1000, 0x100, 1}}, meSuccess, ""},
        // The same load time on shared bytes: refused, but its jit rva entry stays.
        {2, 100, {{0x1080, 0x100, 0x101}}, meBadTrace,
         "ERROR Couldn't add a splitted region (ip range = 0x1080-0x1180, loadTime=0x64) in the single time domain"},
        // Overlapping jit rvas: the first two regions of the record stay registered.
        {3, 200, {{0x2000, 0x10, 0x201}, {0x3000, 0x10, 0x211}, {0x5000, 0x10, 0x50}}, meBadTrace,
         "ERROR Couldn't add a region (addr=0x5000, size=0x10, methodID=0x3, jitRva=0x50) because jit rva ranges are "
         "overlapped., at file: "},
        // Pre-jitted code: the twin of a region is dropped; another length or time merges.
        {5, 1, {{0x8000, 0x100, 0x300}}, meSuccess, ""},
        {5, 1, {{0x8000, 0x100, 0x400}}, meSuccess,
         "WARN Couldn't add a region (methodID=0x5) because there are two pre-jitted code ranges                    "
         "     located on the same address space for the same method"},
        {5, 1, {{0x8000, 0x80, 0x400}}, meBadTrace, // merged, then it can't be split in at the same time
         "ERROR Couldn't add a splitted region (ip range = 0x8000-0x8080, loadTime=0x1) in the single time domain"},
        {5, 2, {{0x8000, 0x100, 0x480}}, meSuccess, ""},
    };
    JitDataManager store;
    for (const auto& l : loads) {
        LogCapture log(log4cplus::WARN_LOG_LEVEL);
        EXPECT_EQ(l.result, load(store, makeMethod(l.rawId, l.time, l.ranges))) << l.text;
        EXPECT_EQ(l.text.empty() ? 0u : 1u, log.lines().size()) << log.dump();
        EXPECT_EQ(0u, log.dump().find(l.text)) << log.dump();
    }
    EXPECT_EQ((std::vector<std::string>{"0x1000-0x1100:100", "0x2000-0x2010:200", "0x3000-0x3010:200",
                                        "0x8000-0x8100:1,2"}),
              describeDomain(store));
    EXPECT_EQ(0u, store.methodList()[0]->regions()[0]->unloadTime());
    EXPECT_EQ(3u, store.methodList()[3]->regionCount());
    MethodPtr method;
    ASSERT_EQ(meSuccess, store.resolveJitPoint(0x190, method));
    EXPECT_EQ(2u, method->getRawMethodId());
    AssertionCapture asserts; // no region at all: reported, and nothing else breaks
    EXPECT_EQ(meSuccess, load(store, makeMethod(4, 100, {})));
    EXPECT_EQ(std::vector<std::string>{"rawMethod->regionCount()"}, asserts.expressions());
}

// Method 0x10 lives at [0x1000, 0x1010) with bytes 0, 1, 2, ...; an update writes 0xa0, 0xa1, ...
// over them, or is refused by the first check that fails.
TEST(JitDataManagerTest, UpdatesPatchTheLiveRegionOrAreRefusedInOrder)
{
    const std::string accepted = "INFO Updated code region (ip range = 0x1000-0x2010) from method (method id = 0x10, "
                                 "name = , load time = 0x1f4)";
    const std::string refused = "ERROR Couldn't accept update (method id = 0x10";
    // shape '2': two ranges, '-': no bytes.
    const struct { unsigned int collector, rawId, address, length, time; char shape; std::string message; } cases[] = {
        {0, 0x10, 0x1004, 4, 500, ' ',
         "ERROR Couldn't accept update because jit file must be" + std::string(38, ' ') +
             "collected by old version of Tarnwell JIT agent, at file: "},
        {1, 0, 0x1004, 4, 500, ' ', "ERROR Couldn't accept update because method ID is 0, at file: "},
        {1, 0x10, 0x1004, 4, 500, '2', refused + ") because it has multiple code ranges, at file: "},
        {1, 0x20, 0x2000, 4, 950, ' ', // after the region's unload time
         "ERROR Couldn't accept update (method id = 0x20) because a range to be updated is not found, at file: "},
        {1, 0x10, 0x2004, 4, 500, ' ', refused + ") because a range to be updated has different method id = 0x20"},
        {1, 0x10, 0x100d, 4, 500, ' ',
         refused + ", ip range = 0x100d-0x1011) because it overlaps parent's ip range 0x1000-0x1010, at file: "},
        {1, 0x10, 0x1004, 4, 500, '-', refused + ") because a code range to be updated has no content, at file: "},
        {1, 0x10, 0x100c, 4, 500, ' ', accepted},
        {1, 0x10, 0x1000, 4, 500, ' ', accepted},
        {1, 0x10, 0x1000, 16, 500, ' ', accepted},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message + " at " + hex(c.address));
        JitDataManager store;
        load(store, makeMethod(0x10, 500, {{0x1000, 0x10, 1}}));
        load(store, makeMethod(0x20, 500, {{0x2000, 0x10, 0x11}}));
        load(store, makeMethod(0x30, 900, {{0x2008, 0x10, 0x21}}));
        store.setCollectorType(c.collector);
        std::vector<unsigned char> patch(c.length), expected(16);
        for (unsigned int i = 0; i < c.length; ++i)
            patch[i] = static_cast<unsigned char>(0xa0 + i);
        MethodPtr update = makeMethod(c.rawId, c.time, {});
        update->addRegion(RegionPtr(new Region(7, 1, c.time, 0, c.address, c.length,
                                               c.shape == '-' ? nullptr : makeByteBuffer(patch.data(), c.length))));
        if (c.shape == '2')
            update->addRegion(update->regions()[0]);
        const bool ok = c.message == accepted;
        LogCapture log(log4cplus::INFO_LOG_LEVEL);
        EXPECT_EQ(ok ? meSuccess : meFail, store.processMethodUpdateRecord(7, 1, update));
        EXPECT_EQ(0u, log.dump().find(c.message)) << log.dump();
        for (unsigned int i = 0; i < 16; ++i) {
            const unsigned long long at = 0x1000 + i - c.address; // wraps below the update
            expected[i] = static_cast<unsigned char>(ok && at < c.length ? patch[at] : i);
        }
        const auto& content = store.methodList()[0]->regions()[0]->content();
        const auto* data = static_cast<const unsigned char*>(content->getData());
        EXPECT_EQ(expected, std::vector<unsigned char>(data, data + content->getSize()));
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
    const struct { unsigned long long vaddr, rvaBegin, rvaEnd, out; /* 0: refused */ } cases[] = {
        {0x2010, 0x101, 0x501, 0x111}, // the same call as above, now without offset
        {0x1000, 1, 0x501, 1}, {0x50ff, 0x401, 0x501, 0x500}, {0x4020, 0x301, 0x401, 0x321},
        {0x2010, 0x150, 0x501, 0x111}, // a begin inside an entry finds that entry
        {0x2010, 0x101, 0x101, 0},     // the entry isn't below the end
        {0x1fff, 0x101, 0x501, 0}, {0x2100, 0x101, 0x501, 0},
    };
    for (const auto& c : cases) {
        out = 0;
        EXPECT_EQ(c.out ? meSuccess : meFail, store.translateJitAddress(0x20, c.vaddr, c.rvaBegin, c.rvaEnd, out));
        EXPECT_EQ(c.out, out) << hex(c.vaddr);
    }
    load(store, makeMethod(0x60, 100, {{0x6000, 0x100, 0x501}})); // later loads don't reach the table
    EXPECT_EQ(meFail, store.translateJitAddress(0x60, 0x6010, 0x501, 0x601, out));
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

// Stores of every size around the index's line and level boundaries, in several processes: every
// address at and around every key, at times before, at and after each load, and every jit rva
// around every entry, get the same answers and messages from the index as from the maps.
TEST(JitDataManagerTest, IndexAnswersAsTheMapsDoAtEverySize)
{
    const struct { unsigned int processes, methods; } stores[] = {
        {1, 0}, {1, 1}, {1, 2}, {1, 3}, {2, 4}, {1, 5}, {3, 7}, {1, 8}, {2, 9}, {1, 16}, {2, 17}, {1, 70},
    };
    for (const auto& shape : stores) {
        SCOPED_TRACE(std::to_string(shape.processes) + " x " + std::to_string(shape.methods));
        JitDataManager store;
        std::vector<Lookup> probes;
        unsigned long long jitRva = 0x10;
        for (unsigned int pid = 1; pid <= shape.processes; ++pid) {
            store.getOrCreateRegionDomain(pid, 1);
            for (unsigned int i = 0; i < shape.methods; ++i) {
                const unsigned long long address = 0x10000 + 0x100ull * i;
                load(store, makeMethod(i + 1, 100, {{address, 0x80, jitRva}}, pid), pid);
                // Every third one is replaced in part, which cuts its key and gives it two times.
                if (i % 3 == 0)
                    load(store, makeMethod(i + 0x1000, 200, {{address + 0x40, 0x80, jitRva + 0x90}}, pid), pid);
                for (const unsigned long long at : {address - 1, address, address + 0x3f, address + 0x40,
                                                    address + 0x7f, address + 0x80, address + 0xbf})
                    for (const unsigned long long time : {50ull, 100ull, 150ull, 200ull, 300ull})
                        probes.push_back({'S', at, time, "", pid});
                for (const unsigned long long rva : {jitRva - 1, jitRva, jitRva + 0x7f, jitRva + 0x80, jitRva + 0x90,
                                                     jitRva + 0x10f, jitRva + 0x110})
                    probes.push_back({'J', rva, 0, ""});
                jitRva += 0x120;
            }
        }
        probes.push_back({'S', 0x10000, 100, "", shape.processes + 1});
        std::vector<std::string> byMaps;
        for (const Lookup& probe : probes) {
            store.getOrCreateRegionDomain(1, 1); // drops the index, so that the maps answer
            byMaps.push_back(ask(store, probe));
        }
        for (std::size_t i = 0; i <= store.jitRvaDomain().size(); ++i) // enough lookups to build the index
            ask(store, probes.back());
        for (std::size_t i = 0; i < probes.size(); ++i)
            EXPECT_EQ(byMaps[i], ask(store, probes[i])) << probes[i].op << " " << hex(probes[i].a) << " "
                                                        << hex(probes[i].b) << " pid " << probes[i].pid;
    }
}
