/* The JSON Schema of the fleet file takes what the reader takes, and refuses what editors can
 * refuse; the tree of a file says what the file says. */
#include "api/fleet_schema.h"
#include "fleet/file.h"
#include "json_schema.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace json = boost::json;

const json::object& schema() {
    static const json::object made = json::parse(fleet_schema()).as_object();
    return made;
}

/* "" when a file fits. */
std::string why_not(const std::string& text) {
    const json_schema checker(schema().at("$defs").as_object());
    return checker.check(json::parse(fleet_as_json(text)), schema());
}

std::string with_test(const std::string& test) {
    return "version: 1\ngroups:\n- name: g\n  agents: [\"*\"]\n  tests:\n    x: " + test + "\n";
}

bool is_sound(const std::string& text) {
    fleet found;
    std::vector<remark> wrong;
    return read_fleet(text, found, wrong);
}

} // namespace

TEST(fleet_schema, it_has_all_kinds_with_all_their_keys) {
    EXPECT_EQ(schema().at("$schema"), "https://json-schema.org/draft/2020-12/schema");
    const json::array& tests = schema().at("$defs").at("test").at("anyOf").as_array();
    ASSERT_EQ(tests.size(), test_kinds().size() + 1);
    EXPECT_EQ(tests[0].at("const"), "off");
    for (size_t i = 0; i < test_kinds().size(); i++) {
        const test_kind& kind = test_kinds()[i];
        const json::object& keys = tests[i + 1].at("properties").as_object();
        EXPECT_EQ(tests[i + 1].at("required").as_array().at(0), kind.word);
        for (const key_def& key : kind.keys) {
            const bool is_inside = kind.keys_inside && !key.beside;
            const json::object& where =
                is_inside ? keys.at(kind.word).at("properties").as_object() : keys;
            ASSERT_TRUE(where.contains(key.name)) << kind.word << key.name;
            EXPECT_EQ(where.at(key.name).at("description"), key.help);
        }
    }
}

TEST(fleet_schema, what_is_sound_fits) {
    for (const char* test :
         {"{load: }",
          "{load: {1m: 8}, host: h, was: y}",
          "{cpu: {user: 90, idle: 5 %}, host: h, os: linux}",
          "{memory: {free: 1.5GB, swap: 100 mib}}",
          "{disk: /, free: 10 %}",
          "{disk: /, free: 5 GB}",
          "{process: 7, cpu: \"80\"}",
          "{network: eth0, sent: 10 MB/s, received: 5 Mbit, errors: 1}",
          "{ping: h, within: 1s 500ms, lost: 0}",
          "{ping: h, within: 0.5}",
          "{http: \"http://h/\", contains: 404, within: 5s, redirects: false}",
          "{http: \"https://h/\", post: a=b, user: true, password: 5}",
          "{snmp: h, objects: [a, 1.3.6], version: 3, user: u, password: 12345678}",
          "{snmp: h, objects: {a: , b: {at least: -1, at most: \"5\"}}}",
          "{snmp: h, objects: a, version: \"1\"}",
          "{snmp table: h, table: 5}",
          "{mysql: h, user: u, values: {a: {at most: 1.5}}}",
          "{discovery: 10.0.0.1 - 10.0.0.9}",
          "{discovery: 10.0.0.0/24, objects: a}",
          "off"}) {
        const std::string text = with_test(test);
        EXPECT_TRUE(is_sound(text)) << test;
        EXPECT_EQ(why_not(text), "") << test;
    }
    EXPECT_EQ(why_not("version: 1\nintervals: {poll: 60, check: 1m30s}\ngroups:\nsmtp: {server: "
                      "\"h:25\", from: a@b}\nnotify: {a: {mail: b@c}}\nalerts: {x: {when: silent, "
                      "for: 5m, notify: a}}\n"),
              "");
}

