// The agent inside a real Java virtual machine: a small program is compiled and run under it,
// and its trace is read back through the exported resolver.
#include <gtest/gtest.h>

#include <Zydis/Zydis.h>

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "e2e/e2e_util.h"

using namespace velmark_3_11;

namespace {

std::string quoted(const std::string& text)
{
    return "'" + text + "'";
}

/// The first line of `source` that holds `marker`, counted from 1; 0 when none does.
unsigned int lineOf(const std::string& source, const std::string& marker)
{
    std::istringstream in(source);
    std::string line;
    for (unsigned int number = 1; std::getline(in, line); ++number)
        if (line.find(marker) != std::string::npos)
            return number;
    return 0;
}

std::string readText(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

/// Whether the bytes of a region decode as instructions from its start to its end.
bool disassembles(const ICodeRegion& region)
{
    const auto content = region.getContent();
    if (!content || content->getSize() != region.length())
        return false;
    const auto* bytes = static_cast<const std::uint8_t*>(content->getData());
    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    ZydisDecodedInstruction instruction;
    for (std::size_t offset = 0; offset < content->getSize(); offset += instruction.length)
        if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&decoder, nullptr, bytes + offset, content->getSize() - offset,
                                                        &instruction)))
            return false;
    return true;
}

std::string narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());
}

class JavaAgent : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_source = readText(JITAGENT_JAVA_SOURCE);
        ASSERT_FALSE(m_source.empty());
        m_root.mkdir("classes");
        m_root.mkdir("traces");
        const std::string log = m_root.file("java.log");
        const std::string compile =
            quoted(JITAGENT_JAVAC) + " -d " + quoted(m_root.file("classes")) + " " + quoted(JITAGENT_JAVA_SOURCE);
        ASSERT_EQ(0, std::system((compile + " >" + quoted(log) + " 2>&1").c_str())) << readText(log);
        // Compiled at once, in the foreground, by the optimising compiler alone; sink stays a
        // call so that each inlined body keeps a call site in the code.
        const std::string run = quoted(JITAGENT_JAVA) + " -Xbatch -XX:-TieredCompilation -XX:CompileThreshold=2000" +
                                " -XX:CompileCommand=quiet -XX:CompileCommand=dontinline,jitdemo.InlineDemo::sink" +
                                " -agentpath:" + quoted(JITAGENT_LIBRARY) + "=dir=" + quoted(m_root.file("traces")) +
                                " -cp " + quoted(m_root.file("classes")) + " jitdemo.InlineDemo";
        ASSERT_EQ(0, std::system((run + " >" + quoted(log) + " 2>&1").c_str())) << readText(log);
        m_resolver = e2e::resolverOf(e2e::dirs(m_root, {"traces"}));
        ASSERT_TRUE(m_resolver);
    }

    std::string m_source;
    jrtest::TempDir m_root;
    boost::intrusive_ptr<ISymbolResolver> m_resolver;
};

TEST_F(JavaAgent, TraceOfARealVirtualMachineResolvesToMethodsInlineFramesAndCode)
{
    std::vector<std::string> files;
    for (const auto& entry : boost::filesystem::directory_iterator(m_root.file("traces")))
        files.push_back(entry.path().filename().string());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(".jit", files[0].substr(files[0].size() - 4));

    // The lines of each method's body in the program, from its first line to the next method.
    const struct {
        std::wstring name;
        unsigned int first;
        unsigned int last;
    } bodies[] = {
        {L"jitdemo::InlineDemo::hot", lineOf(m_source, "int hot("), lineOf(m_source, "void main(")},
        {L"jitdemo::InlineDemo::step", lineOf(m_source, "int step("), lineOf(m_source, "int hot(")},
        {L"jitdemo::InlineDemo::square", lineOf(m_source, "int square("), lineOf(m_source, "int step(")},
    };

    std::size_t hotVersions = 0, stubs = 0, stubsWithData = 0;
    std::set<std::vector<std::wstring>> chains;
    std::set<std::pair<std::wstring, unsigned int>> lines;
    for (auto it = m_resolver->getMethods(); !it.at_end(); it.next()) {
        const boost::intrusive_ptr<ISymbol> method = it.current();
        const std::wstring name = method->getName();
        const bool stub = std::wstring(method->getModule()->getName()) == L"[Dynamic code]";
        stubs += stub;
        for (auto region = method->getCodeRegions(); !region.at_end(); region.next()) {
            ASSERT_TRUE(region.current()->getContent()) << narrow(name);
            EXPECT_EQ(region.current()->length(), region.current()->getContent()->getSize()) << narrow(name);
            // The virtual machine announces its constant tables (masks, lookup tables) and the
            // interpreter with its data as generated code too; those bytes are no instructions.
            if (stub)
                stubsWithData += !disassembles(*region.current());
            else
                EXPECT_TRUE(disassembles(*region.current())) << narrow(name);
        }
        if (name != L"jitdemo::InlineDemo::hot")
            continue;
        ++hotVersions;
        EXPECT_STREQ(L"jitdemo::InlineDemo", method->getClassName());
        EXPECT_STREQ(L"jitdemo::InlineDemo::hot(int)", method->getFullName());
        EXPECT_STREQ(L"InlineDemo.java", method->getSourceFile()->getName());
        EXPECT_EQ(5u, method->getSourceFile()->getLanguageType());
        EXPECT_STREQ(L"[Compiled Java code]", method->getModule()->getName());
        for (auto region = method->getCodeRegions(); !region.at_end(); region.next())
            for (unsigned int offset = 0; offset < region.current()->length(); ++offset) {
                const unsigned long long jitRva = region.current()->startJitRva() + offset;
                std::vector<std::wstring> chain;
                for (const e2e::Frame& frame : e2e::framesAt(*m_resolver, jitRva)) {
                    chain.push_back(frame.name);
                    lines.insert({frame.name, frame.line});
                    for (const auto& body : bodies)
                        if (frame.name == body.name && frame.line != 0) {
                            EXPECT_LE(body.first, frame.line) << narrow(frame.name);
                            EXPECT_GT(body.last, frame.line) << narrow(frame.name);
                        }
                }
                for (auto inner = region.current()->getInlinedRegion(jitRva); inner;
                     inner = inner->getInlinedRegion(jitRva))
                    EXPECT_TRUE(disassembles(*inner)) << std::hex << jitRva;
                chains.insert(chain);
            }
    }
    EXPECT_LE(1u, hotVersions);
    EXPECT_LE(100u, stubs);
    EXPECT_GT(stubs / 5, stubsWithData);
    EXPECT_EQ(1u, chains.count({L"jitdemo::InlineDemo::hot"}));
    EXPECT_EQ(1u, chains.count({L"jitdemo::InlineDemo::hot", L"jitdemo::InlineDemo::step"}));
    EXPECT_EQ(1u, chains.count({L"jitdemo::InlineDemo::hot", L"jitdemo::InlineDemo::step",
                                L"jitdemo::InlineDemo::square"}));
    // Each inlined callee resolves to a line of its own body: the call of square in step, the
    // call of sink in square.
    EXPECT_EQ(1u, lines.count({L"jitdemo::InlineDemo::step", lineOf(m_source, "int s = square(")}));
    EXPECT_EQ(1u, lines.count({L"jitdemo::InlineDemo::square", lineOf(m_source, "return sink(x * x)")}));
}

} // namespace
