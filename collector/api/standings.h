/* Who may go by which name, as the API says it; and names that need not be in the store, because
 * nobody has polled by them yet. */
#ifndef VINDRAL_COLLECTOR_STANDINGS_H
#define VINDRAL_COLLECTOR_STANDINGS_H

#include "api/request.h"
#include "api/services.h"

#include <boost/json.hpp>
#include <cstdint>
#include <string>
#include <string_view>

/* A certificate that ends within this time should have been renewed: its agent does so when a third
 * of its time is left. */
constexpr int64_t ends_soon_s = int64_t{30} * 86400;

/* One word for where a name has got to. What somebody has to see to goes first: it may be proven,
 * and wait all the same, because its host was set up anew.
 *   waiting   has asked, and is not let in
 *   invited   there is a token for it that has not been used
 *   proven    admitted, and has shown a certificate
 *   known     admitted, has shown none yet
 *   revoked   may not go by it any more
 *   unknown   nobody has decided anything */
enum class identity_state : uint8_t { unknown, waiting, invited, known, proven, revoked };
constexpr size_t identity_states = 6;
identity_state state_of(const agent_standing& of);
std::string_view identity_word(identity_state s);

/* As "standing" of schemas.cpp. `id`: of the agent in the store; 0: of none. */
boost::json::object json_standing(const agent_standing& of, int64_t id, const api_services& with);

/* An account and a name. */
struct called_agent {
    std::string account, name;
    int64_t id = 0;          /* in the store; 0: it has never polled */
    bool is_seen = false;    /* in the store, and not retired */
    agent_standing now = {}; /* with its names, whether anything is known or not */
};

/* `called`: an id, account/name, or a name when exactly one account has it. With `may_be_new` it
 * may be one that nobody has heard of: then the account, when it is left out, is the only one that
 * there is. Throws problem: 404 for what there is not, 400 with the choice when it is not clear who
 * is meant or when it can be nobody's name. */
called_agent find_called(const api_request& asked, api_services& with, const std::string& called,
                         bool may_be_new = false);

#endif
