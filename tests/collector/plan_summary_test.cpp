#include "plan/summary.h"

#include <gtest/gtest.h>

static std::vector<plan_line> plan_of(const std::vector<std::string>& texts) {
    std::vector<plan_line> lines;
    for (const std::string& text : texts) {
        lines.push_back({lines.size() + 1, static_cast<int>(lines.size()) + 1, text});
    }
    return lines;
}

/* Of a plan of one line. */
static owned_definition definition_of(const std::string& line) {
    std::vector<owned_definition> all = definitions_of(plan_of({line}));
    EXPECT_EQ(all.size(), 1u) << line;
    return all.empty() ? owned_definition{} : all[0];
}

TEST(plan_summary, a_summary_has_the_intervals_and_the_tests_that_remain) {
    plan_summary summary =
        summary_of(plan_of({"POL\t0\t30", "LAA\t5\t1\t1\t2\t3", "PRA\t7\t1\t-1\t-1\t-1\tinit",
                            "LAA\t6\t1\t1\t2\t3", "LAD\t5\t0", "CHK\t0\t20"}));
    EXPECT_TRUE(summary.is_planned);
    EXPECT_EQ(summary.every.poll, 30);
    EXPECT_EQ(summary.every.check, 20);
    std::vector<std::pair<uint32_t, int32_t>> tests = {{43, 7}, {66, 6}};
    EXPECT_EQ(summary.tests, tests);
}

TEST(plan_summary, without_lines_tests_run_once) {
    plan_summary summary = summary_of({});
    EXPECT_TRUE(summary.is_planned && summary.tests.empty());
    EXPECT_EQ(summary.every.poll, 60);
    EXPECT_EQ(summary.every.check, 0);
}

TEST(plan_summary, what_changed_a_test_last_is_what_it_is) {
    std::vector<owned_definition> all = definitions_of(
        plan_of({"LAA\t5\t1\t1\t2\t3", "LAA\t6\t1\t4\t5\t6", "LAM\t5\t9\t7\t8\t9\tdb1",
                 "SPA\t7\t1\tsw\t161\t2\t1.3\tpublic\t\t\t\t\t\t2\t1\t-",
                 "STM\t7\t2\tsw\t161\t20\t2\t1.4\tpublic\t\t\t\t\t\t2\t1", "LAA\t8\t1\t1\t1\t1",
                 "LAD\t8\t0"}));
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].type, 66u);
    EXPECT_EQ(all[0].number, 5);
    EXPECT_EQ(all[0].location, 9);
    EXPECT_EQ(all[0].name, "db1");
    EXPECT_EQ(all[0].text, "5\t9\t7\t8\t9\tdb1");
    EXPECT_EQ(all[1].name, "");
    EXPECT_EQ(all[1].text, "6\t1\t4\t5\t6");
    EXPECT_EQ(all[2].type, 67u);
    EXPECT_EQ(all[2].text, "7\t2\tsw\t161\t20\t2\t1.4\t\t\t\t\t\t\t2\t1");
}

TEST(plan_summary, names_say_what_a_test_looks_at) {
    EXPECT_EQ(definition_of("DKA\t4\t1\t/home(/dev/sda3|ext4)\t2.5").name, "/home");
    EXPECT_EQ(definition_of("PRA\t5\t1\t80\t512\t-1\tnginx").name, "nginx");
    EXPECT_EQ(definition_of("NTA\t6\t1\teth0\t0\t0\t1\t1\t1\t1").name, "eth0");
    EXPECT_EQ(definition_of("PGA\t7\t1\tgateway.example.org\t56\t3\t1000\t1").name,
              "gateway.example.org");
    EXPECT_EQ(definition_of("CUA\t2\t1\t90\t-1\t-1\t-1\t-1\tdb1\tlinux").name, "db1");
    EXPECT_EQ(definition_of("CUA\t2\t1\t90\t-1\t-1\t-1\t-1").name, "");
    EXPECT_EQ(definition_of("MMA\t3\t1\t1\t1\t1\t1\t1\tdb2").name, "db2");
    EXPECT_EQ(definition_of("DCA\t9\t1\t192.0.2.1\t192.0.2.9\t1.3.6").name,
              "192.0.2.1 to 192.0.2.9");
}

TEST(plan_summary, what_is_secret_is_left_out) {
    owned_definition page =
        definition_of("HPA\t80\t1\twww.example.org\t/status?token=secret\t443\tall "
                      "well\tpass=secret\tmonitor\tsecret\t5\t1\t1\t1\t1\t0");
    EXPECT_EQ(page.name, "www.example.org/status");
    EXPECT_EQ(page.text,
              "80\t1\twww.example.org\t/status\t443\tall well\t\tmonitor\t\t5\t1\t1\t1\t1\t0");
    EXPECT_EQ(definition_of("SPA\t90\t1\tsw\t161\t3\t1.3;1.4\tsecret\tmd5\tme\tsecret\taes\tsecret"
                            "\t2\t1\t-;1,1")
                  .text,
              "90\t1\tsw\t161\t3\t1.3;1.4\t\tmd5\tme\t\taes\t\t2\t1\t-;1,1");
    EXPECT_EQ(definition_of("STA\t91\t1\tsw\t161\t20\t3\t1.3\tsecret\tmd5\tme\tsecret\taes\tsecret"
                            "\t2\t1")
                  .text,
              "91\t1\tsw\t161\t20\t3\t1.3\t\tmd5\tme\t\taes\t\t2\t1");
    EXPECT_EQ(
        definition_of("MQA\t100\t1\tlocalhost\t0\t/run/m.sock\tmonitor\tsecret\tUptime||60\t5")
            .text,
        "100\t1\tlocalhost\t0\t/run/m.sock\tmonitor\t\tUptime||60\t5");
}

TEST(plan_summary, fields_that_agents_do_not_heed_are_left_out) {
    EXPECT_EQ(definition_of("NTA\t6\t1\teth0\t0\t0\t1\t1\t1\t1\tmore\tsecret").text,
              "6\t1\teth0\t0\t0\t1\t1\t1\t1");
}

TEST(plan_summary, tests_whose_results_are_no_records_have_none) {
    EXPECT_TRUE(
        definitions_of(plan_of({"SWA\t1\t1\tsw\t161\t20\t2\t1.3\tpublic\t\t\t\t\t\t2\t1",
                                "TSA\t2\t7000\tall", "DKA\t3\t1\t/\t100\t-1", "POL\t0\t30"}))
            .empty());
}
