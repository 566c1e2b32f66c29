/* What a child process of the SNMP checker does for one test: a get, a table or a walk.
 *
 * A check opens its session, asks, and builds its result: a record (udc.h) of a get or a table,
 * text lines of a walk. It always has a result; a failure is one with the reason in it, and only
 * when memory runs out is there none. Values are printed by the library as init_defaults has set
 * it, and with escape_data. Nothing here logs, and nothing is locked: a child has one thread, and
 * the log's lock may have been held when it was forked.
 *
 * Agents are not trusted:
 *   - of a get response, variables beyond the OIDs of the test are left out;
 *   - a request that an agent refuses is repeated without the variable at fault at most as often as
 *     the test has OIDs;
 *   - in a table, a value outside its column, an exception, and an OID that does not increase end
 *     their column; a column that a response leaves out is asked for again, but a response without
 *     any variable ends the table;
 *   - a walk ends with the first OID that does not increase and with an empty response;
 *   - a result beyond MAX_SNMP_TEXT bytes or MAX_SNMP_CELLS cells ends the check with the text
 *     "Result is too large".
 * Time is bounded per request alone: by the test's time-out and retries.
 *
 * Record of a get, in order of types: UI32 57, test id, location id, status (0 success, 3 failure),
 * number of OIDs of the test; I64 time of the check, or of the last request when that got no
 * response; D64 response time of the last request in ms, 0.0 when there was none and when the agent
 * refused it; string text. Then, on success, one record per variable of the response: UI32 type
 * code, value status; string value text (not stored when it is empty), description. Limits and
 * descriptions are those of the OID at the same place in the test, also after an agent has refused
 * one further up.
 *
 * Record of a table: UI32 67, test id, location id, status (0 success, 2 failure); I64 time; string
 * text. Then the column list: UI32 type code and string label per column. Then, when there are
 * rows: UI32 row and column and string value per cell, row by row, from 0; "-" where a row has no
 * value or an empty one, so that every cell has its string. Rows come in the order of their index.
 *
 * Lines of a walk, separated by tabs: SWV, test id, time, response time in ms (0 when there was no
 * exchange), then type code and ';', name and value separated by a blank, and status: 0 a value, 2
 * an unknown OID, 3 the reason why the walk ended. */
#ifndef VINDRAL_SNMPMON_CHECKS_H
#define VINDRAL_SNMPMON_CHECKS_H

#include "bytes.h"
#include "guards.h"
#include "snmpmon_lib.h"
#include "udc.h"

#include <memory>

/* A column of a table, as the MIB tree knows it. */
struct column {
    oid subid;
    char* label;  /* malloc'd */
    int type_val; /* MIB parser type */
    int type_asn; /* ASN.1 tag of its first value, 0 until there is one */
};

/* What one result may take before it is packed: texts and row indexes in bytes, cells by number. */
inline constexpr size_t MAX_SNMP_TEXT = 16 * 1024 * 1024;
inline constexpr size_t MAX_SNMP_CELLS = 256 * 1024;

/* Each returns 1. *data is malloc'd (the caller frees it) and *data_size its length in bytes; null
 * and 0 when memory runs out. The definition's host becomes "host:port" (init_session).
 *
 * For a definition with a mode other than 0, a get hands over the value text of the last variable
 * in place of a record, NUL-terminated, the NUL not counted; null and 0 when the get fails. */
int do_single_full_check(snmp_def* def_snmp, char** data, int* data_size);
int do_single_full_table_check(snmp_def* def_snmp, char** pData, int* data_size);
int do_single_full_table_bulk_check(snmp_def* def_snmp, char** pData, int* data_size);

/* Return the lines as a malloc'd text, or null when memory runs out. */
char* do_single_full_walk_check(snmp_def* def_snmp);
char* do_single_full_walk_bulk_check(snmp_def* def_snmp);

/* Prints and judges one value. Returns its status: 0 within its limits (a missing one is skipped)
 * or of a type that has none, 2 out of them or no value at all: an exception or an unknown type,
 * whose text is that of the whole variable. *_type receives the type code, *_sval a malloc'd text
 * for the caller to free.
 *
 * Integers are compared by the first machine word of the value, signed. For 64-bit types that is
 * the upper half, because the library keeps two words with the upper one first. */
