/* What came of each agent's tests, hour by hour. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"

#include <map>

namespace json = boost::json;

namespace {

constexpr int64_t usual_span_s = 86400;

const parameter_def list_parameters[] = {
    agent_parameter,
    {.name = "from",
     .kind = parameter_kind::time,
     .text = "Hours that begin at this time or later; a day before `to` when it is not given."},
    {.name = "to",
     .kind = parameter_kind::time,
     .text = "Hours that begin before this time; now when it is not given."},
    limit_parameter,
    next_parameter};

using hour_key = std::pair<int64_t, int64_t>; /* hour, agent */

/* The hour of each agent that is still being counted: in no table yet. */
std::map<hour_key, hour_counts> read_counted(result_reader& store, const api_request& asked,
                                             int64_t agent, int64_t from, int64_t to,
                                             std::string& error) {
    std::map<hour_key, hour_counts> counted;
    auto take = [&](const known_agent& row) {
        check_deadline(asked);
        std::optional<hour_counts> counts = packed_counts(row.state);
        if (counts && counts->hour >= from && counts->hour < to) {
            counted.emplace(hour_key(counts->hour, row.id), *counts);
        }
    };
    if (agent != 0) {
        store.read_agent(agent, take, error);
    } else {
        store.for_each_agent(take, error);
    }
    return counted;
}

class ledger_list {
public:
    ledger_list(result_reader& store, const api_request& asked, int64_t now)
        : store_(store), asked_(asked), limit_(limit_of(asked)), names_(store),
          agent_(agent_asked_for(store, asked)) {
        to_ = time_of(asked, "to").value_or(now + 1);
        from_ = time_of(asked, "from").value_or(to_ - usual_span_s);
        check_span(from_, to_);
        if (auto behind = place_of(asked, 2)) {
            behind_ = {number_in((*behind)[0]), number_in((*behind)[1])};
            from_ = std::max(from_, behind_.first);
        }
    }

    json::object read() {
        std::string error, reason;
        counted_ = read_counted(store_, asked_, agent_, from_, to_, error);
        auto take = [&](const ledger_row& row) {
            hour_key key(row.hour, row.agent);
            if (++looked_at_ % 256 == 0) {
                check_deadline(asked_);
            }
            if (!add_counted_before(key)) {
                return false;
            }
            hour_counts sum{row.hour, row.received, row.repeated, row.missing};
            auto more = counted_.find(key);
            if (more != counted_.end()) {
                sum.received += more->second.received;
                sum.repeated += more->second.repeated;
                sum.missing += more->second.missing;
                counted_.erase(more);
            }
            return add(row.agent, sum);
        };
        store_.for_each_ledger_row(agent_, from_, to_, take, reason);
        if (next_.empty()) {
            add_counted_before({INT64_MAX, INT64_MAX});
        }
        return list_of(asked_, std::move(items_), next_, error.empty() ? reason : error);
    }

private:
    /* Those that stand ahead of it. */
    bool add_counted_before(hour_key key) {
        while (!counted_.empty() && counted_.begin()->first < key) {
            auto first = counted_.begin();
            if (!add(first->first.second, first->second)) {
                return false;
            }
            counted_.erase(first);
        }
        return true;
    }

    bool add(int64_t agent, const hour_counts& counts) {
        hour_key key(counts.hour, agent);
        if (key <= behind_) {
            return true;
        }
        if (items_.size() == limit_) {
            next_ = next_text({std::to_string(last_.first), std::to_string(last_.second)});
            return false;
        }
        last_ = key;
        const agent_names::name& name = names_.of(agent);
        items_.push_back(json::object{{"agent", agent_reference(agent, name.account, name.agent)},
                                      {"hour", time_text(counts.hour)},
                                      {"expected", counts.received + counts.missing},
                                      {"received", counts.received},
                                      {"repeated", counts.repeated},
                                      {"missing", counts.missing}});
        return true;
    }

    result_reader& store_;
    const api_request& asked_;
    const size_t limit_;
    agent_names names_;
    const int64_t agent_;
    int64_t from_ = 0, to_ = 0;
    hour_key behind_{INT64_MIN, INT64_MIN}, last_{};
    std::map<hour_key, hour_counts> counted_;
    size_t looked_at_ = 0;
    json::array items_;
    std::string next_;
};

api_answer list_ledger(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    return answer_with(ledger_list(*store, asked, with.now()).read());
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/ledger",
     .least = role::viewer,
     .summary = "For each hour and agent how many results were expected, received, received again "
                "and missing, by hour.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "ledger",
     .status = 200,
     .handler = list_ledger}};

} // namespace

std::span<const route> ledger_routes() {
    return rows;
}
