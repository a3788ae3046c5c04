#include "jitreader/jit_data_manager.h"

#include <algorithm>
#include <iterator>

#include <boost/thread/locks.hpp>

#include "basekit2/assertion.h"
#include "jitreader/byte_buffer.h"
#include "jitreader/lookup_index.h"
#include "jitreader/method_dump.h"
#include "jitreader/region_splitter.h"
#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

constexpr unsigned long long kPreJittedLoadTime = 1;
constexpr std::size_t kMaxInlineDepth = 1 << 20;

} // namespace

JitDataManager::JitDataManager()
    : m_collectorType(ctDefault), m_rvaTableFilled(false), m_lookupIndex(nullptr), m_lookupsSinceChange(0)
{
}
JitDataManager::~JitDataManager() = default;

const LookupIndex& JitDataManager::lookupIndex() const
{
    const LookupIndex* index = m_lookupIndex.load(std::memory_order_acquire);
    if (index != nullptr)
        return *index;
    boost::unique_lock<boost::mutex> lock(m_lookupIndexMutex);
    index = m_lookupIndex.load(std::memory_order_relaxed);
    if (index != nullptr)
        return *index;

    m_lookupIndexStorage.reset(new LookupIndex(m_jitRvaDomain, m_regionDomains));
    m_lookupIndex.store(m_lookupIndexStorage.get(), std::memory_order_release);
    return *m_lookupIndexStorage;
}

const LookupIndex* JitDataManager::usableLookupIndex() const
{
    const LookupIndex* index = m_lookupIndex.load(std::memory_order_acquire);
    if (index != nullptr)
        return index;
    // A build reads every entry, about the work of a map lookup each: it waits until the lookups
    // since the last change have paid for it, so that loads and lookups taking turns stay linear.
    if (m_lookupsSinceChange.fetch_add(1, std::memory_order_relaxed) < m_jitRvaDomain.size() / 2)
        return nullptr;
    return &lookupIndex();
}

bool JitDataManager::findJitRange(unsigned long long jitRva, Region** region, JitMethod*& method) const
{
    const LookupIndex* index = usableLookupIndex();
    if (index != nullptr)
        return index->findJitRange(jitRva, region, method);
    const auto entry = m_jitRvaDomain.find(Range(jitRva, 1));
    if (entry == m_jitRvaDomain.end())
        return false;
    method = entry->second.second.get();
    if (region != nullptr)
        *region = entry->second.first.get();
    return true;
}

