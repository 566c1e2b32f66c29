/* Who asks: tokens, one-time links, sessions (api/secrets.h). No sockets.
 *
 * A link is URL "/#link=vl_...": behind the '#', so
 * that it is in no log and no Referer; the page sends it by POST.
 *
 * PATHS  POST /sign-in {"token": ...} or {"link": ...}: 204 and the cookie, which lasts 30 days
 * (HttpOnly, SameSite=Strict, Path=/, Secure over TLS; its name begins with __Host- there). Wrong,
 * used, ended: 401, the same for all. POST /sign-out: 204, the session is dropped. */
#ifndef VINDRAL_COLLECTOR_WEB_SIGN_IN_H
#define VINDRAL_COLLECTOR_WEB_SIGN_IN_H

#include "api/request.h"
#include "api/secrets.h"
#include "store/settings.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/* Whether it has the form of one. */
bool is_secret(token_kind kind, std::string_view secret);

/* Who has this secret, of a token or a session: remembered until the settings change. Any thread.
 */
class known_callers {
public:
    explicit known_callers(settings& kept);
    ~known_callers();
    /* may == none: nobody. */
    caller find(std::string_view secret, int64_t now);

    /* The same without a look at the settings, for where nothing may wait: as of the last find() or
     * refresh(). */
    caller remembered(std::string_view secret, int64_t now);
    void refresh();

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif
