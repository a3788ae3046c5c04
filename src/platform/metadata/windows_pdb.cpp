#include "platform/metadata/windows_pdb.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/byte_cursor.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/metadata_bytes.h"
#include "platform/metadata/msf_file.h"

namespace velmark_3_11 {
namespace {

constexpr std::uint32_t kInfoStream = 1, kDbiStream = 3;
constexpr std::size_t kDbiHeaderSize = 64, kModuleFixedSize = 64;
constexpr std::uint16_t kNoStream = 0xFFFF;
constexpr std::uint32_t kNamesSignature = 0xEFFEEFFE;
constexpr std::uint32_t kC13Signature = 4;
constexpr std::uint16_t kGlobalManagedProc = 0x112A, kLocalManagedProc = 0x112B;
constexpr std::uint32_t kLinesSubsection = 0xF2, kChecksumsSubsection = 0xF4;
constexpr std::uint16_t kLinesHaveColumns = 1;

// Hash algorithms of the checksum kinds a file checksum entry may name.
constexpr GUID kMd5 = {0x406EA660, 0x64CF, 0x4C82, {0xB6, 0xF0, 0x42, 0xD4, 0x81, 0x72, 0xA7, 0x99}};
constexpr GUID kSha1 = {0xFF1816EC, 0xAA5E, 0x4D10, {0x87, 0xF7, 0x6F, 0x49, 0x63, 0x83, 0x34, 0x60}};
constexpr GUID kSha256 = {0x8829D00F, 0x11B8, 0x4213, {0x87, 0x8B, 0x77, 0x0E, 0x85, 0x97, 0xAC, 0x16}};

/// The NUL-terminated text at `offset` of `bytes`; false when it starts or runs outside.
bool textAt(const std::vector<std::uint8_t>& bytes, std::size_t begin, std::size_t end, std::uint64_t offset,
            std::string& text)
{
    if (offset >= end - begin)
        return false;
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin + offset);
    const auto last = std::find(first, bytes.begin() + static_cast<std::ptrdiff_t>(end), 0);
    if (last == bytes.begin() + static_cast<std::ptrdiff_t>(end))
        return false;
    text.assign(first, last);
    return true;
}

std::string lowered(std::string text)
{
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

/// Steps to the next multiple of four.
void align4(ByteCursor& cursor)
{
    cursor.seek((cursor.position() + 3) & ~std::uint64_t(3));
}

struct ManagedProc {
    std::uint32_t token;
    std::uint32_t codeSize;
    std::uint32_t offset;
    std::uint16_t segment;
};

} // namespace

// Holds what the streams share while they are read: the container, the named streams and
// the string table, and the documents found so far by name.
class WindowsPdb::Builder {
public:
    Builder(WindowsPdb& pdb, const MsfFile& msf) : m_pdb(pdb), m_msf(msf) {}

    bool readInfo()
    {
        std::vector<std::uint8_t> info;
        if (!m_msf.stream(kInfoStream, info))
            return false;
        ByteCursor cursor(info.data(), info.size());
        cursor.skip(8); // version, time stamp
        cursor.skip(4); // the age that counts is the DBI stream's
        m_pdb.m_signature = readGuid(cursor);
        // The named stream map: names, then a hash table of (name offset, stream) pairs
        // whose used buckets a bit vector marks.
        const std::uint32_t namesSize = cursor.read<std::uint32_t>();
        const std::uint64_t namesBegin = cursor.position();
        if (cursor.take(namesSize) == nullptr)
            return false;
        cursor.skip(8); // entry count, capacity
        const std::uint32_t presentWords = cursor.read<std::uint32_t>();
        if (presentWords > cursor.remaining() / 4)
            return false;
        std::vector<std::uint32_t> present(presentWords);
        for (std::uint32_t& word : present)
            word = cursor.read<std::uint32_t>();
        const std::uint32_t deletedWords = cursor.read<std::uint32_t>();
        cursor.skip(static_cast<std::uint64_t>(deletedWords) * 4);
        for (std::uint64_t bit = 0; bit < std::uint64_t(presentWords) * 32; ++bit) {
            if ((present[bit / 32] >> (bit % 32) & 1) == 0)
                continue;
            const std::uint32_t name = cursor.read<std::uint32_t>();
            const std::uint32_t stream = cursor.read<std::uint32_t>();
            std::string text;
            if (cursor.overrun() ||
                !textAt(info, static_cast<std::size_t>(namesBegin), static_cast<std::size_t>(namesBegin) + namesSize,
                        name, text))
                return false;
            m_namedStreams[lowered(text)] = stream;
        }
        return true;
    }

