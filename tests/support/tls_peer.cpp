#include "tls_peer.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

/* A peer that cannot be set up makes every test of it pointless. */
static void require(bool ok, const char* what) {
    if (!ok) {
        perror(what);
        abort();
    }
}

static SSL_CTX* make_server_context() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    require(key != nullptr && certificate != nullptr, "certificate");
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    require(X509_sign(certificate, key, EVP_sha256()) != 0, "certificate");

    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    require(context != nullptr && SSL_CTX_use_certificate(context, certificate) == 1 &&
                SSL_CTX_use_PrivateKey(context, key) == 1,
            "TLS context");
    X509_free(certificate);
    EVP_PKEY_free(key);
    return context;
}

/* One for all peers of the process. */
static SSL_CTX* server_context() {
    static SSL_CTX* const context = make_server_context();
    return context;
}

static int listen_on_loopback(int backlog, std::string* port) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    require(listener >= 0 && bind(listener, generic, size) == 0 && listen(listener, backlog) == 0 &&
                getsockname(listener, generic, &size) == 0,
            "listen");
    *port = std::to_string(ntohs(address.sin_port));
    return listener;
}

/* One accepted connection. */
struct tls_peer::link {
    int fd = -1;
    SSL* session = nullptr;
    ~link() {
        SSL_free(session);
        if (fd >= 0) {
            close(fd);
        }
    }
};

tls_peer::tls_peer(transport how, std::vector<conversation> script, SSL_CTX* context)
    : how_(how), context_(context), script_(std::move(script)), requests_(script_.size()) {
    listener_ = listen_on_loopback(16, &port_);
    require(pipe2(stop_pipe_, O_CLOEXEC) == 0, "pipe");
    if (how_ == tls && context_ == nullptr) {
        context_ = server_context();
    }
    thread_ = std::thread([this] { serve(); });
}

