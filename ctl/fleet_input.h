/* A fleet file as it is given, and the question whether it is to be applied. */
#ifndef VINDRAL_CTL_FLEET_INPUT_H
#define VINDRAL_CTL_FLEET_INPUT_H

#include <string>
#include <string_view>

struct fleet_input {
    std::string called; /* printable: its name, "<stdin>" */
    std::string text;   /* not empty */
};

/* "-" is standard input. Throws failure (usage): it cannot be read, is empty, or has more than the
 * 1,000,000 bytes that a fleet file may have. */
fleet_input read_fleet_input(const std::string& name);

/* Asks on standard error, and reads a line from the descriptor; all but "y" and "yes" is no. */
bool ask_yes_or_no(int from, const std::string& question);

/* Line by line as printable() makes it (text.h). */
std::string printable_lines(std::string_view text);

#endif
