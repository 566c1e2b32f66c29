#include "fleet/values.h"

#include "fleet/addresses.h"
#include "fleet/text_check.h"
#include "fleet/units.h"
#include "plan/placeholder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <set>

namespace {

constexpr double megabyte = 1024.0 * 1024, gigabyte = megabyte * 1024;
constexpr size_t longest_name = 255; /* of an object or a value, in bytes */
constexpr double harmless = 0.01;    /* how much of a number may be rounded away */

std::vector<std::string_view> split_words(std::string_view words, char between) {
    std::vector<std::string_view> all;
    while (true) {
        const size_t end = words.find(between);
        all.push_back(words.substr(0, end));
        if (end == words.npos) {
            return all;
        }
        words.remove_prefix(end + 1);
    }
}

std::string in_words(const std::vector<std::string_view>& all) {
    std::string text;
    for (size_t i = 0; i < all.size(); i++) {
        text.append(i == 0 ? "" : i + 1 == all.size() ? " or " : ", ").append(all[i]);
    }
    return text;
}

/* The key, and what it was given. */
struct reading {
    const key_def& key;
    const node& from;
    remarks& wrong;

    std::string subject() const { return in_ticks(key.name); }
    void refuse(const std::string& why) const { wrong.add(from.at, subject() + why); }
};

/* ---- numbers ---- */

/* In words, of the unit of the form. */
std::string amount_text(value_form form, double number) {
    switch (form) {
    case value_form::percent:
        return number_text(number) + " %";
    case value_form::megabytes:
        return number_text(number) + " MB";
    case value_form::gigabytes:
        return number_text(number) + " GB";
    case value_form::rate:
        return number_text(number) + " B";
    case value_form::seconds:
        return duration_text(std::llround(number) * 1000);
    case value_form::milliseconds:
        return duration_text(std::llround(number));
    default:
        return number_text(number);
    }
}

/* In the unit of the form, exactly as it was given. */
std::optional<double> read_amount(value_form form, std::string_view text, std::string& expected) {
    switch (form) {
    case value_form::percent:
        return read_percent(text, expected);
    case value_form::megabytes: {
        const std::optional<double> bytes = read_bytes(text, expected);
        return bytes ? std::optional(*bytes / megabyte) : std::nullopt;
    }
    case value_form::rate:
        return read_byte_rate(text, expected);
    case value_form::seconds:
    case value_form::milliseconds: {
        const std::optional<int64_t> time = read_milliseconds(text, expected);
        const double unit = form == value_form::seconds ? 1000 : 1;
        return time ? std::optional(static_cast<double>(*time) / unit) : std::nullopt;
    }
    default: {
        const std::optional<double> number = read_real(text, expected);
        if (!number) {
            expected = "a whole number";
        }
        return number;
    }
    }
}

/* Those on both sides, as far as they may be given: "1 or 2". */
std::string nearest_whole(const reading& r, double number) {
    std::string text;
    for (const double each : {std::floor(number), std::floor(number) + 1}) {
        if (each >= r.key.least && each <= r.key.most) {
            text += (text.empty() ? "" : " or ") + amount_text(r.key.form, each);
        }
    }
    return text.empty() ? amount_text(r.key.form, r.key.least) + " or more" : text;
}

/* Agents take whole numbers: rounds where that is harmless, and says so where it is not. */
bool make_whole(const reading& r, double& number) {
    const double rounded = std::round(number);
    const bool may_round = r.key.form == value_form::megabytes || r.key.form == value_form::rate;
    if (rounded == number || (may_round && std::abs(rounded - number) <= harmless * number)) {
        number = rounded;
        return true;
    }
    r.refuse(": " + in_ticks(r.from.text) + " is not whole, and agents take whole " +
             (r.key.form == value_form::percent     ? "percents"
              : r.key.form == value_form::megabytes ? "megabytes"
              : r.key.form == value_form::seconds   ? "seconds"
              : r.key.form == value_form::rate      ? "bytes"
                                                    : "numbers") +
             ": " + nearest_whole(r, number));
    return false;
}

bool is_in_range(const reading& r, double number) {
    if (number >= r.key.least && number <= r.key.most) {
        return true;
    }
    r.refuse(": " + in_ticks(r.from.text) + " is not from " + amount_text(r.key.form, r.key.least) +
             " to " + amount_text(r.key.form, r.key.most));
    return false;
}

bool read_number(const reading& r, given_value& found) {
    std::string expected;
    const std::optional<double> number = read_amount(r.key.form, r.from.text, expected);
    if (!number) {
        r.refuse(": " + in_ticks(r.from.text) + " does not fit: expected " + expected);
        return false;
    }
    found.number = *number;
    return make_whole(r, found.number) && is_in_range(r, found.number);
}

/* A size, or a share of the whole. */
bool read_space(const reading& r, given_value& found) {
    std::string expected;
    found.is_share = r.from.text.ends_with('%');
    std::optional<double> number =
        found.is_share ? read_percent(r.from.text, expected) : read_bytes(r.from.text, expected);
    if (!number) {
        r.refuse(": " + in_ticks(r.from.text) +
                 " is neither a size with its unit, such as 5 GB, nor a share, such as 10 %");
        return false;
    }
    found.number = found.is_share ? *number : *number / gigabyte;
    if (found.number > 0 && found.number <= (found.is_share ? 99 : r.key.most)) {
        return true;
    }
    r.refuse(": " + in_ticks(r.from.text) +
             (found.number > 0 ? " is more than there can be"
                               : " is no limit to agents; leave it out for none"));
    return false;
}

/* ---- texts ---- */

bool read_host(const reading& r, given_value& found) {
    if (found.text.starts_with('[') && found.text.ends_with(']')) {
        found.text = found.text.substr(1, found.text.size() - 2);
    }
    const std::string why = why_no_host(found.text);
    if (!why.empty()) {
        r.refuse(": " + why);
    }
    return why.empty();
}

bool read_choice(const reading& r, given_value& found) {
    const std::vector<std::string_view> choices = split_words(r.key.choices, '|');
    if (std::find(choices.begin(), choices.end(), found.text) != choices.end()) {
        return true;
    }
    r.refuse(": " + in_ticks(found.text) + " is not " + in_words(choices) +
             or_close(closest(found.text, choices)));
    return false;
}

bool read_flag(const reading& r, given_value& found) {
    found.number = found.text == "true" ? 1 : 0;
    if (found.text == "true" || found.text == "false") {
        return true;
    }
    r.refuse(": " + in_ticks(found.text) + " is neither true nor false");
    return false;
}

/* ---- lists and limits ---- */

/* Names stand in a field with others: what separates them there cannot be in them. */
bool check_name(const reading& r, const node& name, std::set<std::string_view>& seen) {
    if (!check_line(r.subject(), name, false, r.wrong)) {
        return false;
    }
    if (name.text.find_first_of(";|, \"'") != name.text.npos) {
        r.wrong.add(name.at, r.subject() + ": " + in_ticks(name.text) +
                                 " cannot be a name: it has a blank or one of ; | , \" '");
        return false;
    }
    if (name.text.size() > longest_name) {
        r.wrong.add(name.at, r.subject() + ": " + in_ticks(name.text) + " is longer than " +
                                 std::to_string(longest_name) + " bytes");
        return false;
    }
    if (!seen.insert(name.text).second) {
        r.wrong.add(name.at, r.subject() + ": " + in_ticks(name.text) + " is there already");
        return false;
    }
    return true;
}

bool read_bound(const reading& r, const std::string& which, const node& from, double& bound) {
    std::string expected;
    std::string_view digits = from.text;
    const bool is_whole = r.key.form == value_form::whole_limits;
    const bool is_negative = is_whole && digits.starts_with('-');
    digits.remove_prefix(is_negative ? 1 : 0);
    std::optional<double> number = read_real(digits, expected);
    if (from.is != node::kind::text || !number) {
        r.wrong.add(from.at, which + ": expected " + expected);
        return false;
    }
    if (is_whole && *number != std::floor(*number)) {
        r.wrong.add(from.at, which + ": " + in_ticks(from.text) +
                                 " is not whole, and agents compare with whole numbers");
        return false;
    }
    bound = is_negative ? -*number : *number;
    return true;
}

bool read_limits_of(const reading& r, const node& from, named_limits& found) {
    static constexpr std::string_view bounds[] = {"at least", "at most"};
    if (from.is == node::kind::nothing) {
        return true;
    }
    const std::string subject = in_ticks(found.name);
    if (from.is != node::kind::map) {
        r.wrong.add(from.at, subject + ": expected limits such as {at least: 1, at most: 5}");
        return false;
    }
    bool is_good = true;
    for (const auto& [key, value] : from.members) {
        std::optional<double>* bound = key.text == bounds[0]   ? &found.least
                                       : key.text == bounds[1] ? &found.most
                                                               : nullptr;
        if (bound == nullptr) {
            r.wrong.add(key.at,
                        in_ticks(key.text) + ": no such limit; there are `at least` and `at most`");
            is_good = false;
        } else {
            is_good = read_bound(r, in_ticks(key.text), value, bound->emplace()) && is_good;
        }
    }
    if (is_good && found.least && found.most && *found.least > *found.most) {
        r.wrong.add(from.at, subject + ": `at least` is more than `at most`");
        is_good = false;
    }
    return is_good;
}

bool read_names(const reading& r, given_value& found) {
    const bool has_limits = r.key.form != value_form::list;
    std::set<std::string_view> seen;
    bool is_good = true;
    auto add = [&](const node& name) {
        const bool is_name = check_name(r, name, seen);
        found.names.push_back({.name = name.text, .at = name.at});
        is_good = is_name && is_good;
    };
    if (r.from.is == node::kind::text) {
        add(r.from);
    } else if (r.from.is == node::kind::list) {
        std::for_each(r.from.items.begin(), r.from.items.end(), add);
    } else if (r.from.is == node::kind::map && has_limits) {
        for (const auto& [name, limits] : r.from.members) {
            add(name);
            is_good = read_limits_of(r, limits, found.names.back()) && is_good;
        }
    } else {
        r.refuse(has_limits ? ": expected names, such as {NAME: {at most: 5}, OTHER: {}}"
                            : ": expected a list of names");
        return false;
    }
    if (found.names.empty()) {
        r.refuse(": no name is there");
        return false;
    }
    return is_good;
}

} // namespace

