/* The whole store: backup, restore and check. */
#include <sqlite3.h>

static int (*backup_step)(sqlite3_backup*, int) = sqlite3_backup_step;
#define sqlite3_backup_step backup_step
#include "store/sqlite/copy.cpp"
#undef sqlite3_backup_step

#include "store/engine.h"
#include "store/pack.h"
#include "store/sqlite/database.h"
#include "store/sqlite/layout.h"

#include "collector_test_support.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */
static const int64_t day_of_noon = noon / 86400;

struct copy_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state", file = directory / "copy.db";
    std::unique_ptr<engine> e;
    std::string error, kept_as;

    void open(const std::string& where) {
        e.reset();
        e = open_engine({.directory = where, .keep_days = 30, .tell = {}}, error);
        ASSERT_TRUE(e) << error;
    }

    /* One transaction: a block, and as many results in the ledger as there are blocks. */
    void store(const std::string& name, int64_t number) {
        stored_agent agent;
        std::string record = load_record(7, noon + number);
        std::string_view piece = record;
        int64_t row = 0;
        ASSERT_TRUE(e->begin() && e->find_agent("a@b.c", name, noon, agent) &&
                    e->append_block(agent.id, noon + number, last_[name], {&piece, 1}, row) &&
                    e->add_to_ledger({.agent = agent.id, .hour = noon, .received = 1}) &&
                    e->end_block(agent.id, {noon + number, "", ""}, "hash", "state") && e->commit())
            << e->reason();
        last_[name] = row;
    }
    /* One of everything. */
    void fill() {
        last_.clear();
        open(state);
        for (int i = 0; i < 20; i++) {
            store("one", i);
            store("two", i);
        }
        std::string chunk, roll_up, record = load_record(7, noon);
        ASSERT_TRUE(pack_chunk({{noon, record}, {noon + 60, record}}, chunk));
        pack_roll_up({{.start = 3600,
                       .count = 2,
                       .ok = 3600,
                       .problem = 0,
                       .values = {{.id = 4, .count = 2, .min = 1, .mean = 2, .max = 3}}}},
                     roll_up);
        stored_agent agent;
        int64_t test = 0, row = 0;
        ASSERT_TRUE(
            e->begin() && e->find_agent("a@b.c", "one", noon, agent) &&
            e->find_test(agent.id, 66, 7, test) &&
            e->append_chunk(test, {noon, noon + 60, noon, noon + 60, 2, chunk}) &&
            e->put_roll_up(resolution::hour, test, day_of_noon, roll_up) &&
            e->put_roll_up(resolution::five_minutes, test, day_of_noon, roll_up) &&
            e->append_event({.time = noon,
                             .agent = agent.id,
                             .test = test,
                             .from = 0,
                             .to = 1,
                             .message = "fine"},
                            row) &&
            e->append_inventory(
                {.agent = agent.id, .type = 39, .received = noon, .time = noon, .record = "items"},
                row) &&
            e->append_definition({.agent = agent.id,
                                  .type = 66,
                                  .number = 7,
                                  .name = "load",
                                  .text = "x",
                                  .title = "load of web-1",
                                  .group = "web servers"}) &&
            e->append_fleet_revision({.revision = 3,
                                      .time = noon,
                                      .author = "anna",
                                      .about = "applied",
                                      .text = "version: 1\n",
                                      .has_text = true}) &&
            e->put_fleet_agent({.account = "a@b.c", .agent = "one", .assigned = "assigned"}) &&
            e->put_change({.id = 1,
                           .revision = 3,
                           .time = noon,
                           .account = "a@b.c",
                           .agent = "one",
                           .test = "load",
                           .action = 1}) &&
            e->commit())
            << e->reason();
    }

    /* All that is in a file, table by table, but for how often it was restored. */
    strings content(const std::string& path) {
        database db;
        EXPECT_TRUE(database_open_file(path, db, error)) << error;
        strings all;
        std::vector<std::string> tables;
        statement names(db.get(), "SELECT name FROM sqlite_schema WHERE type = 'table' AND name "
                                  "NOT GLOB 'sqlite_*' ORDER BY name");
        while (names.row()) {
            tables.emplace_back(names.bytes(0));
        }
        for (const std::string& table : tables) {
            statement rows(db.get(), "SELECT * FROM " + table);
            while (rows.row()) {
                std::string row = table;
                for (int i = 0; i < 14; i++) {
                    row += "|" + std::string(rows.bytes(i));
                }
                if (!row.starts_with("facts|restored|")) {
                    all.push_back(row);
                }
            }
        }
        return all;
    }
    strings files_in(const std::string& where) {
        strings names;
        for (const fs::directory_entry& entry : fs::directory_iterator(where)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    bool backed_up(const std::string& to) { return back_up(state, to, {}, error); }
    bool restored(const std::string& to, bool replace = false) {
        return restore_from(to, file, replace, {}, kept_as, error);
    }
    strings findings(const std::string& where) {
        strings found;
        const whole_texts whole = {
            .state = [](std::string_view text) { return text == "state"; },
            .assigned = [](std::string_view text) { return text == "assigned"; }};
        EXPECT_TRUE(check_store(
            where, [&](const std::string& what) { found.push_back(what); }, error, whole))
            << error;
        return found;
    }
    /* Changes what is stored behind the collector's back. */
    void change(const std::string& sql) {
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open(database_path(state).c_str(), &handle), SQLITE_OK);
        database db(handle);
        ASSERT_TRUE(database_exec(handle, sql)) << sql << ": " << sqlite3_errmsg(handle);
    }

private:
    std::map<std::string, int64_t> last_;
};

