#include "monloadaverage.h"

#include "checker.h"
#include "procfile.h"
#include "remote_query.h"
#include "udc.h"
#include "vindral_common.h"

#include <cstdio>

static const uint32_t LDA_RECORD = 66;
enum { WITHIN_LIMITS = 0, LIMIT_REACHED = 2, REMOTE_FAILED = 10 };

static const char REMOTE_COMMAND[] =
    "snmpget -v 1 -t 1 -c \"public\" %s 1.3.6.1.4.1.2021.10.1.3.1 1.3.6.1.4.1.2021.10.1.3.2 "
    "1.3.6.1.4.1.2021.10.1.3.3 | cut -s -d = -f 2";

static constinit checker lda = {
    .thread_name = "lda",
    .pass = do_lda_check,
    .attr_message = "Load Average Monitoring: thread attribute initialization failed.",
    .stack_message = "Load Average Monitoring: can not set thread stack size."};
static constinit mutex& LDA_MON_MUTEX = lda.mon_mutex;
static load_av_def** load_av_list GUARDED_BY(LDA_MON_MUTEX);
static int load_av_size GUARDED_BY(LDA_MON_MUTEX);

/* The text of /proc/loadavg starts with the three averages. What is missing reads as 0. */
static void parse_loadavg(const char* text, double la[3]) {
    char* rest = const_cast<char*>(text);
    for (int i = 0; i < 3; i++) {
        la[i] = strtod(rest, &rest);
    }
}

/* One "STRING: 0.42" line per average. snmpget prints the number in double quotes where it has no
 * MIB files, which is how current systems ship it. */
static int parse_remote_la(char* text, double la[3]) {
    int found = 0;
    char* rest = text;
    while (found < 3) {
        char* line = strsep(&rest, "\n");
        if (line == nullptr || (rest == nullptr && line[0] == '\0')) {
            return 0;
        }
        const char* value = strstr(line, "STRING:");
        if (value == nullptr) {
            return 0;
        }
        value += strlen("STRING:");
        value += strspn(value, " ");
        la[found++] = strtod(value[0] == '"' ? value + 1 : value, nullptr);
    }
    return 1;
}

int get_remote_la_params(const char* host, double** retVal) {
    heap_text output = query_remote_host(REMOTE_COMMAND, host, checker_stop_fd(lda));
    heap<double> la(static_cast<double*>(calloc(3, sizeof(double))));
    if (!output || !la || !parse_remote_la(output.get(), la.get())) {
        return 0;
    }
    *retVal = la.release();
    return 1;
}

/* Status of one test, its message in `*message` (caller frees). Equal to the maximum is exceeded.
 */
static uint32_t judge_load(const load_av_def& test, const double la[3], char** message) {
    const struct {
        int minutes, maximum;
    } limits[3] = {{1, test.max1}, {5, test.max5}, {15, test.max15}};
    uint32_t status = WITHIN_LIMITS;
    for (int i = 0; i < 3; i++) {
        if (limits[i].maximum != -1 && la[i] >= static_cast<double>(limits[i].maximum)) {
            /* Room for the longest double as "%.2f": 309 digits and the fraction. */
            char line[512];
            snprintf(line, sizeof line, "Load Average %d min value: %.2f / Max value: %d\n",
                     limits[i].minutes, la[i], limits[i].maximum);
            adv_strcat(message, line);
            status = LIMIT_REACHED;
        }
    }
    if (status == WITHIN_LIMITS) {
        adv_strcat(message, "Load Average values are within acceptable limits\n");
    }
    return status;
}

static void add_lda_record(const load_av_def& test, time_t now, const double la[3], uint32_t status,
                           const char* message) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 4, 1, 0, 3, 1)) {
        return;
    }
    udcw_add(record, UDC_UI32, LDA_RECORD);
    udcw_add(record, UDC_UI32, test.test_id);
    udcw_add(record, UDC_UI32, test.loc_id);
    udcw_add(record, UDC_I64, now);
    for (int i = 0; i < 3; i++) {
        udcw_add(record, UDC_D64, la[i]);
    }
    udcw_add(record, UDC_STRING, message);
    udcw_add(record, UDC_UI32, status);
    checker_add_record(lda, record);
}

