/* What the commands share: the rows of lists on standard output, and the words of the API as people
 * read them. */
#ifndef VINDRAL_CTL_OUTPUT_H
#define VINDRAL_CTL_OUTPUT_H

#include "ctl/place.h"
#include "ctl/table.h"

#include <boost/json.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/* To standard output, at once; throws failure when that takes no more. */
void put(std::string_view text);
/* A line to standard error: "vindralctl: ...". */
void tell(std::string_view text);

/* ---- lists ---- */

struct list_def {
    const char* path;
    const char* things; /* "tests": there are none of them */
    std::vector<table_column> columns;
    size_t usual_limit; /* 0: all */
    /* Tables have what is wrong first, the newest first, then what is unknown, then the rest as the
     * API has it: so a limit is one of the worst, and all are read. JSON is as the API has it. */
    bool worst_first = false;
    const char* none = nullptr; /* what is said of an empty one; null: that there are no `things` */
};

/* Reads a list and puts it down: a table, or with --json each item in a line of its own. `look`
 * sees each item that was read as well. Returns the exit status: wrong when not everything could
 * be read, which is told.
 */
int put_list(const place& here, const list_def& what, const parameters& with,
             const std::function<std::vector<table_cell>(const boost::json::object&)>& row_of,
             const std::function<void(const boost::json::object&)>& look = nullptr);

/* ---- parameters ---- */

/* --from and --to as the API takes them; "" when they are not given. Throws failure (usage). */
std::string time_parameter(const place& here, const std::string& given_text, const char* option);
/* The id of --agent or --test; "" when it is not given. Throws as find_agent() and find_test(). */
std::string agent_parameter(const place& here);
std::string test_parameter(const place& here);
std::string number_parameter(int64_t number);

/* ---- words; all of it printable ---- */

std::string text_cell(const place& here, const boost::json::object& of, std::string_view name);
/* Of a test: "front page (https://shop.example.org/)", or only its name where it is the same as
 * what it looks at, or nothing says what that is. */
std::string test_cell(const place& here, const boost::json::object& test);
std::string number_cell(const boost::json::object& of, std::string_view name);
/* "account/name" */
std::string agent_cell(const place& here, const boost::json::object& of);
/* "unknown (stale)" where the object says so. */
table_cell state_cell(const boost::json::object& of, std::string_view name);
/* Of a time of the API: local, or how long ago it was; "" for null. */
std::string time_cell(const boost::json::object& of, std::string_view name);
/* On a screen a time of today without the day, any other without the seconds. */
std::string short_time_cell(const place& here, const boost::json::object& of,
                            std::string_view name);
std::string age_cell(const place& here, const boost::json::object& of, std::string_view name);
/* "load1 0.25, load5 0.3": numbers with their units. */
std::string values_cell(const place& here, const boost::json::object& of);
/* Of one value: "70.2 GB"; "-" where there is none. */
std::string value_text(const boost::json::object& value);
/* What a test found, the telling part first: of one that is ok its values, of any other its message
 * and then the values; the message of one that has no values. Of one that is unknown by now that
 * this was the last: "last ok: ...". */
std::string finding_cell(const place& here, const boost::json::object& of);

/* ---- one thing, a fact a line ---- */

/* "label               text", broken where the screen ends; nothing for an empty text. */
void put_fact(const place& here, std::string_view label, const std::string& text,
              tint color = tint::none, size_t most_lines = 0);
/* "2026-05-01 14:00:00 (5m ago)" */
std::string time_and_age(const place& here, const boost::json::object& of, std::string_view name);

#endif
