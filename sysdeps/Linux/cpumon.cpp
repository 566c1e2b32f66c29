#include "cpumon.h"

#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "remote_query.h"
#include "test_list.h"
#include "vindral_common.h"
#include "vindral_log.h"

#include <array>
#include <cstdio>

using enum protocol::status_code;

enum { USER, SYSTEM, NICE, IDLE, IOWAIT, STATES };

static const char REMOTE_COUNTERS_COMMAND[] =
    "snmpget -v 1 -t 1 -c \"public\" %s 1.3.6.1.4.1.2021.11.50.0 1.3.6.1.4.1.2021.11.51.0 "
    "1.3.6.1.4.1.2021.11.52.0 1.3.6.1.4.1.2021.11.53.0 1.3.6.1.4.1.2021.11.54.0 "
    "1.3.6.1.4.1.2021.11.55.0 1.3.6.1.4.1.2021.11.56.0 | cut -s -d = -f 2";
static const char REMOTE_PROCESSORS_COMMAND[] =
    "snmptable -v 1 -t 1 -Ov -CHf ^ -c \"public\" %s 1.3.6.1.2.1.25.3.3";

static void pass();

static constinit checker cpu = {.thread_name = "cpu",
                                .pass = pass,
                                .attr_message = "Pthread attribute initialization failed.",
                                .stack_message = "Cannot set ping thread stack size."};
static constinit mutex& CPU_MON_MUTEX = cpu.mon_mutex;
static constinit test_list<cpu_check_def, &cpu_check_def::test_id, &cpu_check_def::host,
                           &cpu_check_def::system>
    cpu_def_list GUARDED_BY(CPU_MON_MUTEX);

/* One line of counters: the machine as a whole, then the processors. */
struct cpu_line {
    long long cp_old[STATES];  /* ticks at the previous reading */
    long long cp_diff[STATES]; /* what they grew by */
    int cpu_states[STATES];    /* shares, tenths of a percent */
};

/* Set at initialisation. */
static long cpuCount;   /* processors; there is one line more */
static int show_iowait; /* the kernel counts I/O wait */

static constinit mutex reading_mutex{};
static cpu_line* lines GUARDED_BY(reading_mutex);

char* read_proc_status() {
    return read_whole_proc_file("stat").release();
}

/* "cpu  1 2 3" and "cpu0 1 2 3" alike: the number of a processor belongs to the word. */
char* get_next_cpu_status(const char* p) {
    const char* found = strstr(p, "cpu");
    return found != nullptr ? const_cast<char*>(found + strcspn(found, " \t\n")) : nullptr;
}

long long percentages(int cnt, int* out, long long* new1, long long* old, long long* diffs) {
    long long total = 0;
    for (int i = 0; i < cnt; i++) {
        diffs[i] = static_cast<long long>(static_cast<unsigned long long>(new1[i]) -
                                          static_cast<unsigned long long>(old[i]));
        total = static_cast<long long>(static_cast<unsigned long long>(total) +
                                       static_cast<unsigned long long>(diffs[i]));
        old[i] = new1[i];
    }
    long long bias = total / 2;
    if (total == 0) {
        total = 1;
    }
    for (int i = 0; i < cnt; i++) {
        out[i] = static_cast<int>((static_cast<__int128>(diffs[i]) * 1000 + bias) / total);
    }
    return total;
}

static void read_counters(const char* text) REQUIRES(reading_mutex) {
    const char* line = get_next_cpu_status(text);
    for (long i = 0; i <= cpuCount && line != nullptr; i++) {
        long long cp_time[STATES] = {};
        char* rest = const_cast<char*>(line);
        for (int state = 0; state < (show_iowait ? STATES : IOWAIT); state++) {
            cp_time[state] = static_cast<long long>(strtoull(rest, &rest, 10));
        }
        percentages(STATES, lines[i].cpu_states, cp_time, lines[i].cp_old, lines[i].cp_diff);
        line = get_next_cpu_status(line);
    }
}

static size_t line_count() {
    return static_cast<size_t>(cpuCount) + 1;
}

/* Takes a reading. Returns a copy of the lines, which the other thread cannot change, or null. The
 * file is read under the lock: counters read earlier but compared later would run backwards. */