int process_vars(netsnmp_variable_list* vars_ret, int* _type, char** _sval, long* min_val,
                 long* max_val);

/* Makes a text fit to travel. Line feeds, carriage returns and tabs become blanks in place. A text
 * with a ';' or '|' is then replaced by a new one (the old one is freed) in which ';', '|' and '%'
 * are "%253B", "%257C" and "%2525", and which lacks the first character of the old one: the server
 * has always been sent it so. Null is left alone. */
void escape_data(char** src);

/* Finds the columns of the table that `root` (MAX_OID_LEN long) names, by the table's OID or that
 * of its entry: a node whose only child has children is a table, that child is its entry, and the
 * entry's children are the columns. A group of plain objects passes for an entry.
 *
 * On success `root` is the entry's OID and *clmn a malloc'd array of *fields columns (free_columns)
 * by their sub-identifiers, those included that cannot be read. *fields is 0 and *clmn null when
 * the MIB tree has no such node, or it has no children, or children that have children.
 *
 * *table_name receives the printed OID as it was given, malloc'd: "[TRUNCATED]" when it cannot be
 * printed whole, null when there is nothing. */
void get_field_names(oid* root, size_t* rootlen, char** table_name, column** clmn, int* fields);
void free_columns(column** clmn, int fields);

/* The record of types and labels; the caller frees it. Null for 0 columns or without memory. */
UDC* get_column_list(column* clm, int fields);

/* The agent's own type codes, 1 to 19 (anything unknown), of an ASN.1 tag and of a MIB type. */
int asn2vindral(int sType);
int mib2vindral(int mib_type);

/* The name of a MIB type from 1 to 16, static; null for any other. */
char* get_type_desc(int vType);

/* --- what the checks are made of ---------------------------------------------------------- */

/* A text from a printf format; null when memory runs out. */
heap_text format_text(const char* format, ...) __attribute__((format(printf, 1, 2)));

heap_text escaped(heap_text text);

/* As the library prints them, not escaped; null when memory runs out. */
heap_text print_oid(const oid* name, size_t length);
heap_text print_value(const netsnmp_variable_list* variable);

/* noSuchObject, noSuchInstance, endOfMibView: in place of a value. */
bool is_exception(const netsnmp_variable_list* variable);

/* Whether `variable` is `root` or lies below it. */
bool lies_under(const netsnmp_variable_list* variable, const oid* root, size_t length);

/* The OID that a text stands for. On failure the reason, else null. */
heap_text parse_oid(const char* text, oid* name, size_t* length);

/* A session for the scope of a check. */
struct check_session {
    netsnmp_session* opened; /* null on failure */
    heap_text error;         /* the reason then */

    explicit check_session(snmp_def& test);
    ~check_session();
    check_session(const check_session&) = delete;
    check_session& operator=(const check_session&) = delete;
};

struct free_pdu {
    void operator()(netsnmp_pdu* pdu) const { libpo_snmp_free_pdu(pdu); }
};
using pdu_owner = std::unique_ptr<netsnmp_pdu, free_pdu>;

/* A GETNEXT request, or with `bulk` a GETBULK for so many repetitions; no variables yet. Null
 * without memory. */
pdu_owner new_walk_request(const int* bulk);

/* One request and its answer. */
struct exchange {
    pdu_owner response; /* null when there was none */
    heap_text error;    /* why; never null then, unless memory ran out */
    time_t started;     /* seconds since the epoch */
    double milliseconds;
};

/* Sends `request` and waits for the response. `silence` begins the text of a time-out, which the
 * peer's name completes. */
exchange ask(netsnmp_session* session, pdu_owner request, const char* silence);

/* The printed OID of the variable that an error response names, or null. */
heap_text failed_object(const netsnmp_pdu* response);

/* Hands a finished record over as the result of a check and frees the writer. */
void hand_over(UDCW* record, char** data, int* data_size);

#endif
