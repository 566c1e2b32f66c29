#include "state/history.h"

#include "state/agent_state.h"
#include "state/roll_up.h"
#include "state/take.h"
#include "store/pack.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

namespace {

constexpr int64_t day_s = 86400, hour_s = 3600, five_minutes_s = 300;
constexpr int64_t latest = int64_t{1} << 40, earliest = -latest; /* that are looked at */
constexpr size_t max_results = 1000000;                          /* that are held at a time */
/* Values of these; a test makes it less. */
size_t max_numbers = 8u << 20;
constexpr int64_t usual_stale_after = 180;

int64_t floor_to(int64_t time, int64_t step) {
    int64_t behind = time % step;
    return time - (behind < 0 ? behind + step : behind);
}

int64_t ceil_to(int64_t time, int64_t step) {
    return floor_to(time + step - 1, step);
}

int64_t day_of(int64_t time) {
    return floor_to(time, day_s) / day_s;
}

int64_t in_bounds(int64_t time) {
    return std::clamp(time, earliest, latest);
}

void add_error(std::string& error, const std::string& text) {
    if (error.empty()) {
        error = text;
    }
}

/* ---- which records are of a test ---- */

/* Record by record, without decoding those of other tests. */
class test_records {
public:
    explicit test_records(const known_test_row& test) : type_(test.type), number_(test.number) {
        const protocol::record_def* schema = protocol::find_record(type_);
        if (schema != nullptr) {
            number_at_ = index_of(schema->values, protocol::value_role::test);
        }
    }

    /* Whether the record is one of the test's: then it is decoded. */
    bool take(std::string_view bytes, decoded_record& what) {
        if (!may_be(bytes) || !decode_record(bytes, what.content, reason_)) {
            return false;
        }
        what.summary = summarize(what.content);
        return what.summary.type == type_ && what.summary.test == number_;
    }

    /* Calls each(record) for those of a block. False when the block ends with something that is no
     * record. */
    template <typename Do>
    bool for_each(std::string_view block, Do each) {
        while (!block.empty()) {
            size_t size = block.size() >= record_header_size ? length_of_record(block) : 0;
            if (size < record_header_size || size > block.size()) {
                return false;
            }
            decoded_record what;
            if (take(block.substr(0, size), what)) {
                each(what);
            }
            block.remove_prefix(size);
        }
        return true;
    }

private:
    bool may_be(std::string_view bytes) const {
        if (bytes.size() < record_header_size) {
            return false;
        }
        protocol::record_header head;
        memcpy(&head, bytes.data(), sizeof(head));
        std::string_view numbers = bytes.substr(record_header_size);
        size_t skipped = size_t{head.i32} * sizeof(int32_t);
        numbers.remove_prefix(std::min(skipped, numbers.size()));
        auto word = [&](size_t index, uint32_t& value) {
            if (index >= head.ui32 || numbers.size() < (index + 1) * sizeof(value)) {
                return false;
            }
            memcpy(&value, numbers.data() + index * sizeof(value), sizeof(value));
            return true;
        };
        uint32_t value = 0;
        if (!word(0, value)) {
            return type_ == 0;
        }
        if (value != type_) {
            return false;
        }
        return !number_ || !number_at_ ||
               (word(*number_at_, value) && static_cast<int32_t>(value) == *number_);
    }

    const uint32_t type_;
    const std::optional<int32_t> number_;
    std::optional<size_t> number_at_;
    std::string reason_;
};

/* ---- results out of groups of records ---- */

/* What a group's records came to, and where they lay. */
struct gathered {
    result what;
    bool is_open = false; /* all of it in blocks */
};

/* Groups of records (blocks, chunks) come one after the other, the newest first; in each of them
 * the records are in the order of arrival. A pass may begin in a group and go on in the one after
 * it: the first result of a group waits for what the group before it ends with. */
class gathering {
public:
    /* Results with from <= time < to. Beyond `most` the oldest are given up; records are for
     * showing and cost memory. */
    gathering(int64_t from, int64_t to, size_t most, bool with_records,
              size_t most_bytes = max_result_bytes)
        : from_(from), to_(to), with_records_(with_records), most_bytes_(most_bytes), most_(most) {}

