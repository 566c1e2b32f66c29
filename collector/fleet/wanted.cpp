#include "fleet/wanted.h"

#include "base/text.h"
#include "fleet/units.h"
#include "plan/placeholder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

namespace {

using befores = std::map<std::string, found_before, std::less<>>;
using names = std::vector<std::string>;

constexpr size_t longest_found = 4096; /* bytes of an entry that is sent back in a command */
constexpr size_t most_listed = 8;      /* names in a message */
constexpr size_t longest_listed = 60;

/* ---- messages ---- */

std::string shown_name(std::string_view name) {
    return shortened(printable(name), longest_listed);
}

/* "there is no disk /data; there are /, /home" */
std::string why_not_there(std::string_view what, std::string_view name, const names& there) {
    std::string why = "there is no " + std::string(what) + " " + shown_name(name);
    if (there.empty()) {
        return why + "; there is no other";
    }
    why += there.size() == 1 ? "; there is " : "; there are ";
    for (size_t i = 0; i < std::min(there.size(), most_listed); ++i) {
        why += i == 0 ? "" : ", ";
        why += shown_name(there[i]);
    }
    if (there.size() > most_listed) {
        why += " and " + std::to_string(there.size() - most_listed) + " more";
    }
    return why;
}

/* ---- disks ---- */

std::string_view without_slashes(std::string_view directory) {
    while (directory.size() > 1 && directory.ends_with('/')) {
        directory.remove_suffix(1);
    }
    return directory;
}

/* "/mnt/a(b)" of "/mnt/a(b)(/dev/sda1|ext4)": what stands before the last parenthesis that is
 * opened before the type. */
std::string_view directory_of(std::string_view entry) {
    size_t bar = entry.rfind('|');
    size_t open = entry.rfind('(', bar);
    return open == entry.npos ? entry : entry.substr(0, open);
}

/* Whether it is an entry of the directory, with a parenthesis in the name of the device:
 * "/data(//server/share(1)|cifs)". */
bool has_odd_device(std::string_view entry, std::string_view directory) {
    return entry.size() > directory.size() && entry.starts_with(directory) &&
           entry[directory.size()] == '(' && entry.ends_with(')') && entry.find(")(") == entry.npos;
}

/* The last entry of the directory, for it hides the others; null for none. */
const std::string* find_disk(const names& entries, std::string_view directory) {
    auto last = std::find_if(entries.rbegin(), entries.rend(), [=](std::string_view entry) {
        return directory_of(entry) == directory;
    });
    if (last == entries.rend()) {
        last = std::find_if(entries.rbegin(), entries.rend(), [=](std::string_view entry) {
            return has_odd_device(entry, directory);
        });
    }
    return last != entries.rend() ? &*last : nullptr;
}

bool is_entry_of(std::string_view entry, std::string_view directory) {
    return directory_of(entry) == directory || has_odd_device(entry, directory);
}

names directories_of(const names& entries) {
    names found;
    std::set<std::string_view> seen;
    for (std::string_view entry : entries) {
        if (std::string_view directory = directory_of(entry); seen.insert(directory).second) {
            found.emplace_back(directory);
        }
    }
    return found;
}

/* An entry comes from the agent, and goes back to it in a command: it must not be more than a part
 * of a field, nor the name of somebody's secret. */
std::string why_unusable(std::string_view entry) {
    bool control = std::any_of(entry.begin(), entry.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    });
    placeholder secret;
    return entry.size() > longest_found ? "the agent's name of the disk is too long"
           : control || find_placeholder(entry, 0, secret)
               ? "the agent's name of the disk, " + shown_name(entry) + ", cannot be sent"
               : "";
}

/* With as many digits as tell anything of a size: six. */
std::string gigabytes_text(double amount) {
    if (!(amount > 1e-9) || !std::isfinite(amount)) {
        return "0"; /* no limit */
    }
    int digits = std::clamp(5 - static_cast<int>(std::floor(std::log10(amount))), 0, 12);
    char text[400];
    auto [end, error] =
        std::to_chars(text, text + sizeof(text), amount, std::chars_format::fixed, digits);
    std::string_view found(text, error == std::errc() ? static_cast<size_t>(end - text) : 0);
    if (found.find('.') != found.npos) {
        found = found.substr(0, found.find_last_not_of('0') + 1);
        found = found.substr(0, found.find_last_not_of('.') + 1);
    }
    return std::string(found);
}

/* ---- what is found ---- */

/* What was found before, by the test or, as `is_it` says of the name that was found, by any other:
 * tests are renamed. */
template <typename IsIt>
const found_before* find_before(const befores& before, const fleet_test& test, IsIt is_it) {
    for (std::string_view name : {std::string_view(test.name), std::string_view(test.was)}) {
        auto of_name = before.find(name);
        if (of_name != before.end() && is_it(of_name->second.name)) {
            return &of_name->second;
        }
    }
    for (const auto& [name, found] : before) {
        if (is_it(found.name)) {
            return &found;
        }
    }
    return nullptr;
}

void wait_for(wanted_test& test, const char* what) {
    test.waits = true;
    test.impossible = "the agent has not said yet which " + std::string(what) + " it has";
}

