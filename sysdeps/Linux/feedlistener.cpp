#include "feedlistener.h"

#include "bytes.h"
#include "checker.h"
#include "feedlistener_frame.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_common.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <bit>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

static const int BACKLOG = 128;
static const int CONNECTIONS_MOST = 256; /* of all listeners */
static const size_t BLOCKED_MOST = 64;   /* of one listener */
static const size_t FEED_CACHE_MOST = 16 * 1024 * 1024;
static const size_t RECEIVE_MOST = 4096;
static const size_t BUFFER_MOST = FRAME_MOST + RECEIVE_MOST;
static const size_t PATH_MOST = sizeof sockaddr_un::sun_path - 1;
static const char LOCAL_PEER[] = "localhost";
enum { DATA = 0, ERROR_TEXT = 1 };

/* How long a listener waits for a peer before it looks at its state, and before it starts again. */
static int listener_wait_ms = 10000;

template <>
struct test_ownership<tcp_server> {
    static void dispose(tcp_server* server) { free_tcp_server(server); }
};
template <>
struct test_ownership<unix_server> {
    static void dispose(unix_server* server) { free_unix_server(server); }
};
static constinit test_list<tcp_server, &tcp_server::tid> tcp_list; /* poll thread only */
static constinit test_list<unix_server, &unix_server::tid> unix_list;

static constinit mutex encoding_mutex{}; /* guards nothing but the memory of the machine */
static constinit mutex FEED_DATA_MUTEX{};
static char* feed_cach GUARDED_BY(FEED_DATA_MUTEX); /* NUL-terminated; null when empty */
static int feed_cach_len GUARDED_BY(FEED_DATA_MUTEX);
static bool feed_full GUARDED_BY(FEED_DATA_MUTEX); /* a line was dropped since the hand-over */

static std::atomic<int> connections; /* being served */

/* --- cache --- */

/* Bytes that a cache with so much text has been given: a power of two, so that lines cost no more
 * than their own length. */
static size_t cache_room(size_t length) {
    return std::bit_ceil(length + 1);
}

static void append_line(const char* line, size_t length) {
    lock hold(FEED_DATA_MUTEX);
    size_t before = static_cast<size_t>(feed_cach_len);
    size_t after = before + length;
    if (after >= FEED_CACHE_MOST) {
        if (!feed_full) {
            leveledadd2log(0, "WARNING: The feed cache is full, new results are dropped");
        }
        feed_full = true;
        return;
    }
    if (feed_cach == nullptr || cache_room(after) > cache_room(before)) {
        char* grown = static_cast<char*>(realloc(feed_cach, cache_room(after)));
        if (grown == nullptr) {
            return;
        }
        feed_cach = grown;
    }
    memcpy(feed_cach + before, line, length + 1);
    feed_cach_len = static_cast<int>(after);
}

int get_feed(char** p, int* l) {
    lock hold(FEED_DATA_MUTEX);
    *p = std::exchange(feed_cach, nullptr);
    *l = std::exchange(feed_cach_len, 0);
    feed_full = false;
    return 1;
}

char* get_feed_results() {
    char* text;
    int length;
    get_feed(&text, &length);
    return text;
}

static heap_text encode(const char* data, size_t length, const char* what) {
    heap_text encoded(get_URL_Encode(data, length));
    leveledadd2log(5, "%s: %s", what, encoded ? encoded.get() : "Encoding Failed");
    return encoded;
}

static heap_text encode_twice(const char* chunk, size_t length) {
    heap_text once = encode(chunk, length, "Url encoded chunk");
    return once ? encode(once.get(), strlen(once.get()), "Double Url encoded chunk") : nullptr;
}

