/* Start, thread and end. */
#include "fleet/keeper_body.h"

#include "base/text.h"

#include <algorithm>
#include <future>
#include <pthread.h>
#include <system_error>

static constexpr std::chrono::seconds between_ticks{1};
static constexpr std::chrono::seconds longest_storing{10};
static constexpr size_t most_agents = 2000; /* in one piece of work, but when a file is applied */
static constexpr size_t most_saved = 2000;  /* changes, likewise */
static constexpr size_t most_looked_at = 1000; /* agents, at a time with the mutex */
static constexpr size_t most_remarks = 20;     /* in the log */
static constexpr unsigned ticks_between_probes = 30;

std::unique_ptr<fleet_keeper>
fleet_keeper::open(keeper_options options, std::vector<std::string>& early, std::string& error) {
    auto body = std::make_unique<keeper_body>(std::move(options));
    return body->open(early, error) ? std::move(body) : nullptr;
}

keeper_body::keeper_body(keeper_options options)
    : options_(std::move(options)), kept_back_([this](const std::string& line) { log(line); }) {}

keeper_body::~keeper_body() {
    stop();
}

void keeper_body::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    }
}

std::string keeper_body::where(const std::string& path, const remark& what) {
    return path + ":" + std::to_string(what.at.line) + ":" + std::to_string(what.at.column) + ": " +
           what.text;
}

/* ---- start and end ---- */

