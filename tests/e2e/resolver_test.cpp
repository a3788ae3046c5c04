// The exported factories over written result directories: the resolver, the loader and the
// process list, inline frames across files, load progress, and files that keep to their own jit
// rvas.
#include <utility>
#include <vector>

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

// The three factories refuse the same directories and take an empty one; the process list names
// processes without reading their files.
TEST(SymbolResolver, CreationFailuresEmptyInputsAndAProcessListThatReadsNothing)
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

    // Not even valid traces: the process list reads none of them, and lists host alpha first.
    for (const char* name : {"beta.9.jit", "alpha.30-0.jit", "alpha.30-1.jit", "alpha.30-2.jit", "alpha.4.jit"})
        root.write(std::string("x/") + name, {1});
    auto listed = e2e::dirs(root, {"x"});
    auto processes = IJitProcesses::create(listed);
    ASSERT_TRUE(processes);
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<unsigned int> ids;
        for (auto it = processes->getProcessIds(); !it.at_end(); it.next())
            ids.push_back(it.current());
        EXPECT_EQ((std::vector<unsigned int>{4, 30, 9}), ids);
    }
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

InlineLoad inlined(std::uint32_t id, std::uint32_t parent, std::uint64_t address, std::uint32_t size,
                   const std::string& name, std::uint32_t line)
{
    return InlineLoad{id,   parent, 100, 1, address, size, e2e::code(size), "", 1, name, "Lcom/example/Inner;",
                      "Inner.java", 5, {{0, size, line}}};
}

TEST(InlineFrames, InlinesArrivingBeforeTheirParentsResolveToTheirFramesInAnyFileOfTheStore)
{
    // J is inlined into I, and I into P; the records arrive as J, I, P. Another process's file
    // follows, so that every file of process 7 is finalised more than once.
    TraceWriter inlines, parent, other;
    inlines.magic()
        .collectorType(1)
        .inlineLoad(kFunctionInlineLoad64, inlined(3, 2, 0x1020, 0x10, "size()I", 300))
        .inlineLoad(kFunctionInlineLoad64, inlined(2, 1, 0x1010, 0x40, "get(I)Ljava/lang/Object;", 200));
    parent.magic().collectorType(1).load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x100, 100, "run", 10));
    other.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "other"));
    TraceWriter oneFile = inlines;
    oneFile.raw(TraceWriter().collectorType(1).load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x100, 100, "run", 10)).bytes());

    const struct {
        const char* name;
        std::vector<std::pair<std::string, const TraceWriter*>> files;
        unsigned long long parentBase; // the parent's first jit rva
    } layouts[] = {
        {"one file", {{"a/host.7.jit", &oneFile}, {"b/host.8.jit", &other}}, 1},
        {"parent in a later file than its inlines",
         {{"a/host.7.jit", &inlines}, {"b/host.7.jit", &parent}, {"b/host.8.jit", &other}},
         1 + inlines.size()},
    };
    const struct {
        unsigned long long address;
        std::vector<std::pair<std::wstring, unsigned int>> frames; // name, line
    } samples[] = {
        {0x1004, {{L"App::Main::run", 10}}},
        {0x1014, {{L"App::Main::run", 11}, {L"com::example::Inner::get", 200}}},
        {0x1024, {{L"App::Main::run", 12}, {L"com::example::Inner::get", 200}, {L"com::example::Inner::size", 300}}},
        {0x104f, {{L"App::Main::run", 14}, {L"com::example::Inner::get", 200}}},
        {0x1050, {{L"App::Main::run", 15}}},
    };
    for (const auto& layout : layouts) {
        SCOPED_TRACE(layout.name);
        jrtest::TempDir root;
        for (const auto& file : layout.files)
            root.write(file.first, file.second->bytes());
        auto resolver = e2e::resolverOf(e2e::dirs(root, {"a", "b"}));
        auto loader = e2e::loaderOf(e2e::dirs(root, {"a", "b"}));
        ASSERT_TRUE(resolver && loader);
        for (const auto& sample : samples) {
            unsigned long long jitRva = 0;
            boost::intrusive_ptr<IModule> module;
            ASSERT_EQ(meSuccess, loader->resolveModule(150, sample.address, 7, 1, &jitRva, module));
            EXPECT_EQ(layout.parentBase + sample.address - 0x1000, jitRva);
            std::vector<std::pair<std::wstring, unsigned int>> frames;
            for (const e2e::Frame& frame : e2e::framesAt(*resolver, jitRva))
                frames.emplace_back(frame.name, frame.line);
            EXPECT_EQ(sample.frames, frames) << std::hex << sample.address;
        }
    }
}

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

// Every trace file numbers its code in a space of its own: what one file holds, damaged or
// outgrowing its range, never changes the answers for another.
constexpr unsigned long long kWindowBase = 1ull << 48;
constexpr unsigned long long kWindowSize = 1ull << 32;

