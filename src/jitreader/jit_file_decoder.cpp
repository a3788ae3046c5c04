#include "jitreader/jit_file_decoder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include <boost/filesystem/path.hpp>

#include "basekit2/assertion.h"
#include "jitreader/byte_buffer.h"
#include "jitreader/java_names.h"
#include "jitreader/method_dump.h"
#include "jitreader/module.h"
#include "jitreader/source_file.h"
#include "platform/byte_cursor.h"
#include "platform/log.h"
#include "platform/text.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::asIs;
constexpr auto kHex = logging::numbers_t::hex;

constexpr unsigned long long kUnknownPosition = std::numeric_limits<unsigned long long>::max();
constexpr std::size_t kReadBufferSize = 64 * 1024;
constexpr unsigned int kJavaLanguage = 5;
constexpr std::size_t kLineRowSize = 12;
constexpr std::size_t kCodeRangeHeaderSize = 16;

const char* const kLessThanSize = "bytesRead < traceSize";
const char* const kWithinSize = "bytesRead <= traceSize";

// Reads the fields of one payload through the bounds-checked cursor and makes the bound
// assertions of the forms that have them (`lessText` null: no assertions).
class FieldReader {
public:
    FieldReader(const std::vector<unsigned char>& data, const char* function, const char* lessText)
        : m_cursor(data.data(), data.size()), m_function(function), m_lessText(lessText)
    {
    }

    unsigned long long bytesRead() const { return m_cursor.position(); }
    std::size_t remaining() const { return m_cursor.remaining(); }

    /// Reports `text` when `condition` fails, if this form checks its bounds.
    void check(bool condition, const char* text) const
    {
        if (m_lessText != nullptr && !condition)
            basekit2::report_assertion(basekit2::assertion_report_t{text, "", __FILE__, __LINE__, m_function});
    }
    /// After a field behind which more must follow.
    void more() const { check(m_cursor.position() < m_cursor.size(), m_lessText); }
    /// After a field that may be the payload's last.
    void within() const { check(m_cursor.position() <= m_cursor.size(), kWithinSize); }

    template <class T>
    T field()
    {
        const T value = m_cursor.read<T>();
        more();
        return value;
    }
    template <class T>
    T lastField()
    {
        const T value = m_cursor.read<T>();
        within();
        return value;
    }

    /// A string field. Texts of 512 bytes or more count as empty; a NUL ends the text early.
    std::string string()
    {
        const std::uint16_t count = m_cursor.read<std::uint16_t>();
        std::string text;
        if (count != 0 && count < sizeof m_scratch) {
            m_cursor.read(m_scratch, count);
            text.assign(m_scratch, strnlen(m_scratch, count));
        } else {
            m_cursor.skip(count);
        }
        more();
        return text;
    }

    /// Steps over `count` code bytes; with `arena`, a buffer of those that lie inside the payload.
    boost::shared_ptr<IByteBuffer> code(std::uint32_t count, CodeArena* arena)
    {
        const std::size_t available = std::min<std::size_t>(count, m_cursor.remaining());
        const unsigned char* bytes = available != 0 ? m_cursor.take(available) : nullptr;
        m_cursor.skip(count - available);
        if (arena == nullptr || count == 0)
            return boost::shared_ptr<IByteBuffer>();
        if (available == 0)
            return IByteBuffer::create();
        return arena->copy(bytes, static_cast<unsigned int>(available));
    }

