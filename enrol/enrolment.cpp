#include "enrol/enrolment.h"

#include "ctl/failure.h"
#include "ctl/text.h"
#include "enrol/agent.h"
#include "enrol/conf.h"
#include "enrol/files.h"
#include "enrol/journal.h"
#include "enrol/steps.h"
#include "enrol/waiting.h"

#include <algorithm>
#include <array>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* renewal_by_hand =
    "Nothing renews the certificate here: have \"vindral-enrol --renew\" run daily.";

[[noreturn]] void fail(const std::string& text) {
    throw failure{status_wrong, text};
}

/* --- what is being done ---------------------------------------------------------------------- */

struct enrolment {
    const options& said;
    base_url where;
    protocol::sha256 goal{}; /* tells one command from another */
    std::string conf;        /* the file itself, wherever the name leads */
    std::string key_file;
    account as;
    agent_place agent;

    ownership private_to_us{geteuid(), getegid(), 0600};
    ownership ours{}; /* root's, and the agent's to read */
    ownership conf_owner{};
    std::string conf_text; /* as it was */

    unique_fd lock;
    key_ptr key;
    bool made_directory = false;
    bool made_key = false;
    bool sent = false, refused = false; /* the request for its certificate */
    bool is_noted = false;              /* and so is on disk, or is about to be */
    journal noted;
    bool touched_agent = false;

    explicit enrolment(const options& o) : said(o) {}
};

std::string in_directory(const enrolment& e, const char* name) {
    return e.said.directory + "/" + name;
}

bool is_in_force(const std::string& conf, const std::string& file) {
    for (const char* key : {"CAFILE", "CERTFILE", "KEYFILE"}) {
        if (conf_value(conf, key) == file) {
            return true;
        }
    }
    return false;
}

/* --- the way back ---------------------------------------------------------------------------- */

/* Each step of the undoing is tried, whatever becomes of the others. */
template <typename Step>
bool try_to(const char* what, Step step) {
    try {
        step();
        return true;
    } catch (const failure& f) {
        complain(std::string("Could not ") + what + ": " + f.text);
        return false;
    }
}

/* True when the configuration is not what was written: put back, or never changed, or changed by
 * somebody else since, who is left alone. */
bool put_back_conf(enrolment& e) {
    journal& j = e.noted;
    return try_to("put the configuration back", [&] {
        const std::optional<std::string> now = read_file(e.conf);
        if (!now || hash_of(*now) != j.written) {
            return;
        }
        if (!j.undoing) {
            j.undoing = true;
            (void)try_to("note that this is undone", [&] { write_journal(e.said.directory, j); });
        }
        move_file(backup_of(e.conf), e.conf);
        complain("Undone: " + e.conf + " is as it was.");
    });
}

void put_back_agent(const enrolment& e) {
    const agent_state before{e.noted.ran, e.noted.enabled};
    if (try_to("bring the agent back to what it was", [&] { restore_agent(e.agent, before); })) {
        complain(before.runs ? "Undone: the agent runs again with its old settings."
                             : "Undone: the agent is stopped, as it was.");
    }
}

void remove_new_files(const enrolment& e) {
    const std::string conf = read_file(e.conf).value_or("");
    for (const std::string& file : {e.noted.identity, e.noted.authorities}) {
        if (exists(file) && !is_in_force(conf, file) &&
            try_to("remove a new file", [&] { remove_file(file); })) {
            complain("Undone: " + file + " is removed.");
        }
    }
}

/* Of a journal that this call wrote, or found. It goes last, so that an undoing that is cut short
 * is undone to its end by the next call. */
void undo_noted(enrolment& e) {
    if (put_back_conf(e)) {
        if (e.touched_agent) {
            put_back_agent(e);
        }
        (void)try_to("remove the new files", [&] {
            remove_new_files(e);
            forget_journal(e.said.directory, e.conf);
        });
    }
    e.is_noted = false;
}

