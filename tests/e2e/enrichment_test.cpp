// .NET methods named by token and module path only, enriched from copies of real assemblies by
// concurrent resolves (the Concurrency suite runs under `make check-tsan`).
#include <atomic>
#include <thread>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "e2e_util.h"

// The e2e tests link only the library; the real .NET files are found from this file's place.
#define JITREADER_SOURCE_DIR boost::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string()
#include "support/dotnet_testdata.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

struct File : ISymbolFile {
    explicit File(std::wstring path_) : path(std::move(path_)) {}
    unsigned int getKind() const override { return 0; }
    const wchar_t* getPath() const override { return path.c_str(); }
    std::wstring path;
};

/// Finds a module's file name in one directory (its debug file lies beside it); counts calls.
struct Locator : ISymbolFileLocator {
    explicit Locator(const std::string& dir_) : dir(dir_) {}
    velmark_error_t locate(const wchar_t* modulePath, boost::intrusive_ptr<ISymbolFile>& binary,
                           boost::intrusive_ptr<ISymbolFile>&) override
    {
        ++calls;
        const boost::filesystem::path found = dir / boost::filesystem::path(modulePath).filename();
        if (boost::filesystem::exists(found))
            binary = new File(found.wstring());
        return meSuccess;
    }
    boost::filesystem::path dir;
    std::atomic<int> calls{0};
};

MethodLoad byToken(std::uint32_t rawId, std::uint64_t address, const std::string& module, std::uint32_t token,
                   const std::string& sourceFile = "", const std::string& name = "")
{
    MethodLoad record = e2e::method(rawId, address, 0x20, 100 + rawId, name);
    record.metadataToken = token;
    record.modulePath = module;
    record.className.clear();
    record.sourceFile = sourceFile;
    record.nativeToSource.clear();
    record.nativeToManaged = {{0, 0x10, 0}, {0x10, 0x20, 0xb}}; // native ranges to IL offsets
    return record;
}

/// What the analyser reads of the method at `jitRva`.
std::wstring describe(ISymbolResolver& resolver, unsigned long long jitRva)
{
    const boost::intrusive_ptr<ISymbol> symbol = resolver.resolveSymbol(jitRva);
    if (!symbol)
        return L"none";
    std::wstring text = symbol->getFullName() + std::wstring(L" | ") + symbol->getSourceFile()->getName() + L" |";
    unsigned int count = 0;
    symbol->getLineNumberInfo(1, nullptr, &count, 0);
    std::vector<LineNumberEntry> rows(count);
    if (count > 0 && symbol->getLineNumberInfo(1, rows.data(), &count, 0) == meSuccess)
        for (const LineNumberEntry& row : rows)
            text += L" " + std::to_wstring(row.start) + L"-" + std::to_wstring(row.end) + L":" +
                    std::to_wstring(row.value);
    return text;
}

/// Copies of the test assemblies: PdbTarget (classic runtime) and a foo.dll whose first custom
/// attribute belongs to the assembly, so that it reads as .NET Core; a trace of methods in them.
struct Traces {
    explicit Traces(const std::string& folder)
    {
        for (const char* name : {"cecil/PdbTarget.exe", "cecil/PdbTarget.pdb", "symbolic/foo.pdb"})
            assemblies.write(boost::filesystem::path(name).filename().string(), jrtest::readBytes(folder + "/" + name));
        assemblies.write("foo.dll", jrtest::fooAsCore(folder));
        TraceWriter trace;
        trace.magic()
            .load(kFunctionLoad32_v3, byToken(1, 0x1000, assemblies.file("PdbTarget.exe"), 0x06000002))
            .load(kFunctionLoad32_v3, byToken(2, 0x2000, assemblies.file("foo.dll"), 0x06000007, "Dynamic Code"))
            .load(kFunctionLoad32_v3,
                  byToken(3, 0x3000, assemblies.file("PdbTarget.exe"), 0x06000008, "Dynamic Code", "Keep"))
            .load(kFunctionLoad32_v3, byToken(4, 0x4000, "/elsewhere/PdbTarget.exe", 0x06000007))
            .load(kFunctionLoad32_v3, byToken(5, 0x5000, "/nowhere/missing.dll", 0x06000001, "Trace.cs"));
        root.write("d/host.1.jit", trace.bytes());
    }
    jrtest::TempDir assemblies, root;
};

/// What `describe` gives of each method of the traces, in the order of their jit rvas.
const std::wstring kDescribed[] = {
    // Classic runtime: the symbol reader's table without the hidden points at 6 and 19, and
    // the source file of the first document.
    L"PdbTarget::Program::Main(string[]) | C:\\sources\\PdbTarget\\Program.cs | 0-1:21 1-2:22 2-8:22 8-12:22 "
    L"12-23:23 23-29:22 29-37:25 37-37:26",
    // .NET Core: a row per native range at its IL offset; "Dynamic Code" gives way.
    L"MyInternalClass::ThrowsException() | /Users/swatinem/Coding/sentry-dotnet/samples/foo/Program.cs | 0-0:81 "
    L"11-11:83",
    // A name from the trace stays, and "Dynamic Code" stays under the classic runtime.
    L"Keep | Dynamic Code | 0-1:103 1-10:104 10-10:105",
    // Found by the locator under another directory.
    L"PdbTarget::Program::Gazonk() | C:\\sources\\PdbTarget\\Program.cs | 0-1:92 1-9:93 9-17:94 17-51:95 "
    L"51-96:96 96-104:97 104-192:99 192-192:100",
    // A missing assembly leaves the method as the trace gave it.
    L" | Trace.cs |",
};

TEST(Concurrency, ConcurrentResolvesEnrichEachMethodOnceAndAllSeeTheResult)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const Traces traces(folder);
    Locator* const counting = new Locator(traces.assemblies.path());
    boost::intrusive_ptr<ISymbolFileLocator> locator(counting);
    for (int round = 0; round < 8; ++round) {
        auto directories = e2e::dirs(traces.root, {"d"});
        const auto shared = ISymbolResolver::create(directories, locator);
        std::vector<unsigned long long> starts;
        for (auto it = shared->getMethods(); !it.at_end(); it.next())
            starts.push_back(it.current()->getStartJitRva());
        ASSERT_EQ(5u, starts.size());
        constexpr std::size_t kThreads = 6;
        std::atomic<std::size_t> ready{0};
        std::vector<std::size_t> mismatches(kThreads, 0);
        std::vector<std::thread> threads;
        for (std::size_t t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (++ready; ready < kThreads;)
                    std::this_thread::yield();
                for (std::size_t i = 0; i < starts.size() * 4; ++i) {
                    const std::size_t k = (i + t) % starts.size();
                    mismatches[t] += describe(*shared, starts[k]) != kDescribed[k];
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        for (std::size_t t = 0; t < kThreads; ++t)
            EXPECT_EQ(0u, mismatches[t]) << "round " << round << ", thread " << t;
        // The missing assembly is looked for again on every request.
        const int calls = counting->calls;
        describe(*shared, starts[4]);
        EXPECT_EQ(calls + 1, counting->calls);
    }
}

} // namespace
