#include "enrol/renewal.h"

#include "ctl/failure.h"
#include "ctl/text.h"
#include "enrol/agent.h"
#include "enrol/conf.h"
#include "enrol/credentials.h"
#include "enrol/files.h"
#include "enrol/journal.h"
#include "enrol/steps.h"
#include "enrol/waiting.h"

#include <algorithm>
#include <ctime>

namespace {

[[noreturn]] void fail(const std::string& text) {
    throw failure{status_wrong, text};
}

/* What vindral.conf says of an enrolled host. */
struct enrolled {
    std::string conf_text;
    std::string file, ca_file;
    base_url where;
    identity self;
    ownership owner, ca_owner;
    std::vector<x509_ptr> trusted;
};

const char* const anew = "ask for a token (vindralctl enrol) and type vindral-enrol URL TOKEN here";

std::string path_in(const std::string& conf_text, const char* key) {
    std::string path = conf_value(conf_text, key).value_or("");
    return path.empty() || path.front() == '/'
               ? path
               : conf_value(conf_text, "VINDRALHOME").value_or("") + "/" + path;
}

base_url place_in(const std::string& conf_text, const std::string& conf) {
    const std::optional<conf_server> server = server_in(conf_text);
    if (!server) {
        fail("there is no USEHOST in " + conf);
    }
    return read_collector_url("https://" + server->host + ":" + server->port);
}

/* Throws failure when this host is not enrolled. */
enrolled read_enrolled(const options& said) {
    enrolled e;
    const std::string conf = real_path(said.conf);
    e.conf_text = read_file(conf).value_or("");
    e.file = path_in(e.conf_text, "CERTFILE");
    e.ca_file = path_in(e.conf_text, "CAFILE");
    if (e.file.empty()) {
        fail(std::string("this host is not enrolled: there is no CERTFILE in ") + conf + "; " +
             anew);
    }
    if (path_in(e.conf_text, "KEYFILE") != e.file) {
        fail("CERTFILE and KEYFILE in " + conf +
             " are not one file: that is not an identity of vindral-enrol's");
    }
    const std::optional<std::string> text = read_file(e.file, &e.owner);
    std::optional<identity> self = text ? read_identity(*text) : std::nullopt;
    if (!self || !holder_of(self->certificate.get())) {
        fail(e.file + (text ? " holds no key and certificate of an agent's" : " is missing") +
             ": this host has lost its identity; " + anew);
    }
    e.self = std::move(*self);
    e.where = place_in(e.conf_text, conf);
    if (e.ca_file.empty()) {
        fail("there is no CAFILE in " + conf + " to verify the collector with");
    }
    e.trusted = certificates_in(read_file(e.ca_file, &e.ca_owner).value_or(""));
    if (e.trusted.empty()) {
        fail(e.ca_file + " holds no certificates that can be read");
    }
    return e;
}

bool same_authorities(const std::vector<x509_ptr>& a, const std::vector<x509_ptr>& b) {
    auto is_in = [](const x509_ptr& one, const std::vector<x509_ptr>& many) {
        return std::any_of(many.begin(), many.end(), [&](const x509_ptr& other) {
            return X509_cmp(one.get(), other.get()) == 0;
        });
    };
    return std::all_of(a.begin(), a.end(), [&](const x509_ptr& one) { return is_in(one, b); }) &&
           std::all_of(b.begin(), b.end(), [&](const x509_ptr& one) { return is_in(one, a); });
}

/* A file that lies elsewhere is somebody else's to keep up to date. */
void renew_authorities(const options& said, const enrolled& e, const authorities& now) {
    if (same_authorities(now.all, e.trusted)) {
        return;
    }
    if (!e.ca_file.starts_with(said.directory + "/")) {
        fail("the collector has other authorities than " + e.ca_file + ", which is not in " +
             said.directory + ": replace it by what " + e.where.text() +
             std::string(protocol::authority_path) + " answers");
    }
    write_file(e.ca_file, now.pem, e.ca_owner);
    say("Wrote " + e.ca_file + ": the collector's authorities have changed.");
}

std::string why_to_renew(const options& said, const enrolled& e, const authorities& now) {
    X509* certificate = e.self.certificate.get();
    if (said.force) {
        return "as asked";
    }
    if (is_due(begin_of(certificate), end_of(certificate), static_cast<int64_t>(time(nullptr)))) {
        return "the old one was good until " + time_text(end_of(certificate));
    }
    if (now.signing && now.signing != e.self.authority) {
        return "another authority signs them now";
    }
    return "";
}

void renew_certificate(const enrolled& e, const authorities& now, const std::string& why) {
    identity fresh;
    fresh.key = make_key();
    wish what{.where = e.where, .trusted = now.all};
    what.self = &e.self;
    what.key = fresh.key.get();
    what.deadline = in(seconds(60));
    fresh.certificate = ask_certificate(what);
    fresh.authority = now.signing;
    if (!(agent_of(fresh.certificate.get()) == agent_of(e.self.certificate.get()))) {
        fail("the new certificate is of another name: " + e.file + " stays as it is");
    }
    write_file(e.file, text_of(fresh), e.owner);
    say("Wrote " + e.file + ": a new certificate, until " +
        time_text(end_of(fresh.certificate.get())) + " (" + why + ").");
}

/* Days, rounded down. */
std::string days_until(int64_t end) {
    const int64_t days = (end - static_cast<int64_t>(time(nullptr))) / 86400;
    return days == 1 ? "1 day" : std::to_string(days) + " days";
}

} // namespace

