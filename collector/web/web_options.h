/* Where the web server is, as whom, within which limits, and what answers. */
#ifndef VINDRAL_COLLECTOR_WEB_OPTIONS_H
#define VINDRAL_COLLECTOR_WEB_OPTIONS_H

#include "api/request.h"
#include "api/services.h"
#include "web/limits.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct web_options {
    std::string address = "127.0.0.1";
    uint16_t port = 0;              /* 0: the kernel picks */
    std::vector<std::string> names; /* that a Host may have, besides addresses */
    web_limits limits = {};
    /* What answers: answer_request() and stream_filter() of the API. */
    api_answer (*answer)(std::string_view method, std::string_view target, api_request& asked,
                         api_services& with) = nullptr;
    hub_filter (*stream)(std::string_view target, api_request& asked, api_services& with) = nullptr;
};

#endif
