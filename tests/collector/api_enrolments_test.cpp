#include "api/encoding.h"
#include "api/standings.h"
#include "api_place.h"
#include "protocol/enrolment.h"

#include <algorithm>
#include <openssl/sha.h>

namespace json = boost::json;

static constexpr char enrolments[] = "/api/v1/enrolments";

/* Of an account and a name, as one segment of a path. */
static std::string path_of(const std::string& called, const std::string& what = "enrolment") {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string path = "/api/v1/agents/";
    for (char c : called) {
        auto byte = static_cast<unsigned char>(c);
        path += {'%', digits[byte >> 4], digits[byte & 15]};
    }
    return path + "/" + what;
}

class api_enrolments_test : public api_place {
protected:
    /* It polls, without a certificate. */
    standing poll(const std::string& name, const std::string& account = "a@b.c",
                  const std::string& address = "192.0.2.7") {
        bool promoted = false;
        return agents.may_go_by(account, name, nullptr, address, promoted);
    }
    /* Its host asks for a certificate for that key. */
    known_agents::answer request(const std::string& name, const protocol::sha256& key,
                                 uint32_t* generation = nullptr,
                                 const std::string& address = "192.0.2.7") {
        protocol::agent_identity who;
        uint32_t of = 0;
        std::string why;
        known_agents::answer what = agents.enrol_by_name("a@b.c", name, key, address, who, of, why);
        if (generation != nullptr) {
            *generation = of;
        }
        return what;
    }
    void keep(const stored_identity& what) {
        std::string error;
        ASSERT_TRUE(kept.put_identity(what, error) && agents.refresh(error)) << error;
    }
    std::string state_of_name(const std::string& called) {
        return std::string(get(path_of(called)).at("state").as_string());
    }
    std::string names(const std::string& query = "") {
        return column(get(enrolments + query), "name");
    }
    /* The audit line of what has to go well. */
    std::string done(const std::string& method, const std::string& target, int status,
                     const std::string& body = "") {
        api_answer answer = ask(target, method, body);
        EXPECT_EQ(answer.status, status) << target << "\n" << answer.body;
        return answer.audit;
    }
};

static const protocol::sha256 key_a{0xaa}, key_b{0xbb, 0xfb, 0xff};

/* ---- how a name stands ---- */

TEST_F(api_enrolments_test, nobody_has_been_heard_of) {
    EXPECT_EQ(ask(enrolments).body, "{\"items\":[],\"next\":null}");
    EXPECT_EQ(refused(path_of("a@b.c/web-1"), 404),
              "Nothing is known of an agent \"a@b.c/web-1\": give its id, its name, or its account "
              "and name with a slash between.");
    refused(path_of("web-1"), 404);
    refused("/api/v1/agents/1/enrolment", 404);
    refused(std::string(enrolments) + "?agent=web-1", 404);
    for (const char* what : {"admit", "refuse"}) {
        refused(path_of("a@b.c/web-1", what), 404, "POST");
    }
    refused(path_of("a@b.c/web-1"), 404, "DELETE");
    EXPECT_TRUE(kept.identities.empty() && kept.enrolments.empty());
}

TEST_F(api_enrolments_test, an_agent_of_which_nothing_is_decided) {
    submit(load_record(5, now));
    EXPECT_EQ(json_text(get("/api/v1/agents/1/enrolment")),
              "{\"account\":\"a@b.c\",\"name\":\"web-1\",\"agent\":1,\"state\":\"unknown\","
              "\"admitted\":null,\"by\":null,\"revoked\":null,\"certificate\":null,"
              "\"waiting\":null,\"invited\":false}");
    for (const char* called : {"web-1", "a@b.c/web-1"}) {
        EXPECT_EQ(get(path_of(called)).at("agent"), 1);
    }
    EXPECT_EQ(get("/api/v1/agents").at("items").at(0).at("identity"), "unknown");
    EXPECT_EQ(names(), "") << "only what is decided, or has to be";
    EXPECT_EQ(refused(path_of("web-1", "refuse"), 409, "POST"),
              "Nothing waits under the name a@b.c/web-1: it may have stopped to ask. Make a token "
              "for it: vindralctl enrol.");
}