    /// A line table's rows; `last` for the payload's last table.
    LineTable rows(std::uint32_t count, bool last)
    {
        const std::size_t size = static_cast<std::size_t>(count) * kLineRowSize;
        if (m_cursor.remaining() > size || (last && m_cursor.remaining() == size)) {
            // Every row lies inside the payload, so no bound check after a field can fail: the
            // rows are taken in one go rather than field by field.
            return LineTable::fromFileRows(m_cursor.take(size), count);
        }
        std::vector<LineNumberEntry> rows;
        rows.reserve(std::min<std::size_t>(count, m_cursor.remaining() / kLineRowSize + 1));
        for (std::uint32_t i = 0; i < count; ++i) {
            if (m_cursor.remaining() == 0) {
                // The count lies. The missing rows would read as zeros; they are stepped over
                // at once rather than stored one by one.
                m_cursor.skip(static_cast<unsigned long long>(count - i) * kLineRowSize);
                last ? within() : more();
                break;
            }
            LineNumberEntry row;
            row.start = field<std::uint32_t>();
            row.end = field<std::uint32_t>();
            row.value = last ? lastField<std::uint32_t>() : field<std::uint32_t>();
            rows.push_back(row);
        }
        return LineTable(rows);
    }

    /// Steps over `count` code range entries that lie wholly past the end; they would read as
    /// empty ranges.
    void skipRanges(unsigned int count)
    {
        m_cursor.skip(static_cast<unsigned long long>(count) * kCodeRangeHeaderSize);
        more();
    }

private:
    ByteCursor m_cursor;
    const char* m_function;
    const char* m_lessText;
    char m_scratch[512];
};


void logRawMethod(JitMethod& method)
{
    VM_INFO(L"Raw JIT file data:" << L"\n" << MethodDump(method));
}

bool isModuleOfNoFile(const std::wstring& path)
{
    return path.empty() || path == kDynamicCodeModule || path == kCompiledJavaCodeModule;
}

} // namespace

JitFileDecoder::JitFileDecoder(const std::wstring& path, unsigned int processId, unsigned int hostId,
                               unsigned long long firstJitRva, decoding_mode_t mode)
    : m_path(path),
      m_readBuffer(kReadBufferSize),
      m_position(0),
      m_mode(mode),
      m_hostId(hostId),
      m_pid(processId),
      m_collectorType(ctDefault),
      m_nextJitRva(firstJitRva),
      m_jitRvaEnd(kOverflowWindowBase),
      m_overflowWindow(0),
      m_searchRegionCallback(nullptr),
      m_arch0Seen(false),
      m_arch1Seen(false),
      m_streamPosition(kUnknownPosition),
      m_fileSize(kUnknownPosition)
{
    VM_TRACE_SCOPE("velmark_3_11::JitFileDecoder::JitFileDecoder(const std::wstring &, unsigned int, unsigned int, "
                   "unsigned __int64, velmark_3_11::decoding_mode_t)");
    VM_LOG(log4cplus::TRACE_LOG_LEVEL, kHex, false,
           L"jitPath: " << path << L"\npid: " << processId << L"\nhostId: " << hostId);

    // A larger buffer than the default: frames are read one after the other, and whole traces
    // run to hundreds of megabytes. It must be set before the file is opened.
    m_stream.rdbuf()->pubsetbuf(m_readBuffer.data(), static_cast<std::streamsize>(m_readBuffer.size()));
    m_stream.open(boost::filesystem::path(path).c_str(), std::ios::in | std::ios::binary);
    if (m_stream.is_open()) {
        const std::streampos end = m_stream.rdbuf()->pubseekoff(0, std::ios::end, std::ios::in);
        if (end != std::streampos(-1))
            m_fileSize = static_cast<unsigned long long>(static_cast<std::streamoff>(end));
        m_stream.seekg(0);
        m_streamPosition = 0;
    }
}

void JitFileDecoder::setOverflowWindow(unsigned long long rangeEnd, unsigned int fileIndex)
{
    m_jitRvaEnd = rangeEnd;
    m_overflowWindow = kOverflowWindowBase + fileIndex * kOverflowWindowSize;
}

