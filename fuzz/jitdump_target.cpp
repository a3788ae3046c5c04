#include "jitdump_target.h"

#include "jitdump_converter.h"
#include "quiet_log.h"

namespace jitreader_fuzz {

int jitdump(const std::uint8_t* data, std::size_t size)
{
    logEverythingQuietly();
    jitreader_tool::JitdumpConverter::Traces traces;
    const jitreader_tool::JitdumpConversion result =
        jitreader_tool::JitdumpConverter::convert(data, size, "fuzz", traces);
    // A file whose header reads has exactly one trace, which holds at least its two first frames.
    if (result.read && (traces.size() != 1 || traces.begin()->second.size() < 16))
        __builtin_trap();
    return 0;
}

} // namespace jitreader_fuzz
