#include "guards.h"
#include "slow_library.h"
#include "snmp_agent.h"
#include "snmpmon_checks.h"
#include "udc_reader.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

/* --- texts and types ----------------------------------------------------------------------------
 */

static std::string escape(const std::string& text) {
    char* copy = strdup(text.c_str());
    escape_data(&copy);
    std::string result = copy;
    free(copy);
    return result;
}

TEST(escape_data, drops_the_first_character_of_a_text_with_separators) {
    EXPECT_EQ(escape("a;b"), "%253Bb");
    EXPECT_EQ(escape("a|b"), "%257Cb");
    EXPECT_EQ(escape(";a"), "a");
    EXPECT_EQ(escape("|"), "");
    EXPECT_EQ(escape(";;"), "%253B");
    EXPECT_EQ(escape("x%;\ty"), "%2525%253B y");
}

TEST(escape_data, makes_line_ends_and_tabs_blanks_and_leaves_the_rest) {
    EXPECT_EQ(escape("a\tb\nc\rd"), "a b c d");
    EXPECT_EQ(escape("50%"), "50%");
    EXPECT_EQ(escape(""), "");
    char* none = nullptr;
    escape_data(&none);
    EXPECT_EQ(none, nullptr);
}

TEST(escape_data, has_room_for_every_character_escaped) {
    std::string wanted;
    for (int i = 0; i < 3 * 1000 - 1; i++) {
        wanted += i % 3 == 0 ? "%2525" : i % 3 == 1 ? "%253B" : "%257C";
    }
    std::string text = "x";
    for (int i = 0; i < 1000; i++) {
        text += "%;|";
    }
    text.pop_back();
    EXPECT_EQ(escape(text), wanted);
}

TEST(snmp_types, of_asn1_tags) {
    const std::pair<int, int> codes[] = {
        {121, 1}, {120, 2}, {70, 3}, {118, 4}, {123, 5},  {122, 6},  {68, 7},   {4, 8},
        {2, 9},   {3, 10},  {6, 11}, {67, 12}, {66, 13},  {65, 14},  {71, 15},  {64, 16},
        {69, 17}, {5, 18},  {0, 19}, {1, 19},  {128, 19}, {129, 19}, {130, 19}, {-1, 19},
    };
    for (auto [tag, code] : codes) {
        EXPECT_EQ(asn2vindral(tag), code) << tag;
    }
}

TEST(snmp_types, of_the_mib_parser) {
    const int codes[] = {19, 11, 8, 9, 16, 16, 14, 13, 12, 7, 18, 3, 10, 17, 15, 15, 9, 19};
    for (int type = 0; type < 18; type++) {
        EXPECT_EQ(mib2vindral(type), codes[type]) << type;
    }
    EXPECT_EQ(mib2vindral(-1), 19);
}

TEST(snmp_types, have_names) {
    const char* const names[] = {
        nullptr,      "OBJECT IDENTIFIER", "OCTET STRING", "INTEGER",     "NetworkAddress",
        "IpAddress",  "Counter32",         "Gauge32",      "TimeTicks",   "Opaque",
        "NULL",       "Counter64",         "BITS",         "NsapAddress", "UInteger32",
        "Unsigned32", "Integer32",         nullptr};
    for (int type = 0; type < 18; type++) {
        EXPECT_STREQ(get_type_desc(type), names[type]) << type;
    }
    EXPECT_EQ(get_type_desc(-1), nullptr);
}

/* --- with the library ---------------------------------------------------------------------------
 */

static const std::string TEST_OID = "1.3.6.1.4.1.99990";

/* Puts a function in place of one of the library's until the end of the scope. */
template <typename F>
struct in_place_of {
    F& pointer;
    F before;
    in_place_of(F& p, F replacement) : pointer(p), before(p) { p = replacement; }
    ~in_place_of() { pointer = before; }
    in_place_of(const in_place_of&) = delete;
    in_place_of& operator=(const in_place_of&) = delete;
};

/* A get or walk test by hand. */
struct definition {
    snmp_def def = {};
    std::vector<std::string> oids;
    std::vector<char*> texts;
    std::vector<long> limits;
    std::vector<long*> lower, upper;

