#include "ingest/attendance.h"

#include "ingest/clock.h"
#include "ingest/in_transaction.h"
#include "protocol/record_types.h"

#include <algorithm>

static constexpr std::chrono::milliseconds most{10}; /* of work in a transaction */
static constexpr size_t most_agents = 64;            /* in one */
static constexpr size_t most_heard = 100000; /* between two looks; more are strangers' inventions */
static constexpr int64_t between_looks = 2;  /* seconds */
static constexpr int64_t asleep = 10;        /* that long without a look: nobody listened */
static constexpr int64_t between_rows = 180; /* a row is written that seldom for its last_seen */

static watch::standing standing_of(const test_status& test) {
    return test.now == state::stale     ? watch::standing::stale
           : test.now == state::unknown ? watch::standing::gone
                                        : watch::standing::awaited;
}

int64_t attendance::clock() {
    return steady_clock();
}

/* ---- any thread ---- */

void attendance::heard(std::string_view account, std::string_view agent, int64_t received,
                       std::string_view address, std::string_view version) {
    std::string key;
    key.reserve(account.size() + 1 + agent.size());
    key.append(account).append(1, '\0').append(agent);
    std::lock_guard hold(mutex_);
    if (heard_.size() >= most_heard && !heard_.contains(key)) {
        return;
    }
    heard_agent& known = heard_[key];
    known.account = account;
    known.name = agent;
    known.received = received;
    known.at = clock();
    if (!address.empty()) {
        known.address = address;
    }
    if (!version.empty()) {
        known.version = version;
    }
}

void attendance::held_up(std::string_view account, std::string_view agent) {
    std::lock_guard hold(mutex_);
    if (held_up_.size() < most_heard) {
        held_up_.emplace(account, agent);
    }
}

void attendance::follow(plan_summary plan, std::vector<owned_definition> definitions) {
    std::lock_guard hold(mutex_);
    plan_ = std::move(plan);
    told_ = std::move(definitions);
}

void attendance::follow_agents(std::vector<agent_plan> plans) {
    std::lock_guard hold(mutex_);
    agent_plans_.insert(agent_plans_.end(), std::make_move_iterator(plans.begin()),
                        std::make_move_iterator(plans.end()));
}

/* ---- the store's thread ---- */

patience attendance::now(agent_work& agent, std::string_view account, std::string_view name) const {
    const int64_t now = clock();
    const expectations::shared own = expected_.find(account, name);
    const expected& plan = own ? *own : expected_.others();
    const intervals every = plan.at(now);
    agent.state.every = own ? std::optional(every) : std::nullopt;
    return {.interval = every.check, .stale_after = plan.stale_after(now)};
}

int64_t attendance::longest_stale_after() const {
    return expected_.longest_stale_after(clock());
}

/* Every agent that has an id gets into the roster here. */
roster_agent& attendance::add_to_roster(int64_t id, std::string_view account,
                                        std::string_view name) {
    if (expected_.has_own() && !own_.contains(id)) {
        if (expectations::shared own = expected_.find(account, name)) {
            own_[id] = std::move(own);
            definitions_.has_id(account, name, id);
        }
    }
    return agents_.add(id, account, name);
}

void attendance::know(const known_agent& row, const agent_state& state, int64_t now) {
    roster_agent& agent = add_to_roster(row.id, row.account, row.agent);
    note_open(agent, state);
    if (state.every && !own_.contains(row.id)) {
        before_[row.id] = *state.every;
    }
    agent.row_written = now - 1; /* who is heard now comes after it */
    if (row.retired != 0) {
        return;
    }
    watch_.know(row.id, state.silent, now);
    for (const test_status& test : state.tests) {
        newest_ = std::max(newest_, test.time);
        if (test.number) {
            watch_.know(row.id, {test.type, *test.number}, standing_of(test), now);
        }
    }
}

