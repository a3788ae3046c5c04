#include "jitreader/jit_method.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "basekit2/assertion.h"
#include "jitreader/java_names.h"
#include "platform/log.h"
#include "platform/md5.h"
#include "platform/symbol_name_demangler.h"
#include "platform/text.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

/// The pieces of `text` between dots, empty ones dropped, joined with "::"; appended to `result`.
void appendDottedParts(std::wstring& result, const std::wstring& text)
{
    bool first = true;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(L'.', start);
        if (end == std::wstring::npos)
            end = text.size();
        if (end != start) {
            if (!first)
                result += L"::";
            result.append(text, start, end - start);
            first = false;
        }
        start = end + 1;
    }
}

/// The table of `kind`, or null for a kind that has none.
LineTable* tableOf(LineNumberInfo& info, unsigned int kind)
{
    return kind <= ltNativeToSource ? &info.tables[kind] : nullptr;
}

bool startsOrContains(const LineNumberEntry& row, unsigned int offset)
{
    return row.start == offset || (row.start <= offset && offset < row.end);
}

} // namespace

JitMethod::JitMethod() : m_info(new BaseMethodInfo) {}

JitMethod::~JitMethod() = default;

std::mutex& JitMethod::lockFor(const JitMethod* method, std::size_t purpose)
{
    constexpr std::size_t kLocks = 64;
    static std::mutex locks[2][kLocks];
    // Methods are at least 64 bytes apart: the bits below say nothing.
    return locks[purpose][(reinterpret_cast<std::uintptr_t>(method) >> 6) % kLocks];
}

boost::intrusive_ptr<ISourceFile> JitMethod::getSourceFile() const
{
    if (sourceFile().name().empty())
        return nullptr;
    return copySourceFile(sourceFile());
}

const SourceFile& JitMethod::sourceFile() const
{
    static const SourceFile none;
    return m_info->sourceFile ? *m_info->sourceFile : none;
}

basekit2::generic_iterator_t<boost::intrusive_ptr<ICodeRegion>> JitMethod::getCodeRegions() const
{
    return basekit2::make_vector_iterator<boost::intrusive_ptr<ICodeRegion>>(m_regions);
}

velmark_error_t JitMethod::getVirtualAddress(unsigned long long jitRva, unsigned long long* address) const
{
    for (const auto& region : m_regions) {
        if (region->startJitRva() <= jitRva && jitRva - region->startJitRva() < region->length()) {
            *address = jitRva + region->startAddress() - region->startJitRva();
            return meSuccess;
        }
    }
    return meFail;
}

velmark_error_t JitMethod::getProcessId(unsigned long long jitRva, unsigned int* processId) const
{
    for (const auto& region : m_regions) {
        if (region->startJitRva() <= jitRva && jitRva - region->startJitRva() < region->length()) {
            *processId = region->processId();
            return meSuccess;
        }
    }
    return meFail;
}

void JitMethod::setSourceFile(const ISourceFile& file)
{
    m_info->sourceFile = std::make_shared<const SourceFile>(file.getName(), file.getChecksum(),
                                                            file.getChecksumType(), file.getLanguageType());
}

void JitMethod::setSourceFile(SourceFile&& file)
{
    m_info->sourceFile = std::make_shared<const SourceFile>(std::move(file));
}

SharedText JitMethod::joinClassName(const std::wstring& name)
{
    if (name.empty())
        return nullptr;
    std::wstring joined;
    joined.reserve(name.size() + 8);
    appendDottedParts(joined, name);
    return std::make_shared<const std::wstring>(std::move(joined));
}

void JitMethod::setClassName(SharedText joined)
{
    if (joined)
        m_info->className = std::move(joined);
}

void JitMethod::setName(const std::wstring& name)
{
    if (!name.empty())
        m_info->setGivenName(name);
}

void JitMethod::setName(std::string&& name, bool java)
{
    if (!name.empty())
        m_info->setGivenName(std::move(name), java);
}

BaseMethodInfo::~BaseMethodInfo()
{
    delete m_names.load(std::memory_order_relaxed);
}

void BaseMethodInfo::replaceNames(std::unique_ptr<Names> names)
{
    if (Names* old = m_names.exchange(names.release(), std::memory_order_acq_rel)) {
        std::unique_ptr<Names> retired(old);
        retired->older = std::move(m_replacedNames);
        m_replacedNames = std::move(retired);
    }
}

