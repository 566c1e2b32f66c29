/* The authorities of a state directory: which files each of the two has, how they are made, and how
 * one takes the place of another.
 *
 * Whoever changes more than one of them holds the directory_lock, since `vindral-collector
 * authority` runs beside the collector. Each step is one rename, which a kill or a power cut leaves
 * done or not done, and each key goes ahead of its certificate: what was cut short is recognised by
 * the next call. */
#ifndef VINDRAL_COLLECTOR_AUTHORITY_FILES_H
#define VINDRAL_COLLECTOR_AUTHORITY_FILES_H

#include "base/certificate.h"

#include <string>

/* Of one authority. */
struct authority_files {
    std::string certificate, key;
    const char* name;      /* in its certificate */
    const char* when_lost; /* what to do when the certificate is there without its key */
};

struct authority_place {
    authority_files now;  /* the one that signs */
    authority_files next; /* made to take its place */
};
authority_place server_authority_place(const std::string& directory);
authority_place agent_authority_place(const std::string& directory);

/* The one before, of agents: a certificate alone. */
std::string old_agent_authority(const std::string& directory);

bool file_exists(const std::string& path);

/* False with one line in `error` when one is missing, unreadable, or not of the other. */
bool read_authority(const authority_files& files, authority& out, std::string& error);

/* Makes what is missing. A certificate without its key is an error: a new key would end what the
 * old one signed. */
bool ensure_authority(const authority_files& files, authority& out, std::string& error);

/* `next` in the place of `now`, from wherever that was cut short. */
bool take_place(const authority_place& of, std::string& error);

#endif
