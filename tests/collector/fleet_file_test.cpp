/* The fleet file: what agents are told of its tests, and what is said of its mistakes. */
#include "fleet/file.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;

const std::string example = R"(version: 1
intervals: {poll: 60s, check: 60s}          # may be overridden per group
groups:
  - name: web servers
    agents: ["web-*"]
    tests:
      front page:    {http: "https://shop.example.org/", contains: Welcome, within: 5s}
      root disk:     {disk: /, free: 5 GB}
      nginx:         {process: nginx, cpu: 80 %, resident: 500 MB}
      gateway:       {ping: 192.0.2.1, packets: 3, lost: 1, within: 1s}
  - name: everything
    agents: ["*"]
    tests:
      load:          {load: {1m: 8, 5m: 6, 15m: 4}}
      cpu:           {cpu: {user: 90, iowait: 30}}
      memory:        {memory: {free: 256 MB}}
      network:       {network: eth0}
smtp: {server: "mail.example.org:587", from: vindral@example.org, user: vindral, password: "${secret:mail}"}
notify:
  ops:  {mail: [ops@example.org]}
  chat: {webhook: "${secret:chat-url}"}
  am:   {alertmanager: "http://127.0.0.1:9093"}
alerts:
  web broken:  {when: problem, for: 3m, groups: [web servers], notify: [ops, chat], repeat: 4h}
  host away:   {when: silent, for: 5m, notify: [ops]}
)";

std::string told(const std::vector<remark>& remarks) {
    std::string all;
    for (const remark& each : remarks) {
        all += std::to_string(each.at.line) + ":" + std::to_string(each.at.column) + " " +
               each.text + "\n";
    }
    return all;
}

fleet sound(const std::string& text) {
    fleet found;
    std::vector<remark> wrong;
    EXPECT_TRUE(read_fleet(text, found, wrong)) << told(wrong) << text;
    EXPECT_TRUE(wrong.empty());
    return found;
}

/* "LINE:COLUMN TEXT" of each. */
std::string wrong_with(const std::string& text) {
    fleet found;
    std::vector<remark> wrong;
    EXPECT_FALSE(read_fleet(text, found, wrong)) << text;
    EXPECT_TRUE(found.groups.empty());
    return told(wrong);
}

std::string with_tests(const std::string& lines) {
    return "version: 1\ngroups:\n- name: g\n  agents: \"*\"\n  tests:\n" + lines;
}

/* The fields of a test that is written so. */
strings fields_of(const std::string& test) {
    const fleet found = sound(with_tests("    x: {" + test + "}\n"));
    return found.groups.empty() || found.groups[0].tests.empty() ? strings()
                                                                 : found.groups[0].tests[0]->fields;
}

std::string joined(const strings& fields) {
    std::string all;
    for (size_t i = 0; i < fields.size(); i++) {
        all.append(i > 0 ? "~" : "").append(fields[i]);
    }
    return all;
}

} // namespace

TEST(fleet_file, the_example_becomes_its_tests) {
    const fleet found = sound(example);
    EXPECT_EQ(found.intervals.poll, 60);
    EXPECT_EQ(found.intervals.check, 60);
    ASSERT_EQ(found.groups.size(), 2u);
    EXPECT_EQ(found.groups[0].name, "web servers");
    EXPECT_TRUE(found.groups[0].agents.at(0).matches("me@example.org", "web-1"));
    ASSERT_EQ(found.groups[0].tests.size(), 4u);
    const fleet_test& page = *found.groups[0].tests[0];
    EXPECT_EQ(page.name, "front page");
    EXPECT_EQ(page.group, "web servers");
    EXPECT_EQ(page.at.line, 7);
    EXPECT_EQ(page.at.column, 7);
    EXPECT_EQ(page.target, "https://shop.example.org/");
    EXPECT_EQ(page.fields, (strings{"shop.example.org", "/", "443", "Welcome", "", "", "", "5", "1",
                                    "1", "1", "1", "0"}));
    EXPECT_EQ(found.groups[0].tests[1]->fields, (strings{"/", "5"}));
    EXPECT_EQ(found.groups[0].tests[2]->fields, (strings{"80", "500", "-1", "nginx"}));
    EXPECT_EQ(found.groups[0].tests[3]->fields, (strings{"192.0.2.1", "56", "3", "1000", "1"}));
    ASSERT_EQ(found.groups[1].tests.size(), 4u);
    EXPECT_EQ(found.groups[1].tests[0]->fields, (strings{"8", "6", "4"}));
    EXPECT_EQ(found.groups[1].tests[1]->fields, (strings{"90", "-1", "-1", "-1", "30"}));
    EXPECT_EQ(found.groups[1].tests[2]->fields, (strings{"256", "-1", "-1", "-1", "-1"}));
    EXPECT_EQ(found.groups[1].tests[3]->fields, (strings{"eth0", "0", "0", "0", "0", "0", "0"}));
    EXPECT_EQ(found.groups[1].tests[3]->looks_for, "eth0");
    EXPECT_TRUE(found.secrets.empty());
    ASSERT_EQ(found.notes.size(), 3u);
    EXPECT_EQ(told({found.notes[0]}), "18:1 `smtp` is read, and not heeded by this version\n");
}

