#include "fleet/assigned.h"

#include "fleet_tests.h"

#include <chrono>
#include <random>

namespace {

/* An agent and what is wanted of it. */
struct fleet_assigned : testing::Test {
    assigned_agent now;
    agent_inventory has = {.file_systems = strings{"/(/dev/sda1|ext4)"},
                           .interfaces = strings{"eth0"}};
    std::map<std::string, uint64_t, std::less<>> secrets;
    int32_t revision = 0;
    fleet_intervals intervals;

    std::vector<fleet_change> apply(shared_tests tests) {
        fleet all = fleet_of(std::move(tests));
        all.intervals = intervals;
        wanted_agent wanted = wanted_of(all, "me", "web-1", has, now.found());
        return assign(now, wanted, ++revision, [this](std::string_view name) -> uint64_t {
            auto found = secrets.find(name);
            return found != secrets.end() ? found->second : 0;
        });
    }
    /* The same, in a word or two each: "add a 1". */
    strings said(shared_tests tests) {
        strings all;
        for (const fleet_change& change : apply(std::move(tests))) {
            all.push_back(std::string(action_word(change.action)) + " " +
                          (change.was.empty() ? "" : change.was + " ") + change.test + " " +
                          std::to_string(change.number) +
                          (change.impossible.empty() ? "" : ": " + change.impossible));
        }
        return all;
    }
    strings said(const std::vector<test_maker>& tests) { return said(of(tests)); }
    const assigned_test& test(std::string_view name) {
        assigned_test* found = now.find(name);
        EXPECT_NE(found, nullptr) << name;
        static const assigned_test none;
        return found != nullptr ? *found : none;
    }
    void begin(const std::vector<test_maker>& tests) {
        said(tests);
        EXPECT_EQ(said(tests), strings());
    }
};

test_maker load(std::string name) {
    return test_maker(std::move(name), "load");
}
test_maker page(std::string name) {
    return test_maker(std::move(name), "http");
}

} // namespace

TEST_F(fleet_assigned, tests_get_numbers_and_revisions) {
    intervals = {.poll = 30, .check = 60};
    EXPECT_EQ(said({load("b"), page("a")}), (strings{"intervals  0", "add a 1", "add b 2"}));
    EXPECT_EQ(now.newest, 1);
    EXPECT_EQ(now.poll, 30);
    EXPECT_EQ(now.check, 60);
    EXPECT_EQ(test("a").number, 1);
    EXPECT_EQ(test("a").added, 1);
    EXPECT_EQ(test("a").revision, 1);
    EXPECT_EQ(test("a").confirmed, 0);
    EXPECT_EQ(said({load("b"), page("a")}), strings()) << "the same again changes nothing";
    EXPECT_EQ(now.newest, 1);
    EXPECT_EQ(now.find(protocol::http.code, 1), &test("a"));
    EXPECT_EQ(now.find(protocol::http.code, 2), nullptr);
    EXPECT_EQ(now.find(protocol::http.code, 0), nullptr);
    EXPECT_EQ(now.find("x"), nullptr);
}

TEST_F(fleet_assigned, another_limit_is_a_change_of_that_test) {
    begin({load("a").shown("1m", "8"), load("b")});
    now.find("a")->confirmed = 1;
    std::vector<fleet_change> changes =
        apply(of({load("a").field(0, "9").shown("1m", "9").shown("5m", "6"), load("b")}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].action, change_action::change);
    EXPECT_EQ(changes[0].number, 1);
    EXPECT_EQ(changes[0].type, protocol::load_average.code);
    ASSERT_EQ(changes[0].fields.size(), 2u);
    EXPECT_EQ(changes[0].fields[0].name, "1m");
    EXPECT_EQ(changes[0].fields[0].from, "8");
    EXPECT_EQ(changes[0].fields[0].to, "9");
    EXPECT_EQ(changes[0].fields[1].from, "");
    EXPECT_EQ(test("a").added, 1);
    EXPECT_EQ(test("a").revision, revision);
    EXPECT_EQ(test("a").confirmed, 1);
    EXPECT_EQ(test("b").revision, 1);
    EXPECT_EQ(now.newest, revision);
    changes = apply(of({load("a"), load("b")}));
    ASSERT_EQ(changes.size(), 1u);
    ASSERT_EQ(changes[0].fields.size(), 2u);
    EXPECT_EQ(changes[0].fields[0].to, "");
}

