#include "life/agents_side.h"

#include "life/announce.h"
#include "store/engine.h"

#include <ctime>

static int64_t epoch_now() {
    return time(nullptr);
}

agents_side::agents_side(const options& o, log_function log) : options_(o), log_(std::move(log)) {}

bool agents_side::open_settings(std::vector<std::string>& early, std::string& error) {
    if (read_settings(early, settings_error_)) {
        return true;
    }
    known_.reset();
    secrets_.reset();
    kept_.reset();
    error = settings_error_;
    return options_.agents == agents_mode::any;
}

bool agents_side::open(std::vector<std::string>& early, std::string& error) {
    if (options_.agents != agents_mode::any && !admit_stored(early, error)) {
        return false;
    }
    if (!prepare_identity(options_, files_, report_, error)) {
        return false;
    }
    /* What is missing is made ahead of the look by which a change is seen later. */
    if (known_ && !agent_authority().open(options_.state_dir, error)) {
        return false;
    }
    stamp_ = identity_stamp(options_.state_dir, files_);
    shown_ = make_shown(early, error);
    return shown_ != nullptr;
}

bool agents_side::read_settings(std::vector<std::string>& early, std::string& error) {
    std::string note;
    kept_ = settings::open(options_.state_dir, note, error, log_);
    if (!note.empty()) {
        early.push_back(note);
    }
    if (!kept_) {
        return false;
    }
    known_ = std::make_unique<known_agents>(*kept_, options_.agents, epoch_now);
    secrets_ = std::make_unique<known_secrets>(*kept_, options_.state_dir);
    const std::string unreadable = read_secrets();
    if (!unreadable.empty()) {
        early.push_back(unreadable);
    }
    return known_->refresh(error);
}

/* Who polled before agents were asked who they are goes on. */
bool agents_side::admit_stored(std::vector<std::string>& early, std::string& error) {
    std::vector<protocol::agent_identity> names;
    std::unique_ptr<result_reader> stored = open_reader(options_.state_dir, error);
    if (!stored || !stored->for_each_agent(
                       [&](const known_agent& a) {
                           if (a.retired == 0) {
                               names.push_back({std::string(a.account), std::string(a.agent)});
                           }
                       },
                       error)) {
        return false;
    }
    size_t admitted = 0;
    if (!known_->admit_all(names, admitted, error)) {
        return false;
    }
    if (admitted > 0) {
        early.push_back(std::to_string(admitted) + " agents that the store knew are admitted");
    }
    return true;
}

std::shared_ptr<agents_tls> agents_side::make_shown(std::vector<std::string>& notes,
                                                    std::string& error) const {
    tls_context context = make_tls_context(files_, error);
    if (!context || !known_) {
        return context ? std::make_shared<agents_tls>(std::move(context)) : nullptr;
    }
    agent_authority by;
    if (!by.open(options_.state_dir, error)) {
        return nullptr;
    }
    if (!by.note().empty()) {
        notes.push_back(by.note());
    }
    published_authorities published;
    std::string unknown; /* with files of the operator's own: hosts have it from him */
    if (!publish_authorities(options_.state_dir, files_, published, unknown)) {
        published = {};
    }
    return std::make_shared<agents_tls>(std::move(context), std::move(by), std::move(published),
                                        *known_, epoch_now);
}

tls_context agents_side::for_api() const {
    std::string error;
    tls_context context = make_tls_context(files_, error);
    if (!context) {
        log_("the API keeps its certificate: " + error);
    }
    return context;
}

bool agents_side::read_again(bool in_any_case) {
    std::string stamp = identity_stamp(options_.state_dir, files_), error;
    if (stamp == stamp_ && !in_any_case) {
        return false;
    }
    std::vector<std::string> notes;
    std::shared_ptr<agents_tls> next = make_shown(notes, error);
    if (!next) { /* perhaps somebody is at it: looked at again with the next call */
        if (error != trouble_) {
            log_("the certificates cannot be read, the old ones stay: " + error);
        }
        trouble_ = error;
        return false;
    }
    trouble_.clear();
    shown_ = std::move(next);
    note_authority();
    if (stamp != stamp_) {
        log_("certificates read again");
    }
    stamp_ = std::move(stamp);
    return true;
}

std::string agents_side::read_secrets() {
    std::string error;
    if (secrets_->refresh(error)) {
        error.clear();
    }
    const bool same = error == trouble_of_secrets_;
    trouble_of_secrets_ = error;
    return same ? "" : error;
}

void agents_side::listens_on(uint16_t port) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        place_.url = "https://" + name_for_agents(options_, report_) + ":" + std::to_string(port);
    }
    note_authority();
}

void agents_side::note_authority() {
    const published_authorities& all = shown_->published();
    std::lock_guard<std::mutex> guard(mutex_);
    place_.authority = all.pem.empty() ? std::nullopt : std::optional(all.first);
}

enrolment_place agents_side::where_agents_poll() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return place_;
}
