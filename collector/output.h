/* Showing results while they arrive: a live table, JSON lines, plain lines, or nothing but
 * problems.
 *
 * Every call only appends to a queue; a thread of the output's own formats and writes. A reader
 * that stalls never holds up storing: the queue is bounded, the oldest entries are dropped and
 * their number is shown. Text that agents sent reaches the terminal without control characters. */
#ifndef VINDRAL_COLLECTOR_OUTPUT_H
#define VINDRAL_COLLECTOR_OUTPUT_H

#include "store.h"

#include <cstddef>
#include <memory>
#include <string>

enum class output_kind {
    table, /* the last result of each test, redrawn in place; for a terminal */
    plain, /* a readable line per record */
    json,  /* a JSON object per line and record */
    quiet  /* no results, only problems */
};

struct output_options {
    int fd = 1;         /* results; stays open, its flags stay as they are */
    int problem_fd = 2; /* problems as lines; the table shows them at its bottom instead */
    size_t max_queued = 8u << 20; /* bytes that wait for the reader */
};

/* A store_listener whose calls (on_record, on_undecodable, on_problem) may come from any thread and
 * never wait for the reader. The destructor writes what is still queued, and gives up after a
 * second in which the reader takes nothing. A reader that went away (a closed pipe) is no error:
 * the rest is discarded and storing goes on. */
std::unique_ptr<store_listener> make_output(output_kind kind, const output_options& options = {});

/* The kind to use when standard output is `fd`. */
output_kind choose_output(int fd, bool json);

#endif
