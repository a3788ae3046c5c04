#include "platform/md5.h"

#include <cstring>

#include <openssl/evp.h>

namespace basekit2 {

// The algorithm is fetched once per hasher: handing EVP_md5() to every initialisation makes
// OpenSSL 3 look it up in its provider tables each time, which costs more than hashing a name.
struct md5_t::context_t {
    EVP_MD* fetched = EVP_MD_fetch(nullptr, "MD5", nullptr);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    const EVP_MD* md() const { return fetched != nullptr ? fetched : EVP_md5(); }
    ~context_t()
    {
        EVP_MD_CTX_free(ctx);
        EVP_MD_free(fetched);
    }
};

md5_t::md5_t() : m_context(new context_t)
{
    EVP_DigestInit_ex(m_context->ctx, m_context->md(), nullptr);
}

md5_t::~md5_t() = default;

void md5_t::update(const void* data, std::size_t size)
{
    EVP_DigestUpdate(m_context->ctx, data, size);
}

void md5_t::reset()
{
    EVP_DigestInit_ex(m_context->ctx, m_context->md(), nullptr);
}

md5_digest_t md5_t::get_digest()
{
    md5_digest_t digest;
    unsigned int length = 0;
    unsigned char buffer[EVP_MAX_MD_SIZE] = {};
    EVP_DigestFinal_ex(m_context->ctx, buffer, &length);
    std::memcpy(digest.bytes, buffer, sizeof digest.bytes);
    return digest;
}

} // namespace basekit2
