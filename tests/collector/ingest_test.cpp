#include "ingest/ingest.cpp"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"
#include "counted_memory.h"
#include "eventually.h"
#include "refuse_syscall.h"
#include "stored_records.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct recorder : store_listener {
    std::mutex m;
    strings records, undecodable, problems;

    void on_record(const poll_block& from, const decoded_record& result) override {
        const record& r = result.content;
        std::lock_guard hold(m);
        records.push_back(from.agent + " " + std::to_string(r.ui32.size() > 1 ? r.ui32[1] : 0));
    }
    void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                        const std::string& reason, const std::string& kept_as) override {
        std::lock_guard hold(m);
        undecodable.push_back(from.agent + " " + std::to_string(offset) + " " +
                              std::to_string(bytes) + " " + reason);
        kept.push_back(kept_as);
    }
    void on_problem(const std::string& text) override {
        std::lock_guard hold(m);
        problems.push_back(text);
    }
    strings kept;
};

/* What the pinned clocks show. */
static std::atomic<int64_t> wall_now = noon, steady_now = 0, boot_now = 0;

struct ingest_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    recorder told;
    counters counted;
    hidden_texts hidden;
    std::unique_ptr<ingest> s;

    void SetUp() override {
        wall_now = noon;
        steady_now = 1000;
        wall_clock = [] { return wall_now.load(); };
        arrival_clock = wall_clock;
        steady_clock = [] { return steady_now.load(); };
        boot_number = [] { return boot_now.load(); };
        pace.bite = std::chrono::hours(1); /* all that is due, however slow the machine is */
    }
    void TearDown() override {
        s.reset();
        slice = {};
        wall_clock = system_seconds;
        arrival_clock = epoch_seconds;
        steady_clock = boot_seconds;
        boot_number = read_boot_number;
        pace = {};
    }

    std::string open(int keep_days = 30, size_t max_queued = 64u << 20) {
        std::string error;
        s = ingest::open({.directory = state,
                          .keep_days = keep_days,
                          .max_queued = max_queued,
                          .counted = &counted,
                          .hidden = &hidden},
                         &told, error);
        EXPECT_EQ(s == nullptr, !error.empty());
        return error;
    }

    store_result submit(const std::string& plain, const std::string& agent = "web1",
                        int64_t received = noon) {
        std::promise<store_result> result;
        s->submit({"a@b.c", agent, plain, received}, [&](store_result r) { result.set_value(r); });
        return result.get_future().get();
    }

    /* The rows of a query, the columns of each joined by '|'. Beside a running store. */
    strings query(const std::string& sql) {
        sqlite3* handle = nullptr;
        EXPECT_EQ(
            sqlite3_open_v2(database_path(state).c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr),
            SQLITE_OK);
        database db(handle);
        statement q(handle, sql);
        EXPECT_TRUE(q.ok()) << sqlite3_errmsg(handle);
        strings rows;
        while (q.row()) {
            std::string row;
            for (int column = 0; column < 20; column++) {
                std::string_view text = q.bytes(column);
                if (column > 0 && text.data() == nullptr && q.is_null(column)) {
                    row += "|";
                    continue;
                }
                row += (column > 0 ? "|" : "") + std::string(text);
            }
            while (row.ends_with('|')) {
                row.pop_back();
            }
            rows.push_back(row);
        }
        return rows;
    }

    /* What a start of the collector reads; what cannot be read is told. */
    template <typename Read>
    void read_stored(Read all) {
        std::string error;
        std::unique_ptr<result_reader> stored = open_reader(state, error);
        if (!stored || !all(*stored, error)) {
            told.on_problem("what is stored cannot be read: " + error);
        }
    }

    std::vector<stored_record> records() {
        std::vector<stored_record> all;
        read_stored([&](result_reader& stored, std::string& error) {
            all = stored_records(stored, error);
            return error.empty();
        });
        return all;
    }
    /* The check time of every record, by agent and in the order of arrival. */
    strings times() {
        strings all;
        for (const stored_record& r : records()) {
            all.push_back(std::to_string(r.summary().time.value_or(-1)));
        }
        return all;
    }

    /* ACCOUNT/AGENT TEST TIME ARRIVAL for the last result of each test, TIME being that of the
     * check. */
    strings latest() {
        strings found;
        auto number = [](std::optional<int32_t> test) {
            return test ? std::to_string(*test) : "-";
        };
        read_stored([&](result_reader& stored, std::string& error) {
            for (const stored_agent_row& a : stored_agents(stored, error)) {
                const std::string name = a.account + "/" + a.name + " ";
                for (const test_status& t : a.state.tests) {
                    found.push_back(name + number(t.number) + " " + std::to_string(t.claimed) +
                                    " " + std::to_string(t.received - noon));
                }
                for (const inventory_status& i : a.state.inventories) {
                    found.push_back(name + "- " + std::to_string(i.time) + " " +
                                    std::to_string(i.received - noon));
                }
            }
            return error.empty();
        });
        std::sort(found.begin(), found.end());
        return found;
    }

    strings agents() {
        strings found;
        auto note = [&](const known_agent& a) {
            found.push_back(std::string(a.account) + " " + std::string(a.agent) + " " +
                            std::string(a.address) + " " + std::string(a.version) + " " +
                            std::to_string(a.first_seen - noon) + " " +
                            std::to_string(a.last_seen - noon));
        };
        read_stored([&](result_reader& stored, std::string& error) {
            return stored.for_each_agent(note, error);
        });
        return found;
    }
};

static mode_t mode_of(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(ingest_test, records_are_stored_as_they_came) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 111) + load_record(0xffffffff, 112, 2)), store_result::stored);
    EXPECT_EQ(submit(load_record(5, 111), "web2", noon + 86400), store_result::stored);
    strings found;
    for (const stored_record& r : records()) {
        record_summary what = r.summary();
        found.push_back(r.agent + " " + std::to_string(r.received - noon) + " " +
                        std::to_string(what.type) + " " + std::to_string(*what.test) + " " +
                        std::to_string(*what.location) + " " + std::to_string(*what.time) + " " +
                        std::to_string(*what.status));
    }
    EXPECT_EQ(found,
              (strings{"web1 0 66 5 7 111 0", "web1 0 66 -1 7 112 2", "web2 86400 66 5 7 111 0"}));
    EXPECT_EQ(records().at(2).raw, load_record(5, 111));
    EXPECT_EQ(query("SELECT agent, received, before FROM blocks"),
              (strings{"1|1777636800|0", "2|1777723200|0"})); /* a row for each poll */
    EXPECT_EQ(query("SELECT account, name, first_seen, last_seen FROM agents"),
              (strings{"a@b.c|web1|1777636800|1777636800", "a@b.c|web2|1777723200|1777723200"}));
    EXPECT_EQ(told.records, (strings{"web1 5", "web1 4294967295", "web2 5"}));
    EXPECT_EQ(told.problems, strings());
}

TEST_F(ingest_test, unknown_types_are_stored_without_their_meaning) {
    ASSERT_EQ(open(), "");
    std::string strange = record_builder{.ui32 = {99, 5}}.bytes();
    EXPECT_EQ(submit(strange), store_result::stored);
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(records()[0].raw, strange);
    EXPECT_EQ(query("SELECT type, number IS NULL FROM tests"), strings{"99|1"});
    EXPECT_EQ(query("SELECT count(*) FROM events"), strings{"0"});
}

