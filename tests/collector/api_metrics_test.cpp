/* What Prometheus is told. */
#include "api/metrics.cpp"

#include "api_place.h"
#include "eventually.h"
#include "open_metrics.h"

#include <future>
#include <limits>

/* ---- the format ---- */

TEST(metric_format, as_accepted) {
    for (const char* open :
         {"", " ", "*/*", "application/openmetrics-text", "Application/OpenMetrics-Text;q=1",
          "application/*", "text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8",
          "application/openmetrics-text; version=\"1.0.0\"; charset=utf-8, text/plain;q=0.9",
          "application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;"
          "q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1"}) {
        EXPECT_EQ(metric_format_of(open), metric_format::open_metrics) << open;
    }
    for (const char* text :
         {"text/plain", "text/*", "text/plain; version=0.0.4", "text/html, text/plain",
          "text/plain;q=0.5, */*;q=0.1", "application/openmetrics-text;q=0, */*",
          "application/openmetrics-text;version=0.0.1, text/plain;q=0.1",
          "application/openmetrics-text;q=0.3,text/plain;q=0.4", "application/json", ",",
          ";;=", "application/openmetrics-text;q=nan"}) {
        EXPECT_EQ(metric_format_of(text), metric_format::text) << text;
    }
}

TEST(metric_text, open_metrics) {
    metric_text text(metric_format::open_metrics);
    text.one("a_bytes", metric_type::counter, "bytes", "Some.", 7);
    text.begin("b", metric_type::information, "", "Others.");
    text.add(1, label_text({{"version", "3.0"}}));
    text.one("c_seconds", metric_type::gauge, "seconds", "Time.", 0.25);
    const std::string all = text.take();
    EXPECT_EQ(all, "# HELP a_bytes Some.\n# TYPE a_bytes counter\n# UNIT a_bytes bytes\n"
                   "a_bytes_total 7\n"
                   "# HELP b Others.\n# TYPE b info\nb_info{version=\"3.0\"} 1\n"
                   "# HELP c_seconds Time.\n# TYPE c_seconds gauge\n# UNIT c_seconds seconds\n"
                   "c_seconds 0.25\n# EOF\n");
    EXPECT_EQ(open_metrics().read(all), "");
}

TEST(metric_text, the_older_format) {
    metric_text text(metric_format::text);
    text.one("a_bytes", metric_type::counter, "bytes", "Some.", 7);
    text.begin("b", metric_type::information, "", "Others.");
    text.add(1);
    EXPECT_EQ(text.take(), "# HELP a_bytes_total Some.\n# TYPE a_bytes_total counter\n"
                           "a_bytes_total 7\n# HELP b_info Others.\n# TYPE b_info gauge\n"
                           "b_info 1\n");
}

TEST(metric_text, histograms) {
    duration_counter took;
    for (double seconds : {0.0005, 0.001, 0.002, 0.7, 5.0, 6.0}) {
        took.add(seconds);
    }
    metric_text text(metric_format::open_metrics);
    text.begin("a_seconds", metric_type::histogram, "seconds", "Time.");
    text.add(took);
    open_metrics read;
    ASSERT_EQ(read.read(text.take()), "");
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"0.001\"}"), 2);
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"0.0025\"}"), 3);
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"0.25\"}"), 3);
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"1.0\"}"), 4);
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"5.0\"}"), 5);
    EXPECT_EQ(read.value("a_seconds_bucket{le=\"+Inf\"}"), 6);
    EXPECT_EQ(read.value("a_seconds_count"), 6);
    EXPECT_NEAR(read.value("a_seconds_sum"), 11.7035, 1e-6);
}

TEST(metric_text, numbers) {
    std::string text;
    for (double value :
         {0.0, -1.5, 1e22, 1777636800.0, 0.1, std::numeric_limits<double>::max(),
          std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
          std::numeric_limits<double>::quiet_NaN()}) {
        append_sample(text, "a", "", value);
    }
    EXPECT_EQ(text, "a 0\na -1.5\na 1e+22\na 1777636800\na 0.1\na 1.7976931348623157e+308\n"
                    "a +Inf\na -Inf\na NaN\n");
}

