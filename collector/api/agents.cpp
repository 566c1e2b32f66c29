/* Agents: all of them, one, retiring it, having it do its tests now. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "api/standings.h"
#include "base/record_summary.h"
#include "show/record_content.h"

#include <algorithm>
#include <limits>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {
    {.name = "state",
     .kind = parameter_kind::choice,
     .text = "Only agents in these states; stale ones are unknown, too.",
     .choices = "ok|problem|unknown|stale|silent",
     .many = true},
    {.name = "q",
     .kind = parameter_kind::text,
     .text = "Only agents with this text in their name or account, whatever the case."},
    {.name = "group", .kind = parameter_kind::text, .text = "Only agents that are in this group."},
    limit_parameter,
    next_parameter};

std::vector<std::string> groups_of(const known_agent& row, const api_services& with) {
    return with.fleet != nullptr ? with.fleet->groups_of(row.account, row.agent)
                                 : std::vector<std::string>();
}

json::object agent_object(const known_agent& row, const agent_state& now,
                          const std::vector<std::string>& groups, const api_services& with) {
    state worst = now.worst();
    json::object object = agent_reference(row.id, row.account, row.agent);
    object.emplace("state", shown_word(worst));
    if (worst == state::stale) {
        object.emplace("stale", true);
    }
    object.emplace("since", json_time(worst_since(now)));
    object.emplace("last_poll", json_time(row.last_seen));
    object.emplace("first_poll", json_time(row.first_seen));
    object.emplace("address", json_or_null(row.address));
    object.emplace("version", json_or_null(row.version));
    object.emplace("groups", json::array(groups.begin(), groups.end()));
    object.emplace("tests", json_counts(now));
    object.emplace("identity",
                   identity_word(state_of(
                       with.agents.find(row.account, row.agent).value_or(agent_standing{}))));
    if (row.retired != 0) {
        object.emplace("retired", json_time(row.retired));
    }
    return object;
}

/* By account and name, from behind `next`. */
api_answer list_agents(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    std::optional<std::vector<std::string>> behind = place_of(asked, 2);
    const chosen states(asked, "state");
    const std::string q = text_of(asked, "q"), group = text_of(asked, "group");
    const size_t limit = limit_of(asked);
    json::array items;
    agent_state now;
    std::string last_account, last_name, next, error, damaged;
    auto take = [&](const known_agent& row) {
        check_deadline(asked);
        if (row.retired != 0 ||
            (behind && row.account == (*behind)[0] && row.agent == (*behind)[1]) ||
            !(has_text(row.account, q) || has_text(row.agent, q))) {
            return true;
        }
        if (!now.unpack(row.state) && damaged.empty()) {
            damaged = "the state of " + std::string(row.account) + "/" + std::string(row.agent) +
                      " is damaged";
        }
        if (states.is_given() && !has_state(states, now.worst())) {
            return true;
        }
        const std::vector<std::string> groups = groups_of(row, with);
        if (!group.empty() && std::find(groups.begin(), groups.end(), group) == groups.end()) {
            return true;
        }
        if (items.size() == limit) {
            next = next_text({last_account, last_name});
            return false;
        }
        items.push_back(agent_object(row, now, groups, with));
        last_account = row.account;
        last_name = row.agent;
        return true;
    };
    bool ok = store->for_each_agent_from(behind ? (*behind)[0] : "", behind ? (*behind)[1] : "",
                                         take, error);
    return answer_with(list_of(asked, std::move(items), next, ok ? damaged : error));
}

/* Of an inventory in an answer; an agent may send millions of items. */
constexpr size_t most_inventory = 1u << 20, most_item = 4096;

