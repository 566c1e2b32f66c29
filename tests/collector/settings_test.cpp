/* Tokens in settings.db: two processes, damage, a full disk, what may not be written. */
#include "store/settings.h"

#include "collector_test_support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;

struct settings_test : testing::Test {
    scratch_directory directory;
    const std::string state = directory / "state", path = state + "/settings.db";
    std::string note, error;
    std::unique_ptr<settings> kept;
    std::vector<std::string> told;

    uint64_t seen = 0;
    bool changed() { return kept->has_changed(seen); }

    bool open() {
        kept.reset();
        seen = 0;
        note.clear();
        kept = settings::open(state, note, error, [this](const std::string& line) {
            told.push_back(line);
            EXPECT_FALSE(changed() && changed()); /* there is no lock */
        });
        return kept != nullptr;
    }
    void SetUp() override { ASSERT_TRUE(open()) << error; }

    static token_hash hash(int number) {
        token_hash h{};
        h[0] = static_cast<unsigned char>(number);
        h[1] = static_cast<unsigned char>(number >> 8);
        return h;
    }
    static stored_token token(const std::string& name, int number,
                              token_kind kind = token_kind::token, int64_t ends = 0,
                              int64_t parent = 0) {
        return {0, kind, 2, name, hash(number), 1000, ends, parent};
    }
    int64_t add(const stored_token& what) {
        int64_t id = 0;
        EXPECT_TRUE(kept->add_token(what, id, error)) << error;
        return id;
    }
    std::vector<std::string> names() {
        std::vector<std::string> found;
        EXPECT_TRUE(
            kept->for_each_token([&](const stored_token& t) { found.push_back(t.name); }, error))
            << error;
        return found;
    }
    /* What another process does, with settings of its own; its return value. */
    int elsewhere(const std::function<int(settings&)>& work) {
        pid_t child = fork();
        if (child == 0) {
            std::string n, e;
            auto own = settings::open(state, n, e);
            _exit(own ? work(*own) : 99);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

using strings = std::vector<std::string>;

TEST_F(settings_test, what_is_added_is_found_as_it_was) {
    stored_token before = token("grafana", 7, token_kind::token, 5000, 3);
    int64_t id = add(before);
    ASSERT_TRUE(open()) << error;
    std::optional<stored_token> found;
    ASSERT_TRUE(kept->find_token(hash(7), 4999, found, error)) << error;
    ASSERT_TRUE(found.has_value());
    stored_token after = found.value_or(stored_token());
    EXPECT_EQ(after.id, id);
    EXPECT_EQ(after.kind, token_kind::token);
    EXPECT_EQ(after.role, 2);
    EXPECT_EQ(after.name, "grafana");
    EXPECT_EQ(after.hash, before.hash);
    EXPECT_EQ(after.made, 1000);
    EXPECT_EQ(after.ends, 5000);
    EXPECT_EQ(after.parent, 3);
    EXPECT_TRUE(note.empty());
}

TEST_F(settings_test, what_ended_or_never_was_is_not_found) {
    add(token("short", 7, token_kind::token, 5000));
    for (auto [number, now] : {std::pair(7, 5000), {7, 5001}, {8, 1000}}) {
        std::optional<stored_token> found = stored_token();
        EXPECT_TRUE(kept->find_token(hash(number), now, found, error)) << error;
        EXPECT_FALSE(found.has_value());
    }
}

TEST_F(settings_test, a_name_is_there_once_among_tokens) {
    add(token("same", 1));
    int64_t id = 0;
    error = "old";
    EXPECT_FALSE(kept->add_token(token("same", 2), id, error));
    EXPECT_EQ(error, "");
    add(token("same", 3, token_kind::link, 2000));
    add(token("same", 4, token_kind::link, 2000));
    EXPECT_EQ(names(), (strings{"same", "same", "same"}));
}

TEST_F(settings_test, an_id_is_never_given_twice) {
    int64_t first = add(token("a", 1));
    EXPECT_TRUE(kept->drop_token(first, error)) << error;
    ASSERT_TRUE(open());
    EXPECT_GT(add(token("b", 2)), first);
}

TEST_F(settings_test, sessions_go_with_their_token) {
    int64_t a = add(token("a", 1)), b = add(token("b", 2));
    add(token("of a", 3, token_kind::session, 9000, a));
    add(token("of b", 4, token_kind::session, 9000, b));
    add(token("by link", 5, token_kind::session, 9000));
    EXPECT_TRUE(kept->drop_token(a, error)) << error;
    EXPECT_EQ(names(), (strings{"b", "of b", "by link"}));
    EXPECT_FALSE(kept->drop_token(a, error));
    EXPECT_EQ(error, "");
    int64_t id = 0; /* it was removed while somebody signed in with it */
    EXPECT_FALSE(kept->add_token(token("late", 6, token_kind::session, 9000, a), id, error));
    EXPECT_EQ(error, "");
}

TEST_F(settings_test, what_ended_is_dropped_when_something_is_added) {
    add(token("old link", 1, token_kind::link, 1000));
    add(token("old", 2, token_kind::token, 999));
    add(token("new", 3));
    EXPECT_EQ(names(), strings{"new"});
}

TEST_F(settings_test, sessions_are_bounded) {
    for (int i = 0; i < 1010; i++) {
        add(token(std::to_string(i), i, token_kind::session, 9000));
    }
    strings left = names();
    EXPECT_EQ(left.size(), 1000u);
    EXPECT_EQ(left.front(), "10");
}

/* Nobody ends the sessions of others by beginning many. */
TEST_F(settings_test, sessions_are_bounded_for_each_token) {
    int64_t a = add(token("a", 2000)), b = add(token("b", 2001));
    add(token("of a", 2002, token_kind::session, 9000, a));
    add(token("by link", 2003, token_kind::session, 9000));
    for (int i = 0; i < 1010; i++) {
        add(token(std::to_string(i), i, token_kind::session, 9000, b));
    }
    strings left = names();
    ASSERT_EQ(left.size(), 1004u);
    left.resize(5);
    EXPECT_EQ(left, (strings{"a", "b", "of a", "by link", "10"}));
}

TEST_F(settings_test, a_link_is_found_once) {
    add(token("link", 1, token_kind::link, 5000));
    std::optional<stored_token> found;
    EXPECT_TRUE(kept->find_token(hash(1), 2000, found, error)) << error;
    EXPECT_TRUE(found.has_value());
    EXPECT_TRUE(kept->find_token(hash(1), 2000, found, error)) << error;
    EXPECT_FALSE(found.has_value());
    EXPECT_TRUE(names().empty());
}

TEST_F(settings_test, a_link_used_by_many_at_once_opens_for_one) {
    enum { processes = 4, links = 10 };
    for (int i = 0; i < links; i++) {
        add(token("link", i, token_kind::link, 5000));
    }
    kept.reset();
    pid_t children[processes];
    for (pid_t& child : children) {
        child = fork();
        if (child == 0) {
            std::string n, e;
            auto own = settings::open(state, n, e);
            int opened = 0;
            for (int i = 0; own && i < links; i++) {
                std::optional<stored_token> found;
                if (!own->find_token(hash(i), 2000, found, e)) {
                    _exit(99);
                }
                opened += found.has_value();
            }
            _exit(own ? opened : 99);
        }
    }
    int all = 0;
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 99);
        all += WEXITSTATUS(status);
    }
    EXPECT_EQ(all, links);
}

TEST_F(settings_test, threads_share_one) {
    add(token("link", 1, token_kind::link, 5000));
    std::atomic<int> opened = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            std::string e;
            std::optional<stored_token> found;
            EXPECT_TRUE(kept->find_token(hash(1), 2000, found, e)) << e;
            opened += found.has_value();
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(opened, 1);
}

TEST_F(settings_test, two_processes_see_what_the_other_changes) {
    EXPECT_TRUE(changed()); /* nobody has looked yet */
    EXPECT_FALSE(changed());
    int64_t mine = add(token("mine", 1));
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    auto work = [&](settings& own) {
        int64_t id = 0;
        std::string e;
        return own.add_token(token("theirs", 2), id, e) && own.drop_token(mine, e) ? 0 : 1;
    };
    EXPECT_EQ(elsewhere(work), 0);
    EXPECT_TRUE(changed());
    EXPECT_FALSE(changed());
    EXPECT_EQ(names(), strings{"theirs"});
}

TEST_F(settings_test, many_writers_wait_for_each_other) {
    kept.reset();
    enum { processes = 4, each = 10 };
    pid_t children[processes];
    for (int p = 0; p < processes; p++) {
        children[p] = fork();
        if (children[p] == 0) {
            std::string n, e;
            auto own = settings::open(state, n, e);
            for (int i = 0; i < each; i++) {
                int number = p * each + i;
                int64_t id = 0;
                if (!own || !own->add_token(token(std::to_string(number), number), id, e)) {
                    _exit(1);
                }
            }
            _exit(0);
        }
    }
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(names().size(), size_t{processes * each});
}

TEST_F(settings_test, the_file_is_its_owners) {
    add(token("a", 1));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    kept.reset();
    chmod(path.c_str(), 0644); /* somebody copied it there */
    ASSERT_TRUE(open());
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

/* A token that root makes before the first start must not lock out the collector's user. */
TEST_F(settings_test, the_file_belongs_to_whom_the_directory_does) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    kept.reset();
    ASSERT_EQ(chown(state.c_str(), 65534, 65534), 0);
    for (bool is_there : {true, false}) {
        if (!is_there) {
            fs::remove(path);
        }
        ASSERT_TRUE(open()) << error;
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 65534u);
        EXPECT_EQ(status.st_gid, 65534u);
        kept.reset();
    }
}

