/* Secrets as they are kept: AES-256-GCM under a key that is not in the same file.
 *
 * The key: 32 bytes as 64 hexadecimal digits, in secrets.key of the state directory (0600, made
 * when it is first needed) or, when the service was given one, in the systemd credential
 * "secrets-key" ($CREDENTIALS_DIRECTORY/secrets-key). Who has the store without the key has no
 * secret. What is sealed belongs to a name: it opens under no other. */
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

    /* False with one line in `error`, which says nothing of the key. `make`: when there is none. */
    bool open(const std::string& directory, bool make, std::string& error);

    /* Nonce, what is sealed, tag. "" when the system has no random numbers. */
    std::string seal(std::string_view name, std::string_view value) const;
    /* None when it was sealed with another key, for another name, or is damaged. */
    std::optional<std::string> unseal(std::string_view name, std::string_view sealed) const;

private:
    std::array<unsigned char, 32> key_{};
};

#endif
