#include "memmon.h"

#include "checker.h"
#include "procfile.h"
#include "remote_query.h"
#include "udc.h"
#include "vindral_common.h"

#include <cstdio>

static const uint32_t MEM_RECORD = 47;
static const size_t MEMINFO_MOST = 8191;
static const unsigned long long NOT_AVAILABLE = ~0ULL;
static const mem_values NONE_AVAILABLE = {NOT_AVAILABLE, NOT_AVAILABLE, NOT_AVAILABLE,
                                          NOT_AVAILABLE, NOT_AVAILABLE, NOT_AVAILABLE,
                                          NOT_AVAILABLE, NOT_AVAILABLE};
enum { WITHIN_LIMITS = 0, LIMIT_VIOLATED = 2, REMOTE_FAILED = 10 };

static const char REMOTE_COMMAND[] =
    "snmptable -v 1 -t 1 -Ov -CHf ^ -c \"public\" %s 1.3.6.1.2.1.25.2.3";

static constinit checker mem = {
    .thread_name = "mem",
    .pass = do_mem_check,
    .attr_message = "Memory monitoring: thread attribute initialization failed.",
    .stack_message = "Memory monitoring: can not set thread stack size."};
static constinit mutex& MEM_MON_MUTEX = mem.mon_mutex;
static mem_test_def** mem_def_list GUARDED_BY(MEM_MON_MUTEX);
static int mem_def_size GUARDED_BY(MEM_MON_MUTEX);

unsigned long long get_scaled(const char* buffer, const char* key) {
    const char* found = strstr(buffer, key);
    if (found == nullptr) {
        return NOT_AVAILABLE;
    }
    char* rest = nullptr;
    unsigned long long value = strtoull(found + strlen(key), &rest, 0);
    if (strchr(rest, 'k') != nullptr) {
        return value * 1024;
    }
    if (strchr(rest, 'M') != nullptr) {
        return value * 1048576;
    }
    return value;
}

static unsigned long long megabytes(unsigned long long bytes) {
    return bytes == NOT_AVAILABLE ? NOT_AVAILABLE : bytes >> 20;
}

static void to_megabytes(mem_values* v) {
    *v = {megabytes(v->physical_total), megabytes(v->physical_free), megabytes(v->virtual_total),
          megabytes(v->virtual_free),   megabytes(v->swap_total),    megabytes(v->swap_free),
          megabytes(v->buffers),        megabytes(v->cached)};
}

static mem_values parse_meminfo(const char* text) {
    mem_values local = NONE_AVAILABLE;
    local.physical_total = get_scaled(text, "MemTotal:");
    local.physical_free = get_scaled(text, "MemFree:");
    local.swap_total = get_scaled(text, "SwapTotal:");
    local.swap_free = get_scaled(text, "SwapFree:");
    local.cached = get_scaled(text, "Cached:");
    local.buffers = get_scaled(text, "Buffers:");
    to_megabytes(&local);
    return local;
}

/* The text behind the next "^", or null when there is none. */
static const char* next_field(const char* text) {
    const char* separator = strchr(text, '^');
    return separator != nullptr ? separator + 1 : nullptr;
}

int get_mem_values(const char* buff, unsigned long long* total, unsigned long long* free) {
    const char* unit_text = next_field(buff);
    const char* size_text = unit_text != nullptr ? next_field(unit_text) : nullptr;
    if (size_text == nullptr) {
        return 1;
    }
    unsigned long long unit = strtoull(unit_text, nullptr, 10);
    *total = strtoull(size_text, nullptr, 10) * unit;
    if (free == nullptr) {
        return 0;
    }
    const char* used_text = next_field(size_text);
    if (used_text == nullptr) {
        return 1;
    }
    *free = *total - strtoull(used_text, nullptr, 10) * unit;
    return 0;
}

static bool begins_with(const char* text, const char* prefix) {
    return strncasecmp(text, prefix, strlen(prefix)) == 0;
}

