/* Taking over the file of an earlier version, whatever interrupts it. */
#include "store/sqlite/earlier.cpp"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

#define RESULTS_TABLE(day)                                                                         \
    "CREATE TABLE results_" day " (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"             \
    " agent INTEGER NOT NULL, type INTEGER NOT NULL, test INTEGER, location INTEGER,"              \
    " time INTEGER, status INTEGER, record BLOB NOT NULL);"

/* As earlier versions of this program made them. */
static const char first_layout[] =
    "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL;"
    "CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " UNIQUE (account, name));"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT NOT "
    "NULL, kept_as TEXT NOT NULL);"
    "PRAGMA application_id = 0x564e4443; PRAGMA user_version = 1;" RESULTS_TABLE("20260430")
        RESULTS_TABLE("20260501");
static const char second_layout[] =
    "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL;"
    "CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " address TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '',"
    " latest BLOB NOT NULL DEFAULT x'', UNIQUE (account, name));"
    "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
    "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT NOT "
    "NULL, kept_as TEXT NOT NULL);"
    "PRAGMA application_id = 0x564e4443; PRAGMA user_version = 2;" RESULTS_TABLE("20260430")
        RESULTS_TABLE("20260501");

struct earlier_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    std::string path = database_path(state), earlier = earlier_path(state);
    strings told;
    std::unique_ptr<engine> e;
    std::string error;

    void SetUp() override { fs::create_directory(state); }

    static database open_file(const std::string& file) {
        sqlite3* handle = nullptr;
        EXPECT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK);
        return database(handle);
    }
    static void run(const database& db, const std::string& sql) {
        ASSERT_TRUE(database_exec(db.get(), sql)) << sql << ": " << sqlite3_errmsg(db.get());
    }
    static void add(const database& db, const char* day, int64_t received, int64_t agent,
                    const std::string& record) {
        statement insert(db.get(), std::string("INSERT INTO results_") + day +
                                       " VALUES (NULL, ?, ?, 66, 5, 7, 1, 0, ?)");
        ASSERT_TRUE(insert.bind(received).bind(agent).bind_blob(record).run());
    }
    static void fill(const database& db) {
        run(db, "INSERT INTO agents (id, account, name, first_seen, last_seen, last_block) VALUES "
                "(3, 'a@b.c', 'web1', 10, 20, 'first'), (7, 'a@b.c', 'web2', 30, 40, 'second');"
                "INSERT INTO undecodable VALUES (2, 1777636800, 3, 4, 5, 'why', 'file')");
        add(db, "20260501", noon, 3, "a");
        add(db, "20260501", noon + 1, 7, "b");
        add(db, "20260430", noon - 86400, 3, "c");
        add(db, "20260430", noon - 86399, 3, "");
    }
    /* The second layout, where a clock that was wrong had the days come the other way round. */
    void make_second() {
        database db = open_file(path);
        run(db, second_layout);
        fill(db);
        run(db, "UPDATE agents SET address = '192.0.2.' || id, version = '3.0';"
                "INSERT INTO days VALUES ('20260501', 4), ('20260430', 5), ('20260429', 1);"
                "INSERT INTO facts VALUES ('keep_days', 30), ('dropped', 11), ('boot', 12)");
    }
    static const strings& second_records() {
        static const strings all = {"3 0 a", "7 1 b", "3 -86400 c", "3 -86399 "};
        return all;
    }

    ::testing::AssertionResult open() {
        e.reset();
        e = open_engine({state, 9, [this](const std::string& text) { told.push_back(text); }},
                        error);
        return e ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << error;
    }
    strings agents() {
        strings found;
        auto note = [&](const known_agent& a) {
            stored_agent row;
            EXPECT_TRUE(e->begin());
            EXPECT_TRUE(e->find_agent(a.id, row));
            EXPECT_EQ(row.state, "");
            found.push_back(std::to_string(a.id) + " " + std::string(a.account) + " " +
                            std::string(a.agent) + " " + std::to_string(a.first_seen) + " " +
                            std::to_string(a.last_seen) + " " + std::string(a.address) + " " +
                            std::string(a.version) + " " + std::string(row.last_block));
            EXPECT_TRUE(e->commit());
        };
        EXPECT_TRUE(open_reader(state, error)->for_each_agent(note, error)) << error;
        return found;
    }
    strings records(int64_t after = 0, size_t most = SIZE_MAX, int64_t* position = nullptr) {
        strings found;
        std::unique_ptr<earlier_results> from = e->earlier();
        EXPECT_TRUE(from);
        int64_t last = after;
        auto note = [&](const earlier_record& r) {
            EXPECT_GT(r.position, last);
            last = r.position;
            found.push_back(std::to_string(r.agent) + " " + std::to_string(r.received - noon) +
                            " " + std::string(r.record));
            return found.size() < most;
        };
        EXPECT_TRUE(from && from->for_each_record(after, note, error)) << error;
        if (position != nullptr) {
            *position = last;
        }
        return found;
    }
    /* Opens it, as after a kill, and sees that all is there to be taken over. */
    void expect_taken_over(const char* where) {
        SCOPED_TRACE(where);
        ASSERT_TRUE(open());
        const strings all = {"3 a@b.c web1 10 20 192.0.2.3 3.0 first",
                             "7 a@b.c web2 30 40 192.0.2.7 3.0 second"};
        EXPECT_EQ(agents(), all);
        EXPECT_EQ(records(), second_records());
        EXPECT_FALSE(fs::exists(earlier + "-wal"));
        EXPECT_TRUE(e->forget_earlier());
        EXPECT_FALSE(fs::exists(earlier));
        ASSERT_TRUE(open());
        EXPECT_EQ(e->earlier(), nullptr);
        EXPECT_EQ(agents(), all);
        EXPECT_EQ(told, strings());
        e.reset();
        fs::remove_all(state);
        fs::create_directory(state);
    }
    std::string number(const std::string& sql) {
        database db = open_file(path);
        statement query(db.get(), sql);
        EXPECT_TRUE(query.row()) << sqlite3_errmsg(db.get());
        return std::string(query.bytes(0));
    }
};

