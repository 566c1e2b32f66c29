#include "vindral_log.h"

#include "bytes.h"
#include "thread_start.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <utility>

char* log_file = nullptr;
int log_level = 0;
FILE* m_logFile = nullptr;
mutex LOG_WRITER_MUTEX;
char** vLog = nullptr;
int vLoglen = 0;
pthread_t log_writer_thread_id = 0;

static time_t system_clock() {
    return time(nullptr);
}
time_t (*log_clock)() = system_clock;

static const int WRITE_INTERVAL_S = 1;
static const int REOPEN_INTERVAL_S = 5;
static const int DRAIN_TIME_S = 2;

/* Guards writing to m_logFile, its change, and the date below. Taken before LOG_WRITER_MUTEX. */
static mutex stream_mutex;

/* Date of the current file; 0 = not yet known. */
static int current_day GUARDED_BY(stream_mutex) = 0;
static int current_mon GUARDED_BY(stream_mutex) = 0;
static int current_yea GUARDED_BY(stream_mutex) = 0;

/* The last line could not be written whole, because the disk was full: what follows it in the file
 * has to begin with the missing line end. */
static bool line_cut GUARDED_BY(stream_mutex) = false;

/* Signalled when the writer thread has something to do: a first line in the queue, or a lost file.
 */
static condition writer_work;

static bool writer_running = false; /* main thread only */

static thread_local bool crashed = false;
static timespec crash_patience; /* how long the crashed thread waits for locks */

/* `lock` for every thread but a crashed one, which may have to go on without. */
class SCOPED_CAPABILITY log_lock {
public:
    explicit log_lock(mutex& m) ACQUIRE(m) : mutex_(m) {
        held_ = !crashed ? pthread_mutex_lock(&m.handle) == 0
                         : pthread_mutex_timedlock(&m.handle, &crash_patience) == 0;
    }
    ~log_lock() RELEASE() {
        if (held_) {
            pthread_mutex_unlock(&mutex_.handle);
        }
    }
    log_lock(const log_lock&) = delete;
    log_lock& operator=(const log_lock&) = delete;

    bool held() const { return held_; }

private:
    mutex& mutex_;
    bool held_;
};

/* The stream is only ever asked for here and set in set_stream, so that a line can be refused
 * without waiting for one that is just being written. */
static FILE* stream() {
    return std::atomic_ref(m_logFile).load();
}

static void set_stream(FILE* file) {
    std::atomic_ref(m_logFile).store(file);
}

struct utc_time {
    int year, month, day, hour, minute, second;
};

/* Not gmtime_r: its lock may be held, for good, in a forked child or a crashed process. */
static utc_time utc_now() {
    using namespace std::chrono;
    sys_seconds now{seconds{log_clock()}};
    sys_days midnight = floor<days>(now);
    year_month_day date{midnight};
    hh_mm_ss time{now - midnight};
    return {static_cast<int>(date.year()),
            static_cast<int>(static_cast<unsigned>(date.month())),
            static_cast<int>(static_cast<unsigned>(date.day())),
            static_cast<int>(time.hours().count()),
            static_cast<int>(time.minutes().count()),
            static_cast<int>(time.seconds().count())};
}

/* Moves the file to the name of the day it covers; false when that failed. */
static bool move_aside() REQUIRES(stream_mutex) {
    char* text = nullptr;
    if (asprintf(&text, "%s.%d-%02d-%02d", log_file, current_yea, current_mon, current_day) < 0) {
        return false;
    }
    heap_text dated_name(text);
    return rename(log_file, dated_name.get()) == 0;
}

static void open_stream() REQUIRES(stream_mutex) {
    set_stream(fopen(log_file, "ae"));
    line_cut = false;
    if (stream() == nullptr) {
        log_lock hold(LOG_WRITER_MUTEX);
        pthread_cond_signal(&writer_work.handle);
    }
}