void undo_key(const enrolment& e) {
    if (e.sent && !e.refused) {
        complain("What stays: the key in " + e.key_file +
                 ", since a certificate may have been given out for it. The same command goes on "
                 "from there" +
                 (e.said.token.empty() ? "." : " within the token's hour."));
        return;
    }
    if (e.made_key && exists(e.key_file) &&
        try_to("remove the key", [&] { remove_file(e.key_file); })) {
        complain("Undone: the key is removed.");
    }
}

void undo(enrolment& e) {
    ignore_stops();
    if (e.is_noted) {
        undo_noted(e);
    }
    undo_key(e);
    if (e.made_directory && rmdir(e.said.directory.c_str()) == 0) {
        complain("Undone: " + e.said.directory + " is removed.");
    }
}

/* --- before anything is changed -------------------------------------------------------------- */

protocol::enrolment_token token_of(const options& said) {
    const std::string wrong = what_is_wrong_with(said.token);
    const std::optional<protocol::enrolment_token> token =
        protocol::read_enrolment_token(said.token);
    if (!wrong.empty() || !token) {
        throw failure{status_usage, wrong};
    }
    return *token;
}

std::string own_host_name() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/* Who this host asks to be. */
protocol::agent_identity wanted_name(const enrolment& e) {
    auto one = [&](const std::string& given, const char* key, const char* what) {
        const std::string there = conf_value(e.conf_text, key).value_or("");
        if (!given.empty() && !there.empty() && given != there && !e.said.replace) {
            fail(e.conf + " names this host's " + what + " \"" + printable(there) + "\", not \"" +
                 printable(given) + "\"; --replace puts the new one there");
        }
        return given.empty() ? there : given;
    };
    protocol::agent_identity who{one(e.said.account, "USEREMAIL", "account"),
                                 one(e.said.name, "AGENTNAME", "name")};
    if (who.account.empty()) {
        fail("which account is this host of? --account EMAIL says it, or USEREMAIL in " + e.conf);
    }
    if (who.agent.empty()) {
        who.agent = own_host_name();
    }
    if (protocol::identity_uri(who).empty()) {
        fail("names have 1 to 254 bytes without control characters");
    }
    return who;
}

void prepare(enrolment& e) {
    e.where = read_collector_url(e.said.url);
    if (!e.said.token.empty()) {
        (void)token_of(e.said);
    }
    const bool is_standard = e.said.conf == standard_conf || e.said.directory == "/etc/vindral";
    if (geteuid() != 0 && is_standard) {
        fail("this has to be done by root: it writes " + e.said.conf + " and " + e.said.directory);
    }
    e.as = find_account(e.said.start);
    e.ours = {geteuid(), e.as.group, 0640};
    e.conf = real_path(e.said.conf);
    e.agent = find_agent(e.conf, e.as);
    use_directory(e.said.directory, {geteuid(), e.as.group, 0750}, e.made_directory);
    e.key_file = in_directory(e, "agent-key.new");
    e.goal = hash_of(e.where.text() + " " + e.said.token + " " + e.said.authority + " " +
                     e.said.ca + " " + e.said.account + " " + e.said.name);
}

void read_conf(enrolment& e) {
    const std::optional<std::string> text = read_file(e.conf, &e.conf_owner);
    if (!text) {
        fail("there is no " + e.conf + ": the package vindral brings it");
    }
    e.conf_text = *text;
}

/* The identity that is in force; none when there is none, or it cannot be read. */
std::optional<identity> identity_in_force(const std::string& conf) {
    const std::string file = conf_value(conf, "CERTFILE").value_or("");
    if (!file.starts_with('/')) {
        return std::nullopt;
    }
    try {
        const std::optional<std::string> text = read_file(file);
        return text ? read_identity(*text) : std::nullopt;
    } catch (const failure&) { /* what cannot be read proves nothing */
        return std::nullopt;
    }
}