TEST_F(api_enrolments_test, a_certificate_is_shown_with_its_end) {
    stored_identity proven{.account = "a@b.c", .agent = "web-1"};
    proven.admitted = now - 100;
    proven.by = "ann";
    proven.highest = proven.good_from = 1;
    proven.key = key_a;
    proven.authority = key_b;
    proven.issued = now - 50;
    proven.ends = now + ends_soon_s + 1;
    keep(proven);
    submit(load_record(5, now));
    json::value shown = get(path_of("web-1"));
    EXPECT_EQ(shown.at("state"), "proven");
    EXPECT_EQ(shown.at("admitted"), "2026-05-01T11:58:20Z");
    EXPECT_EQ(shown.at("by"), "ann");
    const json::value& certificate = shown.at("certificate");
    EXPECT_EQ(certificate.at("issued"), "2026-05-01T11:59:10Z");
    EXPECT_EQ(certificate.at("ends"), "2026-05-31T12:00:01Z");
    EXPECT_EQ(certificate.at("key"), json::value(fingerprint(key_a)));
    EXPECT_EQ(certificate.at("authority"), json::value(fingerprint(key_b)));
    EXPECT_EQ(certificate.at("ends_soon"), false);
    EXPECT_EQ(get("/api/v1/agents/1").at("identity"), "proven");

    auto ending = [&] {
        std::string text = ask("/metrics").body;
        size_t at = text.find("\nvindral_certificates_ending ");
        return at != std::string::npos ? text.substr(at + 29, 1) : "none";
    };
    EXPECT_EQ(ending(), "0");
    now += 1;
    EXPECT_EQ(get(path_of("web-1")).at("certificate").at("ends_soon"), true);
    EXPECT_EQ(ending(), "1");
    now = proven.ends;
    EXPECT_EQ(get(path_of("web-1")).at("certificate").at("ends_soon"), true);
    EXPECT_EQ(ending(), "0") << "it has ended";
    proven.ends += 100;
    proven.revoked = now;
    proven.admitted = 0;
    keep(proven);
    EXPECT_EQ(ending(), "0");
}

TEST_F(api_enrolments_test, every_state_is_listed_counted_and_asked_for) {
    for (const char* name : {"known", "proven", "revoked", "revoked and invited", "forgotten"}) {
        stored_identity what{.account = "a@b.c", .agent = name};
        what.by = "ann";
        if (name[0] == 'r') {
            what.revoked = now;
        } else if (name[0] != 'f') {
            what.admitted = now;
        }
        what.highest = 1;
        what.good_from = name[0] == 'p' ? 1 : 0;
        keep(what);
    }
    std::string error;
    for (const char* name : {"invited", "revoked and invited", "proven"}) {
        ASSERT_TRUE(agents.invite("a@b.c", name, 3600, "ann", error)) << error;
    }
    EXPECT_EQ(poll("waiting"), standing::waits);
    EXPECT_EQ(column(get(enrolments), "state"),
              "unknown invited known proven revoked invited waiting");
    EXPECT_EQ(column(get(enrolments), "invited"), "false true false true false true false");
    for (const char* state : {"known", "proven", "revoked", "waiting"}) {
        EXPECT_EQ(names("?state=" + std::string(state)), state);
        EXPECT_EQ(get(path_of(state)).at("state"), json::value(state));
    }
    EXPECT_EQ(names("?state=invited,known"), "invited known revoked and invited");
    EXPECT_EQ(names("?state=unknown"), "forgotten");
    const std::string metrics = ask("/metrics").body;
    for (const char* line :
         {"{state=\"waiting\"} 1", "{state=\"invited\"} 2", "{state=\"known\"} 1",
          "{state=\"proven\"} 1", "{state=\"revoked\"} 1"}) {
        EXPECT_NE(metrics.find("\nvindral_identities" + std::string(line) + "\n"),
                  std::string::npos)
            << line << "\n"
            << metrics;
    }
    EXPECT_EQ(metrics.find("identities{state=\"unknown\"}"), std::string::npos);
}

