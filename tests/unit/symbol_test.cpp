#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "jitreader/source_file.h"

namespace velmark_3_11 {
namespace {

TEST(ByteBuffer, SetDataKeepsStorageAndOnlyGrows)
{
    auto buffer = boost::static_pointer_cast<ByteBuffer>(IByteBuffer::create());
    EXPECT_EQ(0u, buffer->getSize());
    EXPECT_EQ(nullptr, buffer->getData());
    EXPECT_EQ(512u, buffer->capacity());

    const std::vector<unsigned char> bytes(513, 0xAB);
    buffer->setData(bytes.data(), 512);
    EXPECT_EQ(512u, buffer->capacity());
    buffer->setData(bytes.data(), 513);
    EXPECT_EQ(513u, buffer->capacity());
    EXPECT_EQ(0, std::memcmp(bytes.data(), buffer->getData(), 513));

    // An empty setting empties the logical content but keeps the storage.
    buffer->setData(nullptr, 10);
    EXPECT_EQ(0u, buffer->getSize());
    EXPECT_EQ(nullptr, buffer->getData());
    EXPECT_EQ(513u, buffer->capacity());
    buffer->setData(bytes.data(), 0);
    EXPECT_EQ(0u, buffer->getSize());

    // Bytes behind the logical size stay where they were.
    const unsigned char two[] = {1, 2};
    buffer->setData(two, 2);
    const auto* data = static_cast<const unsigned char*>(buffer->getData());
    EXPECT_EQ(1, data[0]);
    EXPECT_EQ(0xAB, data[2]);
}

TEST(SourceLocation, HandsOutFreshCopiesOfItsFile)
{
    const SourceFile file(L"Main.java", L"ab12", 3, 5);
    boost::intrusive_ptr<SourceLocation> location(new SourceLocation(42, file));
    auto first = location->getSourceFile();
    auto second = location->getSourceFile();
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(L"Main.java/ab12/3/5", std::wstring(first->getName()) + L"/" + first->getChecksum() + L"/" +
                                         std::to_wstring(first->getChecksumType()) + L"/" +
                                         std::to_wstring(first->getLanguageType()));
}

} // namespace
} // namespace velmark_3_11
