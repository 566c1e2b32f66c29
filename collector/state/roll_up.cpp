#include "state/roll_up.h"

#include "protocol/record_types.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <tuple>

namespace {

constexpr int64_t day_s = 86400;

template <typename T>
uint32_t count_of(T sum) {
    return static_cast<uint32_t>(std::min<T>(sum, std::numeric_limits<uint32_t>::max()));
}

uint32_t added(uint32_t a, uint32_t b) {
    return count_of(uint64_t{a} + b);
}

/* Of two means, each of so many. */
double mean_of(double a, uint32_t count_a, double b, uint32_t count_b) {
    double share = static_cast<double>(count_b) / (static_cast<double>(count_a) + count_b);
    return a * (1 - share) + b * share;
}

void add_summary(value_summary& into, const value_summary& more) {
    into.mean = mean_of(into.mean, into.count, more.mean, more.count);
    into.count = added(into.count, more.count);
    into.min = std::min(into.min, more.min);
    into.max = std::max(into.max, more.max);
    into.mean = std::clamp(into.mean, into.min, into.max);
}

/* `values` are by id. */
void add_value(std::vector<value_summary>& values, const value_summary& value) {
    if (value.count == 0) {
        return;
    }
    auto at = std::lower_bound(values.begin(), values.end(), value.id,
                               [](const value_summary& v, uint32_t id) { return v.id < id; });
    if (at != values.end() && at->id == value.id) {
        add_summary(*at, value);
    } else {
        values.insert(at, value);
    }
}

/* Later than any time there is, instead of around the corner. */
int64_t later(int64_t time, int64_t seconds) {
    return time > std::numeric_limits<int64_t>::max() - seconds
               ? std::numeric_limits<int64_t>::max()
               : time + seconds;
}

/* Of a day in which there can be a time. */
int64_t begin_of(int64_t day) {
    constexpr int64_t first = std::numeric_limits<int64_t>::min();
    return day < first / day_s ? first : day * day_s;
}

/* The buckets of a day while they are filled: all of them, most of which may stay empty. */
class filling {
public:
    explicit filling(uint32_t width) : width_(width), buckets_((day_s + width - 1) / width) {
        for (size_t i = 0; i < buckets_.size(); i++) {
            buckets_[i].start = static_cast<uint32_t>(i) * width;
        }
    }

    void count(int64_t second, const result& what) {
        bucket& b = buckets_[static_cast<size_t>(second) / width_];
        b.count = added(b.count, 1);
        for (const result_value& value : what.values) {
            if (std::isfinite(value.value)) {
                add_value(b.values, {value.id, 1, value.value, value.value, value.value});
            }
        }
    }

    void cover(int64_t from, int64_t to, uint32_t bucket::*what) {
        for (size_t i = static_cast<size_t>(from) / width_; from < to; i++) {
            int64_t end = std::min<int64_t>(to, int64_t{buckets_[i].start} + width_);
            buckets_[i].*what += static_cast<uint32_t>(end - from);
            from = end;
        }
    }

    std::vector<bucket> take() {
        std::erase_if(buckets_, [](const bucket& b) { return b.count + b.ok + b.problem == 0; });
        return std::move(buckets_);
    }

private:
    const uint32_t width_;
    std::vector<bucket> buckets_;
};

/* Whether its time tells one pass from another. */
bool is_told_by_time(const result& r) {
    return r.type != protocol::mysql.code && protocol::find_record(r.type) != nullptr;
}

auto pass_of(const result& r) {
    return std::tuple(r.type, r.claimed, r.location);
}

/* Of results of one time, in the order of arrival: those that came again later. */
std::vector<const result*> find_repeated(const result* begin, const result* end) {
    std::vector<const result*> all, repeated;
    for (const result* r = begin; r != end; ++r) {
        if (is_told_by_time(*r)) {
            all.push_back(r);
        }
    }
    std::sort(all.begin(), all.end(), [](const result* a, const result* b) {
        return std::tuple(pass_of(*a), a) < std::tuple(pass_of(*b), b);
    });
    for (size_t i = 1; i < all.size(); i++) {
        if (pass_of(*all[i - 1]) == pass_of(*all[i])) {
            repeated.push_back(all[i - 1]);
        }
    }
    std::sort(repeated.begin(), repeated.end());
    return repeated;
}

} // namespace

std::vector<bucket> roll_up(std::span<const result> results, int64_t day, uint32_t width,
                            int64_t stale_after) {
    filling buckets(width);
    const int64_t begin = begin_of(day), end = later(begin, day_s);
    for (size_t i = 0; i < results.size(); i++) {
        const result& r = results[i];
        if (r.time >= end) {
            break;
        }
        if (r.time >= begin) {
            buckets.count(r.time - begin, r);
        }
        int64_t until = later(r.time, std::max<int64_t>(stale_after, 0));
        if (i + 1 < results.size()) {
            until = std::min(until, results[i + 1].time);
        }
        int64_t from = std::max(r.time, begin);
        until = std::min(until, end);
        if (from < until && (r.judged == state::ok || r.judged == state::problem)) {
            buckets.cover(from - begin, until - begin,
                          r.judged == state::ok ? &bucket::ok : &bucket::problem);
        }
    }
    return buckets.take();
}

void order_by_time(std::vector<result>& results) {
    auto earlier = [](const result& a, const result& b) { return a.time < b.time; };
    if (!std::is_sorted(results.begin(), results.end(), earlier)) {
        std::stable_sort(results.begin(), results.end(), earlier);
    }
    auto last = results.begin();
    for (auto at = results.begin(); at != results.end();) {
        auto end = std::find_if(std::next(at), results.end(),
                                [&](const result& r) { return r.time != at->time; });
        std::vector<const result*> repeated;
        if (end - at > 1) {
            repeated = find_repeated(&*at, &*at + (end - at));
        }
        for (; at != end; ++at) {
            if (std::binary_search(repeated.begin(), repeated.end(), &*at)) {
                continue;
            }
            if (last != at) {
                *last = std::move(*at);
            }
            ++last;
        }
    }
    results.erase(last, results.end());
}

void add_up(bucket& into, const bucket& more) {
    into.count = added(into.count, more.count);
    into.ok = added(into.ok, more.ok);
    into.problem = added(into.problem, more.problem);
    for (const value_summary& value : more.values) {
        add_value(into.values, value);
    }
}

std::vector<bucket> widen(const std::vector<bucket>& narrow, uint32_t width) {
    std::vector<bucket> wide;
    for (const bucket& b : narrow) {
        uint32_t start = b.start / width * width;
        if (wide.empty() || wide.back().start != start) {
            bucket next;
            next.start = start;
            wide.push_back(std::move(next));
        }
        add_up(wide.back(), b);
    }
    return wide;
}

void add_to(std::vector<bucket>& day, const std::vector<bucket>& late, uint32_t width) {
    for (const bucket& b : late) {
        auto at = std::lower_bound(day.begin(), day.end(), b.start,
                                   [](const bucket& known, uint32_t s) { return known.start < s; });
        if (at == day.end() || at->start != b.start) {
            bucket next;
            next.start = b.start;
            at = day.insert(at, std::move(next));
        }
        at->count = added(at->count, b.count);
        auto cover = [&](uint32_t bucket::*what) {
            uint32_t covered = added(at->ok, at->problem);
            uint32_t open = width - std::min(width, covered);
            (*at).*what += std::min(open, b.*what);
        };
        cover(&bucket::problem);
        cover(&bucket::ok);
        for (const value_summary& value : b.values) {
            add_value(at->values, value);
        }
    }
}
