/* One MySQL check: parameter lists, copies, the conversation with the library, judgement. */
#include "fake_core.h"
#include "guards.h"
#include "mysqlmon_check.h"
#include "mysqlmon_lib.h"

#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

/* A text, or null where there is none. */
struct maybe {
    const char* text;
};
std::string show(const char* text) {
    return text != nullptr ? "'" + std::string(text) + "'" : "null";
}

struct test_data {
    MySQL_Data* data = static_cast<MySQL_Data*>(calloc(1, sizeof(MySQL_Data)));
    int parsed;
    explicit test_data(const char* params) {
        data->tid = 5;
        data->locid = 9;
        data->host = strdup("db.example");
        data->port = 3307;
        data->user = strdup("monitor");
        data->pass = strdup("secret");
        data->tout = 11;
        data->isFirstCheck = 1;
        parsed = parse_mysql_params(data, params);
    }
    ~test_data() { free_mysql_data(&data); }
    test_data(const test_data&) = delete;
    test_data& operator=(const test_data&) = delete;
};

std::string show_limit(const double* limit) {
    char text[40];
    snprintf(text, sizeof text, "%.17g", limit != nullptr ? *limit : 0.0);
    return limit != nullptr ? text : "-";
}

/* "name upper lower", one a line. */
std::string names_of(const MySQL_Data& p) {
    std::string text;
    for (size_t i = 0; i < p.arr_len; i++) {
        text += std::string(p.arr[i]) + " " + show_limit(p.maxValues[i]) + " " +
                show_limit(p.minValues[i]) + "\n";
    }
    return text;
}

std::string parsed(const char* params) {
    test_data test(params);
    EXPECT_EQ(test.data->arr_len > 0, test.parsed == 1) << params;
    return names_of(*test.data);
}

} // namespace

TEST(MysqlParams, names_and_limits) {
    EXPECT_EQ("Threads_connected 100 -\n", parsed("Threads_connected|100"));
    EXPECT_EQ("a 100 5\nb 2.5 0\n", parsed("a|100|5;b|2.5|0"));
    EXPECT_EQ("Uptime - -\n", parsed("Uptime"));
    EXPECT_EQ("a - -\n", parsed("a|"));
    EXPECT_EQ("a - -\n", parsed("a||"));
    EXPECT_EQ("a - 5\n", parsed("a||5"));
    EXPECT_EQ("x - 5\n", parsed("x|abc|5"));
    EXPECT_EQ("a 1 2\n", parsed("a|1|2|3"));
    EXPECT_EQ("a 1 -\n", parsed("a|1||3"));
}

TEST(MysqlParams, a_limit_begins_with_a_digit) {
    EXPECT_EQ("a - -\n", parsed("a|-1|-2"));
    EXPECT_EQ("a - -\n", parsed("a|+1| 2"));
    EXPECT_EQ("a - -\n", parsed("a|.5|inf"));
    EXPECT_EQ("a 1000 16\n", parsed("a|1e3|0x10"));
    EXPECT_EQ("a 12 0\n", parsed("a|12%|0 at least"));
    EXPECT_EQ("a inf -\n", parsed("a|1e999|nan"));
    EXPECT_EQ("a 1.2345678901234567e+19 1.8446744073709552e+19\n",
              parsed("a|12345678901234567000.9|18446744073709551615")); /* digits of a double */
}

TEST(MysqlParams, entries_of_every_shape) {
    EXPECT_EQ("", parsed(nullptr));
    EXPECT_EQ("", parsed(""));
    EXPECT_EQ("a 1 2\n", parsed("a|1|2;"));
    EXPECT_EQ("a 1 -\n - -\nb - -\n", parsed("a|1;;b"));
    EXPECT_EQ("; - -\n", parsed(";")); /* the first character is always part of an entry */
    EXPECT_EQ(" 5 6\n", parsed("|5|6"));
    EXPECT_EQ("a - -\na 1 -\n", parsed("a;a|1"));
    std::string wide(100000, '9');
    EXPECT_EQ("a inf -\n", parsed(("a|" + wide).c_str()));
    EXPECT_EQ(wide + " - -\n", parsed(wide.c_str()));
}

