/* What was asked for besides the path, once the route's table has let it through; and the pages of
 * lists. */
#ifndef VINDRAL_COLLECTOR_PARAMETERS_H
#define VINDRAL_COLLECTOR_PARAMETERS_H

#include "api/json.h"
#include "api/route.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* ---- of lists ---- */

constexpr int64_t usual_limit = 100, max_limit = 1000;
/* An answer ends before the item that would make it larger, unless that is the first. */
constexpr size_t most_list_bytes = 4u << 20;
inline constexpr parameter_def limit_parameter = {
    .name = "limit",
    .kind = parameter_kind::number,
    .text = "How many items the answer has at most; 100 when it is not given.",
    .least = 1,
    .most = max_limit};
inline constexpr parameter_def next_parameter = {
    .name = "next",
    .kind = parameter_kind::next,
    .text = "Goes on behind an answer before: its `next`, with the same filters."};
inline constexpr parameter_def agent_parameter = {
    .name = "agent",
    .kind = parameter_kind::text,
    .text = "Only of this agent: its id, or \"account/name\"."};
inline constexpr parameter_def group_parameter = {.name = "group",
                                                  .kind = parameter_kind::text,
                                                  .text =
                                                      "Only of agents that are in this group now."};
inline constexpr parameter_def type_parameter = {
    .name = "type",
    .kind = parameter_kind::choice,
    .text = "Only tests of these types.",
    .choices = "network|discovery|process|cpu|disk|memory|ping|http|snmp|load average|snmp "
               "table|mysql",
    .many = true};

/* ---- values ---- */

int64_t number_or(const api_request& asked, std::string_view name, int64_t otherwise);
std::optional<int64_t> time_of(const api_request& asked, std::string_view name);
/* Throws problem where nothing lies between the two. */
void check_span(int64_t from, int64_t to);
bool is_set(const api_request& asked, std::string_view flag);
std::string text_of(const api_request& asked, std::string_view name);

/* Of several with commas between; they rise. Empty when it is not given. */
std::vector<int64_t> ids_of(const api_request& asked, std::string_view name);

/* The words of a choice; all there are when it is not given. */
class chosen {
public:
    chosen(const api_request& asked, std::string_view name);
    bool is_given() const { return !words_.empty(); }
    bool has(std::string_view word) const;

private:
    std::vector<std::string_view> words_;
};

/* The id that stands in the path; throws 404 with `what` ("test") for what is none. */
int64_t id_in_path(const api_request& asked, const char* what, size_t place = 0);

/* ---- pages ---- */

size_t limit_of(const api_request& asked);

/* `next` out of the place behind which the next page begins, and back; none when it was not given.
 * Throws 400 for what no answer ever said. */
std::string next_text(std::initializer_list<std::string> place);
std::optional<std::vector<std::string>> place_of(const api_request& asked, size_t fields);
/* A field of a place; throws likewise. */
int64_t number_in(const std::string& field);

/* A list as it is answered. `error`: why not all of it could be read; "" when it could. Throws 503
 * when there is nothing but that, or when the time was up. */
boost::json::object list_of(const api_request& asked, boost::json::array items,
                            const std::string& next, const std::string& error);

/* Throws 503 when the request has taken too long. */
void check_deadline(const api_request& asked);

#endif
