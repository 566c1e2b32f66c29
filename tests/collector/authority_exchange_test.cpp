/* The exchange of both authorities, ended after each of its steps as a kill ends it, and beside a
 * collector that goes on. */
#include "base/agent_authority.h"
#include "base/authority_files.h"
#include "base/files.h"
#include "base/identity.h"
#include "base/tls.h"
#include "collector_test_support.h"

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

/* How many more files are put in their places before the process is gone; -1: it stays. */
static int renames_left = -1;

extern "C" int rename(const char* from, const char* to) noexcept {
    if (renames_left == 0) {
        _exit(9);
    }
    renames_left -= renames_left > 0;
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

static const protocol::agent_identity web1{"ops@example.org", "web1"};

using content = std::map<std::string, std::string>;

class authority_exchange : public testing::Test {
protected:
    std::string in(const std::string& name) const { return home_ / name; }
    std::string directory() const { return home_ / "state"; }
    std::string state(const std::string& name) const { return home_ / "state/" + name; }

    void SetUp() override { fs::create_directory(directory()); }
    void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0u) << "left for whoever looks next"; }

    /* What is in the state directory, and back to that. */
    content files() const {
        content all;
        for (const auto& each : fs::directory_iterator(directory())) {
            all[each.path().filename()] = read_text(each.path());
        }
        return all;
    }
    void put(const content& all) const {
        fs::remove_all(directory());
        fs::create_directory(directory());
        for (const auto& [name, text] : all) {
            write_text(state(name), text);
            if (name.find("key") != name.npos) {
                chmod(state(name).c_str(), 0600);
            }
        }
    }

    /* In a process of its own, which is gone in front of the rename of that number. */
    static bool is_killed(int number, const std::function<bool()>& work) {
        pid_t child = fork();
        if (child == 0) {
            renames_left = number;
            _exit(work() ? 0 : 1);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 9))
            << status;
        return WEXITSTATUS(status) == 9;
    }
    /* With each step cut off in turn, and with none, from what is there now. How many there are. */
    int after_each_step(const std::function<bool()>& work, const std::function<void(int)>& look) {
        const content before = files();
        for (int step = 0;; step++) {
            put(before);
            const bool killed = is_killed(step, work);
            SCOPED_TRACE("killed in front of rename " + std::to_string(step));
            look(step);
            if (!killed) {
                return step;
            }
            if (step > 20 || HasFailure()) {
                return -1;
            }
        }
    }
    /* Each set of the files that are there. */
    void with_each_set(const std::function<void(const content&)>& look) {
        const content all = files();
        for (unsigned set = 0; set < 1u << all.size() && !HasFailure(); set++) {
            content some;
            unsigned number = 0;
            std::string names;
            for (const auto& [name, text] : all) {
                if (set & 1u << number++) {
                    some[name] = text;
                    names += " " + name;
                }
            }
            SCOPED_TRACE("with" + names);
            put(some);
            look(some);
        }
    }

    /* --- agents --- */
    agent_authority opened() const {
        agent_authority by;
        std::string error;
        EXPECT_TRUE(by.open(directory(), error)) << error;
        return by;
    }
    static x509_ptr certificate_by(const std::string& directory) {
        authority signs;
        std::string error;
        EXPECT_TRUE(read_authority(agent_authority_place(directory).now, signs, error)) << error;
        key_ptr key(EVP_EC_gen("P-256"));
        return make_agent_certificate(key.get(), signs, protocol::identity_uri(web1), 1, 90);
    }
    bool renew_agents() { return renew_agent_authority(directory(), error_); }
    bool finish_agents() { return finish_agent_authority(directory(), error_); }

    /* --- the server --- */
    identity_files ensured() {
        identity_files made;
        identity_report report;
        EXPECT_TRUE(ensure_identity(directory(), {"collector.example.org"}, made, report, error_))
            << error_;
        EXPECT_TRUE(report.notes.empty()) << report.notes[0];
        return made;
    }
    bool renew_server() { return renew_server_authority(directory(), error_); }
    bool finish_server() { return finish_server_authority(directory(), error_); }
    published_authorities published() const {
        published_authorities out;
        std::string error;
        EXPECT_TRUE(publish_authorities(directory(), own_identity(directory()), out, error))
            << error;
        return out;
    }
    /* A host with that in its CAFILE takes the server as it is now, and could start it. */
    void expect_verified(const std::string& ca_file) const {
        write_text(in("cafile"), ca_file);
        std::unique_ptr<X509_STORE, released_by<X509_STORE_free>> store(X509_STORE_new());
        for (const x509_ptr& each : read_certificates(in("cafile"))) {
            X509_STORE_add_cert(store.get(), each.get());
        }
        x509_ptr server = read_certificate(state("certificate.pem"));
        std::unique_ptr<X509_STORE_CTX, released_by<X509_STORE_CTX_free>> c(X509_STORE_CTX_new());
        X509_STORE_CTX_init(c.get(), store.get(), server.get(), nullptr);
        X509_STORE_CTX_set_purpose(c.get(), X509_PURPOSE_SSL_SERVER);
        EXPECT_EQ(X509_verify_cert(c.get()), 1)
            << X509_verify_cert_error_string(X509_STORE_CTX_get_error(c.get()));
        EXPECT_EQ(X509_check_host(server.get(), "collector.example.org", 0, 0, nullptr), 1);
        std::string error;
        EXPECT_TRUE(make_tls_context(own_identity(directory()), error)) << error;
        ERR_clear_error();
    }

    std::string error_;
    scratch_directory home_;
};

