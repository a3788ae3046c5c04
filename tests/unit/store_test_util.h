// Builders of methods for the store's tests, and the store's consistency check.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "jitreader/jit_data_manager.h"

namespace jrtest {

using velmark_3_11::JitDataManager;
using velmark_3_11::JitMethod;
using velmark_3_11::MethodId;
using velmark_3_11::Region;
using MethodPtr = boost::intrusive_ptr<JitMethod>;
using RegionPtr = boost::intrusive_ptr<Region>;

/// One code range of a record: address, length, jit rva.
struct CodeRange {
    unsigned long long address;
    unsigned int length;
    unsigned long long jitRva;
};

/// Ids are unique per raw id, process and host, as the decoder makes them.
inline MethodId idOf(unsigned int rawId, unsigned int pid = 7, unsigned int host = 1)
{
    return MethodId((static_cast<unsigned long long>(host) << 32) | pid, rawId);
}

/// Bytes of a region: the low byte of each address, so that a copy shows where it came from.
inline boost::shared_ptr<velmark_3_11::IByteBuffer> addressBytes(unsigned long long address, unsigned int length)
{
    std::vector<unsigned char> bytes(length);
    for (unsigned int i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(address + i);
    return velmark_3_11::makeByteBuffer(bytes.data(), length);
}

/// A load record: a raw method with its regions, started at the first region's jit rva.
inline MethodPtr makeMethod(unsigned int rawId, unsigned long long loadTime, const std::vector<CodeRange>& ranges,
                            unsigned int pid = 7, unsigned int host = 1)
{
    MethodPtr method(new JitMethod);
    method->setRawMethodId(rawId);
    method->setMethodId(idOf(rawId, pid, host));
    method->setLoadTime(loadTime);
    if (!ranges.empty())
        method->setStartJitRva(ranges.front().jitRva);
    for (const CodeRange& range : ranges)
        method->addRegion(RegionPtr(new Region(pid, host, loadTime, range.jitRva, range.address, range.length,
                                               addressBytes(range.address, range.length))));
    return method;
}

/// An inline record: one region with jit rva 0.
inline MethodPtr makeInline(unsigned int rawId, unsigned int rawParentId, unsigned long long address,
                            unsigned int length, unsigned long long loadTime, unsigned int pid = 7,
                            unsigned int host = 1)
{
    MethodPtr method = makeMethod(rawId, loadTime, {{address, length, 0}}, pid, host);
    method->setRawParentId(rawParentId);
    if (rawId == 0)
        method->setMethodId(MethodId());
    if (rawParentId != 0)
        method->setParentId(idOf(rawParentId, pid, host));
    return method;
}

inline std::string hex(unsigned long long value)
{
    char text[24];
    std::snprintf(text, sizeof text, "%#llx", value);
    return text;
}

/// The keys of a region domain as "start-end:t1,t2", with the load times of each key's time
/// domain in order; "*" marks a key whose container is `marked`.
inline std::vector<std::string> describeDomain(const JitDataManager& store, unsigned int pid = 7, unsigned int host = 1,
                                               const JitDataManager::JitMethodContainer* marked = nullptr)
{
    std::vector<std::string> keys;
    const JitDataManager::RegionDomain* domain = store.getRegionDomain(pid, host);
    if (domain == nullptr)
        return keys;
    for (const auto& entry : *domain) {
        std::string text = hex(entry.first.start) + "-" + hex(entry.first.end()) + ":";
        for (const auto& time : entry.second->timeDomain)
            text += (text.back() == ':' ? "" : ",") + std::to_string(time.first);
        if (entry.second.get() == marked)
            text += "*";
        keys.push_back(text);
    }
    return keys;
}

namespace detail {

inline ::testing::AssertionResult checkInlines(const Region& region, int depth = 0)
{
    if (region.inlinedRegions().size() != region.inlinedMethods().size())
        return ::testing::AssertionFailure() << "inline vectors differ in region at " << hex(region.startAddress());
    if (depth > 64)
        return ::testing::AssertionFailure() << "inline chain loops at " << hex(region.startAddress());
    for (const auto& inlined : region.inlinedRegions()) {
        auto result = checkInlines(*inlined, depth + 1);
        if (!result)
            return result;
    }
    return ::testing::AssertionSuccess();
}

template <class Map>
::testing::AssertionResult checkDisjoint(const Map& map, const char* what)
{
    const typename Map::value_type* previous = nullptr;
    for (const auto& entry : map) {
        if (previous != nullptr && previous->first.end() > entry.first.start)
            return ::testing::AssertionFailure() << what << " keys " << hex(previous->first.start) << "-"
                                                 << hex(previous->first.end()) << " and " << hex(entry.first.start)
                                                 << " overlap or are out of order";
        previous = &entry;
    }
    return ::testing::AssertionSuccess();
}

} // namespace detail

/// Keys of every region domain disjoint and sorted, jit rva ranges unique, and the parallel
/// inline vectors of every reachable region equal.
inline ::testing::AssertionResult storeIsConsistent(const JitDataManager& store)
{
    auto result = detail::checkDisjoint(store.jitRvaDomain(), "jit rva");
    if (!result)
        return result;
    for (const auto& host : store.regionDomains()) {
        for (const auto& process : host.second) {
            if (!(result = detail::checkDisjoint(process.second, "ip")))
                return result;
            for (const auto& key : process.second) {
                if (!key.second || key.second->timeDomain.empty())
                    return ::testing::AssertionFailure() << "empty container at " << hex(key.first.start);
                for (const auto& time : key.second->timeDomain)
                    if (!(result = detail::checkInlines(*time.second)))
                        return result;
            }
        }
    }
    for (const auto& entry : store.jitRvaDomain())
        if (!(result = detail::checkInlines(*entry.second.first)))
            return result;
    for (const auto& method : store.methodList())
        for (const auto& region : method->regions())
            if (!(result = detail::checkInlines(*region)))
                return result;
    return ::testing::AssertionSuccess();
}

#define EXPECT_STORE_CONSISTENT(store) EXPECT_TRUE(::jrtest::storeIsConsistent(store))

/// Loads `method` and checks the store afterwards.
inline velmark_3_11::velmark_error_t load(JitDataManager& store, MethodPtr method, unsigned int pid = 7,
                                          unsigned int host = 1)
{
    const auto result = store.processMethodLoadRecord(pid, host, method);
    EXPECT_STORE_CONSISTENT(store);
    return result;
}

} // namespace jrtest
