#include "snmpmon_checks.h"

#include "record_writer.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

enum { WITHIN_LIMITS = 0, OUT_OF_LIMITS = 2 };
enum { WALK_VALUE = 0, WALK_UNKNOWN_OID = 2, WALK_ENDED = 3 };

/* --- types --------------------------------------------------------------------------------------
 */

int asn2vindral(int sType) {
    switch (sType) {
    case ASN_OPAQUE_DOUBLE:
        return 1;
    case ASN_OPAQUE_FLOAT:
        return 2;
    case ASN_COUNTER64:
        return 3;
    case ASN_OPAQUE_COUNTER64:
        return 4;
    case ASN_OPAQUE_U64:
        return 5;
    case ASN_OPAQUE_I64:
        return 6;
    case ASN_OPAQUE:
        return 7;
    case ASN_OCTET_STR:
        return 8;
    case ASN_INTEGER:
        return 9;
    case ASN_BIT_STR:
        return 10;
    case ASN_OBJECT_ID:
        return 11;
    case ASN_TIMETICKS:
        return 12;
    case ASN_GAUGE:
        return 13;
    case ASN_COUNTER:
        return 14;
    case ASN_UINTEGER:
        return 15;
    case ASN_IPADDRESS:
        return 16;
    case ASN_NSAP:
        return 17;
    case ASN_NULL:
        return 18;
    default:
        return 19;
    }
}

int mib2vindral(int mib_type) {
    switch (mib_type) {
    case TYPE_COUNTER64:
        return 3;
    case TYPE_OPAQUE:
        return 7;
    case TYPE_OCTETSTR:
        return 8;
    case TYPE_INTEGER:
    case TYPE_INTEGER32:
        return 9;
    case TYPE_BITSTRING:
        return 10;
    case TYPE_OBJID:
        return 11;
    case TYPE_TIMETICKS:
        return 12;
    case TYPE_GAUGE:
        return 13;
    case TYPE_COUNTER:
        return 14;
    case TYPE_UINTEGER:
    case TYPE_UNSIGNED32:
        return 15;
    case TYPE_NETADDR:
    case TYPE_IPADDR:
        return 16;
    case TYPE_NSAPADDRESS:
        return 17;
    case TYPE_NULL:
        return 18;
    default:
        return 19;
    }
}

char* get_type_desc(int vType) {
    static const char* const NAMES[] = {
        "OBJECT IDENTIFIER", "OCTET STRING", "INTEGER",     "NetworkAddress", "IpAddress",
        "Counter32",         "Gauge32",      "TimeTicks",   "Opaque",         "NULL",
        "Counter64",         "BITS",         "NsapAddress", "UInteger32",     "Unsigned32",
        "Integer32",
    };
    static_assert(std::size(NAMES) == TYPE_SIMPLE_LAST);
    return vType >= 1 && vType <= TYPE_SIMPLE_LAST ? const_cast<char*>(NAMES[vType - 1]) : nullptr;
}

/* --- texts --------------------------------------------------------------------------------------
 */

heap_text format_text(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return heap_text(length >= 0 ? text : nullptr);
}

/* The escape of a character is itself escaped once more on the server's side. */
static const int ESCAPE_LENGTH = 5;

void escape_data(char** src) {
    if (*src == nullptr) {
        return;
    }
    size_t length = 0, separators = 0, percents = 0;
    for (char* at = *src; *at != '\0'; at++, length++) {
        if (*at == '\n' || *at == '\r' || *at == '\t') {
            *at = ' ';
        }
        separators += *at == ';' || *at == '|';
        percents += *at == '%';
    }
    if (separators == 0) {
        return;
    }
    char* copy =
        static_cast<char*>(malloc(length + (separators + percents) * (ESCAPE_LENGTH - 1) + 1));
    if (copy == nullptr) {
        return;
    }
    char* out = copy;
    for (const char* at = *src + 1; *at != '\0'; at++) {
        if (*at == ';' || *at == '|' || *at == '%') {
            out += sprintf(out, "%%25%02X", *at);
        } else {
            *out++ = *at;
        }
    }
    *out = '\0';
    free(*src);
    *src = copy;
}

heap_text escaped(heap_text text) {
    char* raw = text.release();
    escape_data(&raw);
    return heap_text(raw);
}

