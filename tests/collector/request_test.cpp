#include "ingest/request.h"

#include <gtest/gtest.h>

static request good(const std::string& head) {
    request r;
    std::string error;
    EXPECT_TRUE(parse_head(head, r, error)) << error;
    return r;
}

static std::string refused(const std::string& head) {
    request r;
    std::string error;
    EXPECT_FALSE(parse_head(head, r, error)) << head;
    EXPECT_EQ(error.find_first_of("\r\n"), std::string::npos);
    return error;
}

TEST(collector_request, a_poll_as_the_agent_writes_it) {
    request r =
        good("POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
             "Content-Length: 5\r\nVnd-SessionID: 00ff\r\nVnd-Compression: 10\r\n"
             "Vnd-CheckSum: 4294967295\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n");
    EXPECT_EQ(r.what, request::kind::poll);
    EXPECT_EQ(r.session, "00ff");
    EXPECT_EQ(r.content_length, 5u);
    EXPECT_EQ(r.compression, 10u);
    EXPECT_EQ(r.checksum, 4294967295u);
    EXPECT_EQ(r.version, "3.0");
}

TEST(collector_request, a_login_as_the_agent_writes_it) {
    request r =
        good("POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
             "Content-Length: 0\r\nVnd-EMail: me@example.org\r\n"
             "Vnd-AName: h\xc3\xb4te@21:11:2026:00:00:01\r\nVnd-Platform: linux64\r\n"
             "Vnd-Version: 3.0\r\n\r\n");
    EXPECT_EQ(r.what, request::kind::login);
    EXPECT_EQ(r.account, "me@example.org");
    EXPECT_EQ(r.agent, "h\xc3\xb4te@21:11:2026:00:00:01");
    EXPECT_EQ(r.version, "3.0");
    EXPECT_EQ(r.content_length, 0u);
}

TEST(collector_request, the_path_does_not_matter_and_numbers_may_be_missing) {
    request r = good("POST / HTTP/1.1\r\nvnd-sessionid: x\r\n\r\n");
    EXPECT_EQ(r.what, request::kind::poll);
    EXPECT_EQ(r.content_length + r.compression + r.checksum, 0u);
}

TEST(collector_request, what_no_agent_sends_is_something_else) {
    EXPECT_EQ(good("GET / HTTP/1.1\r\nHost: x\r\n\r\n").what, request::kind::page);
    EXPECT_EQ(good("GET / HTTP/1.0\r\nVnd-SessionID: x\r\n\r\n").what, request::kind::page);
    EXPECT_EQ(good("GET /x HTTP/1.0\r\n\r\n").what, request::kind::other);
    EXPECT_EQ(good("HEAD / HTTP/1.0\r\n\r\n").what, request::kind::other);
    EXPECT_EQ(good("POST / HTTP/1.0\r\n\r\n").what, request::kind::other);
}

TEST(collector_request, what_hosts_ask_for_has_paths_and_methods_of_its_own) {
    EXPECT_EQ(good("GET /authority HTTP/1.0\r\n\r\n").what, request::kind::authority);
    EXPECT_EQ(good("POST /authority HTTP/1.0\r\n\r\n").what, request::kind::other);
    EXPECT_EQ(good("GET /authority?x HTTP/1.0\r\n\r\n").what, request::kind::other);
    EXPECT_EQ(good("GET /enrol HTTP/1.0\r\n\r\n").what, request::kind::other);
    request r = good("POST /enrol HTTP/1.0\r\nContent-Length: 9\r\nVnd-Token: ve_x\r\n\r\n");
    EXPECT_EQ(r.what, request::kind::enrol);
    EXPECT_EQ(r.token, "ve_x");
    EXPECT_EQ(r.account + r.agent, "");
    EXPECT_EQ(r.content_length, 9u);
    r = good("POST /enrol HTTP/1.0\r\nVnd-EMail: me@example.org\r\nVnd-AName: web-1\r\n\r\n");
    EXPECT_EQ(r.what, request::kind::enrol);
    EXPECT_EQ(r.account + " " + r.agent, "me@example.org web-1");
    EXPECT_EQ(refused("POST /enrol HTTP/1.0\r\nVnd-Token: a\r\nVnd-Token: a\r\n\r\n"),
              "Vnd-Token is there twice");
    refused("POST /enrol HTTP/1.0\r\nVnd-AName: a\tb\r\n\r\n");
    /* Agents may have any path. */
    EXPECT_EQ(good("POST /enrol HTTP/1.0\r\nVnd-SessionID: x\r\n\r\n").what, request::kind::poll);
    EXPECT_EQ(good("POST /enrol/ HTTP/1.0\r\nVnd-EMail: x\r\nVnd-AName: y\r\n\r\n").what,
              request::kind::login);
}

