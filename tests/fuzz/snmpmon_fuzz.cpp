/* An SNMP test as a command defines it, its copy, and texts on their way to the server. Input: a
 * byte each for type, version and time-out, then texts with a NUL behind each: OIDs, limits, host,
 * community, login, password, privacy pass phrase and the two protocols. "~" stands for no text, as
 * does the end of the input. */
#include "snmpmon_checks.h"

#include "silent_log.h"
#include "vindral_text.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using text = std::optional<std::string>;
enum {
    OIDS,
    LIMITS,
    HOST,
    COMMUNITY,
    LOGIN,
    PASSWORD,
    PRIVACY,
    AUTH_PROTOCOL,
    PRIV_PROTOCOL,
    TEXTS
};

static std::vector<text> read_texts(const uint8_t* data, size_t size) {
    std::vector<text> texts;
    const char* at = reinterpret_cast<const char*>(data);
    const char* end = at + size;
    while (texts.size() < TEXTS && at < end) {
        std::string one(at, strnlen(at, static_cast<size_t>(end - at)));
        at += one.size() + 1;
        texts.push_back(one == "~" ? text() : text(one));
    }
    texts.resize(TEXTS);
    return texts;
}

static bool same(const char* a, const text& b) {
    return a == nullptr ? !b : b && *b == a;
}
static bool same(const char* a, const char* b) {
    return a == nullptr || b == nullptr ? a == b : a != b && strcmp(a, b) == 0;
}
static bool same(const long* a, const long* b) {
    return a == nullptr || b == nullptr ? a == b : a != b && *a == *b;
}

/* The fields of a list; none for no text. */
static std::vector<std::string> fields_of(const text& list, char separator) {
    char** parts = nullptr;
    size_t count = 0;
    uparser(list ? list->c_str() : nullptr, &parts, &count, separator);
    std::vector<std::string> fields(parts, parts + count);
    free_uparser_array(&parts, &count);
    return fields;
}

static bool is_refused(const std::vector<text>& texts, int type, int version) {
    bool has_user = texts[LOGIN] && texts[PASSWORD];
    bool names_user = texts[LOGIN] || texts[PASSWORD];
    std::vector<std::string> limits = fields_of(texts[LIMITS], ';');
    return !texts[HOST] || !texts[OIDS] || (!texts[COMMUNITY] && !has_user) ||
           (names_user && (texts[COMMUNITY] || version == 1)) ||
           (type == SNMP_GET_TEST && !limits.empty() &&
            limits.size() != fields_of(texts[OIDS], ';').size());
}

static void check_limits(const snmp_def* def, const text& list) {
    std::vector<std::string> items = fields_of(list, ';');
    require((def->min_list == nullptr) == (items.empty() || def->oid_len == 0));
    require((def->min_list == nullptr) == (def->max_list == nullptr));
    for (size_t i = 0; def->min_list != nullptr && i < def->oid_len; i++) {
        std::vector<std::string> parts = fields_of(items[i], ',');
        bool is_pair = parts.size() == 2;
        require((def->min_list[i] != nullptr) == is_pair);
        require((def->max_list[i] != nullptr) == is_pair);
        require(!is_pair || (*def->min_list[i] == strtol(parts[0].c_str(), nullptr, 10) &&
                             *def->max_list[i] == strtol(parts[1].c_str(), nullptr, 10)));
    }
}