void JitDataManager::invalidateLookupIndex()
{
    m_lookupIndex.store(nullptr, std::memory_order_relaxed);
    m_lookupIndexStorage.reset();
    m_lookupsSinceChange.store(0, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// Loading

velmark_error_t JitDataManager::processMethodLoadRecord(unsigned int processId, unsigned int hostId,
                                                        boost::intrusive_ptr<JitMethod>& rawMethod)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::processMethodLoadRecord(unsigned int, "
                   "unsigned int, boost::intrusive_ptr<velmark_3_11::JitMethod> &)");
    invalidateLookupIndex();
    BASEKIT2_ASSERT_TEXT(rawMethod->regionCount(), "rawMethod->regionCount()");

    // The method map files plain pointers, as the method list holds the references, and the jit
    // rva map's entry is built in place: each copy of a counted pointer is an atomic operation,
    // and a load makes millions of them.
    JitMethod* const filed = m_methods.insert(rawMethod->getMethodId(), rawMethod.get());
    const bool alreadyCached = filed != rawMethod.get();
    const boost::intrusive_ptr<JitMethod> cached(alreadyCached ? filed : nullptr);
    const boost::intrusive_ptr<JitMethod>& method = alreadyCached ? cached : rawMethod;

    if (!alreadyCached) {
        m_methodList.push_back(rawMethod);
    } else {
        VM_TRACE(L"Detected already cached code region with the same method id " << MethodTag(*method));

        // Pre-jitted code is written again by every run that maps the image; one copy is enough.
        if (rawMethod->getLoadTime() == method->getLoadTime() && rawMethod->getLoadTime() == kPreJittedLoadTime &&
            rawMethod->regionCount() != 0) {
            const Region& first = *rawMethod->regions().front();
            for (const auto& known : method->regions()) {
                if (known->startAddress() == first.startAddress() && known->length() == first.length()) {
                    VM_WARN(L"Couldn't add a region (methodID="
                            << rawMethod->getRawMethodId()
                            << L") because there are two pre-jitted code ranges                         located "
                               L"on the same address space for the same method");
                    return meSuccess;
                }
            }
        }

        method->compareSymbolicInfoTo(rawMethod);
        unsigned long long lowest = rawMethod->getStartJitRva();
        if (rawMethod->getLoadTime() < method->getLoadTime())
            method->setLoadTime(rawMethod->getLoadTime());
        method->addLineNumberInfo(rawMethod->lineNumberInfo());
        for (const auto& region : rawMethod->regions()) {
            method->addRegion(region);
            lowest = std::min(lowest, region->startJitRva());
            VM_INFO(L"Added a new code region (ip range = " << region->startAddress() << L"-" << region->endAddress()
                                                            << L") in method " << MethodTag(*method));
        }
        // Only this record counts: the method points at its latest code.
        method->setStartJitRva(lowest);
    }

    for (const auto& region : rawMethod->regions()) {
        const Range ipRange(region->startAddress(), region->length());
        const Range jitRange(region->startJitRva(), region->length());

        // Jit rvas grow record after record, so the hint at the end spares a search from the root.
        const std::size_t entries = m_jitRvaDomain.size();
        m_jitRvaDomain.emplace_hint(m_jitRvaDomain.end(), std::piecewise_construct, std::forward_as_tuple(jitRange),
                                    std::forward_as_tuple(region, method));
        if (m_jitRvaDomain.size() == entries) {
            VM_ERROR_AT(L"Couldn't add a region (addr=" << region->startAddress() << L", size=" << region->length()
                                                        << L", methodID=" << rawMethod->getRawMethodId()
                                                        << L", jitRva=" << region->startJitRva()
                                                        << L") because jit rva ranges are overlapped.");
            return meBadTrace;
        }

        // The keys that the region overlaps: one search for the first, then the few after it.
        RegionDomain& domain = getOrCreateRegionDomain(processId, hostId);
        std::pair<RegionDomain::iterator, RegionDomain::iterator> bounds(domain.lower_bound(ipRange), {});
        for (bounds.second = bounds.first;
             bounds.second != domain.end() && !domain.key_comp()(ipRange, bounds.second->first);)
            ++bounds.second;
        if (bounds.first == bounds.second) {
            // A fresh history refuses nothing; the checks stay with their messages all the same.
            VersionHistory history;
            const VersionHistory::Placed placed = history.add(*region, method.get(), m_versions);
            if (!placed.added) {
                VM_ERROR_AT(L"Couldn't add a region (addr=" << region->startAddress() << L", size=" << region->length()
                                                            << L", methodID=" << rawMethod->getRawMethodId()
                                                            << L", jitRva=" << region->startJitRva()
                                                            << L") because load time values are overlapped.");
                return meBadTrace;
            }
            if (placed.startJitRvaTaken) {
                VM_ERROR_AT(L"Couldn't add a region (addr=" << region->startAddress() << L", size=" << region->length()
                                                            << L", methodID=" << rawMethod->getRawMethodId()
                                                            << L", jitRva=" << region->startJitRva()
                                                            << L") because jit rva values are overlapped.");
                return meBadTrace;
            }
            domain.emplace_hint(bounds.second, ipRange, history);
            continue;
        }

        // The new code lands on addresses that older code holds: cut the old keys. Where nothing
        // is logged and nothing can fail, that is done in place: only the two keys that the
        // region's ends cut change, where building the new keys aside and putting them in the
        // place of the old took a node out of the map and one in for every key under the region.
        if (!VM_ENABLED(log4cplus::INFO_LOG_LEVEL) && region->length() != 0 &&
            ipRange.end() > ipRange.start && RegionSplitter::fits(*region, bounds.first, bounds.second)) {
            RegionSplitter::splitInPlace(region, method, domain, bounds.first, bounds.second, m_versions);
            continue;
        }
        RegionDomain splittedRegions;
        if (RegionSplitter::splitRegions(region, method, bounds.first, bounds.second, splittedRegions, m_versions) !=
            meSuccess)
            return meBadTrace;
        BASEKIT2_ASSERT_TEXT(!splittedRegions.empty(), "!splittedRegions.empty()");

        // Only the log names the methods whose code went: every key cut now holds the new code,
        // which this search finds, so it is made for the log alone (with many generations of
        // code over the same addresses, it took a twentieth of a load).
        MethodMap updatedMethods;
        const bool logged = VM_ENABLED(log4cplus::INFO_LOG_LEVEL);
        for (auto it = bounds.first; logged && it != bounds.second; ++it) {
            boost::intrusive_ptr<Region> foundRegion;
            boost::intrusive_ptr<JitMethod> foundMethod;
            const velmark_error_t ret =
                searchRegion(it->first.start, rawMethod->getLoadTime(), processId, hostId, foundRegion, foundMethod);
            BASEKIT2_ASSERT_TEXT(ret == meSuccess, "ret == meSuccess");
            if (ret != meSuccess || !foundMethod)
                continue;
            VM_INFO(L"Unloaded code region (ip range = " << it->first.start << L"-" << it->first.end()
                                                         << L") from method " << MethodTag(*foundMethod));
            updatedMethods.insert(std::make_pair(foundMethod->getMethodId(), foundMethod));
        }
        for (const auto& updated : updatedMethods)
            VM_INFO(L"Updated method's state " << MethodTag(*updated.second) << dumpCodeRegions(*updated.second));

        domain.erase(bounds.first, bounds.second);
        // The new keys move over with their nodes; a key already there keeps its own, as an insert
        // would.
        domain.merge(splittedRegions);
    }

    if (getCollectorType() == ctJitProfiler) {
        addCachedInlineMethods(method);
        if (!alreadyCached)
            cacheParentMethod(method);
    }
    return meSuccess;
}

velmark_error_t JitDataManager::processMethodUpdateRecord(unsigned int processId, unsigned int hostId,
                                                          boost::intrusive_ptr<JitMethod>& rawMethod)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::processMethodUpdateRecord(unsigned int, "
                   "unsigned int, boost::intrusive_ptr<velmark_3_11::JitMethod> &)");
    invalidateLookupIndex();
    const unsigned int rawId = rawMethod->getRawMethodId();

    if (getCollectorType() != ctJitProfiler) {
        VM_ERROR_AT(L"Couldn't accept update because jit file must be                                      "
                    L"collected by old version of Tarnwell JIT agent");
        return meFail;
    }
    if (rawId == 0) {
        VM_ERROR_AT(L"Couldn't accept update because method ID is 0");
        return meFail;
    }
    if (rawMethod->regionCount() != 1) {
        VM_ERROR_AT(L"Couldn't accept update (method id = " << rawId << L") because it has multiple code ranges");
        return meFail;
    }

    const Region& update = *rawMethod->regions().front();
    boost::intrusive_ptr<Region> target;
    boost::intrusive_ptr<JitMethod> targetMethod;
    // The update's own time picks the code version that it patches.
    if (searchRegion(update.startAddress(), update.loadTime(), processId, hostId, target, targetMethod) !=
        meSuccess) {
        VM_ERROR_AT(L"Couldn't accept update (method id = " << rawId
                                                           << L") because a range to be updated is not found");
        return meFail;
    }
    if (targetMethod->getRawMethodId() != rawId) {
        VM_ERROR_AT(L"Couldn't accept update (method id = " << rawId
                                                           << L") because a range to be updated has different "
                                                              L"method id = "
                                                           << targetMethod->getRawMethodId());
        return meFail;
    }

    const unsigned long long updStart = update.startAddress();
    const unsigned long long updEnd = updStart + update.length();
    const unsigned long long regStart = target->startAddress();
    const unsigned long long regEnd = regStart + target->length();
    if (updStart < regStart || updEnd > regEnd) {
        VM_ERROR_AT(L"Couldn't accept update (method id = " << rawId << L", ip range = " << updStart << L"-" << updEnd
                                                           << L") because it overlaps parent's ip range " << regStart
                                                           << L"-" << regEnd);
        return meFail;
    }
    // The decoder gives both sides bytes; a side without them has nothing to merge.
    const boost::shared_ptr<IByteBuffer> targetContent = target->content();
    const boost::shared_ptr<IByteBuffer> updateContent = update.content();
    if (!targetContent || !updateContent) {
        VM_ERROR_AT(L"Couldn't accept update (method id = " << rawId
                                                           << L") because a code range to be updated has no content");
        return meFail;
    }

    std::vector<unsigned char> bytes(targetContent->getSize(), 0);
    const unsigned long long head = updStart - regStart;
    const unsigned long long patch = updEnd - updStart;
    if (updStart > regStart) {
        copyBytes(bytes, 0, *targetContent, 0, head);
        copyBytes(bytes, head, *updateContent, 0, patch);
        if (updEnd < regEnd)
            copyBytes(bytes, head + patch, *targetContent, updEnd - regStart, regEnd - updEnd);
    } else if (updEnd < regEnd) {
        copyBytes(bytes, 0, *updateContent, 0, patch);
        copyBytes(bytes, patch, *targetContent, patch, regEnd - updEnd);
    } else {
        copyBytes(bytes, 0, *updateContent, 0, updateContent->getSize());
    }
    targetContent->setData(bytes.data(), static_cast<unsigned int>(bytes.size()));

    VM_INFO(L"Updated code region (ip range = " << regStart << L"-" << regStart + regEnd << L") from method "
                                                << MethodTag(*targetMethod));
    return meSuccess;
}

