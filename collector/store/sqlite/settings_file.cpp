#include "store/sqlite/settings_file.h"

#include "base/files.h"
#include "base/text.h"

#include <cerrno>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr int64_t application = 0x76736574; /* "vset" */
constexpr int64_t layout = 3, first_layout = 1;
constexpr int lock_wait_ms = 5000; /* for another process's change */

/* Layout 1 has these alone. */
const char tables[] = "CREATE TABLE tokens("
                      "  id INTEGER PRIMARY KEY AUTOINCREMENT," /* never twice */
                      "  kind INTEGER NOT NULL, role INTEGER NOT NULL, name TEXT NOT NULL,"
                      "  hash BLOB NOT NULL UNIQUE, made INTEGER NOT NULL, ends INTEGER NOT NULL,"
                      "  parent INTEGER NOT NULL) STRICT;"
                      "CREATE UNIQUE INDEX tokens_by_name ON tokens(name) WHERE kind = 1;";

const char tables_since_2[] =
    "CREATE TABLE facts(name TEXT PRIMARY KEY, value INTEGER NOT NULL) STRICT, WITHOUT ROWID;"
    "CREATE TABLE identities("
    "  account TEXT NOT NULL, agent TEXT NOT NULL, admitted INTEGER NOT NULL, who TEXT NOT NULL,"
    "  highest INTEGER NOT NULL, good_from INTEGER NOT NULL, revoked INTEGER NOT NULL,"
    "  key_hash BLOB NOT NULL, authority BLOB NOT NULL, issued INTEGER NOT NULL,"
    "  ends INTEGER NOT NULL, knows BLOB NOT NULL,"
    "  PRIMARY KEY(account, agent)) STRICT, WITHOUT ROWID;"
    "CREATE TABLE enrolments("
    "  hash BLOB PRIMARY KEY, account TEXT NOT NULL, agent TEXT NOT NULL, who TEXT NOT NULL,"
    "  made INTEGER NOT NULL, ends INTEGER NOT NULL, key_hash BLOB, generation INTEGER NOT NULL)"
    "  STRICT, WITHOUT ROWID;"
    "CREATE TABLE secrets("
    "  name TEXT PRIMARY KEY, sealed BLOB NOT NULL, who TEXT NOT NULL, made INTEGER NOT NULL,"
    "  serial INTEGER NOT NULL) STRICT, WITHOUT ROWID;";

/* One row, 1. */
const char tables_since_3[] =
    "CREATE TABLE fleet("
    "  id INTEGER PRIMARY KEY, newest INTEGER NOT NULL, revision INTEGER NOT NULL,"
    "  time INTEGER NOT NULL, author TEXT NOT NULL, text TEXT NOT NULL) STRICT;";

const char what_to_do[] =
    "tokens have to be made anew, agents admitted and revoked again, secrets set again";

} // namespace

settings_file::settings_file(const std::string& directory, settings::tell_function tell)
    : directory_(directory), path_(directory + "/settings.db"), tell_(std::move(tell)) {}

settings_file::turn::~turn() {
    std::string note = std::exchange(of_.untold_, "");
    lock_.unlock();
    try {
        if (!note.empty() && of_.tell_) {
            of_.tell_(note);
        }
    } catch (const std::exception&) { /* no memory to say so */
    }
}

settings_file::file_id settings_file::on_disk() const {
    struct stat status;
    return lstat(path_.c_str(), &status) == 0 ? file_id{status.st_dev, status.st_ino} : file_id{};
}

std::optional<int64_t> settings_file::number(const char* sql) {
    statement query(db_.get(), sql);
    return query.row() ? std::optional(query.integer(0)) : std::nullopt;
}

/* Closes a file that makes no sense any more: the next call looks at it anew. */
bool settings_file::fail(std::string& error) {
    int result = sqlite3_extended_errcode(db_.get());
    error = path_ + ": " + sqlite3_errmsg(db_.get());
    run("ROLLBACK");
    if (database_is_damaged(result) && (result & 0xff) != SQLITE_CONSTRAINT) {
        db_.reset();
    }
    return false;
}

/* Somebody else may have done it meanwhile: each looks again. */
bool settings_file::make_tables() {
    return run("BEGIN IMMEDIATE") &&
           (number("SELECT count(*) FROM sqlite_schema").value_or(0) > 0 ||
            (run(tables) && run(tables_since_2) && run(tables_since_3) &&
             (!(is_beside_damaged() || is_beside_authority()) ||
              database_set_fact(db(), admitted_at_first, 1)) &&
             run("PRAGMA application_id = " + std::to_string(application)) &&
             run("PRAGMA user_version = " + std::to_string(layout)))) &&
           run("COMMIT");
}