TEST(collector_request, numbers_are_plain_decimal_and_stand_once) {
    const std::string poll = "POST / HTTP/1.0\r\nVnd-SessionID: x\r\n";
    EXPECT_EQ(good(poll + "Content-Length: 18446744073709551615\r\n\r\n").content_length,
              UINT64_MAX);
    for (const char* value :
         {"-1", "+1", "1 ", "0x1", "1,1", "1, 1", "", "18446744073709551616", "x"}) {
        if (std::string(value) != "1 ") { /* blanks round a value are no part of it */
            refused(poll + "Content-Length: " + value + "\r\n\r\n");
            refused(poll + "Vnd-Compression: " + value + "\r\n\r\n");
        }
    }
    EXPECT_EQ(refused(poll + "Vnd-CheckSum: 7x\r\n\r\n"), "Vnd-CheckSum is not a number: 7x");
    EXPECT_EQ(refused(poll + "Content-Length: 1\r\nContent-Length: 1\r\n\r\n"),
              "Content-Length is there twice");
    refused(poll + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n");
    EXPECT_EQ(refused(poll + "Vnd-SessionID: y\r\n\r\n"), "Vnd-SessionID is there twice");
    EXPECT_EQ(refused(poll + "Transfer-Encoding: chunked\r\n\r\n"),
              "Transfer-Encoding is not supported");
}

TEST(collector_request, names_have_a_length_and_no_control_characters) {
    auto login = [](const std::string& account, const std::string& agent) {
        return "POST / HTTP/1.0\r\nVnd-EMail: " + account + "\r\nVnd-AName: " + agent + "\r\n\r\n";
    };
    EXPECT_EQ(good(login(std::string(254, 'a'), std::string(254, 'b'))).agent.size(), 254u);
    const std::string bad_name = " is empty, too long or has control characters";
    EXPECT_EQ(refused(login("", "x")), "Vnd-EMail" + bad_name);
    EXPECT_EQ(refused(login(std::string(255, 'a'), "x")), "Vnd-EMail" + bad_name);
    EXPECT_EQ(refused(login("x", "a\tb")), "Vnd-AName" + bad_name);
    EXPECT_EQ(refused("POST / HTTP/1.0\r\nVnd-EMail: x\r\n\r\n"), "Vnd-AName" + bad_name);
    refused(login("x", "a\x1b[2Jb"));
    refused(login("x", std::string("a\0b", 3)));
}

TEST(collector_request, a_version_that_cannot_be_one_is_none) {
    const std::string head = "POST / HTTP/1.0\r\nVnd-SessionID: x\r\nVnd-Version: ";
    EXPECT_EQ(good(head + std::string(32, 'v') + "\r\n\r\n").version, std::string(32, 'v'));
    for (const std::string& version :
         {std::string(), std::string(33, 'v'), std::string("3\t0"), std::string("3\xc3\xa9")}) {
        EXPECT_EQ(good(head + version + "\r\n\r\n").version, "") << version;
    }
    refused(head + "3.0\r\nVnd-Version: 3.0\r\n\r\n");
    EXPECT_EQ(good("POST / HTTP/1.0\r\nVnd-SessionID: x\r\n\r\n").version, "");
}

TEST(collector_request, anything_but_http_is_refused) {
    for (const char* head : {"\r\n\r\n", "nonsense\r\n\r\n", "GET /\r\n\r\n",
                             "POST / HTTP/2.0\r\n\r\n", "POST / HTTP/1.0\r\nno colon\r\n\r\n",
                             "POST / HTTP/1.0\r\n: x\r\n\r\n", "POST / HTTP/1.0\r\nX: y\r\n", ""}) {
        EXPECT_NE(refused(head), "");
    }
    refused("POST / HTTP/1.0\r\nX: " + std::string(max_head, 'x') + "\r\n\r\n");
}

TEST(collector_request, the_end_of_a_head_is_found_across_pieces) {
    std::string text = "POST / HTTP/1.0\r\nX: y\r\n\r\nbody";
    size_t length = text.size() - 4;
    for (size_t cut = 0; cut < length; ++cut) {
        EXPECT_EQ(find_head(text.substr(0, cut), 0), 0u);
        EXPECT_EQ(find_head(text, cut), length);
    }
    EXPECT_EQ(find_head("", 0), 0u);
}

TEST(collector_request, any_byte_may_be_wrong) {
    const std::string head = "POST /x HTTP/1.0\r\nContent-Length: 12\r\nVnd-SessionID: 00ff\r\n"
                             "Vnd-Compression: 10\r\nVnd-CheckSum: 1\r\n\r\n";
    for (size_t at = 0; at < head.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string wrong = head;
            wrong[at] = char(byte);
            request r;
            std::string error;
            bool good = parse_head(wrong, r, error);
            EXPECT_EQ(good, error.empty());
        }
    }
}