// ---------------------------------------------------------------------------------------------
// Inline methods

velmark_error_t JitDataManager::processMethodInlineLoadRecord(unsigned int, unsigned int,
                                                              boost::intrusive_ptr<JitMethod>& rawMethod)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::processMethodInlineLoadRecord(unsigned int, "
                   "unsigned int, boost::intrusive_ptr<velmark_3_11::JitMethod> &)");
    invalidateLookupIndex();
    BASEKIT2_ASSERT_TEXT(rawMethod->regionCount() == 1, "rawMethod->regionCount() == 1");
    if (rawMethod->regionCount() == 0)
        return meFail;

    const unsigned int rawMethodId = rawMethod->getRawMethodId();
    const unsigned int rawParentId = rawMethod->getRawParentId();
    const bool profiler = getCollectorType() == ctJitProfiler;

    if (profiler) {
        if (rawMethodId == 0) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawMethodId << L") because method id is invalid.");
            return meFail;
        }
        if (rawParentId == 0) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawMethodId << L") because its parent id = "
                                                             << rawParentId << L" is invalid.");
            return meFail;
        }
        BASEKIT2_ASSERT_TEXT(!rawMethod->getMethodId().isEmpty(), "!rawMethod->getMethodId().isEmpty()");
        BASEKIT2_ASSERT_TEXT(!rawMethod->getParentId().isEmpty(), "!rawMethod->getParentId().isEmpty()");
    } else {
        BASEKIT2_ASSERT_TEXT(rawMethodId == 0, "rawMethodId == 0");
        BASEKIT2_ASSERT_TEXT(rawParentId == 0, "rawParentId == 0");
    }

    const boost::intrusive_ptr<Region>& rawRegion = rawMethod->regions().front();
    BASEKIT2_ASSERT_TEXT(rawRegion->startAddress(), "rawRegion->startAddress()");
    BASEKIT2_ASSERT_TEXT(rawRegion->length(), "rawRegion->length()");
    BASEKIT2_ASSERT_TEXT(rawRegion->startJitRva() == 0, "rawRegion->startJitRva() == 0");
    BASEKIT2_ASSERT_TEXT(rawRegion->processId(), "rawRegion->processId()");
    BASEKIT2_ASSERT_TEXT(rawRegion->hostId(), "rawRegion->hostId()");
    BASEKIT2_ASSERT_TEXT(rawRegion->loadTime(), "rawRegion->loadTime()");

    boost::intrusive_ptr<Region> parentRegion;
    boost::intrusive_ptr<JitMethod> parentMethod;
    if (!profiler) {
        // Without ids the parent is whatever code held the address when the inline was made.
        if (searchRegion(rawRegion->startAddress(), rawRegion->loadTime(), rawRegion->processId(),
                         rawRegion->hostId(), parentRegion, parentMethod) != meSuccess) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawMethodId
                                                             << L") because parent method is not found.");
            return meFail;
        }
    } else {
        const bool found = findParentMethod(rawMethod->getParentId(), parentMethod) == meSuccess ||
                           findInlineMethod(rawMethod->getParentId(), parentMethod) == meSuccess;
        // Every inline is cached, found parent or not: it may be a parent itself, or arrive again.
        cacheInlineMethod(rawMethod);
        cacheParentMethod(rawMethod);
        if (!found) {
            VM_TRACE(L"Couldn't inline method (method id = "
                     << rawMethodId << L") because parent method is not found. Inline method is cached.");
            return meSuccess;
        }
    }

    BASEKIT2_ASSERT_TEXT(parentMethod, "parentMethod");
    if (!parentMethod)
        return meFail;
    VM_INFO(L"Found parent method " << MethodTag(*parentMethod));
    return addInlineMethod(parentMethod, parentRegion, rawMethod);
}