void addchunk(char* chd, int chl, int tid, const char* incoming_host, int status_val) {
    if (chd == nullptr || chl < 1) {
        return;
    }
    leveledadd2log(5, "Added chunk size: %d", chl);
    lock one_at_a_time(encoding_mutex);
    heap_text encoded = encode_twice(chd, static_cast<size_t>(chl));
    if (!encoded) {
        return;
    }
    char* text = nullptr;
    int length = asprintf(&text, "%s\t%d\t%lu\t%s\t%s\t%d\n",
                          strcmp(incoming_host, LOCAL_PEER) == 0 ? "USV" : "TSV", tid,
                          static_cast<unsigned long>(now_in_seconds()), incoming_host,
                          encoded.get(), status_val);
    if (length < 0) {
        return;
    }
    heap_text line(text);
    leveledadd2log(5, "Adding new result: %s", line.get());
    append_line(line.get(), static_cast<size_t>(length));
}

static void add_error(int error, int tid, const char* peer) {
    char* text = strerror(error);
    addchunk(text, static_cast<int>(strlen(text)), tid, peer, ERROR_TEXT);
}

/* --- connections --- */

/* Adds the whole chunks and moves what is left to the front. Returns 0, or why the connection
 * cannot go on. */
static int take_chunks(bytes& in, int tid, const char* ip) {
    size_t taken = 0;
    feed_frame frame;
    int outcome;
    while ((outcome = read_frame(in.data() + taken, in.size() - taken, &frame)) == 0) {
        addchunk(frame.payload, static_cast<int>(frame.length), tid, ip, DATA);
        taken += frame.size;
    }
    in.drop_front(taken);
    return outcome == EAGAIN ? 0 : outcome;
}

/* Serves a connection until it ends. Returns the error to report, 0 for none. There are never
 * BUFFER_MOST bytes: a frame is taken out as soon as it is whole. */
static int receive_chunks(int peer, int tid, const char* ip) {
    bytes in(RECEIVE_MOST, BUFFER_MOST);
    for (;;) {
        if (!in.reserve(RECEIVE_MOST)) {
            leveledadd2log(0, "Can not Realloc more memory");
            return 0;
        }
        ssize_t received = recv(peer, in.end(), RECEIVE_MOST, 0);
        if (received == 0) {
            return 0;
        }
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        in.added(static_cast<size_t>(received));
        if (int error = take_chunks(in, tid, ip)) {
            return error;
        }
    }
}

/* The connection and what belongs to it end with this scope. */
static void serve_peer(heap<acc> handed) {
    heap_text ip(handed->ip);
    unique_fd peer(handed->peer);
    int tid = handed->tid;
    handed.reset();
    if (int error = receive_chunks(peer.get(), tid, ip.get())) {
        leveledadd2log(0, "Error while accepting a connection from %s, %s", ip.get(),
                       strerror(error));
        add_error(error, tid, ip.get());
    }
}

void* accepting(void* arg) {
    pthread_setname_np(pthread_self(), "feed peer");
    serve_peer(heap<acc>(static_cast<acc*>(arg)));
    connections--;
    return nullptr;
}

/* Hands the connection to a thread of its own; 0 or the error. */
static int start_connection(const pthread_attr_t& attributes, int tid, const char* ip,
                            unique_fd& peer) {
    heap_text copy(strdup(ip));
    heap<acc> handed(static_cast<acc*>(malloc(sizeof(acc))));
    if (!copy || !handed) {
        return ENOMEM;
    }
    *handed = {copy.get(), peer.get(), tid};
    pthread_t thread;
    int error = pthread_create(&thread, &attributes, accepting, handed.get());
    if (error == 0) {
        (void)copy.release();
        (void)handed.release();
        (void)peer.release();
    }
    return error;
}