TEST(MysqlParams, a_list_replaces_the_one_before) {
    test_data test("a|1|2;b");
    EXPECT_EQ(1, parse_mysql_params(test.data, "c||3"));
    EXPECT_EQ("c - 3\n", names_of(*test.data));
    EXPECT_EQ(0, parse_mysql_params(test.data, ""));
    EXPECT_EQ(0u, test.data->arr_len);
    EXPECT_EQ(nullptr, test.data->arr);
    EXPECT_EQ(nullptr, test.data->maxValues);
    EXPECT_EQ(nullptr, test.data->minValues);
}

TEST(MysqlData, copies_are_deep) {
    test_data test("a|1|2;b");
    test.data->unixsock = strdup("/run/db.sock");
    MySQL_Data* copy = mysql_data_dup(test.data);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(5, copy->tid);
    EXPECT_EQ(9, copy->locid);
    EXPECT_EQ(3307, copy->port);
    EXPECT_EQ(11u, copy->tout);
    EXPECT_EQ(1, copy->isFirstCheck);
    for (auto text :
         {&MySQL_Data::host, &MySQL_Data::user, &MySQL_Data::pass, &MySQL_Data::unixsock}) {
        EXPECT_STREQ(test.data->*text, copy->*text);
        EXPECT_NE(test.data->*text, copy->*text);
    }
    EXPECT_EQ("a 1 2\nb - -\n", names_of(*copy));
    EXPECT_NE(test.data->arr[0], copy->arr[0]);
    EXPECT_NE(test.data->maxValues[0], copy->maxValues[0]);
    free_mysql_data(&copy);
    EXPECT_EQ(nullptr, copy);
    free_mysql_data(&copy);
}

TEST(MysqlData, copies_of_little) {
    EXPECT_EQ(nullptr, mysql_data_dup(nullptr));
    MySQL_Data nothing = {};
    MySQL_Data* copy = mysql_data_dup(&nothing);
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(0, memcmp(&nothing, copy, sizeof nothing));
    free_mysql_data(&copy);
}

/* --- the conversation ------------------------------------------------------------------------ */

namespace {

using row = std::vector<maybe>;
struct answer {
    unsigned fields;
    std::vector<row> rows;
};

std::string calls;
std::string failing; /* the step that fails, with the number of the query */
int query_number;
std::deque<answer> answers;
answer* current;
size_t next_row;
std::vector<char*> row_buffer;
int results_open, connections_open;

MYSQL* const CONNECTION = reinterpret_cast<MYSQL*>(&calls);
MYSQL_RES* const RESULT = reinterpret_cast<MYSQL_RES*>(&answers);

MYSQL* fake_init(MYSQL* given) {
    calls += given == nullptr ? "init\n" : "init of something\n";
    if (failing == "init") {
        return nullptr;
    }
    connections_open++;
    return CONNECTION;
}
const char* fake_error(MYSQL* c) {
    EXPECT_EQ(1, connections_open + (failing == "init")) << "asked while it is open";
    return c == nullptr ? "no memory" : failing == "null error" ? nullptr : "the reason";
}
int fake_options(MYSQL* c, enum mysql_option option, const void* value) {
    EXPECT_EQ(CONNECTION, c);
    calls += "option " + std::to_string(option) + " " +
             std::to_string(*static_cast<const unsigned*>(value)) + "\n";
    return 0;
}
MYSQL* fake_connect(MYSQL* c, const char* host, const char* user, const char* pass, const char* db,
                    unsigned port, const char* sock, unsigned long flags) {
    EXPECT_EQ(CONNECTION, c);
    calls += "connect " + show(host) + " " + show(user) + " " + show(pass) + " " + show(db) + " " +
             std::to_string(port) + " " + show(sock) + " " + std::to_string(flags) + "\n";
    return failing == "connect" || failing == "null error" ? nullptr : c;
}
int fake_query(MYSQL* c, const char* text) {
    EXPECT_EQ(CONNECTION, c);
    EXPECT_EQ(0, results_open) << "the result before was freed";
    query_number++;
    calls += std::string(text) + "\n";
    return failing == "query " + std::to_string(query_number);
}
MYSQL_RES* fake_store(MYSQL* c) {
    EXPECT_EQ(CONNECTION, c);
    if (failing == "store " + std::to_string(query_number)) {
        return nullptr;
    }
    results_open++;
    current = &answers.at(static_cast<size_t>(query_number) - 1);
    next_row = 0;
    return RESULT;
}
unsigned fake_fields(MYSQL_RES*) {
    return current->fields;
}
MYSQL_ROW fake_fetch(MYSQL_RES*) {
    row_buffer.clear(); /* of exactly as many columns */
    if (next_row == current->rows.size()) {
        return nullptr;
    }
    for (maybe column : current->rows[next_row++]) {
        row_buffer.push_back(const_cast<char*>(column.text));
    }
    return row_buffer.data();
}
void fake_free(MYSQL_RES*) {
    results_open--;
}
void fake_close(MYSQL* c) {
    EXPECT_EQ(CONNECTION, c);
    connections_open--;
    calls += "close\n";
}

class MysqlCheck : public testing::Test {
protected:
    void SetUp() override {
        lib_mysql_init = fake_init;
        lib_mysql_error = fake_error;
        lib_mysql_options = fake_options;
        lib_mysql_real_connect = fake_connect;
        lib_mysql_query = fake_query;
        lib_mysql_store_result = fake_store;
        lib_mysql_num_fields = fake_fields;
        lib_mysql_fetch_row = fake_fetch;
        lib_mysql_free_result = fake_free;
        lib_mysql_close = fake_close;
        calls.clear();
        failing.clear();
        query_number = 0;
        answers = {{2, {}}, {2, {}}};
        take_log();
    }
    void TearDown() override {
        EXPECT_EQ(0, results_open);
        EXPECT_EQ(0, connections_open);
    }

