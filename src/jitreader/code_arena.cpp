#include "jitreader/code_arena.h"

#include <cstdint>
#include <cstring>

#include <boost/make_shared.hpp>

#include "jitreader/huge_pages.h"

namespace velmark_3_11 {
namespace {

// Chunks are whole huge pages: first touching fresh memory page by page costs more than
// everything else of a load, and a huge page is touched once for 512 small ones. One arena
// serves a whole store, so only its last chunk is partly unused. Larger code gets a chunk of
// its own from the heap.
constexpr std::size_t kHugePage = 2 * 1024 * 1024;
constexpr std::size_t kChunkSize = 4 * kHugePage;
constexpr std::size_t kLargeCode = 64 * 1024;

} // namespace

struct CodeArena::Chunk {
    explicit Chunk(std::size_t size)
    {
        if (size == kChunkSize) {
            bytes = static_cast<unsigned char*>(mapHugePages(size));
            if (bytes != nullptr) {
                mappedSize = size;
                return;
            }
        }
        owned.reset(new unsigned char[size]); // left uninitialised: every byte handed out is written
        bytes = owned.get();
    }
    ~Chunk() { unmapHugePages(mappedSize != 0 ? bytes : nullptr, mappedSize); }
    Chunk(const Chunk&) = delete;
    Chunk& operator=(const Chunk&) = delete;

    unsigned char* bytes = nullptr;
    std::size_t mappedSize = 0;
    std::unique_ptr<unsigned char[]> owned;
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
        // `data` may lie in the storage that a larger write replaces: it goes after the copy.
        std::unique_ptr<unsigned char[]> previous;
        std::shared_ptr<CodeArena::Chunk> previousChunk;
        if (size > m_capacity) {
            previous = std::move(m_grown);
            previousChunk = std::move(m_chunk);
            m_grown.reset(new unsigned char[size]);
            m_data = m_grown.get();
            m_capacity = size;
        }
        std::memmove(m_data, data, size);
        m_size = size;
    }

private:
    std::shared_ptr<CodeArena::Chunk> m_chunk;
    unsigned char* m_data;
    unsigned int m_capacity;
    unsigned int m_size;
    std::unique_ptr<unsigned char[]> m_grown;
};

} // namespace

boost::shared_ptr<IByteBuffer> CodeArena::copy(const unsigned char* data, unsigned int size)
{
    std::shared_ptr<Chunk> chunk;
    unsigned char* target = nullptr;
    if (size > kLargeCode) {
        chunk = std::make_shared<Chunk>(size);
        target = chunk->bytes;
    } else {
        if (!m_chunk || kChunkSize - m_used < size) {
            m_chunk = std::make_shared<Chunk>(kChunkSize);
            m_used = 0;
        }
        chunk = m_chunk;
        target = m_chunk->bytes + m_used;
        m_used += size;
    }
    std::memcpy(target, data, size);
    return boost::make_shared<ArenaByteBuffer>(std::move(chunk), target, size);
}

} // namespace velmark_3_11
