/* The engine as ingest sees it: nothing of SQLite in here, so that it holds for another one too. */
#include "kept_engine.h"

static const int64_t day_of_noon = noon / 86400;

struct engine_test : kept_engine {
    int64_t agent(const std::string& name, int64_t received = noon) {
        stored_agent found;
        EXPECT_TRUE(e->find_agent("a@b.c", name, received, found)) << e->reason();
        return found.id;
    }
    int64_t test(int64_t agent, std::optional<int32_t> number, uint32_t type = 66) {
        int64_t id = 0;
        EXPECT_TRUE(e->find_test(agent, type, number, id)) << e->reason();
        return id;
    }
    int64_t block(int64_t agent, const std::string& records, int64_t before = 0,
                  int64_t received = noon) {
        int64_t row = 0;
        std::string_view piece = records;
        EXPECT_TRUE(e->append_block(agent, received, before, {&piece, 1}, row)) << e->reason();
        return row;
    }
    void chunk(int64_t test, int64_t first, int64_t last, const std::string& data) {
        EXPECT_TRUE(e->append_chunk(test, {first, last, first - 1, last + 1, 7, data}))
            << e->reason();
    }

    /* A block of one record, up to where the transaction would be committed. */
    void append(const std::string& name, const std::string& mark, int64_t received = noon) {
        int64_t id = agent(name, received);
        block(id, "records of " + mark, 0, received);
        ASSERT_TRUE(e->end_block(id, {received, "192.0.2.1", "3.0"}, mark, "state of " + mark));
    }
    void store(const std::string& name, const std::string& mark, int64_t received = noon) {
        within([&] { append(name, mark, received); });
    }
    std::string mark_of(const std::string& name) {
        stored_agent found;
        EXPECT_TRUE(e->begin());
        EXPECT_TRUE(e->find_agent("a@b.c", name, noon, found));
        std::string mark(found.last_block);
        EXPECT_EQ(found.state, mark.empty() ? "" : "state of " + mark);
        e->give_up();
        return mark;
    }

    strings agents(result_reader& from) {
        strings found;
        auto note = [&](const known_agent& a) {
            found.push_back(std::string(a.agent) + " " + std::string(a.address) + " " +
                            std::string(a.version) + " " + std::to_string(a.first_seen - noon) +
                            " " + std::to_string(a.last_seen - noon) + " " + std::string(a.state));
        };
        EXPECT_TRUE(from.for_each_agent(note, error)) << error;
        return found;
    }
    strings blocks(result_reader& from, int64_t row) {
        strings found;
        auto note = [&](const open_block& b) {
            found.emplace_back(b.records);
            return true;
        };
        EXPECT_TRUE(from.for_each_block(row, note, error)) << error;
        return found;
    }
    strings chunks(result_reader& from, int64_t test, int64_t since = INT64_MIN) {
        strings found;
        auto note = [&](const packed_chunk& c) {
            EXPECT_EQ(c.first, c.received_first - 1);
            EXPECT_EQ(c.last, c.received_last + 1);
            EXPECT_EQ(c.results, 7u);
            found.push_back(std::to_string(c.received_first - noon) + " " +
                            std::to_string(c.received_last - noon) + " " + std::string(c.data));
            return true;
        };
        auto all = [](const packed_chunk& c) {
            EXPECT_EQ(c.data, "");
            return true;
        };
        EXPECT_TRUE(from.for_each_chunk(test, since, all, note, error)) << error;
        return found;
    }
    strings roll_ups(resolution r, int64_t test, int64_t from = INT64_MIN, int64_t to = INT64_MAX) {
        strings found;
        auto note = [&](int64_t day, std::string_view data) {
            found.push_back(std::to_string(day - day_of_noon) + " " + std::string(data));
        };
        EXPECT_TRUE(reader()->for_each_roll_up(r, test, from, to, note, error)) << error;
        return found;
    }
    strings events(const event_filter& which) {
        strings found;
        auto note = [&](const stored_event& v) {
            found.push_back(std::to_string(v.time - noon) + " " + std::to_string(v.test) + " " +
                            std::to_string(v.from) + ">" + std::to_string(v.to) + " " +
                            std::string(v.message));
            return true;
        };
        EXPECT_TRUE(reader()->for_each_event(which, note, error)) << error;
        return found;
    }
    strings ledger(int64_t agent, int64_t from = INT64_MIN, int64_t to = INT64_MAX) {
        strings found;
        auto note = [&](const ledger_row& r) {
            found.push_back(std::to_string(r.agent) + " " + std::to_string(r.hour - noon) + " " +
                            std::to_string(r.received) + " " + std::to_string(r.repeated) + " " +
                            std::to_string(r.missing));
            return true;
        };
        EXPECT_TRUE(reader()->for_each_ledger_row(agent, from, to, note, error)) << error;
        return found;
    }
    std::string inventory(int64_t agent, uint32_t type, int64_t time) {
        std::string found;
        auto note = [&](const stored_inventory& i) {
            EXPECT_EQ(i.agent, agent);
            EXPECT_EQ(i.type, type);
            found = std::to_string(i.received - noon) + " " + std::to_string(i.time - noon) + " " +
                    std::string(i.record);
        };
        EXPECT_TRUE(reader()->read_inventory(agent, type, time, note, error)) << error;
        return found;
    }
    strings days() {
        strings by_turn;
        EXPECT_EQ(e->days(by_turn), drop_outcome::done);
        return by_turn;
    }
    template <typename Do>
    void until_done(Do drop) {
        drop_outcome outcome;
        while ((outcome = drop()) == drop_outcome::more) {
        }
        EXPECT_EQ(outcome, drop_outcome::done) << e->reason();
    }
};

