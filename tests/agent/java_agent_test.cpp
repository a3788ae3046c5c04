// The agent inside a real Java virtual machine: a small program is compiled and run under it,
// and its trace is read back through the exported resolver.
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "e2e/e2e_util.h"

using namespace velmark_3_11;

namespace {

std::vector<std::string> readLines(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// The number (from 1) of the first line of the program that holds `marker`.
unsigned int lineOf(const std::string& marker)
{
    const std::vector<std::string> lines = readLines(JITAGENT_JAVA_SOURCE);
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(marker) != std::string::npos)
            return static_cast<unsigned int>(i + 1);
    return 0;
}

/// Runs `command` with its output in `log`; its exit status.
int run(const std::string& command, const std::string& log)
{
    return std::system((command + " >'" + log + "' 2>&1").c_str());
}

/// Empty when the region's bytes decode as x86-64 to their end; else where they stop.
std::string undecodable(const ICodeRegion& region)
{
    const auto content = region.getContent();
    if (!content || content->getSize() != region.length())
        return "no bytes of the region's length";
    const std::size_t at =
        e2e::firstUndecodable(static_cast<const unsigned char*>(content->getData()), content->getSize());
    return at == content->getSize() ? "" : "stops at " + std::to_string(at) + " of " + std::to_string(content->getSize());
}

TEST(JavaAgent, TraceOfARealVirtualMachineResolvesToMethodsInlineFramesAndCode)
{
    jrtest::TempDir root;
    root.mkdir("traces");
    ASSERT_EQ(0, run(std::string(JITAGENT_JAVAC) + " -d '" + root.file("classes") + "' " + JITAGENT_JAVA_SOURCE,
                     root.file("log")));
    // Compiled at once, in the foreground, by the optimising compiler alone; sink stays a call,
    // so that each inlined body keeps a call site in the code.
    ASSERT_EQ(0, run(std::string(JITAGENT_JAVA) + " -Xbatch -XX:-TieredCompilation -XX:CompileThreshold=2000" +
                         " -XX:CompileCommand=quiet -XX:CompileCommand=dontinline,jitdemo.InlineDemo::sink" +
                         " '-agentpath:" + JITAGENT_LIBRARY + "=dir=" + root.file("traces") + "' -cp '" +
                         root.file("classes") + "' jitdemo.InlineDemo",
                     root.file("log")))
        << ::testing::PrintToString(readLines(root.file("log")));
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    std::vector<std::string> files;
    for (const auto& entry : boost::filesystem::directory_iterator(root.file("traces")))
        files.push_back(entry.path().filename().string());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(0u, files[0].rfind(std::string(host) + ".", 0)) << files[0]; // HOST.PID.jit
    const auto resolver = e2e::resolverOf(e2e::dirs(root, {"traces"}));
    ASSERT_TRUE(resolver);

    std::size_t stubs = 0, stubsWithData = 0;
    // A compiled method's code, as the agent copied it, decodes to its end. A busy machine
    // now and then gives one compile of a method a byte sequence that a sweep from its start
    // can't follow: every method needs one compile whose code decodes, not every compile.
    std::map<std::wstring, std::string> undecodedCompiles;
    std::set<std::vector<std::wstring>> chains;
    std::set<std::pair<std::wstring, unsigned int>> lines;
    for (auto it = resolver->getMethods(); !it.at_end(); it.next()) {
        const auto method = it.current();
        const std::wstring name = method->getName();
        const bool stub = std::wstring(method->getModule()->getName()) == L"[Dynamic code]";
        stubs += stub;
        for (auto region = method->getCodeRegions(); !region.at_end(); region.next()) {
            const std::string problem = undecodable(*region.current());
            // The virtual machine announces its constant tables and the interpreter with its
            // data as generated code too: those bytes are no instructions.
            if (stub)
                stubsWithData += !problem.empty();
            else if (!undecodedCompiles.count(name) || problem.empty())
                undecodedCompiles[name] = problem;
        }
        if (name != L"jitdemo::InlineDemo::hot")
            continue;
        EXPECT_STREQ(L"jitdemo::InlineDemo", method->getClassName());
        EXPECT_STREQ(L"jitdemo::InlineDemo::hot(int)", method->getFullName());
        EXPECT_STREQ(L"InlineDemo.java", method->getSourceFile()->getName());
        EXPECT_EQ(5u, method->getSourceFile()->getLanguageType());
        EXPECT_STREQ(L"[Compiled Java code]", method->getModule()->getName());
        for (auto region = method->getCodeRegions(); !region.at_end(); region.next())
            for (unsigned int offset = 0; offset < region.current()->length(); ++offset) {
                const unsigned long long jitRva = region.current()->startJitRva() + offset;
                std::vector<std::wstring> chain;
                for (const e2e::Frame& frame : e2e::framesAt(*resolver, jitRva)) {
                    chain.push_back(frame.name);
                    lines.insert({frame.name, frame.line});
                }
                for (auto inner = region.current()->getInlinedRegion(jitRva); inner; inner = inner->getInlinedRegion(jitRva))
                    EXPECT_EQ("", undecodable(*inner)) << std::hex << jitRva;
                chains.insert(chain);
            }
    }
    for (const auto& compiled : undecodedCompiles)
        EXPECT_EQ("", compiled.second) << ::testing::PrintToString(compiled.first);
    EXPECT_LE(100u, stubs);
    EXPECT_GT(stubs / 5, stubsWithData);
    for (const auto& chain : std::vector<std::vector<std::wstring>>{
             {L"jitdemo::InlineDemo::hot"},
             {L"jitdemo::InlineDemo::hot", L"jitdemo::InlineDemo::step"},
             {L"jitdemo::InlineDemo::hot", L"jitdemo::InlineDemo::step", L"jitdemo::InlineDemo::square"}})
        EXPECT_EQ(1u, chains.count(chain)) << chain.size();
    // The method and its inlined callees resolve to lines of their own: the call of step in
    // the loop, the call of square in step, and the call of sink in square.
    EXPECT_EQ(1u, lines.count({L"jitdemo::InlineDemo::hot", lineOf("sum += step(i)")}));
    EXPECT_EQ(1u, lines.count({L"jitdemo::InlineDemo::step", lineOf("int s = square(")}));
    EXPECT_EQ(1u, lines.count({L"jitdemo::InlineDemo::square", lineOf("return sink(x * x)")}));
}

TEST(JavaAgent, RefusesToStartWithoutATraceFileAndSaysWhy)
{
    const struct { std::string options; std::string message; } cases[] = {
        {"", "jitagent: expected the option dir=DIRECTORY"},
        {"=dir=/nonexistent/traces", "jitagent: can't create /nonexistent/traces/"},
    };
    for (const auto& test : cases) {
        jrtest::TempDir root;
        EXPECT_NE(0, run(std::string(JITAGENT_JAVA) + " '-agentpath:" + JITAGENT_LIBRARY + test.options + "' -version",
                         root.file("log")))
            << test.options;
        const std::vector<std::string> log = readLines(root.file("log"));
        EXPECT_TRUE(!log.empty() && log[0].rfind(test.message, 0) == 0) << ::testing::PrintToString(log);
    }
}

} // namespace
