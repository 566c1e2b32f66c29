#include "httpmon_text.h"

#include "guards.h"

#include <cstdio>
#include <cstring>
#include <utility>

static const int MAX_PORT = 65535;

/* --- the request ----------------------------------------------------------------------------- */

static const char* method_name(int req_method) {
    switch (req_method) {
    case 1:
        return "POST";
    case 2:
        return "HEAD";
    default:
        return "GET";
    }
}

/* The header line with its line end; null when there is no memory. */
static heap_text authorization_line(const char* user, const char* password) {
    char* credentials = nullptr;
    if (asprintf(&credentials, "%s:%s", user, password) < 0) {
        return nullptr;
    }
    heap_text plain(credentials);
    heap_text encoded(base64(plain.get(), strlen(plain.get())));
    char* line = nullptr;
    if (!encoded || asprintf(&line, "Authorization: Basic %s\r\n", encoded.get()) < 0) {
        return nullptr;
    }
    return heap_text(line);
}

static heap_text request_header(const char* host, const char* url, int req_method,
                                const char* userAgent, const char* auth_user,
                                const char* auth_pass) {
    heap_text authorization;
    if (auth_user != nullptr && auth_pass != nullptr) {
        authorization = authorization_line(auth_user, auth_pass);
        if (!authorization) {
            return nullptr;
        }
    }
    char* header = nullptr;
    if (asprintf(&header, "%s %s HTTP/1.0\r\nUser-Agent: %s\r\nConnection: close\r\nHost: %s\r\n%s",
                 method_name(req_method), url, userAgent != nullptr ? userAgent : "(null)", host,
                 authorization ? authorization.get() : "") < 0) {
        return nullptr;
    }
    return heap_text(header);
}

char* make_http_request(const char* host, const char* url, int req_method, const char* post_data,
                        char* userAgent, char* auth_user, char* auth_pass) {
    heap_text header = request_header(host, url, req_method, userAgent, auth_user, auth_pass);
    if (!header) {
        return nullptr;
    }
    char* request = nullptr;
    int length = post_data == nullptr
                     ? asprintf(&request, "%s\r\n", header.get())
                     : asprintf(&request,
                                "%sContent-Type: application/x-www-form-urlencoded\r\n"
                                "Content-Length: %zu\r\n\r\n%s",
                                header.get(), strlen(post_data), post_data);
    return length < 0 ? nullptr : request;
}

