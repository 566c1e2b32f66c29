/* A keeper on a real store, and agents that do what they are told, in one program. The clocks are
 * the test's, but for the keeper's own ticks. */
#ifndef KEPT_FLEET_H
#define KEPT_FLEET_H

#include "fleet/keeper.h"
#include "fleet/stored_fleet.h"
#include "ingest/clock.h"
#include "ingest/store_listeners.h"
#include "plan/line.h"
#include "state/definition.h"
#include "store/settings.h"

#include "collector_test_support.h"
#include "eventually.h"

#include <atomic>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kept_fleet {

inline const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */
inline std::atomic<int64_t> wall = noon, steady = 1000;

inline void pass(int64_t seconds) {
    wall += seconds;
    steady += seconds;
}

/* The store, as the test wants it to behave: what is to be changed may fail or wait. */
class steered_store : public ingest {
public:
    explicit steered_store(std::unique_ptr<ingest> real) : real_(std::move(real)) {}

    void submit(poll_block block, std::function<void(store_result)> done) override {
        real_->submit(std::move(block), std::move(done));
    }
    void heard(std::string_view account, std::string_view agent, int64_t received,
               std::string_view address, std::string_view version) override {
        real_->heard(account, agent, received, address, version);
    }
    void held_up(std::string_view account, std::string_view agent) override {
        real_->held_up(account, agent);
    }
    void follow(plan_summary plan, std::vector<owned_definition> definitions) override {
        real_->follow(std::move(plan), std::move(definitions));
    }
    void follow_agents(std::vector<agent_plan> plans) override {
        {
            std::lock_guard hold(mutex_);
            for (const agent_plan& one : plans) {
                followed_[one.agent] = one.plan;
            }
        }
        real_->follow_agents(std::move(plans));
    }
    void update(std::function<bool(engine&)> what, change_done done) override {
        if (fails) {
            real_->update([](engine&) { return false; }, std::move(done));
            return;
        }
        if (around_done) {
            done = [this, done = std::move(done)](bool ok, const std::string& reason) {
                around_done([&] { done(ok, reason); });
            };
        }
        std::lock_guard hold(mutex_);
        if (holds) {
            held_.emplace_back(std::move(what), std::move(done));
            return;
        }
        real_->update(std::move(what), std::move(done));
    }
    void retire(int64_t agent, change_done done) override { real_->retire(agent, std::move(done)); }
    queue_load waiting() override { return real_->waiting(); }

    /* What was held goes on, in its order. */
    void let_go() {
        std::lock_guard hold(mutex_);
        holds = false;
        for (auto& [what, done] : held_) {
            real_->update(std::move(what), std::move(done));
        }
        held_.clear();
    }
    size_t held() {
        std::lock_guard hold(mutex_);
        return held_.size();
    }
    plan_summary followed(const std::string& agent) {
        std::lock_guard hold(mutex_);
        return followed_[agent];
    }

    std::atomic<bool> fails = false, holds = false;
    std::function<void(const std::function<void()>& done)> around_done; /* on the store's thread */

private:
    std::unique_ptr<ingest> real_;
    std::mutex mutex_;
    std::vector<std::pair<std::function<bool(engine&)>, change_done>> held_;
    std::map<std::string, plan_summary> followed_;
};

/* Passes on what the store's thread tells. */
class heard_by : public store_listener {
public:
    std::atomic<store_listener*> to = nullptr;
    void on_record(const poll_block& from, const decoded_record& result) override {
        if (store_listener* it = to) {
            it->on_record(from, result);
        }
    }
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override {
        if (store_listener* it = to) {
            it->on_agent(id, account, agent, now, changes);
        }
    }
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override {
        if (store_listener* it = to) {
            it->on_retired(id, account, agent, time);
        }
    }
    void on_batch_end() override {
        if (store_listener* it = to) {
            it->on_batch_end();
        }
    }
};