    definition(int port, std::vector<std::string> wanted) : oids(std::move(wanted)) {
        for (std::string& oid : oids) {
            texts.push_back(oid.data());
        }
        def.tid = 77;
        def.loc_id = 5;
        def.oid_arr = texts.data();
        def.oid_len = oids.size();
        def.oid_string = oids.empty() ? nullptr : texts[0];
        def.host = strdup("127.0.0.1");
        def.port = port;
        def.version = 1;
        def.timeout = 20;
        def.community = const_cast<char*>("public");
    }
    ~definition() { free(def.host); }
    definition(const definition&) = delete;
    definition& operator=(const definition&) = delete;

    /* The same limits for every OID. */
    void limit(long low, long high) {
        limits = {low, high};
        lower.assign(oids.size(), &limits[0]);
        upper.assign(oids.size(), &limits[1]);
        def.min_list = lower.data();
        def.max_list = upper.data();
    }
};

static std::vector<std::string> under(std::initializer_list<const char*> ends) {
    std::vector<std::string> oids;
    for (const char* end : ends) {
        oids.push_back(TEST_OID + end);
    }
    return oids;
}

static void refuse(netsnmp_pdu* response, long status, long index) {
    response->errstat = status;
    response->errindex = index;
}

class snmp_check : public testing::Test {
protected:
    static void SetUpTestSuite() { library_ = use_real_library(); }
    void SetUp() override {
        if (!library_) {
            GTEST_SKIP() << "no SNMP library on this host";
        }
        agent_ = std::make_unique<snmp_agent>();
    }
    void put(const std::string& end, const agent_value& value) {
        agent_->values[path_of(TEST_OID + end)] = value;
    }
    udc_content get(definition& d) {
        char* data = nullptr;
        int size = 0;
        clock_ahead_ms = 0;
        before_ = now_in_seconds();
        EXPECT_EQ(do_single_full_check(&d.def, &data, &size), 1);
        auto record = read_udc(data, static_cast<size_t>(size));
        free(data);
        EXPECT_TRUE(record.has_value());
        udc_content content = record.value_or(udc_content{});
        if (content.i64.size() == 1 && content.d64.size() == 1) {
            late_ = content.i64[0] - before_;
            EXPECT_NEAR(static_cast<double>(late_), 0,
                        30 + static_cast<double>(clock_ahead_ms) / 1000);
            milliseconds_ = content.d64[0];
            content.i64[0] = 0;
            content.d64[0] = 0;
        }
        return content;
    }
    /* The message of a get that fails. */
    std::string failure(definition& d) {
        udc_content content = get(d);
        EXPECT_EQ(content.ui32,
                  (std::vector<uint32_t>{57, 77, 5, 3, static_cast<uint32_t>(d.def.oid_len)}));
        EXPECT_TRUE(content.records.empty());
        return content.strings.empty() ? "none" : content.strings[0];
    }
    int port() const { return agent_->port(); }

    std::unique_ptr<snmp_agent> agent_;
    time_t before_ = 0;
    time_t late_ = 0; /* from the beginning of the check to the time of its record, in seconds */
    double milliseconds_ = 0;

private:
    static inline bool library_ = false;
};

TEST_F(snmp_check, get_reports_every_value_with_its_type_and_description) {
    put(".2.0", number(ASN_INTEGER, 1));
    put(".3.1.0", number(ASN_TIMETICKS, 4711));
    put(".9", octets("text"));
    definition d(port(), under({".2.0", ".9", ".3.1.0"}));
    udc_content got = get(d);
    EXPECT_EQ(to_text(got),
              "{ui32 57 77 5 0 3; i64 0; d64 0; strings \"New results are available.\n\" of 1; "
              "{ui32 9 0; strings \"1\" \"OID: " +
                  TEST_OID +
                  ".2.0 the result is available.\n\" of 2}; "
                  "{ui32 8 0; strings \"\"text\"\" \"OID: " +
                  TEST_OID +
                  ".9 the result is available.\n\" of 2}; "
                  "{ui32 12 0; strings \"4711\" \"OID: " +
                  TEST_OID + ".3.1.0 the result is available.\n\" of 2}}");
    EXPECT_GT(milliseconds_, 0.0);
    EXPECT_LT(milliseconds_, 5000.0);
    EXPECT_EQ(agent_->requests, 1);
    EXPECT_EQ(agent_->last_command, 160);
    EXPECT_STREQ(d.def.host, ("127.0.0.1:" + std::to_string(port())).c_str());
}

