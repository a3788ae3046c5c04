// The exported factories over written result directories: resolver, loader and process list.
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
    root.write("d/host.1.jit", TraceWriter().magic()
                                   .load(kFunctionLoad32_v3, e2e::method(1, 0x1000, 0x40, 100, "first32"))
                                   .load(kFunctionLoad64_v3, e2e::method(2, 0x2000, 0x40, 110, "then64"))
                                   .load(kFunctionLoad32_v3, e2e::method(3, 0x3000, 0x40, 120, "again32"))
                                   .bytes());
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

TEST(SymbolResolver, RenamesModulesOfArchitectureOneUnderTheJitProfilerWithBothArchitectures)
{
    const struct { bool profiler; std::uint16_t firstArch; std::vector<std::wstring> modules; } cases[] = {
        {true, 0, {L"/opt/app/app.dll", L"/opt/app/app.dll (64)", L"[Dynamic code] (64)"}},
        {false, 0, {L"/opt/app/app.dll", L"/opt/app/app.dll", L"[Dynamic code]"}},
        {true, 1, {L"/opt/app/app.dll", L"/opt/app/app.dll", L"[Dynamic code]"}}, // architecture 0 never seen
    };
    for (const auto& c : cases) {
        MethodLoad first = e2e::method(1, 0x1000, 0x40, 100, "first");
        first.moduleArch = c.firstArch;
        MethodLoad dynamic = e2e::method(3, 0x3000, 0x40, 100, "dynamic");
        dynamic.modulePath.clear();
        TraceWriter trace;
        trace.magic().raw(c.profiler ? TraceWriter().collectorType(1).bytes() : Bytes());
        for (const MethodLoad& method : {first, e2e::method(2, 0x2000, 0x40, 100, "wide"), dynamic})
            trace.load(kFunctionLoad64_v3, method);
        const e2e::Results r({{"d/host.1.jit", trace.bytes()}});
        ASSERT_TRUE(r.resolver);
        std::vector<std::wstring> modules;
        for (auto it = r.resolver->getMethods(); !it.at_end(); it.next())
            modules.push_back(it.current()->getModule()->getName());
        EXPECT_EQ(c.modules, modules) << c.profiler << c.firstArch;
    }
}

// The process list names processes without reading their files.
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
    const std::string path = root.write("d/node.one.7.jit", e2e::trace({e2e::method(1, 0x1000, 0x40, 100, "old"),
                                                                        e2e::method(2, 0x1000, 0x40, 300, "new")})
                                                                .bytes());
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
    TraceWriter inlines;
    inlines.magic()
        .collectorType(1)
        .inlineLoad(kFunctionInlineLoad64, inlined(3, 2, 0x1020, 0x10, "size()I", 300))
        .inlineLoad(kFunctionInlineLoad64, inlined(2, 1, 0x1010, 0x40, "get(I)Ljava/lang/Object;", 200));
    const Bytes parent =
        TraceWriter().collectorType(1).load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x100, 100, "run", 10)).bytes();
    const Bytes other = e2e::trace({e2e::method(1, 0x1000, 0x40, 100, "other")}).bytes();
    const struct {
        const char* name;
        std::vector<std::pair<std::string, Bytes>> files;
        unsigned long long parentBase; // the parent's first jit rva
    } layouts[] = {
        {"one file", {{"a/host.7.jit", TraceWriter(inlines).raw(parent).bytes()}, {"b/host.8.jit", other}}, 1},
        {"parent in a later file than its inlines",
         {{"a/host.7.jit", inlines.bytes()}, {"b/host.7.jit", TraceWriter().magic().raw(parent).bytes()},
          {"b/host.8.jit", other}},
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
        const e2e::Results r(layout.files, {"a", "b"});
        ASSERT_TRUE(r.resolver && r.loader);
        for (const auto& sample : samples) {
            const e2e::Answer a = e2e::answer(*r.loader, *r.resolver, 150, sample.address, 7);
            ASSERT_EQ(meSuccess, a.loader);
            EXPECT_EQ(layout.parentBase + sample.address - 0x1000, a.jitRva);
            std::vector<std::pair<std::wstring, unsigned int>> frames;
            for (const e2e::Frame& frame : e2e::framesAt(*r.resolver, a.jitRva))
                frames.emplace_back(frame.name, frame.line);
            EXPECT_EQ(sample.frames, frames) << std::hex << sample.address;
        }
    }
}

