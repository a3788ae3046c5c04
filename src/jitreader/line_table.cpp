#include "jitreader/line_table.h"

#include <algorithm>
#include <cstring>

#include "jitreader/small_object_pool.h"
#include "platform/byte_cursor.h"

namespace velmark_3_11 {

namespace {

// A row mostly follows the one before: it starts where that one ended, covers a few to a few
// hundred bytes and moves the value by a small step. Such a row takes one of two short forms,
// told apart by the low bits of its first byte:
//
//   xxxxxxx0 xxxxxxxx  the length in the top 9 bits of the 16, the step plus 32 in the 6 below
//   xxxxxx01           the length in the top 6 bits; the value moves on by one
//   00000g11           any other row: the start's distance from the previous end (only when g
//                      is set), the length and the step, each zigzag-folded so that small steps
//                      back stay small, in 7-bit groups
//   00001011           a row whose differences would take more than twelve bytes so: its start,
//                      end and value as three little-endian words
//
// All differences wrap modulo 2^32 both ways, so any row, however odd, comes back exactly.
constexpr std::uint32_t kShortLengths = 512;
constexpr std::uint32_t kShortSteps = 64;
constexpr std::uint32_t kStepBias = 32; // short steps run from -32 to 31
constexpr std::uint32_t kTinyLengths = 64;
constexpr unsigned char kGeneral = 3;
constexpr unsigned char kGap = 4;
constexpr unsigned char kWords = 8;
constexpr std::size_t kWordsSize = 3 * sizeof(std::uint32_t);

// maxEnd() as a word at the front, so that it is there without decoding, then the row count and
// the bytes of the rows in 7-bit groups.
constexpr std::size_t kMaxHeaderSize = sizeof(std::uint32_t) + 5 + 10;
constexpr std::size_t kMaxRowSize = 1 + kWordsSize; // groups only where they take no more
constexpr std::size_t kKeptScratch = 64 * 1024;

std::uint32_t fold(std::uint32_t difference)
{
    return (difference << 1) ^ (0u - (difference >> 31));
}

std::uint32_t unfold(std::uint32_t folded)
{
    return (folded >> 1) ^ (0u - (folded & 1));
}

template <class T>
unsigned char* putGroups(unsigned char* out, T value)
{
    while (value >= 0x80) {
        *out++ = static_cast<unsigned char>(value | 0x80);
        value >>= 7;
    }
    *out++ = static_cast<unsigned char>(value);
    return out;
}

std::size_t groupCount(std::uint32_t value)
{
    return 1 + (value >= 1u << 7) + (value >= 1u << 14) + (value >= 1u << 21) + (value >= 1u << 28);
}

unsigned char* putLittleEndianWord(unsigned char* out, std::uint32_t word)
{
    for (int shift = 0; shift < 32; shift += 8)
        *out++ = static_cast<unsigned char>(word >> shift);
    return out;
}

// The block was written by this class, so its groups end inside it.
template <class T>
T takeGroups(const unsigned char*& at)
{
    T value = 0;
    for (unsigned int shift = 0;; shift += 7) {
        const unsigned char byte = *at++;
        value |= static_cast<T>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0)
            return value;
    }
}

// What the header of a block says, and where its rows begin.
struct Header {
    std::uint32_t count;
    std::uint64_t rowBytes;
    const unsigned char* rows;
};

Header readHeader(const unsigned char* block)
{
    Header header;
    const unsigned char* at = block + sizeof(std::uint32_t);
    header.count = takeGroups<std::uint32_t>(at);
    header.rowBytes = takeGroups<std::uint64_t>(at);
    header.rows = at;
    return header;
}

// A row in a general form, read after its first byte.
struct GeneralRow {
    const unsigned char* next;
    LineNumberEntry row;
};

// Out of line and returning its results, so that the walk's state stays in registers.
__attribute__((noinline)) GeneralRow decodeGeneral(std::uint32_t first, const unsigned char* at, std::uint32_t end,
                                                   std::uint32_t value)
{
    GeneralRow general;
    LineNumberEntry& row = general.row;
    if ((first & kWords) != 0) {
        row = {littleEndian32(at), littleEndian32(at + 4), littleEndian32(at + 8)};
        general.next = at + kWordsSize;
        return general;
    }
    row.start = end + ((first & kGap) != 0 ? unfold(takeGroups<std::uint32_t>(at)) : 0);
    row.end = row.start + unfold(takeGroups<std::uint32_t>(at));
    row.value = value + unfold(takeGroups<std::uint32_t>(at));
    general.next = at;
    return general;
}

// The row at `at`, which follows `previous`; moves `at` past it. `row` may be `previous`.
inline void decodeRow(const unsigned char*& at, const LineNumberEntry& previous, LineNumberEntry& row)
{
    const std::uint32_t first = *at;
    const std::uint32_t end = previous.end;
    const std::uint32_t value = previous.value;
    if ((first & 1) == 0) {
        const std::uint32_t word = first | static_cast<std::uint32_t>(at[1]) << 8;
        at += 2;
        row.start = end;
        row.end = end + (word >> 7);
        row.value = value + ((word >> 1) & (kShortSteps - 1)) - kStepBias;
    } else if ((first & 2) == 0) {
        ++at;
        row.start = end;
        row.end = end + (first >> 2);
        row.value = value + 1;
    } else {
        const GeneralRow general = decodeGeneral(first, at + 1, end, value);
        at = general.next;
        row = general.row;
    }
}

} // namespace