TEST_F(snmp_check, get_bears_the_time_of_its_start_unless_the_exchange_fails) {
    slow_library slow;
    put(".2.0", number(ASN_INTEGER, 1));
    definition d(port(), under({".2.0"}));
    get(d);
    EXPECT_LT(late_, 300);
    EXPECT_GE(milliseconds_, slow.EXCHANGE_MS);
    EXPECT_LT(milliseconds_, slow.EXCHANGE_MS + 30000);

    agent_->twist = [](const netsnmp_pdu*, netsnmp_pdu* response) {
        refuse(response, SNMP_ERR_TOOBIG, 0);
    };
    definition refused(port(), under({".2.0"}));
    failure(refused);
    EXPECT_LT(late_, 300);

    agent_->silent = true;
    definition unheard(port(), under({".2.0"}));
    unheard.def.timeout = 0;
    failure(unheard);
    EXPECT_GE(late_, 600) << "of the request";
    EXPECT_LT(late_, 900);

    in_place_of open(
        libpo_snmp_open, +[](netsnmp_session*) -> netsnmp_session* {
            clock_ahead_ms = slow_library::OPEN_MS;
            return nullptr;
        });
    definition closed(port(), under({".2.0"}));
    failure(closed);
    EXPECT_LT(late_, 300);
}

TEST_F(snmp_check, get_takes_the_time_of_the_last_request) {
    slow_library slow;
    put(".9", number(ASN_INTEGER, 15));
    agent_->twist = [](const netsnmp_pdu* request, netsnmp_pdu* response) {
        if (request->variables->next_variable != nullptr) {
            refuse(response, SNMP_ERR_NOSUCHNAME, 1);
        }
    };
    definition d(port(), under({".2.0", ".9"}));
    d.def.version = 0;
    EXPECT_EQ(get(d).ui32.at(3), 0u);
    EXPECT_EQ(agent_->requests, 2);
    EXPECT_LT(milliseconds_, slow.EXCHANGE_MS + 30000) << "one of two";
}

TEST_F(snmp_check, leaves_no_session_open) {
    put(".2.0", number(ASN_INTEGER, 1));
    auto descriptors = [] {
        std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    auto before = descriptors();
    definition good(port(), under({".2.0"})), bad(port(), {"nonsense"});
    get(good);
    get(bad);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(snmp_check, get_takes_an_oid_of_full_length_and_no_longer_one) {
    std::string longest = "1.3";
    for (int i = 2; i < MAX_OID_LEN; i++) {
        longest += ".7";
    }
    definition d(port(), {longest});
    EXPECT_EQ(get(d).ui32.at(3), 0u);
    definition e(port(), {longest + ".7"});
    EXPECT_EQ(failure(e).rfind("Unknown Object Identifier", 0), 0u);
}

TEST_F(snmp_check, get_describes_a_value_out_of_its_limits) {
    put(".2.0", number(ASN_INTEGER, 25));
    definition d(port(), under({".2.0"}));
    d.limit(10, 20);
    udc_content got = get(d);
    EXPECT_EQ(got.ui32[3], 0u);
    ASSERT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.records[0].ui32, (std::vector<uint32_t>{9, 2}));
    EXPECT_EQ(got.records[0].strings[1],
              "OID:       " + TEST_OID + ".2.0\nValue:     25\nMin Value: 10\nMax Value: 20\n");
}

TEST_F(snmp_check, get_describes_what_is_no_value) {
    definition d(port(), under({".2.0"}));
    udc_content got = get(d);
    ASSERT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.records[0].ui32, (std::vector<uint32_t>{19, 2}));
    const std::string text = "No Such Object available on this agent at this OID";
    EXPECT_EQ(got.records[0].strings[0], text);
    EXPECT_EQ(got.records[0].strings[1], "OID:       " + TEST_OID + ".2.0\nValue:     " + text +
                                             "\nMin Value: 0\nMax Value: 0\n");
}

TEST_F(snmp_check, get_does_not_store_an_empty_value) {
    put(".9", octets("")); /* with a display hint the library would print nothing */
    in_place_of print(
        libpo_sprint_realloc_value, +[](u_char**, size_t*, size_t*, int, const oid*, size_t,
                                        const netsnmp_variable_list*) { return 1; });
    definition d(port(), under({".9"}));
    udc_content got = get(d);
    ASSERT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.records[0].strings.size(), 1u);
    EXPECT_EQ(got.records[0].declared_strings, 2u);
}

TEST_F(snmp_check, get_escapes_values) {
    put(".9", octets("a;b|c%d\te"));
    definition d(port(), under({".9"}));
    udc_content got = get(d);
    EXPECT_EQ(got.records.at(0).strings.at(0), "a%253Bb%257Cc%2525d e\"");
}

