/* Showing results while they arrive: a live table (table.h), JSON lines, plain lines, or nothing
 * but problems.
 *
 * Every call only appends to a queue; a thread of the output's own formats and writes. A reader
 * that stalls never holds up storing: the queue is bounded, the oldest entries are dropped and
 * their number is shown. The table needs no reader to keep up with what arrives. Text that agents
 * sent reaches the terminal without control characters. Of one record at most 16 KiB are shown in a
 * line; one of more than 1 MiB is only mentioned. */
#ifndef VINDRAL_COLLECTOR_OUTPUT_H
#define VINDRAL_COLLECTOR_OUTPUT_H

#include "ingest/ingest.h"
#include "ingest/test_names.h"
#include "show/output_kind.h"
#include "state/expectations.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct output_options {
    int fd = 1;         /* results; stays open, its flags stay as they are */
    int problem_fd = 2; /* problems as lines; the table shows them at its bottom instead */
    size_t max_queued = 8u << 20;      /* bytes that wait for the reader */
    const test_names* names = nullptr; /* as name_tests() */
};

/* Its calls may come from any thread and never wait for the reader; begin() waits for the output's
 * thread. The destructor writes what is still queued, and gives up after a second in which the
 * reader takes nothing. A reader that went away (a closed pipe) is no error: the rest is discarded
 * and storing goes on. */
class result_output : public store_listener {
public:
    /* What was stored before: the table begins with it. Before the first submit(). */
    virtual void begin(result_reader& stored) = 0;

    /* Lines for hosts, which the table shows as long as it knows no agent. */
    virtual void on_ready(const std::string& text) = 0;

    /* The plan that is now in force. */
    virtual void on_plan(const plan_summary& plan) = 0;
    /* The same of these agents alone, which are not asked by on_plan() from then on. */
    virtual void on_agent_plans(std::vector<agent_summary> plans) = 0;

    /* What tests are called: shown with what they look at in place of their numbers. Asked by the
     * output's thread, and not any more when another is set, or null: nobody gives names. */
    virtual void name_tests(const test_names* names) = 0;

    /* Does what the destructor would: nothing is shown any more. Before those who give names go. */
    virtual void finish() = 0;

    /* A line for the log that is no problem: a log-in. The table does without. */
    virtual void on_note(const std::string& text) = 0;
};

std::unique_ptr<result_output> make_output(output_kind kind, const output_options& options = {});

/* The kind to use when standard output is `fd`. */
output_kind choose_output(int fd, bool json);

#endif
