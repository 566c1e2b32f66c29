/* Packing, closing of days and expiry, driven by hand: an engine, blocks as the store's thread puts
 * them there, and upkeep without a thread. What is read back is what was sent, whatever was packed
 * in between and whenever it ended. */
#include "ingest/upkeep.h"
#include "store/sqlite/dropping.cpp"

#include "collector_test_support.h"
#include "ingest/clock.h"
#include "ingest/in_transaction.h"
#include "ingest/storing.h"
#include "state/history.h"
#include "state/roll_up.h"
#include "stored_records.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>

namespace {

using strings = std::vector<std::string>;
const int64_t midnight = 1777593600; /* 2026-05-01 */
const int64_t first_day = midnight / 86400;
int64_t wall = 0, steady = 0;

struct upkeep_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    strings told;
    kept_days keep = {.raw = 14, .five_minutes = 90, .hour = 730, .events = 0, .ledger = 730};
    std::unique_ptr<engine> store;
    std::unique_ptr<undecodable_files> aside;
    roster agents;
    std::unique_ptr<upkeep> care;
    int64_t newest = INT64_MIN;
    witness::verdict clocks = witness::verdict::none; /* of agents, what they say of ours */

    void SetUp() override {
        wall = midnight + 3600;
        steady = 1000;
        arrival_clock = [] { return wall; };
        steady_clock = [] { return steady; };
        boot_number = [] { return int64_t{1}; };
        pace.bite = std::chrono::hours(1);
    }
    const std::chrono::milliseconds usual_bite = bite_time;
    void TearDown() override {
        close();
        bite_time = usual_bite;
        pace = {};
        arrival_clock = epoch_seconds;
        steady_clock = boot_seconds;
        boot_number = read_boot_number;
    }

    void open() {
        std::string error;
        store = open_engine({state, keep.raw, [this](const std::string& t) { told.push_back(t); }},
                            error);
        ASSERT_TRUE(store) << error;
        aside = std::make_unique<undecodable_files>(state + "/undecodable");
        care = std::make_unique<upkeep>(*store, agents, *aside, keep,
                                        [this](const std::string& t) { told.push_back(t); });
        agents.clear();
        for (const stored_agent_row& row : rows()) {
            note_open(agents.add(row.id, row.account, row.name), row.state);
            for (const test_status& test : row.state.tests) {
                newest = std::max(newest, test.time);
            }
        }
        care->begin();
    }
    void close() {
        care.reset();
        store.reset();
    }

    /* As a poll that arrives now. */
    void send(const std::string& plain, const std::string& name = "web1") {
        std::vector<decoded_record> decoded;
        for (block_reader reader(plain); reader.next();) {
            decoded.push_back({reader.current, summarize(reader.current)});
        }
        storing writing(*store);
        agent_work work;
        stored_agent row;
        ASSERT_TRUE(in_transaction(*store, [&] {
            return store->find_agent("a@b.c", name, wall, row) &&
                   (work.begin(row), writing.records(work, decoded, wall, {})) &&
                   store->end_block(work.id, {.received = wall, .address = "", .version = ""},
                                    "hash", writing.packed(work));
        }));
        note_open(agents.add(work.id, "a@b.c", name), work.state);
        for (const test_status& test : work.state.tests) {
            newest = std::max(newest, test.time);
        }
    }
    void pass(int64_t seconds) {
        wall += seconds;
        steady += seconds;
    }
    void run() {
        while (care->run({wall, newest, 180, clocks})) {
        }
    }
    /* A record of each of some tests every minute, polls with it. */
    void live(int64_t seconds, uint32_t tests = 2, bool with_upkeep = true) {
        for (int64_t end = wall + seconds; wall < end; pass(60)) {
            std::string block;
            for (uint32_t test = 1; test <= tests; test++) {
                block += load_record(test, wall - 1);
                sent.push_back(block.substr(block.size() - load_record(test, wall - 1).size()));
            }
            send(block);
            if (with_upkeep) {
                run();
            }
        }
    }
    strings sent;

