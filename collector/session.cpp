#include "session.h"

#include <openssl/rand.h>

/* Empty when the system has no random numbers. Never one of the two fixed answers: those are
 * shorter. */
static std::string random_id() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        return "";
    }
    std::string id;
    for (unsigned char byte : bytes) {
        id += "0123456789abcdef"[byte >> 4];
        id += "0123456789abcdef"[byte & 15];
    }
    return id;
}

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string agent_key(const session& s) {
    return s.account + '\0' + s.agent;
}

std::shared_ptr<session> session_table::log_in(std::string account, std::string agent, time now) {
    auto fresh = std::make_shared<session>();
    fresh->id = random_id();
    if (fresh->id.empty()) {
        return nullptr;
    }
    fresh->account = std::move(account);
    fresh->agent = std::move(agent);

    std::string key = agent_key(*fresh);
    if (auto older = by_agent_.find(key); older != by_agent_.end()) {
        end(older->second);
    }
    end_idle(now);
    if (entries_.size() >= limits_.most) {
        end(std::prev(entries_.end()));
    }
    entries_.push_front({fresh, now});
    by_id_[fresh->id] = entries_.begin();
    by_agent_[std::move(key)] = entries_.begin();
    return fresh;
}

std::shared_ptr<session> session_table::find(std::string_view id, time now) {
    auto found = by_id_.find(id);
    if (found == by_id_.end()) {
        return nullptr;
    }
    place at = found->second;
    if (now - at->used >= limits_.idle) {
        end(at);
        return nullptr;
    }
    at->used = now;
    entries_.splice(entries_.begin(), entries_, at);
    return at->held;
}

void session_table::end(place which) {
    by_id_.erase(which->held->id);
    by_agent_.erase(agent_key(*which->held));
    entries_.erase(which);
}

void session_table::end_idle(time now) {
    while (!entries_.empty() && now - entries_.back().used >= limits_.idle) {
        end(std::prev(entries_.end()));
    }
}
