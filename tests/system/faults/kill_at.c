/* Loaded before libc (LD_PRELOAD): ends the program, as by kill -9, when it is about to change a file
 * for the KILL_AT-th time; with KILL_HALF, in the middle of a write. KILL_COUNT names a file that
 * gets the number of changes of a program that came to its end. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

static _Atomic long changes;
static long kill_at, half;

__attribute__((constructor)) static void begin(void) {
    const char* at = getenv("KILL_AT");
    kill_at = at ? atol(at) : 0;
    half = getenv("KILL_HALF") != NULL;
}

__attribute__((destructor)) static void end(void) {
    const char* path = getenv("KILL_COUNT");
    FILE* file = path ? fopen(path, "w") : NULL;
    if (file) {
        fprintf(file, "%ld\n", changes);
        fclose(file);
    }
}

static int is_last(void) {
    return ++changes == kill_at;
}

static void die(void) {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

/* Streams, pipes and sockets are nothing that is left behind. */
static int is_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

ssize_t write(int fd, const void* bytes, size_t size) {
    static __typeof__(&write) real;
    real = real ? real : REAL(write);
    if (is_file(fd) && is_last()) {
        if (half) {
            real(fd, bytes, size / 2);
        }
        die();
    }
    return real(fd, bytes, size);
}

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t at) {
    static __typeof__(&pwrite64) real;
    real = real ? real : REAL(pwrite64);
    if (is_last()) {
        if (half) {
            real(fd, bytes, size / 2, at);
        }
        die();
    }
    return real(fd, bytes, size, at);
}

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t at) {
    return pwrite64(fd, bytes, size, at);
}

#define BEFORE(type, name, parameters, arguments)                                                  \
    type name parameters {                                                                         \
        static __typeof__(&name) real;                                                             \
        real = real ? real : REAL(name);                                                           \
        if (is_last()) {                                                                           \
            die();                                                                                 \
        }                                                                                          \
        return real arguments;                                                                     \
    }

BEFORE(int, fsync, (int fd), (fd))
BEFORE(int, fdatasync, (int fd), (fd))
BEFORE(int, ftruncate, (int fd, off_t size), (fd, size))
BEFORE(int, ftruncate64, (int fd, off64_t size), (fd, size))
BEFORE(int, unlink, (const char* path), (path))
BEFORE(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags))
BEFORE(int, rename, (const char* from, const char* to), (from, to))
BEFORE(int, renameat, (int a, const char* from, int b, const char* to), (a, from, b, to))
BEFORE(int, link, (const char* from, const char* to), (from, to))
BEFORE(int, mkdir, (const char* path, mode_t mode), (path, mode))
