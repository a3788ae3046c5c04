#include "jitreader/lookup_index.h"

#include <algorithm>
#include <cstdint>

#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

/// Whether the key [start, start + size) holds `address` as a map with Range::Comparator sees
/// it for the probe Range(address, 1).
bool covers(unsigned long long start, unsigned int size, unsigned long long address)
{
    const Range::Comparator less;
    return !less(Range(start, size), Range(address, 1)) && !less(Range(address, 1), Range(start, size));
}

/// For every slot k of an implicit tree of `count` keys (k from 1), the index of its key in
/// sorted order: an in-order walk of the tree meets the keys sorted.
void fillInOrder(std::vector<std::size_t>& order, std::size_t slot, std::size_t& next)
{
    if (slot >= order.size())
        return;
    fillInOrder(order, 2 * slot, next);
    order[slot] = next++;
    fillInOrder(order, 2 * slot + 1, next);
}

std::vector<std::size_t> treeOrder(std::size_t count)
{
    std::vector<std::size_t> order(count + 1);
    std::size_t next = 0;
    fillInOrder(order, 1, next);
    return order;
}

/// The slot of the last key in sorted order that starts at or before `address`, in the tree of
/// `count` keys at root[1] to root[count]; 0 when none does. With disjoint keys it is the only
/// one that can hold it. `visit` sees every slot that the search reads: the answer is one of them.
template <class Entry, class Visit>
std::size_t lastStartingAtOrBefore(const Entry* root, std::size_t count, unsigned long long address, Visit visit)
{
    // Four levels below a slot lie its 16 descendants side by side: fetched now, they are there
    // when the search gets to them. The address may lie past the array; a prefetch never faults.
    constexpr std::size_t kAhead = 16;
    const auto base = reinterpret_cast<std::uintptr_t>(root);
    std::size_t slot = 1;
    while (slot <= count) {
        const std::uintptr_t descendants = base + kAhead * slot * sizeof(Entry);
        for (std::size_t line = 0; line < kAhead * sizeof(Entry); line += 64)
            __builtin_prefetch(reinterpret_cast<const void*>(descendants + line));
        visit(slot);
        slot = 2 * slot + (root[slot].start <= address ? 1 : 0);
    }
    // The walk turned right at every key at or before the address, the last time at the answer:
    // dropping the left turns after it, and that one, leaves its slot.
    return slot >> (__builtin_ctzll(slot) + 1);
}

/// Slots to take for a tree of `count` keys from its root slot, so that the next one starts a
/// cache line as this one does.
template <class Entry>
std::size_t paddedSlots(std::size_t count)
{
    constexpr std::size_t perLine = 64 / sizeof(Entry);
    return (count + 1 + perLine - 1) / perLine * perLine;
}

} // namespace

LookupIndex::LookupIndex(const JitDataManager::JitRvaDomain& jitRvaDomain,
                         const JitDataManager::RegionDomainMap& regionDomains)
{
    {
        // An empty entry holds no jit rva, and the search never asks for one.
        std::vector<JitDataManager::JitRvaDomain::const_iterator> entries;
        for (auto it = jitRvaDomain.begin(); it != jitRvaDomain.end(); ++it)
            if (it->first.size != 0)
                entries.push_back(it);
        std::vector<JitEntry> sorted;
        std::vector<Region*> regions;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const auto& entry = *entries[i];
            sorted.push_back({entry.first.start, entry.second.second.get()});
            regions.push_back(entry.second.first.get());
            const unsigned long long end = entry.first.boundedEnd();
            if (i + 1 == entries.size() || entries[i + 1]->first.start > end) {
                sorted.push_back({end, nullptr});
                regions.push_back(nullptr);
            }
        }
        m_jitCount = sorted.size();
        m_jitEntries = HugePageArray<JitEntry>(m_jitCount + 1);
        m_jitRegions = HugePageArray<Region*>(m_jitCount + 1);
        m_jitEntries[0] = {0, nullptr};
        m_jitRegions[0] = nullptr;
        const std::vector<std::size_t> order = treeOrder(m_jitCount);
        for (std::size_t slot = 1; slot <= m_jitCount; ++slot) {
            m_jitEntries[slot] = sorted[order[slot]];
            m_jitRegions[slot] = regions[order[slot]];
        }
    }

    std::size_t keySlots = 1;
    std::size_t timeCount = 0;
    for (const auto& host : regionDomains)
        for (const auto& process : host.second) {
            keySlots += paddedSlots<Key>(process.second.size());
            for (const auto& key : process.second)
                timeCount += key.second.size();
        }
    m_keys = HugePageArray<Key>(keySlots);
    m_times = HugePageArray<TimeEntry>(timeCount);
    m_timeRegions = HugePageArray<Region*>(timeCount);

    std::size_t nextSlot = 0;
    std::size_t nextTime = 0;
    const auto fillGap = [&](std::size_t end) {
        for (; nextSlot < end; ++nextSlot)
            m_keys[nextSlot] = {0, 0, static_cast<unsigned int>(nextTime)};
    };
    std::vector<JitDataManager::RegionDomain::const_iterator> sorted;
    for (const auto& host : regionDomains) {
        for (const auto& process : host.second) {
            const JitDataManager::RegionDomain& keys = process.second;
            const Domain domain = {host.first, process.first, nextSlot, keys.size()};
            sorted.clear();
            for (auto it = keys.begin(); it != keys.end(); ++it)
                sorted.push_back(it);
            const std::vector<std::size_t> order = treeOrder(keys.size());
            fillGap(domain.root + 1);
            for (std::size_t slot = 1; slot <= keys.size(); ++slot, ++nextSlot) {
                const auto& key = *sorted[order[slot]];
                m_keys[nextSlot] = {key.first.start, key.first.size, static_cast<unsigned int>(nextTime)};
                // The history runs from the newest version: its entries are filled from the end.
                nextTime += key.second.size();
                std::size_t at = nextTime;
                for (const VersionHistory::Version* version = key.second.newest(); version != nullptr;
                     version = version->older) {
                    const Region& region = *version->region;
                    m_times[--at] = {version->loadTime, region.unloadTime(),
                                     region.startJitRva() - region.startAddress(), version->owner};
                    m_timeRegions[at] = version->region;
                }
            }
            fillGap(domain.root + paddedSlots<Key>(keys.size()));
            m_domains.push_back(domain);
        }
    }
    fillGap(keySlots);
}