    struct outcome {
        int failed;
        std::string addinfo;
        std::vector<std::string> values;
    };
    outcome ask(MySQL_Data* test) {
        std::vector<char*> values(test->arr_len + 1);
        char* addinfo = nullptr;
        outcome o;
        o.failed = GetValuesFromDB(test, &addinfo, values.data());
        o.addinfo = show(addinfo);
        free(addinfo);
        EXPECT_EQ(nullptr, values.back());
        values.pop_back();
        for (char* value : values) {
            o.values.push_back(show(value));
            free(value);
        }
        return o;
    }
    outcome ask(const char* params) {
        test_data test(params);
        return ask(test.data);
    }
};

using texts = std::vector<std::string>;

} // namespace

TEST_F(MysqlCheck, the_conversation) {
    outcome o = ask("a");
    EXPECT_EQ(0, o.failed);
    EXPECT_EQ("null", o.addinfo);
    EXPECT_EQ("init\noption 0 11\noption 11 30\noption 12 30\n"
              "connect 'db.example' 'monitor' 'secret' null 3307 null 0\n"
              "SHOW GLOBAL STATUS\nSHOW VARIABLES\nclose\n",
              calls);
    EXPECT_EQ("", take_log_text());
}

/* The connection has the time of the test, each answer no less than half a minute, and no more than
 * the libraries can count in milliseconds. */
TEST_F(MysqlCheck, time_outs) {
    const std::pair<unsigned, const char*> cases[] = {{0, "30"},
                                                      {29, "30"},
                                                      {30, "30"},
                                                      {31, "31"},
                                                      {2147483, "2147483"},
                                                      {2147484, "2147483"},
                                                      {4294967295, "2147483"}};
    for (auto [given, answers_within] : cases) {
        test_data test("a");
        test.data->tout = given;
        calls.clear();
        query_number = 0;
        ask(test.data);
        std::string s = answers_within;
        EXPECT_EQ(5u, calls.find("option 0 " + std::to_string(given) + "\noption 11 " + s +
                                 "\noption 12 " + s + "\nconnect"))
            << calls;
    }
}

TEST_F(MysqlCheck, texts_go_to_the_library_as_they_are) {
    test_data test("a");
    free(test.data->host);
    free(test.data->user);
    free(test.data->pass);
    test.data->host = nullptr;
    test.data->user = strdup("");
    test.data->pass = nullptr;
    test.data->unixsock = strdup("/run/db.sock");
    ask(test.data);
    EXPECT_NE(std::string::npos, calls.find("connect null '' null null 3307 '/run/db.sock' 0\n"));
}

TEST_F(MysqlCheck, the_first_equal_name_gets_the_value) {
    answers = {{2, {{{"Uptime"}, {"7"}}, {{"other"}, {"1"}}, {{"Threads"}, {"3"}}}},
               {2, {{{"port"}, {"3306"}}, {{"empty"}, {""}}}}};
    EXPECT_EQ((texts{"null", "'3306'", "'7'", "null", "''", "null", "null"}),
              ask("UPTIME;port;Uptime;Uptime;empty;Upti;Uptimes").values);
}