    /* `from`: only what has at least this time. */
    void add(const decoded_record& what, int64_t received, int64_t from) {
        int64_t time = reckoned_time(what.summary, received);
        if (time >= from - pass_s && time < to_ + pass_s) {
            builder_.add(what, received);
        }
    }
    int64_t to() const { return to_; }

    void end_group(bool is_open) {
        size_t own = builder_.size();
        if (own == 0) {
            return;
        }
        if (has_head_) {
            for (const std::string& record : head_.what.records) {
                builder_.add(record, head_.what.received);
            }
        }
        std::vector<result> all = builder_.take_all();
        bool head_is_open = all.size() > own ? head_.is_open : is_open;
        for (size_t i = all.size() - 1; i > 0; i--) {
            keep({std::move(all[i]), i >= own ? head_is_open : is_open});
        }
        head_ = {std::move(all[0]), is_open};
        has_head_ = true;
        if (done_.size() >= next_look_) {
            cut();
        }
    }

    /* Nothing before this can be among the newest any more. */
    int64_t floor() const { return floor_; }
    bool gave_up() const { return gave_up_; }
    bool is_full() const { return done_.size() >= max_results || numbers_ >= max_numbers; }

    /* In the order of arrival, but for what lies far apart in time. */
    std::vector<gathered> take_all() {
        if (has_head_) {
            keep(std::move(head_));
            has_head_ = false;
        }
        if (done_.size() > most_ || bytes_ > most_bytes_) {
            cut();
        }
        std::reverse(done_.begin(), done_.end());
        return std::move(done_);
    }

private:
    void keep(gathered&& next) {
        if (next.what.time < from_ || next.what.time >= to_) {
            return;
        }
        if (with_records_) {
            for (const std::string& record : next.what.records) {
                bytes_ += record.size();
            }
            if (bytes_ > most_bytes_) {
                next_look_ = 0;
            }
        } else {
            next.what.records = {};
            next.what.message = {};
            numbers_ += next.what.values.size();
        }
        done_.push_back(std::move(next));
    }

    /* Keeps the newest of them. */
    void cut() {
        std::vector<result> all;
        all.reserve(done_.size());
        for (auto next = done_.rbegin(); next != done_.rend(); ++next) {
            all.push_back(std::move(next->what));
        }
        done_.clear();
        order_by_time(all);
        bytes_ = 0;
        size_t kept = 0;
        while (kept < all.size() && kept < most_ && bytes_ <= most_bytes_) {
            result& next = all[all.size() - ++kept];
            for (const std::string& record : next.records) {
                bytes_ += record.size();
            }
            done_.push_back({std::move(next)});
        }
        if (bytes_ > most_bytes_ && kept > 1) {
            for (const std::string& record : done_.back().what.records) {
                bytes_ -= record.size();
            }
            done_.pop_back();
            kept--;
        }
        if (kept < all.size()) {
            gave_up_ = true;
            most_ = std::min(most_, std::max<size_t>(kept, 1));
        }
        if (kept >= most_) {
            floor_ = done_.back().what.time;
        }
        next_look_ = done_.size() + most_ / 8 + 1;
    }

    const int64_t from_, to_;
    const bool with_records_;
    const size_t most_bytes_;
    size_t most_, next_look_ = most_;
    result_builder builder_{true};
    gathered head_;
    bool has_head_ = false, gave_up_ = false;
    std::vector<gathered> done_; /* in the order of arrival, from the end */
    size_t bytes_ = 0, numbers_ = 0;
    int64_t floor_ = std::numeric_limits<int64_t>::min();
};

/* ---- a test in the store ---- */

class test_history {
public:
    test_history(result_reader& store, std::string& error) : store_(store), error_(error) {}

    /* The test, and what of its agent is asked for here. */
    bool find(int64_t id) {
        return find_test(id) &&
               note(store_.read_agent(
                   test_.agent, [&](const known_agent& agent) { read_state(agent); }, reason_));
    }
    bool find(int64_t id, const known_agent& agent) {
        if (find_test(id)) {
            read_state(agent);
            return true;
        }
        return false;
    }

