// One contiguous range of a method's machine code, loaded at one time, with the methods
// inlined into it and the typed sub-ranges that update records gave it.
#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include "jitreader/range.h"
#include "jitreader/small_object_pool.h"
#include "jitreader/symbol.h"

namespace velmark_3_11 {

class JitMethod;

/// How an update record types a sub-range of a region.
enum velmark_segment_type_t : int {
    stCode = 1, ///< the given bytes are stored
    stData = 2, ///< the bytes are dropped and the range filled with 0x90
    stKeep = 3, ///< the type of an identical existing markup range applies
};

/// A typed sub-range of a region.
struct MarkupRange {
    velmark_segment_type_t segType;
    std::wstring segmentName;
};

class Region : public ICodeRegion {
public:
    typedef std::vector<boost::intrusive_ptr<Region>> RegionVector;
    typedef std::vector<boost::intrusive_ptr<JitMethod>> MethodVector;
    typedef std::map<Range, MarkupRange, Range::Comparator> MarkupMap;

    /// A live region (unload time 0) without inlines or markup.
    Region(unsigned int processId, unsigned int hostId, unsigned long long loadTime, unsigned long long startJitRva,
           unsigned long long startAddress, unsigned int length, const boost::shared_ptr<IByteBuffer>& content);
    /// Copies ids, times, address and length, an own copy of the bytes and the markup map; the
    /// copy has no inlines.
    Region(const Region& other);
    Region& operator=(const Region&) = delete;
    ~Region() override;
    JITREADER_POOLED_OBJECT(Region)

    // ICodeRegion
    unsigned long long startJitRva() const override { return m_startJitRva; }
    unsigned long long loadTime() const override { return m_loadTime; }
    unsigned long long unloadTime() const override { return m_unloadTime; }
    unsigned long long startAddress() const override { return m_startAddress; }
    unsigned int length() const override { return m_length; }
    unsigned int processId() const override { return m_processId; }
    unsigned int hostId() const override { return m_hostId; }
    boost::shared_ptr<IByteBuffer> getContent() const override { return m_content; }
    boost::intrusive_ptr<ISymbol> getInlinedMethod(unsigned long long jitRva) const override;
    boost::intrusive_ptr<ICodeRegion> getInlinedRegion(unsigned long long jitRva) const override;

    /// One past the last address.
    unsigned long long endAddress() const { return m_startAddress + m_length; }

    void setStartJitRva(unsigned long long jitRva) { m_startJitRva = jitRva; }
    void setLoadTime(unsigned long long loadTime) { m_loadTime = loadTime; }
    void setUnloadTime(unsigned long long unloadTime) { m_unloadTime = unloadTime; }
    const boost::shared_ptr<IByteBuffer>& content() const { return m_content; }

    /// Writes the bytes of an update of [codeAddr, codeAddr + codeLen) into the region and
    /// records the range in the markup map. meFail, with the region unchanged, on a refusal.
    velmark_error_t addBytesUpdate(unsigned long long codeAddr, unsigned int codeLen,
                                   const boost::shared_ptr<IByteBuffer>& content, velmark_segment_type_t segType,
                                   const std::wstring& name);

    /// Attaches an inlined method with its region.
    void addInlined(const boost::intrusive_ptr<Region>& region, const boost::intrusive_ptr<JitMethod>& method);
    /// Index of the first inline whose jit rva range holds `jitRva`; 0xFFFFFFFF when none.
    unsigned int inlineIndexAt(unsigned long long jitRva) const;
    const RegionVector& inlinedRegions() const;
    const MethodVector& inlinedMethods() const;
    /// The inlined regions, as ICodeRegion.
    basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> getInlinedRegions() const;
    const MarkupMap& markupRanges() const;

    /// True when `other` is this region or lies anywhere among its inlines.
    bool holds(const Region& other) const;

    /// Gives every inline, at any depth, its place in the jit rva range of the top-level
    /// region that starts at `jitRva` and `startAddr`. Always meSuccess.
    velmark_error_t normalizeInlineJitRvaRanges(unsigned long long jitRva, unsigned long long startAddr);

    /// Writes one line per inline, nested inlines indented by 4 more.
    void dumpInlines(std::wostream& stream, unsigned int indent) const;

private:
    void assertParallelInlines() const;
    /// True when the caller's reference is the only one.
    bool isLastReference() const;
    /// The number of inlines both vectors have.
    std::size_t inlineCount() const;

    // Ordered so that the store's millions of regions waste no padding.
    unsigned int m_hostId; // in the base's padding
    unsigned int m_processId;
    unsigned int m_length;
    unsigned long long m_startJitRva;
    unsigned long long m_loadTime;
    unsigned long long m_unloadTime;
    unsigned long long m_startAddress;
    boost::shared_ptr<IByteBuffer> m_content;

    /// What few regions have; made when first needed, as it would double every region's size.
    struct Extras {
        RegionVector inlinedRegions;
        MethodVector inlinedMethods;
        MarkupMap markupRanges;
    };
    Extras& extras();
    std::unique_ptr<Extras> m_extras;
};

} // namespace velmark_3_11
