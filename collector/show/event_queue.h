/* What waits to be shown. Memory is kept and used again, so that nothing is asked for where the
 * reader keeps up. Beyond the bound the oldest entries are dropped. */
#ifndef VINDRAL_COLLECTOR_EVENT_QUEUE_H
#define VINDRAL_COLLECTOR_EVENT_QUEUE_H

#include "base/record_summary.h"
#include "state/expectations.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

enum class event_kind {
    record,           /* `result` of an agent */
    heard,            /* an agent sent something else */
    agent,            /* `text` is its state, packed: after records, or because nothing came */
    known,            /* the same from before the start */
    result,           /* `result` of an agent, from before the start */
    retired,          /* an agent: nothing of it is shown any more */
    problem,          /* `text` */
    note,             /* `text` that is no problem */
    ready,            /* `text` for hosts */
    planned,          /* `plan` */
    planned_of_agents /* `plans` */
};

struct event {
    event_kind kind{};
    std::string_view account = {}, agent = {};
    int64_t received = 0; /* or last seen */
    std::string_view text = {};
    decoded_record result = {};
    std::shared_ptr<const plan_summary> plan = {};
    std::shared_ptr<const std::vector<agent_summary>> plans = {};
    std::shared_ptr<char[]> own = {}; /* what the views are of, where that is much */
};

/* Some events and the bytes that their views are of. */
class event_chunk {
public:
    event_chunk();
    bool has_room(const event& e) const;
    void add(const event& e);
    void clear();

    std::vector<event> events;
    size_t next = 0; /* of events: those before it are dropped */

private:
    std::unique_ptr<char[]> bytes_;
    size_t used_ = 0;
};

/* For one thread at a time: its user holds a lock. */
class event_queue {
public:
    explicit event_queue(size_t most) : most_(most) { spare_.reserve(most_spare); }

    /* Copies what the event has views of. Returns how many older ones were dropped for it. */
    size_t add(const event& e);

    bool empty() const { return count_ == 0; }
    size_t count() const { return count_; }
    size_t bytes() const { return bytes_; }

    /* All that waits, in exchange for `chunks`, which are used again. Asks for no memory. */
    void take(std::vector<event_chunk>& chunks);

private:
    enum { most_spare = 64 }; /* chunks */
    void drop_first();

    const size_t most_; /* bytes */
    size_t bytes_ = 0, count_ = 0;
    std::vector<event_chunk> chunks_, spare_;
};

#endif