TEST_F(ingest_test, an_empty_block_is_stored_at_once) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(""), store_result::stored);
    EXPECT_EQ(query("SELECT * FROM agents"), strings());
}

TEST_F(ingest_test, the_last_block_once_more_is_stored_once) {
    ASSERT_EQ(open(), "");
    std::string a = load_record(5, 111), b = load_record(5, 222);
    EXPECT_EQ(submit(a), store_result::stored);
    EXPECT_EQ(submit(a), store_result::duplicate);
    EXPECT_EQ(submit(a, "web2"), store_result::stored); /* another agent's */
    s.reset();
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(a, "web1", noon + 86400), store_result::duplicate); /* also on the next day */
    EXPECT_EQ(submit(b), store_result::stored);
    EXPECT_EQ(submit(b), store_result::duplicate);
    EXPECT_EQ(times(), (strings{"111", "222", "111"}));
    EXPECT_EQ(told.records.size(), 3u);
}

TEST_F(ingest_test, agents_of_different_accounts_are_different) {
    ASSERT_EQ(open(), "");
    std::promise<store_result> done;
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    s->submit({"other@b.c", "web1", load_record(5, 1), noon},
              [&](store_result r) { done.set_value(r); });
    EXPECT_EQ(done.get_future().get(), store_result::stored);
    EXPECT_EQ(query("SELECT count(*) FROM agents"), strings{"2"});
}

TEST_F(ingest_test, what_does_not_decode_is_kept_aside_and_the_rest_is_stored) {
    ASSERT_EQ(open(), "");
    std::string good = load_record(5, 111), bad = with_word(good, 12, 99);
    std::string block = good + bad + good + "text that is no record at all, whatever it may be";
    EXPECT_EQ(submit(block), store_result::stored);
    EXPECT_EQ(told.records.size(), 2u);
    std::string reason = "it is too small for the values it declares; and 1 more";
    EXPECT_EQ(told.undecodable,
              (strings{"web1 " + std::to_string(good.size()) + " " +
                       std::to_string(block.size() - 2 * good.size()) + " " + reason}));
    ASSERT_EQ(told.kept.size(), 1u);
    EXPECT_EQ(read_text(told.kept[0]), bad + block.substr(3 * good.size()));
    EXPECT_EQ(mode_of(told.kept[0]), 0600u);
    EXPECT_EQ(query("SELECT agent, offset, bytes, reason, kept_as FROM undecodable"),
              (strings{"1|" + std::to_string(good.size()) + "|" +
                       std::to_string(block.size() - 2 * good.size()) + "|" + reason + "|" +
                       fs::path(told.kept[0]).filename().string()}));
    EXPECT_EQ(submit(block), store_result::duplicate);
    EXPECT_EQ(query("SELECT count(*) FROM undecodable"), strings{"1"});
}

/* Before the hash it is as the agent sends it: a repetition is known whatever is hidden by then. */
TEST_F(ingest_test, what_is_to_be_hidden_is_neither_stored_nor_shown) {
    auto page = [](uint32_t test, const std::string& message) {
        return record_builder{
            .ui32 = {type_http, test, 1, 2, 10, 302, 5}, .i64 = {1000}, .strings = {message}}
            .bytes();
    };
    ASSERT_EQ(open(), "");
    hidden.hide({{{type_http, 7}, {"s3cret"}}});
    const std::string block = page(7, "loop at /?s3cret") + page(8, "s3cret") +
                              with_word(page(7, "/?s3cret"), 12, 99) + "what is s3cret no record";
    EXPECT_EQ(submit(block), store_result::stored);
    ASSERT_EQ(records().size(), 2u);
    EXPECT_EQ(records()[0].raw, page(7, "loop at /?******"));
    EXPECT_EQ(records()[1].raw, page(8, "s3cret")) << "another test knows nothing of it";
    ASSERT_EQ(told.kept.size(), 1u);
    std::ifstream file(told.kept[0]);
    std::string aside((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_NE(aside.find("what is ****** no record"), std::string::npos);
    EXPECT_EQ(aside.find("s3cret"), std::string::npos);
    EXPECT_EQ(query("SELECT message FROM events WHERE test = 1"), strings{"loop at /?******"});
    EXPECT_EQ(submit(block), store_result::duplicate);
    hidden.hide({{{type_http, 7}, {"an0ther"}}});
    EXPECT_EQ(submit(block), store_result::duplicate);
    hidden.hide({});
    EXPECT_EQ(submit(block), store_result::duplicate);
    EXPECT_EQ(records().size(), 2u);
}

TEST_F(ingest_test, what_cannot_be_kept_aside_is_not_stored_and_does_not_hold_up_others) {
    ASSERT_EQ(open(), "");
    write_text(state + "/undecodable", "in the way");
    std::string block = load_record(5, 111) + "text";
    EXPECT_EQ(submit(block), store_result::failed);
    EXPECT_EQ(submit(block), store_result::failed);
    EXPECT_EQ(submit(load_record(6, 111), "web2"), store_result::stored);
    ASSERT_EQ(told.problems.size(), 1u); /* not for every poll */
    EXPECT_NE(told.problems[0].find("Not a directory"), std::string::npos) << told.problems[0];
    EXPECT_EQ(times().size(), 1u);
    EXPECT_EQ(told.undecodable, strings());
    fs::remove(state + "/undecodable");
    EXPECT_EQ(submit(block), store_result::stored);
    EXPECT_EQ(told.problems.size(), 2u);
    EXPECT_EQ(times().size(), 2u);
}

TEST_F(ingest_test, files_are_for_their_owner_alone) {
    mode_t before = umask(0);
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1) + "text"), store_result::stored);
    umask(before);
    EXPECT_EQ(mode_of(state), 0700u);
    size_t files = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(state)) {
        EXPECT_EQ(mode_of(entry.path()), entry.is_directory() ? 0700u : 0600u) << entry.path();
        files++;
    }
    EXPECT_GE(files, 6u); /* lock, database, its two companions, directory, kept file */
}

TEST_F(ingest_test, an_existing_directory_keeps_its_mode) {
    ASSERT_EQ(mkdir(state.c_str(), 0755), 0);
    ASSERT_EQ(chmod(state.c_str(), 0755), 0);
    ASSERT_EQ(open(), "");
    EXPECT_EQ(mode_of(state), 0755u);
}

TEST_F(ingest_test, a_second_collector_is_refused) {
    ASSERT_EQ(open(), "");
    std::string error;
    EXPECT_EQ(ingest::open({.directory = state}, nullptr, error), nullptr);
    EXPECT_EQ(error, "another collector uses the state directory " + state);
    s.reset();
    EXPECT_NE(ingest::open({.directory = state}, nullptr, error), nullptr);
}

TEST_F(ingest_test, what_is_not_ours_is_refused_and_left_alone) {
    ASSERT_EQ(mkdir(state.c_str(), 0700), 0);
    std::string path = database_path(state);
    write_text(path, "this is not a database, but it is long enough to be looked at as one. " +
                         std::string(200, 'x'));
    EXPECT_EQ(open(), path + ": file is not a database");
    std::string before = read_text(path);
    EXPECT_EQ(before.substr(0, 7), "this is");

    fs::remove(path);
    {
        sqlite3* handle = nullptr;
        sqlite3_open(path.c_str(), &handle);
        database db(handle);
        EXPECT_TRUE(database_exec(handle, "CREATE TABLE theirs (x)"));
    }
    before = read_text(path);
    EXPECT_EQ(open(), path + ": it is a database of another program");
    EXPECT_EQ(read_text(path), before);

    fs::remove(path);
    ASSERT_EQ(open(), "");
    s.reset();
    EXPECT_EQ(query("PRAGMA user_version = 5"), strings());
    EXPECT_EQ(open(), path + ": its layout has version 5, this program knows version 4");
}

