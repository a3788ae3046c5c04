// Small readers over the bounds-checked cursor for the encodings of managed images and
// debug files: GUIDs and ECMA-335 compressed integers.
#pragma once

#include <cstdint>

#include "platform/byte_cursor.h"
#include "platform/metadata/cor.h"

namespace velmark_3_11 {

/// A GUID in its little-endian file layout.
inline GUID readGuid(ByteCursor& cursor)
{
    GUID guid;
    guid.Data1 = cursor.read<std::uint32_t>();
    guid.Data2 = cursor.read<std::uint16_t>();
    guid.Data3 = cursor.read<std::uint16_t>();
    cursor.read(guid.Data4, sizeof guid.Data4);
    return guid;
}

/// A compressed unsigned integer (1, 2 or 4 bytes, big-endian, up to 29 bits). False on
/// the reserved lead byte 111xxxxx or when the bytes run past the end.
inline bool readCompressedUnsigned(ByteCursor& cursor, std::uint32_t& value)
{
    const std::uint32_t first = cursor.read<std::uint8_t>();
    if ((first & 0x80) == 0) {
        value = first;
    } else if ((first & 0xC0) == 0x80) {
        value = ((first & 0x3F) << 8) | cursor.read<std::uint8_t>();
    } else if ((first & 0xE0) == 0xC0) {
        value = (first & 0x1F) << 24;
        value |= static_cast<std::uint32_t>(cursor.read<std::uint8_t>()) << 16;
        value |= static_cast<std::uint32_t>(cursor.read<std::uint8_t>()) << 8;
        value |= cursor.read<std::uint8_t>();
    } else {
        return false;
    }
    return !cursor.overrun();
}

/// A compressed signed integer: the unsigned form rotated, its sign bit in bit 0 and sign
/// extended from the width that the encoding's length gives (7, 14 or 29 bits).
inline bool readCompressedSigned(ByteCursor& cursor, std::int32_t& value)
{
    const std::uint64_t start = cursor.position();
    std::uint32_t raw = 0;
    if (!readCompressedUnsigned(cursor, raw))
        return false;
    const std::uint64_t length = cursor.position() - start;
    const std::uint32_t extension = length == 1 ? 0xFFFFFFC0u : length == 2 ? 0xFFFFE000u : 0xF0000000u;
    std::uint32_t result = raw >> 1;
    if (raw & 1)
        result |= extension;
    value = static_cast<std::int32_t>(result);
    return true;
}

} // namespace velmark_3_11
