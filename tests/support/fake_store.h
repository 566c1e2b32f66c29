/* A store in memory, for tests of what reads one: an agent with its open blocks, chunks, roll-ups
 * and facts. Packs and rolls up as the store thread does, but only when it is told to, and in the
 * plainest way. Counts what is read. */
#ifndef FAKE_STORE_H
#define FAKE_STORE_H

#include "base/record_summary.h"
#include "state/agent_state.h"
#include "state/definition.h"
#include "state/roll_up.h"
#include "state/take.h"
#include "store/engine.h"
#include "store/pack.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

class fake_store : public result_reader {
public:
    struct block {
        int64_t received = 0, before = 0;
        std::string records;
    };
    struct chunk {
        int64_t received_first = 0, received_last = 0, first = INT64_MAX, last = INT64_MIN;
        uint32_t results = 0;
        std::string data;
    };
    using arrived = std::pair<int64_t, std::string>;

    agent_state agent;
    std::map<int64_t, known_test_row> tests;
    std::map<int64_t, block> blocks;                /* open */
    std::map<int64_t, std::vector<chunk>> chunks;   /* by test, in the order of arrival */
    std::map<int64_t, std::vector<arrived>> packed; /* what is in them */
    std::map<std::pair<int64_t, int64_t>, std::string> five_minutes, hours; /* test, day */
    std::map<std::string, int64_t> facts;
    std::vector<definition> definitions; /* in the order of storing */
    int64_t stale_after = 180;

    size_t blocks_read = 0, chunks_seen = 0, chunks_read = 0, roll_ups_read = 0;
    size_t definitions_read = 0; /* one by one */

    /* ---- writing ---- */

    void add_test(int64_t id, uint32_t type, std::optional<int32_t> number) {
        tests[id] = {id, 1, type, number};
        agent.tests.push_back({.id = id, .type = type, .number = number});
        std::sort(agent.tests.begin(), agent.tests.end(),
                  [](const auto& a, const auto& b) { return a.key() < b.key(); });
    }

    void append_block(int64_t received, const std::string& records) {
        blocks[next_row_] = {received, agent.last_block, records};
        agent.last_block = next_row_++;
        for_each_record(records, [&](int64_t test, const decoded_record&) {
            test_status* status = agent.find(tests[test].type, tests[test].number);
            status->block = agent.last_block;
            status->received = received;
        });
    }

    /* All that is open into chunks; days that are closed are rolled up anew. */
    void pack() {
        std::map<int64_t, std::vector<arrived>> found;
        std::map<int64_t, chunk> made;
        std::vector<std::pair<int64_t, int64_t>> late; /* test, day */
        for (const auto& [row, b] : blocks) {
            for_each_record(b.records,
                            [&, received = b.received](int64_t test, const decoded_record& what) {
                                chunk& c = made[test];
                                int64_t time = reckoned_time(what.summary, received);
                                c.received_first = c.results == 0 ? received : c.received_first;
                                c.received_last = received;
                                c.first = std::min(c.first, time);
                                c.last = std::max(c.last, time);
                                c.results++;
                                found[test].emplace_back(received, what.content.raw);
                                late.emplace_back(test, time / 86400);
                                late.emplace_back(test, (time + stale_after) /
                                                            86400); /* its state may reach there */
                            });
        }
        for (auto& [test, records] : found) {
            std::vector<arrived_record> views;
            for (const auto& [received, record] : records) {
                views.push_back({received, record});
                packed[test].emplace_back(received, record);
            }
            pack_chunk(views, made[test].data);
            chunks[test].push_back(made[test]);
        }
        blocks.clear();
        agent.last_block = 0;
        std::sort(late.begin(), late.end());
        late.erase(std::unique(late.begin(), late.end()), late.end());
        for (const auto& [test, day] : late) {
            if (facts.contains("closed_through") && day <= facts["closed_through"]) {
                roll_up_day(test, day);
            }
        }
    }

