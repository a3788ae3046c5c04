// The loop that reads one trace file into the store.
#pragma once

#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "jitreader/error.h"

namespace velmark_3_11 {

class JitDataManager;
class JitFileDecoder;
class JitMethod;

/// Which load records a read takes.
enum bitness_filter_t : unsigned int {
    bfAll = 0,   ///< every record
    bfOnly32 = 1, ///< the first 64-bit load record ends the reading
    bfOnly64 = 2, ///< the first 32-bit load record ends the reading
};

/// Reads every record of the decoder's file into `dataManager`, then finalises the store.
velmark_error_t readJitFile(JitFileDecoder& decoder, unsigned int bitnessFilter, JitDataManager& dataManager);

/// Appends " (64)" to the module path of every method of architecture 1.
void patchModuleName64(const std::vector<boost::intrusive_ptr<JitMethod>>& methods);

} // namespace velmark_3_11
