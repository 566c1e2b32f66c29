#include "ingest/waiting_agents.h"

#include "store/settings.h"

#include <charconv>

namespace {

constexpr int64_t waits_s = 3600, refused_s = 3600, sweep_s = 60;
constexpr int64_t silent_key_s = 60; /* then another key may take its place */
constexpr int64_t contested_s = 10 * 60;
constexpr size_t most_refused = 1000;

/* The four groups in front of an IPv6 address, in the form in which the system writes addresses. */
std::string first_half_of(std::string_view address) {
    uint16_t groups[8] = {};
    size_t count = 0, behind_gap = 8; /* of the groups that are there, the first behind "::" */
    const char *at = address.data(), *end = at + address.size();
    while (at != end && count < 8) {
        if (*at == ':') {
            at++;
            if (at != end && *at == ':') {
                behind_gap = count;
            }
            continue;
        }
        auto [rest, failed] = std::from_chars(at, end, groups[count], 16);
        if (failed != std::errc()) {
            return std::string(address);
        }
        at = rest;
        count++;
    }
    std::string half;
    for (size_t i = 0; i < 4; i++) {
        size_t from = i < behind_gap ? i : i < behind_gap + 8 - count ? 8 : i - (8 - count);
        half += std::to_string(from < count ? groups[from] : 0) + ':';
    }
    return half;
}

/* What counts as one address: an IPv4 address, or the /64 of an IPv6 one. */
std::string counted(std::string_view address) {
    if (address.starts_with('[')) {
        address = address.substr(1, address.find(']') - 1);
    } else if (address.find(':') == address.rfind(':')) {
        address = address.substr(0, address.find(':'));
    }
    bool is_v4 = address.find(':') == std::string_view::npos ||
                 address.find('.') != std::string_view::npos; /* as IPv6 has it */
    return is_v4 ? std::string(address) : first_half_of(address);
}

} // namespace

waiting_agents::entries::iterator waiting_agents::drop(entries::iterator at) {
    auto count = of_address_.find(at->second.counted_at);
    if (count != of_address_.end() && --count->second == 0) {
        of_address_.erase(count);
    }
    return entries_.erase(at);
}

void waiting_agents::sweep(int64_t now) {
    if (now - swept_ < sweep_s && now >= swept_) {
        return;
    }
    swept_ = now;
    for (auto at = entries_.begin(); at != entries_.end();) {
        at = now - at->second.shown.last >= waits_s ? drop(at) : std::next(at);
    }
    std::erase_if(refused_, [&](const auto& each) { return each.second.until <= now; });
}

bool waiting_agents::is_refused(const name_view& name, const protocol::sha256* key,
                                int64_t now) const {
    auto [at, end] = refused_.equal_range(name);
    for (; at != end; ++at) {
        const refusal& each = at->second;
        if (each.until > now && (key == nullptr || (each.key && *each.key == *key))) {
            return true;
        }
    }
    return false;
}

bool waiting_agents::is_refused(const name_view& name, const protocol::sha256& key,
                                int64_t now) const {
    return is_refused(name, &key, now);
}

void waiting_agents::note(const name_view& name, const protocol::sha256* key,
                          const agent_proof* certificate, std::string_view address, int64_t now) {
    sweep(now);
    if (!is_agent_name(name.account) || !is_agent_name(name.agent) || is_refused(name, key, now)) {
        return;
    }
    auto at = entries_.find(name);
    if (at == entries_.end()) {
        std::string one = counted(address);
        if (entries_.size() >= most_) {
            return;
        }
        size_t& count = of_address_[one];
        if (count >= most_of_address_) {
            return;
        }
        count++;
        entry fresh;
        fresh.shown.account = name.account;
        fresh.shown.agent = name.agent;
        fresh.shown.since = now;
        fresh.counted_at = std::move(one);
        at = entries_
                 .emplace(protocol::agent_identity{fresh.shown.account, fresh.shown.agent}, fresh)
                 .first;
    }
    entry& of = at->second;
    of.shown.last = now;
    const bool has_key = of.shown.key && now - of.key_last < waits_s;
    if (key == nullptr) {
        if (!has_key) {
            of.shown.address = address;
        }
        return;
    }
    if (has_key && *of.shown.key != *key) {
        if (now - of.key_last < silent_key_s) {
            of.other_last = now;
            return;
        }
        of.other_last = of.key_last;
    }
    if (!has_key || *of.shown.key != *key) {
        of.certificate.reset();
    }
    of.shown.key = *key;
    of.shown.address = address;
    of.key_last = now;
    if (certificate != nullptr) {
        of.certificate = *certificate;
    }
}

void waiting_agents::note_poll(const name_view& name, std::string_view address, int64_t now) {
    note(name, nullptr, nullptr, address, now);
}

void waiting_agents::note_request(const name_view& name, const protocol::sha256& key,
                                  std::string_view address, int64_t now) {
    note(name, &key, nullptr, address, now);
}

void waiting_agents::note_certificate(const agent_proof& shown, std::string_view address,
                                      int64_t now) {
    note({shown.who.account, shown.who.agent}, &shown.key, &shown, address, now);
}

waiting_agent waiting_agents::as_shown(const entry& from, int64_t now) {
    waiting_agent shown = from.shown;
    if (now - from.key_last >= waits_s) {
        shown.key.reset();
    }
    shown.contested = from.other_last != 0 && now - from.other_last < contested_s;
    return shown;
}

std::optional<waiting_agent> waiting_agents::find(const name_view& name, int64_t now,
                                                  std::optional<agent_proof>* shown) const {
    auto at = entries_.find(name);
    if (at == entries_.end() || now - at->second.shown.last >= waits_s) {
        return std::nullopt;
    }
    waiting_agent found = as_shown(at->second, now);
    if (shown != nullptr && found.key) {
        *shown = at->second.certificate;
    }
    return found;
}

std::vector<waiting_agent> waiting_agents::all(int64_t now) const {
    std::vector<waiting_agent> list;
    for (const auto& [name, each] : entries_) {
        if (now - each.shown.last < waits_s) {
            list.push_back(as_shown(each, now));
        }
    }
    return list;
}

bool waiting_agents::refuse(const name_view& name, int64_t now) {
    std::optional<waiting_agent> waits = find(name, now);
    if (!waits) {
        return false;
    }
    drop(entries_.find(name));
    if (refused_.size() >= most_refused) {
        refused_.erase(refused_.begin());
    }
    refused_.emplace(protocol::agent_identity{waits->account, waits->agent},
                     refusal{waits->key, now + refused_s});
    return true;
}

void waiting_agents::forget(const name_view& name) {
    auto at = entries_.find(name);
    if (at != entries_.end()) {
        drop(at);
    }
    auto [from, to] = refused_.equal_range(name);
    refused_.erase(from, to);
}

void waiting_agents::settle(const name_view& name, const protocol::sha256& key) {
    auto at = entries_.find(name);
    if (at != entries_.end() && at->second.shown.key.value_or(key) == key) {
        drop(at);
    }
}
