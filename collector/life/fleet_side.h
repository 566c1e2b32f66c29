/* The fleet of a running collector, where no plan of raw commands rules: made before the store is
 * opened, whose thread tells it things, and opened behind it, when the store has the layout of this
 * version. */
#ifndef VINDRAL_COLLECTOR_FLEET_SIDE_H
#define VINDRAL_COLLECTOR_FLEET_SIDE_H

#include "api/live_changes.h"
#include "fleet/keeper.h"
#include "life/options.h"
#include "show/output.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class fleet_side {
public:
    using log_function = std::function<void(const std::string&)>; /* on any thread */

    /* `shown` is told of plans and names, as long as this is there. */
    fleet_side(const options& o, event_hub& hub, result_output& shown, log_function log)
        : options_(o), log_(std::move(log)), shown_(shown), live_(hub, o.state_dir) {}
    ~fleet_side() { shown_.name_tests(nullptr); }

    /* What the store's thread is to tell. Hears nothing before open(). */
    store_listener& listener() { return heard_; }

    /* False with one line in `error`. `early`: what else is to be said, line by line. */
    bool open(known_secrets* secrets, settings* kept, std::vector<std::string>& early,
              std::string& error);

    /* Ahead of the end of the store. */
    void stop() {
        if (keeper_) {
            keeper_->stop();
        }
    }

    /* Null before open(). */
    fleet_keeper* keeper() const { return keeper_.get(); }

private:
    /* Passes on to the keeper, once there is one. */
    class late_listener : public store_listener {
    public:
        void set(store_listener* to) { to_ = to; }
        void on_record(const poll_block& from, const decoded_record& result) override;
        void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                            const std::string&) override {}
        void on_agent(int64_t id, std::string_view account, std::string_view agent,
                      const agent_state& now, std::span<const change> changes) override;
        void on_retired(int64_t id, std::string_view account, std::string_view agent,
                        int64_t time) override;
        void on_batch_end() override;

    private:
        std::atomic<store_listener*> to_ = nullptr;
    };

    const options& options_;
    const log_function log_;
    result_output& shown_;
    live_changes live_;
    std::unique_ptr<fleet_keeper> keeper_;
    late_listener heard_;
};

#endif
