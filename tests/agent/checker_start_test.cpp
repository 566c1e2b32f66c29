/* What each checker says when its worker cannot be started, and the stack that it asks for. */
#include "cpumon.h"
#include "diskmon.h"
#include "fake_core.h"
#include "httpmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "netmon.h"
#include "pingmon.h"
#include "processmon.h"
#include "thread_library.h"

#include <gtest/gtest.h>
#include <string>

namespace {

const struct {
    int (*init)();
    std::string no_attributes, no_stack;
} rows[] = {
    {init_lda_mon, "Load Average Monitoring: thread attribute initialization failed.",
     "Load Average Monitoring: can not set thread stack size."},
    {init_cpu_mon, "Pthread attribute initialization failed.",
     "Cannot set ping thread stack size."}, /* the ping checker's words, as always */
    {init_mem_mon, "Memory monitoring: thread attribute initialization failed.",
     "Memory monitoring: can not set thread stack size."},
    {init_disk_mon, "Disk monitoring: thread attribute initialization failed.",
     "Disk monitoring: can not set thread stack size."},
    {init_proc_variables, "Process monitoring: thread attribute initialization failed.",
     "Process monitoring: can not set thread stack size."},
    {init_ping_mon, "Pthread attribute initialization failed.",
     "Can not set ping thread stack size."},
    {init_net_mon, "Net monitoring: thread attribute initialization failed.",
     "Net monitoring: can not set thread stack size."},
    {init_ping_mon, "Pthread attribute initialization failed.",
     "Can not set ping thread stack size."},
    {init_http_mon, "Pthread attribute initialization failed.",
     "Can not set ping thread stack size."}, /* these, too */
};

/* The errors logged since the last call; an inventory is logged, too, at its own level. */
std::string take_errors() {
    std::string errors;
    for (const logged_line& line : take_log()) {
        errors += line.level == 0 ? line.text + "\n" : "";
    }
    return errors;
}

} // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
static_assert(WORKER_STACK_SIZE == 32768);
#endif

TEST(CheckerStart, failures) {
    take_log();
    for (const auto& row : rows) {
        thread_library::reset();
        thread_library::attr_error = ENOMEM;
        EXPECT_EQ(0, row.init());
        EXPECT_EQ(row.no_attributes + "\n", take_errors());
        thread_library::reset();
        thread_library::stack_error = EINVAL;
        EXPECT_EQ(0, row.init());
        EXPECT_EQ(row.no_stack + "\n", take_errors());
        thread_library::reset();
        thread_library::create_error = EAGAIN;
        EXPECT_EQ(0, row.init()); /* the thread itself: without a message */
        EXPECT_EQ("", take_errors());
        EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_asked);
    }
}
