/* Bytes as letters, digits, '-' and '_', as they stand in addresses and tokens. */
#ifndef VINDRAL_PROTOCOL_BASE64URL_H
#define VINDRAL_PROTOCOL_BASE64URL_H

#include <optional>
#include <string>
#include <string_view>

namespace protocol {

/* Without padding. What is no such text is none; one text a value: bits that are left over at the
 * end have to be zero. */
std::string base64url(std::string_view bytes);
std::optional<std::string> from_base64url(std::string_view text);

} // namespace protocol

#endif
