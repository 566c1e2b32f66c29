#include "store/sqlite/sqlite_file.h"

#include "base/text.h"
#include "store/sqlite/earlier.h"
#include "store/sqlite/layout.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

int64_t system_seconds() {
    return time(nullptr);
}
int64_t (*wall_clock)() = system_seconds; /* a test pins it */

const size_t max_set_aside = 5; /* damaged files in the directory */
int lock_wait_ms = 2000;        /* for the database's lock, when somebody else holds it */

const char damaged_stem[] = "/results-damaged-";

constexpr size_t hash_bytes = 32; /* what agents.last_block holds of a block that is whole */

/* 0 when there is none. */
ino_t inode_of(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* Of a file that was opened without following a link to elsewhere. */
std::string open_error(const std::string& path) {
    return errno == ELOOP ? path + ": it is a symbolic link" : system_error(path);
}

/* Held by the process that uses the directory. */
unique_fd lock_directory(const std::string& directory, std::string& error) {
    std::string path = directory + "/lock";
    unique_fd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) {
        error = open_error(path);
        return lock;
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? "another collector uses the state directory " + directory
                                     : system_error(path);
        return unique_fd();
    }
    return lock;
}

/* Debian's SQLite overwrites what is deleted unless told not to: days are dropped, not shredded. */
const char settings[] = "PRAGMA secure_delete = OFF;"
                        "PRAGMA synchronous = FULL;"
                        "PRAGMA temp_store = MEMORY;"
                        "PRAGMA cache_size = -16384;"
                        "PRAGMA wal_autocheckpoint = 1000;"
                        "PRAGMA journal_size_limit = 67108864";

/* "-damaged-TIME.db" that no file in the directory has yet. */
std::string name_for_damaged(const std::string& directory) {
    std::string stamp = utc_time(wall_clock());
    std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
    std::string stem = directory + damaged_stem + stamp, name = stem + ".db";
    for (int more = 2; inode_of(name) != 0; more++) {
        name = stem + "-" + std::to_string(more) + ".db";
    }
    return name;
}

size_t count_damaged(const std::string& directory) {
    std::error_code failure;
    size_t there = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, failure)) {
        std::string other = entry.path().string();
        there += other.starts_with(directory + damaged_stem) && other.ends_with(".db");
    }
    return there;
}

} // namespace

bool sqlite_file::take_directory(std::string& error) {
    if (!make_private_directory(options_.directory)) {
        error = system_error("state directory " + options_.directory);
        return false;
    }
    lock_ = lock_directory(options_.directory, error);
    return static_cast<bool>(lock_);
}

/* A directory that was made anew has no lock: another collector could use it too. */
bool sqlite_file::lock_is_held(std::string& error) {
    struct stat held {};
    if (fstat(lock_.get(), &held) == 0 && held.st_ino == inode_of(options_.directory + "/lock")) {
        return true;
    }
    unique_fd lock = lock_directory(options_.directory, error);
    if (!lock) {
        return false;
    }
    lock_ = std::move(lock);
    return true;
}

