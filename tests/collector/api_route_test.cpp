#include "api/encoding.h"
#include "api/json.h"
#include "api/secrets.h"
#include "api_place.h"

#include <limits>
#include <set>

namespace json = boost::json;

/* ---- texts, times, numbers ---- */

TEST(encoding, percents) {
    EXPECT_EQ(percent_decoded("a%40b.c%2Fweb-1", false), "a@b.c/web-1");
    EXPECT_EQ(percent_decoded("a+b%20c", false), "a+b c");
    EXPECT_EQ(percent_decoded("a+b%2bc", true), "a b+c");
    EXPECT_EQ(percent_decoded("%00%fF", false), std::string("\0\xff", 2));
    for (const char* wrong : {"%", "%4", "%4g", "%g4", "a%", "%%41", "% 41"}) {
        EXPECT_EQ(percent_decoded(wrong, false), std::nullopt) << wrong;
    }
}

TEST(encoding, base64) {
    std::string bytes;
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(from_base64url(base64url(bytes)), bytes);
        bytes += static_cast<char>(i * 7);
    }
    EXPECT_EQ(base64url("\xfb\xff\xfe"), "-__-");
    for (const char* wrong : {"a", "ab=", "a+b/", "ab ", "abcde", "//", "AB"}) {
        EXPECT_EQ(from_base64url(wrong), std::nullopt) << wrong;
    }
}

