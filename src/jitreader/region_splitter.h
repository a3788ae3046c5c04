// Cuts the address keys of a process where new code lands on addresses that older code holds.
#pragma once

#include "jitreader/jit_data_manager.h"

namespace velmark_3_11 {

class RegionSplitter {
public:
    typedef JitDataManager::RegionDomain RegionDomain;
    typedef JitDataManager::JitMethodContainer JitMethodContainer;

    /// The keys that replace [lower, upper) once `region` of `method` enters them: meSuccess or
    /// meFail, with the message of the step that failed.
    static velmark_error_t splitRegions(const boost::intrusive_ptr<Region>& region,
                                        const boost::intrusive_ptr<JitMethod>& method,
                                        const RegionDomain::iterator& lower, const RegionDomain::iterator& upper,
                                        RegionDomain& splittedRegions);

private:
    static velmark_error_t modifyRegionAssosiatedData(const boost::intrusive_ptr<JitMethod>& method,
                                                      const boost::intrusive_ptr<Region>& region,
                                                      JitDataManager::ContainerPtr& container);
    static velmark_error_t addSplittedRegion(const Range& range,
                                             const JitDataManager::ContainerPtr& container,
                                             RegionDomain& splittedRegions);
};

} // namespace velmark_3_11
