#include "ingest/session.h"

#include "base/files.h"

#include <charconv>
#include <openssl/rand.h>
#include <openssl/sha.h>

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string name_key(const std::string& account, const std::string& agent) {
    return account + '\0' + agent;
}

/* The same in every run of every collector. */
static uint32_t tag_of(const std::string& key) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest);
    return uint32_t{digest[0]} << 24 | uint32_t{digest[1]} << 16 | uint32_t{digest[2]} << 8 |
           digest[3];
}

static constexpr size_t id_length = 32, tag_length = 8; /* hexadecimal digits; the tag is last */

/* Empty when the system has no random numbers. Never one of the two fixed answers: those are
 * shorter. */
static std::string make_id(uint32_t tag) {
    unsigned char bytes[id_length / 2];
    const size_t random = sizeof bytes - tag_length / 2;
    if (RAND_bytes(bytes, random) != 1) {
        return "";
    }
    for (size_t i = random; i < sizeof bytes; ++i) {
        bytes[i] = static_cast<unsigned char>(tag >> 8 * (sizeof bytes - 1 - i));
    }
    return hex({reinterpret_cast<const char*>(bytes), sizeof bytes});
}

static std::optional<uint32_t> tag_in(std::string_view id) {
    uint32_t tag = 0;
    if (id.size() != id_length) {
        return {};
    }
    auto [end, failed] =
        std::from_chars(id.data() + id_length - tag_length, id.data() + id_length, tag, 16);
    return failed == std::errc() && end == id.data() + id_length ? std::optional(tag)
                                                                 : std::nullopt;
}

bool session_table::silent(const session& s, time used, time now) const {
    return now - used > limits_.silent_waits * s.longest_wait + limits_.exchange;
}

/* Ends what is silent, a conflict when its other host is. False when nothing is left of the name.
 */
bool session_table::settle(names::iterator which, time now) {
    name& n = which->second;
    if (n.younger && silent(*(*n.younger)->held, (*n.younger)->used, now)) {
        end(*n.younger);
    }
    if (silent(*n.older->held, n.older->used, now)) {
        bool more = n.younger.has_value();
        end(n.older);
        if (!more) {
            return false;
        }
    }
    n.contested = n.contested && !silent(*n.older->held, n.seen, now);
    return true;
}

void session_table::report(name& n, bool first, time now, name_conflict* conflict) {
    bool tell = first || now - n.told >= std::chrono::hours(1);
    if (tell) {
        n.told = now;
    }
    if (conflict) {
        const session& s = *n.polling()->held;
        *conflict = {.found = true,
                     .tell = tell,
                     .account = s.account,
                     .agent = s.agent,
                     .kept = s.address,
                     .refused = n.address};
    }
}

std::shared_ptr<session> session_table::log_in(std::string account, std::string agent, time now,
                                               std::string_view address, name_conflict* conflict) {
    std::string key = name_key(account, agent);
    end_idle(now);
    auto known = by_name_.find(key);
    if (known != by_name_.end() && !settle(known, now)) {
        known = by_name_.end();
    }
    if (known != by_name_.end() && known->second.contested) {
        name& n = known->second;
        bool restarted = address == n.polling()->held->address && address != n.address;
        if (!restarted) {
            n.address = address;
            n.seen = now;
            report(n, false, now, conflict);
            return nullptr;
        }
    }

    auto fresh = std::make_shared<session>();
    uint32_t tag = tag_of(key);
    fresh->id = make_id(tag);
    if (fresh->id.empty()) {
        return nullptr;
    }
    fresh->account = std::move(account);
    fresh->agent = std::move(agent);
    fresh->address = address;
    auto left = left_.find(tag);
    fresh->running = left != left_.end() && now - left->second < limits_.idle;

    if (known != by_name_.end()) {
        std::optional<place> younger = known->second.younger;
        int uses = known->second.older_uses;
        if (younger) {
            end(*younger);
            known->second.older_uses = uses;
        }
    }
    if (entries_.size() >= limits_.most) {
        end(known != by_name_.end() ? known->second.older : std::prev(entries_.end()));
    }
    entries_.push_front({fresh, now});
    by_id_[fresh->id] = entries_.begin();
    auto [named, first] = by_name_.try_emplace(std::move(key));
    if (first) {
        named->second.older = entries_.begin();
    } else {
        named->second.younger = entries_.begin();
    }
    return fresh;
}

std::shared_ptr<session> session_table::find(std::string_view id, time now,
                                             std::string_view address, name_conflict* conflict) {
    auto found = by_id_.find(id);
    if (found == by_id_.end()) {
        return nullptr;
    }
    place at = found->second;
    if (now - at->used >= limits_.idle) {
        end(at);
        return nullptr;
    }
    std::shared_ptr<session> s = at->held;
    at->used = now;
    entries_.splice(entries_.begin(), entries_, at);
    s->address = address;
    if (s->polls++ == 0) {
        left_.erase(tag_of(name_key(s->account, s->agent)));
    }
    auto named = by_name_.find(name_key(s->account, s->agent));
    settle(named, now); /* leaves this one */
    name& n = named->second;
    if (n.younger && n.older == at && ++n.older_uses == 2) {
        n.address = (*n.younger)->held->address;
        n.seen = (*n.younger)->used;
        bool first = !n.contested;
        n.contested = true;
        end(*n.younger);
        report(n, first, now, conflict);
    }
    return s;
}

std::shared_ptr<session> session_table::polling(const std::string& account,
                                                const std::string& agent, time now) const {
    auto named = by_name_.find(name_key(account, agent));
    if (named == by_name_.end()) {
        return nullptr;
    }
    const entry& latest = *named->second.polling();
    return !silent(*latest.held, latest.used, now) ? latest.held : nullptr;
}

bool session_table::end_all(const std::string& account, const std::string& agent) {
    auto named = by_name_.find(name_key(account, agent));
    if (named == by_name_.end()) {
        return false;
    }
    if (std::optional<place> younger = named->second.younger) {
        end(*younger);
    }
    end(named->second.older); /* and the name */
    return true;
}

void session_table::sent_away(std::string_view id, time now) {
    std::optional<uint32_t> tag = tag_in(id);
    if (!tag) {
        return;
    }
    if (left_in_order_.size() >= limits_.most) {
        auto [oldest, when] = left_in_order_.front();
        auto there = left_.find(oldest);
        if (there != left_.end() && there->second == when) {
            left_.erase(there);
        }
        left_in_order_.pop_front();
    }
    left_[*tag] = now;
    left_in_order_.emplace_back(*tag, now);
}

void session_table::end(place which) {
    auto named = by_name_.find(name_key(which->held->account, which->held->agent));
    name& n = named->second;
    if (n.younger == which) {
        n.younger.reset();
    } else if (n.younger) {
        n.older = *n.younger;
        n.younger.reset();
    } else {
        by_name_.erase(named);
        named = by_name_.end();
    }
    if (named != by_name_.end()) {
        n.older_uses = 0;
    }
    by_id_.erase(which->held->id);
    entries_.erase(which);
}

void session_table::end_idle(time now) {
    while (!entries_.empty() && now - entries_.back().used >= limits_.idle) {
        end(std::prev(entries_.end()));
    }
}
