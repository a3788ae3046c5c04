// A method and its parts: names, method ids, line tables, and the byte updates of a region.
#include "jitreader/jit_method.h"

#include <climits>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "support/log_capture.h"

using namespace velmark_3_11;

namespace velmark_3_11 {
bool operator==(const LineNumberEntry& a, const LineNumberEntry& b)
{
    return a.start == b.start && a.end == b.end && a.value == b.value;
}

class LineTableProbe {
public:
    static std::size_t bytes(const LineTable& table) { return table.byteSize(); }
};
} // namespace velmark_3_11

namespace {

typedef std::vector<LineNumberEntry> Rows;
const std::string kTag = "(method id = 0x10, name = Foo, load time = 0x20)";

boost::intrusive_ptr<JitMethod> makeMethod(const Rows& native = {}, const Rows& managed = {},
                                           const Rows& source = {}, const Range& key = Range(0x1000, 0x10))
{
    boost::intrusive_ptr<JitMethod> method = new JitMethod;
    method->setRawMethodId(0x10);
    method->setLoadTime(0x20);
    method->setName(L"Foo");
    method->addLineNumberInfo(ltNativeToManaged, native, key);
    method->addLineNumberInfo(ltManagedToSource, managed, key);
    method->addLineNumberInfo(ltNativeToSource, source, key);
    return method;
}

/// The rows as a trace file holds them: three little-endian words each.
std::vector<unsigned char> fileRows(const Rows& rows)
{
    std::vector<unsigned char> bytes;
    for (const LineNumberEntry& row : rows)
        for (const unsigned int word : {row.start, row.end, row.value})
            for (int shift = 0; shift < 32; shift += 8)
                bytes.push_back(static_cast<unsigned char>(word >> shift));
    return bytes;
}

boost::shared_ptr<IByteBuffer> bytesOf(const std::string& text)
{
    return makeByteBuffer(text.data(), static_cast<unsigned int>(text.size()));
}

/// A region at [0x1000, 0x1010) that holds `bytes`.
boost::intrusive_ptr<Region> makeRegion(const std::string& bytes)
{
    return new Region(7003, 1, 0x20, 0, 0x1000, 16, bytesOf(bytes));
}

/// The region's bytes, with 0x90 shown as '.'.
std::string shown(Region& region)
{
    std::string text(static_cast<const char*>(region.getContent()->getData()), region.getContent()->getSize());
    std::replace(text.begin(), text.end(), '\x90', '.');
    return text;
}

} // namespace

TEST(JitMethod, NamesAreQualifiedWithTheClass)
{
    JitMethod method, dotted;
    method.setClassName(L"A");
    method.setName(L"Ns.Type.Method(int)");
    method.setName(L""); // changes nothing
    EXPECT_STREQ(method.getName(), L"A::Ns::Type::Method");
    EXPECT_STREQ(method.getFullName(), L"A::Ns::Type::Method(int)");
    // The class of the moment of naming counts; names handed out stay readable after a rename.
    const wchar_t* before = method.getFullName();
    method.setClassName(L"B");
    EXPECT_STREQ(method.getFullName(), L"A::Ns::Type::Method(int)");
    method.setName(std::string("run(ILjava/lang/String;)V"), true);
    EXPECT_STREQ(method.getFullName(), L"B::run(int, java::lang::String)");
    EXPECT_STREQ(before, L"A::Ns::Type::Method(int)");
    dotted.setClassName(L"Sys..Coll.List");
    dotted.setName(L"Add(Sys.Object)");
    EXPECT_STREQ(dotted.getFullName(), L"Sys::Coll::List::Add(Sys::Object)");
}

