#include "plan/known_secrets.h"

#include "collector_test_support.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

/* Secrets in a state directory of their own; `open` may stand for another start. */
struct known_secrets_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    std::unique_ptr<settings> kept;
    std::unique_ptr<known_secrets> all;
    std::string error;

    void SetUp() override {
        fs::create_directory(state);
        fs::permissions(state, fs::perms::owner_all);
        open();
    }
    void open() {
        all.reset();
        kept.reset();
        std::string note;
        kept = settings::open(state, note, error);
        ASSERT_TRUE(kept) << error;
        all = std::make_unique<known_secrets>(*kept, state);
    }
    bool set(const std::string& name, const std::string& value) {
        return all->set(name, value, "ann", 1000, error);
    }
    std::string expanded(const std::string& line) {
        missing.clear();
        return all->expand(line, missing).value_or("none");
    }
    std::string missing;
};

TEST(placeholder, names) {
    for (const char* good : {"a", "A-b_c.9", ".", "-"}) {
        EXPECT_TRUE(is_secret_name(good)) << good;
    }
    EXPECT_TRUE(is_secret_name(std::string(64, 'x')));
    for (const char* bad : {"", "a b", "a}", "a/b", "\xc3\xa4", "a\n", "${secret:a}"}) {
        EXPECT_FALSE(is_secret_name(bad)) << bad;
    }
    EXPECT_FALSE(is_secret_name(std::string(65, 'x')));
}

