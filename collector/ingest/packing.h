/* Open blocks of an agent become chunks of its tests, an hour's worth or a megabyte at a time. The
 * oldest go first; what arrives meanwhile stays open. Reading and packing are done beforehand, in
 * steps; then one transaction puts the chunks where the blocks were, and with them what they change
 * in days that are closed. So a kill leaves the one or the other. One thread. */
#ifndef VINDRAL_COLLECTOR_PACKING_H
#define VINDRAL_COLLECTOR_PACKING_H

#include "ingest/closing.h"
#include "ingest/in_transaction.h"
#include "ingest/roster.h"
#include "ingest/storing.h"
#include "store/engine.h"
#include "store/pack.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class packing {
public:
    packing(engine& store, roster& agents, closing& days)
        : engine_(store), agents_(agents), closing_(days) {}

    /* Reads the oldest of what lies open of an agent. False when that cannot be read: `error`. */
    bool gather(roster_agent& agent, std::string& error);

    /* Of what was gathered, is anything left to do? */
    bool is_idle() const { return jobs_.empty(); }
    /* Whether what was gathered makes a transaction. */
    bool is_full() const;

    /* Packs for a while. True when all is packed. */
    bool pack(const spell& time);
    /* Puts it into the store, in one transaction as much as there is time for, and the blocks of
     * one agent at least. False when the engine failed: then it was nothing. */
    bool store(const spell& time, int64_t stale_after, const kept_from& kept,
               std::string& unreadable);

    /* Whose blocks are at work. */
    std::vector<int64_t> agents() const;
    /* Whether `is` holds for any of them. Asks for no memory. */
    template <typename Is>
    bool any_agent(Is is) const {
        return std::any_of(jobs_.begin(), jobs_.end(),
                           [&](const job& work) { return is(work.agent); });
    }
    /* Forgets what was gathered. */
    void give_up() { jobs_.clear(); }

private:
    using test_key = std::pair<uint32_t, std::optional<int32_t>>;
    struct made_chunk {
        test_key test;
        packed_chunk about = {}; /* `data` is in the next one */
        std::string data = {};
    };
    struct block {
        int64_t row = 0, received = 0;
        std::string records = {};
    };
    struct gathered_record {
        arrived_record record = {};
        int64_t time = 0;
    };
    struct job {
        int64_t agent = 0;
        int64_t top = 0, received = 0; /* row of the newest block of it, and when that arrived */
        int64_t newer = 0;             /* when the one behind that arrived; 0: it was the last */
        uint64_t bytes = 0;
        std::deque<block> blocks = {}; /* oldest first; one large one is not copied */
        std::map<test_key, std::vector<gathered_record>> tests = {};
        std::map<test_key, std::set<int64_t>> days = {}; /* of check times */
        size_t test_days = 0;                            /* of all tests */
        std::vector<made_chunk> chunks = {};
    };

    bool find_oldest(job& work, int64_t row, int64_t& large, std::string& error);
    void probe(int64_t row);
    void sort(job& work, int64_t received, std::string_view records);
    void pack_some(job& work);
    bool store(job& work, int64_t stale_after, const kept_from& kept, std::string& unreadable);
    std::vector<int64_t> closed_days(const std::set<int64_t>& of, int64_t test, int64_t stale_after,
                                     const kept_from& kept) const;
    bool store_late(job& work, const test_key& key, int64_t test, int64_t stale_after,
                    const kept_from& kept, unpacking& may, std::string& unreadable);

    engine& engine_;
    roster& agents_;
    closing& closing_;
    std::deque<job> jobs_;
    agent_work work_;
    storing storing_{engine_};
    std::vector<std::pair<int64_t, agent_state>> stored_; /* of the transaction */
};

#endif