TEST(fleet_schema, what_editors_can_see_does_not_fit) {
    for (const char* test : {"{load: {2m: 8}}",
                             "{load: {1m: 8.5}}",
                             "{load: {1m: 0}}",
                             "{loadd: {}}",
                             "{cpu: {user: 101}}",
                             "{cpu: {}, os: windows, host: h}",
                             "{memory: {free: 5}}",
                             "{memory: {free: 10 %}}",
                             "{disk: /, free: 5}",
                             "{process: a, cpu: much}",
                             "{network: eth0, sent: 5}",
                             "{ping: h, packets: 0}",
                             "{ping: h, lost: few}",
                             "{http: h}",
                             "{http: \"http://h/\", containz: a}",
                             "{http: \"http://h/\", method: put}",
                             "{snmp: h}",
                             "{snmp: h, objects: {a: {max: 5}}}",
                             "{snmp: h, objects: {}}",
                             "{snmp: h, objects: a, version: 4}",
                             "{mysql: h}",
                             "{discovery: everything}",
                             "{}",
                             "on",
                             "[]",
                             ""}) {
        EXPECT_NE(why_not(with_test(test)), "") << test;
        EXPECT_FALSE(is_sound(with_test(test))) << test;
    }
    for (const char* text :
         {"groups: []", "version: 2", "version: 1\ngroup: []", "version: 1\ngroups: {}",
          "version: 1\ngroups: [{name: a}]", "version: 1\nintervals: {poll: 0}",
          "version: 1\nsmtp: {from: a}", "version: 1\nnotify: {a: {}}",
          "version: 1\nalerts: {a: {when: ok}}"}) {
        EXPECT_NE(why_not(text), "") << text;
        EXPECT_FALSE(is_sound(text)) << text;
    }
}

TEST(fleet_schema, the_tree_says_what_the_file_says) {
    EXPECT_EQ(fleet_as_json(""), R"({"version":1})");
    EXPECT_EQ(fleet_as_json("version: 1\ngroups:\n"), R"({"version":1,"groups":null})");
    EXPECT_EQ(fleet_as_json(with_test("{ping: 010, lost: 1, size: \"56\", was: 1.50, host: -3}")),
              R"({"version":1,"groups":[{"name":"g","agents":["*"],"tests":{"x":{"ping":"010",)"
              R"("lost":1,"size":"56","was":"1.50","host":-3}}}]})");
    EXPECT_EQ(fleet_as_json("a: [true, \"true\", yes, 0, -0, 123456789012345, 1234567890123456]"),
              R"({"a":[true,"true","yes",0,"-0",123456789012345,"1234567890123456"]})");
    EXPECT_EQ(fleet_as_json("a: \"\xc3\xbc\\\"\\\\\""), "{\"a\":\"\xc3\xbc\\\"\\\\\"}");
}

TEST(fleet_schema, the_tree_is_a_file_again) {
    const std::string text = with_test(
        "{http: \"https://h/?a=\\\"b\\\"\", contains: \"a: b # \xc3\xbc\", within: 5s, user: 7, "
        "password: \"${secret:p}\"}");
    fleet one, other;
    std::vector<remark> wrong;
    ASSERT_TRUE(read_fleet(text, one, wrong));
    ASSERT_TRUE(read_fleet(fleet_as_json(text), other, wrong));
    EXPECT_EQ(one.groups[0].tests[0]->fields, other.groups[0].tests[0]->fields);
    EXPECT_EQ(one.groups[0].tests[0]->shown, other.groups[0].tests[0]->shown);
    EXPECT_EQ(fleet_as_json(fleet_as_json(text)), fleet_as_json(text));
}

TEST(fleet_schema, the_examples_are_sound_and_fit) {
    const struct {
        const char* file;
        size_t tests;
        std::vector<std::string> secrets;
    } examples[] = {
        {"web-shop.yaml", 22, {"shop-key", "shop-database"}},
        {"small-office.yaml", 18, {"core-switch", "switches"}},
        {"database-cluster.yaml", 20, {"cluster-monitor", "proxy-stats"}},
    };
    std::set<std::string_view> kinds;
    for (const auto& each : examples) {
        std::ifstream file(std::string(VINDRAL_EXAMPLES) + "/" + each.file);
        std::stringstream text;
        text << file.rdbuf();
        fleet found;
        std::vector<remark> wrong;
        ASSERT_TRUE(read_fleet(text.str(), found, wrong)) << each.file << wrong.at(0).text;
        EXPECT_EQ(why_not(text.str()), "") << each.file;
        size_t tests = 0;
        for (const fleet_group& group : found.groups) {
            tests += group.tests.size();
            for (const auto& test : group.tests) {
                kinds.insert(test->kind != nullptr ? test->kind->word : "off");
            }
        }
        EXPECT_EQ(tests, each.tests) << each.file;
        EXPECT_EQ(found.secrets, each.secrets) << each.file;
    }
    EXPECT_EQ(kinds.size(), test_kinds().size() + 1); /* each kind, and off */
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VINDRAL_EXAMPLES)) {
        files += entry.path().extension() == ".yaml" ? 1 : 0;
    }
    EXPECT_EQ(files, std::size(examples)); /* none is left out here */
}
