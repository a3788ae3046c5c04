#include "jitreader/region.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iterator>

#include <boost/io/ios_state.hpp>

#include "basekit2/assertion.h"
#include "jitreader/byte_buffer.h"
#include "jitreader/jit_method.h"
#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

} // namespace

Region::Region(unsigned int processId, unsigned int hostId, unsigned long long loadTime, unsigned long long startJitRva,
               unsigned long long startAddress, unsigned int length, const boost::shared_ptr<IByteBuffer>& content)
    : m_hostId(hostId),
      m_processId(processId),
      m_length(length),
      m_startJitRva(startJitRva),
      m_loadTime(loadTime),
      m_unloadTime(0),
      m_startAddress(startAddress),
      m_content(content)
{
}

Region::Region(const Region& other)
    : ICodeRegion(other),
      m_hostId(other.m_hostId),
      m_processId(other.m_processId),
      m_length(other.m_length),
      m_startJitRva(other.m_startJitRva),
      m_loadTime(other.m_loadTime),
      m_unloadTime(other.m_unloadTime),
      m_startAddress(other.m_startAddress)
{
    if (!other.markupRanges().empty())
        extras().markupRanges = other.markupRanges();
    if (other.m_content)
        m_content = makeByteBuffer(other.m_content->getData(), other.m_content->getSize());
}

Region::~Region()
{
    // Inlines nest as deep as a trace makes them. Their regions and methods are let go here one
    // at a time, rather than by a chain of destructors as deep as the nesting, which a long
    // enough chain would run off the stack.
    if (!m_extras)
        return;
    RegionVector regions;
    MethodVector methods;
    regions.swap(m_extras->inlinedRegions);
    methods.swap(m_extras->inlinedMethods);
    while (!regions.empty() || !methods.empty()) {
        if (!methods.empty()) {
            // An inline's method holds the inline's region, which waits in `regions`, so the
            // method goes without taking the region along.
            methods.pop_back();
            continue;
        }
        boost::intrusive_ptr<Region> region = std::move(regions.back());
        regions.pop_back();
        if (region->m_extras && region->isLastReference()) {
            Extras& inner = *region->m_extras;
            std::move(inner.inlinedRegions.begin(), inner.inlinedRegions.end(), std::back_inserter(regions));
            std::move(inner.inlinedMethods.begin(), inner.inlinedMethods.end(), std::back_inserter(methods));
            inner.inlinedRegions.clear();
            inner.inlinedMethods.clear();
        }
    }
}

Region::Extras& Region::extras()
{
    if (!m_extras)
        m_extras.reset(new Extras);
    return *m_extras;
}

const Region::RegionVector& Region::inlinedRegions() const
{
    static const RegionVector none;
    return m_extras ? m_extras->inlinedRegions : none;
}

const Region::MethodVector& Region::inlinedMethods() const
{
    static const MethodVector none;
    return m_extras ? m_extras->inlinedMethods : none;
}

const Region::MarkupMap& Region::markupRanges() const
{
    static const MarkupMap none;
    return m_extras ? m_extras->markupRanges : none;
}

bool Region::isLastReference() const
{
    // The count is read through a reference that is taken back at once.
    const unsigned int count = addRef();
    release();
    return count == 2;
}

unsigned int Region::inlineIndexAt(unsigned long long jitRva) const
{
    for (std::size_t i = 0; i < inlinedRegions().size(); ++i) {
        const Region& region = *inlinedRegions()[i];
        if (region.m_startJitRva <= jitRva && jitRva - region.m_startJitRva < region.m_length)
            return static_cast<unsigned int>(i);
    }
    return 0xFFFFFFFFu;
}

boost::intrusive_ptr<ISymbol> Region::getInlinedMethod(unsigned long long jitRva) const
{
    assertParallelInlines();
    const unsigned int index = inlineIndexAt(jitRva);
    if (index >= inlinedMethods().size())
        return nullptr;
    return inlinedMethods()[index];
}

