/* What becomes of a request, between its bytes and the API: whether it was meant for this collector
 * and comes from its own page, who asks, signing in and out, the front page; everything else is the
 * API's. No sockets. Any thread, several at once. */
#ifndef VINDRAL_COLLECTOR_WEB_DESK_H
#define VINDRAL_COLLECTOR_WEB_DESK_H

#include "api/request.h"
#include "api/services.h"
#include "base/rates.h"
#include "store/settings.h"
#include "web/request_head.h"
#include "web/sign_in.h"
#include "web/web_options.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/* Where a request came from. */
struct web_peer {
    std::string address, local; /* of either end, as text */
    uint64_t address_key = 0;   /* admission.h */
};

struct desk_answer {
    api_answer answer = {};
    bool is_stream = false; /* what follows counts, and not the answer */
    hub_filter which = {};
    int64_t holder = 0;    /* caller::holder */
    uint64_t position = 0; /* of the message that was heard last */
    bool lost = false;     /* some have gone since that */
};

class desk {
public:
    using clock = std::chrono::steady_clock;

    /* All must outlive this. `log` is called on any thread. */
    desk(const web_options& options, bool tls, bool on_loopback, settings& kept,
         known_callers& callers, api_services& with, std::function<void(const std::string&)> log);

    /* What can be said before the body has come: not meant for this collector, somebody else's
     * page, too large. Waits for nothing. */
    std::optional<problem> refuse(const request_head& head, const web_peer& from) const;

    /* Whether it is one of the requests of which each may make so many a minute. The page and
     * signing in are not: strangers share an address, behind a proxy and on loopback, and one who
     * asks for much would shut the others out. Attempts that fail have a limit of their own. */
    static bool counts(const request_head& head);

    /* The answer where it waits for nothing: whether the collector is there, and stores.
     * Whoever asks that and is not answered starts it anew, and would do so whenever the store is
     * slow. */
    std::optional<api_answer> answer_at_once(const request_head& head, const web_peer& from);

    /* Reads the settings, and what the API reads. Never throws, unless memory is short. */
    desk_answer answer(const request_head& head, std::string_view body, const web_peer& from,
                       clock::time_point deadline);

private:
    desk_answer open_stream(const request_head& head, api_request& asked);
    api_answer answer_itself(const request_head& head, std::string_view body, const web_peer& from);
    api_answer sign_in(const request_head& head, std::string_view body, const web_peer& from);
    api_answer not_signed_in(const web_peer& from);
    api_answer sign_out(const request_head& head, const web_peer& from);
    void audit(const caller& who, const std::string& what);

    const web_options& options_;
    const bool tls_, on_loopback_;
    settings& kept_;
    known_callers& callers_;
    api_services& with_;
    const std::function<void(const std::string&)> log_;
    rate_limit failed_sign_ins_, told_of_;
};

/* 429: to be tried again after so many seconds. */
api_answer too_often(const std::string& detail, int seconds);

#endif
