// Storage for the code bytes of a trace: large chunks filled one buffer after the other, so
// that a region's bytes cost no allocation of their own and no zero-filling.
#pragma once

#include <cstddef>
#include <memory>

#include <boost/shared_ptr.hpp>

#include "jitreader/symbol.h"

namespace velmark_3_11 {

class CodeArena {
public:
    CodeArena() = default;
    ~CodeArena();
    CodeArena(const CodeArena&) = delete;
    CodeArena& operator=(const CodeArena&) = delete;

    /// A buffer holding a copy of `size` bytes at `data`, in the current chunk. The buffer keeps
    /// its chunk alive; the arena may go before its buffers. Not safe for concurrent use.
    boost::shared_ptr<IByteBuffer> copy(const unsigned char* data, unsigned int size);

    struct Chunk;

private:
    Chunk* m_chunk = nullptr; // one reference held
    std::size_t m_used = 0;
};

} // namespace velmark_3_11
