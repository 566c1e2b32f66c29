/* Identities, enrolments and secrets in settings.db, and how a file of the version before gets
 * them. */
#include "store/settings.h"

#include "collector_test_support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

namespace fs = std::filesystem;
using strings = std::vector<std::string>;
using opened = settings::opened;

static token_hash hash(int number) {
    token_hash h{};
    h[0] = static_cast<unsigned char>(number);
    h[1] = static_cast<unsigned char>(number >> 8);
    h[31] = 1;
    return h;
}

struct settings_agents_test : testing::Test {
    scratch_directory directory;
    const std::string state = directory / "state", path = state + "/settings.db";
    std::string note, error;
    std::unique_ptr<settings> kept;

    bool open() {
        kept.reset();
        note.clear();
        kept = settings::open(state, note, error);
        return kept != nullptr;
    }
    void SetUp() override { ASSERT_TRUE(open()) << error; }

    /* What somebody else does with the file. */
    void sql(const std::string& text) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    std::vector<stored_identity> identities() {
        std::vector<stored_identity> all;
        auto add = [&](const stored_identity& what) { all.push_back(what); };
        EXPECT_TRUE(kept->for_each_identity(add, error)) << error;
        return all;
    }
    /* "" for none. */
    std::string text_of(const std::string& agent) {
        for (const stored_identity& i : identities()) {
            if (i.agent == agent) {
                return std::string(i.admitted != 0 ? "admitted " : "") +
                       (i.revoked != 0 ? "revoked " : "") + std::to_string(i.good_from) + "/" +
                       std::to_string(i.highest);
            }
        }
        return "";
    }
    void put(const stored_identity& what) { EXPECT_TRUE(kept->put_identity(what, error)) << error; }

    static stored_enrolment token(int number, const std::string& agent, int64_t ends = 2000) {
        return {.hash = hash(number),
                .account = "a@x",
                .agent = agent,
                .by = "ann",
                .made = 1000,
                .ends = ends};
    }
    void add(const stored_enrolment& what) {
        EXPECT_TRUE(kept->add_enrolment(what, error)) << error;
    }
    std::vector<stored_enrolment> enrolments() {
        std::vector<stored_enrolment> all;
        auto one = [&](const stored_enrolment& what) { all.push_back(what); };
        EXPECT_TRUE(kept->for_each_enrolment(one, error)) << error;
        return all;
    }
    opened use(int number, int key, int64_t now = 1500, const std::string& account = "",
               const std::string& agent = "") {
        opened how = opened::no_token;
        found = {};
        EXPECT_TRUE(
            kept->open_enrolment(hash(number), hash(key), account, agent, now, how, found, error))
            << error;
        return how;
    }
    stored_enrolment found;

    std::vector<stored_secret> secrets() {
        std::vector<stored_secret> all;
        auto add_one = [&](const stored_secret& what) { all.push_back(what); };
        EXPECT_TRUE(kept->for_each_secret(add_one, error)) << error;
        return all;
    }
};

/* ---- identities ---- */

TEST_F(settings_agents_test, an_identity_is_found_as_it_was) {
    const stored_identity before{.account = "a@x",
                                 .agent = "web-1",
                                 .admitted = 7,
                                 .by = "ann",
                                 .highest = 4294967295u,
                                 .good_from = 3,
                                 .revoked = 9,
                                 .key = hash(1),
                                 .authority = hash(2),
                                 .issued = 11,
                                 .ends = 12,
                                 .knows = hash(3)};
    put(before);
    ASSERT_TRUE(open()) << error;
    ASSERT_EQ(identities().size(), 1u);
    const stored_identity after = identities()[0];
    EXPECT_EQ(after.account, "a@x");
    EXPECT_EQ(after.agent, "web-1");
    EXPECT_EQ(after.admitted, 7);
    EXPECT_EQ(after.by, "ann");
    EXPECT_EQ(after.highest, 4294967295u);
    EXPECT_EQ(after.good_from, 3u);
    EXPECT_EQ(after.revoked, 9);
    EXPECT_EQ(after.key, hash(1));
    EXPECT_EQ(after.authority, hash(2));
    EXPECT_EQ(after.issued, 11);
    EXPECT_EQ(after.ends, 12);
    EXPECT_EQ(after.knows, hash(3));
}

