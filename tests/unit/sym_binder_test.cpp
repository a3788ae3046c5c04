// The symbol binder and readers on the real assemblies and Portable PDB files.
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/system_services.h"
#include "platform/text.h"
#include "support/dotnet_testdata.h"
#include "support/temp_dir.h"

namespace {

using velmark_3_11::ComPtr;
using velmark_3_11::toUtf8;
using velmark_3_11::toWide;

constexpr ULONG32 kPolicy = AllowOriginalPathAccess | AllowReferencePathAccess;

ComPtr<ISymUnmanagedBinder2> binder()
{
    ComPtr<ISymUnmanagedBinder2> made;
    EXPECT_EQ(S_OK, CoCreateInstance(CLSID_CorSymBinder_SxS, nullptr, CLSCTX_INPROC_SERVER, IID_ISymUnmanagedBinder2,
                                     reinterpret_cast<void**>(made.put())));
    return made;
}

HRESULT readerFor(const std::string& assembly, ComPtr<ISymUnmanagedReader>& reader, const std::wstring& searchPath = L"",
                  ULONG32 policy = kPolicy)
{
    return binder()->GetReaderForFile2(nullptr, toWide(assembly).c_str(), searchPath.c_str(), policy, reader.put());
}

std::string url(ISymUnmanagedDocument& document)
{
    wchar_t text[512];
    ULONG32 length = 0;
    EXPECT_EQ(S_OK, document.GetURL(512, &length, text));
    EXPECT_EQ(std::wcslen(text) + 1, length);
    return toUtf8(text);
}

/// One line per sequence point: IL offset, lines, columns and document, or "hidden".
std::string pointsOf(ISymUnmanagedReader& reader, mdMethodDef token)
{
    ComPtr<ISymUnmanagedMethod> method;
    if (reader.GetMethod(token, method.put()) != S_OK)
        return "no method";
    ULONG32 count = 0;
    EXPECT_EQ(S_OK, method->GetSequencePointCount(&count));
    std::vector<ULONG32> offsets(count), lines(count), columns(count), endLines(count), endColumns(count);
    std::vector<ISymUnmanagedDocument*> documents(count);
    ULONG32 written = 0;
    EXPECT_EQ(S_OK, method->GetSequencePoints(count, &written, offsets.data(), documents.data(), lines.data(),
                                              columns.data(), endLines.data(), endColumns.data()));
    EXPECT_EQ(count, written);
    std::string text;
    for (ULONG32 i = 0; i < written; ++i) {
        char line[64];
        if (lines[i] == kHiddenLine && endLines[i] == kHiddenLine && columns[i] == 0 && endColumns[i] == 0)
            std::snprintf(line, sizeof line, "%x hidden ", offsets[i]);
        else
            std::snprintf(line, sizeof line, "%x %u:%u %u:%u ", offsets[i], lines[i], endLines[i], columns[i],
                          endColumns[i]);
        text += line + url(*documents[i]) + "\n";
        documents[i]->Release();
    }
    return text;
}

/// The line of the nearest point at or below `offset`, as a profiler's lookup reads it.
ULONG32 lineAt(ISymUnmanagedReader& reader, mdMethodDef token, ULONG32 offset)
{
    ComPtr<ISymUnmanagedMethod> method;
    EXPECT_EQ(S_OK, reader.GetMethod(token, method.put()));
    ULONG32 offsets[64], lines[64], count = 0;
    EXPECT_EQ(S_OK, method->GetSequencePoints(64, &count, offsets, nullptr, lines, nullptr, nullptr, nullptr));
    ULONG32 line = 0;
    for (ULONG32 i = 0; i < count && offsets[i] <= offset; ++i)
        if (lines[i] != kHiddenLine)
            line = lines[i];
    return line;
}

const char kDocumentsM[] = R"(0 7:7 5:6 C:\Documents.cs
1 10:10 9:30 C:\a\b\c\d\1.cs
8 20:20 9:30 C:\a\b\c\D\2.cs
f 30:30 9:30 C:\a\b\C\d\3.cs
16 40:40 9:30 C:\a\b\C\d\3.cs
1d hidden C:\a\b\C\d\3.cs
23 50:50 9:30 C:\a\b\c\d\x.cs
2a 60:60 9:30 C:\A\b\c\x.cs
31 70:70 9:30 C:\a\b\x.cs
38 80:80 9:30 C:\a\B\3.cs
3f 90:90 9:30 C:\a\B\c\4.cs
46 100:100 9:30 C:\*\5.cs
4d 110:110 9:30 :6.cs
54 120:120 9:30 C:\a\b\X.cs
5b 130:130 9:30 C:\a\B\x.cs
62 131:131 5:6 C:\a\B\x.cs
)";

