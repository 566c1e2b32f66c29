/* A keeper is put together of what agents are told (told_fleet.h), what comes of them
 * (heard_fleet.h) and what the API asks (asked_fleet.h), over one state (fleet_state.h). Here is
 * its thread: what follows from inventories, results, secrets and the file. */
#include "fleet/keeper.h"

#include "base/text.h"
#include "fleet/asked_fleet.h"
#include "fleet/file.h"
#include "fleet/fleet_loading.h"
#include "fleet/fleet_storing.h"
#include "fleet/heard_fleet.h"
#include "fleet/ruling_file.h"
#include "fleet/told_fleet.h"

#include <algorithm>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace {

using steady = fleet_state::clock;
using ending = fleet_storing::ending;

constexpr std::chrono::seconds between_ticks{1}, longest_storing{10};
constexpr unsigned ticks_between_probes = 30;
constexpr size_t most_looked_at = 1000; /* agents, at a time with the mutex */

class keeper_body final : public fleet_keeper {
public:
    explicit keeper_body(keeper_options options) : options_(std::move(options)) {
        if (!options_.log) {
            options_.log = [](const std::string&) {};
        }
        if (!options_.file.empty()) {
            file_ = std::make_unique<ruling_file>(options_.file);
        }
    }
    ~keeper_body() override { stop(); }
    bool open_all(std::vector<std::string>& early, std::string& error);

    bool start(ingest& results, std::string& error) override;
    void read_file() override;
    void stop() override;

    void refresh() override {}
    bool prepare(const session& of, std::function<void()> ready) override {
        return told_.prepare(of, std::move(ready));
    }
    told_commands for_login(const session& of) override { return told_.for_login(of); }
    told_commands after(const session& of, uint64_t serial) override {
        return told_.after(of, serial);
    }
    std::string text_for_check(const session& of) override { return told_.text_for_check(of); }
    void login_arrived(const session& of) override { told_.login_arrived(of); }
    void answer_arrived(const session& of) override { told_.answer_arrived(of); }
    std::chrono::seconds poll_interval(const session& of) const override {
        return told_.poll_interval(of);
    }

    void on_record(const poll_block& from, const decoded_record& result) override {
        heard_.on_record(from, result);
    }
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override {
        heard_.on_agent(id, account, agent, now, changes);
    }
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override {
        heard_.on_retired(id, account, agent, time);
    }
    void on_batch_end() override { heard_.on_batch_end(); }

    fleet_standing standing() const override { return asked_.standing(); }
    std::string text(int32_t& revision) const override { return asked_.text(revision); }
    fleet_outcome try_out(std::string_view text) override { return asked_.try_out(text); }
    fleet_outcome apply(std::string_view text, const std::string& author,
                        std::optional<int32_t> expected) override {
        return asked_.apply(text, author, expected);
    }
    std::vector<std::string> groups_of(std::string_view account,
                                       std::string_view agent) const override {
        return asked_.groups_of(account, agent);
    }
    std::vector<fleet_test_standing> tests_of(std::string_view account,
                                              std::string_view agent) const override {
        return asked_.tests_of(account, agent);
    }
    std::optional<fleet_test_standing> test_of(std::string_view account, std::string_view agent,
                                               uint32_t type, int32_t number) const override {
        return asked_.test_of(account, agent, type, number);
    }
    std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                       uint32_t type, int32_t number) const override {
        return asked_.name_of(account, agent, type, number);
    }

private:
    void log(const std::string& line) const { options_.log(line); }
    void log_failure(const std::exception& what) const;
    bool open_file(std::vector<std::string>& early, std::string& error);
    bool store_ground(std::string& error);
    void save_all();

    /* ---- its thread ---- */
    void run();
    steady::time_point next_look(steady::time_point tick) const; /* with the mutex */
    void tick();
    void answer_waiting();
    void look_at_secrets();
    void look_at_changes();
    void look_at_file(bool at_once);
    void apply_file();
    void begin_work();
    void tell_finished();
    void tell_of(const fleet_work& done);
    void tell_expectations(const fleet_work& done);
    void tell_plans(std::vector<ingest::agent_plan> plans) const;

    keeper_options options_;
    ingest* results_ = nullptr;
    loaded_fleet loaded_;
    std::unique_ptr<ruling_file> file_; /* keeper's thread; null: there is none */

    fleet_state state_;
    revision_counter revisions_{state_, options_.kept, options_.log};
    work_maker made_{state_, revisions_, options_.secrets};
    fleet_storing stored_{state_, options_.secrets};
    told_fleet told_{state_, options_.secrets, options_.log};
    heard_fleet heard_{state_};
    asked_fleet asked_{state_, made_, stored_, options_.file};

    bool is_read_again_ = false; /* the file, at once; with the mutex */
    uint64_t secrets_seen_ = 0;  /* here and below the keeper's thread */
    unsigned ticks_ = 0;
    bool is_saving_ = false;
    std::string trouble_;                      /* as told last */
    std::vector<work_maker::pointer> telling_; /* of what is finished; the last is next */
    std::thread thread_;
};