TEST_F(api_enrolments_test, by_name_text_and_page) {
    std::string all;
    for (int i = 10; i < 35; i++) {
        const std::string name = "web-" + std::to_string(i);
        EXPECT_EQ(poll(name, i < 20 ? "a@b.c" : "z@b.c", "192.0.2." + std::to_string(i)),
                  standing::waits);
        all += (all.empty() ? "" : " ") + name;
    }
    EXPECT_EQ(poll("WEB", "b@b.c"), standing::waits);
    EXPECT_EQ(names("?q=b%40B.c&state=waiting"), "WEB");
    EXPECT_EQ(names("?q=z@b"), names("?q=Z%40B"));
    EXPECT_EQ(names("?q=eb-3"), "web-30 web-31 web-32 web-33 web-34");
    EXPECT_EQ(names("?agent=a@b.c/web-11"), "web-11");
    EXPECT_EQ(names("?agent=WEB"), "WEB");
    std::string paged = pages(enrolments, "name", 7);
    EXPECT_EQ(paged, pages(enrolments, "name", 26));
    EXPECT_EQ(paged, pages(enrolments, "name", 1));
    EXPECT_EQ(std::count(paged.begin(), paged.end(), ' '), 25);
    EXPECT_EQ(pages(std::string(enrolments) + "?q=web-", "name", 4), all);
}

/* One that is retired is still an agent of that id. */
TEST_F(api_enrolments_test, retiring_is_not_revoking) {
    submit(load_record(5, now));
    EXPECT_EQ(done("POST", path_of("web-1", "admit"), 200), "admitted agent a@b.c/web-1");
    EXPECT_EQ(done("DELETE", "/api/v1/agents/1", 204), "retired agent a@b.c/web-1");
    EXPECT_EQ(get("/api/v1/agents/1/enrolment").at("state"), "known");
    EXPECT_EQ(get(path_of("web-1")).at("agent"), 1);
    EXPECT_EQ(done("DELETE", path_of("web-1"), 204), "revoked agent a@b.c/web-1");
    submit(load_record(5, now + 5));
    EXPECT_EQ(get("/api/v1/agents/1").at("identity"), "revoked");
    EXPECT_FALSE(get("/api/v1/agents/1").as_object().contains("retired"));
}

/* ---- who is meant ---- */

TEST_F(api_enrolments_test, a_name_alone_when_one_account_has_it) {
    EXPECT_EQ(poll("web-1"), standing::waits);
    EXPECT_EQ(poll("db-1", "z@b.c"), standing::waits);
    EXPECT_EQ(state_of_name("web-1"), "waiting");
    EXPECT_EQ(poll("web-1", "z@b.c"), standing::waits);
    for (const char* method : {"GET", "POST", "DELETE"}) {
        EXPECT_EQ(refused(path_of("web-1"), 400, method),
                  "Several accounts have an agent \"web-1\": give account and name with a slash "
                  "between. There are: a@b.c, z@b.c.");
    }
    EXPECT_EQ(get(path_of("z@b.c/web-1")).at("account"), "z@b.c");
    EXPECT_EQ(get(path_of("db-1")).at("account"), "z@b.c");
    submit(load_record(5, now), "db-1", "c@b.c"); /* by the store, too */
    refused(path_of("db-1"), 400);
}

TEST_F(api_enrolments_test, a_new_name_of_the_only_account) {
    EXPECT_EQ(refused(path_of("web-1"), 400, "POST"),
              "Of which account is \"web-1\" to be? None is known yet: give account and name with "
              "a slash between, such as me@example.org/web-1, or vindralctl's --account.");
    submit(load_record(5, now));
    json::value made = get(path_of("web-2"), 201, "POST");
    EXPECT_EQ(made.at("account"), "a@b.c");
    EXPECT_EQ(made.at("name"), "web-2");
    EXPECT_EQ(poll("db-1", "z@b.c"), standing::waits);
    EXPECT_EQ(refused(path_of("web-3"), 400, "POST"),
              "Of which account is \"web-3\" to be? Give account and name with a slash between. "
              "There are: a@b.c, z@b.c.");
    with->allowed_accounts = {"y@b.c"};
    EXPECT_EQ(get(path_of("web-3"), 201, "POST").at("account"), "y@b.c");
    EXPECT_EQ(refused(path_of("a@b.c/web-4"), 409, "POST"),
              "Agents of the account \"a@b.c\" may not log in here: it is not among those of "
              "--allow.");
    with->allowed_accounts.clear();
    for (int i = 0; i < 20; i++) {
        poll("x", "a" + std::to_string(10 + i) + "@b.c", "192.0.2." + std::to_string(i));
    }
    const std::string many = refused(path_of("web-5"), 400, "POST");
    EXPECT_TRUE(many.ends_with(" a18@b.c, a19@b.c and 13 more.")) << many;
}