bool keeper_body::start(ingest& results, std::string& error) {
    results_ = &results;
    results.follow({}, {}); /* not what the last run had */
    std::vector<ingest::agent_plan> plans;
    if (file_) {
        std::lock_guard hold(mutex_);
        plans = stored_plans();
    }
    tell_plans(std::move(plans));
    if (!store_ground(error)) {
        return false;
    }
    is_started_ = true;
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

/* With a turn: waits for the end of the work, as long as the store's thread may take. */
bool keeper_body::store_now(const work_pointer& work) {
    auto ended = std::make_shared<std::promise<bool>>();
    std::future<bool> end = ended->get_future();
    work->done = [ended](const fleet_work& done) { ended->set_value(done.ok); };
    submit(work);
    return end.wait_for(longest_storing) == std::future_status::ready && end.get();
}

void keeper_body::stop() {
    {
        std::lock_guard hold(mutex_);
        is_stopping_ = true;
    }
    changed_.notify_all();
    if (!thread_.joinable()) {
        return;
    }
    thread_.join();
    answer_waiting();
    for (bool more = true; more;) {
        work_pointer work;
        {
            std::unique_lock hold(mutex_);
            if (!changed_.wait_for(hold, longest_storing, [&] { return !is_busy_; })) {
                return;
            }
            work = collect_unsaved();
            is_busy_ = work != nullptr;
        }
        more = work && store_now(work);
    }
}

void keeper_body::read_file() {
    {
        std::lock_guard hold(mutex_);
        is_read_again_ = is_woken_ = true;
    }
    changed_.notify_all();
}

/* ---- the keeper's thread ---- */

void keeper_body::run() {
    steady::time_point tick_at = steady::now();
    std::unique_lock hold(mutex_);
    while (!is_stopping_) {
        changed_.wait_until(hold, next_look(tick_at), [&] { return is_woken_ || is_stopping_; });
        is_woken_ = false;
        const bool at_once = std::exchange(is_read_again_, false);
        hold.unlock();
        try {
            tell_finished();
            if (steady::now() >= tick_at) {
                tick_at = steady::now() + between_ticks;
                look_at_secrets();
                look_at_changes();
                look_at_file(false);
                look_at_store();
                is_saving_ = true;
            }
            if (at_once) {
                look_at_file(true);
            }
            apply_file();
            begin_work();
        } catch (const std::exception& e) { /* no memory, most likely */
            log(std::string("fleet: ") + e.what());
        }
        answer_waiting();
        hold.lock();
    }
}

/* With the mutex. */
keeper_body::steady::time_point keeper_body::next_look(steady::time_point tick) const {
    for (const waiting& each : waiting_) {
        tick = std::min(tick, each.until);
    }
    return tick;
}

/* Those whose answers can be made, and those that have waited long enough. */
void keeper_body::answer_waiting() {
    std::vector<std::function<void()>> ready;
    {
        std::lock_guard hold(mutex_);
        const steady::time_point time = steady::now();
        std::erase_if(waiting_, [&](waiting& each) {
            const bool is_over =
                is_stopping_ || time >= each.until || (!each.of->is_due && !each.of->is_awaited);
            if (is_over) {
                ready.push_back(std::move(each.ready));
            }
            return is_over;
        });
    }
    for (const std::function<void()>& each : ready) {
        each();
    }
}

void keeper_body::look_at_secrets() {
    if (options_.secrets == nullptr || options_.secrets->newest() == secrets_seen_) {
        return;
    }
    secrets_seen_ = options_.secrets->newest();
    std::lock_guard hold(mutex_);
    for (const auto& [key, agent] : agents_) {
        if (agent->is_there && agent->given->has_secrets()) {
            make_due(*agent);
        }
    }
}

/* What of the changes is late, a part of the agents at a time. */
void keeper_body::look_at_changes() {
    std::vector<kept_agent*> some;
    {
        std::lock_guard hold(mutex_);
        some.assign(open_.begin(), open_.end());
    }
    for (size_t from = 0; from < some.size(); from += most_looked_at) {
        const moment at = now();
        std::lock_guard hold(mutex_);
        for (size_t i = from; i < std::min(from + most_looked_at, some.size()); i++) {
            kept_agent& of = *some[i];
            if (of.changes.next_look() > at.steady) {
                continue;
            }
            std::vector<test_key> again;
            of.changes.look(*of.given, of.presence, at, again);
            for (const test_key& test : again) {
                if (std::find(of.again.begin(), of.again.end(), test) == of.again.end()) {
                    of.again.push_back(test);
                }
            }
            note(of);
        }
    }
}

/* Whether it is still the one that has what was written. */
void keeper_body::look_at_store() {
    if (++ticks_ % ticks_between_probes == 0) {
        results_->update(
            [this](engine& store) {
                note_store(store);
                return true;
            },
            [](bool, const std::string&) {});
    }
}

void keeper_body::look_at_file(bool at_once) {
    if (!watched_) {
        return;
    }
    std::string text, trouble;
    const file_watch::state found = watched_->look(at_once, text, trouble);
    if (found == file_watch::state::text) {
        pending_text_ = std::move(text);
    } else if (found == file_watch::state::failed) {
        pending_text_.reset();
        log("fleet: " + trouble + "; the fleet in force goes on");
        std::lock_guard hold(mutex_);
        file_trouble_ = trouble;
    }
}

/* What the file says now, if it is news and nothing else is under way. */
void keeper_body::apply_file() {
    if (!pending_text_) {
        return;
    }
    {
        std::lock_guard hold(mutex_);
        if (is_busy_ || steady::now() < retry_) {
            return;
        }
        if (in_force_.has_text && *pending_text_ == in_force_.text && file_) {
            file_trouble_.clear();
            pending_text_.reset();
            return;
        }
        is_busy_ = true;
    }
    auto file = std::make_shared<fleet>();
    std::vector<remark> wrong;
    bool is_read = false;
    with_turn([&] {
        is_read = read_fleet(*pending_text_, *file, wrong);
        if (is_read) {
            submit(make_application(*pending_text_, file, "file"));
        }
    });
    if (is_read) { /* whether it worked is seen when it is the text in force */
        for (const remark& each : file->notes) {
            log("fleet: " + where(options_.file, each));
        }
        return;
    }
    pending_text_.reset();
    for (size_t i = 0; i < std::min(wrong.size(), most_remarks); i++) {
        log("fleet: " + where(options_.file, wrong[i]));
    }
    const size_t more = wrong.size() - std::min(wrong.size(), most_remarks);
    log("fleet: " + (more > 0 ? std::to_string(more) + " more; " : std::string()) +
        "the fleet in force goes on");
    std::lock_guard hold(mutex_);
    file_trouble_ = where(options_.file, wrong.front());
    give_turn_back();
}

/* The next piece of work, if there is any and none is under way. */
void keeper_body::begin_work() {
    auto work = std::make_shared<fleet_work>();
    std::vector<agent_basis> due;
    {
        std::lock_guard hold(mutex_);
        if (is_busy_ || steady::now() < retry_) {
            return;
        }
        if (is_lost_) {
            work =
                make_ground("the store was begun anew, and has lost what agents are to do", true);
        } else {
            take_due(due);
        }
        if (!is_lost_ && due.empty()) {
            work = is_saving_ ? collect_unsaved() : nullptr;
            is_saving_ = work != nullptr;
        }
        is_busy_ = work != nullptr;
    }
    if (!work) {
        return;
    }
    with_turn([&] {
        work->now = now();
        if (!due.empty()) {
            make_due(*work, due);
        }
        if (work->is_ground) {
            work->revision.revision = next_revision();
            work->revision.time = work->now.wall;
        }
        submit(work);
    });
}

/* Without memory nobody else would ever have a turn. */
void keeper_body::with_turn(const std::function<void()>& what) {
    try {
        what();
    } catch (...) {
        std::lock_guard hold(mutex_);
        retry_ = steady::now() + std::chrono::seconds(1);
        for (const auto& [key, agent] : agents_) {
            if (std::exchange(agent->is_awaited, false)) {
                make_due(*agent);
            }
            note(*agent);
        }
        give_turn_back();
        throw;
    }
}

/* Those first that somebody waits for. With the mutex. */
void keeper_body::take_due(std::vector<agent_basis>& due) {
    auto take = [&](kept_agent* of) {
        if (of->is_due && of->is_there && file_) {
            due.push_back(basis_of(*of));
            of->is_awaited = true;
        }
        of->is_due = false;
    };
    for (const waiting& each : waiting_) {
        if (due.size() < most_agents) {
            take(each.of);
        }
    }
    while (!due_.empty() && due.size() < most_agents) {
        take(due_.back());
        due_.pop_back();
    }
}

/* With the mutex; null: there is nothing. */
keeper_body::work_pointer keeper_body::collect_unsaved() {
    auto work = std::make_shared<fleet_work>();
    work->now = now();
    size_t changes = 0;
    while (!noted_.empty() && changes < most_saved) {
        kept_agent& of = *noted_.back();
        noted_.pop_back();
        of.is_noted = false;
        fleet_work::agent saved = {.of = &of, .base = of.given, .is_changed = of.is_unsaved};
        of.changes.unsaved(saved.outcomes);
        if (saved.is_changed || !saved.outcomes.empty()) {
            changes += 1 + saved.outcomes.size();
            work->agents.push_back(std::move(saved));
        }
    }
    return work->agents.empty() ? nullptr : work;
}

/* ---- what follows from work that is done ---- */

void keeper_body::tell_finished() {
    std::vector<work_pointer> done;
    {
        std::lock_guard hold(mutex_);
        done.swap(finished_);
    }
    for (const work_pointer& work : done) {
        if (!work->ok) {
            const std::string trouble = "fleet: what agents are to do cannot be stored: ";
            if (trouble_ != work->reason) {
                log(trouble + work->reason);
            }
            trouble_ = work->reason;
            continue;
        }
        if (!trouble_.empty()) {
            log("fleet: what agents are to do is stored again");
            trouble_.clear();
        }
        if (work->revision.revision != 0) {
            log("fleet: revision " + std::to_string(work->revision.revision) + " by " +
                printable(work->revision.author) + ": " + work->revision.about);
        }
        tell_expectations(*work);
        if (work->revision.has_text) {
            keep_copy();
        }
        for (const fleet_work::agent& made : work->agents) {
            for (const auto* all : {&made.changes, &made.outcomes}) {
                for (const kept_change& one : *all) {
                    if (options_.on_change) {
                        options_.on_change(view_of(one, made.of->account, made.of->name));
                    }
                }
            }
        }
    }
}

/* As they are stored, before anything is made of the file. With the mutex. */
std::vector<ingest::agent_plan> keeper_body::stored_plans() const {
    std::vector<ingest::agent_plan> plans;
    for (const auto& [key, agent] : agents_) {
        if (agent->is_given && agent->is_there) {
            plans.push_back({.account = agent->account,
                             .agent = agent->name,
                             .plan = plan_of(*agent->given),
                             .definitions = {}});
        }
    }
    return plans;
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
