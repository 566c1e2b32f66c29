/* DESIGN
 *
 * One thread owns the engine. It takes everything that waits, writes it in one transaction, syncs,
 * and only then tells the listener and answers. What an answer says is therefore on disk, and
 * whatever ends the process before the commit leaves nothing: the agent was not answered and sends
 * again.
 *
 * A record is decoded once, before it is written. What was read from it is kept until the commit,
 * for the listener, and so are the states of the agents; so that this takes no memory to speak of,
 * a transaction ends where that is most_decoded records, or most_tests of as many agents.
 *
 * What a transaction makes of an agent begins with the agent's row. One that is tried again after a
 * failure therefore counts nothing twice; and what is remembered besides, of who was heard and how
 * much lies open, follows the commit.
 *
 * A large block is written in slices, one in each transaction and the blocks of other agents
 * between them, so that nobody waits for the whole of it. How far it got is in the agent's row,
 * behind the hash: a block that comes again after an end in its middle goes on from there. In a
 * file that takes the place of another it begins anew.
 *
 * A commit whose answer is lost is what makes blocks come twice. An agent has one block pending at
 * a time and sends it unchanged until it is accepted, so a repetition can only be of its last
 * stored block. The hash of that block is in the agent's row and changes in the transaction that
 * stores the records; it survives whatever the records survive. */
#include "ingest/ingest.h"

#include "ingest/attendance.h"
#include "ingest/clock.h"
#include "ingest/in_transaction.h"
#include "ingest/queue.h"
#include "ingest/roster.h"
#include "ingest/storing.h"
#include "ingest/takeover.h"
#include "ingest/trouble.h"
#include "ingest/undecodable.h"
#include "ingest/upkeep.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <vector>

namespace {

/* What is done of a large block in one go, some 20 ms of work: the rest waits for the others. The
 * last record of a slice may be one of record_max_size. */
struct slice_limits {
    size_t hashed = 8u << 20;
    size_t bytes = 1u << 20;
    size_t records = 4096;
    std::chrono::milliseconds decoding{10};
};
slice_limits slice; /* a test makes it small */

/* Before the last block of a transaction: records, agents, and tests of these. */
constexpr size_t most_decoded = 16384, most_agents = 1024, most_tests = 65536;
/* Of an agent in a transaction whose memory is kept for the next one. */
constexpr size_t usual_tests = 1024;

constexpr std::chrono::milliseconds between_looks{2000}, before_retry{10000}, before_plan{20};
/* After a failure: agents come again within their intervals, and if none does it is tried without.
 */
std::chrono::milliseconds before_trial{60000}; /* a test makes it short */

/* What stands in an agent's row for its last block: the hash, and behind it, while the block is
 * stored in part, how much of it is. */
class block_mark {
public:
    block_mark(const block_hash& hash, std::optional<uint64_t> stored) {
        memcpy(bytes_, hash.data(), hash.size());
        if (stored) {
            memcpy(bytes_ + hash.size(), &*stored, sizeof(*stored));
            size_ += sizeof(*stored);
        }
    }
    std::string_view text() const { return {bytes_, size_}; }

    /* Where to go on with the block of `hash`. */
    static size_t stored_before(std::string_view mark, const block_hash& hash, size_t size) {
        uint64_t stored = 0;
        if (mark.size() == hash.size() + sizeof(stored) && mark.starts_with(view_of(hash))) {
            memcpy(&stored, mark.data() + hash.size(), sizeof(stored));
        }
        return stored < size ? stored : 0;
    }

private:
    char bytes_[sizeof(block_hash) + sizeof(uint64_t)];
    size_t size_ = sizeof(block_hash);
};

class writer final : public ingest {
public:
    /* The directory's path is absolute. */
    writer(const ingest_options& options, store_listener* listener)
        : options_(options), listener_(listener),
          queue_({options.max_queued, options.large, options.max_large_queued}) {}

    ~writer() override {
        if (thread_.joinable()) {
            queue_.stop();
            thread_.join();
        }
    }