TEST_F(engine_test, what_is_committed_is_read_and_what_is_given_up_is_not) {
    store("web2", "first", noon - 60);
    auto before = reader();
    ASSERT_TRUE(e->begin());
    append("web1", "second");
    append("web2", "third");
    EXPECT_EQ(agents(e->reader()).size(), 2u);
    const strings one = {"web2 192.0.2.1 3.0 -60 -60 state of first"};
    EXPECT_EQ(agents(*reader()), one);
    ASSERT_TRUE(e->commit());
    EXPECT_EQ(agents(*before), one);
    before.reset(); /* opening the file anew would wait for it */
    ASSERT_TRUE(e->begin());
    append("web3", "fourth");
    append("web2", "fourth");
    e->give_up();
    const strings both = {"web1 192.0.2.1 3.0 0 0 state of second",
                          "web2 192.0.2.1 3.0 -60 0 state of third"};
    EXPECT_EQ(agents(*reader()), both);
    EXPECT_EQ(mark_of("web2"), "third");
    EXPECT_EQ(mark_of("web1"), "second");
    EXPECT_EQ(mark_of("web3"), "");
    open();
    EXPECT_EQ(agents(e->reader()), both);
    EXPECT_EQ(mark_of("web2"), "third");
}

TEST_F(engine_test, an_agent_is_found_by_name_and_by_id) {
    store("web1", "first");
    stored_agent found;
    ASSERT_TRUE(e->begin());
    int64_t id = agent("web1");
    EXPECT_FALSE(e->find_agent(id + 1, found));
    EXPECT_EQ(e->reason(), ""); /* and the transaction goes on */
    ASSERT_TRUE(e->find_agent(id, found));
    EXPECT_EQ(found.id, id);
    EXPECT_EQ(found.last_block, "first");
    EXPECT_EQ(found.state, "state of first");
    /* What is not known stays as it was. */
    ASSERT_TRUE(e->end_block(id, {noon + 60, "", ""}, "second", "other"));
    ASSERT_TRUE(e->set_state(id, "third"));
    ASSERT_TRUE(e->commit());
    auto from = reader();
    strings names;
    auto note = [&](const known_agent& a) {
        EXPECT_EQ(a.id, id);
        EXPECT_EQ(a.account, "a@b.c");
        names.push_back(std::string(a.agent) + " " + std::string(a.address) + " " +
                        std::string(a.state) + " " + std::to_string(a.last_seen - noon));
    };
    EXPECT_TRUE(from->read_agent(id, note, error));
    EXPECT_TRUE(from->read_agent("a@b.c", "web1", note, error));
    EXPECT_TRUE(from->read_agent(id + 1, note, error));
    EXPECT_TRUE(from->read_agent("a@b.c", "web2", note, error));
    EXPECT_EQ(names, strings(2, "web1 192.0.2.1 third 60"));
}

TEST_F(engine_test, a_test_keeps_its_id) {
    int64_t one = 0, five = 0, none = 0, other_type = 0, other = 0;
    within([&] {
        one = agent("web1");
        five = test(one, 5);
        none = test(one, std::nullopt);
        other_type = test(one, 5, 44);
        other = test(agent("web2"), -7);
    });
    EXPECT_LT(five, none);
    EXPECT_LT(none, other_type);
    EXPECT_LT(other_type, other);
    open();
    within([&] {
        EXPECT_EQ(test(one, 5), five);
        EXPECT_EQ(test(one, std::nullopt), none);
        EXPECT_EQ(test(one, 5, 44), other_type);
        EXPECT_EQ(test(agent("web2"), -7), other);
        std::vector<known_test_row> found;
        EXPECT_TRUE(e->tests_after(five, 2, found));
        ASSERT_EQ(found.size(), 2u);
        EXPECT_EQ(found[0].id, none);
        EXPECT_EQ(found[0].number, std::nullopt);
        EXPECT_EQ(found[1].type, 44u);
        EXPECT_TRUE(e->tests_after(other, 2, found));
        EXPECT_TRUE(found.empty());
    });
    std::optional<known_test_row> found = reader()->find_test(other);
    ASSERT_TRUE(found);
    if (found) {
        EXPECT_EQ(found->number, -7);
        EXPECT_EQ(found->type, 66u);
    }
    EXPECT_FALSE(reader()->find_test(other + 1));
}

