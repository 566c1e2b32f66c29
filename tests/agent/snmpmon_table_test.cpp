#include "guards.h"
#include "slow_library.h"
#include "snmp_agent.h"
#include "snmpmon_checks.h"
#include "udc_reader.h"

#include <cstring>
#include <gtest/gtest.h>

static const std::string TEST_OID = "1.3.6.1.4.1.99990";
static const std::string TABLE = TEST_OID + ".1";
static const std::string COLUMNS =
    "{ui32 9 9 8 3; strings \"vtGroup\" \"vtNumber\" \"vtText\" \"vtCount\" of 4}";

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

class snmp_table : public testing::Test {
protected:
    static void SetUpTestSuite() { library_ = use_real_library(); }
    void SetUp() override {
        if (!library_) {
            GTEST_SKIP() << "no SNMP library on this host";
        }
        agent_ = std::make_unique<snmp_agent>();
        oid_ = TABLE;
        definition_.tid = 66;
        definition_.loc_id = 4;
        definition_.port = agent_->port();
        definition_.version = 1;
        definition_.timeout = 20;
        definition_.community = const_cast<char*>("public");
    }
    void put(const std::string& end, const agent_value& value) {
        agent_->values[path_of(TABLE + ".1" + end)] = value;
    }
    /* Two groups, with holes in both columns. */
    void fill() {
        put(".2.1.5", number(ASN_INTEGER, 5));
        put(".3.1.5", octets("first"));
        put(".4.1.5", upper_lower(ASN_COUNTER64, 0, 50));
        put(".2.1.6", number(ASN_INTEGER, 6));
        put(".4.1.6", upper_lower(ASN_COUNTER64, 1, 0));
        put(".3.2.1", octets("x;y"));
        put(".2.10.1", number(ASN_INTEGER, 1));
        agent_->values[path_of(TEST_OID + ".2.0")] = number(ASN_INTEGER, 1);
    }
    const std::string filled_ =
        "{ui32 66 66 4 0; i64 0; strings \"New results are available.\" of 1; " + COLUMNS +
        "; {ui32 0 0 0 1 0 2 0 3 1 0 1 1 1 2 1 3 2 0 2 1 2 2 2 3 3 0 3 1 3 2 3 3; strings "
        "\"-\" \"5\" \"\"first\"\" \"50\" "
        "\"-\" \"6\" \"-\" \"4294967296\" "
        "\"-\" \"-\" \"x%253By\"\" \"-\" "
        "\"-\" \"1\" \"-\" \"-\" of 16}}";

    std::optional<udc_content> check() {
        free(definition_.host);
        definition_.host = strdup("127.0.0.1");
        definition_.oid_string = oid_.data();
        char* data = nullptr;
        int size = 0;
        time_t start = now_in_seconds();
        EXPECT_EQ(definition_.bulk != 0
                      ? do_single_full_table_bulk_check(&definition_, &data, &size)
                      : do_single_full_table_check(&definition_, &data, &size),
                  1);
        auto record = read_udc(data, static_cast<size_t>(size));
        free(data);
        if (record && record->i64.size() == 1) {
            EXPECT_GE(record->i64[0], start);
            EXPECT_LE(record->i64[0], now_in_seconds());
            record->i64[0] = 0;
        }
        return record;
    }
    /* As text, with the record type left to the eye as 66 for its tid. */
    std::string table() {
        auto record = check();
        if (!record) {
            return "no record";
        }
        EXPECT_EQ(record->ui32.at(0), 67u);
        record->ui32[0] = 66;
        return to_text(*record);
    }
    static std::string failed(const std::string& text, bool with_columns) {
        return "{ui32 66 66 4 2; i64 0; strings \"" + text + "\" of 1" +
               (with_columns ? "; " + COLUMNS : "") + "}";
    }
    static std::string without_rows() {
        return "{ui32 66 66 4 0; i64 0; strings \"New results are available.\" of 1; " + COLUMNS +
               "}";
    }
    std::string peer() const { return "127.0.0.1:" + std::to_string(agent_->port()); }
    void TearDown() override { free(definition_.host); }

    std::unique_ptr<snmp_agent> agent_;
    snmp_def definition_ = {};
    std::string oid_;

private:
    static inline bool library_ = false;
};

