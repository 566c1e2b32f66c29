#include "netmon.h"

#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "test_list.h"
#include "vindral_common.h"
#include "vindral_log.h"

#include <cstdio>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using enum protocol::status_code;

static const size_t IFREQS_SIZE = 2560; /* room for 64 interfaces to begin with */
static const size_t LINE_MOST = 511;
static const int calc_check_interval = 10; /* seconds from sample to sample */

static constinit checker net = {.thread_name = "net",
                                .pass = do_net_check,
                                .attr_message =
                                    "Net monitoring: thread attribute initialization failed.",
                                .stack_message = "Net monitoring: can not set thread stack size."};
static constinit mutex& net_mon_mutex = net.mon_mutex;
static constinit test_list<net_data, &net_data::tid, &net_data::adapter>
    net_data_list GUARDED_BY(net_mon_mutex);

static constinit mutex net_interface_list_mutex{};
static constinit pointer_list<net_interface>
    net_interface_list GUARDED_BY(net_interface_list_mutex);

static pthread_t net_calc_worker_thread_handle;
static bool sampler_running; /* there is one to join; main thread only */
static constinit mutex net_calc_cond_mutex{};
static constinit condition net_calc_cond{};
static bool sampler_stopped GUARDED_BY(net_calc_cond_mutex);

/* --- interfaces --- */

/* The configured interfaces of a socket: `count` of them, null on failure. */
static heap<ifreq> query_interfaces(int socket_fd, size_t* count) {
    for (size_t size = IFREQS_SIZE;; size *= 2) {
        heap<ifreq> ifreqs(static_cast<ifreq*>(malloc(size)));
        ifconf query{};
        query.ifc_len = static_cast<int>(size);
        query.ifc_req = ifreqs.get();
        if (!ifreqs || ioctl(socket_fd, SIOCGIFCONF, &query) != 0) {
            return nullptr;
        }
        /* The kernel fills what there is room for and does not say whether there is more. */
        if (static_cast<size_t>(query.ifc_len) + sizeof(ifreq) <= size) {
            *count = static_cast<size_t>(query.ifc_len) / sizeof(ifreq);
            return ifreqs;
        }
    }
}

static bool is_watched(int socket_fd, ifreq* interface) {
    ifreq flags = *interface;
    return ioctl(socket_fd, SIOCGIFFLAGS, &flags) == 0 && (flags.ifr_flags & IFF_UP) &&
           (flags.ifr_flags & IFF_RUNNING) && !(flags.ifr_flags & IFF_LOOPBACK);
}

/* Moves those that are watched to the front; returns how many. */
static size_t keep_watched(int socket_fd, ifreq* interfaces, size_t count) {
    size_t kept = 0;
    for (size_t i = 0; i < count; i++) {
        interfaces[i].ifr_name[IFNAMSIZ - 1] = '\0';
        if (is_watched(socket_fd, &interfaces[i])) {
            interfaces[kept++] = interfaces[i];
        }
    }
    return kept;
}

static bool is_listed(const char* name) REQUIRES(net_interface_list_mutex) {
    for (const net_interface* n : net_interface_list) {
        if (strcmp(n->name, name) == 0) {
            return true;
        }
    }
    return false;
}

static bool is_among(const char* name, const ifreq* interfaces, size_t count) {
    for (size_t i = 0; i < count; i++) {
        if (strcmp(interfaces[i].ifr_name, name) == 0) {
            return true;
        }
    }
    return false;
}

static void update_list(const ifreq* kept, size_t count) {
    lock hold(net_interface_list_mutex);
    for (size_t i = 0; i < count; i++) {
        if (is_listed(kept[i].ifr_name)) {
            continue;
        }
        heap<net_interface> entry(static_cast<net_interface*>(calloc(1, sizeof(net_interface))));
        if (entry) {
            memcpy(entry->name, kept[i].ifr_name, sizeof entry->name);
            if (net_interface_list.append(entry.get())) {
                (void)entry.release();
            }
        }
    }
    for (int i = net_interface_list.size() - 1; i >= 0; i--) {
        if (!is_among(net_interface_list[i]->name, kept, count)) {
            free(net_interface_list.take_at(i));
        }
    }
}

