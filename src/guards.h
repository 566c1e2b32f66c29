/* Locks, conditions, descriptors, heap memory and cancellation, each held by a scope.
 *
 * Two of the agent's threads are ended from outside: the poll thread by SIGHUP, the log writer at
 * shutdown. glibc cancels a thread by unwinding its stack, so what a scope holds is given back.
 * Three rules follow for everything built on this header:
 *   - a thread that may be cancelled runs with cancellation off and opens it (cancel_on) only round
 *     a wait during which nothing is half-done;
 *   - a destructor that calls a cancellation point (close, fclose, write, ...) turns cancellation
 *     off first, because a cancel inside a noexcept function ends the process;
 *   - no function on the way is noexcept and none catches (...) without throwing it again.
 *
 * Every mutex and condition is usable before any initialisation runs, and has a trivial destructor.
 */
#ifndef VINDRAL_GUARDS_H
#define VINDRAL_GUARDS_H

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

/* clang checks these (-Wthread-safety), g++ does not know them, people read them. */
#if defined(__clang__)
#define VINDRAL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VINDRAL_THREAD_ATTRIBUTE(x)
#endif
#define CAPABILITY(x) VINDRAL_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY VINDRAL_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) VINDRAL_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) VINDRAL_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) VINDRAL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VINDRAL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VINDRAL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VINDRAL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) VINDRAL_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS VINDRAL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

struct CAPABILITY("mutex") mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

/* Holds a mutex for a scope:  { lock hold(LDA_MON_MUTEX); ... } */
class SCOPED_CAPABILITY lock {
public:
    explicit lock(mutex& m) ACQUIRE(m) : held_(m) { pthread_mutex_lock(&held_.handle); }
    ~lock() RELEASE() { pthread_mutex_unlock(&held_.handle); }
    lock(const lock&) = delete;
    lock& operator=(const lock&) = delete;

private:
    mutex& held_;
};

struct condition {
    pthread_cond_t handle = PTHREAD_COND_INITIALIZER;
};

/* Waits with `m` held until a signal or the CLOCK_REALTIME time `deadline` as that clock stands
 * now: setting it back by a day must not make the wait a day longer, so what is left is waited out
 * by a clock that nobody sets. A cancellation point when cancellation is on: the mutex is taken
 * back before the stack unwinds. Returns what pthread_cond_timedwait returns. */
inline int condition_wait_until(condition& c, mutex& m, const timespec& deadline) REQUIRES(m) {
    constexpr long SECOND_NS = 1000000000;
    timespec now, end;
    clock_gettime(CLOCK_REALTIME, &now); /* the first of the two, so that the wait is never short */
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += deadline.tv_sec - now.tv_sec;
    end.tv_nsec += deadline.tv_nsec - now.tv_nsec;
    if (end.tv_nsec < 0) {
        end.tv_nsec += SECOND_NS;
        end.tv_sec--;
    } else if (end.tv_nsec >= SECOND_NS) {
        end.tv_nsec -= SECOND_NS;
        end.tv_sec++;
    }
    return pthread_cond_clockwait(&c.handle, &m.handle, CLOCK_MONOTONIC, &end);
}

/* Seconds since the epoch by the precise clock. The coarse one behind time() can still show the
 * previous second at a boundary, which is just when a wait for a whole second ends: two checks in a
 * row would bear the same time. */
inline time_t now_in_seconds() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

/* Microseconds on a clock that nobody sets. */
inline int64_t monotonic_us() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000) + now.tv_nsec / 1000;
}

/* The time `seconds` from now as a whole second (nanoseconds 0). By the precise clock too: a wait
 * until a deadline taken from the coarse one would return at once, again and again. */
inline timespec deadline_in(int seconds) {
    return {now_in_seconds() + seconds, 0};
}

/* Stack of every worker thread, in bytes. The sanitizers need room of their own. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr size_t WORKER_STACK_SIZE = 1024 * 1024;
#else
inline constexpr size_t WORKER_STACK_SIZE = 32768;
#endif

/* Cancellation off for a scope, then as it was before. */
class cancel_off {
public:
    cancel_off() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~cancel_off() { pthread_setcancelstate(before_, nullptr); }
    cancel_off(const cancel_off&) = delete;
    cancel_off& operator=(const cancel_off&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

/* Cancellation on for a scope, then as it was before. Only ever round one wait, and only on a
 * thread that is meant to be cancelled: the others are never cancelled, so for them it changes
 * nothing. */
class cancel_on {
public:
    cancel_on() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before_); }
    ~cancel_on() { pthread_setcancelstate(before_, nullptr); }
    cancel_on(const cancel_on&) = delete;
    cancel_on& operator=(const cancel_on&) = delete;

private:
    int before_ = PTHREAD_CANCEL_DISABLE;
};

/* Owns a file descriptor; -1 owns none. close() keeps errno and never cancels. */
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~unique_fd() { reset(); }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            cancel_off uncancelled;
            int saved = errno;
            close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_;
};

/* Heap memory from malloc, freed by scope; release() hands it to the caller. */
struct free_memory {
    void operator()(void* p) const { free(p); }
};
template <typename T>
using heap = std::unique_ptr<T, free_memory>;
using heap_text = heap<char>;

#endif
