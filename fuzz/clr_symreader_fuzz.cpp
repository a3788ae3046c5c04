// libFuzzer target: any bytes as a portable debug file.
#include "dotnet_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::clrSymReader(data, size);
}
