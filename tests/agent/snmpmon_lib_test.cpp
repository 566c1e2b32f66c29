#include "fake_core.h"
#include "library_directory.h"
#include "snmpmon_lib.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

static const std::string STUBS = VINDRAL_STUBS;

/* Puts a function in place of one of the library's until the end of the test. */
template <typename F>
struct in_place_of {
    F& pointer;
    F before;
    in_place_of(F& p, F replacement) : pointer(p), before(p) { p = replacement; }
    ~in_place_of() { pointer = before; }
    in_place_of(const in_place_of&) = delete;
    in_place_of& operator=(const in_place_of&) = delete;
};

/* --- loading ------------------------------------------------------------------------------------
 */

class snmp_library : public testing::Test {
protected:
    void SetUp() override {
        lib_handle = nullptr;
        library_attempts.clear();
        take_log();
    }
    void TearDown() override {
        if (lib_handle != nullptr) {
            dlclose(lib_handle);
            lib_handle = nullptr;
        }
        library_directory.clear();
    }
};

TEST_F(snmp_library, names_the_first_file_and_the_last_reason_when_none_loads) {
    library_directory = STUBS + "/absent";
    EXPECT_EQ(init_snmp_lib(), 0);
    EXPECT_EQ(take_log_text(), "0 SNMP: failed on loading libsnmp.so, " + library_directory +
                                   "/libsnmp.so.35: cannot open shared object file: No such file "
                                   "or directory\n");
    EXPECT_EQ(lib_handle, nullptr);
    ASSERT_EQ(library_attempts.size(), 3u);
    EXPECT_EQ(library_attempts[0].name, "libsnmp.so");
    EXPECT_EQ(library_attempts[1].name, "libsnmp.so.40");
    EXPECT_EQ(library_attempts[2].name, "libsnmp.so.35");
    EXPECT_EQ(library_attempts[0].mode, RTLD_NOW);
}

