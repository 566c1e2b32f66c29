#include "api/open_api.h"
#include "api/resources.h"

#include <algorithm>
#include <vector>

static api_answer description(const api_request& asked, api_services&) {
    api_answer answer;
    answer.body = asked.session_cookie.empty() ? open_api() : open_api(asked.session_cookie);
    return answer;
}

/* Here because it is about all the others. */
static const route description_row = {.method = "GET",
                                      .pattern = "/openapi.json",
                                      .least = role::viewer,
                                      .summary = "This description.",
                                      .parameters = {},
                                      .takes = "",
                                      .answers = "open_api",
                                      .status = 200,
                                      .handler = description};

static std::vector<route> sorted_rows() {
    std::vector<route> rows = {description_row};
    for (std::span<const route> more :
         {agent_routes(), change_routes(), enrolment_routes(), event_routes(), fleet_routes(),
          health_routes(), ledger_routes(), metric_routes(), result_routes(), series_routes(),
          secret_value_routes(), test_routes(), token_routes(), web_routes()}) {
        rows.insert(rows.end(), more.begin(), more.end());
    }
    std::sort(rows.begin(), rows.end(), [](const route& a, const route& b) {
        return a.pattern != b.pattern ? a.pattern < b.pattern : a.method < b.method;
    });
    return rows;
}

std::span<const route> all_routes() {
    static const std::vector<route> rows = sorted_rows();
    return rows;
}

std::string open_api(std::string_view cookie) {
    return describe(all_routes(), cookie);
}