/* Which name this host has that it must not lose without --replace. */
void refuse_other_name(const enrolment& e, const protocol::agent_identity& to_be) {
    if (e.said.replace) {
        return;
    }
    if (const std::optional<identity> now = identity_in_force(e.conf_text)) {
        if (const auto is = holder_of(now->certificate.get()); is && !(*is == to_be)) {
            fail("this host is enrolled as " + shown(*is) + ", not " + shown(to_be) +
                 "; --replace makes it the other one");
        }
    }
    const std::string account = conf_value(e.conf_text, "USEREMAIL").value_or(to_be.account);
    const std::string name = conf_value(e.conf_text, "AGENTNAME").value_or(to_be.agent);
    if (account != to_be.account || name != to_be.agent) {
        fail(e.conf + " names this host " + shown({account, name}) + ", not " + shown(to_be) +
             "; --replace makes it the other one");
    }
}

/* --- step by step ---------------------------------------------------------------------------- */

/* Whom the server is verified with, before it has said a word that counts. */
std::vector<x509_ptr> first_trust(const enrolment& e) {
    std::vector<x509_ptr> trusted;
    if (!e.said.ca.empty()) {
        const std::optional<std::string> text = read_file(e.said.ca);
        if (text) {
            trusted = certificates_in(*text);
        }
        if (trusted.empty()) {
            fail(printable(e.said.ca) + " holds no certificates that can be read");
        }
        return trusted;
    }
    protocol::sha256 pinned{};
    if (!e.said.token.empty()) {
        pinned = token_of(e.said).authority;
    } else if (const auto given = read_fingerprint(e.said.authority)) {
        pinned = *given;
    } else {
        throw failure{status_usage, "--authority takes a fingerprint, SHA256:... as "
                                    "\"vindral-collector authority\" prints it"};
    }
    trusted.push_back(find_pinned(e.where, pinned));
    return trusted;
}

void find_key(enrolment& e) {
    if (const std::optional<std::string> kept = read_file(e.key_file)) {
        e.key = key_in(*kept);
    }
    if (e.key) {
        e.sent = true; /* for all that is known */
        say("Goes on with the key " + fingerprint(hash_of(e.key.get())) + " of an earlier call.");
        return;
    }
    e.key = make_key();
    e.made_key = true;
    write_file(e.key_file, text_of(e.key.get()), e.private_to_us);
    say("Made a key, " + fingerprint(hash_of(e.key.get())) + "; it stays on this host.");
}

parameters names_to_send(const enrolment& e) {
    parameters headers;
    auto add = [&](const char* header, const std::string& value) {
        auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; };
        if (!value.empty() && std::none_of(value.begin(), value.end(), is_control)) {
            headers.emplace_back(header, value);
        }
    };
    if (e.said.token.empty()) {
        const protocol::agent_identity who = wanted_name(e);
        add("Vnd-EMail", who.account);
        add("Vnd-AName", who.agent);
        return headers;
    }
    headers.emplace_back(protocol::token_header, e.said.token);
    if (!e.said.replace) {
        /* The collector refuses, without using the token, when these are not its names. */
        add("Vnd-EMail", conf_value(e.conf_text, "USEREMAIL").value_or(""));
        add("Vnd-AName", conf_value(e.conf_text, "AGENTNAME").value_or(""));
    }
    return headers;
}

/* Why a refusal may have come, beyond what the collector says. */
std::string with_hint(const enrolment& e, std::string text) {
    if (const std::optional<identity> now = identity_in_force(e.conf_text)) {
        const std::optional<protocol::agent_identity> is = holder_of(now->certificate.get());
        if (is && end_of(now->certificate.get()) > time(nullptr)) {
            return text + ". This host is enrolled as " + shown(*is) + " already, until " +
                   time_text(end_of(now->certificate.get()));
        }
    }
    if (!e.said.token.empty() && !e.said.replace) {
        const std::string name = conf_value(e.conf_text, "AGENTNAME").value_or("");
        if (!name.empty()) {
            return text + ". " + e.conf + " names this host \"" + printable(name) +
                   "\"; with --replace it takes the token's name";
        }
    }
    return text;
}

