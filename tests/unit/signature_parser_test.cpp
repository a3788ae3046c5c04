#include "jitreader/signature_parser.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jitreader/dot_net_type_resolver.h"

namespace velmark_3_11 {
namespace {

// Type tokens as a blob carries them: List and Foo are type defs 1 and 2, Dictionary is
// type ref 3.
enum : unsigned char { List = 0x04, Foo = 0x08, Dictionary = 0x0D, Row0x12 = 0x48 };

class Names : public IDotNetTypeResolver {
public:
    bool resolveTypeName(unsigned int token, wchar_t* buffer, unsigned int* size) override
    {
        static const std::map<unsigned int, std::wstring> names = {
            {0x02000001, L"List"}, {0x02000002, L"Foo"}, {0x01000003, L"Dictionary"}};
        const auto name = names.find(token);
        if (name == names.end() || name->second.size() + 1 > *size)
            return false;
        std::copy(name->second.c_str(), name->second.c_str() + name->second.size() + 1, buffer);
        return true;
    }
};

/// "return type(parameters joined by |)", behind "failed: " when the parse fails.
std::wstring parse(const std::vector<unsigned char>& blob, IDotNetTypeResolver* resolver)
{
    const auto parser = ISignatureParser::create(resolver);
    const velmark_error_t result = parser->parse(blob.data(), static_cast<unsigned int>(blob.size()));
    std::wstring text = result == meSuccess ? L"" : L"failed: ";
    if (const wchar_t* returnType = parser->getReturnTypeName())
        text += returnType;
    text += L"(";
    unsigned int count = 0;
    if (result == meSuccess && parser->getParameters(nullptr, &count) == meSuccess) {
        std::vector<boost::shared_ptr<IParameter>> parameters(count);
        EXPECT_EQ(meSuccess, parser->getParameters(parameters.data(), &count));
        for (unsigned int i = 0; i < count; ++i)
            text += (i ? L"|" : L"") + std::wstring(parameters[i]->getTypeName());
    }
    return text + L")";
}

TEST(SignatureParser, PrintsEachElementTheWayTheParserReadsIt)
{
    const struct {
        const char* what;
        std::vector<unsigned char> blob;
        bool withNames;
        const wchar_t* parsed;
    } cases[] = {
        {"no parameters", {0x00, 0, 0x01}, false, L"void()"},
        {"instance method", {0x20, 3, 0x01, 0x08, 0x0E, 0x1C}, false, L"void(int32|string|object)"},
        {"simple types",
         {0x00, 17, 0x08, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x18,
          0x19, 0x1C},
         false,
         L"int32(void|bool|wchar|int8|unsigned int8|int16|unsigned int16|int32|unsigned int32|int64|unsigned int64|"
         L"float32|float64|string|int|unsigned int|object)"},
        {"by reference prints the value type", {0x00, 2, 0x10, 0x08, 0x10, 0x08, 0x16}, false, L"int32(int32|)"},
        {"pointers", {0x00, 2, 0x01, 0x0F, 0x01, 0x0F, 0x0F, 0x08}, false, L"void(void*|int32**)"},
        {"arrays",
         {0x00, 5, 0x01, 0x14, 0x08, 3, 0, 0, 0x14, 0x08, 1, 0, 0, 0x14, 0x08, 0, 0, 0, 0x1D, 0x08, 0x14, 0x08, 2, 2,
          3, 4, 2, 0, 2},
         false, L"void(int32[,,]|int32[]|int32[]|int32[]|int32[,])"},
        {"generics",
         {0x10, 1, 7, 0x01, 0x15, 0x12, List, 1, 0x08, 0x15, 0x12, List, 1, 0x15, 0x12, List, 1, 0x08, 0x15, 0x12,
          Dictionary, 2, 0x0E, 0x12, Foo, 0x15, 0x12, List, 1, 0x1D, 0x08, 0x15, 0x12, List, 1, 0x13, 0, 0x1E, 0,
          0x13, 2},
         true, L"void(List<int32>|List<List<int32>>|Foo<string, >|List[]<int32>|List<!0>||!2)"},
        {"unresolved tokens print as numbers", {0x00, 2, 0x12, Row0x12, 0x11, Foo, 0x12, 0x05}, false,
         L"/*0x2000012*/(/*0x2000002*/|/*0x1000001*/)"},
        {"function pointers",
         {0x00, 2, 0x01, 0x1B, 0x00, 2, 0x08, 0x08, 0x0E, 0x1B, 0x00, 1, 0x01, 0x15, 0x12, List, 2, 0x08, 0x0E}, true,
         L"void(int32 *(int32, string)|void *(int32string))"},
        {"modifiers print nothing", {0x00, 1, 0x1F, 0x04, 0x08, 0x20, 0x88, 0x01, 0x0E}, false, L"int32(string)"},
        {"sentinel", {0x05, 2, 0x01, 0x08, 0x41, 0x0E}, false, L"void(int32|string)"},
        {"bad token as the last element", {0x00, 1, 0x01, 0x12, 0xE0}, true, L"void(/*0x2000000*/)"},
        {"token cut short", {0x00, 1, 0x01, 0x12, 0xC0}, false, L"void(/*0x2000000*/)"},
        {"modifier cut short", {0x00, 1, 0x01, 0x20, 0xC0}, false, L"failed: void()"},
        {"function pointer cut short", {0x00, 1, 0x01, 0x1B}, false, L"failed: void()"},
        {"field signature", {0x06, 0x08}, false, L"failed: ()"},
        {"empty blob", {}, false, L"failed: ()"},
        {"ends inside a parameter", {0x00, 2, 0x01, 0x08}, false, L"failed: void()"},
        {"bad token before the end", {0x00, 2, 0x01, 0x12, 0xE0, 0x08}, false, L"failed: void()"},
        {"second sentinel", {0x05, 3, 0x01, 0x41, 0x08, 0x41, 0x0E, 0x08}, false, L"failed: void()"},
        {"modifier behind by reference", {0x00, 1, 0x01, 0x10, 0x20, 0x04, 0x08}, false, L"failed: void()"},
        {"bad parameter count", {0x00, 0xE0, 0x01}, false, L"failed: ()"},
        {"unknown element type", {0x00, 1, 0x01, 0x17}, false, L"failed: void()"},
        {"instance of no class", {0x00, 1, 0x01, 0x15, 0x08, 1, 0x08}, false, L"failed: void()"},
        {"rank beyond the runtime's", {0x00, 1, 0x01, 0x14, 0x08, 33, 0, 0}, false, L"failed: void()"},
    };
    Names names;
    for (const auto& c : cases)
        EXPECT_EQ(c.parsed, parse(c.blob, c.withNames ? &names : nullptr)) << c.what;
}

TEST(SignatureParser, NestingEndsAtAFixedDepthInsteadOfTheStack)
{
    for (const std::size_t depth : {200u, 100000u}) {
        std::vector<unsigned char> blob = {0x00, 1, 0x01};
        blob.insert(blob.end(), depth, 0x1D);
        blob.push_back(0x08);
        EXPECT_EQ(depth < 256, parse(blob, nullptr).find(L"failed") == std::wstring::npos) << depth;
    }
}

TEST(SignatureParser, ParameterArrayProtocol)
{
    const auto parser = ISignatureParser::create(nullptr);
    unsigned int count = 7;
    EXPECT_EQ(6u, parser->getStatus());
    EXPECT_EQ(meFail, parser->getParameters(nullptr, &count));
    const unsigned char blob[] = {0x00, 2, 0x16, 0x08, 0x0E};
    ASSERT_EQ(meSuccess, parser->parse(blob, sizeof blob));
    EXPECT_EQ(0u, parser->getStatus());
    EXPECT_EQ(nullptr, parser->getReturnTypeName());
    boost::shared_ptr<IParameter> parameters[2];
    count = 1;
    EXPECT_EQ(meBufferTooSmall, parser->getParameters(parameters, &count));
    EXPECT_FALSE(parameters[0]);
    count = 5;
    EXPECT_EQ(meSuccess, parser->getParameters(parameters, &count));
    EXPECT_EQ(5u, count);
    EXPECT_EQ(std::wstring(L"string"), parameters[1]->getTypeName());

    // A function pointer inside nested generics leaves the parameter without a record.
    const auto lying = ISignatureParser::create(nullptr);
    const unsigned char nested[] = {0x00, 1, 0x01, 0x15, 0x12, List, 1, 0x15, 0x12, List, 1, 0x1B, 0x00, 0, 0x01};
    ASSERT_EQ(meSuccess, lying->parse(nested, sizeof nested));
    EXPECT_EQ(meFail, lying->getParameters(parameters, &count));
    EXPECT_EQ(std::wstring(L""), parameters[0]->getTypeName());
}

} // namespace
} // namespace velmark_3_11
