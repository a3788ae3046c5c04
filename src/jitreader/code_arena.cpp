#include "jitreader/code_arena.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include <boost/make_shared.hpp>

#include "jitreader/huge_pages.h"
#include "jitreader/small_object_pool.h"

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

    // Counted by hand rather than through a shared pointer: every buffer holds its chunk, and a
    // shared pointer would double the pointer in each of millions of buffers.
    void retain() { users.fetch_add(1, std::memory_order_relaxed); }
    void release()
    {
        if (users.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    unsigned char* bytes = nullptr;
    std::size_t mappedSize = 0;
    std::unique_ptr<unsigned char[]> owned;
    std::atomic<std::size_t> users{1}; // its maker's
};

namespace {

/// Bytes in a chunk, written in place by setData while they fit, as a buffer's storage never
/// shrinks; a larger write moves them to storage of their own.
class ArenaByteBuffer : public IByteBuffer {
public:
    /// Takes over one reference to `chunk`.
    ArenaByteBuffer(CodeArena::Chunk* chunk, unsigned char* data, unsigned int size)
        : m_chunk(chunk), m_data(data), m_capacity(size), m_size(size)
    {
    }
    ~ArenaByteBuffer() { dropStorage(m_chunk, m_data); }
    ArenaByteBuffer(const ArenaByteBuffer&) = delete;
    ArenaByteBuffer& operator=(const ArenaByteBuffer&) = delete;

    unsigned int getSize() override { return m_size; }
    const void* getData() override { return m_size == 0 ? nullptr : m_data; }
    void setData(const void* data, unsigned int size) override
    {
        m_size = 0;
        if (data == nullptr || size == 0)
            return;
        if (size > m_capacity) {
            // `data` may lie in the storage that this write replaces: it goes after the copy.
            std::unique_ptr<unsigned char[]> grown(new unsigned char[size]);
            std::memmove(grown.get(), data, size);
            dropStorage(m_chunk, m_data);
            m_chunk = nullptr;
            m_data = grown.release();
            m_capacity = size;
        } else {
            std::memmove(m_data, data, size);
        }
        m_size = size;
    }

private:
    /// The bytes live in `chunk`, or when it is null, on the heap, owned by the buffer.
    static void dropStorage(CodeArena::Chunk* chunk, unsigned char* data)
    {
        if (chunk)
            chunk->release();
        else
            delete[] data;
    }

    CodeArena::Chunk* m_chunk;
    unsigned char* m_data;
    unsigned int m_capacity;
    unsigned int m_size;
};

} // namespace

CodeArena::~CodeArena()
{
    if (m_chunk)
        m_chunk->release();
}

boost::shared_ptr<IByteBuffer> CodeArena::copy(const unsigned char* data, unsigned int size)
{
    Chunk* chunk = nullptr;
    unsigned char* target = nullptr;
    if (size > kLargeCode) {
        chunk = new Chunk(size);
        target = chunk->bytes;
    } else {
        if (!m_chunk || kChunkSize - m_used < size) {
            if (m_chunk) {
                m_chunk->release();
                m_chunk = nullptr;
            }
            m_chunk = new Chunk(kChunkSize);
            m_used = 0;
        }
        chunk = m_chunk;
        chunk->retain();
        target = m_chunk->bytes + m_used;
        m_used += size;
    }
    std::memcpy(target, data, size);
    try {
        return boost::allocate_shared<ArenaByteBuffer>(PoolAllocator<ArenaByteBuffer>(), chunk, target, size);
    } catch (...) {
        chunk->release();
        throw;
    }
}

} // namespace velmark_3_11