/* ---- start and end ---- */

bool keeper_body::open_all(std::vector<std::string>& early, std::string& error) {
    return load_fleet(options_.directory, state_, revisions_, loaded_, early, error) &&
           open_file(early, error);
}

/* Of --fleet. */
bool keeper_body::open_file(std::vector<std::string>& early, std::string& error) {
    std::vector<std::string> wrong;
    if (!file_ || file_->open(wrong)) {
        return true;
    }
    if (state_.file) {
        state_.file_trouble = file_->trouble();
        early.insert(early.end(), wrong.begin(), wrong.end());
        early.push_back("the fleet of revision " + std::to_string(state_.in_force.revision) +
                        " stays in force");
        return true;
    }
    error = std::move(wrong.back());
    wrong.pop_back();
    early.insert(early.end(), wrong.begin(), wrong.end());
    return false;
}

/* As they are stored, before anything is made of the file. With the mutex. */
std::vector<ingest::agent_plan> stored_plans(const fleet_state& state) {
    std::vector<ingest::agent_plan> plans;
    for (const auto& [key, agent] : state.agents) {
        if (state.file && agent->is_given && agent->is_there) {
            plans.push_back({.account = agent->account,
                             .agent = agent->name,
                             .plan = plan_of(*agent->given),
                             .definitions = {}});
        }
    }
    return plans;
}

bool keeper_body::start(ingest& results, std::string& error) {
    results_ = &results;
    stored_.begin(results);
    results.follow({}, {}); /* not what the last run had */
    std::vector<ingest::agent_plan> plans;
    {
        std::lock_guard hold(state_.mutex);
        plans = stored_plans(state_);
    }
    tell_plans(std::move(plans));
    if (!store_ground(error)) {
        return false;
    }
    {
        std::lock_guard hold(state_.mutex);
        state_.is_started = true;
    }
    apply_file();
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error& e) {
        error = "cannot start a thread: " + e.code().message();
        return false;
    }
    pthread_setname_np(thread_.native_handle(), "fleet");
    return true;
}

/* Ahead of everything else: what is given from now on is above all that was ever given. */
bool keeper_body::store_ground(std::string& error) {
    work_maker::pointer work;
    bool has_text = false;
    {
        std::lock_guard hold(state_.mutex);
        if (loaded_.is_restored) {
            work = made_.collect_all("a copy of the store was put in its place: numbers and "
                                     "revisions that may have been given since are left out",
                                     false);
        }
        state_.is_busy = work || loaded_.lost_file;
        has_text = state_.in_force.has_text;
    }
    if (work) {
        made_.complete(*work);
    } else if (loaded_.lost_file) {
        work = made_.make_application(loaded_.lost_text, loaded_.lost_file, "collector");
    }
    const ending end = work ? stored_.submit_and_wait(work) : ending::stored;
    if (end != ending::stored) {
        error = "what agents are to do cannot be stored: " +
                (end == ending::late ? "the store takes too long" : work->reason);
        return false;
    }
    if (has_text) {
        revisions_.keep_text();
    }
    return true;
}

void keeper_body::stop() {
    {
        std::lock_guard hold(state_.mutex);
        state_.is_stopping = true;
    }
    state_.changed.notify_all();
    if (thread_.joinable()) {
        thread_.join();
        answer_waiting();
        save_all();
        try {
            tell_finished();                /* the text in force has a copy in the settings */
        } catch (const std::exception& e) { /* no memory, most likely */
            log_failure(e);
        }
    }
}

void keeper_body::save_all() {
    for (ending end = ending::stored; end == ending::stored;) {
        work_maker::pointer work;
        {
            std::unique_lock hold(state_.mutex);
            if (!state_.changed.wait_for(hold, longest_storing, [&] { return !state_.is_busy; })) {
                return;
            }
            work = made_.collect_unsaved();
            state_.is_busy = work != nullptr;
        }
        end = work ? stored_.submit_and_wait(work) : ending::failed;
    }
}

