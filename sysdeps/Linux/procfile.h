/* The ways to read a kernel file. */
#ifndef VINDRAL_PROCFILE_H
#define VINDRAL_PROCFILE_H

#include "guards.h"

#include <cstddef>

/* Where kernel files are looked up: "/proc", unless a test points it elsewhere. */
extern const char* proc_root;

/* Reads `name` under proc_root ("loadavg") in one read of at most `limit` bytes, which is how the
 * kernel gives a consistent picture. Returns NUL-terminated text, or null when the file cannot be
 * opened or holds nothing. */
heap_text read_proc_file(const char* name, size_t limit);

/* Reads `name` to its end, for files of many lines, which the kernel hands out page by page.
 * Returns NUL-terminated text, or null when the file cannot be opened. */
heap_text read_whole_proc_file(const char* name);

/* Copies the line that `*rest` begins with to `line`, without its end and NUL-terminated, and moves
 * on behind it; of a longer one than there is room for, the first part. False at the end of the
 * text. */
bool take_line(const char** rest, char* line, size_t room);

#endif
