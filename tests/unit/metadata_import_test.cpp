// The metadata scope, PE images and the symbol binder on the real assemblies and debug files.
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include <gtest/gtest.h>

#include "platform/metadata/com_object.h"
#include "platform/metadata/corsym.h"
#include "platform/metadata/metadata_import.h"
#include "platform/metadata/pe_image.h"
#include "platform/metadata/portable_pdb.h"
#include "platform/metadata/system_services.h"
#include "platform/text.h"
#include "support/dotnet_testdata.h"
#include "support/sequence_points.h"
#include "support/temp_dir.h"

namespace {

using namespace velmark_3_11;

ComPtr<IMetaDataImport2> openScope(const std::string& path)
{
    typedef HRESULT (*GetDispenser)(REFCLSID, REFIID, LPVOID*);
    const auto getDispenser =
        reinterpret_cast<GetDispenser>(GetProcAddress(LoadLibraryW(L"rometadata.dll"), "MetaDataGetDispenser"));
    ComPtr<IMetaDataDispenserEx> dispenser;
    EXPECT_EQ(S_OK, getDispenser(CLSID_CorMetaDataDispenser, IID_IMetaDataDispenserEx,
                                 reinterpret_cast<void**>(dispenser.put())));
    ComPtr<IMetaDataImport2> import;
    EXPECT_EQ(S_OK, dispenser->OpenScope(toWide(path).c_str(), ofRead, IID_IMetaDataImport2,
                                         reinterpret_cast<IUnknown**>(import.put())));
    return import;
}

/// One line per method def token: token, owning type, name and signature bytes, with the name
/// read as the method naming reads it: its length first, then a buffer of that length.
std::string describeMethods(IMetaDataImport2& import)
{
    std::string text;
    for (mdMethodDef token = mdtMethodDef | 1;; ++token) {
        ULONG length = 0, signatureSize = 0, written = 0, typeLength = 0;
        if (import.GetMethodProps(token, nullptr, nullptr, 0, &length, nullptr, nullptr, nullptr, nullptr, nullptr) ==
            CLDB_E_INDEX_NOTFOUND)
            return text;
        std::vector<wchar_t> name(length);
        mdTypeDef owner = 0;
        PCCOR_SIGNATURE signature = nullptr;
        EXPECT_EQ(S_OK, import.GetMethodProps(token, &owner, name.data(), length, &written, nullptr, &signature,
                                              &signatureSize, nullptr, nullptr));
        EXPECT_EQ(length, written);
        wchar_t type[512];
        EXPECT_EQ(S_OK, import.GetTypeDefProps(owner, type, 512, &typeLength, nullptr, nullptr));
        char hex[16];
        std::snprintf(hex, sizeof hex, "%08x ", token);
        text += hex + toUtf8(type) + "::" + toUtf8(name.data());
        for (ULONG i = 0; i < signatureSize; ++i) {
            std::snprintf(hex, sizeof hex, " %02x", signature[i]);
            text += hex;
        }
        text += "\n";
    }
}

const char kFooMethods[] = R"(06000001 StackTraceSample::Main 00 01 01 1d 0e
06000002 StackTraceSample::MyPublicMethod 20 00 01
06000003 StackTraceSample::MyProtectedMethod 20 00 01
06000004 StackTraceSample::.ctor 20 00 01
06000005 MyInternalClass::.ctor 20 00 01
06000006 MyInternalClass::GetPdbId 20 01 0e 12 35
06000007 MyInternalClass::ThrowsException 20 00 01
06000008 <>c::.cctor 00 00 01
06000009 <>c::.ctor 20 00 01
0600000a <>c::<GetPdbId>b__1_0 20 01 02 11 41
)";

