/* The secrets that tests use, by name: kept sealed in the settings, opened here.
 *
 * In a plan's line "${secret:NAME}" stands for the value. Names are 1 to 64 letters, digits, '-',
 * '_' and '.'. Values have 1 to 4096 bytes of UTF-8 without control characters: a value is never
 * more than the part of a field that it stands in. A value is given to agents that have proven who
 * they are, and to nobody else; it is in no message, event, answer or backup.
 *
 * Any thread. What changes something returns false with one line in `error`. */
#ifndef VINDRAL_COLLECTOR_KNOWN_SECRETS_H
#define VINDRAL_COLLECTOR_KNOWN_SECRETS_H

#include "base/sealing.h"
#include "store/settings.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class known_secrets {
public:
    struct entry { /* what may be shown */
        std::string name, by;
        int64_t made = 0;
        bool readable = false; /* it opens with the key that is there */
    };

    known_secrets(settings& kept, std::string directory);

    /* Reads what is kept; again whenever somebody has changed it. A secret that does not open is as
     * if it were not there; `error` names it. */
    bool refresh(std::string& error);

    bool set(std::string_view name, std::string_view value, const std::string& by, int64_t now,
             std::string& error);
    /* False with an empty error when there is none. */
    bool remove(std::string_view name, std::string& error);
    std::vector<entry> list() const;

    /* Rises whenever any value has changed, or one has come or gone. */
    uint64_t newest() const;
    /* Serial of the last change of that one. */
    uint64_t serial_of(std::string_view name) const;

    /* `line` with the values in it; none, and the first name that is missing, when one is. */
    std::optional<std::string> expand(std::string_view line, std::string& missing) const;

private:
    struct value {
        std::string text; /* wiped when it goes */
        entry shown;
        uint64_t serial = 0;
    };
    settings& kept_;
    const std::string directory_;
    mutable std::mutex mutex_;
    std::map<std::string, value, std::less<>> values_;
    uint64_t newest_ = 0;
};

bool is_secret_name(std::string_view name);
/* The names that a line uses, each once. */
std::vector<std::string> secrets_in(std::string_view line);

#endif