TEST_F(earlier_test, a_file_of_the_first_version_is_read_in_the_order_of_its_days) {
    {
        database db = open_file(path);
        run(db, first_layout);
        fill(db);
    }
    ASSERT_TRUE(open());
    EXPECT_EQ(agents(), (strings{"3 a@b.c web1 10 20   first", "7 a@b.c web2 30 40   second"}));
    EXPECT_EQ(records(), (strings{"3 -86400 c", "3 -86399 ", "3 0 a", "7 1 b"}));
    EXPECT_EQ(e->earlier()->count(), 4);
    EXPECT_EQ(e->earlier()->place(), earlier);
    EXPECT_EQ(e->read_fact("keep_days"), std::nullopt); /* no day goes at once */
    EXPECT_EQ(number("SELECT reason || kept_as FROM undecodable WHERE id = 2"), "whyfile");
    EXPECT_EQ(told, strings());
}

TEST_F(earlier_test, a_file_of_the_second_version_is_read_by_turn_and_from_any_position) {
    make_second();
    ASSERT_TRUE(open());
    EXPECT_EQ(records(), second_records());
    int64_t position = 0;
    for (const std::string& record : second_records()) {
        EXPECT_EQ(records(position, 1, &position), strings{record});
    }
    EXPECT_EQ(records(position), strings());
    EXPECT_EQ(e->read_fact("keep_days"), std::nullopt);
    EXPECT_EQ(e->read_fact("dropped"), 11);
    EXPECT_EQ(e->read_fact("boot"), 12);
    /* New agents and tests beside. */
    ASSERT_TRUE(e->begin());
    stored_agent found;
    EXPECT_TRUE(e->find_agent("a@b.c", "web3", noon, found));
    EXPECT_EQ(found.id, 8);
    ASSERT_TRUE(e->set_fact("earlier_position", position));
    ASSERT_TRUE(e->commit());
    ASSERT_TRUE(open());
    EXPECT_EQ(e->read_fact("earlier_position"), position);
    EXPECT_TRUE(e->earlier());
    EXPECT_TRUE(e->forget_earlier());
    EXPECT_EQ(e->read_fact("earlier_position"), std::nullopt);
    EXPECT_EQ(e->read_fact("earlier"), std::nullopt);
    EXPECT_EQ(e->earlier(), nullptr);
}