identity get_certificate(enrolment& e, const std::vector<x509_ptr>& trusted) {
    identity got;
    wish what{.where = e.where, .trusted = trusted};
    what.key = e.key.get();
    what.headers = names_to_send(e);
    what.sent = &e.sent;
    what.refused = &e.refused;
    what.deadline = in(e.said.wait);
    what.waits = [&] {
        say("Waits to be admitted. On the collector: vindralctl agents admit " +
            (e.said.token.empty() ? printable(wanted_name(e).agent) : std::string("NAME")) +
            " --key " + fingerprint(hash_of(e.key.get())));
    };
    try {
        got.certificate = ask_certificate(what);
    } catch (failure& f) {
        if (e.refused) {
            f.text = with_hint(e, f.text);
        }
        throw;
    }
    got.key = key_in(text_of(e.key.get()));
    const protocol::agent_identity who = agent_of(got.certificate.get());
    say("Got a certificate: " + shown(who) + ", until " + time_text(end_of(got.certificate.get())) +
        ".");
    if (e.said.token.empty() && !(who == wanted_name(e))) {
        fail("the certificate is of another name than the one asked for");
    }
    refuse_other_name(e, who);
    return got;
}

/* A name in the directory that nothing has. */
std::string free_name(const enrolment& e, const std::string& stem) {
    for (int i = 1; i < 1000; i++) {
        std::string path = in_directory(e, stem.c_str());
        path += i == 1 ? ".pem" : "-" + std::to_string(i) + ".pem";
        if (!exists(path)) {
            return path;
        }
    }
    fail(e.said.directory + " is full of old files");
}

void put_in_force(enrolment& e, const identity& self, const std::string& authorities_pem) {
    const protocol::agent_identity who = agent_of(self.certificate.get());
    journal j;
    j.goal = e.goal;
    j.conf = e.conf;
    j.identity = free_name(e, "agent");
    j.authorities = free_name(e, "ca");
    const std::string changed =
        with_values(e.conf_text, {{"USEREMAIL", who.account},
                                  {"AGENTNAME", who.agent},
                                  {"USEHOST", e.where.text() + std::string(poll_path)},
                                  {"CAFILE", j.authorities},
                                  {"CERTFILE", j.identity},
                                  {"KEYFILE", j.identity}});
    j.written = hash_of(std::string_view(changed));
    const agent_state before = look_at_agent(e.agent);
    j.ran = before.runs;
    j.enabled = before.enabled;
    j.start = e.said.start;
    e.noted = j;
    e.is_noted = true;
    write_file(backup_of(e.conf), e.conf_text, e.conf_owner);
    write_journal(e.said.directory, j);
    write_file(j.identity, text_of(self), e.ours);
    say("Wrote " + j.identity + ".");
    write_file(j.authorities, authorities_pem, e.ours);
    say("Wrote " + j.authorities + ".");
    check_stop();
    if (read_file(e.conf) != e.conf_text) {
        fail(e.conf + " was changed by somebody else meanwhile");
    }
    write_file(e.conf, changed, e.conf_owner);
    say("Changed " + e.conf + ": USEREMAIL, AGENTNAME, USEHOST, CAFILE, CERTFILE, KEYFILE.");
}

void bring_up_agent(enrolment& e) {
    const log_mark before = mark_log(e.agent);
    e.touched_agent = true;
    start_agent(e.agent);
    say(e.agent.by_systemd ? "Started the agent, now and with the system (vindral.service)."
                           : "Started the agent.");
    if (wait_for_login(e.agent, before)) {
        say("The agent has logged in.");
    } else {
        say("The agent runs and does not complain. Whether it has logged in its log does not say "
            "below LOGLEVEL 1.");
    }
}

/* Files of an earlier enrolment, which nothing names any more. */
void remove_old_files(const enrolment& e) {
    const std::optional<std::string> before = read_file(backup_of(e.conf));
    const std::string now = read_file(e.conf).value_or("");
    for (const char* key : {"CAFILE", "CERTFILE"}) {
        const std::string file = conf_value(before.value_or(""), key).value_or("");
        const std::string stem =
            in_directory(e, std::string_view(key) == "CAFILE" ? "ca" : "agent");
        const bool is_ours = file.starts_with(stem) && file.ends_with(".pem") &&
                             file.find('/', stem.size()) == file.npos;
        if (is_ours && !is_in_force(now, file)) {
            remove_file(file);
            say("Removed " + file + ", which is not used any more.");
        }
    }
}

