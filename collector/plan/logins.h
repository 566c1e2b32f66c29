/* What an agent that logs in gets: one that has just started, and one that has run on and may have
 * any test that was ever planned. */
#ifndef VINDRAL_COLLECTOR_PLAN_LOGINS_H
#define VINDRAL_COLLECTOR_PLAN_LOGINS_H

#include "plan/check.h"
#include "plan/secret_tests.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

/* A test that an agent has reported. */
struct known_test {
    uint32_t type; /* of the record */
    int32_t id;
    bool recent = true; /* within a day of the last result that the agent has sent of any test */
};

class login_plan {
public:
    /* `at_agents`: tests that were ever added, and whether agents that run have them. `meant`:
     * those that lines which are refused may be meant to add. `sure`: nothing else is meant to be
     * there. */
    void prepare(const std::vector<checked_line>& lines,
                 const std::map<test_place, bool>& at_agents, std::set<test_place> meant,
                 bool sure);

    /* `lines` are those of the last prepare(), and of `secrets`. */
    std::string text_for_new(const std::vector<plan_line>& lines, const secret_tests& secrets,
                             bool proven) const;
    std::string text_for_running(const std::vector<plan_line>& lines,
                                 const std::vector<known_test>& known, const secret_tests& secrets,
                                 bool proven) const;

private:
    bool is_to_go(const test_place& test, const known_test& known) const;

    struct line_use {
        bool sent;  /* it does something to an agent that began without tests */
        bool twice; /* as a modify command, too: the agent may have the test */
        test_place test;
    };
    std::vector<line_use> uses_;   /* one for each line */
    std::set<test_place> planned_; /* left when all lines are done */
    std::set<test_place> gone_;    /* removed before the lines from any agent that ran already */
    std::set<test_place> meant_;
    bool sure_ = false;
};

#endif