TEST(encoding, times) {
    EXPECT_EQ(read_time("2026-05-01T12:00:00Z"), api_noon);
    EXPECT_EQ(read_time("2026-05-01t12:00:00.999z"), api_noon);
    EXPECT_EQ(read_time("2026-05-01 14:00:00+02:00"), api_noon);
    EXPECT_EQ(read_time("2026-05-01T14:00:00 02:00"), api_noon);
    EXPECT_EQ(read_time("2026-05-01T06:30:00-05:30"), api_noon);
    EXPECT_EQ(read_time("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(read_time("1969-12-31T23:59:59Z"), -1);
    EXPECT_EQ(read_time("2024-02-29T00:00:00Z"), 1709164800);
    EXPECT_EQ(read_time("2016-12-31T23:59:60Z"), 1483228800);
    EXPECT_EQ(read_time("9999-12-31T23:59:59Z"), 253402300799);
    for (const char* text :
         {"0001-01-01T00:00:00Z", "1900-02-28T23:00:01Z", "1969-12-31T23:59:59Z",
          "1970-01-01T00:00:00Z", "2026-05-01T12:00:00Z", "9999-12-31T23:59:59Z"}) {
        EXPECT_EQ(time_text(read_time(text).value_or(0)), text);
    }
    EXPECT_EQ(time_text(INT64_MIN), "0001-01-01T00:00:00Z");
    EXPECT_EQ(time_text(INT64_MAX), "9999-12-31T23:59:59Z");
    for (const char* wrong :
         {"", "now", "2026-05-01", "2026-05-01T12:00:00", "2026-05-01T12:00Z",
          "2026-5-01T12:00:00Z", "2026-02-29T12:00:00Z", "2026-13-01T12:00:00Z",
          "2026-00-01T12:00:00Z", "2026-05-01T24:00:00Z", "2026-05-01T12:60:00Z",
          "2026-05-01T12:00:61Z", "2026-05-01T12:00:00.Z", "2026-05-01T12:00:00+2:00",
          "2026-05-01T12:00:00+24:00", "2026-05-01T12:00:00Zx", "0000-01-01T00:00:00Z",
          "-026-05-01T12:00:00Z", "1777636800"}) {
        EXPECT_EQ(read_time(wrong), std::nullopt) << wrong;
    }
}

TEST(encoding, plain_texts) {
    EXPECT_TRUE(is_plain_text("na\xc3\xafve \xe2\x82\xac"));
    for (const char* wrong : {"a\nb", "\x1b", "\x7f", "\xff", "\xc2\x9b", "\xed\xa0\x80"}) {
        EXPECT_FALSE(is_plain_text(wrong));
    }
    EXPECT_TRUE(has_text("Web-1", "wEB"));
    EXPECT_TRUE(has_text("", ""));
    EXPECT_FALSE(has_text("web", "web-1"));
}

TEST(json_text, numbers_and_texts) {
    EXPECT_EQ(
        json_text(json::array{0.5, 1.0, 1e22, -0.1, 3, int64_t{-9}, UINT64_MAX, true, nullptr}),
        "[0.5,1,1e+22,-0.1,3,-9,18446744073709551615,true,null]");
    EXPECT_EQ(json_text(json::array{std::numeric_limits<double>::quiet_NaN(),
                                    std::numeric_limits<double>::infinity()}),
              "[null,null]");
    EXPECT_EQ(json_text(json::object{{"a\"\n", json::object()}, {"b", json::array()}}),
              "{\"a\\\"\\n\":{},\"b\":[]}");
    EXPECT_EQ(json_text(json::value("\x01\x7f\xc2\x85\xc3\xa9\xff\xe2\x82")),
              "\"\\u0001\\u007f\\u0085\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\"");
    std::string every;
    for (int i = 0; i < 256; i++) {
        every += static_cast<char>(i);
    }
    json::error_code error;
    json::parse(json_text(json::value(every)), error);
    EXPECT_FALSE(error);
}

TEST(secrets, are_random_and_known_by_their_hash) {
    std::set<std::string> all;
    for (token_kind kind : {token_kind::token, token_kind::session, token_kind::link}) {
        for (int i = 0; i < 100; i++) {
            token_hash hash{};
            std::string secret = make_secret(kind, hash);
            EXPECT_EQ(secret.size(), 46u);
            EXPECT_EQ(secret.substr(0, 3), kind == token_kind::token     ? "vt_"
                                           : kind == token_kind::session ? "vs_"
                                                                         : "vl_");
            EXPECT_EQ(hash, hash_of(secret));
            EXPECT_TRUE(all.insert(secret.substr(3)).second);
        }
    }
    settings_in_memory kept;
    std::string error;
    std::string link = add_secret(kept, token_kind::link, role::admin, "link", 100, 0, error);
    std::string session = add_secret(kept, token_kind::session, role::viewer, "s", 100, 7, error);
    std::string token = add_secret(kept, token_kind::token, role::viewer, "t", 100, 0, error);
    ASSERT_EQ(kept.tokens.size(), 3u) << error;
    EXPECT_EQ(kept.tokens[1].ends, 100 + 15 * 60);
    EXPECT_EQ(kept.tokens[2].ends, 100 + 30 * 86400);
    EXPECT_EQ(kept.tokens[2].parent, 7);
    EXPECT_EQ(kept.tokens[3].ends, 0);
    EXPECT_EQ(kept.tokens[3].hash, hash_of(token));
    EXPECT_EQ(add_secret(kept, token_kind::token, role::viewer, "t", 100, 0, error), "");
    EXPECT_EQ(error, "there is a token of the name t already");
    EXPECT_EQ(add_secret(kept, token_kind::token, role::viewer, "a\tb", 100, 0, error), "");
    EXPECT_NE(error, "");
    kept.failure = "disk full";
    EXPECT_EQ(add_secret(kept, token_kind::token, role::viewer, "u", 100, 0, error), "");
    EXPECT_EQ(error, "disk full");
}

TEST(roles, words) {
    EXPECT_EQ(role_of("operator"), role::operates);
    EXPECT_EQ(role_word(role::admin), "admin");
    EXPECT_EQ(role_of(""), std::nullopt);
    EXPECT_EQ(role_of("none"), std::nullopt);
}

TEST(problems, in_words) {
    api_answer answer = answer_of({409, "", "Why.", {{2, 3, "here"}}});
    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.type, "application/problem+json");
    EXPECT_EQ(answer.body, "{\"type\":\"about:blank\",\"title\":\"Conflict\",\"status\":409,"
                           "\"detail\":\"Why.\",\"errors\":[{\"line\":2,\"column\":3,\"text\":"
                           "\"here\"}]}");
    EXPECT_EQ(answer_of({404, "", "No.", {}}).body,
              "{\"type\":\"about:blank\",\"title\":\"Not found\",\"status\":404,"
              "\"detail\":\"No.\",\"errors\":[]}");
}

/* ---- finding rows ---- */

class api_route_test : public api_place {};

TEST_F(api_route_test, rows_by_path) {
    std::vector<std::string> in_path;
    std::string allowed;
    const route* row = find_route("GET", "/api/v1/agents/a%40b%2Fc", in_path, allowed);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->pattern, "/api/v1/agents/{agent}");
    EXPECT_EQ(in_path, std::vector<std::string>{"a@b/c"});
    EXPECT_EQ(find_route("HEAD", "/api/v1/agents/x", in_path, allowed), row);
    EXPECT_EQ(find_route("PUT", "/api/v1/agents/x", in_path, allowed), nullptr);
    EXPECT_EQ(allowed, "DELETE, GET, HEAD");
    EXPECT_EQ(find_route("HEAD", "/api/v1/stream", in_path, allowed), nullptr);
    EXPECT_EQ(allowed, "GET") << "a stream has no end to leave out";
    for (const char* path :
         {"", "//", "api/v1/agents", "/api/v1/agents/", "/api/v1//agents", "/api/v1/agents/x/y",
          "/api/v1/tests/1/results/", "/api/v1/agents/%", "/API/v1/agents", "/healthz/", "*"}) {
        EXPECT_EQ(find_route("GET", path, in_path, allowed), nullptr) << path;
        EXPECT_EQ(allowed, "") << path;
        EXPECT_TRUE(in_path.empty());
    }
}