TEST_F(settings_agents_test, a_name_is_kept_once) {
    put({.account = "a@x", .agent = "web", .admitted = 1});
    put({.account = "a@x", .agent = "web", .admitted = 2});
    put({.account = "b@x", .agent = "web", .admitted = 3});
    ASSERT_EQ(identities().size(), 2u);
    EXPECT_EQ(identities()[0].admitted, 2);
    EXPECT_TRUE(kept->drop_identity("a@x", "web", error)) << error;
    EXPECT_FALSE(kept->drop_identity("a@x", "web", error));
    EXPECT_EQ(error, "");
    ASSERT_EQ(identities().size(), 1u);
    EXPECT_EQ(identities()[0].account, "b@x");
}

TEST_F(settings_agents_test, names_may_have_odd_bytes_but_no_control_characters) {
    const strings good = {"x", "'; DROP TABLE identities; --", "\xff\xfe", "\xc3\xa9 b",
                          std::string(254, 'n')};
    for (const std::string& name : good) {
        EXPECT_TRUE(is_agent_name(name));
        put({.account = name, .agent = name, .admitted = 1});
    }
    strings found_names;
    for (const stored_identity& i : identities()) {
        EXPECT_EQ(i.account, i.agent);
        found_names.push_back(i.account);
    }
    strings sorted = good;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(found_names, sorted);
    for (const std::string& name : {std::string(), std::string("a\nb"), std::string("a\0b", 3),
                                    std::string("\x7f"), std::string(255, 'n')}) {
        EXPECT_FALSE(is_agent_name(name));
        for (bool is_account : {true, false}) {
            stored_identity bad{.account = is_account ? name : "a",
                                .agent = is_account ? "a" : name};
            EXPECT_FALSE(kept->put_identity(bad, error));
            EXPECT_EQ(error, "an account or agent has 1 to 254 bytes and no control characters");
            auto change = [](stored_identity&) { return true; };
            EXPECT_FALSE(kept->change_identity(bad.account, bad.agent, change, error));
            EXPECT_NE(error, "");
            stored_enrolment enrolment = token(1, "x");
            enrolment.account = bad.account;
            enrolment.agent = bad.agent;
            EXPECT_FALSE(kept->add_enrolment(enrolment, error));
            EXPECT_NE(error, "");
        }
    }
    EXPECT_EQ(identities().size(), good.size());
    EXPECT_TRUE(enrolments().empty());
}

TEST_F(settings_agents_test, a_change_is_made_or_not) {
    auto admit = [](stored_identity& what) {
        EXPECT_EQ(what.account, "a@x");
        EXPECT_EQ(what.agent, "web");
        EXPECT_EQ(what.highest, 0u);
        what.highest = 5;
        what.agent = "another"; /* a name stays what it is */
        return true;
    };
    EXPECT_TRUE(kept->change_identity("a@x", "web", admit, error)) << error;
    auto look = [](stored_identity& what) {
        EXPECT_EQ(what.highest, 5u);
        what.highest = 6;
        return false;
    };
    error = "old";
    EXPECT_FALSE(kept->change_identity("a@x", "web", look, error));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(kept->change_identity(
        "a@x", "nobody", [](stored_identity&) { return false; }, error));
    ASSERT_EQ(identities().size(), 1u);
    EXPECT_EQ(text_of("web"), "0/5");
}

TEST_F(settings_agents_test, what_throws_in_a_change_leaves_nothing_half_done) {
    put({.account = "a@x", .agent = "web", .highest = 1});
    auto fail = [](stored_identity& what) -> bool {
        what.highest = 2;
        throw std::bad_alloc();
    };
    EXPECT_THROW(kept->change_identity("a@x", "web", fail, error), std::bad_alloc);
    EXPECT_EQ(text_of("web"), "0/1");
    put({.account = "a@x", .agent = "web", .highest = 3}); /* nobody has to wait */
    EXPECT_EQ(text_of("web"), "0/3");
}