    bool readNames()
    {
        const auto named = m_namedStreams.find("/names");
        if (named == m_namedStreams.end())
            return true; // no strings: fine until a line needs a file name
        if (!m_msf.stream(named->second, m_names))
            return false;
        ByteCursor cursor(m_names.data(), m_names.size());
        const std::uint32_t signature = cursor.read<std::uint32_t>();
        cursor.skip(4); // hash version
        const std::uint32_t size = cursor.read<std::uint32_t>();
        m_namesBegin = static_cast<std::size_t>(cursor.position());
        if (signature != kNamesSignature || cursor.take(size) == nullptr)
            return false;
        m_namesEnd = m_namesBegin + size;
        return true;
    }

    bool readModules()
    {
        std::vector<std::uint8_t> dbi;
        if (!m_msf.stream(kDbiStream, dbi))
            return false;
        ByteCursor header(dbi.data(), dbi.size());
        header.skip(8); // signature, version
        m_pdb.m_age = header.read<std::uint32_t>();
        header.seek(24);
        const std::uint32_t modulesSize = header.read<std::uint32_t>();
        if (dbi.size() < kDbiHeaderSize || modulesSize > dbi.size() - kDbiHeaderSize)
            return false;
        ByteCursor cursor(dbi.data(), kDbiHeaderSize + modulesSize);
        cursor.seek(kDbiHeaderSize);
        while (cursor.remaining() != 0) {
            const unsigned char* fixed = cursor.take(kModuleFixedSize);
            if (fixed == nullptr)
                return false;
            ByteCursor module(fixed, kModuleFixedSize);
            module.seek(34);
            const std::uint16_t stream = module.read<std::uint16_t>();
            const std::uint32_t symbolsSize = module.read<std::uint32_t>();
            const std::uint32_t c11Size = module.read<std::uint32_t>();
            const std::uint32_t c13Size = module.read<std::uint32_t>();
            for (int name = 0; name < 2; ++name) { // module and object file
                while (cursor.remaining() != 0 && cursor.read<std::uint8_t>() != 0) {
                }
            }
            align4(cursor);
            if (cursor.position() > cursor.size())
                return false;
            if (stream != kNoStream && !readModule(stream, symbolsSize, c11Size, c13Size))
                return false;
        }
        return true;
    }

private:
    bool readModule(std::uint16_t index, std::uint32_t symbolsSize, std::uint32_t c11Size, std::uint32_t c13Size)
    {
        std::vector<std::uint8_t> stream;
        if (!m_msf.stream(index, stream))
            return false;
        const std::uint64_t c13Begin = std::uint64_t(symbolsSize) + c11Size;
        if (symbolsSize < 4 || c13Begin + c13Size > stream.size())
            return false;
        ByteCursor symbols(stream.data(), symbolsSize);
        if (symbols.read<std::uint32_t>() != kC13Signature)
            return false;
        std::vector<ManagedProc> procs;
        while (symbols.remaining() != 0) {
            const std::uint16_t length = symbols.read<std::uint16_t>();
            const unsigned char* record = symbols.take(length);
            if (record == nullptr || length < 2)
                return false;
            ByteCursor body(record, length);
            const std::uint16_t kind = body.read<std::uint16_t>();
            if (kind != kGlobalManagedProc && kind != kLocalManagedProc)
                continue;
            body.skip(12); // parent, end and next symbol
            ManagedProc proc{};
            proc.codeSize = body.read<std::uint32_t>();
            body.skip(8); // debug start and end
            proc.token = body.read<std::uint32_t>();
            proc.offset = body.read<std::uint32_t>();
            proc.segment = body.read<std::uint16_t>();
            if (body.overrun())
                return false;
            procs.push_back(proc);
        }
        if (c13Size == 0)
            return true;
        ByteCursor whole(stream.data(), stream.size());
        whole.seek(c13Begin);
        const std::uint8_t* c13 = whole.take(c13Size);
        // Lines name their files by offset into the checksum subsection, which may come
        // after them; subsections marked as ignored carry a high bit and match no kind.
        std::vector<std::pair<std::uint32_t, ByteCursor>> parts;
        ByteCursor subsections(c13, c13Size);
        while (subsections.remaining() != 0) {
            const std::uint32_t kind = subsections.read<std::uint32_t>();
            const std::uint32_t size = subsections.read<std::uint32_t>();
            const unsigned char* data = subsections.take(size);
            if (data == nullptr || subsections.overrun())
                return false;
            align4(subsections); // the last one may end unaligned
            parts.emplace_back(kind, ByteCursor(data, size));
        }
        ByteCursor checksums(nullptr, 0);
        for (const auto& part : parts)
            if (part.first == kChecksumsSubsection) {
                checksums = part.second;
                break;
            }
        for (const auto& part : parts)
            if (part.first == kLinesSubsection && !readLines(part.second, procs, checksums))
                return false;
        return true;
    }