TEST_F(snmp_table, has_a_row_per_index_in_order_and_dashes_for_holes) {
    fill();
    EXPECT_EQ(table(), filled_);
    EXPECT_EQ(agent_->last_command, 161);
    EXPECT_EQ(agent_->requests, 4);
}

TEST_F(snmp_table, orders_indexes_of_different_lengths_number_by_number) {
    put(".2.1.5", number(ASN_INTEGER, 15));
    put(".2.2", number(ASN_INTEGER, 2));
    put(".3.1", octets("one"));
    EXPECT_NE(table().find("strings \"-\" \"-\" \"\"one\"\" \"-\" "
                           "\"-\" \"15\" \"-\" \"-\" "
                           "\"-\" \"2\" \"-\" \"-\" of 12"),
              std::string::npos)
        << table();
}

TEST_F(snmp_table, asks_for_the_columns_that_go_on) {
    fill();
    std::vector<size_t> variables;
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu*) {
        variables.push_back(agent_->last_variables);
    };
    table();
    EXPECT_EQ(variables, (std::vector<size_t>{4, 3, 3, 1}));
}

TEST_F(snmp_table, comes_the_same_in_bulk) {
    fill();
    for (int repetitions : {1, 2, 3, 50}) {
        definition_.bulk = repetitions;
        EXPECT_EQ(table(), filled_) << repetitions;
        EXPECT_EQ(agent_->last_command, 165);
        EXPECT_EQ(agent_->last_repetitions, repetitions);
        EXPECT_EQ(agent_->last_non_repeaters, 0);
    }
}

TEST_F(snmp_table, may_be_named_by_its_entry_or_by_name) {
    fill();
    for (const char* name : {".1", "VINDRAL-TEST-MIB::vtTable"}) {
        oid_ = *name == '.' ? TABLE + name : name;
        EXPECT_EQ(table(), filled_) << name;
    }
}

TEST_F(snmp_table, without_rows_has_columns_alone) {
    EXPECT_EQ(table(), without_rows());
    EXPECT_EQ(agent_->requests, 1);
}

TEST_F(snmp_table, may_be_a_group_of_objects) {
    agent_->values[path_of(TEST_OID + ".3.1.0")] = number(ASN_TIMETICKS, 12);
    agent_->values[path_of(TEST_OID + ".3.2.0")] = number(ASN_GAUGE, 13);
    oid_ = TEST_OID + ".3";
    EXPECT_EQ(table(), "{ui32 66 66 4 0; i64 0; strings \"New results are available.\" of 1; "
                       "{ui32 12 13; strings \"vtLeft\" \"vtRight\" of 2}; "
                       "{ui32 0 0 0 1; strings \"12\" \"13\" of 2}}");
}

TEST_F(snmp_table, may_be_a_group_of_one) {
    agent_->values[path_of(TEST_OID + ".4.2.1.0")] = number(ASN_INTEGER, 12);
    oid_ = TEST_OID + ".4.2";
    EXPECT_EQ(table(), "{ui32 66 66 4 0; i64 0; strings \"New results are available.\" of 1; "
                       "{ui32 9; strings \"vtDeepest\" of 1}; {ui32 0 0; strings \"12\" of 1}}");
}

TEST_F(snmp_table, without_holes_has_every_cell) {
    std::string cells;
    for (int row = 1; row <= 3; row++) {
        for (int c = 2; c <= 4; c++) {
            std::string place = "." + std::to_string(c) + "." + std::to_string(row);
            put(place, number(ASN_INTEGER, 10 * c + row));
        }
        std::string r = std::to_string(row);
        cells += "\"-\" \"2" + r + "\" \"3" + r + "\" \"4" + r + "\" ";
    }
    EXPECT_NE(table().find("3; strings " + cells + "of 12}}"), std::string::npos) << table();
}

TEST_F(snmp_table, types_its_columns_by_the_values_that_came) {
    put(".4.1.5", number(ASN_GAUGE, 5));
    put(".4.1.6", number(ASN_TIMETICKS, 5));
    EXPECT_NE(table().find("{ui32 9 9 8 13; strings \"vtGroup\""), std::string::npos)
        << "of the first value";
}

