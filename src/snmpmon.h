/* SNMP checker: walk, table and get tests of other machines' agents. */
#ifndef VINDRAL_SNMPMON_H
#define VINDRAL_SNMPMON_H

#include <cstddef>
#include <sys/types.h>

inline constexpr int SNMP_PORT = 161;
inline constexpr int SNMP_TABLE = 1, SNMP_GET = 2, SNMP_WALK = 3; /* req_type */

/* One test. Every text, array and limit is owned by the definition. */
struct snmp_def {
    int mode; /* 0: a test of the server; else an internal query (get_snmp_values) */
    int tid;
    int loc_id;
    char* oid_string; /* of a table or walk test, else null */
    char** oid_arr;   /* of a get test */
    size_t oid_len;
    char* host;
    int port;    /* UDP */
    int version; /* as the library counts: 0 SNMPv1, 1 SNMPv2c, 3 SNMPv3 */
    int timeout; /* seconds per request, at least 1 */
    int retries;
    char* community;
    char* login;
    char* passwd;
    char* privpasswd;
    char* authproto; /* "md5" or "sha" */
    char* privproto; /* "des" or "aes" */
    long** min_list; /* per OID of a get test: its lower limit, or null */
    long** max_list;
    int req_type;     /* 1 table, 2 get, 3 walk */
    int bulk;         /* 0: GETNEXT; else GETBULK with so many repetitions */
    int isFirstCheck; /* 1 from creation until a pass has started the test */
    char* address;    /* where the host's name leads, numeric; null: as `host` says */
};

snmp_def* make_snmp_def(int v_mode, int v_tid, int v_loc_id, int v_type, int v_bulk,
                        char* v_oid_string, char* v_host, int v_port, int v_version, int v_timeout,
                        int v_retries, char* v_community, char* v_login, char* v_passwd,
                        char* v_privpasswd, char* v_authproto, char* v_privproto, char* v_min_max);
snmp_def* snmp_def_dup(snmp_def* p);
void free_snmp_def(snmp_def** p);

int init_snmp_mon();
void* snmp_worker_thread(void* arg);
int get_snmp_check_interval();
void set_snmp_check_interval(int t_sec);

void add_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max);
void mod_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max);
void rem_snmp(int t_id);
int is_new_snmp(int tID);

void do_snmp_check();
void* snmp_single_thread(void* arg);
int get_snmp_values(snmp_def* def_snmp, char** buffer, int* buffer_len);

int write_to_pipe(int fd, char* src, int src_len);
int read_from_pipe(int fd, char** buffer, int* buffer_len);
void wait4forked(pid_t p);
void* forkwait_thread(void* arg);

void add_snmp_result(char* rez, int rez_size);
int get_snmp_results(char** res, int* len);
void shutdown_snmp_checker();

#endif