TEST_F(engine_test, blocks_are_a_chain_until_they_are_dropped) {
    int64_t one = 0, first = 0, second = 0, third = 0, others = 0;
    within([&] {
        one = agent("web1");
        first = block(one, "a");
        others = block(agent("web2"), "of another");
        const std::string_view pieces[] = {"b", "", "cc"};
        EXPECT_TRUE(e->append_block(one, noon, first, pieces, second));
    });
    auto before = reader();
    EXPECT_EQ(blocks(*before, second), (strings{"bcc", "a"}));
    within([&] {
        EXPECT_TRUE(e->drop_blocks(second));
        EXPECT_EQ(blocks(e->reader(), second), strings());
        third = block(one, "d", second); /* as if that had not been known */
    });
    EXPECT_GT(third, second);
    EXPECT_EQ(blocks(*before, second), (strings{"bcc", "a"}));
    EXPECT_EQ(blocks(*reader(), third), strings{"d"});
    EXPECT_EQ(blocks(*reader(), second), strings());
    EXPECT_EQ(blocks(*reader(), others), strings{"of another"});
    EXPECT_EQ(blocks(*reader(), 0), strings());
    within([&] {
        EXPECT_TRUE(e->drop_blocks(third));
        EXPECT_TRUE(e->drop_blocks(third));
        EXPECT_GT(block(one, "e"), third); /* its row is not given again */
    });
}

TEST_F(engine_test, an_id_of_a_block_is_never_given_again) {
    int64_t one = 0, last = 0;
    auto add = [&] {
        int64_t row = block(one, "some");
        EXPECT_GT(row, last);
        last = row;
    };
    within([&] {
        one = agent("one");
        for (int i = 0; i < 2500; i++) { /* more than are set aside at once */
            add();
        }
    });
    const int64_t stored = last;
    ASSERT_TRUE(e->begin());
    for (int i = 0; i < 1500; i++) {
        add();
    }
    e->give_up(); /* those were not given: they may come again */
    last = stored;
    within(add);
    for (bool anew : {false, true}) {
        within([&] { e->drop_blocks(last); });
        if (anew) {
            open();
        }
        within(add);
    }
    within([&] {
        for (int64_t row = last; row > 0; row--) { /* not one is left */
            ASSERT_TRUE(e->drop_blocks(row));
        }
    });
    open();
    within(add);
}

TEST_F(engine_test, large_blocks_and_inventories_come_back) {
    std::string large, joined;
    for (int i = 0; i < 3 << 20; i++) {
        large += static_cast<char>(i * 7 + i / 1000);
    }
    for (int i = 0; i < 100000; i++) {
        joined += static_cast<char>(i / 3);
    }
    std::vector<std::string_view> pieces;
    for (size_t at = 0; at < joined.size(); at += 1000) {
        pieces.push_back(std::string_view(joined).substr(at, 1000));
    }
    int64_t one = 0, row = 0, pieced = 0, inventory_row = 0;
    within([&] {
        one = agent("web1");
        row = block(one, large);
        EXPECT_TRUE(e->append_block(one, noon, row, pieces, pieced));
        EXPECT_TRUE(e->append_inventory(
            {.agent = one, .type = 42, .received = noon, .time = noon, .record = large},
            inventory_row));
    });
    strings found = blocks(*reader(), pieced);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_TRUE(found[0] == joined);
    EXPECT_TRUE(found[1] == large);
    EXPECT_TRUE(inventory(one, 42, noon) == "0 0 " + large);
}

