#include "eventually.h"
#include "thread_library.h"
#include "tls_peer.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <semaphore>
#include <string>

/* --- what resolve.cpp meets instead of the system -------------------------------------------- */

struct seen_call {
    std::string host, port, thread_name;
    addrinfo hints;
    pthread_t thread;
    size_t stack_size;
    sigset_t blocked;
};

static std::atomic<int> name_calls = 0;
static seen_call last_call; /* of a name, not of a number; read after the call has returned */
static std::counting_semaphore<> may_answer(0);
static std::atomic<bool> slow = false;
static std::atomic<int> answer_code = 0;

static int fake_getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                            addrinfo** list) {
    if (hints->ai_flags & AI_NUMERICHOST) {
        return getaddrinfo(host, port, hints, list);
    }
    last_call.host = host != nullptr ? host : "(null)";
    last_call.port = port != nullptr ? port : "(null)";
    last_call.hints = *hints;
    last_call.thread = pthread_self();
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    last_call.thread_name = name;
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &last_call.stack_size);
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, nullptr, &last_call.blocked);
    name_calls++;
    if (slow) {
        may_answer.acquire();
    }
    int code = answer_code;
    return code != 0 ? code : getaddrinfo("127.0.0.9", port, hints, list);
}

#define getaddrinfo fake_getaddrinfo
#include "resolve.cpp"
#undef getaddrinfo

/* --------------------------------------------------------------------------------------------- */

static std::string address_of(const addrinfo* a) {
    char text[INET_ADDRSTRLEN];
    const auto* in = reinterpret_cast<const sockaddr_in*>(a->ai_addr);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(in->sin_port));
}

class resolve : public testing::Test {
public:
    void SetUp() override {
        name_calls = 0;
        slow = false;
        answer_code = 0;
        thread_library::reset();
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
    }
    /* No resolver stays. */
    void TearDown() override {
        freeaddrinfo_if_any();
        EXPECT_TRUE(eventually([] { return count_threads("resolver") == 0; }));
    }
    void freeaddrinfo_if_any() {
        if (list != nullptr) {
            freeaddrinfo(list);
            list = nullptr;
        }
    }

    addrinfo hints = {};
    addrinfo* list = nullptr;
};

TEST_F(resolve, a_numeric_host_is_converted_without_a_thread) {
    thread_library::create_error = EAGAIN; /* and without trying */
    ASSERT_EQ(0, resolve_host("127.0.0.2", "443", &hints, &list));
    EXPECT_EQ("127.0.0.2:443", address_of(list));
    EXPECT_EQ(SOCK_STREAM, list->ai_socktype);
    EXPECT_EQ(nullptr, list->ai_next);
    EXPECT_EQ(0, name_calls);
}

TEST_F(resolve, no_host_means_loopback) {
    ASSERT_EQ(0, resolve_host(nullptr, "80", &hints, &list));
    EXPECT_EQ("127.0.0.1:80", address_of(list));
    EXPECT_EQ(0, name_calls);
}

TEST_F(resolve, no_port_is_fine) {
    ASSERT_EQ(0, resolve_host("127.0.0.3", nullptr, &hints, &list));
    EXPECT_EQ("127.0.0.3:0", address_of(list));
}

TEST_F(resolve, a_number_of_another_family_is_refused_at_once) {
    EXPECT_EQ(EAI_ADDRFAMILY, resolve_host("::1", "443", &hints, &list));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(0, name_calls);
}

TEST_F(resolve, other_hints_are_kept) {
    hints.ai_socktype = SOCK_RAW;
    hints.ai_protocol = IPPROTO_ICMP;
    hints.ai_flags = AI_CANONNAME;
    ASSERT_EQ(0, resolve_host("127.0.0.2", nullptr, &hints, &list));
    EXPECT_STREQ("127.0.0.2", list->ai_canonname);
    EXPECT_EQ(SOCK_RAW, list->ai_socktype);
    freeaddrinfo_if_any();

    ASSERT_EQ(0, resolve_host("name", nullptr, &hints, &list));
    EXPECT_EQ(0, memcmp(&hints, &last_call.hints, sizeof hints));
}

