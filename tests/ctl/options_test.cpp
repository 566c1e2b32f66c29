#include "ctl/failure.h"
#include "ctl/options.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

command_line read(std::vector<const char*> words) {
    words.insert(words.begin(), "vindralctl");
    return read_command_line(static_cast<int>(words.size()), words.data());
}

std::string text_of(const std::string& name) {
    std::ifstream file(std::string(VINDRAL_PACKAGING) + "/" + name);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_FALSE(text.str().empty()) << name;
    return text.str();
}

struct access_test : testing::Test {
    void SetUp() override {
        unsetenv("VINDRAL_URL");
        unsetenv("VINDRAL_TOKEN");
    }
    void TearDown() override { SetUp(); }

    static int status_of(const given& said) {
        try {
            access_of(said);
        } catch (const failure& f) {
            EXPECT_EQ(f.text.find("secret"), std::string::npos) << f.text;
            return f.status;
        }
        return status_well;
    }
};

} // namespace

TEST(options, a_command_with_its_options) {
    command_line line =
        read({"tests", "--agent", "web-1", "--state", "problem,unknown", "--fail", "--limit", "5"});
    ASSERT_EQ(line.outcome, reading::run) << line.text;
    EXPECT_STREQ(line.command->name, "tests");
    EXPECT_EQ(line.said.agent, "web-1");
    EXPECT_EQ(line.said.state, "problem,unknown");
    EXPECT_EQ(line.said.limit, 5);
    EXPECT_TRUE(line.said.fail);
    EXPECT_FALSE(line.said.json);
}

TEST(options, those_of_all_commands_may_stand_anywhere) {
    for (std::vector<const char*> words : {std::vector{"--json", "--url", "http://[::1]", "agents"},
                                           std::vector{"agents", "--json", "--url=http://[::1]"}}) {
        command_line line = read(words);
        ASSERT_EQ(line.outcome, reading::run) << line.text;
        EXPECT_TRUE(line.said.json);
        EXPECT_EQ(line.said.url, "http://[::1]");
    }
    command_line line = read({"agents", "show", "web-1", "--json"});
    ASSERT_EQ(line.outcome, reading::run) << line.text;
    EXPECT_STREQ(line.command->name, "agents show");
    EXPECT_EQ(line.said.word, "web-1");
    EXPECT_TRUE(line.said.json);
}

TEST(options, an_agent_may_be_called_like_a_command) {
    for (const char* name : {"show", "tests", "agents", "list"}) {
        command_line line = read({"agents", "show", name});
        ASSERT_EQ(line.outcome, reading::run) << name << ": " << line.text;
        EXPECT_STREQ(line.command->name, "agents show");
        EXPECT_EQ(line.said.word, name);
        line = read({"check", name});
        ASSERT_EQ(line.outcome, reading::run) << name << ": " << line.text;
        EXPECT_EQ(line.said.word, name);
    }
}

TEST(options, hosts_that_are_to_be_agents) {
    command_line line =
        read({"enrol", "web-1", "--account", "me@example.org", "--quiet", "--json"});
    ASSERT_EQ(line.outcome, reading::run) << line.text;
    EXPECT_STREQ(line.command->name, "enrol");
    EXPECT_EQ(line.said.word, "web-1");
    EXPECT_EQ(line.said.account, "me@example.org");
    EXPECT_TRUE(line.said.quiet && line.said.json);
    line = read({"agents", "admit", "web-1", "--key", "SHA256:x"});
    ASSERT_EQ(line.outcome, reading::run) << line.text;
    EXPECT_STREQ(line.command->name, "agents admit");
    EXPECT_EQ(line.said.key, "SHA256:x");
    for (std::vector<const char*> words : {std::vector<const char*>{"enrol"},
                                           {"enrol", ""},
                                           {"enrol", "web-1", "--account", ""},
                                           {"enrol", "web-1", "--ends", "+1d"},
                                           {"enrol", "https://a.example:8443", "ve_secret"},
                                           {"agents", "admit", "web-1", "--key", ""},
                                           {"agents", "waiting", "web-1"},
                                           {"agents", "refuse", "web-1", "--key", "SHA256:x"},
                                           {"revoke"}}) {
        line = read(words);
        EXPECT_EQ(line.outcome, reading::wrong) << testing::PrintToString(words);
        EXPECT_EQ(line.text.find("secret"), std::string::npos) << line.text;
    }
}

TEST(options, times_may_begin_with_a_minus_and_values_repeat) {
    command_line line = read({"series", "web-1:load", "--from", "-2h", "--to", "-1h", "--value",
                              "load1", "--value", "[x]", "--rate"});
    ASSERT_EQ(line.outcome, reading::run) << line.text;
    EXPECT_EQ(line.said.word, "web-1:load");
    EXPECT_EQ(line.said.from, "-2h");
    EXPECT_EQ(line.said.to, "-1h");
    EXPECT_EQ(line.said.values, (std::vector<std::string>{"load1", "[x]"}));
    EXPECT_TRUE(line.said.rate);
}

