#include "vindral_daemon.h"

#include "shell_command.h"
#include "vindral_config.h"
#include "vindral_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

static void go_home() {
    const char* home = getenv("HOME");
    if (chdir(home != nullptr ? home : "/") != 0) {
        /* Then the daemon works where it was started. */
    }
    umask(022);
}

/* The open PID file, or none after logging why. Its descriptor lies above 2, which an agent started
 * without standard input or output would not get from open, so that it outlives those three. */
static unique_fd open_pid_file() {
    unique_fd file(open(lock_file, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (file && file.get() <= STDERR_FILENO) {
        file = unique_fd(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    if (!file) {
        leveledadd2log(0, "Failed on opening PID file: \"%s\", %m", lock_file);
    }
    return file;
}

static int check_old_pid(int fd) {
    char content[11];
    ssize_t length = read(fd, content, sizeof content - 1);
    if (length < 0) {
        leveledadd2log(0, "Failed on reading PID File: \"%s\", %m", lock_file);
        return 0;
    }
    content[length] = '\0';
    char* end;
    strtol(content, &end, 10);
    if (length > 0 && end == content) {
        leveledadd2log(0, "PID File: \"%s\" does not contain a valid PID (%s)", lock_file, content);
        return 0;
    }
    return 1;
}

/* Returns only in the child, or 0 when there is none. */
static int fork_child() {
    fflush(stdout); /* so that whoever waits for the parent has its text by then */
    pid_t child = fork();
    if (child < 0) {
        leveledadd2log(0, "Failed on Fork: %m");
        return 0;
    }
    if (child > 0) {
        _exit(1);
    }
    setsid();
    return 1;
}

/* A write lock on all of a file, for setting it or asking who is in its way. */
static struct flock whole_file() {
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return range;
}

static int lock_pid_file(int fd) {
    struct flock range = whole_file();
    if (fcntl(fd, F_SETLK, &range) == 0) {
        return 1;
    }
    if (errno == EACCES || errno == EAGAIN) {
        struct flock holder = whole_file();
        fcntl(fd, F_GETLK, &holder);
        leveledadd2log(5, "PID File \"%s\", %d.", lock_file, static_cast<int>(holder.l_pid));
    } else {
        leveledadd2log(0, "Cannot lock PID File '%s', %m.", lock_file);
    }
    return 0;
}

static int write_own_pid(int fd) {
    if (lseek(fd, 0, SEEK_SET) != 0) {
        leveledadd2log(0, "Failed on PID File \"%s\" reposition, %m", lock_file);
        return 0;
    }
    if (ftruncate(fd, 0) != 0) {
        leveledadd2log(0, "Failed on ftruncate: %m");
        return 0;
    }
    if (dprintf(fd, "%d\n", static_cast<int>(getpid())) < 0) {
        leveledadd2log(0, "Failed on writing PID File \"%s\", %m", lock_file);
        return 0;
    }
    return 1;
}

static void detach_from_terminal() {
    fflush(stdout);
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    /* Each open takes the lowest free number: 0, 1, 2. They stay open like the descriptors they
     * replace. */
    (void)open("/dev/null", O_RDONLY);
    (void)open("/dev/null", O_WRONLY);
    (void)open("/dev/null", O_WRONLY);
}

int daemon_init() {
    go_home();
    unique_fd pid_file = open_pid_file();
    if (!pid_file || !check_old_pid(pid_file.get()) || !fork_child() ||
        !lock_pid_file(pid_file.get()) || !write_own_pid(pid_file.get())) {
        exit(0);
    }
    (void)pid_file.release(); /* open, and with it the lock, until the process ends */
    detach_from_terminal();
    return 1;
}

void raise_descriptor_limit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
        command_descriptors = before;
    }
}