void attendance::begin() {
    const int64_t now = clock();
    agents_.clear();
    own_.clear();
    before_.clear();
    watch_ = watch(now);
    looked_ = now;
    newest_ = INT64_MIN;
    stale_after_ = engine_.read_fact("stale_after");
    every_.reset();
    /* Until somebody tells what is to come, it is what was to come in the last run. */
    std::optional<int64_t> poll = engine_.read_fact("poll"), check = engine_.read_fact("check");
    if (poll && check) {
        every_ =
            intervals{.poll = static_cast<int32_t>(*poll), .check = static_cast<int32_t>(*check)};
    }
    if (!is_told_ && every_) {
        plan_summary last;
        last.every = *every_;
        expected_.follow(last, now);
    }
    overdue_.clear();
    back_.clear();
    definitions_.begin();
    agent_state state;
    std::string error;
    engine_.reader().for_each_agent(
        [&](const known_agent& row) {
            state.unpack(row.state);
            know(row, state, now);
        },
        error);
}

void attendance::stored(const agent_work& agent, std::string_view account, std::string_view name,
                        int64_t at, bool in_row) {
    const int64_t now = clock();
    roster_agent& known = add_to_roster(agent.id, account, name);
    note_open(known, agent.state);
    known.row_written = in_row ? now : known.row_written;
    watch_.heard(agent.id, at);
    size_t last = SIZE_MAX;
    std::optional<int64_t> claimed; /* newest, of those that have times of their own */
    int64_t arrival = 0;
    for (size_t place : agent.places) {
        if (place == last || place >= agent.state.tests.size()) {
            continue;
        }
        last = place;
        const test_status& test = agent.state.tests[place];
        newest_ = std::max(newest_, test.time);
        if (test.number) {
            watch_.came(agent.id, {test.type, *test.number}, now);
        }
        if (test.number && test.type != protocol::mysql.code) {
            claimed = std::max(claimed.value_or(test.claimed), test.claimed);
            arrival = test.received;
        }
    }
    if (in_row && claimed) {
        witness_.note(*claimed, arrival, now);
    }
}

void attendance::forget(int64_t agent) {
    take_in();
    watch_.forget(agent);
    back_.erase(agent);
    std::erase_if(overdue_, [&](const watch::overdue& what) { return what.agent == agent; });
    if (roster_agent* known = agents_.find(agent)) {
        unwritten_.erase(known->account + '\0' + known->name);
        known->row_written = clock();
    }
}

bool attendance::take_plan() {
    {
        std::lock_guard hold(mutex_);
        if (plan_) {
            taken_.plan = std::exchange(plan_, std::nullopt);
        }
        if (told_) {
            taken_.told = std::exchange(told_, std::nullopt);
        }
    }
    if (taken_.plan) {
        expected_.follow(*taken_.plan, clock());
        is_told_ = true;
        taken_.plan.reset();
    }
    if (taken_.told) {
        definitions_.follow(std::move(*taken_.told));
        taken_.told.reset();
    }
    take_agent_plans();
    return is_told_;
}

void attendance::take_agent_plans() {
    std::vector<agent_plan>& plans = taken_.plans;
    if (plans.empty()) {
        std::lock_guard hold(mutex_);
        plans.swap(agent_plans_);
        taken_.defined = 0;
    }
    if (plans.empty()) {
        return;
    }
    std::vector<expectations::own> own;
    own.reserve(plans.size());
    for (const agent_plan& told : plans) {
        const roster_agent* known = agents_.find(told.account, told.agent);
        auto before = known != nullptr ? before_.find(known->id) : before_.end();
        own.push_back(
            {.account = told.account,
             .agent = told.agent,
             .plan = &told.plan,
             .before = before != before_.end() ? std::optional(before->second) : std::nullopt});
    }
    expected_.follow(own, clock()); /* once more, where it could not be gone through at once */
    for (; taken_.defined < plans.size(); taken_.defined++) {
        agent_plan& told = plans[taken_.defined];
        const roster_agent* known = agents_.find(told.account, told.agent);
        if (known != nullptr) {
            own_[known->id] = expected_.find(told.account, told.agent);
            before_.erase(known->id);
        }
        definitions_.follow(told.account, told.agent, known != nullptr ? known->id : 0,
                            std::move(told.definitions));
    }
    std::vector<agent_plan>().swap(plans);
}

