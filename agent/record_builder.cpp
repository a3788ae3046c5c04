#include "record_builder.h"

#include <algorithm>
#include <utility>

namespace jitagent {

namespace {

using tracewriter::LineRow;

// A reader takes texts of up to 511 bytes; longer ones it would drop whole.
const std::size_t kLongestText = 511;
const std::uint16_t kJavaLanguage = 5;
const std::uint16_t kModuleArch = sizeof(void*) == 8 ? 1 : 0;

/// Appends a row, or widens the last one when it ends where this one starts with the same value.
void appendRow(std::vector<LineRow>& rows, std::uint32_t start, std::uint32_t end, std::uint32_t value)
{
    if (!rows.empty() && rows.back().second == start && rows.back().third == value) {
        rows.back().second = end;
        return;
    }
    rows.push_back({start, end, value});
}

/// One stretch of code that a single point of the virtual machine's tables describes.
struct Interval {
    std::uint64_t low;
    std::uint64_t high;
    std::size_t point; // index of the point in its table
};

/// The points of the tables are pcs: return addresses of calls or the polls of safepoints. The
/// instructions that lead up to a pc belong to it, so each pc closes the stretch that began at
/// the pc before it. `addressOf(i)` gives the address of point i.
template <class AddressOf>
std::vector<Interval> intervalsOf(const CompiledCode& code, std::size_t points, AddressOf addressOf)
{
    std::vector<std::size_t> sorted;
    const std::uint64_t end = code.address + code.size;
    for (std::size_t i = 0; i < points; ++i)
        if (addressOf(i) > code.address && addressOf(i) <= end)
            sorted.push_back(i);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [&](std::size_t a, std::size_t b) { return addressOf(a) < addressOf(b); });
    std::vector<Interval> intervals;
    std::uint64_t low = code.address;
    for (std::size_t point : sorted) {
        if (addressOf(point) > low)
            intervals.push_back({low, addressOf(point), point});
        low = addressOf(point);
    }
    return intervals;
}

tracewriter::Bytes bytesOf(const CompiledCode& code, std::uint64_t low, std::uint64_t high)
{
    if (!code.bytes)
        return {};
    const std::uint8_t* first = code.bytes + (low - code.address);
    return tracewriter::Bytes(first, first + (high - low));
}

} // namespace

RecordBuilder::RecordBuilder(MethodLookup lookup, IdSource ids) : m_lookup(std::move(lookup)), m_ids(std::move(ids))
{
}

std::uint32_t RecordBuilder::lineOf(const JavaMethod& method, std::uint32_t bci)
{
    std::uint32_t bestStart = 0;
    std::uint32_t line = 0;
    bool found = false;
    for (const auto& entry : method.lines)
        if (entry.first <= bci && (!found || entry.first >= bestStart)) {
            bestStart = entry.first;
            line = entry.second;
            found = true;
        }
    return line;
}

std::string RecordBuilder::fieldText(const std::string& text)
{
    if (text.size() <= kLongestText)
        return text;
    std::size_t cut = kLongestText;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return text.substr(0, cut);
}