    bool start(std::string& error) {
        engine_ = open_engine({options_.directory, options_.keep_days, tell_}, error);
        if (!engine_) {
            return false;
        }
        parts_ = std::make_unique<parts>(*this);
        begin();
        if (!parts_->earlier.begin()) {
            is_taken_over_ = true;
            look_after();
        }
        beat();
        pulse_.set(is_taken_over_ ? storing_state::works : storing_state::takes_over);
        try {
            thread_ = std::thread([this] { write_batches(); });
        } catch (const std::system_error& e) {
            error = "cannot start a thread: " + e.code().message();
            return false;
        }
        pthread_setname_np(thread_.native_handle(), "store");
        return true;
    }

    void submit(poll_block block, std::function<void(store_result)> done) override {
        if (block.plain.empty()) {
            done(store_result::stored);
        } else if (!queue_.put(block, done)) {
            held_up(block.account, block.agent);
            done(store_result::failed);
        }
    }

    void heard(std::string_view account, std::string_view agent, int64_t received,
               std::string_view address, std::string_view version) override {
        parts_->present.heard(account, agent, received, address, version);
    }
    void held_up(std::string_view account, std::string_view agent) override {
        parts_->present.held_up(account, agent);
    }
    void follow(plan_summary plan, std::vector<owned_definition> definitions) override {
        parts_->present.follow(std::move(plan), std::move(definitions));
    }
    void follow_agents(std::vector<agent_plan> plans) override {
        parts_->present.follow_agents(std::move(plans));
    }
    void update(std::function<bool(engine&)> what, change_done done) override {
        want({.what = std::move(what), .done = std::move(done)});
    }
    void retire(int64_t agent, change_done done) override {
        want({.retires = agent, .done = std::move(done)});
    }
    queue_load waiting() override { return queue_.waiting_now(); }
    queue_delay behind() override { return queue_.delay(); }

private:
    /* What works on the engine, of the writer thread but for what others are told they may call. */
    struct parts {
        explicit parts(writer& of)
            : store(*of.engine_), present(*of.engine_, of.agents_,
                                          [&of](const roster_agent& agent, const agent_work& now) {
                                              of.tell_of(agent.account, agent.name, now);
                                          }),
              care(*of.engine_, of.agents_, of.aside_,
                   {.raw = of.options_.keep_days,
                    .five_minutes = of.options_.keep_5min_days,
                    .hour = of.options_.keep_hour_days,
                    .events = of.options_.keep_event_days,
                    .ledger = of.options_.keep_ledger_days,
                    .changes = of.options_.keep_change_days},
                   of.tell_),
              earlier(*of.engine_, of.tell_,
                      [&of](const agent_work& agent) { of.note_stored(agent); }) {}
        storing store;
        attendance present;
        upkeep care;
        takeover earlier;
    };

    /* What others want changed. */
    struct wanted {
        std::function<bool(engine&)> what = {};
        int64_t retires = 0; /* or this agent */
        change_done done;
    };
    void want(wanted more);
    void make_changes();
    void make_change(wanted& one);
    static void answer(const wanted& one, bool ok, const std::string& reason);
    bool retire_agent(int64_t agent);
    void tell_of_retired(int64_t agent);
    void refuse_changes();

    /* Of a batch, what one transaction takes. */
    using batch = std::deque<queued_block>;
    using position = batch::iterator;

    void begin();
    bool is_known();
    upkeep_view view() const {
        return {arrival_clock(), parts_->present.newest(), parts_->present.longest_stale_after(),
                parts_->present.on_clock()};
    }
    void write_batches();
    bool take_plan();
    void go_on_later(queued_block& b);
    void take_over();
    void refuse_all();
    position write_run(position from, position end);
    bool store_all(position from, position& to, std::string& error);
    bool store_run(position from, position& to);
    bool store_block(queued_block& b);
    bool store_repetition(queued_block& b, agent_work& work);
    bool store_slice(queued_block& b, agent_work& work);
    agent_work& next_work(queued_block& b);
    void note_stored(const agent_work& work);
    void note_stored(const queued_block& b);
    void trim_works();
    bool hash_block(queued_block& b);
    void decode_slice(queued_block& b);
    bool keep_aside(queued_block& b);
    void count(const queued_block& b);
    void tell_of(const queued_block& b);
    void tell_of(std::string_view account, std::string_view agent, const agent_work& work);
    void tell_of_all();
    bool look_after();
    void beat() { pulse_.beat(store_pulse::clock::now()); }
    void note_outcome(bool ok, const std::string& error);
    void try_storing();

