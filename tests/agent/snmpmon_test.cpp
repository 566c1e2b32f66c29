/* SNMP checker: definitions, the list, passes, what a child is and leaves behind, pipes, lifecycle.
 */
#include "thread_library.h"

#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

static int fake_close_range(unsigned first, unsigned last, int flags);
static pid_t fake_waitpid(pid_t child, int* status, int options);
static int fake_epoll_ctl(int watcher, int what, int fd, epoll_event* event);
static int fake_pipe2(int* ends, int flags);

#define close_range fake_close_range
#define resolve_host fake_resolve_host
#define gated_fork fake_gated_fork
#define waitpid fake_waitpid
#define epoll_ctl fake_epoll_ctl
#define pipe2 fake_pipe2
#include "snmpmon.cpp"
#include "snmpmon_child.cpp"
#include "snmpmon_query.cpp"
#undef close_range
#undef resolve_host
#undef gated_fork
#undef waitpid
#undef epoll_ctl
#undef pipe2
#include "fork_gate.cpp"

#include "at_rest.h"
#include "checker_place.h"
#include "fake_core.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <fstream>
#include <functional>
#include <linux/futex.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <thread>

using thread_library::attr_error, thread_library::detach_error, thread_library::stack_error;
using thread_library::create_error, thread_library::detach_state, thread_library::running;

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

int snmp_lib_status = 0;
const char* snmp_lib_file_name = "libsnmp.so";
void* lib_handle = nullptr;

