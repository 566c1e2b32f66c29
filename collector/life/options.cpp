#include "life/options.h"

#include "api/request.h"
#include "base/certificate.h"

#include <algorithm>
#include <charconv>
#include <getopt.h>
#include <iterator>
#include <string_view>
#include <utility>

namespace {

struct row;

/* The commands, and which of their words a command line has. */
struct command_row {
    task does;
    const char* name;
    const char* action;          /* the second word; null: it has none */
    std::string options::*takes; /* the word behind these; null: none */
    const char* wants;           /* what that word is */
    const char* usage;
    const char* help;
};

const command_row commands[] = {
    {task::back_up, "backup", nullptr, &options::file, "a file", "backup FILE",
     "copy all that is stored into FILE, which must not\n"
     "exist; the collector may run"},
    {task::restore, "restore", nullptr, &options::file, "a file", "restore FILE [--replace]",
     "put such a copy into the state directory, while no\n"
     "collector runs; with --replace also where something\n"
     "is stored, which is kept beside it"},
    {task::check, "check", nullptr, nullptr, nullptr, "check",
     "look at all that is stored, and name what is damaged;\n"
     "status 1 when anything is"},
    {task::add_token, "token", "add", &options::token, "a name", "token add NAME --role ROLE",
     "make a token with which the API is asked, and print\n"
     "it; ROLE is viewer, operator or admin; here and\n"
     "below the collector may run"},
    {task::list_tokens, "token", "list", nullptr, nullptr, "token list", "list them by name"},
    {task::remove_token, "token", "remove", &options::token, "a name", "token remove NAME",
     "remove one, and end what was begun with it"},
    {task::make_link, "link", nullptr, nullptr, nullptr, "link [--role ROLE]",
     "print an address that signs in once, within 15\n"
     "minutes (as admin)"},
    /* Ahead of the rows with a second word. */
    {task::show_authorities, "authority", nullptr, nullptr, nullptr, "authority",
     "print what hosts verify this collector with and what\n"
     "signs the certificates of agents, and how many agents\n"
     "depend on each"},
    {task::renew_authority, "authority", "renew", &options::whose, "agents or server",
     "authority renew agents|server",
     "begin to exchange the one or the other, while agents\n"
     "go on"},
    {task::finish_authority, "authority", "finish", &options::whose, "agents or server",
     "authority finish agents|server [--force]",
     "end that, when no agent needs the old one any more;\n"
     "with --force whoever does"},
};

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
    unsigned with = 1;              /* what it goes with: bits by task */
};

constexpr unsigned bit_of(task t) {
    return 1u << static_cast<unsigned>(t);
}
static_assert(bit_of(task::collect) == 1);
constexpr unsigned with_all = ~0u;

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

options_result set_role(const row& of, const char* value, options& out, std::string& text) {
    out.role = value;
    return role_of(value) ? options_result::run
                          : complain(of, "viewer, operator or admin" + not_this(value), text);
}

