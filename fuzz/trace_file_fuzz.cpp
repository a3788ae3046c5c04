// libFuzzer target: any bytes as a trace file.
#include "trace_file_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return jitreader_fuzz::traceFile(data, size);
}
