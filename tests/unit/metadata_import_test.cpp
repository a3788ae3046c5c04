// The metadata scope on the real assemblies, reached as the assembly reader reaches it.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/metadata/com_object.h"
#include "platform/metadata/system_services.h"
#include "platform/text.h"
#include "support/dotnet_testdata.h"

namespace {

using velmark_3_11::ComPtr;
using velmark_3_11::toUtf8;
using velmark_3_11::toWide;

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
        ULONG length = 0;
        const HRESULT found = import.GetMethodProps(token, nullptr, nullptr, 0, &length, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr);
        if (found == CLDB_E_INDEX_NOTFOUND)
            return text;
        std::vector<wchar_t> name(length);
        mdTypeDef owner = 0;
        PCCOR_SIGNATURE signature = nullptr;
        ULONG signatureSize = 0, written = 0;
        EXPECT_EQ(S_OK, import.GetMethodProps(token, &owner, name.data(), length, &written, nullptr, &signature,
                                              &signatureSize, nullptr, nullptr));
        EXPECT_EQ(length, written);
        wchar_t type[512];
        ULONG typeLength = 0;
        EXPECT_EQ(S_OK, import.GetTypeDefProps(owner, type, 512, &typeLength, nullptr, nullptr));
        char tokenText[16];
        std::snprintf(tokenText, sizeof tokenText, "%08x ", token);
        text += tokenText + toUtf8(type) + "::" + toUtf8(name.data());
        for (ULONG i = 0; i < signatureSize; ++i) {
            char byte[4];
            std::snprintf(byte, sizeof byte, " %02x", signature[i]);
            text += byte;
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
    const char* methods;
    const char* framework; // text in the TargetFrameworkAttribute, or null when it has none
};

const Assembly kAssemblies[] = {
    {"symbolic/foo.dll", kFooMethods, ".NETCoreApp,Version=v6.0"},
    {"cecil/PdbTarget.exe", kPdbTargetMethods, ".NETFramework,Version=v4.5.2"},
    {"symreader-converter/portable/Documents.dll", kDocumentsMethods, nullptr},
    {"symreader-converter/windows/Documents.dll", kDocumentsMethods, nullptr},
    {"symreader-converter/portable/Iterator.dll", kIteratorMethods, nullptr},
    {"symreader-converter/windows/Iterator.dll", kIteratorMethods, nullptr},
};

TEST(MetadataImport, EveryMethodTokenGivesItsNameTypeAndSignature)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const Assembly& assembly : kAssemblies) {
        SCOPED_TRACE(assembly.path);
        const ComPtr<IMetaDataImport2> import = openScope(folder + "/" + assembly.path);
        ASSERT_TRUE(import);
        EXPECT_EQ(assembly.methods, describeMethods(*import.get()));
    }
}

TEST(MetadataImport, UncompressedTableStreamReadsAsTheCompressedOne)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    std::vector<unsigned char> image = jrtest::readBytes(folder + "/symbolic/foo.dll");
    const unsigned char compressed[] = {'#', '~', 0, 0};
    const auto name = std::search(image.begin(), image.end(), compressed, compressed + 4);
    ASSERT_NE(image.end(), name);
    name[1] = '-';
    ComPtr<IMetaDataDispenser> dispenser;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_CorMetaDataDispenser, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_IMetaDataDispenser, reinterpret_cast<void**>(dispenser.put())));
    ComPtr<IMetaDataImport2> import;
    ASSERT_EQ(S_OK, dispenser->OpenScopeOnMemory(image.data(), static_cast<ULONG>(image.size()), ofRead,
                                                 IID_IMetaDataImport2, reinterpret_cast<IUnknown**>(import.put())));
    EXPECT_EQ(kFooMethods, describeMethods(*import.get()));
}

TEST(MetadataImport, EnumeratorsPageThroughEveryMethodOnceWithItsOwner)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const Assembly& assembly : kAssemblies) {
        SCOPED_TRACE(assembly.path);
        const ComPtr<IMetaDataImport2> import = openScope(folder + "/" + assembly.path);
        ASSERT_TRUE(import);
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
        const std::size_t lines = static_cast<std::size_t>(std::count(assembly.methods, assembly.methods + std::strlen(assembly.methods), '\n'));
        ASSERT_EQ(lines, seen.size());
        for (std::size_t i = 0; i < seen.size(); ++i)
            EXPECT_EQ(mdtMethodDef | (i + 1), seen[i]);
    }
}

TEST(MetadataImport, TargetFrameworkAttributeOfTheAssembly)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const mdToken assemblyToken = 0x20000001;
    for (const Assembly& assembly : kAssemblies) {
        SCOPED_TRACE(assembly.path);
        const ComPtr<IMetaDataImport2> import = openScope(folder + "/" + assembly.path);
        ASSERT_TRUE(import);
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
    wchar_t reference[512];
    mdToken scope = 0;
    EXPECT_EQ(S_OK, import->GetTypeRefProps(mdtTypeRef | 1, &scope, reference, 512, &length));
    EXPECT_NE(std::wstring::npos, std::wstring(reference).find(L"System.")) << toUtf8(reference);

    struct Case {
        mdToken token;
        HRESULT method, typeDef, attribute;
    };
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

TEST(MetadataImport, SystemServicesLeadOnlyToTheStandIns)
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
}

} // namespace
