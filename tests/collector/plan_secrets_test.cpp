#include "plan/file.cpp"

#include "collector_test_support.h"
#include "plan/commands_for_agents.h"
#include "plan/summary.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

static double pinned_seconds = 1000;

using strings = std::vector<std::string>;

/* A plan with secrets; the clock by which its file lies still is pinned. */
struct plan_secrets_test : testing::Test {
    scratch_directory directory;
    std::string path = directory / "plan", state = directory / "state";
    std::unique_ptr<settings> kept;
    std::unique_ptr<known_secrets> secrets;
    std::unique_ptr<plan> p;
    strings problems; /* "number reason" */
    std::string error;

    void SetUp() override {
        read_clock_ns = [](clockid_t clock) {
            return clock == CLOCK_MONOTONIC ? static_cast<int64_t>(pinned_seconds * 1e9) : 0;
        };
        std::filesystem::create_directory(state);
        std::filesystem::permissions(state, std::filesystem::perms::owner_all);
        std::string note;
        kept = settings::open(state, note, error);
        ASSERT_TRUE(kept) << error;
        secrets = std::make_unique<known_secrets>(*kept, state);
    }
    void TearDown() override { read_clock_ns = clock_ns; }

    void set(const std::string& name, const std::string& value) {
        ASSERT_TRUE(secrets->set(name, value, "ann", 1, error)) << error;
    }
    void remove(const std::string& name) { ASSERT_TRUE(secrets->remove(name, error)) << error; }

    bool start(const std::string& text) {
        write_text(path, text);
        p = std::make_unique<plan>(
            path,
            [this](const plan_problem& problem) {
                problems.push_back(std::to_string(problem.number) + " " + problem.reason);
            },
            nullptr, secrets.get());
        return p->refresh();
    }
    /* The file is another one from now on. */
    void edit(const std::string& text) {
        write_text(path + ".new", text);
        std::filesystem::rename(path + ".new", path);
        pinned_seconds += 2;
        p->refresh();
    }
    /* What an agent that is up to `after` is sent next. */
    std::string sent(uint64_t after, bool proven = true) {
        p->refresh();
        return p->text_after(after, proven);
    }
    strings take_problems() { return std::exchange(problems, {}); }
};

static std::string page(const std::string& code, int id, const std::string& user,
                        const std::string& password, const std::string& path = "/") {
    return code + "\t" + std::to_string(id) + "\t1\twww.example.org\t" + path + "\t80\t\t\t" +
           user + "\t" + password + "\t5\t0\t0\t0\t0\t0\n";
}
static const std::string load = "LAA\t5\t1\t1\t2\t3\n";
static const std::string secret_page = page("HPA", 7, "ann", "${secret:web}");

/* ---- checking ---- */

TEST_F(plan_secrets_test, a_secret_stands_in_texts_alone) {
    set("a", "1");
    EXPECT_TRUE(start("LAA\t${secret:a}\t1\t1\t2\t3\n"
                      "LAA\t5\t1\t${secret:a}\t2\t3\n"
                      "POL\t${secret:a}\t60\n"
                      "DKA\t6\t1\t/\t${secret:a}\n"
                      "NTA\t7\t1\teth0\t1\t1\t1\t1\t1\t1\t${secret:a}\n"
                      "${secret:a}\t1\t1\n"
                      "SPD\t${secret:a}\n"
                      "LAA\t8\t1\t1\t2\t3\t${secret:a}\n"));
    EXPECT_EQ(take_problems(),
              (strings{"1 the test id is a number, which no secret can be",
                       "2 the 1 min maximum is a number, which no secret can be",
                       "3 a secret stands in a field that means nothing",
                       "4 the amount is a number, which no secret can be",
                       "5 a secret stands in a field that means nothing",
                       "6 unknown code \"${secret:a}\"", "7 SPD removes no test: use STD"}));
    EXPECT_EQ(sent(0), "LAA\t8\t1\t1\t2\t3\t1\n");
}