const char kPdbTargetMain[] = R"(0 21:21 3:4 C:\sources\PdbTarget\Program.cs
1 22:22 4:11 C:\sources\PdbTarget\Program.cs
2 22:22 24:28 C:\sources\PdbTarget\Program.cs
6 hidden C:\sources\PdbTarget\Program.cs
8 22:22 13:20 C:\sources\PdbTarget\Program.cs
c 23:23 5:20 C:\sources\PdbTarget\Program.cs
13 hidden C:\sources\PdbTarget\Program.cs
17 22:22 21:23 C:\sources\PdbTarget\Program.cs
1d 25:25 4:22 C:\sources\PdbTarget\Program.cs
25 26:26 3:4 C:\sources\PdbTarget\Program.cs
)";

TEST(SymBinder, SequencePointsOfRealMethods)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    struct Case {
        const char* assembly;
        mdMethodDef token;
        const char* points;
    };
    const Case cases[] = {
        {"symreader-converter/portable/Documents.dll", 0x06000001, kDocumentsM},
        {"symreader-converter/portable/Documents.dll", 0x06000002, "no method"},
        {"cecil/PdbTarget.exe", 0x06000002, kPdbTargetMain},
        {"symreader-converter/portable/Iterator.dll", 0x06000099, "no method"},
        {"symreader-converter/portable/Iterator.dll", 0x02000002, "no method"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.assembly);
        ComPtr<ISymUnmanagedReader> reader;
        ASSERT_EQ(S_OK, readerFor(folder + "/" + c.assembly, reader));
        EXPECT_EQ(c.points, pointsOf(*reader.get(), c.token));
    }
}

TEST(SymBinder, MethodsThatChangeDocumentsAndNearestPointLookups)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    ComPtr<ISymUnmanagedReader> reader;
    ASSERT_EQ(S_OK, readerFor(folder + "/cecil/PdbTarget.exe", reader));
    // B's constructor runs field initialisers written in Program.cs between lines of B.cs.
    const std::string b = pointsOf(*reader.get(), 0x06000001);
    const char* expected[] = {"0 7:", "B.cs", "b 110:", "Program.cs", "12 111:", "Program.cs", "19 9:", "B.cs"};
    std::size_t at = 0;
    for (const char* piece : expected) {
        at = b.find(piece, at);
        ASSERT_NE(std::string::npos, at) << piece << " in\n" << b;
    }

    ASSERT_EQ(S_OK, readerFor(folder + "/symbolic/foo.dll", reader));
    const ULONG32 lookups[][3] = {{7, 10, 81}, {5, 6, 37}, {3, 0, 30}, {2, 0, 25}, {1, 45, 20}};
    for (const auto& lookup : lookups)
        EXPECT_EQ(lookup[2], lineAt(*reader.get(), mdtMethodDef | lookup[0], lookup[1])) << lookup[0];
    EXPECT_EQ("0 25:25 9:29 /Users/swatinem/Coding/sentry-dotnet/samples/foo/Program.cs\n",
              pointsOf(*reader.get(), 0x06000002).substr(0, 73));
}