TEST_F(snmp_check, get_keeps_to_the_oids_of_the_test) {
    put(".2.0", number(ASN_INTEGER, 1));
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        for (int i = 0; i < 50; i++) {
            agent_->add(response, path_of("1.3.6.1.5"), number(ASN_INTEGER, i));
        }
    };
    definition d(port(), under({".2.0"}));
    d.limit(0, 9);
    EXPECT_EQ(get(d).records.size(), 1u);
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) { agent_->clear(response); };
    definition e(port(), under({".2.0"}));
    udc_content got = get(e);
    EXPECT_EQ(got.ui32[3], 0u);
    EXPECT_TRUE(got.records.empty());
}

TEST_F(snmp_check, get_of_an_unreachable_agent_names_host_and_port) {
    agent_->silent = true;
    definition d(port(), under({".2.0", ".9"}));
    d.def.timeout = 0; /* which make_snmp_def would not allow; the library waits no longer */
    d.def.address = const_cast<char*>("127.0.0.1");
    free(d.def.host);
    d.def.host = strdup("quiet.example");
    EXPECT_EQ(failure(d), "Timeout: No response from quiet.example:" + std::to_string(port()));
    EXPECT_GT(milliseconds_, 0.0);
}

TEST_F(snmp_check, get_without_a_session_tells_why) {
    definition d(port(), under({".2.0"}));
    d.def.version = 3;
    d.def.authproto = const_cast<char*>("none");
    EXPECT_EQ(failure(d), "Unknown snmpv3 auth protocol.");
    EXPECT_EQ(milliseconds_, 0.0);

    definition e(port(), under({".2.0"}));
    in_place_of open(
        libpo_snmp_open, +[](netsnmp_session*) -> netsnmp_session* { return nullptr; });
    in_place_of text(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char**) {});
    EXPECT_EQ(failure(e), "Unknown error");
}

TEST_F(snmp_check, get_escapes_the_reason_of_a_failure) {
    definition d(port(), under({".2.0"}));
    in_place_of open(
        libpo_snmp_open, +[](netsnmp_session*) -> netsnmp_session* { return nullptr; });
    in_place_of text(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char** s) { *s = strdup("no;\nway"); });
    EXPECT_EQ(failure(d), "o%253B way");
}

TEST_F(snmp_check, get_of_an_unknown_oid_asks_nothing) {
    for (const char* text : {"nonsense", "", "1.3..6"}) {
        definition d(port(), {TEST_OID + ".2.0", text});
        EXPECT_EQ(failure(d).rfind("Unknown Object Identifier", 0), 0u) << text;
        EXPECT_EQ(milliseconds_, 0.0);
    }
    definition d(port(), under({".2.0"}));
    d.def.oid_arr[0] = nullptr;
    EXPECT_EQ(failure(d).rfind("Unknown Object Identifier", 0), 0u);
    EXPECT_EQ(agent_->requests, 0);
}

TEST_F(snmp_check, get_goes_on_without_the_variable_that_is_refused) {
    put(".2.0", number(ASN_INTEGER, 1));
    put(".9", number(ASN_INTEGER, 15));
    agent_->twist = [&](const netsnmp_pdu* request, netsnmp_pdu* response) {
        if (request->variables->next_variable != nullptr) {
            refuse(response, SNMP_ERR_NOSUCHNAME, 1);
        }
    };
    definition d(port(), under({".2.0", ".9"}));
    d.def.version = 0;
    d.limit(0, 9);
    std::vector<long> own = {0, 20};
    d.lower[1] = &own[0];
    d.upper[1] = &own[1];
    udc_content got = get(d);
    EXPECT_EQ(agent_->requests, 2);
    EXPECT_EQ(got.ui32, (std::vector<uint32_t>{57, 77, 5, 0, 2}));
    ASSERT_EQ(got.records.size(), 1u);
    EXPECT_EQ(got.records[0].ui32, (std::vector<uint32_t>{9, 2})) << "by the first OID's limits";
    EXPECT_EQ(got.records[0].strings.at(0), "15");
    EXPECT_NE(got.records[0].strings.at(1).find(TEST_OID + ".2.0"), std::string::npos);
}

