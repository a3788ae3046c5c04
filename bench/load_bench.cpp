// Reads a result directory of about 200 MB of traces through ISymbolResolver::create and
// reports MB/s, records/s and the memory kept against the bytes of code kept, next to the
// speed of only reading the same files.
#include <malloc.h>

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/filesystem.hpp>

#include "jitreader/jitreader.h"
#include "tracewriter/trace_writer.h"

namespace fs = boost::filesystem;
using namespace tracewriter;

namespace {

constexpr std::uint64_t kTargetBytes = 200ull << 20;
constexpr int kProcesses = 8;

struct Corpus {
    std::string directory;
    std::uint64_t bytes = 0;
    std::uint64_t records = 0;
    std::uint64_t codeBytes = 0;
};

std::uint64_t mix(std::uint64_t& state)
{
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

/// Writes the corpus once per run of the program: code ranges of 50 to 4,000 bytes with line
/// tables, each process reusing its code cache over several generations.
const Corpus& corpus()
{
    static const Corpus result = [] {
        Corpus c;
        c.directory = (fs::temp_directory_path() / "jitreader-load-bench").string();
        fs::remove_all(c.directory);
        fs::create_directories(c.directory);
        std::uint64_t state = 42;
        const std::uint64_t perProcess = kTargetBytes / kProcesses;
        for (int process = 0; process < kProcesses; ++process) {
            TraceWriter trace;
            trace.magic().collectorType(1);
            const std::uint64_t cache = 0x7f0000000000ULL + (static_cast<std::uint64_t>(process) << 32);
            std::uint64_t address = cache;
            std::uint64_t time = 1000;
            std::uint32_t id = 1;
            while (trace.size() < perProcess) {
                MethodLoad record;
                record.rawMethodId = id++;
                record.loadTime = time;
                const std::uint32_t size = 50 + static_cast<std::uint32_t>(mix(state) % 3951);
                Bytes code(size);
                for (std::uint32_t i = 0; i < size; ++i)
                    code[i] = static_cast<std::uint8_t>(mix(state));
                record.ranges.push_back({address, size, std::move(code)});
                record.moduleArch = 1;
                record.className = "Lcom/example/bench/Class" + std::to_string(id % 97) + ";";
                record.methodName = "method" + std::to_string(id) + "(ILjava/lang/String;)V";
                record.sourceFile = "Class" + std::to_string(id % 97) + ".java";
                record.languageType = 5;
                for (std::uint32_t offset = 0; offset < size; offset += 32)
                    record.nativeToSource.push_back({offset, std::min(size, offset + 32), 10 + offset / 32});
                trace.load(kFunctionLoad64_v3, record);
                c.records += 1;
                c.codeBytes += size;
                address += size;
                time += 10;
                if (address - cache > (16u << 20))
                    address = cache + (mix(state) % 4096); // a new generation over the old code
            }
            const std::string name = "bench.host." + std::to_string(1000 + process) + ".jit";
            trace.writeTo((fs::path(c.directory) / name).string());
            c.bytes += trace.size();
        }
        return c;
    }();
    return result;
}

/// Bytes that the heap has handed out and not yet taken back.
std::size_t heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void BM_ReadFilesOnly(benchmark::State& state)
{
    const Corpus& c = corpus();
    std::vector<char> buffer(1 << 20);
    for (auto _ : state) {
        for (const fs::directory_entry& entry : fs::directory_iterator(c.directory)) {
            std::FILE* file = std::fopen(entry.path().string().c_str(), "rb");
            while (std::fread(buffer.data(), 1, buffer.size(), file) == buffer.size()) {
            }
            std::fclose(file);
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * c.bytes));
}

void BM_CreateResolver(benchmark::State& state)
{
    using namespace velmark_3_11;
    const Corpus& c = corpus();
    std::size_t kept = 0;
    for (auto _ : state) {
        const std::size_t before = heapInUse();
        auto directories = basekit2::make_path_iterator({fs::path(c.directory).wstring()});
        boost::intrusive_ptr<ISymbolFileLocator> locator;
        auto resolver = ISymbolResolver::create(directories, locator);
        benchmark::DoNotOptimize(resolver.get());
        kept = heapInUse() - before;
        if (!resolver)
            state.SkipWithError("the resolver could not be created");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * c.bytes));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * c.records));
    state.counters["trace_MB"] = static_cast<double>(c.bytes) / (1 << 20);
    state.counters["records"] = static_cast<double>(c.records);
    state.counters["code_MB"] = static_cast<double>(c.codeBytes) / (1 << 20);
    state.counters["kept_MB"] = static_cast<double>(kept) / (1 << 20);
    state.counters["kept_per_code_byte"] = static_cast<double>(kept) / static_cast<double>(c.codeBytes);
}

} // namespace

BENCHMARK(BM_ReadFilesOnly)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_CreateResolver)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK_MAIN();