namespace {

std::mutex notes_mutex;
std::string notes; /* calls of the library and the resolver, one a line */
void note(const std::string& line) {
    std::lock_guard hold(notes_mutex);
    notes += line + "\n";
}
std::string take_notes() {
    std::lock_guard hold(notes_mutex);
    return std::exchange(notes, "");
}

int library_found = 1;
std::atomic<int> threads{0}, forks{0}, pipes_wanted{0};
std::atomic<bool> fork_fails{false}, no_waiters{false}, no_lookups{false}, no_close_range{false};
std::atomic<size_t> waiter_stack{0};
std::atomic<int> last_status{0};
std::atomic<bool> signals_held{true};
std::atomic<int> lingering{0}; /* how often children that have ended look as if they had not */
std::atomic<int> unwatchable{0};
std::atomic<pid_t> first_child{0};
std::function<void(int)> before_fork; /* gets the number of the fork, from 1 */

/* What children and tests tell one another. */
struct shared_page {
    std::atomic<int> children;
    std::atomic<int> may_go_on;
    std::atomic<int> hung_child;
    std::atomic<int> bulk_walks;
};
shared_page* page = static_cast<shared_page*>(
    mmap(nullptr, sizeof(shared_page), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

/* Children sleep meanwhile: hundreds that looked again and again would leave no processor to the
 * others. */
void let_go_on() {
    page->may_go_on = 1;
    syscall(SYS_futex, &page->may_go_on, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

std::string open_descriptors() {
    std::string list;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        if (!error && target.find("/proc/") != 0) {
            list += entry.path().filename().string() + " " + target + "\n";
        }
    }
    return list;
}

char* own(const std::string& text) {
    return strdup(text.c_str());
}

std::string or_null(const char* text) {
    return text != nullptr ? text : "null";
}

/* What a fake check does is said by its first OID. */
char* answer(snmp_def* def, const char* kind, const std::string& what) {
    page->children++;
    if (what == "crash") {
        raise(SIGSEGV);
    } else if (what == "killed") {
        raise(SIGKILL);
    } else if (what == "hang") {
        page->hung_child = getpid();
        while (!page->may_go_on) {
            syscall(SYS_futex, &page->may_go_on, FUTEX_WAIT, 0, nullptr, nullptr, 0);
        }
    } else if (what == "none") {
        return nullptr;
    } else if (what == "address") {
        return own(def->host + (" " + or_null(def->address)));
    } else if (what == "mode") {
        return own(std::to_string(def->mode));
    } else if (what == "long") {
        return own(std::string(1000000, 'x'));
    } else if (what == "descriptors") {
        return own(open_descriptors());
    } else if (what == "process") {
        struct sigaction segv, hup, pipe;
        sigaction(SIGSEGV, nullptr, &segv);
        sigaction(SIGHUP, nullptr, &hup);
        sigaction(SIGPIPE, nullptr, &pipe);
        sigset_t mask;
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        int blocked = 0;
        for (int number = 1; number < 32; number++) {
            blocked += sigismember(&mask, number);
        }
        int death = 0;
        prctl(PR_GET_PDEATHSIG, &death);
        leveledadd2log(0, "a child logs");
        int waiting = 0; /* descriptors on which it may get stuck */
        for (int fd = STDERR_FILENO + 1; fd < 1000; fd++) {
            int flags = fcntl(fd, F_GETFL);
            waiting += flags >= 0 && (flags & O_NONBLOCK) == 0;
        }
        return own("leader " + std::to_string(getpgid(0) == getpid()) + " default " +
                   std::to_string(segv.sa_handler == SIG_DFL && hup.sa_handler == SIG_DFL) +
                   " pipe " + std::to_string(pipe.sa_handler == SIG_IGN) + " blocked " +
                   std::to_string(blocked) + " death " + std::to_string(death) + " log " +
                   std::to_string(log_level) + " waiting " + std::to_string(waiting));
    }
    return own(std::string(kind) + " " + what);
}

int answer_with_length(snmp_def* def, const char* kind, const char* what, char** data, int* size) {
    *data = answer(def, kind, what);
    *size = *data != nullptr ? static_cast<int>(strlen(*data)) : 7;
    return 1;
}

} // namespace

int init_snmp_lib() {
    note("init_snmp_lib");
    return library_found;
}
int init_defaults() {
    note("init_defaults");
    return 1;
}
decltype(&init_snmp) libpo_init_snmp = [](const char* name) {
    note(std::string("start ") + name + (snmp_checker.running ? " late" : ""));
};
decltype(&snmp_shutdown) libpo_snmp_shutdown = [](const char* name) {
    bool children_come = pthread_rwlock_trywrlock(&gate) == 0;
    if (children_come) {
        pthread_rwlock_unlock(&gate);
    }
    note(std::string("shutdown ") + name + (children_come ? " among forks" : ""));
};
int do_single_full_check(snmp_def* def, char** data, int* size) {
    return answer_with_length(def, "get", def->oid_arr[0], data, size);
}
int do_single_full_table_check(snmp_def* def, char** data, int* size) {
    return answer_with_length(def, "table", def->oid_string, data, size);
}
int do_single_full_table_bulk_check(snmp_def* def, char** data, int* size) {
    return answer_with_length(def, "bulk table", def->oid_string, data, size);
}
char* do_single_full_walk_check(snmp_def* def) {
    return answer(def, "walk", def->oid_string);
}
char* do_single_full_walk_bulk_check(snmp_def* def) {
    page->bulk_walks++;
    return answer(def, "bulk walk", def->oid_string);
}

static int note_thread(void* (*run)(void*), void*) {
    if (run == forkwait_thread) {
        waiter_stack = thread_library::stack_size.load();
    }
    if ((run == forkwait_thread && no_waiters) || (run == lookup_thread && no_lookups)) {
        return EAGAIN;
    }
    threads += thread_library::detach_state == PTHREAD_CREATE_DETACHED;
    return 0;
}
static int fake_close_range(unsigned first, unsigned last, int flags) {
    return no_close_range ? (errno = ENOSYS, -1) : close_range(first, last, flags);
}
static pid_t fake_waitpid(pid_t child, int*, int options) {
    int status = 0;
    if ((options & WNOHANG) != 0 && lingering > 0) {
        lingering--;
        return 0;
    }
    pid_t ended = waitpid(child, &status, options);
    last_status = status;
    return ended;
}
static int fake_epoll_ctl(int watcher, int what, int fd, epoll_event* event) {
    if (what == EPOLL_CTL_ADD && unwatchable > 0) {
        unwatchable--;
        return errno = ENOSPC, -1;
    }
    return epoll_ctl(watcher, what, fd, event);
}
static int fake_pipe2(int* ends, int flags) {
    pipes_wanted++;
    return pipe2(ends, flags);
}
pid_t fake_gated_fork() {
    int number = ++forks;
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int number : {SIGSEGV, SIGHUP, SIGTERM}) {
        signals_held = signals_held && sigismember(&mask, number) == 1;
    }
    if (before_fork) {
        before_fork(number);
    }
    pid_t child = fork_fails ? (errno = EAGAIN, -1) : gated_fork();
    if (child > 0 && number == 1) {
        first_child = child;
    }
    return child;
}
int fake_resolve_host(const char* host, const char* port, const addrinfo* hints, addrinfo** list) {
    bool ipv6 = hints->ai_family == AF_INET6;
    note("resolve " + std::string(host) + (port == nullptr ? "" : " with a port") +
         (ipv6 ? " as IPv6" : "") +
         (hints->ai_family != AF_UNSPEC && hints->ai_socktype == SOCK_DGRAM ? "" : " oddly"));
    if (strcmp(host, "nowhere") == 0 || (strcmp(host, "name6") == 0 && !ipv6)) {
        return EAI_NONAME;
    }
    if (ipv6) {
        return getaddrinfo("2001:db8::1", port, hints, list);
    }
    return getaddrinfo("127.9.8.7", port, hints, list);
}

namespace {

/* The arguments of a test that all goes well with. */
struct wanted {
    int mode = 0, tid = 1, loc_id = 2, type = 2, bulk = 0;
    const char* oids = "1.3.6";
    const char* host = "192.0.2.1";
    int port = 161, version = 2, timeout = 3, retries = 4;
    const char* community = "public";
    const char *login = nullptr, *passwd = nullptr, *privpasswd = nullptr, *authproto = nullptr,
               *privproto = nullptr;
    const char* limits = "1,2";
};
char* c(const char* text) {
    return const_cast<char*>(text);
}
snmp_def* make(const wanted& w) {
    return make_snmp_def(w.mode, w.tid, w.loc_id, w.type, w.bulk, c(w.oids), c(w.host), w.port,
                         w.version, w.timeout, w.retries, c(w.community), c(w.login), c(w.passwd),
                         c(w.privpasswd), c(w.authproto), c(w.privproto), c(w.limits));
}
void add(const wanted& w) {
    add_snmp(w.tid, w.loc_id, w.type, w.bulk, c(w.oids), c(w.host), w.port, w.version, w.timeout,
             w.retries, c(w.community), c(w.login), c(w.passwd), c(w.privpasswd), c(w.authproto),
             c(w.privproto), c(w.limits));
}
void mod(const wanted& w) {
    mod_snmp(w.tid, w.loc_id, w.type, w.bulk, c(w.oids), c(w.host), w.port, w.version, w.timeout,
             w.retries, c(w.community), c(w.login), c(w.passwd), c(w.privpasswd), c(w.authproto),
             c(w.privproto), c(w.limits));
}

std::string text_of(long* const* limits, size_t count) {
    std::string text = limits == nullptr ? "none" : "";
    for (size_t i = 0; limits != nullptr && i < count; i++) {
        text += (i > 0 ? "," : "") + (limits[i] != nullptr ? std::to_string(*limits[i]) : "-");
    }
    return text;
}

/* A definition on one line. */
std::string show(const snmp_def* d) {
    if (d == nullptr) {
        return "null";
    }
    std::string oids;
    for (size_t i = 0; i < d->oid_len; i++) {
        oids += std::string(i > 0 ? "|" : "") + d->oid_arr[i];
    }
    std::string text = "mode " + std::to_string(d->mode);
    for (int number : {d->tid, d->loc_id, d->port, d->version, d->timeout, d->retries, d->req_type,
                       d->bulk, d->isFirstCheck}) {
        text += " " + std::to_string(number);
    }
    for (const char* t : {d->oid_string, d->host, d->community, d->login, d->passwd, d->privpasswd,
                          d->authproto, d->privproto, d->address}) {
        text += " " + or_null(t);
    }
    return text + " [" + oids + "] min " + text_of(d->min_list, d->oid_len) + " max " +
           text_of(d->max_list, d->oid_len);
}
std::string made(const wanted& w) {
    snmp_def* d = make(w);
    std::string text = show(d);
    free_snmp_def(&d);
    return text;
}

std::string list_text() {
    lock hold(SNMP_MON_MUTEX);
    std::string text;
    for (const snmp_def* test : snmp_def_list) {
        text += show(test) + "\n";
    }
    return text;
}

std::string take_results() {
    char* bytes = nullptr;
    int length = 0;
    if (!get_snmp_results(&bytes, &length)) {
        return "";
    }
    std::string text(bytes, static_cast<size_t>(length));
    free(bytes);
    return text;
}

size_t result_length() {
    lock hold(snmp_checker.result_mutex);
    return static_cast<size_t>(snmp_checker.result_buffer_len);
}

bool is_reaped(pid_t child) {
    siginfo_t info;
    return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) < 0 &&
           errno == ECHILD;
}

/* Reaped or not. */
bool has_ended(pid_t child) {
    siginfo_t info = {};
    return is_reaped(child) ||
           (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid == child);
}

int counted_tests() {
    lock hold(snmp_checks.count_mutex);
    return static_cast<int>(
        std::ranges::count_if(snmp_checks.tests, [](auto* test) { return test != nullptr; }));
}

bool has_children() {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void wait_for_threads() {
    EXPECT_TRUE(eventually([] { return running == 0; }));
}

/* A pass, to its end. */
void run_pass() {
    do_snmp_check();
    wait_for_threads();
}

class snmpmon : public testing::Test {
protected:
    std::string descriptors_before = open_descriptors();

    void SetUp() override {
        snmp_lib_status = 1;
        thread_library::about_to_create = note_thread;
        page->children = page->may_go_on = page->hung_child = page->bulk_walks = 0;
        wake_ups = threads = forks = pipes_wanted = 0;
        take_log();
        take_notes();
    }
    void TearDown() override {
        attr_error = detach_error = stack_error = create_error = 0;
        fork_fails = no_waiters = no_close_range = false;
        lingering = unwatchable = 0;
        let_go_on();
        wait_for_threads();
        before_fork = nullptr;
        snmp_lib_status = 1;
        for (;;) {
            int tid;
            {
                lock hold(SNMP_MON_MUTEX);
                if (snmp_def_list.size() == 0) {
                    break;
                }
                tid = snmp_def_list[0]->tid;
            }
            rem_snmp(tid);
        }
        take_results();
        EXPECT_EQ(open_descriptors(), descriptors_before);
        EXPECT_FALSE(has_children()) << "zombies";
        EXPECT_EQ(counted_tests(), 0);
    }
};

/* --- definitions ------------------------------------------------------------------------------ */

TEST_F(snmpmon, a_get_test_has_an_array_of_oids_and_a_limit_for_each) {
    wanted w;
    w.mode = 5;
    w.oids = "1.3.6.1;1.3.6.2";
    w.limits = "1,5;2,9";
    w.bulk = 7;
    EXPECT_EQ(made(w), "mode 5 1 2 161 1 3 4 2 7 1 null 192.0.2.1 public null null null null null "
                       "null [1.3.6.1|1.3.6.2] min 1,2 max 5,9");
    w.limits = "1,5;x";
    EXPECT_NE(made(w).find("min 1,- max 5,-"), std::string::npos);
    w.limits = "1,5,6;-7,+8";
    EXPECT_NE(made(w).find("min -,-7 max -,8"), std::string::npos) << "three parts are no limits";
    w.limits = " 12ab,x;9";
    EXPECT_NE(made(w).find("min 12,- max 0,-"), std::string::npos);
    w.limits = "1,;,2";
    EXPECT_NE(made(w).find("min -,- max -,-"), std::string::npos);
    w.limits = "1,99999999999999999999;3,4";
    EXPECT_NE(made(w).find("min 1,3 max 9223372036854775807,4"), std::string::npos);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, limits_for_another_number_of_oids_are_refused) {
    wanted w;
    w.oids = "1.3.6.1;1.3.6.2";
    w.limits = "1,5";
    EXPECT_EQ(make(w), nullptr);
    w.limits = "1,2;3,4;5,6";
    EXPECT_EQ(make(w), nullptr);
    w.oids = "";
    w.limits = "1,2";
    EXPECT_EQ(make(w), nullptr);
    EXPECT_EQ(take_log_text(),
              "0 ERROR: SNMP add failed: Min/Max Value is Incorrect: 1,5 it's count must be equal "
              "to: 2 but now is 1\n"
              "0 ERROR: SNMP add failed: Min/Max Value is Incorrect: 1,2;3,4;5,6 it's count must "
              "be equal to: 2 but now is 3\n"
              "0 ERROR: SNMP add failed: Min/Max Value is Incorrect: 1,2 it's count must be equal "
              "to: 0 but now is 1\n");
}

TEST_F(snmpmon, without_limits_a_get_test_is_kept_with_a_message) {
    wanted w;
    w.limits = nullptr;
    EXPECT_NE(made(w).find("[1.3.6] min none max none"), std::string::npos);
    w.limits = "";
    EXPECT_NE(made(w).find("[1.3.6] min none max none"), std::string::npos);
    EXPECT_EQ(take_log_text(), "0 INFO: make_snmp_def: Min/Max Value is incorrect: (null)\n"
                               "0 INFO: make_snmp_def: Min/Max Value is incorrect: \n");
}

TEST_F(snmpmon, table_and_walk_tests_have_one_oid_and_others_none) {
    wanted w;
    w.oids = "1.3;6";
    w.limits = "nonsense;";
    for (int type : {1, 3}) {
        w.type = type;
        EXPECT_EQ(made(w), "mode 0 1 2 161 1 3 4 " + std::to_string(type) +
                               " 0 1 1.3;6 192.0.2.1 public null null null null null null [] min "
                               "none max none");
    }
    w.type = 4;
    EXPECT_NE(made(w).find(" 4 0 1 null 192.0.2.1"), std::string::npos);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, host_and_oids_are_required) {
    wanted w;
    w.host = nullptr;
    EXPECT_EQ(make(w), nullptr);
    w = {};
    w.oids = nullptr;
    EXPECT_EQ(make(w), nullptr);
    EXPECT_EQ(take_log_text(),
              "0 ERROR: make_snmp_def: v_host = (null) v_oid_string = 1.3.6\n"
              "0 ERROR: make_snmp_def: v_host = 192.0.2.1 v_oid_string = (null)\n");
}

TEST_F(snmpmon, a_community_or_a_login_with_its_password_is_required) {
    wanted w;
    w.community = nullptr;
    EXPECT_EQ(make(w), nullptr);
    w.login = "joe";
    EXPECT_EQ(make(w), nullptr);
    w.login = nullptr;
    w.passwd = "secret";
    EXPECT_EQ(make(w), nullptr);
    EXPECT_EQ(take_log_text(),
              "0 ERROR: make_snmp_def: v_community = (null) v_login = (null) v_passwd = (null)\n"
              "0 ERROR: make_snmp_def: v_community = (null) v_login = joe v_passwd = (null)\n"
              "0 ERROR: make_snmp_def: v_community = (null) v_login = (null) v_passwd = secret\n");
}

TEST_F(snmpmon, a_login_goes_neither_with_a_community_nor_with_version_1) {
    wanted w;
    w.version = 3;
    w.login = "joe";
    EXPECT_EQ(make(w), nullptr);
    w.login = nullptr;
    w.passwd = "secret";
    EXPECT_EQ(make(w), nullptr);
    w = {};
    w.community = nullptr;
    w.login = "joe";
    w.passwd = "secret";
    w.version = 1;
    EXPECT_EQ(make(w), nullptr);
    EXPECT_EQ(take_log_text(),
              "0 ERROR: make_snmp_def: v_login = joe v_passwd = (null) v_community = public "
              "v_version = 3\n"
              "0 ERROR: make_snmp_def: v_login = (null) v_passwd = secret v_community = public "
              "v_version = 3\n"
              "0 ERROR: make_snmp_def: v_login = joe v_passwd = secret v_community = (null) "
              "v_version = 1\n");
    w.version = 2; /* makes no sense, and is let through */
    w.privpasswd = "private";
    w.authproto = "md5";
    w.privproto = "des";
    EXPECT_EQ(made(w), "mode 0 1 2 161 1 3 4 2 0 1 null 192.0.2.1 null joe secret private md5 des "
                       "null [1.3.6] min 1 max 2");
}

TEST_F(snmpmon, versions_become_those_of_the_library_and_time_outs_at_least_a_second) {
    const std::pair<int, int> versions[] = {{1, 0}, {2, 1}, {3, 3}, {7, 1}, {0, 1}, {-1, 1}};
    for (auto [version, expected] : versions) {
        wanted w;
        w.version = version;
        snmp_def* d = make(w);
        EXPECT_EQ(d->version, expected) << version;
        free_snmp_def(&d);
        EXPECT_EQ(d, nullptr);
    }
    const std::pair<int, int> timeouts[] = {{-1, 1}, {0, 1}, {1, 1}, {2, 2}, {INT_MAX, INT_MAX}};
    for (auto [timeout, expected] : timeouts) {
        wanted w;
        w.timeout = timeout;
        snmp_def* d = make(w);
        EXPECT_EQ(d->timeout, expected) << timeout;
        free_snmp_def(&d);
    }
}

TEST_F(snmpmon, a_copy_is_deep_and_has_mode_0) {
    wanted w;
    w.mode = 9;
    w.oids = "1.3;1.4;1.5";
    w.limits = "1,5;x;-2,9";
    w.version = 3;
    w.community = nullptr;
    w.login = "joe";
    w.passwd = "secret";
    w.privpasswd = "private";
    w.authproto = "sha";
    w.privproto = "aes";
    snmp_def* d = make(w);
    d->address = strdup("192.0.2.9");
    snmp_def* copied = snmp_def_dup(d);
    d->mode = 0;
    d->isFirstCheck = 1;
    std::string expected = show(d);
    free_snmp_def(&d);
    EXPECT_EQ(show(copied), expected);
    copied->isFirstCheck = 0;
    snmp_def* again = snmp_def_dup(copied);
    EXPECT_EQ(again->isFirstCheck, 0);
    free_snmp_def(&copied);
    free_snmp_def(&again);
    EXPECT_EQ(snmp_def_dup(nullptr), nullptr);
    free_snmp_def(&d);
    free_snmp_def(nullptr);

    w = {};
    w.type = 1;
    w.limits = nullptr;
    d = make(w);
    copied = snmp_def_dup(d);
    EXPECT_EQ(show(copied), show(d));
    free_snmp_def(&copied);
    free_snmp_def(&d);
}

/* --- the list --------------------------------------------------------------------------------- */

TEST_F(snmpmon, adding_shows_the_whole_test_and_wakes_the_worker) {
    unsigned wakes = wakes_of(snmp_checker);
    wanted w;
    w.tid = 0;
    w.type = 1;
    w.bulk = 6;
    w.version = 3;
    w.community = nullptr;
    w.login = "joe";
    w.passwd = "secret";
    w.privpasswd = "private";
    w.authproto = "md5";
    w.privproto = "des";
    w.timeout = -5;
    add(w);
    EXPECT_EQ(wakes_of(snmp_checker), wakes + 1);
    EXPECT_EQ(take_log_text(),
              "5 INFO: NEW SNMP TEST:\nTest ID:       0\nLocation ID:   2\nOID:           1.3.6\n"
              "OID length:    0\nHost:          192.0.2.1\nPort:          161\nVersion:       3\n"
              "Timeout:       1\nReries:        4\nCommunity:     (null)\nLogin:         joe\n"
              "Password:      secret\nPriv. Pass:    private\nAuth. Prot.:   md5\n"
              "Priv. Prot.:   des\nRequest Type:  1\nBulk:          6\n\n\n\n");
    EXPECT_EQ(list_text(), "mode 0 0 2 161 3 1 4 1 6 1 1.3.6 192.0.2.1 null joe secret private md5 "
                           "des null [] min none max none\n");
    EXPECT_EQ(is_new_snmp(0), 0);
    EXPECT_EQ(is_new_snmp(1), 1);
}

TEST_F(snmpmon, an_id_that_is_present_and_a_definition_that_is_refused_add_nothing) {
    add({});
    take_log();
    std::string before = list_text();
    unsigned wakes = wakes_of(snmp_checker);
    wanted w;
    w.host = "192.0.2.2";
    add(w);
    w.tid = 2;
    w.community = nullptr;
    add(w);
    EXPECT_EQ(list_text(), before);
    EXPECT_EQ(wakes_of(snmp_checker), wakes);
    EXPECT_EQ(take_log_text(),
              "0 INFO: snmp_lib_status = 1 v_tid = 1\n"
              "0 ERROR: make_snmp_def: v_community = (null) v_login = (null) v_passwd = (null)\n"
              "0 INFO: make_snmp_def result is NULL\n");
}

TEST_F(snmpmon, modifying_replaces_the_test_in_its_place) {
    for (int tid : {1, 2, 3}) {
        wanted w;
        w.tid = tid;
        add(w);
    }
    run_pass();
    take_results();
    take_log();
    unsigned wakes = wakes_of(snmp_checker);
    wanted w;
    w.tid = 2;
    w.type = 3;
    w.oids = "1.9";
    w.host = "192.0.2.2";
    mod(w);
    EXPECT_EQ(wakes_of(snmp_checker), wakes + 1);
    const std::string rest =
        " 192.0.2.1 public null null null null null null [1.3.6] min 1 max 2\n";
    EXPECT_EQ(list_text(), "mode 0 1 2 161 1 3 4 2 0 0 null" + rest +
                               "mode 0 2 2 161 1 3 4 3 0 1 1.9 192.0.2.2 public null null null "
                               "null null null [] min none max none\n"
                               "mode 0 3 2 161 1 3 4 2 0 0 null" +
                               rest);
    std::string before = list_text();
    w.tid = 4;
    mod(w);
    w.tid = 2;
    w.host = nullptr;
    mod(w);
    EXPECT_EQ(list_text(), before);
    EXPECT_EQ(wakes_of(snmp_checker), wakes + 1);
    EXPECT_EQ(take_log_text(), "0 ERROR: make_snmp_def: v_host = (null) v_oid_string = 1.9\n");
}

TEST_F(snmpmon, removing_closes_the_gap_without_a_word) {
    for (int tid : {1, 2, 3}) {
        wanted w;
        w.tid = tid;
        add(w);
    }
    take_log();
    unsigned wakes = wakes_of(snmp_checker);
    rem_snmp(9);
    rem_snmp(1);
    EXPECT_EQ(is_new_snmp(1), 1);
    EXPECT_EQ(list_text().substr(0, 8), "mode 0 2");
    rem_snmp(3);
    rem_snmp(2);
    rem_snmp(2);
    EXPECT_EQ(list_text(), "");
    EXPECT_EQ(wakes_of(snmp_checker), wakes);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, without_the_library_nothing_changes) {
    add({});
    take_log();
    add_snmp_result(c("12"), 2);
    snmp_lib_status = 0;
    std::string before = list_text();
    wanted w;
    w.tid = 2;
    add(w);
    mod(w);
    w.tid = 1;
    w.host = "192.0.2.2";
    mod(w);
    w.host = nullptr;
    mod(w);
    rem_snmp(1);
    add_snmp_result(c("34"), 2);
    shutdown_snmp_checker();
    char* out = c("untouched");
    int length = -3;
    EXPECT_EQ(get_snmp_results(&out, &length), 0);
    EXPECT_STREQ(out, "untouched");
    EXPECT_EQ(list_text(), before);
    EXPECT_EQ(take_log_text(), "0 INFO: snmp_lib_status = 0 v_tid = 2\n");
    EXPECT_EQ(take_notes(), "");
    snmp_lib_status = 1;
    add_snmp_result(nullptr, 3);
    add_snmp_result(c("56"), 0);
    EXPECT_EQ(take_results(), "12");
    EXPECT_EQ(get_snmp_results(&out, &length), 0);
    EXPECT_EQ(length, -3);
}

/* --- passes ----------------------------------------------------------------------------------- */

TEST_F(snmpmon, every_kind_of_test_calls_its_check_and_walks_send_nothing) {
    int tid = 0;
    for (int type : {1, 2, 3, 4}) {
        for (int bulk : {0, 5}) {
            wanted w;
            w.tid = ++tid;
            w.type = type;
            w.bulk = bulk;
            w.oids = "x";
            add(w);
            run_pass();
            EXPECT_EQ(take_results(), type == 1   ? bulk ? "bulk table x" : "table x"
                                      : type == 2 ? "get x"
                                                  : "")
                << type << " " << bulk;
            rem_snmp(tid);
        }
    }
    EXPECT_EQ(page->bulk_walks, 1);
    EXPECT_EQ(page->children, 6) << "an unknown kind asks nothing";
}

TEST_F(snmpmon, the_first_result_of_a_test_is_sent_at_once) {
    add({});
    run_pass();
    EXPECT_EQ(wake_ups, 1);
    run_pass();
    EXPECT_EQ(wake_ups, 1);
    wanted w;
    w.type = 3; /* a walk too, which has none */
    mod(w);
    run_pass();
    EXPECT_EQ(wake_ups, 2);
    w.tid = 2;
    w.host = "name";
    add(w);
    run_pass();
    run_pass();
    EXPECT_EQ(wake_ups, 3);
    EXPECT_EQ(take_results(), "get 1.3.6get 1.3.6");
}

TEST_F(snmpmon, a_result_is_in_the_buffer_before_the_poll_loop_is_woken) {
    for (const char* host : {"192.0.2.1", "name"}) {
        wanted w;
        w.host = host;
        add(w);
        int before = wake_ups;
        do_snmp_check();
        EXPECT_TRUE(eventually([before] { return wake_ups > before; }));
        EXPECT_EQ(take_results(), "get 1.3.6");
        wait_for_threads();
        rem_snmp(1);
    }
}

TEST_F(snmpmon, tests_share_a_thread_and_names_get_one_while_they_are_looked_up) {
    do_snmp_check();
    EXPECT_EQ(threads, 0) << "nothing to do, no thread";
    for (int tid = 1; tid <= 5; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "address";
        add(w);
    }
    run_pass();
    EXPECT_EQ(threads, 1);
    EXPECT_EQ(page->children, 5);
    EXPECT_EQ(take_notes(), "") << "an address is not looked up";
    take_results();
    wanted w;
    w.tid = 6;
    w.oids = "address";
    w.host = "name";
    add(w);
    run_pass();
    EXPECT_EQ(threads, 1 + 1 + 1);
    EXPECT_EQ(detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(take_notes(), "resolve name\n");
}

TEST_F(snmpmon, tests_by_name_hold_no_threads_while_they_are_silent) {
    const int tests = 20, passes = 3;
    for (int tid = 1; tid <= tests; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "hang";
        w.host = "name";
        add(w);
    }
    for (int pass = 1; pass <= passes; pass++) {
        do_snmp_check();
    }
    EXPECT_TRUE(eventually([] { return page->children == tests * passes && running == passes; }));
    let_go_on();
    wait_for_threads();
    EXPECT_EQ(take_results().size(), tests * passes * strlen("get hang"));
}

TEST_F(snmpmon, a_single_test_has_a_thread_that_waits_for_its_child) {
    wanted w;
    w.host = "name";
    snmp_single_thread(make(w));
    EXPECT_EQ(take_results(), "get 1.3.6");
    EXPECT_EQ(wake_ups, 1);
    EXPECT_EQ(threads, 1);
    EXPECT_EQ(waiter_stack, WORKER_STACK_SIZE);
    EXPECT_EQ(take_notes(), "resolve name\n");
    wait_for_threads();
}

TEST_F(snmpmon, a_name_is_looked_up_for_the_child) {
    const char* const hosts[][2] = {
        {"name", "name 127.9.8.7"},        {"name6", "name6 2001:db8::1"},
        {"127.1", "127.1 127.9.8.7"},      {"nowhere", "nowhere "},
        {"192.0.2.1", "192.0.2.1 null"},   {"", " null"},
        {"udp6:[::1]", "udp6:[::1] null"},
    };
    for (auto [host, expected] : hosts) {
        wanted w;
        w.host = host;
        w.oids = "address";
        add(w);
        run_pass();
        EXPECT_EQ(take_results(), expected);
        take_notes();
        snmp_def* query = make(w);
        char* text = nullptr;
        int length = 0;
        EXPECT_EQ(get_snmp_values(query, &text, &length), 0);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text, static_cast<size_t>(length)), expected);
        free(text);
        const std::string name = host, looked_up = take_notes();
        snmp_def* asked = make(w);
        const bool needed = snmp_needs_lookup(asked) != 0;
        free_snmp_def(&asked);
        EXPECT_EQ(needed,
                  name == "name" || name == "name6" || name == "nowhere" || name == "127.1");
        if (needed) {
            const bool twice = name == "name6" || name == "nowhere";
            EXPECT_EQ(looked_up,
                      "resolve " + name + (twice ? "\nresolve " + name + " as IPv6\n" : "\n"));
        } else {
            EXPECT_EQ(looked_up, "");
        }
        rem_snmp(1);
    }
}

TEST_F(snmpmon, a_query_keeps_its_mode_and_hands_its_text_to_the_caller) {
    wanted w;
    w.mode = 1;
    w.oids = "mode";
    char* text = nullptr;
    int length = 0;
    EXPECT_EQ(get_snmp_values(make(w), &text, &length), 0);
    EXPECT_EQ(std::string(text, static_cast<size_t>(length)), "1");
    free(text);
    text = c("untouched");
    length = -3;
    for (const char* what : {"none", "crash", "killed"}) {
        w.oids = what;
        EXPECT_EQ(get_snmp_values(make(w), &text, &length), 0);
        EXPECT_STREQ(text, "untouched");
        EXPECT_EQ(length, -3);
    }
    fork_fails = true;
    EXPECT_EQ(get_snmp_values(make(w), &text, &length), 0);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(take_results(), "");
    EXPECT_EQ(wake_ups, 0) << "no test of the server";
    EXPECT_EQ(take_log_text(), "");
    wait_for_threads(); /* the waiters */
}

TEST_F(snmpmon, a_child_that_dies_loses_its_own_result_only) {
    int tid = 0;
    for (const char* what : {"crash", "a", "killed", "none", "b"}) {
        for (const char* host : {"192.0.2.1", "name"}) {
            wanted w;
            w.tid = ++tid;
            w.oids = what;
            w.host = host;
            add(w);
        }
    }
    take_log();
    run_pass();
    std::string results = take_results();
    EXPECT_EQ(results.size(), strlen("get a") * 4);
    EXPECT_EQ(page->children, 10);
    EXPECT_EQ(wake_ups, 10);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, a_child_ends_with_status_1) {
    add({});
    run_pass();
    EXPECT_TRUE(WIFEXITED(last_status));
    EXPECT_EQ(WEXITSTATUS(last_status), 1);
}

TEST_F(snmpmon, a_long_result_comes_whole) {
    for (const char* host : {"192.0.2.1", "name"}) {
        wanted w;
        w.oids = "long";
        w.host = host;
        add(w);
        run_pass();
        EXPECT_EQ(take_results(), std::string(1000000, 'x'));
        rem_snmp(1);
    }
}

TEST_F(snmpmon, no_lock_is_held_while_children_run) {
    for (const char* host : {"192.0.2.1", "name"}) {
        page->may_go_on = page->hung_child = 0;
        wanted w;
        w.oids = "hang";
        w.host = host;
        add(w);
        w.tid = 2;
        w.oids = "quick";
        w.host = "192.0.2.1";
        add(w);
        do_snmp_check();
        EXPECT_TRUE(eventually([] { return page->hung_child != 0; }));
        EXPECT_TRUE(eventually([] { return result_length() > 0; }));
        EXPECT_EQ(take_results(), "get quick") << "others do not wait for it";
        EXPECT_TRUE(is_free(SNMP_MON_MUTEX));
        rem_snmp(1);
        rem_snmp(2);
        let_go_on();
        wait_for_threads();
        EXPECT_EQ(take_results(), "get hang") << "as it was when the pass began";
    }
}

TEST_F(snmpmon, results_come_and_children_are_reaped_while_a_pass_still_forks) {
    int tid = 0;
    for (const char* what : {"first", "hang", "last"}) {
        wanted w;
        w.tid = ++tid;
        w.oids = what;
        add(w);
    }
    before_fork = [](int number) {
        if (number == 2) {
            EXPECT_TRUE(eventually([] { return has_ended(first_child); }));
        } else if (number == 3) {
            EXPECT_EQ(take_results(), "get first");
            EXPECT_EQ(wake_ups, 1);
            EXPECT_TRUE(is_reaped(first_child));
        }
    };
    do_snmp_check();
    EXPECT_TRUE(eventually([] { return forks == 3 && result_length() > 0; }));
    let_go_on();
    wait_for_threads();
    EXPECT_EQ(take_results(), "get lastget hang");
}

TEST_F(snmpmon, a_child_that_is_killed_is_reaped_while_a_pass_still_forks) {
    int tid = 0;
    for (const char* what : {"killed", "a", "b"}) {
        wanted w;
        w.tid = ++tid;
        w.oids = what;
        add(w);
    }
    before_fork = [](int number) {
        if (number == 2) {
            EXPECT_TRUE(eventually([] { return has_ended(first_child); }));
        } else if (number == 3) {
            EXPECT_TRUE(is_reaped(first_child));
        }
    };
    run_pass();
    EXPECT_EQ(take_results().size(), 2 * strlen("get a"));
}

TEST_F(snmpmon, children_that_take_long_to_end_hold_nothing_up_and_are_reaped) {
    const int tests = 5;
    for (int tid = 1; tid <= tests; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "quick";
        add(w);
    }
    pid_t expected = 0;
    before_fork = [&expected](int number) {
        if (number == 1) {
            lingering = INT_MAX;
        } else if (number == 2) {
            EXPECT_TRUE(eventually([] { return has_ended(first_child); }));
            expected = first_child;
        } else if (number == tests) {
            EXPECT_FALSE(is_reaped(expected));
        }
    };
    run_pass();
    EXPECT_EQ(forks, tests);
    EXPECT_EQ(take_results().size(), tests * strlen("get quick"));
    EXPECT_FALSE(has_children());
}

TEST_F(snmpmon, a_test_whose_pipe_cannot_be_watched_is_left_out) {
    int tid = 0;
    for (const char* what : {"a", "b", "c"}) {
        wanted w;
        w.tid = ++tid;
        w.oids = what;
        add(w);
    }
    unwatchable = 1;
    run_pass();
    EXPECT_EQ(forks, 2);
    EXPECT_EQ(take_results().size(), 2 * strlen("get a"));
    run_pass();
    EXPECT_EQ(take_results().size(), 3 * strlen("get a"));
}

TEST_F(snmpmon, a_test_has_64_checks_under_way_at_most) {
    for (const char* host : {"192.0.2.1", "name"}) {
        page->may_go_on = page->children = 0;
        wanted w;
        w.host = host;
        w.oids = "hang";
        add(w);
        w.tid = 2;
        w.oids = "quick";
        add(w);
        take_log();
        for (int pass = 1; pass <= 66; pass++) {
            do_snmp_check();
            EXPECT_TRUE(
                eventually([pass] { return result_length() >= pass * strlen("get quick"); }));
        }
        EXPECT_TRUE(eventually([] { return page->children == 64 + 66; }));
        EXPECT_EQ(take_log_text(),
                  "0 SNMP test 1: 64 checks are under way, one more is left out.\n");
        take_results();
        w.tid = 1;
        w.oids = "changed";
        mod(w);
        do_snmp_check();
        EXPECT_TRUE(eventually([] { return result_length() >= strlen("get quick"); }));
        let_go_on();
        wait_for_threads();
        take_results();
        EXPECT_EQ(page->children, 64 + 67) << "it is still the same test";
        int before = wake_ups;
        run_pass();
        EXPECT_EQ(take_results().size(), strlen("get quick") + strlen("get changed"));
        EXPECT_EQ(wake_ups, before + 1) << "its first check is the one that was made";
        rem_snmp(1);
        rem_snmp(2);
    }
}

TEST_F(snmpmon, a_check_that_cannot_begin_is_not_counted) {
    for (const char* host : {"192.0.2.1", "name"}) {
        wanted w;
        w.host = host;
        add(w);
        take_log();
        for (int pass = 0; pass < 65; pass++) {
            create_error = EAGAIN;
            run_pass();
            create_error = 0;
            fork_fails = true;
            run_pass();
            fork_fails = false;
            unwatchable = 1; /* of a name: the pipe of the lookups */
            run_pass();
            no_lookups = w.host[0] == 'n';
            run_pass();
            no_lookups = false;
            take_results();
            descriptors_left none(0);
            run_pass();
        }
        take_results();
        run_pass();
        EXPECT_EQ(take_results(), "get 1.3.6");
        EXPECT_EQ(take_log_text(), "");
        rem_snmp(1);
    }
}

TEST_F(snmpmon, where_no_thread_is_to_be_had_tests_are_left_out) {
    add({});
    wanted w;
    w.tid = 2;
    w.host = "name";
    add(w);
    take_log();
    create_error = EAGAIN;
    run_pass();
    EXPECT_EQ(page->children, 0);
    create_error = 0;
    run_pass();
    EXPECT_EQ(take_results(), "get 1.3.6get 1.3.6");
    EXPECT_EQ(wake_ups, 0) << "the first check was the one that failed";
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, a_failed_fork_loses_the_result) {
    add({});
    wanted w;
    w.tid = 2;
    w.host = "name";
    add(w);
    take_log();
    fork_fails = true;
    run_pass();
    EXPECT_EQ(forks, 2);
    EXPECT_EQ(take_results(), "");
    EXPECT_EQ(wake_ups, 0);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, without_descriptors_results_are_lost) {
    add({});
    wanted w;
    w.tid = 2;
    w.host = "name";
    add(w);
    {
        descriptors_left one(1);
        run_pass();
    }
    EXPECT_EQ(forks, 0);
    EXPECT_EQ(take_results(), "");
}

TEST_F(snmpmon, more_tests_than_descriptors_lose_what_has_none) {
    const int tests = 64;
    for (int tid = 1; tid <= tests; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "hang";
        add(w);
    }
    {
        descriptors_left few(8);
        do_snmp_check();
        EXPECT_TRUE(eventually([] { return pipes_wanted == tests && forks == page->children; }));
        let_go_on();
        wait_for_threads();
    }
    size_t got = take_results().size() / strlen("get hang");
    EXPECT_GT(got, 1u);
    EXPECT_LT(got, 9u);
}

TEST_F(snmpmon, silent_tests_leave_descriptors_to_others) {
    const int tests = 100;
    for (int tid = 1; tid <= tests; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "hang";
        add(w);
    }
    {
        descriptors_left some(100);
        do_snmp_check();
        EXPECT_TRUE(eventually([] { return pipes_wanted == tests && forks == page->children; }));
        EXPECT_GT(forks, 50);
        EXPECT_TRUE(eventually([] {
            std::vector<unique_fd> of_others;
            for (int i = 0; i < 25; i++) {
                of_others.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
            }
            return std::ranges::all_of(of_others,
                                       [](const unique_fd& fd) { return fd.get() >= 0; });
        }));
        let_go_on();
        wait_for_threads();
    }
}

TEST_F(snmpmon, a_limit_lowered_meanwhile_loses_nothing) {
    const int tests = 8;
    for (int tid = 1; tid <= tests; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "hang";
        add(w);
    }
    do_snmp_check();
    EXPECT_TRUE(eventually([] { return page->children == tests; }));
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit fewer_than_pipes = {tests / 2, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &fewer_than_pipes);
    let_go_on();
    wait_for_threads();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(take_results().size(), tests * strlen("get hang"));
}

TEST_F(snmpmon, attributes_that_fail_skip_the_pass) {
    add({});
    take_log();
    attr_error = ENOMEM;
    run_pass();
    attr_error = 0;
    detach_error = EINVAL;
    run_pass();
    detach_error = 0;
    EXPECT_EQ(take_log_text(), "0 ERROR:\tpthread_attr_init returns: 12\n"
                               "0 ERROR:\tpthread_attr_setdetachstate returns: 22\n");
    EXPECT_EQ(threads, 0);
    run_pass();
    EXPECT_EQ(wake_ups, 1) << "the first check is still to come";
}

TEST_F(snmpmon, five_hundred_tests_in_one_round) {
    for (int tid = 1; tid <= 500; tid++) {
        wanted w;
        w.tid = tid;
        w.oids = "hang";
        w.host = tid % 10 == 0 ? "name" : "192.0.2.1";
        add(w);
    }
    take_log();
    do_snmp_check();
    EXPECT_TRUE(eventually([] { return page->children == 500; }));
    let_go_on();
    wait_for_threads();
    EXPECT_EQ(take_results().size(), 500 * strlen("get hang"));
    EXPECT_EQ(wake_ups, 500);
    EXPECT_EQ(take_log_text(), "");
}

/* --- the child -------------------------------------------------------------------------------- */

TEST_F(snmpmon, a_child_is_a_fresh_process) {
    struct sigaction ours = {}, segv, hup, pipe;
    ours.sa_handler = [](int) {};
    sigaction(SIGSEGV, &ours, &segv);
    sigaction(SIGHUP, &ours, &hup);
    ours.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ours, &pipe);
    wanted w;
    w.oids = "process";
    add(w);
    w.tid = 2;
    w.host = "name";
    add(w);
    take_log();
    run_pass();
    const std::string process = "leader 1 default 1 pipe 1 blocked 0 death " +
                                std::to_string(SIGKILL) + " log -1 waiting 0";
    EXPECT_EQ(take_results(), process + process);
    EXPECT_TRUE(signals_held) << "while it was forked";
    EXPECT_EQ(log_level, 6);
    char* text = nullptr;
    int length = 0;
    get_snmp_values(make(w), &text, &length);
    EXPECT_EQ(std::string(text, static_cast<size_t>(length)), process);
    free(text);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGHUP), 0) << "blocked for the fork only";
    sigaction(SIGSEGV, &segv, nullptr);
    sigaction(SIGHUP, &hup, nullptr);
    sigaction(SIGPIPE, &pipe, nullptr);
}