    void close(int64_t day) {
        pack();
        for (const auto& [test, row] : tests) {
            roll_up_day(test, day);
        }
        facts["closed_through"] = day;
    }

    /* Results that arrived before are gone. */
    void expire(int64_t received) {
        for (auto& [test, all] : chunks) {
            std::erase_if(all, [&](const chunk& c) { return c.received_last < received; });
        }
    }

    static void forget(std::map<std::pair<int64_t, int64_t>, std::string>& roll_ups,
                       int64_t before) {
        std::erase_if(roll_ups, [&](const auto& r) { return r.first.second < before; });
    }

    std::string packed_agent() const {
        std::string text;
        agent.pack(text);
        return text;
    }

    static known_agent known(std::string_view state) {
        known_agent agent;
        agent.id = 1;
        agent.account = "a@b.c";
        agent.agent = "web1";
        agent.state = state;
        return agent;
    }

    /* ---- reading ---- */

    std::string place() const override { return "memory"; }
    bool for_each_agent(const std::function<void(const known_agent&)>& each,
                        std::string& error) override {
        return read_agent(1, each, error);
    }
    bool for_each_agent_from(std::string_view, std::string_view,
                             const std::function<bool(const known_agent&)>& each,
                             std::string& error) override {
        return read_agent(
            1, [&](const known_agent& agent) { each(agent); }, error);
    }
    bool read_agent(int64_t id, const std::function<void(const known_agent&)>& each,
                    std::string&) override {
        std::string state = damaged_state ? "damaged" : packed_agent();
        if (id == 1) {
            each(known(state));
        }
        return true;
    }
    bool read_agent(std::string_view, std::string_view,
                    const std::function<void(const known_agent&)>& each,
                    std::string& error) override {
        return read_agent(1, each, error);
    }
    std::optional<known_test_row> find_test(int64_t id) override {
        auto found = tests.find(id);
        return found != tests.end() ? std::optional(found->second) : std::nullopt;
    }
    bool for_each_block(int64_t row, const std::function<bool(const open_block&)>& each,
                        std::string& error) override {
        for (auto found = blocks.find(row); found != blocks.end();
             found = blocks.find(found->second.before)) {
            const block& b = found->second;
            blocks_read++;
            if (!each({found->first, b.received, b.before, b.records})) {
                break;
            }
        }
        return is_good(error);
    }
    bool for_each_chunk(int64_t test, int64_t from,
                        const std::function<bool(const packed_chunk&)>& wanted,
                        const std::function<bool(const packed_chunk&)>& each,
                        std::string& error) override {
        const std::vector<chunk>& all = chunks[test];
        for (auto c = all.rbegin(); c != all.rend(); ++c) {
            if (c->received_last < from) {
                continue;
            }
            chunks_seen++;
            packed_chunk known{c->received_first, c->received_last, c->first,
                               c->last,           c->results,       {}};
            if (!wanted(known)) {
                continue;
            }
            chunks_read++;
            known.data = c->data;
            if (!each(known)) {
                break;
            }
        }
        return is_good(error);
    }
    bool for_each_roll_up(resolution r, int64_t test, int64_t from, int64_t to,
                          const std::function<void(int64_t, std::string_view)>& each,
                          std::string& error) override {
        EXPECT_FALSE(std::exchange(is_reading_, true)) << "a call within a call";
        for (const auto& [key, data] : r == resolution::hour ? hours : five_minutes) {
            if (key.first == test && key.second >= from && key.second < to) {
                roll_ups_read++;
                each(key.second, data);
            }
        }
        is_reading_ = false;
        return is_good(error);
    }
    bool for_each_event(const event_filter&, const std::function<bool(const stored_event&)>&,
                        std::string&) override {
        return true;
    }
    bool for_each_ledger_row(int64_t, int64_t, int64_t,
                             const std::function<bool(const ledger_row&)>&, std::string&) override {
        return true;
    }
    bool read_inventory(int64_t, uint32_t, int64_t,
                        const std::function<void(const stored_inventory&)>&,
                        std::string&) override {
        return true;
    }
    bool has_definitions(int64_t agent) override {
        return std::any_of(definitions.begin(), definitions.end(),
                           [agent](const definition& d) { return d.agent == agent; });
    }
    bool for_each_definition(int64_t agent, uint32_t type, int32_t number,
                             const std::function<void(const test_definition&)>& each,
                             std::string& error) override {
        for (const definition& d : definitions) {
            if (d.agent == agent && (type == 0 || d.type == type) &&
                (number == 0 || d.number == number)) {
                each(view_of(d));
            }
        }
        return is_good(error);
    }
    bool read_definition(int64_t agent, uint32_t type, int32_t number,
                         std::optional<int32_t> location, int64_t time,
                         const std::function<void(const test_definition&, int64_t)>& each,
                         std::string& error) override {
        definitions_read++;
        auto is_one = [&](const definition& d) {
            return d.agent == agent && d.type == type && d.number == number &&
                   d.location == location.value_or(d.location);
        };
        const definition* found = nullptr;
        int64_t until = INT64_MAX;
        for (const definition& d : definitions) {
            if (is_one(d) && (found == nullptr || d.since <= time)) {
                found = &d;
                until = INT64_MAX;
            } else if (is_one(d)) {
                until = std::min(until, d.since);
            }
        }
        if (found != nullptr) {
            each(view_of(*found), until);
        }
        return is_good(error);
    }
    bool for_each_fleet_revision(bool, const std::function<bool(const fleet_revision&)>&,
                                 std::string& error) override {
        return is_good(error);
    }
    bool read_fleet(int32_t, const std::function<void(const fleet_revision&)>&,
                    std::string& error) override {
        return is_good(error);
    }
    bool for_each_fleet_agent(const std::function<void(const fleet_agent&)>&,
                              std::string& error) override {
        return is_good(error);
    }
    bool for_each_change(const change_filter&, const std::function<bool(const stored_change&)>&,
                         std::string& error) override {
        return is_good(error);
    }
    bool renew(std::string&) override { return true; }
    void rest() override {}
    std::optional<int64_t> read_fact(const char* name) override {
        auto found = facts.find(name);
        return found != facts.end() ? std::optional(found->second) : std::nullopt;
    }

