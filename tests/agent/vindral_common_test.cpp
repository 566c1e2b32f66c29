#include "vindral_common.h"

#include <gtest/gtest.h>

#include <string>

static std::string text_of(const bdata* buffer) {
    return {buffer->data_buffer, buffer->data_size};
}

/* Takes over and frees an allocated text; "(null)" for none. */
static std::string taken(char* text) {
    heap_text owned(text);
    return text != nullptr ? text : "(null)";
}

TEST(bdata, append_creates_then_grows) {
    bdata* buffer = nullptr;
    bdata_append(&buffer, "ab", 2);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(text_of(buffer), "ab");
    bdata_append(&buffer, "c\0d", 3);
    EXPECT_EQ(text_of(buffer), std::string("abc\0d", 5));
    bdata_free(&buffer);
    EXPECT_EQ(buffer, nullptr);
}

TEST(bdata, append_of_nothing_creates_nothing) {
    bdata* buffer = nullptr;
    bdata_append(&buffer, nullptr, 4);
    bdata_append(&buffer, "abc", 0);
    bdata_append(nullptr, "abc", 3);
    EXPECT_EQ(buffer, nullptr);
}

TEST(bdata, many_small_appends_keep_every_byte) {
    bdata* buffer = nullptr;
    std::string expected;
    for (int i = 0; i < 20000; i++) {
        std::string piece = std::to_string(i) + ",";
        expected += piece;
        bdata_append(&buffer, piece.data(), piece.size());
    }
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(text_of(buffer), expected);
    bdata_free(&buffer);
}

TEST(bdata, append_to_a_buffer_of_exact_size_made_elsewhere) {
    bdata* buffer = static_cast<bdata*>(malloc(sizeof(bdata)));
    buffer->data_buffer = strdup("12345");
    buffer->data_size = 5;
    bdata_append(&buffer, "6", 1);
    EXPECT_EQ(text_of(buffer), "123456");
    bdata_free(&buffer);
}

TEST(bdata, append_beyond_32_bits_is_refused) {
    char byte = 'x';
    bdata full{UINT32_MAX - 1, &byte};
    bdata* buffer = &full;
    bdata_append(&buffer, "ab", 2);
    bdata_append(&buffer, "ab", SIZE_MAX);
    EXPECT_EQ(full.data_size, UINT32_MAX - 1);
    EXPECT_EQ(full.data_buffer, &byte);
    bdata* none = nullptr;
    bdata_append(&none, "ab", size_t{1} << 32);
    EXPECT_EQ(none, nullptr);
}

TEST(bdata, copy_is_independent) {
    bdata* buffer = nullptr;
    bdata_append(&buffer, "ab\0c", 4);
    bdata* copy = bdata_copy(buffer);
    buffer->data_buffer[0] = 'X';
    bdata_free(&buffer);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(text_of(copy), std::string("ab\0c", 4));
    bdata_free(&copy);
    EXPECT_EQ(bdata_copy(nullptr), nullptr);
}

TEST(bdata, copy_of_an_empty_buffer_is_an_empty_buffer) {
    bdata empty{0, nullptr};
    bdata* copy = bdata_copy(&empty);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->data_size, 0U);
    bdata_free(&copy);
}

TEST(bdata, free_takes_null_and_leaves_the_bytes_of_an_empty_buffer) {
    bdata_free(nullptr);
    bdata* none = nullptr;
    bdata_free(&none);
    char not_from_malloc = 'x';
    bdata* buffer = static_cast<bdata*>(malloc(sizeof(bdata)));
    *buffer = {0, &not_from_malloc};
    bdata_free(&buffer);
    EXPECT_EQ(buffer, nullptr);
}

TEST(adv_strcat, starts_and_appends) {
    char* text = nullptr;
    adv_strcat(&text, nullptr);
    EXPECT_EQ(text, nullptr);
    adv_strcat(&text, "");
    ASSERT_STREQ(text, "");
    adv_strcat(&text, "one");
    adv_strcat(&text, nullptr);
    adv_strcat(&text, " two");
    EXPECT_STREQ(text, "one two");
    adv_strcat(nullptr, "x");
    free(text);
}

TEST(get_next_token, points_behind_the_first_delimiter) {
    const char* text = "a;b;c";
    EXPECT_EQ(get_next_token(text, ';'), text + 2);
    EXPECT_EQ(get_next_token(";x", ';')[0], 'x');
    EXPECT_STREQ(get_next_token("a;;", ';'), ";");
}

