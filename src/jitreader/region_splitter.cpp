#include "jitreader/region_splitter.h"

#include <algorithm>
#include <iterator>

#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;


/// The interval [a, b) as a key.
Range piece(unsigned long long a, unsigned long long b)
{
    return Range(a, static_cast<unsigned int>(b - a));
}

enum class kind_t { copy, fresh, old };
struct piece_t {
    unsigned long long start;
    unsigned long long end;
    kind_t kind;
};

/// The pieces that the key [os, oe) falls into as new code [ns, ne) enters it, in the order in
/// which they are made. The old key always comes last, so that copies are taken before the new
/// region enters it; fresh and old pieces take the new region.
std::size_t piecesOf(unsigned long long ns, unsigned long long ne, unsigned long long os, unsigned long long oe,
                     piece_t (&pieces)[3])
{
    std::size_t count = 0;
    if (ns > os)
        pieces[count++] = {os, ns, kind_t::copy};
    else if (ns < os)
        pieces[count++] = {ns, os, kind_t::fresh};
    if (ne < oe)
        pieces[count++] = {ne, oe, kind_t::copy};
    else if (ne > oe)
        pieces[count++] = {oe, ne, kind_t::fresh};
    pieces[count++] = {std::max(ns, os), std::min(ne, oe), kind_t::old};
    return count;
}

} // namespace

velmark_error_t RegionSplitter::splitRegions(const boost::intrusive_ptr<Region>& region,
                                             const boost::intrusive_ptr<JitMethod>& method,
                                             const RegionDomain::iterator& lower, const RegionDomain::iterator& upper,
                                             RegionDomain& splittedRegions, Arena& arena)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::splitRegions(const "
                   "boost::intrusive_ptr<velmark_3_11::Region> &, const boost::intrusive_ptr<velmark_3_11::JitMethod> "
                   "&, const std::map<velmark_3_11::Range, "
                   "boost::shared_ptr<velmark_3_11::JitDataManager::JitMethodContainer>, "
                   "velmark_3_11::Range::Comparator>::iterator &, const std::map<velmark_3_11::Range, "
                   "boost::shared_ptr<velmark_3_11::JitDataManager::JitMethodContainer>, "
                   "velmark_3_11::Range::Comparator>::iterator &, std::map<velmark_3_11::Range, "
                   "boost::shared_ptr<velmark_3_11::JitDataManager::JitMethodContainer>, "
                   "velmark_3_11::Range::Comparator> &) const");
    BASEKIT2_ASSERT_TEXT(splittedRegions.empty(), "splittedRegions.empty()");

    unsigned long long ns = region->startAddress();
    const unsigned long long ne = ns + region->length();
    VM_INFO(L"Code region (ip range = " << ns << L"-" << ne << L")");

    for (auto it = lower; it != upper; ++it) {
        const unsigned long long os = it->first.start;
        const unsigned long long oe = it->first.end();
        VM_INFO(L"Overlapped code region (ip range = " << os << L"-" << oe << L")");

        piece_t actions[3];
        const std::size_t count = piecesOf(ns, ne, os, oe, actions);
        for (std::size_t i = 0; i < count; ++i) {
            const piece_t& action = actions[i];
            // The old key takes the region where it is, as the search for the log reads it there.
            VersionHistory own = action.kind == kind_t::copy ? it->second : VersionHistory();
            VersionHistory& history = action.kind == kind_t::old ? it->second : own;
            if (action.kind != kind_t::copy && modifyRegionAssosiatedData(method, region, history, arena) != meSuccess)
                return meFail;
            if (addSplittedRegion(piece(action.start, action.end), history, splittedRegions) != meSuccess)
                return meFail;
        }

        if (std::next(it) != upper) {
            // The tail past this key is cut again by the next key.
            ns = oe;
            if (splittedRegions.empty())
                return meFail;
            splittedRegions.erase(std::prev(splittedRegions.end()));
        }
    }
    return meSuccess;
}

bool RegionSplitter::fits(const Region& region, RegionDomain::const_iterator lower,
                          RegionDomain::const_iterator upper)
{
    for (auto it = lower; it != upper; ++it)
        if (!it->second.accepts(region))
            return false;
    return true;
}

