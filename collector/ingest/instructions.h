/* What agents are told to do, as the exchange of polls asks for it; whoever makes the lines
 * implements it. Network thread only. */
#ifndef VINDRAL_COLLECTOR_INSTRUCTIONS_H
#define VINDRAL_COLLECTOR_INSTRUCTIONS_H

#include "ingest/session.h"

#include <chrono>
#include <cstdint>
#include <string>

class instructions {
public:
    virtual ~instructions() = default;

    /* Takes in what has changed; called ahead of each answer. */
    virtual void refresh() = 0;

    /* Highest serial of a line so far: an agent that has everything is up to here. */
    virtual uint64_t newest() const = 0;

    /* The body of the answer to a login, and to a poll of an agent that is up to `serial`. Lines
     * with secrets in them are for agents that are `proven` alone; others are told nothing of them.
     */
    virtual std::string text_for_login(const session& of) const = 0;
    virtual std::string text_after(const session& of, uint64_t serial) const = 0;

    /* Has an agent that is up to date do all its tests at once. */
    virtual std::string text_for_check(const session& of) = 0;

    /* The agent has the answer to its login. */
    virtual void login_arrived(const session& of) = 0;

    /* How long an agent that heeds all lines waits between two polls. */
    virtual std::chrono::seconds poll_interval() const = 0;
};

#endif
