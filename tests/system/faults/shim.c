/* Loaded before libc (LD_PRELOAD): makes the clock jump, memory or threads fail, and the disk slow,
 * while the program runs, without touching the machine. A test steers it through the file that
 * FAULT_CONTROL names, mapped by both. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

struct control {
    _Atomic int64_t clock_offset_s;  /* added to CLOCK_REALTIME */
    _Atomic int64_t fail_every;      /* one allocation in so many fails; 0: none, 1: all */
    _Atomic int64_t fail_from_bytes; /* smaller ones never do */
    _Atomic int64_t failed;          /* how many did */
    _Atomic int64_t no_threads;      /* pthread_create fails */
    _Atomic int64_t sync_ms;         /* that much longer until a file is on disk */
};
static struct control none;
static struct control* control = &none;

__attribute__((constructor)) static void map_control(void) {
    int file = open(getenv("FAULT_CONTROL"), O_RDWR | O_CLOEXEC);
    void* map = mmap(NULL, sizeof(struct control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (map != MAP_FAILED) {
        control = map;
    }
    close(file);
}

/* ---- the clock ---- */

int clock_gettime(clockid_t clock, struct timespec* now) {
    int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
        now->tv_sec += control->clock_offset_s;
    }
    return result;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    (void)zone;
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* now) {
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME_COARSE, &precise);
    if (now) {
        *now = precise.tv_sec;
    }
    return precise.tv_sec;
}

typedef int clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);

static clockwait* real_clockwait(void) {
    static clockwait* real;
    return real ? real : (real = (clockwait*)dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
}

/* As the kernel does it: an absolute time is reached when the clock gets there, however it moves.
 */
static int wait_for_the_clock(pthread_cond_t* cond, pthread_mutex_t* mutex,
                              const struct timespec* deadline) {
    for (;;) {
        struct timespec now, slice;
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec > deadline->tv_sec ||
            (now.tv_sec == deadline->tv_sec && now.tv_nsec >= deadline->tv_nsec)) {
            return ETIMEDOUT;
        }
        clock_gettime(CLOCK_MONOTONIC, &slice);
        slice.tv_nsec += 10000000;
        if (slice.tv_nsec >= 1000000000) {
            slice.tv_nsec -= 1000000000;
            slice.tv_sec++;
        }
        int result = real_clockwait()(cond, mutex, CLOCK_MONOTONIC, &slice);
        if (result != ETIMEDOUT) {
            return result;
        }
    }
}

int pthread_cond_timedwait(pthread_cond_t* restrict cond, pthread_mutex_t* restrict mutex,
                           const struct timespec* restrict deadline) {
    return wait_for_the_clock(cond, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* restrict cond, pthread_mutex_t* restrict mutex,
                           clockid_t clock, const struct timespec* restrict deadline) {
    return clock == CLOCK_REALTIME ? wait_for_the_clock(cond, mutex, deadline)
                                   : real_clockwait()(cond, mutex, clock, deadline);
}

/* ---- memory ---- */

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

static int fails(size_t size) {
    static _Atomic uint64_t count;
    int64_t every = control->fail_every;
    if (every == 0 || (int64_t)size < control->fail_from_bytes || ++count % (uint64_t)every != 0) {
        return 0;
    }
    control->failed++;
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails(size) ? NULL : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    return fails(count * size) ? NULL : __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
    return fails(size) ? NULL : __libc_realloc(block, size);
}

/* ---- threads ---- */

typedef int create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int pthread_create(pthread_t* restrict thread, const pthread_attr_t* restrict attributes,
                   void* (*body)(void*), void* restrict argument) {
    static create* real;
    if (control->no_threads) {
        return EAGAIN;
    }
    if (!real) {
        real = (create*)dlsym(RTLD_NEXT, "pthread_create");
    }
    return real(thread, attributes, body, argument);
}

/* ---- the disk ---- */

static void wait_for_the_disk(void) {
    for (int64_t waited = 0; waited < control->sync_ms; waited += 10) { /* as it is set meanwhile */
        struct timespec some = {0, 10000000};
        nanosleep(&some, NULL);
    }
}

int fsync(int file) {
    wait_for_the_disk();
    return (int)syscall(SYS_fsync, file);
}

int fdatasync(int file) {
    wait_for_the_disk();
    return (int)syscall(SYS_fdatasync, file);
}