boost::intrusive_ptr<ICodeRegion> Region::getInlinedRegion(unsigned long long jitRva) const
{
    assertParallelInlines();
    const unsigned int index = inlineIndexAt(jitRva);
    if (index >= inlinedRegions().size())
        return nullptr;
    return inlinedRegions()[index];
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
    auto inserted = extras().markupRanges.insert(std::make_pair(range, MarkupRange{segType, name}));
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
        // No more filler than the region's bytes can take: a trace may claim a range far longer
        // than the bytes it gave.
        const unsigned int fill = std::min(codeLen, m_content->getSize());
        const std::vector<unsigned char> nops(fill, 0x90);
        patch = makeByteBuffer(nops.data(), fill);
    }

    // Neither buffer is trusted to be as long as the ranges say: every copy stops at the end
    // of its source and of the target.
    const unsigned int oldSize = m_content->getSize();
    std::vector<unsigned char> bytes(oldSize, 0);
    if (codeAddr > regionStart)
        copyBytes(bytes, 0, *m_content, 0, codeAddr - regionStart);
    const unsigned long long patchLength =
        (codeAddr == regionStart && end == regionEnd) ? patch->getSize() : end - codeAddr;
    copyBytes(bytes, codeAddr - regionStart, *patch, 0, patchLength);
    if (end < regionEnd)
        copyBytes(bytes, end - regionStart, *m_content, end - regionStart, regionEnd - end);
    m_content->setData(bytes.data(), oldSize);

    VM_INFO(L"Updated code region (ip range = " << regionStart << L"-" << regionStart + regionEnd
                                                << L" successfully");
    return meSuccess;
}

void Region::addInlined(const boost::intrusive_ptr<Region>& region, const boost::intrusive_ptr<JitMethod>& method)
{
    Extras& inlines = extras();
    inlines.inlinedRegions.push_back(region);
    inlines.inlinedMethods.push_back(method);
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> Region::getInlinedRegions() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ICodeRegion>>(inlinedRegions());
}

void Region::assertParallelInlines() const
{
    BASEKIT2_ASSERT_TEXT(inlinedRegions().size() == inlinedMethods().size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");
}

std::size_t Region::inlineCount() const
{
    return std::min(inlinedRegions().size(), inlinedMethods().size());
}

bool Region::holds(const Region& other) const
{
    // Walked with a stack of its own: a trace decides how deep inlines nest.
    std::vector<const Region*> pending{this};
    while (!pending.empty()) {
        const Region* region = pending.back();
        pending.pop_back();
        if (region == &other)
            return true;
        for (const auto& inlined : region->inlinedRegions())
            pending.push_back(inlined.get());
    }
    return false;
}

velmark_error_t Region::normalizeInlineJitRvaRanges(unsigned long long jitRva, unsigned long long startAddr)
{
    // Depth first, each inline before its own inlines, with a stack of its own rather than
    // recursion: a trace decides how deep inlines nest. Every level is placed relative to the
    // top-level region, whose values stay the same all the way down.
    struct Level {
        Region* region;
        std::size_t next;
    };
    assertParallelInlines();
    if (inlineCount() == 0)
        return meSuccess;
    std::vector<Level> levels{{this, 0}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.region->inlineCount()) {
            levels.pop_back();
            continue;
        }
        const std::size_t i = level.next++;
        Region& inlined = *level.region->inlinedRegions()[i];
        JitMethod& method = *level.region->inlinedMethods()[i];
        const unsigned long long rva = jitRva + inlined.m_startAddress - startAddr;
        // Placed inlines keep their values untouched: readers may be at them.
        if (inlined.m_startJitRva != rva)
            inlined.m_startJitRva = rva;
        if (method.getStartJitRva() != rva)
            method.setStartJitRva(rva);
        method.normalizeLineNumberInfoJitRvaRanges(rva);
        VM_TRACE(L"  Set jit rva range = " << rva << L"-" << rva + inlined.m_length << L" for ip range = "
                                           << inlined.m_startAddress << L"-" << inlined.endAddress() << L".");
        inlined.assertParallelInlines();
        levels.push_back({&inlined, 0});
    }
    return meSuccess;
}

void Region::dumpInlines(std::wostream& stream, unsigned int indent) const
{
    // Exactly one "0x" before each address, whatever flags the caller's stream carries.
    boost::io::wios_all_saver saved(stream);
    stream.flags(std::ios_base::dec | std::ios_base::right);
    stream.fill(L' ');

    struct Level {
        const Region* region;
        std::size_t next;
        unsigned int indent;
    };
    assertParallelInlines();
    std::vector<Level> levels{{this, 0, indent}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.region->inlineCount()) {
            levels.pop_back();
            continue;
        }
        const std::size_t i = level.next++;
        const Region& inlined = *level.region->inlinedRegions()[i];
        const JitMethod& method = *level.region->inlinedMethods()[i];
        stream << L'\n' << std::setw(static_cast<int>(level.indent)) << L"#" << std::dec << (i + 1) << L' '
               << method.getName() << L" (method id = 0x" << std::hex << method.getRawMethodId()
               << L", ip range = 0x" << inlined.m_startAddress << L"-0x" << inlined.endAddress() << L")"
               << std::dec;
        inlined.assertParallelInlines();
        levels.push_back({&inlined, 0, level.indent + 4});
    }
}

} // namespace velmark_3_11
