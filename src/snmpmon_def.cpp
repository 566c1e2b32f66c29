#include "snmpmon_def.h"

#include "vindral_log.h"
#include "vindral_text.h"

#include <cstdlib>
#include <cstring>

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

/* Unlike copy_text, an empty text is a text. */
static char* copy(const char* text) {
    return text != nullptr ? strdup(text) : nullptr;
}

static int check_host(const char* v_oid_string, const char* v_host) {
    if (v_host == nullptr || v_oid_string == nullptr) {
        leveledadd2log(0, "ERROR: make_snmp_def: v_host = %s v_oid_string = %s", shown(v_host),
                       shown(v_oid_string));
        return 0;
    }
    return 1;
}

static int check_credentials(int v_version, const char* v_community, const char* v_login,
                             const char* v_passwd) {
    if (v_community == nullptr && (v_login == nullptr || v_passwd == nullptr)) {
        leveledadd2log(0, "ERROR: make_snmp_def: v_community = %s v_login = %s v_passwd = %s",
                       shown(v_community), shown(v_login), shown(v_passwd));
        return 0;
    }
    if ((v_login != nullptr || v_passwd != nullptr) && (v_community != nullptr || v_version == 1)) {
        leveledadd2log(0,
                       "ERROR: make_snmp_def: v_login = %s v_passwd = %s v_community = %s "
                       "v_version = %d",
                       shown(v_login), shown(v_passwd), shown(v_community), v_version);
        return 0;
    }
    return 1;
}

static long* make_limit(long value) {
    auto* limit = static_cast<long*>(malloc(sizeof(long)));
    if (limit != nullptr) {
        *limit = value;
    }
    return limit;
}

/* Room for a limit per OID; null for no OIDs and without memory. */
static long** make_limits(size_t count) {
    return count != 0 ? static_cast<long**>(calloc(count, sizeof(long*))) : nullptr;
}

static void free_limits(long** limits, size_t count) {
    for (size_t i = 0; limits != nullptr && i < count; i++) {
        free(limits[i]);
    }
    free(limits);
}

static void set_limits(snmp_def* def, size_t i, const char* item) {
    char** parts = nullptr;
    size_t count = 0;
    uparser(item, &parts, &count, ',');
    if (count == 2) {
        def->min_list[i] = make_limit(strtol(parts[0], nullptr, 10));
        def->max_list[i] = make_limit(strtol(parts[1], nullptr, 10));
    }
    free_uparser_array(&parts, &count);
}

/* Returns 0 with a message when the limits do not fit the OIDs, else 1. */
static int read_limits(snmp_def* def, const char* v_min_max) {
    char** items = nullptr;
    size_t count = 0;
    if (!uparser(v_min_max, &items, &count, ';')) {
        leveledadd2log(0, "INFO: make_snmp_def: Min/Max Value is incorrect: %s", shown(v_min_max));
        return 1;
    }
    bool fits = count == def->oid_len;
    if (fits) {
        def->min_list = make_limits(count);
        def->max_list = make_limits(count);
        for (size_t i = 0; def->min_list != nullptr && def->max_list != nullptr && i < count; i++) {
            set_limits(def, i, items[i]);
        }
    } else {
        leveledadd2log(0,
                       "ERROR: SNMP add failed: Min/Max Value is Incorrect: %s it's count must be "
                       "equal to: %d but now is %d",
                       v_min_max, static_cast<int>(def->oid_len), static_cast<int>(count));
    }
    free_uparser_array(&items, &count);
    return fits;
}

static int library_version(int v_version) {
    switch (v_version) {
    case 1:
        return SNMP_VERSION_1;
    case 3:
        return SNMP_VERSION_3;
    default:
        return SNMP_VERSION_2c;
    }
}

snmp_def* make_snmp_def(int v_mode, int v_tid, int v_loc_id, int v_type, int v_bulk,
                        char* v_oid_string, char* v_host, int v_port, int v_version, int v_timeout,
                        int v_retries, char* v_community, char* v_login, char* v_passwd,
                        char* v_privpasswd, char* v_authproto, char* v_privproto, char* v_min_max) {
    if (!check_host(v_oid_string, v_host) ||
        !check_credentials(v_version, v_community, v_login, v_passwd)) {
        return nullptr;
    }
    auto* def = static_cast<snmp_def*>(calloc(1, sizeof(snmp_def)));
    if (def == nullptr) {
        return nullptr;
    }
    def->isFirstCheck = 1;
    def->mode = v_mode;
    if (v_type == SNMP_GET_TEST) {
        uparser(v_oid_string, &def->oid_arr, &def->oid_len, ';');
        if (!read_limits(def, v_min_max)) {
            free_snmp_def(&def);
            return nullptr;
        }
    } else if (v_type == SNMP_TABLE_TEST || v_type == SNMP_WALK_TEST) {
        def->oid_string = copy(v_oid_string);
    }
    def->version = library_version(v_version);
    def->req_type = v_type;
    def->tid = v_tid;
    def->loc_id = v_loc_id;
    def->bulk = v_bulk;
    def->host = copy(v_host);
    def->timeout = v_timeout >= 1 ? v_timeout : 1;
    def->port = v_port;
    def->retries = v_retries;
    def->community = copy(v_community);
    def->login = copy(v_login);
    def->passwd = copy(v_passwd);
    def->privpasswd = copy(v_privpasswd);
    def->authproto = copy(v_authproto);
    def->privproto = copy(v_privproto);
    return def;
}

static void copy_oids(snmp_def* to, const snmp_def* from) {
    to->oid_arr =
        from->oid_len != 0 ? static_cast<char**>(calloc(from->oid_len, sizeof(char*))) : nullptr;
    to->oid_len = to->oid_arr != nullptr ? from->oid_len : 0;
    for (size_t i = 0; i < to->oid_len; i++) {
        to->oid_arr[i] = copy(from->oid_arr[i]);
    }
}

static long** copy_limits(long* const* limits, size_t count) {
    long** copies = limits != nullptr ? make_limits(count) : nullptr;
    for (size_t i = 0; copies != nullptr && i < count; i++) {
        copies[i] = limits[i] != nullptr ? make_limit(*limits[i]) : nullptr;
    }
    return copies;
}

snmp_def* snmp_def_dup(snmp_def* p) {
    auto* def = p != nullptr ? static_cast<snmp_def*>(malloc(sizeof(snmp_def))) : nullptr;
    if (def == nullptr) {
        return nullptr;
    }
    *def = *p;
    def->mode = 0;
    copy_oids(def, p);
    def->min_list = copy_limits(p->min_list, def->oid_len);
    def->max_list = copy_limits(p->max_list, def->oid_len);
    for (char* snmp_def::*text : {&snmp_def::oid_string, &snmp_def::host, &snmp_def::community,
                                  &snmp_def::login, &snmp_def::passwd, &snmp_def::privpasswd,
                                  &snmp_def::authproto, &snmp_def::privproto, &snmp_def::address}) {
        def->*text = copy(p->*text);
    }
    return def;
}

void free_snmp_def(snmp_def** p) {
    if (p == nullptr || *p == nullptr) {
        return;
    }
    snmp_def* def = *p;
    free_limits(def->min_list, def->oid_len);
    free_limits(def->max_list, def->oid_len);
    free_uparser_array(&def->oid_arr, &def->oid_len);
    for (char* text : {def->oid_string, def->host, def->community, def->login, def->passwd,
                       def->privpasswd, def->authproto, def->privproto, def->address}) {
        free(text);
    }
    free(def);
    *p = nullptr;
}
