/* What a web server can make of a check: the status line, the announced length and the location. */
#include "httpmon_text.cpp"

#include "fuzz.h"

#include <cstdint>

static void check_status(const char* response, char* info) {
    char line[STATUS_LINE_SIZE];
    int code = get_status_code(response, info, line);
    require(code >= 0 && code <= 999);
    require(strlen(line) < STATUS_LINE_SIZE && strlen(info) < ADD_INFO_SIZE);
    require(strncmp(line, response, strlen(line)) == 0);
}

static void check_location(char* headers, size_t size, const char* url, int ssl, char* info) {
    char line[] = "HTTP/1.0 302 x", host[] = "example.org";
    heap_text current(strdup(url));
    char *new_host = nullptr, *new_url = nullptr, *new_port = nullptr;
    int before = ssl;
    int found = get_redir(host, current.get(), 80, headers, size, line, &ssl, &new_host, &new_url,
                          &new_port, info);
    require(strlen(info) < ADD_INFO_SIZE);
    if (!found) {
        require(new_host == nullptr && new_url == nullptr && new_port == nullptr && ssl == before);
        require(size == 0 || info[0] != '\0');
        return;
    }
    require(info[0] == '\0' && new_url[0] == '/' && new_host[0] != '\0');
    require(strcspn(new_url, " \r\n") == strlen(new_url));
    require(strtol(new_port, nullptr, 10) <= 65535);
    free(new_host);
    free(new_url);
    free(new_port);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    /* An exact copy with a NUL behind it, as receive_response leaves it. */
    heap_text response(static_cast<char*>(malloc(size + 1)));
    heap_text info(static_cast<char*>(calloc(1, ADD_INFO_SIZE)));
    require(response != nullptr && info != nullptr);
    memcpy(response.get(), data, size);
    response.get()[size] = '\0';

    check_status(response.get(), info.get());
    int header_size = is_header_loaded(response.get(), static_cast<int>(size));
    get_content_length(response.get(), static_cast<size_t>(header_size));
    for (const char* url : {"/a/b?c", "", "x"}) {
        check_location(response.get(), size, url, url[0] == '\0', info.get());
        check_location(response.get(), static_cast<size_t>(header_size), url, 0, info.get());
    }
    heap_text encoded(base64(response.get(), size));
    require(strlen(encoded.get()) == (size + 2) / 3 * 4);
    return 0;
}
