#include "ctl/difference.h"

#include "ctl/json.h"
#include "ctl/text.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace json = boost::json;

namespace {

constexpr size_t widest_name = 24, narrowest_detail = 20;

struct sign {
    const char* text;
    tint color;
};

sign sign_of(const json::object& change) {
    const std::string action = text_in(change, "action");
    return !text_in(change, "impossible").empty() ? sign{"!", tint::bad}
           : action == "add"                      ? sign{"+", tint::good}
           : action == "remove"                   ? sign{"-", tint::bad}
           : action == "rename"                   ? sign{">", tint::none}
                                                  : sign{"~", tint::unsure};
}

/* A change as it is shown, of however many agents. */
struct shown_change {
    sign mark;
    std::string name, detail;
};

std::string field_text(const json::object& field, bool is_added) {
    const std::string name = text_in(field, "name"), from = text_in(field, "from"),
                      to = text_in(field, "to");
    return is_added       ? name + " " + to
           : to.empty()   ? "without " + name + " (was " + from + ")"
           : from.empty() ? name + " now " + to
                          : name + " " + from + " -> " + to;
}

/* "disk: free 5 GB -> 10 %; 10 % of 50 GB"; of one that is added "disk /, free 10 %". */
std::string detail_of(const json::object& change) {
    const std::string type = text_in(change, "type");
    std::string text;
    auto add = [&](const std::string& more, const char* between) {
        text += (text.empty() || more.empty() ? "" : between) + more;
    };
    const bool is_added = text_in(change, "action") == "add";
    if (const std::string was = text_in(change, "was"); !was.empty()) {
        add("was " + was, "");
    }
    for (const json::value& each : list_in(change, "fields")) {
        if (each.is_object()) {
            add(field_text(each.get_object(), is_added), ", ");
        }
    }
    const std::string impossible = text_in(change, "impossible");
    add(impossible, "; ");
    if (const std::string reason = text_in(change, "reason"); reason != impossible) {
        add(reason, "; ");
    }
    if (is_added && text.starts_with(type + " ")) {
        return text;
    }
    return type + (type.empty() || text.empty() ? "" : ": ") + text;
}

shown_change shown(const json::object& change, const screen& on) {
    const std::string name = text_in(change, "test");
    return {sign_of(change),
            text_in(change, "action") == "intervals" ? "intervals" : printable(name, on.ascii),
            printable(detail_of(change), on.ascii)};
}

/* The changes that certain agents have in common. */
struct section {
    std::vector<std::string> agents;
    std::vector<shown_change> changes;
};

/* Without the account when all agents have the same, on a screen. */
std::vector<std::string> names_of(const json::array& agents, const screen& on) {
    std::set<std::string> accounts;
    for (const json::value& each : agents) {
        accounts.insert(text_in(object_in(each.as_object(), "agent"), "account"));
    }
    const bool is_short = on.width != 0 && accounts.size() == 1;
    std::vector<std::string> names;
    for (const json::value& each : agents) {
        const json::object& agent = object_in(each.as_object(), "agent");
        names.push_back(printable(
            (is_short ? "" : text_in(agent, "account") + "/") + text_in(agent, "name"), on.ascii));
    }
    return names;
}

json::array objects_of(const json::array& all) {
    json::array objects;
    std::copy_if(all.begin(), all.end(), std::back_inserter(objects),
                 [](const json::value& each) { return each.is_object(); });
    return objects;
}

/* In the order in which they come first. */
std::vector<section> sections_of(const json::array& agents, const screen& on) {
    std::vector<shown_change> changes;
    std::vector<std::vector<size_t>> who; /* of each change */
    std::map<std::string, size_t> known;  /* by what is shown */
    for (size_t i = 0; i < agents.size(); i++) {
        for (const json::value& each : list_in(agents[i].get_object(), "changes")) {
            if (!each.is_object()) {
                continue;
            }
            shown_change one = shown(each.get_object(), on);
            const std::string key = one.mark.text + one.name + '\n' + one.detail;
            auto [place, is_new] = known.try_emplace(key, changes.size());
            if (is_new) {
                changes.push_back(std::move(one));
                who.emplace_back();
            }
            if (std::vector<size_t>& of = who[place->second]; of.empty() || of.back() != i) {
                of.push_back(i);
            }
        }
    }
    const std::vector<std::string> names = names_of(agents, on);
    std::vector<section> sections;
    std::map<std::vector<size_t>, size_t> by_agents;
    for (size_t i = 0; i < changes.size(); i++) {
        auto [place, is_new] = by_agents.try_emplace(who[i], sections.size());
        if (is_new) {
            sections.emplace_back();
            for (size_t agent : who[i]) {
                sections.back().agents.push_back(names[agent]);
            }
        }
        sections[place->second].changes.push_back(std::move(changes[i]));
    }
    return sections;
}

/* "web-1, web-2 and 18 more:", of as many as there is room for: one at least. */
std::string head_of(const std::vector<std::string>& agents, const screen& on) {
    std::string text;
    for (size_t i = 0; i < agents.size(); i++) {
        const size_t left = agents.size() - i - 1;
        const std::string more = left > 0 ? " and " + std::to_string(left) + " more" : "";
        std::string longer = text + (i == 0 ? "" : left == 0 ? " and " : ", ") + agents[i];
        if (on.width != 0 && i > 0 && display_width(longer + more) + 1 > on.width) {
            return text + " and " + std::to_string(left + 1) + " more:";
        }
        text = std::move(longer);
    }
    return text + ":";
}

void append_change(std::string& to, const shown_change& change, size_t name_width,
                   const screen& on) {
    const std::string name =
        on.width != 0 ? shortened(change.name, name_width, on.cut_mark()) : change.name;
    const size_t before = 6 + name_width; /* "  + NAME  " */
    const size_t room =
        on.width == 0 ? SIZE_MAX : std::max(on.width, before + narrowest_detail) - before;
    std::string head =
        "  " + tinted(std::string(change.mark.text) + " " + name, change.mark.color, on);
    if (!change.detail.empty()) {
        head.append(name_width - std::min(name_width, display_width(name)) + 2, ' ');
    }
    const std::vector<std::string> lines =
        on.width == 0 ? std::vector{change.detail} : wrapped(change.detail, room);
    to += head + lines.at(0) + "\n";
    for (size_t i = 1; i < lines.size(); i++) {
        to.append(before, ' ').append(lines[i]).append("\n");
    }
}

} // namespace

