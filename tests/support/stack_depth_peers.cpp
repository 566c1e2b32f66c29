#include "stack_depth_peers.h"

#include "snmp_agent.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static void require(bool ok, const char* what) {
    if (!ok) {
        perror(what);
        abort();
    }
}

static void put_over(const char* path, const char* text) {
    std::string own = std::string("/tmp/stack_depth_") + std::to_string(getpid());
    std::ofstream(own) << text;
    require(mount(own.c_str(), path, nullptr, MS_BIND, nullptr) == 0, path);
    unlink(own.c_str());
}

bool leave_for_own_network() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    put_over("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    put_over("/etc/nsswitch.conf", "hosts: files dns\n");
    return system("ip link set lo up && ip link add depth0 type veth peer name depth1 &&"
                  "ip link set depth0 up && ip link set depth1 up &&"
                  "ip address add 10.98.0.1/24 dev depth0") == 0;
}

/* --- certificates --------------------------------------------------------------------------------
 */

static X509* certify(EVP_PKEY* key, const char* name, X509* issuer, EVP_PKEY* issuer_key,
                     const char* constraints, const char* names) {
    X509* certificate = X509_new();
    X509_set_version(certificate, X509_VERSION_3);
    static long serial = 0;
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer ? issuer : certificate));
    for (auto [kind, value] :
         {std::pair(NID_basic_constraints, constraints), std::pair(NID_subject_alt_name, names)}) {
        if (value != nullptr) {
            X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
            X509_add_ext(certificate, extension, -1);
            X509_EXTENSION_free(extension);
        }
    }
    require(X509_sign(certificate, issuer_key, EVP_sha256()) != 0, "certificate");
    return certificate;
}

/* A share of one for all chains and their three certificates: making one of 4096 bits takes its
 * time. */
static EVP_PKEY* rsa_key() {
    static const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(4096),
                                                                         EVP_PKEY_free);
    EVP_PKEY_up_ref(key.get());
    return key.get();
}

SSL_CTX* chain_context(const char* kind, const std::string& ca_file) {
    EVP_PKEY* key = kind == std::string("RSA") ? rsa_key() : EVP_EC_gen("P-256");
    require(key != nullptr, "key");
    X509* root = certify(key, "Root", nullptr, key, "critical,CA:TRUE", nullptr);
    X509* authority = certify(key, "Authority", root, key, "critical,CA:TRUE", nullptr);
    X509* server = certify(key, "localhost", authority, key, nullptr, "DNS:localhost");
    if (!ca_file.empty()) {
        FILE* file = fopen(ca_file.c_str(), "w");
        require(file != nullptr && PEM_write_X509(file, root) == 1 && fclose(file) == 0, "CA file");
    }
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    require(SSL_CTX_use_certificate(context, server) == 1 &&
                SSL_CTX_use_PrivateKey(context, key) == 1 &&
                SSL_CTX_add1_chain_cert(context, authority) == 1,
            "TLS context");
    for (X509* certificate : {root, authority, server}) {
        X509_free(certificate);
    }
    EVP_PKEY_free(key);
    return context;
}

/* --- sockets -------------------------------------------------------------------------------------
 */

static int open_socket(int kind, int* port) {
    int fd = socket(AF_INET, kind | SOCK_CLOEXEC, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(*port));
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    require(fd >= 0 && bind(fd, generic, size) == 0 &&
                (kind != SOCK_STREAM || listen(fd, 16) == 0) &&
                getsockname(fd, generic, &size) == 0,
            "socket");
    *port = ntohs(address.sin_port);
    return fd;
}

void served::start(void (*answer)(int fd), int first, int second) {
    fds_[0] = first;
    fds_[1] = second;
    require(pipe(stop_pipe_) == 0, "pipe");
    thread_ = std::thread([this, answer] {
        pollfd waited[] = {{stop_pipe_[0], POLLIN, 0}, {fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}};
        while (poll(waited, 3, -1) > 0 && waited[0].revents == 0) {
            for (int i : {1, 2}) {
                if (waited[i].revents != 0) {
                    answer(waited[i].fd);
                }
            }
        }
    });
}

