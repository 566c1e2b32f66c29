/* What main does, in which order, and where it ends. Everything that it calls is a fake here. */
#include "thread_library.h"
#include "vindral.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>

/* An exit that comes back. */
[[noreturn]] static void end_with(int status) {
    throw status;
}
#define main agent_main
#define exit end_with
#include "vindral.cpp"
#undef main
#undef exit

const char* const BUILD_DATE = "Oct 19 2011 23:04:05";
pthread_t main_worker_thread_handle = 0;
static char certificate_path[] = "own.pem", key_path[] = "key.pem";
char *cert_file = certificate_path, *key_file = key_path;

static std::mutex calls_mutex;
static std::string calls;      /* one a line, and "LEVEL text" for what is logged */
static std::string refusing;   /* the call that fails */
static std::string hanging_up; /* the call amid which SIGHUP comes */
static std::atomic<bool> worker_announced;
static std::atomic<bool> worker_waits; /* to be cancelled, instead of returning */

static int record(const std::string& name) {
    std::lock_guard hold(calls_mutex);
    calls += name + "\n";
    if (hanging_up == name) {
        raise(SIGHUP);
    }
    return refusing != name;
}

void leveledadd2log(int loglevel, const char* fmt, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    record(std::to_string(loglevel) + " " + text);
    if (strcmp(text, "Main Worker thread created successfully") == 0) {
        worker_announced = true;
    }
}

void prepare_signals() {
    record("prepare_signals");
}
int process_arguments(int argc, char** argv) {
    return record("process_arguments " + std::to_string(argc) + " " + argv[1]);
}
int readConfig() {
    return record("readConfig");
}
int set_agent_env(char* run_path) {
    return record(std::string("set_agent_env ") + run_path);
}
int daemon_init() {
    return record("daemon_init");
}
int init_log_file() {
    return record("init_log_file");
}
int install_signal_handlers() {
    return record("install_signal_handlers");
}
void raise_descriptor_limit() {
    (void)record("raise_descriptor_limit");
}
int init_ssl_variables() {
    return record("init_ssl_variables");
}
void check_certificate(const char* certificate, const char* key) {
    record(std::string("check_certificate ") + certificate + " " + key);
}
int start_checkers() {
    return record("start_checkers");
}
void set_poll_interval(int poll_interval) {
    record("set_poll_interval " + std::to_string(poll_interval));
}
void set_check_intervals(int t_sec) {
    record("set_check_intervals " + std::to_string(t_sec));
}
void end_gated_forks() {
    record("end_gated_forks");
}
void stop_checkers() {
    record("stop_checkers");
}
int shutdown_log_writer() {
    return record("shutdown_log_writer");
}

void catch_all_signals(int n) {
    record(n == SIGHUP ? "SIGHUP" : "another signal");
    pthread_cancel(main_worker_thread_handle);
}

void* main_worker_thread(void*) {
    cancel_off except_in_its_wait;
    while (worker_waits) {
        cancel_on may_end;
        pause();
    }
    while (!worker_announced) {
        usleep(1000);
    }
    record("main_worker_thread");
    return nullptr;
}

namespace {

const std::string TO_CHECKERS =
    "prepare_signals\nprocess_arguments 2 -x\nreadConfig\nset_agent_env /sbin/agent\n"
    "daemon_init\ninit_log_file\ninstall_signal_handlers\n"
    "raise_descriptor_limit\ninit_ssl_variables\ncheck_certificate own.pem "
    "key.pem\nstart_checkers\n";

std::string banner() {
    const std::string stars = "\n\n\t\t\t\t" + std::string(51, '*');
    return "set_poll_interval 60\n0 " + stars +
           "\n\n\t\t\t\t\tVINDRAL SMART AGENT\n\t\t\t\t\tPROCESS ID: " + std::to_string(getpid()) +
           "\n\t\t\t\t\tVersion: 3.0\n\t\t\t\t\tBuild Date: Oct 19 2011 23:04:05" + stars +
           "\n\n\n";
}

const std::string CREATED = "-1 Main Worker thread created successfully\n";
const std::string HUNG_UP = "SIGHUP\nset_check_intervals -1\n";
const std::string STOPPED = "end_gated_forks\nstop_checkers\nshutdown_log_writer\n";

class Main : public testing::Test {
protected:
    void SetUp() override {
        calls = refusing = hanging_up = "";
        thread_library::reset();
        worker_announced = worker_waits = false;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask_before_);
    }
    void TearDown() override { pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr); }

    /* The exit status; -1 when main neither returned nor ended the process. */
    static int run() {
        char name[] = "/sbin/agent", option[] = "-x";
        char* argv[] = {name, option, nullptr};
        try {
            return agent_main(2, argv);
        } catch (int status) {
            return status;
        }
    }

private:
    sigset_t mask_before_;
};

} // namespace

TEST_F(Main, lives_and_ends_in_order) {
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + banner() + CREATED + "main_worker_thread\n" + STOPPED, calls);
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_size);
    EXPECT_EQ(0U, main_worker_thread_handle);
}

TEST_F(Main, a_hang_up_ends_the_worker_and_then_the_rest) {
    worker_waits = true;
    hanging_up = CREATED.substr(0, CREATED.size() - 1);
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + banner() + CREATED + HUNG_UP + STOPPED, calls);
}

TEST_F(Main, a_hang_up_amid_the_start_is_not_lost) {
    for (const char* moment : {"readConfig", "daemon_init", "start_checkers"}) {
        calls = "";
        worker_announced = false;
        worker_waits = true;
        hanging_up = moment;
        EXPECT_EQ(0, run());
        EXPECT_EQ(TO_CHECKERS + banner() + CREATED + HUNG_UP + STOPPED, calls) << moment;
    }
}

TEST_F(Main, the_name_of_the_executable_is_no_reason_to_end) {
    refusing = "set_agent_env /sbin/agent";
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + banner() + CREATED + "main_worker_thread\n" + STOPPED, calls);
}

TEST_F(Main, a_failed_step_ends_the_start_there) {
    struct failure {
        const char *call, *logged;
        int status;
    };
    for (const failure& f :
         {failure{"process_arguments 2 -x", "", 0},
          {"readConfig", "", 0},
          {"daemon_init", "", 0},
          {"init_log_file", "", 0},
          {"install_signal_handlers", "", 1},
          {"init_ssl_variables", "-1 SSL connection initialization failed.\n", 0},
          {"start_checkers", "", 0}}) {
        calls = "";
        refusing = f.call;
        EXPECT_EQ(f.status, run()) << f.call;
        std::string up_to_it =
            TO_CHECKERS.substr(0, TO_CHECKERS.find(f.call) + strlen(f.call)) + "\n";
        EXPECT_EQ(up_to_it + f.logged, calls);
    }
}

TEST_F(Main, without_a_worker_there_is_nothing_to_run) {
    thread_library::attr_error = ENOMEM;
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + "-1 Pthread attribute initialization failed.\n", calls);

    thread_library::attr_error = 0;
    thread_library::stack_error = EINVAL;
    calls = "";
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + "-1 Can not set pthread stack size.\n", calls);

    thread_library::stack_error = 0;
    thread_library::create_error = EAGAIN;
    calls = "";
    EXPECT_EQ(0, run());
    EXPECT_EQ(TO_CHECKERS + banner() + "-1 Can not create main worker thread.\n", calls);
}
