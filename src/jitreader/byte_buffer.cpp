#include "jitreader/byte_buffer.h"

#include <algorithm>
#include <cstring>

#include <boost/make_shared.hpp>

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

void copyBytes(std::vector<unsigned char>& target, unsigned long long targetOffset, IByteBuffer& source,
               unsigned long long sourceOffset, unsigned long long count)
{
    const unsigned long long sourceSize = source.getSize();
    const auto* data = static_cast<const unsigned char*>(source.getData());
    if (data == nullptr || sourceOffset >= sourceSize || targetOffset >= target.size())
        return;
    count = std::min(count, sourceSize - sourceOffset);
    count = std::min<unsigned long long>(count, target.size() - targetOffset);
    std::memcpy(target.data() + targetOffset, data + sourceOffset, static_cast<std::size_t>(count));
}

boost::shared_ptr<IByteBuffer> makeByteBuffer(const void* data, unsigned int size)
{
    // Code bytes are many: no storage beyond them, and none filled before it is copied over.
    if (data == nullptr || size == 0)
        return IByteBuffer::create();
    return boost::make_shared<ByteBuffer>(static_cast<const unsigned char*>(data), size);
}

} // namespace velmark_3_11
