#include "fleet/alert_sections.h"

#include "fleet/map_reader.h"
#include "fleet/page_address.h"
#include "fleet/test_reader.h"
#include "fleet/text_check.h"
#include "fleet/units.h"
#include "fleet/values.h"
#include "plan/placeholder.h"
#include "protocol/commands.h"

#include <algorithm>
#include <functional>

namespace {

using names = std::set<std::string>;
using check = std::function<void(const node&)>;

check line(const char* what, remarks& wrong, bool may_be_secret = false) {
    return [=, &wrong](const node& value) { check_line(what, value, may_be_secret, wrong); };
}

check duration(const char* what, remarks& wrong) {
    return [=, &wrong](const node& value) {
        read_seconds(what, value, 1, protocol::longest_interval_s, wrong);
    };
}

constexpr size_t most_compared = 1000; /* names, for one that is close: else it takes too long */

/* One of `known` or several. */
check names_of(const char* what, const char* of_what, const names& known, remarks& wrong) {
    return [=, &known, &wrong](const node& value) {
        auto look_up = [&](const node& name) {
            if (check_line(what, name, false, wrong) && !known.contains(name.text)) {
                const bool are_few = known.size() <= most_compared;
                wrong.add(name.at, in_ticks(name.text) + ": there is no such " + of_what +
                                       or_close(are_few ? closest(name.text, known) : ""));
            }
        };
        if (value.is == node::kind::list) {
            std::for_each(value.items.begin(), value.items.end(), look_up);
        } else {
            look_up(value);
        }
    };
}

/* ---- smtp ---- */

void check_server(const node& value, remarks& wrong) {
    page_address server;
    if (!check_line("`server`", value, false, wrong)) {
        return;
    }
    if (value.text.find_first_of("/?") != value.text.npos ||
        !read_page_address("http://" + value.text, server).empty()) {
        wrong.add(value.at, "`server`: expected a host with its port, such as "
                            "mail.example.org:587");
    }
}

void check_mail_address(const char* what, const node& value, remarks& wrong) {
    if (check_line(what, value, false, wrong) &&
        (value.text.find('@') == value.text.npos || value.text.find(' ') != value.text.npos)) {
        wrong.add(value.at, in_ticks(value.text) + " is no mail address");
    }
}

void check_smtp(const node& section, text_place at, remarks& wrong) {
    read_map(
        "`smtp`", at, section,
        {{"server", [&](const node& value) { check_server(value, wrong); }, true},
         {"from", [&](const node& value) { check_mail_address("`from`", value, wrong); }, true},
         {"user", line("`user`", wrong, true)},
         {"password", line("`password`", wrong, true)}},
        wrong);
}

/* ---- notify ---- */

void check_mail(const node& value, remarks& wrong) {
    if (value.is == node::kind::list) {
        for (const node& each : value.items) {
            check_mail_address("`mail`", each, wrong);
        }
    } else {
        check_mail_address("`mail`", value, wrong);
    }
}

/* An address may be a secret as a whole: it lets everybody write there. */
void check_address(const char* what, const node& value, remarks& wrong) {
    page_address page;
    if (!check_line(what, value, true, wrong) || is_only_placeholders(value.text)) {
        return;
    }
    if (std::string why = read_page_address(value.text, page); !why.empty()) {
        wrong.add(value.at, std::string(what) + ": " + why);
    }
}

names check_notify(const node& section, remarks& wrong) {
    names known;
    if (section.is != node::kind::map && section.is != node::kind::nothing) {
        wrong.add(section.at, "`notify`: expected names, each with a way to tell people");
    }
    for (const auto& [name, way] : section.members) {
        check_title("the name of who is told", name, wrong);
        known.insert(name.text);
        read_map(
            in_ticks(name.text), name.at, way,
            {{"mail", [&](const node& value) { check_mail(value, wrong); }},
             {"webhook", [&](const node& v) { check_address("`webhook`", v, wrong); }},
             {"alertmanager", [&](const node& v) { check_address("`alertmanager`", v, wrong); }}},
            wrong);
        if (way.is == node::kind::nothing || (way.is == node::kind::map && way.members.empty())) {
            wrong.add(name.at, in_ticks(name.text) + ": expected `mail`, `webhook` or "
                                                     "`alertmanager`");
        }
    }
    return known;
}

/* ---- alerts ---- */

void check_alerts(const node& section, const names& groups, const names& told, remarks& wrong) {
    static const names whens = {"problem", "silent", "unknown"};
    if (section.is != node::kind::map && section.is != node::kind::nothing) {
        wrong.add(section.at, "`alerts`: expected names, each with an alert");
    }
    for (const auto& [name, alert] : section.members) {
        check_title("the name of an alert", name, wrong);
        read_map(
            in_ticks(name.text), name.at, alert,
            {{"when", names_of("`when`", "state (problem, silent, unknown)", whens, wrong), true},
             {"for", duration("for", wrong)},
             {"groups", names_of("`groups`", "group", groups, wrong)},
             {"notify", names_of("`notify`", "name in `notify`", told, wrong), true},
             {"repeat", duration("repeat", wrong)}},
            wrong);
    }
}

} // namespace

void check_alert_sections(const node& root, const names& groups, remarks& wrong,
                          std::vector<remark>& notes) {
    static const node nothing;
    auto section = [&](std::string_view key) -> const node& {
        const node* found = root.find(key);
        return found != nullptr ? *found : nothing;
    };
    for (const auto& [key, value] : root.members) {
        if (key.text == "smtp" || key.text == "notify" || key.text == "alerts") {
            notes.push_back(
                {key.at, in_ticks(key.text) + " is read, and not heeded by this version"});
        }
        if (key.text == "smtp") {
            check_smtp(value, key.at, wrong);
        }
    }
    const names told = check_notify(section("notify"), wrong);
    check_alerts(section("alerts"), groups, told, wrong);
}
