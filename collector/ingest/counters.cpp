#include "ingest/counters.h"

const char* refusal_word(refusal r) {
    switch (r) {
    case refusal::connections:
        return "connections";
    case refusal::address:
        return "address";
    case refusal::memory:
        return "memory";
    case refusal::tls:
        return "tls";
    case refusal::request:
        return "request";
    case refusal::account:
        return "account";
    case refusal::unknown:
        return "unknown";
    case refusal::unproven:
        return "unproven";
    case refusal::identity:
        return "identity";
    case refusal::enrolment:
        return "enrolment";
    case refusal::name:
        return "name";
    case refusal::session:
        return "session";
    case refusal::body:
        return "body";
    case refusal::storing:
        return "storing";
    case refusal::behind:
        return "behind";
    case refusal::logins:
        return "logins";
    case refusal::count:
        break;
    }
    return "";
}

void duration_counter::add(double seconds) {
    for (size_t i = 0; i < bounds.size(); i++) {
        if (seconds <= bounds[i]) {
            ++counts_[i];
        }
    }
    ++all_;
    sum_us_ += seconds > 0 ? static_cast<uint64_t>(seconds * 1e6) : 0;
}
