#include "vindral_config.h"

#include "vindral_common.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <unistd.h>

char* conf_file = nullptr;
char* lock_file = nullptr;
char* agent_home = nullptr;
char* user_email = nullptr;
char* agent_name = nullptr;
char* szVersion = nullptr;
char *alt_server = nullptr, *alt_url = nullptr, *alt_port = nullptr;
char* ca_file = nullptr;
char *cert_file = nullptr, *key_file = nullptr;
char *api_server = nullptr, *api_url = nullptr, *api_port = nullptr;
char *api_key = nullptr, *secret_key = nullptr;
char *data_server = nullptr, *data_url = nullptr, *data_port = nullptr;
const char* const DEFAULT_SERVER = VINDRAL_DEFAULT_HOST;
const char* const DEFAULT_API_SERVER = VINDRAL_DEFAULT_API_HOST;
const char* const BUILD_DATE = __DATE__ " " __TIME__;

struct text_setting {
    const char* key;
    char** value;
    bool overwrites;
};

static const text_setting text_settings[] = {
    {"VINDRALHOME", &agent_home, false}, {"LOGFILE", &log_file, false},
    {"PIDFILE", &lock_file, false},      {"USEREMAIL", &user_email, false},
    {"AGENTNAME", &agent_name, false},   {"APIKEY", &api_key, false},
    {"SECRETKEY", &secret_key, false},   {"VERSION", &szVersion, true},
    {"CAFILE", &ca_file, false},         {"CERTFILE", &cert_file, false},
    {"KEYFILE", &key_file, false},
};

struct url_setting {
    const char* key;
    char **server, **url, **port;
};

static const url_setting url_settings[] = {
    {"USEHOST", &alt_server, &alt_url, &alt_port},
    {"APIHOST", &api_server, &api_url, &api_port},
    {"DATAHOST", &data_server, &data_url, &data_port},
};

/* Puts `value`, which it takes over, in the place of what a setting held. */
static void replace(char*& setting, char* value) {
    free(setting);
    setting = value;
}

void print_usage(char* uarg) {
    if (uarg != nullptr) {
        printf("\nWrong Argument: %s\n", uarg);
    }
    printf("\nUsage: vindral  [-C configuration file] [-L log file] [ -l lock file] "
           "[-D home directory] [-U user e-mail] [-A agent name] [-V] [-h]\n");
}

void print_version() {
    printf("\nVindral Smart Agent %s\nBuilt at %s\n\n", AGENT_VERSION, BUILD_DATE);
}

void print_help() {
    print_version();
    printf("Copyright (c) the Vindral authors. Licensed under the Apache License, Version 2.0.\n");
    printf("\nProgram usage:");
    print_usage(nullptr);
    /* The help says -E and NAMA, although the option is -U: it has always read like this. */
    printf("Options:\n"
           "  -h, --help               Print detailed help screen\n"
           "  -V, --version            Print version information\n"
           "  -C, --conf-file=ADDRESS  Configuration file address ( default: /etc/vindral.conf )\n"
           "  -L, --log-file=ADDRESS   Log file address\n"
           "  -l, --lock-file=ADDRESS  Lock file address\n"
           "  -D, --home-dir=ADDRESS   Home directory address\n"
           "  -E, --user-email=E-MAIL  E-Mail address\n"
           "  -A, --agent-name=NAMA    Agent name\n\n");
}

