#include "demo_traces.h"

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "tracewriter/trace_writer.h"

namespace fs = boost::filesystem;
using namespace tracewriter;

namespace jitreader_demo {
namespace {

/// A small, portable pseudo-random sequence (splitmix64), so that the data never depends on
/// the standard library's distributions.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    /// A number in [low, high].
    std::uint32_t between(std::uint32_t low, std::uint32_t high)
    {
        return low + static_cast<std::uint32_t>(next() % (high - low + 1));
    }

private:
    std::uint64_t m_state;
};

/// Plausible x86 code of `size` bytes: prologue, a body of stack arithmetic, epilogue, padding.
Bytes makeCode(Random& random, std::uint32_t size, bool is64)
{
    const Bytes prologue64 = {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xEC, 0x20};
    const Bytes prologue32 = {0x55, 0x89, 0xE5, 0x83, 0xEC, 0x20};
    const std::vector<Bytes> body64 = {
        {0x48, 0x8B, 0x45, 0xF8}, {0x48, 0x83, 0xC0, 0x01}, {0x48, 0x89, 0x45, 0xF8},
        {0x8B, 0x4D, 0xF4}, {0x01, 0xC8}, {0x48, 0x85, 0xC0}, {0x90},
    };
    const std::vector<Bytes> body32 = {
        {0x8B, 0x45, 0xFC}, {0x83, 0xC0, 0x01}, {0x89, 0x45, 0xFC}, {0x01, 0xC8}, {0x85, 0xC0}, {0x90},
    };
    const Bytes epilogue = {0xC9, 0xC3};

    Bytes code = is64 ? prologue64 : prologue32;
    const std::vector<Bytes>& body = is64 ? body64 : body32;
    while (code.size() + 4 + epilogue.size() <= size) {
        const Bytes& instruction = body[random.next() % body.size()];
        code.insert(code.end(), instruction.begin(), instruction.end());
    }
    code.insert(code.end(), epilogue.begin(), epilogue.end());
    code.resize(size, 0xCC);
    return code;
}

/// A native-to-source (or native-to-managed) table that cuts [0, size) into a few pieces.
std::vector<LineRow> makeLines(Random& random, std::uint32_t size, std::uint32_t firstLine)
{
    std::vector<LineRow> rows;
    std::uint32_t start = 0;
    std::uint32_t line = firstLine;
    while (start < size) {
        const std::uint32_t end = std::min(size, start + random.between(8, 48));
        rows.push_back(LineRow{start, end, line});
        start = end;
        line += random.between(1, 3);
    }
    return rows;
}

struct JavaMethod {
    const char* className;  // descriptor form
    const char* methodName; // name and descriptor
    const char* sourceFile;
};

const JavaMethod kShopMethods[] = {
    {"Lcom/example/shop/Cart;", "addItem(Lcom/example/shop/Item;I)V", "Cart.java"},
    {"Lcom/example/shop/Cart;", "total()J", "Cart.java"},
    {"Lcom/example/shop/Cart;", "removeItem(Ljava/lang/String;)Z", "Cart.java"},
    {"Lcom/example/shop/Item;", "<init>(Ljava/lang/String;J)V", "Item.java"},
    {"Lcom/example/shop/Item;", "price()J", "Item.java"},
    {"Lcom/example/shop/Catalog;", "find(Ljava/lang/String;)Ljava/util/Optional;", "Catalog.java"},
    {"Lcom/example/shop/Catalog;",
     "groupBy(Ljava/util/Map<Ljava/lang/String;Ljava/util/List<Lcom/example/shop/Item;>;>;)V", "Catalog.java"},
    {"Lcom/example/shop/Checkout;", "run([Ljava/lang/String;)V", "Checkout.java"},
    {"Lcom/example/shop/Checkout;", "lambda$run$0(Ljava/util/List<+Ljava/lang/Number;>;)D", "Checkout.java"},
    {"Lcom/example/shop/Pricing;", "discount(DI)D", "Pricing.java"},
};

const JavaMethod kReportMethods[] = {
    {"Lorg/example/report/Table;", "addRow([Ljava/lang/Object;)V", "Table.java"},
    {"Lorg/example/report/Table;", "render(Ljava/io/Writer;)V", "Table.java"},
    {"Lorg/example/report/Column;", "width()I", "Column.java"},
    {"Lorg/example/report/Formatter;", "format(Ljava/lang/Object;I)Ljava/lang/String;", "Formatter.java"},
    {"Lorg/example/report/Main;", "main([Ljava/lang/String;)V", "Main.java"},
};

const JavaMethod kInlinees[] = {
    {"Ljava/util/ArrayList;", "size()I", "ArrayList.java"},
    {"Ljava/lang/String;", "length()I", "String.java"},
    {"Ljava/util/HashMap;", "get(Ljava/lang/Object;)Ljava/lang/Object;", "HashMap.java"},
};

/// One placed method, kept to pick sample points from.
struct Placed {
    std::uint64_t address;
    std::uint32_t size;
    std::uint64_t loadTime;
    std::string label;
    bool hasInline = false;
};

/// The first of `methods` that covers `address`, or null.
const Placed* covering(const std::vector<Placed>& methods, std::uint64_t address)
{
    for (const Placed& method : methods)
        if (method.address <= address && address < method.address + method.size)
            return &method;
    return nullptr;
}

/// A JIT-compiled Java process: generations of code laid over the same code cache, with a few
/// inlined callees, under the JIT profiler's collector type.
std::vector<Placed> writeJavaProcess(TraceWriter& out, Random& random, const JavaMethod* methods, std::size_t count,
                                     std::uint64_t codeCache, std::uint64_t firstLoad, int generations,
                                     int methodsPerGeneration, std::uint32_t& nextId)
{
    std::vector<Placed> placed;
    out.magic().collectorType(1);
    for (int generation = 0; generation < generations; ++generation) {
        std::uint64_t address = codeCache + generation * 0x40; // new code overlaps old code
        std::uint64_t time = firstLoad + static_cast<std::uint64_t>(generation) * 4000000;
        for (int i = 0; i < methodsPerGeneration; ++i) {
            const JavaMethod& method = methods[random.next() % count];
            MethodLoad record;
            record.rawMethodId = nextId++;
            record.loadTime = time;
            const std::uint32_t size = random.between(3, 25) * 16;
            record.ranges.push_back(CodeRange{address, size, makeCode(random, size, true)});
            record.moduleArch = 1;
            record.methodName = method.methodName;
            record.className = method.className;
            record.sourceFile = method.sourceFile;
            record.languageType = 5;
            record.nativeToSource = makeLines(random, size, random.between(10, 400));
            out.load(kFunctionLoad64_v3, record);
            placed.push_back(Placed{address, size, time, std::string(method.className) + method.methodName});

            // Every third method got a small callee inlined at the start of its body.
            if (i % 3 == 0 && size >= 64) {
                placed.back().hasInline = true;
                const JavaMethod& callee = kInlinees[random.next() % 3];
                InlineLoad inlined;
                inlined.rawMethodId = nextId++;
                inlined.parentRawMethodId = record.rawMethodId;
                inlined.loadTime = time;
                inlined.startAddr = address + 16;
                inlined.size = 24;
                inlined.bytes = Bytes(record.ranges[0].bytes.begin() + 16, record.ranges[0].bytes.begin() + 40);
                inlined.moduleArch = 1;
                inlined.methodName = callee.methodName;
                inlined.className = callee.className;
                inlined.sourceFile = callee.sourceFile;
                inlined.languageType = 5;
                inlined.nativeToSource = {{0, 12, random.between(100, 900)}, {12, 24, random.between(100, 900)}};
                out.inlineLoad(kFunctionInlineLoad64, inlined);
            }
            address += size + random.between(0, 2) * 16;
            time += random.between(200, 3000);
        }
    }
    return placed;
}

/// A .NET process of an older agent: methods with metadata tokens and two-step line tables.
std::vector<Placed> writeDotNetProcess(TraceWriter& out, Random& random, std::uint64_t codeBase,
                                       std::uint64_t firstLoad)
{
    const char* classes[] = {"Shop.Core.Cart", "Shop.Core.Inventory", "Shop.Web.OrderController"};
    const char* names[] = {"AddItem", "GetTotal", "Reserve", "Post", "Validate", "Dispose"};
    std::vector<Placed> placed;
    out.magic();
    std::uint64_t address = codeBase;
    std::uint64_t time = firstLoad;
    for (std::uint32_t i = 0; i < 60; ++i) {
        MethodLoad record;
        record.rawMethodId = 100 + i;
        record.metadataToken = 0x06000001 + i;
        record.loadTime = time;
        const std::uint32_t size = random.between(4, 20) * 16;
        record.ranges.push_back(CodeRange{address, size, makeCode(random, size, true)});
        record.modulePath = i % 3 == 2 ? "/opt/shop/Shop.Web.dll" : "/opt/shop/Shop.Core.dll";
        record.moduleArch = 1;
        record.className = classes[i % 3];
        record.methodName = names[random.next() % 6];
        record.sourceFile = std::string("/src/") + classes[i % 3] + ".cs";
        record.checksumType = 1;
        record.checksum = "9f86d081884c7d659a2feaa0c55ad015";
        record.languageType = 1;
        // IL offsets step by 4; lines from the managed-to-source table.
        std::vector<LineRow> nativeToManaged = makeLines(random, size, 0);
        std::uint32_t il = 0;
        for (LineRow& row : nativeToManaged) {
            row.third = il;
            record.managedToSource.push_back(LineRow{il, il + 4, 20 + il / 2});
            il += 4;
        }
        record.nativeToManaged = nativeToManaged;
        out.load(kFunctionLoad64_v2, record);
        placed.push_back(Placed{address, size, time, std::string(record.className) + "." + record.methodName});
        address += size;
        time += random.between(500, 5000);
    }
    return placed;
}

/// A 32-bit process of the oldest agent, with plain names.
std::vector<Placed> writeLegacyProcess(TraceWriter& out, Random& random, std::uint64_t codeBase,
                                       std::uint64_t firstLoad)
{
    const char* names[] = {"Parser.parseLine", "Parser.skipBlanks", "Lexer.next", "Lexer.peek", "Main.run"};
    std::vector<Placed> placed;
    out.magic();
    std::uint64_t address = codeBase;
    for (std::uint32_t i = 0; i < 40; ++i) {
        MethodLoad record;
        record.metadataToken = 0x06000100 + i;
        record.loadTime = firstLoad + i * 700;
        const std::uint32_t size = random.between(3, 12) * 16;
        record.ranges.push_back(CodeRange{address, size, makeCode(random, size, false)});
        record.modulePath = "/usr/lib/legacy/parser.dll";
        record.moduleArch = 0;
        const std::string full = names[i % 5];
        record.className = full.substr(0, full.find('.'));
        record.methodName = full.substr(full.find('.') + 1) + std::to_string(i);
        record.sourceFile = "parser.c";
        record.nativeToSource = makeLines(random, size, 100 + i * 10);
        out.load(kFunctionLoad32, record);
        placed.push_back(Placed{address, size, record.loadTime, record.className + "." + record.methodName});
        address += size;
    }
    return placed;
}

void write(const TraceWriter& trace, const fs::path& directory, const std::string& name)
{
    trace.writeTo((directory / name).string());
}

struct Sample {
    std::uint64_t time;
    std::uint64_t address;
    unsigned int pid;
    std::string host;
    std::string note;
};

void writeSamples(const fs::path& path, const std::vector<Sample>& samples)
{
    std::FILE* file = std::fopen(path.string().c_str(), "w");
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
    std::fprintf(file, "# time stamp, address, process id, host name\n");
    for (const Sample& sample : samples) {
        if (!sample.note.empty())
            std::fprintf(file, "# %s\n", sample.note.c_str());
        std::fprintf(file, "%llu 0x%llx %u %s\n", static_cast<unsigned long long>(sample.time),
                     static_cast<unsigned long long>(sample.address), sample.pid, sample.host.c_str());
    }
    std::fclose(file);
}

/// A .NET process on a Windows host whose agent wrote only the metadata token and module
/// path of each method of samples/dotnet/foo.dll: names, source files and lines come from the
/// assembly and its debug file. Each method's code has one 16-byte range per IL offset listed.
void writeAssemblyProcess(TraceWriter& out)
{
    const struct {
        std::uint32_t token;
        std::vector<std::uint32_t> ilOffsets;
    } methods[] = {
        {0x06000001, {0x0, 0x6, 0x12, 0x1d}}, {0x06000002, {0x0, 0x6}},       {0x06000003, {0x0, 0x6}},
        {0x06000004, {0x0}},                   {0x06000005, {0x0, 0x6, 0xc}}, {0x06000006, {0x0, 0x7, 0xf, 0x11}},
        {0x06000007, {0x0, 0xb, 0xc, 0x13}},   {0x06000008, {0x0}},           {0x06000009, {0x0}},
        {0x0600000A, {0x0}},
    };
    out.magic();
    std::uint64_t address = 0x7ff8a0001000ULL;
    std::uint64_t time = 2000000;
    for (const auto& method : methods) {
        MethodLoad record;
        record.rawMethodId = method.token & 0xFFFF;
        record.metadataToken = method.token;
        record.loadTime = time;
        const std::uint32_t size = static_cast<std::uint32_t>(method.ilOffsets.size() * 16);
        Random random(method.token);
        record.ranges.push_back(CodeRange{address, size, makeCode(random, size, true)});
        record.modulePath = "C:\\Program Files\\foo\\foo.dll";
        record.moduleArch = 1;
        for (std::uint32_t i = 0; i < method.ilOffsets.size(); ++i)
            record.nativeToManaged.push_back(LineRow{i * 16, i * 16 + 16, method.ilOffsets[i]});
        out.load(kFunctionLoad64_v2, record);
        address += 0x100;
        time += 1000;
    }
}

} // namespace