/* Every name and a tab behind each. */
static heap_text names_of(const ifreq* kept, size_t count) {
    heap_text text(static_cast<char*>(malloc(count * (IFNAMSIZ + 1) + 1)));
    char* end = text.get();
    if (end != nullptr) {
        *end = '\0';
        for (size_t i = 0; i < count; i++) {
            end += sprintf(end, "%s\t", kept[i].ifr_name);
        }
    }
    return text;
}

int get_adapter_list(char** rez, int* rez_size) {
    unique_fd any(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!any) {
        leveledadd2log(0, "Net monitoring. get_adapter_list. Socket creation failed.");
        return 0;
    }
    size_t count = 0;
    heap<ifreq> interfaces = query_interfaces(any.get(), &count);
    if (!interfaces) {
        leveledadd2log(0, "Net monitoring. get_adapter_list. ioctl SIOCGIFCONF failed.");
        return 0;
    }
    count = keep_watched(any.get(), interfaces.get(), count);
    update_list(interfaces.get(), count);
    heap_text names = names_of(interfaces.get(), count);
    if (!names) {
        return 0;
    }
    leveledadd2log(5, "Net monitoring. get_adapter_list. Interface list: '%s'", names.get());
    if (count == 0) {
        leveledadd2log(0, "Net monitoring. get_adapter_list. No interfaces with IFF_UP, "
                          "IFF_RUNNING and !IFF_LOOPBACK .");
        return 0;
    }
    return rez == nullptr ||
           hand_over_record(make_record<protocol::network_interfaces>(
                                named<"time">(now_in_seconds()), named<"interfaces">(names.get())),
                            rez, rez_size);
}

/* --- samples --- */

template <typename counter>
static void sample(counter* value, unsigned long* speed, counter new_value) {
    if (*value == 0) {
        *speed = 0;
    } else {
        auto rate = static_cast<unsigned long>((new_value - *value) / calc_check_interval);
        *speed = *speed == 0 ? rate : (rate + *speed) >> 1;
    }
    *value = new_value;
}

void avg(unsigned long* value, unsigned long* speed, unsigned long new_value) {
    sample(value, speed, new_value);
}

void avg_ll(unsigned long long* value, unsigned long* speed, unsigned long long new_value) {
    sample(value, speed, new_value);
}

/* The columns of /proc/net/dev have changed twice: bytes came with Linux 2.1, compressed packets
 * and multicast with 2.3. */
enum layout { PACKETS_ONLY = 1, WITH_BYTES = 2, WITH_COMPRESSED = 3 };

static layout layout_of(const char* heading) {
    if (strstr(heading, "compressed") != nullptr) {
        return WITH_COMPRESSED;
    }
    return strstr(heading, "bytes") != nullptr ? WITH_BYTES : PACKETS_ONLY;
}

static void parse_counters(const char* text, layout version, net_interface* n) {
    switch (version) {
    case WITH_COMPRESSED:
        sscanf(text, "%llu %llu %lu %lu %lu %lu %lu %lu %llu %llu %lu %lu %lu %lu %lu %lu",
               &n->rx_bytes, &n->rx_packets, &n->rx_errors, &n->rx_dropped, &n->rx_fifo_errors,
               &n->rx_frame_errors, &n->rx_compressed, &n->rx_multicast, &n->tx_bytes,
               &n->tx_packets, &n->tx_errors, &n->tx_dropped, &n->tx_fifo_errors, &n->collisions,
               &n->tx_carrier_errors, &n->tx_compressed);
        break;
    case WITH_BYTES:
        sscanf(text, "%llu %llu %lu %lu %lu %lu %llu %llu %lu %lu %lu %lu %lu", &n->rx_bytes,
               &n->rx_packets, &n->rx_errors, &n->rx_dropped, &n->rx_fifo_errors,
               &n->rx_frame_errors, &n->tx_bytes, &n->tx_packets, &n->tx_errors, &n->tx_dropped,
               &n->tx_fifo_errors, &n->collisions, &n->tx_carrier_errors);
        break;
    case PACKETS_ONLY:
        sscanf(text, "%llu %lu %lu %lu %lu %llu %lu %lu %lu %lu %lu", &n->rx_packets, &n->rx_errors,
               &n->rx_dropped, &n->rx_fifo_errors, &n->rx_frame_errors, &n->tx_packets,
               &n->tx_errors, &n->tx_dropped, &n->tx_fifo_errors, &n->collisions,
               &n->tx_carrier_errors);
        break;
    }
}

