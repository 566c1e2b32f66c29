/* Who may be an agent: names that wait, are invited, admitted, refused, revoked. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/standings.h"
#include "protocol/enrolment.h"

#include <algorithm>
#include <tuple>

namespace json = boost::json;

namespace {

constexpr int64_t invitation_lasts_s = 3600;

const parameter_def list_parameters[] = {
    {.name = "state",
     .kind = parameter_kind::choice,
     .text = "Only names in these states.",
     .choices = "waiting|invited|known|proven|revoked|unknown",
     .many = true},
    agent_parameter,
    {.name = "q",
     .kind = parameter_kind::text,
     .text = "Only names with this text in name or account, whatever the case."},
    limit_parameter,
    next_parameter};

[[noreturn]] void throw_undecided(const std::string& error) {
    throw_unavailable("Who is let in cannot be read or changed: " + error + ".");
}

std::string called_text(const called_agent& agent) {
    return agent.account + "/" + agent.name;
}

/* Reads again what other programs have changed, such as another collector's command. */
void refresh(api_services& with) {
    std::string error;
    if (!with.agents.refresh(error)) {
        throw_undecided(error);
    }
}

/* Its standing after a change, and whatever it was before. */
json::object standing_now(const called_agent& agent, api_services& with) {
    agent_standing now = with.agents.find(agent.account, agent.name).value_or(agent_standing{});
    now.kept.account = agent.account;
    now.kept.agent = agent.name;
    return json_standing(now, agent.id, with);
}

/* ---- reading ---- */

api_answer list_standings(const api_request& asked, api_services& with) {
    refresh(with);
    const std::optional<std::vector<std::string>> behind = place_of(asked, 2);
    const chosen states(asked, "state");
    const std::string q = text_of(asked, "q");
    const size_t limit = limit_of(asked);
    std::vector<agent_standing> all;
    if (const std::string* called = asked.parameter("agent")) {
        const called_agent only = find_called(asked, with, *called);
        if (std::optional<agent_standing> found = with.agents.find(only.account, only.name)) {
            all.push_back(std::move(*found));
        }
    } else {
        all = with.agents.all();
    }
    reader_pool::lent store = with.stored.lend(asked.deadline);
    json::array items;
    std::string next, error, unread;
    const stored_identity* last = nullptr;
    for (const agent_standing& each : all) {
        check_deadline(asked);
        const stored_identity& who = each.kept;
        if ((behind && std::tie(who.account, who.agent) <= std::tie((*behind)[0], (*behind)[1])) ||
            !(has_text(who.account, q) || has_text(who.agent, q)) ||
            !states.has(identity_word(state_of(each)))) {
            continue;
        }
        if (items.size() == limit && last != nullptr) {
            next = next_text({last->account, last->agent});
            break;
        }
        int64_t id = 0;
        store->read_agent(
            who.account, who.agent, [&](const known_agent& row) { id = row.id; }, error);
        unread = unread.empty() ? error : unread;
        items.push_back(json_standing(each, id, with));
        last = &who;
    }
    return answer_with(list_of(asked, std::move(items), next, unread));
}

api_answer one_standing(const api_request& asked, api_services& with) {
    refresh(with);
    called_agent agent = find_called(asked, with, asked.in_path[0]);
    return answer_with(json_standing(agent.now, agent.id, with));
}

/* ---- inviting ---- */

/* As one word of a shell. */
std::string shell_word(std::string_view text) {
    constexpr std::string_view plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                       "0123456789:/._-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string_view::npos) {
        return std::string(text);
    }
    std::string word = "'";
    for (char c : text) {
        c == '\'' ? word.append("'\\''") : word.append(1, c);
    }
    return word + "'";
}

void check_account(const called_agent& agent, const api_services& with) {
    const std::vector<std::string>& allowed = with.allowed_accounts;
    if (!allowed.empty() &&
        std::find(allowed.begin(), allowed.end(), agent.account) == allowed.end()) {
        throw problem{409, "Conflict",
                      "Agents of the account \"" + agent.account +
                          "\" may not log in here: it is not among those of --allow."};
    }
}

