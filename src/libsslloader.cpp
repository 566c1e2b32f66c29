#include "libsslloader.h"

#include "compression_routine.h"
#include "dynlib.h"
#include "fork_gate.h"
#include "guards.h"
#include "vindral_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <iterator>
#include <pthread.h>
#include <span>

/* What a host without any is told that it lacks. */
static const char CURRENT_NAME[] = "libssl.so.3";

/* In the order of the attempts. "libcrypto.0.9.8e" is no mistake of the table; it stays. */
static const char* const LIBSSL_NAMES[] = {
    "libssl.so",        "libssl.so.1.0.0",  "libssl.so.1.0.0a", "libssl.so.1.0.0b",
    "libssl.so.1.0.0c", "libssl.so.1.0.0d", "libssl.so.1.0.0e", "libssl.so.0.9.8a",
    "libssl.so.0.9.8b", "libssl.so.0.9.8c", "libssl.so.0.9.8d", "libssl.so.0.9.8e",
    "libssl.so.0.9.8f", "libssl.so.0.9.8g", "libssl.so.0.9.8h", "libssl.so.0.9.8i",
    "libssl.so.0.9.8j", "libssl.so.0.9.8k", "libssl.so.0.9.8l", "libssl.so.0.9.8m",
    "libssl.so.0.9.8n", "libssl.so.0.9.8o", "libssl.so.0.9.8p", "libssl.so.0.9.8q",
    "libssl.so.0.9.8r", "libcrypto.0.9.8e", "libssl.so.0.9.8",  "libssl.so.0.9.7",
    "libssl.so.0.9.7a", "libssl.so.0.9.7b", "libssl.so.0.9.7c", CURRENT_NAME,
    "libssl.so.1.1",
};

/* From 1.1.0 on the library initialises itself; two functions with options replace the old ones,
 * whose names are left as macros. The options below are those of the macros. */
static int (*openssl_init_ssl)(uint64_t options, const OPENSSL_INIT_SETTINGS* settings) = nullptr;
static int (*openssl_init_crypto)(uint64_t options,
                                  const OPENSSL_INIT_SETTINGS* settings) = nullptr;

/* Whatever is initialised first decides about the handler that frees everything at exit. It would
 * pull the tables away under a check that still runs in a detached thread, and there is nothing to
 * free that the end of the process does not free: so none. This is the first call of all. */
static void load_ssl_strings() {
    openssl_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS |
                         OPENSSL_INIT_NO_ATEXIT,
                     nullptr);
}

static void load_crypto_strings() {
    openssl_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

static int init_library() {
    return openssl_init_ssl(0, nullptr);
}

static void add_all_algorithms() {
    openssl_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
}

static void add_all_algorithms_and_config() {
    openssl_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS |
                            OPENSSL_INIT_LOAD_CONFIG,
                        nullptr);
}

/* One of the functions above for a library that exports what it calls, else null. */
template <auto replacement>
static void* through_init_ssl(void* handle) {
    const dynlib_symbol symbol = {"OPENSSL_init_ssl", reinterpret_cast<void**>(&openssl_init_ssl),
                                  nullptr};
    return dynlib_bind(handle, &symbol, 1) ? reinterpret_cast<void*>(replacement) : nullptr;
}

template <auto replacement>
static void* through_init_crypto(void* handle) {
    const dynlib_symbol symbol = {"OPENSSL_init_crypto",
                                  reinterpret_cast<void**>(&openssl_init_crypto), nullptr};
    return dynlib_bind(handle, &symbol, 1) ? reinterpret_cast<void*>(replacement) : nullptr;
}

static void* tls_client_method(void* handle) {
    return dlsym(handle, "TLS_client_method");
}