/* One row of the storage table: index, type, description, unit, size, used, failures. */
static void take_storage_row(const char* row, mem_values* values) {
    const char* type = next_field(row);
    const char* description = type != nullptr ? next_field(type) : nullptr;
    if (description == nullptr) {
        return;
    }
    const struct {
        const char *type, *description;
        unsigned long long *total, *free;
    } kinds[] = {
        {"HOST-RESOURCES-TYPES::hrStorageRam", "physical memory", &values->physical_total,
         &values->physical_free},
        {"HOST-RESOURCES-TYPES::hrStorageVirtualMemory", "virtual memory", &values->virtual_total,
         &values->virtual_free},
        {"HOST-RESOURCES-TYPES::hrStorageVirtualMemory", "swap space", &values->swap_total,
         &values->swap_free},
        {"HOST-RESOURCES-TYPES::hrStorageOther", "cached memory", &values->cached, nullptr},
        {"HOST-RESOURCES-TYPES::hrStorageOther", "memory buffers", &values->buffers, nullptr},
    };
    for (const auto& kind : kinds) {
        if (begins_with(type, kind.type) && begins_with(description, kind.description)) {
            get_mem_values(description, kind.total, kind.free);
            return;
        }
    }
}

int get_remote_mem_params(const char* host, mem_values* values) {
    *values = NONE_AVAILABLE;
    heap_text output = query_remote_host(REMOTE_COMMAND, host, checker_stop_fd(mem));
    if (!output) {
        return 0;
    }
    char* rest = output.get();
    while (char* row = strsep(&rest, "\n")) {
        take_storage_row(row, values);
    }
    to_megabytes(values);
    return 1;
}

/* Status of one test, its message in `*message` (caller frees). */
static uint32_t judge_memory(const mem_test_def& test, const mem_values& v, char** message) {
    const struct {
        unsigned long long value;
        int limit;
        bool is_minimum;
        const char* format;
    } limits[] = {
        {v.physical_free, test.mem_min, true, "Physical memory free size: %.2f / Min value: %d\n"},
        {v.swap_free, test.swap_min, true, "Swap memory free size: %.2f / Min value: %d\n"},
        {v.virtual_free, test.virt_min, true, "Virtual memory size: %.2f / Max value: %d\n"},
        {v.buffers, test.buffered_max, false, "Buffers memory size: %.2f / Max value: %d\n"},
        {v.cached, test.cached_max, false, "Cached memory size: %.2f / Max value: %d\n"},
    };
    uint32_t status = WITHIN_LIMITS;
    for (const auto& l : limits) {
        auto limit = static_cast<unsigned long long>(l.limit);
        if (l.limit == -1 || l.value == NOT_AVAILABLE ||
            (l.is_minimum ? l.value > limit : l.value <= limit)) {
            continue;
        }
        char line[128];
        snprintf(line, sizeof line, l.format, static_cast<double>(l.value), l.limit);
        adv_strcat(message, line);
        status = LIMIT_VIOLATED;
    }
    if (status == WITHIN_LIMITS) {
        adv_strcat(message, "Memory usage is within acceptable limits\n");
    }
    return status;
}

static void add_mem_record(const mem_test_def& test, time_t now, const mem_values& v,
                           uint32_t status, const char* message) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 4, 1, 0, 8, 1)) {
        return;
    }
    udcw_add(record, UDC_UI32, MEM_RECORD);
    udcw_add(record, UDC_UI32, test.test_id);
    udcw_add(record, UDC_UI32, test.loc_id);
    udcw_add(record, UDC_I64, now);
    for (unsigned long long value : {v.physical_free, v.physical_total, v.swap_free, v.swap_total,
                                     v.buffers, v.cached, v.virtual_total, v.virtual_free}) {
        udcw_add(record, UDC_D64, static_cast<double>(value));
    }
    udcw_add(record, UDC_UI32, status);
    udcw_add(record, UDC_STRING, message);
    checker_add_record(mem, record);
}

static void check_mem_test(const mem_test_def& test, const mem_values& local) {
    time_t now = now_in_seconds();
    mem_values values = local;
    if (test.host != nullptr && !get_remote_mem_params(test.host, &values)) {
        if (checker_stopped(mem)) {
            return; /* not measured, which is no failure of the host */
        }
        add_mem_record(test, now, values, REMOTE_FAILED, "Remote memory test failed\n");
        return;
    }
    char* message = nullptr;
    uint32_t status = judge_memory(test, values, &message);
    add_mem_record(test, now, values, status, message);
    free(message);
}