/* --- agents ---------------------------------------------------------------------------------- */

TEST_F(authority_exchange, agents_go_on_from_one_to_the_next) {
    opened();
    x509_ptr first = certificate_by(directory());
    const protocol::sha256 before = opened().signing();
    ASSERT_TRUE(renew_agents()) << error_;
    agent_authority by = opened();
    x509_ptr second = certificate_by(directory());
    EXPECT_NE(by.signing(), before);
    ASSERT_EQ(by.accepted().size(), 2u);
    EXPECT_EQ(hash_of_certificate(by.accepted()[0].get()), by.signing());
    EXPECT_EQ(hash_of_certificate(by.accepted()[1].get()), before);
    EXPECT_EQ(by.verify(first.get()), X509_V_OK);
    EXPECT_EQ(by.verify(second.get()), X509_V_OK);
    EXPECT_EQ(by.read(first.get())->authority, before);
    EXPECT_EQ(by.read(second.get())->authority, by.signing());
    EXPECT_EQ(files().size(), 3u);

    ASSERT_TRUE(finish_agents()) << error_;
    agent_authority last = opened();
    EXPECT_EQ(last.signing(), by.signing());
    EXPECT_EQ(last.accepted().size(), 1u);
    EXPECT_NE(last.verify(first.get()), X509_V_OK);
    EXPECT_EQ(last.verify(second.get()), X509_V_OK);
    EXPECT_EQ(files().size(), 2u);
}

TEST_F(authority_exchange, of_agents_it_can_be_cut_off_anywhere) {
    opened();
    x509_ptr agent = certificate_by(directory());
    const protocol::sha256 before = opened().signing();
    int steps =
        after_each_step([&] { return renew_agents(); },
                        [&](int) {
                            const content left = files();
                            agent_authority by = opened();
                            EXPECT_EQ(by.verify(agent.get()), X509_V_OK);
                            EXPECT_EQ(by.verify(certificate_by(directory()).get()), X509_V_OK);
                            /* Once more from what was left, with no start between. */
                            put(left);
                            const bool again = renew_agents();
                            EXPECT_TRUE(again || error_.starts_with("an exchange is under way"))
                                << error_;
                            by = opened();
                            EXPECT_NE(by.signing(), before);
                            EXPECT_EQ(by.accepted().size(), 2u);
                            EXPECT_EQ(by.verify(agent.get()), X509_V_OK);
                            EXPECT_EQ(by.verify(certificate_by(directory()).get()), X509_V_OK);
                            EXPECT_EQ(files().size(), 3u);
                            EXPECT_TRUE(finish_agents()) << error_;
                        });
    EXPECT_EQ(steps, 5) << "two new files, the old one, and two that take their places";
}

