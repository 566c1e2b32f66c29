#include "fleet/file.h"

#include "fleet/alert_sections.h"
#include "fleet/map_reader.h"
#include "fleet/remarks.h"
#include "fleet/test_reader.h"
#include "fleet/text_check.h"
#include "fleet/values.h"
#include "plan/placeholder.h"
#include "protocol/commands.h"

#include <algorithm>
#include <map>
#include <set>

namespace {

fleet_intervals read_intervals(const node& from, remarks& wrong) {
    fleet_intervals found;
    auto seconds = [&](const char* what, std::optional<int32_t>& into) {
        return [&wrong, what, &into](const node& value) {
            into = read_seconds(what, value, 1, protocol::longest_interval_s, wrong);
        };
    };
    read_map("`intervals`", from.at, from,
             {{"poll", seconds("poll", found.poll)}, {"check", seconds("check", found.check)}},
             wrong);
    return found;
}

/* ---- a group ---- */

void read_pattern(const node& from, fleet_group& group, remarks& wrong) {
    if (!check_line("`agents`", from, false, wrong)) {
        return;
    }
    agent_pattern pattern = pattern_of(from.text);
    if (pattern.name.empty() || from.text.starts_with('/')) {
        wrong.add(from.at,
                  "`agents`: " + in_ticks(from.text) +
                      " is neither a name nor account/name; in both * stands for anything");
        return;
    }
    group.agents.push_back(std::move(pattern));
}

void read_patterns(const node& from, fleet_group& group, remarks& wrong) {
    if (from.is == node::kind::text) {
        read_pattern(from, group, wrong);
    } else if (from.is == node::kind::list) {
        for (const node& each : from.items) {
            read_pattern(each, group, wrong);
        }
    } else {
        wrong.add(from.at, "`agents`: expected a list of names, such as [\"web-*\"]");
    }
}

/* The old names of tests: each of one test, and of none that is there. */
void check_old_names(const fleet_group& group, const node& tests, remarks& wrong) {
    std::map<std::string_view, const node*> present;
    for (const auto& [name, definition] : tests.members) {
        present.emplace(name.text, &definition);
    }
    std::map<std::string_view, const fleet_test*> by_old_name;
    for (const auto& test : group.tests) {
        if (test->was.empty()) {
            continue;
        }
        const text_place at = present.at(test->name)->find("was")->at;
        auto still = present.find(test->was);
        if (still != present.end() && still->second->text != "off") {
            wrong.add(at, "`was`: " + in_ticks(test->was) + " is still there, as another test");
        }
        auto [first, is_new] = by_old_name.emplace(test->was, test.get());
        if (!is_new) {
            wrong.add(at, "`was`: " + in_ticks(first->second->name) + " has been " +
                              in_ticks(test->was) + " already");
        }
    }
}

void read_tests(const node& from, fleet_group& group, remarks& wrong) {
    if (from.is != node::kind::map && from.is != node::kind::nothing) {
        wrong.add(from.at, "`tests`: expected names with their tests, such as \"gateway: {ping: "
                           "192.0.2.1}\"");
        return;
    }
    for (const auto& [name, definition] : from.members) {
        if (auto test = read_test(group.name, name, definition, wrong)) {
            group.tests.push_back(std::move(test));
        }
    }
    check_old_names(group, from, wrong);
}

/* The name comes first: its tests bear it. */
void read_group(const node& from, fleet& found, std::set<std::string>& names, remarks& wrong) {
    fleet_group group;
    group.at = from.at;
    if (const node* name = from.find("name"); name != nullptr) {
        group.name = name->text;
        group.at = name->at;
        if (check_title("the name of a group", *name, wrong) && !names.insert(name->text).second) {
            wrong.add(name->at, in_ticks(name->text) + ": there is a group of this name already");
        }
    }
    read_map(group.name.empty() ? "a group" : "the group " + in_ticks(group.name), from.at, from,
             {{"name", [](const node&) {}, true},
              {"agents", [&](const node& v) { read_patterns(v, group, wrong); }, true},
              {"intervals", [&](const node& v) { group.intervals = read_intervals(v, wrong); }},
              {"tests", [&](const node& v) { read_tests(v, group, wrong); }}},
             wrong);
    found.groups.push_back(std::move(group));
}

std::set<std::string> read_groups(const node& from, fleet& found, remarks& wrong) {
    std::set<std::string> names;
    if (from.is == node::kind::list) {
        for (const node& each : from.items) {
            read_group(each, found, names, wrong);
        }
    } else if (from.is != node::kind::nothing) {
        wrong.add(from.at, "`groups`: expected a list, each begins with \"- name: \"");
    }
    return names;
}

/* ---- the whole ---- */

void check_version(const node& value, remarks& wrong) {
    if (value.text != "1") {
        wrong.add(value.at, "`version`: this is version 1 of the file");
    }
}

void read_root(const node& root, fleet& found, remarks& wrong) {
    static const node no_groups;
    const node* groups = root.find("groups");
    const std::set<std::string> names =
        read_groups(groups != nullptr ? *groups : no_groups, found, wrong);
    auto later = [](const node&) {};
    read_map("the file", root.at, root,
             {{"version", [&](const node& v) { check_version(v, wrong); }, true},
              {"intervals", [&](const node& v) { found.intervals = read_intervals(v, wrong); }},
              {"groups", later},
              {"smtp", later},
              {"notify", later},
              {"alerts", later}},
             wrong);
    check_alert_sections(root, names, wrong, found.notes);
}

std::vector<std::string> secrets_of(const fleet& all) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (const fleet_group& group : all.groups) {
        for (const auto& test : group.tests) {
            for (const std::string& field : test->fields) {
                for (std::string& name : secrets_in(field)) {
                    if (seen.insert(name).second) {
                        names.push_back(std::move(name));
                    }
                }
            }
        }
    }
    return names;
}

} // namespace

bool read_fleet(std::string_view text, fleet& found, std::vector<remark>& wrong) {
    found = {};
    wrong.clear();
    node root;
    remark first;
    if (!read_nodes(text, root, first)) {
        wrong.push_back(std::move(first));
        return false;
    }
    if (text.empty()) {
        return true;
    }
    if (root.is == node::kind::nothing) { /* blanks and comments: what is left of a file, perhaps */
        root.is = node::kind::map;
    }
    remarks all;
    read_root(root, found, all);
    wrong = all.take();
    if (!wrong.empty()) {
        found = {};
        return false;
    }
    found.secrets = secrets_of(found);
    return true;
}
