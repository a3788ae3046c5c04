// Sorted flat copies of the store's maps, which sample and jit rva lookups search instead of the
// trees once a store is in use.
#pragma once

#include <cstddef>
#include <vector>

#include "jitreader/huge_pages.h"
#include "jitreader/jit_data_manager.h"

namespace velmark_3_11 {

/// What a sample point found: the pointers are owned by the store's maps.
struct SampleHit {
    JitMethod* method;
    unsigned long long jitRvaOffset; ///< start jit rva minus start address, modulo 2^64
    Region* region;                  ///< only when asked for: reading it costs a cache miss
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
    /// Where a stretch of jit rvas starts that runs up to the next entry's start, with the
    /// method whose code it is, or null for a stretch without code. With the gaps between the
    /// domain's entries as entries of their own, the search ends with its answer at hand.
    struct JitEntry {
        unsigned long long start;
        JitMethod* method;
    };
    struct Key {
        unsigned long long start;
        unsigned int size;
        unsigned int firstTime; ///< of its time entries; those of the next slot follow
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
        std::size_t root;  ///< the slot before its first key: its tree counts from 1
        std::size_t count; ///< of its keys
    };

    const Domain* findDomain(unsigned int processId, unsigned int hostId) const;

    // Both searches walk sorted keys laid out as an implicit binary tree, root first and the
    // children of slot k at 2k and 2k + 1. The slots that a search reads next lie together, so
    // it can fetch them ahead, where a binary search over sorted keys waits for every probe;
    // and the top levels, read by every search, share a few cache lines.
    std::size_t m_jitCount = 0;
    HugePageArray<JitEntry> m_jitEntries; ///< slot 0 unused
    HugePageArray<Region*> m_jitRegions;  ///< parallel to m_jitEntries
    std::vector<Domain> m_domains;          ///< by host id, then process id
    /// Domain after domain, each from its root slot and padded to whole cache lines, then one
    /// slot that ends the last; a slot that holds no key starts where the next key's times start.
    HugePageArray<Key> m_keys;
    HugePageArray<TimeEntry> m_times; ///< key after key, in the order of m_keys
    HugePageArray<Region*> m_timeRegions; ///< parallel to m_times
};

} // namespace velmark_3_11