TEST_F(api_enrolments_test, a_new_name_with_slashes) {
    EXPECT_EQ(refused(path_of("rack/3"), 400, "POST"),
              "Of which account is \"rack/3\"? \"rack\" is none that is known, and no e-mail "
              "address. Give account and name with a slash between, such as "
              "me@example.org/web-1.");
    json::value made = get(path_of("a@b.c/rack/3"), 201, "POST");
    EXPECT_EQ(made.at("account"), "a@b.c");
    EXPECT_EQ(made.at("name"), "rack/3");
    made = get(path_of("team/x@b.c/rack@4/5"), 201, "POST");
    EXPECT_EQ(made.at("account"), "team/x@b.c");
    EXPECT_EQ(made.at("name"), "rack@4/5");
    poll("x", "plain");
    EXPECT_EQ(get(path_of("plain/web-1"), 201, "POST").at("account"), "plain");
    EXPECT_EQ(get(path_of("plain/a@b.c/web-1"), 201, "POST").at("account"), "plain");
}

TEST_F(api_enrolments_test, names_that_are_numbers_and_ids_that_do_not_exist) {
    submit(load_record(5, now));
    EXPECT_EQ(refused(path_of("4711"), 404, "POST"),
              "There is no agent 4711. A name that is a number has to have its account before it, "
              "such as me@example.org/4711.");
    refused(path_of("99999999999999999999"), 404, "DELETE");
    refused(path_of("-1"), 404);
    refused(path_of("0", "admit"), 404, "POST");
    EXPECT_EQ(get(path_of("a@b.c/4711"), 201, "POST").at("name"), "4711");
    EXPECT_EQ(get(path_of("4711")).at("name"), "4711");
    EXPECT_EQ(get(path_of("1")).at("name"), "web-1");
    EXPECT_EQ(get(path_of("a@b.c/1"), 201, "POST").at("name"), "1");
    EXPECT_EQ(get(path_of("1")).at("name"), "web-1") << "an id goes before a name";
}

TEST_F(api_enrolments_test, odd_names) {
    const std::string longest(254, 'x'), account = std::string(248, 'y') + "@b.org";
    const char* const blank = "a b\"c'd";
    for (const std::string& name :
         {longest, std::string("na\xc3\xafve \xe2\x82\xac"), std::string(blank), std::string("%"),
          std::string("+"), std::string(".."), std::string("?")}) {
        for (const std::string& of : {std::string("a@b.c"), account}) {
            json::value made = get(path_of(of + "/" + name), 201, "POST");
            EXPECT_EQ(made.at("account"), json::value(of));
            EXPECT_EQ(made.at("name"), json::value(name));
            EXPECT_EQ(state_of_name(of + "/" + name), "invited");
            EXPECT_EQ(done("DELETE", path_of(of + "/" + name), 204).find("revoked agent "), 0u);
        }
    }
    const size_t before = kept.enrolments.size();
    for (const std::string& wrong :
         {longest + "x", std::string("a\nb"), std::string("a\0b", 3), std::string("\x7f"),
          std::string("\xff"), std::string("\xc2\x9b"), std::string("")}) {
        refused(path_of("a@b.c/" + wrong), 400, "POST");
    }
    refused(path_of(account + "y/web-1"), 400, "POST");
    refused(path_of("@\xff/web-1"), 400, "POST");
    EXPECT_EQ(ask("/api/v1/agents//enrolment", "POST").status, 404);
    EXPECT_EQ(ask("/api/v1/agents/a@b.c/web-1/enrolment", "POST").status, 404);
    EXPECT_EQ(kept.enrolments.size(), before);

    /* Agents need not send UTF-8, and can be admitted all the same. */
    const std::string bytes = "\xff\xfe";
    EXPECT_EQ(poll(bytes), standing::waits);
    EXPECT_EQ(state_of_name("a@b.c/" + bytes), "waiting");
    EXPECT_EQ(done("POST", path_of("a@b.c/" + bytes, "admit"), 200).find("admitted agent "), 0u);
    EXPECT_EQ(state_of_name("a@b.c/" + bytes), "known");
}

