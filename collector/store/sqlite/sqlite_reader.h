/* Reading from a connection: one of its own for everybody but the writer, with a transaction that
 * shows one state of the file; or the writer's. */
#ifndef VINDRAL_COLLECTOR_SQLITE_READER_H
#define VINDRAL_COLLECTOR_SQLITE_READER_H

#include "store/engine.h"
#include "store/sqlite/database.h"

#include <chrono>
#include <string>
#include <string_view>

class sqlite_reader final : public result_reader {
public:
    sqlite_reader() = default;
    /* A connection of its own. */
    bool open(const std::string& directory, std::string& error);
    /* Somebody else's, until leave(), which comes before that is closed and asks for no memory. */
    void use(sqlite3* db, const std::string& place);
    void leave();

    std::string place() const override { return place_; }
    void give_up_at(std::chrono::steady_clock::time_point when) override;
    bool renew(std::string& error) override;
    void rest() override;
    bool for_each_agent(const std::function<void(const known_agent&)>& each,
                        std::string& error) override;
    bool for_each_agent_from(std::string_view account, std::string_view agent,
                             const std::function<bool(const known_agent&)>& each,
                             std::string& error) override;
    bool read_agent(int64_t id, const std::function<void(const known_agent&)>& each,
                    std::string& error) override;
    bool read_agent(std::string_view account, std::string_view agent,
                    const std::function<void(const known_agent&)>& each,
                    std::string& error) override;
    std::optional<known_test_row> find_test(int64_t id) override;
    bool for_each_block(int64_t row, const std::function<bool(const open_block&)>& each,
                        std::string& error) override;
    bool for_each_chunk(int64_t test, int64_t from,
                        const std::function<bool(const packed_chunk&)>& wanted,
                        const std::function<bool(const packed_chunk&)>& each,
                        std::string& error) override;
    bool for_each_roll_up(resolution r, int64_t test, int64_t from, int64_t to,
                          const std::function<void(int64_t day, std::string_view)>& each,
                          std::string& error) override;
    bool for_each_event(const event_filter& which,
                        const std::function<bool(const stored_event&)>& each,
                        std::string& error) override;
    bool for_each_ledger_row(int64_t agent, int64_t from, int64_t to,
                             const std::function<bool(const ledger_row&)>& each,
                             std::string& error) override;
    bool read_inventory(int64_t agent, uint32_t type, int64_t time,
                        const std::function<void(const stored_inventory&)>& each,
                        std::string& error) override;
    bool has_definitions(int64_t agent) override;
    bool for_each_definition(int64_t agent, uint32_t type, int32_t number,
                             const std::function<void(const test_definition&)>& each,
                             std::string& error) override;
    bool read_definition(int64_t agent, uint32_t type, int32_t number,
                         std::optional<int32_t> location, int64_t time,
                         const std::function<void(const test_definition&, int64_t until)>& each,
                         std::string& error) override;

    /* fleet_rows.cpp */
    bool for_each_fleet_revision(bool texts, const std::function<bool(const fleet_revision&)>& each,
                                 std::string& error) override;
    bool read_fleet(int32_t revision, const std::function<void(const fleet_revision&)>& each,
                    std::string& error) override;
    bool for_each_fleet_agent(const std::function<void(const fleet_agent&)>& each,
                              std::string& error) override;
    bool for_each_change(const change_filter& which,
                         const std::function<bool(const stored_change&)>& each,
                         std::string& error) override;

    std::optional<int64_t> read_fact(const char* name) override { return database_fact(db_, name); }

private:
    static constexpr auto never = std::chrono::steady_clock::time_point::max();
    static constexpr char too_late[] = "there was not time enough";

    statement_cache::taken take(std::string_view sql) { return statements_.take(db_, sql); }
    bool is_too_late() const;
    /* Notes what a step said; false when it is an error. */
    bool note(int result, std::string& error);
    /* Calls `each` for every row until it returns false. Returns whether more may be read. */
    template <typename Do>
    bool each_row(statement& rows, Do each, std::string& error) {
        int result;
        while ((result = rows.step()) == SQLITE_ROW) {
            if (is_too_late()) {
                error = error.empty() ? too_late : error;
                return false;
            }
            if (!each()) {
                return false;
            }
        }
        return note(result, error) || database_is_damaged(result);
    }
    bool chunks_of(const std::string& table, int64_t test, int64_t from,
                   const std::function<bool(const packed_chunk&)>& wanted,
                   const std::function<bool(const packed_chunk&)>& each, bool& more,
                   std::string& error);

    std::string place_;
    database own_;
    sqlite3* db_ = nullptr;
    std::chrono::steady_clock::time_point give_up_at_ = never;
    statement_cache statements_; /* gone before own_ is closed */
};

#endif