TEST(fleet_file, each_kind_becomes_what_agents_take) {
    const struct {
        const char* test;
        const char* fields; /* with "~" between */
    } cases[] = {
        {"load: {}", "-1~-1~-1"},
        {"load: ", "-1~-1~-1"},
        {"load: {5m: 6}, host: db1.example.org", "-1~6~-1~db1.example.org"},
        {"load: {}, host: \"2001:db8::1\"", "-1~-1~-1~udp6:[2001:db8::1]"},
        /* agents compare the maximum of the one with the other, but only their own */
        {"cpu: {system: 20 %, nice: 10}", "-1~10~20~-1~-1"},
        {"cpu: {system: 20, nice: 10, idle: 5}, host: h, os: linux", "-1~20~10~5~-1~h~linux"},
        {"cpu: {user: 90}, host: h", "90~-1~-1~-1~-1~h"},
        {"cpu: {user: 90}, host: h, os: other", "90~-1~-1~-1~-1~h"},
        {"memory: {free: 0 MB, swap: 1 GB, buffers: 1.5GB, cached: 2 GiB}", "0~1024~-1~1536~2048"},
        {"memory: {free: 0.3 GB}", "307~-1~-1~-1~-1"},
        {"memory: {virtual: 64 mb}, host: h", "-1~-1~64~-1~-1~h"},
        {"disk: /", "/~0"},
        {"disk: /home/, free: 512 MB", "/home~0.5"},
        {"disk: /, free: 10 %", "/~0"},
        {"process: a b, virtual: 1 TB", "-1~-1~1048576~a b"},
        {"network: eth0, sent: 10 MB, received: 100 Mbit/s, packets: 5, errors received: 1",
         "eth0~5~5~10485760~12500000~0~1"},
        {"network: eth0, packets sent: 7, errors: 3", "eth0~7~0~0~0~3~3"},
        {"ping: h", "h~56~3~1000~2"},
        {"ping: h, packets: 1", "h~56~1~1000~0"},
        {"ping: h, size: 1400, within: 1.5s, packets: 10, lost: 0", "h~1400~10~1500~0"},
        {"http: \"http://h\"", "h~/~80~~~~~10~0~1~0~1~0"},
        {"http: \"http://[::1]:8080/a?b\", without: error, redirects: false",
         "::1~/a?b~8080~error~~~~10~0~0~1~0~0"},
        {"http: \"https://h?a=${secret:k}\", post: a=b&c=d, user: u, password: \"${secret:p}\", "
         "within: 1m",
         "h~/?a=${secret:k}~443~~a=b&c=d~u~${secret:p}~60~1~1~0~1~1"},
        {"http: \"http://h/gr\xc3\xbcn\", method: head", "h~/gr%C3%BCn~80~~~~~10~0~1~0~1~2"},
        {"snmp: h, objects: sysUpTime.0", "h~161~2~sysUpTime.0~public~~~~~~2~1~-"},
        {"snmp: h, objects: {1.3.6: {at least: 1, at most: 1}, IF-MIB::x.1: , y: {at most: -2}}, "
         "version: 1, community: \"${secret:c}\", port: 1161, within: 3s, retries: 0",
         "h~1161~1~1.3.6;IF-MIB::x.1;y~${secret:c}~~~~~~3~0~1,1;-;-9223372036854775808,-2"},
        {"snmp: \"::1\", objects: [a], version: 3, user: u, password: long enough",
         "udp6:[::1]~161~3~a~~sha~u~long enough~~~2~1~-"},
        {"snmp table: h, table: 1.3.6", "h~161~20~2~1.3.6~public~~~~~~2~1"},
        {"snmp table: h, table: t, version: 1", "h~161~0~1~t~public~~~~~~2~1"},
        {"mysql: h, user: u", "h~3306~~u~~Uptime~10"},
        {"mysql: /run/m.sock, user: u, password: \"${secret:p}\", values: {a: {at most: 1.5}, "
         "b: {at least: 60}, c: {at least: 1, at most: 2}, d: {}}, within: 5s",
         "localhost~3306~/run/m.sock~u~${secret:p}~a|1.5;b||60;c|2|1;d~5"},
        {"discovery: 10.0.0.1 - 10.0.0.254", "10.0.0.1~10.0.0.255"},
        {"discovery: 10.0.0.1-10.0.1.255, objects: [a, b]", "10.0.0.1~10.0.2.1~a;b"},
        {"discovery: 10.0.0.0/24", "10.0.0.1~10.0.0.255"},
        {"discovery: 10.0.0.7", "10.0.0.7~10.0.0.8"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(joined(fields_of(each.test)), each.fields) << each.test;
    }
}

TEST(fleet_file, a_share_of_a_disk_is_for_whoever_knows_the_disk) {
    const fleet found = sound(with_tests("    x: {disk: /data, free: 12.5 %}\n"));
    EXPECT_EQ(found.groups[0].tests[0]->free_share, 12.5);
    EXPECT_EQ(found.groups[0].tests[0]->looks_for, "/data");
    EXPECT_EQ(found.groups[0].tests[0]->target, "/data");
}

TEST(fleet_file, what_agents_cannot_do_is_wrong) {
    const struct {
        const char *test, *said;
    } cases[] = {
        {"load: {1m: 1.5}", "`1m`: `1.5` is not whole, and agents take whole numbers: 1 or 2"},
        {"load: {1m: 0}", "`1m`: `0` is not from 1 to 2147483647"},
        {"load: 5", "`load`: expected limits, such as {load: {1m: 5}}, or {}"},
        {"load: {1 m: 5}", "`1 m`: no such key of `load`; `1m`?"},
        {"load: {host: h}", "`host`: this stands beside `load`, not within it"},
        {"load: {}, 5m: 3", "`5m`: this stands within `load`: {load: {5m: ...}}"},
        {"load: {}, host: a b", "`host`: `a b` is neither a host name nor an address"},
        {"cpu: {user: 90.5 %}",
         "`user`: `90.5 %` is not whole, and agents take whole percents: 90 % or 91 %"},
        {"cpu: {user: 101}", "`user`: `101` is not from 1 % to 100 %"},
        {"cpu: {}, os: linux", "`os`: this is of another host: name it with `host`"},
        {"cpu: {iowait: 5}, host: h",
         "`iowait`: only of a host with `os: linux` more than user and idle time is known"},
        {"cpu: {}, host: h, os: Linux", "`os`: `Linux` is not linux or other; `linux`?"},
        {"memory: {virtual: 1 GB}", "`virtual`: virtual memory is known of another host only: use "
                                    "`swap`, or name a `host`"},
        {"memory: {free: 256}", "`free`: `256` does not fit: expected a size with its "
                                "unit, such as 500 MB or 5 GB"},
        {"memory: {free: 1.5 MB}", "`free`: `1.5 MB` is not whole, and agents take whole "
                                   "megabytes: 1 MB or 2 MB"},
        {"disk: home", "`disk`: `home` is no directory: one such as /home is meant, where the "
                       "disk is mounted"},
        {"disk: /a(b)",
         "`disk`: agents cannot watch a directory with an opening parenthesis in its name"},
        {"disk: /, free: 0 GB", "`free`: `0 GB` is no limit to agents; leave it out for none"},
        {"disk: /, free: 100 %", "`free`: `100 %` is more than there can be"},
        {"disk: /, free: 5", "`free`: `5` is neither a size with its unit, such as 5 GB, nor a "
                             "share, such as 10 %"},
        {"process: postgres-exporter",
         "`process`: the kernel knows processes by the first 15 characters of their names: "
         "`postgres-export`"},
        {"process: (sd-pam)", "`process`: agents know this one by what stands before the "
                              "parenthesis: `(sd-pam`"},
        {"network: eth0, errors: 1, errors sent: 2",
         "`errors sent`: `errors` is for both ways already"},
        {"network: eth0, sent: 3 GB", "`sent`: `3 GB` is not from 1 B to 2147483647 B"},
        {"network: eth 0", "`network`: `eth 0` is no name of an interface, such as eth0"},
        {"ping: h, lost: 3", "`lost`: of 3 packets no more than 3 can be lost, so this is no "
                             "limit: 2 at the most"},
        {"ping: \"::1\"", "`ping`: agents send pings to IPv4 addresses only"},
        {"ping: \"h:80\"", "`ping`: `h:80` is neither a host name nor an address: a port does not "
                           "belong to it"},
        {"ping: h, size: 20", "`size`: `20` is not from 44 to 65507"},
        {"ping: h, within: 2m", "`within`: `2m` is not from 1ms to 1m"},
        {"ping: h, within: soon", "`within`: `soon` does not fit: expected a time "
                                  "such as 5s, 250ms, 3m or 1h30m"},
        {"http: shop.example.org", "`http`: `shop.example.org` is no address of a page: it begins "
                                   "with http:// or https://"},
        {"http: \"http://u:p@h/\"", "`http`: a user does not stand in the address: there are "
                                    "`user` and `password` for that"},
        {"http: \"http://h/a b\"", "`http`: a blank in the address is written %20"},
        {"http: \"http://h/#a\"",
         "`http`: what follows the # is never sent to a server: leave it out"},
        {"http: \"http://h:0/\"", "`http`: `0` is no port: 1 to 65535"},
        {"http: \"http:///\"", "`http`: `` is neither a host name nor an address"},
        {"http: \"http://${secret:h}/\"", "`http`: a secret cannot stand in the name of the host"},
        {"http: \"http://h/\", within: 250ms", "`within`: `250ms` is not whole, and agents take "
                                               "whole seconds: 1s"},
        {"http: \"http://h/\", contains: a, without: b",
         "`without`: agents look for one text in a page: make two tests of it"},
        {"http: \"http://h/\", contains: a, method: head",
         "`contains`: a page asked for by `method: head` has no text"},
        {"http: \"http://h/\", post: a=b, method: get", "`method`: form data is sent by `post`"},
        {"http: \"http://h/\", user: u", "`user`: `password` is missing"},
        {"http: \"http://h/\", password: p", "`password`: `user` is missing"},
        {"http: \"http://h/\", containz: a", "`containz`: no such key of `http`; `contains`?"},
        {"http: \"http://h/\", redirects: yes", "`redirects`: `yes` is neither true nor false"},
        {"snmp: h", "`objects` is missing: what is asked for: numbers, or names that the agent's "
                    "machine knows"},
        {"snmp: h, objects: []", "`objects`: no name is there"},
        {"snmp: h, objects: [a, a]", "`objects`: `a` is there already"},
        {"snmp: h, objects: [a;b]",
         "`objects`: `a;b` cannot be a name: it has a blank or one of ; | , \" '"},
        {"snmp: h, objects: {a: 5}", "`a`: expected limits such as {at least: 1, at most: 5}"},
        {"snmp: h, objects: {a: {at most: 1.5}}",
         "`at most`: `1.5` is not whole, and agents compare with whole numbers"},
        {"snmp: h, objects: {a: {max: 1}}",
         "`max`: no such limit; there are `at least` and `at most`"},
        {"snmp: h, objects: {a: {at least: 2, at most: 1}}",
         "`a`: `at least` is more than `at most`"},
        {"snmp: h, objects: a, version: 2c", "`version`: `2c` is not 1, 2 or 3; `2`?"},
        {"snmp: h, objects: a, user: u", "`user`: this is of SNMP version 3: add `version: 3`"},
        {"snmp: h, objects: a, version: 3, user: u",
         "`password`: it is missing: SNMP version 3 needs it"},
        {"snmp: h, objects: a, version: 3, user: u, password: short",
         "`password`: SNMP version 3 wants 8 characters or more"},
        {"snmp table: h, table: t, version: 1, repetitions: 5",
         "`repetitions`: SNMP version 1 can only ask for one row after the other: 0"},
        {"snmp table: h", "`table` is missing: the table: a number, or a name that the agent's "
                          "machine knows"},
        {"mysql: h", "`user` is missing: name to log in with"},
        {"mysql: localhost, user: u, port: 3307",
         "`port`: localhost and a path mean a socket, which has no port: write 127.0.0.1"},
        {"mysql: h, user: u, values: {a: {at least: -1}}",
         "`at least`: expected a number, such as 5 or 1.5"},
        {"mysql: h, user: u, values: [a|5]",
         "`values`: `a|5` cannot be a name: it has a blank or one of ; | , \" '"},
        {"discovery: 10.0.0.1 - 10.0.0", "`discovery`: expected two IPv4 addresses, such as "
                                         "10.0.0.1 - 10.0.0.254"},
        {"discovery: 10.0.0.2 - 10.0.0.1", "`discovery`: the first address is above the last one"},
        {"discovery: 10.0.0.1 - 10.0.1.0", "`discovery`: addresses that end in .0 are not "
                                           "scanned: let it end with 10.0.0.255"},
        {"discovery: 10.0.0.1 - 10.2.0.1",
         "`discovery`: these are 130561 addresses: 65536 at the most"},
        {"discovery: 10.0.0.1/24", "`discovery`: the network of that length begins at 10.0.0.0"},
        {"discovery: 10.0.0.0/8",
         "`discovery`: the length of a network is 16 to 32 bits, as in 10.0.0.0/24"},
        {"discovery: 255.255.255.250 - 255.255.255.254",
         "`discovery`: there are no hosts at such addresses"},
    };
    for (const auto& each : cases) {
        const std::string said =
            wrong_with(with_tests("    x: {" + std::string(each.test) + "}\n"));
        const size_t place = said.find(' ');
        EXPECT_EQ(said.substr(0, 2), "6:") << said;
        EXPECT_EQ(said.substr(place + 1), std::string(each.said) + "\n") << each.test;
    }
}

TEST(fleet_file, a_kind_that_there_is_not) {
    EXPECT_EQ(wrong_with(with_tests("    x: {htttp: \"http://h/\"}\n")),
              "6:9 `htttp`: no such test; `http`?\n");
    EXPECT_EQ(wrong_with(with_tests("    x: {dns: h}\n")),
              "6:9 `dns`: no such test; there are `load`, `cpu`, `memory`, `disk`, `process`, "
              "`network`, `ping`, `http`, `snmp`, `snmp table`, `mysql` and `discovery`\n");
    EXPECT_EQ(wrong_with(with_tests("    x: {ping: h, http: \"http://h/\"}\n")),
              "6:18 `ping` and `http`: a test is of one kind, make two of it\n");
    EXPECT_EQ(wrong_with(with_tests("    x: on\n")),
              "6:8 `x`: expected a test, such as {ping: 192.0.2.1}, or off\n");
    EXPECT_EQ(wrong_with(with_tests("    x:\n")),
              "6:5 `x`: expected a test, such as {ping: 192.0.2.1}, or off\n");
    EXPECT_NE(wrong_with(with_tests("    x: {}\n")).find("the test says nothing; there are"),
              std::string::npos);
}

TEST(fleet_file, all_mistakes_are_said_at_once_by_line) {
    EXPECT_EQ(wrong_with("version: 2\n"
                         "intervalls: {}\n"
                         "groups:\n"
                         "- name: a\n"
                         "  intervals: {poll: 0s, check: 32d, pol: 5}\n"
                         "  tests:\n"
                         "    x: {pong: h}\n"
                         "    y: {ping: h, lost: many}\n"
                         "- name: a\n"
                         "  agents: []\n"
                         "alerts:\n"
                         "  z: {when: problems, notify: [opps], groups: b}\n"
                         "notify: {ops: {mail: nobody}}\n"),
              "1:10 `version`: this is version 1 of the file\n"
              "2:1 `intervalls`: no such key of the file; `intervals`?\n"
              "4:3 the group `a`: `agents` is missing\n"
              "5:21 `poll`: `0s` is not from 1s to 31d\n"
              "5:32 `check`: `32d` is not from 1s to 31d\n"
              "5:37 `pol`: no such key of `intervals`; `poll`?\n"
              "7:9 `pong`: no such test; `ping`?\n"
              "8:24 `lost`: `many` does not fit: expected a whole number\n"
              "9:9 `a`: there is a group of this name already\n"
              "12:13 `problems`: there is no such state (problem, silent, unknown); `problem`?\n"
              "12:32 `opps`: there is no such name in `notify`; `ops`?\n"
              "12:47 `b`: there is no such group\n"
              "13:22 `nobody` is no mail address\n");
}

TEST(fleet_file, a_hundred_mistakes_at_the_most_and_these_are_the_first) {
    std::string tests;
    for (int i = 0; i < 1000; i++) {
        tests += "    t" + std::to_string(i) + ": {pong: h}\n";
    }
    fleet found;
    std::vector<remark> wrong;
    EXPECT_FALSE(read_fleet(with_tests(tests), found, wrong));
    ASSERT_EQ(wrong.size(), 100u);
    EXPECT_EQ(wrong.front().at.line, 6);
    EXPECT_EQ(wrong.back().at.line, 105);
}

TEST(fleet_file, nothing_is_an_empty_fleet_and_a_version_is_required_of_anything_else) {
    EXPECT_TRUE(sound("").groups.empty());
    /* They would take every test from every agent. */
    for (const char* text : {"# nothing yet\n", " ", "\n", "\r\n", "\t\n", "...\n", "\xef\xbb\xbf",
                             "---\n", "~\n", "null\n"}) {
        EXPECT_NE(wrong_with(text).find(" the file: "), std::string::npos) << text;
    }
    EXPECT_EQ(wrong_with(" \n"), "1:1 the file: `version` is missing\n");
    EXPECT_TRUE(sound("version: 1\n").groups.empty());
    EXPECT_TRUE(sound("version: 1\ngroups:\n").groups.empty());
    EXPECT_TRUE(sound("{\"version\": 1, \"groups\": []}").groups.empty());
    EXPECT_EQ(wrong_with("groups: []\n"), "1:1 the file: `version` is missing\n");
    EXPECT_EQ(wrong_with("web-1\n"), "1:1 the file: expected a map, \"key: value\"\n");
}

TEST(fleet_file, off_and_was) {
    const fleet found = sound(with_tests("    a: off\n    b: {ping: h, was: old name}\n"
                                         "    c: \"off\"\n"));
    EXPECT_EQ(found.groups[0].tests[0]->kind, nullptr);
    EXPECT_EQ(found.groups[0].tests[1]->was, "old name");
    EXPECT_EQ(found.groups[0].tests[2]->kind, nullptr);
    EXPECT_EQ(wrong_with(with_tests("    a: {ping: h, was: a}\n")),
              "6:23 `was`: this is its name now\n");
    EXPECT_EQ(wrong_with(with_tests("    a: {ping: h, was: b}\n    b: {ping: i}\n")),
              "6:23 `was`: `b` is still there, as another test\n");
    EXPECT_EQ(wrong_with(with_tests("    a: {ping: h, was: c}\n    b: {ping: i, was: c}\n")),
              "7:23 `was`: `a` has been `c` already\n");
    EXPECT_EQ(wrong_with(with_tests("    a: {ping: h, was: }\n")),
              "6:23 `was`: nothing stands here, a text is expected\n");
}

TEST(fleet_file, names_are_lines_of_a_hundred_characters) {
    std::string long_name;
    for (int i = 0; i < 100; i++) {
        long_name += "\xc3\xa4";
    }
    EXPECT_EQ(sound(with_tests("    " + long_name + ": {ping: h}\n")).groups[0].tests[0]->name,
              long_name);
    EXPECT_EQ(wrong_with(with_tests("    " + long_name + "x: {ping: h}\n")),
              "6:5 the name of a test: more than 100 characters\n");
    EXPECT_EQ(wrong_with(with_tests("    \"a\\tb\": {ping: h}\n")),
              "6:5 the name of a test: a line end or another control character is in it, and it "
              "has to be one line\n");
    EXPECT_EQ(wrong_with(with_tests("    \" a\": {ping: h}\n")),
              "6:5 the name of a test: it begins or ends with a blank\n");
    EXPECT_EQ(wrong_with(with_tests("    \"\": {ping: h}\n")),
              "6:5 the name of a test: the text is empty\n");
    EXPECT_EQ(wrong_with(with_tests("    \"${secret:x}\": {ping: h}\n")),
              "6:5 the name of a test: a secret cannot stand here\n");
    EXPECT_EQ(wrong_with("version: 1\ngroups:\n- agents: \"*\"\n- name: \"\"\n  agents: x\n"),
              "3:3 a group: `name` is missing\n4:9 the name of a group: the text is empty\n");
}

TEST(fleet_file, no_value_becomes_another_field) {
    for (const char* text : {"\"a\\tb\"", "\"a\\nLAD\\t1\"", "\"a\\r\"", "\"a\\0\"", "\"a\\x7f\"",
                             "\"a\\u0085\"", "\"a\\N\"", "\"a\\e[1m\""}) {
        for (const char* key : {"contains", "post", "user", "password"}) {
            const std::string said = wrong_with(with_tests("    x: {http: \"http://h/\", " +
                                                           std::string(key) + ": " + text + "}\n"));
            const bool is_refused = said.find("control character") != std::string::npos ||
                                    said.find("an escape in these quotes") != std::string::npos;
            EXPECT_TRUE(is_refused) << text << said;
        }
        EXPECT_NE(wrong_with(with_tests("    x: {process: " + std::string(text) + "}\n")), "");
        EXPECT_NE(wrong_with(with_tests("    x: {http: " + std::string(text) + "}\n")), "");
        EXPECT_NE(
            wrong_with(with_tests("    x: {snmp: h, objects: [" + std::string(text) + "]}\n")), "");
    }
}

TEST(fleet_file, secrets_stand_where_a_text_goes_to_agents) {
    const fleet found = sound(
        with_tests("    a: {mysql: h, user: \"${secret:u}\", password: \"x${secret:p}\"}\n"
                   "    b: {http: \"https://h/?k=${secret:k}\", contains: \"${secret:u}\"}\n"));
    EXPECT_EQ(found.secrets, (strings{"u", "p", "k"}));
    for (const char* test :
         {"ping: \"${secret:h}\"", "disk: \"/${secret:h}\"", "process: \"${secret:h}\"",
          "ping: h, lost: \"${secret:h}\"", "load: {1m: \"${secret:h}\"}",
          "snmp: h, objects: [\"${secret:h}\"]", "mysql: \"${secret:h}\", user: u",
          "discovery: \"${secret:h}\"", "ping: h, was: \"${secret:h}\""}) {
        EXPECT_NE(wrong_with(with_tests("    x: {" + std::string(test) + "}\n")).find("a secret"),
                  std::string::npos)
            << test;
    }
    EXPECT_NE(wrong_with(with_tests("    x: {mysql: h, user: \"${secret:a b}\"}\n"))
                  .find("`user`: \"${secret:\" is begun"),
              std::string::npos);
}

TEST(fleet_file, what_is_shown_has_no_secrets) {
    const fleet found = sound(with_tests(
        "    a: {http: \"https://h/x?key=abc\", password: hush, user: u, within: 5s}\n"
        "    b: {mysql: h, user: u, password: \"${secret:p}\"}\n"
        "    c: {load: {5m: 6, 1m: 8}, host: h}\n"
        "    d: {snmp: h, objects: {a: {at least: 1, at most: 2}, b: }, community: hush}\n"));
    using shown = std::vector<std::pair<std::string, std::string>>;
    const auto& tests = found.groups[0].tests;
    EXPECT_EQ(
        tests[0]->shown,
        (shown{{"http", "https://h/x?***"}, {"within", "5s"}, {"user", "u"}, {"password", "***"}}));
    EXPECT_EQ(tests[0]->target, "https://h/x");
    EXPECT_EQ(tests[1]->shown, (shown{{"mysql", "h"}, {"user", "u"}, {"password", "${secret:p}"}}));
    EXPECT_EQ(tests[2]->shown, (shown{{"1m", "8"}, {"5m", "6"}, {"host", "h"}}));
    EXPECT_EQ(tests[2]->target, "h");
    EXPECT_EQ(
        tests[3]->shown,
        (shown{{"snmp", "h"}, {"objects", "a at least 1 at most 2, b"}, {"community", "***"}}));
}

TEST(fleet_file, a_test_longer_than_a_line_may_be_is_wrong) {
    const std::string said = wrong_with(
        with_tests("    x: {http: \"http://h/\", contains: " + std::string(65536, 'a') + "}\n"));
    EXPECT_EQ(said, "6:5 agents cannot be told this test: the line is longer than 64 KiB\n");
}