/* What the agent has found on its host, as it was last. */
json::object inventories_of(result_reader& store, int64_t agent) {
    json::object all;
    for (const protocol::record_def* type : protocol::record_types) {
        if (find_role(type->values, protocol::value_role::list) == nullptr) {
            continue;
        }
        std::string ignored;
        store.read_inventory(
            agent, type->code, std::numeric_limits<int64_t>::max(),
            [&](const stored_inventory& found) {
                record r;
                std::string reason;
                json::object one{{"time", time_text(found.time)}};
                json::array items;
                size_t bytes = 0, left_out = 0;
                if (decode_record(found.record, r, reason)) {
                    for (std::string_view item : items_of(r)) {
                        json::value text(item.substr(0, most_item));
                        bytes += weight_of(text);
                        if (bytes <= most_inventory) {
                            items.push_back(std::move(text));
                        } else {
                            left_out++;
                        }
                    }
                }
                one.emplace("items", std::move(items));
                if (left_out > 0) {
                    one.emplace("left_out", left_out);
                }
                all.emplace(type->name, std::move(one));
            },
            ignored);
    }
    return all;
}

api_answer one_agent(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    const int64_t id = find_agent(*store, asked.in_path[0]).id;
    json::object object;
    agent_state now;
    std::string error;
    auto take = [&](const known_agent& row) {
        now.unpack(row.state);
        object = agent_object(row, now, groups_of(row, with), with);
    };
    if (!store->read_agent(id, take, error)) {
        throw_unavailable("The agent cannot be read: " + error + ".");
    }
    object.emplace("inventories", inventories_of(*store, id));
    return answer_with(object);
}

std::string called(const found_agent& agent) {
    return agent.account + "/" + agent.name;
}

found_agent find_present(const api_request& asked, api_services& with) {
    found_agent agent = find_agent(*with.stored.lend(asked.deadline), asked.in_path[0]);
    if (agent.retired != 0) {
        throw problem{409, "Conflict",
                      called(agent) + " was retired at " + time_text(agent.retired) +
                          ". When it polls again it begins anew."};
    }
    return agent;
}

api_answer retire_agent(const api_request& asked, api_services& with) {
    found_agent agent = find_present(asked, with);
    try {
        retire_stored(with, agent.id);
    } catch (problem& what) {
        if (what.status == 503) { /* it may be retired yet, when the store gets to it */
            what.audit = "asked to retire agent " + called(agent);
        }
        throw;
    }
    try {
        with.send_away(agent.account, agent.name);
    } catch (const std::exception&) { /* no memory: retired all the same */
    }
    api_answer answer;
    answer.status = 204;
    answer.audit = "retired agent " + called(agent);
    return answer;
}

api_answer check_agent(const api_request& asked, api_services& with) {
    found_agent agent = find_present(asked, with);
    bool told = false;
    try {
        told = with.check_now(agent.account, agent.name);
    } catch (problem& what) {
        if (what.status == 503) { /* it may be told yet */
            what.audit = "asked to have agent " + called(agent) + " check now";
        }
        throw;
    }
    if (!told) {
        throw problem{409, "Conflict",
                      called(agent) + " cannot be told: it has not polled since the collector "
                                      "started, or does not any more. Try again when it has."};
    }
    api_answer answer =
        answer_with(json::object{{"agent", agent_reference(agent.id, agent.account, agent.name)},
                                 {"accepted", true}},
                    202);
    answer.audit = "had agent " + called(agent) + " check now";
    return answer;
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/agents",
     .least = role::viewer,
     .summary = "All agents, by account and name. Retired ones are not among them.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "agents",
     .status = 200,
     .handler = list_agents},
    {.method = "GET",
     .pattern = "/api/v1/agents/{agent}",
     .least = role::viewer,
     .summary = "An agent, also a retired one, and what it found on its host.",
     .parameters = {},
     .takes = "",
     .answers = "agent",
     .status = 200,
     .handler = one_agent},
    {.method = "DELETE",
     .pattern = "/api/v1/agents/{agent}",
     .least = role::operates,
     .summary = "Retires an agent: it is in no list and silent to nobody any more. What it "
                "reported stays until it expires; when it polls again it begins anew.",
     .parameters = {},
     .takes = "",
     .answers = "",
     .status = 204,
     .handler = retire_agent},
    {.method = "POST",
     .pattern = "/api/v1/agents/{agent}/check",
     .least = role::operates,
     .summary = "Has the agent do all its tests now: it is told with its next poll.",
     .parameters = {},
     .takes = "",
     .answers = "accepted",
     .status = 202,
     .handler = check_agent}};

} // namespace

std::span<const route> agent_routes() {
    return rows;
}
