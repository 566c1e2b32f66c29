#include "libsslloader.h"

#include "compression_routine.h"
#include "fake_core.h"
#include "guards.h"
#include "library_directory.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

/* Every pointer in the order of binding. */
static std::vector<void*> bound_pointers() {
    return {reinterpret_cast<void*>(lib_SSL_load_error_strings),
            reinterpret_cast<void*>(lib_ERR_load_BIO_strings),
            reinterpret_cast<void*>(lib_SSL_library_init),
            reinterpret_cast<void*>(lib_SSL_CTX_new),
            reinterpret_cast<void*>(lib_SSLv23_client_method),
            reinterpret_cast<void*>(lib_SSL_new),
            reinterpret_cast<void*>(lib_SSL_CTX_free),
            reinterpret_cast<void*>(lib_BIO_new_ssl_connect),
            reinterpret_cast<void*>(lib_BIO_ctrl),
            reinterpret_cast<void*>(lib_BIO_free_all),
            reinterpret_cast<void*>(lib_SSL_shutdown),
            reinterpret_cast<void*>(lib_BIO_write),
            reinterpret_cast<void*>(lib_SSL_ctrl),
            reinterpret_cast<void*>(lib_BIO_read),
            reinterpret_cast<void*>(lib_SSL_set_fd),
            reinterpret_cast<void*>(lib_SSL_connect),
            reinterpret_cast<void*>(lib_SSL_get_error),
            reinterpret_cast<void*>(lib_SSL_free),
            reinterpret_cast<void*>(lib_SSL_write),
            reinterpret_cast<void*>(lib_SSL_read),
            reinterpret_cast<void*>(lib_ERR_error_string),
            reinterpret_cast<void*>(lib_ERR_get_error),
            reinterpret_cast<void*>(lib_OPENSSL_add_all_algorithms_noconf),
            reinterpret_cast<void*>(lib_OPENSSL_add_all_algorithms_conf)};
}

static const char* const SYMBOLS[] = {"SSL_load_error_strings",
                                      "ERR_load_BIO_strings",
                                      "SSL_library_init",
                                      "SSL_CTX_new",
                                      "SSLv23_client_method",
                                      "SSL_new",
                                      "SSL_CTX_free",
                                      "BIO_new_ssl_connect",
                                      "BIO_ctrl",
                                      "BIO_free_all",
                                      "SSL_shutdown",
                                      "BIO_write",
                                      "SSL_ctrl",
                                      "BIO_read",
                                      "SSL_set_fd",
                                      "SSL_connect",
                                      "SSL_get_error",
                                      "SSL_free",
                                      "SSL_write",
                                      "SSL_read",
                                      "ERR_error_string",
                                      "ERR_get_error",
                                      "OPENSSL_add_all_algorithms_noconf",
                                      "OPENSSL_add_all_algorithms_conf"};

static void unbind_all() {
    lib_SSL_load_error_strings = nullptr;
    lib_ERR_load_BIO_strings = nullptr;
    lib_SSL_library_init = nullptr;
    lib_SSL_CTX_new = nullptr;
    lib_SSLv23_client_method = nullptr;
    lib_SSL_new = nullptr;
    lib_SSL_CTX_free = nullptr;
    lib_BIO_new_ssl_connect = nullptr;
    lib_BIO_ctrl = nullptr;
    lib_BIO_free_all = nullptr;
    lib_SSL_shutdown = nullptr;
    lib_BIO_write = nullptr;
    lib_SSL_ctrl = nullptr;
    lib_BIO_read = nullptr;
    lib_SSL_set_fd = nullptr;
    lib_SSL_connect = nullptr;
    lib_SSL_get_error = nullptr;
    lib_SSL_free = nullptr;
    lib_SSL_write = nullptr;
    lib_SSL_read = nullptr;
    lib_ERR_error_string = nullptr;
    lib_ERR_get_error = nullptr;
    lib_OPENSSL_add_all_algorithms_noconf = nullptr;
    lib_OPENSSL_add_all_algorithms_conf = nullptr;
}

class libsslloader : public testing::Test {
protected:
    void SetUp() override {
        libssl_handle = nullptr;
        zlib_handle = nullptr;
        isZLIBloaded = 0;
        unbind_all();
        library_attempts.clear();
        take_log();
    }
    void TearDown() override { library_directory.clear(); }

    static void look_into(const std::string& stubs) {
        library_directory = VINDRAL_STUBS "/" + stubs;
    }

    static std::string calls() {
        auto stub_calls = reinterpret_cast<const char* (*)()>(dlsym(libssl_handle, "stub_calls"));
        return stub_calls();
    }
};

