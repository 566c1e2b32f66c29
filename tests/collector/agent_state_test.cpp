#include "state/agent_state.cpp"

#include <gtest/gtest.h>
#include <random>

static constexpr int64_t least = std::numeric_limits<int64_t>::min(),
                         most = std::numeric_limits<int64_t>::max();

static std::string text(const agent_state& a) {
    std::string all;
    auto put = [&](auto value) { all += std::to_string(value) + " "; };
    auto put_optional = [&](auto value) { all += value ? std::to_string(*value) + " " : "- "; };
    put(a.silent);
    put(a.every ? a.every->poll : -7);
    put(a.every ? a.every->check : -7);
    put(a.since);
    put(a.last_block);
    put(a.open_since);
    put(a.open_bytes);
    put(a.counts.hour);
    put(a.counts.received);
    put(a.counts.repeated);
    put(a.counts.missing);
    for (const inventory_status& i : a.inventories) {
        all += "\ninventory ";
        put(i.type);
        put(i.row);
        put(i.received);
        put(i.time);
        all.append(i.hash.data(), i.hash.size());
    }
    for (const test_status& t : a.tests) {
        all += "\ntest ";
        put(t.type);
        put_optional(t.number);
        put(t.id);
        put(static_cast<int>(t.now));
        for (int64_t time : {t.since, t.received, t.time, t.claimed, t.reached, t.block}) {
            put(time);
        }
        put_optional(t.location);
        put_optional(t.status);
        for (uint32_t n : {t.parts, t.bad_parts, t.parts_before, t.pid}) {
            put(n);
        }
        if (t.overtaken) {
            all += "overtaken ";
            put(t.overtaken->claimed);
            put_optional(t.overtaken->location);
            put(t.overtaken->pid);
        }
    }
    return all;
}

static std::string packed(const agent_state& a) {
    std::string bytes = "what was there";
    a.pack(bytes);
    return bytes;
}

/* A host as there are many: 20 tests at a minute. */
static agent_state usual_agent() {
    agent_state a;
    a.since = 1776000000;
    a.last_block = 123456789;
    a.open_since = 1777636900;
    a.open_bytes = 12345;
    a.counts = {.hour = 1777636800, .received = 260, .repeated = 20, .missing = 3};
    a.inventories.push_back({42, 77, 1777636900, 1777636890, {}});
    a.inventories.back().hash.fill('x');
    int64_t received = 1777638000;
    for (int n = 0; n < 20; n++) {
        bool is_bad = n % 7 == 3;
        int64_t time = received - n;
        a.tests.push_back({.id = 100000 + n,
                           .type = 40u + static_cast<uint32_t>(n / 2),
                           .number = 400 + n * 13,
                           .now = is_bad ? state::problem : state::ok,
                           .since = received - 86400 * 9 - n,
                           .received = received,
                           .time = time,
                           .claimed = time,
                           .reached = time,
                           .block = 123456789,
                           .location = 500000 + n * 3,
                           .status = is_bad ? 2 : 0,
                           .parts = 1,
                           .bad_parts = is_bad,
                           .parts_before = 1});
    }
    return a;
}

static test_status test_with(uint32_t type, std::optional<int32_t> number, state now = state::ok) {
    test_status t;
    t.type = type;
    t.number = number;
    t.now = now;
    return t;
}

static test_status extreme_test(uint32_t type, std::optional<int32_t> number, int64_t a, int64_t b,
                                std::optional<int32_t> other, uint32_t count) {
    return {.id = a,
            .type = type,
            .number = number,
            .now = state::stale,
            .since = b,
            .received = a,
            .time = b,
            .claimed = a,
            .reached = a,
            .block = b,
            .location = other,
            .status = other,
            .parts = count,
            .bad_parts = count,
            .parts_before = count,
            .pid = count,
            .overtaken = pass_mark{a, other, count}};
}

