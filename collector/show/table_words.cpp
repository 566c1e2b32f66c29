#include "show/table_words.h"

#include "base/record_summary.h"
#include "base/text.h"

namespace live {

namespace {

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

struct hidden_things {
    count tests; /* stale and unknown are not told apart */
    size_t silent = 0, hosts = 0;
};

hidden_things count_hidden(const std::vector<block>& blocks) {
    hidden_things all;
    for (const block& b : blocks) {
        if (!b.given) {
            all.hosts++;
            all.silent += b.silent;
        }
        if (b.silent) {
            continue;
        }
        all.tests.problems += b.tests.problems - (b.given ? b.problem_lines + is_single(b) : 0);
        all.tests.stale += b.tests.unclear() - b.unclear_lines;
        all.tests.ok += b.tests.ok - b.fine_lines;
    }
    return all;
}

/* What is wrong comes first. */
std::string states_text(const table_state& s, const count& tests, size_t silent, size_t all) {
    listing list;
    list.add_count(tests.problems, "problem");
    list.add(s.problems_lost.get(),
             counted(s.problems_lost.get(), "problem") + " more than can be held");
    list.add(silent, counted(silent, "host") + " silent");
    list.add(s.hosts_lost.get(), counted(s.hosts_lost.get(), "host") + " more than can be held");
    list.add_state(tests.stale, "stale");
    list.add_state(tests.unknown, "unknown");
    list.add_state(tests.strange, "of unknown types");
    if (list.text().empty()) {
        return all == 0 ? "no tests" : "all ok";
    }
    list.add_state(tests.ok, "ok");
    return list.text();
}

} // namespace

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

std::string counted(size_t n, const char* what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

std::string test_label(const test_key& key) {
    return key.second != 0 ? type_name(key.first) + " " + std::to_string(key.second)
                           : type_name(key.first);
}

std::string test_label(const test_key& key, size_t columns) {
    std::string label = test_label(key), id = " " + std::to_string(key.second);
    if (key.second == 0 || label.size() <= columns) {
        return fit_columns(label, columns);
    }
    return fit_columns(type_name(key.first), columns - std::min(columns, id.size())) + id;
}

std::string parts_text(const row& r) {
    if (r.parts < 2) {
        return r.shown.text;
    }
    std::string number = std::to_string(r.parts) + " processes: ";
    return (r.bad_parts > 0 ? std::to_string(r.bad_parts) + " of " : "") + number + r.shown.text;
}

std::string text_of(const count& tests) {
    listing list;
    list.add_count(tests.problems, "problem");
    list.add_state(tests.stale, "stale");
    list.add_state(tests.unknown, "unknown");
    list.add_state(tests.strange, "of unknown types");
    list.add_state(tests.ok, "ok");
    return list.text();
}

std::string hidden_text(const std::vector<block>& blocks, size_t not_kept, size_t columns) {
    hidden_things hidden = count_hidden(blocks);
    hidden.tests.ok += not_kept;
    const count& tests = hidden.tests;
    size_t silent = hidden.silent, others = hidden.hosts - silent;
    std::string elsewhere = "on " + counted(others, "more host");
    listing words;
    words.add_count(tests.problems, "more problem");
    words.add(silent, counted(silent, "more host") +
                          (silent == 1 ? " that is silent" : " that are silent"));
    words.add(tests.stale, counted(tests.stale, "more test") + " stale or unknown");
    words.add(tests.ok,
              counted(tests.ok, "more test") + (tests.ok == 1 ? " that is ok" : " that are ok"));
    words.add(others, elsewhere);
    if (words.text().empty() || words.text().size() + 4 <= columns) {
        return words.text();
    }
    listing brief;
    brief.add_count(tests.problems, "problem");
    brief.add_state(silent, "silent");
    brief.add_state(tests.stale, "stale or unknown");
    brief.add_state(tests.ok, "ok");
    brief.add(others, elsewhere);
    return "more: " + brief.text();
}

std::string title_text(const table_state& s, const std::vector<block>& blocks, size_t columns,
                       bool& wrong, int64_t now) {
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
    tests.ok += s.not_kept.get();
    size_t lost = s.problems_lost.get(), all = tests.all() + silent_tests + lost;
    wrong = tests.problems + silent + lost > 0;
    std::string text =
        blocks.empty() ? "no agent is known yet" : states_text(s, tests, silent, all);
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

} // namespace live