TEST(get_next_token, is_null_without_a_token) {
    EXPECT_EQ(get_next_token(nullptr, ';'), nullptr);
    EXPECT_EQ(get_next_token("", ';'), nullptr);
    EXPECT_EQ(get_next_token("abc", ';'), nullptr);
    EXPECT_EQ(get_next_token("abc;", ';'), nullptr);
    EXPECT_EQ(get_next_token(";", ';'), nullptr);
    EXPECT_EQ(get_next_token("abc", '\0'), nullptr);
}

TEST(starts_with_string, is_0_for_a_match_in_any_case) {
    EXPECT_EQ(starts_with_string("Processes", "proc"), 0);
    EXPECT_EQ(starts_with_string("proc", "PROC"), 0);
    EXPECT_EQ(starts_with_string("proc", ""), 0);
    EXPECT_EQ(starts_with_string("", ""), 0);
    EXPECT_EQ(starts_with_string(nullptr, "x"), 0);
    EXPECT_EQ(starts_with_string("x", nullptr), 0);
    EXPECT_EQ(starts_with_string(nullptr, nullptr), 0);
}

TEST(starts_with_string, is_1_otherwise) {
    EXPECT_EQ(starts_with_string("pro", "proc"), 1);
    EXPECT_EQ(starts_with_string("", "p"), 1);
    EXPECT_EQ(starts_with_string("prod", "proc"), 1);
    EXPECT_EQ(starts_with_string("\xE4", "\xC4"), 1);
}

TEST(get_hexstring, two_digits_and_a_blank_per_byte) {
    const unsigned char bytes[] = {0x00, 0x0A, 0xFF, 0x7b};
    EXPECT_EQ(taken(get_hexstring(bytes, sizeof bytes)), "00 0A FF 7B ");
    EXPECT_EQ(get_hexstring(bytes, 0), nullptr);
    EXPECT_EQ(get_hexstring(nullptr, 4), nullptr);
    EXPECT_EQ(get_hexstring(bytes, SIZE_MAX), nullptr);
}

TEST(get_asciistring, dots_for_what_does_not_print) {
    const unsigned char bytes[] = {'a', ' ', '\t', '\n', 0x00, 0x1B, 0x7F, 0x80, 0xFF, '~'};
    EXPECT_EQ(taken(get_asciistring(bytes, sizeof bytes)), "a \t\n.....~");
    EXPECT_EQ(get_asciistring(bytes, 0), nullptr);
    EXPECT_EQ(get_asciistring(nullptr, 4), nullptr);
}

TEST(get_URL_Encode, every_byte) {
    EXPECT_EQ(taken(get_URL_Encode("a b", 3)), "a%20b");
    EXPECT_EQ(taken(get_URL_Encode("\xC3", 1)), "%FF");
    for (int code = 0; code < 256; code++) {
        char byte = static_cast<char>(code);
        char expected[8];
        bool plain = (code >= '0' && code <= '9') || (code >= 'A' && code <= 'Z') ||
                     (code >= 'a' && code <= 'z');
        snprintf(expected, sizeof expected, plain ? "%c" : "%%%02X", code < 0x80 ? code : 0xFF);
        EXPECT_EQ(taken(get_URL_Encode(&byte, 1)), expected);
    }
    EXPECT_EQ(get_URL_Encode("abc", 0), nullptr);
    EXPECT_EQ(get_URL_Encode(nullptr, 3), nullptr);
}

/* "host path port", or "0" when the URL is refused. The port starts out as "unset". */
static std::string cracked(const char* url) {
    char *host = nullptr, *path = nullptr, *port = nullptr;
    if (!crackURL(url, &host, &path, &port)) {
        EXPECT_EQ(host, nullptr);
        EXPECT_EQ(path, nullptr);
        EXPECT_EQ(port, nullptr);
        return "0";
    }
    std::string port_shown = port != nullptr ? port : "unset";
    free(port);
    return taken(host) + " " + taken(path) + " " + port_shown;
}