TEST_F(snmp_library, closes_a_library_that_lacks_a_function) {
    library_directory = STUBS + "/snmp_incomplete";
    EXPECT_EQ(init_snmp_lib(), 0);
    std::string file = library_directory + "/libsnmp.so";
    EXPECT_EQ(take_log_text(), "0 SNMP: failed on loading libsnmp.so, " + file +
                                   ": undefined symbol: get_tree_head\n");
    EXPECT_EQ(lib_handle, nullptr);
    EXPECT_EQ(dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST_F(snmp_library, is_bound_from_a_release_without_development_files) {
    library_directory = STUBS + "/snmp_5_8";
    EXPECT_EQ(init_snmp_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 3u);
    EXPECT_EQ(take_log_text(), "");
    EXPECT_EQ(reinterpret_cast<void*>(libpo_snmp_open), dlsym(lib_handle, "snmp_open"));
    EXPECT_EQ(reinterpret_cast<void*>(libpo_get_tree_head), dlsym(lib_handle, "get_tree_head"));
    EXPECT_EQ(reinterpret_cast<void*>(lib_snmp_enable_filelog),
              dlsym(lib_handle, "snmp_enable_filelog"));
    EXPECT_EQ(init_snmp_lib(), 1);
    EXPECT_EQ(library_attempts.size(), 3u) << "loaded once";
}

/* --- defaults -----------------------------------------------------------------------------------
 */

static std::string calls;
static netsnmp_log_handler handlers[3];
static int handlers_left;

static int note_toggle(int store, int which) {
    calls += "toggle " + std::to_string(store) + " " + std::to_string(which) + "\n";
    return 0;
}
static int note_set(int store, int which, int value) {
    calls += "set " + std::to_string(store) + " " + std::to_string(which) + " " +
             std::to_string(value) + "\n";
    return 0;
}
static netsnmp_log_handler* next_handler() {
    return handlers_left > 0 ? &handlers[handlers_left - 1] : nullptr;
}
static int note_remove(netsnmp_log_handler* handler) {
    calls += "remove " + std::to_string(handler - handlers) + "\n";
    handlers_left--;
    return 1;
}
static netsnmp_log_handler* note_register(int type, int priority) {
    calls += "register " + std::to_string(type) + " " + std::to_string(priority) + "\n";
    handlers[2].pri_max = 7;
    return &handlers[2];
}

TEST(init_defaults, sets_the_output_and_silences_the_library_in_order) {
    in_place_of toggle(lib_netsnmp_ds_toggle_boolean, note_toggle);
    in_place_of set(lib_netsnmp_ds_set_boolean, note_set);
    in_place_of head(lib_get_logh_head, next_handler);
    in_place_of remove(lib_netsnmp_remove_loghandler, note_remove);
    in_place_of reg(lib_netsnmp_register_loghandler, note_register);
    in_place_of disable(
        lib_snmp_disable_log, +[] { calls += "log\n"; });
    in_place_of syslog(
        lib_snmp_disable_syslog, +[] { calls += "syslog\n"; });
    in_place_of file(
        lib_snmp_disable_filelog, +[] { calls += "filelog\n"; });
    in_place_of err(
        lib_snmp_disable_stderrlog, +[] { calls += "stderrlog\n"; });
    in_place_of call(
        lib_snmp_disable_calllog, +[] { calls += "calllog\n"; });
    calls.clear();
    handlers_left = 2;
    EXPECT_EQ(init_defaults(), 1);
    EXPECT_EQ(calls, "toggle 0 21\ntoggle 0 19\ntoggle 0 18\ntoggle 0 33\ntoggle 0 29\n"
                     "set 0 28 1\n"
                     "toggle 0 13\ntoggle 0 8\n"
                     "log\nremove 1\nremove 0\nsyslog\nfilelog\nstderrlog\ncalllog\nlog\n"
                     "register 6 0\n");
    EXPECT_EQ(handlers[2].pri_max, 0);
}

/* --- sessions -----------------------------------------------------------------------------------
 */

/* What snmp_open and generate_Ku were given. */
static netsnmp_session asked;
static std::string asked_peer, asked_key;
static bool open_called;
static bool open_fails;
static netsnmp_session* opened;

static netsnmp_session* note_open(netsnmp_session* session) {
    open_called = true;
    asked = *session;
    asked_peer = session->peername;
    if (open_fails) {
        session->s_errno = 11;
        session->s_snmp_errno = -6;
        return nullptr;
    }
    opened = new netsnmp_session(*session);
    opened->peername = strdup(session->peername);
    return opened;
}

static int note_key(const oid* type, u_int type_length, const u_char* pass, size_t pass_length,
                    u_char* key, size_t* key_length) {
    if (pass == nullptr) {
        return SNMPERR_GENERR;
    }
    asked_key = std::to_string(type[9]) + "/" + std::to_string(type_length) + " " +
                std::string(reinterpret_cast<const char*>(pass), pass_length) + " into " +
                std::to_string(*key_length);
    if (asked_key.find("short") != std::string::npos) {
        return SNMPERR_GENERR;
    }
    memset(key, 'K', 16);
    *key_length = 16;
    return SNMPERR_SUCCESS;
}

static void tell_error(netsnmp_session*, int* system, int* library, char** text) {
    *text = strdup(("errors " + std::to_string(*system) + " " + std::to_string(*library)).c_str());
}

/* A definition by hand, and what came of it. */
class snmp_session_test : public testing::Test {
protected:
    void SetUp() override {
        if (!bound_) {
            GTEST_SKIP() << "no SNMP library on this host";
        }
        open_called = open_fails = false;
        opened = nullptr;
        asked = {};
        asked_key.clear();
        definition_.host = strdup("10.1.2.3");
        definition_.port = 1161;
        definition_.version = 1;
        definition_.timeout = 2500;
        definition_.retries = 4;
    }
    void TearDown() override {
        free(definition_.host);
        free(error_);
        if (opened != nullptr) {
            free(opened->peername);
            delete opened;
        }
    }
    void user(const char* authproto, const char* passwd, const char* privproto = nullptr,
              const char* privpasswd = nullptr) {
        definition_.version = 3;
        definition_.login = const_cast<char*>("alice");
        definition_.authproto = const_cast<char*>(authproto);
        definition_.passwd = const_cast<char*>(passwd);
        definition_.privproto = const_cast<char*>(privproto);
        definition_.privpasswd = const_cast<char*>(privpasswd);
    }
    netsnmp_session* open() {
        netsnmp_session settings = {};
        free(error_);
        error_ = const_cast<char*>("not set");
        return init_session(&definition_, &settings, &error_);
    }
    std::string refusal() {
        EXPECT_EQ(open(), nullptr);
        EXPECT_FALSE(open_called);
        return error_ != nullptr ? error_ : "none";
    }

    snmp_def definition_ = {};
    char* error_ = nullptr;
    int bound_ = (library_directory.clear(), init_snmp_lib()); /* before anything is replaced */
    in_place_of<decltype(libpo_snmp_open)> open_{libpo_snmp_open, note_open};
    in_place_of<decltype(libpo_generate_Ku)> key_{libpo_generate_Ku, note_key};
    in_place_of<decltype(libpo_snmp_error)> text_{libpo_snmp_error, tell_error};
};

TEST_F(snmp_session_test, of_a_community_names_peer_times_and_community) {
    for (int version : {0, 1}) {
        definition_.version = version;
        definition_.community = const_cast<char*>("secret");
        ASSERT_NE(open(), nullptr);
        EXPECT_EQ(error_, nullptr);
        EXPECT_EQ(asked.version, version);
        EXPECT_EQ(asked.timeout, 2500000000L) << "microseconds, beyond 32 bits";
        EXPECT_EQ(asked.retries, 4);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(asked.community), asked.community_len),
                  "secret");
        EXPECT_EQ(asked.securityName, nullptr);
        free(definition_.host);
        definition_.host = strdup("10.1.2.3");
        EXPECT_EQ(asked_peer, "10.1.2.3:1161");
        free(opened->peername);
        delete opened;
        opened = nullptr;
    }
}