MethodRecords RecordBuilder::compiledMethod(const CompiledCode& code, std::uint64_t loadTime) const
{
    MethodRecords out;
    tracewriter::MethodLoad& load = out.load;
    load.rawMethodId = m_ids();
    load.loadTime = loadTime;
    load.ranges.push_back({code.address, code.size, bytesOf(code, code.address, code.address + code.size)});
    load.moduleArch = kModuleArch;
    load.languageType = kJavaLanguage;

    const JavaMethod* outer = m_lookup(code.method);
    if (outer) {
        load.methodName = fieldText(outer->name);
        load.className = fieldText(outer->classSignature);
        load.sourceFile = fieldText(outer->sourceFile);
        std::vector<std::pair<std::uint32_t, std::uint32_t>> lines = outer->lines;
        std::stable_sort(lines.begin(), lines.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::uint32_t end = i + 1 < lines.size() ? lines[i + 1].first
                                                           : std::max(outer->bytecodeLength, lines[i].first + 1);
            if (end > lines[i].first)
                load.managedToSource.push_back({lines[i].first, end, lines[i].second});
        }
    }

    // Inline instances that are still open, outermost first. An instance is one inlined call:
    // the same chain of call sites down to the same method, over adjacent stretches of code.
    struct Open {
        std::size_t record;  // index in out.inlines
        std::uint64_t method;
        std::uint32_t callSite; // bytecode index of the call in the caller
    };
    std::vector<Open> open;
    auto close = [&](std::size_t keep) {
        while (open.size() > keep) {
            tracewriter::InlineLoad& record = out.inlines[open.back().record];
            record.bytes = bytesOf(code, record.startAddr, record.startAddr + record.size);
            open.pop_back();
        }
    };

    auto outerRow = [&](const Interval& interval, std::uint32_t bci) {
        const std::uint32_t low = static_cast<std::uint32_t>(interval.low - code.address);
        const std::uint32_t high = static_cast<std::uint32_t>(interval.high - code.address);
        appendRow(load.nativeToManaged, low, high, bci);
        const std::uint32_t line = outer ? lineOf(*outer, bci) : 0;
        if (line != 0)
            appendRow(load.nativeToSource, low, high, line);
    };
    for (const Interval& interval : intervalsOf(code, code.addressMap.size(),
                                                [&](std::size_t i) { return code.addressMap[i].address; }))
        outerRow(interval, code.addressMap[interval.point].bci);

    for (const Interval& interval :
         intervalsOf(code, code.pcs.size(), [&](std::size_t i) { return code.pcs[i].pc; })) {
        const std::vector<StackFrame>& frames = code.pcs[interval.point].frames;
        if (code.addressMap.empty() && !frames.empty())
            outerRow(interval, frames[0].bci);

        const std::size_t depth = frames.empty() ? 0 : frames.size() - 1;
        std::size_t common = 0;
        while (common < open.size() && common < depth && open[common].callSite == frames[common].bci &&
               open[common].method == frames[common + 1].method)
            ++common;
        close(common);
        for (std::size_t level = common; level < depth; ++level) {
            tracewriter::InlineLoad record;
            record.rawMethodId = m_ids();
            record.parentRawMethodId = level == 0 ? load.rawMethodId : out.inlines[open.back().record].rawMethodId;
            record.loadTime = loadTime;
            record.startAddr = interval.low;
            record.moduleArch = kModuleArch;
            record.languageType = kJavaLanguage;
            if (const JavaMethod* method = m_lookup(frames[level + 1].method)) {
                record.methodName = fieldText(method->name);
                record.className = fieldText(method->classSignature);
                record.sourceFile = fieldText(method->sourceFile);
            }
            out.inlines.push_back(std::move(record));
            open.push_back({out.inlines.size() - 1, frames[level + 1].method, frames[level].bci});
        }
        for (std::size_t level = 0; level < open.size(); ++level) {
            tracewriter::InlineLoad& record = out.inlines[open[level].record];
            record.size = static_cast<std::uint32_t>(interval.high - record.startAddr);
            const JavaMethod* method = m_lookup(open[level].method);
            const std::uint32_t line = method ? lineOf(*method, frames[level + 1].bci) : 0;
            if (line != 0)
                appendRow(record.nativeToSource, static_cast<std::uint32_t>(interval.low - record.startAddr),
                          static_cast<std::uint32_t>(interval.high - record.startAddr), line);
        }
    }
    close(0);
    return out;
}

tracewriter::MethodLoad RecordBuilder::stub(const std::string& name, std::uint64_t address, std::uint32_t size,
                                            const std::uint8_t* bytes, std::uint64_t loadTime) const
{
    tracewriter::MethodLoad load;
    load.rawMethodId = m_ids();
    load.loadTime = loadTime;
    load.ranges.push_back({address, size, bytes ? tracewriter::Bytes(bytes, bytes + size) : tracewriter::Bytes()});
    load.moduleArch = kModuleArch;
    load.methodName = fieldText(name);
    return load;
}

} // namespace jitagent
