#include "plan/secret_tests.h"

#include "base/wipe.h"

#include <algorithm>

using protocol::command_def;
using protocol::command_effect;

namespace {

bool has_placeholder(std::string_view text) {
    placeholder at;
    return find_placeholder(text, 0, at);
}

/* No character of a value parts fields or commands: of those that might, there are as many as
 * before. And it is not too long. */
bool is_still_a_line(std::string_view before, std::string_view expanded) {
    auto controls = [](std::string_view text) {
        return std::count_if(text.begin(), text.end(),
                             [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; });
    };
    return expanded.size() <= longest_plan_line && controls(before) == controls(expanded);
}

} // namespace

void append_removal(std::string& text, const test_place& test) {
    const command_def* c = std::find_if(
        std::begin(protocol::commands), std::end(protocol::commands), [&](const command_def& each) {
            return each.does == command_effect::removes && each.list == test.list;
        });
    text.append(c->code).append("\t").append(std::to_string(test.id));
    text.append(c->least > 2 ? "\t0\n" : "\n");
}

void secret_tests::take(const line_list& lines, uint64_t& newest, const report_function& report) {
    std::map<key, secret_test> before;
    before.swap(tests_);
    std::vector<key> keys;
    std::vector<command_effect> effects;
    keys.reserve(lines.size());
    effects.reserve(lines.size());
    for (const plan_line& line : lines) {
        command_line parsed = parse_line(line.text);
        effects.push_back(parsed.command != nullptr ? parsed.command->does : command_effect::none);
        const bool is_test = effects.back() != command_effect::none;
        keys.emplace_back(parsed.test(), is_test ? std::string() : line.text);
        if (has_placeholder(line.text) && !tests_.contains(keys.back())) {
            auto known = before.find(keys.back());
            secret_test& test = tests_[keys.back()];
            if (known != before.end()) {
                test = std::move(known->second);
                test.lines.clear();
                test.last.reset();
            }
        }
    }
    of_line_.assign(lines.size(), nullptr);
    for (size_t i = 0; i < lines.size(); i++) {
        auto found = tests_.find(keys[i]);
        if (found == tests_.end()) {
            continue;
        }
        secret_test& test = found->second;
        if (effects[i] == command_effect::removes) {
            test.last.reset();
            continue;
        }
        of_line_[i] = &test;
        test.lines.push_back(i);
        if (effects[i] != command_effect::modifies || test.last) {
            test.last = i;
        }
    }
    if (known_ != nullptr) {
        seen_ = known_->newest();
        for (auto& [what, test] : tests_) {
            look_at(test, what, lines, newest, report);
        }
        note_uses(lines);
    }
}

void secret_tests::refresh(const line_list& lines, uint64_t& newest,
                           const report_function& report) {
    if (known_ == nullptr || known_->newest() == seen_) {
        return;
    }
    seen_ = known_->newest();
    for (auto& [what, test] : tests_) {
        look_at(test, what, lines, newest, report);
    }
}

/* Its secrets or its lines have changed, maybe. */
void secret_tests::look_at(secret_test& test, const key& what, const line_list& lines,
                           uint64_t& newest, const report_function& report) {
    std::map<std::string, uint64_t, std::less<>> used;
    bool changed = false;
    for (size_t line : test.lines) {
        for (std::string& name : secrets_in(lines[line].text)) {
            const uint64_t serial = known_->serial_of(name);
            auto before = test.used.find(name);
            changed = changed || (before != test.used.end() && before->second != serial);
            used.emplace(std::move(name), serial);
        }
    }
    test.used.swap(used);
    size_t line = 0;
    std::string why = why_kept_back(test, what, lines, line);
    if (why.empty() && !test.is_sendable && !test.is_new) {
        test.since = ++newest;
    } else if (why.empty() && changed && what.first.list != 0) {
        test.changed = ++newest;
    }
    test.is_sendable = why.empty();
    test.is_new = false;
    if (why != test.told && !why.empty() && report) {
        report(lines[line].number, why);
    }
    test.told = std::move(why);
}

