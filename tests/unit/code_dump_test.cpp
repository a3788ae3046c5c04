// Disassembly lines of code bytes: layout, machine modes, and where decoding stops.
#include "jitreader/code_dump.h"

#include <sstream>
#include <vector>

#include <gtest/gtest.h>

using namespace velmark_3_11;

TEST(CodeDump, LinesPerInstruction)
{
    struct Case {
        const char* name;
        std::vector<unsigned char> bytes;
        unsigned long long address;
        unsigned int arch;
        std::wstring text;
    };
    const Case cases[] = {
        {"64-bit frame",
         {0x55, 0x48, 0x89, 0xE5, 0xC3},
         0x7f00001000,
         1,
         L"  OPLN 7f00001000:       PUSH  BASE                   55  push rbp\n"
         L"  OPLN 7f00001001:   DATAXFER  BASE               4889E5  mov rbp, rsp\n"
         L"  OPLN 7f00001004:        RET  BASE                   C3  ret\n"},
        {"runtime address resolves relative targets",
         {0xE8, 0x10, 0x00, 0x00, 0x00},
         0x2000,
         2,
         L"  OPLN 2000:       CALL  BASE           E810000000  call 0x0000000000002015\n"},
        {"32-bit frame",
         {0x55, 0x89, 0xE5, 0xC3},
         0x401000,
         0,
         L"  OPLN 401000:       PUSH  BASE                   55  push ebp\n"
         L"  OPLN 401001:   DATAXFER  BASE                 89E5  mov ebp, esp\n"
         L"  OPLN 401003:        RET  BASE                   C3  ret\n"},
        {"invalid opcode in 64-bit mode",
         {0x55, 0x06},
         0x1000,
         1,
         L"  OPLN 1000:       PUSH  BASE                   55  push rbp\n"
         L"       1001: could not decode instruction. Error: 80200001\n"},
        {"instruction cut by the end of the bytes", {0x90, 0x48, 0x89}, 0x1000, 1,
         L"  OPLN 1000:        NOP  BASE                   90  nop\n"
         L"       1001: could not decode instruction. Error: 80200000\n"},
        {"unknown architecture", {0x90}, 0x1000, 3, L"  wrong architecture of code\n"},
        {"no bytes", {}, 0x1000, 1, L"  no bytes\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::wostringstream stream;
        dumpCodeBytes(stream, c.bytes.empty() ? nullptr : c.bytes.data(), static_cast<unsigned int>(c.bytes.size()),
                      c.address, c.arch);
        EXPECT_EQ(stream.str(), c.text);
    }
    std::wostringstream stream;
    dumpCodeBytes(stream, nullptr, 10, 0x1000, 1);
    EXPECT_EQ(stream.str(), L"  no bytes\n");
}
