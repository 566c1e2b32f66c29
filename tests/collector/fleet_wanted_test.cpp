#include "fleet/wanted.h"

#include "fleet_tests.h"

namespace {

using befores = std::map<std::string, found_before, std::less<>>;

wanted_agent look(const fleet& all, const agent_inventory& has = {}, const befores& before = {}) {
    return wanted_of(all, "me@example.org", "web-1", has, before);
}

/* The only test of a fleet. */
wanted_test only(test_maker test, const agent_inventory& has, const befores& before = {}) {
    wanted_agent wanted = look(fleet_of({test.make()}), has, before);
    EXPECT_EQ(wanted.tests.size(), 1u);
    return wanted.tests.empty() ? wanted_test() : wanted.tests[0];
}

agent_inventory disks(strings entries) {
    return {.file_systems = std::move(entries)};
}
agent_inventory interfaces(strings names) {
    return {.interfaces = std::move(names)};
}
test_maker disk(std::string directory) {
    return test_maker("d", "disk").at(std::move(directory));
}
test_maker interface(std::string name) {
    return test_maker("n", "network").at(std::move(name));
}

strings names_of(const wanted_agent& wanted) {
    strings names;
    for (const wanted_test& test : wanted.tests) {
        names.push_back(test.what->name);
    }
    return names;
}

} // namespace

TEST(fleet_wanted, an_empty_fleet_wants_nothing) {
    wanted_agent wanted = look({});
    EXPECT_TRUE(wanted.tests.empty());
    EXPECT_TRUE(wanted.groups.empty());
    EXPECT_EQ(wanted.poll, 60);
    EXPECT_EQ(wanted.check, 60);
}

TEST(fleet_wanted, later_groups_override_and_off_takes_away) {
    fleet all;
    all.groups.push_back(group_of(
        "first", {"web-*"},
        of({test_maker("b", "load").in("first"), test_maker("a", "ping").in("first"),
            test_maker("gone", "memory").in("first"), test_maker("back", "memory").in("first")})));
    all.groups.push_back(group_of("others", {"db-*"}, of({test_maker("c", "cpu").in("others")})));
    all.groups.push_back(
        group_of("last", {"me@example.org/*"},
                 {test_maker("b", "cpu").in("last").make(), off("gone"), off("back"), off("x")}));
    all.groups.push_back(group_of("more", {"*"}, of({test_maker("back", "load").in("more")})));
    wanted_agent wanted = look(all);
    EXPECT_EQ(wanted.groups, (strings{"first", "last", "more"}));
    ASSERT_EQ(names_of(wanted), (strings{"a", "b", "back"}));
    EXPECT_EQ(wanted.tests[1].what->group, "last");
    EXPECT_EQ(wanted.tests[2].what->group, "more");
    EXPECT_EQ(wanted.tests[1].its_fields(), sample_fields("cpu"));
}

TEST(fleet_wanted, the_shortest_interval_of_the_agents_groups_wins) {
    fleet all;
    all.intervals = {.poll = 20, .check = 300};
    EXPECT_EQ(look(all).poll, 20);
    all.groups.push_back(group_of("a", {"*"}, {}));
    EXPECT_EQ(look(all).check, 300);
    all.groups.push_back(group_of("b", {"*"}, {}, {.poll = 90, .check = {}}));
    EXPECT_EQ(look(all).poll, 90) << "what a group says counts more than what the file says";
    EXPECT_EQ(look(all).about_intervals, "");
    all.groups.push_back(group_of("c", {"*"}, {}, {.poll = 30, .check = 45}));
    all.groups.push_back(group_of("d", {"db-*"}, {}, {.poll = 5, .check = 5}));
    all.groups.push_back(group_of("e", {"*"}, {}, {.poll = 30, .check = 45}));
    wanted_agent wanted = look(all);
    EXPECT_EQ(wanted.poll, 30);
    EXPECT_EQ(wanted.check, 45);
    EXPECT_EQ(wanted.about_intervals, "poll: 30s of c is shorter than 1m30s of b");
    all.groups.push_back(group_of("f", {"*"}, {}, {.poll = 40, .check = 50}));
    EXPECT_EQ(
        look(all).about_intervals,
        "poll: 30s of c is shorter than 1m30s of b; check: 45s of c is shorter than 50s of f");
}