TEST_F(ingest_test, the_agents_are_known_with_address_and_version) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(agents(), strings());
    auto send = [&](int64_t n, const char* address, const char* version) {
        std::promise<store_result> done;
        s->submit({"a@b.c", "web1", load_record(5, n), noon + n, address, version},
                  [&](store_result r) { done.set_value(r); });
        EXPECT_EQ(done.get_future().get(), store_result::stored);
    };
    send(1, "192.0.2.1", "3.0");
    EXPECT_EQ(submit(load_record(5, 1), "web2"), store_result::stored);
    EXPECT_EQ(agents(), (strings{"a@b.c web1 192.0.2.1 3.0 1 1", "a@b.c web2   0 0"}));
    send(2, "192.0.2.2", "");
    s.reset();
    ASSERT_EQ(open(), "");
    EXPECT_EQ(agents(), (strings{"a@b.c web1 192.0.2.2 3.0 1 2", "a@b.c web2   0 0"}));
    EXPECT_EQ(told.problems, strings());
}

static std::string inventory(int64_t time) {
    return record_builder{.ui32 = {type_process_names}, .i64 = {time}, .strings = {"init\t"}}
        .bytes();
}

TEST_F(ingest_test, the_last_result_of_each_test_is_known_after_a_start) {
    ASSERT_EQ(open(0), "");
    EXPECT_EQ(latest(), strings());
    EXPECT_EQ(submit(load_record(5, 1) + load_record(6, 2) + load_record(5, 3) + inventory(4)),
              store_result::stored);
    EXPECT_EQ(submit(load_record(5, 5), "web2"), store_result::stored);
    EXPECT_EQ(submit(load_record(6, 6) + inventory(7), "web1", noon + 86400), store_result::stored);
    s.reset();
    ASSERT_EQ(open(0), "");
    strings all = {"a@b.c/web1 - 7 86400", "a@b.c/web1 5 3 0", "a@b.c/web1 6 6 86400",
                   "a@b.c/web2 5 5 0"};
    EXPECT_EQ(latest(), all);
    /* What is last is what arrived last, whatever the clock said. */
    EXPECT_EQ(submit(load_record(6, 1), "web1", 100), store_result::stored);
    all[2] = "a@b.c/web1 6 1 " + std::to_string(100 - noon);
    s.reset();
    ASSERT_EQ(open(0), "");
    EXPECT_EQ(latest(), all);
    EXPECT_EQ(told.problems, strings());
}

/* As the first version of this program made it. */
static const char first_layout[] =
    "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL;"
    "CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " UNIQUE (account, name));"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT NOT "
    "NULL, kept_as TEXT NOT NULL);"
    "CREATE TABLE results_20260430 (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, type INTEGER NOT NULL, test INTEGER,"
    " location INTEGER, time INTEGER, status INTEGER, record BLOB NOT NULL);"
    "CREATE TABLE results_20260501 (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, type INTEGER NOT NULL, test INTEGER,"
    " location INTEGER, time INTEGER, status INTEGER, record BLOB NOT NULL);"
    "PRAGMA application_id = 0x564e4443; PRAGMA user_version = 1";

TEST_F(ingest_test, a_database_of_the_first_version_is_taken_over) {
    ASSERT_EQ(mkdir(state.c_str(), 0700), 0);
    {
        sqlite3* handle = nullptr;
        sqlite3_open(database_path(state).c_str(), &handle);
        database db(handle);
        ASSERT_TRUE(database_exec(handle, first_layout)) << sqlite3_errmsg(handle);
        statement agent(handle, "INSERT INTO agents VALUES (?, 'a@b.c', ?, ?, ?, ?)");
        std::string hash(view_of(sha256(load_record(5, 3))));
        for (const char* name : {"web1", "web2"}) {
            agent.bind(int64_t{name[3] - '0'}).bind_text(name).bind(noon - 86400).bind(noon);
            ASSERT_TRUE(agent.bind_blob(hash).run());
        }
        auto result = [&](const char* day, int64_t received, int64_t owner, int64_t test,
                          int64_t time) {
            statement insert(handle, std::string("INSERT INTO results_") + day +
                                         " VALUES (NULL, ?, ?, 66, ?, 7, ?, 0, ?)");
            std::string bytes = load_record(static_cast<uint32_t>(test), time);
            insert.bind(received).bind(owner).bind(test).bind(time).bind_blob(bytes);
            ASSERT_TRUE(insert.run());
        };
        result("20260430", noon - 86400, 1, 5, 1);
        result("20260430", noon - 86400, 1, 6, 2);
        result("20260501", noon, 1, 5, 3);
        result("20260501", noon, 2, 5, 4);
        std::string names = inventory(8);
        ASSERT_TRUE(statement(handle, "INSERT INTO results_20260501 VALUES (NULL, 1777636800, 2, "
                                      "42, NULL, NULL, 8, NULL, ?)")
                        .bind_blob(names)
                        .run());
    }
    ASSERT_EQ(open(), "");
    EXPECT_EQ(query("PRAGMA user_version"), strings{"4"});
    EXPECT_EQ(submit(load_record(5, 3)), store_result::duplicate); /* it waits for that */
    strings all = {"a@b.c/web1 5 3 0", "a@b.c/web1 6 2 -86400", "a@b.c/web2 - 8 0",
                   "a@b.c/web2 5 4 0"};
    EXPECT_EQ(latest(), all);
    EXPECT_EQ(agents(), (strings{"a@b.c web1   -86400 0", "a@b.c web2   -86400 0"}));
    EXPECT_EQ(submit(load_record(5, 9)), store_result::stored);
    EXPECT_FALSE(fs::exists(state + "/results-earlier.db"));
    s.reset();
    ASSERT_EQ(open(), ""); /* once is enough */
    all[0] = "a@b.c/web1 5 9 0";
    EXPECT_EQ(latest(), all);
    strings found = times();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (strings{"1", "2", "3", "4", "9"}));
    EXPECT_EQ(query("SELECT agent, type, time, record FROM inventories"),
              strings{"2|42|8|" + inventory(8)});
    EXPECT_EQ(told.problems,
              (strings{"the results of an earlier version are taken over from " + state +
                           "/results-earlier.db (5); agents keep theirs until that is done",
                       "5 results of an earlier version were taken over"}));
}

TEST_F(ingest_test, a_directory_that_cannot_be_made_is_told) {
    write_text(state, "a file");
    EXPECT_EQ(open(), "state directory " + state + ": Not a directory");
    state = "/proc/no/such/place";
    EXPECT_NE(open(), "");
    state = "";
    EXPECT_EQ(open(), "no state directory is named");
}