TEST_F(snmpmon, a_child_keeps_the_standard_streams_and_its_pipe_only) {
    for (bool without : {false, true}) {
        no_close_range = without;
        unique_fd low(open("/dev/zero", O_RDONLY));
        unique_fd high(fcntl(low.get(), F_DUPFD, 100));
        for (const char* host : {"192.0.2.1", "name"}) {
            wanted w;
            w.oids = "descriptors";
            w.host = host;
            add(w);
            run_pass();
            std::string kept = take_results();
            EXPECT_EQ(kept.find("/dev/zero"), std::string::npos) << kept;
            size_t pipes = 0, above = 0;
            for (size_t line = 0; line < kept.size(); line = kept.find('\n', line) + 1) {
                bool standard = kept[line] < '3' && kept[line + 1] == ' ';
                above += !standard;
                pipes += !standard && kept.find(" pipe:", line) < kept.find('\n', line);
            }
            EXPECT_EQ(above, 1u) << kept;
            EXPECT_EQ(pipes, 1u) << kept;
            rem_snmp(1);
        }
    }
}

TEST_F(snmpmon, a_child_that_no_thread_waits_for_is_reaped_all_the_same) {
    wanted w;
    w.host = "name";
    no_waiters = true;
    snmp_single_thread(make(w));
    EXPECT_EQ(take_results(), "get 1.3.6");
    EXPECT_FALSE(has_children());
    no_waiters = false;
    stack_error = EINVAL;
    take_log();
    snmp_single_thread(make(w));
    EXPECT_EQ(take_results(), "get 1.3.6");
    EXPECT_FALSE(has_children());
    EXPECT_EQ(take_log_text(), "0 SNMP: Can not set pthread stack size.\n");
}

