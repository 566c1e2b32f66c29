#include "ingest/known_agents.h"

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <set>
#include <utility>

namespace {

using identity = protocol::agent_identity;

constexpr int64_t admitted_key_lasts_s = 7 * 24 * 60 * 60;
constexpr int64_t promote_again_s = 60;
constexpr size_t names_at_once = 256; /* that are copied while the network thread may wait */
constexpr uint32_t last_generation = std::numeric_limits<uint32_t>::max();

constexpr char later_in_use[] = "a later certificate is in use";
constexpr char gone_meanwhile[] = "revoked meanwhile, or a later certificate is in use";
constexpr char no_name[] = "an account or agent has 1 to 254 bytes and no control characters";

protocol::sha256 hash_of(const protocol::sha256& secret) {
    protocol::sha256 hash;
    SHA256(secret.data(), secret.size(), hash.data());
    return hash;
}

identity name_of(const stored_identity& kept) {
    return {kept.account, kept.agent};
}

/* Nothing was decided about a name that a transaction finds like this. */
bool is_new(const stored_identity& kept) {
    return kept.admitted == 0 && kept.revoked == 0 && kept.highest == 0;
}

/* Whether a certificate of that generation was given out, as far as anybody knows. */
bool is_known(const stored_identity& kept, uint32_t generation) {
    return kept.admitted != 0 && generation != 0 && generation <= kept.highest;
}

/* Somebody works under this name, and it is not the one who asks, who may be anybody: whoever is
 * admitted gets the later certificate, which ends the other's. */
bool is_taken(const stored_identity& kept, const waiting_agent& asks) {
    return kept.good_from != 0 && kept.revoked == 0 && asks.key && *asks.key != kept.key;
}

} // namespace

struct known_agents::state {
    struct entry {
        stored_identity kept;
        /* Ahead of the file, until keep_promotion() has written it; 0: it is not. */
        uint32_t promoted_to = 0;
        int64_t promoted = 0;
        /* What the last renewal got: its answer may be lost. */
        protocol::sha256 renewed_key = {};
        uint32_t renewed_with = 0, renewed_to = 0;
    };
    using entries = std::map<identity, entry, by_name>;

    /* What is kept, as one reading or one change has it; seen by the calls of the network thread
     * from then on. */
    settings& kept;
    const agents_mode mode;
    const std::function<int64_t()> now;

    std::mutex writing; /* one reads or changes settings.db; before `mutex` */
    uint64_t seen = 0;  /* version of the settings that is in memory; of `writing` */

    mutable std::mutex mutex; /* of what follows */
    entries known = {};
    std::vector<identity> promoting = {};              /* those with promoted_to */
    std::map<identity, int64_t, by_name> invited = {}; /* when their last open token ends */
    std::set<protocol::sha256> admitted_keys = {};     /* that have no certificate yet */
    waiting_agents waiting = {most_waiting, most_waiting_of_address};

    state(settings& k, agents_mode m, std::function<int64_t()> n)
        : kept(k), mode(m), now(std::move(n)) {}

    /* One change by this process: what it changes is put into memory, and need not be read, unless
     * somebody else changed something as well. */
    class own_change {
    public:
        explicit own_change(state& of) : of_(of), before_(of.kept.version()) {}
        void is_made() {
            if (of_.seen == before_ && of_.kept.version() == before_ + 1) {
                of_.seen = before_ + 1;
            }
        }

    private:
        state& of_;
        const uint64_t before_;
    };

    bool refresh(std::string& error);
    bool change(const identity& who, const std::function<bool(stored_identity&)>& change,
                std::string& error);
    void remember(const stored_identity& what);
    void remember_promotion(entry& of);
    answer opened(const protocol::sha256& hash, const protocol::sha256& key,
                  std::string_view account, std::string_view agent, settings::opened& how,
                  identity& who, uint32_t& generation, std::string& why);
};