TEST_F(snmp_table, shows_an_empty_text_as_a_dash) {
    put(".3.1.5", octets("gone"));
    put(".3.1.6", octets("here"));
    static decltype(libpo_sprint_realloc_value) real;
    real = libpo_sprint_realloc_value;
    in_place_of print(
        libpo_sprint_realloc_value,
        +[](u_char** buffer, size_t* size, size_t* used, int grow, const oid* name, size_t length,
            const netsnmp_variable_list* v) {
            return name[length - 1] == 5 ? 1 : real(buffer, size, used, grow, name, length, v);
        });
    EXPECT_NE(table().find("strings \"-\" \"-\" \"-\" \"-\" \"-\" \"-\" \"\"here\"\" \"-\" of 8"),
              std::string::npos);
}

TEST_F(snmp_table, refuses_what_is_none) {
    const std::pair<std::string, const char*> cases[] = {
        {TEST_OID + ".2", "VINDRAL-TEST-MIB::vtScalar"},
        {TEST_OID + ".2.0", "VINDRAL-TEST-MIB::vtScalar.0"},
        {TEST_OID + ".4", "VINDRAL-TEST-MIB::vtDeep"},
        {TEST_OID, "VINDRAL-TEST-MIB::vindralTest"},
        {TEST_OID + ".77", "VINDRAL-TEST-MIB::vindralTest.77"},
        {TABLE + ".1.2", "VINDRAL-TEST-MIB::vtNumber"},
        {TABLE + ".1.9", "VINDRAL-TEST-MIB::vtEntry.9"},
        {"1.3.6.1.4.1.99991.1", "VINDRAL-TEST-MIB::enterprises.99991.1"},
        {"2.5", "joint-iso-ccitt.5"},
    };
    for (const auto& [oid, name] : cases) {
        oid_ = oid;
        EXPECT_EQ(table(), failed(std::string(name) + " is not a table", false)) << oid;
    }
    EXPECT_EQ(agent_->requests, 0);
}

TEST_F(snmp_table, names_what_cannot_be_printed) {
    oid_ = TEST_OID + ".2";
    {
        in_place_of print(
            libpo_sprint_realloc_objid,
            +[](u_char** buffer, size_t*, size_t*, int, const oid*, size_t) {
                *buffer = reinterpret_cast<u_char*>(strdup("half"));
                return 0;
            });
        EXPECT_EQ(table(), failed("[TRUNCATED] is not a table", false));
    }
    in_place_of print(
        libpo_sprint_realloc_objid,
        +[](u_char**, size_t*, size_t*, int, const oid*, size_t) { return 1; });
    EXPECT_EQ(table(), failed("Table is not specified", false));
}

TEST_F(snmp_table, without_a_session_or_an_oid_has_no_columns) {
    oid_ = "nonsense";
    auto record = check();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->ui32, (std::vector<uint32_t>{67, 66, 4, 2}));
    EXPECT_EQ(record->strings.at(0).rfind("Unknown Object Identifier", 0), 0u);
    EXPECT_TRUE(record->records.empty());
    definition_.address = const_cast<char*>("");
    oid_ = TABLE;
    EXPECT_EQ(table(), failed("Unknown host (" + peer() + ")", false));
}

TEST_F(snmp_table, of_an_unreachable_agent_has_columns) {
    agent_->silent = true;
    definition_.timeout = 0;
    EXPECT_EQ(table(), failed("Timeout: No Response from " + peer(), true));
}

TEST_F(snmp_table, that_breaks_off_has_columns_and_no_cells) {
    fill();
    static decltype(libpo_snmp_synch_response) real;
    static int exchanges;
    real = libpo_snmp_synch_response;
    exchanges = 0;
    in_place_of exchange(
        libpo_snmp_synch_response,
        +[](netsnmp_session* s, netsnmp_pdu* request, netsnmp_pdu** response) {
            s->timeout = 20000000;
            if (++exchanges < 3) {
                return real(s, request, response);
            }
            libpo_snmp_free_pdu(request);
            s->s_snmp_errno = SNMPERR_BAD_SENDTO;
            return STAT_ERROR;
        });
    EXPECT_EQ(table(), failed("Failure in sendto", true)) << "the library's text";
    in_place_of text(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char**) {});
    EXPECT_EQ(table(), failed("Unknown error", true));
}

