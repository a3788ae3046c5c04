#include "jitreader/code_dump.h"

namespace velmark_3_11 {

// TODO(code_dump)
void dumpCodeBytes(std::wostream&, const void*, unsigned int, unsigned long long, unsigned int) {}

} // namespace velmark_3_11
