// The jitdump importer: dumps built in either byte order, converted, read back by the library.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "commands.h"
#include "e2e/e2e_util.h"
#include "jitdump_converter.h"
#include "support/log_capture.h"

namespace jitreader_tool {
namespace {

using tracewriter::Bytes;
using tracewriter::LineRow;

/// Writes jitdump files in either byte order.
class Dump {
public:
    explicit Dump(bool bigEndian = false, std::uint32_t pid = 42) : m_bigEndian(bigEndian)
    {
        u32(m_bytes, 0x4A695444).u32(m_bytes, 1).u32(m_bytes, 40).u32(m_bytes, 62).u32(m_bytes, 0);
        u32(m_bytes, pid).u64(m_bytes, 1).u64(m_bytes, 0);
    }
    Dump& load(std::uint64_t time, std::uint64_t address, std::uint64_t index, const std::string& name,
               std::uint64_t size)
    {
        Bytes p;
        u32(p, 42).u32(p, 1).u64(p, address).u64(p, address).u64(p, size).u64(p, index);
        p.insert(p.end(), name.begin(), name.end());
        p.push_back(0);
        p.insert(p.end(), size, 0x90); // nops
        return record(0, time, p);
    }
    Dump& move(std::uint64_t time, std::uint64_t from, std::uint64_t to, std::uint64_t size, std::uint64_t index)
    {
        Bytes p;
        u32(p, 42).u32(p, 1).u64(p, to).u64(p, from).u64(p, to).u64(p, size).u64(p, index);
        return record(1, time, p);
    }
    Dump& lines(std::uint64_t address, const std::vector<JitdumpLineEntry>& entries)
    {
        Bytes p;
        u64(p, address).u64(p, entries.size());
        for (const JitdumpLineEntry& e : entries) {
            u64(p, e.address).u32(p, e.line).u32(p, 0);
            p.insert(p.end(), e.file.begin(), e.file.end());
            p.push_back(0);
        }
        return record(2, 5, p);
    }
    /// A record whose size field is `size`, or the true size when that is 0.
    Dump& record(std::uint32_t kind, std::uint64_t time, const Bytes& payload, std::uint32_t size = 0)
    {
        u32(m_bytes, kind).u32(m_bytes, size != 0 ? size : payload.size() + 16).u64(m_bytes, time);
        m_bytes.insert(m_bytes.end(), payload.begin(), payload.end());
        return *this;
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    Dump& put(Bytes& out, std::uint64_t value, int width)
    {
        for (int i = 0; i < width; ++i)
            out.push_back(static_cast<std::uint8_t>(value >> 8 * (m_bigEndian ? width - 1 - i : i)));
        return *this;
    }
    Dump& u32(Bytes& out, std::uint64_t value) { return put(out, value, 4); }
    Dump& u64(Bytes& out, std::uint64_t value) { return put(out, value, 8); }

    bool m_bigEndian;
    Bytes m_bytes;
};

/// Code 0 loaded at 0x1000 (time 100) with lines, code 1 at 0x2000 (200), code 0 moved to
/// 0x3000 (300), code 2 loaded where code 0 was (400).
Dump history(bool bigEndian)
{
    Dump dump(bigEndian);
    dump.lines(0x1000, {{0x1040, 7, 0, "app.js"}, {0x1050, 8, 0, "\xff"}, {0x1050, 9, 0, "app.js"}})
        .load(100, 0x1000, 0, "JS:*first app.js:7", 0x20)
        .load(200, 0x2000, 1, "JS:*second app.js:20", 0x20)
        .move(300, 0x1000, 0x3000, 0x20, 0)
        .load(400, 0x1000, 2, "JS:*third app.js:30", 0x10)
        .record(4, 500, Bytes(24, 0)) // unwinding info
        .record(3, 600, {});
    return dump;
}

/// The first `size` bytes of `bytes`.
Bytes prefix(const Bytes& bytes, std::size_t size)
{
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min(size, bytes.size())));
}

/// The history without its last 30 bytes: it ends inside the unwinding info record.
Bytes tornHistory()
{
    return prefix(history(false).bytes(), history(false).bytes().size() - 30);
}

JitdumpConversion convert(const Bytes& bytes, JitdumpConverter::Traces& traces)
{
    return JitdumpConverter::convert(bytes.data(), bytes.size(), "f", traces);
}

TEST(JitdumpImport, BothByteOrdersGiveATraceThatResolvesEachAddressToTheCodeOfItsTime)
{
    JitdumpConverter::Traces traces, big;
    const JitdumpConversion result = convert(history(false).bytes(), traces);
    convert(history(true).bytes(), big);
    EXPECT_TRUE(result.read && result.complete && result.pid == 42 && result.leftOut == 0);
    EXPECT_EQ(3u, result.loads);
    EXPECT_EQ(1u, result.moves);
    EXPECT_EQ(2u, result.withLines); // the load of code 0 and its move
    ASSERT_EQ(1u, big.count(42));
    EXPECT_EQ(traces.at(42).bytes(), big.at(42).bytes());
    const e2e::Results r({{"d/host.42.jit", traces.at(42).bytes()}});
    ASSERT_TRUE(r.resolver && r.loader);
    // Name, raw method id and line of the code at an address and time, or "none".
    const struct { std::uint64_t time, address; const wchar_t* code; } cases[] = {
        {150, 0x1008, L"JS:*first app::js:7 1 7"}, {150, 0x1014, L"JS:*first app::js:7 1 9"},
        {250, 0x2000, L"JS:*second app::js:20 2 0"}, {250, 0x3008, L"none"},
        {350, 0x3014, L"JS:*first app::js:7 1 9"}, {450, 0x1008, L"JS:*third app::js:30 3 0"}, {50, 0x1008, L"none"},
    };
    for (const auto& c : cases) {
        const e2e::Answer a = e2e::answer(*r.loader, *r.resolver, c.time, c.address, 42);
        const std::vector<e2e::Frame> frames = e2e::framesAt(*r.resolver, a.jitRva);
        EXPECT_EQ(c.code, a.loader != velmark_3_11::meSuccess ? L"none"
                          : frames.empty() ? L"no symbol"
                                           : frames[0].name + L" " + std::to_wstring(frames[0].rawId) + L" " +
                                                 std::to_wstring(frames[0].line))
            << c.time;
    }
}

TEST(JitdumpImport, LineEntriesBecomeRowsOfTheFirstFile)
{
    const struct {
        std::vector<JitdumpLineEntry> lines;
        std::uint64_t bias;
        bool fits;
        std::string file;
        std::vector<LineRow> rows;
    } cases[] = {
        // Out of order, a repeated address (the last counts), a row in another file left out.
        {{{0x1008, 2, 0, "a"}, {0x1000, 1, 0, "a"}, {0x100c, 4, 0, "b"}, {0x1008, 3, 0, "a"}}, 0, true, "a",
         {{0, 8, 1}, {8, 12, 3}}},
        {{{0x1010, 5, 0, "a"}}, 0, true, "a", {}}, // at the end: no row of any length
        {{{0x1011, 5, 0, "a"}}, 0, false, "", {}},
        {{{0x1000, 5, 0, "a\x03"}}, 0, false, "", {}},
        {{{0x1000, 5, 0, "\xd6("}}, 0, false, "", {}},
    };
    const auto text = [](const std::vector<LineRow>& rows) {
        std::string out;
        for (const LineRow& row : rows)
            out += std::to_string(row.first) + "-" + std::to_string(row.second) + ":" + std::to_string(row.third) + " ";
        return out;
    };
    for (const auto& c : cases) {
        std::string file;
        std::vector<LineRow> rows;
        EXPECT_EQ(c.fits, JitdumpConverter::lineRows(c.lines, 0x1000, 16, c.bias, file, rows));
        EXPECT_EQ(c.file, file);
        EXPECT_EQ(text(c.rows), text(rows));
    }
}

TEST(JitdumpImport, RecordsThatAreNotWholeAreReportedAndLeftOut)
{
    const Bytes longName(64, 'x'); // a load payload with no NUL in it
    Bytes hugeHeader = Dump().bytes();
    hugeHeader[8] = 0xE8;
    hugeHeader[9] = 0x03;
    Bytes loadPast = Dump().load(1, 0x1000, 0, "f", 8).bytes();
    loadPast[16 + 40 + 24] = 0x09; // code size 9 in a record with 8 code bytes
    const struct { Bytes bytes; const char* message; std::size_t loads; } cases[] = {
        {{}, "Could not convert jitdump file f: not a jitdump file (no JiTD magic number)", 0},
        {prefix(Dump().bytes(), 20), "f: the file header is not whole", 0},
        {hugeHeader, "f: the file header's size does not fit the file", 0},
        {Dump().record(0, 1, {}, 8).load(1, 0x1000, 0, "a", 4).bytes(),
         "Jitdump file f has a record size below the record header's at offset 0x28; the rest of the file is left "
         "out", 0},
        {Dump().record(0, 1, longName).load(1, 0x1000, 0, "a", 4).bytes(),
         "Jitdump file f: left out a code load record whose name has no end at offset 0x28", 1},
        {Dump().record(0, 1, Bytes(10, 0)).bytes(), "left out a code load record too short for its fields", 0},
        {loadPast, "left out a code load record whose code runs past the record at offset 0x28", 0},
        {Dump().record(1, 1, Bytes(10, 0)).bytes(), "left out a code move record too short for its fields", 0},
        {Dump().record(2, 1, Bytes(10, 0)).bytes(), "left out a debug info record too short for its fields", 0},
        {Dump().record(2, 1, Bytes{0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}).bytes(),
         "left out a debug info record with more entries than bytes", 0},
        {Dump().record(2, 1, [] { Bytes b(16, 0); b[8] = 1; b.resize(34, 'a'); return b; }()).bytes(),
         "left out a debug info record whose entries run past the record", 0},
        {Dump().move(1, 0x1000, 0x2000, 4, 7).bytes(),
         "left out a code move of a code index never loaded at offset 0x28", 0},
        {Dump().load(1, 0x1000, 7, "a", 4).move(2, 0x1000, 0x2000, 5, 7).bytes(),
         "left out a code move whose size differs from its code load's", 1},
        {Dump().load(1, 0x1000, 7, "a", 0).bytes(), "left out a code load of a size a trace cannot hold", 0},
        {Dump().lines(0x1000, {{0x1020, 1, 0, "a"}}).load(1, 0x1000, 7, "a", 4).bytes(),
         "Jitdump file f: the line entries of the code at 0x1000 do not fit it; its lines are left out", 1},
        {tornHistory(), "Jitdump file f ends inside a record at offset ", 3},
        // Cut inside the last record's header rather than its payload.
        {prefix(history(false).bytes(), history(false).bytes().size() - 10), "ends inside a record at offset ", 3},
    };
    for (const auto& c : cases) {
        jrtest::LogCapture log;
        JitdumpConverter::Traces traces;
        const JitdumpConversion result = convert(c.bytes, traces);
        EXPECT_TRUE(log.contains(log4cplus::WARN_LOG_LEVEL, c.message) ||
                    log.contains(log4cplus::ERROR_LOG_LEVEL, c.message)) << c.message << "\n" << log.dump();
        EXPECT_EQ(c.loads, result.loads) << c.message;
    }
}

TEST(JitdumpImport, TheCommandWritesOneTraceFilePerProcess)
{
    jrtest::TempDir root;
    const std::string first = root.write("jit-42.dump", history(false).bytes());
    const std::string second = root.write("jit-43.dump", Dump(true, 43).load(1, 0x1000, 0, "f", 4).bytes());
    const std::string torn = root.write("torn.dump", tornHistory());
    const std::string other = root.write("notes.txt", Bytes{'h', 'i'});
    const struct {
        std::vector<std::string> args;
        int code;
        const char* err;
        std::vector<std::string> files;
    } cases[] = {
        {{first, second, "-o", root.file("out1"), "--host", "web1"}, 0, "", {"web1.42.jit", "web1.43.jit"}},
        {{torn, "-o", root.file("out3"), "--host", "h", "--strict"}, 3, "ends inside a record", {"h.42.jit"}},
        {{other, second, "-o", root.file("out4"), "--host", "h"}, 1, "not a jitdump file", {"h.43.jit"}},
        {{root.file("missing"), "-o", root.file("out5")}, 1, "missing: cannot read the file", {}},
        {{"-o", root.file("out6")}, 1, "jitreader import-jitdump: no jitdump file given", {}},
        {{first}, 1, "jitreader import-jitdump: no output directory given (-o DIR)", {}},
        {{first, "-o", root.file("out7"), "--host", "a/b"}, 1, "--host needs a name without '/'", {}},
        {{first, "-o", other}, 1, "notes.txt: cannot make the directory", {}},
    };
    for (const auto& c : cases) {
        std::ostringstream out, err;
        EXPECT_EQ(c.code, runImportJitdump(c.args, out, err)) << err.str();
        EXPECT_NE(std::string::npos, err.str().find(c.err)) << err.str();
        for (const std::string& file : c.files)
            EXPECT_NE(std::string::npos, out.str().find(file + ": ")) << out.str();
    }
}

} // namespace
} // namespace jitreader_tool
