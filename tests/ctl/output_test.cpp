#include "ctl/output.h"
#include "ctl/times.h"

#include <boost/json.hpp>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace json = boost::json;

namespace {

/* Noon of 1 May 2026, UTC. */
constexpr int64_t noon = 1777636800;

struct words : testing::Test {
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    static json::object read(const char* text) { return json::parse(text).as_object(); }

    given said;
    api with{http_access{}}; /* nothing is asked */
    screen none, wide{.width = 80, .ascii = true, .color = false};
    place file{said, with, none, noon}, terminal{said, with, wide, noon};
};

} // namespace

TEST_F(words, a_result_has_its_telling_part_first) {
    const json::object well = read(R"({"state": "ok", "status": "ok", "message": "fine\n",
                 "values": {"free": {"value": 24105.3, "unit": "MB"}}})");
    EXPECT_EQ(finding_cell(file, well), "free 23.5 GB");
    const json::object wrong =
        read(R"({"state": "problem", "status": "failed", "message": "no answer\n",
                 "values": {"lost": {"value": 3, "unit": ""}}})");
    EXPECT_EQ(finding_cell(file, wrong), "no answer; lost 3");
    EXPECT_EQ(finding_cell(file, read(R"({"state": "ok", "message": "fine", "values": {}})")),
              "fine");
    EXPECT_EQ(finding_cell(file, read(R"({"state": "problem"})")), "");
}

TEST_F(words, what_is_no_longer_known_says_so) {
    EXPECT_EQ(finding_cell(file, read(R"({"state": "unknown", "status": "ok", "message": "fine",
                                          "values": {"lost": {"value": 0, "unit": ""}}})")),
              "last ok: lost 0");
    EXPECT_EQ(finding_cell(file, read(R"({"state": "unknown", "status": "failed", "message": "no",
                                          "values": {"lost": {"value": 1, "unit": ""}}})")),
              "last failed: no; lost 1");
    /* There was none yet. */
    EXPECT_EQ(finding_cell(file, read(R"({"state": "unknown", "status": null, "values": {}})")),
              "");
}

TEST_F(words, on_a_screen_times_are_short) {
    const json::object times = read(
        R"({"today": "2026-05-01T08:15:40Z", "before": "2026-04-30T23:59:59Z", "never": null})");
    EXPECT_EQ(short_time_cell(terminal, times, "today"), "08:15:40");
    EXPECT_EQ(short_time_cell(terminal, times, "before"), "2026-04-30 23:59");
    EXPECT_EQ(short_time_cell(terminal, times, "never"), "");
    EXPECT_EQ(short_time_cell(file, times, "today"), "2026-05-01 08:15:40");
    EXPECT_EQ(short_time_cell(file, times, "before"), "2026-04-30 23:59:59");
}

TEST_F(words, long_facts_are_broken_and_cut) {
    const std::string text = "aaaa bbbb cccc dddd eeee ffff gggg hhhh iiii jjjj";
    const screen narrow{.width = 41, .ascii = true, .color = false};
    const place here{said, with, narrow, noon};
    testing::internal::CaptureStdout();
    put_fact(here, "names", text, tint::none, 2);
    put_fact(here, "empty", "");
    put_fact(here, "one", "aaaabbbbccccddddeeeeffffgggg", tint::none, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "names               aaaa bbbb cccc dddd\n"
              "                    eeee ffff gggg hhhh ~\n"
              "one                 aaaabbbbccccddddeeee~\n");
}