    const ingest_options options_;
    store_pulse nobodys_;
    store_pulse& pulse_ = options_.counted != nullptr ? options_.counted->pulse : nobodys_;
    store_pulse::clock::time_point tried_; /* of the last transaction with blocks */
    store_listener* const listener_;
    const tell_function tell_ = [this](const std::string& text) {
        if (listener_ != nullptr) {
            listener_->on_problem(text);
        }
    };
    block_queue queue_;
    std::mutex wanted_mutex_;
    std::vector<wanted> wanted_;
    bool takes_changes_ = true;
    const std::string stopping_ = "the collector is stopping"; /* then there may be no memory */

    /* Of the writer thread, once it runs. */
    undecodable_files aside_{options_.directory + "/undecodable"};
    std::unique_ptr<engine> engine_;
    unsigned generation_ = 0; /* of the file that the next two know */
    roster agents_;
    std::unique_ptr<parts> parts_;
    bool is_taken_over_ = false;          /* what an earlier version left */
    std::vector<decoded_record> decoded_; /* of the transaction; the memory is kept */
    std::deque<agent_work> works_;        /* likewise; those in use come first */
    size_t works_used_ = 0, tests_used_ = 0;
    running_hash hash_; /* of blocks that are hashed in one go */
    trouble trouble_{tell_, "results are stored again"};
    trouble aside_trouble_{tell_, "what does not decode is kept aside again"};