TEST_F(fleet_assigned, what_is_added_is_told_in_full) {
    std::vector<fleet_change> changes = apply(of({load("a").shown("1m", "8").shown("5m", "6")}));
    ASSERT_EQ(changes.back().fields.size(), 2u);
    EXPECT_EQ(changes.back().fields[0].name, "1m");
    EXPECT_EQ(changes.back().fields[0].from, "");
    EXPECT_EQ(changes.back().fields[0].to, "8");
    changes = apply(of({page("a").shown("http", "https://shop.example.org/")}));
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_TRUE(changes[0].fields.empty()) << "of what is removed nothing is told";
    ASSERT_EQ(changes[1].fields.size(), 1u) << "another kind";
    EXPECT_EQ(changes[1].fields[0].name, "http");
    changes = apply(of({test_maker("d", "disk").at("/x").shown("disk", "/x"), page("a")}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].impossible, "there is no disk /x; there is /");
    EXPECT_EQ(changes[0].fields.size(), 1u);
}

TEST_F(fleet_assigned, what_is_not_shown_is_said_to_be_another) {
    begin({page("a").field(6, "one").shown("password", "***")});
    std::vector<fleet_change> changes =
        apply(of({page("a").field(6, "two").shown("password", "***")}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_TRUE(changes[0].fields.empty());
    EXPECT_EQ(changes[0].reason, "something of it that is not shown has changed");
}

TEST_F(fleet_assigned, fields_that_run_together_are_another_test) {
    begin({load("a").field(0, "1").field(1, "23")});
    EXPECT_EQ(said({load("a").field(0, "12").field(1, "3")}), strings{"change a 1"});
}

TEST_F(fleet_assigned, a_group_is_no_change) {
    begin({load("a").in("one")});
    EXPECT_EQ(said({load("a").in("two")}), strings());
    EXPECT_EQ(test("a").group, "two");
}

TEST_F(fleet_assigned, what_is_removed_is_remembered_and_its_number_never_given_again) {
    begin({load("a"), load("b")});
    EXPECT_EQ(said({load("b")}), strings{"remove a 1"});
    ASSERT_EQ(now.removed.size(), 1u);
    EXPECT_EQ(now.removed[0].name, "a");
    EXPECT_EQ(now.removed[0].number, 1);
    EXPECT_EQ(now.removed[0].type, protocol::load_average.code);
    EXPECT_EQ(now.removed[0].revision, revision);
    EXPECT_EQ(said({load("a"), load("b")}), strings{"add a 3"});
    now.removed.clear();
    EXPECT_EQ(said({load("a"), load("b"), load("c")}), strings{"add c 4"});
}

TEST_F(fleet_assigned, numbers_begin_above_any_that_was_seen) {
    now.removed.push_back({.type = protocol::load_average.code, .number = 800, .revision = 0});
    EXPECT_EQ(said({load("a")}).back(), "add a 801");
    now.next_number = 5000;
    EXPECT_EQ(said({load("a"), load("b")}), strings{"add b 5000"});
}

TEST_F(fleet_assigned, a_forged_number_does_not_use_the_numbers_up) {
    for (int32_t number : {INT32_MAX, INT32_MAX - 1, highest_believed + 1}) {
        now.removed.push_back({.type = protocol::load_average.code, .number = number});
    }
    EXPECT_EQ(said({load("a")}).back(), "add a 1");
    now.removed.push_back({.type = protocol::load_average.code, .number = highest_believed});
    EXPECT_EQ(said({load("a"), load("b")}), strings{"add b 2000000001"});
}

TEST_F(fleet_assigned, without_a_number_a_test_is_impossible) {
    now.next_number = INT32_MAX - 1;
    strings changes = said({load("a"), load("b")});
    EXPECT_EQ(changes, (strings{"intervals  0", "add a 2147483646",
                                "add b 0: there is no number left for another test"}));
    EXPECT_EQ(said({load("a"), load("b")}), strings());
    now.removed.push_back({.type = protocol::load_average.code, .number = INT32_MAX});
    EXPECT_EQ(said({load("a"), load("b")}), strings());
}

TEST_F(fleet_assigned, was_gives_another_name_and_nothing_else) {
    begin({load("a"), load("b")});
    EXPECT_EQ(said({load("b"), load("z").was("a")}), strings{"rename a z 1"});
    EXPECT_EQ(test("z").number, 1);
    EXPECT_EQ(test("z").revision, 1);
    EXPECT_TRUE(now.removed.empty());
    EXPECT_EQ(said({load("b"), load("z").was("a")}), strings()) << "it stays there";
    EXPECT_EQ(said({load("b"), load("z")}), strings()) << "and goes";
    EXPECT_EQ(now.newest, 1);
}

TEST_F(fleet_assigned, a_rename_that_changes_too_is_both) {
    begin({load("a")});
    EXPECT_EQ(said({load("z").was("a").field(0, "1")}), (strings{"rename a z 1", "change z 1"}));
    EXPECT_EQ(said({load("a").was("z")}), (strings{"rename z a 1", "change a 1"}));
}

TEST_F(fleet_assigned, was_of_what_is_not_there_is_an_addition) {
    EXPECT_EQ(said({load("z").was("a")}).back(), "add z 1");
    EXPECT_EQ(said({load("z").was("z")}), strings());
    EXPECT_EQ(said({load("a"), load("z").was("a")}), strings{"add a 2"});
    EXPECT_EQ(said({load("a"), load("z").was("a")}), strings());
    EXPECT_EQ(said({load("z").was("a")}), strings{"remove a 2"});
}

TEST_F(fleet_assigned, names_are_passed_on_in_chains) {
    begin({load("a"), load("b").field(0, "2")});
    EXPECT_EQ(said({load("b").was("a"), load("c").was("b").field(0, "2")}),
              (strings{"rename a b 1", "rename b c 2"}));
    EXPECT_EQ(said({load("b").was("a"), load("c").was("b").field(0, "2")}), strings());
    EXPECT_EQ(test("b").number, 1);
    EXPECT_EQ(test("c").number, 2);
}

TEST_F(fleet_assigned, names_are_exchanged_once) {
    begin({load("a"), load("b").field(0, "2")});
    std::vector<test_maker> swapped{load("a").was("b").field(0, "2"), load("b").was("a")};
    EXPECT_EQ(said(swapped), (strings{"rename b a 2", "rename a b 1"}));
    for (int i = 0; i < 3; ++i) {
        std::string packed;
        now.pack(packed);
        ASSERT_TRUE(now.unpack(packed));
        EXPECT_EQ(said(swapped), strings());
    }
    EXPECT_EQ(test("a").number, 2);
    EXPECT_EQ(said({load("a").field(0, "2"), load("b")}), strings());
    EXPECT_EQ(said({load("b").was("a").field(0, "2"), load("a").was("b")}),
              (strings{"rename b a 1", "rename a b 2"}));
}

TEST_F(fleet_assigned, three_names_go_round) {
    begin({load("a"), load("b"), load("c")});
    EXPECT_EQ(said({load("a").was("c"), load("b").was("a"), load("c").was("b")}),
              (strings{"rename c a 3", "rename a b 1", "rename b c 2"}));
}

TEST_F(fleet_assigned, a_name_that_is_taken_over_loses_its_test) {
    begin({load("a"), load("b")});
    EXPECT_EQ(said({load("b").was("a")}), (strings{"remove b 2", "rename a b 1"}));
}

TEST_F(fleet_assigned, a_name_that_goes_on_beside_another_that_is_there_keeps_its_test) {
    begin({load("a"), load("b")});
    EXPECT_EQ(said({load("a"), load("b").was("a")}), strings());
    EXPECT_EQ(test("a").number, 1);
    EXPECT_EQ(test("b").number, 2);
}

TEST_F(fleet_assigned, an_old_name_may_be_given_to_a_new_test) {
    begin({load("a")});
    EXPECT_EQ(said({load("a"), load("b").was("a")}), (strings{"add a 2", "rename a b 1"}));
    EXPECT_EQ(said({load("a"), load("b").was("a")}), strings());
}

TEST_F(fleet_assigned, of_two_that_claim_a_name_the_first_has_it) {
    begin({load("a")});
    EXPECT_EQ(said({load("c").was("a"), load("b").was("a")}), (strings{"rename a b 1", "add c 2"}));
}

TEST_F(fleet_assigned, another_kind_is_another_test) {
    begin({load("a")});
    EXPECT_EQ(said({page("a")}), (strings{"remove a 1", "add a 2"}));
    EXPECT_EQ(said({load("z").was("a")}), (strings{"remove a 2", "add z 3"}));
    ASSERT_EQ(now.removed.size(), 2u);
    EXPECT_EQ(now.removed[1].type, protocol::http.code);
}

TEST_F(fleet_assigned, what_is_impossible_has_no_number_until_it_is_not) {
    has = {};
    EXPECT_EQ(said({test_maker("d", "disk")}).back(),
              "add d 0: the agent has not said yet which disks it has");
    EXPECT_EQ(said({test_maker("d", "disk")}), strings());
    has.file_systems = strings{"/x(/dev/sda1|ext4)"};
    EXPECT_EQ(said({test_maker("d", "disk")}), strings{"add d 0: there is no disk /; there is /x"});
    EXPECT_EQ(said({test_maker("d", "disk").field(1, "9")}), strings());
    has.file_systems->push_back("/run/user/1000(tmpfs|tmpfs)");
    EXPECT_EQ(said({test_maker("d", "disk")}), strings()) << "what else there is comes and goes";
    EXPECT_EQ(test("d").impossible, "there is no disk /; there are /x, /run/user/1000");
    has.file_systems->clear();
    EXPECT_EQ(said({test_maker("d", "disk")}), strings());
    EXPECT_EQ(said({test_maker("d", "disk").at("/y")}),
              strings{"add d 0: there is no disk /y; there "
                      "is no other"});
    EXPECT_EQ(said({test_maker("d", "disk")}), strings{"add d 0: there is no disk /; there is no "
                                                       "other"});
    has.file_systems->push_back("/(/dev/sdb1|ext4)");
    EXPECT_EQ(said({test_maker("d", "disk")}), strings{"add d 1"});
    EXPECT_EQ(test("d").added, revision);
    EXPECT_EQ(test("d").found, "/(/dev/sdb1|ext4)");
    EXPECT_EQ(test("d").its_fields()[0], "/(/dev/sdb1|ext4)");
    has.file_systems->clear();
    EXPECT_EQ(said({test_maker("d", "disk")}), strings()) << "what was found is kept";
    has.file_systems->push_back("/(/dev/sdc1|ext4)");
    std::vector<fleet_change> changes = apply(of({test_maker("d", "disk")}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].reason, "it is /(/dev/sdc1|ext4) now");
}

TEST_F(fleet_assigned, what_was_never_sent_leaves_nothing) {
    has.file_systems->clear();
    said({test_maker("d", "disk")});
    EXPECT_EQ(said(shared_tests()), strings{"remove d 0"});
    EXPECT_TRUE(now.removed.empty());
    EXPECT_TRUE(now.tests.empty());
    EXPECT_EQ(now.next_number, 1);
}

TEST_F(fleet_assigned, what_looks_for_something_that_is_not_there_is_taken_away) {
    begin({test_maker("d", "disk")});
    EXPECT_EQ(said({test_maker("d", "disk").at("/data")}),
              (strings{"remove d 1", "add d 0: there is no disk /data; there is /"}));
    ASSERT_EQ(now.removed.size(), 1u);
    EXPECT_EQ(said({test_maker("d", "disk").at("/data")}), strings());
    EXPECT_EQ(said({test_maker("d", "disk")}), strings{"add d 2"});
}

TEST_F(fleet_assigned, what_waits_for_an_inventory_stays_as_it_is) {
    begin({test_maker("d", "disk")});
    has.file_systems = {};
    EXPECT_EQ(said({test_maker("d", "disk").at("/data")}),
              strings{"change d 1: the agent has not said yet which disks it has"});
    EXPECT_TRUE(now.removed.empty());
    has.file_systems = strings{"/data(/dev/sdb1|ext4)"};
    EXPECT_EQ(said({test_maker("d", "disk").at("/data")}), strings{"change d 1"});
    EXPECT_EQ(test("d").returned, revision);
}

TEST_F(fleet_assigned, a_secret_that_is_missing_keeps_a_test_back) {
    auto db = [] { return test_maker("db", "mysql").field(4, "${secret:db}"); };
    EXPECT_EQ(said({db()}).back(), "add db 0: the secret db is not set");
    secrets["db"] = 7;
    EXPECT_EQ(said({db()}), strings{"add db 1"});
    EXPECT_EQ(said({db()}), strings());
    secrets["db"] = 8;
    std::vector<fleet_change> changes = apply(of({db()}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].reason, "another value of the secret db");
    int32_t last = revision;
    secrets.clear();
    EXPECT_EQ(said({db()}), strings{"change db 1: the secret db is not set"});
    EXPECT_EQ(said({db()}), strings());
    EXPECT_EQ(said({db().field(6, "9")}), strings()) << "for the same reason";
    EXPECT_EQ(test("db").number, 1);
    EXPECT_EQ(test("db").revision, last) << "the agent has it as it was";
    EXPECT_TRUE(now.removed.empty());
    secrets["db"] = 8;
    changes = apply(of({db()}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].impossible, "");
    EXPECT_EQ(changes[0].reason, "it can be sent again");
    EXPECT_EQ(test("db").revision, revision);
    EXPECT_EQ(test("db").returned, revision);
    EXPECT_EQ(said({db()}), strings());
    secrets.clear();
    said({db()});
    EXPECT_EQ(said(shared_tests()), strings{"remove db 1"});
    EXPECT_EQ(now.removed.size(), 1u) << "it may be there still";
}

TEST_F(fleet_assigned, a_share_becomes_a_limit_of_its_own) {
    auto d = [] { return test_maker("d", "disk").share(10).shown("free", "10 %"); };
    std::vector<fleet_change> changes = apply(of({d()}));
    EXPECT_EQ(changes.back().reason, "10 % once the size of the disk is known");
    EXPECT_EQ(test("d").its_fields()[1], "0");
    EXPECT_TRUE(note_whole(*now.find("d"), 50));
    changes = apply(of({d()}));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].action, change_action::change);
    EXPECT_EQ(changes[0].reason, "10 % of 50 GB");
    EXPECT_EQ(test("d").its_fields()[1], "5");
    EXPECT_FALSE(note_whole(*now.find("d"), 50.2));
    EXPECT_FALSE(note_whole(*now.find("d"), 49.8));
    EXPECT_EQ(said({d()}), strings());
    EXPECT_TRUE(note_whole(*now.find("d"), 60));
    EXPECT_EQ(said({d()}), strings{"change d 1"});
    EXPECT_EQ(test("d").its_fields()[1], "6");
    EXPECT_EQ(said({test_maker("e", "disk").share(10).was("d")}), strings{"rename d e 1"});
}

