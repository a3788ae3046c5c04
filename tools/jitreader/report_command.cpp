#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>

#include "commands.h"
#include "options.h"
#include "sample_run.h"
#include "resolution.h"
#include "speedscope_writer.h"
#include "stacks.h"
#include "table.h"

namespace jitreader_tool {
namespace {

/// A row of one section: what `name` and `detail` hold depends on the section.
struct Entry {
    std::string name;
    std::string detail;
    unsigned long long number = 0; ///< the line of a source line, the pid of a process
    std::size_t samples = 0;       ///< self samples of a method
    std::size_t inclusive = 0;     ///< methods only: samples with the method anywhere in the chain
};

struct Report {
    std::size_t samples = 0;
    std::size_t byStatus[kPointStatusCount] = {};
    std::vector<Entry> methods, lines, modules, processes;
};

using EntryKey = std::tuple<std::string, std::string, unsigned long long>;

/// The largest first, each section cut to `top`.
std::vector<Entry> ranked(const std::map<EntryKey, Entry>& entries, std::size_t top)
{
    std::vector<Entry> result;
    for (const auto& entry : entries)
        result.push_back(entry.second);
    std::stable_sort(result.begin(), result.end(), [](const Entry& a, const Entry& b) {
        return std::tie(b.samples, b.inclusive) < std::tie(a.samples, a.inclusive);
    });
    if (result.size() > top)
        result.resize(top);
    return result;
}

Entry& entry(std::map<EntryKey, Entry>& entries, const std::string& name, const std::string& detail,
             unsigned long long number)
{
    Entry& found = entries[EntryKey{name, detail, number}];
    found.name = name;
    found.detail = detail;
    found.number = number;
    return found;
}

Report buildReport(const std::vector<Stack>& stacks, std::size_t top)
{
    Report report;
    std::map<EntryKey, Entry> methods, lines, modules, processes;
    for (const Stack& stack : stacks) {
        report.samples += stack.count;
        report.byStatus[static_cast<int>(stack.status)] += stack.count;
        entry(processes, stack.host, "", stack.processId).samples += stack.count;
        if (stack.status != PointStatus::resolved)
            continue;
        entry(modules, stack.module, "", 0).samples += stack.count;
        // A method inlined into itself counts once towards its inclusive samples.
        std::set<std::pair<std::string, std::string>> seen;
        for (const StackFrame& frame : stack.frames)
            if (seen.insert({frame.method, frame.module}).second)
                entry(methods, frame.method, frame.module, 0).inclusive += stack.count;
        if (stack.frames.empty())
            continue;
        const StackFrame& innermost = stack.frames.back();
        entry(methods, innermost.method, innermost.module, 0).samples += stack.count;
        if (!innermost.source.empty())
            entry(lines, innermost.source, innermost.method, innermost.line).samples += stack.count;
    }
    report.methods = ranked(methods, top);
    report.lines = ranked(lines, top);
    report.modules = ranked(modules, top);
    report.processes = ranked(processes, top);
    return report;
}

std::string percent(std::size_t part, std::size_t whole)
{
    char text[16];
    std::snprintf(text, sizeof text, "%.1f", whole ? 100.0 * static_cast<double>(part) / whole : 0.0);
    return text;
}

std::string sourceLine(const Entry& line)
{
    return line.number ? line.name + ":" + std::to_string(line.number) : line.name;
}

void printTable(std::ostream& out, const Report& report)
{
    out << report.samples << " samples: " << report.byStatus[0] << " resolved";
    for (int status = 1; status < kPointStatusCount; ++status)
        if (report.byStatus[status])
            out << ", " << report.byStatus[status] << " " << statusName(static_cast<PointStatus>(status));
    out << "\n";

    const std::size_t all = report.samples;
    Table methods({"self", "self %", "inclusive", "incl %", "method", "module"});
    for (const Entry& method : report.methods)
        methods.add({std::to_string(method.samples), percent(method.samples, all), std::to_string(method.inclusive),
                     percent(method.inclusive, all), method.name, method.detail});
    Table lines({"samples", "%", "source line", "method"});
    for (const Entry& line : report.lines)
        lines.add({std::to_string(line.samples), percent(line.samples, all), sourceLine(line), line.detail});
    Table modules({"samples", "%", "module"});
    for (const Entry& module : report.modules)
        modules.add({std::to_string(module.samples), percent(module.samples, all), module.name});
    Table processes({"samples", "%", "host", "pid"});
    for (const Entry& process : report.processes)
        processes.add({std::to_string(process.samples), percent(process.samples, all), process.name,
                       std::to_string(process.number)});
    const std::pair<const char*, const Table*> sections[] = {
        {"methods, by self samples (inclusive: with their inlined callees)", &methods},
        {"source lines, where the innermost frame was", &lines},
        {"modules", &modules},
        {"processes", &processes}};
    for (const auto& section : sections) {
        out << "\n" << section.first << "\n";
        section.second->print(out, OutputFormat::table);
    }
}

void printCsv(std::ostream& out, const Report& report)
{
    Table table({"section", "name", "detail", "samples", "percent", "inclusive", "inclusive percent"});
    const std::size_t all = report.samples;
    for (int status = 0; status < kPointStatusCount; ++status)
        table.add({"status", statusName(static_cast<PointStatus>(status)), "", std::to_string(report.byStatus[status]),
                   percent(report.byStatus[status], all), "", ""});
    for (const Entry& method : report.methods)
        table.add({"method", method.name, method.detail, std::to_string(method.samples), percent(method.samples, all),
                   std::to_string(method.inclusive), percent(method.inclusive, all)});
    for (const Entry& line : report.lines)
        table.add({"line", sourceLine(line), line.detail, std::to_string(line.samples), percent(line.samples, all),
                   "", ""});
    for (const Entry& module : report.modules)
        table.add({"module", module.name, "", std::to_string(module.samples), percent(module.samples, all), "", ""});
    for (const Entry& process : report.processes)
        table.add({"process", process.name, std::to_string(process.number), std::to_string(process.samples),
                   percent(process.samples, all), "", ""});
    table.print(out, OutputFormat::csv);
}

void printJson(std::ostream& out, const Report& report)
{
    const std::size_t all = report.samples;
    auto counted = [&](std::size_t samples, const char* name) {
        return std::string(", \"") + name + "\": " + std::to_string(samples) + ", \"" + name +
               "_percent\": " + percent(samples, all);
    };
    auto list = [&](const char* name, const std::vector<Entry>& entries, auto&& fields) {
        out << ",\n \"" << name << "\": [";
        for (std::size_t i = 0; i < entries.size(); ++i)
            out << (i ? ",\n  " : "\n  ") << "{" << fields(entries[i]) << "}";
        out << (entries.empty() ? "]" : "\n ]");
    };
    out << "{\"samples\": " << all << ",\n \"status\": {";
    for (int status = 0; status < kPointStatusCount; ++status)
        out << (status ? ", " : "") << jsonString(statusName(static_cast<PointStatus>(status))) << ": "
            << report.byStatus[status];
    out << "}";
    list("methods", report.methods, [&](const Entry& method) {
        return "\"method\": " + jsonString(method.name) + ", \"module\": " + jsonStringOrNull(method.detail) +
               counted(method.samples, "self") + counted(method.inclusive, "inclusive");
    });
    list("lines", report.lines, [&](const Entry& line) {
        return "\"source\": " + jsonString(line.name) + ", \"line\": " + jsonNumberOrNull(line.number) +
               ", \"method\": " + jsonString(line.detail) + counted(line.samples, "samples");
    });
    list("modules", report.modules, [&](const Entry& module) {
        return "\"module\": " + jsonStringOrNull(module.name) + counted(module.samples, "samples");
    });
    list("processes", report.processes, [&](const Entry& process) {
        return "\"host\": " + jsonString(process.name) + ", \"pid\": " + std::to_string(process.number) +
               counted(process.samples, "samples");
    });
    out << "\n}\n";
}

} // namespace

int runReport(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("report", "DIR... --samples FILE",
                         "Says where the sample points fall: the top methods (self, and inclusive of the methods\n"
                         "inlined into them), source lines, modules and processes.");
    options.option("samples", "FILE", "the sample points; '-' reads standard input")
        .option("format", "FORMAT", "table (default), csv, json or speedscope (the stacks, for that viewer)")
        .option("top", "N", "show the N largest entries of each section (default 10)")
        .flag("folded", "print each distinct inline chain as 'outer;inner;innermost COUNT' instead")
        .flag("strict", "exit with status 3 when a trace file could not be read completely")
        .flag("quiet", "show no progress line while the traces are read")
        .example("jitreader report demo/alpha demo/beta --samples samples/demo.samples --top 5")
        .example("jitreader report demo/alpha demo/beta --samples samples/demo.samples --folded > demo.folded");
    if (!options.parse(args, out, err))
        return options.exitCode();
    OutputFormat format = OutputFormat::table;
    const bool speedscope = options.value("format") == "speedscope";
    if (!speedscope && !parseOutputFormat("report", options.value("format", "table"), err, format))
        return kUsageError;
    if (speedscope && options.has("top")) {
        err << "jitreader report: --format speedscope keeps every stack; leave out --top\n";
        return kUsageError;
    }
    if (format == OutputFormat::jsonl) {
        err << "jitreader report: the report is one JSON object; use --format json\n";
        return kUsageError;
    }
    std::size_t top = 0;
    if (!options.positiveValue("top", 10, top, err))
        return kUsageError;
    if (options.has("folded") && (options.has("format") || options.has("top"))) {
        err << "jitreader report: --folded goes with neither --format nor --top\n";
        return kUsageError;
    }
    if (!options.has("samples")) {
        err << "jitreader report: give the sample points with --samples FILE\n";
        return kUsageError;
    }
    SampleRun run;
    if (const int code = run.resolve("report", options, false, {}, false, err))
        return code;
    const std::vector<Stack> stacks = collectStacks(run.resolution.points);
    if (options.has("folded")) {
        writeFolded(out, stacks);
    } else if (speedscope) {
        writeSpeedscope(out, stacks, samplesName(options.value("samples")));
    } else {
        const Report report = buildReport(stacks, top);
        if (format == OutputFormat::table)
            printTable(out, report);
        else if (format == OutputFormat::csv)
            printCsv(out, report);
        else
            printJson(out, report);
    }
    return run.finish(options, err);
}

} // namespace jitreader_tool
