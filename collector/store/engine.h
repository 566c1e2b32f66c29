/* What keeps the results, seen from above. Narrow, so that more than one database can do it. What a
 * block is, when it is a repetition, what a result says about a test, when something is packed and
 * when it is dropped is decided above; how all of it is laid down, and what is done when a file
 * fails, below (sqlite/).
 *
 * WHAT IS KEPT  The records of a poll go into a block, as they were sent. Blocks that lie open are
 * packed after a while, by test: a chunk is the records of one test from some of its agent's
 * blocks (pack.h), kept for as long as raw results are. A roll-up is what became of a test in a day
 * of check times at one resolution, one packed row. Beside these stand events, the ledger,
 * inventories, and what the tests were defined as. What is known of an agent at the moment, its
 * state, is one packed text in its row, of which nothing is understood here.
 *
 * There are two ways in: an `engine` for one thread that writes, and a `result_reader` for
 * everybody who reads, each with a connection of its own.
 *
 * All times are seconds since the epoch. */
#ifndef VINDRAL_COLLECTOR_ENGINE_H
#define VINDRAL_COLLECTOR_ENGINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* ---- what is stored; all views end with the call ---- */

/* An agent, as it is known. */
struct known_agent {
    int64_t id = 0;
    std::string_view account, agent, address, version; /* the last two empty: not known */
    int64_t first_seen = 0, last_seen = 0;
    std::string_view state; /* as end_block() left it */
    int64_t retired = 0;    /* when it was; 0: it is not. What it reported stays until it expires */
};

/* A test that ever had a result. Ids are never given twice, and rise. */
struct known_test_row {
    int64_t id = 0, agent = 0;
    uint32_t type = 0;             /* of its records */
    std::optional<int32_t> number; /* none: of a type that is not known */
};

/* The records of one poll, or of a slice of a large one, behind each other as they were sent, but
 * for inventories. */
struct open_block {
    int64_t row = 0; /* rises with time */
    int64_t received = 0;
    int64_t before = 0; /* row of the agent's block before this one; 0: none that is open */
    std::string_view records;
};

/* Records of one test, packed. */
struct packed_chunk {
    int64_t received_first = 0, received_last = 0;
    int64_t first = 0, last = 0; /* lowest and highest check time, as reckoned */
    uint32_t results = 0;        /* records */
    std::string_view data;       /* pack.h */
};

enum class resolution : uint8_t { five_minutes, hour };

/* A change of state of a test, or of an agent where `test` is 0. */
struct stored_event {
    int64_t id = 0; /* given by the engine; rises */
    int64_t time = 0;
    int64_t agent = 0, test = 0;
    uint8_t from = 0, to = 0; /* state/agent_state.h */
    std::string_view message;
};

/* What came of an agent in an hour of check times. */
struct ledger_row {
    int64_t agent = 0, hour = 0; /* seconds at which the hour begins */
    uint64_t received = 0, repeated = 0, missing = 0;
};

struct stored_inventory {
    int64_t row = 0, agent = 0;
    uint32_t type = 0;
    int64_t received = 0, time = 0;
    std::string_view record; /* as sent */
};

/* What a test was told to be, from `since` until the next of its agent, kind and number. */
struct test_definition {
    int64_t agent = 0; /* of which it is the test; 0: of all that have no definition of their own */
    uint32_t type = 0;
    int32_t number = 0, location = 0;
    int64_t since = 0;
    std::string_view name; /* for people: what it looks at */
    std::string_view
        text; /* the command's fields behind the code, tabs between, secrets left out */
    std::string_view title = {}, group = {}; /* the operator's name for it, and the group that has
                                                it; empty: none was given */
};

/* ---- what agents are to do ---- */

/* A fleet file that was applied, or that the collector went on from by itself. */
struct fleet_revision {
    int32_t revision = 0; /* never given twice; rises */
    int64_t time = 0;
    std::string_view author = {}; /* name of a token, "file", or "collector" */
    std::string_view about = {};  /* a sentence: why, or what came of it */
    std::string_view text = {};   /* as it was written; empty where it is that of the one before */
    bool has_text = false;        /* it was applied: an empty text may be one, too */
};

