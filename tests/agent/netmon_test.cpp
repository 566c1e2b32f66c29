/* Network interface checker: interface list, the three layouts of the counters, rates, limits,
 * lifecycle. */
#include "guards.h"

#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

static int fake_ioctl(int fd, unsigned long request, void* argument);
static timespec fake_deadline_in(int seconds);
static bool refuse_socket;

#define ioctl(fd, request, argument) fake_ioctl(fd, request, argument)
#define deadline_in(seconds) fake_deadline_in(seconds)
#define socket(d, t, p) (refuse_socket ? -1 : socket(d, t, p))
#include "netmon.cpp"
#undef ioctl
#undef deadline_in
#undef socket

#include "checker_place.h"
#include "fake_core.h"
#include "thread_library.h"

#include <atomic>
#include <map>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <thread>

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

static std::atomic<int> seconds_asked{0};
static std::atomic<bool> no_waiting{false};
static timespec fake_deadline_in(int seconds) {
    seconds_asked = seconds;
    return deadline_in(no_waiting ? 0 : 3600);
}

/* The interfaces of the tests in their order, with their flags. */
static std::vector<std::pair<std::string, int>> interfaces;
static bool list_fails;
static bool real_interfaces;

static int fake_ioctl(int fd, unsigned long request, void* argument) {
    if (real_interfaces) {
        return ioctl(fd, request, argument);
    }
    if (request == SIOCGIFCONF) {
        auto* query = static_cast<ifconf*>(argument);
        size_t room = static_cast<size_t>(query->ifc_len) / sizeof(ifreq), count = 0;
        for (; count < interfaces.size() && count < room; count++) {
            memset(&query->ifc_req[count], 0, sizeof(ifreq));
            strncpy(query->ifc_req[count].ifr_name, interfaces[count].first.c_str(), IFNAMSIZ);
        }
        query->ifc_len = static_cast<int>(count * sizeof(ifreq));
        return list_fails ? -1 : 0;
    }
    auto* one = static_cast<ifreq*>(argument);
    for (const auto& [name, flags] : interfaces) {
        if (name == one->ifr_name && flags != 0) {
            one->ifr_flags = static_cast<short>(flags);
            return 0;
        }
    }
    return -1;
}