api_answer invite(const api_request& asked, api_services& with) {
    refresh(with);
    const called_agent agent = find_called(asked, with, asked.in_path[0], true);
    check_account(agent, with);
    const enrolment_place place = with.where_agents_poll();
    if (!place.authority) {
        throw problem{409, "Conflict",
                      "No host can be told whom to trust: the certificate of --cert was made by "
                      "an authority that is not known here. Put that authority's certificate "
                      "behind the server's in the file of --cert, and try again."};
    }
    std::string error;
    const int64_t ends = with.now() + invitation_lasts_s;
    const std::optional<protocol::sha256> secret =
        with.agents.invite(agent.account, agent.name, invitation_lasts_s, asked.who.name, error);
    if (!secret) {
        throw_undecided(error);
    }
    const std::string token =
        protocol::text_of(protocol::enrolment_token{*secret, *place.authority});
    api_answer answer = answer_with(
        json::object{{"account", agent.account},
                     {"name", agent.name},
                     {"state", identity_word(state_of(agent.now))},
                     {"ends", json_time(ends)},
                     {"url", place.url},
                     {"authority", fingerprint(*place.authority)},
                     {"token", token},
                     {"command", "vindral-enrol " + shell_word(place.url) + " " + token}},
        201);
    answer.headers.emplace_back("Cache-Control", "no-store");
    answer.audit = "invited agent " + called_text(agent);
    return answer;
}

/* ---- admitting ---- */

/* "SHA256:" and base64, as `fingerprint` has it; the padding may be there. */
std::optional<protocol::sha256> read_fingerprint(std::string_view text) {
    constexpr std::string_view head = "SHA256:";
    if (!text.starts_with(head)) {
        return std::nullopt;
    }
    text.remove_prefix(head.size());
    text = text.substr(0, text.ends_with('=') ? text.size() - 1 : text.size());
    std::string url_text(text);
    std::replace(url_text.begin(), url_text.end(), '+', '-');
    std::replace(url_text.begin(), url_text.end(), '/', '_');
    const std::string bytes = from_base64url(url_text).value_or("");
    protocol::sha256 hash{};
    if (bytes.size() != hash.size()) {
        return std::nullopt;
    }
    std::copy(bytes.begin(), bytes.end(), hash.begin());
    return hash;
}

/* None: whichever key waits. */
std::optional<protocol::sha256> key_in(const api_request& asked) {
    if (asked.body.empty()) {
        return std::nullopt;
    }
    const json::object body = read_object(asked.body);
    std::optional<protocol::sha256> key;
    for (const auto& member : body) {
        if (member.key() != "key") {
            throw_bad_request("There is no member \"" + std::string(member.key().substr(0, 100)) +
                              "\" here; there is key, or no body at all.");
        }
        const json::string* text = member.value().if_string();
        key = text != nullptr ? read_fingerprint({text->data(), text->size()}) : std::nullopt;
        if (!key && !member.value().is_null()) {
            throw_bad_request("`key` has to be the fingerprint of the key that waits: \"SHA256:\" "
                              "and 43 characters of base64.");
        }
    }
    return key;
}

/* Why nothing of that name could be admitted, or refused. */
[[noreturn]] void throw_none_waits(const called_agent& agent, api_services& with,
                                   const std::optional<protocol::sha256>& key) {
    const agent_standing now =
        with.agents.find(agent.account, agent.name).value_or(agent_standing{});
    std::string text;
    if (now.waiting && now.waiting->contested && !key && now.kept.good_from != 0) {
        text =
            "A host has proven that it is " + called_text(agent) +
            ", and another one asks under its name, with another key: when that is admitted, "
            "the certificate of the first ends. Say with `key` that this is meant; vindral-enrol "
            "shows it on the host.";
    } else if (now.waiting && now.waiting->contested && !key) {
        text = "Two hosts ask under the name " + called_text(agent) +
               ", each with a key of its own: say with `key` which one is admitted. vindral-enrol "
               "shows it on the host.";
    } else if (now.waiting && now.waiting->key && key) {
        text = "The key that waits for " + called_text(agent) + " is " +
               fingerprint(*now.waiting->key) +
               ", not the one that was given: somebody else asks under this name, or the host "
               "made a new key. Look at what vindral-enrol says there.";
    } else if (now.waiting && key) {
        text = called_text(agent) + " waits without a key: it polls, and vindral-enrol has not "
                                    "been run there yet.";
    } else if (now.kept.revoked != 0) {
        text = called_text(agent) + " was revoked at " + time_text(now.kept.revoked) +
               ", and nothing waits under that name. To let it in again make a token: vindralctl "
               "enrol.";
    } else if (now.kept.admitted != 0) {
        text = called_text(agent) + " is admitted since " + time_text(now.kept.admitted) +
               ", and nothing waits under that name.";
    } else {
        text = "Nothing waits under the name " + called_text(agent) +
               ": it may have stopped to ask. Make a token for it: vindralctl enrol.";
    }
    throw problem{409, "Conflict", text};
}

