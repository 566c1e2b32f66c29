#include "ingest/takeover.h"

#include "ingest/in_transaction.h"

#include <algorithm>

namespace {

/* Of a transaction. A poll that is larger is cut: a block is packed in one transaction too. */
constexpr size_t most_bytes = 512 << 10, most_of_a_poll = 512 << 10;
constexpr size_t most_records = 4096, most_polls = 256;

} // namespace

bool takeover::begin() {
    from_ = engine_.earlier();
    if (!from_) {
        return false;
    }
    generation_ = engine_.generation();
    position_ = engine_.read_fact("earlier_position").value_or(0);
    tell_("the results of an earlier version are taken over from " + from_->place() + " (" +
          std::to_string(from_->count()) + "); agents keep theirs until that is done");
    return true;
}

/* The next polls into plain_; none when there are no more. False when that cannot be read now. */
bool takeover::read() {
    plain_.clear();
    polls_.clear();
    records_ = 0;
    std::string error;
    bool ok = from_->for_each_record(
        position_,
        [&](const earlier_record& r) {
            bool same = !polls_.empty() && polls_.back().agent == r.agent &&
                        polls_.back().received == r.received;
            bool full = plain_.size() >= most_bytes || records_ >= int64_t{most_records} ||
                        polls_.size() >= most_polls;
            bool large = same && plain_.size() - polls_.back().from >= most_of_a_poll;
            if (same ? large : full) {
                return false;
            }
            if (!same) {
                polls_.push_back({r.agent, r.received, plain_.size(), plain_.size()});
            }
            plain_ += r.record;
            polls_.back().to = plain_.size();
            records_++;
            read_ = r.position;
            return true;
        },
        error);
    if (!ok) {
        trouble_.report("earlier results cannot be read: " + error);
    }
    return ok || !polls_.empty();
}

/* Nobody knows any more what was to come then: nothing of it is missing. */
bool takeover::store(int64_t stale_after) {
    const patience then{.interval = 0, .stale_after = stale_after};
    works_.resize(std::max(works_.size(), polls_.size()));
    return in_transaction(engine_, [&] {
        if (engine_.generation() != generation_) {
            return false; /* another file, in which nothing is to be gone on with */
        }
        for (size_t i = 0; i < polls_.size(); i++) {
            if (!store(polls_[i], works_[i], then)) {
                return false;
            }
        }
        return engine_.set_fact("earlier_position", read_);
    });
}

bool takeover::store(const poll& p, agent_work& work, const patience& then) {
    stored_agent row;
    work.id = 0;
    if (!engine_.find_agent(p.agent, row)) {
        return engine_.reason().empty(); /* of an agent that is not known: nobody's */
    }
    work.begin(row);
    decoded_.clear();
    for (block_reader reader(std::string_view(plain_).substr(p.from, p.to - p.from));
         reader.next();) {
        if (reader.good) {
            decoded_.push_back({reader.current, summarize(reader.current)});
        }
    }
    return storing_.records(work, decoded_, p.received, then) &&
           engine_.set_state(work.id, storing_.packed(work));
}

takeover::progress takeover::step(int64_t stale_after) {
    if (engine_.generation() != generation_) {
        from_.reset();
        return begin() ? progress::more : progress::done;
    }
    if (!read()) {
        return progress::failed;
    }
    if (polls_.empty()) {
        return finish();
    }
    if (!store(stale_after)) {
        trouble_.report("earlier results cannot be taken over: " + engine_.reason());
        return progress::failed;
    }
    trouble_.report("");
    position_ = read_;
    taken_ += records_;
    for (size_t i = 0; i < polls_.size(); i++) {
        if (works_[i].id != 0) {
            stored_(works_[i]);
        }
    }
    return progress::more;
}

takeover::progress takeover::finish() {
    from_.reset();
    if (!engine_.forget_earlier()) {
        trouble_.report("earlier results cannot be taken over: " + engine_.reason());
        from_ = engine_.earlier();
        return from_ ? progress::failed : progress::done;
    }
    tell_(std::to_string(taken_) + " results of an earlier version were taken over");
    return progress::done;
}
