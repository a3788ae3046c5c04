#include "jitreader/jit_file_reader.h"

#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_decoder.h"

namespace velmark_3_11 {

// TODO(jit_file_reader)
velmark_error_t readJitFile(JitFileDecoder&, unsigned int, JitDataManager& dataManager)
{
    dataManager.finalize();
    return meSuccess;
}

void patchModuleName64(const std::vector<boost::intrusive_ptr<JitMethod>>&) {}

} // namespace velmark_3_11
