/* SQLite handles held by scope. What is in the file: layout.h. */
#ifndef VINDRAL_COLLECTOR_DATABASE_H
#define VINDRAL_COLLECTOR_DATABASE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

struct close_database {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using database = std::unique_ptr<sqlite3, close_database>;

/* Runs statements that return nothing of interest. */
bool database_exec(sqlite3* db, const std::string& sql);

/* Writes the blob of the row that was inserted last, which is as long as the pieces together:
 * straight into the file's pages, where a bound one would be copied whole. */
bool database_fill_blob(sqlite3* db, const std::string& table, const char* column,
                        std::span<const std::string_view> pieces);

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
    statement(sqlite3* db, std::string_view sql);
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
    int prepared_ = SQLITE_MISUSE;
    int bound_ = 0;
    int bind_result_ = SQLITE_OK;
};

/* Statements of one connection that are prepared once. One that is taken is back, reset, when the
 * scope that took it ends; taken once more meanwhile, it is prepared a second time. */
class statement_cache {
    struct hash {
        using is_transparent = void;
        size_t operator()(std::string_view sql) const { return std::hash<std::string_view>()(sql); }
    };
    using map = std::unordered_map<std::string, statement, hash, std::equal_to<>>;

public:
    enum { most = 200 }; /* then all that are not taken are given up */

    class taken {
    public:
        taken(statement_cache& home, map::node_type&& node)
            : home_(home), epoch_(home.epoch_), node_(std::move(node)) {}
        ~taken() { home_.put_back(std::move(node_), epoch_); }
        taken(const taken&) = delete;
        taken& operator=(const taken&) = delete;
        statement* operator->() { return &node_.mapped(); }
        statement& operator*() { return node_.mapped(); }

    private:
        statement_cache& home_;
        const unsigned epoch_;
        map::node_type node_;
    };

    taken take(sqlite3* db, std::string_view sql);
    /* Before the connection is closed. */
    void clear();

private:
    void put_back(map::node_type&& node, unsigned epoch);

    map kept_;
    unsigned epoch_ = 0;
};

#endif