template <class Row>
void LineTable::encode(std::size_t count, Row rowAt)
{
    if (count == 0)
        return;
    // The rows are written once into scratch space of the largest size, then copied behind the
    // header into a block that fits.
    thread_local std::vector<unsigned char> scratch;
    scratch.resize(std::max(scratch.size(), count * kMaxRowSize));
    unsigned char* const body = scratch.data();
    unsigned char* out = body;
    std::uint32_t previousEnd = 0;
    std::uint32_t previousValue = 0;
    std::uint32_t maxEnd = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const LineNumberEntry row = rowAt(i);
        const std::uint32_t gap = row.start - previousEnd;
        const std::uint32_t length = row.end - row.start;
        const std::uint32_t step = row.value - previousValue;
        if (gap == 0 && step == 1 && length < kTinyLengths) {
            *out++ = static_cast<unsigned char>(length << 2 | 1);
        } else if (gap == 0 && length < kShortLengths && step + kStepBias < kShortSteps) {
            const std::uint32_t word = length << 7 | (step + kStepBias) << 1;
            out[0] = static_cast<unsigned char>(word);
            out[1] = static_cast<unsigned char>(word >> 8);
            out += 2;
        } else {
            const std::uint32_t foldedGap = fold(gap);
            const std::uint32_t foldedLength = fold(length);
            const std::uint32_t foldedStep = fold(step);
            if ((gap != 0 ? groupCount(foldedGap) : 0) + groupCount(foldedLength) + groupCount(foldedStep) >
                kWordsSize) {
                *out++ = kGeneral | kWords;
                out = putLittleEndianWord(out, row.start);
                out = putLittleEndianWord(out, row.end);
                out = putLittleEndianWord(out, row.value);
            } else {
                *out++ = gap != 0 ? kGeneral | kGap : kGeneral;
                if (gap != 0)
                    out = putGroups(out, foldedGap);
                out = putGroups(out, foldedLength);
                out = putGroups(out, foldedStep);
            }
        }
        maxEnd = std::max(maxEnd, row.end);
        previousEnd = row.end;
        previousValue = row.value;
    }

    const std::size_t rowBytes = static_cast<std::size_t>(out - body);
    unsigned char header[kMaxHeaderSize];
    unsigned char* headerEnd = putLittleEndianWord(header, maxEnd);
    headerEnd = putGroups(headerEnd, static_cast<std::uint32_t>(count));
    headerEnd = putGroups(headerEnd, static_cast<std::uint64_t>(rowBytes));
    const std::size_t headerSize = static_cast<std::size_t>(headerEnd - header);
    m_data = newBlock(headerSize + rowBytes);
    std::memcpy(m_data.get(), header, headerSize);
    std::memcpy(m_data.get() + headerSize, body, rowBytes);
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
    constexpr std::size_t kRowSize = 3 * sizeof(std::uint32_t);
    ByteCursor cursor(bytes, count * kRowSize);
    LineTable table;
    // A row at a time from the cursor, one bound check for its three words; a row past the end
    // would read as zeros, as the cursor's own reads do.
    table.encode(count, [&cursor](std::size_t) {
        const unsigned char* at = cursor.take(kRowSize);
        if (at == nullptr)
            return LineNumberEntry{0, 0, 0};
        return LineNumberEntry{littleEndian32(at), littleEndian32(at + 4), littleEndian32(at + 8)};
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
    m_data = newBlock(size);
    std::memcpy(m_data.get(), other.m_data.get(), size);
    return *this;
}

std::size_t LineTable::byteSize() const
{
    return m_data ? byteSize(m_data.get()) : 0;
}

std::size_t LineTable::byteSize(const unsigned char* block)
{
    const Header header = readHeader(block);
    return static_cast<std::size_t>(header.rows - block) + static_cast<std::size_t>(header.rowBytes);
}

LineTable::Block LineTable::newBlock(std::size_t size)
{
    return Block(static_cast<unsigned char*>(poolAllocate(size)));
}

void LineTable::GiveBack::operator()(unsigned char* block) const noexcept
{
    poolDeallocate(block, byteSize(block));
}

unsigned int LineTable::size() const
{
    return m_data ? readHeader(m_data.get()).count : 0;
}

unsigned int LineTable::maxEnd() const
{
    return m_data ? littleEndian32(m_data.get()) : 0;
}

void LineTable::copyTo(LineNumberEntry* out) const
{
    if (!m_data)
        return;
    // The decoder's walk with its state in locals: the rows written to `out` could otherwise
    // alias it and keep it in memory.
    const Header header = readHeader(m_data.get());
    const unsigned char* at = header.rows;
    LineNumberEntry row{0, 0, 0};
    for (std::uint32_t i = 0; i < header.count; ++i) {
        decodeRow(at, row, row);
        out[i] = row;
    }
}

std::vector<LineNumberEntry> LineTable::rows() const
{
    std::vector<LineNumberEntry> result(size());
    copyTo(result.data());
    return result;
}

LineTable::Decoder::Decoder(const LineTable& table) : m_at(nullptr), m_left(0), m_previous{0, 0, 0}
{
    if (!table.m_data)
        return;
    const Header header = readHeader(table.m_data.get());
    m_at = header.rows;
    m_left = header.count;
}

bool LineTable::Decoder::next(LineNumberEntry& row)
{
    if (m_left == 0)
        return false;
    --m_left;
    decodeRow(m_at, m_previous, row);
    m_previous = row;
    return true;
}

} // namespace velmark_3_11
