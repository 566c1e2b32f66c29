/* Records made by the protocol's tables, against the bytes that they have always had. */
#include "record_writer.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

/* The bytes of the record; frees it. */
std::string taken(UDCW* writer) {
    std::string bytes(reinterpret_cast<const char*>(writer->udc), writer->udc->size);
    free(writer->udc);
    udcw_free(&writer);
    return bytes;
}

template <typename... T>
std::string packed(T... values) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char*>(&values), sizeof(T)), ...);
    return bytes;
}

using u = uint32_t;

std::string load_average(const char* message) {
    return taken(make_record<protocol::load_average>(
        named<"test">(7), named<"location">(-1), named<"time">(int64_t{1777881984}),
        named<"load1">(2.0), named<"load5">(1.0), named<"load15">(0.5), named<"status">(2),
        named<"message">(message)));
}

} // namespace

TEST(record_writer, a_record_has_the_shape_of_its_table) {
    EXPECT_EQ(packed(u{32 + 16 + 8 + 24 + 3}, u{0}, u{4}, u{1}, u{0}, u{3}, u{1}, u{0}) +
                  packed(u{66}, u{7}, ~u{0}, u{2}, int64_t{1777881984}, 2.0, 1.0, 0.5) +
                  std::string("hi\0", 3),
              load_average("hi"));
}

TEST(record_writer, a_text_that_is_empty_or_missing_is_declared_and_left_out) {
    EXPECT_EQ(load_average(""), load_average(nullptr));
    EXPECT_EQ(packed(u{32 + 16 + 8 + 24}, u{0}, u{4}, u{1}, u{0}, u{3}, u{1}, u{0}),
              load_average(nullptr).substr(0, 32));
}

TEST(record_writer, what_is_always_0_is_not_named) {
    std::string finished = taken(make_record<protocol::discovery_finished>(
        named<"test">(3), named<"location">(4), named<"time">(int64_t{5}),
        named<"message">("finished")));
    EXPECT_EQ(packed(u{32 + 12 + 8 + 8 + 9}, u{0}, u{3}, u{1}, u{0}, u{1}, u{1}, u{0}) +
                  packed(u{40}, u{3}, u{4}, int64_t{5}, 0.0) + std::string("finished\0", 9),
              finished);
    std::string inventory = taken(
        make_record<protocol::process_names>(named<"time">(int64_t{5}), named<"names">("init\t")));
    EXPECT_EQ(packed(u{32 + 12 + 8 + 6}, u{0}, u{3}, u{1}, u{0}, u{0}, u{1}, u{0}) +
                  packed(u{42}, u{0}, u{0}, int64_t{5}) + std::string("init\t\0", 6),
              inventory);
}

TEST(record_writer, parts_lie_behind_the_texts) {
    enum { KIND = 9 };
    UDCW* record = make_record<protocol::snmp>(
        named<"test">(1), named<"location">(2), named<"status">(0), named<"time">(int64_t{3}),
        named<"objects">(size_t{1}), named<"time">(1.5), named<"message">("m"));
    add_part(record, make_part<*protocol::snmp.parts>(named<"type">(KIND), named<"status">(2u),
                                                      named<"value">("v"), named<"message">("d")));
    add_part(record, nullptr);
    std::string part = packed(u{32 + 8 + 4}, u{0}, u{2}, u{0}, u{0}, u{0}, u{2}, u{0}, u{9}, u{2}) +
                       std::string("v\0d\0", 4);
    EXPECT_EQ(packed(u{32 + 20 + 8 + 8 + 2 + 44}, u{0}, u{5}, u{1}, u{0}, u{1}, u{1}, u{1}) +
                  packed(u{57}, u{1}, u{2}, u{0}, u{1}, int64_t{3}, 1.5) + std::string("m\0", 2) +
                  part,
              taken(record));
}

/* What does not compile. */
template <value_name Name, typename T>
using given = named_value<Name, T>;
template <typename... Named>
constexpr bool compiles = values_of_table<protocol::snmp_table, Named...>;

static_assert(compiles<given<"test", int>, given<"location", int>, given<"status", unsigned>,
                       given<"time", long>, given<"message", const char*>>);
static_assert(!compiles<given<"test", int>, given<"location", int>, given<"status", unsigned>,
                        given<"time", long>>);
static_assert(!compiles<given<"test", int>, given<"location", int>, given<"status", unsigned>,
                        given<"time", long>, given<"message", const char*>, given<"more", int>>);
static_assert(!compiles<given<"location", int>, given<"test", int>, given<"status", unsigned>,
                        given<"time", long>, given<"message", const char*>>);
static_assert(!compiles<given<"test", double>, given<"location", int>, given<"status", unsigned>,
                        given<"time", long>, given<"message", const char*>>);
static_assert(!compiles<given<"test", int>, given<"location", int>, given<"status", unsigned>,
                        given<"time", long>, given<"message", int>>);
static_assert(
    !values_of_table<protocol::load_average, given<"test", int>, given<"location", int>,
                     given<"time", long>, given<"load1", int>, given<"load5", double>,
                     given<"load15", double>, given<"status", int>, given<"message", const char*>>,
    "a whole number is no average");

TEST(record_types, each_has_its_code_once_and_can_be_found) {
    uint32_t last = 0;
    for (const protocol::record_def* type : protocol::record_types) {
        EXPECT_GT(type->code, last);
        last = type->code;
        EXPECT_EQ(type, protocol::find_record(type->code));
        EXPECT_EQ("code", std::string(type->values[0].name));
        EXPECT_NE(nullptr, find_role(type->values, protocol::value_role::time)) << type->name;
    }
    EXPECT_EQ(nullptr, protocol::find_record(0));
    EXPECT_EQ(nullptr, protocol::find_record(75));
}

TEST(record_types, places_are_counted_among_the_values_of_a_type) {
    constexpr std::span<const protocol::value_def> ping = protocol::ping.values;
    EXPECT_EQ(4u, index_of(ping, 6)) << "lost";
    EXPECT_EQ(0u, index_of(ping, 5)) << "round_trip";
    EXPECT_EQ(5u, count_of(ping, protocol::value_type::ui32));
    EXPECT_EQ(1u, count_of(ping, protocol::value_type::string));
}
