#include "ingest/packing.h"

#include "ingest/clock.h"
#include "protocol/record.h"
#include "state/take.h"

#include <algorithm>

namespace {

/* Of a job: bytes of blocks that are copied, and how large a block is that is not. */
constexpr size_t most_copied = 2 << 20, large_block = 512 << 10;
/* Of a chunk. */
constexpr size_t most_records = 4096, most_bytes = 1 << 20;
/* Of a transaction. */
constexpr size_t most_jobs = 32, most_in_all = 1 << 20;
/* Of a job, but for its last block: days of tests, each of which may have to be made anew. */
constexpr size_t most_test_days = 500;

} // namespace

bool packing::is_full() const {
    uint64_t bytes = 0;
    for (const job& work : jobs_) {
        bytes += work.bytes;
    }
    return jobs_.size() >= most_jobs || bytes >= most_in_all;
}

std::vector<int64_t> packing::agents() const {
    std::vector<int64_t> all;
    for (const job& work : jobs_) {
        all.push_back(work.agent);
    }
    return all;
}

/* The blocks come newest first, and only the oldest are to be had: those that follow each other and
 * are small enough, or a large one alone, which is not copied. */
bool packing::find_oldest(job& work, int64_t row, int64_t& large, std::string& error) {
    size_t copied = 0;
    auto leave = [&](size_t keep) { /* the newest, so that the others are no more than that */
                                    while (!work.blocks.empty() && copied > keep) {
                                        work.newer = work.blocks.back().received;
                                        copied -= work.blocks.back().records.size();
                                        work.blocks.pop_back();
                                    }
    };
    int64_t large_received = 0;
    return engine_.reader().for_each_block(
        row,
        [&](const open_block& b) {
            if (large != 0) {
                work.newer = large_received;
                large = 0;
            }
            if (b.records.size() > large_block) {
                leave(0);
                large = b.row;
                large_received = b.received;
                return true;
            }
            leave(most_copied - std::min(most_copied, b.records.size()));
            work.blocks.push_front({b.row, b.received, std::string(b.records)});
            copied += b.records.size();
            return true;
        },
        error);
}

void packing::sort(job& work, int64_t received, std::string_view records) {
    work.bytes += records.size();
    for (block_reader reader(records); reader.next();) {
        if (!reader.good) {
            continue; /* it was one when it was stored: the file is damaged */
        }
        record_summary what = summarize(reader.current);
        const int64_t time = reckoned_time(what, received);
        test_key key(what.type, what.test);
        work.tests[key].push_back({{received, reader.current.raw}, time});
        work.test_days += work.days[key].insert(day_of(time)).second ? 1 : 0;
    }
}

bool packing::gather(roster_agent& agent, std::string& error) {
    job work{.agent = agent.id};
    stored_agent row;
    error.clear();
    if (!engine_.begin() || !engine_.find_agent(agent.id, row)) {
        error = engine_.reason();
        engine_.give_up();
        return error.empty();
    }
    work_.begin(row);
    int64_t large = 0;
    bool ok =
        work_.state.last_block == 0 || find_oldest(work, work_.state.last_block, large, error);
    if (ok && large != 0) {
        work.top = large;
        ok = engine_.reader().for_each_block(
            large,
            [&](const open_block& b) {
                work.received = b.received;
                sort(work, b.received, b.records);
                while (!work.tests.empty()) {
                    pack_some(work);
                }
                return false;
            },
            error);
    }
    if (!ok) {
        probe(work_.state.last_block);
        return false;
    }
    if (!engine_.commit()) {
        error = engine_.reason();
        return false;
    }
    for (const block& b : work.blocks) {
        if (work.top != 0 && work.test_days >= most_test_days) {
            work.newer = b.received;
            break;
        }
        work.top = b.row;
        work.received = b.received;
        sort(work, b.received, b.records);
    }
    if (work.top != 0) {
        jobs_.push_back(std::move(work));
    } else {
        agent.open_bytes = 0;
    }
    return true;
}

/* Blocks that could not be read: would they go? Where they are damaged that fails, and the engine
 * knows what is to be done about it; otherwise they stay as they are. */
void packing::probe(int64_t row) {
    if (engine_.drop_blocks(row)) {
        engine_.give_up();
        if (engine_.begin()) {
            engine_.commit();
        }
    }
}

/* A chunk of the first of the tests. Results of two days of arrival are never in one, because those
 * are dropped at different times. */
