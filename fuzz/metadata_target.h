// Fuzz entries of the metadata and symbol stand-ins: takes any bytes and must neither crash
// nor read outside them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace jitreader_fuzz {

/// Opens `data` as a managed image and asks every import operation about its rows; reads it
/// as a Portable PDB (and an image's embedded one) through the symbol reader's operations.
int metadata(const std::uint8_t* data, std::size_t size);

/// Opens `data` as a Windows PDB: every stream of its container, then the symbol reader's
/// operations on its methods and documents.
int windowsPdb(const std::uint8_t* data, std::size_t size);

} // namespace jitreader_fuzz