    void gather_open(int64_t from, gathering& into) {
        if (last_block_ == 0) {
            return;
        }
        test_records records(test_);
        note(store_.for_each_block(
            last_block_,
            [&](const open_block& block) {
                read_block(block, records, [&](const decoded_record& what) {
                    into.add(what, block.received, from);
                });
                into.end_group(true);
                return !is_too_much(into);
            },
            reason_));
    }

    void gather_packed(int64_t from, gathering& into, bool& passed_over) {
        test_records records(test_);
        note(store_.for_each_chunk(
            test_.id, from - pass_s - skew_s, /* what arrives is at most so much ahead */
            [&](const packed_chunk& chunk) {
                if (chunk.last < from - pass_s || chunk.first >= into.to() + pass_s) {
                    return false;
                }
                passed_over = passed_over || chunk.last < into.floor();
                return chunk.last >= into.floor();
            },
            [&](const packed_chunk& chunk) {
                read_chunk(chunk, records, [&](const decoded_record& what, int64_t received) {
                    into.add(what, received, from);
                });
                into.end_group(false);
                return !is_too_much(into);
            },
            reason_));
    }

    /* What the test was, by each result's own word or by the time. */
    void find_definitions(std::vector<result>& of) {
        definition_reader all(store_);
        for (result& r : of) {
            r.judged_by = all.of(test_.agent, test_.type, test_.number, r.location, r.time, error_);
        }
    }
    void find_definitions(series& of) {
        note(read_definitions(store_, test_, of.from, of.to, of.definitions, reason_));
    }

    /* The record that arrived last. */
    bool find_newest(int64_t& received, std::string& record) {
        test_records records(test_);
        bool found = false;
        auto take = [&](const decoded_record& what, int64_t arrived) {
            found = true;
            received = arrived;
            record = what.content.raw;
        };
        int64_t row = newest_block_ != 0 ? newest_block_ : last_block_;
        if (row != 0) {
            note(store_.for_each_block(
                row,
                [&](const open_block& block) {
                    read_block(block, records,
                               [&](const decoded_record& what) { take(what, block.received); });
                    return !found;
                },
                reason_));
        }
        constexpr int64_t any = std::numeric_limits<int64_t>::min();
        for (int64_t from : {newest_received_, any}) {
            if (found) {
                break;
            }
            note(store_.for_each_chunk(
                test_.id, from, [](const packed_chunk&) { return true; },
                [&](const packed_chunk& chunk) {
                    read_chunk(chunk, records, take);
                    return !found;
                },
                reason_));
        }
        return found;
    }

    /* Calls each(day, buckets), which it may change, for the roll-ups of first <= day < end. */
    template <typename Do>
    void for_each_day(resolution r, int64_t first, int64_t end, Do each) {
        std::vector<bucket> buckets;
        if (first >= end) {
            return;
        }
        note(store_.for_each_roll_up(
            r, test_.id, first, end,
            [&](int64_t day, std::string_view packed) {
                if (unpack_roll_up(packed, buckets)) {
                    each(day, buckets);
                } else {
                    add_error(error_, "the roll-up of test " + std::to_string(test_.id) + ", day " +
                                          std::to_string(day) + " in " + store_.place() +
                                          " is damaged");
                }
            },
            reason_));
    }

    /* The first of the days first <= day < end that has a roll-up; otherwise `end`. */
    int64_t first_day(resolution r, int64_t first, int64_t end) {
        int64_t found = end;
        if (first < end) {
            note(store_.for_each_roll_up(
                r, test_.id, first, end,
                [&](int64_t day, std::string_view) { found = std::min(found, day); }, reason_));
        }
        return found;
    }

    /* The first second that is not of a closed day. */
    int64_t closed_until() {
        std::optional<int64_t> day = store_.read_fact("closed_through");
        return day ? (std::clamp(*day, earliest / day_s, latest / day_s) + 1) * day_s : earliest;
    }