unsigned long long JitFileDecoder::allocJitRva(unsigned int size) const
{
    const auto fits = [&] { return m_nextJitRva <= m_jitRvaEnd && size <= m_jitRvaEnd - m_nextJitRva; };
    if (!fits() && m_overflowWindow != 0) {
        // Update copies and code written without its bytes take more jit rvas than the file
        // has bytes; the rest of the file goes on in a space that no other file uses.
        m_nextJitRva = m_overflowWindow;
        m_jitRvaEnd = m_overflowWindow + kOverflowWindowSize;
        m_overflowWindow = 0;
    }
    if (!fits()) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true,
               L"No jit rvas are left for a code range of " << size << L" bytes in jit file " << m_path);
        return kInvalidJitRva;
    }
    const unsigned long long jitRva = m_nextJitRva;
    m_nextJitRva += size;
    return jitRva;
}

JitFileDecoder::~JitFileDecoder()
{
    if (m_stream.is_open())
        m_stream.close();
}

velmark_error_t JitFileDecoder::getNextRecord(Record& record)
{
    VM_TRACE_SCOPE("velmark_error_t velmark_3_11::JitFileDecoder::getNextRecord(velmark_3_11::Record &)");
    if (!m_stream.is_open()) {
        VM_ERROR_AT(L"Couldn't open the jit file");
        return meOpenFailed;
    }

    record.position = m_position;
    if (m_streamPosition != m_position) {
        m_stream.seekg(static_cast<std::streamoff>(m_position));
        m_streamPosition = m_position;
    }
    // Reads `count` bytes; false at the end of the file. A failed read leaves the stream where
    // it can't be trusted, so the next call seeks again.
    auto readBytes = [this](void* out, std::size_t count) {
        m_stream.read(static_cast<char*>(out), static_cast<std::streamsize>(count));
        if (m_stream.eof() || static_cast<std::size_t>(m_stream.gcount()) != count) {
            m_streamPosition = kUnknownPosition;
            return false;
        }
        m_streamPosition += count;
        return true;
    };

    unsigned char scratch[4];
    if (!readBytes(scratch, sizeof scratch))
        return meEndOfTrace;
    record.type = littleEndian32(scratch);
    m_position += 4;

    switch (record.type) {
    case jtMagic:
        VM_TRACE(L"JIT TRACE: Magic");
        record.data.resize(4);
        if (!readBytes(record.data.data(), 4)) {
            VM_ERROR_AT(L"Couldn't process the magic trace");
            return meBadTrace;
        }
        m_position += 4;
        return meSuccess;
    case jtCollectorType: {
        VM_TRACE(L"JIT TRACE: CollectorType");
        record.data.resize(4);
        if (!readBytes(record.data.data(), 4)) {
            VM_ERROR_AT(L"Couldn't process the collector type trace");
            return meBadTrace;
        }
        m_position += 4;
        const std::uint32_t value = littleEndian32(record.data.data());
        VM_LOG(log4cplus::TRACE_LOG_LEVEL, kHex, false, L"Value: " << static_cast<int>(value));
        m_collectorType = value;
        return meSuccess;
    }
    case jtFunctionLoad32:
    case jtFunctionLoad64:
    case jtFunctionLoad32_v1:
    case jtFunctionLoad64_v1:
    case jtFunctionLoad32_v2:
    case jtFunctionLoad64_v2:
    case jtFunctionLoad32_v3:
    case jtFunctionLoad64_v3:
        VM_INFO(L"JIT TRACE: MethodLoad");
        break;
    case jtFunctionUpdate:
        VM_INFO(L"JIT TRACE: MethodUpdate");
        break;
    case jtFunctionInlineLoad32:
    case jtFunctionInlineLoad64:
        VM_INFO(L"JIT TRACE: MethodInlineLoad");
        break;
    case jtFunctionUpdate_v2:
        VM_INFO(L"JIT TRACE: MethodUpdate_v2");
        break;
    default:
        // The payload isn't skipped: without a known shape the stream can't be resumed.
        VM_ERROR_AT(L"Couldn't recognize type of the jit trace");
        return meBadTrace;
    }

    if (!readBytes(scratch, sizeof scratch)) {
        VM_ERROR_AT(L"Couldn't read size of the jit trace");
        return meBadTrace;
    }
    m_position += 4;
    const std::uint32_t size = littleEndian32(scratch);
    if (size == 0) {
        VM_ERROR_AT(L"Couldn't read content of the jit trace");
        return meBadTrace;
    }

    // A size beyond the end of the file gets what the file holds and fails like any short read,
    // without first allocating what the size field claims.
    const unsigned long long left = m_fileSize > m_position ? m_fileSize - m_position : 0;
    if (size > left) {
        record.data.resize(static_cast<std::size_t>(left));
        if (left != 0)
            m_stream.read(reinterpret_cast<char*>(record.data.data()), static_cast<std::streamsize>(left));
        m_stream.peek(); // at the end: sets the end-of-file state
        m_streamPosition = kUnknownPosition;
        VM_ERROR_AT(L"Couldn't read content of the jit trace");
        return meBadTrace;
    }
    record.data.resize(size);
    if (!readBytes(record.data.data(), size)) {
        VM_ERROR_AT(L"Couldn't read content of the jit trace");
        return meBadTrace;
    }
    m_position += size;
    return meSuccess;
}