TEST(agent_state, what_is_packed_comes_back) {
    agent_state a = usual_agent(), b;
    ASSERT_TRUE(b.unpack(packed(a)));
    EXPECT_EQ(text(b), text(a));
    EXPECT_EQ(packed(b), packed(a));

    agent_state nothing;
    ASSERT_TRUE(b.unpack(packed(nothing))) << "in place of what was there";
    EXPECT_EQ(text(b), text(nothing));
    ASSERT_TRUE(a.unpack("")) << "an agent that is not known yet";
    EXPECT_EQ(text(a), text(nothing));
}

/* Where nobody told it anything of its own there is nothing of it, as before there was such. */
TEST(agent_state, the_intervals_of_an_agent_come_back) {
    agent_state a = usual_agent(), b;
    const std::string without = packed(a);
    a.every = intervals{.poll = 30, .check = 0};
    for (bool silent : {false, true}) {
        a.silent = silent;
        ASSERT_TRUE(b.unpack(packed(a)));
        EXPECT_EQ(text(b), text(a));
        EXPECT_EQ(packed_counts(packed(a))->received, 260u);
        EXPECT_EQ(packed(a).size(), without.size() + 2);
    }
    a.every = intervals{.poll = INT32_MAX, .check = INT32_MIN};
    ASSERT_TRUE(b.unpack(packed(a)));
    EXPECT_EQ(text(b), text(a));
    ASSERT_TRUE(b.unpack(without));
    EXPECT_FALSE(b.every);
}

TEST(agent_state, extreme_numbers_come_back) {
    int32_t low = std::numeric_limits<int32_t>::min(), high = std::numeric_limits<int32_t>::max();
    agent_state a;
    a.silent = true;
    a.since = least;
    a.last_block = most;
    a.open_since = most;
    a.open_bytes = UINT64_MAX;
    a.counts = {.hour = least, .received = UINT64_MAX, .repeated = UINT64_MAX, .missing = 1};
    a.inventories.push_back({UINT32_MAX, least, most, least, {}});
    a.tests.push_back(extreme_test(0, {}, 0, 0, {}, 0));
    a.tests.push_back(extreme_test(0, low, most, least, high, UINT32_MAX));
    a.tests.push_back(extreme_test(0, high, least, most, low, 0));
    a.tests.push_back(extreme_test(UINT32_MAX, {}, most, most, 0, 1));
    a.tests.push_back(extreme_test(UINT32_MAX, high, least, least, -1, 2));
    agent_state b;
    ASSERT_TRUE(b.unpack(packed(a)));
    EXPECT_EQ(text(b), text(a));
}

TEST(agent_state, a_usual_test_takes_few_bytes) {
    agent_state a = usual_agent();
    size_t whole = packed(a).size();
    a.tests.clear();
    EXPECT_LE(whole - packed(a).size(), 20 * 15u);
}

TEST(agent_state, what_is_damaged_is_empty) {
    std::string whole = packed(usual_agent()), nothing = text({});
    agent_state a = usual_agent();
    EXPECT_FALSE(a.unpack("\x7f" + whole.substr(1))) << "another version";
    EXPECT_EQ(text(a), nothing);
    for (const std::string& other :
         {std::string(1, '\x01'), std::string("\x01\x02"), "\x01\x04" + whole.substr(2),
          whole + '\x80', whole + '\xff', whole + std::string("\x00\x00", 2),
          "\x01" + std::string(20, '\xff')}) {
        a = usual_agent();
        EXPECT_FALSE(a.unpack(other));
        EXPECT_EQ(text(a), nothing);
    }
    for (size_t cut = 1; cut < whole.size(); cut++) {
        if (!a.unpack(whole.substr(0, cut))) {
            ASSERT_EQ(text(a), nothing);
        }
    }
    std::mt19937 random(1);
    for (int i = 0; i < 20000; i++) {
        std::string other = whole;
        for (int n = 0; n < 3; n++) {
            other[random() % other.size()] = static_cast<char>(random());
        }
        bool good = a.unpack(other);
        if (!good) {
            ASSERT_EQ(text(a), nothing);
        }
        for (size_t t = 1; t < a.tests.size(); t++) {
            ASSERT_LT(a.tests[t - 1].key(), a.tests[t].key());
        }
        agent_state b;
        if (good) { /* what was understood is a whole state */
            ASSERT_TRUE(b.unpack(packed(a)));
            ASSERT_EQ(text(b), text(a));
        }
    }
}

