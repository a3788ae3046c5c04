#include "jitreader/jit_data_manager.h"

namespace velmark_3_11 {

// TODO(jit_data_manager)
JitDataManager::JitDataManager() : m_collectorType(0) {}
JitDataManager::~JitDataManager() = default;

velmark_error_t JitDataManager::processMethodLoadRecord(unsigned int, unsigned int, boost::intrusive_ptr<JitMethod>&)
{
    return meBadTrace;
}

velmark_error_t JitDataManager::processMethodUpdateRecord(unsigned int, unsigned int, boost::intrusive_ptr<JitMethod>&)
{
    return meFail;
}

velmark_error_t JitDataManager::processMethodInlineLoadRecord(unsigned int, unsigned int,
                                                              boost::intrusive_ptr<JitMethod>&)
{
    return meFail;
}

void JitDataManager::finalize() {}

velmark_error_t JitDataManager::searchRegion(unsigned long long, unsigned long long, unsigned int, unsigned int,
                                             boost::intrusive_ptr<Region>&, boost::intrusive_ptr<JitMethod>&) const
{
    return meFail;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long, unsigned long long, unsigned int, unsigned int,
                                                boost::intrusive_ptr<JitMethod>&, unsigned long long&) const
{
    return meFail;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long, boost::intrusive_ptr<JitMethod>&) const
{
    return meFail;
}

velmark_error_t JitDataManager::findNextRegion(unsigned long long, unsigned long long, unsigned long long,
                                               unsigned int, unsigned int, boost::intrusive_ptr<ICodeRegion>&) const
{
    return meFail;
}

velmark_error_t JitDataManager::resolveJitRvaByAddress(unsigned long long, unsigned long long,
                                                       unsigned long long&) const
{
    return meFail;
}

velmark_error_t JitDataManager::translateJitAddress(unsigned int, unsigned long long, unsigned long long,
                                                    unsigned long long, unsigned long long&) const
{
    return meFail;
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ISymbol>> JitDataManager::getMethods() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ISymbol>>(m_methodList);
}

const JitDataManager::RegionDomain* JitDataManager::getRegionDomain(unsigned int, unsigned int) const
{
    return nullptr;
}

JitDataManager::RegionDomain& JitDataManager::getOrCreateRegionDomain(unsigned int processId, unsigned int hostId)
{
    return m_regionDomains[hostId][processId];
}

} // namespace velmark_3_11
