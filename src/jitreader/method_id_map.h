// The store's methods by id, in one flat table.
#pragma once

#include <cstddef>
#include "jitreader/huge_pages.h"
#include "jitreader/method_id.h"

namespace velmark_3_11 {

class JitMethod;

/// Open addressing with linear probing: a lookup reads one or two neighbouring slots, where a
/// node-based hash map reads its bucket, the node before and the node itself, each a cache miss
/// once the store outgrows the cache. It only files methods, never drops one; the methods are
/// owned elsewhere.
class MethodIdMap {
public:
    /// The method filed under `id`, or null.
    JitMethod* find(const MethodId& id) const;
    /// Files `method` (not null) under `id` unless a method is filed there already; returns the
    /// method filed under `id` afterwards.
    JitMethod* insert(const MethodId& id, JitMethod* method);
    std::size_t size() const { return m_size; }
    /// Fetches the slot where a lookup of `id` starts into the cache, without waiting for it: the
    /// slots lie at random, and one read of them costs a miss.
    void prefetch(const MethodId& id) const
    {
        if (m_slots.size() != 0)
            __builtin_prefetch(&m_slots[home(id)]);
    }

    /// Calls `visit(method)` for every method, in no particular order.
    template <class Visit>
    void forEach(Visit visit) const
    {
        for (std::size_t at = 0; at < m_slots.size(); ++at)
            if (m_slots[at].method != nullptr)
                visit(m_slots[at].method);
    }

private:
    struct Slot {
        MethodId id;
        JitMethod* method = nullptr; ///< null in a free slot
    };

    std::size_t home(const MethodId& id) const;
    /// The slot that holds `id`, or the free slot where it would go; the table has room.
    std::size_t probe(const MethodId& id) const;
    void grow();

    // On huge pages once large: with 4 KB pages, lookups at random would miss the TLB as well.
    HugePageArray<Slot> m_slots; ///< a power of two of them, at most two thirds in use
    std::size_t m_size = 0;
    unsigned int m_shift = 64; ///< 64 minus log2 of the slot count
};

} // namespace velmark_3_11
