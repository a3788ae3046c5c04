// Cuts the address keys of a process where new code lands on addresses that older code holds.
#pragma once

#include "jitreader/jit_data_manager.h"

namespace velmark_3_11 {

class RegionSplitter {
public:
    typedef JitDataManager::RegionDomain RegionDomain;
    typedef VersionHistory::Arena Arena;

    /// The keys that replace [lower, upper) once `region` of `method` enters them: meSuccess or
    /// meFail, with the message of the step that failed.
    static velmark_error_t splitRegions(const boost::intrusive_ptr<Region>& region,
                                        const boost::intrusive_ptr<JitMethod>& method,
                                        const RegionDomain::iterator& lower, const RegionDomain::iterator& upper,
                                        RegionDomain& splittedRegions, Arena& arena);

    /// Whether `region` can enter every key of [lower, upper): none holds its load time or its
    /// start jit rva yet, so that splitRegions succeeds.
    static bool fits(const Region& region, RegionDomain::const_iterator lower, RegionDomain::const_iterator upper);
    /// Makes `domain` what it would be with splitRegions' keys in the place of [lower, upper),
    /// for a region that fits, in place and without messages: only the keys that the region's
    /// ends cut are replaced, and the keys under it take it in where they are.
    static void splitInPlace(const boost::intrusive_ptr<Region>& region, const boost::intrusive_ptr<JitMethod>& method,
                             RegionDomain& domain, RegionDomain::iterator lower, RegionDomain::iterator upper,
                             Arena& arena);

private:
    static velmark_error_t modifyRegionAssosiatedData(const boost::intrusive_ptr<JitMethod>& method,
                                                      const boost::intrusive_ptr<Region>& region,
                                                      VersionHistory& history, Arena& arena);
    static velmark_error_t addSplittedRegion(const Range& range, const VersionHistory& history,
                                             RegionDomain& splittedRegions);
};

} // namespace velmark_3_11