    std::vector<stored_agent_row> rows() {
        std::string error;
        auto all = stored_agents(store->reader(), error);
        EXPECT_EQ(error, "");
        return all;
    }
    std::vector<stored_record> records() {
        std::string error;
        auto all = stored_records(store->reader(), error);
        EXPECT_EQ(error, "");
        return all;
    }
    size_t packed() {
        auto all = records();
        return std::count_if(all.begin(), all.end(),
                             [](const stored_record& r) { return r.is_packed; });
    }
    /* Each record that was sent is there once. */
    void expect_all() {
        strings found;
        for (const stored_record& r : records()) {
            found.push_back(r.raw);
        }
        strings wanted = sent;
        std::sort(found.begin(), found.end());
        std::sort(wanted.begin(), wanted.end());
        EXPECT_TRUE(found == wanted) << found.size() << " of " << wanted.size();
    }
    int64_t id_of(int32_t test) { return rows().at(0).state.find(type_load_average, test)->id; }
    std::vector<bucket> roll_up_of(int64_t test, int64_t day,
                                   resolution r = resolution::five_minutes) {
        std::vector<bucket> all;
        std::string error;
        EXPECT_TRUE(store->reader().for_each_roll_up(
            r, test, day, day + 1,
            [&](int64_t, std::string_view data) { EXPECT_TRUE(unpack_roll_up(data, all)); }, error))
            << error;
        return all;
    }
    uint32_t count_of(int64_t test, int64_t day, resolution r = resolution::five_minutes) {
        uint32_t count = 0;
        for (const bucket& b : roll_up_of(test, day, r)) {
            count += b.count;
        }
        return count;
    }
    /* Made of all that is stored raw, in another way. */
    void expect_rolled_up(int64_t test, int64_t day) {
        result_builder builder(false);
        for (const stored_record& r : records()) {
            record_summary what = r.summary();
            if (rows().at(0).state.find(what.type, what.test)->id == test) {
                builder.add(r.raw, r.received);
            }
        }
        auto all = builder.take_all();
        order_by_time(all);
        auto wanted = roll_up(all, day, 300, 180);
        auto found = roll_up_of(test, day);
        ASSERT_EQ(found.size(), wanted.size());
        for (size_t i = 0; i < found.size(); i++) {
            EXPECT_EQ(found[i].start, wanted[i].start);
            EXPECT_EQ(found[i].count, wanted[i].count);
            EXPECT_EQ(found[i].ok, wanted[i].ok) << found[i].start;
        }
    }
    /* 0 where there is no such table. */
    size_t rows_of(const std::string& sql) {
        sqlite3* db = nullptr;
        size_t count = 0;
        auto note = [](void* to, int, char** values, char**) {
            *static_cast<size_t*>(to) = std::stoul(values[0]);
            return 0;
        };
        EXPECT_EQ(sqlite3_open((state + "/results.db").c_str(), &db), SQLITE_OK);
        sqlite3_exec(db, sql.c_str(), note, &count, nullptr);
        sqlite3_close(db);
        return count;
    }
    std::optional<int64_t> fact(const char* name) { return store->read_fact(name); }
};

/* ---- packing ---- */

TEST_F(upkeep_test, what_lies_open_for_an_hour_is_packed_and_what_comes_behind_it_stays) {
    open();
    live(3600 + 60);
    EXPECT_EQ(packed(), 0u);
    live(1860);
    size_t then = packed();
    EXPECT_GE(then, 2u * 60);
    EXPECT_LT(rows()[0].state.open_bytes, 40u * 1024);
    expect_all();
    live(1200);
    EXPECT_EQ(packed(), then);
    expect_all();
    EXPECT_EQ(told, strings());
}

TEST_F(upkeep_test, a_megabyte_is_packed_at_once) {
    open();
    pace.open_most = 20000;
    live(60 * 60, 10);
    EXPECT_GT(packed(), 50u);
    EXPECT_LE(rows()[0].state.open_bytes, 20000u);
    expect_all();
}

TEST_F(upkeep_test, the_oldest_go_first_and_large_blocks_alone) {
    open();
    pace.open_for = 1 << 30;
    std::string large;
    for (int i = 0; i < 9000; i++) { /* some 700 KB */
        large += load_record(9, i);
        sent.push_back(load_record(9, i));
    }
    live(300, 2, false);
    send(large);
    live(300, 2, false);
    send(with_word(load_record(8, 77), 40, 7));
    sent.push_back(with_word(load_record(8, 77), 40, 7));
    for (int i = 0; i < 4; i++) {
        run();
        expect_all();
        pass(3);
    }
    EXPECT_LT(rows()[0].state.open_bytes, 1u << 20);
    pace.open_for = -1;
    pace.spread = 1;
    pass(3);
    run();
    EXPECT_EQ(packed(), sent.size());
    EXPECT_EQ(rows()[0].state.last_block, 0);
    EXPECT_EQ(rows()[0].state.open_bytes, 0u);
    expect_all();
    /* By test, what was received first comes first. */
    std::string error;
    int64_t last = 0;
    for (const stored_record& r : packed_records(store->reader(), rows()[0], id_of(1), error)) {
        EXPECT_GE(r.received, last);
        last = r.received;
    }
}

