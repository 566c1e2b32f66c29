/* vindral-collector authority: what is in the state directory of the two authorities, and their
 * exchange, which agents go through without a gap. They work beside a running collector, which
 * notices, and before its first start. What is printed on standard output is for people; what went
 * wrong and what is to be done next is on standard error. Each returns the exit status of the
 * program. */
#ifndef VINDRAL_COLLECTOR_AUTHORITY_COMMANDS_H
#define VINDRAL_COLLECTOR_AUTHORITY_COMMANDS_H

#include "life/options.h"

/* 0, or 1 when they cannot be read. */
int run_show_authorities(const options& o);

/* 0, or 1 when nothing was changed. Finishing refuses, and names them, while agents depend on what
 * would go: on certificates that the old authority signed, or on a CAFILE without the new one. */
int run_renew_authority(const options& o);
int run_finish_authority(const options& o);

#endif