/* Cuts the name off the line and returns the counters behind it; null when there is none. A colon
 * ends the name, but for that of an alias ("eth0:1:"). */
static char* cut_name(char* name) {
    char* colon = strchr(name, ':');
    if (colon == nullptr) {
        return nullptr;
    }
    size_t digits = strspn(colon + 1, "0123456789");
    if (digits > 0 && colon[1 + digits] == ':') {
        colon += 1 + digits;
    }
    *colon = '\0';
    return colon + 1;
}

static void sample_line(char* line, layout version) REQUIRES(net_interface_list_mutex) {
    char* name = line + strspn(line, " \t");
    const char* counters = cut_name(name);
    if (counters == nullptr) {
        return;
    }
    for (net_interface* known : net_interface_list) {
        if (strstr(name, known->name) == nullptr) {
            continue;
        }
        net_interface now{};
        parse_counters(counters, version, &now);
        avg_ll(&known->rx_bytes, &known->pi_rx_bytes, now.rx_bytes);
        avg_ll(&known->rx_packets, &known->pi_rx_packets, now.rx_packets);
        avg(&known->rx_errors, &known->pi_rx_errors, now.rx_errors);
        avg_ll(&known->tx_bytes, &known->pi_tx_bytes, now.tx_bytes);
        avg_ll(&known->tx_packets, &known->pi_tx_packets, now.tx_packets);
        avg(&known->tx_errors, &known->pi_tx_errors, now.tx_errors);
        return;
    }
}

static void sample_interfaces() {
    lock hold(net_interface_list_mutex);
    if (net_interface_list.size() == 0) {
        return;
    }
    heap_text text = read_whole_proc_file("net/dev");
    char line[LINE_MOST + 1];
    const char* rest = text.get();
    if (!text || !take_line(&rest, line, sizeof line) || !take_line(&rest, line, sizeof line)) {
        return;
    }
    layout version = layout_of(line);
    while (take_line(&rest, line, sizeof line)) {
        sample_line(line, version);
    }
}

/* False when the sampler was stopped. */
static bool wait_for_next_sample() {
    lock hold(net_calc_cond_mutex);
    timespec deadline = deadline_in(calc_check_interval);
    while (!sampler_stopped &&
           condition_wait_until(net_calc_cond, net_calc_cond_mutex, deadline) != ETIMEDOUT) {
    }
    return !sampler_stopped;
}

void* net_calc_worker_thread(void*) {
    do {
        sample_interfaces();
    } while (wait_for_next_sample());
    return nullptr;
}

/* --- evaluation --- */

/* Received and sent in the order in which they are reported and judged. */
enum {
    BYTES_RECEIVED,
    PACKETS_RECEIVED,
    ERRORS_RECEIVED,
    BYTES_SENT,
    PACKETS_SENT,
    ERRORS_SENT,
    RATES
};

/* Takes the rates away from the first interface whose name is in the text. False without one. */
static bool take_rates(const char* adapter, unsigned long rates[RATES]) {
    lock hold(net_interface_list_mutex);
    for (net_interface* n : net_interface_list) {
        if (strstr(adapter, n->name) == nullptr) {
            continue;
        }
        unsigned long* kept[RATES] = {&n->pi_rx_bytes, &n->pi_rx_packets, &n->pi_rx_errors,
                                      &n->pi_tx_bytes, &n->pi_tx_packets, &n->pi_tx_errors};
        for (int rate = 0; rate < RATES; rate++) {
            rates[rate] = *kept[rate];
            *kept[rate] = 0;
        }
        return true;
    }
    return false;
}

static void append_line(char** message, const char* format, const char* adapter, unsigned rate,
                        int limit) {
    char* line = nullptr;
    if (asprintf(&line, format, adapter, rate, limit) >= 0) {
        adv_strcat(message, line);
        free(line);
    }
}