TEST_F(api_route_test, refusals) {
    EXPECT_EQ(refused("/api/v1/agent", 404),
              "There is nothing at \"/api/v1/agent\"; /openapi.json says what there is.");
    EXPECT_EQ(
        refused("/api/v1/agents/a@b/web-1", 404),
        "There is nothing at \"/api/v1/agents/a@b/web-1\"; the slash between account and name "
        "is %2F in a path.");
    EXPECT_EQ(refused("/api/v1/agents", 405, "DELETE"),
              "\"/api/v1/agents\" does not take \"DELETE\", but GET, HEAD.");
    api_answer answer = ask("/api/v1/tokens", "PATCH");
    EXPECT_EQ(answer.headers.at(0),
              std::pair(std::string("Allow"), std::string("GET, HEAD, POST")));
    answer = ask("/api/v1/agents", "GET", "", role::none);
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(answer.headers.at(0).first, "WWW-Authenticate");
    EXPECT_EQ(refused("/api/v1/tokens", 403, "GET", "", role::operates),
              "This needs the role admin, and \"ann\" is operator.");
    EXPECT_EQ(refused("/api/v1/agents?limt=3", 400), "There is no parameter \"limt\" here; limit?");
    EXPECT_EQ(refused("/api/v1/agents?page=3", 400),
              "There is no parameter \"page\" here. There are: state, q, group, limit, next.");
    EXPECT_EQ(refused("/api/v1/agents/1?x", 400),
              "There is no parameter \"x\" here: there are none.");
    EXPECT_EQ(refused("/api/v1/agents?limit=2&limit=3", 400),
              "The parameter limit is there twice.");
    EXPECT_EQ(refused("/api/v1/agents?state=ok&state=problem", 400),
              "The parameter state is there twice: put commas between its values.");
    EXPECT_EQ(refused("/api/v1/agents?q=%4", 400),
              "In \"q=%4\" a % has no two hexadecimal digits behind it; % itself is %25.");
    EXPECT_EQ(refused("/api/v1/agents?limit=0", 400),
              "The parameter limit is \"0\"; expected a whole number from 1 to 1000.");
    EXPECT_EQ(refused("/api/v1/agents?state=bad", 400),
              "The parameter state is \"bad\"; expected one or more, with commas between, of ok, "
              "problem, unknown, stale, silent.");
    EXPECT_EQ(refused("/api/v1/agents", 400, "GET", "x"),
              "There is a body, and GET /api/v1/agents takes none.");
    for (const char* path : {"/sign%2Din", "/sign%2dout"}) {
        EXPECT_EQ(ask(path, "POST").status, 404) << path;
    }
    EXPECT_EQ(ask("/api/v1/%73tream").status, 404);
    EXPECT_EQ(refused("/api/v1/tokens", 400, "POST",
                      R"({"name":"a","role":"viewer","role":"admin"})", role::admin),
              "The body is no JSON object: a member is there twice.");
    for (const char* body : {R"({"name":"a","nam\u0065":"b","role":"viewer"})",
                             R"({"name":"a","x":[{"y":1,"y":2}]})"}) {
        EXPECT_EQ(refused("/api/v1/tokens", 400, "POST", body, role::admin),
                  "The body is no JSON object: a member is there twice.");
    }
    EXPECT_EQ(
        ask("/api/v1/tokens", "POST", R"({"name":"a:\"b\\","role":"viewer"})", role::admin).status,
        201);
    EXPECT_EQ(ask("/api/v1/agents?&&limit=2&").status, 200);
    EXPECT_EQ(ask("/api/v1/agents?state=ok%2Cproblem").status, 200);
    EXPECT_EQ(ask("/api/v1/agents", "HEAD").status, 200);
}