constexpr size_t most_fleet_texts = 1000;

/* A fact: how often restore_from() put a copy in the place of what is stored. It grows with each,
 * also when the same copy comes back twice. Since the copy was made agents may have been told
 * revisions and numbers that it knows nothing of: whoever gives these notes in the store which
 * value it has seen, and goes on far above what it finds once for each that it has not. */
inline constexpr char restored_fact[] = "restored";

/* What an agent was given: understood above (fleet/assigned.h). */
struct fleet_agent {
    std::string_view account = {}, agent = {};
    std::string_view assigned = {}; /* packed */
};

enum class change_outcome : uint8_t { sent = 1, confirmed = 2, unanswered = 3, impossible = 4 };

/* A change of one test of an agent, and what became of it. */
struct stored_change {
    int64_t id = 0; /* given by who makes it; rises */
    int32_t revision = 0;
    int64_t time = 0;
    std::string_view account = {}, agent = {};
    std::string_view test = {}, was = {}; /* names; `test` empty: of the agent's intervals */
    uint8_t action = 0;                   /* fleet/assigned.h */
    uint32_t type = 0;                    /* of the test's records */
    int32_t number = 0;
    int64_t sent = 0;    /* 0: not yet */
    int64_t settled = 0; /* when the outcome came to be what it is */
    change_outcome outcome = change_outcome::unanswered;
    std::string_view reason = {};
};

/* Which changes: newest first, by id. */
struct change_filter {
    int64_t below = INT64_MAX;                 /* id */
    int32_t revision = 0;                      /* 0: all */
    std::string_view account = {}, agent = {}; /* both empty: of all */
    std::string_view test = {};                /* name; empty: all */
    uint8_t outcomes = 0;                      /* bits 1 << change_outcome; 0: all */
    int64_t from = INT64_MIN, to = INT64_MAX;  /* from <= time < to */
};

/* ---- reading ---- */

/* Which events: newest first, by time and then by id. Those behind an event are had with its time
 * + 1 as `to` and its id as `below`. */
struct event_filter {
    int64_t agent = 0, test = 0;              /* 0: all; a test's own only with `test` */
    int64_t from = INT64_MIN, to = INT64_MAX; /* from <= time < to */
    int64_t below = INT64_MAX;                /* id, of those in the last second before `to` */
};

/* Reads one state of what is stored, also while a collector writes; for a later one make another.
 * Not to be kept for long: the file's log grows meanwhile. Any thread, one at a time. The calls
 * return false with the reason in `error` when not all could be read; what is damaged is passed
 * over where the rest can be read, and is an error in the end. Those that take a function with a
 * bool end early, and return true, when that returns false. */
class result_reader {
public:
    virtual ~result_reader() = default;

    /* Where it reads, for messages. */
    virtual std::string place() const = 0;

    /* Once that has passed reading ends with an error, also amid rows of which nobody is told;
     * until rest(). One that cannot be interrupted reads on. */
    virtual void give_up_at(std::chrono::steady_clock::time_point when) { (void)when; }

    /* By account and name. Looks at the agents' rows alone, whatever the number of results. */
    virtual bool for_each_agent(const std::function<void(const known_agent&)>& each,
                                std::string& error) = 0;
    /* Likewise, from that account and name on, whether or not there is such an agent: what stands
     * before them costs nothing. */
    virtual bool for_each_agent_from(std::string_view account, std::string_view agent,
                                     const std::function<bool(const known_agent&)>& each,
                                     std::string& error) = 0;
    /* One of them; `each` is not called when there is none. */
    virtual bool read_agent(int64_t id, const std::function<void(const known_agent&)>& each,
                            std::string& error) = 0;
    virtual bool read_agent(std::string_view account, std::string_view agent,
                            const std::function<void(const known_agent&)>& each,
                            std::string& error) = 0;
    virtual std::optional<known_test_row> find_test(int64_t id) = 0;
    /* Ends the state that is read, and reads the present one from now on: cheaper than another
     * reader. False with the reason in `error`: this one is of no use any more. */
    virtual bool renew(std::string& error) = 0;
    /* Ends the state that is read; renew() comes before anything else. A reader that is kept for
     * later holds nothing up then. */
    virtual void rest() = 0;