served::~served() {
    close(stop_pipe_[1]);
    thread_.join();
    for (int fd : {stop_pipe_[0], fds_[0], fds_[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

/* The bytes of a literal, zeros included. */
template <size_t N>
static std::string raw(const char (&text)[N]) {
    return {text, N - 1};
}

/* --- names ---------------------------------------------------------------------------------------
 */

static const size_t DNS_HEADER = 12;

/* To a question with one name, as it came. */
static std::string dns_answer(const std::string& question, bool cut_short) {
    const bool wants_ipv4 = question[question.size() - 3] == 1;
    const int addresses = cut_short || !wants_ipv4 ? 0 : 60;
    std::string answer = question;
    answer[2] = static_cast<char>(cut_short ? 0x87 : 0x85); /* response, authoritative, cut short */
    answer[3] = static_cast<char>(0x80);
    answer[7] = static_cast<char>(addresses > 0 ? addresses + 1 : 0);
    answer[11] = 0; /* nothing additional */
    if (addresses > 0) {
        /* The name asked for, at offset 12, is an alias of "alias" below itself. */
        answer += raw("\xc0\x0c\0\5\0\1\0\0\0\0\0\x8\5alias\xc0\x0c");
    }
    const auto alias = static_cast<uint16_t>(0xc000 + question.size() + 12);
    for (int i = 0; i < addresses; i++) {
        answer += {static_cast<char>(alias >> 8), static_cast<char>(alias)};
        answer += raw("\0\1\0\1\0\0\0\0\0\4\x7f\0\0\1");
    }
    return answer;
}

/* The header and the question alone: what a resolver adds behind them is not answered. */
static std::string only_question(const char* bytes) {
    size_t end = DNS_HEADER;
    while (bytes[end] != '\0') {
        end += static_cast<unsigned char>(bytes[end]) + 1;
    }
    return {bytes, end + 5};
}

static bool is_datagram(int fd) {
    int kind = 0;
    socklen_t size = sizeof kind;
    getsockopt(fd, SOL_SOCKET, SO_TYPE, &kind, &size);
    return kind == SOCK_DGRAM;
}

static void answer_name(int fd) {
    char bytes[600] = "";
    if (is_datagram(fd)) {
        sockaddr_in peer = {};
        socklen_t size = sizeof peer;
        auto* generic = reinterpret_cast<sockaddr*>(&peer);
        if (recvfrom(fd, bytes, sizeof bytes - 1, 0, generic, &size) >
            static_cast<ssize_t>(DNS_HEADER)) {
            std::string answer = dns_answer(only_question(bytes), true);
            sendto(fd, answer.data(), answer.size(), 0, generic, size);
        }
        return;
    }
    int peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    /* Two bytes of length before each message. */
    while (recv(peer, bytes, 2, MSG_WAITALL) == 2) {
        size_t length = static_cast<size_t>(static_cast<unsigned char>(bytes[0]) << 8 |
                                            static_cast<unsigned char>(bytes[1]));
        if (length >= sizeof bytes || recv(peer, bytes, length, MSG_WAITALL) <= 0) {
            break;
        }
        std::string answer = dns_answer(only_question(bytes), false);
        answer.insert(0, {static_cast<char>(answer.size() >> 8), static_cast<char>(answer.size())});
        send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    close(peer);
}

name_server::name_server() {
    int port = 53;
    int udp = open_socket(SOCK_DGRAM, &port);
    start(answer_name, udp, open_socket(SOCK_STREAM, &port));
}

/* --- MySQL ---------------------------------------------------------------------------------------
 */

static void send_packet(int fd, unsigned char number, const std::string& body) {
    std::string packet = {static_cast<char>(body.size()), static_cast<char>(body.size() >> 8),
                          static_cast<char>(body.size() >> 16), static_cast<char>(number)};
    packet += body;
    send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
}

/* False when the client has gone. */
static bool take_packet(int fd, std::string& body) {
    unsigned char head[4];
    if (recv(fd, head, sizeof head, MSG_WAITALL) != sizeof head) {
        return false;
    }
    body.resize(static_cast<size_t>(head[0] | head[1] << 8 | head[2] << 16));
    return body.empty() ||
           recv(fd, body.data(), body.size(), MSG_WAITALL) == static_cast<ssize_t>(body.size());
}

static std::string counted(const std::string& text) {
    return std::string(1, static_cast<char>(text.size())) + text;
}

static const std::string OK_PACKET = raw("\0\0\0\2\0\0\0"), END_PACKET = raw("\xfe\0\0\2\0");

static void send_rows(int fd) {
    unsigned char number = 1;
    send_packet(fd, number++, "\2");
    for (const char* name : {"Variable_name", "Value"}) {
        send_packet(fd, number++,
                    counted("def") + counted("") + counted("") + counted("") + counted(name) +
                        counted("") + raw("\x0c\x21\0\0\1\0\0\xfd\1\0\0\0\0"));
    }
    send_packet(fd, number++, END_PACKET);
    for (int i = 0; i < 100; i++) {
        send_packet(fd, number++, counted("name" + std::to_string(i)) + counted("1234"));
    }
    send_packet(fd, number++, counted("Uptime") + counted("99"));
    send_packet(fd, number++, END_PACKET);
}

static std::string public_key_text() {
    EVP_PKEY* key = EVP_RSA_gen(2048);
    BIO* memory = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(memory, key);
    char* text;
    long length = BIO_get_mem_data(memory, &text);
    std::string result(text, static_cast<size_t>(length));
    BIO_free(memory);
    EVP_PKEY_free(key);
    return result;
}

static void answer_mysql(int listener) {
    static const std::string key = public_key_text();
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    /* Version, thread, 8 bytes of salt, abilities (4.1 protocol, secure connection, plugins),
     * character set, state, 12 more bytes of salt. */
    send_packet(fd, 0,
                raw("\x0a"
                    "8.0.0\0\1\0\0\0saltsalt\0\x01\x82\x21\2\0\x08\0\x15"
                    "\0\0\0\0\0\0\0\0\0\0saltsaltsalt\0caching_sha2_password\0"));
    std::string body;
    /* Login; the whole exchange is asked for; the client asks for the key; it sends its password.
     */
    if (take_packet(fd, body)) {
        send_packet(fd, 2, "\1\4");
        if (take_packet(fd, body)) {
            send_packet(fd, 4, "\1" + key);
            if (take_packet(fd, body)) {
                send_packet(fd, 6, OK_PACKET);
            }
        }
    }
    while (take_packet(fd, body) && body[0] == 3) {
        body.find("SHOW") != std::string::npos ? send_rows(fd) : send_packet(fd, 1, OK_PACKET);
    }
    close(fd);
}

mysql_server::mysql_server() {
    start(answer_mysql, open_socket(SOCK_STREAM, &port_));
}

/* --- SNMP ----------------------------------------------------------------------------------------
 */

snmp_server::snmp_server() {
    int ready[2];
    require(pipe(ready) == 0, "pipe");
    pid_ = fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        snmp_agent agent(161);
        for (const char* system : {"1.3.6.1.2.1.1.1.0", "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"}) {
            agent.values[path_of(system)] = octets(std::string(200, 'x'));
        }
        const oid_path name = path_of("1.3.6.1.2.1.1.5.0");
        agent.values[path_of("1.3.6.1.2.1.1.2.0")] = object_id(name);
        for (int column : {2, 3}) {
            for (int row = 1; row <= 30; row++) {
                agent.values[path_of("1.3.6.1.4.1.99990.1.1." + std::to_string(column) + ".1." +
                                     std::to_string(row))] = octets("a value; or two");
            }
        }
        (void)!write(ready[1], "r", 1);
        agent.serve_on();
    }
    char byte;
    close(ready[1]);
    require(read(ready[0], &byte, 1) == 1, "the SNMP agent");
    close(ready[0]);
}

snmp_server::~snmp_server() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}
