/* What becomes of the writer's file: damaged, removed, replaced, locked, on a full disk, not ours.
 */
#include "store/sqlite/layout.h"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <sys/resource.h>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */
static const int64_t today = noon / 86400;

struct sqlite_file_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state", path = database_path(state);
    strings told;
    std::unique_ptr<engine> e;
    std::string error;

    void SetUp() override {
        wall_clock = [] { return noon; };
        lock_wait_ms = 2000;
    }
    void TearDown() override { wall_clock = system_seconds; }

    bool open() {
        e.reset();
        e = open_engine({state, 30, [this](const std::string& text) { told.push_back(text); }},
                        error);
        return e != nullptr;
    }

    /* Something into every table, in one transaction; as ingest does it. `number` rises. */
    bool store_once(const std::string& agent, int64_t number) {
        const std::string records = "records of " + std::to_string(number) + std::string(500, 'r');
        const std::string_view piece = records;
        stored_agent found;
        int64_t test = 0, row = 0;
        const int64_t time = noon + number;
        packed_chunk chunk{time, time, time, time, 1, piece};
        return e->begin() && e->find_agent("a@b.c", agent, noon, found) &&
               e->find_test(found.id, 66, static_cast<int32_t>(number), test) &&
               e->append_block(found.id, time, 0, {&piece, 1}, row) &&
               e->append_event({.time = time, .agent = found.id, .test = test, .message = piece},
                               row) &&
               e->add_to_ledger({found.id, time, 1, 2, 3}) &&
               e->append_inventory(
                   {.agent = found.id, .type = 42, .received = time, .time = time, .record = piece},
                   row) &&
               e->append_chunk(test, chunk) &&
               e->put_roll_up(resolution::five_minutes, test, today, piece) &&
               e->put_roll_up(resolution::hour, test, today, piece) &&
               e->end_block(found.id, {time, "", ""}, std::string(32, 'h'), records) && e->commit();
    }
    bool store(const std::string& agent, int64_t number) {
        e->look_after();
        while (!store_once(agent, number)) {
            if (!e->recover()) {
                return false;
            }
        }
        return true;
    }
    /* Enough for trees of several levels, in the file itself. */
    enum { filled = 600 };
    void fill() {
        ASSERT_TRUE(open()) << error;
        for (int i = 0; i < filled; i++) {
            ASSERT_TRUE(store("agent" + std::to_string(i % 300), i)) << e->reason();
        }
        e.reset();
    }

    static database open_file(const std::string& file) {
        sqlite3* handle = nullptr;
        EXPECT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK);
        return database(handle);
    }
    strings query(const std::string& sql) { return query(path, sql); }
    static strings query(const std::string& file, const std::string& sql) {
        database db = open_file(file);
        sqlite3_busy_timeout(db.get(), 2000);
        statement rows(db.get(), sql);
        strings found;
        int result;
        while ((result = rows.step()) == SQLITE_ROW) {
            found.emplace_back(rows.bytes(0));
        }
        EXPECT_EQ(result, SQLITE_DONE) << sqlite3_errmsg(db.get());
        return found;
    }

    /* Blocks that are there for the next start. */
    int64_t count_after_a_kill() {
        const scratch_directory killed;
        for (const char* end : {"", "-wal"}) { /* as they lie there now */
            fs::copy_file(path + end, database_path(killed.path()) + end);
        }
        return std::stoll(query(database_path(killed.path()), "SELECT count(*) FROM blocks").at(0));
    }

    static const size_t page_size = 8192;
    size_t root_of(const std::string& name) {
        return std::stoul(
            query("SELECT rootpage FROM sqlite_schema WHERE name = '" + name + "'").at(0));
    }
    /* The last page of a tree: the one that is appended to. */
    size_t last_page(const std::string& tree) {
        std::string file = read_text(path);
        size_t page = root_of(tree);
        auto byte = [&](size_t at) {
            return static_cast<unsigned char>(file.at((page - 1) * page_size + at));
        };
        while (byte(0) == 5 || byte(0) == 2) { /* an inner one: its last child */
            page = size_t{byte(8)} << 24 | size_t{byte(9)} << 16 | size_t{byte(10)} << 8 | byte(11);
        }
        return page;
    }
    /* Every bit of its beginning the other way round. */
    void flip(size_t page) {
        std::string file = read_text(path);
        for (size_t at = (page - 1) * page_size; at < (page - 1) * page_size + 12; at++) {
            file.at(at) = static_cast<char>(~file[at]);
        }
        write_text(path, file);
    }
    strings aside() {
        strings names;
        for (const fs::directory_entry& entry : fs::directory_iterator(state)) {
            std::string name = entry.path().filename();
            if (name.starts_with("results-")) {
                names.push_back(name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    strings agents() {
        strings found;
        std::string why;
        auto reader = open_reader(state, why);
        EXPECT_TRUE(reader) << why;
        auto note = [&](const known_agent& a) {
            found.push_back(std::string(a.agent) + (a.state.empty() ? "" : " known"));
        };
        EXPECT_TRUE(reader && reader->for_each_agent(note, why)) << why;
        return found;
    }
};

static const char* const trees[] = {"agents",          "sqlite_autoindex_agents_1",
                                    "tests",           "tests_of_agent",
                                    "blocks",          "events",
                                    "events_of_test",  "events_by_time",
                                    "ledger",          "inventories",
                                    "packed_20260501", "rollups5_202605",
                                    "rollups60_202605"};

TEST_F(sqlite_file_test, a_damaged_tree_is_set_aside_and_a_new_file_begun) {
    fill();
    const std::string whole = read_text(path);
    for (bool root : {true, false}) {
        for (const char* tree : trees) {
            SCOPED_TRACE(tree + std::string(root ? " root" : " leaf"));
            fs::remove_all(state);
            fs::create_directory(state);
            write_text(path, whole);
            flip(root ? root_of(tree) : last_page(tree));
            const std::string damaged = read_text(path);
            told.clear();
            ASSERT_TRUE(open()) << error;
            unsigned generation = e->generation();
            EXPECT_TRUE(store("zebra", 7777)) << e->reason();
            EXPECT_GT(e->generation(), generation);
            EXPECT_TRUE(store("agent7", 7778));
            e.reset();
            strings names = aside();
            ASSERT_FALSE(names.empty());
            EXPECT_EQ(names[0], "results-damaged-20260501T120000Z.db");
            EXPECT_TRUE(read_text(state + "/" + names[0]) == damaged);
            ASSERT_EQ(told.size(), 1u);
            EXPECT_EQ(told[0].substr(0, told[0].find("begun;") + 6),
                      path + " is damaged (database disk image is malformed): it is kept as " +
                          state + "/" + names[0] + ", and a new one is begun;");
            EXPECT_EQ(query("SELECT received - 1777636800 FROM blocks ORDER BY id"),
                      (strings{"7777", "7778"}));
            EXPECT_EQ(query("PRAGMA integrity_check"), strings{"ok"});
            EXPECT_EQ(query("SELECT value FROM facts WHERE name = 'keep_days'"), strings{"30"});
        }
    }
}

TEST_F(sqlite_file_test, agents_and_the_ids_of_tests_are_carried_over) {
    fill();
    query("UPDATE agents SET last_block = zeroblob(40) WHERE name = 'agent9'"); /* half stored */
    query("DELETE FROM tests WHERE id = (SELECT max(id) FROM tests)");
    const strings tests = query("SELECT id || ' ' || agent || ' ' || number FROM tests");
    flip(last_page("blocks"));
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("agent7", filled));
    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(told[0].ends_with("; 300 agents could be read from it")) << told[0];
    EXPECT_EQ(query("SELECT id || ' ' || first_seen || ' ' || length(last_block) || ' ' || "
                    "length(state) FROM agents WHERE name IN ('agent7', 'agent8', 'agent9') "
                    "ORDER BY id"),
              (strings{"8 1777636800 32 514", "9 1777636800 32 0", "10 1777636800 0 0"}));
    strings now = query("SELECT id || ' ' || agent || ' ' || number FROM tests");
    ASSERT_EQ(now.size(), tests.size() + 1);
    EXPECT_EQ(now.back(), "601 8 600"); /* 600 was given before, and is not again */
    now.pop_back();
    EXPECT_EQ(now, tests);
}

TEST_F(sqlite_file_test, ids_that_cannot_be_read_are_not_given_again) {
    fill();
    flip(last_page("tests"));
    flip(root_of("sqlite_sequence"));
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("agent7", filled)) << e->reason();
    EXPECT_GT(std::stoll(query("SELECT max(id) FROM tests").at(0)), int64_t{filled});
    EXPECT_EQ(query("SELECT count(*) FROM agents"), strings{"300"});
}

TEST_F(sqlite_file_test, damage_while_it_runs_is_got_over_too) {
    fill();
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("agent1", 2001));
    query("PRAGMA wal_checkpoint(TRUNCATE)");
    flip(last_page("blocks"));
    /* Somebody else writes: what the engine remembers of the file goes. */
    query("DELETE FROM facts");
    EXPECT_TRUE(store("agent1", 2002));
    EXPECT_TRUE(store("agent1", 2003));
    EXPECT_EQ(query("SELECT received - 1777636800 FROM blocks"), (strings{"2002", "2003"}));
    EXPECT_EQ(aside().at(0), "results-damaged-20260501T120000Z.db");
    EXPECT_EQ(told.size(), 1u);
}

