/* The live table: what is known of hosts and tests, drawn for a screen with what is wrong on top.
 * No clock, no thread, no terminal in here: the time comes with each call, a screen goes out as
 * text.
 *
 * STATES  A test is ok; a problem, when its last result says so (a part of it is enough: one of
 * several processes, an object of an SNMP get); stale, when it was ok and nothing has come for
 * three intervals; unknown, when it is in the plan and no result has come for five. A host is
 * silent when nothing has come from it for three poll intervals. The interval of a test is the
 * longer of poll and check interval, that of the plan; a shorter one that the plan has now counts
 * from when the longer one has passed three times. Nothing is judged before a minute. What happened
 * while we were not there to see it is held against nobody: all of this counts from our start, and
 * for the tests of a host that was silent from its return. Discovery runs once and is never stale.
 *
 * ORDER  Problems and hosts that are silent, the newest first; hosts silent for a day; what is
 * stale or unknown; hosts that are ok; tests that are ok. Each host with problems has a line before
 * any has two. What does not fit is counted in the last line.
 *
 * MEMORY  Bounded in bytes. Tests that are ok and new are not kept when it is nearly used up, only
 * counted; then what is ok makes room, of the hosts with the most tests first; then hosts of which
 * nothing else is held, the newest first; problems come last. */
#ifndef VINDRAL_COLLECTOR_TABLE_H
#define VINDRAL_COLLECTOR_TABLE_H

#include "plan/planned.h"
#include "protocol/record.h"

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

    /* An agent and its last results, from before the start. */
    void know(std::string_view account, std::string_view agent, int64_t last_seen);
    void know(std::string_view account, std::string_view agent, int64_t received, const record& r);

    /* Something has come from an agent: a record, or bytes that are none. */
    void take(std::string_view account, std::string_view agent, int64_t now, const record& r);
    void hear(std::string_view account, std::string_view agent, int64_t now);

    /* The plan's tests and intervals. Tests that are not in it vanish, and results of such are not
     * shown; a host that still sends them says so. Without a call every test is shown. */
    void follow(const std::vector<planned_test>& tests, const planned_intervals& intervals,
                int64_t now);

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
