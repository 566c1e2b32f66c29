/* The definition of an SNMP test (snmpmon.h), which everything that makes requests reads. */
#ifndef VINDRAL_SNMPMON_DEF_H
#define VINDRAL_SNMPMON_DEF_H

#include <cstddef>

/* Values of req_type. */
enum { SNMP_TABLE_TEST = 1, SNMP_GET_TEST = 2, SNMP_WALK_TEST = 3 };

/* One test. Every text, array and limit is owned by the definition. */
struct snmp_def {
    int mode; /* 0: a test of the server; else an internal query (get_snmp_values) */
    int tid;  /* any number, 0 too */
    int loc_id;
    char* oid_string; /* of a table or walk test, else null */
    char** oid_arr;   /* of a get test, else null */
    size_t oid_len;
    char* host;
    int port;    /* UDP */
    int version; /* as the library counts: 0 SNMPv1, 1 SNMPv2c, 3 SNMPv3 */
    int timeout; /* seconds per request, at least 1 */
    int retries;
    char* community; /* null with a login */
    char* login;
    char* passwd;
    char* privpasswd;
    char* authproto;  /* "md5" or "sha" */
    char* privproto;  /* "des" or "aes" */
    long** min_list;  /* per OID of a get test: its lower limit, or null; null without any limits */
    long** max_list;  /* the upper ones, present when min_list is */
    int req_type;     /* SNMP_TABLE_TEST, ... */
    int bulk;         /* 0: GETNEXT; else GETBULK with so many repetitions */
    int isFirstCheck; /* 1 from creation until a pass has started the test */
    char* address;    /* numeric, where the host's name leads, "" nowhere; null: as `host` says */
};

/* A new definition (free_snmp_def), or null with the reason logged at level 0: neither host nor
 * OIDs may be null; either a community or a login with its password, and a login not with
 * version 1. v_version counts from 1 (SNMPv1); anything but 1, 2 and 3 is SNMPv2c, so a login does
 * not make SNMPv3. The OIDs of a get test are separated by ';', as are the limits "LOWER,UPPER" in
 * v_min_max, one for each OID. An item of other than two parts sets no limits; no items at all are
 * logged and mean a test without limits. */
snmp_def* make_snmp_def(int v_mode, int v_tid, int v_loc_id, int v_type, int v_bulk,
                        char* v_oid_string, char* v_host, int v_port, int v_version, int v_timeout,
                        int v_retries, char* v_community, char* v_login, char* v_passwd,
                        char* v_privpasswd, char* v_authproto, char* v_privproto, char* v_min_max);

/* A deep copy of all but the mode, which is 0; null for null and without memory. */
snmp_def* snmp_def_dup(snmp_def* p);

/* Frees the definition with all it owns and nulls the pointer; null is fine. */
void free_snmp_def(snmp_def** p);

#endif