#define BIND(name, fallback) dynlib_entry(#name, &lib_##name, fallback)
static const dynlib_symbol LIBSSL_SYMBOLS[] = {
    BIND(SSL_load_error_strings, through_init_ssl<load_ssl_strings>),
    BIND(ERR_load_BIO_strings, through_init_crypto<load_crypto_strings>),
    BIND(SSL_library_init, through_init_ssl<init_library>),
    BIND(SSL_CTX_new, nullptr),
    BIND(SSLv23_client_method, tls_client_method),
    BIND(SSL_new, nullptr),
    BIND(SSL_CTX_free, nullptr),
    BIND(BIO_new_ssl_connect, nullptr),
    BIND(BIO_ctrl, nullptr),
    BIND(BIO_free_all, nullptr),
    BIND(SSL_shutdown, nullptr),
    BIND(BIO_write, nullptr),
    BIND(SSL_ctrl, nullptr),
    BIND(BIO_read, nullptr),
    BIND(SSL_set_fd, nullptr),
    BIND(SSL_connect, nullptr),
    BIND(SSL_get_error, nullptr),
    BIND(SSL_free, nullptr),
    BIND(SSL_write, nullptr),
    BIND(SSL_read, nullptr),
    BIND(ERR_error_string, nullptr),
    BIND(ERR_get_error, nullptr),
    BIND(OPENSSL_add_all_algorithms_noconf, through_init_crypto<add_all_algorithms>),
    BIND(OPENSSL_add_all_algorithms_conf, through_init_crypto<add_all_algorithms_and_config>),
};

/* Tells nothing but that the library is 1.1.0 or newer: older ones do not know the order to leave a
 * certificate's common name alone, and ignore it. */
static decltype(&OpenSSL_version_num) version_number = nullptr;

/* Bound where the library has them: without, all works but verification. */
static const dynlib_symbol VERIFY_SYMBOLS[] = {
    dynlib_entry("SSL_CTX_new", &lib_SSL_CTX_new_private),
    BIND(SSL_CTX_load_verify_locations, nullptr),
    BIND(SSL_CTX_set_verify, nullptr),
    BIND(SSL_get0_param, nullptr),
    BIND(SSL_get_verify_result, nullptr),
    BIND(SSL_get_peer_cert_chain, nullptr),
    BIND(X509_VERIFY_PARAM_set_flags, nullptr),
    BIND(X509_VERIFY_PARAM_set_hostflags, nullptr),
    BIND(X509_VERIFY_PARAM_set1_host, nullptr),
    BIND(X509_VERIFY_PARAM_set1_ip_asc, nullptr),
    BIND(X509_verify_cert_error_string, nullptr),
    dynlib_entry("OpenSSL_version_num", &version_number),
};

/* As well: without, all works but the agent's own certificate. */
static const dynlib_symbol CERTIFICATE_SYMBOLS[] = {
    dynlib_entry("SSL_CTX_new", &lib_SSL_CTX_new_private),
    BIND(SSL_CTX_use_certificate_chain_file, nullptr),
    BIND(SSL_CTX_use_PrivateKey_file, nullptr),
    BIND(SSL_CTX_check_private_key, nullptr),
    BIND(SSL_CTX_set_default_passwd_cb, nullptr),
    BIND(SSL_CTX_set_info_callback, nullptr),
    BIND(SSL_CTX_get0_certificate, nullptr),
    BIND(X509_get0_notBefore, nullptr),
    BIND(X509_get0_notAfter, nullptr),
    BIND(X509_cmp_current_time, nullptr),
    BIND(SSL_set_session, nullptr),
    BIND(SSL_get1_session, nullptr),
    BIND(SSL_SESSION_free, nullptr),
};
#undef BIND

/* Before 1.1.0 the library has no locks of its own: checks in parallel threads would corrupt it
 * unless the program lends it some, and a number to tell the threads apart. Current releases do not
 * export these names any more, and nothing is done for them. */
static pthread_mutex_t* lent_locks = nullptr;