static void check_lda_test(const load_av_def& test, const double local_la[3]) {
    time_t now = now_in_seconds();
    if (test.host == nullptr) {
        char* message = nullptr;
        uint32_t status = judge_load(test, local_la, &message);
        add_lda_record(test, now, local_la, status, message);
        free(message);
        return;
    }
    double* queried = nullptr;
    if (!get_remote_la_params(test.host, &queried)) {
        if (checker_stopped(lda)) {
            return; /* not measured, which is no failure of the host */
        }
        const double failed[3] = {-1.0, -1.0, -1.0};
        add_lda_record(test, now, failed, REMOTE_FAILED, "Remote load average test failed\n");
        return;
    }
    heap<double> remote_la(queried);
    char* message = nullptr;
    uint32_t status = judge_load(test, remote_la.get(), &message);
    add_lda_record(test, now, remote_la.get(), status, message);
    free(message);
}

static bool has_lda_tests() {
    lock hold(LDA_MON_MUTEX);
    return load_av_size != 0;
}

void do_lda_check() {
    if (!has_lda_tests()) {
        return;
    }
    /* Read whether or not a test is local: without it the pass is skipped, remote tests included.
     */
    heap_text text = read_proc_file("loadavg", 4096);
    if (!text) {
        return;
    }
    double local_la[3];
    parse_loadavg(text.get(), local_la);

    bool first_check = false;
    {
        lock hold(LDA_MON_MUTEX);
        for (int i = 0; i < load_av_size; i++) {
            first_check |= load_av_list[i]->isFirstCheck != 0;
            load_av_list[i]->isFirstCheck = 0;
            check_lda_test(*load_av_list[i], local_la);
        }
    }
    if (first_check) {
        fresh_results();
    }
}

void add_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    if (tid == 0) {
        return;
    }
    {
        lock hold(LDA_MON_MUTEX);
        if (test_index(load_av_list, load_av_size, &load_av_def::test_id, tid) >= 0) {
            return;
        }
        heap<load_av_def> test(static_cast<load_av_def*>(malloc(sizeof(load_av_def))));
        if (!test) {
            return;
        }
        *test = {tid, loc_id, la1, la5, la15, copy_text(host), 1};
        if (!append_test(load_av_list, load_av_size, test.get())) {
            free(test->host);
            return;
        }
        (void)test.release();
    }
    leveledadd2log(5, "INFO: add_lda. Added test. tid:%d, lid:%d, la1:%d, la5:%d, la15:%d", tid,
                   loc_id, la1, la5, la15);
    checker_wake(lda);
}

void modify_lda(int t_id, int loc_id, int la1, int la5, int la15, char* host) {
    if (t_id == 0) {
        return;
    }
    lock hold(LDA_MON_MUTEX);
    for (int i = 0; i < load_av_size; i++) {
        load_av_def* test = load_av_list[i];
        if (test->test_id != t_id) {
            continue;
        }
        free(test->host);
        *test = {t_id, loc_id, la1, la5, la15, copy_text(host), 1};
        leveledadd2log(5,
                       "INFO: modify_lda. Modified test. tid:%d, lid:%d, la1:%d, la5:%d, la15:%d",
                       t_id, loc_id, la1, la5, la15);
        checker_wake(lda);
    }
}

void rem_lda(int t_id) {
    if (t_id == 0) {
        return;
    }
    lock hold(LDA_MON_MUTEX);
    int index = test_index(load_av_list, load_av_size, &load_av_def::test_id, t_id);
    if (index < 0) {
        return;
    }
    load_av_def* test = take_test(load_av_list, load_av_size, index);
    free(test->host);
    free(test);
    leveledadd2log(5, "INFO: rem_lda. Removed test. tid:%d", t_id);
}

int init_lda_mon() {
    return checker_start(lda, lda_worker_thread);
}
void* lda_worker_thread(void*) {
    checker_work(lda);
    return nullptr;
}
int get_lda_check_interval() {
    return checker_get_interval(lda);
}
void set_lda_check_interval(int t_sec) {
    checker_set_interval(lda, t_sec);
}
void add_lda_result(char* rez, int rez_size) {
    checker_add_result(lda, rez, rez_size);
}
int get_lda_results(char** rez, int* rez_size) {
    return checker_get_results(lda, rez, rez_size);
}
void shutdown_lda_checker() {
    checker_stop(lda);
}
