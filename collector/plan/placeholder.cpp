#include "plan/placeholder.h"

#include <algorithm>

static constexpr std::string_view beginning = "${secret:";

static bool is_of_names(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

bool is_secret_name(std::string_view name) {
    return !name.empty() && name.size() <= longest_secret_name &&
           std::all_of(name.begin(), name.end(), is_of_names);
}

bool find_placeholder(std::string_view text, size_t from, placeholder& found) {
    found.begin = text.find(beginning, from);
    if (found.begin == text.npos) {
        return false;
    }
    const size_t name = found.begin + beginning.size();
    size_t end = name;
    while (end < text.size() && end - name <= longest_secret_name && is_of_names(text[end])) {
        end++;
    }
    const bool whole =
        end < text.size() && text[end] == '}' && is_secret_name(text.substr(name, end - name));
    found.name = whole ? text.substr(name, end - name) : std::string_view();
    found.end = whole ? end + 1 : name;
    return true;
}

std::vector<std::string> secrets_in(std::string_view text) {
    std::vector<std::string> names;
    placeholder at;
    for (size_t from = 0; find_placeholder(text, from, at); from = at.end) {
        if (!at.name.empty() && std::find(names.begin(), names.end(), at.name) == names.end()) {
            names.emplace_back(at.name);
        }
    }
    return names;
}

bool is_only_placeholders(std::string_view text) {
    size_t from = 0;
    for (placeholder at; find_placeholder(text, from, at); from = at.end) {
        if (at.begin != from || at.name.empty()) {
            return false;
        }
    }
    return from > 0 && from == text.size();
}
