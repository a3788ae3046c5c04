// Every input of the fuzz corpora, replayed in a buffer of exactly its size, so that a read
// past the end shows under the sanitizers.
#include <fstream>
#include <iterator>
#include <memory>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "dotnet_targets.h"
#include "jitdump_target.h"
#include "metadata_target.h"
#include "trace_file_target.h"

namespace {

namespace fs = boost::filesystem;

void replay(const std::string& corpus, int (*entry)(const std::uint8_t*, std::size_t))
{
    const fs::path directory = fs::path(JITREADER_CORPUS_DIR) / corpus;
    ASSERT_TRUE(fs::is_directory(directory)) << directory;
    std::size_t inputs = 0;
    for (const fs::directory_entry& file : fs::directory_iterator(directory)) {
        std::ifstream in(file.path().string(), std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), exact.get());
        SCOPED_TRACE(file.path().filename().string());
        EXPECT_EQ(0, entry(exact.get(), bytes.size()));
        ++inputs;
    }
    EXPECT_GT(inputs, 0u);
}

TEST(FuzzReplay, TraceFileCorpus)
{
    replay("trace_file", jitreader_fuzz::traceFile);
}

TEST(FuzzReplay, JavaNamesCorpus)
{
    replay("java_names", jitreader_fuzz::javaNames);
}

TEST(FuzzReplay, SignatureCorpus)
{
    replay("signature", jitreader_fuzz::signature);
}

TEST(FuzzReplay, ClrSymReaderCorpus)
{
    replay("clr_symreader", jitreader_fuzz::clrSymReader);
}

TEST(FuzzReplay, MetadataCorpus)
{
    replay("metadata", jitreader_fuzz::metadata);
}

TEST(FuzzReplay, JitdumpCorpus)
{
    replay("jitdump", jitreader_fuzz::jitdump);
}

TEST(FuzzReplay, WindowsPdbCorpus)
{
    replay("windows_pdb", jitreader_fuzz::windowsPdb);
}

} // namespace
