#include "enrol/conf.h"

#include "ctl/failure.h"
#include "vindral_config.h"
#include "vindral_log.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

using std::string_literals::operator""s;

namespace {

/* What the agent itself reads in a configuration. */
class agent_reader {
public:
    agent_reader() {
        path_ = "/proc/self/fd/" + std::to_string(file_);
        unsetenv("VINDRALHOME");
        testing::internal::CaptureStdout(); /* it speaks of each line that it does not know */
    }
    ~agent_reader() {
        const std::string said = testing::internal::GetCapturedStdout();
        if (testing::Test::HasFailure()) {
            puts(said.c_str());
        }
        forget();
        close(file_);
    }
    agent_reader(const agent_reader&) = delete;
    agent_reader& operator=(const agent_reader&) = delete;

    void read(const std::string& text) {
        forget();
        ASSERT_EQ(ftruncate(file_, 0), 0);
        ASSERT_EQ(pwrite(file_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        conf_file = path_.data();
        readConfig();
    }

private:
    static void forget() {
        for (char** text : {&agent_home, &log_file, &lock_file, &user_email, &agent_name, &api_key,
                            &ca_file, &alt_server, &alt_url, &alt_port, &szVersion}) {
            free(*text);
            *text = nullptr;
        }
        log_level = 0;
    }
    int file_ = memfd_create("conf", MFD_CLOEXEC);
    std::string path_;
};

std::string or_none(const std::optional<std::string>& value) {
    return value.value_or("(none)");
}
std::string or_none(const char* value) {
    return value != nullptr ? value : "(none)";
}

void expect_same(agent_reader& agent, const std::string& text) {
    agent.read(text);
    EXPECT_EQ(or_none(conf_value(text, "USEREMAIL")), or_none(user_email)) << text;
    EXPECT_EQ(or_none(conf_value(text, "CAFILE")), or_none(ca_file)) << text;
    EXPECT_EQ(or_none(conf_value(text, "PIDFILE")), or_none(lock_file)) << text;
    EXPECT_EQ(or_none(conf_value(text, "VERSION")), or_none(szVersion)) << text;
    if (user_email == nullptr || conf_value(text, "AGENTNAME")) { /* else one is made up */
        EXPECT_EQ(or_none(conf_value(text, "AGENTNAME")), or_none(agent_name)) << text;
    }
    const std::optional<conf_server> server = server_in(text);
    ASSERT_EQ(server.has_value(), alt_server != nullptr) << text;
    if (server) {
        EXPECT_EQ(server->host, alt_server) << text;
        EXPECT_EQ(server->path, alt_url) << text;
        EXPECT_EQ(server->port, or_none(alt_port)) << text;
    }
}

const conf_values wanted = {{"USEREMAIL", "ops@example.org"},
                            {"AGENTNAME", "web 01"},
                            {"USEHOST", "https://c.example.org:8443/fcgi-bin/agentgateway"},
                            {"CAFILE", "/etc/vindral/ca.pem"}};

/* Pieces of which odd configurations are made. */
std::string odd_text(std::mt19937& random) {
    static const std::string pieces[] = {
        "USEREMAIL a@example.org\n",
        "USEREMAIL\n",
        "USEREMAIL   \t\n",
        "USEREMAIL=b@example.org\n",
        "USEREMAIL\tc@example.org  \r\n",
        " USEREMAIL indented\n",
        "#USEREMAIL    operator@example.org\n",
        "# USEREMAIL is the account\n",
        "useremail lower\n",
        "USEREMAILS other\n",
        "AGENTNAME one\n",
        "AGENTNAME two",
        "AGENTNAME \xff\xfe\n",
        "#AGENTNAME web-01\n",
        "USEHOST https://old.example.org/x\n",
        "USEHOST https://no-path.example.org\n",
        "USEHOST http://old.example.org:81/\r\n",
        "USEHOST nonsense\n",
        "USEHOST https://p:99999/\n",
        "USEHOST //://a:b/c\n",
        "CAFILE\n",
        "CAFILE /etc/old.pem\n",
        "CAFILE /etc/older.pem",
        "#CAFILE /etc/x\n",
        "PIDFILE /run/x\n",
        "VERSION 1\n",
        "VERSION 2 \n",
        "\n",
        "\r\n",
        "\v\n",
        "=\n",
        "-USEREMAIL x\n",
        "NOVALUE\n",
        "USEREMAIL a\0b\n"s,
        "\0USEREMAIL hidden\n"s,
        "AGENTNAME \0\n"s,
        std::string(1022, 'x') + "\n",
        std::string(1023, 'y'),
        "USEREMAIL " + std::string(1013, 'l'),
        "USEREMAIL " + std::string(1100, 'm') + "\n",
        "#" + std::string(1022, 'c') + "AGENTNAME behind-a-comment\n",
        "LOGLEVEL 3\n",
    };
    std::string text;
    for (size_t count = random() % 12; count > 0; count--) {
        text += pieces[random() % std::size(pieces)];
    }
    return text;
}

} // namespace

TEST(Conf, ReadsWhatTheAgentReads) {
    agent_reader agent;
    std::mt19937 random(17);
    for (int i = 0; i < 3000 && !HasFailure(); i++) {
        expect_same(agent, odd_text(random));
    }
}

TEST(Conf, TheAgentReadsWhatWasChangedAndNothingElseDiffers) {
    agent_reader agent;
    std::mt19937 random(18);
    for (int i = 0; i < 3000 && !HasFailure(); i++) {
        const std::string before = odd_text(random);
        const std::string after = with_values(before, wanted);
        agent.read(after);
        EXPECT_STREQ(user_email, "ops@example.org") << before;
        EXPECT_STREQ(agent_name, "web 01") << before;
        EXPECT_STREQ(ca_file, "/etc/vindral/ca.pem") << before;
        EXPECT_STREQ(alt_server, "c.example.org") << before;
        EXPECT_STREQ(alt_port, "8443") << before;
        EXPECT_STREQ(alt_url, "/fcgi-bin/agentgateway") << before;
        EXPECT_EQ(or_none(conf_value(before, "PIDFILE")), or_none(lock_file)) << before;
        EXPECT_EQ(or_none(conf_value(before, "VERSION")), or_none(szVersion)) << before;
        EXPECT_EQ(with_values(after, wanted), after); /* once more changes nothing */
    }
}

TEST(Conf, TheFileThatIsInstalled) {
    FILE* file = fopen(VINDRAL_PACKAGING "/vindral.conf", "re");
    ASSERT_NE(file, nullptr);
    std::string text(100000, '\0');
    text.resize(fread(text.data(), 1, text.size(), file));
    fclose(file);
    const std::string changed = with_values(text, wanted);
    EXPECT_NE(changed.find("#USEREMAIL    operator@example.org\nUSEREMAIL    ops@example.org\n"),
              changed.npos);
    EXPECT_NE(changed.find("\nAGENTNAME    web 01\n"), changed.npos);
    /* Without the new lines it is as it was. */
    std::string without = changed;
    for (const auto& [key, value] : wanted) {
        const std::string line = "\n" + key + std::string(13 - key.size(), ' ') + value + "\n";
        ASSERT_NE(without.find(line), without.npos) << key;
        without.replace(without.find(line), line.size(), "\n");
    }
    EXPECT_EQ(without, text);
}

TEST(Conf, LinesAreReplacedWhereTheyAre) {
    EXPECT_EQ(with_values("A 1\nUSEREMAIL\t old@example.org \r\nB 2\nUSEREMAIL later\n",
                          {{"USEREMAIL", "new@example.org"}}),
              "A 1\nUSEREMAIL\t new@example.org\r\nB 2\nUSEREMAIL later\n");
    /* Of USEHOST the last one that counts. */
    EXPECT_EQ(with_values("USEHOST https://a/\nUSEHOST https://b/\nUSEHOST https://none\n",
                          {{"USEHOST", "https://c/"}}),
              "USEHOST https://a/\nUSEHOST https://c/\nUSEHOST https://none\n");
    EXPECT_EQ(with_values("AGENTNAME last", {{"AGENTNAME", "new"}}), "AGENTNAME new");
    EXPECT_EQ(with_values("PIDFILE x", {{"AGENTNAME", "new"}}), "PIDFILE x\nAGENTNAME    new\n");
    EXPECT_EQ(with_values("", {{"AGENTNAME", "new"}}), "AGENTNAME    new\n");
    /* A line without a value counts for files alone. */
    EXPECT_EQ(with_values("CAFILE\nCAFILE /x\n", {{"CAFILE", "/y"}}), "CAFILE    /y\nCAFILE /x\n");
    EXPECT_EQ(with_values("USEREMAIL\nUSEREMAIL x\n", {{"USEREMAIL", "y"}}),
              "USEREMAIL\nUSEREMAIL y\n");
    EXPECT_EQ(with_values("USEREMAIL=x\n", {{"USEREMAIL", "y"}}), "USEREMAIL    y\n");
}

TEST(Conf, WhatCannotStandInALineIsRefused) {
    for (const std::string& value :
         {""s, " a"s, "a "s, "a\nb"s, "a\0b"s, "\t"s, "a\x7f"s, std::string(1000, 'a'), "a\r"s}) {
        EXPECT_THROW((void)with_values("USEREMAIL x\n", {{"USEREMAIL", value}}), failure) << value;
    }
    /* A URL without a path would not count. */
    EXPECT_THROW((void)with_values("", {{"USEHOST", "https://a"}}), failure);
}
