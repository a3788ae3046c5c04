#include "jitreader/jit_file_decoder.h"

namespace velmark_3_11 {

// TODO(jit_file_decoder)
JitFileDecoder::JitFileDecoder(const std::wstring&, unsigned int processId, unsigned int hostId,
                               unsigned long long firstJitRva, decoding_mode_t mode)
    : m_position(0),
      m_mode(mode),
      m_hostId(hostId),
      m_pid(processId),
      m_collectorType(0),
      m_nextJitRva(firstJitRva),
      m_searchRegionCallback(nullptr),
      m_arch0Seen(false),
      m_arch1Seen(false)
{
}

JitFileDecoder::~JitFileDecoder() = default;

velmark_error_t JitFileDecoder::getNextRecord(Record&)
{
    return meEndOfTrace;
}

bool JitFileDecoder::decodeMethodLoadRecord(const Record&, boost::intrusive_ptr<JitMethod>&)
{
    return false;
}

bool JitFileDecoder::decodeMethodLoadRecordV1(const Record&, boost::intrusive_ptr<JitMethod>&)
{
    return false;
}

bool JitFileDecoder::decodeMethodLoadRecordV2(const Record&, boost::intrusive_ptr<JitMethod>&)
{
    return false;
}

bool JitFileDecoder::decodeMethodLoadRecordV3(const Record&, boost::intrusive_ptr<JitMethod>&, unsigned char*)
{
    return false;
}

bool JitFileDecoder::decodeMethodInlineLoadRecord(const Record&, boost::intrusive_ptr<JitMethod>&) const
{
    return false;
}

bool JitFileDecoder::decodeMethodUpdateRecordV2(const Record&, boost::intrusive_ptr<JitMethod>&) const
{
    return false;
}

} // namespace velmark_3_11
