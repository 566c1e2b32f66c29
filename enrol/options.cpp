#include "enrol/options.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <charconv>
#include <cstring>
#include <getopt.h>
#include <vector>

namespace {

[[noreturn]] void refuse(const std::string& why) {
    throw failure{status_usage, why};
}

/* "90s", "10m", "1h". */
std::chrono::seconds read_duration(std::string_view text) {
    int64_t number = 0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const int64_t factor = unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : 0;
    if (failed != std::errc() || factor == 0 || number <= 0 || number > 86400 / factor) {
        refuse("--wait takes a time such as 90s, 10m or 1h, up to 24h, not \"" + printable(text) +
               "\"");
    }
    return std::chrono::seconds(number * factor);
}

std::string read_path(const char* option, std::string text) {
    if (!text.starts_with('/') || text.size() > 900) {
        refuse(std::string("--") + option + " takes a path from / on, not \"" +
               printable(text.substr(0, 300)) + "\"");
    }
    while (text.size() > 1 && text.ends_with('/')) {
        text.pop_back();
    }
    return text;
}

enum letter : int {
    conf = 256,
    dir,
    authority,
    ca,
    name,
    account,
    wait,
    no_start,
    replace,
    renew,
    force,
    show,
    help,
    version
};

const option rows[] = {
    {"conf", required_argument, nullptr, conf},
    {"dir", required_argument, nullptr, dir},
    {"authority", required_argument, nullptr, authority},
    {"ca", required_argument, nullptr, ca},
    {"name", required_argument, nullptr, name},
    {"account", required_argument, nullptr, account},
    {"wait", required_argument, nullptr, wait},
    {"no-start", no_argument, nullptr, no_start},
    {"replace", no_argument, nullptr, replace},
    {"renew", no_argument, nullptr, renew},
    {"force", no_argument, nullptr, force},
    {"show", no_argument, nullptr, show},
    {"help", no_argument, nullptr, help},
    {"version", no_argument, nullptr, version},
    {},
};

void take(int which, const char* value, options& out) {
    switch (which) {
    case conf:
        out.conf = read_path("conf", value);
        break;
    case dir:
        out.directory = read_path("dir", value);
        break;
    case authority:
        out.authority = value;
        break;
    case ca:
        out.ca = value;
        break;
    case name:
        out.name = value;
        break;
    case account:
        out.account = value;
        break;
    case wait:
        out.wait = read_duration(value);
        break;
    case no_start:
        out.start = false;
        break;
    case replace:
        out.replace = true;
        break;
    case renew:
        out.does = errand::renew;
        break;
    case force:
        out.force = true;
        break;
    case show:
        out.does = errand::show;
        break;
    case help:
        out.does = errand::help;
        break;
    default:
        out.does = errand::version;
        break;
    }
}

/* Whether the words fit together. */
void check(const options& o) {
    if (o.does == errand::help || o.does == errand::version) {
        return;
    }
    if (o.does != errand::enrol) {
        if (!o.url.empty()) {
            refuse("--renew and --show take no address and no token: vindral.conf has them");
        }
        return;
    }
    if (o.force) {
        refuse("--force goes with --renew");
    }
    if (o.url.empty()) {
        refuse(
            "where is the collector? vindral-enrol URL TOKEN, as \"vindralctl enrol\" prints it");
    }
    if (o.url.starts_with("ve_")) {
        refuse("the address of the collector comes first, then the token");
    }
    if (!o.token.empty()) {
        if (!o.authority.empty() || !o.ca.empty() || !o.name.empty() || !o.account.empty()) {
            refuse("a token says which authority and which name: --authority, --ca, --name and "
                   "--account are for a host without one");
        }
    } else if (o.authority.empty() == o.ca.empty()) {
        refuse("without a token this host has to know whom to trust: --authority SHA256:..., as "
               "\"vindral-collector authority\" prints it, or --ca FILE, a copy of its ca.pem");
    }
}

} // namespace

options read_options(int argc, char* const* argv) {
    options out;
    optind = 0;
    opterr = 0;
    int which;
    while ((which = getopt_long(argc, argv, ":", rows, nullptr)) != -1) {
        if (which == '?' || which == ':') {
            const std::string_view word = argv[optind - 1] != nullptr ? argv[optind - 1] : "";
            refuse(which == ':' ? printable(word) + " needs a value"
                   : word.starts_with("ve_") || word.find("=ve_") != word.npos
                       ? "there is no such option"
                       : "there is no option \"" + printable(word.substr(0, 100)) +
                             "\", or it takes no value");
        }
        take(which, optarg, out);
    }
    std::vector<std::string> words(argv + optind, argv + argc);
    if (words.size() > 2) {
        refuse("there are more words than an address and a token");
    }
    if (!words.empty()) {
        out.url = words[0];
    }
    if (words.size() > 1) {
        out.token = words[1];
        if (out.token.empty()) {
            refuse("the token is empty");
        }
    }
    check(out);
    return out;
}

const char* help_text() {
    return "usage: vindral-enrol URL TOKEN [--replace] [--no-start]\n"
           "       vindral-enrol URL --authority SHA256:... | --ca FILE\n"
           "                     [--name NAME] [--account EMAIL] [--wait 10m]\n"
           "       vindral-enrol --renew [--force]\n"
           "       vindral-enrol --show\n"
           "\n"
           "Gives this host a certificate by which its agent proves who it is, and starts the\n"
           "agent; or undoes all of it when that fails. \"vindralctl enrol NAME\" prints the "
           "first\n"
           "line with its address and token. Without a token the host waits until it is admitted\n"
           "(\"vindralctl agents admit NAME\").\n"
           "\n"
           "  --replace            also where this host has another name by now\n"
           "  --no-start           leaves the agent as it is\n"
           "  --authority SHA256:  fingerprint of the authority that the collector is verified "
           "with\n"
           "  --ca FILE            the authority itself, PEM\n"
           "  --name NAME          name of this host (that of the configuration, or its host "
           "name)\n"
           "  --account EMAIL      its account (that of the configuration)\n"
           "  --wait TIME          for an admission (10m)\n"
           "  --renew              a new certificate when less than a third of the time is left, "
           "and\n"
           "                       the collector's authorities as they are now; for the timer\n"
           "  --force              a new certificate in any case\n"
           "  --show               who this host is, until when, and whom it trusts\n"
           "  --conf FILE          configuration of the agent (/etc/vindral.conf)\n"
           "  --dir DIR            where keys and certificates are (/etc/vindral)\n"
           "  --help, --version\n";
}

void hide_token(int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        if (char* token = strstr(argv[i], "ve_"); token != nullptr && strlen(token) > 20) {
            memset(token, '*', strlen(token));
        }
    }
}
