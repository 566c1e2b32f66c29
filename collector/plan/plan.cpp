#include "plan/plan.h"

#include <algorithm>
#include <deque>
#include <set>
#include <string_view>
#include <unordered_map>

using protocol::command_effect;

namespace {

const size_t max_problems = 1000; /* reported in one reading */

/* Gives each line the serial that it had, one occurrence after the other. */
void keep_serials(const std::vector<plan_line>& before, std::vector<checked_line>& lines) {
    std::unordered_map<std::string_view, std::deque<uint64_t>> serials;
    for (const plan_line& line : before) {
        serials[line.text].push_back(line.serial);
    }
    for (checked_line& line : lines) {
        auto known = serials.find(line.text);
        if (known != serials.end() && !known->second.empty()) {
            line.serial = known->second.front();
            known->second.pop_front();
        }
    }
}

/* Notes what the new lines do to agents that run. `report` gets those that do nothing there. */
template <typename Report>
void note_new_lines(const std::vector<checked_line>& lines, std::map<test_place, bool>& at_agents,
                    Report report) {
    for (const checked_line& line : lines) {
        if (line.serial != 0 || !(line.adds() || line.removes())) {
            continue;
        }
        bool& there = at_agents[line.test];
        if (there && line.adds()) {
            report(line, "agents that run have " + name_of(line.test) +
                             " already and keep it as it was: modify it, or remove it first (sent "
                             "all the same, for agents that start anew)");
        }
        there = line.adds();
    }
}

/* Agents that run get only the new lines. A new remove above an old add would leave them without a
 * test that an agent which logs in gets: then the lines from that add on count as new, too. */
void renew_lost_tests(const presence& tests, std::map<test_place, bool>& at_agents,
                      std::vector<checked_line>& lines) {
    std::set<test_place> lost;
    for (auto& [test, there] : at_agents) {
        if (!there && tests.has(test)) {
            there = true;
            lost.insert(test);
        }
    }
    for (auto line = lines.rbegin(); line != lines.rend() && !lost.empty(); ++line) {
        if (line->does != command_effect::none && lost.contains(line->test)) {
            line->serial = 0;
            if (line->adds()) {
                lost.erase(line->test);
            }
        }
    }
}

/* Agents that have not proven who they are were told nothing of a test as long as it had secrets in
 * it. Now that it has none, its lines count as new. */
void renew_opened_tests(std::set<test_place> were_secret, std::vector<checked_line>& lines) {
    placeholder at;
    for (const checked_line& line : lines) {
        if (find_placeholder(line.text, 0, at)) {
            were_secret.erase(line.test);
        }
    }
    for (checked_line& line : lines) {
        if (line.does != command_effect::none && were_secret.contains(line.test)) {
            line.serial = 0;
        }
    }
}

} // namespace

plan::plan(std::string path, std::function<void(const plan_problem&)> report,
           std::function<void(const line_list&)> taken, known_secrets* secrets)
    : report_(std::move(report)), taken_(std::move(taken)), file_(std::move(path)),
      secrets_(secrets) {}

secret_tests::report_function plan::report_line() const {
    return [this](int number, const std::string& reason) {
        if (report_) {
            report_({number, reason});
        }
    };
}

bool plan::fail(const std::string& why) {
    if (why != trouble_ && report_) {
        report_({0, why});
    }
    trouble_ = why;
    result_ = false;
    return false;
}

bool plan::refresh() {
    const bool result = read();
    secrets_.refresh(lines_, newest_, report_line());
    return result;
}

bool plan::read() {
    if (file_.path().empty()) {
        return true;
    }
    std::string text, trouble;
    switch (file_.read(lines_, text, trouble)) {
    case plan_file::state::same:
        return result_;
    case plan_file::state::failed:
        return fail(trouble);
    case plan_file::state::text:
        break;
    }
    if (file_.is_new(text)) {
        std::string none = lines_.empty() ? "" : why_none(text, at_agents_);
        if (!none.empty()) {
            return fail(file_.path() + ": every line is refused (" + none +
                        "); the lines that were in it stay in force");
        }
        take(text);
    }
    file_.accept(std::move(text));
    trouble_.clear();
    result_ = true;
    return true;
}

void plan::take(std::string_view text) {
    std::map<std::string, int> found;
    size_t reported = 0;
    auto problem = [&](const checked_line& line, const std::string& reason) {
        std::string key = reason + "\n" + std::string(line.text);
        if (++found[key] <= problems_[key] || reported > max_problems || !report_) {
            return;
        }
        bool last = reported++ == max_problems;
        report_({line.number, last ? "there are more problems from here on" : reason});
    };

    presence tests(at_agents_);
    std::vector<checked_line> lines;
    std::set<test_place> meant; /* to be added by lines that are refused */
    bool refused = false;
    checked_line line;
    for (line_reader reader(text); reader.next(line);) {
        std::string reason = tests.apply(line);
        if (reason.empty()) {
            lines.push_back(line);
            continue;
        }
        problem(line, reason);
        refused = true;
        if (line.adds()) {
            meant.insert(line.test);
        }
    }
    bool sure = !text.empty() && !(refused && lines.empty()) &&
                std::none_of(meant.begin(), meant.end(),
                             [](const test_place& test) { return test.id == 0; });
    keep_serials(lines_, lines);
    note_new_lines(lines, at_agents_, problem);
    renew_lost_tests(tests, at_agents_, lines);
    renew_opened_tests(secrets_.places(), lines);

    lines_.clear();
    for (const checked_line& held : lines) {
        uint64_t serial = held.serial != 0 ? held.serial : ++newest_;
        lines_.push_back({serial, held.number, std::string(held.text)});
    }
    intervals_ = intervals_of(lines_);
    for_check_.reset();
    logins_.prepare(lines, at_agents_, std::move(meant), sure);
    problems_ = std::move(found);
    secrets_.take(lines_, newest_, report_line());
    if (taken_) {
        taken_(lines_);
    }
}

std::string plan::text_after(uint64_t after, bool proven) const {
    std::string text;
    if (after >= newest_) {
        return text;
    }
    for (size_t i = 0; i < lines_.size(); i++) {
        if (lines_[i].serial > after && secrets_.is_told(i, proven) &&
            !secrets_.is_renewed(i, after)) {
            secrets_.append(text, lines_[i]);
        }
    }
    if (proven) {
        secrets_.append_renewed(text, lines_, after);
    }
    return text;
}

/* A modify command sets what the test is and wakes its checker, whatever the interval. */
std::string plan::text_for_check(bool proven) {
    if (!for_check_) {
        for_check_.emplace();
        for (const planned_test& test : planned_tests(lines_)) {
            if (test.type != protocol::discovery.code) { /* a scan would begin anew */
                for_check_->push_back(test.line);
            }
        }
    }
    std::string text;
    for (size_t line : *for_check_) {
        if (secrets_.is_told(line, proven)) {
            secrets_.append(text, lines_[line], 'M');
        }
    }
    return text;
}
