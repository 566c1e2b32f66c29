#include "base/sealing.h"

#include "base/certificate.h"
#include "base/files.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using cipher_ptr = std::unique_ptr<EVP_CIPHER_CTX, released_by<EVP_CIPHER_CTX_free>>;
using key_bytes = std::array<unsigned char, 32>;

constexpr size_t nonce_size = 12, tag_size = 16;
constexpr size_t digits_of_key = 2 * sizeof(key_bytes);

const unsigned char* bytes_of(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* bytes_of(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

/* Memory that a key was in, wiped with it. */
struct key_text {
    char digits[digits_of_key + 2] = {}; /* and a line end, and one that is too many */
    size_t length = 0;
    key_text() = default;
    key_text(const key_text&) = delete;
    key_text& operator=(const key_text&) = delete;
    ~key_text() { OPENSSL_cleanse(digits, sizeof(digits)); }
};

/* False without a word when there is none: errno is ENOENT then, and `error` empty. */
bool read_key_file(const std::string& path, bool must_be_private, key_text& out,
                   std::string& error) {
    struct stat status;
    /* Whatever is there: it keeps nobody waiting. */
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file || fstat(file.get(), &status) != 0) {
        error = errno == ENOENT ? "" : system_error("cannot read the key of the secrets " + path);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "the key of the secrets " + path + " is no file";
        return false;
    }
    if (must_be_private && (status.st_mode & 077) != 0) {
        error = "the key of the secrets " + path +
                " is not its owner's alone: find out who has read it, then chmod it to 600";
        return false;
    }
    while (out.length < sizeof(out.digits)) {
        ssize_t count = read(file.get(), out.digits + out.length, sizeof(out.digits) - out.length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error = system_error("cannot read the key of the secrets " + path);
            return false;
        }
        if (count == 0) {
            break;
        }
        out.length += size_t(count);
    }
    return true;
}

int value_of(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

bool take_key(const std::string& path, const key_text& text, key_bytes& out, std::string& error) {
    const bool has_end = text.length == digits_of_key + 1 && text.digits[digits_of_key] == '\n';
    bool well = has_end || text.length == digits_of_key;
    for (size_t i = 0; well && i < out.size(); i++) {
        const int high = value_of(text.digits[2 * i]), low = value_of(text.digits[2 * i + 1]);
        well = high >= 0 && low >= 0;
        out[i] = static_cast<unsigned char>(16 * high + low);
    }
    if (!well) {
        error = "the key of the secrets " + path + " is not " + std::to_string(digits_of_key) +
                " hexadecimal digits";
    }
    return well;
}

bool make_key_file(const std::string& directory, const std::string& path, std::string& error) {
    key_bytes key;
    if (RAND_bytes(key.data(), int(key.size())) != 1) {
        ERR_clear_error();
        error = "there are no random numbers for a key of the secrets";
        return false;
    }
    std::string text = hex({reinterpret_cast<const char*>(key.data()), key.size()}) + "\n";
    bool written = replace_file(path, text, 0600, file_owner::directory) &&
                   sync_directory(directory); /* what is sealed from now on needs it */
    if (!written) {
        error = system_error("cannot write " + path);
    }
    OPENSSL_cleanse(text.data(), text.size());
    OPENSSL_cleanse(key.data(), key.size());
    return written;
}

std::string credential_file() {
    const char* directory = getenv("CREDENTIALS_DIRECTORY");
    return directory && *directory ? std::string(directory) + "/secrets-key" : "";
}

} // namespace

sealer::~sealer() {
    OPENSSL_cleanse(key_.data(), key_.size());
}

bool sealer::open(const std::string& directory, bool make, std::string& error) {
    key_text text;
    error.clear();
    std::string path = credential_file();
    bool found = !path.empty() && read_key_file(path, false, text, error);
    if (!found && error.empty()) {
        path = directory + "/secrets.key";
        directory_lock lock(directory); /* of two that make one, the second takes the first's */
        found = read_key_file(path, true, text, error);
        if (!found && error.empty() && !make) {
            error = "there is no key of the secrets " + path;
        }
        found = found || (error.empty() && make_key_file(directory, path, error) &&
                          read_key_file(path, true, text, error));
    }
    key_bytes key{};
    if (found && take_key(path, text, key, error)) {
        key_ = key;
        is_open_ = true;
    } else {
        found = false;
    }
    OPENSSL_cleanse(key.data(), key.size());
    return found;
}

std::string sealer::seal(std::string_view name, std::string_view value) const {
    std::string sealed(nonce_size + value.size() + tag_size, '\0');
    unsigned char* nonce = bytes_of(sealed);
    unsigned char* at = nonce + nonce_size;
    cipher_ptr c(EVP_CIPHER_CTX_new());
    int length = 0;
    bool done =
        is_open_ && c && RAND_bytes(nonce, nonce_size) == 1 &&
        EVP_EncryptInit_ex(c.get(), EVP_aes_256_gcm(), nullptr, key_.data(), nonce) == 1 &&
        EVP_EncryptUpdate(c.get(), nullptr, &length, bytes_of(name), int(name.size())) == 1 &&
        EVP_EncryptUpdate(c.get(), at, &length, bytes_of(value), int(value.size())) == 1 &&
        EVP_EncryptFinal_ex(c.get(), at + length, &length) == 1 &&
        EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_GET_TAG, tag_size, at + value.size()) == 1;
    ERR_clear_error();
    return done ? sealed : "";
}

std::optional<std::string> sealer::unseal(std::string_view name, std::string_view sealed) const {
    if (!is_open_ || sealed.size() < nonce_size + tag_size) {
        return std::nullopt;
    }
    std::string value(sealed.size() - nonce_size - tag_size, '\0');
    std::string tag(sealed.substr(sealed.size() - tag_size));
    const unsigned char* nonce = bytes_of(sealed);
    cipher_ptr c(EVP_CIPHER_CTX_new());
    int length = 0;
    bool done =
        c && EVP_DecryptInit_ex(c.get(), EVP_aes_256_gcm(), nullptr, key_.data(), nonce) == 1 &&
        EVP_DecryptUpdate(c.get(), nullptr, &length, bytes_of(name), int(name.size())) == 1 &&
        EVP_DecryptUpdate(c.get(), bytes_of(value), &length, nonce + nonce_size,
                          int(value.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(c.get(), EVP_CTRL_GCM_SET_TAG, tag_size, tag.data()) == 1 &&
        EVP_DecryptFinal_ex(c.get(), bytes_of(value) + length, &length) == 1;
    ERR_clear_error();
    if (!done) {
        OPENSSL_cleanse(value.data(), value.size());
        return std::nullopt;
    }
    return value;
}
