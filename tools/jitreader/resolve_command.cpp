#include "commands.h"
#include "options.h"
#include "sample_run.h"
#include "resolution.h"
#include "speedscope_writer.h"
#include "stacks.h"
#include "table.h"

namespace jitreader_tool {
namespace {

std::string sourceLine(const StackFrame& frame)
{
    return frame.line ? frame.source + ":" + std::to_string(frame.line) : frame.source;
}

std::string describe(const StackFrame& frame)
{
    return frame.source.empty() ? frame.method : frame.method + " (" + sourceLine(frame) + ")";
}

std::string frameJson(const StackFrame& frame)
{
    return "{\"method\": " + jsonString(frame.method) + ", \"module\": " + jsonStringOrNull(frame.module) +
           ", \"source\": " + jsonStringOrNull(frame.source) + ", \"line\": " + jsonNumberOrNull(frame.line) + "}";
}

/// One point as a JSON object with the same keys whatever its status; null for what is unknown.
std::string pointJson(const ResolvedPoint& point, bool lazy)
{
    const SamplePoint& sample = point.sample;
    const bool resolved = point.status == PointStatus::resolved;
    std::string text = "{\"time\": " + std::to_string(sample.time) + ", \"address\": " +
                       std::to_string(sample.address) + ", \"address_hex\": " + jsonString(hex(sample.address)) +
                       ", \"pid\": " + std::to_string(sample.processId) + ", \"host\": " + jsonString(sample.host) +
                       ", \"status\": " + jsonString(statusName(point.status)) +
                       ", \"reason\": " + jsonStringOrNull(point.reason) +
                       ", \"jit_rva\": " + (resolved ? std::to_string(point.jitRva) : "null") +
                       ", \"jit_rva_hex\": " + (resolved ? jsonString(hex(point.jitRva)) : "null") +
                       ", \"module\": " + jsonStringOrNull(point.module);
    if (!resolved || lazy)
        return text + ", \"method\": null, \"source\": null, \"line\": null, \"inlined\": " +
               (resolved ? "null}" : "[]}");
    const StackFrame& outer = point.frames.front();
    text += ", \"method\": " + jsonString(outer.method) + ", \"source\": " + jsonStringOrNull(outer.source) +
            ", \"line\": " + jsonNumberOrNull(outer.line) + ", \"inlined\": [";
    for (std::size_t i = 1; i < point.frames.size(); ++i)
        text += (i > 1 ? ", " : "") + frameJson(point.frames[i]);
    return text + "]}";
}

void printJson(std::ostream& out, const Resolution& resolution, bool lazy, bool lines)
{
    out << (lines ? "" : "[");
    for (std::size_t i = 0; i < resolution.points.size(); ++i)
        out << (lines ? "" : i ? ",\n " : "\n ") << pointJson(resolution.points[i], lazy) << (lines ? "\n" : "");
    out << (lines ? "" : "\n]\n");
}

/// One row per point; in CSV the inline chain is one field, in the table each inlined frame
/// gets a row of its own under its caller.
Table pointTable(const Resolution& resolution, bool lazy, OutputFormat format)
{
    const bool csv = format == OutputFormat::csv;
    std::vector<std::string> columns{"time", "address", "pid", "host"};
    if (csv)
        columns.push_back("status");
    columns.push_back("jit rva");
    if (!lazy)
        columns.insert(columns.end(), {"method", "source"});
    columns.push_back("module");
    if (!lazy)
        columns.push_back("inlined");
    if (csv)
        columns.push_back("reason");
    Table table(columns);
    for (const ResolvedPoint& point : resolution.points) {
        const bool resolved = point.status == PointStatus::resolved;
        std::vector<std::string> row{std::to_string(point.sample.time), hex(point.sample.address),
                                     std::to_string(point.sample.processId), point.sample.host};
        if (csv)
            row.push_back(statusName(point.status));
        row.push_back(resolved ? hex(point.jitRva) : "-");
        if (!resolved && !csv) {
            row.push_back("unresolved: " + point.reason);
            row.resize(columns.size());
            table.add(row);
            continue;
        }
        if (!lazy) {
            row.push_back(point.frames.empty() ? "" : point.frames.front().method);
            row.push_back(point.frames.empty() ? "" : sourceLine(point.frames.front()));
        }
        row.push_back(point.module);
        if (!lazy) {
            std::string chain;
            for (std::size_t i = 1; csv && i < point.frames.size(); ++i)
                chain += (i > 1 ? " > " : "") + describe(point.frames[i]);
            row.push_back(chain);
        }
        if (csv)
            row.push_back(point.reason);
        table.add(row);
        for (std::size_t f = 1; !csv && f < point.frames.size(); ++f)
            table.add({"", "", "", "", "", std::string(2 * f, ' ') + "> " + point.frames[f].method,
                       sourceLine(point.frames[f]), "", "inlined"});
    }
    return table;
}

} // namespace

int runResolve(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("resolve", "DIR... --samples FILE",
                         "Resolves sample points (TIME ADDRESS PID HOST per line) to methods, source lines and\n"
                         "inline frames, through the jit rva of each point.");
    options.option("samples", "FILE", "the sample points; '-' reads standard input")
        .option("format", "FORMAT", "table (default), csv, json, jsonl (one JSON object a line) or speedscope")
        .flag("folded", "print each distinct inline chain as 'outer;inner;innermost COUNT' instead")
        .flag("lazy", "only read the processes that the samples name, and give jit rva and module")
        .flag("strict", "exit with status 3 when a trace file could not be read completely")
        .flag("quiet", "show no progress line while the traces are read")
        .option("symbols", "DIR", "look for .NET assemblies and their .pdb files here (repeatable)")
        .flag("full-names", "name methods with their parameter lists where known")
        .example("jitreader resolve demo/alpha demo/beta --samples samples/demo.samples --format json")
        .example("jitreader resolve demo/alpha demo/beta --samples samples/demo.samples --format speedscope > d.json");
    if (!options.parse(args, out, err))
        return options.exitCode();
    OutputFormat format = OutputFormat::table;
    const bool speedscope = options.value("format") == "speedscope";
    if (!speedscope && !parseOutputFormat("resolve", options.value("format", "table"), err, format))
        return kUsageError;
    const bool lazy = options.has("lazy");
    if (speedscope && lazy) {
        err << "jitreader resolve: --format speedscope needs the frames that --lazy leaves out\n";
        return kUsageError;
    }
    const bool folded = options.has("folded");
    if (folded && (lazy || options.has("format"))) {
        err << "jitreader resolve: --folded goes with neither --format nor --lazy\n";
        return kUsageError;
    }
    if (!options.has("samples")) {
        err << "jitreader resolve: give the sample points with --samples FILE\n";
        return kUsageError;
    }
    SampleRun run;
    if (const int code =
            run.resolve("resolve", options, lazy, options.values("symbols"), options.has("full-names"), err))
        return code;
    const Resolution& resolution = run.resolution;

    if (folded)
        writeFolded(out, collectStacks(resolution.points));
    else if (speedscope)
        writeSpeedscope(out, collectStacks(resolution.points), samplesName(options.value("samples")));
    else if (format == OutputFormat::json || format == OutputFormat::jsonl)
        printJson(out, resolution, lazy, format == OutputFormat::jsonl);
    else
        pointTable(resolution, lazy, format).print(out, format);

    std::ostream& summary = format == OutputFormat::table && !folded && !speedscope ? out : err;
    summary << (&summary == &out ? "\n" : "") << "resolved " << resolution.resolvedCount() << " / " << resolution.points.size()
            << " samples";
    if (lazy)
        summary << "; read " << resolution.processesRead << " of " << resolution.processesAll << " processes";
    summary << "\n";
    return run.finish(options, err);
}

} // namespace jitreader_tool
