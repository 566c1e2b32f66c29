#include "ingest/closing.h"

#include "ingest/clock.h"
#include "ingest/in_transaction.h"

#include <algorithm>

static constexpr int64_t grace = 600; /* seconds: most of what is on its way at midnight is there */
static constexpr size_t most_tests = 512; /* in a transaction */
static constexpr std::chrono::milliseconds most{15};

bool closing::begin(int64_t now) {
    if (!engine_.begin()) {
        return false;
    }
    std::optional<int64_t> through = engine_.read_fact("closed_through");
    through_ = through.value_or(std::max(day_of(now), earliest_day) - 1);
    test_ = engine_.read_fact("closing_test").value_or(0);
    return (through || (engine_.set_fact("closed_through", through_) &&
                        engine_.set_fact("closing_test", 0))) &&
           engine_.commit();
}

/* Of days up to the one behind the last that was dropped not all is there. */
bool closing::go_back(int64_t now) {
    const int64_t dropped = engine_.read_fact("dropped_through").value_or(INT64_MIN / 2);
    const int64_t to = std::max(day_of(now) - 1, dropped + 1);
    if (through_ <= to) {
        return true;
    }
    if (!engine_.begin() || !engine_.set_fact("closed_through", to) ||
        !engine_.set_fact("closing_test", 0) || !engine_.commit()) {
        return false;
    }
    through_ = to;
    test_ = 0;
    return true;
}

int64_t closing::until() const {
    return start_of(through_ + 2) + grace;
}

bool closing::is_due(int64_t now) const {
    return now >= until();
}

bool closing::run(int64_t now, int64_t newest, int64_t stale_after, const kept_from& kept,
                  std::string& unreadable) {
    int64_t day = through_ + 1, test = test_;
    bool is_empty = test_ == 0 && newest < start_of(day) - stale_after;
    if (!engine_.begin()) {
        return false;
    }
    if (is_empty) {
        day = day_of(now - grace) - 1;
    } else if (!close_tests(day, stale_after, kept, unreadable, test)) {
        return false;
    }
    bool ends = is_empty || tests_.empty();
    if (!engine_.set_fact("closing_test", ends ? 0 : test) ||
        (ends && !engine_.set_fact("closed_through", day)) || !engine_.commit()) {
        return false;
    }
    test_ = ends ? 0 : test;
    through_ = ends ? day : through_;
    return true;
}

/* What is kept no longer; what that leaves behind in earlier months goes with these. */
bool closing::drop(resolution r, int64_t test, int64_t from) {
    return from == INT64_MIN || engine_.drop_roll_up(r, test, from - 1);
}

/* `test` is the last one so far; tests_ is empty when there were no more. */
bool closing::close_tests(int64_t day, int64_t stale_after, const kept_from& kept,
                          std::string& unreadable, int64_t& test) {
    spell time(most);
    tests_.clear();
    if (!engine_.tests_after(test, most_tests, tests_)) {
        return false;
    }
    for (size_t i = 0; i < tests_.size() && (i == 0 || !time.is_over()); i++) {
        const int64_t id = tests_[i].id;
        if (!roll_up_day(engine_, id, day, stale_after, kept, unreadable) ||
            !drop(resolution::five_minutes, id, kept.five_minutes) ||
            !drop(resolution::hour, id, kept.hour)) {
            return false;
        }
        test = id;
    }
    return true;
}