TEST_F(snmp_check, get_reports_an_error_that_names_no_variable) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        refuse(response, SNMP_ERR_TOOBIG, 0);
    };
    definition d(port(), under({".2.0", ".9"}));
    EXPECT_EQ(failure(d),
              "Error in packet. Reason: (tooBig) Response message would have been too large.");
    EXPECT_EQ(milliseconds_, 0.0);
    EXPECT_EQ(agent_->requests, 1);
}

TEST_F(snmp_check, get_names_the_last_object_that_is_refused) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        refuse(response, SNMP_ERR_NOSUCHNAME, 1);
    };
    definition d(port(), under({".2.0", ".9"}));
    d.def.version = 0;
    EXPECT_EQ(failure(d), "Error in packet. Reason: (noSuchName) There is no such variable name in "
                          "this MIB. Failed object: VINDRAL-TEST-MIB::vindralTest.9");
    EXPECT_EQ(agent_->requests, 2);
}

TEST_F(snmp_check, get_is_not_kept_going_by_an_agent_that_refuses_for_ever) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        for (int i = 0; i < 9; i++) {
            agent_->add(response, path_of("1.3.6.1.5"), number(ASN_INTEGER, i));
        }
        refuse(response, SNMP_ERR_GENERR, 9);
    };
    definition d(port(), under({".2.0", ".9"}));
    EXPECT_EQ(failure(d), "Error in packet. Reason: (genError) A general failure occured Failed "
                          "object: VINDRAL-TEST-MIB::internet.5");
    EXPECT_EQ(agent_->requests, 3);
}

TEST_F(snmp_check, get_survives_an_error_index_out_of_range) {
    for (long index : {-5L, 3L, 2147483647L}) {
        agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
            refuse(response, SNMP_ERR_GENERR, index);
        };
        definition d(port(), under({".2.0", ".9"}));
        EXPECT_EQ(failure(d), "Error in packet. Reason: (genError) A general failure occured");
    }
}

TEST_F(snmp_check, get_reports_an_exchange_without_a_response) {
    in_place_of exchange(
        libpo_snmp_synch_response,
        +[](netsnmp_session*, netsnmp_pdu* request, netsnmp_pdu** response) {
            libpo_snmp_free_pdu(request);
            *response = nullptr;
            return STAT_ERROR;
        });
    in_place_of text(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char** s) { *s = strdup("lost"); });
    definition d(port(), under({".2.0"}));
    EXPECT_EQ(failure(d), "lost");
    in_place_of silent(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char**) {});
    definition e(port(), under({".2.0"}));
    EXPECT_EQ(failure(e), "Unknown error");
}

TEST_F(snmp_check, internal_get_hands_over_the_last_value_alone) {
    put(".2.0", number(ASN_INTEGER, 1));
    put(".9", octets("a;b"));
    definition d(port(), under({".2.0", ".9"}));
    d.def.mode = 2;
    char* data = nullptr;
    int size = 0;
    EXPECT_EQ(do_single_full_check(&d.def, &data, &size), 1);
    EXPECT_STREQ(data, "a%253Bb\"");
    EXPECT_EQ(size, 8);
    free(data);

    definition e(port(), {"nonsense"});
    e.def.mode = -1;
    EXPECT_EQ(do_single_full_check(&e.def, &data, &size), 1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0);
}

/* --- one value ----------------------------------------------------------------------------------
 */

class snmp_value : public snmp_check {
protected:
    /* "type status text" of a value that the agent sent. */
    std::string judge(const agent_value& value, std::optional<long> low = {},
                      std::optional<long> high = {}) {
        oid_path name = path_of(TEST_OID + ".9");
        netsnmp_variable_list variable = {};
        variable.name = name.data();
        variable.name_length = name.size();
        variable.type = value.type;
        alignas(counter64) u_char bytes[256];
        memcpy(bytes, value.bytes.data(), value.bytes.size());
        variable.val.string = bytes;
        variable.val_len = value.bytes.size();
        int type = 0;
        char* text = nullptr;
        int status =
            process_vars(&variable, &type, &text, low ? &*low : nullptr, high ? &*high : nullptr);
        std::string result = std::to_string(type) + " " + std::to_string(status) + " " + text;
        free(text);
        return result;
    }
};

