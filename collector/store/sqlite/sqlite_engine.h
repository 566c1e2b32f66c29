/* The engine over SQLite: one connection that writes. Any error ends the transaction and closes the
 * file; the next one opens it anew. A full disk, a read-only file system or a lock that somebody
 * holds is thus got over without help; damage is recover()'s. */
#ifndef VINDRAL_COLLECTOR_SQLITE_ENGINE_H
#define VINDRAL_COLLECTOR_SQLITE_ENGINE_H

#include "store/engine.h"
#include "store/sqlite/database.h"
#include "store/sqlite/dropping.h"
#include "store/sqlite/sqlite_file.h"
#include "store/sqlite/sqlite_reader.h"

#include <set>
#include <string>
#include <string_view>

class sqlite_engine final : public engine {
public:
    explicit sqlite_engine(const engine_options& options) : options_(options), file_(options) {}
    bool start(std::string& error);

    void look_after() override;
    bool begin() override;
    bool commit() override;

    bool find_agent(std::string_view account, std::string_view agent, int64_t received,
                    stored_agent& found) override;
    bool find_agent(int64_t id, stored_agent& found) override;
    bool find_test(int64_t agent, uint32_t type, std::optional<int32_t> number,
                   int64_t& id) override;

    bool append_block(int64_t agent, int64_t received, int64_t before,
                      std::span<const std::string_view> pieces, int64_t& row) override;
    bool append_inventory(const stored_inventory& inventory, int64_t& row) override;
    bool append_undecodable(int64_t agent, int64_t received,
                            const undecodable_piece& piece) override;
    bool append_event(const stored_event& event, int64_t& id) override;
    bool add_to_ledger(const ledger_row& counts) override;
    bool end_block(int64_t agent, const agent_news& news, std::string_view last_block,
                   std::string_view state) override;
    bool retire_agent(int64_t id, int64_t time) override;
    bool set_state(int64_t agent, std::string_view state) override;
    bool append_definition(const test_definition& definition) override;

    /* fleet_rows.cpp */
    bool append_fleet_revision(const fleet_revision& what) override;
    bool put_fleet_agent(const fleet_agent& what) override;
    bool put_change(const stored_change& what) override;

    bool append_chunk(int64_t test, const packed_chunk& chunk) override;
    bool drop_blocks(int64_t row) override;
    bool put_roll_up(resolution r, int64_t test, int64_t day, std::string_view data) override;
    bool drop_roll_up(resolution r, int64_t test, int64_t day) override;
    bool set_fact(const char* name, int64_t value) override;
    bool tests_after(int64_t after, size_t most, std::vector<known_test_row>& found) override;

    result_reader& reader() override { return reader_; }
    void give_up() override;
    bool recover() override;
    const std::string& reason() const override { return reason_; }
    unsigned generation() const override { return file_.generation(); }
    bool is_open() const override { return file_.is_open(); }

    bool days_changed() override { return std::exchange(days_changed_, false); }
    drop_outcome days(std::vector<std::string>& by_turn) override;
    drop_outcome drop_day(const std::string& day, std::span<const fact> facts) override;
    drop_outcome drop_roll_ups(resolution r, int64_t day) override;
    drop_outcome drop_events(int64_t time) override;
    drop_outcome drop_ledger(int64_t time) override;
    drop_outcome drop_changes(int64_t time) override;
    drop_outcome drop_inventories(int64_t time) override;
    std::optional<int64_t> read_fact(const char* name) override {
        return database_fact(file_.handle(), name);
    }

    std::unique_ptr<earlier_results> earlier() override;
    bool forget_earlier() override;

private:
    bool open();
    void release();
    statement_cache::taken take(std::string_view sql) {
        return statements_.take(file_.handle(), sql);
    }
    bool execute(const char* sql) { return database_exec(file_.handle(), sql); }
    bool go_on(bool ok);
    bool fail(const char* why);
    bool found_agent(statement& row, int result, stored_agent& found);
    bool use_day(const std::string& table);
    bool use_roll_ups(const std::string& table);
    bool free_key(const std::string& table, int64_t& key);
    bool next_block(int64_t& row);
    drop_outcome outcome_of(const bite& taken);

    const engine_options options_;
    sqlite_file file_;
    int failure_ = SQLITE_OK; /* a result code, and the reason for it in words */
    std::string reason_;
    int damaged_ = 0; /* transactions in turn that met damage */

    statement_cache statements_;
    sqlite_reader reader_;
    std::string packed_;                             /* the table that chunks go to */
    std::set<std::string> roll_ups_;                 /* tables that are there */
    int64_t last_block_row_ = 0, last_reserved_ = 0; /* 0: not known yet */
    bool days_changed_ = false;
    inventory_cursor inventories_;

    std::string last_block_, state_; /* of the agent found last */
    std::string joined_;             /* the pieces of a block */
};

#endif
