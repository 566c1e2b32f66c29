/* Whether a request was meant for this collector, and comes from its own page: against pages of
 * others that have a browser send requests here, by a name that they made point here or with the
 * browser's cookie. No sockets. */
#ifndef VINDRAL_COLLECTOR_WEB_TRUST_H
#define VINDRAL_COLLECTOR_WEB_TRUST_H

#include <string>
#include <string_view>
#include <vector>

/* Host header or authority: "name", "name:port", "[::1]:port". The name or address in lower case,
 * without brackets and without the dot at the end; empty when it is none. */
std::string host_name(std::string_view host);

bool is_address(const std::string& name);

/* `local`: the address at which the connection arrived. `names` may begin with "*.", for one label.
 * An address is nobody's name, so on loopback any may stand there. */
bool is_own_host(std::string_view host, const std::vector<std::string>& names,
                 const std::string& local, bool on_loopback);

/* An Origin header that belongs to the Host of the same request. */
bool is_own_origin(std::string_view origin, std::string_view host, bool tls);

#endif
