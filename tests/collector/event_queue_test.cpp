#include "show/event_queue.cpp"

#include "collector_test_support.h"
#include "counted_memory.h"

#include <gtest/gtest.h>

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

/* An event that is made of `bytes`, which must stay. */
static event of(const std::string& bytes, std::string_view agent) {
    event e{.kind = event_kind::record, .account = "a@b.c", .agent = agent, .received = noon};
    std::string reason;
    EXPECT_TRUE(decode_record(bytes, e.result.content, reason)) << reason;
    e.result.summary = summarize(e.result.content);
    return e;
}

static std::vector<event> all(const std::vector<event_chunk>& chunks) {
    std::vector<event> events;
    for (const event_chunk& chunk : chunks) {
        events.insert(events.end(), chunk.events.begin() + static_cast<std::ptrdiff_t>(chunk.next),
                      chunk.events.end());
    }
    return events;
}

TEST(event_queue, a_record_is_whole_where_its_copy_is) {
    std::string part = record_builder{.ui32 = {1, 2}, .strings = {"value", "text"}}.bytes();
    std::string bytes = record_builder{.i32 = {-5},
                                       .ui32 = {type_load_average, 5, 7, 2},
                                       .i64 = {noon},
                                       .ui64 = {1},
                                       .d64 = {0.5, 0.25, 0.125},
                                       .strings = {"high", "more"},
                                       .nested = {part, part},
                                       .missing_strings = 1}
                            .bytes();
    const std::string original = bytes;
    event_queue queue(1 << 20);
    {
        std::string agent = "web1";
        queue.add(of(bytes, agent));
        agent = "gone";
    }
    bytes.assign(bytes.size(), '\xff'); /* what was copied does not point to it */
    std::vector<event_chunk> chunks;
    queue.take(chunks);
    ASSERT_EQ(all(chunks).size(), 1u);
    const event& e = chunks[0].events[0];
    const record& r = e.result.content;
    EXPECT_EQ(e.account, "a@b.c");
    EXPECT_EQ(e.agent, "web1");
    EXPECT_EQ(r.raw, original);
    EXPECT_EQ(r.i32[0], -5);
    EXPECT_EQ(r.ui32[3], 2u);
    EXPECT_EQ(r.i64[0], noon);
    EXPECT_EQ(r.ui64[0], 1u);
    EXPECT_EQ(r.d64[2], 0.125);
    ASSERT_EQ(r.strings.size(), 2u);
    EXPECT_EQ(r.strings[1], "more");
    EXPECT_EQ(r.declared_strings, 3u);
    ASSERT_EQ(r.nested.size(), 2u);
    EXPECT_EQ(r.nested[1], part);
    EXPECT_EQ(e.result.summary.message, "high");
    EXPECT_EQ(e.result.summary.message.data(), r.strings[0].data());
}

TEST(event_queue, the_oldest_are_dropped_whatever_their_sizes) {
    const std::string small = load_record(1, noon), text(100000, 'x');
    event_queue queue(300000);
    size_t dropped = 0;
    for (int i = 0; i < 1000; i++) {
        dropped += queue.add(i % 100 == 99 ? event{.kind = event_kind::problem, .text = text}
                                           : of(small, std::to_string(i)));
        EXPECT_LE(queue.bytes(), 300000u);
    }
    EXPECT_EQ(queue.count() + dropped, 1000u);
    std::vector<event_chunk> chunks;
    queue.take(chunks);
    std::vector<event> events = all(chunks);
    ASSERT_EQ(events.size() + dropped, 1000u);
    for (size_t i = 0; i < events.size(); i++) {
        size_t number = dropped + i;
        EXPECT_EQ(events[i].agent, number % 100 == 99 ? "" : std::to_string(number));
        EXPECT_EQ(events[i].result.content.raw, number % 100 == 99 ? "" : small);
    }
    EXPECT_TRUE(queue.empty());
}

TEST(event_queue, one_that_is_larger_than_all_may_be_waits_alone) {
    const std::string text(500000, 'x');
    event_queue queue(1000);
    queue.add({.kind = event_kind::problem, .text = "first"});
    EXPECT_EQ(queue.add({.kind = event_kind::problem, .text = text}), 1u);
    EXPECT_EQ(queue.count(), 1u);
    EXPECT_EQ(queue.add({.kind = event_kind::problem, .text = "last"}), 1u);
    std::vector<event_chunk> chunks;
    queue.take(chunks);
    ASSERT_EQ(all(chunks).size(), 1u);
    EXPECT_EQ(all(chunks)[0].text, "last");
}

TEST(event_queue, asks_for_no_memory_once_it_is_warm) {
    const std::string bytes = load_record(1, noon);
    const event e = of(bytes, "web1");
    event_queue queue(8 << 20);
    std::vector<event_chunk> chunks;
    auto pass = [&] {
        for (int i = 0; i < 1000; i++) {
            queue.add(e);
        }
        queue.take(chunks);
    };
    for (int i = 0; i < 3; i++) {
        pass();
    }
    size_t before = allocations;
    pass();
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(all(chunks).size(), 1000u);
}

TEST(event_queue, a_slow_reader_misses_as_many_however_entries_are_kept) {
    const std::string bytes = load_record(1, noon);
    event_queue queue(1 << 20);
    size_t dropped = 0;
    for (int i = 0; i < 10000; i++) {
        dropped += queue.add(of(bytes, "web1"));
    }
    EXPECT_EQ(queue.count(), (1u << 20) / (160 + bytes.size() + strlen("a@b.cweb1")));
    EXPECT_EQ(queue.count() + dropped, 10000u);
}

TEST(event_queue, memory_of_what_is_dropped_is_given_back) {
    if (sanitized) {
        GTEST_SKIP() << "memory is not counted here";
    }
    const std::string text(4000000, 'x');
    size_t before = held;
    event_queue queue(4 << 20);
    for (int i = 0; i < 20000; i++) {
        queue.add({.kind = event_kind::problem, .text = "small"});
    }
    queue.add({.kind = event_kind::problem, .text = text});
    std::vector<event_chunk> chunks;
    queue.take(chunks);
    chunks.clear();
    EXPECT_LT(held - before, 4u << 20);
}

TEST(event_queue, what_there_is_no_memory_for_is_not_added) {
    if (sanitized) {
        GTEST_SKIP() << "memory does not run out here";
    }
    const std::string text(100000, 'x');
    event_queue queue(8 << 20);
    queue.add({.kind = event_kind::problem, .text = "first"});
    refused_above = 50000;
    EXPECT_THROW(queue.add({.kind = event_kind::problem, .text = text}), std::bad_alloc);
    refused_above = SIZE_MAX;
    EXPECT_EQ(queue.count(), 1u);
    std::vector<event_chunk> chunks;
    queue.take(chunks);
    ASSERT_EQ(all(chunks).size(), 1u);
    EXPECT_EQ(all(chunks)[0].text, "first");
}