TEST(JitMethod, MethodIdsDigestIdentityText)
{
    const struct { unsigned int rawId; bool withRegion; unsigned int arch; std::wstring text; } cases[] = {
        {16, true, 1, L"16.1.70031"}, {16, false, 0, L"16.0.00"}, {0, true, 2, L"100663297A::M(int)A/m.dll2"}};
    for (const auto& c : cases) {
        boost::intrusive_ptr<JitMethod> method = new JitMethod;
        method->setMetadataToken(0x6000001);
        method->setClassName(L"A");
        method->setName(L"M(int)");
        method->setModule(new Module(L"/m.dll", 0, c.arch));
        if (c.withRegion)
            method->addRegion(new Region(7003, 1, 0, 0, 0x1000, 4, nullptr));
        basekit2::md5_t md5;
        md5.update(c.text.data(), c.text.size() * sizeof(wchar_t));
        EXPECT_EQ(MethodIdMaker().makeMethodId(c.rawId, *method), MethodId(md5.get_digest())) << c.arch;
    }
}

TEST(JitMethod, TablesOfOneRangeMergeAndAreNeverReplaced)
{
    jrtest::LogCapture log;
    boost::intrusive_ptr<JitMethod> method = makeMethod({}, {{0, 2, 7}});
    // An overlapping key of another length is the same code range.
    EXPECT_TRUE(method->addLineNumberInfo(ltNativeToManaged, {{0, 4, 0}}, Range(0x1008, 4)));
    EXPECT_FALSE(method->addLineNumberInfo(ltManagedToSource, {{0, 2, 8}}, Range(0x1000, 0x10)));
    // A merge stops at the first refused table: kind 0 comes before kind 2.
    EXPECT_FALSE(method->addLineNumberInfo(makeMethod({{0, 1, 3}}, {}, {{0, 1, 3}})->lineNumberInfo()));

    ASSERT_EQ(method->lineNumberInfo().size(), 1u);
    const LineNumberInfo& info = method->lineNumberInfo().begin()->second;
    EXPECT_EQ(info.tables[ltNativeToManaged].rows(), (Rows{{0, 4, 0}}));
    EXPECT_EQ(info.tables[ltManagedToSource].rows(), (Rows{{0, 2, 7}}));
    EXPECT_TRUE(info.tables[ltNativeToSource].empty());
    const std::string refused = "Couldn't overwrite existing line number info for this code region of already "
                                "registered method " + kTag + jrtest::kAtFileSuffix;
    EXPECT_EQ(log.count(log4cplus::ERROR_LOG_LEVEL, refused), 2u) << log.dump();
}

TEST(JitMethod, SourceLocationTakesTheDirectOrTheTwoStepRoute)
{
    const struct { Rows native, managed, source; unsigned long long jitRva; unsigned int line; } cases[] = {
        {{{0, 8, 2}}, {}, {{4, 8, 11}}, 0x1005, 11},             // no managed table: direct
        {{}, {}, {{4, 4, 9}}, 0x1004, 9},                        // direct matches a start alone
        {{{4, 4, 9}}, {{9, 10, 30}}, {{4, 4, 9}}, 0x1004, 0},    // the native step does not
        {{{0, 4, 0}, {4, 8, 6}}, {{0, 6, 20}, {6, 9, 21}}, {{0, 8, 99}}, 0x1004, 21},
        {{}, {}, {{0, 8, 12}, {2, 4, 13}}, 0x1003, 12},          // first of overlapping rows
        {{}, {}, {{0, 4, 10}}, 0x1006, 0},                       // 0: no location
    };
    for (const auto& c : cases) {
        boost::intrusive_ptr<ISourceLocation> location =
            makeMethod(c.native, c.managed, c.source)->getSourceLocation(c.jitRva);
        EXPECT_EQ(location ? location->getLine() : 0u, c.line);
    }
}