/* From here on all is in force and the agent has shown that it works: nothing is undone. */
int finish(enrolment& e) {
    const bool started = e.noted.start;
    ignore_stops();
    e.is_noted = false;
    bool well = true;
    if (started) {
        /* A running agent that was left alone goes on with its old files. */
        well = try_to("remove what is not used any more", [&] { remove_old_files(e); });
    }
    std::string why_not;
    if (!e.agent.by_systemd) {
        say(renewal_by_hand);
    } else if (set_timer(true, why_not)) {
        say("The certificate is renewed by itself (vindral-enrol.timer).");
    } else {
        complain("The certificate will not be renewed by itself: vindral-enrol.timer cannot be "
                 "started: " +
                 why_not);
        well = false;
    }
    if (!try_to("remove what was noted", [&] {
            remove_file(e.key_file);
            forget_journal(e.said.directory, e.conf);
        })) {
        well = false;
    }
    if (!started) {
        say("The agent was not started: it takes its new settings with its next start.");
    }
    return well ? status_well : status_wrong;
}

/* --- what an earlier call left --------------------------------------------------------------- */

/* True when that one is to be finished: it is the same command, and all of it is in force. */
bool take_up(enrolment& e) {
    sweep(e.said.directory, e.conf);
    std::optional<journal> left = read_journal(e.said.directory);
    if (!left) {
        remove_file(backup_of(e.conf));
        return false;
    }
    if (left->conf != e.conf) {
        fail("an enrolment of " + left->conf + " was interrupted: finish that first, with --conf");
    }
    const std::optional<std::string> now = read_file(e.conf);
    const bool in_force = now && hash_of(*now) == left->written;
    e.noted = *left;
    e.is_noted = true;
    if (in_force && !left->undoing && left->goal == e.goal) {
        say("Goes on where an earlier call was interrupted.");
        e.sent = true;
        return true;
    }
    complain("An earlier call was interrupted.");
    e.touched_agent = left->start && (in_force || left->undoing);
    undo_noted(e);
    return false;
}

/* A token opens once: a call that had come to its end before it was killed is not repeated. */
bool is_done_already(enrolment& e) {
    const std::optional<identity> now = identity_in_force(e.conf_text);
    if (e.said.token.empty() || !now || now->command != e.goal) {
        return false;
    }
    say("This host is enrolled by this token already, as " +
        shown(agent_of(now->certificate.get())) + ", until " +
        time_text(end_of(now->certificate.get())) + ".");
    if (e.said.start && !look_at_agent(e.agent).runs) {
        bring_up_agent(e);
    }
    return true;
}

int go(enrolment& e) {
    e.lock = lock_directory(e.said.directory, milliseconds(0));
    if (take_up(e)) {
        if (e.noted.start) {
            bring_up_agent(e);
        }
        return finish(e);
    }
    read_conf(e);
    if (is_done_already(e)) {
        return status_well;
    }
    if (e.said.token.empty()) {
        refuse_other_name(e, wanted_name(e));
    }
    const std::vector<x509_ptr> trust = first_trust(e);
    const authorities now = ask_authorities({e.where, &trust});
    say(e.where.text() + " is the collector that is meant.");
    find_key(e);
    identity self = get_certificate(e, trust);
    self.authority = now.signing;
    self.command = e.goal;
    put_in_force(e, self, now.pem);
    if (e.said.start) {
        bring_up_agent(e);
    }
    return finish(e);
}

} // namespace

int enrol(const options& said) {
    enrolment e(said);
    prepare(e);
    try {
        return go(e);
    } catch (const failure& f) {
        complain(f.text);
        undo(e);
        return f.status;
    } catch (const stopped& s) {
        complain("Stopped.");
        undo(e);
        return 128 + s.signal;
    }
}
