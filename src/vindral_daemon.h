/* Turning the process into a daemon that is the only one with its PID file.
 *
 * The PID file holds the daemon's process id as "%d\n". What makes the daemon the only one is a
 * write lock (fcntl) on the whole file, which ends with the process; an id left over from earlier
 * is only checked for form. Nothing else in the process may open and close that file: the close
 * would drop the lock. */
#ifndef VINDRAL_DAEMON_H
#define VINDRAL_DAEMON_H

/* Goes to $HOME ("/" when HOME is unset; relative paths of the PID and log file start there), sets
 * the umask to 022, forks, leads a new session, locks and writes the file named by lock_file, and
 * turns descriptors 0 to 2 to /dev/null.
 *
 * Returns 1, in the child. The parent ends with status 1, before it is known whether the child gets
 * the lock. A failure, in either process, is logged at level 0 and ends it with status 0; that
 * another process holds the lock is logged at level 5. These lines go to standard output, as the
 * log writer is not running yet. From main, before any thread is created. */
int daemon_init();

/* Lets the process open as many files as the system allows it at all: every check that is under way
 * has a socket. Where that cannot be had, the limit stays. The commands that it starts get back the
 * limit that it had. */
void raise_descriptor_limit();

#endif