velmark_error_t JitDataManager::addInlineMethod(const boost::intrusive_ptr<JitMethod>& parentMethod,
                                                boost::intrusive_ptr<Region>& parentRegion,
                                                const boost::intrusive_ptr<JitMethod>& inlineMethod)
{
    BASEKIT2_ASSERT_TEXT(inlineMethod->regionCount() == 1, "inlineMethod->regionCount() == 1");
    if (inlineMethod->regionCount() == 0)
        return meFail;
    const boost::intrusive_ptr<Region>& region = inlineMethod->regions().front();
    const unsigned long long start = region->startAddress();
    const unsigned long long end = region->endAddress();
    const unsigned int rawId = inlineMethod->getRawMethodId();
    const bool profiler = getCollectorType() == ctJitProfiler;

    if (profiler) {
        BASEKIT2_ASSERT_TEXT(!parentRegion, "!parentRegion");
        parentRegion.reset();
        // Only live code takes inlines; the first region that the inline touches decides.
        for (const auto& candidate : parentMethod->regions()) {
            if (candidate->unloadTime() != 0)
                continue;
            const unsigned long long rs = candidate->startAddress();
            const unsigned long long re = candidate->endAddress();
            if (!(start <= re && end >= rs))
                continue;
            if (!(start >= rs && end <= re)) {
                VM_ERROR(L"Couldn't inline method (method id = " << rawId << L", ip range = " << start << L"-" << end
                                                                 << L") because it overlaps parent's ip range " << rs
                                                                 << L"-" << re);
                return meFail;
            }
            parentRegion = candidate;
            break;
        }
        if (!parentRegion) {
            VM_TRACE(L"Couldn't cached inline method (method id = "
                     << rawId << L", ip range = " << start << L"-" << end
                     << L") because parent method has not ip range suitable for insert."
                     << L"The cached inline method is stayed awaiting for a parent.");
            return meSuccess;
        }
    } else {
        BASEKIT2_ASSERT_TEXT(parentRegion, "parentRegion");
        if (!parentRegion)
            return meFail;
        const unsigned long long rs = parentRegion->startAddress();
        const unsigned long long re = parentRegion->endAddress();
        if (!(start >= rs && end <= re)) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawId << L", ip range = " << start << L"-" << end
                                                             << L") because it overlaps parent's ip range " << rs
                                                             << L"-" << re);
            return meFail;
        }
    }

    BASEKIT2_ASSERT_TEXT(parentRegion, "parentRegion");
    BASEKIT2_ASSERT_TEXT(parentRegion->inlinedRegions().size() == parentRegion->inlinedMethods().size(),
                         "m_inlinedRegions.size() == m_inlinedMethods.size()");
    for (const auto& sibling : parentRegion->inlinedRegions()) {
        const unsigned long long startAddr = sibling->startAddress();
        const unsigned long long endAddr = sibling->endAddress();
        BASEKIT2_ASSERT_TEXT(startAddr, "startAddr");
        BASEKIT2_ASSERT_TEXT(endAddr, "endAddr");
        // Overlapping a sibling is fine only from inside it: that is a deeper inline.
        if (end > startAddr && start < endAddr && (start < startAddr || end > endAddr)) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawId << L", ip range = " << start << L"-" << end
                                                             << L") because it intersects another parent's inline "
                                                                L"with range "
                                                             << startAddr << L"-" << endAddr);
            return meFail;
        }
    }

    if (profiler) {
        // The parent's jit rva chain may still be incomplete; finalize places the inline.
        BASEKIT2_ASSERT_TEXT(inlineMethod->getStartJitRva() == 0, "inlineMethod->getStartJitRva() == 0");
    } else {
        unsigned long long jit = parentRegion->startJitRva() + start - parentRegion->startAddress();
        for (;;) {
            const unsigned int index = parentRegion->inlineIndexAt(jit);
            if (index >= parentRegion->inlinedRegions().size())
                break;
            parentRegion = parentRegion->inlinedRegions()[index];
        }
        const unsigned long long pj = parentRegion->startJitRva();
        const unsigned long long pe = pj + parentRegion->length();
        const unsigned long long jitEnd = jit + region->length();
        if (jit < pj || jit >= pe || jitEnd < pj || jitEnd > pe) {
            VM_ERROR(L"Couldn't inline method (method id = " << rawId << L", ip range = " << jit << L"-" << jitEnd
                                                             << L") because it overlaps parent's ip range " << pj
                                                             << L"-" << pe);
            return meSuccess;
        }
        region->setStartJitRva(jit);
    }

    // Records that name each other as parents would hang a region below itself; every walk
    // down the inlines relies on there being no such cycle.
    if (region->holds(*parentRegion)) {
        VM_ERROR(L"Couldn't inline method (method id = " << rawId << L", ip range = " << start << L"-" << end
                                                         << L") because its code region already holds the parent's "
                                                            L"code region");
        return meFail;
    }
    parentRegion->addInlined(region, inlineMethod);
    inlineMethod->setInlined(true);
    inlineMethod->setInlinedInto(parentMethod.get());
    // A parent that is itself an inline is placed with the top-level region that holds it; one
    // not yet taken in anywhere is placed once it is.
    // The cycle check above keeps the chain finite; the bound only guards against its failing.
    JitMethod* top = parentMethod.get();
    for (std::size_t depth = 0; top->inlinedInto() != nullptr && depth < kMaxInlineDepth; ++depth)
        top = top->inlinedInto();
    if (m_methods.find(top->getMethodId()) == top && top->markInlinesToPlace())
        m_inlinesToPlace.push_back(top);
    VM_INFO(L"Added inline method (method id = " << rawId << L", ip range = " << start << L"-" << end
                                                 << L") into parent's code region (method id = "
                                                 << parentMethod->getRawMethodId() << L", ip range = "
                                                 << parentRegion->startAddress() << L"-" << parentRegion->endAddress()
                                                 << L")");
    VM_INFO(L"Updated method's state " << MethodTag(*parentMethod) << dumpCodeRegions(*parentMethod));
    return meSuccess;
}