TEST(options, every_command_is_found) {
    for (const command_def& each : all_commands()) {
        std::istringstream name(each.name);
        std::vector<std::string> parts;
        for (std::string part; name >> part;) {
            parts.push_back(part);
        }
        std::vector<const char*> words;
        for (const std::string& part : parts) {
            words.push_back(part.c_str());
        }
        if (each.word != nullptr) {
            EXPECT_EQ(read(words).outcome, *each.word == '[' ? reading::run : reading::wrong)
                << each.name << " without its word";
            words.push_back("x");
        }
        command_line line = read(words);
        EXPECT_EQ(line.outcome, each.run != nullptr ? reading::run : reading::wrong) << each.name;
        EXPECT_TRUE(each.run == nullptr || line.command == &each) << each.name;
        words.push_back("--help");
        line = read(words);
        EXPECT_EQ(line.outcome, reading::show) << each.name;
        EXPECT_NE(line.text.find(each.help), std::string::npos) << line.text;
        for (const option_def* option : each.options) {
            EXPECT_NE(line.text.find(option->name), std::string::npos) << each.name;
        }
    }
}

TEST(options, what_is_wrong_is_said) {
    for (std::vector<const char*> words : {std::vector<const char*>{},
                                           {"nonsense"},
                                           {"agents", "nonsense"},
                                           {"agents", "show"},
                                           {"agents", "show", "a", "b"},
                                           {"agents", "--from", "-2h"},
                                           {"tests", "--limit", "-1"},
                                           {"tests", "--limit", "x"},
                                           {"tests", "--limit"},
                                           {"series", "1", "--points", "0"},
                                           {"agents", "tests"},
                                           {"series", "1", "--height", "1"}}) {
        command_line line = read(words);
        EXPECT_EQ(line.outcome, reading::wrong) << testing::PrintToString(words);
        EXPECT_FALSE(line.text.empty());
    }
    command_line line = read({"agents", "--tokn", "vt_secret\x1b"});
    EXPECT_EQ(line.outcome, reading::wrong);
    EXPECT_EQ(line.text.find("secret"), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find('\x1b'), std::string::npos);
}

TEST(options, what_is_close_is_said) {
    struct {
        std::vector<const char*> words;
        const char *text, *help;
    } cases[] = {
        {{"agent"}, "there is no command \"agent\"; agents?", "vindralctl --help"},
        {{"nonsense"}, "there is no command \"nonsense\"", "vindralctl --help"},
        {{"agents", "--stat", "ok"},
         "agents: there is no option --stat; --state?",
         "vindralctl agents --help"},
        {{"agents", "--jsn=x"},
         "agents: there is no option --jsn; --json?",
         "vindralctl agents --help"},
        {{"agents", "sho", "x"},
         "agents: there is no command \"sho\"; show?",
         "vindralctl agents --help"},
        {{"version", "x"}, "version: \"x\" is one word too many", "vindralctl version --help"},
        {{}, "a command is missing", "vindralctl --help"},
        {{"--xyz", "vt_secret", "agents"},
         "agents: there is no option --xyz",
         "vindralctl agents --help"},
    };
    for (const auto& each : cases) {
        command_line line = read(each.words);
        EXPECT_EQ(line.outcome, reading::wrong);
        EXPECT_EQ(line.text, each.text);
        EXPECT_EQ(line.help, each.help);
    }
}

TEST(options, lines_of_help_have_no_blanks_at_their_ends) {
    for (std::vector<const char*> words : {std::vector<const char*>{"--help"},
                                           {"agents", "show", "--help"},
                                           {"series", "--help"},
                                           {"tokens", "--help"}}) {
        const std::string text = read(words).text;
        EXPECT_EQ(text.find(" \n"), std::string::npos) << text;
    }
}

/* Of a variable that was not set, mostly: with all agents in place of one, --fail would lie. */
TEST(options, a_value_is_not_empty) {
    for (std::vector<const char*> words : {std::vector<const char*>{"tests", "--agent", ""},
                                           {"watch", "--test", ""},
                                           {"agents", "--state", ""},
                                           {"series", "1", "--value", ""},
                                           {"agents", "--url", ""},
                                           {"--token", "", "agents"},
                                           {"agents", "--token-file", ""},
                                           {"check", ""}}) {
        command_line line = read(words);
        EXPECT_EQ(line.outcome, reading::wrong) << testing::PrintToString(words);
        EXPECT_NE(line.text.find("empty"), std::string::npos) << line.text;
    }
    EXPECT_EQ(read({"tests", "--agent="}).outcome, reading::wrong);
}

TEST(options, help_and_version) {
    command_line line = read({"--help"});
    EXPECT_EQ(line.outcome, reading::show);
    EXPECT_NE(line.text.find("Exit status"), std::string::npos);
    line = read({"--version"});
    EXPECT_EQ(line.outcome, reading::show);
    EXPECT_EQ(line.text.find("vindralctl "), 0u);
}

