/* Measurements for Prometheus: the collector's own, and the last values of the agents' tests. */
#include "api/find.h"
#include "api/last_results.h"
#include "api/metric_text.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "api/standings.h"
#include "base/process.h"
#include "base/record_summary.h"
#include "base/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <utility>

namespace {

/* Of the lines about tests: with the others well below what an answer may have. A test makes it
 * less. */
size_t most_fleet_bytes = 24u << 20;
constexpr size_t longest_test_name = 200;

const parameter_def metric_parameters[] = {
    {.name = "fleet",
     .kind = parameter_kind::flag,
     .text = "Also the state and the last values of the tests of all agents."},
    {.name = "agent",
     .kind = parameter_kind::text,
     .text = "With fleet: only of this agent, its id or \"account/name\"."},
    {.name = "type",
     .kind = parameter_kind::choice,
     .text = "With fleet: only tests of these types.",
     .choices = type_parameter.choices,
     .many = true}};

void add_count(metric_text& to, std::string_view name, std::string_view unit, std::string_view help,
               const counter& count) {
    to.one(name, metric_type::counter, unit, help, static_cast<double>(count.get()));
}

void add_gauge(metric_text& to, std::string_view name, std::string_view unit, std::string_view help,
               double value) {
    to.one(name, metric_type::gauge, unit, help, value);
}

void add_gauge(metric_text& to, std::string_view name, std::string_view unit, std::string_view help,
               const counter& now) {
    add_gauge(to, name, unit, help, static_cast<double>(now.get()));
}

/* ---- the collector ---- */

void add_process(metric_text& to, const std::string& version) {
    to.begin("vindral_collector_build", metric_type::information, "",
             "Which version the collector is.");
    to.add(1, label_text({{"version", version}}));
    const process_figures now = read_process_figures();
    add_gauge(to, "process_start_time_seconds", "seconds",
              "When the process was started, in seconds since the epoch.", now.started);
    to.one("process_cpu_seconds", metric_type::counter, "seconds",
           "Processor time of user and system.", now.cpu_seconds);
    add_gauge(to, "process_resident_memory_bytes", "bytes", "Memory that the process has.",
              static_cast<double>(now.resident_bytes));
    add_gauge(to, "process_open_fds", "", "Descriptors that are open.",
              static_cast<double>(now.descriptors));
    add_gauge(to, "process_max_fds", "", "Descriptors that may be open.",
              static_cast<double>(now.most_descriptors));
}

void add_agents_side(metric_text& to, const counters& all) {
    add_count(to, "vindral_connections", "", "Connections on the agents' port that were accepted.",
              all.connections);
    add_gauge(to, "vindral_open_connections", "", "Connections on the agents' port now.",
              all.open_connections);
    add_gauge(to, "vindral_sessions", "", "Agents that are logged in.", all.sessions);
    add_count(to, "vindral_logins", "", "Logins that were answered with a session.", all.logins);
    add_count(to, "vindral_polls", "", "Polls that were answered, repeated ones left out.",
              all.polls);
    add_count(to, "vindral_repeated_polls", "",
              "Polls whose results had been stored before: their answer was lost.",
              all.repeated_polls);
    to.begin("vindral_refusals", metric_type::counter, "",
             "Connections and exchanges that were refused or given up.");
    for (size_t i = 0; i < all.refusals.size(); i++) {
        to.add(static_cast<double>(all.refusals[i].get()),
               label_text({{"reason", refusal_word(static_cast<refusal>(i))}}));
    }
    add_count(to, "vindral_received_bytes", "bytes", "Bodies of polls, as they were sent.",
              all.body_bytes);
}

void add_storing(metric_text& to, const counters& all, queue_load waiting, queue_delay behind) {
    add_gauge(to, "vindral_queue_bytes", "bytes", "Results that wait to be stored.",
              static_cast<double>(waiting.bytes));
    add_gauge(to, "vindral_queue_blocks", "", "Polls whose results wait to be stored.",
              static_cast<double>(waiting.blocks));
    add_gauge(to, "vindral_behind_seconds", "seconds",
              "How long the oldest results that wait to be stored have waited.",
              std::chrono::duration<double>(std::max(behind.small, behind.large)).count());
    to.begin("vindral_commit_duration_seconds", metric_type::histogram, "seconds",
             "How long storing what waited took, from the begin to the commit.");
    to.add(all.commits);
    to.begin("vindral_storing_lag_seconds", metric_type::histogram, "seconds",
             "How long the results of a poll waited from their arrival to the commit.");
    to.add(all.waited);
    add_count(to, "vindral_results", "", "Records of results that were stored.", all.results);
    add_count(to, "vindral_undecodable_records", "", "Pieces of polls that were no records.",
              all.undecodable);
    add_count(to, "vindral_stored_bytes", "bytes", "Records that were stored.", all.stored_bytes);
    add_count(to, "vindral_store_failures", "",
              "Polls whose results could not be stored when they came; the agents keep them.",
              all.store_failures);
    add_count(to, "vindral_events", "", "Changes of state that were stored.", all.events);
}

/* Names, not agents in the store: one that waits may never have polled. */
void add_identities(metric_text& to, const known_agents& agents, int64_t now) {
    std::array<uint64_t, identity_states> counts{};
    uint64_t ending = 0;
    for (const agent_standing& each : agents.all()) {
        counts[static_cast<size_t>(state_of(each))]++;
        const int64_t ends = each.kept.ends;
        ending += each.kept.revoked == 0 && ends > now && ends <= now + ends_soon_s ? 1 : 0;
    }
    to.begin("vindral_identities", metric_type::gauge, "",
             "Names of agents by how far they are let in.");
    for (identity_state s :
         {identity_state::waiting, identity_state::invited, identity_state::known,
          identity_state::proven, identity_state::revoked}) {
        to.add(static_cast<double>(counts[static_cast<size_t>(s)]),
               label_text({{"state", identity_word(s)}}));
    }
    add_gauge(to, "vindral_certificates_ending", "",
              "Certificates of agents that end within 30 days and have not been renewed.",
              static_cast<double>(ending));
}

/* What agents are to do, and whether they do it. */
void add_fleet(metric_text& to, const fleet_service* fleet) {
    if (fleet == nullptr) {
        return;
    }
    const fleet_standing now = fleet->standing();
    if (now.is_planned) {
        return;
    }
    add_gauge(to, "vindral_fleet_revision", "", "Newest revision of the fleet.", now.revision);
    add_gauge(to, "vindral_fleet_agents", "", "Agents that are to have tests.",
              static_cast<double>(now.agents));
    add_gauge(to, "vindral_fleet_tests", "", "Tests that all agents together are to have.",
              static_cast<double>(now.tests));
    add_gauge(to, "vindral_fleet_file_wrong", "",
              "1 when the file that rules has mistakes now, otherwise 0.",
              now.file_trouble.empty() ? 0 : 1);
    to.begin("vindral_fleet_changes", metric_type::gauge, "",
             "The newest change of each test by what became of it.");
    for (const auto& [count, word] :
         {std::pair(now.waiting, "waiting"), std::pair(now.sent, "sent"),
          std::pair(now.confirmed, "confirmed"), std::pair(now.unanswered, "unanswered"),
          std::pair(now.impossible, "impossible")}) {
        to.add(static_cast<double>(count), label_text({{"outcome", word}}));
    }
}

void add_place(metric_text& to, const std::string& file) {
    struct stat found {};
    if (stat(file.c_str(), &found) == 0) {
        auto bytes = static_cast<double>(found.st_size);
        if (stat((file + "-wal").c_str(), &found) == 0) {
            bytes += static_cast<double>(found.st_size);
        }
        add_gauge(to, "vindral_store_size_bytes", "bytes",
                  "Size of the results' database with its log.", bytes);
    }
    struct statvfs disk {};
    if (statvfs(file.c_str(), &disk) == 0) {
        add_gauge(to, "vindral_store_free_bytes", "bytes",
                  "What is free on the disk of the results' database.",
                  static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize));
    }
}