namespace {

const int RUNNING = IFF_UP | IFF_RUNNING;
const char HEADING[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
    "fifo colls carrier compressed\n";

class Net : public checker_place {
protected:
    void SetUp() override {
        interfaces = {{"lo", RUNNING | IFF_LOOPBACK}, {"eth0", RUNNING}, {"wlan0", RUNNING}};
        list_fails = false;
        EXPECT_EQ(1, get_adapter_list(nullptr, nullptr));
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_nettest(id);
        }
        take_records(get_net_results);
        interfaces.clear();
        get_adapter_list(nullptr, nullptr);
        take_log();
    }
    void dev(const std::string& lines) { write("net/dev", HEADING + lines); }
    /* Two samples of eth0, ten seconds of traffic apart. */
    void eth0(const std::string& earlier, const std::string& later) {
        dev("  eth0: " + earlier + "\n");
        sample_interfaces();
        dev("  eth0: " + later + "\n");
        sample_interfaces();
    }
    void add(int id, const std::string& adapter, int limit = 0) {
        std::string text = adapter;
        add_nettest(id, 9, text.data(), limit, limit, limit, limit, limit, limit);
    }
    udc_content check() {
        do_net_check();
        std::vector<udc_content> records = take_records(get_net_results);
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
    std::string list() {
        char* data = nullptr;
        int size = 0;
        if (!get_adapter_list(&data, &size)) {
            return "none";
        }
        auto r = read_udc(data, static_cast<size_t>(size));
        free(data);
        EXPECT_TRUE(r.has_value());
        EXPECT_EQ((std::vector<uint32_t>{39, 0, 0}), r->ui32);
        EXPECT_EQ(1u, r->i64.size());
        return r->strings.at(0);
    }
};

udc_content record(std::vector<uint32_t> rates, uint32_t status, const std::string& message,
                   const udc_content& seen) {
    udc_content r;
    r.ui32 = {38, 1, 9};
    r.ui32.insert(r.ui32.end(), rates.begin(), rates.end());
    r.ui32.push_back(status);
    r.i64 = seen.i64;
    r.declared_strings = 1;
    if (!message.empty()) {
        r.strings = {message};
    }
    return r;
}

} // namespace

TEST(Avg, smooths_the_rate) {
    unsigned long value = 0, speed = 9;
    avg(&value, &speed, 100);
    EXPECT_EQ(0u, speed); /* the first sample only stores the counter */
    EXPECT_EQ(100u, value);
    avg(&value, &speed, 125);
    EXPECT_EQ(2u, speed);
    avg(&value, &speed, 170);
    EXPECT_EQ(3u, speed); /* (4 + 2) / 2 */
    avg(&value, &speed, 170);
    EXPECT_EQ(1u, speed);
    unsigned long long value_ll = 0;
    unsigned long speed_ll = 0;
    avg_ll(&value_ll, &speed_ll, 1ULL << 40);
    avg_ll(&value_ll, &speed_ll, (1ULL << 40) + 50000000000ULL);
    EXPECT_EQ(5000000000u, speed_ll);
    avg_ll(&value_ll, &speed_ll, 0); /* a counter that starts anew */
    avg_ll(&value_ll, &speed_ll, 77);
    EXPECT_EQ(0u, speed_ll);
}

TEST_F(Net, beginnings) {
    EXPECT_EQ(31536000, get_net_check_interval());
    EXPECT_STREQ("Net monitoring: thread attribute initialization failed.", net.attr_message);
    EXPECT_STREQ("Net monitoring: can not set thread stack size.", net.stack_message);
}

TEST_F(Net, failures_to_start_the_sampler) {
    thread_library::attr_error = ENOMEM;
    EXPECT_EQ(0, start_sampler());
    thread_library::attr_error = 0;
    thread_library::stack_error = EINVAL;
    EXPECT_EQ(0, start_sampler());
    thread_library::stack_error = 0;
    EXPECT_EQ("0 Net monitoring: thread attribute initialization failed.\n"
              "0 Net monitoring: can not set thread stack size.\n",
              take_log_text());
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_asked);
    thread_library::create_error = EAGAIN;
    EXPECT_EQ(0, start_sampler());
    thread_library::create_error = 0;
    EXPECT_EQ("", take_log_text());
    EXPECT_FALSE(sampler_running);
}

TEST_F(Net, lists_what_is_up_and_running_and_no_loopback) {
    interfaces = {
        {"lo", RUNNING | IFF_LOOPBACK}, {"eth0", RUNNING}, {"eth0:1", RUNNING}, {"eth1", IFF_UP},
        {"eth2", IFF_RUNNING},          {"gone", 0}};
    EXPECT_EQ("eth0\teth0:1\t", list());
    EXPECT_EQ("5 Net monitoring. get_adapter_list. Interface list: 'eth0\teth0:1\t'\n",
              take_log_text());
    ASSERT_EQ(2, net_interface_list.size());
    EXPECT_STREQ("eth0", net_interface_list[0]->name);
}

/* With several addresses of one label the kernel lists an interface several times. */
TEST_F(Net, interfaces_that_are_listed_twice) {
    interfaces = {{"eth0", RUNNING}, {"eth1", RUNNING}, {"eth0", RUNNING}};
    EXPECT_EQ("eth0\teth1\teth0\t", list());
    ASSERT_EQ(2, net_interface_list.size());
    EXPECT_STREQ("eth0", net_interface_list[0]->name);
    EXPECT_STREQ("eth1", net_interface_list[1]->name);
}

