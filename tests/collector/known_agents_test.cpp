/* Who is let in: modes, certificates and generations, names that wait, what hosts are given, what
 * admins decide; over a real settings.db. */
#include "ingest/known_agents.h"

#include "collector_test_support.h"
#include "decisions_in_memory.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>

using answer = known_agents::answer;
using strings = std::vector<std::string>;

static protocol::sha256 key(int number) {
    protocol::sha256 k{};
    k[0] = static_cast<unsigned char>(number);
    k[1] = static_cast<unsigned char>(number >> 8);
    k[31] = 2;
    return k;
}

static agent_proof proof(uint32_t generation, const std::string& agent = "web",
                         const std::string& account = "a@x") {
    return {.who = {account, agent},
            .generation = generation,
            .key = key(static_cast<int>(1000 + generation)),
            .authority = key(999),
            .begins = 1,
            .ends = 9000000};
}

static const char* name_of(standing s) {
    switch (s) {
    case standing::good:
        return "good";
    case standing::waits:
        return "waits";
    case standing::unproven:
        return "unproven";
    case standing::other_name:
        return "other";
    case standing::revoked:
        return "revoked";
    }
    return "?";
}

static const char* name_of(answer a) {
    switch (a) {
    case answer::sign:
        return "sign";
    case answer::waits:
        return "waits";
    case answer::refused:
        return "refused";
    case answer::unavailable:
        return "unavailable";
    }
    return "?";
}

static const agents_mode modes[] = {agents_mode::any, agents_mode::known, agents_mode::proven};

struct known_agents_test : testing::Test {
    scratch_directory directory;
    std::string error;
    std::atomic<int64_t> now = 1000000;
    std::unique_ptr<settings> kept;
    std::unique_ptr<known_agents> agents;
    bool promoted = false;

    /* Of the last answer. */
    protocol::agent_identity who;
    uint32_t generation = 0;
    std::string why;

    /* Over what is kept, as after a restart. */
    void start(agents_mode mode) {
        std::string note;
        agents.reset();
        kept.reset();
        kept = settings::open(directory / "state", note, error);
        ASSERT_NE(kept, nullptr) << error;
        agents = std::make_unique<known_agents>(*kept, mode, [this] { return now.load(); });
        EXPECT_TRUE(agents->refresh(error)) << error;
    }
    void SetUp() override { start(agents_mode::proven); }

    std::string poll(const agent_proof* shown = nullptr, const std::string& agent = "web",
                     const std::string& address = "192.0.2.1") {
        return name_of(agents->may_go_by("a@x", agent, shown, address, promoted));
    }
    std::string poll(uint32_t with_generation) {
        const agent_proof shown = proof(with_generation);
        const std::string said = poll(&shown);
        return promoted ? said + "*" : said;
    }
    std::string show(uint32_t with_generation) {
        return name_of(agents->may_show(proof(with_generation)));
    }

    void invite(protocol::sha256& secret, const std::string& agent = "web") {
        auto made = agents->invite("a@x", agent, 3600, "ann", error);
        ASSERT_TRUE(made.has_value()) << error;
        secret = made.value_or(protocol::sha256());
    }
    /* What a host gets, and "2" behind it for the second generation. */
    std::string told(answer a) {
        return name_of(a) + (a == answer::sign ? std::to_string(generation) : "");
    }
    std::string by_token(const protocol::sha256& secret, int with_key,
                         const std::string& account = "", const std::string& agent = "") {
        return told(
            agents->enrol_by_token(secret, key(with_key), account, agent, who, generation, why));
    }
    std::string by_proof(uint32_t with_generation, int with_key) {
        return told(
            agents->enrol_by_proof(proof(with_generation), key(with_key), who, generation, why));
    }
    std::string by_request(int with_key, const std::string& agent = "web",
                           const std::string& address = "192.0.2.1") {
        return told(
            agents->enrol_by_name("a@x", agent, key(with_key), address, who, generation, why));
    }
    bool admit(const std::string& agent = "web", std::optional<int> only = {},
               bool even_unseen = false) {
        return agents->admit("a@x", agent, only ? std::optional(key(*only)) : std::nullopt,
                             even_unseen, "ann", error);
    }
    void revoke(const std::string& agent = "web") {
        EXPECT_TRUE(agents->revoke("a@x", agent, false, "bob", error)) << error;
    }
    void put(const stored_identity& what) {
        EXPECT_TRUE(kept->put_identity(what, error)) << error;
        EXPECT_TRUE(agents->refresh(error)) << error;
    }
    /* A name that was enrolled, and has used its certificate. */
    void prove(uint32_t good_from = 1, uint32_t highest = 1) {
        put({.account = "a@x",
             .agent = "web",
             .admitted = 5,
             .highest = highest,
             .good_from = good_from});
    }
    agent_standing look(const std::string& agent = "web") {
        return agents->find("a@x", agent).value_or(agent_standing());
    }
    waiting_agent waiting(const std::string& agent = "web") {
        return look(agent).waiting.value_or(waiting_agent());
    }
    size_t listed() {
        size_t count = 0;
        for (const agent_standing& each : agents->all()) {
            count += each.waiting.has_value();
        }
        return count;
    }

    /* Until it goes, nothing can be written: a file size limit is the full disk. */
    struct full_disk {
        rlimit before{};
        full_disk() {
            signal(SIGXFSZ, SIG_IGN);
            getrlimit(RLIMIT_FSIZE, &before);
            rlimit none = {.rlim_cur = 100, .rlim_max = before.rlim_max};
            setrlimit(RLIMIT_FSIZE, &none);
        }
        ~full_disk() { setrlimit(RLIMIT_FSIZE, &before); }
        full_disk(const full_disk&) = delete;
        full_disk& operator=(const full_disk&) = delete;
    };
};

/* ---- who may go by a name ---- */

