#include "api/live.h"

#include "api/find.h"
#include "api/json.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "state/definition.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <iterator>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <tuple>
#include <utility>
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
    definition_pointer of_test(int64_t agent, uint32_t type, std::optional<int32_t> number,
                               std::optional<int32_t> location, int64_t time) {
        auto now = std::chrono::steady_clock::now();
        if (known_.size() > most_names) {
            known_.clear();
        }
        auto [place, is_new] = known_.try_emplace({agent, type, number.value_or(0), location});
        if (is_new || now > place->second.until) {
            std::string ignored;
            result_reader* store = read();
            definition_pointer what;
            if (store != nullptr) {
                what = definition_reader(*store).of(agent, type, number, location, time, ignored);
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
    std::map<std::tuple<int64_t, uint32_t, int32_t, std::optional<int32_t>>, known> known_;
};

} // namespace

struct live_messages::state {
    state(event_hub& to, std::string directory, size_t most)
        : hub(to), most_waiting(most), names(std::move(directory)) {}

    struct kept_record {
        size_t bytes; /* of those of the block, in order */
        uint32_t type;
        int32_t test;
        int64_t id = 0; /* of its test; 0: of none that is known */
        std::optional<int32_t> number = {};
    };
    struct kept_event {
        stored_event what;
        std::string message;
    };
    /* What came of one agent in a batch, or the end of a batch. */
    struct task {
        bool is_end = false, is_cut = false; /* some of the batch is not told of */
        bool is_heard_of = false;            /* how it stands is known, and its name */
        int64_t agent = 0, received = 0;
        std::string account = {}, name = {};
        std::string bytes = {};
        std::vector<kept_record> records = {};
        std::vector<kept_event> events = {};
        ::state worst = ::state::unknown;
        int64_t since = 0, retired = 0; /* 0: it is not */
        json::object tests = {};

        size_t size() const {
            return sizeof(task) + account.size() + name.size() + bytes.size() +
                   records.size() * sizeof(kept_record) + events.size() * sizeof(kept_event);
        }
    };

    event_hub& hub;
    const size_t most_waiting;

    /* The store's thread. */
    bool is_begun = false, is_heard = false;
    bool is_cut = false, has_put = false; /* anything of the batch */
    std::string bytes;                    /* of records, of a block */
    std::vector<kept_record> records;
    int64_t received = 0;
    std::vector<kept_event> events; /* of a batch */

    /* Between the two. */
    std::mutex mutex;
    std::condition_variable more;
    std::deque<task> waiting;
    size_t waiting_bytes = 0; /* with those under way */
    bool is_working = false, stopping = false;
    std::thread thread;

    /* The thread that makes the messages. */
    names_in_store names;

    /* Whether anybody listens to this batch. */
    bool begin() {
        if (!is_begun) {
            is_begun = true;
            is_heard = hub.is_heard();
            is_cut = !is_heard;
        }
        return is_heard;
    }

    void start() {
        if (!thread.joinable()) {
            thread = std::thread([this] { run(); });
            pthread_setname_np(thread.native_handle(), "live");
        }
    }

    /* It is made into messages when the batch has ended, or when there is time. */
    void put(task what) {
        const size_t size = what.size();
        std::lock_guard<std::mutex> hold(mutex);
        if (waiting_bytes > 0 && waiting_bytes + size > most_waiting) {
            is_cut = true;
            return;
        }
        has_put = true;
        waiting.push_back(std::move(what));
        waiting_bytes += size;
    }

    /* As long as nobody has listened there is nothing to wait for, and no thread. */
    void end(bool cut) {
        {
            std::lock_guard<std::mutex> hold(mutex);
            if (has_put || !waiting.empty() || is_working) {
                start();
                waiting.push_back({.is_end = true, .is_cut = cut});
                waiting_bytes += waiting.back().size();
                has_put = false;
                more.notify_one();
                return;
            }
        }
        if (cut) {
            hub.skip();
        }
        hub.flush();
    }

    void stop() {
        {
            std::lock_guard<std::mutex> hold(mutex);
            stopping = true;
        }
        more.notify_one();
        if (thread.joinable()) {
            thread.join();
        }
    }

    void run() {
        bool is_short = false; /* of memory, in this batch */
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            more.wait(lock, [&] { return stopping || !waiting.empty(); });
            if (stopping) {
                return;
            }
            is_working = true;
            task next = std::move(waiting.front());
            waiting.pop_front();
            lock.unlock();
            const size_t size = next.size();
            try {
                if (next.is_end) {
                    end_batch(next.is_cut || is_short);
                    is_short = false;
                } else {
                    tell(next);
                }
            } catch (const std::exception&) {
                is_short = true;
            }
            lock.lock();
            waiting_bytes -= size;
            is_working = false;
        }
    }

    void end_batch(bool cut) {
        names.end_batch();
        if (cut) {
            hub.skip();
        }
        hub.flush();
    }

    void tell(task& what) {
        json::object reference = what.is_heard_of
                                     ? agent_reference(what.agent, what.account, what.name)
                                     : names.agent(what.agent);
        publish_results(what, reference);
        for (kept_event& event : what.events) {
            event.what.message = event.message;
            publish_event(event.what, reference);
        }
        if (!what.is_heard_of) {
            return;
        }
        reference.emplace("state", shown_word(what.worst));
        if (what.worst == ::state::stale) {
            reference.emplace("stale", true);
        }
        reference.emplace("since", what.retired != 0 ? json::value() : json_time(what.since));
        reference.emplace("tests", std::move(what.tests));
        if (what.retired != 0) { /* as it is read by its id from now on */
            reference.emplace("retired", json_time(what.retired));
        }
        hub.publish(hub_kind::agent, what.agent, 0, json_text(reference));
    }

    void publish_results(const task& what, const json::object& reference) {
        struct of_test {
            const kept_record* test;
            result_builder results{false};
        };
        std::map<std::pair<uint32_t, int32_t>, of_test> all;
        std::string_view rest = what.bytes;
        decoded_record decoded;
        std::string reason;
        for (const kept_record& each : what.records) {
            std::string_view raw = rest.substr(0, each.bytes);
            rest.remove_prefix(each.bytes);
            if (each.id != 0 && decode_record(raw, decoded.content, reason)) {
                decoded.summary = summarize(decoded.content);
                all.try_emplace({each.type, each.test}, of_test{&each})
                    .first->second.results.add(decoded, what.received);
            }
        }
        for (auto& [key, of] : all) {
            const kept_record& test = *of.test;
            for (const result& each : of.results.take_all()) {
                definition_pointer definition =
                    names.of_test(what.agent, each.type, test.number, each.location, each.time);
                json::object object = json_result(each);
                object.emplace("agent", reference);
                object.emplace("test",
                               test_reference(test.id, test.type, test.number, definition.get()));
                hub.publish(hub_kind::result, what.agent, test.id, json_text(object));
            }
        }
    }

    void publish_event(const stored_event& event, json::object agent) {
        json::value test;
        if (std::optional<known_test_row> row = names.test(event.test)) {
            definition_pointer what =
                names.of_test(event.agent, row->type, row->number, std::nullopt, event.time);
            test = test_reference(row->id, row->type, row->number, what.get());
        }
        hub.publish(hub_kind::event, event.agent, event.test,
                    json_text(json_event(event, std::move(agent), std::move(test))));
    }

    /* Those of an agent. */
    std::vector<kept_event> take_events(int64_t agent) {
        std::vector<kept_event> taken;
        auto others =
            std::stable_partition(events.begin(), events.end(),
                                  [&](const kept_event& each) { return each.what.agent != agent; });
        taken.assign(std::move_iterator(others), std::move_iterator(events.end()));
        events.erase(others, events.end());
        return taken;
    }
};

