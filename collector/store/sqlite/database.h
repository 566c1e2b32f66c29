/* The result database: SQLite handles held by scope, and what is in the file.
 *
 *   results_YYYYMMDD  a table per day of arrival (UTC), only ever appended to, dropped whole
 *     id
 *     received        seconds since the epoch
 *     agent           agents.id
 *     type            of the record, as the agent numbers them
 *     test, location, time (of the check), status
 *                     null for a record of an unknown type
 *     record          the bytes as sent
 *
 *   agents
 *     id, account, name, first_seen, last_seen
 *     last_block      SHA-256 of the agent's last stored block, by which the same block is
 *                     recognised when it comes again; behind it, while that block is stored in
 *                     part, how many bytes of it are
 *     address         where that came from
 *     version         of the agent
 *     latest          where the last result of each of its tests is: latest.h
 *
 *   days
 *     day             YYYYMMDD
 *     turn            grows whenever the collector turns to another day's table, so that the one
 *                     with the lowest is the one written to longest ago, whatever the clock said
 *
 *   facts             name, value
 *     keep_days       of the last run
 *     dropped, boot   when a day was dropped last, in seconds since which start of the machine
 *
 *   undecodable       id, received, agent, offset, bytes, reason, kept_as (name of the file)
 *
 * user_version is the version of this layout; application_id marks the file as ours. */
#ifndef VINDRAL_COLLECTOR_DATABASE_H
#define VINDRAL_COLLECTOR_DATABASE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <vector>

enum { database_version = 2, database_application_id = 0x564e4443 };

struct close_database {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using database = std::unique_ptr<sqlite3, close_database>;

/* The database's file in a state directory. */
std::string database_path(const std::string& directory);

/* Runs statements that return nothing of interest. */
bool database_exec(sqlite3* db, const std::string& sql);

enum class database_layout {
    none,    /* a file without any content: the tables are still to be made */
    old,     /* version 1: no days, no facts; agents ends with last_block */
    current, /* database_version */
};

/* Writes the blob of the row that was inserted last, which has that size: straight into the file's
 * pages, where a bound one would be copied whole. */
bool database_fill_blob(sqlite3* db, const std::string& table, const char* column,
                        std::string_view bytes);

/* Whether the file is one of ours that this program understands. */
bool database_check(sqlite3* db, database_layout& layout, std::string& error);

/* Opens the database of a state directory for reading only, and begins a transaction: one state of
 * it for all that is read, also while a collector writes. */
bool database_open_reading(const std::string& directory, database& db, std::string& error);

/* Names of the day tables, in the order of their days. False when they cannot be read. */
bool database_days(sqlite3* db, std::vector<std::string>& tables);

/* A number in the table of facts. */
std::optional<int64_t> database_fact(sqlite3* db, const char* name);
bool database_set_fact(sqlite3* db, const char* name, int64_t value);

/* An error that says that what is in the file makes no sense. A full disk, a file that cannot be
 * read or written, a lock and want of memory are none. */
bool database_is_damaged(int result);

/* A prepared statement. Texts and blobs that are bound must live until reset(). */
class statement {
public:
    statement() = default;
    /* ok() is false when it cannot be prepared; every other call then fails too. */
    statement(sqlite3* db, const std::string& sql);
    bool ok() const { return handle_ != nullptr; }

    /* Parameters in order. One that cannot be bound makes the next step() fail. */
    statement& bind(int64_t value);
    statement& bind(std::optional<int64_t> value);
    statement& bind_text(std::string_view value);
    statement& bind_blob(std::string_view value);
    /* A blob that database_fill_blob() fills. As the last column of a row it costs no memory. */
    statement& bind_unfilled_blob(size_t bytes);

    /* True when there is a row. */
    bool row() { return step() == SQLITE_ROW; }
    /* True when the statement ran to its end; resets it. */
    bool run();
    int step();
    void reset();

    int64_t integer(int column) const { return sqlite3_column_int64(handle_.get(), column); }
    bool is_null(int column) const {
        return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL;
    }
    std::string_view bytes(int column) const; /* until the next step or reset */

private:
    statement& bound(int result);
    struct finalize {
        void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
    };
    std::unique_ptr<sqlite3_stmt, finalize> handle_;
    int bound_ = 0;
    int bind_result_ = SQLITE_OK;
};

#endif
