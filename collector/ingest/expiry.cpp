#include "ingest/expiry.h"

#include "base/text.h"
#include "ingest/clock.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

const int64_t between_drops = 3600; /* seconds */
constexpr size_t kinds = 6;         /* of what goes by age */
/* Seconds: that a clock is set right by, and for which a machine is off for a start. */
constexpr int64_t most_adjusted = 600, most_off = 3 * day_seconds;

/* Of YYYYMMDD: days since the epoch. */
int64_t number_of(const std::string& day) {
    int year = 0;
    unsigned month = 0, of_month = 0;
    if (sscanf(day.c_str(), "%4d%2u%2u", &year, &month, &of_month) != 3) {
        return INT64_MIN;
    }
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                           std::chrono::day(of_month)};
    return std::chrono::sys_days(date).time_since_epoch().count();
}

} // namespace

void expiry::begin() {
    std::optional<int64_t> last_run = engine_.read_fact("keep_days"); /* none in a renewed file */
    int64_t before = last_run.value_or(keep_.raw);
    drop_at_once_ = keep_.raw > 0 && (before == 0 || keep_.raw < before);
    if (!drop_at_once_ && last_run != keep_.raw) {
        engine_.set_fact("keep_days", keep_.raw); /* otherwise with the drop */
    }
    next_drop_ = steady_clock();
    std::optional<int64_t> dropped = engine_.read_fact("dropped");
    if (dropped && !drop_at_once_) {
        /* Of another start of the machine: when that was cannot be known. */
        int64_t due =
            engine_.read_fact("boot") == boot_number() ? *dropped + between_drops : INT64_MAX;
        next_drop_ = std::clamp(due, next_drop_, next_drop_ + between_drops);
    }
    to_drop_.clear();
    days_changed_ = true;
    known_today_ = engine_.read_fact("today");
    if (!known_today_ || *known_today_ < earliest_day) {
        known_today_ = std::max(known_today_.value_or(day_of(arrival_clock())), earliest_day);
        engine_.set_fact("today", *known_today_);
    }
    sure_ = engine_.read_fact("clock_hours").value_or(0);
    seen_ = engine_.read_fact("clock_seen");
    seen_steady_.reset();
    next_by_age_ = steady_clock() + between_drops;
    step_ = kinds;
}

bool expiry::run(witness::verdict clock) {
    if (!engine_.is_open()) {
        return false;
    }
    if (!to_drop_.empty() || (is_due() && list_days())) {
        return drop_some();
    }
    return drop_by_age(clock);
}

/* ---- days of raw results ---- */

bool expiry::is_due() {
    days_changed_ = engine_.days_changed() || days_changed_;
    return keep_.raw > 0 && days_changed_ && steady_clock() >= next_drop_;
}

/* False when there is nothing to drop. */
bool expiry::list_days() {
    std::vector<std::string> days;
    dropped_ = damaged_ = 0;
    failure_ = engine_.days(days) == drop_outcome::done ? "" : engine_.reason();
    size_t kept = static_cast<size_t>(keep_.raw) + 1;
    over_ = days.size() > kept ? days.size() - kept : 0;
    to_drop_.assign(days.begin(), days.begin() + static_cast<ptrdiff_t>(over_));
    if (to_drop_.empty()) {
        end_days();
    }
    return !to_drop_.empty();
}

bool expiry::drop_some() {
    switch (drop(to_drop_.front())) {
    case drop_outcome::more:
        return true;
    case drop_outcome::done:
        dropped_++;
        to_drop_.pop_front();
        if (!drop_at_once_) {
            to_drop_.clear();
        }
        break;
    case drop_outcome::damaged: /* does not keep the next from going */
        failure_ = engine_.reason();
        damaged_++;
        to_drop_.pop_front();
        break;
    case drop_outcome::failed:
        failure_ = engine_.reason();
        to_drop_.clear();
        break;
    }
    if (to_drop_.empty()) {
        end_days();
    }
    return !to_drop_.empty();
}

void expiry::end_days() {
    bool ok = failure_.empty() || damaged_ > 0;
    ok = ok && (!drop_at_once_ || engine_.set_fact("keep_days", keep_.raw));
    trouble_.report(failure_.empty() ? "" : "an old day cannot be dropped: " + failure_);
    if (dropped_ > 0 || !ok) {
        next_drop_ = steady_clock() + between_drops;
    }
    drop_at_once_ = drop_at_once_ && !ok;
    days_changed_ = !ok || over_ > dropped_ + damaged_;
}