/* Whoever names agents can break no line, nor have the whole answer refused. */
TEST(metric_text, hostile_labels) {
    EXPECT_EQ(label_text({}), "");
    EXPECT_EQ(label_text({{"a", ""}, {"b", "x"}}), "a=\"\",b=\"x\"");
    EXPECT_EQ(label_text({{"a", "\"} 1\nb 2 # \\"}}), "a=\"\\\"} 1\\nb 2 # \\\\\"");
    EXPECT_EQ(label_text({{"a", "na\xc3\xafve \xe2\x82\xac"}}), "a=\"na\xc3\xafve \xe2\x82\xac\"");
    const std::string unknown = "\xef\xbf\xbd";
    EXPECT_EQ(label_text({{"a", std::string_view("\0\r\x1b\x7f", 4)}}),
              "a=\"" + unknown + unknown + unknown + unknown + "\"");
    EXPECT_EQ(label_text({{"a", "\xff\xc2\x9b\xed\xa0\x80"}}),
              "a=\"" + unknown + unknown + unknown + unknown + unknown + "\"");
    std::string every;
    for (int i = 0; i < 256; i++) {
        every += static_cast<char>(i);
    }
    for (const std::string& value : {every, every + every, std::string("\\"), std::string("\n")}) {
        std::string text = "# TYPE a gauge\n# HELP a b\n";
        append_sample(text, "a", label_text({{"x", value}, {"y", value}}), 1);
        open_metrics read;
        EXPECT_EQ(read.read(text + "# EOF\n"), "");
        EXPECT_EQ(read.samples.size(), 1u);
    }
}

/* The checker itself sees what is wrong. */
TEST(open_metrics_checker, refuses) {
    const std::string begin = "# TYPE a gauge\n# HELP a b\n";
    EXPECT_EQ(open_metrics().read(begin + "a 1\n# EOF\n"), "");
    for (const std::string& wrong :
         {std::string("a 1\n# EOF\n"), begin + "a 1\n", begin + "a 1\n# EOF",
          begin + "a 1\n# EOF\na 2\n", begin + "a 1\na 2\n# EOF\n", begin + "a one\n# EOF\n",
          begin + "a{x=\"1\" 1\n# EOF\n", begin + "a{x=\"\\t\"} 1\n# EOF\n",
          begin + "a{x=\"\xff\"} 1\n# EOF\n", begin + "a{x=\"1\",x=\"2\"} 1\n# EOF\n",
          begin + "b 1\n# EOF\n", begin + "a_total 1\n# EOF\n", begin + "\n# EOF\n",
          begin + "a 1\n# TYPE b gauge\n# HELP b c\nb 1\n# HELP a b\na{x=\"1\"} 1\n# EOF\n",
          begin + "# UNIT a seconds\na 1\n# EOF\n",
          std::string("# TYPE a counter\n# HELP a b\na 1\n# EOF\n"),
          std::string("# TYPE a histogram\n# HELP a b\na_bucket{le=\"1.0\"} 2\n"
                      "a_bucket{le=\"+Inf\"} 1\na_sum 1\na_count 1\n# EOF\n"),
          std::string("# TYPE a histogram\n# HELP a b\na_bucket{le=\"1.0\"} 1\na_sum 1\n"
                      "a_count 1\n# EOF\n")}) {
        EXPECT_NE(open_metrics().read(wrong), "") << wrong;
    }
}

/* ---- what is told ---- */

static std::string load(uint32_t test, int64_t time, double load1 = 0.5, uint32_t status = 0) {
    return record_builder{.ui32 = {type_load_average, test, 7, status},
                          .i64 = {time},
                          .d64 = {load1, 0.25, 0.125},
                          .strings = {status != 0 ? "bad" : "fine"}}
        .bytes();
}

static std::string disk(uint32_t test, int64_t time, uint32_t status = 0) {
    return record_builder{.ui32 = {type_disk, test, 7, status},
                          .i64 = {time},
                          .d64 = {100, 12.5},
                          .strings = {status != 0 ? "too little" : "enough"}}
        .bytes();
}

class api_metrics_test : public api_place {
protected:
    open_metrics read(const std::string& target = "/metrics") {
        api_answer answer = ask(target);
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.type, open_metrics_type);
        open_metrics found;
        EXPECT_EQ(found.read(answer.body), "") << answer.body;
        return found;
    }
};