/* What was in the log when the damage was met is not lost with it. */
TEST_F(sqlite_file_test, the_log_goes_with_the_file) {
    fill();
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("agent1", 4711));
    flip(root_of("agents"));
    query("DELETE FROM facts");
    EXPECT_TRUE(store("agent1", 2002));
    strings names = aside();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[2], "results-damaged-20260501T120000Z.db-wal");
    e.reset();
    fs::create_directory(state + "/old");
    for (const std::string& name : names) {
        fs::rename(state + "/" + name,
                   state + "/old/results.db" + name.substr(name.find(".db") + 3));
    }
    EXPECT_EQ(query(database_path(state + "/old"),
                    "SELECT count(*) FROM blocks WHERE received = 1777636800 + 4711"),
              strings{"1"});
}

/* Whatever bytes are spoilt, and however the file then behaves: either it is refused at the start,
 * or blocks are stored. Reading and dropping end, whatever they say. */
TEST_F(sqlite_file_test, no_damage_refuses_blocks_for_good) {
    fill();
    const std::string whole = read_text(path);
    std::mt19937 random(11);
    int set_aside = 0;
    for (int round = 0; round < 50; round++) {
        fs::remove_all(state);
        fs::create_directory(state);
        std::string damaged = whole;
        for (int spot = 0; spot < 80; spot++) {
            size_t page = 1 + random() % (whole.size() / page_size - 1);
            size_t at = page * page_size + (spot % 2 == 0 ? random() % 64 : random() % page_size);
            for (size_t i = 0; i < 8 && at + i < damaged.size(); i++) {
                damaged[at + i] = static_cast<char>(random());
            }
        }
        write_text(path, damaged);
        if (!open()) {
            continue;
        }
        if (auto reader = open_reader(state, error)) {
            reader->for_each_agent([](const known_agent&) {}, error);
            reader->for_each_event(
                {}, [](const stored_event&) { return true; }, error);
            reader->for_each_ledger_row(
                0, INT64_MIN, INT64_MAX, [](const ledger_row&) { return true; }, error);
            auto chunk = [](const packed_chunk&) { return true; };
            for (int64_t test = 1; test < filled; test += 100) {
                reader->for_each_chunk(test, INT64_MIN, chunk, chunk, error);
                reader->for_each_block(
                    test, [](const open_block&) { return true; }, error);
                reader->for_each_roll_up(
                    resolution::hour, test, 0, INT64_MAX, [](int64_t, std::string_view) {}, error);
            }
        }
        for (int bite = 0; bite < 3; bite++) {
            e->drop_events(noon + 100);
            e->drop_ledger(noon + 100);
            e->drop_inventories(noon + 100);
        }
        for (int i = 0; i < 5; i++) {
            EXPECT_TRUE(store("agent" + std::to_string(50 * i), 10000 + i))
                << "round " << round << ": " << e->reason();
        }
        e.reset();
        set_aside += !aside().empty();
    }
    EXPECT_GT(set_aside, 20);
}