/* ---- damage ---- */

static strings set_aside(const std::string& state) {
    strings found;
    for (const fs::directory_entry& entry : fs::directory_iterator(state)) {
        std::string name = entry.path().filename();
        if (name.starts_with("settings.db.damaged-")) {
            found.push_back(name);
        }
    }
    return found;
}

TEST_F(settings_test, a_damaged_file_is_kept_and_a_new_one_begun) {
    for (int i = 0; i < 200; i++) {
        add(token("a name " + std::to_string(i) + std::string(80, 'x'), i));
    }
    kept.reset();
    const std::string whole = read_text(path);
    std::string inside = whole; /* the head is sound, what follows is not */
    std::fill(inside.begin() + 4096, inside.end(), '\xff');
    const std::string broken[] = {"this is no database, but long enough to be looked at as one" +
                                      std::string(4096, '.'),
                                  whole.substr(0, 4096 + 100), inside};
    size_t count = 0;
    for (const std::string& text : broken) {
        write_text(path, text);
        ASSERT_TRUE(open()) << error;
        EXPECT_NE(note.find(path + " is damaged ("), std::string::npos) << note;
        EXPECT_NE(note.find("it is kept as " + path + ".damaged-"), std::string::npos) << note;
        EXPECT_EQ(set_aside(state).size(), ++count);
        EXPECT_TRUE(names().empty());
        add(token("new", 1));
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(note, "");
        EXPECT_EQ(names(), strings{"new"});
        kept.reset();
    }
}

