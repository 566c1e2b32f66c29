/* What a browser gets. */
#include "collector_server.h"

TEST_F(collector_server, a_browser_is_told_what_this_is) {
    start();
    const std::string rest = "\r\nContent-Length: 37\r\n\r\nThis is a vindral collection server.\n";
    EXPECT_EQ(ask("GET / HTTP/1.1\r\nHost: x\r\n\r\n").text, "HTTP/1.0 200 OK" + rest);
    for (const char* line : {"GET /x HTTP/1.1\r\nHost: x\r\n\r\n", "HEAD / HTTP/1.0\r\n\r\n",
                             "POST /fcgi-bin/agentgateway HTTP/1.0\r\n\r\n"}) {
        EXPECT_EQ(ask(line).text, "HTTP/1.0 404 Not Found" + rest);
    }
}

TEST_F(collector_server, the_page_needs_no_tls) {
    start();
    client c(port_);
    c.send_raw("GET / HTTP/1.0\r\n");
    c.send_raw("Host: x\r\n\r\n");
    ending how;
    EXPECT_EQ(c.read_all(how), "HTTP/1.0 200 OK\r\nContent-Length: 37\r\n\r\n"
                               "This is a vindral collection server.\n");
    EXPECT_EQ(how, ending::bare);
}