TEST_F(Net, more_than64_interfaces) {
    interfaces.clear();
    std::string names;
    for (int i = 0; i < 300; i++) {
        interfaces.emplace_back("tap" + std::to_string(i), RUNNING);
        names += interfaces.back().first + "\t";
    }
    EXPECT_EQ(names, list());
    EXPECT_EQ(300, net_interface_list.size());
}

TEST_F(Net, interfaces_that_go_are_forgotten_with_their_rates) {
    eth0("100 100 1 0 0 0 0 0 100 100 1 0 0 0 0 0", "900 900 900 0 0 0 0 0 900 900 900 0 0 0 0 0");
    net_interface* kept = net_interface_list[0];
    list();
    EXPECT_EQ(kept, net_interface_list[0]);
    EXPECT_EQ(80u, kept->pi_rx_bytes);
    interfaces[1].second = IFF_UP;
    EXPECT_EQ("wlan0\t", list());
    interfaces[1].second = RUNNING;
    EXPECT_EQ("eth0\twlan0\t", list());
    ASSERT_EQ(2, net_interface_list.size());
    EXPECT_STREQ("eth0", net_interface_list[1]->name);
    EXPECT_EQ(0u, net_interface_list[1]->rx_bytes);
    EXPECT_EQ(0u, net_interface_list[1]->pi_rx_bytes);
}

TEST_F(Net, failures_of_the_list) {
    const char none[] =
        "5 Net monitoring. get_adapter_list. Interface list: ''\n"
        "0 Net monitoring. get_adapter_list. No interfaces with IFF_UP, IFF_RUNNING "
        "and !IFF_LOOPBACK .\n";
    interfaces = {{"lo", RUNNING | IFF_LOOPBACK}};
    EXPECT_EQ(0, get_adapter_list(nullptr, nullptr));
    EXPECT_EQ(none, take_log_text());
    EXPECT_EQ("none", list());
    EXPECT_EQ(none, take_log_text());
    EXPECT_EQ(0, net_interface_list.size());
    interfaces = {{"eth0", RUNNING}};
    EXPECT_EQ("eth0\t", list());
    take_log();
    list_fails = true;
    EXPECT_EQ("none", list());
    EXPECT_EQ("0 Net monitoring. get_adapter_list. ioctl SIOCGIFCONF failed.\n", take_log_text());
    refuse_socket = true;
    EXPECT_EQ("none", list());
    refuse_socket = false;
    EXPECT_EQ("0 Net monitoring. get_adapter_list. Socket creation failed.\n", take_log_text());
    EXPECT_EQ(1, net_interface_list.size()); /* what was known stays known */
}

TEST_F(Net, layout_with_compressed) {
    eth0("1000 100 10 1 1 1 1 1 2000 200 20 1 1 1 1 1",
         "6000 1100 40 9 9 9 9 9 9000 1200 60 9 9 9 9 9");
    add(1, "eth0");
    udc_content r = check();
    EXPECT_EQ(record({500, 100, 3, 700, 100, 4}, 0, "", r), r);
    EXPECT_NEAR(static_cast<double>(now_in_seconds()), static_cast<double>(r.i64.at(0)), 60);
}

TEST_F(Net, layout_with_bytes) {
    const std::string heading =
        "Inter-|   Receive                  |  Transmit\n"
        " face |bytes    packets errs drop fifo frame|bytes    packets errs "
        "drop fifo colls carrier\n";
    write("net/dev", heading + "  eth0: 1000 100 10 1 1 1 2000 200 20 1 1 1 1\n");
    sample_interfaces();
    write("net/dev", heading + "  eth0: 6000 1100 40 9 9 9 9000 1200 60 9 9 9 9\n");
    sample_interfaces();
    add(1, "eth0");
    udc_content r = check();
    EXPECT_EQ(record({500, 100, 3, 700, 100, 4}, 0, "", r), r);
}

