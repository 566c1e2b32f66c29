/* The tables that know every checker. */
#include "vindral_checkers.cpp"

#include "fake_core.h"

#include <gtest/gtest.h>
#include <string>

static std::string calls;
static std::string refusing; /* the initialisation that fails */

static int record_start(const char* name) {
    calls += std::string(name) + "\n";
    return refusing != name;
}
static void record_interval(const char* name, int t_sec) {
    calls += std::string(name) + ":" + std::to_string(t_sec) + "\n";
}

#define FAKE_CHECKER(init, set_interval, shut_down)                                                \
    int init() {                                                                                   \
        return record_start(#init);                                                                \
    }                                                                                              \
    void set_interval(int t_sec) {                                                                 \
        record_interval(#set_interval, t_sec);                                                     \
    }                                                                                              \
    void shut_down() {                                                                             \
        calls += #shut_down "\n";                                                                  \
    }

int init_feed() {
    return record_start("init_feed");
}
void remove_all_tcp_servers() {
    calls += "remove_all_tcp_servers\n";
}
void remove_all_unix_servers() {
    calls += "remove_all_unix_servers\n";
}

#define FAKE_SOURCE(take)                                                                          \
    int take(char**, int*) {                                                                       \
        return 0;                                                                                  \
    }

FAKE_CHECKER(init_proc_variables, set_proc_check_interval, shutdown_proc_checker)
FAKE_CHECKER(init_http_mon, set_http_check_interval, shutdown_http_checker)
FAKE_CHECKER(init_ping_mon, set_ping_check_interval, shutdown_ping_checker)
FAKE_CHECKER(init_mem_mon, set_mem_check_interval, shutdown_mem_checker)
FAKE_CHECKER(init_disk_mon, set_disk_check_interval, shutdown_disk_checker)
FAKE_CHECKER(init_cpu_mon, set_cpu_check_interval, shutdown_cpu_checker)
FAKE_CHECKER(init_lda_mon, set_lda_check_interval, shutdown_lda_checker)
FAKE_CHECKER(init_snmp_mon, set_snmp_check_interval, shutdown_snmp_checker)
FAKE_CHECKER(init_mysql_mon, set_mysql_check_interval, shutdown_mysql_checker)
FAKE_CHECKER(init_ndis_mon, set_ndis_check_interval, shutdown_ndis)
FAKE_CHECKER(init_net_mon, set_net_check_interval, shutdown_net_checker)

FAKE_SOURCE(get_proc_name_list)
FAKE_SOURCE(get_proc_results)
FAKE_SOURCE(get_cpu_results)
FAKE_SOURCE(get_mounted_list)
FAKE_SOURCE(get_disk_results)
FAKE_SOURCE(get_http_results)
FAKE_SOURCE(get_mem_results)
FAKE_SOURCE(get_lda_results)
FAKE_SOURCE(get_ping_results)
FAKE_SOURCE(get_snmp_results)
FAKE_SOURCE(get_ndis_results)
FAKE_SOURCE(get_mysql_results)
FAKE_SOURCE(get_adapter_list)
FAKE_SOURCE(get_net_results)

namespace {

struct row {
    std::string init, done, failed;
    bool fatal;
};
const row rows[] = {
    {"init_proc_variables", "Process monitoring initialization done.",
     "Process monitoring initialization failed.", false},
    {"init_http_mon", "HTTP checker initialization done", "HTTP checker initialization failed.",
     true},
    {"init_ping_mon", "PING checker initialization done", "PING checker initialization failed.",
     true},
    {"init_mem_mon", "MEMORY checker initialization done", "MEMORY checker initialization failed.",
     true},
    {"init_disk_mon", "DISK checker initialization done", "DISK checker initialization failed.",
     true},
    {"init_cpu_mon", "CPU checker initialization done", "CPU checker initialization failed.", true},
    {"init_lda_mon", "Load Average checker initialization done",
     "Load Average checker initialization failed.", true},
    {"init_feed", "Feed Listener initialization done", "Feed Listener initialization failed.",
     true},
    {"init_snmp_mon", "SNMP monitor initialization done", "SNMP monitor initialization failed.",
     false},
    {"init_mysql_mon", "MySQL checker initialization done", "MySQL checker initialization failed.",
     false},
    {"init_ndis_mon", "NDIS monitor initialization done", "NDIS monitor initialization failed.",
     false},
    {"init_net_mon", "NET monitor initialization done", "NET monitor initialization failed.",
     false},
};

/* What a start logs and calls when `refuser` fails. */
void expect_start(const std::string& refuser) {
    std::string log, called;
    int result = 1;
    for (const row& r : rows) {
        called += r.init + "\n";
        if (r.init != refuser) {
            log += "-1 " + r.done + "\n";
            continue;
        }
        log += "-1 " + r.failed + "\n";
        if (r.fatal) {
            result = 0;
            break;
        }
        if (r.init == "init_proc_variables") { /* both, as it always has */
            log += "-1 " + r.done + "\n";
        }
    }
    calls.clear();
    take_log();
    refusing = refuser;
    EXPECT_EQ(result, start_checkers());
    EXPECT_EQ(called, calls);
    EXPECT_EQ(log, take_log_text());
}

} // namespace

TEST(Checkers, start_in_order_and_say_so) {
    expect_start("");
}

TEST(Checkers, a_failure_of_one_that_is_needed_ends_the_start) {
    for (const row& r : rows) {
        expect_start(r.init);
    }
}

TEST(Checkers, interval_reaches_every_checker_in_order) {
    calls.clear();
    set_check_intervals(9);
    EXPECT_EQ("set_proc_check_interval:9\nset_http_check_interval:9\nset_ping_check_interval:"
              "9\nset_mem_check_interval:9\nset_disk_check_interval:9\n"
              "set_cpu_check_interval:9\nset_lda_check_interval:9\nset_snmp_check_interval:9\n"
              "set_mysql_check_interval:9\nset_ndis_check_interval:9\nset_net_check_interval:9\n",
              calls);
}

TEST(Checkers, collection_order_and_names) {
    const result_source expected[] = {
        {get_proc_name_list, "get_proc_name_list"}, {get_proc_results, "get_proc_results"},
        {get_cpu_results, "get_cpu_results"},       {get_mounted_list, "get_mounted_list"},
        {get_disk_results, "get_disk_results"},     {get_http_results, "get_http_results"},
        {get_mem_results, "get_mem_results"},       {get_lda_results, "get_lda_results"},
        {get_ping_results, "get_ping_results"},     {get_snmp_results, "get_snmp_results"},
        {get_ndis_results, "get_ndis_results"},     {get_mysql_results, "get_mysql_results"},
        {get_adapter_list, "get_adapter_list"},     {get_net_results, "get_net_results"},
    };
    ASSERT_EQ(sizeof expected / sizeof expected[0], result_source_count);
    for (size_t i = 0; i < result_source_count; i++) {
        EXPECT_EQ(expected[i].take, result_sources[i].take) << expected[i].name;
        EXPECT_STREQ(expected[i].name, result_sources[i].name);
    }
}

TEST(Checkers, stop_in_order) {
    calls.clear();
    stop_checkers();
    EXPECT_EQ("shutdown_net_checker\nshutdown_proc_checker\nshutdown_http_checker\nshutdown_ping_"
              "checker\nshutdown_mem_checker\n"
              "shutdown_disk_checker\nshutdown_cpu_checker\nshutdown_lda_checker\n"
              "shutdown_snmp_checker\nshutdown_mysql_checker\nshutdown_ndis\nremove_all_tcp_"
              "servers\nremove_all_unix_servers\n",
              calls);
}