/* Each reads and writes in one transaction: no generation is given twice. */
TEST_F(settings_agents_test, changes_of_several_processes_and_threads_follow_each_other) {
    kept.reset();
    enum { processes = 3, threads = 2, each = 10 };
    pid_t children[processes];
    for (pid_t& child : children) {
        child = fork();
        if (child == 0) {
            std::string n, e;
            auto own = settings::open(state, n, e);
            std::atomic<bool> ok = own != nullptr;
            std::vector<std::thread> all;
            for (int t = 0; ok && t < threads; t++) {
                all.emplace_back([&] {
                    std::string why;
                    auto more = [](stored_identity& what) { return ++what.highest > 0; };
                    for (int i = 0; i < each; i++) {
                        if (!own->change_identity("a@x", "web", more, why)) {
                            ok = false;
                        }
                    }
                });
            }
            for (std::thread& t : all) {
                t.join();
            }
            _exit(ok ? 0 : 1);
        }
    }
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(text_of("web"), "0/" + std::to_string(processes * threads * each));
}

TEST_F(settings_agents_test, several_readers_hear_of_a_change_each) {
    uint64_t a = 0, b = 0;
    EXPECT_TRUE(kept->has_changed(a));
    EXPECT_TRUE(kept->has_changed(b));
    put({.account = "a@x", .agent = "web"});
    EXPECT_TRUE(kept->has_changed(a));
    EXPECT_TRUE(kept->has_changed(b));
    EXPECT_FALSE(kept->has_changed(a));
    EXPECT_FALSE(kept->has_changed(b));
    auto nothing = [](stored_identity&) { return false; };
    EXPECT_FALSE(kept->change_identity("a@x", "web", nothing, error));
    EXPECT_FALSE(kept->has_changed(a));
    std::string n, e; /* another's change */
    auto other = settings::open(state, n, e);
    ASSERT_NE(other, nullptr) << e;
    EXPECT_TRUE(other->put_secret({.name = "s", .sealed = "x", .by = ""}, e)) << e;
    EXPECT_TRUE(kept->has_changed(a));
    EXPECT_TRUE(kept->has_changed(b));
    EXPECT_FALSE(kept->has_changed(a));
}

TEST_F(settings_agents_test, the_names_of_the_store_are_admitted_once) {
    put({.account = "a@x", .agent = "gone", .highest = 2, .revoked = 5});
    size_t admitted = 0;
    EXPECT_TRUE(kept->admit_at_first(
        {{"a@x", "web"}, {"a@x", "gone"}, {"a@x", "bad\n"}, {"b@x", "web"}, {"b@x", "web"}}, 77,
        admitted, error))
        << error;
    EXPECT_EQ(admitted, 2u);
    ASSERT_EQ(identities().size(), 3u);
    EXPECT_EQ(text_of("gone"), "revoked 0/2");
    EXPECT_EQ(identities()[1].agent, "web");
    EXPECT_EQ(identities()[1].admitted, 77);
    ASSERT_TRUE(open()) << error;
    EXPECT_TRUE(kept->admit_at_first({{"a@x", "new"}}, 78, admitted, error)) << error;
    EXPECT_EQ(admitted, 0u);
    EXPECT_EQ(text_of("new"), "");
}

TEST_F(settings_agents_test, a_new_store_admits_nobody_later) {
    size_t admitted = 1;
    EXPECT_TRUE(kept->admit_at_first({}, 77, admitted, error)) << error;
    EXPECT_TRUE(kept->admit_at_first({{"a@x", "web"}}, 78, admitted, error)) << error;
    EXPECT_EQ(admitted, 0u);
    EXPECT_TRUE(identities().empty());
}

/* Who was revoked is forgotten with it. */
TEST_F(settings_agents_test, behind_a_damaged_file_nobody_is_admitted) {
    put({.account = "a@x", .agent = "thief", .revoked = 5});
    const std::string noise(8192, 'x');
    for (bool at_once : {true, false}) {
        kept.reset();
        write_text(path, noise);
        ASSERT_TRUE(open()) << error;
        EXPECT_NE(note.find("tokens have to be made anew, agents admitted and revoked again, "
                            "secrets set again"),
                  std::string::npos)
            << note;
        if (!at_once) { /* a process that ended behind setting it aside */
            kept.reset();
            fs::remove(path);
            ASSERT_TRUE(open()) << error;
        }
        size_t admitted = 1;
        EXPECT_TRUE(kept->admit_at_first({{"a@x", "thief"}}, 78, admitted, error)) << error;
        EXPECT_EQ(admitted, 0u);
        EXPECT_TRUE(identities().empty());
    }
}

/* Removed, put aside, or not in the copy that was put back: a collector that had an authority for
 * agents had decided about them, too. */
