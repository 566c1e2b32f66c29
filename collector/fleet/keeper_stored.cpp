/* What is stored: read at the start, and put there anew where it was lost. */
#include "fleet/keeper_body.h"

#include "base/text.h"

#include <algorithm>

/* When a copy was put in the place of the store, or there is another, nobody knows what agents were
 * told since: what is given from then on is far above it. */
static constexpr int64_t revisions_lost = 1'000'000, numbers_lost = 1000, most_lost = 1000;
static constexpr int32_t reserved_at_a_time = 1000; /* revisions, in the settings */

bool keeper_body::open(std::vector<std::string>& early, std::string& error) {
    stored_fleet stored;
    std::unique_ptr<result_reader> store = open_reader(options_.directory, error);
    if (!store || !read_stored_fleet(*store, stored, error)) {
        error = "what agents were told cannot be read: " + error;
        return false;
    }
    store.reset();
    take_stored(stored, early);
    take_copy(early);
    return take_file(early, error);
}

void keeper_body::take_stored(stored_fleet& stored, std::vector<std::string>& early) {
    const int64_t restored =
        std::clamp<int64_t>(stored.restored - stored.restored_seen, 0, most_lost);
    newest_ = stored.newest;
    in_force_ = std::move(stored.in_force);
    highest_revision_ = stored.highest;
    newest_change_ = stored.newest_change;
    facts_ = {.restored_seen = stored.restored,
              .first_number = std::max(stored.first_number,
                                       1 + numbers_lost * std::min(stored.restored, most_lost))};
    is_restored_ = restored > 0;
    restored_ = restored;
    if (in_force_.has_text) {
        file_ = read_kept(in_force_.text, early);
    }
    for (stored_fleet::agent& one : stored.agents) {
        if (one.is_damaged) {
            early.push_back("what " + printable(one.name) + " of " + printable(one.account) +
                            " was told is damaged in the store; it is told everything anew");
        }
        if (restored > 0) {
            one.given.next_number = static_cast<int32_t>(
                std::min<int64_t>(one.given.next_number + numbers_lost * restored, INT32_MAX));
            for (assigned_test& test : one.given.tests) {
                test.confirmed = 0; /* it may have had another since the copy was made */
            }
            one.confirmed.clear();
        }
        take_agent(one);
    }
}

std::shared_ptr<const fleet> keeper_body::read_kept(const std::string& text,
                                                    std::vector<std::string>& early) {
    auto file = std::make_shared<fleet>();
    std::vector<remark> wrong;
    if (read_fleet(text, *file, wrong)) {
        return file;
    }
    early.push_back("the fleet that was in force cannot be read by this version, and agents are "
                    "told nothing: " +
                    where("line", wrong.front()));
    return nullptr;
}

/* Of the settings: how far revisions were given, and the text where the store has none. */
void keeper_body::take_copy(std::vector<std::string>& early) {
    std::optional<fleet_copy> copy;
    std::string error;
    if (options_.kept != nullptr && !options_.kept->read_fleet_copy(copy, error)) {
        early.push_back("the copy of the fleet in the settings cannot be read: " + error);
    }
    if (copy) {
        /* Revisions are noted ahead, so that this is above all that were given; the store knows
         * better, unless it is an older one. */
        const bool is_older = restored_ > 0 || copy->revision > in_force_.revision ||
                              copy->newest - reserved_at_a_time > highest_revision_;
        highest_revision_ =
            is_older ? std::max(highest_revision_, copy->newest) : highest_revision_;
        reserved_ = copy->newest;
    }
    highest_revision_ = static_cast<int32_t>(std::min<int64_t>(
        highest_revision_ + revisions_lost * restored_, INT32_MAX - reserved_at_a_time));
    if (copy && copy->revision > 0 && in_force_.revision == 0) {
        lost_file_ = read_kept(copy->text, early);
        lost_text_ = std::move(copy->text);
        facts_.first_number =
            std::max(facts_.first_number,
                     1 + numbers_lost * std::min<int64_t>(highest_revision_, 1'000'000));
        early.push_back("the store has lost the fleet; revision " + std::to_string(copy->revision) +
                        " by " + printable(copy->author) + " is applied anew");
    }
}

void keeper_body::take_agent(stored_fleet::agent& one) {
    kept_agent* of = find_or_make(one.account, one.name);
    if (of == nullptr) {
        return;
    }
    for (const auto& [type, number] : one.confirmed) {
        if (assigned_test* test = one.given.find(type, number)) {
            test->confirmed = test->revision;
        }
    }
    of->is_unsaved = !one.confirmed.empty() || is_restored_;
    of->is_there = one.is_there;
    of->may_run = true;
    of->is_given = one.is_given;
    of->given = std::make_shared<given_agent>(std::move(one.given));
    of->has = std::move(one.has);
    of->strays = std::move(one.strays);
    of->highest = one.highest;
    of->presence.is_silent = one.is_silent;
    of->presence.silent_since = one.since;
    const moment at = now();
    for (kept_change& change : one.open) {
        of->changes.restore(std::move(change), at);
    }
    of->changes.follow(*of->given);
    for (const test_key& test : one.confirmed) {
        of->changes.came(test, of->given->find(test)->revision, at);
    }
    if (of->is_there) {
        make_due(*of);
    }
    note(*of);
}

