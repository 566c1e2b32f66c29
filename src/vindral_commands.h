/* The server's commands: the body of a successful poll reply.
 *
 * Lines separated by "\n" (a "\r" stays in the last field), fields by tabs; field 0 is a code of
 * three characters, and a field count includes it. Numbers are decimal, text that is no number
 * reads as 0, ids are 32-bit signed. A malformed command is dropped, silently unless its row says
 * otherwise; an unknown code is logged at level 0. Everything here runs on the poll thread. */
#ifndef VINDRAL_COMMANDS_H
#define VINDRAL_COMMANDS_H

#include <cstddef>
#include <ctime>

/* When the last update ended, seconds since the epoch; 0 when there was none. */
extern time_t last_update_time;

/* Executes every line of a reply. Between two lines the thread can be cancelled. Of the reply,
 * which may be 64 MB of anything, no more is copied than the fields that one command uses. */
void parse_data(char* sdata);

/* Executes one command given as its fields. Nothing happens without a code. */
void add_from_array(char** ms, size_t msl);

/* Runs the updater of the agent's home directory and waits for it; nothing when the last one ended
 * less than 600 seconds ago. What it runs comes from the server, as it stands. When the agent is
 * stopped meanwhile, the updater goes on. */
void start_updater(char* dname, char* url, char* chsum);

#endif