TEST(crackURL, splits_host_path_and_port) {
    EXPECT_EQ(cracked("https://srv.example:8443/p?q=1"), "srv.example /p?q=1 8443");
    EXPECT_EQ(cracked("http://srv/"), "srv / 80");
    EXPECT_EQ(cracked("https://srv/a/b:c"), "srv /a/b:c 443");
    EXPECT_EQ(cracked("http://srv:0080/"), "srv / 80");
}

TEST(crackURL, default_port_goes_by_how_the_scheme_starts_in_lower_case) {
    EXPECT_EQ(cracked("httpx://srv/"), "srv / 80");
    EXPECT_EQ(cracked("httpsx://srv/"), "srv / 443");
    EXPECT_EQ(cracked("HTTP://srv/"), "srv / unset");
    EXPECT_EQ(cracked("HTTPS://srv/"), "srv / unset");
    EXPECT_EQ(cracked("httpS://srv/"), "srv / 80");
    EXPECT_EQ(cracked("ftp://srv/"), "srv / unset");
    EXPECT_EQ(cracked("ftp://srv:21/"), "srv / 21");
}

TEST(crackURL, other_schemes_leave_the_port_alone) {
    char *host = nullptr, *path = nullptr, port[] = "7";
    char* kept = port;
    ASSERT_EQ(crackURL("ftp://srv/", &host, &path, &kept), 1);
    EXPECT_EQ(kept, port);
    free(host);
    free(path);
}

TEST(crackURL, a_port_of_0_or_above_65535_becomes_443_whatever_the_scheme) {
    EXPECT_EQ(cracked("http://srv:0/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:65535/"), "srv / 65535");
    EXPECT_EQ(cracked("http://srv:65536/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:99999999999999999999/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:x/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:-0/"), "srv / 443");
    EXPECT_EQ(cracked("http://srv:4294967376/"), "srv / 443"); /* 80 in 32 bits */
    EXPECT_EQ(cracked("ftp://srv:0/"), "srv / 443");
}

/* For the resolver to refuse, which knows no such service. */
TEST(crackURL, a_negative_port_stays) {
    EXPECT_EQ(cracked("https://srv:-5/p"), "srv /p -5");
    EXPECT_EQ(cracked("http://srv:-1/"), "srv / -1");
    EXPECT_EQ(cracked("http://srv: -080x/"), "srv / -80");
    EXPECT_EQ(cracked("http://srv:-65536/"), "srv / -65536");
    EXPECT_EQ(cracked("http://srv:-4294967296/"), "srv / -4294967296"); /* 0 in 32 bits */
    EXPECT_EQ(cracked("http://srv:-99999999999999999999/"), "srv / -9223372036854775808");
}

TEST(crackURL, refuses_what_it_cannot_split) {
    EXPECT_EQ(cracked(nullptr), "0");
    EXPECT_EQ(cracked(""), "0");
    EXPECT_EQ(cracked("srv/path"), "0");
    EXPECT_EQ(cracked("http://srv"), "0");
    EXPECT_EQ(cracked("http://srv:80"), "0");
    EXPECT_EQ(cracked("http:/srv/"), "0");
    EXPECT_EQ(cracked("http://"), "0");
}

TEST(crackURL, an_empty_host_is_a_host) {
    EXPECT_EQ(cracked("http:///p"), " /p 80");
}

TEST(get_timevaldiff, microseconds_forward_and_0_backward) {
    timeval early{10, 900000}, later{12, 100000};
    EXPECT_EQ(get_timevaldiff(&early, &later), 1200000);
    EXPECT_EQ(get_timevaldiff(&later, &early), 0);
    EXPECT_EQ(get_timevaldiff(&early, &early), 0);
    timeval same_second{10, 899999};
    EXPECT_EQ(get_timevaldiff(&early, &same_second), 0);
    EXPECT_EQ(get_timevaldiff(&same_second, &early), 1);
    timeval far{10000000, 0};
    EXPECT_EQ(get_timevaldiff(&early, &far), 9999989100000L);
    EXPECT_EQ(get_timevaldiff(nullptr, &later), 0);
}

TEST(get_timevaldiff, null_later_is_now) {
    timeval now;
    gettimeofday(&now, nullptr);
    now.tv_sec -= 100;
    long passed = get_timevaldiff(&now, nullptr);
    EXPECT_GE(passed, 100000000L);
    EXPECT_LT(passed, 200000000L);
    now.tv_sec += 1000;
    EXPECT_EQ(get_timevaldiff(&now, nullptr), 0);
}
