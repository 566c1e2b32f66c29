#include "store/sqlite/database.cpp"
#include "store/sqlite/layout.cpp"

#include "collector_test_support.h"

#include <gtest/gtest.h>

/* A file with the layout's marks and one table. */
struct database_test : testing::Test {
    scratch_directory directory;
    database db;
    std::string error;

    void SetUp() override { db = open(); }

    database open() {
        sqlite3* handle = nullptr;
        EXPECT_EQ(sqlite3_open(database_path(directory.path()).c_str(), &handle), SQLITE_OK);
        return database(handle);
    }
    void run(const std::string& sql) {
        ASSERT_TRUE(database_exec(db.get(), sql)) << sql << ": " << sqlite3_errmsg(db.get());
    }
    void mark(int version) {
        run("PRAGMA application_id = " + std::to_string(database_application_id) +
            "; PRAGMA user_version = " + std::to_string(version));
    }
    database_layout check() {
        database_layout layout{};
        error.clear();
        bool ours = database_check(db.get(), layout, error);
        EXPECT_EQ(ours, error.empty());
        return layout;
    }
};

TEST_F(database_test, values_come_back_as_they_were_bound) {
    run("CREATE TABLE t (a, b, c, d, e)");
    const std::string blob("a\0b", 3);
    statement insert(db.get(), "INSERT INTO t VALUES (?, ?, ?, ?, ?)");
    insert.bind(0).bind(0).bind_text("").bind_blob("");
    EXPECT_TRUE(insert.bind_text(std::string_view()).run()); /* empty, not null */
    statement empty(db.get(), "DELETE FROM t WHERE e IS NOT NULL");
    EXPECT_TRUE(empty.run());
    EXPECT_EQ(sqlite3_changes(db.get()), 1);
    for (std::optional<int64_t> number : {std::optional<int64_t>(), std::optional(INT64_MIN)}) {
        insert.bind(number).bind(INT64_MAX).bind_text("text").bind_blob(blob).bind_text("");
        EXPECT_TRUE(insert.run()); /* and is ready for the next */
    }
    statement select(db.get(), "SELECT a, b, c, d, e FROM t");
    ASSERT_TRUE(select.row());
    EXPECT_TRUE(select.is_null(0));
    EXPECT_EQ(select.integer(1), INT64_MAX);
    EXPECT_EQ(select.bytes(2), "text");
    EXPECT_EQ(select.bytes(3), blob);
    EXPECT_EQ(select.bytes(4), "");
    ASSERT_TRUE(select.row());
    EXPECT_EQ(select.integer(0), INT64_MIN);
    EXPECT_FALSE(select.row());
}

TEST_F(database_test, a_statement_that_is_wrong_fails_and_does_no_harm) {
    statement none, wrong(db.get(), "SELECT nothing FROM nowhere"), one(db.get(), "SELECT ?");
    EXPECT_FALSE(none.ok());
    EXPECT_EQ(none.step(), SQLITE_MISUSE);
    EXPECT_EQ(wrong.step(), SQLITE_ERROR);
    EXPECT_FALSE(wrong.ok());
    EXPECT_FALSE(wrong.bind(1).row());
    EXPECT_FALSE(wrong.run());
    EXPECT_FALSE(one.bind(1).bind(2).row()); /* there is no second parameter */
    one.reset();
    EXPECT_TRUE(one.bind(1).row());
}

TEST_F(database_test, a_blob_is_filled_in_its_place) {
    run("CREATE TABLE t (id INTEGER PRIMARY KEY, record BLOB)");
    std::string bytes(3 << 20, 'x');
    bytes.front() = 'a';
    bytes.back() = 'z';
    statement insert(db.get(), "INSERT INTO t (record) VALUES (?)");
    EXPECT_TRUE(insert.bind_unfilled_blob(bytes.size()).run());
    const std::string_view all = bytes;
    const std::string_view pieces[] = {all.substr(0, 1), {}, all.substr(1)};
    EXPECT_TRUE(database_fill_blob(db.get(), "t", "record", pieces));
    statement select(db.get(), "SELECT record FROM t");
    ASSERT_TRUE(select.row());
    EXPECT_TRUE(select.bytes(0) == bytes);
    const std::string_view more[] = {all, "x"};
    EXPECT_FALSE(database_fill_blob(db.get(), "t", "record", more));
    EXPECT_FALSE(database_fill_blob(db.get(), "t", "nothing", pieces));
}

TEST_F(database_test, ours_is_told_from_others_and_old_from_new) {
    EXPECT_EQ(check(), database_layout::none);
    run("CREATE TABLE theirs (x)");
    check();
    EXPECT_EQ(error, "it is a database of another program");
    mark(database_version);
    EXPECT_EQ(check(), database_layout::current);
    for (int version : {1, 2}) {
        mark(version);
        EXPECT_EQ(check(), database_layout::earlier);
    }
    mark(database_version_renewed);
    EXPECT_EQ(check(), database_layout::renewed);
    for (int version : {0, database_version + 1}) {
        mark(version);
        check();
        EXPECT_EQ(error, "its layout has version " + std::to_string(version) +
                             ", this program knows version " + std::to_string(database_version));
    }
}

