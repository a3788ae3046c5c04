// libFuzzer target: any bytes as a jitdump file for the importer.
#include "jitdump_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::jitdump(data, size);
}
