// Windows PDB files through the symbol binder, against the dumps their origin project asserts;
// damaged and cut files. Matching a Windows PDB to its assembly is among the metadata tests'.
#include <map>
#include <regex>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "platform/metadata/com_object.h"
#include "platform/metadata/metadata_import.h"
#include "platform/metadata/sym_binder.h"
#include "platform/metadata/windows_pdb.h"
#include "platform/text.h"
#include "support/dotnet_testdata.h"
#include "support/sequence_points.h"

namespace {

using namespace velmark_3_11;

/// Each method with sequence points, as its name and one line per point, in the dump's order.
std::string expectedMethods(const std::string& dumpPath)
{
    const std::vector<unsigned char> bytes = jrtest::readBytes(dumpPath);
    std::istringstream dump(std::string(bytes.begin(), bytes.end()));
    const std::regex pair(R"( (\w+)="([^"]*)\")");
    std::vector<std::string> files(1);
    std::string text, method, line;
    while (std::getline(dump, line)) {
        // A hidden entry names neither lines nor columns.
        std::map<std::string, std::string> at{
            {"startLine", std::to_string(kHiddenLine)}, {"startColumn", "0"}, {"endLine", "0"}, {"endColumn", "0"}};
        for (std::sregex_iterator it(line.begin(), line.end(), pair), end; it != end; ++it)
            at[(*it)[1]] = (*it)[2];
        const auto number = [&](const char* name) { return static_cast<ULONG32>(std::stoul(at[name], nullptr, 0)); };
        if (line.find("<file ") != std::string::npos)
            files.push_back(at["name"] +
                            (at["checksum"].empty() ? "" : " " + at["checksumAlgorithm"] + " " + at["checksum"]));
        else if (line.find("<method ") != std::string::npos)
            method = at["name"] + "\n";
        else if (line.find("<entry ") != std::string::npos)
            text += std::exchange(method, "") + jrtest::pointText(number("offset"), number("startLine"), number("startColumn"),
                                                          number("endLine"), number("endColumn"),
                                                          files.at(number("document")));
    }
    return text;
}

/// The same from the symbol reader, for every method def of `assembly` in token order.
std::string readMethods(const std::string& assembly, ISymUnmanagedReader& reader)
{
    MetadataImport* opened = nullptr;
    EXPECT_EQ(S_OK, MetadataImport::open(jrtest::readBytes(assembly), &opened));
    const ComPtr<MetadataImport> import(opened);
    std::string text;
    wchar_t name[512];
    mdTypeDef owner = 0;
    for (mdMethodDef token = mdtMethodDef | 1;
         import->GetMethodProps(token, &owner, name, 512, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) == S_OK;
         ++token) {
        ComPtr<ISymUnmanagedMethod> method;
        if (reader.GetMethod(token, method.put()) != S_OK)
            continue;
        text += toUtf8(name) + "\n" + jrtest::pointsText(*method.get(), jrtest::documentText);
    }
    return text;
}

// The Portable PDB builds of the same sources convert to the same dumps.
TEST(WindowsPdb, EverySequencePointDocumentAndHashOfBothKindsAsTheExpectedDumps)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const char* kind : {"windows", "portable"})
        for (const char* name : {"Documents", "Iterator"}) {
            SCOPED_TRACE(std::string(kind) + " " + name);
            const std::string assembly = folder + "/symreader-converter/" + kind + "/" + name + ".dll";
            ComPtr<ISymUnmanagedReader> reader;
            ASSERT_EQ(S_OK, ComPtr<SymBinder>(SymBinder::create())
                                ->GetReaderForFile2(nullptr, toWide(assembly).c_str(), L"",
                                                    AllowOriginalPathAccess | AllowReferencePathAccess, reader.put()));
            const std::string expected =
                expectedMethods(folder + "/symreader-converter/expected/" + name + ".windows-pdb.xml.expected.txt");
            EXPECT_NE(std::string::npos, expected.find("hidden"));
            EXPECT_EQ(expected, readMethods(assembly, *reader.get()));
        }
}

TEST(WindowsPdb, DamagedFilesAndEveryPrefixFailAsNoContainerOrAsCorrupt)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const std::vector<unsigned char> real = jrtest::readBytes(folder + "/symreader-converter/windows/Documents.pdb");
    const std::size_t names = jrtest::find(real, {0xFE, 0xEF, 0xFE, 0xEF});
    const std::size_t lines = jrtest::find(real, {0xF2, 0, 0, 0, 0x68, 1, 0, 0});
    const std::size_t checksums = jrtest::find(real, {0xF4, 0, 0, 0, 0x68, 0, 0, 0});
    const std::size_t lastPoint = jrtest::find(real, {0x62, 0, 0, 0, 0x83, 0, 0, 0x80});
    const std::size_t directory = 512 * jrtest::get32(real, 512 * jrtest::get32(real, 52));
    const struct { const char* what; std::size_t at; std::uint32_t value; HRESULT result; } cases[] = {
        {"no magic", 0, 'm', COR_E_BADIMAGEFORMAT},
        {"odd block size", 32, 500, CLDB_E_FILE_CORRUPT},
        {"more blocks than the file", 40, 64, CLDB_E_FILE_CORRUPT},
        {"directory larger than its map", 44, 0x100000, CLDB_E_FILE_CORRUPT},
        {"directory map outside", 52, 63, CLDB_E_FILE_CORRUPT},
        {"nil info stream", directory + 8, 0xFFFFFFFF, CLDB_E_FILE_CORRUPT}, // once read at a null base
        {"string table signature", names, 0, CLDB_E_FILE_CORRUPT},
        {"lines past their subsection", lines + 4, 0x1000, CLDB_E_FILE_CORRUPT},
        {"file id past the checksums", lines + 8 + 12, 0x400, CLDB_E_FILE_CORRUPT},
        {"checksum name past the strings", checksums + 8, 0x4000, CLDB_E_FILE_CORRUPT},
        {"point past the method's code", lastPoint, 0x64, CLDB_E_FILE_CORRUPT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<unsigned char> bytes = real;
        jrtest::put(bytes, c.at, c.value, c.at == 0 ? 1 : 4);
        HRESULT result = E_FAIL;
        EXPECT_EQ(c.result == S_OK, static_cast<bool>(WindowsPdb::create(bytes, result)));
        EXPECT_EQ(c.result, result);
    }
    for (const char* name : {"Documents.pdb", "Iterator.pdb"}) {
        const std::vector<unsigned char> bytes = jrtest::readBytes(folder + "/symreader-converter/windows/" + name);
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            HRESULT result = S_OK;
            ASSERT_FALSE(WindowsPdb::create(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length), result));
            ASSERT_EQ(length < 32 ? COR_E_BADIMAGEFORMAT : CLDB_E_FILE_CORRUPT, result) << name << " " << length;
        }
    }
}

} // namespace
