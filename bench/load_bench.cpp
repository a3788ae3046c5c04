// Reads result directories of JIT traces through ISymbolResolver::create and prints each figure
// beside its target: load speed against the speed of only reading the same files, how the time
// grows with the number of files and with the data, the memory kept and the time to destroy.
// All figures come from one run, as ratios do on a shared, noisy machine; each time is the best
// of a few repetitions.
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "jitreader/jitreader.h"
#include "tracewriter/trace_writer.h"

namespace fs = boost::filesystem;
using namespace tracewriter;

namespace {

constexpr std::uint64_t kMegabyte = 1ull << 20;

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

/// Writes `totalBytes` of traces of 8 processes into `files` files (each process's share cut
/// into files one after the other): code ranges of 50 to 4,000 bytes with line tables, each
/// process reusing its code cache over several generations. The same content for the same
/// total, however it is cut into files.
Corpus writeCorpus(const std::string& name, std::uint64_t totalBytes, int files)
{
    constexpr int kProcesses = 8;
    Corpus c;
    c.directory = (fs::temp_directory_path() / ("jitreader-load-bench-" + name)).string();
    fs::remove_all(c.directory);
    fs::create_directories(c.directory);
    std::uint64_t state = 42;
    const int filesPerProcess = std::max(1, files / kProcesses);
    const std::uint64_t perFile = totalBytes / (kProcesses * filesPerProcess);
    for (int process = 0; process < kProcesses; ++process) {
        const std::uint64_t cache = 0x7f0000000000ULL + (static_cast<std::uint64_t>(process) << 32);
        std::uint64_t address = cache;
        std::uint64_t time = 1000;
        std::uint32_t id = 1;
        for (int part = 0; part < filesPerProcess; ++part) {
            TraceWriter trace;
            trace.magic().collectorType(1);
            while (trace.size() < perFile) {
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
            // "-part" keeps the files of a process in the order in which they were written.
            char fileName[64];
            std::snprintf(fileName, sizeof fileName, "bench.host.%d-%03d.jit", 1000 + process, part);
            trace.writeTo((fs::path(c.directory) / fileName).string());
            c.bytes += trace.size();
        }
    }
    return c;
}

double milliseconds(std::chrono::steady_clock::duration d)
{
    return std::chrono::duration<double, std::milli>(d).count();
}

/// The best of `repeat` timings of `run`, in milliseconds.
double best(int repeat, const std::function<void()>& run)
{
    double result = 1e300;
    for (int i = 0; i < repeat; ++i) {
        const auto start = std::chrono::steady_clock::now();
        run();
        result = std::min(result, milliseconds(std::chrono::steady_clock::now() - start));
    }
    return result;
}

double readFilesOnly(const Corpus& c)
{
    std::vector<char> buffer(1 << 20);
    return best(5, [&] {
        for (const fs::directory_entry& entry : fs::directory_iterator(c.directory)) {
            std::FILE* file = std::fopen(entry.path().string().c_str(), "rb");
            while (std::fread(buffer.data(), 1, buffer.size(), file) == buffer.size()) {
            }
            std::fclose(file);
        }
    });
}

boost::intrusive_ptr<velmark_3_11::ISymbolResolver> createResolver(const Corpus& c)
{
    auto directories = basekit2::make_path_iterator({fs::path(c.directory).wstring()});
    boost::intrusive_ptr<velmark_3_11::ISymbolFileLocator> locator;
    return velmark_3_11::ISymbolResolver::create(directories, locator);
}

/// Resident bytes of the process, after the heap gave back what it holds free.
std::uint64_t residentBytes()
{
    malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    std::uint64_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * 4096;
}

struct Load {
    double createMs = 1e300;
    double destroyMs = 1e300;
    std::uint64_t keptBytes = 0;
};

/// Touches `bytes` of fresh memory and gives it back. The kernel of this virtual machine hands
/// free memory back to its host a few seconds after it is freed, and the next touch of such a page
/// waits for the host to back it again: a load would pay for how long ago the memory it gets was
/// freed, the large corpus more than the others. Memory touched just before a load is backed, as
/// on a machine of its own; the kernel's zeroing of each fresh page stays in the load's time.
void backMemory(std::size_t bytes)
{
    void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return;
    ::madvise(memory, bytes, MADV_HUGEPAGE);
    for (std::size_t at = 0; at < bytes; at += 4096)
        static_cast<volatile char*>(memory)[at] = 1;
    ::munmap(memory, bytes);
}

/// One more load of `c` into `result`, which keeps the best times and the memory of the first.
/// Returns the time to create the resolver.
double loadOnce(const Corpus& c, Load& result)
{
    const bool first = result.createMs == 1e300;
    backMemory(2 * c.bytes);
    const std::uint64_t before = residentBytes();
    auto start = std::chrono::steady_clock::now();
    auto resolver = createResolver(c);
    const double createMs = milliseconds(std::chrono::steady_clock::now() - start);
    result.createMs = std::min(result.createMs, createMs);
    if (!resolver) {
        std::fprintf(stderr, "load_bench: the resolver could not be created\n");
        std::exit(1);
    }
    if (first)
        result.keptBytes = residentBytes() - before;
    start = std::chrono::steady_clock::now();
    resolver.reset();
    result.destroyMs = std::min(result.destroyMs, milliseconds(std::chrono::steady_clock::now() - start));
    return createMs;
}

void row(const char* figure, const std::string& value, const std::string& target, bool holds)
{
    std::printf("%-52s %-22s %-14s %s\n", figure, value.c_str(), target.c_str(), holds ? "yes" : "NO");
}

std::string format(const char* pattern, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

} // namespace

int main()
{
    std::printf("writing the corpora...\n");
    const Corpus base = writeCorpus("8", 200 * kMegabyte, 8);
    const Corpus many = writeCorpus("128", 200 * kMegabyte, 128);
    const Corpus large = writeCorpus("8x4", 800 * kMegabyte, 8);
    std::printf("corpus: %.0f MB of traces, %llu records, %.0f MB of code\n\n",
                static_cast<double>(base.bytes) / kMegabyte, static_cast<unsigned long long>(base.records),
                static_cast<double>(base.codeBytes) / kMegabyte);

    // The first load of a process pays for fresh memory, and on a virtual machine a later one
    // may too, when the kernel hands out pages that the host never backed: the figures are those
    // of the best run. The corpora take turns, so that a busy spell of the host falls on all
    // three alike rather than on one ratio. The large corpus is set against four loads of the
    // base in a row: the best of short runs finds a quiet spell of a shared machine more often
    // than the best of long ones, which would make the ratio one of luck.
    const double read = readFilesOnly(base);
    Load baseLoad, manyLoad, largeLoad;
    double fourBaseMs = 1e300;
    for (int round = 0; round < 8; ++round) {
        double fourBase = 0;
        for (int i = 0; i < 4; ++i)
            fourBase += loadOnce(base, baseLoad);
        fourBaseMs = std::min(fourBaseMs, fourBase);
        loadOnce(many, manyLoad);
        loadOnce(large, largeLoad);
    }

    const double mbPerSecond = static_cast<double>(base.bytes) / kMegabyte / (baseLoad.createMs / 1000);
    const double shareOfRead = read / baseLoad.createMs * 100;
    const double filesRatio = manyLoad.createMs / baseLoad.createMs;
    const double dataRatio = largeLoad.createMs / (fourBaseMs / 4);
    const double keptPerCodeByte = static_cast<double>(baseLoad.keptBytes) / static_cast<double>(base.codeBytes);

    std::printf("%-52s %-22s %-14s %s\n", "figure", "measured", "target", "holds");
    row("read the 200 MB only", format("%.1f ms", read), "", true);
    row("create the resolver, 200 MB in 8 files",
        format("%.0f ms", baseLoad.createMs) + format(" (%.0f MB/s)", mbPerSecond), ">= 1024 MB/s",
        mbPerSecond >= 1024);
    row("load speed against reading the same files", format("%.1f %%", shareOfRead), ">= 7 %", shareOfRead >= 7);
    row("the same bytes in 128 files against 8 files", format("%.2f x", filesRatio), "<= 1.3 x", filesRatio <= 1.3);
    row("4x the data against 1x (8 files)", format("%.2f x", dataRatio), "<= 4.4 x", dataRatio <= 4.4);
    row("memory kept per code byte (resident growth)", format("%.2f", keptPerCodeByte), "<= 1.5",
        keptPerCodeByte <= 1.5);
    row("destroy the 200 MB store", format("%.0f ms", baseLoad.destroyMs), "<= 100 ms", baseLoad.destroyMs <= 100);

    for (const Corpus* c : {&base, &many, &large})
        fs::remove_all(c->directory);
    return 0;
}