void writeDemoResults(const std::string& directory, const std::string& samplesPath)
{
    const fs::path root(directory);
    fs::create_directories(root / "alpha");
    fs::create_directories(root / "beta");
    fs::create_directories(root / "dotnet");
    TraceWriter assembly;
    writeAssemblyProcess(assembly);
    write(assembly, root / "dotnet", "win.lab.3100.jit");
    Random random(20261122);
    std::uint32_t nextId = 1;

    // alpha.lab, process 4242: a Java service whose code cache is reused by three generations,
    // in two trace files.
    TraceWriter alphaFirst;
    TraceWriter alphaSecond;
    const auto alphaOld = writeJavaProcess(alphaFirst, random, kShopMethods, 10, 0x7f3a10000000ULL, 1000000, 2, 60, nextId);
    const auto alphaNew = writeJavaProcess(alphaSecond, random, kShopMethods, 10, 0x7f3a10000000ULL, 9000000, 1, 60, nextId);
    write(alphaFirst, root / "alpha", "alpha.lab.4242-0.jit");
    write(alphaSecond, root / "alpha", "alpha.lab.4242-1.jit");

    // alpha.lab, process 5150: a .NET service.
    TraceWriter dotnet;
    const auto dotnetMethods = writeDotNetProcess(dotnet, random, 0x7ffd20000000ULL, 2000000);
    write(dotnet, root / "alpha", "alpha.lab.5150.jit");

    // beta.lab, process 4242: same process id and same addresses as on alpha, other code.
    TraceWriter beta;
    nextId = 1;
    const auto betaMethods = writeJavaProcess(beta, random, kReportMethods, 5, 0x7f3a10000000ULL, 1500000, 2, 40, nextId);
    write(beta, root / "beta", "beta.lab.4242.jit");

    // beta.lab, process 77: a 32-bit program.
    TraceWriter legacy;
    const auto legacyMethods = writeLegacyProcess(legacy, random, 0x08100000ULL, 3000000);
    write(legacy, root / "beta", "beta.lab.77.jit");

    if (samplesPath.empty())
        return;

    std::vector<Sample> samples;
    // Each generation is sampled after all of its methods were loaded, so that the method
    // that covers the address is there, and the one before it is gone.
    const std::vector<Placed> generation1(alphaOld.begin(), alphaOld.begin() + 60);
    const std::vector<Placed> generation2(alphaOld.begin() + 60, alphaOld.end());
    std::uint64_t reusedAddress = 0;
    for (const Placed& method : generation2) {
        reusedAddress = method.address + 8;
        if (covering(generation1, reusedAddress) && covering(alphaNew, reusedAddress))
            break;
    }
    const Placed& reused = *covering(generation1, reusedAddress);
    samples.push_back({generation1.back().loadTime + 10, reusedAddress, 4242, "alpha.lab",
                       "one address at three times: three generations of the code cache"});
    samples.push_back({generation2.back().loadTime + 10, reusedAddress, 4242, "alpha.lab", ""});
    samples.push_back({alphaNew.back().loadTime + 10, reusedAddress, 4242, "alpha.lab", ""});
    samples.push_back({betaMethods.back().loadTime + 10, reusedAddress, 4242, "beta.lab",
                       "the same address and process id on the other host"});
    for (int i = 10; i < 60; i += 7)
        samples.push_back({alphaNew.back().loadTime + 100, alphaNew[i].address + alphaNew[i].size / 2, 4242,
                           "alpha.lab", i == 10 ? "inside methods of the newest generation" : ""});
    int inlineSamples = 0;
    for (std::size_t i = 40; i < betaMethods.size() && inlineSamples < 3; ++i) {
        if (!betaMethods[i].hasInline)
            continue;
        samples.push_back({betaMethods.back().loadTime + 1, betaMethods[i].address + 20, 4242, "beta.lab",
                           inlineSamples++ == 0 ? "inside callees inlined at the start of their callers" : ""});
    }
    for (int i = 0; i < 60; i += 11)
        samples.push_back({dotnetMethods[i].loadTime + 5, dotnetMethods[i].address + dotnetMethods[i].size * 2 / 3,
                           5150, "alpha.lab", i == 0 ? ".NET methods, lines through IL offsets" : ""});
    for (int i = 1; i < 40; i += 9)
        samples.push_back({legacyMethods[i].loadTime, legacyMethods[i].address, 77, "beta.lab",
                           i == 1 ? "a 32-bit process, sampled at the load time stamp" : ""});
    samples.push_back({reused.loadTime - 1, reused.address, 4242, "alpha.lab", "before any code was there"});
    samples.push_back({reused.loadTime + 10, 0x400000, 4242, "alpha.lab", "an address outside JIT code"});
    samples.push_back({reused.loadTime + 10, reused.address, 9999, "alpha.lab", "a process without traces"});
    samples.push_back({reused.loadTime + 10, reused.address, 4242, "gamma.lab", "a host without traces"});
    writeSamples(samplesPath, samples);
}

