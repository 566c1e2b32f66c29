/* What agents are told to do, as the exchange of polls asks for it; whoever makes the lines
 * implements it. Network thread only, but for `ready`. */
#ifndef VINDRAL_COLLECTOR_INSTRUCTIONS_H
#define VINDRAL_COLLECTOR_INSTRUCTIONS_H

#include "ingest/session.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

/* The body of an answer, and how far an agent is that has it. */
struct told_commands {
    std::string text;
    uint64_t upto = 0; /* serial */
};

class instructions {
public:
    virtual ~instructions() = default;

    /* Takes in what has changed; called ahead of each answer. */
    virtual void refresh() = 0;

    /* True when the agent's answer can be made at once. Otherwise `ready` is called when it can,
     * once, on any thread, after two seconds at the latest. */
    virtual bool prepare(const session& of, std::function<void()> ready) {
        (void)of, (void)ready;
        return true;
    }

    /* The answer to a login, and to a poll of an agent that is up to `serial`. Lines with secrets
     * in them are for agents that are `proven` alone; others are told nothing of them. */
    virtual told_commands for_login(const session& of) = 0;
    virtual told_commands after(const session& of, uint64_t serial) = 0;

    /* Has an agent that is up to date do all its tests at once. */
    virtual std::string text_for_check(const session& of) = 0;

    /* The agent has the answer to its login, as its first poll proves. */
    virtual void login_arrived(const session& of) = 0;
    /* An answer was written and taken: the agent is up to session::delivered, most likely. */
    virtual void answer_arrived(const session& of) { (void)of; }

    /* How long the agent waits between two polls when it heeds all lines. */
    virtual std::chrono::seconds poll_interval(const session& of) const = 0;
};

#endif
