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
    return sizeof(test_key) + sizeof(row) + node_bytes + r.text.capacity() + 16;
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

/* A record of the same pass, of another process: they come in the order of their ids, within a
 * second or two. */
bool continues(const row& old, const row& next) {
    return old.parts > 0 && next.parts > 0 && next.last_pid > old.last_pid &&
           next.checked >= old.checked && next.checked <= old.checked + 2;
}

} // namespace

host& table_state::host_of(std::string_view account, std::string_view agent, int64_t now) {
    host_key key{account, agent};
    auto [found, added] = hosts.try_emplace(std::move(key));
    host& h = found->second;
    if (added) {
        h.label = line_text(agent);
        h.account = line_text(account);
        h.first_known = now;
        held += bytes_of(found->first, h);
        accounts[found->first.first]++;
    }
    return h;
}

void table_state::hear(host& h, int64_t now) {
    if (!h.heard || is_silent(h, now)) {
        h.back = now;
    }
    h.heard = true;
    h.last_seen = now;
}

void table_state::apply(host& h, int64_t now, const record& r) {
    record_summary summary = summarize(r);
    if (summary.schema != nullptr && !summary.test) {
        return; /* an inventory */
    }
    test_key key{summary.type, summary.test.value_or(0)};
    if (planned && summary.test && !plan.contains(key)) {
        h.unplanned = now;
        return;
    }
    verdict found = judge(r, summary);
    row pass;
    pass.state = summary.schema == nullptr       ? result_state::strange
                 : found.status.value_or(0) != 0 ? result_state::problem
                                                 : result_state::ok;
    pass.judged = found.status.has_value();
    pass.received = pass.since = now;
    pass.checked = summary.time.value_or(0);
    pass.parts = summary.type == protocol::process.code && summary.schema != nullptr;
    pass.bad_parts = pass.parts && pass.state == result_state::problem;
    pass.last_pid = pass.parts ? r.ui32[3] : 0;
    pass.text = text_of(r, summary, found);
    put(h, key, pass);
    make_room(now);
}

void table_state::put(host& h, const test_key& key, const row& pass) {
    auto at = h.rows.find(key);
    if (at == h.rows.end()) {
        if (pass.state == result_state::ok && held + bytes_of(pass) > max_bytes / 10 * 9) {
            not_kept.now++;
            return;
        }
        row& first = h.rows[key];
        first = pass;
        first.before = pass.state;
        first.since_before = pass.since;
        held += bytes_of(first);
        return;
    }
    row& old = at->second;
    held -= bytes_of(old);
    if (continues(old, pass)) {
        old.received = pass.received;
        old.last_pid = pass.last_pid;
        old.parts++;
        old.bad_parts += pass.bad_parts;
        if (pass.state > old.state) {
            old.state = pass.state;
            old.text = pass.text;
        }
    } else {
        row next = pass;
        next.before = old.state;
        next.since_before = old.since;
        old = std::move(next);
    }
    old.since = old.state == old.before ? old.since_before : pass.since;
    held += bytes_of(old);
}

void table_state::follow(const std::vector<planned_test>& tests, const planned_intervals& wanted,
                         int64_t now) {
    if (planned) {
        longer = {static_cast<int32_t>(poll_interval(now)),
                  static_cast<int32_t>(check_interval(now))};
        longer_until = now + 3 * std::max<int64_t>({longer.poll, longer.check, 20});
    }
    intervals = wanted;
    planned = true;
    plan_since = now;
    plan.clear();
    for (const planned_test& test : tests) {
        plan.insert({test.type, test.id});
    }
    plan_repeats =
        static_cast<size_t>(std::count_if(plan.begin(), plan.end(), [](const test_key& key) {
            return key.first != protocol::discovery.code;
        }));
    for (auto& [name, h] : hosts) {
        for (auto r = h.rows.begin(); r != h.rows.end();) {
            bool gone = r->second.state != result_state::strange && !plan.contains(r->first);
            held -= gone ? bytes_of(r->second) : 0;
            r = gone ? h.rows.erase(r) : std::next(r);
        }
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
    int64_t span = test_interval(now);
    for (recent_count* c : {&not_kept, &problems_lost, &hosts_lost}) {
        c->turn(now, span);
    }
    if (held <= max_bytes) {
        return;
    }
    /* More than is needed, so that this is rare. */
    size_t target = max_bytes / 20 * 19;
    drop_rows(result_state::ok, target, not_kept);
    drop_rows(result_state::strange, target, not_kept);
    drop_hosts(target);
    drop_rows(result_state::problem, target, problems_lost);
    drop_hosts(target);
}

/* Of the hosts that have the most of them, first. */
void table_state::drop_rows(result_state which, size_t target, recent_count& counted) {
    struct victim {
        size_t number; /* of its kind on its host */
        host* on;
        test_key key;
    };
    std::vector<victim> victims;
    for (auto& [name, h] : hosts) {
        size_t number = 0;
        for (const auto& [key, r] : h.rows) {
            if (held > target && r.state == which) {
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