static void serve(const pthread_attr_t& attributes, int tid, const char* ip, unique_fd peer) {
    if (connections++ >= CONNECTIONS_MOST) {
        connections--;
        leveledadd2log(0, "WARNING: A connection refused from %s, %d are open", ip,
                       CONNECTIONS_MOST);
        return;
    }
    int on = 1; /* a place must not be lost for good to a peer that vanished */
    setsockopt(peer.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    if (int error = start_connection(attributes, tid, ip, peer)) {
        connections--;
        leveledadd2log(0, "A connection thread for %s failed on start. %s", ip, strerror(error));
    }
}

/* --- listeners: where TCP and unix differ --- */

static bool must_rebind(tcp_server& server) {
    lock hold(server.u_mutex);
    return server.tcp_socket_state == 1;
}

static bool must_rebind(unix_server& server) {
    lock hold(server.u_mutex);
    return server.unix_socket_state == 1;
}

static int take_port(tcp_server& server) {
    lock hold(server.u_mutex);
    server.tcp_socket_state = 0;
    return server.port;
}

/* Both bind the socket and clear the state: 0, or -1 with errno. */
static int bind_socket(tcp_server& server, int socket_fd) {
    int port = take_port(server);
    if (port < 0 || port > UINT16_MAX) {
        errno = EINVAL;
        return -1;
    }
    int on = 1;
    setsockopt(socket_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return bind(socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

static sockaddr_un socket_file(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strnlen(path, PATH_MOST));
    return address;
}

static sockaddr_un take_path(unix_server& server) {
    lock hold(server.u_mutex);
    server.unix_socket_state = 0;
    return socket_file(server.unix_path);
}

static int bind_socket(unix_server& server, int socket_fd) {
    sockaddr_un address = take_path(server);
    unlink(address.sun_path);
    return bind(socket_fd, reinterpret_cast<const sockaddr*>(&address),
                static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path)));
}

static const char* peer_name(const tcp_server&, const sockaddr_in& from,
                             char (&text)[INET_ADDRSTRLEN]) {
    return inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
}

static const char* peer_name(const unix_server&, const sockaddr_in&, char (&)[INET_ADDRSTRLEN]) {
    return LOCAL_PEER;
}

static bool is_allowed(tcp_server& server, const char* ip) {
    lock hold(server.u_mutex);
    for (int i = 0; i < server.iplist_len; i++) {
        if (strcmp(server.iplist[i], ip) == 0) {
            return true;
        }
    }
    return server.iplist_len == 0;
}

static bool is_allowed(unix_server&, const char*) {
    return true;
}

/* --- listeners: what they share --- */

struct listener_kind {
    int family;
    const char *open_failed, *wait_failed, *restart; /* for the log */
};

/* The latest of those who are not allowed: connected, but not served. */
struct blocked_peers {
    unique_fd peers[BLOCKED_MOST];
    size_t next = 0;
};

static void keep_blocked(blocked_peers& blocked, unique_fd peer) {
    blocked.peers[blocked.next] = std::move(peer);
    blocked.next = (blocked.next + 1) % BLOCKED_MOST;
}

/* Accepts whoever waits. False when the listener must start again. */
template <typename Server>
static bool accept_peer(Server& server, int listening, blocked_peers& blocked) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    unique_fd peer(accept4(listening, reinterpret_cast<sockaddr*>(&from), &size, SOCK_CLOEXEC));
    if (!peer) {
        if (errno == EAGAIN) {
            return true; /* the peer thought better of it */
        }
        leveledadd2log(0, "Error accept failed: %d, %s", errno, strerror(errno));
        return false;
    }
    char text[INET_ADDRSTRLEN];
    const char* name = peer_name(server, from, text);
    if (is_allowed(server, name)) {
        serve(server.tattr, server.tid, name, std::move(peer));
    } else {
        leveledadd2log(0, "WARNING: A connection blocked from %s", name);
        keep_blocked(blocked, std::move(peer));
    }
    return true;
}

static int wait_for_peer(int listening) {
    pollfd wanted = {listening, POLLIN, 0};
    cancel_on may_end;
    return poll(&wanted, 1, listener_wait_ms);
}

