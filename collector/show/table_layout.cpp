#include "show/table_layout.h"

#include "protocol/record_types.h"

namespace live {

namespace {

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

/* Keeps the newest `most`. */
void keep_first(std::vector<shown_test>& tests, size_t most) {
    size_t kept = std::min(tests.size(), most);
    std::partial_sort(tests.begin(), tests.begin() + static_cast<ptrdiff_t>(kept), tests.end(),
                      newer);
    tests.resize(kept);
}

/* Sorts the host's tests into the block. Returns how many of them the plan has to repeat. */
size_t sort_rows(block& b, size_t rows) {
    size_t of_plan = 0;
    for (const auto& [key, r] : b.shown->rows) {
        of_plan += !r.strange && key.first != protocol::discovery.code;
        if (r.strange) {
            b.tests.strange++;
            b.unclear.push_back({key, &r});
        } else if (r.now == state::problem) {
            b.tests.problems++;
            b.newest = std::max(b.newest, r.since);
            b.problems.push_back({key, &r});
        } else if (r.now == state::stale) {
            b.tests.stale++;
            b.unclear.push_back({key, &r});
        } else {
            b.tests.ok++;
            if (b.fine.size() < rows) {
                b.fine.push_back({key, &r});
            }
        }
    }
    return of_plan;
}

/* Adds tests that the plan has and the host does not, so many at most. */
void add_missing(block& b, const expected& plan, size_t most) {
    auto r = b.shown->rows.begin();
    for (const expected::planned& wanted : plan.tests()) {
        const test_key& key = wanted.test;
        if (most == 0) {
            return;
        }
        while (r != b.shown->rows.end() && r->first < key) {
            ++r;
        }
        bool missing = r == b.shown->rows.end() || r->first != key;
        if (missing && key.first != protocol::discovery.code) {
            b.unclear.push_back({key, nullptr});
            most--;
        }
    }
}

block look_at(const table_state& s, const host& h, size_t rows, int64_t now) {
    block b;
    b.shown = &h;
    b.silent = h.silent;
    size_t of_plan = sort_rows(b, rows);
    /* What was not kept for want of room is not unknown. */
    const expected& plan = s.plan_of(h);
    if (plan.has_plan() && of_plan < plan.repeating() && !b.silent && h.heard &&
        s.not_kept.get() == 0 && plan.at(now).check > 0 &&
        now - std::max(h.back, plan.followed()) > plan.stale_after(now)) {
        b.tests.unknown = plan.repeating() - of_plan;
        add_missing(b, plan, rows);
    }
    keep_first(b.problems, rows);
    keep_first(b.unclear, rows);
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

class sharing {
public:
    sharing(std::vector<block>& blocks, size_t lines) : blocks_(blocks), left_(lines) {}

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

std::vector<block> look_at_all(const table_state& s, size_t rows, int64_t now) {
    std::vector<block> blocks;
    blocks.reserve(s.hosts.size());
    for (const auto& [key, h] : s.hosts) {
        blocks.push_back(look_at(s, h, rows, now));
    }
    std::stable_sort(blocks.begin(), blocks.end(), before);
    return blocks;
}

void share_out(std::vector<block>& blocks, size_t lines) {
    sharing(blocks, lines).run();
}

size_t lines_wanted(const std::vector<block>& blocks) {
    size_t lines = 0;
    for (const block& b : blocks) {
        lines += 1 + (b.silent ? 0 : b.tests.all());
    }
    return lines;
}

} // namespace live