TEST_F(settings_agents_test, behind_a_lost_file_nobody_is_admitted) {
    size_t admitted = 1;
    for (const char* left : {"agents-ca.pem", "agents-ca-key.pem"}) {
        kept.reset();
        fs::remove(path);
        const std::string beside = (fs::path(path).parent_path() / left).string();
        write_text(beside, "");
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(note,
                  path + " is gone, and who was admitted and revoked is forgotten (agents-ca.pem "
                         "is still there): a new one is begun, and nobody is admitted; tokens "
                         "have to be made anew, agents admitted and revoked again, secrets set "
                         "again");
        fs::remove(beside); /* decided once and for all */
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(note, "");
        EXPECT_TRUE(kept->admit_at_first({{"a@x", "thief"}}, 78, admitted, error)) << error;
        EXPECT_EQ(admitted, 0u);
        EXPECT_TRUE(identities().empty());
    }
    kept.reset();
    fs::remove(path);
    ASSERT_TRUE(open()) << error; /* one without a past */
    EXPECT_EQ(note, "");
    EXPECT_TRUE(kept->admit_at_first({{"a@x", "web"}}, 78, admitted, error)) << error;
    EXPECT_EQ(admitted, 1u);
}

TEST_F(settings_agents_test, ten_thousand_identities_are_kept) {
    enum { many = 10000 };
    std::vector<std::pair<std::string, std::string>> names;
    for (int i = 0; i < many; i++) {
        names.emplace_back("a@x", std::to_string(i));
    }
    size_t admitted = 0;
    EXPECT_TRUE(kept->admit_at_first(names, 1, admitted, error)) << error;
    EXPECT_EQ(admitted, size_t{many});
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(identities().size(), size_t{many});
    auto more = [](stored_identity& what) { return ++what.highest > 0; };
    EXPECT_TRUE(kept->change_identity("a@x", "9999", more, error)) << error;
    EXPECT_EQ(text_of("9999"), "admitted 0/1");
}

/* ---- enrolments ---- */

TEST_F(settings_agents_test, a_token_opens_for_one_key) {
    add(token(1, "web"));
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(found.account, "a@x");
    EXPECT_EQ(found.agent, "web");
    EXPECT_EQ(found.generation, 1u);
    EXPECT_EQ(text_of("web"), "admitted 0/1");
    EXPECT_EQ(identities()[0].admitted, 1500);
    EXPECT_EQ(identities()[0].by, "ann");
    EXPECT_EQ(use(1, 8), opened::used);
    EXPECT_EQ(text_of("web"), "admitted 0/1");
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(use(1, 7, 1999), opened::yes); /* the answer was lost */
    EXPECT_EQ(found.generation, 1u);
    EXPECT_EQ(text_of("web"), "admitted 0/1");
    EXPECT_EQ(use(1, 7, 2000), opened::late);
}

TEST_F(settings_agents_test, what_is_unknown_late_or_anothers_opens_nothing) {
    add(token(1, "web"));
    EXPECT_EQ(use(2, 7), opened::no_token);
    EXPECT_EQ(use(1, 7, 2000), opened::late);
    EXPECT_EQ(use(1, 7, 1500, "b@x", "web"), opened::other_name);
    EXPECT_EQ(use(1, 7, 1500, "a@x", "web2"), opened::other_name);
    EXPECT_EQ(use(1, 7, 1500, "", "WEB"), opened::other_name);
    EXPECT_TRUE(identities().empty());
    EXPECT_FALSE(enrolments()[0].key.has_value());
    EXPECT_EQ(use(1, 8, 1500, "a@x", "web"), opened::yes); /* it was not used up */
    EXPECT_EQ(use(1, 8, 1500, "b@x", "web"), opened::other_name);
}

TEST_F(settings_agents_test, a_token_for_one_key_opens_for_that_alone) {
    stored_enrolment pinned = token(1, "web");
    pinned.key = hash(7);
    add(pinned);
    EXPECT_EQ(use(1, 8), opened::used);
    EXPECT_TRUE(identities().empty());
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(found.generation, 1u);
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(found.generation, 1u);
    add(pinned); /* once more: in its place */
    ASSERT_EQ(enrolments().size(), 1u);
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(found.generation, 2u);
}

