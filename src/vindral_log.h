/* The log writer: every diagnostic of the agent goes through leveledadd2log. */
#ifndef VINDRAL_LOG_H
#define VINDRAL_LOG_H

#include "guards.h"

#include <cstdio>
#include <pthread.h>

extern char* log_file;                 /* path; set by option or configuration */
extern int log_level;                  /* a line of level L is written when log_level > L; default 0 */
extern FILE* m_logFile;                /* open stream or null */
extern char** vLog;                    /* lines waiting for the writer thread */
extern int vLoglen;                    /* their count */
extern mutex LOG_WRITER_MUTEX;         /* guards vLog and vLoglen */
extern pthread_t log_writer_thread_id; /* 0 until the writer starts */

void leveledadd2log(int loglevel, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void add2logfile(const char* str, int noWait);
int init_log_file();
void* write2logfile(void* arg);
void rotate_log_file();
int shutdown_log_writer();

#endif