static void use_lent_lock(int mode, int n, const char*, int) {
    if ((mode & CRYPTO_LOCK) != 0) {
        pthread_mutex_lock(&lent_locks[n]);
    } else {
        pthread_mutex_unlock(&lent_locks[n]);
    }
}

static unsigned long thread_number() {
    return pthread_self();
}

static void lend_locks() {
    int (*num_locks)() = nullptr;
    void (*set_locking_callback)(void (*)(int, int, const char*, int)) = nullptr;
    void (*set_id_callback)(unsigned long (*)()) = nullptr;
    const dynlib_symbol symbols[] = {
        {"CRYPTO_num_locks", reinterpret_cast<void**>(&num_locks), nullptr},
        {"CRYPTO_set_locking_callback", reinterpret_cast<void**>(&set_locking_callback), nullptr},
        {"CRYPTO_set_id_callback", reinterpret_cast<void**>(&set_id_callback), nullptr},
    };
    if (lent_locks != nullptr || !dynlib_bind(libssl_handle, symbols, std::size(symbols))) {
        return;
    }
    size_t count = static_cast<size_t>(num_locks());
    lent_locks = static_cast<pthread_mutex_t*>(calloc(count, sizeof(pthread_mutex_t)));
    for (size_t i = 0; lent_locks != nullptr && i < count; i++) {
        pthread_mutex_init(&lent_locks[i], nullptr);
    }
    if (lent_locks != nullptr) {
        set_id_callback(thread_number);
        set_locking_callback(use_lent_lock);
    }
}

/* Whether the loader has found no file of that name. Of a file that needs another one that is not
 * there, it names the other. */
static bool is_absent(const char* name, const char* reason) {
    const char* named = strstr(reason, name);
    return named != nullptr && named[strlen(name)] == ':' &&
           strstr(named, strerror(ENOENT)) != nullptr;
}

/* Where none opens, nearly all fail because they do not exist. Somebody who has a library wants to
 * know what is wrong with that one. */
static void* open_library() {
    heap_text about_present, about_current;
    for (const char* name : LIBSSL_NAMES) {
        if (void* handle = dynlib_open(&name, 1)) {
            return handle;
        }
        const char* reason = dynlib_error();
        if (about_present == nullptr && !is_absent(name, reason)) {
            about_present.reset(strdup(reason));
        }
        if (strcmp(name, CURRENT_NAME) == 0) {
            about_current.reset(strdup(reason));
        }
    }
    const heap_text& likely = about_present != nullptr ? about_present : about_current;
    leveledadd2log(0, "SSL: failed on loading %s, %s", LIBSSL_NAMES[0],
                   likely != nullptr ? likely.get() : "no memory");
    return nullptr;
}

int init_ssl_lib() {
    if (libssl_handle != nullptr) {
        return 1;
    }
    libssl_handle = open_library();
    if (libssl_handle == nullptr) {
        return 0;
    }
    return dynlib_bind(libssl_handle, LIBSSL_SYMBOLS, std::size(LIBSSL_SYMBOLS));
}

/* Returns the name of the first that the library lacks, or null. */
static const char* bind_where_present(std::span<const dynlib_symbol> symbols) {
    for (const dynlib_symbol& symbol : symbols) {
        if (!dynlib_bind(libssl_handle, &symbol, 1)) {
            return symbol.name;
        }
    }
    return nullptr;
}

/* What a thread leaves behind in the library is freed when the thread ends, and locks are taken for
 * that as well: so it is done inside the gate, and ahead of the library's own hook, which then
 * finds nothing. Older libraries than 1.1.0 have neither. */
static decltype(&OPENSSL_thread_stop) free_leftovers = nullptr;

namespace {

struct end_of_thread {
    ~end_of_thread() {
        if (free_leftovers != nullptr) {
            fork_gate inside;
            free_leftovers();
        }
    }
};

} // namespace

static void mind_end_of_thread() {
    static thread_local end_of_thread last;
}

