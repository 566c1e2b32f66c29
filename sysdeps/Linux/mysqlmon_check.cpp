#include "mysqlmon_check.h"

#include "guards.h"
#include "mysqlmon_lib.h"
#include "vindral_common.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <initializer_list>

/* --- the definition -------------------------------------------------------------------------- */

static void free_limits(double** limits, size_t count) {
    for (size_t i = 0; limits != nullptr && i < count; i++) {
        free(limits[i]);
    }
    free(limits);
}

static void free_params(MySQL_Data* p) {
    free_limits(p->maxValues, p->arr_len);
    free_limits(p->minValues, p->arr_len);
    p->maxValues = p->minValues = nullptr;
    free_uparser_array(&p->arr, &p->arr_len);
    p->arr = nullptr;
}

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

static double* new_limit(double value) {
    auto* limit = static_cast<double*>(malloc(sizeof(double)));
    if (limit != nullptr) {
        *limit = value;
    }
    return limit;
}

static double* parse_limit(const char* text) {
    return is_digit(*text) ? new_limit(strtod(text, nullptr)) : nullptr;
}

/* Cuts the entry to its name. */
static void parse_entry(char* entry, double** upper, double** lower) {
    char* bar = strchr(entry, '|');
    if (bar == nullptr) {
        return;
    }
    *bar = '\0';
    *upper = parse_limit(bar + 1);
    if (const char* second = strchr(bar + 1, '|')) {
        *lower = parse_limit(second + 1);
    }
}

static double** new_limits(size_t count) {
    return static_cast<double**>(calloc(count, sizeof(double*)));
}

int parse_mysql_params(MySQL_Data* p, const char* param_list) {
    free_params(p);
    if (!uparser(param_list, &p->arr, &p->arr_len, ';')) {
        return 0;
    }
    p->maxValues = new_limits(p->arr_len);
    p->minValues = new_limits(p->arr_len);
    if (p->maxValues == nullptr || p->minValues == nullptr) {
        free_params(p);
        return 0;
    }
    for (size_t i = 0; i < p->arr_len; i++) {
        parse_entry(p->arr[i], &p->maxValues[i], &p->minValues[i]);
    }
    return 1;
}

static bool dup_text(const char* text, char** copy) {
    *copy = text != nullptr ? strdup(text) : nullptr;
    return (*copy != nullptr) == (text != nullptr);
}

static bool dup_limit(const double* limit, double** copy) {
    *copy = limit != nullptr ? new_limit(*limit) : nullptr;
    return (*copy != nullptr) == (limit != nullptr);
}

static bool dup_params(const MySQL_Data& from, MySQL_Data* to) {
    if (from.arr_len == 0) {
        return true;
    }
    to->arr = static_cast<char**>(calloc(from.arr_len, sizeof(char*)));
    to->maxValues = new_limits(from.arr_len);
    to->minValues = new_limits(from.arr_len);
    if (to->arr == nullptr || to->maxValues == nullptr || to->minValues == nullptr) {
        free(to->arr);
        to->arr = nullptr;
        return false;
    }
    to->arr_len = from.arr_len;
    bool complete = true;
    for (size_t i = 0; i < from.arr_len; i++) {
        complete = dup_text(from.arr[i], &to->arr[i]) && complete;
        complete = dup_limit(from.maxValues[i], &to->maxValues[i]) && complete;
        complete = dup_limit(from.minValues[i], &to->minValues[i]) && complete;
    }
    return complete;
}

MySQL_Data* mysql_data_dup(MySQL_Data* p) {
    auto* copy = p != nullptr ? static_cast<MySQL_Data*>(calloc(1, sizeof(MySQL_Data))) : nullptr;
    if (copy == nullptr) {
        return nullptr;
    }
    copy->tid = p->tid;
    copy->locid = p->locid;
    copy->port = p->port;
    copy->tout = p->tout;
    copy->isFirstCheck = p->isFirstCheck;
    bool complete = dup_text(p->host, &copy->host);
    complete = dup_text(p->user, &copy->user) && complete;
    complete = dup_text(p->pass, &copy->pass) && complete;
    complete = dup_text(p->unixsock, &copy->unixsock) && complete;
    complete = dup_params(*p, copy) && complete;
    if (!complete) {
        free_mysql_data(&copy);
    }
    return copy;
}

void free_mysql_data(MySQL_Data** p) {
    if (*p == nullptr) {
        return;
    }
    free_params(*p);
    free((*p)->host);
    free((*p)->user);
    free((*p)->pass);
    free((*p)->unixsock);
    free(*p);
    *p = nullptr;
}

/* --- the server's values --------------------------------------------------------------------- */

/* Seconds that the server has for what it answers. Most: the libraries count milliseconds in an
 * int. */
static const unsigned LEAST_ANSWER_TIME = 30, MOST_ANSWER_TIME = INT_MAX / 1000;

