#include <sstream>

#include "commands.h"
#include "jitreader/jit_method.h"
#include "jitreader/method_dump.h"
#include "options.h"
#include "progress_line.h"
#include "platform/text.h"
#include "read_failures.h"
#include "result_directories.h"
#include "symbol_directories.h"
#include "symbols.h"
#include "table.h"

using namespace velmark_3_11;

namespace jitreader_tool {

int runMethods(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("methods", "DIR...", "Reads every trace of the result directories and lists the methods.");
    options.flag("dump", "print the full dump of each method (regions, disassembly, line tables)")
        .option("format", "FORMAT", "table (default), csv, json or jsonl (one JSON object a line)")
        .flag("strict", "exit with status 3 when a trace file could not be read completely")
        .flag("quiet", "show no progress line while the traces are read")
        .option("symbols", "DIR", "fill in .NET methods from the assemblies and .pdb files here (repeatable)")
        .example("jitreader methods demo/alpha demo/beta --format csv");
    if (!options.parse(args, out, err))
        return options.exitCode();
    OutputFormat format = OutputFormat::table;
    if (!parseOutputFormat("methods", options.value("format", "table"), err, format))
        return kUsageError;
    const std::vector<std::string>& directories = options.positional();
    std::size_t traceFiles = 0;
    if (const int code = checkDirectoryOperands("methods", directories, err, &traceFiles))
        return code;

    const ReadFailures readFailures(err);
    auto iterator = directoryIterator(directories);
    boost::intrusive_ptr<ISymbolFileLocator> locator = symbolLocator(options.values("symbols"));
    boost::intrusive_ptr<ISymbolResolver> resolver;
    {
        ProgressLine progressLine(stderr, !options.has("quiet"));
        resolver = createSymbolResolver(iterator, locator, progressLine.progress());
    }
    if (!resolver) {
        err << "jitreader methods: the result directories could not be read\n";
        return 1;
    }

    Table table({"jit rva", "load time", "regions", "module", "method", "source"});
    table.numeric({"load time", "regions"});
    for (auto methods = resolver->getMethods(); !methods.at_end(); methods.next()) {
        boost::intrusive_ptr<ISymbol> symbol = methods.current();
        // Resolving a method fills in what its assembly knows of it.
        if (locator && symbol->getMetadataToken() != 0)
            if (const boost::intrusive_ptr<ISymbol> resolved = resolver->resolveSymbol(symbol->getStartJitRva()))
                symbol = resolved;
        if (options.has("dump")) {
            // The tool is built with the library's own units, so every symbol is a JitMethod.
            std::wostringstream dump;
            dumpMethod(dump, static_cast<JitMethod&>(*symbol));
            out << toUtf8(dump.str()) << "\n\n";
            continue;
        }
        unsigned long long first = 0;
        unsigned long long end = 0;
        std::size_t regions = 0;
        for (auto it = symbol->getCodeRegions(); !it.at_end(); it.next(), ++regions) {
            const auto region = it.current();
            if (regions == 0) {
                first = region->startJitRva();
                end = first + region->length();
            }
        }
        table.add({hex(first) + "-" + hex(end), std::to_string(symbol->getLoadTime()), std::to_string(regions),
                   moduleName(*symbol), qualifiedName(*symbol), sourceFileName(*symbol)});
    }
    if (!options.has("dump"))
        table.print(out, format);
    return readFailures.report(traceFiles, options.has("strict"), err);
}

} // namespace jitreader_tool
