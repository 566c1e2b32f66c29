/* The enrolment of this host: from an address and a token, or a name, to an agent that polls with a
 * certificate of its own; and the way back.
 *
 * IN FORCE is what vindral.conf names. New files get names that nothing has, and the one exchange
 * of vindral.conf puts all of it in force at once; so whatever ends the program, the agent has
 * either its old settings, or all of the new ones. In the directory (/etc/vindral) stand
 *
 *   agent.pem, ca.pem         the identity, and the authorities of the server; agent-2.pem and so
 * on where these are in use agent-key.new             the key, as long as it is not in force: a
 * certificate may have been given out for it, which its token gives for no other enrolling written
 * before anything is put in force, removed when the agent has logged in: what is being done. The
 * next call goes on from there, or undoes it.
 *
 * and beside vindral.conf, as long, vindral.conf.enrol-before: as it was. */
#ifndef VINDRAL_ENROL_ENROLMENT_H
#define VINDRAL_ENROL_ENROLMENT_H

#include "enrol/options.h"

/* Returns the exit status; what fails has been told, and undone. Throws failure for what is wrong
 * from the start. */
int enrol(const options& said);

#endif
