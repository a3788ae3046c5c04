#include "jitreader/region.h"

#include <algorithm>
#include <cstring>
#include <iomanip>

#include <boost/io/ios_state.hpp>

#include "basekit2/assertion.h"
#include "jitreader/byte_buffer.h"
#include "jitreader/jit_method.h"
#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

/// Copies up to `count` bytes from `source` at `sourceOffset` to `target` at `targetOffset`,
/// only as far as both buffers reach: bytes that either side lacks stay as they are.
void copyBounded(std::vector<unsigned char>& target, unsigned long long targetOffset, const void* source,
                 unsigned long long sourceSize, unsigned long long sourceOffset, unsigned long long count)
{
    if (source == nullptr || targetOffset >= target.size() || sourceOffset >= sourceSize)
        return;
    count = std::min(count, static_cast<unsigned long long>(target.size()) - targetOffset);
    count = std::min(count, sourceSize - sourceOffset);
    std::memcpy(target.data() + targetOffset, static_cast<const unsigned char*>(source) + sourceOffset,
                static_cast<std::size_t>(count));
}

} // namespace

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

unsigned int Region::inlineIndexAt(unsigned long long jitRva) const
{
    for (std::size_t i = 0; i < m_inlinedRegions.size(); ++i) {
        const Region& region = *m_inlinedRegions[i];
        if (region.m_startJitRva <= jitRva && jitRva - region.m_startJitRva < region.m_length)
            return static_cast<unsigned int>(i);
    }
    return 0xFFFFFFFFu;
}

