/* What people decided, beside what agents reported: at the moment the tokens with which the API is
 * asked. In a small file of its own, settings.db, so that it outlives a damaged results.db, and is
 * written also while results cannot be. Several processes may have it open: the collector, and
 * `vindral-collector token` beside it; each change is one transaction, and waits for another's.
 *
 * Nothing in it is a secret in clear: of tokens the SHA-256 is kept, of 256 random bits each, which
 * nobody can guess back. The file is readable by its owner only all the same.
 *
 * All times are seconds since the epoch. */
#ifndef VINDRAL_COLLECTOR_SETTINGS_H
#define VINDRAL_COLLECTOR_SETTINGS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

enum class token_kind : uint8_t {
    token = 1,   /* of a script or a person, until it is removed */
    session = 2, /* of a browser that signed in */
    link = 3     /* signs in once */
};

using token_hash = std::array<unsigned char, 32>;

struct stored_token {
    int64_t id = 0; /* given by add_token(); never twice */
    token_kind kind = token_kind::token;
    uint8_t role = 0; /* api/request.h */
    std::string name = {};
    token_hash hash = {};
    int64_t made = 0, ends = 0; /* 0: never */
    int64_t parent = 0;         /* the token that a session was begun with; 0: by a link */
};

/* One connection, any thread. The calls return false with one line in `error`. */
class settings {
public:
    using tell_function = std::function<void(const std::string&)>;

    virtual ~settings() = default;

    /* Null with one line in `error`. Made when it is missing. A file that is damaged is set aside
     * (settings.db.damaged-...), and a new one begun; `note` says so. What turns out to be damaged
     * later is set aside by the next call, and `tell` told, on that call's thread, without a lock.
     * Root may open what is somebody else's, who may have put anything there: what is no file, or
     * has a second name, is refused and left as it is. */
    static std::unique_ptr<settings> open(const std::string& directory, std::string& note,
                                          std::string& error, tell_function tell = nullptr);

    /* False as well, with `error` empty, when there is a token of that name. Those that ended are
     * dropped on the way. */
    virtual bool add_token(const stored_token& what, int64_t& id, std::string& error) = 0;
    /* And the sessions begun with it. False, `error` empty, when there is none. */
    virtual bool drop_token(int64_t id, std::string& error) = 0;
    virtual bool for_each_token(const std::function<void(const stored_token&)>& each,
                                std::string& error) = 0;
    /* The one with that hash that has not ended; a link is dropped with it, in the same
     * transaction, so that it opens once. */
    virtual bool find_token(const token_hash& hash, int64_t now, std::optional<stored_token>& found,
                            std::string& error) = 0;
    /* Whether somebody, this process too, has changed something since the last call. Cheap. */
    virtual bool has_changed() = 0;
};

#endif
