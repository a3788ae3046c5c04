// The method dump checked against golden texts in tests/unit/golden. After a deliberate change
// of the dump, regenerate them with JITREADER_UPDATE_GOLDEN=1 and read the diff.
#include "jitreader/method_dump.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "jitreader/byte_buffer.h"
#include "jitreader/jit_method.h"
#include "platform/text.h"

using namespace velmark_3_11;

namespace {

const std::string kGoldenDir = std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/golden/";

void expectGolden(const std::string& name, const std::wstring& actual)
{
    const std::string path = kGoldenDir + name + ".txt";
    const char* update = std::getenv("JITREADER_UPDATE_GOLDEN");
    if (update && std::string(update) == "1") {
        std::ofstream(path, std::ios::binary) << toUtf8(actual);
        return;
    }
    std::ifstream file(path, std::ios::binary);
    ASSERT_TRUE(file) << "missing golden file " << path;
    std::stringstream expected;
    expected << file.rdbuf();
    EXPECT_EQ(toUtf8(actual), expected.str()) << "golden file " << path;
}

boost::intrusive_ptr<Region> addRegion(JitMethod& method, unsigned long long jitRva, unsigned long long start,
                                       unsigned int length, const std::vector<unsigned char>& bytes = {})
{
    const unsigned int size = static_cast<unsigned int>(bytes.size());
    method.addRegion(
        new Region(7003, 1, 0x1f4, jitRva, start, length, size ? makeByteBuffer(bytes.data(), size) : nullptr));
    return method.regions().back();
}

boost::intrusive_ptr<JitMethod> makeMethod(unsigned int arch, unsigned int rawId = 0x10,
                                           const wchar_t* name = L"Main(string[])")
{
    boost::intrusive_ptr<JitMethod> method = new JitMethod;
    method->setRawMethodId(rawId);
    method->setRawParentId(0x3);
    method->setMetadataToken(0x6000012);
    method->setLoadTime(0x1f4);
    method->setClassName(L"App.Program");
    method->setName(name);
    method->setModule(new Module(L"/app/App.dll", 4, arch));
    method->setSourceFile(SourceFile(L"Program.cs", L"ab12cd", 0x1a, 0xb));
    return method;
}

} // namespace

TEST(MethodDump, GoldenTexts)
{
    // The lines above "Module arch:" are the same in every text: the other texts begin there.
    const struct { const char* golden; unsigned int arch; void (*build)(JitMethod&); bool whole = false; } cases[] = {
        {"two_regions_x64", 2,
         [](JitMethod& m) {
             addRegion(m, 0x5000, 0x7f0000001000, 5, {0x55, 0x48, 0x89, 0xE5, 0xC3});
             addRegion(m, 0x6000, 0x7f0000002000, 8);
             m.addLineNumberInfo(ltManagedToSource, {{0, 2, 10}, {2, 6, 11}}, Range(0x5000, 5));
             m.addLineNumberInfo(ltNativeToManaged, {{0, 1, 0}, {1, 5, 2}}, Range(0x5000, 5));
             m.addLineNumberInfo(ltNativeToSource, {{0, 1, 10}, {1, 5, 11}}, Range(0x5000, 5));
             m.addLineNumberInfo(ltNativeToSource, {{0, 8, 12}}, Range(0x6000, 8));
         }, true},
        {"x86_32", 0, [](JitMethod& m) { addRegion(m, 0x100, 0x401000, 4, {0x55, 0x89, 0xE5, 0xC3}); }},
        {"undecodable", 1, [](JitMethod& m) { addRegion(m, 0x100, 0x1000, 3, {0x90, 0x06, 0x90}); }},
        {"wrong_arch", 3, [](JitMethod& m) { addRegion(m, 0x100, 0x1000, 1, {0x90}); }},
        {"no_regions", 9, [](JitMethod&) {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.golden);
        boost::intrusive_ptr<JitMethod> method = makeMethod(c.arch);
        c.build(*method);
        // The flags of a log line's stream: no second "0x", and the flags come back unchanged.
        std::wostringstream stream;
        stream << std::showbase << std::uppercase << std::hex << L"Raw JIT file data:\n" << MethodDump(*method);
        EXPECT_EQ(stream.flags(), std::ios_base::showbase | std::ios_base::uppercase | std::ios_base::hex |
                                      std::ios_base::skipws);
        const std::wstring text = stream.str();
        expectGolden(c.golden, c.whole ? text : text.substr(text.find(L"Module arch:")));
    }
}

TEST(MethodDump, LiveCodeRegionsWithNestedInlines)
{
    JitMethod method;
    boost::intrusive_ptr<Region> first = addRegion(method, 0x5000, 0x1000, 0x100);
    addRegion(method, 0x6000, 0x2000, 0x10)->setUnloadTime(0x300);
    addRegion(method, 0x7000, 0x3000, 0x10);
    boost::intrusive_ptr<Region> inlined = new Region(7003, 1, 0, 0, 0x1010, 0x10, nullptr);
    inlined->addInlined(new Region(7003, 1, 0, 0, 0x1012, 2, nullptr), makeMethod(1, 0x22, L"Deep"));
    first->addInlined(inlined, makeMethod(1, 0x21, L"Inl"));

    EXPECT_EQ(dumpCodeRegions(method), L"\nCode region #1 (ip range = 0x1000-0x1100)"
                                       L"\n   #1 App::Program::Inl (method id = 0x21, ip range = 0x1010-0x1020)"
                                       L"\n       #1 App::Program::Deep (method id = 0x22, ip range = 0x1012-0x1014)"
                                       L"\nCode region #3 (ip range = 0x3000-0x3010)");
}
