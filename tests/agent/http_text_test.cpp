/* The text of HTTP exchanges: header blocks, values, URLs. */
#include "http_text.cpp"

#include <gtest/gtest.h>
#include <string>

using namespace std::string_literals;

static int size_of(const std::string& text) {
    return static_cast<int>(text.size());
}

/* --- the header block ------------------------------------------------------------------------ */

static int header_size(const std::string& text) {
    return is_header_loaded(text.data(), size_of(text));
}

TEST(is_header_loaded, counts_up_to_and_including_the_empty_line) {
    EXPECT_EQ(19, header_size("HTTP/1.0 200 OK\r\n\r\n"));
    EXPECT_EQ(19, header_size("HTTP/1.0 200 OK\r\n\r\nbody\r\n\r\n"));
    EXPECT_EQ(17, header_size("HTTP/1.0 200 OK\n\nbody"));
    EXPECT_EQ(18, header_size("HTTP/1.0 200 OK\n\r\n\n"));
    EXPECT_EQ(0, header_size("HTTP/1.0 200 OK\r\n\r"));
    EXPECT_EQ(0, header_size("HTTP/1.0 200 OK\r\nA: b\r\n"));
    EXPECT_EQ(0, header_size(""));
    EXPECT_EQ(0, header_size("\n"));
    EXPECT_EQ(0, header_size("\n\n"));
    EXPECT_EQ(2, header_size("\n\nx"));
    EXPECT_EQ(3, header_size("\n\r\n"));
    EXPECT_EQ(0, header_size("\r\n\r"));
    EXPECT_EQ(5, header_size("a\0\n\r\n"s));
}

TEST(is_header_loaded, a_scan_that_goes_on_finds_the_same) {
    for (const std::string& text : {"A: b\r\n\r\nbody"s, "A: b\n\nbody"s, "A: b\n\n"s, "\n\n\n"s,
                                    "\r\n\r\n"s, "\n\r\r\n\r\n"s}) {
        for (int from = 0; from <= size_of(text); from++) {
            if (is_header_loaded(text.data(), from) == 0) {
                EXPECT_EQ(header_size(text), is_header_loaded(text.data(), size_of(text), from));
            }
        }
    }
}

static long content_length(const std::string& headers) {
    return get_content_length(headers.c_str(), headers.size());
}

