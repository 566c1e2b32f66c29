/* Arrays that grow, with memory and without. */
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

static bool refuse_memory = false;
static size_t last_size = 0; /* of the last block that was asked for, in bytes */
static int blocks_asked = 0;

static void* counted_realloc(void* block, size_t size) {
    last_size = size;
    blocks_asked++;
    return refuse_memory ? nullptr : realloc(block, size);
}
#define realloc counted_realloc
#include "bytes.h"
#undef realloc

class arrays : public testing::Test {
protected:
    void SetUp() override {
        refuse_memory = false;
        last_size = 0;
        blocks_asked = 0;
    }
};

static std::string text_of(const bytes& b) {
    return std::string(b.data(), b.size());
}

TEST_F(arrays, nothing_is_there_at_first_and_nothing_is_allocated) {
    bytes b;
    EXPECT_EQ(nullptr, b.data());
    EXPECT_EQ(0u, b.size());
    EXPECT_EQ(0u, b.room());
    EXPECT_TRUE(b.is_empty());
    EXPECT_EQ(b.begin(), b.end());
    EXPECT_TRUE(b.append(nullptr, 0));
    EXPECT_EQ(nullptr, b.release());
    EXPECT_EQ(0, blocks_asked);
}

TEST_F(arrays, what_was_appended_is_there_in_order) {
    bytes b;
    std::string all;
    for (int i = 0; i < 1000; i++) {
        std::string piece = std::to_string(i);
        ASSERT_TRUE(b.append(piece.data(), piece.size()));
        all += piece;
    }
    EXPECT_EQ(all, text_of(b));
    EXPECT_FALSE(b.is_empty());
    EXPECT_EQ('1', b[1]);
}

TEST_F(arrays, room_doubles) {
    growing<int> numbers;
    for (int i = 0; i < 100000; i++) {
        ASSERT_TRUE(numbers.append(i));
    }
    EXPECT_EQ(99999, numbers[99999]);
    EXPECT_EQ(131072u, numbers.room());
    EXPECT_EQ(131072 * sizeof(int), last_size);
    EXPECT_EQ(18, blocks_asked);
}

TEST_F(arrays, room_begins_with_what_was_asked_for) {
    bytes b(4096);
    EXPECT_EQ(nullptr, b.data());
    EXPECT_TRUE(b.append('x'));
    EXPECT_EQ(4096u, b.room());
    EXPECT_TRUE(b.reserve(10000));
    EXPECT_EQ(10001u, b.room());
    EXPECT_TRUE(b.reserve(10000));
    EXPECT_EQ(2, blocks_asked);
}

TEST_F(arrays, an_element_of_the_array_may_be_appended_to_it) {
    struct pair {
        int first, second;
    };
    growing<pair> pairs;
    ASSERT_TRUE(pairs.append({1, 2}));
    for (int i = 0; i < 100; i++) {
        ASSERT_TRUE(pairs.append(pairs[0]));
    }
    EXPECT_EQ(2, pairs[100].second);
}

TEST_F(arrays, the_limit_is_reached_and_not_passed) {
    bytes b(0, 10);
    EXPECT_TRUE(b.append("123456", 6));
    EXPECT_FALSE(b.append("12345", 5));
    EXPECT_EQ("123456", text_of(b));
    EXPECT_TRUE(b.append("7890", 4));
    EXPECT_EQ(10u, b.room());
    EXPECT_FALSE(b.append('x'));
    EXPECT_FALSE(b.terminate());
    EXPECT_EQ("1234567890", text_of(b));

    bytes little(4096, 10);
    EXPECT_TRUE(little.reserve(1));
    EXPECT_EQ(10u, little.room());
}

TEST_F(arrays, without_memory_all_stays_as_it_was) {
    bytes b;
    ASSERT_TRUE(b.append("abc", 3));
    const char* before = b.data();
    refuse_memory = true;
    EXPECT_FALSE(b.append("defg", 4));
    EXPECT_FALSE(b.reserve(100));
    EXPECT_EQ(before, b.data());
    EXPECT_EQ(3u, b.room());
    EXPECT_EQ("abc", text_of(b));
    refuse_memory = false;
    EXPECT_TRUE(b.append("defg", 4));
    EXPECT_EQ("abcdefg", text_of(b));
}

TEST_F(arrays, what_no_memory_can_hold_is_not_asked_for) {
    growing<int> numbers;
    ASSERT_TRUE(numbers.append(1));
    blocks_asked = 0;
    EXPECT_FALSE(numbers.reserve(SIZE_MAX));
    EXPECT_FALSE(numbers.reserve(SIZE_MAX / 4 + 1));
    EXPECT_EQ(0, blocks_asked);
    EXPECT_EQ(1, numbers[0]);
}