TEST_F(settings_agents_test, a_token_counts_generations_on) {
    put({.account = "a@x", .agent = "web", .admitted = 5, .highest = 3, .good_from = 2});
    add(token(1, "web"));
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(found.generation, 4u);
    EXPECT_EQ(text_of("web"), "admitted 2/4"); /* the one before is good until this is used */
    EXPECT_EQ(identities()[0].admitted, 5);
}

TEST_F(settings_agents_test, a_token_ends_a_revocation_but_not_of_what_was_revoked) {
    put({.account = "a@x", .agent = "web", .highest = 3, .good_from = 2, .revoked = 9});
    add(token(1, "web"));
    EXPECT_EQ(use(1, 7), opened::yes);
    EXPECT_EQ(text_of("web"), "admitted 4/4");
    EXPECT_EQ(identities()[0].admitted, 1500);
    auto revoke = [](stored_identity& what) {
        what.revoked = 10;
        what.admitted = 0;
        return true;
    };
    EXPECT_TRUE(kept->change_identity("a@x", "web", revoke, error)) << error;
    EXPECT_EQ(use(1, 7), opened::yes); /* asked again, it changes nothing */
    EXPECT_EQ(text_of("web"), "revoked 4/4");
}

TEST_F(settings_agents_test, generations_come_to_an_end) {
    put({.account = "a@x", .agent = "web", .admitted = 5, .highest = 4294967295u});
    add(token(1, "web"));
    opened how = opened::no_token;
    EXPECT_FALSE(kept->open_enrolment(hash(1), hash(7), "", "", 1500, how, found, error));
    EXPECT_EQ(error, "no more certificates can be made for this name");
    EXPECT_EQ(text_of("web"), "admitted 0/4294967295");
}

TEST_F(settings_agents_test, a_token_used_by_many_at_once_opens_for_one_key) {
    enum { processes = 4, tokens = 5 };
    for (int i = 0; i < tokens; i++) {
        add(token(i, std::to_string(i)));
    }
    kept.reset();
    pid_t children[processes];
    for (int p = 0; p < processes; p++) {
        children[p] = fork();
        if (children[p] == 0) {
            std::string n, e;
            auto own = settings::open(state, n, e);
            int won = 0;
            for (int i = 0; own && i < tokens; i++) {
                opened how = opened::no_token;
                stored_enrolment row;
                if (!own->open_enrolment(hash(i), hash(100 + p), "", "", 1500, how, row, e) ||
                    (how == opened::yes) == (how == opened::used)) {
                    _exit(99);
                }
                won += how == opened::yes;
            }
            _exit(own ? won : 99);
        }
    }
    int all = 0;
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 99);
        all += WEXITSTATUS(status);
    }
    EXPECT_EQ(all, tokens);
    ASSERT_TRUE(open()) << error;
    for (int i = 0; i < tokens; i++) {
        EXPECT_EQ(text_of(std::to_string(i)), "admitted 0/1");
    }
}

TEST_F(settings_agents_test, tokens_go_a_day_after_their_end) {
    add(token(1, "old", 1000));
    add(token(2, "young", 1001));
    stored_enrolment late = token(3, "new", 90000);
    late.made = 1000 + 24 * 60 * 60;
    add(late);
    strings left;
    for (const stored_enrolment& e : enrolments()) {
        left.push_back(e.agent);
    }
    EXPECT_EQ(left, (strings{"new", "young"}));
}

TEST_F(settings_agents_test, tokens_that_are_not_used_go_with_their_name) {
    add(token(1, "web"));
    add(token(2, "web"));
    add(token(3, "db"));
    EXPECT_EQ(use(2, 7), opened::yes);
    EXPECT_TRUE(kept->drop_enrolments("a@x", "web", error)) << error;
    EXPECT_EQ(use(1, 7), opened::no_token);
    EXPECT_EQ(use(2, 7), opened::yes);
    EXPECT_EQ(use(3, 7), opened::yes);
    EXPECT_TRUE(kept->drop_enrolments("a@x", "nobody", error)) << error;
}

/* ---- secrets ---- */

TEST_F(settings_agents_test, a_secret_is_found_as_it_was) {
    const std::string sealed("\0\xff\n'sealed", 10);
    EXPECT_TRUE(kept->put_secret({.name = "mail", .sealed = sealed, .by = "ann", .made = 5}, error))
        << error;
    ASSERT_TRUE(open()) << error;
    ASSERT_EQ(secrets().size(), 1u);
    EXPECT_EQ(secrets()[0].name, "mail");
    EXPECT_EQ(secrets()[0].sealed, sealed);
    EXPECT_EQ(secrets()[0].by, "ann");
    EXPECT_EQ(secrets()[0].made, 5);
    EXPECT_EQ(secrets()[0].serial, 1u);
}