velmark_error_t JitDataManager::addCachedInlineMethods(const boost::intrusive_ptr<JitMethod>& parentMethod)
{
    BASEKIT2_ASSERT_TEXT(parentMethod, "parentMethod");
    BASEKIT2_ASSERT_TEXT(getCollectorType() == ctJitProfiler, "getCollectorType() == ctJitProfiler");
    if (!parentMethod)
        return meSuccess;

    std::vector<boost::intrusive_ptr<JitMethod>> pending;
    // A method filed under its own id counts as something that waits there, though no inline does.
    if (!m_inlineCache.pendingInlines(parentMethod->getMethodId(), pending) &&
        !isFiledAsParent(parentMethod->getMethodId())) {
        VM_TRACE(L"Couldn't find any cached inline method for parent id = " << parentMethod->getRawMethodId());
        return meSuccess;
    }
    for (const auto& inlineMethod : pending) {
        VM_INFO(L"Found cached inline method " << MethodTag(*inlineMethod) << L" for parent id = "
                                               << parentMethod->getRawMethodId());
        BASEKIT2_ASSERT_TEXT(inlineMethod->regionCount() == 1, "inlineMethod->regionCount() == 1");
        boost::intrusive_ptr<Region> parentRegion;
        addInlineMethod(parentMethod, parentRegion, inlineMethod);
    }
    return meSuccess;
}