TEST_F(upkeep_test, chunks_do_not_cross_midnight) {
    open();
    wall = midnight + 86400 - 1800;
    live(2 * 3600);
    wall += 3600;
    steady += 3600;
    run();
    for (const stored_agent_row& row : rows()) {
        for (const test_status& test : row.state.tests) {
            std::string error;
            store->reader().for_each_chunk(
                test.id, INT64_MIN, [](const packed_chunk&) { return true; },
                [&](const packed_chunk& chunk) {
                    EXPECT_EQ(day_of(chunk.received_first), day_of(chunk.received_last));
                    return true;
                },
                error);
        }
    }
    std::vector<std::string> days;
    EXPECT_EQ(store->days(days), drop_outcome::done);
    EXPECT_EQ(days, (strings{"20260501", "20260502"}));
    expect_all();
}

/* Late results may mean that whole days are made anew. */
TEST_F(upkeep_test, what_takes_long_to_store_is_stored_agent_by_agent) {
    open();
    for (int i = 0; i < 5; i++) {
        send(load_record(1, wall - 1), "web" + std::to_string(i));
    }
    pass(2 * 3600);
    pace.bite = pace.storing = std::chrono::milliseconds(0);
    size_t open_before = 5, steps = 0;
    for (bool more = true; more;) {
        more = care->run({wall, newest, 180});
        auto all = rows();
        size_t open_now = std::count_if(all.begin(), all.end(), [](const stored_agent_row& row) {
            return row.state.open_bytes > 0;
        });
        EXPECT_GE(open_now + 1, open_before);
        steps += open_now < open_before ? 1 : 0;
        open_before = open_now;
    }
    EXPECT_EQ(steps, 5u);
    EXPECT_EQ(packed(), 5u);
}

TEST_F(upkeep_test, it_is_done_a_little_at_a_time) {
    open();
    live(1800, 40, false);
    pass(2 * 3600);
    pace.bite = std::chrono::milliseconds(0);
    int bites = 0;
    while (care->run({wall, newest, 180})) {
        bites++;
        live(60, 40, false); /* polls go on meanwhile */
        expect_all();
        ASSERT_LT(bites, 100);
    }
    EXPECT_GT(packed(), 1000u);
    expect_all();
}

/* ---- closing ---- */

TEST_F(upkeep_test, a_day_is_rolled_up_when_it_is_over) {
    open();
    live(86400 - 3600 + 300);
    EXPECT_EQ(roll_up_of(id_of(1), first_day).size(), 0u);
    live(900);
    EXPECT_EQ(fact("closed_through"), first_day);
    EXPECT_EQ(count_of(id_of(1), first_day), 23u * 60 + 1);
    EXPECT_EQ(count_of(id_of(2), first_day), 23u * 60 + 1);
    EXPECT_EQ(count_of(id_of(1), first_day, resolution::hour), 23u * 60 + 1);
    EXPECT_EQ(roll_up_of(id_of(1), first_day, resolution::hour).size(), 24u);
    expect_rolled_up(id_of(2), first_day);
    EXPECT_EQ(roll_up_of(id_of(1), first_day + 1).size(), 0u);
    expect_all();
}

TEST_F(upkeep_test, late_results_make_it_anew) {
    open();
    live(86400);
    ASSERT_EQ(fact("closed_through"), first_day);
    const uint32_t before = count_of(id_of(1), first_day);
    std::string late; /* it could not be sent then */
    for (int i = 0; i < 30; i++) {
        late += load_record(1, midnight + 60 * i);
        sent.push_back(load_record(1, midnight + 60 * i));
    }
    send(late);
    live(2 * 3600);
    EXPECT_EQ(count_of(id_of(1), first_day), before + 30);
    EXPECT_EQ(count_of(id_of(1), first_day, resolution::hour), before + 30);
    expect_rolled_up(id_of(1), first_day);
    expect_all();
}

