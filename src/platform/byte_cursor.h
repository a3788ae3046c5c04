// The one bounds-checked reader of bytes in memory. A read that runs past the end yields
// zero bytes for the missing part and still advances the position, so that a caller that
// counts what it has consumed sees the overrun, while nothing outside the buffer is touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace velmark_3_11 {

/// The little-endian word at `bytes`, four of which lie inside a buffer: ones that take() gave,
/// or a block that its owner wrote.
inline std::uint32_t littleEndian32(const unsigned char* bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

class ByteCursor {
public:
    ByteCursor(const void* data, std::size_t size)
        : m_data(static_cast<const unsigned char*>(data)), m_size(size), m_position(0)
    {
    }

    /// Bytes consumed so far; may exceed size() after an overrun.
    std::uint64_t position() const { return m_position; }
    std::size_t size() const { return m_size; }
    /// Bytes left before the end; 0 after an overrun.
    std::size_t remaining() const { return m_position >= m_size ? 0 : m_size - static_cast<std::size_t>(m_position); }
    /// True once a read or skip went past the end.
    bool overrun() const { return m_position > m_size; }

    /// Copies `count` bytes to `out`; bytes past the end read as zero.
    void read(void* out, std::size_t count)
    {
        const std::size_t available = count < remaining() ? count : remaining();
        if (available != 0)
            std::memcpy(out, m_data + m_position, available);
        if (available < count)
            std::memset(static_cast<unsigned char*>(out) + available, 0, count - available);
        m_position += count;
    }

    /// The byte at the position, without moving; 0 past the end.
    std::uint8_t peek() const { return remaining() != 0 ? m_data[m_position] : 0; }

    /// A little-endian integer.
    template <class T>
    T read()
    {
        static_assert(std::is_integral<T>::value, "integers only");
        unsigned char bytes[sizeof(T)];
        read(bytes, sizeof bytes);
        typename std::make_unsigned<T>::type value = 0;
        for (std::size_t i = sizeof(T); i-- > 0;)
            value = static_cast<decltype(value)>((value << 8) | bytes[i]);
        return static_cast<T>(value);
    }

    /// A pointer to `count` bytes at the position when all of them are inside the buffer,
    /// else null. Advances by `count` in both cases.
    const unsigned char* take(std::size_t count)
    {
        // After an overrun the position lies outside, so not even an empty run is there.
        const unsigned char* bytes = !overrun() && count <= remaining() ? m_data + m_position : nullptr;
        m_position += count;
        return bytes;
    }

    /// Steps over `count` bytes.
    void skip(std::uint64_t count) { m_position += count; }

    /// Moves to an absolute offset (which may lie past the end).
    void seek(std::uint64_t position) { m_position = position; }

private:
    const unsigned char* m_data;
    std::size_t m_size;
    std::uint64_t m_position;
};

} // namespace velmark_3_11