TEST_F(engine_test, chunks_of_a_test_are_read_newest_first) {
    const int64_t day = 86400;
    within([&] {
        chunk(5, noon - day, noon - day + 3600, "a");
        chunk(5, noon, noon + 100, "b");
        chunk(5, noon - 43300, noon - 43100, "c"); /* over midnight: of the day of its end */
        chunk(6, noon, noon, "of another");
        chunk(4, noon, noon, "of another");
        EXPECT_EQ(chunks(e->reader(), 5).size(), 3u);
    });
    auto from = reader();
    const strings all = {"0 100 b", "-43300 -43100 c", "-86400 -82800 a"};
    EXPECT_EQ(chunks(*from, 5), all);
    EXPECT_EQ(chunks(*from, 5, noon - day), all);
    EXPECT_EQ(chunks(*from, 5, noon - day + 3601), (strings{all[0], all[1]}));
    EXPECT_EQ(chunks(*from, 5, noon + 100), strings{all[0]});
    EXPECT_EQ(chunks(*from, 5, noon + 101), strings());
    EXPECT_EQ(chunks(*from, 7), strings());
    EXPECT_EQ(chunks(*from, -1), strings());
    EXPECT_EQ(chunks(*from, INT64_MAX), strings());
    /* Data is read of what is wanted alone, until enough was had. */
    strings data;
    auto wanted = [](const packed_chunk& c) { return c.received_first != noon - 43300; };
    auto note = [&](const packed_chunk& c) {
        data.emplace_back(c.data);
        return data.size() < 2;
    };
    EXPECT_TRUE(from->for_each_chunk(5, INT64_MIN, wanted, note, error));
    EXPECT_EQ(data, (strings{"b", "a"}));
    auto none = [](const packed_chunk&) { return false; };
    EXPECT_TRUE(from->for_each_chunk(5, INT64_MIN, none, note, error));
    EXPECT_EQ(data.size(), 2u);
    EXPECT_TRUE(from->for_each_chunk(5, INT64_MIN, wanted, note, error));
    EXPECT_EQ(data.size(), 3u); /* the first one was enough */
}

TEST_F(engine_test, chunks_of_the_same_second_and_of_impossible_times_are_all_kept) {
    within([&] {
        for (const char* data : {"1", "2", "3"}) {
            chunk(5, noon, noon + 1, data);
        }
        chunk(5, noon + 1, noon + 1, "4");
        chunk(6, -20, -10, "before 1970");
        chunk(6, -30, -5, "before it");
        chunk(6, int64_t{1} << 40, int64_t{1} << 41, "far");
        chunk(6, int64_t{1} << 40, int64_t{1} << 42, "farther");
        chunk(7, 0, 0, "of another");
    });
    EXPECT_EQ(chunks(*reader(), 5), (strings{"1 1 4", "0 1 3", "0 1 2", "0 1 1"}));
    strings found = chunks(*reader(), 6);
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0], std::to_string((int64_t{1} << 40) - noon) + " " +
                            std::to_string((int64_t{1} << 42) - noon) + " farther");
    EXPECT_EQ(found[2],
              std::to_string(-30 - noon) + " " + std::to_string(-5 - noon) + " before it");
    EXPECT_EQ(chunks(*reader(), 7).size(), 1u);
}

TEST_F(engine_test, an_id_that_no_test_can_have_is_refused) {
    for (int64_t id : {int64_t{-1}, int64_t{1} << 29}) {
        ASSERT_TRUE(e->begin());
        EXPECT_FALSE(
            e->append_chunk(id, {.received_first = noon, .received_last = noon, .data = "x"}));
        EXPECT_EQ(e->reason(), "a chunk of no test");
        EXPECT_FALSE(e->recover());
        ASSERT_TRUE(e->begin());
        EXPECT_FALSE(e->put_roll_up(resolution::hour, id, 5, "x"));
        EXPECT_FALSE(e->recover());
    }
    store("web1", "a");
}

TEST_F(engine_test, roll_ups_are_replaced_and_read_in_order) {
    const auto five = resolution::five_minutes, hour = resolution::hour;
    const int64_t today = day_of_noon;
    within([&] {
        EXPECT_TRUE(e->put_roll_up(five, 5, today + 1, "d"));
        EXPECT_TRUE(e->put_roll_up(five, 5, today, "c"));
        EXPECT_TRUE(e->put_roll_up(five, 5, today - 1, "b")); /* of the month before */
        EXPECT_TRUE(e->put_roll_up(five, 5, today - 200, "a"));
        EXPECT_TRUE(e->put_roll_up(five, 6, today, "other"));
        EXPECT_TRUE(e->put_roll_up(hour, 5, today, "hour"));
        EXPECT_TRUE(e->put_roll_up(five, 5, -1, "never"));
        EXPECT_TRUE(e->put_roll_up(five, 5, INT64_MAX, "never"));
    });
    EXPECT_EQ(roll_ups(five, 5), (strings{"-200 a", "-1 b", "0 c", "1 d"}));
    EXPECT_EQ(roll_ups(five, 5, today - 1, today + 1), (strings{"-1 b", "0 c"}));
    EXPECT_EQ(roll_ups(five, 5, today, today), strings());
    EXPECT_EQ(roll_ups(hour, 5), strings{"0 hour"});
    EXPECT_EQ(roll_ups(hour, 6), strings());
    EXPECT_EQ(roll_ups(hour, -1), strings());
    open(); /* and again with tables that are there */
    within([&] {
        EXPECT_TRUE(e->put_roll_up(five, 5, today, "new"));
        EXPECT_TRUE(e->put_roll_up(five, 4, today - 1, "another test's"));
        EXPECT_TRUE(e->put_roll_up(five, 5, today - 2, "before"));
        EXPECT_TRUE(e->drop_roll_up(five, 5, today - 1));
        EXPECT_TRUE(e->drop_roll_up(five, 7, today - 1));
        EXPECT_TRUE(e->drop_roll_up(five, 5, today - 1000));
        EXPECT_TRUE(e->drop_roll_up(five, 5, -1));
    });
    EXPECT_EQ(roll_ups(five, 5), (strings{"-200 a", "0 new", "1 d"}));
    EXPECT_EQ(roll_ups(five, 4), strings{"-1 another test's"});
    until_done([&] { return e->drop_roll_ups(five, today); });
    EXPECT_EQ(roll_ups(five, 5), (strings{"0 new", "1 d"}));
    within([&] { EXPECT_TRUE(e->put_roll_up(five, 5, today - 200, "again")); });
    until_done([&] { return e->drop_roll_ups(five, today + 31); });
    EXPECT_EQ(roll_ups(five, 5), strings());
    EXPECT_EQ(roll_ups(hour, 5), strings{"0 hour"});
    until_done([&] { return e->drop_roll_ups(hour, 0); });
    EXPECT_EQ(roll_ups(hour, 5), strings{"0 hour"});
}

