/* Starting a command line through the shell.
 *
 * system() and popen() would hand the caller's blocked signals to the command (SIGHUP is blocked in
 * every thread of the agent) and, when the waiting thread is cancelled, kill a command that may be
 * the updater which asked for the stop. The command started here has a clean signal mask, default
 * signal actions and the limit of descriptors that the agent was started with, and outlives its
 * starter. */
#ifndef VINDRAL_SHELL_COMMAND_H
#define VINDRAL_SHELL_COMMAND_H

#include <sys/resource.h>
#include <sys/types.h>

/* The soft limit of descriptors for commands; 0 is the agent's own. Set by main before there are
 * other threads. */
extern rlim_t command_descriptors;

/* Starts `sh -c command_line` in a process group of its own. stdout_fd >= 0 becomes its standard
 * output; literal_words keeps the shell from expanding patterns (sh -f). Returns the process id, or
 * -1 with errno set. The caller waits for the process (wait_command) and reaps it. */
pid_t spawn_shell(const char* command_line, int stdout_fd, bool literal_words);

/* Waits for a process of spawn_shell and returns its wait status, or -1. A cancellation point where
 * the thread can be cancelled: the process then goes on by itself. */
int wait_command(pid_t pid);

#endif
