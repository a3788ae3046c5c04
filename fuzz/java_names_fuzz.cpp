// libFuzzer target: any bytes as Java names.
#include "trace_file_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::javaNames(data, size);
}