TEST_F(snmpmon, waiting_for_a_child) {
    pid_t child = fork();
    if (child == 0) {
        _exit(1);
    }
    wait4forked(child);
    wait_for_threads();
    EXPECT_EQ(threads, 1);
    EXPECT_FALSE(has_children());

    attr_error = ENOMEM;
    wait4forked(child);
    attr_error = 0;
    detach_error = EINVAL;
    wait4forked(child);
    detach_error = 0;
    stack_error = EINVAL;
    wait4forked(child);
    EXPECT_EQ(threads, 1);
    EXPECT_EQ(take_log_text(), "0 ERROR:\tpthread_attr_init returns: 12\n"
                               "0 ERROR:\tpthread_attr_setdetachstate returns: 22\n"
                               "0 SNMP: Can not set pthread stack size.\n");
}

/* --- pipes ------------------------------------------------------------------------------------ */

struct test_pipe {
    unique_fd read_end, write_end;
    test_pipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        read_end.reset(ends[0]);
        write_end.reset(ends[1]);
    }
};

TEST_F(snmpmon, pipes_carry_what_is_written_while_it_is_read) {
    for (size_t size : {1u, 4095u, 4096u, 4097u, 65536u, 300001u}) {
        test_pipe p;
        std::string sent(size, '\0');
        for (size_t i = 0; i < size; i++) {
            sent[i] = static_cast<char>(i * 7 + i / 251);
        }
        std::thread writer([&] {
            EXPECT_EQ(write_to_pipe(p.write_end.get(), sent.data(), static_cast<int>(size)), 1);
            p.write_end.reset();
        });
        char* got = nullptr;
        int length = 0;
        EXPECT_EQ(read_from_pipe(p.read_end.get(), &got, &length), 1);
        writer.join();
        EXPECT_TRUE(std::string(got, static_cast<size_t>(length)) == sent) << size;
        free(got);
    }
}