/* What was told since the last time. */
void attendance::take_in() {
    take_plan();
    inbox heard;
    std::set<std::pair<std::string, std::string>> held_up;
    {
        std::lock_guard hold(mutex_);
        heard.swap(heard_);
        held_up.swap(held_up_);
    }
    for (const auto& [account, name] : held_up) {
        if (const roster_agent* agent = agents_.find(account, name)) {
            watch_.held_up(agent->id, clock());
        }
    }
    for (auto& [key, what] : heard) {
        roster_agent* agent = agents_.find(what.account, what.name);
        if (agent != nullptr && watch_.heard(agent->id, what.at)) {
            back_[agent->id] = what.received;
        }
        if (unwritten_.size() < most_heard && (agent == nullptr || what.at > agent->row_written)) {
            auto [known, fresh] = unwritten_.try_emplace(key);
            what.first = fresh ? what.at : known->second.first;
            known->second = std::move(what);
        }
    }
}

bool attendance::run() {
    const int64_t now = clock();
    bool awake = now - looked_ < asleep;
    if (!awake) {
        watch_.pause(now);
    }
    if (now - looked_ >= between_looks) {
        take_in();
        looked_ = now;
        found_all_ = false;
        written_all_ = false;
    }
    if (!found_all_ && overdue_.empty()) {
        auto plan_of = [&](int64_t agent) -> const expected& {
            auto own = own_.find(agent);
            return own != own_.end() ? *own->second : expected_.others();
        };
        watch_.find_overdue(plan_of, now, most_agents, overdue_);
        found_all_ = overdue_.size() < most_agents;
    }
    bool ok = true;
    if (!back_.empty() || !overdue_.empty()) {
        ok = write_states();
    }
    if (ok && definitions_.is_due()) {
        ok = definitions_.run(arrival_clock());
    }
    ok = ok && write_patience();
    ok = ok && (written_all_ || write_rows(now - between_rows));
    if (!ok) {
        put_back(now);
    }
    return ok && (!back_.empty() || !overdue_.empty() || !found_all_ || !written_all_ ||
                  definitions_.is_due());
}

/* For those who read, and for the next run: the longest, so that nobody is found to be silent who
 * is not. */
bool attendance::write_patience() {
    const int64_t wanted = longest_stale_after();
    const intervals every = expected_.longest(clock());
    if (stale_after_ == wanted && every_ == every) {
        return true;
    }
    bool ok = in_transaction(engine_, [&] {
        return engine_.set_fact("stale_after", wanted) && engine_.set_fact("poll", every.poll) &&
               engine_.set_fact("check", every.check);
    });
    stale_after_ = ok ? std::optional(wanted) : std::nullopt;
    every_ = ok ? std::optional(every) : std::nullopt;
    return ok;
}

/* What is not written did not happen; and who is overdue is asked again when all works. */
void attendance::put_back(int64_t now) {
    watch_.pause(now);
    for (const watch::overdue& what : overdue_) {
        watch_.take_back(what);
    }
    overdue_.clear();
    found_all_ = true; /* until the next look */
}

/* True when the row is right: also when there is nothing to write, because a poll of the agent came
 * between. */
