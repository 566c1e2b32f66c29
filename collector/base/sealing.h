/* Secrets as they are kept: AES-256-GCM under a key that is not in the same file.
 *
 * The key: 32 bytes as 64 hexadecimal digits, in secrets.key of the state directory (0600, made
 * when it is first needed) or, when the service was given one, in the systemd credential
 * "secrets-key" ($CREDENTIALS_DIRECTORY/secrets-key). Who has the store without the key has no
 * secret. What is sealed belongs to a name: it opens under no other.
 *
 * A credential that is there counts alone. A key in the state directory that somebody besides its
 * owner may read or write is refused; how a credential is protected is the service manager's
 * business. */
#ifndef VINDRAL_COLLECTOR_SEALING_H
#define VINDRAL_COLLECTOR_SEALING_H

#include <array>
#include <optional>
#include <string>
#include <string_view>

class sealer {
public:
    sealer() = default;
    ~sealer(); /* wipes the key */
    sealer(const sealer&) = delete;
    sealer& operator=(const sealer&) = delete;

    /* False with one line in `error`, which says nothing of the key; what was open stays so.
     * `make`: when there is none. Not where something is sealed already, which no new key opens. */
    bool open(const std::string& directory, bool make, std::string& error);

    /* Nonce, what is sealed, tag; 28 bytes more than the value. "" when nothing is open, or the
     * system has no random numbers. Any thread, as is the way back. */
    std::string seal(std::string_view name, std::string_view value) const;
    /* None when it was sealed with another key, for another name, or is damaged. */
    std::optional<std::string> unseal(std::string_view name, std::string_view sealed) const;

private:
    std::array<unsigned char, 32> key_{};
    bool is_open_ = false;
};

#endif