TEST_F(engine_test, what_was_put_in_a_transaction_that_is_given_up_is_not_there) {
    ASSERT_TRUE(e->begin());
    chunk(5, noon, noon, "a");
    EXPECT_TRUE(e->put_roll_up(resolution::hour, 5, 7, "x"));
    e->give_up();
    EXPECT_EQ(chunks(*reader(), 5), strings());
    within([&] { /* the tables are made again */
                 chunk(5, noon, noon, "b");
                 EXPECT_TRUE(e->put_roll_up(resolution::hour, 5, 7, "y"));
    });
    EXPECT_EQ(chunks(*reader(), 5), strings{"0 0 b"});
    EXPECT_EQ(roll_ups(resolution::hour, 5).size(), 1u);
}

TEST_F(engine_test, the_inventory_of_a_time_is_found) {
    auto add = [&](int64_t agent, uint32_t type, int64_t time, const char* record) {
        int64_t row = 0;
        EXPECT_TRUE(e->append_inventory({.agent = agent,
                                         .type = type,
                                         .received = noon + time + 1,
                                         .time = noon + time,
                                         .record = record},
                                        row));
        return row;
    };
    within([&] {
        int64_t first = add(1, 42, 0, "a");
        EXPECT_LT(first, add(1, 42, 100, "b"));
        add(1, 42, 100, "c");
        add(1, 42, 200, "d");
        add(1, 45, 50, "disks");
        add(2, 42, 50, "of another");
    });
    EXPECT_EQ(inventory(1, 42, noon - 1), "");
    EXPECT_EQ(inventory(1, 42, noon), "1 0 a");
    EXPECT_EQ(inventory(1, 42, noon + 99), "1 0 a");
    EXPECT_EQ(inventory(1, 42, noon + 100), "101 100 c");
    EXPECT_EQ(inventory(1, 42, INT64_MAX), "201 200 d");
    EXPECT_EQ(inventory(2, 42, INT64_MAX), "51 50 of another");
    EXPECT_EQ(inventory(2, 45, INT64_MAX), "");
    /* The last one before the time stays: it holds until the next. */
    until_done([&] { return e->drop_inventories(noon + 150); });
    EXPECT_EQ(inventory(1, 42, noon + 99), "");
    EXPECT_EQ(inventory(1, 42, noon + 150), "101 100 c");
    EXPECT_EQ(inventory(1, 45, noon + 150), "51 50 disks");
    EXPECT_EQ(inventory(2, 42, noon + 150), "51 50 of another");
    until_done([&] { return e->drop_inventories(noon + 1000); });
    EXPECT_EQ(inventory(1, 42, noon + 199), "");
    EXPECT_EQ(inventory(1, 42, noon + 200), "201 200 d");
    EXPECT_EQ(inventory(1, 45, noon + 200), "51 50 disks");
}