options_result set_agents(const row& of, const char* value, options& out, std::string& text) {
    static const std::pair<std::string_view, agents_mode> modes[] = {
        {"any", agents_mode::any}, {"known", agents_mode::known}, {"proven", agents_mode::proven}};
    for (const auto& [name, mode] : modes) {
        if (name == value) {
            out.agents = mode;
            return options_result::run;
        }
    }
    return complain(of, "any, known or proven" + not_this(value), text);
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

/* "192.0.2.1:8080", "[::1]:8080" or "off". */
options_result set_web(const row& of, const char* value, options& out, std::string& text) {
    std::string_view given = value;
    out.web_given = value != of.standard;
    out.web_address.clear();
    if (given == "off") {
        return options_result::run;
    }
    size_t colon = given.rfind(':');
    std::string_view address = given.substr(0, colon);
    std::string_view port = colon == given.npos ? "" : given.substr(colon + 1);
    bool bracketed = address.starts_with('[') && address.ends_with(']');
    if (bracketed) {
        address = address.substr(1, address.size() - 2);
    }
    auto [end, failed] = std::from_chars(port.begin(), port.end(), out.web_port);
    bool is_v6 = address.find(':') != address.npos;
    if (address.empty() || bracketed != is_v6 || failed != std::errc() || end != port.end() ||
        !is_server_name(std::string(address))) {
        return complain(
            of, "an address and a port, as 127.0.0.1:8080 or [::1]:8080, or off" + not_this(value),
            text);
    }
    out.web_address = address;
    return options_result::run;
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
constexpr uint64_t most_days = 36500;

const row rows[] = {
    {"listen", "ADDRESS", set_text<&options::listen>, "IPv4 or IPv6 address to listen on ({})",
     "127.0.0.1"},
    {"port", "N", set_number<&options::port>, "port to listen on ({}); 0 picks a free one", "8443",
     0, 65535},
    {"port-file", "FILE", set_text<&options::port_file>, "write the port to FILE once it is open"},
    {"web", "ADDRESS:PORT", set_web,
     "where page and API are ({}); with port 0 a\n"
     "free one; over TLS unless it is loopback; off: nowhere",
     "127.0.0.1:8080", 0, 0, bit_of(task::collect) | bit_of(task::make_link)},
    {"web-port-file", "FILE", set_text<&options::web_port_file>,
     "write its port to FILE once it is open"},
    {"state-dir", "DIR", set_text<&options::state_dir>, "database, certificate and key\n({})",
     "/var/lib/vindral-collector", 0, 0, with_all},
    {"fleet", "FILE", set_text<&options::fleet>,
     "which agents have which tests, as YAML; read again\n"
     "when it changes. Without it, or --plan, the API is\n"
     "told (vindralctl fleet apply)"},
    {"plan", "FILE", set_text<&options::plan>,
     "in the place of a fleet: raw commands, one a line,\n"
     "for every agent; for work on the protocol"},
    {"cert", "FILE", set_text<&options::cert>,
     "certificate chain and private key, PEM; without them\n"
     "a pair is made in the state directory, signed by an\n"
     "authority of its own, ca.pem"},
    {"key", "FILE", set_text<&options::key>, nullptr},
    {"name", "NAME", add_name,
     "host name or address by which agents reach this one,\n"
     "for that certificate; repeat for more"},
    {"allow", "EMAIL", add_account, "account that may log in; repeat for more (all)"},
    {"agents", "MODE", set_agents,
     "who may go by a name: any, whoever says so; known,\n"
     "names that were admitted or enrolled; proven, who\n"
     "shows a certificate of the name ({})",
     "any"},
    {"end-refused", nullptr, set_flag<&options::end_refused>,
     "end the agents of other accounts, for good and with\n"
     "what they have not sent; otherwise they try again"},
    {"json", nullptr, set_instead<&options::json, &options::problems>,
     "one JSON object a line on standard output"},
    {"problems", nullptr, set_instead<&options::problems, &options::json>,
     "on standard output only results that are not ok: when\n"
     "that begins, becomes another and ends"},
    {"quiet", nullptr, set_flag<&options::quiet>, "no results on standard output"},
    {"keep-days", "N", set_number<&options::keep_days>,
     "days of results to keep ({}), each as it came;\n0 keeps all, here and below", "14", 0,
     most_days},
    {"keep-5min-days", "N", set_number<&options::keep_5min_days>,
     "days of lowest, mean and highest values of each five\nminutes to keep ({})", "90", 0,
     most_days},
    {"keep-hour-days", "N", set_number<&options::keep_hour_days>, "of each hour ({})", "730", 0,
     most_days},
    {"keep-event-days", "N", set_number<&options::keep_event_days>, "days of events to keep ({})",
     "0", 0, most_days},
    {"keep-ledger-days", "N", set_number<&options::keep_ledger_days>,
     "days of the ledger of received and missing results to\nkeep ({})", "730", 0, most_days},
    {"keep-change-days", "N", set_number<&options::keep_change_days>,
     "days of changes of the fleet's tests to keep ({})", "90", 0, most_days},
    {"max-connections", "N", set_number<&options::max_connections>,
     "connections at a time (from the descriptor limit)", nullptr, 1, most_connections},
    {"max-per-address", "N", set_number<&options::max_per_address>,
     "of these from one address: an IPv4 address or an\n"
     "IPv6 /64 (an eighth)",
     nullptr, 1, most_connections},
    {"max-body-mb", "N", set_number<&options::max_body_mb>,
     "largest body of a poll in MiB, as sent ({})", "16", 1, 64},
    {"max-behind", "N", set_number<&options::max_behind>,
     "seconds that results may wait to be stored; beyond it\n"
     "agents that bring some come again after their\n"
     "intervals ({})",
     "5", 1, 15},
    {"max-logins", "N", set_number<&options::max_logins>,
     "log-ins a second; beyond it agents come again\n"
     "likewise ({})",
     "200", 1, 100000},
    {"missing", nullptr, set_flag<&options::missing>,
     "list which tests of --plan, or of the fleet that was\n"
     "applied last, report and which do not, then exit;\n"
     "status 1 when any does not"},
    {"older-than", "DURATION", set_duration<&options::older_than>,
     "with --missing: results received longer ago do not\n"
     "count, and agents that were not heard since are\n"
     "silent; 90s, 15m, 2h, 1d"},
    {"replace", nullptr, set_flag<&options::replace>, "with restore, below", nullptr, 0, 0,
     bit_of(task::restore)},
    {"force", nullptr, set_flag<&options::force>, "with authority finish, below", nullptr, 0, 0,
     bit_of(task::finish_authority)},
    {"role", "ROLE", set_role, "with token add and link, see below", nullptr, 0, 0,
     bit_of(task::add_token) | bit_of(task::make_link)},
    {"version", nullptr, show_version, "print the version and exit", nullptr, 0, 0, with_all},
    {"help", nullptr, show_help, "print this text and exit", nullptr, 0, 0, with_all},
};

constexpr size_t help_column = 26;

void append_help(std::string& text, std::string line, std::string_view help) {
    line.resize(std::max(help_column, line.size() + 1), ' ');
    for (char c : help) {
        line += c;
        line.append(c == '\n' ? help_column : 0, ' ');
    }
    text += line + "\n";
}

options_result show_help(const row&, const char*, options&, std::string& text) {
    text = "Usage: vindral-collector [OPTION]...\n"
           "       vindral-collector --missing [--plan FILE] [--older-than DURATION]\n";
    for (const command_row& c : commands) {
        text += std::string("       vindral-collector ") + c.usage + "\n";
    }
    text += "Collection server for vindral agents: takes their results, keeps them in a\n"
            "database in the state directory and sends the agents the tests of a fleet.\n\n";
    for (const row* r = rows; r != std::end(rows);) {
        std::string help = r->help, line = " ";
        if (r->standard) {
            help.replace(help.find("{}"), 2, r->standard);
        }
        do {
            line += std::string(" --") + r->name + (r->value ? std::string(" ") + r->value : "");
            ++r;
        } while (r != std::end(rows) && !r->help);
        append_help(text, std::move(line), help);
    }
    text += "\nCommands that end by themselves; they work on what is in --state-dir:\n\n";
    for (const command_row& c : commands) {
        append_help(text, std::string("  ") + c.usage, c.help);
    }
    text += "\nSIGINT and SIGTERM end it after the polls under way; SIGHUP reads the fleet or\n"
            "the plan again (which are also read whenever they have changed).\n";
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
    if (!o.plan.empty() && !o.fleet.empty()) {
        return "--plan takes the place of a fleet, so it does not go with --fleet";
    }
    if (o.missing && !o.fleet.empty()) {
        return "--missing takes the fleet that is stored, so --fleet does not go with it";
    }
    if (o.end_refused && o.allow.empty()) {
        return "--end-refused needs --allow";
    }
    if (o.does == task::add_token && o.role.empty()) {
        return "token add needs --role viewer, operator or admin";
    }
    bool exchanges = o.does == task::renew_authority || o.does == task::finish_authority;
    if (exchanges && o.whose != "agents" && o.whose != "server") {
        return "authority takes agents or server" + not_this(o.whose.c_str());
    }
    if (o.older_than > 0 && !o.missing) {
        return "--older-than needs --missing";
    }
    return "";
}

std::string full_name(const command_row& c) {
    return c.name + (c.action ? std::string(" ") + c.action : "");
}

/* Of the first word of a command line, when it is none. */
std::string no_command(const std::string& word) {
    std::string names, last;
    for (const command_row& c : commands) {
        if (c.name != last) {
            names += (names.empty() ? "" : ", ") + std::string(c.name);
        }
        last = c.name;
    }
    return "unexpected argument \"" + word + "\"; the commands are " + names;
}

/* What may stand behind the first word: "add, list or remove". */
std::string actions_of(const std::string& name) {
    std::string all;
    for (const command_row& c : commands) {
        all += c.name == name ? (all.empty() ? "" : ", ") + std::string(c.action) : "";
    }
    return all.replace(all.rfind(','), 1, " or");
}

/* The words that are no options. What is wrong with them, empty when all is well. */
std::string take_words(const std::vector<std::string>& words, options& out) {
    if (words.empty()) {
        return "";
    }
    const command_row* found = nullptr;
    bool is_command = false;
    for (const command_row& c : commands) {
        if (c.name == words[0]) {
            is_command = true;
            found = !c.action || (words.size() > 1 && c.action == words[1]) ? &c : found;
        }
    }
    if (!is_command) {
        return no_command(words[0]);
    }
    if (!found) {
        return words[0] + " needs " + actions_of(words[0]);
    }
    out.does = found->does;
    size_t wanted = found->action ? 2 : 1;
    if (found->takes) {
        if (words.size() <= wanted || words[wanted].empty()) {
            return full_name(*found) + " needs " + found->wants;
        }
        out.*found->takes = words[wanted++];
    }
    return words.size() > wanted ? "unexpected argument \"" + words[wanted] + "\"" : "";
}

/* The first of the options that does not go with the command. Empty when all do. */
std::string find_stranger(const std::vector<const row*>& given, task does) {
    auto stranger = std::find_if(given.begin(), given.end(),
                                 [&](const row* r) { return (r->with & bit_of(does)) == 0; });
    if (stranger == given.end()) {
        return "";
    }
    const std::string option = std::string("--") + (*stranger)->name;
    std::string needed;
    for (const command_row& c : commands) {
        if (c.does == does) {
            return option + " does not go with " + full_name(c);
        }
        if ((*stranger)->with & bit_of(c.does)) {
            needed += (needed.empty() ? " needs " : " or ") + full_name(c);
        }
    }
    return option + needed;
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
    std::vector<const row*> given;
    std::vector<std::string> words;
    for (;;) {
        int at = optind == 0 ? 1 : optind;
        int opt = getopt_long(argc, argv, "+:", all, nullptr);
        if (opt == -1 && (optind > at || optind == argc)) { /* behind "--" there are words only */
            words.insert(words.end(), argv + optind, argv + argc);
            break;
        }
        if (opt == -1) {
            words.emplace_back(argv[optind++]);
            continue;
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
        given.push_back(&r);
    }
    text = take_words(words, out);
    if (text.empty()) {
        text = find_stranger(given, out.does);
    }
    if (text.empty()) {
        text = find_conflict(out);
    }
    return text.empty() ? options_result::run : usage_error(text);
}

std::string collector_version() {
    return VINDRAL_VERSION;
}

size_t default_connections(size_t descriptors) {
    constexpr size_t ours = 64; /* database, logs, listener, plan and some air */
    /* As many as one core serves within the 15 seconds that an agent waits: those beyond are better
     * told at once. */
    constexpr size_t plenty = 10000;
    return std::clamp<size_t>(descriptors > ours ? descriptors - ours : 0, 16, plenty);
}
