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

TEST(FuzzReplay, EveryCorpusReplaysCleanly)
{
    const struct { const char* corpus; int (*entry)(const std::uint8_t*, std::size_t); } targets[] = {
        {"trace_file", jitreader_fuzz::traceFile}, {"java_names", jitreader_fuzz::javaNames},
        {"signature", jitreader_fuzz::signature},   {"clr_symreader", jitreader_fuzz::clrSymReader},
        {"metadata", jitreader_fuzz::metadata},     {"jitdump", jitreader_fuzz::jitdump},
        {"windows_pdb", jitreader_fuzz::windowsPdb},
    };
    for (const auto& target : targets) {
        const fs::path directory = fs::path(JITREADER_CORPUS_DIR) / target.corpus;
        ASSERT_TRUE(fs::is_directory(directory)) << directory;
        std::size_t inputs = 0;
        for (const fs::directory_entry& file : fs::directory_iterator(directory)) {
            std::ifstream in(file.path().string(), std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
            std::copy(bytes.begin(), bytes.end(), exact.get());
            EXPECT_EQ(0, target.entry(exact.get(), bytes.size())) << file.path().filename().string();
            ++inputs;
        }
        EXPECT_GT(inputs, 0u) << target.corpus;
    }
}

} // namespace
