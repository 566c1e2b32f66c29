#include "ingest/witness.h"

#include <gtest/gtest.h>

using verdict = witness::verdict;

TEST(witness, most_of_the_last_hour_counts) {
    const int64_t noon = 1777636800;
    witness w;
    EXPECT_EQ(w.says(1000), verdict::none);
    w.note(noon - 30, noon, 1000);
    EXPECT_EQ(w.says(1000), verdict::agrees);
    w.note(noon - 86401, noon, 1000); /* held back, or our clock is ahead */
    EXPECT_EQ(w.says(1000), verdict::differs) << "not most";
    w.note(noon + 86401, noon, 1000);
    w.note(noon + 86400, noon, 2000);
    w.note(noon - 86400, noon, 2000);
    EXPECT_EQ(w.says(2000), verdict::agrees);
    EXPECT_EQ(w.says(5000), verdict::agrees) << "those of 2000";
    EXPECT_EQ(w.says(9000), verdict::none);
}

TEST(witness, extreme_times_do_no_harm) {
    witness w;
    w.note(INT64_MAX, 0, 0);
    w.note(INT64_MIN, 0, 0);
    EXPECT_EQ(w.says(0), verdict::differs);
}
