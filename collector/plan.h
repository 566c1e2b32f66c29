/* The plan: a file of commands for the agents, one a line, fields separated by tabs, '#' comments.
 * Checked when it is read; a line that an agent would refuse or drop silently is reported with its
 * number and the reason, and is not sent. No network in here. */
#ifndef VINDRAL_COLLECTOR_PLAN_H
#define VINDRAL_COLLECTOR_PLAN_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct plan_line {
    uint64_t serial; /* grows with each line first seen, across re-readings; never reused */
    int number;      /* line number in the file */
    std::string text;
};

struct plan_problem {
    int number;
    std::string reason;
};

class plan {
public:
    /* An empty path is an empty plan. `report` gets each problem once per reading in which it is new. */
    plan(std::string path, std::function<void(const plan_problem&)> report);

    /* Reads the file when it has changed since the last reading (one stat otherwise). False, with the
     * old lines kept, when it cannot be read. Lines that were there before keep their serial; lines
     * new to the file get new ones. */
    bool refresh();

    /* The lines to send whole at a login, in file order. */
    const std::vector<plan_line>& lines() const { return lines_; }

    /* Highest serial given out so far: a session that has everything remembers this. */
    uint64_t newest() const { return newest_; }

    /* The lines with a serial above `after`, as the body of a reply: each with its line end. */
    std::string text_after(uint64_t after) const;

private:
    std::string path_;
    std::function<void(const plan_problem&)> report_;
    std::vector<plan_line> lines_;
    uint64_t newest_ = 0;
    struct state;
    std::shared_ptr<state> state_;
};

#endif
