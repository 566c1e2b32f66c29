/* vindral-collector: options, start, stop. */
#include "base/certificate.h"
#include "base/tls.h"
#include "base/text.h"
#include "ingest/server.h"
#include "life/options.h"
#include "plan/plan.h"
#include "show/output.h"
#include "show/report.h"
#include "store/store.h"

#include <algorithm>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sys/resource.h>
#include <unistd.h>

static int fail(const std::string& error) {
    std::cerr << "vindral-collector: " + error + "\n";
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

/* The state directory holds the key and what agents reported: its owner's business only. */
static bool prepare_state_dir(const std::string& path, std::string& error) {
    namespace fs = std::filesystem;
    std::error_code failed;
    if (fs::create_directories(path, failed)) {
        fs::permissions(path, fs::perms::owner_all, failed);
    }
    if (!failed && access(path.c_str(), W_OK | X_OK) != 0) {
        failed.assign(errno, std::generic_category());
    }
    if (failed) {
        error = "cannot use the state directory " + path + ": " + failed.message();
    }
    return !failed;
}

/* A script that waits for the file never sees half of it. */
static bool write_port_file(const std::string& path, uint16_t port, std::string& error) {
    std::string fresh = path + ".new";
    std::ofstream file(fresh);
    file << port << "\n";
    file.close();
    if (!file || rename(fresh.c_str(), path.c_str()) != 0) {
        error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

static server_options server_options_from(const options& o) {
    server_options s;
    s.address = o.listen;
    s.port = o.port;
    s.allow = o.allow;
    s.end_refused = o.end_refused;
    size_t descriptors = raise_descriptor_limit();
    s.max_connections = o.max_connections ? o.max_connections : default_connections(descriptors);
    s.max_per_address = o.max_per_address ? o.max_per_address : (s.max_connections + 7) / 8;
    s.body.max_wire = o.max_body_mb << 20;
    s.body.max_plain = s.body.max_wire * 16;
    s.body_memory = 8 * s.body.max_wire;
    s.large_memory = 8 * s.body.max_wire;
    return s;
}

/* The first signal to end lets the polls under way finish. */
static void handle_signals(boost::asio::signal_set& signals, server& collector, plan& commands,
                           const server::log_function& log) {
    signals.async_wait([&](boost::system::error_code failed, int number) {
        if (failed) {
            return;
        }
        if (number != SIGHUP) {
            collector.stop();
            return;
        }
        bool fine = commands.refresh();
        log(fine ? "plan read again" : "the plan cannot be read; the old one stays");
        handle_signals(signals, collector, commands, log);
    });
}

/* The address to listen on, when it is one that a certificate can name. */
static std::vector<std::string> listening_name(const options& o) {
    bool any = o.listen == "0.0.0.0" || o.listen == "::" || !is_server_name(o.listen);
    return any ? std::vector<std::string>() : std::vector<std::string>{o.listen};
}

/* The key pair of the state directory unless one is given, and the context made from that. */
static tls_context prepare_tls(const options& o, identity_report& report, std::string& error) {
    identity_files identity{o.cert, o.key};
    std::vector<std::string> names = o.names;
    for (const std::string& name : listening_name(o)) {
        names.push_back(name);
    }
    if (!o.cert.empty()) {
        report = report_identity(identity);
    } else if (!ensure_identity(o.state_dir, names, identity, report, error)) {
        return nullptr;
    }
    return make_tls_context(identity, error);
}

/* What agents may call this server: no IPv6 address, which they cannot use. */
static std::string name_for_agents(const options& o, const identity_report& report) {
    std::vector<std::string> candidates = o.names;
    if (!o.cert.empty()) {
        candidates = report.names;
    } else if (o.listen == "::1") {
        candidates.push_back("127.0.0.1");
    } else {
        for (const std::string& name : listening_name(o)) {
            candidates.push_back(name);
        }
    }
    auto usable = [](const std::string& name) { return name.find_first_of(":*") == name.npos; };
    auto found = std::find_if(candidates.begin(), candidates.end(), usable);
    return found != candidates.end() ? *found : own_host_name();
}

/* What makes a host report here: two lines, and a copy of a file. It is named by its whole path,
 * which holds wherever it is read. */
static std::string lines_for_hosts(const options& o, const identity_report& report, uint16_t port) {
    auto whole_path = [](const std::string& path) {
        std::error_code failed;
        std::string whole = std::filesystem::absolute(path, failed).string();
        return failed ? path : whole;
    };
    std::string certificate = o.cert.empty() ? o.state_dir + "/certificate.pem" : o.cert;
    std::string authority =
        report.authority.empty()
            ? "the certificate of the authority that signed " + whole_path(certificate)
            : whole_path(report.authority);
    return "A host needs two lines in its vindral.conf:\n  USEHOST  https://" +
           name_for_agents(o, report) + ":" + std::to_string(port) +
           "/fcgi-bin/agentgateway\n  CAFILE   /etc/vindral-ca.pem\n"
           "and, as that file, a copy of\n  " +
           authority + "\n";
}

static std::string describe(const plan_problem& problem) {
    return "plan" + (problem.number ? " line " + std::to_string(problem.number) : "") + ": " +
           problem.reason;
}

/* Says where it listens, on standard error and in the port file, and what hosts need. */
static bool announce(const options& o, const server& collector, const identity_report& report,
                     result_output& output, std::string& error) {
    std::string text;
    for (const std::string& note : report.notes) {
        text += "vindral-collector: " + note + "\n";
    }
    text += "Listening on " + collector.where() + "\n";
    text += lines_for_hosts(o, report, collector.port());
    std::cerr << text;
    output.on_ready(text);
    return o.port_file.empty() || write_port_file(o.port_file, collector.port(), error);
}

static int run_server(const options& o) {
    std::string error;
    if (!prepare_state_dir(o.state_dir, error)) {
        return fail(error);
    }
    std::unique_ptr<result_output> output =
        make_output(o.quiet      ? output_kind::quiet
                    : o.problems ? output_kind::problems
                                 : choose_output(STDOUT_FILENO, o.json));
    store_options keeping{.directory = o.state_dir, .keep_days = o.keep_days};
    keeping.max_large_queued = 24 * (o.max_body_mb << 20); /* what the server lets in at most */
    std::unique_ptr<store> results = store::open(keeping, output.get(), error);
    if (!results) {
        return fail(error);
    }
    output->begin(*results);
    identity_report identity;
    tls_context tls =
        prepare_tls(o, identity, error); /* after the store, which is one process' only */
    if (!tls) {
        return fail(error);
    }
    std::vector<std::string> early; /* about the plan, before the line "Listening on" */
    bool listening = false;
    server::log_function log = [&](const std::string& line) {
        std::string text = utc_time(time(nullptr)) + " " + line;
        line.starts_with("login: ") ? output->on_note(text) : output->on_problem(text);
    };
    plan commands(
        o.plan,
        [&](const plan_problem& problem) {
            listening ? log(describe(problem)) : early.push_back(describe(problem));
        },
        [&](const std::vector<plan_line>& lines) { output->on_plan(lines); });
    if (!commands.refresh()) {
        return fail(early.empty() ? "cannot read the plan " + o.plan : early.back());
    }
    server collector(server_options_from(o), tls.get(), *results, commands, log);
    known_tests earlier;
    results->for_each_latest([&](const latest_result& latest) { earlier.add(latest); });
    if (earlier.left_out() > 0) {
        early.push_back(std::to_string(earlier.left_out()) +
                        " tests of earlier runs are left out: taken out of the plan, they go on");
    }
    collector.remember(std::move(earlier));
    boost::asio::signal_set signals(collector.context(), SIGINT, SIGTERM, SIGHUP);
    if (!collector.listen(error) || !announce(o, collector, identity, *output, error)) {
        return fail(error);
    }
    listening = true;
    std::for_each(early.begin(), early.end(), log);
    handle_signals(signals, collector, commands, log);
    collector.run();
    results.reset(); /* before the server that its thread may still be calling */
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
    signal(SIGPIPE, SIG_IGN);
    return o.missing ? run_missing(o) : run_server(o);
}
