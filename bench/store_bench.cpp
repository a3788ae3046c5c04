// Lookup speed of the code store: 100,000 methods on an address space that every process
// reuses for several generations of code, resolved by sample point and by jit rva.
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include <benchmark/benchmark.h>
#include <log4cplus/loglevel.h>

#include "jitreader/byte_buffer.h"
#include "jitreader/jit_data_manager.h"
#include "platform/component_logger.h"

using namespace velmark_3_11;

namespace {

constexpr unsigned int kProcesses = 4;
constexpr unsigned int kGenerations = 5;
constexpr unsigned int kSlots = 5000; // per process and generation: 4 * 5 * 5000 = 100,000 methods
constexpr unsigned long long kBase = 0x10000000;
constexpr unsigned long long kSlotStride = 0x400;
constexpr std::size_t kSamples = 1 << 16;

std::uint64_t mix(std::uint64_t& state)
{
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

struct Sample {
    unsigned long long vaddr, time;
    unsigned int pid;
};

struct Fixture {
    JitDataManager store;
    std::vector<Sample> samples;
    std::vector<unsigned long long> jitRvas;
    std::size_t methods = 0;

    Fixture()
    {
        log4cplus::Logger& logger = componentLogger();
        logger.setLogLevel(log4cplus::WARN_LOG_LEVEL);

        // Each generation moves and resizes the code of every slot, so that new code cuts the
        // older keys and often spans two of them, as a runtime's reused code heap does.
        std::uint64_t seed = 42;
        unsigned long long nextJitRva = 1;
        std::vector<unsigned char> bytes(0x800, 0xcc);
        std::vector<Sample> candidates;
        for (unsigned int generation = 0; generation < kGenerations; ++generation) {
            for (unsigned int pid = 1; pid <= kProcesses; ++pid) {
                for (unsigned int slot = 0; slot < kSlots; ++slot) {
                    const unsigned long long start =
                        kBase + slot * kSlotStride + (generation * 0x90ull + slot * 0x10ull) % 0x200;
                    const unsigned int length = 0x100 + static_cast<unsigned int>(mix(seed) % 0x400);
                    const unsigned long long loadTime = 1000000ull * (generation + 1) + slot;
                    const unsigned int rawId = generation * kSlots + slot + 1;

                    boost::intrusive_ptr<JitMethod> method(new JitMethod);
                    method->setRawMethodId(rawId);
                    method->setMethodId(MethodId(pid, rawId));
                    method->setLoadTime(loadTime);
                    method->setStartJitRva(nextJitRva);
                    method->addRegion(boost::intrusive_ptr<Region>(new Region(
                        pid, 1, loadTime, nextJitRva, start, length, makeByteBuffer(bytes.data(), length))));
                    if (store.processMethodLoadRecord(pid, 1, method) == meSuccess)
                        ++methods;
                    // A sample inside this code at its load time always finds it.
                    candidates.push_back({start + mix(seed) % length, loadTime, pid});
                    nextJitRva += length;
                }
            }
        }
        for (std::size_t i = 0; i < kSamples; ++i)
            samples.push_back(candidates[mix(seed) % candidates.size()]);
        for (std::size_t i = 0; i < kSamples; ++i)
            jitRvas.push_back(1 + mix(seed) % (nextJitRva - 1));
    }
};

Fixture& fixture()
{
    static Fixture instance;
    return instance;
}

/// `shared`: each lookup holds the store's shared lock, as the loader's lookups do, so that
/// the lock's cost shows beside the plain lookup in the same run.
void resolveSamplePoints(benchmark::State& state, bool shared)
{
    Fixture& f = fixture();
    std::size_t i = 0;
    std::size_t hits = 0;
    for (auto _ : state) {
        const Sample& sample = f.samples[i++ & (f.samples.size() - 1)];
        boost::intrusive_ptr<JitMethod> method;
        unsigned long long jitRva = 0;
        std::shared_lock<std::shared_mutex> lookup(f.store.accessMutex(), std::defer_lock);
        if (shared)
            lookup.lock();
        hits += f.store.resolveJitPoint(sample.vaddr, sample.time, sample.pid, 1, method, jitRva) == meSuccess;
        benchmark::DoNotOptimize(jitRva);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["hit_ratio"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
    state.counters["methods"] = static_cast<double>(f.methods);
}

void BM_ResolveSamplePoint(benchmark::State& state)
{
    resolveSamplePoints(state, false);
}
BENCHMARK(BM_ResolveSamplePoint);

void BM_ResolveSamplePointUnderSharedLock(benchmark::State& state)
{
    resolveSamplePoints(state, true);
}
BENCHMARK(BM_ResolveSamplePointUnderSharedLock);

void BM_ResolveJitRva(benchmark::State& state)
{
    Fixture& f = fixture();
    std::size_t i = 0;
    std::size_t hits = 0;
    for (auto _ : state) {
        boost::intrusive_ptr<JitMethod> method;
        hits += f.store.resolveJitPoint(f.jitRvas[i++ & (f.jitRvas.size() - 1)], method) == meSuccess;
        benchmark::DoNotOptimize(method.get());
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["hit_ratio"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ResolveJitRva);

// After a change the lookups use the maps until they have paid for building the arrays again:
// the first jit rva lookups after a change, up to and including the one that builds them. Any
// non-const call, here one that changes nothing, counts as a change.
void BM_LookupsAfterChange(benchmark::State& state)
{
    Fixture& f = fixture();
    const std::size_t lookups = f.store.jitRvaDomain().size() / 2 + 1;
    for (auto _ : state) {
        f.store.getOrCreateRegionDomain(1, 1);
        for (std::size_t i = 0; i < lookups; ++i) {
            boost::intrusive_ptr<JitMethod> method;
            benchmark::DoNotOptimize(f.store.resolveJitPoint(f.jitRvas[i & (f.jitRvas.size() - 1)], method));
        }
    }
    state.counters["lookups"] = static_cast<double>(lookups);
}
BENCHMARK(BM_LookupsAfterChange)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
