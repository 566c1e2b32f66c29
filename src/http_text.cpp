#include "http_text.h"

#include <cctype>
#include <climits>

/* --- the header block ------------------------------------------------------------------------ */

int is_header_loaded(const char* doc, int doc_len) {
    return is_header_loaded(doc, doc_len, 0);
}

int is_header_loaded(const char* doc, int doc_len, int scanned) {
    for (int i = std::max(scanned - 2, 0); i < doc_len - 2; i++) {
        if (doc[i] != '\n') {
            continue;
        }
        if (doc[i + 1] == '\n') {
            return i + 2;
        }
        if (doc[i + 1] == '\r' && doc[i + 2] == '\n') {
            return i + 3;
        }
    }
    return 0;
}

static bool is_white_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

/* One past the end of the header that begins at `line`, with the lines that are folded into it. */
static const char* header_end(const char* line, const char* end) {
    while (line < end) {
        const char* feed = static_cast<const char*>(memchr(line, '\n', end - line));
        if (feed == nullptr) {
            return end;
        }
        line = feed + 1;
        if (line < end && *line != ' ' && *line != '\t') {
            break;
        }
    }
    return line;
}

/* What one header adds to the content length. */
static long content_length_of(const char* header, const char* end) {
    static const char PREFIX[] = "Content-";
    const size_t prefix_length = sizeof PREFIX - 1;
    if (static_cast<size_t>(end - header) < prefix_length ||
        strncasecmp(header, PREFIX, prefix_length) != 0) {
        return 0;
    }
    const char* name_end =
        std::find_if(header, end, [](char c) { return c == ':' || is_white_space(c); });
    if (name_end == end || *name_end != ':') {
        return 0;
    }
    const char* value = std::find_if_not(name_end + 1, end, is_white_space);
    if (value == end) {
        return 0;
    }
    errno = 0;
    long number = strtol(value, nullptr, 10);
    return errno != 0 || number == LONG_MAX || number == LONG_MIN ? 0 : number;
}

long get_content_length(const char* hdrs, size_t hdrs_len) {
    const char* end = hdrs + hdrs_len;
    unsigned long sum = 0;
    while (hdrs < end) {
        const char* next = header_end(hdrs, end);
        sum += static_cast<unsigned long>(content_length_of(hdrs, next));
        hdrs = next;
    }
    return static_cast<long>(sum);
}

void look_at_headers(http_response& r, int scanned) {
    if (r.header_size == 0) {
        r.header_size = is_header_loaded(r.data.data(), static_cast<int>(r.data.size()), scanned);
        r.content_length = get_content_length(r.data.data(), static_cast<size_t>(r.header_size));
    }
}

unsigned long announced_size(const http_response& r) {
    return static_cast<unsigned long>(r.header_size) + static_cast<unsigned long>(r.content_length);
}

/* --- values ---------------------------------------------------------------------------------- */

/* Cuts `text` at the first `c` and returns what follows it; null when there is none. */
static char* cut_at(char* text, char c) {
    char* found = strchr(text, c);
    if (found == nullptr) {
        return nullptr;
    }
    *found = '\0';
    return found + 1;
}

int urlparse(char* url, url_t* tokens) {
    static const char SEPARATOR[] = "://";
    *tokens = {};
    char* rest = strstr(url, SEPARATOR);
    if (rest == nullptr) {
        return 0;
    }
    *rest = '\0';
    tokens->protocol = url;
    rest += sizeof SEPARATOR - 1;

    if (strchr(rest, '@') != nullptr) {
        char* password = strchr(rest, ':');
        if (password == nullptr || strchr(password, '@') == nullptr) {
            return 0;
        }
        tokens->username = rest;
        tokens->password = cut_at(rest, ':');
        rest = cut_at(tokens->password, '@');
    }
    tokens->host = rest;
    tokens->port = cut_at(rest, ':');
    char* path = cut_at(tokens->port != nullptr ? tokens->port : tokens->host, '/');
    tokens->path = path != nullptr && *path != '\0' ? path : nullptr;
    return 1;
}

char* get_header_value(char* sResp, int iHSize, const char* strName) {
    if (strName == nullptr || *strName == '\0' || sResp == nullptr || *sResp == '\0' ||
        iHSize < 1) {
        return nullptr;
    }
    const char* name = strstr(sResp, strName);
    if (name == nullptr || name - sResp > iHSize) {
        return nullptr;
    }
    const char* end = strstr(name, "\r\n");
    if (end == nullptr || end - sResp > iHSize) {
        return nullptr;
    }
    const char* value = name + strlen(strName);
    while (value < end && is_white_space(*value)) {
        value++;
    }
    return value < end ? strndup(value, static_cast<size_t>(end - value)) : nullptr;
}