/* ---- backup ---- */

TEST_F(copy_test, a_copy_has_all_and_is_its_owners_alone) {
    fill();
    int told = -1;
    ASSERT_TRUE(back_up(
        state, file,
        [&](int per_cent) {
            EXPECT_GT(per_cent, told);
            EXPECT_LE(per_cent, 100);
            told = per_cent;
        },
        error))
        << error;
    EXPECT_EQ(content(file), content(database_path(state)));
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(files_in(directory.path()), (strings{"copy.db", "state"}));
    /* A file that needs no other one, and no place to write. */
    ASSERT_EQ(chmod(file.c_str(), 0400), 0);
    EXPECT_EQ(read_text(file).substr(18, 2), "\1\1");
}

TEST_F(copy_test, a_copy_is_one_state_while_a_collector_writes) {
    fill();
    for (int i = 0; i < 2000; i++) { /* some megabytes, or it would be a single step */
        e->begin();
        int64_t row;
        stored_agent agent;
        std::string record(8000, 'x');
        ASSERT_TRUE(e->find_agent("a@b.c", "one", noon, agent) &&
                    e->append_inventory({.agent = agent.id, .record = record}, row) && e->commit());
    }
    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int i = 100; !done; i++) {
            store("one", i);
        }
    });
    for (int i = 0; i < 5; i++) {
        std::string to = directory / ("copy" + std::to_string(i));
        EXPECT_TRUE(backed_up(to)) << error;
        database db;
        ASSERT_TRUE(database_open_file(to, db, error)) << error;
        statement sums(db.get(), "SELECT (SELECT count(*) FROM blocks) = (SELECT sum(received) "
                                 "FROM ledger), (SELECT count(*) FROM blocks)");
        ASSERT_TRUE(sums.row());
        EXPECT_EQ(sums.integer(0), 1) << sums.integer(1);
        statement check(db.get(), "PRAGMA integrity_check");
        ASSERT_TRUE(check.row());
        EXPECT_EQ(check.bytes(0), "ok");
    }
    done = true;
    writer.join();
}

TEST_F(copy_test, a_file_that_is_there_is_left_alone) {
    fill();
    write_text(file, "something");
    EXPECT_FALSE(backed_up(file));
    EXPECT_EQ(error, file + " is there already");
    EXPECT_EQ(read_text(file), "something");
    fs::remove(file);
    ASSERT_EQ(symlink("nowhere", file.c_str()), 0);
    EXPECT_FALSE(backed_up(file));
    EXPECT_EQ(files_in(directory.path()), (strings{"copy.db", "state"}));
}

/* As its log, or as what an earlier version left, the store would take a copy for its own. */
TEST_F(copy_test, a_copy_has_no_name_of_the_stores) {
    fill();
    e.reset();
    const strings before = files_in(state);
    for (const char* name :
         {"results.db-wal", "results.db-journal", "results-earlier.db", "results-damaged-1.db"}) {
        if (!fs::exists(state + "/" + name)) {
            EXPECT_FALSE(backed_up(state + "/../state/" + name)) << name;
            EXPECT_NE(error.find("the store's own"), error.npos) << error;
        }
    }
    EXPECT_EQ(files_in(state), before);
    EXPECT_TRUE(backed_up(state + "/backup.db")) << error;
    EXPECT_TRUE(backed_up(directory / "results.db")) << error;
}

