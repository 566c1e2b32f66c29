/* The tests of a plan that have secrets in their lines: whether they can be sent, to whom, and what
 * of them agents that run have to be told when a secret has changed. One thread.
 *
 * A test is told as a whole or not at all: an agent that has not proven who it is, and every agent
 * while a secret of the test is missing or makes a line too long, is sent no line that adds or
 * changes it. What an agent has of it already stays as it is, until a remove command stands in the
 * plan: that is sent to everybody.
 *
 * When a value changes, agents that have the test get its last line as a modify command; once one
 * that was missing is there, everything that makes the test what it is, since they may have it or
 * not. A command that is about no test (UPD) is not given again for a changed value. */
#ifndef VINDRAL_COLLECTOR_SECRET_TESTS_H
#define VINDRAL_COLLECTOR_SECRET_TESTS_H

#include "plan/known_secrets.h"
#include "plan/line.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class secret_tests {
public:
    using line_list = std::vector<plan_line>;
    /* Number of a line, and why its test is not sent. Never says a value. */
    using report_function = std::function<void(int, const std::string&)>;

    /* Null: there are no secrets, and nobody asks for what is told. Outlives this. */
    explicit secret_tests(known_secrets* known) : known_(known) {}

    /* The plan's lines are these from now on. Of all calls that take lines these have to be given.
     * Serials above `newest` are given out, as for new lines. */
    void take(const line_list& lines, uint64_t& newest, const report_function& report);
    /* Takes in which secrets have changed; cheap when none has. */
    void refresh(const line_list& lines, uint64_t& newest, const report_function& report);

    /* How many tests there are. And whether some line of theirs is newer than `after`. */
    size_t count() const { return tests_.size(); }
    bool any_after(const line_list& lines, uint64_t after) const;
    std::set<test_place> places() const;

    /* Whether it is sent at all to agents that have proven who they are, or have not. */
    bool is_told(size_t line, bool proven) const;
    /* Whether nothing is to be told of a test that is planned. */
    bool is_kept_back(const test_place& test, bool proven) const;
    /* Whether append_renewed() does what the line would. */
    bool is_renewed(size_t line, uint64_t after) const;

    /* The line with its secrets and a line end; as a command with that third letter, if one is
     * given. Nothing when a secret has gone meanwhile. */
    void append(std::string& text, const plan_line& line, char letter = '\0') const;
    /* What agents that have proven who they are, and are up to `after`, lack because of secrets
     * that came or changed. */
    void append_renewed(std::string& text, const line_list& lines, uint64_t after) const;

private:
    struct secret_test {
        std::vector<size_t> lines; /* that add or change it */
        std::optional<size_t>
            last; /* the one that says what it is; none when it is removed again */
        std::map<std::string, uint64_t, std::less<>> used; /* secrets, and their serials */
        bool is_sendable = false;
        bool is_new = true;
        uint64_t since = 0;   /* the plan's serial from which on it is, when it was not before */
        uint64_t changed = 0; /* that of the last change of a value */
        std::string told;     /* why it is not sent */
    };
    /* A command that is about no test stands for itself, by its text. */
    using key = std::pair<test_place, std::string>;

    void look_at(secret_test& test, const key& what, const line_list& lines, uint64_t& newest,
                 const report_function& report);
    std::string why_kept_back(const secret_test& test, const key& what, const line_list& lines,
                              size_t& line) const;
    void note_uses(const line_list& lines);

    known_secrets* known_;
    uint64_t seen_ = 0; /* of the secrets */
    std::map<key, secret_test> tests_;
    std::vector<secret_test*> of_line_;       /* null: without secrets */
    known_secrets::names_of_test ever_named_; /* agents may have them still */
};

/* The remove command of a test, with its line end. */
void append_removal(std::string& text, const test_place& test);

#endif
