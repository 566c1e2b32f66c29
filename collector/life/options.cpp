#include "life/options.h"

#include "base/certificate.h"

#include <algorithm>
#include <charconv>
#include <getopt.h>
#include <limits>

static const char usage[] =
    R"(Usage: vindral-collector [OPTION]...
Collection server for vindral agents: takes their results, keeps them in a
database in the state directory and sends the agents the tests of a plan.

  --listen ADDRESS        IPv4 or IPv6 address to listen on (127.0.0.1)
  --port N                port to listen on (8443); 0 picks a free one
  --port-file FILE        write the port to FILE once it is open
  --state-dir DIR         database, certificate and key
                          (/var/lib/vindral-collector)
  --plan FILE             commands for the agents, one a line
  --cert FILE --key FILE  certificate chain and private key, PEM; without them
                          a pair is made in the state directory, signed by an
                          authority of its own, ca.pem
  --name NAME             host name or address by which agents reach this one,
                          for that certificate; repeat for more
  --allow EMAIL           account that may log in; repeat for more (all)
  --end-refused           end the agents of other accounts, for good and with
                          what they have not sent; otherwise they try again
  --json                  one JSON object a line on standard output
  --problems              on standard output only results that are not ok: when
                          that begins, becomes another and ends
  --quiet                 no results on standard output
  --keep-days N           days of results to keep (30); 0 keeps all
  --max-connections N     connections at a time (from the descriptor limit)
  --max-per-address N     of these from one address: an IPv4 address or an
                          IPv6 /64 (an eighth)
  --max-body-mb N         largest body of a poll in MiB, as sent (16)
  --missing               list which tests of --plan have reported and which
                          have not, then exit; status 1 when any has not
  --older-than DURATION   with --missing: results received longer ago do not
                          count, and agents of which nothing came since are
                          listed as silent; 90s, 15m, 2h, 1d
  --version               print the version and exit
  --help                  print this text and exit

SIGINT and SIGTERM end it after the polls under way; SIGHUP reads the plan
again (it is also read whenever it has changed).
)";

namespace {
enum long_only {
    opt_listen = 256,
    opt_port,
    opt_port_file,
    opt_state_dir,
    opt_plan,
    opt_cert,
    opt_key,
    opt_name,
    opt_allow,
    opt_end_refused,
    opt_json,
    opt_problems,
    opt_quiet,
    opt_keep_days,
    opt_max_connections,
    opt_max_per_address,
    opt_max_body_mb,
    opt_missing,
    opt_older_than,
    opt_version,
    opt_help,
};
} // namespace

static const option long_options[] = {
    {"listen", required_argument, nullptr, opt_listen},
    {"port", required_argument, nullptr, opt_port},
    {"port-file", required_argument, nullptr, opt_port_file},
    {"state-dir", required_argument, nullptr, opt_state_dir},
    {"plan", required_argument, nullptr, opt_plan},
    {"cert", required_argument, nullptr, opt_cert},
    {"key", required_argument, nullptr, opt_key},
    {"name", required_argument, nullptr, opt_name},
    {"allow", required_argument, nullptr, opt_allow},
    {"end-refused", no_argument, nullptr, opt_end_refused},
    {"json", no_argument, nullptr, opt_json},
    {"problems", no_argument, nullptr, opt_problems},
    {"quiet", no_argument, nullptr, opt_quiet},
    {"keep-days", required_argument, nullptr, opt_keep_days},
    {"max-connections", required_argument, nullptr, opt_max_connections},
    {"max-per-address", required_argument, nullptr, opt_max_per_address},
    {"max-body-mb", required_argument, nullptr, opt_max_body_mb},
    {"missing", no_argument, nullptr, opt_missing},
    {"older-than", required_argument, nullptr, opt_older_than},
    {"version", no_argument, nullptr, opt_version},
    {"help", no_argument, nullptr, opt_help},
    {nullptr, 0, nullptr, 0},
};

/* A whole decimal number from `low` to `high`; otherwise `text` says what was wrong with `name`. */
template <typename T>
static bool parse_number(const char* name, std::string_view value, T low, T high, T& out,
                         std::string& text) {
    T number{};
    auto [end, failed] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (failed != std::errc() || end != value.data() + value.size() || number < low ||
        number > high) {
        text = std::string("--") + name + " takes a number from " + std::to_string(low) + " to " +
               std::to_string(high) + ", not \"" + std::string(value) + "\"";
        return false;
    }
    out = number;
    return true;
}