/* Modes by what is kept of the name by what is shown. */
TEST_F(known_agents_test, who_is_let_in) {
    struct row {
        const char* what;
        std::optional<stored_identity> kept;
        bool invited;
        strings unshown;   /* any, known, proven */
        strings shown;     /* generations 0, 1, 2, 3, 4; in all modes */
        strings handshake; /* the same */
    };
    auto identity = [](int64_t admitted, uint32_t highest, uint32_t good_from, int64_t revoked) {
        return stored_identity{.account = "a@x",
                               .agent = "web",
                               .admitted = admitted,
                               .highest = highest,
                               .good_from = good_from,
                               .revoked = revoked};
    };
    const strings five_wait(5, "waits"), five_good(5, "good"), five_revoked(5, "revoked");
    const row rows[] = {
        {"unknown", {}, false, {"good", "waits", "waits"}, five_wait, five_good},
        {"invited", {}, true, {"good", "waits", "waits"}, five_wait, five_good},
        {"neither admitted nor revoked",
         identity(0, 3, 2, 0),
         false,
         {"good", "waits", "waits"},
         five_wait,
         {"revoked", "revoked", "good", "good", "good"}},
        {"admitted",
         identity(5, 0, 0, 0),
         false,
         {"good", "good", "unproven"},
         five_wait,
         five_good},
        {"enrolled, certificate not used yet",
         identity(5, 1, 0, 0),
         false,
         {"good", "good", "unproven"},
         {"waits", "good*", "waits", "waits", "waits"},
         five_good},
        {"proven",
         identity(5, 3, 2, 0),
         false,
         {"good", "unproven", "unproven"},
         {"waits", "revoked", "good", "good*", "waits"},
         {"revoked", "revoked", "good", "good", "good"}},
        {"proven and invited again",
         identity(5, 3, 2, 0),
         true,
         {"good", "unproven", "unproven"},
         {"waits", "revoked", "good", "good*", "waits"},
         {"revoked", "revoked", "good", "good", "good"}},
        {"revoked, had certificates", identity(0, 3, 4, 9), false, strings(3, "revoked"),
         five_revoked, five_revoked},
        {"revoked, had none", identity(0, 0, 0, 9), false, strings(3, "revoked"), five_revoked,
         five_revoked},
        {"revoked and invited again", identity(0, 3, 4, 9), true, strings(3, "revoked"),
         five_revoked, five_revoked},
    };
    for (const row& r : rows) {
        for (size_t m = 0; m < 3; m++) {
            SCOPED_TRACE(std::string(r.what) + ", mode " + std::to_string(m));
            for (size_t g = 0; g < 5; g++) {
                std::filesystem::remove_all(directory / "state");
                start(modes[m]);
                EXPECT_EQ(agents->mode(), modes[m]);
                if (r.kept) {
                    put(*r.kept);
                }
                if (r.invited) {
                    protocol::sha256 secret;
                    invite(secret);
                }
                EXPECT_EQ(show(static_cast<uint32_t>(g)), r.handshake[g]) << g;
                EXPECT_EQ(poll(), r.unshown[m]);
                EXPECT_FALSE(promoted);
                EXPECT_EQ(poll(static_cast<uint32_t>(g)), r.shown[g]) << g;
                const agent_proof other = proof(2, "db"), account = proof(2, "web", "b@x");
                EXPECT_EQ(poll(&other), "other");
                EXPECT_EQ(poll(&account), "other");
            }
        }
    }
}

TEST_F(known_agents_test, an_earlier_generation_ends_when_a_later_one_is_used) {
    prove(1, 3);
    EXPECT_EQ(poll(1), "good");
    EXPECT_EQ(poll(2), "good*");
    EXPECT_EQ(poll(2), "good"); /* told once */
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_EQ(show(1), "revoked");
    EXPECT_EQ(by_proof(1, 7), "refused"); /* at once, whatever is kept yet */
    EXPECT_EQ(why, "a later certificate is in use");
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    EXPECT_TRUE(agents->keep_promotion(proof(1), error)) << error;
    start(agents_mode::proven);
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_EQ(poll(2), "good");
    EXPECT_EQ(poll(3), "good*");
    EXPECT_EQ(look().kept.good_from, 3u);
    EXPECT_EQ(look().kept.highest, 3u);
}

/* In between, what is read from the file does not bring the earlier one back. */
TEST_F(known_agents_test, what_is_not_kept_yet_holds) {
    prove(1, 2);
    EXPECT_EQ(poll(2), "good*");
    EXPECT_TRUE(kept->put_identity({.account = "a@x", .agent = "db", .admitted = 5}, error));
    EXPECT_TRUE(agents->refresh(error)) << error;
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_TRUE(agents->note_authorities({"a@x", "web"}, key(1), error)) << error;
    EXPECT_EQ(poll(1), "revoked");
    {
        const full_disk none;
        EXPECT_FALSE(agents->keep_promotion(proof(2), error));
        EXPECT_NE(error, "");
    }
    EXPECT_EQ(poll(1), "revoked");
    now += 59;
    EXPECT_EQ(poll(2), "good");
    now += 1;
    EXPECT_EQ(poll(2), "good*"); /* once more, a minute later */
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    now += 100;
    EXPECT_EQ(poll(2), "good");
    start(agents_mode::proven);
    EXPECT_EQ(poll(1), "revoked");
}

TEST_F(known_agents_test, a_promotion_is_not_kept_of_what_was_revoked_or_is_not_known) {
    prove(1, 2);
    EXPECT_EQ(poll(2), "good*");
    revoke();
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    EXPECT_EQ(look().kept.good_from, 3u);
    EXPECT_TRUE(agents->keep_promotion(proof(2, "nobody"), error)) << error;
    EXPECT_FALSE(agents->find("a@x", "nobody").has_value());
}

/* ---- names that wait ---- */

TEST_F(known_agents_test, a_name_that_polls_waits_until_it_is_admitted) {
    start(agents_mode::known);
    EXPECT_EQ(poll(nullptr, "web", "192.0.2.1"), "waits");
    now += 60;
    EXPECT_EQ(poll(nullptr, "web", "192.0.2.2"), "waits");
    EXPECT_EQ(waiting().account, "a@x");
    EXPECT_EQ(waiting().agent, "web");
    EXPECT_EQ(waiting().address, "192.0.2.2");
    EXPECT_EQ(waiting().since, 1000000);
    EXPECT_EQ(waiting().last, 1000060);
    EXPECT_FALSE(waiting().key.has_value());
    EXPECT_FALSE(admit("db"));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(admit("web", 7)); /* no key of its waits */
    EXPECT_EQ(error, "");
    EXPECT_TRUE(admit()) << error;
    EXPECT_EQ(listed(), 0u);
    EXPECT_EQ(poll(), "good");
    EXPECT_EQ(look().kept.by, "ann");
    EXPECT_EQ(look().kept.admitted, 1000060);
    start(agents_mode::known);
    EXPECT_EQ(poll(), "good");
    start(agents_mode::proven);
    EXPECT_EQ(poll(), "unproven");
    EXPECT_EQ(listed(), 0u);
}

