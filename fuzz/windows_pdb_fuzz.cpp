// libFuzzer target: any bytes as a Windows PDB, its container and its managed symbols.
#include "metadata_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::windowsPdb(data, size);
}
