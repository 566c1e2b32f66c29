/* What keeps the results, seen from above. Narrow, so that more than one database can do it: blocks
 * are appended in transactions, one day after the other, and a day is dropped whole. What a block
 * is, when it is a repetition and when a day is too old is decided above (ingest.h); how it is laid
 * down, and what is done when a file fails, below (sqlite/).
 *
 * There are two ways in: an `engine` for one thread that writes, and a `result_reader` for
 * everybody who reads, each with a connection of its own. */
#ifndef VINDRAL_COLLECTOR_ENGINE_H
#define VINDRAL_COLLECTOR_ENGINE_H

#include "base/record_summary.h"
#include "protocol/record.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* A record and what was read from it when it was decoded, which is done once. Views of the block.
 */
struct decoded_record {
    record content;
    record_summary summary;
};

/* An agent, as it is known. The views end with the call. */
struct known_agent {
    std::string_view account, agent, address, version; /* the last two empty: not known */
    int64_t first_seen = 0, last_seen = 0;             /* seconds since the epoch */
};

/* The last result of one test of an agent, or its last inventory of a kind. The views end with the
 * call. */
struct latest_result {
    std::string_view account, agent;
    int64_t received = 0;    /* seconds since the epoch */
    std::string_view record; /* bytes as sent */
};

/* The same without its bytes. */
struct latest_entry {
    uint32_t type = 0;
    std::optional<int32_t> test; /* none: an inventory, or a type that is not known */
    int64_t received = 0;        /* seconds since the epoch; its day tells the table */
    int64_t row = 0;             /* where the engine has it, on that day */
    std::optional<int64_t> time; /* of the check */
    std::optional<int32_t> status;

    auto key() const { return std::pair(type, test); }
};

/* ---- reading ---- */

/* Reads one state of what is stored, also while a collector writes; for a later one make another.
 * Not to be kept for long: the file's log grows meanwhile. Any thread, one at a time. The calls
 * return false with the reason in `error` when not all could be read. */
class result_reader {
public:
    virtual ~result_reader() = default;

    /* Where it reads, for messages. */
    virtual std::string place() const = 0;

    /* In the order in which they came first. */
    virtual bool for_each_agent(const std::function<void(const known_agent&)>& each,
                                std::string& error) = 0;

    /* In no order. A result that is gone with its day is left out, and one that is damaged passed
     * over, which is an error in the end. */
    virtual bool for_each_latest(const std::function<void(const latest_result&)>& each,
                                 std::string& error) = 0;

    /* Every agent by account and name, each with the entries of all its tests in the order of their
     * keys. It looks at the agents alone, whatever the number of results. */
    virtual bool for_each_tested(
        const std::function<void(const known_agent&, std::span<const latest_entry>)>& each,
        std::string& error) = 0;
};

/* Null with the reason in `error` when there is nothing in the state directory that can be read. */
std::unique_ptr<result_reader> open_reader(const std::string& directory, std::string& error);

/* ---- writing ---- */

/* The row of an agent. */
struct stored_agent {
    int64_t id = 0;
    std::string_view last_block; /* as end_block() left it; until the next call */
};

/* What comes with each block of an agent. */
struct agent_news {
    int64_t received = 0;              /* seconds since the epoch */
    std::string_view address, version; /* empty: as before */
};

/* A piece of a block that is no record. */
struct undecodable_piece {
    size_t offset = 0, bytes = 0;
    std::string_view reason, kept_as; /* name of the file */
};

enum class drop_outcome {
    done,
    failed, /* tried later */
    damaged /* it stays */
};

struct engine_options {
    std::string directory; /* state directory, an absolute path; created when missing */
    int64_t keep_days = 0; /* what a file that is begun while running says of it */
    /* Told what the operator should see: that a file was damaged, removed or replaced. */
    std::function<void(const std::string&)> tell;
};

/* One thread. A call that returns false ends the transaction: nothing of it is kept, reason() says
 * why, and recover() what comes next. */
class engine {
public:
    virtual ~engine() = default;

    /* Sees whether the place where it writes is still there; one that was removed or replaced is
     * left. Once for each batch, and now and then. */
    virtual void look_after() = 0;

    /* A transaction. commit() returns when all of it is on disk. */
    virtual bool begin() = 0;
    virtual bool commit() = 0;

    /* For each block: the agent, which is made when there is none. What follows is its. */
    virtual bool find_agent(std::string_view account, std::string_view agent, int64_t received,
                            stored_agent& found) = 0;
    virtual bool append(int64_t received, std::span<const decoded_record> results) = 0;
    virtual bool append_undecodable(int64_t received, const undecodable_piece& piece) = 0;
    /* `last_block` stays in the agent's row. */
    virtual bool end_block(const agent_news& news, std::string_view last_block) = 0;

    /* Ends a transaction that did not come to its end. */
    virtual void give_up() = 0;
    /* After a failure: whether the same may be tried again at once, in the file opened anew or in
     * a new one, because the old one was damaged and is set aside. */
    virtual bool recover() = 0;
    virtual const std::string& reason() const = 0;
    /* Grows whenever what was written so far is no longer where it writes. */
    virtual unsigned generation() const = 0;

    /* ---- days, outside of transactions ---- */

    virtual bool is_open() const = 0;
    /* Whether a day was begun since the last call. */
    virtual bool days_changed() = 0;
    /* Days (YYYYMMDD) that have results, the one written to longest ago first. */
    virtual drop_outcome days(std::vector<std::string>& by_turn) = 0;
    /* Drops a day, and sets the facts in the same transaction. */
    using fact = std::pair<const char*, int64_t>;
    virtual drop_outcome drop_day(const std::string& day, std::span<const fact> facts) = 0;

    /* Numbers that outlive the process. */
    virtual std::optional<int64_t> read_fact(const char* name) = 0;
    virtual bool set_fact(const char* name, int64_t value) = 0;
};

/* Null with the reason in `error` when the directory cannot be used, another collector uses it, or
 * the database cannot be opened, is not ours or comes from a newer program. */
std::unique_ptr<engine> open_engine(const engine_options& options, std::string& error);

#endif
