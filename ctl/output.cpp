#include "ctl/output.h"

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/quantity.h"
#include "ctl/text.h"
#include "ctl/times.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace json = boost::json;

void put(std::string_view text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        throw failure{status_wrong,
                      std::string("standard output takes no more: ") + strerror(errno)};
    }
}

void tell(std::string_view text) {
    std::string line = "vindralctl: " + std::string(text) + "\n";
    (void)fwrite(line.data(), 1, line.size(), stderr);
}

namespace {

/* A row that has to find its place: the lower its urgency is, the earlier. */
struct sorted_row {
    int urgency;
    std::string since; /* as the API writes them times sort as texts */
    std::vector<table_cell> cells;
};

constexpr int wrong = 0, unsure = 1, well = 2;

int urgency(const json::object& item) {
    const std::string state = text_in(item, "state");
    return state == "problem" || state == "silent" ? wrong : state == "ok" ? well : unsure;
}

bool is_before(const sorted_row& one, const sorted_row& other) {
    if (one.urgency != other.urgency || one.urgency == well) {
        return one.urgency < other.urgency;
    }
    return one.since > other.since;
}

} // namespace

int put_list(const place& here, const list_def& what, const parameters& with,
             const std::function<std::vector<table_cell>(const json::object&)>& row_of,
             const std::function<void(const json::object&)>& look) {
    table rows(what.columns);
    const size_t limit =
        here.said.limit == not_given ? what.usual_limit : static_cast<size_t>(here.said.limit);
    const bool is_sorted = what.worst_first && !here.said.json;
    bool is_empty = true;
    std::vector<sorted_row> all;
    auto take = [&](const json::object& item) {
        is_empty = false;
        if (look) {
            look(item);
        }
        if (here.said.json) {
            put(json_text(item) + "\n");
        } else if (is_sorted) {
            all.push_back({urgency(item), text_in(item, "since"), row_of(item)});
        } else {
            rows.add(row_of(item));
        }
    };
    const std::string incomplete = here.with.list(what.path, with, is_sorted ? 0 : limit, take);
    std::stable_sort(all.begin(), all.end(), is_before);
    for (size_t i = 0; i < all.size() && (limit == 0 || i < limit); i++) {
        rows.add(std::move(all[i].cells));
    }
    if (!here.said.json) {
        put(rows.text(here.on));
    }
    if (is_empty && !here.said.json) {
        bool is_any = true; /* nothing was chosen among them */
        for (const auto& [name, value] : with) {
            is_any = is_any && value.empty();
        }
        tell(what.none != nullptr ? what.none
                                  : std::string(is_any ? "there are no " : "there are no such ") +
                                        what.things + (is_any ? " yet" : ""));
    }
    if (!incomplete.empty()) {
        tell("this is not everything: " + incomplete);
        return status_wrong;
    }
    return status_well;
}

std::string time_parameter(const place& here, const std::string& given_text, const char* option) {
    if (given_text.empty()) {
        return "";
    }
    std::optional<int64_t> time = read_time(given_text, here.now);
    if (!time) {
        throw failure{status_usage, std::string(option) + " takes a time such as " + time_forms +
                                        ", not \"" + printable(given_text) + "\""};
    }
    return rfc3339(*time);
}

std::string agent_parameter(const place& here) {
    return here.said.agent.empty() ? "" : std::to_string(find_agent(here.with, here.said.agent).id);
}

std::string test_parameter(const place& here) {
    return here.said.test.empty() ? "" : std::to_string(find_test(here.with, here.said.test).id);
}

std::string number_parameter(int64_t number) {
    return number == not_given ? "" : std::to_string(number);
}

std::string text_cell(const place& here, const json::object& of, std::string_view name) {
    return printable(text_in(of, name), here.on.ascii);
}

std::string test_cell(const place& here, const json::object& test) {
    const std::string target = text_in(test, "target");
    return text_cell(here, test, "name") + (target.empty() || target == text_in(test, "name")
                                                ? ""
                                                : " (" + printable(target, here.on.ascii) + ")");
}

