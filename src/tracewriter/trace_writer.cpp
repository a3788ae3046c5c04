#include "tracewriter/trace_writer.h"

#include <fstream>
#include <limits>
#include <stdexcept>

namespace tracewriter {

namespace {

// Counts and sizes that the format can't hold are a mistake of the test that builds the
// record, not a lie it means to tell: those go through Payload by hand.
template <class Narrow>
Narrow checkedCount(std::size_t count, const char* what)
{
    if (count > std::numeric_limits<Narrow>::max())
        throw std::length_error(std::string("tracewriter: too large for its field: ") + what);
    return static_cast<Narrow>(count);
}

enum class LoadForm { first, second, third, fourth };

LoadForm loadForm(std::uint32_t type)
{
    switch (type) {
    case kFunctionLoad32:
    case kFunctionLoad64:
        return LoadForm::first;
    case kFunctionLoad32_v1:
    case kFunctionLoad64_v1:
        return LoadForm::second;
    case kFunctionLoad32_v2:
    case kFunctionLoad64_v2:
        return LoadForm::third;
    case kFunctionLoad32_v3:
    case kFunctionLoad64_v3:
    case kFunctionUpdate:
        return LoadForm::fourth;
    default:
        throw std::invalid_argument("tracewriter: not a load record type: " + std::to_string(type));
    }
}

} // namespace

Payload& Payload::u8(std::uint8_t value)
{
    m_bytes.push_back(value);
    return *this;
}

Payload& Payload::u16(std::uint16_t value)
{
    m_bytes.push_back(static_cast<std::uint8_t>(value));
    m_bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    return *this;
}

Payload& Payload::u32(std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        m_bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    return *this;
}

Payload& Payload::u64(std::uint64_t value)
{
    for (int shift = 0; shift < 64; shift += 8)
        m_bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    return *this;
}

Payload& Payload::raw(const Bytes& bytes)
{
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

Payload& Payload::string(const std::string& text)
{
    // Truncated on purpose: texts of 64 KiB and more are how a test makes the count lie.
    return string(static_cast<std::uint16_t>(text.size()), text);
}

Payload& Payload::string(std::uint16_t count, const std::string& bytes)
{
    u16(count);
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

Payload& Payload::codeRange(const CodeRange& range)
{
    u64(range.startAddr).u32(range.size);
    u32(checkedCount<std::uint32_t>(range.bytes.size(), "byteCount"));
    return raw(range.bytes);
}

Payload& Payload::lineTable(const std::vector<LineRow>& rows, bool wideCount)
{
    if (wideCount)
        u32(checkedCount<std::uint32_t>(rows.size(), "line table count"));
    else
        u16(checkedCount<std::uint16_t>(rows.size(), "line table count"));
    for (const LineRow& row : rows)
        u32(row.first).u32(row.second).u32(row.third);
    return *this;
}

Bytes encodeMethodLoad(std::uint32_t type, const MethodLoad& record)
{
    const LoadForm form = loadForm(type);
    Payload payload;
    if (form == LoadForm::third || form == LoadForm::fourth)
        payload.u32(record.rawMethodId);
    payload.u32(record.metadataToken);
    if (form == LoadForm::fourth)
        payload.u8(record.isInline);
    payload.u64(record.loadTime);
    payload.u16(checkedCount<std::uint16_t>(record.ranges.size(), "rangeCount"));
    for (const CodeRange& range : record.ranges)
        payload.codeRange(range);
    payload.string(record.modulePath).u16(record.moduleArch);
    payload.string(record.methodName).string(record.className).string(record.sourceFile);
    payload.u16(record.checksumType).string(record.checksum).u16(record.languageType);
    const bool wideCounts = form != LoadForm::first;
    payload.lineTable(record.managedToSource, wideCounts);
    payload.lineTable(record.nativeToManaged, wideCounts);
    payload.lineTable(record.nativeToSource, wideCounts);
    return payload.bytes();
}

Bytes encodeInlineLoad(const InlineLoad& record)
{
    Payload payload;
    payload.u32(record.rawMethodId).u32(record.parentRawMethodId).u64(record.loadTime);
    payload.u16(record.rangeCount);
    payload.codeRange(CodeRange{record.startAddr, record.size, record.bytes});
    payload.string(record.modulePath).u16(record.moduleArch);
    payload.string(record.methodName).string(record.className).string(record.sourceFile);
    payload.u16(record.languageType);
    payload.lineTable(record.nativeToSource, true);
    return payload.bytes();
}

Bytes encodeUpdateV2(const UpdateV2& record)
{
    Payload payload;
    payload.u32(record.segmentType).u64(record.loadTime).u16(record.moduleArch);
    payload.string(record.name);
    payload.codeRange(CodeRange{record.codeAddr, record.codeLen, record.bytes});
    return payload.bytes();
}

TraceWriter& TraceWriter::magic(std::uint32_t value)
{
    return raw(Payload().u32(kMagic).u32(value).bytes());
}

TraceWriter& TraceWriter::collectorType(std::uint32_t value)
{
    return raw(Payload().u32(kCollectorType).u32(value).bytes());
}

TraceWriter& TraceWriter::load(std::uint32_t type, const MethodLoad& record)
{
    return frame(type, encodeMethodLoad(type, record));
}

TraceWriter& TraceWriter::inlineLoad(std::uint32_t type, const InlineLoad& record)
{
    if (type != kFunctionInlineLoad32 && type != kFunctionInlineLoad64)
        throw std::invalid_argument("tracewriter: not an inline load type: " + std::to_string(type));
    return frame(type, encodeInlineLoad(record));
}

TraceWriter& TraceWriter::updateV2(const UpdateV2& record)
{
    return frame(kFunctionUpdate_v2, encodeUpdateV2(record));
}

TraceWriter& TraceWriter::frame(std::uint32_t type, const Bytes& payload)
{
    return frameWithSize(type, checkedCount<std::uint32_t>(payload.size(), "payload size"), payload);
}

TraceWriter& TraceWriter::emptyFrame(std::uint32_t type)
{
    return frameWithSize(type, 0, Bytes());
}

TraceWriter& TraceWriter::truncatedFrame(std::uint32_t type, const Bytes& payload, std::size_t keep)
{
    // Keeping everything would make an intact frame that the test takes for a broken one.
    if (keep >= payload.size())
        throw std::invalid_argument("tracewriter: a truncated frame must keep fewer bytes than its payload");
    const Bytes kept(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(keep));
    return frameWithSize(type, checkedCount<std::uint32_t>(payload.size(), "payload size"), kept);
}

TraceWriter& TraceWriter::frameWithSize(std::uint32_t type, std::uint32_t size, const Bytes& payload)
{
    return raw(Payload().u32(type).u32(size).raw(payload).bytes());
}

TraceWriter& TraceWriter::raw(const Bytes& bytes)
{
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

void TraceWriter::writeTo(const std::string& path) const
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(m_bytes.data()), static_cast<std::streamsize>(m_bytes.size()));
    out.close();
    if (!out)
        throw std::runtime_error("tracewriter: cannot write " + path);
}

} // namespace tracewriter