TEST_F(api_route_test, a_next_that_no_answer_said) {
    std::vector<std::string> wrong = {"x",
                                      "====",
                                      "AAAA",
                                      base64url("1"),
                                      base64url("1a\n"),
                                      base64url("2a\nb\n"),
                                      base64url("1a\nb\nc\nd\ne\n"),
                                      base64url("1a\nb\nx\ny\n")};
    for (const char* path : {"/api/v1/tests", "/api/v1/events", "/api/v1/ledger", "/api/v1/agents",
                             "/api/v1/tokens", "/api/v1/enrolments"}) {
        for (const std::string& next : wrong) {
            if (std::string_view(path) != "/api/v1/agents" || next.size() != 7) {
                EXPECT_EQ(ask(std::string(path) + "?next=" + next).status, 400) << path << next;
            }
        }
    }
}

/* How one signs in, as the web server does it. */
TEST_F(api_route_test, sessions_are_described) {
    api_request asked;
    asked.who.may = role::viewer;
    asked.session_cookie = "__Host-vindral-8443";
    const json::value description =
        json::parse(answer_request("GET", "/openapi.json", asked, *with).body);
    EXPECT_EQ(json_text(description.at("security")), "[{\"token\":[]},{\"cookie\":[]}]");
    const json::value& cookie = description.at("components").at("securitySchemes").at("cookie");
    EXPECT_EQ(cookie.at("type"), "apiKey");
    EXPECT_EQ(cookie.at("in"), "cookie");
    EXPECT_EQ(cookie.at("name"), "__Host-vindral-8443");
    const json::value& paths = description.at("paths");
    for (auto [path, security] :
         {std::pair("/sign-in", "[]"), {"/sign-out", "[{\"cookie\":[]},{}]"}}) {
        const json::value& post = paths.at(path).at("post");
        EXPECT_EQ(json_text(post.at("security")), security);
        EXPECT_TRUE(
            post.at("responses").at("204").at("headers").as_object().contains("Set-Cookie"));
    }
    EXPECT_EQ(json_text(paths.at("/").at("get").at("security")), "[]");
    EXPECT_TRUE(paths.at("/")
                    .at("get")
                    .at("responses")
                    .at("200")
                    .at("content")
                    .as_object()
                    .contains("text/html"));
}