TEST_F(settings_agents_test, the_serial_of_a_secret_rises_and_never_comes_twice) {
    auto set = [&](const std::string& name) {
        EXPECT_TRUE(kept->put_secret({.name = name, .sealed = "x", .by = ""}, error)) << error;
        for (const stored_secret& s : secrets()) {
            if (s.name == name) {
                return s.serial;
            }
        }
        return uint64_t{0};
    };
    EXPECT_EQ(set("a"), 1u);
    EXPECT_EQ(set("b"), 2u);
    EXPECT_EQ(set("a"), 3u);
    EXPECT_EQ(secrets().size(), 2u);
    EXPECT_TRUE(kept->drop_secret("a", error)) << error;
    EXPECT_FALSE(kept->drop_secret("a", error));
    EXPECT_EQ(error, "");
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(set("a"), 4u);
}

/* ---- the file ---- */

TEST_F(settings_agents_test, rows_that_nobody_of_ours_wrote_are_passed_over) {
    put({.account = "a@x", .agent = "web", .admitted = 5});
    add(token(1, "web"));
    EXPECT_TRUE(kept->put_secret({.name = "mail", .sealed = "x", .by = ""}, error)) << error;
    const std::string z = "zeroblob(32)";
    sql("INSERT INTO identities VALUES('', 'a', 1, '', 0, 0, 0, " + z + ", " + z + ", 0, 0, " + z +
        "), ('a', 'n' || char(10), 1, '', 0, 0, 0, " + z + ", " + z + ", 0, 0, " + z +
        "), ('a', 'neg', 1, '', -1, 0, 0, " + z + ", " + z + ", 0, 0, " + z +
        "), ('a', 'big', 1, '', 0, 4294967296, 0, " + z + ", " + z + ", 0, 0, " + z +
        "), ('a', 'k', 1, '', 0, 0, 0, zeroblob(31), " + z + ", 0, 0, " + z +
        "), ('a', 'h', 1, '', 0, 0, 0, " + z + ", x'', 0, 0, " + z +
        "), ('a', 's', 1, '', 0, 0, 0, " + z + ", " + z + ", 0, 0, zeroblob(33))");
    sql("INSERT INTO enrolments VALUES(x'01', 'a', 'b', '', 1, 9000, NULL, 0),"
        " (zeroblob(32), 'a', '', '', 1, 9000, NULL, 0),"
        " (CAST(x'02' || zeroblob(31) AS BLOB), 'a', 'b', '', 1, 9000, x'03', 0),"
        " (CAST(x'03' || zeroblob(31) AS BLOB), 'a', 'b', '', 1, 9000, NULL, -1)");
    sql("INSERT INTO secrets VALUES('', x'01', '', 0, 5), ('e', x'', '', 0, 5),"
        " ('s', x'01', '', 0, 0)");
    EXPECT_EQ(identities().size(), 1u);
    EXPECT_EQ(enrolments().size(), 1u);
    EXPECT_EQ(secrets().size(), 1u);
    token_hash bad{};
    opened how = opened::yes;
    EXPECT_TRUE(kept->open_enrolment(bad, hash(7), "", "", 1500, how, found, error)) << error;
    EXPECT_EQ(how, opened::no_token);
    /* What makes no sense of a name makes room for what does. */
    auto admit = [](stored_identity& what) {
        EXPECT_EQ(what.highest, 0u);
        what.admitted = 3;
        return true;
    };
    EXPECT_TRUE(kept->change_identity("a", "big", admit, error)) << error;
    EXPECT_EQ(text_of("big"), "admitted 0/0");
}

/* As the version before made it. */
static const char layout_1[] =
    "CREATE TABLE tokens("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  kind INTEGER NOT NULL, role INTEGER NOT NULL, name TEXT NOT NULL,"
    "  hash BLOB NOT NULL UNIQUE, made INTEGER NOT NULL, ends INTEGER NOT NULL,"
    "  parent INTEGER NOT NULL) STRICT;"
    "CREATE UNIQUE INDEX tokens_by_name ON tokens(name) WHERE kind = 1;"
    "PRAGMA application_id = 1987274100; PRAGMA user_version = 1;"
    "INSERT INTO tokens VALUES(7, 1, 2, 'grafana', zeroblob(32), 1000, 0, 0),"
    " (9, 2, 1, 'of it', x'01' || zeroblob(31), 1000, 5000, 7);"
    "UPDATE sqlite_sequence SET seq = 12;";