TEST_F(earlier_test, which_tests_there_were_is_known_before_they_are_taken_over) {
    auto read = [&] {
        strings found;
        auto note = [&](std::string_view account, std::string_view agent,
                        std::span<const left_test> tests) {
            for (const left_test& t : tests) {
                found.push_back(std::string(account) + " " + std::string(agent) + " " +
                                std::to_string(t.type) + "/" + std::to_string(t.number) + " " +
                                std::to_string(t.received));
            }
        };
        EXPECT_TRUE(for_each_earlier_agent(state, note, error)) << error;
        return found;
    };
    EXPECT_EQ(read(), strings()) << "no such file";
    {
        database db = open_file(path);
        run(db, second_layout);
        /* 66/-7 with time and status, a type without numbers; 46/401; the same and half of one. */
        run(db, "INSERT INTO agents (id, account, name, first_seen, last_seen, last_block, latest) "
                "VALUES (3, 'a@b.c', 'web1', 1, 2, x'', x'0742D00F0F0D0304"
                "00631306'), (4, 'a@b.c', 'web2', 1, 2, x'', x'012ED00F01A206'), "
                "(5, 'a@b.c', 'web3', 1, 2, x'', x'012ED00F01A206012ED0')");
    }
    ASSERT_TRUE(open());
    EXPECT_EQ(read(), (strings{"a@b.c web1 66/-7 1000", "a@b.c web1 99/0 990",
                               "a@b.c web2 46/401 1000", "a@b.c web3 46/401 1000"}));
    EXPECT_TRUE(e->forget_earlier());
    EXPECT_EQ(read(), strings());
}

TEST_F(earlier_test, the_first_version_noted_no_tests) {
    {
        database db = open_file(path);
        run(db, first_layout);
        fill(db);
    }
    ASSERT_TRUE(open());
    auto none = [](std::string_view, std::string_view, std::span<const left_test>) {
        ADD_FAILURE();
    };
    EXPECT_TRUE(for_each_earlier_agent(state, none, error)) << error;
}

TEST_F(earlier_test, whatever_ends_it_it_goes_on_from_there) {
    make_second();
    expect_taken_over("at rest");

    make_second();
    {
        /* As a kill leaves it: the last rows are in the log alone. */
        database db = open_file(path);
        run(db, "PRAGMA wal_checkpoint(TRUNCATE); DELETE FROM results_20260430 WHERE "
                "length(record) = 0");
        add(db, "20260430", noon - 86399, 3, "");
        fs::create_directory(state + "/killed");
        for (const char* end : {"", "-wal"}) {
            fs::copy(path + end, state + "/killed/results.db" + end);
        }
    }
    fs::remove(path);
    for (const char* end : {"", "-wal"}) {
        fs::rename(state + "/killed/results.db" + end, path + end);
    }
    EXPECT_GT(fs::file_size(path + "-wal"), 0u);
    expect_taken_over("with a log");

    make_second();
    run(open_file(path), "PRAGMA journal_mode = DELETE");
    expect_taken_over("before it is renamed");

    auto renamed = [&] {
        make_second();
        run(open_file(path), "PRAGMA journal_mode = DELETE");
        fs::rename(path, earlier);
    };
    renamed();
    expect_taken_over("renamed");

    renamed();
    write_text(path, "");
    expect_taken_over("with an empty file");

    renamed();
    run(open_file(path), "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL");
    expect_taken_over("with a file without tables");

    renamed();
    {
        database db = open_file(path);
        run(db, "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL; PRAGMA cache_size = 1;"
                "PRAGMA cache_spill = 1; BEGIN IMMEDIATE");
        ASSERT_TRUE(database_make_tables(db.get()));
        ASSERT_EQ(sqlite3_db_cacheflush(db.get()), SQLITE_OK); /* into the log */
        fs::copy(path, path + ".killed");
        fs::copy(path + "-wal", path + ".killed-wal");
    }
    fs::remove(path);
    fs::rename(path + ".killed", path);
    fs::rename(path + ".killed-wal", path + "-wal");
    EXPECT_GT(fs::file_size(path + "-wal"), 0u);
    expect_taken_over("while it was made");
}

