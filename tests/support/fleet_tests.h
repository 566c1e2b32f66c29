/* Fleets and tests of them, as they would come of a file. */
#ifndef VINDRAL_TEST_FLEET_TESTS_H
#define VINDRAL_TEST_FLEET_TESTS_H

#include "fleet/assigned.h"

#include <gtest/gtest.h>
#include <utility>

using strings = std::vector<std::string>;

/* Fields of a test of that kind, as a file would make them. */
inline strings sample_fields(std::string_view kind) {
    static const std::map<std::string_view, strings> fields = {
        {"load", {"8", "6", "4"}},
        {"cpu", {"90", "-1", "-1", "-1", "30"}},
        {"memory", {"256", "-1", "-1", "-1", "-1"}},
        {"disk", {"/", "5"}},
        {"process", {"80", "500", "-1", "nginx"}},
        {"network", {"eth0", "0", "0", "0", "0", "0", "0"}},
        {"ping", {"192.0.2.1", "56", "3", "1000", "1"}},
        {"http",
         {"shop.example.org", "/", "443", "Welcome", "", "", "", "5", "1", "1", "1", "1", "0"}},
        {"snmp",
         {"sw1", "161", "2", "1.3.6.1.2.1.1.3.0", "public", "", "", "", "", "", "2", "1", "-"}},
        {"snmp table",
         {"sw1", "161", "20", "2", "1.3.6.1.2.1.2.2", "public", "", "", "", "", "", "2", "1"}},
        {"mysql", {"localhost", "0", "/run/my.sock", "monitor", "pw", "Uptime", "5"}},
        {"discovery", {"10.0.0.1", "10.0.0.9"}},
    };
    return fields.at(kind);
}

struct test_maker {
    fleet_test test;

    test_maker(std::string name, std::string_view kind) {
        test.name = std::move(name);
        test.group = "everything";
        test.kind = find_kind(kind);
        EXPECT_NE(test.kind, nullptr) << kind;
        test.fields = sample_fields(kind);
        if (kind == "disk" || kind == "network") {
            test.looks_for = test.fields[0];
        }
    }
    test_maker&& field(size_t place, std::string value) && {
        test.fields.at(place) = std::move(value);
        return std::move(*this);
    }
    test_maker&& was(std::string name) && {
        test.was = std::move(name);
        return std::move(*this);
    }
    test_maker&& at(std::string place) && {
        test.fields[0] = test.looks_for = std::move(place);
        return std::move(*this);
    }
    test_maker&& share(double percent) && {
        test.free_share = percent;
        test.fields[1] = "0";
        return std::move(*this);
    }
    test_maker&& shown(std::string key, std::string value) && {
        test.shown.emplace_back(std::move(key), std::move(value));
        return std::move(*this);
    }
    test_maker&& in(std::string group) && {
        test.group = std::move(group);
        return std::move(*this);
    }
    std::shared_ptr<const fleet_test> make() const {
        return std::make_shared<const fleet_test>(test);
    }
};

using shared_tests = std::vector<std::shared_ptr<const fleet_test>>;

inline shared_tests of(const std::vector<test_maker>& makers) {
    shared_tests tests;
    for (const test_maker& maker : makers) {
        tests.push_back(maker.make());
    }
    return tests;
}

inline std::shared_ptr<const fleet_test> off(std::string name) {
    fleet_test test;
    test.name = std::move(name);
    return std::make_shared<const fleet_test>(test);
}

inline fleet_group group_of(std::string name, const strings& patterns, shared_tests tests,
                            fleet_intervals intervals = {}) {
    fleet_group group;
    group.name = std::move(name);
    for (const std::string& pattern : patterns) {
        group.agents.push_back(pattern_of(pattern));
    }
    group.tests = std::move(tests);
    group.intervals = intervals;
    return group;
}

/* A fleet of one group that has all agents. */
inline fleet fleet_of(shared_tests tests) {
    fleet all;
    all.groups.push_back(group_of("everything", {"*"}, std::move(tests)));
    return all;
}

#endif
