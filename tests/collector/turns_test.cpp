#include "ingest/turns.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

struct turns_test : testing::Test {
    turns all{100};
    std::vector<std::string> begun;
    std::map<std::string, std::unique_ptr<turns::place>> places;

    turns::place& come(const std::string& agent, size_t bytes, uint64_t address) {
        auto p = std::make_unique<turns::place>(all, address, agent, bytes,
                                                [this, agent] { begun.push_back(agent); });
        return *(places[agent] = std::move(p));
    }
    void leave(const std::string& agent) { places.erase(agent); }
    using names = std::vector<std::string>;
};

TEST_F(turns_test, as_many_as_fit_have_their_turn_at_once) {
    EXPECT_TRUE(come("a", 60, 1).begun());
    EXPECT_TRUE(come("b", 40, 2).begun());
    EXPECT_FALSE(come("c", 1, 3).begun());
    leave("b");
    EXPECT_TRUE(places["c"]->begun());
    EXPECT_EQ(begun, (names{"a", "b", "c"}));
}

TEST_F(turns_test, one_that_is_larger_than_all_room_has_it_alone) {
    EXPECT_TRUE(come("large", 1000, 1).begun());
    EXPECT_FALSE(come("a", 1, 2).begun());
    leave("large");
    EXPECT_TRUE(places["a"]->begun());
    EXPECT_FALSE(come("large", 1000, 3).begun());
    EXPECT_FALSE(come("b", 1, 4).begun()); /* behind it, or it would never come */
    leave("a");
    EXPECT_EQ(begun, (names{"large", "a", "large"}));
}

TEST_F(turns_test, an_agent_has_one_place) {
    come("a", 60, 1);
    turns::place second(all, 1, "a", 10, nullptr);
    EXPECT_TRUE(second.refused());
    EXPECT_FALSE(second.begun());
    leave("a");
    EXPECT_FALSE(turns::place(all, 1, "a", 10, nullptr).refused());
}

TEST_F(turns_test, many_from_one_address_wait_behind_one_from_another) {
    come("first", 100, 1);
    for (const char* agent : {"x1", "x2", "x3", "x4"}) {
        come(agent, 100, 1);
    }
    come("honest", 50, 2);
    leave("first");
    EXPECT_EQ(begun, (names{"first", "honest"}));
    leave("honest");
    come("honest", 50, 2);
    leave("x1");
    EXPECT_EQ(begun, (names{"first", "honest", "x1", "honest"}));
}

TEST_F(turns_test, whoever_gives_up_waiting_makes_room) {
    come("a", 100, 1);
    come("large", 100, 2);
    come("b", 100, 2);
    leave("large");
    EXPECT_EQ(begun, names{"a"});
    leave("a");
    EXPECT_EQ(begun, (names{"a", "b"}));
}

TEST_F(turns_test, nothing_is_held_against_anybody_when_all_is_quiet) {
    come("a", 90, 1);
    leave("a");
    come("blocking", 100, 3);
    come("a", 100, 1);
    come("b", 100, 2);
    leave("blocking");
    EXPECT_EQ(begun.back(), "a"); /* in the order of coming */
}
