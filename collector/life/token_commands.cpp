#include "life/token_commands.h"

#include "api/request.h"
#include "api/secrets.h"
#include "base/text.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

namespace {

void tell(const std::string& text) {
    std::cerr << "vindral-collector: " + text + "\n";
}

std::unique_ptr<settings> open_settings(const options& o) {
    std::string note, error;
    std::unique_ptr<settings> kept = settings::open(o.state_dir, note, error);
    if (!note.empty()) {
        tell(note);
    }
    if (!kept) {
        tell(error);
    }
    return kept;
}

bool read_tokens(settings& kept, std::vector<stored_token>& found, std::string& error) {
    return kept.for_each_token(
        [&](const stored_token& t) {
            if (t.kind == token_kind::token) {
                found.push_back(t);
            }
        },
        error);
}

/* With --web as it is given here, when no collector has said where it is. */
std::string find_url(const options& o) {
    std::ifstream file(url_file(o.state_dir));
    std::string url;
    if (std::getline(file, url) && !url.empty()) {
        return url;
    }
    bool on_loopback = o.web_address == "::1" || o.web_address.starts_with("127.");
    std::string host =
        o.web_address.find(':') != std::string::npos ? "[" + o.web_address + "]" : o.web_address;
    return (on_loopback ? "http://" : "https://") + host + ":" + std::to_string(o.web_port);
}

} // namespace

std::string url_file(const std::string& state_dir) {
    return state_dir + "/web-url";
}

std::string make_link(settings& kept, const std::string& url, const std::string& as,
                      std::string& error) {
    std::string secret = add_secret(kept, token_kind::link, role_of(as).value_or(role::admin),
                                    "link", time(nullptr), 0, error);
    return secret.empty() ? "" : url + "/#link=" + secret;
}

bool has_no_token(settings& kept) {
    std::vector<stored_token> found;
    std::string error;
    return read_tokens(kept, found, error) && found.empty();
}

int run_add_token(const options& o) {
    std::unique_ptr<settings> kept = open_settings(o);
    if (!kept) {
        return 1;
    }
    std::string error;
    std::string secret = add_secret(*kept, token_kind::token, role_of(o.role).value_or(role::none),
                                    o.token, time(nullptr), 0, error);
    if (secret.empty()) {
        tell("no token was made: " + printable(error));
        return 1;
    }
    std::cout << secret + "\n";
    tell("the token of \"" + o.token + "\", " + o.role + "; it is shown this once");
    return 0;
}

int run_remove_token(const options& o) {
    std::unique_ptr<settings> kept = open_settings(o);
    std::vector<stored_token> all;
    std::string error;
    if (!kept) {
        return 1;
    }
    if (!read_tokens(*kept, all, error)) {
        tell("no token was removed: " + error);
        return 1;
    }
    auto found = std::find_if(all.begin(), all.end(),
                              [&](const stored_token& t) { return t.name == o.token; });
    if (found == all.end() || !kept->drop_token(found->id, error)) {
        tell(error.empty() ? "there is no token \"" + printable(o.token) + "\""
                           : "no token was removed: " + error);
        return 1;
    }
    tell("the token of \"" + printable(o.token) + "\" and the sessions begun with it are removed");
    return 0;
}

int run_list_tokens(const options& o) {
    std::unique_ptr<settings> kept = open_settings(o);
    std::vector<stored_token> all;
    std::string error;
    if (!kept) {
        return 1;
    }
    if (!read_tokens(*kept, all, error)) {
        tell(error);
        return 1;
    }
    for (const stored_token& t : all) {
        std::string role(role_word(static_cast<enum role>(t.role)));
        std::cout << fit_columns(role, 8) + "  " + utc_time(t.made) + "  " + printable(t.name) +
                         "\n";
    }
    if (all.empty()) {
        tell("there are no tokens; \"vindral-collector token add NAME --role ROLE\" makes one");
    }
    return 0;
}

int run_make_link(const options& o) {
    /* Else one would be made there, and the link lead nowhere. */
    if (std::error_code none; !std::filesystem::exists(o.state_dir, none)) {
        tell("no collector keeps anything in " + printable(o.state_dir) +
             ": --state-dir says where yours does");
        return 1;
    }
    std::unique_ptr<settings> kept = open_settings(o);
    if (!kept) {
        return 1;
    }
    std::string error;
    std::string link = make_link(*kept, find_url(o), o.role, error);
    if (link.empty()) {
        tell("no link was made: " + error);
        return 1;
    }
    if (std::error_code none; !std::filesystem::exists(url_file(o.state_dir), none)) {
        tell("no collector runs with that state directory now: the link is for its next start");
    }
    std::cout << link + "\n";
    tell("it signs in once, as " + (o.role.empty() ? "admin" : o.role) + ", within " +
         std::to_string(link_lasts_s / 60) + " minutes");
    return 0;
}