/* Every row of the table: a value that does not fit for each of its parameters, and one that does.
 */
TEST_F(api_route_test, every_parameter_wrong_once) {
    submit(load_record(5, api_noon));
    fleet.now.revision = 1;
    size_t count = 0;
    for (const route& row : all_routes()) {
        std::string path(row.pattern);
        for (size_t at; (at = path.find('{')) != std::string::npos;) {
            path.replace(at, path.find('}') - at + 1, "1");
        }
        for (const parameter_def& each : row.parameters) {
            std::vector<std::string> wrong = {"%ff", "%0a", "%"};
            std::string right = "1";
            switch (each.kind) {
            case parameter_kind::text:
                wrong.insert(wrong.end(), {"", "a%1b", std::string(1001, 'x'), "%c2%9b"});
                break;
            case parameter_kind::number:
                wrong.insert(wrong.end(),
                             {"", "x", "1x", "%2b1", "0x1", "1.5", " 1", "99999999999999999999",
                              std::to_string(each.least - 1), std::to_string(each.most + 1)});
                break;
            case parameter_kind::id:
                wrong.insert(wrong.end(), {"", "0", "-1", "x", "9223372036854775808"});
                break;
            case parameter_kind::time:
                wrong.insert(wrong.end(), {"", "now", "0", "2026-05-01", "2026-05-01T12:00:00"});
                right = each.name == std::string_view("to") ? "2027-01-01T00:00:00Z"
                                                            : "2026-01-01T00:00:00Z";
                break;
            case parameter_kind::choice:
                wrong.insert(wrong.end(), {"", ",", "x", "|"});
                right = std::string(each.choices).substr(0, std::string(each.choices).find('|'));
                wrong.push_back(right + ",");
                wrong.push_back(right + ",x");
                break;
            case parameter_kind::flag:
                wrong.insert(wrong.end(), {"", "yes", "2", "TRUE"});
                break;
            case parameter_kind::next:
                wrong.insert(wrong.end(), {"", "%20", "a=b"});
                right = "";
                break;
            }
            for (const std::string& value : wrong) {
                std::string detail =
                    refused(path + "?" + each.name + "=" + value, 400, std::string(row.method));
                EXPECT_NE(detail.find(each.name), std::string::npos) << detail;
                EXPECT_TRUE(detail.ends_with('.')) << detail;
                count++;
            }
            if (!right.empty() && row.handler != nullptr) {
                std::string target = path + "?" + each.name + "=" + right;
                std::replace(target.begin(), target.end(), ' ', '+');
                const std::string body = *row.takes != '\0' ? "{}" : "";
                EXPECT_EQ(ask(target, std::string(row.method), body).status, row.status) << target;
            }
        }
    }
    EXPECT_GT(count, 100u);
}

/* ---- the description ---- */