TEST_F(settings_agents_test, a_file_of_the_version_before_is_taken_over) {
    kept.reset();
    fs::remove(path);
    std::string made = layout_1; /* blobs that are put together are blobs only by a cast */
    made.replace(made.find("x'01' || zeroblob(31)"), 21, "CAST(x'01' || zeroblob(31) AS BLOB)");
    sql(made);
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(note, "");
    std::vector<stored_token> tokens;
    auto add_one = [&](const stored_token& t) { tokens.push_back(t); };
    EXPECT_TRUE(kept->for_each_token(add_one, error)) << error;
    ASSERT_EQ(tokens.size(), 2u);
    EXPECT_EQ(tokens[0].id, 7);
    EXPECT_EQ(tokens[0].name, "grafana");
    EXPECT_EQ(tokens[1].parent, 7);
    EXPECT_EQ(tokens[1].ends, 5000);
    put({.account = "a@x", .agent = "web"});
    add(token(1, "web"));
    EXPECT_TRUE(kept->put_secret({.name = "s", .sealed = "x", .by = ""}, error)) << error;
    int64_t id = 0;
    EXPECT_TRUE(kept->add_token({.name = "more", .hash = hash(3)}, id, error)) << error;
    EXPECT_EQ(id, 13); /* never twice */
    size_t admitted = 0;
    EXPECT_TRUE(kept->admit_at_first({{"a@x", "db"}}, 7, admitted, error)) << error;
    EXPECT_EQ(admitted, 1u); /* it never had the chance */
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(identities().size(), 2u);
}

/* As the version before this one made it, behind layout 1. */
static const char layout_2[] =
    "CREATE TABLE facts(name TEXT PRIMARY KEY, value INTEGER NOT NULL) STRICT, WITHOUT ROWID;"
    "CREATE TABLE identities("
    "  account TEXT NOT NULL, agent TEXT NOT NULL, admitted INTEGER NOT NULL, who TEXT NOT NULL,"
    "  highest INTEGER NOT NULL, good_from INTEGER NOT NULL, revoked INTEGER NOT NULL,"
    "  key_hash BLOB NOT NULL, authority BLOB NOT NULL, issued INTEGER NOT NULL,"
    "  ends INTEGER NOT NULL, knows BLOB NOT NULL,"
    "  PRIMARY KEY(account, agent)) STRICT, WITHOUT ROWID;"
    "CREATE TABLE enrolments("
    "  hash BLOB PRIMARY KEY, account TEXT NOT NULL, agent TEXT NOT NULL, who TEXT NOT NULL,"
    "  made INTEGER NOT NULL, ends INTEGER NOT NULL, key_hash BLOB, generation INTEGER NOT NULL)"
    "  STRICT, WITHOUT ROWID;"
    "CREATE TABLE secrets("
    "  name TEXT PRIMARY KEY, sealed BLOB NOT NULL, who TEXT NOT NULL, made INTEGER NOT NULL,"
    "  serial INTEGER NOT NULL) STRICT, WITHOUT ROWID;"
    "INSERT INTO facts VALUES('admitted_at_first', 1), ('last_secret', 5);"
    "INSERT INTO secrets VALUES('mail', x'01', 'anna', 7, 5);"
    "PRAGMA user_version = 2;";

TEST_F(settings_agents_test, what_was_decided_stays_when_a_file_is_taken_over) {
    kept.reset();
    fs::remove(path);
    std::string made = layout_1;
    sql(made.substr(0, made.find("INSERT")) + layout_2);
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(note, "");
    std::vector<stored_secret> secrets;
    EXPECT_TRUE(kept->for_each_secret([&](const stored_secret& s) { secrets.push_back(s); }, error))
        << error;
    ASSERT_EQ(secrets.size(), 1u);
    EXPECT_EQ(secrets[0].serial, 5u);
    size_t admitted = 0;
    EXPECT_TRUE(kept->admit_at_first({{"a@x", "db"}}, 7, admitted, error)) << error;
    EXPECT_EQ(admitted, 0u) << "that was in its life before";
    EXPECT_TRUE(kept->keep_fleet({.newest = 3, .text = "x"}, error)) << error;
    std::optional<fleet_copy> found;
    ASSERT_TRUE(open()) << error;
    EXPECT_TRUE(kept->read_fleet_copy(found, error)) << error;
    ASSERT_TRUE(found);
    EXPECT_EQ(found->newest, 3);
}

