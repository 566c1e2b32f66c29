/* How a host gets the certificate by which its agent proves who it is, and how it keeps it good: on
 * the port that agents poll, over TLS, HTTP/1.0, one exchange a connection. `vindral-enrol` is the
 * one end, the collector the other.
 *
 *   GET /authority        200, PEM: the authorities that the server is verified with, the one that
 *                         signed its certificate first. To anybody: it is no secret. Behind
 *                         "Vnd-Authority:" stands which authority signs agents' certificates now.
 *   POST /enrol           body: a certificate request (PKCS #10, PEM, at most max_request bytes).
 *                         Its key is the one that is certified; what else it says does not count.
 *     with Vnd-Token      a host that an admin expects. Vnd-EMail and Vnd-AName, when they are
 *                         there, have to be the names of the token.
 *     by a certificate    of the handshake, without Vnd-Token: the same names once more, renewed.
 *     with neither        Vnd-EMail and Vnd-AName say who it wants to be: it waits until it is
 *                         admitted, and asks again.
 *
 * What is answered to it:
 *   200  PEM: the agent's certificate. The same key and token get one again: an answer may be lost
 *   202  waits to be admitted: ask again in some seconds
 *   400  no sense in it
 *   403  refused, for good; the body says why, in a line
 *   503  not now: ask again in some seconds
 *
 * A token opens once, for one key, within its time. In it stand its secret, and the SHA-256 of the
 * certificate (DER) of the authority that the server is verified with: a host that has nothing but
 * the token asks for /authority without verifying anybody, takes from it that one certificate, and
 * says nothing of its own before the server has been verified with it. */
#ifndef VINDRAL_PROTOCOL_ENROLMENT_H
#define VINDRAL_PROTOCOL_ENROLMENT_H

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace protocol {

inline constexpr std::string_view authority_path = "/authority";
inline constexpr std::string_view enrol_path = "/enrol";
inline constexpr std::string_view token_header = "Vnd-Token";
inline constexpr std::string_view authority_header = "Vnd-Authority"; /* 64 hexadecimal digits */
inline constexpr size_t max_request = 8192;                           /* bytes */

using sha256 = std::array<unsigned char, 32>;

/* "ve_" and 86 characters of base64url: 32 random bytes, and the 32 of the authority's hash. */
struct enrolment_token {
    sha256 secret{};
    sha256 authority{};
};
std::string text_of(const enrolment_token& token);
std::optional<enrolment_token> read_enrolment_token(std::string_view text);

/* The one alternative name, a URI, in an agent's certificate: "vindral:ACCOUNT/AGENT", each with
 * everything but letters, digits and -._~ as %XX (capital letters). Exactly so: what is written in
 * another way is no such name. Names have 1 to 254 bytes, no control characters. */
struct agent_identity {
    std::string account, agent;
    bool operator==(const agent_identity&) const = default;
};
std::string identity_uri(const agent_identity& of); /* "" for what are no names */
std::optional<agent_identity> read_identity_uri(std::string_view uri);

} // namespace protocol

#endif
