#include "fleet/fleet_loading.h"

#include "base/text.h"
#include "fleet/file.h"

#include <algorithm>
#include <optional>

namespace {

/* When a copy was put in the place of the store, or there is another, nobody knows what agents were
 * told since: what is given from then on is far above it. */
constexpr int64_t revisions_lost = 1'000'000, numbers_lost = 1000, most_lost = 1000;
constexpr int32_t highest_left = INT32_MAX - 1'000'000;

class loading {
public:
    loading(fleet_state& state, loaded_fleet& loaded, std::vector<std::string>& early)
        : state_(state), loaded_(loaded), early_(early) {}

    void take_stored(stored_fleet& stored);
    void take_copy(const fleet_copy& copy, bool is_older);

private:
    std::shared_ptr<const fleet> read_kept(const std::string& text);
    void take_agent(stored_fleet::agent& one);

    fleet_state& state_;
    loaded_fleet& loaded_;
    std::vector<std::string>& early_;
    int64_t restored_ = 0; /* so often since the last run */
};

void loading::take_stored(stored_fleet& stored) {
    restored_ = std::clamp<int64_t>(stored.restored - stored.restored_seen, 0, most_lost);
    loaded_.is_restored = restored_ > 0;
    state_.newest = stored.newest;
    state_.in_force = std::move(stored.in_force);
    state_.highest_revision = stored.highest;
    state_.newest_change = stored.newest_change;
    state_.facts = {
        .restored_seen = stored.restored,
        .first_number =
            std::max(stored.first_number, 1 + numbers_lost * std::min(stored.restored, most_lost))};
    if (state_.in_force.has_text) {
        state_.file = read_kept(state_.in_force.text);
    }
    for (stored_fleet::agent& one : stored.agents) {
        if (one.is_damaged) {
            early_.push_back("what " + printable(one.name) + " of " + printable(one.account) +
                             " was told is damaged in the store; it is told everything anew");
            one.is_given = true; /* so that what it is told has a revision of its own */
            one.given.next_number = static_cast<int32_t>(std::min<int64_t>(
                std::max<int64_t>(one.highest, state_.facts.first_number) + numbers_lost,
                INT32_MAX));
        }
        if (restored_ > 0) {
            one.given.next_number = static_cast<int32_t>(
                std::min<int64_t>(one.given.next_number + numbers_lost * restored_, INT32_MAX));
            for (assigned_test& test : one.given.tests) {
                test.confirmed = 0; /* it may have had another since the copy was made */
            }
            one.confirmed.clear();
        }
        take_agent(one);
    }
}

std::shared_ptr<const fleet> loading::read_kept(const std::string& text) {
    auto file = std::make_shared<fleet>();
    std::vector<remark> wrong;
    if (read_fleet(text, *file, wrong)) {
        return file;
    }
    early_.push_back("the fleet that was in force cannot be read by this version, and agents are "
                     "told nothing: line " +
                     std::to_string(wrong.front().at.line) + ": " + wrong.front().text);
    return nullptr;
}

/* Of the settings: how far revisions were given, and the text where the store has none. */
void loading::take_copy(const fleet_copy& copy, bool is_older) {
    /* Revisions are noted there ahead; the store knows better, unless it is an older one. */
    const int64_t given = is_older || restored_ > 0 ? std::max(state_.highest_revision, copy.newest)
                                                    : state_.highest_revision;
    state_.highest_revision =
        static_cast<int32_t>(std::min<int64_t>(given + revisions_lost * restored_, highest_left));
    if (copy.revision > 0 && state_.in_force.revision == 0) {
        loaded_.lost_file = read_kept(copy.text);
        loaded_.lost_text = copy.text;
        state_.facts.first_number =
            std::max(state_.facts.first_number,
                     1 + numbers_lost * std::min<int64_t>(state_.highest_revision, 1'000'000));
        early_.push_back("the store has lost the fleet; revision " + std::to_string(copy.revision) +
                         " by " + printable(copy.author) + " is applied anew");
    }
}

void loading::take_agent(stored_fleet::agent& one) {
    kept_agent* of = state_.find_or_make(one.account, one.name);
    if (of == nullptr) {
        return;
    }
    for (const auto& [type, number] : one.confirmed) {
        if (assigned_test* test = one.given.find(type, number)) {
            test->confirmed = test->revision;
        }
    }
    of->is_unsaved = !one.confirmed.empty() || loaded_.is_restored || one.is_damaged;
    of->is_there = one.is_there;
    of->may_run = true;
    of->is_given = one.is_given;
    of->given = std::make_shared<given_agent>(std::move(one.given));
    of->has = std::move(one.has);
    of->strays = std::move(one.strays);
    of->highest = one.highest;
    of->presence.is_silent = one.is_silent;
    of->presence.silent_since = one.since;
    const moment at = present_moment();
    for (kept_change& change : one.open) {
        of->changes.restore(std::move(change), at);
    }
    of->changes.follow(*of->given);
    for (const test_key& test : one.confirmed) {
        of->changes.came(test, of->given->find(test)->revision, at);
    }
    if (of->is_there) {
        state_.make_due(*of);
    }
    state_.note(*of);
}

} // namespace

bool load_fleet(const std::string& directory, fleet_state& state, revision_counter& revisions,
                loaded_fleet& loaded, std::vector<std::string>& early, std::string& error) {
    stored_fleet stored;
    std::unique_ptr<result_reader> store = open_reader(directory, error);
    if (!store || !read_stored_fleet(*store, stored, error)) {
        error = "what agents were told cannot be read: " + error;
        return false;
    }
    store.reset();
    std::optional<fleet_copy> copy;
    if (!revisions.read(copy, error)) {
        early.push_back("the copy of the fleet in the settings cannot be read: " + error);
    }
    error.clear();
    std::lock_guard hold(state.mutex);
    class loading all(state, loaded, early);
    all.take_stored(stored);
    const fleet_copy none = {};
    all.take_copy(copy ? *copy : none, copy && revisions.is_older(*copy));
    return true;
}