/* The file has not heard of it yet. */
void known_agents::state::remember_promotion(entry& of) {
    if (of.kept.revoked == 0 && of.kept.good_from < of.promoted_to) {
        of.kept.good_from = of.promoted_to;
    } else if (of.promoted_to != 0) {
        of.promoted_to = 0;
        std::erase(promoting, name_of(of.kept));
    }
}

bool known_agents::state::refresh(std::string& error) {
    const uint64_t version = kept.version();
    if (version == seen) {
        return true;
    }
    entries fresh;
    std::map<identity, int64_t, by_name> tokens;
    std::set<protocol::sha256> keys;
    auto add_name = [&](const stored_identity& what) {
        fresh.emplace_hint(fresh.end(), name_of(what), entry{.kept = what});
    };
    auto add_token = [&](const stored_enrolment& what) {
        if (what.key == what.hash) {
            keys.insert(what.hash);
        } else if (!what.key) {
            int64_t& ends = tokens[{what.account, what.agent}];
            ends = std::max(ends, what.ends);
        }
    };
    if (!kept.for_each_identity(add_name, error) || !kept.for_each_enrolment(add_token, error)) {
        return false;
    }
    seen = version;
    std::lock_guard<std::mutex> guard(mutex);
    for (const identity& name : std::vector<identity>(promoting)) {
        auto before = known.find(name), after = fresh.find(name);
        if (before == known.end() || after == fresh.end()) {
            std::erase(promoting, name);
        } else {
            after->second.promoted_to = before->second.promoted_to;
            after->second.promoted = before->second.promoted;
            remember_promotion(after->second);
        }
    }
    known.swap(fresh);
    invited.swap(tokens);
    admitted_keys.swap(keys);
    return true; /* what was known before is freed behind the lock */
}

void known_agents::state::remember(const stored_identity& what) {
    std::lock_guard<std::mutex> guard(mutex);
    entry& of = known[name_of(what)];
    of.kept = what;
    remember_promotion(of);
}

/* In the file, then in memory. False with an empty error when `change` would have none of it; what
 * it found is in memory then, unless there was nothing. */
bool known_agents::state::change(const identity& who,
                                 const std::function<bool(stored_identity&)>& change,
                                 std::string& error) {
    own_change mine(*this);
    stored_identity what;
    auto keep = [&](stored_identity& found) {
        what = found;
        bool wanted = change(found);
        if (wanted) {
            what = found;
        }
        return wanted;
    };
    bool changed = kept.change_identity(who.account, who.agent, keep, error);
    if (changed || (error.empty() && !is_new(what))) {
        remember(what);
    }
    if (changed) {
        mine.is_made();
    }
    return changed;
}

known_agents::known_agents(settings& kept, agents_mode mode, std::function<int64_t()> now)
    : state_(std::make_unique<state>(kept, mode, std::move(now))) {}

known_agents::~known_agents() = default;

agents_mode known_agents::mode() const {
    return state_->mode;
}

bool known_agents::refresh(std::string& error) {
    std::lock_guard<std::mutex> one(state_->writing);
    return state_->refresh(error);
}

bool known_agents::admit_all(const std::vector<identity>& names, size_t& admitted,
                             std::string& error) {
    std::lock_guard<std::mutex> one(state_->writing);
    std::vector<std::pair<std::string, std::string>> pairs;
    pairs.reserve(names.size());
    for (const identity& name : names) {
        pairs.emplace_back(name.account, name.agent);
    }
    return state_->kept.admit_at_first(pairs, state_->now(), admitted, error) &&
           state_->refresh(error);
}

/* ---- network thread ---- */

