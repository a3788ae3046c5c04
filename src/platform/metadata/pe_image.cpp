#include "platform/metadata/pe_image.h"

#include <zlib.h>

#include <algorithm>
#include <fstream>

#include "platform/byte_cursor.h"
#include "platform/metadata/metadata_bytes.h"
#include "platform/text.h"

namespace velmark_3_11 {
namespace {

constexpr std::uint32_t kDirectoryDebug = 6;
constexpr std::uint32_t kDirectoryCliHeader = 14;
constexpr std::uint32_t kDebugEntrySize = 28;
constexpr std::uint32_t kCliHeaderSize = 72;
constexpr std::uint16_t kPortableMinorVersion = 0x504D;
// An embedded debug file larger than this is taken for a lie of a corrupt entry.
constexpr std::uint32_t kMaxEmbeddedPdb = 256u << 20;
// Offsets in a PE image are 32-bit; a larger file is none.
constexpr std::uint64_t kMaxImage = 0xFFFFFFFFu;

bool inside(std::uint64_t offset, std::uint64_t size, std::uint64_t total)
{
    return offset <= total && size <= total - offset;
}

} // namespace

HRESULT readFileBytes(const std::wstring& path, std::vector<std::uint8_t>& bytes)
{
    std::ifstream in(toUtf8(path), std::ios::binary | std::ios::ate);
    if (!in)
        return HRESULT_FILE_NOT_FOUND;
    const std::streamoff size = in.tellg();
    if (size < 0 || static_cast<std::uint64_t>(size) > kMaxImage)
        return HRESULT_FILE_NOT_FOUND;
    bytes.resize(static_cast<std::size_t>(size));
    in.seekg(0);
    if (size > 0 && !in.read(reinterpret_cast<char*>(bytes.data()), size))
        return HRESULT_FILE_NOT_FOUND;
    return S_OK;
}

std::unique_ptr<PeImage> PeImage::open(const std::wstring& path, HRESULT& result)
{
    std::vector<std::uint8_t> bytes;
    result = readFileBytes(path, bytes);
    if (FAILED(result))
        return nullptr;
    return create(std::move(bytes), result);
}

std::unique_ptr<PeImage> PeImage::create(std::vector<std::uint8_t> bytes, HRESULT& result)
{
    std::unique_ptr<PeImage> image(new PeImage(std::move(bytes)));
    result = image->initialize();
    if (FAILED(result))
        image.reset();
    return image;
}

HRESULT PeImage::initialize()
{
    const std::uint64_t fileSize = m_bytes.size();
    if (fileSize > kMaxImage)
        return COR_E_BADIMAGEFORMAT;
    ByteCursor cursor(m_bytes.data(), m_bytes.size());
    if (cursor.read<std::uint16_t>() != 0x5A4D) // "MZ"
        return COR_E_BADIMAGEFORMAT;
    cursor.seek(0x3C);
    const std::uint32_t peOffset = cursor.read<std::uint32_t>();
    if (cursor.overrun())
        return COR_E_BADIMAGEFORMAT;
    cursor.seek(peOffset);
    if (cursor.read<std::uint32_t>() != 0x00004550) // "PE\0\0"
        return COR_E_BADIMAGEFORMAT;

    cursor.skip(2); // machine
    const std::uint16_t sectionCount = cursor.read<std::uint16_t>();
    cursor.skip(12); // time stamp, symbol table, symbol count
    const std::uint16_t optionalSize = cursor.read<std::uint16_t>();
    cursor.skip(2); // characteristics
    const std::uint64_t optionalStart = cursor.position();
    const std::uint16_t magic = cursor.read<std::uint16_t>();
    if (cursor.overrun())
        return CLDB_E_FILE_CORRUPT;
    std::uint32_t countOffset = 0;
    if (magic == 0x10B)
        countOffset = 92;
    else if (magic == 0x20B)
        countOffset = 108;
    else
        return COR_E_BADIMAGEFORMAT;
    if (optionalSize < countOffset + 4u)
        return CLDB_E_FILE_CORRUPT;
    cursor.seek(optionalStart + countOffset);
    // Only the directories that the optional header's size holds count.
    std::uint64_t directoryCount = cursor.read<std::uint32_t>();
    const std::uint64_t fits = (optionalSize - countOffset - 4u) / 8u;
    if (directoryCount > fits)
        directoryCount = fits;
    if (directoryCount <= kDirectoryCliHeader)
        return COR_E_BADIMAGEFORMAT;
    std::uint32_t directories[15][2];
    for (auto& directory : directories) {
        directory[0] = cursor.read<std::uint32_t>();
        directory[1] = cursor.read<std::uint32_t>();
    }
    if (cursor.overrun())
        return CLDB_E_FILE_CORRUPT;

    const std::uint64_t sectionStart = optionalStart + optionalSize;
    if (!inside(sectionStart, static_cast<std::uint64_t>(sectionCount) * 40u, fileSize))
        return CLDB_E_FILE_CORRUPT;
    cursor.seek(sectionStart);
    m_sections.reserve(sectionCount);
    for (std::uint16_t i = 0; i < sectionCount; ++i) {
        cursor.skip(8); // name
        Section section;
        section.virtualSize = cursor.read<std::uint32_t>();
        section.virtualAddress = cursor.read<std::uint32_t>();
        section.rawSize = cursor.read<std::uint32_t>();
        section.rawOffset = cursor.read<std::uint32_t>();
        cursor.skip(16); // relocations, line numbers, their counts, characteristics
        m_sections.push_back(section);
    }

    const std::uint32_t cliRva = directories[kDirectoryCliHeader][0];
    if (cliRva == 0)
        return COR_E_BADIMAGEFORMAT;
    std::uint32_t cliOffset = 0;
    if (!rvaToOffset(cliRva, kCliHeaderSize, cliOffset))
        return CLDB_E_FILE_CORRUPT;
    cursor.seek(cliOffset);
    if (cursor.read<std::uint32_t>() < kCliHeaderSize)
        return CLDB_E_FILE_CORRUPT;
    cursor.skip(4); // runtime version
    const std::uint32_t metadataRva = cursor.read<std::uint32_t>();
    m_metadataSize = cursor.read<std::uint32_t>();
    if (m_metadataSize == 0 || !rvaToOffset(metadataRva, m_metadataSize, m_metadataOffset))
        return CLDB_E_FILE_CORRUPT;

    // A damaged debug directory costs the debug information, not the metadata.
    readDebugDirectory(directories[kDirectoryDebug][0], directories[kDirectoryDebug][1]);
    return S_OK;
}

bool PeImage::rvaToOffset(std::uint32_t rva, std::uint32_t size, std::uint32_t& offset) const
{
    for (const Section& section : m_sections) {
        if (rva < section.virtualAddress)
            continue;
        const std::uint64_t into = rva - section.virtualAddress;
        if (!inside(into, size, section.rawSize))
            continue;
        const std::uint64_t fileOffset = section.rawOffset + into;
        if (!inside(fileOffset, size, m_bytes.size()))
            return false;
        offset = static_cast<std::uint32_t>(fileOffset);
        return true;
    }
    return false;
}

void PeImage::readDebugDirectory(std::uint32_t rva, std::uint32_t size)
{
    std::uint32_t offset = 0;
    if (rva == 0 || !rvaToOffset(rva, size, offset))
        return;
    ByteCursor cursor(m_bytes.data(), m_bytes.size());
    cursor.seek(offset);
    for (std::uint32_t i = 0; i < size / kDebugEntrySize; ++i) {
        PeDebugEntry entry;
        cursor.skip(4); // characteristics
        entry.timeStamp = cursor.read<std::uint32_t>();
        entry.majorVersion = cursor.read<std::uint16_t>();
        entry.minorVersion = cursor.read<std::uint16_t>();
        entry.type = cursor.read<std::uint32_t>();
        entry.size = cursor.read<std::uint32_t>();
        const std::uint32_t dataRva = cursor.read<std::uint32_t>();
        entry.fileOffset = cursor.read<std::uint32_t>();
        // The rva is what a loader follows; the file pointer serves entries outside sections.
        std::uint32_t byRva = 0;
        if (dataRva != 0 && rvaToOffset(dataRva, entry.size, byRva))
            entry.fileOffset = byRva;
        else if (!inside(entry.fileOffset, entry.size, m_bytes.size()))
            continue;
        m_debugEntries.push_back(entry);
    }
}

bool PeImage::codeView(CodeViewRecord& record) const
{
    for (const PeDebugEntry& entry : m_debugEntries) {
        if (entry.type != kDebugCodeView)
            continue;
        ByteCursor cursor(m_bytes.data() + entry.fileOffset, entry.size);
        if (cursor.read<std::uint32_t>() != 0x53445352) // "RSDS"
            return false;
        record.signature = readGuid(cursor);
        record.age = cursor.read<std::uint32_t>();
        if (cursor.overrun())
            return false;
        record.path.clear();
        while (cursor.remaining() != 0) {
            const char c = static_cast<char>(cursor.read<std::uint8_t>());
            if (c == '\0')
                break;
            record.path.push_back(c);
        }
        record.timeStamp = entry.timeStamp;
        record.portable = entry.minorVersion == kPortableMinorVersion;
        return true;
    }
    return false;
}

std::vector<PdbChecksum> PeImage::pdbChecksums() const
{
    std::vector<PdbChecksum> checksums;
    for (const PeDebugEntry& entry : m_debugEntries) {
        if (entry.type != kDebugPdbChecksum)
            continue;
        ByteCursor cursor(m_bytes.data() + entry.fileOffset, entry.size);
        PdbChecksum checksum;
        bool terminated = false;
        while (cursor.remaining() != 0) {
            const char c = static_cast<char>(cursor.read<std::uint8_t>());
            if (c == '\0') {
                terminated = true;
                break;
            }
            checksum.algorithm.push_back(c);
        }
        if (!terminated || checksum.algorithm.empty() || cursor.remaining() == 0)
            continue;
        const std::size_t length = cursor.remaining();
        const unsigned char* bytes = cursor.take(length);
        checksum.checksum.assign(bytes, bytes + length);
        checksums.push_back(std::move(checksum));
    }
    return checksums;
}

bool PeImage::embeddedPdb(std::vector<std::uint8_t>& pdb) const
{
    for (const PeDebugEntry& entry : m_debugEntries) {
        if (entry.type != kDebugEmbeddedPortablePdb)
            continue;
        ByteCursor cursor(m_bytes.data() + entry.fileOffset, entry.size);
        if (cursor.read<std::uint32_t>() != 0x4244504D) // "MPDB"
            return false;
        const std::uint32_t expanded = cursor.read<std::uint32_t>();
        if (cursor.overrun() || expanded == 0 || expanded > kMaxEmbeddedPdb)
            return false;
        const std::size_t compressedSize = cursor.remaining();
        const unsigned char* compressed = cursor.take(compressedSize);
        if (compressed == nullptr || compressedSize == 0)
            return false;
        z_stream stream{};
        // Raw deflate: no zlib header or trailer.
        if (inflateInit2(&stream, -MAX_WBITS) != Z_OK)
            return false;
        struct End {
            z_stream& stream;
            ~End() { inflateEnd(&stream); }
        } end{stream};
        stream.next_in = const_cast<Bytef*>(compressed);
        stream.avail_in = static_cast<uInt>(compressedSize);
        // The output grows with what the stream really holds, never to a size it merely claims.
        std::vector<std::uint8_t> out;
        out.reserve(std::min<std::size_t>(expanded, compressedSize * 4));
        unsigned char chunk[16384];
        int status = Z_OK;
        while (status == Z_OK) {
            stream.next_out = chunk;
            stream.avail_out = sizeof chunk;
            status = inflate(&stream, Z_NO_FLUSH);
            const std::size_t produced = sizeof chunk - stream.avail_out;
            if ((status != Z_OK && status != Z_STREAM_END) || produced > expanded - out.size()) {
                status = Z_DATA_ERROR;
                break;
            }
            out.insert(out.end(), chunk, chunk + produced);
        }
        if (status != Z_STREAM_END || out.size() != expanded)
            return false;
        pdb = std::move(out);
        return true;
    }
    return false;
}

} // namespace velmark_3_11
