/* The log writer: every diagnostic of the agent goes through leveledadd2log.
 *
 * Levels: -1 is written at every log_level from 0 on (start-up, failures, shutdown), 0 are errors,
 * 1 to 5 are increasingly detailed; log_level 6 shows everything. A line of level 0 or below is
 * written by the thread that logs it, before the call returns; a line above that waits in vLog for
 * the writer thread and is in the file about a second later. A line written at once takes what is
 * waiting out first, so one thread's lines keep their order.
 *
 * A line is "[DD/MM/YYYY:HH:MM:SS]\tTEXT\n", stamped in UTC when it was logged. The first time the
 * writer thread has lines on a new UTC day it moves the file to "FILE.YYYY-MM-DD", the day it
 * covers, and begins a new one. Lines written at once go on in the old file until then, so at
 * log_level 1 and below, where nothing is queued, the file is never moved. Only the number of the
 * day is compared, and after a start the day is only noted, so a file may hold more than one.
 *
 * Threads: any thread may log, and none is cancelled in here. The stream has a mutex of its own,
 * held while lines are written or the file is changed; LOG_WRITER_MUTEX is taken inside it, or
 * alone, and only for as long as the queue changes hands. A forked child may log: it starts with an
 * empty queue and never moves the file. */
#ifndef VINDRAL_LOG_H
#define VINDRAL_LOG_H

#include "guards.h"

#include <cstdio>
#include <ctime>
#include <pthread.h>

/* Path, malloc'd; set by option or configuration, fixed once lines are written. */
extern char* log_file;

/* A line of level L is written when log_level > L; default 0; fixed at start. */
extern int log_level;

extern FILE* m_logFile;        /* open stream or null; changes only under the stream's mutex */
extern mutex LOG_WRITER_MUTEX; /* guards vLog and vLoglen */
extern char** vLog GUARDED_BY(LOG_WRITER_MUTEX); /* whole lines waiting for the writer thread */
extern int vLoglen GUARDED_BY(LOG_WRITER_MUTEX); /* their count */
extern pthread_t log_writer_thread_id; /* 0 until the writer starts; stays set after it has ended */

/* The clock behind stamps and rotation, in seconds since 1970; a test may set it to its own. */
extern time_t (*log_clock)();

/* Logs one line of any length; %m is the text of errno at the call. Without memory the line is
 * lost. */
void leveledadd2log(int loglevel, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/* A text as an argument of a line, "(null)" for null, which must not be one. */
inline const char* shown(const char* text) {
    return text != nullptr ? text : "(null)";
}

/* Logs `str` whatever the level: noWait 0 queues it, anything else writes it at once. Before the
 * writer has started the text goes to standard output as "\nTEXT\n"; while no file is open it is
 * dropped, so a file that cannot be opened again costs lines and not memory. */
void add2logfile(const char* str, int noWait);

/* Opens log_file for appending and starts the writer thread. Returns 1, or 0 after one message on
 * standard output (none when only the thread could not be created). Once, from main. */
int init_log_file();

/* The writer thread: sleeps until a line waits, writes all that wait, and looks again a second
 * later. Tries to open the file every 5 seconds when it is gone. Never returns; it can be cancelled
 * only while it sleeps. */
void* write2logfile(void* arg);

/* Moves the file aside when the day has changed, and opens log_file when no stream is open. A move
 * that fails is tried again with the next line; until then the old file goes on. */
void rotate_log_file();

/* Waits 2 seconds, ends the writer, writes what still waits and closes the file; m_logFile is null
 * afterwards and further lines are dropped. Always returns 1. From main. */
int shutdown_log_writer();

/* For the handler of a crash: from here on the calling thread waits no more than a second, in all,
 * for locks of the log that it or a stuck thread may hold, and then writes its lines without them.
 * It leaves the queue alone when it cannot be locked. */
void log_from_crash();

#endif