/* Stands before SQLite's way to the files; counts what is synced, and fails when told to. */
namespace counted_files {
static int syncs = 0;
static bool fail_syncs = false;
static sqlite3_vfs vfs;
static int (*real_open)(sqlite3_vfs*, const char*, sqlite3_file*, int, int*);
static int (*real_sync)(sqlite3_file*, int);
static sqlite3_io_methods of_database, of_others;

static int sync(sqlite3_file* file, int flags) {
    syncs++;
    return fail_syncs ? SQLITE_IOERR_FSYNC : real_sync(file, flags);
}

static int open(sqlite3_vfs* self, const char* name, sqlite3_file* file, int flags,
                int* out_flags) {
    int result = real_open(self, name, file, flags, out_flags);
    if (file->pMethods != nullptr) {
        sqlite3_io_methods& methods = (flags & SQLITE_OPEN_MAIN_DB) != 0 ? of_database : of_others;
        methods = *file->pMethods;
        real_sync = methods.xSync;
        methods.xSync = sync;
        file->pMethods = &methods;
    }
    return result;
}

struct installed {
    sqlite3_vfs* real = sqlite3_vfs_find(nullptr);
    installed() {
        vfs = *real;
        vfs.zName = "counted";
        real_open = vfs.xOpen;
        vfs.xOpen = open;
        sqlite3_vfs_register(&vfs, 1);
        syncs = 0;
        fail_syncs = false;
    }
    ~installed() {
        sqlite3_vfs_unregister(&vfs);
        sqlite3_vfs_register(real, 1);
    }
};
} // namespace counted_files

TEST_F(ingest_test, an_answer_comes_after_the_sync) {
    counted_files::installed counted;
    ASSERT_EQ(open(), "");
    EXPECT_EQ(query("PRAGMA journal_mode"), strings{"wal"});
    for (int i = 1; i <= 3; i++) {
        int before = counted_files::syncs;
        EXPECT_EQ(submit(load_record(5, i)), store_result::stored);
        EXPECT_GT(counted_files::syncs, before);
    }
    s.reset();
}

TEST_F(ingest_test, what_was_not_synced_is_not_acknowledged_and_not_stored_twice) {
    counted_files::installed counted;
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    counted_files::fail_syncs = true;
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    counted_files::fail_syncs = false;
    ASSERT_GE(told.problems.size(), 1u);
    EXPECT_EQ(told.problems[0], "results cannot be stored, the agents keep them: disk I/O error");
    EXPECT_NE(submit(load_record(5, 2)), store_result::failed);
    EXPECT_EQ(times(), (strings{"1", "2"}));
    s.reset();
}

static const char* const day_tables =
    "SELECT substr(name, 8) FROM sqlite_schema WHERE name GLOB 'packed_*' ORDER BY name";

/* A store whose clocks are set by hand. */
struct expiry_test : ingest_test {
    int keep_days = 2;
    int64_t sent = 0;

    void SetUp() override {
        ingest_test::SetUp();
        pace.open_for = -1; /* packed at once: the day is there */
        pace.spread = 1;
        pace.between_looks = 0;
    }

    void open_again() {
        s.reset();
        ASSERT_EQ(open(keep_days), "");
    }
    /* A block that arrives by that clock. Days are dropped after the answer, but before the next
     * one. */
    void send_at(int64_t wall) {
        wall_now = wall;
        std::string block = load_record(5, ++sent) + "text";
        EXPECT_EQ(submit(block, "web1", wall), store_result::stored);
        EXPECT_EQ(submit(block, "web1", wall), store_result::duplicate);
    }
    void pass(int64_t seconds) {
        wall_now += seconds;
        steady_now += seconds;
    }
    /* A block each day, at this hour. */
    void days(int count) {
        for (int day = 0; day < count; day++) {
            send_at(wall_now.load());
            pass(86400);
        }
    }
    strings stored() {
        open_again();
        return query(day_tables);
    }
    size_t files() { return std::distance(fs::directory_iterator(state + "/undecodable"), {}); }
};

TEST_F(expiry_test, days_expire_whole) {
    open_again();
    days(5); /* the first of May and the four days after it */
    EXPECT_EQ(stored(), (strings{"20260503", "20260504", "20260505"}));
    EXPECT_EQ(query("SELECT count(*) FROM undecodable"), strings{"3"});
    EXPECT_EQ(query("SELECT count(*) FROM days"), strings{"3"});
    EXPECT_EQ(files(), 3u);
    EXPECT_EQ(told.problems, (strings{"the results of day 20260501 are dropped: --keep-days 2",
                                      "the results of day 20260502 are dropped: --keep-days 2"}));
    EXPECT_EQ(latest(), strings{"a@b.c/web1 5 5 345600"});
}

TEST_F(expiry_test, a_collector_that_was_off_keeps_what_it_has) {
    open_again();
    days(3);
    pass(40 * 86400);
    EXPECT_EQ(stored(), (strings{"20260501", "20260502", "20260503"}));
    days(1);
    EXPECT_EQ(stored(), (strings{"20260502", "20260503", "20260613"}));
}

TEST_F(expiry_test, a_clock_that_was_far_ahead_costs_one_day_and_no_more) {
    keep_days = 5;
    open_again();
    days(6);
    send_at(noon + 60 * 86400);
    for (int i = 0; i < 20; i++) {
        steady_now += 3600;
        send_at(noon + 60 * 86400 + i * 60);
    }
    strings ahead = {"20260502", "20260503", "20260504", "20260505", "20260506", "20260630"};
    EXPECT_EQ(stored(), ahead);
    /* Back again: the day ahead takes its turn as the day on which it really came. */
    wall_now = noon + 6 * 86400;
    days(4);
    EXPECT_EQ(stored(),
              (strings{"20260506", "20260507", "20260508", "20260509", "20260510", "20260630"}));
    days(2);
    EXPECT_EQ(stored(),
              (strings{"20260507", "20260508", "20260509", "20260510", "20260511", "20260512"}));
}

TEST_F(expiry_test, a_clock_that_was_ahead_for_long_does_not_drop_the_days_after_it) {
    open_again();
    wall_now = noon + 60 * 86400;
    days(10);
    wall_now = noon;
    days(1);
    EXPECT_EQ(stored(), (strings{"20260501", "20260708", "20260709"}));
    days(2);
    EXPECT_EQ(stored(), (strings{"20260501", "20260502", "20260503"}));
}

TEST_F(expiry_test, a_clock_that_starts_at_1970_drops_nothing_of_use) {
    open_again();
    days(2);
    for (int boot = 0; boot < 3; boot++) {
        int64_t real = wall_now.load();
        send_at(boot * 60);
        open_again();
        EXPECT_EQ(query("SELECT count(*) FROM packed_19700101"), strings{std::to_string(boot + 1)});
        wall_now = real;
        days(1);
    }
    EXPECT_EQ(stored(), (strings{"19700101", "20260504", "20260505"}));
    days(2); /* without a start */
    EXPECT_EQ(stored(), (strings{"20260505", "20260506", "20260507"}));
}

TEST_F(expiry_test, a_day_an_hour_goes_at_most) {
    open_again();
    for (int day = 0; day < 8; day++) { /* a wild clock */
        send_at(noon + day * 86400);
    }
    EXPECT_EQ(stored().size(), 7u);
    EXPECT_EQ(stored().size(), 7u); /* starts make it no faster */
    for (size_t left = 6; left >= 3; left--) {
        pass(3590);
        EXPECT_EQ(stored().size(), left + 1);
        pass(11);
        EXPECT_EQ(stored().size(), left);
    }
    pass(86400);
    EXPECT_EQ(stored(), (strings{"20260506", "20260507", "20260508"}));
    EXPECT_EQ(told.problems.size(), 5u);
}

