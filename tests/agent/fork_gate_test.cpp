/* The fork gate: who waits for whom, and children that find no lock taken among busy threads. */
#include "fork_gate.cpp"
#include "libsslloader.cpp"

#include "eventually.h"
#include "guards.h"
#include "resolve.h"
#include "vindral_log.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace {

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        count++;
    }
    return count;
}

/* The state of a thread of this process, as in /proc: S sleeps. */
char state_of(pid_t thread) {
    std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    FILE* file = fopen(path.c_str(), "re");
    char state = '?';
    if (file != nullptr) {
        if (fscanf(file, "%*d (%*[^)]) %c", &state) != 1) {
            state = '?';
        }
        fclose(file);
    }
    return state;
}

bool sleeps(const std::atomic<pid_t>& thread) {
    return eventually([&] { return thread != 0 && state_of(thread) == 'S'; });
}

int exit_status(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(fork_gate, a_fork_waits_for_those_inside_and_goes_before_those_who_come_later) {
    std::atomic<pid_t> forker{0}, late{0};
    std::atomic<int> forked{0}, passed{0};
    std::thread forks, passes;
    {
        fork_gate inside;
        std::thread another([] { fork_gate too; });
        another.join(); /* many pass at once */
        forks = std::thread([&] {
            forker = gettid();
            pid_t child = gated_fork();
            if (child == 0) {
                _exit(passed ? 8 : 7);
            }
            forked = 1;
            EXPECT_EQ(exit_status(child), 7);
        });
        EXPECT_TRUE(sleeps(forker));
        passes = std::thread([&] {
            late = gettid();
            fork_gate inside_later;
            passed = 1;
        });
        EXPECT_TRUE(sleeps(late));
        EXPECT_EQ(forked, 0);
        EXPECT_EQ(passed, 0);
    }
    forks.join();
    passes.join();
    EXPECT_EQ(forked, 1);
    EXPECT_EQ(passed, 1);
}

TEST(fork_gate, the_child_finds_the_gate_open) {
    std::atomic<bool> end{false};
    std::thread busy([&] {
        while (!end) {
            fork_gate inside;
        }
    });
    for (int i = 0; i < 50; i++) {
        pid_t child = gated_fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            alarm(10);
            { fork_gate inside; }
            pid_t grandchild = gated_fork();
            if (grandchild == 0) {
                _exit(0);
            }
            int status = 1;
            _exit(waitpid(grandchild, &status, 0) == grandchild && status == 0 ? 3 : 4);
        }
        EXPECT_EQ(exit_status(child), 3);
    }
    end = true;
    busy.join();
}

/* A fork that its handler holds up, and one who ends forks meanwhile. */
struct held_up_fork {
    static inline std::atomic<bool> under_way{false}, may_go_on{false}, done{false};
    static inline std::atomic<pid_t> ending{0};
    static inline bool waited_for = false;

    static void hold_up() {
        under_way = true;
        eventually([] { return may_go_on.load(); });
    }
    static void* fork_once(void*) {
        pid_t child = gated_fork();
        if (child == 0) {
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        return nullptr;
    }
    static void* end(void*) {
        ending = gettid();
        end_gated_forks();
        waited_for = done;
        return nullptr;
    }
};

/* In a child, because nothing begins forks again. */
TEST(fork_gate, an_end_waits_for_a_fork_under_way_and_refuses_later_ones) {
    pid_t child = gated_fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pthread_atfork(
            held_up_fork::hold_up, [] { held_up_fork::done = true; }, nullptr);
        pthread_t forking, ending;
        pthread_create(&forking, nullptr, held_up_fork::fork_once, nullptr);
        bool right = eventually([] { return held_up_fork::under_way.load(); });
        pthread_create(&ending, nullptr, held_up_fork::end, nullptr);
        right = sleeps(held_up_fork::ending) && right;
        held_up_fork::may_go_on = true;
        pthread_join(forking, nullptr);
        pthread_join(ending, nullptr);
        right = held_up_fork::waited_for && right;
        _exit(right && gated_fork() == -1 && errno == ECANCELED ? 3 : 4);
    }
    EXPECT_EQ(exit_status(child), 3);
}