static heap<cpu_line> measure() {
    lock hold(reading_mutex);
    heap_text text(read_proc_status());
    heap<cpu_line> now(static_cast<cpu_line*>(malloc(line_count() * sizeof(cpu_line))));
    if (!text || !now || lines == nullptr) {
        return nullptr;
    }
    read_counters(text.get());
    memcpy(now.get(), lines, line_count() * sizeof(cpu_line));
    return now;
}

/* Seven " Counter32: 123" lines. */
int get_remote_UCD_cpu_params(const char* host, unsigned long long** retVal) {
    heap_text output = query_remote_host(REMOTE_COUNTERS_COMMAND, host, checker_stop_fd(cpu));
    heap<unsigned long long> ticks(
        static_cast<unsigned long long*>(calloc(7, sizeof(unsigned long long))));
    if (!output || !ticks) {
        return 0;
    }
    char* rest = output.get();
    for (int i = 0; i < 7; i++) {
        char* line = strsep(&rest, "\n");
        const char* value = line != nullptr ? strstr(line, "Counter32:") : nullptr;
        if (value == nullptr) {
            return 0;
        }
        ticks.get()[i] = strtoull(value + strlen("Counter32:"), nullptr, 10);
    }
    *retVal = ticks.release();
    return 1;
}

/* One row for each processor: "0.0^17", its load behind the first "^". */
int get_remote_cpu_params(const char* host, unsigned int* proccount, unsigned int** procloads) {
    heap_text output = query_remote_host(REMOTE_PROCESSORS_COMMAND, host, checker_stop_fd(cpu));
    if (!output) {
        return 0;
    }
    size_t rows = 1;
    for (const char* p = output.get(); *p != '\0'; p++) {
        rows += *p == '\n';
    }
    heap<unsigned> loads(static_cast<unsigned*>(malloc(rows * sizeof(unsigned))));
    if (!loads) {
        return 0;
    }
    unsigned count = 0;
    char* rest = output.get();
    while (char* line = strsep(&rest, "\n")) {
        const char* separator = strchr(line, '^');
        if (separator != nullptr && separator[1] != '\0') {
            loads.get()[count++] = static_cast<unsigned>(strtoul(separator + 1, nullptr, 10));
        }
    }
    if (count == 0) {
        return 0;
    }
    *proccount = count;
    *procloads = loads.release();
    return 1;
}

/* In percent. */
using cpu_shares = std::array<double, STATES>;

/* The shares since the start of the remote host. */
static bool query_counters(const char* host, cpu_shares& shares) {
    unsigned long long* queried = nullptr;
    if (!get_remote_UCD_cpu_params(host, &queried)) {
        return false;
    }
    heap<unsigned long long> ticks(queried);
    enum { R_USER, R_NICE, R_SYSTEM, R_IDLE, R_WAIT, R_KERNEL, R_INTERRUPT, R_STATES };
    unsigned long long sum = 0;
    for (int i = 0; i < R_STATES; i++) {
        sum += queried[i];
    }
    const int slots[STATES] = {R_USER, R_SYSTEM, R_NICE, R_IDLE, R_WAIT};
    for (int i = 0; i < STATES; i++) {
        /* A host that counts nothing has no share of anything: 0/0, no number. */
        shares[i] = static_cast<double>(queried[slots[i]]) / static_cast<double>(sum) * 100;
    }
    return true;
}

static bool query_processors(const char* host, cpu_shares& shares) {
    unsigned count = 0;
    unsigned* queried = nullptr;
    if (!get_remote_cpu_params(host, &count, &queried)) {
        return false;
    }
    heap<unsigned> loads(queried);
    unsigned sum = 0;
    for (unsigned i = 0; i < count; i++) {
        sum += queried[i];
    }
    /* Without a fraction, as the shares it is made of. */
    unsigned mean = count != 0 ? sum / count : 0;
    shares[USER] = mean;
    shares[IDLE] = 100 - shares[USER];
    shares[SYSTEM] = shares[NICE] = shares[IOWAIT] = 0.0;
    return true;
}

