// Reads the records of a jitdump file (the perf JIT dump that V8, .NET, wasmtime and others
// write) from bytes in memory, in either byte order. The reader stops cleanly at a record that
// is not whole yet, since the runtime may still be writing the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/byte_cursor.h"

namespace jitreader_tool {

/// What the file header says.
struct JitdumpHeader {
    bool bigEndian = false;
    std::uint32_t version = 0;
    std::uint32_t elfMachine = 0;
    std::uint32_t pid = 0;
    std::uint64_t timestamp = 0;
    std::uint64_t flags = 0;
};

/// One row of a debug info record: a code address and the source position there.
struct JitdumpLineEntry {
    std::uint64_t address = 0;
    std::uint32_t line = 0;
    std::uint32_t discriminator = 0;
    std::string file;
};

enum jitdump_record_kind_t : std::uint32_t {
    jrCodeLoad = 0,
    jrCodeMove = 1,
    jrDebugInfo = 2,
    jrCodeClose = 3,
    jrUnwindingInfo = 4,
};

/// One record; which fields are set depends on `kind`.
struct JitdumpRecord {
    std::uint32_t kind = 0;
    std::uint64_t offset = 0;            ///< of the record in the file
    std::uint64_t timestamp = 0;
    std::uint32_t pid = 0;
    std::uint32_t tid = 0;
    std::uint64_t codeAddress = 0;       ///< load: the code; move: the new place; debug info: the code described
    std::uint64_t oldCodeAddress = 0;    ///< move
    std::uint64_t codeSize = 0;
    std::uint64_t codeIndex = 0;
    std::string name;                    ///< load
    const unsigned char* code = nullptr; ///< load: codeSize bytes inside the reader's buffer
    std::vector<JitdumpLineEntry> lines; ///< debug info
};

enum jitdump_status_t {
    jsRecord,    ///< a whole record was read
    jsEnd,       ///< the file ended cleanly, or at a close record
    jsTruncated, ///< the last record is not whole; everything before it was read
    jsBadRecord, ///< a record whose payload does not fit its size; the next call goes on behind it
    jsBroken,    ///< a record size that makes the rest unreadable; nothing after it is read
};

class JitdumpReader {
public:
    /// The size of the file header that every writer puts first.
    static constexpr std::size_t kHeaderSize = 40;

    /// Reads from `size` bytes at `data`, which must outlive the reader and its records.
    JitdumpReader(const void* data, std::size_t size);

    /// True when the bytes begin with the magic number, in either byte order.
    static bool hasMagic(const void* data, std::size_t size);

    /// Reads the file header. False when the bytes are no jitdump or the header is not whole;
    /// `problem()` then says which.
    bool readHeader();
    const JitdumpHeader& header() const { return m_header; }

    /// The next record into `record`. After jsBadRecord and jsBroken `problem()` says what is wrong.
    jitdump_status_t next(JitdumpRecord& record);

    const std::string& problem() const { return m_problem; }
    /// Offset of the next record.
    std::uint64_t position() const { return m_cursor.position(); }

private:
    std::uint32_t u32(velmark_3_11::ByteCursor& cursor) const;
    std::uint64_t u64(velmark_3_11::ByteCursor& cursor) const;
    /// A NUL-terminated text; false when the NUL is missing.
    static bool text(velmark_3_11::ByteCursor& cursor, std::string& out);
    bool readLoad(velmark_3_11::ByteCursor& payload, JitdumpRecord& record);
    bool readMove(velmark_3_11::ByteCursor& payload, JitdumpRecord& record);
    bool readDebugInfo(velmark_3_11::ByteCursor& payload, JitdumpRecord& record);
    /// Keeps `problem` for problem() and returns false.
    bool refuse(const char* problem);

    const unsigned char* m_data;
    std::size_t m_size;
    velmark_3_11::ByteCursor m_cursor;
    JitdumpHeader m_header;
    std::string m_problem;
    bool m_ended = false;
};

} // namespace jitreader_tool
