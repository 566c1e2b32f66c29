/* The whole reply of a poll, up to its last effect: the status line and headers, the session id,
 * the body, its commands, the checkers that take them, one pass of each and what they report.
 *
 * The checkers are the real ones, started as an agent starts them, on the kernel files of proc/.
 * Nothing leaves the process: threads are not started (pthread_create is wrapped), shells are not
 * run, and no file is unlinked. What a remote host answers is the reply's own text. A checker that
 * one input stops still asks remote hosts for the inputs after it.
 *
 * Input: a byte whose bits tell how the connection behaves, then the reply. */
#include "vindral_poll.cpp"

#include "sslutiles_poll.cpp"

#include "fake_tls.h"
#include "fuzz.h"
#include "procfile.h"
#include "silent_log.h"
#include "udc.h"

#include "cpumon.h"
#include "feedlistener.h"
#include "httpmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "mysqlmon.h"
#include "ndismon.h"
#include "netmon.h"
#include "pingmon.h"
#include "processmon.h"
#include "snmpmon.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sys/eventfd.h>
#include <sys/socket.h>

enum { LOGGED_IN = 1, BREAKS_OFF = 2, WAITS = 4, IN_PIECES = 8, LACKS_THREADS = 16 };

/* --- what would leave the process ------------------------------------------------------------ */

static bool threads_are_short;
static std::string remote_answer;

using thread_body = void* (*)(void*);

/* Workers and listeners are taken for started; their handle is this thread's, which nobody ends.
 * The threads of single checks would own their argument: they are refused. Others are not the
 * agent's. */
template <size_t N>
static bool is_among(thread_body body, thread_body const (&bodies)[N]) {
    return std::find(bodies, bodies + N, body) != bodies + N;
}

static const thread_body workers[] = {
    proc_worker_thread,  http_worker_thread, ping_worker_thread, mem_worker_thread,
    disk_worker_thread,  cpu_worker_thread,  lda_worker_thread,  snmp_worker_thread,
    mysql_worker_thread, ndis_worker_thread, net_worker_thread,  net_calc_worker_thread};
static const thread_body listeners[] = {run_tcp_server, run_unix_server};
static const thread_body checks[] = {http_check_thread, ping_single_thread,    snmp_single_thread,
                                     snmp_round_thread, do_single_mysql_check, discovery_thread};

static bool in_agent; /* between the beginning of an input and its end */

static int no_stop = -1; /* an event that never comes */

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, thread_body, void*);
int __real_pthread_join(pthread_t, void**);
int __real_unlink(const char*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, thread_body body,
                          void* argument) {
    if (is_among(body, checks) || (is_among(body, listeners) && threads_are_short)) {
        return EAGAIN;
    }
    if (is_among(body, workers) || is_among(body, listeners)) {
        *thread = pthread_self();
        return 0;
    }
    return __real_pthread_create(thread, attributes, body, argument);
}
int __wrap_pthread_cancel(pthread_t thread) {
    require(thread == pthread_self());
    return 0;
}
int __wrap_pthread_join(pthread_t thread, void** result) {
    return thread == pthread_self() ? 0 : __real_pthread_join(thread, result);
}
int __wrap_unlink(const char* path) {
    return in_agent ? 0 : __real_unlink(path);
}

/* checker_stopped and checker_stop_fd: a stop is for good, and the process has one agent for all
 * inputs. */
bool __wrap__Z15checker_stoppedR7checker(checker&) {
    return false;
}
int __wrap__Z15checker_stop_fdR7checker(checker&) {
    return no_stop;
}
}

/* In place of shell_command.cpp. The number is no process's: a query that is given up kills its
 * command's group. */
static const pid_t NO_PROCESS = INT_MAX;
pid_t spawn_shell(const char* command_line, int stdout_fd, bool) {
    require(*command_line != '\0');
    if (stdout_fd >= 0) {
        require(write(stdout_fd, remote_answer.data(), remote_answer.size()) ==
                static_cast<ssize_t>(remote_answer.size()));
    }
    return stdout_fd >= 0 ? NO_PROCESS : -1;
}
int wait_command(pid_t) {
    return 0;
}

/* --- an agent -------------------------------------------------------------------------------- */

/* Readable for ever. */
static int open_ended_socket() {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    close(ends[1]);
    return ends[0];
}

