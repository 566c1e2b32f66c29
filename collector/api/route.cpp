#include "api/route.h"

#include "api/encoding.h"
#include "api/json.h"
#include "base/files.h"
#include "base/text.h"
#include "ingest/hash.h"

#include <algorithm>
#include <new>

namespace {

constexpr size_t max_text = 1000;
constexpr int64_t max_ids = 100;

/* ---- paths ---- */

/* What stands between the slashes. */
std::vector<std::string_view> segments_of(std::string_view path) {
    std::vector<std::string_view> segments;
    while (!path.empty()) {
        path.remove_prefix(1);
        segments.push_back(path.substr(0, path.find('/')));
        path.remove_prefix(segments.back().size());
    }
    return segments;
}

bool fits(std::string_view pattern, const std::vector<std::string>& path,
          std::vector<std::string>& in_path) {
    in_path.clear();
    std::vector<std::string_view> wanted = segments_of(pattern);
    if (wanted.size() != path.size()) {
        return false;
    }
    for (size_t i = 0; i < wanted.size(); i++) {
        if (wanted[i].starts_with('{')) {
            in_path.push_back(path[i]);
        } else if (wanted[i] != path[i]) {
            return false;
        }
    }
    return std::find(in_path.begin(), in_path.end(), "") == in_path.end();
}

/* ---- parameters ---- */

/* Whether one is the other but for a letter or two. */
bool is_close(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t same = diagonal + (a[i - 1] != b[j - 1] ? 1 : 0);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, same});
        }
    }
    return row[b.size()] <= std::min<size_t>(2, b.size() / 2);
}

std::string shown(std::string_view text) {
    return "\"" + std::string(text.substr(0, 100)) + (text.size() > 100 ? "...\"" : "\"");
}

[[noreturn]] void throw_unknown(const route& of, const std::string& name) {
    std::string text = "There is no parameter " + shown(name) + " here";
    std::string all;
    for (const parameter_def& known : of.parameters) {
        if (name.size() < 100 && is_close(name, known.name)) {
            throw_bad_request(text + "; " + known.name + "?");
        }
        all.append(all.empty() ? "" : ", ").append(known.name);
    }
    throw_bad_request(text + (all.empty() ? ": there are none." : ". There are: " + all + "."));
}

[[noreturn]] void throw_wrong(const parameter_def& known, std::string_view value,
                              const std::string& expected) {
    throw_bad_request(std::string("The parameter ") + known.name + " is " + shown(value) +
                      "; expected " + expected + ".");
}

bool is_choice(std::string_view choices, std::string_view word) {
    while (!choices.empty()) {
        std::string_view next = choices.substr(0, choices.find('|'));
        if (next == word) {
            return true;
        }
        choices.remove_prefix(std::min(next.size() + 1, choices.size()));
    }
    return false;
}

std::string choices_text(const parameter_def& known) {
    std::string text = known.choices;
    for (size_t at; (at = text.find('|')) != std::string::npos;) {
        text.replace(at, 1, ", ");
    }
    return (known.many ? "one or more, with commas between, of " : "one of ") + text;
}

void check_choice(const parameter_def& known, std::string_view value) {
    auto check = [&](std::string_view word) {
        if (!is_choice(known.choices, word)) {
            throw_wrong(known, value, choices_text(known));
        }
    };
    if (known.many) {
        for_each_part(value, ',', check);
    } else {
        check(value);
    }
}

void check_number(const parameter_def& known, std::string_view value, int64_t least, int64_t most) {
    std::optional<int64_t> number = read_integer(value);
    if (!number || *number < least || *number > most) {
        throw_wrong(known, value,
                    most == INT64_MAX ? "a whole number from " + std::to_string(least) + " on"
                                      : "a whole number from " + std::to_string(least) + " to " +
                                            std::to_string(most));
    }
}

