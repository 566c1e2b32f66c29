#include "store/settings.h"

#include "base/files.h"
#include "base/text.h"
#include "store/sqlite/database.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <mutex>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int64_t application = 0x76736574; /* "vset" */
constexpr int64_t layout = 1;
constexpr int lock_wait_ms = 5000;  /* for another process's change */
constexpr int most_sessions = 1000; /* of a token, or by links */

const char tables[] = "CREATE TABLE tokens("
                      "  id INTEGER PRIMARY KEY AUTOINCREMENT," /* never twice */
                      "  kind INTEGER NOT NULL, role INTEGER NOT NULL, name TEXT NOT NULL,"
                      "  hash BLOB NOT NULL UNIQUE, made INTEGER NOT NULL, ends INTEGER NOT NULL,"
                      "  parent INTEGER NOT NULL) STRICT;"
                      "CREATE UNIQUE INDEX tokens_by_name ON tokens(name) WHERE kind = 1;";

const char columns[] = "SELECT id, kind, role, name, hash, made, ends, parent FROM tokens ";

std::string_view bytes_of(const token_hash& hash) {
    return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

/* False for what add_token() has not written. */
bool read_row(const statement& row, stored_token& out) {
    std::string_view hash = row.bytes(4);
    int64_t kind = row.integer(1), role = row.integer(2);
    if (kind < 1 || kind > 3 || role < 0 || role > 255 || hash.size() != out.hash.size()) {
        return false;
    }
    out.id = row.integer(0);
    out.kind = static_cast<token_kind>(kind);
    out.role = static_cast<uint8_t>(role);
    out.name = row.bytes(3);
    std::copy(hash.begin(), hash.end(), out.hash.begin());
    out.made = row.integer(5);
    out.ends = row.integer(6);
    out.parent = row.integer(7);
    return true;
}

class sqlite_settings : public settings {
public:
    sqlite_settings(const std::string& directory, tell_function tell)
        : directory_(directory), path_(directory + "/settings.db"), tell_(std::move(tell)) {}

    bool open(std::string& note, std::string& error);

    bool add_token(const stored_token& what, int64_t& id, std::string& error) override;
    bool drop_token(int64_t id, std::string& error) override;
    bool for_each_token(const std::function<void(const stored_token&)>& each,
                        std::string& error) override;
    bool find_token(const token_hash& hash, int64_t now, std::optional<stored_token>& found,
                    std::string& error) override;
    bool has_changed() override;

private:
    enum class state { good, damaged, unusable };
    struct file_id {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const file_id& other) const {
            return device == other.device && inode == other.inode;
        }
    };

    /* The turn of one call: what it has to tell is told behind it. */
    class turn {
    public:
        explicit turn(sqlite_settings& of) : of_(of), lock_(of.mutex_) {}
        ~turn() {
            std::string note = std::exchange(of_.untold_, "");
            lock_.unlock();
            try {
                if (!note.empty() && of_.tell_) {
                    of_.tell_(note);
                }
            } catch (const std::exception&) { /* no memory to say so */
            }
        }
        turn(const turn&) = delete;
        turn& operator=(const turn&) = delete;

    private:
        sqlite_settings& of_;
        std::unique_lock<std::mutex> lock_;
    };

    bool make_file(std::string& error);
    state open_file(std::string& error);
    state look_at(std::string& error);
    bool set_aside(std::string& note, std::string& error);
    bool ready(std::string& error);
    bool fail(std::string& error);
    bool run(const std::string& sql) { return database_exec(db_.get(), sql); }
    std::optional<int64_t> number(const char* sql);
    template <typename Work>
    bool change(const Work& work, std::string& error);
    file_id on_disk() const;

    const std::string directory_, path_;
    const tell_function tell_;
    std::mutex mutex_;
    std::string untold_; /* a line for `tell` */
    database db_;
    file_id file_;
    int64_t version_ = -1; /* of the data, as SQLite counts the changes of others */
    bool changed_ = true;  /* by this process, or a file that took the place */
};

