#include "remote_query.h"

#include "bytes.h"
#include "shell_command.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>

static const size_t OUTPUT_LIMIT = 16 * 1024 * 1024;
static int query_limit_s = 60; /* snmpget's own time-outs and retries stay well below */

int is_safe_host(const char* host) {
    if (host == nullptr || host[0] == '\0' || host[0] == '-' || strlen(host) > 300) {
        return 0;
    }
    for (const char* c = host; *c != '\0'; c++) {
        bool letter = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z');
        bool digit = *c >= '0' && *c <= '9';
        if (!letter && !digit && strchr(".-_:[]%", *c) == nullptr) {
            return 0;
        }
    }
    return 1;
}

/* Milliseconds left until `end` on the monotonic clock; 0 when it has passed. */
static int time_left_ms(const timespec& end) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long left = (end.tv_sec - now.tv_sec) * 1000 + (end.tv_nsec - now.tv_nsec) / 1000000;
    return left > 0 ? static_cast<int>(left) : 0;
}

/* What a command has printed so far. */
struct output {
    bytes text{4096, OUTPUT_LIMIT + 1}; /* with the place for a NUL */
    bool cut = false;                   /* there was more than OUTPUT_LIMIT */
};

/* As read(2). What is beyond the limit is read and dropped, so that the command does not wait for a
 * reader. */
static ssize_t read_some(int fd, output* printed) {
    if (printed->text.size() == OUTPUT_LIMIT) {
        char dropped[4096];
        ssize_t count = read(fd, dropped, sizeof dropped);
        printed->cut |= count > 0;
        return count;
    }
    if (!printed->text.reserve(2)) {
        errno = ENOMEM;
        return -1;
    }
    ssize_t count = read(fd, printed->text.end(), printed->text.room() - printed->text.size() - 1);
    printed->text.added(count > 0 ? static_cast<size_t>(count) : 0);
    return count;
}

/* The text of what was printed. Half a line at the limit could pass for a whole one with another
 * value, so it goes. Null without memory. */
static heap_text finish(output* printed) {
    bytes& text = printed->text;
    if (printed->cut) {
        const void* last = memrchr(text.data(), '\n', text.size());
        text.cut(last != nullptr
                     ? static_cast<size_t>(static_cast<const char*>(last) + 1 - text.data())
                     : 0);
    }
    return text.terminate() ? text.take() : nullptr;
}

/* Reads until the end of the stream, or until the limit of time: `*ended` tells which. Null at a
 * stop and when reading failed. */
static heap_text read_all(int fd, int stop_fd, bool* ended) {
    output printed;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += query_limit_s;
    for (;;) {
        pollfd waited[] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        int left_ms = time_left_ms(end);
        int ready = poll(waited, 2, left_ms);
        if (ready > 0 && waited[1].revents != 0) {
            return nullptr;
        }
        if (ready == 0 || left_ms == 0) { /* a command may never stop writing */
            return finish(&printed);
        }
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        ssize_t count = ready < 0 ? -1 : read_some(fd, &printed);
        if (count == 0) {
            *ended = true;
            return finish(&printed);
        }
        if (count < 0 && errno != EINTR) {
            return nullptr;
        }
    }
}

static bool is_readable(int fd) {
    pollfd readable = {fd, POLLIN, 0};
    return poll(&readable, 1, 0) > 0;
}

heap_text query_remote_host(const char* command_format, const char* host, int stop_fd) {
    const char* place = strstr(command_format, "%s");
    if (!is_safe_host(host) || place == nullptr || stop_fd < 0 || is_readable(stop_fd)) {
        return nullptr;
    }
    char* line = nullptr;
    if (asprintf(&line, "%.*s%s%s", static_cast<int>(place - command_format), command_format, host,
                 place + 2) < 0) {
        return nullptr;
    }
    heap_text command_line(line);

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return nullptr;
    }
    unique_fd reading(ends[0]);
    unique_fd writing(ends[1]);
    pid_t pid = spawn_shell(command_line.get(), writing.get(), true);
    if (pid < 0) {
        return nullptr;
    }
    writing.reset();
    bool ended = false;
    heap_text output = read_all(reading.get(), stop_fd, &ended);
    if (!ended) {
        kill(-pid, SIGKILL); /* its group; the number is its own until it is waited for */
    }
    reading.reset();
    wait_command(pid);
    return output;
}