TEST_F(authority_exchange, of_agents_it_ends_from_wherever_it_was_cut_off) {
    opened();
    x509_ptr agent = certificate_by(directory());
    after_each_step([&] { return renew_agents(); },
                    [&](int step) {
                        const bool finished = finish_agents();
                        EXPECT_EQ(finished, step >= 4) << error_;
                        if (!finished) {
                            EXPECT_TRUE(error_.starts_with("no exchange") ||
                                        error_.starts_with("the exchange was cut"))
                                << error_;
                            EXPECT_EQ(opened().verify(agent.get()), X509_V_OK);
                        }
                    });
}

TEST_F(authority_exchange, whichever_files_of_agents_are_missing_the_others_stay) {
    opened();
    const content first = files();
    ASSERT_TRUE(renew_agents()) << error_;
    content all = files();
    /* In front of the last two steps, and between them. */
    content early = all, half = all;
    early["agents-ca-next.pem"] = all["agents-ca.pem"];
    early["agents-ca-next-key.pem"] = all["agents-ca-key.pem"];
    early["agents-ca.pem"] = first.at("agents-ca.pem");
    early["agents-ca-key.pem"] = first.at("agents-ca-key.pem");
    half["agents-ca-next.pem"] = all["agents-ca.pem"];
    half["agents-ca.pem"] = first.at("agents-ca.pem");
    for (const content* from : {&all, &early, &half}) {
        put(*from);
        with_each_set([&](const content& before) {
            agent_authority by;
            std::string error;
            const bool is_open = by.open(directory(), error);
            EXPECT_EQ(is_open, error.empty());
            EXPECT_EQ(error.find('\n'), error.npos);
            content after = files();
            for (const auto& [name, text] : before) {
                if (from == &half && (name == "agents-ca.pem" || name == "agents-ca-next.pem")) {
                    continue; /* the one takes the other's place */
                }
                EXPECT_EQ(after[name], text) << name;
            }
            if (is_open) {
                EXPECT_EQ(by.verify(certificate_by(directory()).get()), X509_V_OK);
            } else {
                EXPECT_EQ(after, before) << error;
            }
        });
    }
}

TEST_F(authority_exchange, of_agents_it_is_not_begun_twice) {
    opened();
    ASSERT_TRUE(renew_agents()) << error_;
    const content before = files();
    EXPECT_FALSE(renew_agents());
    EXPECT_EQ(error_, "an exchange is under way: " + state("agents-ca-old.pem") +
                          " is still accepted. \"vindral-collector authority finish agents\" ends "
                          "that");
    EXPECT_EQ(files(), before);
}

TEST_F(authority_exchange, of_agents_it_is_not_ended_before_it_has_begun) {
    EXPECT_FALSE(finish_agents());
    EXPECT_EQ(error_, "no exchange of the agents' authority is under way");
    EXPECT_FALSE(renew_agents());
    EXPECT_EQ(error_, "there is no " + state("agents-ca.pem") + " yet: a start makes it");
    opened();
    const content before = files();
    EXPECT_FALSE(finish_agents());
    EXPECT_EQ(files(), before);
}

TEST_F(authority_exchange, an_authority_whose_key_is_lost_can_be_exchanged) {
    opened();
    x509_ptr agent = certificate_by(directory());
    fs::remove(state("agents-ca-key.pem"));
    ASSERT_TRUE(renew_agents()) << error_;
    agent_authority by = opened();
    EXPECT_EQ(by.verify(agent.get()), X509_V_OK);
    EXPECT_EQ(by.verify(certificate_by(directory()).get()), X509_V_OK);
}

