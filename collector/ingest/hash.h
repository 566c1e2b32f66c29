/* SHA-256, by which a block is recognised when it comes again. */
#ifndef VINDRAL_COLLECTOR_HASH_H
#define VINDRAL_COLLECTOR_HASH_H

#include <array>
#include <memory>
#include <openssl/evp.h>
#include <string_view>

using block_hash = std::array<char, 32>;

inline std::string_view view_of(const block_hash& hash) {
    return {hash.data(), hash.size()};
}

/* Of bytes that come in pieces. finish() begins anew. */
class running_hash {
public:
    running_hash() : context_(EVP_MD_CTX_new()) { begin(); }
    void add(std::string_view bytes) {
        EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
    }
    block_hash finish() {
        block_hash hash;
        EVP_DigestFinal_ex(context_.get(), reinterpret_cast<unsigned char*>(hash.data()), nullptr);
        begin();
        return hash;
    }

private:
    void begin() { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }
    struct release {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, release> context_;
};

inline block_hash sha256(std::string_view bytes) {
    block_hash hash;
    EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(hash.data()), nullptr,
               EVP_sha256(), nullptr);
    return hash;
}

#endif