standing known_agents::may_go_by(std::string_view account, std::string_view agent,
                                 const agent_proof* shown, std::string_view address,
                                 bool& promoted) {
    state& s = *state_;
    promoted = false;
    if (shown != nullptr && (shown->who.account != account || shown->who.agent != agent)) {
        return standing::other_name;
    }
    std::lock_guard<std::mutex> guard(s.mutex);
    auto at = s.known.find(name_view{account, agent});
    if (at != s.known.end() && at->second.kept.revoked != 0) {
        return standing::revoked;
    }
    const bool admitted = at != s.known.end() && at->second.kept.admitted != 0;
    if (shown == nullptr) {
        if (s.mode == agents_mode::any) {
            return standing::good;
        }
        if (!admitted) {
            s.waiting.note_poll({account, agent}, address, s.now());
            return standing::waits;
        }
        return s.mode == agents_mode::proven || at->second.kept.good_from != 0 ? standing::unproven
                                                                               : standing::good;
    }
    if (!admitted || !is_known(at->second.kept, shown->generation)) {
        s.waiting.note_certificate(*shown, address, s.now());
        return standing::waits;
    }
    state::entry& of = at->second;
    if (shown->generation < of.kept.good_from) {
        return standing::revoked;
    }
    if (shown->generation > of.kept.good_from) {
        if (of.promoted_to == 0) {
            s.promoting.push_back(at->first);
        }
        of.kept.good_from = of.promoted_to = shown->generation;
        of.promoted = s.now();
        promoted = true;
    } else if (of.promoted_to != 0 && s.now() - of.promoted >= promote_again_s) {
        of.promoted = s.now(); /* it could not be kept */
        promoted = true;
    }
    return standing::good;
}

standing known_agents::may_show(const agent_proof& shown) const {
    const state& s = *state_;
    std::lock_guard<std::mutex> guard(s.mutex);
    auto at = s.known.find(name_view{shown.who.account, shown.who.agent});
    if (at == s.known.end()) {
        return standing::good;
    }
    const stored_identity& kept = at->second.kept;
    return kept.revoked != 0 || shown.generation < kept.good_from ? standing::revoked
                                                                  : standing::good;
}

/* ---- hosts ---- */

bool known_agents::keep_promotion(const agent_proof& shown, std::string& error) {
    std::lock_guard<std::mutex> one(state_->writing);
    auto keep = [&](stored_identity& kept) {
        if (kept.revoked != 0 || !is_known(kept, shown.generation) ||
            shown.generation <= kept.good_from) {
            return false;
        }
        kept.good_from = shown.generation;
        return true;
    };
    return state_->change(shown.who, keep, error) || error.empty();
}

/* By a token, or by a key that was admitted: the file decides. */
known_agents::answer known_agents::state::opened(const protocol::sha256& hash,
                                                 const protocol::sha256& key,
                                                 std::string_view account, std::string_view agent,
                                                 settings::opened& how, identity& who,
                                                 uint32_t& generation, std::string& why) {
    stored_enrolment found;
    if (!kept.open_enrolment(hash, key, account, agent, now(), how, found, why)) {
        return answer::unavailable;
    }
    if (how != settings::opened::yes) {
        return answer::refused;
    }
    who = {found.account, found.agent};
    generation = found.generation;
    bool good = false;
    auto look = [&](stored_identity& of) {
        good = of.revoked == 0 && is_known(of, generation) && generation >= of.good_from;
        return false;
    };
    if (!change(who, look, why) && !why.empty()) {
        return answer::unavailable;
    }
    if (!good) {
        why = gone_meanwhile;
        return answer::refused;
    }
    std::lock_guard<std::mutex> guard(mutex);
    waiting.settle({who.account, who.agent}, key);
    return answer::sign;
}

known_agents::answer known_agents::enrol_by_token(const protocol::sha256& secret,
                                                  const protocol::sha256& key,
                                                  std::string_view account, std::string_view agent,
                                                  identity& who, uint32_t& generation,
                                                  std::string& why) {
    std::lock_guard<std::mutex> one(state_->writing);
    settings::opened how = settings::opened::no_token;
    why.clear();
    answer given = state_->opened(hash_of(secret), key, account, agent, how, who, generation, why);
    if (given == answer::refused && why.empty()) {
        why = how == settings::opened::late   ? "this token has ended"
              : how == settings::opened::used ? "this token was used already, with another key"
              : how == settings::opened::other_name ? "this token is for another name"
                                                    : "this token is not known";
    }
    return given;
}

