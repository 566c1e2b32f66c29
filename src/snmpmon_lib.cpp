#include "snmpmon_lib.h"

#include "dynlib.h"
#include "guards.h"
#include "vindral_log.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <iterator>

const char* snmp_lib_file_name = "libsnmp.so";
void* lib_handle = nullptr;
int snmp_lib_status = 0;

decltype(&init_snmp) libpo_init_snmp = nullptr;
decltype(&generate_Ku) libpo_generate_Ku = nullptr;
decltype(&snmp_open) libpo_snmp_open = nullptr;
decltype(&snmp_close) libpo_snmp_close = nullptr;
decltype(&snmp_sess_init) libpo_snmp_sess_init = nullptr;
decltype(&snmp_shutdown) libpo_snmp_shutdown = nullptr;
decltype(&snmp_pdu_create) libpo_snmp_pdu_create = nullptr;
decltype(&snmp_add_null_var) libpo_snmp_add_null_var = nullptr;
decltype(&snmp_free_pdu) libpo_snmp_free_pdu = nullptr;
decltype(&snmp_synch_response) libpo_snmp_synch_response = nullptr;
decltype(&sprint_realloc_variable) libpo_sprint_realloc_variable = nullptr;
decltype(&snmp_error) libpo_snmp_error = nullptr;
decltype(&snmp_parse_oid) libpo_snmp_parse_oid = nullptr;
decltype(&snmp_api_errstring) libpo_snmp_api_errstring = nullptr;
decltype(&snmp_errstring) libpo_snmp_errstring = nullptr;
decltype(&snmp_enable_filelog) lib_snmp_enable_filelog = nullptr;
decltype(&sprint_realloc_objid) libpo_sprint_realloc_objid = nullptr;
decltype(&sprint_realloc_value) libpo_sprint_realloc_value = nullptr;
decltype(&snmp_strcat) libpo_snmp_strcat = nullptr;
decltype(&get_tree) libpo_get_tree = nullptr;
decltype(&netsnmp_ds_toggle_boolean) lib_netsnmp_ds_toggle_boolean = nullptr;
decltype(&snmp_disable_log) lib_snmp_disable_log = nullptr;
decltype(&get_logh_head) lib_get_logh_head = nullptr;
decltype(&netsnmp_remove_loghandler) lib_netsnmp_remove_loghandler = nullptr;
decltype(&netsnmp_ds_set_boolean) lib_netsnmp_ds_set_boolean = nullptr;
decltype(&snmp_disable_syslog) lib_snmp_disable_syslog = nullptr;
decltype(&snmp_disable_filelog) lib_snmp_disable_filelog = nullptr;
decltype(&snmp_disable_stderrlog) lib_snmp_disable_stderrlog = nullptr;
decltype(&snmp_disable_calllog) lib_snmp_disable_calllog = nullptr;
decltype(&netsnmp_register_loghandler) lib_netsnmp_register_loghandler = nullptr;
decltype(&snmp_oid_compare) libpo_snmp_oid_compare = nullptr;
decltype(&snmp_fix_pdu) libpo_snmp_fix_pdu = nullptr;
decltype(&get_tree_head) libpo_get_tree_head = nullptr;

/* The same for both kinds; what the arrays hold is the library's business. */
static constexpr size_t PROTOCOL_LENGTH = 10;
static oid* auth_md5 = nullptr;
static oid* auth_sha1 = nullptr;
static oid* priv_des = nullptr;
static oid* priv_aes = nullptr;

/* What a derived key may take. The library refuses a buffer that is too small for the longest of
 * its hashes, even if the one in use gives less. */
static constexpr size_t KEY_SIZE = USM_AUTH_KU_LEN;
static_assert(KEY_SIZE == USM_PRIV_KU_LEN);

