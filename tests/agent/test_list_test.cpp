/* The list of definitions. Memory runs out on demand: malloc, realloc and strdup are replaced for
 * the header alone. */
#include <cstdlib>
#include <cstring>

namespace {

int allocations_left = -1; /* -1: no end */

bool memory_is_out() {
    return allocations_left == 0 || (allocations_left > 0 && allocations_left-- == 0);
}
void* limited_malloc(size_t size) {
    return memory_is_out() ? nullptr : malloc(size);
}
void* limited_realloc(void* memory, size_t size) {
    return memory_is_out() ? nullptr : realloc(memory, size);
}
char* limited_strdup(const char* text) {
    return memory_is_out() ? nullptr : strdup(text);
}

} // namespace

#include <type_traits>
#include <utility>
#define malloc limited_malloc
#define realloc limited_realloc
#define strdup limited_strdup
#include "test_list.h"
#undef malloc
#undef realloc
#undef strdup

#include <gtest/gtest.h>
#include <string>

namespace {

struct page {
    long id;
    char* host;
    int limit;
    char* user;
    int isFirstCheck;
};
using page_list = test_list<page, &page::id, &page::host, &page::user>;
static_assert(std::is_trivially_destructible_v<page_list>);
constinit page_list pages;

/* Owns more than texts. */
struct counted {
    int tid;
};
int alive = 0;

} // namespace

template <>
struct test_ownership<counted> {
    static counted* duplicate(const counted& test) {
        alive++;
        return new counted(test);
    }
    static void dispose(counted* test) {
        alive--;
        delete test;
    }
};

namespace {

char* text(const char* constant) {
    return const_cast<char*>(constant);
}

/* "1:HOST/USER/LIMIT " for every test in order; "-" for no text. */
std::string listed() {
    std::string all;
    for (const page* p : pages) {
        all += std::to_string(p->id) + ":" + (p->host != nullptr ? p->host : "-") + "/" +
               (p->user != nullptr ? p->user : "-") + "/" + std::to_string(p->limit) + " ";
    }
    return all;
}

struct TestList : testing::Test {
    ~TestList() override {
        allocations_left = -1;
        pages.clear();
    }
};

} // namespace

TEST_F(TestList, keeps_copies_in_the_order_of_adding) {
    char host[] = "here";
    EXPECT_TRUE(pages.add({4, host, 1, nullptr, 1}));
    EXPECT_TRUE(pages.add({2, text(""), 2, text("me"), 1}));
    EXPECT_TRUE(pages.add({9, nullptr, 3, nullptr, 1}));
    strcpy(host, "gone");
    EXPECT_EQ("4:here/-/1 2:/me/2 9:-/-/3 ", listed());
    EXPECT_EQ(3, pages.size());
    EXPECT_EQ(pages[1], pages.find(2));
    EXPECT_EQ(nullptr, pages.find(5));
}

TEST_F(TestList, refuses_a_known_id) {
    pages.add({4, text("a"), 1, nullptr, 1});
    EXPECT_FALSE(pages.add({4, text("b"), 2, nullptr, 1}));
    EXPECT_FALSE(pages.adopt(page_list::duplicate({4, text("c"), 3, nullptr, 1})));
    EXPECT_FALSE(pages.adopt(nullptr));
    EXPECT_EQ("4:a/-/1 ", listed());
}

TEST_F(TestList, replaces_in_place_by_texts_of_the_old_one) {
    pages.add({4, text("a"), 1, text("me"), 1});
    pages.add({2, text("b"), 2, nullptr, 1});
    EXPECT_TRUE(pages.replace({4, pages[0]->user, 7, nullptr, 1}));
    EXPECT_TRUE(pages.replace_by(page_list::duplicate({2, nullptr, 8, text("you"), 1})));
    EXPECT_EQ("4:me/-/7 2:-/you/8 ", listed());
    EXPECT_FALSE(pages.replace({5, text("c"), 9, nullptr, 1}));
    EXPECT_FALSE(pages.replace_by(page_list::duplicate({5, text("c"), 9, nullptr, 1})));
    EXPECT_FALSE(pages.replace_by(nullptr));
    EXPECT_EQ("4:me/-/7 2:-/you/8 ", listed());
}