static bool has_mem_tests() {
    lock hold(MEM_MON_MUTEX);
    return mem_def_size != 0;
}

void do_mem_check() {
    if (!has_mem_tests()) {
        return;
    }
    /* Read whether or not a test is local: without it the pass is skipped, remote tests included.
     */
    heap_text text = read_proc_file("meminfo", MEMINFO_MOST);
    if (!text) {
        return;
    }
    const mem_values local = parse_meminfo(text.get());

    bool first_check = false;
    {
        lock hold(MEM_MON_MUTEX);
        for (int i = 0; i < mem_def_size; i++) {
            first_check |= mem_def_list[i]->isFirstCheck != 0;
            mem_def_list[i]->isFirstCheck = 0;
            check_mem_test(*mem_def_list[i], local);
        }
    }
    if (first_check) {
        fresh_results();
    }
}

void add_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
             int cached_max, char* host) {
    if (_tid == 0) {
        return;
    }
    {
        lock hold(MEM_MON_MUTEX);
        if (test_index(mem_def_list, mem_def_size, &mem_test_def::test_id, _tid) >= 0) {
            return;
        }
        heap<mem_test_def> test(static_cast<mem_test_def*>(malloc(sizeof(mem_test_def))));
        if (!test) {
            return;
        }
        *test = {_tid,         loc_id,     mem_min,         swap_min, virt_min,
                 buffered_max, cached_max, copy_text(host), 1};
        if (!append_test(mem_def_list, mem_def_size, test.get())) {
            free(test->host);
            return;
        }
        (void)test.release();
    }
    leveledadd2log(5,
                   "INFO: add_mem. Added test. tid:%d, lid:%d, mem_min:%d, swap_min:%d, "
                   "virt_min:%d, buffered_max:%d, cached_max:%d",
                   _tid, loc_id, mem_min, swap_min, virt_min, buffered_max, cached_max);
    checker_wake(mem);
}

void modify_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
                int cached_max, char* host) {
    if (_tid == 0) {
        return;
    }
    lock hold(MEM_MON_MUTEX);
    for (int i = 0; i < mem_def_size; i++) {
        mem_test_def* test = mem_def_list[i];
        if (test->test_id != _tid) {
            continue;
        }
        free(test->host);
        *test = {_tid,         loc_id,     mem_min,         swap_min, virt_min,
                 buffered_max, cached_max, copy_text(host), 1};
        leveledadd2log(5,
                       "INFO: modify_mem. Modified test. tid:%d, lid:%d, mem_min:%d, swap_min:%d, "
                       "virt_min:%d, buffered_max:%d, cached_max:%d",
                       _tid, loc_id, mem_min, swap_min, virt_min, buffered_max, cached_max);
        checker_wake(mem);
    }
}

void rem_mem(int t_id) {
    if (t_id == 0) {
        return;
    }
    lock hold(MEM_MON_MUTEX);
    int index = test_index(mem_def_list, mem_def_size, &mem_test_def::test_id, t_id);
    if (index < 0) {
        return;
    }
    mem_test_def* test = take_test(mem_def_list, mem_def_size, index);
    free(test->host);
    free(test);
    leveledadd2log(5, "INFO: rem_mem. Removed test. tid:%d", t_id);
}

int init_mem_mon() {
    return checker_start(mem, mem_worker_thread);
}
void* mem_worker_thread(void*) {
    checker_work(mem);
    return nullptr;
}
int get_mem_check_interval() {
    return checker_get_interval(mem);
}
void set_mem_check_interval(int t_sec) {
    checker_set_interval(mem, t_sec);
}
void add_mem_result(char* rez, int rez_size) {
    checker_add_result(mem, rez, rez_size);
}
int get_mem_results(char** rez, int* rez_size) {
    return checker_get_results(mem, rez, rez_size);
}
void shutdown_mem_checker() {
    checker_stop(mem);
}
