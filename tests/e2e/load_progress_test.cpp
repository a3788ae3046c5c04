#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "e2e_util.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

void record(unsigned long long done, unsigned long long total, void* context)
{
    static_cast<std::vector<std::pair<unsigned long long, unsigned long long>>*>(context)->push_back({done, total});
}

TEST(LoadProgress, ReportsTheBytesOfEachFileAgainstTheTotalAndChangesNoAnswer)
{
    jrtest::TempDir root;
    std::vector<unsigned long long> sizes;
    // The files of a host's processes are read host by host, process by process: the order of
    // the reports, whatever the order of the names.
    const struct {
        const char* path;
        std::uint32_t methods;
    } files[] = {{"d/b.7.jit", 1}, {"d/a.9.jit", 3}, {"d/a.2.jit", 2}, {"e/b.7-1.jit", 1}};
    for (const auto& file : files) {
        TraceWriter trace;
        trace.magic();
        for (std::uint32_t i = 0; i < file.methods; ++i)
            trace.load(kFunctionLoad64_v3, e2e::method(i + 1, 0x1000 + i * 0x100, 0x40, 100, "m"));
        root.write(file.path, trace.bytes());
        sizes.push_back(trace.bytes().size());
    }
    const unsigned long long total = sizes[0] + sizes[1] + sizes[2] + sizes[3];

    struct Case { bool withCallback; std::vector<std::pair<unsigned long long, unsigned long long>> expected; };
    const Case cases[] = {
        {true, {{0, total}, {sizes[2], total}, {sizes[2] + sizes[1], total},
                {sizes[2] + sizes[1] + sizes[0], total}, {total, total}}},
        {false, {}},
    };
    for (const Case& c : cases) {
        std::vector<std::pair<unsigned long long, unsigned long long>> reports;
        LoadProgress progress;
        if (c.withCallback) {
            progress.callback = &record;
            progress.context = &reports;
        }
        auto directories = e2e::dirs(root, {"d", "e"});
        boost::intrusive_ptr<ISymbolFileLocator> locator;
        const auto resolver = createSymbolResolver(directories, locator, progress);
        ASSERT_TRUE(resolver);
        EXPECT_EQ(c.expected, reports);
        EXPECT_EQ(e2e::methodNames(*e2e::resolverOf(e2e::dirs(root, {"d", "e"}))), e2e::methodNames(*resolver));
    }

    auto missing = e2e::dirs(root, {"nowhere"});
    boost::intrusive_ptr<ISymbolFileLocator> locator;
    std::vector<std::pair<unsigned long long, unsigned long long>> reports;
    EXPECT_FALSE(createSymbolResolver(missing, locator, LoadProgress{&record, &reports}));
    EXPECT_TRUE(reports.empty());
}

} // namespace
