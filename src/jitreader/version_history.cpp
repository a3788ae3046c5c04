#include "jitreader/version_history.h"

#include <algorithm>

#include <boost/container/small_vector.hpp>

#include "jitreader/region.h"

namespace velmark_3_11 {

namespace {

// The first chunk suits a store of a few hundred records; chunks double up to a huge page. Large
// chunks must land on huge pages: with 4 KB pages, the first write to each page costs a fault
// that takes longer than making all the versions on it.
constexpr std::size_t kFirstChunk = 64;
constexpr std::size_t kLargestChunk = (2u << 20) / sizeof(VersionHistory::Version);

} // namespace

VersionHistory::Version* VersionHistory::Arena::make(const Version& version)
{
    if (m_chunks.empty() || m_used == m_chunks.back().size()) {
        const std::size_t count = m_chunks.empty() ? kFirstChunk : std::min(2 * m_chunks.back().size(), kLargestChunk);
        m_chunks.emplace_back(count);
        m_used = 0;
    }
    Version* made = &m_chunks.back()[m_used++];
    *made = version;
    return made;
}

const VersionHistory::Version* VersionHistory::at(unsigned long long time) const
{
    const Version* version = m_newest;
    while (version != nullptr && version->loadTime > time)
        version = version->older;
    return version;
}

const VersionHistory::Version* VersionHistory::after(unsigned long long time) const
{
    const Version* found = nullptr;
    for (const Version* version = m_newest; version != nullptr && version->loadTime > time; version = version->older)
        found = version;
    return found;
}

const VersionHistory::Version* VersionHistory::ownerOf(unsigned long long startJitRva) const
{
    // The owner is the same in every version with that start: any of them tells it.
    for (const Version* version = m_newest; version != nullptr; version = version->older)
        if (version->region->startJitRva() == startJitRva)
            return version;
    return nullptr;
}

bool VersionHistory::mayShareStart(const Region& region) const
{
    return region.length() == 0 || (m_newest != nullptr && m_newest->holdsEmpty);
}

bool VersionHistory::accepts(const Region& region) const
{
    const Version* below = at(region.loadTime());
    if (below != nullptr && below->loadTime == region.loadTime())
        return false;
    return !mayShareStart(region) || ownerOf(region.startJitRva()) == nullptr;
}

VersionHistory::Placed VersionHistory::add(Region& region, JitMethod* method, Arena& arena)
{
    const unsigned long long time = region.loadTime();
    boost::container::small_vector<const Version*, 4> later;
    const Version* below = m_newest;
    for (; below != nullptr && below->loadTime > time; below = below->older)
        later.push_back(below);
    if (below != nullptr && below->loadTime == time)
        return {false, nullptr, false};

    const Version* named = mayShareStart(region) ? ownerOf(region.startJitRva()) : nullptr;
    const Version* placed = arena.make({time, &region, named != nullptr ? named->owner : method, below,
                                        (below != nullptr ? below->depth : 0) + 1,
                                        region.length() == 0 || (below != nullptr && below->holdsEmpty)});
    for (auto it = later.rbegin(); it != later.rend(); ++it)
        placed = arena.make({(*it)->loadTime, (*it)->region, (*it)->owner, placed, placed->depth + 1,
                             placed->holdsEmpty || (*it)->region->length() == 0});
    m_newest = placed;

    // A load older than everything here closes nothing, and an unload time once set stays.
    Region* closed = below != nullptr && below->region->unloadTime() == 0 ? below->region : nullptr;
    if (closed != nullptr)
        closed->setUnloadTime(time);
    return {true, closed, named != nullptr};
}

std::vector<const VersionHistory::Version*> VersionHistory::oldestFirst() const
{
    std::vector<const Version*> versions(size());
    std::size_t at = versions.size();
    for (const Version* version = m_newest; version != nullptr; version = version->older)
        versions[--at] = version;
    return versions;
}

} // namespace velmark_3_11
