#include "life/authority_commands.h"

#include "base/agent_authority.h"
#include "base/authority_files.h"
#include "base/identity.h"
#include "base/text.h"
#include "collector_test_support.h"
#include "store/settings.h"

#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>

namespace fs = std::filesystem;

class authority_commands : public testing::Test {
protected:
    authority_commands() {
        o_.state_dir = home_ / "state";
        fs::create_directory(o_.state_dir);
    }

    std::string state(const std::string& name) const { return o_.state_dir + "/" + name; }

    /* A collector was there. */
    void start() {
        identity_files files;
        identity_report report;
        agent_authority by;
        std::string error;
        ASSERT_TRUE(ensure_identity(o_.state_dir, {}, files, report, error)) << error;
        ASSERT_TRUE(by.open(o_.state_dir, error)) << error;
    }

    int run(int (*command)(const options&), const char* whose = "", bool force = false) {
        std::ostringstream out, err;
        std::streambuf *old_out = std::cout.rdbuf(out.rdbuf()),
                       *old_err = std::cerr.rdbuf(err.rdbuf());
        o_.whose = whose;
        o_.force = force;
        int status = command(o_);
        std::cout.rdbuf(old_out);
        std::cerr.rdbuf(old_err);
        out_ = out.str();
        err_ = err.str();
        return status;
    }
    int show() { return run(run_show_authorities); }
    int renew(const char* whose) { return run(run_renew_authority, whose); }
    int finish(const char* whose, bool force = false) {
        return run(run_finish_authority, whose, force);
    }

    protocol::sha256 signing() const {
        return hash_of_certificate(read_certificate(state("agents-ca.pem")).get());
    }
    protocol::sha256 published() const {
        published_authorities out;
        std::string error;
        EXPECT_TRUE(publish_authorities(o_.state_dir, own_identity(o_.state_dir), out, error))
            << error;
        return out.hash;
    }

    stored_identity agent(const std::string& name) const {
        stored_identity each;
        each.account = "ops@example.org";
        each.agent = name;
        each.admitted = 1;
        each.highest = each.good_from = 1;
        each.authority = signing();
        each.knows = published();
        each.issued = time(nullptr);
        each.ends = 4102444800; /* 2100 */
        return each;
    }
    void keep(const stored_identity& what) const {
        std::string note, error;
        std::unique_ptr<settings> kept = settings::open(o_.state_dir, note, error);
        ASSERT_TRUE(kept) << error;
        ASSERT_TRUE(kept->put_identity(what, error)) << error;
    }
    std::string print_of(const std::string& file) const {
        return fingerprint(hash_of_certificate(read_certificate(state(file)).get()));
    }
    std::string end_of_file(const std::string& file) const {
        return utc_time(seconds_of(X509_get0_notAfter(read_certificate(state(file)).get())))
            .substr(0, 10);
    }
    std::string line(const std::string& file, const std::string& what) const {
        return file + std::string(19 - file.size(), ' ') + print_of(file) + "  ends " +
               end_of_file(file) + "  " + what + "\n";
    }

    scratch_directory home_;
    options o_;
    std::string out_, err_;
};

TEST_F(authority_commands, before_the_first_start_there_is_nothing) {
    EXPECT_EQ(show(), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_, "vindral-collector: there is no " + state("ca.pem") +
                        "; a start makes it, unless a certificate is given with --cert\n"
                        "vindral-collector: there is no " +
                        state("agents-ca.pem") + "; a start makes it\n");
    for (const char* whose : {"agents", "server"}) {
        EXPECT_EQ(renew(whose), 1);
        EXPECT_EQ(finish(whose), 1);
        EXPECT_EQ(err_, std::string("vindral-collector: no exchange of the ") +
                            (whose == std::string("agents") ? "agents'" : "server's") +
                            " authority is under way\n");
        EXPECT_EQ(finish(whose, true), 1);
    }
    EXPECT_FALSE(fs::exists(state("agents-ca.pem")));
    EXPECT_FALSE(fs::exists(state("ca-next.pem")));
}

