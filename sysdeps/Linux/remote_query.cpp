#include "remote_query.h"

#include "shell_command.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>

static const size_t OUTPUT_LIMIT = 64 * 1024;
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

/* Reads until the end of the stream, or until the limit of time: `*ended` tells which. Output
 * beyond the limit of size is read and dropped, so that the command does not wait for a reader.
 * Null when reading failed. */
static heap_text read_all(int fd, bool* ended) {
    heap_text text(static_cast<char*>(malloc(OUTPUT_LIMIT + 1)));
    if (!text) {
        return nullptr;
    }
    size_t length = 0;
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += query_limit_s;
    for (;;) {
        pollfd readable = {fd, POLLIN, 0};
        int left_ms = time_left_ms(end);
        int ready = poll(&readable, 1, left_ms);
        if (ready == 0 || left_ms == 0) { /* a command may never stop writing */
            break;
        }
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return nullptr;
        }
        char dropped[512];
        bool full = length == OUTPUT_LIMIT;
        ssize_t count = read(fd, full ? dropped : text.get() + length,
                             full ? sizeof dropped : OUTPUT_LIMIT - length);
        if (count == 0) {
            *ended = true;
            break;
        }
        if (count > 0 && !full) {
            length += static_cast<size_t>(count);
        } else if (count < 0 && errno != EINTR) {
            return nullptr;
        }
    }
    text.get()[length] = '\0';
    return text;
}

heap_text query_remote_host(const char* command_format, const char* host) {
    const char* place = strstr(command_format, "%s");
    if (!is_safe_host(host) || place == nullptr) {
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
    heap_text output = read_all(reading.get(), &ended);
    if (!ended) {
        kill(-pid, SIGKILL);
    }
    reading.reset();
    wait_command(pid);
    return output;
}