TEST_F(api_metrics_test, the_collector_itself) {
    counted.polls += 3;
    ++counted.logins;
    counted.refused(refusal::session);
    counted.refused(refusal::session);
    noting->queued = {.blocks = 2, .bytes = 17};
    counted.body_bytes += 1000;
    counted.commits.add(0.003);
    counted.waited.add(0.02);
    counted.sessions.set(5);
    submit(load(101, now) + disk(401, now, 2));
    submit(load(101, now), "web-2");
    submit(load(101, now), "to be retired");
    get("/api/v1/agents/a@b.c%2Fto%20be%20retired", 204, "DELETE");
    open_metrics found = read();
    EXPECT_EQ(found.value("vindral_collector_build_info{version=\"3.0\"}"), 1);
    EXPECT_EQ(found.value("vindral_polls_total"), 3);
    EXPECT_EQ(found.value("vindral_repeated_polls_total"), 0);
    EXPECT_EQ(found.value("vindral_logins_total"), 1);
    EXPECT_EQ(found.value("vindral_refusals_total{reason=\"session\"}"), 2);
    EXPECT_EQ(found.value("vindral_refusals_total{reason=\"tls\"}"), 0);
    EXPECT_EQ(found.count("vindral_refusals_total"), static_cast<size_t>(refusal::count));
    EXPECT_EQ(found.value("vindral_queue_bytes"), 17);
    EXPECT_EQ(found.value("vindral_queue_blocks"), 2);
    EXPECT_EQ(found.value("vindral_received_bytes_total"), 1000);
    EXPECT_EQ(found.value("vindral_commit_duration_seconds_bucket{le=\"0.005\"}"), 1);
    EXPECT_EQ(found.value("vindral_storing_lag_seconds_bucket{le=\"0.01\"}"), 0);
    EXPECT_EQ(found.value("vindral_storing_lag_seconds_count"), 1);
    EXPECT_EQ(found.value("vindral_sessions"), 5);
    for (const char* there :
         {"vindral_connections_total", "vindral_open_connections", "vindral_results_total",
          "vindral_undecodable_records_total", "vindral_events_total", "vindral_stored_bytes_total",
          "vindral_store_failures_total"}) {
        EXPECT_EQ(found.value(there), 0) << there;
    }
    EXPECT_EQ(found.value("vindral_agents{state=\"problem\"}"), 1);
    EXPECT_EQ(found.value("vindral_agents{state=\"ok\"}"), 1);
    EXPECT_EQ(found.value("vindral_agents{state=\"silent\"}"), 0);
    EXPECT_EQ(found.value("vindral_agents{state=\"unknown\"}"), 0) << "the one retired";
    EXPECT_EQ(found.count("vindral_agents"), 5u);
    EXPECT_EQ(found.value("vindral_tests{state=\"ok\"}"), 2);
    EXPECT_EQ(found.value("vindral_tests{state=\"problem\"}"), 1);
    EXPECT_EQ(found.value("vindral_tests{state=\"stale\"}"), 0);
    EXPECT_EQ(found.count("vindral_tests"), 4u);
    EXPECT_EQ(found.value("vindral_store_readable"), 1);
    EXPECT_GT(found.value("vindral_store_size_bytes"), 4095);
    EXPECT_GT(found.value("vindral_store_free_bytes"), 0);
    EXPECT_NEAR(found.value("process_start_time_seconds"), static_cast<double>(time(nullptr)),
                24 * 3600);
    EXPECT_EQ(read().value("process_start_time_seconds"),
              found.value("process_start_time_seconds"));
    EXPECT_GT(found.value("process_cpu_seconds_total"), 0);
    EXPECT_GT(found.value("process_resident_memory_bytes"), 1e6);
    EXPECT_GT(found.value("process_open_fds"), 2);
    EXPECT_GE(found.value("process_max_fds"), found.value("process_open_fds"));
    EXPECT_EQ(found.count("vindral_value"), 0u);
}

