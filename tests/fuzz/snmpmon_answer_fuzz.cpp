/* What an SNMP agent may answer to a get, a walk and a table, with the real library to print and
 * compare it; no request leaves the process.
 *
 * Input: a byte for the kind of check, then the responses. Each begins with a byte: its lower half
 * is the number of variables, bit 4 says that it reports an error, whose number and index are the
 * halves of the next byte; 255 is silence, as is the end of the input; 254 begins a response as it
 * comes from the network (BER), with its length in the next byte. A variable has a byte for its
 * type, one for its name (where it begins: bits 0 and 1; sub-identifiers that follow: bits 2 to 5,
 * a byte each), one for the length of its value, and the value. */
#include "snmpmon_checks.h"

#include "silent_log.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>

enum { GET, WALK, BULK_WALK, TABLE, BULK_TABLE, GET_VALUE, KINDS };
enum { SILENCE = 255, AS_ON_THE_WIRE = 254, REPORTS_ERROR = 16 };

static const char ROOT[] = "1.3.6.1.4.1.99990";
static const char TABLE_OID[] = "1.3.6.1.4.1.99990.1";
static const char OBJECTS[] = "1.3.6.1.2.1.1.1.0;1.3.6.1.4.1.99990.2.0;1.3.6.1.2.1.1.3.0";

static decltype(&snmp_pdu_add_variable) add_variable;
static decltype(&snmp_pdu_parse) parse_pdu;

/* --- the input ------------------------------------------------------------------------------- */

static std::string_view rest;

static unsigned take_byte() {
    if (rest.empty()) {
        return 0;
    }
    unsigned byte = static_cast<unsigned char>(rest[0]);
    rest.remove_prefix(1);
    return byte;
}

static std::string_view take_bytes(size_t length) {
    std::string_view bytes = rest.substr(0, length);
    rest.remove_prefix(bytes.size());
    return bytes;
}

/* --- the answers ----------------------------------------------------------------------------- */

struct value_type {
    int type;
    size_t length; /* bytes of a value; 0: any number */
};

static const value_type types[] = {
    {ASN_INTEGER, sizeof(long)},
    {ASN_COUNTER, sizeof(long)},
    {ASN_GAUGE, sizeof(long)},
    {ASN_TIMETICKS, sizeof(long)},
    {ASN_UINTEGER, sizeof(long)},
    {ASN_COUNTER64, sizeof(counter64)},
    {ASN_OPAQUE_COUNTER64, sizeof(counter64)},
    {ASN_OPAQUE_U64, sizeof(counter64)},
    {ASN_OPAQUE_I64, sizeof(counter64)},
    {ASN_OPAQUE_FLOAT, sizeof(float)},
    {ASN_OPAQUE_DOUBLE, sizeof(double)},
    {ASN_OCTET_STR, 0},
    {ASN_BIT_STR, 0},
    {ASN_OPAQUE, 0},
    {ASN_NSAP, 0},
    {ASN_IPADDRESS, 4},
    {ASN_OBJECT_ID, 3 * sizeof(oid)},
    {ASN_NULL, 0},
    {SNMP_NOSUCHOBJECT, 0},
    {SNMP_NOSUCHINSTANCE, 0},
    {SNMP_ENDOFMIBVIEW, 0},
    {0x99, 0},
};

/* A name that begins as the request's, as the table's first column, or nowhere in particular. */
static std::vector<oid> take_name(const netsnmp_variable_list* asked) {
    unsigned shape = take_byte();
    std::vector<oid> name = {1, 3, 6, 1, 4, 1, 99990, 1, 1, 2};
    if ((shape & 3) == 0 && asked != nullptr) {
        name.assign(asked->name, asked->name + asked->name_length);
    } else if ((shape & 3) == 1) {
        name.resize(9);
    } else if ((shape & 3) == 2) {
        name.resize(2);
    }
    for (unsigned i = 0; i < (shape >> 2 & 15) && name.size() < MAX_OID_LEN; i++) {
        unsigned byte = take_byte();
        name.push_back(byte < 0xf0 ? byte : byte << 24);
    }
    return name;
}

static void take_variable(netsnmp_pdu* response, const netsnmp_variable_list* asked) {
    const value_type& type = types[take_byte() % std::size(types)];
    std::vector<oid> name = take_name(asked);
    std::string value(take_bytes(take_byte()));
    if (type.length > 0) {
        value.resize(type.length);
    }
    add_variable(response, name.data(), name.size(), static_cast<u_char>(type.type), value.data(),
                 value.size());
}

static bool take_wire_response(netsnmp_pdu* response) {
    std::string bytes(take_bytes(take_byte()));
    size_t length = bytes.size();
    return parse_pdu(response, reinterpret_cast<u_char*>(bytes.data()), &length) == 0 &&
           response->command == SNMP_MSG_RESPONSE;
}

static void take_response(netsnmp_pdu* response, const netsnmp_pdu* request, unsigned head) {
    if (head & REPORTS_ERROR) {
        unsigned error = take_byte();
        response->errstat = static_cast<long>(error & 15);
        response->errindex = static_cast<long>(error >> 4);
    }
    const netsnmp_variable_list* asked = request->variables;
    for (unsigned i = 0; i < (head & 15); i++) {
        take_variable(response, asked);
        asked = asked != nullptr && asked->next_variable != nullptr ? asked->next_variable
                                                                    : request->variables;
    }
}

