#include "api/difference.h"

#include "api/json.h"
#include "base/record_summary.h"

namespace json = boost::json;

namespace {

/* Of changes in an answer, in bytes: those of 1,000 agents with 20 tests each have room. A test
 * makes it less. */
size_t most_difference_bytes = 16u << 20;

json::value type_or_null(uint32_t type) {
    return type != 0 ? json::value(type_name(type)) : json::value();
}

json::value number_or_null(int32_t number) {
    return number != 0 ? json::value(number) : json::value();
}

json::object change_object(const fleet_change& what) {
    json::array fields;
    for (const fleet_change::field& each : what.fields) {
        fields.push_back(json::object{
            {"name", each.name}, {"from", json_or_null(each.from)}, {"to", json_or_null(each.to)}});
    }
    return {{"test", json_or_null(what.test)},       {"was", json_or_null(what.was)},
            {"action", action_word(what.action)},    {"type", type_or_null(what.type)},
            {"number", number_or_null(what.number)}, {"impossible", json_or_null(what.impossible)},
            {"reason", json_or_null(what.reason)},   {"fields", std::move(fields)}};
}

json::array texts(const std::vector<std::string>& all) {
    json::array array;
    for (const std::string& each : all) {
        array.push_back(json::value(each));
    }
    return array;
}

/* Written piece by piece: as a tree it would be several times as much. */
class difference_text {
public:
    explicit difference_text(agent_ids& ids) : ids_(ids) {}

    void add(const fleet_difference::agent& agent) {
        if (text_.size() > most_difference_bytes) {
            left_out_ += agent.changes.size();
            return;
        }
        std::string head = json_text(
            json::object{{"agent", fleet_agent_reference(ids_.of(agent.account, agent.name),
                                                         agent.account, agent.name)},
                         {"groups", texts(agent.groups)},
                         {"poll", agent.poll},
                         {"check", agent.check},
                         {"about", json_or_null(agent.about_intervals)}});
        head.pop_back();
        text_.append(text_.empty() ? "" : ",").append(head).append(",\"changes\":[");
        const char* between = "";
        for (const fleet_change& each : agent.changes) {
            if (text_.size() > most_difference_bytes) {
                left_out_++;
                continue;
            }
            text_.append(between).append(json_text(change_object(each)));
            between = ",";
        }
        text_ += "]}";
    }

    std::string take() { return std::move(text_); }
    size_t left_out() const { return left_out_; }

private:
    agent_ids& ids_;
    std::string text_;
    size_t left_out_ = 0;
};

json::object summary_of(const fleet_difference& all) {
    return {{"add", all.added},
            {"change", all.changed},
            {"rename", all.renamed},
            {"remove", all.removed},
            {"intervals", all.intervals},
            {"impossible", all.impossible},
            {"unchanged", all.unchanged},
            {"agents", all.agents_in_all},
            {"agents_changed", all.agents.size()},
            {"agents_without", all.agents_without},
            {"groups_without", texts(all.groups_without)}};
}

json::array json_remarks(const std::vector<remark>& all) {
    json::array array;
    for (const remark& each : all) {
        array.push_back(
            json::object{{"line", each.at.line}, {"column", each.at.column}, {"text", each.text}});
    }
    return array;
}

} // namespace

int64_t agent_ids::of(std::string_view account, std::string_view agent) {
    auto [place, is_new] = known_.try_emplace({std::string(account), std::string(agent)}, 0);
    if (is_new && store_ != nullptr) {
        std::string ignored;
        store_->read_agent(
            account, agent, [to = &place->second](const known_agent& row) { *to = row.id; },
            ignored);
    }
    return place->second;
}

json::object fleet_agent_reference(int64_t id, std::string_view account, std::string_view name) {
    return {
        {"id", id != 0 ? json::value(id) : json::value()}, {"account", account}, {"name", name}};
}

std::string text_of_outcome(const fleet_outcome& done, bool is_trial, const api_request& asked,
                            api_services& with) {
    std::optional<reader_pool::lent> store;
    try {
        store.emplace(with.stored.lend(asked.deadline));
    } catch (const problem&) { /* what was done is said all the same, without ids */
    }
    agent_ids ids(store ? &**store : nullptr);
    difference_text agents(ids);
    for (const fleet_difference::agent& each : done.difference.agents) {
        agents.add(each);
    }
    std::string head = json_text(json::object{{"revision", done.revision},
                                              {"dry_run", is_trial},
                                              {"same", done.is_same},
                                              {"summary", summary_of(done.difference)}});
    const std::string tail =
        json_text(json::object{{"more", agents.left_out()}, {"notes", json_remarks(done.notes)}});
    head.back() = ',';
    return head + "\"agents\":[" + agents.take() + "]," + tail.substr(1);
}

std::string_view outcome_word(change_outcome o) {
    switch (o) {
    case change_outcome::sent:
        return "sent";
    case change_outcome::confirmed:
        return "confirmed";
    case change_outcome::impossible:
        return "impossible";
    case change_outcome::unanswered:
        break;
    }
    return "unanswered";
}

json::object json_change(const stored_change& what, int64_t agent) {
    return {{"id", what.id},
            {"revision", what.revision},
            {"time", json_time(what.time)},
            {"agent", fleet_agent_reference(agent, what.account, what.agent)},
            {"test", json_or_null(what.test)},
            {"was", json_or_null(what.was)},
            {"action", action_word(static_cast<change_action>(what.action))},
            {"type", type_or_null(what.type)},
            {"number", number_or_null(what.number)},
            {"sent", json_time(what.sent)},
            {"settled", json_time(what.settled)},
            {"outcome", outcome_word(what.outcome)},
            {"reason", json_or_null(what.reason)}};
}