TEST_F(MysqlCheck, the_later_row_counts) {
    answers = {{2, {{{"a"}, {"1"}}, {{"a"}, {"2"}}, {{"b"}, {"1"}}}}, {2, {{{"b"}, {"3"}}}}};
    EXPECT_EQ((texts{"'2'", "'3'"}), ask("a;b").values);
}

TEST_F(MysqlCheck, rows_with_null_and_too_few_columns) {
    answers = {{2, {{{nullptr}, {"1"}}, {{"a"}, {nullptr}}, {{"b"}, {"2"}}, {{"b"}, {nullptr}}}},
               {1, {{{"c"}, {"behind the row"}}}}};
    EXPECT_EQ((texts{"null", "'2'", "null"}), ask("a;b;c").values);
    query_number = 0;
    answers = {{0, {}}, {3, {{{"c"}, {"5"}, {"6"}}}}};
    EXPECT_EQ((texts{"'5'"}), ask("c").values);
}

TEST_F(MysqlCheck, no_init) {
    failing = "init";
    outcome o = ask("a");
    EXPECT_EQ(1, o.failed);
    EXPECT_EQ("'no memory;'", o.addinfo);
    EXPECT_EQ("init\n", calls);
    EXPECT_EQ("", take_log_text());
}

TEST_F(MysqlCheck, no_connection) {
    failing = "connect";
    outcome o = ask("a");
    EXPECT_EQ(1, o.failed);
    EXPECT_EQ("'the reason'", o.addinfo);
    EXPECT_EQ("0 ERROR: make_query: lib_mysql_real_connect failed: test_id 5, host db.example, "
              "port 3307, unixsock (null), error - the reason\n",
              take_log_text());
    EXPECT_EQ("close\n", calls.substr(calls.size() - 6));
    EXPECT_EQ(std::string::npos, calls.find("SHOW"));
    test_data test("a");
    test.data->unixsock = strdup("/s");
    ask(test.data);
    EXPECT_NE(std::string::npos, take_log_text().find(", unixsock /s, error"));
}

TEST_F(MysqlCheck, no_answers) {
    const std::pair<const char*, const char*> cases[] = {{"query 1", "lib_mysql_query"},
                                                         {"store 1", "lib_mysql_store_result"},
                                                         {"query 2", "lib_mysql_query"},
                                                         {"store 2", "lib_mysql_store_result"}};
    for (auto [step, function] : cases) {
        failing = step;
        query_number = 0;
        calls.clear();
        answers = {{2, {{{"a"}, {"1"}}}}, {2, {}}};
        outcome o = ask("a");
        EXPECT_EQ(1, o.failed) << step;
        EXPECT_EQ("'the reason'", o.addinfo) << step;
        EXPECT_EQ("0 ERROR: make_query: " + std::string(function) +
                      " failed: test_id 5, error - the reason\n",
                  take_log_text());
        EXPECT_EQ(step[6] == '2', calls.find("SHOW VARIABLES") != std::string::npos) << step;
        EXPECT_EQ("close\n", calls.substr(calls.size() - 6)) << step;
    }
}

TEST_F(MysqlCheck, a_library_without_a_reason) {
    failing = "null error";
    outcome o = ask("a");
    EXPECT_EQ(1, o.failed);
    EXPECT_EQ("''", o.addinfo);
    EXPECT_NE(std::string::npos, take_log_text().find("error - (null)\n"));
}

/* --- servers that hang, asked by the library of this machine ---------------------------------- */

namespace {

std::string packet(char number, const std::string& body) {
    return std::string({static_cast<char>(body.size()), 0, 0, number}) + body;
}

/* Serves one connection after the other, and then says nothing more until the client goes: at once,
 * after its greeting, after the login, or in the middle of the first answer. */
class hanging_server {
public:
    enum silence { from_the_start, after_the_greeting, after_the_login, within_an_answer };
    explicit hanging_server(silence when) : when_(when) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(0, bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), size));
        EXPECT_EQ(0, listen(listener_.get(), 8));
        EXPECT_EQ(0, getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size));
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~hanging_server() {
        shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
    }
    hanging_server(const hanging_server&) = delete;
    hanging_server& operator=(const hanging_server&) = delete;
    int port() const { return port_; }

