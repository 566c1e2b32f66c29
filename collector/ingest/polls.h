/* What an agent is answered: its login, and its polls once their blocks are stored. Network thread
 * only.
 *
 * WHAT AN AGENT TAKES FOR WHAT  Any whole answer, whatever its status line, makes an agent drop the
 * block it has sent, except the bodies "111111" (keep it, log in again) and "666666" (stop). So a
 * block is answered in the ordinary way only after it is committed; a body that must come again, or
 * a head that makes no sense, is answered "111111"; and when the collector gives up on a connection
 * it resets it (see connection.h), which an agent reads as no connection: it keeps session and
 * block, and waits out its interval. So is a block that cannot be stored now, because "111111"
 * would have every agent log in and send it again each second. A login that is refused gets no
 * session, whereupon the agent keeps what it has and tries again after its interval; "666666" would
 * end it with all its results, for a slip in the list of accounts. So is one of a second host under
 * a name that is in use (see session.h), and one that is not let in under its name
 * (known_agents.h); a poll that has shown another proof than its session began with is to log in
 * again, and told there. The agent adds up every header that begins with
 * "Content-", so Content-Length is the only one sent, and waits for the end of the connection when
 * it is 0.
 *
 * CATCHING UP  While blocks wait too long for the store, polls that bring results are reset behind
 * their heads, and so are logins, each of which is followed by all that its agent has kept. Polls
 * without results are answered. Logins keep a rate at all times; an agent whose session is not
 * known is told to log in when it is its turn, and reset if that is too far off: then it comes
 * again after its interval, rather than twice within a second. */
#ifndef VINDRAL_COLLECTOR_POLLS_H
#define VINDRAL_COLLECTOR_POLLS_H

#include "ingest/catching_up.h"
#include "ingest/enrolment.h"
#include "ingest/exchange.h"
#include "ingest/ingest.h"
#include "ingest/instructions.h"
#include "ingest/known_agents.h"
#include "ingest/turns.h"
#include "ingest/unpacker.h"

#include <boost/asio/io_context.hpp>
#include <optional>
#include <string>
#include <unordered_set>

class polls {
public:
    /* This must outlive `context`, which destroys the exchanges that are under way. `known` is who
     * may go by which name, and `kept` keeps what follows from that; null: nobody is asked. */
    polls(boost::asio::io_context& context, exchange_room& room, unpacker& bodies, ingest& results,
          instructions& commands, known_agents* known, enrolment* kept)
        : context_(context), room_(room), bodies_(bodies), results_(results), commands_(commands),
          known_(known), kept_(kept), catching_up_(context, room, results),
          allowed_(room.options.allow.begin(), room.options.allow.end()) {}

    /* The exchange's head has been read. */
    boost::asio::awaitable<void> answer_login(exchange& x);
    boost::asio::awaitable<void> answer_poll(exchange& x);
    boost::asio::awaitable<void> answer_nonsense(exchange& x, const std::string& error);

    /* Of an agent by its name; false when it has no session: server.h. */
    bool check_now(const std::string& account, const std::string& agent);
    bool send_away(const std::string& account, const std::string& agent);

private:
    /* What becomes of a block. */
    enum class fate {
        stored,
        duplicate, /* stored already: its answer was lost */
        again,     /* the agent shall send it once more */
        broken     /* no use in answering */
    };
    boost::asio::awaitable<fate> take_block(exchange& x, const session& from);
    boost::asio::awaitable<bool> wait_for_turn(exchange& x, turns& all,
                                               std::optional<turns::place>& place,
                                               const session& from, size_t bytes);
    boost::asio::awaitable<void> prepare_commands(const session& of);
    boost::asio::awaitable<store_result> keep(poll_block block);
    void tell(const name_conflict& conflict);
    standing may_go_by(const exchange& x, const std::string& account, const std::string& agent);
    standing may_use(const exchange& x, const session& s);
    boost::asio::awaitable<void> refuse_login(exchange& x, standing why);
    void refuse_poll(const exchange& x, const session& s, standing why);
    boost::asio::awaitable<void> answer_unknown(exchange& x);
    standing may_log_in(const exchange& x);
    void note_turned_away(const std::string& account, const std::string& agent, const exchange& x);

    boost::asio::io_context& context_;
    exchange_room& room_;
    unpacker& bodies_;
    ingest& results_;
    instructions& commands_;
    known_agents* const known_;
    enrolment* const kept_;
    catching_up catching_up_;
    const std::unordered_set<std::string> allowed_;
    session_table sessions_{room_.options.sessions};
    turns large_{room_.options.large_memory}, huge_{room_.options.body.max_plain};
};

#endif