/* What stands there instead of a name may be the secret itself. */
TEST_F(plan_secrets_test, what_is_begun_and_is_no_placeholder_is_refused_and_not_said) {
    const std::string reason = " \"${secret:\" is begun, and no name and \"}\" follow: a name is 1 "
                               "to 64 letters, digits, \"-\", \"_\" and \".\"";
    int number = 0;
    std::string text = load;
    strings expected;
    for (const std::string& bad :
         {std::string("${secret:"), std::string("${secret:}"), std::string("${secret:hunter2"),
          std::string("${secret:a b}"), "${secret:" + std::string(65, 'x') + "}",
          std::string("${secret:a}${secret:")}) {
        text += page("HPA", 20 + number++, "ann", bad);
        expected.push_back(std::to_string(1 + number) + reason);
    }
    start(text);
    EXPECT_EQ(take_problems(), expected);
    EXPECT_EQ(p->lines().size(), 1u);
}

TEST_F(plan_secrets_test, the_rest_of_a_line_is_checked_all_the_same) {
    start("LAA\t5\t1\t1\t2\t${secret:no}\nMQA\t1\t1\th\t0\t\tu\t${secret:no}\tUptime\n" + load);
    EXPECT_EQ(take_problems(), (strings{"1 the 15 min maximum is a number, which no secret can be",
                                        "2 MQA takes 10 fields, here are 9"}));
}

/* ---- sending ---- */

TEST_F(plan_secrets_test, the_value_is_for_agents_that_have_proven_themselves) {
    set("web", "s3cret");
    start(load + secret_page);
    EXPECT_EQ(take_problems(), strings());
    const std::string with_value = page("HPA", 7, "ann", "s3cret");
    EXPECT_EQ(sent(0), load + with_value);
    EXPECT_EQ(sent(0, false), load);
    EXPECT_EQ(p->text_for_new(true), load + with_value);
    EXPECT_EQ(p->text_for_new(false), load);
    EXPECT_EQ(p->text_for_running({}, true),
              load + "LAM\t5\t1\t1\t2\t3\n" + with_value + page("HPM", 7, "ann", "s3cret"));
    EXPECT_EQ(p->text_for_running({}, false), load + "LAM\t5\t1\t1\t2\t3\n");
    EXPECT_EQ(p->text_for_check(true), "LAM\t5\t1\t1\t2\t3\n" + page("HPM", 7, "ann", "s3cret"));
    EXPECT_EQ(p->text_for_check(false), "LAM\t5\t1\t1\t2\t3\n");
    ASSERT_EQ(p->lines().size(), 2u);
    EXPECT_EQ(p->lines()[1].text + "\n", secret_page);
}

TEST_F(plan_secrets_test, a_test_is_told_as_a_whole_or_not_at_all) {
    set("web", "s3cret");
    const std::string change = page("HPM", 7, "ann", "${secret:web}"),
                      plain = page("HPA", 7, "ann", "open");
    start(plain + change + "HPD\t7\n" + plain + load);
    EXPECT_EQ(sent(0), plain + page("HPM", 7, "ann", "s3cret") + "HPD\t7\n" + plain + load);
    EXPECT_EQ(sent(0, false), "HPD\t7\n" + load) << "what removes it is for everybody";
}

/* Somebody who looks at what agents are sent from the first line on. */
TEST_F(plan_secrets_test, a_changed_value_comes_as_a_modify_command) {
    set("web", "one");
    set("other", "x");
    start(load + secret_page + page("HPA", 8, "${secret:other}", "p"));
    uint64_t at = p->newest();
    EXPECT_EQ(sent(at), "");
    set("web", "two");
    EXPECT_EQ(sent(at), page("HPM", 7, "ann", "two"));
    EXPECT_EQ(sent(at, false), "");
    EXPECT_EQ(sent(at), page("HPM", 7, "ann", "two")) << "an answer that was lost comes again";
    set("web", "three");
    EXPECT_EQ(sent(at), page("HPM", 7, "ann", "three")) << "once";
    uint64_t later = p->newest();
    EXPECT_EQ(sent(later), "");
    set("web", "three");
    EXPECT_EQ(sent(later), page("HPM", 7, "ann", "three")) << "somebody set it again";
    EXPECT_EQ(sent(0), load + page("HPA", 7, "ann", "three") + page("HPA", 8, "x", "p"))
        << "an add line has it already";
    EXPECT_EQ(take_problems(), strings());
}