bool JitFileDecoder::decodeMethodLoadRecord(const Record& record, boost::intrusive_ptr<JitMethod>& method)
{
    if (record.type != jtFunctionLoad32 && record.type != jtFunctionLoad64)
        return false;
    return decodeLoadRecord(record, *method, nullptr, lfPlain);
}

bool JitFileDecoder::decodeMethodLoadRecordV1(const Record& record, boost::intrusive_ptr<JitMethod>& method)
{
    if (record.type != jtFunctionLoad32_v1 && record.type != jtFunctionLoad64_v1)
        return false;
    return decodeLoadRecord(record, *method, nullptr, lfWideCounts);
}

bool JitFileDecoder::decodeMethodLoadRecordV2(const Record& record, boost::intrusive_ptr<JitMethod>& method)
{
    if (record.type != jtFunctionLoad32_v2 && record.type != jtFunctionLoad64_v2)
        return false;
    return decodeLoadRecord(record, *method, nullptr, lfMethodId);
}

bool JitFileDecoder::decodeMethodLoadRecordV3(const Record& record, boost::intrusive_ptr<JitMethod>& method,
                                              unsigned char* isInline)
{
    VM_TRACE_SCOPE("bool velmark_3_11::JitFileDecoder::decodeMethodLoadRecordV3(const velmark_3_11::Record &, "
                   "boost::intrusive_ptr<velmark_3_11::JitMethod> &, unsigned char *)");
    // This check can never fail as written; it stays so, the record type is tested by the caller.
    BASEKIT2_ASSERT_TEXT(record.type == jtFunctionLoad32_v3 || record.type != jtFunctionLoad64_v3 ||
                             record.type != jtFunctionUpdate,
                         "record.type == VELMARK3_TRACE_JITTRACE(FunctionLoad32_v3) || record.type != "
                         "VELMARK3_TRACE_JITTRACE(FunctionLoad64_v3) || record.type != "
                         "VELMARK3_TRACE_JITTRACE(FunctionUpdate)");
    const std::size_t traceSize = record.data.size();
    BASEKIT2_ASSERT(traceSize);
    return decodeLoadRecord(record, *method, isInline, lfInlineFlag);
}

