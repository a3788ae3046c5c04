// Writes .jit trace files from plain structs: every frame and payload form, and deliberately
// broken frames for tests. The inverse of the library's record decoders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tracewriter {

typedef std::vector<std::uint8_t> Bytes;

/// Frame types.
enum FrameType : std::uint32_t {
    kFunctionLoad32 = 0,
    kFunctionLoad64 = 2,
    kFunctionLoad32_v1 = 4,
    kFunctionLoad64_v1 = 5,
    kFunctionLoad32_v2 = 6,
    kFunctionLoad64_v2 = 7,
    kFunctionLoad32_v3 = 8,
    kFunctionLoad64_v3 = 9,
    kFunctionUpdate = 10,
    kFunctionInlineLoad32 = 11,
    kFunctionInlineLoad64 = 12,
    kCollectorType = 13,
    kFunctionUpdate_v2 = 14,
    kMagic = 0x00400000,
};

/// One code range entry of a load record.
struct CodeRange {
    std::uint64_t startAddr = 0;
    std::uint32_t size = 0;
    Bytes bytes; ///< written with byteCount = bytes.size()
};

/// One line table row: (start, end, value).
struct LineRow {
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    std::uint32_t third = 0;
};

/// A method load record of load forms 1 to 4 (types 0, 2 and 4 to 10). Fields that a form
/// doesn't have are not written.
struct MethodLoad {
    std::uint32_t rawMethodId = 0;   ///< forms 3 and 4
    std::uint32_t metadataToken = 0;
    std::uint8_t isInline = 0;       ///< form 4
    std::uint64_t loadTime = 0;
    std::vector<CodeRange> ranges;   ///< rangeCount = ranges.size()
    std::string modulePath;          ///< UTF-8; a string field writes its size as given
    std::uint16_t moduleArch = 0;
    std::string methodName;
    std::string className;
    std::string sourceFile;
    std::uint16_t checksumType = 0;
    std::string checksum;
    std::uint16_t languageType = 0;
    std::vector<LineRow> managedToSource;
    std::vector<LineRow> nativeToManaged;
    std::vector<LineRow> nativeToSource;
};

/// An inline load record (types 11 and 12).
struct InlineLoad {
    std::uint32_t rawMethodId = 0;
    std::uint32_t parentRawMethodId = 0;
    std::uint64_t loadTime = 0;
    std::uint16_t rangeCount = 1;    ///< written as given; one range entry follows in any case
    std::uint64_t startAddr = 0;
    std::uint32_t size = 0;
    Bytes bytes;                     ///< byteCount = bytes.size()
    std::string modulePath;
    std::uint16_t moduleArch = 0;
    std::string methodName;
    std::string className;
    std::string sourceFile;
    std::uint16_t languageType = 0;
    std::vector<LineRow> nativeToSource;
};

/// An update record of version 2 (type 14).
struct UpdateV2 {
    std::uint32_t segmentType = 1;
    std::uint64_t loadTime = 0;
    std::uint16_t moduleArch = 0;
    std::string name;
    std::uint64_t codeAddr = 0;
    std::uint32_t codeLen = 0;
    Bytes bytes;                     ///< byteCount = bytes.size()
};

/// Little-endian field encoder for payloads, also for hand-made broken ones.
class Payload {
public:
    Payload& u8(std::uint8_t value);
    Payload& u16(std::uint16_t value);
    Payload& u32(std::uint32_t value);
    Payload& u64(std::uint64_t value);
    Payload& raw(const Bytes& bytes);
    /// A string field: 16-bit count (the text's size, truncated to 16 bits), then the bytes.
    Payload& string(const std::string& text);
    /// A string field with an explicit count and content, for counts that lie.
    Payload& string(std::uint16_t count, const std::string& bytes);
    /// startAddr, size, byteCount and the bytes.
    Payload& codeRange(const CodeRange& range);
    /// A count (16 or 32 bits wide) and the rows.
    Payload& lineTable(const std::vector<LineRow>& rows, bool wideCount);

    const Bytes& bytes() const { return m_bytes; }
    std::size_t size() const { return m_bytes.size(); }

private:
    Bytes m_bytes;
};

/// The payload of a load record of `type` (0, 2, 4 to 10); any other type throws
/// std::invalid_argument. Counts too large for their field throw std::length_error.
Bytes encodeMethodLoad(std::uint32_t type, const MethodLoad& record);
/// The payload of an inline load record.
Bytes encodeInlineLoad(const InlineLoad& record);
/// The payload of an update record of version 2.
Bytes encodeUpdateV2(const UpdateV2& record);

/// Builds a trace file frame by frame.
class TraceWriter {
public:
    /// A Magic frame.
    TraceWriter& magic(std::uint32_t value = 0);
    /// A CollectorType frame.
    TraceWriter& collectorType(std::uint32_t value);
    /// A load record (types 0, 2, 4 to 10).
    TraceWriter& load(std::uint32_t type, const MethodLoad& record);
    /// An inline load record (types 11, 12); any other type throws std::invalid_argument.
    TraceWriter& inlineLoad(std::uint32_t type, const InlineLoad& record);
    /// An update record of version 2 (type 14).
    TraceWriter& updateV2(const UpdateV2& record);
    /// A sized frame of any type with the given payload.
    TraceWriter& frame(std::uint32_t type, const Bytes& payload);

    // Broken frames, for tests.
    /// A sized frame whose size field is 0.
    TraceWriter& emptyFrame(std::uint32_t type);
    /// A sized frame that announces `payload.size()` bytes but holds only the first `keep`;
    /// `keep` must be below `payload.size()` (else std::invalid_argument).
    TraceWriter& truncatedFrame(std::uint32_t type, const Bytes& payload, std::size_t keep);
    /// A frame with an explicit size field, whatever the payload's length.
    TraceWriter& frameWithSize(std::uint32_t type, std::uint32_t size, const Bytes& payload);
    /// Any bytes, as they are.
    TraceWriter& raw(const Bytes& bytes);

    const Bytes& bytes() const { return m_bytes; }
    std::size_t size() const { return m_bytes.size(); }
    /// Makes room for `bytes` in all, so that a large trace grows without copies.
    void reserve(std::size_t bytes) { m_bytes.reserve(bytes); }
    /// Writes the file; throws std::runtime_error when it can't.
    void writeTo(const std::string& path) const;

private:
    Bytes m_bytes;
};

} // namespace tracewriter
