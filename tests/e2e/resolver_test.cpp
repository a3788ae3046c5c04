#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "e2e_util.h"
#include "support/log_capture.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

TEST(SymbolResolver, BitnessFilterEndsTheReadingAtTheOtherGroup)
{
    jrtest::TempDir root;
    TraceWriter trace;
    trace.magic()
        .load(kFunctionLoad32_v3, e2e::method(1, 0x1000, 0x40, 100, "first32"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x2000, 0x40, 110, "then64"))
        .load(kFunctionLoad32_v3, e2e::method(3, 0x3000, 0x40, 120, "again32"));
    root.write("d/host.1.jit", trace.bytes());

    const struct {
        int arch; // -1: the overload without architecture
        std::vector<std::wstring> names;
    } cases[] = {
        {-1, {L"App::Main::first32", L"App::Main::then64", L"App::Main::again32"}},
        {farad32, {L"App::Main::first32"}},
        {farad64, {}},
        {faradit, {}},
        {kolbe, {}},
    };
    for (const auto& c : cases) {
        auto directories = e2e::dirs(root, {"d"});
        boost::intrusive_ptr<ISymbolFileLocator> locator;
        auto resolver = c.arch < 0 ? ISymbolResolver::create(directories, locator)
                                   : ISymbolResolver::create(directories, locator, static_cast<velmark_arch>(c.arch));
        ASSERT_TRUE(resolver);
        EXPECT_EQ(c.names, e2e::methodNames(*resolver)) << c.arch;
    }
}

TEST(SymbolResolver, CorruptFileKeepsItsEarlierRecordsAndOtherFilesAreReadOnce)
{
    jrtest::TempDir root;
    TraceWriter good1, corrupt, good3;
    good1.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "one"));
    corrupt.magic()
        .load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "two"))
        .frame(99, {1, 2, 3, 4})
        .load(kFunctionLoad64_v3, e2e::method(2, 0x2000, 0x40, 100, "lost"));
    good3.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "three"));
    root.write("d/host.1.jit", good1.bytes());
    const std::string corruptPath = root.write("d/host.2.jit", corrupt.bytes());
    root.write("d/host.3.jit", good3.bytes());

    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    auto resolver = e2e::resolverOf(e2e::dirs(root, {"d"}));
    auto loader = e2e::loaderOf(e2e::dirs(root, {"d"}));
    ASSERT_TRUE(resolver && loader);
    EXPECT_EQ((std::vector<std::wstring>{L"App::Main::one", L"App::Main::two", L"App::Main::three"}),
              e2e::methodNames(*resolver));
    // The loader reads the failed process once and answers from what it gave.
    for (int call = 0; call < 3; ++call) {
        const e2e::Answer a = e2e::answer(*loader, *resolver, 150, 0x1010, 2);
        EXPECT_TRUE(a.loader == meSuccess && a.resolved && a.name == L"App::Main::two");
    }
    // Once for the resolver and once for the loader.
    EXPECT_EQ(2u, log.count(log4cplus::ERROR_LOG_LEVEL, "Couldn't recognize type of the jit trace"));
    EXPECT_EQ(2u, log.count(log4cplus::ERROR_LOG_LEVEL, "Could not read jit file " + corruptPath + ", at file: "))
        << log.dump();
}

