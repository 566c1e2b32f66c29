/* Run-time binding of the TLS library.
 *
 * The agent is not linked to OpenSSL: it looks for the library on the host and calls it through the
 * pointers below, each named after the function it stands for. The candidates reach from 0.9.7 to
 * 3; functions that current releases no longer export are bound to their documented equivalents.
 *
 * The pointers are written on the main thread before any other thread exists and only read
 * afterwards. The library is never closed, and not torn down at exit either: threads that still run
 * then may be inside it. */
#ifndef VINDRAL_LIBSSLLOADER_H
#define VINDRAL_LIBSSLLOADER_H

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

inline void* libssl_handle = nullptr; /* null until a library is opened */

inline void (*lib_SSL_load_error_strings)() = nullptr;
inline void (*lib_ERR_load_BIO_strings)() = nullptr;
inline int (*lib_SSL_library_init)() = nullptr;
inline decltype(&SSL_CTX_new) lib_SSL_CTX_new = nullptr;
inline const SSL_METHOD* (*lib_SSLv23_client_method)() = nullptr;
inline decltype(&SSL_new) lib_SSL_new = nullptr;
inline decltype(&SSL_CTX_free) lib_SSL_CTX_free = nullptr;
inline decltype(&BIO_new_ssl_connect) lib_BIO_new_ssl_connect = nullptr;
inline decltype(&BIO_ctrl) lib_BIO_ctrl = nullptr;
inline decltype(&BIO_free_all) lib_BIO_free_all = nullptr;
inline decltype(&SSL_shutdown) lib_SSL_shutdown = nullptr;
inline decltype(&BIO_write) lib_BIO_write = nullptr;
inline decltype(&SSL_ctrl) lib_SSL_ctrl = nullptr;
inline decltype(&BIO_read) lib_BIO_read = nullptr;
inline decltype(&SSL_set_fd) lib_SSL_set_fd = nullptr;
inline decltype(&SSL_connect) lib_SSL_connect = nullptr;
inline decltype(&SSL_get_error) lib_SSL_get_error = nullptr;
inline decltype(&SSL_free) lib_SSL_free = nullptr;
inline decltype(&SSL_write) lib_SSL_write = nullptr;
inline decltype(&SSL_read) lib_SSL_read = nullptr;
inline decltype(&ERR_error_string) lib_ERR_error_string = nullptr;
inline decltype(&ERR_get_error) lib_ERR_get_error = nullptr;
inline void (*lib_OPENSSL_add_all_algorithms_noconf)() = nullptr;
inline void (*lib_OPENSSL_add_all_algorithms_conf)() = nullptr;

/* A context that nobody else uses. */
inline decltype(&SSL_CTX_new) lib_SSL_CTX_new_private = nullptr;

/* What it takes to verify a server, from 1.1.0 on. To be called only when ssl_missing_to_verify is
 * null: otherwise that is the name of the first function that the library lacks. */
inline const char* ssl_missing_to_verify = nullptr;
inline decltype(&SSL_CTX_load_verify_locations) lib_SSL_CTX_load_verify_locations = nullptr;
inline decltype(&SSL_CTX_set_verify) lib_SSL_CTX_set_verify = nullptr;
inline decltype(&SSL_get0_param) lib_SSL_get0_param = nullptr;
inline decltype(&SSL_get_verify_result) lib_SSL_get_verify_result = nullptr;
inline decltype(&SSL_get_peer_cert_chain) lib_SSL_get_peer_cert_chain = nullptr;
inline decltype(&X509_VERIFY_PARAM_set_flags) lib_X509_VERIFY_PARAM_set_flags = nullptr;
inline decltype(&X509_VERIFY_PARAM_set_hostflags) lib_X509_VERIFY_PARAM_set_hostflags = nullptr;
inline decltype(&X509_VERIFY_PARAM_set1_host) lib_X509_VERIFY_PARAM_set1_host = nullptr;
inline decltype(&X509_VERIFY_PARAM_set1_ip_asc) lib_X509_VERIFY_PARAM_set1_ip_asc = nullptr;
inline decltype(&X509_verify_cert_error_string) lib_X509_verify_cert_error_string = nullptr;

/* What it takes besides to show a certificate, from 1.1.0 on, in the same way. */
inline const char* ssl_missing_to_show_certificate = nullptr;
inline decltype(&SSL_CTX_use_certificate_chain_file) lib_SSL_CTX_use_certificate_chain_file =
    nullptr;
inline decltype(&SSL_CTX_use_PrivateKey_file) lib_SSL_CTX_use_PrivateKey_file = nullptr;
inline decltype(&SSL_CTX_check_private_key) lib_SSL_CTX_check_private_key = nullptr;
inline decltype(&SSL_CTX_set_default_passwd_cb) lib_SSL_CTX_set_default_passwd_cb = nullptr;
inline decltype(&SSL_CTX_set_info_callback) lib_SSL_CTX_set_info_callback = nullptr;
inline decltype(&SSL_CTX_get0_certificate) lib_SSL_CTX_get0_certificate = nullptr;
inline decltype(&X509_get0_notBefore) lib_X509_get0_notBefore = nullptr;
inline decltype(&X509_get0_notAfter) lib_X509_get0_notAfter = nullptr;
inline decltype(&X509_cmp_current_time) lib_X509_cmp_current_time = nullptr;
inline decltype(&SSL_set_session) lib_SSL_set_session = nullptr;
inline decltype(&SSL_get1_session) lib_SSL_get1_session = nullptr;
inline decltype(&SSL_SESSION_free) lib_SSL_SESSION_free = nullptr;

/* Opens the first candidate that loads and binds every function from it. Returns 1 when all are
 * bound or a library was opened before; 0 with a line at level 0 when no candidate opens, 0 without
 * one when the library lacks a function. In that case it stays open and a second call returns 1, so
 * call this once. The line gives the loader's reason about the first candidate that is there, or,
 * when none is, about the name that current releases have. */
int init_ssl_lib();

/* Binds and initialises the TLS library, with what verification and certificates take where
 * the library has it, puts the fork gate (fork_gate.h) round the functions that connections call,
 * lets them share one context where the library can, then binds zlib (isZLIBloaded). To be called
 * once at start-up, before any thread is created. Returns 1 when TLS is ready, whatever became of
 * zlib, else 0. */
int init_ssl_variables();

#endif