known_agents::answer known_agents::enrol_by_proof(const agent_proof& shown,
                                                  const protocol::sha256& key, identity& who,
                                                  uint32_t& generation, std::string& why) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    why.clear();
    who = shown.who;
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        auto at = s.known.find(who);
        const state::entry* of = at != s.known.end() ? &at->second : nullptr;
        if (of != nullptr && shown.generation < of->kept.good_from && of->kept.revoked == 0) {
            why = later_in_use; /* though the file may not know yet */
            return answer::refused;
        }
        if (of != nullptr && of->kept.revoked == 0 && of->renewed_to != 0 &&
            of->renewed_to == of->kept.highest && of->renewed_with == shown.generation &&
            of->renewed_key == key) {
            generation = of->renewed_to;
            return answer::sign;
        }
    }
    std::string refused, error;
    auto renew = [&](stored_identity& kept) {
        refused = kept.revoked != 0                   ? "this agent is revoked"
                  : shown.generation < kept.good_from ? later_in_use
                  : !is_known(kept, shown.generation) ? "this certificate is not known here"
                  : kept.highest == last_generation   ? "no more certificates can be made"
                                                      : "";
        if (!refused.empty()) {
            return false;
        }
        kept.good_from = std::max(kept.good_from, shown.generation);
        generation = ++kept.highest;
        return true;
    };
    if (!s.change(who, renew, error)) {
        why = refused.empty() ? error : refused;
        return refused.empty() ? answer::unavailable : answer::refused;
    }
    std::lock_guard<std::mutex> guard(s.mutex);
    state::entry& of = s.known[who];
    of.renewed_key = key;
    of.renewed_with = shown.generation;
    of.renewed_to = generation;
    return answer::sign;
}

known_agents::answer known_agents::enrol_by_name(std::string_view account, std::string_view agent,
                                                 const protocol::sha256& key,
                                                 std::string_view address, identity& who,
                                                 uint32_t& generation, std::string& why) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    why.clear();
    if (!is_agent_name(account) || !is_agent_name(agent)) {
        why = no_name;
        return answer::refused;
    }
    bool admitted = false;
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        auto at = s.known.find(name_view{account, agent});
        if (at != s.known.end() && at->second.kept.revoked != 0) {
            why = "this agent is revoked";
            return answer::refused;
        }
        admitted = s.admitted_keys.contains(key);
        if (!admitted && s.waiting.is_refused({account, agent}, key, s.now())) {
            why = "this host was refused";
            return answer::refused;
        }
    }
    if (admitted) {
        settings::opened how = settings::opened::no_token;
        answer given = s.opened(key, key, account, agent, how, who, generation, why);
        if (given != answer::refused || !why.empty()) {
            return given;
        }
    }
    std::lock_guard<std::mutex> guard(s.mutex);
    s.waiting.note_request({account, agent}, key, address, s.now());
    return answer::waits;
}

bool known_agents::note_issued(const agent_proof& what, std::string& error) {
    std::lock_guard<std::mutex> one(state_->writing);
    auto note = [&](stored_identity& kept) {
        if (kept.revoked != 0 || !is_known(kept, what.generation) ||
            what.generation < kept.good_from) {
            return false;
        }
        kept.key = what.key;
        kept.authority = what.authority;
        kept.issued = state_->now();
        kept.ends = what.ends;
        return true;
    };
    bool noted = state_->change(what.who, note, error);
    if (!noted && error.empty()) {
        error = gone_meanwhile;
    }
    return noted;
}

