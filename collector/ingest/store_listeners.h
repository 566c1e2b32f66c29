/* Several listeners to the store as one: each is told, in this order. */
#ifndef VINDRAL_COLLECTOR_STORE_LISTENERS_H
#define VINDRAL_COLLECTOR_STORE_LISTENERS_H

#include "ingest/ingest.h"

#include <utility>
#include <vector>

class store_listeners : public store_listener {
public:
    /* They outlive this. */
    explicit store_listeners(std::vector<store_listener*> all) : all_(std::move(all)) {}

    void on_record(const poll_block& from, const decoded_record& result) override {
        for (store_listener* each : all_) {
            each->on_record(from, result);
        }
    }
    void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                        const std::string& reason, const std::string& kept_as) override {
        for (store_listener* each : all_) {
            each->on_undecodable(from, offset, bytes, reason, kept_as);
        }
    }
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override {
        for (store_listener* each : all_) {
            each->on_agent(id, account, agent, now, changes);
        }
    }
    void on_event(const stored_event& event) override {
        for (store_listener* each : all_) {
            each->on_event(event);
        }
    }
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override {
        for (store_listener* each : all_) {
            each->on_retired(id, account, agent, time);
        }
    }
    void on_batch_end() override {
        for (store_listener* each : all_) {
            each->on_batch_end();
        }
    }
    void on_problem(const std::string& text) override {
        for (store_listener* each : all_) {
            each->on_problem(text);
        }
    }

private:
    const std::vector<store_listener*> all_;
};

#endif
