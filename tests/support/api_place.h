/* A store with a collector's writer, and the API on it: for tests of the resources. */
#ifndef API_PLACE_H
#define API_PLACE_H

#include "api/answer.h"
#include "api/json.h"
#include "api/route.h"
#include "api/services.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"

#include "collector_test_support.h"
#include "decisions_in_memory.h"
#include "fake_fleet.h"
#include "json_schema.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/* Passes on what is asked of it, and notes what changes the store. */
class noting_ingest final : public ingest {
public:
    explicit noting_ingest(ingest& to) : to_(to) {}
    void submit(poll_block block, std::function<void(store_result)> done) override {
        to_.submit(std::move(block), std::move(done));
    }
    void heard(std::string_view account, std::string_view agent, int64_t received,
               std::string_view address, std::string_view version) override {
        to_.heard(account, agent, received, address, version);
    }
    void held_up(std::string_view account, std::string_view agent) override {
        to_.held_up(account, agent);
    }
    void follow(plan_summary plan, std::vector<owned_definition> definitions) override {
        to_.follow(std::move(plan), std::move(definitions));
    }
    void follow_agents(std::vector<agent_plan> plans) override {
        to_.follow_agents(std::move(plans));
    }
    void update(std::function<bool(engine&)> what, change_done done) override {
        if (!answers) {
            unanswered.push_back(std::move(done));
            changes++;
            return;
        }
        changes++;
        if (failure.empty()) {
            to_.update(std::move(what), std::move(done));
        } else {
            done(false, failure);
        }
    }
    void retire(int64_t agent, change_done done) override {
        retired.push_back(agent);
        if (failure.empty() && !is_missing) {
            to_.retire(agent, std::move(done));
        } else {
            done(false, failure);
        }
    }

    queue_load waiting() override { return queued ? *queued : to_.waiting(); }
    queue_delay behind() override { return to_.behind(); }

    std::optional<queue_load> queued;
    std::atomic<int> changes = 0;
    std::vector<int64_t> retired;
    std::vector<change_done> unanswered;
    std::string failure;
    bool is_missing = false, answers = true;

private:
    ingest& to_;
};

class settings_in_memory final : public decisions_in_memory {
public:
    bool add_token(const stored_token& what, int64_t& id, std::string& error) override {
        error = failure;
        for (const auto& [other, token] : tokens) {
            if (what.kind == token_kind::token && token.name == what.name) {
                return false;
            }
        }
        if (failure.empty()) {
            id = ++last_;
            tokens[id] = what;
            tokens[id].id = id;
            changed();
        }
        return failure.empty();
    }
    bool drop_token(int64_t id, std::string& error) override {
        error = failure;
        changed();
        return failure.empty() && tokens.erase(id) > 0;
    }
    bool for_each_token(const std::function<void(const stored_token&)>& each,
                        std::string& error) override {
        error = failure;
        for (const auto& [id, token] : tokens) {
            each(token);
        }
        return failure.empty();
    }
    bool find_token(const token_hash& hash, int64_t, std::optional<stored_token>& found,
                    std::string& error) override {
        error = failure;
        found.reset();
        for (const auto& [id, token] : tokens) {
            if (token.hash == hash) {
                found = token;
            }
        }
        return failure.empty();
    }

    std::map<int64_t, stored_token> tokens;
    std::string failure;

private:
    int64_t last_ = 0;
};

constexpr int64_t api_noon = 1777636800; /* 2026-05-01 12:00 UTC */

class api_place : public testing::Test {
protected:
    inline static std::atomic<int64_t> now = api_noon;

    void SetUp() override {
        now = api_noon;
        arrival_clock = [] { return now.load(); };
        steady_clock = [] { return now.load(); };
        begin();
    }
    void TearDown() override {
        with.reset();
        noting.reset();
        store.reset();
        arrival_clock = epoch_seconds;
        steady_clock = boot_seconds;
    }

    void begin() {
        std::string error;
        store = ingest::open({.directory = state}, listener, error);
        ASSERT_TRUE(store) << error;
        noting = std::make_unique<noting_ingest>(*store);
        with.reset(new api_services{
            .stored = stored,
            .results = *noting,
            .hub = hub,
            .kept = kept,
            .agents = agents,
            .where_agents_poll = [this] { return where; },
            .secrets = secrets,
            .counted = counted,
            .now = [] { return now.load(); },
            .check_now =
                [this](std::string_view account, std::string_view agent) {
                    told.push_back("check " + std::string(account) + "/" + std::string(agent));
                    return has_session;
                },
            .send_away =
                [this](std::string_view account, std::string_view agent) {
                    told.push_back("away " + std::string(account) + "/" + std::string(agent));
                },
            .readiness =
                [this](bool& ready) {
                    ready = is_ready;
                    return notes;
                },
            .version = "3.0",
            .fleet = &fleet});
    }

