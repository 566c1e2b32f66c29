/* The command line and the environment, read by the table of commands. */
#ifndef VINDRAL_CTL_OPTIONS_H
#define VINDRAL_CTL_OPTIONS_H

#include "ctl/commands.h"
#include "ctl/given.h"
#include "ctl/http_client.h"

#include <string>

enum class reading : uint8_t {
    run,  /* `command` is to be run */
    show, /* `text` is to be printed: --help, --version */
    wrong /* `text` says what is wrong, printable */
};

struct command_line {
    reading outcome = reading::wrong;
    const command_def* command = nullptr;
    given said;
    std::string text;
    std::string help = "vindralctl --help"; /* what to type for what there is, where it was wrong */
};

command_line read_command_line(int argc, const char* const* argv);

/* Where and as whom to ask: what was given, else VINDRAL_URL and VINDRAL_TOKEN, else this machine.
 * Throws failure (usage): also when a token would go over a network in the clear. */
http_access access_of(const given& said);

/* The text without what looks like a token: of a message that has words of the command line. */
std::string without_secrets(std::string text);

/* Makes a token unreadable in the list of processes. */
void hide_token(int argc, char** argv);

#endif
