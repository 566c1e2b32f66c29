#include "fleet/pattern.h"

namespace {

bool begins_character(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
}

/* Behind the character that begins there. */
size_t next_character(std::string_view text, size_t at) {
    do {
        at++;
    } while (at < text.size() && !begins_character(text[at]));
    return at;
}

} // namespace

bool matches_pattern(std::string_view text, std::string_view pattern) {
    size_t at = 0, in_pattern = 0;
    size_t star = pattern.npos; /* the last one; what is before it is settled */
    size_t from = 0;            /* of the text, where what is behind that star is tried next */
    while (at < text.size()) {
        const bool is_left = in_pattern < pattern.size();
        if (is_left && pattern[in_pattern] == '*') {
            star = in_pattern++;
            from = at;
        } else if (is_left && pattern[in_pattern] == '?') {
            in_pattern++;
            at = next_character(text, at);
        } else if (is_left && pattern[in_pattern] == text[at]) {
            in_pattern++;
            at++;
        } else if (star != pattern.npos) {
            in_pattern = star + 1;
            at = from = next_character(text, from);
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', in_pattern) == pattern.npos;
}

bool agent_pattern::matches(std::string_view of_account, std::string_view of_name) const {
    return matches_pattern(of_name, name) &&
           (account.empty() || matches_pattern(of_account, account));
}

agent_pattern pattern_of(std::string_view text) {
    const size_t slash = text.rfind('/');
    if (slash == text.npos) {
        return {.account = "", .name = std::string(text)};
    }
    return {.account = std::string(text.substr(0, slash)),
            .name = std::string(text.substr(slash + 1))};
}
