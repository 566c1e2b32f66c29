#include "processmon.h"

#include "bytes.h"
#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "test_list.h"
#include "vindral_common.h"
#include "vindral_log.h"

#include <cctype>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

using enum protocol::status_code;

static const size_t STAT_MOST = 4095;
static const int TICKS_PER_SECOND = 100;
static const double NEVER_READ_TICKS = 1e11; /* elapsed when there is no earlier reading */
static const time_t HISTORY_S = 600;
static const double MB = 1.0 / (1 << 20);
enum { ALARM_NOT_RUNNING = 1, ALARM_CPU = 2, ALARM_RSS = 4, ALARM_VSIZE = 8 };

static void pass();

static constinit checker proc = {
    .thread_name = "proc",
    .pass = pass,
    .attr_message = "Process monitoring: thread attribute initialization failed.",
    .stack_message = "Process monitoring: can not set thread stack size."};
static constinit mutex& PROC_LIST_MUTEX = proc.mon_mutex;
static constinit test_list<proc_result, &proc_result::tid, &proc_result::name>
    proc_name_list GUARDED_BY(PROC_LIST_MUTEX);

/* In the order of the process ids. Worker only. */
static PCPU* old_proc_cpu;
static size_t len_old_proc_cpu;
static size_t old_proc_cpu_room;

/* --- /proc --- */

char* next_token(const char* p) {
    while (isspace(static_cast<unsigned char>(*p))) {
        p++;
    }
    return const_cast<char*>(p);
}

char* skip_token(const char* p) {
    p = next_token(p);
    while (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) {
        p++;
    }
    return const_cast<char*>(p);
}

char* skip_multiple_token(const char* p, size_t count) {
    while (count-- > 0) {
        p = skip_token(p);
    }
    return const_cast<char*>(p);
}

/* Reads the number at *p and moves on behind it. */
static unsigned long long take_number(const char** p) {
    char* end = nullptr;
    unsigned long long value = strtoull(*p, &end, 10);
    *p = end;
    return value;
}

/* At most `room` - 1 bytes of `name` below the directory, as text. False without any. */
static bool read_file_at(int directory, const char* name, char* buffer, size_t room) {
    unique_fd file(openat(directory, name, O_RDONLY | O_CLOEXEC));
    ssize_t length = file ? read(file.get(), buffer, room - 1) : -1;
    if (length < 1) {
        return false;
    }
    buffer[length] = '\0';
    return true;
}

static bool read_process_file(long pid, const char* name, char* buffer, size_t room) {
    char path[512];
    snprintf(path, sizeof path, "%s/%ld/%s", proc_root, pid, name);
    return read_file_at(AT_FDCWD, path, buffer, room);
}

int proc_file_to_buffer(int pid, char* buffer) {
    return read_process_file(pid, "stat", buffer, STAT_MOST + 1);
}

/* A place for one stat line. */
static heap_text stat_buffer() {
    return heap_text(static_cast<char*>(malloc(STAT_MOST + 1)));
}

static bool is_number(const char* name) {
    return name[0] != '\0' && name[strspn(name, "0123456789")] == '\0';
}

/* Where the name of a stat line begins; null when there is none. */
static const char* name_in(const char* stat, size_t* length) {
    const char* name = strchr(stat, '(');
    const char* end = name != nullptr ? strchr(name, ')') : nullptr;
    if (end == nullptr) {
        return nullptr;
    }
    *length = static_cast<size_t>(end - name) - 1;
    return name + 1;
}

/* The fields of a stat line: what follows the last parenthesis, since a name may hold some. */
static const char* fields_of(const char* stat) {
    const char* end = strrchr(stat, ')');
    return end != nullptr ? end + 1 : nullptr;
}

static int parent_in(const char* stat) {
    const char* fields = fields_of(stat);
    return fields != nullptr ? atoi(skip_token(fields)) : 0;
}

/* The processes, one after the other. */
struct process_walk {
    DIR* directory;

    process_walk() : directory(opendir(proc_root)) {}
    ~process_walk() {
        if (directory != nullptr) {
            cancel_off uncancelled;
            closedir(directory);
        }
    }
    process_walk(const process_walk&) = delete;
    process_walk& operator=(const process_walk&) = delete;