/* Opening a pipe would wait for ever. */
TEST_F(copy_test, what_is_no_file_is_not_read) {
    fill();
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_FALSE(restored(directory / "other"));
    EXPECT_EQ(error, file + ": it is no file");
    EXPECT_FALSE(restored(state, true));
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_FALSE(restored(directory / "other"));
    EXPECT_EQ(error, file + ": it is no file");
    EXPECT_FALSE(fs::exists(directory / "other"));
}

TEST_F(copy_test, nothing_is_left_of_a_copy_that_fails) {
    EXPECT_FALSE(backed_up(file)); /* there is nothing to copy */
    EXPECT_NE(error.find("results.db"), error.npos) << error;
    fill();
    EXPECT_FALSE(backed_up(directory / "missing/copy.db"));
    EXPECT_EQ(error, (directory / "missing/copy.db") + ": No such file or directory");

    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit little = {.rlim_cur = 40000, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
    EXPECT_FALSE(backed_up(file));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_TRUE(error.starts_with(file + ": ")) << error;
    EXPECT_EQ(files_in(directory.path()), strings{"state"});
}

/* SQLite does not count it as an error that somebody else is at a file. */
TEST_F(copy_test, a_copy_that_ends_early_gets_no_name) {
    fill();
    struct restore_step {
        ~restore_step() { backup_step = sqlite3_backup_step; }
    } restore;
    for (int result : {SQLITE_BUSY, SQLITE_LOCKED, SQLITE_IOERR_READ}) {
        static int ends_with, left;
        ends_with = result;
        left = 1;
        backup_step = [](sqlite3_backup* copy, int) {
            return left-- > 0 ? sqlite3_backup_step(copy, 1) : ends_with;
        };
        EXPECT_FALSE(backed_up(file));
        EXPECT_TRUE(error.ends_with(std::string(": ") + sqlite3_errstr(result))) << error;
        EXPECT_EQ(files_in(directory.path()), strings{"state"});
    }
}

TEST_F(copy_test, what_is_being_taken_over_is_not_copied) {
    fill();
    change("INSERT INTO facts VALUES ('earlier', 1)");
    EXPECT_FALSE(backed_up(file));
    EXPECT_NE(error.find("taken over"), error.npos) << error;
    change("DELETE FROM facts WHERE name = 'earlier'");
    EXPECT_TRUE(backed_up(file)) << error;
}

/* Killed at any moment there is no file, or a whole one. */
TEST_F(copy_test, a_kill_leaves_no_half_copy) {
    fill();
    e.reset();
    int whole = 0;
    for (int i = 0; i < 40; i++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::string why;
            back_up(state, file, {}, why);
            pause();
            _exit(0);
        }
        usleep(static_cast<useconds_t>(i * 150));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        if (fs::exists(file)) {
            EXPECT_EQ(content(file), content(database_path(state)));
            fs::remove(file);
            whole++;
        }
    }
    printf("%d of 40 were whole\n", whole);
}

/* ---- restore ---- */

TEST_F(copy_test, a_copy_comes_back_into_an_empty_place) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    std::string other = directory / "a/new/state";
    ASSERT_TRUE(restored(other)) << error;
    EXPECT_EQ(kept_as, "");
    EXPECT_EQ(content(database_path(other)), content(file));
    EXPECT_EQ(files_in(other), (strings{"lock", "results.db"}));
    struct stat status;
    ASSERT_EQ(stat(database_path(other).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_TRUE(findings(other).empty());
    /* A collector goes on from there. */
    open(other);
    stored_agent agent;
    ASSERT_TRUE(e->begin() && e->find_agent("a@b.c", "one", noon, agent));
    EXPECT_EQ(agent.last_block, "hash");
    e->give_up();
}

TEST_F(copy_test, restoring_tells_how_far_it_is) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    int told = -1;
    auto progress = [&](int per_cent) {
        EXPECT_GT(per_cent, told);
        told = per_cent;
    };
    backup_step = [](sqlite3_backup* copy, int) { return sqlite3_backup_step(copy, 3); };
    bool done = restore_from(directory / "other", file, false, progress, kept_as, error);
    backup_step = sqlite3_backup_step;
    EXPECT_TRUE(done) << error;
    EXPECT_GT(told, 50);
}