TEST_F(api_metrics_test, the_last_value_of_each_test) {
    follow({{.type = type_disk, .number = 401, .location = 7, .name = "/home", .text = ""}});
    submit(load(101, now, 0.5) + disk(401, now, 2));
    now += 60;
    submit(load(101, now, 0.75));
    submit(load(101, now, 3), "web-2");
    open_metrics found = read("/metrics?fleet");
    const std::string of = "account=\"a@b.c\",agent=\"web-1\",number=\"101\",";
    const std::string test = ",test=\"load average 101\",type=\"load average\"";
    const std::string value = test + ",unit=\"\",value=\"load1\"}";
    EXPECT_EQ(found.value("vindral_value{" + of.substr(0, of.size() - 1) + value), 0.75);
    EXPECT_EQ(found.value("vindral_test_state{" + of + "state=\"ok\"" + test + "}"), 1);
    EXPECT_EQ(found.value("vindral_test_last_result_timestamp_seconds{" +
                          of.substr(0, of.size() - 1) + test + "}"),
              static_cast<double>(now));
    EXPECT_EQ(found.value("vindral_test_state{account=\"a@b.c\",agent=\"web-1\",number=\"401\","
                          "state=\"problem\",test=\"/home\",type=\"disk\"}"),
              1);
    EXPECT_EQ(found.count("vindral_test_state"), 3u);
    EXPECT_EQ(found.value("vindral_tests_left_out"), 0);
    EXPECT_EQ(found.value("vindral_polls_total"), 0) << "the collector's own as well";
    EXPECT_EQ(read("/metrics?fleet=1&agent=a@b.c/web-2").count("vindral_test_state"), 1u);
    EXPECT_EQ(read("/metrics?fleet=1&type=disk,ping").count("vindral_test_state"), 1u);
    EXPECT_EQ(read("/metrics?fleet=0").count("vindral_test_state"), 0u);
    EXPECT_EQ(ask("/metrics?fleet&agent=nobody").status, 404);
}

TEST_F(api_metrics_test, what_has_no_room_is_counted) {
    submit(load(101, now) + disk(401, now));
    submit(load(101, now), "web-2");
    const size_t usual = std::exchange(most_fleet_bytes, 100);
    open_metrics found = read("/metrics?fleet");
    EXPECT_EQ(found.value("vindral_tests_left_out"), 2);
    EXPECT_EQ(found.count("vindral_test_state"), 1u);
    EXPECT_EQ(found.value("vindral_tests{state=\"ok\"}"), 3) << "counted all the same";
    EXPECT_EQ(read("/metrics?fleet&agent=a@b.c/web-2").value("vindral_tests_left_out"), 0);
    most_fleet_bytes = usual;
}

/* What is not known now has no value: a curve ends there. */
TEST_F(api_metrics_test, silent_agents_have_no_values) {
    submit(load(101, now), "gone");
    for (int i = 0; i < 100; i++) {
        now += 5;
        submit(load(101, now), "other");
    }
    open_metrics found = read("/metrics?fleet");
    EXPECT_EQ(found.value("vindral_agents{state=\"silent\"}"), 1);
    EXPECT_EQ(found.value("vindral_tests{state=\"unknown\"}"), 1);
    EXPECT_EQ(found.value("vindral_tests{state=\"ok\"}"), 1);
    EXPECT_EQ(found.count("vindral_test_state"), 2u);
    EXPECT_EQ(found.count("vindral_test_last_result_timestamp_seconds"), 2u);
    for (const auto& [series, value] : found.samples) {
        EXPECT_FALSE(series.starts_with("vindral_value") && series.find("\"gone\"") != series.npos)
            << series;
    }
    EXPECT_GT(found.count("vindral_value"), 0u);
}

TEST_F(api_metrics_test, names_that_would_break_a_line) {
    const std::string hostile = "\"} 1\\\xff\xc2\x9b #";
    submit(load(101, now), hostile, "a\"b@c");
    submit(load(102, now), "two");
    open_metrics found = read("/metrics?fleet");
    EXPECT_EQ(found.count("vindral_test_state"), 2u);
}

TEST_F(api_metrics_test, inventories_are_no_tests) {
    submit(record_builder{.ui32 = {type_file_systems, 0, 0},
                          .i64 = {now},
                          .strings = {"/(/dev/sda1|ext4)\t/b\t"}}
               .bytes() +
           load(101, now));
    open_metrics found = read("/metrics?fleet");
    EXPECT_EQ(found.value("vindral_tests{state=\"ok\"}"), 1);
    EXPECT_EQ(found.value("vindral_tests{state=\"unknown\"}"), 0);
    EXPECT_EQ(found.count("vindral_test_state"), 1u);
}

TEST_F(api_metrics_test, long_names_are_cut) {
    std::string name(3000, 'x');
    follow({{.type = type_disk, .number = 401, .location = 7, .name = name, .text = ""}});
    submit(disk(401, now));
    open_metrics found = read("/metrics?fleet");
    ASSERT_EQ(found.count("vindral_value"), 2u);
    for (const auto& [series, value] : found.samples) {
        EXPECT_LT(series.size(), 500u) << series;
    }
}