TEST_F(engine_test, what_a_test_was_is_kept) {
    auto add = [&](uint32_t type, int32_t number, int64_t since, const char* name) {
        EXPECT_TRUE(e->append_definition({.type = type,
                                          .number = number,
                                          .location = -7,
                                          .since = since,
                                          .name = name,
                                          .text = "a\tb"}));
    };
    within([&] {
        add(66, 5, noon, "load");
        add(46, 5, noon, "disk");
        add(66, 4, noon, "other");
        add(66, 5, noon + 100, "load again");
    });
    auto read = [&](uint32_t type, int32_t number) {
        strings found;
        auto note = [&](const test_definition& d) {
            EXPECT_EQ(d.location, -7);
            EXPECT_EQ(d.text, "a\tb");
            found.push_back(std::to_string(d.type) + "/" + std::to_string(d.number) + " " +
                            std::to_string(d.since - noon) + " " + std::string(d.name));
        };
        EXPECT_TRUE(reader()->for_each_definition(0, type, number, note, error)) << error;
        return found;
    };
    EXPECT_EQ(read(66, 5), (strings{"66/5 0 load", "66/5 100 load again"}));
    EXPECT_EQ(read(66, 0), (strings{"66/4 0 other", "66/5 0 load", "66/5 100 load again"}));
    EXPECT_EQ(read(0, 0),
              (strings{"46/5 0 disk", "66/4 0 other", "66/5 0 load", "66/5 100 load again"}));
    EXPECT_EQ(read(66, 6), strings());
}

TEST_F(engine_test, what_a_test_was_at_a_time) {
    auto add = [&](int32_t location, int64_t since, const char* name, int32_t number = 5) {
        EXPECT_TRUE(e->append_definition({.type = 66,
                                          .number = number,
                                          .location = location,
                                          .since = noon + since,
                                          .name = name,
                                          .text = "a\tb"}));
    };
    auto read = [&](std::optional<int32_t> location, int64_t time, int32_t number = 5) {
        std::string found;
        auto note = [&](const test_definition& d, int64_t until) {
            EXPECT_EQ(d.type, 66u);
            EXPECT_EQ(d.number, number);
            EXPECT_EQ(d.location, location.value_or(d.location));
            EXPECT_EQ(d.text, "a\tb");
            found += std::to_string(d.since - noon) + " " + std::string(d.name) + " until " +
                     (until == INT64_MAX ? "the end" : std::to_string(until - noon));
        };
        EXPECT_TRUE(reader()->read_definition(0, 66, number, location, time, note, error)) << error;
        return found;
    };
    EXPECT_EQ(read(1, noon), "");
    within([&] {
        add(1, 0, "load");
        add(1, 0, "other", 4);
        add(-2, 50, "load, revised");
        add(1, 100, "load again");
        add(1, 80, "set back");
    });
    EXPECT_EQ(read(1, noon + 500), "80 set back until the end");
    EXPECT_EQ(read(1, noon + 80), "80 set back until the end");
    EXPECT_EQ(read(1, noon + 79), "0 load until 80");
    EXPECT_EQ(read(1, noon - 1), "0 load until 80");
    EXPECT_EQ(read(1, INT64_MIN), "0 load until 80");
    EXPECT_EQ(read(1, INT64_MAX), "80 set back until the end");
    EXPECT_EQ(read(-2, noon), "50 load, revised until the end");
    EXPECT_EQ(read(3, noon), "");
    EXPECT_EQ(read(1, noon, 4), "0 other until the end");
    EXPECT_EQ(read(1, noon, 6), "");
    EXPECT_EQ(read(std::nullopt, noon + 60), "50 load, revised until 80");
    EXPECT_EQ(read(std::nullopt, noon + 40), "0 load until 50");
    EXPECT_EQ(read(std::nullopt, noon - 40), "0 load until 50");
}

TEST_F(engine_test, days_are_in_the_order_in_which_they_were_written_to) {
    EXPECT_EQ(days(), strings());
    EXPECT_FALSE(e->days_changed());
    within([&] { chunk(5, noon, noon, "a"); });
    EXPECT_TRUE(e->days_changed());
    EXPECT_FALSE(e->days_changed());
    within([&] { chunk(5, noon, noon, "b"); });
    EXPECT_FALSE(e->days_changed());
    within([&] { chunk(5, noon - 86400, noon - 86400, "c"); });
    EXPECT_EQ(days(), (strings{"20260501", "20260430"}));
    within([&] { chunk(5, noon, noon, "d"); });
    EXPECT_EQ(days(), (strings{"20260430", "20260501"}));
}