/* Seconds of `ok` in the first bucket of the day. */
static uint32_t ok_at_first(const std::vector<bucket>& day) {
    return day.size() == 1 && day[0].start == 0 ? day[0].ok : UINT32_MAX;
}

TEST_F(upkeep_test, a_state_goes_on_into_the_next_day) {
    open();
    run();
    pass(86400 - 3600 - 60); /* a minute before midnight */
    send(load_record(1, wall));
    pass(2 * 86400 + 1000);
    run();
    EXPECT_GE(fact("closed_through"), first_day + 1);
    EXPECT_EQ(count_of(id_of(1), first_day), 1u);
    EXPECT_EQ(ok_at_first(roll_up_of(id_of(1), first_day + 1)), 120u);
    EXPECT_EQ(ok_at_first(roll_up_of(id_of(1), first_day + 1, resolution::hour)), 120u);
}

TEST_F(upkeep_test, the_state_of_a_late_result_goes_on_into_the_next_day) {
    open();
    live(60, 1);
    pass(3 * 86400);
    run();
    EXPECT_GE(fact("closed_through"), first_day + 1);
    EXPECT_TRUE(roll_up_of(id_of(1), first_day + 1).empty());
    send(load_record(1, midnight + 86400 - 60));
    pass(3 * 3600);
    run();
    EXPECT_EQ(ok_at_first(roll_up_of(id_of(1), first_day + 1)), 120u);
    expect_rolled_up(id_of(1), first_day);
}

TEST_F(upkeep_test, a_pass_over_midnight_is_one_over_two_chunks_too) {
    auto process = [](uint32_t pid, int64_t time) {
        return record_builder{.ui32 = {43, 5, 1, pid, 0}, .i64 = {time}, .d64 = {1, 2, 3}}.bytes();
    };
    open();
    run();
    pass(86400 - 3600 - 1);
    send(process(10, wall));
    pass(1);
    send(process(11, wall));
    pass(86400);
    run();
    const int64_t test = rows().at(0).state.find(43, 5)->id;
    EXPECT_EQ(packed(), 2u);
    std::vector<bucket> day = roll_up_of(test, first_day);
    ASSERT_EQ(day.size(), 1u);
    EXPECT_EQ(day[0].count, 1u);
    ASSERT_FALSE(day[0].values.empty());
    EXPECT_EQ(day[0].values[0].mean, 2) << "processor time of both";
    EXPECT_EQ(ok_at_first(roll_up_of(test, first_day + 1)), UINT32_MAX);
    pass(86400);
    run();
    EXPECT_EQ(ok_at_first(roll_up_of(test, first_day + 1)), 179u);
    EXPECT_EQ(count_of(test, first_day + 1), 0u);
}

TEST_F(upkeep_test, late_results_are_added_where_the_others_are_gone) {
    keep.raw = 1;
    open();
    live(86400);
    const uint32_t before = count_of(id_of(1), first_day);
    ASSERT_GT(before, 0u);
    live(3 * 86400);
    std::vector<std::string> days;
    store->days(days);
    ASSERT_GE(fact("dropped_through").value_or(0), first_day);
    std::string late;
    for (int i = 0; i < 30; i++) {
        late += load_record(1, midnight + 60 * i);
    }
    send(late);
    live(2 * 3600);
    EXPECT_EQ(count_of(id_of(1), first_day), before + 30);
    EXPECT_EQ(count_of(id_of(1), first_day, resolution::hour), before + 30);
    EXPECT_EQ(roll_up_of(id_of(1), first_day, resolution::hour).size(), 24u);
}

TEST_F(upkeep_test, days_follow_each_other_after_the_server_was_off) {
    open();
    live(3 * 3600);
    close();
    pass(5 * 86400);
    open();
    std::string kept; /* what the agent has of that time */
    for (int64_t time = midnight + 86400; time < midnight + 5 * 86400; time += 3600) {
        kept += load_record(1, time);
    }
    send(kept);
    pass(2 * 3600);
    run();
    EXPECT_EQ(fact("closed_through"), first_day + 4);
    EXPECT_EQ(count_of(id_of(1), first_day), 3u * 60);
    for (int day = 1; day < 5; day++) {
        EXPECT_EQ(count_of(id_of(1), first_day + day), 24u) << day;
    }
}

