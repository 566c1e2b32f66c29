/* How much of its stack each kind of thread uses on this platform: the stack is painted, the thread
 * does the deepest that it can do, and the paint that is left is counted. The figures stand in
 * docs/architecture.md; this test fails when one of them leaves less than a quarter of the stack
 * that the kind has. As root the process has a network of its own, with a name server that it has
 * to ask twice and an SNMP agent on the standard port. */
#include "netmon.cpp"

#include "certificates.h"
#include "cpumon.h"
#include "diskmon.h"
#include "feedlistener.h"
#include "guards.h"
#include "httpmon.h"
#include "libsslloader.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "mysqlmon.h"
#include "mysqlmon_lib.h"
#include "ndismon.h"
#include "ping.h"
#include "pingmon.h"
#include "processmon.h"
#include "resolve.h"
#include "snmpmon.h"
#include "snmpmon_lib.h"
#include "stack_depth_peers.h"
#include "test_list.h"
#include "tls_peer.h"
#include "vindral_config.h"
#include "vindral_log.h"
#include "vindral_poll.h"

/* The library has a macro of the name of a constant of snmpmon.h. */
#include "snmp_agent.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

namespace {

namespace fs = std::filesystem;

const size_t ROOM = 1024 * 1024; /* enough not to overflow while measuring */
const size_t WORKER = 32768;
const unsigned char PAINT = 0xA5;

unsigned char* painted = nullptr; /* the stack that is being measured */
size_t* child_used = nullptr;     /* the most that a child forked there used; shared with them */
size_t last_child_used = 0;       /* of the last measurement, 0: no child */

size_t used_so_far() {
    size_t untouched = 0;
    while (untouched < ROOM && painted[untouched] == PAINT) {
        untouched++;
    }
    return ROOM - untouched;
}

/* Bytes of stack, the thread's own descriptor included, that `body` used, or a child that it forked
 * and that goes on there. `while_running` is called meanwhile and must see to it that the thread
 * ends. */
size_t measure(void* (*body)(void*), void* arg,
               const std::function<void(pthread_t)>& while_running = nullptr) {
    const int own = PROT_READ | PROT_WRITE;
    painted =
        static_cast<unsigned char*>(mmap(nullptr, ROOM, own, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memset(painted, PAINT, ROOM);
    child_used = static_cast<size_t*>(
        mmap(nullptr, sizeof *child_used, own, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, painted, ROOM);
    pthread_t thread;
    EXPECT_EQ(0, pthread_create(&thread, &attributes, body, arg));
    if (while_running) {
        while_running(thread);
    }
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    last_child_used = *child_used;
    size_t used = std::max(used_so_far(), last_child_used);
    munmap(child_used, sizeof *child_used);
    munmap(painted, ROOM);
    painted = nullptr;
    return used;
}

} // namespace

/* In place of the C library's: how the children of the agent end. */
extern "C" void _exit(int status) {
    if (painted != nullptr) {
        *child_used = std::max(*child_used, used_so_far());
    }
    syscall(SYS_exit_group, status);
    abort();
}

namespace {

class StackDepth : public testing::Test {
protected:
    fs::path place = fs::path(testing::TempDir()) / ("stack_depth." + std::to_string(getpid()));
    std::string log_path = (place / "log").string();

    static bool own_network;

    static void SetUpTestSuite() { own_network = leave_for_own_network(); }

    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "sanitizers use stack of their own; measured in release builds";
#endif
        signal(SIGPIPE, SIG_IGN);
        fs::create_directories(place / "bin");
        log_file = log_path.data();
        log_level = 6;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(place, ignored);
    }

    void expect_room(const char* kind, size_t used, size_t size = WORKER) {
        printf("%-24s %6zu of %7zu bytes, %2zu %%\n", kind, used, size, used * 100 / size);
        EXPECT_GT(used, 1000u); /* the measurement itself works */
        EXPECT_LE(used, size - size / 4) << kind;
    }

    /* A program first on PATH that prints this line. */
    void stub(const char* program, const char* line) {
        std::ofstream(place / "bin" / program) << "#!/bin/sh\necho '" << line << "'\n";
        fs::permissions(place / "bin" / program, fs::perms::owner_all);
        setenv("PATH", ((place / "bin").string() + ":" + getenv("PATH")).c_str(), 1);
    }

    /* What a checker's worker needs for a pass over the tests that it has. */
    static size_t worker_depth(void* (*worker)(void*), void (*set_interval)(int),
                               int (*get_results)(char**, int*)) {
        return measure(worker, nullptr, [&](pthread_t) {
            int size = 0;
            char* data = nullptr;
            set_interval(1);
            for (int i = 0; i < 60000 && !get_results(&data, &size); i++) {
                usleep(1000);
            }
            EXPECT_GT(size, 0);
            free(data);
            set_interval(-1);
        });
    }

    void wait_for_log(const std::string& text) {
        for (int i = 0; i < 60000; i++) {
            std::ifstream in(log_path);
            if (std::string(std::istreambuf_iterator<char>(in), {}).find(text) !=
                std::string::npos) {
                return;
            }
            usleep(1000);
        }
        FAIL() << "never logged: " << text;
    }

    size_t poll_depth(SSL_CTX* context);
    std::string write_identity(EVP_PKEY* key);
    size_t page_depth(SSL_CTX* context);
};

bool StackDepth::own_network = false;

struct free_context {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using tls_context = std::unique_ptr<SSL_CTX, free_context>;

} // namespace

size_t StackDepth::poll_depth(SSL_CTX* context) {
    EXPECT_EQ(1, init_log_file());
    EXPECT_EQ(1, init_ssl_variables());
    /* The second answer adds tests, so that the third poll collects; inventories come anyway. */
    std::string adds = "LAA\t1\t1\t1\t1\t1\nCUA\t1\t1\t1\t1\t1\t1\t1\n"
                       "MMA\t1\t1\t1\t1\t1\t1\t1\nDKA\t1\t1\t/(a|b)\t1\n"
                       "PRA\t1\t1\t1\t1\t1\tx\nNTA\t1\t1\teth0\t1\t1\t1\t1\t1\t1\n"
                       "HPA\t1\t1\th\t/\t80\tm\ta=b\tu\tp\t1\t1\t1\t1\t1\t1\n"
                       "PGA\t1\t1\th\t56\t1\t100\t1\n";
    std::string commands =
        "CHK\t0\t1000\nLAM\t1\t2\t3\t4\t5\nCUM\t1\t1\t1\t1\t1\t1\t1\n"
        "MMM\t1\t1\t1\t1\t1\t1\t1\nDKM\t1\t1\t/(a|b)\t1\t1\nPRM\t1\t1\t1\t1\t1\tx\n"
        "HPM\t1\t1\th\t/\t80\tm\ta=b\tu\tp\t1\t1\t1\t1\t1\t1\n"
        "PGM\t1\t1\th\t56\t1\t100\t1\nHPD\t1\nPGD\t1\t0\n"
        "NTM\t1\t1\teth0\t1\t1\t1\t1\t1\t1\nXYZ\nUPD\ta\tb\tc\n"
        "LAD\t1\t0\nCUD\t1\t0\nMMD\t1\t0\nDKD\t1\t0\nPRD\t1\t0\nNTD\t1\t0\nPOL\t0\t-1\n";
    auto answer = [](const std::string& headers, const std::string& body) {
        return peer::send("HTTP/1.0 200 OK\r\n" + headers +
                          "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    };
    tls_peer server(tls_peer::tls,
                    {{peer::take_request(), answer("Vnd-SessionID: s1\r\n", ""), peer::end_clean()},
                     {peer::take_request(), answer("", adds), peer::end_clean()},
                     {peer::take_request(), answer("", commands), peer::end_clean()}},
                    context);
    std::string host = "localhost", port = server.port(), email = "a@b", name = "n",
                home = place.string();
    alt_server = host.data();
    alt_port = port.data();
    user_email = email.data();
    agent_name = name.data();
    agent_home = home.data();
    std::string block(100000, 'x');
    add_to_cache(block.data(), block.size());
    std::ofstream(place / "bin" / "updater") << "#!/bin/sh\n";
    fs::permissions(place / "bin" / "updater", fs::perms::owner_all);
    set_poll_interval(1);
    size_t used = measure(main_worker_thread, nullptr);
    EXPECT_TRUE(server.await_end());
    free_cache_copy();
    alt_server = alt_port = user_email = agent_name = agent_home = nullptr;
    shutdown_log_writer();
    return used;
}

/* A file with the agent's certificate, the one above it, and its key: the server's, since making
 * one of 4096 bits takes its time. */
std::string StackDepth::write_identity(EVP_PKEY* key) {
    certificate_handle authority = certify(key, {"Agents", "", true});
    certificate_handle own = certify(key, {"agent", "URI:vindral:a%40b/n"}, authority.get(), key);
    std::string path = place / "agent.pem";
    std::ofstream(path) << pem_of(own.get()) << pem_of(authority.get()) << pem_of(key);
    return path;
}

static int accept_everybody(X509_STORE_CTX*, void* asked) {
    *static_cast<bool*>(asked) = true;
    return 1;
}

TEST_F(StackDepth, poll_thread) {
    for (const char* keys : {"EC", "RSA"}) {
        std::string bundle = place / "ca.pem";
        tls_context context(chain_context(keys, bundle));
        expect_room((std::string("poll, ") + keys).c_str(), poll_depth(context.get()));
        ca_file = bundle.data();
        expect_room((std::string("poll, verified, ") + keys).c_str(), poll_depth(context.get()));
        std::string own = write_identity(SSL_CTX_get0_privatekey(context.get()));
        cert_file = key_file = own.data();
        bool asked = false;
        SSL_CTX_set_cert_verify_callback(context.get(), accept_everybody, &asked);
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
        expect_room((std::string("poll, verified, with a certificate, ") + keys).c_str(),
                    poll_depth(context.get()));
        EXPECT_TRUE(asked);
        ca_file = cert_file = key_file = nullptr;
    }
}

TEST_F(StackDepth, load_average_worker) {
    stub("snmpget", "a = STRING: 1");
    char host[] = "h";
    add_lda(1, 1, 0, 0, 0, nullptr);
    add_lda(2, 1, 0, 0, 0, host);
    expect_room("lda", worker_depth(lda_worker_thread, set_lda_check_interval, get_lda_results));
}

TEST_F(StackDepth, cpu_worker) {
    stub("snmpget", "a = Counter32: 1");
    stub("snmptable", "a^50");
    char host[] = "h", linux_host[] = "linux";
    ASSERT_EQ(1,
              init_cpu_mon()); /* learns the processors; its own worker is not the measured one */
    add_cpu(1, 1, 0, 0, 0, 100, 0, nullptr, nullptr);
    add_cpu(2, 1, 0, 0, 0, 100, 0, host, linux_host);
    add_cpu(3, 1, 0, 0, 0, 100, 0, host, nullptr);
    auto pass = [](void*) -> void* {
        do_cpu_check(1);
        return nullptr;
    };
    expect_room("cpu", measure(pass, nullptr));
    shutdown_cpu_checker();
}

TEST_F(StackDepth, memory_worker) {
    stub("snmptable", "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1^1^1");
    char host[] = "h";
    add_mem(1, 1, INT_MAX, INT_MAX, INT_MAX, 0, 0, nullptr);
    add_mem(2, 1, INT_MAX, INT_MAX, INT_MAX, 0, 0, host);
    expect_room("mem", worker_depth(mem_worker_thread, set_mem_check_interval, get_mem_results));
}

TEST_F(StackDepth, disk_worker) {
    char root[] = "/(/dev/sda|ext4)", gone[] = "/gone(x|y)";
    add_diskdesc(1, 1, root, 1e9, -1.0, -1.0);
    add_diskdesc(2, 1, gone, 1, -1.0, -1.0);
    add_diskdesc(3, 1, root, -1, 1, 1);
    expect_room("disk",
                worker_depth(disk_worker_thread, set_disk_check_interval, get_disk_results));
}

TEST_F(StackDepth, process_worker) {
    char own[] = "stack_depth_tes", gone[] = "not running";
    add_proc(own, 1, 1, 0, 0, 0);
    add_proc(gone, 2, 1, 0, 0, 0);
    expect_room("proc",
                worker_depth(proc_worker_thread, set_proc_check_interval, get_proc_results));
}

TEST_F(StackDepth, network_workers) {
    ASSERT_EQ(1, init_log_file());
    char none[] = "nothing", there[] = "depth0";
    add_nettest(1, 1, there, 1, 1, 1, 1, 1, 1);
    add_nettest(2, 1, none, 1, 1, 1, 1, 1, 1);
    get_adapter_list(nullptr, nullptr);
    sample_interfaces();
    size_t used = measure(net_worker_thread, nullptr, [this](pthread_t) {
        set_net_check_interval(1);
        wait_for_log("No Interface with name 'nothing'");
        set_net_check_interval(-1);
    });
    char* data = nullptr;
    int size = 0;
    EXPECT_EQ(own_network ? 1 : 0, get_net_results(&data, &size));
    free(data);
    expect_room("net", used);
    auto sample = [](void*) -> void* {
        sample_interfaces();
        return nullptr;
    };
    used = measure(sample, nullptr);
    expect_room("net sampler", used);
    shutdown_log_writer();
}

size_t StackDepth::page_depth(SSL_CTX* context) {
    EXPECT_EQ(1, init_log_file());
    EXPECT_EQ(1, init_ssl_variables());
    tls_peer server(
        tls_peer::tls,
        {{peer::take_request(), peer::send("HTTP/1.0 302 Found\r\nLocation: /there\r\n\r\n"),
          peer::end_clean()},
         {peer::take_request(),
          peer::send("HTTP/1.0 200 OK\r\nContent-Length: 9999\r\n\r\n" + std::string(9999, 'x')),
          peer::end_clean()}},
        context);
    std::string host = "localhost", port = server.port(), path = "/", match = "none", form = "a=b",
                user = "u", password = "p", limit = "10";
    aHost test = {};
    test.id = 1;
    test.host = host.data();
    test.port = port.data();
    test.uri = path.data();
    test.mutch = match.data();
    test.post = form.data();
    test.user = user.data();
    test.pass = password.data();
    test.tout = limit.data();
    test.isSSL = test.Redirect = test.loadFullPage = 1;
    size_t used = measure(http_check_thread, dup_aHost(&test));
    EXPECT_TRUE(server.await_end());
    shutdown_log_writer();
    return used;
}

TEST_F(StackDepth, page_check) {
    for (const char* keys : {"EC", "RSA"}) {
        tls_context context(chain_context(keys, ""));
        expect_room((std::string("page check, ") + keys).c_str(), page_depth(context.get()));
    }
}

TEST_F(StackDepth, echo_check) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "raw sockets need root";
    }
    ASSERT_EQ(1, init_log_file());
    char host[] = "localhost";
    ping_data test = {host, 1, 1, 1, 65507, 10000, 0, 0};
    expect_room("echo check", measure(ping_single_thread, ping_data_dup(&test)));
    shutdown_log_writer();
}

TEST_F(StackDepth, rounds_of_probes) {
    char host[] = "localhost", path[] = "/", port[] = "1";
    add_http(1, 1, host, path, port, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0,
             0, 0);
    add_ping(1, 1, host, 56, 1, 100, 0);
    expect_room("http",
                worker_depth(http_worker_thread, set_http_check_interval, get_http_results));
    expect_room("ping",
                worker_depth(ping_worker_thread, set_ping_check_interval, get_ping_results));
}

static heap_text copy_of(const char* text) {
    return heap_text(strdup(text));
}

static snmp_def* snmp_test(const char* host, int kind, int bulk, const char* objects) {
    return make_snmp_def(0, 1, 1, kind, bulk, copy_of(objects).get(), copy_of(host).get(), 161, 2,
                         5, 0, copy_of("public").get(), nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr);
}

TEST_F(StackDepth, snmp_threads) {
    if (!own_network) {
        GTEST_SKIP() << "the SNMP agent's port and the name server need root";
    }
    ASSERT_TRUE(use_real_library());
    snmp_lib_status = 1;
    snmp_server agent;
    name_server names;
    ASSERT_EQ(1, init_log_file());
    const char *system = "1.3.6.1.2.1.1.1.0;1.3.6.1.2.1.1.2.0", *table = "1.3.6.1.4.1.99990.1";
    const size_t default_size = 8 * 1024 * 1024;

    pointer_list<snmp_def> tests;
    for (snmp_def* test : {snmp_test("127.0.0.1", SNMP_GET_TEST, 0, system),
                           snmp_test("127.0.0.1", SNMP_TABLE_TEST, 0, table),
                           snmp_test("127.0.0.1", SNMP_TABLE_TEST, 10, table),
                           snmp_test("127.0.0.1", SNMP_WALK_TEST, 0, "1.3.6.1.2.1.1"),
                           snmp_test("127.0.0.1", SNMP_WALK_TEST, 10, "1.3.6.1.2.1.1")}) {
        ASSERT_TRUE(tests.append(test));
    }
    auto* round = static_cast<snmp_round*>(calloc(1, sizeof(snmp_round)));
    round->tests = tests.hand_over(&round->count);
    expect_room("snmp round", measure(snmp_round_thread, round), default_size);
    EXPECT_GT(last_child_used, 0u);
    expect_room("snmp test by name",
                measure(snmp_single_thread, snmp_test("far.example", SNMP_GET_TEST, 0, system)),
                default_size);
    char* data = nullptr;
    int size = 0;
    EXPECT_EQ(1, get_snmp_results(&data, &size));
    EXPECT_NE(std::string::npos, std::string_view(data, static_cast<size_t>(size)).find("a value"));
    free(data);

    auto* share = static_cast<thread_scan_args*>(calloc(1, sizeof(thread_scan_args)));
    share->tid = share->addrs_len = 1;
    share->oids = strdup("1.3.6.1.2.1.1.6.0");
    share->addrs = static_cast<in_addr*>(calloc(1, sizeof(in_addr)));
    share->addrs->s_addr = htonl(INADDR_LOOPBACK);
    share->thread_count = static_cast<int*>(calloc(1, sizeof(int)));
    *share->thread_count = 1;
    expect_room("scan", measure(discovery_thread, share), 0x36000);
    EXPECT_GT(last_child_used, 0u);
    ASSERT_EQ(1, get_ndis_results(&data, &size));
    EXPECT_NE(std::string::npos, std::string_view(data, static_cast<size_t>(size)).find("xxx"));
    free(data);
    shutdown_log_writer();
}

TEST_F(StackDepth, snmp_waiter) {
    auto* child = static_cast<pid_t*>(malloc(sizeof(pid_t)));
    *child = fork();
    if (*child == 0) {
        _exit(1);
    }
    expect_room("snmp waiter", measure(forkwait_thread, child));
}

TEST_F(StackDepth, snmp_and_discovery_workers) {
    ASSERT_EQ(1, init_log_file());
    ASSERT_TRUE(use_real_library());
    snmp_lib_status = 1;
    char host[] = "127.0.0.1", object[] = "1.3.6.1.2.1.1.3.0", community[] = "c", limits[] = "-";
    add_snmp(1, 1, SNMP_GET_TEST, 0, object, host, 1, 2, 1, 0, community, nullptr, nullptr, nullptr,
             nullptr, nullptr, limits);
    expect_room("snmp",
                worker_depth(snmp_worker_thread, set_snmp_check_interval, get_snmp_results));
    snmp_lib_status = 0;
    char first[] = "127.0.0.1", end[] = "127.0.0.2";
    add_ndis(1, 1, first, end, nullptr);
    expect_room("ndis",
                worker_depth(ndis_worker_thread, set_ndis_check_interval, get_ndis_results));
    shutdown_log_writer();
}

TEST_F(StackDepth, mysql_threads) {
    if (!own_network) {
        GTEST_SKIP() << "the name server needs root";
    }
    ASSERT_EQ(1, init_log_file());
    heap_text missing(init_mysql_lib());
    ASSERT_EQ(nullptr, missing.get());
    name_server names;
    mysql_server server;
    std::string host = "far.example", user = "u", password = "a password";
    MySQL_Data test = {};
    test.tid = 1;
    test.host = host.data();
    test.port = server.port();
    test.user = user.data();
    test.pass = password.data();
    test.tout = 10;
    ASSERT_EQ(1, parse_mysql_params(&test, "name7|10;Uptime|1000"));
    expect_room("mysql check", measure(do_single_mysql_check, mysql_data_dup(&test)), 258048);
    parse_mysql_params(&test, "");
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_mysql_results(&data, &size));
    EXPECT_NE(std::string::npos,
              std::string_view(data, static_cast<size_t>(size)).find("Uptime|99|0"));
    free(data);

    char values[] = "Uptime";
    add_mysqldesc(1, 1, host.data(), server.port(), user.data(), password.data(), nullptr, values,
                  10);
    expect_room("mysql",
                worker_depth(mysql_worker_thread, set_mysql_check_interval, get_mysql_results),
                66048);
    shutdown_log_writer();
}

static std::string feed_so_far;

static bool feed_has(const char* text) {
    char* data = nullptr;
    int length = 0;
    if (get_feed(&data, &length)) {
        feed_so_far.append(data, static_cast<size_t>(length));
    }
    free(data);
    return feed_so_far.find(text) != std::string::npos;
}

/* Sends a chunk again and again, by another connection each, until a listener has taken one. */
static void feed(const sockaddr* address, socklen_t size, const char* chunk, const char* text) {
    for (int i = 0; i < 60000 && !feed_has(text); i++) {
        unique_fd peer(socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(peer.get(), address, size) == 0) {
            (void)!write(peer.get(), chunk, strlen(chunk));
        }
        usleep(1000);
    }
    EXPECT_TRUE(feed_has(text));
}

TEST_F(StackDepth, feed_listeners) {
    ASSERT_EQ(1, init_log_file());
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);

    sockaddr_in free_port = {};
    free_port.sin_family = AF_INET;
    free_port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof free_port;
    auto* tcp_address = reinterpret_cast<sockaddr*>(&free_port);
    {
        unique_fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, bind(probe.get(), tcp_address, size));
        ASSERT_EQ(0, getsockname(probe.get(), tcp_address, &size));
    }
    tcp_server tcp{.tid = 1,
                   .iplist = nullptr,
                   .iplist_len = 0,
                   .port = ntohs(free_port.sin_port),
                   .thread_id = 0,
                   .tcp_socket_state = 1,
                   .tattr = detached};
    expect_room("feed tcp", measure(run_tcp_server, &tcp, [&](pthread_t listener) {
                    feed(tcp_address, size, "8\r\nover tcp", "TSV\t1\t");
                    pthread_cancel(listener);
                }));