/// A load record whose range claims `size` bytes while carrying `byteCount` of them.
MethodLoad claiming(std::uint32_t rawId, std::uint64_t address, std::uint32_t size, std::uint32_t byteCount,
                    std::uint64_t loadTime, const std::string& name)
{
    MethodLoad record = e2e::method(rawId, address, byteCount, loadTime, name);
    record.ranges[0].size = size;
    record.nativeToSource.clear();
    return record;
}

UpdateV2 patch(std::uint64_t address, std::uint64_t loadTime)
{
    return UpdateV2{1, loadTime, 0, "patch", address, 0x10, e2e::code(0x10)};
}

TEST(FileIsolation, AMiddleFileThatOutgrowsItsRangeChangesNoOtherFileAndKeepsItsCode)
{
    TraceWriter first, last;
    first.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "a"));
    last.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "c"));
    TraceWriter intact, flipped, patched, overrun;
    intact.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0xA0, 0xA0, 100, "b"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 100, "b2"));
    // One flipped byte: the range size 0xA0 became 0x070000A0.
    flipped.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0x070000A0, 0xA0, 100, "b"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 100, "b2"));
    // Each update takes the whole old region's length of jit rvas for a record of a few bytes.
    patched.magic().load(kFunctionLoad64_v3, claiming(1, 0x1000, 0x400, 0x400, 100, "b"));
    for (std::uint64_t time = 200; time <= 600; time += 100)
        patched.updateV2(patch(0x1010, time));
    patched.load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 700, "b2"));
    // The window holds 2^32 jit rvas: the second record is refused, the third still fits.
    overrun.magic()
        .load(kFunctionLoad64_v3, claiming(1, 0x1000, 0xFFFFFFF0u, 0x10, 100, "b"))
        .load(kFunctionLoad64_v3, claiming(3, 0x7000, 0x100, 0x10, 100, "refused"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x8, 100, "b2"));

    const struct {
        const char* name;
        const TraceWriter* middle;
        std::vector<std::wstring> middleNames;
        unsigned long long bTime;
        bool bInWindow;
        std::size_t refusals;
    } cases[] = {
        {"intact", &intact, {L"b", L"b2"}, 150, false, 0},
        {"range size flipped", &flipped, {L"b", L"b2"}, 150, true, 0},
        {"update copies", &patched, {L"b", L"", L"b2"}, 650, true, 0}, // an update's method has no name
        {"window overrun", &overrun, {L"b", L"b2"}, 150, true, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::TempDir root;
        root.write("d/host.1.jit", first.bytes());
        const std::string middlePath = root.write("d/host.2.jit", c.middle->bytes());
        root.write("d/host.3.jit", last.bytes());
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        auto resolver = e2e::resolverOf(e2e::dirs(root, {"d"}));
        auto loader = e2e::loaderOf(e2e::dirs(root, {"d"}));
        ASSERT_TRUE(resolver && loader);

        std::vector<std::wstring> names{L"App::Main::a"};
        for (const std::wstring& name : c.middleNames)
            names.push_back(name.empty() ? name : L"App::Main::" + name);
        names.push_back(L"App::Main::c");
        EXPECT_EQ(names, e2e::methodNames(*resolver));
        const unsigned long long lastBase = 1 + first.size() + c.middle->size();
        const e2e::Answer a = e2e::answer(*loader, *resolver, 150, 0x1010, 1);
        const e2e::Answer cc = e2e::answer(*loader, *resolver, 150, 0x1010, 3);
        EXPECT_TRUE(a.loader == meSuccess && a.jitRva == 0x11 && a.resolved && a.name == L"App::Main::a");
        EXPECT_TRUE(cc.loader == meSuccess && cc.jitRva == lastBase + 0x10 && cc.resolved && cc.name == L"App::Main::c");

        // The middle file's own code: all of it, in its window once its range is used up.
        for (const auto& point : {std::make_pair(c.bTime, 0x1010ull), std::make_pair(800ull, 0x104ull)}) {
            const e2e::Answer b = e2e::answer(*loader, *resolver, point.first, point.second, 2);
            EXPECT_TRUE(b.loader == meSuccess && b.resolved) << point.second;
            const bool inWindow = b.jitRva >= kWindowBase + kWindowSize && b.jitRva < kWindowBase + 2 * kWindowSize;
            EXPECT_EQ(c.bInWindow, inWindow) << std::hex << b.jitRva;
        }
        // Once for the resolver and once for the loader, and nothing else.
        EXPECT_EQ(2 * c.refusals, log.count(log4cplus::ERROR_LOG_LEVEL, "bytes in jit file " + middlePath));
        EXPECT_EQ(2 * c.refusals, log.texts(log4cplus::ERROR_LOG_LEVEL).size()) << log.dump();
    }
}

} // namespace
