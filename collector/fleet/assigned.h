/* What an agent was given: its tests with the numbers and revisions by which the protocol knows
 * them. Kept in the store, packed, by agent. Pure.
 *
 * NUMBERS  A test has one number for life, whatever its kind's list; no number is given twice on an
 * agent. REVISIONS  rise over the whole fleet and are never used again; the location id of a test
 * is the revision in which it last changed, so every result says which definition it was judged by.
 * A change of a limit is a new revision of the test; another kind under the same name is another
 * test; "was" gives a test another name and nothing else, unless it changed too. */
#ifndef VINDRAL_COLLECTOR_FLEET_ASSIGNED_H
#define VINDRAL_COLLECTOR_FLEET_ASSIGNED_H

#include "fleet/wanted.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using test_digest = std::array<unsigned char, 16>; /* of kind, fields and the secrets' serials */

struct assigned_test {
    std::string name, group;
    const test_kind* kind = nullptr;
    int32_t number = 0;
    int32_t added = 0;     /* revision with which it was given to the agent */
    int32_t revision = 0;  /* with which it last changed: its location id; `added` or above */
    int32_t confirmed = 0; /* highest that a result of it had; 0: none had */
    test_digest digest = {};
    int32_t returned = 0;   /* with which it was sent again after it could not be: an agent
                               that was started anew meanwhile does not have it; 0: never */
    std::string was = {};   /* the "was" that has been heeded */
    std::string found = {}; /* see wanted_test */
    double whole_gb = 0;    /* see found_before, note_whole() */
    /* Why it is not sent; empty: it is. With a number other than 0 the agent keeps what it was sent
     * before: `revision` and `digest` are of that. */
    std::string impossible = {};

    std::shared_ptr<const fleet_test> what = {}; /* null: not known since the restart, */
    std::vector<std::string> fields = {};        /* and these are not packed, either; empty: those
                                                    of `what` */
    const std::vector<std::string>& its_fields() const {
        return fields.empty() && what ? what->fields : fields;
    }
};

/* Something that the agent may have and is not to have. */
struct removed_test {
    std::string name = {}; /* empty: nobody gave it to the agent, it was seen in its results */
    uint32_t type = 0;     /* of its records */
    int32_t number = 0;
    int32_t revision = 0; /* with which it was taken away */
    bool is_over = false; /* and it was confirmed: only its number is remembered, by next_number */
};

/* An agent's numbers go on above any that it was seen with, but for those beyond this: nobody gives
 * as many, and one forged result would leave no number for any other test. */
constexpr int32_t highest_believed = 2'000'000'000;

struct assigned_agent {
    int32_t next_number = 1;
    int32_t poll = 0, check = 0;                   /* seconds, as told; 0: never told */
    int32_t poll_revision = 0, check_revision = 0; /* with which each changed */
    int32_t intervals_revision() const { return std::max(poll_revision, check_revision); }
    std::vector<assigned_test> tests = {}; /* by name */
    std::vector<removed_test> removed = {};
    int32_t newest = 0; /* highest revision of all of these */

    bool unpack(std::string_view packed); /* false: damaged, and it is empty */
    void pack(std::string& into) const;

    assigned_test* find(uint32_t type, int32_t number);
    assigned_test* find(std::string_view name);

    /* What wanted_of() is to know of what was found before. */
    std::map<std::string, found_before, std::less<>> found() const;
};

/* A result of a disk says how large the disk is. True when that is news: another whole, by more
 * than half a percent; then what is wanted may be another. */
bool note_whole(assigned_test& test, double whole_gb);
/* Whether what a result says of a disk is said of that disk. Of one that is not mounted the agent
 * describes the file system that has its directory: a limit must not follow that. */
bool is_mounted(const assigned_test& test, const agent_inventory& has);

enum class change_action : uint8_t { add = 1, change = 2, rename = 3, remove = 4, intervals = 5 };
std::string_view action_word(change_action a); /* "add", "change", ... */

/* One change of one test of an agent. */
struct fleet_change {
    std::string test = {}; /* its name; empty for intervals */
    std::string was = {};  /* of a rename */
    change_action action = change_action::add;
    uint32_t type = 0;
    int32_t number = 0;
    std::string impossible = {}; /* why it is not sent; empty: it is. A rename, and the removal of
                                    number 0, need nothing to be sent */
    std::string reason = {};     /* what else is to be said: "10 % of 50 GB", about_intervals */
    /* For people, without secrets: what of the test is another now, from and to; of one that is
     * added all that the file says of it, from nothing. */
    struct field {
        std::string name, from, to;
    };
    std::vector<field> fields = {};
};

/* Makes `now` what is wanted, as of `revision`; returns what changed, by test name, nothing where
 * nothing did. What was impossible and is so still for the same reason is no change,
 * whatever the reason says behind a ";" of what there is instead. `serial_of`
 * says which value of a secret is there (0: none; then the test is impossible). With no number left
 * (2^31 - 1) a test is impossible. A removed test of which nothing was ever sent leaves nothing.
 *
 * BECOMES IMPOSSIBLE  What lacks a secret, or waits for an inventory, stays at the agent as it is.
 * What looks for something that is not there is removed, and is another test, with another number,
 * once it is there.
 *
 * WAS  is heeded once: as long as it stands there unchanged it means nothing more. Names may be
 * exchanged, and passed on in chains. A test that is there under the new name goes when none of the
 * others takes it over, unless the old name goes on, too: then there is nothing to rename. Of two
 * that claim one name the first has it. Another kind never is the same test.
 *
 * A rename that also changes is two changes, and so are another kind of the name and a test that is
 * taken from the agent because it cannot have it any more: a removal and an addition. */
std::vector<fleet_change> assign(assigned_agent& now, const wanted_agent& wanted, int32_t revision,
                                 const std::function<uint64_t(std::string_view secret)>& serial_of);

/* ---- command lines, each with its line end ---- */

/* Puts the values of secrets into a line; none when one is not there or the line would be too long
 * (64 KiB) or would become more than a line: a control character in what is put in. */
using expand_function = std::function<std::optional<std::string>(std::string_view line)>;

/* For an agent that is up to `from`, and may have got answers after that: the fewest commands that
 * bring it here. Removals go first, then the intervals, then what is added and changed. With
 * `proven` false tests with secrets are left out. */
std::string commands_after(const assigned_agent& now, int32_t from, bool proven,
                           const expand_function& expand);

/* For one that logs in. `has_run`: it may have tests from before; then those that are removed go,
 * each test comes as an add command (which an agent that has it ignores), and those of which it is
 * not known that the agent has the present revision (`confirmed`) as a modify command, too. Where
 * the add command of a test that is there would be logged as an error, one that had results is
 * removed before. A scan that has begun is not begun again. */
std::string commands_for_login(const assigned_agent& now, bool has_run, bool proven,
                               const expand_function& expand);

/* Has it do all its tests at once, but for scans: modify commands. */
std::string commands_for_check(const assigned_agent& now, bool proven,
                               const expand_function& expand);

/* Those of one test, to put it right: add, then modify (a scan only if it was ever changed). */
std::string commands_for_test(const assigned_agent& now, const assigned_test& test, bool proven,
                              const expand_function& expand);

#endif