/* --- the library's texts and answers ------------------------------------------------------------
 */

/* What the library has printed into a buffer that it may have left empty. */
static heap_text printed(u_char* buffer) {
    return heap_text(buffer != nullptr ? reinterpret_cast<char*>(buffer) : strdup(""));
}

heap_text print_oid(const oid* name, size_t length) {
    u_char* buffer = nullptr;
    size_t size = 0, used = 0;
    libpo_sprint_realloc_objid(&buffer, &size, &used, 1, name, length);
    return printed(buffer);
}

heap_text print_value(const netsnmp_variable_list* variable) {
    u_char* buffer = nullptr;
    size_t size = 0, used = 0;
    libpo_sprint_realloc_value(&buffer, &size, &used, 1, variable->name, variable->name_length,
                               variable);
    return printed(buffer);
}

static heap_text print_variable(const netsnmp_variable_list* variable) {
    u_char* buffer = nullptr;
    size_t size = 0, used = 0;
    libpo_sprint_realloc_variable(&buffer, &size, &used, 1, variable->name, variable->name_length,
                                  variable);
    return printed(buffer);
}

bool is_exception(const netsnmp_variable_list* variable) {
    return variable->type == SNMP_NOSUCHOBJECT || variable->type == SNMP_NOSUCHINSTANCE ||
           variable->type == SNMP_ENDOFMIBVIEW;
}

bool lies_under(const netsnmp_variable_list* variable, const oid* root, size_t length) {
    return variable->name_length >= length &&
           memcmp(variable->name, root, length * sizeof(oid)) == 0;
}

heap_text parse_oid(const char* text, oid* name, size_t* length) {
    *length = MAX_OID_LEN;
    if (text != nullptr && libpo_snmp_parse_oid(text, name, length) != nullptr) {
        return nullptr;
    }
    return format_text("%s", libpo_snmp_api_errstring(SNMPERR_UNKNOWN_OBJID));
}

static heap_text unknown_error() {
    return format_text("Unknown error");
}

check_session::check_session(snmp_def& test) {
    netsnmp_session settings;
    libpo_snmp_sess_init(&settings);
    char* reason = nullptr;
    opened = init_session(&test, &settings, &reason);
    error.reset(reason);
    if (opened == nullptr && !error) {
        error = unknown_error();
    }
}

check_session::~check_session() {
    if (opened != nullptr) {
        libpo_snmp_close(opened);
    }
}

pdu_owner new_walk_request(const int* bulk) {
    pdu_owner request(libpo_snmp_pdu_create(bulk != nullptr ? SNMP_MSG_GETBULK : SNMP_MSG_GETNEXT));
    if (request && bulk != nullptr) {
        request->non_repeaters = 0;
        request->max_repetitions = *bulk;
    }
    return request;
}

static heap_text exchange_error(netsnmp_session* session, int status, const char* silence) {
    if (status == STAT_TIMEOUT) {
        return format_text("%s %s", silence, session->peername);
    }
    int system_error = 0, library_error = 0;
    char* reason = nullptr;
    libpo_snmp_error(session, &system_error, &library_error, &reason);
    return reason != nullptr ? heap_text(reason) : unknown_error();
}

exchange ask(netsnmp_session* session, pdu_owner request, const char* silence) {
    exchange result = {nullptr, nullptr, now_in_seconds(), 0.0};
    if (!request) {
        result.error = unknown_error();
        return result;
    }
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    netsnmp_pdu* response = nullptr;
    int status = libpo_snmp_synch_response(session, request.release(), &response);
    clock_gettime(CLOCK_MONOTONIC, &end);
    long microseconds =
        (end.tv_sec - start.tv_sec) * 1000000L + (end.tv_nsec - start.tv_nsec) / 1000;
    result.milliseconds = static_cast<double>(microseconds) / 1000.0;
    result.response.reset(response);
    if (status != STAT_SUCCESS || response == nullptr) {
        result.response.reset();
        result.error = exchange_error(session, status, silence);
    }
    return result;
}

heap_text failed_object(const netsnmp_pdu* response) {
    const netsnmp_variable_list* variable = response->variables;
    for (long i = 1; i < response->errindex && variable != nullptr; i++) {
        variable = variable->next_variable;
    }
    if (response->errindex < 1 || variable == nullptr) {
        return nullptr;
    }
    return print_oid(variable->name, variable->name_length);
}