TEST_F(plan_secrets_test, the_last_line_says_what_a_test_is) {
    set("web", "one");
    start(page("HPA", 7, "ann", "${secret:web}") + page("HPM", 7, "bob", "${secret:web}"));
    uint64_t at = p->newest();
    set("web", "two");
    EXPECT_EQ(sent(at), page("HPM", 7, "bob", "two"));
    edit(page("HPA", 7, "ann", "${secret:web}") + page("HPM", 7, "bob", "${secret:web}") +
         page("HPM", 7, "carl", "${secret:web}"));
    EXPECT_EQ(sent(at), page("HPM", 7, "carl", "two")) << "new, and changed: once";
    edit(page("HPA", 7, "ann", "${secret:web}") + "HPD\t7\n");
    at = p->newest();
    set("web", "three");
    EXPECT_EQ(sent(at), "") << "it is removed";
}

TEST_F(plan_secrets_test, a_name_that_there_is_not_keeps_its_test_back) {
    start(load + secret_page);
    strings first = take_problems();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_TRUE(first[0].starts_with("2 there is no secret \"web\": until there is, http test 7"))
        << first[0];
    uint64_t at = p->newest();
    EXPECT_EQ(sent(0), load);
    EXPECT_EQ(p->text_for_new(true), load);
    EXPECT_EQ(take_problems(), strings()) << "told once";
    set("web", "one");
    EXPECT_EQ(sent(at), page("HPA", 7, "ann", "one") + page("HPM", 7, "ann", "one"))
        << "whether an agent has it is not known";
    EXPECT_EQ(sent(0), load + page("HPA", 7, "ann", "one") + page("HPM", 7, "ann", "one"));
    EXPECT_EQ(sent(at, false), "");
    EXPECT_EQ(take_problems(), strings());

    at = p->newest();
    remove("web");
    EXPECT_EQ(sent(at), "") << "it stays with agents that have it";
    EXPECT_EQ(take_problems(), first);
    EXPECT_EQ(p->text_for_running({{type_http, 7}}, true), load + "LAM\t5\t1\t1\t2\t3\n");
    set("web", "two");
    EXPECT_EQ(sent(at), page("HPA", 7, "ann", "two") + page("HPM", 7, "ann", "two"));
    at = p->newest();
    set("web", "three");
    EXPECT_EQ(sent(at), page("HPM", 7, "ann", "three"));
}

TEST_F(plan_secrets_test, one_missing_name_of_several_is_enough) {
    set("a", "1234");
    start(page("HPA", 7, "${secret:a}", "${secret:b}") + page("HPA", 8, "${secret:a}", "p"));
    EXPECT_EQ(take_problems().size(), 1u);
    uint64_t at = p->newest();
    EXPECT_EQ(sent(0), page("HPA", 8, "1234", "p"));
    set("b", "5678");
    EXPECT_EQ(sent(at), page("HPA", 7, "1234", "5678") + page("HPM", 7, "1234", "5678"));
}

TEST_F(plan_secrets_test, a_line_that_a_value_makes_too_long_is_told_without_it) {
    set("a", std::string(4096, 'x'));
    std::string sixteen;
    for (int i = 0; i < 16; i++) {
        sixteen += "${secret:a}";
    }
    start(load + page("HPA", 7, "ann", sixteen));
    strings told = take_problems();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0], "2 with its secrets the line is longer than 64 KiB: http test 7 is sent to "
                       "nobody");
    EXPECT_EQ(sent(0), load);
    uint64_t at = p->newest();
    set("a", std::string(4000, 'x'));
    EXPECT_EQ(sent(at).substr(0, 6), "HPA\t7\t");
    EXPECT_LE(sent(at).size(), 2 * longest_plan_line);
}

/* What the line itself has in it is sent, as in lines without secrets. */
TEST_F(plan_secrets_test, what_else_a_line_has_in_it_stays) {
    set("a", "1234");
    start(page("HPA", 7, "a\rb", "${secret:a}"));
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(sent(0), page("HPA", 7, "a\rb", "1234"));
}

/* No modify command makes anything of a walk; all kinds of SNMP tests share their ids; and a scan
 * goes on. */
