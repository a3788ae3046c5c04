// Lookup speed of the code store at 100,000 and at 1,000,000 methods, on an address space that
// every process reuses for several generations of code, by sample point and by jit rva; each
// figure printed beside its target, all from one run. The targets hold for the lookups that lend
// the store's method; those that take a reference to it are shown beside them, without one.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include <log4cplus/loglevel.h>

#include "jitreader/jit_data_manager.h"
#include "platform/component_logger.h"

using namespace velmark_3_11;

namespace {

constexpr unsigned int kProcesses = 4;
constexpr unsigned int kGenerations = 5;
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

/// kProcesses * kGenerations * `slots` methods. Each generation moves and resizes the code of
/// every slot, so that new code cuts the older keys and often spans two of them, as a runtime's
/// reused code heap does. No code bytes: lookups don't read them.
struct Store {
    JitDataManager store;
    std::vector<Sample> samples;
    std::vector<unsigned long long> jitRvas;
    std::size_t methods = 0;

    explicit Store(unsigned int slots)
    {
        std::uint64_t seed = 42;
        unsigned long long nextJitRva = 1;
        std::vector<Sample> candidates;
        for (unsigned int generation = 0; generation < kGenerations; ++generation) {
            for (unsigned int pid = 1; pid <= kProcesses; ++pid) {
                for (unsigned int slot = 0; slot < slots; ++slot) {
                    const unsigned long long start =
                        kBase + slot * kSlotStride + (generation * 0x90ull + slot * 0x10ull) % 0x200;
                    const unsigned int length = 0x100 + static_cast<unsigned int>(mix(seed) % 0x400);
                    const unsigned long long loadTime = 1000000ull * (generation + 1) + slot;
                    const unsigned int rawId = generation * slots + slot + 1;

                    boost::intrusive_ptr<JitMethod> method(new JitMethod);
                    method->setRawMethodId(rawId);
                    method->setMethodId(MethodId(pid, rawId));
                    method->setLoadTime(loadTime);
                    method->setStartJitRva(nextJitRva);
                    method->addRegion(boost::intrusive_ptr<Region>(
                        new Region(pid, 1, loadTime, nextJitRva, start, length, nullptr)));
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

/// Lookups per second of `lookup` (given the index of the lookup), over at least half a second;
/// the best of three such rounds. `hits` counts the lookups that found something.
double lookupsPerSecond(const std::function<bool(std::size_t)>& lookup, double& hitRatio)
{
    double best = 0;
    for (int round = 0; round < 3; ++round) {
        std::size_t count = 0;
        std::size_t hits = 0;
        const auto start = std::chrono::steady_clock::now();
        double seconds = 0;
        while (seconds < 0.5) {
            for (std::size_t i = 0; i < 16384; ++i, ++count)
                hits += lookup(count);
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        best = std::max(best, static_cast<double>(count) / seconds);
        hitRatio = static_cast<double>(hits) / static_cast<double>(count);
    }
    return best;
}

struct Figures {
    double samplePoints, samplePointsShared, samplePointsCounted, jitRvas, jitRvasCounted;
};

Figures measure(Store& s)
{
    Figures f{};
    double hits = 0;
    // Lookups search flat arrays that are built once enough lookups followed the last load;
    // the figures are those of a store in use, so the arrays are built first.
    for (std::size_t i = 0; i <= s.store.jitRvaDomain().size() / 2 + 1; ++i) {
        JitMethod* method = nullptr;
        s.store.resolveJitPoint(s.jitRvas[i & (s.jitRvas.size() - 1)], method);
    }
    // `method` is a copy of an empty one of the kind to ask for, as a caller's would be.
    const auto samplePoint = [&s](std::size_t i, bool shared, auto method) {
        const Sample& sample = s.samples[i & (s.samples.size() - 1)];
        unsigned long long jitRva = 0;
        // The loader's lookups hold the store's shared lock; here beside the plain lookup.
        std::shared_lock<std::shared_mutex> lookup(s.store.accessMutex(), std::defer_lock);
        if (shared)
            lookup.lock();
        return s.store.resolveJitPoint(sample.vaddr, sample.time, sample.pid, 1, method, jitRva) == meSuccess;
    };
    const auto jitRva = [&s](std::size_t i, auto method) {
        return s.store.resolveJitPoint(s.jitRvas[i & (s.jitRvas.size() - 1)], method) == meSuccess;
    };
    JitMethod* const lent = nullptr;
    const boost::intrusive_ptr<JitMethod> counted;
    f.samplePoints = lookupsPerSecond([&](std::size_t i) { return samplePoint(i, false, lent); }, hits);
    if (hits != 1.0)
        std::printf("warning: %.3f of the sample points hit\n", hits);
    f.samplePointsShared = lookupsPerSecond([&](std::size_t i) { return samplePoint(i, true, lent); }, hits);
    f.samplePointsCounted = lookupsPerSecond([&](std::size_t i) { return samplePoint(i, false, counted); }, hits);
    f.jitRvas = lookupsPerSecond([&](std::size_t i) { return jitRva(i, lent); }, hits);
    f.jitRvasCounted = lookupsPerSecond([&](std::size_t i) { return jitRva(i, counted); }, hits);
    return f;
}

void row(const std::string& figure, double perSecond, double target)
{
    if (target == 0) {
        std::printf("%-58s %8.2f M/s   %13s\n", figure.c_str(), perSecond / 1e6, "(no target)");
        return;
    }
    std::printf("%-58s %8.2f M/s   >= %4.2f M/s   %s\n", figure.c_str(), perSecond / 1e6, target / 1e6,
                perSecond >= target ? "yes" : "NO");
}

} // namespace

int main()
{
    componentLogger().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    std::printf("%-58s %12s   %13s   %s\n", "figure", "measured", "target", "holds");
    for (const unsigned int slots : {5000u, 50000u}) {
        std::unique_ptr<Store> s(new Store(slots));
        const Figures f = measure(*s);
        const std::string size = std::to_string(s->methods / 1000) + "k methods";
        // Half the speed is the target at ten times the size.
        const double scale = slots == 5000 ? 1.0 : 0.5;
        row("sample-point lookups, " + size, f.samplePoints, 2.5e6 * scale);
        row("sample-point lookups under the shared lock, " + size, f.samplePointsShared, 2.5e6 * scale);
        row("sample-point lookups taking a reference, " + size, f.samplePointsCounted, 0);
        row("jit rva lookups, " + size, f.jitRvas, 6e6 * scale);
        row("jit rva lookups taking a reference, " + size, f.jitRvasCounted, 0);
    }
    return 0;
}