/* There is always one more that waits to fork. */
TEST(fork_gate, threads_that_fork_without_a_pause_do_not_keep_it_closed) {
    auto before = signal(SIGCHLD, SIG_IGN); /* nobody waits for the children */
    std::atomic<bool> end{false};
    std::atomic<int> forks{0};
    std::vector<std::thread> forking;
    for (int i = 0; i < 4; i++) {
        forking.emplace_back([&] {
            while (!end) {
                if (gated_fork() == 0) {
                    _exit(0);
                }
                forks++;
            }
        });
    }
    EXPECT_TRUE(eventually([&] { return forks > 20; }));
    std::thread passes([&] {
        for (int i = 0; i < 10; i++) {
            fork_gate inside;
        }
        end = true;
    });
    EXPECT_TRUE(eventually([&] { return end.load(); }));
    EXPECT_LT(forks, 1000) << "a few for each that passed";
    end = true;
    passes.join();
    for (std::thread& thread : forking) {
        thread.join();
    }
    EXPECT_EQ(waitpid(-1, nullptr, 0), -1);
    signal(SIGCHLD, before);
}

TEST(fork_gate, errno_stays) {
    errno = ERANGE;
    { fork_gate inside; }
    EXPECT_EQ(errno, ERANGE);
}

/* --- the calls of connections ---------------------------------------------------------------- */

int calls = 0, inside_gate = 0;

/* Replaces a function of the library by one that sees whether it is called inside the gate. */
template <typename R, typename... A>
void watch(R (*&pointer)(A...)) {
    pointer = [](A...) {
        calls++;
        if (pthread_rwlock_trywrlock(&gate) == 0) {
            pthread_rwlock_unlock(&gate);
        } else {
            inside_gate++;
        }
        return R();
    };
}

template <typename R, typename... A>
void call(R (*pointer)(A...)) {
    pointer(A{}...);
}

template <typename... P>
void watch_and_call(P&... pointers) {
    (watch(pointers), ...);
    put_in_gates();
    (call(pointers), ...);
    EXPECT_EQ(calls, static_cast<int>(sizeof...(pointers)));
    EXPECT_EQ(inside_gate, calls);
    call(lib_SSL_connect);
    EXPECT_EQ(pthread_rwlock_trywrlock(&gate), 0) << "and leaves it";
    pthread_rwlock_unlock(&gate);
}

TEST(fork_gate, every_call_of_a_connection_passes_the_gate) {
    watch_and_call(lib_SSL_CTX_new, lib_SSL_CTX_free, lib_SSL_new, lib_SSL_free, lib_SSL_set_fd,
                   lib_SSL_connect, lib_SSL_read, lib_SSL_write, lib_SSL_shutdown,
                   lib_ERR_error_string, lib_ERR_get_error, lib_SSL_ctrl, lib_SSL_CTX_new_private,
                   lib_SSL_CTX_load_verify_locations, lib_X509_VERIFY_PARAM_set1_host,
                   lib_X509_VERIFY_PARAM_set1_ip_asc);
}

TEST(fork_gate, gated_calls_are_those_of_the_library) {
    libssl_handle = nullptr;
    ASSERT_EQ(init_ssl_variables(), 1);
    EXPECT_NE(reinterpret_cast<void*>(lib_SSL_connect), dlsym(libssl_handle, "SSL_connect"));
    char text[256] = "";
    EXPECT_STREQ(lib_ERR_error_string(0, text), "error:00000000:lib(0)::reason(0)");
    SSL_CTX* context = lib_SSL_CTX_new(lib_SSLv23_client_method());
    ASSERT_NE(context, nullptr);
    SSL* session = lib_SSL_new(context);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(lib_SSL_set_fd(session, 0), 1);
    lib_SSL_free(session);
    lib_SSL_CTX_free(context);
    auto connect_once = lib_SSL_connect;
    ASSERT_EQ(init_ssl_variables(), 1);
    EXPECT_EQ(lib_SSL_connect, connect_once) << "no gate inside a gate";
}

TEST(fork_gate, what_a_thread_leaves_to_the_library_is_freed_inside_the_gate) {
    libssl_handle = nullptr;
    ASSERT_EQ(init_ssl_variables(), 1);
    EXPECT_EQ(reinterpret_cast<void*>(free_leftovers), dlsym(libssl_handle, "OPENSSL_thread_stop"));
    auto bound = free_leftovers;
    watch(free_leftovers);
    calls = inside_gate = 0;
    std::thread([] {}).join();
    EXPECT_EQ(calls, 0);
    std::thread([] {
        lib_ERR_get_error();
        lib_ERR_get_error();
    }).join();
    EXPECT_EQ(calls, 1) << "once for a thread that called it";
    EXPECT_EQ(inside_gate, 1);
    free_leftovers = nullptr;
    std::thread([] { lib_ERR_get_error(); }).join();
    free_leftovers = bound;
}

