// The store: loads, lookups and their index, updates, refusals, inline records; the version
// history of one key and the map of method ids.
#include "jitreader/jit_data_manager.h"

#include <numeric>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "jitreader/method_id_map.h"
#include "jitreader/version_history.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "unit/store_test_util.h"

using namespace velmark_3_11;
using namespace jrtest;

namespace {

const auto kTrace = log4cplus::TRACE_LOG_LEVEL;
const auto kInfo = log4cplus::INFO_LOG_LEVEL;
const auto kError = log4cplus::ERROR_LOG_LEVEL;

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

struct Placed { unsigned long long start, end, time; };

/// A stand-in for a method that is only kept and compared, never read.
JitMethod* fake(std::size_t i) { return reinterpret_cast<JitMethod*>(0x1000 + 8 * i); }

/// A load ('L') or inline ('I') record.
struct Step { char kind; unsigned int rawId, parentId; unsigned long long address; unsigned int length, time; };

/// "raw@address#jitRva{inlines}" of a region and what hangs below it.
std::string describe(const Region& region, const JitMethod& method)
{
    std::string text = std::to_string(method.getRawMethodId()) + "@" + hex(region.startAddress()) + "#" +
                       hex(region.startJitRva());
    for (std::size_t i = 0; i < region.inlinedRegions().size(); ++i)
        text += (i == 0 ? "{" : " ") + describe(*region.inlinedRegions()[i], *region.inlinedMethods()[i]);
    return text + (region.inlinedRegions().empty() ? "" : "}");
}

/// Every region of every method with its inlines.
std::string inlineTree(const JitDataManager& store)
{
    std::string text;
    for (const auto& method : store.methodList())
        for (const auto& region : method->regions())
            text += (text.empty() ? "" : " ") + describe(*region, *method);
    return text;
}

/// A store of one collector type that takes steps; loads get consecutive jit rvas from 0x400.
struct InlineStore {
    explicit InlineStore(unsigned int collector) { store.setCollectorType(collector); }

    velmark_error_t apply(const Step& step)
    {
        if (step.kind == 'L') {
            nextJitRva += step.length;
            return load(store,
                        makeMethod(step.rawId, step.time, {{step.address, step.length, nextJitRva - step.length}}));
        }
        MethodPtr inlined = makeInline(step.rawId, step.parentId, step.address, step.length, step.time);
        const auto result = store.processMethodInlineLoadRecord(7, 1, inlined);
        EXPECT_STORE_CONSISTENT(store);
        return result;
    }

    JitDataManager store;
    unsigned long long nextJitRva = 0x400;
};

} // namespace

// Method A (0x10) at [0x1000, 0x1100) from 500 and at [0x3000, 0x3080) from 900, method B (0x20)
// at [0x1040, 0x1080) from 1200: A's second record merges into A and B's overlap splits keys. Then
// A and B, with code on the same addresses in process 8 and on host 2, and an empty process 9: the
// maps answer alike and, once lookups have made it, so does their index.
TEST(JitDataManagerTest, LoadsMergeAndSplitThenLookupsBySamplePointJitRvaAndNextLoad)
{
    JitDataManager store;
    {
        LogCapture log(kTrace);
        ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 500, {{0x1000, 0x100, 1}})));
        ASSERT_EQ(meSuccess, load(store, makeMethod(0x10, 900, {{0x3000, 0x80, 0x101}})));
        ASSERT_EQ(meSuccess, load(store, makeMethod(0x20, 1200, {{0x1040, 0x40, 0x181}})));
        ASSERT_EQ(2u, store.methodList().size());
        const MethodPtr a = store.methodList()[0];
        EXPECT_EQ(500u, a->getLoadTime());
        EXPECT_EQ(0x101u, a->getStartJitRva()); // taken from the latest record alone
        EXPECT_EQ(2u, a->regionCount());
        EXPECT_EQ((std::vector<std::string>{"0x1000-0x1040:500", "0x1040-0x1080:500,1200", "0x1080-0x1100:500",
                                            "0x3000-0x3080:900"}),
                  describeDomain(store));
        EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, "Added a new code region (ip range = 0x3000-0x3080) in "
                                                            "method (method id = 0x10, name = , load time = 0x1f4)"));
        // The search behind this line already sees the newcomer.
        EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, "Unloaded code region (ip range = 0x1000-0x1100) from "
                                                            "method (method id = 0x20, name = , load time = 0x4b0)"));
    }
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
    EXPECT_EQ("0x2", ask(store, {'J', 0x190, 0, ""}));
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
        std::iota(patch.begin(), patch.end(), 0xa0);
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

// The first lookups after a load build the shared tables; racing threads all see whole tables.
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

// Sizes around the index's line and level boundaries; probes at and around every key and entry.
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

// The first method filed under an id stays.
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

