/* The plan: a file of commands for the agents, one a line, fields separated by tabs, '#' comments.
 * Checked when it is read; a line that an agent would refuse or drop silently is reported with its
 * number and the reason, and is not sent. No network in here.
 *
 * Blank lines are passed over, a carriage return before the line end is removed. A line is refused
 * for an unknown code, a wrong number of fields, an empty last field, text where a number belongs,
 * a zero id, an interval that is not between a second and 31 days, a NUL byte, a length above 64
 * KiB, or because it would do nothing: adding a test that is there already, modifying or removing
 * one that never was. The file may have 8 MiB.
 *
 * The file may be edited while the collector runs. Adding lines at its end, or replacing it as a
 * whole (rename), takes effect at the next refresh(); when it is rewritten in place, or its last
 * line has no line end, it has to lie still for two seconds, since somebody may still be writing. A
 * file that is empty, cannot be read, is none, or of which every line is refused leaves the lines
 * as they were.
 *
 * Removing a line sends nothing: append the remove command too. An agent that logs in is put right
 * all the same. One that has just started has no tests, and is sent what does something then. Of
 * one that runs already it is not known which plan it had last, so it is made a new one: first the
 * tests that it may have are removed, then comes the plan, each test of it as an add command (which
 * an agent that has the test ignores) and, unless it was removed before, a modify command. Network
 * scans are not begun again. A test is not removed when a line that is refused may be meant to add
 * it; so nothing is when there is such a line without a code or an id, or no plan at all.
 *
 * "${secret:NAME}" stands for a secret in fields that are texts (known_secrets.h, secret_tests.h).
 * The lines of the plan keep it so; the value is put in where a text for agents is made.
 *
 * Nothing in here may be called by two threads at once. */
#ifndef VINDRAL_COLLECTOR_PLAN_H
#define VINDRAL_COLLECTOR_PLAN_H

#include "plan/check.h"
#include "plan/file.h"
#include "plan/logins.h"
#include "plan/planned.h"
#include "plan/secret_tests.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

/* A line that is not sent. One that is sent all the same says so in its reason: a changed add
 * command reaches agents that log in, but those that run have the test already and keep it as it
 * was. */
struct plan_problem {
    int number; /* 0: the whole file */
    std::string reason;
};

class plan {
public:
    using line_list = std::vector<plan_line>;

    /* An empty path is an empty plan. `report` gets each problem once per reading in which it is
     * new; `taken`, if there is one, the lines whenever a reading has made them. */
    plan(std::string path, std::function<void(const plan_problem&)> report,
         std::function<void(const line_list&)> taken = {}, known_secrets* secrets = nullptr);

    /* Reads the file when it has changed since the last reading (one stat otherwise). False, with
     * the old lines kept, when it cannot be read. Lines that were there before keep their serial;
     * lines new to the file get new ones. Takes in which secrets have changed, too. */
    bool refresh();

    /* The lines in force, in file order. */
    const line_list& lines() const { return lines_; }

    /* Highest serial given out so far: a session that has everything remembers this. */
    uint64_t newest() const { return newest_; }

    /* The lines with a serial above `after`, as the body of a reply: each with its line end. Here
     * and below: tests with secrets in their lines are for agents that have `proven` who they are.
     */
    std::string text_after(uint64_t after, bool proven = false) const;

    /* How many tests there are that only those agents are told of; and whether there is something
     * new of them, too. */
    size_t secret_tests_count() const { return secrets_.count(); }
    bool has_secrets_after(uint64_t after) const { return secrets_.any_after(lines_, after); }

    /* The body of the answer to a login: for an agent that has just started, and for one that ran
     * already. The latter takes every test that was in the plan since the start for one that the
     * agent may have, and those in `known`. Of kinds for which an agent complains when it is to
     * remove what it does not have, only the recent ones. */
    std::string text_for_new(bool proven = false) const {
        return logins_.text_for_new(lines_, secrets_, proven);
    }
    std::string text_for_running(const std::vector<known_test>& known, bool proven = false) const {
        return logins_.text_for_running(lines_, known, secrets_, proven);
    }

    /* Has an agent that has everything do its tests at once: of each test of which results come,
     * but for network scans, the line that says last what it is, as a modify command. It changes
     * nothing else. */
    std::string text_for_check(bool proven = false);

    /* How long an agent with this plan waits between two polls. */
    std::chrono::seconds poll_interval() const { return std::chrono::seconds(intervals_.poll); }

private:
    bool read();
    bool fail(const std::string& why);
    secret_tests::report_function report_line() const;
    void take(std::string_view text);

    std::function<void(const plan_problem&)> report_;
    std::function<void(const line_list&)> taken_;
    plan_file file_;
    bool result_ = true;  /* what refresh() returned last */
    std::string trouble_; /* with the whole file, as last reported */
    std::map<std::string, int>
        problems_; /* of the last reading, by line and reason, and how often */
    std::map<test_place, bool>
        at_agents_; /* tests that were ever added; whether running agents have them */
    line_list lines_;
    uint64_t newest_ = 0;
    planned_intervals intervals_;
    login_plan logins_;
    std::optional<std::vector<size_t>> for_check_; /* lines; made when it is asked for */
    secret_tests secrets_;
};

#endif