TEST_F(libsslloader, tries_the_candidates_in_order_and_names_the_first_when_none_opens) {
    look_into("nothing");
    EXPECT_EQ(init_ssl_lib(), 0);
    const char* const expected[] = {
        "libssl.so",        "libssl.so.1.0.0",  "libssl.so.1.0.0a", "libssl.so.1.0.0b",
        "libssl.so.1.0.0c", "libssl.so.1.0.0d", "libssl.so.1.0.0e", "libssl.so.0.9.8a",
        "libssl.so.0.9.8b", "libssl.so.0.9.8c", "libssl.so.0.9.8d", "libssl.so.0.9.8e",
        "libssl.so.0.9.8f", "libssl.so.0.9.8g", "libssl.so.0.9.8h", "libssl.so.0.9.8i",
        "libssl.so.0.9.8j", "libssl.so.0.9.8k", "libssl.so.0.9.8l", "libssl.so.0.9.8m",
        "libssl.so.0.9.8n", "libssl.so.0.9.8o", "libssl.so.0.9.8p", "libssl.so.0.9.8q",
        "libssl.so.0.9.8r", "libcrypto.0.9.8e", "libssl.so.0.9.8",  "libssl.so.0.9.7",
        "libssl.so.0.9.7a", "libssl.so.0.9.7b", "libssl.so.0.9.7c", "libssl.so.3",
        "libssl.so.1.1",
    };
    ASSERT_EQ(library_attempts.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); i++) {
        EXPECT_EQ(library_attempts[i].name, expected[i]);
        EXPECT_EQ(library_attempts[i].mode, RTLD_NOW);
    }
    EXPECT_EQ(take_log_text(), "0 SSL: failed on loading libssl.so, " + library_directory +
                                   "/libssl.so.3: cannot open shared object file: No such file "
                                   "or directory\n");
    EXPECT_EQ(libssl_handle, nullptr);
    EXPECT_EQ(bound_pointers(), std::vector<void*>(24, nullptr));
}

/* Whatever else is tried in vain behind it. */
TEST_F(libsslloader, says_what_is_wrong_with_the_library_that_is_there) {
    char directory[] = "/tmp/libsslloader_test.XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    library_directory = directory;
    for (const char* name : {"libssl.so", "libssl.so.0.9.8k", "libssl.so.3", "libssl.so.1.1"}) {
        std::string path = library_directory + "/" + name;
        std::ofstream(path) << "no library";
        EXPECT_EQ(init_ssl_lib(), 0);
        EXPECT_EQ(take_log_text(),
                  "0 SSL: failed on loading libssl.so, " + path + ": file too short\n");
        std::filesystem::remove(path);
    }
    std::ofstream(library_directory + "/libssl.so.3") << "no library";
    std::ofstream(library_directory + "/libssl.so.1.1") << "no library";
    EXPECT_EQ(init_ssl_lib(), 0);
    EXPECT_EQ(take_log_text(), "0 SSL: failed on loading libssl.so, " + library_directory +
                                   "/libssl.so.3: file too short\n");
    std::filesystem::remove_all(directory);
}

/* A library that is there and needs one that is not. */
TEST_F(libsslloader, names_the_library_that_the_one_that_is_there_needs) {
    look_into("ssl_needs_another");
    EXPECT_EQ(init_ssl_lib(), 0);
    EXPECT_EQ(take_log_text(), "0 SSL: failed on loading libssl.so, libvindral_stub_needed.so: "
                               "cannot open shared object file: No such file or directory\n");
}