TEST(JitMethod, LineNumberQueries)
{
    LineNumberEntry rows[2] = {{1, 1, 1}, {1, 1, 1}};
    unsigned int count = 2;
    EXPECT_EQ(makeMethod()->getLineNumberInfo(ltNativeToSource, rows, &count, 0), meFail);

    boost::intrusive_ptr<JitMethod> method = makeMethod({}, {}, {{0, 4, 10}});
    method->addLineNumberInfo(ltNativeToSource, {{0, 2, 30}, {2, 4, 20}, {4, 6, 40}}, Range(0x2000, 0x10));
    EXPECT_EQ(method->getLineNumberInfo(ltNativeToSource, nullptr, nullptr, 0), meInvalidArgument);
    EXPECT_EQ(method->getLineNumberInfo(ltNativeToSource, rows, &count, 0x3000), meFail);
    EXPECT_EQ(method->getLineNumberInfo(3, nullptr, &count, 0), meFail);
    EXPECT_EQ(method->getLineNumberInfo(ltNativeToSource, rows, &count, 0x2004), meBufferTooSmall);
    EXPECT_TRUE(rows[0] == (LineNumberEntry{1, 1, 1}) && count == 2u);

    // The query by jit rva copied the second range's tables over the first entry's, for good.
    EXPECT_EQ(method->getLineNumberInfo(ltNativeToSource, nullptr, &count, 0), meSuccess);
    EXPECT_EQ(count, 3u);

    LineNumberEntry first{}, last{};
    EXPECT_EQ(method->getLineNumberRange(&first, nullptr, 0), meFail);
    EXPECT_EQ(method->getLineNumberRange(&first, &last, 0), meSuccess);
    EXPECT_TRUE(first == (LineNumberEntry{0, 0, 20}) && last == (LineNumberEntry{0, 0, 40}));
    EXPECT_EQ(makeMethod({}, {{0, 4, 17}}, {{0, 4, 10}})->getLineNumberRange(&first, &last, 0x1000), meSuccess);
    EXPECT_TRUE(first.value == 17 && last.value == 17);
}

TEST(JitMethod, ReportsOddTablesAndSourceFiles)
{
    jrtest::LogCapture log;
    boost::intrusive_ptr<JitMethod> method = makeMethod({}, {}, {{0, 8, 1}, {8, 9, 2}, {9, 10, 3}}, Range(0x5000, 8));
    EXPECT_FALSE(method->validateLineNumberInfo());
    method->addRegion(new Region(1, 1, 0, 0x5000, 0x1000, 8, nullptr));
    EXPECT_TRUE(method->validateLineNumberInfo());
    EXPECT_EQ(log.texts(log4cplus::ERROR_LOG_LEVEL).size(), 1u); // the first bad row only
    EXPECT_TRUE(log.contains(log4cplus::ERROR_LOG_LEVEL, "Detected line number (start offset = 0x8, end offset = 0x9, "
                                                         "src line = 0x2) that does not match to code range (ip range "
                                                         "= 0x1000-0x1008)" + std::string(jrtest::kAtFileSuffix)));

    const struct { const wchar_t *own, *other; std::vector<std::string> trace; } cases[] = {
        {L"", L"b.cs", {"Registred method has a null source file " + kTag + ". Mapping to source file is not "
                        "available."}},
        {L"a.cs", L"", {"Supplied a null source file for " + kTag + ". Line number table will be associated with the "
                        "source file of the first code region (src name = a.cs)"}},
        {L"a.cs", L"b.cs", {"Supplied source file for " + kTag + " is differ from source file of the first code region "
                            "(src name = a.cs). Map to source file will be incorrect."}},
        {L"a.cs", L"a.cs", {}},
    };
    for (const auto& c : cases) {
        log.clear();
        boost::intrusive_ptr<JitMethod> mine = makeMethod(), other = makeMethod();
        mine->setSourceFile(SourceFile(c.own, L"", 0, 0));
        other->setSourceFile(SourceFile(c.other, L"", 0, 0));
        mine->compareSymbolicInfoTo(other);
        EXPECT_EQ(log.texts(log4cplus::TRACE_LOG_LEVEL), c.trace);
    }
}

