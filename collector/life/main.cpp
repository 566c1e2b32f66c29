/* vindral-collector: options, start, stop. */
#include "base/files.h"
#include "base/text.h"
#include "ingest/ingest.h"
#include "ingest/server.h"
#include "ingest/short_of_memory.h"
#include "ingest/store_listeners.h"
#include "life/agents_side.h"
#include "life/announce.h"
#include "life/api_side.h"
#include "life/authority_commands.h"
#include "life/fleet_side.h"
#include "life/options.h"
#include "life/signals.h"
#include "life/store_commands.h"
#include "life/token_commands.h"
#include "plan/commands_for_agents.h"
#include "plan/summary.h"
#include "show/output.h"
#include "show/report.h"

#include <algorithm>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <ctime>
#include <iostream>
#include <sys/resource.h>
#include <unistd.h>

static int fail(const std::string& error) {
    std::cerr << "vindral-collector: " + printable(error) + "\n";
    return 1;
}

static int run_missing(const options& o) {
    missing_count count;
    std::string error;
    missing_age age{.now = time(nullptr)};
    if (o.older_than > 0) {
        age.older_than = o.older_than;
    }
    if (!print_missing(o.state_dir, o.plan, age, std::cout, count, error)) {
        fail(error);
        return 2;
    }
    return count.missing + count.silent + count.refused > 0 ? 1 : 0;
}

/* Gives the process all the descriptors it may have; returns how many. */
static size_t raise_descriptor_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur;
}

/* Of the descriptors, so that connections to the API leave no agent without one. */
static size_t web_connections(size_t descriptors) {
    return std::min(web_limits().connections, descriptors / 4);
}

static server_options server_options_from(const options& o, size_t descriptors) {
    server_options s;
    s.address = o.listen;
    s.port = o.port;
    s.allow = o.allow;
    s.end_refused = o.end_refused;
    s.max_connections = o.max_connections ? o.max_connections : default_connections(descriptors);
    s.max_per_address = o.max_per_address ? o.max_per_address : (s.max_connections + 7) / 8;
    s.body.max_wire = o.max_body_mb << 20;
    s.body.max_plain = s.body.max_wire * 16;
    s.body_memory = 8 * s.body.max_wire;
    s.large_memory = 8 * s.body.max_wire;
    s.max_behind = std::chrono::seconds(o.max_behind);
    s.logins.rate = o.max_logins;
    return s;
}

static std::string describe(const plan_problem& problem) {
    return "plan" + (problem.number ? " line " + std::to_string(problem.number) : "") + ": " +
           problem.reason;
}

/* Says where it listens, on standard error and in the port file, and what hosts need. A script that
 * waits for the file never sees half of it. */
static bool announce(const options& o, const server& collector, const identity_report& identity,
                     const std::string& more, result_output& output, std::string& error) {
    std::string text = announcement(o, identity, collector.where(), collector.port()) + more;
    std::cerr << text;
    output.on_ready(text);
    if (o.port_file.empty() ||
        replace_file(o.port_file, std::to_string(collector.port()) + "\n", 0666)) {
        return true;
    }
    error = system_error("cannot write " + o.port_file);
    return false;
}

/* What earlier runs stored. Null, and told, when it cannot be read: no reason not to go on. */
static std::unique_ptr<result_reader> open_stored(const std::string& directory,
                                                  result_output& output) {
    std::string error;
    std::unique_ptr<result_reader> stored = open_reader(directory, error);
    if (!stored) {
        output.on_problem("what is stored cannot be read: " + error);
    }
    return stored;
}

/* What the agents had reported when the last run ended. */
static known_tests read_known_tests(const std::string& directory, result_output& output) {
    known_tests earlier;
    std::string error;
    /* Ahead of the rows: what is not in these yet is there still. */
    if (!for_each_earlier_agent(
            directory,
            [&](std::string_view account, std::string_view agent,
                std::span<const left_test> tests) { earlier.add_left(account, agent, tests); },
            error)) {
        output.on_problem("what is stored cannot be read: " + error);
    }
    std::unique_ptr<result_reader> stored = open_stored(directory, output);
    agent_state state;
    auto add = [&](const known_agent& a) {
        if (a.retired == 0 && state.unpack(a.state)) {
            earlier.add(a.account, a.agent, state);
        }
    };
    if (stored && !stored->for_each_agent(add, error)) {
        output.on_problem("what is stored cannot be read: " + error);
    }
    return earlier;
}