bool known_agents::note_authorities(const identity& who, const protocol::sha256& hash,
                                    std::string& error) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    error.clear();
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        auto at = s.known.find(who);
        if (at == s.known.end()) {
            return false;
        }
        if (at->second.kept.knows == hash) {
            return true;
        }
    }
    auto note = [&](stored_identity& kept) {
        kept.knows = hash;
        return !is_new(kept);
    };
    return s.change(who, note, error);
}

/* ---- admins ---- */

bool known_agents::admit(std::string_view account, std::string_view agent,
                         const std::optional<protocol::sha256>& key, bool even_unseen,
                         const std::string& by, std::string& error) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    error.clear();
    if (!is_agent_name(account) || !is_agent_name(agent)) {
        error = no_name;
        return false;
    }
    const identity who{std::string(account), std::string(agent)};
    std::optional<waiting_agent> waits;
    std::optional<agent_proof> shown;
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        waits = s.waiting.find(who, s.now(), &shown);
        auto at = s.known.find(who);
        if (waits && at != s.known.end()) {
            waits->contested |= is_taken(at->second.kept, *waits);
        }
    }
    const std::optional<protocol::sha256> asked = waits ? waits->key : std::nullopt;
    if (!even_unseen && (!waits || (key && asked != key))) {
        return false;
    }
    if (!key && waits && waits->contested) {
        error = "another host asks under this name, with another key: say which one to admit";
        return false;
    }
    const std::optional<protocol::sha256> chosen = key ? key : asked;
    if (shown && shown->key != chosen) {
        shown.reset();
    }
    const int64_t now = s.now();
    auto let_in = [&](stored_identity& kept) {
        kept.admitted = kept.admitted != 0 && kept.revoked == 0 ? kept.admitted : now;
        kept.revoked = 0;
        kept.by = by;
        if (shown) {
            kept.highest = std::max(kept.highest, shown->generation);
            kept.good_from = std::max(kept.good_from, shown->generation);
            kept.key = shown->key;
            kept.authority = shown->authority;
            kept.issued = shown->begins;
            kept.ends = shown->ends;
        }
        return true;
    };
    if (!s.change(who, let_in, error)) {
        return false;
    }
    if (chosen) {
        state::own_change mine(s);
        const stored_enrolment opens{.hash = *chosen,
                                     .account = who.account,
                                     .agent = who.agent,
                                     .by = by,
                                     .made = now,
                                     .ends = now + admitted_key_lasts_s,
                                     .key = chosen};
        if (!s.kept.add_enrolment(opens, error)) {
            return false;
        }
        mine.is_made();
    }
    std::lock_guard<std::mutex> guard(s.mutex);
    if (chosen) {
        s.admitted_keys.insert(*chosen);
    }
    s.waiting.forget(who);
    return true;
}

bool known_agents::refuse(std::string_view account, std::string_view agent, std::string& error) {
    error.clear();
    std::lock_guard<std::mutex> guard(state_->mutex);
    return state_->waiting.refuse({account, agent}, state_->now());
}

std::optional<protocol::sha256> known_agents::invite(std::string_view account,
                                                     std::string_view agent, int64_t lasts_s,
                                                     const std::string& by, std::string& error) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    error.clear();
    protocol::sha256 secret;
    if (!is_agent_name(account) || !is_agent_name(agent)) {
        error = no_name;
        return std::nullopt;
    }
    if (RAND_bytes(secret.data(), static_cast<int>(secret.size())) != 1) {
        error = "the system has no random numbers";
        return std::nullopt;
    }
    const int64_t now = s.now();
    const stored_enrolment token{.hash = hash_of(secret),
                                 .account = std::string(account),
                                 .agent = std::string(agent),
                                 .by = by,
                                 .made = now,
                                 .ends = now + lasts_s};
    state::own_change mine(s);
    if (!s.kept.add_enrolment(token, error)) {
        return std::nullopt;
    }
    mine.is_made();
    std::lock_guard<std::mutex> guard(s.mutex);
    int64_t& ends = s.invited[{token.account, token.agent}];
    ends = std::max(ends, token.ends);
    return secret;
}

