/* The live table: what is known of hosts and tests, drawn for a screen with what is wrong on top.
 * No clock, no thread, no terminal in here: the time comes with each call, a screen goes out as
 * text.
 *
 * STATES  What a test and a host are is decided where results are stored (state/take.h, watch.h),
 * and told here: an agent's state comes behind the results that made it, or by itself when nothing
 * came for too long. Between a result and the state that it makes the old one is shown, and the
 * result's text waits, so that what a line says is of the pass that its state is of. What is added
 * here: a test that is in the plan, of which a host has no result, is unknown when the host has
 * been heard and the plan has been in force for as long as it takes tests to become stale
 * (expected.h); not without an interval, and never for discovery, which runs once. Stale says what
 * the test was before. How long a host has been silent counts from the last that came from it,
 * although it is called so only three intervals later.
 *
 * ORDER  Problems and hosts that are silent, the newest first; hosts silent for a day; what is
 * stale or unknown; hosts that are ok; tests that are ok. Each host with problems has a line before
 * any has two. What does not fit is counted in the last line.
 *
 * MEMORY  Bounded in bytes, but for the plans. Tests that are ok and new are not kept when it is
 * nearly used up, only counted; then what is ok or stale makes room, of the hosts with the most
 * tests first; then hosts of which nothing else is held, the newest first; problems come last. */
#ifndef VINDRAL_COLLECTOR_TABLE_H
#define VINDRAL_COLLECTOR_TABLE_H

#include "ingest/test_names.h"
#include "protocol/record.h"
#include "state/agent_state.h"
#include "state/expectations.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace live {
struct table_state;
}

struct table_screen {
    size_t rows = 24;
    size_t columns = 80;
    bool colours = true;
};

class live_table {
public:
    /* All times are seconds since the epoch; they do not go back. `start` is when this begins. */
    explicit live_table(int64_t start, size_t max_bytes = 32u << 20);
    live_table(live_table&&) noexcept;
    live_table& operator=(live_table&&) noexcept;
    ~live_table();

    /* An agent from before the start, and then results of it: the last one of a test. */
    void know(std::string_view account, std::string_view agent, int64_t last_seen,
              const agent_state& stored);
    void know(std::string_view account, std::string_view agent, int64_t received, const record& r);

    /* Something has come from an agent: a record, or bytes that are none. */
    void take(std::string_view account, std::string_view agent, int64_t now, const record& r);
    void hear(std::string_view account, std::string_view agent, int64_t now);

    /* How the agent stands after that, or because nothing came. */
    void take(std::string_view account, std::string_view agent, int64_t now,
              const agent_state& found);

    /* It is retired. */
    void forget(std::string_view account, std::string_view agent);

    /* What is to come. Tests that are not in the plan vanish, and results of such are not shown; a
     * host that still sends them says so. Without a call every test is shown. */
    void follow(const plan_summary& plan, int64_t now);
    /* The same of these agents alone. */
    void follow(const std::vector<agent_summary>& plans, int64_t now);

    /* What tests are called, in place of their types and numbers; what they look at stands beside
     * that where there is room. Outlives this; null: nobody gives names. What comes of it has to be
     * printable. */
    void name_tests(const test_names* names);

    /* A line of the collector's own, shown at the bottom for an hour. The same text again is
     * counted. */
    void say(std::string_view text, int64_t now);

    /* What to show as long as no agent is known. */
    void introduce(std::string_view text);

    /* A whole screen, or less: no line end behind the last line, and every line is cleared to its
     * end. Begins where the cursor is, which is the top left corner. */
    std::string draw(const table_screen& screen, int64_t now);

    size_t bytes() const; /* held */

private:
    std::unique_ptr<live::table_state> state_;
};

#endif
