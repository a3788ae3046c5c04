// Reference counts, ranges and method ids, iterators and the log.
#include <map>
#include <stdexcept>

#include <gtest/gtest.h>

#include "basekit2/generic_iterator.h"
#include "jitreader/base_object.h"
#include "jitreader/boundary.h"
#include "jitreader/method_id.h"
#include "jitreader/range.h"
#include "platform/log.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"

namespace velmark_3_11 {
namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

// Exposes the protected counter and records its own destruction.
class Probe : public BaseObject {
public:
    explicit Probe(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    Probe(const Probe& other) = default;
    Probe& operator=(const Probe& other) = default;
    ~Probe() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }

    unsigned int add() const { return addRef(); }
    unsigned int drop() const { return release(); }
    // Reads the count without destroying: a count of 0 is left at 1, which is harmless
    // for the stack objects that are read at 0 here.
    unsigned int count() const
    {
        const unsigned int n = addRef() - 1;
        if (n != 0)
            release();
        return n;
    }

private:
    int* m_destroyed;
};

TEST(BaseObject, CountStartsAtZeroAndTheLastReleaseDestroysAndCopiesStartAfresh)
{
    int destroyed = 0;
    {
        boost::intrusive_ptr<Probe> first(new Probe(&destroyed));
        boost::intrusive_ptr<Probe> second(first);
        EXPECT_EQ(3u, first->add());
        EXPECT_EQ(2u, first->drop());
        second.reset();
        EXPECT_EQ(1u, first->count());
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);

    boost::intrusive_ptr<Probe> shared(new Probe);
    boost::intrusive_ptr<Probe> second = shared;
    EXPECT_EQ(0u, Probe(*shared).count());
    // Assignment claims the references of the source although nothing holds the target.
    Probe assigned;
    assigned = *shared;
    EXPECT_EQ(2u, assigned.count());
}

// Overlap as equivalence and the order of touching ranges are what every store test relies on;
// only a range that wraps around the top needs a case of its own.
TEST(Range, RangeRunningPastTheTopOfTheAddressSpaceKeepsTheOrder)
{
    const unsigned long long top = ~0ull;
    std::map<Range, int, Range::Comparator> map;
    ASSERT_TRUE(map.emplace(Range(0x100, 0x100), 1).second);
    ASSERT_TRUE(map.emplace(Range(top - 0xf, 0x20), 2).second); // the sum wraps around
    ASSERT_TRUE(map.emplace(Range(0x1000, 0x10), 3).second);
    EXPECT_FALSE(map.emplace(Range(top - 1, 1), 4).second);
    EXPECT_EQ(2, map.find(Range(top - 0xf, 1))->second);
    EXPECT_EQ(1, map.find(Range(0x180, 1))->second);
    EXPECT_EQ(3, std::prev(map.end(), 2)->second);
    map.erase(map.find(Range(0x1000, 1)));
    EXPECT_EQ(2u, map.size());
    EXPECT_EQ(2, std::prev(map.end())->second);
}

TEST(MethodId, OrderedByHalvesAndEmptyOnlyWhenBothAreZero)
{
    EXPECT_TRUE(MethodId().isEmpty());
    EXPECT_FALSE(MethodId(0, 1).isEmpty() || MethodId(1, 0).isEmpty());
    EXPECT_LT(MethodId(1, 9), MethodId(2, 0));
    EXPECT_LT(MethodId(1, 1), MethodId(1, 2));
    EXPECT_FALSE(MethodId(1, 2) < MethodId(1, 2));
}

std::vector<unsigned int> walk(basekit2::generic_iterator_t<unsigned int> it, int steps)
{
    std::vector<unsigned int> seen;
    for (int i = 0; i < steps; ++i, it.next())
        seen.push_back(it.at_end() ? 0u : it.current());
    return seen;
}

TEST(GenericIterator, NextWrapsFromTheEndToTheBeginningAndPrevTheOtherWay)
{
    const std::vector<unsigned int> values{1, 2, 3};
    auto it = basekit2::make_vector_iterator<unsigned int>(values);
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 0, 1, 2}), walk(it, 6)); // 0 stands for the end position
    auto copy = it; // a copy keeps a position of its own
    copy.next();
    EXPECT_TRUE(copy.current() == 2u && it.current() == 1u);
    it.prev(); // from the beginning to the end
    EXPECT_TRUE(it.at_end());
    it.prev();
    EXPECT_EQ(3u, it.current());
    EXPECT_TRUE(it.supports(basekit2::icResettable | basekit2::icBidirectional));
    EXPECT_TRUE(it.reset());
    EXPECT_EQ(1u, it.current());
}

TEST(GenericIterator, CurrentAtTheEndReportsAndYieldsNull)
{
    jrtest::AssertionCapture assertions;
    basekit2::generic_iterator_t<const wchar_t*> empty = basekit2::make_path_iterator({});
    EXPECT_TRUE(empty.at_end());
    EXPECT_EQ(nullptr, empty.current());
    basekit2::generic_iterator_t<unsigned int> noHandler;
    EXPECT_TRUE(noHandler.at_end());
    EXPECT_FALSE(noHandler.supports(0));
    EXPECT_EQ(0u, noHandler.current());
    EXPECT_EQ((std::vector<std::string>{"!at_end()", "!at_end()"}), assertions.expressions());
}