TEST_F(expiry_test, after_a_start_of_the_machine_an_hour_passes_first) {
    open_again();
    for (int day = 0; day < 6; day++) {
        send_at(noon + day * 86400);
    }
    EXPECT_EQ(stored().size(), 5u);
    boot_now++;
    for (int64_t up : {0, 3599, 100000}) { /* when the store is opened */
        steady_now = up;
        EXPECT_EQ(stored().size(), 5u);
    }
    steady_now += 3601;
    send_at(wall_now + 60); /* without a start */
    s.reset();
    EXPECT_EQ(query(day_tables).size(), 4u);
}

TEST_F(expiry_test, fewer_days_to_keep_is_asked_for) {
    keep_days = 10;
    open_again();
    days(11);
    keep_days = 3;
    EXPECT_EQ(stored().size(), 4u);
    EXPECT_EQ(told.problems.size(), 7u);
    EXPECT_EQ(told.problems[6], "the results of day 20260507 are dropped: --keep-days 3");
    keep_days = 0;
    EXPECT_EQ(stored().size(), 4u);
    days(3);
    keep_days = 2;
    EXPECT_EQ(stored().size(), 3u);
    keep_days = 20;
    EXPECT_EQ(stored().size(), 3u);
}

TEST_F(expiry_test, a_database_of_the_first_version_loses_a_day_an_hour_too) {
    ASSERT_EQ(mkdir(state.c_str(), 0700), 0);
    {
        sqlite3* handle = nullptr;
        sqlite3_open(database_path(state).c_str(), &handle);
        database db(handle);
        ASSERT_TRUE(database_exec(handle, first_layout)) << sqlite3_errmsg(handle);
        ASSERT_TRUE(database_exec(handle, "INSERT INTO agents VALUES (1, 'a@b.c', 'web1', 0, 0, "
                                          "x'')"));
        for (int day = 0; day <= 5; day++) {
            std::string table = "results_" + utc_day(noon + (day - 1) * 86400);
            database_exec(handle, "CREATE TABLE " + table +
                                      " (id INTEGER PRIMARY KEY, received, agent, type, test, "
                                      "location, time, status, record)");
            std::string bytes = load_record(5, noon + (day - 1) * 86400);
            ASSERT_TRUE(
                statement(handle, "INSERT INTO " + table +
                                      " (received, agent, type, record) VALUES (?, 1, 66, ?)")
                    .bind(noon + (day - 1) * 86400)
                    .bind_blob(bytes)
                    .run());
        }
    }
    wall_now = noon + 4 * 86400;
    open_again();
    send_at(wall_now); /* it waits for that */
    EXPECT_EQ(stored().size(), 5u);
    pass(3601);
    EXPECT_EQ(stored(), (strings{"20260502", "20260503", "20260504", "20260505"}));
    keep_days = 1; /* which is asked for */
    EXPECT_EQ(stored(), (strings{"20260504", "20260505"}));
}

TEST_F(ingest_test, keeping_zero_days_keeps_all) {
    ASSERT_EQ(open(0), "");
    EXPECT_EQ(submit(load_record(5, 1), "web1", 0), store_result::stored);
    s.reset();
    ASSERT_EQ(open(0), "");
    EXPECT_EQ(times().size(), 1u);
}

/* Holds the database's write lock until it goes. */
struct writer_lock {
    database db;
    explicit writer_lock(const std::string& state) {
        sqlite3* handle = nullptr;
        sqlite3_open(database_path(state).c_str(), &handle);
        db.reset(handle);
        EXPECT_TRUE(database_exec(handle, "BEGIN IMMEDIATE"));
    }
};

TEST_F(ingest_test, a_locked_database_fails_and_recovers) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    s.reset();
    lock_wait_ms = 20;
    ASSERT_EQ(open(), "");
    lock_wait_ms = 2000; /* for the next opening, after the failure */
    {
        writer_lock other(state);
        EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
        EXPECT_EQ(told.problems,
                  (strings{"results cannot be stored, the agents keep them: database is "
                           "locked"}));
    }
    EXPECT_EQ(submit(load_record(5, 2)), store_result::stored);
    EXPECT_EQ(told.problems.size(), 2u);
    EXPECT_EQ(told.problems[1], "results are stored again");
    EXPECT_EQ(times(), (strings{"1", "2"}));
}

TEST_F(ingest_test, the_queue_is_bounded) {
    ASSERT_EQ(open(30, 1000), "");
    std::promise<store_result> first;
    {
        writer_lock other(state); /* the writer waits for this one */
        std::string large;
        while (large.size() < 1500) {
            large += load_record(5, 1);
        }
        /* Larger than the limit, but nothing waits before it. */
        s->submit({"a@b.c", "large", large, noon}, [&](store_result r) { first.set_value(r); });
        EXPECT_EQ(submit(load_record(5, 1)), store_result::failed);
        EXPECT_EQ(submit(""), store_result::stored);
    }
    EXPECT_EQ(first.get_future().get(), store_result::stored);
    while (submit(load_record(5, 1)) == store_result::failed) {
        std::this_thread::yield(); /* room is made just after the answer */
    }
}

TEST_F(ingest_test, closing_finishes_what_waits) {
    ASSERT_EQ(open(), "");
    std::atomic<int> stored = 0;
    for (int i = 0; i < 200; i++) {
        s->submit({"a@b.c", "agent" + std::to_string(i), load_record(5, i), noon},
                  [&](store_result r) { stored += r == store_result::stored; });
    }
    s.reset();
    EXPECT_EQ(stored, 200);
    EXPECT_EQ(times().size(), 200u);
}

TEST_F(ingest_test, the_same_block_twice_in_one_batch_is_stored_once) {
    ASSERT_EQ(open(), "");
    std::vector<store_result> results;
    {
        writer_lock other(state);
        s->submit({"a@b.c", "first", load_record(1, 1), noon}, [](store_result) {});
        for (int i = 0; i < 2; i++) {
            s->submit({"a@b.c", "web1", load_record(5, 1), noon},
                      [&](store_result r) { results.push_back(r); });
        }
    }
    s.reset();
    EXPECT_EQ(results, (std::vector<store_result>{store_result::stored, store_result::duplicate}));
    EXPECT_EQ(times().size(), 2u);
}