/* Adds the line of a limit to the message when it was reached. */
static bool judge(const char* name, double share, int limit, bool reached, const char* kind,
                  char** message) {
    if (limit == -1 || !reached) {
        return false;
    }
    char line[512]; /* room for the longest double as "%.2f" */
    snprintf(line, sizeof line, "%s: %.2f / %s value: %d\n", name, share, kind, limit);
    adv_strcat(message, line);
    return true;
}

/* Status of five shares, the message in `*message` (caller frees). Equal to a maximum is reached,
 * equal to the minimum is not. A share that is no number reaches no limit. */
static protocol::status_code judge_shares(const cpu_check_def& test, const cpu_shares& shares,
                                          bool with_iowait, char** message) {
    const struct {
        const char* name;
        int state, maximum;
    } maxima[] = {{"User CPU usage", USER, test.user_max},
                  {"System CPU usage", SYSTEM, test.system_max},
                  {"Nice CPU usage", NICE, test.nice_max}};
    bool hit = false;
    for (const auto& m : maxima) {
        hit |=
            judge(m.name, shares[m.state], m.maximum, shares[m.state] >= m.maximum, "Max", message);
    }
    hit |= judge("CPU Idle", shares[IDLE], test.idle_min, shares[IDLE] < test.idle_min, "Min",
                 message);
    if (with_iowait) {
        hit |= judge("CPU IO Wait", shares[IOWAIT], test.iowait_max,
                     shares[IOWAIT] >= test.iowait_max, "Max", message);
    }
    if (!hit) {
        adv_strcat(message, "CPU usage is within acceptable limits\n");
    }
    return hit ? status_limit : status_ok;
}

static UDCW* make_cpu_record(const cpu_check_def& test, time_t now, const cpu_shares& shares,
                             protocol::status_code status, const char* message) {
    return make_record<protocol::cpu>(named<"test">(test.test_id), named<"location">(test.loc_id),
                                      named<"time">(now), named<"user">(shares[USER]),
                                      named<"system">(shares[SYSTEM]), named<"nice">(shares[NICE]),
                                      named<"idle">(shares[IDLE]), named<"iowait">(shares[IOWAIT]),
                                      named<"status">(status), named<"message">(message));
}

static cpu_shares shares_of(const cpu_line& line) {
    cpu_shares shares;
    for (int i = 0; i < STATES; i++) {
        shares[i] = line.cpu_states[i] / 10.0;
    }
    return shares;
}

static UDCW* make_processor(const cpu_check_def& test, const cpu_shares& shares) {
    char* message = nullptr;
    auto status = judge_shares(test, shares, show_iowait != 0, &message);
    heap_text owner(message);
    return make_part<protocol::rows::processors>(
        named<"user">(shares[USER]), named<"system">(shares[SYSTEM]), named<"nice">(shares[NICE]),
        named<"idle">(shares[IDLE]), named<"iowait">(shares[IOWAIT]), named<"status">(status),
        named<"message">(message));
}

static UDCW* make_judged(const cpu_check_def& test, time_t now, const cpu_shares& shares,
                         bool with_iowait) {
    char* message = nullptr;
    auto status = judge_shares(test, shares, with_iowait, &message);
    heap_text owner(message);
    return make_cpu_record(test, now, shares, status, message);
}

static void check_local(const cpu_check_def& test, time_t now, const cpu_line* counted) {
    UDCW* record = make_judged(test, now, shares_of(counted[0]), show_iowait != 0);
    for (long i = 1; record != nullptr && i <= cpuCount; i++) {
        add_part(record, make_processor(test, shares_of(counted[i])));
    }
    checker_add_record(cpu, record);
}

static void check_remote(const cpu_check_def& test, time_t now) {
    cpu_shares shares;
    bool is_linux = test.system != nullptr && strcasecmp(test.system, "linux") == 0;
    if (is_linux ? query_counters(test.host, shares) : query_processors(test.host, shares)) {
        checker_add_record(cpu, make_judged(test, now, shares, true));
    } else if (!checker_stopped(cpu)) { /* else not measured, which is no failure of the host */
        shares.fill(-1.0);
        checker_add_record(cpu, make_cpu_record(test, now, shares, status_remote_failed,
                                                "Remote CPU test failed\n"));
    }
}