TEST_F(TestList, removes_and_closes_the_gap) {
    for (long id : {4, 2, 9}) {
        pages.add({id, text("a"), 0, nullptr, 1});
    }
    EXPECT_FALSE(pages.remove(5));
    EXPECT_TRUE(pages.remove(2));
    EXPECT_EQ("4:a/-/0 9:a/-/0 ", listed());
    page* taken = pages.take(9);
    ASSERT_NE(nullptr, taken);
    EXPECT_STREQ("a", taken->host);
    page_list::dispose(taken);
    EXPECT_EQ(nullptr, pages.take(9));
    EXPECT_TRUE(pages.remove(4));
    EXPECT_EQ(0, pages.size());
    EXPECT_EQ(nullptr, pages.begin());
}

TEST_F(TestList, stays_as_it_was_without_memory) {
    pages.add({4, text("a"), 1, text("me"), 1});
    for (int enough = 0; enough < 4; enough++) { /* definition, two texts, a slot */
        allocations_left = enough;
        EXPECT_FALSE(pages.add({2, text("b"), 2, text("you"), 1})) << enough;
        EXPECT_EQ("4:a/me/1 ", listed());
    }
    for (int enough = 0; enough < 3; enough++) {
        allocations_left = enough;
        EXPECT_FALSE(pages.replace({4, text("b"), 2, text("you"), 1})) << enough;
        EXPECT_EQ("4:a/me/1 ", listed());
    }
    allocations_left = 4;
    EXPECT_TRUE(pages.add({2, text("b"), 2, text("you"), 1}));
    allocations_left = 0; /* a slot less needs none */
    EXPECT_TRUE(pages.remove(4));
    EXPECT_EQ("2:b/you/2 ", listed());
}

TEST_F(TestList, tells_whether_a_test_is_new) {
    EXPECT_FALSE(pages.check_each([](page&) { FAIL(); }));
    pages.add({4, nullptr, 0, nullptr, 1});
    pages.add({2, nullptr, 0, nullptr, 0});
    std::string checked;
    auto check = [&](page& p) { checked += std::to_string(p.id) + " "; };
    EXPECT_TRUE(pages.check_each(check));
    EXPECT_FALSE(pages.check_each(check));
    pages.replace({2, nullptr, 0, nullptr, 1});
    EXPECT_TRUE(pages.check_each(check));
    EXPECT_EQ("4 2 4 2 4 2 ", checked);
}

TEST_F(TestList, asks_a_definition_that_owns_more_how_to_copy_and_free) {
    test_list<counted, &counted::tid> list;
    EXPECT_TRUE(list.add({1}));
    EXPECT_TRUE(list.add({2}));
    EXPECT_FALSE(list.add({2}));
    EXPECT_TRUE(list.replace({1}));
    EXPECT_EQ(2, alive);
    EXPECT_TRUE(list.remove(2));
    EXPECT_EQ(1, alive);
    list.clear();
    EXPECT_EQ(0, alive);
}

TEST(PointerList, gives_everything_away) {
    pointer_list<int> list;
    int numbers[] = {7, 8}, count = -1;
    EXPECT_EQ(nullptr, list.hand_over(&count));
    EXPECT_EQ(0, count);
    for (int& number : numbers) {
        ASSERT_TRUE(list.append(&number));
    }
    int** array = list.hand_over(&count);
    ASSERT_EQ(2, count);
    EXPECT_EQ(&numbers[1], array[1]);
    EXPECT_EQ(0, list.size());
    ASSERT_TRUE(list.append(&numbers[1]));
    EXPECT_EQ(&numbers[1], list.take_at(0));
    free(array);
}