static heap_text packet_error(const netsnmp_pdu* response) {
    const char* reason = libpo_snmp_errstring(static_cast<int>(response->errstat));
    heap_text object = failed_object(response);
    return object
               ? format_text("Error in packet. Reason: %s Failed object: %s", reason, object.get())
               : format_text("Error in packet. Reason: %s", reason);
}

void hand_over(UDCW* record, char** data, int* data_size) {
    *data = nullptr;
    *data_size = 0;
    if (record != nullptr) {
        *data_size = static_cast<int>(record->udc->size);
        *data = reinterpret_cast<char*>(record->udc);
        udcw_free(&record);
    }
}

/* --- one value ----------------------------------------------------------------------------------
 */

template <typename T>
static int judge(T value, const long* min_val, const long* max_val) {
    bool is_out = (min_val != nullptr && value < static_cast<T>(*min_val)) ||
                  (max_val != nullptr && value > static_cast<T>(*max_val));
    return is_out ? OUT_OF_LIMITS : WITHIN_LIMITS;
}

int process_vars(netsnmp_variable_list* vars_ret, int* _type, char** _sval, long* min_val,
                 long* max_val) {
    *_type = asn2vindral(vars_ret->type);
    switch (vars_ret->type) {
    case ASN_INTEGER:
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_COUNTER64:
    case ASN_UINTEGER:
    case ASN_OPAQUE_COUNTER64:
    case ASN_OPAQUE_U64:
    case ASN_OPAQUE_I64:
        *_sval = escaped(print_value(vars_ret)).release();
        return judge(*vars_ret->val.integer, min_val, max_val);
    case ASN_OPAQUE_FLOAT:
        *_sval = escaped(print_value(vars_ret)).release();
        return judge(static_cast<double>(*vars_ret->val.floatVal), min_val, max_val);
    case ASN_OPAQUE_DOUBLE:
        *_sval = escaped(print_value(vars_ret)).release();
        return judge(*vars_ret->val.doubleVal, min_val, max_val);
    case ASN_BIT_STR:
    case ASN_OCTET_STR:
    case ASN_NULL:
    case ASN_OBJECT_ID:
    case ASN_IPADDRESS:
    case ASN_OPAQUE:
    case ASN_NSAP:
        *_sval = escaped(print_value(vars_ret)).release();
        return WITHIN_LIMITS;
    default:
        *_sval = escaped(print_variable(vars_ret)).release();
        return OUT_OF_LIMITS;
    }
}

/* --- get ----------------------------------------------------------------------------------------
 */

/* How a get went: a response without error, or the reason why there is none. */
struct get_outcome {
    exchange answer;
    heap_text error;
    time_t time;
    double milliseconds;
};

static get_outcome get_failed(heap_text error, time_t time, double milliseconds) {
    return {{}, escaped(std::move(error)), time, milliseconds};
}

/* A request for all OIDs of the test; null with the reason when one of them is unknown. */
static pdu_owner new_get_request(const snmp_def& test, heap_text& error) {
    pdu_owner request(libpo_snmp_pdu_create(SNMP_MSG_GET));
    oid name[MAX_OID_LEN];
    size_t length;
    for (size_t i = 0; request && i < test.oid_len; i++) {
        error = parse_oid(test.oid_arr[i], name, &length);
        if (error) {
            return nullptr;
        }
        libpo_snmp_add_null_var(request.get(), name, length);
    }
    return request;
}

static get_outcome run_get(snmp_def& test) {
    time_t check_time = now_in_seconds();
    check_session session(test);
    if (session.opened == nullptr) {
        return get_failed(std::move(session.error), check_time, 0.0);
    }
    heap_text error;
    pdu_owner request = new_get_request(test, error);
    if (error) {
        return get_failed(std::move(error), check_time, 0.0);
    }
    for (size_t round = 0;; round++) {
        exchange answer = ask(session.opened, std::move(request), "Timeout: No response from");
        if (!answer.response) {
            return get_failed(std::move(answer.error), answer.started, answer.milliseconds);
        }
        if (answer.response->errstat == SNMP_ERR_NOERROR) {
            double milliseconds = answer.milliseconds;
            return {std::move(answer), nullptr, check_time, milliseconds};
        }
        /* An agent that refuses whatever it likes could keep this going for ever. */
        if (round < test.oid_len) {
            request.reset(libpo_snmp_fix_pdu(answer.response.get(), SNMP_MSG_GET));
        }
        if (!request) {
            return get_failed(packet_error(answer.response.get()), check_time, 0.0);
        }
    }
}