void writeFleet(const std::string& directory, const FleetShape& shape, const std::string& samplesPath)
{
    struct Process {
        std::string host;
        unsigned int pid;
        std::vector<Placed> methods;
    };
    std::vector<Process> processes;
    Random random(20261123);
    for (unsigned int h = 0; h < shape.hosts; ++h) {
        char host[32];
        std::snprintf(host, sizeof host, "host%03u.fleet", h);
        const fs::path folder = fs::path(directory) / host;
        fs::create_directories(folder);
        for (unsigned int p = 0; p < shape.processes; ++p) {
            TraceWriter trace;
            std::uint32_t nextId = 1;
            const bool shop = (h + p) % 2 == 0;
            const unsigned int pid = 1000 + p * 7 + h % 5;
            processes.push_back(Process{host, pid,
                                        writeJavaProcess(trace, random, shop ? kShopMethods : kReportMethods,
                                                         shop ? 10 : 5, 0x7f3a10000000ULL + p * 0x100000ULL,
                                                         1000000 + p * 1000, 2, 60, nextId)});
            write(trace, folder, std::string(host) + "." + std::to_string(pid) + ".jit");
        }
    }

    std::FILE* file = std::fopen(samplesPath.c_str(), "w");
    if (!file)
        throw std::runtime_error("cannot write " + samplesPath);
    std::fprintf(file, "# time stamp, address, process id, host name\n");
    for (unsigned long long i = 0; i < shape.samples && !processes.empty(); ++i) {
        const Process& process = processes[random.next() % processes.size()];
        const Placed& method = process.methods[random.next() % process.methods.size()];
        // Within the method's life: the next generation comes 4,000,000 later.
        std::uint64_t time = method.loadTime + random.between(1, 100000);
        std::uint64_t address = method.address + random.next() % method.size;
        unsigned int pid = process.pid;
        const std::uint32_t odd = random.between(0, 99);
        if (odd == 0)
            address = 0x400000 + random.next() % 0x1000; // no JIT code there
        else if (odd == 1)
            pid = 99999; // a process without traces
        else if (odd == 2)
            time = method.loadTime - 1; // before the method was there
        std::fprintf(file, "%llu %llu %u %s\n", static_cast<unsigned long long>(time),
                     static_cast<unsigned long long>(address), pid, process.host.c_str());
    }
    if (std::fclose(file) != 0)
        throw std::runtime_error("cannot write " + samplesPath);
}

} // namespace jitreader_demo