/* ---- the agents ---- */

constexpr size_t states = static_cast<size_t>(state::silent) + 1;
using state_counts = std::array<uint64_t, states>;

/* Of what is not retired. */
struct fleet_counts {
    state_counts agents{}, tests{};

    void add(const agent_state& now) {
        agents[static_cast<size_t>(now.worst())]++;
        for (const test_status& test : now.tests) {
            if (test.number) {
                tests[static_cast<size_t>(shown_state(now, test))]++;
            }
        }
    }
};

void add_states(metric_text& to, std::string_view name, std::string_view help,
                const state_counts& counts, state last) {
    to.begin(name, metric_type::gauge, "", help);
    for (size_t i = 0; i <= static_cast<size_t>(last); i++) {
        to.add(static_cast<double>(counts[i]),
               label_text({{"state", state_word(static_cast<state>(i))}}));
    }
}

/* The lines about tests, agent by agent; those of a family stand together in the end. */
class fleet_lines {
public:
    fleet_lines(result_reader& store, const api_request& asked)
        : asked_(asked), agent_(agent_asked_for(store, asked)), types_(asked, "type"),
          definitions_(store), last_(store) {}

    void add(const known_agent& row, const agent_state& now) {
        if (agent_ != 0 && row.id != agent_) {
            return;
        }
        for (const test_status& test : now.tests) {
            if (!test.number || (types_.is_given() && !types_.has(type_name(test.type)))) {
                continue;
            }
            check_deadline(asked_);
            if (values_.size() + states_.size() + times_.size() > most_fleet_bytes) {
                left_out_++;
            } else {
                add_test(row, now, test);
            }
        }
    }

    /* And has them no more. */
    void write(metric_text& to) {
        to.begin("vindral_test_state", metric_type::gauge, "",
                 "The state that a test is in has the value 1; others have none.");
        to.add_lines(std::exchange(states_, {}));
        to.begin("vindral_test_last_result_timestamp_seconds", metric_type::gauge, "seconds",
                 "When the last result of a test was found, in seconds since the epoch.");
        to.add_lines(std::exchange(times_, {}));
        to.begin("vindral_value", metric_type::gauge, "",
                 "The values of a test's last result, as long as the test is ok or a problem.");
        to.add_lines(std::exchange(values_, {}));
        add_gauge(to, "vindral_tests_left_out", "",
                  "Tests for which there was no room in this answer: ask by agent or type.",
                  static_cast<double>(left_out_));
    }