static char* owned(const char* text) {
    return strdup(text != nullptr ? text : "");
}

static void take_value(const MySQL_Data& test, const char* name, const char* value, char** pTarr) {
    for (size_t i = 0; i < test.arr_len; i++) {
        if (test.arr[i][0] == name[0] && strcmp(test.arr[i], name) == 0) {
            free(pTarr[i]);
            pTarr[i] = strdup(value);
            return;
        }
    }
}

static void take_rows(const MySQL_Data& test, MYSQL_RES* rows, char** pTarr) {
    if (lib_mysql_num_fields(rows) < 2) {
        return;
    }
    while (MYSQL_ROW row = lib_mysql_fetch_row(rows)) {
        if (row[0] != nullptr && row[1] != nullptr) {
            take_value(test, row[0], row[1], pTarr);
        }
    }
}

/* Each of the following steps logs its failure and returns false; lib_mysql_error tells why. */

static bool connect_to_server(const MySQL_Data& test, MYSQL* connection) {
    const unsigned answer_time = std::clamp(test.tout, LEAST_ANSWER_TIME, MOST_ANSWER_TIME);
    lib_mysql_options(connection, MYSQL_OPT_CONNECT_TIMEOUT, &test.tout);
    lib_mysql_options(connection, MYSQL_OPT_READ_TIMEOUT, &answer_time);
    lib_mysql_options(connection, MYSQL_OPT_WRITE_TIMEOUT, &answer_time);
    if (lib_mysql_real_connect(connection, test.host, test.user, test.pass, nullptr,
                               static_cast<unsigned>(test.port), test.unixsock, 0) != nullptr) {
        return true;
    }
    leveledadd2log(0,
                   "ERROR: make_query: lib_mysql_real_connect failed: test_id %d, host %s, port "
                   "%d, unixsock %s, error - %s",
                   test.tid, shown(test.host), test.port, shown(test.unixsock),
                   shown(lib_mysql_error(connection)));
    return false;
}

static bool query_failed(const MySQL_Data& test, MYSQL* connection, const char* function) {
    leveledadd2log(0, "ERROR: make_query: %s failed: test_id %d, error - %s", function, test.tid,
                   shown(lib_mysql_error(connection)));
    return false;
}

static bool query_values(const MySQL_Data& test, MYSQL* connection, const char* query,
                         char** pTarr) {
    if (lib_mysql_query(connection, query) != 0) {
        return query_failed(test, connection, "lib_mysql_query");
    }
    MYSQL_RES* rows = lib_mysql_store_result(connection);
    if (rows == nullptr) {
        return query_failed(test, connection, "lib_mysql_store_result");
    }
    take_rows(test, rows, pTarr);
    lib_mysql_free_result(rows);
    return true;
}

int GetValuesFromDB(MySQL_Data* pMDBData, char** pAddinfo, char** pTarr) {
    MYSQL* connection = lib_mysql_init(nullptr);
    if (connection == nullptr) {
        *pAddinfo = owned(lib_mysql_error(nullptr));
        adv_strcat(pAddinfo, ";");
        return 1;
    }
    bool complete = connect_to_server(*pMDBData, connection) &&
                    query_values(*pMDBData, connection, "SHOW GLOBAL STATUS", pTarr) &&
                    query_values(*pMDBData, connection, "SHOW VARIABLES", pTarr);
    if (!complete) {
        *pAddinfo = owned(lib_mysql_error(connection));
    }
    lib_mysql_close(connection);
    return complete ? 0 : 1;
}

/* --- judgement ------------------------------------------------------------------------------- */

static bool within_limits(const char* value, const double* upper, const double* lower) {
    if (!is_digit(*value)) {
        return false;
    }
    double v = strtod(value, nullptr);
    return !(upper != nullptr && v > *upper) && !(lower != nullptr && *lower > v);
}

int CheckValues(MySQL_Data* pMDBData, char** pTarr, char** pAddinfo, char** pResult) {
    int status = 0;
    for (size_t i = 0; i < pMDBData->arr_len; i++) {
        const char* value = pTarr[i] != nullptr ? pTarr[i] : " ";
        bool ok = within_limits(value, pMDBData->maxValues[i], pMDBData->minValues[i]);
        AddResult(pMDBData->arr[i], value, ok, pAddinfo, pResult);
        if (!ok) {
            status = 2;
        }
    }
    return status;
}

static void append(char** text, std::initializer_list<const char*> parts) {
    for (const char* part : parts) {
        adv_strcat(text, part);
    }
}

void AddResult(char* pFieldName, const char* pValue, int bOK, char** pAddinfo, char** pResult) {
    append(pResult, {pFieldName, "|", pValue, bOK ? "|0;" : "|2;"});
    if (!bOK) {
        append(pAddinfo, {pFieldName, " - ", pValue, ": NOK;"});
    }
}
