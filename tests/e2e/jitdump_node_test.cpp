// A real Node.js run under --perf-prof, its jitdump converted by the jitreader tool and read
// through the exported factories.
#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "e2e_util.h"

namespace {

namespace fs = boost::filesystem;
using namespace velmark_3_11;

TEST(NodeJitdump, AProfiledRunResolvesToItsFunctions)
{
    const std::string node = JITREADER_NODE;
    if (node.empty() || !fs::exists(node))
        GTEST_SKIP() << "Node.js is not installed (scripts/setup-deps installs the nodejs package)";
    jrtest::TempDir root;
    // The script of the demo: hotLoop is compiled in several tiers.
    const std::string run =
        "cd '" + root.path() + "' && '" + node + "' --perf-prof '" JITREADER_NODE_SCRIPT "' > node.out 2>&1";
    ASSERT_EQ(0, std::system(run.c_str())) << run;
    std::string dump;
    for (const fs::directory_entry& entry : fs::directory_iterator(root.path()))
        if (entry.path().filename().string().rfind("jit-", 0) == 0)
            dump = entry.path().string();
    ASSERT_FALSE(dump.empty()) << "node --perf-prof wrote no jit-PID.dump";
    const std::string convert = std::string("'") + JITREADER_TOOL + "' import-jitdump '" + dump + "' -o '" +
                                root.file("traces") + "' --host node > '" + root.file("convert.out") + "' 2>&1";
    ASSERT_EQ(0, std::system(convert.c_str())) << convert;

    const auto resolver = e2e::resolverOf(e2e::dirs(root, {"traces"}));
    const auto loader = e2e::loaderOf(e2e::dirs(root, {"traces"}));
    ASSERT_TRUE(resolver && loader);
    unsigned int host = 0;
    ASSERT_EQ(meSuccess, loader->getHostId(L"node", &host));

    std::size_t methods = 0, hot = 0, regions = 0, misresolved = 0;
    for (auto it = resolver->getMethods(); !it.at_end(); it.next()) {
        const boost::intrusive_ptr<ISymbol> method = it.current();
        ++methods;
        const std::wstring name = method->getName();
        hot += name.find(L"hotLoop") != std::wstring::npos;
        for (auto r = method->getCodeRegions(); !r.at_end(); r.next()) {
            const boost::intrusive_ptr<ICodeRegion> region = r.current();
            ++regions;
            const auto content = region->getContent();
            ASSERT_TRUE(content) << "no code bytes in " << std::string(name.begin(), name.end());
            EXPECT_EQ(content->getSize(), e2e::firstUndecodable(static_cast<const unsigned char*>(content->getData()),
                                                                content->getSize()))
                << std::string(name.begin(), name.end()) << ": not every byte decodes as an instruction";
            // The code of this region, asked for at the time it was loaded, is this method.
            unsigned long long jitRva = 0;
            boost::intrusive_ptr<IModule> module;
            const unsigned long long middle = region->startAddress() + region->length() / 2;
            const bool found = loader->resolveModule(region->loadTime(), middle, region->processId(), host,
                                                     &jitRva, module) == meSuccess;
            const auto atTime = found ? resolver->resolveSymbol(jitRva) : nullptr;
            if (!atTime || name != atTime->getName() || atTime->getLoadTime() != method->getLoadTime())
                ++misresolved;
        }
    }
    EXPECT_GT(methods, 100u);
    EXPECT_GE(hot, 1u) << "the script's hot function is not among the methods";
    EXPECT_EQ(0u, misresolved) << "of " << regions << " regions";
}

} // namespace
