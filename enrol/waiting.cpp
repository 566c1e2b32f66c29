#include "enrol/waiting.h"

#include "ctl/text.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static int stops = -1; /* signalfd, for the life of the process */
static bool stops_count = true;

static sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, signal);
    }
    return set;
}

void catch_stops() {
    const sigset_t set = stop_signals();
    signal(SIGPIPE, SIG_IGN);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    stops = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void ignore_stops() {
    stops_count = false;
}

void check_stop() {
    signalfd_siginfo what;
    if (stops >= 0 && stops_count && read(stops, &what, sizeof what) == sizeof what) {
        throw stopped{static_cast<int>(what.ssi_signo)};
    }
}

bool wait_for(int fd, short events, moment deadline) {
    while (true) {
        check_stop();
        const auto left =
            std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waited[] = {{fd, events, 0}, {stops_count ? stops : -1, POLLIN, 0}};
        const int ready = poll(waited, 2, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready > 0 && waited[0].revents != 0) {
            return true;
        }
        if (ready == 0 && left.count() <= 0) {
            return false;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

unique_fd::~unique_fd() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

void restore_signals() {
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/* --- other programs -------------------------------------------------------------------------- */

namespace {

/* Killed and waited for, whatever ends the scope. */
class child {
public:
    explicit child(pid_t pid) : pid_(pid), fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
    child(const child&) = delete;
    child& operator=(const child&) = delete;
    ~child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            (void)status();
        }
    }
    int fd() const { return fd_.get(); }
    int status() {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t pid_;
    unique_fd fd_;
};

pid_t start(const std::vector<std::string>& command, int output) {
    std::vector<char*> words;
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
    sigset_t none, standard;
    sigemptyset(&none);
    sigemptyset(&standard);
    sigaddset(&standard, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &standard);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, words[0], &files, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return pid;
}

/* What there is to read now; the beginning is kept. False at the end. */
bool drain(int fd, std::string& kept) {
    constexpr size_t most = 4096;
    std::array<char, 1024> bytes{};
    ssize_t count;
    while ((count = read(fd, bytes.data(), bytes.size())) > 0) {
        kept.append(bytes.data(), std::min(static_cast<size_t>(count), most - kept.size()));
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR);
}

} // namespace

program_end run_program(const std::vector<std::string>& command, milliseconds longest) {
    program_end end;
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return end;
    }
    unique_fd output(ends[0]), input(ends[1]);
    fcntl(output.get(), F_SETFL, O_NONBLOCK);
    const moment deadline = in(longest);
    const pid_t pid = start(command, input.get());
    input = unique_fd();
    if (pid < 0) {
        end.said = command[0] + ": " + std::system_category().message(errno);
        return end;
    }
    child started(pid);
    std::string said;
    /* What it leaves running may keep the pipe: its own end counts. */
    while (!wait_for(started.fd(), POLLIN, in(milliseconds(50)))) {
        drain(output.get(), said);
        if (std::chrono::steady_clock::now() > deadline) {
            end.said = command[0] + " has not ended in time";
            return end;
        }
    }
    end.status = started.status();
    drain(output.get(), said);
    end.said = printable(said);
    return end;
}