bool attendance::write_state(watch::overdue& what, agent_work& work) {
    stored_agent row;
    if (!engine_.find_agent(what.agent, row)) {
        return engine_.reason().empty(); /* there is no such agent any more */
    }
    work.begin(row);
    const int64_t now = arrival_clock();
    auto back = back_.find(what.agent);
    if (back != back_.end()) {
        take_heard(work.state, back->second, work.out);
    } else if (!watch_.still_holds(what)) {
        return true;
    } else if (what.silent) {
        take_silence(work.state, now, work.out);
    } else {
        take_stale(work.state, what.tests, now, work.out);
        take_gone(work.state, what.gone, now, work.out);
    }
    return work.out.changes.empty() ||
           (storing_.changes(work) && engine_.set_state(work.id, storing_.packed(work)));
}

/* Those that are back, and then some of those that are overdue. */
bool attendance::write_states() {
    std::vector<watch::overdue> due;
    for (auto agent = back_.begin(); agent != back_.end() && due.size() < most_agents; ++agent) {
        due.push_back({.agent = agent->first});
    }
    const size_t returned = due.size();
    const size_t taken = std::min(overdue_.size(), most_agents - returned);
    due.insert(due.end(), overdue_.begin(), overdue_.begin() + static_cast<ptrdiff_t>(taken));
    works_.resize(std::max(works_.size(), due.size()));
    size_t done = 0;
    bool ok = in_transaction(engine_, [&] {
        spell time(most);
        for (done = 0; done < due.size() && (done == 0 || !time.is_over()); done++) {
            works_[done].out.clear();
            if (!write_state(due[done], works_[done])) {
                return false;
            }
        }
        return true;
    });
    for (size_t i = 0; ok && i < done; i++) {
        if (i < returned) {
            back_.erase(due[i].agent);
        }
        const roster_agent* agent = agents_.find(due[i].agent);
        if (agent != nullptr && !works_[i].out.changes.empty()) {
            tell_(*agent, works_[i]);
        }
    }
    if (ok && done > returned) {
        overdue_.erase(overdue_.begin(),
                       overdue_.begin() + static_cast<ptrdiff_t>(done - returned));
    }
    return ok;
}

bool attendance::write_row(const heard_agent& what, agent_work& work) {
    stored_agent row;
    if (!engine_.find_agent(what.account, what.name, what.received, row)) {
        return false;
    }
    work.id = row.id;
    const std::string last_block(row.last_block), state(row.state);
    return engine_.end_block(
        row.id, {.received = what.received, .address = what.address, .version = what.version},
        last_block, state);
}

/* Those that were written before `due`, by steady_clock, or heard of then for the first time. */
bool attendance::write_rows(int64_t due) {
    std::vector<inbox::iterator> some;
    for (auto one = unwritten_.begin(); one != unwritten_.end() && some.size() < most_agents;) {
        const roster_agent* agent = agents_.find(one->second.account, one->second.name);
        if (agent != nullptr && agent->row_written >= one->second.at) {
            one = unwritten_.erase(one); /* with a block */
            continue;
        }
        if ((agent != nullptr ? agent->row_written : one->second.first) <= due) {
            some.push_back(one);
        }
        ++one;
    }
    written_all_ = some.size() < most_agents;
    if (some.empty()) {
        return true;
    }
    works_.resize(std::max(works_.size(), some.size()));
    bool ok = in_transaction(engine_, [&] {
        size_t written = 0;
        while (written < some.size() && write_row(some[written]->second, works_[written])) {
            written++;
        }
        return written == some.size();
    });
    for (size_t i = 0; ok && i < some.size(); i++) {
        const heard_agent& what = some[i]->second;
        bool fresh = agents_.find(works_[i].id) == nullptr;
        roster_agent& agent = add_to_roster(works_[i].id, what.account, what.name);
        agent.row_written = clock();
        if (fresh) {
            watch_.know(agent.id, false, what.at);
        }
        unwritten_.erase(some[i]);
    }
    return ok;
}

void attendance::finish() {
    take_in();
    for (size_t before = SIZE_MAX; !unwritten_.empty() && unwritten_.size() < before;) {
        before = unwritten_.size();
        if (!write_rows(INT64_MAX)) {
            return;
        }
    }
}