TEST_F(sqlite_file_test, files_set_aside_do_not_fill_the_disk) {
    for (size_t i = 1; i <= max_set_aside + 1; i++) {
        ASSERT_TRUE(open());
        EXPECT_TRUE(store("web1", static_cast<int64_t>(i)));
        e.reset();
        flip(root_of("agents"));
        told.clear();
        ASSERT_TRUE(open());
        bool room = i <= max_set_aside;
        EXPECT_EQ(store("web1", static_cast<int64_t>(100 + i)), room);
        EXPECT_EQ(told.size(), room ? 1u : 0u);
    }
    EXPECT_EQ(e->reason(), "database disk image is malformed; 5 damaged files were set aside in " +
                               state +
                               " already, there may be a fault of the disk: move them away");
    e.reset();
    strings names = aside();
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".db"); });
    EXPECT_EQ(names.size(), max_set_aside);
    EXPECT_EQ(names[0], "results-damaged-20260501T120000Z-2.db");
    fs::remove(state + "/" + names[0]);
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 200));
}

/* A day that is damaged stays, and hides nothing of the others. */
TEST_F(sqlite_file_test, a_damaged_day_stays_and_hides_no_other) {
    ASSERT_TRUE(open());
    ASSERT_TRUE(e->begin());
    for (int day = 0; day < 3; day++) {
        for (int test = 1; test < 200; test++) {
            const std::string data = "day " + std::to_string(day) + std::string(200, 'x');
            const int64_t time = noon + day * 86400;
            EXPECT_TRUE(e->append_chunk(test, {time, time, time, time, 1, data}));
        }
    }
    ASSERT_TRUE(e->commit());
    e.reset();
    flip(root_of("packed_20260502"));
    ASSERT_TRUE(open());
    auto read = [&] {
        strings found;
        auto reader = open_reader(state, error);
        auto wanted = [](const packed_chunk&) { return true; };
        auto note = [&](const packed_chunk& c) {
            found.emplace_back(c.data.substr(0, 5));
            return true;
        };
        EXPECT_FALSE(reader->for_each_chunk(7, noon - 86400, wanted, note, error));
        EXPECT_EQ(error, "database disk image is malformed");
        return found;
    };
    EXPECT_EQ(read(), (strings{"day 2", "day 0"}));
    EXPECT_EQ(e->drop_day("20260502", {}), drop_outcome::damaged);
    EXPECT_EQ(e->reason(), "database disk image is malformed");
    drop_outcome outcome;
    while ((outcome = e->drop_day("20260501", {})) == drop_outcome::more) {
    }
    EXPECT_EQ(outcome, drop_outcome::done);
    EXPECT_EQ(read(), strings{"day 2"});
    strings by_turn;
    EXPECT_EQ(e->days(by_turn), drop_outcome::done);
    EXPECT_EQ(by_turn, (strings{"20260502", "20260503"}));
    EXPECT_TRUE(store("web1", 1));
    EXPECT_EQ(aside(), strings());
}