bool JitFileDecoder::decodeLoadRecord(const Record& record, JitMethod& method, unsigned char* isInlineOut,
                                      load_form_t form)
{
    // Only the newest form knows its bounds; the older ones trust their counts.
    FieldReader reader(record.data, "decodeMethodLoadRecordV3", form == lfInlineFlag ? kLessThanSize : nullptr);

    unsigned int rawMethodId = 0;
    if (form >= lfMethodId)
        rawMethodId = reader.field<std::uint32_t>();
    if (form == lfInlineFlag)
        method.setRawMethodId(rawMethodId);
    method.setMetadataToken(reader.field<std::uint32_t>());
    unsigned char isInline = 0;
    if (form == lfInlineFlag) {
        isInline = reader.field<std::uint8_t>();
        if (isInlineOut != nullptr)
            *isInlineOut = isInline;
    }
    // An inlined method's regions are numbered from 0; they get their place when attached.
    method.setStartJitRva(isInline == 0 ? allocJitRva(0) : 0);
    const unsigned long long loadTime = reader.field<std::uint64_t>();
    method.setLoadTime(loadTime);

    const std::uint16_t rangeCount = reader.field<std::uint16_t>();
    Region::RegionVector regions;
    unsigned int emptyRanges = 0;
    for (unsigned int index = 0; index < rangeCount; ++index) {
        if (reader.remaining() == 0) {
            // The count lies: what is left would read as empty ranges.
            emptyRanges += rangeCount - index;
            reader.skipRanges(rangeCount - index);
            break;
        }
        const unsigned long long startAddr = reader.field<std::uint64_t>();
        const std::uint32_t size = reader.field<std::uint32_t>();
        const std::uint32_t byteCount = reader.field<std::uint32_t>();
        boost::shared_ptr<IByteBuffer> content = reader.code(byteCount, codeArena());
        reader.more();
        if (size == 0) {
            ++emptyRanges;
            continue;
        }
        const unsigned long long jitRva = form == lfInlineFlag && isInline != 0 ? index : allocJitRva(size);
        if (jitRva == kInvalidJitRva)
            return false;
        boost::intrusive_ptr<Region> region(
            new Region(m_pid, m_hostId, loadTime, jitRva, startAddr, size, content));
        method.addRegion(region);
        regions.push_back(region);
    }
    // The method starts where its first region does, also when that moved the counter on.
    if (isInline == 0 && !regions.empty())
        method.setStartJitRva(regions.front()->startJitRva());
    if (rangeCount != 0) {
        if (regions.size() != rangeCount - emptyRanges) {
            if (form == lfInlineFlag)
                VM_ERROR(L"An empty code range is supplied");
            return false;
        }
        if (regions.empty()) {
            if (form == lfInlineFlag)
                VM_ERROR(L"The bytes of the code are not supplied");
            return false;
        }
    }

    std::wstring modulePath = toWide(reader.string());
    const std::uint16_t arch = reader.field<std::uint16_t>();
    if (form <= lfWideCounts) {
        method.setModule(moduleOf(modulePath, 4, arch));
        if ((m_mode & decoding_mode_modules) != 0)
            return true;
    }
    if (form == lfInlineFlag) {
        if (arch == 0)
            m_arch0Seen = true;
        else if (arch == 1)
            m_arch1Seen = true;
    }

    std::string name = reader.string();
    std::string className = reader.string();
    if (form != lfInlineFlag) {
        method.setClassName(classNameOf(className, false));
        method.setName(std::move(name), false);
    }

    const std::string sourceName = reader.string();
    const std::uint16_t checksumType = reader.field<std::uint16_t>();
    const std::string checksum = reader.string();
    const std::uint16_t languageType = reader.field<std::uint16_t>();
    method.setSourceFile(sourceFileOf(sourceName, checksum, checksumType, languageType));

    if (form == lfMethodId) {
        if (languageType == kJavaLanguage && modulePath.empty())
            modulePath = kCompiledJavaCodeModule;
        const unsigned int type = isModuleOfNoFile(modulePath) ? 0 : 4;
        method.setModule(moduleOf(modulePath, type, arch));
    } else if (form == lfInlineFlag) {
        storeNamesAndModule(method, std::move(name), std::move(className), std::move(modulePath), languageType,
                            arch);
    }

    method.setMethodId(m_methodIdMaker.makeMethodId(form <= lfWideCounts ? 0 : rawMethodId, method));
    if (m_searchRegionCallback != nullptr)
        m_searchRegionCallback->expectMethod(method.getMethodId());

    // All tables of a record belong to its first non-empty range.
    static const unsigned int kTableKinds[] = {ltManagedToSource, ltNativeToManaged, ltNativeToSource};
    for (unsigned int table = 0; table < 3; ++table) {
        const bool last = table == 2;
        std::uint32_t count;
        if (form == lfPlain)
            count = last ? reader.lastField<std::uint16_t>() : reader.field<std::uint16_t>();
        else
            count = last ? reader.lastField<std::uint32_t>() : reader.field<std::uint32_t>();
        if (count == 0)
            continue;
        LineTable rows = reader.rows(count, last);
        if (!regions.empty())
            method.addLineTable(kTableKinds[table], std::move(rows),
                                Range(regions.front()->startJitRva(), regions.front()->length()));
    }

    if (form != lfInlineFlag)
        return true;
    logRawMethod(method);
    return method.validateLineNumberInfo();
}

