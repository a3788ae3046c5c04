// Sorted flat copies of the store's maps, which sample and jit rva lookups search instead of the
// trees once a store is in use.
#pragma once

#include <cstddef>
#include <vector>

#include "jitreader/jit_data_manager.h"

namespace velmark_3_11 {

/// What a sample point found: the pointers are owned by the store's maps.
struct SampleHit {
    JitMethod* method;
    unsigned long long jitRvaOffset; ///< start jit rva minus start address, modulo 2^64
    Region* region;                  ///< only when asked for: reading it costs a cache miss
};

/// Ascending 64-bit keys with a summary of every 16th, small enough to stay in the cache, so that
/// a search misses the cache about twice instead of once per halving of a large array.
class SortedStarts {
public:
    void reserve(std::size_t count) { m_starts.reserve(count); }
    void push_back(unsigned long long start) { m_starts.push_back(start); }
    /// Builds the summary; call once all keys are in. Runs of keys sorted within [first, end)
    /// may follow each other: the summary is searched only inside the run asked about.
    void seal();

    std::size_t size() const { return m_starts.size(); }
    unsigned long long operator[](std::size_t i) const { return m_starts[i]; }

    /// The index of the last key among [first, end) that is at or below `value`; `end` when none.
    std::size_t lastAtOrBelow(std::size_t first, std::size_t end, unsigned long long value) const;

private:
    static constexpr std::size_t kBlock = 16;
    std::vector<unsigned long long> m_starts;
    std::vector<unsigned long long> m_summary; ///< m_starts[j * kBlock]
};

class LookupIndex {
public:
    /// Copies the maps. The maps never drop anything while the copy lives, so it keeps raw
    /// pointers to what they own.
    LookupIndex(const JitDataManager::JitRvaDomain& jitRvaDomain,
                const JitDataManager::RegionDomainMap& regionDomains);

    /// The code that ran at `address` of a process at `timestamp`, with the maps' messages.
    velmark_error_t findSample(unsigned long long address, unsigned long long timestamp, unsigned int processId,
                               unsigned int hostId, bool wantRegion, SampleHit& hit) const;
    /// The region and method whose jit rva range holds `jitRva`; false when none does.
    bool findJitRange(unsigned long long jitRva, Region** region, JitMethod*& method) const;

private:
    struct JitEntry {
        JitMethod* method;
        Region* region;
        unsigned int size;
    };
    struct Key {
        unsigned int size;
        unsigned int firstTime; ///< of its time entries; those of the next key follow
    };
    /// What a sample needs of one region, in one cache line.
    struct TimeEntry {
        unsigned long long loadTime;
        unsigned long long unloadTime;
        unsigned long long jitRvaOffset; ///< start jit rva minus start address, modulo 2^64
        JitMethod* method;               ///< of the key's region id domain; null when it has none
    };
    struct Domain {
        unsigned int hostId;
        unsigned int processId;
        std::size_t firstKey;
        std::size_t endKey;
    };

    const Domain* findDomain(unsigned int processId, unsigned int hostId) const;

    SortedStarts m_jitStarts;
    std::vector<JitEntry> m_jitEntries; ///< parallel to m_jitStarts
    std::vector<Domain> m_domains;      ///< by host id, then process id
    SortedStarts m_keyStarts;           ///< domain after domain
    std::vector<Key> m_keys;            ///< parallel to m_keyStarts, and one more that ends the last
    std::vector<TimeEntry> m_times;
    std::vector<Region*> m_timeRegions; ///< parallel to m_times
};

} // namespace velmark_3_11