void BaseMethodInfo::GivenText::assign(const std::string& text, bool java)
{
    clear();
    if (text.empty())
        return;
    const auto length = static_cast<std::uint32_t>(std::min<std::size_t>(text.size(), UINT32_MAX - 4));
    m_block = static_cast<unsigned char*>(poolAllocate(length + 4u));
    std::memcpy(m_block, &length, 4);
    std::memcpy(m_block + 4, text.data(), length);
    m_java = java;
}

void BaseMethodInfo::GivenText::clear()
{
    if (!m_block)
        return;
    std::uint32_t length;
    std::memcpy(&length, m_block, 4);
    poolDeallocate(m_block, length + 4u);
    m_block = nullptr;
}

std::string BaseMethodInfo::GivenText::text() const
{
    if (!m_block)
        return std::string();
    std::uint32_t length;
    std::memcpy(&length, m_block, 4);
    return std::string(reinterpret_cast<const char*>(m_block + 4), length);
}

void BaseMethodInfo::setGivenName(const std::wstring& name)
{
    m_givenClass = className;
    // The text given before stays: a reader that found no names yet may be printing it, and
    // from now on the names are there.
    replaceNames(makeNames(name));
}

void BaseMethodInfo::setGivenName(std::string&& name, bool java)
{
    m_givenText.assign(name, java);
    m_givenClass = className;
    replaceNames(nullptr);
}

const BaseMethodInfo::Names& BaseMethodInfo::names() const
{
    static const Names none;
    if (const Names* made = m_names.load(std::memory_order_acquire))
        return *made;
    if (m_givenText.empty())
        return none;

    const std::string given = m_givenText.text();
    std::unique_ptr<Names> made = makeNames(toWide(m_givenText.java() ? formatJavaMethodName(given) : given));
    // Threads that ask at once each make the names; the first to publish wins.
    Names* expected = nullptr;
    if (m_names.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel))
        return *made.release();
    return *expected;
}

std::unique_ptr<BaseMethodInfo::Names> BaseMethodInfo::makeNames(const std::wstring& given) const
{
    std::unique_ptr<Names> made(new Names);
    boost::shared_ptr<NAMEKIT_3_30::ISymbolNameDemangler> demangler =
        NAMEKIT_3_30::ISymbolNameDemangler::create(given, NAMEKIT_3_30::efDotNet);
    std::wstring shortName = demangler ? demangler->getShortName() : std::wstring();
    if (!shortName.empty() && shortName != given) {
        made->name = std::move(shortName);
        made->fullName = demangler->getFullName(0);
    } else {
        std::wstring& text = made->fullName;
        text.reserve((m_givenClass ? m_givenClass->size() : 0) + given.size() + 8);
        if (m_givenClass && !m_givenClass->empty()) {
            text = *m_givenClass;
            text += L"::";
        }
        appendDottedParts(text, given);
        made->name.assign(text, 0, text.find(L'('));
    }
    return made;
}

// ---------------------------------------------------------------------------------------------
// Line number information

bool JitMethod::addLineNumberInfo(unsigned int kind, const std::vector<LineNumberEntry>& rows, const Range& key)
{
    return addLineTable(kind, LineTable(rows), key);
}

bool JitMethod::addLineTable(unsigned int kind, LineTable&& rows, const Range& key)
{
    if (rows.empty())
        return false;
    // Overlapping ranges are one key, so a key may find an entry of another length.
    auto found = m_lineNumberInfo.find(key);
    if (found != m_lineNumberInfo.end()) {
        LineTable* table = tableOf(found->second, kind);
        if (table && !table->empty()) {
            VM_ERROR_AT(L"Couldn't overwrite existing line number info for this code region of already "
                        L"registered method "
                        << MethodTag(*this));
            return false;
        }
        if (table)
            *table = std::move(rows);
        return true;
    }

    LineNumberInfo info;
    if (LineTable* table = tableOf(info, kind))
        *table = std::move(rows);
    if (!m_lineNumberInfo.emplace(key, std::move(info)).second) {
        VM_ERROR_AT(L"Couldn't add line number info for this code region of already registered method "
                    << MethodTag(*this));
        return false;
    }
    return true;
}

bool JitMethod::addLineNumberInfo(const LineNumberMap& other)
{
    for (const auto& entry : other) {
        for (unsigned int kind = ltNativeToManaged; kind <= ltNativeToSource; ++kind) {
            const LineTable& rows = entry.second.tables[kind];
            if (rows.empty())
                continue;
            if (!addLineTable(kind, LineTable(rows), entry.first))
                return false;
        }
    }
    return true;
}