TEST(SymbolResolver, RenamesModulesOfArchitectureOneUnderTheJitProfilerWithBothArchitectures)
{
    const struct { bool profiler; std::uint16_t firstArch; std::vector<std::wstring> modules; } cases[] = {
        {true, 0, {L"/opt/app/app.dll", L"/opt/app/app.dll (64)", L"[Dynamic code] (64)"}},
        {false, 0, {L"/opt/app/app.dll", L"/opt/app/app.dll", L"[Dynamic code]"}},
        {true, 1, {L"/opt/app/app.dll", L"/opt/app/app.dll", L"[Dynamic code]"}}, // architecture 0 never seen
    };
    for (const auto& c : cases) {
        jrtest::TempDir root;
        TraceWriter trace;
        trace.magic();
        if (c.profiler)
            trace.collectorType(1);
        MethodLoad first = e2e::method(1, 0x1000, 0x40, 100, "first");
        first.moduleArch = c.firstArch;
        MethodLoad dynamic = e2e::method(3, 0x3000, 0x40, 100, "dynamic");
        dynamic.modulePath.clear();
        trace.load(kFunctionLoad64_v3, first)
            .load(kFunctionLoad64_v3, e2e::method(2, 0x2000, 0x40, 100, "wide"))
            .load(kFunctionLoad64_v3, dynamic);
        root.write("d/host.1.jit", trace.bytes());

        auto resolver = e2e::resolverOf(e2e::dirs(root, {"d"}));
        ASSERT_TRUE(resolver);
        std::vector<std::wstring> modules;
        for (auto it = resolver->getMethods(); !it.at_end(); it.next())
            modules.push_back(it.current()->getModule()->getName());
        EXPECT_EQ(c.modules, modules) << c.profiler << c.firstArch;
    }
}

TEST(SymbolResolver, FilesOfOneProcessInTwoDirectoriesShareTheTimeline)
{
    jrtest::TempDir root;
    TraceWriter first, second;
    first.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "older"));
    second.magic().load(kFunctionLoad64_v3, e2e::method(2, 0x1000, 0x40, 200, "newer"));
    root.write("b/host.5.jit", first.bytes()); // "a" sorts first, but time decides who answers
    root.write("a/host.5.jit", second.bytes());

    auto resolver = e2e::resolverOf(e2e::dirs(root, {"b", "a"}));
    auto loader = e2e::loaderOf(e2e::dirs(root, {"b", "a"}));
    ASSERT_TRUE(resolver && loader);
    // a/host.5.jit is registered first and owns the jit rvas from 1; b/host.5.jit follows it.
    const unsigned long long olderBase = 1 + second.size();
    const struct { unsigned long long time; const wchar_t* name; unsigned long long jitRva; } points[] = {
        {150, L"App::Main::older", olderBase + 0x10},
        {200, L"App::Main::newer", 1 + 0x10},
        {1000, L"App::Main::newer", 1 + 0x10},
    };
    for (const auto& p : points) {
        const e2e::Answer a = e2e::answer(*loader, *resolver, p.time, 0x1010, 5);
        EXPECT_TRUE(a.loader == meSuccess && a.jitRva == p.jitRva && a.resolved && a.name == p.name) << p.time;
    }
    EXPECT_EQ(meFail, e2e::answer(*loader, *resolver, 99, 0x1010, 5).loader);
}

// The three factories refuse the same directories and take an empty one.
TEST(SymbolResolver, CreationFailuresAndEmptyInputs)
{
    jrtest::TempDir root;
    root.write("file.txt", {1});
    root.write("bad/x.jit", {1});
    root.mkdir("empty");
    for (const char* dir : {"file.txt", "missing", "bad", "empty"}) {
        const bool good = std::string(dir) == "empty";
        EXPECT_EQ(good, !!e2e::resolverOf(e2e::dirs(root, {"empty", dir}))) << dir;
        auto forLoader = e2e::dirs(root, {dir}), forProcesses = e2e::dirs(root, {dir});
        EXPECT_EQ(good, !!IJitLoader::create(forLoader)) << dir;
        auto processes = IJitProcesses::create(forProcesses);
        EXPECT_EQ(good, processes && processes->getProcessIds().at_end()) << dir;
    }

    auto resolver = e2e::resolverOf(basekit2::make_path_iterator({}));
    ASSERT_TRUE(resolver);
    EXPECT_TRUE(resolver->getMethods().at_end());
    EXPECT_FALSE(resolver->resolveSymbol(1));
    const wchar_t* name = L"unchanged";
    EXPECT_EQ(meSuccess, resolver->getHostName(0, &name));
    EXPECT_EQ(nullptr, name);
    EXPECT_EQ(meInvalidArgument, resolver->getHostName(1, nullptr));

    unsigned long long result = 0;
    EXPECT_EQ(meSuccess, resolver->translateJitAddress(0, 0x1234, nullptr, &result));
    EXPECT_EQ(0x1234u, result);
    EXPECT_EQ(meFail, resolver->translateJitAddress(1, 0x1234, nullptr, &result));
    EXPECT_EQ(meFileNotRegistered, resolver->translateJitAddress(1, 0x1234, L"/nowhere/host.1.jit", &result));
}

