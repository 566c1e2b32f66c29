/* What agents are told, out of the plan and of what they had reported when an earlier run of the
 * collector ended. */
#ifndef VINDRAL_COLLECTOR_COMMANDS_FOR_AGENTS_H
#define VINDRAL_COLLECTOR_COMMANDS_FOR_AGENTS_H

#include "ingest/instructions.h"
#include "plan/known.h"
#include "plan/plan.h"

class commands_for_agents : public instructions {
public:
    /* `lines` must outlive this. */
    commands_for_agents(plan& lines, known_tests earlier)
        : lines_(lines), earlier_(std::move(earlier)) {}

    void refresh() override { lines_.refresh(); }
    uint64_t newest() const override { return lines_.newest(); }
    std::string text_for_login(const session& of) const override {
        return of.running ? lines_.text_for_running(earlier_.of(of.account, of.agent))
                          : lines_.text_for_new();
    }
    std::string text_after(uint64_t serial) const override { return lines_.text_after(serial); }
    std::string text_for_check() override { return lines_.text_for_check(); }
    void login_arrived(const session& of) override { earlier_.forget(of.account, of.agent); }
    std::chrono::seconds poll_interval() const override { return lines_.poll_interval(); }

private:
    plan& lines_;
    known_tests earlier_; /* of agents that have not been put right yet */
};

#endif