std::string secret_tests::why_kept_back(const secret_test& test, const key& what,
                                        const line_list& lines, size_t& line) const {
    const std::string name = what.first.list != 0 ? name_of(what.first) : "the command";
    for (size_t each : test.lines) {
        std::string missing;
        std::optional<std::string> text = known_->expand(lines[each].text, missing);
        line = each;
        if (!text) {
            return missing.insert(0, "there is no secret \"")
                .append("\": until there is, ")
                .append(name)
                .append(" is sent to nobody");
        }
        const bool is_good = is_still_a_line(lines[each].text, *text);
        wipe(*text);
        if (!is_good) {
            return "with its secrets the line is longer than 64 KiB: " + name +
                   " is sent to nobody";
        }
    }
    return "";
}

void secret_tests::note_uses(const line_list& lines) {
    std::map<std::string, size_t, std::less<>> uses;
    for (size_t i = 0; i < lines.size(); i++) {
        std::vector<std::string> names = secrets_in(lines[i].text);
        for (const std::string& name : names) {
            uses[name]++;
        }
        command_line parsed = parse_line(lines[i].text);
        const uint32_t type = names.empty() ? 0 : parsed.results();
        if (type != 0) {
            std::vector<std::string>& known = ever_named_[{type, parsed.test().id}];
            for (std::string& name : names) {
                if (std::find(known.begin(), known.end(), name) == known.end()) {
                    known.push_back(std::move(name));
                }
            }
        }
    }
    known_->note_uses(std::move(uses), ever_named_);
}

bool secret_tests::any_after(const line_list& lines, uint64_t after) const {
    for (size_t i = 0; i < lines.size() && !tests_.empty(); i++) {
        if (of_line_[i] != nullptr && lines[i].serial > after) {
            return true;
        }
    }
    return false;
}

std::set<test_place> secret_tests::places() const {
    std::set<test_place> all;
    for (const auto& [what, test] : tests_) {
        if (what.first.list != 0) {
            all.insert(what.first);
        }
    }
    return all;
}

bool secret_tests::is_told(size_t line, bool proven) const {
    const secret_test* test = of_line_[line];
    return test == nullptr || (proven && test->is_sendable);
}

bool secret_tests::is_kept_back(const test_place& test, bool proven) const {
    auto found = tests_.find(key{test, ""});
    return found != tests_.end() && found->second.last && !(proven && found->second.is_sendable);
}

bool secret_tests::is_renewed(size_t line, uint64_t after) const {
    return of_line_[line] != nullptr && of_line_[line]->since > after;
}

void secret_tests::append(std::string& text, const plan_line& line, char letter) const {
    const size_t at = text.size();
    if (!has_placeholder(line.text)) {
        text.append(line.text).append("\n");
    } else {
        std::string missing;
        std::optional<std::string> expanded =
            known_ != nullptr ? known_->expand(line.text, missing) : std::nullopt;
        if (!expanded) {
            return;
        }
        if (is_still_a_line(line.text, *expanded)) {
            text.append(*expanded).append("\n");
        }
        wipe(*expanded);
    }
    if (letter != '\0' && text.size() > at + 2) {
        text[at + 2] = letter; /* the same fields */
    }
}

void secret_tests::append_renewed(std::string& text, const line_list& lines, uint64_t after) const {
    for (const auto& [what, test] : tests_) {
        const bool is_unknown = test.since > after; /* whether they have it */
        const test_place& place = what.first;
        if (!test.last || !test.is_sendable || (!is_unknown && test.changed <= after)) {
            continue;
        }
        const plan_line& line = lines[*test.last];
        if (!is_unknown && line.serial > after) { /* it was sent just now */
            continue;
        }
        const bool is_scan = place.list == protocol::discovery.code;
        const bool is_walk =
            place.list == protocol::snmp.code && parse_line(line.text).results() == 0;
        if (place.list == 0) {
            append(text, line);
        } else if (is_walk || (is_unknown && place.list == protocol::snmp.code)) {
            /* A walk cannot be modified, nor can another kind be made of it. */
            append_removal(text, place);
            append(text, line, 'A');
        } else if (is_unknown) {
            append(text, line, 'A');
            if (!is_scan) { /* it would begin anew */
                append(text, line, 'M');
            }
        } else {
            append(text, line, 'M');
        }
    }
}
