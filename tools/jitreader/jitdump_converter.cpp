#include "jitdump_converter.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "platform/log.h"

namespace jitreader_tool {
namespace {

using velmark_3_11::toWide;

constexpr auto kLogNumbers = velmark_3_11::logging::numbers_t::hex;

constexpr std::uint32_t kElfMachine386 = 3;
constexpr std::uint32_t kCollectorJitProfiler = 1;

/// What a load left behind for a later move of the same code.
struct LoadedCode {
    std::string name;
    std::string sourceFile;
    const unsigned char* code = nullptr;
    std::uint64_t size = 0;
    std::vector<tracewriter::LineRow> rows;
};

class FileConversion {
public:
    FileConversion(const void* data, std::size_t size, const std::string& name)
        : m_reader(data, size), m_size(size), m_name(name), m_bias(JitdumpConverter::lineAddressBias(data, size))
    {
    }

    JitdumpConversion run(JitdumpConverter::Traces& traces)
    {
        if (!m_reader.readHeader()) {
            VM_ERROR(L"Could not convert jitdump file " << toWide(m_name) << L": " << toWide(m_reader.problem()));
            return m_result;
        }
        m_result.read = true;
        m_result.pid = m_reader.header().pid;
        const bool is386 = m_reader.header().elfMachine == kElfMachine386;
        m_loadType = is386 ? tracewriter::kFunctionLoad32_v3 : tracewriter::kFunctionLoad64_v3;
        m_arch = is386 ? 0 : 1;
        auto existing = traces.find(m_result.pid);
        if (existing == traces.end()) {
            existing = traces.emplace(m_result.pid, tracewriter::TraceWriter()).first;
            existing->second.magic().collectorType(kCollectorJitProfiler);
        }
        m_trace = &existing->second;
        // A trace holds about the bytes of its dump: the code, names and line rows.
        m_trace->reserve(m_trace->size() + m_size + m_size / 8);

        JitdumpRecord record;
        for (;;) {
            const std::uint64_t offset = m_reader.position();
            const jitdump_status_t status = m_reader.next(record);
            if (status == jsEnd)
                break;
            if (status == jsTruncated) {
                VM_WARN(L"Jitdump file " << toWide(m_name) << L" ends inside a record at offset " << offset
                                         << L"; the records before it are converted");
                m_result.complete = false;
                break;
            }
            if (status == jsBroken) {
                VM_ERROR(L"Jitdump file " << toWide(m_name) << L" has " << toWide(m_reader.problem())
                                          << L" at offset " << offset << L"; the rest of the file is left out");
                m_result.complete = false;
                ++m_result.leftOut;
                break;
            }
            if (status == jsBadRecord) {
                leftOut(toWide(m_reader.problem()), offset);
                continue;
            }
            if (record.kind == jrCodeLoad)
                load(record);
            else if (record.kind == jrCodeMove)
                move(record);
            else if (record.kind == jrDebugInfo)
                m_pendingLines[record.codeAddress] = std::move(record.lines);
        }
        return m_result;
    }

private:
    void leftOut(const std::wstring& what, std::uint64_t offset)
    {
        VM_WARN(L"Jitdump file " << toWide(m_name) << L": left out " << what << L" at offset " << offset);
        ++m_result.leftOut;
    }

    void load(const JitdumpRecord& record)
    {
        if (record.codeSize == 0 || record.codeSize > UINT32_MAX) {
            leftOut(L"a code load of a size a trace cannot hold", record.offset);
            return;
        }
        LoadedCode loaded;
        loaded.name = JitdumpConverter::shortened(record.name);
        loaded.code = record.code;
        loaded.size = record.codeSize;
        // A debug info record describes the code load that follows it at the same address.
        const auto lines = m_pendingLines.find(record.codeAddress);
        if (lines != m_pendingLines.end()) {
            if (!lines->second.empty() &&
                !JitdumpConverter::lineRows(lines->second, record.codeAddress, record.codeSize, m_bias,
                                            loaded.sourceFile, loaded.rows)) {
                VM_WARN(L"Jitdump file " << toWide(m_name) << L": the line entries of the code at "
                                         << record.codeAddress << L" do not fit it; its lines are left out");
                ++m_result.leftOut;
                loaded.rows.clear();
            }
            loaded.sourceFile = JitdumpConverter::shortened(loaded.sourceFile);
            m_pendingLines.erase(lines);
        }
        write(record.codeIndex, record.codeAddress, record.timestamp, loaded);
        ++m_result.loads;
        m_loaded[record.codeIndex] = std::move(loaded);
    }

    void move(const JitdumpRecord& record)
    {
        const auto loaded = m_loaded.find(record.codeIndex);
        if (loaded == m_loaded.end()) {
            leftOut(L"a code move of a code index never loaded", record.offset);
            return;
        }
        if (loaded->second.size != record.codeSize) {
            leftOut(L"a code move whose size differs from its code load's", record.offset);
            return;
        }
        write(record.codeIndex, record.codeAddress, record.timestamp, loaded->second);
        ++m_result.moves;
    }