private:
    void serve() {
        unique_fd client;
        while (client.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), client) {
            /* Version, thread, 8 bytes of salt, abilities (4.1 protocol, secure connection,
             * plugins), character set, state, 12 more bytes of salt. */
            using namespace std::string_literals;
            const std::string answers[] = {
                packet(0, "\x0a"
                          "8.0.0\0\1\0\0\0saltsalt\0\0\x82\x21\2\0\x08\0\x15"
                          "\0\0\0\0\0\0\0\0\0\0saltsaltsalt\0mysql_native_password\0"s),
                packet(2, "\0\0\0\2\0\0\0"s),
                packet(1, "\2"s),
            };
            for (int i = 0; i < when_; i++) {
                send(client.get(), answers[i].data(), answers[i].size(), MSG_NOSIGNAL);
                if (i < 2) {
                    char room[1000];
                    EXPECT_LT(0, recv(client.get(), room, sizeof room, 0));
                }
            }
            char rest;
            while (recv(client.get(), &rest, 1, 0) > 0) {
            }
        }
    }

    silence when_;
    int port_ = 0;
    unique_fd listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::thread thread_;
};

int descriptors() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += entry.is_symlink();
    }
    return count;
}

decltype(&mysql_options) library_options;

} // namespace

TEST(MysqlHangs, every_check_comes_to_an_end) {
    heap_text missing(init_mysql_lib());
    if (missing) {
        GTEST_SKIP() << missing.get();
    }
    library_options = lib_mysql_options;
    lib_mysql_options = [](MYSQL* c, mysql_option option, const void* value) {
        unsigned seconds = *static_cast<const unsigned*>(value);
        EXPECT_EQ(option == MYSQL_OPT_CONNECT_TIMEOUT ? 1u : 30u, seconds);
        seconds = 1; /* instead of half a minute */
        return library_options(c, option, &seconds);
    };
    take_log();
    const std::pair<hanging_server::silence, const char*> cases[] = {
        {hanging_server::from_the_start, "lib_mysql_real_connect"},
        {hanging_server::after_the_greeting, "lib_mysql_real_connect"},
        {hanging_server::after_the_login, "lib_mysql_query"},
        {hanging_server::within_an_answer, "lib_mysql_query"}};
    for (auto [when, failed] : cases) {
        hanging_server server(when);
        int before = descriptors();
        test_data test("a");
        free(test.data->host);
        test.data->host = strdup("127.0.0.1");
        test.data->port = server.port();
        test.data->tout = 1;
        char *addinfo = nullptr, *value = nullptr;
        EXPECT_EQ(1, GetValuesFromDB(test.data, &addinfo, &value));
        EXPECT_TRUE(addinfo != nullptr && addinfo[0] != '\0');
        EXPECT_EQ(nullptr, value);
        std::string log = take_log_text();
        EXPECT_TRUE(log.starts_with("0 ERROR: make_query: " + std::string(failed) + " failed"))
            << log;
        free(addinfo);
        EXPECT_LE(descriptors(), before + 1) << "the server may not have closed its end yet";
    }
    end_mysql_thread();
}

/* --- judgement ------------------------------------------------------------------------------- */

namespace {

struct judged {
    int status;
    std::string result, addinfo;
    bool operator==(const judged&) const = default;
};
void PrintTo(const judged& j, std::ostream* out) {
    *out << j.status << " " << j.result << " " << j.addinfo;
}

judged judge(const char* params, std::vector<maybe> values) {
    test_data test(params);
    std::vector<char*> slots;
    for (maybe value : values) {
        slots.push_back(const_cast<char*>(value.text));
    }
    EXPECT_EQ(slots.size(), test.data->arr_len);
    char *addinfo = nullptr, *result = nullptr;
    int status = CheckValues(test.data, slots.data(), &addinfo, &result);
    judged j = {status, result != nullptr ? result : "-", addinfo != nullptr ? addinfo : "-"};
    free(addinfo);
    free(result);
    return j;
}

} // namespace