sqlite_settings::file_id sqlite_settings::on_disk() const {
    struct stat status;
    return lstat(path_.c_str(), &status) == 0 ? file_id{status.st_dev, status.st_ino} : file_id{};
}

std::optional<int64_t> sqlite_settings::number(const char* sql) {
    statement query(db_.get(), sql);
    return query.row() ? std::optional(query.integer(0)) : std::nullopt;
}

/* Closes a file that makes no sense any more: the next call looks at it anew. */
bool sqlite_settings::fail(std::string& error) {
    int result = sqlite3_extended_errcode(db_.get());
    error = path_ + ": " + sqlite3_errmsg(db_.get());
    run("ROLLBACK");
    if (database_is_damaged(result) && (result & 0xff) != SQLITE_CONSTRAINT) {
        db_.reset();
    }
    return false;
}

sqlite_settings::state sqlite_settings::look_at(std::string& error) {
    run("PRAGMA synchronous = FULL; PRAGMA secure_delete = ON; PRAGMA trusted_schema = OFF");
    std::optional<int64_t> made_by = number("PRAGMA application_id"),
                           version = number("PRAGMA user_version"),
                           is_empty = number("SELECT count(*) = 0 FROM sqlite_schema");
    if (!made_by || !version || !is_empty) {
        return fail(error), db_ ? state::unusable : state::damaged;
    }
    if (*is_empty == 1) {
        bool made =
            run("BEGIN IMMEDIATE") &&
            /* somebody else may have made them meanwhile */
            (number("SELECT count(*) FROM sqlite_schema").value_or(0) > 0 ||
             (run(tables) && run("PRAGMA application_id = " + std::to_string(application)) &&
              run("PRAGMA user_version = " + std::to_string(layout)))) &&
            run("COMMIT");
        if (!made) {
            return fail(error), db_ ? state::unusable : state::damaged;
        }
        sync_directory(directory_);
        return state::good;
    }
    if (*made_by != application) {
        error = path_ + ": not a file of this program";
        return state::damaged;
    }
    if (*version != layout) {
        error = path_ + ": made by another version of this program (layout " +
                std::to_string(*version) + ")";
        return state::unusable;
    }
    statement check(db_.get(), "PRAGMA quick_check(1)");
    int result = check.step();
    if (result == SQLITE_ROW && check.bytes(0) == "ok") {
        return state::good;
    }
    error = path_ + ": " +
            (result == SQLITE_ROW ? std::string(check.bytes(0)) : sqlite3_errmsg(db_.get()));
    return result == SQLITE_ROW || database_is_damaged(result) ? state::damaged : state::unusable;
}

/* Makes it, for the mode, and gives it to whom the directory belongs: root may make a token for a
 * collector that is somebody else. That somebody may have put a link to another's file there, or
 * what hangs or does something when it is opened. Closed before SQLite opens it: closing a
 * descriptor gives up the process's locks on its file. */