TEST(get_content_length, sums_the_values) {
    EXPECT_EQ(5, content_length("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\n"));
    EXPECT_EQ(5, content_length("HTTP/1.0 200 OK\nContent-Length: 5\n\n"));
    EXPECT_EQ(7, content_length("Content-Length: 3\r\nX: 9\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(5, content_length("content-LENGTH:5\r\n\r\n"));
    EXPECT_EQ(5, content_length("Content-Length:\t 5 \r\n\r\n"));
    EXPECT_EQ(0, content_length("Content-Length: 0\r\n\r\n"));
    EXPECT_EQ(0, content_length("HTTP/1.0 200 OK\r\n\r\n"));
    EXPECT_EQ(0, content_length(""));
}

TEST(get_content_length, every_header_that_begins_with_content_counts) {
    EXPECT_EQ(17, content_length("Content-Type: 12/x\r\nContent-Length: 5\r\n\r\n"));
    EXPECT_EQ(3, content_length("Content-: 3\r\n\r\n"));
    EXPECT_EQ(3, content_length("CONTENT-X: 3\r\n\r\n"));
    EXPECT_EQ(0, content_length("Content: 3\r\n\r\n"));
    EXPECT_EQ(0, content_length("X-Content-Length: 3\r\n\r\n"));
    EXPECT_EQ(0, content_length("Content-Type: text/plain; charset=8\r\n\r\n"));
}

TEST(get_content_length, white_space_ends_a_name_before_its_colon) {
    for (const char* space : {" ", "\t", "\v", "\f", "\r", " \t ", "\r\n ", "\n\t"}) {
        std::string header = std::string("Content-Length") + space + ": 5\r\n";
        EXPECT_EQ(0, content_length(header + "\r\n")) << header;
        EXPECT_EQ(6, content_length(header + "Content-Length: 6\r\n\r\n")) << header;
    }
    EXPECT_EQ(0, content_length("Content-Length 5: 7\r\n\r\n"));
    EXPECT_EQ(0, content_length("Content- Length: 7\r\n\r\n"));
}

TEST(get_content_length, folded_lines_belong_to_their_header) {
    EXPECT_EQ(5, content_length("Content-Length:\r\n 5\r\n\r\n"));
    EXPECT_EQ(5, content_length("Content-Length:\n\t\n 5\n\n"));
    EXPECT_EQ(0, content_length("X: y\r\n Content-Length: 5\r\n\r\n"));
    EXPECT_EQ(3, content_length("Content-Length: 3\r\n 4\r\n\r\n"));
}

TEST(get_content_length, a_value_does_not_reach_into_what_follows) {
    std::string text = "Content-Length:\r\n\r\n12345";
    EXPECT_EQ(0, get_content_length(text.c_str(), static_cast<size_t>(header_size(text))));
    EXPECT_EQ(0, content_length("Content-Length:\r\n99: x\r\n\r\n"));
    EXPECT_EQ(0, content_length("Content-Length\r\n99: 5\r\n\r\n"));
    EXPECT_EQ(0, content_length("Content-Length"));
    EXPECT_EQ(0, content_length("Content-Length:"));
    EXPECT_EQ(7, content_length("Content-Length: 7"));
}

TEST(get_content_length, values_that_are_no_sensible_number) {
    EXPECT_EQ(0, content_length("Content-Length: five\r\n\r\n"));
    EXPECT_EQ(-5, content_length("Content-Length: -5\r\n\r\n"));
    EXPECT_EQ(5, content_length("Content-Length: +5x\r\n\r\n"));
    EXPECT_EQ(4,
              content_length("Content-Length: 9223372036854775808\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(4,
              content_length("Content-Length: 9223372036854775807\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(4,
              content_length("Content-Length: -9223372036854775808\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(9223372036854775806, content_length("Content-Length: 9223372036854775806\r\n\r\n"));
    EXPECT_EQ(LONG_MIN, content_length("Content-Length: 9223372036854775806\r\n"
                                       "Content-Length: 2\r\n\r\n"));
}

static http_response response(const std::string& text) {
    http_response r;
    EXPECT_TRUE(r.data.append(text.data(), text.size()) && r.data.terminate());
    return r;
}

TEST(look_at_headers, takes_what_they_announce_once_they_are_in) {
    http_response r = response("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n");
    look_at_headers(r, 0);
    EXPECT_EQ(0, r.header_size);
    EXPECT_EQ(0, r.content_length);
    int scanned = size_of("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n");
    ASSERT_TRUE(r.data.append("\r\nabc", 5) && r.data.terminate());
    look_at_headers(r, scanned);
    EXPECT_EQ(38, r.header_size);
    EXPECT_EQ(5, r.content_length);
    EXPECT_EQ(43u, announced_size(r));
}

TEST(look_at_headers, what_comes_behind_them_changes_nothing) {
    http_response r = response("A: b\r\n\r\nContent-Length: 5\r\n\r\n");
    look_at_headers(r, 0);
    look_at_headers(r, 8);
    EXPECT_EQ(8, r.header_size);
    EXPECT_EQ(8u, announced_size(r));
}

TEST(look_at_headers, a_sum_that_no_long_holds_wraps) {
    http_response r = response("Content-Length: -40\r\n\r\n");
    look_at_headers(r, 0);
    EXPECT_EQ(static_cast<unsigned long>(23 - 40), announced_size(r));
}

/* --- values ---------------------------------------------------------------------------------- */

/* The parts as "protocol|username|password|host|port|path", "-" for an absent one. */
static std::string parse(const char* url) {
    std::string copy = url;
    url_t t;
    if (!urlparse(copy.data(), &t)) {
        return "no URL";
    }
    std::string all;
    for (const char* part : {t.protocol, t.username, t.password, t.host, t.port, t.path}) {
        all += (all.empty() ? "" : "|") + std::string(part != nullptr ? part : "-");
    }
    return all;
}

TEST(urlparse, splits_a_url) {
    EXPECT_EQ("scheme|user|pw|name|8443|a/b", parse("scheme://user:pw@name:8443/a/b"));
    EXPECT_EQ("scheme|-|-|name|-|-", parse("scheme://name"));
    EXPECT_EQ("https|-|-|name|-|p?q=1", parse("https://name/p?q=1"));
    EXPECT_EQ("https|-|-|name|80|-", parse("https://name:80"));
    EXPECT_EQ("https|-|-|name|-|-", parse("https://name/"));
    EXPECT_EQ("https|-|-|name|80|-", parse("https://name:80/"));
    EXPECT_EQ("https|-|-|name||x", parse("https://name:/x"));
    EXPECT_EQ("https|-|-||-|-", parse("https://"));
    EXPECT_EQ("https|||name|-|-", parse("https://:@name"));
    EXPECT_EQ("https|user|pw|name|-|x", parse("https://user:pw@name/x"));
}

TEST(urlparse, what_is_no_url) {
    EXPECT_EQ("no URL", parse(""));
    EXPECT_EQ("no URL", parse("name/path"));
    EXPECT_EQ("no URL", parse("http:/name"));
    EXPECT_EQ("no URL", parse("scheme://user@name:80/"));
    EXPECT_EQ("no URL", parse("scheme://user@name/"));
}

TEST(urlparse, an_at_or_colon_in_the_path_is_taken_for_the_authoritys) {
    EXPECT_EQ("http|-|-|name/a|b|-", parse("http://name/a:b"));
    EXPECT_EQ("http|name|80/p|q|-|-", parse("http://name:80/p@q"));
    EXPECT_EQ("no URL", parse("http://name/p@q"));
}

TEST(urlparse, fields_are_cleared_when_it_is_no_url) {
    char text[] = "text";
    url_t t = {text, text, text, text, text, text};
    EXPECT_EQ(0, urlparse(text, &t));
    for (const char* part : {t.protocol, t.username, t.password, t.host, t.port, t.path}) {
        EXPECT_EQ(nullptr, part);
    }
}

/* "-" for null. */
static std::string value(const char* response, int size, const char* name) {
    std::string copy = response;
    heap_text found(get_header_value(copy.data(), size, name));
    return found ? found.get() : "-";
}

TEST(get_header_value, finds_the_first_value) {
    const char* text = "HTTP/1.0 200 OK\r\nVnd-SessionID:  abc def \r\nVnd-SessionID: 2\r\n\r\n";
    EXPECT_EQ("abc def ", value(text, 1000, "Vnd-SessionID:"));
    EXPECT_EQ("200 OK", value(text, 1000, "HTTP/1.0"));
    EXPECT_EQ("-", value(text, 1000, "vnd-sessionid:"));
    EXPECT_EQ("-", value(text, 1000, "X:"));
}

TEST(get_header_value, nothing_beyond_the_header_size) {
    const char* text = "A: 1\r\nVnd-SessionID: 7\r\n\r\n"; /* begins at 6, its line ends at 22 */
    EXPECT_EQ("7", value(text, 26, "Vnd-SessionID:"));
    EXPECT_EQ("7", value(text, 22, "Vnd-SessionID:"));
    EXPECT_EQ("-", value(text, 21, "Vnd-SessionID:"));
    EXPECT_EQ("-", value(text, 6, "Vnd-SessionID:"));
    EXPECT_EQ("-", value(text, 5, "Vnd-SessionID:"));
    EXPECT_EQ("-", value("Vnd-SessionID: 7", 100, "Vnd-SessionID:"));
    EXPECT_EQ("-", value("Vnd-SessionID: 7\n\n", 100, "Vnd-SessionID:"));
}

TEST(get_header_value, an_empty_value_is_none) {
    EXPECT_EQ("-", value("A:\r\nB: 2\r\n\r\n", 100, "A:"));
    EXPECT_EQ("-", value("A: \t\r\nB: 2\r\n\r\n", 100, "A:"));
    EXPECT_EQ("2", value("A:\n 2\r\n\r\n", 100, "A:"));
}

TEST(get_header_value, empty_arguments) {
    char text[] = "A: 1\r\n";
    char empty[] = "";
    EXPECT_EQ(nullptr, get_header_value(nullptr, 10, "A:"));
    EXPECT_EQ(nullptr, get_header_value(empty, 10, "A:"));
    EXPECT_EQ(nullptr, get_header_value(text, 10, nullptr));
    EXPECT_EQ(nullptr, get_header_value(text, 10, ""));
    EXPECT_EQ(nullptr, get_header_value(text, 0, "A:"));
    EXPECT_EQ(nullptr, get_header_value(text, -1, "A:"));
    EXPECT_EQ("1", value(text, 10, "A:"));
}