bool settings_file::take_over() {
    if (!run("BEGIN IMMEDIATE")) {
        return false;
    }
    const std::optional<int64_t> from = number("PRAGMA user_version");
    return from &&
           (from == layout || ((*from >= 2 || run(tables_since_2)) && run(tables_since_3) &&
                               run("PRAGMA user_version = " + std::to_string(layout)))) &&
           run("COMMIT");
}

/* Then this one takes the place of a damaged one, also when that was set aside by a process that
 * came no further. */
bool settings_file::is_beside_damaged() const {
    std::error_code ignored;
    for (std::filesystem::directory_iterator at(directory_, ignored), end; at != end;
         at.increment(ignored)) {
        if (at->path().filename().string().starts_with("settings.db.damaged-")) {
            return true;
        }
    }
    return false;
}

/* Then there was one: the authority that signs agents' certificates is made behind this file. */
bool settings_file::is_beside_authority() const {
    struct stat status;
    return lstat((directory_ + "/agents-ca.pem").c_str(), &status) == 0 ||
           lstat((directory_ + "/agents-ca-key.pem").c_str(), &status) == 0;
}

settings_file::state settings_file::look_at(std::string& error) {
    run("PRAGMA synchronous = FULL; PRAGMA secure_delete = ON; PRAGMA trusted_schema = OFF");
    std::optional<int64_t> made_by = number("PRAGMA application_id"),
                           version = number("PRAGMA user_version"),
                           is_empty = number("SELECT count(*) = 0 FROM sqlite_schema");
    if (!made_by || !version || !is_empty) {
        return fail(error), db_ ? state::unusable : state::damaged;
    }
    if (*is_empty == 1) {
        bool made = make_tables();
        if (!made) {
            return fail(error), db_ ? state::unusable : state::damaged;
        }
        sync_directory(directory_);
        is_begun_ = true;
        return state::good;
    }
    if (*made_by != application) {
        error = path_ + ": not a file of this program";
        return state::damaged;
    }
    if (*version < first_layout || *version > layout) {
        error = path_ + ": made by another version of this program (layout " +
                std::to_string(*version) + ")";
        return state::unusable;
    }
    statement check(db_.get(), "PRAGMA quick_check(1)");
    int result = check.step();
    if (result == SQLITE_ROW && check.bytes(0) == "ok") {
        check = statement();
        if (*version != layout && !take_over()) {
            return fail(error), db_ ? state::unusable : state::damaged;
        }
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
bool settings_file::make_file(std::string& error) {
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

settings_file::state settings_file::open_file(std::string& error) {
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
    data_version_ = -1;
    state found = look_at(error);
    if (found != state::good) {
        db_.reset();
    }
    return found;
}

bool settings_file::set_aside(std::string& note, std::string& error) {
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
           ", and a new one is begun; " + what_to_do;
    return true;
}

/* One process at a time: of two that find it damaged, the second would set aside the new one. */
bool settings_file::open(std::string& note, std::string& error) {
    unique_fd lock(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || flock(lock.get(), LOCK_EX) != 0) {
        error = system_error(directory_);
        return false;
    }
    is_begun_ = false;
    state found = open_file(error);
    if (found == state::damaged && set_aside(note, error)) {
        found = open_file(error);
    } else if (is_begun_ && is_beside_authority()) {
        note = path_ +
               " is gone, and who was admitted and revoked is forgotten (agents-ca.pem is still "
               "there): a new one is begun, and nobody is admitted; " +
               what_to_do;
    }
    if (found == state::good) {
        error.clear();
    }
    return found == state::good;
}

/* The file may have been removed or replaced, or turned out to be damaged in the call before. */
bool settings_file::ready(std::string& error) {
    error.clear();
    if (db_ && on_disk() == file_) {
        return true;
    }
    return open(untold_, error);
}

bool settings_file::change(const std::function<bool(bool& wanted)>& work, std::string& error,
                           bool quietly) {
    if (!run("BEGIN IMMEDIATE")) {
        return fail(error);
    }
    struct roll_back { /* what throws leaves nothing half-done either */
        settings_file& of;
        ~roll_back() {
            if (of.db_ && sqlite3_get_autocommit(of.db_.get()) == 0) {
                of.run("ROLLBACK");
            }
        }
    } const unless_committed{*this};
    bool wanted = false;
    if (!work(wanted)) {
        return fail(error);
    }
    if (!wanted) {
        return false;
    }
    if (!run("COMMIT")) {
        return fail(error);
    }
    changes_ += quietly ? 0 : 1;
    return true;
}

uint64_t settings_file::version() {
    const turn mine(*this);
    std::string error;
    int64_t now = ready(error) ? number("PRAGMA data_version").value_or(-1) : -1;
    if (now != data_version_ || now == -1) {
        changes_++;
    }
    data_version_ = now;
    return changes_;
}