/* ---- inviting ---- */

TEST_F(api_enrolments_test, a_token_opens_once) {
    api_answer answer = ask(path_of("a@b.c/web-1"), "POST");
    ASSERT_EQ(answer.status, 201) << answer.body;
    EXPECT_EQ(answer.headers.at(0),
              std::pair(std::string("Cache-Control"), std::string("no-store")));
    json::value made = json::parse(answer.body);
    EXPECT_EQ(misfit(made, "invitation"), "");
    const std::string text(made.at("token").as_string());
    EXPECT_EQ(made.at("ends"), "2026-05-01T13:00:00Z");
    EXPECT_EQ(made.at("url"), json::value(where.url));
    EXPECT_EQ(made.at("state"), "unknown");
    EXPECT_EQ(made.at("authority"), json::value(fingerprint(*where.authority)));
    EXPECT_EQ(made.at("command"),
              json::value("vindral-enrol https://collector.example.org:8443 " + text));
    EXPECT_EQ(answer.audit, "invited agent a@b.c/web-1");

    auto token = protocol::read_enrolment_token(text);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->authority, *where.authority);
    ASSERT_EQ(kept.enrolments.size(), 1u);
    token_hash hash;
    SHA256(token->secret.data(), token->secret.size(), hash.data());
    EXPECT_EQ(kept.enrolments[0].hash, hash);
    EXPECT_EQ(kept.enrolments[0].by, "ann");
    EXPECT_EQ(kept.enrolments[0].ends, now + 3600);
    const std::string shown = json_text(get(path_of("web-1"))) + ask(enrolments).body;
    EXPECT_EQ(shown.find(text.substr(3, 20)), std::string::npos);
    EXPECT_NE(json_text(get(path_of("a@b.c/web-1"), 201, "POST").at("token")),
              json_text(json::value(text)));

    protocol::agent_identity who;
    uint32_t generation = 0;
    std::string why;
    EXPECT_EQ(agents.enrol_by_token(token->secret, key_a, "", "", who, generation, why),
              known_agents::answer::sign)
        << why;
    EXPECT_EQ(who, (protocol::agent_identity{"a@b.c", "web-1"}));
    EXPECT_EQ(state_of_name("web-1"), "known");
    EXPECT_EQ(agents.enrol_by_token(token->secret, key_b, "", "", who, generation, why),
              known_agents::answer::refused);
}

TEST_F(api_enrolments_test, what_is_told_of_who_has_the_name) {
    poll("web-1");
    EXPECT_EQ(get(path_of("web-1"), 201, "POST").at("state"), "waiting");
    done("POST", path_of("web-1", "admit"), 200);
    EXPECT_EQ(get(path_of("web-1"), 201, "POST").at("state"), "known");
    done("DELETE", path_of("web-1"), 204);
    EXPECT_EQ(get(path_of("web-1"), 201, "POST").at("state"), "revoked");
    EXPECT_EQ(state_of_name("web-1"), "invited");
}

TEST_F(api_enrolments_test, what_makes_no_token) {
    refused(path_of("a@b.c/web-1"), 400, "POST", R"({"ends":"2030-01-01T00:00:00Z"})");
    where.authority.reset();
    EXPECT_EQ(refused(path_of("a@b.c/web-1"), 409, "POST"),
              "No host can be told whom to trust: the certificate of --cert was made by an "
              "authority that is not known here. Put that authority's certificate behind the "
              "server's in the file of --cert, and try again.");
    EXPECT_TRUE(kept.enrolments.empty());
    where = {"https://[2001:db8::1]:8443", protocol::sha256{}};
    std::string command(get(path_of("a@b.c/web-1"), 201, "POST").at("command").as_string());
    EXPECT_EQ(command.find("vindral-enrol 'https://[2001:db8::1]:8443' ve_"), 0u) << command;
    where.url = "https://it's;x:8443";
    command = get(path_of("a@b.c/web-1"), 201, "POST").at("command").as_string();
    EXPECT_EQ(command.find("vindral-enrol 'https://it'\\''s;x:8443' ve_"), 0u) << command;
}