velmark_error_t JitDataManager::cacheParentMethod(const boost::intrusive_ptr<JitMethod>& jitMethod)
{
    BASEKIT2_ASSERT_TEXT(jitMethod, "jitMethod");
    BASEKIT2_ASSERT_TEXT(getCollectorType() == ctJitProfiler, "getCollectorType() == ctJitProfiler");
    if (jitMethod)
        m_inlineCache.cacheParentMethod(jitMethod);
    return meSuccess;
}

velmark_error_t JitDataManager::cacheInlineMethod(const boost::intrusive_ptr<JitMethod>& inlineMethod)
{
    BASEKIT2_ASSERT_TEXT(inlineMethod, "inlineMethod");
    BASEKIT2_ASSERT_TEXT(getCollectorType() == ctJitProfiler, "getCollectorType() == ctJitProfiler");
    // Inlines of this inline may have come first.
    if (inlineMethod &&
        (m_inlineCache.cacheInlineMethod(inlineMethod) || isFiledAsParent(inlineMethod->getMethodId())))
        addCachedInlineMethods(inlineMethod);
    return meSuccess;
}

bool JitDataManager::isFiledAsParent(const MethodId& id) const
{
    const JitMethod* method = m_methods.find(id);
    return method != nullptr && method->filedAsParent();
}

velmark_error_t JitDataManager::findParentMethod(const MethodId& parentId, boost::intrusive_ptr<JitMethod>& out) const
{
    BASEKIT2_ASSERT_TEXT(getCollectorType() == ctJitProfiler, "getCollectorType() == ctJitProfiler");
    BASEKIT2_ASSERT_TEXT(!parentId.isEmpty(), "!parentId.isEmpty()");
    JitMethod* method = m_methods.find(parentId);
    if (method == nullptr)
        return meFail;
    out = method;
    BASEKIT2_ASSERT_TEXT(out->regionCount(), "jitMethod->regionCount()");
    return meSuccess;
}

velmark_error_t JitDataManager::findInlineMethod(const MethodId& parentId, boost::intrusive_ptr<JitMethod>& out) const
{
    BASEKIT2_ASSERT_TEXT(getCollectorType() == ctJitProfiler, "getCollectorType() == ctJitProfiler");
    return m_inlineCache.findInlineMethod(parentId, out);
}

// ---------------------------------------------------------------------------------------------
// Finalisation

