// A growable byte buffer whose storage never shrinks.
#pragma once

#include <vector>

#include "jitreader/symbol.h"

namespace velmark_3_11 {

class ByteBuffer : public IByteBuffer {
public:
    /// 512 zero bytes of storage and a logical size of 0.
    ByteBuffer() : m_data(512, 0), m_size(0) {}
    /// A copy of `size` bytes at `data`, in storage of exactly that size.
    ByteBuffer(const unsigned char* data, unsigned int size) : m_data(data, data + size), m_size(size) {}
    ~ByteBuffer() = default;

    unsigned int getSize() override { return m_size; }
    const void* getData() override { return m_size == 0 ? nullptr : m_data.data(); }
    void setData(const void* data, unsigned int size) override;

    /// Storage held, also behind the logical size.
    std::size_t capacity() const { return m_data.size(); }

private:
    std::vector<unsigned char> m_data;
    unsigned int m_size;
};

/// Copies up to `count` bytes of `source` from `sourceOffset` into `target` at `targetOffset`,
/// never past the end of either: where a buffer is shorter than the range it stands for, the
/// bytes it lacks stay as they are in `target`.
void copyBytes(std::vector<unsigned char>& target, unsigned long long targetOffset, IByteBuffer& source,
               unsigned long long sourceOffset, unsigned long long count);

/// A new buffer holding a copy of `size` bytes at `data`.
boost::shared_ptr<IByteBuffer> makeByteBuffer(const void* data, unsigned int size);

} // namespace velmark_3_11
