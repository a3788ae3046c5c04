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

JitMethod* MethodIdMap::find(const MethodId& id) const
{
    if (m_slots.size() == 0)
        return nullptr;
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t at = home(id);; at = (at + 1) & mask) {
        const Slot& slot = m_slots[at];
        if (slot.method == nullptr)
            return nullptr;
        if (slot.id == id)
            return slot.method;
    }
}

JitMethod* MethodIdMap::insert(const MethodId& id, JitMethod* method)
{
    if (3 * (m_size + 1) > 2 * m_slots.size())
        grow();
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t at = home(id);; at = (at + 1) & mask) {
        Slot& slot = m_slots[at];
        if (slot.method == nullptr) {
            slot.id = id;
            slot.method = method;
            ++m_size;
            return method;
        }
        if (slot.id == id)
            return slot.method;
    }
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