    /* A block that is open, and those of its agent before it, newest first. Ends where a block has
     * been packed already. */
    virtual bool for_each_block(int64_t row, const std::function<bool(const open_block&)>& each,
                                std::string& error) = 0;
    /* Chunks of a test of which something was received from `from` on, newest first. `data` is
     * read only when `wanted` says so of the rest. */
    virtual bool for_each_chunk(int64_t test, int64_t from,
                                const std::function<bool(const packed_chunk&)>& wanted,
                                const std::function<bool(const packed_chunk&)>& each,
                                std::string& error) = 0;
    /* Roll-ups of a test, of the days from <= day < to (days since the epoch), oldest first. */
    virtual bool for_each_roll_up(resolution r, int64_t test, int64_t from, int64_t to,
                                  const std::function<void(int64_t day, std::string_view)>& each,
                                  std::string& error) = 0;
    virtual bool for_each_event(const event_filter& which,
                                const std::function<bool(const stored_event&)>& each,
                                std::string& error) = 0;
    /* from <= hour < to; of all agents with `agent` 0. By hour, then agent. */
    virtual bool for_each_ledger_row(int64_t agent, int64_t from, int64_t to,
                                     const std::function<bool(const ledger_row&)>& each,
                                     std::string& error) = 0;
    /* The agent's inventory of that type as it was at `time`: the last one not later. */
    virtual bool read_inventory(int64_t agent, uint32_t type, int64_t time,
                                const std::function<void(const stored_inventory&)>& each,
                                std::string& error) = 0;
    /* ---- definitions: an agent's own, or with agent 0 those of all that have none ---- */

    /* Whether the agent has any of its own. */
    virtual bool has_definitions(int64_t agent) = 0;
    /* All that a test was, oldest first; of every test of the type with `number` 0, and of every
     * type with `type` 0 too. Looks at those of the agent alone. */
    virtual bool for_each_definition(int64_t agent, uint32_t type, int32_t number,
                                     const std::function<void(const test_definition&)>& each,
                                     std::string& error) = 0;
    /* What a test was at `time`: of those with that location id, or with any, the one stored last
     * of which `since` is not later; the one stored first when there is none. At `until` another
     * takes its place; INT64_MAX: none does. */
    virtual bool
    read_definition(int64_t agent, uint32_t type, int32_t number, std::optional<int32_t> location,
                    int64_t time,
                    const std::function<void(const test_definition&, int64_t until)>& each,
                    std::string& error) = 0;

    /* ---- what agents are to do ---- */

    /* Newest first. Texts are read only with `texts`. */
    virtual bool for_each_fleet_revision(bool texts,
                                         const std::function<bool(const fleet_revision&)>& each,
                                         std::string& error) = 0;
    /* The text that was in force with that revision: its own or the last one before it. `each` is
     * not called when there is none, or none is kept any more. */
    virtual bool read_fleet(int32_t revision,
                            const std::function<void(const fleet_revision&)>& each,
                            std::string& error) = 0;
    /* By account and name. */
    virtual bool for_each_fleet_agent(const std::function<void(const fleet_agent&)>& each,
                                      std::string& error) = 0;
    virtual bool for_each_change(const change_filter& which,
                                 const std::function<bool(const stored_change&)>& each,
                                 std::string& error) = 0;

    virtual std::optional<int64_t> read_fact(const char* name) = 0;
};

/* Null with the reason in `error` when there is nothing in the state directory that can be read. */
std::unique_ptr<result_reader> open_reader(const std::string& directory, std::string& error);

/* ---- writing ---- */

/* The row of an agent. */
struct stored_agent {
    int64_t id = 0;
    std::string_view last_block, state; /* as end_block() left them; until the next call */
};

/* What comes with each block of an agent. */
struct agent_news {
    int64_t received = 0;
    std::string_view address, version; /* empty: as before */
};

/* A piece of a block that is no record. */
struct undecodable_piece {
    size_t offset = 0, bytes = 0;
    std::string_view reason, kept_as; /* name of the file */
};

