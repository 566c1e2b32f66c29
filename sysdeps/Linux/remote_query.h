/* The one guarded way to ask another host through the SNMP command-line tools. */
#ifndef VINDRAL_REMOTE_QUERY_H
#define VINDRAL_REMOTE_QUERY_H

#include "guards.h"

/* 1 when `host` may stand unquoted in a shell command line: only what host names, IPv4 and IPv6
 * literals, transport prefixes and ports consist of (letters, digits, ". - _ : [ ] %"), not empty,
 * not longer than 300 characters, and not beginning with "-", which would make it an option. */
int is_safe_host(const char* host);

/* Runs `command_format`, a shell command line in which "%s" stands for the host, and returns all
 * that it printed as text; of more than 16 MB the whole lines among the first 16 MB. Null when the
 * host is not safe, in which case no process is started, or when the command could not be started.
 * The exit status does not count, what was printed does, also by a command that is ended because it
 * ran for more than a minute.
 *
 * Blocks the calling thread, but for a stop: when `stop_fd` is or becomes readable, the command is
 * ended with all that it started, or not started, and the result is null. Nothing is read from
 * stop_fd; without one (-1) nothing is started. */
heap_text query_remote_host(const char* command_format, const char* host, int stop_fd);

#endif
