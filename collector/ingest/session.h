/* Who is logged in. One thread; no network in here.
 *
 * TWO HOSTS UNDER ONE NAME  An agent that logs in has no session: it has just started, was told to
 * log in again, or never got the answer to its last login. So its older session is of no use to it,
 * and only somebody else can go on using that one. But a host that takes another's name looks just
 * like a restart at first, address and all: agents move between addresses, and hosts share one. So
 * the older session stays beside the younger until it has been silent for three intervals. When it
 * is used twice meanwhile (once might be a poll that was still on its way when its agent ended),
 * two agents are alive. The older keeps the name, the session of the younger ends, and its logins
 * are refused for as long as the other polls: it stays as it is and tries again after its interval.
 * A login from the address of the one that polls, if the other has another, is the restart of that
 * one. An agent that does nothing but restart never uses an old session, and is never refused. */
#ifndef VINDRAL_COLLECTOR_SESSION_H
#define VINDRAL_COLLECTOR_SESSION_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

/* The two answers that are no session: an agent compares with them as whole strings. */
inline constexpr std::string_view answer_log_in_again = "111111";
inline constexpr std::string_view answer_not_authorised = "666666";

struct session {
    std::string id; /* 32 hexadecimal digits: 96 random bits, and 32 that tell the name again */
    std::string account;
    std::string agent;
    std::string address; /* where it was used last, as text; empty: not known */
    std::string version; /* what the agent calls its version; empty: not known */

    /* It began with a certificate of its name: so does each poll of it. Such an agent may be told
     * secrets. */
    bool proven = false;

    /* The agent had a session before: it ran already when it logged in, and may have tests. */
    bool running = false;
    uint64_t polls = 0; /* with the first one, the answer to the login has arrived */

    /* How far the agent has the plan, as serials: everything up to `delivered` has arrived. Its
     * last answer began after `answered_from`; when that answer turns out lost, it is given again.
     */
    uint64_t delivered = 0;
    uint64_t answered_from = 0;

    /* It is to do all its tests now: its next answer says so. And whether the last one did, which
     * is given again when it turns out lost. */
    bool check_now = false, told_to_check = false;

    /* The agent has been sent this interval: at the login for now, later from the second wait on.
     */
    void told(std::chrono::seconds interval) {
        longest_wait = polls == 0 ? interval : std::max(interval, last_told);
        last_told = interval;
    }
    std::chrono::seconds longest_wait{60}; /* from one poll to the next */
    std::chrono::seconds last_told{60};
};

struct session_limits {
    size_t most = 200000; /* sessions; the one unused longest makes room */
    std::chrono::seconds idle{24 * 60 * 60};
    /* A session is silent when it was not used for so many of its agent's longest waits and an
     * exchange: then another host may have the name. */
    int silent_waits = 3;
    std::chrono::seconds exchange{15};
};

/* Two hosts that were found to go by one name. */
struct name_conflict {
    bool found = false;
    bool tell = false; /* for the first time, or for the first time in an hour */
    std::string account, agent;
    std::string kept, refused; /* addresses, as text */
};

class session_table {
public:
    using time = std::chrono::steady_clock::time_point;

    explicit session_table(session_limits limits = {}) : limits_(limits) {}

    /* A new session. Null when the system has no random numbers, or when another host has the name:
     * then `conflict` is found. */
    std::shared_ptr<session> log_in(std::string account, std::string agent, time now,
                                    std::string_view address = "",
                                    name_conflict* conflict = nullptr);

    /* The session of that id, now used again; null when there is none. A poll under way may keep it
     * after its end. `conflict` is found when this is what proves that there are two. */
    std::shared_ptr<session> find(std::string_view id, time now, std::string_view address = "",
                                  name_conflict* conflict = nullptr);

    /* The session with which an agent of that name polls. Null when there is none, or when it has
     * been silent: then nobody knows whether it comes back. Does not count as a use. */
    std::shared_ptr<session> polling(const std::string& account, const std::string& agent,
                                     time now) const;

    /* Ends all sessions of that name, as if there had been none. False when there was none. */
    bool end_all(const std::string& account, const std::string& agent);

    /* An agent that used this session, of whatever earlier run, has been told to log in again. When
     * it does, it is `running`, until a login's answer has arrived. */
    void sent_away(std::string_view id, time now);

    size_t size() const { return by_id_.size(); }

private:
    struct entry {
        std::shared_ptr<session> held;
        time used;
    };
    using place = std::list<entry>::iterator;

    struct name {
        place older;
        std::optional<place> younger; /* logged in while the older one was not silent */
        int older_uses = 0;           /* since then */
        bool contested = false;       /* two hosts go by it; what follows is about the other one */
        std::string address;
        time seen, told;

        place polling() const {
            return younger && (*younger)->used > older->used ? *younger : older;
        }
    };
    using names = std::unordered_map<std::string, name>;

    void end(place which);
    void end_idle(time now);
    bool silent(const session& s, time used, time now) const;
    bool settle(names::iterator which, time now);
    static void report(name& n, bool first, time now, name_conflict* conflict);

    session_limits limits_;
    std::list<entry> entries_;                          /* in order of use, the latest in front */
    std::unordered_map<std::string_view, place> by_id_; /* the key lives in the session */
    names by_name_;
    std::unordered_map<uint32_t, time> left_; /* sent away, by the tag of the name */
    std::deque<std::pair<uint32_t, time>> left_in_order_;
};

#endif
