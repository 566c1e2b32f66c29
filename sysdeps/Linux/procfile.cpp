#include "procfile.h"

#include "bytes.h"

#include <climits>
#include <cstdio>
#include <fcntl.h>

const char* proc_root = "/proc";

static unique_fd open_proc_file(const char* name) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%s", proc_root, name);
    return unique_fd(open(path, O_RDONLY | O_CLOEXEC));
}

heap_text read_proc_file(const char* name, size_t limit) {
    unique_fd file = open_proc_file(name);
    if (!file) {
        return nullptr;
    }
    heap_text text(static_cast<char*>(malloc(limit + 1)));
    if (!text) {
        return nullptr;
    }
    ssize_t length = read(file.get(), text.get(), limit);
    if (length < 1) {
        return nullptr;
    }
    text.get()[length] = '\0';
    return text;
}

heap_text read_whole_proc_file(const char* name) {
    unique_fd file = open_proc_file(name);
    if (!file) {
        return nullptr;
    }
    bytes text(4096);
    for (;;) {
        if (!text.reserve(2)) { /* something, and the NUL */
            return nullptr;
        }
        ssize_t length = read(file.get(), text.end(), text.room() - text.size() - 1);
        if (length < 1) {
            *text.end() = '\0';
            return text.take();
        }
        text.added(static_cast<size_t>(length));
    }
}

bool take_line(const char** rest, char* line, size_t room) {
    if (**rest == '\0') {
        return false;
    }
    size_t length = strcspn(*rest, "\n");
    length = length < room - 1 ? length : room - 1;
    memcpy(line, *rest, length);
    line[length] = '\0';
    *rest += length + ((*rest)[length] == '\n');
    return true;
}
