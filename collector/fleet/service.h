/* The fleet as the API sees it: what is to be, what was changed and what became of it. Any thread;
 * keeper.h is the one that does it. */
#ifndef VINDRAL_COLLECTOR_FLEET_SERVICE_H
#define VINDRAL_COLLECTOR_FLEET_SERVICE_H

#include "fleet/assigned.h"
#include "fleet/file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* What a file may come to: tests of one agent, and of all together. More are refused before
 * anything is made of them; the groups' tests count, also those that a later group overrides. */
constexpr size_t most_tests_of_agent = 5000;
constexpr size_t most_tests_of_fleet = 1'500'000;

/* What a file would change, or has changed. */
struct fleet_difference {
    struct agent {
        std::string account, name;
        std::vector<std::string> groups;
        int32_t poll = 0, check = 0;
        std::string about_intervals;
        std::vector<fleet_change> changes; /* in the order of action and name */
    };
    std::vector<agent> agents = {}; /* with changes; by account and name */
    size_t added = 0, changed = 0, renamed = 0, removed = 0, intervals = 0, impossible = 0;
    size_t unchanged = 0;      /* tests */
    size_t agents_in_all = 0;  /* that the fleet looked at, with and without changes */
    size_t agents_without = 0; /* that are in no group */
    std::vector<std::string> groups_without = {}; /* names of groups that no agent is in */
};

/* What an applying or a trial came to. Exactly one of `wrong` and `error` is not empty when it did
 * not do. */
struct fleet_outcome {
    std::vector<remark> wrong = {}; /* with the file */
    std::vector<remark> notes = {}; /* read and not heeded */
    std::string error = {};         /* it cannot be done: a sentence */
    bool is_too_large = false;      /* because it comes to more tests than there may be */
    bool is_conflict = false;       /* because somebody else did something, or a file rules */
    int32_t revision = 0;           /* that is in force now; of a trial: the present one */
    bool is_same = false;           /* the text is the one in force: nothing was done */
    fleet_difference difference = {};
};

struct fleet_standing {
    int32_t revision = 0; /* newest; 0: nothing was ever applied */
    int64_t time = 0;
    std::string author, about;
    int32_t text_revision = 0;     /* with which the text in force came */
    std::string file = {};         /* path of the file that rules; empty: the API does */
    std::string file_trouble = {}; /* what is wrong with it now; empty: nothing */
    bool is_planned = false;       /* a plan of raw commands rules: there is no fleet */
    size_t agents = 0, tests = 0;  /* that have tests; of all agents together */
    size_t waiting = 0;            /* changes that are not sent */
    size_t sent = 0, confirmed = 0, unanswered = 0, impossible = 0; /* of the newest state of each
                                                                       test that is to be */
};

/* A test of the fleet as one agent has it. */
struct fleet_test_standing {
    std::string name, group, target;
    const test_kind* kind = nullptr;
    int32_t number = 0, revision = 0, confirmed = 0;
    std::string impossible;
    std::vector<std::pair<std::string, std::string>> shown; /* what the file says of it */
    text_place at;                                          /* in the text in force */
};

class fleet_service {
public:
    virtual ~fleet_service() = default;

    virtual fleet_standing standing() const = 0;
    /* In force; empty, and revision 0, when there is none. */
    virtual std::string text(int32_t& revision) const = 0;

    /* Reads it and says what would change; nothing does. */
    virtual fleet_outcome try_out(std::string_view text) = 0;
    /* Applies it: in one transaction, with a revision, the author and the time. `expected`: the
     * revision that has to be in force, none: any. Waits for the store; on an error nothing is
     * changed. */
    virtual fleet_outcome apply(std::string_view text, const std::string& author,
                                std::optional<int32_t> expected) = 0;

    /* Names of the groups that have the agent, in order; and its tests, by name. */
    virtual std::vector<std::string> groups_of(std::string_view account,
                                               std::string_view agent) const = 0;
    virtual std::vector<fleet_test_standing> tests_of(std::string_view account,
                                                      std::string_view agent) const = 0;
    /* One of them, by what its records say; none: it is no test of the fleet. */
    virtual std::optional<fleet_test_standing> test_of(std::string_view account,
                                                       std::string_view agent, uint32_t type,
                                                       int32_t number) const = 0;
};

#endif
