#include "trace_file.h"

namespace jitagent {

namespace {

// Large enough that compiles of a busy start-up rarely reach the disk one by one.
const std::size_t kBufferSize = 1 << 20;
// Records of this agent name their parents by raw id.
const std::uint32_t kJitProfiler = 1;

} // namespace

TraceFile::~TraceFile()
{
    close();
}

std::string TraceFile::fileName(const std::string& host, unsigned long pid)
{
    return host + "." + std::to_string(pid) + ".jit";
}

bool TraceFile::open(const std::string& path, std::string& error)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file)
        std::fclose(m_file);
    m_file = std::fopen(path.c_str(), "wb");
    if (!m_file) {
        error = "can't create " + path;
        return false;
    }
    std::setvbuf(m_file, nullptr, _IOFBF, kBufferSize);
    m_failed = false;
    tracewriter::TraceWriter head;
    head.magic().collectorType(kJitProfiler);
    m_failed = std::fwrite(head.bytes().data(), 1, head.size(), m_file) != head.size();
    return true;
}

bool TraceFile::append(const tracewriter::Bytes& frames)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file || m_failed)
        return false;
    m_failed = std::fwrite(frames.data(), 1, frames.size(), m_file) != frames.size();
    return !m_failed;
}

void TraceFile::flush()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file)
        std::fflush(m_file);
}

void TraceFile::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
}

} // namespace jitagent
