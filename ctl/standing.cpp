#include "ctl/standing.h"

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/output.h"
#include "ctl/text.h"
#include "ctl/times.h"

namespace json = boost::json;

namespace {

/* "2026-08-01 12:00:00 (in 80d)", or that it has ended. */
std::string end_text(const place& here, const json::object& certificate) {
    const std::optional<int64_t> ends = read_rfc3339(text_in(certificate, "ends"));
    if (!ends) {
        return "";
    }
    return *ends > here.now
               ? "until " + local_time(*ends) + " (" + span_text(*ends - here.now) + ")"
               : "ended at " + local_time(*ends) + " (" + span_text(here.now - *ends) + " ago)";
}

bool is_true(const json::object& of, std::string_view name) {
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_bool() && found->get_bool();
}

/* " (by ann)" */
std::string by_text(const place& here, const json::object& standing) {
    const std::string by = text_cell(here, standing, "by");
    return by.empty() ? "" : ", by " + by;
}

} // namespace

table_cell identity_cell(const json::object& of, std::string_view name) {
    std::string word = printable(text_in(of, name), true);
    const tint color = word == "waiting"   ? tint::unsure
                       : word == "revoked" ? tint::bad
                                           : tint::none;
    return {word == "unknown" ? "" : word, color};
}

std::string waiting_key(const place& here, const json::object& waiting) {
    const std::string key = text_cell(here, waiting, "key");
    return key.empty()                     ? "none yet: run vindral-enrol there"
           : is_true(waiting, "contested") ? key + ", and there is another one"
                                           : key;
}

void put_standing(const place& here, const json::object& standing) {
    const table_cell state = identity_cell(standing, "state");
    put_fact(here, "identity", state.text, state.color);
    const json::object& waiting = object_in(standing, "waiting");
    if (!waiting.empty()) {
        put_fact(here, "waits since", time_and_age(here, waiting, "since"), tint::unsure);
        put_fact(here, "waits at", text_cell(here, waiting, "address"));
        put_fact(here, "waits with key", waiting_key(here, waiting));
    }
    const std::string admitted = time_and_age(here, standing, "admitted"),
                      revoked = time_and_age(here, standing, "revoked");
    if (!revoked.empty()) {
        put_fact(here, "revoked", revoked + by_text(here, standing), tint::bad);
    } else if (!admitted.empty()) {
        put_fact(here, "admitted", admitted + by_text(here, standing));
    }
    if (is_true(standing, "invited")) {
        put_fact(here, "invited", "there is a token that has not been used");
    }
    const json::object& certificate = object_in(standing, "certificate");
    if (revoked.empty() && !certificate.empty()) {
        put_fact(here, "certificate", end_text(here, certificate),
                 is_true(certificate, "ends_soon") ? tint::bad : tint::none);
        put_fact(here, "key", text_cell(here, certificate, "key"));
    }
}

size_t count_waiting(const place& here) {
    size_t count = 0;
    try {
        here.with.list("/api/v1/enrolments", {{"state", "waiting"}}, 0,
                       [&](const json::object&) { count++; });
    } catch (const failure&) { /* a collector of before: it asks nothing of agents */
    }
    return count;
}