std::string number_text(double number) {
    std::array<char, 400> text{}; /* room for the longest double without an exponent */
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed).ptr;
    return {text.data(), end};
}

std::string_view word_for(const node& from) {
    switch (from.is) {
    case node::kind::nothing:
        return "nothing";
    case node::kind::text:
        return "a text";
    case node::kind::list:
        return "a list";
    default:
        return "a map";
    }
}

bool check_line(std::string_view subject, const node& from, bool may_be_secret, remarks& wrong) {
    std::string why;
    placeholder at;
    if (from.is != node::kind::text) {
        why.append(": ").append(word_for(from)).append(" stands here, a text is expected");
    } else if (from.text.empty()) {
        why = ": the text is empty";
    } else if (first_control(from.text) != std::string::npos) {
        why = ": a line end or another control character is in it, and it has to be one line";
    }
    for (size_t after = 0; why.empty() && find_placeholder(from.text, after, at); after = at.end) {
        if (!may_be_secret) {
            why = ": a secret cannot stand here";
        } else if (at.name.empty()) {
            why = ": \"${secret:\" is begun, and no name and \"}\" follow; a name is 1 to " +
                  std::to_string(longest_secret_name) + " letters, digits, \"-\", \"_\" and \".\"";
        }
    }
    if (!why.empty()) {
        wrong.add(from.at, std::string(subject).append(why));
    }
    return why.empty();
}

