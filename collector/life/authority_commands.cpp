#include "life/authority_commands.h"

#include "base/agent_authority.h"
#include "base/authority_files.h"
#include "base/identity.h"
#include "base/text.h"
#include "store/settings.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <vector>

namespace {

void tell(const std::string& text) {
    std::cerr << "vindral-collector: " + printable(text) + "\n";
}

std::string agents_of(size_t count) {
    return std::to_string(count) + (count == 1 ? " agent" : " agents");
}

/* Those that may prove themselves now: admitted, with a certificate that has not ended. */
bool read_proven(const options& o, std::vector<stored_identity>& found, std::string& error) {
    std::string note;
    std::unique_ptr<settings> kept = settings::open(o.state_dir, note, error);
    if (!note.empty()) {
        tell(note);
    }
    const int64_t now = time(nullptr);
    return kept && kept->for_each_identity(
                       [&](const stored_identity& each) {
                           if (each.admitted > 0 && each.revoked == 0 && each.ends > now) {
                               found.push_back(each);
                           }
                       },
                       error);
}

/* --- what there is -----------------------------------------------------------------------------
 */

std::string name_in_directory(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

void print_authority(const std::string& path, X509* certificate, const std::string& what) {
    std::cout << fit_columns(name_in_directory(path), 19) +
                     fingerprint(hash_of_certificate(certificate)) + "  ends " +
                     utc_time(seconds_of(X509_get0_notAfter(certificate))).substr(0, 10) + "  " +
                     what + "\n";
}

size_t certified_by(X509* authority, const std::vector<stored_identity>& agents) {
    const protocol::sha256 hash = hash_of_certificate(authority);
    return size_t(std::count_if(agents.begin(), agents.end(), [&](const stored_identity& each) {
        return each.authority == hash;
    }));
}

void show_server(const options& o, const std::vector<stored_identity>& agents) {
    const authority_place place = server_authority_place(o.state_dir);
    x509_ptr now = read_certificate(place.now.certificate);
    x509_ptr next = read_certificate(place.next.certificate);
    published_authorities published;
    std::string error;
    if (!now) {
        tell("there is no " + place.now.certificate +
             "; a start makes it, unless a certificate is given with --cert");
        return;
    }
    print_authority(place.now.certificate, now.get(), "hosts verify this collector with it");
    if (!next) {
        return;
    }
    if (!publish_authorities(o.state_dir, own_identity(o.state_dir), published, error)) {
        tell(error);
        return;
    }
    const auto knows =
        std::count_if(agents.begin(), agents.end(),
                      [&](const stored_identity& each) { return each.knows == published.hash; });
    print_authority(place.next.certificate, next.get(),
                    "the next one; of " + agents_of(agents.size()) + " " + std::to_string(knows) +
                        " know it");
}

void show_agents(const options& o, const std::vector<stored_identity>& agents) {
    const authority_place place = agent_authority_place(o.state_dir);
    const std::string old_file = old_agent_authority(o.state_dir);
    x509_ptr now = read_certificate(place.now.certificate), old = read_certificate(old_file);
    if (!now) {
        tell("there is no " + place.now.certificate + "; a start makes it");
        return;
    }
    print_authority(place.now.certificate, now.get(),
                    "signs agents' certificates; " + agents_of(certified_by(now.get(), agents)) +
                        " with one of it");
    if (old && X509_cmp(old.get(), now.get()) != 0) {
        print_authority(old_file, old.get(),
                        "accepted as well; " + agents_of(certified_by(old.get(), agents)) +
                            " with a certificate of it");
    }
}

/* --- the exchange ------------------------------------------------------------------------------
 */

/* Those that would be left behind, with the reason; false with one line in `error`. */
bool find_left(const options& o, std::vector<std::string>& left, std::string& error) {
    std::vector<stored_identity> agents;
    if (!read_proven(o, agents, error)) {
        return false;
    }
    const bool of_agents = o.whose == "agents";
    published_authorities published;
    protocol::sha256 old_hash{};
    if (!of_agents &&
        !publish_authorities(o.state_dir, own_identity(o.state_dir), published, error)) {
        return false;
    }
    if (x509_ptr old = read_certificate(old_agent_authority(o.state_dir)); old && of_agents) {
        old_hash = hash_of_certificate(old.get());
    }
    for (const stored_identity& each : agents) {
        const std::string name = each.account + "/" + each.agent;
        if (of_agents && each.authority == old_hash) {
            left.push_back(name + ": its certificate is of the old authority, until " +
                           utc_time(each.ends));
        } else if (of_agents && each.good_from != 0 && each.good_from < each.highest) {
            left.push_back(name + ": it has not used the certificate of the new authority, and "
                                  "may not have it");
        } else if (!of_agents && each.knows != published.hash) {
            left.push_back(name + ": it has not fetched the next authority");
        }
    }
    return true;
}

bool is_under_way(const options& o) {
    return file_exists(o.whose == "agents" ? old_agent_authority(o.state_dir)
                                           : server_authority_place(o.state_dir).next.certificate);
}

/* Whether nobody is in the way. */
bool may_finish(const options& o) {
    constexpr size_t most = 50; /* lines: a fleet is more than anybody reads */
    std::vector<std::string> left;
    std::string error;
    if (o.force || !is_under_way(o)) {
        return true; /* when none is, what finishes says so */
    }
    if (!find_left(o, left, error)) {
        tell(error + "; nothing was changed");
        return false;
    }
    for (size_t i = 0; i < std::min(left.size(), most); i++) {
        tell(left[i]);
    }
    if (left.size() > most) {
        tell("and " + std::to_string(left.size() - most) + " more");
    }
    if (!left.empty()) {
        tell("nothing was changed: " + agents_of(left.size()) +
             " would be shut out. They renew within a day while they run; with --force those that "
             "did not have to be enrolled again");
    }
    return left.empty();
}

void tell_when() {
    tell("a collector that runs takes this up within a minute, or at once with a SIGHUP");
}

} // namespace

int run_show_authorities(const options& o) {
    std::vector<stored_identity> agents;
    std::string error;
    if (!read_proven(o, agents, error)) {
        tell(error);
        return 1;
    }
    show_server(o, agents);
    show_agents(o, agents);
    return 0;
}

int run_renew_authority(const options& o) {
    const bool of_agents = o.whose == "agents";
    std::string error;
    if (!(of_agents ? renew_agent_authority(o.state_dir, error)
                    : renew_server_authority(o.state_dir, error))) {
        tell(error);
        return 1;
    }
    tell(of_agents ? "a new authority signs agents' certificates from now on; those of the old one "
                     "are good as well, and agents renew them within a day"
                   : "the next authority is ca-next.pem; agents that prove themselves fetch it "
                     "within a day, and other hosts need a copy behind that of ca.pem");
    tell_when();
    tell("then \"vindral-collector authority finish " + o.whose + "\" ends the old one");
    return 0;
}

int run_finish_authority(const options& o) {
    const bool of_agents = o.whose == "agents";
    std::string error;
    if (!may_finish(o)) {
        return 1;
    }
    if (!(of_agents ? finish_agent_authority(o.state_dir, error)
                    : finish_server_authority(o.state_dir, error))) {
        tell(error);
        return 1;
    }
    tell(of_agents ? "certificates of the old authority of agents are good no longer"
                   : "the certificate is signed by the new authority, which is ca.pem now");
    tell_when();
    return 0;
}
