/* A file of the version before becomes one of this in its place. */
#include "store/engine.h"
#include "store/pack.h"
#include "store/sqlite/database.h"
#include "store/sqlite/layout.h"

#include "collector_test_support.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

/* As the version before made it. */
static const char third_layout[] =
    "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL;"
    "CREATE TABLE agents (id INTEGER PRIMARY KEY AUTOINCREMENT, account TEXT NOT NULL, name TEXT "
    "NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " address TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '',"
    " state BLOB NOT NULL DEFAULT x'', retired INTEGER NOT NULL DEFAULT 0, UNIQUE (account, name));"
    "CREATE TABLE tests (id INTEGER PRIMARY KEY AUTOINCREMENT, agent INTEGER NOT NULL,"
    " type INTEGER NOT NULL, number INTEGER);"
    "CREATE INDEX tests_of_agent ON tests (agent, type, number);"
    "CREATE TABLE blocks (id INTEGER PRIMARY KEY, agent INTEGER NOT NULL,"
    " received INTEGER NOT NULL, before INTEGER NOT NULL, records BLOB NOT NULL);"
    "CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, test INTEGER NOT NULL, from_state INTEGER NOT NULL,"
    " to_state INTEGER NOT NULL, message TEXT NOT NULL);"
    "CREATE INDEX events_of_test ON events (test, time);"
    "CREATE INDEX events_of_agent ON events (agent, time);"
    "CREATE INDEX events_by_time ON events (time);"
    "CREATE TABLE ledger (agent INTEGER NOT NULL, hour INTEGER NOT NULL,"
    " received INTEGER NOT NULL, repeated INTEGER NOT NULL, missing INTEGER NOT NULL,"
    " PRIMARY KEY (hour, agent)) WITHOUT ROWID;"
    "CREATE INDEX ledger_of_agent ON ledger (agent, hour);"
    "CREATE TABLE inventories (id INTEGER PRIMARY KEY AUTOINCREMENT, agent INTEGER NOT NULL,"
    " type INTEGER NOT NULL, received INTEGER NOT NULL, time INTEGER NOT NULL,"
    " record BLOB NOT NULL);"
    "CREATE INDEX inventories_of_agent ON inventories (agent, type, time);"
    "CREATE TABLE definitions (id INTEGER PRIMARY KEY, type INTEGER NOT NULL,"
    " number INTEGER NOT NULL, location INTEGER NOT NULL, since INTEGER NOT NULL,"
    " name TEXT NOT NULL, text TEXT NOT NULL);"
    "CREATE INDEX definitions_of_test ON definitions (type, number);"
    "CREATE INDEX definitions_of_location ON definitions (type, number, location);"
    "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
    "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL,"
    " reason TEXT NOT NULL, kept_as TEXT NOT NULL);"
    "CREATE TABLE packed_20260501 (id INTEGER PRIMARY KEY, received_first INTEGER,"
    " received_last INTEGER NOT NULL, first INTEGER NOT NULL, last INTEGER NOT NULL,"
    " results INTEGER NOT NULL, data BLOB NOT NULL);"
    "PRAGMA application_id = 0x564e4443; PRAGMA user_version = 3;";

static const char content[] =
    "INSERT INTO agents (id, account, name, first_seen, last_seen, last_block, state) VALUES "
    "(3, 'a@b.c', 'web1', 10, 20, 'first', 'state'), (7, 'a@b.c', 'web2', 30, 40, 'second', '');"
    "INSERT INTO tests VALUES (5, 3, 46, 401), (6, 7, 66, NULL);"
    "INSERT INTO events VALUES (9, 1777636800, 3, 5, 1, 2, 'full');"
    "INSERT INTO definitions VALUES (1, 46, 401, 1, 100, '/', 'a'), (2, 46, 401, 2, 200, '/var', "
    "'b'), (3, 66, 7, 1, 100, 'load', 'c');"
    "INSERT INTO days VALUES ('20260501', 1);"
    "INSERT INTO facts VALUES ('keep_days', 30), ('closed_through', 20573);";

