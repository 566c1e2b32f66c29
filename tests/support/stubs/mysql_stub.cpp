/* A MySQL client library for the tests of its loading: the names, and who called those that the
 * binding itself calls. */
#define NAME(name)                                                                                 \
    extern "C" void name() {}
NAME(mysql_init)
NAME(mysql_error)
NAME(mysql_options)
NAME(mysql_real_connect)
NAME(mysql_query)
NAME(mysql_store_result)
NAME(mysql_num_fields)
NAME(mysql_fetch_row)
NAME(mysql_free_result)
#ifndef WITHOUT_CLOSE
NAME(mysql_close)
#endif

extern "C" {
int stub_initialized = 0;
int stub_threads_ended = 0;
}
#ifndef WITHOUT_THREADS
extern "C" int mysql_server_init(int argc, char** argv, char** groups) {
    stub_initialized += argc == 0 && argv == nullptr && groups == nullptr;
    return 0;
}
extern "C" void mysql_thread_end() {
    stub_threads_ended++;
}
#endif