enum class drop_outcome {
    done,
    more,   /* something was dropped, and there is more: call again */
    failed, /* tried later */
    damaged /* it stays */
};

/* A record that an earlier version stored. */
struct earlier_record {
    int64_t position = 0; /* rises in the order of arrival; above 0 */
    int64_t agent = 0, received = 0;
    std::string_view record;
};

/* The file of an earlier version, which stays as it is. */
class earlier_results {
public:
    virtual ~earlier_results() = default;
    virtual std::string place() const = 0;
    virtual int64_t count() = 0; /* of records, about */
    /* Those behind `position`, until `each` returns false. Days that are damaged are read as far as
     * they can be; the operator is told, and the file is kept. False with the reason in `error`
     * when it cannot be read now: to be tried again, from the last position that was had. */
    virtual bool for_each_record(int64_t position,
                                 const std::function<bool(const earlier_record&)>& each,
                                 std::string& error) = 0;
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

    /* The agent, which is made when there is none. */
    virtual bool find_agent(std::string_view account, std::string_view agent, int64_t received,
                            stored_agent& found) = 0;
    /* One that there is; false without a reason when there is not. */
    virtual bool find_agent(int64_t id, stored_agent& found) = 0;
    /* The id of a test of an agent, made when there is none. */
    virtual bool find_test(int64_t agent, uint32_t type, std::optional<int32_t> number,
                           int64_t& id) = 0;

    /* Pieces of a poll's block that follow each other as one open block; `row` is its new one. */
    virtual bool append_block(int64_t agent, int64_t received, int64_t before,
                              std::span<const std::string_view> pieces, int64_t& row) = 0;
    virtual bool append_inventory(const stored_inventory& inventory, int64_t& row) = 0;
    virtual bool append_undecodable(int64_t agent, int64_t received,
                                    const undecodable_piece& piece) = 0;
    virtual bool append_event(const stored_event& event, int64_t& id) = 0;
    /* Adds the counts to what is there. */
    virtual bool add_to_ledger(const ledger_row& counts) = 0;
    /* What the agent's row says from now on. */
    virtual bool end_block(int64_t agent, const agent_news& news, std::string_view last_block,
                           std::string_view state) = 0;
    virtual bool set_state(int64_t agent, std::string_view state) = 0;
    /* Until find_agent() by its name. */
    virtual bool retire_agent(int64_t id, int64_t time) = 0;
    virtual bool append_definition(const test_definition& definition) = 0;

    /* ---- what agents are to do, in transactions too ---- */

    /* Above every one that is there: else nothing is done, and the transaction ends. Of those with
     * texts the newest most_fleet_texts are kept; what is older than these goes. */
    virtual bool append_fleet_revision(const fleet_revision& what) = 0;
    /* In the place of what is kept of the agent. With nothing in `assigned` nothing is kept. */
    virtual bool put_fleet_agent(const fleet_agent& what) = 0;
    /* In the place of the one of that id. */
    virtual bool put_change(const stored_change& what) = 0;

    /* ---- upkeep, in transactions too ---- */

    /* Goes to the day of `received_last`. */
    virtual bool append_chunk(int64_t test, const packed_chunk& chunk) = 0;
    /* The block and the agent's blocks before it. */
    virtual bool drop_blocks(int64_t row) = 0;
    /* Takes the place of the one that is there. Days before 1970 are not kept. */
    virtual bool put_roll_up(resolution r, int64_t test, int64_t day, std::string_view data) = 0;
    /* That of the day, and those before it in its month. */
    virtual bool drop_roll_up(resolution r, int64_t test, int64_t day) = 0;
    virtual bool set_fact(const char* name, int64_t value) = 0;
    /* Ids of tests above `after`, at most `most` of them, rising. */
    virtual bool tests_after(int64_t after, size_t most, std::vector<known_test_row>& found) = 0;

    /* Reads what this connection sees, a transaction that is under way included. Valid until the
     * next call that fails or that may open another file. */
    virtual result_reader& reader() = 0;

