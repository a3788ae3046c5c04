// libFuzzer target: any bytes as a method signature blob.
#include "dotnet_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::signature(data, size);
}