TEST(fleet_wanted, a_disk_becomes_the_entry_of_the_inventory) {
    agent_inventory has = disks({"/(/dev/sda1|ext4)", "/data(/dev/sdb1|xfs)", "/run(tmpfs|tmpfs)"});
    wanted_test test = only(disk("/data"), has);
    EXPECT_EQ(test.impossible, "");
    EXPECT_EQ(test.found, "/data(/dev/sdb1|xfs)");
    EXPECT_EQ(test.its_fields(), (strings{"/data(/dev/sdb1|xfs)", "5"}));
    EXPECT_EQ(only(disk("/"), has).found, "/(/dev/sda1|ext4)");
    EXPECT_EQ(only(disk("/data/"), has).found, "/data(/dev/sdb1|xfs)");
    EXPECT_EQ(only(disk("//"), has).found, "/(/dev/sda1|ext4)");
    EXPECT_EQ(only(disk("/dat"), has).found, "");
    EXPECT_EQ(only(disk("/data(/dev/sdb1|xfs"), has).found, "");
}

TEST(fleet_wanted, of_several_entries_the_last_counts) {
    EXPECT_EQ(
        only(disk("/m"), disks({"/m(/dev/a|ext4)", "/m(/dev/b|ext4)", "/n(/dev/c|ext4)"})).found,
        "/m(/dev/b|ext4)");
}

TEST(fleet_wanted, parentheses_and_bars_in_names) {
    agent_inventory has =
        disks({"/mnt/a(b|c)(/dev/sdc1|ext4)", "/s(//server/share (1)|cifs)", "/b|c(/dev/d|ext4)"});
    EXPECT_EQ(only(disk("/s"), has).found, "/s(//server/share (1)|cifs)");
    EXPECT_EQ(only(disk("/b|c"), has).found, "/b|c(/dev/d|ext4)");
    EXPECT_EQ(only(disk("/mnt/a"), has).found, "") << "that is another directory";
    wanted_test cut = only(disk("/mnt/a(b|c)"), has);
    EXPECT_EQ(cut.impossible, "agents cannot test /mnt/a(b|c): they would look at what stands "
                              "before the parenthesis");
    EXPECT_FALSE(cut.waits);
}

TEST(fleet_wanted, a_disk_that_is_not_there_is_said_with_those_that_are) {
    wanted_test test = only(
        disk("/data"), disks({"/(/dev/sda1|ext4)", "/home(/dev/sda2|ext4)", "/(/dev/sda1|ext4)"}));
    EXPECT_EQ(test.impossible, "there is no disk /data; there are /, /home");
    EXPECT_FALSE(test.waits);
    EXPECT_EQ(only(disk("/data"), disks({"/(/dev/sda1|ext4)"})).impossible,
              "there is no disk /data; there is /");
    EXPECT_EQ(only(disk("/data"), disks({})).impossible,
              "there is no disk /data; there is no other");
}

TEST(fleet_wanted, what_is_said_is_bounded_and_fit_to_be_shown) {
    strings many;
    for (int i = 0; i < 5000; ++i) {
        many.push_back("/" + std::to_string(i) + std::string(500, 'x') + "\x1b(/dev/a|ext4)");
    }
    std::string why = only(disk("/data"), disks(many)).impossible;
    EXPECT_LT(why.size(), 1000u);
    EXPECT_EQ(why.find('\x1b'), why.npos);
    EXPECT_NE(why.find(" and 4992 more"), why.npos) << why;
    why = only(interface(std::string(5000, 'y')), interfaces(strings(300, "lo"))).impossible;
    EXPECT_LT(why.size(), 1000u);
}

TEST(fleet_wanted, nothing_known_yet_is_waited_for) {
    wanted_test test = only(disk("/"), {});
    EXPECT_TRUE(test.waits);
    EXPECT_EQ(test.impossible, "the agent has not said yet which disks it has");
    EXPECT_TRUE(only(interface("eth0"), disks({})).waits);
    EXPECT_EQ(only(test_maker("l", "load"), {}).impossible, "");
}

TEST(fleet_wanted, what_was_found_is_kept) {
    befores before = {{"d", {"/data(/dev/sdb1|xfs)", 50}}};
    agent_inventory without = disks({"/(/dev/sda1|ext4)"});
    for (const agent_inventory& has : {without, agent_inventory()}) {
        wanted_test test = only(disk("/data"), has, before);
        EXPECT_EQ(test.found, "/data(/dev/sdb1|xfs)");
        EXPECT_EQ(test.impossible, "");
        EXPECT_EQ(test.whole_gb, 50);
    }
    EXPECT_EQ(only(disk("/data"), disks({"/data(/dev/sdc1|xfs)"}), before).found,
              "/data(/dev/sdc1|xfs)");
    EXPECT_EQ(only(disk("/other"), without, before).impossible,
              "there is no disk /other; there is /")
        << "what was found for the test was something else";
    EXPECT_EQ(only(interface("eth0"), interfaces({"ens3"}), {{"n", {"eth0", 0}}}).found, "eth0");
    EXPECT_EQ(only(interface("eth0"), {}, {{"n", {"eth0", 0}}}).found, "eth0");
    EXPECT_EQ(only(interface("eth1"), interfaces({"ens3"}), {{"n", {"eth0", 0}}}).found, "");
}