const char kPdbTargetMethods[] = R"(06000001 PdbTarget.B::.ctor 20 00 01
06000002 PdbTarget.Program::Main 00 01 01 1d 0e
06000003 PdbTarget.Program::Where 10 01 02 15 12 5d 01 1e 00 15 12 5d 01 1e 00 15 12 61 02 1e 00 02
06000004 PdbTarget.Program::Foo 00 00 01
06000005 PdbTarget.Program::Bar 00 01 01 08
06000006 PdbTarget.Program::Baz 00 01 12 6d 12 71
06000007 PdbTarget.Program::Gazonk 00 00 1c
06000008 PdbTarget.Program::GazonkRef 00 01 01 10 1c
06000009 PdbTarget.Program::.ctor 20 00 01
0600000a PdbTarget.Program::.cctor 00 00 01
0600000b <Where>d__3`1::.ctor 20 01 01 08
0600000c <Where>d__3`1::System.IDisposable.Dispose 20 00 01
0600000d <Where>d__3`1::MoveNext 20 00 02
0600000e <Where>d__3`1::<>m__Finally1 20 00 01
0600000f <Where>d__3`1::System.Collections.Generic.IEnumerator<T>.get_Current 20 00 13 00
06000010 <Where>d__3`1::System.Collections.IEnumerator.Reset 20 00 01
06000011 <Where>d__3`1::System.Collections.IEnumerator.get_Current 20 00 1c
06000012 <Where>d__3`1::System.Collections.Generic.IEnumerable<T>.GetEnumerator 20 00 15 12 80 8d 01 13 00
06000013 <Where>d__3`1::System.Collections.IEnumerable.GetEnumerator 20 00 12 80 89
06000014 <Baz>d__7::.ctor 20 00 01
06000015 <Baz>d__7::MoveNext 20 00 01
06000016 <Baz>d__7::SetStateMachine 20 01 01 12 80 99
)";

const char kDocumentsMethods[] = R"(06000001 C::M 20 00 01
06000002 C::F 20 00 01
06000003 C::.ctor 20 00 01
06000004 <>c::.cctor 00 00 01
06000005 <>c::.ctor 20 00 01
06000006 <>c::<F>b__1_0 20 01 08 08
)";

// C<U>.D<V>: M<T>() and M<S, T>() as generic methods returning IEnumerable<int>, and their
// iterator classes with the explicit interface implementations.
const char kIteratorMethods[] = R"(06000001 C`1::.ctor 20 00 01
06000002 D`1::M 30 01 00 15 12 21 01 08
06000003 D`1::M 30 02 00 15 12 21 01 08
06000004 D`1::.ctor 20 00 01
06000005 <M>d__0`1::.ctor 20 01 01 08
06000006 <M>d__0`1::System.IDisposable.Dispose 20 00 01
06000007 <M>d__0`1::MoveNext 20 00 02
06000008 <M>d__0`1::System.Collections.Generic.IEnumerator<System.Int32>.get_Current 20 00 08
06000009 <M>d__0`1::System.Collections.IEnumerator.Reset 20 00 01
0600000a <M>d__0`1::System.Collections.IEnumerator.get_Current 20 00 1c
0600000b <M>d__0`1::System.Collections.Generic.IEnumerable<System.Int32>.GetEnumerator 20 00 15 12 31 01 08
0600000c <M>d__0`1::System.Collections.IEnumerable.GetEnumerator 20 00 12 2d
0600000d <M>d__1`2::.ctor 20 01 01 08
0600000e <M>d__1`2::System.IDisposable.Dispose 20 00 01
0600000f <M>d__1`2::MoveNext 20 00 02
06000010 <M>d__1`2::System.Collections.Generic.IEnumerator<System.Int32>.get_Current 20 00 08
06000011 <M>d__1`2::System.Collections.IEnumerator.Reset 20 00 01
06000012 <M>d__1`2::System.Collections.IEnumerator.get_Current 20 00 1c
06000013 <M>d__1`2::System.Collections.Generic.IEnumerable<System.Int32>.GetEnumerator 20 00 15 12 31 01 08
06000014 <M>d__1`2::System.Collections.IEnumerable.GetEnumerator 20 00 12 2d
)";

struct Assembly {
    const char* path;
    const std::string methods;
    const char* framework; // text in the TargetFrameworkAttribute, or null when it has none
    const char* debugFile; // as the debug directory names it, with its kind, age and PdbChecksum entry
};

const Assembly kAssemblies[] = {
    {"symbolic/foo.dll", kFooMethods, ".NETCoreApp,Version=v6.0",
     "/Users/swatinem/Coding/sentry-dotnet/samples/foo/obj/Debug/net6.0/foo.pdb portable 1 SHA256 32"},
    {"cecil/PdbTarget.exe", kPdbTargetMethods, ".NETFramework,Version=v4.5.2",
     "C:\\sources\\PdbTarget\\obj\\Debug_ppdb\\PdbTarget.pdb portable 1"},
    {"symreader-converter/portable/Documents.dll", kDocumentsMethods, nullptr, "/Documents.pdb portable 1 SHA256 32"},
    {"symreader-converter/windows/Documents.dll", kDocumentsMethods, nullptr, "/Documents.pdb windows 1"},
    {"symreader-converter/portable/Iterator.dll", kIteratorMethods, nullptr,
     "D:\\symreader-converter\\src\\PdbTestResources\\Resources\\Iterator.pdb portable 1"},
    {"symreader-converter/windows/Iterator.dll", kIteratorMethods, nullptr,
     "D:\\symreader-converter\\src\\PdbTestResources\\Resources\\Iterator.pdb windows 1"},
};

TEST(MetadataImport, EachMethodTokenItsEnumerationTheFrameworkAttributeAndTheDebugDirectory)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const mdToken assemblyToken = 0x20000001;
    for (const Assembly& assembly : kAssemblies) {
        SCOPED_TRACE(assembly.path);
        HRESULT result = E_FAIL;
        const std::unique_ptr<PeImage> image = PeImage::create(jrtest::readBytes(folder + "/" + assembly.path), result);
        ASSERT_EQ(S_OK, result);
        CodeViewRecord codeView{};
        ASSERT_TRUE(image->codeView(codeView));
        const std::vector<PdbChecksum> checksums = image->pdbChecksums();
        EXPECT_EQ(assembly.debugFile, codeView.path + (codeView.portable ? " portable " : " windows ") +
                                          std::to_string(codeView.age) +
                                          (checksums.empty() ? "" : " " + checksums[0].algorithm + " " +
                                                                        std::to_string(checksums[0].checksum.size())));
        std::vector<std::uint8_t> embedded;
        EXPECT_FALSE(image->embeddedPdb(embedded));

        const ComPtr<IMetaDataImport2> import = openScope(folder + "/" + assembly.path);
        ASSERT_TRUE(import);
        EXPECT_EQ(assembly.methods, describeMethods(*import.get()));

        // The enumerators page through every method once, with its owner.
        HCORENUM types = nullptr;
        import->EnumTypeDefs(&types, nullptr, 0, nullptr);
        ULONG typeCount = 0;
        ASSERT_EQ(S_OK, import->CountEnum(types, &typeCount));
        std::vector<mdTypeDef> typeDefs(typeCount + 1, mdTokenNil); // the global functions first
        ULONG filled = 0;
        EXPECT_EQ(S_OK, import->EnumTypeDefs(&types, typeDefs.data() + 1, typeCount, &filled));
        EXPECT_EQ(typeCount, filled);
        import->CloseEnum(types);

        std::vector<mdMethodDef> seen;
        for (const mdTypeDef type : typeDefs) {
            HCORENUM methods = nullptr;
            mdMethodDef method = 0;
            ULONG count = 0;
            // One token per page, so that the enumerator must keep its place.
            while (import->EnumMethods(&methods, type, &method, 1, &count) == S_OK) {
                ASSERT_EQ(1u, count);
                mdTypeDef owner = 0;
                EXPECT_EQ(S_OK, import->GetMethodProps(method, &owner, nullptr, 0, nullptr, nullptr, nullptr,
                                                       nullptr, nullptr, nullptr));
                EXPECT_EQ(type == mdTokenNil ? (mdtTypeDef | 1) : type, owner);
                seen.push_back(method);
            }
            EXPECT_EQ(0u, count);
            import->CloseEnum(methods);
        }
        std::sort(seen.begin(), seen.end());
        std::vector<mdMethodDef> all(std::count(assembly.methods.begin(), assembly.methods.end(), '\n'));
        std::iota(all.begin(), all.end(), mdtMethodDef | 1);
        EXPECT_EQ(all, seen);

        const void* blob = nullptr;
        ULONG size = 0;
        const HRESULT found = import->GetCustomAttributeByName(
            assemblyToken, L"System.Runtime.Versioning.TargetFrameworkAttribute", &blob, &size);
        if (assembly.framework == nullptr) {
            EXPECT_EQ(S_FALSE, found);
            EXPECT_EQ(nullptr, blob);
            EXPECT_EQ(0u, size);
            continue;
        }
        ASSERT_EQ(S_OK, found);
        const std::string value(static_cast<const char*>(blob), size);
        EXPECT_NE(std::string::npos, value.find(assembly.framework)) << value;

        // The same attribute is among those of the whole scope, with the assembly as owner.
        HCORENUM attributes = nullptr;
        mdCustomAttribute tokens[260];
        ULONG count = 0;
        // Left open on purpose: the scope frees what its callers never close.
        EXPECT_EQ(S_OK, import->EnumCustomAttributes(&attributes, 0, 0, tokens, 260, &count));
        EXPECT_TRUE(std::any_of(tokens, tokens + count, [&](mdCustomAttribute token) {
            mdToken owner = 0;
            const void* value = nullptr;
            return import->GetCustomAttributeProps(token, &owner, nullptr, &value, nullptr) == S_OK &&
                   owner == assemblyToken && value == blob;
        }));
    }
}

TEST(MetadataImport, NamesAreCutToTheBufferAndBadTokensFail)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const ComPtr<IMetaDataImport2> import = openScope(folder + "/cecil/PdbTarget.exe");
    ASSERT_TRUE(import);
    wchar_t name[4];
    ULONG length = 0;
    EXPECT_EQ(CLDB_S_TRUNCATION, import->GetTypeDefProps(mdtTypeDef | 2, name, 4, &length, nullptr, nullptr));
    EXPECT_EQ(std::wstring(L"Pdb"), name);
    EXPECT_EQ(sizeof "PdbTarget.B", length);

    struct Case { mdToken token; HRESULT method, typeDef, attribute; };
    const Case cases[] = {
        {mdtMethodDef | 0, CLDB_E_INDEX_NOTFOUND, E_INVALIDARG, E_INVALIDARG},
        {mdtMethodDef | 0xFFFFFF, CLDB_E_INDEX_NOTFOUND, E_INVALIDARG, E_INVALIDARG},
        {mdtTypeDef | 1, E_INVALIDARG, S_OK, E_INVALIDARG},
        {mdtTypeDef | 0x1000, E_INVALIDARG, CLDB_E_INDEX_NOTFOUND, E_INVALIDARG},
        {mdtCustomAttribute | 31, E_INVALIDARG, E_INVALIDARG, CLDB_E_INDEX_NOTFOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.token);
        EXPECT_EQ(c.method, import->GetMethodProps(c.token, nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr));
        EXPECT_EQ(c.typeDef, import->GetTypeDefProps(c.token, nullptr, 0, nullptr, nullptr, nullptr));
        EXPECT_EQ(c.attribute, import->GetCustomAttributeProps(c.token, nullptr, nullptr, nullptr, nullptr));
    }
}

TEST(MetadataImport, SystemServicesLeadOnlyToTheStandInsAndAnUncompressedTableStreamReadsAsTheCompressedOne)
{
    OSVERSIONINFOEXA version{};
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 2;
    const DWORDLONG atLeast = VerSetConditionMask(
        VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL), VER_MINORVERSION, VER_GREATER_EQUAL);
    EXPECT_TRUE(VerifyVersionInfoA(&version, VER_MAJORVERSION | VER_MINORVERSION, atLeast));
    version.dwMinorVersion = 3;
    EXPECT_FALSE(VerifyVersionInfoA(&version, VER_MAJORVERSION | VER_MINORVERSION, atLeast));

    EXPECT_EQ(nullptr, LoadLibraryW(L"other.dll"));
    EXPECT_EQ(nullptr, GetProcAddress(LoadLibraryW(L"ROMetadata.dll"), "MetaDataGetScope"));
    void* object = nullptr;
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, MetaDataGetDispenser(IID_IMetaDataImport, IID_IMetaDataDispenser, &object));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, CoCreateInstance(IID_IUnknown, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object));
    EXPECT_EQ(nullptr, object);

    ComPtr<IMetaDataDispenser> dispenser;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorMetaDataDispenser, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_IMetaDataDispenser, reinterpret_cast<void**>(dispenser.put())));
    IUnknown* scope = nullptr;
    EXPECT_EQ(HRESULT_FILE_NOT_FOUND, dispenser->OpenScope(L"/nonexistent/a.dll", ofRead, IID_IMetaDataImport2, &scope));
    EXPECT_EQ(E_INVALIDARG, dispenser->OpenScope(L"/nonexistent/a.dll", 1, IID_IMetaDataImport2, &scope));
    EXPECT_EQ(nullptr, scope);
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    std::vector<unsigned char> image = jrtest::readBytes(folder + "/symbolic/foo.dll");
    image.at(jrtest::find(image, {'#', '~', 0, 0}) + 1) = '-';
    ComPtr<IMetaDataImport2> import;
    ASSERT_EQ(S_OK, dispenser->OpenScopeOnMemory(image.data(), static_cast<ULONG>(image.size()), ofRead,
                                                 IID_IMetaDataImport2, reinterpret_cast<IUnknown**>(import.put())));
    EXPECT_EQ(kFooMethods, describeMethods(*import.get()));
}

using jrtest::get32;

TEST(PeImage, DamagedHeadersFailAsNoImageOrAsCorrupt)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const std::vector<unsigned char> foo = jrtest::readBytes(folder + "/symbolic/foo.dll");
    HRESULT result = E_FAIL;
    const std::unique_ptr<PeImage> image = PeImage::create(foo, result);
    ASSERT_TRUE(image);
    const std::size_t coff = get32(foo, 0x3C) + 4;
    const std::size_t optional = coff + 20;
    ASSERT_EQ(0x10Bu, get32(foo, optional) & 0xFFFF);
    const std::size_t cliDirectory = optional + 96 + 14 * 8;
    std::uint32_t cli = 0;
    ASSERT_TRUE(image->rvaToOffset(get32(foo, cliDirectory), 72, cli));
    const std::size_t root = image->metadataOffset();
    const std::size_t streams = root + 16 + get32(foo, root + 12) + 4;
    const std::size_t tables = root + get32(foo, streams); // the #~ stream comes first
    ASSERT_EQ('#', foo[streams + 8]);
    ASSERT_EQ('~', foo[streams + 9]);

    struct Case { const char* what; std::size_t at; std::uint32_t value; int size; HRESULT result; };
    const Case cases[] = {
        {"no MZ", 0, 0x5858, 2, COR_E_BADIMAGEFORMAT},
        {"PE header past the end", 0x3C, 0xFFFFFFF0, 4, COR_E_BADIMAGEFORMAT},
        {"no PE signature", coff - 4, 0x4551, 4, COR_E_BADIMAGEFORMAT},
        {"unknown optional header", optional, 0x999, 2, COR_E_BADIMAGEFORMAT},
        {"optional header too small", coff + 16, 8, 2, CLDB_E_FILE_CORRUPT},
        {"sections past the end", coff + 2, 0xFFFF, 2, CLDB_E_FILE_CORRUPT},
        {"no CLI header", cliDirectory, 0, 4, COR_E_BADIMAGEFORMAT},
        {"CLI header outside the sections", cliDirectory, 0x7FFFFFFF, 4, CLDB_E_FILE_CORRUPT},
        {"CLI header too short", cli, 8, 4, CLDB_E_FILE_CORRUPT},
        {"metadata past its section", cli + 12, 0xFFFFFF00, 4, CLDB_E_FILE_CORRUPT},
        {"no metadata signature", root, 0x58585858, 4, COR_E_BADIMAGEFORMAT},
        {"version text past the end", root + 12, 0x7FFFFFFF, 4, CLDB_E_FILE_CORRUPT},
        {"stream past the metadata", streams + 4, 0x10000000, 4, CLDB_E_FILE_CORRUPT},
        {"rows past the tables stream", tables + 24, 0x00FFFFFF, 4, CLDB_E_FILE_CORRUPT},
        {"row count beyond a token", tables + 24, 0x01000000, 4, CLDB_E_FILE_CORRUPT},
        {"table without a schema", tables + 8 + 5, 0x80, 1, CLDB_E_FILE_CORRUPT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<unsigned char> damaged = foo;
        jrtest::put(damaged, c.at, c.value, c.size);
        ComPtr<MetadataImport> import;
        EXPECT_EQ(c.result, MetadataImport::open(damaged, import.put()));
    }
}

TEST(PeImage, EveryPrefixOfARealFileLoadsOrFailsCleanly)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const Assembly& assembly : kAssemblies) {
        SCOPED_TRACE(assembly.path);
        const std::vector<unsigned char> bytes = jrtest::readBytes(folder + "/" + assembly.path);
        std::size_t opens = 0;
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            ComPtr<MetadataImport> import;
            const HRESULT result =
                MetadataImport::open(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length), import.put());
            ASSERT_TRUE(result == S_OK || result == COR_E_BADIMAGEFORMAT || result == CLDB_E_FILE_CORRUPT)
                << length << ": " << std::hex << result;
            if (!import)
                continue;
            // A cut that spares the headers and the metadata leaves a usable scope.
            mdTypeDef owner = 0;
            wchar_t name[64];
            for (mdMethodDef token = mdtMethodDef | 1; token < (mdtMethodDef | 0x30); ++token)
                import->GetMethodProps(token, &owner, name, 64, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
            ++opens;
        }
        EXPECT_GT(opens, 0u);
    }
    for (const char* path : jrtest::kDebugFiles) {
        SCOPED_TRACE(path);
        const std::vector<unsigned char> bytes = jrtest::readBytes(folder + "/" + path);
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            HRESULT result = E_FAIL;
            const std::unique_ptr<PortablePdb> pdb =
                PortablePdb::create(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length), result);
            ASSERT_TRUE(result == S_OK || result == COR_E_BADIMAGEFORMAT || result == CLDB_E_FILE_CORRUPT) << length;
            if (!pdb)
                continue;
            // Tables cut inside their heaps still open; their rows answer or fail one by one.
            std::vector<PdbSequencePoint> points;
            for (std::uint32_t row = 1; row <= 0x20; ++row)
                pdb->sequencePoints(row, points);
            PdbDocument document;
            for (std::uint32_t row = 1; row <= pdb->documentCount(); ++row)
                pdb->document(row, document);
        }
    }
}

constexpr ULONG32 kPolicy = AllowOriginalPathAccess | AllowReferencePathAccess;

HRESULT readerFor(const std::string& assembly, ComPtr<ISymUnmanagedReader>& reader, const std::wstring& searchPath = L"",
                  ULONG32 policy = kPolicy)
{
    ComPtr<ISymUnmanagedBinder2> binder;
    EXPECT_EQ(S_OK, CoCreateInstance(CLSID_CorSymBinder_SxS, nullptr, CLSCTX_INPROC_SERVER, IID_ISymUnmanagedBinder2,
                                     reinterpret_cast<void**>(binder.put())));
    return binder->GetReaderForFile2(nullptr, toWide(assembly).c_str(), searchPath.c_str(), policy, reader.put());
}

/// Each point of the method at `token` with its document's URL, or "no method".
std::string pointsOf(ISymUnmanagedReader& reader, mdMethodDef token)
{
    ComPtr<ISymUnmanagedMethod> method;
    if (reader.GetMethod(token, method.put()) != S_OK)
        return "no method";
    return jrtest::pointsText(*method.get(), [](ISymUnmanagedDocument& document) {
        wchar_t text[512];
        ULONG32 length = 0;
        EXPECT_EQ(S_OK, document.GetURL(512, &length, text));
        EXPECT_EQ(std::wcslen(text) + 1, length);
        return toUtf8(text);
    });
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

TEST(SymBinder, SequencePointsAndNearestPointLookupsOfRealMethods)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const struct { const char* assembly; mdMethodDef token; const char* points; } cases[] = {
        {"cecil/PdbTarget.exe", 0x06000002, kPdbTargetMain},
        {"symreader-converter/portable/Iterator.dll", 0x06000099, "no method"},
        {"symreader-converter/portable/Iterator.dll", 0x02000002, "no method"},
    };
    ComPtr<ISymUnmanagedReader> reader;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.assembly);
        ASSERT_EQ(S_OK, readerFor(folder + "/" + c.assembly, reader));
        EXPECT_EQ(c.points, pointsOf(*reader.get(), c.token));
    }
    // B's constructor runs field initialisers written in Program.cs between lines of B.cs.
    ASSERT_EQ(S_OK, readerFor(folder + "/cecil/PdbTarget.exe", reader));
    const std::string b = pointsOf(*reader.get(), 0x06000001);
    std::size_t at = 0;
    for (const char* piece : {"0 7:", "B.cs", "b 110:", "Program.cs", "12 111:", "Program.cs", "19 9:", "B.cs"})
        ASSERT_NE(std::string::npos, at = b.find(piece, at)) << piece << " in\n" << b;

    ASSERT_EQ(S_OK, readerFor(folder + "/symbolic/foo.dll", reader));
    const ULONG32 lookups[][3] = {{7, 10, 81}, {5, 6, 37}, {3, 0, 30}, {2, 0, 25}, {1, 45, 20}};
    for (const auto& lookup : lookups)
        EXPECT_EQ(lookup[2], lineAt(*reader.get(), mdtMethodDef | lookup[0], lookup[1])) << lookup[0];
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

    // The directory's third entry follows the CodeView (type 2) and PdbChecksum entries.
    std::size_t entry = 0;
    for (std::size_t at = 0; at + 28 * 3 <= image.size(); ++at)
        if (get32(image, at + 12) == 2 && get32(image, at + 16) == 98 && get32(image, at + 28 + 12) == 19) {
            entry = at + 56;
            break;
        }
    EXPECT_NE(0u, entry);
    jrtest::put(image, entry + 12, 17);
    jrtest::put(image, entry + 16, static_cast<std::uint32_t>(8 + compressed.size()));
    jrtest::put(image, entry + 20, 0);
    jrtest::put(image, entry + 24, static_cast<std::uint32_t>(image.size()));
    const unsigned char header[] = {'M', 'P', 'D', 'B'};
    image.insert(image.end(), header, header + 4);
    for (int i = 0; i < 4; ++i)
        image.push_back(static_cast<unsigned char>(pdb.size() >> (8 * i)));
    image.insert(image.end(), compressed.begin(), compressed.end());
    return image;
}

TEST(SymBinder, OnlyTheDebugFileOfThisBuildIsTakenBesideInTheSearchPathOrEmbedded)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const jrtest::TempDir temp;
    const std::vector<unsigned char> foo = jrtest::readBytes(folder + "/symbolic/foo.dll");
    const std::vector<unsigned char> fooPdb = jrtest::readBytes(folder + "/symbolic/foo.pdb");
    const std::string alone = temp.write("alone/foo.dll", foo);
    const std::string paired = temp.write("paired/foo.dll", foo);
    temp.write("paired/foo.pdb", fooPdb);
    const std::string stranger = temp.write("stranger/foo.dll", foo);
    temp.write("stranger/foo.pdb", jrtest::readBytes(folder + "/symreader-converter/portable/Documents.pdb"));
    const std::wstring symbolic = toWide(folder + "/symbolic");
    // Documents.dll beside its Windows PDB, once with another age in its CodeView entry and once
    // with another signature in the debug file.
    const std::string windows = folder + "/symreader-converter/windows/Documents";
    std::vector<unsigned char> dll = jrtest::readBytes(windows + ".dll"), pdb = jrtest::readBytes(windows + ".pdb");
    const std::string otherSignature = temp.write("signature/Documents.dll", dll);
    jrtest::put(dll, jrtest::find(dll, {'R', 'S', 'D', 'S'}) + 20, 2);
    const std::string olderAge = temp.write("age/Documents.dll", dll);
    temp.write("age/Documents.pdb", pdb);
    pdb[jrtest::find(pdb, {0x9A, 0x36, 0x63, 0x81})] ^= 1;
    temp.write("signature/Documents.pdb", pdb);

    struct Case { const char* what; std::string assembly; std::wstring searchPath; ULONG32 policy; HRESULT result; };
    const Case cases[] = {
        {"beside, not allowed", paired, L"", AllowOriginalPathAccess, HRESULT_FILE_NOT_FOUND},
        {"beside, allowed", paired, L"", AllowReferencePathAccess, S_OK},
        {"nowhere", alone, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"in the search path", alone, L"/nonexistent;" + symbolic, 0, S_OK},
        {"another build's file", stranger, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"a Windows PDB", windows + ".dll", L"", kPolicy, S_OK},
        {"a Windows PDB of another age", olderAge, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"a Windows PDB of another signature", otherSignature, L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"no assembly", folder + "/symbolic/foo.pdb", L"", kPolicy, COR_E_BADIMAGEFORMAT},
        {"no file", temp.file("missing.dll"), L"", kPolicy, HRESULT_FILE_NOT_FOUND},
        {"embedded", temp.write("embedded/foo.dll", withEmbeddedPdb(foo, fooPdb, SIZE_MAX)), L"", kPolicy, S_OK},
        {"embedded, cut short", temp.write("cut/foo.dll", withEmbeddedPdb(foo, fooPdb, 500)), L"", kPolicy,
         HRESULT_FILE_NOT_FOUND},
        {"embedded, of another build",
         temp.write("other/foo.dll", withEmbeddedPdb(foo, jrtest::readBytes(folder + "/cecil/PdbTarget.pdb"), SIZE_MAX)),
         L"", kPolicy, HRESULT_FILE_NOT_FOUND},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ComPtr<ISymUnmanagedReader> reader;
        EXPECT_EQ(c.result, readerFor(c.assembly, reader, c.searchPath, c.policy));
        EXPECT_EQ(c.result == S_OK, static_cast<bool>(reader));
        if (reader && c.assembly.find("/foo.dll") != std::string::npos) {
            EXPECT_EQ(81u, lineAt(*reader.get(), 0x06000007, 10)); // foo.pdb it is
        }
    }

    // The older binder class answers through the same operation.
    ComPtr<ISymUnmanagedBinder> older;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorSymBinder_deprecated, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_ISymUnmanagedBinder, reinterpret_cast<void**>(older.put())));
    ComPtr<ISymUnmanagedReader> reader;
    EXPECT_EQ(S_OK, static_cast<ISymUnmanagedBinder2*>(older.get())
                        ->GetReaderForFile2(nullptr, toWide(paired).c_str(), nullptr, kPolicy, reader.put()));
}

} // namespace
