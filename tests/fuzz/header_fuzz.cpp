/* The header scan, the content length, the header values and the URL splitter: everything that
 * looks at a server's bytes before anybody has vouched for them. */
#include "http_text.cpp"

#include "fuzz.h"

#include <cstdint>
#include <cstring>

/* An exact copy with a NUL behind it, as a receiver leaves it. */
static heap_text copy_of(const uint8_t* data, size_t size) {
    heap_text text(static_cast<char*>(malloc(size + 1)));
    require(text != nullptr);
    memcpy(text.get(), data, size);
    text.get()[size] = '\0';
    return text;
}

static void check_headers(const uint8_t* data, int size) {
    heap_text text = copy_of(data, static_cast<size_t>(size));
    int header_size = is_header_loaded(text.get(), size);
    require(header_size >= 0 && header_size <= size);

    /* Growing data: what one scan after the other finds is what one scan of it all finds. */
    int found = 0;
    int step = 1 + data[0] % 7;
    for (int scanned = 0; scanned < size && found == 0;) {
        int length = size - scanned > step ? scanned + step : size;
        found = is_header_loaded(text.get(), length, scanned);
        require(found == is_header_loaded(text.get(), length));
        scanned = length;
    }
    require(found == header_size);

    get_content_length(text.get(), static_cast<size_t>(header_size));
    get_content_length(text.get(), static_cast<size_t>(size));

    for (int limit : {header_size, size, size / 2}) {
        for (const char* name : {"Vnd-SessionID:", "a:", ":", "\n"}) {
            heap_text value(get_header_value(text.get(), limit, name));
            if (value) {
                require(*value != '\0' && strstr(value.get(), "\r\n") == nullptr);
                require(strlen(value.get()) + strlen(name) <= static_cast<size_t>(limit));
            }
        }
    }
}

static void check_url(const uint8_t* data, size_t size) {
    heap_text text = copy_of(data, size);
    const char* end = text.get() + strlen(text.get());
    url_t parts;
    if (!urlparse(text.get(), &parts)) {
        return;
    }
    require(parts.protocol == text.get() && parts.host != nullptr);
    require((parts.username == nullptr) == (parts.password == nullptr));
    for (const char* part :
         {parts.protocol, parts.username, parts.password, parts.host, parts.port, parts.path}) {
        require(part == nullptr || (part >= text.get() && part + strlen(part) <= end));
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 1 << 20) {
        return 0;
    }
    check_headers(data, static_cast<int>(size));
    check_url(data, size);
    return 0;
}