/* A record of a row of the protocol, with these in their places. */
inline std::string result_of(uint32_t type, int32_t number, int32_t location,
                             double first_real = 1) {
    const protocol::record_def* row = protocol::find_record(type);
    record_builder made;
    using protocol::value_role;
    using protocol::value_type;
    for (const protocol::value_def& value : row->values) {
        const auto word = static_cast<uint32_t>(value.role == value_role::code       ? type
                                                : value.role == value_role::test     ? number
                                                : value.role == value_role::location ? location
                                                                                     : 0);
        switch (value.type) {
        case value_type::ui32:
            made.ui32.push_back(word);
            break;
        case value_type::i64:
            made.i64.push_back(value.role == value_role::time ? wall.load() : 0);
            break;
        case value_type::d64:
            made.d64.push_back(made.d64.empty() ? first_real : 1);
            break;
        case value_type::string:
            made.strings.emplace_back("text\n");
            break;
        case value_type::i32:
            made.i32.push_back(0);
            break;
        case value_type::ui64:
            made.ui64.push_back(0);
            break;
        }
    }
    return made.bytes();
}

inline std::string inventory_of(uint32_t type, const std::string& items) {
    return record_builder{.ui32 = {type, 0, 0}, .i64 = {wall.load()}, .strings = {items}}.bytes();
}

class place;

/* An agent that runs. */
class sim_agent {
public:
    sim_agent(place& at, std::string name) : at_(at), name(std::move(name)) {}

    /* Starts anew, without tests. */
    void start();
    /* Has been told to log in again, and does. */
    void log_in_again();
    /* `running`: as the collector's sessions know of it. */
    void log_in(bool running);
    /* Sends what there is and obeys the answer; false when the block was not stored. */
    bool poll();
    /* The same, but the answer is lost on its way: the collector does not know, either. */
    void poll_in_vain();

    struct told_test {
        int32_t location = 0;
        std::string fields; /* behind it */
        bool operator==(const told_test&) const = default;
    };
    using test_map = std::map<std::pair<uint32_t, int32_t>, told_test>; /* by list and number */

private:
    place& at_;

public:
    const std::string name;
    const std::string account = "me@example.org";
    bool is_proven = false, is_deaf = false; /* it takes answers, and does nothing */
    test_map tests;
    int32_t poll_s = 0, check_s = 0;
    std::optional<std::string> disks, interfaces; /* items, a tab behind each */
    double whole_gb = 100;
    std::set<uint32_t> mute; /* types of which it brings no results */
    std::string last_answer; /* as it came */
    std::shared_ptr<session> held = std::make_shared<session>();
    std::vector<std::string> extra; /* records that it sends with the next block */

private:
    void obey(const std::string& text);
    void prepare();
    bool submit();
    void answer(bool is_taken);
};

/* Where it all is. */
class place {
public:
    place() {
        wall = noon;
        steady = 1000;
        arrival_clock = [] { return wall.load(); };
        steady_clock = [] { return steady.load(); };
        boot_number = [] { return int64_t{1}; };
    }
    ~place() {
        close();
        arrival_clock = epoch_seconds;
        steady_clock = boot_seconds;
        boot_number = read_boot_number;
    }
    place(const place&) = delete;
    place& operator=(const place&) = delete;

    scratch_directory directory;
    std::string state_dir = directory / "state";
    std::string file; /* --fleet */
    std::unique_ptr<settings> kept;
    std::unique_ptr<known_secrets> secrets;
    heard_by heard;
    std::unique_ptr<fleet_keeper> keeper;
    std::unique_ptr<steered_store> store;
    std::vector<std::string> early;
    std::string error;