TEST_F(copy_test, nothing_is_left_where_restoring_fails) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    fs::create_directory(directory / "there");
    backup_step = [](sqlite3_backup*, int) { return SQLITE_FULL; };
    for (const char* place : {"a/new/state", "a/new/state/", "there"}) {
        EXPECT_FALSE(restored(directory / place));
        EXPECT_TRUE(error.ends_with("results.db: database or disk is full")) << error;
        EXPECT_FALSE(fs::exists(directory / "a"));
    }
    backup_step = sqlite3_backup_step;
    EXPECT_TRUE(fs::exists(directory / "there"));
    EXPECT_FALSE(fs::exists(database_path(directory / "there")));
}

TEST_F(copy_test, a_place_where_nothing_was_stored_is_empty) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    std::string other = directory / "other";
    open(other);
    e.reset();
    ASSERT_TRUE(restored(other)) << error;
    EXPECT_EQ(kept_as, "");
    EXPECT_EQ(content(database_path(other)), content(file));
    EXPECT_EQ(files_in(other), (strings{"lock", "results.db"}));
}

TEST_F(copy_test, what_is_stored_is_replaced_only_when_asked_and_kept) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    store("three", 1);
    e.reset();
    strings before = content(database_path(state));
    EXPECT_FALSE(restored(state));
    EXPECT_NE(error.find("not replaced unasked"), error.npos) << error;
    EXPECT_EQ(content(database_path(state)), before);

    ASSERT_TRUE(restored(state, true)) << error;
    EXPECT_EQ(content(database_path(state)), content(file));
    ASSERT_TRUE(kept_as.starts_with(state + "/results-replaced-")) << kept_as;
    EXPECT_EQ(content(kept_as), before);
    std::string first = kept_as;
    ASSERT_TRUE(restored(state, true)) << error; /* in the same second, perhaps */
    EXPECT_NE(kept_as, first);
    EXPECT_EQ(content(first), before);
}

TEST_F(copy_test, a_copy_that_comes_back_says_so_each_time) {
    auto times = [&](const std::string& where) {
        std::unique_ptr<result_reader> reader = open_reader(where, error);
        EXPECT_TRUE(reader) << error;
        return reader ? reader->read_fact(restored_fact) : std::nullopt;
    };
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    EXPECT_EQ(times(state), std::nullopt);
    e.reset();
    for (int64_t time = 1; time <= 3; time++) { /* of the same copy, too */
        ASSERT_TRUE(restored(state, true)) << error;
        EXPECT_EQ(times(state), time);
    }
    std::string other = directory / "other", later = directory / "later.db";
    ASSERT_TRUE(back_up(state, later, {}, error)) << error;
    ASSERT_TRUE(restore_from(other, later, false, {}, kept_as, error)) << error;
    EXPECT_EQ(times(other), 4) << "what the copy knows counts where nothing was";
    ASSERT_TRUE(restored(other, true)) << error;
    EXPECT_EQ(times(other), 5) << "and what is replaced";
    write_text(database_path(other), "no database at all");
    ASSERT_TRUE(restored(other, true)) << error;
    EXPECT_EQ(times(other), 1) << "nobody knows";
}

TEST_F(copy_test, a_fleet_alone_is_not_replaced_unasked) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    std::string other = directory / "other";
    open(other);
    ASSERT_TRUE(e->begin() &&
                e->append_fleet_revision({.revision = 1, .text = "x", .has_text = true}) &&
                e->commit());
    e.reset();
    EXPECT_FALSE(restored(other));
    EXPECT_NE(error.find("not replaced unasked"), error.npos) << error;
}

/* Also what a collector that was killed left in its log is kept. */
TEST_F(copy_test, the_log_of_what_is_replaced_goes_with_it) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    strings before = content(database_path(state));
    std::string other = directory / "killed";
    fs::create_directory(other);
    for (const char* end : {"", "-wal"}) { /* as it lies there while it is open */
        fs::copy_file(database_path(state) + end, database_path(other) + end);
    }
    ASSERT_GT(fs::file_size(database_path(other) + "-wal"), 0u);
    ASSERT_TRUE(restored(other, true)) << error;
    EXPECT_EQ(content(kept_as), before);
    EXPECT_FALSE(fs::exists(database_path(other) + "-wal"));
}

