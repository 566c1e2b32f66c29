#include "enrol/agent.h"

#include "ctl/failure.h"
#include "ctl/text.h"
#include "enrol/conf.h"
#include "enrol/files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

constexpr seconds longest_start{100}, longest_stop{90}; /* systemd waits as long */
constexpr seconds longest_login{100};                   /* a first poll that fails, and the next */
constexpr seconds steady{3};                            /* for so long it goes on after the login */
/* Where logins are not shown: a poll has 15 seconds, and comes each minute. */
constexpr seconds silent_login{20}, silent_polls{80};
constexpr const char* service = "vindral.service";
constexpr const char* timer = "vindral-enrol.timer";

constexpr std::string_view logged_in = "Authorization was successfully completed.";
constexpr std::string_view refused = "Authorization failed, "; /* it ends within its interval */
constexpr std::string_view log_in_again = "Reauthorization is required.";

[[noreturn]] void fail(const std::string& text) {
    throw failure{status_wrong, text};
}

program_end systemctl(std::vector<std::string> words) {
    words.insert(words.begin(), {"systemctl", "--no-ask-password"});
    return run_program(words, longest_start);
}

void systemctl_or_fail(const std::vector<std::string>& words) {
    const program_end end = systemctl(words);
    if (end.status != 0) {
        std::string what = "systemctl";
        for (const std::string& word : words) {
            what.append(" ").append(word);
        }
        fail(what +
             " failed: " + (end.said.empty() ? "status " + std::to_string(end.status) : end.said));
    }
}

/* --- settings of the agent ------------------------------------------------------------------- */

struct settings {
    std::string home, log, pid_file;
    long level = 0;
};

settings settings_of(const agent_place& at) {
    const std::string text = read_file(at.conf).value_or("");
    settings found;
    found.home = conf_value(text, "VINDRALHOME").value_or("/var/lib/vindral");
    auto path_of = [&](const char* key) {
        const std::string path = conf_value(text, key).value_or("");
        return path.empty() || path.front() == '/' ? path : found.home + "/" + path;
    };
    found.log = path_of("LOGFILE");
    found.pid_file = path_of("PIDFILE");
    found.level = strtol(conf_value(text, "LOGLEVEL").value_or("0").c_str(), nullptr, 10);
    return found;
}

/* --- without systemd ------------------------------------------------------------------------- */

/* The process that holds the lock of the PID file; 0: none, -1: one that cannot be named. The file
 * lies where the agent's user writes, so it may be anything. */
pid_t holder_of(const std::string& pid_file) {
    unique_fd file(open(pid_file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    if (fcntl(file.get(), F_GETLK, &range) != 0 || range.l_type == F_UNLCK) {
        return 0;
    }
    return range.l_pid > 0 ? range.l_pid : -1;
}

void stop_directly(const agent_place& at) {
    const std::string pid_file = settings_of(at).pid_file;
    const pid_t pid = holder_of(pid_file);
    if (pid == 0) {
        return;
    }
    struct stat status;
    const std::string process = "/proc/" + std::to_string(pid);
    if (pid < 0 || stat(process.c_str(), &status) != 0 ||
        (status.st_uid != at.as.user && status.st_uid != 0) || kill(pid, SIGHUP) != 0) {
        fail("the agent that runs cannot be stopped: whoever holds " + printable(pid_file) +
             " is not its user's");
    }
    const moment deadline = in(longest_stop);
    while (holder_of(pid_file) == pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            fail("the agent that runs (process " + std::to_string(pid) + ") does not end");
        }
        wait_until(in(milliseconds(50)));
    }
}

/* The program that was installed together with this one. */
std::string agent_program() {
    std::array<char, 4096> path{};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    const std::string own(path.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    std::string program = own.substr(0, own.rfind('/') + 1) + "vindral";
    if (access(program.c_str(), X_OK) != 0) {
        fail("there is no agent: " + printable(program) + " is no program");
    }
    return program;
}

/* For raw sockets of ping tests; what the service gives, too. It does without when this is refused.
 */
void keep_raw_sockets() {
    __user_cap_header_struct head{};
    head.version = _LINUX_CAPABILITY_VERSION_3;
    std::array<__user_cap_data_struct, 2> sets{};
    sets[0].effective = sets[0].permitted = sets[0].inheritable = 1u << CAP_NET_RAW;
    if (syscall(SYS_capset, &head, sets.data()) == 0) {
        (void)prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_NET_RAW, 0, 0);
    }
}

struct launch {
    std::vector<char*> words, environment;
    std::vector<gid_t> groups;
    account as;
    int output = -1;
};

bool become_user(const launch& l) {
    if (prctl(PR_SET_KEEPCAPS, 1) != 0 || setgroups(l.groups.size(), l.groups.data()) != 0 ||
        setresgid(l.as.group, l.as.group, l.as.group) != 0 ||
        setresuid(l.as.user, l.as.user, l.as.user) != 0) {
        return false;
    }
    keep_raw_sockets();
    return true;
}

/* In the child. */
[[noreturn]] void become_agent(const launch& l) {
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(l.output, STDOUT_FILENO) >= 0 &&
        dup2(l.output, STDERR_FILENO) >= 0 && (geteuid() != 0 || become_user(l))) {
        umask(022);
        restore_signals();
        execve(l.words[0], l.words.data(), l.environment.data());
    }
    dprintf(l.output, "%s", strerror(errno));
    _exit(0);
}