typedef std::vector<std::pair<unsigned long long, unsigned long long>> Reports; // done, total

void record(unsigned long long done, unsigned long long total, void* context)
{
    static_cast<Reports*>(context)->push_back({done, total});
}

TEST(LoadProgress, ReportsTheBytesOfEachFileAgainstTheTotalAndChangesNoAnswer)
{
    jrtest::TempDir root;
    std::vector<unsigned long long> sizes;
    // The files of a host's processes are read host by host, process by process: the order of
    // the reports, whatever the order of the names.
    const struct { const char* path; std::uint32_t methods; } files[] = {
        {"d/b.7.jit", 1}, {"d/a.9.jit", 3}, {"d/a.2.jit", 2}, {"e/b.7-1.jit", 1}};
    for (const auto& file : files) {
        TraceWriter trace = e2e::trace({});
        for (std::uint32_t i = 0; i < file.methods; ++i)
            trace.load(kFunctionLoad64_v3, e2e::method(i + 1, 0x1000 + i * 0x100, 0x40, 100, "m"));
        root.write(file.path, trace.bytes());
        sizes.push_back(trace.size());
    }
    const unsigned long long total = sizes[0] + sizes[1] + sizes[2] + sizes[3];

    const Reports expected = {{0, total}, {sizes[2], total}, {sizes[2] + sizes[1], total},
                              {sizes[2] + sizes[1] + sizes[0], total}, {total, total}};
    boost::intrusive_ptr<ISymbolFileLocator> locator;
    for (const bool withCallback : {true, false}) {
        Reports reports;
        auto directories = e2e::dirs(root, {"d", "e"});
        const auto resolver = createSymbolResolver(directories, locator,
                                                   withCallback ? LoadProgress{&record, &reports} : LoadProgress());
        ASSERT_TRUE(resolver);
        EXPECT_EQ(withCallback ? expected : Reports(), reports);
        EXPECT_EQ(e2e::methodNames(*e2e::resolverOf(e2e::dirs(root, {"d", "e"}))), e2e::methodNames(*resolver));
    }
    auto missing = e2e::dirs(root, {"nowhere"});
    Reports reports;
    EXPECT_FALSE(createSymbolResolver(missing, locator, LoadProgress{&record, &reports}));
    EXPECT_TRUE(reports.empty());
}

// Every trace file numbers its code in a space of its own; each file is read once.
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

