// Disassembly lines of code bytes where the method dump's golden texts don't reach: runtime
// addresses of relative targets, instructions cut by the end of the bytes, and missing bytes.
#include "jitreader/code_dump.h"

#include <sstream>
#include <vector>

#include <gtest/gtest.h>

using namespace velmark_3_11;

TEST(CodeDump, LinesPerInstruction)
{
    const struct {
        std::vector<unsigned char> bytes;
        unsigned long long address;
        unsigned int arch;
        std::wstring text;
    } cases[] = {
        {{0xE8, 0x10, 0x00, 0x00, 0x00}, 0x2000, 2,
         L"  OPLN 2000:       CALL  BASE           E810000000  call 0x0000000000002015\n"},
        {{0x90, 0x48, 0x89}, 0x1000, 1,
         L"  OPLN 1000:        NOP  BASE                   90  nop\n"
         L"       1001: could not decode instruction. Error: 80200000\n"},
    };
    for (const auto& c : cases) {
        std::wostringstream stream;
        dumpCodeBytes(stream, c.bytes.data(), static_cast<unsigned int>(c.bytes.size()), c.address, c.arch);
        EXPECT_EQ(stream.str(), c.text);
    }
    // Either a null pointer or a size of 0 means no bytes.
    const unsigned char nop = 0x90;
    std::wostringstream stream;
    dumpCodeBytes(stream, nullptr, 10, 0x1000, 1);
    dumpCodeBytes(stream, &nop, 0, 0x1000, 1);
    EXPECT_EQ(stream.str(), L"  no bytes\n  no bytes\n");
}
