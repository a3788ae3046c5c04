// Fuzz entries: each takes any bytes and must neither crash nor read outside them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace jitreader_fuzz {

/// Reads `data` as a whole trace file into a store, in both decoding modes, and resolves a
/// few points in it.
int traceFile(const std::uint8_t* data, std::size_t size);

/// Prints `data` as a Java method name and as a class name.
int javaNames(const std::uint8_t* data, std::size_t size);

} // namespace jitreader_fuzz