    int64_t stale_after() {
        return std::clamp<int64_t>(store_.read_fact("stale_after").value_or(usual_stale_after), 0,
                                   uint32_t(-1));
    }

private:
    bool find_test(int64_t id) {
        std::optional<known_test_row> found = store_.find_test(id);
        if (found) {
            test_ = *found;
        } else {
            add_error(error_, "there is no test " + std::to_string(id));
        }
        return found.has_value();
    }

    void read_state(const known_agent& agent) {
        agent_state state;
        if (!state.unpack(agent.state)) {
            add_error(error_, "the state of agent " + std::to_string(agent.id) + " in " +
                                  store_.place() + " is damaged");
            return;
        }
        last_block_ = state.last_block;
        if (const test_status* status = state.find(test_.type, test_.number)) {
            newest_block_ = status->block;
            newest_received_ = status->received;
        }
    }

    template <typename Do>
    void read_block(const open_block& block, test_records& records, Do each) {
        if (!records.for_each(block.records, each)) {
            add_error(error_, "block " + std::to_string(block.row) + " in " + store_.place() +
                                  " is damaged");
        }
    }

    template <typename Do>
    void read_chunk(const packed_chunk& chunk, test_records& records, Do each) {
        bool good = unpack_chunk(chunk.data, [&](const arrived_record& arrived) {
            decoded_record what;
            if (records.take(arrived.record, what)) {
                each(what, arrived.received);
            }
            return true;
        });
        if (!good) {
            add_error(error_, "results of test " + std::to_string(test_.id) + " in " +
                                  store_.place() + " are damaged");
        }
    }

    bool note(bool good) {
        if (!good) {
            add_error(error_, reason_);
        }
        reason_.clear();
        return good;
    }

    bool is_too_much(const gathering& gathered) {
        if (gathered.is_full()) {
            add_error(error_, "there are more results of test " + std::to_string(test_.id) +
                                  " in this time than can be read at once");
        }
        return gathered.is_full();
    }

    result_reader& store_;
    std::string& error_;
    std::string reason_;
    known_test_row test_;
    int64_t last_block_ = 0; /* of its agent */
    /* Of its own last record, when that is known. */
    int64_t newest_block_ = 0, newest_received_ = std::numeric_limits<int64_t>::min();
};

/* ---- points ---- */

/* Buckets of days on their way into points that are as wide or wider. */
class pointing {
public:
    pointing(int64_t from, int64_t to, int64_t width)
        : from_(floor_to(from, width)), to_(ceil_to(to, width)), width_(width) {}

    int64_t from() const { return from_; }
    int64_t to() const { return to_; }

    void add(int64_t day, const std::vector<bucket>& buckets) {
        for (const bucket& b : buckets) {
            int64_t start = day * day_s + b.start;
            if (start < from_ || start >= to_) {
                continue;
            }
            start = floor_to(start, width_);
            if (points_.empty() || points_.back().first != start) {
                points_.emplace_back(start, bucket());
            }
            add_up(points_.back().second, b);
        }
    }

    void take(series& found) {
        found.from = from_;
        found.to = to_;
        found.resolution = width_;
        auto count = static_cast<size_t>((to_ - from_) / width_);
        found.count.assign(count, 0);
        found.ok = found.problem = found.count;
        found.unknown.assign(count, static_cast<uint32_t>(std::min<int64_t>(width_, uint32_t(-1))));
        for (int64_t time = from_; time < to_; time += width_) {
            found.time.push_back(time);
        }
        for (const auto& [start, b] : points_) {
            auto i = static_cast<size_t>((start - from_) / width_);
            found.count[i] = b.count;
            found.ok[i] = b.ok;
            found.problem[i] = b.problem;
            found.unknown[i] -= std::min(found.unknown[i], b.ok + b.problem);
            for (const value_summary& value : b.values) {
                series::column& column = column_of(found, value.id);
                column.min[i] = value.min;
                column.mean[i] = value.mean;
                column.max[i] = value.max;
            }
        }
    }