const LookupIndex::Domain* LookupIndex::findDomain(unsigned int processId, unsigned int hostId) const
{
    const auto it = std::lower_bound(m_domains.begin(), m_domains.end(), std::make_pair(hostId, processId),
                                     [](const Domain& domain, const std::pair<unsigned int, unsigned int>& id) {
                                         return std::make_pair(domain.hostId, domain.processId) < id;
                                     });
    if (it == m_domains.end() || it->hostId != hostId || it->processId != processId)
        return nullptr;
    return &*it;
}

bool LookupIndex::findJitRange(unsigned long long jitRva, Region** region, JitMethod*& method) const
{
    const std::size_t slot = lastStartingAtOrBefore(m_jitEntries.data(), m_jitCount, jitRva, [](std::size_t) {});
    if (slot == 0 || m_jitEntries[slot].method == nullptr)
        return false;
    method = m_jitEntries[slot].method;
    if (region != nullptr)
        *region = m_jitRegions[slot];
    return true;
}

velmark_error_t LookupIndex::findSample(unsigned long long address, unsigned long long timestamp,
                                        unsigned int processId, unsigned int hostId, bool wantRegion,
                                        SampleHit& hit) const
{
    const Domain* domain = findDomain(processId, hostId);
    if (domain == nullptr) {
        VM_TRACE(L"Couldn't find a region domain for pid = " << processId);
        return meFail;
    }
    const Key* root = &m_keys[domain->root];
    // The answer is the slot of the search's last turn to the right: seven times in eight one of
    // the last three levels. Their times, fetched on the way, come in alongside the search
    // instead of after it; fetching those of every level costs more than it saves.
    const TimeEntry* times = m_times.data();
    const std::size_t deep = domain->count >> 3;
    const std::size_t slot = lastStartingAtOrBefore(root, domain->count, address, [root, times, deep](std::size_t at) {
        if (at > deep)
            __builtin_prefetch(times + root[at].firstTime);
    });
    if (slot == 0 || !covers(root[slot].start, root[slot].size, address)) {
        VM_TRACE(L"Couldn't find a region for addr = " << address);
        return meFail;
    }
    const auto first = m_times.data() + root[slot].firstTime;
    const auto last = m_times.data() + root[slot + 1].firstTime;
    // A key holds a few versions of code: a forward scan lets the processor fetch all of them at
    // once, where a binary search would wait for each probe.
    auto entry = first;
    if (last - first <= 16) {
        while (entry != last && entry->loadTime <= timestamp)
            ++entry;
    } else {
        entry = std::upper_bound(first, last, timestamp, [](unsigned long long time, const TimeEntry& candidate) {
            return time < candidate.loadTime;
        });
    }
    // A sample at the very load time already sees the new code.
    if (entry == first) {
        VM_TRACE(L"Couldn't find a region domain by tsc = " << timestamp);
        return meFail;
    }
    --entry;
    // The region is read only when needed: it lives in another array, and costs a cache miss.
    Region* const* region = &m_timeRegions[static_cast<std::size_t>(entry - m_times.data())];
    if (entry->unloadTime > entry->loadTime && entry->unloadTime <= timestamp) {
        VM_TRACE(L"The found range (" << (*region)->startAddress() << L"-" << (*region)->endAddress()
                                      << L") with life time (" << entry->loadTime << L"-" << entry->unloadTime
                                      << L") was out of memory when a sample with tsc = " << timestamp
                                      << L" occurred");
        return meFail;
    }
    if (entry->method == nullptr) {
        VM_TRACE(L"Couldn't find a method by code's jitrva = " << (*region)->startJitRva());
        return meFail;
    }
    hit = {entry->method, entry->jitRvaOffset, wantRegion ? *region : nullptr};
    return meSuccess;
}

} // namespace velmark_3_11
