#include <gtest/gtest.h>

#include "e2e_util.h"

using namespace velmark_3_11;

namespace {

std::vector<unsigned int> ids(IJitProcesses& processes)
{
    std::vector<unsigned int> result;
    for (auto it = processes.getProcessIds(); !it.at_end(); it.next())
        result.push_back(it.current());
    return result;
}

TEST(JitProcesses, ListsProcessesOfEveryHostWithoutReading)
{
    jrtest::TempDir root;
    // Not even valid traces: nothing is read.
    root.write("x/beta.9.jit", {1, 2, 3});
    root.write("x/alpha.30-0.jit", {1});
    root.write("x/alpha.30-1.jit", {1});
    root.write("x/alpha.30-2.jit", {1});
    root.write("x/alpha.4.jit", {1});
    auto directories = e2e::dirs(root, {"x"});
    auto processes = IJitProcesses::create(directories);
    ASSERT_TRUE(processes);
    EXPECT_EQ((std::vector<unsigned int>{4, 30, 9}), ids(*processes)); // host alpha first
    EXPECT_EQ((std::vector<unsigned int>{4, 30, 9}), ids(*processes));
}

} // namespace