/* The service has one below /run; where there is no systemd somebody else has to make it. */
void make_run_directory(const agent_place& at, const settings& with) {
    const std::string directory = with.pid_file.substr(0, with.pid_file.rfind('/'));
    if (!directory.empty() && mkdir(directory.c_str(), 0755) == 0 &&
        lchown(directory.c_str(), at.as.user, at.as.group) != 0) {
        fail(printable(directory) + " cannot be given to the agent");
    }
}

/* Waits for the daemon to let go of its output: then it holds its PID file, or has ended. */
std::string read_to_end(int fd) {
    std::string said;
    std::array<char, 1024> bytes{};
    const moment deadline = in(longest_start);
    while (true) {
        if (!wait_for(fd, POLLIN, deadline)) {
            fail("the agent does not start");
        }
        const ssize_t count = read(fd, bytes.data(), bytes.size());
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return printable(said);
        }
        said.append(bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
        said.resize(std::min<size_t>(said.size(), 2000));
    }
}

void start_directly(const agent_place& at) {
    const settings with = settings_of(at);
    if (with.pid_file.empty() || with.log.empty()) {
        fail("the agent cannot start: " + printable(at.conf) + " has no PIDFILE or no LOGFILE");
    }
    std::vector<std::string> words = {agent_program(), "-C", at.conf};
    std::vector<std::string> environment = {
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=" + with.home,
        "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"};
    launch l;
    l.as = at.as;
    auto point_to = [](std::vector<std::string>& texts, std::vector<char*>& to) {
        for (std::string& text : texts) {
            to.push_back(text.data());
        }
        to.push_back(nullptr);
    };
    point_to(words, l.words);
    point_to(environment, l.environment);
    int count = 64;
    l.groups.resize(static_cast<size_t>(count));
    count = getgrouplist(agent_user, at.as.group, l.groups.data(), &count) < 0 ? 0 : count;
    l.groups.resize(static_cast<size_t>(count));
    make_run_directory(at, with);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail("the agent cannot start: " + std::system_category().message(errno));
    }
    unique_fd output(ends[0]), input(ends[1]);
    l.output = input.get();
    const pid_t pid = fork();
    if (pid < 0) {
        fail("the agent cannot start: " + std::system_category().message(errno));
    }
    if (pid == 0) {
        become_agent(l);
    }
    input = unique_fd();
    const std::string said = read_to_end(output.get());
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    /* 1 is a daemon on its way, and a sanitizer's or a crash's status may be anything. */
    if (!WIFEXITED(status) || WEXITSTATUS(status) == 0 || holder_of(with.pid_file) == 0) {
        fail("the agent does not start" + (said.empty() ? said : ": " + said));
    }
}

/* --- the log --------------------------------------------------------------------------------- */

/* The log, which lies where the agent's user writes. */
unique_fd open_log(const std::string& path, struct stat& status) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return unique_fd();
    }
    return file;
}

