// The time-aware store of JIT-compiled code: every version of every method, by host, process,
// ip range and time, and every code byte by its own jit rva.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <shared_mutex>
#include <vector>

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "basekit2/generic_iterator.h"
#include "jitreader/error.h"
#include "jitreader/huge_pages.h"
#include "jitreader/inline_cache.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/jit_method.h"
#include "jitreader/method_id.h"
#include "jitreader/method_id_map.h"
#include "jitreader/range.h"
#include "jitreader/region.h"
#include "jitreader/version_history.h"

namespace velmark_3_11 {

class LookupIndex;
struct SampleHit;

class JitDataManager : public JitFileDecoder::SearchRegionCallback {
public:
    /// The ip space of one process on one host, cut into disjoint ranges.
    typedef std::map<Range, VersionHistory, Range::Comparator, PoolAllocator<std::pair<const Range, VersionHistory>>>
        RegionDomain;
    typedef std::pair<boost::intrusive_ptr<Region>, boost::intrusive_ptr<JitMethod>> RegionAndMethod;
    typedef std::map<Range, RegionAndMethod, Range::Comparator, PoolAllocator<std::pair<const Range, RegionAndMethod>>>
        JitRvaDomain;
    typedef InlineCache::MethodMap MethodMap;
    typedef std::map<unsigned int, std::map<unsigned int, RegionDomain>> RegionDomainMap;

    /// Flat copy of the jit rva domain, sorted by jit rva.
    struct RvaTable {
        std::vector<unsigned long long> startJitRvaTable;
        std::vector<unsigned long long> lengthTable;
        std::vector<unsigned long long> startAddressTable;
    };

    JitDataManager();
    ~JitDataManager();
    JitDataManager(const JitDataManager&) = delete;
    JitDataManager& operator=(const JitDataManager&) = delete;

    // Loading; all under the files manager's read lock.
    /// Merges a decoded load record: meSuccess or meBadTrace.
    velmark_error_t processMethodLoadRecord(unsigned int processId, unsigned int hostId,
                                            boost::intrusive_ptr<JitMethod>& rawMethod);
    /// Rewrites part of a live region's bytes: meSuccess or meFail.
    velmark_error_t processMethodUpdateRecord(unsigned int processId, unsigned int hostId,
                                              boost::intrusive_ptr<JitMethod>& rawMethod);
    /// Attaches an inlined method below its parent's region, or caches it until the parent
    /// arrives: meSuccess or meFail.
    velmark_error_t processMethodInlineLoadRecord(unsigned int processId, unsigned int hostId,
                                                  boost::intrusive_ptr<JitMethod>& rawMethod);
    /// Gives inline regions and their line tables their jit rvas; runs after every file.
    void finalize();

    /// Taken exclusively by whoever loads into the store, and shared by lookups that may run
    /// beside a load (the loader's); a store that is loaded once, before it is shared, needs it not.
    std::shared_mutex& accessMutex() const { return m_accessMutex; }

    /// Where the decoders of this store keep code bytes; used under the load's exclusive access.
    CodeArena& codeArena() { return m_codeArena; }

    unsigned int getCollectorType() const { return m_collectorType; }
    void setCollectorType(unsigned int collectorType) { m_collectorType = collectorType; }

    // Lookups; const and lock-free, never beside a load.
    velmark_error_t searchRegion(unsigned long long address, unsigned long long timestamp, unsigned int processId,
                                 unsigned int hostId, boost::intrusive_ptr<Region>& region,
                                 boost::intrusive_ptr<JitMethod>& method) const override;
    /// Fetches the slot of the method map where the record of `id` will look.
    void expectMethod(const MethodId& id) const override { m_methods.prefetch(id); }
    /// Method and jit rva of a sample point.
    velmark_error_t resolveJitPoint(unsigned long long vaddr, unsigned long long timestamp, unsigned int pid,
                                    unsigned int hostId, boost::intrusive_ptr<JitMethod>& method,
                                    unsigned long long& jitRva) const;
    /// Method of a jit rva.
    velmark_error_t resolveJitPoint(unsigned long long jitRva, boost::intrusive_ptr<JitMethod>& method) const;
    /// The same lookups, lending the store's own method: it stays valid while the store lives
    /// and nothing loads into it. No reference is taken, as its count sits on the method's cold
    /// cache line and would cost a lookup about as much as the search; null when none is found.
    velmark_error_t resolveJitPoint(unsigned long long vaddr, unsigned long long timestamp, unsigned int pid,
                                    unsigned int hostId, JitMethod*& method, unsigned long long& jitRva) const;
    velmark_error_t resolveJitPoint(unsigned long long jitRva, JitMethod*& method) const;
    /// The region loaded next after `timestamp` over [begin, end).
    velmark_error_t findNextRegion(unsigned long long begin, unsigned long long end, unsigned long long timestamp,
                                   unsigned int processId, unsigned int hostId,
                                   boost::intrusive_ptr<ICodeRegion>& region) const;
    /// Jit rva of `vaddr` in the process of the region holding `jitRva`, at its load time.
    velmark_error_t resolveJitRvaByAddress(unsigned long long jitRva, unsigned long long vaddr,
                                           unsigned long long& result) const;
    /// Jit rva of `vaddr` of a method of the trace file that owns [rvaBegin, rvaEnd).
    velmark_error_t translateJitAddress(unsigned int rawMethodId, unsigned long long vaddr,
                                        unsigned long long rvaBegin, unsigned long long rvaEnd,
                                        unsigned long long& result) const;

