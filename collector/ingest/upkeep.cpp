#include "ingest/upkeep.h"

#include "ingest/clock.h"

#include <algorithm>

upkeep_pace pace;

/* Of a bite. */
static constexpr std::chrono::milliseconds gathering{5}, packing_time{10};

/* What is damaged is tried once more in the file opened anew. When that is of no use either, the
 * file is set aside; in the one that takes its place there is nothing to do yet. */
template <typename Do>
bool upkeep::surely(Do all) {
    bool ok = all();
    if (!ok && engine_.recover()) {
        ok = all();
        if (!ok) {
            engine_.recover();
        }
    }
    return ok;
}

void upkeep::begin() {
    has_begun_ = false;
    packing_.give_up();
    due_.clear();
    not_before_ = looked_ = looked_for_ = INT64_MIN;
    one_by_one_ = false;
    expiry_.begin();
}

bool upkeep::run(const upkeep_view& view) {
    return run(view, true);
}

bool upkeep::run_without_expiry(const upkeep_view& view) {
    return run(view, false);
}

bool upkeep::run(const upkeep_view& view, bool with_expiry) {
    if (steady_clock() < not_before_) {
        return false;
    }
    spell time(pace.bite);
    progress made = progress::some;
    do {
        has_begun_ = has_begun_ || surely([&] { return closing_.begin(view.now); });
        made = has_begun_ ? step(view, with_expiry) : progress::failed;
    } while (made == progress::some && !time.is_over());
    if (made == progress::failed) {
        failed();
    }
    return made == progress::some;
}

upkeep::progress upkeep::step(const upkeep_view& view, bool with_expiry) {
    if (view.clock == witness::verdict::agrees && closing_.is_ahead(view.now) &&
        !surely([&] { return closing_.go_back(view.now); })) {
        return progress::failed;
    }
    progress made = pack(view);
    if (made != progress::none) {
        return made;
    }
    made = closing_.is_due(view.now) ? close(view) : progress::none;
    if (made != progress::none) {
        return made;
    }
    return with_expiry && expiry_.run(view.clock) ? progress::some : progress::none;
}

void upkeep::failed() {
    trouble_.report("what is stored cannot be packed: " + engine_.reason());
    const int64_t now = steady_clock();
    not_before_ = now + pace.after_failure;
    std::vector<int64_t> at_work = packing_.agents();
    packing_.give_up();
    if (at_work.size() == 1) {
        if (roster_agent* agent = agents_.find(at_work[0])) {
            agent->pack_not_before = now + pace.of_an_agent;
        }
    }
    one_by_one_ = at_work.size() > 1;
    due_.clear();
}

void upkeep::note_unreadable(const std::string& unreadable) {
    if (!unreadable.empty() && unreadable != unreadable_) {
        tell_("some of what is stored cannot be read: " + unreadable);
        unreadable_ = unreadable;
    }
}

/* ---- packing ---- */

bool upkeep::is_due(const roster_agent& agent, const upkeep_view& view) const {
    if (agent.open_bytes == 0 || steady_clock() < agent.pack_not_before) {
        return false;
    }
    const int64_t age = view.now - agent.open_since; /* below 0: the clock was set back */
    return agent.open_bytes > pace.open_most || age < -std::max<int64_t>(pace.open_for, 0) ||
           age > pace.open_for + agent.id * 7919 % pace.spread || agent.open_since < looked_for_;
}

void upkeep::look_for_due(const upkeep_view& view) {
    const int64_t now = steady_clock();
    const int64_t wanted = closing_.is_due(view.now) ? closing_.until() : INT64_MIN;
    if (now - pace.between_looks < looked_ && wanted == looked_for_) {
        return;
    }
    looked_ = now;
    looked_for_ = wanted;
    due_.clear();
    for (const auto& [id, agent] : agents_) {
        if (is_due(agent, view)) {
            due_.push_back(id);
        }
    }
}

bool upkeep::is_much(int64_t agent) const {
    const roster_agent* known = agents_.find(agent);
    return known != nullptr && known->open_bytes > pace.open_most &&
           steady_clock() >= known->pack_not_before;
}

void upkeep::grown(const roster_agent& agent) {
    if (is_much(agent.id) && (due_.empty() || due_.front() != agent.id)) {
        due_.push_front(agent.id);
    }
}

bool upkeep::is_behind() const {
    return steady_clock() >= not_before_ &&
           ((!due_.empty() && is_much(due_.front())) ||
            packing_.any_agent([&](int64_t id) { return is_much(id); }));
}

upkeep::progress upkeep::gather() {
    spell time(gathering);
    while (!due_.empty() && !packing_.is_full() && !time.is_over() &&
           !(one_by_one_ && !packing_.is_idle())) {
        roster_agent* agent = agents_.find(due_.front());
        due_.pop_front();
        std::string error;
        if (agent != nullptr && !surely([&] { return packing_.gather(*agent, error); })) {
            if (!engine_.is_open()) {
                return progress::failed; /* it is not that agent's blocks */
            }
            agent->pack_not_before = steady_clock() + pace.of_an_agent;
            note_unreadable(error);
        }
    }
    return packing_.is_idle() && due_.empty() ? progress::none : progress::some;
}

upkeep::progress upkeep::pack(const upkeep_view& view) {
    if (packing_.is_idle()) {
        look_for_due(view);
        if (due_.empty()) {
            one_by_one_ = false;
            return progress::none;
        }
        return gather();
    }
    if (!packing_.pack(spell(packing_time))) {
        return progress::some;
    }
    const std::vector<int64_t> at_work = packing_.agents();
    std::string unreadable;
    if (!surely([&] {
            return packing_.store(spell(pace.storing), view.stale_after, expiry_.roll_ups(),
                                  unreadable);
        })) {
        return progress::failed;
    }
    const std::vector<int64_t> left = packing_.agents();
    for (int64_t id : at_work) {
        const roster_agent* agent = agents_.find(id);
        if (agent != nullptr && std::find(left.begin(), left.end(), id) == left.end() &&
            is_due(*agent, view)) {
            due_.push_front(id); /* that was only the oldest of it */
        }
    }
    trouble_.report("");
    note_unreadable(unreadable);
    return progress::some;
}

/* ---- closing ---- */

upkeep::progress upkeep::close(const upkeep_view& view) {
    std::string unreadable;
    if (!surely([&] {
            return closing_.run(view.now, view.newest, view.stale_after, expiry_.roll_ups(),
                                unreadable);
        })) {
        return progress::failed;
    }
    trouble_.report("");
    note_unreadable(unreadable);
    return progress::some;
}
