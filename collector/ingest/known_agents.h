/* Which agents are let in, and under which names.
 *
 * WHO MAY GO BY A NAME (--agents)
 *   any     whoever says so, as long as nothing is asked of agents
 *   known   names that were admitted or enrolled. A name that once proved itself by a certificate
 *           has to from then on: without one somebody else is at it
 *   proven  a certificate of the name, in every handshake
 * A certificate that is shown is looked at in all three: it has to be good, and of the name that
 * logs in and of the session that polls. An earlier generation of a name's certificates ends when a
 * later one is first used, so a host that was set up anew under its old name leaves nobody behind
 * who has it, too. Revoking ends all generations.
 *
 * A name that is not let in for want of an admission waits: it stands in a list, in memory only,
 * which is bounded (most_waiting, most_waiting_of_address), until it is admitted or refused, or has
 * not asked for an hour. It loses nothing meanwhile: agents keep their results.
 *
 * Any thread; the calls of the network thread (may_*, prove) take no file and no lock for longer
 * than a copy. The calls that change something write settings.db first, and return false with one
 * line in `error`. */
#ifndef VINDRAL_COLLECTOR_KNOWN_AGENTS_H
#define VINDRAL_COLLECTOR_KNOWN_AGENTS_H

#include "base/agent_proof.h"
#include "store/settings.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class agents_mode : uint8_t { any, known, proven };

/* What is said of a login, a poll or a handshake. */
enum class standing : uint8_t {
    good,
    waits,      /* not admitted yet */
    unproven,   /* has to show a certificate */
    other_name, /* the certificate is of another name */
    revoked,    /* the name is, or the generation of the certificate */
};

/* A name that waits to be admitted. */
struct waiting_agent {
    std::string account, agent;
    std::string address;                 /* where it asked last */
    int64_t since = 0, last = 0;         /* seconds since the epoch */
    std::optional<protocol::sha256> key; /* of the request that it sent; none: it only polls */
};

/* What is known of one name, for whoever asks. */
struct agent_standing {
    stored_identity kept; /* account and agent are always set */
    std::optional<waiting_agent> waiting;
    bool invited = false; /* there is a token that is not used, nor late */
};

class known_agents {
public:
    static constexpr size_t most_waiting = 1000, most_waiting_of_address = 20;
    using log_function = std::function<void(const std::string&)>; /* on the thread of the call */

    known_agents(settings& kept, agents_mode mode, std::function<int64_t()> now);

    /* Reads what is kept; again whenever settings::version() is another, and by refresh(). */
    bool refresh(std::string& error);
    agents_mode mode() const { return mode_; }

    /* --- network thread --- */
    /* Of a login, and of a poll with a session of that name; `shown`: the certificate of the
     * handshake, verified. Notes a name that waits. `promoted`: a later generation is used for the
     * first time; keep_promotion() has to be called, on another thread. */
    standing may_go_by(std::string_view account, std::string_view agent, const agent_proof* shown,
                       std::string_view address, bool& promoted);
    /* Of a certificate alone, in the handshake. */
    standing may_show(const agent_proof& shown) const;

    /* --- other threads --- */
    bool keep_promotion(const agent_proof& shown, std::string& error);

    /* A request of a host: which generation of which name it is to get. */
    enum class answer : uint8_t { sign, waits, refused, unavailable };
    answer enrol_by_token(const protocol::sha256& secret, const protocol::sha256& key,
                          std::string_view account, std::string_view agent,
                          protocol::agent_identity& who, uint32_t& generation, std::string& why);
    answer enrol_by_proof(const agent_proof& shown, const protocol::sha256& key,
                          protocol::agent_identity& who, uint32_t& generation, std::string& why);
    answer enrol_by_name(std::string_view account, std::string_view agent,
                         const protocol::sha256& key, std::string_view address,
                         protocol::agent_identity& who, uint32_t& generation, std::string& why);
    /* A certificate was given out. */
    bool note_issued(const agent_proof& what, std::string& error);
    /* What GET /authority answered an agent that proved itself. */
    bool note_authorities(const protocol::agent_identity& who, const protocol::sha256& hash,
                          std::string& error);

    /* --- admins --- */
    /* `key`: only this one; with a key that waits, its next request gets a certificate. False with
     * an empty error when nothing of that name waits (a name may be admitted ahead of its first
     * poll with `even_unseen`), or another key does. */
    bool admit(std::string_view account, std::string_view agent,
               const std::optional<protocol::sha256>& key, bool even_unseen, const std::string& by,
               std::string& error);
    /* Takes it off the list. */
    bool refuse(std::string_view account, std::string_view agent, std::string& error);
    /* Secret of a token for that name; "" with an error. */
    std::optional<protocol::sha256> invite(std::string_view account, std::string_view agent,
                                           int64_t lasts_s, const std::string& by,
                                           std::string& error);
    /* All its certificates and its admission, and tokens that are not used. False with an empty
     * error when the name is not known. */
    bool revoke(std::string_view account, std::string_view agent, const std::string& by,
                std::string& error);

    /* By account and agent. */
    std::vector<agent_standing> all() const;
    std::optional<agent_standing> find(std::string_view account, std::string_view agent) const;

private:
    struct state;
    std::shared_ptr<state> state_;
    agents_mode mode_;
};

#endif