TEST_F(copy_test, what_is_damaged_is_replaced_and_kept_too) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    std::string other = directory / "other";
    fs::create_directory(other);
    write_text(database_path(other), "no database at all");
    EXPECT_FALSE(restored(other));
    ASSERT_TRUE(restored(other, true)) << error;
    EXPECT_EQ(read_text(kept_as), "no database at all");
    EXPECT_EQ(content(database_path(other)), content(file));
}

TEST_F(copy_test, nothing_is_restored_under_a_collector) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    strings before = content(database_path(state));
    EXPECT_FALSE(restored(state, true));
    EXPECT_NE(error.find("another collector uses"), error.npos) << error;
    EXPECT_EQ(content(database_path(state)), before);
}

TEST_F(copy_test, nothing_is_restored_beside_what_an_earlier_version_stored) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    std::string other = directory / "other";
    fs::create_directory(other);
    write_text(other + "/results-earlier.db", "old");
    EXPECT_FALSE(restored(other, true));
    EXPECT_NE(error.find("has not been taken over"), error.npos) << error;
    EXPECT_EQ(files_in(other), (strings{"lock", "results-earlier.db"}));
}

TEST_F(copy_test, a_copy_that_is_damaged_is_refused) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    e.reset();
    std::string whole = read_text(file), other = directory / "other";
    int refused = 0, places = 0;
    for (size_t at = 100; at < whole.size(); at += 1777, places++) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
        write_text(file, damaged);
        if (!restored(other)) {
            refused++;
            EXPECT_NE(error, "");
        } else {
            fs::remove_all(other); /* in what is free, or in what means nothing */
        }
    }
    EXPECT_GT(refused, 0);
    printf("%d of %d damaged copies were refused\n", refused, places);

    write_text(file, whole.substr(0, whole.size() / 2));
    EXPECT_FALSE(restored(other));
    write_text(file, "no database at all");
    EXPECT_FALSE(restored(other));
    write_text(file, "");
    EXPECT_FALSE(restored(other));
    fs::remove(file);
    EXPECT_FALSE(restored(other));
    EXPECT_FALSE(fs::exists(file));
    if (fs::exists(other)) {
        EXPECT_TRUE(files_in(other).empty());
    }
}

/* What a kill left of a change is undone by whoever comes next, also one that only reads. */
TEST_F(copy_test, a_change_that_was_cut_short_is_undone) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error; /* a copy has no log */
    const strings before = content(file);
    const std::string killed = directory / "killed";
    fs::create_directory(killed);
    {
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK);
        database db(handle);
        ASSERT_TRUE(database_exec(handle, "PRAGMA cache_size = 1; BEGIN IMMEDIATE") &&
                    database_exec(handle, "UPDATE blocks SET records = zeroblob(20000)"));
        for (const char* end : {"", "-journal"}) { /* as they lie there in the middle of it */
            fs::copy_file(file + end, database_path(killed) + end);
        }
    }
    EXPECT_EQ(content(database_path(killed)), before);
    EXPECT_EQ(findings(killed), strings{});
    EXPECT_FALSE(fs::exists(database_path(killed) + "-journal"));
}

/* Killed at any moment the place has what it had, or what it was to have. */
TEST_F(copy_test, a_kill_leaves_no_half_store) {
    fill();
    ASSERT_TRUE(backed_up(file)) << error;
    store("three", 1);
    e.reset();
    const strings before = content(database_path(state)), after = content(file);
    const std::string old = read_text(database_path(state));
    int replaced = 0;
    for (int i = 0; i < 40; i++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::string why, name;
            restore_from(state, file, true, {}, name, why);
            pause();
            _exit(0);
        }
        usleep(static_cast<useconds_t>(i * 200));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        strings now = content(database_path(state));
        EXPECT_TRUE(now == before || now == after);
        replaced += now == after;
        fs::remove_all(state);
        fs::create_directory(state);
        write_text(database_path(state), old);
    }
    printf("%d of 40 were replaced\n", replaced);
}