TEST_F(upkeep_test, a_clock_that_jumps_ahead_closes_early_and_that_is_put_right) {
    open();
    live(3600);
    wall += 30 * 365 * 86400LL;
    run();
    EXPECT_GT(fact("closed_through").value_or(0), first_day + 10000);
    wall -= 30 * 365 * 86400LL;
    live(3 * 3600);
    pace.open_for = -1;
    pace.spread = 1;
    pass(3);
    run();
    EXPECT_EQ(count_of(id_of(1), first_day), 4u * 60);
    expect_rolled_up(id_of(1), first_day);
    expect_all();
}

TEST_F(upkeep_test, days_closed_early_are_open_again_when_the_clock_is_back) {
    open();
    live(3600);
    wall += 30 * 365 * 86400LL;
    clocks = witness::verdict::differs;
    run();
    const int64_t ahead = fact("closed_through").value_or(0);
    ASSERT_GT(ahead, first_day + 10000);
    wall -= 30 * 365 * 86400LL;
    live(600);
    EXPECT_EQ(fact("closed_through"), ahead) << "it may be now that the clock is wrong";
    clocks = witness::verdict::agrees;
    live(3 * 3600 - 600);
    EXPECT_EQ(fact("closed_through"), first_day - 1);
    pace.open_for = -1;
    pace.spread = 1;
    live(3 * 3600);
    EXPECT_EQ(rows().at(0).state.open_bytes, 0u);
    EXPECT_EQ(count_of(id_of(1), first_day), 60u) << "of before; the others when it is over";
    live(86400 - 7 * 3600); /* from one o'clock on */
    live(700);
    EXPECT_EQ(fact("closed_through"), first_day);
    EXPECT_EQ(count_of(id_of(1), first_day), 23u * 60 + 1); /* up to a second before midnight */
    expect_rolled_up(id_of(1), first_day);
    expect_all();
}

/* Nor is any of them made of less than there was. */
TEST_F(upkeep_test, days_of_which_results_were_dropped_stay_closed) {
    keep.raw = 1;
    open();
    pace.open_for = -1;
    pace.spread = 1;
    clocks = witness::verdict::agrees;
    for (int day = 0; day < 4; day++) {
        live(1800, 1);
        pass(86400 - 1800);
        run();
    }
    pass(7200);
    run();
    const int64_t id = id_of(1), dropped = fact("dropped_through").value_or(0);
    ASSERT_EQ(fact("closed_through"), first_day + 3);
    ASSERT_EQ(dropped, first_day + 1);
    wall -= 30 * 86400; /* and agents' clocks as well */
    run();
    EXPECT_EQ(fact("closed_through"), dropped + 1) << "nothing that was not whole is made anew";
    wall += 30 * 86400;
    run();
    for (int day = 0; day < 4; day++) {
        EXPECT_EQ(count_of(id, first_day + day), 30u) << day;
    }
}

/* That is not known of days that a clock made up: then it stays as it is, which is right, too. */
TEST_F(upkeep_test, after_weeks_of_a_clock_ahead_days_stay_closed_and_right) {
    keep.raw = 1;
    open();
    pace.open_for = -1;
    pace.spread = 1;
    live(1800, 1);
    wall += 1000 * 86400;
    for (int day = 0; day < 4; day++) {
        live(1800, 1);
        pass(86400 - 1800);
        run();
    }
    ASSERT_GT(fact("dropped_through").value_or(0), first_day + 999);
    wall -= 1003 * 86400;
    clocks = witness::verdict::agrees;
    for (int day = 0; day < 3; day++) {
        live(1800, 1);
        EXPECT_EQ(count_of(id_of(1), day_of(wall)), 30u);
        pass(86400 - 1800);
        run();
        EXPECT_EQ(count_of(id_of(1), day_of(wall) - 1), 30u);
    }
}

TEST_F(upkeep_test, a_clock_at_1970_at_the_first_start_does_not_keep_all_for_years) {
    wall = 60;
    open();
    run();
    EXPECT_EQ(fact("today"), earliest_day);
    wall = midnight;
    for (int64_t hour = 0; hour <= first_day - earliest_day; hour++) {
        EXPECT_EQ(fact("today"), std::min(earliest_day + hour, day_of(wall)));
        pass(3600);
        run();
        wall -= 3600; /* it is still that day */
    }
    EXPECT_EQ(fact("today"), first_day);
    EXPECT_GE(fact("closed_through").value_or(0), first_day - 1);
}