const boost::intrusive_ptr<Module>& JitFileDecoder::moduleOf(const std::wstring& path, unsigned int type,
                                                               unsigned int arch) const
{
    // The records of a file name few modules, mostly one after the other: the methods share
    // the module object, which never changes.
    if (!m_lastModule || path != m_lastModulePath || type != m_lastModule->getType() ||
        arch != m_lastModule->getArch()) {
        m_lastModule.reset(new Module(path, type, arch));
        m_lastModulePath = path;
    }
    return m_lastModule;
}

SharedText JitFileDecoder::classNameOf(const std::string& className, bool java) const
{
    // The methods of a class share its name: it is printed and widened once per file.
    std::string& key = m_textKey;
    key.assign(1, java ? 'J' : '-');
    key += className;
    SharedText& joined = m_classNames[key];
    if (!joined)
        joined = JitMethod::joinClassName(toWide(java ? formatJavaClassName(className) : className));
    return joined;
}

std::shared_ptr<const SourceFile> JitFileDecoder::sourceFileOf(const std::string& name, const std::string& checksum,
                                                               unsigned int checksumType,
                                                               unsigned int languageType) const
{
    std::string& key = m_textKey;
    key = name;
    key += '\0';
    key += checksum;
    key.push_back('\0');
    key.append(reinterpret_cast<const char*>(&checksumType), sizeof checksumType);
    key.append(reinterpret_cast<const char*>(&languageType), sizeof languageType);
    std::shared_ptr<const SourceFile>& file = m_sourceFiles[key];
    if (!file)
        file = std::make_shared<const SourceFile>(toWide(name), toWide(checksum), checksumType, languageType);
    return file;
}

void JitFileDecoder::storeNamesAndModule(JitMethod& method, std::string name, std::string className,
                                         std::wstring modulePath, unsigned int languageType, unsigned int arch) const
{
    // A class name in descriptor form marks Java code, whatever language the agent named. The
    // source file keeps the language that the record gave.
    if (languageType != kJavaLanguage && !className.empty() && className.front() == 'L' && className.back() == ';') {
        languageType = kJavaLanguage;
        if (modulePath.empty())
            modulePath = kDynamicCodeModule;
    }
    if (languageType == kJavaLanguage && modulePath.empty())
        modulePath = kCompiledJavaCodeModule;
    // The class first: storing the name qualifies it with the class.
    if (!className.empty())
        method.setClassName(classNameOf(className, languageType == kJavaLanguage));
    method.setName(std::move(name), languageType == kJavaLanguage);

    const unsigned int type = isModuleOfNoFile(modulePath) || m_collectorType == ctJitProfiler ? 0 : 4;
    method.setModule(moduleOf(modulePath, type, arch));
}