    static series::column& column_of(series& found, uint32_t id) {
        auto at = std::lower_bound(
            found.values.begin(), found.values.end(), id,
            [](const series::column& known, uint32_t wanted) { return known.id < wanted; });
        if (at == found.values.end() || at->id != id) {
            std::vector<double> none(found.time.size(), std::numeric_limits<double>::quiet_NaN());
            at = found.values.insert(at, {id, none, none, none});
        }
        return *at;
    }

private:
    const int64_t from_, to_, width_;
    std::vector<std::pair<int64_t, bucket>> points_; /* by time; they come in that order */
};

uint32_t seconds_of(int64_t seconds) {
    return static_cast<uint32_t>(std::clamp<int64_t>(seconds, 0, uint32_t(-1)));
}

/* Each result is a point; they are by time and in bounds. */
void take_each(const std::vector<result>& results, int64_t from, int64_t to, int64_t stale_after,
               series& found) {
    found.from = from;
    found.to = to;
    found.resolution = 0;
    size_t count = results.size();
    found.count.assign(count, 1);
    found.ok.assign(count, 0);
    found.problem = found.unknown = found.ok;
    for (const result& r : results) {
        found.time.push_back(r.time);
    }
    for (size_t i = 0; i < count; i++) {
        const result& r = results[i];
        int64_t held = (i + 1 < count ? results[i + 1].time : to) - r.time;
        bool known = r.judged == state::ok || r.judged == state::problem;
        int64_t covered = known ? std::min(held, stale_after) : 0;
        (r.judged == state::ok ? found.ok : found.problem)[i] = seconds_of(covered);
        found.unknown[i] = seconds_of(held - covered);
        for (const result_value& value : r.values) {
            series::column& column = pointing::column_of(found, value.id);
            column.min[i] = column.mean[i] = column.max[i] = value.value;
        }
    }
}

/* Rolls up every day from `first` on of which there is something, and calls each(day, buckets). The
 * results are by time. */
template <typename Do>
void for_each_rolled_up(std::span<const result> results, int64_t first, int64_t end, uint32_t width,
                        int64_t stale_after, Do each) {
    auto from = [&](int64_t time) {
        return std::lower_bound(results.begin(), results.end(), time,
                                [](const result& r, int64_t t) { return r.time < t; });
    };
    const int64_t reach = std::max<int64_t>(stale_after, 1) - 1;
    for (int64_t day = first; day < end; day++) {
        auto begin = from(day * day_s - reach), last = from((day + 1) * day_s);
        if (begin == last) {
            if (last == results.end()) {
                return;
            }
            day = std::max(day, day_of(last->time) - 1); /* nothing before that */
            continue;
        }
        each(day, roll_up(std::span(begin, last), day, width, stale_after));
    }
}

/* Reads a series: what lies open first, then as little as will do. */
class series_reading {
public:
    series_reading(test_history& history, int64_t from, int64_t to, size_t points)
        : history_(history), from_(from), to_(to), points_(points),
          hours_((ceil_to(to - from, hour_s) / hour_s + int64_t(points) - 1) / int64_t(points)),
          closed_until_(history.closed_until()), stale_after_(history.stale_after()) {}

    void read(series& found) {
        find_packed_count();
        gather();
        if (results_may_do_ && take_results(found)) {
            return;
        }
        if (to_ - from_ <= int64_t(points_) * five_minutes_s && take_five_minutes(found)) {
            return;
        }
        take_hours(found);
    }

private:
    int64_t first_day() const { return day_of(floor_to(from_, hours_ * hour_s)); }
    /* Behind the last that is closed. */
    int64_t end_of_closed() const {
        return std::min(day_of(ceil_to(to_, hours_ * hour_s) - 1) + 1, closed_until_ / day_s);
    }

