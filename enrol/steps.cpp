#include "enrol/steps.h"

#include "ctl/failure.h"
#include "ctl/text.h"
#include "enrol/waiting.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

[[noreturn]] void fail(const std::string& text) {
    throw failure{status_wrong, text};
}

http_answer ask_for_authorities(const collector_place& at) {
    http_answer answer = ask(at, {.path = std::string(protocol::authority_path)});
    if (answer.status == 503) {
        fail(at.where.text() + " cannot answer now: " + reason_of(answer));
    }
    if (answer.status != 200) {
        fail(at.where.text() +
             " is no collector that enrols hosts, or this is not the port that "
             "agents poll: it answers with " +
             reason_of(answer));
    }
    return answer;
}

/* The certificate in an answer, and that it is for this key and now. */
x509_ptr certificate_for(const base_url& where, EVP_PKEY* key, const http_answer& answer) {
    std::vector<x509_ptr> found = certificates_in(answer.body);
    if (found.empty()) {
        fail(where.text() + " gave out something that is no certificate");
    }
    x509_ptr certificate = std::move(found.front());
    EVP_PKEY* certified = X509_get0_pubkey(certificate.get());
    if (certified == nullptr || EVP_PKEY_eq(certified, key) != 1) {
        fail(where.text() + " gave out a certificate for another key");
    }
    if (!holder_of(certificate.get())) {
        fail(where.text() + " gave out a certificate that is not an agent's");
    }
    const auto now = static_cast<int64_t>(time(nullptr));
    if (now < begin_of(certificate.get()) || now >= end_of(certificate.get())) {
        fail("the certificate is good from " + time_text(begin_of(certificate.get())) + " to " +
             time_text(end_of(certificate.get())) + ", and this host's clock says " +
             time_text(now) + ": set the clock");
    }
    return certificate;
}

} // namespace

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

void complain(const std::string& line) {
    fflush(stdout);
    fprintf(stderr, "%s\n", line.c_str());
}

std::string what_is_wrong_with(std::string_view token) {
    constexpr size_t whole = 89;
    auto is_good = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    };
    auto characters = [](size_t count) {
        return count == 1 ? std::string("one character") : std::to_string(count) + " characters";
    };
    if (!token.starts_with("ve_")) {
        return "this is no token: one begins with ve_, as \"vindralctl enrol\" prints it";
    }
    const auto bad = std::find_if_not(token.begin(), token.end(), is_good);
    if (bad != token.end()) {
        return "the token has a character that no token has, at place " +
               std::to_string(bad - token.begin() + 1);
    }
    if (token.size() < whole) {
        return "the token is not whole: it lacks " + characters(whole - token.size());
    }
    if (token.size() > whole) {
        return "the token has " + characters(token.size() - whole) + " too many";
    }
    return protocol::read_enrolment_token(token) ? "" : "the token has a wrong character in it";
}

x509_ptr find_pinned(const base_url& where, const protocol::sha256& hash) {
    const http_answer answer = ask_for_authorities({where});
    std::vector<x509_ptr> offered = certificates_in(answer.body);
    if (offered.empty()) {
        fail(where.text() + " is no collector: it has no authority to show");
    }
    for (x509_ptr& one : offered) {
        if (hash_of(one.get()) == hash) {
            return std::move(one);
        }
    }
    fail(where.text() +
         " is not the collector that is meant, or somebody stands in between: its "
         "authority is " +
         fingerprint(hash_of(offered.front().get())) + ", not " + fingerprint(hash));
}

authorities ask_authorities(const collector_place& at) {
    const http_answer answer = ask_for_authorities(at);
    authorities found;
    found.all = certificates_in(answer.body);
    if (found.all.empty()) {
        fail(at.where.text() + " is no collector: it has no authority to show");
    }
    for (const x509_ptr& one : found.all) {
        found.pem += text_of(one.get());
    }
    found.signing = read_fingerprint(answer.authority);
    using stack_ptr =
        std::unique_ptr<STACK_OF(X509), decltype([](STACK_OF(X509) * s) { sk_X509_free(s); })>;
    const stack_ptr others(sk_X509_new_null());
    for (const x509_ptr& one : answer.server) {
        if (others == nullptr || sk_X509_push(others.get(), one.get()) <= 0) {
            fail("no memory");
        }
    }
    if (!leads_to(answer.server.front().get(), others.get(), found.all)) {
        fail(at.where.text() + " names authorities that did not sign its own certificate");
    }
    return found;
}

x509_ptr ask_certificate(const wish& what) {
    constexpr seconds busy_patience{60}, pause{2};
    const question request = {"POST", std::string(protocol::enrol_path), what.headers,
                              request_for(what.key)};
    const moment busy_deadline = in(busy_patience);
    bool waited = false;
    while (true) {
        const http_answer answer = ask({what.where, &what.trusted, what.self}, request, what.sent);
        const moment now = std::chrono::steady_clock::now();
        switch (answer.status) {
        case 200:
            return certificate_for(what.where, what.key, answer);
        case 202:
            if (!waited && what.waits) {
                what.waits();
            }
            waited = true;
            if (now >= what.deadline) {
                fail("nobody has admitted this host yet");
            }
            wait_until(std::min(now + pause, what.deadline));
            break;
        case 503:
            if (now >= (waited ? what.deadline : busy_deadline)) {
                fail(what.where.text() + " cannot answer now: " + reason_of(answer));
            }
            wait_until(now + pause);
            break;
        case 400:
        case 403:
            if (what.refused != nullptr) {
                *what.refused = true;
            }
            fail(what.where.text() + " refuses: " + reason_of(answer));
        default:
            fail(what.where.text() + " is no collector that enrols hosts: it answers with " +
                 reason_of(answer));
        }
    }
}

std::string shown(const protocol::agent_identity& who) {
    return printable(who.agent) + " of " + printable(who.account);
}
