#include "api/live.h"

#include "api/find.h"
#include "api/json.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "state/definition.h"

#include <chrono>
#include <map>
#include <tuple>
#include <vector>

namespace json = boost::json;

namespace {

constexpr std::chrono::seconds names_last{30};
constexpr size_t most_names = 10000, most_events = 100000;

/* Of tests and agents, in a state of the store that is left when the batch ends. */
class names_in_store {
public:
    explicit names_in_store(std::string directory) : directory_(std::move(directory)) {}

    /* Null when there is none. */
    definition_pointer of_test(uint32_t type, std::optional<int32_t> number,
                               std::optional<int32_t> location, int64_t time) {
        auto now = std::chrono::steady_clock::now();
        if (known_.size() > most_names) {
            known_.clear();
        }
        auto [place, is_new] = known_.try_emplace({type, number.value_or(0), location});
        if (is_new || now > place->second.until) {
            std::string ignored;
            result_reader* store = read();
            definition_pointer what;
            if (store != nullptr) {
                what = definition_reader(*store).of(type, number, location, time, ignored);
            }
            has_nameless_ = has_nameless_ || !what;
            place->second = {std::move(what), now + names_last};
        }
        return place->second.what;
    }

    std::optional<known_test_row> test(int64_t id) {
        result_reader* store = id != 0 ? read() : nullptr;
        return store != nullptr ? store->find_test(id) : std::nullopt;
    }

    json::object agent(int64_t id) {
        result_reader* store = read();
        agent_names::name name;
        if (store != nullptr) {
            name = agent_names(*store).of(id);
        }
        return agent_reference(id, name.account, name.agent);
    }

    void end_batch() {
        if (is_reading_ && reader_) {
            reader_->rest();
        }
        is_reading_ = false;
        if (has_nameless_) { /* it may come with the next batch */
            std::erase_if(known_, [](const auto& each) { return !each.second.what; });
            has_nameless_ = false;
        }
    }

private:
    result_reader* read() {
        if (is_reading_) {
            return reader_.get();
        }
        std::string ignored;
        if (reader_ && !reader_->renew(ignored)) {
            reader_ = nullptr;
        }
        if (!reader_) {
            reader_ = open_reader(directory_, ignored);
        }
        is_reading_ = true;
        return reader_.get();
    }

    struct known {
        definition_pointer what;
        std::chrono::steady_clock::time_point until;
    };
    const std::string directory_;
    std::unique_ptr<result_reader> reader_;
    bool is_reading_ = false, has_nameless_ = false;
    std::map<std::tuple<uint32_t, int32_t, std::optional<int32_t>>, known> known_;
};

} // namespace

struct live_messages::state {
    state(event_hub& to, std::string directory) : hub(to), names(std::move(directory)) {}

    event_hub& hub;
    names_in_store names;
    bool is_begun = false, is_heard = false;
    bool is_cut = false; /* some of the batch is not told of */
    std::map<std::pair<uint32_t, int32_t>, result_builder> results; /* of the block */
    std::vector<std::pair<stored_event, std::string>> events;       /* with its message */

    /* Whether anybody listens to this batch. */
    bool begin() {
        if (!is_begun) {
            is_begun = true;
            is_heard = hub.is_heard();
            is_cut = !is_heard;
        }
        return is_heard;
    }

    void publish_results(int64_t agent, const json::object& reference, const agent_state& now) {
        for (auto& [key, builder] : results) {
            const test_status* test = now.find(key.first, key.second);
            if (test == nullptr) {
                continue;
            }
            for (const result& each : builder.take_all()) {
                definition_pointer what =
                    names.of_test(each.type, test->number, each.location, each.time);
                json::object object = json_result(each);
                object.emplace("agent", reference);
                object.emplace("test",
                               test_reference(test->id, test->type, test->number, what.get()));
                hub.publish(hub_kind::result, agent, test->id, json_text(object));
            }
        }
        results.clear();
    }