TEST_F(engine_test, a_day_goes_in_bites_and_with_the_last_the_facts_come) {
    const int count = 3000;
    const std::string large(20000, 'x');
    within([&] {
        for (int i = 0; i < count; i++) {
            chunk(i, noon, noon, i % 10 == 0 ? large : "small");
        }
        chunk(5, noon + 86400, noon + 86400, "kept");
        EXPECT_TRUE(e->append_undecodable(1, noon - 86400, {0, 1, "of a day before", ""}));
        EXPECT_TRUE(e->append_undecodable(1, noon, {0, 1, "of the day", ""}));
        EXPECT_TRUE(e->append_undecodable(1, noon + 86400, {0, 1, "of the next", ""}));
    });
    e->days_changed();
    const engine::fact facts[] = {{"dropped", 7}, {"boot", 8}};
    until_done([&] {
        EXPECT_EQ(e->read_fact("dropped"), std::nullopt);
        EXPECT_EQ(days(), (strings{"20260501", "20260502"}));
        store("web1", "between"); /* nothing else has to wait for the end */
        return e->drop_day("20260501", facts);
    });
    EXPECT_EQ(days(), strings{"20260502"});
    EXPECT_EQ(chunks(*reader(), 5), strings{"86400 86400 kept"});
    EXPECT_EQ(e->read_fact("dropped"), 7);
    EXPECT_EQ(e->read_fact("boot"), 8);
    EXPECT_EQ(mark_of("web1"), "between");
    within([&] { chunk(5, noon, noon, "late"); }); /* the day begins anew */
    EXPECT_TRUE(e->days_changed());
    EXPECT_EQ(chunks(*reader(), 5), (strings{"86400 86400 kept", "0 0 late"}));
}

TEST_F(engine_test, a_day_that_is_not_there_changes_nothing) {
    within([&] { chunk(5, noon, noon, "a"); });
    const engine::fact facts[] = {{"dropped", 7}};
    EXPECT_EQ(e->drop_day("20260430", facts), drop_outcome::failed);
    EXPECT_NE(e->reason(), "");
    EXPECT_EQ(e->read_fact("dropped"), std::nullopt);
    EXPECT_EQ(days(), strings{"20260501"});
    within([&] { chunk(5, noon, noon, "b"); }); /* it goes on */
}

TEST_F(engine_test, events_are_read_newest_first) {
    int64_t one = 0, two = 0, id = 0, before = 0;
    auto add = [&](int64_t time, int64_t of, int64_t test, const char* message) {
        before = id;
        EXPECT_TRUE(e->append_event({.time = noon + time,
                                     .agent = of,
                                     .test = test,
                                     .from = 1,
                                     .to = 2,
                                     .message = message},
                                    id));
        EXPECT_GT(id, before);
    };
    within([&] {
        one = agent("web1");
        two = agent("web2");
        add(0, one, 5, "a");
        add(10, two, 6, "b");
        add(-10, one, 5, "late");
        add(10, one, 0, "c");
        add(20, one, 7, "");
    });
    EXPECT_EQ(events({}),
              (strings{"20 7 1>2 ", "10 0 1>2 c", "10 6 1>2 b", "0 5 1>2 a", "-10 5 1>2 late"}));
    EXPECT_EQ(events({.agent = one}),
              (strings{"20 7 1>2 ", "10 0 1>2 c", "0 5 1>2 a", "-10 5 1>2 late"}));
    EXPECT_EQ(events({.agent = one, .test = 5}), (strings{"0 5 1>2 a", "-10 5 1>2 late"}));
    EXPECT_EQ(events({.from = noon, .to = noon + 20}),
              (strings{"10 0 1>2 c", "10 6 1>2 b", "0 5 1>2 a"}));
    EXPECT_EQ(events({.from = noon, .to = noon}), strings());
    EXPECT_EQ(events({.to = INT64_MIN}), strings());
    /* Behind the one that came before the last. */
    EXPECT_EQ(events({.to = noon + 11, .below = before}),
              (strings{"10 6 1>2 b", "0 5 1>2 a", "-10 5 1>2 late"}));
    size_t seen = 0;
    EXPECT_TRUE(reader()->for_each_event(
        {}, [&](const stored_event&) { return ++seen < 2; }, error));
    EXPECT_EQ(seen, 2u);
    until_done([&] { return e->drop_events(noon + 10); });
    EXPECT_EQ(events({}), (strings{"20 7 1>2 ", "10 0 1>2 c", "10 6 1>2 b"}));
    until_done([&] { return e->drop_events(noon + 100); });
    within([&] { add(30, one, 5, "new"); }); /* no id is given again */
    EXPECT_EQ(events({}), strings{"30 5 1>2 new"});
}

TEST_F(engine_test, the_ledger_adds_up) {
    within([&] {
        EXPECT_TRUE(e->add_to_ledger({2, noon, 5, 1, 0}));
        EXPECT_TRUE(e->add_to_ledger({1, noon, 7, 0, 2}));
        EXPECT_TRUE(e->add_to_ledger({1, noon + 3600, 1, 0, 0}));
        EXPECT_TRUE(e->add_to_ledger({1, noon - 3600, 3, 0, 0}));
    });
    within([&] { EXPECT_TRUE(e->add_to_ledger({1, noon, 1, 2, 3})); });
    EXPECT_EQ(ledger(0), (strings{"1 -3600 3 0 0", "1 0 8 2 5", "2 0 5 1 0", "1 3600 1 0 0"}));
    EXPECT_EQ(ledger(1, noon, noon + 3600), strings{"1 0 8 2 5"});
    EXPECT_EQ(ledger(2), strings{"2 0 5 1 0"});
    EXPECT_EQ(ledger(3), strings());
    until_done([&] { return e->drop_ledger(noon); });
    EXPECT_EQ(ledger(0), (strings{"1 0 8 2 5", "2 0 5 1 0", "1 3600 1 0 0"}));
}

