/* The whole store as one file, and back.
 *
 * A copy is made page by page within one transaction, so it is one state whatever is written
 * meanwhile; the collector's log cannot be emptied until it is done. It is written under a name of
 * its own beside the one it is for, synced, and gets that name when it is whole. In the copy no log
 * belongs to the file, so that it can be moved about and read anywhere. */
#include "base/files.h"
#include "base/text.h"
#include "store/engine.h"
#include "store/sqlite/check.h"
#include "store/sqlite/earlier.h"
#include "store/sqlite/layout.h"
#include "store/sqlite/sqlite_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

/* Of one step: little enough for a sign of life every now and then. */
constexpr int pages_a_step = 1024;

bool is_there(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

std::string directory_of(const std::string& path) {
    std::string parent = fs::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

/* As a log or an earlier file of the store a copy would be taken for part of it, and be lost. */
bool is_name_of_store(const std::string& directory, const std::string& file) {
    std::error_code failed;
    return fs::path(file).filename().string().starts_with("results") &&
           fs::equivalent(directory_of(file), directory, failed);
}

/* A new file beside `path`, its owner's alone, that goes with the object unless it got a name. */
class unnamed_copy {
public:
    explicit unnamed_copy(const std::string& path) : path_(path), now_(path + ".XXXXXX") {
        unique_fd file(mkostemp(now_.data(), O_CLOEXEC));
        made_ = static_cast<bool>(file);
    }
    ~unnamed_copy() {
        if (made_) {
            for (const char* end : {"", "-journal", "-wal", "-shm"}) {
                unlink((now_ + end).c_str());
            }
        }
    }
    unnamed_copy(const unnamed_copy&) = delete;
    unnamed_copy& operator=(const unnamed_copy&) = delete;

    bool is_made() const { return made_; }
    const std::string& path() const { return now_; }
    /* What it is for, as a reason for what failed names it. */
    const std::string& name() const { return path_; }

    bool sync() const {
        unique_fd file(open(now_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        return file && fsync(file.get()) == 0;
    }
    /* What of that name is there already is kept or replaced. */
    bool name_it(bool replace) {
        if (replace ? rename(now_.c_str(), path_.c_str()) != 0 : !name_if_free()) {
            return false;
        }
        made_ = false;
        if (sync_directory(directory_of(path_))) {
            return true;
        }
        int why = errno;
        if (!replace) {
            unlink(path_.c_str());
        }
        errno = why;
        return false;
    }

private:
    bool name_if_free() const {
        if (renameat2(AT_FDCWD, now_.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0) {
            return true;
        }
        if (errno != EINVAL || is_there(path_)) { /* EINVAL: a file system that does not know how */
            return false;
        }
        return rename(now_.c_str(), path_.c_str()) == 0;
    }

    const std::string path_;
    std::string now_;
    bool made_ = false;
};

/* What is not there of a directory and of those above it. What was made of it, and the lock in it
 * that was taken, goes with the object unless it is of use. */
class new_directories {
public:
    explicit new_directories(const std::string& path) : lock_(path + "/lock") {
        for (fs::path p = path; !p.empty() && !is_there(p); p = p.parent_path()) {
            made_.push_back(p);
        }
    }
    ~new_directories() {
        if (is_taken_ && !made_.empty()) {
            unlink(lock_.c_str());
        }
        for (const std::string& path : made_) { /* unless there is something else in it */
            rmdir(path.c_str());
        }
    }
    new_directories(const new_directories&) = delete;
    new_directories& operator=(const new_directories&) = delete;

    void are_taken() { is_taken_ = true; }
    void keep() { made_.clear(); }

private:
    const std::string lock_;
    std::vector<std::string> made_;
    bool is_taken_ = false;
};

bool open_to_write(const std::string& path, database& db) {
    sqlite3* handle = nullptr;
    int result = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
    db.reset(handle);
    sqlite3_busy_timeout(handle, 2000);
    return result == SQLITE_OK;
}

/* Leaves nothing beside the file that belongs to it. Needs it for itself. */
bool leave_log(sqlite3* db) {
    statement leave(db, "PRAGMA journal_mode = DELETE");
    return leave.row() && leave.bytes(0) == "delete";
}

/* False with the reason. That somebody else is at one of the files ends it too, which SQLite does
 * not count as an error. */
bool copy_pages(sqlite3* from, sqlite3* to, const std::function<void(int)>& progress,
                std::string& reason) {
    sqlite3_backup* copy = sqlite3_backup_init(to, "main", from, "main");
    if (copy == nullptr) {
        reason = sqlite3_errmsg(to);
        return false;
    }
    int told = -1, result = SQLITE_OK;
    while ((result = sqlite3_backup_step(copy, pages_a_step)) == SQLITE_OK) {
        int all = std::max(sqlite3_backup_pagecount(copy), 1);
        int done = static_cast<int>(int64_t{100} * (all - sqlite3_backup_remaining(copy)) / all);
        if (done > told && progress) {
            progress(done);
            told = done;
        }
    }
    const int ended = sqlite3_backup_finish(copy);
    result = result == SQLITE_DONE && ended != SQLITE_OK ? ended : result;
    reason = result == SQLITE_DONE ? "" : sqlite3_errstr(result);
    return result == SQLITE_DONE;
}

/* Into a new file, on disk. `from` is in a transaction. */
bool copy_into(sqlite3* from, const unnamed_copy& to, const std::function<void(int)>& progress,
               std::string& error) {
    if (!to.is_made()) {
        error = system_error(to.name());
        return false;
    }
    for (bool copied : {false, true}) {
        database db;
        /* Nobody else sees it before all of it is synced. */
        std::string reason;
        bool ok = open_to_write(to.path(), db) &&
                  database_exec(db.get(), "PRAGMA synchronous = OFF") &&
                  (copied ? leave_log(db.get())
                          : database_exec(db.get(), "PRAGMA journal_mode = OFF") &&
                                copy_pages(from, db.get(), progress, reason));
        if (!ok) {
            error = to.name() + ": " + (reason.empty() ? sqlite3_errmsg(db.get()) : reason);
            return false;
        }
    }
    if (!to.sync()) {
        error = system_error(to.name());
        return false;
    }
    return true;
}

/* Whether it waits for what an earlier version stored: a copy would not have that. */
bool is_being_taken_over(sqlite3* db) {
    return database_fact(db, "earlier") == 1;
}

/* What there is to lose in a state directory. */
bool has_something(const std::string& directory) {
    std::error_code failed;
    std::string path = database_path(directory);
    if (!is_there(path) || fs::file_size(path, failed) == 0) {
        return false;
    }
    database db;
    database_layout layout{};
    std::string ignored;
    if (!database_open_reading(directory, db, ignored, &layout)) {
        return true;
    }
    statement agents(db.get(), "SELECT 1 FROM agents LIMIT 1");
    statement fleet(db.get(), "SELECT 1 FROM fleet_revisions LIMIT 1");
    return agents.step() != SQLITE_DONE ||
           (layout == database_layout::current && fleet.step() != SQLITE_DONE);
}

/* Of what is there, as far as it can be read. */
int64_t times_restored(const std::string& directory) {
    database db;
    database_layout layout{};
    std::string ignored;
    return is_there(database_path(directory)) &&
                   database_open_reading(directory, db, ignored, &layout)
               ? database_fact(db.get(), restored_fact).value_or(0)
               : 0;
}

/* Says in the copy that it was restored once more than that, and has it on disk. */
bool note_restored(const unnamed_copy& copy, int64_t before, std::string& error) {
    database db;
    if (!open_to_write(copy.path(), db) || !database_exec(db.get(), "PRAGMA synchronous = OFF") ||
        !database_set_fact(db.get(), restored_fact, before + 1)) {
        error = copy.name() + ": " + sqlite3_errmsg(db.get());
        return false;
    }
    db.reset();
    if (!copy.sync()) {
        error = system_error(copy.name());
        return false;
    }
    return true;
}

/* That of the directory, where somebody who may makes files for the collector's user. */
bool give_to_owner(const std::string& directory, const std::string& path) {
    struct stat owner;
    return geteuid() != 0 || (stat(directory.c_str(), &owner) == 0 &&
                              chown(path.c_str(), owner.st_uid, owner.st_gid) == 0);
}

/* "results-replaced-TIME.db" that is free. */
std::string name_for_replaced(const std::string& directory) {
    std::string stamp = utc_time(time(nullptr));
    std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
    std::string stem = directory + "/results-replaced-" + stamp, name = stem + ".db";
    for (int more = 2; is_there(name); more++) {
        name = stem + "-" + std::to_string(more) + ".db";
    }
    return name;
}

/* Gives what is stored a second name, by which it stays when the copy takes the first. What is
 * damaged or no database is moved away as it is, with its log: then there is a moment without. */
bool keep_old(const std::string& directory, bool keep, std::string& kept_as, std::string& error) {
    std::string path = database_path(directory);
    if (!is_there(path)) {
        return true;
    }
    kept_as = keep ? name_for_replaced(directory) : "";
    bool left = false;
    {
        database db;
        left = open_to_write(path, db) && leave_log(db.get());
        int why = sqlite3_errcode(db.get()) & 0xff;
        if (!left && (why == SQLITE_BUSY || why == SQLITE_LOCKED)) {
            error = path + ": somebody reads it";
            return false;
        }
    }
    if (left) {
        if (keep && link(path.c_str(), kept_as.c_str()) != 0) {
            error = system_error(path + " cannot be kept as " + kept_as);
            return false;
        }
        return true;
    }
    kept_as = kept_as.empty() ? name_for_replaced(directory) : kept_as;
    for (const char* end : {"-wal", "-shm", ""}) {
        std::string from = path + end, to = kept_as + end;
        if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
            error = system_error(from);
            return false;
        }
    }
    return true;
}

} // namespace

bool back_up(const std::string& directory, const std::string& file,
             const std::function<void(int)>& progress, std::string& error) {
    if (is_there(file)) {
        error = file + " is there already";
        return false;
    }
    if (is_name_of_store(directory, file)) {
        error = file + ": names that begin so are the store's own, take another";
        return false;
    }
    database from;
    database_layout layout{};
    if (!database_open_reading(directory, from, error, &layout)) {
        return false;
    }
    if (is_being_taken_over(from.get())) {
        error = "what an earlier version stored in " + directory +
                " is still being taken over: try again when the collector has done that";
        return false;
    }
    unnamed_copy copy(file);
    if (!copy_into(from.get(), copy, progress, error)) {
        return false;
    }
    if (!copy.name_it(false)) {
        error = system_error(file);
        return false;
    }
    return true;
}

bool restore_from(const std::string& directory, const std::string& file, bool replace,
                  const std::function<void(int)>& progress, std::string& kept_as,
                  std::string& error) {
    kept_as.clear();
    database from;
    database_layout layout{};
    if (!database_open_file(file, from, error, &layout)) {
        return false;
    }
    if (is_being_taken_over(from.get())) {
        error = file + " lacks what an earlier version had stored and was being taken over";
        return false;
    }
    size_t damages = 0;
    check_database(
        from.get(), layout,
        [&](const std::string& what) { error = damages++ == 0 ? file + ": " + what : error; }, {});
    if (damages > 0) {
        error += damages > 1 ? ", and " + std::to_string(damages - 1) + " more" : "";
        return false;
    }
    const engine_options options = {.directory = directory, .keep_days = 0, .tell = {}};
    sqlite_file place(options);
    new_directories fresh(directory); /* gone before the lock is given up */
    if (!place.take_directory(error)) {
        return false;
    }
    fresh.are_taken();
    if (earlier_is_there(directory)) {
        error = earlier_path(directory) +
                " has not been taken over: start the collector once, or move it away";
        return false;
    }
    bool something = has_something(directory);
    if (something && !replace) {
        error = database_path(directory) + " has results already: they are not replaced unasked; "
                                           "--replace does it and keeps them beside the copy";
        return false;
    }
    unnamed_copy copy(database_path(directory));
    const int64_t before =
        std::max(times_restored(directory), database_fact(from.get(), restored_fact).value_or(0));
    if (!copy_into(from.get(), copy, progress, error) || !note_restored(copy, before, error)) {
        return false;
    }
    if (!give_to_owner(directory, copy.path()) || !give_to_owner(directory, directory + "/lock")) {
        error = system_error(directory);
        return false;
    }
    if (!keep_old(directory, something, kept_as, error)) {
        return false;
    }
    if (!copy.name_it(true)) {
        error = system_error(database_path(directory));
        if (!kept_as.empty() && is_there(database_path(directory))) {
            unlink(kept_as.c_str()); /* a second name of what stays */
        }
        return false;
    }
    fresh.keep();
    return true;
}
