/* The command line of vindral-enrol. */
#ifndef VINDRAL_ENROL_OPTIONS_H
#define VINDRAL_ENROL_OPTIONS_H

#include <chrono>
#include <cstdint>
#include <string>

enum class errand : uint8_t { enrol, renew, show, help, version };

struct options {
    errand does = errand::enrol;
    std::string url, token; /* empty: not given */
    std::string conf = "/etc/vindral.conf", directory = "/etc/vindral";
    std::string authority, ca, name, account; /* without a token */
    bool start = true, replace = false, force = false;
    std::chrono::seconds wait{600};
};

/* Throws failure (usage). Nothing of a token is in what it says. */
options read_options(int argc, char* const* argv);
const char* help_text();

/* Makes a token unreadable in the list of processes. */
void hide_token(int argc, char** argv);

#endif
