/* Start, run, stop. */
#include "vindral.h"

#include "libsslloader.h"

#include <csignal>
#include <cstdlib>
#include <semaphore.h>

/* Posted when the main worker thread ends, however it ends. */
static sem_t worker_ended;

static void* run_worker(void* arg) {
    struct at_the_end {
        ~at_the_end() { sem_post(&worker_ended); }
    } announce;
    return main_worker_thread(arg);
}

static int start_worker() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        leveledadd2log(-1, "Pthread attribute initialization failed.");
        return 0;
    }
    if (pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE) != 0) {
        leveledadd2log(-1, "Can not set pthread stack size.");
        return 0;
    }
    set_poll_interval(60);
    leveledadd2log(0, f_title, static_cast<unsigned long>(getpid()), AGENT_VERSION, BUILD_DATE);
    sem_init(&worker_ended, 0, 0);
    pthread_t worker;
    if (pthread_create(&worker, &attributes, run_worker, nullptr) != 0) {
        leveledadd2log(-1, "Can not create main worker thread.");
        return 0;
    }
    pthread_setname_np(worker, "poll");
    main_worker_thread_handle = worker;
    pthread_attr_destroy(&attributes);
    leveledadd2log(-1, "Main Worker thread created successfully");
    return 1;
}

/* SIGHUP is blocked everywhere but here, where this thread holds no lock: its handler may log and
 * cancel the worker. One that came earlier was pending and is handled now. */
static void wait_for_worker(const sigset_t& shutdown_signals) {
    pthread_sigmask(SIG_UNBLOCK, &shutdown_signals, nullptr);
    while (sem_wait(&worker_ended) != 0) {
    }
    pthread_sigmask(SIG_BLOCK, &shutdown_signals, nullptr);
    pthread_join(main_worker_thread_handle, nullptr);
    main_worker_thread_handle = 0;
}

int main(int argc, char** argv) {
    sigset_t shutdown_signals;
    sigemptyset(&shutdown_signals);
    sigaddset(&shutdown_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &shutdown_signals, nullptr);

    if (!process_arguments(argc, argv) || !readConfig()) {
        return 0;
    }
    (void)set_agent_env(argv[0]);
    if (!daemon_init() || !init_log_file()) {
        return 0;
    }
    if (!install_signal_handlers()) {
        exit(1);
    }
    if (!init_ssl_variables()) {
        leveledadd2log(-1, "SSL connection initialization failed.");
        return 0;
    }
    if (!start_checkers() || !start_worker()) {
        return 0;
    }
    wait_for_worker(shutdown_signals);
    stop_checkers();
    shutdown_log_writer();
    return 0;
}