/* Status of a test, its message in `*message` (caller frees). */
static protocol::status_code judge_rates(const net_data& test, const unsigned long rates[RATES],
                                         char** message) {
    const struct {
        int limit;
        const char* format;
    } limits[RATES] = {
        {test.max_bytes_recv, "Network adapter: %s bytes received: %u / Max value: %u.\n"},
        {test.max_pkts_recv, "Network adapter: %s packets received: %u / Max value: %u.\n"},
        {test.max_errors_recv, "Network adapter: %s errors received: %u / Max value: %u.\n"},
        {test.max_bytes_sent, "Network adapter: %s bytes sent: %u / Max value: %u.\n"},
        {test.max_pkts_sent, "Network adapter: %s packets sent: %u / Max value: %u.\n"},
        {test.max_errors_sent, "Network adapter: %s errors sent: %u / Max value: %u.\n"},
    };
    auto status = status_ok;
    bool limited = false;
    for (int i = 0; i < RATES; i++) {
        if (limits[i].limit < 1) {
            continue;
        }
        limited = true;
        if (rates[i] >= static_cast<unsigned long>(limits[i].limit)) {
            append_line(message, limits[i].format, test.adapter, static_cast<unsigned>(rates[i]),
                        limits[i].limit);
            status = status_limit;
        }
    }
    if (limited && status == status_ok) {
        append_line(message, "Network adapter: %s Statistics are within acceptable limits.\n",
                    test.adapter, 0, 0);
    }
    return status;
}

static void add_net_record(const net_data& test, const unsigned long rates[RATES],
                           protocol::status_code status, const char* message) {
    checker_add_record(
        net,
        make_record<protocol::network>(
            named<"test">(test.tid), named<"location">(test.lid), named<"time">(now_in_seconds()),
            named<"received">(rates[BYTES_RECEIVED]),
            named<"received_packets">(rates[PACKETS_RECEIVED]),
            named<"received_errors">(rates[ERRORS_RECEIVED]), named<"sent">(rates[BYTES_SENT]),
            named<"sent_packets">(rates[PACKETS_SENT]), named<"sent_errors">(rates[ERRORS_SENT]),
            named<"status">(status), named<"message">(message)));
}

static void check_net_test(const net_data& test) {
    leveledadd2log(5, "INFO: do_net_check. Checking... tid:%d, lid:%d, adapter:'%s'", test.tid,
                   test.lid, test.adapter);
    unsigned long rates[RATES];
    if (!take_rates(test.adapter, rates)) {
        leveledadd2log(0, "ERROR: do_net_check. No Interface with name '%s'", test.adapter);
        return;
    }
    char* message = nullptr;
    auto status = judge_rates(test, rates, &message);
    leveledadd2log(5,
                   "INFO: do_net_check. pi_rx_bytes:%lu, pi_rx_packets:%lu, pi_rx_errors:%lu, "
                   "pi_tx_bytes:%lu, pi_tx_packets:%lu, pi_tx_errors:%lu, status_value:%d",
                   rates[BYTES_RECEIVED], rates[PACKETS_RECEIVED], rates[ERRORS_RECEIVED],
                   rates[BYTES_SENT], rates[PACKETS_SENT], rates[ERRORS_SENT],
                   static_cast<int>(status));
    add_net_record(test, rates, status, message);
    free(message);
}

void do_net_check() {
    bool first_check;
    {
        lock hold(net_mon_mutex);
        first_check = net_data_list.check_each(check_net_test);
    }
    if (first_check) {
        fresh_results();
    }
}

/* --- tests --- */

static void log_test(const char* what, const net_data& test) {
    leveledadd2log(5,
                   "INFO: %s test. tid:%d, lid:%d, adapter:'%s', max_pkts_sent:%d, "
                   "max_pkts_recv:%d, max_bytes_sent:%d, max_bytes_recv:%d, max_errors_sent:%d, "
                   "max_errors_recv:%d",
                   what, test.tid, test.lid, test.adapter, test.max_pkts_sent, test.max_pkts_recv,
                   test.max_bytes_sent, test.max_bytes_recv, test.max_errors_sent,
                   test.max_errors_recv);
}

