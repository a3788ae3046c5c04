// Builders of methods for the store's tests, and the store's consistency check.
#pragma once

#include <cstdio>
#include <functional>
#include <iterator>
#include <numeric>
#include <set>
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
struct CodeRange { unsigned long long address; unsigned int length; unsigned long long jitRva; };

/// Ids are unique per raw id, process and host, as the decoder makes them.
inline MethodId idOf(unsigned int rawId, unsigned int pid = 7, unsigned int host = 1)
{
    return MethodId((static_cast<unsigned long long>(host) << 32) | pid, rawId);
}

/// A load record: a raw method with its regions, started at the first region's jit rva. Each
/// code byte is the low byte of its address, so that a copy shows where it came from.
inline MethodPtr makeMethod(unsigned int rawId, unsigned long long loadTime, const std::vector<CodeRange>& ranges,
                            unsigned int pid = 7, unsigned int host = 1)
{
    MethodPtr method(new JitMethod);
    method->setRawMethodId(rawId);
    method->setMethodId(idOf(rawId, pid, host));
    method->setLoadTime(loadTime);
    method->setStartJitRva(ranges.empty() ? 0 : ranges.front().jitRva);
    for (const CodeRange& range : ranges) {
        std::vector<unsigned char> bytes(range.length);
        std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(range.address));
        method->addRegion(RegionPtr(new Region(pid, host, loadTime, range.jitRva, range.address, range.length,
                                               velmark_3_11::makeByteBuffer(bytes.data(), range.length))));
    }
    return method;
}

/// An inline record: one region with jit rva 0; raw ids 0 give empty ids.
inline MethodPtr makeInline(unsigned int rawId, unsigned int rawParentId, unsigned long long address,
                            unsigned int length, unsigned long long loadTime)
{
    MethodPtr method = makeMethod(rawId, loadTime, {{address, length, 0}});
    method->setRawParentId(rawParentId);
    if (rawId == 0)
        method->setMethodId(MethodId());
    if (rawParentId != 0)
        method->setParentId(idOf(rawParentId));
    return method;
}

inline std::string hex(unsigned long long value)
{
    char text[24];
    std::snprintf(text, sizeof text, "%#llx", value);
    return text;
}

/// The keys of the region domain of process 7 on host 1 as "start-end:t1,t2", with the load
/// times of each key's time domain in order.
inline std::vector<std::string> describeDomain(const JitDataManager& store)
{
    std::vector<std::string> keys;
    if (const JitDataManager::RegionDomain* domain = store.getRegionDomain(7, 1))
        for (const auto& entry : *domain) {
            std::string text = hex(entry.first.start) + "-" + hex(entry.first.end()) + ":";
            for (const auto* version : entry.second.oldestFirst())
                text += (text.back() == ':' ? "" : ",") + std::to_string(version->loadTime);
            keys.push_back(text);
        }
    return keys;
}

/// Keys of the jit rva domain and of every region domain disjoint and sorted, no empty history,
/// every history in load time order, its regions and methods held by the jit rva domain (histories
/// don't own them), and in every region that a domain or a method reaches, parallel inline vectors
/// without a loop.
inline ::testing::AssertionResult storeIsConsistent(const JitDataManager& store)
{
    std::string fault;
    const auto disjoint = [&fault](const auto& map, const char* what) {
        for (auto it = map.begin(); it != map.end() && std::next(it) != map.end(); ++it)
            if (fault.empty() && it->first.end() > std::next(it)->first.start)
                fault = what + (" key at " + hex(it->first.start) + " overlaps the next");
    };
    std::function<void(const Region&, int)> inlines = [&](const Region& region, int depth) {
        if (fault.empty() && region.inlinedRegions().size() != region.inlinedMethods().size())
            fault = "inline vectors differ in region at " + hex(region.startAddress());
        if (fault.empty() && depth > 64)
            fault = "inline chain loops at " + hex(region.startAddress());
        for (std::size_t i = 0; fault.empty() && i < region.inlinedRegions().size(); ++i)
            inlines(*region.inlinedRegions()[i], depth + 1);
    };
    disjoint(store.jitRvaDomain(), "jit rva");
    std::set<const void*> owned;
    for (const auto& entry : store.jitRvaDomain()) {
        owned.insert(entry.second.first.get());
        owned.insert(entry.second.second.get());
    }
    const auto held = [&](const void* object, const velmark_3_11::Range& key) {
        if (fault.empty() && !owned.count(object))
            fault = "history at " + hex(key.start) + " points at an object that the jit rva domain lacks";
    };
    for (const auto& host : store.regionDomains())
        for (const auto& process : host.second) {
            disjoint(process.second, "ip");
            for (const auto& key : process.second) {
                if (key.second.empty())
                    return ::testing::AssertionFailure() << "empty history at " << hex(key.first.start);
                unsigned long long previous = 0;
                for (const auto* version : key.second.oldestFirst()) {
                    held(version->region, key.first);
                    held(version->owner, key.first);
                    inlines(*version->region, 0);
                    if (fault.empty() && (version->loadTime != version->region->loadTime() ||
                                          (version->older != nullptr && version->loadTime <= previous)))
                        fault = "history at " + hex(key.first.start) + " out of load time order";
                    previous = version->loadTime;
                }
            }
        }
    for (const auto& method : store.methodList())
        for (const auto& region : method->regions())
            inlines(*region, 0);
    if (fault.empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << fault;
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
