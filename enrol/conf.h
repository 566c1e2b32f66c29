/* vindral.conf: what the agent reads in it, and changes that leave every other byte as it is.
 *
 * The agent reads pieces of at most 1023 bytes, a line or a part of a long one, and takes each for
 * a line: KEY, white space, value. Of most keys the first line counts; of LOGLEVEL, VERSION and the
 * three URLs the last one, and of a URL only one that has a path. */
#ifndef VINDRAL_ENROL_CONF_H
#define VINDRAL_ENROL_CONF_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

constexpr size_t longest_conf_line = 1023; /* bytes, with its end */

/* The value that counts; none where no line does. CAFILE, CERTFILE and KEYFILE may be "": a line
 * without a value counts, so that a file name that got lost is noticed. */
std::optional<std::string> conf_value(std::string_view text, std::string_view key);

/* Keys and values, in the order in which new lines are added. */
using conf_values = std::vector<std::pair<std::string, std::string>>;

/* The text with these values: the line that counts is replaced where it is, with its blanks and its
 * end. A key without such a line gets one behind the comment that shows it ("#KEY ..."), or at the
 * end of the text. Throws failure for a value that cannot stand in a line: empty, blank at an end,
 * with a control character, too long. */
std::string with_values(std::string_view text, const conf_values& values);

/* The collection server as USEHOST names it; none without a line that counts. */
struct conf_server {
    std::string host, port, path;
};
std::optional<conf_server> server_in(std::string_view text);

#endif
