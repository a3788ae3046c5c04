// The writer's own refusals and its file output. The bytes it writes are checked by the decoder
// tests, which read every record form back field by field.
#include "tracewriter/trace_writer.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

using namespace tracewriter;

TEST(TraceWriter, RejectsMistakesAndWritesFiles)
{
    TraceWriter writer;
    EXPECT_THROW(writer.load(1, MethodLoad()), std::invalid_argument);
    EXPECT_THROW(writer.load(kFunctionInlineLoad64, MethodLoad()), std::invalid_argument);
    EXPECT_THROW(writer.inlineLoad(kFunctionLoad32, InlineLoad()), std::invalid_argument);
    EXPECT_THROW(writer.truncatedFrame(4, {1, 2}, 2), std::invalid_argument);
    EXPECT_EQ(writer.size(), 0u); // no mistake wrote anything

    jrtest::TempDir dir;
    writer.magic().collectorType(1).writeTo(dir.file("a.jit"));
    std::ifstream in(dir.file("a.jit"), std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), writer.bytes());
    EXPECT_THROW(writer.writeTo(dir.file("missing/a.jit")), std::runtime_error);
}
