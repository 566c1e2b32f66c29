/* The checker with which tests hold answers to the description of the API. */
#include "json_schema.h"

#include <gtest/gtest.h>

TEST(json_schema, times) {
    const boost::json::object none;
    const json_schema checker(none);
    const boost::json::value schema = {{"type", "string"}, {"format", "date-time"}};
    EXPECT_EQ(checker.check("2026-05-01T12:00:00Z", schema), "");
    for (const char* wrong :
         {"", "2026-05-01T12:00:00", "2026-05-01T12:00:00z", "2026-05-01T12:00:00+00:00",
          "2026-05-01 12:00:00Z", " 2026-05-01T12:00:00Z", "2026-05-01T12:00:00ZZ",
          "2026-05-01T12:00:00Z\n", "2026-5-01T12:00:00Z", "2026-05-01T12:00:00.5Z"}) {
        EXPECT_NE(checker.check(wrong, schema), "") << wrong;
    }
}