TEST_F(earlier_test, what_is_taken_over_is_removed_by_the_next_start_at_the_latest) {
    make_second();
    ASSERT_TRUE(open());
    ASSERT_TRUE(e->set_fact("earlier", 0)); /* and killed before it is removed */
    ASSERT_TRUE(open());
    EXPECT_FALSE(fs::exists(earlier));
    EXPECT_EQ(e->read_fact("earlier"), std::nullopt);
    ASSERT_TRUE(e->set_fact("earlier", 0)); /* killed behind it */
    ASSERT_TRUE(open());
    EXPECT_EQ(e->read_fact("earlier"), std::nullopt);
    EXPECT_EQ(agents().size(), 2u);
    EXPECT_EQ(told, strings());
}

TEST_F(earlier_test, a_file_that_nobody_asked_to_take_over_is_left_alone) {
    ASSERT_TRUE(open());
    e.reset();
    write_text(earlier, "a copy");
    ASSERT_TRUE(open());
    EXPECT_EQ(e->earlier(), nullptr);
    e.reset();
    EXPECT_TRUE(fs::exists(earlier));
}

TEST_F(earlier_test, two_of_them_are_one_too_many) {
    make_second();
    fs::copy(path, earlier);
    const std::string one = read_text(path), other = read_text(earlier);
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + " was written by an earlier version, and so was " + earlier +
                         ", which is not taken over yet: move one of them away");
    EXPECT_EQ(read_text(path), one);
    EXPECT_EQ(read_text(earlier), other);
    fs::remove(earlier);
    expect_taken_over("alone");
}

TEST_F(earlier_test, without_its_agents_nothing_is_begun) {
    write_text(earlier, std::string(5000, 'x'));
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": " + earlier + ": file is not a database");
    EXPECT_FALSE(open());
    fs::remove(earlier);
    ASSERT_TRUE(open());
    EXPECT_EQ(e->earlier(), nullptr);
    EXPECT_EQ(e->read_fact("keep_days"), 9);
}

TEST_F(earlier_test, somebody_who_reads_it_is_waited_for) {
    make_second();
    lock_wait_ms = 20;
    {
        database other = open_file(path);
        run(other, "BEGIN; SELECT count(*) FROM agents");
        EXPECT_FALSE(open());
        EXPECT_EQ(error, path + ": database is locked");
        EXPECT_FALSE(fs::exists(earlier));
    }
    lock_wait_ms = 2000;
    expect_taken_over("after that");
}

TEST_F(earlier_test, one_that_is_gone_before_it_was_taken_over_is_told_once) {
    make_second();
    ASSERT_TRUE(open());
    fs::remove(earlier);
    EXPECT_EQ(e->earlier(), nullptr);
    EXPECT_EQ(told, strings{earlier + " is gone: what was not taken over from it is lost"});
    EXPECT_EQ(e->read_fact("earlier"), std::nullopt);
    ASSERT_TRUE(open());
    EXPECT_EQ(e->earlier(), nullptr);
    EXPECT_EQ(told.size(), 1u);
    EXPECT_EQ(agents().size(), 2u);
}

