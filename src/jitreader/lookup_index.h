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
    /// The search key of the jit rva domain with its answer, so that the search brings the
    /// method's address along; the size, read next to the method, lives apart.
    struct JitEntry {
        unsigned long long start;
        JitMethod* method;
    };
    struct Key {
        unsigned long long start;
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

    std::vector<JitEntry> m_jitEntries;
    std::vector<unsigned int> m_jitSizes;  ///< parallel to m_jitEntries
    std::vector<Region*> m_jitRegions;     ///< parallel to m_jitEntries
    std::vector<Domain> m_domains;         ///< by host id, then process id
    std::vector<Key> m_keys;               ///< domain after domain, and one more that ends the last
    std::vector<TimeEntry> m_times;
    std::vector<Region*> m_timeRegions; ///< parallel to m_times
};

} // namespace velmark_3_11