    bool open() {
        early.clear();
        error.clear();
        std::filesystem::create_directory(state_dir);
        std::filesystem::permissions(state_dir, std::filesystem::perms::owner_all);
        std::string note;
        kept = settings::open(state_dir, note, error);
        EXPECT_TRUE(kept) << error;
        secrets = std::make_unique<known_secrets>(*kept, state_dir);
        secrets->refresh(error);
        std::unique_ptr<ingest> real =
            ingest::open({.directory = state_dir, .hidden = &secrets->hidden()}, &heard, error);
        EXPECT_TRUE(real) << error;
        store = std::make_unique<steered_store>(std::move(real));
        keeper_options options;
        options.directory = state_dir;
        options.file = file;
        options.secrets = secrets.get();
        options.kept = kept.get();
        options.log = [this](const std::string& line) {
            std::lock_guard hold(mutex_);
            log_ += line + "\n";
        };
        options.on_change = [this](const stored_change& one) {
            std::lock_guard hold(mutex_);
            told_.push_back(copy_of(one));
        };
        keeper = fleet_keeper::open(std::move(options), early, error);
        heard.to = keeper.get();
        if (keeper && !keeper->start(*store, error)) {
            keeper.reset();
        }
        if (!keeper) {
            heard.to = nullptr;
        }
        return keeper != nullptr;
    }
    /* Ends in order, or as if it were killed: what is not stored is not. */
    void close(bool in_order = true) {
        if (keeper && !in_order && store) {
            store->fails = true;
        }
        if (keeper) {
            keeper->stop();
        }
        store.reset();
        heard.to = nullptr;
        keeper.reset();
        secrets.reset();
        kept.reset();
    }
    bool open_again(bool in_order = true) {
        close(in_order);
        return open();
    }

    fleet_outcome apply(const std::string& text, std::optional<int32_t> expected = {}) {
        return keeper->apply(text, "ann", expected);
    }
    /* Of one group with all agents, and a second's intervals unless others are given. */
    static std::string everything(const std::string& tests, const std::string& intervals = "1s") {
        return "version: 1\nintervals: {poll: " + intervals + ", check: " + intervals +
               "}\ngroups:\n  - name: everything\n    agents: [\"*\"]\n    tests:\n" + tests;
    }

    std::unique_ptr<result_reader> reader() {
        std::string failed;
        std::unique_ptr<result_reader> made = open_reader(state_dir, failed);
        EXPECT_TRUE(made) << failed;
        return made;
    }
    stored_fleet stored() {
        stored_fleet found;
        std::string failed;
        EXPECT_TRUE(read_stored_fleet(*reader(), found, failed)) << failed;
        return found;
    }
    /* All that are stored, by id. */
    std::vector<kept_change> changes() {
        std::vector<kept_change> all;
        std::string failed;
        reader()->for_each_change(
            {},
            [&](const stored_change& one) {
                all.insert(all.begin(), copy_of(one));
                return true;
            },
            failed);
        EXPECT_EQ(failed, "");
        return all;
    }
    /* "add load 1 confirmed", without the intervals'. */
    std::vector<std::string> outcomes(bool with_reason = false) {
        static const char* const words[] = {"", "sent", "confirmed", "unanswered", "impossible"};
        std::vector<std::string> all;
        for (const kept_change& one : changes()) {
            if (one.action != change_action::intervals) {
                all.push_back(std::string(action_word(one.action)) + " " + one.test + " " +
                              std::to_string(one.number) + " " +
                              words[static_cast<size_t>(one.outcome)]);
                if (with_reason && !one.reason.empty()) {
                    all.back() += ": " + one.reason;
                }
            }
        }
        return all;
    }
    bool becomes(const std::vector<std::string>& wanted) {
        const bool is_so = eventually([&] { return outcomes() == wanted; });
        EXPECT_TRUE(is_so) << testing::PrintToString(outcomes(true));
        return is_so;
    }
    std::string log() {
        std::lock_guard hold(mutex_);
        return log_;
    }
    std::vector<kept_change> told() {
        std::lock_guard hold(mutex_);
        return told_;
    }
    bool set_secret(const std::string& name, const std::string& value) {
        return secrets->set(name, value, "ann", wall, error);
    }

private:
    std::mutex mutex_;
    std::string log_;
    std::vector<kept_change> told_;
};

/* ---- the agent ---- */

inline void sim_agent::prepare() {
    auto ready = std::make_shared<std::promise<void>>();
    if (!at_.keeper->prepare(*held, [ready] { ready->set_value(); })) {
        EXPECT_EQ(ready->get_future().wait_for(std::chrono::seconds(60)),
                  std::future_status::ready);
    }
    at_.keeper->refresh();
}

