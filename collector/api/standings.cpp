#include "api/standings.h"

#include "api/encoding.h"
#include "api/json.h"
#include "api/parameters.h"

#include <algorithm>
#include <set>
#include <vector>

namespace json = boost::json;

namespace {

constexpr size_t max_name = 254; /* bytes of an account or a name, as agents send them */
constexpr size_t most_listed = 10;
constexpr const char example[] = "me@example.org/web-1";

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

/* The first few. */
std::string listed(const std::set<std::string>& all) {
    std::string text;
    size_t count = 0;
    for (const std::string& each : all) {
        if (count++ == most_listed) {
            text.append(" and ").append(std::to_string(all.size() - most_listed)).append(" more");
            break;
        }
        text.append(text.empty() ? "" : ", ").append(each);
    }
    return text;
}

/* What is known of one account and name; false when that is nothing. */
bool look_up(result_reader& store, api_services& with, std::string_view account,
             std::string_view name, called_agent& found) {
    found.account = account;
    found.name = name;
    found.id = 0;
    found.is_seen = false;
    std::string error;
    auto take = [&](const known_agent& row) {
        found.id = row.id;
        found.is_seen = row.retired == 0;
    };
    if (!store.read_agent(account, name, take, error) && !error.empty()) {
        throw_unavailable("What is stored cannot be read: " + error + ".");
    }
    std::optional<agent_standing> standing = with.agents.find(account, name);
    const bool is_decided = standing.has_value();
    found.now = std::move(standing).value_or(agent_standing{});
    found.now.kept.account = account;
    found.now.kept.agent = name;
    return found.id != 0 || is_decided;
}

bool look_up_id(result_reader& store, api_services& with, int64_t id, called_agent& found) {
    bool is_there = false;
    std::string account, name, error;
    auto take = [&](const known_agent& row) {
        is_there = true;
        account = row.account;
        name = row.agent;
    };
    if (!store.read_agent(id, take, error) && !error.empty()) {
        throw_unavailable("What is stored cannot be read: " + error + ".");
    }
    return is_there && look_up(store, with, account, name, found);
}

/* Everybody who has been heard of. */
struct heard_of {
    std::set<std::string> accounts;      /* all */
    std::set<std::string> with_the_name; /* those that have an agent of that name */
};

heard_of read_accounts(const api_request& asked, result_reader& store, api_services& with,
                       std::string_view name) {
    heard_of all;
    auto add = [&](std::string_view account, std::string_view agent) {
        all.accounts.emplace(account);
        if (agent == name) {
            all.with_the_name.emplace(account);
        }
    };
    std::string error;
    auto take = [&](const known_agent& row) {
        check_deadline(asked);
        if (row.retired == 0) {
            add(row.account, row.agent);
        }
    };
    if (!store.for_each_agent(take, error)) {
        throw_unavailable("What is stored cannot be read: " + error + ".");
    }
    for (const agent_standing& each : with.agents.all()) {
        add(each.kept.account, each.kept.agent);
    }
    return all;
}

[[noreturn]] void throw_unheard(const std::string& called) {
    throw_not_found("Nothing is known of an agent " + quoted(called) +
                    ": give its id, its name, or its account and name with a slash between.");
}

void check_new_name(const char* what, std::string_view text) {
    if (text.empty() || text.size() > max_name || !is_plain_text(text)) {
        throw_bad_request(std::string("The ") + what + " has to be 1 to " +
                          std::to_string(max_name) + " bytes of UTF-8 without control characters.");
    }
}

/* A name that nobody has heard of: where it has a slash, it stands behind the account. */
void split_new(const std::string& called, const std::set<std::string>& accounts,
               called_agent& found) {
    size_t best = std::string::npos;
    for (size_t at = called.find('/'); at != std::string::npos; at = called.find('/', at + 1)) {
        const std::string account = called.substr(0, at);
        const bool is_known = accounts.contains(account);
        if (is_known || (best == std::string::npos && account.find('@') != std::string::npos)) {
            best = at;
        }
        if (is_known) {
            break;
        }
    }
    if (best == std::string::npos) {
        throw_bad_request("Of which account is " + quoted(called) + "? " +
                          quoted(called.substr(0, called.find('/'))) +
                          " is none that is known, and no e-mail address. Give account and name "
                          "with a slash between, such as " +
                          example + ".");
    }
    found.account = called.substr(0, best);
    found.name = called.substr(best + 1);
}

/* The only account that there is. */
std::string only_account(const std::string& name, const std::set<std::string>& accounts) {
    if (accounts.empty()) {
        throw_bad_request("Of which account is " + quoted(name) +
                          " to be? None is known yet: give account and name with a slash between, "
                          "such as " +
                          example + ", or vindralctl's --account.");
    }
    if (accounts.size() > 1) {
        throw_bad_request("Of which account is " + quoted(name) +
                          " to be? Give account and name with a slash between. There are: " +
                          listed(accounts) + ".");
    }
    return *accounts.begin();
}

} // namespace