struct renew_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state", path = database_path(state);
    strings told;
    std::unique_ptr<engine> e;
    std::string error;

    void SetUp() override {
        fs::create_directory(state);
        make();
    }

    static database connect(const std::string& file) {
        sqlite3* handle = nullptr;
        EXPECT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK);
        return database(handle);
    }
    void make() {
        database db = connect(path);
        std::string chunk, record = load_record(7, noon);
        ASSERT_TRUE(pack_chunk({{noon, record}}, chunk));
        ASSERT_TRUE(database_exec(db.get(), third_layout) && database_exec(db.get(), content))
            << sqlite3_errmsg(db.get());
        statement insert(db.get(), "INSERT INTO packed_20260501 VALUES (?, NULL, ?2, ?2, ?2, 1, "
                                   "?3)");
        ASSERT_TRUE(insert.bind(chunk_key(5, noon)).bind(noon).bind_blob(chunk).run());
    }
    ::testing::AssertionResult open(const std::string& where) {
        e.reset();
        e = open_engine({where, 30, [this](const std::string& text) { told.push_back(text); }},
                        error);
        return e ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << error;
    }
    std::string number(const std::string& sql) {
        database db = connect(path);
        statement query(db.get(), sql);
        EXPECT_TRUE(query.row()) << sql << ": " << sqlite3_errmsg(db.get());
        return std::string(query.bytes(0));
    }
    /* All that was there, and that it is of use for what was not. */
    void expect_renewed(const std::string& where) {
        std::unique_ptr<result_reader> reader = open_reader(where, error);
        ASSERT_TRUE(reader) << error;
        strings found;
        EXPECT_TRUE(reader->for_each_agent(
            [&](const known_agent& a) {
                found.push_back(std::to_string(a.id) + " " + std::string(a.agent) + " " +
                                std::string(a.state));
            },
            error));
        EXPECT_EQ(found, (strings{"3 web1 state", "7 web2 "}));
        EXPECT_EQ(reader->read_fact("closed_through"), 20573);
        EXPECT_EQ(reader->find_test(5)->number, 401);
        found.clear();
        EXPECT_TRUE(reader->for_each_definition(
            0, 0, 0,
            [&](const test_definition& d) {
                EXPECT_EQ(std::string(d.title) + std::string(d.group), "");
                found.push_back(std::to_string(d.number) + " " + std::to_string(d.location) + " " +
                                std::to_string(d.since) + " " + std::string(d.name) + " " +
                                std::string(d.text));
            },
            error));
        EXPECT_EQ(found, (strings{"401 1 100 / a", "401 2 200 /var b", "7 1 100 load c"}));
        EXPECT_FALSE(reader->has_definitions(3));
        size_t chunks = 0;
        EXPECT_TRUE(reader->for_each_chunk(
            5, 0, [](const packed_chunk&) { return true; },
            [&](const packed_chunk&) { return ++chunks > 0; }, error));
        EXPECT_EQ(chunks, 1u);
    }
    void expect_usable() {
        ASSERT_TRUE(e->begin() &&
                    e->append_fleet_revision({.revision = 1, .text = "x", .has_text = true}) &&
                    e->put_fleet_agent({.account = "a@b.c", .agent = "web1", .assigned = "y"}) &&
                    e->put_change({.id = 1, .revision = 1, .account = "a@b.c", .agent = "web1"}) &&
                    e->append_definition({.agent = 3,
                                          .type = 46,
                                          .number = 401,
                                          .location = 1,
                                          .since = 300,
                                          .name = "/",
                                          .text = "a",
                                          .title = "root disk"}) &&
                    e->commit())
            << e->reason();
        std::string title;
        EXPECT_TRUE(e->reader().read_definition(
            3, 46, 401, 1, noon, [&](const test_definition& d, int64_t) { title = d.title; },
            error));
        EXPECT_EQ(title, "root disk");
    }
    strings findings(const std::string& where) {
        strings found;
        EXPECT_TRUE(check_store(
            where, [&](const std::string& what) { found.push_back(what); }, error))
            << error;
        return found;
    }
};

