/* How the collector shows itself to hosts: the certificate that it has, and what makes a host
 * report here. */
#ifndef VINDRAL_COLLECTOR_ANNOUNCE_H
#define VINDRAL_COLLECTOR_ANNOUNCE_H

#include "base/identity.h"
#include "base/tls.h"
#include "life/options.h"

#include <cstdint>
#include <string>

/* The key pair of the state directory unless one is given, and the context made from that. Null
 * with one line in `error`. */
tls_context prepare_tls(const options& o, identity_report& report, std::string& error);

/* For the operator: the report's notes, where this one listens, and what goes into a host's
 * vindral.conf. Lines with their ends. */
std::string announcement(const options& o, const identity_report& report, const std::string& where,
                         uint16_t port);

#endif