TEST_F(engine_test, facts_outlive_it) {
    EXPECT_EQ(e->read_fact("keep_days"), 30); /* what a new file says */
    EXPECT_EQ(e->read_fact("boot"), std::nullopt);
    EXPECT_TRUE(e->set_fact("keep_days", 4));
    ASSERT_TRUE(e->begin());
    EXPECT_TRUE(e->set_fact("closing_test", 5));
    EXPECT_EQ(e->reader().read_fact("closing_test"), 5);
    e->give_up();
    open();
    EXPECT_EQ(e->read_fact("keep_days"), 4);
    EXPECT_EQ(e->read_fact("closing_test"), std::nullopt);
    EXPECT_EQ(reader()->read_fact("keep_days"), 4);
}

TEST_F(engine_test, a_place_that_is_gone_is_left_and_another_one_begun) {
    store("web1", "a");
    int64_t five = 0;
    within([&] { five = test(agent("web1"), 5); });
    unsigned before = e->generation();
    e->look_after();
    EXPECT_EQ(e->generation(), before);
    for (const auto& entry : std::filesystem::directory_iterator(state)) {
        std::filesystem::remove(entry);
    }
    e->look_after();
    EXPECT_FALSE(e->is_open());
    EXPECT_EQ(told.size(), 1u);
    EXPECT_FALSE(e->reader().for_each_agent([](const known_agent&) {}, error));
    EXPECT_EQ(mark_of("web1"), ""); /* what was not answered had better come again */
    EXPECT_NE(e->generation(), before);
    store("web1", "b");
    within([&] { EXPECT_EQ(test(agent("web1"), 5), five); });
    EXPECT_EQ(agents(*reader()), strings{"web1 192.0.2.1 3.0 0 0 state of b"});
}

TEST_F(engine_test, agents_from_a_place_on_until_it_is_enough) {
    for (const char* name : {"web3", "web1", "db", "web2"}) {
        store(name, name);
    }
    auto from = [&](std::string_view account, std::string_view agent, size_t most) {
        strings found;
        auto note = [&](const known_agent& a) {
            found.emplace_back(a.agent);
            return found.size() < most;
        };
        EXPECT_TRUE(reader()->for_each_agent_from(account, agent, note, error)) << error;
        return found;
    };
    EXPECT_EQ(from("", "", 9), (strings{"db", "web1", "web2", "web3"}));
    EXPECT_EQ(from({}, {}, 2), (strings{"db", "web1"}));
    EXPECT_EQ(from("a@b.c", "web1", 9), (strings{"web1", "web2", "web3"}));
    EXPECT_EQ(from("a@b.c", "web10", 1), (strings{"web2"}));
    EXPECT_EQ(from("a@b.c", "x", 9), strings{});
    EXPECT_EQ(from("b", "", 9), strings{});
    EXPECT_EQ(from("a", "zzz", 9).size(), 4u);
}

TEST_F(engine_test, a_reader_gives_up_in_time) {
    store("web1", "a");
    std::string why;
    std::unique_ptr<result_reader> reads = open_reader(state, why);
    ASSERT_TRUE(reads) << why;
    auto count = [&] {
        int found = 0;
        bool ok = reads->for_each_agent([&](const known_agent&) { found++; }, why);
        return ok ? found : -1;
    };
    EXPECT_EQ(count(), 1);
    reads->give_up_at(std::chrono::steady_clock::now() - std::chrono::seconds(1));
    EXPECT_EQ(count(), -1);
    EXPECT_EQ(why, "there was not time enough");
    reads->give_up_at(std::chrono::steady_clock::now() + std::chrono::hours(1));
    EXPECT_EQ(count(), 1);
    reads->give_up_at(std::chrono::steady_clock::now() - std::chrono::seconds(1));
    reads->rest();
    ASSERT_TRUE(reads->renew(why)) << why;
    EXPECT_EQ(count(), 1) << "for the next one it is lent to";
}

TEST_F(engine_test, a_failure_that_is_no_damage_is_not_recovered_from_at_once) {
    std::filesystem::remove_all(state);
    e->look_after();
    EXPECT_FALSE(e->begin());
    EXPECT_EQ(e->reason(), state + "/lock: No such file or directory");
    EXPECT_FALSE(e->recover());
    std::filesystem::create_directory(state);
    store("web1", "a");
}
