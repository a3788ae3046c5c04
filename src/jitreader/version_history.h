// Everything that ever lived at one ip range of one process, newest first.
#pragma once

#include <cstddef>
#include <vector>

#include "jitreader/huge_pages.h"

namespace velmark_3_11 {

class JitMethod;
class Region;

/// A key of the store's ip map holds the versions of code loaded at its range as a list from the
/// newest to the oldest. Cutting a key gives every piece the same list, and code entering a range
/// puts one version in front of it: neither copies what came before, so many generations of code
/// over the same addresses cost no more per record than one. Versions live in an arena of the
/// store and are never changed once made; a history is a pointer, copied freely.
class VersionHistory {
public:
    struct Version {
        unsigned long long loadTime;
        Region* region;
        /// The method that this history names for the region's start jit rva: the first one
        /// that came with a region starting there.
        JitMethod* owner;
        const Version* older;
        unsigned int depth; ///< this version and all older ones
        /// Whether this version or an older one has no bytes: only such a region may share its
        /// start jit rva with another.
        bool holdsEmpty;
    };

    /// Where versions are made; they go all at once, with the arena. Not safe for concurrent use.
    class Arena {
    public:
        Arena() = default;
        Arena(const Arena&) = delete;
        Arena& operator=(const Arena&) = delete;
        Version* make(const Version& version);

    private:
        std::vector<HugePageArray<Version>> m_chunks;
        std::size_t m_used = 0; ///< of the last chunk
    };

    /// What add did.
    struct Placed {
        bool added;            ///< false when a version of the same load time was there
        Region* closed;        ///< the region loaded last before, whose life this load ended
        bool startJitRvaTaken; ///< the region's start jit rva was named before, by an older owner
    };

    bool empty() const { return m_newest == nullptr; }
    std::size_t size() const { return m_newest != nullptr ? m_newest->depth : 0; }
    const Version* newest() const { return m_newest; }

    /// The version loaded last at or before `time`, or null.
    const Version* at(unsigned long long time) const;
    /// The version loaded first after `time`, or null.
    const Version* after(unsigned long long time) const;
    /// Whether add would place `region` without a refusal: no version has its load time, and
    /// its start jit rva is named by none.
    bool accepts(const Region& region) const;

    /// Places `region` of `method` by its load time, and ends the life of the region loaded last
    /// before it unless that one's has ended already. Versions loaded later are made again above
    /// it, as other histories may share them; a refused region changes nothing, and a region
    /// whose start jit rva was named before keeps the older owner.
    Placed add(Region& region, JitMethod* method, Arena& arena);

    /// The versions from the oldest to the newest.
    std::vector<const Version*> oldestFirst() const;

private:
    /// Whether `region` may start where a version's region does: only where one of them has no
    /// bytes, as the store's jit rva map refuses any other.
    bool mayShareStart(const Region& region) const;
    /// A version whose region starts at `startJitRva`, or null.
    const Version* ownerOf(unsigned long long startJitRva) const;

    const Version* m_newest = nullptr;
};

} // namespace velmark_3_11
