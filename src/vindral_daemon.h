/* Turning the process into a daemon that holds the PID lock. */
#ifndef VINDRAL_DAEMON_H
#define VINDRAL_DAEMON_H

int daemon_init();

#endif
