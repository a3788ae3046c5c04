#include "jitreader/method_id_map.h"

#include <utility>

namespace velmark_3_11 {

namespace {

constexpr unsigned long long kGolden = 0x9e3779b97f4a7c15ULL;
constexpr std::size_t kFirstSlots = 64;

} // namespace

std::size_t MethodIdMap::home(const MethodId& id) const
{
    // Digests are spread already, but ids that tests and tools make up may not be: the product
    // carries every bit of both halves into the top bits that pick the slot.
    const unsigned long long mixed = (id.high() ^ (id.low() * kGolden)) * kGolden;
    return static_cast<std::size_t>(mixed >> m_shift);
}

std::size_t MethodIdMap::probe(const MethodId& id) const
{
    const std::size_t mask = m_slots.size() - 1;
    std::size_t at = home(id);
    while (m_slots[at].method != nullptr && !(m_slots[at].id == id))
        at = (at + 1) & mask;
    return at;
}

JitMethod* MethodIdMap::find(const MethodId& id) const
{
    return m_slots.size() == 0 ? nullptr : m_slots[probe(id)].method;
}

JitMethod* MethodIdMap::insert(const MethodId& id, JitMethod* method)
{
    if (3 * (m_size + 1) > 2 * m_slots.size())
        grow();
    Slot& slot = m_slots[probe(id)];
    if (slot.method == nullptr) {
        slot.id = id;
        slot.method = method;
        ++m_size;
    }
    return slot.method;
}

void MethodIdMap::grow()
{
    HugePageArray<Slot> old(m_slots.size() == 0 ? kFirstSlots : 2 * m_slots.size());
    for (std::size_t at = 0; at < old.size(); ++at)
        old[at] = Slot();
    std::swap(old, m_slots);
    m_shift = 64 - static_cast<unsigned int>(__builtin_ctzll(m_slots.size()));
    m_size = 0;
    for (std::size_t at = 0; at < old.size(); ++at)
        if (old[at].method != nullptr)
            insert(old[at].id, old[at].method);
}

} // namespace velmark_3_11