TEST_F(known_agents_test, a_name_that_has_not_asked_for_an_hour_is_forgotten) {
    EXPECT_EQ(poll(), "waits");
    now += 3599;
    EXPECT_EQ(listed(), 1u);
    EXPECT_TRUE(look().waiting.has_value());
    now += 1;
    EXPECT_EQ(listed(), 0u);
    EXPECT_FALSE(agents->find("a@x", "web").has_value());
    EXPECT_FALSE(admit());
    EXPECT_FALSE(agents->refuse("a@x", "web", error));
    EXPECT_EQ(poll(), "waits");
    EXPECT_EQ(waiting().since, 1003600);
}

TEST_F(known_agents_test, the_list_is_bounded_for_each_address) {
    auto many_from = [&](const std::string& address, const std::string& stem) {
        size_t before = listed();
        for (int i = 0; i < 30; i++) {
            EXPECT_EQ(poll(nullptr, stem + std::to_string(i), address), "waits");
        }
        return listed() - before;
    };
    EXPECT_EQ(many_from("192.0.2.1", "a"), 20u);
    EXPECT_EQ(many_from("192.0.2.1:7", "b"), 0u);
    EXPECT_EQ(many_from("192.0.2.2:7", "c"), 20u);
    EXPECT_EQ(many_from("2001:db8:0:1::1", "d"), 20u);
    EXPECT_EQ(many_from("[2001:db8:0:1:5:6:7:8]:80", "e"), 0u); /* the same /64 */
    EXPECT_EQ(many_from("2001:db8:0:2::1", "f"), 20u);
    EXPECT_EQ(many_from("2001:db8::2:0:0:0:1", "g"), 0u);
    EXPECT_EQ(many_from("::1", "h"), 20u);
    EXPECT_EQ(many_from("::2", "i"), 0u);
    EXPECT_EQ(many_from("1:2:3:4:5:6:7:8", "j"), 20u);
    EXPECT_EQ(many_from("1:2:3:4::", "k"), 0u);
    EXPECT_EQ(many_from("::2:3:4:5:6:7:8", "l"), 20u); /* 0:2:3:4 */
    EXPECT_EQ(many_from("0:2:3:4::9", "m"), 0u);
    EXPECT_EQ(many_from("::ffff:192.0.2.3", "n"), 20u);
    EXPECT_EQ(many_from("::ffff:192.0.2.4", "o"), 20u);
    EXPECT_EQ(many_from("", "p"), 20u);
    EXPECT_EQ(many_from("[", "q"), 0u);
    EXPECT_EQ(many_from("zz:zz:zz", "r"), 20u);
    EXPECT_EQ(many_from(std::string(5000, ':'), "s"), 0u); /* as "::" */
    EXPECT_EQ(poll(nullptr, "a0", "192.0.2.9"), "waits");  /* one that is there moves */
    EXPECT_TRUE(agents->refuse("a@x", "a0", error));
    EXPECT_EQ(many_from("192.0.2.1", "t"), 1u);
    now += 3600;
    EXPECT_EQ(many_from("192.0.2.1", "u"), 20u);
    EXPECT_EQ(listed(), 20u);
}

TEST_F(known_agents_test, the_list_is_bounded) {
    for (int i = 0; i < 1010; i++) {
        EXPECT_EQ(poll(nullptr, std::to_string(i), "192.0.2." + std::to_string(i)), "waits");
    }
    EXPECT_EQ(listed(), 1000u);
    EXPECT_EQ(by_request(1, "late", "198.51.100.1"), "waits"); /* though nobody sees it */
    EXPECT_EQ(listed(), 1000u);
    EXPECT_TRUE(admit("7"));
    EXPECT_EQ(by_request(1, "late", "198.51.100.1"), "waits");
    EXPECT_EQ(waiting("late").key, key(1));
    now += 3700;
    EXPECT_EQ(by_request(1, "late", "198.51.100.1"), "waits");
    EXPECT_EQ(listed(), 1u);
}

TEST_F(known_agents_test, odd_names) {
    const std::string odd = "\xff'\"; %41 \xc3\xa9";
    EXPECT_EQ(poll(nullptr, odd), "waits");
    EXPECT_EQ(agents->all().at(0).kept.agent, odd);
    EXPECT_TRUE(admit(odd)) << error;
    const agent_proof shown = proof(1, odd);
    EXPECT_EQ(poll(&shown, odd), "waits");
    EXPECT_TRUE(admit(odd)) << error;
    EXPECT_EQ(poll(&shown, odd), "good");
    start(agents_mode::proven);
    EXPECT_EQ(poll(&shown, odd), "good");
    for (const std::string& bad :
         {std::string(), std::string("a\nb"), std::string("a\0", 2), std::string(255, 'n')}) {
        EXPECT_EQ(poll(nullptr, bad), "waits");
        EXPECT_EQ(by_request(1, bad), "refused");
        EXPECT_EQ(why, "an account or agent has 1 to 254 bytes and no control characters");
        EXPECT_FALSE(admit(bad, {}, true));
        EXPECT_NE(error, "");
        EXPECT_FALSE(agents->invite("a@x", bad, 3600, "ann", error).has_value());
        EXPECT_NE(error, "");
        EXPECT_FALSE(agents->revoke("a@x", bad, true, "ann", error));
        EXPECT_FALSE(agents->refuse("a@x", bad, error));
        EXPECT_FALSE(agents->find("a@x", bad).has_value());
    }
    EXPECT_EQ(listed(), 0u);
}