void look_for_disk(wanted_test& test, const agent_inventory& has, const befores& before) {
    std::string_view directory = without_slashes(test.what->looks_for);
    if (size_t open = directory.find('('); open != directory.npos) {
        test.impossible = "agents cannot test " + shown_name(directory) +
                          ": they would look at what stands before the parenthesis";
        return;
    }
    const std::string* entry = has.file_systems ? find_disk(*has.file_systems, directory) : nullptr;
    const found_before* kept = find_before(
        before, *test.what, [=](std::string_view found) { return is_entry_of(found, directory); });
    if (entry == nullptr && kept == nullptr) {
        if (has.file_systems) {
            test.impossible = why_not_there("disk", directory, directories_of(*has.file_systems));
        } else {
            wait_for(test, "disks");
        }
        return;
    }
    const std::string& found = entry != nullptr ? *entry : kept->name;
    test.impossible = why_unusable(found);
    if (test.impossible.empty()) {
        test.found = found;
        test.whole_gb = kept != nullptr ? kept->whole_gb : 0;
    }
}

/* The agent watches the first interface whose name is a part of the test's. */
void look_for_interface(wanted_test& test, const agent_inventory& has, const befores& before) {
    const std::string& name = test.what->looks_for;
    bool was_found = find_before(before, *test.what,
                                 [&](std::string_view found) { return found == name; }) != nullptr;
    if (!has.interfaces) {
        if (was_found) {
            test.found = name;
        } else {
            wait_for(test, "interfaces");
        }
        return;
    }
    for (const std::string& each : *has.interfaces) {
        if (each == name) {
            test.found = name;
            return;
        }
        if (!each.empty() && name.find(each) != name.npos) {
            test.impossible = "the agent would watch " + shown_name(each) + " instead of " +
                              shown_name(name) + ": it takes the first interface whose name is a " +
                              "part of the one named";
            return;
        }
    }
    if (was_found) {
        test.found = name;
    } else {
        names others = *has.interfaces;
        std::erase(others, "");
        test.impossible = why_not_there("interface", name, others);
    }
}

void fill_in(wanted_test& test) {
    const fleet_test& what = *test.what;
    if (test.found != what.fields[0] || what.free_share) {
        test.fields = what.fields;
        test.fields[0] = test.found;
    }
    if (what.free_share && test.fields.size() > 1) {
        test.fields[1] = gigabytes_text(test.whole_gb * *what.free_share / 100);
    }
}

wanted_test look_at(std::shared_ptr<const fleet_test> what, const agent_inventory& has,
                    const befores& before) {
    wanted_test test{.what = std::move(what)};
    if (test.what->looks_for.empty() || test.what->fields.empty()) {
        return test;
    }
    if (test.what->kind->record->code == protocol::disk.code) {
        look_for_disk(test, has, before);
    } else {
        look_for_interface(test, has, before);
    }
    if (!test.found.empty()) {
        fill_in(test);
    }
    return test;
}

/* ---- intervals ---- */

/* The shortest that a group says, and whose it is where groups differ. */
class shortest_interval {
public:
    void take(const fleet_group& group, const std::optional<int32_t>& said) {
        if (!said) {
            return;
        }
        if (of_ == nullptr || *said < seconds_) {
            other_ = of_;
            longer_ = seconds_;
            of_ = &group;
            seconds_ = *said;
        } else if (*said > seconds_ && other_ == nullptr) {
            other_ = &group;
            longer_ = *said;
        }
    }

    int32_t seconds(const std::optional<int32_t>& else_it_is) const {
        return of_ != nullptr ? seconds_ : else_it_is.value_or(default_interval_s);
    }

    void explain(const char* what, std::string& about) const {
        if (of_ != nullptr && other_ != nullptr) {
            about += (about.empty() ? "" : "; ") + std::string(what) + ": " + said(seconds_, *of_) +
                     " is shorter than " + said(longer_, *other_);
        }
    }

private:
    static std::string said(int32_t seconds, const fleet_group& group) {
        return duration_text(int64_t{1000} * seconds) + " of " + group.name;
    }

    const fleet_group *of_ = nullptr, *other_ = nullptr;
    int32_t seconds_ = 0, longer_ = 0;
};

bool has_agent(const fleet_group& group, std::string_view account, std::string_view name) {
    return std::any_of(group.agents.begin(), group.agents.end(), [=](const agent_pattern& pattern) {
        return pattern.matches(account, name);
    });
}

} // namespace

wanted_agent wanted_of(const fleet& all, std::string_view account, std::string_view name,
                       const agent_inventory& has, const befores& before) {
    wanted_agent wanted;
    shortest_interval poll, check;
    std::map<std::string_view, std::shared_ptr<const fleet_test>> tests;
    for (const fleet_group& group : all.groups) {
        if (!has_agent(group, account, name)) {
            continue;
        }
        wanted.groups.push_back(group.name);
        poll.take(group, group.intervals.poll);
        check.take(group, group.intervals.check);
        for (const auto& test : group.tests) {
            tests[test->name] = test;
        }
    }
    wanted.poll = poll.seconds(all.intervals.poll);
    wanted.check = check.seconds(all.intervals.check);
    poll.explain("poll", wanted.about_intervals);
    check.explain("check", wanted.about_intervals);
    for (auto& [test_name, test] : tests) {
        if (test->kind != nullptr) {
            wanted.tests.push_back(look_at(std::move(test), has, before));
        }
    }
    return wanted;
}

size_t tests_given(const fleet& all, std::string_view account, std::string_view name) {
    size_t count = 0;
    for (const fleet_group& group : all.groups) {
        count += has_agent(group, account, name) ? group.tests.size() : 0;
    }
    return count;
}