// Inlines keep jit rva 0 until the store is finalised.
TEST(InlineMethodTest, ProfilerInlinesWaitForTheirParents)
{
    const Step p = {'L', 1, 0, 0x1000, 0x100, 100};
    const Step i = {'I', 2, 1, 0x1010, 0x20, 110};
    const Step j = {'I', 3, 2, 0x1014, 4, 120};
    const struct { const char* order; std::vector<Step> steps; std::string tree; std::size_t unawaited; } cases[] = {
        {"I, J, P", {i, j, p}, "1@0x1000#0x400{2@0x1010#0{3@0x1014#0}}", 0},
        {"P, I, J", {p, i, j}, "1@0x1000#0x400{2@0x1010#0{3@0x1014#0}}", 1},
        {"P, I, I", {p, i, i}, "1@0x1000#0x400{2@0x1010#0 2@0x1010#0}", 1},
        {"P, P over itself", {p, {'L', 1, 0, 0x1000, 0x100, 200}}, "1@0x1000#0x400 1@0x1000#0x500", 1},
        {"P, I, P over itself", {p, i, {'L', 1, 0, 0x1000, 0x100, 200}}, "1@0x1000#0x400{2@0x1010#0} 1@0x1000#0x500",
         1},
        {"P elsewhere, I, P again", {{'L', 1, 0, 0x5000, 0x100, 100}, i, {'L', 1, 0, 0x1000, 0x100, 200}},
         "1@0x5000#0x400 1@0x1000#0x500{2@0x1010#0}", 1},
        // A replaced parent's region takes no inline; its younger region does.
        {"P, Q over P, P again, I",
         {p, {'L', 5, 0, 0x1000, 0x100, 200}, {'L', 1, 0, 0x3000, 0x100, 300}, {'I', 2, 1, 0x3010, 0x20, 350},
          {'I', 3, 1, 0x1010, 0x20, 360}},
         "1@0x1000#0x400 1@0x3000#0x600{2@0x3010#0} 5@0x1000#0x500", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.order);
        InlineStore s(ctJitProfiler);
        LogCapture log(kTrace);
        for (const Step& step : c.steps)
            EXPECT_EQ(meSuccess, s.apply(step));
        EXPECT_EQ(c.tree, inlineTree(s.store));
        EXPECT_EQ(0u, log.count(kError, "")) << log.dump();
        // A parent that finds nothing at all filed under its id says so; a parent loaded again
        // finds itself.
        EXPECT_EQ(c.unawaited, log.count(kTrace, "Couldn't find any cached inline method for parent id"));
    }
}

// Records in turn below parent 1 at [0x1000, 0x1100) with inline 2 at [0x1010, 0x1020); the
// refused ones leave nothing behind.
TEST(InlineMethodTest, ProfilerInlineRefusals)
{
    InlineStore s(ctJitProfiler);
    s.apply({'L', 1, 0, 0x1000, 0x100, 100});
    s.apply({'I', 2, 1, 0x1010, 0x10, 110});
    const std::string refused = "Couldn't inline method (method id = 0x3, ip range = ";
    const struct { Step step; velmark_error_t result; log4cplus::LogLevel level; std::string text; } cases[] = {
        {{'I', 0, 1, 0x1030, 4, 150}, meFail, kError,
         "Couldn't inline method (method id = 0) because method id is invalid."},
        {{'I', 3, 0, 0x1030, 4, 150}, meFail, kError,
         "Couldn't inline method (method id = 0x3) because its parent id = 0 is invalid."},
        {{'I', 3, 1, 0x1100, 0x10, 150}, meFail, kError, // touching counts, and doesn't fit
         refused + "0x1100-0x1110) because it overlaps parent's ip range 0x1000-0x1100"},
        {{'I', 3, 1, 0x1018, 0x10, 150}, meFail, kError,
         refused + "0x1018-0x1028) because it intersects another parent's inline with range 0x1010-0x1020"},
        {{'I', 3, 1, 0x1008, 0x20, 150}, meFail, kError,
         refused + "0x1008-0x1028) because it intersects another parent's inline with range 0x1010-0x1020"},
        {{'I', 3, 1, 0x1012, 4, 150}, meSuccess, kInfo,
         "Added inline method (method id = 0x3, ip range = 0x1012-0x1016) into parent's code region (method id = "
         "0x1, ip range = 0x1000-0x1100)"},
        {{'I', 3, 1, 0x2000, 4, 150}, meSuccess, kTrace,
         "Couldn't cached inline method (method id = 0x3, ip range = 0x2000-0x2004) because parent method has not ip "
         "range suitable for insert.The cached inline method is stayed awaiting for a parent."},
        {{'I', 3, 9, 0x1030, 4, 150}, meSuccess, kTrace,
         "Couldn't inline method (method id = 0x3) because parent method is not found. Inline method is cached."},
    };
    for (const auto& c : cases) {
        LogCapture log(kTrace);
        EXPECT_EQ(c.result, s.apply(c.step)) << c.text;
        EXPECT_EQ(1u, log.count(c.level, c.text)) << log.dump();
    }
    EXPECT_EQ("1@0x1000#0x400{2@0x1010#0 3@0x1012#0}", inlineTree(s.store));
}