TEST_F(snmp_session_test, without_a_community_leaves_it_to_the_library) {
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.community_len, 0u);
    EXPECT_STREQ(definition_.host, "10.1.2.3:1161");
    EXPECT_STREQ(opened->peername, "10.1.2.3:1161");
}

TEST_F(snmp_session_test, leads_to_the_address_and_names_the_host) {
    definition_.address = const_cast<char*>("127.0.0.9");
    netsnmp_session settings = {};
    free(definition_.host);
    definition_.host = strdup("router.example");
    ASSERT_NE(init_session(&definition_, &settings, &error_), nullptr);
    EXPECT_EQ(asked_peer, "127.0.0.9:1161");
    EXPECT_STREQ(opened->peername, "router.example:1161");
    EXPECT_STREQ(settings.peername, "router.example:1161");
    EXPECT_STREQ(definition_.host, "router.example:1161");
}

TEST_F(snmp_session_test, leads_to_an_ipv6_address) {
    definition_.address = const_cast<char*>("fe80::1");
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked_peer, "udp6:[fe80::1]:1161");
    EXPECT_STREQ(opened->peername, "10.1.2.3:1161");
}

TEST_F(snmp_session_test, to_a_host_without_an_address_fails_as_the_library_would) {
    definition_.address = const_cast<char*>("");
    EXPECT_EQ(refusal(), "Unknown host (10.1.2.3:1161)");
}

TEST_F(snmp_session_test, that_does_not_open_leaves_the_librarys_text) {
    open_fails = true;
    EXPECT_EQ(open(), nullptr);
    EXPECT_STREQ(error_, "errors 11 -6");
    open_fails = false;
}

TEST_F(snmp_session_test, of_a_user_without_privacy_derives_the_authentication_key) {
    user("md5", "alicepass");
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.version, 3);
    EXPECT_EQ(asked.securityModel, SNMP_SEC_MODEL_USM);
    EXPECT_EQ(asked.securityLevel, 2);
    EXPECT_EQ(std::string(asked.securityName, asked.securityNameLen), "alice");
    EXPECT_EQ(asked.securityAuthProto, dlsym(lib_handle, "usmHMACMD5AuthProtocol"));
    EXPECT_EQ(asked.securityAuthProtoLen, 10u);
    EXPECT_EQ(asked_key, "2/10 alicepass into 64");
    EXPECT_EQ(asked.securityAuthKeyLen, 16u);
    EXPECT_EQ(asked.securityAuthKey[15], 'K');
    EXPECT_EQ(asked.securityPrivProto, nullptr);
    EXPECT_EQ(asked.securityPrivKeyLen, 0u);
    EXPECT_EQ(asked.community_len, 0u);
}

TEST_F(snmp_session_test, of_a_user_with_privacy_derives_the_privacy_key_alone) {
    user("sha", "alicepass", "des", "alicepriv");
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.securityLevel, 3);
    EXPECT_EQ(asked.securityAuthProto, dlsym(lib_handle, "usmHMACSHA1AuthProtocol"));
    EXPECT_EQ(asked.securityPrivProto, dlsym(lib_handle, "usmDESPrivProtocol"));
    EXPECT_EQ(asked.securityPrivProtoLen, 10u);
    EXPECT_EQ(asked_key, "3/10 alicepriv into 64") << "by the authentication hash";
    EXPECT_EQ(asked.securityPrivKeyLen, 16u);
    EXPECT_EQ(asked.securityPrivKey[15], 'K');
    EXPECT_EQ(asked.securityAuthKeyLen, 0u);
}

