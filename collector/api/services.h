/* What the resources stand on. Any thread may call; nothing in here is of the network. */
#ifndef VINDRAL_COLLECTOR_API_SERVICES_H
#define VINDRAL_COLLECTOR_API_SERVICES_H

#include "api/hub.h"
#include "fleet/service.h"
#include "ingest/counters.h"
#include "ingest/ingest.h"
#include "ingest/known_agents.h"
#include "plan/known_secrets.h"
#include "store/engine.h"
#include "store/settings.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* Readers that are lent, so that a request need not open one; at most `most` at a time. What is
 * read is no older than the moment at which it was lent. */
class reader_pool {
public:
    explicit reader_pool(std::string directory, size_t most = 4);

    class lent; /* gives it back when it goes; get() is never null */
    /* Throws problem 503 when the store cannot be read, with the reason, or when all are lent for
     * five seconds, or until `deadline`. Past that the reader ends with an error. */
    lent lend(std::chrono::steady_clock::time_point deadline =
                  std::chrono::steady_clock::time_point::max());
    void give_back(std::unique_ptr<result_reader> reader);

private:
    std::unique_ptr<result_reader> take_idle(std::chrono::steady_clock::time_point deadline);

    const std::string directory_;
    const size_t most_;
    std::mutex mutex_;
    std::condition_variable given_back_;
    std::vector<std::unique_ptr<result_reader>> idle_;
    size_t out_ = 0;
};

class reader_pool::lent {
public:
    lent(reader_pool& pool, std::unique_ptr<result_reader> reader)
        : pool_(&pool), reader_(std::move(reader)) {}
    lent(lent&& other) noexcept = default;
    lent(const lent&) = delete;
    lent& operator=(const lent&) = delete;
    lent& operator=(lent&&) = delete;
    ~lent() {
        if (reader_) {
            pool_->give_back(std::move(reader_));
        }
    }
    result_reader& operator*() const { return *reader_; }
    result_reader* operator->() const { return reader_.get(); }

private:
    reader_pool* pool_;
    std::unique_ptr<result_reader> reader_;
};

struct enrolment_place {
    std::string url;
    std::optional<protocol::sha256> authority; /* none: it cannot be told */
};

struct api_services {
    reader_pool& stored;
    ingest& results; /* changes what is stored: ingest::update() */
    event_hub& hub;
    settings& kept;       /* tokens */
    known_agents& agents; /* who is let in */
    /* What a host is told to enrol with: where agents poll ("https://collector.example.org:8443"),
     * and the SHA-256 of the authority that it verifies the server with. */
    std::function<enrolment_place()> where_agents_poll;
    known_secrets& secrets; /* that tests use */
    const counters& counted;
    std::function<int64_t()> now; /* seconds since the epoch */
    /* Has the agent do all its planned tests now, with its next poll; false when it has no session
     * (it is not there, or has not polled yet since the collector started). Waits for the network
     * thread, a second at the most. */
    std::function<bool(std::string_view account, std::string_view agent)> check_now;
    /* Ends the agent's session. */
    std::function<void(std::string_view account, std::string_view agent)> send_away;
    std::function<std::vector<std::string>(bool& ready)>
        readiness; /* what is not as it should be */
    std::string version;
    std::vector<std::string> allowed_accounts = {}; /* that may log in; empty: all */
    fleet_service* fleet = nullptr; /* null: there is none, a plan of raw commands rules */
};

/* Runs `what` on the store's thread in a transaction of its own and waits for its end; throws
 * problem 503 when it cannot be stored (ten seconds at the most; it may run later then, so it must
 * not refer to anything of the caller's), or when another one has been waiting for a second. */
void change_store(api_services& with, std::function<bool(engine&)> what);

/* Retires an agent; waits and throws likewise, 404 when there is none. */
void retire_stored(api_services& with, int64_t agent);

#endif