bool sqlite_file::open_handle(std::string& error) {
    struct stat status;
    {
        /* Made here for the mode; SQLite gives its other files the mode of this one. Closed before
         * SQLite opens it, because closing a descriptor gives up the process's locks on its file.
         */
        unique_fd file(::open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file || fstat(file.get(), &status) != 0) {
            error = open_error(path());
            return false;
        }
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    sqlite3* handle = nullptr;
    int result = sqlite3_open_v2(path().c_str(), &handle,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(handle);
    if (result != SQLITE_OK) {
        error = path() + ": " + sqlite3_errstr(result);
        return false;
    }
    sqlite3_extended_result_codes(db_.get(), 1);
    sqlite3_busy_timeout(db_.get(), lock_wait_ms);
    return true;
}

bool sqlite_file::open(std::string& error) {
    failure_ = SQLITE_CANTOPEN;
    error.clear();
    if (!lock_is_held(error) || !open_handle(error)) {
        close();
        return false;
    }
    database_layout layout{};
    if (!open_layout(layout, error)) {
        if (db_) {
            refuse(error);
        }
        return false;
    }
    const bool empty = layout == database_layout::none;
    is_settled_ = false;
    bool ok = (!empty || database_exec(db_.get(), "PRAGMA page_size = 8192")) &&
              database_exec(db_.get(), "PRAGMA journal_mode = WAL") &&
              database_exec(db_.get(), settings) && (!empty || make(error)) &&
              (layout != database_layout::renewed || renew()) &&
              (settle() || sqlite3_errcode(db_.get()) == SQLITE_FULL);
    wal_inode_ = inode_of(path() + "-wal");
    if (!ok) {
        refuse(error);
        return false;
    }
    return true;
}

/* A commit whose sync failed may be read back from the log all the same, and its block would count
 * as a duplicate: what is in the log has to reach the disk before anything is answered. */
bool sqlite_file::settle() {
    if (!is_settled_ && database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)")) {
        is_settled_ = true;
        forget_earlier_that_is_done();
    }
    return is_settled_;
}

/* Whether what is there can be used. Without a file behind it, that is closed already. */
bool sqlite_file::open_layout(database_layout& found, std::string& error) {
    if (!database_check(db_.get(), found, error)) {
        return false;
    }
    if (found == database_layout::earlier) {
        if (!database_exec(db_.get(), settings)) {
            return false;
        }
        std::string reason;
        if (!rename_to_earlier(options_.directory, db_, reason)) {
            close();
            error = reason;
            return false;
        }
        generation_++;
        if (!open_handle(error)) {
            close();
            return false;
        }
        found = database_layout::none;
    }
    return true;
}

/* In one transaction: a file with tables and without the agents would not know their last blocks,
 * and one without the fact would leave what an earlier version stored behind. */
bool sqlite_file::make(std::string& error) {
    generation_++;
    bool from_earlier = earlier_is_there(options_.directory);
    if (from_earlier && carried_.agents.empty()) {
        database earlier;
        if (!open_earlier(options_.directory, earlier, error)) {
            return false; /* ids would be given twice */
        }
        carried_.read(earlier.get());
        carried_.read_pieces_and_facts(earlier.get());
    }
    bool ok = database_exec(db_.get(), "BEGIN IMMEDIATE") && database_make_tables(db_.get()) &&
              carried_.write(db_.get()) &&
              (from_earlier ? database_set_fact(db_.get(), "earlier", 1)
                            : database_set_fact(db_.get(), "keep_days", options_.keep_days)) &&
              database_exec(db_.get(), "COMMIT") && sync_directory(options_.directory);
    if (ok) {
        carried_ = {};
    }
    return ok;
}

/* A kill leaves it as it was, and the next start does it. */
bool sqlite_file::renew() {
    return database_exec(db_.get(), "BEGIN IMMEDIATE") && database_renew(db_.get()) &&
           database_exec(db_.get(), "COMMIT");
}

/* Its end was not waited for. */
void sqlite_file::forget_earlier_that_is_done() {
    if (database_fact(db_.get(), "earlier") == 0 && remove_earlier(options_.directory)) {
        database_exec(db_.get(), "DELETE FROM facts WHERE name = 'earlier'");
    }
}

void sqlite_file::refuse(std::string& error) {
    failure_ = sqlite3_errcode(db_.get());
    error = path() + ": " + (error.empty() ? sqlite3_errmsg(db_.get()) : error);
    close();
}

std::string sqlite_file::path() const {
    return database_path(options_.directory);
}

/* The log is there as long as the file is open: whoever else closes it finds it in use, and it is
 * emptied, never made anew. A file that is empty makes SQLite delete its log. */
sqlite_file::found sqlite_file::look() const {
    struct stat status;
    if (stat(path().c_str(), &status) != 0) {
        return found::removed;
    }
    if (status.st_dev != device_ || status.st_ino != inode_) {
        return found::replaced;
    }
    if (status.st_size == 0) {
        return found::emptied;
    }
    bool own_log = wal_inode_ == 0 || inode_of(path() + "-wal") == wal_inode_;
    return own_log ? found::in_place : found::without_log;
}

/* Also for a process that goes on reading: what is left in a log without a name, and what would
 * be appended to another one in its place, is gone with a kill. */
bool sqlite_file::empty_log() {
    sqlite3_busy_timeout(db_.get(), 0); /* it is tried again soon */
    statement checkpoint(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
    bool emptied = checkpoint.row() && checkpoint.integer(0) == 0;
    sqlite3_busy_timeout(db_.get(), lock_wait_ms);
    return emptied;
}

/* The agents of a file that is gone are known to the next one, but for the hash of their last
 * block: what of it was not answered yet had better come again. */
void sqlite_file::leave() {
    const found how = look();
    if (how == found::removed || how == found::emptied) {
        carried_ = {};
        carried_.read(db_.get());
        for (carried_rows::agent& agent : carried_.agents) {
            agent.last_block.clear();
        }
    }
    /* The log would be taken for the new file's. What it holds goes into the old one, which may
     * only have been moved. */
    bool own_log = inode_of(path() + "-wal") == wal_inode_;
    database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
    close();
    if (how == found::without_log) {
        options_.tell(path() + "-wal was removed while it was in use: what it held is in " +
                      path());
        return;
    }
    generation_++;
    struct stat rest;
    std::string reason = "it was emptied while it was in use";
    if (how == found::emptied && stat(path().c_str(), &rest) == 0 && rest.st_size > 0) {
        if (!set_aside(reason)) { /* met again, and refused, when it is opened */
            options_.tell(path() + ": " + reason);
        }
        return;
    }
    for (const char* end : {"-wal", "-shm"}) {
        if (own_log) {
            unlink((path() + end).c_str());
        }
    }
    options_.tell(
        path() + (how == found::removed
                      ? " was removed while it was in use: what it held is gone, a new one is "
                        "begun as soon as there is a place for it"
                  : how == found::emptied
                      ? " was emptied while it was in use: what it held is gone, a new one is begun"
                      : " was replaced while it was in use: the new one is used"));
}

/* The log goes first: beside another database it would do harm. */
bool sqlite_file::set_aside(std::string& error) {
    if (size_t there = count_damaged(options_.directory); there >= max_set_aside) {
        error += "; " + std::to_string(there) + " damaged files were set aside in " +
                 options_.directory + " already, there may be a fault of the disk: move them away";
        return false;
    }
    {
        database damaged;
        std::string reason;
        database_open_reading(options_.directory, damaged, reason);
        carried_rows found;
        found.read(damaged.get());
        if (!found.agents.empty()) {
            carried_ = std::move(found);
        }
        for (carried_rows::agent& agent : carried_.agents) {
            if (agent.last_block.size() > hash_bytes) { /* the rest alone is of no use there */
                agent.last_block.clear();
            }
        }
    }
    std::string name = name_for_damaged(options_.directory);
    for (const char* end : {"-wal", "-shm", ""}) {
        if (rename((path() + end).c_str(), (name + end).c_str()) != 0 && errno != ENOENT) {
            error += "; " + system_error("it cannot be set aside as " + name + end);
            return false;
        }
    }
    sync_directory(options_.directory);
    options_.tell(path() + " is damaged (" + error + "): it is kept as " + name +
                  ", and a new one is begun; " + std::to_string(carried_.agents.size()) +
                  " agents could be read from it");
    return true;
}

void sqlite_file::keep_damaged_earlier(const std::string& reason) {
    std::string path = earlier_path(options_.directory);
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || status.st_nlink > 1) {
        return; /* it has its second name already */
    }
    std::string name = name_for_damaged(options_.directory);
    if (link(path.c_str(), name.c_str()) != 0 || !sync_directory(options_.directory)) {
        damaged_earlier_ = name;
    }
    options_.tell(path + " is damaged (" + reason +
                  "): what can be read is taken over, and it is kept as " + name);
}

bool sqlite_file::drop_earlier() {
    std::string path = earlier_path(options_.directory);
    if (!damaged_earlier_.empty()) {
        return rename(path.c_str(), damaged_earlier_.c_str()) == 0 &&
               sync_directory(options_.directory);
    }
    return remove_earlier(options_.directory);
}
