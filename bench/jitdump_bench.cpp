// Converts a large real jitdump (a Node.js workload of 20,000 functions under --perf-prof, tens
// of MB) into a trace file and reads that through ISymbolResolver::create; prints MB/s of each
// step. Each time is the best of three.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "jitdump_converter.h"
#include "jitreader/jitreader.h"

namespace fs = boost::filesystem;

namespace {

constexpr double kMegabyte = 1 << 20;

const char* const kWorkload =
    "const fns = [];\n"
    "for (let i = 0; i < 20000; i++)\n"
    "  fns.push(new Function('a', 'b', `let s = ${i}; for (let k = 0; k < a; k++) s = (s * 31 + k + b) % ${i + 7};"
    " return s;`));\n"
    "let t = 0;\n"
    "for (let r = 0; r < 3; r++)\n"
    "  for (let i = 0; i < fns.length; i++) t += fns[i](20, r);\n"
    "console.log(t);\n";

double bestSeconds(const std::function<void()>& step)
{
    double best = 1e30;
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        step();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
}

} // namespace

int main()
{
    const std::string node = JITREADER_NODE;
    if (node.empty() || !fs::exists(node)) {
        std::printf("jitdump_bench: Node.js is not installed; skipped\n");
        return 0;
    }
    const fs::path dir = fs::temp_directory_path() / "jitreader-jitdump-bench";
    fs::remove_all(dir);
    fs::create_directories(dir / "traces");
    std::ofstream(dir / "workload.js") << kWorkload;
    // Every function compiled at once and given its own interpreter entry: many code loads.
    const std::string run = "cd '" + dir.string() + "' && '" + node +
                            "' --perf-prof --always-sparkplug --interpreted-frames-native-stack workload.js" +
                            " > /dev/null";
    if (std::system(run.c_str()) != 0) {
        std::printf("jitdump_bench: the Node.js workload failed: %s\n", run.c_str());
        return 1;
    }
    std::string dump;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir))
        if (entry.path().filename().string().rfind("jit-", 0) == 0)
            dump = entry.path().string();
    std::ifstream in(dump, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

    jitreader_tool::JitdumpConverter::Traces traces;
    jitreader_tool::JitdumpConversion result;
    const double convert = bestSeconds([&] {
        traces.clear();
        result = jitreader_tool::JitdumpConverter::convert(bytes.data(), bytes.size(), dump, traces);
    });
    const std::string trace = (dir / "traces" / ("bench." + std::to_string(result.pid) + ".jit")).string();
    const double write = bestSeconds([&] { traces.at(result.pid).writeTo(trace); });
    const double traceBytes = static_cast<double>(fs::file_size(trace));

    std::size_t methods = 0;
    const double load = bestSeconds([&] {
        auto directories = basekit2::make_path_iterator({(dir / "traces").wstring()});
        boost::intrusive_ptr<velmark_3_11::ISymbolFileLocator> locator;
        const auto resolver = velmark_3_11::ISymbolResolver::create(directories, locator);
        methods = 0;
        for (auto it = resolver->getMethods(); !it.at_end(); it.next())
            ++methods;
    });

    const double dumpBytes = static_cast<double>(bytes.size());
    std::printf("jitdump_bench: a Node.js run of 20,000 functions, %.1f MB of jitdump, %zu code loads\n",
                dumpBytes / kMegabyte, result.loads);
    std::printf("  convert in memory        %7.3f s  %7.1f MB/s of jitdump\n", convert,
                dumpBytes / kMegabyte / convert);
    std::printf("  write the trace file     %7.3f s  %7.1f MB/s (%.1f MB)\n", write, traceBytes / kMegabyte / write,
                traceBytes / kMegabyte);
    std::printf("  convert and write        %7.3f s  %7.1f MB/s of jitdump\n", convert + write,
                dumpBytes / kMegabyte / (convert + write));
    std::printf("  ISymbolResolver::create  %7.3f s  %7.1f MB/s of trace, %zu methods\n", load,
                traceBytes / kMegabyte / load, methods);
    fs::remove_all(dir);
    return 0;
}