    /// All merged methods, in order of first arrival.
    basekit2::generic_iterator_t<boost::intrusive_ptr<ISymbol>> getMethods() const;
    /// The region domain of a process, or null; creates nothing.
    const RegionDomain* getRegionDomain(unsigned int processId, unsigned int hostId) const;
    /// The region domain of a process, created empty when missing.
    RegionDomain& getOrCreateRegionDomain(unsigned int processId, unsigned int hostId);

    // Read access for tools and tests.
    const JitRvaDomain& jitRvaDomain() const { return m_jitRvaDomain; }
    const MethodIdMap& methods() const { return m_methods; }
    typedef std::vector<boost::intrusive_ptr<JitMethod>, HugePageAllocator<boost::intrusive_ptr<JitMethod>>> MethodList;
    const MethodList& methodList() const { return m_methodList; }
    /// Region domains by host id, then process id.
    const RegionDomainMap& regionDomains() const { return m_regionDomains; }

private:
    velmark_error_t addInlineMethod(const boost::intrusive_ptr<JitMethod>& parentMethod,
                                    boost::intrusive_ptr<Region>& parentRegion,
                                    const boost::intrusive_ptr<JitMethod>& inlineMethod);
    velmark_error_t addCachedInlineMethods(const boost::intrusive_ptr<JitMethod>& parentMethod);
    velmark_error_t cacheParentMethod(const boost::intrusive_ptr<JitMethod>& jitMethod);
    velmark_error_t cacheInlineMethod(const boost::intrusive_ptr<JitMethod>& inlineMethod);
    velmark_error_t findParentMethod(const MethodId& parentId, boost::intrusive_ptr<JitMethod>& out) const;
    /// True when the method of that id was filed as a parent in the inline cache.
    bool isFiledAsParent(const MethodId& id) const;
    velmark_error_t findInlineMethod(const MethodId& parentId, boost::intrusive_ptr<JitMethod>& out) const;

    /// The search of searchRegion, with its messages; the hit's pointers are owned by the maps.
    velmark_error_t findSample(unsigned long long address, unsigned long long timestamp, unsigned int processId,
                               unsigned int hostId, bool wantRegion, SampleHit& hit) const;
    /// The flat copy of the maps that lookups walk, made now if it isn't there.
    const LookupIndex& lookupIndex() const;
    /// The flat copy when it is there or has become worth making; null while the maps answer.
    const LookupIndex* usableLookupIndex() const;
    /// The entry of the jit rva domain that holds `jitRva`, from the flat copy or the map.
    bool findJitRange(unsigned long long jitRva, Region** region, JitMethod*& method) const;
    /// Drops the flat copy; every operation that may change the maps calls it first.
    void invalidateLookupIndex();

    JitRvaDomain m_jitRvaDomain;
    MethodIdMap m_methods; ///< the methods of m_methodList, which holds them
    InlineCache m_inlineCache;
    VersionHistory::Arena m_versions; ///< of the histories in m_regionDomains
    RegionDomainMap m_regionDomains;
    MethodList m_methodList;
    // The methods of m_methods whose regions took in inlines since the last finalize: all that
    // it has to place, as placing is the same again for every other method.
    std::vector<JitMethod*> m_inlinesToPlace;
    mutable RvaTable m_rvaTable;
    mutable boost::mutex m_rvaTableMutex;
    unsigned int m_collectorType;
    // Set, with release order, once m_rvaTable holds entries, so that the check before the
    // lock doesn't race with the build.
    mutable std::atomic<bool> m_rvaTableFilled;
    CodeArena m_codeArena;
    mutable std::shared_mutex m_accessMutex;
    // The tree maps scatter their nodes over the heap; on a large store their cache misses cost
    // more than everything else of a lookup. Lookups therefore search sorted arrays, built once
    // enough lookups followed the last change, and published through the atomic pointer. Loads
    // run alone, so they may drop the arrays without a lock; until the arrays are there again,
    // searches use the maps.
    mutable boost::mutex m_lookupIndexMutex;
    mutable std::unique_ptr<LookupIndex> m_lookupIndexStorage;
    mutable std::atomic<const LookupIndex*> m_lookupIndex;
    mutable std::atomic<std::size_t> m_lookupsSinceChange;
};

} // namespace velmark_3_11
