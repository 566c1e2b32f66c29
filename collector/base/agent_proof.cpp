#include "base/agent_proof.h"

#include <openssl/evp.h>

std::string fingerprint(const protocol::sha256& hash) {
    unsigned char text[4 * ((sizeof(hash) + 2) / 3) + 1];
    EVP_EncodeBlock(text, hash.data(), int(hash.size()));
    std::string base64(reinterpret_cast<const char*>(text));
    return "SHA256:" + base64.substr(0, base64.find('='));
}
