#include "basekit2/generic_iterator.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jitreader/symbol.h"
#include "support/assertion_capture.h"

namespace {

std::vector<unsigned int> walk(basekit2::generic_iterator_t<unsigned int> it, int steps)
{
    std::vector<unsigned int> seen;
    for (int i = 0; i < steps; ++i) {
        seen.push_back(it.at_end() ? 0u : it.current());
        it.next();
    }
    return seen;
}

TEST(GenericIterator, NextWrapsFromTheEndToTheBeginningAndPrevTheOtherWay)
{
    const std::vector<unsigned int> values{1, 2, 3};
    auto it = basekit2::make_vector_iterator<unsigned int>(values);
    // 0 stands for the end position.
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 0, 1, 2}), walk(it, 6));

    auto copy = it; // a copy keeps a position of its own
    copy.next();
    EXPECT_EQ(2u, copy.current());
    EXPECT_EQ(1u, it.current());

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

} // namespace
