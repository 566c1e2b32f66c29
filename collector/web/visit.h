/* One connection to the web server, from its first byte to its end: requests one after the other,
 * or a stream. What is decided about a request is desk.h's, what an answer looks like answer.h's.
 * Network thread only, but for the desk. */
#ifndef VINDRAL_COLLECTOR_WEB_VISIT_H
#define VINDRAL_COLLECTOR_WEB_VISIT_H

#include "ingest/admission.h"
#include "ingest/connection.h"
#include "web/answer.h"
#include "web/budget.h"
#include "web/desk.h"
#include "web/readers.h"
#include "web/stream.h"
#include "web/web_options.h"

#include <array>
#include <atomic>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <memory>
#include <mutex>
#include <openssl/ssl.h>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

class visit_room;

class visit : public admission::place {
public:
    using clock = std::chrono::steady_clock;

    visit(visit_room& room, boost::asio::ip::tcp::socket socket, web_peer from);
    ~visit();

    /* Until it has ended. */
    boost::asio::awaitable<void> serve();

    /* Some times a second. */
    void look(clock::time_point now, clock::time_point stop_by);
    void give_up(connection::reason why) { link_.give_up(why); }
    /* The collector ends: whoever waits for nothing goes now. */
    void on_stop();

    /* There may be something new for its stream. */
    void wake();

private:
    enum class phase : uint8_t {
        opening, /* TLS */
        idle,    /* between requests */
        head,
        body,
        busy,      /* it is our turn */
        answering, /* it reads */
        listening, /* to a stream that has nothing to say */
        ending
    };
    enum class next : uint8_t { request, end, reset, stream };
    struct listening {
        hub_filter which;
        uint64_t position;
        bool lost;
        std::string secret;
        int64_t holder;
    };
    struct task;

    void on_time();
    void begin(phase what, clock::duration at_most);
    boost::asio::awaitable<bool> open();
    boost::asio::awaitable<next> serve_one();
    std::optional<api_answer> take_head(caller_key& who, bool& keep);
    std::optional<api_answer> begin_to_listen(const desk_answer& to);
    bool has_room();
    boost::asio::awaitable<next> read_whole_head();
    boost::asio::awaitable<next> read_body(task& of);
    void work_out(task& of, const caller_key& who, clock::time_point by);
    boost::asio::awaitable<void> decide(task& of, const caller_key& who);
    boost::asio::awaitable<next> send(const wire_answer& what, bool keep);
    boost::asio::awaitable<next> refuse(api_answer what, bool keep);
    boost::asio::awaitable<bool> follow();
    boost::asio::awaitable<bool> follow_on(stream_source& source);
    boost::asio::awaitable<bool> listen();
    boost::asio::awaitable<bool> write(std::string_view text);

    visit_room& room_;
    connection link_;
    const web_peer from_;
    std::optional<admission::memory_share> share_; /* for what follows, when it is not little */
    std::string input_;                            /* what came and is not understood yet */
    std::unique_ptr<request_head> asked_;          /* while it is dealt with */
    std::unique_ptr<listening> hears_;
    phase phase_ = phase::opening;
    size_t said_ = 0; /* bytes, to a stream */
    bool timed_out_ = false, woken_ = false, waits_ = false, known_ = false;
};

/* What all visits share. */
class visit_room {
public:
    visit_room(const web_options& options, SSL_CTX* tls, desk& at, known_callers& callers,
               api_services& with);

    /* When the last stream has ended, and before the context goes. */
    void stop();

    const web_options& options;
    SSL_CTX* tls;                     /* null: plain */
    std::shared_ptr<SSL_CTX> own_tls; /* that one, since it was exchanged */
    desk& at;
    known_callers& callers;
    api_services& with;

    boost::asio::io_context context{1};
    std::atomic<bool> stopping = false;
    rate_limit requests;
    memory_budget answers;
    caller_budget answers_of_callers;
    stream_source source;
    admission places;
    std::array<char, 16384> scratch; /* for one read at a time */
    readers readers_;                /* last: they end first */

    /* Streams, each of a caller::holder. */
    enum class entry { entered, full, full_of_one };
    entry enter(visit& v, int64_t holder);
    void leave(visit& v, int64_t holder);
    /* There was no memory to ring a bell: now and then it is looked at without. */
    void look_at_bell();
    size_t streams() const { return streams_.size(); }

private:
    struct bell;
    void on_bell();
    void wave();
    void roll_on();

    std::list<visit*> streams_;
    std::unordered_map<int64_t, size_t> streams_of_; /* by holder */
    size_t to_wake_ = 0;                             /* in the wave that rolls */
    std::shared_ptr<bell> bell_;
    uint64_t subscriber_ = 0;
    bool pausing_ = false;
    visit::clock::time_point next_wave_{};
    boost::asio::steady_timer pause_{context};
};

#endif
