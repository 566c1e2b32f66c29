/* What a fleet file changes, and each change as it is kept, as JSON. */
#ifndef VINDRAL_COLLECTOR_API_DIFFERENCE_H
#define VINDRAL_COLLECTOR_API_DIFFERENCE_H

#include "api/request.h"
#include "api/services.h"
#include "fleet/service.h"

#include <boost/json.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

/* Agents by account and name, each looked up once. */
class agent_ids {
public:
    /* Null: no id is known. */
    explicit agent_ids(result_reader* store) : store_(store) {}
    /* 0: it is not in the store. */
    int64_t of(std::string_view account, std::string_view agent);

private:
    result_reader* store_;
    std::map<std::pair<std::string, std::string>, int64_t> known_;
};

/* {id, account, name}; `id` is null with 0: a fleet may have agents that the store does not. */
boost::json::object fleet_agent_reference(int64_t id, std::string_view account,
                                          std::string_view name);

/* "fleet_outcome" of schemas.cpp: with as many changes as there is room for, and how many more
 * there are. */
std::string text_of_outcome(const fleet_outcome& done, bool is_trial, const api_request& asked,
                            api_services& with);

/* "sent", "confirmed", "unanswered", "impossible" */
std::string_view outcome_word(change_outcome o);

/* "change" of schemas.cpp. */
boost::json::object json_change(const stored_change& what, int64_t agent);

#endif
