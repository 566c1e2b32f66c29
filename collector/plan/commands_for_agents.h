/* What agents are told, out of the plan and of what they had reported when an earlier run of the
 * collector ended. */
#ifndef VINDRAL_COLLECTOR_COMMANDS_FOR_AGENTS_H
#define VINDRAL_COLLECTOR_COMMANDS_FOR_AGENTS_H

#include "ingest/event_log.h"
#include "ingest/instructions.h"
#include "plan/known.h"
#include "plan/plan.h"

#include <functional>

class commands_for_agents : public instructions {
public:
    using log_function = std::function<void(const std::string&)>;

    /* `lines` must outlive this. `log` is told, with bounds, who gets no tests with secrets. */
    commands_for_agents(plan& lines, known_tests earlier, log_function log = nullptr);

    void refresh() override { lines_.refresh(); }
    told_commands for_login(const session& of) override;
    told_commands after(const session& of, uint64_t serial) override;
    std::string text_for_check(const session& of) override {
        return lines_.text_for_check(of.proven);
    }
    void login_arrived(const session& of) override { earlier_.forget(of.account, of.agent); }
    std::chrono::seconds poll_interval(const session&) const override {
        return lines_.poll_interval();
    }

private:
    void tell_kept_back(const session& of) const;

    plan& lines_;
    known_tests earlier_; /* of agents that have not been put right yet */
    mutable event_log log_;
};

#endif