/* ---- admitting and refusing ---- */

TEST_F(api_enrolments_test, a_name_that_polls_waits_until_it_is_admitted) {
    EXPECT_EQ(poll("web-1"), standing::waits);
    now += 60;
    EXPECT_EQ(poll("web-1"), standing::waits);
    EXPECT_EQ(json_text(get(enrolments).at("items").at(0).at("waiting")),
              "{\"since\":\"2026-05-01T12:00:00Z\",\"last\":\"2026-05-01T12:01:00Z\","
              "\"address\":\"192.0.2.7\",\"key\":null,\"contested\":false}");
    EXPECT_EQ(
        refused(path_of("web-1", "admit"), 409, "POST", "{\"key\":\"" + fingerprint(key_a) + "\"}"),
        "a@b.c/web-1 waits without a key: it polls, and vindral-enrol has not been run there "
        "yet.");
    json::value admitted = get(path_of("web-1", "admit"), 200, "POST");
    EXPECT_EQ(admitted.at("state"), "known");
    EXPECT_EQ(admitted.at("by"), "ann");
    EXPECT_EQ(admitted.at("admitted"), "2026-05-01T12:01:00Z");
    EXPECT_TRUE(admitted.at("waiting").is_null());
    for (const char* what : {"admit", "refuse"}) {
        EXPECT_EQ(refused(path_of("web-1", what), 409, "POST"),
                  "a@b.c/web-1 is admitted since 2026-05-01T12:01:00Z, and nothing waits under "
                  "that name.");
    }
}

/* Where nobody is let in without one. */
TEST_F(api_enrolments_test, an_admitted_name_that_needs_a_certificate) {
    poll("web-1");
    EXPECT_EQ(get(path_of("web-1")).as_object().count("needs_certificate"), 0u);
    const json::value admitted = get(path_of("web-1", "admit"), 200, "POST");
    EXPECT_EQ(misfit(admitted, "standing"), "");
    EXPECT_EQ(admitted.at("needs_certificate"), true);
    stored_identity shown{.account = "a@b.c", .agent = "web-1"};
    shown.admitted = shown.highest = shown.good_from = 1;
    std::string error;
    ASSERT_TRUE(kept.put_identity(shown, error)) << error;
    EXPECT_EQ(get(path_of("web-1")).as_object().count("needs_certificate"), 0u);
}

TEST_F(api_enrolments_test, a_key_that_waits) {
    EXPECT_EQ(request("web-1", key_a), known_agents::answer::waits);
    EXPECT_EQ(get(path_of("web-1")).at("waiting").at("key"), json::value(fingerprint(key_a)));
    for (const char* body :
         {R"({"key":"x"})", R"({"key":7})", R"({"key":"SHA256:"})", R"({"key":"SHA256:AAAA"})",
          R"({"name":"x"})", R"({"key":null,"key":null})", "[]", "x", R"({"key":)",
          R"({"key":"SHA256:qgAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA*"})"}) {
        refused(path_of("web-1", "admit"), 400, "POST", body);
    }
    EXPECT_EQ(
        refused(path_of("web-1", "admit"), 409, "POST", "{\"key\":\"" + fingerprint(key_b) + "\"}"),
        "The key that waits for a@b.c/web-1 is " + fingerprint(key_a) +
            ", not the one that was given: somebody else asks under this name, or the host "
            "made a new key. Look at what vindral-enrol says there.");
    EXPECT_EQ(state_of_name("web-1"), "waiting");
    EXPECT_EQ(
        done("POST", path_of("web-1", "admit"), 200, "{\"key\":\"" + fingerprint(key_a) + "=\"}"),
        "admitted agent a@b.c/web-1 with the key " + fingerprint(key_a));
    uint32_t generation = 0;
    EXPECT_EQ(request("web-1", key_a, &generation), known_agents::answer::sign);
    EXPECT_EQ(generation, 1u);

    int i = 0;
    for (const char* body : {"", "{}", R"({"key":null})"}) { /* whatever waits */
        const std::string name = "db-" + std::to_string(i++);
        EXPECT_EQ(request(name, key_b), known_agents::answer::waits);
        EXPECT_EQ(done("POST", path_of(name, "admit"), 200, body),
                  "admitted agent a@b.c/" + name + " with the key " + fingerprint(key_b));
    }
}