/* In the order in which a library is found lacking. */
#define BIND_DATA(name) dynlib_entry(#name, &libpo_##name)
#define BIND_OPTION(name) dynlib_entry(#name, &lib_##name)
static const dynlib_symbol SNMP_SYMBOLS[] = {
    BIND_DATA(init_snmp),
    BIND_DATA(generate_Ku),
    BIND_DATA(snmp_open),
    BIND_DATA(snmp_close),
    BIND_DATA(snmp_sess_init),
    BIND_DATA(snmp_shutdown),
    BIND_DATA(snmp_pdu_create),
    BIND_DATA(snmp_add_null_var),
    BIND_DATA(snmp_free_pdu),
    BIND_DATA(snmp_synch_response),
    BIND_DATA(sprint_realloc_variable),
    BIND_DATA(snmp_error),
    BIND_DATA(snmp_parse_oid),
    BIND_DATA(snmp_api_errstring),
    BIND_DATA(snmp_errstring),
    BIND_OPTION(snmp_enable_filelog),
    BIND_DATA(sprint_realloc_objid),
    BIND_DATA(sprint_realloc_value),
    BIND_DATA(snmp_strcat),
    BIND_DATA(get_tree),
    BIND_OPTION(netsnmp_ds_toggle_boolean),
    BIND_OPTION(snmp_disable_log),
    BIND_OPTION(get_logh_head),
    BIND_OPTION(netsnmp_remove_loghandler),
    BIND_OPTION(netsnmp_ds_set_boolean),
    BIND_OPTION(snmp_disable_syslog),
    BIND_OPTION(snmp_disable_filelog),
    BIND_OPTION(snmp_disable_stderrlog),
    BIND_OPTION(snmp_disable_calllog),
    BIND_OPTION(netsnmp_register_loghandler),
    BIND_DATA(snmp_oid_compare),
    BIND_DATA(snmp_fix_pdu),
    BIND_DATA(get_tree_head),
};
#undef BIND_DATA
#undef BIND_OPTION

static void look_up_protocols() {
    auth_md5 = static_cast<oid*>(dlsym(lib_handle, "usmHMACMD5AuthProtocol"));
    auth_sha1 = static_cast<oid*>(dlsym(lib_handle, "usmHMACSHA1AuthProtocol"));
    priv_des = static_cast<oid*>(dlsym(lib_handle, "usmDESPrivProtocol"));
    priv_aes = static_cast<oid*>(dlsym(lib_handle, "usmAESPrivProtocol"));
}

static int loading_failed() {
    leveledadd2log(0, "SNMP: failed on loading %s, %s", snmp_lib_file_name, dynlib_error());
    return 0;
}

int init_snmp_lib() {
    if (lib_handle != nullptr) {
        return 1;
    }
    const char* const names[] = {snmp_lib_file_name, "libsnmp.so.40", "libsnmp.so.35"};
    void* library = dynlib_open(names, std::size(names));
    if (library == nullptr) {
        return loading_failed();
    }
    if (!dynlib_bind(library, SNMP_SYMBOLS, std::size(SNMP_SYMBOLS))) {
        loading_failed();
        dlclose(library);
        return 0;
    }
    lib_handle = library;
    look_up_protocols();
    return 1;
}

static void toggle_option(int option) {
    lib_netsnmp_ds_toggle_boolean(NETSNMP_DS_LIBRARY_ID, option);
}

static void silence_library() {
    lib_snmp_disable_log();
    while (netsnmp_log_handler* handler = lib_get_logh_head()) {
        lib_netsnmp_remove_loghandler(handler);
    }
    lib_snmp_disable_syslog();
    lib_snmp_disable_filelog();
    lib_snmp_disable_stderrlog();
    lib_snmp_disable_calllog();
    lib_snmp_disable_log();
    /* Without any handler the library would fall back to standard error. */
    netsnmp_log_handler* nowhere = lib_netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, 0);
    if (nowhere != nullptr) {
        nowhere->pri_max = 0;
    }
}

int init_defaults() {
    toggle_option(NETSNMP_DS_LIB_PRINT_BARE_VALUE);
    toggle_option(NETSNMP_DS_LIB_ESCAPE_QUOTES);
    toggle_option(NETSNMP_DS_LIB_NUMERIC_TIMETICKS);
    toggle_option(NETSNMP_DS_LIB_2DIGIT_HEX_OUTPUT);
    toggle_option(NETSNMP_DS_LIB_DONT_PRINT_UNITS);
    lib_netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_QUICKE_PRINT, 1);
    toggle_option(NETSNMP_DS_LIB_QUICK_PRINT);
    toggle_option(NETSNMP_DS_LIB_PRINT_NUMERIC_ENUM);
    silence_library();
    return 1;
}