TEST(fleet_wanted, what_was_found_goes_along_with_a_rename) {
    befores before = {{"old", {"/data(/dev/sdb1|xfs)", 50}}, {"d", {"/(/dev/sda1|ext4)", 20}}};
    wanted_test test = only(disk("/data").was("old"), disks({"/(/dev/sda1|ext4)"}), before);
    EXPECT_EQ(test.found, "/data(/dev/sdb1|xfs)");
    EXPECT_EQ(test.whole_gb, 50);
}

TEST(fleet_wanted, a_share_is_told_in_gigabytes_once_the_whole_is_known) {
    agent_inventory has = disks({"/(/dev/sda1|ext4)"});
    EXPECT_EQ(only(disk("/").share(10), has).its_fields(), (strings{"/(/dev/sda1|ext4)", "0"}));
    auto told = [&](double share, double whole) {
        return only(disk("/").share(share), has, {{"d", {"/(/dev/sda1|ext4)", whole}}})
            .its_fields()[1];
    };
    EXPECT_EQ(told(10, 50), "5");
    EXPECT_EQ(told(12.5, 49.21875), "6.15234");
    EXPECT_EQ(told(10, 0.003), "0.0003");
    EXPECT_EQ(told(1, 3.25e6), "32500");
    EXPECT_EQ(told(100, 1234567), "1234567");
    EXPECT_EQ(told(0, 50), "0");
    EXPECT_EQ(told(10, 1e300).find_first_not_of("0123456789"), std::string::npos);
    EXPECT_EQ(told(10, std::numeric_limits<double>::infinity()), "0");
    EXPECT_EQ(told(10, std::numeric_limits<double>::quiet_NaN()), "0");
    /* The whole of a disk is known from another test of it. */
    EXPECT_EQ(only(disk("/").share(10), has, {{"x", {"/(/dev/sda1|ext4)", 70}}}).its_fields()[1],
              "7");
    EXPECT_EQ(only(disk("/").share(10), has, {{"d", {"/y(/dev/sda1|ext4)", 70}}}).its_fields()[1],
              "0");
}

TEST(fleet_wanted, an_agents_names_are_no_way_into_its_commands) {
    for (std::string entry : {"/a(${secret:db}|ext4)", "/a(x\n|ext4)", "/a(x\tPOL|ext4)",
                              "/a(\x7f|ext4)", "/a(\r|ext4)"}) {
        wanted_test test = only(disk("/a"), disks({entry}));
        EXPECT_EQ(test.found, "") << entry;
        EXPECT_NE(test.impossible, "") << entry;
        EXPECT_FALSE(test.waits);
        EXPECT_EQ(test.impossible.find_first_of("\n\t\r\x7f"), std::string::npos);
    }
    EXPECT_EQ(only(disk("/a"), disks({"/a(x" + std::string(5000, 'y') + "|ext4)"})).impossible,
              "the agent's name of the disk is too long");
}

TEST(fleet_wanted, an_interface_that_the_agent_would_mistake_is_impossible) {
    EXPECT_EQ(only(interface("eth0"), interfaces({"ens3", "eth0"})).found, "eth0");
    EXPECT_EQ(only(interface("eth0"), interfaces({"ens3", "eth0"})).its_fields()[0], "eth0");
    EXPECT_EQ(only(interface("eth10"), interfaces({"eth10", "eth1"})).found, "eth10");
    wanted_test test = only(interface("eth10"), interfaces({"eth1", "eth10"}));
    EXPECT_EQ(test.found, "");
    EXPECT_EQ(test.impossible,
              "the agent would watch eth1 instead of eth10: it takes the first interface whose "
              "name is a part of the one named");
    EXPECT_NE(only(interface("veth1"), interfaces({"eth1", "veth1"})).impossible, "");
    EXPECT_NE(only(interface("eth0:1"), interfaces({"eth0", "eth0:1"})).impossible, "");
    EXPECT_EQ(only(interface("eth0"), interfaces({"", "ens3", "ens4"})).impossible,
              "there is no interface eth0; there are ens3, ens4");
    EXPECT_NE(only(interface("eth10"), interfaces({"eth1"}), {{"n", {"eth10", 0}}}).impossible, "")
        << "found before, and mistaken now";
}