    void publish_event(const stored_event& event, json::object agent) {
        json::value test;
        if (std::optional<known_test_row> row = names.test(event.test)) {
            definition_pointer what =
                names.of_test(row->type, row->number, std::nullopt, event.time);
            test = test_reference(row->id, row->type, row->number, what.get());
        }
        hub.publish(hub_kind::event, event.agent, event.test,
                    json_text(json_event(event, std::move(agent), std::move(test))));
    }

    /* Those of an agent. */
    void publish_events(int64_t agent, const json::object& reference) {
        for (auto& [event, message] : events) {
            if (event.agent == agent) {
                event.message = message;
                publish_event(event, reference);
            }
        }
        std::erase_if(events, [&](const auto& each) { return each.first.agent == agent; });
    }
};

live_messages::live_messages(event_hub& hub, std::string directory)
    : state_(std::make_unique<state>(hub, std::move(directory))) {}

live_messages::~live_messages() = default;

void live_messages::on_record(const poll_block& from, const decoded_record& result) {
    if (state_->begin() && result.summary.schema != nullptr && result.summary.test &&
        !is_inventory(result.summary)) {
        state_->results.try_emplace({result.summary.type, *result.summary.test}, false)
            .first->second.add(result, from.received);
    }
}

void live_messages::on_event(const stored_event& event) {
    if (!state_->begin()) {
        return;
    }
    if (state_->events.size() >= most_events) {
        state_->is_cut = true;
        return;
    }
    state_->events.emplace_back(event, event.message);
    state_->events.back().first.message = {};
}

void live_messages::on_agent(int64_t id, std::string_view account, std::string_view agent,
                             const agent_state& now, std::span<const change>) {
    if (!state_->begin()) {
        return;
    }
    const json::object reference = agent_reference(id, account, agent);
    state_->publish_results(id, reference, now);
    state_->publish_events(id, reference);
    json::object object = reference;
    ::state worst = now.worst();
    object.emplace("state", shown_word(worst));
    if (worst == ::state::stale) {
        object.emplace("stale", true);
    }
    object.emplace("since", json_time(worst_since(now)));
    object.emplace("tests", json_counts(now));
    state_->hub.publish(hub_kind::agent, id, 0, json_text(object));
}

/* To the end also when memory is short: what the reader sees must not be held for long. */
void live_messages::on_batch_end() {
    try {
        while (!state_->events.empty()) { /* of agents that nothing else was said of */
            int64_t agent = state_->events.front().first.agent;
            state_->publish_events(agent, state_->names.agent(agent));
        }
    } catch (const std::exception&) {
        state_->events.clear();
        state_->is_cut = true;
    }
    state_->results.clear();
    state_->names.end_batch();
    if (state_->is_cut) {
        state_->hub.skip();
    }
    state_->is_begun = state_->is_cut = false;
    state_->hub.flush();
}

hub_filter stream_filter(std::string_view target, api_request& asked, api_services& with) {
    std::string_view path = target.substr(0, target.find('?'));
    const route& row = web_routes()[0];
    check_role(row, asked.who);
    read_parameters(row, target.substr(std::min(path.size() + 1, target.size())), asked);
    hub_filter which;
    const chosen kinds(asked, "kind");
    if (kinds.is_given()) {
        which.kinds = 0;
        auto add = [&](const char* word, hub_kind kind) {
            which.kinds |= kinds.has(word) ? static_cast<uint8_t>(kind) : uint8_t{0};
        };
        add("result", hub_kind::result);
        add("event", hub_kind::event);
        add("agent", hub_kind::agent);
    }
    which.test = number_or(asked, "test", 0);
    if (asked.parameter("agent") != nullptr || which.test != 0) {
        reader_pool::lent store = with.stored.lend();
        which.agent = agent_asked_for(*store, asked);
        if (which.test != 0) {
            find_test(*store, which.test);
        }
    }
    return which;
}