    /* The store's thread has looked after agents and tests since the last block: that comes behind
     * the changes, so the second of two has it behind it. */
    void settle() {
        for (int i = 0; i < 2; i++) {
            std::promise<bool> done;
            store->update([](engine&) { return true; },
                          [&](bool ok, const std::string&) { done.set_value(ok); });
            ASSERT_TRUE(done.get_future().get());
        }
    }

    /* Stored when it returns, and what follows from it is. */
    void submit(const std::string& records, const std::string& agent = "web-1",
                const std::string& account = "a@b.c") {
        std::promise<store_result> result;
        store->submit({account, agent, records, now, "192.0.2.1", "3.0"},
                      [&](store_result r) { result.set_value(r); });
        ASSERT_NE(result.get_future().get(), store_result::failed);
        settle();
    }

    void follow(std::vector<owned_definition> definitions) {
        plan_summary plan;
        plan.is_planned = true;
        for (const owned_definition& d : definitions) {
            plan.tests.emplace_back(d.type, d.number);
        }
        store->follow(std::move(plan), std::move(definitions));
    }

    api_answer ask(const std::string& target, const std::string& method = "GET",
                   const std::string& body = "", role may = role::admin) {
        api_request asked;
        asked.body = body;
        asked.who = {may, 1, "ann", "192.0.2.9"};
        asked.deadline = deadline;
        asked.if_none_match = if_none_match;
        asked.accept = accept;
        return answer_request(method, target, asked, *with);
    }

    /* The answer, which has to have that status, and to fit the schema that its row has. */
    boost::json::value get(const std::string& target, int status = 200,
                           const std::string& method = "GET", const std::string& body = "",
                           role may = role::admin) {
        api_answer answer = ask(target, method, body, may);
        EXPECT_EQ(answer.status, status) << target << "\n" << answer.body;
        if (answer.body.empty()) {
            return nullptr;
        }
        boost::json::error_code error;
        boost::json::value value = boost::json::parse(answer.body, error);
        EXPECT_FALSE(error) << answer.body;
        std::vector<std::string> in_path;
        std::string allowed;
        const route* row = find_route(method, target.substr(0, target.find('?')), in_path, allowed);
        const char* schema = answer.status < 400 && row != nullptr ? row->answers : "problem";
        EXPECT_EQ(answer.type,
                  answer.status < 400 ? "application/json" : "application/problem+json");
        EXPECT_EQ(misfit(value, schema), "") << target << "\n" << answer.body;
        return value;
    }

    static std::string misfit(const boost::json::value& value, const std::string& schema) {
        static const boost::json::value description = boost::json::parse(open_api());
        const auto& components = description.at("components").at("schemas").as_object();
        return json_schema(components).check(value, components.at(schema));
    }

    /* `detail` of a problem. */
    std::string refused(const std::string& target, int status, const std::string& method = "GET",
                        const std::string& body = "", role may = role::admin) {
        boost::json::value value = get(target, status, method, body, may);
        return value.is_object() && value.as_object().contains("detail")
                   ? std::string(value.at("detail").as_string())
                   : "";
    }

    /* Of each item in a list what stands at `path` ("agent.name"), with spaces between. */
    static std::string column(const boost::json::value& list, const std::string& path) {
        std::string all;
        for (const boost::json::value& item : list.at("items").as_array()) {
            const boost::json::value* at = &item;
            for (size_t begin = 0; begin < path.size();) {
                size_t end = std::min(path.find('.', begin), path.size());
                at = &at->at(path.substr(begin, end - begin));
                begin = end + 1;
            }
            all += (all.empty() ? "" : " ") +
                   (at->is_string() ? std::string(at->as_string()) : json_text(*at));
        }
        return all;
    }

    /* All pages of a list, of so many items each, in one. */
    std::string pages(const std::string& target, const std::string& path, int limit) {
        std::string all;
        std::string more = (target.find('?') == std::string::npos ? "?" : "&") +
                           std::string("limit=") + std::to_string(limit);
        for (std::string next = ""; all.size() < 100000;) {
            boost::json::value list = get(target + more + next);
            all += (all.empty() ? "" : " ") + column(list, path);
            EXPECT_LE(list.at("items").as_array().size(), static_cast<size_t>(limit));
            if (list.at("next").is_null()) {
                return all;
            }
            next = "&next=" + std::string(list.at("next").as_string());
        }
        return all + " without end";
    }

    scratch_directory directory;
    std::string state = directory / "state";
    store_listener* listener = nullptr;
    reader_pool stored{state};
    event_hub hub;
    settings_in_memory kept;
    known_agents agents{kept, agents_mode::proven, [] { return now.load(); }};
    known_secrets secrets{kept, state};
    enrolment_place where{"https://collector.example.org:8443", protocol::sha256{1, 2, 3}};
    counters counted;
    fake_fleet fleet;
    std::unique_ptr<ingest> store;
    std::unique_ptr<noting_ingest> noting;
    std::unique_ptr<api_services> with;
    std::vector<std::string> told, notes;
    bool has_session = true, is_ready = true;
    std::string if_none_match, accept;
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

#endif