/* A whole number and its unit, in seconds; otherwise `text` says what was wrong with `name`. */
static bool parse_duration(const char* name, std::string_view value, int64_t& out,
                           std::string& text) {
    static const struct {
        char name;
        int64_t seconds;
    } units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    constexpr int64_t most = int64_t{36500} * 86400;
    int64_t number = 0;
    auto [end, failed] = std::from_chars(value.data(), value.data() + value.size(), number);
    for (const auto& unit : units) {
        if (failed == std::errc() &&
            std::string_view(end, value.data() + value.size()) == std::string_view(&unit.name, 1) &&
            number > 0 && number <= most / unit.seconds) {
            out = number * unit.seconds;
            return true;
        }
    }
    text = std::string("--") + name + " takes a number and a unit, as 90s, 15m, 2h or 1d, not \"" +
           std::string(value) + "\"";
    return false;
}

/* What only the whole command line can show. Empty when all is well. */
static std::string find_conflict(const options& o) {
    if (o.cert.empty() != o.key.empty()) {
        return "--cert and --key belong together";
    }
    if (!o.cert.empty() && !o.names.empty()) {
        return "--name is for a certificate that is made, not for --cert";
    }
    if (o.end_refused && o.allow.empty()) {
        return "--end-refused needs --allow";
    }
    if (o.missing && o.plan.empty()) {
        return "--missing needs --plan";
    }
    if (o.older_than > 0 && !o.missing) {
        return "--older-than needs --missing";
    }
    return "";
}

static options_result usage_error(std::string& text) {
    text = "vindral-collector: " + text + "\nTry 'vindral-collector --help'.\n";
    return options_result::wrong;
}

options_result parse_options(int argc, char** argv, options& out, std::string& text) {
    constexpr size_t most_connections = 1000000;
    optind = 0; /* start afresh: a test calls this many times */
    opterr = 0;
    for (;;) {
        int option_index = 0;
        int at = optind == 0 ? 1 : optind;
        int opt = getopt_long(argc, argv, "+:", long_options, &option_index);
        if (opt == -1) {
            break;
        }
        const char* name = long_options[option_index].name;
        bool fine = true;
        switch (opt) {
        case opt_listen:
            out.listen = optarg;
            break;
        case opt_port:
            fine = parse_number<uint16_t>(name, optarg, 0, 65535, out.port, text);
            break;
        case opt_port_file:
            out.port_file = optarg;
            break;
        case opt_state_dir:
            out.state_dir = optarg;
            break;
        case opt_plan:
            out.plan = optarg;
            break;
        case opt_cert:
            out.cert = optarg;
            break;
        case opt_key:
            out.key = optarg;
            break;
        case opt_name:
            out.names.emplace_back(optarg);
            fine = is_server_name(optarg);
            text = fine ? ""
                        : std::string("--name takes a host name or an address, not \"") + optarg +
                              "\"";
            break;
        case opt_allow:
            out.allow.emplace_back(optarg);
            fine = *optarg != 0;
            text = fine ? "" : "--allow takes an e-mail address";
            break;
        case opt_end_refused:
            out.end_refused = true;
            break;
        case opt_json:
            out.json = true;
            out.problems = false;
            break;
        case opt_problems:
            out.problems = true;
            out.json = false;
            break;
        case opt_quiet:
            out.quiet = true;
            break;
        case opt_keep_days:
            fine = parse_number(name, optarg, 0, 36500, out.keep_days, text);
            break;
        case opt_max_connections:
            fine =
                parse_number<size_t>(name, optarg, 1, most_connections, out.max_connections, text);
            break;
        case opt_max_per_address:
            fine =
                parse_number<size_t>(name, optarg, 1, most_connections, out.max_per_address, text);
            break;
        case opt_max_body_mb:
            fine = parse_number<size_t>(name, optarg, 1, 64, out.max_body_mb, text);
            break;
        case opt_missing:
            out.missing = true;
            break;
        case opt_older_than:
            fine = parse_duration(name, optarg, out.older_than, text);
            break;
        case opt_version:
            text = "vindral-collector " VINDRAL_VERSION "\n";
            return options_result::done;
        case opt_help:
            text = usage;
            return options_result::done;
        case ':':
            text = std::string(argv[at]) + " needs a value";
            fine = false;
            break;
        default:
            text = std::string("unknown option ") + argv[at];
            fine = false;
        }
        if (!fine) {
            return usage_error(text);
        }
    }
    text = optind < argc ? std::string("unexpected argument \"") + argv[optind] + "\""
                         : find_conflict(out);
    return text.empty() ? options_result::run : usage_error(text);
}

size_t default_connections(size_t descriptors) {
    constexpr size_t ours = 64; /* database, logs, listener, plan and some air */
    /* As many as one core serves within the 15 seconds that an agent waits: those beyond are better
     * told at once. */
    constexpr size_t plenty = 10000;
    return std::clamp<size_t>(descriptors > ours ? descriptors - ours : 0, 16, plenty);
}