bool JitFileDecoder::decodeMethodInlineLoadRecord(const Record& record, boost::intrusive_ptr<JitMethod>& method) const
{
    VM_TRACE_SCOPE("bool velmark_3_11::JitFileDecoder::decodeMethodInlineLoadRecord(const velmark_3_11::Record &, "
                   "boost::intrusive_ptr<velmark_3_11::JitMethod> &) const");
    BASEKIT2_ASSERT_TEXT(record.type == jtFunctionInlineLoad32 || record.type == jtFunctionInlineLoad64,
                         "record.type == VELMARK3_TRACE_JITTRACE(FunctionInlineLoad32) || record.type == "
                         "VELMARK3_TRACE_JITTRACE(FunctionInlineLoad64)");
    const std::size_t traceSize = record.data.size();
    BASEKIT2_ASSERT(traceSize);
    FieldReader reader(record.data, "decodeMethodInlineLoadRecord", kLessThanSize);

    const std::uint32_t rawMethodId = reader.field<std::uint32_t>();
    method->setRawMethodId(rawMethodId);
    method->setStartJitRva(0);
    const std::uint32_t parentRawMethodId = reader.field<std::uint32_t>();
    method->setRawParentId(parentRawMethodId);

    const unsigned long long loadTime = reader.field<std::uint64_t>();
    if (loadTime == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid load time: " << loadTime);
        return false;
    }
    method->setLoadTime(loadTime);
    const std::uint16_t rangeCount = reader.field<std::uint16_t>();
    if (rangeCount != 1) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid number of code regions: " << rangeCount);
        return false;
    }
    const unsigned long long startAddr = reader.field<std::uint64_t>();
    if (startAddr == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid start address of code range: " << startAddr);
        return false;
    }
    const std::uint32_t size = reader.field<std::uint32_t>();
    if (size == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid size of code range: " << size);
        return false;
    }
    const std::uint32_t byteCount = reader.field<std::uint32_t>();
    if (byteCount == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid number of code range's bytes: " << byteCount);
        return false;
    }
    boost::shared_ptr<IByteBuffer> content = reader.code(byteCount, codeArena());
    reader.more();
    method->addRegion(boost::intrusive_ptr<Region>(new Region(m_pid, m_hostId, loadTime, 0, startAddr, size, content)));

    std::wstring modulePath = toWide(reader.string());
    const std::uint16_t arch = reader.field<std::uint16_t>();
    std::string name = reader.string();
    std::string className = reader.string();
    const std::string sourceName = reader.string();
    const std::uint16_t languageType = reader.field<std::uint16_t>();
    method->setSourceFile(sourceFileOf(sourceName, std::string(), 0, languageType));
    storeNamesAndModule(*method, std::move(name), std::move(className), std::move(modulePath), languageType, arch);

    const std::uint32_t rowCount = reader.lastField<std::uint32_t>();
    if (rowCount != 0)
        method->addLineTable(ltNativeToSource, reader.rows(rowCount, true), Range(0, size));

    method->setMethodId(m_methodIdMaker.makeMethodId(rawMethodId, *method));
    method->setParentId(m_methodIdMaker.makeMethodId(parentRawMethodId, *method));
    logRawMethod(*method);
    return method->validateLineNumberInfo();
}

