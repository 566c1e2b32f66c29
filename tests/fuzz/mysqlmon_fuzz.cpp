/* The parameters of a MySQL test, and what a server answers. Input: the list of parameters in one
 * line, then the rows of the answer, a line each, with a tab behind the name. */
#include "mysqlmon_check.h"
#include "mysqlmon_lib.h"

#include "fuzz.h"
#include "vindral_common.h"
#include "vindral_text.h"

#include <cmath>
#include <cstring>
#include <optional>
#include <set>

/* --- the library ----------------------------------------------------------------------------- */

/* The rows of both queries. */
static std::vector<std::vector<std::string>> rows;
static size_t next_row;
static char handle; /* stands for whatever the library gives out */

static MYSQL* give_connection(MYSQL*) {
    return reinterpret_cast<MYSQL*>(&handle);
}
static MYSQL_ROW give_row(MYSQL_RES*) {
    static char* row[2];
    if (next_row == rows.size()) {
        return nullptr;
    }
    std::vector<std::string>& fields = rows[next_row++];
    row[0] = fields[0].data();
    row[1] = fields.size() > 1 ? fields[1].data() : nullptr; /* NULL of SQL */
    return row;
}

static void bind_library() {
    lib_mysql_init = give_connection;
    lib_mysql_error = [](MYSQL*) { return "no"; };
    lib_mysql_options = [](MYSQL*, mysql_option, const void*) { return 0; };
    lib_mysql_real_connect = [](MYSQL* m, const char*, const char*, const char*, const char*,
                                unsigned, const char*, unsigned long) { return m; };
    lib_mysql_query = [](MYSQL*, const char*) { return 0; };
    lib_mysql_store_result = [](MYSQL*) {
        next_row = 0;
        return reinterpret_cast<MYSQL_RES*>(&handle);
    };
    lib_mysql_num_fields = [](MYSQL_RES*) { return 2U; };
    lib_mysql_fetch_row = give_row;
    lib_mysql_free_result = [](MYSQL_RES*) {};
    lib_mysql_close = [](MYSQL*) {};
}

/* --- the parameters -------------------------------------------------------------------------- */

static std::optional<double> limit_in(const std::vector<std::string>& parts, size_t index) {
    if (index >= parts.size() || parts[index][0] < '0' || parts[index][0] > '9') {
        return {};
    }
    return strtod(parts[index].c_str(), nullptr);
}

static bool same(const double* limit, const std::optional<double>& expected) {
    return (limit != nullptr) == expected.has_value() && (limit == nullptr || *limit == *expected);
}

static void check_params(const MySQL_Data& test, const std::string& list) {
    char** entries = nullptr;
    size_t count = 0;
    require(uparser(list.c_str(), &entries, &count, ';') == 1 && test.arr_len == count);
    for (size_t i = 0; i < count; i++) {
        std::vector<std::string> parts = split(entries[i], "|");
        require(parts[0] == test.arr[i]);
        require(same(test.maxValues[i], limit_in(parts, 1)));
        require(same(test.minValues[i], limit_in(parts, 2)));
    }
    free_uparser_array(&entries, &count);
}

static void check_copy(const MySQL_Data& test, const MySQL_Data& copy) {
    require(copy.arr_len == test.arr_len);
    for (size_t i = 0; i < test.arr_len; i++) {
        auto optional = [](const double* limit) {
            return limit != nullptr ? std::optional(*limit) : std::nullopt;
        };
        require(copy.arr[i] != test.arr[i] && strcmp(copy.arr[i], test.arr[i]) == 0);
        require(same(copy.maxValues[i], optional(test.maxValues[i])));
        require(same(copy.minValues[i], optional(test.minValues[i])));
    }
}

/* --- the answer ------------------------------------------------------------------------------ */

/* The last value of that name; a blank for none. */
static std::string value_of(const char* name) {
    std::string value = " ";
    for (const std::vector<std::string>& row : rows) {
        if (row.size() > 1 && strcmp(row[0].c_str(), name) == 0) {
            value = row[1].c_str();
        }
    }
    return value;
}

static bool is_within(const std::string& value, const double* most, const double* least) {
    if (value[0] < '0' || value[0] > '9') {
        return false;
    }
    double number = strtod(value.c_str(), nullptr);
    return (most == nullptr || number <= *most) && (least == nullptr || number >= *least);
}

static void check_answer(MySQL_Data& test) {
    std::vector<char*> values(test.arr_len + 1);
    char *info = nullptr, *result = nullptr;
    require(GetValuesFromDB(&test, &info, values.data()) == 0 && info == nullptr);
    int status = CheckValues(&test, values.data(), &info, &result);
    std::string expected, complaints;
    std::set<std::string> names; /* the first entry of a name takes its value */
    for (size_t i = 0; i < test.arr_len; i++) {
        std::string value = names.insert(test.arr[i]).second ? value_of(test.arr[i]) : " ";
        bool ok = is_within(value, test.maxValues[i], test.minValues[i]);
        expected += test.arr[i] + ("|" + value) + (ok ? "|0;" : "|2;");
        complaints += ok ? "" : test.arr[i] + (" - " + value) + ": NOK;";
    }
    require(expected == (result != nullptr ? result : ""));
    require(complaints == (info != nullptr ? info : ""));
    require(status == (complaints.empty() ? 0 : 2));
    free(info);
    free(result);
    for (char* value : values) {
        free(value);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    bind_library();
    std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> lines = split(input, "\n");
    std::string list = lines[0].c_str();
    rows.clear();
    for (size_t i = 1; i < lines.size(); i++) {
        rows.push_back(split(lines[i], "\t"));
    }
    require_no_growth([&] {
        auto* test = static_cast<MySQL_Data*>(calloc(1, sizeof(MySQL_Data)));
        require(parse_mysql_params(test, "first|1|2") == 1);
        if (parse_mysql_params(test, list.c_str())) {
            check_params(*test, list);
        } else {
            require(test->arr_len == 0 && list.empty());
        }
        MySQL_Data* copy = mysql_data_dup(test);
        require(copy != nullptr);
        check_copy(*test, *copy);
        check_answer(*copy);
        free_mysql_data(&copy);
        free_mysql_data(&test);
        require(copy == nullptr && test == nullptr);
    });
    return 0;
}
