// Trace files by name: host and process from the name, the scan of directories, file ranges.
#include "jitreader/jit_files_manager.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace velmark_3_11 {
namespace {

using jrtest::TempDir;

typedef std::vector<unsigned char> Bytes;

TEST(JitFilesManager, ParsesHostAndProcessFromTheName)
{
    const struct {
        const wchar_t* name;
        velmark_error_t result;
        const wchar_t* host;
        unsigned int processId; // 77 going in
    } cases[] = {
        {L"a..1.jit", meSuccess, L"a.", 1},
        {L"host.abc.jit", meSuccess, L"host", 77},     // no number: the id keeps its value
        {L"host.-7.jit", meSuccess, L"host", 7},       // empty pieces around "-" are dropped
        {L"host.12abc.jit", meSuccess, L"host", 12},   // a number as far as it goes
        {L"h.x.y.99.jit", meSuccess, L"h.x.y", 99},
        {L"a.jit", meFail, L"", 77},
        {L"", meFail, L"", 77},
        {L"..jit", meFail, L"", 77},
    };
    for (const auto& c : cases) {
        unsigned int processId = 77;
        std::wstring host;
        EXPECT_EQ(c.result, JitFilesManager::parseFileName(c.name, processId, host)) << c.name;
        EXPECT_EQ(c.host, host) << c.name;
        EXPECT_EQ(c.processId, processId) << c.name;
    }
}

TEST(JitFilesManager, ScansSortedDirectoriesOnceAndGivesAdjacentRangesOrFails)
{
    TempDir root;
    // Given out of order and twice; visited sorted, once.
    root.write("b/node.5.jit", Bytes(100));
    root.write("a/node.5.jit", Bytes(100));
    root.write("a/node.3-1.jit", Bytes(7));
    root.write("a/other.5.jit", Bytes(1));
    root.write("a/ignored.5.JIT", Bytes(3)); // the extension is case-sensitive
    root.write("a/.jit", Bytes(3));          // too short to count
    root.write("a/notes.txt", Bytes(3));
    root.mkdir("a/dir.9.jit");                 // a directory with a trace name
    // Named like traces but no regular files: skipped with a warning each.
    ASSERT_EQ(0, ::mkfifo(root.file("a/fifo.6.jit").c_str(), 0600));
    boost::filesystem::create_symlink(root.file("a/missing"), root.file("a/dangling.7.jit"));

    JitFilesManager files;
    auto dirs = basekit2::make_path_iterator({root.wide("b"), root.wide("a"), root.wide("b")});
    jrtest::LogCapture log(log4cplus::WARN_LOG_LEVEL);
    ASSERT_EQ(meSuccess, files.scanDirectories(dirs, 2));
    for (const char* skipped : {"a/fifo.6.jit", "a/dangling.7.jit"})
        EXPECT_TRUE(log.contains(log4cplus::WARN_LOG_LEVEL,
                                 "Skip jit file " + root.file(skipped) + " because it is not a regular file"))
            << log.dump();

    EXPECT_STREQ(L"node", files.getHostName(1));
    EXPECT_STREQ(L"other", files.getHostName(2));
    EXPECT_TRUE(files.getHostName(0) == nullptr && files.getHostName(3) == nullptr);
    EXPECT_EQ(1u, files.getHostId(L"node"));
    EXPECT_EQ(0u, files.getHostId(L"NODE"));

    const std::pair<std::string, unsigned long long> starts[] = {
        {"a/node.3-1.jit", 1}, {"a/node.5.jit", 8}, {"a/other.5.jit", 108}, {"b/node.5.jit", 109}, {"", 209}};
    for (std::size_t i = 0; i + 1 < std::size(starts); ++i) {
        unsigned long long begin = 0, end = 0;
        ASSERT_EQ(meSuccess, files.getFileRange(root.wide(starts[i].first).c_str(), &begin, &end)) << starts[i].first;
        EXPECT_TRUE(begin == starts[i].second && end == starts[i + 1].second) << starts[i].first;
    }
    // Paths compare by their elements, not their text.
    unsigned long long begin = 0, end = 0;
    EXPECT_EQ(meSuccess, files.getFileRange((root.wide("a") + L"//node.5.jit").c_str(), &begin, &end));
    EXPECT_TRUE(begin == 8 && end == 108);
    for (const std::wstring& miss : {root.wide("a/node.6.jit"), root.wide("a/stranger.5.jit"),
                                     std::wstring(L"/elsewhere/node.5.jit")})
        EXPECT_EQ(meFileNotRegistered, files.getFileRange(miss.c_str(), &begin, &end));
    EXPECT_EQ(meFileNotRegistered, files.getFileRange(nullptr, &begin, &end));

    // Two files of process 5 on host 1, from two directories, in sorted directory order.
    const auto& process = files.hosts().at(1).at(5);
    ASSERT_EQ(2u, process.files.size());
    EXPECT_EQ(root.wide("a/node.5.jit"), process.files[0].path);
    EXPECT_EQ(root.wide("b/node.5.jit"), process.files[1].path);
    EXPECT_FALSE(process.read);

    std::vector<unsigned int> ids;
    for (auto it = files.getProcessIds(); !it.at_end(); it.next())
        ids.push_back(it.current());
    EXPECT_EQ((std::vector<unsigned int>{3, 5, 5}), ids);

    root.write("0-bad/a.jit", Bytes(4));
    root.write("file.txt", Bytes(1));
    const struct {
        std::vector<std::string> dirs;
        velmark_error_t result;
        std::size_t hostsAfter; // what earlier directories registered stays
    } cases[] = {
        {{"missing"}, meNotADirectory, 0},
        {{"file.txt"}, meNotADirectory, 0},
        {{"0-bad"}, meFail, 0},
        {{"a", "missing"}, meNotADirectory, 2},
        {{"a", "0-bad"}, meFail, 0}, // "0-bad" sorts first and ends the scan
    };
    for (const auto& c : cases) {
        std::vector<std::wstring> paths;
        for (const auto& dir : c.dirs)
            paths.push_back(root.wide(dir));
        auto it = basekit2::make_path_iterator(paths);
        JitFilesManager files;
        EXPECT_EQ(c.result, files.scanDirectories(it, 0)) << c.dirs.back();
        EXPECT_EQ(c.hostsAfter, files.hosts().size()) << c.dirs.back();
    }
}

} // namespace
} // namespace velmark_3_11
