#include "monloadaverage.h"

#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "remote_query.h"
#include "test_list.h"
#include "vindral_common.h"

#include <cstdio>

using enum protocol::status_code;

static const char REMOTE_COMMAND[] =
    "snmpget -v 1 -t 1 -c \"public\" %s 1.3.6.1.4.1.2021.10.1.3.1 1.3.6.1.4.1.2021.10.1.3.2 "
    "1.3.6.1.4.1.2021.10.1.3.3 | cut -s -d = -f 2";

static constinit checker lda = {
    .thread_name = "lda",
    .pass = do_lda_check,
    .attr_message = "Load Average Monitoring: thread attribute initialization failed.",
    .stack_message = "Load Average Monitoring: can not set thread stack size."};
static constinit mutex& LDA_MON_MUTEX = lda.mon_mutex;
static constinit test_list<load_av_def, &load_av_def::test_id, &load_av_def::host>
    load_av_list GUARDED_BY(LDA_MON_MUTEX);

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
static protocol::status_code judge_load(const load_av_def& test, const double la[3],
                                        char** message) {
    const struct {
        int minutes, maximum;
    } limits[3] = {{1, test.max1}, {5, test.max5}, {15, test.max15}};
    protocol::status_code status = status_ok;
    for (int i = 0; i < 3; i++) {
        if (limits[i].maximum != -1 && la[i] >= static_cast<double>(limits[i].maximum)) {
            /* Room for the longest double as "%.2f": 309 digits and the fraction. */
            char line[512];
            snprintf(line, sizeof line, "Load Average %d min value: %.2f / Max value: %d\n",
                     limits[i].minutes, la[i], limits[i].maximum);
            adv_strcat(message, line);
            status = status_limit;
        }
    }
    if (status == status_ok) {
        adv_strcat(message, "Load Average values are within acceptable limits\n");
    }
    return status;
}

static void add_lda_record(const load_av_def& test, time_t now, const double la[3],
                           protocol::status_code status, const char* message) {
    checker_add_record(lda, make_record<protocol::load_average>(
                                named<"test">(test.test_id), named<"location">(test.loc_id),
                                named<"time">(now), named<"load1">(la[0]), named<"load5">(la[1]),
                                named<"load15">(la[2]), named<"status">(status),
                                named<"message">(message)));
}

static void check_lda_test(const load_av_def& test, const double local_la[3]) {
    time_t now = now_in_seconds();
    double* queried = nullptr;
    if (test.host != nullptr && !get_remote_la_params(test.host, &queried)) {
        if (!checker_stopped(lda)) { /* else not measured, which is no failure of the host */
            const double failed[3] = {-1.0, -1.0, -1.0};
            add_lda_record(test, now, failed, status_remote_failed,
                           "Remote load average test failed\n");
        }
        return;
    }
    heap<double> remote_la(queried);
    const double* la = remote_la ? remote_la.get() : local_la;
    char* message = nullptr;
    protocol::status_code status = judge_load(test, la, &message);
    add_lda_record(test, now, la, status, message);
    free(message);
}

static bool has_lda_tests() {
    lock hold(LDA_MON_MUTEX);
    return load_av_list.size() != 0;
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

    bool first_check;
    {
        lock hold(LDA_MON_MUTEX);
        first_check = load_av_list.check_each(
            [&](const load_av_def& test) { check_lda_test(test, local_la); });
    }
    if (first_check) {
        fresh_results();
    }
}

static void log_test(const char* what, const load_av_def& test) {
    leveledadd2log(5, "INFO: %s test. tid:%d, lid:%d, la1:%d, la5:%d, la15:%d", what, test.test_id,
                   test.loc_id, test.max1, test.max5, test.max15);
}

void add_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    const load_av_def test = {.test_id = tid,
                              .loc_id = loc_id,
                              .max1 = la1,
                              .max5 = la5,
                              .max15 = la15,
                              .host = text_or_none(host),
                              .isFirstCheck = 1};
    bool added;
    {
        lock hold(LDA_MON_MUTEX);
        added = tid != 0 && load_av_list.add(test);
    }
    if (added) {
        log_test("add_lda. Added", test);
        checker_wake(lda);
    }
}

void modify_lda(int t_id, int loc_id, int la1, int la5, int la15, char* host) {
    const load_av_def test = {.test_id = t_id,
                              .loc_id = loc_id,
                              .max1 = la1,
                              .max5 = la5,
                              .max15 = la15,
                              .host = text_or_none(host),
                              .isFirstCheck = 1};
    lock hold(LDA_MON_MUTEX);
    if (load_av_list.replace(test)) {
        log_test("modify_lda. Modified", test);
        checker_wake(lda);
    }
}

void rem_lda(int t_id) {
    lock hold(LDA_MON_MUTEX);
    if (load_av_list.remove(t_id)) {
        leveledadd2log(5, "INFO: rem_lda. Removed test. tid:%d", t_id);
    }
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