void check_ids(const parameter_def& known, std::string_view value) {
    if (std::ranges::count(value, ',') >= max_ids) {
        throw_wrong(known, value, "up to " + std::to_string(max_ids) + " ids with commas between");
    }
    for_each_part(value, ',', [&](std::string_view id) { check_number(known, id, 1, INT64_MAX); });
}

void check_value(const parameter_def& known, std::string_view value) {
    switch (known.kind) {
    case parameter_kind::text:
        if (value.empty() || value.size() > max_text || !is_plain_text(value)) {
            throw_wrong(known, value,
                        "a text of 1 to " + std::to_string(max_text) +
                            " bytes of UTF-8 without control characters");
        }
        break;
    case parameter_kind::number:
        check_number(known, value, known.least, known.most);
        break;
    case parameter_kind::id:
        if (known.many) {
            check_ids(known, value);
        } else {
            check_number(known, value, 1, INT64_MAX);
        }
        break;
    case parameter_kind::time:
        if (!read_time(value)) {
            throw_wrong(known, value, "a time such as 2026-05-01T12:00:00Z (RFC 3339)");
        }
        break;
    case parameter_kind::choice:
        check_choice(known, value);
        break;
    case parameter_kind::flag:
        if (!is_choice("0|1|true|false", value)) {
            throw_wrong(known, value, "0, 1, true or false");
        }
        break;
    case parameter_kind::next:
        if (value.empty() || value.size() > 4 * max_text || !from_base64url(value)) {
            throw_wrong(known, value, "what `next` of the answer before said");
        }
        break;
    }
}

void take_parameter(const route& of, std::string_view text, api_request& asked) {
    std::string_view written = text.substr(0, text.find('='));
    std::optional<std::string> name = percent_decoded(written, true);
    std::optional<std::string> value =
        percent_decoded(text.substr(std::min(written.size() + 1, text.size())), true);
    if (!name || !value) {
        throw_bad_request("In " + shown(text) +
                          " a % has no two hexadecimal digits behind it; % itself is %25.");
    }
    const auto* known =
        std::find_if(of.parameters.data(), of.parameters.data() + of.parameters.size(),
                     [&](const parameter_def& each) { return *name == each.name; });
    if (known == of.parameters.data() + of.parameters.size()) {
        throw_unknown(of, *name);
    }
    if (asked.parameter(*name) != nullptr) {
        throw_bad_request("The parameter " + *name + " is there twice" +
                          (known->many ? ": put commas between its values." : "."));
    }
    if (known->kind == parameter_kind::flag && written.size() == text.size()) {
        value = "true";
    }
    check_value(*known, *value);
    asked.parameters.emplace_back(std::move(*name), std::move(*value));
}

/* ---- answers ---- */

/* If-None-Match: "*", or tags with commas between, weak or not. */
bool has_tag(std::string_view all, std::string_view tag) {
    return all == "*" || all.find(tag) != std::string_view::npos;
}

void add_tag(const api_request& asked, api_answer& answer) {
    std::string tag = "\"" + hex(view_of(sha256(answer.body)).substr(0, 16)) + "\"";
    if (has_tag(asked.if_none_match, tag)) {
        answer.status = 304;
        answer.body.clear();
    }
    answer.headers.emplace_back("ETag", std::move(tag));
}

[[noreturn]] void throw_no_route(std::string_view method, std::string_view path,
                                 const std::string& allowed) {
    if (allowed.empty()) {
        const bool is_agent = path.starts_with("/api/v1/agents/"); /* account/name, as it seems */
        throw_not_found("There is nothing at " + shown(path) +
                        (is_agent ? "; the slash between account and name is %2F in a path."
                                  : "; /openapi.json says what there is."));
    }
    throw problem{405, "Method not allowed",
                  shown(path) + " does not take " + shown(method) + ", but " + allowed + "."};
}