TEST_F(plan_secrets_test, kinds_that_are_not_just_modified) {
    auto walk = [](const std::string& code, const std::string& community) {
        return code + "\t9\t1\th\t161\t0\t2\t1.3\t" + community + "\t\t\t\t\t\t1\t0\n";
    };
    auto table = [](const std::string& code, const std::string& community) {
        return code + "\t10\t1\th\t161\t0\t2\t1.3\t" + community + "\t\t\t\t\t\t1\t0\n";
    };
    auto scan = [](const std::string& code, const std::string& object) {
        return code + "\t12\t1\t10.0.0.1\t10.0.0.9\t" + object + "\n";
    };
    auto feed = [](const std::string& code, const std::string& peers) {
        return code + "\t13\t8080\t" + peers + "\n";
    };
    const std::string name = "${secret:s}";
    start(walk("SWA", name) + table("STA", name) + scan("DCA", name) + feed("TSA", name) +
          "UPD\tp\thttp://h/" + name + "\tsum\n");
    EXPECT_EQ(take_problems().size(), 5u);
    uint64_t at = p->newest();
    set("s", "one");
    /* By list; a command of no test first. */
    EXPECT_EQ(sent(at), "UPD\tp\thttp://h/one\tsum\n" + scan("DCA", "one") + "SWD\t9\n" +
                            walk("SWA", "one") + "SWD\t10\n" + table("STA", "one") +
                            feed("TSA", "one") + feed("TSM", "one"));
    at = p->newest();
    set("s", "two");
    EXPECT_EQ(sent(at), scan("DCM", "two") + "SWD\t9\n" + walk("SWA", "two") + table("STM", "two") +
                            feed("TSM", "two"))
        << "nothing is updated again";
    EXPECT_EQ(p->text_for_running({}, true),
              "SWD\t9\nSWD\t10\n" + walk("SWA", "two") + table("STA", "two") + scan("DCA", "two") +
                  feed("TSA", "two") + feed("TSM", "two") + "UPD\tp\thttp://h/two\tsum\n");
    EXPECT_EQ(p->text_for_running({{type_snmp, 9}, {type_snmp_table, 10}}, false), "")
        << "nothing is taken away that would not come again";
}

/* ---- agents that have not proven themselves ---- */

TEST_F(plan_secrets_test, what_such_an_agent_has_of_a_test_stays_until_it_is_removed) {
    set("web", "s3cret");
    const std::string plain = page("HPA", 7, "ann", "open");
    start(load + plain);
    uint64_t at = p->newest();
    edit(load + plain + page("HPM", 7, "ann", "${secret:web}"));
    EXPECT_EQ(sent(at, false), "");
    EXPECT_EQ(sent(at), page("HPM", 7, "ann", "s3cret"));
    EXPECT_EQ(p->text_for_running({{type_http, 7}}, false), load + "LAM\t5\t1\t1\t2\t3\n");
    at = p->newest();
    edit(load + plain + page("HPM", 7, "ann", "${secret:web}") + "HPD\t7\n");
    EXPECT_EQ(sent(at, false), "HPD\t7\n");
    edit(load);
    EXPECT_EQ(p->text_for_running({{type_http, 7}}, false),
              "HPD\t7\n" + load + "LAM\t5\t1\t1\t2\t3\n");
}

TEST_F(plan_secrets_test, a_test_that_has_no_secrets_any_more_is_for_everybody) {
    set("web", "s3cret");
    const std::string change = page("HPM", 7, "ann", "open");
    start(page("HPA", 7, "ann", "x") + page("HPM", 7, "ann", "${secret:web}"));
    uint64_t at = p->newest();
    EXPECT_EQ(sent(0, false), "");
    edit(page("HPA", 7, "ann", "x") + change);
    EXPECT_EQ(sent(at, false), page("HPA", 7, "ann", "x") + change);
    EXPECT_EQ(sent(at, true), page("HPA", 7, "ann", "x") + change);
}