TEST_F(api_enrolments_test, two_keys_ask_under_one_name) {
    EXPECT_EQ(request("web-1", key_a), known_agents::answer::waits);
    EXPECT_EQ(request("web-1", key_b, nullptr, "198.51.100.1"), known_agents::answer::waits);
    EXPECT_EQ(get(path_of("web-1")).at("waiting").at("contested"), true);
    EXPECT_EQ(refused(path_of("web-1", "admit"), 409, "POST"),
              "Two hosts ask under the name a@b.c/web-1, each with a key of its own: say with "
              "`key` which one is admitted. vindral-enrol shows it on the host.");
    const std::string waits(get(path_of("web-1")).at("waiting").at("key").as_string());
    done("POST", path_of("web-1", "admit"), 200, "{\"key\":\"" + waits + "\"}");
    EXPECT_EQ(state_of_name("web-1"), "known");
}

TEST_F(api_enrolments_test, a_key_asks_under_the_name_of_an_agent_that_works) {
    stored_identity proven{.account = "a@b.c", .agent = "web-1"};
    proven.admitted = now - 100;
    proven.highest = proven.good_from = 1;
    proven.key = key_a;
    keep(proven);
    EXPECT_EQ(request("web-1", key_b), known_agents::answer::waits);
    EXPECT_EQ(get(path_of("web-1")).at("waiting").at("contested"), true);
    EXPECT_EQ(refused(path_of("web-1", "admit"), 409, "POST"),
              "A host has proven that it is a@b.c/web-1, and another one asks under its name, with "
              "another key: when that is admitted, the certificate of the first ends. Say with "
              "`key` that this is meant; vindral-enrol shows it on the host.");
    done("POST", path_of("web-1", "admit"), 200, "{\"key\":\"" + fingerprint(key_b) + "\"}");
}

/* Who polled when nothing was asked of agents need not wait first. */
TEST_F(api_enrolments_test, one_that_polls_already_is_admitted) {
    submit(load_record(5, now));
    EXPECT_EQ(
        refused(path_of("web-1", "admit"), 409, "POST", "{\"key\":\"" + fingerprint(key_a) + "\"}"),
        "Nothing waits under the name a@b.c/web-1: it may have stopped to ask. Make a token "
        "for it: vindralctl enrol.");
    EXPECT_EQ(get("/api/v1/agents/1/admit", 200, "POST").at("state"), "known");
    EXPECT_EQ(get("/api/v1/agents?q=web").at("items").at(0).at("identity"), "known");
    done("DELETE", path_of("web-1"), 204);
    EXPECT_EQ(refused(path_of("web-1", "admit"), 409, "POST"),
              "a@b.c/web-1 was revoked at 2026-05-01T12:00:00Z, and nothing waits under that name. "
              "To let it in again make a token: vindralctl enrol.");
}

TEST_F(api_enrolments_test, who_is_refused_waits_no_more) {
    EXPECT_EQ(request("web-1", key_a), known_agents::answer::waits);
    EXPECT_EQ(done("POST", path_of("web-1", "refuse"), 204), "refused agent a@b.c/web-1");
    EXPECT_EQ(names(), "");
    refused(path_of("a@b.c/web-1", "refuse"), 404, "POST");
    EXPECT_EQ(request("web-1", key_a), known_agents::answer::refused);
}

/* ---- revoking ---- */

