/* How much of its stack each kind of thread uses on this platform: the stack is painted, the thread
 * does the deepest that it can do, and the paint that is left is counted. The figures stand in
 * docs/architecture.md; this test fails when one of them comes near the 32768 bytes that a worker
 * has. */
#include "netmon.cpp"

#include "cpumon.h"
#include "diskmon.h"
#include "guards.h"
#include "httpmon.h"
#include "libsslloader.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "ndismon.h"
#include "ping.h"
#include "pingmon.h"
#include "processmon.h"
#include "resolve.h"
#include "snmpmon.h"
#include "snmpmon_lib.h"
#include "tls_peer.h"
#include "vindral_config.h"
#include "vindral_log.h"
#include "vindral_poll.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <sys/mman.h>

namespace {

namespace fs = std::filesystem;

const size_t ROOM = 1024 * 1024; /* enough not to overflow while measuring */
const size_t LIMIT = 32768;
const unsigned char PAINT = 0xA5;

/* Bytes of stack, the thread's own descriptor included, that `body` used. `while_running` is called
 * meanwhile and must see to it that the thread ends. */
size_t measure(void* (*body)(void*), void* arg,
               const std::function<void(pthread_t)>& while_running = nullptr) {
    auto* stack = static_cast<unsigned char*>(
        mmap(nullptr, ROOM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memset(stack, PAINT, ROOM);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, ROOM);
    pthread_t thread;
    EXPECT_EQ(0, pthread_create(&thread, &attributes, body, arg));
    if (while_running) {
        while_running(thread);
    }
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    size_t untouched = 0;
    while (untouched < ROOM && stack[untouched] == PAINT) {
        untouched++;
    }
    munmap(stack, ROOM);
    return ROOM - untouched;
}

class StackDepth : public testing::Test {
protected:
    fs::path place = fs::path(testing::TempDir()) / ("stack_depth." + std::to_string(getpid()));
    std::string log_path = (place / "log").string();

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

    void expect_room(const char* kind, size_t used) {
        printf("%-12s %zu of %zu bytes\n", kind, used, LIMIT);
        RecordProperty(kind, static_cast<int>(used));
        EXPECT_GT(used, 1000u); /* the measurement itself works */
        EXPECT_LT(used, LIMIT - 4096) << kind;
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
            for (int i = 0; i < 10000 && !get_results(&data, &size); i++) {
                usleep(1000);
            }
            EXPECT_GT(size, 0);
            free(data);
            set_interval(-1);
        });
    }

    void wait_for_log(const std::string& text) {
        for (int i = 0; i < 10000; i++) {
            std::ifstream in(log_path);
            if (std::string(std::istreambuf_iterator<char>(in), {}).find(text) !=
                std::string::npos) {
                return;
            }
            usleep(1000);
        }
        FAIL() << "never logged: " << text;
    }
};

} // namespace

TEST_F(StackDepth, PollThread) {
    ASSERT_EQ(1, init_log_file());
    ASSERT_EQ(1, init_ssl_variables());
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
                     {peer::take_request(), answer("", commands), peer::end_clean()}});
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
    expect_room("poll", used);
    EXPECT_TRUE(server.await_end());
    free_cache_copy();
    alt_server = alt_port = user_email = agent_name = agent_home = nullptr;
    shutdown_log_writer();
}

TEST_F(StackDepth, LoadAverageWorker) {
    stub("snmpget", "a = STRING: 1");
    char host[] = "h";
    add_lda(1, 1, 0, 0, 0, nullptr);
    add_lda(2, 1, 0, 0, 0, host);
    expect_room("lda", worker_depth(lda_worker_thread, set_lda_check_interval, get_lda_results));
}

