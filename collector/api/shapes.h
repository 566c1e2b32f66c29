/* The shapes that more than one resource answers with: docs and schemas.cpp have them in words. */
#ifndef VINDRAL_COLLECTOR_SHAPES_H
#define VINDRAL_COLLECTOR_SHAPES_H

#include "state/agent_state.h"
#include "state/definition.h"
#include "state/result.h"
#include "store/engine.h"

#include <boost/json.hpp>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/* "ok", "problem", "unknown" (of a stale test too), "silent". */
std::string_view shown_word(state s);

/* Names of states that a filter has let through: stale ones are unknown, too. */
class chosen;
bool has_state(const chosen& wanted, state s);

boost::json::object agent_reference(int64_t id, std::string_view account, std::string_view name);

/* What somebody called the test, else what it looks at where that is known, else "load average
 * 101". */
std::string test_name(uint32_t type, std::optional<int32_t> number, const definition* what);
/* What it looks at; null where that is not known. */
boost::json::value test_target(const definition* what);
/* Whether name or target have the text in them, whatever the case. */
bool test_has_text(uint32_t type, std::optional<int32_t> number, const definition* what,
                   const std::string& text);

boost::json::object test_reference(int64_t id, uint32_t type, std::optional<int32_t> number,
                                   const definition* what);

/* What it looks at, what it was called, since when, location id, and its fields by the names that
 * the protocol's table of commands has for them, numbered where it has several of a name. Null for
 * none. */
boost::json::value json_definition(const definition* what);

boost::json::object json_values(uint32_t type, std::span<const result_value> values);

/* "limit reached"; null where nothing is judged. */
/* Of a message of megabytes the beginning. */
std::string_view shown_message(std::string_view message);

boost::json::value json_status(uint32_t type, std::optional<int32_t> status);

/* Processes, processors, SNMP objects, rows of tables, MySQL values, hosts that were discovered:
 * each with its name, values, and status and message where it has them. Of what would be
 * megabytes the beginning; `is_cut`: there were more. */
boost::json::array json_parts(const result& what, bool& is_cut);
/* Without parts where it has no records; with "parts_left_out" where not all of them are there. */
boost::json::object json_result(const result& what);

/* The event, its agent and test as they are in there. */
boost::json::object json_event(const stored_event& event, boost::json::object agent,
                               boost::json::value test);

/* {ok, problem, unknown}; tests without a number are none. */
boost::json::object json_counts(const agent_state& now);

/* Since when the agent is in the state that worst() tells; 0: not known. */
int64_t worst_since(const agent_state& now);

#endif
