#include "jitreader/assembly_reader_impl.h"

#include <sstream>

#include <gtest/gtest.h>

#include "platform/text.h"
#include "support/dotnet_testdata.h"
#include "support/temp_dir.h"

using namespace velmark_3_11;

namespace {

boost::intrusive_ptr<DotNetMethod> methodOf(const std::string& assembly, unsigned int token)
{
    boost::intrusive_ptr<IAssemblyReader> reader;
    EXPECT_EQ(meSuccess, IAssemblyReader::create(toWide(assembly).c_str(), nullptr, reader)) << assembly;
    return reader ? reader->getMethod(token) : nullptr;
}

TEST(AssemblyReader, NamesSignaturesClassicRuntimeSourcesLineTablesAndDumpsOfRealAssemblies)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const struct {
        const char* file;
        unsigned int token;
        const wchar_t* className;
        const wchar_t* nameAndSignature;
        const wchar_t* source = nullptr; // through the symbol reader; null: not looked at
    } cases[] = {
        // Two documents: the source file is the first.
        {"cecil/PdbTarget.exe", 0x06000001, L"PdbTarget.B", L".ctor()", L"C:\\sources\\PdbTarget\\B.cs"},
        {"cecil/PdbTarget.exe", 0x06000002, L"PdbTarget.Program", L"Main(string[])",
         L"C:\\sources\\PdbTarget\\Program.cs"},
        {"symreader-converter/windows/Iterator.dll", 0x06000007, L"<M>d__0`1", L"MoveNext()", L"C:\\Iterator.cs"},
        {"cecil/PdbTarget.exe", 0x06000003, L"PdbTarget.Program",
         L"Where(System.Collections.Generic.IEnumerable`1<>, System.Func`2<, bool>)"},
        // Stored as System.Collections.Generic.IEnumerator<T>.get_Current.
        {"cecil/PdbTarget.exe", 0x0600000F, L"<Where>d__3`1", L"get_Current()"},
        {"symbolic/foo.dll", 0x06000006, L"MyInternalClass", L"GetPdbId(System.Reflection.Module)"},
        {"symbolic/foo.dll", 0x02000002, L"", L""}, // not a method def
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file + (" " + std::to_string(c.token)));
        const boost::intrusive_ptr<DotNetMethod> method = methodOf(folder + "/" + c.file, c.token);
        ASSERT_TRUE(method);
        EXPECT_EQ(c.className, method->getClassName());
        const std::wstring name = method->getMethodName();
        EXPECT_EQ(c.nameAndSignature, name.empty() ? name : name + method->getSignature());
        if (c.source == nullptr)
            continue;
        EXPECT_EQ(1, method->getReaderKind());
        SourceFile file;
        ASSERT_EQ(meSuccess, method->getSourceFile(file));
        EXPECT_EQ(c.source, file.name());
        EXPECT_EQ(3u, file.getLanguageType()); // C#
        EXPECT_EQ(2u, file.getChecksumType()); // SHA-1
    }
    // A dump leaves the stream's number format as it found it.
    std::wostringstream dump;
    dump << 12 << L" " << *methodOf(folder + "/cecil/PdbTarget.exe", 0x06000005) << 12;
    EXPECT_EQ(L"12 Method (6000005)\n-------------------------------------------------------\n"
              L"     MethodName:      Bar\n     TypeDefName:     PdbTarget.Program\n"
              L"     MethodSignature: (int32)\n\n12",
              dump.str());

    // From the Windows PDB: hidden points make no row; a row runs to the next visible point.
    LineRow rows[16];
    unsigned int count = 16;
    const auto moveNext = methodOf(folder + "/symreader-converter/windows/Iterator.dll", 0x06000007);
    ASSERT_EQ(meSuccess, moveNext->getLineTable(rows, &count));
    std::ostringstream table;
    for (unsigned int i = 0; i < count; ++i)
        table << std::hex << rows[i].startOffset << "-" << rows[i].endOffset << std::dec << ":" << rows[i].line << " ";
    EXPECT_EQ("1f-20:10 20-27:11 27-30:13 30-31:14 31-38:16 38-64:17 64-65:18 65-75:13 75-83:13 83-83:19 ",
              table.str());
    // No sequence points: no table, no source file.
    const boost::intrusive_ptr<DotNetMethod> plain = methodOf(folder + "/cecil/PdbTarget.exe", 0x06000009);
    SourceFile file;
    EXPECT_EQ(meFail, plain->getLineTable(nullptr, &count));
    EXPECT_EQ(meFail, plain->getSourceFile(file));
}

TEST(AssemblyReader, FrameworkDetectionDebugFilesAndFailures)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const char* file : {"symbolic/foo.dll", "cecil/PdbTarget.exe", "symreader-converter/portable/Documents.dll",
                             "symbolic/foo.pdb", "missing.dll", ""})
        EXPECT_FALSE(isDotNetCore(file[0] ? toWide(folder + "/" + file) : L"")) << file;
    jrtest::TempDir dir;
    dir.write("empty.pdb", {});
    EXPECT_TRUE(isDotNetCoreValidPdb(toWide(folder + "/symbolic/foo.pdb")));
    EXPECT_FALSE(isDotNetCoreValidPdb(toWide(folder + "/symbolic/Program.cs")));
    EXPECT_FALSE(isDotNetCoreValidPdb(dir.wide("empty.pdb")));
    // A .NET Core assembly without its debug file still opens; its methods have no reader of either kind.
    const std::string core = dir.write("foo.dll", jrtest::fooAsCore(folder));
    EXPECT_TRUE(isDotNetCore(toWide(core)));
    const boost::intrusive_ptr<DotNetMethod> alone = methodOf(core, 0x06000007);
    ASSERT_TRUE(alone);
    EXPECT_EQ(1, alone->getReaderKind());
    SourceFile file;
    EXPECT_EQ(meFail, alone->getSourceFile(file));
    EXPECT_EQ(L"MyInternalClass", alone->getClassName());

    boost::intrusive_ptr<IAssemblyReader> reader;
    EXPECT_EQ(meInvalidArgument, IAssemblyReader::create(nullptr, nullptr, reader));
    EXPECT_EQ(meFail, IAssemblyReader::create(toWide(folder + "/symbolic/Program.cs").c_str(), nullptr, reader));
    EXPECT_EQ(meFail, IAssemblyReader::create(L"/nonexistent/app.dll", nullptr, reader));
    EXPECT_FALSE(reader);

    const std::pair<const wchar_t*, const wchar_t*> derived[] = {
        {L"C:\\x\\app.dll", L"C:\\x\\app.pdb"}, {L"a.winmd", L"a.pdbmd"}, {L"a.x", L"a.pdb"},
        {L"app", L"pdb"}, {L"dir.d/abcdef", L"dir.pdbbcdef"}};
    for (const auto& d : derived)
        EXPECT_EQ(d.second, AssemblyReader::derivePdbPath(d.first));
}

} // namespace