api_answer admit(const api_request& asked, api_services& with) {
    const std::optional<protocol::sha256> key = key_in(asked);
    refresh(with);
    const called_agent agent = find_called(asked, with, asked.in_path[0]);
    /* One that polls already, and is let in because nothing is asked of agents yet, waits nowhere.
     * Who was revoked has to ask anew. */
    const bool even_unseen =
        agent.is_seen && !key && agent.now.kept.revoked == 0 && agent.now.kept.admitted == 0;
    if (agent.now.waiting && agent.now.waiting->contested && !key) {
        throw_none_waits(agent, with, key);
    }
    std::string error;
    if (!with.agents.admit(agent.account, agent.name, key, even_unseen, asked.who.name, error)) {
        if (!error.empty()) {
            throw_undecided(error);
        }
        throw_none_waits(agent, with, key);
    }
    api_answer answer = answer_with(standing_now(agent, with));
    answer.audit = "admitted agent " + called_text(agent);
    const std::optional<protocol::sha256> admitted = key ? key
                                                     : agent.now.waiting && agent.now.waiting->key
                                                         ? agent.now.waiting->key
                                                         : std::nullopt;
    if (admitted) {
        answer.audit += " with the key " + fingerprint(*admitted);
    }
    return answer;
}

api_answer refuse(const api_request& asked, api_services& with) {
    refresh(with);
    const called_agent agent = find_called(asked, with, asked.in_path[0]);
    std::string error;
    if (!with.agents.refuse(agent.account, agent.name, error)) {
        if (!error.empty()) {
            throw_undecided(error);
        }
        throw_none_waits(agent, with, std::nullopt);
    }
    api_answer answer;
    answer.status = 204;
    answer.audit = "refused agent " + called_text(agent);
    return answer;
}

api_answer revoke(const api_request& asked, api_services& with) {
    refresh(with);
    const called_agent agent = find_called(asked, with, asked.in_path[0]);
    std::string error;
    if (!with.agents.revoke(agent.account, agent.name, agent.id != 0, asked.who.name, error)) {
        if (!error.empty()) {
            throw_undecided(error);
        }
        throw problem{409, "Conflict",
                      called_text(agent) + " has never been let in or invited: there is nothing "
                                           "to revoke. What only waits is refused."};
    }
    try {
        with.send_away(agent.account, agent.name);
    } catch (const std::exception&) { /* its next handshake, or poll, is refused all the same */
    }
    api_answer answer;
    answer.status = 204;
    answer.audit = "revoked agent " + called_text(agent);
    return answer;
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/enrolments",
     .least = role::viewer,
     .summary = "All names about which something is decided or to be decided, by account and "
                "name: those that wait, are invited, admitted, have proven themselves, are "
                "revoked.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "standings",
     .status = 200,
     .handler = list_standings},
    {.method = "GET",
     .pattern = "/api/v1/agents/{agent}/enrolment",
     .least = role::viewer,
     .summary = "How a name stands: whether it is admitted, until when its certificate is good. "
                "It may be one that has never polled.",
     .parameters = {},
     .takes = "",
     .answers = "standing",
     .status = 200,
     .handler = one_standing},
    {.method = "POST",
     .pattern = "/api/v1/agents/{agent}/enrolment",
     .least = role::admin,
     .summary = "Makes a token with which a host enrols under this name, once, within an hour; it "
                "is in this answer and nowhere else. The name may be new.",
     .parameters = {},
     .takes = "",
     .answers = "invitation",
     .status = 201,
     .handler = invite},
    {.method = "DELETE",
     .pattern = "/api/v1/agents/{agent}/enrolment",
     .least = role::admin,
     .summary = "Revokes a name: its certificates, its admission, and tokens that are not used "
                "yet. What it reported stays; it is not retired.",
     .parameters = {},
     .takes = "",
     .answers = "",
     .status = 204,
     .handler = revoke},
    {.method = "POST",
     .pattern = "/api/v1/agents/{agent}/admit",
     .least = role::admin,
     .summary = "Admits a name that waits, or that polls already; with `key` only the host that "
                "has that key.",
     .parameters = {},
     .takes = "admission",
     .answers = "standing",
     .status = 200,
     .handler = admit,
     .may_lack_body = true},
    {.method = "POST",
     .pattern = "/api/v1/agents/{agent}/refuse",
     .least = role::admin,
     .summary =
         "Takes a name off the list of those that wait. The host that has its key is refused "
         "for an hour, then it may ask again.",
     .parameters = {},
     .takes = "",
     .answers = "",
     .status = 204,
     .handler = refuse}};

} // namespace

std::span<const route> enrolment_routes() {
    return rows;
}