TEST_F(libsslloader, uses_the_second_name_when_the_first_is_missing) {
    look_into("ssl_old");
    EXPECT_EQ(init_ssl_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 2u);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(libsslloader, uses_the_odd_name_among_the_candidates) {
    look_into("ssl_odd");
    EXPECT_EQ(init_ssl_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 26u);
}

TEST_F(libsslloader, uses_the_names_of_current_releases_last) {
    look_into("ssl_current");
    EXPECT_EQ(init_ssl_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 32u);
    SetUp();
    look_into("ssl_1_1");
    EXPECT_EQ(init_ssl_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 33u);
}

TEST_F(libsslloader, binds_every_name_to_itself_where_the_library_has_it) {
    look_into("ssl_old");
    ASSERT_EQ(init_ssl_lib(), 1);
    std::vector<void*> bound = bound_pointers();
    for (size_t i = 0; i < bound.size(); i++) {
        EXPECT_NE(bound[i], nullptr) << SYMBOLS[i];
        EXPECT_EQ(bound[i], dlsym(libssl_handle, SYMBOLS[i])) << SYMBOLS[i];
    }
}

TEST_F(libsslloader, binds_what_is_no_longer_exported_to_its_equivalent) {
    look_into("ssl_current");
    ASSERT_EQ(init_ssl_lib(), 1);
    std::vector<void*> bound = bound_pointers();
    for (size_t i = 0; i < bound.size(); i++) {
        EXPECT_NE(bound[i], nullptr) << SYMBOLS[i];
        void* own = dlsym(libssl_handle, SYMBOLS[i]);
        EXPECT_TRUE(own == nullptr || own == bound[i]) << SYMBOLS[i];
    }
    EXPECT_EQ(reinterpret_cast<void*>(lib_SSLv23_client_method),
              dlsym(libssl_handle, "TLS_client_method"));
    EXPECT_EQ(calls(), "") << "binding calls nothing";
    lib_SSL_load_error_strings();
    lib_ERR_load_BIO_strings();
    EXPECT_EQ(lib_SSL_library_init(), 1);
    lib_OPENSSL_add_all_algorithms_noconf();
    lib_OPENSSL_add_all_algorithms_conf();
    lib_SSLv23_client_method();
    EXPECT_EQ(calls(), "OPENSSL_init_ssl 0x280002\n" /* SSL and crypto strings, no atexit */
                       "OPENSSL_init_crypto 0x2\n"
                       "OPENSSL_init_ssl 0x0\n"
                       "OPENSSL_init_crypto 0xc\n"
                       "OPENSSL_init_crypto 0x4c\n"
                       "TLS_client_method\n");
    static_assert((OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS |
                   OPENSSL_INIT_NO_ATEXIT) == 0x280002);
}

TEST_F(libsslloader, binds_up_to_the_first_missing_name_and_keeps_the_handle) {
    look_into("ssl_no_set_fd");
    EXPECT_EQ(init_ssl_lib(), 0);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_NE(libssl_handle, nullptr);
    std::vector<void*> bound = bound_pointers();
    for (size_t i = 0; i < bound.size(); i++) {
        EXPECT_EQ(bound[i] != nullptr, i < 14) << SYMBOLS[i];
    }
    EXPECT_EQ(init_ssl_lib(), 1) << "a second call sees the handle";
    EXPECT_EQ(library_attempts.size(), 1u);
}

TEST_F(libsslloader, misses_a_name_whose_equivalent_is_missing_too) {
    look_into("ssl_no_method");
    EXPECT_EQ(init_ssl_lib(), 0);
    EXPECT_NE(lib_SSL_CTX_new, nullptr);
    EXPECT_EQ(lib_SSLv23_client_method, nullptr);
    EXPECT_EQ(lib_SSL_new, nullptr);
    SetUp();
    look_into("ssl_no_init_crypto");
    EXPECT_EQ(init_ssl_lib(), 0);
    EXPECT_NE(lib_SSL_load_error_strings, nullptr);
    EXPECT_EQ(lib_ERR_load_BIO_strings, nullptr);
    EXPECT_EQ(take_log_text(), "");
}

TEST_F(libsslloader, initialises_in_order_and_is_ready_without_zlib) {
    look_into("ssl_old");
    isZLIBloaded = 1;
    EXPECT_EQ(init_ssl_variables(), 1);
    EXPECT_EQ(calls(), "SSL_load_error_strings\nERR_load_BIO_strings\n"
                       "OPENSSL_add_all_algorithms_noconf\nSSL_library_init\n");
    EXPECT_EQ(isZLIBloaded, 0);
    EXPECT_EQ(take_log_text(), "0 ZLIB: failed on loading libz.so, " + library_directory +
                                   "/libz.so.1: cannot open shared object file: No such file or "
                                   "directory\n");
}

TEST_F(libsslloader, is_ready_without_what_verification_takes_and_names_it) {
    look_into("ssl_old");
    EXPECT_EQ(init_ssl_variables(), 1);
    EXPECT_STREQ(ssl_missing_to_verify, "SSL_CTX_load_verify_locations");
    SetUp();
    look_into("ssl_no_set1_host");
    EXPECT_EQ(init_ssl_variables(), 1);
    EXPECT_STREQ(ssl_missing_to_verify, "X509_VERIFY_PARAM_set1_host");
}

/* It would take a certificate's common name for one of its server's names. */
TEST_F(libsslloader, does_not_verify_with_a_release_before_1_1_0) {
    look_into("ssl_1_0_2");
    EXPECT_EQ(init_ssl_variables(), 1);
    EXPECT_STREQ(ssl_missing_to_verify, "OpenSSL_version_num");
}

TEST_F(libsslloader, is_ready_without_what_a_certificate_takes_and_names_it) {
    struct {
        const char *stubs, *missing;
    } cases[] = {{"ssl_old", "SSL_CTX_use_certificate_chain_file"},
                 {"ssl_no_info_callback", "SSL_CTX_set_info_callback"},
                 {"ssl_no_dates", "X509_get0_notBefore"},
                 {"ssl_shows", nullptr}};
    for (const auto& c : cases) {
        SetUp();
        look_into(c.stubs);
        EXPECT_EQ(init_ssl_variables(), 1) << c.stubs;
        EXPECT_STREQ(ssl_missing_to_show_certificate, c.missing) << c.stubs;
        EXPECT_EQ(take_log_text(), "0 ZLIB: failed on loading libz.so, " + library_directory +
                                       "/libz.so.1: cannot open shared object file: No such file "
                                       "or directory\n")
            << "nothing is said of it";
    }
    EXPECT_STREQ(ssl_missing_to_verify, "SSL_CTX_load_verify_locations")
        << "one does without the other";
}

TEST_F(libsslloader, is_not_ready_without_tls_and_does_not_try_zlib) {
    look_into("zlib_second");
    EXPECT_EQ(init_ssl_variables(), 0);
    EXPECT_EQ(library_attempts.back().name, "libssl.so.1.1");
    EXPECT_EQ(zlib_handle, nullptr);
    look_into("ssl_no_set_fd");
    EXPECT_EQ(init_ssl_variables(), 0);
    EXPECT_EQ(calls(), "");
}

TEST_F(libsslloader, lends_locks_and_thread_numbers_to_releases_that_have_none) {
    look_into("ssl_old");
    ASSERT_EQ(init_ssl_variables(), 1);
    auto stub_lock = reinterpret_cast<void (*)(int)>(dlsym(libssl_handle, "stub_lock"));
    auto stub_unlock = reinterpret_cast<void (*)(int)>(dlsym(libssl_handle, "stub_unlock"));
    auto stub_id = reinterpret_cast<unsigned long (*)()>(dlsym(libssl_handle, "stub_thread_id"));
    stub_lock(0); /* another lock is not in the way */
    unsigned long other_id = 0;
    int guarded = 0;
    auto count = [&] {
        for (int i = 0; i < 10000; i++) {
            stub_lock(40);
            guarded++;
            stub_unlock(40);
        }
    };
    std::thread other([&] {
        other_id = stub_id();
        count();
    });
    count();
    other.join();
    stub_unlock(0);
    EXPECT_EQ(guarded, 20000);
    EXPECT_NE(other_id, stub_id());
}

/* The library of this host, whatever its release. The first of these has to come before the library
 * is initialised in this process: what the child inherits could not show. */

TEST_F(libsslloader, keeps_the_hosts_library_usable_while_the_process_exits) {
    /* Handlers run in reverse order: this one comes after any that the library has registered. */
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        atexit([] {
            SSL_CTX* context = lib_SSL_CTX_new(lib_SSLv23_client_method());
            _exit(context != nullptr ? 0 : 1);
        });
        if (!init_ssl_variables()) {
            _exit(2);
        }
        exit(3);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(libsslloader, makes_the_hosts_library_ready_for_use) {
    ASSERT_EQ(init_ssl_variables(), 1);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_EQ(isZLIBloaded, 1);
    EXPECT_EQ(ssl_missing_to_verify, nullptr);
    EXPECT_EQ(ssl_missing_to_show_certificate, nullptr);
    for (void* pointer : bound_pointers()) {
        EXPECT_NE(pointer, nullptr);
    }
    SSL_CTX* context = lib_SSL_CTX_new(lib_SSLv23_client_method());
    ASSERT_NE(context, nullptr);
    SSL* ssl = lib_SSL_new(context);
    ASSERT_NE(ssl, nullptr);
    /* A peer that does not speak TLS: the failure has a code and a readable text. */
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    unique_fd agent(ends[0]), peer(ends[1]);
    ASSERT_EQ(write(peer.get(), "HTTP/1.0 400 Bad Request\r\n", 26), 26);
    ASSERT_EQ(lib_SSL_set_fd(ssl, agent.get()), 1);
    EXPECT_EQ(lib_SSL_connect(ssl), -1);
    EXPECT_EQ(lib_SSL_get_error(ssl, -1), SSL_ERROR_SSL);
    char text[256];
    std::string reason = lib_ERR_error_string(lib_ERR_get_error(), text);
    EXPECT_NE(reason.find("SSL routines"), std::string::npos) << reason;
    lib_SSL_free(ssl);
    lib_SSL_CTX_free(context);
    lib_OPENSSL_add_all_algorithms_conf();
    EXPECT_EQ(init_ssl_variables(), 1) << "a second time is harmless";
    EXPECT_EQ(lib_SSL_CTX_new(lib_SSLv23_client_method()), context) << "all share one";
    lib_SSL_CTX_free(context);
    lib_SSL_CTX_free(lib_SSL_CTX_new(lib_SSLv23_client_method()));
    ssl = lib_SSL_new(context); /* it outlives those who took it */
    EXPECT_NE(ssl, nullptr);
    lib_SSL_free(ssl);
}
