// Fuzz entries of the .NET symbol sources: each takes any bytes and must neither crash nor
// read outside them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace jitreader_fuzz {

/// Parses `data` as a method signature, with and without a type resolver, and reads every text.
int signature(const std::uint8_t* data, std::size_t size);

/// Loads `data` as a portable debug file and asks for the lines and document of its methods.
int clrSymReader(const std::uint8_t* data, std::size_t size);

} // namespace jitreader_fuzz