TEST_F(snmp_table, bears_the_time_of_its_start) {
    slow_library slow;
    check(); /* compares the time with that of a clock that is not put forward */
    clock_ahead_ms = 0;
    agent_->silent = true;
    definition_.timeout = 0;
    EXPECT_EQ(table(), failed("Timeout: No Response from " + peer(), true));
}

TEST_F(snmp_table, escapes_the_reason_of_a_failure) {
    in_place_of open(
        libpo_snmp_open, +[](netsnmp_session*) -> netsnmp_session* { return nullptr; });
    in_place_of text(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char** s) { *s = strdup("no;\nway"); });
    EXPECT_EQ(table(), failed("o%253B way", false));
    in_place_of silent(
        libpo_snmp_error, +[](netsnmp_session*, int*, int*, char**) {});
    EXPECT_EQ(table(), failed("Unknown error", false));
}

TEST_F(snmp_table, refused_by_the_agent_has_no_columns) {
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        response->errstat = SNMP_ERR_GENERR;
        response->errindex = 3;
    };
    fill();
    EXPECT_EQ(table(),
              failed("(genError) A general failure occured VINDRAL-TEST-MIB::vtText.1.5", false));
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        response->errstat = SNMP_ERR_TOOBIG;
    };
    EXPECT_EQ(table(), failed("(tooBig) Response message would have been too large. ", false));
}

TEST_F(snmp_table, in_bulk_is_no_matter_for_snmpv1) {
    definition_.version = 0;
    definition_.bulk = 5;
    auto record = check();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->ui32.at(3), 2u);
    EXPECT_EQ(record->records.size(), 1u);
    EXPECT_EQ(agent_->requests, 0);
}

/* --- agents that do not behave ------------------------------------------------------------------
 */

TEST_F(snmp_table, ends_with_an_empty_response) {
    fill();
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) { agent_->clear(response); };
    for (int repetitions : {0, 5}) {
        definition_.bulk = repetitions;
        agent_->requests = 0;
        EXPECT_EQ(table(), without_rows());
        EXPECT_EQ(agent_->requests, 1);
    }
}

/* As agents do whose packets are full. */
TEST_F(snmp_table, asks_again_for_variables_that_are_missing) {
    fill();
    agent_->twist = [&](const netsnmp_pdu* request, netsnmp_pdu* response) {
        netsnmp_variable_list* first = response->variables;
        if (request->variables->next_variable != nullptr && first->next_variable != nullptr) {
            netsnmp_variable_list* second = first->next_variable;
            response->variables = second->next_variable;
            second->next_variable = nullptr;
            agent_->clear(response);
            response->variables = first;
        }
    };
    for (int repetitions : {0, 1, 50}) {
        definition_.bulk = repetitions;
        EXPECT_EQ(table(), filled_) << repetitions;
    }
}

TEST_F(snmp_table, ends_a_column_whose_oid_does_not_increase) {
    fill();
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        for (int column = 1; column <= 4; column++) {
            agent_->add(response, path_of(TABLE + ".1." + std::to_string(column) + ".7"),
                        number(ASN_INTEGER, column));
        }
    };
    for (int repetitions : {0, 5}) {
        definition_.bulk = repetitions;
        agent_->requests = 0;
        EXPECT_NE(table().find("; {ui32 0 0 0 1 0 2 0 3; strings \"1\" \"2\" \"3\" \"4\" of 4}}"),
                  std::string::npos);
        EXPECT_EQ(agent_->requests, 2);
    }
}

TEST_F(snmp_table, takes_nothing_from_outside_its_columns) {
    const std::vector<std::string> strangers = {
        TABLE + ".1.5.1", /* no column of the table */
        TABLE + ".1.3.1", /* another column's turn, except for the third */
        TABLE + ".1",     /* too short */
        TABLE + ".1.2",   /* the column itself */
        TEST_OID + ".2.2.2.2", "1.3", "1.3.6.1.4.1.99990.2.1.2.1",
    };
    for (const std::string& stranger : strangers) {
        agent_->twist = [&](const netsnmp_pdu* request, netsnmp_pdu* response) {
            agent_->clear(response);
            for (auto* v = request->variables; v != nullptr; v = v->next_variable) {
                agent_->add(response, path_of(stranger), number(ASN_INTEGER, 1));
            }
        };
        std::string result = table();
        EXPECT_EQ(result == without_rows(), stranger != TABLE + ".1.3.1") << stranger << result;
    }
}

