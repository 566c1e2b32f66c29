/* Which agents are let in, and under which names.
 *
 * WHO MAY GO BY A NAME (--agents)
 *   any     whoever says so, as long as nothing is asked of agents
 *   known   names that were admitted or enrolled. A name that once proved itself by a certificate
 *           has to from then on: without one somebody else is at it
 *   proven  a certificate of the name, in every handshake
 * In all three a revoked name is refused, and a certificate that is shown is looked at: it has to
 * be good, of the name that logs in and of the session that polls, and one that was given out as
 * far as settings.db knows. One that it knows nothing of waits like a name that it does not know:
 * the file was lost, or is an older copy, and what was revoked since is forgotten.
 *
 * GENERATIONS  Each certificate of a name has a number, from 1 on. The earlier ones end when a
 * later one is first used, so a host that was set up anew under its old name leaves nobody behind
 * who has it, too, and one that never got its answer keeps what it has. Revoking ends all.
 *
 * WAITING  A name that is not let in for want of an admission stands in a list, in memory only,
 * until it is admitted or refused, or has not asked for an hour; it loses nothing meanwhile: agents
 * keep their results. The list is bounded (most_waiting, most_waiting_of_address, where the /64 of
 * an IPv6 address is one): beyond that names wait as well, unlisted. Of two keys that ask under one
 * name the first is listed for as long as it goes on asking, and `contested`: whoever admits has to
 * say which. So is one that asks under a name that somebody else has proven to be his. What is
 * refused stays off the list for an hour: the key, or the polls.
 *
 * AN ADMITTED KEY  gets its certificate with its next request, for a week. A name that was admitted
 * without a key gives none to anybody who merely asks: he could be anyone.
 *
 * Any thread; the calls of the network thread (may_*) take no file, and no lock for longer than the
 * copy of a few names. The calls that change something write settings.db first, and return false
 * with one line in `error`. */
#ifndef VINDRAL_COLLECTOR_KNOWN_AGENTS_H
#define VINDRAL_COLLECTOR_KNOWN_AGENTS_H

#include "base/agent_proof.h"
#include "ingest/waiting_agents.h"
#include "store/settings.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class agents_mode : uint8_t { any, known, proven };

/* What is said of a login, a poll or a handshake. */
enum class standing : uint8_t {
    good,
    waits,      /* not admitted yet, or the certificate is not known */
    unproven,   /* has to show a certificate */
    other_name, /* the certificate is of another name */
    revoked,    /* the name is, or the generation of the certificate */
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

    /* `now`: seconds since the epoch; called on any thread. */
    known_agents(settings& kept, agents_mode mode, std::function<int64_t()> now);
    ~known_agents();
    known_agents(const known_agents&) = delete;
    known_agents& operator=(const known_agents&) = delete;

    /* Reads what is kept when somebody else has changed it, and at first: to be called at the start
     * and every few seconds. What cannot be read stays as it was. */
    bool refresh(std::string& error);
    agents_mode mode() const;

    /* The names that the store has when agents are asked who they are for the first time: whoever
     * turns on `known` over a store of his does not cut off his agents. They are admitted, without
     * a certificate; for `proven`, where that lets nobody in, they are listed as names that have
     * none yet. To be called at each start in one of these two modes: the first call in the life of
     * settings.db decides, also when `names` is empty, and later ones do nothing. Where settings.db
     * was damaged or lost and begun anew nobody is admitted: who was revoked is forgotten. */
    bool admit_all(const std::vector<protocol::agent_identity>& names, size_t& admitted,
                   std::string& error);

    /* --- network thread --- */
    /* Of a login, and of a poll with a session of that name; `shown`: the certificate of the
     * handshake, verified. Notes a name that waits. `promoted`: a later generation is used for the
     * first time; keep_promotion() has to be called, on another thread. `address`: with a port or
     * without. */
    standing may_go_by(std::string_view account, std::string_view agent, const agent_proof* shown,
                       std::string_view address, bool& promoted);
    /* Of a certificate alone, in the handshake: good, or revoked. One that is not known passes: it
     * is for may_go_by() to have it wait. */
    standing may_show(const agent_proof& shown) const;

    /* --- other threads --- */
    bool keep_promotion(const agent_proof& shown, std::string& error);

    /* A request of a host: which generation of which name it is to get, when it is `sign`. `why`
     * has a line for the host when it is refused, for the log when it is unavailable. */
    enum class answer : uint8_t { sign, waits, refused, unavailable };
    answer enrol_by_token(const protocol::sha256& secret, const protocol::sha256& key,
                          std::string_view account, std::string_view agent,
                          protocol::agent_identity& who, uint32_t& generation, std::string& why);
    answer enrol_by_proof(const agent_proof& shown, const protocol::sha256& key,
                          protocol::agent_identity& who, uint32_t& generation, std::string& why);
    answer enrol_by_name(std::string_view account, std::string_view agent,
                         const protocol::sha256& key, std::string_view address,
                         protocol::agent_identity& who, uint32_t& generation, std::string& why);
    /* A certificate was signed. When this is false it must not be given out: it may have been
     * revoked meanwhile. */
    bool note_issued(const agent_proof& what, std::string& error);
    /* What GET /authority answered an agent that proved itself; false with an empty error when
     * nothing is known of it. Writes only what is new. */
    bool note_authorities(const protocol::agent_identity& who, const protocol::sha256& hash,
                          std::string& error);

    /* --- admins --- */
    /* `key`: only this one; with a key that waits, its next request gets a certificate. False with
     * an empty error when nothing of that name waits, or another key does. With `even_unseen` a
     * name is admitted ahead of its first poll, a key ahead of its request and whatever else waits,
     * and a name that was revoked is let in again, with certificates to come. */
    bool admit(std::string_view account, std::string_view agent,
               const std::optional<protocol::sha256>& key, bool even_unseen, const std::string& by,
               std::string& error);
    /* Takes it off the list. False with an empty error when it is not there. */
    bool refuse(std::string_view account, std::string_view agent, std::string& error);
    /* Secret of a token for that name; "" with an error. */
    std::optional<protocol::sha256> invite(std::string_view account, std::string_view agent,
                                           int64_t lasts_s, const std::string& by,
                                           std::string& error);
    /* All its certificates and its admission, and tokens that are not used; from then on the name
     * is refused. False with an empty error when nothing was decided about it, nor is it invited,
     * and it is not to be revoked `even_undecided`: as one that reported before settings.db was
     * lost. */
    bool revoke(std::string_view account, std::string_view agent, bool even_undecided,
                const std::string& by, std::string& error);

    /* By account and agent. */
    std::vector<agent_standing> all() const;
    std::optional<agent_standing> find(std::string_view account, std::string_view agent) const;

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif
