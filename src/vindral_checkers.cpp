#include "vindral_checkers.h"

#include "monloadaverage.h"
#include "vindral_log.h"

/* Start-up order. The texts go to the log as they stand, with and without a full stop. */
static const struct {
    int (*init)();
    const char* done;
    const char* failed;
    bool fatal; /* the agent does not run without it */
} startup[] = {
    {init_lda_mon, "Load Average checker initialization done",
     "Load Average checker initialization failed.", true},
};

/* The order in which CHK reaches the checkers. */
static void (*const interval_setters[])(int) = {
    set_lda_check_interval,
};

const result_source result_sources[] = {
    {get_lda_results, "get_lda_results"},
};
const size_t result_source_count = sizeof result_sources / sizeof result_sources[0];

static void (*const shutdown[])() = {
    shutdown_lda_checker,
};

int start_checkers() {
    for (const auto& checker : startup) {
        if (checker.init()) {
            leveledadd2log(-1, "%s", checker.done);
            continue;
        }
        leveledadd2log(-1, "%s", checker.failed);
        if (checker.fatal) {
            return 0;
        }
    }
    return 1;
}

void set_check_intervals(int t_sec) {
    for (auto set_interval : interval_setters) {
        set_interval(t_sec);
    }
}

void stop_checkers() {
    for (auto stop : shutdown) {
        stop();
    }
}
