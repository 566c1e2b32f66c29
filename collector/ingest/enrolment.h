/* How hosts get the certificates of their agents: GET /authority and POST /enrol
 * (protocol/enrolment.h).
 *
 * Signing, and settings.db, have a thread of their own, which takes one request after the other.
 * So many may wait for it (most_waiting); beyond, and beyond their part for those who have proven
 * nothing yet, the answer is 503, upon which hosts ask again. Two hundred renewals at once wait for
 * each other. Whoever has proven nothing has a rate, by address, for asking, and a smaller one for
 * tokens that open nothing; who has proven himself has one by his name, so that one host with a
 * certificate fills neither the line nor the log.
 *
 * Network thread only. */
#ifndef VINDRAL_COLLECTOR_INGEST_ENROLMENT_H
#define VINDRAL_COLLECTOR_INGEST_ENROLMENT_H

#include "base/rates.h"
#include "ingest/agents_tls.h"
#include "ingest/exchange.h"
#include "ingest/known_agents.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

class enrolment {
public:
    static constexpr size_t most_waiting = 1024;
    static constexpr size_t most_strangers = 256, most_strangers_of_address = 32;
    static constexpr int strangers_a_minute = 600, wrong_tokens_a_minute = 10;
    static constexpr int renewals_a_minute = 10; /* of one agent */
    static constexpr size_t most_renewing = 65536;

    /* This must outlive `context`, which destroys the exchanges that are under way, and what is
     * done on `worker`, one thread, has to be over before both go. */
    enrolment(boost::asio::io_context& context, boost::asio::thread_pool& worker,
              exchange_room& room, known_agents& known)
        : context_(context), worker_(worker), room_(room), known_(known) {}

    /* The exchange's head has been read. `by` is what its handshake was made with. */
    boost::asio::awaitable<void> answer_authority(exchange& x, std::shared_ptr<agents_tls> by);
    boost::asio::awaitable<void> answer(exchange& x, std::shared_ptr<agents_tls> by);

    /* Keeps that an agent has shown a later generation: soon, and in the end. */
    void keep_promotion(agent_proof shown);

    /* Has what others changed read, soon, and what could not be kept tried again; and `more` done
     * on that thread, whose answer, unless it is empty, is logged. */
    void refresh(std::function<std::string()> more = nullptr);

private:
    struct asked;
    struct outcome;
    class place;

    static outcome decide(known_agents& known, const asked& what);
    boost::asio::awaitable<outcome> elsewhere(std::shared_ptr<const asked> what);
    void do_elsewhere(std::function<std::string()> work, std::function<void()> failed);
    bool may_ask(const exchange& x);
    void tell(const exchange& x, const outcome& what);
    std::string objection(const exchange& x) const;
    boost::asio::awaitable<outcome> take(exchange& x, std::shared_ptr<const asked> what);
    boost::asio::awaitable<outcome> outcome_of(exchange& x, std::shared_ptr<agents_tls> by,
                                               std::string_view request);

    boost::asio::io_context& context_;
    boost::asio::thread_pool& worker_;
    exchange_room& room_;
    known_agents& known_;
    rate_limit asked_{strangers_a_minute}, wrong_tokens_{wrong_tokens_a_minute};
    rate_limit renewals_{renewals_a_minute, most_renewing};
    size_t waiting_ = 0, strangers_ = 0;
    std::unordered_map<uint64_t, size_t> strangers_of_;                 /* by address */
    std::map<protocol::agent_identity, agent_proof, by_name> not_kept_; /* the last promotions */
};

#endif
