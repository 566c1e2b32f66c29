#include "procfile.h"

#include <climits>
#include <cstdio>
#include <fcntl.h>

const char* proc_root = "/proc";

heap_text read_proc_file(const char* name, size_t limit) {
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%s", proc_root, name);
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
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
