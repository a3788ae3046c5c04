// The jitdump importer's fuzz entry, shared by the libFuzzer target and the corpus replay test.
#pragma once

#include <cstddef>
#include <cstdint>

namespace jitreader_fuzz {

/// Any bytes as a jitdump file, converted into trace records.
int jitdump(const std::uint8_t* data, std::size_t size);

} // namespace jitreader_fuzz
