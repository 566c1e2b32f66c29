/* One check of a MySQL server: its definition, the server's counters and variables, and how they
 * are judged. Nothing here is locked: a definition belongs to one thread, or to the holder of the
 * test list's mutex (mysqlmon.h). */
#ifndef VINDRAL_MYSQLMON_CHECK_H
#define VINDRAL_MYSQLMON_CHECK_H

#include <cstddef>

/* One test. Its texts are copies; null is allowed and goes to the library as it is. */
struct MySQL_Data {
    int tid;
    int locid;
    char* host; /* null, "" and "localhost" mean the unix socket of this machine */
    int port;
    char* user;
    char* pass;
    char* unixsock;       /* null: the one that the library knows */
    unsigned int tout;    /* seconds, 0 without limit: for the connection (GetValuesFromDB) */
    char** arr = nullptr; /* names of what is checked */
    size_t arr_len = 0;
    double** maxValues = nullptr; /* arr_len upper limits, each null when there is none */
    double** minValues = nullptr; /* and lower ones */
    int isFirstCheck = 1;         /* 1 after add or modify until a round has started the test */
};

/* Takes the names and limits from a parameter list, in place of what the definition holds: entries
 * separated by ';', each "name|upper limit|lower limit". A limit counts when it begins with a
 * decimal digit, so a negative one does not; it is what strtod makes of it. Whatever lies between
 * two ';' is an entry, with an empty name as well. Returns 1; 0 with no names left for a null or
 * empty list and without memory. */
int parse_mysql_params(MySQL_Data* p, const char* param_list);

/* A deep copy; null for null and without memory. Freed with free_mysql_data. */
MySQL_Data* mysql_data_dup(MySQL_Data* p);

/* Frees the test with all that it owns and sets the pointer to null. Null is allowed. */
void free_mysql_data(MySQL_Data** p);

/* Asks the server: SHOW GLOBAL STATUS, then SHOW VARIABLES. pTarr has arr_len slots that are null;
 * the first name equal to a row's first column gets a copy of the second, which the caller frees.
 * Rows are taken as they come: one of the second answer replaces one of the first; null says
 * nothing. Returns 0; or 1 with *pAddinfo set to the library's reason (the caller frees) and some
 * of the slots set.
 *
 * Waits for the server: tout seconds for the connection, with libmariadb for each answer of the
 * login, too; then as long, but half a minute at least, for each further piece of an answer.
 * libmariadb gives up after the first wait in vain, libmysqlclient may repeat it. */
int GetValuesFromDB(MySQL_Data* pMDBData, char** pAddinfo, char** pTarr);

/* Compares the values with the limits, in the order of the names, and adds an AddResult for each. A
 * value that is missing (reported as a blank) or does not begin with a digit is not OK, limits or
 * none. Returns 0 when all are OK, else 2. */
int CheckValues(MySQL_Data* pMDBData, char** pTarr, char** pAddinfo, char** pResult);

/* Appends "NAME|VALUE|0;" to the result list; for what is not OK "NAME|VALUE|2;", and "NAME -
 * VALUE: NOK;" to the additional information. Both texts grow by realloc from null. */
void AddResult(char* pFieldName, const char* pValue, int bOK, char** pAddinfo, char** pResult);

#endif