TEST_F(snmp_value, of_an_integer_is_compared_with_both_limits) {
    EXPECT_EQ(judge(number(ASN_INTEGER, 10), 10, 20), "9 0 10");
    EXPECT_EQ(judge(number(ASN_INTEGER, 20), 10, 20), "9 0 20");
    EXPECT_EQ(judge(number(ASN_INTEGER, 9), 10, 20), "9 2 9");
    EXPECT_EQ(judge(number(ASN_INTEGER, 21), 10, 20), "9 2 21");
    EXPECT_EQ(judge(number(ASN_INTEGER, -9), -10, -8), "9 0 -9");
    EXPECT_EQ(judge(number(ASN_INTEGER, 9), {}, 20), "9 0 9");
    EXPECT_EQ(judge(number(ASN_INTEGER, 99), 10, {}), "9 0 99");
    EXPECT_EQ(judge(number(ASN_INTEGER, 9)), "9 0 9");
    EXPECT_EQ(judge(number(ASN_COUNTER, 4000000000), 0, 3999999999), "14 2 4000000000");
    EXPECT_EQ(judge(number(ASN_GAUGE, 7), 8, 9), "13 2 7");
    EXPECT_EQ(judge(number(ASN_TIMETICKS, 7), 8, 9), "12 2 7");
    EXPECT_EQ(judge(number(ASN_UINTEGER, 7), 8, 9), "15 2 7");
    EXPECT_EQ(judge(number(ASN_COUNTER, 8), 8, 9), "14 0 8");
    EXPECT_EQ(judge(number(ASN_GAUGE, 8), 8, 9), "13 0 8");
    EXPECT_EQ(judge(number(ASN_TIMETICKS, 9), 8, 9), "12 0 9");
    EXPECT_EQ(judge(number(ASN_UINTEGER, 9), 8, 9), "15 0 9");
}

TEST_F(snmp_value, of_64_bits_is_compared_by_its_upper_half) {
    EXPECT_EQ(judge(upper_lower(ASN_COUNTER64, 0, 4000000000), 0, 9), "3 0 4000000000");
    EXPECT_EQ(judge(upper_lower(ASN_COUNTER64, 10, 0), 0, 9), "3 2 42949672960");
    for (int type : {ASN_OPAQUE_COUNTER64, ASN_OPAQUE_U64, ASN_OPAQUE_I64}) {
        EXPECT_EQ(judge(upper_lower(static_cast<u_char>(type), 9, 0), 9, 9),
                  std::to_string(asn2vindral(type)) + " 0 38654705664");
    }
    EXPECT_EQ(judge(upper_lower(ASN_OPAQUE_COUNTER64, 10, 0), 0, 9), "4 2 42949672960");
    EXPECT_EQ(judge(upper_lower(ASN_OPAQUE_U64, 10, 0), 0, 9), "5 2 42949672960");
    EXPECT_EQ(judge(upper_lower(ASN_OPAQUE_I64, 10, 0), 0, 9), "6 2 42949672960");
}

TEST_F(snmp_value, of_a_floating_type_is_compared_as_such) {
    auto real = [](u_char type, auto value) {
        return agent_value{type, std::string(reinterpret_cast<char*>(&value), sizeof value)};
    };
    EXPECT_EQ(judge(real(ASN_OPAQUE_FLOAT, 9.5F), 1, 9), "2 2 9.500000");
    EXPECT_EQ(judge(real(ASN_OPAQUE_FLOAT, 9.0F), 1, 9), "2 0 9.000000");
    EXPECT_EQ(judge(real(ASN_OPAQUE_DOUBLE, 0.5), 1, 9), "1 2 0.500000");
    EXPECT_EQ(judge(real(ASN_OPAQUE_DOUBLE, 1.0), 1, 9), "1 0 1.000000");
}

TEST_F(snmp_value, of_other_types_has_no_limits) {
    EXPECT_EQ(judge(octets("5"), 10, 20), "8 0 \"5\"");
    EXPECT_EQ(judge(octets(std::string("\x01\xFF\x00", 3)), 10, 20), "8 0 \"01 FF 00 \"");
    EXPECT_EQ(judge(octets(std::string("\x80", 1), ASN_BIT_STR), 10, 20).substr(0, 5), "10 0 ");
    EXPECT_EQ(judge(object_id(path_of(TEST_OID)), 10, 20), "11 0 VINDRAL-TEST-MIB::vindralTest");
    EXPECT_EQ(judge(octets("\x0a\x01\x02\x03", ASN_IPADDRESS), 10, 20), "16 0 10.1.2.3");
    EXPECT_EQ(judge({ASN_NULL, ""}, 10, 20), "18 0 NULL");
    EXPECT_EQ(judge(octets("abc", ASN_OPAQUE), 10, 20).substr(0, 4), "7 0 ");
    EXPECT_EQ(judge(octets("abc", ASN_NSAP), 10, 20).substr(0, 5), "17 0 ");
}