bool sqlite_settings::make_file(std::string& error) {
    struct stat status;
    for (const char* beside : {"", "-journal", "-wal", "-shm"}) {
        const std::string name = path_ + beside;
        if (lstat(name.c_str(), &status) != 0) {
            if (errno != ENOENT) {
                error = system_error(name);
                return false;
            }
        } else if (!S_ISREG(status.st_mode) || status.st_nlink > 1) {
            error = name + (S_ISREG(status.st_mode) ? ": has another name too" : ": not a file");
            return false;
        }
    }
    unique_fd file(::open(path_.c_str(),
                          O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    if (!file || fstat(file.get(), &status) != 0) {
        error = system_error(path_);
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) { /* it took the place meanwhile */
        error = path_ + ": not a file of its own";
        return false;
    }
    struct stat home;
    const bool is_anothers = geteuid() == 0 && stat(directory_.c_str(), &home) == 0 &&
                             (home.st_uid != status.st_uid || home.st_gid != status.st_gid);
    if (fchmod(file.get(), 0600) != 0 ||
        (is_anothers && fchown(file.get(), home.st_uid, home.st_gid) != 0)) {
        error = system_error(path_);
        return false;
    }
    file_ = {status.st_dev, status.st_ino};
    return true;
}

sqlite_settings::state sqlite_settings::open_file(std::string& error) {
    db_.reset();
    if (!make_file(error)) {
        return state::unusable;
    }
    sqlite3* handle = nullptr;
    int result = sqlite3_open_v2(path_.c_str(), &handle,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(handle);
    if (result != SQLITE_OK) {
        error = path_ + ": " + sqlite3_errstr(result);
        db_.reset();
        return state::unusable;
    }
    if (!(on_disk() == file_)) { /* SQLite follows links */
        error = path_ + ": replaced while it was opened";
        db_.reset();
        return state::unusable;
    }
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, lock_wait_ms);
    version_ = -1;
    changed_ = true;
    state found = look_at(error);
    if (found != state::good) {
        db_.reset();
    }
    return found;
}

bool sqlite_settings::set_aside(std::string& note, std::string& error) {
    std::string stamp = utc_time(time(nullptr));
    std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
    const std::string stem = path_ + ".damaged-" + stamp;
    std::string name = stem;
    struct stat status;
    for (int more = 2; lstat(name.c_str(), &status) == 0; more++) {
        name = stem + "-" + std::to_string(more);
    }
    /* Its journal first: beside another file it would do harm. */
    for (const char* end : {"-journal", ""}) {
        if (rename((path_ + end).c_str(), (name + end).c_str()) != 0 && errno != ENOENT) {
            error += "; " + system_error("it cannot be set aside as " + name + end);
            return false;
        }
    }
    sync_directory(directory_);
    note = path_ + " is damaged (" + error + "): it is kept as " + name +
           ", and a new one is begun; tokens have to be made anew";
    return true;
}

/* One process at a time: of two that find it damaged, the second would set aside the new one. */
bool sqlite_settings::open(std::string& note, std::string& error) {
    unique_fd lock(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || flock(lock.get(), LOCK_EX) != 0) {
        error = system_error(directory_);
        return false;
    }
    state found = open_file(error);
    if (found == state::damaged && set_aside(note, error)) {
        found = open_file(error);
    }
    if (found == state::good) {
        error.clear();
    }
    return found == state::good;
}

/* The file may have been removed or replaced, or turned out to be damaged in the call before. */
bool sqlite_settings::ready(std::string& error) {
    error.clear();
    if (db_ && on_disk() == file_) {
        return true;
    }
    return open(untold_, error);
}

template <typename Work>
bool sqlite_settings::change(const Work& work, std::string& error) {
    if (!run("BEGIN IMMEDIATE")) {
        return fail(error);
    }
    bool wanted = false;
    if (!work(wanted)) {
        return fail(error);
    }
    if (!wanted) {
        run("ROLLBACK");
        return false;
    }
    if (!run("COMMIT")) {
        return fail(error);
    }
    changed_ = true;
    return true;
}

bool sqlite_settings::add_token(const stored_token& what, int64_t& id, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto add = [&](bool& wanted) {
        statement ended(db_.get(), "DELETE FROM tokens WHERE ends > 0 AND ends <= ?");
        if (!ended.bind(what.made).run()) {
            return false;
        }
        if (what.kind == token_kind::token) {
            statement same(db_.get(), "SELECT count(*) FROM tokens WHERE kind = 1 AND name = ?");
            if (!same.bind_text(what.name).row()) {
                return false;
            }
            if (same.integer(0) > 0) {
                return true;
            }
        } else {
            statement oldest(db_.get(),
                             "DELETE FROM tokens WHERE id IN (SELECT id FROM tokens WHERE kind = ?"
                             "  AND parent = ? ORDER BY id DESC LIMIT -1 OFFSET ?)");
            oldest.bind(int64_t(what.kind)).bind(what.parent);
            if (!oldest.bind(int64_t{most_sessions - 1}).run()) {
                return false;
            }
        }
        if (what.kind == token_kind::session && what.parent != 0) {
            /* It may have been removed since it was looked at. */
            statement parent(db_.get(), "SELECT count(*) FROM tokens WHERE id = ?");
            if (!parent.bind(what.parent).row()) {
                return false;
            }
            if (parent.integer(0) == 0) {
                return true;
            }
        }
        statement insert(db_.get(), "INSERT INTO tokens(kind, role, name, hash, made, ends, parent)"
                                    " VALUES (?, ?, ?, ?, ?, ?, ?)");
        wanted = insert.bind(int64_t(what.kind))
                     .bind(int64_t{what.role})
                     .bind_text(what.name)
                     .bind_blob(bytes_of(what.hash))
                     .bind(what.made)
                     .bind(what.ends)
                     .bind(what.parent)
                     .run();
        id = sqlite3_last_insert_rowid(db_.get());
        return wanted;
    };
    return change(add, error);
}

bool sqlite_settings::drop_token(int64_t id, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto drop = [&](bool& wanted) {
        statement gone(db_.get(), "DELETE FROM tokens WHERE id = ?");
        if (!gone.bind(id).run()) {
            return false;
        }
        wanted = sqlite3_changes(db_.get()) > 0;
        statement sessions(db_.get(), "DELETE FROM tokens WHERE parent = ?");
        return sessions.bind(id).run();
    };
    return change(drop, error);
}

bool sqlite_settings::for_each_token(const std::function<void(const stored_token&)>& each,
                                     std::string& error) {
    std::vector<stored_token> all; /* so that `each` may ask for more */
    {
        const turn mine(*this);
        if (!ready(error)) {
            return false;
        }
        statement rows(db_.get(), std::string(columns) + "ORDER BY id");
        int result;
        while ((result = rows.step()) == SQLITE_ROW) {
            stored_token row;
            if (read_row(rows, row)) {
                all.push_back(std::move(row));
            }
        }
        if (result != SQLITE_DONE) {
            rows = statement();
            return fail(error);
        }
    }
    std::for_each(all.begin(), all.end(), each);
    return true;
}

bool sqlite_settings::find_token(const token_hash& hash, int64_t now,
                                 std::optional<stored_token>& found, std::string& error) {
    const turn mine(*this);
    found.reset();
    if (!ready(error)) {
        return false;
    }
    stored_token row;
    {
        statement one(db_.get(), std::string(columns) + "WHERE hash = ?");
        one.bind_blob(bytes_of(hash));
        int result = one.step();
        if (result == SQLITE_DONE) {
            return true;
        }
        if (result != SQLITE_ROW) {
            one = statement();
            return fail(error);
        }
        if (!read_row(one, row) || (row.ends > 0 && row.ends <= now)) {
            return true;
        }
    }
    if (row.kind == token_kind::link) {
        auto use = [&](bool& wanted) {
            statement gone(db_.get(), "DELETE FROM tokens WHERE id = ?");
            bool done = gone.bind(row.id).run();
            wanted = done && sqlite3_changes(db_.get()) > 0; /* not when another was quicker */
            return done;
        };
        if (!change(use, error)) {
            return error.empty();
        }
    }
    found = std::move(row);
    return true;
}

bool sqlite_settings::has_changed() {
    const turn mine(*this);
    std::string error;
    if (!ready(error)) {
        return true;
    }
    int64_t version = number("PRAGMA data_version").value_or(-1);
    bool changed = changed_ || version != version_ || version == -1;
    version_ = version;
    changed_ = false;
    return changed;
}

} // namespace

std::unique_ptr<settings> settings::open(const std::string& directory, std::string& note,
                                         std::string& error, tell_function tell) {
    if (!make_private_directory(directory)) {
        error = system_error("cannot use the state directory " + directory);
        return nullptr;
    }
    auto made = std::make_unique<sqlite_settings>(directory, std::move(tell));
    if (!made->open(note, error)) {
        return nullptr;
    }
    return made;
}
