// Byte updates of a region and its markup ranges.
#include "jitreader/region.h"

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "support/log_capture.h"

using namespace velmark_3_11;

namespace {

boost::shared_ptr<IByteBuffer> bytesOf(const std::string& text)
{
    return makeByteBuffer(text.data(), static_cast<unsigned int>(text.size()));
}

boost::intrusive_ptr<Region> makeRegion(unsigned long long start, unsigned int length, const std::string& bytes = "")
{
    return new Region(7003, 1, 0x20, 0, start, length, bytes.empty() ? nullptr : bytesOf(bytes));
}

/// The region's bytes, with 0x90 shown as '.'.
std::string shown(Region& region)
{
    std::string text(static_cast<const char*>(region.getContent()->getData()), region.getContent()->getSize());
    std::replace(text.begin(), text.end(), '\x90', '.');
    return text;
}

} // namespace

TEST(Region, UpdatesByMarkupType)
{
    struct Update { unsigned long long addr; unsigned int length; int type; char fill; }; // fill 0: no content
    const std::string ok = "Updated code region (ip range = 0x1000-0x2010 successfully", orig = "abcdefghijklmnop";
    const std::string invalid = "Couldn't update because the input range is invalid: codeAddr = ";
    const std::string outside = "Couldn't accept update (ip range = ";
    const struct {
        std::vector<Update> updates; // all but the last must succeed
        velmark_error_t result;
        std::string bytes;   // of the region 0x1000-0x1010, first "abcdefghijklmnop"
        std::string message; // ERROR line of a refusal (without suffix), else an INFO line
    } cases[] = {
        {{{0x1000, 4, stCode, 'X'}}, meSuccess, "XXXXefghijklmnop", ok},
        {{{0x1004, 4, stData, 'X'}}, meSuccess, "abcd....ijklmnop", ok},
        {{{0x1004, 4, stKeep, 'X'}}, meSuccess, "abcdXXXXijklmnop", ok},
        {{{0x1004, 4, stData, 'X'}, {0x1004, 4, stKeep, 'Y'}}, meSuccess, "abcd....ijklmnop", ok},
        {{{0x1004, 4, stCode, 'X'}, {0x1004, 4, stData, 'Y'}}, meSuccess, "abcd....ijklmnop",
         "Changed a type of markup range (ip range = 0x1004-0x1008) from 0x1  to 0x2"},
        // The stored type stays the first one, so that "keep" then stores the bytes.
        {{{0x1004, 4, stCode, 'X'}, {0x1004, 4, stData, 'Y'}, {0x1004, 4, stKeep, 'Z'}}, meSuccess,
         "abcdZZZZijklmnop", ok},
        {{{0x1004, 4, stCode, 'X'}, {0x1008, 8, stCode, 'Y'}}, meSuccess, "abcdXXXXYYYYYYYY", ok},
        {{{0, 4, stCode, 'X'}}, meFail, orig, invalid + "0, codeLen = 0x4"},
        {{{0x1000, 0, stCode, 'X'}}, meFail, orig, invalid + "0x1000, codeLen = 0"},
        {{{0x1000, 4, stCode, 0}}, meFail, orig, "Couldn't update because the input content is empty"},
        {{{0xfff, 4, stCode, 'X'}}, meFail, orig,
         outside + "0xfff-0x1003) because it overlaps parent's ip range 0x1000-0x1010"},
        {{{0x100e, 4, stCode, 'X'}}, meFail, orig,
         outside + "0x100e-0x1012) because it overlaps parent's ip range 0x1000-0x1010"},
        {{{0x1004, 4, stData, 'X'}, {0x1007, 4, stCode, 'Y'}}, meFail, "abcd....ijklmnop",
         outside + "0x1007-0x100b) because it overlaps an existing markup range 0x1004-0x1008 with segType = 0x2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        jrtest::LogCapture log;
        boost::intrusive_ptr<Region> region = makeRegion(0x1000, 16, orig);
        velmark_error_t result = meSuccess;
        std::size_t rangesBefore = 0;
        for (const Update& u : c.updates) {
            ASSERT_EQ(result, meSuccess);
            log.clear();
            rangesBefore = region->markupRanges().size();
            result = region->addBytesUpdate(u.addr, u.length, u.fill ? bytesOf(std::string(u.length, u.fill)) : nullptr,
                                            static_cast<velmark_segment_type_t>(u.type), L"seg");
        }
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(shown(*region), c.bytes);
        if (c.result == meSuccess) {
            EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, c.message)) << log.dump();
            continue;
        }
        EXPECT_EQ(region->markupRanges().size(), rangesBefore);
        const std::string error = c.message + jrtest::kAtFileSuffix;
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        ASSERT_EQ(errors.size(), 1u) << log.dump();
        EXPECT_EQ(errors[0].substr(0, error.size()), error);
    }
}

TEST(Region, UpdateNeverReadsOrWritesPastABuffer)
{
    // (A region without bytes is the decoder's case "update of a region without bytes".)
    jrtest::LogCapture log;
    // The region claims 16 bytes but holds 8; the update claims 8 bytes but brings 2.
    boost::intrusive_ptr<Region> region = makeRegion(0x1000, 16, "abcdefgh");
    EXPECT_EQ(region->addBytesUpdate(0x1006, 8, bytesOf("XY"), stCode, L""), meSuccess);
    EXPECT_EQ(shown(*region), "abcdefXY");
}