drop_outcome expiry::drop(const std::string& day) {
    /* From the first bite on, what came on days up to that one is no longer all there. One that a
     * wrong clock made up, and that lies ahead, says nothing of that. */
    const int64_t number = number_of(day);
    if (number <= day_of(arrival_clock()) &&
        engine_.read_fact("dropped_through").value_or(INT64_MIN) < number &&
        !engine_.set_fact("dropped_through", number)) {
        return drop_outcome::failed;
    }
    const engine::fact facts[] = {{"dropped", steady_clock()}, {"boot", boot_number()}};
    drop_outcome outcome = engine_.drop_day(day, facts);
    if (outcome == drop_outcome::done) {
        tell_("the results of day " + day + " are dropped: --keep-days " +
              std::to_string(keep_.raw));
        std::vector<std::string> kept;
        if (engine_.days(kept) == drop_outcome::done) {
            for (int64_t of : {arrival_clock(), arrival_clock() - day_seconds}) {
                kept.push_back(utc_day(of)); /* of these all may lie open yet */
            }
            aside_.keep_days(kept);
        }
    }
    return outcome;
}

/* ---- by age ---- */

int64_t expiry::today() const {
    const int64_t day = day_of(arrival_clock());
    return std::min(day, known_today_.value_or(day));
}

kept_from expiry::roll_ups() const {
    kept_from all;
    if (keep_.five_minutes > 0) {
        all.five_minutes = today() - keep_.five_minutes;
    }
    if (keep_.hour > 0) {
        all.hour = today() - keep_.hour;
    }
    return all;
}

/* Whether the clock has not jumped since the last look. */
bool expiry::runs_on() {
    const int64_t now = arrival_clock(), steady = steady_clock();
    bool ok = true;
    if (seen_ && seen_steady_) {
        const int64_t jump = (now - *seen_) - (steady - *seen_steady_);
        ok = -most_adjusted <= jump && jump <= most_adjusted;
    } else if (seen_) {
        ok = *seen_ <= now && now - *seen_ <= most_off;
    }
    seen_ = now;
    seen_steady_ = steady;
    return ok;
}

/* What cannot be stored is counted anew in the next run. */
void expiry::count_sure(int64_t hours) {
    if (hours != 0 || sure_ != 0) {
        engine_.set_fact("clock_hours", hours);
        engine_.set_fact("clock_seen", seen_.value_or(0));
    }
    sure_ = hours;
}

void expiry::follow_clock(witness::verdict clock) {
    const int64_t day = day_of(arrival_clock());
    const bool runs = runs_on() && clock != witness::verdict::differs;
    const int64_t known = known_today_.value_or(day);
    int64_t next = known;
    if (known < day) {
        count_sure(runs ? sure_ + (clock == witness::verdict::agrees ? 1 : 0) : 0);
        next = sure_ >= sure_hours ? day : known + 1;
    } else if (clock == witness::verdict::agrees) {
        next = std::max(day, earliest_day);
    }
    if (next != known && engine_.set_fact("today", next)) {
        known_today_ = next;
    }
    if (next >= day) {
        count_sure(0);
    }
}

/* Some of one kind; false when all is done for an hour. */
bool expiry::drop_by_age(witness::verdict clock) {
    if (step_ >= kinds) {
        if (steady_clock() < next_by_age_) {
            return false;
        }
        next_by_age_ = steady_clock() + between_drops;
        step_ = 0;
        follow_clock(clock);
    }
    auto older = [&](int days, auto drop) { /* than so many days */
                                            return days > 0 ? drop(today() - days)
                                                            : drop_outcome::done;
    };
    drop_outcome outcome = drop_outcome::done;
    switch (step_) {
    case 0:
        outcome = older(keep_.five_minutes, [&](int64_t day) {
            return engine_.drop_roll_ups(resolution::five_minutes, day);
        });
        break;
    case 1:
        outcome = older(keep_.hour,
                        [&](int64_t day) { return engine_.drop_roll_ups(resolution::hour, day); });
        break;
    case 2:
        outcome =
            older(keep_.events, [&](int64_t day) { return engine_.drop_events(start_of(day)); });
        break;
    case 3:
        outcome =
            older(keep_.ledger, [&](int64_t day) { return engine_.drop_ledger(start_of(day)); });
        break;
    case 4:
        outcome =
            older(keep_.changes, [&](int64_t day) { return engine_.drop_changes(start_of(day)); });
        break;
    default:
        outcome =
            older(keep_.raw, [&](int64_t day) { return engine_.drop_inventories(start_of(day)); });
    }
    if (outcome == drop_outcome::more) {
        return true;
    }
    bool ok = outcome == drop_outcome::done;
    age_trouble_.report(ok ? "" : "what is too old cannot be dropped: " + engine_.reason());
    step_ = outcome == drop_outcome::failed ? kinds : step_ + 1;
    return step_ < kinds;
}