    std::string path = place / "socket";
    unix_server local{.tid = 2,
                      .unix_path = path.data(),
                      .thread_id = 0,
                      .unix_socket_state = 1,
                      .tattr = detached};
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    expect_room("feed unix", measure(run_unix_server, &local, [&](pthread_t listener) {
                    feed(reinterpret_cast<sockaddr*>(&address), sizeof address, "9\r\nover unix",
                         "USV\t2\t");
                    pthread_cancel(listener);
                }));
    pthread_attr_destroy(&detached);

    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    auto* handed = static_cast<acc*>(malloc(sizeof(acc)));
    *handed = {strdup("localhost"), ends[0], 3};
    expect_room("feed peer", measure(accepting, handed, [&](pthread_t) {
                    std::string chunk =
                        "1000000\r\n" + std::string(1000000, 'x') + "8\r\nby a peerno chunk";
                    for (size_t sent = 0; sent < chunk.size();) {
                        ssize_t now =
                            send(ends[1], chunk.data() + sent, chunk.size() - sent, MSG_NOSIGNAL);
                        ASSERT_GT(now, 0);
                        sent += static_cast<size_t>(now);
                    }
                    close(ends[1]);
                }));
    EXPECT_TRUE(feed_has("USV\t3\t"));
    shutdown_log_writer();
}