    std::string failure;        /* of every read from now on, unless empty */
    bool damaged_state = false; /* of the agent */

private:
    static test_definition view_of(const definition& d) {
        return {.agent = d.agent,
                .type = d.type,
                .number = d.number,
                .location = d.location,
                .since = d.since,
                .name = d.name,
                .text = d.text,
                .title = d.title,
                .group = d.group};
    }

    bool is_good(std::string& error) const {
        error = failure;
        return failure.empty();
    }

    template <typename Do>
    void for_each_record(std::string_view records, Do each) {
        for (block_reader reader(records); reader.next();) {
            if (!reader.good) {
                continue;
            }
            record_summary summary = summarize(reader.current);
            for (const auto& [id, test] : tests) {
                if (test.type == summary.type && test.number == summary.test) {
                    each(id, decoded_record{reader.current, summary});
                }
            }
        }
    }

    void roll_up_day(int64_t test, int64_t day) {
        result_builder builder(false);
        for (const auto& [received, record] : packed[test]) {
            builder.add(record, received);
        }
        std::vector<result> results = builder.take_all();
        order_by_time(results);
        std::vector<bucket> buckets = roll_up(results, day, 300, stale_after);
        if (buckets.empty()) {
            return;
        }
        pack_roll_up(buckets, five_minutes[{test, day}]);
        pack_roll_up(widen(buckets, 3600), hours[{test, day}]);
    }

    int64_t next_row_ = 1;
    bool is_reading_ = false;
};

#endif
