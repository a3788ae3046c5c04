// PE images and metadata roots: the debug directory of real images, damaged headers, and
// every truncated prefix of every real file.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/metadata/com_object.h"
#include "platform/metadata/metadata_import.h"
#include "platform/metadata/pe_image.h"
#include "platform/metadata/portable_pdb.h"
#include "support/dotnet_testdata.h"

namespace {

using namespace velmark_3_11;

const char* const kAssemblies[] = {
    "symbolic/foo.dll",
    "cecil/PdbTarget.exe",
    "symreader-converter/portable/Documents.dll",
    "symreader-converter/portable/Iterator.dll",
    "symreader-converter/windows/Documents.dll",
    "symreader-converter/windows/Iterator.dll",
};
const char* const kDebugFiles[] = {
    "symbolic/foo.pdb",
    "cecil/PdbTarget.pdb",
    "symreader-converter/portable/Documents.pdb",
    "symreader-converter/portable/Iterator.pdb",
};

TEST(PeImage, DebugDirectoriesOfRealImages)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    struct Case {
        const char* path;
        const char* codeView;
        bool portable;
        const char* checksum; // PdbChecksum algorithm, or ""
    };
    const Case cases[] = {
        {"symbolic/foo.dll", "/Users/swatinem/Coding/sentry-dotnet/samples/foo/obj/Debug/net6.0/foo.pdb", true, "SHA256"},
        {"cecil/PdbTarget.exe", "C:\\sources\\PdbTarget\\obj\\Debug_ppdb\\PdbTarget.pdb", true, ""},
        {"symreader-converter/portable/Documents.dll", "/Documents.pdb", true, "SHA256"},
        {"symreader-converter/windows/Documents.dll", "/Documents.pdb", false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        HRESULT result = E_FAIL;
        const std::unique_ptr<PeImage> image = PeImage::create(jrtest::readBytes(folder + "/" + c.path), result);
        ASSERT_EQ(S_OK, result);
        CodeViewRecord codeView{};
        ASSERT_TRUE(image->codeView(codeView));
        EXPECT_EQ(c.codeView, codeView.path);
        EXPECT_EQ(c.portable, codeView.portable);
        EXPECT_EQ(1u, codeView.age);
        const std::vector<PdbChecksum> checksums = image->pdbChecksums();
        EXPECT_EQ(c.checksum, checksums.empty() ? "" : checksums[0].algorithm);
        EXPECT_EQ(checksums.empty() ? 0u : 32u, checksums.empty() ? 0u : checksums[0].checksum.size());
        std::vector<std::uint8_t> embedded;
        EXPECT_FALSE(image->embeddedPdb(embedded));
    }
}

std::uint32_t get32(const std::vector<unsigned char>& bytes, std::size_t at)
{
    return std::uint32_t(bytes[at]) | std::uint32_t(bytes[at + 1]) << 8 | std::uint32_t(bytes[at + 2]) << 16 |
           std::uint32_t(bytes[at + 3]) << 24;
}

void put(std::vector<unsigned char>& bytes, std::size_t at, std::uint32_t value, int size)
{
    for (int i = 0; i < size; ++i)
        bytes[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

HRESULT open(std::vector<unsigned char> bytes)
{
    MetadataImport* import = nullptr;
    const HRESULT result = MetadataImport::open(std::move(bytes), &import);
    if (import)
        import->Release();
    return result;
}

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

    struct Case {
        const char* what;
        std::size_t at;
        std::uint32_t value;
        int size;
        HRESULT result;
    };
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
        put(damaged, c.at, c.value, c.size);
        EXPECT_EQ(c.result, open(damaged));
    }
}

TEST(PeImage, EveryPrefixOfARealFileLoadsOrFailsCleanly)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    for (const char* path : kAssemblies) {
        SCOPED_TRACE(path);
        const std::vector<unsigned char> bytes = jrtest::readBytes(folder + "/" + path);
        std::size_t opens = 0;
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            MetadataImport* opened = nullptr;
            const HRESULT result =
                MetadataImport::open(std::vector<unsigned char>(bytes.begin(), bytes.begin() + length), &opened);
            const ComPtr<MetadataImport> import(opened);
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
    for (const char* path : kDebugFiles) {
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

} // namespace
