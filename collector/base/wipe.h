/* Texts that should not stay in memory once they are of no use. What the library moved or copied on
 * its way is beyond this. */
#ifndef VINDRAL_COLLECTOR_WIPE_H
#define VINDRAL_COLLECTOR_WIPE_H

#include <openssl/crypto.h>
#include <string>

/* What it holds is overwritten, and it is empty. */
inline void wipe(std::string& text) {
    text.resize(text.capacity()); /* within its memory: what was there before, too */
    OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

/* A text that is wiped when it goes. */
class wiped_text {
public:
    wiped_text() = default;
    explicit wiped_text(std::string text) : text_(std::move(text)) {}
    ~wiped_text() { wipe(text_); }
    wiped_text(const wiped_text&) = delete;
    wiped_text& operator=(const wiped_text&) = delete;

    std::string& operator*() { return text_; }
    const std::string& operator*() const { return text_; }
    std::string* operator->() { return &text_; }
    const std::string* operator->() const { return &text_; }

private:
    std::string text_;
};

#endif
