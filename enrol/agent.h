/* The agent of this host: whether it runs, starting and stopping it, and what its log says. By
 * systemd where that runs and the configuration is the one of the service; otherwise the program
 * that is installed beside this one, as the user vindral. What fails throws failure. */
#ifndef VINDRAL_ENROL_AGENT_H
#define VINDRAL_ENROL_AGENT_H

#include "enrol/waiting.h"

#include <string>
#include <sys/types.h>

inline constexpr const char* agent_user = "vindral";
inline constexpr const char* standard_conf = "/etc/vindral.conf";

/* The user that the agent runs as: vindral for root, and oneself for everybody else, who has a
 * configuration of his own. Where there is no such user, who is to `start` an agent is told so; who
 * is not gets root. */
struct account {
    uid_t user = 0;
    gid_t group = 0;
};
account find_account(bool start);

struct agent_place {
    std::string conf;
    bool by_systemd = false;
    account as;
};
agent_place find_agent(const std::string& conf, const account& as);

/* How the agent stood before anything was changed. */
struct agent_state {
    bool runs = false, enabled = false;
};
agent_state look_at_agent(const agent_place& at);

/* The end of the log: what is behind it is new. */
struct log_mark {
    ino_t file = 0;
    off_t end = 0;
};
log_mark mark_log(const agent_place& at);

/* Starts it, or ends the one that runs and starts it with the settings as they are now. */
void start_agent(const agent_place& at);
/* As it was before: running with the settings as they are now, or not. */
void restore_agent(const agent_place& at, const agent_state& before);

/* Waits until its log says that it has logged in, and some seconds more in which it goes on. Throws
 * failure with what it said instead. False when its LOGLEVEL leaves logins out: then it runs, and
 * has not complained for longer than a login takes. */
bool wait_for_login(const agent_place& at, const log_mark& since);

/* The daily renewal; nothing without systemd. */
bool timer_is_enabled();
bool set_timer(bool on, std::string& why_not);

#endif