// However far rows jump; a usual row takes one or two bytes, a small table six bytes of header.
TEST(LineTable, EveryRowComesBackExactly)
{
    const struct { Rows rows; std::size_t bytes; } cases[] = {
        {{{0, 32, 10}, {32, 64, 11}, {64, 96, 11}, {96, 100, 9}}, 6 + 2 + 1 + 2 + 2},
        {{{0, 0, 0}}, 6 + 2},
        // The largest length and steps of the two-byte form, then the first ones past them.
        {{{0, 511, 31}, {511, 1022, UINT_MAX}}, 6 + 2 + 2},
        {{{0, 512, 31}}, 6 + 4},
        {{{0, 511, 32}}, 6 + 4},
        {{{0, 511, UINT_MAX - 32}}, 6 + 4},
        // The one-byte form: a step of one and a length under 64, nothing else.
        {{{0, 63, 1}, {63, 63, 2}}, 6 + 1 + 1},
        {{{0, 64, 1}, {64, 127, 1}, {127, 190, 3}}, 6 + 2 + 2 + 2},
        // A gap, an overlap, a row ending before it starts, a first row not at zero.
        {{{0, 10, 1}, {11, 20, 2}, {15, 30, 3}, {30, 25, 4}}, 6 + 1 + 4 + 4 + 3},
        {{{4096, 4100, 1}}, 6 + 5},
        {{{UINT_MAX, 0, UINT_MAX}, {0, UINT_MAX, 0}, {0x80000000u, 0x7fffffffu, 0x80000000u}}, 6 + 4 + 3 + 12},
        {{{100, 50, 7}, {10, 20, 3000000000u}, {10, 20, 1}, {5, 5, 5}}, 6 + 5 + 8 + 8 + 4},
        // Differences wider than the row's three words: the words themselves, and the row after
        // them follows on from those.
        {{{0x40000000u, 0x10000000u, 10000}, {0x10000000u, 0x10000010u, 10001}}, 6 + 13 + 1},
        {{{0x40000000u, 0x10000000u, 100}}, 6 + 13},
        {{{0x40000000u, 0x10000000u, 10}}, 6 + 12},
    };
    for (const auto& c : cases) {
        const Rows& rows = c.rows;
        const LineTable table(rows);
        EXPECT_EQ(table.size(), rows.size());
        const auto byEnd = [](const LineNumberEntry& a, const LineNumberEntry& b) { return a.end < b.end; };
        EXPECT_EQ(table.maxEnd(), std::max_element(rows.begin(), rows.end(), byEnd)->end);
        EXPECT_EQ(table.rows(), rows);
        EXPECT_EQ(LineTableProbe::bytes(table), c.bytes) << "first row " << rows[0].start << "-" << rows[0].end;
        const LineTable copy = table;
        EXPECT_EQ(copy.rows(), rows);
        const std::vector<unsigned char> file = fileRows(rows);
        EXPECT_EQ(LineTable::fromFileRows(file.data(), rows.size()).rows(), rows);

        LineNumberEntry found{};
        EXPECT_TRUE(table.findIf([&](const LineNumberEntry& r) { return r == rows.back(); }, found));
        EXPECT_EQ(found, rows.back());
        EXPECT_FALSE(table.findIf([](const LineNumberEntry&) { return false; }, found));
    }
    // A contiguous table of short rows whose value moves a little either way, larger than the
    // scratch space kept between tables, costs two bytes a row and a header; a small one follows it.
    Rows large;
    for (unsigned int i = 0, offset = 0, line = 1200, seed = 7; i < 10000; ++i, offset = large.back().end) {
        seed = seed * 1103515245u + 12345u;
        line += (seed >> 20) % 41 - 20;
        large.push_back({offset, offset + 1 + (seed >> 8) % 400, line});
    }
    const LineTable table(large);
    EXPECT_EQ(table.rows(), large);
    EXPECT_EQ(table.maxEnd(), large.back().end);
    EXPECT_LE(LineTableProbe::bytes(table), 2 * large.size() + 16);
    EXPECT_EQ(LineTable(cases[0].rows).rows(), cases[0].rows);
    EXPECT_TRUE(LineTable().empty());
    EXPECT_TRUE(LineTable(Rows()).rows().empty());
}

