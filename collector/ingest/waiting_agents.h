/* Names that wait to be admitted: known_agents.h says which, for how long, and what of two keys
 * under one name. In memory, bounded, no lock of its own. Times are seconds since the epoch. */
#ifndef VINDRAL_COLLECTOR_WAITING_AGENTS_H
#define VINDRAL_COLLECTOR_WAITING_AGENTS_H

#include "base/agent_proof.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

/* A name that waits to be admitted. */
struct waiting_agent {
    std::string account, agent;
    std::string address;         /* where it, or its key, asked last */
    int64_t since = 0, last = 0; /* seconds since the epoch */
    /* Of its request, or of the certificate that is not known; none: it only polls. */
    std::optional<protocol::sha256> key;
    /* Within ten minutes another key has asked under this name; or one is at work under it. */
    bool contested = false;
};

/* A name as it comes, and the order of names: by account, then by agent. */
struct name_view {
    std::string_view account, agent;
    name_view(std::string_view of_account, std::string_view of_agent)
        : account(of_account), agent(of_agent) {}
    name_view(const protocol::agent_identity& name) : account(name.account), agent(name.agent) {}
};
struct by_name {
    using is_transparent = void;
    bool operator()(const name_view& a, const name_view& b) const {
        return std::tie(a.account, a.agent) < std::tie(b.account, b.agent);
    }
};

class waiting_agents {
public:
    waiting_agents(size_t most, size_t most_of_address)
        : most_(most), most_of_address_(most_of_address) {}

    /* It asked: by a poll, with a key to be certified, with a certificate that is not known. */
    void note_poll(const name_view& name, std::string_view address, int64_t now);
    void note_request(const name_view& name, const protocol::sha256& key, std::string_view address,
                      int64_t now);
    void note_certificate(const agent_proof& shown, std::string_view address, int64_t now);

    /* `shown`: what it showed, if its key is one of a certificate. */
    std::optional<waiting_agent> find(const name_view& name, int64_t now,
                                      std::optional<agent_proof>* shown = nullptr) const;
    std::vector<waiting_agent> all(int64_t now) const;

    /* False when it does not wait. Both kinds of what is refused are forgotten after an hour. */
    bool refuse(const name_view& name, int64_t now);
    bool is_refused(const name_view& name, const protocol::sha256& key, int64_t now) const;

    /* It is admitted or revoked: it neither waits nor is refused. */
    void forget(const name_view& name);
    /* It has a certificate for that key; another key goes on waiting. */
    void settle(const name_view& name, const protocol::sha256& key);

private:
    struct entry {
        waiting_agent shown;
        std::optional<agent_proof> certificate = {};
        std::string counted_at = {};          /* what is one address */
        int64_t key_last = 0, other_last = 0; /* when its key asked, and another one did */
    };
    using entries = std::map<protocol::agent_identity, entry, by_name>;
    struct refusal {
        std::optional<protocol::sha256> key;
        int64_t until = 0;
    };

    void note(const name_view& name, const protocol::sha256* key, const agent_proof* certificate,
              std::string_view address, int64_t now);
    bool is_refused(const name_view& name, const protocol::sha256* key, int64_t now) const;
    void sweep(int64_t now);
    entries::iterator drop(entries::iterator at);
    static waiting_agent as_shown(const entry& from, int64_t now);

    const size_t most_, most_of_address_;
    entries entries_;
    std::unordered_map<std::string, size_t> of_address_;
    std::multimap<protocol::agent_identity, refusal, by_name> refused_;
    int64_t swept_ = 0;
};

#endif