TEST_F(snmp_value, that_is_none_is_out_of_limits) {
    EXPECT_EQ(judge({SNMP_NOSUCHOBJECT, ""}),
              "19 2 No Such Object available on this agent at this OID");
    EXPECT_EQ(judge({SNMP_NOSUCHINSTANCE, ""}),
              "19 2 No Such Instance currently exists at this OID");
    EXPECT_EQ(judge({SNMP_ENDOFMIBVIEW, ""}),
              "19 2 No more variables left in this MIB View (It is past the end of the MIB tree)");
}

TEST_F(snmp_value, of_an_unknown_type_is_the_whole_variable) {
    in_place_of print(
        libpo_sprint_realloc_variable, +[](u_char** buffer, size_t*, size_t*, int, const oid*,
                                           size_t, const netsnmp_variable_list*) {
            *buffer = reinterpret_cast<u_char*>(strdup("odd\tthing"));
            return 1;
        });
    netsnmp_variable_list variable = {};
    variable.type = 1;
    int type = 0;
    char* text = nullptr;
    long limit = 0;
    EXPECT_EQ(process_vars(&variable, &type, &text, &limit, &limit), 2);
    EXPECT_EQ(type, 19);
    EXPECT_STREQ(text, "odd thing");
    free(text);
}

TEST_F(snmp_value, is_printed_bare) {
    put(".3.2.0", number(ASN_GAUGE, 12));
    put(".2.0", number(ASN_INTEGER, 2));
    definition d(port(), under({".3.2.0", ".2.0"}));
    udc_content got = get(d);
    EXPECT_EQ(got.records.at(0).strings.at(0), "12") << "no units";
    EXPECT_EQ(got.records.at(1).strings.at(0), "2") << "no name of an enumeration";
}

/* --- walk ---------------------------------------------------------------------------------------
 */

class snmp_walk : public snmp_check {
protected:
    /* The lines with "T" for times. */
    std::string walk(definition& d) {
        time_t start = now_in_seconds();
        heap_text lines(d.def.bulk != 0 ? do_single_full_walk_bulk_check(&d.def)
                                        : do_single_full_walk_check(&d.def));
        std::string result;
        std::string text = lines.get();
        for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
            std::string line = text.substr(at, end - at);
            long time = 0;
            double ms = 0;
            int rest = 0;
            EXPECT_EQ(sscanf(line.c_str(), "SWV\t77\t%ld\t%lf%n", &time, &ms, &rest), 2) << line;
            EXPECT_GE(time, start);
            EXPECT_LE(time, now_in_seconds());
            std::string head = line.substr(0, static_cast<size_t>(rest));
            bool is_zero = head.ends_with("\t0");
            EXPECT_TRUE(is_zero || head.size() - head.rfind('.') == 4) << line;
            result += (is_zero ? "0" : "T") + line.substr(static_cast<size_t>(rest)) + "\n";
        }
        EXPECT_TRUE(text.empty() || text.back() == '\n');
        return result;
    }
    void fill() {
        put(".1", number(ASN_INTEGER, 0));
        put(".2.0", number(ASN_INTEGER, 1));
        put(".2.7", octets("a;b"));
        put(".2.8.1", number(ASN_GAUGE, 3));
        put(".3.1.0", number(ASN_TIMETICKS, 9));
    }
    const std::string three_ = "T\t9;\tVINDRAL-TEST-MIB::vtScalar.0 1\t0\n"
                               "T\t8;\tVINDRAL-TEST-MIB::vtScalar.7 a%253Bb\"\t0\n"
                               "T\t13;\tVINDRAL-TEST-MIB::vtScalar.8.1 3\t0\n";
};

TEST_F(snmp_walk, lists_every_value_below_the_root) {
    fill();
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), three_);
    EXPECT_EQ(agent_->requests, 4);
    EXPECT_EQ(agent_->last_command, 161);
}

TEST_F(snmp_walk, in_bulk_asks_for_as_many_as_the_test_says) {
    fill();
    definition d(port(), under({".2"}));
    d.def.bulk = 2;
    EXPECT_EQ(walk(d), three_);
    EXPECT_EQ(agent_->requests, 2);
    EXPECT_EQ(agent_->last_command, 165);
    EXPECT_EQ(agent_->last_repetitions, 2);
    EXPECT_EQ(agent_->last_non_repeaters, 0);
}

