#include "jitreader/jit_data_manager.h"

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
        last = makeInline(step.rawId, step.parentId, step.address, step.length, step.time);
        const auto result = store.processMethodInlineLoadRecord(7, 1, last);
        EXPECT_STORE_CONSISTENT(store);
        return result;
    }

    JitDataManager store;
    MethodPtr last;
    unsigned long long nextJitRva = 0x400;
};

} // namespace

// Inlines wait in the cache until their parent, or their inline parent, arrives; they keep jit
// rva 0 until the store is finalised.
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

namespace {

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

// Half the chain is placed by a first finalize, as when a file ends; the inlines that follow hang
// below an inline, and the second finalize must still find the top-level method to place them.
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

} // namespace
