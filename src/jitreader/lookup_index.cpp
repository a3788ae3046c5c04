#include "jitreader/lookup_index.h"

#include <algorithm>

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

/// The index of the last entry among [first, end), sorted by start, that starts at or before
/// `address`; `end` when none does. With disjoint keys it is the only one that can hold it.
template <class Entry, class Start>
std::size_t lastStartingAtOrBefore(const std::vector<Entry>& entries, std::size_t first, std::size_t end,
                                   unsigned long long address, Start start)
{
    const auto begin = entries.begin() + static_cast<std::ptrdiff_t>(first);
    const auto it = std::upper_bound(begin, entries.begin() + static_cast<std::ptrdiff_t>(end), address,
                                     [&start](unsigned long long value, const Entry& entry) {
                                         return value < start(entry);
                                     });
    return it == begin ? end : static_cast<std::size_t>(it - entries.begin()) - 1;
}

} // namespace

LookupIndex::LookupIndex(const JitDataManager::JitRvaDomain& jitRvaDomain,
                         const JitDataManager::RegionDomainMap& regionDomains)
{
    m_jitEntries.reserve(jitRvaDomain.size());
    m_jitSizes.reserve(jitRvaDomain.size());
    m_jitRegions.reserve(jitRvaDomain.size());
    for (const auto& entry : jitRvaDomain) {
        m_jitEntries.push_back({entry.first.start, entry.second.second.get()});
        m_jitSizes.push_back(entry.first.size);
        m_jitRegions.push_back(entry.second.first.get());
    }

    for (const auto& host : regionDomains) {
        for (const auto& process : host.second) {
            Domain domain = {host.first, process.first, m_keys.size(), 0};
            for (const auto& key : process.second) {
                const JitDataManager::JitMethodContainer& container = *key.second;
                m_keys.push_back({key.first.start, key.first.size, static_cast<unsigned int>(m_times.size())});
                for (const auto& time : container.timeDomain) {
                    const Region& region = *time.second;
                    const auto owner = container.regionIdDomain.find(region.startJitRva());
                    m_times.push_back({time.first, region.unloadTime(), region.startJitRva() - region.startAddress(),
                                       owner == container.regionIdDomain.end() ? nullptr : owner->second.get()});
                    m_timeRegions.push_back(time.second.get());
                }
            }
            domain.endKey = m_keys.size();
            m_domains.push_back(domain);
        }
    }
    m_keys.push_back({0, 0, static_cast<unsigned int>(m_times.size())});
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
    const std::size_t entry = lastStartingAtOrBefore(m_jitEntries, 0, m_jitEntries.size(), jitRva,
                                                     [](const JitEntry& e) { return e.start; });
    if (entry == m_jitEntries.size() || !covers(m_jitEntries[entry].start, m_jitSizes[entry], jitRva))
        return false;
    method = m_jitEntries[entry].method;
    if (region != nullptr)
        *region = m_jitRegions[entry];
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
    std::size_t key = lastStartingAtOrBefore(m_keys, domain->firstKey, domain->endKey, address,
                                             [](const Key& k) { return k.start; });
    if (key != domain->endKey && !covers(m_keys[key].start, m_keys[key].size, address))
        key = domain->endKey;
    if (key == domain->endKey) {
        VM_TRACE(L"Couldn't find a region for addr = " << address);
        return meFail;
    }
    const auto first = m_times.begin() + m_keys[key].firstTime;
    const auto last = m_times.begin() + m_keys[key + 1].firstTime;
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
    Region* const* region = &m_timeRegions[static_cast<std::size_t>(entry - m_times.begin())];
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