TEST_F(snmpmon, reading_appends_to_the_results_when_nobody_takes_the_bytes) {
    test_pipe p;
    EXPECT_EQ(write_to_pipe(p.write_end.get(), c("abc"), 3), 1);
    EXPECT_EQ(write_to_pipe(p.write_end.get(), c("def"), 0), 1);
    EXPECT_EQ(write_to_pipe(p.write_end.get(), nullptr, 5), 1);
    p.write_end.reset();
    EXPECT_EQ(read_from_pipe(p.read_end.get(), nullptr, nullptr), 1);
    EXPECT_EQ(take_results(), "abc");
    char* got = c("untouched");
    int length = -3;
    EXPECT_EQ(read_from_pipe(p.read_end.get(), &got, &length), 0);
    EXPECT_STREQ(got, "untouched");
    EXPECT_EQ(length, -3);
    EXPECT_EQ(read_from_pipe(p.read_end.get(), nullptr, nullptr), 0);
    EXPECT_EQ(read_from_pipe(-1, nullptr, nullptr), 0);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(snmpmon, writing_fails_when_there_is_no_reader_or_no_pipe) {
    signal(SIGPIPE, SIG_IGN);
    test_pipe p;
    p.read_end.reset();
    EXPECT_EQ(write_to_pipe(p.write_end.get(), c("abc"), 3), 0);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_EQ(write_to_pipe(-1, c("abc"), 3), 0);
    EXPECT_EQ(write_to_pipe(-1, c("abc"), 0), 1);
    EXPECT_EQ(take_log_text(),
              "0 Error 9 - Bad file descriptor\n0 Error 9 - Bad file descriptor\n");
    unique_fd wrong(open("/dev/null", O_RDONLY));
    EXPECT_EQ(write_to_pipe(wrong.get(), c("abc"), 3), 0);
    signal(SIGPIPE, SIG_DFL);
}

TEST_F(snmpmon, an_interrupted_wait_goes_on) {
    struct sigaction ours = {}, before;
    ours.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ours, &before);
    test_pipe p;
    std::string full(65536, 'x');
    ASSERT_EQ(write(p.write_end.get(), full.data(), full.size()), 65536);
    std::atomic<int> done{0};
    std::thread writer([&] {
        EXPECT_EQ(write_to_pipe(p.write_end.get(), c("end"), 3), 1);
        p.write_end.reset();
        done = 1;
    });
    test_pipe empty;
    std::thread reader([&] {
        EXPECT_EQ(read_from_pipe(empty.read_end.get(), nullptr, nullptr), 1);
        done++;
    });
    for (int i = 0; i < 20; i++) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(done, 0);
    EXPECT_EQ(write_to_pipe(empty.write_end.get(), c("late"), 4), 1);
    empty.write_end.reset();
    reader.join();
    char* got = nullptr;
    int length = 0;
    EXPECT_EQ(read_from_pipe(p.read_end.get(), &got, &length), 1);
    writer.join();
    EXPECT_EQ(length, 65539);
    free(got);
    EXPECT_EQ(take_results(), "late");
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(take_log_text(), "");
}

