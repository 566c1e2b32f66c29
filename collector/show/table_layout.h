/* What a screen of the live table has room for: the hosts as they look at a time, in order, and the
 * lines that each gets. */
#ifndef VINDRAL_COLLECTOR_TABLE_LAYOUT_H
#define VINDRAL_COLLECTOR_TABLE_LAYOUT_H

#include "show/table_state.h"

namespace live {

struct shown_test {
    test_key key;
    const row* held; /* null: planned, but there is none */
};

struct count {
    size_t problems = 0, stale = 0, unknown = 0, strange = 0, ok = 0;

    size_t unclear() const { return stale + unknown + strange; }
    size_t all() const { return problems + unclear() + ok; }
    void operator+=(const count& c) {
        problems += c.problems;
        stale += c.stale;
        unknown += c.unknown;
        strange += c.strange;
        ok += c.ok;
    }
};

/* In the order in which they are shown. */
enum class rank { wrong, long_silent, unclear, ok };

struct block {
    const host* shown = nullptr;
    rank place = rank::ok;
    bool silent = false;
    int64_t newest = 0; /* the newest of what is wrong */
    count tests;
    std::vector<shown_test> problems, unclear, fine; /* those that a screen may have room for */
    size_t problem_lines = 0, unclear_lines = 0, fine_lines = 0; /* given out */
    bool given = false;                                          /* the line of the host itself */
};

/* All hosts, in the order in which they are shown; of each the tests that so many rows may show. */
std::vector<block> look_at_all(const table_state& s, size_t rows, int64_t now);

/* What all blocks want to show. */
size_t lines_wanted(const std::vector<block>& blocks);

/* Gives out the lines in rounds, what matters most first. */
void share_out(std::vector<block>& blocks, size_t lines);

/* Whether the line of the host also has its newest problem, for want of room below it. */
inline bool is_single(const block& b) {
    return b.problem_lines == 0 && b.tests.problems > 0 && !b.silent;
}

} // namespace live

#endif
