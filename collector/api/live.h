/* What is stored, told to those who listen: each result, each event, and how each agent stands.
 * Nothing is made of it as long as nobody listens, but that whoever comes back is told so.
 *
 * The store's thread only sets aside what the messages are made of, bytes and numbers; they are
 * made and published on a thread of their own, which is there from the first listener on. When that
 * falls behind by more than some megabytes, what does not fit is left out, and who listens is told
 * that something is lost. */
#ifndef VINDRAL_COLLECTOR_LIVE_H
#define VINDRAL_COLLECTOR_LIVE_H

#include "api/hub.h"
#include "api/request.h"
#include "api/services.h"
#include "ingest/ingest.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

/* Called on the store's thread. What results, events and agents look like is in schemas.cpp
 * ("live_result", "event", "live_agent"). Names are looked up in the store, each at most twice a
 * minute, by a reader of its own. */
class live_messages final : public store_listener {
public:
    /* `most_waiting`: bytes that wait for their messages, a block at least. */
    live_messages(event_hub& hub, std::string directory, size_t most_waiting = 8u << 20);
    ~live_messages() override; /* leaves out what still waits */
    live_messages(const live_messages&) = delete;
    live_messages& operator=(const live_messages&) = delete;

    void on_record(const poll_block& from, const decoded_record& result) override;
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override;
    void on_event(const stored_event& event) override;
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override;
    void on_batch_end() override;

private:
    struct state;
    std::unique_ptr<state> state_;
};

/* What the parameters of GET /api/v1/stream let through. `target` is as it came, with parameters.
 * Throws problem: who asks may not, or a parameter is wrong. */
hub_filter stream_filter(std::string_view target, api_request& asked, api_services& with);

#endif