std::string number_cell(const json::object& of, std::string_view name) {
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_int64() ? std::to_string(found->get_int64()) : "";
}

std::string agent_cell(const place& here, const json::object& of) {
    const json::object& agent = object_in(of, "agent");
    return text_cell(here, agent, "account") + "/" + text_cell(here, agent, "name");
}

table_cell state_cell(const json::object& of, std::string_view name) {
    std::string word = printable(text_in(of, name), true);
    tint color = tint_of_state(word);
    return {of.contains("stale") ? word + " (stale)" : word, color};
}

std::string time_cell(const json::object& of, std::string_view name) {
    std::optional<int64_t> time = read_rfc3339(text_in(of, name));
    return time ? local_time(*time) : "";
}

std::string age_cell(const place& here, const json::object& of, std::string_view name) {
    std::optional<int64_t> time = read_rfc3339(text_in(of, name));
    return time ? span_text(here.now - *time) : "";
}

std::string short_time_cell(const place& here, const json::object& of, std::string_view name) {
    constexpr size_t day = 10, day_and_minutes = 16; /* "2026-05-01 14:00" */
    std::string time = time_cell(of, name);
    if (here.on.width == 0 || time.size() <= day_and_minutes) {
        return time;
    }
    return time.compare(0, day, local_time(here.now), 0, day) == 0
               ? time.substr(day + 1)
               : time.substr(0, day_and_minutes);
}

std::string value_text(const json::object& value) {
    const json::value* number = value.if_contains("value");
    return number == nullptr || number->is_null() ? "-"
           : number->is_string()                  ? std::string(number->get_string())
                                 : quantity(real_of(*number), text_in(value, "unit"));
}

std::string values_cell(const place& here, const json::object& of) {
    std::string text;
    for (const json::key_value_pair& each : object_in(of, "values")) {
        if (each.value().is_object()) {
            text += text.empty() ? "" : ", ";
            text += std::string(each.key()) + " " + value_text(each.value().get_object());
        }
    }
    return printable(text, here.on.ascii);
}

std::string finding_cell(const place& here, const json::object& of) {
    std::string values = values_cell(here, of), message = text_cell(here, of, "message");
    const std::string state = text_in(of, "state"), status = text_cell(here, of, "status");
    const bool is_old = state == "unknown" && !status.empty();
    const std::string begin = is_old ? "last " + status + ": " : "";
    if ((is_old ? status : state) == "ok" && !values.empty()) {
        return begin + values;
    }
    return begin + message + (message.empty() || values.empty() ? "" : "; ") + values;
}

void put_fact(const place& here, std::string_view label, const std::string& text, tint color,
              size_t most_lines) {
    constexpr size_t label_width = 20, least_room = 20;
    if (text.empty()) {
        return;
    }
    const size_t room =
        here.on.width > label_width + least_room ? here.on.width - label_width : 4096;
    std::string head = shortened(label, label_width - 1, here.on.cut_mark());
    std::vector<std::string> lines = wrapped(text, room);
    if (most_lines > 0 && here.on.width != 0 && lines.size() > most_lines) {
        lines.resize(most_lines);
        lines.back() = display_width(lines.back()) + 2 <= room
                           ? lines.back().append(" ").append(here.on.cut_mark())
                           : shortened(lines.back() + "  ", room, here.on.cut_mark());
    }
    for (const std::string& line : lines) {
        const size_t blanks = label_width - std::min(label_width, display_width(head));
        put(tinted(head, tint::faint, here.on) + std::string(blanks, ' ') +
            tinted(line, color, here.on) + "\n");
        head.clear();
    }
}

std::string time_and_age(const place& here, const json::object& of, std::string_view name) {
    const std::string time = time_cell(of, name);
    return time.empty() ? "" : time + " (" + age_cell(here, of, name) + " ago)";
}
