/* What the live table knows: hosts, the last result of each test, the plan, messages. How it looks
 * is in table_layout.h and table.cpp.
 *
 * A host holds its tests in a map; of each there is the text of one line, made when the result
 * comes. States that depend on the time are worked out when a screen is drawn. */
#ifndef VINDRAL_COLLECTOR_TABLE_STATE_H
#define VINDRAL_COLLECTOR_TABLE_STATE_H

#include "plan/planned.h"
#include "protocol/record.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace live {

constexpr int64_t day = 86400;
constexpr int64_t patience = 60; /* nothing is judged before, however short the intervals are */

/* Record type and test id. */
using test_key = std::pair<uint32_t, int32_t>;

enum class result_state { ok, strange, problem }; /* strange: of an unknown type */

struct row {
    result_state state = result_state::ok;
    result_state before = result_state::ok; /* of the pass before */
    bool judged = false;                    /* has a status */
    int64_t received = 0;
    int64_t since = 0, since_before = 0; /* of the state, and of that of the pass before */
    int64_t checked = 0;                 /* the check time of the pass */
    uint32_t last_pid = 0;
    uint32_t parts = 0, bad_parts = 0; /* of the pass: processes */
    std::string text;
};

struct host {
    std::string label, account; /* printable */
    std::map<test_key, row> rows;
    int64_t first_known = 0;
    int64_t last_seen = 0;
    int64_t back = 0;       /* when it was first heard, or again after it had been silent */
    bool heard = false;     /* since the start */
    int64_t unplanned = -1; /* when the last result came that is not in the plan */
};

/* How many were counted in the last whole span of time, or so far in this one if that is more. */
struct recent_count {
    int64_t begun = 0;
    size_t now = 0, before = 0;

    void turn(int64_t time, int64_t span) {
        if (time - begun >= span) {
            before = time - begun < 2 * span ? now : 0;
            now = 0;
            begun = time;
        }
    }
    size_t get() const { return std::max(now, before); }
};

struct message {
    int64_t when;
    std::string text;
    size_t times = 1;
};

using host_key = std::pair<std::string, std::string>; /* account, agent */

struct table_state {
    table_state(int64_t begin, size_t most) : start(begin), max_bytes(most) {}

    const int64_t start;
    const size_t max_bytes;
    size_t held = 0; /* bytes */
    std::map<host_key, host> hosts;
    std::map<std::string, size_t> accounts; /* of the hosts, and how many each has */
    recent_count not_kept, problems_lost, hosts_lost;

    bool planned = false;
    std::set<test_key> plan;
    size_t plan_repeats = 0; /* how many of them run more than once: all but discovery */
    int64_t plan_since = 0;
    planned_intervals intervals, longer; /* those of now, and what counts until then */
    int64_t longer_until = 0;

    std::deque<message> messages;
    std::string introduction;

    int64_t poll_interval(int64_t now) const {
        return now < longer_until ? std::max(intervals.poll, longer.poll) : intervals.poll;
    }
    int64_t check_interval(int64_t now) const {
        return now < longer_until ? std::max(intervals.check, longer.check) : intervals.check;
    }
    int64_t test_interval(int64_t now) const {
        return std::max(poll_interval(now), check_interval(now));
    }
    int64_t silent_after(int64_t now) const { return std::max(3 * poll_interval(now), patience); }
    int64_t stale_after(int64_t now) const { return std::max(3 * test_interval(now), patience); }
    int64_t unknown_after(int64_t now) const { return std::max(5 * test_interval(now), patience); }

    bool is_silent(const host& h, int64_t now) const {
        return now - std::max(h.last_seen, start) > silent_after(now);
    }
    bool is_stale(const host& h, const row& r, int64_t now) const {
        return r.judged && check_interval(now) > 0 &&
               now - std::max({r.received, start, h.back}) > stale_after(now);
    }

    /* Added if there is none. */
    host& host_of(std::string_view account, std::string_view agent, int64_t now);
    void hear(host& h, int64_t now);
    void apply(host& h, int64_t now, const record& r);
    void follow(const std::vector<planned_test>& tests, const planned_intervals& wanted,
                int64_t now);
    void say(std::string_view text, int64_t now);
    void forget_old_messages(int64_t now);
    void make_room(int64_t now);

private:
    void put(host& h, const test_key& key, const row& pass);
    void drop_rows(result_state which, size_t target, recent_count& counted);
    void drop_hosts(size_t target);
    void erase_host(std::map<host_key, host>::iterator which);
};

} // namespace live

#endif