/* Returns when the listener must start again. */
template <typename Server>
static void accept_peers(Server& server, const listener_kind& kind, int listening,
                         blocked_peers& blocked) {
    while (!must_rebind(server)) {
        int ready = wait_for_peer(listening);
        if (ready < 0 && errno != EINTR) {
            leveledadd2log(0, "%s: %d, %s", kind.wait_failed, errno, strerror(errno));
            return;
        }
        if (ready > 0 && !accept_peer(server, listening, blocked)) {
            return;
        }
    }
}

/* A new listening socket, or none with errno. It does not block, so that a peer that is gone again
 * cannot hold up accept. */
template <typename Server>
static unique_fd open_listener(Server& server, int family) {
    unique_fd listening(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (listening.get() == 0) {
        (void)listening.release(); /* counts as a failure, and keeps the place of standard input */
    }
    if (!listening || bind_socket(server, listening.get()) != 0 ||
        listen(listening.get(), BACKLOG) != 0) {
        return unique_fd();
    }
    return listening;
}

static void wait_for_restart() {
    timespec left = {listener_wait_ms / 1000, listener_wait_ms % 1000 * 1000000L};
    cancel_on may_end;
    while (nanosleep(&left, &left) != 0) {
    }
}

template <typename Server>
[[noreturn]] static void run_listener(Server& server, const listener_kind& kind) {
    cancel_off except_in_waits;
    blocked_peers blocked;
    for (;;) {
        if (unique_fd listening = open_listener(server, kind.family)) {
            accept_peers(server, kind, listening.get(), blocked);
            listening.reset();
            leveledadd2log(5, "%s", kind.restart);
        } else {
            int error = errno;
            leveledadd2log(0, "%s: %d, %s", kind.open_failed, error, strerror(error));
            add_error(error, server.tid, LOCAL_PEER);
        }
        wait_for_restart();
    }
}

void* run_tcp_server(void* arg) {
    static const listener_kind tcp = {AF_INET, "Error running TCP socket listener",
                                      "Error TCP socket listener",
                                      "INFO: TCP Socket listener will star after 10 seconds"};
    run_listener(*static_cast<tcp_server*>(arg), tcp);
}

void* run_unix_server(void* arg) {
    static const listener_kind local = {
        AF_UNIX, "Error running unix domain socket listener", "Error",
        "INFO: Unix Domain Socket listtener will star after 10 seconds"};
    run_listener(*static_cast<unix_server*>(arg), local);
}

/* Of the threads of connections. Cannot fail: glibc takes no memory for attributes. */
static void init_attributes(pthread_attr_t* attributes) {
    pthread_attr_init(attributes);
    pthread_attr_setstacksize(attributes, WORKER_STACK_SIZE);
    pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
}

/* 0 or the error. */
static int start_listener(pthread_t* handle, void* (*body)(void*), void* server, const char* name) {
    const thread_kind kind = {.name = name};
    return thread_start(kind, body, server, handle);
}

static void stop_listener(pthread_t handle) {
    pthread_cancel(handle);
    pthread_join(handle, nullptr);
}

/* --- TCP listeners --- */

static void free_ip_list(char** ip_list, int ip_list_len) {
    size_t count = static_cast<size_t>(ip_list_len);
    free_uparser_array(&ip_list, &count);
}

void free_tcp_server(tcp_server* server) {
    {
        lock hold(server->u_mutex);
        free_ip_list(server->iplist, server->iplist_len);
    }
    pthread_attr_destroy(&server->tattr);
    free(server);
}

static bool has_port(tcp_server& server, int port) {
    lock hold(server.u_mutex);
    return server.port == port;
}

static bool is_port_taken(int port) {
    for (tcp_server* server : tcp_list) {
        if (has_port(*server, port)) {
            return true;
        }
    }
    return false;
}

void add_tcp_server(int tid, int port, char** ip_list, int ip_list_len) {
    auto* server = static_cast<tcp_server*>(malloc(sizeof(tcp_server)));
    if (server == nullptr || tcp_list.find(tid) != nullptr || is_port_taken(port)) {
        free_ip_list(ip_list, ip_list_len);
        free(server);
        return;
    }
    *server = {.tid = tid,
               .iplist = ip_list,
               .iplist_len = ip_list_len,
               .port = port,
               .thread_id = 0,
               .tcp_socket_state = 1,
               .tattr = {}};
    init_attributes(&server->tattr);
    if (!tcp_list.adopt(server)) {
        return;
    }
    if (int error = start_listener(&server->thread_id, run_tcp_server, server, "feed tcp")) {
        leveledadd2log(0, "A new TCP port ( %d ) listener Service failed on start. %s", port,
                       strerror(error));
        tcp_list.remove(tid);
    }
}

void modify_tcp_server(int tid, int port, char** ip_list, int ip_list_len) {
    tcp_server* known = tcp_list.find(tid);
    if (tid == 0 || port == 0 || known == nullptr) {
        free_ip_list(ip_list, ip_list_len);
        return;
    }
    tcp_server& server = *known;
    lock hold(server.u_mutex);
    if (server.port != port) {
        server.port = port;
        server.tcp_socket_state = 1;
    }
    free_ip_list(server.iplist, server.iplist_len);
    server.iplist = ip_list;
    server.iplist_len = ip_list_len;
}

static void end_tcp_server(tcp_server* server) {
    stop_listener(server->thread_id);
    free_tcp_server(server);
}

void remove_tcp_server(int tid) {
    if (tcp_server* server = tid != 0 ? tcp_list.take(tid) : nullptr) {
        end_tcp_server(server);
    }
}

void remove_all_tcp_servers() {
    while (tcp_list.size() > 0) {
        end_tcp_server(tcp_list.take_at(tcp_list.size() - 1));
    }
}

/* --- unix listeners --- */

void free_unix_server(unix_server* server) {
    {
        lock hold(server->u_mutex);
        free(server->unix_path);
    }
    pthread_attr_destroy(&server->tattr);
    free(server);
}

static bool has_path(unix_server& server, const char* path) {
    lock hold(server.u_mutex);
    return strcmp(server.unix_path, path) == 0;
}

static bool is_path_taken(const char* path) {
    for (unix_server* server : unix_list) {
        if (has_path(*server, path)) {
            return true;
        }
    }
    return false;
}

void add_unix_server(int tid, char* us_path) {
    if (tid == 0 || us_path == nullptr || is_path_taken(us_path) ||
        unix_list.find(tid) != nullptr) {
        return;
    }
    heap_text path(strdup(us_path));
    auto* server = static_cast<unix_server*>(malloc(sizeof(unix_server)));
    if (!path || server == nullptr) {
        free(server);
        return;
    }
    *server = {.tid = tid,
               .unix_path = path.release(),
               .thread_id = 0,
               .unix_socket_state = 1,
               .tattr = {}};
    init_attributes(&server->tattr);
    if (!unix_list.adopt(server)) {
        return;
    }
    if (int error = start_listener(&server->thread_id, run_unix_server, server, "feed unix")) {
        leveledadd2log(0, "A new UNIX domain socket listener Service ( %s ) faild on start. %s",
                       us_path, strerror(error));
        unix_list.remove(tid);
    }
}

void modify_unix_server(int tid, char* new_upath) {
    unix_server* server = unix_list.find(tid);
    heap_text path(new_upath != nullptr ? strdup(new_upath) : nullptr);
    if (server == nullptr || !path) {
        return;
    }
    lock hold(server->u_mutex);
    free(server->unix_path);
    server->unix_path = path.release();
    server->unix_socket_state = 1;
}

static void end_unix_server(unix_server* server) {
    stop_listener(server->thread_id);
    unlink(take_path(*server).sun_path);
    free_unix_server(server);
}

void remove_unix_server(int tid) {
    if (unix_server* server = unix_list.take(tid)) {
        end_unix_server(server);
    }
}

void remove_all_unix_servers() {
    while (unix_list.size() > 0) {
        end_unix_server(unix_list.take_at(unix_list.size() - 1));
    }
}

int init_feed() {
    return 1;
}
