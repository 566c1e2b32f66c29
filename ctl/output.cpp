#include "ctl/output.h"

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/quantity.h"
#include "ctl/text.h"
#include "ctl/times.h"

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

int put_list(const place& here, const list_def& what, const parameters& with,
             const std::function<std::vector<table_cell>(const json::object&)>& row_of,
             const std::function<void(const json::object&)>& look) {
    table rows(what.columns);
    size_t limit =
        here.said.limit == not_given ? what.usual_limit : static_cast<size_t>(here.said.limit);
    bool is_empty = true;
    auto take = [&](const json::object& item) {
        is_empty = false;
        if (look) {
            look(item);
        }
        if (here.said.json) {
            put(json_text(item) + "\n");
        } else {
            rows.add(row_of(item));
        }
    };
    std::string incomplete = here.with.list(what.path, with, limit, take);
    if (!here.said.json) {
        put(rows.text(here.on));
    }
    if (is_empty && !here.said.json) {
        tell(std::string("there are no such ") + what.things);
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

std::string values_cell(const place& here, const json::object& of) {
    std::string text;
    for (const json::key_value_pair& each : object_in(of, "values")) {
        if (!each.value().is_object()) {
            continue;
        }
        const json::object& value = each.value().get_object();
        const json::value* number = value.if_contains("value");
        std::string shown = number == nullptr || number->is_null() ? "-"
                            : number->is_string()
                                ? std::string(number->get_string())
                                : quantity(real_of(*number), text_in(value, "unit"));
        text += (text.empty() ? "" : ", ") + std::string(each.key()) + " " + shown;
    }
    return printable(text, here.on.ascii);
}
