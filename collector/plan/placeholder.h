/* "${secret:NAME}" in a line of a plan, which stands for the value of that secret. There is no way
 * to write these characters and mean something else. */
#ifndef VINDRAL_COLLECTOR_PLACEHOLDER_H
#define VINDRAL_COLLECTOR_PLACEHOLDER_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t longest_secret_name = 64;

/* 1 to 64 letters, digits, '-', '_' and '.'. */
bool is_secret_name(std::string_view name);

/* The next one of a text. */
struct placeholder {
    size_t begin = 0, end = 0; /* from "${" to behind "}" */
    std::string_view name;     /* "": it is begun, and is none */
};
/* From `from` on; false when there is none. */
bool find_placeholder(std::string_view text, size_t from, placeholder& found);

/* The names that a text uses, each once, in the order of their first use. */
std::vector<std::string> secrets_in(std::string_view text);

/* Whether a text is placeholders and nothing else: then it may be shown where a password stands. */
bool is_only_placeholders(std::string_view text);

#endif
