#include "ctl/lookup.h"

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/text.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace json = boost::json;

namespace {

constexpr size_t most_named = 10;

std::string agent_text(const json::object& agent) {
    return printable(text_in(agent, "account") + "/" + text_in(agent, "name"));
}

std::string test_text(const json::object& test) {
    return agent_text(object_in(test, "agent")) + ":" + printable(text_in(test, "name"));
}

/* A line each, of the first few. */
std::string named(const std::vector<found_thing>& all) {
    std::string text;
    for (size_t i = 0; i < all.size() && i < most_named; i++) {
        text += "\n  " + std::to_string(all[i].id) + "  " + all[i].called + all[i].more;
    }
    if (all.size() > most_named) {
        text += "\n  and " + std::to_string(all.size() - most_named) + " more";
    }
    return text;
}

/* The one there is. */
found_thing only_one(const char* what, const std::string& called,
                     const std::vector<found_thing>& exact, const std::vector<found_thing>& close) {
    if (exact.size() == 1) {
        return exact[0];
    }
    const std::string quoted = "\"" + printable(called) + "\"";
    if (exact.size() > 1) {
        throw failure{status_usage, quoted + " fits several " + what +
                                        "s; give the number of one:" + named(exact)};
    }
    throw failure{status_absent,
                  std::string("there is no ") + what + " " + quoted +
                      (close.empty() ? "" : "; there are:" + named(close)) +
                      (what == std::string_view("agent")
                           ? "\nOne that is retired is found by its id or account/name."
                           : "")};
}

std::vector<found_thing> agents_called(api& with, const std::string& name,
                                       std::vector<found_thing>& close) {
    std::vector<found_thing> exact;
    /* The API looks in the name and in the account, not across both. */
    const std::string part = name.substr(name.rfind('/') + 1);
    with.list("/api/v1/agents", {{"q", part}}, 0, [&](const json::object& agent) {
        found_thing one{number_in(agent, "id"), agent_text(agent)};
        std::string own = text_in(agent, "name");
        bool is_it = own == name || text_in(agent, "account") + "/" + own == name;
        (is_it ? exact : close).push_back(std::move(one));
    });
    return exact;
}

struct found_tests {
    std::vector<found_thing> exact, /* by name */
        looking,                    /* by what they look at */
        close;
};

struct listed_test {
    found_thing thing;
    std::string own, target;
    /* Of a test that the fleet file names: whether anything is known of it, and its number; no two
     * that an agent has are called the same, so of several the first alone is one that it has, and
     * the others were removed. */
    std::pair<bool, int64_t> rank = {};
};

/* `agent` 0: of any. */
void tests_called(api& with, int64_t agent, const std::string& name, found_tests& found) {
    parameters which{{"q", name}};
    if (agent != 0) {
        which.emplace_back("agent", std::to_string(agent));
    }
    std::vector<listed_test> all;
    std::map<std::string, std::pair<bool, int64_t>> best; /* of the fleet's tests */
    with.list("/api/v1/tests", which, 0, [&](const json::object& test) {
        const int64_t number = number_in(test, "number");
        listed_test one = {
            {number_in(test, "id"), test_text(test),
             " (" + printable(text_in(test, "type")) + " " + std::to_string(number) + ")"},
            text_in(test, "name"),
            text_in(test, "target")};
        if (!text_in(object_in(test, "definition"), "title").empty()) {
            one.rank = {text_in(test, "state") != "unknown", number};
            auto& first = best[one.thing.called];
            first = std::max(first, one.rank);
        }
        all.push_back(std::move(one));
    });
    for (listed_test& one : all) {
        if (one.rank.second > 0 && one.rank < best[one.thing.called]) {
            continue; /* removed */
        }
        if (one.own == name) {
            found.exact.push_back(std::move(one.thing));
        } else if (!one.target.empty() && one.target == name) {
            found.looking.push_back(std::move(one.thing));
        } else if (one.own.find(name) != std::string::npos ||
                   one.target.find(name) != std::string::npos) {
            found.close.push_back(std::move(one.thing));
        }
    }
}

/* What a test looks at will do where none is called so. */
void settle(found_tests& found) {
    if (found.exact.empty()) {
        found.exact.swap(found.looking);
    }
}

} // namespace

bool is_id(const std::string& called) {
    return !called.empty() && called.size() <= 18 &&
           called.find_first_not_of("0123456789") == std::string::npos;
}

found_thing find_agent(api& with, const std::string& called) {
    if (is_id(called) || called.find('/') != std::string::npos) {
        if (auto agent = with.find("/api/v1/agents/" + percent_encoded(called))) {
            return {number_in(*agent, "id"), agent_text(*agent)};
        }
    }
    std::vector<found_thing> close;
    std::vector<found_thing> exact = agents_called(with, called, close);
    return only_one("agent", called, exact, close);
}

found_thing find_test(api& with, const std::string& called) {
    if (is_id(called)) {
        if (auto test = with.find("/api/v1/tests/" + called)) {
            return {number_in(*test, "id"), test_text(*test)};
        }
    }
    found_tests found;
    std::vector<found_thing> meant; /* agents */
    /* Either part may have a ':', too. */
    for (size_t at = called.find(':'); at != std::string::npos; at = called.find(':', at + 1)) {
        const std::string agent = called.substr(0, at), name = called.substr(at + 1);
        if (agent.empty() || name.empty()) {
            continue;
        }
        std::vector<found_thing> ignored, agents = agents_called(with, agent, ignored);
        auto is_agent = [&](const found_thing& each) { return std::to_string(each.id) == agent; };
        if (is_id(agent) && std::none_of(agents.begin(), agents.end(), is_agent) &&
            with.find("/api/v1/agents/" + agent)) {
            agents.push_back({std::stoll(agent), ""});
        }
        for (const found_thing& each : agents) {
            tests_called(with, each.id, name, found);
        }
        meant.insert(meant.end(), agents.begin(), agents.end());
    }
    settle(found);
    if (found.exact.empty() && found.close.empty()) {
        tests_called(with, 0, called, found);
        settle(found);
    }
    if (found.exact.empty() && found.close.size() == 1) {
        return found.close[0];
    }
    if (found.exact.empty() && found.close.empty()) { /* those there are at its agent */
        std::vector<found_thing> ignored;
        if (meant.empty()) {
            meant = agents_called(with, called, ignored);
        }
        for (const found_thing& each : meant) {
            tests_called(with, each.id, "", found);
        }
    }
    return only_one("test", called, found.exact, found.close);
}