TEST_F(authority_commands, what_there_is_is_shown_with_who_depends_on_it) {
    start();
    keep(agent("web1"));
    EXPECT_EQ(show(), 0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(out_,
              line("ca.pem", "hosts verify this collector with it") +
                  line("agents-ca.pem", "signs agents' certificates; 1 agent with one of it"));
    EXPECT_EQ(renew("agents"), 0);
    EXPECT_EQ(renew("server"), 0);
    keep(agent("web2"));
    keep(agent("web3"));
    EXPECT_EQ(show(), 0);
    EXPECT_EQ(out_,
              line("ca.pem", "hosts verify this collector with it") +
                  line("ca-next.pem", "the next one; of 3 agents 2 know it") +
                  line("agents-ca.pem", "signs agents' certificates; 2 agents with one of it") +
                  line("agents-ca-old.pem", "accepted as well; 1 agent with a certificate of it"));
}

TEST_F(authority_commands, agents_that_would_be_left_behind_are_named) {
    start();
    stored_identity old = agent("web1"), revoked = agent("web2"), ended = agent("web3"),
                    waits = agent("web4");
    revoked.revoked = 5;
    ended.ends = time(nullptr) - 1;
    waits.admitted = 0;
    for (const stored_identity& each : {old, revoked, ended, waits}) {
        keep(each);
    }
    EXPECT_EQ(renew("agents"), 0);
    EXPECT_EQ(err_, "vindral-collector: a new authority signs agents' certificates from now on; "
                    "those of the old one are good as well, and agents renew them within a day\n"
                    "vindral-collector: a collector that runs takes this up within a minute, or at "
                    "once with a SIGHUP\n"
                    "vindral-collector: then \"vindral-collector authority finish agents\" ends "
                    "the old one\n");
    keep(agent("web5"));
    EXPECT_EQ(finish("agents"), 1);
    EXPECT_EQ(err_, "vindral-collector: ops@example.org/web1: its certificate is of the old "
                    "authority, until 2100-01-01T00:00:00Z\n"
                    "vindral-collector: nothing was changed: 1 agent would be shut out. They renew "
                    "within a day while they run; with --force those that did not have to be "
                    "enrolled again\n");
    EXPECT_TRUE(fs::exists(state("agents-ca-old.pem")));
    EXPECT_EQ(renew("agents"), 1);
    keep(agent("web1")); /* it has renewed */
    EXPECT_EQ(finish("agents"), 0);
    EXPECT_EQ(err_, "vindral-collector: certificates of the old authority of agents are good no "
                    "longer\n"
                    "vindral-collector: a collector that runs takes this up within a minute, or at "
                    "once with a SIGHUP\n");
    EXPECT_FALSE(fs::exists(state("agents-ca-old.pem")));
    EXPECT_EQ(finish("agents"), 1);
}

/* Its answer may be lost: then it goes on with the one before. */
TEST_F(authority_commands, a_certificate_that_nobody_has_used_is_not_counted_on) {
    start();
    EXPECT_EQ(renew("agents"), 0);
    stored_identity renewed = agent("web1"), enrolled = agent("web2");
    renewed.highest = 2;
    enrolled.good_from = 0; /* there is none before */
    keep(renewed);
    keep(enrolled);
    EXPECT_EQ(finish("agents"), 1);
    EXPECT_EQ(err_, "vindral-collector: ops@example.org/web1: it has not used the certificate of "
                    "the new authority, and may not have it\n"
                    "vindral-collector: nothing was changed: 1 agent would be shut out. They renew "
                    "within a day while they run; with --force those that did not have to be "
                    "enrolled again\n");
    EXPECT_TRUE(fs::exists(state("agents-ca-old.pem")));
    renewed.good_from = 2;
    keep(renewed);
    EXPECT_EQ(finish("agents"), 0);
}

TEST_F(authority_commands, with_force_agents_are_left_behind) {
    start();
    keep(agent("web1"));
    EXPECT_EQ(renew("agents"), 0);
    EXPECT_EQ(finish("agents", true), 0);
    EXPECT_FALSE(fs::exists(state("agents-ca-old.pem")));
    EXPECT_EQ(renew("server"), 0);
    EXPECT_EQ(finish("server"), 1);
    EXPECT_EQ(finish("server", true), 0);
    EXPECT_FALSE(fs::exists(state("ca-next.pem")));
}

TEST_F(authority_commands, the_server_waits_for_who_proves_itself) {
    start();
    keep(agent("web1"));
    stored_identity known = agent("web2");
    known.ends = known.issued = 0; /* without a certificate there is nothing to wait for */
    known.knows = {};
    keep(known);
    const std::string next = print_of("ca.pem");
    EXPECT_EQ(renew("server"), 0);
    EXPECT_EQ(err_, "vindral-collector: the next authority is ca-next.pem; agents that prove "
                    "themselves fetch it within a day, and other hosts need a copy behind that of "
                    "ca.pem\n"
                    "vindral-collector: a collector that runs takes this up within a minute, or at "
                    "once with a SIGHUP\n"
                    "vindral-collector: then \"vindral-collector authority finish server\" ends "
                    "the old one\n");
    EXPECT_EQ(finish("server"), 1);
    EXPECT_EQ(err_, "vindral-collector: ops@example.org/web1: it has not fetched the next "
                    "authority\n"
                    "vindral-collector: nothing was changed: 1 agent would be shut out. They renew "
                    "within a day while they run; with --force those that did not have to be "
                    "enrolled again\n");
    keep(agent("web1"));
    const std::string fresh = print_of("ca-next.pem");
    EXPECT_EQ(finish("server"), 0);
    EXPECT_EQ(err_, "vindral-collector: the certificate is signed by the new authority, which is "
                    "ca.pem now\n"
                    "vindral-collector: a collector that runs takes this up within a minute, or at "
                    "once with a SIGHUP\n");
    EXPECT_EQ(print_of("ca.pem"), fresh);
    EXPECT_NE(fresh, next);
}

TEST_F(authority_commands, a_fleet_is_named_in_part) {
    start();
    std::string note, error;
    std::unique_ptr<settings> kept = settings::open(o_.state_dir, note, error);
    for (int i = 0; i < 60; i++) {
        ASSERT_TRUE(kept->put_identity(agent("web" + std::to_string(i)), error)) << error;
    }
    EXPECT_EQ(renew("agents"), 0);
    EXPECT_EQ(finish("agents"), 1);
    EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 52);
    EXPECT_NE(err_.find("vindral-collector: and 10 more\n"), err_.npos);
    EXPECT_NE(err_.find("60 agents would be shut out"), err_.npos);
}

TEST_F(authority_commands, while_the_settings_cannot_be_read_nothing_is_ended) {
    start();
    EXPECT_EQ(renew("agents"), 0);
    fs::create_directory(state("settings.db"));
    EXPECT_EQ(finish("agents"), 1);
    EXPECT_NE(err_.find("; nothing was changed\n"), err_.npos) << err_;
    EXPECT_TRUE(fs::exists(state("agents-ca-old.pem")));
}