TEST_F(resolve, a_name_goes_to_a_thread_with_a_stack_of_its_own_and_no_signals) {
    ASSERT_EQ(0, resolve_host("some.name", "8080", &hints, &list));
    EXPECT_EQ("127.0.0.9:8080", address_of(list));
    EXPECT_EQ(1, name_calls);
    EXPECT_EQ("some.name", last_call.host);
    EXPECT_EQ("8080", last_call.port);
    EXPECT_FALSE(pthread_equal(pthread_self(), last_call.thread));
    EXPECT_EQ("resolver", last_call.thread_name);
    EXPECT_GE(last_call.stack_size, 256u * 1024);
    for (int signal : {SIGHUP, SIGTERM, SIGINT, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(1, sigismember(&last_call.blocked, signal)) << signal;
    }
    sigset_t mine;
    pthread_sigmask(SIG_SETMASK, nullptr, &mine);
    EXPECT_EQ(0, sigismember(&mine, SIGHUP));
}

/* Else the kernel would end the agent without the report. */
TEST_F(resolve, a_crash_of_the_systems_modules_meets_the_handler) {
    ASSERT_EQ(0, resolve_host("some.name", "80", &hints, &list));
    EXPECT_EQ(0, sigismember(&last_call.blocked, SIGSEGV));
}

TEST_F(resolve, a_named_service_goes_to_the_thread_as_well) {
    EXPECT_EQ(EAI_SERVICE, resolve_host("127.0.0.2", "no-number", &hints, &list));
    EXPECT_EQ(1, name_calls);
    EXPECT_EQ("127.0.0.2", last_call.host);
    EXPECT_EQ(EAI_SERVICE, resolve_host(nullptr, "no-number", &hints, &list));
    EXPECT_EQ("(null)", last_call.host);
}

TEST_F(resolve, the_resolvers_code_is_handed_on) {
    for (int code : {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_SYSTEM}) {
        answer_code = code;
        EXPECT_EQ(code, resolve_host("name", "443", &hints, &list));
        EXPECT_EQ(nullptr, list);
    }
}

TEST_F(resolve, without_a_thread_the_caller_resolves) {
    thread_library::create_error = EAGAIN;
    ASSERT_EQ(0, resolve_host("name", "443", &hints, &list));
    EXPECT_EQ("127.0.0.9:443", address_of(list));
    EXPECT_TRUE(pthread_equal(pthread_self(), last_call.thread));
}

TEST_F(resolve, a_slow_answer_is_waited_for) {
    slow = true;
    pthread_t caller;
    auto run = [](void* arg) -> void* {
        auto* self = static_cast<resolve*>(arg);
        return resolve_host("name", "443", &self->hints, &self->list) == 0 ? arg : nullptr;
    };
    ASSERT_EQ(0, pthread_create(&caller, nullptr, run, this));
    ASSERT_TRUE(eventually([] { return name_calls == 1; }));
    may_answer.release();
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(caller, &result));
    ASSERT_EQ(this, result);
    EXPECT_EQ("127.0.0.9:443", address_of(list));
}

/* The sanitizers see to it that the abandoned order is freed, once. */
TEST_F(resolve, a_cancelled_caller_leaves_the_resolver_behind) {
    for (int code : {0, EAI_AGAIN}) {
        name_calls = 0;
        slow = true;
        answer_code = code;
        pthread_t caller;
        auto run = [](void* arg) -> void* {
            auto* self = static_cast<resolve*>(arg);
            cancel_off except_in_waits;
            heap_text held(strdup("given back by unwinding"));
            resolve_host("name", "443", &self->hints, &self->list);
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&caller, nullptr, run, this));
        ASSERT_TRUE(eventually([] { return name_calls == 1; }));
        ASSERT_EQ(0, pthread_cancel(caller));
        void* result = nullptr;
        ASSERT_EQ(0, pthread_join(caller, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
        EXPECT_EQ(nullptr, list);
        may_answer.release();
        EXPECT_TRUE(eventually([] { return count_threads("resolver") == 0; }));
    }
}
