#include "platform/metadata/msf_file.h"

#include <cstring>

#include "platform/byte_cursor.h"

namespace velmark_3_11 {
namespace {

const char kMagic[] = "Microsoft C/C++ MSF 7.00\r\n\x1a" "DS\0\0";
constexpr std::size_t kMagicSize = sizeof kMagic; // with the terminator: 32 bytes
constexpr std::uint32_t kNilStream = 0xFFFFFFFF;

std::uint64_t blocksFor(std::uint64_t bytes, std::uint32_t blockSize)
{
    return (bytes + blockSize - 1) / blockSize;
}

} // namespace

bool MsfFile::hasMagic(const std::uint8_t* bytes, std::size_t size)
{
    return size >= kMagicSize && std::memcmp(bytes, kMagic, kMagicSize) == 0;
}

std::unique_ptr<MsfFile> MsfFile::create(std::vector<std::uint8_t> bytes, HRESULT& result)
{
    if (!hasMagic(bytes.data(), bytes.size())) {
        result = COR_E_BADIMAGEFORMAT;
        return nullptr;
    }
    result = CLDB_E_FILE_CORRUPT;
    ByteCursor super(bytes.data(), bytes.size());
    super.skip(kMagicSize);
    const std::uint32_t blockSize = super.read<std::uint32_t>();
    super.skip(4); // the free block map
    const std::uint32_t blockCount = super.read<std::uint32_t>();
    const std::uint32_t directorySize = super.read<std::uint32_t>();
    super.skip(4);
    const std::uint32_t directoryMap = super.read<std::uint32_t>();
    if (super.overrun() || (blockSize != 512 && blockSize != 1024 && blockSize != 2048 && blockSize != 4096))
        return nullptr;
    // Every block the file names must be in it; a cut file fails here as a whole.
    if (static_cast<std::uint64_t>(blockCount) * blockSize > bytes.size() || directoryMap >= blockCount)
        return nullptr;
    const std::uint64_t directoryBlocks = blocksFor(directorySize, blockSize);
    if (directoryBlocks * 4 > blockSize)
        return nullptr;

    std::unique_ptr<MsfFile> file(new MsfFile);
    file->m_blockSize = blockSize;
    Stream directory{directorySize, {}};
    ByteCursor map(bytes.data(), bytes.size());
    map.seek(static_cast<std::uint64_t>(directoryMap) * blockSize);
    for (std::uint64_t i = 0; i < directoryBlocks; ++i) {
        const std::uint32_t block = map.read<std::uint32_t>();
        if (block >= blockCount)
            return nullptr;
        directory.blocks.push_back(block);
    }
    file->m_bytes = std::move(bytes);
    file->m_streams.push_back(std::move(directory));
    std::vector<std::uint8_t> directoryBytes;
    file->stream(0, directoryBytes);
    file->m_streams.clear();

    ByteCursor cursor(directoryBytes.data(), directoryBytes.size());
    const std::uint32_t count = cursor.read<std::uint32_t>();
    if (cursor.overrun() || count > cursor.remaining() / 4)
        return nullptr;
    file->m_streams.resize(count);
    for (Stream& stream : file->m_streams) {
        stream.size = cursor.read<std::uint32_t>();
        if (stream.size == kNilStream)
            stream.size = 0;
        // Blocks may not be shared, so no stream is larger than the file.
        if (stream.size > file->m_bytes.size())
            return nullptr;
    }
    for (Stream& stream : file->m_streams) {
        const std::uint64_t blocks = blocksFor(stream.size, blockSize);
        if (blocks > cursor.remaining() / 4)
            return nullptr;
        stream.blocks.reserve(static_cast<std::size_t>(blocks));
        for (std::uint64_t i = 0; i < blocks; ++i) {
            const std::uint32_t block = cursor.read<std::uint32_t>();
            if (block >= blockCount)
                return nullptr;
            stream.blocks.push_back(block);
        }
    }
    result = S_OK;
    return file;
}

bool MsfFile::stream(std::uint32_t index, std::vector<std::uint8_t>& bytes) const
{
    bytes.clear();
    if (index >= m_streams.size())
        return false;
    const Stream& stream = m_streams[index];
    bytes.reserve(stream.size);
    std::size_t left = stream.size;
    for (const std::uint32_t block : stream.blocks) {
        // Blocks were checked against the file's size when it was opened.
        ByteCursor cursor(m_bytes.data(), m_bytes.size());
        cursor.seek(static_cast<std::uint64_t>(block) * m_blockSize);
        const std::size_t part = left < m_blockSize ? left : m_blockSize;
        const unsigned char* data = cursor.take(part);
        if (data == nullptr)
            return false;
        bytes.insert(bytes.end(), data, data + part);
        left -= part;
    }
    return true;
}

} // namespace velmark_3_11
