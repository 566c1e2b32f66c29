#include "shell_command.h"

#include "guards.h"

#include <csignal>
#include <cstdio>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

rlim_t command_descriptors = 0;

/* The command line with the limit set before it, by the shell itself: posix_spawn cannot, and the
 * agent's own limit must not change while other threads open sockets. Null without memory. */
static heap_text limited(const char* command_line) {
    char* line = nullptr;
    int length = command_descriptors == 0
                     ? asprintf(&line, "%s", command_line)
                     : asprintf(&line, "ulimit -S -n %llu; %s",
                                static_cast<unsigned long long>(command_descriptors), command_line);
    return heap_text(length < 0 ? nullptr : line);
}

pid_t spawn_shell(const char* command_line, int stdout_fd, bool literal_words) {
    heap_text limited_line = limited(command_line);
    if (!limited_line) {
        errno = ENOMEM;
        return -1;
    }
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);

    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    sigaddset(&signals, SIGSEGV);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETPGROUP);
    if (stdout_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdout_fd, STDOUT_FILENO);
    }
    /* Libraries open sockets that are not closed by themselves. */
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

    char name[] = "sh";
    char options[] = "-f";
    char dash_c[] = "-c";
    char* line = limited_line.get();
    char* arguments[] = {name, literal_words ? options : dash_c, literal_words ? dash_c : line,
                         literal_words ? line : nullptr, nullptr};
    pid_t pid = -1;
    int error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return pid;
}

int wait_command(pid_t pid) {
    int status = -1;
    for (;;) {
        pid_t reaped;
        {
            cancel_on may_end;
            reaped = waitpid(pid, &status, 0);
        }
        if (reaped == pid) {
            return status;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}