TEST(agent_state, damage_takes_no_more_than_is_allowed) {
    agent_state a;
    for (int i = 0; i < agent_state::max_tests; i++) {
        a.tests.push_back(test_with(66, i));
    }
    agent_state b;
    EXPECT_TRUE(b.unpack(packed(a)));
    a.tests.push_back(test_with(67, 1));
    EXPECT_FALSE(b.unpack(packed(a)));
    EXPECT_TRUE(b.tests.empty());
    a = {};
    a.inventories.resize(65);
    EXPECT_FALSE(b.unpack(packed(a)));
}

TEST(agent_state, tests_are_found_by_type_and_number) {
    agent_state a;
    for (const auto& [type, number] : std::vector<std::pair<uint32_t, std::optional<int32_t>>>{
             {5, {}}, {5, -3}, {5, 3}, {66, {}}, {66, 0}}) {
        a.tests.push_back(test_with(type, number));
        a.tests.back().id = static_cast<int64_t>(a.tests.size());
    }
    ASSERT_TRUE(a.unpack(packed(a)));
    for (const test_status& t : a.tests) {
        EXPECT_EQ(a.find(t.type, t.number), &t);
        EXPECT_EQ(std::as_const(a).find(t.type, t.number), &t);
    }
    EXPECT_EQ(a.find(5, 0), nullptr);
    EXPECT_EQ(a.find(4, {}), nullptr);
    EXPECT_EQ(a.find(67, {}), nullptr);
    EXPECT_EQ(agent_state().find(66, 1), nullptr);
}

TEST(agent_state, an_agent_is_what_the_worst_of_its_tests_is) {
    agent_state a;
    EXPECT_EQ(a.worst(), state::unknown) << "without tests";
    a.tests.push_back(test_with(99, {}, state::unknown));
    EXPECT_EQ(a.worst(), state::unknown) << "what has no number is no test";
    a.tests.push_back(test_with(100, 1, state::ok));
    EXPECT_EQ(a.worst(), state::ok);
    a.tests.push_back(test_with(100, 2, state::unknown));
    EXPECT_EQ(a.worst(), state::ok) << "one that is gone counts for nothing";
    for (state worse : {state::stale, state::problem}) {
        a.tests.push_back(test_with(101 + static_cast<uint32_t>(a.tests.size()), 1, worse));
        EXPECT_EQ(a.worst(), worse);
        a.tests.push_back(test_with(101 + static_cast<uint32_t>(a.tests.size()), 1, state::ok));
        EXPECT_EQ(a.worst(), worse);
    }
    a.silent = true;
    EXPECT_EQ(a.worst(), state::silent);
}

TEST(agent_state, nothing_is_known_of_the_tests_of_a_silent_agent) {
    agent_state a;
    a.since = 500;
    test_status ok = test_with(66, 1, state::ok), stale = test_with(66, 2, state::stale);
    ok.since = 100;
    stale.since = 400;
    EXPECT_EQ(shown_state(a, ok), state::ok);
    EXPECT_EQ(shown_since(a, ok), 100);
    EXPECT_EQ(shown_state(a, stale), state::stale);
    a.silent = true;
    EXPECT_EQ(shown_state(a, ok), state::unknown);
    EXPECT_EQ(shown_since(a, ok), 500);
    EXPECT_EQ(shown_state(a, stale), state::unknown);
    EXPECT_EQ(shown_since(a, stale), 400) << "it was not known before either";
}

TEST(agent_state, states_have_words) {
    EXPECT_EQ(state_word(state::unknown), "unknown");
    EXPECT_EQ(state_word(state::ok), "ok");
    EXPECT_EQ(state_word(state::problem), "problem");
    EXPECT_EQ(state_word(state::stale), "stale");
    EXPECT_EQ(state_word(state::silent), "silent");
}