int process_arguments(int argc, char** argv) {
    if (argc < 2) {
        return 1;
    }
    static const option long_options[] = {
        {"conf-file", required_argument, nullptr, 'C'},
        {"log-file", required_argument, nullptr, 'L'},
        {"lock-file", required_argument, nullptr, 'l'},
        {"home-dir", required_argument, nullptr, 'D'},
        {"user-email", required_argument, nullptr, 'U'},
        {"agent-name", required_argument, nullptr, 'A'},
        {"version", no_argument, nullptr, 'V'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    optind = 0; /* from the start, whoever has parsed before */
    int letter;
    while ((letter = getopt_long(argc, argv, "+hVC:L:l:D:U:A:V", long_options, nullptr)) != -1) {
        switch (letter) {
        case 'C':
            conf_file = optarg;
            break;
        case 'L':
            replace(log_file, strdup(optarg));
            break;
        case 'l':
            replace(lock_file, strdup(optarg));
            break;
        case 'D':
            replace(agent_home, strdup(optarg));
            break;
        case 'U':
            replace(user_email, strdup(optarg));
            break;
        case 'A':
            replace(agent_name, strdup(optarg));
            break;
        case 'V':
            print_version();
            return 0;
        case 'h':
            print_help();
            return 0;
        default:
            print_usage(optarg);
            return 0;
        }
    }
    return 1;
}

static void set_url(const url_setting& setting, const char* url) {
    char *server = nullptr, *path = nullptr, *port = nullptr;
    if (!crackURL(url, &server, &path, &port)) {
        return;
    }
    replace(*setting.server, server);
    replace(*setting.url, path);
    replace(*setting.port, port);
}

static void set_value(const char* key, const char* value) {
    if (strcmp(key, "LOGLEVEL") == 0) {
        log_level =
            static_cast<int>(std::clamp<long>(strtol(value, nullptr, 10), INT_MIN, INT_MAX));
        return;
    }
    for (const text_setting& setting : text_settings) {
        if (strcmp(key, setting.key) == 0) {
            if (setting.overwrites || *setting.value == nullptr) {
                replace(*setting.value, strdup(value));
            }
            return;
        }
    }
    for (const url_setting& setting : url_settings) {
        if (strcmp(key, setting.key) == 0) {
            set_url(setting, value);
            return;
        }
    }
    printf("\nInvalid entry in configuration file:\nKey:\t%s\nVal:\t%s\n", key, value);
}

static bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}
static bool is_key_character(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

/* Whoever writes one of these keys wants the server verified, or the agent known by its
 * certificate: a file that got lost on the way to the line, such as an empty variable of a
 * template, must stop the polls and not let any server in, nor anybody's agent pass for this one.
 */
static bool counts_without_value(const char* key) {
    return strcmp(key, "CAFILE") == 0 || strcmp(key, "CERTFILE") == 0 ||
           strcmp(key, "KEYFILE") == 0;
}

/* Acts on one line, and writes into it. Text behind a NUL does not count. */
static void read_line(char* line) {
    if (*line == '#' || is_space(*line)) {
        return;
    }
    char* key_end = line;
    while (is_key_character(*key_end)) {
        key_end++;
    }
    char* value = key_end;
    while (is_space(*value)) {
        value++;
    }
    char* value_end = value + strlen(value);
    while (value_end > value && is_space(value_end[-1])) {
        value_end--;
    }
    if (key_end == line) {
        return;
    }
    *value_end = '\0';
    heap_text key(strndup(line, static_cast<size_t>(key_end - line)));
    if (key != nullptr && (*value != '\0' || counts_without_value(key.get()))) {
        set_value(key.get(), value);
    }
}

static void read_settings(FILE* file) {
    char line[1024];
    while (fgets(line, sizeof line, file) != nullptr) {
        read_line(line);
    }
}

static void make_agent_name() {
    char host[64] = "";
    bool known = gethostname(host, sizeof host) == 0 && *host != '\0';
    host[sizeof host - 1] = '\0';
    time_t now = time(nullptr);
    struct tm utc = {};
    gmtime_r(&now, &utc);
    char* name = nullptr;
    if (asprintf(&name, "%s@%02d:%02d:%d:%02d:%02d:%02d", known ? host : "Unknown", utc.tm_mday,
                 utc.tm_mon + 1, utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec) < 0) {
        name = nullptr;
    }
    replace(agent_name, name);
}

static const char* or_na(const char* value) {
    return or_default(value, "N/A");
}

static void log_settings() {
    leveledadd2log(
        1,
        "host:\t%s:%s%s\nVer:\t%s\nemail:\t%s\nname:\t%s\nlog:\t%s\nlevel:\t%d\nlock:\t%s\n"
        "apihost:\t%s:%s%s\napikey:\t%s\nsecretkey:\t%s\ndatahost:\t%s:%s%s\n",
        or_default(alt_server, DEFAULT_SERVER), or_default(alt_port, DEFAULT_SERVER_PORT),
        or_default(alt_url, DEFAULT_SERVER_URL), or_default(szVersion, AGENT_VERSION),
        or_na(user_email), or_na(agent_name), or_na(log_file), log_level, or_na(lock_file),
        or_default(api_server, DEFAULT_API_SERVER), or_default(api_port, DEFAULT_API_PORT),
        or_default(api_url, DEFAULT_API_URL), or_na(api_key), or_na(secret_key),
        or_default(data_server, DEFAULT_API_SERVER), or_default(data_port, DEFAULT_API_PORT),
        or_default(data_url, DEFAULT_DATA_URL));
    leveledadd2log(1,
                   "Current configuration:\n\n\t      E-Mail:\t%s\n\t  Agent Name:\t%s\n"
                   "\t    Log File:\t%s\n\t   Log Level:\t%d\n\t    PID File:\t%s\n"
                   "\t    Home Dir:\t%s\n\t     Api Key:\t%s\n\t  Secret Key:\t%s\n",
                   or_na(user_email), or_na(agent_name), or_na(log_file), log_level,
                   or_na(lock_file), or_na(agent_home), or_na(api_key), or_na(secret_key));
    if (ca_file != nullptr) {
        leveledadd2log(1, "\t     CA File:\t%s\n", ca_file);
    }
    if (cert_file != nullptr || key_file != nullptr) {
        leveledadd2log(1, "\t   Cert File:\t%s\n\t    Key File:\t%s\n", or_na(cert_file),
                       or_na(key_file));
    }
}

int readConfig() {
    const char* path = or_default(conf_file, DEFAULT_CONF_FILE);
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        leveledadd2log(-1, "Can not open main configuration file: \"%s\" for reading, %m", path);
        return 0;
    }
    read_settings(file);
    fclose(file);

    const char* home = getenv("VINDRALHOME");
    if (agent_home == nullptr && home != nullptr && *home != '\0') {
        agent_home = strdup(home);
    }
    if (user_email != nullptr && (agent_name == nullptr || *agent_name == '\0')) {
        make_agent_name();
    }
    log_settings();
    return agent_home != nullptr && log_file != nullptr && lock_file != nullptr &&
           user_email != nullptr && agent_name != nullptr;
}

int set_agent_env(char* run_path) {
    const char* slash = run_path != nullptr ? strrchr(run_path, '/') : nullptr;
    if (slash == nullptr) {
        return 0;
    }
    if (strcmp(slash + 1, "vindral") != 0) {
        puts("ERROR: vindral smart agent name changed\n");
        return 0;
    }
    return 1;
}