static heap_text describe(const snmp_def& test, size_t i, int status, const char* value) {
    if (status == WITHIN_LIMITS) {
        return format_text("OID: %s the result is available.\n", test.oid_arr[i]);
    }
    const long* min_val = test.min_list != nullptr ? test.min_list[i] : nullptr;
    const long* max_val = test.max_list != nullptr ? test.max_list[i] : nullptr;
    return format_text("OID:       %s\nValue:     %s\nMin Value: %ld\nMax Value: %ld\n",
                       test.oid_arr[i], value, min_val != nullptr ? *min_val : 0,
                       max_val != nullptr ? *max_val : 0);
}

static void add_variable(UDCW* record, const snmp_def& test, size_t i,
                         netsnmp_variable_list* variable) {
    int type = 0;
    char* text = nullptr;
    int status =
        process_vars(variable, &type, &text, test.min_list != nullptr ? test.min_list[i] : nullptr,
                     test.max_list != nullptr ? test.max_list[i] : nullptr);
    heap_text value(text);
    heap_text description = describe(test, i, status, value.get());
    add_part(record, make_part<protocol::rows::snmp_results>(
                         named<"type">(type), named<"status">(status), named<"value">(value.get()),
                         named<"message">(description.get())));
}

static UDCW* get_record(const snmp_def& test, const get_outcome& outcome) {
    const netsnmp_pdu* response = outcome.answer.response.get();
    UDCW* record = make_record<protocol::snmp>(
        named<"test">(test.tid), named<"location">(test.loc_id),
        named<"status">(response != nullptr ? protocol::status_ok : protocol::status_not_found),
        named<"time">(outcome.time), named<"objects">(test.oid_len),
        named<"time">(outcome.milliseconds),
        named<"message">(response != nullptr ? "New results are available.\n"
                                             : outcome.error.get()));
    netsnmp_variable_list* variable =
        record != nullptr && response != nullptr ? response->variables : nullptr;
    for (size_t i = 0; variable != nullptr && i < test.oid_len; i++) {
        add_variable(record, test, i, variable);
        variable = variable->next_variable;
    }
    return record;
}

/* The value of an internal query. */
static void hand_over_value(const get_outcome& outcome, char** data, int* data_size) {
    *data = nullptr;
    *data_size = 0;
    netsnmp_variable_list* last =
        outcome.answer.response ? outcome.answer.response->variables : nullptr;
    while (last != nullptr && last->next_variable != nullptr) {
        last = last->next_variable;
    }
    int type = 0;
    if (last != nullptr) {
        process_vars(last, &type, data, nullptr, nullptr);
    }
    if (*data != nullptr) {
        *data_size = static_cast<int>(strlen(*data));
    }
}

int do_single_full_check(snmp_def* def_snmp, char** data, int* data_size) {
    get_outcome outcome = run_get(*def_snmp);
    if (def_snmp->mode != 0) {
        hand_over_value(outcome, data, data_size);
    } else {
        hand_over(get_record(*def_snmp, outcome), data, data_size);
    }
    return 1;
}

/* --- walk ---------------------------------------------------------------------------------------
 */

/* A walk on its way: where it is, and its lines so far. */
struct subtree_walk {
    const snmp_def& test;
    const int* bulk;
    oid root[MAX_OID_LEN] = {};
    size_t root_length = 0;
    oid last[MAX_OID_LEN] = {};
    size_t last_length = 0;
    bytes lines{};
};

static void add_line(subtree_walk& walk, const heap_text& line) {
    if (line) {
        walk.lines.append(line.get(), strlen(line.get()));
    }
}

/* The line that ends a walk without an exchange to blame. */
static void end_walk(subtree_walk& walk, time_t time, heap_text reason, int status) {
    heap_text text = escaped(std::move(reason));
    add_line(walk, format_text("SWV\t%d\t%lu\t0\t;\t%s\t%d\n", walk.test.tid,
                               static_cast<unsigned long>(time), text.get(), status));
}

