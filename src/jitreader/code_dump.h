// Disassembly lines of code bytes for the method dump.
#pragma once

#include <ostream>

namespace velmark_3_11 {

/// Writes one "  OPLN " line per instruction of `size` bytes at `data`, decoded at runtime
/// address `address` as 32-bit code (arch 0) or 64-bit code (arch 1 and 2).
void dumpCodeBytes(std::wostream& stream, const void* data, unsigned int size, unsigned long long address,
                   unsigned int arch);

} // namespace velmark_3_11