/* A file size limit stands for the full disk. */
TEST_F(ingest_test, a_full_disk_fails_and_recovers) {
    slice.decoding = std::chrono::hours(1); /* in one go, however slow the machine is */
    ASSERT_EQ(open(), "");
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    std::string large;
    for (int i = 0; i < 5000; i++) {
        large += load_record(i, 2);
    }
    rlimit full = {.rlim_cur = 256 * 1024, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    EXPECT_EQ(submit(large), store_result::failed);
    EXPECT_EQ(submit(large), store_result::failed);
    EXPECT_EQ(submit(load_record(5, 1) + std::string(300 * 1024, 'x'), "text"),
              store_result::failed);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_GE(told.problems.size(), 1u);
    EXPECT_EQ(times().size(), 1u);
    EXPECT_EQ(submit(large), store_result::stored);
    EXPECT_EQ(told.problems.back(), "results are stored again");
    EXPECT_EQ(times().size(), 5001u);
    EXPECT_FALSE(fs::exists(state + "/undecodable") &&
                 std::distance(fs::directory_iterator(state + "/undecodable"), {}) > 0);
}

TEST_F(ingest_test, a_thread_that_cannot_be_had_is_said) {
    pid_t child = fork();
    if (child == 0) {
        bool refused = refuse_syscall(SYS_clone3, EAGAIN) && refuse_syscall(SYS_clone, EAGAIN);
        std::string error;
        auto none = ingest::open({.directory = state}, &told, error);
        _exit(!refused                                                             ? 3
              : none                                                               ? 1
              : error == "cannot start a thread: Resource temporarily unavailable" ? 0
                                                                                   : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

/* Whoever asks is told whether results are stored, also when no block comes any more. */
TEST_F(ingest_test, what_it_knows_of_storing) {
    EXPECT_EQ(counted.pulse.state(), storing_state::starts);
    ASSERT_EQ(open(), "");
    auto trouble = [&] { return counted.pulse.trouble(store_pulse::clock::now()); };
    EXPECT_EQ(trouble(), "");
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit full = {.rlim_cur = 100, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    EXPECT_EQ(submit(load_record(5, 1)), store_result::failed);
    std::string during = trouble();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_TRUE(during.starts_with("Results cannot be stored")) << during;
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    EXPECT_EQ(trouble(), "");
}

TEST_F(ingest_test, storing_is_tried_when_no_block_comes) {
    const auto usual = std::exchange(before_trial, std::chrono::milliseconds(0));
    ASSERT_EQ(open(), "");
    counted.pulse.set_failed("the disk is full");
    EXPECT_TRUE(eventually([&] { return counted.pulse.state() == storing_state::works; }));
    s.reset();
    before_trial = usual;
}

TEST_F(ingest_test, a_database_that_somebody_removed_is_made_again) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    for (const char* end : {"", "-wal", "-shm"}) {
        fs::remove(database_path(state) + end);
    }
    EXPECT_EQ(submit(load_record(5, 2)), store_result::stored);
    EXPECT_EQ(times(), strings{"2"});
}

/* A file whose pages are spoilt while it is in use or between two runs. */
struct damage_test : ingest_test {
    static const size_t page_size = 8192;

    /* Enough for trees of several levels, in the file itself. */
    void fill() {
        ASSERT_EQ(open(), "");
        for (int agent = 0; agent < 300; agent++) {
            std::string block;
            for (int i = 0; i < 20; i++) {
                block += load_record(i, agent);
            }
            EXPECT_EQ(submit(block, "agent" + std::to_string(agent)), store_result::stored);
        }
        s.reset();
    }

    size_t root_of(const std::string& name) {
        return std::stoul(
            query("SELECT rootpage FROM sqlite_schema WHERE name = '" + name + "'").at(0));
    }
    /* The last page of a tree: the one that is appended to. */
    size_t last_page(const std::string& tree) {
        std::string file = read_text(database_path(state));
        size_t page = root_of(tree);
        auto byte = [&](size_t at) {
            return static_cast<unsigned char>(file.at((page - 1) * page_size + at));
        };
        while (byte(0) == 5 || byte(0) == 2) { /* an inner one: its last child */
            page = size_t{byte(8)} << 24 | size_t{byte(9)} << 16 | size_t{byte(10)} << 8 | byte(11);
        }
        return page;
    }
    /* Every bit of some bytes the other way round. */
    void flip(size_t page, size_t at, size_t bytes) {
        std::fstream file(database_path(state), std::ios::in | std::ios::out | std::ios::binary);
        std::string text(bytes, '\0');
        auto place = static_cast<std::streamoff>((page - 1) * page_size + at);
        file.seekg(place).read(text.data(), static_cast<std::streamsize>(bytes));
        for (char& byte : text) {
            byte = static_cast<char>(~byte);
        }
        file.seekp(place).write(text.data(), static_cast<std::streamsize>(bytes));
        ASSERT_TRUE(file.flush());
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
};

TEST_F(damage_test, a_damaged_tree_is_set_aside_and_a_new_file_begun) {
    fill();
    strings trees = {"blocks", "agents", "sqlite_autoindex_agents_1"};
    for (bool root : {true, false}) {
        for (const std::string& tree : trees) {
            SCOPED_TRACE(tree + (root ? " root" : " leaf"));
            std::string whole = state + "-whole";
            fs::remove_all(whole);
            fs::copy(state, whole);
            flip(root ? root_of(tree) : last_page(tree), 0, 12);
            std::string damaged = read_text(database_path(state));
            told.problems.clear();
            ASSERT_EQ(open(), "");
            EXPECT_EQ(submit(load_record(5, 7777), "agent299"), store_result::stored);
            EXPECT_EQ(submit(load_record(5, 7778), "another"), store_result::stored);
            s.reset();
            strings names = aside();
            ASSERT_FALSE(names.empty());
            EXPECT_EQ(names[0], "results-damaged-20260501T120000Z.db");
            EXPECT_TRUE(read_text(state + "/" + names[0]) == damaged);
            ASSERT_EQ(told.problems.size(), 1u);
            EXPECT_EQ(told.problems[0].substr(0, told.problems[0].find("begun;") + 6),
                      database_path(state) +
                          " is damaged (database disk image is malformed): it is kept as " + state +
                          "/" + names[0] + ", and a new one is begun;");
            EXPECT_EQ(times(), (strings{"7777", "7778"}));
            EXPECT_EQ(query("PRAGMA integrity_check"), strings{"ok"});
            fs::remove_all(state);
            fs::rename(whole, state);
        }
    }
}

TEST_F(damage_test, the_agents_are_carried_over_and_their_last_blocks_known) {
    fill();
    flip(last_page("blocks"), 0, 12);
    ASSERT_EQ(open(), "");
    strings before = query("SELECT * FROM agents");
    EXPECT_EQ(submit(load_record(5, 1), "agent7"), store_result::stored);
    EXPECT_EQ(query("SELECT count(*) FROM agents"), strings{"300"});
    EXPECT_EQ(query("SELECT id, name, first_seen FROM agents WHERE name = 'agent7'"),
              (strings{"8|agent7|1777636800"}));
    std::string last;
    for (int i = 0; i < 20; i++) {
        last += load_record(i, 8);
    }
    EXPECT_EQ(submit(last, "agent8"), store_result::duplicate);
    EXPECT_EQ(latest(), strings{"a@b.c/agent7 5 1 0"}); /* of what is there */
    EXPECT_TRUE(told.problems[0].ends_with("; 300 agents could be read from it"))
        << told.problems[0];
}

TEST_F(damage_test, damage_while_it_runs_is_got_over_too) {
    fill();
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1), "agent1"), store_result::stored);
    query("PRAGMA wal_checkpoint(TRUNCATE)");
    flip(last_page("blocks"), 0, 12);
    query(
        "DELETE FROM facts"); /* somebody else writes: what the store remembers of the file goes */
    EXPECT_EQ(submit(load_record(5, 2), "agent1"), store_result::stored);
    EXPECT_EQ(submit(load_record(5, 3), "agent1"), store_result::stored);
    EXPECT_EQ(times(), (strings{"2", "3"}));
    EXPECT_EQ(aside().at(0), "results-damaged-20260501T120000Z.db");
    EXPECT_EQ(told.problems.size(), 1u);
}

/* What was in the log when the damage was met is not lost with it. */
TEST_F(damage_test, the_log_goes_with_the_file) {
    fill();
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 4711), "agent1"), store_result::stored);
    flip(root_of("agents"), 0, 12);
    query("DELETE FROM facts");
    EXPECT_EQ(submit(load_record(5, 2), "agent1"), store_result::stored);
    strings names = aside();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[2], "results-damaged-20260501T120000Z.db-wal");
    s.reset();
    fs::create_directory(state + "/old");
    for (const std::string& name : names) {
        fs::rename(state + "/" + name,
                   state + "/old/results.db" + name.substr(name.find(".db") + 3));
    }
    state += "/old";
    EXPECT_EQ(query("SELECT records FROM blocks ORDER BY id DESC LIMIT 1"),
              strings{load_record(5, 4711)});
}