    std::thread thread_;
};

/* Learns what there is: at the start, and in another file. */
void writer::begin() {
    generation_ = engine_->generation();
    parts_->present.begin(); /* damage is met, and told of, by the next block */
    parts_->care.begin();
}

/* Whether what is remembered is of the file that is written to, which is another one when somebody
 * removed, replaced or damaged the one before. */
bool writer::is_known() {
    if (generation_ != engine_->generation() && engine_->begin() && engine_->commit()) {
        begin();
    }
    return generation_ == engine_->generation();
}

bool writer::take_plan() {
    try {
        return parts_->present.take_plan();
    } catch (const std::exception&) { /* no memory: before the next batch */
        return false;
    }
}

/* Nothing may be thrown here but in a try: there is nobody above. */
void writer::write_batches() {
    if (!is_taken_over_) {
        take_over();
    }
    batch blocks;
    bool more = false;
    while (queue_.take(blocks, more ? std::chrono::milliseconds(0) : between_looks,
                       !parts_->care.is_behind())) {
        beat();
        take_plan(); /* it holds for what comes after it */
        for (position at = blocks.begin(); at != blocks.end();) {
            at = write_run(at, blocks.end());
        }
        make_changes();
        if (!blocks.empty() && blocks.back().unfinished) {
            go_on_later(blocks.back());
        }
        blocks.clear();
        more = look_after();
        try_storing();
        try {
            if (listener_ != nullptr) {
                listener_->on_batch_end();
            }
        } catch (const std::exception&) { /* no memory: stored all the same */
        }
    }
    refuse_changes();
    try {
        parts_->present.finish();
    } catch (const std::exception&) { /* no memory: somebody was heard later than it says */
        engine_->give_up();
    }
}

/* What is to be done now and then, also when nothing comes. True when more is due at once. */
bool writer::look_after() {
    try {
        std::string dropped = aside_.report(undecodable_files::clock::now());
        if (!dropped.empty()) {
            tell_(dropped);
        }
        engine_->look_after();
        if (!is_known()) {
            return false;
        }
        bool more = parts_->present.run();
        return parts_->care.run(view()) || more;
    } catch (const std::exception&) { /* no memory: at the next batch */
        engine_->give_up();
        return false;
    }
}

/* Before anything else is stored, so that all stays in the order in which it came. Days are closed
 * by the time of what comes, as they would have been then. */
void writer::take_over() {
    /* What was to come is told right after the start, if at all. */
    for (int i = 0; i < 10 && !take_plan(); i++) {
        queue_.wait_for_stop(before_plan);
    }
    takeover::progress made = takeover::progress::more;
    while (made != takeover::progress::done && !queue_.is_stopped()) {
        beat();
        try {
            engine_->look_after();
            make_changes();
            made = is_known() ? parts_->earlier.step(parts_->present.longest_stale_after())
                              : takeover::progress::failed;
            upkeep_view then = view();
            then.now = parts_->earlier.now();
            then.clock = witness::verdict::none;
            while (made == takeover::progress::more && !queue_.is_stopped() &&
                   parts_->care.run_without_expiry(then)) {
                beat();
            }
        } catch (const std::exception&) { /* no memory */
            engine_->give_up();
            made = takeover::progress::failed;
        }
        if (made == takeover::progress::failed) {
            queue_.wait_for_stop(before_retry);
        }
    }
    if (made != takeover::progress::done) {
        refuse_all();
        return;
    }
    try {
        begin(); /* from then on agents are waited for */
        tell_of_all();
    } catch (const std::exception&) {
        parts_->present.failed();
    }
    is_taken_over_ = true;
    beat();
    pulse_.set(storing_state::works);
}

/* Stopped before it could store anything. */
void writer::refuse_all() {
    batch blocks;
    do {
        blocks.clear();
        bool left = queue_.take(blocks, std::chrono::milliseconds(0), true);
        for (queued_block& b : blocks) {
            queue_.leave(b);
            b.done(store_result::failed);
        }
        if (!left) {
            return;
        }
    } while (true);
}

/* Stores blocks in one transaction, and answers; returns behind the last one. Where that fails, all
 * of the batch has failed. */
writer::position writer::write_run(position from, position end) {
    position to = end;
    std::string error;
    bool ok = false;
    const auto begun = std::chrono::steady_clock::now();
    try {
        ok = store_all(from, to, error);
    } catch (const std::exception& e) { /* no memory, most likely */
        error = e.what();
        engine_->give_up();
    }
    if (!ok) {
        parts_->present.failed();
        to = end;
        for (position b = from; b != to; ++b) {
            b->result = store_result::failed;
            b->unfinished = false;
        }
    }
    note_outcome(ok, error);
    try {
        trouble_.report(ok ? "" : "results cannot be stored, the agents keep them: " + error);
    } catch (const std::exception&) { /* the next batch says it */
    }
    if (options_.counted != nullptr) {
        options_.counted->commits.add(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    }
    for (position b = from; b != to; ++b) {
        count(*b);
        try {
            if (is_known()) {
                note_stored(*b);
            }
            tell_of(*b);
        } catch (const std::exception&) { /* stored all the same */
        }
        b->stored = b->to;
        b->generation = engine_->generation();
        if (!b->unfinished) {
            queue_.leave(*b); /* before the answer: the agent may send its next block at once */
            b->done(b->result);
        }
    }
    trim_works();
    return to;
}

/* Where there is no memory for that it comes again, and goes on behind what is stored of it. */
void writer::go_on_later(queued_block& b) {
    try {
        queue_.put_back(std::move(b));
    } catch (const std::exception&) {
        queue_.leave(b);
        b.done(store_result::failed);
    }
}

/* For whoever asks whether results are stored. */
void writer::note_outcome(bool ok, const std::string& error) {
    beat();
    tried_ = store_pulse::clock::now();
    if (ok) {
        pulse_.set(storing_state::works);
    } else {
        pulse_.set_failed(error);
    }
}

/* What failed may have been mended since, and no block come that would show it. */
void writer::try_storing() {
    const storing_state now = pulse_.state();
    if ((now != storing_state::fails && now != storing_state::disk_full) ||
        store_pulse::clock::now() - tried_ < before_trial) {
        return;
    }
    std::string error;
    bool ok = false;
    try {
        ok = in_transaction(*engine_, [&] { return engine_->set_fact("tried", arrival_clock()); });
        error = engine_->reason();
    } catch (const std::exception& e) { /* no memory, most likely */
        engine_->give_up();
        error = e.what();
    }
    note_outcome(ok, error);
}

void writer::count(const queued_block& b) {
    counters* all = options_.counted;
    if (all == nullptr) {
        return;
    }
    if (b.result == store_result::failed) {
        ++all->store_failures;
    } else if (b.result == store_result::stored) {
        all->results += b.records;
        all->undecodable += b.bad.pieces;
        all->stored_bytes += b.to - b.from;
    }
}

/* ---- what others want changed ---- */

void writer::want(wanted more) {
    std::unique_lock hold(wanted_mutex_);
    if (takes_changes_) {
        wanted_.push_back(std::move(more));
        hold.unlock();
        queue_.nudge();
    } else {
        hold.unlock();
        if (more.done) {
            more.done(false, stopping_);
        }
    }
}

void writer::make_changes() {
    std::vector<wanted> some;
    {
        std::lock_guard hold(wanted_mutex_);
        some.swap(wanted_);
    }
    for (wanted& one : some) {
        beat();
        make_change(one);
    }
}

void writer::make_change(wanted& one) {
    std::string reason;
    bool ok = false;
    try {
        bool again = false;
        do {
            ok = engine_->begin() && (one.what ? one.what(*engine_) : retire_agent(one.retires)) &&
                 engine_->commit();
            again = !ok && !engine_->is_open() && engine_->recover();
        } while (again);
        if (!ok && !engine_->is_open()) {
            reason = engine_->reason();
        }
    } catch (const std::exception& e) { /* no memory, most likely */
        ok = false;
        reason = e.what();
    }
    if (!ok) {
        engine_->give_up();
    }
    try {
        if (ok && one.retires != 0) {
            parts_->present.forget(one.retires);
            tell_of_retired(one.retires);
        }
    } catch (const std::exception&) { /* no memory: it may be missed once more */
    }
    answer(one, ok, reason);
}

void writer::tell_of_retired(int64_t agent) {
    if (listener_ == nullptr) {
        return;
    }
    std::string error;
    engine_->reader().read_agent(
        agent,
        [&](const known_agent& row) {
            listener_->on_retired(row.id, row.account, row.agent, row.retired);
        },
        error);
    listener_->on_batch_end();
}

/* Whoever cannot be told has to give up waiting. */
void writer::answer(const wanted& one, bool ok, const std::string& reason) {
    try {
        one.done(ok, reason);
    } catch (const std::exception&) { /* no memory */
    }
}

/* What lies open is packed as ever. */
bool writer::retire_agent(int64_t agent) {
    stored_agent row;
    if (!engine_->find_agent(agent, row)) {
        return false;
    }
    agent_work work;
    work.begin(row);
    work.state.tests.clear();
    work.state.inventories.clear();
    work.state.silent = false;
    work.state.since = 0;
    work.state.every.reset();
    return engine_->retire_agent(agent, arrival_clock()) &&
           engine_->set_state(agent, parts_->store.packed(work));
}

void writer::refuse_changes() {
    std::vector<wanted> some;
    {
        std::lock_guard hold(wanted_mutex_);
        takes_changes_ = false;
        some.swap(wanted_);
    }
    for (const wanted& one : some) {
        answer(one, false, stopping_);
    }
}

/* Of what an earlier version left. */
void writer::note_stored(const agent_work& work) {
    if (const roster_agent* known = agents_.find(work.id)) {
        parts_->present.stored(work, known->account, known->name, steady_clock(), false);
    }
}

void writer::note_stored(const queued_block& b) {
    if (b.result == store_result::failed || b.work >= works_used_) {
        return;
    }
    const agent_work& work = works_[b.work];
    parts_->present.stored(work, b.block.account, b.block.agent, b.submitted,
                           b.result == store_result::stored);
    if (const roster_agent* known = agents_.find(work.id)) {
        parts_->care.grown(*known);
    }
}

/* An agent with very many tests is no reason to keep memory for them in each place. */
void writer::trim_works() {
    for (size_t i = 0; i < works_used_; i++) {
        if (works_[i].state.tests.capacity() > usual_tests) {
            works_[i] = {};
        }
    }
    works_used_ = 0;
}

bool writer::store_all(position from, position& to, std::string& error) {
    engine_->look_after();
    const position end = to;
    do {
        to = end;
        if (store_run(from, to)) {
            return true;
        }
    } while (engine_->recover());
    error = engine_->reason();
    return false;
}

/* False when the engine failed; then nothing of it is stored. `to` is where it ends. */
bool writer::store_run(position from, position& to) {
    decoded_.clear();
    works_used_ = tests_used_ = 0;
    if (!engine_->begin()) {
        return false;
    }
    const position end = to;
    for (to = from; to != end && decoded_.size() < most_decoded && works_used_ < most_agents &&
                    tests_used_ < most_tests;
         ++to) {
        if (!store_block(*to)) {
            return false;
        }
    }
    return engine_->commit();
}

agent_work& writer::next_work(queued_block& b) {
    b.work = works_used_++;
    if (b.work >= works_.size()) {
        works_.emplace_back();
    }
    return works_[b.work];
}

/* False when the engine failed. A block that cannot be kept for reasons of its own just stays
 * `failed`. */
bool writer::store_block(queued_block& b) {
    const poll_block& block = b.block;
    b.result = store_result::failed;
    b.bad = {};
    b.kept_as.clear();
    b.records = 0;
    b.work = SIZE_MAX;
    b.unfinished = !hash_block(b);
    if (b.unfinished) {
        return true;
    }
    stored_agent agent;
    if (!engine_->find_agent(block.account, block.agent, block.received, agent)) {
        return false;
    }
    bool goes_on = b.stored > 0 && b.generation == engine_->generation();
    b.repeated = agent.last_block == view_of(b.hash) || (goes_on && b.repeated);
    b.from = goes_on || b.repeated
                 ? (goes_on ? b.stored : 0)
                 : block_mark::stored_before(agent.last_block, b.hash, block.plain.size());
    agent_work& work = next_work(b);
    work.begin(agent);
    bool ok = b.repeated ? store_repetition(b, work) : store_slice(b, work);
    tests_used_ += work.state.tests.size();
    return ok;
}

/* Nothing of it is stored again but that it came. */
bool writer::store_repetition(queued_block& b, agent_work& work) {
    decode_slice(b);
    b.bad = {};
    b.result = store_result::duplicate;
    b.unfinished = !b.last_part();
    auto results = std::span<const decoded_record>(decoded_).subspan(b.first_record, b.records);
    return parts_->store.repetition(work, results, b.block.received,
                                    parts_->present.brings_back(work.id, b.submitted)) &&
           engine_->set_state(work.id, parts_->store.packed(work));
}

bool writer::store_slice(queued_block& b, agent_work& work) {
    const poll_block& block = b.block;
    decode_slice(b);
    if (b.bad.bytes > 0) {
        if (!keep_aside(b)) {
            return true;
        }
        std::string reason = b.bad.text(), name = std::filesystem::path(b.kept_as).filename();
        if (!name.empty() &&
            !engine_->append_undecodable(work.id, block.received,
                                         {b.from + b.bad.offset, b.bad.bytes, reason, name})) {
            return false;
        }
    }
    auto results = std::span<const decoded_record>(decoded_).subspan(b.first_record, b.records);
    const patience now = parts_->present.now(work, block.account, block.agent);
    if (!parts_->store.records(work, results, block.received, now,
                               parts_->present.brings_back(work.id, b.submitted))) {
        return false;
    }
    b.result = store_result::stored;
    b.unfinished = !b.last_part();
    block_mark mark(b.hash, b.unfinished ? std::optional<uint64_t>(b.to) : std::nullopt);
    return engine_->end_block(work.id, {block.received, block.address, block.version}, mark.text(),
                              parts_->store.packed(work));
}

/* True when the whole hash is there. */
bool writer::hash_block(queued_block& b) {
    if (b.hash_is_known) {
        return true;
    }
    std::string_view rest = std::string_view(b.block.plain).substr(b.hashed);
    if (!b.large) {
        hash_.add(rest);
        b.hash = hash_.finish();
        b.hash_is_known = true;
        return true;
    }
    if (!b.hashing) {
        b.hashing.emplace();
    }
    std::string_view now = rest.substr(0, slice.hashed);
    b.hashing->add(now);
    b.hashed += now.size();
    if (b.hashed < b.block.plain.size()) {
        return false;
    }
    b.hash = b.hashing->finish();
    b.hash_is_known = true;
    b.hashing.reset();
    return true;
}

/* Decodes what the next slice holds: all of the block, unless that is large. */
void writer::decode_slice(queued_block& b) {
    using clock = std::chrono::steady_clock;
    const clock::time_point until = clock::now() + slice.decoding;
    block_reader reader(std::string_view(b.block.plain).substr(b.from));
    b.first_record = decoded_.size();
    size_t end = 0;
    for (size_t pieces = 0; reader.next(); pieces++) {
        if (reader.good) {
            if (options_.hidden != nullptr) { /* the hash is of what came, and known by now */
                options_.hidden->cover(reader.current);
            }
            decoded_.push_back({reader.current, summarize(reader.current)});
        } else {
            if (options_.hidden != nullptr) {
                options_.hidden->cover(b.block.plain.data() + b.from + reader.offset, reader.bytes);
            }
            b.bad.add(reader);
        }
        end = reader.offset + reader.bytes;
        if (b.large && (end >= slice.bytes || pieces + 1 >= slice.records ||
                        (pieces % 64 == 63 && clock::now() >= until))) {
            break;
        }
    }
    b.records = decoded_.size() - b.first_record;
    b.to = b.from + end;
}

/* False when the pieces that are no records cannot be written: then the block must come again. What
 * is dropped because too much comes is no failure. */
bool writer::keep_aside(queued_block& b) {
    block_hash name = b.from == 0 ? b.hash : sha256(block_mark(b.hash, b.from).text());
    std::string path, error;
    auto outcome = aside_.keep(b.block.account, b.block.agent, b.block.received, view_of(name),
                               b.part(), b.bad.bytes, undecodable_files::clock::now(), path, error);
    if (outcome == undecodable_files::outcome::kept) {
        b.kept_as = path;
    }
    bool failed = outcome == undecodable_files::outcome::failed;
    aside_trouble_.report(
        failed ? "cannot keep aside what does not decode, its agent keeps it: " + error : "");
    return !failed;
}

void writer::tell_of(const queued_block& b) {
    if (b.result == store_result::failed || b.work >= works_used_) {
        return;
    }
    const agent_work& work = works_[b.work];
    if (b.result == store_result::duplicate) {
        if (!work.out.changes.empty()) { /* it was silent */
            tell_of(b.block.account, b.block.agent, work);
        }
        return;
    }
    for (size_t i = 0; listener_ != nullptr && i < b.records; i++) {
        listener_->on_record(b.block, decoded_[b.first_record + i]);
    }
    if (listener_ != nullptr && !b.kept_as.empty()) {
        listener_->on_undecodable(b.block, b.from + b.bad.offset, b.bad.bytes, b.bad.text(),
                                  b.kept_as);
    }
    tell_of(b.block.account, b.block.agent, work);
}

void writer::tell_of(std::string_view account, std::string_view agent, const agent_work& work) {
    if (options_.counted != nullptr) {
        options_.counted->events += work.out.changes.size();
    }
    if (listener_ == nullptr) {
        return;
    }
    for (const change& c : work.out.changes) {
        listener_->on_event({.id = c.event,
                             .time = c.time,
                             .agent = work.id,
                             .test = c.test,
                             .from = static_cast<uint8_t>(c.from),
                             .to = static_cast<uint8_t>(c.to),
                             .message = c.message});
    }
    listener_->on_agent(work.id, account, agent, work.state, work.out.changes);
}

/* How they stand after what an earlier version left. */
void writer::tell_of_all() {
    agent_state state;
    std::string error;
    auto tell = [&](const known_agent& agent) {
        if (listener_ != nullptr && agent.retired == 0 && state.unpack(agent.state)) {
            listener_->on_agent(agent.id, agent.account, agent.agent, state, {});
        }
    };
    engine_->reader().for_each_agent(tell, error); /* what is damaged is told of otherwise */
}

} // namespace

std::unique_ptr<ingest> ingest::open(const ingest_options& options, store_listener* listener,
                                     std::string& error) {
    namespace fs = std::filesystem;
    ingest_options absolute = options;
    std::error_code failed;
    absolute.directory = fs::absolute(options.directory, failed).lexically_normal();
    auto opened = std::make_unique<writer>(absolute, listener);
    return opened->start(error) ? std::move(opened) : nullptr;
}
