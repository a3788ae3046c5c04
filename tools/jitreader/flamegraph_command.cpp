#include <fstream>

#include "commands.h"
#include "flame_graph.h"
#include "options.h"
#include "sample_run.h"
#include "resolution.h"
#include "stacks.h"

namespace jitreader_tool {
namespace {

constexpr std::size_t kMinWidth = 200;
constexpr std::size_t kMaxWidth = 100000;

} // namespace

int runFlameGraph(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("flamegraph", "DIR... --samples FILE -o OUT.svg",
                         "Draws where the sample points fall as a flame graph: one SVG file that a browser opens,\n"
                         "methods at the bottom with the frames inlined into them above, as wide as their samples.\n"
                         "Java green, .NET purple, other JIT code orange, unresolved points grey. Click a frame\n"
                         "to zoom in; the search box marks matching frames and shows their share.");
    options.option("samples", "FILE", "the sample points; '-' reads standard input")
        .option("output", "FILE", "the SVG file to write; '-' writes standard output")
        .alias('o', "output")
        .option("title", "TEXT", "the title above the graph (default: Flame graph of FILE)")
        .option("width", "PIXELS", "the width of the picture (default 1200)")
        .option("symbols", "DIR", "look for .NET assemblies and their .pdb files here (repeatable)")
        .flag("strict", "exit with status 3 when a trace file could not be read completely")
        .flag("quiet", "show no progress line while the traces are read")
        .example("jitreader flamegraph demo/alpha demo/beta --samples samples/demo.samples -o demo.svg");
    if (!options.parse(args, out, err))
        return options.exitCode();
    std::size_t width = 0;
    if (!options.positiveValue("width", 1200, width, err))
        return kUsageError;
    if (width < kMinWidth || width > kMaxWidth) {
        err << "jitreader flamegraph: --width needs " << kMinWidth << " to " << kMaxWidth << " pixels, not "
            << width << "\n";
        return kUsageError;
    }
    if (!options.has("samples")) {
        err << "jitreader flamegraph: give the sample points with --samples FILE\n";
        return kUsageError;
    }
    if (!options.has("output")) {
        err << "jitreader flamegraph: give the SVG file to write with -o FILE\n";
        return kUsageError;
    }
    SampleRun run;
    if (const int code = run.resolve("flamegraph", options, false, options.values("symbols"), false, err))
        return code;
    const Resolution& resolution = run.resolution;
    const FlameNode root = buildFlameTree(collectStacks(resolution.points));
    FlameGraphOptions graph;
    graph.title = options.value("title", "Flame graph of " + samplesName(options.value("samples")));
    graph.width = static_cast<unsigned int>(width);

    const std::string path = options.value("output");
    if (path == "-") {
        writeFlameGraph(out, root, graph);
    } else {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        if (file)
            writeFlameGraph(file, root, graph);
        file.close();
        if (!file) {
            err << "jitreader flamegraph: cannot write " << path << "\n";
            return 1;
        }
    }
    // The picture may be on standard output; the summary must not end up inside it.
    (path == "-" ? err : out) << "flame graph of " << resolution.points.size() << " samples ("
                              << resolution.resolvedCount() << " resolved) written to "
                              << (path == "-" ? "standard output" : path) << "\n";
    return run.finish(options, err);
}

} // namespace jitreader_tool