TEST_F(StackDepth, log_writer) {
    ASSERT_EQ(1, init_log_file()); /* its own thread writes too; the measured one is a second */
    log_clock = [] { return static_cast<time_t>(1319068799); };
    size_t used = measure(write2logfile, nullptr, [this](pthread_t writer) {
        leveledadd2log(5, "%s", std::string(20000, 'a').c_str());
        leveledadd2log(5, "before midnight");
        wait_for_log("before midnight");
        log_clock = [] { return static_cast<time_t>(1319068800); };
        leveledadd2log(5, "after midnight");
        wait_for_log("after midnight");
        pthread_cancel(writer);
    });
    expect_room("log writer", used);
    shutdown_log_writer();
}

TEST_F(StackDepth, name_resolution) {
    if (!own_network) {
        GTEST_SKIP() << "the name server needs root";
    }
    name_server names;
    /* Its thread has 256 KB, because what the system's resolver needs is not ours to bound. */
    auto resolve = [](void*) -> void* {
        for (const char* name : {"localhost", "far.example"}) {
            for (int family : {AF_INET, AF_INET6, AF_UNSPEC}) {
                addrinfo hints{}, *list = nullptr;
                hints.ai_family = family;
                hints.ai_socktype = SOCK_STREAM;
                int failed = getaddrinfo(name, "443", &hints, &list);
                EXPECT_TRUE(failed == 0 || family == AF_INET6) << name << gai_strerror(failed);
                if (failed == 0) {
                    freeaddrinfo(list);
                }
            }
        }
        return nullptr;
    };
    expect_room("resolver", measure(resolve, nullptr), size_t{256} * 1024);
}