bool JitFileDecoder::decodeMethodUpdateRecordV2(const Record& record, boost::intrusive_ptr<JitMethod>& method) const
{
    VM_TRACE_SCOPE("bool velmark_3_11::JitFileDecoder::decodeMethodUpdateRecordV2(const velmark_3_11::Record &, "
                   "boost::intrusive_ptr<velmark_3_11::JitMethod> &) const");
    BASEKIT2_ASSERT_TEXT(record.type == jtFunctionUpdate_v2, "record.type == VELMARK3_TRACE_JITTRACE(FunctionUpdate_v2)");
    method->setStartJitRva(allocJitRva(0));
    const std::size_t traceLen = record.data.size();
    BASEKIT2_ASSERT(traceLen);
    FieldReader reader(record.data, "decodeMethodUpdateRecordV2", "bytesRead < traceLen");

    const std::uint32_t segmentType = reader.field<std::uint32_t>();
    const unsigned long long loadTime = reader.field<std::uint64_t>();
    if (loadTime == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid load time: " << loadTime);
        return false;
    }
    method->setLoadTime(loadTime);
    const std::uint16_t arch = reader.field<std::uint16_t>();
    method->setModule(moduleOf(std::wstring(), 0, arch));
    const std::wstring name = toWide(reader.string());

    const unsigned long long codeAddr = reader.field<std::uint64_t>();
    if (codeAddr == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid start address of code range: " << codeAddr);
        return false;
    }
    const std::uint32_t codeLen = reader.field<std::uint32_t>();
    if (codeLen == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid length of code range: " << codeLen);
        return false;
    }
    const std::uint32_t byteCount = reader.field<std::uint32_t>();
    if (byteCount == 0) {
        VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Invalid number of code range's bytes: " << byteCount);
        return false;
    }
    VM_LOG(log4cplus::INFO_LOG_LEVEL, kHex, false,
           L"Update range: " << codeAddr << L"-" << codeAddr + codeLen << L", loadTime = " << loadTime);

    boost::intrusive_ptr<Region> updRegion;
    boost::intrusive_ptr<JitMethod> updMethod;
    if (m_searchRegionCallback != nullptr) {
        if (m_searchRegionCallback->searchRegion(codeAddr, loadTime, m_pid, m_hostId, updRegion, updMethod) !=
            meSuccess) {
            VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true, L"Couldn't find a range to be updated");
            return false;
        }
        BASEKIT2_ASSERT_TEXT(updMethod && updMethod->getRawMethodId(), "updMethod->getRawMethodId()");
        if (updMethod)
            method->setRawMethodId(updMethod->getRawMethodId());
        BASEKIT2_ASSERT_TEXT(updRegion && updRegion->length(), "updRegion->length()");
        if (updRegion && codeLen > updRegion->length()) {
            VM_LOG(log4cplus::ERROR_LOG_LEVEL, kHex, true,
                   L"Couldn't update the detected range (" << updRegion->startAddress() << L"-"
                                                           << updRegion->endAddress()
                                                           << L") because it's size is small");
            return false;
        }
    }

    const boost::shared_ptr<IByteBuffer> content = reader.code(byteCount, codeArena());
    reader.check(reader.bytesRead() == traceLen, "bytesRead == traceLen");

    boost::intrusive_ptr<Region> region;
    if (!updRegion) {
        region.reset(new Region(m_pid, m_hostId, loadTime, 0, codeAddr, codeLen, content));
    } else {
        // The new version gets a jit rva range of its own, as long as the whole old region.
        const unsigned long long jitRva = allocJitRva(updRegion->length());
        if (jitRva == kInvalidJitRva)
            return false;
        method->setStartJitRva(jitRva);
        if (content) {
            // The old region stays as it is: a refused update changes nothing in the store.
            region.reset(new Region(*updRegion));
            region->setStartJitRva(jitRva);
            region->setLoadTime(loadTime);
            if (region->addBytesUpdate(codeAddr, codeLen, content, static_cast<velmark_segment_type_t>(segmentType),
                                       name) == meFail)
                return false;
        } else {
            region.reset(new Region(m_pid, m_hostId, loadTime, jitRva, updRegion->startAddress(), updRegion->length(),
                                    boost::shared_ptr<IByteBuffer>()));
        }
    }
    method->addRegion(region);

    method->setMethodId(m_methodIdMaker.makeMethodId(method->getRawMethodId(), *method));
    logRawMethod(*method);
    return true;
}

} // namespace velmark_3_11