boost::intrusive_ptr<ISymbol> Region::getInlinedMethod(unsigned long long jitRva) const
{
    BASEKIT2_ASSERT_TEXT(m_inlinedRegions.size() == m_inlinedMethods.size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");
    const unsigned int index = inlineIndexAt(jitRva);
    if (index >= m_inlinedMethods.size())
        return nullptr;
    return m_inlinedMethods[index];
}

boost::intrusive_ptr<ICodeRegion> Region::getInlinedRegion(unsigned long long jitRva) const
{
    BASEKIT2_ASSERT_TEXT(m_inlinedRegions.size() == m_inlinedMethods.size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");
    const unsigned int index = inlineIndexAt(jitRva);
    if (index >= m_inlinedRegions.size())
        return nullptr;
    return m_inlinedRegions[index];
}

velmark_error_t Region::addBytesUpdate(unsigned long long codeAddr, unsigned int codeLen,
                                       const boost::shared_ptr<IByteBuffer>& content, velmark_segment_type_t segType,
                                       const std::wstring& name)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::Region::addBytesUpdate(unsigned __int64, unsigned int, const "
                   "boost::shared_ptr<velmark_3_11::IByteBuffer> &, velmark_3_11::velmark_segment_type_t, const "
                   "std::wstring &)");

    if (codeAddr == 0 || codeLen == 0) {
        VM_ERROR_AT(L"Couldn't update because the input range is invalid:" << L" codeAddr = " << codeAddr
                                                                           << L", codeLen = " << codeLen);
        return meFail;
    }
    if (!content) {
        VM_ERROR_AT(L"Couldn't update because the input content is empty");
        return meFail;
    }
    if (segType != stCode && segType != stData && segType != stKeep) {
        VM_ERROR_AT(L"Couldn't update because the input segment type =" << static_cast<int>(segType)
                                                                         << L" is not recognized");
        return meFail;
    }
    BASEKIT2_ASSERT(m_content);
    if (!m_content)
        return meFail; // no bytes to patch

    const unsigned long long end = codeAddr + codeLen;
    const unsigned long long regionStart = m_startAddress;
    const unsigned long long regionEnd = regionStart + m_length;
    if (codeAddr < regionStart || end > regionEnd) {
        VM_ERROR_AT(L"Couldn't accept update (ip range = " << codeAddr << L"-" << end
                                                           << L") because it overlaps parent's ip range "
                                                           << regionStart << L"-" << regionEnd);
        return meFail;
    }

    const Range range(codeAddr, codeLen);
    auto inserted = m_markupRanges.insert(std::make_pair(range, MarkupRange{segType, name}));
    velmark_segment_type_t effectiveType = segType;
    if (!inserted.second) {
        const Range& key = inserted.first->first;
        const velmark_segment_type_t storedType = inserted.first->second.segType;
        if (key != range) {
            VM_ERROR_AT(L"Couldn't accept update (ip range = "
                        << codeAddr << L"-" << end << L") because it overlaps an existing markup range " << key.start
                        << L"-" << key.end() << L" with segType = " << static_cast<int>(storedType));
            return meFail;
        }
        if (segType == stKeep) {
            effectiveType = storedType;
        } else if (segType != storedType) {
            // The map keeps the first type; the new one governs only this update.
            VM_INFO(L"Changed a type of markup range (ip range = " << codeAddr << L"-" << end << L") from "
                                                                   << static_cast<int>(storedType) << L"  to "
                                                                   << static_cast<int>(segType));
        }
    }

    boost::shared_ptr<IByteBuffer> patch = content;
    if (effectiveType == stData) {
        const std::vector<unsigned char> nops(codeLen, 0x90);
        patch = makeByteBuffer(nops.data(), codeLen);
    }

    // Neither buffer is trusted to be as long as the ranges say: every copy stops at the end
    // of its source and of the target.
    const unsigned int oldSize = m_content->getSize();
    std::vector<unsigned char> bytes(oldSize, 0);
    const void* oldData = m_content->getData();
    if (codeAddr > regionStart)
        copyBounded(bytes, 0, oldData, oldSize, 0, codeAddr - regionStart);
    const unsigned long long patchLength =
        (codeAddr == regionStart && end == regionEnd) ? patch->getSize() : end - codeAddr;
    copyBounded(bytes, codeAddr - regionStart, patch->getData(), patch->getSize(), 0, patchLength);
    if (end < regionEnd)
        copyBounded(bytes, end - regionStart, oldData, oldSize, end - regionStart, regionEnd - end);
    m_content->setData(bytes.data(), oldSize);

    VM_INFO(L"Updated code region (ip range = " << regionStart << L"-" << regionStart + regionEnd
                                                << L" successfully");
    return meSuccess;
}

void Region::addInlined(const boost::intrusive_ptr<Region>& region, const boost::intrusive_ptr<JitMethod>& method)
{
    m_inlinedRegions.push_back(region);
    m_inlinedMethods.push_back(method);
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> Region::getInlinedRegions() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ICodeRegion>>(m_inlinedRegions);
}

velmark_error_t Region::normalizeInlineJitRvaRanges(unsigned long long jitRva, unsigned long long startAddr)
{
    BASEKIT2_ASSERT_TEXT(m_inlinedRegions.size() == m_inlinedMethods.size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");

    velmark_error_t result = meSuccess;
    const std::size_t count = std::min(m_inlinedRegions.size(), m_inlinedMethods.size());
    for (std::size_t i = 0; i < count; ++i) {
        Region& inlined = *m_inlinedRegions[i];
        JitMethod& method = *m_inlinedMethods[i];
        // Every level is placed relative to the top-level region, whose values are handed down.
        const unsigned long long rva = jitRva + inlined.m_startAddress - startAddr;
        inlined.m_startJitRva = rva;
        method.setStartJitRva(rva);
        method.normalizeLineNumberInfoJitRvaRanges(rva);
        VM_TRACE(L"  Set jit rva range = " << rva << L"-" << rva + inlined.m_length << L" for ip range = "
                                           << inlined.m_startAddress << L"-" << inlined.endAddress() << L".");
        result = inlined.normalizeInlineJitRvaRanges(jitRva, startAddr);
        if (result != meSuccess)
            return result;
    }
    return result;
}

void Region::dumpInlines(std::wostream& stream, unsigned int indent) const
{
    BASEKIT2_ASSERT_TEXT(m_inlinedRegions.size() == m_inlinedMethods.size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");

    // Exactly one "0x" before each address, whatever flags the caller's stream carries.
    boost::io::wios_all_saver saved(stream);
    stream.flags(std::ios_base::dec | std::ios_base::right);
    stream.fill(L' ');

    const std::size_t count = std::min(m_inlinedRegions.size(), m_inlinedMethods.size());
    for (std::size_t i = 0; i < count; ++i) {
        const Region& inlined = *m_inlinedRegions[i];
        const JitMethod& method = *m_inlinedMethods[i];
        stream << L'\n' << std::setw(static_cast<int>(indent)) << L"#" << std::dec << (i + 1) << L' '
               << method.getName() << L" (method id = 0x" << std::hex << method.getRawMethodId()
               << L", ip range = 0x" << inlined.m_startAddress << L"-0x" << inlined.endAddress() << L")"
               << std::dec;
        inlined.dumpInlines(stream, indent + 4);
    }
}

} // namespace velmark_3_11