/* What is damaged is told, and the others are there. */
TEST_F(api_metrics_test, a_state_that_is_damaged) {
    submit(load(101, now));
    submit(load(101, now), "web-2");
    std::promise<bool> done;
    store->update([](engine& e) { return e.set_state(1, "\xff"); },
                  [&](bool ok, const std::string&) { done.set_value(ok); });
    ASSERT_TRUE(done.get_future().get());
    for (const char* path : {"/metrics", "/metrics?fleet"}) {
        open_metrics found = read(path);
        EXPECT_EQ(found.value("vindral_store_readable"), 0) << path;
        EXPECT_EQ(found.value("vindral_tests{state=\"ok\"}"), 1) << path;
        EXPECT_EQ(found.value("vindral_agents{state=\"ok\"}"), 1) << path;
    }
}

TEST_F(api_metrics_test, the_older_format_where_it_is_wanted) {
    api_request asked;
    asked.who = {role::viewer, 1, "prometheus", ""};
    asked.accept = "text/plain";
    api_answer answer = answer_request("GET", "/metrics?fleet", asked, *with);
    EXPECT_EQ(answer.type, metric_text_type);
    EXPECT_EQ(answer.body.find("# EOF"), std::string::npos);
    EXPECT_EQ(answer.body.find("# UNIT"), std::string::npos);
    EXPECT_NE(answer.body.find("# TYPE vindral_polls_total counter\n"), std::string::npos);
}

/* A collector that cannot read its store says so; values that end would tell something else. */
TEST_F(api_metrics_test, without_a_store) {
    reader_pool none(directory / "nowhere");
    api_services without{.stored = none,
                         .results = *noting,
                         .hub = hub,
                         .kept = kept,
                         .agents = agents,
                         .where_agents_poll = {},
                         .secrets = secrets,
                         .counted = counted,
                         .now = [] { return now.load(); },
                         .check_now = {},
                         .send_away = {},
                         .readiness = {},
                         .version = "3.0"};
    for (bool fleet : {false, true}) {
        api_request asked;
        asked.who.may = role::viewer;
        api_answer answer =
            answer_request("GET", fleet ? "/metrics?fleet" : "/metrics", asked, without);
        EXPECT_EQ(answer.status, fleet ? 503 : 200) << answer.body;
        if (!fleet) {
            open_metrics found;
            ASSERT_EQ(found.read(answer.body), "");
            EXPECT_EQ(found.value("vindral_store_readable"), 0);
            EXPECT_EQ(found.count("vindral_agents"), 0u);
        }
    }
}

TEST_F(api_metrics_test, a_deadline_ends_what_takes_long) {
    submit(load(101, now));
    deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    EXPECT_EQ(ask("/metrics?fleet").status, 503);
    api_answer answer = ask("/metrics");
    EXPECT_EQ(answer.status, 503) << "rather than that the store cannot be read, or nothing at all";
    EXPECT_EQ(answer.body.find("# EOF"), std::string::npos);
}

/* Every scrape asks: a writer that does not get on tells nobody. */
TEST_F(api_metrics_test, the_queue_as_it_is_now) {
    EXPECT_EQ(read().value("vindral_queue_bytes"), 0);
    EXPECT_EQ(read().value("vindral_behind_seconds"), 0);
    std::promise<void> go_on, is_held;
    auto held = go_on.get_future().share();
    store->update([held, &is_held](engine&) { return is_held.set_value(), held.wait(), true; },
                  [](bool, const std::string&) {});
    is_held.get_future().wait(); /* else it might take the block with it */
    std::promise<store_result> stored_now;
    const std::string records = load(101, now);
    store->submit({"a@b.c", "web-1", records, now},
                  [&](store_result r) { stored_now.set_value(r); });
    open_metrics found = read();
    EXPECT_EQ(found.value("vindral_queue_bytes"), static_cast<double>(records.size()));
    EXPECT_EQ(found.value("vindral_queue_blocks"), 1);
    EXPECT_TRUE(eventually([&] { return read().value("vindral_behind_seconds") > 0.05; }));
    go_on.set_value();
    EXPECT_EQ(stored_now.get_future().get(), store_result::stored);
    EXPECT_EQ(read().value("vindral_queue_blocks"), 0);
    EXPECT_EQ(read().value("vindral_behind_seconds"), 0);
}
