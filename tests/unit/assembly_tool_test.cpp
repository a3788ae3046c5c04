#include <sstream>

#include <gtest/gtest.h>

#include "commands.h"
#include "demo_traces.h"
#include "support/dotnet_testdata.h"
#include "support/temp_dir.h"

namespace {

int run(int (*command)(const std::vector<std::string>&, std::ostream&, std::ostream&),
        const std::vector<std::string>& args, std::string& out)
{
    std::ostringstream text, err;
    const int code = command(args, text, err);
    out = text.str() + err.str();
    return code;
}

TEST(AssemblyTool, ListsEveryMethodOfEachRealAssemblyWithSignatureAndLines)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const struct {
        std::string file;
        std::size_t methods;
        std::string someRow; // token, class, name, signature, source, lines
    } cases[] = {
        {"cecil/PdbTarget.exe", 0x16, "0x6000002,PdbTarget.Program,Main,(string[]),C:\\sources\\PdbTarget\\Program.cs,"
                                      "0x0:21 0x1:22 0x2:22 0x8:22 0xc:23 0x17:22 0x1d:25 0x25:26"},
        {"symbolic/foo.dll", 10, "0x6000005,MyInternalClass,.ctor,(),/Users/swatinem/Coding/sentry-dotnet/samples/foo/"
                                 "Program.cs,0x0:35 0x6:37 0xc:38"},
        {"symreader-converter/portable/Iterator.dll", 0x14, "0x6000002,D`1,M,(),,"},
        {"symreader-converter/portable/Documents.dll", 6, "0x6000006,<>c,<F>b__1_0,(int32),,"},
    };
    std::string out;
    for (const auto& c : cases) {
        ASSERT_EQ(0, run(jitreader_tool::runAssembly, {folder + "/" + c.file, "--format", "csv"}, out)) << out;
        EXPECT_EQ(c.methods + 1, static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n'))) << c.file;
        EXPECT_NE(std::string::npos, out.find(c.someRow + "\n")) << out;
    }
    EXPECT_EQ(1, run(jitreader_tool::runAssembly, {folder + "/cecil/PdbTarget.exe", "--token", "0x06000999"}, out));
    EXPECT_EQ(1, run(jitreader_tool::runAssembly, {folder + "/cecil/PdbTarget.exe", "--token", "x"}, out));
    EXPECT_EQ(1, run(jitreader_tool::runAssembly, {folder + "/symbolic/Program.cs"}, out));
}

TEST(AssemblyTool, ResolveFindsTheAssembliesOfTokenOnlyMethodsInSymbolDirectories)
{
    jrtest::TempDir dir;
    jitreader_demo::writeDemoResults(dir.path(), "");
    const std::string samples = std::string(JITREADER_SOURCE_DIR) + "/samples/dotnet.samples";
    const std::string symbols = std::string(JITREADER_SOURCE_DIR) + "/samples/dotnet";
    std::string out;
    ASSERT_EQ(0, run(jitreader_tool::runResolve,
                     {dir.file("dotnet"), "--samples", samples, "--symbols", "/nowhere", "--symbols", symbols,
                      "--full-names"},
                     out));
    EXPECT_NE(std::string::npos, out.find("MyInternalClass::GetPdbId(System::Reflection::Module)")) << out;
    EXPECT_NE(std::string::npos, out.find("/Users/swatinem/Coding/sentry-dotnet/samples/foo/Program.cs:88")) << out;
    ASSERT_EQ(0, run(jitreader_tool::runMethods, {dir.file("dotnet"), "--symbols", symbols, "--format", "csv"}, out));
    EXPECT_NE(std::string::npos, out.find("StackTraceSample::Main,/Users/swatinem/")) << out;
}

} // namespace