static int answer(netsnmp_session*, netsnmp_pdu* request, netsnmp_pdu** response) {
    unsigned head = rest.empty() ? unsigned{SILENCE} : take_byte();
    *response = nullptr;
    int status = STAT_TIMEOUT;
    if (head != SILENCE) {
        *response = libpo_snmp_pdu_create(SNMP_MSG_RESPONSE);
        status = STAT_SUCCESS;
        if (head != AS_ON_THE_WIRE) {
            take_response(*response, request, head);
        } else if (!take_wire_response(*response)) {
            libpo_snmp_free_pdu(*response);
            *response = nullptr;
            status = STAT_ERROR;
        }
    }
    libpo_snmp_free_pdu(request);
    return status;
}

/* --- the checks ------------------------------------------------------------------------------ */

static bool start_library() {
    setenv("MIBDIRS", VINDRAL_FUZZ_MIBS, 1);
    setenv("MIBS", "VINDRAL-TEST-MIB", 1);
    setenv("SNMPCONFPATH", "/dev/null", 1);
    setenv("SNMP_PERSISTENT_DIR", "/dev/null", 1);
    if (!init_snmp_lib()) {
        return false; /* no such library on this host */
    }
    init_defaults();
    libpo_init_snmp("Vindral_snmp");
    libpo_snmp_synch_response = answer;
    add_variable =
        reinterpret_cast<decltype(add_variable)>(dlsym(lib_handle, "snmp_pdu_add_variable"));
    parse_pdu = reinterpret_cast<decltype(parse_pdu)>(dlsym(lib_handle, "snmp_pdu_parse"));
    require(add_variable != nullptr && parse_pdu != nullptr);
    return true;
}

static snmp_def* define(unsigned kind) {
    int type = kind == GET || kind == GET_VALUE      ? SNMP_GET_TEST
               : kind == TABLE || kind == BULK_TABLE ? SNMP_TABLE_TEST
                                                     : SNMP_WALK_TEST;
    std::string objects = type == SNMP_GET_TEST     ? OBJECTS
                          : type == SNMP_TABLE_TEST ? TABLE_OID
                                                    : ROOT;
    bool bulk = kind == BULK_WALK || kind == BULK_TABLE;
    char host[] = "127.0.0.1", community[] = "public", limits[] = "-5,5;;0,4294967296";
    snmp_def* test = make_snmp_def(kind == GET_VALUE, 7, 8, type, bulk ? 10 : 0, objects.data(),
                                   host, 9, 2, 1, 0, community, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, type == SNMP_GET_TEST ? limits : nullptr);
    require(test != nullptr);
    test->address = strdup("127.0.0.1");
    return test;
}

static void check_record(char* data, int size) {
    require(data != nullptr && size >= static_cast<int>(sizeof(UDC)));
    auto* bytes = reinterpret_cast<UDC*>(data);
    require(bytes->size == static_cast<uint32_t>(size));
    UDCW* record = nullptr;
    require(udcw_from_udc(bytes, &record, bytes->size) == 1);
    require(record->pui32[1] == 7 && record->pui32[2] == 8);
    for (uint32_t i = 0; i < record->sarr_index; i++) {
        require(strpbrk(record->pStrArr[i], ";|\t") == nullptr);
    }
    udcw_free(&record);
}

/* Lines of seven fields; one that ends a walk without an answer has six. */
static void check_lines(const std::string& text) {
    std::vector<std::string> lines = split(text, "\n");
    require(lines.size() > 1 && lines.back().empty());
    lines.pop_back();
    for (const std::string& line : lines) {
        auto tabs = std::count(line.begin(), line.end(), '\t');
        require(line.starts_with("SWV\t7\t") && (tabs == 6 || tabs == 5));
        require(std::count(line.begin(), line.end(), ';') == 1 && line.find('|') == line.npos);
    }
}

static void run(unsigned kind) {
    snmp_def* test = define(kind);
    char* data = nullptr;
    int size = 0;
    switch (kind) {
    case GET:
        do_single_full_check(test, &data, &size);
        check_record(data, size);
        break;
    case GET_VALUE:
        do_single_full_check(test, &data, &size);
        require(size == (data != nullptr ? static_cast<int>(strlen(data)) : 0));
        break;
    case TABLE:
        do_single_full_table_check(test, &data, &size);
        check_record(data, size);
        break;
    case BULK_TABLE:
        do_single_full_table_bulk_check(test, &data, &size);
        check_record(data, size);
        break;
    default:
        data =
            kind == WALK ? do_single_full_walk_check(test) : do_single_full_walk_bulk_check(test);
        require(data != nullptr);
        if (*data != '\0') {
            check_lines(data);
        }
    }
    free(data);
    free_snmp_def(&test);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool started = start_library();
    if (!started || size == 0) {
        return 0;
    }
    std::string_view responses(reinterpret_cast<const char*>(data + 1), size - 1);
    require_no_growth([&] {
        rest = responses;
        run(data[0] % KINDS);
    });
    return 0;
}