TEST_F(known_agents_test, what_is_refused_stays_away_for_an_hour) {
    EXPECT_EQ(poll(), "waits");
    EXPECT_TRUE(agents->refuse("a@x", "web", error));
    EXPECT_FALSE(agents->refuse("a@x", "web", error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(poll(), "waits");
    EXPECT_EQ(listed(), 0u);
    EXPECT_EQ(by_request(1), "waits"); /* that is another matter */
    EXPECT_EQ(listed(), 1u);
    EXPECT_TRUE(agents->refuse("a@x", "web", error));
    EXPECT_EQ(by_request(1), "refused");
    EXPECT_EQ(why, "this host was refused");
    EXPECT_EQ(listed(), 0u);
    EXPECT_EQ(by_request(2), "waits");
    EXPECT_EQ(waiting().key, key(2));
    now += 3600;
    EXPECT_EQ(by_request(1, "other"), "waits");
    EXPECT_EQ(by_request(1), "waits");
    EXPECT_EQ(poll(), "waits");
    EXPECT_TRUE(agents->refuse("a@x", "web", error));
    EXPECT_TRUE(admit("web", 1, true)) << error; /* on second thoughts */
    EXPECT_EQ(by_request(1), "sign1");
}

TEST_F(known_agents_test, a_certificate_that_is_not_known_waits) {
    EXPECT_EQ(poll(5), "waits");
    EXPECT_EQ(waiting().key, key(1005));
    EXPECT_FALSE(admit("web", 1004));
    EXPECT_TRUE(admit("web", 1005)) << error;
    EXPECT_EQ(look().kept.highest, 5u);
    EXPECT_EQ(look().kept.key, key(1005));
    EXPECT_EQ(look().kept.ends, 9000000);
    EXPECT_EQ(poll(4), "revoked");
    EXPECT_EQ(poll(5), "good");
    EXPECT_EQ(by_request(1005), "sign6"); /* its host may also ask for another */
    EXPECT_EQ(by_proof(5, 6), "sign7");
    start(agents_mode::proven);
    EXPECT_EQ(poll(5), "good");
    EXPECT_EQ(poll(7), "good*");
}

TEST_F(known_agents_test, a_certificate_that_waits_is_not_let_in_with_another_key) {
    EXPECT_EQ(poll(5), "waits");
    EXPECT_TRUE(admit("web", 7, true)) << error;
    EXPECT_EQ(poll(5), "waits");
    EXPECT_EQ(by_request(7), "sign1");
    EXPECT_EQ(poll(5), "waits");
    EXPECT_EQ(look().kept.highest, 1u);
    now += 60;
    EXPECT_EQ(by_request(8), "waits"); /* in its place */
    EXPECT_TRUE(admit("web", 8)) << error;
    EXPECT_EQ(poll(5), "waits");
    EXPECT_EQ(by_request(8), "sign2");
}

/* Settings that were lost count anew, and what was revoked before is out there yet. */
TEST_F(known_agents_test, a_later_generation_than_any_given_out_is_not_trusted) {
    prove();
    EXPECT_EQ(poll(2), "waits");
    EXPECT_EQ(by_proof(2, 7), "refused");
    EXPECT_EQ(poll(1), "good");
    EXPECT_EQ(look().kept.highest, 1u);
    EXPECT_TRUE(admit("web", 1002)) << error;
    EXPECT_EQ(poll(2), "good");
    EXPECT_EQ(poll(1), "revoked");
}

/* ---- hosts ---- */

TEST_F(known_agents_test, a_token_gets_a_certificate) {
    protocol::sha256 secret;
    invite(secret);
    EXPECT_TRUE(look().invited);
    EXPECT_EQ(poll(), "waits");
    EXPECT_EQ(by_token(secret, 7, "a@x", "db"), "refused");
    EXPECT_EQ(why, "this token is for another name");
    EXPECT_EQ(by_token(key(1), 7), "refused");
    EXPECT_EQ(why, "this token is not known");
    EXPECT_EQ(by_token(secret, 7, "a@x", "web"), "sign1");
    EXPECT_EQ(who, (protocol::agent_identity{"a@x", "web"}));
    EXPECT_EQ(listed(), 0u);
    EXPECT_TRUE(agents->refresh(error)) << error;
    EXPECT_FALSE(look().invited);
    EXPECT_EQ(by_token(secret, 8), "refused");
    EXPECT_EQ(why, "this token was used already, with another key");
    EXPECT_EQ(by_token(secret, 7), "sign1"); /* the answer was lost */
    agent_proof issued = proof(1);
    issued.key = key(7);
    EXPECT_TRUE(agents->note_issued(issued, error)) << error;
    EXPECT_EQ(look().kept.key, key(7));
    EXPECT_EQ(look().kept.authority, key(999));
    EXPECT_EQ(look().kept.issued, 1000000);
    EXPECT_EQ(look().kept.ends, 9000000);
    EXPECT_EQ(look().kept.by, "ann");
    EXPECT_EQ(poll(), "unproven");
    EXPECT_EQ(poll(1), "good*");
    now += 3600;
    EXPECT_EQ(by_token(secret, 7), "refused");
    EXPECT_EQ(why, "this token has ended");
}

TEST_F(known_agents_test, a_token_that_ended_invites_nobody) {
    protocol::sha256 secret;
    invite(secret);
    now += 3599;
    EXPECT_TRUE(look().invited);
    EXPECT_TRUE(agents->all().at(0).invited);
    now += 1;
    EXPECT_FALSE(agents->find("a@x", "web").has_value());
    EXPECT_TRUE(agents->all().empty());
    EXPECT_EQ(by_token(secret, 7), "refused");
}

/* A host that is set up anew under its name: the old one goes on until the new one is there. */
TEST_F(known_agents_test, a_token_of_a_name_that_has_a_certificate) {
    prove(1, 1);
    protocol::sha256 secret;
    invite(secret);
    EXPECT_EQ(by_token(secret, 7), "sign2");
    EXPECT_EQ(look().kept.highest, 2u);
    EXPECT_EQ(poll(1), "good");
    EXPECT_EQ(by_token(secret, 7), "sign2");
    EXPECT_EQ(poll(2), "good*");
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    EXPECT_EQ(by_token(secret, 7), "sign2");
    EXPECT_EQ(by_proof(2, 8), "sign3");
    EXPECT_EQ(poll(3), "good*");
    EXPECT_TRUE(agents->keep_promotion(proof(3), error)) << error;
    EXPECT_EQ(by_token(secret, 7), "refused"); /* what it opened has ended */
}

TEST_F(known_agents_test, a_certificate_renews_itself) {
    prove(1, 1);
    EXPECT_EQ(by_proof(1, 7), "sign2");
    EXPECT_EQ(who, (protocol::agent_identity{"a@x", "web"}));
    EXPECT_EQ(by_proof(1, 7), "sign2"); /* the answer was lost */
    EXPECT_EQ(by_proof(1, 8), "sign3");
    EXPECT_EQ(by_proof(1, 7), "sign4"); /* not that of somebody else */
    EXPECT_EQ(poll(1), "good");
    EXPECT_EQ(by_proof(4, 7), "sign5"); /* with it, it is used; a key may come again */
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_EQ(poll(4), "good");
    EXPECT_EQ(by_proof(3, 9), "refused");
    EXPECT_EQ(why, "a later certificate is in use");
    EXPECT_EQ(by_proof(1, 7), "refused");
    EXPECT_EQ(by_proof(0, 7), "refused");
    EXPECT_EQ(by_proof(6, 7), "refused");
    EXPECT_EQ(why, "this certificate is not known here");
    revoke();
    EXPECT_EQ(by_proof(5, 9), "refused");
    EXPECT_EQ(why, "this agent is revoked");
    EXPECT_EQ(by_proof(4, 9), "refused");
    start(agents_mode::proven);
    EXPECT_EQ(by_proof(5, 9), "refused");
}

TEST_F(known_agents_test, nobody_unknown_renews) {
    EXPECT_EQ(by_proof(1, 7), "refused");
    EXPECT_EQ(why, "this certificate is not known here");
    EXPECT_TRUE(agents->all().empty());
    put({.account = "a@x", .agent = "web", .highest = 3}); /* nobody has admitted it */
    EXPECT_EQ(by_proof(1, 7), "refused");
    EXPECT_FALSE(agents->note_issued(proof(1), error));
    put({.account = "a@x", .agent = "web", .admitted = 5, .highest = 4294967295u});
    EXPECT_EQ(by_proof(4294967295u, 7), "refused");
    EXPECT_EQ(why, "no more certificates can be made");
}

TEST_F(known_agents_test, a_name_is_revoked_while_it_renews) {
    prove(1, 1);
    EXPECT_EQ(by_proof(1, 7), "sign2");
    revoke();
    agent_proof issued = proof(2);
    EXPECT_FALSE(agents->note_issued(issued, error)); /* it is not given out */
    EXPECT_EQ(error, "revoked meanwhile, or a later certificate is in use");
    EXPECT_EQ(look().kept.ends, 0);
    EXPECT_EQ(poll(2), "revoked"); /* nor would it help */
    EXPECT_EQ(show(2), "revoked");
    protocol::sha256 secret;
    invite(secret);
    EXPECT_EQ(by_token(secret, 8), "sign3");
    EXPECT_EQ(poll(2), "revoked");
    EXPECT_FALSE(agents->note_issued(issued, error));
    EXPECT_EQ(poll(3), "good");
}

TEST_F(known_agents_test, a_request_waits_for_its_key_to_be_admitted) {
    EXPECT_EQ(by_request(7), "waits");
    EXPECT_EQ(waiting().key, key(7));
    EXPECT_FALSE(waiting().contested);
    EXPECT_FALSE(admit("web", 8));
    EXPECT_EQ(error, "");
    EXPECT_EQ(by_request(7), "waits");
    EXPECT_TRUE(admit("web", 7)) << error;
    EXPECT_EQ(listed(), 0u);
    EXPECT_FALSE(look().invited); /* there is no token that anybody could use */
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_EQ(by_request(7, "db"), "waits");
    EXPECT_EQ(by_request(7), "sign1");
    EXPECT_EQ(by_request(7), "sign1");
    EXPECT_EQ(poll(), "unproven");
    EXPECT_EQ(poll(1), "good*");
    start(agents_mode::proven);
    EXPECT_EQ(by_request(7), "sign1");
    now += 7 * 24 * 3600;
    EXPECT_EQ(by_request(7), "waits"); /* who knows who has that key by now */
}

TEST_F(known_agents_test, the_key_that_waits_is_admitted_when_none_is_named) {
    EXPECT_EQ(by_request(7), "waits");
    EXPECT_EQ(poll(nullptr, "web", "198.51.100.1"), "waits");
    EXPECT_EQ(waiting().address, "192.0.2.1"); /* of the key */
    EXPECT_TRUE(admit()) << error;
    EXPECT_EQ(by_request(7), "sign1");
}

TEST_F(known_agents_test, a_name_admitted_without_a_key_gives_no_certificate_away) {
    EXPECT_TRUE(admit("web", {}, true)) << error;
    EXPECT_EQ(poll(), "unproven");
    EXPECT_EQ(by_request(7), "waits");
    EXPECT_EQ(waiting().key, key(7));
    EXPECT_EQ(look().kept.admitted, 1000000);
    EXPECT_TRUE(admit("web", 7)) << error;
    EXPECT_EQ(by_request(7), "sign1");
}

TEST_F(known_agents_test, of_two_keys_one_has_to_be_named) {
    EXPECT_EQ(by_request(7, "web", "192.0.2.1"), "waits");
    now += 30;
    EXPECT_EQ(by_request(8, "web", "192.0.2.2"), "waits");
    EXPECT_EQ(waiting().key, key(7)); /* the first, as long as it asks */
    EXPECT_EQ(waiting().address, "192.0.2.1");
    EXPECT_TRUE(waiting().contested);
    EXPECT_FALSE(admit());
    EXPECT_EQ(error, "another host asks under this name, with another key: say which one to admit");
    now += 29;
    EXPECT_EQ(by_request(7), "waits");
    now += 59;
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_EQ(waiting().key, key(7));
    now += 1;
    EXPECT_EQ(by_request(8, "web", "192.0.2.2"), "waits"); /* it is silent */
    EXPECT_EQ(waiting().key, key(8));
    EXPECT_EQ(waiting().address, "192.0.2.2");
    EXPECT_TRUE(waiting().contested);
    EXPECT_FALSE(admit("web", 7));
    EXPECT_TRUE(admit("web", 7, true)) << error; /* whatever waits */
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_EQ(by_request(7), "sign1");
    EXPECT_EQ(waiting().key, key(8)); /* it is still somebody else */
    for (int i = 0; i < 10; i++) {
        now += 60;
        EXPECT_EQ(by_request(8), "waits");
    }
    EXPECT_FALSE(waiting().contested);
    EXPECT_TRUE(admit()) << error;
    EXPECT_EQ(by_request(8), "sign2");
}

/* Anybody may ask under the name of an agent that works; admitting him ends its certificate. */
TEST_F(known_agents_test, who_asks_under_a_proven_name_has_to_be_named) {
    protocol::sha256 secret;
    invite(secret);
    EXPECT_EQ(by_token(secret, 7), "sign1");
    agent_proof issued = proof(1);
    issued.key = key(7);
    EXPECT_TRUE(agents->note_issued(issued, error)) << error;
    EXPECT_EQ(poll(1), "good*");
    EXPECT_EQ(by_request(8, "web", "198.51.100.1"), "waits");
    EXPECT_TRUE(waiting().contested);
    EXPECT_TRUE(agents->all().at(0).waiting.value_or(waiting_agent()).contested);
    EXPECT_FALSE(admit());
    EXPECT_EQ(error, "another host asks under this name, with another key: say which one to admit");
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_EQ(poll(1), "good");
    EXPECT_TRUE(admit("web", 8)) << error; /* the host was set up anew, say */
    EXPECT_EQ(by_request(8), "sign2");
}

TEST_F(known_agents_test, a_key_in_the_place_of_another_is_told_apart) {
    EXPECT_EQ(by_request(7), "waits");
    now += 60;
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_EQ(waiting().key, key(8));
    EXPECT_TRUE(waiting().contested);
    now += 540;
    EXPECT_FALSE(waiting().contested);
}

TEST_F(known_agents_test, a_key_is_forgotten_that_has_not_asked_for_an_hour) {
    EXPECT_EQ(by_request(7), "waits");
    for (int i = 0; i < 60; i++) {
        now += 60;
        EXPECT_EQ(poll(), "waits");
    }
    EXPECT_TRUE(look().waiting.has_value());
    EXPECT_FALSE(waiting().key.has_value());
    EXPECT_TRUE(admit()) << error;
    EXPECT_EQ(by_request(7), "waits");
}

TEST_F(known_agents_test, what_hosts_know_of_authorities_is_written_once) {
    prove(1, 1);
    EXPECT_TRUE(agents->note_authorities({"a@x", "web"}, key(1), error)) << error;
    EXPECT_EQ(look().kept.knows, key(1));
    uint64_t seen = kept->version();
    EXPECT_TRUE(agents->note_authorities({"a@x", "web"}, key(1), error)) << error;
    EXPECT_FALSE(kept->has_changed(seen));
    error = "old";
    EXPECT_FALSE(agents->note_authorities({"a@x", "nobody"}, key(1), error));
    EXPECT_EQ(error, "");
    start(agents_mode::proven);
    EXPECT_EQ(look().kept.knows, key(1));
}

/* ---- revoking ---- */

TEST_F(known_agents_test, revoking_ends_everything) {
    EXPECT_EQ(by_request(7), "waits");
    EXPECT_TRUE(admit("web", 7)) << error;
    EXPECT_EQ(by_request(7), "sign1");
    EXPECT_EQ(poll(1), "good*");
    protocol::sha256 first, second;
    invite(first);
    invite(second);
    EXPECT_EQ(by_token(second, 9), "sign2");
    EXPECT_EQ(by_request(8), "waits");
    EXPECT_TRUE(admit("web", 8)) << error;
    EXPECT_EQ(by_request(10), "waits");
    now += 5;
    revoke();
    EXPECT_EQ(look().kept.revoked, 1000005);
    EXPECT_EQ(look().kept.by, "bob");
    EXPECT_EQ(look().kept.admitted, 0);
    EXPECT_FALSE(look().invited);
    EXPECT_EQ(listed(), 0u);
    for (bool again : {false, true}) {
        if (again) {
            start(agents_mode::proven);
        }
        EXPECT_EQ(by_token(first, 11), "refused");
        EXPECT_EQ(why, "this token is not known");
        EXPECT_EQ(by_token(second, 9), "refused"); /* its answer asked for again */
        EXPECT_EQ(why, "revoked meanwhile, or a later certificate is in use");
        EXPECT_EQ(by_request(7), "refused");
        EXPECT_EQ(why, "this agent is revoked");
        EXPECT_EQ(by_request(8), "refused");
        EXPECT_EQ(by_request(10), "refused");
        EXPECT_EQ(by_proof(1, 12), "refused");
        EXPECT_EQ(by_proof(2, 12), "refused");
        EXPECT_EQ(poll(1), "revoked");
        EXPECT_EQ(poll(), "revoked");
        EXPECT_EQ(listed(), 0u);
    }
    now += 5;
    EXPECT_TRUE(agents->revoke("a@x", "web", false, "eve", error)) << error; /* it is already */
    EXPECT_EQ(look().kept.by, "bob");
    EXPECT_EQ(look().kept.revoked, 1000005);
}

TEST_F(known_agents_test, who_is_not_known_cannot_be_revoked) {
    error = "old";
    EXPECT_FALSE(agents->revoke("a@x", "web", false, "bob", error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(poll(), "waits");
    EXPECT_FALSE(agents->revoke("a@x", "web", false, "bob", error)); /* that is to be refused */
    EXPECT_EQ(listed(), 1u);
}

/* Whoever revokes a name wants it to stay out, in `any` as well. */
TEST_F(known_agents_test, a_name_that_was_only_invited_is_revoked) {
    for (agents_mode mode : modes) {
        const std::string name = "web" + std::to_string(static_cast<int>(mode));
        start(mode);
        protocol::sha256 secret;
        invite(secret, name);
        EXPECT_TRUE(agents->revoke("a@x", name, false, "bob", error)) << error;
        EXPECT_EQ(by_token(secret, 7), "refused");
        start(mode);
        EXPECT_EQ(look(name).kept.revoked, 1000000);
        EXPECT_EQ(look(name).kept.by, "bob");
        EXPECT_EQ(poll(nullptr, name), "revoked");
        invite(secret, name);
        EXPECT_EQ(by_token(secret, 7), "sign1");
        EXPECT_EQ(poll(nullptr, name), mode == agents_mode::any ? "good" : "unproven");
    }
}

/* As behind a lost settings.db, when who was revoked is to be so again. */
TEST_F(known_agents_test, a_name_of_which_nothing_was_decided_is_revoked_when_it_is_wanted) {
    for (agents_mode mode : modes) {
        const std::string name = "web" + std::to_string(static_cast<int>(mode));
        start(mode);
        EXPECT_EQ(poll(nullptr, name), mode == agents_mode::any ? "good" : "waits");
        EXPECT_TRUE(agents->revoke("a@x", name, true, "bob", error)) << error;
        EXPECT_EQ(listed(), 0u);
        start(mode);
        EXPECT_EQ(poll(nullptr, name), "revoked");
        const agent_proof shown = proof(3, name);
        EXPECT_EQ(poll(&shown, name), "revoked");
    }
}

TEST_F(known_agents_test, what_was_revoked_may_be_let_in_again) {
    start(agents_mode::known);
    EXPECT_TRUE(admit("db", {}, true)) << error;
    revoke("db");
    EXPECT_EQ(poll(nullptr, "db"), "revoked");
    EXPECT_FALSE(admit("db")); /* nothing waits */
    EXPECT_TRUE(admit("db", {}, true)) << error;
    EXPECT_EQ(poll(nullptr, "db"), "good"); /* it never had a certificate */
    prove(1, 2);
    revoke();
    EXPECT_TRUE(admit("web", 7, true)) << error;
    EXPECT_EQ(poll(), "unproven");
    EXPECT_EQ(poll(1), "revoked");
    EXPECT_EQ(poll(2), "revoked");
    EXPECT_EQ(by_request(7), "sign3");
    EXPECT_EQ(poll(3), "good");
}

/* ---- the file ---- */

TEST_F(known_agents_test, what_another_process_decides_is_seen_with_the_next_refresh) {
    prove(1, 2);
    EXPECT_EQ(poll(2), "good*");
    pid_t child = fork();
    if (child == 0) {
        std::string n, e;
        auto own = settings::open(directory / "state", n, e);
        known_agents theirs(*own, agents_mode::proven, [] { return int64_t{1000000}; });
        bool done = theirs.refresh(e) && theirs.revoke("a@x", "web", false, "bob", e) &&
                    theirs.admit("a@x", "db", key(7), true, "bob", e) &&
                    theirs.invite("a@x", "ns", 3600, "bob", e).has_value();
        _exit(done ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(by_proof(2, 7), "refused"); /* the file counts, at once */
    EXPECT_EQ(poll(2), "revoked");
    EXPECT_TRUE(agents->refresh(error)) << error;
    EXPECT_EQ(poll(2), "revoked");
    EXPECT_EQ(by_request(7, "db"), "sign1");
    EXPECT_TRUE(look("ns").invited);
    EXPECT_EQ(agents->all().size(), 3u);
}

TEST_F(known_agents_test, what_it_changes_itself_it_need_not_read) {
    prove(1, 1);
    EXPECT_TRUE(agents->note_authorities({"a@x", "web"}, key(1), error)) << error;
    EXPECT_EQ(by_proof(1, 7), "sign2");
    EXPECT_TRUE(agents->note_issued(proof(2), error)) << error;
    EXPECT_EQ(poll(2), "good*");
    EXPECT_TRUE(agents->keep_promotion(proof(2), error)) << error;
    EXPECT_TRUE(admit("db", 5, true)) << error;
    protocol::sha256 secret;
    invite(secret, "ns");
    revoke("db");
    const std::vector<agent_standing> before = agents->all();
    EXPECT_TRUE(agents->refresh(error)) << error;
    std::string note, e; /* what is read all anew is the same */
    known_agents fresh(*kept, agents_mode::proven, [this] { return now.load(); });
    EXPECT_TRUE(fresh.refresh(error)) << error;
    const std::vector<agent_standing> after = fresh.all();
    ASSERT_EQ(before.size(), 3u);
    ASSERT_EQ(after.size(), 3u);
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(before[i].kept.agent, after[i].kept.agent);
        EXPECT_EQ(before[i].kept.admitted, after[i].kept.admitted);
        EXPECT_EQ(before[i].kept.revoked, after[i].kept.revoked);
        EXPECT_EQ(before[i].kept.highest, after[i].kept.highest);
        EXPECT_EQ(before[i].kept.good_from, after[i].kept.good_from);
        EXPECT_EQ(before[i].kept.key, after[i].kept.key);
        EXPECT_EQ(before[i].kept.knows, after[i].kept.knows);
        EXPECT_EQ(before[i].kept.by, after[i].kept.by);
        EXPECT_EQ(before[i].invited, after[i].invited);
    }
}

/* Somebody else writes right ahead of each change. */
struct settings_of_many : decisions_alone {
    int others = 0;
    bool change_identity(std::string_view account, std::string_view agent,
                         const std::function<bool(stored_identity&)>& change,
                         std::string& error) override {
        const std::string theirs = "other" + std::to_string(others++);
        identities[{"a@x", theirs}] = {.account = "a@x", .agent = theirs, .admitted = 5};
        changed();
        return decisions_in_memory::change_identity(account, agent, change, error);
    }
};

TEST_F(known_agents_test, what_others_change_meanwhile_is_read) {
    settings_of_many shared;
    known_agents mine(shared, agents_mode::known, [this] { return now.load(); });
    EXPECT_TRUE(mine.refresh(error)) << error;
    EXPECT_TRUE(mine.admit("a@x", "web", {}, true, "ann", error)) << error;
    EXPECT_TRUE(mine.refresh(error)) << error;
    EXPECT_EQ(mine.all().size(), 2u);
    EXPECT_FALSE(mine.note_issued(proof(1, "nobody"), error)); /* nothing of its own changes */
    EXPECT_TRUE(mine.refresh(error)) << error;
    EXPECT_EQ(mine.all().size(), 3u);
}

TEST_F(known_agents_test, what_cannot_be_written_is_not_done) {
    prove(1, 2);
    protocol::sha256 secret;
    invite(secret, "db");
    EXPECT_EQ(by_request(7, "ns"), "waits");
    {
        const full_disk none;
        EXPECT_EQ(by_token(secret, 7), "unavailable");
        EXPECT_NE(why, "");
        EXPECT_EQ(by_proof(1, 7), "unavailable");
        EXPECT_NE(why, "");
        EXPECT_FALSE(admit("ns"));
        EXPECT_NE(error, "");
        EXPECT_FALSE(agents->revoke("a@x", "web", false, "bob", error));
        EXPECT_NE(error, "");
        EXPECT_FALSE(agents->invite("a@x", "x", 3600, "ann", error).has_value());
        EXPECT_NE(error, "");
        EXPECT_FALSE(agents->note_issued(proof(2), error));
        EXPECT_FALSE(agents->note_authorities({"a@x", "web"}, key(1), error));
        size_t admitted = 0;
        EXPECT_FALSE(agents->admit_all({{"a@x", "y"}}, admitted, error));
        EXPECT_EQ(poll(1), "good"); /* polls go on */
    }
    EXPECT_EQ(look().kept.revoked, 0);
    EXPECT_EQ(listed(), 1u);
    EXPECT_EQ(by_token(secret, 7), "sign1");
    EXPECT_TRUE(admit("ns")) << error;
    EXPECT_EQ(by_request(7, "ns"), "sign1");
    EXPECT_EQ(by_proof(1, 7), "sign3");
}

TEST_F(known_agents_test, the_names_of_the_store_are_admitted_at_the_first_start) {
    start(agents_mode::known);
    size_t admitted = 0;
    EXPECT_TRUE(agents->admit_all({{"a@x", "web"}, {"b@x", "db"}}, admitted, error)) << error;
    EXPECT_EQ(admitted, 2u);
    EXPECT_EQ(poll(), "good");
    EXPECT_EQ(poll(nullptr, "new"), "waits");
    start(agents_mode::known);
    EXPECT_TRUE(agents->admit_all({{"a@x", "new"}}, admitted, error)) << error;
    EXPECT_EQ(admitted, 0u);
    EXPECT_EQ(poll(), "good");
    EXPECT_EQ(poll(nullptr, "new"), "waits");
    start(agents_mode::proven);
    EXPECT_EQ(poll(), "unproven");
}

TEST_F(known_agents_test, all_are_told_in_the_order_of_their_names) {
    enum { many = 1000 }; /* more than are copied at once */
    std::vector<protocol::agent_identity> names;
    for (int i = 0; i < many; i++) {
        names.push_back({"a@x", "n" + std::to_string(1000 + i)});
    }
    size_t admitted = 0;
    EXPECT_TRUE(agents->admit_all(names, admitted, error)) << error;
    EXPECT_EQ(poll(nullptr, "a"), "waits");
    EXPECT_EQ(by_request(1, "n1500"), "waits");
    protocol::sha256 secret;
    invite(secret, "z");
    const std::vector<agent_standing> all = agents->all();
    ASSERT_EQ(all.size(), size_t{many + 2});
    EXPECT_EQ(all.front().kept.agent, "a");
    EXPECT_TRUE(all.front().waiting.has_value());
    EXPECT_EQ(all.front().kept.admitted, 0);
    EXPECT_TRUE(all.back().invited);
    EXPECT_EQ(all.back().kept.account, "a@x");
    for (size_t i = 0; i < many; i++) {
        EXPECT_EQ(all[i + 1].kept.agent, names[i].agent);
        EXPECT_EQ(all[i + 1].waiting.has_value(), i == 500) << i;
    }
}

/* ---- threads ---- */

/* The network thread asks while others decide. */
TEST_F(known_agents_test, polls_go_on_while_others_decide) {
    prove(1, 1);
    std::atomic<bool> over = false;
    std::atomic<int> bad = 0;
    std::thread network([&] {
        uint32_t newest = 1;
        std::string who_else;
        for (int i = 0; !over || i < 100; i++) {
            bool first = false;
            const agent_proof mine = proof(newest), later = proof(newest + 1);
            bad += agents->may_show(mine) != standing::good;
            bad += agents->may_go_by("a@x", "web", &mine, "192.0.2.1", first) != standing::good;
            if (agents->may_go_by("a@x", "web", &later, "192.0.2.1", first) == standing::good) {
                newest++;
            }
            agents->may_go_by("a@x", "w" + std::to_string(i % 50), nullptr,
                              "192.0.2." + std::to_string(i % 7), first);
        }
    });
    std::thread reader([&] {
        while (!over) {
            agents->all();
            agents->find("a@x", "web");
        }
    });
    std::thread admin([&] {
        for (int i = 0; i < 20; i++) {
            const std::string name = "w" + std::to_string(i);
            std::string e;
            agents->admit("a@x", name, std::nullopt, i % 2 == 0, "ann", e);
            bad += !agents->invite("a@x", name, 3600, "ann", e).has_value();
            agents->revoke("a@x", name, false, "ann", e);
            agents->refuse("a@x", "w" + std::to_string(i + 20), e);
        }
    });
    uint32_t given = 1;
    for (int i = 0; i < 20; i++) { /* the worker of enrolments */
        std::string e, reason;
        protocol::agent_identity name;
        uint32_t number = 0;
        auto now_kept = agents->find("a@x", "web").value_or(agent_standing()).kept;
        agent_proof shown = proof(now_kept.good_from);
        if (agents->enrol_by_proof(shown, key(i), name, number, reason) == answer::sign) {
            bad += number != ++given || !agents->note_issued(proof(number), e);
        }
        agents->keep_promotion(
            proof(agents->find("a@x", "web").value_or(agent_standing()).kept.good_from), e);
        bad += !agents->refresh(e);
    }
    admin.join();
    over = true;
    network.join();
    reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_GT(given, 1u);
    EXPECT_EQ(look().kept.highest, given);
}

/* Renewals of many at once each count on by one. */
TEST_F(known_agents_test, many_renew_at_once) {
    enum { hosts = 50, threads = 4 };
    for (int i = 0; i < hosts; i++) {
        EXPECT_TRUE(kept->put_identity({.account = "a@x",
                                        .agent = "h" + std::to_string(i),
                                        .admitted = 5,
                                        .highest = 1,
                                        .good_from = 1},
                                       error))
            << error;
    }
    EXPECT_TRUE(agents->refresh(error)) << error;
    std::atomic<int> signed_now = 0;
    std::vector<std::thread> all;
    for (int t = 0; t < threads; t++) {
        all.emplace_back([&, t] {
            for (int i = t; i < hosts; i += threads) {
                protocol::agent_identity name;
                uint32_t number = 0;
                std::string reason, e;
                agent_proof shown = proof(1, "h" + std::to_string(i));
                if (agents->enrol_by_proof(shown, key(i), name, number, reason) == answer::sign &&
                    number == 2 && agents->note_issued(proof(2, name.agent), e)) {
                    signed_now++;
                }
            }
        });
    }
    for (std::thread& t : all) {
        t.join();
    }
    EXPECT_EQ(signed_now, hosts);
}
