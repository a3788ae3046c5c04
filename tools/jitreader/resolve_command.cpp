#include <fstream>
#include <iostream>
#include <set>

#include <boost/filesystem/operations.hpp>

#include "commands.h"
#include "options.h"
#include "platform/text.h"
#include "read_failures.h"
#include "result_directories.h"
#include "samples.h"
#include "symbols.h"
#include "table.h"

using namespace velmark_3_11;

namespace jitreader_tool {
namespace {

/// What became of one sample point.
struct Resolution {
    bool resolved = false;
    std::string reason;               ///< why not, when not resolved
    unsigned long long jitRva = 0;
    std::string module;
    std::vector<Frame> frames;        ///< empty with --lazy
};

std::string joinFrames(const std::vector<Frame>& frames)
{
    std::string text;
    for (std::size_t i = 1; i < frames.size(); ++i)
        text += (i > 1 ? " > " : "") + describe(frames[i]);
    return text;
}

} // namespace

int runResolve(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("resolve", "DIR... --samples FILE",
                         "Resolves sample points (TIME ADDRESS PID HOST per line) to methods, source lines and\n"
                         "inline frames, through the jit rva of each point.");
    options.option("samples", "FILE", "the sample points; '-' reads standard input")
        .option("format", "FORMAT", "table (default), csv or json")
        .flag("lazy", "only read the processes that the samples name, and give jit rva and module")
        .flag("strict", "exit with status 3 when a trace file could not be read completely");
    if (!options.parse(args, out, err))
        return options.exitCode();
    OutputFormat format = OutputFormat::table;
    if (!parseOutputFormat("resolve", options.value("format", "table"), err, format))
        return 2;
    if (!options.has("samples")) {
        err << "jitreader resolve: give the sample points with --samples FILE\n";
        return 2;
    }
    const std::vector<std::string>& directories = options.positional();
    std::size_t traceFiles = 0;
    if (const int code = checkDirectoryOperands("resolve", directories, err, &traceFiles))
        return code;

    std::vector<SamplePoint> samples;
    std::string error;
    const std::string samplesPath = options.value("samples");
    std::ifstream file;
    if (samplesPath != "-") {
        boost::system::error_code statusError;
        if (boost::filesystem::is_directory(samplesPath, statusError)) {
            err << "jitreader resolve: " << samplesPath << ": is a directory, not a file of sample points\n";
            return 1;
        }
        file.open(samplesPath);
        if (!file) {
            err << "jitreader resolve: cannot open " << samplesPath << "\n";
            return 1;
        }
    }
    std::istream& in = samplesPath == "-" ? std::cin : file;
    if (!readSamples(in, samples, error)) {
        err << "jitreader resolve: " << samplesPath << ": " << error << "\n";
        return 1;
    }
    if (in.bad()) {
        err << "jitreader resolve: " << samplesPath << ": could not be read\n";
        return 1;
    }

    // The loader turns a sample point into a jit rva and reads a process only when a sample
    // names it; the resolver, which reads everything, turns the jit rva into the method.
    const ReadFailures readFailures(err);
    const bool lazy = options.has("lazy");
    auto loaderDirectories = directoryIterator(directories);
    const boost::intrusive_ptr<IJitLoader> loader = IJitLoader::create(loaderDirectories);
    boost::intrusive_ptr<ISymbolResolver> resolver;
    if (!lazy) {
        auto resolverDirectories = directoryIterator(directories);
        boost::intrusive_ptr<ISymbolFileLocator> noLocator;
        resolver = ISymbolResolver::create(resolverDirectories, noLocator);
    }
    JitFilesManager registry;
    auto registryDirectories = directoryIterator(directories);
    if (!loader || (!lazy && !resolver) || registry.scanDirectories(registryDirectories, 0) != meSuccess) {
        err << "jitreader resolve: the result directories could not be read\n";
        return 1;
    }

    std::set<std::pair<unsigned int, unsigned int>> processesRead;
    std::vector<Resolution> resolutions;
    for (const SamplePoint& sample : samples) {
        Resolution resolution;
        unsigned int hostId = 0;
        loader->getHostId(toWide(sample.host).c_str(), &hostId);
        const auto host = registry.hosts().find(hostId);
        if (hostId == 0 || host == registry.hosts().end()) {
            resolution.reason = "unknown host";
        } else if (host->second.count(sample.processId) == 0) {
            resolution.reason = "no traces of this process";
        } else {
            processesRead.insert({hostId, sample.processId});
            boost::intrusive_ptr<IModule> module;
            const velmark_error_t result =
                loader->resolveModule(sample.time, sample.address, sample.processId, hostId, &resolution.jitRva, module);
            if (result == meFail) {
                resolution.reason = "no JIT code at this address and time";
            } else if (result != meSuccess) {
                resolution.reason = "the traces of this process could not be read (code " + std::to_string(result) + ")";
            } else {
                resolution.module = toUtf8(module->getName());
                resolution.resolved = true;
                if (resolver) {
                    const boost::intrusive_ptr<ISymbol> symbol = resolver->resolveSymbol(resolution.jitRva);
                    if (symbol) {
                        resolution.frames = framesAt(symbol, resolution.jitRva);
                        resolution.module = moduleName(*symbol);
                    } else {
                        resolution.resolved = false;
                        resolution.reason = "jit rva " + hex(resolution.jitRva) + " names no method";
                    }
                }
            }
        }
        resolutions.push_back(resolution);
    }

    std::size_t resolved = 0;
    Table table(lazy ? std::vector<std::string>{"time", "address", "pid", "host", "jit rva", "module"}
                     : std::vector<std::string>{"time", "address", "pid", "host", "jit rva", "method", "source",
                                                "module", "inlined"});
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const SamplePoint& sample = samples[i];
        const Resolution& resolution = resolutions[i];
        std::vector<std::string> row{std::to_string(sample.time), hex(sample.address),
                                     std::to_string(sample.processId), sample.host};
        if (!resolution.resolved) {
            row.push_back("-");
            row.push_back("unresolved: " + resolution.reason);
            row.resize(lazy ? 6 : 9);
            table.add(row);
            continue;
        }
        ++resolved;
        row.push_back(hex(resolution.jitRva));
        if (lazy) {
            row.push_back(resolution.module);
            table.add(row);
            continue;
        }
        const Frame& outer = resolution.frames.front();
        row.push_back(qualifiedName(*outer.symbol));
        row.push_back(outer.line ? outer.source + ":" + std::to_string(outer.line) : outer.source);
        row.push_back(resolution.module);
        row.push_back(format == OutputFormat::table ? "" : joinFrames(resolution.frames));
        table.add(row);
        if (format == OutputFormat::table) {
            // In the table, each inlined frame gets a row of its own under its caller.
            for (std::size_t f = 1; f < resolution.frames.size(); ++f) {
                const Frame& frame = resolution.frames[f];
                table.add({"", "", "", "", "", std::string(2 * f, ' ') + "> " + qualifiedName(*frame.symbol),
                           frame.line ? frame.source + ":" + std::to_string(frame.line) : frame.source,
                           "", "inlined"});
            }
        }
    }
    table.print(out, format);
    if (format == OutputFormat::table) {
        out << "\nresolved " << resolved << " / " << samples.size() << " samples";
        if (lazy)
            out << "; read " << processesRead.size() << " of " << [&] {
                std::size_t all = 0;
                for (const auto& host : registry.hosts())
                    all += host.second.size();
                return all;
            }() << " processes";
        out << "\n";
    } else {
        err << "resolved " << resolved << " / " << samples.size() << " samples\n";
    }
    return readFailures.report(traceFiles, options.has("strict"), err);
}

} // namespace jitreader_tool
