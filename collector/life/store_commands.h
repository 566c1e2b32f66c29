/* vindral-collector backup, restore and check: what is done with all that is stored. Each prints
 * what it did on standard output and what went wrong on standard error, and returns the exit status
 * of the program. */
#ifndef VINDRAL_COLLECTOR_STORE_COMMANDS_H
#define VINDRAL_COLLECTOR_STORE_COMMANDS_H

#include "life/options.h"

/* 0, or 1 when there is no copy. */
int run_backup(const options& o);

/* 0, or 1 when nothing was changed. */
int run_restore(const options& o);

/* 0 when all is sound, 1 when something is not, 2 when it could not be looked at. */
int run_check(const options& o);

#endif