static bool add_test(const net_data& test) {
    lock hold(net_mon_mutex);
    if (net_data_list.find(test.tid) != nullptr) {
        leveledadd2log(0, "ERROR: add_nettest. Existing test. tid:%d", test.tid);
        return false;
    }
    return net_data_list.add(test);
}

void add_nettest(int tid, int lid, char* adapter, int max_pkts_sent, int max_pkts_recv,
                 int max_bytes_sent, int max_bytes_recv, int max_errors_sent, int max_errors_recv) {
    if (tid == 0 || adapter == nullptr) {
        leveledadd2log(0, "ERROR: add_nettest. Invalid test.");
        return;
    }
    const net_data test = {.tid = tid,
                           .lid = lid,
                           .adapter = adapter,
                           .max_bytes_recv = max_bytes_recv,
                           .max_pkts_recv = max_pkts_recv,
                           .max_errors_recv = max_errors_recv,
                           .max_bytes_sent = max_bytes_sent,
                           .max_pkts_sent = max_pkts_sent,
                           .max_errors_sent = max_errors_sent,
                           .isFirstCheck = 1};
    if (add_test(test)) {
        log_test("add_nettest. Added", test);
        checker_wake(net);
    }
}

static void replace_test(const net_data& test) {
    lock hold(net_mon_mutex);
    if (net_data_list.find(test.tid) == nullptr) {
        leveledadd2log(0, "ERROR: modify_nettest. Non-existing test. tid:%d", test.tid);
    } else if (net_data_list.replace(test)) {
        log_test("modify_nettest. Modified", test);
    }
}

void modify_nettest(int tid, int lid, char* adapter, int max_pkts_sent, int max_pkts_recv,
                    int max_bytes_sent, int max_bytes_recv, int max_errors_sent,
                    int max_errors_recv) {
    if (tid == 0 || adapter == nullptr) {
        leveledadd2log(0, "ERROR: modify_nettest. Invalid test.");
        return;
    }
    replace_test({.tid = tid,
                  .lid = lid,
                  .adapter = adapter,
                  .max_bytes_recv = max_bytes_recv,
                  .max_pkts_recv = max_pkts_recv,
                  .max_errors_recv = max_errors_recv,
                  .max_bytes_sent = max_bytes_sent,
                  .max_pkts_sent = max_pkts_sent,
                  .max_errors_sent = max_errors_sent,
                  .isFirstCheck = 1});
    checker_wake(net);
}

void rem_nettest(int tid) {
    lock hold(net_mon_mutex);
    if (net_data_list.remove(tid)) {
        leveledadd2log(5, "INFO: rem_nettest. Removed test. tid:%d", tid);
    } else {
        leveledadd2log(0, "ERROR: rem_nettest. Non-existing test. tid:%d", tid);
    }
}

static int start_sampler() {
    sampler_running = checker_start_thread(net, "net sampler", net_calc_worker_thread,
                                           &net_calc_worker_thread_handle) != 0;
    return sampler_running;
}

int init_net_mon() {
    get_adapter_list(nullptr, nullptr);
    return checker_start(net, net_worker_thread) && start_sampler();
}
void* net_worker_thread(void*) {
    checker_work(net);
    return nullptr;
}
int get_net_check_interval() {
    return checker_get_interval(net);
}
void set_net_check_interval(int t_sec) {
    checker_set_interval(net, t_sec);
}
void add_net_result(char* rez, int rez_size) {
    checker_add_result(net, rez, rez_size);
}
int get_net_results(char** rez, int* rez_size) {
    return checker_get_results(net, rez, rez_size);
}

void shutdown_net_checker() {
    checker_stop(net);
    if (!sampler_running) {
        return;
    }
    {
        lock hold(net_calc_cond_mutex);
        sampler_stopped = true;
        pthread_cond_signal(&net_calc_cond.handle);
    }
    pthread_join(net_calc_worker_thread_handle, nullptr);
    sampler_running = false;
    destroy_condition(net_calc_cond);
}