/* Where the clock said a day ten years ago when it was last seen. */
TEST_F(upkeep_test, a_clock_that_ran_on_for_two_weeks_is_believed) {
    open();
    clocks = witness::verdict::agrees;
    auto hours = [&](int64_t count) {
        for (int64_t hour = 0; hour < count; hour++) {
            pass(3600);
            run();
        }
    };
    hours(2);
    ASSERT_EQ(fact("today"), first_day);
    wall += 3650 * 86400LL;
    hours(expiry::sure_hours); /* the first one shows the jump */
    EXPECT_EQ(fact("today"), first_day + expiry::sure_hours) << "a day an hour";
    clocks = witness::verdict::differs;
    hours(1);
    clocks = witness::verdict::agrees;
    hours(expiry::sure_hours - 1);
    EXPECT_EQ(fact("today"), first_day + 2 * expiry::sure_hours) << "counted anew";
    wall += 1000;
    hours(1);
    EXPECT_EQ(fact("today"), first_day + 2 * expiry::sure_hours + 1) << "after a jump, too";
    hours(100);
    close();
    pass(7200);
    open(); /* starts do not end it */
    clocks = witness::verdict::none;
    hours(50); /* nor hours without results, which do not count */
    clocks = witness::verdict::agrees;
    hours(expiry::sure_hours - 101);
    EXPECT_LT(fact("today").value_or(0), day_of(wall) - 1000);
    hours(1);
    EXPECT_EQ(fact("today"), day_of(wall));
    /* Back again: what it had come to is not there for another jump. */
    wall -= 3650 * 86400LL;
    hours(2);
    EXPECT_EQ(fact("today"), day_of(wall));
    clocks = witness::verdict::differs;
    wall += 3650 * 86400LL;
    hours(1);
    EXPECT_EQ(fact("today"), day_of(wall) - 3650 + 1);
}

TEST_F(upkeep_test, a_clock_that_is_set_back_and_is_wrong_takes_nothing_back) {
    open();
    clocks = witness::verdict::agrees;
    pass(7200);
    run();
    wall -= 1000 * 86400LL;
    clocks = witness::verdict::differs;
    for (int hour = 0; hour < 5; hour++) {
        pass(3600);
        run();
    }
    EXPECT_EQ(fact("today"), first_day);
}

TEST_F(upkeep_test, roll_ups_go_by_their_age) {
    keep = {.raw = 2, .five_minutes = 3, .hour = 5, .events = 0, .ledger = 0};
    open();
    for (int day = 0; day < 9; day++) {
        live(1800, 1);
        for (int hour = 0; hour < 24; hour++) {
            pass(3600 - (hour == 0 ? 1800 : 0));
            run();
        }
    }
    const int64_t id = id_of(1), today = day_of(wall);
    strings five, hours;
    for (int64_t day = first_day; day < today; day++) {
        (roll_up_of(id, day).empty() ? five : hours).push_back("");
        EXPECT_EQ(roll_up_of(id, day).empty(), day < today - 3) << today - day;
        EXPECT_EQ(roll_up_of(id, day, resolution::hour).empty(), day < today - 5) << today - day;
    }
    std::vector<std::string> days;
    store->days(days);
    EXPECT_EQ(days.size(), 3u);
}

TEST_F(upkeep_test, changes_of_the_fleet_go_by_their_age) {
    auto kept = [&] { return rows_of("SELECT count(*) FROM fleet_changes"); };
    for (int days : {0, 3}) {
        keep.changes = days;
        open();
        ASSERT_TRUE(store->begin());
        for (int64_t id = 1; id <= 10; id++) {
            EXPECT_TRUE(store->put_change({.id = id, .revision = 1, .time = wall - id * 86400}));
        }
        ASSERT_TRUE(store->commit());
        for (int hour = 0; hour < 24; hour++) {
            pass(3600);
            run();
        }
        EXPECT_EQ(kept(), days == 0 ? 10u : 2u) << "a day later";
        close();
    }
    EXPECT_EQ(told, strings());
}

