#include "trace_file_target.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "jitreader/java_names.h"
#include "jitreader/jit_data_manager.h"
#include "jitreader/jit_file_decoder.h"
#include "jitreader/jit_file_reader.h"
#include "quiet_log.h"

namespace jitreader_fuzz {
namespace {

/// An anonymous in-memory file holding the input, so that the decoder reads it through the
/// same file stream as a trace on disk.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : m_fd(memfd_create("trace", 0))
    {
        std::size_t written = 0;
        while (m_fd >= 0 && written < size) {
            const ssize_t n = write(m_fd, data + written, size - written);
            if (n <= 0)
                break;
            written += static_cast<std::size_t>(n);
        }
    }
    ~MemoryFile()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    std::wstring path() const
    {
        const std::string text = "/proc/self/fd/" + std::to_string(m_fd);
        return std::wstring(text.begin(), text.end());
    }

private:
    int m_fd;
};

} // namespace

int traceFile(const std::uint8_t* data, std::size_t size)
{
    using namespace velmark_3_11;
    logEverythingQuietly();
    const MemoryFile file(data, size);
    for (const decoding_mode_t mode : {decoding_mode_full, decoding_mode_modules}) {
        JitDataManager store;
        // Twice into one store: the second pass meets everything the first one left.
        for (int pass = 0; pass < 2; ++pass) {
            JitFileDecoder decoder(file.path(), 7, 1, 1 + pass * size, mode);
            decoder.setSearchRegionCallback(&store);
            readJitFile(decoder, pass == 0 ? bfAll : bfOnly64, store);
        }
        boost::intrusive_ptr<JitMethod> method;
        unsigned long long jitRva = 0;
        for (const auto& entry : store.jitRvaDomain()) {
            store.resolveJitPoint(entry.first.start, method);
            const Region& region = *entry.second.first;
            store.resolveJitPoint(region.startAddress(), region.loadTime(), 7, 1, method, jitRva);
            if (method) {
                method->getSourceLocation(entry.first.start);
                LineNumberEntry first{}, last{};
                method->getLineNumberRange(&first, &last, 0);
            }
        }
        store.translateJitAddress(1, 0x1000, 1, 1 + 2 * size, jitRva);
    }
    return 0;
}

int javaNames(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    velmark_3_11::formatJavaMethodName(text);
    velmark_3_11::formatJavaClassName(text);
    return 0;
}

} // namespace jitreader_fuzz
