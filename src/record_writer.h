/* Making a record by the protocol's table of its type. Each value is named, in the order of the
 * table; a value too many, too few, in the wrong place or of the wrong kind does not compile:
 *
 *     UDCW* record = make_record<protocol::load_average>(
 *         named<"test">(test.test_id), named<"location">(test.loc_id), named<"time">(now),
 *         named<"load1">(la[0]), named<"load5">(la[1]), named<"load15">(la[2]),
 *         named<"status">(status), named<"message">(message));
 *     if (record != nullptr) {
 *         checker_add_record(lda, record);
 *     }
 *
 * The code and what is always 0 are not named: the table has them. */
#ifndef VINDRAL_RECORD_WRITER_H
#define VINDRAL_RECORD_WRITER_H

#include "../protocol/record_types.h"
#include "udc.h"

#include <cstdlib>
#include <string_view>
#include <type_traits>
#include <utility>

template <size_t N>
struct value_name {
    char text[N];
    consteval value_name(const char (&from)[N]) {
        for (size_t i = 0; i < N; i++) {
            text[i] = from[i];
        }
    }
};

template <value_name Name, typename T>
struct named_value {
    static constexpr std::string_view name{Name.text};
    T value;
};

/* A text may be null: it is left out then, as an empty one is. */
template <value_name Name, typename T>
named_value<Name, T> named(T value) {
    return {value};
}

/* Whether a C++ value is one of the table's types, without a loss that nobody asked for. */
template <typename T>
constexpr bool fits(protocol::value_type type) {
    switch (type) {
    case protocol::value_type::d64:
        return std::is_floating_point_v<T>;
    case protocol::value_type::string:
        return std::is_convertible_v<T, const char*>;
    default:
        return std::is_integral_v<T> || std::is_enum_v<T>;
    }
}

constexpr bool is_named(const protocol::value_def& value) {
    return value.role != protocol::value_role::code && value.role != protocol::value_role::unused;
}

/* Place in the table of the value that is named as the `number`-th; the table's size for none. */
constexpr size_t named_position(std::span<const protocol::value_def> values, size_t number) {
    for (size_t i = 0; i < values.size(); i++) {
        if (is_named(values[i]) && number-- == 0) {
            return i;
        }
    }
    return values.size();
}

constexpr int udc_type_of(protocol::value_type type) {
    constexpr int types[] = {UDC_I32, UDC_UI32, UDC_I64, UDC_UI64, UDC_D64, UDC_STRING};
    return types[static_cast<int>(type)];
}

/* Whether a value of this name and kind comes as the `Number`-th in the table. */
template <const auto& Table, size_t Number, typename Named>
constexpr bool comes_next() {
    constexpr size_t position = named_position(Table.values, Number);
    if constexpr (position == Table.values.size()) {
        return false;
    } else {
        return Named::name == Table.values[position].name &&
               fits<decltype(Named::value)>(Table.values[position].type);
    }
}

template <const auto& Table, typename... Named, size_t... Numbers>
constexpr bool are_all(std::index_sequence<Numbers...>) {
    return (comes_next<Table, Numbers, Named>() && ...) &&
           named_position(Table.values, sizeof...(Named)) == Table.values.size();
}

/* The values of the table, all and in its order. */
template <const auto& Table, typename... Named>
concept values_of_table = are_all<Table, Named...>(std::index_sequence_for<Named...>());

template <const auto& Table, size_t Number, typename Named>
void add_named(UDCW* writer, const Named& given) {
    constexpr size_t position = named_position(Table.values, Number);
    constexpr int type = udc_type_of(Table.values[position].type);
    if constexpr (std::is_enum_v<decltype(given.value)>) {
        udcw_add(writer, type, static_cast<long long>(given.value));
    } else {
        udcw_add(writer, type, given.value);
    }
}

/* What is not named: the code, and what is always 0. */
template <const auto& Table, size_t Position>
void add_fixed(UDCW* writer, uint32_t code) {
    constexpr const protocol::value_def& value = Table.values[Position];
    if constexpr (value.role == protocol::value_role::code) {
        udcw_add(writer, UDC_UI32, code);
    } else if constexpr (value.role == protocol::value_role::unused) {
        udcw_add(writer, udc_type_of(value.type), 0);
    }
}

/* All of the table is looked up while compiling: a pass makes hundreds of records. */
template <const auto& Table, size_t... Positions, size_t... Numbers, typename... Named>
UDCW* make_by_table(uint32_t code, std::index_sequence<Positions...>,
                    std::index_sequence<Numbers...>, const Named&... given) {
    using enum protocol::value_type;
    constexpr uint32_t counts[] = {count_of(Table.values, i32), count_of(Table.values, ui32),
                                   count_of(Table.values, i64), count_of(Table.values, ui64),
                                   count_of(Table.values, d64), count_of(Table.values, string)};
    UDCW* writer = nullptr;
    if (!create_new_udcw(&writer, counts[0], counts[1], counts[2], counts[3], counts[4],
                         counts[5])) {
        return nullptr;
    }
    (add_fixed<Table, Positions>(writer, code), ...);
    (add_named<Table, Numbers>(writer, given), ...);
    return writer;
}

/* The record of a test, or an inventory; nested records may follow. The caller frees the writer and
 * the record, as checker_add_record() does. Null when memory is short. */
template <const protocol::record_def& Type, typename... Named>
UDCW* make_record(const Named&... given) {
    static_assert(values_of_table<Type, Named...>, "not the values of the table, in its order");
    return make_by_table<Type>(Type.code, std::make_index_sequence<Type.values.size()>(),
                               std::index_sequence_for<Named...>(), given...);
}

/* A nested record. Null when memory is short. */
template <const protocol::part_def& Part, typename... Named>
UDCW* make_part(const Named&... given) {
    static_assert(values_of_table<Part, Named...>, "not the values of the table, in its order");
    return make_by_table<Part>(0, std::make_index_sequence<Part.values.size()>(),
                               std::index_sequence_for<Named...>(), given...);
}

/* Appends the nested record to the other and frees it with its writer; null appends nothing. */
inline void add_part(UDCW* record, UDCW* part) {
    if (part != nullptr) {
        udcw_add(record, UDC_RECORD, part->udc);
        free(part->udc);
        udcw_free(&part);
    }
}

#endif