TEST_F(sqlite_file_test, a_damaged_agent_hides_no_other) {
    fill();
    flip(last_page("agents"));
    std::string why;
    auto reader = open_reader(state, why);
    ASSERT_TRUE(reader);
    size_t found = 0;
    EXPECT_FALSE(reader->for_each_agent([&](const known_agent&) { found++; }, why));
    EXPECT_EQ(why, "database disk image is malformed");
    EXPECT_GT(found, 250u);
    EXPECT_LT(found, 300u);
}

TEST_F(sqlite_file_test, blocks_that_follow_each_other_in_a_circle_end) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    EXPECT_TRUE(store("web1", 2));
    query("UPDATE blocks SET before = 3 - id");
    size_t found = 0;
    auto count = [&](const open_block&) { return ++found < 10; };
    EXPECT_FALSE(open_reader(state, error)->for_each_block(2, count, error));
    EXPECT_EQ(error, "a block that follows itself");
    ASSERT_TRUE(e->begin());
    EXPECT_TRUE(e->drop_blocks(2));
    EXPECT_TRUE(e->commit());
    EXPECT_EQ(query("SELECT count(*) FROM blocks"), strings{"0"});
}

TEST_F(sqlite_file_test, what_is_no_damage_is_told_from_it) {
    for (int result : {SQLITE_FULL, SQLITE_IOERR, SQLITE_IOERR_CORRUPTFS, SQLITE_IOERR_SHORT_READ,
                       SQLITE_READONLY, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_NOMEM, SQLITE_ERROR,
                       SQLITE_OK, SQLITE_PERM, SQLITE_SCHEMA, SQLITE_PROTOCOL}) {
        EXPECT_FALSE(database_is_damaged(result)) << result;
    }
    for (int result : {SQLITE_CORRUPT, SQLITE_CORRUPT_INDEX, SQLITE_NOTADB}) {
        EXPECT_TRUE(database_is_damaged(result)) << result;
    }
}

