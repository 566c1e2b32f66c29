/* The engine as ingest sees it: nothing of SQLite in here, so that it holds for another one too. */
#include "store/engine.h"

#include "collector_test_support.h"

#include <gtest/gtest.h>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct engine_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    strings told;
    std::unique_ptr<engine> e;

    void SetUp() override { open(); }
    void open() {
        std::string error;
        e.reset();
        e = open_engine({state, 30, [this](const std::string& text) { told.push_back(text); }},
                        error);
        ASSERT_TRUE(e) << error;
    }

    static decoded_record decoded(const std::string& bytes) {
        decoded_record d;
        std::string reason;
        EXPECT_TRUE(decode_record(bytes, d.content, reason)) << reason;
        d.summary = summarize(d.content);
        return d;
    }

    /* A block of one record, up to where the transaction would be committed. */
    void append(const std::string& agent, uint32_t test, const std::string& mark,
                int64_t received = noon) {
        std::string bytes = load_record(test, received);
        decoded_record record = decoded(bytes);
        stored_agent found;
        ASSERT_TRUE(e->find_agent("a@b.c", agent, received, found));
        ASSERT_TRUE(e->append(received, {&record, 1}));
        ASSERT_TRUE(e->end_block({received, "192.0.2.1", "3.0"}, mark));
    }
    void store(const std::string& agent, uint32_t test, const std::string& mark,
               int64_t received = noon) {
        ASSERT_TRUE(e->begin());
        append(agent, test, mark, received);
        ASSERT_TRUE(e->commit());
    }
    std::string mark_of(const std::string& agent) {
        stored_agent found;
        EXPECT_TRUE(e->begin());
        EXPECT_TRUE(e->find_agent("a@b.c", agent, noon, found));
        std::string mark(found.last_block);
        e->give_up();
        return mark;
    }

    /* AGENT TEST for each last result, by name and key, and its record. */
    strings tested() {
        strings found;
        std::string error;
        std::unique_ptr<result_reader> reader = open_reader(state, error);
        EXPECT_TRUE(reader) << error;
        auto note = [&](const known_agent& agent, std::span<const latest_entry> tests) {
            for (const latest_entry& entry : tests) {
                found.push_back(std::string(agent.agent) + " " + std::to_string(*entry.test));
            }
        };
        EXPECT_TRUE(reader->for_each_tested(note, error)) << error;
        size_t records = 0;
        EXPECT_TRUE(reader->for_each_latest([&](const latest_result&) { records++; }, error));
        EXPECT_EQ(records, found.size());
        return found;
    }
    strings days() {
        strings by_turn;
        EXPECT_EQ(e->days(by_turn), drop_outcome::done);
        return by_turn;
    }
};

TEST_F(engine_test, what_is_committed_is_read_and_what_is_given_up_is_not) {
    store("web2", 6, "first");
    ASSERT_TRUE(e->begin());
    append("web1", 5, "second");
    append("web2", 4, "third");
    EXPECT_EQ(tested(), strings{"web2 6"});
    ASSERT_TRUE(e->commit());
    ASSERT_TRUE(e->begin());
    append("web3", 7, "fourth");
    append("web2", 9, "fourth");
    e->give_up();
    EXPECT_EQ(tested(), (strings{"web1 5", "web2 4", "web2 6"}));
    EXPECT_EQ(mark_of("web2"), "third");
    EXPECT_EQ(mark_of("web1"), "second");
    EXPECT_EQ(mark_of("web3"), "");
    open();
    EXPECT_EQ(mark_of("web2"), "third");
}

TEST_F(engine_test, days_are_in_the_order_in_which_they_were_written_to) {
    EXPECT_EQ(days(), strings());
    EXPECT_FALSE(e->days_changed());
    store("web1", 5, "a");
    EXPECT_TRUE(e->days_changed());
    EXPECT_FALSE(e->days_changed());
    store("web1", 5, "b");
    EXPECT_FALSE(e->days_changed());
    store("web1", 6, "c", noon - 86400);
    EXPECT_EQ(days(), (strings{"20260501", "20260430"}));
    store("web1", 6, "d", noon);
    EXPECT_EQ(days(), (strings{"20260430", "20260501"}));
}

TEST_F(engine_test, a_day_goes_with_all_that_points_to_it_and_the_facts_that_come_with_it) {
    store("web1", 5, "a");
    store("web1", 6, "b", noon + 86400);
    const engine::fact facts[] = {{"dropped", 7}, {"boot", 8}};
    EXPECT_EQ(e->drop_day("20260501", facts), drop_outcome::done);
    EXPECT_EQ(days(), strings{"20260502"});
    EXPECT_EQ(tested(), strings{"web1 6"});
    EXPECT_EQ(e->read_fact("dropped"), 7);
    EXPECT_EQ(e->read_fact("boot"), 8);
    EXPECT_EQ(mark_of("web1"), "b");
}

TEST_F(engine_test, a_day_that_is_not_there_changes_nothing) {
    store("web1", 5, "a");
    const engine::fact facts[] = {{"dropped", 7}};
    EXPECT_EQ(e->drop_day("20260430", facts), drop_outcome::failed);
    EXPECT_NE(e->reason(), "");
    EXPECT_EQ(e->read_fact("dropped"), std::nullopt);
    EXPECT_EQ(days(), strings{"20260501"});
    store("web1", 5, "b"); /* it goes on */
}

TEST_F(engine_test, facts_outlive_it) {
    EXPECT_EQ(e->read_fact("keep_days"), 30); /* what a new file says */
    EXPECT_EQ(e->read_fact("boot"), std::nullopt);
    EXPECT_TRUE(e->set_fact("keep_days", 4));
    open();
    EXPECT_EQ(e->read_fact("keep_days"), 4);
}

TEST_F(engine_test, a_place_that_is_gone_is_left_and_another_one_begun) {
    store("web1", 5, "a");
    unsigned before = e->generation();
    e->look_after();
    EXPECT_EQ(e->generation(), before);
    for (const auto& entry : std::filesystem::directory_iterator(state)) {
        std::filesystem::remove(entry);
    }
    e->look_after();
    EXPECT_FALSE(e->is_open());
    EXPECT_EQ(told.size(), 1u);
    EXPECT_EQ(mark_of("web1"), ""); /* what was not answered had better come again */
    EXPECT_NE(e->generation(), before);
    store("web1", 6, "b");
    EXPECT_EQ(tested(), strings{"web1 6"});
}

TEST_F(engine_test, a_failure_that_is_no_damage_is_not_recovered_from_at_once) {
    std::filesystem::remove_all(state);
    e->look_after();
    EXPECT_FALSE(e->begin());
    EXPECT_EQ(e->reason(), state + "/lock: No such file or directory");
    EXPECT_FALSE(e->recover());
    std::filesystem::create_directory(state);
    store("web1", 5, "a");
}