/* As long as `what` returns true, and until the timer is cancelled. */
static void repeat(boost::asio::steady_timer& timer, std::chrono::seconds every,
                   const std::function<bool()>& what) {
    timer.expires_after(every);
    surely([&] {
        timer.async_wait([&timer, every, &what](boost::system::error_code failed) {
            bool again = !failed;
            try {
                again = again && what();
            } catch (const std::exception&) { /* no memory: the next time */
            }
            if (again) {
                repeat(timer, every, what);
            }
        });
    });
}

static int run_server(const options& o) {
    std::string error;
    /* It holds the key and what agents reported: its owner's business only. */
    if (!make_private_directory(o.state_dir) || access(o.state_dir.c_str(), W_OK | X_OK) != 0) {
        return fail(system_error("cannot use the state directory " + o.state_dir));
    }
    const output_kind shown = o.quiet      ? output_kind::quiet
                              : o.problems ? output_kind::problems
                                           : choose_output(STDOUT_FILENO, o.json);
    std::unique_ptr<result_output> output;
    try {
        output = make_output(shown);
    } catch (const std::system_error& e) {
        return fail("cannot start a thread: " + e.code().message());
    }
    std::vector<std::string> early; /* before the line "Listening on" */
    const auto report = [&](const std::string& line) {
        output->on_problem(utc_time(time(nullptr)) + " " + line);
    };
    agents_side identities(o, report);
    if (!identities.open_settings(early, error)) {
        return fail(error);
    }
    ingest_options keeping;
    keeping.hidden = identities.secrets() ? &identities.secrets()->hidden() : nullptr;
    keeping.directory = o.state_dir;
    keeping.keep_days = o.keep_days;
    keeping.keep_5min_days = o.keep_5min_days;
    keeping.keep_hour_days = o.keep_hour_days;
    keeping.keep_event_days = o.keep_event_days;
    keeping.keep_ledger_days = o.keep_ledger_days;
    keeping.keep_change_days = o.keep_change_days;
    counters counted;
    keeping.counted = &counted;
    keeping.max_large_queued = 24 * (o.max_body_mb << 20); /* what the server lets in at most */
    event_hub hub;
    live_messages live(hub, o.state_dir);
    fleet_side fleet(o, hub, *output, report); /* outlives the store's thread */
    store_listeners told({output.get(), &live, &fleet.listener()});
    std::unique_ptr<ingest> results = ingest::open(keeping, &told, error);
    if (!results) {
        return fail(error);
    }
    if (shown == output_kind::table) { /* the one kind that begins with what is stored */
        if (std::unique_ptr<result_reader> stored = open_stored(o.state_dir, *output)) {
            output->begin(*stored);
        }
    }
    if (!identities.open(early, error)) { /* after the store, which is one process' only */
        return fail(error);
    }
    bool listening = false;
    server::log_function log = [&](const std::string& line) {
        std::string text = utc_time(time(nullptr)) + " " + line;
        line.starts_with("login: ") || line.starts_with("certificate: ") ? output->on_note(text)
                                                                         : output->on_problem(text);
    };
    const bool is_planned = !o.plan.empty();
    const std::unique_ptr<fleet_side, void (*)(fleet_side*)> stopped(
        &fleet, [](fleet_side* what) { what->stop(); }); /* ahead of the store, at every return */
    plan lines(
        o.plan,
        [&](const plan_problem& problem) {
            listening ? log(describe(problem)) : early.push_back(describe(problem));
        },
        [&](const std::vector<plan_line>& taken) {
            plan_summary summary = summary_of(taken);
            output->on_plan(summary);
            results->follow(std::move(summary), definitions_of(taken));
        },
        is_planned ? identities.secrets() : nullptr);
    if (!lines.refresh()) {
        return fail(early.empty() ? "cannot read the plan " + o.plan : early.back());
    }
    if (!is_planned) {
        results->follow({}, {}); /* not what the last run had */
    }
    known_tests earlier;
    if (is_planned) {
        earlier = read_known_tests(o.state_dir, *output);
        if (earlier.left_out() > 0) {
            early.push_back(
                std::to_string(earlier.left_out()) +
                " tests of earlier runs are left out: taken out of the plan, they go on");
        }
    } else if (!fleet.open(identities.secrets(), identities.kept(), early, error) ||
               !fleet.keeper()->start(*results, error)) {
        for (const std::string& line : early) {
            fail(line);
        }
        return fail(error);
    }
    commands_for_agents planned(lines, std::move(earlier), log);
    instructions& commands = is_planned ? static_cast<instructions&>(planned) : *fleet.keeper();
    size_t descriptors = raise_descriptor_limit();
    size_t for_web = o.web_address.empty() ? 0 : web_connections(descriptors);
    server collector(server_options_from(o, descriptors - for_web), identities.shown(),
                     identities.known(), *results, commands, counted, log);
    boost::asio::signal_set signals(collector.context(), SIGINT, SIGTERM, SIGHUP);
    if (!collector.listen(error)) {
        return fail(error);
    }
    identities.listens_on(collector.port());
    api_side api(o, for_web, identities, *results, collector, hub, counted, fleet.keeper(), report);
    if (!o.web_address.empty() && !api.start(error)) {
        if (o.web_given) {
            return fail(error);
        }
        early.push_back("no API: " + error); /* agents can do without */
    }
    if (!announce(o, collector, identities.report(), api.announcement(), *output, error)) {
        return fail(error);
    }
    listening = true;
    std::for_each(early.begin(), early.end(), log);
    boost::asio::steady_timer look_timer(collector.context());
    bool ending = false;
    const std::function<void()> end = [&] {
        ending = true;
        look_timer.cancel();
        collector.stop();
    };
    const auto look_at_certificates = [&](bool in_any_case) {
        if (identities.read_again(in_any_case)) {
            collector.exchange_tls(identities.shown());
            api.exchange_tls();
        }
        collector.refresh_known([&] { return identities.read_secrets(); });
    };
    const std::function<void()> read_again = [&] {
        look_at_certificates(true);
        if (!is_planned) {
            fleet.keeper()->read_file();
            return;
        }
        log(lines.refresh() ? "plan read again" : "the plan cannot be read; the old one stays");
    };
    heed_signals(signals, end, read_again);
    const std::function<bool()> look = [&] {
        if (!ending) {
            look_at_certificates(false);
        }
        return !ending; /* run() would wait for the timer */
    };
    repeat(look_timer, std::chrono::seconds(20), look);
    collector.run();
    api.stop();
    fleet.stop();
    results.reset(); /* before the server that its thread may still be calling */
    output->finish();
    if (!o.port_file.empty()) {
        unlink(o.port_file.c_str());
    }
    return 0;
}

int main(int argc, char** argv) {
    options o;
    std::string text;
    switch (parse_options(argc, argv, o, text)) {
    case options_result::done:
        std::cout << text;
        return 0;
    case options_result::wrong:
        std::cerr << text;
        return 2;
    case options_result::run:
        break;
    }
    ignore_broken_pipes();
    switch (o.does) {
    case task::back_up:
        return run_backup(o);
    case task::restore:
        return run_restore(o);
    case task::check:
        return run_check(o);
    case task::add_token:
        return run_add_token(o);
    case task::list_tokens:
        return run_list_tokens(o);
    case task::remove_token:
        return run_remove_token(o);
    case task::make_link:
        return run_make_link(o);
    case task::show_authorities:
        return run_show_authorities(o);
    case task::renew_authority:
        return run_renew_authority(o);
    case task::finish_authority:
        return run_finish_authority(o);
    case task::collect:
        break;
    }
    return o.missing ? run_missing(o) : run_server(o);
}
