#include "snmpmon_query.h"

#include "bytes.h"
#include "resolve.h"
#include "snmpmon_results.h"
#include "thread_start.h"
#include "vindral_log.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/wait.h>

static const size_t CHUNK = 4096;     /* most bytes that one read asks for */
static const int TURNS_PER_FORK = 16; /* CHUNKs, as much as a pipe holds */
static const rlim_t DESCRIPTORS_OF_OTHERS = 64;

/* --- the text of a query --------------------------------------------------------------------- */

static bytes query_text() {
    return bytes(CHUNK, INT_MAX);
}

enum class read_outcome { more, ended };

/* Reads once. What cannot be kept whole is dropped: half a record would spoil those behind it. */
static read_outcome read_chunk(int fd, bytes& text) {
    if (!text.reserve(CHUNK)) {
        text.cut(0);
        return read_outcome::ended;
    }
    ssize_t got = read(fd, text.end(), CHUNK);
    if (got == 0 || (got < 0 && !try_again(errno))) {
        return read_outcome::ended;
    }
    text.added(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return read_outcome::more;
}

static void read_all(int fd, bytes& text) {
    int ready;
    do {
        ready = wait_pipe(fd, POLLIN);
    } while ((ready > 0 && read_chunk(fd, text) == read_outcome::more) ||
             (ready < 0 && errno == EINTR));
}

int read_from_pipe(int fd, char** buffer, int* buffer_len) {
    bytes text = query_text();
    read_all(fd, text);
    if (text.is_empty()) {
        return 0;
    }
    int length = static_cast<int>(text.size());
    if (buffer != nullptr && buffer_len != nullptr) {
        *buffer = text.release();
        *buffer_len = length;
    } else {
        add_snmp_result(text.data(), length);
    }
    return 1;
}

/* --- one query ------------------------------------------------------------------------------- */

int snmp_needs_lookup(const snmp_def* def) {
    in_addr address;
    const char* host = def->host;
    return host != nullptr && *host != '\0' && strchr(host, ':') == nullptr &&
           inet_pton(AF_INET, host, &address) != 1;
}

/* The first address of the family, numeric; null when there is none. */
static char* look_up(const char* name, int family) {
    addrinfo hints = {};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (resolve_host(name, nullptr, &hints, &list) != 0) {
        return nullptr;
    }
    host_addresses found(list);
    char text[NI_MAXHOST] = "";
    getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return strdup(text);
}

/* Where the name leads, empty when there is no such host. IPv6 is for hosts without IPv4, as the
 * library has it. */
static char* find_address(const char* name) {
    for (int family : {AF_INET, AF_INET6}) {
        if (char* address = look_up(name, family)) {
            return address;
        }
    }
    return strdup("");
}

static void reap(pid_t child) {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void* forkwait_thread(void* arg) {
    heap<pid_t> child(static_cast<pid_t*>(arg));
    reap(*child);
    return nullptr;
}

/* False when the child is left to the caller. */
static bool start_waiter(pid_t child) {
    static constexpr thread_kind WAITER = {
        .detached = true,
        .log = leveledadd2log,
        .attr_message = "ERROR:\tpthread_attr_init returns: %d",
        .detach_message = "ERROR:\tpthread_attr_setdetachstate returns: %d",
        .stack_message = "SNMP: Can not set pthread stack size."};
    heap<pid_t> arg(static_cast<pid_t*>(malloc(sizeof(pid_t))));
    if (!arg) {
        return false;
    }
    *arg = child;
    if (thread_start(WAITER, forkwait_thread, arg.get()) != 0) {
        return false;
    }
    (void)arg.release();
    return true;
}

void wait4forked(pid_t p) {
    start_waiter(p);
}

namespace {

struct running_query {
    snmp_def** test = nullptr; /* the caller's */
    pid_t child = -1;
    unique_fd pipe; /* its read end; none when the query is over or was never begun */
    bytes text = query_text();
};

} // namespace

/* Whether the others still get descriptors when this one is kept: the lowest is given out first. */
static bool leaves_enough(int fd) {
    rlimit limit;
    return getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
           static_cast<rlim_t>(fd) <
               limit.rlim_cur - std::min(DESCRIPTORS_OF_OTHERS, limit.rlim_cur / 4);
}

/* False when there are no descriptors but those that the agent needs to reach its server. */
static bool make_pipe(unique_fd& read_end, unique_fd& write_end) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    unique_fd first(ends[0]), second(ends[1]);
    if (!leaves_enough(first.get())) {
        return false;
    }
    read_end = std::move(first);
    write_end = std::move(second);
    return true;
}

/* Starts the child. Without one there is no pipe. */
static void begin_query(running_query& q) {
    unique_fd write_end;
    if (!make_pipe(q.pipe, write_end)) {
        return;
    }
    q.child = fork_snmp_child(*q.test, write_end.get());
    if (q.child < 0) {
        q.pipe.reset();
    }
}

/* Makes one query and takes its text as read_from_pipe does. False when there was no child. */
static bool make_one_query(snmp_def* def, char** buffer, int* buffer_len) {
    if (snmp_needs_lookup(def)) {
        free(def->address);
        def->address = find_address(def->host);
    }
    running_query q;
    q.test = &def;
    begin_query(q);
    if (!q.pipe) {
        return false;
    }
    bool waited_for = start_waiter(q.child);
    read_from_pipe(q.pipe.get(), buffer, buffer_len);
    q.pipe.reset();
    if (!waited_for) {
        reap(q.child);
    }
    return true;
}

void* snmp_single_thread(void* arg) {
    auto* def = static_cast<snmp_def*>(arg);
    if (make_one_query(def, nullptr, nullptr) && def->isFirstCheck == 1) {
        fresh_results();
    }
    end_snmp_check(&def);
    return nullptr;
}

int get_snmp_values(snmp_def* def_snmp, char** buffer, int* buffer_len) {
    make_one_query(def_snmp, buffer, buffer_len);
    free_snmp_def(&def_snmp);
    return 0;
}

/* --- many queries at once -------------------------------------------------------------------- */

namespace {

/* The queries of a pass, one for each of its tests. */
struct query_round {
    std::unique_ptr<running_query[]> queries;
    unique_fd watcher; /* of the pipes, by the number of the query */
    int open = 0;      /* pipes */
    /* Numbers of those whose children have closed their pipes, which is the last thing they do. */
    std::unique_ptr<int[]> ending;
    int ending_count = 0;
    /* Numbers of those whose hosts' names have been looked up, as ints. */
    unique_fd looked_up, to_looked_up;
    int lookups = 0; /* not yet read from there */
};

/* Owned by the thread that makes it. */
struct name_lookup {
    snmp_def* test; /* the round's, which leaves it alone until it has read the number */
    int number;
    int to;
};

} // namespace

static const uint32_t LOOKED_UP = UINT32_MAX; /* that pipe's number at the watcher */

/* False without memory or a descriptor. */
static bool make_query_round(query_round& round, int count) {
    round.queries.reset(new (std::nothrow) running_query[count]);
    round.ending.reset(new (std::nothrow) int[count]);
    round.watcher.reset(epoll_create1(EPOLL_CLOEXEC));
    return round.queries && round.ending && round.watcher;
}

/* A closed pipe stays watched as long as a child that was forked meanwhile has a copy of it. */
static void stop_watching(query_round& round, running_query& q) {
    epoll_ctl(round.watcher.get(), EPOLL_CTL_DEL, q.pipe.get(), nullptr);
    q.pipe.reset();
}

/* Starts the child of a query whose pipe is watched. False when any of them is not to be had. */
static bool begin_watched(query_round& round, int number) {
    running_query& q = round.queries[number];
    unique_fd write_end;
    if (!make_pipe(q.pipe, write_end)) {
        return false;
    }
    epoll_event of_pipe = {EPOLLIN, {.u32 = static_cast<uint32_t>(number)}};
    if (epoll_ctl(round.watcher.get(), EPOLL_CTL_ADD, q.pipe.get(), &of_pipe) != 0) {
        q.pipe.reset();
        return false;
    }
    q.child = fork_snmp_child(*q.test, write_end.get());
    if (q.child < 0) {
        stop_watching(round, q);
        return false;
    }
    round.open++;
    return true;
}

static void finish_query(query_round& round, int number) {
    running_query& q = round.queries[number];
    add_snmp_result(q.text.data(), static_cast<int>(q.text.size()));
    q.text.take();
    stop_watching(round, q);
    round.open--;
    round.ending[round.ending_count++] = number;
    if ((*q.test)->isFirstCheck == 1) {
        fresh_results();
    }
}

static void* lookup_thread(void* arg) {
    heap<name_lookup> lookup(static_cast<name_lookup*>(arg));
    free(lookup->test->address);
    lookup->test->address = find_address(lookup->test->host);
    while (write(lookup->to, &lookup->number, sizeof lookup->number) < 0 && errno == EINTR) {
    }
    return nullptr;
}

/* The pipe on which threads report that they have looked a name up. Reading does not wait; writing
 * does, for then there is more in it than the round has read. */
static bool make_lookup_pipe(query_round& round) {
    int ends[2];
    if (round.looked_up) {
        return true;
    }
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    unique_fd read_end(ends[0]), write_end(ends[1]);
    epoll_event of_pipe = {EPOLLIN, {.u32 = LOOKED_UP}};
    if (fcntl(read_end.get(), F_SETFL, O_NONBLOCK) != 0 ||
        epoll_ctl(round.watcher.get(), EPOLL_CTL_ADD, read_end.get(), &of_pipe) != 0) {
        return false;
    }
    round.looked_up = std::move(read_end);
    round.to_looked_up = std::move(write_end);
    return true;
}

/* Has a thread look the host up, after which the query begins. False when there is none. */
static bool begin_lookup(query_round& round, int number) {
    static constexpr thread_kind LOOKUP = {.stack_size = 0, .detached = true};
    heap<name_lookup> lookup(static_cast<name_lookup*>(malloc(sizeof(name_lookup))));
    if (!lookup || !make_lookup_pipe(round)) {
        return false;
    }
    *lookup = {*round.queries[number].test, number, round.to_looked_up.get()};
    if (thread_start(LOOKUP, lookup_thread, lookup.get()) != 0) {
        return false;
    }
    (void)lookup.release();
    round.lookups++;
    return true;
}

static void begin(query_round& round, snmp_def** test, int number) {
    running_query& q = round.queries[number];
    q.test = test;
    if (!(snmp_needs_lookup(*test) ? begin_lookup(round, number) : begin_watched(round, number))) {
        end_snmp_check(test);
    }
}

/* Those whose names have been looked up meanwhile. */
static void begin_looked_up(query_round& round) {
    int numbers[64];
    ssize_t got = read(round.looked_up.get(), numbers, sizeof numbers);
    for (ssize_t i = 0; i < got / static_cast<ssize_t>(sizeof(int)); i++) {
        round.lookups--;
        if (!begin_watched(round, numbers[i])) {
            end_snmp_check(round.queries[numbers[i]].test);
        }
    }
}

/* Reads once from each pipe that is ready; -1 waits for one. False when none was. */
static bool collect(query_round& round, int timeout_ms) {
    epoll_event ready[64];
    int count = epoll_wait(round.watcher.get(), ready, std::size(ready), timeout_ms);
    for (int i = 0; i < count; i++) {
        if (ready[i].data.u32 == LOOKED_UP) {
            begin_looked_up(round);
            continue;
        }
        const int number = static_cast<int>(ready[i].data.u32);
        running_query& q = round.queries[number];
        if (read_chunk(q.pipe.get(), q.text) == read_outcome::ended) {
            finish_query(round, number);
        }
    }
    return count > 0;
}

/* Those that have ended; the others wait for a processor to end on. */
static void reap_ended(query_round& round) {
    for (int i = 0; i < round.ending_count;) {
        running_query& q = round.queries[round.ending[i]];
        if (waitpid(q.child, nullptr, WNOHANG) == 0) {
            i++;
        } else {
            end_snmp_check(q.test);
            round.ending[i] = round.ending[--round.ending_count];
        }
    }
}

static void reap_all(query_round& round) {
    while (round.ending_count > 0) {
        running_query& q = round.queries[round.ending[--round.ending_count]];
        reap(q.child);
        end_snmp_check(q.test);
    }
}

/* Begins all queries, and between two of them takes what has come without waiting for more. */
static void make_queries(snmp_def** tests, int count) {
    query_round round;
    if (!make_query_round(round, count)) {
        return;
    }
    for (int i = 0; i < count; i++) {
        begin(round, &tests[i], i);
        for (int turns = 0; turns < TURNS_PER_FORK && collect(round, 0); turns++) {
        }
        reap_ended(round);
    }
    while (round.open > 0 || round.lookups > 0) {
        collect(round, -1);
        reap_all(round);
    }
    reap_all(round);
}

void free_snmp_round(snmp_round** p) {
    snmp_round* round = *p;
    for (int i = 0; i < round->count; i++) {
        end_snmp_check(&round->tests[i]);
    }
    free(round->tests);
    free(round);
    *p = nullptr;
}

void* snmp_round_thread(void* arg) {
    auto* round = static_cast<snmp_round*>(arg);
    make_queries(round->tests, round->count);
    free_snmp_round(&round);
    return nullptr;
}