/* A file size limit stands for the full disk. */
TEST_F(sqlite_file_test, a_full_disk_fails_and_recovers) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    void (*handler)(int) = signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit full = {.rlim_cur = 512 * 1024, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    const std::string large(600 * 1024, 'x');
    auto store_large = [&] {
        const std::string_view pieces[] = {large, large};
        stored_agent found;
        int64_t row = 0;
        return e->begin() && e->find_agent("a@b.c", "web1", noon, found) &&
               e->append_block(found.id, noon + 2, 0, pieces, row) && e->commit();
    };
    for (int i = 0; i < 2; i++) {
        EXPECT_FALSE(store_large());
        EXPECT_TRUE(e->reason() == "disk I/O error" || e->reason() == "database or disk is full")
            << e->reason();
        EXPECT_FALSE(e->recover());
    }
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, handler);
    EXPECT_TRUE(store_large());
    EXPECT_EQ(query("SELECT length(records) FROM blocks WHERE id > 1"), strings{"1228800"});
    EXPECT_EQ(aside(), strings());
    EXPECT_EQ(told, strings());
}

/* Writes to results.db itself fail, as with no room on the disk. */
struct no_room {
    static ssize_t write(int fd, const void* data, size_t size, off64_t at) {
        char name[PATH_MAX];
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        ssize_t length = readlink(link.c_str(), name, sizeof name);
        if (length > 0 && std::string_view(name, static_cast<size_t>(length)).ends_with(".db")) {
            errno = ENOSPC;
            return -1;
        }
        return pwrite64(fd, data, size, at);
    }
    no_room() { set(reinterpret_cast<sqlite3_syscall_ptr>(write)); }
    ~no_room() { set(nullptr); }
    no_room(const no_room&) = delete;
    no_room& operator=(const no_room&) = delete;

private:
    static void set(sqlite3_syscall_ptr call) {
        sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
        for (const char* name : {"pwrite", "pwrite64"}) {
            vfs->xSetSystemCall(vfs, name, call);
        }
    }
};

/* What a kill left in the log cannot go into the file: it can be read, and nothing is answered. */
TEST_F(sqlite_file_test, a_full_disk_is_no_reason_not_to_start) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    const std::string killed = directory / "killed";
    fs::create_directory(killed);
    for (const char* end : {"", "-wal"}) {
        fs::copy_file(path + end, database_path(killed) + end);
    }
    e.reset();
    state = killed;
    path = database_path(killed);
    {
        const no_room full;
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(agents(), strings{"web1 known"});
        for (int i = 0; i < 2; i++) {
            EXPECT_FALSE(store("web1", 2));
            EXPECT_EQ(e->reason(), "database or disk is full");
        }
    }
    EXPECT_TRUE(store("web1", 2)) << e->reason();
    EXPECT_EQ(query("SELECT received - 1777636800 FROM blocks"), (strings{"1", "2"}));
    EXPECT_EQ(told, strings());
    EXPECT_EQ(aside(), strings());
}

TEST_F(sqlite_file_test, a_locked_database_fails_and_recovers) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    lock_wait_ms = 20;
    ASSERT_TRUE(open());
    {
        database other = open_file(path);
        ASSERT_TRUE(database_exec(other.get(), "BEGIN IMMEDIATE"));
        EXPECT_FALSE(store("web1", 2));
        EXPECT_EQ(e->reason(), "database is locked");
        EXPECT_EQ(e->drop_events(noon), drop_outcome::failed);
    }
    EXPECT_TRUE(store("web1", 2));
    EXPECT_EQ(told, strings());
}

