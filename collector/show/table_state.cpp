#include "show/table_state.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "show/record_text.h"

namespace live {

namespace {

constexpr size_t max_text = 400; /* bytes of the line of a test */
constexpr size_t max_messages = 50;
constexpr int64_t message_life = 3600;
constexpr size_t node_bytes = 48; /* what a map adds to a value, and the allocator to both */

size_t bytes_of(const row& r) {
    size_t next = r.next ? r.next->text.capacity() + 16 : 0;
    return sizeof(test_key) + sizeof(row) + node_bytes + r.shown.text.capacity() + 16 + next;
}

size_t bytes_of(const host_key& key, const host& h) {
    return sizeof(key) + sizeof(h) + node_bytes + key.first.capacity() + key.second.capacity() +
           h.label.capacity() + h.account.capacity() + 64;
}

/* At most max_text bytes, and no memory beyond them. */
std::string cut(std::string text) {
    text = shortened(std::move(text), max_text);
    text.shrink_to_fit();
    return text;
}

/* The same of text from outside, in one harmless line without runs of blanks. */
std::string line_text(std::string_view raw) {
    std::string text;
    for (char c : printable(raw.substr(0, 4 * max_text))) {
        if (c != ' ' || (!text.empty() && text.back() != ' ')) {
            text += c;
        }
    }
    return cut(std::move(text));
}

std::string joined(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + "  " + second;
}

/* What a result says, in one line: of a problem the reason first, of what is ok the values. */
std::string text_of(const record& r, const record_summary& summary, const verdict& found) {
    std::string values = line_text(values_text(r, summary, max_text));
    if (summary.schema == nullptr) {
        return values;
    }
    std::string reason = line_text(found.reason);
    if (found.status.value_or(0) == 0) {
        return cut(joined(values, reason));
    }
    if (reason.empty()) {
        reason = status_word(summary.type, found.status.value_or(0));
    }
    return cut(joined(reason, values));
}

/* Records of a process test come one for each process. */
bool has_parts(uint32_t type) {
    return type == protocol::process.code;
}

/* What a record says of its test. */
pass_text read_pass(const record& r, const record_summary& summary, int64_t now) {
    verdict found = judge(r, summary);
    return {.text = text_of(r, summary, found),
            .mark = mark_of({r, summary}, now),
            .has_time = summary.time.has_value(),
            .bad = found.status.value_or(0) != 0};
}

/* Adds what another record says to what is there, which may be of an earlier pass. */
void add_record(std::optional<pass_text>& text, pass_text more, const record_summary& summary) {
    if (!text) {
        text = std::move(more);
        return;
    }
    switch (continues(summary, text->mark, more.mark)) {
    case continuation::another_pass:
        text = std::move(more);
        break;
    case continuation::same_pass:
        text->mark.pid = more.mark.pid;
        if (more.bad && !text->bad) {
            text->text = std::move(more.text);
            text->bad = true;
        }
        break;
    case continuation::repetition:
        break;
    }
}

test_key key_of(const record_summary& summary) {
    return {summary.type, summary.test.value_or(0)};
}

/* The text that the row has from now on, when it looks as `found` says. */
void settle_text(row& r, const test_status& found) {
    if (!r.next) {
        return;
    }
    pass_text& next = *r.next;
    uint64_t ahead =
        static_cast<uint64_t>(next.mark.claimed) - static_cast<uint64_t>(found.claimed);
    if (next.has_time && ahead > (has_parts(found.type) ? pass_s : 0)) {
        r.next.reset(); /* overtaken by what the state is of */
        return;
    }
    if (found.now == state::problem && !next.bad && r.shown.bad) {
        return; /* that it is well is not sure yet: others of the pass may be on their way */
    }
    bool same_pass = has_parts(found.type) && r.shown.mark.claimed == found.claimed;
    if (!same_pass || next.bad != r.shown.bad) {
        r.shown = std::move(next);
        r.shown.mark.claimed = found.claimed;
    }
    r.next.reset();
}

/* All but the text. */
void settle_state(row& r, const test_status& found, int64_t now) {
    r.now = found.now;
    r.since = std::clamp<int64_t>(found.since, 0, now); /* agents may claim any time */
    r.received = std::clamp<int64_t>(found.received, 0, now);
    r.parts = has_parts(found.type) ? found.parts : 0;
    r.bad_parts = has_parts(found.type) ? found.bad_parts : 0;
}

} // namespace

host& table_state::host_of(std::string_view account, std::string_view agent, int64_t now) {
    host_key key{account, agent};
    auto [found, added] = hosts.try_emplace(std::move(key));
    host& h = found->second;
    if (added) {
        h.name = &found->first;
        h.own = awaited.find(account, agent);
        h.label = line_text(agent);
        h.account = line_text(account);
        h.first_known = now;
        held += bytes_of(found->first, h);
        accounts[found->first.first]++;
    }
    return h;
}

void table_state::hear(host& h, int64_t now) {
    if (!h.heard || h.silent) {
        h.back = now;
    }
    h.heard = true;
    h.silent = false;
    h.last_seen = now;
}

bool table_state::is_kept(const host& h, const test_key& key) const {
    const expected& plan = plan_of(h);
    return !plan.has_plan() || plan.has_test(key.first, key.second);
}

void table_state::know(host& h, const agent_state& stored) {
    h.silent = stored.silent;
    for (const test_status& test : stored.tests) {
        test_key key{test.type, test.number.value_or(0)};
        bool strange = !test.number;
        if (strange || (is_kept(h, key) && test.now != state::unknown)) {
            row first;
            first.strange = strange;
            settle_state(first, test, start);
            put(h, key, std::move(first));
        }
    }
    make_room(start);
}

void table_state::know(host& h, int64_t received, const record& r) {
    record_summary summary = summarize(r);
    auto at = h.rows.find(key_of(summary));
    if (at != h.rows.end()) {
        row& known = at->second;
        held -= bytes_of(known);
        known.received = std::min(received, start);
        known.shown = read_pass(r, summary, received);
        held += bytes_of(known);
        make_room(start);
    }
}

void table_state::apply(host& h, int64_t now, const record& r) {
    record_summary summary = summarize(r);
    if (summary.schema != nullptr && !summary.test) {
        return; /* an inventory */
    }
    test_key key = key_of(summary);
    if (summary.test && !is_kept(h, key)) {
        h.unplanned = now;
        return;
    }
    pass_text text = read_pass(r, summary, now);
    auto at = h.rows.find(key);
    if (at == h.rows.end()) {
        row first;
        first.strange = summary.schema == nullptr;
        first.now = text.bad ? state::problem : state::ok;
        first.received = first.since = now;
        first.shown = std::move(text);
        put(h, key, std::move(first));
    } else {
        row& known = at->second;
        held -= bytes_of(known);
        known.received = now;
        add_record(known.next, std::move(text), summary);
        held += bytes_of(known);
    }
    make_room(now);
}

void table_state::apply(host& h, int64_t now, const agent_state& found) {
    if (h.silent && !found.silent) {
        hear(h, now);
    }
    h.silent = found.silent;
    for (const test_status& test : found.tests) {
        auto at = h.rows.find({test.type, test.number.value_or(0)});
        if (at != h.rows.end()) {
            row& known = at->second;
            held -= bytes_of(known);
            settle_text(known, test);
            settle_state(known, test, now);
            held += bytes_of(known);
        }
    }
    make_room(now);
}

void table_state::forget(std::string_view account, std::string_view agent) {
    auto found = hosts.find({std::string(account), std::string(agent)});
    if (found != hosts.end()) {
        for (const auto& [key, r] : found->second.rows) {
            held -= bytes_of(r);
        }
        erase_host(found);
    }
}

/* Takes in a row that there is not yet. */
void table_state::put(host& h, const test_key& key, row first) {
    if (first.kind() == row_kind::fine && held + bytes_of(first) > max_bytes / 10 * 9) {
        not_kept.now++;
        return;
    }
    auto [at, added] = h.rows.try_emplace(key, std::move(first));
    held += added ? bytes_of(at->second) : 0;
}

void table_state::follow(const plan_summary& wanted, int64_t now) {
    awaited.follow(wanted, now);
    for (auto& [name, h] : hosts) {
        if (!h.own) {
            drop_unplanned(h);
        }
    }
}

void table_state::follow(const std::vector<agent_summary>& wanted, int64_t now) {
    std::vector<expectations::own> own;
    own.reserve(wanted.size());
    for (const agent_summary& one : wanted) {
        own.push_back({.account = one.account, .agent = one.agent, .plan = &one.plan});
    }
    awaited.follow(own, now);
    for (const agent_summary& one : wanted) {
        auto found = hosts.find({one.account, one.agent});
        if (found != hosts.end()) {
            found->second.own = awaited.find(one.account, one.agent);
            drop_unplanned(found->second);
        }
    }
}

void table_state::drop_unplanned(host& h) {
    for (auto r = h.rows.begin(); r != h.rows.end();) {
        bool gone = !r->second.strange && !is_kept(h, r->first);
        held -= gone ? bytes_of(r->second) : 0;
        r = gone ? h.rows.erase(r) : std::next(r);
    }
}

void table_state::say(std::string_view text, int64_t now) {
    message next{now, line_text(text)};
    auto known = std::find_if(messages.begin(), messages.end(),
                              [&](const message& m) { return m.text == next.text; });
    if (known != messages.end()) {
        next.times += known->times;
        messages.erase(known);
    }
    messages.push_back(std::move(next));
    if (messages.size() > max_messages) {
        messages.pop_front();
    }
}

void table_state::forget_old_messages(int64_t now) {
    while (!messages.empty() && now - messages.front().when > message_life) {
        messages.pop_front();
    }
}

void table_state::make_room(int64_t now) {
    int64_t span = test_interval(awaited.longest(now));
    for (recent_count* c : {&not_kept, &problems_lost, &hosts_lost}) {
        c->turn(now, span);
    }
    if (held <= max_bytes) {
        return;
    }
    /* More than is needed, so that this is rare. */
    size_t target = max_bytes / 20 * 19;
    drop_rows(row_kind::fine, target, not_kept);
    drop_rows(row_kind::strange, target, not_kept);
    drop_hosts(target);
    drop_rows(row_kind::problem, target, problems_lost);
    drop_hosts(target);
}

/* Of the hosts that have the most of them, first. */
void table_state::drop_rows(row_kind which, size_t target, recent_count& counted) {
    struct victim {
        size_t number; /* of its kind on its host */
        host* on;
        test_key key;
    };
    std::vector<victim> victims;
    for (auto& [name, h] : hosts) {
        size_t number = 0;
        for (const auto& [key, r] : h.rows) {
            if (held > target && r.kind() == which) {
                victims.push_back({number++, &h, key});
            }
        }
    }
    std::stable_sort(victims.begin(), victims.end(),
                     [](const victim& a, const victim& b) { return a.number > b.number; });
    for (const victim& v : victims) {
        if (held <= target) {
            return;
        }
        auto found = v.on->rows.find(v.key);
        held -= bytes_of(found->second);
        v.on->rows.erase(found);
        counted.now++;
    }
}

/* Those without results, the newest first: an agent that many names were invented for must not
 * drive out those that were there before. */
void table_state::drop_hosts(size_t target) {
    std::vector<std::map<host_key, host>::iterator> victims;
    for (auto h = hosts.begin(); h != hosts.end() && held > target; ++h) {
        if (h->second.rows.empty()) {
            victims.push_back(h);
        }
    }
    std::stable_sort(victims.begin(), victims.end(), [](const auto& a, const auto& b) {
        return a->second.first_known > b->second.first_known;
    });
    for (const auto& h : victims) {
        if (held <= target) {
            return;
        }
        erase_host(h);
        hosts_lost.now++;
    }
}

void table_state::erase_host(std::map<host_key, host>::iterator which) {
    held -= bytes_of(which->first, which->second);
    auto account = accounts.find(which->first.first);
    if (--account->second == 0) {
        accounts.erase(account);
    }
    hosts.erase(which);
}

} // namespace live