TEST(placeholder, places_of_a_line) {
    EXPECT_EQ(secrets_in("${secret:b}x${secret:a}${secret:b}"),
              (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(secrets_in("$${secret:a}}"), std::vector<std::string>{"a"});
    for (const char* none : {"", "secret:a", "${secret", "${secret:", "${secret:}", "${secret:a",
                             "${secret:a b}", "${SECRET:a}", "$ {secret:a}"}) {
        EXPECT_EQ(secrets_in(none), std::vector<std::string>()) << none;
    }
    EXPECT_EQ(secrets_in("${secret:a${secret:b}"), std::vector<std::string>{"b"});
    placeholder at;
    EXPECT_FALSE(find_placeholder("$secret:a}", 0, at));
    ASSERT_TRUE(find_placeholder("..${secret:}", 0, at));
    EXPECT_EQ(at.name, "");
    EXPECT_EQ(at.begin, 2u);
    EXPECT_EQ(at.end, 11u);
}

TEST(placeholder, what_may_be_shown_of_a_password) {
    EXPECT_TRUE(is_only_placeholders("${secret:a}"));
    EXPECT_TRUE(is_only_placeholders("${secret:a}${secret:b}"));
    for (const char* more : {"", "x", "x${secret:a}", "${secret:a}x", "${secret:a} ${secret:b}",
                             "${secret:}", "${secret:a}${secret:"}) {
        EXPECT_FALSE(is_only_placeholders(more)) << more;
    }
}

TEST_F(known_secrets_test, a_value_stands_where_its_name_stood) {
    ASSERT_TRUE(set("db", "s3cr et") && set("x.y", "b${secret:db}")) << error;
    EXPECT_EQ(expanded("a\t${secret:db}\t-${secret:db}-"), "a\ts3cr et\t-s3cr et-");
    EXPECT_EQ(expanded("no secrets"), "no secrets");
    EXPECT_EQ(expanded("${secret:x.y}"), "b${secret:db}") << "values are not looked at again";
    EXPECT_EQ(expanded("${secret:db"), "${secret:db") << "what is none stays";
    EXPECT_EQ(missing, "");
    EXPECT_EQ(expanded("${secret:db}${secret:no}${secret:nor}"), "none");
    EXPECT_EQ(missing, "no");
}

TEST_F(known_secrets_test, values_outlive_a_restart_sealed) {
    EXPECT_FALSE(fs::exists(state + "/secrets.key")) << "made when it is needed";
    ASSERT_TRUE(set("db", "s3cret-s3cret")) << error;
    struct stat key {};
    ASSERT_EQ(stat((state + "/secrets.key").c_str(), &key), 0);
    EXPECT_EQ(key.st_mode & 0777, 0600u);
    for (const auto& file : fs::directory_iterator(state)) {
        std::ifstream in(file.path());
        std::stringstream text;
        text << in.rdbuf();
        EXPECT_EQ(text.str().find("s3cret-s3cret"), std::string::npos) << file.path();
    }
    open();
    EXPECT_EQ(expanded("${secret:db}"), "none") << "not read yet";
    ASSERT_TRUE(all->refresh(error)) << error;
    EXPECT_EQ(expanded("${secret:db}"), "s3cret-s3cret");
    ASSERT_EQ(all->list().size(), 1u);
    EXPECT_EQ(all->list()[0].name, "db");
    EXPECT_EQ(all->list()[0].by, "ann");
    EXPECT_EQ(all->list()[0].made, 1000);
    EXPECT_TRUE(all->list()[0].readable);
}

TEST_F(known_secrets_test, every_change_is_seen) {
    ASSERT_TRUE(all->refresh(error));
    uint64_t before = all->newest();
    auto rises = [&] { return std::exchange(before, all->newest()) < all->newest(); };
    EXPECT_EQ(all->serial_of("db"), 0u);
    ASSERT_TRUE(set("db", "one"));
    uint64_t first = all->serial_of("db");
    EXPECT_TRUE(rises() && first > 0);
    ASSERT_TRUE(set("other", "x"));
    EXPECT_EQ(all->serial_of("db"), first);
    EXPECT_TRUE(rises());
    ASSERT_TRUE(set("db", "two"));
    EXPECT_GT(all->serial_of("db"), first);
    EXPECT_TRUE(rises());
    EXPECT_TRUE(all->refresh(error));
    EXPECT_FALSE(rises());
    ASSERT_TRUE(all->remove("db", error));
    EXPECT_TRUE(rises());
    EXPECT_EQ(all->serial_of("db"), 0u);
    EXPECT_EQ(expanded("${secret:db}"), "none");
    error = "x";
    EXPECT_FALSE(all->remove("db", error));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(rises());
    ASSERT_TRUE(set("db", "three"));
    EXPECT_TRUE(rises());
}

TEST_F(known_secrets_test, what_another_process_did_is_taken_in) {
    std::string note;
    std::unique_ptr<settings> other = settings::open(state, note, error);
    known_secrets theirs(*other, state);
    ASSERT_TRUE(theirs.set("db", "value", "bob", 1, error)) << error;
    EXPECT_TRUE(all->refresh(error));
    EXPECT_EQ(expanded("${secret:db}"), "value");
    ASSERT_TRUE(theirs.remove("db", error));
    EXPECT_TRUE(all->refresh(error));
    EXPECT_TRUE(all->list().empty());
}

TEST_F(known_secrets_test, what_is_no_name_and_no_value_is_refused) {
    EXPECT_FALSE(set("a b", "value"));
    EXPECT_EQ(error, "the name of a secret has to be 1 to 64 letters, digits, '-', '_' and '.'");
    const std::string rule =
        "the value of a secret has to be 1 to 4096 bytes of UTF-8 without control characters";
    for (const std::string& value :
         {std::string(), std::string(4097, 'x'), std::string("tab\tbed"), std::string("line\n"),
          std::string("\rx"), std::string(1, '\0'), std::string("\x7f"), std::string("\xff\xfe"),
          std::string("\xc2\x9b"), std::string("\x1b[0m")}) {
        EXPECT_FALSE(set("a", value));
        EXPECT_EQ(error, rule) << "says nothing of the value";
    }
    EXPECT_TRUE(all->list().empty());
    EXPECT_FALSE(fs::exists(state + "/secrets.key"));
    for (const std::string& value :
         {std::string(4096, 'x'), std::string(" "), std::string("\xc3\xa4\xe2\x82\xac"),
          std::string("a;b|c,d\"'\\${}")}) {
        EXPECT_TRUE(set("a", value)) << error;
        EXPECT_EQ(expanded("${secret:a}"), value);
    }
}

TEST_F(known_secrets_test, without_the_key_they_are_as_if_not_there) {
    ASSERT_TRUE(set("db", "value-of-db") && set("web", "other")) << error;
    fs::rename(state + "/secrets.key", state + "/away");
    open();
    EXPECT_FALSE(all->refresh(error));
    EXPECT_TRUE(error.starts_with(
        "secrets that cannot be opened, so tests with them are not sent: db, web: "))
        << error;
    EXPECT_EQ(error.find("value"), std::string::npos);
    EXPECT_EQ(expanded("${secret:db}"), "none");
    ASSERT_EQ(all->list().size(), 2u);
    EXPECT_FALSE(all->list()[0].readable || all->list()[1].readable);

    /* It comes back. */
    uint64_t before = all->newest();
    fs::rename(state + "/away", state + "/secrets.key");
    EXPECT_TRUE(all->refresh(error)) << error;
    EXPECT_GT(all->newest(), before);
    EXPECT_EQ(expanded("${secret:db}"), "value-of-db");

    /* It does not: those sealed with it go, and then there is another. */
    fs::remove(state + "/secrets.key");
    open();
    EXPECT_FALSE(all->refresh(error));
    EXPECT_FALSE(set("db", "new"));
    EXPECT_TRUE(
        error.ends_with(" (put the key back, or remove the secrets that were sealed with it: web)"))
        << error;
    EXPECT_FALSE(fs::exists(state + "/secrets.key"));
    ASSERT_TRUE(all->remove("web", error)) << error;
    ASSERT_TRUE(set("db", "new")) << error;
    EXPECT_EQ(expanded("${secret:db}"), "new");
    EXPECT_TRUE(all->refresh(error)) << error;
}

TEST_F(known_secrets_test, those_of_another_key_can_be_set_anew) {
    ASSERT_TRUE(set("db", "value-of-db")) << error;
    fs::remove(state + "/secrets.key");
    ASSERT_TRUE(set("db", "new") && set("web", "other")) << error;
    write_text(state + "/secrets.key", std::string(64, 'b') + "\n");
    fs::permissions(state + "/secrets.key", fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_FALSE(all->refresh(error));
    EXPECT_EQ(error, "secrets that cannot be opened, so tests with them are not sent: db, web: "
                     "they were sealed with another key, or are damaged");
    ASSERT_TRUE(set("db", "newer")) << error;
    EXPECT_EQ(expanded("${secret:db}"), "newer");
    EXPECT_EQ(expanded("${secret:web}"), "none");
}

TEST_F(known_secrets_test, one_that_belongs_to_another_name_does_not_open) {
    ASSERT_TRUE(set("db", "value")) << error;
    stored_secret of_db;
    kept->for_each_secret([&](const stored_secret& s) { of_db = s; }, error);
    of_db.name = "web";
    ASSERT_TRUE(kept->put_secret(of_db, error)) << error;
    EXPECT_FALSE(all->refresh(error));
    EXPECT_EQ(expanded("${secret:db}"), "value");
    EXPECT_EQ(expanded("${secret:web}"), "none");
    EXPECT_EQ(all->serial_of("web"), 0u);
}

/* A record of a page test, with that message. */
static std::string page_record(uint32_t test, const std::string& message) {
    return record_builder{
        .ui32 = {type_http, test, 1, 2, 10, 302, 5}, .i64 = {1000}, .strings = {message}}
        .bytes();
}

static std::string message_after(const hidden_texts& hidden, std::string bytes) {
    record r;
    std::string reason;
    EXPECT_TRUE(decode_record(bytes, r, reason)) << reason;
    hidden.cover(r);
    EXPECT_TRUE(decode_record(bytes, r, reason)) << reason;
    return std::string(r.strings[0]);
}

TEST_F(known_secrets_test, what_agents_say_back_is_hidden) {
    ASSERT_TRUE(set("token", "abcdefgh") && set("pin", "123") && set("user", "efgh")) << error;
    const hidden_texts& hidden = all->hidden();
    EXPECT_EQ(message_after(hidden, page_record(7, "at /?t=abcdefgh")), "at /?t=abcdefgh")
        << "no test uses it";
    all->note_uses({{"token", 2}}, {{{type_http, 7}, {"token", "pin", "user"}}});
    EXPECT_EQ(all->list()[1].name, "token");
    EXPECT_EQ(all->list()[1].used, 2u);
    EXPECT_EQ(all->list()[0].used, 0u);
    EXPECT_EQ(message_after(hidden, page_record(7, "abcdefgh/?t=abcdefgh&efgh 123")),
              "********/?t=********&**** 123")
        << "what is short stands everywhere";
    EXPECT_EQ(message_after(hidden, page_record(7, "cut: abcdef")), "cut: ******");
    EXPECT_EQ(message_after(hidden, page_record(7, "cut: abc")), "cut: abc");
    EXPECT_EQ(message_after(hidden, page_record(7, "abcd")), "****");
    EXPECT_EQ(message_after(hidden, page_record(8, "abcdefgh")), "abcdefgh") << "another test";

    ASSERT_TRUE(set("token", "ABCDEFGH")) << error;
    EXPECT_EQ(message_after(hidden, page_record(7, "ABCDEFGH abcdefgh")), "******** ********")
        << "the agent may not have heard yet";
    ASSERT_TRUE(all->remove("token", error)) << error;
    EXPECT_EQ(message_after(hidden, page_record(7, "ABCDEFGH")), "********");

    std::string noise = "\1\2ABCDEFGH\3";
    hidden.cover(noise.data(), noise.size());
    EXPECT_EQ(noise, "\1\2********\3");
}

TEST_F(known_secrets_test, strings_of_parts_are_hidden_and_numbers_are_not) {
    ASSERT_TRUE(set("community", "AAAA")) << error;
    all->note_uses({}, {{{type_snmp, 7}, {"community"}}});
    const std::string part =
        record_builder{.ui32 = {4, 0x41414141}, .strings = {"is AAAA"}}.bytes();
    std::string bytes = record_builder{
        .ui32 = {type_snmp, 7, 0x41414141, 0, 1},
        .i64 = {0x4141414141414141},
        .d64 = {1},
        .strings = {"AAAA."},
        .nested = {part}}.bytes();
    record r, inner;
    std::string reason;
    ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
    all->hidden().cover(r);
    ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
    EXPECT_EQ(r.strings[0], "****.");
    EXPECT_EQ(r.ui32[2], 0x41414141u);
    EXPECT_EQ(r.i64[0], 0x4141414141414141);
    ASSERT_TRUE(decode_record(r.nested[0], inner, reason)) << reason;
    EXPECT_EQ(inner.strings[0], "is ****");
    EXPECT_EQ(inner.ui32[1], 0x41414141u);
}

/* Hidden by the network's thread, looked up by the store's, changed by those of the API. */
TEST_F(known_secrets_test, several_threads_at_once) {
    ASSERT_TRUE(set("a", "value-of-a")) << error;
    all->note_uses({}, {{{type_http, 7}, {"a"}}});
    std::atomic<bool> end = false;
    std::thread reader([&] {
        while (!end) {
            std::string missing_one;
            std::string line = all->expand("${secret:a}", missing_one).value_or("none");
            EXPECT_TRUE(line.starts_with("value-of-") || line == "none") << line;
            EXPECT_FALSE(message_after(all->hidden(), page_record(7, "x")).empty());
            all->list();
        }
    });
    for (int i = 0; i < 20; i++) {
        EXPECT_TRUE(set("a", "value-of-" + std::to_string(i))) << error;
        EXPECT_TRUE(i % 5 != 0 || all->remove("a", error));
        all->note_uses({}, {{{type_http, 7}, {"a"}}});
    }
    end = true;
    reader.join();
}
