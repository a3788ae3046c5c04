#include "jitdump_reader.h"

#include <cstring>

using velmark_3_11::ByteCursor;

namespace jitreader_tool {
namespace {

constexpr std::uint32_t kMagic = 0x4A695444; // "JiTD" as the writer's machine stores it
constexpr std::uint32_t kSwappedMagic = 0x4454694A;
constexpr std::uint64_t kRecordHeaderSize = 16;
// The smallest debug entry: address, line, discriminator and an empty name.
constexpr std::uint64_t kSmallestLineEntry = 17;

std::uint32_t firstWord(const void* data, std::size_t size)
{
    ByteCursor cursor(data, size);
    return cursor.read<std::uint32_t>();
}

} // namespace

JitdumpReader::JitdumpReader(const void* data, std::size_t size)
    : m_data(static_cast<const unsigned char*>(data)), m_size(size), m_cursor(data, size)
{
}

bool JitdumpReader::hasMagic(const void* data, std::size_t size)
{
    if (size < 4)
        return false;
    const std::uint32_t magic = firstWord(data, size);
    return magic == kMagic || magic == kSwappedMagic;
}

std::uint32_t JitdumpReader::u32(ByteCursor& cursor) const
{
    const std::uint32_t value = cursor.read<std::uint32_t>();
    return m_header.bigEndian ? __builtin_bswap32(value) : value;
}

std::uint64_t JitdumpReader::u64(ByteCursor& cursor) const
{
    const std::uint64_t value = cursor.read<std::uint64_t>();
    return m_header.bigEndian ? __builtin_bswap64(value) : value;
}

bool JitdumpReader::text(ByteCursor& cursor, std::string& out)
{
    const std::size_t available = cursor.remaining();
    const unsigned char* start = cursor.take(0);
    const void* nul = start != nullptr ? std::memchr(start, 0, available) : nullptr;
    if (nul == nullptr)
        return false;
    const std::size_t length = static_cast<std::size_t>(static_cast<const unsigned char*>(nul) - start);
    out.assign(reinterpret_cast<const char*>(start), length);
    cursor.skip(length + 1);
    return true;
}

bool JitdumpReader::readHeader()
{
    if (!hasMagic(m_data, m_size)) {
        m_problem = "not a jitdump file (no JiTD magic number)";
        return false;
    }
    m_header.bigEndian = firstWord(m_data, m_size) == kSwappedMagic;
    if (m_size < kHeaderSize) {
        m_problem = "the file header is not whole";
        return false;
    }
    m_cursor.skip(4);
    m_header.version = u32(m_cursor);
    const std::uint32_t headerSize = u32(m_cursor);
    m_header.elfMachine = u32(m_cursor);
    m_cursor.skip(4); // padding
    m_header.pid = u32(m_cursor);
    m_header.timestamp = u64(m_cursor);
    m_header.flags = u64(m_cursor);
    if (headerSize < kHeaderSize || headerSize > m_size) {
        m_problem = "the file header's size does not fit the file";
        return false;
    }
    // Later versions may add header fields; records begin where the header says.
    m_cursor.seek(headerSize);
    return true;
}

bool JitdumpReader::refuse(const char* problem)
{
    m_problem = problem;
    return false;
}

jitdump_status_t JitdumpReader::next(JitdumpRecord& record)
{
    if (m_ended)
        return jsEnd;
    const std::uint64_t offset = m_cursor.position();
    const std::size_t left = m_cursor.remaining();
    if (left == 0) {
        m_ended = true;
        return jsEnd;
    }
    if (left < kRecordHeaderSize) {
        m_ended = true;
        return jsTruncated;
    }
    record = JitdumpRecord();
    record.offset = offset;
    record.kind = u32(m_cursor);
    const std::uint32_t totalSize = u32(m_cursor);
    record.timestamp = u64(m_cursor);
    if (totalSize < kRecordHeaderSize) {
        m_ended = true;
        m_problem = "a record size below the record header's";
        return jsBroken;
    }
    const std::uint64_t payloadSize = totalSize - kRecordHeaderSize;
    if (payloadSize > m_cursor.remaining()) {
        m_ended = true;
        return jsTruncated;
    }
    const unsigned char* payloadBytes = m_cursor.take(static_cast<std::size_t>(payloadSize));
    ByteCursor payload(payloadBytes, static_cast<std::size_t>(payloadSize));
    switch (record.kind) {
    case jrCodeLoad:
        return readLoad(payload, record) ? jsRecord : jsBadRecord;
    case jrCodeMove:
        return readMove(payload, record) ? jsRecord : jsBadRecord;
    case jrDebugInfo:
        return readDebugInfo(payload, record) ? jsRecord : jsBadRecord;
    case jrCodeClose:
        m_ended = true;
        return jsEnd;
    default:
        // Unwinding info and kinds of later versions: stepped over by their size.
        return jsRecord;
    }
}

bool JitdumpReader::readLoad(ByteCursor& payload, JitdumpRecord& record)
{
    record.pid = u32(payload);
    record.tid = u32(payload);
    payload.skip(8); // vma: the same as the code address for every known writer
    record.codeAddress = u64(payload);
    record.codeSize = u64(payload);
    record.codeIndex = u64(payload);
    if (payload.overrun())
        return refuse("a code load record too short for its fields");
    if (!text(payload, record.name))
        return refuse("a code load record whose name has no end");
    if (record.codeSize > payload.remaining())
        return refuse("a code load record whose code runs past the record");
    record.code = payload.take(static_cast<std::size_t>(record.codeSize));
    return true;
}

bool JitdumpReader::readMove(ByteCursor& payload, JitdumpRecord& record)
{
    record.pid = u32(payload);
    record.tid = u32(payload);
    payload.skip(8); // vma
    record.oldCodeAddress = u64(payload);
    record.codeAddress = u64(payload);
    record.codeSize = u64(payload);
    record.codeIndex = u64(payload);
    if (payload.overrun())
        return refuse("a code move record too short for its fields");
    return true;
}

bool JitdumpReader::readDebugInfo(ByteCursor& payload, JitdumpRecord& record)
{
    record.codeAddress = u64(payload);
    const std::uint64_t count = u64(payload);
    if (payload.overrun())
        return refuse("a debug info record too short for its fields");
    if (count > payload.remaining() / kSmallestLineEntry)
        return refuse("a debug info record with more entries than bytes");
    record.lines.reserve(static_cast<std::size_t>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        JitdumpLineEntry entry;
        entry.address = u64(payload);
        entry.line = u32(payload);
        entry.discriminator = u32(payload);
        if (payload.overrun() || !text(payload, entry.file))
            return refuse("a debug info record whose entries run past the record");
        // A writer may shorten a file name that repeats the one before to the byte 0xFF.
        if (entry.file == "\xff" && !record.lines.empty())
            entry.file = record.lines.back().file;
        record.lines.push_back(std::move(entry));
    }
    return true;
}

} // namespace jitreader_tool