/* Tokens and sessions are gone with it: nobody is to wonder why. */
TEST_F(settings_test, damage_while_it_is_open_is_told) {
    for (int i = 0; i < 200; i++) {
        add(token("a name " + std::to_string(i) + std::string(80, 'x'), i));
    }
    {
        std::ofstream spoilt(path, std::ios::in | std::ios::out | std::ios::binary);
        spoilt.seekp(18); /* as another process that writes would: seen by the next call */
        spoilt << std::string(8192, '\xff');
    }
    EXPECT_TRUE(told.empty());
    kept->for_each_token([](const stored_token&) {}, error); /* this one fails */
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(set_aside(state).size(), 1u);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(told[0].starts_with(path + " is damaged (")) << told[0];
    EXPECT_NE(told[0].find("tokens have to be made anew"), std::string::npos) << told[0];
    add(token("new", 1));
    EXPECT_EQ(names(), strings{"new"});
    EXPECT_EQ(told.size(), 1u);
}

TEST_F(settings_test, one_that_was_never_written_is_begun_anew) {
    kept.reset();
    write_text(path, "");
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(note, "");
    add(token("a", 1));
}

TEST_F(settings_test, a_later_versions_file_is_left_alone) {
    add(token("a", 1));
    kept.reset();
    std::string file = read_text(path);
    file.at(63) = 9; /* user_version, last byte */
    write_text(path, file);
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": made by another version of this program (layout 9)");
    EXPECT_EQ(read_text(path), file);
    EXPECT_TRUE(set_aside(state).empty());
}

TEST_F(settings_test, a_file_that_is_removed_or_replaced_in_use_is_followed) {
    add(token("old", 1));
    EXPECT_TRUE(changed());
    std::string copy = read_text(path);
    fs::remove(path);
    EXPECT_TRUE(changed());
    EXPECT_TRUE(names().empty());
    add(token("new", 2));
    write_text(state + "/copy", copy);
    fs::rename(state + "/copy", path);
    EXPECT_TRUE(changed());
    EXPECT_EQ(names(), strings{"old"});
}

/* ---- what cannot be written ---- */

