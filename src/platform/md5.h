// MD5 digests of the platform layer.
#pragma once

#include <cstddef>
#include <memory>

namespace basekit2 {

/// A 16-byte MD5 digest.
struct md5_digest_t {
    unsigned char bytes[16];
};

/// Incremental MD5 over any bytes.
class md5_t {
public:
    md5_t();
    ~md5_t();
    md5_t(const md5_t&) = delete;
    md5_t& operator=(const md5_t&) = delete;

    void update(const void* data, std::size_t size);
    /// The digest of everything given so far.
    md5_digest_t get_digest();
    /// Starts over, as a new object would, keeping the context's storage.
    void reset();

private:
    struct context_t;
    std::unique_ptr<context_t> m_context;
};

} // namespace basekit2