api_answer answer_checked(std::string_view method, std::string_view target, api_request& asked,
                          api_services& with, std::string& allowed) {
    std::string_view path = target.substr(0, target.find('?'));
    asked.method = method;
    asked.path = path;
    const route* found = find_route(method, path, asked.in_path, allowed);
    if (found == nullptr) {
        throw_no_route(method, path, allowed);
    }
    check_role(*found, asked.who);
    read_parameters(*found, target.substr(std::min(path.size() + 1, target.size())), asked);
    if (*found->takes == '\0' && !asked.body.empty()) {
        throw_bad_request("There is a body, and " + std::string(method) + " " + std::string(path) +
                          " takes none.");
    }
    /* The web server answers these itself, but where their path is written in another way. */
    if (found->handler == nullptr) {
        throw_no_route(method, path, "");
    }
    api_answer answer = found->handler(asked, with);
    answer.audit = printable(answer.audit);
    if (found->method == "GET" && answer.status == 200) {
        add_tag(asked, answer);
    }
    return answer;
}

} // namespace

const route* find_route(std::string_view method, std::string_view path,
                        std::vector<std::string>& in_path, std::string& allowed) {
    allowed.clear();
    in_path.clear();
    if (!path.starts_with('/')) {
        return nullptr;
    }
    std::vector<std::string> decoded;
    for (std::string_view segment : segments_of(path)) {
        std::optional<std::string> plain = percent_decoded(segment, false);
        if (!plain) {
            return nullptr;
        }
        decoded.push_back(std::move(*plain));
    }
    std::vector<std::string> names;
    for (const route& each : all_routes()) {
        if (!fits(each.pattern, decoded, names)) {
            continue;
        }
        const bool has_head = each.method == "GET" && !each.is_stream;
        if (each.method == method || (has_head && method == "HEAD")) {
            in_path = std::move(names);
            return &each;
        }
        allowed.append(allowed.empty() ? "" : ", ").append(each.method);
        allowed.append(has_head ? ", HEAD" : "");
    }
    return nullptr;
}

void read_parameters(const route& of, std::string_view query, api_request& asked) {
    asked.parameters.clear();
    while (!query.empty()) {
        std::string_view next = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(next.size() + 1, query.size()));
        if (!next.empty()) {
            take_parameter(of, next, asked);
        }
    }
    for (const parameter_def& known : of.parameters) {
        if (known.required && asked.parameter(known.name) == nullptr) {
            throw_bad_request(std::string("The parameter ") + known.name + " is missing.");
        }
    }
}

void check_role(const route& of, const caller& who) {
    if (who.may >= of.least) {
        return;
    }
    if (who.may == role::none) {
        throw problem{401, "Not signed in",
                      "This needs a token that has not ended: send \"Authorization: Bearer "
                      "vt_...\". `vindral-collector token add NAME --role viewer` makes one."};
    }
    throw problem{403, "Not allowed",
                  "This needs the role " + std::string(role_word(of.least)) + ", and \"" +
                      who.name + "\" is " + std::string(role_word(who.may)) + "."};
}

api_answer answer_request(std::string_view method, std::string_view target, api_request& asked,
                          api_services& with) {
    std::string allowed;
    try {
        try {
            return answer_checked(method, target, asked, with, allowed);
        } catch (const problem& what) {
            api_answer answer = answer_of(what);
            if (what.status == 401) {
                answer.headers.emplace_back("WWW-Authenticate", "Bearer");
            } else if (what.status == 405) {
                answer.headers.emplace_back("Allow", allowed);
            } else if (what.status == 503) {
                answer.headers.emplace_back("Retry-After", "5");
            }
            return answer;
        } catch (const std::bad_alloc&) {
            return answer_of({503, "Not available", "There is no memory for this now."});
        } catch (const std::exception& e) {
            return answer_of(
                {500, "Internal error", std::string("Something went wrong here: ") + e.what()});
        }
    } catch (const std::exception&) {
        api_answer answer;
        answer.status = 503; /* no memory even to say so */
        return answer;
    }
}