/* --- among busy threads ---------------------------------------------------------------------- */

/* What a child of the SNMP checker needs: memory, streams, digests and random numbers. */
[[noreturn]] void use_all_locks(int report) {
    void* p = malloc(100000);
    free(p);
    EVP_MD* digest = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    bool good = digest != nullptr && context != nullptr &&
                EVP_DigestInit_ex(context, digest, nullptr) == 1 &&
                EVP_DigestUpdate(context, "abc", 3) == 1 &&
                EVP_DigestFinal_ex(context, hash, &length) == 1 && length == 20;
    EVP_MD_CTX_free(context);
    EVP_MD_free(digest);
    char text[32];
    snprintf(text, sizeof text, "%d", report);
    char answer = good ? 'y' : 'n';
    _exit(write(report, &answer, 1) == 1 ? 0 : 1);
}

bool comes_to_its_end() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    unique_fd read_end(ends[0]), write_end(ends[1]);
    pid_t child = gated_fork();
    if (child == 0) {
        use_all_locks(write_end.get());
    }
    if (child < 0) {
        return false;
    }
    write_end.reset();
    pollfd waited = {read_end.get(), POLLIN, 0};
    char answer = 0;
    bool well = poll(&waited, 1, 20000) == 1 && read(read_end.get(), &answer, 1) == 1;
    if (!well) {
        kill(child, SIGKILL);
    }
    exit_status(child);
    return well && answer == 'y';
}

void log_on() {
    leveledadd2log(0, "written at once");
    leveledadd2log(1, "queued");
}

void resolve() {
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (resolve_host("localhost", nullptr, &hints, &list) == 0) {
        freeaddrinfo(list);
    }
}

void use_memory() {
    std::vector<heap_text> blocks;
    for (size_t i = 1; i < 200; i++) {
        blocks.emplace_back(static_cast<char*>(malloc(i * 37)));
    }
}

void use_tls() {
    SSL_CTX* context = lib_SSL_CTX_new(lib_SSLv23_client_method());
    SSL* session = lib_SSL_new(context);
    lib_SSL_free(session);
    lib_SSL_CTX_free(context);
}

void use_tls_and_end() {
    std::thread(use_tls).join();
}

void use_digests() {
    fork_gate inside;
    for (const char* name : {"SHA1", "MD5", "SHA256"}) {
        EVP_MD_free(EVP_MD_fetch(nullptr, name, nullptr));
    }
}

/* VINDRAL_FORKS says how many children; a thousand take some five seconds. */
TEST(fork_gate, children_of_busy_threads_find_no_lock_taken) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own locks are not at rest at a fork";
#endif
    libssl_handle = nullptr;
    ASSERT_EQ(init_ssl_variables(), 1);
    char place[] = "/tmp/fork_gate_XXXXXX";
    ASSERT_NE(mkdtemp(place), nullptr);
    log_file = strdup((std::string(place) + "/log").c_str());
    log_level = 6;
    ASSERT_EQ(init_log_file(), 1);
    resolve();

    const char* wanted = getenv("VINDRAL_FORKS");
    const int forks = wanted != nullptr ? atoi(wanted) : 150;
    std::atomic<bool> end{false};
    std::vector<std::thread> busy;
    size_t descriptors = open_descriptors();
    for (auto work : {log_on, resolve, use_memory, use_tls, use_tls_and_end, use_digests}) {
        busy.emplace_back([&end, work] {
            while (!end) {
                work();
            }
        });
    }
    std::atomic<int> stuck{0};
    auto fork_on = [&] {
        for (int i = 0; i < forks / 2 && stuck == 0; i++) {
            stuck += !comes_to_its_end();
        }
    };
    std::thread another(fork_on);
    fork_on();
    another.join();
    end = true;
    for (std::thread& thread : busy) {
        thread.join();
    }
    EXPECT_EQ(stuck, 0);
    siginfo_t info;
    EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), -1) << "a zombie";
    EXPECT_TRUE(eventually([&] { return open_descriptors() <= descriptors; }))
        << "resolvers may still be at their last step";
    shutdown_log_writer();
    std::filesystem::remove_all(place);
}

} // namespace