/* The array that `name` stands for; null for an unknown name and for one that the library lacks. */
static oid* protocol(const char* name, const char* first_name, oid* first, const char* second_name,
                     oid* second) {
    if (name == nullptr) {
        return nullptr;
    }
    return strcmp(name, first_name) == 0    ? first
           : strcmp(name, second_name) == 0 ? second
                                            : nullptr;
}

static bool derive_key(const netsnmp_session& session, const char* pass_phrase, u_char* key,
                       size_t* key_length) {
    *key_length = KEY_SIZE;
    return libpo_generate_Ku(session.securityAuthProto,
                             static_cast<u_int>(session.securityAuthProtoLen),
                             reinterpret_cast<const u_char*>(pass_phrase),
                             pass_phrase != nullptr ? strlen(pass_phrase) : 0, key,
                             key_length) == SNMPERR_SUCCESS;
}

/* Returns null, or what is wrong with the definition. */
static const char* prepare_user(const snmp_def& p, netsnmp_session& session) {
    session.securityModel = SNMP_SEC_MODEL_USM;
    session.securityName = p.login;
    session.securityNameLen = p.login != nullptr ? strlen(p.login) : 0;
    session.securityAuthProto = protocol(p.authproto, "md5", auth_md5, "sha", auth_sha1);
    session.securityAuthProtoLen = PROTOCOL_LENGTH;
    if (session.securityAuthProto == nullptr) {
        return "Unknown snmpv3 auth protocol.";
    }
    if (p.privpasswd == nullptr) {
        session.securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
        return derive_key(session, p.passwd, session.securityAuthKey, &session.securityAuthKeyLen)
                   ? nullptr
                   : "Error generating key (Ku) from authentication pass phrase.";
    }
    session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    session.securityPrivProto = protocol(p.privproto, "des", priv_des, "aes", priv_aes);
    session.securityPrivProtoLen = PROTOCOL_LENGTH;
    if (session.securityPrivProto == nullptr) {
        return "Unknown snmpv3 auth protocol."; /* the server knows this text for both */
    }
    return derive_key(session, p.privpasswd, session.securityPrivKey, &session.securityPrivKeyLen)
               ? nullptr
               : "Error generating a key (Ku) from the privacy pass phrase.";
}

static void prepare_community(const snmp_def& p, netsnmp_session& session) {
    session.community = reinterpret_cast<u_char*>(p.community);
    session.community_len = p.community != nullptr ? strlen(p.community) : 0;
}

static heap_text peer_text(const char* format, const char* host, int port) {
    char* text = nullptr;
    return heap_text(asprintf(&text, format, host, port) >= 0 ? text : nullptr);
}

/* Opens the session at `address`; messages are to name the host. */
static netsnmp_session* open_at_address(const snmp_def& p, netsnmp_session& session) {
    bool is_ipv6 = strchr(p.address, ':') != nullptr;
    heap_text peer = peer_text(is_ipv6 ? "udp6:[%s]:%i" : "%s:%i", p.address, p.port);
    session.peername = peer.get();
    netsnmp_session* opened = libpo_snmp_open(&session);
    session.peername = p.host;
    if (opened != nullptr) {
        free(opened->peername); /* the library's copy, which it will free in turn */
        opened->peername = strdup(p.host);
    }
    return opened;
}

netsnmp_session* init_session(snmp_def* p, netsnmp_session* session, char** error) {
    *error = nullptr;
    heap_text host = peer_text("%s:%i", p->host, p->port);
    if (!host) {
        return nullptr;
    }
    free(p->host);
    p->host = host.release();
    session->peername = p->host;
    session->version = p->version;
    session->timeout = p->timeout * 1000000L;
    session->retries = p->retries;
    if (p->version == SNMP_VERSION_1 || p->version == SNMP_VERSION_2c) {
        prepare_community(*p, *session);
    } else if (const char* reason = prepare_user(*p, *session)) {
        *error = strdup(reason);
        return nullptr;
    }
    if (p->address != nullptr && *p->address == '\0') {
        if (asprintf(error, "Unknown host (%s)", p->host) < 0) {
            *error = nullptr;
        }
        return nullptr;
    }
    netsnmp_session* opened =
        p->address != nullptr ? open_at_address(*p, *session) : libpo_snmp_open(session);
    if (opened == nullptr) {
        libpo_snmp_error(session, &session->s_errno, &session->s_snmp_errno, error);
    }
    return opened;
}