    bool readLines(ByteCursor cursor, const std::vector<ManagedProc>& procs, const ByteCursor& checksums)
    {
        const std::uint32_t offset = cursor.read<std::uint32_t>();
        const std::uint16_t segment = cursor.read<std::uint16_t>();
        const std::uint16_t flags = cursor.read<std::uint16_t>();
        cursor.skip(4); // code size
        const auto proc = std::find_if(procs.begin(), procs.end(), [&](const ManagedProc& p) {
            return p.offset == offset && p.segment == segment;
        });
        if (cursor.overrun())
            return false;
        // Lines of native code or of a token that is no method def are not ours to answer.
        if (proc == procs.end() || TypeFromToken(proc->token) != mdtMethodDef)
            return true;
        std::vector<PdbSequencePoint>& points = m_pdb.m_methods[RidFromToken(proc->token)];
        const bool columns = flags & kLinesHaveColumns;
        while (cursor.remaining() != 0) {
            const std::uint32_t fileId = cursor.read<std::uint32_t>();
            const std::uint32_t count = cursor.read<std::uint32_t>();
            const std::uint32_t blockSize = cursor.read<std::uint32_t>();
            const std::uint64_t needed = 12 + std::uint64_t(count) * (columns ? 12 : 8);
            const unsigned char* block = cursor.take(blockSize < 12 ? 0 : blockSize - 12);
            if (block == nullptr || blockSize < needed)
                return false;
            std::uint32_t document = 0;
            if (!documentOf(fileId, checksums, document))
                return false;
            ByteCursor lines(block, blockSize - 12);
            ByteCursor columnsCursor(block, blockSize - 12);
            columnsCursor.seek(std::uint64_t(count) * 8); // columns follow all lines
            for (std::uint32_t i = 0; i < count; ++i) {
                PdbSequencePoint point{lines.read<std::uint32_t>(), kHiddenLine, 0, kHiddenLine, 0, document};
                const std::uint32_t bits = lines.read<std::uint32_t>();
                if (point.offset > proc->codeSize)
                    return false;
                const std::uint32_t line = bits & 0xFFFFFF;
                if (line != kHiddenLine) {
                    point.line = line;
                    point.endLine = line + (bits >> 24 & 0x7F);
                    if (columns) {
                        point.column = columnsCursor.read<std::uint16_t>();
                        point.endColumn = columnsCursor.read<std::uint16_t>();
                    }
                } else if (columns) {
                    columnsCursor.skip(4);
                }
                points.push_back(point);
            }
        }
        return true;
    }