/* What was written since the mark: the last 256 KB of it. */
std::string log_since(const std::string& path, const log_mark& mark) {
    constexpr off_t most = 256 << 10;
    struct stat status;
    const unique_fd file = open_log(path, status);
    if (!file) {
        return "";
    }
    off_t from = status.st_ino == mark.file && status.st_size >= mark.end ? mark.end : 0;
    from = std::max(from, status.st_size - most);
    std::string text(static_cast<size_t>(status.st_size - from), '\0');
    const ssize_t count = pread(file.get(), text.data(), text.size(), from);
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

/* The last thing that went wrong in an agent's polls, without its time. */
std::string last_complaint(std::string_view log) {
    static constexpr std::string_view complaints[] = {
        "\tERROR: ", "\tUnable to establish connection", "\tAuthorization failed",
        "\tThere is an internal error", "\tSSL connection initialization failed"};
    static constexpr std::string_view summaries[] = {"\tUnable to", "\tThere is"};
    std::string found;
    bool is_summary = true;
    for (size_t at = 0; at < log.size();) {
        const std::string_view line = log.substr(at, log.find('\n', at) - at);
        at += line.size() + 1;
        for (std::string_view complaint : complaints) {
            const size_t begin = line.find(complaint);
            const bool summary =
                std::find_if(std::begin(summaries), std::end(summaries), [&](std::string_view s) {
                    return complaint.starts_with(s);
                }) != std::end(summaries);
            /* An error says more than what it led to. */
            if (begin != line.npos && (!summary || is_summary)) {
                found = printable(line.substr(begin + 1, 500));
                is_summary = summary;
            }
        }
    }
    return found;
}

bool is_running(const agent_place& at, const settings& with) {
    return at.by_systemd ? systemctl({"is-active", "--quiet", service}).status == 0
                         : holder_of(with.pid_file) != 0;
}

[[noreturn]] void fail_of_login(const char* what, const std::string& said) {
    fail(what + (said.empty() ? std::string() : "; it says: " + said));
}

} // namespace

account find_account(bool start) {
    if (geteuid() != 0) {
        return {geteuid(), getegid()};
    }
    const passwd* found = getpwnam(agent_user);
    if (found == nullptr && !start) {
        return {};
    }
    if (found == nullptr) {
        fail("there is no user vindral, as which the agent runs: the package vindral makes it");
    }
    return {found->pw_uid, found->pw_gid};
}

agent_place find_agent(const std::string& conf, const account& as) {
    struct stat status;
    const bool systemd = stat("/run/systemd/system", &status) == 0 && S_ISDIR(status.st_mode);
    char* real = realpath(standard_conf, nullptr);
    const bool its_conf = conf == standard_conf || (real != nullptr && conf == real);
    free(real);
    return {conf, systemd && its_conf, as};
}

agent_state look_at_agent(const agent_place& at) {
    if (!at.by_systemd) {
        return {holder_of(settings_of(at).pid_file) != 0, false};
    }
    return {systemctl({"is-active", "--quiet", service}).status == 0,
            systemctl({"is-enabled", "--quiet", service}).status == 0};
}

log_mark mark_log(const agent_place& at) {
    struct stat status;
    const unique_fd file = open_log(settings_of(at).log, status);
    return file ? log_mark{status.st_ino, status.st_size} : log_mark{};
}

void start_agent(const agent_place& at) {
    if (at.by_systemd) {
        systemctl_or_fail({"enable", "--quiet", service});
        systemctl_or_fail({"restart", service});
        return;
    }
    stop_directly(at);
    start_directly(at);
}

void restore_agent(const agent_place& at, const agent_state& before) {
    if (at.by_systemd) {
        if (!before.enabled) {
            systemctl_or_fail({"disable", "--quiet", service});
        }
        systemctl_or_fail({before.runs ? "restart" : "stop", service});
        return;
    }
    stop_directly(at);
    if (before.runs) {
        start_directly(at);
    }
}

bool wait_for_login(const agent_place& at, const log_mark& since) {
    const settings with = settings_of(at);
    const bool shows_logins = with.level > 0;
    const moment begun = std::chrono::steady_clock::now();
    moment complained = begun, looked = begun - longest_start;
    std::string said;
    moment in_since = begun;
    bool is_in = false;
    while (true) {
        const std::string log = log_since(with.log, since);
        const moment now = std::chrono::steady_clock::now();
        if (const std::string complaint = last_complaint(log); complaint != said) {
            said = complaint;
            complained = now;
        }
        if (log.find(refused) != log.npos) {
            fail("the collector has refused the agent, for good");
        }
        if (now - looked >= seconds(1)) {
            looked = now;
            if (!is_running(at, with)) {
                fail_of_login("the agent has ended", said);
            }
        }
        const size_t login = log.rfind(logged_in), sent_away = log.rfind(log_in_again);
        if (login == log.npos || (sent_away != log.npos && sent_away > login)) {
            is_in = false;
        } else if (!is_in) {
            is_in = true;
            in_since = now;
        }
        if (is_in && now - in_since >= steady) {
            return true;
        }
        if (!shows_logins && now - complained >= (said.empty() ? silent_login : silent_polls)) {
            return false;
        }
        if (now - begun > longest_login) {
            fail_of_login("the agent has not logged in", said);
        }
        wait_until(now + milliseconds(100));
    }
}

bool timer_is_enabled() {
    return systemctl({"is-enabled", "--quiet", timer}).status == 0;
}

bool set_timer(bool on, std::string& why_not) {
    const program_end end = systemctl({on ? "enable" : "disable", "--quiet", "--now", timer});
    why_not = end.said;
    return end.status == 0;
}