TEST_F(StackDepth, CpuWorker) {
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

TEST_F(StackDepth, MemoryWorker) {
    stub("snmptable", "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1^1^1");
    char host[] = "h";
    add_mem(1, 1, INT_MAX, INT_MAX, INT_MAX, 0, 0, nullptr);
    add_mem(2, 1, INT_MAX, INT_MAX, INT_MAX, 0, 0, host);
    expect_room("mem", worker_depth(mem_worker_thread, set_mem_check_interval, get_mem_results));
}

TEST_F(StackDepth, DiskWorker) {
    char root[] = "/(/dev/sda|ext4)", gone[] = "/gone(x|y)";
    add_diskdesc(1, 1, root, 1e9, -1.0, -1.0);
    add_diskdesc(2, 1, gone, 1, -1.0, -1.0);
    add_diskdesc(3, 1, root, -1, 1, 1);
    expect_room("disk",
                worker_depth(disk_worker_thread, set_disk_check_interval, get_disk_results));
}

TEST_F(StackDepth, ProcessWorker) {
    char own[] = "stack_depth_tes", gone[] = "not running";
    add_proc(own, 1, 1, 0, 0, 0);
    add_proc(gone, 2, 1, 0, 0, 0);
    expect_room("proc",
                worker_depth(proc_worker_thread, set_proc_check_interval, get_proc_results));
}

TEST_F(StackDepth, NetworkWorkers) {
    ASSERT_EQ(1, init_log_file());
    char adapter[] = "nothing";
    add_nettest(1, 1, adapter, 1, 1, 1, 1, 1, 1);
    size_t used = measure(net_worker_thread, nullptr, [this](pthread_t) {
        set_net_check_interval(1);
        wait_for_log("No Interface with name 'nothing'");
        set_net_check_interval(-1);
    });
    expect_room("net", used);
    get_adapter_list(nullptr, nullptr);
    auto sample = [](void*) -> void* {
        sample_interfaces();
        return nullptr;
    };
    used = measure(sample, nullptr);
    expect_room("net sampler", used);
    shutdown_log_writer();
}

TEST_F(StackDepth, PageCheck) {
    ASSERT_EQ(1, init_log_file());
    ASSERT_EQ(1, init_ssl_variables());
    tls_peer server(
        tls_peer::tls,
        {{peer::take_request(), peer::send("HTTP/1.0 302 Found\r\nLocation: /there\r\n\r\n"),
          peer::end_clean()},
         {peer::take_request(),
          peer::send("HTTP/1.0 200 OK\r\nContent-Length: 9999\r\n\r\n" + std::string(9999, 'x')),
          peer::end_clean()}});
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
    expect_room("page check", measure(http_check_thread, dup_aHost(&test)));
    EXPECT_TRUE(server.await_end());
    shutdown_log_writer();
}

TEST_F(StackDepth, EchoCheck) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "raw sockets need root";
    }
    ASSERT_EQ(1, init_log_file());
    char host[] = "localhost";
    ping_data test = {host, 1, 1, 1, 65507, 10000, 0, 0};
    expect_room("echo check", measure(ping_single_thread, ping_data_dup(&test)));
    shutdown_log_writer();
}

TEST_F(StackDepth, RoundsOfProbes) {
    char host[] = "localhost", path[] = "/", port[] = "1";
    add_http(1, 1, host, path, port, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0,
             0, 0);
    add_ping(1, 1, host, 56, 1, 100, 0);
    expect_room("http",
                worker_depth(http_worker_thread, set_http_check_interval, get_http_results));
    expect_room("ping",
                worker_depth(ping_worker_thread, set_ping_check_interval, get_ping_results));
}

/* The children of a pass and the scans have larger stacks. */
TEST_F(StackDepth, SnmpAndDiscoveryWorkers) {
    ASSERT_EQ(1, init_log_file());
    setenv("SNMP_PERSISTENT_DIR", "/dev/null", 1);
    ASSERT_EQ(1, snmp_lib_status = init_snmp_lib());
    init_defaults();
    libpo_init_snmp("stack_depth");
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

TEST_F(StackDepth, LogWriter) {
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

TEST_F(StackDepth, NameResolution) {
    /* Its thread has 256 KB, because what the system's resolver needs is not ours to bound. */
    auto resolve = [](void*) -> void* {
        addrinfo hints{}, *list = nullptr;
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        if (getaddrinfo("localhost", "443", &hints, &list) == 0) {
            freeaddrinfo(list);
        }
        return nullptr;
    };
    expect_room("resolver", measure(resolve, nullptr));
}