TEST(Region, UpdatesByMarkupTypeWithinTheBuffers)
{
    struct Update { unsigned long long addr; unsigned int length; int type; char fill; }; // fill 0: no content
    const std::string ok = "Updated code region (ip range = 0x1000-0x2010 successfully", orig = "abcdefghijklmnop";
    const std::string invalid = "Couldn't update because the input range is invalid: codeAddr = ";
    const std::string outside = "Couldn't accept update (ip range = ";
    const struct {
        std::vector<Update> updates; // all but the last must succeed
        velmark_error_t result;
        std::string bytes;   // of the region 0x1000-0x1010, first "abcdefghijklmnop"
        std::string message; // ERROR line of a refusal (without suffix), else an INFO line
    } cases[] = {
        {{{0x1000, 4, stCode, 'X'}}, meSuccess, "XXXXefghijklmnop", ok},
        {{{0x1004, 4, stData, 'X'}}, meSuccess, "abcd....ijklmnop", ok},
        {{{0x1004, 4, stKeep, 'X'}}, meSuccess, "abcdXXXXijklmnop", ok},
        {{{0x1004, 4, stData, 'X'}, {0x1004, 4, stKeep, 'Y'}}, meSuccess, "abcd....ijklmnop", ok},
        {{{0x1004, 4, stCode, 'X'}, {0x1004, 4, stData, 'Y'}}, meSuccess, "abcd....ijklmnop",
         "Changed a type of markup range (ip range = 0x1004-0x1008) from 0x1  to 0x2"},
        // The stored type stays the first one, so that "keep" then stores the bytes.
        {{{0x1004, 4, stCode, 'X'}, {0x1004, 4, stData, 'Y'}, {0x1004, 4, stKeep, 'Z'}}, meSuccess,
         "abcdZZZZijklmnop", ok},
        {{{0x1004, 4, stCode, 'X'}, {0x1008, 8, stCode, 'Y'}}, meSuccess, "abcdXXXXYYYYYYYY", ok},
        {{{0, 4, stCode, 'X'}}, meFail, orig, invalid + "0, codeLen = 0x4"},
        {{{0x1000, 0, stCode, 'X'}}, meFail, orig, invalid + "0x1000, codeLen = 0"},
        {{{0x1000, 4, stCode, 0}}, meFail, orig, "Couldn't update because the input content is empty"},
        {{{0xfff, 4, stCode, 'X'}}, meFail, orig,
         outside + "0xfff-0x1003) because it overlaps parent's ip range 0x1000-0x1010"},
        {{{0x100e, 4, stCode, 'X'}}, meFail, orig,
         outside + "0x100e-0x1012) because it overlaps parent's ip range 0x1000-0x1010"},
        {{{0x1004, 4, stData, 'X'}, {0x1007, 4, stCode, 'Y'}}, meFail, "abcd....ijklmnop",
         outside + "0x1007-0x100b) because it overlaps an existing markup range 0x1004-0x1008 with segType = 0x2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        jrtest::LogCapture log;
        boost::intrusive_ptr<Region> region = makeRegion(orig);
        velmark_error_t result = meSuccess;
        std::size_t rangesBefore = 0;
        for (const Update& u : c.updates) {
            ASSERT_EQ(result, meSuccess);
            log.clear();
            rangesBefore = region->markupRanges().size();
            result = region->addBytesUpdate(u.addr, u.length, u.fill ? bytesOf(std::string(u.length, u.fill)) : nullptr,
                                            static_cast<velmark_segment_type_t>(u.type), L"seg");
        }
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(shown(*region), c.bytes);
        if (c.result == meSuccess) {
            EXPECT_TRUE(log.contains(log4cplus::INFO_LOG_LEVEL, c.message)) << log.dump();
            continue;
        }
        EXPECT_EQ(region->markupRanges().size(), rangesBefore);
        const std::vector<std::string> errors = log.texts(log4cplus::ERROR_LOG_LEVEL);
        EXPECT_TRUE(errors.size() == 1 && errors[0].rfind(c.message + jrtest::kAtFileSuffix, 0) == 0) << log.dump();
    }

    // Nothing is read or written past a buffer: the region claims 16 bytes but holds 8, the update
    // claims 8 bytes but brings 2.
    jrtest::LogCapture log;
    boost::intrusive_ptr<Region> region = makeRegion("abcdefgh");
    EXPECT_EQ(region->addBytesUpdate(0x1006, 8, bytesOf("XY"), stCode, L""), meSuccess);
    EXPECT_EQ(shown(*region), "abcdefXY");
}