    void write(std::uint64_t codeIndex, std::uint64_t address, std::uint64_t time, const LoadedCode& code)
    {
        tracewriter::MethodLoad method;
        // Raw id 0 means "no id" to the store, and code indexes count from 0; every known
        // writer stays far below 2^32.
        method.rawMethodId = static_cast<std::uint32_t>(codeIndex + 1);
        method.loadTime = time;
        method.ranges.push_back(
            {address, static_cast<std::uint32_t>(code.size), tracewriter::Bytes(code.code, code.code + code.size)});
        method.moduleArch = m_arch;
        method.methodName = code.name;
        method.sourceFile = code.sourceFile;
        method.nativeToSource = code.rows;
        if (!code.rows.empty())
            ++m_result.withLines;
        m_trace->load(m_loadType, method);
    }

    JitdumpReader m_reader;
    std::size_t m_size;
    std::string m_name;
    std::uint64_t m_bias;
    std::uint32_t m_loadType = tracewriter::kFunctionLoad64_v3;
    std::uint16_t m_arch = 1;
    tracewriter::TraceWriter* m_trace = nullptr;
    JitdumpConversion m_result;
    std::unordered_map<std::uint64_t, std::vector<JitdumpLineEntry>> m_pendingLines;
    std::unordered_map<std::uint64_t, LoadedCode> m_loaded;
};

} // namespace

JitdumpConversion JitdumpConverter::convert(const void* data, std::size_t size, const std::string& name,
                                            Traces& traces)
{
    return FileConversion(data, size, name).run(traces);
}

bool JitdumpConverter::lineRows(const std::vector<JitdumpLineEntry>& lines, std::uint64_t address,
                                std::uint64_t size, std::uint64_t bias, std::string& sourceFile,
                                std::vector<tracewriter::LineRow>& rows)
{
    std::vector<JitdumpLineEntry> sorted(lines);
    for (const JitdumpLineEntry& entry : sorted) {
        if (entry.address < address + bias || entry.address - address - bias > size ||
            !isCleanText(entry.file))
            return false;
    }
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const JitdumpLineEntry& a, const JitdumpLineEntry& b) { return a.address < b.address; });
    sourceFile = lines.front().file;
    for (std::size_t i = 0; i < sorted.size(); ++i) {
        // Of several entries at one address the last one written describes the code there.
        if (i + 1 < sorted.size() && sorted[i + 1].address == sorted[i].address)
            continue;
        if (sorted[i].file != sourceFile)
            continue; // code inlined from another file: one source file per record
        const std::uint64_t start = sorted[i].address - address - bias;
        const std::uint64_t end = i + 1 < sorted.size() ? sorted[i + 1].address - address - bias : size;
        if (end > start)
            rows.push_back({static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(end), sorted[i].line});
    }
    return true;
}

std::uint64_t JitdumpConverter::lineAddressBias(const void* data, std::size_t size)
{
    JitdumpReader reader(data, size);
    if (!reader.readHeader())
        return 0;
    bool anyEntry = false;
    JitdumpRecord record;
    for (jitdump_status_t status; (status = reader.next(record)) == jsRecord || status == jsBadRecord;) {
        if (status != jsRecord || record.kind != jrDebugInfo)
            continue;
        const bool clean = std::all_of(record.lines.begin(), record.lines.end(),
                                       [](const JitdumpLineEntry& entry) { return isCleanText(entry.file); });
        if (!clean)
            continue; // a writer's garbage says nothing about its layout
        for (const JitdumpLineEntry& entry : record.lines) {
            if (entry.address < record.codeAddress + kElfTextOffset)
                return 0;
            anyEntry = true;
        }
    }
    return anyEntry ? kElfTextOffset : 0;
}

std::string JitdumpConverter::shortened(const std::string& text, std::size_t limit)
{
    if (text.size() <= limit)
        return text;
    std::size_t end = limit;
    // Step back over continuation bytes so that no character is cut in two.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

bool JitdumpConverter::isCleanText(const std::string& text)
{
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 1;
        if (lead < 0x20 || lead == 0x7F)
            return false;
        if (lead >= 0x80) {
            if (lead >= 0xC2 && lead <= 0xDF)
                length = 2;
            else if (lead >= 0xE0 && lead <= 0xEF)
                length = 3;
            else if (lead >= 0xF0 && lead <= 0xF4)
                length = 4;
            else
                return false;
            if (i + length > text.size())
                return false;
            for (std::size_t k = 1; k < length; ++k)
                if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
                    return false;
        }
        i += length;
    }
    return true;
}

} // namespace jitreader_tool
