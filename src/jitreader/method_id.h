// The identity of a method across records and files: an MD5 digest held as two halves.
#pragma once

#include <cstddef>
#include <cstring>

#include "platform/md5.h"

namespace velmark_3_11 {

class MethodId {
public:
    MethodId() : m_high(0), m_low(0) {}
    MethodId(unsigned long long high, unsigned long long low) : m_high(high), m_low(low) {}
    explicit MethodId(const basekit2::md5_digest_t& digest)
    {
        std::memcpy(&m_high, digest.bytes, 8);
        std::memcpy(&m_low, digest.bytes + 8, 8);
    }

    bool isEmpty() const { return m_high == 0 && m_low == 0; }
    unsigned long long high() const { return m_high; }
    unsigned long long low() const { return m_low; }

    bool operator<(const MethodId& other) const
    {
        return m_high != other.m_high ? m_high < other.m_high : m_low < other.m_low;
    }
    bool operator==(const MethodId& other) const { return m_high == other.m_high && m_low == other.m_low; }
    bool operator!=(const MethodId& other) const { return !(*this == other); }

    /// For hash maps: the digest's bits are spread already. As it cannot throw, the standard
    /// hash maps keep no copy of it in their nodes.
    struct Hash {
        std::size_t operator()(const MethodId& id) const noexcept
        {
            return static_cast<std::size_t>(id.m_high ^ id.m_low);
        }
    };

private:
    unsigned long long m_high;
    unsigned long long m_low;
};

} // namespace velmark_3_11