TEST_F(earlier_test, a_new_file_that_is_damaged_meanwhile_is_filled_again_from_the_start) {
    make_second();
    ASSERT_TRUE(open());
    ASSERT_TRUE(e->begin());
    int64_t id = 0, same = 0;
    ASSERT_TRUE(e->find_test(3, 66, 5, id));
    ASSERT_TRUE(e->set_fact("earlier_position", 77));
    ASSERT_TRUE(e->commit());
    e.reset();
    const size_t page = 8192;
    std::string bytes = read_text(path);
    const size_t facts =
        std::stoul(number("SELECT rootpage FROM sqlite_schema WHERE name = 'days'"));
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>((facts - 1) * page), 100, '\x77');
    write_text(path, bytes);
    ASSERT_TRUE(open());
    auto append = [&] {
        packed_chunk chunk;
        chunk.received_first = chunk.received_last = noon;
        return e->begin() && e->append_chunk(5, chunk) && e->commit();
    };
    int tries = 0;
    while (!append() && tries++ < 3 && e->recover()) {
    }
    EXPECT_EQ(tries, 2);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(e->read_fact("earlier"), 1);
    EXPECT_EQ(e->read_fact("earlier_position"), std::nullopt);
    EXPECT_EQ(records(), second_records());
    EXPECT_EQ(agents().size(), 2u);
    ASSERT_TRUE(e->begin());
    EXPECT_TRUE(e->find_test(3, 66, 5, same));
    EXPECT_EQ(same, id);
}

TEST_F(earlier_test, a_damaged_day_is_read_as_far_as_it_goes_and_the_file_kept) {
    size_t root = 0;
    {
        database db = open_file(path);
        run(db, second_layout);
        run(db, "BEGIN");
        fill(db);
        for (int i = 0; i < 1000; i++) {
            add(db, "20260430", noon - 86400, 3, std::string(100, 'x'));
        }
        run(db, "COMMIT; INSERT INTO days VALUES ('20260430', 1), ('20260501', 2)");
        statement query(db.get(), "SELECT rootpage FROM sqlite_schema WHERE name = "
                                  "'results_20260430'");
        ASSERT_TRUE(query.row());
        root = static_cast<size_t>(query.integer(0));
    }
    std::string bytes = read_text(path);
    auto byte = [&](size_t at) {
        return static_cast<unsigned char>(bytes.at((root - 1) * 8192 + at));
    };
    ASSERT_EQ(byte(0), 5); /* an inner page: of its children one in the middle is spoilt */
    size_t cell = size_t{byte(12 + 6)} << 8 | byte(12 + 7);
    size_t child = size_t{byte(cell + 2)} << 8 | byte(cell + 3);
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>((child - 1) * 8192), 100, '\x77');
    write_text(path, bytes);

    wall_clock = [] { return noon; };
    ASSERT_TRUE(open());
    strings found = records();
    ASSERT_GT(found.size(), 100u);
    EXPECT_EQ(found.front(), "3 -86400 c");
    EXPECT_EQ(found.back(), "7 1 b"); /* of the day behind it */
    const std::string kept = state + "/results-damaged-20260501T120000Z.db";
    const std::string text = earlier +
                             " is damaged (database disk image is malformed): what can "
                             "be read is taken over, and it is kept as " +
                             kept;
    EXPECT_EQ(told, strings{text});
    records(); /* once is enough, also after a start */
    ASSERT_TRUE(open());
    records();
    EXPECT_EQ(told.size(), 1u);
    EXPECT_TRUE(e->forget_earlier());
    EXPECT_FALSE(fs::exists(earlier));
    EXPECT_TRUE(read_text(kept).substr(8192) == bytes.substr(8192)); /* all but the header */
    wall_clock = system_seconds;
}