TEST(InlineMethodTest, DefaultCollectorPlacesByAddressAndTime)
{
    InlineStore s(ctDefault);
    s.apply({'L', 1, 0, 0x1000, 0x100, 100});
    const std::string notFound = "Couldn't inline method (method id = 0) because parent method is not found.";
    const struct { Step step; velmark_error_t result; std::string error; /* empty: none */ } cases[] = {
        {{'I', 0, 0, 0x1010, 0x40, 150}, meSuccess, ""},
        {{'I', 0, 0, 0x1020, 0x10, 160}, meSuccess, ""}, // goes down into the first inline
        {{'I', 0, 0, 0x1028, 0x10, 170}, meSuccess,      // fits the first inline, not the deepest: dropped
         "Couldn't inline method (method id = 0, ip range = 0x428-0x438) because it overlaps parent's ip range "
         "0x420-0x430"},
        {{'I', 0, 0, 0x9000, 0x10, 150}, meFail, notFound},
        {{'I', 0, 0, 0x10f0, 0x20, 150}, meFail,
         "Couldn't inline method (method id = 0, ip range = 0x10f0-0x1110) because it overlaps parent's ip range "
         "0x1000-0x1100"},
        {{'I', 0, 0, 0x1010, 0x10, 90}, meFail, notFound}, // before the parent's load
    };
    for (const auto& c : cases) {
        LogCapture log(kTrace);
        EXPECT_EQ(c.result, s.apply(c.step)) << hex(c.step.address);
        EXPECT_EQ(c.error.empty() ? 0u : 1u, log.count(kError, c.error)) << log.dump();
    }
    EXPECT_EQ("1@0x1000#0x400{0@0x1010#0x410{0@0x1020#0x420}}", inlineTree(s.store));
}

TEST(InlineMethodTest, MalformedInlineRecordsAreReported)
{
    const struct { unsigned int collector; bool twoRegions; std::vector<std::string> asserts; } cases[] = {
        {ctDefault, false, {"rawMethodId == 0", "rawParentId == 0", "rawRegion->startJitRva() == 0"}},
        {ctJitProfiler, true, {"rawMethod->regionCount() == 1", "rawRegion->startJitRva() == 0"}},
    };
    for (const auto& c : cases) {
        JitDataManager store;
        store.setCollectorType(c.collector);
        MethodPtr method = makeInline(2, 1, 0x1000, 0x10, 100);
        method->regions()[0]->setStartJitRva(5);
        if (c.twoRegions)
            method->addRegion(method->regions()[0]);
        AssertionCapture asserts;
        store.processMethodInlineLoadRecord(7, 1, method);
        EXPECT_EQ(c.asserts, asserts.expressions());
    }
}

TEST(InlineMethodTest, InlinesThatNameThemselvesAsParentNeverHangARegionBelowItself)
{
    jrtest::LogCapture log(kError);
    JitDataManager store;
    store.setCollectorType(ctJitProfiler);
    MethodPtr first = makeInline(2, 2, 0x1000, 0x10, 10);
    MethodPtr second = makeInline(2, 2, 0x1000, 0x10, 10);
    EXPECT_EQ(meSuccess, store.processMethodInlineLoadRecord(7, 1, first)); // waits for itself
    // The second finds the first as its parent, while the first, waiting under the same id,
    // has just been hung below the second.
    EXPECT_EQ(meFail, store.processMethodInlineLoadRecord(7, 1, second));
    EXPECT_EQ(1u, log.count(kError, "Couldn't inline method (method id = 0x2, ip range = 0x1000-0x1010) because "
                                    "its code region already holds the parent's code region"));
    EXPECT_STORE_CONSISTENT(store);
    std::wostringstream dump;
    second->regions().front()->dumpInlines(dump, 4);
    EXPECT_EQ(L"\n   #1  (method id = 0x2, ip range = 0x1000-0x1010)", dump.str());
}

// A first finalize, as when a file ends, places half the chain; the second must find the top.
TEST(InlineMethodTest, DeepInlineChainsAreWalkedWithoutRecursion)
{
    JitDataManager store;
    store.setCollectorType(ctJitProfiler);
    MethodPtr parent = makeMethod(1, 10, {{0x1000, 0x10, 0x400}});
    ASSERT_EQ(meSuccess, store.processMethodLoadRecord(7, 1, parent));
    const unsigned int depth = 20000;
    MethodPtr deepest;
    for (unsigned int id = 2; id <= depth; ++id) {
        deepest = makeInline(id, id - 1, 0x1000, 0x10, 10);
        ASSERT_EQ(meSuccess, store.processMethodInlineLoadRecord(7, 1, deepest));
        if (id == depth / 2)
            store.finalize();
    }
    store.finalize();
    EXPECT_EQ(0x400u, deepest->getStartJitRva());
    EXPECT_EQ(0x400u, deepest->regions().front()->startJitRva());
}
