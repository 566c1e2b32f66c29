#include "fleet/test_reader.h"

#include "fleet/test_fields.h"
#include "fleet/text_check.h"
#include "fleet/units.h"
#include "fleet/values.h"
#include "plan/line.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr size_t longest_title = 100; /* characters */
constexpr std::string_view was_key = "was";

std::vector<std::string_view> words_of_kinds() {
    std::vector<std::string_view> words;
    for (const test_kind& kind : test_kinds()) {
        words.emplace_back(kind.word);
    }
    return words;
}

/* "`load`, `cpu` and `memory`" */
std::string list_of(const std::vector<std::string_view>& words) {
    std::string list;
    for (size_t i = 0; i < words.size(); i++) {
        list.append(i == 0                  ? ""
                    : i + 1 == words.size() ? " and "
                                            : ", ")
            .append(in_ticks(words[i]));
    }
    return list;
}

bool has_key(const test_kind& kind, std::string_view name) {
    return std::any_of(kind.keys.begin(), kind.keys.end(),
                       [&](const key_def& key) { return key.name == name; });
}

/* A test under way. */
struct test_reading {
    fleet_test& test;
    const node& definition;
    remarks& wrong;
    given_values all = {};
};

/* ---- the kind ---- */

void refuse_kindless(const test_reading& t) {
    const std::vector<std::string_view> words = words_of_kinds();
    for (const auto& [key, value] : t.definition.members) {
        const std::string_view meant = closest(key.text, words);
        if (!meant.empty()) {
            t.wrong.add(key.at, in_ticks(key.text) + ": no such test" + or_close(meant));
            return;
        }
    }
    const bool has_one = !t.definition.members.empty();
    const text_place at = has_one ? t.definition.members[0].first.at : t.definition.at;
    const std::string what =
        has_one ? in_ticks(t.definition.members[0].first.text) + ": no such test; there are "
                : "the test says nothing; there are ";
    t.wrong.add(at, what + list_of(words));
}

/* The one that the keys name: "cpu" beside "process" is a limit of the process. */
bool find_kind_of(const test_reading& t) {
    std::vector<std::pair<const node*, const test_kind*>> named;
    for (const auto& [key, value] : t.definition.members) {
        if (const test_kind* kind = find_kind(key.text)) {
            named.emplace_back(&key, kind);
        }
    }
    for (const auto& [key, kind] : named) {
        const bool has_others = std::all_of(named.begin(), named.end(), [&](const auto& other) {
            return other.second == kind || has_key(*kind, other.second->word);
        });
        if (has_others) {
            t.test.kind = kind;
            return true;
        }
    }
    if (named.empty()) {
        refuse_kindless(t);
    } else {
        t.wrong.add(named[1].first->at, in_ticks(named[0].first->text) + " and " +
                                            in_ticks(named[1].first->text) +
                                            ": a test is of one kind, make two of it");
    }
    return false;
}

/* ---- its keys ---- */

void refuse_key(const test_reading& t, const node& key, bool inside) {
    const test_kind& kind = *t.test.kind;
    std::vector<std::string_view> here, elsewhere;
    for (const key_def& each : kind.keys) {
        ((kind.keys_inside && !each.beside) == inside ? here : elsewhere).emplace_back(each.name);
    }
    if (!inside) {
        here.push_back(was_key);
    }
    std::string why = in_ticks(key.text) + ": ";
    const bool is_misplaced =
        std::find(elsewhere.begin(), elsewhere.end(), key.text) != elsewhere.end();
    if (is_misplaced) {
        why += inside ? "this stands beside " + in_ticks(kind.word) + ", not within it"
                      : "this stands within " + in_ticks(kind.word) + ": {" + kind.word + ": {" +
                            one_line(key.text) + ": ...}}";
    } else {
        const std::string_view meant = closest(key.text, here);
        why += "no such key of " + in_ticks(kind.word);
        why += meant.empty() ? "; there are " + list_of(here) : or_close(meant);
    }
    t.wrong.add(key.at, std::move(why));
}

void take_value(test_reading& t, const key_def& key, const node& value) {
    std::optional<given_value> found = read_value(key, value, t.wrong);
    if (found) {
        t.all.emplace(key.name, *std::move(found));
    }
}