bool JitMethod::validateLineNumberInfo() const
{
    if (m_regions.empty())
        return false;

    const Region& region = *m_regions.front();
    auto found = m_lineNumberInfo.find(Range(region.startJitRva(), 1));
    if (found == m_lineNumberInfo.end())
        return true;

    // A bad row is reported, not dropped: the tables are kept as the agent wrote them.
    const LineTable& rows = found->second.tables[ltNativeToSource];
    LineNumberEntry row;
    if (rows.maxEnd() > region.length() &&
        rows.findIf(
            [&region](const LineNumberEntry& r) { return r.end > region.length(); }, row)) {
        VM_ERROR_AT(L"Detected line number (start offset = "
                    << row.start << L", end offset = " << row.end << L", src line = " << row.value
                    << L") that does not match to code range (ip range = " << region.startAddress() << L"-"
                    << region.startAddress() + region.length() << L")");
    }
    return true;
}

void JitMethod::normalizeLineNumberInfoJitRvaRanges(unsigned long long base)
{
    // Finalisation runs after every file: the base is given once, and a later call moves the
    // rows only by the difference (none, unless the region itself moved). Writing nothing when
    // nothing moves also keeps readers of methods loaded earlier undisturbed.
    const unsigned long long delta = base - m_lineNumberBase;
    if (delta == 0)
        return;
    m_lineNumberBase = base;
    if (m_lineNumberInfo.empty())
        return;

    LineNumberMap moved;
    for (const auto& entry : m_lineNumberInfo) {
        bool ret = moved.insert(std::make_pair(Range(entry.first.start + delta, entry.first.size), entry.second)).second;
        BASEKIT2_ASSERT(ret);
    }
    m_lineNumberInfo.swap(moved);
}

void JitMethod::compareSymbolicInfoTo(const boost::intrusive_ptr<JitMethod>& jitMethod) const
{
    BASEKIT2_ASSERT(jitMethod);
    if (!jitMethod)
        return;

    const std::wstring& ownName = sourceFile().name();
    const std::wstring& otherName = jitMethod->sourceFile().name();
    if (ownName.empty()) {
        VM_TRACE(L"Registred method has a null source file " << MethodTag(*jitMethod)
                                                             << L". Mapping to source file is not available.");
        return;
    }
    if (otherName.empty()) {
        VM_TRACE(L"Supplied a null source file for "
                 << MethodTag(*jitMethod)
                 << L". Line number table will be associated with the source file of the first code region (src "
                    L"name = "
                 << ownName << L")");
        return;
    }
    if (ownName != otherName) {
        VM_TRACE(L"Supplied source file for " << MethodTag(*jitMethod)
                                              << L" is differ from source file of the first code region (src name = "
                                              << ownName << L"). Map to source file will be incorrect.");
    }
}

LineNumberInfo* JitMethod::selectLineNumberEntry(unsigned long long jitRva)
{
    if (m_lineNumberInfo.empty())
        return nullptr;
    LineNumberInfo& first = m_lineNumberInfo.begin()->second;
    if (jitRva != 0) {
        auto found = m_lineNumberInfo.find(Range(jitRva, 1));
        if (found == m_lineNumberInfo.end())
            return nullptr;
        // Callers rely on this lasting: a later query with jit rva 0 sees the tables of the
        // range asked for last.
        if (&found->second != &first)
            first = found->second;
    }
    return &first;
}

velmark_error_t JitMethod::getLineNumberInfo(unsigned int kind, LineNumberEntry* rows, unsigned int* count,
                                             unsigned long long jitRva)
{
    if (rows == nullptr && count == nullptr)
        return meInvalidArgument;
    std::lock_guard<std::mutex> lock(lockFor(this, kLineQueryLocks));
    if (m_lineNumberInfo.empty())
        return meFail;

    LineNumberInfo* info = selectLineNumberEntry(jitRva);
    if (info == nullptr)
        return meFail;
    const LineTable* table = tableOf(*info, kind);
    if (table == nullptr)
        return meFail;

    const unsigned int size = table->size();
    if (rows == nullptr) {
        *count = size;
        return meSuccess;
    }
    // A caller that passes rows without a count gets nothing written: it said nothing about
    // how many rows fit.
    if (count == nullptr || size > *count)
        return meBufferTooSmall;
    table->copyTo(rows);
    *count = size;
    return meSuccess;
}

