#include "jitreader/clr_symreader.h"

#include <functional>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "platform/text.h"
#include "support/dotnet_testdata.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace velmark_3_11 {
namespace {

using Bytes = std::vector<unsigned char>;

// The blob heap of the hand-built files, by offset.
const Bytes kHeap = {
    0x00,                          //  0: the empty blob
    3, 's', 'r', 'c',              //  1: part "src"
    4, 'a', '.', 'c', 's',         //  5: part "a.cs"
    4, '/', 0, 1, 5,               // 10: name "/src/a.cs"
    2, 'C', ':',                   // 15: part "C:"
    4, '\\', 15, 1, 5,             // 18: name "C:\src\a.cs"
    14, 0,                         // 23: points: length, local signature,
    0, 0, 7, 10, 5,                //     IL 0 at 10:5-10:12,
    5, 0, 0,                       //     IL 5 hidden,
    4, 0, 3, 4, 0,                 //     IL 9 at 12:5-12:8, relative to the visible point
    0xE0, 0, 0, 0,                 // 38: a compressed integer with the prefix 111
    3, '/', 0, 52,                 // 42: name whose part lies in the last two bytes
    3, '/', 0, 50,                 // 46: name whose part runs past the end of the file
    0x7F, 0, 0, 0,                 // 50: a blob longer than the file
};

struct Layout {
    std::map<unsigned int, std::uint32_t> leading; // tables before the document table: rows
    Bytes leadingRows;
    std::uint64_t valid = (1ull << 48) | (1ull << 49);
    std::vector<std::uint16_t> documents = {10, 18};
    std::vector<std::pair<std::uint16_t, std::uint16_t>> methods = {{1, 23}, {2, 0}, {0, 0}};
    std::optional<std::uint32_t> documentRows, methodRows, tablesOffset;
    std::uint32_t versionLength = 12;
    bool heapBeyond64K = false;
    std::size_t keep = SIZE_MAX;
    std::map<std::size_t, unsigned char> patches;
};

Bytes build(const Layout& layout)
{
    Bytes out;
    const auto put = [&out](std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    };
    const auto text = [&out](const char* s, std::size_t size) { out.insert(out.end(), s, s + size); };
    std::uint64_t valid = layout.valid;
    for (const auto& table : layout.leading)
        valid |= 1ull << table.first;
    const std::size_t tableCount = __builtin_popcountll(valid & ((1ull << 56) - 1));
    const std::uint32_t tables = 60;
    const std::uint32_t tablesSize = static_cast<std::uint32_t>(24 + 4 * tableCount + layout.leadingRows.size() +
                                                                8 * layout.documents.size() + 4 * layout.methods.size());
    const std::uint32_t heap = (tables + tablesSize + 3) & ~3u;

    put(0x424A5342, 4), put(0x00010001, 4), put(0, 4), put(layout.versionLength, 4), text("PDB v1.0\0\0\0\0", 12);
    put(0, 2), put(2, 2);
    put(layout.tablesOffset.value_or(tables), 4), put(tablesSize, 4), text("#~\0\0", 4);
    put(heap + (layout.heapBeyond64K ? 0x10000 : 0), 4), put(kHeap.size(), 4), text("#Blob\0\0\0", 8);
    put(0, 4), put(2, 1), put(0, 1), put(0, 1), put(1, 1), put(valid, 8), put(0, 8);
    for (unsigned int table = 0; table < 56; ++table) {
        if ((valid >> table) & 1) {
            const auto leading = layout.leading.find(table);
            put(table == 48   ? layout.documentRows.value_or(layout.documents.size())
                : table == 49 ? layout.methodRows.value_or(layout.methods.size())
                : leading != layout.leading.end() ? leading->second : 0,
                4);
        }
    }
    out.insert(out.end(), layout.leadingRows.begin(), layout.leadingRows.end());
    for (const std::uint16_t name : layout.documents)
        put(name, 2), put(0, 6);
    for (const auto& method : layout.methods)
        put(method.first, 2), put(method.second, 2);
    out.resize(heap);
    out.insert(out.end(), kHeap.begin(), kHeap.end());
    if (layout.heapBeyond64K)
        out.resize(heap + 0x10000 + kHeap.size());
    if (layout.keep < out.size())
        out.resize(layout.keep);
    for (const auto& patch : layout.patches)
        out[patch.first] = patch.second;
    return out;
}

std::string documentName(CoreCLRSymbolReader& reader, int row)
{
    std::string name = "untouched";
    reader.getDocumentName(row, name);
    return name;
}

std::string lines(CoreCLRSymbolReader& reader, int row, std::initializer_list<unsigned int> offsets)
{
    std::string result;
    for (const unsigned int offset : offsets) {
        unsigned int line = 0;
        result += reader.getLineNumber(row, offset, &line) == meSuccess ? std::to_string(line) + " " : "- ";
    }
    return result;
}

TEST(ClrSymReader, ReadsHandBuiltFilesByItsOwnRules)
{
    Layout typeRefs, smallCoded, wideCoded, beyond64K, cut;
    typeRefs.leading = {{1, 10}}, typeRefs.leadingRows.resize(10 * 6);
    // Module refs (2 bytes a row) and one custom attribute, whose parent index has 5 tag bits.
    smallCoded.leading = {{12, 1}, {26, 2048}}, smallCoded.leadingRows.resize(6 + 2 * 2048);
    wideCoded.leading = {{12, 1}, {26, 2049}}, wideCoded.leadingRows.resize(8 + 2 * 2049);
    beyond64K.heapBeyond64K = true;
    cut.documents[0] = 46;
    const std::pair<const Layout*, const char*> layouts[] = {
        {&typeRefs, "/src/a.cs"}, {&smallCoded, "/src/a.cs"}, {&wideCoded, "/src/a.cs"}, {&beyond64K, "/src/a.cs"},
        {&cut, "/"}, // the part ends with the file
    };
    for (const auto& layout : layouts) {
        const jrtest::TempDir dir;
        const std::wstring path = toWide(dir.write("a.pdb", build(*layout.first)));
        jrtest::LogCapture log;
        CoreCLRSymbolReader reader(path.c_str());
        ASSERT_EQ(meSuccess, reader.load()) << log.dump();
        EXPECT_TRUE(log.contains(log4cplus::ERROR_LOG_LEVEL, "Located PDB file %s" + dir.file("a.pdb") + ", at file: "));
        // Lines of rows 1, 2, 4 and 0, then document names of rows 1, 2 (its first part, "C:", is dropped) and 4.
        EXPECT_EQ("10 0 12 - - |0 - |- |- |" + std::string(layout.second) + "|\\src\\a.cs|untouched",
                  lines(reader, 1, {0, 5, 9, 7, 10}) + "|" + lines(reader, 2, {0, 1}) + "|" + lines(reader, 4, {0}) +
                      "|" + lines(reader, 0, {0}) + "|" + documentName(reader, 1) + "|" + documentName(reader, 2) +
                      "|" + documentName(reader, 4));
    }
}

TEST(ClrSymReader, EachFaultHasItsMessage)
{
    const struct {
        std::function<void(Layout&)> damage;
        int methodRow; // 0: the load fails; else getDocumentName of this row fails
        std::string message;
    } faults[] = {
        {[](Layout& l) { l.keep = 0; }, 0, "Corrupted PDB file %s"},
        {[](Layout& l) { l.keep = 10; }, 0, "PDB error: MetadataHeader too small"},
        {[](Layout& l) { l.patches[0] = 'X'; }, 0, "PDB error: Invalid Metadata Signature"},
        {[](Layout& l) { l.versionLength = 0xFFFF; }, 0, "PDB error: VersionString not found"},
        {[](Layout& l) { l.keep = 30; }, 0, "PDB error: MetadataHeader too small"},
        {[](Layout& l) { l.keep = 83; }, 0, "PDB error: StreamHeader too small"},
        {[](Layout& l) { l.tablesOffset = 0xFFFF0000; }, 0, "PDB length error :: MetadataTableHeaderTooSmall"},
        {[](Layout& l) { l.keep = 88; }, 0, "PDB error: Table rowcounts not found in MetadataTableHeader"},
        {[](Layout& l) { l.valid |= 1ull << 45; }, 0, "PDB error: Unknown physical table type"},
        {[](Layout& l) { l.valid = 1ull << 49; }, 0, "PDB error: Unknown physical table type"},
        {[](Layout& l) { l.valid = 0; }, 0, "PDB error: Document Table not found"},
        {[](Layout& l) { l.documentRows = 0x10000000; }, 0, "PDB error: Document Table too small"},
        {[](Layout& l) { l.methodRows = 0x10000000; }, 0, "PDB error: MethodDebugInformation Table too small"},
        {[](Layout& l) { l.methods[0].second = 52; }, 0, "PDB error: Sequence Record Bytecount not found in Blob Heap"},
        {[](Layout& l) { l.methods[0].second = 50; }, 0, "PDB error: Sequence Record not found in Blob Heap"},
        {[](Layout& l) { l.methods[0].second = 38; }, 0, "PDB error: Compressed integer encoding error"},
        {[](Layout&) {}, -1, "Invalid functionRowID=-1"},
        {[](Layout&) {}, 3, "Invalid documentRowID=0"},
        {[](Layout& l) { l.documents[0] = 52; }, 1, "PDB error: Document Index Bytecount not found in Blob Heap"},
        {[](Layout& l) { l.documents[0] = 50; }, 1, "PDB error: Document Name Index not found in Blob Heap"},
        {[](Layout& l) { l.documents[0] = 42; }, 1, "PDB error: Document Name Bytecount not found in Blob Heap"},
        {[](Layout& l) { l.documents[0] = 38; }, 1, "PDB error: Compressed integer encoding error"},
    };
    for (const auto& fault : faults) {
        Layout layout;
        fault.damage(layout);
        const jrtest::TempDir dir;
        const std::wstring path = toWide(dir.write("a.pdb", build(layout)));
        jrtest::LogCapture log;
        CoreCLRSymbolReader reader(path.c_str());
        ASSERT_EQ(fault.methodRow == 0 ? meFail : meSuccess, reader.load()) << fault.message;
        if (fault.methodRow != 0) {
            log.clear();
            EXPECT_EQ("untouched", documentName(reader, fault.methodRow)) << fault.message;
        }
        EXPECT_TRUE(log.contains(log4cplus::ERROR_LOG_LEVEL, fault.message)) << log.dump();
        EXPECT_EQ(1u, log.count(log4cplus::ERROR_LOG_LEVEL, ", at file: ")) << log.dump();
    }
    jrtest::LogCapture log;
    CoreCLRSymbolReader missing(L"/nonexistent/a.pdb");
    EXPECT_EQ(meFail, missing.load());
    EXPECT_TRUE(log.contains(log4cplus::ERROR_LOG_LEVEL, "Failed to find PDB file %s/nonexistent/a.pdb, at file: "));
}

TEST(ClrSymReader, ReadsRealDebugFiles)
{
    JR_REQUIRE_DOTNET_TESTDATA(folder);
    const struct {
        const char* file;
        int methodRow;
        std::initializer_list<unsigned int> offsets;
        const char* lines;
        const char* document;
    } cases[] = {
        // Main: exact offsets only, hidden points on line 0, misses between points.
        {"cecil/PdbTarget.pdb", 2, {0x00, 0x01, 0x02, 0x06, 0x0c, 0x25, 0x07, 0x26}, "21 22 22 0 23 26 - - ",
         "\\sources\\PdbTarget\\Program.cs"},
        // B::.ctor spans two documents: no name, and its InitialDocument is read as a point.
        {"cecil/PdbTarget.pdb", 1, {0x00, 0x0b, 0x12, 0x19}, "0 - - - ", "untouched"},
        {"symbolic/foo.pdb", 1, {45, 44}, "20 - ", "/Users/swatinem/Coding/sentry-dotnet/samples/foo/Program.cs"},
        {"symbolic/foo.pdb", 4, {0, 1}, "0 - ", "untouched"},
        {"symreader-converter/portable/Iterator.pdb", 7, {0x1f, 0x20, 0x2e, 0x83, 0x21}, "10 11 0 19 - ",
         "\\Iterator.cs"},
        {"symreader-converter/portable/Documents.pdb", 1, {0, 1, 0x62}, "0 - - ", "untouched"},
        {"symreader-converter/portable/Documents.pdb", 7, {0}, "- ", "untouched"},
    };
    jrtest::LogCapture log;
    for (const auto& c : cases) {
        const std::wstring path = toWide(folder + "/" + c.file);
        CoreCLRSymbolReader reader(path.c_str());
        ASSERT_EQ(meSuccess, reader.load()) << c.file;
        EXPECT_EQ(c.lines, lines(reader, c.methodRow, c.offsets)) << c.file << " row " << c.methodRow;
        EXPECT_EQ(c.document, documentName(reader, c.methodRow)) << c.file << " row " << c.methodRow;
    }
}

} // namespace
} // namespace velmark_3_11