/* The keys of a map that belong there. */
void take_keys(test_reading& t, const node& map, bool inside) {
    const test_kind& kind = *t.test.kind;
    for (const auto& [name, value] : map.members) {
        auto key = std::find_if(kind.keys.begin(), kind.keys.end(), [&](const key_def& each) {
            return each.name == name.text && (kind.keys_inside && !each.beside) == inside;
        });
        if (!inside && name.text == kind.word) {
            continue;
        }
        if (!inside && name.text == was_key) {
            if (check_title("`was`", value, t.wrong)) {
                t.test.was = value.text;
            }
        } else if (key == kind.keys.end()) {
            refuse_key(t, name, inside);
        } else {
            take_value(t, *key, value);
        }
    }
}

void take_word(test_reading& t, const node& value) {
    const test_kind& kind = *t.test.kind;
    if (!kind.keys_inside) {
        take_value(t, kind.value, value);
    } else if (value.is == node::kind::map) {
        take_keys(t, value, true);
    } else if (value.is != node::kind::nothing) {
        t.wrong.add(value.at, in_ticks(kind.word) + ": expected limits, such as {" + kind.word +
                                  ": {" + kind.keys[0].name + ": 5}}, or {}");
    }
}

void require_keys(const test_reading& t) {
    for (const key_def& key : t.test.kind->keys) {
        if (key.required && t.definition.find(key.name) == nullptr) {
            t.wrong.add(t.test.at, in_ticks(key.name) + " is missing: " + key.help);
        }
    }
}

/* ---- the whole ---- */

void show(test_reading& t, const key_def& key, const node& map) {
    const node* value = map.find(key.name);
    if (value == nullptr) {
        return;
    }
    if (value->is == node::kind::text) {
        t.test.shown.emplace_back(key.name, shown_text(key, value->text));
        return;
    }
    std::string text;
    for (const named_limits& each : t.all.at(key.name).names) {
        text.append(text.empty() ? "" : ", ").append(each.name);
        text.append(each.least ? " at least " + number_text(*each.least) : "");
        text.append(each.most ? " at most " + number_text(*each.most) : "");
    }
    t.test.shown.emplace_back(key.name, text);
}

void show_all(test_reading& t) {
    const test_kind& kind = *t.test.kind;
    const node& word = *t.definition.find(kind.word);
    if (!kind.keys_inside) {
        show(t, kind.value, t.definition);
    }
    for (const key_def& key : kind.keys) {
        show(t, key, kind.keys_inside && !key.beside ? word : t.definition);
    }
}

/* As agents would take it: with the longest numbers, none of which is known yet. */
std::string why_refused_as_line(const fleet_test& test) {
    std::string line(test.kind->add->code);
    line += "\t2147483647\t2147483647";
    for (const std::string& field : test.fields) {
        line.append("\t").append(field);
    }
    return why_refused(line, parse_line(line));
}

void read_definition(test_reading& t) {
    const size_t wrong_before = t.wrong.count();
    take_word(t, *t.definition.find(t.test.kind->word));
    take_keys(t, t.definition, false);
    require_keys(t);
    if (t.wrong.count() > wrong_before) {
        return;
    }
    make_fields(t.test, t.all, t.wrong);
    if (t.wrong.count() > wrong_before) {
        return;
    }
    if (std::string why = why_refused_as_line(t.test); !why.empty()) {
        t.wrong.add(t.test.at, "agents cannot be told this test: " + why);
        return;
    }
    show_all(t);
}

} // namespace

bool check_title(const std::string& what, const node& name, remarks& wrong) {
    if (!check_line(what, name, false, wrong)) {
        return false;
    }
    if (name.text.starts_with(' ') || name.text.ends_with(' ')) {
        wrong.add(name.at, what + ": it begins or ends with a blank");
        return false;
    }
    if (characters_of(name.text) > longest_title) {
        wrong.add(name.at, what + ": more than " + std::to_string(longest_title) + " characters");
        return false;
    }
    return true;
}

std::shared_ptr<const fleet_test> read_test(const std::string& group, const node& name,
                                            const node& definition, remarks& wrong) {
    const size_t wrong_before = wrong.count();
    auto test = std::make_shared<fleet_test>();
    test->name = name.text;
    test->group = group;
    test->at = name.at;
    check_title("the name of a test", name, wrong);
    if (definition.is == node::kind::map) {
        test_reading reading = {.test = *test, .definition = definition, .wrong = wrong};
        if (find_kind_of(reading)) {
            read_definition(reading);
        }
        const node* was = definition.find(was_key);
        if (was != nullptr && was->text == name.text) {
            wrong.add(was->at, "`was`: this is its name now");
        }
    } else if (definition.text != "off") {
        wrong.add(definition.is == node::kind::nothing ? name.at : definition.at,
                  in_ticks(name.text) + ": expected a test, such as {ping: 192.0.2.1}, or off");
    }
    return wrong.count() == wrong_before ? test : nullptr;
}