TEST_F(renew_test, all_that_was_stored_stays_where_it_is) {
    struct stat before, after;
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    ASSERT_TRUE(open(state));
    EXPECT_EQ(told, strings());
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_FALSE(fs::exists(state + "/results-earlier.db"));
    expect_renewed(state);
    expect_usable();
    EXPECT_EQ(number("PRAGMA user_version"), "4");
    ASSERT_TRUE(open(state)) << "once more, with nothing to do";
    EXPECT_EQ(findings(state), strings());
}

/* One that was renewed and one that was made have the same indices and tables; columns stand in
 * the same order. */
TEST_F(renew_test, it_is_the_same_as_a_new_one) {
    ASSERT_TRUE(open(state));
    e.reset();
    const std::string other = directory / "new";
    ASSERT_TRUE(open(other));
    e.reset();
    auto layout_of = [&](const std::string& file) {
        database db = connect(file);
        strings all;
        statement names(db.get(), "SELECT type, name, tbl_name FROM sqlite_schema WHERE name NOT "
                                  "GLOB 'packed_*' ORDER BY type, name");
        while (names.row()) {
            std::string line = std::string(names.bytes(0)) + " " + std::string(names.bytes(1)) +
                               " " + std::string(names.bytes(2));
            const bool is_index = names.bytes(0) == "index";
            statement columns(db.get(), is_index
                                            ? "SELECT name, 0, 0, 0 FROM pragma_index_info(?)"
                                            : "SELECT name, type, \"notnull\", dflt_value FROM "
                                              "pragma_table_info(?)");
            columns.bind_text(names.bytes(1));
            while (columns.row()) {
                for (int i = 0; i < 4; i++) {
                    line += "|" + std::string(columns.bytes(i));
                }
            }
            all.push_back(line);
        }
        return all;
    };
    EXPECT_EQ(layout_of(path), layout_of(database_path(other)));
}

TEST_F(renew_test, a_kill_leaves_the_old_or_the_new) {
    int renewed = 0;
    for (int i = 0; i < 40; i++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::string why;
            std::unique_ptr<engine> opened =
                open_engine({.directory = state, .keep_days = 30, .tell = {}}, why);
            pause();
            _exit(0);
        }
        usleep(static_cast<useconds_t>(i * 100));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const std::string version = number("PRAGMA user_version");
        ASSERT_TRUE(version == "3" || version == "4") << version;
        renewed += version == "4";
        ASSERT_TRUE(open(state));
        expect_renewed(state);
        e.reset();
        fs::remove_all(state);
        fs::create_directory(state);
        make();
    }
    printf("%d of 40 were renewed\n", renewed);
}

TEST_F(renew_test, while_somebody_writes_it_stays_as_it_was) {
    {
        database other = connect(path);
        ASSERT_TRUE(database_exec(other.get(), "BEGIN IMMEDIATE"));
        EXPECT_FALSE(open(state));
        EXPECT_NE(error.find("locked"), error.npos) << error;
    }
    EXPECT_EQ(number("PRAGMA user_version"), "3");
    ASSERT_TRUE(open(state));
    expect_renewed(state);
}

TEST_F(renew_test, who_reads_is_told_what_to_do) {
    EXPECT_EQ(open_reader(state, error), nullptr);
    EXPECT_NE(error.find("a start of the collector renews it"), error.npos) << error;
}

/* What was copied before, and what was not started since. */
TEST_F(renew_test, it_is_checked_copied_and_restored_as_it_is) {
    EXPECT_EQ(findings(state), strings());
    const std::string copy = directory / "copy.db", other = directory / "other";
    ASSERT_TRUE(back_up(state, copy, {}, error)) << error;
    std::string kept_as;
    ASSERT_TRUE(restore_from(other, copy, false, {}, kept_as, error)) << error;
    EXPECT_FALSE(restore_from(state, copy, false, {}, kept_as, error));
    EXPECT_NE(error.find("not replaced unasked"), error.npos) << error;
    ASSERT_TRUE(open(other));
    expect_renewed(other);
    expect_usable();
    EXPECT_EQ(e->read_fact(restored_fact), 1);
    EXPECT_EQ(findings(other), strings());
}