void packing::pack_some(job& work) {
    auto test = work.tests.begin();
    std::vector<gathered_record>& all = test->second;
    made_chunk made{.test = test->first};
    std::vector<arrived_record> records;
    made.about = {.received_first = all[0].record.received,
                  .received_last = all[0].record.received,
                  .first = all[0].time,
                  .last = all[0].time,
                  .data = {}};
    size_t bytes = 0;
    for (const gathered_record& one : all) {
        if (!records.empty() &&
            (records.size() >= most_records || bytes + one.record.record.size() > most_bytes ||
             day_of(one.record.received) != day_of(made.about.received_first))) {
            break;
        }
        records.push_back(one.record);
        bytes += one.record.record.size();
        made.about.received_first = std::min(made.about.received_first, one.record.received);
        made.about.received_last = std::max(made.about.received_last, one.record.received);
        made.about.first = std::min(made.about.first, one.time);
        made.about.last = std::max(made.about.last, one.time);
    }
    made.about.results = static_cast<uint32_t>(records.size());
    if (pack_chunk(records, made.data)) {
        work.chunks.push_back(std::move(made));
    }
    all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(records.size()));
    if (all.empty()) {
        work.tests.erase(test);
    }
}

bool packing::pack(const spell& time) {
    for (job& work : jobs_) {
        while (!work.tests.empty()) {
            if (time.is_over()) {
                return false;
            }
            pack_some(work);
        }
        work.blocks.clear(); /* all of it is in the chunks */
    }
    return true;
}

bool packing::store(const spell& time, int64_t stale_after, const kept_from& kept,
                    std::string& unreadable) {
    stored_.clear();
    bool ok = engine_.begin();
    auto work = jobs_.begin();
    do {
        ok = ok && store(*work, stale_after, kept, unreadable);
    } while (ok && ++work != jobs_.end() && !time.is_over());
    ok = ok && engine_.commit();
    for (auto one = stored_.begin(); ok && one != stored_.end(); ++one) {
        if (roster_agent* agent = agents_.find(one->first)) {
            note_open(*agent, one->second);
        }
    }
    stored_.clear();
    if (ok) {
        jobs_.erase(jobs_.begin(), work);
    }
    return ok;
}

bool packing::store(job& work, int64_t stale_after, const kept_from& kept,
                    std::string& unreadable) {
    stored_agent row;
    if (!engine_.find_agent(work.agent, row)) {
        return engine_.reason().empty();
    }
    work_.begin(row);
    agent_state& state = work_.state;
    std::map<test_key, int64_t> ids;
    for (made_chunk& made : work.chunks) {
        int64_t& id = ids[made.test];
        const test_status* known = state.find(made.test.first, made.test.second);
        id = id == 0 && known != nullptr ? known->id : id;
        if (id == 0 && !engine_.find_test(work.agent, made.test.first, made.test.second, id)) {
            return false;
        }
        made.about.data = made.data;
        if (!engine_.append_chunk(id, made.about)) {
            return false;
        }
    }
    if (!engine_.drop_blocks(work.top)) {
        return false;
    }
    bool all = state.last_block == work.top;
    state.last_block = all ? 0 : state.last_block;
    state.open_bytes = all ? 0 : state.open_bytes - std::min(state.open_bytes, work.bytes);
    state.open_bytes = all ? 0 : std::max<uint64_t>(state.open_bytes, 1);
    state.open_since = all ? 0 : work.newer != 0 ? work.newer : work.received;
    unpacking may;
    for (const auto& [key, id] : ids) {
        if (!store_late(work, key, id, stale_after, kept, may, unreadable)) {
            return false;
        }
    }
    stored_.emplace_back(work.agent, state);
    return engine_.set_state(work.agent, storing_.packed(work_));
}

/* Of the days on which there was a result, and those into which its state may go on, the ones that
 * are closed and kept. */
std::vector<int64_t> packing::closed_days(const std::set<int64_t>& of, int64_t test,
                                          int64_t stale_after, const kept_from& kept) const {
    std::vector<int64_t> closed;
    const int64_t reach = 1 + stale_after / day_seconds;
    int64_t next = std::max<int64_t>(0, std::min(kept.five_minutes, kept.hour));
    for (int64_t day : of) {
        for (next = std::max(next, day); next <= day + reach && closing_.is_closed(test, next);
             next++) {
            closed.push_back(next);
        }
    }
    return closed;
}

/* What came for days that are closed: they are made anew where all that came on them is still
 * there, or else what is late is added. Results arrive on the day of their time, behind it, or
 * skew_s before it. */
bool packing::store_late(job& work, const test_key& key, int64_t test, int64_t stale_after,
                         const kept_from& kept, unpacking& may, std::string& unreadable) {
    const std::vector<int64_t> closed = closed_days(work.days[key], test, stale_after, kept);
    if (closed.empty()) {
        return true;
    }
    const int64_t dropped = engine_.read_fact("dropped_through").value_or(INT64_MIN);
    const auto whole =
        std::find_if(closed.begin(), closed.end(), [&](int64_t day) { return dropped < day - 1; });
    const std::span<const int64_t> made_anew(whole, closed.end()), added(closed.begin(), whole);
    std::vector<std::string_view> chunks;
    for (const made_chunk& made : work.chunks) {
        if (made.test == key) {
            chunks.push_back(made.data);
        }
    }
    return roll_up_days(engine_, test, made_anew, stale_after, kept, may, unreadable) &&
           add_to_days(engine_, test, added, stale_after, kept, chunks, may, unreadable);
}