TEST_F(settings_agents_test, a_file_is_taken_over_by_one_of_several) {
    for (int round = 0; round < 5; round++) {
        kept.reset();
        fs::remove(path);
        std::string made = layout_1;
        sql(made.substr(0, made.find("INSERT")));
        enum { processes = 4 };
        pid_t children[processes];
        for (int p = 0; p < processes; p++) {
            children[p] = fork();
            if (children[p] == 0) {
                std::string n, e;
                auto own = settings::open(state, n, e);
                stored_identity mine{.account = "a@x", .agent = std::to_string(p)};
                _exit(own && own->put_identity(mine, e) ? 0 : 1);
            }
        }
        for (pid_t child : children) {
            int status = 0;
            waitpid(child, &status, 0);
            EXPECT_EQ(status, 0);
        }
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(identities().size(), size_t{processes});
    }
}

/* All or nothing: what cannot be taken over is as it was. A file size limit is the full disk. */
TEST_F(settings_agents_test, a_file_that_cannot_be_taken_over_is_left_as_it_was) {
    kept.reset();
    fs::remove(path);
    std::string made = layout_1;
    sql(made.substr(0, made.find("INSERT")));
    const std::string before = read_text(path);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    rlimit full = {.rlim_cur = before.size() + 100, .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    bool could = open();
    std::string why = error;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_FALSE(could);
    EXPECT_TRUE(why.starts_with(path + ": ")) << why;
    EXPECT_EQ(note, "");
    EXPECT_EQ(read_text(path), before);
    ASSERT_TRUE(open()) << error;
    EXPECT_TRUE(identities().empty());

    kept.reset();
    fs::remove(path);
    sql(made.substr(0, made.find("INSERT")) + "CREATE TABLE secrets(mine)");
    EXPECT_FALSE(open());
    EXPECT_EQ(error, path + ": table secrets already exists");
    sql("INSERT INTO secrets VALUES('of somebody'); CREATE TABLE facts(of_theirs)");
}

TEST_F(settings_agents_test, a_full_disk_loses_nothing) {
    put({.account = "a@x", .agent = "web", .admitted = 5, .highest = 1});
    add(token(1, "web"));
    EXPECT_TRUE(kept->put_secret({.name = "s", .sealed = "x", .by = ""}, error)) << error;
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit full = {.rlim_cur = 100, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    strings why;
    auto fails = [&](bool done) { why.push_back(done ? "done" : error); };
    opened how = opened::no_token;
    size_t admitted = 0;
    auto more = [](stored_identity& what) { return ++what.highest > 0; };
    fails(kept->put_identity({.account = "a@x", .agent = "new"}, error));
    fails(kept->change_identity("a@x", "web", more, error));
    fails(kept->drop_identity("a@x", "web", error));
    fails(kept->admit_at_first({{"a@x", "new"}}, 1, admitted, error));
    fails(kept->add_enrolment(token(2, "db"), error));
    fails(kept->open_enrolment(hash(1), hash(7), "", "", 1500, how, found, error));
    fails(kept->drop_enrolments("a@x", "web", error));
    fails(kept->put_secret({.name = "s", .sealed = "y", .by = ""}, error));
    fails(kept->drop_secret("s", error));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    for (const std::string& each : why) {
        EXPECT_TRUE(each.starts_with(path + ": ")) << each;
    }
    EXPECT_EQ(why.size(), 9u);
    EXPECT_EQ(admitted, 0u);
    ASSERT_EQ(identities().size(), 1u);
    EXPECT_EQ(text_of("web"), "admitted 0/1");
    ASSERT_EQ(secrets().size(), 1u);
    EXPECT_EQ(secrets()[0].sealed, "x");
    EXPECT_EQ(use(1, 8), opened::yes); /* it was not used up */
    EXPECT_EQ(found.generation, 2u);
}