TEST(GenericIterator, PathIteratorOwnsItsPaths)
{
    auto it = basekit2::make_path_iterator({L"/a", L"/b"});
    auto copy = it;
    it = basekit2::generic_iterator_t<const wchar_t*>(); // the copy must not depend on the original
    EXPECT_STREQ(L"/a", copy.current());
    copy.next();
    EXPECT_STREQ(L"/b", copy.current());
    copy.next();
    EXPECT_TRUE(copy.at_end());
}

// A handler that counts the live handlers, to show that copies clone and destruction frees.
struct CountingHandler : basekit2::iterator_impl_base_t<int, CountingHandler> {
    static int live;
    CountingHandler() { ++live; }
    CountingHandler(const CountingHandler&) : basekit2::iterator_impl_base_t<int, CountingHandler>() { ++live; }
    ~CountingHandler() override { --live; }
    bool at_end() const override { return false; }
    int current() const override { return 5; }
    void next() override {}
};
int CountingHandler::live = 0;

TEST(GenericIterator, ConvertingHandlerForwardsAndOwnsItsInnerIterator)
{
    {
        basekit2::generic_iterator_t<int> inner(new CountingHandler);
        basekit2::generic_iterator_t<long> outer(new basekit2::converting_iterator_impl_t<long, int>(inner));
        EXPECT_EQ(2, CountingHandler::live);
        auto copy = outer;
        EXPECT_EQ(3, CountingHandler::live);
        EXPECT_EQ(5L, copy.current());
        EXPECT_FALSE(copy.supports(basekit2::icResettable));
    }
    EXPECT_EQ(0, CountingHandler::live);
}

// Counts how often it is written, to show that a disabled line builds no text.
struct Costly { int* writes; };
std::wostream& operator<<(std::wostream& stream, const Costly& costly)
{
    ++*costly.writes;
    return stream << L"costly";
}

TEST(Logging, DisabledLinesBuildNothing)
{
    jrtest::LogCapture log(log4cplus::WARN_LOG_LEVEL);
    int writes = 0;
    VM_INFO(L"never " << Costly{&writes});
    VM_TRACE(L"never " << Costly{&writes});
    {
        VM_TRACE_SCOPE("void velmark_3_11::Test::run(void)");
    }
    EXPECT_EQ(0, writes);
    EXPECT_TRUE(log.lines().empty());

    VM_WARN(L"once " << Costly{&writes});
    VM_WARN(std::wstring(L"gr\u00fc\u00dfe")); // wide text goes out as UTF-8
    EXPECT_EQ(1, writes);
    EXPECT_EQ((std::vector<std::string>{"once costly", "gr\xc3\xbc\xc3\x9f" "e"}), log.texts(log4cplus::WARN_LOG_LEVEL));
}

TEST(Logging, ErrorSuffixNamesSourceAndLineInTheStreamsFormat)
{
    jrtest::LogCapture log;
    const int hexLine = __LINE__ + 1;
    VM_ERROR_AT(L"Could not read jit file " << L"/x/a.1.jit");
    const int decimalLine = __LINE__ + 1;
    VM_LOG(log4cplus::ERROR_LOG_LEVEL, logging::numbers_t::asIs, true, L"Skip");

    std::ostringstream hex;
    hex << std::showbase << std::hex << hexLine;
    EXPECT_EQ((std::vector<std::string>{"Could not read jit file /x/a.1.jit, at file: " + std::string(__FILE__) + ":" +
                                            hex.str(),
                                        "Skip, at file: " + std::string(__FILE__) + ":" + std::to_string(decimalLine)}),
              log.texts(log4cplus::ERROR_LOG_LEVEL));
}

void tracedFunction(bool leaveEarly)
{
    VM_TRACE_SCOPE("void velmark_3_11::tracedFunction(bool)");
    if (leaveEarly)
        return;
    VM_TRACE(L"body");
}

TEST(Logging, ScopedTraceLogsEnterAndExitOnEveryWayOut)
{
    jrtest::LogCapture log;
    tracedFunction(false);
    tracedFunction(true);
    const std::string enter = "ENTER: void velmark_3_11::tracedFunction(bool)";
    const std::string exit = "EXIT:  void velmark_3_11::tracedFunction(bool)";
    EXPECT_EQ((std::vector<std::string>{enter, "body", exit, enter, exit}), log.texts(log4cplus::TRACE_LOG_LEVEL));
}

TEST(Logging, WhatCrossesTheExportedSurfaceIsAResultAndOneErrorLine)
{
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(7, guardBoundary(L"Op", 0, [] { return 7; }));
    EXPECT_EQ(-1, guardBoundary(L"Op", -1, []() -> int { throw std::runtime_error("disk gone"); }));
    EXPECT_EQ(-1, guardBoundary(L"Op", -1, []() -> int { throw 42; }));
    EXPECT_EQ((std::vector<std::string>{"Op failed: disk gone", "Op failed: unknown exception"}),
              log.texts(log4cplus::ERROR_LOG_LEVEL));
}

} // namespace
} // namespace velmark_3_11