live_messages::live_messages(event_hub& hub, std::string directory, size_t most_waiting)
    : state_(std::make_unique<state>(hub, std::move(directory), most_waiting)) {}

live_messages::~live_messages() {
    state_->stop();
}

void live_messages::on_record(const poll_block& from, const decoded_record& result) {
    state& s = *state_;
    const record_summary& what = result.summary;
    if (s.begin() && what.schema != nullptr && what.test && !is_inventory(what)) {
        s.received = from.received;
        s.records.push_back(
            {.bytes = result.content.raw.size(), .type = what.type, .test = *what.test});
        s.bytes += result.content.raw;
    }
}

void live_messages::on_event(const stored_event& event) {
    state& s = *state_;
    if (!s.begin()) {
        return;
    }
    if (s.events.size() >= most_events) {
        s.is_cut = true;
        return;
    }
    s.events.push_back({event, std::string(event.message)});
    s.events.back().what.message = {};
}

void live_messages::on_agent(int64_t id, std::string_view account, std::string_view agent,
                             const agent_state& now, std::span<const change>) {
    state& s = *state_;
    if (!s.begin()) {
        return;
    }
    state::task told{.is_heard_of = true,
                     .agent = id,
                     .received = s.received,
                     .account = std::string(account),
                     .name = std::string(agent),
                     .bytes = std::exchange(s.bytes, {}),
                     .records = std::exchange(s.records, {}),
                     .events = s.take_events(id),
                     .worst = now.worst(),
                     .since = worst_since(now),
                     .tests = json_counts(now)};
    for (state::kept_record& each : told.records) {
        if (const test_status* test = now.find(each.type, each.test)) {
            each.id = test->id;
            each.number = test->number;
        }
    }
    s.put(std::move(told));
}

void live_messages::on_retired(int64_t id, std::string_view account, std::string_view agent,
                               int64_t time) {
    if (state_->begin()) {
        state_->put({.is_heard_of = true,
                     .agent = id,
                     .account = std::string(account),
                     .name = std::string(agent),
                     .retired = time,
                     .tests = json_counts({})});
    }
}

/* To the end also when memory is short: what the reader sees must not be held for long. */
void live_messages::on_batch_end() {
    state& s = *state_;
    try {
        while (!s.events.empty()) { /* of agents that nothing else was said of */
            const int64_t agent = s.events.front().what.agent;
            s.put({.agent = agent, .events = s.take_events(agent)});
        }
    } catch (const std::exception&) {
        s.events.clear();
        s.is_cut = true;
    }
    s.records.clear();
    s.bytes.clear();
    s.is_begun = false;
    s.end(std::exchange(s.is_cut, false));
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
        add("change", hub_kind::change);
    }
    which.result_agents = ids_of(asked, "result_agent");
    which.result_tests = ids_of(asked, "result_test");
    which.test = number_or(asked, "test", 0);
    if (asked.parameter("agent") != nullptr || which.test != 0) {
        reader_pool::lent store = with.stored.lend(asked.deadline);
        which.agent = agent_asked_for(*store, asked);
        if (which.test != 0) {
            find_test(*store, which.test);
        }
    }
    return which;
}
