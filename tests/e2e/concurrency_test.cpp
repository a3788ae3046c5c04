// Many threads on one resolver and one fresh loader: lazy reads beside lookups, enumeration, line
// and inline queries. `make check-tsan` runs this under ThreadSanitizer.
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "demo_traces.h"
#include "e2e_util.h"

using namespace velmark_3_11;

namespace {

struct Point { unsigned long long time; unsigned long long address; unsigned int pid; unsigned int host; };

/// What an analyser would read of one sample point, as one text.
std::string answer(IJitLoader& loader, ISymbolResolver& resolver, const Point& p)
{
    std::ostringstream text;
    unsigned long long jitRva = 0;
    boost::intrusive_ptr<IModule> module;
    const velmark_error_t result = loader.resolveModule(p.time, p.address, p.pid, p.host, &jitRva, module);
    text << result << ' ' << jitRva;
    boost::intrusive_ptr<ICodeRegion> next;
    if (loader.findNextRegion(p.time, p.address, p.address + 1, p.pid, p.host, next) == meSuccess)
        text << " next@" << next->loadTime();
    boost::intrusive_ptr<ISymbol> symbol = result == meSuccess ? resolver.resolveSymbol(jitRva) : nullptr;
    if (!symbol)
        return text.str();

    unsigned int rows = 0;
    symbol->getLineNumberInfo(2, nullptr, &rows, jitRva); // the native-to-source table
    text << ' ' << symbol->getRawMethodId() << " rows " << rows;
    for (const e2e::Frame& frame : e2e::framesAt(resolver, jitRva))
        text << " > " << frame.rawId << ':' << frame.line;
    return text.str();
}

TEST(Concurrency, LookupsBesideLazyReadsAnswerAsOneThreadDoes)
{
    jrtest::TempDir root;
    jitreader_demo::writeDemoResults(root.path(), "");
    const std::vector<std::string> dirs{"alpha", "beta"};
    auto resolver = e2e::resolverOf(e2e::dirs(root, dirs));
    ASSERT_TRUE(resolver);

    // The first byte, the middle and just past every region, at its load time and before.
    std::vector<Point> points;
    for (auto it = resolver->getMethods(); !it.at_end(); it.next())
        for (auto regions = it.current()->getCodeRegions(); !regions.at_end(); regions.next()) {
            const auto& r = regions.current();
            for (unsigned long long offset : {0ull, r->length() / 2ull, static_cast<unsigned long long>(r->length())})
                for (unsigned long long time : {r->loadTime(), r->loadTime() - 1})
                    points.push_back({time, r->startAddress() + offset, r->processId(), r->hostId()});
        }
    ASSERT_GT(points.size(), 1000u);

    auto single = e2e::loaderOf(e2e::dirs(root, dirs));
    std::vector<std::string> expected;
    for (const Point& p : points)
        expected.push_back(answer(*single, *resolver, p));
    const std::size_t methodCount = e2e::methodNames(*resolver).size();

    auto loader = e2e::loaderOf(e2e::dirs(root, dirs));
    ASSERT_TRUE(loader);
    constexpr std::size_t kThreads = 8;
    std::vector<std::size_t> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Each thread starts elsewhere, so that first demands for different processes meet.
            for (std::size_t i = 0; i < points.size(); ++i) {
                const std::size_t k = (i * 7 + t * points.size() / kThreads) % points.size();
                mismatches[t] += answer(*loader, *resolver, points[k]) != expected[k];
                if (i % 256 == 0)
                    mismatches[t] += e2e::methodNames(*resolver).size() != methodCount;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t t = 0; t < kThreads; ++t)
        EXPECT_EQ(0u, mismatches[t]) << "thread " << t;
}

} // namespace
