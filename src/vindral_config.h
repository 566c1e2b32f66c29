/* Command line and configuration file: every setting of the agent is a global of this module.
 *
 * Options win over the configuration file, which fills what is still unset; only LOGLEVEL, VERSION
 * and the three URL keys overwrite. The environment variable VINDRALHOME comes last, for agent_home
 * alone. Null means unset. All are set by main before it starts a thread and only read after that;
 * log_file and log_level live with the log writer (vindral_log.h).
 *
 * Texts are malloc'd and belong to this module, except conf_file, which points into argv. */
#ifndef VINDRAL_CONFIG_H
#define VINDRAL_CONFIG_H

extern char* conf_file;  /* not owned; null = DEFAULT_CONF_FILE */
extern char* lock_file;  /* PID file */
extern char* agent_home; /* the updater is looked for in its bin/ */
extern char* user_email;
extern char* agent_name;
extern char* szVersion;                       /* only shown; the server is told AGENT_VERSION */
extern char *alt_server, *alt_url, *alt_port; /* collection server; alt_url is a path */
extern char* ca_file; /* PEM bundle that the server is verified with; null: it is not verified;
                       * empty, from a key without a value: no poll works */
extern char *cert_file, *key_file; /* PEM, the agent's own certificate and its key; null: it shows
                                    * none; empty, or only one of them: no poll works */
extern char *api_server, *api_url, *api_port; /* custom-monitor API */
extern char *api_key, *secret_key;
extern char *data_server, *data_url, *data_port; /* data API */

/* What an unset value means; the server communication uses the same. Hosts are chosen by the build.
 */
inline constexpr const char* DEFAULT_CONF_FILE = "/etc/vindral.conf";
extern const char* const DEFAULT_SERVER;
inline constexpr const char* DEFAULT_SERVER_PORT = "443";
inline constexpr const char* DEFAULT_SERVER_URL = "/fcgi-bin/agentgateway";
extern const char* const DEFAULT_API_SERVER;
inline constexpr const char* DEFAULT_API_PORT = "80";
inline constexpr const char* DEFAULT_API_URL = "/api";
inline constexpr const char* DEFAULT_DATA_URL =
    "/customMonitorApi"; /* on the API's host and port */
inline constexpr const char* AGENT_VERSION = "3.0";
extern const char* const BUILD_DATE; /* "Mmm dd yyyy hh:mm:ss" */

/* The banner of a start: process id (unsigned long), AGENT_VERSION, BUILD_DATE. */
inline constexpr char f_title[] =
    "\n\n\t\t\t\t***************************************************"
    "\n\n\t\t\t\t\tVINDRAL SMART AGENT\n\t\t\t\t\tPROCESS ID: %lu\n\t\t\t\t\tVersion: %s"
    "\n\t\t\t\t\tBuild Date: %s\n\n"
    "\t\t\t\t***************************************************\n\n";

/* Takes the options over into the settings. Returns 1 to go on, or 0 when help or the version was
 * printed or an option was wrong (getopt and print_usage say so). Copies every value but conf_file:
 * argv must outlive that one. Parsing stops at the first argument that is no option. */
int process_arguments(int argc, char** argv);

/* Reads conf_file, makes up an agent name when there is an e-mail address and no name, and logs the
 * outcome at level 1 with its keys and secrets; this is before the log writer starts, so on
 * standard output. Returns 1, or 0 when the file cannot be read (logged) or one of agent_home,
 * log_file, lock_file, user_email and agent_name is still unset (not logged).
 *
 * A line is KEY, white space, value; keys are alphanumeric and the value goes to the end of the
 * line less trailing white space. Lines that start with "#" or white space, and lines without key
 * or value, are passed over; an unknown key is reported on standard output. A line of more than
 * 1023 characters is read as several. A URL that cannot be split changes nothing. */
int readConfig();

/* Returns 1 when the executable was started by a path that ends in "/vindral". A path without "/"
 * is 0; any other name is 0 and a message on standard output. */
int set_agent_env(char* run_path);

void print_usage(char* uarg); /* with uarg (may be null) as the wrong argument */
void print_version();
void print_help();

#endif