TEST_F(sqlite_file_test, what_is_not_ours_is_refused_and_left_alone) {
    fs::create_directory(state);
    write_text(path, "this is not a database, but it is long enough to be looked at as one. " +
                         std::string(200, 'x'));
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": file is not a database");
    EXPECT_EQ(read_text(path).substr(0, 7), "this is");

    fs::remove(path);
    query("CREATE TABLE theirs (x)");
    std::string before = read_text(path);
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": it is a database of another program");
    EXPECT_TRUE(read_text(path) == before);

    fs::remove(path);
    ASSERT_TRUE(open());
    e.reset();
    query("PRAGMA user_version = 5");
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": its layout has version 5, this program knows version 4");

    query("PRAGMA user_version = 4");
    query("DROP TABLE ledger");
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": no such table: ledger");
    EXPECT_TRUE(fs::exists(path));
}

TEST_F(sqlite_file_test, a_link_to_a_file_elsewhere_is_refused) {
    fs::create_directory(state);
    fs::create_symlink("elsewhere.db", path);
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": it is a symbolic link");
    EXPECT_FALSE(fs::exists(state + "/elsewhere.db"));
}

TEST_F(sqlite_file_test, a_second_collector_is_refused) {
    ASSERT_TRUE(open());
    EXPECT_EQ(open_engine({.directory = state, .keep_days = 0, .tell = {}}, error), nullptr);
    EXPECT_EQ(error, "another collector uses the state directory " + state);
    EXPECT_EQ(open_engine({}, error), nullptr);
    EXPECT_EQ(error, "no state directory is named");
    EXPECT_TRUE(store("web1", 1));
}

TEST_F(sqlite_file_test, files_are_for_their_owner_alone) {
    mode_t before = umask(0);
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    umask(before);
    struct stat status;
    for (const char* name : {"", "/lock", "/results.db", "/results.db-wal", "/results.db-shm"}) {
        ASSERT_EQ(stat((state + name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 0777, *name == '\0' ? 0700u : 0600u) << name;
    }
}

TEST_F(sqlite_file_test, a_file_that_is_removed_or_replaced_is_told) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    fs::remove(path);
    EXPECT_TRUE(store("web2", 2));
    EXPECT_EQ(told, strings{path + " was removed while it was in use: what it held is gone, a new "
                                   "one is begun as soon as there is a place for it"});
    EXPECT_EQ(agents(), (strings{"web1", "web2 known"}));
    EXPECT_EQ(query("SELECT length(last_block) FROM agents WHERE name = 'web1'"), strings{"0"});

    const std::string other = directory / "other";
    {
        auto made = open_engine({.directory = other, .keep_days = 0, .tell = {}}, error);
        ASSERT_TRUE(made);
        std::swap(e, made);
        EXPECT_TRUE(store("web9", 9));
        std::swap(e, made);
    }
    fs::copy(database_path(other), path + ".new");
    fs::rename(path, directory / "moved.db");
    fs::rename(path + ".new", path);
    EXPECT_TRUE(store("web1", 3));
    EXPECT_EQ(agents(), (strings{"web1 known", "web9 known"}));
    EXPECT_EQ(query("PRAGMA integrity_check"), strings{"ok"});
    EXPECT_EQ(told.back(), path + " was replaced while it was in use: the new one is used");
    EXPECT_EQ(query(directory / "moved.db", "SELECT received - 1777636800 FROM blocks"),
              strings{"2"}); /* it is whole */
}

TEST_F(sqlite_file_test, a_log_that_is_removed_is_told_and_nothing_is_lost) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    unsigned generation = e->generation();
    const std::string log = path + "-wal";
    int64_t stored = 1;
    for (bool replaced : {false, true}) {
        told.clear();
        fs::remove(log);
        if (replaced) {
            write_text(log, "something else");
        }
        EXPECT_TRUE(store("web1", ++stored)) << e->reason();
        EXPECT_EQ(told,
                  strings{log + " was removed while it was in use: what it held is in " + path});
        EXPECT_TRUE(store("web1", ++stored)) << e->reason();
        EXPECT_EQ(told.size(), 1u);
        EXPECT_EQ(e->generation(), generation);
        EXPECT_EQ(count_after_a_kill(), stored);
    }
}