    /* Ends a transaction that did not come to its end. */
    virtual void give_up() = 0;
    /* After a failure: whether the same may be tried again at once, in the file opened anew or in
     * a new one, because the old one was damaged and is set aside. */
    virtual bool recover() = 0;
    virtual const std::string& reason() const = 0;
    /* Grows whenever what was written so far is no longer where it writes. */
    virtual unsigned generation() const = 0;
    virtual bool is_open() const = 0;

    /* ---- dropping, outside of transactions: each call a small transaction of its own ---- */

    /* Whether a day was begun since the last call. */
    virtual bool days_changed() = 0;
    /* Days (YYYYMMDD) that have chunks, the one written to longest ago first. */
    virtual drop_outcome days(std::vector<std::string>& by_turn) = 0;
    using fact = std::pair<const char*, int64_t>;
    /* Drops some chunks of a day, and in the end the day; sets the facts in that transaction. */
    virtual drop_outcome drop_day(const std::string& day, std::span<const fact> facts) = 0;
    /* Drops some roll-ups of months that were over before `day`, of tests that nothing came of any
     * more. */
    virtual drop_outcome drop_roll_ups(resolution r, int64_t day) = 0;
    /* Drops some of what was before `time`: events, ledger rows, and inventories that were followed
     * by another. */
    virtual drop_outcome drop_events(int64_t time) = 0;
    virtual drop_outcome drop_ledger(int64_t time) = 0;
    /* Some changes, and revisions without a text but for the newest one. */
    virtual drop_outcome drop_changes(int64_t time) = 0;
    virtual drop_outcome drop_inventories(int64_t time) = 0;

    virtual std::optional<int64_t> read_fact(const char* name) = 0;

    /* ---- what an earlier version left ---- */

    /* Null when there is nothing (any more) that has to be taken over. The agents' rows are here
     * already, but for their states. Outside of transactions. */
    virtual std::unique_ptr<earlier_results> earlier() = 0;
    /* All of it is taken over and on disk: the old file is removed. */
    virtual bool forget_earlier() = 0;
};

/* Null with the reason in `error` when the directory cannot be used, another collector uses it, or
 * the database cannot be opened, is not ours or comes from a newer program. */
std::unique_ptr<engine> open_engine(const engine_options& options, std::string& error);

/* A test of which an earlier version had results; `received`: the last of them. */
struct left_test {
    uint32_t type = 0;
    int32_t number = 0;
    int64_t received = 0;
};

/* Calls `each` for every agent of a file that has to be taken over, as long as it is there: its
 * results come into the agents' states by and by. The very first version noted no tests. False with
 * the reason in `error`; what is damaged is left out. */
bool for_each_earlier_agent(
    const std::string& directory,
    const std::function<void(std::string_view account, std::string_view agent,
                             std::span<const left_test> tests)>& each,
    std::string& error);

/* ---- the whole store ---- */

/* Copies all that is stored into a new file, one state of it, also while a collector writes. A file
 * that exists is refused. False with the reason in `error`; then there is no such file. `progress`
 * is told per cent now and then. */
bool back_up(const std::string& directory, const std::string& file,
             const std::function<void(int)>& progress, std::string& error);

/* Puts a copy that back_up() made into the state directory, which no collector may use and which
 * may have nothing stored unless `replace`; what is replaced is kept beside it, its name in
 * `kept_as`. The copy is checked first. restored_fact says so. False with the reason in `error`;
 * then all is as it was. */
bool restore_from(const std::string& directory, const std::string& file, bool replace,
                  const std::function<void(int)>& progress, std::string& kept_as,
                  std::string& error);

/* What is packed above: whether it can be unpacked. Empty: it is not looked at. */
struct whole_texts {
    std::function<bool(std::string_view state)> state = {};       /* of an agent */
    std::function<bool(std::string_view assigned)> assigned = {}; /* fleet_agent */
};

/* Looks at all that is stored: whether every page, row and packed piece can be read and fits
 * together, and what `is_whole` says of the agents' texts. Calls `found` for what is not so. False
 * with the reason in `error` when it cannot be opened. Reads only, also while a collector writes.
 */
bool check_store(const std::string& directory, const std::function<void(const std::string&)>& found,
                 std::string& error, const whole_texts& is_whole = {});

#endif