static void check_cpu_test(const cpu_check_def& test, const cpu_line* counted) {
    time_t now = now_in_seconds();
    if (test.host != nullptr) {
        check_remote(test, now);
    } else {
        check_local(test, now, counted);
    }
}

static bool has_cpu_tests() {
    lock hold(CPU_MON_MUTEX);
    return cpu_def_list.size() != 0;
}

void do_cpu_check(int putValue) {
    if (!has_cpu_tests()) {
        return;
    }
    heap<cpu_line> now = measure();
    if (!now || putValue != 1) {
        return;
    }
    bool first_check;
    {
        lock hold(CPU_MON_MUTEX);
        first_check = cpu_def_list.check_each(
            [&](const cpu_check_def& test) { check_cpu_test(test, now.get()); });
    }
    if (first_check) {
        fresh_results();
    }
}

static void pass() {
    do_cpu_check(1);
}

void add_cpu(int tid, int loc_id, int user_max, int system_max, int nice_max, int idle_min,
             int iowait_max, char* host, char* system) {
    const cpu_check_def test = {.test_id = tid,
                                .loc_id = loc_id,
                                .user_max = user_max,
                                .system_max = system_max,
                                .nice_max = nice_max,
                                .idle_min = idle_min,
                                .iowait_max = iowait_max,
                                .host = text_or_none(host),
                                .system = text_or_none(system),
                                .isFirstCheck = 1};
    bool added;
    {
        lock hold(CPU_MON_MUTEX);
        added = tid != 0 && cpu_def_list.add(test);
    }
    if (added) {
        do_cpu_check(0);
        checker_wake(cpu);
    }
}

void modify_cpu(int t_id, int loc_id, int user_max, int system_max, int nice_max, int idle_min,
                int iowait_max, char* host, char* system) {
    if (t_id == 0) {
        return;
    }
    {
        lock hold(CPU_MON_MUTEX);
        cpu_def_list.replace({.test_id = t_id,
                              .loc_id = loc_id,
                              .user_max = user_max,
                              .system_max = system_max,
                              .nice_max = nice_max,
                              .idle_min = idle_min,
                              .iowait_max = iowait_max,
                              .host = text_or_none(host),
                              .system = text_or_none(system),
                              .isFirstCheck = 1});
    }
    checker_wake(cpu); /* whether or not there is such a test */
}

void rem_cpu(int t_id) {
    lock hold(CPU_MON_MUTEX);
    cpu_def_list.remove(t_id);
}

/* 0 with the reason logged when the machine's processors cannot be told. */
static int learn_layout() {
    heap_text text(read_proc_status());
    if (!text) {
        leveledadd2log(0, "Cannot read process status from /proc/status.");
        return 0;
    }
    long found = 0;
    for (const char* p = text.get(); (p = get_next_cpu_status(p)) != nullptr;) {
        found++;
    }
    if (found < 2) {
        leveledadd2log(0, "Cannot determine number of CPUs in the system.");
        return 0;
    }
    int blanks = 0;
    for (const char* p = text.get(); *p != '\0' && *p != '\n'; p++) {
        blanks += *p == ' ';
    }
    lock hold(reading_mutex);
    free(lines);
    lines = static_cast<cpu_line*>(calloc(static_cast<size_t>(found), sizeof(cpu_line)));
    cpuCount = found - 1;
    show_iowait = blanks > 5;
    return lines != nullptr;
}

int init_cpu_mon() {
    return learn_layout() && checker_start(cpu, cpu_worker_thread);
}
void* cpu_worker_thread(void*) {
    checker_work(cpu);
    return nullptr;
}
int get_cpu_check_interval() {
    return checker_get_interval(cpu);
}
void set_cpu_check_interval(int t_sec) {
    checker_set_interval(cpu, t_sec);
}
void add_cpu_result(char* rez, int rez_size) {
    checker_add_result(cpu, rez, rez_size);
}
int get_cpu_results(char** rez, int* rez_size) {
    *rez = nullptr;
    *rez_size = 0;
    return checker_get_results(cpu, rez, rez_size);
}
void shutdown_cpu_checker() {
    checker_stop(cpu);
}