static bool start_agent() {
    proc_root = VINDRAL_FUZZ_PROC;
    setenv("MIBDIRS", "", 1); /* a start without the host's MIB files */
    setenv("SNMP_PERSISTENT_DIR", "/dev/null", 1);
    bind_fake_tls();
    require(freopen("/dev/null", "w", stdout) != nullptr);
    require((no_stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) >= 0);
    require(start_checkers() == 1);
    shutdown_net_checker(); /* its sampler, called below, then takes one sample and returns */
    user_email = strdup("somebody@example.org");
    agent_name = strdup("agent");
    agent_home = strdup("/nonexistent");
    return true;
}

static void run_passes() {
    net_calc_worker_thread(nullptr);
    for (auto pass : {do_proc_check, do_http_check, do_ping_check, do_mem_check, do_disk_check,
                      do_lda_check, do_snmp_check, do_mysql_check, run_discovery, do_net_check}) {
        pass();
    }
    do_cpu_check(1);
}

/* Whatever the checkers report is a run of whole records. */
static void check_results() {
    taken_results texts; /* of disk tests, which no agent sends */
    get_disk_test_results(&texts.all, &texts.count);
    collect_results();
    const bdata* block = get_cache_copy();
    for (size_t at = 0; block != nullptr && at < block->data_size;) {
        uint32_t size;
        require(block->data_size - at >= sizeof(UDC));
        memcpy(&size, block->data_buffer + at, sizeof size);
        require(size >= sizeof(UDC) && size <= block->data_size - at);
        UDCW* record = nullptr;
        require(udcw_from_udc(reinterpret_cast<UDC*>(block->data_buffer + at), &record, size) == 1);
        require(record->udc->ui32 > 0);
        udcw_free(&record);
        at += size;
    }
    free_cache_copy();
}

static void remove_test(int id) {
    for (auto remove :
         {rem_http, rem_ping, rem_mem, rem_disk, rem_cpu, rem_lda, rem_snmp, rem_mysqldesc,
          rem_ndis, rem_nettest, remove_tcp_server, remove_unix_server}) {
        remove(id);
    }
    rem_proc(id);
}

/* Removes the tests that the reply has added, by the id behind the first tab of a line. */
static void remove_tests(const std::string& reply) {
    for (size_t tab = 0; (tab = reply.find('\t', tab)) != reply.npos; tab++) {
        remove_test(static_cast<int>(strtol(reply.c_str() + tab + 1, nullptr, 10)));
    }
}

static void poll_once(unsigned behaviour, const std::string& text) {
    fake_tls = {.left = text,
                .piece = behaviour & IN_PIECES ? 1 + text.size() / 5 : SIZE_MAX,
                .end = behaviour & BREAKS_OFF ? SSL_ERROR_SSL : SSL_ERROR_ZERO_RETURN,
                .wait_first = (behaviour & WAITS) != 0};
    threads_are_short = behaviour & LACKS_THREADS;
    isAuthorized = behaviour & LOGGED_IN ? 1 : 0;
    free(szSessionID);
    szSessionID = isAuthorized ? strdup("1") : nullptr;

    stream_connection c;
    c.socket.reset(open_ended_socket());
    c.session.reset(lib_SSL_new(nullptr));
    service_exchange e = {.name = "make_poll", .budget_us = POLL_BUDGET_US};
    service_reply answer;
    char* body = nullptr;
    size_t length = 0;
    int code =
        receive_reply(e, c.socket.get(), answer, c.session.get()) ? POLL_OK : POLL_NO_CONNECTION;
    require(code == POLL_OK || (behaviour & BREAKS_OFF) != 0);
    require(code != POLL_OK || (behaviour & BREAKS_OFF) == 0 || answer.content_length != 0);
    if (code == POLL_OK && szSessionID == nullptr) {
        code = log_in(answer);
        require((code == POLL_OK) == (szSessionID != nullptr));
        require(code != POLL_OK || strstr(szSessionID, "\r\n") == nullptr);
    }
    if (code == POLL_OK) {
        code = take_body(answer, &body, &length);
        require(code == POLL_OK || szSessionID == nullptr);
    }
    heap_text commands(body);
    require(commands == nullptr || code == POLL_OK);
    act_on(code, commands.get(), length, 60);
    require(get_poll_interval() != -1 || code == POLL_REFUSED || text.find("POL") != text.npos);
    set_poll_interval(60);
    free(szSessionID);
    szSessionID = nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool started = start_agent();
    if (!started || size == 0) {
        return 0;
    }
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    remote_answer = text;
    in_agent = true;
    require_no_growth([&] {
        last_update_time = 0;
        poll_once(data[0], text);
        run_passes();
        run_passes(); /* rates need a second sample */
        check_results();
        remove_tests(text);
        run_passes();
        check_results();
    });
    in_agent = false;
    return 0;
}