tls_peer::~tls_peer() {
    {
        std::lock_guard hold(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    close(stop_pipe_[1]);
    thread_.join();
    close(stop_pipe_[0]);
    close(listener_);
}

template <typename T>
bool tls_peer::await(T condition) {
    std::unique_lock hold(mutex_);
    return changed_.wait_for(hold, std::chrono::seconds(30), condition);
}

bool tls_peer::await_connections(int count) {
    return await([&] { return connections_ >= count; });
}

bool tls_peer::await_pauses(int count) {
    return await([&] { return pauses_ >= count; });
}

bool tls_peer::await_end() {
    return await([&] { return played_; });
}

void tls_peer::proceed() {
    std::lock_guard hold(mutex_);
    permits_++;
    changed_.notify_all();
}

std::string tls_peer::request(size_t connection) {
    std::lock_guard hold(mutex_);
    return requests_.at(connection);
}

int tls_peer::clean_client_ends() {
    std::lock_guard hold(mutex_);
    return clean_ends_;
}

int tls_peer::naming_clients() {
    std::lock_guard hold(mutex_);
    return naming_clients_;
}

/* False when the test is over. */
bool tls_peer::wait_for(int fd, short events) {
    pollfd waited[] = {{fd, events, 0}, {stop_pipe_[0], POLLIN, 0}};
    while (poll(waited, 2, -1) < 0 && errno == EINTR) {
    }
    return waited[1].revents == 0;
}

void tls_peer::serve() {
    for (size_t i = 0; i < script_.size() && wait_for(listener_, POLLIN); i++) {
        link l;
        l.fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        int on = 1;
        setsockopt(l.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        {
            std::lock_guard hold(mutex_);
            connections_++;
        }
        changed_.notify_all();
        if (how_ == tcp || shake_hands(l)) {
            play(l, script_[i], i);
        }
    }
    std::lock_guard hold(mutex_);
    played_ = true;
    changed_.notify_all();
}

void tls_peer::play(link& l, const conversation& steps, size_t number) {
    for (const peer::step& step : steps) {
        switch (step.what) {
        case peer::action::take_request: {
            std::string request = read_request(l);
            std::lock_guard hold(mutex_);
            requests_[number] = std::move(request);
            break;
        }
        case peer::action::take_rest: {
            char room[4096];
            while (read_some(l, room, sizeof room) > 0) {
            }
            if (l.session != nullptr && (SSL_get_shutdown(l.session) & SSL_RECEIVED_SHUTDOWN)) {
                std::lock_guard hold(mutex_);
                clean_ends_++;
            }
            break;
        }
        case peer::action::send:
            write_all(l, step.bytes);
            break;
        case peer::action::pause: {
            std::unique_lock hold(mutex_);
            pauses_++;
            changed_.notify_all();
            changed_.wait(hold, [this] { return permits_ > 0 || stopping_; });
            permits_--;
            break;
        }
        case peer::action::end_clean:
        case peer::action::end_dirty:
        case peer::action::reset:
            end(l, step.what);
            return;
        }
    }
}

/* What a TLS call that did not succeed wants to wait for; 0 when it has failed. */
static short awaited_by(SSL* session, int result) {
    switch (SSL_get_error(session, result)) {
    case SSL_ERROR_WANT_READ:
        return POLLIN;
    case SSL_ERROR_WANT_WRITE:
        return POLLOUT;
    default:
        return 0;
    }
}

bool tls_peer::shake_hands(link& l) {
    l.session = SSL_new(context_);
    SSL_set_fd(l.session, l.fd);
    for (;;) {
        int done = SSL_accept(l.session);
        if (done == 1) {
            std::lock_guard hold(mutex_);
            naming_clients_ += SSL_get_servername(l.session, TLSEXT_NAMETYPE_host_name) != nullptr;
            return true;
        }
        short awaited = awaited_by(l.session, done);
        if (awaited == 0 || !wait_for(l.fd, awaited)) {
            return false;
        }
    }
}

/* The number of bytes read, 0 or less at the end. */
long tls_peer::read_some(link& l, char* room, size_t size) {
    for (;;) {
        long got;
        short awaited = POLLIN;
        if (l.session != nullptr) {
            got = SSL_read(l.session, room, static_cast<int>(size));
            awaited = got > 0 ? 0 : awaited_by(l.session, static_cast<int>(got));
        } else {
            got = recv(l.fd, room, size, 0);
            awaited = got < 0 && errno == EAGAIN ? POLLIN : 0;
        }
        if (awaited == 0) {
            return got;
        }
        if (!wait_for(l.fd, awaited)) {
            return -1;
        }
    }
}

void tls_peer::write_all(link& l, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        long put;
        short awaited = POLLOUT;
        if (l.session != nullptr) {
            put = SSL_write(l.session, bytes.data(), static_cast<int>(bytes.size()));
            awaited = put > 0 ? 0 : awaited_by(l.session, static_cast<int>(put));
        } else {
            put = ::send(l.fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            awaited = put < 0 && errno == EAGAIN ? POLLOUT : 0;
        }
        if (put > 0) {
            done += static_cast<size_t>(put);
        } else if (awaited == 0 || !wait_for(l.fd, awaited)) {
            return;
        }
    }
}

std::string tls_peer::read_request(link& l) {
    static const char length_name[] = "Content-Length: ";
    std::string request;
    size_t expected = std::string::npos;
    while (request.size() < expected) {
        char room[4096];
        long got = read_some(l, room, sizeof room);
        if (got <= 0) {
            break;
        }
        request.append(room, static_cast<size_t>(got));
        size_t head = request.find("\r\n\r\n");
        if (head != std::string::npos) {
            size_t length = request.find(length_name);
            expected =
                head + 4 +
                (length < head ? strtoul(&request[length + sizeof length_name - 1], nullptr, 10)
                               : 0);
        }
    }
    return request;
}

void tls_peer::end(link& l, peer::action how) {
    if (how == peer::action::end_clean && l.session != nullptr) {
        SSL_shutdown(l.session);
    }
    if (how == peer::action::reset) {
        linger at_once = {1, 0};
        setsockopt(l.fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    close(l.fd);
    l.fd = -1;
}

full_listener::full_listener() {
    listener_ = listen_on_loopback(0, &port_);
    filler_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    sockaddr* generic = reinterpret_cast<sockaddr*>(&address);
    require(getsockname(listener_, generic, &size) == 0 && connect(filler_, generic, size) == 0,
            "connect");
    pollfd queued = {listener_, POLLIN, 0};
    require(poll(&queued, 1, -1) == 1, "poll");
}

full_listener::~full_listener() {
    close(filler_);
    close(listener_);
}

std::string closed_port() {
    std::string port;
    close(listen_on_loopback(1, &port));
    return port;
}

static std::vector<std::string> list_directory(const char* path) {
    DIR* dir = opendir(path);
    require(dir != nullptr, path);
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            names.push_back(entry->d_name);
        }
    }
    closedir(dir);
    return names;
}

int count_descriptors() {
    return static_cast<int>(list_directory("/proc/self/fd").size()) - 1; /* opendir's own */
}

int count_threads(const std::string& name) {
    int count = 0;
    for (const std::string& id : list_directory("/proc/self/task")) {
        std::string found;
        std::ifstream("/proc/self/task/" + id + "/comm") >> found; /* gone by now: empty */
        count += found == name;
    }
    return count;
}
