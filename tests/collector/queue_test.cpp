/* How far the writer is behind. */
#include "ingest/queue.h"

#include "counted_memory.h"
#include "eventually.h"

#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;

struct queue_test : testing::Test {
    block_queue queue{{.max_queued = 1 << 20, .large = 1000, .max_large_queued = 1 << 20}};
    std::deque<queued_block> batch;

    void put(const std::string& agent, size_t bytes) {
        poll_block block{.account = "a@b.c", .agent = agent, .plain = std::string(bytes, 'x')};
        std::function<void(store_result)> done = [](store_result) {};
        EXPECT_TRUE(queue.put(block, done));
    }
    void take() { queue.take(batch, 0ms, true); }
    void leave_first() {
        queue.leave(batch.front());
        batch.pop_front();
    }
    static void pass() { std::this_thread::sleep_for(30ms); }
    /* Delays before and after what was done now, so that no slowness of the machine is in it. */
    std::chrono::milliseconds small() { return queue.delay().small; }
    std::chrono::milliseconds large() { return queue.delay().large; }
};

TEST_F(queue_test, without_a_block_nobody_waits) {
    EXPECT_EQ(small(), 0ms);
    EXPECT_EQ(large(), 0ms);
    EXPECT_EQ(queue.delay().large_from, 1000u);
    put("a", 10);
    put("b", 2000);
    take();
    leave_first();
    leave_first();
    pass();
    EXPECT_EQ(small(), 0ms);
    EXPECT_EQ(large(), 0ms);
}

TEST_F(queue_test, the_oldest_small_block_counts_until_it_has_left) {
    put("a", 10);
    pass();
    put("b", 10);
    EXPECT_GE(small(), 30ms);
    take();
    EXPECT_GE(small(), 30ms); /* in work */
    put("c", 10);
    EXPECT_GE(small(), 30ms);
    pass();
    leave_first();
    leave_first();
    const auto since_c = small(); /* put before the last pause */
    EXPECT_GE(since_c, 30ms);
    take();
    pass();
    EXPECT_GE(small(), since_c + 30ms);
    leave_first();
    EXPECT_EQ(small(), 0ms);
    EXPECT_EQ(large(), 0ms);
}

/* One that takes long is no reason for others to stay away, as long as they have their turns. */
TEST_F(queue_test, a_large_block_waits_since_its_last_turn) {
    put("a", 2000);
    pass();
    EXPECT_GE(large(), 30ms);
    EXPECT_EQ(small(), 0ms);
    take();
    EXPECT_EQ(large(), 0ms); /* alone, and in work */
    put("b", 2000);
    pass();
    EXPECT_GE(large(), 30ms); /* that of b */
    queue.put_back(std::move(batch.front()));
    batch.clear();
    EXPECT_GE(large(), 30ms);
    const auto of_b = large();
    take(); /* b */
    EXPECT_LT(large(), of_b);
    leave_first();
}

/* What was refused, or is answered before others that were taken with it, leaves no trace. */
TEST_F(queue_test, others_of_a_batch_wait_yet_when_one_has_left) {
    put("a", 10);
    pass();
    put("b", 10);
    take();
    leave_first();
    pass();
    EXPECT_GE(small(), 30ms);
    leave_first();
    EXPECT_EQ(small(), 0ms);
}

/* Nothing is counted that did not get in, and what is in gets out without any. */
TEST_F(queue_test, no_memory) {
    const std::string name(40, 'a');
    size_t refused = 0;
    std::function<void(store_result)> done = [](store_result) {};
    poll_block block;
    auto fill = [&](size_t bytes) {
        block = {.account = "a@b.c", .agent = name, .plain = std::string(bytes, 'x')};
        block.address = std::string(40, '1');
    };
    for (size_t bytes : {size_t{10}, size_t{2000}}) {
        fill(bytes);
        refuse_in_turn([&] { EXPECT_TRUE(queue.put(block, done)); },
                       [&](size_t) {
                           const bool is_in = block.plain.empty();
                           refused += is_in ? 0 : 1;
                           EXPECT_EQ(queue.waiting_now().blocks, is_in ? 1u : 0u);
                           EXPECT_EQ(queue.waiting_now().bytes, is_in ? bytes : 0);
                           EXPECT_EQ(done == nullptr, is_in);
                           done = [](store_result) {};
                           if (!is_in) {
                               EXPECT_TRUE(queue.put(block, done));
                               done = [](store_result) {};
                           }
                           refused_here_above = 0;
                           take();
                           refused_here_above = SIZE_MAX;
                           if (batch.empty()) { /* a large one has its turn later */
                               take();
                           }
                           refused_here_above = 0;
                           leave_first();
                           refused_here_above = SIZE_MAX;
                           EXPECT_EQ(queue.waiting_now().blocks, 0u);
                           EXPECT_EQ(queue.waiting_now().bytes, 0u);
                           fill(bytes);
                       });
    }
    EXPECT_TRUE(sanitized || refused > 4);
}
