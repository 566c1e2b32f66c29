/* What the live table knows: hosts, the state and the last result of each test, the plan, messages.
 * How it looks is in table_layout.h and table.cpp.
 *
 * A host holds its tests in a map; of each there is the text of one line, made when the result
 * comes. States are what the store says of the agent (state/agent_state.h), which comes behind the
 * results. */
#ifndef VINDRAL_COLLECTOR_TABLE_STATE_H
#define VINDRAL_COLLECTOR_TABLE_STATE_H

#include "ingest/test_names.h"
#include "protocol/record.h"
#include "state/agent_state.h"
#include "state/expectations.h"
#include "state/take.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace live {

constexpr int64_t day = 86400;

/* Record type and test id. */
using test_key = std::pair<uint32_t, int32_t>;

/* What is dropped for want of room, and in which order. */
enum class row_kind { fine, strange, problem };

/* What the records of a pass say, in one line: the first of those that are bad, or of all. */
struct pass_text {
    std::string text = {};
    pass_mark mark = {};
    bool has_time = false;
    bool bad = false;
};

struct row {
    state now = state::ok;
    bool strange = false; /* of an unknown type */
    int64_t received = 0;
    int64_t since = 0;                 /* of the state */
    uint32_t parts = 0, bad_parts = 0; /* of the pass: processes */
    pass_text shown;
    std::optional<pass_text> next; /* came after the state was told last */

    row_kind kind() const {
        return strange                 ? row_kind::strange
               : now == state::problem ? row_kind::problem
                                       : row_kind::fine;
    }
};

using host_key = std::pair<std::string, std::string>; /* account, agent */

struct host {
    const host_key* name = nullptr;
    std::string label, account; /* printable */
    expectations::shared own;   /* plan; null: it has that of all */
    std::map<test_key, row> rows;
    int64_t first_known = 0;
    int64_t last_seen = 0;
    int64_t back = 0;   /* when it was first heard, or again after it had been silent */
    bool heard = false; /* since the start */
    bool silent = false;
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

struct table_state {
    table_state(int64_t begin, size_t most) : start(begin), max_bytes(most) {}

    const int64_t start;
    const size_t max_bytes;
    size_t held = 0; /* bytes */
    std::map<host_key, host> hosts;
    std::map<std::string, size_t> accounts; /* of the hosts, and how many each has */
    recent_count not_kept, problems_lost, hosts_lost;

    expectations awaited;
    const test_names* names = nullptr;

    std::deque<message> messages;
    std::string introduction;

    const expected& plan_of(const host& h) const { return h.own ? *h.own : awaited.others(); }
    static int64_t test_interval(const intervals& every) {
        return std::max(every.poll, every.check);
    }
    std::optional<called_test> name_of(const host& h, const test_key& test) const {
        return names != nullptr
                   ? names->name_of(h.name->first, h.name->second, test.first, test.second)
                   : std::nullopt;
    }

    /* Added if there is none. */
    host& host_of(std::string_view account, std::string_view agent, int64_t now);
    void hear(host& h, int64_t now);
    void know(host& h, const agent_state& stored);
    void know(host& h, int64_t received, const record& r);
    void apply(host& h, int64_t now, const record& r);
    void apply(host& h, int64_t now, const agent_state& found);
    void forget(std::string_view account, std::string_view agent);
    void follow(const plan_summary& wanted, int64_t now);
    void follow(const std::vector<agent_summary>& wanted, int64_t now);
    void say(std::string_view text, int64_t now);
    void forget_old_messages(int64_t now);
    void make_room(int64_t now);

private:
    bool is_kept(const host& h, const test_key& key) const;
    void drop_unplanned(host& h);
    void put(host& h, const test_key& key, row first);
    void drop_rows(row_kind which, size_t target, recent_count& counted);
    void drop_hosts(size_t target);
    void erase_host(std::map<host_key, host>::iterator which);
};

} // namespace live

#endif
