#include "checks_under_way.h"

#include "vindral_log.h"

#include <cstdint>

struct test_under_way {
    test_under_way* next;
    long id;
    int checks;
    bool told; /* that one was left out */
};

/* The pointer to the test with this id, or to the null at the end of its list. */
static test_under_way** place_of(checks_under_way& c, long id) REQUIRES(c.count_mutex) {
    uint32_t hash =
        static_cast<uint32_t>(id) * UINT32_C(2654435769) >> (32 - checks_under_way::HASH_BITS);
    test_under_way** place = &c.tests[hash];
    while (*place != nullptr && (*place)->id != id) {
        place = &(*place)->next;
    }
    return place;
}

enum class beginning { counted, left_out, left_out_anew };

static beginning begin_counted(checks_under_way& c, long id) {
    lock hold(c.count_mutex);
    test_under_way** place = place_of(c, id);
    if (*place == nullptr) {
        *place = static_cast<test_under_way*>(malloc(sizeof(test_under_way)));
        if (*place == nullptr) {
            return beginning::left_out;
        }
        **place = {nullptr, id, 0, false};
    }
    test_under_way& test = **place;
    if (test.checks < MOST_CHECKS_UNDER_WAY) {
        test.checks++;
        return beginning::counted;
    }
    bool anew = !test.told;
    test.told = true;
    return anew ? beginning::left_out_anew : beginning::left_out;
}

bool check_begins(checks_under_way& c, long id) {
    beginning how = begin_counted(c, id);
    if (how == beginning::left_out_anew) {
        leveledadd2log(0, "%s test %ld: %d checks are under way, one more is left out.", c.kind, id,
                       MOST_CHECKS_UNDER_WAY);
    }
    return how == beginning::counted;
}

void check_ends(checks_under_way& c, long id) {
    lock hold(c.count_mutex);
    test_under_way** place = place_of(c, id);
    test_under_way* test = *place;
    if (test == nullptr) {
        return;
    }
    test->checks--;
    test->told = test->told && test->checks > MOST_CHECKS_UNDER_WAY / 2;
    if (test->checks == 0) {
        *place = test->next;
        free(test);
    }
}
