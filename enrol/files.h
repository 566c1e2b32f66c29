/* Whole files: nobody ever sees half of one, whatever ends the program in between. What fails
 * throws failure, with the file's name and the reason. */
#ifndef VINDRAL_ENROL_FILES_H
#define VINDRAL_ENROL_FILES_H

#include "enrol/waiting.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

struct ownership {
    uid_t user = 0;
    gid_t group = 0;
    mode_t mode = 0600;
};

/* None when there is none of that name; at most 1 MB. `of`: whose it is. */
std::optional<std::string> read_file(const std::string& path, ownership* of = nullptr);

/* Puts a new file, on disk, in the place of whatever is there. */
void write_file(const std::string& path, std::string_view text, const ownership& of);
/* What a killed call has left of that: files that were not finished. */
void sweep(const std::string& directory, const std::string& conf);
/* Puts one file in the place of another; takes no room on the disk. */
void move_file(const std::string& from, const std::string& to);

/* Nothing when there is none. */
void remove_file(const std::string& path);
bool exists(const std::string& path);

/* Where a path leads; a link to a file is followed, so that it stays a link. */
std::string real_path(const std::string& path);

/* The directory, made when it is missing; `made` says so. Others than root and the group may not
 * write in it. */
void use_directory(const std::string& path, const ownership& of, bool& made);

/* The right to change what is in it, until the descriptor is closed; waits `patience` for another
 * process that has it. */
unique_fd lock_directory(const std::string& path, milliseconds patience);

#endif
