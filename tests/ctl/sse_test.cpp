#include "ctl/sse.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

struct sse_test : testing::Test {
    sse_parser parser{64};
    std::vector<sse_message> found;
    bool feed(std::string_view bytes) {
        return parser.feed(bytes, [&](const sse_message& m) {
            found.push_back(m);
            return true;
        });
    }
};

const char stream[] = "retry: 500\nid: 7.1-3\n\n"
                      "id: 7.1-4\nevent: result\ndata: {\"a\":1}\n\n"
                      ":\n\n"
                      "data: one\ndata:two\ndata\n\n";

} // namespace

TEST_F(sse_test, messages_have_id_event_and_data) {
    EXPECT_TRUE(feed(stream));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].id, "7.1-4");
    EXPECT_EQ(found[0].event, "result");
    EXPECT_EQ(found[0].data, "{\"a\":1}");
    EXPECT_EQ(found[1].id, "7.1-4");
    EXPECT_EQ(found[1].event, "message");
    EXPECT_EQ(found[1].data, "one\ntwo\n");
    EXPECT_EQ(parser.retry_ms(), 500);
    EXPECT_EQ(parser.last_id(), "7.1-4");
}

TEST_F(sse_test, an_id_counts_without_data) {
    EXPECT_TRUE(feed("id: 7.1-3\n\n"));
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(parser.last_id(), "7.1-3");
}

TEST_F(sse_test, bytes_may_come_one_by_one_and_with_any_line_end) {
    for (std::string end : {"\n", "\r", "\r\n"}) {
        parser.begin_anew();
        found.clear();
        std::string text = "\xef\xbb\xbf"
                           "data: x" +
                           end + "data: y" + end + end + "event: e" + end + "data: z" + end + end;
        for (char c : text) {
            EXPECT_TRUE(feed(std::string_view(&c, 1)));
        }
        ASSERT_EQ(found.size(), 2u) << testing::PrintToString(end);
        EXPECT_EQ(found[0].data, "x\ny");
        EXPECT_EQ(found[1].event, "e");
        EXPECT_EQ(found[1].data, "z");
    }
}

TEST_F(sse_test, a_new_connection_drops_what_is_half_there) {
    EXPECT_TRUE(feed("id: 1\ndata: a\n\nid: 2\nevent: e\ndata: half"));
    parser.begin_anew();
    EXPECT_EQ(parser.last_id(), "1");
    EXPECT_TRUE(feed("data: b\n\n"));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].event, "message");
    EXPECT_EQ(found[1].data, "b");
    EXPECT_EQ(found[1].id, "1");
}

TEST_F(sse_test, a_message_without_an_end_is_given_up) {
    EXPECT_TRUE(feed("data: " + std::string(40, 'x') + "\n"));
    EXPECT_FALSE(parser.is_too_long());
    EXPECT_FALSE(feed("data: " + std::string(40, 'x')));
    EXPECT_TRUE(parser.is_too_long());
    EXPECT_TRUE(found.empty());
}

TEST_F(sse_test, who_has_enough_is_told_no_more) {
    int told = 0;
    EXPECT_FALSE(parser.feed("data: 1\n\ndata: 2\n\n", [&](const sse_message&) {
        told++;
        return false;
    }));
    EXPECT_EQ(told, 1);
    EXPECT_FALSE(parser.is_too_long());
}

TEST_F(sse_test, fields_that_make_no_sense_are_ignored) {
    EXPECT_TRUE(feed("retry: -5\nretry: 1x\nretry:\nretry: 99999999999\nnonsense: 1\nid: a\x01"
                     "b\ndata: 1\n\n"));
    EXPECT_EQ(parser.retry_ms(), 3000);
    EXPECT_EQ(parser.last_id(), "");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(feed("retry: 999999999\n\n"));
    EXPECT_EQ(parser.retry_ms(), 60000);
}