static void rotate_stream() REQUIRES(stream_mutex) {
    utc_time today = utc_now();
    bool day_over = current_day != 0 && current_day != today.day;
    /* The move comes before the change of stream: a line is dropped when there is no stream, and
     * none must be lost to a rotation that succeeds. */
    if (current_day == 0 || (day_over && move_aside())) {
        current_day = today.day;
        current_mon = today.month;
        current_yea = today.year;
    }
    FILE* previous = stream();
    if (previous == nullptr || day_over) {
        open_stream();
        if (previous != nullptr) {
            fclose(previous);
        }
    }
}

void rotate_log_file() {
    cancel_off uncancelled;
    log_lock hold(stream_mutex);
    rotate_stream();
}

/* Writes a line in up to four pieces. */
static void write_line(const char* line, const char* tab = "", const char* text = "",
                       const char* end = "") REQUIRES(stream_mutex) {
    fprintf(m_logFile, "%s%s%s%s%s", line_cut ? "\n" : "", line, tab, text, end);
    line_cut = fflush(m_logFile) != 0 || ferror(m_logFile);
    clearerr(m_logFile);
}

/* Writes all waiting lines, in order. */
static void write_waiting() REQUIRES(stream_mutex) {
    char** lines;
    int count;
    {
        log_lock hold(LOG_WRITER_MUTEX);
        if (!hold.held()) {
            return;
        }
        lines = std::exchange(vLog, nullptr);
        count = std::exchange(vLoglen, 0);
    }
    for (int i = 0; i < count; i++) {
        write_line(lines[i]);
        free(lines[i]);
    }
    free(lines);
}

/* Takes no memory of its own, since a crash may have happened inside malloc. Goes on in the file of
 * the day before: only the writer thread moves files. */
static void write_at_once(const char* stamp, const char* text) {
    log_lock hold(stream_mutex);
    if (m_logFile == nullptr) {
        return;
    }
    write_waiting();
    write_line(stamp, "\t", text, "\n");
}

static void queue_line(const char* stamp, const char* text) {
    size_t stamp_length = strlen(stamp);
    size_t text_length = strlen(text);
    heap_text line(static_cast<char*>(malloc(stamp_length + text_length + 3)));
    if (line == nullptr) {
        return;
    }
    char* end = static_cast<char*>(mempcpy(line.get(), stamp, stamp_length));
    *end++ = '\t';
    end = static_cast<char*>(mempcpy(end, text, text_length));
    *end++ = '\n';
    *end = '\0';

    log_lock hold(LOG_WRITER_MUTEX);
    if (!hold.held()) {
        return;
    }
    /* Room is doubled whenever the count reaches a power of two. */
    if ((vLoglen & (vLoglen - 1)) == 0 && !resize_array(vLog, 2 * static_cast<size_t>(vLoglen))) {
        return;
    }
    vLog[vLoglen++] = line.release();
    if (vLoglen == 1) {
        pthread_cond_signal(&writer_work.handle);
    }
}

void add2logfile(const char* str, int noWait) {
    if (str == nullptr) {
        return;
    }
    cancel_off uncancelled;
    if (std::atomic_ref(log_writer_thread_id).load() == 0) {
        printf("\n%s\n", str);
        return;
    }
    if (stream() == nullptr) {
        return;
    }
    utc_time now = utc_now();
    char stamp[80];
    snprintf(stamp, sizeof stamp, "[%02d/%02d/%d:%02d:%02d:%02d]", now.day, now.month, now.year,
             now.hour, now.minute, now.second);
    if (noWait) {
        write_at_once(stamp, str);
    } else {
        queue_line(stamp, str);
    }
}

