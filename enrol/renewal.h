/* What a host that is enrolled does daily, and what it says of itself. */
#ifndef VINDRAL_ENROL_RENEWAL_H
#define VINDRAL_ENROL_RENEWAL_H

#include "enrol/options.h"

#include <cstdint>
#include <string_view>

/* Brings the authorities of the server up to date, and gets a new certificate when less than a
 * third of the time is left or another authority signs agents' certificates by now. Says what it
 * did, and nothing when there was nothing to do. Returns the exit status; throws failure. */
int renew(const options& said);

int show(const options& said);

/* Whether a certificate of these times is to be renewed. */
bool is_due(int64_t begins, int64_t ends, int64_t now);

#endif