    /* The entry of the next process, or null. */
    const dirent* next() const {
        while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
            if (is_number(entry->d_name)) {
                return entry;
            }
        }
        return nullptr;
    }
    /* A file of that process, below the directory that is open anyway. */
    bool read_file(const dirent* entry, const char* name, char* buffer, size_t room) const {
        char path[sizeof entry->d_name + 16];
        snprintf(path, sizeof path, "%s/%s", entry->d_name, name);
        return read_file_at(dirfd(directory), path, buffer, room);
    }
    /* Reads its stat line into a stat_buffer(); where in it the name begins, or null. */
    const char* name_of(const dirent* entry, char* stat, size_t* length) const {
        return read_file(entry, "stat", stat, STAT_MOST + 1) ? name_in(stat, length) : nullptr;
    }
};

static unsigned int id_of(const dirent* entry) {
    return static_cast<unsigned int>(strtoul(entry->d_name, nullptr, 10));
}

int get_proclist(unsigned int** proclist, int* cnt) {
    process_walk walk;
    growing<unsigned int> ids(256);
    while (const dirent* entry = walk.next()) {
        struct stat found;
        if (fstatat(dirfd(walk.directory), entry->d_name, &found, 0) == 0 &&
            S_ISDIR(found.st_mode)) {
            ids.append(id_of(entry));
        }
    }
    if (ids.is_empty()) {
        return 0;
    }
    *cnt = static_cast<int>(ids.size());
    *proclist = ids.release();
    return 1;
}

char* get_proc_name(int pid) {
    heap_text stat = stat_buffer();
    if (!stat || !proc_file_to_buffer(pid, stat.get())) {
        return nullptr;
    }
    size_t length = 0;
    const char* name = name_in(stat.get(), &length);
    return name != nullptr ? strndup(name, length) : nullptr;
}

int get_proc_parent_id(int pid) {
    heap_text stat = stat_buffer();
    return stat && proc_file_to_buffer(pid, stat.get()) ? parent_in(stat.get()) : 0;
}

int get_proc_IDS_by_name(char* pr_name, int** m_pIDS, int* pids_count) {
    process_walk walk;
    heap_text stat = stat_buffer();
    growing<int> ids(256);
    size_t length = 0;
    while (const dirent* entry = stat ? walk.next() : nullptr) {
        const char* name = walk.name_of(entry, stat.get(), &length);
        if (name != nullptr && strlen(pr_name) == length && memcmp(name, pr_name, length) == 0) {
            ids.append(static_cast<int>(id_of(entry)));
        }
    }
    if (ids.is_empty()) {
        return 0;
    }
    *pids_count = static_cast<int>(ids.size());
    *m_pIDS = ids.release();
    return 1;
}

int get_sys_uptime(sys_uptime** buf) {
    char text[128];
    heap<sys_uptime> up(static_cast<sys_uptime*>(calloc(1, sizeof(sys_uptime))));
    if (!up || !read_file_at(AT_FDCWD, "proc/uptime", text, sizeof text)) {
        return 0;
    }
    char* rest = nullptr;
    up->uptime = strtod(text, &rest);
    up->idletime = strtod(rest, nullptr);
    up->boot_time = static_cast<unsigned long long>(now_in_seconds()) -
                    static_cast<unsigned long long>(up->uptime);
    *buf = up.release();
    return 1;
}

/* Times of the "cpu" file that some kernels have: the sums, then each of up to four processors. */
static void take_processor_times(const char* text, proc_time* t) {
    const char* p = skip_token(text);
    t->utime = take_number(&p);
    t->stime = take_number(&p);
    for (int i = 0; i < 4; i++) {
        p += strcspn(p, "\n");
        p += *p == '\n';
        if (strncmp(p, "cpu", 3) != 0 || !isdigit(static_cast<unsigned char>(p[3]))) {
            return;
        }
        p = skip_token(p);
        t->xcpu_utime[i] = take_number(&p);
        t->xcpu_stime[i] = take_number(&p);
    }
}

/* False for a line that is none. Gives the position of the start time. */
static bool take_times(const char* stat, proc_time* t, const char** start) {
    const char* p = fields_of(stat);
    if (p == nullptr) {
        return false;
    }
    p = skip_multiple_token(p, 11);
    t->utime = take_number(&p);
    t->stime = take_number(&p);
    t->cutime = take_number(&p);
    t->cstime = take_number(&p);
    p = skip_multiple_token(p, 3);
    t->it_real_value = take_number(&p);
    t->frequency = TICKS_PER_SECOND;
    *start = p;
    return true;
}