void leveledadd2log(int loglevel, const char* fmt, ...) {
    if (log_level <= loglevel) {
        return;
    }
    int error = errno;
    char text[100];
    va_list arguments;
    va_start(arguments, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer misses va_start
    int length = vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    heap_text long_text;
    if (static_cast<size_t>(length) >= sizeof text) {
        size_t size = static_cast<size_t>(length) + 1;
        long_text.reset(static_cast<char*>(malloc(size)));
        if (long_text == nullptr) {
            return;
        }
        errno = error; /* for %m */
        va_start(arguments, fmt);
        vsnprintf(long_text.get(), size, fmt, arguments);
        va_end(arguments);
    }
    add2logfile(long_text != nullptr ? long_text.get() : text, loglevel <= 0);
}

static void sleep_s(int seconds) {
    timespec left = {seconds, 0};
    while (nanosleep(&left, &left) != 0) {
    }
}

/* A lost file ends the wait too: nothing is queued then, and it has to be opened again. */
static void wait_for_work() {
    lock hold(LOG_WRITER_MUTEX);
    while (vLoglen == 0 && stream() != nullptr) {
        cancel_on may_end;
        pthread_cond_wait(&writer_work.handle, &LOG_WRITER_MUTEX.handle);
    }
}

/* Lines stay in the queue until there is a file for them. Returns the seconds to sleep. */
static int write_batch() {
    log_lock hold(stream_mutex);
    rotate_stream();
    if (m_logFile == nullptr) {
        return REOPEN_INTERVAL_S;
    }
    write_waiting();
    return WRITE_INTERVAL_S;
}

void* write2logfile(void*) {
    cancel_off except_in_sleeps;
    for (;;) {
        wait_for_work();
        int pause_s = write_batch();
        cancel_on may_end;
        sleep_s(pause_s);
        pthread_testcancel();
    }
}

/* A child is forked with the log at rest, and then forgets the lines that its parent will write. */
static void before_fork() ACQUIRE(stream_mutex, LOG_WRITER_MUTEX) NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&stream_mutex.handle);
    pthread_mutex_lock(&LOG_WRITER_MUTEX.handle);
}

static void after_fork_in_parent()
    RELEASE(stream_mutex, LOG_WRITER_MUTEX) NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&LOG_WRITER_MUTEX.handle);
    pthread_mutex_unlock(&stream_mutex.handle);
}

static void after_fork_in_child() RELEASE(stream_mutex, LOG_WRITER_MUTEX) {
    vLog = nullptr;
    vLoglen = 0;
    after_fork_in_parent();
}

static void guard_forks() {
    static bool guarded = false;
    if (!guarded) {
        guarded = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    }
}

/* Creates the writer thread; 0 is logged unless only the creation failed. */
static int start_writer() {
    static constexpr thread_kind WRITER = {
        .name = "log writer",
        .log = leveledadd2log,
        .log_level = -1,
        .attr_message = "Pthread attribute initialization failed.",
        .stack_message = "Can not set log writer thread stack size."};
    pthread_t writer;
    if (thread_start(WRITER, write2logfile, nullptr, &writer) != 0) {
        return 0;
    }
    writer_running = true;
    std::atomic_ref(log_writer_thread_id).store(writer);
    return 1;
}

int init_log_file() {
    FILE* file = fopen(log_file, "ae");
    if (file == nullptr) {
        printf("\nCannot open/create main log file: %s\nError Description: %m", log_file);
        return 0;
    }
    guard_forks();
    set_stream(file);
    if (!start_writer()) {
        set_stream(nullptr);
        fclose(file);
        return 0;
    }
    return 1;
}

int shutdown_log_writer() {
    if (writer_running) {
        sleep_s(DRAIN_TIME_S);
        pthread_cancel(log_writer_thread_id);
        pthread_join(log_writer_thread_id, nullptr);
        writer_running = false;
    }
    lock hold(stream_mutex);
    FILE* file = stream();
    if (file != nullptr) {
        write_waiting();
        set_stream(nullptr);
        fclose(file);
    }
    return 1;
}

void log_from_crash() {
    clock_gettime(CLOCK_REALTIME, &crash_patience);
    crash_patience.tv_sec += 1;
    crashed = true;
}