/* --- the lifecycle ---------------------------------------------------------------------------- */

TEST_F(snmpmon, without_the_library_there_is_no_checker) {
    library_found = 0;
    EXPECT_EQ(init_snmp_mon(), 0);
    library_found = 1;
    EXPECT_EQ(snmp_lib_status, 0);
    EXPECT_EQ(take_notes(), "init_snmp_lib\n");
    EXPECT_FALSE(snmp_checker.running);
}

TEST_F(snmpmon, the_texts_of_a_failed_start_are_those_of_the_ping_checker) {
    EXPECT_STREQ(snmp_checker.attr_message, "Pthread attribute initialization failed.");
    EXPECT_STREQ(snmp_checker.stack_message, "Can not set ping thread stack size.");
}

TEST_F(snmpmon, from_start_to_shutdown) {
    EXPECT_EQ(get_snmp_check_interval(), 31536000);
    ASSERT_EQ(init_snmp_mon(), 1);
    EXPECT_EQ(take_notes(), "init_snmp_lib\ninit_defaults\nstart Vindral_snmp\n");
    add({});
    EXPECT_TRUE(eventually([] { return wake_ups > 0; })) << "a new test causes a pass at once";
    EXPECT_EQ(take_results(), "get 1.3.6");
    EXPECT_TRUE(await_rest("snmp"));
    set_snmp_check_interval(60);
    EXPECT_EQ(get_snmp_check_interval(), 60);
    EXPECT_TRUE(eventually([] { return result_length() > 0; })) << "an interval too";
    EXPECT_EQ(take_results(), "get 1.3.6");
    wait_for_threads();
    add_snmp_result(c("unsent"), 6);
    shutdown_snmp_checker();
    EXPECT_EQ(get_snmp_check_interval(), -1);
    EXPECT_EQ(take_notes(), "shutdown Vindral_snmp\n");
    EXPECT_EQ(take_results(), "");
}

} // namespace