/* Whatever bytes are spoilt, and however the file then behaves: either it is refused at the start,
 * or blocks are stored. */
TEST_F(damage_test, no_damage_refuses_blocks_for_good) {
    fill();
    std::string whole = read_text(database_path(state));
    std::mt19937 random(11);
    int set_aside = 0;
    for (int round = 0; round < 150; round++) {
        fs::remove_all(state);
        fs::create_directory(state);
        std::string damaged = whole;
        for (int spot = 0; spot < 40; spot++) {
            size_t page = 1 + random() % (whole.size() / page_size - 1);
            size_t at = page * page_size + (spot % 2 == 0 ? random() % 64 : random() % page_size);
            for (size_t i = 0; i < 8 && at + i < damaged.size(); i++) {
                damaged[at + i] = static_cast<char>(random());
            }
        }
        write_text(database_path(state), damaged);
        std::string error;
        s = ingest::open({.directory = state}, &told, error);
        if (!s) {
            continue;
        }
        agents();
        if (round % 5 == 0) { /* all tests one by one, which takes a while */
            read_stored([](result_reader& stored, std::string& why) {
                stored_records(stored, why);
                return true;
            });
        }
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(submit(load_record(5, 10000 + i), "agent" + std::to_string(50 * i)),
                      store_result::stored)
                << "round " << round << (told.problems.empty() ? "" : told.problems.back());
        }
        s.reset();
        set_aside += !aside().empty();
    }
    EXPECT_GT(set_aside, 30);
}

TEST_F(damage_test, files_set_aside_do_not_fill_the_disk) {
    for (size_t i = 1; i <= max_set_aside + 1; i++) {
        ASSERT_EQ(open(), "");
        EXPECT_EQ(submit(load_record(5, static_cast<int>(i))), store_result::stored);
        s.reset();
        flip(root_of("agents"), 0, 12);
        told.problems.clear();
        ASSERT_EQ(open(), "");
        bool room = i <= max_set_aside;
        EXPECT_EQ(submit(load_record(6, static_cast<int>(i))),
                  room ? store_result::stored : store_result::failed);
        ASSERT_EQ(told.problems.size(), 1u);
        s.reset();
    }
    strings names = aside();
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".db"); });
    EXPECT_EQ(names.size(), max_set_aside);
    EXPECT_EQ(names[0], "results-damaged-20260501T120000Z-2.db");
    EXPECT_EQ(told.problems[0],
              "results cannot be stored, the agents keep them: database disk image is malformed; 5 "
              "damaged files were set aside in " +
                  state + " already, there may be a fault of the disk: move them away");
    fs::remove(state + "/" + names[0]);
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(6, 100)), store_result::stored);
}

TEST_F(damage_test, what_is_no_damage_sets_nothing_aside) {
    counted_files::installed counted;
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    counted_files::fail_syncs = true;
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    counted_files::fail_syncs = false;
    EXPECT_EQ(submit(load_record(5, 3)), store_result::stored);
    s.reset();
    EXPECT_EQ(aside(), strings());
    for (int result : {SQLITE_FULL, SQLITE_IOERR, SQLITE_IOERR_CORRUPTFS, SQLITE_IOERR_SHORT_READ,
                       SQLITE_READONLY, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_NOMEM, SQLITE_ERROR,
                       SQLITE_OK, SQLITE_PERM, SQLITE_SCHEMA, SQLITE_PROTOCOL}) {
        EXPECT_FALSE(database_is_damaged(result)) << result;
    }
    for (int result : {SQLITE_CORRUPT, SQLITE_CORRUPT_INDEX, SQLITE_NOTADB}) {
        EXPECT_TRUE(database_is_damaged(result)) << result;
    }
}

/* A day that is damaged stays; those after it go. */
TEST_F(damage_test, a_damaged_day_does_not_keep_others_from_expiring) {
    pace.open_for = -1;
    pace.spread = 1;
    pace.between_looks = 0;
    ASSERT_EQ(open(0), "");
    for (int day = 0; day < 6; day++) {
        std::string block;
        for (int i = 0; i < 300; i++) {
            block += load_record(i, day);
        }
        EXPECT_EQ(submit(block, "web1", noon + day * 86400), store_result::stored);
    }
    s.reset();
    flip(root_of("packed_20260501"), 0, 12);
    for (int start = 0; start < 4; start++) {
        ASSERT_EQ(open(2), "");
        s.reset();
        steady_now += 4000;
    }
    EXPECT_EQ(query(day_tables), (strings{"20260501", "20260504", "20260505", "20260506"}));
    EXPECT_EQ(aside(), strings());
}

TEST_F(ingest_test, a_file_that_is_removed_or_replaced_is_told) {
    ASSERT_EQ(open(), "");
    std::string path = database_path(state);
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    fs::remove(path);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::stored);
    strings expected = {path + " was removed while it was in use: what it held is gone, a new one "
                               "is begun as soon as there is a place for it"};
    EXPECT_EQ(told.problems, expected);
    EXPECT_EQ(agents(), strings{"a@b.c web1   0 0"});
    /* Stored again rather than lost with the file. */
    EXPECT_EQ(submit(load_record(5, 2), "web2"), store_result::stored);
    fs::remove(path);
    EXPECT_EQ(submit(load_record(5, 2), "web2"), store_result::stored);
    EXPECT_EQ(times(), strings{"2"});
    EXPECT_EQ(told.problems.size(), 2u);

    scratch_directory elsewhere;
    {
        std::string error;
        auto other = ingest::open({.directory = elsewhere / "other"}, nullptr, error);
        std::promise<store_result> done;
        other->submit({"a@b.c", "web9", load_record(9, 9), noon},
                      [&](store_result r) { done.set_value(r); });
        EXPECT_EQ(done.get_future().get(), store_result::stored);
    }
    fs::copy(database_path(elsewhere / "other"), path + ".new");
    fs::rename(path, elsewhere / "moved.db");
    fs::rename(path + ".new", path);
    EXPECT_EQ(submit(load_record(5, 3)), store_result::stored);
    EXPECT_EQ(times(), (strings{"3", "9"})); /* of web1 and web9 */
    EXPECT_EQ(query("PRAGMA integrity_check"), strings{"ok"});
    EXPECT_EQ(told.problems.back(),
              path + " was replaced while it was in use: the new one is used");
    state = elsewhere.path();
    fs::rename(elsewhere / "moved.db", database_path(state));
    EXPECT_EQ(times(), (strings{"2"})); /* it is whole */
}