TEST(MysqlValues, limits) {
    EXPECT_EQ((judged{2, "Threads_connected|150|2;", "Threads_connected - 150: NOK;"}),
              judge("Threads_connected|100", {{"150"}}));
    EXPECT_EQ((judged{0, "a|100|0;", "-"}), judge("a|100", {{"100"}}));
    EXPECT_EQ((judged{2, "a|100.01|2;", "a - 100.01: NOK;"}), judge("a|100", {{"100.01"}}));
    EXPECT_EQ((judged{0, "a|5|0;", "-"}), judge("a||5", {{"5"}}));
    EXPECT_EQ((judged{2, "a|4.9|2;", "a - 4.9: NOK;"}), judge("a||5", {{"4.9"}}));
    EXPECT_EQ((judged{0, "a|7|0;", "-"}), judge("a|10|5", {{"7"}}));
    EXPECT_EQ((judged{2, "a|7|2;", "a - 7: NOK;"}), judge("a|5|10", {{"7"}})); /* both */
    EXPECT_EQ((judged{0, "Uptime|123456|0;", "-"}), judge("Uptime", {{"123456"}}));
    EXPECT_EQ((judged{0, "x|9|0;", "-"}), judge("x|abc|5", {{"9"}}));
    EXPECT_EQ((judged{2, "x|4|2;", "x - 4: NOK;"}), judge("x|abc|5", {{"4"}}));
}

TEST(MysqlValues, what_is_no_number_is_not_ok) {
    EXPECT_EQ((judged{2, "name| |2;", "name -  : NOK;"}), judge("name", {{nullptr}}));
    EXPECT_EQ((judged{2, "log_bin|ON|2;", "log_bin - ON: NOK;"}), judge("log_bin", {{"ON"}}));
    EXPECT_EQ((judged{2, "a||2;", "a - : NOK;"}), judge("a", {{""}}));
    EXPECT_EQ((judged{2, "a|-5|2;", "a - -5: NOK;"}), judge("a|10", {{"-5"}}));
    EXPECT_EQ((judged{2, "a|.5|2;", "a - .5: NOK;"}), judge("a", {{".5"}}));
    EXPECT_EQ((judged{0, "version|10.11.2-MariaDB|0;", "-"}),
              judge("version|11|10", {{"10.11.2-MariaDB"}})); /* as far as it is one */
    EXPECT_EQ((judged{2, "a|0x20|2;", "a - 0x20: NOK;"}), judge("a|31", {{"0x20"}}));
    EXPECT_EQ((judged{2, "a|1e999|2;", "a - 1e999: NOK;"}), judge("a|1e308", {{"1e999"}}));
}

TEST(MysqlValues, one_after_the_other) {
    EXPECT_EQ((judged{2, "a|1|0;b|ON|2;c| |2;a|5|0;", "b - ON: NOK;c -  : NOK;"}),
              judge("a;b;c;a", {{"1"}, {"ON"}, {nullptr}, {"5"}}));
    EXPECT_EQ((judged{2, "a|2|2;b|1|0;", "a - 2: NOK;"}), judge("a|1;b", {{"2"}, {"1"}}));
    EXPECT_EQ((judged{2, "| |2;", " -  : NOK;"}), judge("|5|6", {{nullptr}}));
}

/* Separators in a value are not escaped. */
TEST(MysqlValues, add_result_takes_texts_as_they_are) {
    char *addinfo = nullptr, *result = nullptr;
    char name[] = "n%s|";
    AddResult(name, "v;%d", 1, &addinfo, &result);
    EXPECT_STREQ("n%s||v;%d|0;", result);
    EXPECT_EQ(nullptr, addinfo);
    AddResult(name, "v;%d", 0, &addinfo, &result);
    EXPECT_STREQ("n%s||v;%d|0;n%s||v;%d|2;", result);
    EXPECT_STREQ("n%s| - v;%d: NOK;", addinfo);
    free(addinfo);
    free(result);
}

TEST(MysqlValues, many_names) {
    std::string params;
    for (int i = 0; i < 5000; i++) {
        params += "name" + std::to_string(i) + "|1;";
    }
    judged j = judge(params.c_str(), std::vector<maybe>(5000, maybe{"2"}));
    EXPECT_EQ(2, j.status);
    EXPECT_EQ(5000, std::count(j.result.begin(), j.result.end(), ';'));
    EXPECT_EQ(5000, std::count(j.addinfo.begin(), j.addinfo.end(), ';'));
}
