/* How many checks of a test are under way. The checks that run beside a pass, in threads or
 * children of their own, may take longer than the check interval; a peer that hangs would gather
 * one more with every pass. So a test has at most MOST_CHECKS_UNDER_WAY of them, and what would be
 * one more is left out.
 *
 * Counted by the test's id: a test that is changed, or removed and added again, while older checks
 * of it still run has them counted. Nothing is kept of a test without checks under way, so this
 * takes as much memory as there are such tests. Both calls take the same short time for ten tests
 * and for ten thousand, from any thread; any lock may be held. A forked child must not call them:
 * another thread may have held the lock.
 *
 *     static constinit checks_under_way http_checks{.kind = "HTTP"};
 *
 *     start_checks(tests, &aHost::id, http_checks, starter, body, dup_aHost);      the pass
 *     ...
 *     check_under_way counted = check_under_way::begun(http_checks, copy->id);     first in body */
#ifndef VINDRAL_CHECKS_UNDER_WAY_H
#define VINDRAL_CHECKS_UNDER_WAY_H

#include "guards.h"
#include "thread_start.h"

inline constexpr int MOST_CHECKS_UNDER_WAY = 64;

struct test_under_way; /* one test and its number of checks */

/* Those of one checker. */
struct checks_under_way {
    const char* kind;    /* of test, as the log names it */
    mutex count_mutex{}; /* tests and all that hangs on them; nothing else is taken meanwhile */
    static constexpr int HASH_BITS = 10; /* of a test's id, as many as it takes to find its list */
    test_under_way* tests[1 << HASH_BITS] GUARDED_BY(count_mutex) = {};
};

/* Counts one more check of the test. False when there are as many as there may be, or no memory:
 * nothing is counted then, and the check is not to be begun. The first time this is logged at
 * level 0; it is not again until half of them have ended, lest a test that stays at the bound fills
 * the log. */
bool check_begins(checks_under_way& c, long id);

/* To be called once for each that has begun, when it has given back all that it held. Of a test
 * without checks under way it changes nothing. */
void check_ends(checks_under_way& c, long id);

/* Both for a scope. True as long as a check is counted; release() leaves its end to another. */
class check_under_way {
public:
    check_under_way(checks_under_way& c, long id)
        : of_(check_begins(c, id) ? &c : nullptr), id_(id) {}
    ~check_under_way() {
        if (of_ != nullptr) {
            check_ends(*of_, id_);
        }
    }
    check_under_way(const check_under_way&) = delete;
    check_under_way& operator=(const check_under_way&) = delete;

    /* One that has been counted before and left to the caller. */
    static check_under_way begun(checks_under_way& c, long id) { return check_under_way(&c, id); }

    explicit operator bool() const { return of_ != nullptr; }
    void release() { of_ = nullptr; }

private:
    check_under_way(checks_under_way* of, long id) : of_(of), id_(id) {}

    checks_under_way* of_;
    long id_;
};

/* Starts a check of every test in a thread of its own, whose body gets a copy of the test and
 * disposes of it. Without a copy or a thread a test is left out; one that has as many checks under
 * way as it may have is, too, and stays new. The caller holds the lock of the list. */
template <typename List, typename Test, typename Id>
void start_checks(const List& tests, Id Test::*id, checks_under_way& of,
                  const thread_starter& starter, void* (*body)(void*), Test* (*duplicate)(Test*)) {
    for (Test* test : tests) {
        check_under_way counted(of, test->*id);
        if (!counted) {
            continue;
        }
        Test* copy = duplicate(test);
        test->isFirstCheck = 0;
        if (copy != nullptr && starter.start(body, copy) == 0) {
            counted.release();
        } else if (copy != nullptr) {
            List::dispose(copy);
        }
    }
}

#endif