TEST_F(ingest_test, a_directory_that_is_removed_is_told_and_used_again_when_it_is_back) {
    ASSERT_EQ(open(), "");
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    fs::remove_all(state);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    ASSERT_EQ(told.problems.size(), 2u);
    EXPECT_NE(told.problems[0].find("was removed while it was in use"), std::string::npos);
    EXPECT_EQ(told.problems[1], "results cannot be stored, the agents keep them: " + state +
                                    "/lock: No such file or directory");
    fs::create_directory(state);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::stored);
    EXPECT_EQ(times(), strings{"2"});
    std::string error;
    EXPECT_EQ(ingest::open({.directory = state}, nullptr, error), nullptr);
    EXPECT_EQ(error, "another collector uses the state directory " + state);
    EXPECT_EQ(agents(), strings{"a@b.c web1   0 0"});
}

TEST_F(ingest_test, a_foreign_database_put_in_its_place_is_told_and_left_alone) {
    ASSERT_EQ(open(), "");
    std::string path = database_path(state);
    EXPECT_EQ(submit(load_record(5, 1)), store_result::stored);
    fs::rename(path, path + ".ours");
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((path + ".new").c_str(), &other), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(other, "CREATE TABLE theirs (a)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(other);
    fs::rename(path + ".new", path);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::failed);
    EXPECT_EQ(told.problems.back(), "results cannot be stored, the agents keep them: " + path +
                                        ": it is a database of another program");
    EXPECT_EQ(query("SELECT name FROM sqlite_schema"), strings{"theirs"});
    fs::rename(path + ".ours", path);
    EXPECT_EQ(submit(load_record(5, 2)), store_result::stored);
    EXPECT_EQ(told.problems.back(), "results are stored again");
    EXPECT_EQ(times(), (strings{"1", "2"}));
}

TEST_F(ingest_test, many_threads_may_submit) {
    ASSERT_EQ(open(), "");
    std::atomic<int> stored = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; i++) {
                s->submit({"a@b.c", "agent" + std::to_string(t), load_record(i, i), noon},
                          [&](store_result r) { stored += r == store_result::stored; });
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    s.reset();
    EXPECT_EQ(stored, 200);
    EXPECT_EQ(told.records.size(), 200u);
}

/* ---- what a block costs in memory that is asked for ---- */

/* A record of each test, of types that are known and one that is not. */
static std::string mixed_records(uint32_t count, int64_t time) {
    std::string block;
    for (uint32_t test = 1; test <= count; test++) {
        block += test % 3 != 0 ? load_record(test, time, test % 2 * 2)
                               : record_builder{.ui32 = {type_ping, test, 7, 0, 1},
                                                .i64 = {time},
                                                .d64 = {12.5},
                                                .strings = {"192.0.2.1 answered in 12.5 ms\n"}}
                                     .bytes();
    }
    return block + record_builder{.ui32 = {99}, .i64 = {time}}.bytes();
}

struct allocation_test : ingest_test {
    struct silent : store_listener {
        std::atomic<size_t> records = 0;
        void on_record(const poll_block& from, const decoded_record& result) override {
            records += from.received == noon && result.summary.type != 0;
        }
        void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                            const std::string&) override {}
    } silent;

    /* From a block's submission to its answer, on all threads. */
    size_t allocations_of(std::string plain) {
        poll_block block{"a@b.c", "web1", std::move(plain), noon, "192.0.2.1", "3.0"};
        std::atomic<bool> answered = false;
        store_result result = store_result::failed;
        size_t before = allocations;
        s->submit(std::move(block), [&](store_result r) {
            result = r;
            answered = true;
            answered.notify_one();
        });
        answered.wait(false);
        size_t asked_for = allocations - before;
        EXPECT_EQ(result, store_result::stored);
        return asked_for;
    }
};

TEST_F(allocation_test, none_for_a_record_once_it_is_warm) {
    std::string error;
    s = ingest::open({.directory = state}, &silent, error);
    ASSERT_TRUE(s) << error;
    for (int64_t time = 1; time <= 3; time++) {
        allocations_of(mixed_records(1000, time));
    }
    size_t many = allocations_of(mixed_records(1000, 4));
    size_t few = allocations_of(mixed_records(10, 5));
    EXPECT_EQ(silent.records, 4 * 1001u + 11u);
    EXPECT_EQ(many, few);
    EXPECT_LE(many, 16u); /* a block's */
    RecordProperty("allocations_of_a_block", static_cast<int>(many));
    s.reset();
}

/* A collector that is killed at any moment: what it acknowledged is there, and what the agents send
 * again because they got no answer is there once. */
TEST_F(ingest_test, kill_at_any_moment_loses_and_doubles_nothing) {
    std::mt19937 random(7);
    const int agents = 3;
    std::vector<int64_t> acknowledged(agents, 0); /* blocks of each agent: times 1, 2, ... */
    for (int round = 0; round < 12; round++) {
        int pipe_ends[2];
        ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
        pid_t child = fork();
        if (child == 0) {
            std::string error;
            std::unique_ptr<ingest> killed = ingest::open({.directory = state}, nullptr, error);
            if (!killed) {
                _exit(1);
            }
            /* Each agent sends its next block when the last one is answered. */
            std::function<void(int, int64_t)> send = [&](int agent, int64_t n) {
                std::string block = load_record(agent, n);
                if (n % 3 == 0) {
                    block += "text";
                }
                killed->submit({"a@b.c", std::to_string(agent), block, noon},
                               [&, agent, n](store_result r) {
                                   char answer[2] = {static_cast<char>(agent),
                                                     static_cast<char>(r != store_result::failed)};
                                   if (write(pipe_ends[1], answer, 2) != 2 || !answer[1]) {
                                       _exit(2);
                                   }
                                   send(agent, n + 1);
                               });
            };
            for (int agent = 0; agent < agents; agent++) {
                send(agent, acknowledged[agent] + 1);
            }
            pause();
            _exit(3);
        }
        close(pipe_ends[1]);
        int wanted = 1 + static_cast<int>(random() % 40);
        char answer[2];
        for (int got = 0; got < wanted && read(pipe_ends[0], answer, 2) == 2; got++) {
            acknowledged[static_cast<size_t>(answer[0])]++;
        }
        kill(child, SIGKILL);
        while (read(pipe_ends[0], answer, 2) == 2) {
            acknowledged[static_cast<size_t>(answer[0])]++;
        }
        close(pipe_ends[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
    }
    ASSERT_EQ(open(), "");
    strings last;
    for (int agent = 0; agent < agents; agent++) {
        EXPECT_GT(acknowledged[agent], 0);
        strings rows;
        for (const stored_record& r : records()) {
            if (r.agent == std::to_string(agent)) {
                rows.push_back(std::to_string(r.summary().time.value_or(-1)));
            }
        }
        int64_t stored = static_cast<int64_t>(rows.size());
        EXPECT_GE(stored, acknowledged[agent]);
        EXPECT_LE(stored, acknowledged[agent] + 1); /* stored, but killed before the answer */
        for (int64_t i = 0; i < stored; i++) {
            EXPECT_EQ(rows[i], std::to_string(i + 1));
        }
        last.push_back("a@b.c/" + std::to_string(agent) + " " + std::to_string(agent) + " " +
                       std::to_string(stored) + " 0");
    }
    EXPECT_EQ(latest(), last);
}
