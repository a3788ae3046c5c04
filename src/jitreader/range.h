// The key of every address map: an interval under which overlapping keys are equivalent.
#pragma once

namespace velmark_3_11 {

/// The jit rva that no code byte has: the answer of a failed allocation or translation.
constexpr unsigned long long kInvalidJitRva = 0xFFFFFFFFFFFFFFFFull;

/// The interval [start, start + size).
struct Range {
    unsigned long long start;
    unsigned int size;

    Range() : start(0), size(0) {}
    Range(unsigned long long start_, unsigned int size_) : start(start_), size(size_) {}

    /// One past the last address, as the sum of start and size.
    unsigned long long end() const { return start + size; }

    /// The end, held at the top of the address space: a range that a trace lets run past it
    /// would otherwise seem to end before it starts, and break the order of every map.
    unsigned long long boundedEnd() const
    {
        const unsigned long long sum = start + size;
        return sum < start ? ~0ull : sum;
    }

    /// `a` is before `b` when it ends at or before b's start. Ranges that share a byte are
    /// equivalent, so a map keyed by Range never holds overlapping keys, a point is found with
    /// the probe Range(address, 1), and equal_range(r) yields exactly the keys that overlap r.
    struct Comparator {
        bool operator()(const Range& a, const Range& b) const { return a.boundedEnd() <= b.start; }
    };

    bool operator==(const Range& other) const { return start == other.start && size == other.size; }
    bool operator!=(const Range& other) const { return !(*this == other); }
};

} // namespace velmark_3_11