bool is_due(int64_t begins, int64_t ends, int64_t now) {
    return ends - now < (ends - begins) / 3;
}

int renew(const options& said) {
    const unique_fd lock = lock_directory(said.directory, seconds(60));
    const enrolled e = read_enrolled(said);
    const int64_t end = end_of(e.self.certificate.get());
    if (time(nullptr) >= end) {
        fail("the certificate of " + shown(agent_of(e.self.certificate.get())) + " ended at " +
             time_text(end) + ": " + anew);
    }
    authorities now;
    try {
        now = ask_authorities({e.where, &e.trusted, &e.self});
    } catch (failure& f) {
        const bool is_over = f.text.find("refuses this host's certificate") != f.text.npos ||
                             f.text.find("is not trusted: ") != f.text.npos;
        if (is_over && f.text.find(" (its certificate does not name ") == f.text.npos) {
            f.text.append("; ").append(anew);
        }
        throw;
    }
    /* Neither waits for the other. */
    std::string failed;
    try {
        renew_authorities(said, e, now);
    } catch (const failure& f) {
        failed = f.text;
    }
    const std::string why = why_to_renew(said, e, now);
    if (!why.empty()) {
        renew_certificate(e, now, why);
    }
    if (!failed.empty()) {
        fail(failed);
    }
    return status_well;
}

int show(const options& said) {
    if (read_journal(said.directory)) {
        say("An enrolment was interrupted: the same vindral-enrol command again finishes it.");
    }
    const enrolled e = read_enrolled(said);
    X509* certificate = e.self.certificate.get();
    const protocol::agent_identity who = agent_of(certificate);
    const bool ended = end_of(certificate) <= time(nullptr);
    say("agent        " + printable(who.agent));
    say("account      " + printable(who.account));
    say("certificate  until " + time_text(end_of(certificate)) + " (" +
        (ended ? "it has ended: " + std::string(anew) : days_until(end_of(certificate))) + ")");
    say("key          " + fingerprint(hash_of(e.self.key.get())) + " in " + e.file);
    if (e.self.authority) {
        say("authority    " + fingerprint(*e.self.authority) + ", signed it");
    }
    say("collector    " + e.where.text());
    for (const x509_ptr& one : e.trusted) {
        say("trusted      " + fingerprint(hash_of(one.get())) + " until " +
            time_text(end_of(one.get())) + " (" + subject_of(one.get()) + ")");
    }
    return ended ? status_wrong : status_well;
}