velmark_error_t JitMethod::getLineNumberRange(LineNumberEntry* first, LineNumberEntry* last,
                                              unsigned long long jitRva)
{
    if (first == nullptr || last == nullptr)
        return meFail;
    std::lock_guard<std::mutex> lock(lockFor(this, kLineQueryLocks));
    if (m_lineNumberInfo.empty())
        return meFail;

    LineNumberInfo* info = selectLineNumberEntry(jitRva);
    if (info == nullptr)
        return meFail;
    const LineTable* table = &info->tables[ltManagedToSource];
    if (table->empty())
        table = &info->tables[ltNativeToSource];
    if (table->empty())
        return meFail;

    bool seen = false;
    unsigned int minimum = 0;
    unsigned int maximum = 0;
    LineNumberEntry row;
    table->findIf(
        [&](const LineNumberEntry& r) {
            if (!seen) {
                minimum = maximum = r.value;
                seen = true;
            } else if (r.value < minimum) {
                minimum = r.value;
            } else if (r.value > maximum) {
                maximum = r.value;
            }
            return false;
        },
        row);
    *first = LineNumberEntry{0, 0, minimum};
    *last = LineNumberEntry{0, 0, maximum};
    return meSuccess;
}

boost::intrusive_ptr<ISourceLocation> JitMethod::getSourceLocation(unsigned long long jitRva) const
{
    std::lock_guard<std::mutex> lock(lockFor(this, kLineQueryLocks));
    if (m_lineNumberInfo.empty())
        return nullptr;

    auto found = m_lineNumberInfo.find(Range(jitRva, 1));
    if (found == m_lineNumberInfo.end())
        return nullptr;
    const LineNumberInfo& info = found->second;
    const LineTable& nativeToManaged = info.tables[ltNativeToManaged];
    const LineTable& managedToSource = info.tables[ltManagedToSource];
    const LineTable& nativeToSource = info.tables[ltNativeToSource];
    if (nativeToManaged.empty() && managedToSource.empty() && nativeToSource.empty())
        return nullptr;

    const Range& key = found->first;
    if (jitRva < key.start || jitRva - key.start >= key.size)
        return nullptr;
    const unsigned int offset = static_cast<unsigned int>(jitRva - key.start);

    // Rows are taken in stored order and the first match wins, also where rows overlap.
    LineNumberEntry row;
    if (nativeToManaged.empty() || managedToSource.empty()) {
        if (!nativeToSource.findIf([offset](const LineNumberEntry& r) { return startsOrContains(r, offset); }, row))
            return nullptr;
    } else {
        if (!nativeToManaged.findIf([offset](const LineNumberEntry& r) { return r.start <= offset && offset < r.end; },
                                    row))
            return nullptr;
        const unsigned int ilOffset = row.value;
        if (!managedToSource.findIf([ilOffset](const LineNumberEntry& r) { return startsOrContains(r, ilOffset); },
                                    row))
            return nullptr;
    }
    return boost::intrusive_ptr<ISourceLocation>(new SourceLocation(row.value, sourceFile()));
}

// ---------------------------------------------------------------------------------------------
// Method ids

namespace {

/// Appends `value` in decimal, as a wide stream would print it.
void appendDecimal(std::wstring& text, unsigned long long value)
{
    wchar_t digits[20];
    std::size_t count = 0;
    do {
        digits[count++] = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count != 0)
        text.push_back(digits[--count]);
}

} // namespace

MethodId MethodIdMaker::makeMethodId(unsigned int rawId, const JitMethod& method) const
{
    const boost::intrusive_ptr<Module>& module = method.module();
    BASEKIT2_ASSERT(module);

    // The digest's input is the wide text "rawId.hostId.processId" or token, names and module,
    // each followed by the architecture; it is built here without a stream, once per record.
    std::wstring& text = m_text;
    text.clear();
    if (rawId != 0) {
        unsigned int hostId = 0;
        unsigned int processId = 0;
        if (method.regionCount() != 0) {
            hostId = method.regions().front()->hostId();
            processId = method.regions().front()->processId();
        }
        appendDecimal(text, rawId);
        text.push_back(L'.');
        appendDecimal(text, hostId);
        text.push_back(L'.');
        appendDecimal(text, processId);
    } else {
        appendDecimal(text, method.getMetadataToken());
        text += method.getFullName();
        text += method.getClassName();
        if (module)
            text += module->getName();
    }
    appendDecimal(text, module ? module->getArch() : 0u);

    m_md5.reset();
    m_md5.update(text.data(), text.size() * sizeof(wchar_t));
    return MethodId(m_md5.get_digest());
}

std::wostream& operator<<(std::wostream& stream, const MethodTag& tag)
{
    return stream << L"(method id = " << tag.method.getRawMethodId() << L", name = " << tag.method.getName()
                  << L", load time = " << tag.method.getLoadTime() << L")";
}

} // namespace velmark_3_11
