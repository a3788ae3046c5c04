#include <unistd.h>

#include <fstream>

#include <boost/filesystem.hpp>

#include "commands.h"
#include "jitdump_converter.h"
#include "options.h"
#include "read_failures.h"

namespace jitreader_tool {
namespace {

const char* const kSummary =
    "Converts jitdump files, the jit-PID.dump that Node.js (--perf-prof), .NET\n"
    "(DOTNET_PerfMapEnabled=1), wasmtime, LuaJIT and other runtimes write for perf, into trace\n"
    "files HOST.PID.jit in DIR, one per process.\n"
    "\n"
    "Kept: every code load as a method load (code index + 1 as the method's raw id, time stamp,\n"
    "address, code bytes, name); the line entries of its debug info as a line table in one\n"
    "source file; every move as a new load of the same method at its new address and time.\n"
    "Files of either byte order; a file that ends inside a record (the runtime still writing)\n"
    "is converted up to that record, and records that are not whole are reported and left out.\n"
    "\n"
    "Not expressed: unwinding info; that moved code leaves its old address (the old copy stays\n"
    "live for lookups); line entries in another source file than the code's first one (inlined\n"
    "code), and discriminators; line entries that do not fit their code (reported); names past\n"
    "511 bytes are cut; raw ids keep the low 32 bits of code indexes. Names are shown as the\n"
    "library shows all names: dots as '::', the short name ending before '('. Time stamps are\n"
    "kept as written (CLOCK_MONOTONIC or the dump's architecture clock): sample points must use\n"
    "the same clock. The method dump disassembles x86 code only.";

std::string localHostName()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0')
        return "localhost";
    return name;
}

bool readWhole(const std::string& path, std::vector<char>& bytes)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        return false;
    const std::streamoff size = in.tellg();
    if (size < 0)
        return false;
    bytes.resize(static_cast<std::size_t>(size));
    in.seekg(0);
    return static_cast<bool>(in.read(bytes.data(), size));
}

} // namespace

int runImportJitdump(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("import-jitdump", "FILE... -o DIR", kSummary);
    options.option("output", "DIR", "the directory of the trace files; made when missing")
        .alias('o', "output")
        .option("host", "NAME", "the host part of the trace file names (default: this machine's name)")
        .flag("strict", "exit with status 3 when a record was left out or a file ended inside a record")
        .example("node --perf-prof app.js && jitreader import-jitdump jit-*.dump -o traces --host web1");
    if (!options.parse(args, out, err))
        return options.exitCode();
    const std::vector<std::string>& inputs = options.positional();
    if (inputs.empty()) {
        err << "jitreader import-jitdump: no jitdump file given\n";
        return kUsageError;
    }
    if (!options.has("output")) {
        err << "jitreader import-jitdump: no output directory given (-o DIR)\n";
        return kUsageError;
    }
    const std::string host = options.value("host", localHostName());
    if (host.empty() || host.find('/') != std::string::npos) {
        err << "jitreader import-jitdump: --host needs a name without '/'\n";
        return kUsageError;
    }
    const std::string directory = options.value("output");
    boost::system::error_code error;
    boost::filesystem::create_directories(directory, error);
    if (!boost::filesystem::is_directory(directory)) {
        err << "jitreader import-jitdump: " << directory << ": cannot make the directory\n";
        return 1;
    }

    int status = 0;
    bool leftOut = false;
    JitdumpConverter::Traces traces;
    std::map<std::uint32_t, JitdumpConversion> totals;
    {
        const ReadFailures messages(err);
        for (const std::string& input : inputs) {
            std::vector<char> bytes;
            if (!readWhole(input, bytes)) {
                err << "jitreader import-jitdump: " << input << ": cannot read the file\n";
                status = 1;
                continue;
            }
            const JitdumpConversion result = JitdumpConverter::convert(bytes.data(), bytes.size(), input, traces);
            if (!result.read) {
                status = 1;
                continue;
            }
            JitdumpConversion& total = totals[result.pid];
            total.loads += result.loads;
            total.moves += result.moves;
            total.withLines += result.withLines;
            total.leftOut += result.leftOut;
            leftOut = leftOut || result.leftOut != 0 || !result.complete;
        }
    }
    for (const auto& trace : traces) {
        const std::string name = host + "." + std::to_string(trace.first) + ".jit";
        const std::string path = (boost::filesystem::path(directory) / name).string();
        try {
            trace.second.writeTo(path);
        } catch (const std::exception&) {
            err << "jitreader import-jitdump: " << path << ": cannot write the trace file\n";
            status = 1;
            continue;
        }
        const JitdumpConversion& total = totals[trace.first];
        out << path << ": " << total.loads << " code loads, " << total.moves << " moves, " << total.withLines
            << " with line tables, " << total.leftOut << " left out\n";
    }
    if (status == 0 && leftOut && options.has("strict"))
        return 3;
    return status;
}

} // namespace jitreader_tool