    /* Results that there are at least, by the roll-ups: of buckets that lie within the time asked
     * for. Enough is known when they are more than the points. */
    void find_packed_count() {
        auto count = [&](int64_t day, const std::vector<bucket>& buckets, int64_t width) {
            for (const bucket& b : buckets) {
                int64_t start = day * day_s + b.start;
                packed_count_ += start >= from_ && start + width <= to_ ? b.count : 0;
            }
        };
        int64_t first = day_of(from_), last = day_of(to_ - 1);
        int64_t end = std::min(last + 1, closed_until_ / day_s);
        auto count_day = [&](int64_t day) {
            if (day >= end) {
                return;
            }
            bool fine = false;
            history_.for_each_day(resolution::five_minutes, day, day + 1,
                                  [&](int64_t d, const std::vector<bucket>& buckets) {
                                      fine = true;
                                      count(d, buckets, five_minutes_s);
                                  });
            if (!fine) {
                history_.for_each_day(resolution::hour, day, day + 1,
                                      [&](int64_t d, const std::vector<bucket>& buckets) {
                                          count(d, buckets, hour_s);
                                      });
            }
        };
        /* Those at the ends by the finer ones, and by themselves: they often are enough. */
        count_day(last);
        if (first != last) {
            count_day(first);
        }
        for (int64_t at = std::min(last, end), step = 1; at > first + 1 && packed_count_ <= points_;
             step *= 2) {
            int64_t begin = std::max(first + 1, at - step);
            for_each_hour(begin, at, [&](int64_t day, const std::vector<bucket>& buckets) {
                count(day, buckets, hour_s);
            });
            at = begin;
        }
        results_may_do_ = packed_count_ <= points_;
    }

    void gather() {
        int64_t from = floor_to(from_, hours_ * hour_s) - stale_after_;
        int64_t to = ceil_to(to_, hours_ * hour_s);
        int64_t from_packed = results_may_do_ ? from : std::max(from, closed_until_ - stale_after_);
        gathering all(from, to, std::numeric_limits<size_t>::max(), false);
        bool passed_over = false;
        history_.gather_open(from, all);
        if (results_may_do_ || to > closed_until_) {
            history_.gather_packed(from_packed, all, passed_over);
        }
        gathered_ = all.take_all();
    }

    bool take_results(series& found) {
        std::vector<result> results;
        size_t packed = 0;
        for (const gathered& next : gathered_) {
            int64_t time = next.what.time;
            if (time >= from_ && time < to_) {
                packed += !next.is_open && time < closed_until_;
                results.push_back(next.what);
            }
        }
        order_by_time(results);
        if (results.size() > points_ || packed < packed_count_) {
            return false; /* too many, or not all are kept any more */
        }
        take_each(results, from_, to_, stale_after_, found);
        return true;
    }

    /* Results of days that are not closed, and what reaches into them; those of closed ones that
     * lie open. */
    void part() {
        for (gathered& next : gathered_) {
            int64_t time = next.what.time;
            if (next.is_open && time < closed_until_) {
                late_.push_back(next.what);
            }
            if (time >= closed_until_ - stale_after_) {
                fresh_.push_back(std::move(next.what));
            }
        }
        gathered_.clear();
        order_by_time(late_);
        order_by_time(fresh_);
        is_parted_ = true;
    }

    /* Calls each(day, buckets) for all days of which there is something. `for_each_packed` does so
     * for the roll-ups of closed days. */
    template <typename ForEach, typename Do>
    void for_each_bucket(uint32_t width, ForEach for_each_packed, Do each) {
        if (!is_parted_) {
            part();
        }
        std::map<int64_t, std::vector<bucket>> late;
        for_each_rolled_up(
            late_, first_day(), end_of_closed(), width, stale_after_,
            [&](int64_t day, std::vector<bucket>&& buckets) { late[day] = std::move(buckets); });
        auto next = late.begin();
        for_each_packed([&](int64_t day, std::vector<bucket>& buckets) {
            for (; next != late.end() && next->first < day; ++next) {
                each(next->first, next->second);
            }
            if (next != late.end() && next->first == day) {
                add_to(buckets, next->second, width);
                ++next;
            }
            each(day, buckets);
        });
        for (; next != late.end(); ++next) {
            each(next->first, next->second);
        }
        for_each_rolled_up(
            fresh_, std::max(first_day(), closed_until_ / day_s),
            day_of(ceil_to(to_, hours_ * hour_s) - 1) + 1, width, stale_after_,
            [&](int64_t day, const std::vector<bucket>& buckets) { each(day, buckets); });
    }

