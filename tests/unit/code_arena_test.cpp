#include "jitreader/code_arena.h"

#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace velmark_3_11;

namespace {

std::vector<unsigned char> pattern(std::size_t size, unsigned char seed)
{
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), seed);
    return bytes;
}

std::vector<unsigned char> contentOf(IByteBuffer& buffer)
{
    const auto* data = static_cast<const unsigned char*>(buffer.getData());
    return data ? std::vector<unsigned char>(data, data + buffer.getSize()) : std::vector<unsigned char>();
}

} // namespace

// Buffers keep their bytes through rewrites that fit, that grow them, and that copy from their
// own storage, and outlive the arena that made them; small ones share chunks, large ones have
// their own.
TEST(CodeArenaTest, BuffersKeepTheirBytesThroughRewritesAndOutliveTheArena)
{
    const struct {
        std::size_t size;
        std::size_t rewrite;    // bytes written by setData
        std::size_t fromOffset; // where in the buffer's own bytes the rewrite reads; npos: elsewhere
    } cases[] = {
        {1, 1, std::string::npos},        {100, 40, std::string::npos},   {100, 101, std::string::npos},
        {100, 60, 30},                    {100, 100, 0},                   {4000, 3000, 1000},
        {64 * 1024 + 1, 10, std::string::npos}, {64 * 1024 + 1, 70 * 1024, std::string::npos},
        {300, 0, std::string::npos},
    };
    std::vector<boost::shared_ptr<IByteBuffer>> buffers;
    std::vector<std::vector<unsigned char>> expected;
    {
        CodeArena arena;
        for (const auto& c : cases) {
            SCOPED_TRACE(c.size);
            const std::vector<unsigned char> original = pattern(c.size, static_cast<unsigned char>(c.size));
            const boost::shared_ptr<IByteBuffer> buffer =
                arena.copy(original.data(), static_cast<unsigned int>(original.size()));
            ASSERT_EQ(original, contentOf(*buffer));

            std::vector<unsigned char> rewrite;
            if (c.fromOffset == std::string::npos) {
                rewrite = pattern(c.rewrite, 7);
                buffer->setData(rewrite.data(), static_cast<unsigned int>(rewrite.size()));
            } else {
                rewrite.assign(original.begin() + c.fromOffset, original.begin() + c.fromOffset + c.rewrite);
                const auto* own = static_cast<const unsigned char*>(buffer->getData());
                buffer->setData(own + c.fromOffset, static_cast<unsigned int>(c.rewrite));
            }
            EXPECT_EQ(rewrite, contentOf(*buffer));
            buffers.push_back(buffer);
            expected.push_back(rewrite);
        }
        // A fresh copy after all that lands beside the others without touching them.
        const std::vector<unsigned char> last = pattern(500, 99);
        buffers.push_back(arena.copy(last.data(), 500));
        expected.push_back(last);
    }
    for (std::size_t i = 0; i < buffers.size(); ++i)
        EXPECT_EQ(expected[i], contentOf(*buffers[i])) << "buffer " << i;
}
