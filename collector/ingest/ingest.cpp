/* DESIGN
 *
 * One thread owns the engine. It takes everything that waits, writes it in one transaction, syncs,
 * and only then tells the listener and answers. What an answer says is therefore on disk, and
 * whatever ends the process before the commit leaves nothing: the agent was not answered and sends
 * again.
 *
 * A record is decoded once, before it is written. What was read from it is kept until the commit,
 * for the listener; so that this takes no memory to speak of, a transaction ends where that is
 * most_decoded records.
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

#include "ingest/expiry.h"
#include "ingest/queue.h"
#include "ingest/trouble.h"
#include "ingest/undecodable.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <pthread.h>
#include <thread>
#include <vector>

namespace {

/* What is done of a large block in one go, some 50 ms of work: the rest waits for the others. The
 * last record of a slice may be one of record_max_size. */
struct slice_limits {
    size_t hashed = 16u << 20;
    size_t bytes = 4u << 20;
    size_t records = 8192;
    std::chrono::milliseconds decoding{20};
};
slice_limits slice; /* a test makes it small */

constexpr size_t most_decoded = 16384; /* records, before the last block of a transaction */

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
        expiry_ = std::make_unique<expiry>(*engine_, aside_, options_.keep_days, tell_);
        expiry_->begin();
        expiry_->run();
        thread_ = std::thread([this] { write_batches(); });
        pthread_setname_np(thread_.native_handle(), "store");
        return true;
    }

    void submit(poll_block block, std::function<void(store_result)> done) override {
        if (block.plain.empty()) {
            done(store_result::stored);
        } else if (!queue_.put(block, done)) {
            done(store_result::failed);
        }
    }

private:
    /* Of a batch, what one transaction takes. */
    using batch = std::deque<queued_block>;
    using position = batch::iterator;

    void write_batches();
    position write_run(position from, position end);
    bool store_all(position from, position& to, std::string& error);
    bool store_run(position from, position& to);
    bool store_block(queued_block& b);
    bool hash_block(queued_block& b);
    void decode_slice(queued_block& b);
    bool keep_aside(queued_block& b);
    void tell_of(const queued_block& b);
    void look_after();

    const ingest_options options_;
    store_listener* const listener_;
    const tell_function tell_ = [this](const std::string& text) {
        if (listener_ != nullptr) {
            listener_->on_problem(text);
        }
    };
    block_queue queue_;

    /* Of the writer thread, once it runs. */
    undecodable_files aside_{options_.directory + "/undecodable"};
    std::unique_ptr<engine> engine_;
    std::unique_ptr<expiry> expiry_;
    std::vector<decoded_record> decoded_; /* of the transaction; the memory is kept */
    running_hash hash_;                   /* of blocks that are hashed in one go */
    trouble trouble_{tell_, "results are stored again"};
    trouble aside_trouble_{tell_, "what does not decode is kept aside again"};

    std::thread thread_;
};

void writer::write_batches() {
    batch blocks;
    while (queue_.take(blocks)) {
        for (position at = blocks.begin(); at != blocks.end();) {
            at = write_run(at, blocks.end());
        }
        if (!blocks.empty() && blocks.back().unfinished) {
            queue_.put_back(std::move(blocks.back()));
        }
        blocks.clear();
        look_after();
    }
}

/* What is to be done now and then, also when nothing comes. */
void writer::look_after() {
    try {
        std::string dropped = aside_.report(undecodable_files::clock::now());
        if (!dropped.empty()) {
            tell_(dropped);
        }
        engine_->look_after();
        expiry_->run();
    } catch (const std::exception&) { /* no memory: at the next batch */
    }
}

/* Stores blocks in one transaction, and answers; returns behind the last one. Where that fails, all
 * of the batch has failed. */
writer::position writer::write_run(position from, position end) {
    position to = end;
    std::string error;
    bool ok = false;
    try {
        ok = store_all(from, to, error);
    } catch (const std::exception& e) { /* no memory, most likely */
        error = e.what();
        engine_->give_up();
    }
    if (!ok) {
        to = end;
        for (position b = from; b != to; ++b) {
            b->result = store_result::failed;
            b->unfinished = false;
        }
    }
    try {
        trouble_.report(ok ? "" : "results cannot be stored, the agents keep them: " + error);
    } catch (const std::exception&) { /* the next batch says it */
    }
    for (position b = from; b != to; ++b) {
        try {
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
    return to;
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
    if (!engine_->begin()) {
        return false;
    }
    const position end = to;
    for (to = from; to != end && decoded_.size() < most_decoded; ++to) {
        if (!store_block(*to)) {
            return false;
        }
    }
    return engine_->commit();
}

/* False when the engine failed. A block that cannot be kept for reasons of its own just stays
 * `failed`. */
bool writer::store_block(queued_block& b) {
    const poll_block& block = b.block;
    b.result = store_result::failed;
    b.bad = {};
    b.kept_as.clear();
    b.records = 0;
    b.unfinished = !hash_block(b);
    if (b.unfinished) {
        return true;
    }
    stored_agent agent;
    if (!engine_->find_agent(block.account, block.agent, block.received, agent)) {
        return false;
    }
    if (agent.last_block == view_of(b.hash)) {
        b.result = store_result::duplicate;
        return true;
    }
    b.from = b.stored > 0 && b.generation == engine_->generation()
                 ? b.stored
                 : block_mark::stored_before(agent.last_block, b.hash, block.plain.size());
    decode_slice(b);
    if (b.bad.bytes > 0) {
        if (!keep_aside(b)) {
            return true;
        }
        std::string reason = b.bad.text(), name = std::filesystem::path(b.kept_as).filename();
        if (!name.empty() &&
            !engine_->append_undecodable(block.received,
                                         {b.from + b.bad.offset, b.bad.bytes, reason, name})) {
            return false;
        }
    }
    auto results = std::span<const decoded_record>(decoded_).subspan(b.first_record, b.records);
    if (!engine_->append(block.received, results)) {
        return false;
    }
    b.result = store_result::stored;
    b.unfinished = !b.last_part();
    block_mark mark(b.hash, b.unfinished ? std::optional<uint64_t>(b.to) : std::nullopt);
    return engine_->end_block({block.received, block.address, block.version}, mark.text());
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
            decoded_.push_back({reader.current, summarize(reader.current)});
        } else {
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
    if (listener_ == nullptr || b.result != store_result::stored) {
        return;
    }
    for (size_t i = 0; i < b.records; i++) {
        listener_->on_record(b.block, decoded_[b.first_record + i]);
    }
    if (!b.kept_as.empty()) {
        listener_->on_undecodable(b.block, b.from + b.bad.offset, b.bad.bytes, b.bad.text(),
                                  b.kept_as);
    }
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
