// Visibility of the library's exported surface; everything else stays hidden.
#pragma once

#if defined(JITREADER_BUILDING)
#define JITREADER_API __attribute__((visibility("default")))
#else
#define JITREADER_API
#endif
