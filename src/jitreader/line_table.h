// One line table of a code range, kept delta-coded: a usual row costs one or two bytes instead
// of twelve, and the store holds millions of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "jitreader/symbol.h"

namespace velmark_3_11 {

class LineTable {
public:
    LineTable() = default;
    /// Encodes `count` rows exactly as given, in their order; bad rows included.
    LineTable(const LineNumberEntry* rows, std::size_t count);
    explicit LineTable(const std::vector<LineNumberEntry>& rows) : LineTable(rows.data(), rows.size()) {}
    /// Encodes `count` rows of three little-endian 32-bit words each, start, end and value, at
    /// `bytes`: the rows as a trace file holds them.
    static LineTable fromFileRows(const unsigned char* bytes, std::size_t count);
    LineTable(const LineTable& other);
    LineTable& operator=(const LineTable& other);
    LineTable(LineTable&&) noexcept = default;
    LineTable& operator=(LineTable&&) noexcept = default;

    bool empty() const { return !m_data; }
    unsigned int size() const;
    /// The largest end offset of the rows; 0 for none.
    unsigned int maxEnd() const;
    /// Writes the rows to `out`, which holds size() of them.
    void copyTo(LineNumberEntry* out) const;
    std::vector<LineNumberEntry> rows() const;

    /// Calls `visit` with every row in stored order until it returns true; then true, with that
    /// row in `found`.
    template <class Visit>
    bool findIf(Visit&& visit, LineNumberEntry& found) const
    {
        Decoder decoder(*this);
        while (decoder.next(found)) {
            if (visit(found))
                return true;
        }
        return false;
    }

private:
    /// Encodes `count` rows, the i-th given by `row(i)`.
    template <class Row>
    void encode(std::size_t count, Row row);

    class Decoder {
    public:
        explicit Decoder(const LineTable& table);
        bool next(LineNumberEntry& row);

    private:
        const unsigned char* m_at;
        unsigned int m_left;
        LineNumberEntry m_previous;
    };

    /// Bytes of the block: maxEnd() as a 32-bit word, the row count and the bytes of the rows in
    /// 7-bit groups, then the rows.
    std::size_t byteSize() const;
    static std::size_t byteSize(const unsigned char* block);

    /// Blocks come from the small object pool, which takes them back by their size.
    struct GiveBack {
        void operator()(unsigned char* block) const noexcept;
    };
    typedef std::unique_ptr<unsigned char[], GiveBack> Block;
    static Block newBlock(std::size_t size);

    Block m_data;

    /// Tests weigh the block.
    friend class LineTableProbe;
};

} // namespace velmark_3_11
