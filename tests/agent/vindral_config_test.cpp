#include "vindral_config.h"
#include "vindral_log.h"

#include "refuse_syscall.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace fs = std::filesystem;

static char** const owned_settings[] = {
    &log_file,    &lock_file, &agent_home, &user_email, &agent_name, &szVersion, &alt_server,
    &alt_url,     &alt_port,  &api_server, &api_url,    &api_port,   &api_key,   &secret_key,
    &data_server, &data_url,  &data_port,  &ca_file,    &cert_file,  &key_file};

static const char USAGE[] =
    "\nUsage: vindral  [-C configuration file] [-L log file] [ -l lock file] "
    "[-D home directory] [-U user e-mail] [-A agent name] [-V] [-h]\n";

static std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

static std::string text_of(const char* setting) {
    return setting != nullptr ? setting : "(unset)";
}

/* Every setting unset, and a directory for the configuration file. */
class settings : public testing::Test {
protected:
    settings() {
        char name[] = "/tmp/vindral_config_XXXXXX";
        directory = mkdtemp(name);
        path = directory + "/vindral.conf";
        unsetenv("VINDRALHOME");
        conf_file = path.data();
        log_level = 0;
    }
    ~settings() override {
        for (char** setting : owned_settings) {
            free(*setting);
            *setting = nullptr;
        }
        conf_file = nullptr;
        fs::remove_all(directory);
    }

    /* Reads `text` as the configuration file; what was printed goes to `printed`. */
    int read(const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
        int result = -1;
        printed = captured([&] { result = readConfig(); });
        return result;
    }

    /* Parses the arguments behind the executable's name; they live as long as the test. */
    int parse(std::vector<std::string> words) {
        words.insert(words.begin(), "vindral");
        arguments.push_back(std::move(words));
        std::vector<char*> argv;
        for (std::string& word : arguments.back()) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        int result = -1;
        printed = captured([&] {
            testing::internal::CaptureStderr();
            result = process_arguments(static_cast<int>(argv.size()) - 1, argv.data());
            complaints = testing::internal::GetCapturedStderr();
        });
        return result;
    }

    std::string directory, path, printed, complaints;
    std::list<std::vector<std::string>> arguments;
};

