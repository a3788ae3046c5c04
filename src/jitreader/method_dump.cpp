#include "jitreader/method_dump.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include <boost/io/ios_state.hpp>

#include "jitreader/code_dump.h"
#include "jitreader/jit_method.h"

namespace velmark_3_11 {

namespace {

/// Architecture value that selects no decoder, for a method without a module.
constexpr unsigned int kNoArch = 0xFFFFFFFFu;

struct TableTitle {
    unsigned int kind;
    const wchar_t* title;
};

// The order in which a region's tables are listed.
const TableTitle kTableTitles[] = {
    {ltManagedToSource, L"Managed to source map: (ILOffset, lineNo)"},
    {ltNativeToManaged, L"Native to managed map: (nativeStartOffset-nativeEndOffset, ILOffset)"},
    {ltNativeToSource, L"Native to source map: (nativeStartOffset-nativeEndOffset, LineNo)"},
};

/// The rows of one table; none when the query fails.
std::vector<LineNumberEntry> readTable(JitMethod& method, unsigned int kind, unsigned long long jitRva)
{
    unsigned int count = 0;
    if (method.getLineNumberInfo(kind, nullptr, &count, jitRva) != meSuccess || count == 0)
        return {};
    std::vector<LineNumberEntry> rows(count);
    if (method.getLineNumberInfo(kind, rows.data(), &count, jitRva) != meSuccess)
        return {};
    rows.resize(count);
    return rows;
}

void dumpRegion(std::wostream& stream, JitMethod& method, const Region& region, std::size_t number,
                unsigned int arch)
{
    const unsigned long long jitRva = region.startJitRva();
    const unsigned long long start = region.startAddress();
    const unsigned long long size = region.length();

    stream << std::dec << L"  Code region:   " << number << L'\n' << std::hex;
    stream << L"  JitRVA range:  0x" << jitRva << L"-0x" << jitRva + size << L'\n';
    stream << L"  startAddr:     0x" << start << L'\n';
    stream << L"  size:          0x" << size << L'\n';
    stream << L"  IP range:      0x" << start << L"-0x" << start + size << L'\n';
    stream << L"  Disassembly:" << L'\n';

    if (const boost::shared_ptr<IByteBuffer>& content = region.content()) {
        // The region's size governs, but never past the bytes the buffer holds.
        const unsigned int size32 = std::min(region.length(), content->getSize());
        dumpCodeBytes(stream, content->getData(), size32, start, arch);
    }

    stream << std::dec;
    bool firstTable = true;
    for (const TableTitle& table : kTableTitles) {
        if (!firstTable)
            stream << L'\n';
        firstTable = false;
        const std::vector<LineNumberEntry> rows = readTable(method, table.kind, jitRva);
        stream << table.title << L'\n' << L"number of lines: " << rows.size();
        for (const LineNumberEntry& row : rows)
            stream << L"\n    " << row.start << L'-' << row.end << L"  " << row.value;
    }
    // No line break after the last row: the next region's first line follows on the same line.
}

} // namespace

std::wostream& dumpMethod(std::wostream& stream, JitMethod& method)
{
    boost::io::ios_flags_saver savedFlags(stream);
    // Exactly one "0x" before each hexadecimal value, whatever flags the stream came with.
    stream.flags(std::ios_base::hex);

    const Module* module = method.module().get();
    const SourceFile& source = method.sourceFile();
    const unsigned int arch = module ? module->getArch() : kNoArch;

    stream << L"Method id:       0x" << method.getRawMethodId() << L'\n';
    stream << L"Parent id:       0x" << method.getRawParentId() << L'\n';
    stream << L"Metadata token:  0x" << method.getMetadataToken() << L'\n';
    stream << L"Load time:       0x" << method.getLoadTime() << L'\n';
    stream << L"Name:            " << method.getName() << L'\n';
    stream << L"Full name:       " << method.getFullName() << L'\n';
    stream << L"Class:           " << method.getClassName() << L'\n';
    stream << L"Module:          " << (module ? module->getName() : L"") << L'\n';
    stream << L"Module arch:     " << archName(arch) << L'\n';
    stream << L"Source file:     " << source.getName() << L'\n';
    stream << L"Checksum type:   " << source.getChecksumType() << L'\n';
    stream << L"Checksum:        " << source.getChecksum() << L'\n';
    stream << L"Language type:   " << source.getLanguageType() << L'\n';
    stream << L"Code info:" << L'\n';
    stream << L"number of code regions: " << std::dec << method.regionCount() << L'\n';

    std::size_t number = 0;
    for (const boost::intrusive_ptr<Region>& region : method.regions())
        dumpRegion(stream, method, *region, ++number, arch);
    return stream;
}

std::wstring dumpCodeRegions(const JitMethod& method)
{
    std::wostringstream stream;
    std::size_t number = 0;
    for (const boost::intrusive_ptr<Region>& region : method.regions()) {
        ++number; // skipped regions keep their number
        if (region->unloadTime() != 0)
            continue;
        stream << L'\n' << std::dec << L"Code region #" << number << L" (ip range = 0x" << std::hex
               << region->startAddress() << L"-0x" << region->endAddress() << L")";
        region->dumpInlines(stream, 4);
    }
    return stream.str();
}

const wchar_t* archName(unsigned int arch)
{
    switch (arch) {
    case 0: return L"farad32";
    case 1: return L"farad64";
    case 2: return L"faradit";
    case 3: return L"kolbe";
    default: return L"UNKNOWN";
    }
}

} // namespace velmark_3_11
