#include "life/fleet_side.h"

bool fleet_side::open(known_secrets* secrets, settings* kept, std::vector<std::string>& early,
                      std::string& error) {
    keeper_options wanted;
    wanted.directory = options_.state_dir;
    wanted.file = options_.fleet;
    wanted.secrets = secrets;
    wanted.kept = kept;
    wanted.log = log_;
    wanted.on_change = [this](const stored_change& what) { live_.tell(what); };
    wanted.on_plans = [this](std::vector<agent_summary> plans) {
        shown_.on_agent_plans(std::move(plans));
    };
    keeper_ = fleet_keeper::open(std::move(wanted), early, error);
    heard_.set(keeper_.get());
    shown_.name_tests(keeper_.get());
    return keeper_ != nullptr;
}

void fleet_side::late_listener::on_record(const poll_block& from, const decoded_record& result) {
    if (store_listener* to = to_) {
        to->on_record(from, result);
    }
}

void fleet_side::late_listener::on_agent(int64_t id, std::string_view account,
                                         std::string_view agent, const agent_state& now,
                                         std::span<const change> changes) {
    if (store_listener* to = to_) {
        to->on_agent(id, account, agent, now, changes);
    }
}

void fleet_side::late_listener::on_retired(int64_t id, std::string_view account,
                                           std::string_view agent, int64_t time) {
    if (store_listener* to = to_) {
        to->on_retired(id, account, agent, time);
    }
}

void fleet_side::late_listener::on_batch_end() {
    if (store_listener* to = to_) {
        to->on_batch_end();
    }
}
