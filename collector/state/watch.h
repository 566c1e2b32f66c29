/* Who is overdue. Counts in seconds of a clock that never jumps, and from the start of the process:
 * what happened while nobody listened is held against no one. Not stored; pure; one thread.
 *
 * An agent is silent when it was not heard for more than expected::silent_after(), a test stale
 * when its agent is not silent, its results are to come again, and nothing came of it for more than
 * expected::stale_after(). Of an agent that is on its way to silence, not heard for half of that
 * time, no test becomes stale: what it lacks is the agent. Where results are not to come again
 * because the plan does not have the test (expected::has_ended()), it is gone then, also when it
 * was stale. One that is gone is awaited again when something comes of it or a plan has it; that
 * there is no plan any more changes nothing. All of this counts from the last time at which the
 * collector could not do its work (pause()), for the tests of an agent that was silent from its
 * return and of one that was sent away with its results from then on (held_up()), and for a test
 * from when its results were to come (expected::repeats_since()). Being heard is not being stored:
 * a poll that arrives counts, whatever the disk does. What comes is not being heard: it may have
 * arrived long ago. */
#ifndef VINDRAL_COLLECTOR_WATCH_H
#define VINDRAL_COLLECTOR_WATCH_H

#include "state/expected.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class watch {
public:
    using test_key = std::pair<uint32_t, int32_t>;

    enum class standing : uint8_t { awaited, stale, gone };

    explicit watch(int64_t now) : since_(now) {}

    /* An agent and a test of it, from the store at the start. They have come just now, but for
     * what is silent, stale or gone already. */
    void know(int64_t agent, bool silent, int64_t now);
    void know(int64_t agent, const test_key& test, standing as, int64_t now);

    /* True when it was silent: take_heard() is due. One that is not known is known then. What was
     * heard before that is told later changes nothing, nor does what was heard before it was found
     * to be silent. */
    bool heard(int64_t agent, int64_t now);
    /* Whether what was heard then ends the agent's silence, or was the end of it or later. */
    bool is_news(int64_t agent, int64_t heard) const;
    /* Of an agent that has more than agent_state::max_tests, those that came longest ago are
     * forgotten. */
    void came(int64_t agent, const test_key& test, int64_t now);
    void forget(int64_t agent);

    /* It brought what the collector had no room for and will have to bring again: its tests have
     * time from then on. */
    void held_up(int64_t agent, int64_t now);

    /* The collector did not listen, or could not store, until `now`. */
    void pause(int64_t now) { since_ = now; }

    struct overdue {
        int64_t agent = 0;
        bool silent = false;              /* otherwise: these tests are stale, */
        std::vector<test_key> tests = {}; /* rising */
        std::vector<test_key> gone = {};  /* and these are gone; likewise */
    };
    /* Each thing once: they are taken for what they were found to be until they are heard or come
     * again. `plan` is that of an agent: one and the same for all calls, or one that went on from
     * that. `most` agents at a time, in no order. */
    using plan_of = std::function<const expected&(int64_t agent)>;
    void find_overdue(const plan_of& plan, int64_t now, size_t most, std::vector<overdue>& found);
    /* The same plan for all. */
    void find_overdue(const expected& plan, int64_t now, size_t most, std::vector<overdue>& found) {
        find_overdue([&plan](int64_t) -> const expected& { return plan; }, now, most, found);
    }
    /* Leaves of what was found what holds, because nothing was heard or came since. False when that
     * is nothing. */
    bool still_holds(overdue& what) const;
    /* What was found could not be stored: it is found again. */
    void take_back(const overdue& what);

private:
    struct test {
        test_key key;
        int64_t came;
        standing is;
    };
    struct agent {
        int64_t heard, back;
        int64_t found;  /* when it was found to be silent, the last time */
        int64_t oldest; /* none came before of which something can become by this plan: */
        unsigned plan;  /* expected::changes() */
        bool silent;
        std::vector<test> tests; /* by key */
    };
    agent& known(int64_t id, int64_t now);
    static agent fresh(int64_t now, bool silent);
    void look_at_tests(agent& a, const expected& plan, int64_t now, overdue& late) const;
    static void put(agent& of, const test& fresh);
    static void forget_half(agent& of);

    int64_t since_;
    std::unordered_map<int64_t, agent> agents_;
};

#endif