TEST_F(Net, layout_of_packets_only) {
    /* The first line does not matter. */
    const std::string heading = "Inter-|   bytes compressed         |  Transmit\n"
                                " face |packets errs drop fifo frame|packets errs drop fifo colls "
                                "carrier\n";
    write("net/dev", heading + "  eth0:     100 10 1 1 1 200 20 1 1 1 1\n");
    sample_interfaces();
    write("net/dev", heading + "  eth0:    1100 40 9 9 9 1200 60 9 9 9 9\n");
    sample_interfaces();
    add(1, "eth0");
    udc_content r = check();
    EXPECT_EQ(record({0, 100, 3, 0, 100, 4}, 0, "", r), r);
}

/* What is behind the 511th character of a line is a line of its own. */
TEST_F(Net, long_lines) {
    for (int length : {510, 511, 512}) {
        dev(std::string(static_cast<size_t>(length), 'x') + "eth0:" + std::to_string(length) +
            " 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
        net_interface_list[0]->rx_bytes = 0;
        sample_interfaces();
        EXPECT_EQ(length == 510 ? 0u : static_cast<unsigned>(length),
                  net_interface_list[0]->rx_bytes);
    }
}

TEST_F(Net, lines_go_to_the_first_entry_that_fits) {
    interfaces = {{"eth", RUNNING}};
    list();
    interfaces = {{"eth0", RUNNING}, {"eth", RUNNING}}; /* what is new comes last */
    list();
    dev("eth0: 300 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    ASSERT_EQ(2, net_interface_list.size());
    EXPECT_EQ(300u, net_interface_list[0]->rx_bytes);
    EXPECT_EQ(0u, net_interface_list[1]->rx_bytes);
}

TEST_F(Net, samples_are_ten_seconds_apart) {
    no_waiting = true;
    EXPECT_TRUE(wait_for_next_sample());
    EXPECT_EQ(10, seconds_asked);
    no_waiting = false;
}

TEST_F(Net, names_and_counters_without_a_blank) {
    dev("eth0:1000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    dev("eth0:2000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    EXPECT_EQ(100u, net_interface_list[0]->pi_rx_bytes);
}

/* An entry takes the lines in whose names its own occurs: those of aliases, too. */
TEST_F(Net, lines_of_aliases) {
    char plain[] = "eth0: 5", alias[] = "eth0:1: 5", number[] = "eth0:12", none[] = "eth0";
    EXPECT_STREQ(" 5", cut_name(plain));
    EXPECT_STREQ("eth0", plain);
    EXPECT_STREQ(" 5", cut_name(alias));
    EXPECT_STREQ("eth0:1", alias);
    EXPECT_STREQ("12", cut_name(number));
    EXPECT_EQ(nullptr, cut_name(none));
    dev("eth0:1: 1000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    EXPECT_EQ(1000u, net_interface_list[0]->rx_bytes);
    dev("veth0x: 3000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    EXPECT_EQ(3000u, net_interface_list[0]->rx_bytes);
    EXPECT_EQ(200u, net_interface_list[0]->pi_rx_bytes);
}

TEST_F(Net, malformed_files_are_no_fault) {
    for (const std::string& text :
         {std::string(), std::string("one line"), std::string("one\ntwo"), std::string("\n\n\n"),
          HEADING + std::string("no colon\n:\n: 1\n   \neth0:\neth0: x\neth0: -1 -1\n"),
          HEADING + std::string(5000, 'x') + "\n",
          HEADING + std::string("eth0: ") + std::string(5000, '9'),
          HEADING + std::string("eth0:") + std::string(5000, ' ') + "1 2 3\n"}) {
        write("net/dev", text);
        sample_interfaces();
    }
    remove("net/dev");
    sample_interfaces();
}

TEST_F(Net, without_interfaces_nothing_is_read) {
    dev("");
    unique_fd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_LE(0, inotify_add_watch(watch.get(), (root + "/net/dev").c_str(), IN_OPEN));
    inotify_event opened;
    sample_interfaces();
    EXPECT_EQ(static_cast<ssize_t>(sizeof opened), read(watch.get(), &opened, sizeof opened));
    interfaces.clear();
    get_adapter_list(nullptr, nullptr);
    sample_interfaces();
    EXPECT_EQ(-1, read(watch.get(), &opened, sizeof opened));
}

TEST_F(Net, a_pass_consumes_the_rates) {
    eth0("1000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0", "2000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0");
    add(1, "eth0");
    EXPECT_EQ(100u, check().ui32[3]);
    EXPECT_EQ(0u, check().ui32[3]); /* no sample since */
    dev("eth0: 2500 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    sample_interfaces();
    EXPECT_EQ(50u, check().ui32[3]);
}

/* The interface is the first whose name is part of the adapter text. */
TEST_F(Net, adapter_texts) {
    for (const char* adapter : {"eth0", "eth0:1", "Ethernet (eth0)", "wlan0, eth0"}) {
        eth0("1000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0", "2000 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0");
        add(1, adapter, 1);
        udc_content r = check();
        rem_nettest(1);
        net_interface_list[0]->rx_bytes = 0;
        EXPECT_EQ(100u, r.ui32.at(3)) << adapter;
        EXPECT_EQ(2u, r.ui32.at(9)); /* a limit of 1 is one */
    }
    take_log();
    add(1, "eth");
    add(2, "");
    take_log();
    do_net_check();
    EXPECT_TRUE(take_records(get_net_results).empty());
    EXPECT_EQ("5 INFO: do_net_check. Checking... tid:1, lid:9, adapter:'eth'\n"
              "0 ERROR: do_net_check. No Interface with name 'eth'\n"
              "5 INFO: do_net_check. Checking... tid:2, lid:9, adapter:''\n"
              "0 ERROR: do_net_check. No Interface with name ''\n",
              take_log_text());
    EXPECT_EQ(5, wake_ups); /* checked they were, though */
}

TEST_F(Net, every_limit) {
    char adapter[] = "eth0 (uplink)";
    const char earlier[] = "1000 100 10 0 0 0 0 0 2000 200 20 0 0 0 0 0",
               later[] = "6000 1100 40 0 0 0 0 0 9000 1300 60 0 0 0 0 0";
    eth0(earlier, later);
    add_nettest(1, 9, adapter, 110, 100, 700, 500, 4, 3);
    take_log();
    udc_content r = check();
    EXPECT_EQ(record({500, 100, 3, 700, 110, 4}, 2,
                     "Network adapter: eth0 (uplink) bytes received: 500 / Max value: 500.\n"
                     "Network adapter: eth0 (uplink) packets received: 100 / Max value: 100.\n"
                     "Network adapter: eth0 (uplink) errors received: 3 / Max value: 3.\n"
                     "Network adapter: eth0 (uplink) bytes sent: 700 / Max value: 700.\n"
                     "Network adapter: eth0 (uplink) packets sent: 110 / Max value: 110.\n"
                     "Network adapter: eth0 (uplink) errors sent: 4 / Max value: 4.\n",
                     r),
              r);
    EXPECT_EQ("5 INFO: do_net_check. Checking... tid:1, lid:9, adapter:'eth0 (uplink)'\n"
              "5 INFO: do_net_check. pi_rx_bytes:500, pi_rx_packets:100, pi_rx_errors:3, "
              "pi_tx_bytes:700, pi_tx_packets:110, pi_tx_errors:4, status_value:2\n",
              take_log_text());
    modify_nettest(1, 9, adapter, 111, 101, 701, 501, 5, 4);
    *net_interface_list[0] = {};
    strcpy(net_interface_list[0]->name, "eth0");
    eth0(earlier, later);
    r = check();
    EXPECT_EQ(record({500, 100, 3, 700, 110, 4}, 0,
                     "Network adapter: eth0 (uplink) Statistics are within acceptable limits.\n",
                     r),
              r);
}

TEST_F(Net, without_a_limit_there_is_no_message) {
    add(1, "eth0", 0);
    EXPECT_TRUE(check().strings.empty());
    rem_nettest(1);
    add(1, "eth0", -1);
    EXPECT_TRUE(check().strings.empty());
}

TEST_F(Net, rates_travel_in_their_low32_bits) {
    eth0("1 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0",
         "50000000001 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0"); /* 5,000,000,000 a second */
    add(1, "eth0", 2147483647);
    udc_content r = check();
    EXPECT_EQ(705032704u, r.ui32[3]);
    EXPECT_EQ("Network adapter: eth0 bytes received: 705032704 / Max value: 2147483647.\n",
              r.strings.at(0));
}

TEST_F(Net, list_operations_and_their_lines) {
    char adapter[] = "eth0", other[] = "wlan0";
    add_nettest(0, 2, adapter, 1, 2, 3, 4, 5, 6);
    add_nettest(1, 2, nullptr, 1, 2, 3, 4, 5, 6);
    add_nettest(1, 2, adapter, 1, 2, 3, 4, 5, 6);
    add_nettest(1, 9, adapter, 9, 9, 9, 9, 9, 9);
    unsigned wakes = net.wakes;
    modify_nettest(0, 2, adapter, 1, 2, 3, 4, 5, 6);
    modify_nettest(1, 2, nullptr, 1, 2, 3, 4, 5, 6);
    EXPECT_EQ(wakes, net.wakes);
    modify_nettest(5, 2, adapter, 1, 2, 3, 4, 5, 6);
    modify_nettest(1, 3, other, 6, 5, 4, 3, 2, 1);
    EXPECT_EQ(wakes + 2, net.wakes); /* whether or not there is such a test */
    rem_nettest(1);
    rem_nettest(1);
    EXPECT_EQ(
        "0 ERROR: add_nettest. Invalid test.\n0 ERROR: add_nettest. Invalid test.\n"
        "5 INFO: add_nettest. Added test. tid:1, lid:2, adapter:'eth0', max_pkts_sent:1, "
        "max_pkts_recv:2, max_bytes_sent:3, max_bytes_recv:4, max_errors_sent:5, "
        "max_errors_recv:6\n"
        "0 ERROR: add_nettest. Existing test. tid:1\n"
        "0 ERROR: modify_nettest. Invalid test.\n0 ERROR: modify_nettest. Invalid test.\n"
        "0 ERROR: modify_nettest. Non-existing test. tid:5\n"
        "5 INFO: modify_nettest. Modified test. tid:1, lid:3, adapter:'wlan0', max_pkts_sent:6, "
        "max_pkts_recv:5, max_bytes_sent:4, max_bytes_recv:3, max_errors_sent:2, "
        "max_errors_recv:1\n"
        "5 INFO: rem_nettest. Removed test. tid:1\n"
        "0 ERROR: rem_nettest. Non-existing test. tid:1\n",
        take_log_text());
}

TEST_F(Net, first_results_are_sent_at_once_and_only_they) {
    do_net_check();
    EXPECT_EQ(0, wake_ups);
    add(1, "eth0");
    do_net_check();
    do_net_check();
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Net, what_is_modified_is_checked_and_sent_anew) {
    char other[] = "wlan0";
    add(1, "eth0");
    do_net_check();
    take_records(get_net_results);
    net_interface_list[1]->pi_tx_bytes = 7;
    modify_nettest(1, 8, other, 0, 0, 7, 0, 0, 0);
    udc_content r = check();
    EXPECT_EQ((std::vector<uint32_t>{38, 1, 8, 0, 0, 0, 7, 0, 0, 2}), r.ui32);
    EXPECT_EQ("Network adapter: wlan0 bytes sent: 7 / Max value: 7.\n", r.strings.at(0));
    EXPECT_EQ(2, wake_ups);
}

TEST_F(Net, only_an_add_that_adds_wakes_the_worker) {
    char adapter[] = "eth0";
    unsigned wakes = net.wakes;
    add_nettest(0, 9, adapter, 1, 1, 1, 1, 1, 1);
    add_nettest(1, 9, nullptr, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(wakes, net.wakes);
    add_nettest(1, 9, adapter, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(wakes + 1, net.wakes);
    add_nettest(1, 9, adapter, 1, 1, 1, 1, 1, 1);
    do_net_check();
    rem_nettest(1);
    rem_nettest(1);
    EXPECT_EQ(wakes + 1, net.wakes);
    EXPECT_EQ(1u, take_records(get_net_results).size()); /* the result outlives its test */
}

/* Real interfaces in a network namespace of its own. */
TEST(RealNet, interfaces_that_go_up_and_down) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root for a network namespace";
    }
    pid_t child = fork();
    if (child == 0) {
        real_interfaces = true;
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(77);
        }
        bool none = get_adapter_list(nullptr, nullptr) == 0;
        bool made = system("ip link add t0 type veth peer name t1 && ip link set t0 up && "
                           "ip link set t1 up && ip addr add 192.0.2.1/24 dev t0") == 0;
        bool listed = get_adapter_list(nullptr, nullptr) == 1 && net_interface_list.size() == 1 &&
                      strcmp(net_interface_list[0]->name, "t0") == 0;
        bool down = system("ip link set t0 down") == 0 && get_adapter_list(nullptr, nullptr) == 0 &&
                    net_interface_list.size() == 0;
        _exit(none && made && listed && down ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no network namespaces here";
    }
    EXPECT_EQ(0, status);
}

/* Everything at once from several threads, sampler and worker included; the sanitizers watch. A
 * stop ends the sampler amid its wait. */
TEST_F(Net, changes_during_passes_and_samples) {
    dev("eth0: 1 1 1 0 0 0 0 0 1 1 1 0 0 0 0 0\n");
    auto all = interfaces;
    interfaces = {{"lo", RUNNING | IFF_LOOPBACK}}; /* both threads start all the same */
    no_waiting = true;
    seconds_asked = 0;
    ASSERT_EQ(1, init_net_mon());
    EXPECT_EQ("5 Net monitoring. get_adapter_list. Interface list: ''\n"
              "0 Net monitoring. get_adapter_list. No interfaces with IFF_UP, IFF_RUNNING "
              "and !IFF_LOOPBACK .\n",
              take_log_text());
    EXPECT_TRUE(sampler_running);
    EXPECT_TRUE(eventually([] { return seconds_asked == 10; })); /* there was nothing to sample */
    interfaces = all;
    get_adapter_list(nullptr, nullptr);
    EXPECT_TRUE(eventually([] {
        lock hold(net_interface_list_mutex);
        return net_interface_list[0]->rx_bytes == 1;
    }));
    no_waiting = false;
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        char adapter[] = "eth0";
        for (int i = 0; i < 300; i++) {
            add_nettest(1 + i % 5, 9, adapter, 1, 1, 1, 1, 1, 1);
            modify_nettest(1 + i % 3, 9, adapter, i, 1, 1, 1, 1, 1);
            rem_nettest(1 + i % 4);
            set_net_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread samples([&] {
        while (!stop) {
            sample_interfaces();
            do_net_check();
        }
    });
    while (!stop) {
        take_records(get_net_results);
        get_adapter_list(nullptr, nullptr);
        get_net_check_interval();
    }
    changes.join();
    samples.join();
    shutdown_net_checker();
    EXPECT_EQ(-1, get_net_check_interval());
    shutdown_net_checker(); /* nothing is left to stop */
}