TEST_F(upkeep_test, results_of_a_day_that_are_too_many_are_told_of) {
    open();
    live(3600, 1);
    const int64_t id = id_of(1), time = midnight + 100;
    std::string data, unreadable;
    const std::string one = load_record(1, time);
    const arrived_record record{time, one};
    ASSERT_TRUE(pack_chunk({record}, data));
    ASSERT_TRUE(store->begin());
    EXPECT_TRUE(store->append_chunk(id, {time, time, time, time, 1000000, data}));
    EXPECT_TRUE(roll_up_day(*store, id, first_day, 180, {}, unreadable));
    EXPECT_TRUE(store->commit());
    EXPECT_NE(unreadable.find("too many"), std::string::npos) << unreadable;
}

/* A day is dropped a little at a time, and what comes late may be packed between. */
/* An agent gives its results what times it likes. */
TEST_F(upkeep_test, late_results_of_many_days_are_read_once_and_packed_some_at_a_time) {
    keep.five_minutes = 730;
    open();
    const int days = 400;
    for (int half = 0; half < 2; half++) {
        std::string block;
        for (int i = 0; i < days; i++) {
            for (int32_t test = 1; test <= 2; test++) {
                sent.push_back(load_record(test, midnight - 86400 * (i + 2) + 60 * half));
                block += sent.back();
            }
        }
        send(block);
    }
    pass(2 * 3600);
    run();
    EXPECT_EQ(rows_of("SELECT count(*) FROM packed_20260501"), 4u); /* one block a time */
    for (int32_t test = 1; test <= 2; test++) {
        for (int i : {0, 1, 17, days - 1}) {
            EXPECT_EQ(count_of(id_of(test), first_day - i - 2), 2u) << i;
            expect_rolled_up(id_of(test), first_day - i - 2);
        }
    }
    EXPECT_EQ(told, strings());
    expect_all();
}

TEST_F(upkeep_test, what_is_late_does_not_unpack_without_end) {
    open();
    live(2 * 3600, 1);
    pass(3 * 86400);
    run();
    const std::vector<int64_t> late = {first_day, first_day + 1};
    const int64_t test = id_of(1);
    kept_from all;
    unpacking none{.left = 0}, some;
    std::string unreadable;
    ASSERT_TRUE(in_transaction(
        *store, [&] { return roll_up_days(*store, test, late, 180, all, none, unreadable); }));
    EXPECT_EQ(unreadable,
              "results came late for too many days at once: the rows of some days lack them");
    unreadable.clear();
    ASSERT_TRUE(in_transaction(
        *store, [&] { return roll_up_days(*store, test, late, 180, all, some, unreadable); }));
    EXPECT_EQ(unreadable, "");
    EXPECT_LT(some.left, unpacking().left);
    expect_rolled_up(test, first_day);
}

TEST_F(upkeep_test, late_results_are_added_to_a_day_that_is_being_dropped) {
    keep.raw = 1;
    bite_time = std::chrono::milliseconds(0);
    open();
    live(22 * 3600, 3);
    const int64_t id = id_of(1);
    pass(86400);
    live(600, 3);
    pass(7200);
    run();
    EXPECT_EQ(count_of(id, first_day), 22u * 60);
    pass(86400);
    live(600, 3, false);
    pass(7200);
    pace.bite = std::chrono::milliseconds(0);
    const std::string rows_left = "SELECT count(*) FROM packed_20260501";
    const size_t all = rows_of(rows_left);
    while (rows_of(rows_left) == all) {
        ASSERT_TRUE(care->run({wall, newest, 180}));
    }
    send(load_record(1, midnight + 7230));
    ASSERT_GT(rows_of(rows_left), 0u);
    pass(7200);
    pace.bite = std::chrono::hours(1);
    run();
    EXPECT_EQ(rows_of(rows_left), 0u);
    EXPECT_EQ(count_of(id, first_day), 22u * 60 + 1);
}

/* ---- what fails ---- */

/* Whatever ends the process between two transactions: all is there once, and days are rolled up as
 * if nothing had happened. */
