/* DESIGN
 *
 * A host holds its tests in a map; of each there is the text of one line, made when the result
 * comes. States that depend on the time are worked out when a screen is drawn, in one pass over
 * everything; then the lines of the screen are given out in rounds, what matters most first. */
#include "show/table.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "show/record_text.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>

namespace live {

constexpr size_t max_text = 400; /* bytes of the line of a test */
constexpr size_t max_messages = 50;
constexpr int64_t message_life = 3600;
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

constexpr size_t node_bytes = 48; /* what a map adds to a value, and the allocator to both */

size_t bytes_of(const row& r) {
    return sizeof(test_key) + sizeof(row) + node_bytes + r.text.capacity() + 16;
}

using host_key = std::pair<std::string, std::string>; /* account, agent */

size_t bytes_of(const host_key& key, const host& h) {
    return sizeof(key) + sizeof(h) + node_bytes + key.first.capacity() + key.second.capacity() +
           h.label.capacity() + h.account.capacity() + 64;
}

/* ---- text ---- */

/* At most max_text bytes, whole characters. */
std::string shortened(std::string text) {
    if (text.size() > max_text) {
        size_t end = max_text;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) {
            end--;
        }
        text.resize(end);
        text += " ...";
    }
    text.shrink_to_fit();
    return text;
}

/* The same of text from outside, in one harmless line without runs of blanks. */
std::string line_text(std::string_view raw) {
    std::string safe = printable(raw.substr(0, 4 * max_text));
    std::string text;
    for (char c : safe) {
        if (c != ' ' || (!text.empty() && text.back() != ' ')) {
            text += c;
        }
    }
    return shortened(std::move(text));
}

std::string joined(const std::string& first, const std::string& second) {
    return first.empty() || second.empty() ? first + second : first + "  " + second;
}

