/* What people decided, beside what agents reported: the tokens with which the API is asked, which
 * agents are let in, the secrets that tests use, and a copy of the fleet in force. In a small file
 * of its own, settings.db, so that it outlives a damaged results.db, and is written also while
 * results cannot be. Several processes may have it open: the collector, and `vindral-collector
 * token` beside it; each change is one transaction, and waits for another's.
 *
 * Nothing in it is a secret in clear: of tokens the SHA-256 is kept, of 256 random bits each, which
 * nobody can guess back. The file is readable by its owner only all the same.
 *
 * All times are seconds since the epoch. */
#ifndef VINDRAL_COLLECTOR_SETTINGS_H
#define VINDRAL_COLLECTOR_SETTINGS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

enum class token_kind : uint8_t {
    token = 1,   /* of a script or a person, until it is removed */
    session = 2, /* of a browser that signed in */
    link = 3     /* signs in once */
};

using token_hash = std::array<unsigned char, 32>;

struct stored_token {
    int64_t id = 0; /* given by add_token(); never twice */
    token_kind kind = token_kind::token;
    uint8_t role = 0; /* api/request.h */
    std::string name = {};
    token_hash hash = {};
    int64_t made = 0, ends = 0; /* 0: never */
    int64_t parent = 0;         /* the token that a session was begun with; 0: by a link */
};

/* The names of accounts and agents: 1 to 254 bytes, no control characters; they need not be UTF-8.
 */
bool is_agent_name(std::string_view text);

/* An agent's name, and what it takes to go by it. */
struct stored_identity {
    std::string account, agent;
    int64_t admitted = 0;   /* since; 0: it is not */
    std::string by = {};    /* the token of who admitted, invited or revoked it last */
    uint32_t highest = 0;   /* generation of certificates that was given out; 0: none ever */
    uint32_t good_from = 0; /* older generations are refused; 0: it has never proven itself */
    int64_t revoked = 0;    /* since; 0: it is not */
    /* Of the certificate that was given out last; ends 0: none. */
    token_hash key = {}, authority = {};
    int64_t issued = 0, ends = 0;
    token_hash knows = {}; /* SHA-256 of what GET /authority answered it last, with proof */
};

/* What one enrolment token opens. */
struct stored_enrolment {
    token_hash hash = {}; /* SHA-256 of the secret in it */
    std::string account, agent;
    std::string by;
    int64_t made = 0, ends = 0;
    /* That it was used with, or, when the generation is 0, the only one that it opens for. */
    std::optional<token_hash> key = {};
    uint32_t generation = 0; /* of the certificate that it opened; 0: not used yet */
};

/* A secret of tests, sealed (base/sealing.h). */
struct stored_secret {
    std::string name, sealed, by;
    int64_t made = 0;    /* when this value was set */
    uint64_t serial = 0; /* given by put_secret(); rises with each value of any, never twice */
};

/* What of the fleet outlives a damaged results.db: the text in force, and how far revisions were
 * given. */
struct fleet_copy {
    int32_t newest = 0; /* no revision above it was ever given */
    int32_t revision = 0;
    int64_t time = 0;
    std::string author = {}, text = {}; /* with that revision */
};

/* One connection, any thread. The calls return false with one line in `error`. */
class settings {
public:
    using tell_function = std::function<void(const std::string&)>;

    virtual ~settings() = default;

    /* Null with one line in `error`. Made when it is missing. A file that is damaged is set aside
     * (settings.db.damaged-...), and a new one begun; `note` says so. What turns out to be damaged
     * later is set aside by the next call, and `tell` told, on that call's thread, without a lock.
     * Root may open what is somebody else's, who may have put anything there: what is no file, or
     * has a second name, is refused and left as it is. */
    static std::unique_ptr<settings> open(const std::string& directory, std::string& note,
                                          std::string& error, tell_function tell = nullptr);