/* The tokens first: one that is used in between is revoked with all else, but one that is used
 * behind the revocation would undo it. */
bool known_agents::revoke(std::string_view account, std::string_view agent, bool even_undecided,
                          const std::string& by, std::string& error) {
    state& s = *state_;
    std::lock_guard<std::mutex> one(s.writing);
    error.clear();
    if (!is_agent_name(account) || !is_agent_name(agent)) {
        return false;
    }
    const identity who{std::string(account), std::string(agent)};
    bool is_known = even_undecided;
    auto look = [&](const stored_enrolment& what) {
        is_known |= what.account == account && what.agent == agent && what.generation == 0;
    };
    if (!s.kept.for_each_enrolment(look, error) || !s.kept.drop_enrolments(account, agent, error)) {
        return false;
    }
    auto end = [&](stored_identity& kept) {
        is_known |= !is_new(kept);
        if (!is_known || kept.revoked != 0) {
            return false;
        }
        kept.revoked = s.now();
        kept.admitted = 0;
        kept.by = by;
        if (kept.highest != 0) {
            kept.good_from = std::max(
                kept.good_from, kept.highest < last_generation ? kept.highest + 1 : kept.highest);
        }
        return true;
    };
    if (!s.change(who, end, error) && !error.empty()) {
        return false;
    }
    std::lock_guard<std::mutex> guard(s.mutex);
    if (is_known) {
        s.invited.erase(who);
        s.waiting.forget(who);
    }
    return is_known;
}

std::vector<agent_standing> known_agents::all() const {
    const state& s = *state_;
    std::map<identity, agent_standing, by_name> found;
    const int64_t now = s.now();
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        for (const auto& [name, ends] : s.invited) {
            if (ends > now) {
                found[name].invited = true;
            }
        }
        for (waiting_agent& each : s.waiting.all(now)) {
            identity name{each.account, each.agent};
            found[std::move(name)].waiting = std::move(each);
        }
    }
    /* A share at a time: those that come or go meanwhile may be there or not. */
    std::optional<identity> last;
    for (bool more = true; more;) {
        std::lock_guard<std::mutex> guard(s.mutex);
        auto at = last ? s.known.upper_bound(*last) : s.known.begin();
        for (size_t i = 0; i < names_at_once && at != s.known.end(); i++, ++at) {
            agent_standing& each = found[at->first];
            each.kept = at->second.kept;
            if (each.waiting) {
                each.waiting->contested |= is_taken(each.kept, *each.waiting);
            }
            last = at->first;
        }
        more = at != s.known.end();
    }
    std::vector<agent_standing> list;
    list.reserve(found.size());
    for (auto& [name, each] : found) {
        each.kept.account = name.account;
        each.kept.agent = name.agent;
        list.push_back(std::move(each));
    }
    return list;
}

std::optional<agent_standing> known_agents::find(std::string_view account,
                                                 std::string_view agent) const {
    const state& s = *state_;
    const name_view name{account, agent};
    std::lock_guard<std::mutex> guard(s.mutex);
    const int64_t now = s.now();
    auto at = s.known.find(name);
    auto token = s.invited.find(name);
    agent_standing found{.kept = {},
                         .waiting = s.waiting.find(name, now),
                         .invited = token != s.invited.end() && token->second > now};
    if (at == s.known.end() && !found.waiting && !found.invited) {
        return std::nullopt;
    }
    if (at != s.known.end()) {
        found.kept = at->second.kept;
        if (found.waiting) {
            found.waiting->contested |= is_taken(found.kept, *found.waiting);
        }
    }
    found.kept.account = account;
    found.kept.agent = agent;
    return found;
}
