/* A TLS library for the tests of the loader: it exports the names of one release line and writes
 * down the calls that matter. Which names, the build says. */
#include <cstdint>
#include <cstdio>
#include <cstring>

#define EXPORTED(name)                                                                             \
    extern "C" void name() {}
#define RECORDED(name)                                                                             \
    extern "C" void name() {                                                                       \
        note(#name);                                                                               \
    }

static char calls[1024];

[[maybe_unused]] static void note(const char* text) {
    strncat(calls, text, sizeof calls - strlen(calls) - 1);
    strncat(calls, "\n", sizeof calls - strlen(calls) - 1);
}

extern "C" const char* stub_calls() {
    return calls;
}

#ifdef OLD_RELEASE
RECORDED(SSL_load_error_strings)
RECORDED(ERR_load_BIO_strings)
RECORDED(SSL_library_init)
RECORDED(SSLv23_client_method)
RECORDED(OPENSSL_add_all_algorithms_noconf)
RECORDED(OPENSSL_add_all_algorithms_conf)

extern "C" int CRYPTO_num_locks() {
    return 41;
}

static void (*locking)(int, int, const char*, int);
static unsigned long (*thread_id)();

extern "C" void CRYPTO_set_locking_callback(void (*callback)(int, int, const char*, int)) {
    locking = callback;
}

extern "C" void CRYPTO_set_id_callback(unsigned long (*callback)()) {
    thread_id = callback;
}

extern "C" void stub_lock(int n) {
    locking(1 | 8, n, __FILE__, __LINE__); /* for writing */
}

extern "C" void stub_unlock(int n) {
    locking(2 | 8, n, __FILE__, __LINE__);
}

extern "C" unsigned long stub_thread_id() {
    return thread_id();
}
#endif

#ifdef CURRENT_RELEASE
static int note_options(const char* name, uint64_t options, const void* settings) {
    char text[100];
    snprintf(text, sizeof text, "%s 0x%llx%s", name, static_cast<unsigned long long>(options),
             settings != nullptr ? " and settings" : "");
    note(text);
    return 1;
}

extern "C" int OPENSSL_init_ssl(uint64_t options, const void* settings) {
    return note_options("OPENSSL_init_ssl", options, settings);
}
#ifndef WITHOUT_INIT_CRYPTO
extern "C" int OPENSSL_init_crypto(uint64_t options, const void* settings) {
    return note_options("OPENSSL_init_crypto", options, settings);
}
#endif
#ifndef WITHOUT_CLIENT_METHOD
RECORDED(TLS_client_method)
#endif
#endif

EXPORTED(SSL_CTX_new)
EXPORTED(SSL_new)
EXPORTED(SSL_CTX_free)
EXPORTED(BIO_new_ssl_connect)
EXPORTED(BIO_ctrl)
EXPORTED(BIO_free_all)
EXPORTED(SSL_shutdown)
EXPORTED(BIO_write)
EXPORTED(SSL_ctrl)
EXPORTED(BIO_read)
#ifndef WITHOUT_SET_FD
EXPORTED(SSL_set_fd)
#endif
EXPORTED(SSL_connect)
EXPORTED(SSL_get_error)
EXPORTED(SSL_free)
EXPORTED(SSL_write)
EXPORTED(SSL_read)
EXPORTED(ERR_error_string)
EXPORTED(ERR_get_error)

/* From 1.0.2 on. */
#ifdef VERIFIES
EXPORTED(SSL_CTX_load_verify_locations)
EXPORTED(SSL_CTX_set_verify)
EXPORTED(SSL_get0_param)
EXPORTED(SSL_get_verify_result)
EXPORTED(SSL_get_peer_cert_chain)
EXPORTED(X509_VERIFY_PARAM_set_flags)
EXPORTED(X509_VERIFY_PARAM_set_hostflags)
#ifndef WITHOUT_SET1_HOST
EXPORTED(X509_VERIFY_PARAM_set1_host)
#endif
EXPORTED(X509_VERIFY_PARAM_set1_ip_asc)
EXPORTED(X509_verify_cert_error_string)
#endif

/* From 1.1.0 on. */
#ifdef SHOWS
EXPORTED(SSL_CTX_use_certificate_chain_file)
EXPORTED(SSL_CTX_use_PrivateKey_file)
EXPORTED(SSL_CTX_check_private_key)
EXPORTED(SSL_CTX_set_default_passwd_cb)
#ifndef WITHOUT_INFO_CALLBACK
EXPORTED(SSL_CTX_set_info_callback)
#endif
EXPORTED(SSL_CTX_get0_certificate)
#ifndef WITHOUT_DATES
EXPORTED(X509_get0_notBefore)
EXPORTED(X509_get0_notAfter)
#endif
EXPORTED(X509_cmp_current_time)
EXPORTED(SSL_set_session)
EXPORTED(SSL_get1_session)
EXPORTED(SSL_SESSION_free)
#endif
