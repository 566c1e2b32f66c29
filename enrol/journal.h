/* What is noted of an enrolment before anything is put in force, so that the next call knows how to
 * go on, or back, whatever ended this one. */
#ifndef VINDRAL_ENROL_JOURNAL_H
#define VINDRAL_ENROL_JOURNAL_H

#include "protocol/enrolment.h"

#include <optional>
#include <string>

struct journal {
    protocol::sha256 goal{};           /* which command it is */
    std::string conf;                  /* the file that is changed */
    protocol::sha256 written{};        /* SHA-256 of what it becomes */
    std::string identity, authorities; /* the new files */
    bool ran = false, enabled = false; /* the agent, before */
    bool start = true;                 /* it is to be started */
    bool undoing = false;              /* it has failed */
};

/* In the directory of the certificates; root's alone. They throw failure. */
void write_journal(const std::string& directory, const journal& what);
std::optional<journal> read_journal(const std::string& directory);
void forget_journal(const std::string& directory, const std::string& conf);
/* The configuration as it was, beside it and with its owner and mode: it can be put back on a disk
 * that is full. */
std::string backup_of(const std::string& conf);

#endif