std::optional<int32_t> read_seconds(const char* key, const node& from, double least, double most,
                                    remarks& wrong) {
    const key_def wanted = {
        .name = key, .form = value_form::seconds, .help = "", .least = least, .most = most};
    const std::optional<given_value> found = read_value(wanted, from, wrong);
    return found ? std::optional(static_cast<int32_t>(found->number)) : std::nullopt;
}

std::optional<given_value> read_value(const key_def& key, const node& from, remarks& wrong) {
    const reading r = {key, from, wrong};
    given_value found = {.at = from.at};
    const bool are_names = key.form == value_form::list || key.form == value_form::limits ||
                           key.form == value_form::whole_limits;
    if (are_names) {
        return read_names(r, found) ? std::optional(std::move(found)) : std::nullopt;
    }
    const bool may_be_secret = key.form == value_form::text ||
                               key.form == value_form::secret_text || key.form == value_form::url;
    if (!check_line(r.subject(), from, may_be_secret, wrong)) {
        return std::nullopt;
    }
    found.text = from.text;
    bool is_good = true;
    switch (key.form) {
    case value_form::text:
    case value_form::name:
    case value_form::secret_text:
    case value_form::url:
    case value_form::addresses:
        break; /* whoever makes fields of it looks closer */
    case value_form::host:
        is_good = read_host(r, found);
        break;
    case value_form::flag:
        is_good = read_flag(r, found);
        break;
    case value_form::choice:
        is_good = read_choice(r, found);
        break;
    case value_form::gigabytes:
        is_good = read_space(r, found);
        break;
    default:
        is_good = read_number(r, found);
    }
    return is_good ? std::optional(std::move(found)) : std::nullopt;
}