TEST_F(settings, without_arguments_nothing_is_parsed) {
    EXPECT_EQ(parse({}), 1);
    EXPECT_EQ(process_arguments(0, nullptr), 1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(conf_file, path.data());
}

TEST_F(settings, short_options) {
    EXPECT_EQ(parse({"-C", "c", "-L", "log", "-llock", "-D", "home", "-U", "mail", "-A", "name"}),
              1);
    EXPECT_EQ(conf_file, arguments.back()[2].data());
    EXPECT_EQ(text_of(log_file), "log");
    EXPECT_EQ(text_of(lock_file), "lock");
    EXPECT_EQ(text_of(agent_home), "home");
    EXPECT_EQ(text_of(user_email), "mail");
    EXPECT_EQ(text_of(agent_name), "name");
    EXPECT_EQ(printed + complaints, "");
}

TEST_F(settings, long_options) {
    EXPECT_EQ(parse({"--conf-file", "c", "--log-file=log", "--lock-file", "lock", "--home-dir=home",
                     "--user-email", "mail", "--agent-name", "name"}),
              1);
    EXPECT_STREQ(conf_file, "c");
    EXPECT_EQ(text_of(log_file), "log");
    EXPECT_EQ(text_of(lock_file), "lock");
    EXPECT_EQ(text_of(agent_home), "home");
    EXPECT_EQ(text_of(user_email), "mail");
    EXPECT_EQ(text_of(agent_name), "name");
}

TEST_F(settings, a_repeated_option_replaces_the_first) {
    EXPECT_EQ(parse({"-L", "one", "-L", "two", "-C", "c1", "-C", "c2"}), 1);
    EXPECT_EQ(text_of(log_file), "two");
    EXPECT_STREQ(conf_file, "c2");
}

TEST_F(settings, parsing_stops_at_the_first_argument_that_is_no_option) {
    EXPECT_EQ(parse({"-L", "log", "word", "-h"}), 1);
    EXPECT_EQ(text_of(log_file), "log");
    EXPECT_EQ(printed, "");
}

static std::string version_text() {
    return std::string("\nVindral Smart Agent 3.0\nBuilt at ") + BUILD_DATE + "\n\n";
}

TEST_F(settings, version) {
    for (const char* option : {"-V", "--version"}) {
        EXPECT_EQ(parse({option, "-L", "log"}), 0);
        EXPECT_EQ(printed, version_text());
        EXPECT_EQ(log_file, nullptr);
    }
    struct tm built = {};
    const char* end = strptime(BUILD_DATE, "%b %e %Y %H:%M:%S", &built);
    ASSERT_NE(end, nullptr) << BUILD_DATE;
    EXPECT_EQ(*end, '\0') << BUILD_DATE;
}

TEST_F(settings, the_version_printed_is_not_the_configured_one) {
    szVersion = strdup("9.9");
    EXPECT_EQ(parse({"-V"}), 0);
    EXPECT_EQ(printed, version_text());
}

TEST_F(settings, help) {
    const std::string options =
        "Options:\n  -h, --help               Print detailed help screen\n"
        "  -V, --version            Print version information\n"
        "  -C, --conf-file=ADDRESS  Configuration file address ( default: /etc/vindral.conf )\n"
        "  -L, --log-file=ADDRESS   Log file address\n"
        "  -l, --lock-file=ADDRESS  Lock file address\n"
        "  -D, --home-dir=ADDRESS   Home directory address\n"
        "  -E, --user-email=E-MAIL  E-Mail address\n"
        "  -A, --agent-name=NAMA    Agent name\n\n";
    for (const char* option : {"-h", "--help"}) {
        EXPECT_EQ(parse({option}), 0);
        std::string notice = printed.substr(std::min(printed.size(), version_text().size()));
        notice = notice.substr(0, notice.find('\n') + 1);
        EXPECT_TRUE(notice.starts_with("Copyright "));
        EXPECT_EQ(printed, version_text() + notice + "\nProgram usage:" + USAGE + options);
    }
}

TEST_F(settings, a_wrong_option_prints_the_usage) {
    for (const char* option : {"-x", "-E", "--no-such-option", "-L", "--log-file"}) {
        EXPECT_EQ(parse({option}), 0) << option;
        EXPECT_EQ(printed, USAGE);
        EXPECT_NE(complaints, "");
    }
}

TEST(usage, names_the_wrong_argument) {
    char argument[] = "-q";
    EXPECT_EQ(captured([&] { print_usage(argument); }),
              std::string("\nWrong Argument: -q\n") + USAGE);
    EXPECT_EQ(captured([] { print_usage(nullptr); }), USAGE);
}

static const char COMPLETE[] = "VINDRALHOME /home\nLOGFILE /log\nPIDFILE /pid\n"
                               "USEREMAIL me@example\nAGENTNAME box\n";

TEST_F(settings, a_complete_file) {
    EXPECT_EQ(read(COMPLETE), 1);
    EXPECT_EQ(text_of(agent_home), "/home");
    EXPECT_EQ(text_of(log_file), "/log");
    EXPECT_EQ(text_of(lock_file), "/pid");
    EXPECT_EQ(text_of(user_email), "me@example");
    EXPECT_EQ(text_of(agent_name), "box");
    EXPECT_EQ(printed, "");
}

TEST_F(settings, every_other_key) {
    EXPECT_EQ(
        read("USEHOST https://srv:8443/gate?x=1\nAPIHOST http://api/a\nDATAHOST http://data:81/d\n"
             "APIKEY key\nSECRETKEY secret\nVERSION 3.1\nLOGLEVEL 1\n"),
        0);
    EXPECT_EQ(text_of(alt_server) + text_of(alt_port) + text_of(alt_url), "srv8443/gate?x=1");
    EXPECT_EQ(text_of(api_server) + text_of(api_port) + text_of(api_url), "api80/a");
    EXPECT_EQ(text_of(data_server) + text_of(data_port) + text_of(data_url), "data81/d");
    EXPECT_EQ(text_of(api_key), "key");
    EXPECT_EQ(text_of(secret_key), "secret");
    EXPECT_EQ(text_of(szVersion), "3.1");
    EXPECT_EQ(log_level, 1);
    EXPECT_EQ(printed, "");
}

TEST_F(settings, a_file_that_cannot_be_opened) {
    EXPECT_EQ(captured([] { EXPECT_EQ(readConfig(), 0); }),
              "\nCan not open main configuration file: \"" + path +
                  "\" for reading, No such file or directory\n");
}

TEST_F(settings, the_default_file) {
    if (fs::exists("/etc/vindral.conf")) {
        GTEST_SKIP() << "this host has an /etc/vindral.conf of its own";
    }
    conf_file = nullptr;
    EXPECT_EQ(captured([] { EXPECT_EQ(readConfig(), 0); }),
              "\nCan not open main configuration file: \"/etc/vindral.conf\" for reading, "
              "No such file or directory\n");
}

TEST_F(settings, each_setting_without_a_default_is_needed) {
    for (const char* key : {"VINDRALHOME", "LOGFILE", "PIDFILE", "USEREMAIL"}) {
        std::string text = COMPLETE;
        text.erase(text.find(key), text.find('\n', text.find(key)) + 1 - text.find(key));
        EXPECT_EQ(read(text), 0) << key;
        EXPECT_EQ(printed, "");
        for (char** setting : owned_settings) {
            free(*setting);
            *setting = nullptr;
        }
    }
}

TEST_F(settings, without_an_address_no_name_is_made) {
    EXPECT_EQ(read("VINDRALHOME /home\nLOGFILE /log\nPIDFILE /pid\n"), 0);
    EXPECT_EQ(agent_name, nullptr);
}

TEST_F(settings, options_win_over_the_file) {
    ASSERT_EQ(parse({"-L", "log", "-l", "lock", "-D", "home", "-U", "mail", "-A", "name"}), 1);
    EXPECT_EQ(read(COMPLETE), 1);
    EXPECT_EQ(text_of(log_file) + text_of(lock_file) + text_of(agent_home) + text_of(user_email) +
                  text_of(agent_name),
              "loglockhomemailname");
}

TEST_F(settings, the_first_of_two_lines_wins_except_for_level_version_and_urls) {
    EXPECT_EQ(
        read("LOGFILE one\nLOGFILE two\nAPIKEY one\nAPIKEY two\nSECRETKEY one\nSECRETKEY two\n"
             "VERSION 1\nVERSION 2\nLOGLEVEL 4\nLOGLEVEL 5\n"
             "USEHOST http://one:1/1\nUSEHOST ftp://two/2\n"
             "APIHOST http://one:1/1\nAPIHOST http://two:2/2\n"
             "DATAHOST http://one:1/1\nDATAHOST http://two:2/2\n"),
        0);
    EXPECT_EQ(text_of(log_file) + text_of(api_key) + text_of(secret_key), "oneoneone");
    EXPECT_EQ(text_of(szVersion), "2");
    EXPECT_EQ(log_level, 5);
    EXPECT_EQ(text_of(alt_server) + text_of(alt_url), "two/2");
    EXPECT_EQ(alt_port, nullptr) << "no port is known for this scheme, so the default holds";
    EXPECT_EQ(text_of(api_server) + text_of(api_port) + text_of(api_url), "two2/2");
    EXPECT_EQ(text_of(data_server) + text_of(data_port) + text_of(data_url), "two2/2");
}

TEST_F(settings, a_url_that_cannot_be_split_changes_nothing) {
    EXPECT_EQ(read("USEHOST http://one:1/1\nUSEHOST http://nopath\nUSEHOST two/2\n"), 0);
    EXPECT_EQ(text_of(alt_server) + text_of(alt_port) + text_of(alt_url), "one1/1");
}

TEST_F(settings, comments_blank_lines_and_leading_blanks_are_passed_over) {
    EXPECT_EQ(read("#LOGFILE a\n\n \nLOGLEVEL 3 \n LOGLEVEL 4\n\tLOGLEVEL 5\n"), 0);
    EXPECT_EQ(log_file, nullptr);
    EXPECT_EQ(log_level, 3);
    EXPECT_EQ(printed.find("Invalid"), std::string::npos);
}

TEST_F(settings, lines_without_key_or_value_are_ignored) {
    EXPECT_EQ(read("LOGFILE\nLOGFILE  \t \n=LOGFILE x\n-x y\n\xC4 y\nUNKNOWN\n"), 0);
    EXPECT_EQ(log_file, nullptr);
    EXPECT_EQ(printed, "");
}

TEST_F(settings, the_value_keeps_inner_blanks_and_loses_trailing_ones) {
    EXPECT_EQ(read("AGENTNAME \t two words \t\r\nLOGFILE/at/once\nUSEREMAIL=x"), 0);
    EXPECT_EQ(text_of(agent_name), "two words");
    EXPECT_EQ(text_of(log_file), "/at/once");
    EXPECT_EQ(text_of(user_email), "=x");
}

TEST_F(settings, unknown_keys_are_reported) {
    EXPECT_EQ(read("Logfile x y\nLOGFILES z\nKEY=v\nLOGFILE2 w\n"), 0);
    EXPECT_EQ(printed, "\nInvalid entry in configuration file:\nKey:\tLogfile\nVal:\tx y\n"
                       "\nInvalid entry in configuration file:\nKey:\tLOGFILES\nVal:\tz\n"
                       "\nInvalid entry in configuration file:\nKey:\tKEY\nVal:\t=v\n"
                       "\nInvalid entry in configuration file:\nKey:\tLOGFILE2\nVal:\tw\n");
}

TEST_F(settings, level_reads_as_a_decimal_number) {
    auto level = [&](const char* text) {
        log_level = 77;
        read(std::string("LOGLEVEL ") + text);
        return log_level;
    };
    EXPECT_EQ(level("6"), 6);
    EXPECT_EQ(level("-1"), -1);
    EXPECT_EQ(level("3x"), 3);
    EXPECT_EQ(level("0x10"), 0);
    EXPECT_EQ(level("debug"), 0);
    EXPECT_EQ(level("99999999999999999999"), INT_MAX);
}

TEST_F(settings, a_long_line_is_read_in_pieces_of_1023_characters) {
    std::string first = "AGENTNAME " + std::string(1013, 'x');
    ASSERT_EQ(first.size(), 1023U);
    EXPECT_EQ(read(first + "LOGFILE behind\n"), 0);
    EXPECT_EQ(text_of(agent_name), std::string(1013, 'x'));
    EXPECT_EQ(text_of(log_file), "behind");
    /* A comment does not reach into the next piece either. */
    EXPECT_EQ(read("#" + std::string(1022, 'x') + "PIDFILE behind\n"), 0);
    EXPECT_EQ(text_of(lock_file), "behind");
}

TEST_F(settings, a_line_of_1023_characters_ends_with_an_empty_one) {
    EXPECT_EQ(read("AGENTNAME " + std::string(1013, 'x') + "\nLOGFILE next\n"), 0);
    EXPECT_EQ(text_of(log_file), "next");
    EXPECT_EQ(printed, "");
}

TEST_F(settings, text_behind_a_nul_does_not_count) {
    using namespace std::string_literals;
    EXPECT_EQ(read("\0LOGFILE a\nAGENTNAME b\0c\nPIDFILE d"s), 0);
    EXPECT_EQ(log_file, nullptr);
    EXPECT_EQ(text_of(agent_name), "b");
    EXPECT_EQ(text_of(lock_file), "d");
}

TEST_F(settings, a_directory_reads_as_an_empty_file) {
    fs::create_directory(path);
    EXPECT_EQ(captured([] { EXPECT_EQ(readConfig(), 0); }), "");
}

TEST_F(settings, the_environment_gives_the_home_directory_last) {
    setenv("VINDRALHOME", "/from/environment", 1);
    EXPECT_EQ(read("LOGFILE x\n"), 0);
    EXPECT_EQ(text_of(agent_home), "/from/environment");
    free(agent_home);
    agent_home = nullptr;
    EXPECT_EQ(read("VINDRALHOME /from/file\n"), 0);
    EXPECT_EQ(text_of(agent_home), "/from/file");
    free(agent_home);
    agent_home = nullptr;
    setenv("VINDRALHOME", "", 1);
    EXPECT_EQ(read(""), 0);
    EXPECT_EQ(agent_home, nullptr);
    unsetenv("VINDRALHOME");
}

/* Runs `prepare` and then the making of a name in a child; returns the name, or "" when `prepare`
 * could not do its part. */
static std::string name_made_after(const std::function<bool()>& prepare) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_t child = fork();
    if (child == 0) {
        if (prepare()) {
            readConfig();
            (void)!write(ends[1], agent_name, strlen(agent_name));
        }
        _exit(0);
    }
    close(ends[1]);
    char name[256];
    ssize_t length = ::read(ends[0], name, sizeof name);
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return {name, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

/* "@" and the UTC time, between the start of the test and now. */
static bool ends_in_time(const std::string& name, time_t not_before) {
    size_t at = name.rfind('@');
    struct tm utc = {};
    const char* end =
        at != std::string::npos ? strptime(name.c_str() + at, "@%d:%m:%Y:%H:%M:%S", &utc) : nullptr;
    time_t then = end != nullptr ? timegm(&utc) : 0;
    return end != nullptr && *end == '\0' && then >= not_before && then <= time(nullptr) &&
           name.size() - at == strlen("@19:10:2011:23:04:05");
}

TEST_F(settings, a_name_is_made_of_host_and_time) {
    time_t start = time(nullptr);
    char host[256] = "";
    gethostname(host, sizeof host);
    EXPECT_EQ(parse({"-A", ""}), 1);
    EXPECT_EQ(read("VINDRALHOME /home\nLOGFILE /log\nPIDFILE /pid\nUSEREMAIL me\n"), 1);
    EXPECT_TRUE(ends_in_time(agent_name, start)) << agent_name;
    if (strlen(host) < 64) {
        EXPECT_EQ(std::string(agent_name).substr(0, std::string(agent_name).rfind('@')), host);
    }
}

TEST_F(settings, the_time_in_a_name_is_utc) {
    std::ofstream(path) << "USEREMAIL me\n";
    time_t start = time(nullptr);
    std::string name = name_made_after([] {
        setenv("TZ", "XXX-05:30", 1);
        tzset();
        return true;
    });
    EXPECT_TRUE(ends_in_time(name, start)) << name;
}

TEST_F(settings, an_empty_name_wins_over_the_file_and_one_is_made_all_the_same) {
    time_t start = time(nullptr);
    EXPECT_EQ(parse({"-A", ""}), 1);
    EXPECT_EQ(read(COMPLETE), 1);
    EXPECT_TRUE(ends_in_time(agent_name, start)) << agent_name;
}

TEST_F(settings, a_host_that_cannot_be_named_is_unknown) {
    std::ofstream(path) << "USEREMAIL me\n";
    std::string name = name_made_after([] { return refuse_syscall(SYS_uname, EPERM); });
    if (name.empty()) {
        GTEST_SKIP() << "no seccomp filter allowed here";
    }
    EXPECT_TRUE(name.starts_with("Unknown@")) << name;
}

TEST_F(settings, host_names_from_none_to_the_longest) {
    std::ofstream(path) << "USEREMAIL me\n";
    auto with_host = [](const std::string& host) {
        return name_made_after([&] {
            return unshare(CLONE_NEWUTS) == 0 && sethostname(host.data(), host.size()) == 0;
        });
    };
    std::string longest = with_host(std::string(63, 'h'));
    if (longest.empty()) {
        GTEST_SKIP() << "no host name of our own allowed here";
    }
    EXPECT_TRUE(longest.starts_with(std::string(63, 'h') + "@")) << longest;
    EXPECT_TRUE(with_host(std::string(64, 'h')).starts_with("Unknown@")) << "no room for the NUL";
    EXPECT_TRUE(with_host("").starts_with("Unknown@"));
}

TEST_F(settings, the_outcome_is_logged_at_level_1_with_defaults) {
    const std::string server = std::string(DEFAULT_SERVER) + ":443/fcgi-bin/agentgateway";
    const std::string api = DEFAULT_API_SERVER;
    EXPECT_EQ(read("LOGLEVEL 2\n"), 0);
    EXPECT_EQ(
        printed,
        "\nhost:\t" + server +
            "\nVer:\t3.0\nemail:\tN/A\nname:\tN/A\nlog:\tN/A\nlevel:\t2\nlock:\tN/A\napihost:\t" +
            api + ":80/api\napikey:\tN/A\nsecretkey:\tN/A\ndatahost:\t" + api +
            ":80/customMonitorApi\n\n"
            "\nCurrent configuration:\n\n\t      E-Mail:\tN/A\n\t  Agent Name:\tN/A\n"
            "\t    Log File:\tN/A\n\t   Log Level:\t2\n\t    PID File:\tN/A\n"
            "\t    Home Dir:\tN/A\n\t     Api Key:\tN/A\n\t  Secret Key:\tN/A\n\n");
}

TEST_F(settings, the_outcome_is_logged_at_level_1_with_values) {
    EXPECT_EQ(read(std::string(COMPLETE) +
                   "LOGLEVEL 6\nVERSION 3.1\nUSEHOST https://s:1/u\nAPIHOST http://a:2/v\n"
                   "DATAHOST http://d:3/w\nAPIKEY k\nSECRETKEY c\n"),
              1);
    EXPECT_EQ(printed,
              "\nhost:\ts:1/u\nVer:\t3.1\nemail:\tme@example\nname:\tbox\nlog:\t/log\nlevel:\t6\n"
              "lock:\t/pid\napihost:\ta:2/v\napikey:\tk\nsecretkey:\tc\ndatahost:\td:3/w\n\n"
              "\nCurrent configuration:\n\n\t      E-Mail:\tme@example\n\t  Agent Name:\tbox\n"
              "\t    Log File:\t/log\n\t   Log Level:\t6\n\t    PID File:\t/pid\n"
              "\t    Home Dir:\t/home\n\t     Api Key:\tk\n\t  Secret Key:\tc\n\n");
}

TEST_F(settings, a_bundle_is_logged_where_there_is_one) {
    EXPECT_EQ(
        read(std::string(COMPLETE) + "LOGLEVEL 2\nCAFILE /etc/a b.pem \r\nCAFILE x\nCAFILE\n"), 1);
    EXPECT_EQ(text_of(ca_file), "/etc/a b.pem") << "the first value, as of any key that is no URL";
    std::string line = "\t     CA File:\t/etc/a b.pem\n\n";
    EXPECT_EQ(printed.substr(printed.size() - line.size()), line);
    EXPECT_EQ(printed.find("CA File"), printed.rfind("CA File"));
}

TEST_F(settings, a_bundle_without_a_name_is_a_bundle_that_cannot_be_read) {
    for (const char* line : {"CAFILE", "CAFILE \n", "CAFILE\t\r\n", "CAFILE\nCAFILE /etc/a\n"}) {
        free(ca_file);
        ca_file = nullptr;
        EXPECT_EQ(read(COMPLETE + std::string(line)), 1);
        EXPECT_STREQ(ca_file, "") << line;
    }
}

TEST_F(settings, a_certificate_and_its_key_are_logged_where_there_is_one) {
    EXPECT_EQ(read(std::string(COMPLETE) + "LOGLEVEL 2\nCERTFILE /etc/a b.pem \r\nKEYFILE\t/k\n"
                                           "CERTFILE x\nKEYFILE\n"),
              1);
    EXPECT_EQ(text_of(cert_file), "/etc/a b.pem");
    EXPECT_EQ(text_of(key_file), "/k");
    EXPECT_EQ(ca_file, nullptr);
    std::string lines = "\t   Cert File:\t/etc/a b.pem\n\t    Key File:\t/k\n\n";
    EXPECT_EQ(printed.substr(printed.size() - lines.size()), lines);
    free(key_file);
    key_file = nullptr;
    EXPECT_EQ(read(""), 1);
    lines = "\t   Cert File:\t/etc/a b.pem\n\t    Key File:\tN/A\n\n";
    EXPECT_EQ(printed.substr(printed.size() - lines.size()), lines);
}

TEST_F(settings, a_certificate_or_key_without_a_name_is_one_that_cannot_be_read) {
    for (const char* end : {"", " \n", "\t\r\n"}) {
        free(cert_file);
        free(key_file);
        cert_file = key_file = nullptr;
        EXPECT_EQ(read(COMPLETE + std::string("CERTFILE") + end), 1);
        EXPECT_STREQ(cert_file, "");
        EXPECT_EQ(key_file, nullptr);
        EXPECT_EQ(read(std::string("KEYFILE") + end), 1);
        EXPECT_STREQ(key_file, "");
    }
}

TEST_F(settings, the_outcome_is_not_logged_at_log_level_1) {
    EXPECT_EQ(read(std::string(COMPLETE) + "LOGLEVEL 1\n"), 1);
    EXPECT_EQ(printed, "");
}

static std::string name_check(const char* run_path, int expected) {
    std::string text = run_path;
    return captured([&] { EXPECT_EQ(set_agent_env(text.data()), expected) << text; });
}

TEST(executable, must_be_called_vindral) {
    EXPECT_EQ(name_check("/usr/sbin/vindral", 1), "");
    EXPECT_EQ(name_check("./vindral", 1), "");
    EXPECT_EQ(name_check("/vindral", 1), "");
    EXPECT_EQ(name_check("vindral", 0), "");
    EXPECT_EQ(name_check("other", 0), "");
    const std::string message = "ERROR: vindral smart agent name changed\n\n";
    EXPECT_EQ(name_check("./other", 0), message);
    EXPECT_EQ(name_check("./vindral2", 0), message);
    EXPECT_EQ(name_check("/vindral/", 0), message);
    EXPECT_EQ(set_agent_env(nullptr), 0);
}

TEST(banner, text) {
    const std::string stars(51, '*');
    EXPECT_EQ(std::string(f_title),
              "\n\n\t\t\t\t" + stars +
                  "\n\n\t\t\t\t\tVINDRAL SMART AGENT\n\t\t\t\t\tPROCESS ID: %lu"
                  "\n\t\t\t\t\tVersion: %s\n\t\t\t\t\tBuild Date: %s\n\n\t\t\t\t" +
                  stars + "\n\n");
}