TEST_F(snmp_walk, ends_at_the_end_of_the_view) {
    put(".2.0", number(ASN_INTEGER, 1));
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), "T\t9;\tVINDRAL-TEST-MIB::vtScalar.0 1\t0\n");
    agent_->values.clear();
    definition e(port(), under({".2"}));
    EXPECT_EQ(walk(e), "");
}

TEST_F(snmp_walk, of_an_old_agent_ends_with_a_line) {
    put(".2.0", number(ASN_INTEGER, 1));
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        if (agent_->requests == 2) {
            refuse(response, SNMP_ERR_NOSUCHNAME, 1);
        }
    };
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), "T\t9;\tVINDRAL-TEST-MIB::vtScalar.0 1\t0\n0\t;\tEnd of MIB\t3\n");
}

TEST_F(snmp_walk, reports_another_error_and_its_object) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        refuse(response, SNMP_ERR_GENERR, 1);
    };
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), "0\t;\tError in packet. Reason: (genError) A general failure occured Failed "
                       "object: VINDRAL-TEST-MIB::vtScalar\t3\n");
}

TEST_F(snmp_walk, ends_with_an_oid_that_does_not_increase) {
    put(".2.5", number(ASN_INTEGER, 1));
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        agent_->add(response, path_of(TEST_OID + ".2.5"), number(ASN_INTEGER, 1));
    };
    definition d(port(), under({".2"}));
    const std::string line = "T\t9;\tVINDRAL-TEST-MIB::vtScalar.5 1\t0\n";
    EXPECT_EQ(walk(d), line + line +
                           "0\t;\tError: OID not increasing: VINDRAL-TEST-MIB::vtScalar.5 >= "
                           "VINDRAL-TEST-MIB::vtScalar.5\t3\n");
}

TEST_F(snmp_walk, takes_the_root_itself_for_a_value_that_does_not_increase) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        agent_->add(response, path_of(TEST_OID + ".2"), number(ASN_INTEGER, 1));
    };
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), "T\t9;\tVINDRAL-TEST-MIB::vtScalar 1\t0\n"
                       "0\t;\tError: OID not increasing: VINDRAL-TEST-MIB::vtScalar >= "
                       "VINDRAL-TEST-MIB::vtScalar\t3\n");
}

TEST_F(snmp_walk, ends_with_an_empty_response) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) { agent_->clear(response); };
    definition d(port(), under({".2"}));
    EXPECT_EQ(walk(d), "");
    EXPECT_EQ(agent_->requests, 1);
}

TEST_F(snmp_walk, of_an_unknown_root_ends_in_status_2) {
    definition d(port(), {"nonsense"});
    std::string line = walk(d);
    EXPECT_EQ(line.rfind("0\t;\tUnknown Object Identifier", 0), 0u) << line;
    EXPECT_TRUE(line.ends_with("\t2\n")) << line;
    definition none(port(), {});
    EXPECT_TRUE(walk(none).ends_with("\t2\n"));
}

TEST_F(snmp_walk, without_a_session_ends_in_status_3) {
    definition d(port(), under({".2"}));
    d.def.address = const_cast<char*>("");
    EXPECT_EQ(walk(d), "0\t;\tUnknown host (127.0.0.1:" + std::to_string(port()) + ")\t3\n");
}

TEST_F(snmp_walk, of_an_unreachable_agent_has_the_response_time) {
    agent_->silent = true;
    definition d(port(), under({".2"}));
    d.def.timeout = 0;
    EXPECT_EQ(walk(d),
              "T\t;\tTimeout: No response from 127.0.0.1:" + std::to_string(port()) + "\t3\n");
}

/* Every answer is one further, for ever. */
TEST_F(snmp_walk, of_an_endless_subtree_ends_when_the_result_is_too_large) {
    const std::string text(20000, 'x');
    agent_->twist = [&](const netsnmp_pdu* request, netsnmp_pdu* response) {
        const netsnmp_variable_list* last = request->variables;
        oid_path path(last->name, last->name + last->name_length);
        if (path.size() == 8) {
            path.push_back(0);
        }
        path.back()++;
        agent_->clear(response);
        agent_->add(response, path, octets(text));
    };
    definition d(port(), under({".2"}));
    std::string lines = walk(d);
    EXPECT_TRUE(lines.ends_with("0\t;\tResult is too large\t3\n"));
    EXPECT_LT(lines.size(), MAX_SNMP_TEXT + 2 * text.size());
}
