/* Who agents and their server are to each other, in a running collector: what was decided about
 * them (settings.db), and the certificates of both, which are read again when somebody has changed
 * their files. */
#ifndef VINDRAL_COLLECTOR_AGENTS_SIDE_H
#define VINDRAL_COLLECTOR_AGENTS_SIDE_H

#include "api/services.h"
#include "base/identity.h"
#include "base/tls.h"
#include "ingest/agents_tls.h"
#include "ingest/known_agents.h"
#include "life/options.h"
#include "plan/known_secrets.h"
#include "store/settings.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class agents_side {
public:
    using log_function = std::function<void(const std::string&)>; /* on any thread */

    agents_side(const options& o, log_function log);

    /* What was decided, and then, behind the opening of the store, the rest. False with one line in
     * `error`. Settings that cannot be opened are an error where agents are asked who they are;
     * elsewhere they go without, and settings_error() says why. `early`: what else is to be said,
     * line by line. */
    bool open_settings(std::vector<std::string>& early, std::string& error);
    bool open(std::vector<std::string>& early, std::string& error);

    settings* kept() const { return kept_.get(); }
    const std::string& settings_error() const { return settings_error_; }
    known_agents* known() const { return known_.get(); }
    known_secrets* secrets() const { return secrets_.get(); }
    const identity_report& report() const { return report_; }
    std::shared_ptr<agents_tls> shown() const { return shown_; }

    /* Of the API's port, whose clients are asked for nothing. Null when it cannot be made. */
    tls_context for_api() const;

    /* Reads the files again when they have changed, or `in_any_case`; true when they were, and
     * shown() is another. What cannot be read is told, and the old ones stay. */
    bool read_again(bool in_any_case);

    /* Has the secrets read again when somebody has changed them; what is to be said of it, once.
     * Not on the network thread. */
    std::string read_secrets();

    /* With what a host enrols, once it is known where the server listens. Any thread. */
    void listens_on(uint16_t port);
    enrolment_place where_agents_poll() const;

private:
    bool read_settings(std::vector<std::string>& early, std::string& error);
    bool admit_stored(std::vector<std::string>& early, std::string& error);
    std::shared_ptr<agents_tls> make_shown(std::vector<std::string>& notes,
                                           std::string& error) const;
    void note_authority();

    const options& options_;
    const log_function log_;
    std::unique_ptr<settings> kept_;
    std::string settings_error_;
    std::unique_ptr<known_agents> known_;
    std::unique_ptr<known_secrets> secrets_;
    identity_files files_;
    identity_report report_;
    std::string stamp_; /* of the files */
    std::shared_ptr<agents_tls> shown_;
    std::string trouble_, trouble_of_secrets_; /* told already */

    mutable std::mutex mutex_;
    enrolment_place place_;
};

#endif