TEST_F(api_enrolments_test, what_is_revoked_is_sent_away) {
    poll("web-1");
    done("POST", path_of("web-1", "admit"), 200);
    get(path_of("web-1"), 201, "POST");
    EXPECT_EQ(get(path_of("web-1")).at("invited"), true);
    EXPECT_EQ(done("DELETE", path_of("web-1"), 204), "revoked agent a@b.c/web-1");
    EXPECT_EQ(told, std::vector<std::string>{"away a@b.c/web-1"});
    json::value shown = get(path_of("web-1"));
    EXPECT_EQ(shown.at("state"), "revoked");
    EXPECT_EQ(shown.at("revoked"), "2026-05-01T12:00:00Z");
    EXPECT_TRUE(shown.at("admitted").is_null());
    EXPECT_EQ(shown.at("invited"), false);
    EXPECT_EQ(poll("web-1"), standing::revoked);
    now += 10;
    EXPECT_EQ(done("DELETE", path_of("web-1"), 204), "revoked agent a@b.c/web-1");
    EXPECT_EQ(get(path_of("web-1")).at("revoked"), "2026-05-01T12:00:00Z");

    get(path_of("a@b.c/web-2"), 201, "POST"); /* whom nobody has seen */
    done("DELETE", path_of("web-2"), 204);
    EXPECT_EQ(state_of_name("web-2"), "revoked");
    EXPECT_EQ(poll("web-2"), standing::revoked);
    EXPECT_TRUE(std::none_of(kept.enrolments.begin(), kept.enrolments.end(),
                             [](const auto& each) { return each.generation == 0; }));
}

/* Who polls, or did, need not be admitted first. */
TEST_F(api_enrolments_test, one_of_which_nothing_is_decided_is_revoked) {
    poll("web-1");
    EXPECT_EQ(refused(path_of("web-1"), 409, "DELETE"),
              "a@b.c/web-1 has never been let in or invited: there is nothing to revoke. What only "
              "waits is refused.");
    EXPECT_EQ(state_of_name("web-1"), "waiting");
    submit(load_record(5, now));
    EXPECT_EQ(done("DELETE", path_of("web-1"), 204), "revoked agent a@b.c/web-1");
    EXPECT_EQ(told, std::vector<std::string>{"away a@b.c/web-1"});
    EXPECT_EQ(state_of_name("web-1"), "revoked");
    EXPECT_EQ(poll("web-1"), standing::revoked);
}

/* ---- who may, and what fails ---- */

TEST_F(api_enrolments_test, only_admins_decide) {
    poll("web-1");
    struct {
        const char *method, *what;
    } changes[] = {
        {"POST", "enrolment"}, {"DELETE", "enrolment"}, {"POST", "admit"}, {"POST", "refuse"}};
    for (const auto& each : changes) {
        for (role may : {role::viewer, role::operates}) {
            EXPECT_EQ(refused(path_of("web-1", each.what), 403, each.method, "", may),
                      "This needs the role admin, and \"ann\" is " + std::string(role_word(may)) +
                          ".");
        }
        EXPECT_EQ(ask(path_of("web-1", each.what), each.method, "", role::none).status, 401);
    }
    EXPECT_EQ(state_of_name("web-1"), "waiting");
    EXPECT_EQ(get(path_of("web-1"), 200, "GET", "", role::viewer).at("state"), "waiting");
    get(enrolments, 200, "GET", "", role::viewer);
    EXPECT_EQ(ask(enrolments, "GET", "", role::none).status, 401);
    EXPECT_EQ(ask(path_of("web-1", "admit"), "GET").status, 405);
    EXPECT_EQ(ask(path_of("web-1", "revoke"), "POST").status, 404);
}

TEST_F(api_enrolments_test, settings_that_cannot_be_written) {
    submit(load_record(5, now));
    poll("web-2");
    done("POST", path_of("web-1", "admit"), 200);
    kept.decisions_failure = "the disk is full";
    for (auto [method, target] : {std::pair("POST", path_of("web-1")),
                                  {"DELETE", path_of("web-1")},
                                  {"POST", path_of("web-2", "admit")}}) {
        EXPECT_EQ(refused(target, 503, method),
                  "Who is let in cannot be read or changed: the disk is full.");
        EXPECT_EQ(ask(target, method).audit, "");
    }
    EXPECT_EQ(state_of_name("web-1"), "known") << "what is known is told";
    kept.decisions_failure.clear();
    kept.changed();
    EXPECT_EQ(state_of_name("web-2"), "waiting");
}