static void add_value_line(subtree_walk& walk, const exchange& answer,
                           const netsnmp_variable_list* variable) {
    heap_text name = escaped(print_oid(variable->name, variable->name_length));
    heap_text value = escaped(print_value(variable));
    add_line(walk, format_text("SWV\t%d\t%lu\t%0.3f\t%d;\t%s %s\t%d\n", walk.test.tid,
                               static_cast<unsigned long>(answer.started), answer.milliseconds,
                               asn2vindral(variable->type), name.get(), value.get(), WALK_VALUE));
}

/* Whether the walk goes on behind this variable. */
static bool take_variable(subtree_walk& walk, const exchange& answer,
                          const netsnmp_variable_list* variable) {
    if (!lies_under(variable, walk.root, walk.root_length) || is_exception(variable) ||
        variable->name_length > MAX_OID_LEN) {
        return false;
    }
    add_value_line(walk, answer, variable);
    if (libpo_snmp_oid_compare(variable->name, variable->name_length, walk.last,
                               walk.last_length) <= 0) {
        heap_text before = print_oid(walk.last, walk.last_length);
        heap_text now = print_oid(variable->name, variable->name_length);
        end_walk(walk, answer.started,
                 format_text("Error: OID not increasing: %s >= %s", before.get(), now.get()),
                 WALK_ENDED);
        return false;
    }
    if (walk.lines.size() > MAX_SNMP_TEXT) {
        end_walk(walk, answer.started, format_text("Result is too large"), WALK_ENDED);
        return false;
    }
    memcpy(walk.last, variable->name, variable->name_length * sizeof(oid));
    walk.last_length = variable->name_length;
    return true;
}

static bool take_walk_response(subtree_walk& walk, const exchange& answer) {
    const netsnmp_pdu* response = answer.response.get();
    if (response->errstat != SNMP_ERR_NOERROR) {
        bool ended = response->errstat == SNMP_ERR_NOSUCHNAME;
        heap_text reason = ended ? format_text("End of MIB") : packet_error(response);
        end_walk(walk, answer.started, std::move(reason), WALK_ENDED);
        return false;
    }
    const netsnmp_variable_list* variable = response->variables;
    if (variable == nullptr) {
        return false;
    }
    while (variable != nullptr && take_variable(walk, answer, variable)) {
        variable = variable->next_variable;
    }
    return variable == nullptr;
}

/* One step; whether there is another one to do. */
static bool step(subtree_walk& walk, netsnmp_session* session) {
    pdu_owner request = new_walk_request(walk.bulk);
    if (request) {
        libpo_snmp_add_null_var(request.get(), walk.last, walk.last_length);
    }
    exchange answer = ask(session, std::move(request), "Timeout: No response from");
    if (answer.response) {
        return take_walk_response(walk, answer);
    }
    heap_text text = escaped(std::move(answer.error));
    add_line(walk, format_text("SWV\t%d\t%lu\t%0.3f\t;\t%s\t%d\n", walk.test.tid,
                               static_cast<unsigned long>(answer.started), answer.milliseconds,
                               text.get(), WALK_ENDED));
    return false;
}

static void run_walk(subtree_walk& walk, snmp_def& test) {
    time_t check_time = now_in_seconds();
    check_session session(test);
    if (session.opened == nullptr) {
        end_walk(walk, check_time, std::move(session.error), WALK_ENDED);
        return;
    }
    heap_text error = parse_oid(test.oid_string, walk.root, &walk.root_length);
    if (error) {
        end_walk(walk, check_time, std::move(error), WALK_UNKNOWN_OID);
        return;
    }
    memcpy(walk.last, walk.root, sizeof walk.root);
    walk.last_length = walk.root_length;
    while (step(walk, session.opened)) {
    }
}

static char* walk_lines(snmp_def& test, const int* bulk) {
    subtree_walk walk = {.test = test, .bulk = bulk};
    run_walk(walk, test);
    return walk.lines.append('\0') ? walk.lines.release() : nullptr;
}

char* do_single_full_walk_check(snmp_def* def_snmp) {
    return walk_lines(*def_snmp, nullptr);
}

char* do_single_full_walk_bulk_check(snmp_def* def_snmp) {
    return walk_lines(*def_snmp, &def_snmp->bulk);
}
