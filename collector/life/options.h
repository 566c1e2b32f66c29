/* The command line of vindral-collector. */
#ifndef VINDRAL_COLLECTOR_OPTIONS_H
#define VINDRAL_COLLECTOR_OPTIONS_H

#include "ingest/known_agents.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/* What the program is to do. */
enum class task {
    collect,
    back_up,
    restore,
    check,
    add_token,
    list_tokens,
    remove_token,
    make_link,
    show_authorities,
    renew_authority,
    finish_authority
};

/* What they mean and which values they have when not given is in the table of options.cpp. */
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): by what belongs together
struct options {
    task does = task::collect;
    std::string file;     /* of a backup */
    std::string token;    /* its name */
    std::string role;     /* of a token or a link; empty: not given */
    bool replace = false; /* what is stored, by a restore */
    bool force = false;   /* whoever an exchange leaves behind */
    std::string whose;    /* authority: "agents" or "server" */
    std::string listen;
    uint16_t port = 0; /* 0: the kernel picks one */
    agents_mode agents = agents_mode::any;
    std::string port_file;
    std::string web_address; /* of the API; empty: none */
    uint16_t web_port = 0;   /* 0: the kernel picks one */
    bool web_given = false;
    std::string web_port_file;
    std::string state_dir;
    std::string plan;               /* empty: no plan */
    std::string fleet;              /* a file that rules; empty: the API applies */
    std::string cert, key;          /* both or none; none: made in the state directory */
    std::vector<std::string> names; /* more for the certificate that is made */
    std::vector<std::string> allow; /* accounts that may log in; empty: all */
    bool end_refused = false;
    bool json = false;
    bool problems = false; /* not together with json */
    bool quiet = false;    /* more than both */
    /* 0: for ever */
    int keep_days = 0, keep_5min_days = 0, keep_hour_days = 0;
    int keep_event_days = 0, keep_ledger_days = 0, keep_change_days = 0;
    size_t max_connections = 0; /* 0: as many as descriptors allow, see default_connections */
    size_t max_per_address = 0; /* 0: an eighth of max_connections */
    size_t max_body_mb = 0;
    int max_behind = 0; /* seconds */
    size_t max_logins = 0;
    bool missing = false;
    int64_t older_than = 0; /* seconds; 0: not given */
};

enum class options_result {
    run,   /* start with `out` */
    done,  /* --help or --version: print `text` on stdout, exit 0 */
    wrong, /* print `text` on stderr, exit 2 */
};

/* Reads the command line into `out`, which is as it was made. `text` ends in a line end. Not
 * reentrant (getopt_long). */
options_result parse_options(int argc, char** argv, options& out, std::string& text);

/* "3.0" */
std::string collector_version();

/* The limit of connections when none is given, out of `descriptors` that the process may open. */
size_t default_connections(size_t descriptors);

#endif
