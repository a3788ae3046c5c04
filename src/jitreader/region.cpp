#include "jitreader/region.h"

#include "jitreader/byte_buffer.h"
#include "jitreader/jit_method.h"

namespace velmark_3_11 {

Region::Region(unsigned int processId, unsigned int hostId, unsigned long long loadTime, unsigned long long startJitRva,
               unsigned long long startAddress, unsigned int length, const boost::shared_ptr<IByteBuffer>& content)
    : m_hostId(hostId),
      m_processId(processId),
      m_startJitRva(startJitRva),
      m_loadTime(loadTime),
      m_unloadTime(0),
      m_startAddress(startAddress),
      m_length(length),
      m_content(content)
{
}

Region::Region(const Region& other)
    : ICodeRegion(other),
      m_hostId(other.m_hostId),
      m_processId(other.m_processId),
      m_startJitRva(other.m_startJitRva),
      m_loadTime(other.m_loadTime),
      m_unloadTime(other.m_unloadTime),
      m_startAddress(other.m_startAddress),
      m_length(other.m_length),
      m_markupRanges(other.m_markupRanges)
{
    if (other.m_content)
        m_content = makeByteBuffer(other.m_content->getData(), other.m_content->getSize());
}

Region::~Region() = default;

// TODO(region): inline lookups, addBytesUpdate, normalisation and dumps.
boost::intrusive_ptr<ISymbol> Region::getInlinedMethod(unsigned long long) const
{
    return nullptr;
}

boost::intrusive_ptr<ICodeRegion> Region::getInlinedRegion(unsigned long long) const
{
    return nullptr;
}

velmark_error_t Region::addBytesUpdate(unsigned long long, unsigned int, const boost::shared_ptr<IByteBuffer>&,
                                       velmark_segment_type_t, const std::wstring&)
{
    return meFail;
}

void Region::addInlined(const boost::intrusive_ptr<Region>& region, const boost::intrusive_ptr<JitMethod>& method)
{
    m_inlinedRegions.push_back(region);
    m_inlinedMethods.push_back(method);
}

unsigned int Region::inlineIndexAt(unsigned long long) const
{
    return 0xFFFFFFFFu;
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> Region::getInlinedRegions() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ICodeRegion>>(m_inlinedRegions);
}

velmark_error_t Region::normalizeInlineJitRvaRanges(unsigned long long, unsigned long long)
{
    return meSuccess;
}

void Region::dumpInlines(std::wostream&, unsigned int) const {}

} // namespace velmark_3_11
