/* Where the API is, and the targets of requests to it. */
#ifndef VINDRAL_CTL_URL_H
#define VINDRAL_CTL_URL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct base_url {
    bool tls = false;
    std::string host; /* without brackets */
    std::string port;
    std::string prefix; /* of every path: "" or "/vindral" */

    /* "localhost", 127.0.0.0/8 or ::1: what is sent there does not leave the machine. */
    bool is_loopback() const;
    bool is_address() const;
    /* For the Host header: "name", "name:8080", "[::1]:8080"; the scheme's own port is left out. */
    std::string authority() const;
    std::string text() const; /* "https://name:8443/vindral" */
};

/* "http://127.0.0.1:8080", "https://[2001:db8::1]/vindral/". Throws failure (usage), which shows
 * `example`: what an address is like. */
base_url read_url(std::string_view text,
                  std::string_view example = "http://127.0.0.1:8080 or "
                                             "https://collector.example.org:8080");

using parameters = std::vector<std::pair<std::string, std::string>>;

/* Everything but letters, digits and -._~ as %XX. */
std::string percent_encoded(std::string_view text);

/* "/api/v1/tests?agent=a%2Fb&limit=5": those that are empty are left out. */
std::string target_of(std::string_view path, const parameters& with);

#endif
