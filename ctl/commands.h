/* The table of everything that can be typed: the command line is read by it, --help is made of it,
 * and the completion for bash and the manual page are held to it by a test. */
#ifndef VINDRAL_CTL_COMMANDS_H
#define VINDRAL_CTL_COMMANDS_H

#include "ctl/given.h"
#include "ctl/place.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/* Where the value of an option goes: one of these. */
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct option_def {
    const char* name;  /* "--from" */
    const char* value; /* what --help calls its value; null: it has none */
    const char* help;
    std::string given::*text = nullptr;
    std::vector<std::string> given::*texts = nullptr;
    int64_t given::*number = nullptr;
    bool given::*flag = nullptr;
    int64_t least = 0, most = 0; /* of a number */
    const char* choices = "";    /* for the completion, "ok|problem"; the API judges */
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct command_def {
    const char* name; /* "agents", "agents show" */
    const char* word; /* "AGENT"; "[REVISION]": it may be left out; null: none */
    const char* help;
    std::span<const option_def* const> options;
    /* Returns the exit status; throws failure. Null: only its sub-commands do something. */
    int (*run)(const place& here);
};

/* A command comes before its sub-commands. */
std::span<const command_def> all_commands();

/* Those of every command. */
std::span<const option_def* const> global_options();

#endif