TEST_F(authority_exchange, the_next_key_of_agents_is_missed) {
    opened();
    EXPECT_TRUE(is_killed(2, [&] { return renew_agents(); }));
    fs::remove(state("agents-ca-next-key.pem"));
    const content before = files();
    EXPECT_FALSE(renew_agents());
    EXPECT_EQ(error_, state("agents-ca-next.pem") + " is there but " +
                          state("agents-ca-next-key.pem") +
                          " is not: put the key back, or remove the certificate to begin anew");
    EXPECT_EQ(files(), before);
    opened();
}

/* --- the server --------------------------------------------------------------------------------
 */

TEST_F(authority_exchange, hosts_go_on_from_one_to_the_next) {
    ensured();
    const content start = files();
    const published_authorities first = published();
    EXPECT_EQ(first.pem, start.at("ca.pem"));
    EXPECT_EQ(first.first, hash_of_certificate(read_certificate(state("ca.pem")).get()));
    ASSERT_TRUE(renew_server()) << error_;
    const published_authorities both = published();
    EXPECT_EQ(both.pem, start.at("ca.pem") + files().at("ca-next.pem"));
    EXPECT_EQ(both.first, first.first);
    EXPECT_NE(both.hash, first.hash);
    struct stat status;
    ASSERT_EQ(stat(state("ca-next-key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    expect_verified(first.pem);
    expect_verified(both.pem);
    ensured();
    EXPECT_EQ(read_text(state("certificate.pem")), start.at("certificate.pem"));

    const content before = files();
    ASSERT_TRUE(finish_server()) << error_;
    expect_verified(both.pem);
    const published_authorities last = published();
    EXPECT_EQ(last.pem, before.at("ca-next.pem"));
    EXPECT_NE(last.first, first.first);
    expect_verified(last.pem);
    EXPECT_EQ(read_text(state("key.pem")), start.at("key.pem"));
    EXPECT_EQ(read_text(state("ca-key.pem")), before.at("ca-next-key.pem"));
    EXPECT_EQ(names_in(read_certificate(state("certificate.pem")).get()), names_in([&] {
                  write_text(in("before"), start.at("certificate.pem"));
                  return read_certificate(in("before"));
              }()
                                                                                       .get()));
    EXPECT_EQ(files().size(), 4u);
    ensured();
    EXPECT_EQ(published().hash, last.hash);
}

TEST_F(authority_exchange, of_the_server_it_can_be_cut_off_anywhere) {
    ensured();
    const std::string first = published().pem;
    int steps = after_each_step(
        [&] { return renew_server(); },
        [&](int) {
            expect_verified(first);
            const content left = files();
            ensured();
            expect_verified(first);
            put(left);
            EXPECT_TRUE(renew_server() || error_.starts_with("an exchange is under way")) << error_;
            const std::string both = published().pem;
            EXPECT_TRUE(both.starts_with(first) && both.size() > first.size());
            expect_verified(first);
        });
    EXPECT_EQ(steps, 2);

    const std::string both = published().pem;
    steps = after_each_step([&] { return finish_server(); },
                            [&](int step) {
                                const content left = files();
                                expect_verified(both);
                                ensured(); /* a start */
                                expect_verified(both);
                                expect_verified(published().pem);
                                put(left);
                                expect_verified(published().pem); /* none between */
                                put(left);
                                EXPECT_EQ(finish_server(), step < 3) << error_;
                                expect_verified(both);
                                EXPECT_EQ(first + published().pem, both);
                                expect_verified(published().pem);
                                EXPECT_EQ(files().size(), 4u);
                                ensured();
                            });
    EXPECT_EQ(steps, 3);
}

TEST_F(authority_exchange, whichever_files_of_the_server_are_missing_the_others_stay) {
    ensured();
    const content first = files();
    ASSERT_TRUE(renew_server()) << error_;
    const content under_way = files();
    ASSERT_TRUE(finish_server()) << error_;
    content signed_anew = under_way, key_there = under_way;
    signed_anew["certificate.pem"] = key_there["certificate.pem"] = files().at("certificate.pem");
    key_there["ca-key.pem"] = under_way.at("ca-next-key.pem");
    key_there.erase("ca-next-key.pem");
    for (const content* from :
         std::initializer_list<const content*>{&under_way, &signed_anew, &key_there}) {
        put(*from);
        with_each_set([&](const content& before) {
            identity_files made;
            identity_report report;
            std::string error;
            const bool is_there = ensure_identity(directory(), {}, made, report, error);
            EXPECT_EQ(is_there, error.empty());
            content after = files();
            for (const auto& [name, text] : before) {
                bool kept = false;
                for (const auto& [other, now] : after) {
                    kept = kept || now == text;
                }
                const bool may_go = name == "ca.pem" || name == "ca-key.pem";
                EXPECT_TRUE(kept ||
                            (may_go && before.contains("ca-next.pem") && from != &under_way))
                    << name;
            }
            if (is_there) {
                EXPECT_TRUE(make_tls_context(made, error)) << error;
            } else if (from == &under_way) {
                EXPECT_EQ(after, before) << error;
            }
            published_authorities out;
            publish_authorities(directory(), made, out, error);
            renew_server();
            finish_server();
            ERR_clear_error();
        });
    }
}

TEST_F(authority_exchange, of_the_server_it_is_neither_begun_twice_nor_ended_before) {
    EXPECT_FALSE(renew_server());
    EXPECT_EQ(error_, "there is no authority of the server's own here to exchange: " +
                          state("certificate.pem") + " is not there");
    EXPECT_FALSE(finish_server());
    EXPECT_EQ(error_, "no exchange of the server's authority is under way");
    ensured();
    EXPECT_FALSE(finish_server());
    EXPECT_EQ(error_, "no exchange of the server's authority is under way");
    ASSERT_TRUE(renew_server()) << error_;
    const content before = files();
    EXPECT_FALSE(renew_server());
    EXPECT_EQ(error_, "an exchange is under way: " + state("ca-next.pem") +
                          " is published. \"vindral-collector authority finish server\" puts it in "
                          "its place");
    EXPECT_EQ(files(), before);
}

TEST_F(authority_exchange, the_servers_next_key_is_missed) {
    ensured();
    ASSERT_TRUE(renew_server()) << error_;
    fs::remove(state("ca-next-key.pem"));
    const content before = files();
    const std::string line = state("ca-next.pem") + " is there but " + state("ca-next-key.pem") +
                             " is not: put the key back, or remove the certificate to begin anew";
    EXPECT_FALSE(finish_server());
    EXPECT_EQ(error_, line);
    EXPECT_FALSE(renew_server());
    EXPECT_EQ(error_, line);
    EXPECT_EQ(files(), before);
    fs::remove(state("ca-next.pem"));
    EXPECT_TRUE(renew_server()) << error_;
}

TEST_F(authority_exchange, the_key_of_the_one_before_may_be_somewhere_else) {
    ensured();
    fs::remove(state("ca-key.pem"));
    ASSERT_TRUE(renew_server()) << error_;
    const std::string both = published().pem;
    ASSERT_TRUE(finish_server()) << error_;
    expect_verified(both);
    EXPECT_TRUE(fs::exists(state("ca-key.pem")));
}

TEST_F(authority_exchange, a_name_that_is_new_meanwhile_is_signed_by_the_one_that_hosts_know) {
    ensured();
    const std::string first = published().pem;
    ASSERT_TRUE(renew_server()) << error_;
    identity_files made;
    identity_report report;
    ASSERT_TRUE(ensure_identity(directory(), {"collector.example.org", "new.example.org"}, made,
                                report, error_))
        << error_;
    expect_verified(first);
    ASSERT_TRUE(finish_server()) << error_;
    EXPECT_EQ(X509_check_host(read_certificate(state("certificate.pem")).get(), "new.example.org",
                              0, 0, nullptr),
              1);
}

TEST_F(authority_exchange, of_a_pair_of_the_operators_the_end_of_its_chain_is_published) {
    ensured();
    ASSERT_TRUE(renew_server()) << error_;
    const content ours = files();
    published_authorities out;
    identity_files theirs{in("their.pem"), in("their.key")};
    write_text(theirs.certificate, ours.at("certificate.pem") + ours.at("ca.pem"));
    ASSERT_TRUE(publish_authorities(directory(), theirs, out, error_)) << error_;
    EXPECT_EQ(out.pem, ours.at("ca.pem"));
    EXPECT_EQ(out.first, hash_of_certificate(read_certificate(state("ca.pem")).get()));
    write_text(theirs.certificate, ours.at("certificate.pem"));
    ASSERT_TRUE(publish_authorities(directory(), theirs, out, error_)) << error_;
    EXPECT_EQ(out.pem, ours.at("certificate.pem")) << "alone, it is all there is";
    write_text(theirs.certificate, "nonsense");
    EXPECT_FALSE(publish_authorities(directory(), theirs, out, error_));
    EXPECT_EQ(error_, "there is no certificate in " + theirs.certificate);

    /* The operator's, in the directory. */
    scratch_directory other;
    identity_files made;
    identity_report report;
    ASSERT_TRUE(ensure_identity(other.path(), {}, made, report, error_)) << error_;
    write_text(state("certificate.pem"), read_text(made.certificate) + read_text(other / "ca.pem"));
    write_text(state("key.pem"), read_text(made.key));
    EXPECT_EQ(published().pem, read_text(other / "ca.pem"));
    fs::remove(state("ca-next.pem"));
    EXPECT_FALSE(renew_server());
    EXPECT_EQ(error_, "there is no authority of the server's own here to exchange: " +
                          state("certificate.pem") + " is not signed by " + state("ca.pem"));
}

/* --- a collector beside it ---------------------------------------------------------------------
 */

TEST_F(authority_exchange, a_collector_sees_that_files_have_changed) {
    const identity_files pair = ensured();
    opened();
    std::string last = identity_stamp(directory(), pair);
    EXPECT_EQ(identity_stamp(directory(), pair), last);
    ensured();
    opened();
    published();
    EXPECT_EQ(identity_stamp(directory(), pair), last) << "reading changes nothing";
    for (const std::function<bool()>& change : std::initializer_list<std::function<bool()>>{
             [&] { return renew_agents(); }, [&] { return finish_agents(); },
             [&] { return renew_server(); }, [&] { return finish_server(); },
             [&] { return fs::remove(state("key.pem")); },
             [&] { return replace_file(state("key.pem"), "x", 0600); },
             [&] { return replace_file(state("key.pem"), "x", 0600); }}) {
        EXPECT_TRUE(change()) << error_;
        const std::string now = identity_stamp(directory(), pair);
        EXPECT_NE(now, last);
        last = now;
    }
}

TEST_F(authority_exchange, a_collector_goes_on_beside_it) {
    ensured();
    opened();
    std::atomic<bool> done = false;
    std::thread collector([&] {
        while (!done) {
            identity_files made;
            identity_report report;
            published_authorities out;
            agent_authority by;
            std::string error;
            EXPECT_TRUE(ensure_identity(directory(), {}, made, report, error)) << error;
            EXPECT_TRUE(make_tls_context(made, error)) << error;
            EXPECT_TRUE(publish_authorities(directory(), made, out, error)) << error;
            EXPECT_TRUE(by.open(directory(), error)) << error;
            EXPECT_EQ(by.accepted().empty() ? protocol::sha256()
                                            : hash_of_certificate(by.accepted()[0].get()),
                      by.signing());
        }
    });
    for (int i = 0; i < 10; i++) {
        EXPECT_TRUE(renew_agents()) << error_;
        EXPECT_TRUE(renew_server()) << error_;
        EXPECT_TRUE(finish_agents()) << error_;
        EXPECT_TRUE(finish_server()) << error_;
    }
    done = true;
    collector.join();
}