    /// The document of the file checksum entry at `fileId`, made on first use.
    bool documentOf(std::uint32_t fileId, ByteCursor checksums, std::uint32_t& id)
    {
        checksums.seek(fileId);
        const std::uint32_t nameOffset = checksums.read<std::uint32_t>();
        const std::uint8_t hashSize = checksums.read<std::uint8_t>();
        const std::uint8_t hashKind = checksums.read<std::uint8_t>();
        const unsigned char* hash = checksums.take(hashSize);
        std::string name;
        if (checksums.overrun() || !textAt(m_names, m_namesBegin, m_namesEnd, nameOffset, name))
            return false;
        const auto known = m_documentIds.find(name);
        if (known != m_documentIds.end()) {
            id = known->second;
            return true;
        }
        PdbDocument document{name, GUID{}, {}, GUID{}};
        if (hashSize != 0 && hashKind >= 1 && hashKind <= 3) {
            document.hashAlgorithm = hashKind == 1 ? kMd5 : hashKind == 2 ? kSha1 : kSha256;
            document.hash.assign(hash, hash + hashSize);
        }
        // The managed writer keeps language and hash in a stream named after the file.
        const auto named = m_namedStreams.find("/src/files/" + lowered(name));
        if (named != m_namedStreams.end() && !readSourceInfo(named->second, document))
            return false;
        m_pdb.m_documents.push_back(std::move(document));
        id = static_cast<std::uint32_t>(m_pdb.m_documents.size());
        m_documentIds.emplace(name, id);
        return true;
    }

    /// Language, vendor, document type and hash algorithm GUIDs, the hash size, the size
    /// of embedded source, then the hash.
    bool readSourceInfo(std::uint32_t index, PdbDocument& document) const
    {
        std::vector<std::uint8_t> stream;
        if (!m_msf.stream(index, stream))
            return false;
        ByteCursor cursor(stream.data(), stream.size());
        document.language = readGuid(cursor);
        cursor.skip(32);
        const GUID algorithm = readGuid(cursor);
        const std::uint32_t hashSize = cursor.read<std::uint32_t>();
        cursor.skip(4);
        const unsigned char* hash = cursor.take(hashSize);
        if (hash == nullptr)
            return false;
        if (hashSize != 0) {
            document.hashAlgorithm = algorithm;
            document.hash.assign(hash, hash + hashSize);
        }
        return true;
    }

    WindowsPdb& m_pdb;
    const MsfFile& m_msf;
    std::map<std::string, std::uint32_t> m_namedStreams; // by lower-case name
    std::vector<std::uint8_t> m_names;
    std::size_t m_namesBegin = 0, m_namesEnd = 0;
    std::map<std::string, std::uint32_t> m_documentIds;
};

std::unique_ptr<WindowsPdb> WindowsPdb::create(std::vector<std::uint8_t> bytes, HRESULT& result)
{
    const std::unique_ptr<MsfFile> msf = MsfFile::create(std::move(bytes), result);
    if (!msf)
        return nullptr;
    std::unique_ptr<WindowsPdb> pdb(new WindowsPdb);
    Builder builder(*pdb, *msf);
    if (!builder.readInfo() || !builder.readNames() || !builder.readModules()) {
        result = CLDB_E_FILE_CORRUPT;
        return nullptr;
    }
    result = S_OK;
    return pdb;
}

bool WindowsPdb::matches(const GUID& signature, std::uint32_t age) const
{
    return m_signature == signature && m_age == age;
}

bool WindowsPdb::document(std::uint32_t id, PdbDocument& document) const
{
    if (id == 0 || id > m_documents.size())
        return false;
    document = m_documents[id - 1];
    return true;
}

bool WindowsPdb::sequencePoints(std::uint32_t methodRow, std::vector<PdbSequencePoint>& points) const
{
    const auto found = m_methods.find(methodRow);
    if (found == m_methods.end()) {
        points.clear();
        return false;
    }
    points = found->second;
    return true;
}

} // namespace velmark_3_11
