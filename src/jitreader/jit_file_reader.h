// The loop that reads trace files into the store.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "jitreader/error.h"
#include "jitreader/jit_file_decoder.h"

namespace velmark_3_11 {

class JitDataManager;
class JitMethod;

/// Which load records a read takes.
enum bitness_filter_t : unsigned int {
    bfAll = 0,   ///< every record
    bfOnly32 = 1, ///< the first 64-bit load record ends the reading
    bfOnly64 = 2, ///< the first 32-bit load record ends the reading
};

/// Reads every record of the decoder's file into `dataManager`, then finalises the store.
velmark_error_t readJitFile(JitFileDecoder& decoder, unsigned int bitnessFilter, JitDataManager& dataManager);

/// One file of a read of many, with what its decoder needs to know.
struct JitFileRead {
    std::wstring path; ///< empty: the file is skipped, and reported as meInvalidArgument
    unsigned int processId = 0;
    unsigned int hostId = 0;
    unsigned long long firstJitRva = 0;
    bool closedRange = false;        ///< the range ends at rangeEnd, beyond which the overflow window serves
    unsigned long long rangeEnd = 0;
    unsigned int fileIndex = 0;
};

/// How readJitFiles shares the decoding.
enum class read_ahead_t {
    none,      ///< every file is read in turn, on the calling thread
    helper,    ///< a second thread decodes later files while the store takes earlier ones
    everyFile, ///< every file is decoded whole before the store takes it, on the calling thread
};

/// Reads `files` into `dataManager` with the same results, log lines and order as readJitFile
/// on each in turn would, the store locked for the files of each process. Files decoded ahead
/// log when the store takes their records. `fileDone` hears of each file once the store has
/// taken it, in order, on the calling thread.
void readJitFiles(const std::vector<JitFileRead>& files, decoding_mode_t mode, unsigned int bitnessFilter,
                  JitDataManager& dataManager, const std::function<void(std::size_t, velmark_error_t)>& fileDone,
                  read_ahead_t ahead = read_ahead_t::helper);

/// Appends " (64)" to the module path of every method of architecture 1.
void patchModuleName64(const std::vector<boost::intrusive_ptr<JitMethod>>& methods);

} // namespace velmark_3_11