    /* False as well, with `error` empty, when there is a token of that name. Those that ended are
     * dropped on the way. */
    virtual bool add_token(const stored_token& what, int64_t& id, std::string& error) = 0;
    /* And the sessions begun with it. False, `error` empty, when there is none. */
    virtual bool drop_token(int64_t id, std::string& error) = 0;
    virtual bool for_each_token(const std::function<void(const stored_token&)>& each,
                                std::string& error) = 0;
    /* The one with that hash that has not ended; a link is dropped with it, in the same
     * transaction, so that it opens once. */
    virtual bool find_token(const token_hash& hash, int64_t now, std::optional<stored_token>& found,
                            std::string& error) = 0;

    /* ---- identities, each name once; what nobody of ours wrote is passed over ---- */

    virtual bool for_each_identity(const std::function<void(const stored_identity&)>& each,
                                   std::string& error) = 0;
    /* In the place of what is kept of the name. */
    virtual bool put_identity(const stored_identity& what, std::string& error) = 0;
    /* False, `error` empty, when there is none. */
    virtual bool drop_identity(std::string_view account, std::string_view agent,
                               std::string& error) = 0;
    /* `change` gets what is kept of the name, or a new one, and it is written in the same
     * transaction. When `change` returns false nothing is, and neither is this true: `error` is
     * empty then. `change` must not call back. */
    virtual bool change_identity(std::string_view account, std::string_view agent,
                                 const std::function<bool(stored_identity&)>& change,
                                 std::string& error) = 0;
    /* The first call in the life of the file admits these, as far as nothing is kept of them, in
     * one transaction; every later one does nothing. A file that is begun in the place of a damaged
     * one, or of one that is gone while agents-ca.pem or its key are there, had its first call: who
     * was revoked is forgotten. */
    virtual bool admit_at_first(const std::vector<std::pair<std::string, std::string>>& names,
                                int64_t now, size_t& admitted, std::string& error) = 0;

    /* ---- enrolments ---- */

    /* Those that ended a day ago are dropped on the way. */
    virtual bool add_enrolment(const stored_enrolment& what, std::string& error) = 0;
    /* Opens it for that key: in one transaction the token is used, and its name admitted, no longer
     * revoked, with one more generation in `highest`. The second time with the same key, within its
     * time, it gives the same, and changes nothing. */
    enum class opened : uint8_t {
        yes,
        no_token, /* none of that hash */
        late,
        used,      /* with another key, or it is for another one */
        other_name /* `account` or `agent` is not empty and not the token's; nothing is used */
    };
    virtual bool open_enrolment(const token_hash& hash, const token_hash& key,
                                std::string_view account, std::string_view agent, int64_t now,
                                opened& what, stored_enrolment& found, std::string& error) = 0;
    /* All of the name that are not used yet. */
    virtual bool drop_enrolments(std::string_view account, std::string_view agent,
                                 std::string& error) = 0;
    virtual bool for_each_enrolment(const std::function<void(const stored_enrolment&)>& each,
                                    std::string& error) = 0;

    /* ---- secrets ---- */

    /* In the place of that of the name; it gets the next serial. */
    virtual bool put_secret(const stored_secret& what, std::string& error) = 0;
    /* False, `error` empty, when there is none. */
    virtual bool drop_secret(std::string_view name, std::string& error) = 0;
    virtual bool for_each_secret(const std::function<void(const stored_secret&)>& each,
                                 std::string& error) = 0;

    /* ---- the fleet ---- */

    /* In the place of what is kept; `newest` never falls. For this connection version() stays: only
     * who keeps it reads it. */
    virtual bool keep_fleet(const fleet_copy& what, std::string& error) = 0;
    /* None when none was ever kept in this file. */
    virtual bool read_fleet_copy(std::optional<fleet_copy>& found, std::string& error) = 0;

    /* Another number, never 0, after each change of anybody, this process too: whoever keeps what
     * it read asks before it reads, and keeps the number when the reading went well. Cheap. */
    virtual uint64_t version() = 0;
    bool has_changed(uint64_t& seen) { /* since the last call with the same `seen`, 0 at first */
        const uint64_t now = version();
        return std::exchange(seen, now) != now;
    }
};

#endif
