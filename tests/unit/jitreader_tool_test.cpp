// The command-line tool, run in process on written result directories.
#include <algorithm>
#include <sstream>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "commands.h"
#include "progress_line.h"
#include "samples.h"
#include "support/dotnet_testdata.h"
#include "support/temp_dir.h"
#include "table.h"
#include "tracewriter/trace_writer.h"

namespace jitreader_tool {
namespace {

struct CommandRun { int code; std::string out; std::string err; };

CommandRun run(int (*command)(const std::vector<std::string>&, std::ostream&, std::ostream&),
        const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    const int code = command(args, out, err);
    return CommandRun{code, out.str(), err.str()};
}

TEST(JitreaderTool, ReadsSamplePointsAndNamesTheBadLine)
{
    const struct { std::string text; bool good; std::size_t count; std::string error; } cases[] = {
        {"# comment\n\n100 0x1000 7 host\n0x10 4096 8 other.host\n", true, 2, ""},
        {"1 2 3 h\n100 0x1000 seven host\n", false, 1, "line 2: not a number"},
        {"100 0x1000 4294967296 host\n", false, 0, "line 1: not a number"},
        {"100 0x1000 7 host extra\n", false, 0, "line 1: expected TIME ADDRESS PID HOST"},
        {"-1 0x1000 7 host\n", false, 0, "line 1: not a number"},
        // A long bad line is quoted by its first 80 characters.
        {"x 1 2 " + std::string(200, 'h') + "\n", false, 0,
         "line 1: not a number in 'x 1 2 " + std::string(74, 'h') + "...'"},
    };
    for (const auto& c : cases) {
        std::istringstream in(c.text);
        std::vector<SamplePoint> samples;
        std::string error;
        EXPECT_EQ(c.good, readSamples(in, samples, error)) << c.text;
        EXPECT_EQ(c.count, samples.size()) << c.text;
        EXPECT_EQ(c.error, error.substr(0, c.error.size())) << error;
        EXPECT_EQ(c.good, error.empty()) << error;
        // The last point of the good text, "0x10 4096 8 other.host", field by field.
        EXPECT_TRUE(!c.good || (samples.back().time == 16 && samples.back().address == 4096 &&
                                samples.back().processId == 8 && samples.back().host == "other.host"));
    }
}

TEST(JitreaderTool, MachineFormatsEscapeTheirFields)
{
    Table table({"a", "b"});
    table.add({"x,\"y\"", "line\nbreak \\ \x01"});
    std::ostringstream csv, json;
    table.print(csv, OutputFormat::csv);
    table.print(json, OutputFormat::json);
    EXPECT_EQ("a,b\n\"x,\"\"y\"\"\",\"line\nbreak \\ \x01\"\n", csv.str());
    EXPECT_EQ("[\n {\"a\": \"x,\\\"y\\\"\", \"b\": \"line\\nbreak \\\\ \\u0001\"}\n]\n", json.str());
}

TEST(JitreaderTool, BadDirectoriesNamesAndUnreadTraceFilesGiveClearErrorsAndStrictGivesStatus3)
{
    jrtest::TempDir root;
    root.write("bad/x.jit", {});
    root.write("file.txt", {});
    tracewriter::MethodLoad method;
    method.rawMethodId = 1;
    method.loadTime = 100;
    method.ranges.push_back({0x1000, 0x10, tracewriter::Bytes(0x10, 0x90)});
    tracewriter::TraceWriter good, torn;
    good.magic().load(tracewriter::kFunctionLoad64_v3, method);
    torn.magic().load(tracewriter::kFunctionLoad64_v3, method).frame(99, {1});
    root.write("d/host.1.jit", good.bytes());
    root.write("d/host.2.jit", torn.bytes());
    ASSERT_EQ(0, ::mkfifo(root.file("d/host.3.jit").c_str(), 0600));
    const std::string samplePoint = "150 0x1000 1 host\n";
    root.write("samples.txt", {samplePoint.begin(), samplePoint.end()});
    const std::string failed = "1 of 2 trace files could not be read completely; see the messages above\n";

    const struct {
        int (*command)(const std::vector<std::string>&, std::ostream&, std::ostream&);
        std::vector<std::string> args;
        int code;
        std::string message;
    } cases[] = {
        {runProcesses, {root.file("file.txt")}, 1, ": not a directory"},
        {runProcesses, {root.file("bad")}, 1, "x.jit: trace file name is not of the form HOST.PID.jit"},
        {runProcesses, {}, 1, "no result directory given"},
        {runProcesses, {"--bogus"}, 1, "unknown option --bogus"},
        {runProcesses, {"-x"}, 1, "unknown option -x"},
        {runProcesses, {"--", "-x"}, 1, "-x: not a directory"}, // after "--" every word is an operand
        {runMethods, {root.file("d")}, 0, failed},
        {runMethods, {root.file("d"), "--strict"}, 3, failed},
        {runMethods, {root.file("d")}, 0, "host.3.jit because it is not a regular file"},
        {runResolve, {root.file("d"), "--samples", root.file("samples.txt"), "--strict"}, 3, failed},
        {runResolve, {root.file("d"), "--samples", root.file("d")}, 1, "d: is a directory, not a file of sample points"},
    };
    for (const auto& c : cases) {
        const CommandRun result = run(c.command, c.args);
        EXPECT_EQ(c.code, result.code) << result.err;
        EXPECT_NE(std::string::npos, result.err.find(c.message)) << result.err;
    }
}

TEST(JitreaderTool, ProgressLineShowsBytesOnATerminalOnly)
{
    const struct { unsigned long long done, total; const char* text; } cases[] = {
        {199ull << 20, 200ull << 20, "reading traces: 99% (199.0 of 200.0 MB)"}, // not 100% before the end
        {200ull << 20, 200ull << 20, "reading traces: 100% (200.0 of 200.0 MB)"},
        {0, 0, "reading traces: 100% (0.0 of 0.0 MB)"}, // nothing to read
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.text, progressText(c.done, c.total));

    // A file is no terminal: nothing is drawn, so no callback is handed to the library.
    std::FILE* file = std::tmpfile();
    ASSERT_NE(nullptr, file);
    for (const bool enabled : {true, false}) {
        ProgressLine line(file, enabled);
        EXPECT_EQ(nullptr, line.progress().callback);
    }
    EXPECT_EQ(0L, std::ftell(file));
    std::fclose(file);
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
    for (const auto& c : cases) {
        const CommandRun listed = run(runAssembly, {folder + "/" + c.file, "--format", "csv"});
        ASSERT_EQ(0, listed.code) << listed.err;
        const std::string text = listed.out + listed.err;
        EXPECT_EQ(c.methods + 1, std::count(text.begin(), text.end(), '\n')) << c.file;
        EXPECT_NE(std::string::npos, listed.out.find(c.someRow + "\n")) << listed.out;
    }
    for (const char* token : {"0x06000999", "x"})
        EXPECT_EQ(1, run(runAssembly, {folder + "/cecil/PdbTarget.exe", "--token", token}).code) << token;
    EXPECT_EQ(1, run(runAssembly, {folder + "/symbolic/Program.cs"}).code);
}

} // namespace
} // namespace jitreader_tool