TEST(FileIsolation, AMiddleFileThatOutgrowsItsRangeOrIsCorruptChangesNoOtherFileAndKeepsItsCode)
{
    const TraceWriter first = e2e::trace({e2e::method(1, 0x1000, 0x40, 100, "a")});
    const TraceWriter last = e2e::trace({e2e::method(1, 0x1000, 0x40, 100, "c")});
    const MethodLoad b2 = e2e::method(2, 0x100, 0x40, 100, "b2");
    // Each update takes the whole old region's length of jit rvas for a record of a few bytes.
    TraceWriter patched = e2e::trace({claiming(1, 0x1000, 0x400, 0x400, 100, "b")});
    for (std::uint64_t time = 200; time <= 600; time += 100)
        patched.updateV2({1, time, 0, "patch", 0x1010, 0x10, e2e::code(0x10)});
    patched.load(kFunctionLoad64_v3, e2e::method(2, 0x100, 0x40, 700, "b2"));
    const struct {
        const char* name;
        TraceWriter middle;
        std::vector<std::wstring> middleNames;
        unsigned long long bTime;
        bool bInWindow;
        // ERROR lines, each logged once by the resolver and once by the loader, with the middle
        // file's path between the two texts unless the second is null.
        std::vector<std::pair<const char*, const char*>> errors;
    } cases[] = {
        {"intact", e2e::trace({claiming(1, 0x1000, 0xA0, 0xA0, 100, "b"), b2}), {L"b", L"b2"}, 150, false, {}},
        // One flipped byte: the range size 0xA0 became 0x070000A0.
        {"range size flipped", e2e::trace({claiming(1, 0x1000, 0x070000A0, 0xA0, 100, "b"), b2}), {L"b", L"b2"}, 150,
         true, {}},
        {"update copies", patched, {L"b", L"", L"b2"}, 650, true, {}}, // an update's method has no name
        // The window holds 2^32 jit rvas: the second record is refused, the third still fits.
        {"window overrun",
         e2e::trace({claiming(1, 0x1000, 0xFFFFFFF0u, 0x10, 100, "b"), claiming(3, 0x7000, 0x100, 0x10, 100, "refused"),
                     e2e::method(2, 0x100, 0x8, 100, "b2")}),
         {L"b", L"b2"}, 150, true, {{"bytes in jit file ", ""}}},
        // A frame of an unknown type ends the reading; what came before it stays.
        {"corrupt",
         TraceWriter(e2e::trace({claiming(1, 0x1000, 0xA0, 0xA0, 100, "b"), b2}))
             .frame(99, {1, 2, 3, 4})
             .load(kFunctionLoad64_v3, e2e::method(3, 0x7000, 0x40, 100, "lost")),
         {L"b", L"b2"}, 150, false,
         {{"Couldn't recognize type of the jit trace", nullptr}, {"Could not read jit file ", ", at file: "}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        jrtest::LogCapture log(log4cplus::ERROR_LOG_LEVEL);
        const e2e::Results r({{"d/host.1.jit", first.bytes()}, {"d/host.2.jit", c.middle.bytes()},
                              {"d/host.3.jit", last.bytes()}});
        ASSERT_TRUE(r.resolver && r.loader);
        const std::string middlePath = r.root.file("d/host.2.jit");

        std::vector<std::wstring> names{L"App::Main::a"};
        for (const std::wstring& name : c.middleNames)
            names.push_back(name.empty() ? name : L"App::Main::" + name);
        names.push_back(L"App::Main::c");
        EXPECT_EQ(names, e2e::methodNames(*r.resolver));
        const unsigned long long lastBase = 1 + first.size() + c.middle.size();
        const e2e::Answer a = e2e::answer(*r.loader, *r.resolver, 150, 0x1010, 1);
        const e2e::Answer cc = e2e::answer(*r.loader, *r.resolver, 150, 0x1010, 3);
        EXPECT_TRUE(a.loader == meSuccess && a.jitRva == 0x11 && a.resolved && a.name == L"App::Main::a");
        EXPECT_TRUE(cc.loader == meSuccess && cc.jitRva == lastBase + 0x10 && cc.resolved && cc.name == L"App::Main::c");

        // The middle file's own code: all of it, in its window once its range is used up.
        for (const auto& point : {std::make_pair(c.bTime, 0x1010ull), std::make_pair(800ull, 0x104ull)}) {
            const e2e::Answer b = e2e::answer(*r.loader, *r.resolver, point.first, point.second, 2);
            EXPECT_TRUE(b.loader == meSuccess && b.resolved) << point.second;
            const bool inWindow = b.jitRva >= kWindowBase + kWindowSize && b.jitRva < kWindowBase + 2 * kWindowSize;
            EXPECT_EQ(c.bInWindow, inWindow) << std::hex << b.jitRva;
        }
        for (const auto& error : c.errors)
            EXPECT_EQ(2u, log.count(log4cplus::ERROR_LOG_LEVEL,
                                    error.first + (error.second ? middlePath + error.second : std::string())))
                << error.first;
        EXPECT_EQ(2 * c.errors.size(), log.texts(log4cplus::ERROR_LOG_LEVEL).size()) << log.dump();
    }
}

} // namespace
