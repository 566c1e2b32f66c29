#include "base/sealing.h"

#include "collector_test_support.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

class sealing : public testing::Test {
protected:
    sealing() { unsetenv("CREDENTIALS_DIRECTORY"); }
    ~sealing() override {
        unsetenv("CREDENTIALS_DIRECTORY");
        EXPECT_EQ(ERR_peek_error(), 0u) << "left for whoever looks next";
    }

    std::string directory() const { return home_ / "state"; }
    std::string key_file() const { return home_ / "state/secrets.key"; }

    void open(sealer& s, bool make = true) const {
        std::string error;
        ASSERT_TRUE(s.open(directory(), make, error)) << error;
        EXPECT_EQ(error, "");
    }
    std::string refused(bool make = true) const {
        sealer s;
        std::string error;
        EXPECT_FALSE(s.open(directory(), make, error));
        EXPECT_EQ(s.seal("name", "value"), "");
        return error;
    }
    void put_key(const std::string& text, mode_t mode = 0600) const {
        fs::remove(key_file());
        write_text(key_file(), text);
        ASSERT_EQ(chmod(key_file().c_str(), mode), 0);
    }

    void SetUp() override { fs::create_directory(directory()); }

    scratch_directory home_;
};

static const std::string some_key =
    "00112233445566778899aabbccddeeff0123456789abcdef0123456789abcdef";

TEST_F(sealing, what_is_sealed_opens_again) {
    sealer s;
    open(s);
    for (const std::string& value : {std::string("s3cret"), std::string(), std::string(4096, 'x'),
                                     std::string("a\0b", 3), std::string("gr\xc3\xbc\xc3\x9f")}) {
        for (const std::string& name : {std::string("db"), std::string(), std::string(100, 'n')}) {
            const std::string sealed = s.seal(name, value);
            EXPECT_EQ(sealed.size(), value.size() + 28);
            EXPECT_EQ(s.unseal(name, sealed), value);
            if (!value.empty()) {
                EXPECT_EQ(sealed.find(value), sealed.npos);
            }
        }
    }
    EXPECT_NE(s.seal("db", "s3cret"), s.seal("db", "s3cret"))
        << "nobody sees that two are the same";
}

TEST_F(sealing, the_key_lasts) {
    sealer first, second;
    open(first);
    const std::string sealed = first.seal("db", "s3cret"), key = read_text(key_file());
    open(second, false);
    EXPECT_EQ(second.unseal("db", sealed), "s3cret");
    open(first);
    EXPECT_EQ(first.unseal("db", sealed), "s3cret");
    EXPECT_EQ(read_text(key_file()), key);
}

TEST_F(sealing, another_key_opens_nothing) {
    sealer ours, theirs;
    open(ours);
    fs::remove(key_file());
    open(theirs);
    EXPECT_EQ(theirs.unseal("db", ours.seal("db", "s3cret")), std::nullopt);
}

TEST_F(sealing, it_opens_under_no_other_name) {
    sealer s;
    open(s);
    const std::string sealed = s.seal("db", "s3cret");
    for (const char* name : {"", "d", "db1", "DB", "dc", "bd"}) {
        EXPECT_EQ(s.unseal(name, sealed), std::nullopt) << name;
    }
    EXPECT_EQ(s.unseal(std::string_view("db\0", 3), sealed), std::nullopt);
}

TEST_F(sealing, damage_is_seen_wherever_it_is) {
    sealer s;
    open(s);
    for (const std::string& value : {std::string("s3cret"), std::string()}) {
        const std::string sealed = s.seal("db", value);
        for (size_t at = 0; at < sealed.size(); at++) {
            for (int bit = 0; bit < 8; bit++) {
                std::string damaged = sealed;
                damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
                EXPECT_EQ(s.unseal("db", damaged), std::nullopt) << at;
            }
            EXPECT_EQ(s.unseal("db", sealed.substr(0, at)), std::nullopt) << at;
            EXPECT_EQ(s.unseal("db", sealed.substr(sealed.size() - at)), std::nullopt) << at;
        }
        EXPECT_EQ(s.unseal("db", sealed + '\0'), std::nullopt);
        EXPECT_EQ(s.unseal("db", '\0' + sealed), std::nullopt);
        EXPECT_EQ(s.unseal("db", sealed), value);
    }
}

TEST_F(sealing, without_a_key_nothing_is_sealed_or_opened) {
    sealer s, closed;
    open(s);
    EXPECT_EQ(closed.seal("db", "s3cret"), "");
    EXPECT_EQ(closed.unseal("db", s.seal("db", "s3cret")), std::nullopt);
}

/* --- the key's file -------------------------------------------------------------------------- */

TEST_F(sealing, the_key_is_made_once_for_its_owner_only) {
    sealer s;
    open(s);
    struct stat status;
    ASSERT_EQ(stat(key_file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    const std::string text = read_text(key_file());
    EXPECT_EQ(text.size(), 65u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), 64u);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory()), {}), 1);
}

TEST_F(sealing, none_is_made_unless_asked_for) {
    EXPECT_EQ(refused(false), "there is no key of the secrets " + key_file());
    EXPECT_FALSE(fs::exists(key_file()));
}