TEST_F(snmp_session_test, knows_aes) {
    user("md5", "alicepass", "aes", "alicepriv");
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.securityPrivProto, dlsym(lib_handle, "usmAESPrivProtocol"));
}

TEST_F(snmp_session_test, takes_any_other_version_for_snmpv3) {
    user("md5", "alicepass");
    definition_.version = 2;
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.version, 2);
    EXPECT_EQ(asked.securityModel, SNMP_SEC_MODEL_USM);
}

TEST_F(snmp_session_test, refuses_unknown_protocols_in_one_wording) {
    for (const char* name : {"MD5", "md", "md55", "", "sha1", "des"}) {
        user(name, "alicepass");
        EXPECT_EQ(refusal(), "Unknown snmpv3 auth protocol.") << name;
    }
    user(nullptr, "alicepass");
    EXPECT_EQ(refusal(), "Unknown snmpv3 auth protocol.");
    for (const char* name : {"DES", "3des", "", "md5"}) {
        user("md5", "alicepass", name, "alicepriv");
        EXPECT_EQ(refusal(), "Unknown snmpv3 auth protocol.") << name;
    }
    user("md5", "alicepass", nullptr, "alicepriv");
    EXPECT_EQ(refusal(), "Unknown snmpv3 auth protocol.");
}

TEST_F(snmp_session_test, refuses_pass_phrases_without_a_key) {
    user("md5", "short");
    EXPECT_EQ(refusal(), "Error generating key (Ku) from authentication pass phrase.");
    user("md5", nullptr);
    EXPECT_EQ(refusal(), "Error generating key (Ku) from authentication pass phrase.");
    user("md5", "alicepass", "aes", "short");
    EXPECT_EQ(refusal(), "Error generating a key (Ku) from the privacy pass phrase.");
    user("md5", "short", "aes", "");
    ASSERT_NE(open(), nullptr) << "the authentication pass phrase is not looked at";
}

TEST_F(snmp_session_test, does_without_a_user_name) {
    user("md5", "alicepass");
    definition_.login = nullptr;
    ASSERT_NE(open(), nullptr);
    EXPECT_EQ(asked.securityNameLen, 0u);
}

TEST_F(snmp_library, without_a_protocol_fails_that_protocol_alone) {
    library_directory = STUBS + "/snmp_no_md5_des";
    ASSERT_EQ(init_snmp_lib(), 1);
    in_place_of open(libpo_snmp_open, note_open);
    in_place_of key(libpo_generate_Ku, note_key);
    snmp_def definition = {};
    definition.host = strdup("h");
    definition.version = 3;
    definition.passwd = definition.privpasswd = definition.login = const_cast<char*>("alicepass");
    struct {
        const char *auth, *priv, *error;
    } cases[] = {{"md5", "aes", "Unknown snmpv3 auth protocol."},
                 {"sha", "des", "Unknown snmpv3 auth protocol."},
                 {"sha", "aes", nullptr}};
    for (const auto& c : cases) {
        definition.authproto = const_cast<char*>(c.auth);
        definition.privproto = const_cast<char*>(c.priv);
        netsnmp_session settings = {};
        char* error = nullptr;
        opened = nullptr;
        open_fails = false;
        init_session(&definition, &settings, &error);
        EXPECT_STREQ(error, c.error);
        EXPECT_EQ(opened != nullptr, c.error == nullptr);
        free(error);
        if (opened != nullptr) {
            free(opened->peername);
            delete opened;
            opened = nullptr;
        }
    }
    free(definition.host);
}

/* The real generate_Ku, which is particular about the size of its buffer. */
TEST(real_snmp_library, derives_keys_and_names_an_unknown_host) {
    lib_handle = nullptr;
    library_directory.clear();
    if (!init_snmp_lib()) {
        GTEST_SKIP() << "no SNMP library on this host";
    }
    in_place_of open(libpo_snmp_open, note_open);
    open_fails = false;
    snmp_def definition = {};
    definition.host = strdup("h");
    definition.version = 3;
    definition.login = definition.passwd = const_cast<char*>("alicepass");
    definition.authproto = const_cast<char*>("sha");
    netsnmp_session settings = {};
    char* error = nullptr;
    EXPECT_NE(init_session(&definition, &settings, &error), nullptr) << error;
    EXPECT_EQ(asked.securityAuthKeyLen, 20u);
    free(opened->peername);
    delete opened;
    opened = nullptr;
    free(definition.host);
    free(error);
    EXPECT_EQ(std::string(libpo_snmp_api_errstring(SNMPERR_BAD_ADDRESS)).rfind("Unknown host", 0),
              0u)
        << "as init_session words it";
}