inline void sim_agent::log_in(bool running) {
    held = std::make_shared<session>();
    held->account = account;
    held->agent = name;
    held->proven = is_proven;
    held->running = running;
    prepare();
    const told_commands told = at_.keeper->for_login(*held);
    held->delivered = held->answered_from = told.upto;
    last_answer = told.text;
    at_.keeper->answer_arrived(*held);
    obey(told.text);
}

inline void sim_agent::start() {
    tests.clear();
    poll_s = check_s = 0;
    log_in(false);
}

inline void sim_agent::log_in_again() {
    log_in(true);
}

inline bool sim_agent::submit() {
    std::string block;
    for (const auto& [key, test] : tests) {
        const protocol::command_def* adds = nullptr;
        for (const protocol::command_def& each : protocol::commands) {
            if (each.list == key.first && each.results != 0 &&
                each.does == protocol::command_effect::adds) {
                adds = adds == nullptr ? &each : adds;
            }
        }
        if (adds != nullptr && !mute.contains(adds->results)) {
            block += result_of(adds->results, key.second, test.location, whole_gb);
        }
    }
    for (const std::string& record : extra) {
        block += record;
    }
    extra.clear();
    block += inventory_of(type_process_names, "init\t" + std::to_string(steady.load()) + "\t");
    if (disks) {
        block += inventory_of(type_file_systems, *disks);
    }
    if (interfaces) {
        block += inventory_of(type_network_interfaces, *interfaces);
    }
    std::promise<store_result> result;
    at_.store->submit({account, name, block, wall}, [&](store_result r) { result.set_value(r); });
    return result.get_future().get() == store_result::stored;
}

inline void sim_agent::answer(bool is_taken) {
    prepare();
    const uint64_t from = held->delivered;
    const told_commands told = at_.keeper->after(*held, from);
    last_answer = told.text;
    if (!is_taken) {
        return;
    }
    held->answered_from = from;
    held->delivered = std::max(held->delivered, told.upto);
    at_.keeper->answer_arrived(*held);
    obey(told.text);
}

inline bool sim_agent::poll() {
    held->polls++;
    if (held->polls == 1) {
        at_.keeper->login_arrived(*held);
    }
    if (!submit()) {
        return false;
    }
    answer(true);
    return true;
}

inline void sim_agent::poll_in_vain() {
    held->polls++;
    EXPECT_TRUE(submit());
    answer(false);
}

inline void sim_agent::obey(const std::string& text) {
    using protocol::command_effect;
    for (size_t at = 0; at < text.size() && !is_deaf;) {
        const size_t end = text.find('\n', at);
        ASSERT_NE(end, text.npos);
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const command_line parsed = parse_line(line);
        ASSERT_NE(parsed.command, nullptr) << line;
        EXPECT_EQ(why_refused(line, parsed), "") << line;
        if (parsed.fields[0] == "POL" || parsed.fields[0] == "CHK") {
            (parsed.fields[0] == "POL" ? poll_s : check_s) =
                std::stoi(std::string(parsed.fields[2]));
            continue;
        }
        const test_place test = parsed.test();
        const std::pair key(test.list, test.id);
        if (parsed.command->does == command_effect::removes) {
            tests.erase(key);
            continue;
        }
        const bool is_there = tests.contains(key);
        const bool adds = parsed.command->does == command_effect::adds;
        if (adds == is_there) {
            continue;
        }
        size_t behind = 0;
        for (int tabs = 0; tabs < 3; tabs++) {
            behind = line.find('\t', behind) + 1;
        }
        tests[key] = {std::stoi(std::string(parsed.fields[2])), line.substr(behind)};
    }
    /* Nothing was told that the store could forget. */
    int32_t highest = 0;
    for (const auto& [key, test] : tests) {
        highest = std::max(highest, test.location);
    }
    if (!is_deaf && highest > 0 && !text.empty()) {
        EXPECT_LE(highest, at_.stored().highest);
    }
}

} // namespace kept_fleet

#endif