void JitDataManager::finalize()
{
    VM_TRACE_SCOPE("void velmark_3_11::JitDataManager::finalize(void)");
    invalidateLookupIndex();
    // Only regions that took in inlines since the last call change, so only those are walked,
    // unless TRACE wants a line for every region of every method, in method id order. Either
    // way the cost of a file doesn't grow with everything read before it.
    std::vector<const JitMethod*> methods(m_inlinesToPlace.begin(), m_inlinesToPlace.end());
    for (JitMethod* method : m_inlinesToPlace)
        method->clearInlinesToPlace();
    m_inlinesToPlace.clear();
    if (VM_ENABLED(log4cplus::TRACE_LOG_LEVEL)) {
        methods.clear();
        m_methods.forEach([&methods](const JitMethod* method) { methods.push_back(method); });
        std::sort(methods.begin(), methods.end(), [](const JitMethod* a, const JitMethod* b) {
            return a->getMethodId() < b->getMethodId();
        });
    }
    for (const JitMethod* entry : methods) {
        const JitMethod& method = *entry;
        for (const auto& region : method.regions()) {
            const unsigned long long jitRva = region->startJitRva();
            BASEKIT2_ASSERT_TEXT(jitRva, "jitRva");
            const unsigned long long startAddr = region->startAddress();
            BASEKIT2_ASSERT_TEXT(startAddr, "startAddr");
            VM_TRACE(L"Normalize method's (method id = " << method.getRawMethodId() << L", startJitRva = " << jitRva
                                                         << L") code region " << startAddr << L"-"
                                                         << region->endAddress() << L":");
            if (region->normalizeInlineJitRvaRanges(jitRva, startAddr) != meSuccess) {
                VM_ERROR(L"Couldn't normalize method's (method id = "
                         << method.getRawMethodId() << L", startJitRva = " << jitRva << L") code region " << startAddr
                         << L"-" << region->endAddress() << L". The inlines can't be resolved for this method.");
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Lookups

velmark_error_t JitDataManager::searchRegion(unsigned long long address, unsigned long long timestamp,
                                             unsigned int processId, unsigned int hostId,
                                             boost::intrusive_ptr<Region>& region,
                                             boost::intrusive_ptr<JitMethod>& method) const
{
    region.reset();
    method.reset();
    SampleHit hit;
    const velmark_error_t result = findSample(address, timestamp, processId, hostId, true, hit);
    if (result == meSuccess) {
        region = hit.region;
        method = hit.method;
    }
    return result;
}

velmark_error_t JitDataManager::findSample(unsigned long long address, unsigned long long timestamp,
                                           unsigned int processId, unsigned int hostId, bool wantRegion,
                                           SampleHit& hit) const
{
    // The index answers when it is there; during a load, the maps do. Both give the same
    // answers and messages.
    const LookupIndex* index = m_lookupIndex.load(std::memory_order_acquire);
    if (index != nullptr)
        return index->findSample(address, timestamp, processId, hostId, wantRegion, hit);

    const RegionDomain* domain = getRegionDomain(processId, hostId);
    if (domain == nullptr) {
        VM_TRACE(L"Couldn't find a region domain for pid = " << processId);
        return meFail;
    }
    const auto key = domain->find(Range(address, 1));
    if (key == domain->end()) {
        VM_TRACE(L"Couldn't find a region for addr = " << address);
        return meFail;
    }
    // A sample at the very load time already sees the new code.
    const VersionHistory::Version* version = key->second.at(timestamp);
    if (version == nullptr) {
        VM_TRACE(L"Couldn't find a region domain by tsc = " << timestamp);
        return meFail;
    }
    Region& found = *version->region;
    if (found.unloadTime() > found.loadTime() && found.unloadTime() <= timestamp) {
        VM_TRACE(L"The found range (" << found.startAddress() << L"-" << found.endAddress() << L") with life time ("
                                      << found.loadTime() << L"-" << found.unloadTime()
                                      << L") was out of memory when a sample with tsc = " << timestamp
                                      << L" occurred");
        return meFail;
    }
    if (version->owner == nullptr) {
        VM_TRACE(L"Couldn't find a method by code's jitrva = " << found.startJitRva());
        return meFail;
    }
    hit = {version->owner, found.startJitRva() - found.startAddress(), &found};
    return meSuccess;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long vaddr, unsigned long long timestamp,
                                                unsigned int pid, unsigned int hostId,
                                                boost::intrusive_ptr<JitMethod>& method,
                                                unsigned long long& jitRva) const
{
    JitMethod* found = nullptr;
    const velmark_error_t result = resolveJitPoint(vaddr, timestamp, pid, hostId, found, jitRva);
    method = found;
    return result;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long jitRva,
                                                boost::intrusive_ptr<JitMethod>& method) const
{
    JitMethod* found = nullptr;
    const velmark_error_t result = resolveJitPoint(jitRva, found);
    // A refusal leaves the caller's method as it was.
    if (result == meSuccess)
        method = found;
    return result;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long vaddr, unsigned long long timestamp,
                                                unsigned int pid, unsigned int hostId, JitMethod*& method,
                                                unsigned long long& jitRva) const
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::resolveJitPoint(unsigned __int64, "
                          "unsigned __int64, unsigned int, unsigned int, "
                          "boost::intrusive_ptr<velmark_3_11::JitMethod> &, unsigned __int64 &) const");
    usableLookupIndex();
    VM_INFO(L"RESOLVE JIT POINT: vaddr = " << vaddr << L", timestamp = " << timestamp << L", pid = " << pid
                                          << L", hostId = " << hostId);

    // The search of searchRegion, without taking a reference to the region: on a large store
    // that reference is a cache miss of its own.
    method = nullptr;
    SampleHit hit;
    if (findSample(vaddr, timestamp, pid, hostId, false, hit) != meSuccess) {
        VM_TRACE(L"Couldn't match jit point (vaddr = " << vaddr << L", timestamp = " << timestamp << L", pid = " << pid
                                                       << L") to any known ip address range.");
        return meFail;
    }
    method = hit.method;
    jitRva = vaddr + hit.jitRvaOffset;
    VM_INFO(L"Resolved jit point (vaddr = " << vaddr << L", timestamp = " << timestamp << L") to jit rva = " << jitRva
                                            << L" of method " << MethodTag(*method));
    return meSuccess;
}

velmark_error_t JitDataManager::resolveJitPoint(unsigned long long jitRva, JitMethod*& method) const
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitDataManager::resolveJitPoint(unsigned __int64, "
                          "boost::intrusive_ptr<velmark_3_11::JitMethod> &) const");
    VM_INFO(L"RESOLVE JIT POINT: jit rva = " << jitRva);

    method = nullptr;
    if (jitRva == kInvalidJitRva) {
        VM_TRACE(L"Couldn't resolve jit rva = " << jitRva << L" because it is invalid.");
        return meFail;
    }
    JitMethod* found = nullptr;
    if (!findJitRange(jitRva, nullptr, found)) {
        VM_TRACE(L"Couldn't resolve jit rva = " << jitRva << L" because it is out of the jit rva domain.");
        return meFail;
    }
    method = found;
    VM_INFO(L"Resolved jit rva = " << jitRva << L" to method " << MethodTag(*method));
    return meSuccess;
}

velmark_error_t JitDataManager::resolveJitRvaByAddress(unsigned long long jitRva, unsigned long long vaddr,
                                                       unsigned long long& result) const
{
    Region* region = nullptr;
    JitMethod* found = nullptr;
    if (!findJitRange(jitRva, &region, found))
        return meFail;
    JitMethod* method = nullptr;
    return resolveJitPoint(vaddr, region->loadTime(), region->processId(), region->hostId(), method, result);
}

velmark_error_t JitDataManager::translateJitAddress(unsigned int rawMethodId, unsigned long long vaddr,
                                                    unsigned long long rvaBegin, unsigned long long rvaEnd,
                                                    unsigned long long& result) const
{
    // Only the call that builds the table moves the result by the index of the method's last
    // entry; later calls don't. Callers have come to rely on both answers.
    unsigned int offset = 0;
    if (!m_rvaTableFilled.load(std::memory_order_acquire)) {
        boost::unique_lock<boost::mutex> lock(m_rvaTableMutex);
        if (!m_rvaTableFilled.load(std::memory_order_relaxed)) {
            RvaTable table;
            table.startJitRvaTable.resize(m_jitRvaDomain.size());
            table.lengthTable.resize(m_jitRvaDomain.size());
            table.startAddressTable.resize(m_jitRvaDomain.size());
            unsigned int i = 0;
            for (const auto& entry : m_jitRvaDomain) {
                const Region& region = *entry.second.first;
                table.startJitRvaTable[i] = region.startJitRva();
                table.lengthTable[i] = region.length();
                table.startAddressTable[i] = region.startAddress();
                if (entry.second.second->getRawMethodId() == rawMethodId)
                    offset = i;
                ++i;
            }
            // An empty store leaves the table empty, and a later call builds it again.
            if (table.startJitRvaTable.empty())
                return meFail;
            m_rvaTable = std::move(table);
            m_rvaTableFilled.store(true, std::memory_order_release);
        }
    }

    // From here on the table has entries and never changes again.
    const std::vector<unsigned long long>& starts = m_rvaTable.startJitRvaTable;

    // Signed bounds: a begin below the first entry ends the search at 0 instead of running off
    // the front of the table.
    const long long n = static_cast<long long>(starts.size());
    long long low = 0;
    long long high = n - 1;
    long long mid = high / 2;
    while (n != 1 && low < high && mid >= 0 && mid < n) {
        if (starts[mid] < rvaBegin) {
            low = mid + 1;
            mid = (mid + high + 1) / 2;
        } else if (starts[mid] > rvaBegin) {
            high = mid - 1;
            mid = (mid + low - 1) / 2;
        } else {
            low = mid;
            high = mid;
        }
    }

    const unsigned int index = offset + static_cast<unsigned int>(mid);
    if (index >= starts.size())
        return meFail;
    if (starts[index] >= rvaEnd)
        return meFail;
    if (m_rvaTable.startAddressTable[index] > vaddr)
        return meFail;
    if (vaddr - m_rvaTable.startAddressTable[index] >= m_rvaTable.lengthTable[index])
        return meFail;
    result = vaddr + starts[index] - m_rvaTable.startAddressTable[index];
    return meSuccess;
}

velmark_error_t JitDataManager::findNextRegion(unsigned long long begin, unsigned long long end,
                                               unsigned long long timestamp, unsigned int processId,
                                               unsigned int hostId, boost::intrusive_ptr<ICodeRegion>& region) const
{
    const RegionDomain* domain = getRegionDomain(processId, hostId);
    if (domain == nullptr) {
        VM_TRACE(L"Couldn't find a region domain for pid = " << processId);
        return meFail;
    }
    const Range probe(begin, static_cast<unsigned int>(end - begin));
    const auto key = domain->lower_bound(probe);
    if (key == domain->end() || domain->key_comp()(probe, key->first)) {
        VM_TRACE(L"Couldn't find a region for addr = " << begin);
        return meFail;
    }
    if (const VersionHistory::Version* next = key->second.after(timestamp)) {
        region = next->region;
        return meSuccess;
    }
    VM_TRACE(L"Couldn't find overlapped region domain by tsc = " << timestamp);
    return meFail;
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ISymbol>> JitDataManager::getMethods() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ISymbol>>(m_methodList);
}

const JitDataManager::RegionDomain* JitDataManager::getRegionDomain(unsigned int processId, unsigned int hostId) const
{
    const auto host = m_regionDomains.find(hostId);
    if (host == m_regionDomains.end())
        return nullptr;
    const auto process = host->second.find(processId);
    return process == host->second.end() ? nullptr : &process->second;
}

JitDataManager::RegionDomain& JitDataManager::getOrCreateRegionDomain(unsigned int processId, unsigned int hostId)
{
    invalidateLookupIndex();
    return m_regionDomains[hostId][processId];
}

} // namespace velmark_3_11