/* ---- check ---- */

TEST_F(copy_test, nothing_is_found_where_all_is_well) {
    EXPECT_FALSE(check_store(
        state, [](const std::string&) {}, error));
    EXPECT_NE(error, "");
    fill();
    EXPECT_EQ(findings(state), strings{});
}

TEST_F(copy_test, what_is_damaged_is_found) {
    const std::pair<const char*, const char*> damages[] = {
        {"UPDATE agents SET state = 'other' WHERE name = 'two'", "the state of agent 2 is damaged"},
        {"UPDATE packed_20260501 SET data = x'1100'",
         "packed_20260501: chunk 18957505984 of test 1 is damaged"},
        {"UPDATE packed_20260501 SET results = 3",
         "packed_20260501: chunk 18957505984 of test 1 holds other results than its row says"},
        {"UPDATE packed_20260501 SET received_last = received_last - 1",
         "packed_20260501: chunk 18957505984 of test 1 holds other results than its row says"},
        {"UPDATE packed_20260501 SET received_last = received_last + 86400",
         "packed_20260501: chunk 18957505984 of test 1 is of another day"},
        {"UPDATE packed_20260501 SET id = id + (5 << 34)",
         "packed_20260501: chunk 104856851904 of test 6 is of a test that there is not"},
        {"UPDATE rollups5_202605 SET data = x''",
         "rollups5_202605: test 1 on day 20574 is damaged"},
        {"UPDATE rollups60_202605 SET data = x'21'",
         "rollups60_202605: test 1 on day 20574 is damaged"},
        {"UPDATE rollups60_202605 SET id = id + (3 << 20)",
         "rollups60_202605: test 4 on day 20574 is a test that there is not"},
        {"UPDATE rollups60_202605 SET id = id + 31",
         "rollups60_202605: test 1 on day 20605 is of another month"},
        {"UPDATE tests SET agent = 9", "tests: 1 of agent 9, which there is not"},
        {"UPDATE events SET agent = 9", "events: 1 of agent 9, which there is not"},
        {"UPDATE events SET test = 9", "events: 1 of test 9, which there is not"},
        {"UPDATE ledger SET agent = 9 WHERE agent = 1", "ledger: 1 of agent 9, which there is not"},
        {"UPDATE inventories SET agent = 9", "inventories: 1 of agent 9, which there is not"},
        {"UPDATE blocks SET records = substr(records, 1, 20) WHERE id = 3",
         "block 3: at 0: too short for a record"},
        {"UPDATE blocks SET before = 7 WHERE id = 5",
         "block 5 of agent 1 follows block 7, which came later"},
        {"UPDATE blocks SET before = 2 WHERE id = 5",
         "block 5 of agent 1 follows block 2 of agent 2"},
        {"UPDATE blocks SET before = 0 WHERE id = 5", "blocks of agent 1: 2 are followed by none"},
        {"UPDATE definitions SET agent = 9", "definitions: 1 of agent 9, which there is not"},
        {"UPDATE fleet_agents SET assigned = x'00'",
         "what a@b.c/one was given of the fleet is damaged"},
        {"UPDATE fleet_revisions SET revision = -1", "revision -1 of the fleet is none"},
        {"UPDATE fleet_changes SET outcome = 5", "change 1 has outcome 5, which there is not"},
    };
    for (auto [sql, expected] : damages) {
        fs::remove_all(state);
        e.reset();
        fill();
        e.reset();
        change(sql);
        std::string all;
        for (const std::string& what : findings(state)) {
            all += what + "\n";
        }
        EXPECT_NE(all.find(expected), all.npos) << sql << "\n" << all;
    }
}

/* A page that is overwritten hides no other table. */
TEST_F(copy_test, damaged_pages_are_found_and_passed_over) {
    fill();
    e.reset();
    std::string path = database_path(state), whole = read_text(path);
    int found = 0;
    for (size_t page = 1; page < whole.size() / 8192; page++) {
        std::string damaged = whole;
        damaged.replace(page * 8192, 100, 100, '\x5a');
        write_text(path, damaged);
        strings what;
        if (!check_store(
                state, [&](const std::string& one) { what.push_back(one); }, error) ||
            !what.empty()) {
            found++;
        }
    }
    EXPECT_EQ(found, static_cast<int>(whole.size() / 8192) - 1);
}