std::string counted(size_t n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

std::string test_label(const test_key& key) {
    return key.second != 0 ? type_name(key.first) + " " + std::to_string(key.second)
                           : type_name(key.first);
}

/* In so many columns. Of what is too long the id stays whole: it tells tests apart. */
std::string test_label(const test_key& key, size_t columns) {
    std::string label = test_label(key), id = " " + std::to_string(key.second);
    if (key.second == 0 || label.size() <= columns) {
        return fit_columns(label, columns);
    }
    return fit_columns(type_name(key.first), columns - std::min(columns, id.size())) + id;
}

/* Parts of a list, those that are not 0. */
class listing {
public:
    void add(size_t n, const std::string& text) {
        if (n > 0) {
            text_ += (text_.empty() ? "" : ", ") + text;
        }
    }
    void add_count(size_t n, const char* what) { add(n, counted(n, what)); }
    void add_state(size_t n, const char* state) { add(n, std::to_string(n) + " " + state); }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

/* ---- a screen ---- */

constexpr const char *red = "\033[31m", *yellow = "\033[33m", *bold = "\033[1m",
                     *inverse = "\033[7m", *inverse_red = "\033[7;31m";

struct span {
    const char* colour; /* null: none */
    std::string text;
};

/* Lines of a screen's width. */
class painter {
public:
    explicit painter(const table_screen& screen)
        /* Clearing to the line's end with the cursor in the last column would take that column,
         * too. */
        : columns_(screen.columns - (screen.columns > 1 ? 1 : 0)), rows_(screen.rows),
          colours_(screen.colours) {}

    size_t columns() const { return columns_; }

    void line(const std::vector<span>& spans) {
        if (rows_ == 0) {
            return;
        }
        size_t left = columns_;
        for (const span& s : spans) {
            size_t width = std::min(left, display_width(s.text));
            std::string text = fit_columns(s.text, width);
            left -= width;
            bool coloured = colours_ && s.colour != nullptr && width > 0;
            out_ += coloured ? s.colour + text + "\033[0m" : text;
        }
        /* No line end behind the last line of the screen: it would scroll. */
        out_ += "\033[K";
        out_ += --rows_ > 0 ? "\r\n" : "";
    }

    std::string take() { return "\033[?7l" + std::move(out_) + "\033[J\033[?7h"; }

private:
    size_t columns_, rows_;
    bool colours_;
    std::string out_;
};

/* ---- what a host looks like at a time ---- */

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
    std::string text() const {
        listing list;
        list.add_count(problems, "problem");
        list.add_state(stale, "stale");
        list.add_state(unknown, "unknown");
        list.add_state(strange, "of unknown types");
        list.add_state(ok, "ok");
        return list.text();
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

bool newer(const shown_test& a, const shown_test& b) {
    int64_t first = a.held ? a.held->since : 0, second = b.held ? b.held->since : 0;
    return first != second ? first > second : a.key < b.key;
}

bool before(const block& a, const block& b) {
    if (a.place != b.place) {
        return a.place < b.place;
    }
    return a.place <= rank::long_silent && a.newest != b.newest ? a.newest > b.newest
                                                                : a.shown->label < b.shown->label;
}

} // namespace live

using namespace live;

std::string age_text(int64_t seconds) {
    seconds = std::max<int64_t>(seconds, 0);
    if (seconds < 100) {
        return std::to_string(seconds) + "s";
    }
    if (seconds < 100 * 60) {
        return std::to_string(seconds / 60) + "m";
    }
    return seconds < 100 * 3600 ? std::to_string(seconds / 3600) + "h"
                                : std::to_string(seconds / day) + "d";
}

struct live_table::state {
    state(int64_t begin, size_t most) : start(begin), max_bytes(most) {}

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

    host& host_of(std::string_view account, std::string_view agent, int64_t now);
    void hear(host& h, int64_t now);
    void apply(host& h, int64_t now, const record& r);
    void put(host& h, const test_key& key, const row& pass);
    void make_room(int64_t now);
    void drop_rows(result_state which, size_t target, recent_count& counted);
    void drop_hosts(size_t target);
    void erase_host(std::map<host_key, host>::iterator which);

    block look_at(const host& h, const table_screen& screen, int64_t now) const;
    std::vector<block> look_at_all(const table_screen& screen, int64_t now) const;
    std::string title(const std::vector<block>& blocks, size_t columns, bool& wrong,
                      int64_t now) const;
    std::vector<span> host_line(const block& b, size_t name_width, int64_t now) const;
    void paint_tests(painter& screen, const block& b, size_t width, int64_t now) const;
};

/* ---- taking ---- */

host& live_table::state::host_of(std::string_view account, std::string_view agent, int64_t now) {
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

void live_table::state::hear(host& h, int64_t now) {
    if (!h.heard || is_silent(h, now)) {
        h.back = now;
    }
    h.heard = true;
    h.last_seen = now;
}

/* What a result says, in one line: of a problem the reason first, of what is ok the values. */
static std::string text_of(const record& r, const record_summary& summary, const verdict& found) {
    std::string values = line_text(values_text(r, summary, max_text));
    if (summary.schema == nullptr) {
        return values;
    }
    std::string reason = line_text(found.reason);
    if (found.status.value_or(0) == 0) {
        return shortened(joined(values, reason));
    }
    if (reason.empty()) {
        reason = status_word(summary.type, found.status.value_or(0));
    }
    return shortened(joined(reason, values));
}

void live_table::state::apply(host& h, int64_t now, const record& r) {
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

/* A record of the same pass, of another process: they come in the order of their ids, within a
 * second or two. */
static bool continues(const row& old, const row& next) {
    return old.parts > 0 && next.parts > 0 && next.last_pid > old.last_pid &&
           next.checked >= old.checked && next.checked <= old.checked + 2;
}

void live_table::state::put(host& h, const test_key& key, const row& pass) {
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

/* ---- the bound ---- */

void live_table::state::make_room(int64_t now) {
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
void live_table::state::drop_rows(result_state which, size_t target, recent_count& counted) {
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
void live_table::state::drop_hosts(size_t target) {
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

void live_table::state::erase_host(std::map<host_key, host>::iterator which) {
    held -= bytes_of(which->first, which->second);
    auto account = accounts.find(which->first.first);
    if (--account->second == 0) {
        accounts.erase(account);
    }
    hosts.erase(which);
}

/* ---- drawing ---- */

/* Keeps the first `most` in the order of `less`. */
static void keep_first(std::vector<shown_test>& tests, size_t most) {
    size_t kept = std::min(tests.size(), most);
    std::partial_sort(tests.begin(), tests.begin() + static_cast<ptrdiff_t>(kept), tests.end(),
                      newer);
    tests.resize(kept);
}

block live_table::state::look_at(const host& h, const table_screen& screen, int64_t now) const {
    block b;
    b.shown = &h;
    b.silent = is_silent(h, now);
    size_t of_plan = 0;
    for (const auto& [key, r] : h.rows) {
        of_plan += r.state != result_state::strange && key.first != protocol::discovery.code;
        if (r.state == result_state::problem) {
            b.tests.problems++;
            b.newest = std::max(b.newest, r.since);
            b.problems.push_back({key, &r});
        } else if (r.state == result_state::strange) {
            b.tests.strange++;
            b.unclear.push_back({key, &r});
        } else if (!b.silent && is_stale(h, r, now)) {
            b.tests.stale++;
            b.unclear.push_back({key, &r});
        } else {
            b.tests.ok++;
            if (b.fine.size() < screen.rows) {
                b.fine.push_back({key, &r});
            }
        }
    }
    /* What was not kept for want of room is not unknown. */
    if (planned && of_plan < plan_repeats && !b.silent && h.heard && not_kept.get() == 0 &&
        check_interval(now) > 0 && now - std::max(h.back, plan_since) > unknown_after(now)) {
        b.tests.unknown = plan_repeats - of_plan;
        auto r = h.rows.begin();
        size_t found = 0;
        for (auto key = plan.begin(); key != plan.end() && found < screen.rows; ++key) {
            while (r != h.rows.end() && r->first < *key) {
                ++r;
            }
            bool missing = r == h.rows.end() || r->first != *key;
            if (missing && key->first != protocol::discovery.code) {
                b.unclear.push_back({*key, nullptr});
                found++;
            }
        }
    }
    keep_first(b.problems, screen.rows);
    keep_first(b.unclear, screen.rows);
    if (b.silent) {
        bool for_long = now - h.last_seen > day;
        b.place = for_long ? rank::long_silent : rank::wrong;
        b.newest = h.last_seen;
    } else {
        b.place = b.tests.problems > 0    ? rank::wrong
                  : b.tests.unclear() > 0 ? rank::unclear
                                          : rank::ok;
    }
    return b;
}

std::vector<block> live_table::state::look_at_all(const table_screen& screen, int64_t now) const {
    std::vector<block> blocks;
    blocks.reserve(hosts.size());
    for (const auto& [key, h] : hosts) {
        blocks.push_back(look_at(h, screen, now));
    }
    std::stable_sort(blocks.begin(), blocks.end(), before);
    return blocks;
}

/* The lines of the blocks, given out in rounds. */
namespace {
class share_out {
public:
    share_out(std::vector<block>& blocks, size_t lines) : blocks_(blocks), left_(lines) {}

    /* What matters most first. */
    void run() {
        size_t wrong = 0, silent = 0;
        for (const block& b : blocks_) {
            wrong += b.place == rank::wrong;
            silent += b.place == rank::wrong && b.silent;
        }
        /* Hosts that are silent, all at once when a network is down, leave room for problems. */
        size_t silent_room =
            wrong > left_ ? std::max(left_ / 2, left_ - std::min(left_, wrong - silent)) : silent;
        for (block& b : blocks_) {
            if (b.place == rank::wrong && (!b.silent || silent_room > 0)) {
                silent_room -= b.silent;
                give_host(b);
            }
        }
        rounds(&block::problems, &block::problem_lines);
        give_hosts(rank::long_silent);
        give_hosts(rank::unclear);
        rounds(&block::unclear, &block::unclear_lines);
        give_hosts(rank::ok);
        rounds(&block::fine, &block::fine_lines);
    }

private:
    void give_host(block& b) {
        if (left_ > 0 && !b.given) {
            b.given = true;
            left_--;
        }
    }
    void give_hosts(rank place) {
        for (block& b : blocks_) {
            if (b.place == place) {
                give_host(b);
            }
        }
    }
    void rounds(std::vector<shown_test> block::*tests, size_t block::*lines) {
        for (bool more = true; more && left_ > 0;) {
            more = false;
            for (block& b : blocks_) {
                if (left_ > 0 && b.given && !b.silent && b.*lines < (b.*tests).size()) {
                    (b.*lines)++;
                    left_--;
                    more = true;
                }
            }
        }
    }

    std::vector<block>& blocks_;
    size_t left_;
};
} // namespace

/* What all blocks want to show. */
static size_t lines_wanted(const std::vector<block>& blocks) {
    size_t lines = 0;
    for (const block& b : blocks) {
        lines += 1 + (b.silent ? 0 : b.tests.all());
    }
    return lines;
}

/* Whether the line of the host also has its newest problem, for want of room below it. */
static bool is_single(const block& b) {
    return b.problem_lines == 0 && b.tests.problems > 0 && !b.silent;
}

static std::string hidden_text(const std::vector<block>& blocks, size_t not_kept, size_t columns) {
    count tests;
    tests.ok = not_kept;
    size_t silent = 0, hosts = 0;
    for (const block& b : blocks) {
        if (!b.given) {
            hosts++;
            silent += b.silent;
        }
        if (b.silent) {
            continue;
        }
        count hidden = b.tests;
        hidden.problems -= b.given ? b.problem_lines + is_single(b) : 0;
        /* Stale and unknown are not told apart here. */
        hidden.stale = b.tests.unclear() - b.unclear_lines;
        hidden.unknown = hidden.strange = 0;
        hidden.ok -= b.fine_lines;
        tests += hidden;
    }
    std::string elsewhere = "on " + counted(hosts - silent, "more host");
    listing words;
    words.add_count(tests.problems, "more problem");
    words.add(silent, counted(silent, "more host") +
                          (silent == 1 ? " that is silent" : " that are silent"));
    words.add(tests.stale, counted(tests.stale, "more test") + " stale or unknown");
    words.add(tests.ok,
              counted(tests.ok, "more test") + (tests.ok == 1 ? " that is ok" : " that are ok"));
    words.add(hosts - silent, elsewhere);
    if (words.text().empty() || words.text().size() + 4 <= columns) {
        return words.text();
    }
    listing brief;
    brief.add_count(tests.problems, "problem");
    brief.add(silent, std::to_string(silent) + " silent");
    brief.add(tests.stale, std::to_string(tests.stale) + " stale or unknown");
    brief.add(tests.ok, std::to_string(tests.ok) + " ok");
    brief.add(hosts - silent, elsewhere);
    return "more: " + brief.text();
}

/* The state of everything, the worst first. */
std::string live_table::state::title(const std::vector<block>& blocks, size_t columns, bool& wrong,
                                     int64_t now) const {
    count tests;
    size_t silent = 0, silent_tests = 0;
    for (const block& b : blocks) {
        silent += b.silent;
        if (b.silent) {
            silent_tests += b.tests.all();
        } else {
            tests += b.tests;
        }
    }
    tests.ok += not_kept.get();
    size_t all = tests.all() + silent_tests + problems_lost.get();
    wrong = tests.problems + silent + problems_lost.get() > 0;
    listing list;
    list.add_count(tests.problems, "problem");
    list.add(problems_lost.get(),
             counted(problems_lost.get(), "problem") + " more than can be held");
    list.add(silent, counted(silent, "host") + " silent");
    list.add(hosts_lost.get(), counted(hosts_lost.get(), "host") + " more than can be held");
    list.add_state(tests.stale, "stale");
    list.add_state(tests.unknown, "unknown");
    list.add_state(tests.strange, "of unknown types");
    bool fine = list.text().empty();
    list.add_state(tests.ok, "ok");
    std::string text = blocks.empty()     ? "no agent is known yet"
                       : all == 0 && fine ? "no tests"
                       : fine             ? "all ok"
                                          : list.text();
    std::string total = counted(all, "test") + " on " + counted(blocks.size(), "host");
    std::string clock = utc_time(now).substr(11);
    std::string left = " " + text + (blocks.empty() ? "" : " - " + total);
    if (display_width(left) + clock.size() + 3 > columns) {
        left = " " + text;
    }
    if (display_width(left) + clock.size() + 3 <= columns) {
        return fit_columns(left, columns - clock.size() - 1) + clock + " ";
    }
    return fit_columns(left, columns);
}

/* "2 of 5 processes: ...". */
static std::string parts_text(const row& r) {
    if (r.parts < 2) {
        return r.text;
    }
    std::string number = std::to_string(r.parts) + " processes: ";
    return (r.bad_parts > 0 ? std::to_string(r.bad_parts) + " of " : "") + number + r.text;
}

std::vector<span> live_table::state::host_line(const block& b, size_t name_width,
                                               int64_t now) const {
    const host& h = *b.shown;
    std::string name = accounts.size() > 1 ? h.label + " (" + h.account + ")" : h.label;
    std::vector<span> spans = {{bold, fit_columns(name, name_width) + "  "}};
    std::string counts = b.tests.text();
    if (b.silent) {
        spans = {{red, spans[0].text + "silent for " + age_text(now - h.last_seen)}};
        spans.push_back({nullptr, counts.empty() ? "" : ", before that " + counts});
        return spans;
    }
    if (is_single(b)) { /* what is wrong is worth more than how much is not */
        const shown_test& first = b.problems[0];
        size_t others = b.tests.problems - 1;
        spans.push_back({red, test_label(first.key)});
        spans.push_back(
            {nullptr,
             ": " + (others > 0 ? "(" + counted(others, "more problem") + ") " : std::string()) +
                 parts_text(*first.held)});
        return spans;
    }
    std::string rest = counts.empty() ? "no tests" : counts;
    if (b.tests.problems > 0) {
        std::string problems = counted(b.tests.problems, "problem");
        spans.push_back({red, problems});
        rest.erase(0, problems.size());
    }
    size_t hidden = b.tests.problems - b.problem_lines;
    if (hidden > 0) {
        rest += " (" + counted(hidden, "more problem") + " not shown)";
    }
    if (!h.heard) {
        rest += ", last heard " + age_text(now - h.last_seen) + " ago";
    }
    if (h.unplanned >= 0 && h.unplanned > plan_since + 2 * test_interval(now) &&
        now - h.unplanned <= stale_after(now)) {
        rest += ", and tests that are not in the plan";
    }
    spans.push_back({nullptr, rest});
    return spans;
}

static std::vector<span> test_line(const shown_test& test, const char* mark, const char* colour,
                                   size_t width, const std::string& age, const std::string& text) {
    return {{colour, std::string("  ") + mark + " " + test_label(test.key, width)},
            {nullptr, "  " + fit_columns(age, 7) + "  " + text}};
}

void live_table::state::paint_tests(painter& screen, const block& b, size_t width,
                                    int64_t now) const {
    for (size_t i = 0; i < b.problem_lines; i++) {
        const row& r = *b.problems[i].held;
        std::string late =
            is_stale(*b.shown, r, now) ? "(no result for " + age_text(now - r.received) + ") " : "";
        screen.line(test_line(b.problems[i], "!", red, width, "for " + age_text(now - r.since),
                              late + parts_text(r)));
    }
    for (size_t i = 0; i < b.unclear_lines; i++) {
        const row* r = b.unclear[i].held;
        std::string text = r == nullptr                        ? "unknown: no result yet"
                           : r->state == result_state::strange ? "unknown type: " + r->text
                                                               : "stale, was ok: " + parts_text(*r);
        screen.line(test_line(b.unclear[i], "?", yellow, width,
                              r == nullptr ? "" : age_text(now - r->received) + " ago", text));
    }
    for (size_t i = 0; i < b.fine_lines; i++) {
        const row& r = *b.fine[i].held;
        screen.line(test_line(b.fine[i], " ", nullptr, width, age_text(now - r.received) + " ago",
                              parts_text(r)));
    }
}

/* ---- the outside ---- */

live_table::live_table(int64_t start, size_t max_bytes)
    : state_(std::make_unique<state>(start, max_bytes)) {}
live_table::live_table(live_table&&) noexcept = default;
live_table& live_table::operator=(live_table&&) noexcept = default;
live_table::~live_table() = default;

void live_table::know(std::string_view account, std::string_view agent, int64_t last_seen) {
    host& h = state_->host_of(account, agent, 0);
    h.last_seen = std::max(h.last_seen, std::min(last_seen, state_->start));
    state_->make_room(state_->start);
}

void live_table::know(std::string_view account, std::string_view agent, int64_t received,
                      const record& r) {
    received = std::min(received, state_->start);
    host& h = state_->host_of(account, agent, 0);
    h.last_seen = std::max(h.last_seen, received);
    state_->apply(h, received, r);
}

void live_table::take(std::string_view account, std::string_view agent, int64_t now,
                      const record& r) {
    host& h = state_->host_of(account, agent, now);
    state_->hear(h, now);
    state_->apply(h, now, r);
}

void live_table::hear(std::string_view account, std::string_view agent, int64_t now) {
    state_->hear(state_->host_of(account, agent, now), now);
    state_->make_room(now);
}

void live_table::follow(const std::vector<planned_test>& tests, const planned_intervals& intervals,
                        int64_t now) {
    state& s = *state_;
    if (s.planned) {
        s.longer = {static_cast<int32_t>(s.poll_interval(now)),
                    static_cast<int32_t>(s.check_interval(now))};
        s.longer_until = now + 3 * std::max<int64_t>({s.longer.poll, s.longer.check, 20});
    }
    s.intervals = intervals;
    s.planned = true;
    s.plan_since = now;
    s.plan.clear();
    for (const planned_test& test : tests) {
        s.plan.insert({test.type, test.id});
    }
    s.plan_repeats =
        static_cast<size_t>(std::count_if(s.plan.begin(), s.plan.end(), [](const test_key& key) {
            return key.first != protocol::discovery.code;
        }));
    for (auto& [name, h] : s.hosts) {
        for (auto r = h.rows.begin(); r != h.rows.end();) {
            bool gone = r->second.state != result_state::strange && !s.plan.contains(r->first);
            s.held -= gone ? bytes_of(r->second) : 0;
            r = gone ? h.rows.erase(r) : std::next(r);
        }
    }
}

void live_table::say(std::string_view text, int64_t now) {
    std::deque<message>& all = state_->messages;
    message next{now, line_text(text)};
    auto known =
        std::find_if(all.begin(), all.end(), [&](const message& m) { return m.text == next.text; });
    if (known != all.end()) {
        next.times += known->times;
        all.erase(known);
    }
    all.push_back(std::move(next));
    if (all.size() > max_messages) {
        all.pop_front();
    }
}

void live_table::introduce(std::string_view text) {
    state_->introduction = text;
}

size_t live_table::bytes() const {
    return state_->held;
}

static void paint_messages(painter& screen, const std::deque<message>& messages, size_t lines) {
    for (size_t i = messages.size() - lines; i < messages.size(); i++) {
        const message& m = messages[i];
        std::string times = m.times > 1 ? " (" + std::to_string(m.times) + " times)" : "";
        screen.line({{yellow, "* " + utc_time(m.when).substr(11, 8) + times + " " + m.text}});
    }
}

static void paint_introduction(painter& screen, std::string_view text, size_t lines) {
    for (; !text.empty() && lines > 0; lines--) {
        size_t end = std::min(text.find('\n'), text.size());
        std::string line = printable(text.substr(0, end));
        screen.line({{nullptr, line}});
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::string live_table::draw(const table_screen& screen, int64_t now) {
    state& s = *state_;
    while (!s.messages.empty() && now - s.messages.front().when > message_life) {
        s.messages.pop_front();
    }
    s.make_room(now);
    std::vector<block> blocks = s.look_at_all(screen, now);
    /* The title, a line at least for what is wrong, and what does not fit. */
    size_t spare = screen.rows - std::min<size_t>(screen.rows, 3);
    size_t message_lines =
        std::min({s.messages.size(), spare, std::max<size_t>(screen.rows / 5, 1)});
    size_t room = screen.rows - std::min(screen.rows, 1 + message_lines);
    bool all_fits = lines_wanted(blocks) <= room;
    share_out(blocks, all_fits || room < 2 ? room : room - 1).run();

    painter paint(screen);
    bool wrong = false;
    std::string title = s.title(blocks, paint.columns(), wrong, now);
    paint.line({{wrong ? inverse_red : inverse, title}});
    size_t name_width = 4, test_width = 4;
    for (const block& b : blocks) {
        if (!b.given) {
            continue;
        }
        size_t account = s.accounts.size() > 1 ? display_width(b.shown->account) + 3 : 0;
        name_width = std::max(name_width, display_width(b.shown->label) + account);
        for (auto [tests, lines] :
             {std::pair(&b.problems, b.problem_lines), std::pair(&b.unclear, b.unclear_lines),
              std::pair(&b.fine, b.fine_lines)}) {
            for (size_t i = 0; i < lines; i++) {
                test_width = std::max(test_width, test_label((*tests)[i].key).size());
            }
        }
    }
    name_width = std::min(name_width, std::max<size_t>(screen.columns / 3, 4));
    test_width = std::min(test_width, std::max<size_t>(screen.columns / 3, 4));
    for (const block& b : blocks) {
        if (b.given) {
            paint.line(s.host_line(b, name_width, now));
            s.paint_tests(paint, b, test_width, now);
        }
    }
    std::string hidden = hidden_text(blocks, s.not_kept.get(), paint.columns());
    if (!hidden.empty()) {
        paint.line({{bold, "... " + hidden}});
    }
    if (blocks.empty()) {
        paint_introduction(paint, s.introduction, room);
    }
    paint_messages(paint, s.messages, message_lines);
    return paint.take();
}
