// `jitreader assembly FILE`: the methods of a .NET assembly as its metadata and debug file
// describe them.
#include <sstream>

#include "commands.h"
#include "jitreader/assembly_reader_impl.h"
#include "options.h"
#include "platform/text.h"
#include "table.h"

using namespace velmark_3_11;

namespace jitreader_tool {
namespace {

// The portable debug reader answers for single offsets only: probe each IL offset up to
// this bound.
constexpr unsigned int kLargestProbedOffset = 0xFFFF;

std::string lineTable(DotNetMethod& method)
{
    std::ostringstream text;
    if (method.getReaderKind() == 2) {
        for (unsigned int offset = 0; offset <= kLargestProbedOffset; ++offset)
            if (const unsigned int line = method.getLineForOffset(offset))
                text << (text.tellp() > 0 ? " " : "") << hex(offset) << ":" << line;
        return text.str();
    }
    unsigned int count = 0;
    if (method.getLineTable(nullptr, &count) != meSuccess)
        return std::string();
    std::vector<LineRow> rows(count);
    if (method.getLineTable(rows.data(), &count) != meSuccess)
        return std::string();
    for (unsigned int i = 0; i < count; ++i)
        text << (i ? " " : "") << hex(rows[i].startOffset) << ":" << rows[i].line;
    return text.str();
}

bool parseToken(const std::string& text, unsigned int& token)
{
    std::size_t used = 0;
    try {
        const unsigned long value = std::stoul(text, &used, 0);
        token = static_cast<unsigned int>(value);
        return used == text.size() && value <= 0xFFFFFFFFul && value != 0;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

int runAssembly(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    OptionParser options("assembly", "FILE",
                         "Lists the methods of a .NET assembly: token, class, name, signature, source file and "
                         "line table (IL offset:line), read from its metadata and debug file.");
    options.option("pdb", "FILE", "the debug file (default: the assembly's name with .pdb)")
        .option("token", "T", "only the method of this metadata token (0x06... or decimal)")
        .option("format", "FORMAT", "table (default), csv, json or jsonl (one JSON object a line)")
        .example("jitreader assembly samples/dotnet/foo.dll --token 0x06000007");
    if (!options.parse(args, out, err))
        return options.exitCode();
    OutputFormat format = OutputFormat::table;
    if (!parseOutputFormat("assembly", options.value("format", "table"), err, format))
        return kUsageError;
    if (options.positional().size() != 1) {
        err << "jitreader assembly: name exactly one assembly FILE\n";
        return kUsageError;
    }
    unsigned int only = 0;
    if (options.has("token") && !parseToken(options.value("token"), only)) {
        err << "jitreader assembly: --token wants a metadata token, not '" << options.value("token") << "'\n";
        return kUsageError;
    }
    const std::wstring path = toWide(options.positional()[0]);
    const std::wstring pdb = toWide(options.value("pdb"));
    boost::intrusive_ptr<IAssemblyReader> reader;
    if (IAssemblyReader::create(path.c_str(), options.has("pdb") ? pdb.c_str() : nullptr, reader) != meSuccess) {
        err << "jitreader assembly: " << options.positional()[0] << " is no .NET assembly that can be opened\n";
        return 1;
    }

    Table table({"token", "class", "name", "signature", "source", "lines"});
    // Method def rows run from 1 without gaps, and every one has a name.
    const unsigned int first = only ? only : 0x06000001;
    for (unsigned int token = first; token <= 0x06FFFFFF && (only == 0 || token == only); ++token) {
        const boost::intrusive_ptr<DotNetMethod> method = reader->getMethod(token);
        if (!method || method->getRawName(token).empty())
            break;
        SourceFile source;
        method->getSourceFile(source);
        table.add({hex(token), toUtf8(method->getClassName()), toUtf8(method->getMethodName()),
                   toUtf8(method->getSignature()), toUtf8(source.name()), lineTable(*method)});
    }
    if (only != 0 && table.size() == 0) {
        err << "jitreader assembly: the assembly has no method " << hex(only) << "\n";
        return 1;
    }
    table.print(out, format);
    return 0;
}

} // namespace jitreader_tool
