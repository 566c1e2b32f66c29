#include "procfile.h"

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
    heap_text text;
    size_t room = 0, used = 0;
    for (;;) {
        if (used + 1 >= room) {
            room = room == 0 ? 4096 : room * 2;
            char* grown = static_cast<char*>(realloc(text.get(), room));
            if (grown == nullptr) {
                return nullptr;
            }
            (void)text.release();
            text.reset(grown);
        }
        ssize_t length = read(file.get(), text.get() + used, room - used - 1);
        if (length < 1) {
            text.get()[used] = '\0';
            return text;
        }
        used += static_cast<size_t>(length);
    }
}