TEST(JitLoader, ReadsAProcessOnceOnFirstDemandAndKeepsNoCodeBytes)
{
    jrtest::TempDir root;
    TraceWriter trace;
    trace.magic()
        .load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "old"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x1000, 0x40, 300, "new"));
    const std::string path = root.write("d/node.one.7.jit", trace.bytes());
    root.write("d/node.one.8.jit", {0xff, 0xff, 0xff, 0xff}); // never asked about, never read
    auto loader = e2e::loaderOf(e2e::dirs(root, {"d"}));
    ASSERT_TRUE(loader);
    unsigned long long jitRva = 0;
    boost::intrusive_ptr<IModule> module;
    const auto resolve = [&](unsigned long long time, unsigned long long address, unsigned int pid) {
        return loader->resolveModule(time, address, pid, 1, &jitRva, module);
    };
    EXPECT_EQ(meFail, resolve(150, 0x1010, 99)); // unknown process
    ASSERT_EQ(meSuccess, resolve(150, 0x1010, 7));
    EXPECT_EQ(0x11u, jitRva);
    EXPECT_STREQ(L"/opt/app/app.dll", module->getName());

    // The file is gone, so a second read would fail: the answers and the log show that none happens.
    boost::filesystem::remove(path);
    jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
    EXPECT_EQ(meSuccess, resolve(150, 0x1020, 7));
    EXPECT_EQ(0x21u, jitRva);
    EXPECT_EQ(meFail, resolve(50, 0x1020, 7));
    boost::intrusive_ptr<ICodeRegion> region;
    ASSERT_EQ(meSuccess, loader->findNextRegion(150, 0x1000, 0x1040, 7, 1, region));
    ASSERT_TRUE(region);
    EXPECT_EQ(300u, region->loadTime());
    EXPECT_FALSE(region->getContent()); // the loader keeps no code bytes
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    unsigned int id = 99;
    EXPECT_EQ(meSuccess, loader->getHostId(L"node.one", &id));
    EXPECT_EQ(1u, id);
    EXPECT_EQ(meInvalidArgument, loader->getHostId(L"node.one", nullptr));
    EXPECT_FALSE(loader->createModuleEvaluator(nullptr));
    auto gac = loader->createModuleEvaluator(L"C:\\Windows\\assembly\\GAC_64\\x.dll");
    ASSERT_TRUE(gac);
    EXPECT_EQ(meSuccess, gac->isNativeImage());
}

TEST(JitProcesses, ListsProcessesOfEveryHostWithoutReading)
{
    jrtest::TempDir root;
    // Not even valid traces: nothing is read.
    for (const char* name : {"beta.9.jit", "alpha.30-0.jit", "alpha.30-1.jit", "alpha.30-2.jit", "alpha.4.jit"})
        root.write(std::string("x/") + name, {1});
    auto directories = e2e::dirs(root, {"x"});
    auto processes = IJitProcesses::create(directories);
    ASSERT_TRUE(processes);
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<unsigned int> ids;
        for (auto it = processes->getProcessIds(); !it.at_end(); it.next())
            ids.push_back(it.current());
        EXPECT_EQ((std::vector<unsigned int>{4, 30, 9}), ids); // host alpha first
    }
}

} // namespace