/* What somebody reads cannot be taken out of the log: that is waited for. */
TEST_F(sqlite_file_test, a_log_that_is_removed_under_a_reader_is_left_when_that_is_done) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    {
        auto reader = open_reader(state, error);
        ASSERT_TRUE(reader) << error;
        fs::remove(path + "-wal");
        EXPECT_TRUE(store("web1", 2)) << e->reason();
        EXPECT_EQ(told, strings());
    }
    EXPECT_TRUE(store("web1", 3)) << e->reason();
    EXPECT_EQ(told.size(), 1u);
    EXPECT_EQ(count_after_a_kill(), 3);
}

TEST_F(sqlite_file_test, a_log_that_comes_and_goes_by_itself_is_no_reason) {
    ASSERT_TRUE(open());
    for (int i = 0; i < 40; i++) {
        EXPECT_TRUE(store("web1", i));
        if (i % 5 == 0) {
            query("PRAGMA wal_checkpoint(TRUNCATE)");
        }
        e->look_after();
        if (i % 7 == 0) {
            ASSERT_TRUE(open());
            e->look_after();
        }
        EXPECT_EQ(agents(), strings{"web1 known"});
    }
    EXPECT_EQ(told, strings());
    EXPECT_EQ(count_after_a_kill(), 40);
}

/* SQLite would take the log of an empty file for one that is left over. */
TEST_F(sqlite_file_test, a_file_that_is_emptied_is_told) {
    ASSERT_TRUE(open());
    for (int i = 1; i <= 20; i++) { /* of less than it would need SQLite makes no file */
        EXPECT_TRUE(store("web1", i));
    }
    unsigned generation = e->generation();
    fs::resize_file(path, 0);
    EXPECT_TRUE(store("web2", 2)) << e->reason();
    EXPECT_GT(e->generation(), generation);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(told[0].starts_with(path +
                                    " is damaged (it was emptied while it was in use): it "
                                    "is kept as " +
                                    state + "/results-damaged-20260501T120000Z.db, "))
        << told[0];
    EXPECT_EQ(count_after_a_kill(), 1);
    EXPECT_EQ(query("PRAGMA integrity_check"), strings{"ok"});

    ASSERT_TRUE(open()); /* nothing is in the log */
    told.clear();
    fs::resize_file(path, 0);
    EXPECT_TRUE(store("web2", 3)) << e->reason();
    EXPECT_EQ(told, strings{path + " was emptied while it was in use: what it held is gone, a new "
                                   "one is begun"});
    EXPECT_EQ(count_after_a_kill(), 1);
}

TEST_F(sqlite_file_test, a_directory_that_is_removed_is_told_and_used_again_when_it_is_back) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    fs::remove_all(state);
    EXPECT_FALSE(store("web1", 2));
    EXPECT_FALSE(store("web1", 2));
    EXPECT_EQ(told.size(), 1u);
    EXPECT_EQ(e->reason(), state + "/lock: No such file or directory");
    fs::create_directory(state);
    EXPECT_TRUE(store("web1", 2));
    EXPECT_EQ(query("SELECT received - 1777636800 FROM blocks"), strings{"2"});
    EXPECT_EQ(open_engine({.directory = state, .keep_days = 0, .tell = {}}, error), nullptr);
    EXPECT_EQ(error, "another collector uses the state directory " + state);
    EXPECT_EQ(agents(), strings{"web1 known"});
}

TEST_F(sqlite_file_test, a_foreign_database_put_in_its_place_is_told_and_left_alone) {
    ASSERT_TRUE(open());
    EXPECT_TRUE(store("web1", 1));
    fs::rename(path, path + ".ours");
    query(path + ".new", "CREATE TABLE theirs (a)");
    fs::rename(path + ".new", path);
    EXPECT_FALSE(store("web1", 2));
    EXPECT_EQ(e->reason(), path + ": it is a database of another program");
    EXPECT_EQ(query("SELECT name FROM sqlite_schema"), strings{"theirs"});
    fs::rename(path + ".ours", path);
    EXPECT_TRUE(store("web1", 2));
    EXPECT_EQ(query("SELECT received - 1777636800 FROM blocks"), (strings{"1", "2"}));
}