void keeper_body::read_file() {
    {
        std::lock_guard hold(state_.mutex);
        is_read_again_ = state_.is_woken = true;
    }
    state_.changed.notify_all();
}

/* ---- its thread ---- */

/* Says nothing when there is not even memory for that. */
void keeper_body::log_failure(const std::exception& what) const {
    try {
        log(std::string("fleet: ") + what.what());
    } catch (const std::exception&) {
    }
}

/* Nothing may be thrown here but in a try: there is nobody above. */
void keeper_body::run() {
    steady::time_point tick_at = steady::now();
    std::unique_lock hold(state_.mutex);
    while (!state_.is_stopping) {
        state_.changed.wait_until(hold, next_look(tick_at),
                                  [&] { return state_.is_woken || state_.is_stopping; });
        state_.is_woken = false;
        const bool at_once = std::exchange(is_read_again_, false);
        hold.unlock();
        try {
            tell_finished();
            if (steady::now() >= tick_at) {
                tick_at = steady::now() + between_ticks;
                tick();
            }
            if (at_once) {
                look_at_file(true);
            }
            apply_file();
            begin_work();
        } catch (const std::exception& e) { /* no memory, most likely */
            log_failure(e);
        }
        answer_waiting();
        hold.lock();
    }
}

void keeper_body::tick() {
    look_at_secrets();
    look_at_changes();
    look_at_file(false);
    if (++ticks_ % ticks_between_probes == 0) {
        stored_.probe();
    }
    is_saving_ = true;
}

steady::time_point keeper_body::next_look(steady::time_point tick) const {
    for (const fleet_state::waiting_answer& each : state_.waiting) {
        tick = std::min(tick, each.until);
    }
    return tick;
}

/* Those whose answers can be made, and those that have waited long enough. Asks for no memory. */
void keeper_body::answer_waiting() {
    std::unique_lock hold(state_.mutex);
    std::vector<fleet_state::waiting_answer>& all = state_.waiting;
    const steady::time_point time = steady::now();
    for (size_t i = 0; i < all.size();) { /* others only append to it */
        if (!state_.is_stopping && time < all[i].until &&
            (all[i].of->is_due || all[i].of->is_awaited)) {
            i++;
            continue;
        }
        std::swap(all[i], all.back());
        const std::function<void()> ready = std::move(all.back().ready);
        all.pop_back();
        hold.unlock();
        ready();
        hold.lock();
    }
}

void keeper_body::look_at_secrets() {
    if (options_.secrets == nullptr || options_.secrets->newest() == secrets_seen_) {
        return;
    }
    secrets_seen_ = options_.secrets->newest();
    std::lock_guard hold(state_.mutex);
    for (const auto& [key, agent] : state_.agents) {
        if (agent->is_there && agent->given->has_secrets()) {
            state_.make_due(*agent);
        }
    }
}

/* What of the changes is late. With the mutex. */
void look_at(fleet_state& state, kept_agent& of, moment at) {
    if (of.changes.next_look() > at.steady) {
        return;
    }
    std::vector<test_key> again;
    of.changes.look(*of.given, of.presence, at, again);
    for (const test_key& test : again) {
        if (std::find(of.again.begin(), of.again.end(), test) == of.again.end()) {
            of.again.push_back(test);
        }
    }
    state.note(of);
}

/* A part of the agents at a time. */
void keeper_body::look_at_changes() {
    std::vector<kept_agent*> some;
    {
        std::lock_guard hold(state_.mutex);
        some.assign(state_.open.begin(), state_.open.end());
    }
    for (size_t from = 0; from < some.size(); from += most_looked_at) {
        const moment at = present_moment();
        std::lock_guard hold(state_.mutex);
        for (size_t i = from; i < std::min(from + most_looked_at, some.size()); i++) {
            look_at(state_, *some[i], at);
        }
    }
}

void keeper_body::look_at_file(bool at_once) {
    if (file_ && file_->look(at_once, options_.log) && !file_->text()) {
        std::lock_guard hold(state_.mutex);
        state_.file_trouble = file_->trouble();
    }
}