/* A file size limit stands for the full disk. */
TEST_F(settings_test, a_full_disk_loses_nothing) {
    add(token("before", 1));
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit full = {.rlim_cur = 100, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    int64_t id = 0;
    bool added = kept->add_token(token("during", 2), id, error);
    std::string why = error;
    std::optional<stored_token> found;
    bool searched = kept->find_token(hash(1), 2000, found, error);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_FALSE(added);
    EXPECT_TRUE(why.starts_with(path + ": ")) << why;
    EXPECT_TRUE(searched && found.has_value()) << error;
    add(token("after", 3));
    EXPECT_EQ(names(), (strings{"before", "after"}));
    EXPECT_TRUE(set_aside(state).empty());
}

/* Root may write all the same, so somebody else tries. */
TEST_F(settings_test, what_may_not_be_written_is_said) {
    add(token("a", 1));
    kept.reset();
    fs::permissions(path, fs::perms::owner_read | fs::perms::others_read);
    fs::permissions(state, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read |
                               fs::perms::others_exec);
    fs::permissions(directory.path(),
                    fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
    pid_t child = fork();
    if (child == 0) {
        bool other = geteuid() != 0 ||
                     (setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
        std::string n, e;
        auto own = settings::open(state, n, e);
        _exit(!other ? 3 : own ? 1 : e == path + ": Permission denied" && n.empty() ? 0 : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    fs::permissions(state, fs::perms::owner_all);
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(names(), strings{"a"});
}

TEST_F(settings_test, what_is_no_file_is_left_alone) {
    kept.reset();
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": not a file");
    fs::remove(path);
    const std::string other = directory / "other";
    write_text(other, "somebody's");
    fs::permissions(other, fs::perms::owner_all | fs::perms::others_read);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(state.c_str(), 65534, 65534), 0); /* root makes a token for the collector */
    }
    auto is_refused = [&](const std::string& why) {
        EXPECT_FALSE(open());
        EXPECT_EQ(error, why);
        struct stat status {};
        ASSERT_EQ(stat(other.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(status.st_mode & 07777, 0704u);
        EXPECT_EQ(read_text(other), "somebody's");
    };
    for (const std::string& name : {path, path + "-journal", path + "-wal", path + "-shm"}) {
        fs::create_symlink(other, name);
        is_refused(name + ": not a file");
        fs::remove(name);
        fs::create_hard_link(other, name);
        is_refused(name + ": has another name too");
        fs::remove(name);
        ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
        is_refused(name + ": not a file");
        fs::remove(name);
        if (mknod(name.c_str(), S_IFCHR | 0600, makedev(1, 5)) == 0) { /* root, if at all */
            is_refused(name + ": not a file");
            fs::remove(name);
        }
    }
    ASSERT_TRUE(open()) << error;
}

/* What takes its place while it is open is not followed either. */
TEST_F(settings_test, a_link_in_its_place_is_not_followed) {
    add(token("a", 1));
    const std::string other = directory / "other";
    fs::copy_file(path, other);
    fs::remove(path);
    fs::create_symlink(other, path);
    int64_t id = 0;
    EXPECT_FALSE(kept->add_token(token("b", 2), id, error));
    EXPECT_EQ(error, path + ": not a file");
}

/* ---- the copy of the fleet ---- */

TEST_F(settings_test, the_fleet_is_kept_and_no_one_else_reads_anew) {
    std::optional<fleet_copy> found;
    ASSERT_TRUE(kept->read_fleet_copy(found, error)) << error;
    EXPECT_FALSE(found);
    EXPECT_TRUE(changed());
    const std::string text = std::string("version: 1\n# \0\n", 15) + std::string(1 << 20, 'x');
    ASSERT_TRUE(kept->keep_fleet(
        {.newest = 7, .revision = 5, .time = 99, .author = "anna", .text = text}, error))
        << error;
    EXPECT_FALSE(changed());
    ASSERT_TRUE(open()) << error;
    ASSERT_TRUE(kept->read_fleet_copy(found, error)) << error;
    ASSERT_TRUE(found);
    EXPECT_EQ(found->newest, 7);
    EXPECT_EQ(found->revision, 5);
    EXPECT_EQ(found->time, 99);
    EXPECT_EQ(found->author, "anna");
    EXPECT_EQ(found->text, text);
    ASSERT_TRUE(kept->keep_fleet(
        {.newest = 6, .revision = 6, .time = 100, .author = "", .text = ""}, error));
    ASSERT_TRUE(kept->read_fleet_copy(found, error));
    EXPECT_EQ(found->newest, 7) << "what was given stays given";
    EXPECT_EQ(found->revision, 6);
    EXPECT_EQ(found->text, "");
    /* With others' changes it is as ever. */
    EXPECT_TRUE(changed());
    EXPECT_EQ(elsewhere([](settings& own) {
                  std::string e;
                  std::optional<fleet_copy> copy;
                  return own.read_fleet_copy(copy, e) && copy && copy->newest == 7 &&
                                 own.keep_fleet({.newest = INT32_MAX}, e)
                             ? 0
                             : 1;
              }),
              0);
    ASSERT_TRUE(kept->read_fleet_copy(found, error));
    EXPECT_EQ(found->newest, INT32_MAX);
    add(token("one", 1));
    EXPECT_TRUE(changed());
}

/* Nobody of ours wrote that. */
TEST_F(settings_test, a_fleet_that_makes_no_sense_is_none) {
    ASSERT_TRUE(kept->keep_fleet({.newest = 7, .text = "x"}, error));
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "UPDATE fleet SET newest = 1 << 40", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    std::optional<fleet_copy> found;
    EXPECT_TRUE(kept->read_fleet_copy(found, error)) << error;
    EXPECT_FALSE(found);
}
