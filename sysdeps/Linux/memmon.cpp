#include "memmon.h"

#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "remote_query.h"
#include "test_list.h"
#include "vindral_common.h"

#include <cstdio>

using enum protocol::status_code;

static const size_t MEMINFO_MOST = 8191;
static const unsigned long long NOT_AVAILABLE = ~0ULL;
static const mem_values NONE_AVAILABLE = {NOT_AVAILABLE, NOT_AVAILABLE, NOT_AVAILABLE,
                                          NOT_AVAILABLE, NOT_AVAILABLE, NOT_AVAILABLE,
                                          NOT_AVAILABLE, NOT_AVAILABLE};

static const char REMOTE_COMMAND[] =
    "snmptable -v 1 -t 1 -Ov -CHf ^ -c \"public\" %s 1.3.6.1.2.1.25.2.3";

static constinit checker mem = {
    .thread_name = "mem",
    .pass = do_mem_check,
    .attr_message = "Memory monitoring: thread attribute initialization failed.",
    .stack_message = "Memory monitoring: can not set thread stack size."};
static constinit mutex& MEM_MON_MUTEX = mem.mon_mutex;
static constinit test_list<mem_test_def, &mem_test_def::test_id, &mem_test_def::host>
    mem_def_list GUARDED_BY(MEM_MON_MUTEX);

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
static protocol::status_code judge_memory(const mem_test_def& test, const mem_values& v,
                                          char** message) {
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
    auto status = status_ok;
    for (const auto& l : limits) {
        auto limit = static_cast<unsigned long long>(l.limit);
        if (l.limit == -1 || l.value == NOT_AVAILABLE ||
            (l.is_minimum ? l.value > limit : l.value <= limit)) {
            continue;
        }
        char line[128];
        snprintf(line, sizeof line, l.format, static_cast<double>(l.value), l.limit);
        adv_strcat(message, line);
        status = status_limit;
    }
    if (status == status_ok) {
        adv_strcat(message, "Memory usage is within acceptable limits\n");
    }
    return status;
}

static void add_mem_record(const mem_test_def& test, time_t now, const mem_values& v,
                           protocol::status_code status, const char* message) {
    auto number = [](unsigned long long value) { return static_cast<double>(value); };
    checker_add_record(
        mem, make_record<protocol::memory>(
                 named<"test">(test.test_id), named<"location">(test.loc_id), named<"time">(now),
                 named<"free">(number(v.physical_free)), named<"total">(number(v.physical_total)),
                 named<"swap_free">(number(v.swap_free)), named<"swap_total">(number(v.swap_total)),
                 named<"buffers">(number(v.buffers)), named<"cached">(number(v.cached)),
                 named<"virtual_total">(number(v.virtual_total)),
                 named<"virtual_free">(number(v.virtual_free)), named<"status">(status),
                 named<"message">(message)));
}

static void check_mem_test(const mem_test_def& test, const mem_values& local) {
    time_t now = now_in_seconds();
    mem_values values = local;
    if (test.host != nullptr && !get_remote_mem_params(test.host, &values)) {
        if (!checker_stopped(mem)) { /* else not measured, which is no failure of the host */
            add_mem_record(test, now, values, status_remote_failed, "Remote memory test failed\n");
        }
        return;
    }
    char* message = nullptr;
    auto status = judge_memory(test, values, &message);
    add_mem_record(test, now, values, status, message);
    free(message);
}

static bool has_mem_tests() {
    lock hold(MEM_MON_MUTEX);
    return mem_def_list.size() != 0;
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

    bool first_check;
    {
        lock hold(MEM_MON_MUTEX);
        first_check =
            mem_def_list.check_each([&](const mem_test_def& test) { check_mem_test(test, local); });
    }
    if (first_check) {
        fresh_results();
    }
}

static void log_test(const char* what, const mem_test_def& test) {
    leveledadd2log(5,
                   "INFO: %s test. tid:%d, lid:%d, mem_min:%d, swap_min:%d, virt_min:%d, "
                   "buffered_max:%d, cached_max:%d",
                   what, test.test_id, test.loc_id, test.mem_min, test.swap_min, test.virt_min,
                   test.buffered_max, test.cached_max);
}

void add_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
             int cached_max, char* host) {
    const mem_test_def test = {.test_id = _tid,
                               .loc_id = loc_id,
                               .mem_min = mem_min,
                               .swap_min = swap_min,
                               .virt_min = virt_min,
                               .buffered_max = buffered_max,
                               .cached_max = cached_max,
                               .host = text_or_none(host),
                               .isFirstCheck = 1};
    bool added;
    {
        lock hold(MEM_MON_MUTEX);
        added = _tid != 0 && mem_def_list.add(test);
    }
    if (added) {
        log_test("add_mem. Added", test);
        checker_wake(mem);
    }
}

void modify_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
                int cached_max, char* host) {
    const mem_test_def test = {.test_id = _tid,
                               .loc_id = loc_id,
                               .mem_min = mem_min,
                               .swap_min = swap_min,
                               .virt_min = virt_min,
                               .buffered_max = buffered_max,
                               .cached_max = cached_max,
                               .host = text_or_none(host),
                               .isFirstCheck = 1};
    lock hold(MEM_MON_MUTEX);
    if (mem_def_list.replace(test)) {
        log_test("modify_mem. Modified", test);
        checker_wake(mem);
    }
}

void rem_mem(int t_id) {
    lock hold(MEM_MON_MUTEX);
    if (mem_def_list.remove(t_id)) {
        leveledadd2log(5, "INFO: rem_mem. Removed test. tid:%d", t_id);
    }
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