static void check_definition(const snmp_def* def, const std::vector<text>& texts, int type) {
    require(same(def->host, texts[HOST]) && same(def->community, texts[COMMUNITY]) &&
            same(def->login, texts[LOGIN]) && same(def->passwd, texts[PASSWORD]) &&
            same(def->privpasswd, texts[PRIVACY]) && same(def->authproto, texts[AUTH_PROTOCOL]) &&
            same(def->privproto, texts[PRIV_PROTOCOL]));
    require(def->version == 0 || def->version == 1 || def->version == 3);
    require(def->timeout >= 1 && def->isFirstCheck == 1 && def->req_type == type);
    bool has_one_oid = type == SNMP_TABLE_TEST || type == SNMP_WALK_TEST;
    require(has_one_oid ? same(def->oid_string, texts[OIDS]) : def->oid_string == nullptr);
    if (type != SNMP_GET_TEST) {
        require(def->oid_len == 0 && def->oid_arr == nullptr && def->min_list == nullptr);
        return;
    }
    require(std::vector<std::string>(def->oid_arr, def->oid_arr + def->oid_len) ==
            fields_of(texts[OIDS], ';'));
    check_limits(def, texts[LIMITS]);
}

static void check_copy(const snmp_def* copy, const snmp_def* def) {
    require(copy->mode == 0 && copy->tid == def->tid && copy->loc_id == def->loc_id &&
            copy->port == def->port && copy->version == def->version &&
            copy->timeout == def->timeout && copy->retries == def->retries &&
            copy->req_type == def->req_type && copy->bulk == def->bulk &&
            copy->isFirstCheck == def->isFirstCheck && copy->oid_len == def->oid_len);
    for (char* snmp_def::*field :
         {&snmp_def::oid_string, &snmp_def::host, &snmp_def::community, &snmp_def::login,
          &snmp_def::passwd, &snmp_def::privpasswd, &snmp_def::authproto, &snmp_def::privproto}) {
        require(same(copy->*field, def->*field));
    }
    require((copy->min_list == nullptr) == (def->min_list == nullptr));
    for (size_t i = 0; i < def->oid_len; i++) {
        require(same(copy->oid_arr[i], def->oid_arr[i]));
        require(def->min_list == nullptr || (same(copy->min_list[i], def->min_list[i]) &&
                                             same(copy->max_list[i], def->max_list[i])));
    }
}

static void check_make(std::vector<text>& texts, int type, int version, int timeout) {
    auto pointer = [&](int i) { return texts[i] ? texts[i]->data() : nullptr; };
    snmp_def* def =
        make_snmp_def(1, 2, 3, type, 4, pointer(OIDS), pointer(HOST), 5, version, timeout, 6,
                      pointer(COMMUNITY), pointer(LOGIN), pointer(PASSWORD), pointer(PRIVACY),
                      pointer(AUTH_PROTOCOL), pointer(PRIV_PROTOCOL), pointer(LIMITS));
    require((def == nullptr) == is_refused(texts, type, version));
    if (def == nullptr) {
        return;
    }
    check_definition(def, texts, type);
    snmp_def* copy = snmp_def_dup(def);
    check_copy(copy, def);
    free_snmp_def(&def);
    free_snmp_def(&copy);
    require(def == nullptr && copy == nullptr);
}

static void check_escape(const std::string& raw) {
    std::string expected;
    for (char c : raw) {
        expected += c == ';'                              ? "%253B"
                    : c == '|'                            ? "%257C"
                    : c == '%'                            ? "%2525"
                    : c == '\n' || c == '\r' || c == '\t' ? " "
                                                          : std::string(1, c);
    }
    bool has_separator = raw.find_first_of(";|") != std::string::npos;
    char* escaped = strdup(raw.c_str());
    escape_data(&escaped);
    if (has_separator) {
        bool is_long = strchr(";|%", raw[0]) != nullptr;
        require(escaped == expected.substr(is_long ? 5 : 1));
    } else {
        require(strlen(escaped) == raw.size() && strpbrk(escaped, "\n\r\t;|") == nullptr);
    }
    free(escaped);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    std::vector<text> texts = read_texts(data + 3, size - 3);
    for (const text& one : texts) {
        check_escape(one.value_or(""));
    }
    check_make(texts, static_cast<int8_t>(data[0]), static_cast<int8_t>(data[1]),
               static_cast<int8_t>(data[2]));
    return 0;
}