/* What the file says now, if it is news and nothing else is under way. */
void keeper_body::apply_file() {
    const std::optional<std::string> news = file_ ? file_->text() : std::nullopt;
    if (!news) {
        return;
    }
    const std::string& text = *news;
    {
        std::lock_guard hold(state_.mutex);
        if (state_.is_busy || steady::now() < state_.retry) {
            return;
        }
        if (state_.in_force.has_text && text == state_.in_force.text && state_.file) {
            state_.file_trouble.clear();
            file_->applied();
            return;
        }
        state_.is_busy = true;
    }
    with_turn(state_, [&] {
        auto file = std::make_shared<fleet>();
        std::vector<remark> wrong;
        if (read_fleet(text, *file, wrong)) {
            for (const remark& each : file->notes) {
                log("fleet: " + file_->where(each));
            }
            stored_.submit(made_.make_application(text, std::move(file), "file"));
            return; /* whether it worked is seen when it is the text in force */
        }
        file_->refused(wrong, options_.log);
        std::lock_guard hold(state_.mutex);
        state_.file_trouble = file_->trouble();
        state_.give_turn_back();
    });
}

/* The next piece of work, if there is any and none is under way. */
void keeper_body::begin_work() {
    auto work = std::make_shared<fleet_work>();
    std::vector<agent_basis> due;
    {
        std::lock_guard hold(state_.mutex);
        if (state_.is_busy || steady::now() < state_.retry) {
            return;
        }
        if (state_.differs != nullptr) {
            work = made_.collect_all(state_.differs, true);
        } else {
            made_.take_due(due);
            if (due.empty()) {
                work = is_saving_ ? made_.collect_unsaved() : nullptr;
                is_saving_ = work != nullptr;
            }
        }
        state_.is_busy = work != nullptr;
    }
    if (!work) {
        return;
    }
    with_turn(state_, [&] {
        if (work->is_all) {
            made_.complete(*work);
        } else if (!due.empty()) {
            work->now = present_moment();
            made_.make_due(*work, due);
        }
        stored_.submit(work);
    });
}

/* ---- what follows from work that is done ---- */

/* What is to be expected of agents is told even where there is no memory for it right now. */
void keeper_body::tell_finished() {
    if (telling_.empty()) {
        std::lock_guard hold(state_.mutex);
        telling_.swap(state_.finished);
        std::reverse(telling_.begin(), telling_.end());
    }
    while (!telling_.empty()) {
        if (telling_.back()->ok) {
            tell_expectations(*telling_.back());
        }
        const work_maker::pointer work = std::move(telling_.back());
        telling_.pop_back();
        if (!work->ok) {
            if (trouble_ != work->reason) {
                log("fleet: what agents are to do cannot be stored: " + work->reason);
            }
            trouble_ = work->reason;
            continue;
        }
        if (!trouble_.empty()) {
            log("fleet: what agents are to do is stored again");
            trouble_.clear();
        }
        tell_of(*work);
    }
}

void keeper_body::tell_of(const fleet_work& done) {
    const kept_revision& made = done.revision;
    if (made.revision != 0) {
        log("fleet: revision " + std::to_string(made.revision) + " by " + printable(made.author) +
            ": " + made.about);
    }
    if (made.has_text) {
        revisions_.keep_text();
    }
    for (const fleet_work::agent& each : done.agents) {
        for (const auto* all : {&each.changes, &each.outcomes}) {
            for (const kept_change& one : *all) {
                if (options_.on_change) {
                    options_.on_change(view_of(one, each.of->account, each.of->name));
                }
            }
        }
    }
}

/* Of the agents for which anything is another now. */
void keeper_body::tell_expectations(const fleet_work& done) {
    std::vector<ingest::agent_plan> plans;
    for (const fleet_work::agent& made : done.agents) {
        if (made.now && (made.is_changed || made.is_first)) {
            plans.push_back({.account = made.of->account,
                             .agent = made.of->name,
                             .plan = plan_of(*made.now),
                             .definitions = definitions_of(*made.now)});
        }
    }
    tell_plans(std::move(plans));
}

void keeper_body::tell_plans(std::vector<ingest::agent_plan> plans) const {
    if (plans.empty()) {
        return;
    }
    if (options_.on_plans) {
        std::vector<agent_summary> all;
        all.reserve(plans.size());
        for (const ingest::agent_plan& one : plans) {
            all.push_back({.account = one.account, .agent = one.agent, .plan = one.plan});
        }
        options_.on_plans(std::move(all));
    }
    results_->follow_agents(std::move(plans));
}

} // namespace

std::unique_ptr<fleet_keeper>
fleet_keeper::open(keeper_options options, std::vector<std::string>& early, std::string& error) {
    auto body = std::make_unique<keeper_body>(std::move(options));
    return body->open_all(early, error) ? std::move(body) : nullptr;
}
