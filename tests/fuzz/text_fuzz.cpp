/* The splitters of text from outside: command lines and fields, tokens, URLs, and the encoders.
 * Input: one byte for the separator, then the text. */
#include "fuzz.h"
#include "vindral_common.h"
#include "vindral_text.h"

#include <cstring>
#include <string>

/* The fields, joined again, are the text less one separator at its end. */
static void check_uparser(const std::string& text, char separator) {
    char** fields = nullptr;
    size_t count = 0;
    if (!uparser(text.c_str(), &fields, &count, separator)) {
        require(text[0] == '\0');
        return;
    }
    std::string joined;
    for (size_t i = 0; i < count; i++) {
        joined += (i > 0 ? std::string(1, separator) : "") + fields[i];
        require(strchr(fields[i] + (i == 0 ? 1 : 0), separator) == nullptr || separator == '\0');
    }
    require(joined == text.c_str() || joined + separator == text.c_str());
    free_uparser_array(&fields, &count);
    require(count == 0);
}

static void check_next_token(const std::string& text, char separator) {
    const char* token = get_next_token(text.c_str(), separator);
    require(token == nullptr || (token > text.c_str() && token[-1] == separator && *token != '\0'));
}

static void check_url(const std::string& text) {
    char *host = nullptr, *path = nullptr, *port = nullptr;
    if (crackURL(text.c_str(), &host, &path, &port)) {
        require(path[0] == '/' && strchr(host, ':') == nullptr && strchr(host, '/') == nullptr);
        require(port == nullptr || (atol(port) != 0 && atol(port) <= 65535));
    }
    free(host);
    free(path);
    free(port);
}

static void check_encoders(const std::string& text) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
    heap_text hexadecimal(get_hexstring(bytes, text.size()));
    heap_text ascii(get_asciistring(bytes, text.size()));
    heap_text encoded(get_URL_Encode(text.data(), text.size()));
    if (!text.empty()) {
        require(strlen(hexadecimal.get()) == 3 * text.size());
        require(strlen(ascii.get()) == text.size());
        require(strlen(encoded.get()) <= 3 * text.size());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    char separator = static_cast<char>(data[0]);
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    check_uparser(text, separator);
    check_next_token(text, separator);
    check_url(text);
    check_encoders(text);
    return 0;
}
