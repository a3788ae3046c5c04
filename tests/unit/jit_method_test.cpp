// Names, method ids and the line tables of a method: how tables merge, which ones a query
// reads, and the lasting copy that a query by jit rva makes.
#include "jitreader/jit_method.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"

using namespace velmark_3_11;

namespace velmark_3_11 {
bool operator==(const LineNumberEntry& a, const LineNumberEntry& b)
{
    return a.start == b.start && a.end == b.end && a.value == b.value;
}
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
