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
#include "ingest/hidden_texts.h"
#include "plan/placeholder.h"
#include "store/settings.h"

#include <cstddef>
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
        size_t used = 0;       /* in so many lines of the plan */
    };

    known_secrets(settings& kept, std::string directory);
    ~known_secrets();
    known_secrets(const known_secrets&) = delete;
    known_secrets& operator=(const known_secrets&) = delete;

    /* Reads what is kept; again whenever somebody has changed it. A secret that does not open is as
     * if it were not there; `error` names it. What cannot be read at all leaves all as it was. */
    bool refresh(std::string& error);

    /* The first one makes the key where there is none; with others kept, a missing key is an error.
     */
    bool set(std::string_view name, std::string_view value, const std::string& by, int64_t now,
             std::string& error);
    /* False with an empty error when there is none. */
    bool remove(std::string_view name, std::string& error);
    std::vector<entry> list() const; /* by name */

    /* Rises whenever any value has changed, or one has come or gone. */
    uint64_t newest() const;
    /* Serial of the last change of that one; 0: there is none that can be read. */
    uint64_t serial_of(std::string_view name) const;

    /* `line` with the values in it; none, and the first name that is missing, when one is. What a
     * value says is not looked at again. */
    std::optional<std::string> expand(std::string_view line, std::string& missing) const;

    /* What the plan has: how many lines use each, and each test's names. Then what agents send of
     * those values is hidden: the present ones and, until the collector ends, the ones before. */
    using names_of_test = std::map<hidden_texts::test, std::vector<std::string>>;
    void note_uses(std::map<std::string, size_t, std::less<>> lines, names_of_test tests);
    const hidden_texts& hidden() const { return hidden_; }

private:
    struct value {
        value() = default;
        ~value(); /* wipes the text */
        value(const value&) = delete;
        value& operator=(const value&) = delete;

        std::string text = {}; /* "": it cannot be opened */
        entry shown = {};
        uint64_t serial = 0; /* of the store */
    };
    using values = std::map<std::string, value, std::less<>>;
    bool read(values& found, std::vector<std::string>& closed, std::string& error);
    void take(values& found);
    void hide();

    settings& kept_;
    const std::string directory_;
    std::mutex refreshing_; /* before mutex_ */
    mutable std::mutex mutex_;
    values values_;
    std::map<std::string, std::string, std::less<>> before_; /* what they were, or are no more */
    std::map<std::string, size_t, std::less<>> uses_;
    names_of_test tests_;
    hidden_texts hidden_;
    uint64_t newest_ = 0;
};

/* 1 to 4096 bytes of UTF-8 without control characters. */
bool is_secret_value(std::string_view value);
/* That, behind "has to be". */
std::string secret_value_rule();

#endif
