/* The bound on the checks of one test that are under way. */
#include "checks_under_way.cpp"

#include "fake_core.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

constinit checks_under_way pages{.kind = "HTTP"};
constinit checks_under_way echoes{.kind = "Ping"};

int tests_counted(checks_under_way& c) {
    lock hold(c.count_mutex);
    int count = 0;
    for (test_under_way* first : c.tests) {
        for (test_under_way* t = first; t != nullptr; t = t->next) {
            count++;
        }
    }
    return count;
}

/* So many checks begin; how many were counted. */
int begin(checks_under_way& c, long id, int count) {
    int begun = 0;
    for (int i = 0; i < count; i++) {
        begun += check_begins(c, id);
    }
    return begun;
}

void end(checks_under_way& c, long id, int count) {
    for (int i = 0; i < count; i++) {
        check_ends(c, id);
    }
}

const char LINE[] = "0 HTTP test 7: 64 checks are under way, one more is left out.\n";

struct ChecksUnderWay : testing::Test {
    void SetUp() override { take_log(); }
    void TearDown() override {
        EXPECT_EQ(0, tests_counted(pages));
        EXPECT_EQ(0, tests_counted(echoes));
    }
};

} // namespace

TEST_F(ChecksUnderWay, one_more_than_there_may_be_is_left_out) {
    EXPECT_EQ(64, begin(pages, 7, 64));
    EXPECT_EQ("", take_log_text());
    EXPECT_FALSE(check_begins(pages, 7));
    EXPECT_EQ(LINE, take_log_text());
    check_ends(pages, 7);
    EXPECT_TRUE(check_begins(pages, 7));
    EXPECT_FALSE(check_begins(pages, 7));
    end(pages, 7, 64);
}

TEST_F(ChecksUnderWay, tests_and_checkers_are_counted_apart) {
    EXPECT_EQ(64, begin(pages, 7, 70));
    EXPECT_EQ(64, begin(pages, -7, 64));
    EXPECT_EQ(64, begin(echoes, 7, 64));
    EXPECT_EQ(LINE, take_log_text());
    end(pages, 7, 64);
    end(pages, -7, 64);
    end(echoes, 7, 64);
}

/* A test that stays at the bound does not fill the log. */
TEST_F(ChecksUnderWay, the_line_comes_once_until_half_have_ended) {
    begin(pages, 7, 70);
    EXPECT_EQ(LINE, take_log_text());
    for (int ended : {1, 2, 31}) {
        end(pages, 7, ended);
        EXPECT_EQ(ended, begin(pages, 7, 40));
    }
    EXPECT_EQ("", take_log_text());
    end(pages, 7, 32);
    EXPECT_EQ(32, begin(pages, 7, 40));
    EXPECT_EQ(LINE, take_log_text());
    end(pages, 7, 64);
    EXPECT_EQ(64, begin(pages, 7, 66));
    EXPECT_EQ(LINE, take_log_text());
    end(pages, 7, 64);
}

TEST_F(ChecksUnderWay, an_end_without_a_beginning_changes_nothing) {
    check_ends(pages, 7);
    EXPECT_EQ(64, begin(pages, 7, 66));
    end(pages, 7, 70);
    EXPECT_EQ(64, begin(pages, 7, 66));
    end(pages, 7, 64);
}

TEST_F(ChecksUnderWay, a_scope_ends_its_check_unless_it_is_released) {
    {
        check_under_way counted(pages, 7);
        EXPECT_TRUE(counted);
        EXPECT_EQ(1, tests_counted(pages));
    }
    EXPECT_EQ(0, tests_counted(pages));
    {
        check_under_way counted(pages, 7);
        counted.release();
        EXPECT_FALSE(counted);
    }
    EXPECT_EQ(1, tests_counted(pages));
    { check_under_way counted = check_under_way::begun(pages, 7); }
    EXPECT_EQ(0, tests_counted(pages));
    begin(pages, 7, 64);
    {
        check_under_way refused(pages, 7);
        EXPECT_FALSE(refused);
    }
    EXPECT_FALSE(check_begins(pages, 7)); /* the refused one has not ended any */
    end(pages, 7, 64);
}

/* Ids in the hash table come and go in any order. */
TEST_F(ChecksUnderWay, many_tests) {
    const long COUNT = 10000;
    for (long id = -COUNT; id < COUNT; id++) {
        ASSERT_TRUE(check_begins(pages, id * 1024));
    }
    EXPECT_EQ(2 * COUNT, tests_counted(pages));
    for (long id = -COUNT; id < COUNT; id += 2) {
        check_ends(pages, id * 1024);
    }
    EXPECT_EQ(COUNT, tests_counted(pages));
    for (long id = -COUNT; id < COUNT; id += 2) {
        ASSERT_TRUE(check_begins(pages, id * 1024));
    }
    for (long id = COUNT - 1; id >= -COUNT; id--) {
        check_ends(pages, id * 1024);
    }
}

TEST_F(ChecksUnderWay, from_many_threads) {
    std::atomic<int> under_way{0}, most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; i++) {
                int begun = begin(pages, 7, 20);
                int now = under_way += begun;
                for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
                }
                under_way -= begun;
                end(pages, 7, begun);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_LE(most, 64);
}
