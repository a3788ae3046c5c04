// libFuzzer target: any bytes as a managed image, its metadata and a Portable PDB.
#include "metadata_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::metadata(data, size);
}
