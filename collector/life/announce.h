/* How the collector shows itself to hosts: the certificate that it has, and what makes a host
 * report here. */
#ifndef VINDRAL_COLLECTOR_ANNOUNCE_H
#define VINDRAL_COLLECTOR_ANNOUNCE_H

#include "base/identity.h"
#include "life/options.h"

#include <cstdint>
#include <string>

/* The key pair of the state directory unless one is given. False with one line in `error`. */
bool prepare_identity(const options& o, identity_files& files, identity_report& report,
                      std::string& error);

/* What agents may call this server: no IPv6 address, which they cannot use. */
std::string name_for_agents(const options& o, const identity_report& report);

/* For the operator: the report's notes, where this one listens, and how a host comes in: what goes
 * into its vindral.conf, or what makes it enrol. Lines with their ends. */
std::string announcement(const options& o, const identity_report& report, const std::string& where,
                         uint16_t port);

#endif