int get_proc_time(proc_time** buf, pid_t pid) {
    heap_text text = stat_buffer();
    heap<proc_time> times(static_cast<proc_time*>(calloc(1, sizeof(proc_time))));
    const char* start = nullptr;
    if (!text || !times || !proc_file_to_buffer(pid, text.get()) ||
        !take_times(text.get(), times.get(), &start)) {
        return 0;
    }
    sys_uptime* up = nullptr;
    if (get_sys_uptime(&up)) {
        times->start_time = take_number(&start) / TICKS_PER_SECOND + up->boot_time;
        free(up);
    }
    if (read_process_file(pid, "cpu", text.get(), STAT_MOST + 1)) {
        take_processor_times(text.get(), times.get());
    }
    *buf = times.release();
    return 1;
}

static unsigned long long page_size() {
    return static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
}

static bool take_sizes(const char* stat, proc_mem* m) {
    const char* p = fields_of(stat);
    if (p == nullptr) {
        return false;
    }
    p = skip_multiple_token(p, 20);
    m->vsize = take_number(&p);
    m->rss = take_number(&p); /* pages */
    m->rss_rlim = take_number(&p);
    return true;
}

static void take_statm(const char* p, proc_mem* m) {
    m->size = take_number(&p) * page_size();
    m->resident = take_number(&p) * page_size();
    m->share = take_number(&p) * page_size();
    m->rss *= page_size();
}

int get_proc_mem(proc_mem** buf, long pid) {
    heap_text text = stat_buffer();
    heap<proc_mem> sizes(static_cast<proc_mem*>(calloc(1, sizeof(proc_mem))));
    if (!text || !sizes || !read_process_file(pid, "stat", text.get(), STAT_MOST + 1) ||
        !take_sizes(text.get(), sizes.get())) {
        return 0;
    }
    if (read_process_file(pid, "statm", text.get(), STAT_MOST + 1)) {
        take_statm(text.get(), sizes.get());
    }
    *buf = sizes.release();
    return 1;
}

/* --- CPU history --- */