TEST_F(plan_secrets_test, the_log_says_who_is_not_told) {
    set("web", "s3cret");
    start(load);
    strings log;
    known_tests none;
    commands_for_agents commands(*p, none, [&](const std::string& line) { log.push_back(line); });
    session known, other;
    known.account = other.account = "ann@example.org";
    known.agent = "web-1";
    other.agent = "web\n2";
    known.proven = true;
    EXPECT_EQ(commands.for_login(other).text, load);
    EXPECT_EQ(log, strings());
    uint64_t at = commands.for_login(other).upto;
    edit(load + secret_page + page("HPA", 8, "ann", "${secret:web}") + "LAM\t5\t1\t9\t9\t9\n");
    commands.refresh();
    EXPECT_EQ(commands.after(other, at).text, "LAM\t5\t1\t9\t9\t9\n");
    const std::string line = "web 2 of ann@example.org is not told of tests with secrets (2): it "
                             "has not proven who it is";
    EXPECT_EQ(log, strings{line});
    EXPECT_NE(commands.after(known, at).text.find("s3cret"), std::string::npos);
    at = commands.after(known, at).upto;
    EXPECT_EQ(commands.after(other, at).text, "");
    EXPECT_EQ(log.size(), 1u);
    for (int i = 0; i < 100; i++) {
        EXPECT_EQ(commands.for_login(other).text.find("s3cret"), std::string::npos);
        EXPECT_EQ(commands.text_for_check(other).find("s3cret"), std::string::npos);
    }
    EXPECT_GT(log.size(), 1u);
    EXPECT_LE(log.size(), 21u) << "bounded";
    EXPECT_NE(commands.for_login(known).text.find("s3cret"), std::string::npos);
    EXPECT_NE(commands.text_for_check(known).find("s3cret"), std::string::npos);
    EXPECT_LE(log.size(), 21u);
}

/* ---- what is kept of it ---- */

TEST_F(plan_secrets_test, definitions_have_the_name_and_never_the_value) {
    set("web", "s3cret");
    set("host", "h1dden");
    start(page("HPA", 7, "${secret:web}", "${secret:web}", "/${secret:web}/x?k=${secret:web}") +
          page("HPA", 8, "ann", "x${secret:web}") +
          "MQA\t9\t1\t${secret:host}\t0\t\tu\t${secret:web}\tUptime\t5\n");
    ASSERT_EQ(take_problems(), strings());
    std::vector<owned_definition> all = definitions_of(p->lines());
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].name, "www.example.org/${secret:web}/x");
    EXPECT_EQ(all[0].text, "7\t1\twww.example.org\t/${secret:web}/x\t80\t\t\t${secret:web}\t"
                           "${secret:web}\t5\t0\t0\t0\t0\t0");
    EXPECT_EQ(all[1].text, "8\t1\twww.example.org\t/\t80\t\t\tann\t\t5\t0\t0\t0\t0\t0")
        << "what else stands in a password's place is left out";
    EXPECT_EQ(all[2].name, "${secret:host}");
    EXPECT_EQ(all[2].text, "9\t1\t${secret:host}\t0\t\tu\t${secret:web}\tUptime\t5");
}

TEST_F(plan_secrets_test, the_list_says_how_many_lines_use_one) {
    set("web", "s3cret");
    set("idle", "x");
    start(secret_page + page("HPM", 7, "${secret:web}", "${secret:web}") +
          page("HPA", 8, "ann", "${secret:gone}"));
    std::vector<known_secrets::entry> list = secrets->list();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].used, 0u);
    EXPECT_EQ(list[1].used, 2u);
    edit(load);
    EXPECT_EQ(secrets->list()[1].used, 0u);
}

/* Also of a test that is planned no more: agents may have it. */
TEST_F(plan_secrets_test, what_a_test_may_say_back_is_hidden) {
    set("web", "s3cret");
    start(secret_page);
    auto message = [&](uint32_t test) {
        std::string bytes = record_builder{
            .ui32 = {type_http, test, 1, 2, 10, 302, 5},
            .i64 = {1000},
            .strings = {
                "at s3cret"}}.bytes();
        record r;
        std::string reason;
        EXPECT_TRUE(decode_record(bytes, r, reason)) << reason;
        secrets->hidden().cover(r);
        return std::string(r.strings[0]);
    };
    EXPECT_EQ(message(7), "at ******");
    EXPECT_EQ(message(8), "at s3cret");
    edit(load);
    EXPECT_EQ(message(7), "at ******");
}

/* Without secrets to know of, as where results that are missing are looked for. */
TEST_F(plan_secrets_test, a_plan_that_only_is_looked_at_has_its_lines) {
    write_text(path, secret_page + load);
    plan looked_at(path, [this](const plan_problem& problem) {
        problems.push_back(std::to_string(problem.number) + " " + problem.reason);
    });
    EXPECT_TRUE(looked_at.refresh());
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(looked_at.lines().size(), 2u);
    EXPECT_EQ(looked_at.text_after(0, true), load);
}