TEST_F(api_route_test, every_row_is_described_and_answers_as_it_says) {
    submit(load_record(5, api_noon) + load_record(6, api_noon, 2, "bad\n"));
    submit(load_record(5, api_noon), "to be retired");
    const json::value description = json::parse(ask("/openapi.json").body);
    const json::object& paths = description.at("paths").as_object();
    const json::object& schemas = description.at("components").at("schemas").as_object();
    size_t operations = 0;
    for (const auto& path : paths) {
        operations += path.value().as_object().size();
    }
    EXPECT_EQ(operations, all_routes().size()) << "no more and no less";
    std::set<std::string> ids;
    for (const route& row : all_routes()) {
        SCOPED_TRACE(std::string(row.method) + " " + std::string(row.pattern));
        std::string method(row.method);
        std::transform(method.begin(), method.end(), method.begin(), tolower);
        const json::object& operation = paths.at(row.pattern).at(method).as_object();
        EXPECT_TRUE(ids.insert(std::string(operation.at("operationId").as_string())).second);
        std::string_view summary = row.summary;
        EXPECT_TRUE(!summary.empty() && summary.ends_with('.'));
        const json::object& answer =
            operation.at("responses").at(std::to_string(row.status)).as_object();
        if (*row.answers != '\0') {
            EXPECT_EQ(
                std::string(answer.at("content").at(row.type).at("schema").at("$ref").as_string()),
                std::string("#/components/schemas/") + row.answers);
            EXPECT_TRUE(schemas.contains(row.answers));
        } else {
            EXPECT_EQ(row.status, 204);
        }
        size_t described = 0;
        if (const json::value* all = operation.if_contains("parameters")) {
            for (const json::value& each : all->as_array()) {
                described += each.at("in") == "query" ? 1 : 0;
                EXPECT_FALSE(each.at("description").as_string().empty());
            }
        }
        EXPECT_EQ(described, row.parameters.size());
        EXPECT_EQ(operation.contains("requestBody"), *row.takes != '\0');
        if (row.handler == nullptr) {
            continue;
        }
        std::string target(row.pattern);
        for (size_t at; (at = target.find('{')) != std::string::npos;) {
            target.replace(at, target.find('}') - at + 1, "1");
        }
        if (row.method == "DELETE" && row.pattern.find("tokens") != std::string_view::npos) {
            stored_token token;
            token.name = "to be removed";
            std::string error;
            kept.add_token(token, token.id, error);
            target = "/api/v1/tokens/" + std::to_string(token.id);
        }
        if (row.method == "DELETE" && row.pattern == "/api/v1/agents/{agent}") {
            target = "/api/v1/agents/2";
        }
        bool promoted = false;
        if (row.pattern.ends_with("/refuse")) {
            agents.may_go_by("x", "waits", nullptr, "192.0.2.1", promoted);
            target = "/api/v1/agents/x%2Fwaits/refuse";
        }
        if (row.method == "DELETE" && row.pattern.ends_with("/enrolment")) {
            std::string error;
            agents.admit("x", "known", std::nullopt, true, "ann", error);
            target = "/api/v1/agents/x%2Fknown/enrolment";
        }
        if (row.pattern == "/api/v1/secrets/{name}") {
            std::string error;
            EXPECT_TRUE(secrets.set("1", "x", "ann", now, error)) << error;
        }
        const std::string takes = row.takes;
        std::string body = takes == "new_token"      ? "{\"name\":\"x\",\"role\":\"viewer\"}"
                           : takes == "admission"    ? "{\"key\":null}"
                           : takes == "secret_value" ? "{\"value\":\"x\"}"
                           : takes == "fleet_file"   ? "{\"version\":1}"
                                                     : "";
        EXPECT_EQ(body.empty(), takes.empty()) << "say what " << takes << " is like";
        if (!body.empty()) {
            EXPECT_EQ(misfit(json::parse(body), takes), "");
            EXPECT_EQ(operation.at("requestBody").at("required"), !row.may_lack_body);
        }
        if (std::string_view(row.type) == "application/json") {
            get(target, row.status, std::string(row.method), body); /* which checks the schema */
        } else {
            api_answer other = ask(target, std::string(row.method), body);
            EXPECT_EQ(other.status, row.status);
            EXPECT_EQ(other.type, row.type);
        }
        if (*row.other_type != '\0') {
            EXPECT_TRUE(answer.at("content").as_object().contains(row.other_type));
        }
        if (row.least != role::none) {
            role less = static_cast<role>(static_cast<uint8_t>(row.least) - 1);
            EXPECT_EQ(ask(target, std::string(row.method), body, less).status,
                      less == role::none ? 401 : 403);
        }
    }
    std::set<std::string> used; /* every schema is of some use */
    std::string text = ask("/openapi.json").body;
    for (const auto& schema : schemas) {
        std::string name(schema.key());
        bool is_of_stream = name == "live_result" || name == "live_agent";
        EXPECT_TRUE(is_of_stream ||
                    text.find("\"#/components/schemas/" + name + "\"") != std::string::npos)
            << name;
    }
}