TEST_F(arrays, what_is_written_at_the_end_is_counted_afterwards) {
    bytes b;
    ASSERT_TRUE(b.reserve(8));
    memcpy(b.end(), "abc", 3);
    EXPECT_EQ(0u, b.size());
    b.added(3);
    memcpy(b.end(), "de", 2);
    b.added(2);
    EXPECT_EQ("abcde", text_of(b));
    EXPECT_EQ(1, blocks_asked);
}

TEST_F(arrays, a_nul_behind_the_text_does_not_count) {
    bytes b;
    EXPECT_TRUE(b.terminate());
    EXPECT_STREQ("", b.data());
    ASSERT_TRUE(b.append("abcd", 4));
    EXPECT_TRUE(b.terminate());
    EXPECT_STREQ("abcd", b.data());
    EXPECT_EQ(4u, b.size());
    ASSERT_TRUE(b.append('e'));
    EXPECT_EQ("abcde", text_of(b));
}

TEST_F(arrays, what_is_dropped_from_the_front_is_gone) {
    bytes b;
    ASSERT_TRUE(b.append("abcdef", 6));
    b.drop_front(0);
    EXPECT_EQ("abcdef", text_of(b));
    b.drop_front(4);
    EXPECT_EQ("ef", text_of(b));
    b.drop_front(2);
    EXPECT_TRUE(b.is_empty());
    b.drop_front(0);
    EXPECT_EQ(6u, b.room());

    growing<int> numbers;
    for (int i = 0; i < 5; i++) {
        ASSERT_TRUE(numbers.append(i));
    }
    numbers.drop_front(3);
    EXPECT_EQ(3, numbers[0]);
    EXPECT_EQ(4, numbers[1]);
    EXPECT_EQ(2u, numbers.size());
    numbers.cut(1);
    EXPECT_EQ(1u, numbers.size());
}

TEST_F(arrays, memory_is_handed_over) {
    bytes b(64);
    ASSERT_TRUE(b.append("abc", 3));
    ASSERT_TRUE(b.terminate());
    heap_text text = b.take();
    EXPECT_STREQ("abc", text.get());
    EXPECT_EQ(nullptr, b.data());
    EXPECT_EQ(0u, b.room());
    ASSERT_TRUE(b.append("x", 1));
    char* released = b.release();
    EXPECT_EQ('x', *released);
    free(released);
    EXPECT_TRUE(b.is_empty());
}

TEST_F(arrays, a_move_leaves_nothing_behind) {
    bytes a(16, 20);
    ASSERT_TRUE(a.append("abc", 3));
    bytes b(std::move(a));
    EXPECT_EQ("abc", text_of(b));
    EXPECT_EQ(nullptr, a.data());
    EXPECT_TRUE(a.append('x'));
    EXPECT_EQ("x", text_of(a));
    a = std::move(b);
    EXPECT_EQ("abc", text_of(a));
    EXPECT_TRUE(b.is_empty());
    EXPECT_EQ(0u, b.room());
    EXPECT_FALSE(a.reserve(18));
}

/* --- arrays of somebody else's --------------------------------------------------------------- */

TEST_F(arrays, a_plain_array_is_resized) {
    int* numbers = nullptr;
    ASSERT_TRUE(resize_array(numbers, 2));
    EXPECT_EQ(2 * sizeof(int), last_size);
    numbers[0] = 1;
    numbers[1] = 2;
    ASSERT_TRUE(resize_array(numbers, 1000));
    EXPECT_EQ(2, numbers[1]);
    ASSERT_TRUE(resize_array(numbers, 0));
    EXPECT_EQ(sizeof(int), last_size);
    EXPECT_EQ(1, numbers[0]);
    int* before = numbers;
    refuse_memory = true;
    EXPECT_FALSE(resize_array(numbers, 10));
    refuse_memory = false;
    EXPECT_FALSE(resize_array(numbers, SIZE_MAX / sizeof(int) + 1));
    EXPECT_EQ(before, numbers);
    EXPECT_EQ(1, numbers[0]);
    free(numbers);
}

TEST_F(arrays, a_held_array_is_resized) {
    heap_text text;
    ASSERT_TRUE(resize_array(text, 4));
    memcpy(text.get(), "abc", 4);
    refuse_memory = true;
    EXPECT_FALSE(resize_array(text, 4000));
    EXPECT_STREQ("abc", text.get());
    refuse_memory = false;
    ASSERT_TRUE(resize_array(text, 4000));
    EXPECT_STREQ("abc", text.get());
}

TEST_F(arrays, room_of_a_chosen_size) {
    bytes b;
    ASSERT_TRUE(b.set_room(10));
    EXPECT_EQ(10u, b.room());
    ASSERT_TRUE(b.append("abc", 3));
    ASSERT_TRUE(b.set_room(15));
    EXPECT_EQ(15u, last_size);
    refuse_memory = true;
    EXPECT_FALSE(b.set_room(20));
    EXPECT_EQ(15u, b.room());
    EXPECT_EQ("abc", text_of(b));
}
