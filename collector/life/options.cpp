#include "life/options.h"

#include "base/certificate.h"

#include <algorithm>
#include <charconv>
#include <getopt.h>
#include <iterator>
#include <string_view>
#include <utility>

namespace {

struct row;

/* Takes the value of an option, or says in `text` what is wrong with it. */
using setter = options_result (*)(const row& of, const char* value, options& out,
                                  std::string& text);

struct row {
    const char* name;
    const char* value; /* what --help calls its value; null: it has none */
    setter set;
    const char* help; /* "{}" stands for the default; null: the row before speaks for both */
    const char* standard = nullptr; /* the default, as it would be given */
    uint64_t low = 0, high = 0;     /* of a number */
};

options_result complain(const row& of, const std::string& wants, std::string& text) {
    text = std::string("--") + of.name + " takes " + wants;
    return options_result::wrong;
}

std::string not_this(const char* value) {
    return std::string(", not \"") + value + "\"";
}

template <auto member>
options_result set_text(const row&, const char* value, options& out, std::string&) {
    out.*member = value;
    return options_result::run;
}

template <auto member>
options_result set_flag(const row&, const char*, options& out, std::string&) {
    out.*member = true;
    return options_result::run;
}

/* Of the two the later one counts. */
template <auto member, auto other>
options_result set_instead(const row&, const char*, options& out, std::string&) {
    out.*member = true;
    out.*other = false;
    return options_result::run;
}

/* A whole decimal number within the row's bounds. */
template <auto member>
options_result set_number(const row& of, const char* value, options& out, std::string& text) {
    std::string_view digits = value;
    std::remove_reference_t<decltype(out.*member)> number = 0;
    auto [end, failed] = std::from_chars(digits.begin(), digits.end(), number);
    if (failed != std::errc() || end != digits.end() || std::cmp_less(number, of.low) ||
        std::cmp_greater(number, of.high)) {
        return complain(of,
                        "a number from " + std::to_string(of.low) + " to " +
                            std::to_string(of.high) + not_this(value),
                        text);
    }
    out.*member = number;
    return options_result::run;
}

/* A whole number and its unit, kept in seconds. */
template <auto member>
options_result set_duration(const row& of, const char* value, options& out, std::string& text) {
    static const struct {
        char name;
        int64_t seconds;
    } units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    constexpr int64_t most = int64_t{36500} * 86400;
    std::string_view given = value;
    int64_t number = 0;
    auto [end, failed] = std::from_chars(given.begin(), given.end(), number);
    for (const auto& unit : units) {
        if (failed == std::errc() &&
            std::string_view(end, given.end()) == std::string_view(&unit.name, 1) && number > 0 &&
            number <= most / unit.seconds) {
            out.*member = number * unit.seconds;
            return options_result::run;
        }
    }
    return complain(of, "a number and a unit, as 90s, 15m, 2h or 1d" + not_this(value), text);
}

options_result add_name(const row& of, const char* value, options& out, std::string& text) {
    out.names.emplace_back(value);
    return is_server_name(value)
               ? options_result::run
               : complain(of, "a host name or an address" + not_this(value), text);
}

options_result add_account(const row& of, const char* value, options& out, std::string& text) {
    out.allow.emplace_back(value);
    return *value ? options_result::run : complain(of, "an e-mail address", text);
}

options_result show_version(const row&, const char*, options&, std::string& text) {
    text = "vindral-collector " VINDRAL_VERSION "\n";
    return options_result::done;
}

options_result show_help(const row&, const char*, options&, std::string& text);

constexpr uint64_t most_connections = 1000000;

const row rows[] = {
    {"listen", "ADDRESS", set_text<&options::listen>, "IPv4 or IPv6 address to listen on ({})",
     "127.0.0.1"},
    {"port", "N", set_number<&options::port>, "port to listen on ({}); 0 picks a free one", "8443",
     0, 65535},
    {"port-file", "FILE", set_text<&options::port_file>, "write the port to FILE once it is open"},
    {"state-dir", "DIR", set_text<&options::state_dir>, "database, certificate and key\n({})",
     "/var/lib/vindral-collector"},
    {"plan", "FILE", set_text<&options::plan>, "commands for the agents, one a line"},
    {"cert", "FILE", set_text<&options::cert>,
     "certificate chain and private key, PEM; without them\n"
     "a pair is made in the state directory, signed by an\n"
     "authority of its own, ca.pem"},
    {"key", "FILE", set_text<&options::key>, nullptr},
    {"name", "NAME", add_name,
     "host name or address by which agents reach this one,\n"
     "for that certificate; repeat for more"},
    {"allow", "EMAIL", add_account, "account that may log in; repeat for more (all)"},
    {"end-refused", nullptr, set_flag<&options::end_refused>,
     "end the agents of other accounts, for good and with\n"
     "what they have not sent; otherwise they try again"},
    {"json", nullptr, set_instead<&options::json, &options::problems>,
     "one JSON object a line on standard output"},
    {"problems", nullptr, set_instead<&options::problems, &options::json>,
     "on standard output only results that are not ok: when\n"
     "that begins, becomes another and ends"},
    {"quiet", nullptr, set_flag<&options::quiet>, "no results on standard output"},
    {"keep-days", "N", set_number<&options::keep_days>, "days of results to keep ({}); 0 keeps all",
     "30", 0, 36500},
    {"max-connections", "N", set_number<&options::max_connections>,
     "connections at a time (from the descriptor limit)", nullptr, 1, most_connections},
    {"max-per-address", "N", set_number<&options::max_per_address>,
     "of these from one address: an IPv4 address or an\n"
     "IPv6 /64 (an eighth)",
     nullptr, 1, most_connections},
    {"max-body-mb", "N", set_number<&options::max_body_mb>,
     "largest body of a poll in MiB, as sent ({})", "16", 1, 64},
    {"missing", nullptr, set_flag<&options::missing>,
     "list which tests of --plan have reported and which\n"
     "have not, then exit; status 1 when any has not"},
    {"older-than", "DURATION", set_duration<&options::older_than>,
     "with --missing: results received longer ago do not\n"
     "count, and agents of which nothing came since are\n"
     "listed as silent; 90s, 15m, 2h, 1d"},
    {"version", nullptr, show_version, "print the version and exit"},
    {"help", nullptr, show_help, "print this text and exit"},
};

options_result show_help(const row&, const char*, options&, std::string& text) {
    constexpr size_t column = 26;
    text = "Usage: vindral-collector [OPTION]...\n"
           "Collection server for vindral agents: takes their results, keeps them in a\n"
           "database in the state directory and sends the agents the tests of a plan.\n\n";
    for (const row* r = rows; r != std::end(rows);) {
        std::string help = r->help, line = " ";
        if (r->standard) {
            help.replace(help.find("{}"), 2, r->standard);
        }
        do {
            line += std::string(" --") + r->name + (r->value ? std::string(" ") + r->value : "");
            ++r;
        } while (r != std::end(rows) && !r->help);
        line.resize(column, ' ');
        for (char c : help) {
            line += c;
            line.append(c == '\n' ? column : 0, ' ');
        }
        text += line + "\n";
    }
    text += "\nSIGINT and SIGTERM end it after the polls under way; SIGHUP reads the plan\n"
            "again (it is also read whenever it has changed).\n";
    return options_result::done;
}

/* What only the whole command line can show. Empty when all is well. */
std::string find_conflict(const options& o) {
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

options_result usage_error(std::string& text) {
    text = "vindral-collector: " + text + "\nTry 'vindral-collector --help'.\n";
    return options_result::wrong;
}

} // namespace

options_result parse_options(int argc, char** argv, options& out, std::string& text) {
    constexpr int first = 256; /* the rows' codes are no characters */
    option all[std::size(rows) + 1] = {};
    for (size_t i = 0; i < std::size(rows); ++i) {
        const row& r = rows[i];
        all[i] = {r.name, r.value ? required_argument : no_argument, nullptr, first + int(i)};
        if (r.standard) {
            r.set(r, r.standard, out, text);
        }
    }
    optind = 0; /* start afresh: a test calls this many times */
    opterr = 0;
    for (;;) {
        int at = optind == 0 ? 1 : optind;
        int opt = getopt_long(argc, argv, "+:", all, nullptr);
        if (opt == -1) {
            break;
        }
        if (opt < first) {
            text = opt == ':' ? std::string(argv[at]) + " needs a value"
                              : std::string("unknown option ") + argv[at];
            return usage_error(text);
        }
        const row& r = rows[opt - first];
        options_result result = r.set(r, optarg, out, text);
        if (result != options_result::run) {
            return result == options_result::wrong ? usage_error(text) : result;
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