char* base64(const char* bin, size_t len) {
    static const char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    char* text = static_cast<char*>(malloc((len + 2) / 3 * 4 + 1));
    if (text == nullptr) {
        return nullptr;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(bin);
    char* out = text;
    for (size_t i = 0; i < len; i += 3) {
        size_t count = len - i;
        unsigned group = bytes[i] << 16;
        group |= count > 1 ? bytes[i + 1] << 8 : 0;
        group |= count > 2 ? bytes[i + 2] : 0;
        *out++ = DIGITS[group >> 18];
        *out++ = DIGITS[group >> 12 & 63];
        *out++ = count > 1 ? DIGITS[group >> 6 & 63] : '=';
        *out++ = count > 2 ? DIGITS[group & 63] : '=';
    }
    *out = '\0';
    return text;
}

/* --- the response ---------------------------------------------------------------------------- */

int get_status_code(const char* hdr, char* addInfo, char* s) {
    size_t length = strcspn(hdr, "\r\n");
    size_t kept = length < STATUS_LINE_SIZE ? length : STATUS_LINE_SIZE - 1;
    memcpy(s, hdr, kept);
    s[kept] = '\0';
    const char* blank = strchr(s, ' ');
    if (kept < length || blank == nullptr) {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL Invalid Status Line (%s)", s);
        return 0;
    }
    if (strspn(blank + 1, "1234567890") != 3) {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL Invalid Status code (%s)", s);
        return 0;
    }
    return static_cast<int>(strtol(blank + 1, nullptr, 10));
}

int server_type_check(const char* type) {
    return strcmp(type, "https") == 0 ? 1 : 0;
}

int server_port_check(int ssl_flag) {
    return ssl_flag ? 443 : 80;
}

/* --- redirection ----------------------------------------------------------------------------- */

#define LETTERS_AND_DIGITS "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
#define SCHEME "%5[HTPShtps]"
#define HOST "%255[-." LETTERS_AND_DIGITS "]"
#define PORT "%6d"
#define PATH "%[-_.!~*'();/?:@&=+$,%#" LETTERS_AND_DIGITS "]"

namespace {

/* An http URL without its path. */
struct url_head {
    char scheme[6];
    char host[256];
    int port;
    int ssl;
};

} // namespace

static const char* scheme_name(int ssl) {
    return ssl ? "https" : "http";
}

/* Where a header's value begins, on this line or on one that is folded into it; null when it is
 * empty. */
static char* value_start(char* text) {
    text += strspn(text, " \t");
    while (*text == '\r' || *text == '\n') {
        text += strspn(text, "\r\n");
        size_t blanks = strspn(text, " \t");
        if (blanks == 0) {
            return nullptr;
        }
        text += blanks;
    }
    return *text != '\0' ? text : nullptr;
}

/* The value of the first location line inside `header`, ended at its CR. Null with a text when
 * there is none or it is empty. */
static char* find_location(char* header, const char* status_line, char* addInfo) {
    static const char NAME[] = "location:";
    char* line = header;
    while (strncasecmp(line, NAME, sizeof NAME - 1) != 0) {
        line += strcspn(line, "\r\n");
        line += strspn(line, "\r\n");
        if (*line == '\0') {
            snprintf(addInfo, ADD_INFO_SIZE, "HTTP UNKNOWN - Could not find redirect location - %s",
                     status_line);
            return nullptr;
        }
    }
    char* value = value_start(line + sizeof NAME - 1);
    if (value == nullptr) {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP UNKNOWN - Empty redirect location");
        return nullptr;
    }
    value[strcspn(value, "\r")] = '\0';
    return value;
}

/* Takes an http URL apart: the host with or without a port, each with or without a path, which goes
 * to `path` (2 bytes at least) without its leading '/'. Returns 0 when the value is no such URL;
 * scheme and host are then undefined. */
static int match_url(const char* value, url_head& to, char* path) {
    path[0] = '/';
    path[1] = '\0';
    if (sscanf(value, SCHEME "://" HOST ":" PORT "/" PATH, to.scheme, to.host, &to.port, path) ==
            4 ||
        sscanf(value, SCHEME "://" HOST ":" PORT, to.scheme, to.host, &to.port) == 3) {
        to.ssl = server_type_check(to.scheme);
        return 1;
    }
    if (sscanf(value, SCHEME "://" HOST "/" PATH, to.scheme, to.host, path) == 3 ||
        sscanf(value, SCHEME "://" HOST, to.scheme, to.host) == 2) {
        to.ssl = server_type_check(to.scheme);
        to.port = server_port_check(to.ssl);
        return 1;
    }
    return 0;
}

static heap_text with_leading_slash(const char* path) {
    char* absolute = nullptr;
    if (asprintf(&absolute, "%s%s", *path == '/' ? "" : "/", path) < 0) {
        return nullptr;
    }
    return heap_text(absolute);
}

/* `path` seen from the directory of `current`, which begins with '/'. */
static heap_text resolve_path(const char* path, const char* current) {
    if (*path == '/') {
        return heap_text(strdup(path));
    }
    int directory = static_cast<int>(strrchr(current, '/') - current);
    char* joined = nullptr;
    if (asprintf(&joined, "%.*s/%s", directory, current, path) < 0) {
        return nullptr;
    }
    return heap_text(joined);
}

/* Returns 1, or 0 when there is no memory. */
static int hand_out(const url_head& to, const char* host, heap_text path, int* isSSL,
                    char** new_host, char** new_url, char** new_port) {
    heap_text host_copy(strdup(host));
    char* port = nullptr;
    if (!host_copy || asprintf(&port, "%d", to.port) < 0) {
        return 0;
    }
    *isSSL = to.ssl;
    *new_host = host_copy.release();
    *new_url = path.release();
    *new_port = port;
    return 1;
}

int get_redir(char* host_name, char* server_url, int server_port, char* hdr, size_t hdr_len,
              char* status_line, int* isSSL, char** new_host, char** new_url, char** new_port,
              char* addInfo) {
    addInfo[0] = '\0';
    if (hdr == nullptr || hdr_len == 0) {
        return 0;
    }
    heap_text header(strndup(hdr, hdr_len));
    heap_text current = with_leading_slash(server_url);
    if (!header || !current) {
        return 0;
    }
    char* value = find_location(header.get(), status_line, addInfo);
    if (value == nullptr) {
        return 0;
    }
    heap_text path(static_cast<char*>(malloc(strlen(value) + 1)));
    if (!path) {
        return 0;
    }
    url_head to;
    const char* scheme = to.scheme;
    const char* host = to.host;
    if (match_url(value, to, path.get())) {
        path = with_leading_slash(path.get());
    } else if (sscanf(value, PATH, path.get()) == 1) {
        to.port = server_port;
        to.ssl = *isSSL;
        scheme = scheme_name(*isSSL);
        host = host_name;
        path = resolve_path(path.get(), current.get());
    } else {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP UNKNOWN - Could not parse redirect location - %s\n",
                 value);
        return 0;
    }
    if (!path) {
        return 0;
    }
    if (to.port == server_port && strcmp(host, host_name) == 0 &&
        strcmp(path.get(), current.get()) == 0) {
        snprintf(addInfo, ADD_INFO_SIZE,
                 "HTTP WARNING - redirection creates an infinite loop - %s://%s:%d%s\n", scheme,
                 host, to.port, path.get());
        return 0;
    }
    if (to.port > MAX_PORT) {
        snprintf(addInfo, ADD_INFO_SIZE,
                 "HTTP UNKNOWN - Redirection to port above %d - %s://%s:%d%s", MAX_PORT,
                 scheme_name(to.ssl), host_name, server_port, server_url);
        return 0;
    }
    return hand_out(to, host, std::move(path), isSSL, new_host, new_url, new_port);
}