TEST(SymBinder, DocumentsCarryLanguageHashAlgorithmAndHash)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    ComPtr<ISymUnmanagedReader> reader;
    ASSERT_EQ(S_OK, readerFor(folder + "/symreader-converter/portable/Documents.dll", reader));
    ComPtr<ISymUnmanagedMethod> method;
    ASSERT_EQ(S_OK, reader->GetMethod(0x06000001, method.put()));
    ISymUnmanagedDocument* documents[2] = {};
    ULONG32 count = 0;
    ASSERT_EQ(S_OK, method->GetSequencePoints(2, &count, nullptr, documents, nullptr, nullptr, nullptr, nullptr));
    ASSERT_EQ(2u, count);
    const GUID csharp = {0x3F5162F8, 0x07C6, 0x11D3, {0x90, 0x53, 0x00, 0xC0, 0x4F, 0xA3, 0x02, 0xA1}};
    const GUID sha1 = {0xFF1816EC, 0xAA5E, 0x4D10, {0x87, 0xF7, 0x6F, 0x49, 0x63, 0x83, 0x34, 0x60}};
    // C:\Documents.cs with its SHA-1, then 1.cs, which has no hash.
    const std::vector<BYTE> hashes[] = {{0xDB, 0xEB, 0x2A, 0x06, 0x7B, 0x2F, 0x0E, 0x0D, 0x67, 0x8A,
                                         0x00, 0x2C, 0x58, 0x7A, 0x28, 0x06, 0x05, 0x6C, 0x3D, 0xCE},
                                        {}};
    for (int i = 0; i < 2; ++i) {
        GUID language{}, algorithm{};
        EXPECT_EQ(S_OK, documents[i]->GetLanguage(&language));
        EXPECT_TRUE(language == csharp);
        EXPECT_EQ(S_OK, documents[i]->GetCheckSumAlgorithmId(&algorithm));
        EXPECT_TRUE(algorithm == (i == 0 ? sha1 : GUID{}));
        ULONG32 size = 99;
        EXPECT_EQ(S_OK, documents[i]->GetCheckSum(0, &size, nullptr));
        std::vector<BYTE> hash(size + 1);
        EXPECT_EQ(S_OK, documents[i]->GetCheckSum(size + 1, &size, hash.data()));
        hash.resize(size);
        EXPECT_EQ(hashes[i], hash);
    }
    wchar_t cut[4];
    ULONG32 length = 0;
    EXPECT_EQ(S_OK, documents[0]->GetURL(4, &length, cut));
    EXPECT_EQ(std::wstring(L"C:\\"), cut);
    EXPECT_EQ(sizeof "C:\\Documents.cs", length);
    documents[0]->Release();
    documents[1]->Release();
}

TEST(SymBinder, OnlyTheDebugFileOfThisBuildIsTaken)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const jrtest::TempDir temp;
    const std::vector<unsigned char> foo = jrtest::readBytes(folder + "/symbolic/foo.dll");
    const std::string alone = temp.write("alone/foo.dll", foo);
    const std::string paired = temp.write("paired/foo.dll", foo);
    temp.write("paired/foo.pdb", jrtest::readBytes(folder + "/symbolic/foo.pdb"));
    const std::string stranger = temp.write("stranger/foo.dll", foo);
    temp.write("stranger/foo.pdb", jrtest::readBytes(folder + "/symreader-converter/portable/Documents.pdb"));
    const std::wstring symbolic = toWide(folder + "/symbolic");

    struct Case {
        const char* what;
        std::string assembly;
        std::wstring searchPath;
        ULONG32 policy;
        HRESULT result;
    };
    const Case cases[] = {
        {"beside the assembly", folder + "/symbolic/foo.dll", L"", kPolicy, S_OK},
        {"beside, not allowed", paired, L"", AllowOriginalPathAccess, HRESULT_FILE_NOT_FOUND},
        {"beside, allowed", paired, L"", AllowReferencePathAccess, S_OK},
        {"nowhere", alone, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"in the search path", alone, L"/nonexistent;" + symbolic, 0, S_OK},
        {"another build's file", stranger, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"a Windows PDB", folder + "/symreader-converter/windows/Documents.dll", L"", kPolicy, E_NOTIMPL},
        {"no assembly", folder + "/symbolic/foo.pdb", L"", kPolicy, COR_E_BADIMAGEFORMAT},
        {"no file", temp.file("missing.dll"), L"", kPolicy, HRESULT_FILE_NOT_FOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ComPtr<ISymUnmanagedReader> reader;
        EXPECT_EQ(c.result, readerFor(c.assembly, reader, c.searchPath, c.policy));
        EXPECT_EQ(c.result == S_OK, static_cast<bool>(reader));
    }

    // The older binder class answers through the same operation.
    ComPtr<ISymUnmanagedBinder> older;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorSymBinder_deprecated, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_ISymUnmanagedBinder, reinterpret_cast<void**>(older.put())));
    ComPtr<ISymUnmanagedReader> reader;
    EXPECT_EQ(S_OK, static_cast<ISymUnmanagedBinder2*>(older.get())
                        ->GetReaderForFile2(nullptr, toWide(paired).c_str(), nullptr, kPolicy, reader.put()));
}

