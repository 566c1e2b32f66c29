/* Blocks on their way into the store: one thread that takes what waits, decodes it, keeps aside
 * what is no record, has the engine write it in one transaction, and then tells and answers. No
 * network and no SQL in here.
 *
 * In the state directory, besides what the engine has there: undecodable/, with a file for each
 * block of which something did not decode. */
#ifndef VINDRAL_COLLECTOR_INGEST_H
#define VINDRAL_COLLECTOR_INGEST_H

#include "base/record_summary.h"
#include "ingest/agent_plan.h"
#include "ingest/counters.h"
#include "ingest/hidden_texts.h"
#include "ingest/owned_definition.h"
#include "ingest/poll_block.h"
#include "state/expected.h"
#include "state/take.h"
#include "store/engine.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/* Told of each record once it is committed, and of what could not be decoded. Called on the writer
 * thread, in order, before the block's `done`. The record is a view that ends with the call. */
struct store_listener {
    virtual ~store_listener() = default;
    virtual void on_record(const poll_block& from, const decoded_record& result) = 0;
    virtual void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                                const std::string& reason, const std::string& kept_as) = 0;
    /* How an agent stands after the records of a block, and what changed with it; or after nothing
     * came for too long, or it came back; `id` is that of its row. The others are views that end
     * with the call. */
    virtual void on_agent(int64_t id, std::string_view account, std::string_view agent,
                          const agent_state& now, std::span<const change> changes) {
        (void)id, (void)account, (void)agent, (void)now, (void)changes;
    }
    /* An event, as it is stored: once it is committed, ahead of on_agent() for its block. */
    virtual void on_event(const stored_event& event) { (void)event; }
    /* An agent was retired; what is told of it after that is of its new beginning. */
    virtual void on_retired(int64_t id, std::string_view account, std::string_view agent,
                            int64_t time) {
        (void)id, (void)account, (void)agent, (void)time;
    }
    /* A batch is told of as a whole. */
    virtual void on_batch_end() {}
    /* Something the operator should see: storing fails, storing works again. The collector's other
     * parts may report here too, from any thread. */
    virtual void on_problem(const std::string& text) { (void)text; }
};

struct ingest_options {
    std::string directory; /* state directory; created when missing */
    /* Of the days on which results arrived, those before the newest that are kept; 0 keeps all. At
     * most one is dropped an hour, unless fewer are to be kept than in the last run. */
    int keep_days = 14;
    /* Days of roll-ups, events and ledger that are kept; 0 keeps all. */
    int keep_5min_days = 90;
    int keep_hour_days = 730;
    int keep_event_days = 0;
    int keep_ledger_days = 730;
    int keep_change_days = 90;
    /* Bytes of blocks waiting for the writer; beyond it: failed. Of one agent a sixteenth of it
     * may wait, or a single block. */
    size_t max_queued = 64u << 20;
    /* Larger blocks are written in slices, and wait on their own: one of an agent, and in all what
     * is below this when the next one comes. */
    size_t large = 256u << 10;
    size_t max_large_queued = 512u << 20;
    counters* counted = nullptr; /* outlives it; may be null */
    /* Made unreadable in what agents send, before it is kept or shown; likewise. */
    const hidden_texts* hidden = nullptr;
};

class ingest {
public:
    using agent_plan = ::agent_plan;
    using change_done = std::function<void(bool ok, const std::string& reason)>;

    /* Null with the reason in `error` when the engine cannot be opened (open_engine). `listener`
     * may be null; it has to outlive this. */
    static std::unique_ptr<ingest> open(const ingest_options& options, store_listener* listener,
                                        std::string& error);
    virtual ~ingest() = default; /* finishes what is queued, then closes */

    /* Queues a block. `done` runs on the writer thread after the commit (or failure) that covers
     * it. An empty block is answered `stored` and one beyond max_queued `failed` at once, on this
     * thread. Any thread may call; `done` must not wait for the store. A database that fails (a
     * full disk) is opened again with the next block; until then every block fails. One that is
     * damaged, or was removed, is followed by a new one, and the listener is told. */
    virtual void submit(poll_block block, std::function<void(store_result)> done) = 0;

    /* An agent was heard, whether or not its block can be stored. Its row says so later. */
    virtual void heard(std::string_view account, std::string_view agent, int64_t received,
                       std::string_view address, std::string_view version) = 0;

    /* It brought a block that could not be taken, and will bring it again: as long as that lasts
     * its tests are not called stale. Blocks that submit() refuses are seen to. */
    virtual void held_up(std::string_view account, std::string_view agent) = 0;

    /* What is to come, and what the tests are; known from then on. Without a call every test that
     * came is expected again, at intervals of a minute. Definitions are kept when they differ from
     * the last one of their test; `since` is set. */
    virtual void follow(plan_summary plan, std::vector<owned_definition> definitions) = 0;

    /* The same of these agents alone, which are not asked by follow() from then on. An agent need
     * not be there yet: it counts from when it is. The first plan of an agent since the start is
     * held against the intervals that it had when its last results came; where that is not known,
     * against the longest that anybody had. */
    virtual void follow_agents(std::vector<agent_plan> plans) = 0;

    /* Runs `what` on the writer thread in a transaction of its own, behind what waits already, and
     * then `done` there: whether it was committed, and why not. `what` returns false to have
     * nothing of it kept. Any thread. */
    virtual void update(std::function<bool(engine&)> what, change_done done) = 0;

    /* The agent is not watched any more, and its row says that it is retired: no events of it from
     * now on. When it polls again it is another beginning. `done` as above; false with an empty
     * reason when there is no such agent. */
    virtual void retire(int64_t agent, change_done done) = 0;

    /* At this moment. Any thread. */
    virtual queue_load waiting() = 0;
    /* Likewise, and cheap. A new block waits for those ahead of it. */
    virtual queue_delay behind() { return {}; }
};

#endif