TEST_F(snmp_table, does_not_take_up_a_column_again_that_has_ended) {
    definition_.bulk = 2;
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        for (int column = 1; column <= 4; column++) {
            agent_->add(response, path_of("1.3.6.1.5"), number(ASN_INTEGER, column));
        }
        for (int column = 1; column <= 4; column++) {
            agent_->add(response, path_of(TABLE + ".1." + std::to_string(column) + ".7"),
                        number(ASN_INTEGER, column));
        }
    };
    EXPECT_EQ(table(), without_rows());
    EXPECT_EQ(agent_->requests, 1);
}

TEST_F(snmp_table, takes_no_exception_for_a_value) {
    for (int type : {SNMP_NOSUCHOBJECT, SNMP_NOSUCHINSTANCE, SNMP_ENDOFMIBVIEW}) {
        agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
            agent_->clear(response);
            for (int column = 1; column <= 4; column++) {
                agent_->add(response, path_of(TABLE + ".1." + std::to_string(column) + ".7"),
                            {static_cast<u_char>(type), ""});
            }
        };
        EXPECT_EQ(table(), without_rows()) << type;
    }
}

TEST_F(snmp_table, takes_more_variables_than_asked_for_what_they_are) {
    fill();
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        for (int i = 0; i < 100; i++) {
            agent_->add(response, path_of("1.3.6.1.5"), number(ASN_INTEGER, i));
        }
    };
    EXPECT_NE(table().find("\"5\" \"\"first\"\" \"50\""), std::string::npos);
    EXPECT_EQ(agent_->requests, 1);
}

/* Each answer is one row further in every column, for ever. */
TEST_F(snmp_table, that_never_ends_is_too_large) {
    const std::string text(10000, 'x');
    agent_->twist = [&](const netsnmp_pdu* request, netsnmp_pdu* response) {
        agent_->clear(response);
        for (auto* v = request->variables; v != nullptr; v = v->next_variable) {
            oid_path path(v->name, v->name + v->name_length);
            path.resize(10);
            path.push_back(static_cast<oid>(agent_->requests));
            agent_->add(response, path, octets(text));
        }
    };
    std::string columns = COLUMNS;
    std::string result = table();
    EXPECT_EQ(result,
              "{ui32 66 66 4 2; i64 0; strings \"Result is too large\" of 1; {ui32 8 8 8 8" +
                  columns.substr(columns.find(';')) + "}");
    EXPECT_GT(agent_->requests, 300);
    EXPECT_LT(agent_->requests, 500);
}

/* Few cells, but each in a row of its own. */
TEST_F(snmp_table, with_a_long_index_in_every_row_is_too_large) {
    in_place_of print(
        libpo_sprint_realloc_value, +[](u_char** buffer, size_t*, size_t*, int, const oid*, size_t,
                                        const netsnmp_variable_list*) {
            *buffer = reinterpret_cast<u_char*>(strdup("1"));
            return 1;
        });
    definition_.bulk = 60;
    oid_path path = path_of(TABLE + ".1.2");
    path.resize(128, 1);
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        for (int i = 0; i < 60; i++) {
            for (oid column = 1; column <= 4; column++) {
                path[9] = column;
                path[127]++;
                agent_->add(response, path, number(ASN_INTEGER, 1));
            }
        }
    };
    EXPECT_NE(table().find("Result is too large"), std::string::npos);
    EXPECT_LT(agent_->requests, 100);
}

