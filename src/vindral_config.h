/* Command line and configuration file: every setting of the agent is a global of this module. */
#ifndef VINDRAL_CONFIG_H
#define VINDRAL_CONFIG_H

extern char* conf_file;
extern char* lock_file;
extern char* agent_home;
extern char* user_email;
extern char* agent_name;
extern char* szVersion;
extern char *alt_server, *alt_url, *alt_port;    /* collection server */
extern char *api_server, *api_url, *api_port;    /* custom-monitor API */
extern char *api_key, *secret_key;
extern char *data_server, *data_url, *data_port; /* data API */

/* What an unset value means; the server communication uses the same. */
inline constexpr const char* DEFAULT_SERVER = VINDRAL_DEFAULT_HOST;
inline constexpr const char* DEFAULT_SERVER_PORT = "443";
inline constexpr const char* DEFAULT_SERVER_URL = "/fcgi-bin/agentgateway";
inline constexpr const char* DEFAULT_API_SERVER = VINDRAL_DEFAULT_API_HOST;
inline constexpr const char* AGENT_VERSION = "3.0";
extern const char* const BUILD_DATE; /* month abbreviation, day, year, then the time of day */

int process_arguments(int argc, char** argv);
int readConfig();
int set_agent_env(char* run_path);
void print_usage(char* uarg);
void print_version();
void print_help();

#endif