void RegionSplitter::splitInPlace(const boost::intrusive_ptr<Region>& region,
                                  const boost::intrusive_ptr<JitMethod>& method, RegionDomain& domain,
                                  RegionDomain::iterator lower, RegionDomain::iterator upper, Arena& arena)
{
    unsigned long long ns = region->startAddress();
    const unsigned long long ne = ns + region->length();
    for (auto it = lower; it != upper;) {
        const auto next = std::next(it);
        const unsigned long long os = it->first.start;
        const unsigned long long oe = it->first.end();

        piece_t pieces[3];
        const std::size_t count = piecesOf(ns, ne, os, oe, pieces);

        // A copy shares the history as it is; the region entering the old key's history makes
        // versions of its own and leaves the copy as it was.
        std::pair<Range, VersionHistory> added[2];
        std::size_t addedCount = 0;
        Range oldPiece;
        for (std::size_t i = 0; i < count; ++i) {
            const piece_t& p = pieces[i];
            // Before a further key, the piece past this one is cut again by that key:
            // splitRegions makes it and drops it.
            if (p.start == oe && next != upper)
                continue;
            switch (p.kind) {
            case kind_t::copy: added[addedCount++] = {piece(p.start, p.end), it->second}; break;
            case kind_t::fresh:
                added[addedCount] = {piece(p.start, p.end), VersionHistory()};
                added[addedCount++].second.add(*region, method.get(), arena);
                break;
            case kind_t::old: oldPiece = piece(p.start, p.end); break;
            }
        }
        it->second.add(*region, method.get(), arena);

        if (oldPiece != it->first) {
            auto node = domain.extract(it);
            node.key() = oldPiece;
            it = domain.insert(next, std::move(node));
        }
        for (std::size_t i = 0; i < addedCount; ++i)
            domain.emplace_hint(added[i].first.start < oldPiece.start ? it : next, std::move(added[i]));

        if (next != upper)
            ns = oe;
        it = next;
    }
}

velmark_error_t RegionSplitter::modifyRegionAssosiatedData(const boost::intrusive_ptr<JitMethod>& method,
                                                           const boost::intrusive_ptr<Region>& region,
                                                           VersionHistory& history, Arena& arena)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::modifyRegionAssosiatedData(const "
                   "boost::intrusive_ptr<velmark_3_11::JitMethod> &, const boost::intrusive_ptr<velmark_3_11::Region> "
                   "&, boost::shared_ptr<velmark_3_11::JitDataManager::JitMethodContainer> &) const");
    const unsigned long long loadTime = region->loadTime();

    const VersionHistory::Placed placed = history.add(*region, method.get(), arena);
    if (!placed.added) {
        VM_ERROR(L"Couldn't add a splitted region (ip range = " << region->startAddress() << L"-"
                                                                << region->endAddress() << L", loadTime=" << loadTime
                                                                << L") in the single time domain");
        return meFail;
    }
    VM_INFO(L"Added a splitted region (ip range = " << region->startAddress() << L"-" << region->endAddress()
                                                    << L", loadTime=" << loadTime << L") in the single time domain");

    if (placed.closed != nullptr)
        VM_TRACE(L"Set unload time = " << loadTime << L" for region (" << placed.closed->startAddress() << L"-"
                                       << placed.closed->endAddress() << L")");

    if (placed.startJitRvaTaken) {
        VM_ERROR(L"Couldn't add a splitted region (ip range = " << region->startAddress() << L"-"
                                                                << region->endAddress() << L", jitRva="
                                                                << region->startJitRva()
                                                                << L") in the single region id domain");
        return meFail;
    }
    VM_INFO(L"Added a splitted region (ip range = " << region->startAddress() << L"-" << region->endAddress()
                                                    << L", jitRva=" << region->startJitRva()
                                                    << L") in the single region id domain");
    return meSuccess;
}

velmark_error_t RegionSplitter::addSplittedRegion(const Range& range, const VersionHistory& history,
                                                  RegionDomain& splittedRegions)
{
    if (!splittedRegions.emplace(range, history).second) {
        VM_ERROR(L"Couldn't add a splitted region (ip range = " << range.start << L"-" << range.end() << L")");
        return meFail;
    }
    VM_INFO(L"Added a splitted region (ip range = " << range.start << L"-" << range.end() << L")");
    return meSuccess;
}

} // namespace velmark_3_11