/* Every value in a row of its own: a few values, but a record of many dashes. */
TEST_F(snmp_table, with_too_many_cells_is_too_large) {
    in_place_of print(
        libpo_sprint_realloc_value, +[](u_char** buffer, size_t*, size_t*, int, const oid*, size_t,
                                        const netsnmp_variable_list*) {
            *buffer = reinterpret_cast<u_char*>(strdup("1"));
            return 1;
        });
    definition_.bulk = 50;
    oid row = 0;
    bool is_endless = false;
    agent_->twist = [&](const netsnmp_pdu*, netsnmp_pdu* response) {
        agent_->clear(response);
        for (int i = 0; i < 50 && (is_endless || row < MAX_SNMP_CELLS / 4 + 1000); i++) {
            for (oid column = 1; column <= 4; column++) {
                oid_path path = path_of(TABLE + ".1");
                path.insert(path.end(), {column, ++row});
                agent_->add(response, path, number(ASN_INTEGER, 1));
            }
        }
    };
    EXPECT_NE(table().find("Result is too large"), std::string::npos);
    is_endless = true;
    agent_->requests = 0;
    EXPECT_NE(table().find("Result is too large"), std::string::npos);
    EXPECT_LT(static_cast<size_t>(agent_->requests), MAX_SNMP_CELLS / 200 + 2);
}

/* --- columns ------------------------------------------------------------------------------------
 */

TEST_F(snmp_table, has_a_column_list) {
    column columns[] = {{1, const_cast<char*>("first"), TYPE_INTEGER, 0},
                        {2, const_cast<char*>("second"), TYPE_INTEGER, ASN_IPADDRESS}};
    heap<UDC> list(get_column_list(columns, 2));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(to_text(*read_udc(list.get(), list->size)),
              "{ui32 9 16; strings \"first\" \"second\" of 2}");
    EXPECT_EQ(get_column_list(columns, 0), nullptr);
    EXPECT_EQ(get_column_list(nullptr, -1), nullptr);
}

TEST_F(snmp_table, is_found_in_the_mib_tree) {
    oid root[MAX_OID_LEN];
    oid_path path = path_of(TABLE);
    std::copy(path.begin(), path.end(), root);
    size_t length = path.size();
    char* name = nullptr;
    column* columns = nullptr;
    int fields = 0;
    get_field_names(root, &length, &name, &columns, &fields);
    EXPECT_STREQ(name, "VINDRAL-TEST-MIB::vtTable");
    EXPECT_EQ(oid_path(root, root + length), path_of(TABLE + ".1"));
    ASSERT_EQ(fields, 4);
    for (int i = 0; i < fields; i++) {
        EXPECT_EQ(columns[i].subid, static_cast<oid>(i + 1));
        EXPECT_EQ(columns[i].type_asn, 0);
    }
    EXPECT_STREQ(columns[3].label, "vtCount");
    EXPECT_EQ(columns[3].type_val, TYPE_COUNTER64);
    free_columns(&columns, fields);
    EXPECT_EQ(columns, nullptr);
    free(name);
}

/* A host without that MIB: not even the beginning is known. */
TEST_F(snmp_table, is_none_without_a_mib_tree) {
    in_place_of tree(
        libpo_get_tree, +[](const oid*, size_t, struct tree*) -> struct tree* { return nullptr; });
    EXPECT_EQ(table(), failed("VINDRAL-TEST-MIB::vtTable is not a table", false));
}

/* As deep as an OID can be: there is no room for the index of a row. */
TEST_F(snmp_table, is_none_at_the_end_of_an_oid) {
    static struct tree nodes[MAX_OID_LEN + 1];
    for (size_t i = 0; i < std::size(nodes); i++) {
        nodes[i].label = const_cast<char*>("node");
        nodes[i].subid = 1;
        nodes[i].parent = i > 0 ? &nodes[i - 1] : nullptr;
        nodes[i].child_list = i + 1 < std::size(nodes) ? &nodes[i + 1] : nullptr;
    }
    in_place_of tree(
        libpo_get_tree,
        +[](const oid*, size_t length, struct tree*) { return &nodes[length - 1]; });
    for (size_t given : {MAX_OID_LEN - 1, MAX_OID_LEN}) {
        oid root[MAX_OID_LEN];
        std::fill_n(root, MAX_OID_LEN, 1);
        size_t length = given;
        char* name = nullptr;
        column* columns = nullptr;
        int fields = 0;
        get_field_names(root, &length, &name, &columns, &fields);
        EXPECT_EQ(fields, 0) << given;
        free(name);
        free_columns(&columns, fields);
    }
}