TEST_F(fleet_assigned, of_a_disk_that_is_not_mounted_nothing_is_learnt) {
    begin({test_maker("d", "disk")});
    EXPECT_TRUE(is_mounted(test("d"), has));
    EXPECT_TRUE(is_mounted(test("d"), {}));
    EXPECT_FALSE(is_mounted(test("d"), {.file_systems = strings{"/x(/dev/sda1|ext4)"}}));
    EXPECT_FALSE(is_mounted(test("d"), {.file_systems = strings{"/(/dev/sdb1|ext4)"}}))
        << "another disk in its place is found first";
}

TEST_F(fleet_assigned, no_whole_that_is_no_size_is_noted) {
    assigned_test test;
    for (double whole : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                         std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_FALSE(note_whole(test, whole));
    }
    EXPECT_EQ(test.whole_gb, 0);
    /* What creeps is told from what was noted, not from what came last. */
    EXPECT_TRUE(note_whole(test, 100));
    int noted = 0;
    for (double whole = 100; whole < 110; whole += 0.1) {
        noted += note_whole(test, whole);
    }
    EXPECT_GT(noted, 10);
    EXPECT_LT(noted, 21);
}

TEST_F(fleet_assigned, intervals_change_by_themselves) {
    begin({});
    intervals.poll = 30;
    std::vector<fleet_change> changes = apply({});
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].action, change_action::intervals);
    EXPECT_EQ(changes[0].test, "");
    ASSERT_EQ(changes[0].fields.size(), 1u);
    EXPECT_EQ(changes[0].fields[0].name, "poll");
    EXPECT_EQ(changes[0].fields[0].from, "60s");
    EXPECT_EQ(changes[0].fields[0].to, "30s");
    EXPECT_EQ(now.poll_revision, revision);
    EXPECT_LT(now.check_revision, revision);
    EXPECT_EQ(now.intervals_revision(), revision);
    EXPECT_EQ(now.newest, revision);
}

