#include "jitreader/code_arena.h"

#include <cstring>
#include <vector>

#include <boost/make_shared.hpp>

namespace velmark_3_11 {
namespace {

// Small enough that the unused end of a file's last chunk doesn't matter, large enough that
// chunks are few. Larger code gets a chunk of its own.
constexpr std::size_t kChunkSize = 64 * 1024;

} // namespace

struct CodeArena::Chunk {
    explicit Chunk(std::size_t size) : bytes(new unsigned char[size]) {}
    std::unique_ptr<unsigned char[]> bytes; // left uninitialised: every byte handed out is written
};

namespace {

/// Bytes in a chunk, written in place by setData while they fit, as a buffer's storage never
/// shrinks; a larger write moves them to storage of their own.
class ArenaByteBuffer : public IByteBuffer {
public:
    ArenaByteBuffer(std::shared_ptr<CodeArena::Chunk> chunk, unsigned char* data, unsigned int size)
        : m_chunk(std::move(chunk)), m_data(data), m_capacity(size), m_size(size)
    {
    }

    unsigned int getSize() override { return m_size; }
    const void* getData() override { return m_size == 0 ? nullptr : m_data; }
    void setData(const void* data, unsigned int size) override
    {
        m_size = 0;
        if (data == nullptr || size == 0)
            return;
        if (size > m_capacity) {
            std::vector<unsigned char> grown(m_data, m_data + m_capacity);
            grown.resize(size);
            m_grown.swap(grown);
            m_data = m_grown.data();
            m_capacity = size;
            m_chunk.reset();
        }
        std::memmove(m_data, data, size);
        m_size = size;
    }

private:
    std::shared_ptr<CodeArena::Chunk> m_chunk;
    unsigned char* m_data;
    unsigned int m_capacity;
    unsigned int m_size;
    std::vector<unsigned char> m_grown;
};

} // namespace

boost::shared_ptr<IByteBuffer> CodeArena::copy(const unsigned char* data, unsigned int size)
{
    std::shared_ptr<Chunk> chunk;
    unsigned char* target = nullptr;
    if (size > kChunkSize / 4) {
        chunk = std::make_shared<Chunk>(size);
        target = chunk->bytes.get();
    } else {
        if (!m_chunk || kChunkSize - m_used < size) {
            m_chunk = std::make_shared<Chunk>(kChunkSize);
            m_used = 0;
        }
        chunk = m_chunk;
        target = m_chunk->bytes.get() + m_used;
        m_used += size;
    }
    std::memcpy(target, data, size);
    return boost::make_shared<ArenaByteBuffer>(std::move(chunk), target, size);
}

} // namespace velmark_3_11