bool makes_difference(const json::object& outcome) {
    const json::object& summary = object_in(outcome, "summary");
    for (const char* what : {"add", "change", "rename", "remove", "intervals", "impossible"}) {
        if (number_in(summary, what) != 0) {
            return true;
        }
    }
    return false;
}

std::string difference_text(const json::object& outcome, const screen& on) {
    const json::array agents = objects_of(list_in(outcome, "agents"));
    const std::vector<section> sections = sections_of(agents, on);
    size_t name_width = 0;
    for (const section& each : sections) {
        for (const shown_change& change : each.changes) {
            name_width = std::max(name_width, display_width(change.name));
        }
    }
    name_width = std::min(name_width, widest_name);
    std::string text;
    for (const section& each : sections) {
        text += tinted(head_of(each.agents, on), tint::strong, on) + "\n";
        for (const shown_change& change : each.changes) {
            append_change(text, change, name_width, on);
        }
    }
    if (int64_t more = number_in(outcome, "more"); more > 0) {
        text += "and " + std::to_string(more) + " more changes, of agents that are not listed\n";
    }
    return text;
}

std::string difference_summary(const json::object& outcome) {
    const json::object& summary = object_in(outcome, "summary");
    std::string text;
    for (const auto& [member, word] :
         {std::pair("add", "added"), std::pair("change", "changed"), std::pair("rename", "renamed"),
          std::pair("remove", "removed"), std::pair("intervals", "with other intervals")}) {
        if (int64_t count = number_in(summary, member); count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + word;
        }
    }
    const int64_t impossible = number_in(summary, "impossible");
    const int64_t agents = number_in(summary, "agents");
    if (text.empty() && impossible == 0) {
        text = "no test changes";
    } else {
        text += (text.empty() ? "nothing is sent" : "") + std::string(" on ") +
                std::to_string(number_in(summary, "agents_changed")) + " of " +
                std::to_string(agents) + (agents == 1 ? " agent" : " agents");
    }
    if (impossible > 0) {
        text += "; " + std::to_string(impossible) + " cannot be";
    }
    return text + "; " + std::to_string(number_in(summary, "unchanged")) + " tests as before";
}