TEST_F(fleet_assigned, removals_that_are_over_do_not_pile_up) {
    for (int i = 0; i < 1000; ++i) {
        said({load("a" + std::to_string(i))});
        for (removed_test& test : now.removed) {
            test.is_over = test.number != 3;
        }
    }
    EXPECT_LE(now.removed.size(), 203u);
    EXPECT_EQ(now.removed[0].number, 3) << "that one is not";
    EXPECT_EQ(now.removed.back().number, 999);
    EXPECT_EQ(now.next_number, 1001);
}

TEST_F(fleet_assigned, what_is_packed_comes_back) {
    secrets["db"] = 3;
    said({load("a").in("group"), test_maker("d", "disk").share(5), test_maker("x", "disk").at("/x"),
          test_maker("p", "mysql").field(4, "${secret:db}"), page("z").was("y")});
    note_whole(*now.find("d"), 12.25);
    secrets.clear();
    said({test_maker("d", "disk").share(5), test_maker("x", "disk").at("/x"),
          test_maker("p", "mysql").field(4, "${secret:db}"), page("z").was("y")});
    now.find("d")->confirmed = 1;
    now.removed[0].is_over = true;
    std::string packed;
    now.pack(packed);
    assigned_agent back;
    ASSERT_TRUE(back.unpack(packed));
    EXPECT_EQ(back.next_number, now.next_number);
    EXPECT_EQ(back.newest, now.newest);
    ASSERT_EQ(back.tests.size(), now.tests.size());
    for (size_t i = 0; i < back.tests.size(); ++i) {
        const assigned_test &one = back.tests[i], &other = now.tests[i];
        EXPECT_EQ(one.name, other.name);
        EXPECT_EQ(one.group, other.group);
        EXPECT_EQ(one.kind, other.kind);
        EXPECT_EQ(one.number, other.number);
        EXPECT_EQ(one.added, other.added);
        EXPECT_EQ(one.revision, other.revision);
        EXPECT_EQ(one.confirmed, other.confirmed);
        EXPECT_EQ(one.returned, other.returned);
        EXPECT_EQ(one.was, other.was);
        EXPECT_EQ(one.digest, other.digest);
        EXPECT_EQ(one.found, other.found);
        EXPECT_EQ(one.whole_gb, other.whole_gb);
        EXPECT_EQ(one.impossible, other.impossible);
        EXPECT_EQ(one.what, nullptr);
    }
    ASSERT_EQ(back.removed.size(), 1u);
    EXPECT_EQ(back.removed[0].name, "a");
    EXPECT_TRUE(back.removed[0].is_over);
    std::string again;
    back.pack(again);
    EXPECT_EQ(again, packed);
    now = back;
    EXPECT_EQ(said({test_maker("d", "disk").share(5), test_maker("x", "disk").at("/x"),
                    test_maker("p", "mysql").field(4, "${secret:db}"), page("z").was("y")}),
              strings());
    for (const assigned_test& each : now.tests) {
        EXPECT_NE(each.what, nullptr) << "what they are is known again";
    }
}

