#include "store/sqlite/database.cpp"

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
    EXPECT_FALSE(wrong.ok());
    EXPECT_FALSE(wrong.bind(1).row());
    EXPECT_FALSE(wrong.run());
    EXPECT_FALSE(one.bind(1).bind(2).row()); /* there is no second parameter */
    one.reset();
    EXPECT_TRUE(one.bind(1).row());
}

TEST_F(database_test, a_blob_is_filled_in_its_place) {
    run("CREATE TABLE t (id INTEGER PRIMARY KEY, record BLOB)");
    const std::string bytes(3 << 20, 'x');
    statement insert(db.get(), "INSERT INTO t (record) VALUES (?)");
    EXPECT_TRUE(insert.bind_unfilled_blob(bytes.size()).run());
    EXPECT_TRUE(database_fill_blob(db.get(), "t", "record", bytes));
    statement select(db.get(), "SELECT record FROM t");
    ASSERT_TRUE(select.row());
    EXPECT_TRUE(select.bytes(0) == bytes);
    EXPECT_FALSE(database_fill_blob(db.get(), "t", "record", bytes + "x"));
    EXPECT_FALSE(database_fill_blob(db.get(), "t", "nothing", bytes));
}

TEST_F(database_test, ours_is_told_from_others_and_old_from_new) {
    EXPECT_EQ(check(), database_layout::none);
    run("CREATE TABLE theirs (x)");
    check();
    EXPECT_EQ(error, "it is a database of another program");
    mark(database_version);
    EXPECT_EQ(check(), database_layout::current);
    mark(1);
    EXPECT_EQ(check(), database_layout::old);
    for (int version : {0, database_version + 1}) {
        mark(version);
        check();
        EXPECT_EQ(error, "its layout has version " + std::to_string(version) +
                             ", this program knows version " + std::to_string(database_version));
    }
}

TEST_F(database_test, days_are_in_order_and_nothing_else_is_one) {
    std::vector<std::string> days;
    EXPECT_TRUE(database_days(db.get(), days));
    EXPECT_TRUE(days.empty());
    for (const char* name : {"results_20260502", "results_20260501", "results_2026050",
                             "results_2026050a", "results_202605010", "agents"}) {
        run(std::string("CREATE TABLE ") + name + " (x)");
    }
    EXPECT_TRUE(database_days(db.get(), days));
    EXPECT_EQ(days, (std::vector<std::string>{"results_20260501", "results_20260502"}));
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
    mark(1);
    EXPECT_EQ(reason(), path + ": its layout is that of an earlier version; a start of the "
                               "collector renews it");
    db.reset();
    write_text(path, std::string(5000, 'x'));
    EXPECT_EQ(reason(), path + ": file is not a database");
    std::filesystem::remove(path);
    EXPECT_EQ(reason(), path + ": unable to open database file");
}