TEST_F(sealing, the_digits_may_be_written_in_several_ways) {
    std::string capitals = some_key;
    for (char& c : capitals) {
        c = static_cast<char>(toupper(c));
    }
    put_key(some_key);
    sealer s;
    open(s, false);
    const std::string sealed = s.seal("db", "s3cret");
    for (const std::string& text : {some_key + "\n", capitals, capitals + "\n"}) {
        put_key(text);
        sealer other;
        open(other, false);
        EXPECT_EQ(other.unseal("db", sealed), "s3cret");
    }
    put_key(some_key, 0400);
    open(s, false);
}

TEST_F(sealing, a_file_with_anything_else_is_refused_and_left) {
    for (const std::string& text :
         {std::string(), std::string("\n"), some_key.substr(1), some_key + "0", some_key + "\n\n",
          some_key + "\r\n", some_key + " ", " " + some_key.substr(1), "g" + some_key.substr(1),
          some_key.substr(0, 63) + "\n", some_key.substr(0, 63) + '\0',
          std::string(1 << 20, '0')}) {
        put_key(text);
        EXPECT_EQ(refused(),
                  "the key of the secrets " + key_file() + " is not 64 hexadecimal digits");
        EXPECT_EQ(read_text(key_file()), text);
    }
}

TEST_F(sealing, a_key_that_others_may_read_is_refused) {
    for (mode_t mode : {0640, 0604, 0620, 0602, 0610, 0644, 0666}) {
        put_key(some_key, mode);
        EXPECT_EQ(refused(), "the key of the secrets " + key_file() +
                                 " is not its owner's alone: find out who has read it, then chmod "
                                 "it to 600");
        EXPECT_EQ(read_text(key_file()), some_key);
    }
}

TEST_F(sealing, what_is_no_file_is_refused_at_once) {
    ASSERT_EQ(mkfifo(key_file().c_str(), 0600), 0);
    EXPECT_EQ(refused(), "the key of the secrets " + key_file() + " is no file");
    fs::remove(key_file());
    fs::create_directory(key_file());
    EXPECT_EQ(refused(), "the key of the secrets " + key_file() + " is no file");
}

TEST_F(sealing, where_none_can_be_made_is_told) {
    fs::remove(directory());
    EXPECT_EQ(refused(), "cannot write " + key_file() + ": No such file or directory");
}

TEST_F(sealing, a_key_that_cannot_be_read_is_told) {
    if (geteuid() == 0) {
        GTEST_SKIP() << "root reads everything";
    }
    put_key(some_key, 0);
    EXPECT_EQ(refused(),
              "cannot read the key of the secrets " + key_file() + ": Permission denied");
}

TEST_F(sealing, what_was_open_stays_when_it_cannot_be_opened_again) {
    sealer s;
    open(s);
    const std::string sealed = s.seal("db", "s3cret");
    put_key("nonsense");
    std::string error;
    EXPECT_FALSE(s.open(directory(), true, error));
    EXPECT_EQ(s.unseal("db", sealed), "s3cret");
}

TEST_F(sealing, of_two_that_make_one_both_have_the_same) {
    sealer all[8];
    std::vector<std::thread> threads;
    for (sealer& each : all) {
        threads.emplace_back([&] { open(each); });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    const std::string sealed = all[0].seal("db", "s3cret");
    for (sealer& each : all) {
        EXPECT_EQ(each.unseal("db", sealed), "s3cret");
    }
}

/* --- the credential -------------------------------------------------------------------------- */

TEST_F(sealing, a_credential_counts_alone) {
    fs::create_directory(home_ / "credentials");
    write_text(home_ / "credentials/secrets-key", some_key + "\n");
    chmod((home_ / "credentials/secrets-key").c_str(), 0440); /* as the service manager makes it */
    setenv("CREDENTIALS_DIRECTORY", (home_ / "credentials").c_str(), 1);
    sealer given, made;
    open(given);
    EXPECT_FALSE(fs::exists(key_file()));
    put_key("nonsense", 0666);
    open(given, false);
    const std::string sealed = given.seal("db", "s3cret");
    put_key(some_key);
    unsetenv("CREDENTIALS_DIRECTORY");
    open(made, false);
    EXPECT_EQ(made.unseal("db", sealed), "s3cret") << "it is that key";

    setenv("CREDENTIALS_DIRECTORY", (home_ / "credentials").c_str(), 1);
    fs::remove(home_ / "credentials/secrets-key"); /* nobody but root may write into it */
    write_text(home_ / "credentials/secrets-key", "nonsense");
    EXPECT_EQ(refused(), "the key of the secrets " + (home_ / "credentials/secrets-key") +
                             " is not 64 hexadecimal digits");
}

TEST_F(sealing, without_a_credential_the_file_counts) {
    fs::create_directory(home_ / "credentials");
    setenv("CREDENTIALS_DIRECTORY", (home_ / "credentials").c_str(), 1);
    sealer s;
    open(s);
    EXPECT_TRUE(fs::exists(key_file()));
    setenv("CREDENTIALS_DIRECTORY", "", 1);
    open(s, false);
    setenv("CREDENTIALS_DIRECTORY", (home_ / "nowhere").c_str(), 1);
    open(s, false);
}
