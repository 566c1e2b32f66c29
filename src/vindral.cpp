/* Start, run, stop. */
#include "vindral.h"

#include "fork_gate.h"
#include "libsslloader.h"
#include "sslutiles_context.h"
#include "thread_start.h"

#include <csignal>
#include <cstdlib>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

/* Descriptors for the life of the process. */
static int worker_ended = -1; /* event: the main worker thread ended, however it did */
static int hang_ups = -1;     /* SIGHUP, which is blocked in every thread */

static void* run_worker(void* arg) {
    struct at_the_end {
        ~at_the_end() {
            cancel_off uncancelled;
            eventfd_write(worker_ended, 1);
        }
    } announce;
    return main_worker_thread(arg);
}

static int start_worker(const sigset_t& shutdown_signals) {
    static constexpr thread_kind POLL_THREAD = {.name = "poll",
                                                .log = leveledadd2log,
                                                .log_level = -1,
                                                .attr_message =
                                                    "Pthread attribute initialization failed.",
                                                .stack_message = "Can not set pthread stack size."};
    thread_starter starter(POLL_THREAD);
    if (!starter) {
        return 0;
    }
    set_poll_interval(60);
    leveledadd2log(0, f_title, static_cast<unsigned long>(getpid()), AGENT_VERSION, BUILD_DATE);
    worker_ended = eventfd(0, EFD_CLOEXEC);
    hang_ups = signalfd(-1, &shutdown_signals, SFD_CLOEXEC);
    if (worker_ended < 0 || hang_ups < 0 ||
        starter.start(run_worker, nullptr, &main_worker_thread_handle) != 0) {
        leveledadd2log(-1, "Can not create main worker thread.");
        return 0;
    }
    leveledadd2log(-1, "Main Worker thread created successfully");
    return 1;
}

/* SIGHUP interrupts nobody: it is blocked everywhere and read here, by a thread that holds no lock.
 * One that came earlier was pending and is read now. */
static void wait_for_worker() {
    pollfd waited[] = {{worker_ended, POLLIN, 0}, {hang_ups, POLLIN, 0}};
    while (!(waited[0].revents & POLLIN)) {
        signalfd_siginfo hang_up;
        if (poll(waited, 2, -1) > 0 && (waited[1].revents & POLLIN) &&
            read(hang_ups, &hang_up, sizeof hang_up) > 0) {
            catch_all_signals(SIGHUP);
            /* A command may be waiting for a pass that waits for silent hosts. */
            set_check_intervals(-1);
        }
    }
    pthread_join(main_worker_thread_handle, nullptr);
    main_worker_thread_handle = 0;
}

/* Each thread of a check would take memory from another pool of the allocator, up to eight for each
 * processor, and what they leave behind there adds up for days. What the allocator keeps for each
 * thread does so, too, but that only GLIBC_TUNABLES can change: it is the starter's to set. */
static void share_memory_pools() {
    mallopt(M_ARENA_MAX, 2);
}

int main(int argc, char** argv) {
    prepare_signals();
    share_memory_pools();
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
    raise_descriptor_limit();
    if (!init_ssl_variables()) {
        leveledadd2log(-1, "SSL connection initialization failed.");
        return 0;
    }
    check_certificate(cert_file, key_file);
    if (!start_checkers() || !start_worker(shutdown_signals)) {
        return 0;
    }
    wait_for_worker();
    end_gated_forks(); /* what queries there are end by themselves, or with the process */
    stop_checkers();
    shutdown_log_writer();
    return 0;
}