    bool take_five_minutes(series& found) {
        pointing points(from_, to_, five_minutes_s);
        std::vector<int64_t> fine;
        for_each_bucket(
            five_minutes_s,
            [&](const auto& each) {
                history_.for_each_day(resolution::five_minutes, first_day(), end_of_closed(),
                                      [&](int64_t day, std::vector<bucket>& buckets) {
                                          fine.push_back(day);
                                          each(day, buckets);
                                      });
            },
            [&](int64_t day, const std::vector<bucket>& buckets) { points.add(day, buckets); });
        bool all = true;
        history_.for_each_day(resolution::hour, day_of(from_),
                              std::min(day_of(to_ - 1) + 1, end_of_closed()),
                              [&](int64_t day, const std::vector<bucket>&) {
                                  all = all && std::binary_search(fine.begin(), fine.end(), day);
                              });
        if (all) {
            points.take(found);
        }
        return all;
    }

    void take_hours(series& found) {
        pointing points(from_, to_, hours_ * hour_s);
        for_each_bucket(
            hour_s, [&](const auto& each) { for_each_hour(first_day(), end_of_closed(), each); },
            [&](int64_t day, const std::vector<bucket>& buckets) { points.add(day, buckets); });
        points.take(found);
    }

    /* Those of first <= day < end. Hours may be kept for a shorter time than 5 minutes. */
    template <typename Do>
    void for_each_hour(int64_t first, int64_t end, Do each) {
        int64_t kept = history_.first_day(resolution::hour, first, end);
        history_.for_each_day(resolution::five_minutes, first, kept,
                              [&](int64_t day, const std::vector<bucket>& narrow) {
                                  std::vector<bucket> wide = widen(narrow, hour_s);
                                  each(day, wide);
                              });
        history_.for_each_day(resolution::hour, kept, end, each);
    }

    test_history& history_;
    const int64_t from_, to_;
    const size_t points_;
    const int64_t hours_; /* of a point, where 5 minutes do not do */
    const int64_t closed_until_, stale_after_;
    uint64_t packed_count_ = 0;
    bool results_may_do_ = false, is_parted_ = false;
    std::vector<gathered> gathered_;
    std::vector<result> late_, fresh_;
};

} // namespace

bool read_results(result_reader& store, int64_t test, int64_t from, int64_t to, size_t most,
                  std::vector<result>& found, std::string& error, bool* more, size_t most_bytes) {
    found.clear();
    error.clear();
    from = in_bounds(from);
    to = in_bounds(to);
    test_history history(store, error);
    bool has_more = false;
    if (history.find(test) && from < to && most > 0) {
        gathering newest(from, to, most, true, most_bytes);
        history.gather_open(from, newest);
        history.gather_packed(from, newest, has_more);
        for (gathered& next : newest.take_all()) {
            found.push_back(std::move(next.what));
        }
        has_more = has_more || newest.gave_up();
        order_by_time(found);
        std::reverse(found.begin(), found.end());
        history.find_definitions(found);
    }
    if (more != nullptr) {
        *more = has_more;
    }
    return error.empty();
}

bool read_series(result_reader& store, int64_t test, int64_t from, int64_t to, size_t points,
                 series& found, std::string& error) {
    found = {};
    error.clear();
    found.from = from = in_bounds(from);
    found.to = to = in_bounds(to);
    test_history history(store, error);
    if (history.find(test) && from < to) {
        series_reading(history, from, to, std::clamp<size_t>(points, 1, max_points)).read(found);
        history.find_definitions(found);
    }
    return error.empty();
}

bool read_newest(result_reader& store, const known_agent& agent, int64_t test,
                 const std::function<void(int64_t received, std::string_view record)>& each,
                 std::string& error) {
    error.clear();
    test_history history(store, error);
    int64_t received = 0;
    std::string record;
    if (history.find(test, agent) && history.find_newest(received, record)) {
        each(received, record);
    }
    return error.empty();
}
