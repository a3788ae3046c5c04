#include "jitreader/line_table.h"

#include <algorithm>
#include <cstring>

#include "platform/byte_cursor.h"

namespace velmark_3_11 {

namespace {

constexpr std::size_t kHeaderSize = 3 * sizeof(std::uint32_t);
constexpr std::size_t kMaxRowSize = 3 * 5; // three fields of at most five 7-bit groups
constexpr std::size_t kKeptScratch = 64 * 1024;

// Rows mostly follow one another: a row starts where the one before ended and moves the value
// by a little. Each field is therefore stored as the difference to what it is expected to be,
// zigzag-folded so that small steps back stay small, in 7-bit groups. The arithmetic wraps
// modulo 2^32 both ways, so any row, however odd, comes back exactly.
std::uint32_t fold(std::uint32_t difference)
{
    return (difference << 1) ^ (0u - (difference >> 31));
}

std::uint32_t unfold(std::uint32_t folded)
{
    return (folded >> 1) ^ (0u - (folded & 1));
}

unsigned char* putGroups(unsigned char* out, std::uint32_t value)
{
    while (value >= 0x80) {
        *out++ = static_cast<unsigned char>(value | 0x80);
        value >>= 7;
    }
    *out++ = static_cast<unsigned char>(value);
    return out;
}

std::uint32_t readWord(const unsigned char* at)
{
    std::uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

} // namespace

template <class Row>
void LineTable::encode(std::size_t count, Row rowAt)
{
    if (count == 0)
        return;
    // Written once into scratch space of the largest size, then copied to a block that fits.
    thread_local std::vector<unsigned char> scratch;
    scratch.resize(std::max(scratch.size(), kHeaderSize + count * kMaxRowSize));
    unsigned char* out = scratch.data() + kHeaderSize;
    LineNumberEntry previous{0, 0, 0};
    std::uint32_t maxEnd = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const LineNumberEntry row = rowAt(i);
        out = putGroups(out, fold(row.start - previous.end));
        out = putGroups(out, fold(row.end - row.start));
        out = putGroups(out, fold(row.value - previous.value));
        maxEnd = std::max(maxEnd, row.end);
        previous = row;
    }

    const std::size_t size = static_cast<std::size_t>(out - scratch.data());
    const std::uint32_t header[3] = {static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(count), maxEnd};
    std::memcpy(scratch.data(), header, kHeaderSize);
    m_data.reset(new unsigned char[size]);
    std::memcpy(m_data.get(), scratch.data(), size);
    // One huge table must not leave its scratch space to the thread for good.
    if (scratch.size() > kKeptScratch)
        std::vector<unsigned char>().swap(scratch);
}

LineTable::LineTable(const LineNumberEntry* rows, std::size_t count)
{
    encode(count, [rows](std::size_t i) { return rows[i]; });
}

LineTable LineTable::fromFileRows(const unsigned char* bytes, std::size_t count)
{
    ByteCursor cursor(bytes, count * 3 * sizeof(std::uint32_t));
    LineTable table;
    table.encode(count, [&cursor](std::size_t) {
        LineNumberEntry row;
        row.start = cursor.read<std::uint32_t>();
        row.end = cursor.read<std::uint32_t>();
        row.value = cursor.read<std::uint32_t>();
        return row;
    });
    return table;
}

LineTable::LineTable(const LineTable& other)
{
    *this = other;
}

LineTable& LineTable::operator=(const LineTable& other)
{
    if (this == &other)
        return *this;
    if (!other.m_data) {
        m_data.reset();
        return *this;
    }
    const std::size_t size = other.byteSize();
    m_data.reset(new unsigned char[size]);
    std::memcpy(m_data.get(), other.m_data.get(), size);
    return *this;
}

std::size_t LineTable::byteSize() const
{
    return m_data ? readWord(m_data.get()) : 0;
}

unsigned int LineTable::size() const
{
    return m_data ? readWord(m_data.get() + sizeof(std::uint32_t)) : 0;
}

unsigned int LineTable::maxEnd() const
{
    return m_data ? readWord(m_data.get() + 2 * sizeof(std::uint32_t)) : 0;
}

void LineTable::copyTo(LineNumberEntry* out) const
{
    Decoder decoder(*this);
    LineNumberEntry row;
    while (decoder.next(row))
        *out++ = row;
}

std::vector<LineNumberEntry> LineTable::rows() const
{
    std::vector<LineNumberEntry> result(size());
    copyTo(result.data());
    return result;
}

LineTable::Decoder::Decoder(const LineTable& table)
    : m_at(table.m_data ? table.m_data.get() + kHeaderSize : nullptr), m_left(table.size()), m_previous{0, 0, 0}
{
}

bool LineTable::Decoder::next(LineNumberEntry& row)
{
    if (m_left == 0)
        return false;
    --m_left;
    // The block was written by this class with exactly size() rows, so its groups end in it.
    const auto group = [this] {
        std::uint32_t value = 0;
        for (unsigned int shift = 0;; shift += 7) {
            const unsigned char byte = *m_at++;
            value |= static_cast<std::uint32_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0)
                return unfold(value);
        }
    };
    row.start = m_previous.end + group();
    row.end = row.start + group();
    row.value = m_previous.value + group();
    m_previous = row;
    return true;
}

} // namespace velmark_3_11
