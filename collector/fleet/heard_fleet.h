/* What comes of the agents. The store's thread: what a block says is noted while its records are
 * told of, without the mutex, and taken behind the last one. In most blocks nothing is noted. */
#ifndef VINDRAL_COLLECTOR_FLEET_HEARD_FLEET_H
#define VINDRAL_COLLECTOR_FLEET_HEARD_FLEET_H

#include "fleet/fleet_state.h"
#include "ingest/ingest.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class heard_fleet : public store_listener {
public:
    explicit heard_fleet(fleet_state& state) : state_(state) {}

    void on_record(const poll_block& from, const decoded_record& result) override;
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_agent(int64_t id, std::string_view account, std::string_view agent,
                  const agent_state& now, std::span<const change> changes) override;
    void on_retired(int64_t id, std::string_view account, std::string_view agent,
                    int64_t time) override;
    void on_batch_end() override { block_ = {}; }

private:
    struct seen_test {
        test_key test;
        int32_t location = 0;
        double whole_gb = 0; /* 0: it has none */
        bool is_given = false;
        bool is_other = false; /* not what the agent is known to have */
    };
    struct seen_block {
        const poll_block* from = nullptr; /* null: none is being told of */
        kept_agent* of = nullptr;         /* null: it is not kept */
        std::shared_ptr<const given_agent> given;
        std::vector<std::pair<uint32_t, std::string>> inventories; /* that are others */
        std::vector<seen_test> tests;                              /* of which something follows */
        int32_t highest = 0;
        bool has_disks = false, has_interfaces = false; /* inventories of them */
    };
    void begin_block(const poll_block& from);
    void note_result(const decoded_record& result, test_key test);
    void end_block(kept_agent& of);
    void take_seen(kept_agent& of, moment at);
    static void put_right(kept_agent& of, const std::vector<test_key>& others, moment at);
    void take_stray(kept_agent& of, test_key test,
                    const std::function<assigned_agent&()>& changing);

    fleet_state& state_;
    seen_block block_;
};

#endif