    /* Why not everything could be read. */
    const std::string& error() const { return error_; }

private:
    void add_test(const known_agent& row, const agent_state& now, const test_status& test) {
        const state shown = shown_state(now, test);
        const definition_pointer what = definitions_.of(row.id, test, error_);
        const std::string labels = label_text(
            {{"account", row.account},
             {"agent", row.agent},
             {"test", shortened(valid_utf8(test_name(test.type, test.number, what.get())),
                                longest_test_name)},
             {"type", type_name(test.type)},
             {"number", std::to_string(test.number.value_or(0))}});
        append_sample(states_, "vindral_test_state",
                      labels + "," + label_text({{"state", state_word(shown)}}), 1);
        if (test.time != 0) {
            append_sample(times_, "vindral_test_last_result_timestamp_seconds", labels,
                          static_cast<double>(test.time));
        }
        if (shown == state::ok || shown == state::problem) {
            add_values(labels, test);
        }
    }

    void add_values(const std::string& labels, const test_status& test) {
        std::set<std::string> names; /* twice the same line would be an error to who reads it */
        for (const result_value& each : last_.of(test, error_).values) {
            std::string name = value_name(test.type, each.id);
            if (names.insert(name).second) {
                append_sample(
                    values_, "vindral_value",
                    labels + "," +
                        label_text({{"value", name}, {"unit", value_unit(test.type, each.id)}}),
                    each.value);
            }
        }
    }

    const api_request& asked_;
    const int64_t agent_;
    const chosen types_;
    definition_reader definitions_;
    last_results last_;
    std::string states_, times_, values_;
    uint64_t left_out_ = 0;
    std::string error_;
};

/* Reads all agents. False with the reason in `error` when not all could be read. `fleet` may be
 * null. */
bool read_agents(result_reader& store, const api_request& asked, fleet_counts& counts,
                 fleet_lines* fleet, std::string& error) {
    agent_state now;
    std::string damaged;
    auto take = [&](const known_agent& row) {
        check_deadline(asked);
        if (row.retired != 0) {
            return;
        }
        if (!now.unpack(row.state) && damaged.empty()) {
            damaged = "the state of an agent is damaged";
        }
        counts.add(now);
        if (fleet != nullptr) {
            fleet->add(row, now);
        }
    };
    bool ok = store.for_each_agent(take, error);
    if (ok && fleet != nullptr) {
        damaged = damaged.empty() ? fleet->error() : damaged;
    }
    error = ok ? damaged : error;
    return error.empty();
}

/* What the store has. A collector that cannot read it has to say so all the same; but who wants the
 * fleet is told by a problem, rather than by values that end, and so is who has waited too long:
 * that is no word about the store. */
void add_stored(metric_text& to, const api_request& asked, api_services& with) {
    const bool with_fleet = is_set(asked, "fleet");
    fleet_counts counts;
    bool is_whole = false;
    try {
        reader_pool::lent store = with.stored.lend(asked.deadline);
        add_place(to, store->place());
        std::optional<fleet_lines> fleet;
        if (with_fleet) {
            fleet.emplace(*store, asked);
        }
        std::string error;
        is_whole = read_agents(*store, asked, counts, fleet ? &*fleet : nullptr, error);
        if (!is_whole) {
            check_deadline(asked);
        }
        add_states(to, "vindral_agents", "Agents by state, retired ones left out.", counts.agents,
                   state::silent);
        add_states(to, "vindral_tests", "Tests by state; those of silent agents are unknown.",
                   counts.tests, state::stale);
        if (fleet) {
            fleet->write(to);
        }
    } catch (const problem&) {
        check_deadline(asked);
        if (with_fleet) {
            throw;
        }
    }
    add_gauge(to, "vindral_store_readable", "",
              "1 when all agents' states could be read from the database, otherwise 0.",
              is_whole ? 1 : 0);
}

api_answer metrics(const api_request& asked, api_services& with) {
    const metric_format format = metric_format_of(asked.accept);
    metric_text text(format);
    add_process(text, with.version);
    add_agents_side(text, with.counted);
    add_storing(text, with.counted, with.results.waiting(), with.results.behind());
    add_identities(text, with.agents, with.now());
    add_fleet(text, with.fleet);
    add_stored(text, asked, with);
    api_answer answer;
    answer.type = format == metric_format::open_metrics ? open_metrics_type : metric_text_type;
    answer.body = text.take();
    return answer;
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/metrics",
     .least = role::viewer,
     .summary = "What the collector counts of itself, and with `fleet` the last value of each "
                "test, for Prometheus. In the older text format where Accept wants that.",
     .parameters = metric_parameters,
     .takes = "",
     .answers = "metrics",
     .status = 200,
     .handler = metrics,
     .type = open_metrics_type,
     .other_type = metric_text_type}};

} // namespace

std::span<const route> metric_routes() {
    return rows;
}
