#include "jitreader/byte_buffer.h"

#include <cstring>

namespace velmark_3_11 {

boost::shared_ptr<IByteBuffer> IByteBuffer::create()
{
    return boost::shared_ptr<IByteBuffer>(new ByteBuffer());
}

void ByteBuffer::setData(const void* data, unsigned int size)
{
    m_size = 0;
    if (data == nullptr || size == 0)
        return;
    // Storage only grows, so that a buffer keeps it across calls.
    if (size > m_data.size())
        m_data.resize(size);
    std::memcpy(m_data.data(), data, size);
    m_size = size;
}

boost::shared_ptr<IByteBuffer> makeByteBuffer(const void* data, unsigned int size)
{
    boost::shared_ptr<IByteBuffer> buffer = IByteBuffer::create();
    buffer->setData(data, size);
    return buffer;
}

} // namespace velmark_3_11