TEST_F(fleet_assigned, damage_is_seen) {
    begin({load("a"), page("b"), test_maker("d", "disk")});
    said({page("b"), test_maker("d", "disk")});
    std::string packed;
    now.pack(packed);
    assigned_agent back;
    for (size_t size = 0; size < packed.size(); ++size) {
        back.next_number = 77;
        EXPECT_FALSE(back.unpack(std::string_view(packed).substr(0, size)));
        EXPECT_EQ(back.next_number, 1);
        EXPECT_TRUE(back.tests.empty());
    }
    EXPECT_FALSE(back.unpack(packed + "x"));
    for (size_t bit = 0; bit < 8 * packed.size(); ++bit) {
        std::string damaged = packed;
        damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
        EXPECT_FALSE(back.unpack(damaged));
    }
    ASSERT_TRUE(back.unpack(packed));
    /* What no assigning makes. */
    assigned_agent bad = now;
    bad.tests[1].name = bad.tests[0].name;
    bad.pack(packed);
    EXPECT_FALSE(back.unpack(packed));
    bad = now;
    bad.tests[1].number = bad.tests[0].number;
    bad.pack(packed);
    EXPECT_FALSE(back.unpack(packed));
    bad = now;
    bad.next_number = 2;
    bad.pack(packed);
    EXPECT_FALSE(back.unpack(packed));
}