TEST_F(upkeep_test, a_kill_at_any_moment_leaves_a_whole) {
    open();
    live(86400 - 3600 + 120, 3, false);
    close();
    pass(3 * 3600);
    for (int steps = 0; steps < 40; steps++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            open();
            pace.bite = std::chrono::milliseconds(0);
            for (int i = 0; i < steps; i++) {
                care->run({wall, newest, 180});
            }
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status));
        open();
        expect_all();
        close();
    }
    open();
    run();
    expect_all();
    EXPECT_EQ(packed(), sent.size());
    for (int32_t test : {1, 2, 3}) {
        expect_rolled_up(id_of(test), first_day);
        EXPECT_EQ(count_of(id_of(test), first_day), 23u * 60 + 1);
    }
}

TEST_F(upkeep_test, what_fails_is_told_once_and_tried_later) {
    open();
    live(1800);
    pass(2 * 3600);
    {
        /* Somebody holds the database. */
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open((state + "/results.db").c_str(), &handle), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        run();
        EXPECT_EQ(told.size(), 1u);
        run(); /* not yet again */
        EXPECT_EQ(told.size(), 1u);
        sqlite3_close(handle);
    }
    ASSERT_EQ(told.size(), 1u);
    EXPECT_NE(told[0].find("database is locked"), std::string::npos) << told[0];
    pass(61);
    run();
    EXPECT_EQ(packed(), sent.size());
    EXPECT_EQ(told.back(), "what is stored is packed again");
    EXPECT_EQ(told.size(), 2u);
    expect_all();
}

/* ---- damage ---- */

struct damaged_test : upkeep_test {
    void flip(const std::string& tree) {
        flip_page("SELECT rootpage FROM sqlite_schema WHERE name = '" + tree + "'");
    }
    void flip_page(const std::string& which) {
        close();
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open((state + "/results.db").c_str(), &db), SQLITE_OK);
        int64_t page = 0;
        auto note = [](void* to, int, char** values, char**) {
            *static_cast<int64_t*>(to) = std::stoll(values[0]);
            return 0;
        };
        sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr);
        EXPECT_EQ(sqlite3_exec(db, which.c_str(), note, &page, nullptr), SQLITE_OK);
        sqlite3_close(db);
        ASSERT_GT(page, 0);
        std::string path = state + "/results.db", all = read_text(path);
        all.replace(static_cast<size_t>(page - 1) * 8192, 100, 100, '\x5a');
        write_text(path, all);
        open();
    }
    /* As the store's thread: another file is learnt anew. */
    void run_on() {
        const unsigned before = store->generation();
        run();
        if (store->begin() && store->commit() && store->generation() != before) {
            agents.clear();
            for (const stored_agent_row& row : rows()) {
                note_open(agents.add(row.id, row.account, row.name), row.state);
            }
            care->begin();
        }
    }
    void days(int count) {
        for (int64_t end = wall + count * 86400; wall < end;) {
            live(300, 2, false);
            pass(4 * 3600);
            run_on();
        }
    }
};

/* Whatever page it is, in the end days are rolled up, and what came is packed. */
TEST_F(damaged_test, upkeep_goes_on) {
    for (const char* tree : {"rollups5_202605", "rollups60_202605", "packed_20260502", "blocks",
                             "tests", "facts", "days"}) {
        SCOPED_TRACE(tree);
        close();
        std::filesystem::remove_all(state);
        told.clear();
        newest = INT64_MIN;
        wall = midnight + 3600;
        open();
        days(1);
        live(6 * 3600);
        flip(tree);
        days(6);
        EXPECT_TRUE(told.size() > 0 && told.size() < 5) << told.size();
        EXPECT_EQ(fact("closed_through"), day_of(wall) - 1);
        EXPECT_EQ(count_of(id_of(1), day_of(wall) - 2), 30u);
        pass(7200);
        run_on();
        EXPECT_EQ(rows().at(0).state.open_bytes, 0u);
    }
}

/* Nothing that is stored is near it, and so nobody else would see it. */
TEST_F(damaged_test, old_blocks_that_cannot_be_read_do_not_lie_for_ever) {
    open();
    live(4 * 3600, 2, false);
    flip_page("SELECT pageno FROM dbstat WHERE name = 'blocks' AND pagetype = 'leaf' "
              "ORDER BY path LIMIT 1");
    days(3);
    EXPECT_TRUE(told.size() > 0 && told.size() < 5) << told.size();
    pass(7200);
    run_on();
    EXPECT_EQ(rows().at(0).state.open_bytes, 0u);
    EXPECT_EQ(count_of(id_of(1), day_of(wall) - 2), 30u);
}

} // namespace