identity_state state_of(const agent_standing& of) {
    const stored_identity& kept = of.kept;
    return of.waiting          ? identity_state::waiting
           : kept.revoked != 0 ? (of.invited ? identity_state::invited : identity_state::revoked)
           : kept.admitted != 0
               ? (kept.good_from != 0 ? identity_state::proven : identity_state::known)
           : of.invited ? identity_state::invited
                        : identity_state::unknown;
}

std::string_view identity_word(identity_state s) {
    constexpr std::string_view words[identity_states] = {"unknown", "waiting", "invited",
                                                         "known",   "proven",  "revoked"};
    return words[static_cast<size_t>(s)];
}

json::object json_standing(const agent_standing& of, int64_t id, const api_services& with) {
    const int64_t now = with.now();
    const stored_identity& kept = of.kept;
    json::value certificate, waiting;
    if (kept.ends != 0) {
        certificate = json::object{{"issued", json_time(kept.issued)},
                                   {"ends", json_time(kept.ends)},
                                   {"key", fingerprint(kept.key)},
                                   {"authority", fingerprint(kept.authority)},
                                   {"ends_soon", kept.ends <= now + ends_soon_s}};
    }
    if (of.waiting) {
        const std::optional<protocol::sha256>& key = of.waiting->key;
        waiting = json::object{{"since", json_time(of.waiting->since)},
                               {"last", json_time(of.waiting->last)},
                               {"address", json_or_null(of.waiting->address)},
                               {"key", key ? json::value(fingerprint(*key)) : json::value(nullptr)},
                               {"contested", of.waiting->contested}};
    }
    json::object shown{{"account", kept.account},
                       {"name", kept.agent},
                       {"agent", id != 0 ? json::value(id) : json::value(nullptr)},
                       {"state", identity_word(state_of(of))},
                       {"admitted", json_time(kept.admitted)},
                       {"by", json_or_null(kept.by)},
                       {"revoked", json_time(kept.revoked)},
                       {"certificate", std::move(certificate)},
                       {"waiting", std::move(waiting)},
                       {"invited", of.invited}};
    if (with.agents.mode() == agents_mode::proven && kept.admitted != 0 && kept.good_from == 0) {
        shown["needs_certificate"] = true;
    }
    return shown;
}

called_agent find_called(const api_request& asked, api_services& with, const std::string& called,
                         bool may_be_new) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    called_agent found;
    const std::optional<int64_t> id = read_integer(called);
    if (id && look_up_id(*store, with, *id, found)) {
        return found;
    }
    /* Either part may have a '/', too. */
    for (size_t at = called.find('/'); at != std::string::npos; at = called.find('/', at + 1)) {
        if (look_up(*store, with, called.substr(0, at), called.substr(at + 1), found)) {
            return found;
        }
    }
    heard_of heard = read_accounts(asked, *store, with, called);
    if (heard.with_the_name.size() > 1) {
        throw_bad_request("Several accounts have an agent " + quoted(called) +
                          ": give account and name with a slash between. There are: " +
                          listed(heard.with_the_name) + ".");
    }
    if (heard.with_the_name.size() == 1) {
        look_up(*store, with, *heard.with_the_name.begin(), called, found);
        return found;
    }
    if (!may_be_new) {
        throw_unheard(called);
    }
    if (id) {
        throw_not_found("There is no agent " + called +
                        ". A name that is a number has to have its account before it, such as "
                        "me@example.org/" +
                        called + ".");
    }
    const std::set<std::string> allowed(with.allowed_accounts.begin(), with.allowed_accounts.end());
    const std::set<std::string>& accounts = allowed.empty() ? heard.accounts : allowed;
    if (called.find('/') != std::string::npos) {
        split_new(called, accounts, found);
    } else {
        found.account = only_account(called, accounts);
        found.name = called;
    }
    check_new_name("account", found.account);
    check_new_name("name", found.name);
    look_up(*store, with, found.account, found.name, found);
    return found;
}