/* The entry of a process id, made when there is none; null without memory. */
static PCPU* history_of(int pid) {
    size_t low = 0, high = len_old_proc_cpu;
    while (low < high) {
        size_t middle = (low + high) / 2;
        if (old_proc_cpu[middle].pid < pid) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    if (low < len_old_proc_cpu && old_proc_cpu[low].pid == pid) {
        return &old_proc_cpu[low];
    }
    if (len_old_proc_cpu == old_proc_cpu_room) {
        size_t more = old_proc_cpu_room == 0 ? 256 : old_proc_cpu_room * 2;
        if (!resize_array(old_proc_cpu, more)) {
            return nullptr;
        }
        old_proc_cpu_room = more;
    }
    memmove(&old_proc_cpu[low + 1], &old_proc_cpu[low], (len_old_proc_cpu - low) * sizeof(PCPU));
    len_old_proc_cpu++;
    old_proc_cpu[low] = {pid, 0, 0, {0, 0}};
    return &old_proc_cpu[low];
}

/* Ticks since an earlier reading; none when the process id has gone to another process. */
static double growth(unsigned long long now, unsigned long long earlier) {
    return now >= earlier ? static_cast<double>(now - earlier) : 0.0;
}

static proc_cpu_usage usage_since_last(int pid, const proc_time& t) {
    PCPU* last = history_of(pid);
    if (last == nullptr) {
        return {};
    }
    timeval now;
    gettimeofday(&now, nullptr);
    double elapsed = NEVER_READ_TICKS;
    if (last->lasttime.tv_sec != 0 || last->lasttime.tv_usec != 0) {
        elapsed = (static_cast<double>(now.tv_sec - last->lasttime.tv_sec) +
                   static_cast<double>(now.tv_usec - last->lasttime.tv_usec) * 1e-6) *
                  TICKS_PER_SECOND;
    }
    if (elapsed == 0.0) {
        elapsed = 1e-6 * TICKS_PER_SECOND; /* the clock's resolution */
    }
    unsigned long long own = t.utime + t.stime, children = t.cutime + t.cstime;
    double pcpu = growth(own, last->proc_total_cpu) / elapsed;
    double ch_pcpu = growth(children, last->child_total_cpu) / elapsed;
    *last = {pid, own, children, now};
    return {pcpu, pcpu, ch_pcpu, ch_pcpu};
}

proc_cpu_usage* get_proc_cpu_usage(int pid) {
    proc_time* read = nullptr;
    if (!get_proc_time(&read, pid)) {
        return nullptr;
    }
    heap<proc_time> times(read);
    auto* usage = static_cast<proc_cpu_usage*>(malloc(sizeof(proc_cpu_usage)));
    if (usage != nullptr) {
        *usage = usage_since_last(pid, *times);
    }
    return usage;
}

void free_unused_old_proc_cpu() {
    timeval now;
    gettimeofday(&now, nullptr);
    size_t kept = 0;
    for (size_t i = 0; i < len_old_proc_cpu; i++) {
        if (now.tv_sec - old_proc_cpu[i].lasttime.tv_sec <= HISTORY_S) {
            old_proc_cpu[kept++] = old_proc_cpu[i];
        }
    }
    len_old_proc_cpu = kept;
    if (kept == 0) {
        free(old_proc_cpu);
        old_proc_cpu = nullptr;
        old_proc_cpu_room = 0;
    }
}

/* --- one walk for all tests of a pass --- */

struct seen_process {
    int pid;
    int parent;
    size_t name; /* which of the wanted */
    bool folded; /* into its parent */
    proc_cpu_usage cpu;
    proc_mem memory;
};

/* Names in order and without doubles; the texts belong to the tests. */
struct wanted_names {
    heap<const char*> names;
    size_t count = 0;

    /* Index of a name that ends at `length`, or `count`. */
    size_t find(const char* name, size_t length) const {
        size_t low = 0, high = count;
        while (low < high) {
            size_t middle = (low + high) / 2;
            const char* at = names.get()[middle];
            int order = strncmp(at, name, length);
            if (order == 0 && at[length] == '\0') {
                return middle;
            }
            if (order < 0) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return count;
    }
};

/* The processes of the wanted names, sorted by name and then by process id, which is the order of
 * /proc, and where the processes of each name begin; `begin` has one entry more than there are
 * names. */
struct process_snapshot {
    wanted_names wanted;
    growing<seen_process> processes{256};
    heap<size_t> begin;
};

static int compare_names(const void* a, const void* b) {
    return strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

static bool collect_names(wanted_names* wanted) REQUIRES(PROC_LIST_MUTEX) {
    auto room = static_cast<size_t>(proc_name_list.size());
    wanted->names.reset(static_cast<const char**>(malloc(room * sizeof(const char*))));
    if (!wanted->names) {
        return false;
    }
    const char** names = wanted->names.get();
    size_t count = 0;
    for (const proc_result* test : proc_name_list) {
        names[count++] = test->name;
    }
    qsort(names, room, sizeof names[0], compare_names);
    for (size_t i = 0; i < room; i++) {
        if (wanted->count == 0 || strcmp(names[wanted->count - 1], names[i]) != 0) {
            names[wanted->count++] = names[i];
        }
    }
    return true;
}

/* Reads what there is to know of a process whose stat line is in `text`, which is used up. False
 * when the line is none. */
static bool measure_process(const process_walk& walk, const dirent* entry, char* text,
                            seen_process* process) {
    proc_time times = {};
    const char* start = nullptr;
    process->pid = static_cast<int>(id_of(entry));
    process->parent = parent_in(text);
    process->folded = false;
    process->memory = {};
    if (!take_times(text, &times, &start) || !take_sizes(text, &process->memory)) {
        return false;
    }
    if (walk.read_file(entry, "statm", text, STAT_MOST + 1)) {
        take_statm(text, &process->memory);
    }
    if (walk.read_file(entry, "cpu", text, STAT_MOST + 1)) {
        take_processor_times(text, &times);
    }
    process->cpu = usage_since_last(process->pid, times);
    return true;
}

static int compare_processes(const void* a, const void* b) {
    const auto* left = static_cast<const seen_process*>(a);
    const auto* right = static_cast<const seen_process*>(b);
    if (left->name != right->name) {
        return left->name < right->name ? -1 : 1;
    }
    return (left->pid > right->pid) - (left->pid < right->pid);
}

static int compare_ids(const void* key, const void* process) {
    int wanted = *static_cast<const int*>(key),
        pid = static_cast<const seen_process*>(process)->pid;
    return (wanted > pid) - (wanted < pid);
}

/* Adds every process whose parent is in the same run to its parent. */
static void fold_children(seen_process* run, size_t count) {
    for (size_t i = 0; i < count; i++) {
        auto* parent = static_cast<seen_process*>(
            bsearch(&run[i].parent, run, count, sizeof(seen_process), compare_ids));
        if (parent == nullptr) {
            continue;
        }
        parent->cpu.pcpu += run[i].cpu.pcpu;
        parent->cpu.ch_pcpu += run[i].cpu.ch_pcpu;
        parent->memory.rss += run[i].memory.rss;
        parent->memory.vsize += run[i].memory.vsize;
        run[i].folded = true;
    }
}

static void walk_processes(process_snapshot* s) {
    process_walk walk;
    heap_text text = stat_buffer();
    size_t length = 0;
    while (const dirent* entry = text ? walk.next() : nullptr) {
        const char* name = walk.name_of(entry, text.get(), &length);
        seen_process process;
        process.name = name != nullptr ? s->wanted.find(name, length) : s->wanted.count;
        if (process.name != s->wanted.count && measure_process(walk, entry, text.get(), &process)) {
            s->processes.append(process);
        }
    }
}

/* False without memory. */
static bool take_snapshot(process_snapshot* s) REQUIRES(PROC_LIST_MUTEX) {
    if (!collect_names(&s->wanted)) {
        return false;
    }
    s->begin.reset(static_cast<size_t*>(calloc(s->wanted.count + 1, sizeof(size_t))));
    if (!s->begin) {
        return false;
    }
    walk_processes(s);
    seen_process* processes = s->processes.data();
    if (!s->processes.is_empty()) {
        qsort(processes, s->processes.size(), sizeof(seen_process), compare_processes);
    }
    size_t at = 0;
    for (size_t name = 0; name < s->wanted.count; name++) {
        s->begin.get()[name] = at;
        while (at < s->processes.size() && processes[at].name == name) {
            at++;
        }
        fold_children(&processes[s->begin.get()[name]], at - s->begin.get()[name]);
    }
    s->begin.get()[s->wanted.count] = at;
    return true;
}

/* --- evaluation --- */

static void add_proc_record(const proc_result& test, int pid, protocol::status_code status,
                            double cpu, const proc_mem& memory, const char* message) {
    checker_add_record(proc, make_record<protocol::process>(
                                 named<"test">(test.tid), named<"location">(test.lid),
                                 named<"pid">(pid), named<"status">(status),
                                 named<"time">(now_in_seconds()), named<"cpu">(cpu),
                                 named<"resident">(static_cast<double>(memory.rss) * MB),
                                 named<"virtual">(static_cast<double>(memory.vsize) * MB),
                                 named<"message">(message)));
}

static void report_not_running(proc_result* test) {
    add_proc_record(*test, 0, status_not_found, 0.0, {}, "The process is not running");
    test->last_status |= ALARM_NOT_RUNNING;
}

/* Compares with the limits and keeps the alarms; the message goes to `*message` (caller frees). */
static protocol::status_code judge_process(proc_result* test, double cpu, const proc_mem& memory,
                                           char** message) {
    char line[512];
    auto status = status_ok;
    if (test->cpu_critical != -1 && cpu >= test->cpu_critical) {
        snprintf(line, sizeof line, "Current CPU usage: %.2f%% / Max value: %u\n", cpu,
                 static_cast<unsigned>(test->cpu_critical));
        adv_strcat(message, line);
        status = status_limit;
        test->last_status |= ALARM_CPU;
    }
    const struct {
        unsigned long long limit, bytes;
        const char* format;
        int alarm;
    } sizes[] = {{test->rss_critical, memory.rss,
                  "Current Working set size: %.2f MB / Max value: %u\n", ALARM_RSS},
                 {test->vsize_critical, memory.vsize,
                  "Current Page file usage: %.2f MB / Max value: %u\n", ALARM_VSIZE}};
    for (const auto& s : sizes) {
        if (s.limit != ~0ULL && s.limit <= s.bytes >> 20) {
            snprintf(line, sizeof line, s.format, static_cast<double>(s.bytes) * MB,
                     static_cast<unsigned>(s.limit));
            adv_strcat(message, line);
            status = status_limit;
            test->last_status |= s.alarm;
        }
    }
    return status;
}

/* Announces what has ended since the last all-clear. */
static void tell_all_clear(proc_result* test, char** message) {
    const struct {
        int alarm;
        const char* text;
    } ends[] = {{ALARM_NOT_RUNNING, "The process has been started.\n"},
                {ALARM_CPU, "Current CPU usage is within acceptable limits.\n"},
                {ALARM_RSS, "Current Working set size is within acceptable limits.\n"},
                {ALARM_VSIZE, "Current Page file usage is within acceptable limits.\n"}};
    for (const auto& end : ends) {
        if (test->last_status & end.alarm) {
            adv_strcat(message, end.text);
        }
    }
    test->last_status = 0;
}

static void report_process(proc_result* test, const seen_process& process) {
    double cpu = process.cpu.pcpu * 100;
    char* message = nullptr;
    auto status = judge_process(test, cpu, process.memory, &message);
    if (status == status_ok) {
        tell_all_clear(test, &message);
    }
    add_proc_record(*test, process.pid, status, cpu, process.memory, message);
    free(message);
}

static void check_in_snapshot(const process_snapshot& s, proc_result* test) {
    size_t name = s.wanted.find(test->name, strlen(test->name));
    size_t from = s.begin.get()[name], to = s.begin.get()[name + 1];
    if (from == to) {
        report_not_running(test);
    }
    for (size_t i = from; i < to; i++) {
        if (!s.processes[i].folded) {
            report_process(test, s.processes[i]);
        }
    }
}

void make_check(int _i_) REQUIRES(PROC_LIST_MUTEX) {
    process_snapshot snapshot;
    if (take_snapshot(&snapshot)) {
        check_in_snapshot(snapshot, proc_name_list[_i_]);
    }
}

static bool check_all_processes() {
    lock hold(PROC_LIST_MUTEX);
    process_snapshot snapshot;
    return proc_name_list.size() != 0 && take_snapshot(&snapshot) &&
           proc_name_list.check_each(
               [&](proc_result& test) { check_in_snapshot(snapshot, &test); });
}

void do_proc_check() {
    if (check_all_processes()) {
        fresh_results();
    }
}

static void pass() {
    do_proc_check();
    free_unused_old_proc_cpu();
}

/* --- inventory --- */

/* Distinct names, each with a tab behind it, and a hash table of where they begin. */
struct name_list {
    bytes text{4096};       /* with a NUL behind the last one */
    heap<uint32_t> slots{}; /* offset + 1; 0: free */
    size_t slot_count = 0, names = 0;

    static size_t hash(const char* name, size_t length) {
        size_t h = 14695981039346656037U; /* FNV-1a */
        for (size_t i = 0; i < length; i++) {
            h = (h ^ static_cast<unsigned char>(name[i])) * 1099511628211U;
        }
        return h;
    }

    /* The slot of a name: its own, or the free one where it belongs. */
    uint32_t* slot_of(const char* name, size_t length_of_name) const {
        for (size_t i = hash(name, length_of_name);; i++) {
            uint32_t* slot = &slots.get()[i & (slot_count - 1)];
            if (*slot == 0) {
                return slot;
            }
            const char* at = text.data() + *slot - 1;
            if (strncmp(at, name, length_of_name) == 0 && at[length_of_name] == '\t') {
                return slot;
            }
        }
    }

    bool grow_slots() {
        size_t count = slot_count == 0 ? 512 : slot_count * 2;
        heap<uint32_t> old = std::move(slots);
        size_t old_count = slot_count;
        slots.reset(static_cast<uint32_t*>(calloc(count, sizeof(uint32_t))));
        if (!slots) {
            slots = std::move(old);
            return false;
        }
        slot_count = count;
        for (size_t i = 0; i < old_count; i++) {
            if (uint32_t offset = old.get()[i]) {
                const char* name = text.data() + offset - 1;
                *slot_of(name, strcspn(name, "\t")) = offset;
            }
        }
        return true;
    }

    void add(const char* name, size_t length) {
        if (!text.reserve(length + 2) || (names * 2 >= slot_count && !grow_slots())) {
            return;
        }
        uint32_t* slot = slot_of(name, length);
        if (*slot != 0) {
            return;
        }
        *slot = static_cast<uint32_t>(text.size()) + 1;
        text.append(name, length);
        text.append('\t');
        text.terminate();
        names++;
    }
};

int get_proc_name_list(char** pData, int* pDataSize) {
    process_walk walk;
    heap_text stat = stat_buffer();
    name_list list;
    bool any = false;
    size_t length = 0;
    while (const dirent* entry = stat ? walk.next() : nullptr) {
        any = true;
        if (const char* name = walk.name_of(entry, stat.get(), &length)) {
            list.add(name, length);
        }
    }
    return any &&
           hand_over_record(make_record<protocol::process_names>(named<"time">(now_in_seconds()),
                                                                 named<"names">(list.text.data())),
                            pData, pDataSize);
}

/* --- tests --- */

/* A size limit as the tests keep it: -1 becomes all ones. */
static unsigned long long widened(int megabytes) {
    return static_cast<unsigned long long>(static_cast<long long>(megabytes));
}

static void log_test(const char* what, const proc_result& test) {
    leveledadd2log(5,
                   "INFO: %s test. tid:%d, lid:%d, process:'%s', cpu_critical:%d, "
                   "rss_critical:%d, vsize_critical:%d",
                   what, test.tid, test.lid, test.name, test.cpu_critical,
                   static_cast<int>(test.rss_critical), static_cast<int>(test.vsize_critical));
}

static bool add_test(const proc_result& test) {
    lock hold(PROC_LIST_MUTEX);
    if (proc_name_list.find(test.tid) != nullptr) {
        leveledadd2log(0, "ERROR: add_proc. Existing test. tid:%d", test.tid);
        return false;
    }
    return proc_name_list.add(test);
}

void add_proc(char* pr_name, int t_id, int loc_id, int cpu_critical, int rss_critical,
              int vsize_critical) {
    const proc_result test = {.name = pr_name,
                              .tid = t_id,
                              .lid = loc_id,
                              .cpu_critical = cpu_critical,
                              .rss_critical = widened(rss_critical),
                              .vsize_critical = widened(vsize_critical),
                              .last_status = 0,
                              .isFirstCheck = 1};
    if (pr_name != nullptr && t_id != 0 && add_test(test)) {
        log_test("add_proc. Added", test);
        checker_wake(proc);
    }
}

void mod_proc(char* pr_name, int t_id, int loc_id, int cpu_critical, int rss_critical,
              int vsize_critical) {
    const proc_result test = {.name = pr_name,
                              .tid = t_id,
                              .lid = loc_id,
                              .cpu_critical = cpu_critical,
                              .rss_critical = widened(rss_critical),
                              .vsize_critical = widened(vsize_critical),
                              .last_status = 0,
                              .isFirstCheck = 1};
    lock hold(PROC_LIST_MUTEX);
    if (pr_name != nullptr && proc_name_list.replace(test)) {
        log_test("mod_proc. Modified", test);
        checker_wake(proc);
    }
}

void rem_proc(int t_id) {
    if (t_id == 0) {
        return;
    }
    lock hold(PROC_LIST_MUTEX);
    if (proc_name_list.remove(t_id)) {
        leveledadd2log(5, "INFO: rem_proc. Removed test. tid:%d", t_id);
    } else {
        leveledadd2log(0, "ERROR: rem_proc. Non-existing test. tid:%d", t_id);
    }
}

int init_proc_variables() {
    return checker_start(proc, proc_worker_thread);
}
void* proc_worker_thread(void*) {
    checker_work(proc);
    return nullptr;
}
int get_proc_check_interval() {
    return checker_get_interval(proc);
}
void set_proc_check_interval(int t_sec) {
    checker_set_interval(proc, t_sec);
}
void add_proc_result(char* rez, int rez_size) {
    checker_add_result(proc, rez, rez_size);
}
int get_proc_results(char** rez, int* rez_size) {
    return checker_get_results(proc, rez, rez_size);
}
void shutdown_proc_checker() {
    checker_stop(proc);
}
