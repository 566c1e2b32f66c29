#include "enrol/conf.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <algorithm>
#include <cstdlib>

namespace {

struct line {
    size_t at = 0, length = 0; /* in the text, with the line's end */
    std::string_view key, value;
    size_t value_at = 0; /* behind the key's blanks */
};

/* As isspace() and isalnum() of the C locale, in which the agent runs. */
bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_key_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool counts_without_value(std::string_view key) {
    return key == "CAFILE" || key == "CERTFILE" || key == "KEYFILE";
}

bool is_url(std::string_view key) {
    return key == "USEHOST" || key == "APIHOST" || key == "DATAHOST";
}

bool last_counts(std::string_view key) {
    return is_url(key) || key == "LOGLEVEL" || key == "VERSION";
}

bool is_whole_url(std::string_view url) {
    const size_t scheme = url.find("://");
    return scheme != url.npos && url.find('/', scheme + 3) != url.npos;
}

/* The piece that the agent reads next. */
size_t piece_length(std::string_view rest) {
    const std::string_view piece = rest.substr(0, longest_conf_line);
    const size_t end = piece.find('\n');
    return end == piece.npos ? piece.size() : end + 1;
}

line read_line(std::string_view text, size_t at) {
    line found;
    found.at = at;
    found.length = piece_length(text.substr(at));
    std::string_view seen = text.substr(at, found.length);
    seen = seen.substr(0, seen.find('\0')); /* what is behind it does not count */
    const auto key_end = std::find_if_not(seen.begin(), seen.end(), is_key_character);
    found.key = seen.substr(0, static_cast<size_t>(key_end - seen.begin()));
    const auto value = std::find_if_not(key_end, seen.end(), is_space);
    found.value_at = static_cast<size_t>(value - seen.begin());
    found.value = seen.substr(found.value_at);
    while (!found.value.empty() && is_space(found.value.back())) {
        found.value.remove_suffix(1);
    }
    return found;
}

std::vector<line> lines_of(std::string_view text) {
    std::vector<line> lines;
    for (size_t at = 0; at < text.size(); at += lines.back().length) {
        lines.push_back(read_line(text, at));
    }
    return lines;
}

bool counts(const line& l) {
    if (is_url(l.key)) {
        return is_whole_url(l.value);
    }
    return !l.value.empty() || counts_without_value(l.key);
}

/* The line that counts, or null. */
const line* line_of(const std::vector<line>& lines, std::string_view key) {
    const line* found = nullptr;
    for (const line& l : lines) {
        if (l.key == key && counts(l) && (found == nullptr || last_counts(key))) {
            found = &l;
        }
    }
    return found;
}

/* One that would count if it had the value that it ought to have. */
const line* idle_line_of(const std::vector<line>& lines, std::string_view key) {
    auto is_it = [key](const line& l) { return l.key == key; };
    if (last_counts(key)) {
        auto found = std::find_if(lines.rbegin(), lines.rend(), is_it);
        return found == lines.rend() ? nullptr : &*found;
    }
    auto found = std::find_if(lines.begin(), lines.end(), is_it);
    return found == lines.end() ? nullptr : &*found;
}

/* "#KEY ...", with blanks or without. */
bool shows(std::string_view comment, std::string_view key) {
    if (!comment.starts_with('#')) {
        return false;
    }
    comment.remove_prefix(std::min(comment.find_first_not_of("# \t"), comment.size()));
    return comment.starts_with(key) && comment.size() > key.size() && is_space(comment[key.size()]);
}

/* Where a new line goes: behind the last comment that shows it. */
size_t place_of(std::string_view text, const std::vector<line>& lines, std::string_view key) {
    size_t place = text.size();
    for (const line& l : lines) {
        const std::string_view seen = text.substr(l.at, l.length);
        if (seen.ends_with('\n') && shows(seen, key)) {
            place = l.at + l.length;
        }
    }
    return place;
}

std::string new_line(const std::string& key, const std::string& value) {
    constexpr size_t column = 13; /* where values begin in the file that is installed */
    const size_t blanks = key.size() < column ? column - key.size() : 1;
    return key + std::string(blanks, ' ') + value + "\n";
}

/* The end of a line with the blanks before it that belong to it: "\r\n" stays so. */
std::string_view end_of(std::string_view whole) {
    return whole.ends_with("\r\n") ? "\r\n" : whole.ends_with('\n') ? "\n" : "";
}

void replace(std::string& text, const line& l, const std::string& key, const std::string& value) {
    const std::string_view whole = std::string_view(text).substr(l.at, l.length);
    std::string_view blanks = whole.substr(key.size(), l.value_at - key.size());
    if (blanks.empty() || blanks.find_first_not_of(" \t") != blanks.npos || blanks.size() > 40) {
        blanks = "    ";
    }
    /* A piece of a longer line gets an end: what comes behind it is a piece of its own, as before.
     */
    std::string_view end = end_of(whole);
    if (end.empty() && l.at + l.length < text.size()) {
        end = "\n";
    }
    std::string changed = key;
    changed.append(blanks).append(value).append(end);
    text.replace(l.at, l.length, changed);
}

void set(std::string& text, const std::string& key, const std::string& value) {
    const std::vector<line> lines = lines_of(text);
    const line* there = line_of(lines, key);
    if (there != nullptr && there->value == value) {
        return;
    }
    if (there == nullptr) {
        there = idle_line_of(lines, key);
    }
    if (there != nullptr) {
        replace(text, *there, key, value);
        return;
    }
    const size_t place = place_of(text, lines, key);
    if (place == text.size() && !text.empty() && !text.ends_with('\n')) {
        text += '\n';
        text += new_line(key, value);
        return;
    }
    text.insert(place, new_line(key, value));
}

void check(const std::string& key, const std::string& value) {
    auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; };
    const char* why =
        value.empty()                                         ? "is empty"
        : is_space(value.front()) || is_space(value.back())   ? "begins or ends with a blank"
        : std::any_of(value.begin(), value.end(), is_control) ? "has a control character"
        : value.size() > longest_conf_line - 64               ? "is too long"
                                                              : nullptr;
    if (why != nullptr) {
        throw failure{status_wrong, key + " cannot be \"" + printable(value.substr(0, 300)) +
                                        "\": what " + why +
                                        " cannot be written into the configuration"};
    }
}

} // namespace

std::optional<std::string> conf_value(std::string_view text, std::string_view key) {
    const std::vector<line> lines = lines_of(text);
    const line* found = line_of(lines, key);
    return found == nullptr ? std::nullopt : std::optional<std::string>(found->value);
}

std::string with_values(std::string_view text, const conf_values& values) {
    std::string changed(text);
    for (const auto& [key, value] : values) {
        check(key, value);
        set(changed, key, value);
    }
    for (const auto& [key, value] : values) {
        if (conf_value(changed, key) != value) {
            throw failure{status_wrong, key + " cannot be set in this configuration"};
        }
    }
    return changed;
}

std::optional<conf_server> server_in(std::string_view text) {
    const std::optional<std::string> url = conf_value(text, "USEHOST");
    if (!url) {
        return std::nullopt;
    }
    const size_t host = url->find("://") + 3, path = url->find('/', host);
    const size_t colon = url->find(':', host);
    conf_server found;
    found.path = url->substr(path);
    found.host = url->substr(host, std::min(colon, path) - host);
    found.port = url->starts_with("https") ? "443" : url->starts_with("http") ? "80" : "443";
    if (colon < path) {
        const long port = strtol(url->c_str() + colon + 1, nullptr, 10);
        found.port = std::to_string(port == 0 || port > 65535 ? 443 : port);
    }
    return found;
}