TEST_F(database_test, a_statement_is_prepared_once_and_again_while_it_is_taken) {
    run("CREATE TABLE t (a INTEGER PRIMARY KEY); INSERT INTO t VALUES (1), (2)");
    statement_cache cache;
    auto count = [&] { /* of statements that are prepared */
                       int prepared = 0;
                       for (sqlite3_stmt* s = nullptr;
                            (s = sqlite3_next_stmt(db.get(), s)) != nullptr;) {
                           EXPECT_FALSE(sqlite3_stmt_busy(s));
                           prepared++;
                       }
                       return prepared;
    };
    const char sql[] = "SELECT a FROM t WHERE a >= ?";
    {
        auto outer = cache.take(db.get(), sql);
        outer->bind(1);
        int64_t seen = 0;
        while (outer->row()) {
            auto inner = cache.take(db.get(), sql);
            EXPECT_TRUE(inner->bind(2).row());
            EXPECT_EQ(inner->integer(0), 2);
            EXPECT_EQ(outer->integer(0), ++seen);
        }
        EXPECT_EQ(seen, 2);
    }
    EXPECT_EQ(count(), 1); /* of the two one is kept, and none holds the file */
    EXPECT_TRUE(cache.take(db.get(), sql)->bind(1).row());
    EXPECT_EQ(count(), 1);
    EXPECT_FALSE(cache.take(db.get(), "SELECT nothing FROM nowhere")->row());
    for (int i = 0; i < 3 * statement_cache::most; i++) {
        EXPECT_TRUE(cache.take(db.get(), "SELECT " + std::to_string(i))->row());
    }
    EXPECT_LE(count(), statement_cache::most);
    {
        auto late = cache.take(db.get(), sql);
        cache.clear();
    }
    EXPECT_EQ(count(), 0);
}

TEST_F(database_test, tables_are_in_order_and_nothing_else_is_one) {
    std::vector<std::string> names = {"before"};
    EXPECT_TRUE(database_tables(db.get(), packed_prefix, 8, names));
    EXPECT_TRUE(names.empty());
    for (const char* name : {"packed_20260502", "packed_20260501", "packed_2026050",
                             "packed_2026050a", "packed_202605010", "agents", "rollups5_202605",
                             "rollups60_202605", "rollups60_202604", "results_20260501"}) {
        run(std::string("CREATE TABLE ") + name + " (x)");
    }
    auto tables = [&](const char* prefix, int digits) {
        EXPECT_TRUE(database_tables(db.get(), prefix, digits, names));
        return names;
    };
    using strings = std::vector<std::string>;
    EXPECT_EQ(tables(packed_prefix, 8), (strings{"packed_20260501", "packed_20260502"}));
    EXPECT_EQ(tables(roll_up_prefix(resolution::five_minutes), 6), strings{"rollups5_202605"});
    EXPECT_EQ(tables(roll_up_prefix(resolution::hour), 6),
              (strings{"rollups60_202604", "rollups60_202605"}));
    EXPECT_EQ(tables(results_prefix, 8), strings{"results_20260501"});
    EXPECT_EQ(packed_table(1777636800), "packed_20260501");
    EXPECT_EQ(packed_table(INT64_MIN), "packed_19700101");
    EXPECT_EQ(roll_up_table(resolution::five_minutes, 20573), "rollups5_202604");
    EXPECT_EQ(roll_up_table(resolution::hour, 20574), "rollups60_202605");
}

TEST_F(database_test, keys_hold_the_time_and_rise_with_test_and_time) {
    EXPECT_EQ(key_time(INT64_MIN), 0);
    EXPECT_EQ(key_time(INT64_MAX), max_received);
    EXPECT_GT(chunk_key(max_test, max_received), chunk_key(max_test, 0));
    EXPECT_EQ(chunk_key(5, 17) >> received_bits, 5);
    EXPECT_LT(chunk_key(5, max_received) + 100000, chunk_key(6, 0));
    EXPECT_EQ(roll_up_key(5, days_end - 1) + 1, roll_up_key(6, 0));
}