TEST_F(fleet_assigned, an_agent_of_which_nothing_is_known_is_packed_too) {
    std::string packed;
    assigned_agent().pack(packed);
    EXPECT_TRUE(now.unpack(packed));
    EXPECT_EQ(now.next_number, 1);
}

TEST_F(fleet_assigned, a_thousand_agents_are_done_in_no_time) {
    std::vector<test_maker> makers;
    const char* kinds[] = {"load", "http", "disk", "ping", "snmp"};
    for (int i = 0; i < 20; ++i) {
        makers.push_back(test_maker("test " + std::to_string(i), kinds[i % 5]));
    }
    fleet before = fleet_of(of(makers)), after = before;
    for (test_maker& maker : makers) {
        maker.test.fields.back() += "1";
    }
    after.groups[0].tests = of(makers);
    std::vector<assigned_agent> agents(1000);
    std::chrono::duration<double, std::milli> took[2] = {};
    for (int round = 0; round < 2; ++round) {
        auto begin = std::chrono::steady_clock::now();
        size_t changes = 0;
        for (size_t i = 0; i < agents.size(); ++i) {
            wanted_agent wanted = wanted_of(round == 0 ? before : after, "me",
                                            "web-" + std::to_string(i), has, agents[i].found());
            changes += assign(agents[i], wanted, round + 1, [](std::string_view) -> uint64_t {
                           return 1;
                       }).size();
        }
        took[round] = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(changes, 20000u);
    }
    RecordProperty("milliseconds",
                   std::to_string(took[0].count()) + " " + std::to_string(took[1].count()));
    printf("assigning 20,000 tests: %.0f ms, changing them: %.0f ms\n", took[0].count(),
           took[1].count());
    /* Not a matter of speed here: nothing in it may grow with the square of anything. */
    EXPECT_LT(took[1].count(), 10000);
}