/// foo.dll with its empty Reproducible debug entry turned into an embedded Portable PDB: the
/// "MPDB" signature, the size, and `pdb` deflated, appended to the file.
std::vector<unsigned char> withEmbeddedPdb(std::vector<unsigned char> image, const std::vector<unsigned char>& pdb,
                                           std::size_t keepCompressed)
{
    std::vector<unsigned char> compressed(compressBound(static_cast<uLong>(pdb.size())) + 64);
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = const_cast<Bytef*>(pdb.data());
    stream.avail_in = static_cast<uInt>(pdb.size());
    stream.next_out = compressed.data();
    stream.avail_out = static_cast<uInt>(compressed.size());
    deflate(&stream, Z_FINISH);
    compressed.resize(std::min<std::size_t>(stream.total_out, keepCompressed));
    deflateEnd(&stream);

    const auto put32 = [&](std::size_t at, std::uint32_t value) {
        for (int i = 0; i < 4; ++i)
            image[at + i] = static_cast<unsigned char>(value >> (8 * i));
    };
    const auto get32 = [&](std::size_t at) {
        return std::uint32_t(image[at]) | std::uint32_t(image[at + 1]) << 8 | std::uint32_t(image[at + 2]) << 16 |
               std::uint32_t(image[at + 3]) << 24;
    };
    // The directory's third entry follows the CodeView (type 2) and PdbChecksum entries.
    std::size_t entry = 0;
    for (std::size_t at = 0; at + 28 * 3 <= image.size(); ++at)
        if (get32(at + 12) == 2 && get32(at + 16) == 98 && get32(at + 28 + 12) == 19) {
            entry = at + 56;
            break;
        }
    EXPECT_NE(0u, entry);
    put32(entry + 12, 17);
    put32(entry + 16, static_cast<std::uint32_t>(8 + compressed.size()));
    put32(entry + 20, 0);
    put32(entry + 24, static_cast<std::uint32_t>(image.size()));
    const unsigned char header[] = {'M', 'P', 'D', 'B'};
    image.insert(image.end(), header, header + 4);
    for (int i = 0; i < 4; ++i)
        image.push_back(static_cast<unsigned char>(pdb.size() >> (8 * i)));
    image.insert(image.end(), compressed.begin(), compressed.end());
    return image;
}

TEST(SymBinder, EmbeddedDebugFileIsReadWhenNoFileMatches)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const jrtest::TempDir temp;
    const std::vector<unsigned char> foo = jrtest::readBytes(folder + "/symbolic/foo.dll");
    const std::vector<unsigned char> pdb = jrtest::readBytes(folder + "/symbolic/foo.pdb");
    ComPtr<ISymUnmanagedReader> reader;
    ASSERT_EQ(S_OK, readerFor(temp.write("whole/foo.dll", withEmbeddedPdb(foo, pdb, SIZE_MAX)), reader));
    EXPECT_EQ(81u, lineAt(*reader.get(), 0x06000007, 10));
    EXPECT_EQ(HRESULT_FILE_NOT_FOUND, readerFor(temp.write("cut/foo.dll", withEmbeddedPdb(foo, pdb, 500)), reader));
    const std::vector<unsigned char> other = jrtest::readBytes(folder + "/cecil/PdbTarget.pdb");
    EXPECT_EQ(HRESULT_FILE_NOT_FOUND, readerFor(temp.write("other/foo.dll", withEmbeddedPdb(foo, other, SIZE_MAX)), reader));
}

} // namespace