TEST_F(access_test, what_is_given_goes_before_the_environment) {
    given said;
    EXPECT_EQ(access_of(said).where.text(), "http://127.0.0.1:8080");
    EXPECT_EQ(access_of(said).token, "");
    setenv("VINDRAL_URL", "https://a.example", 1);
    setenv("VINDRAL_TOKEN", "vt_e", 1);
    EXPECT_EQ(access_of(said).where.text(), "https://a.example");
    EXPECT_EQ(access_of(said).token, "vt_e");
    said.url = "https://b.example";
    said.token = "vt_g";
    EXPECT_EQ(access_of(said).where.text(), "https://b.example");
    EXPECT_EQ(access_of(said).token, "vt_g");
}

TEST_F(access_test, a_token_out_of_a_file) {
    const std::string name = testing::TempDir() + "vindralctl-token-" + std::to_string(getpid());
    given said;
    said.token_file = name;
    EXPECT_EQ(status_of(said), status_usage); /* not there */
    std::ofstream(name) << "vt_secret \r\nsecond line\n";
    EXPECT_EQ(access_of(said).token, "vt_secret");
    std::ofstream(name) << "\n";
    EXPECT_EQ(status_of(said), status_usage);
    std::ofstream(name) << "vt_secret X: 1\n";
    EXPECT_EQ(status_of(said), status_usage);
    std::ofstream(name) << "vt_secret"; /* no line end */
    EXPECT_EQ(access_of(said).token, "vt_secret");
    for (auto [mode, is_told] : {std::pair{0600, false}, {0640, false}, {0644, true}}) {
        chmod(name.c_str(), static_cast<mode_t>(mode));
        testing::internal::CaptureStderr();
        EXPECT_EQ(access_of(said).token, "vt_secret");
        const std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(told.find(name + ": chmod 600") != std::string::npos, is_told) << told;
        EXPECT_EQ(told.find("vt_secret"), std::string::npos);
    }
    said.token_file = "/dev/zero"; /* which has no end */
    EXPECT_EQ(status_of(said), status_usage);
    said.token_file = testing::TempDir();
    EXPECT_EQ(status_of(said), status_usage);
    said.token = "vt_secret";
    EXPECT_EQ(status_of(said), status_usage); /* both */
    std::remove(name.c_str());
}

TEST_F(access_test, a_token_never_goes_out_in_the_clear) {
    given said;
    said.token = "vt_secret";
    said.url = "http://collector.example.org:8080";
    EXPECT_EQ(status_of(said), status_usage);
    said.url = "https://collector.example.org:8080";
    EXPECT_EQ(status_of(said), status_well);
    said.url = "http://localhost:8080";
    EXPECT_EQ(status_of(said), status_well);
    said.token.clear();
    said.url = "http://collector.example.org:8080";
    EXPECT_EQ(status_of(said), status_well);
    said.token = "vt_secret\r\nX: 1";
    EXPECT_EQ(status_of(said), status_usage);
}

TEST(secrets, are_taken_out) {
    EXPECT_EQ(without_secrets("x vt_ab-C_1 y vl_z"), "x vt_... y vl_...");
    EXPECT_EQ(without_secrets("vt_"), "vt_...");
    EXPECT_EQ(without_secrets("ve_a-b c=ve_d \"ve_e\""), "ve_... c=ve_... \"ve_...\"");
    EXPECT_EQ(without_secrets("receive_buffer Ve_x"), "receive_buffer Ve_x");
    char program[] = "vindralctl", name[] = "--token", secret[] = "abc", last[] = "--token=abc";
    char* words[] = {program, name, secret, last, nullptr};
    hide_token(4, words);
    EXPECT_STREQ(secret, "***");
    EXPECT_STREQ(last, "--token=***");
    char* without[] = {program, name, nullptr};
    hide_token(2, without); /* its value is missing */
    EXPECT_STREQ(name, "--token");
}

/* The completion and the manual page know every command and every option, and no others. */
TEST(files, completion_and_manual_are_of_this_table) {
    const std::string completion = text_of("vindralctl.bash"), manual = text_of("vindralctl.1");
    std::set<std::string> options{"--help", "--version"};
    for (const option_def* option : global_options()) {
        options.insert(option->name);
    }
    for (const command_def& each : all_commands()) {
        std::istringstream words(each.name);
        for (std::string word; words >> word;) {
            EXPECT_NE(completion.find(word), std::string::npos) << word;
        }
        if (each.run != nullptr) {
            EXPECT_NE(manual.find(".It Cm " + std::string(each.name)), std::string::npos)
                << each.name;
        }
        for (const option_def* option : each.options) {
            options.insert(option->name);
            std::istringstream choices(option->choices);
            for (std::string choice; std::getline(choices, choice, '|');) {
                EXPECT_NE(completion.find(choice), std::string::npos) << choice;
            }
        }
    }
    for (const std::string& option : options) {
        EXPECT_NE(completion.find(option), std::string::npos) << option;
        EXPECT_NE(manual.find("Fl -" + option.substr(2)), std::string::npos) << option;
    }
    for (size_t at = 0; (at = completion.find("--", at)) != std::string::npos;) {
        size_t end = completion.find_first_not_of("-abcdefghijklmnopqrstuvwxyz", at);
        std::string found = completion.substr(at, end - at);
        EXPECT_TRUE(found == "--" || options.count(found) == 1) << found;
        at = end;
    }
}