/* Every query that reading makes finds its rows by a key. */
TEST_F(database_test, nothing_is_searched_row_by_row) {
    ASSERT_TRUE(database_make_tables(db.get()));
    for (const char* sql :
         {"SELECT id FROM tests WHERE agent = 1 AND type = 2 AND number IS ?",
          "SELECT time FROM events WHERE test = 1 AND time >= 2 ORDER BY time DESC, id DESC",
          "SELECT time FROM events WHERE agent = 1 AND time >= 2 ORDER BY time DESC, id DESC",
          "SELECT time FROM events WHERE time >= 2 AND time < 3 ORDER BY time DESC, id DESC",
          "SELECT hour FROM ledger WHERE agent = 1 AND hour >= 2 ORDER BY hour",
          "SELECT hour FROM ledger WHERE hour >= 2 AND hour < 3 ORDER BY hour, agent",
          "SELECT id FROM inventories WHERE agent = 1 AND type = 2 AND time <= 3 "
          "ORDER BY time DESC, id DESC",
          "SELECT 1 FROM definitions WHERE agent = 1 LIMIT 1",
          "SELECT id FROM definitions WHERE agent = 1 AND type = 1 AND number = 2 ORDER BY id",
          "SELECT id FROM definitions WHERE agent = 1 AND type = 1 AND number = 2 AND location = 3 "
          "AND since <= 4 ORDER BY id DESC",
          "SELECT id FROM definitions WHERE agent = 1 AND type = 1 AND number = 2 AND since <= 4 "
          "ORDER BY id DESC",
          "SELECT min(since) FROM definitions WHERE agent = 1 AND type = 1 AND number = 2 AND "
          "location = 3 AND id > 4",
          "SELECT text FROM fleet_revisions WHERE revision <= 1 AND text IS NOT NULL ORDER BY "
          "revision DESC LIMIT 1",
          "SELECT reason FROM fleet_changes WHERE id < 1 AND account = 'a' AND agent = 'b' AND "
          "+revision = 1 AND test = 'c' AND (1 >> outcome) & 1 = 1 AND +time >= 1 AND +time < 2 "
          "ORDER BY id DESC",
          "SELECT reason FROM fleet_changes WHERE id < 1 AND '' = '' AND revision = 1 AND test = "
          "'c' AND +time >= 1 AND +time < 2 ORDER BY id DESC",
          "SELECT reason FROM fleet_changes WHERE id < 1 AND +time >= 1 AND +time < 2 ORDER BY id "
          "DESC",
          "SELECT id FROM fleet_changes WHERE time < 1 ORDER BY time LIMIT 32"}) {
        statement plan(db.get(), std::string("EXPLAIN QUERY PLAN ") + sql);
        int steps = 0;
        for (; plan.row(); steps++) {
            EXPECT_TRUE(plan.bytes(3).starts_with("SEARCH")) << sql << ": " << plan.bytes(3);
        }
        EXPECT_EQ(steps, 1) << sql;
    }
}

TEST_F(database_test, a_fact_is_replaced) {
    EXPECT_FALSE(database_set_fact(db.get(), "boot", 1)); /* no table */
    EXPECT_EQ(database_fact(db.get(), "boot"), std::nullopt);
    run("CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL)");
    EXPECT_EQ(database_fact(db.get(), "boot"), std::nullopt);
    EXPECT_TRUE(database_set_fact(db.get(), "boot", 1));
    EXPECT_TRUE(database_set_fact(db.get(), "boot", INT64_MAX));
    EXPECT_TRUE(database_set_fact(db.get(), "dropped", -1));
    EXPECT_EQ(database_fact(db.get(), "boot"), INT64_MAX);
    EXPECT_EQ(database_fact(db.get(), "dropped"), -1);
}

TEST_F(database_test, who_reads_sees_one_state_and_writes_nothing) {
    run("PRAGMA journal_mode = WAL; CREATE TABLE facts (name TEXT PRIMARY KEY, value)");
    mark(database_version);
    database reading;
    ASSERT_TRUE(database_open_reading(directory.path(), reading, error)) << error;
    EXPECT_TRUE(database_set_fact(db.get(), "boot", 1));
    EXPECT_EQ(database_fact(reading.get(), "boot"), std::nullopt);
    EXPECT_FALSE(database_set_fact(reading.get(), "boot", 2));
    ASSERT_TRUE(database_open_reading(directory.path(), reading, error)) << error;
    EXPECT_EQ(database_fact(reading.get(), "boot"), 1);
}

TEST_F(database_test, what_cannot_be_read_says_why) {
    const std::string path = database_path(directory.path());
    auto reason = [&] {
        database reading;
        EXPECT_FALSE(database_open_reading(directory.path(), reading, error));
        return error;
    };
    EXPECT_EQ(reason(), path + ": there is nothing in it");
    run("CREATE TABLE t (x)");
    EXPECT_EQ(reason(), path + ": it is a database of another program");
    mark(2);
    EXPECT_EQ(reason(), path + ": its layout is that of an earlier version; a start of the "
                               "collector renews it");
    db.reset();
    write_text(path, std::string(5000, 'x'));
    EXPECT_EQ(reason(), path + ": file is not a database");
    std::filesystem::remove(path);
    EXPECT_EQ(reason(), path + ": unable to open database file: No such file or directory");
}