static void bind_end_of_thread() {
    const dynlib_symbol symbol = {"OPENSSL_thread_stop", reinterpret_cast<void**>(&free_leftovers),
                                  nullptr};
    dynlib_bind(libssl_handle, &symbol, 1);
}

/* The function that `pointer` is bound to, called inside the fork gate: the library's locks are at
 * rest whenever a child is forked. None of these calls waits for a peer, since every connection's
 * socket is non-blocking. */
template <auto* pointer>
struct gated;
template <typename R, typename... A, R (**pointer)(A...)>
struct gated<pointer> {
    static inline R (*bound)(A...) = nullptr;

    static R call(A... arguments) {
        mind_end_of_thread();
        fork_gate inside;
        return bound(arguments...);
    }
    static void put_in() {
        if (*pointer != nullptr && *pointer != call) {
            bound = *pointer;
            *pointer = call;
        }
    }
};

/* All that connections call, but SSL_get_error, the method and what only tells or sets a value,
 * which take no locks. */
static void put_in_gates() {
    gated<&lib_SSL_CTX_new>::put_in();
    gated<&lib_SSL_CTX_free>::put_in();
    gated<&lib_SSL_new>::put_in();
    gated<&lib_SSL_free>::put_in();
    gated<&lib_SSL_set_fd>::put_in();
    gated<&lib_SSL_connect>::put_in();
    gated<&lib_SSL_read>::put_in();
    gated<&lib_SSL_write>::put_in();
    gated<&lib_SSL_shutdown>::put_in();
    gated<&lib_ERR_error_string>::put_in();
    gated<&lib_ERR_get_error>::put_in();
    gated<&lib_SSL_ctrl>::put_in();
    gated<&lib_SSL_CTX_new_private>::put_in();
    gated<&lib_SSL_CTX_load_verify_locations>::put_in();
    gated<&lib_SSL_CTX_use_certificate_chain_file>::put_in();
    gated<&lib_SSL_CTX_use_PrivateKey_file>::put_in();
    gated<&lib_SSL_CTX_check_private_key>::put_in();
    gated<&lib_X509_VERIFY_PARAM_set1_host>::put_in();
    gated<&lib_X509_VERIFY_PARAM_set1_ip_asc>::put_in();
}

/* A new context costs a fifth of a connection, and all of the agent's are alike, with nothing that
 * one connection could leave for the next. So from 1.1.0 on, where contexts are counted and may be
 * used by many threads, there is one: to make it is to take a reference, and to free it is to give
 * that back. The first reference stays. */
static mutex context_mutex;
static SSL_CTX* context GUARDED_BY(context_mutex) = nullptr;
static decltype(&SSL_CTX_new) make_context = nullptr;
static decltype(&SSL_CTX_up_ref) count_up = nullptr;

static SSL_CTX* take_context(const SSL_METHOD* method) {
    lock hold(context_mutex);
    if (context == nullptr) {
        context = make_context(method);
    }
    if (context != nullptr) {
        count_up(context);
    }
    return context;
}

static void share_context() {
    const dynlib_symbol symbol = {"SSL_CTX_up_ref", reinterpret_cast<void**>(&count_up), nullptr};
    if (make_context == nullptr && dynlib_bind(libssl_handle, &symbol, 1)) {
        make_context = lib_SSL_CTX_new;
        lib_SSL_CTX_new = take_context;
    }
}

int init_ssl_variables() {
    if (!init_ssl_lib()) {
        return 0;
    }
    lend_locks();
    lib_SSL_load_error_strings();
    lib_ERR_load_BIO_strings();
    lib_OPENSSL_add_all_algorithms_noconf();
    lib_SSL_library_init();
    ssl_missing_to_verify = bind_where_present(VERIFY_SYMBOLS);
    ssl_missing_to_show_certificate = bind_where_present(CERTIFICATE_SYMBOLS);
    share_context();
    bind_end_of_thread();
    put_in_gates();
    isZLIBloaded = init_zlib();
    return 1;
}
