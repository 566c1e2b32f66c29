#include "mysqlmon_lib.h"

#include "dynlib.h"
#include "fork_gate.h"
#include "vindral_log.h"

#include <cstdio>
#include <dlfcn.h>
#include <iterator>

decltype(&mysql_init) lib_mysql_init = nullptr;
decltype(&mysql_error) lib_mysql_error = nullptr;
decltype(&mysql_options) lib_mysql_options = nullptr;
decltype(&mysql_real_connect) lib_mysql_real_connect = nullptr;
decltype(&mysql_query) lib_mysql_query = nullptr;
decltype(&mysql_store_result) lib_mysql_store_result = nullptr;
decltype(&mysql_num_fields) lib_mysql_num_fields = nullptr;
decltype(&mysql_fetch_row) lib_mysql_fetch_row = nullptr;
decltype(&mysql_free_result) lib_mysql_free_result = nullptr;
decltype(&mysql_close) lib_mysql_close = nullptr;

/* mysql_library_init() and mysql_thread_end(); null when the library does not have them. */
static decltype(&mysql_server_init) initialize_library = nullptr;
static decltype(&mysql_thread_end) end_thread = nullptr;

/* In the order of the attempts. Without development files there are only the names with a number:
 * those of MySQL 8, 5.7 and 5.5, and MariaDB's. */
static const char* const MYSQL_NAMES[] = {
    "libmysqlclient.so",    VINDRAL_MYSQL_CLIENT,   "libmysqlclient.so.21",
    "libmysqlclient.so.20", "libmysqlclient.so.18", "libmariadb.so.3",
};

/* In the order in which a library is found lacking. */
#define BIND(name) dynlib_entry(#name, &lib_##name)
static const dynlib_symbol MYSQL_SYMBOLS[] = {
    BIND(mysql_init),         BIND(mysql_error),     BIND(mysql_options),
    BIND(mysql_real_connect), BIND(mysql_query),     BIND(mysql_store_result),
    BIND(mysql_num_fields),   BIND(mysql_fetch_row), BIND(mysql_free_result),
    BIND(mysql_close),
};
#undef BIND

/* Never null, which would be success. */
static char* loading_failed() {
    static char without_memory[] = "MySQL: failed on loading libmysqlclient.so, no memory";
    char* text = nullptr;
    return asprintf(&text, "MySQL: failed on loading %s, %s", MYSQL_NAMES[0], dynlib_error()) >= 0
               ? text
               : without_memory;
}

static void bind_optional(void* library) {
    const dynlib_symbol optional[] = {
        {"mysql_server_init", reinterpret_cast<void**>(&initialize_library), nullptr},
        {"mysql_thread_end", reinterpret_cast<void**>(&end_thread), nullptr},
    };
    for (const dynlib_symbol& symbol : optional) {
        dynlib_bind(library, &symbol, 1);
    }
}

char* init_mysql_lib() {
    void* library = dynlib_open(MYSQL_NAMES, std::size(MYSQL_NAMES));
    if (library == nullptr) {
        return loading_failed();
    }
    if (!dynlib_bind(library, MYSQL_SYMBOLS, std::size(MYSQL_SYMBOLS))) {
        char* reason = loading_failed();
        leveledadd2log(0, "%s", reason);
        dlclose(library);
        return reason;
    }
    bind_optional(library);
    if (initialize_library != nullptr) {
        fork_gate inside; /* it initialises OpenSSL, and waits for nobody */
        initialize_library(0, nullptr, nullptr);
    }
    return nullptr;
}

void end_mysql_thread() {
    if (end_thread != nullptr) {
        end_thread();
    }
}