/* Of --fleet. */
bool keeper_body::take_file(std::vector<std::string>& early, std::string& error) {
    if (options_.file.empty()) {
        return true;
    }
    watched_ = std::make_unique<file_watch>(options_.file);
    std::string text;
    std::vector<std::string> wrong;
    if (watched_->look(true, text, error) == file_watch::state::failed) {
        wrong.push_back(error);
    } else if (in_force_.has_text && text == in_force_.text && file_) {
        error.clear();
        return true;
    } else {
        fleet file;
        std::vector<remark> remarks;
        if (read_fleet(text, file, remarks)) {
            pending_text_ = std::move(text);
            error.clear();
            return true;
        }
        for (const remark& each : remarks) {
            wrong.push_back(where(options_.file, each));
        }
    }
    if (file_) {
        file_trouble_ = wrong.front();
        early.insert(early.end(), wrong.begin(), wrong.end());
        early.push_back("the fleet of revision " + std::to_string(in_force_.revision) +
                        " stays in force");
        error.clear();
        return true;
    }
    error = std::move(wrong.back());
    wrong.pop_back();
    early.insert(early.end(), wrong.begin(), wrong.end());
    return false;
}

/* Ahead of everything else: what is given from now on is above all that was given since the copy
 * was made. */
bool keeper_body::store_ground(std::string& error) {
    work_pointer work;
    {
        std::lock_guard hold(mutex_);
        if (is_restored_) {
            work = make_ground("a copy of the store was put in its place: numbers and revisions "
                               "that may have been given since are left out",
                               false);
        }
        is_busy_ = work || lost_file_;
    }
    if (work) {
        work->now = now();
        work->revision.revision = next_revision();
        work->revision.time = work->now.wall;
    } else if (lost_file_) {
        work = make_application(lost_text_, lost_file_, "collector");
    }
    if (work && !store_now(work)) {
        error = "what agents are to do cannot be stored: " + work->reason;
        return false;
    }
    if (in_force_.has_text) {
        keep_copy();
    }
    return true;
}

/* All that is known, for a store that has not got it. With the mutex. */
keeper_body::work_pointer keeper_body::make_ground(const char* why, bool with_text) {
    auto work = std::make_shared<fleet_work>();
    work->is_ground = true;
    for (const auto& [key, agent] : agents_) {
        if (agent->is_given) {
            fleet_work::agent& saved = work->agents.emplace_back();
            saved.of = agent.get();
            saved.base = agent->given;
            saved.is_changed = true;
            saved.outcomes = agent->changes.open();
        }
    }
    work->revision.author = "collector";
    work->revision.about = why;
    if (with_text && in_force_.has_text) {
        work->revision.text = in_force_.text;
        work->revision.has_text = true;
        work->file = file_;
    }
    return work;
}

/* On the store's thread. */
void keeper_body::note_store(engine& store) {
    const unsigned generation = store.generation();
    const std::optional<unsigned> before = std::exchange(generation_, generation);
    if (!before || *before == generation) {
        return;
    }
    {
        std::lock_guard hold(mutex_);
        is_lost_ = newest_.revision > 0;
        is_woken_ = true;
    }
    changed_.notify_all();
}

/* ---- the copy in the settings ---- */

void keeper_body::keep(int32_t newest) {
    if (options_.kept == nullptr) {
        return;
    }
    std::lock_guard one_at_a_time(copying_);
    fleet_copy copy;
    {
        std::lock_guard hold(mutex_);
        copy = {.newest = newest,
                .revision = in_force_.revision,
                .time = in_force_.time,
                .author = in_force_.author,
                .text = in_force_.text};
    }
    std::string error;
    if (!options_.kept->keep_fleet(copy, error)) {
        log("fleet: the copy in the settings cannot be written: " + error);
        return;
    }
    reserved_ = std::max(reserved_.load(), newest);
}

void keeper_body::keep_copy() {
    keep(0);
}

/* With a turn. */
int32_t keeper_body::next_revision() {
    int32_t next = 0;
    {
        std::lock_guard hold(mutex_);
        next = highest_revision_ = std::max(highest_revision_, newest_.revision) + 1;
    }
    if (next > reserved_) {
        keep(next + reserved_at_a_time);
    }
    return next;
}
