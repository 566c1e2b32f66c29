#include "store/sqlite/sqlite_file.h"

#include "base/text.h"
#include "store/sqlite/latest.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <map>
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

constexpr size_t hash_bytes = 32; /* what agents.last_block holds of a block that is whole */

/* 0 when there is none. */
ino_t inode_of(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* Held by the process that uses the directory. */
unique_fd lock_directory(const std::string& directory, std::string& error) {
    std::string path = directory + "/lock";
    unique_fd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) {
        error = system_error(path);
        return lock;
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? "another collector uses the state directory " + directory
                                     : system_error(path);
        return unique_fd();
    }
    return lock;
}

/* As many as can be read. */
std::vector<carried_agent> read_agents(sqlite3* db) {
    std::vector<carried_agent> agents;
    statement rows(db, "SELECT id, first_seen, last_seen, account, name, last_block, address, "
                       "version FROM agents");
    while (rows.ok() && rows.row()) {
        auto text = [&](int column) { return std::string(rows.bytes(column)); };
        agents.push_back({rows.integer(0), rows.integer(1), rows.integer(2), text(3), text(4),
                          text(5), text(6), text(7)});
    }
    return agents;
}

/* Debian's SQLite overwrites what is deleted unless told not to: days are dropped, not shredded. */
const char settings[] = "PRAGMA secure_delete = OFF;"
                        "PRAGMA synchronous = FULL;"
                        "PRAGMA temp_store = MEMORY;"
                        "PRAGMA cache_size = -16384;"
                        "PRAGMA wal_autocheckpoint = 4000;"
                        "PRAGMA journal_size_limit = 67108864";

const char layout[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " address TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '',"
    " latest BLOB NOT NULL DEFAULT x'', UNIQUE (account, name));"
    "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
    "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT NOT "
    "NULL,"
    " kept_as TEXT NOT NULL);";

/* Version 1 knew nothing of where the last results are: all days are read once, in the order in
 * which they arrived. Whatever ends the process meanwhile leaves the file as it was. */
const char renewal[] = "BEGIN IMMEDIATE;"
                       "ALTER TABLE agents ADD COLUMN address TEXT NOT NULL DEFAULT '';"
                       "ALTER TABLE agents ADD COLUMN version TEXT NOT NULL DEFAULT '';"
                       "ALTER TABLE agents ADD COLUMN latest BLOB NOT NULL DEFAULT x'';"
                       "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
                       "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);";

bool fill_new_columns(sqlite3* db, std::map<int64_t, latest_results>& latest) {
    std::vector<std::string> days;
    if (!database_days(db, days)) {
        return false;
    }
    int64_t turn = 0;
    statement insert(db, "INSERT INTO days VALUES (?, ?)");
    for (const std::string& day : days) {
        if (!insert.bind_text(std::string_view(day).substr(8)).bind(++turn).run()) {
            return false;
        }
        statement rows(db, "SELECT id, received, agent, type, test, time, status FROM " + day +
                               " ORDER BY id");
        int result = SQLITE_ERROR;
        while (rows.ok() && (result = rows.step()) == SQLITE_ROW) {
            record_summary summary;
            summary.type = static_cast<uint32_t>(rows.integer(3));
            if (!rows.is_null(4)) {
                summary.test = static_cast<int32_t>(rows.integer(4));
            }
            if (!rows.is_null(5)) {
                summary.time = rows.integer(5);
            }
            if (!rows.is_null(6)) {
                summary.status = static_cast<int32_t>(rows.integer(6));
            }
            latest[rows.integer(2)].put(summary, rows.integer(1), rows.integer(0));
        }
        /* Of a damaged day what can be read counts: it was no obstacle before either. */
        if (result != SQLITE_DONE && !database_is_damaged(result)) {
            return false;
        }
    }
    return true;
}

bool renew_layout(sqlite3* db) {
    std::map<int64_t, latest_results> latest;
    bool ok = database_exec(db, renewal) && fill_new_columns(db, latest);
    statement update(db, "UPDATE agents SET latest = ? WHERE id = ?");
    std::string packed;
    for (auto agent = latest.begin(); ok && agent != latest.end(); ++agent) {
        agent->second.pack(packed);
        ok = update.bind_blob(packed).bind(agent->first).run();
    }
    return ok && database_exec(db, "PRAGMA user_version = " + std::to_string(database_version) +
                                       "; COMMIT");
}

bool make_layout(sqlite3* db) {
    return database_exec(db, layout) &&
           database_exec(db, "PRAGMA application_id = " + std::to_string(database_application_id) +
                                 "; PRAGMA user_version = " + std::to_string(database_version) +
                                 "; COMMIT");
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
            error = system_error(path());
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
    if (!lock_is_held(error) || !open_handle(error)) {
        close();
        return false;
    }
    database_layout found{};
    error.clear();
    bool ok = database_check(db_.get(), found, error);
    bool empty = ok && found == database_layout::none;
    if (empty) {
        generation_++;
        database_exec(db_.get(), "PRAGMA page_size = 8192");
    }
    ok = ok && database_exec(db_.get(), "PRAGMA journal_mode = WAL") &&
         database_exec(db_.get(), settings) && make_or_renew(empty, found);
    wal_inode_ = inode_of(path() + "-wal");
    if (!ok) {
        refuse(error);
    }
    return ok;
}

bool sqlite_file::make_or_renew(bool empty, database_layout found) {
    if (empty && !(make_layout(db_.get()) && sync_directory(options_.directory))) {
        return false;
    }
    if (found == database_layout::old && !renew_layout(db_.get())) {
        return false;
    }
    /* A commit whose sync failed may be read back from the log all the same, and its block would
     * count as a duplicate: what is in the log has to reach the disk before anything is answered.
     */
    return database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)") && (!empty || carry_over());
}

void sqlite_file::refuse(std::string& error) {
    failure_ = sqlite3_errcode(db_.get());
    error = path() + ": " + (error.empty() ? sqlite3_errmsg(db_.get()) : error);
    close();
}

bool sqlite_file::was_replaced() const {
    struct stat status;
    return stat(path().c_str(), &status) != 0 || status.st_dev != device_ ||
           status.st_ino != inode_;
}

/* The agents of a file that is gone are known to the next one, but for the hash of their last
 * block: what of it was not answered yet had better come again. */
void sqlite_file::leave() {
    bool removed = inode_of(path()) == 0;
    if (removed) {
        carried_ = read_agents(db_.get());
        for (carried_agent& agent : carried_) {
            agent.last_block.clear();
        }
    }
    /* The log would be taken for the new file's. What it holds goes into the old one, which may
     * only have been moved. */
    bool own_log = inode_of(path() + "-wal") == wal_inode_;
    database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
    close();
    generation_++;
    for (const char* end : {"-wal", "-shm"}) {
        if (own_log) {
            unlink((path() + end).c_str());
        }
    }
    options_.tell(path() +
                  (removed ? " was removed while it was in use: what it held is gone, a new one is "
                             "begun as soon as there is a place for it"
                           : " was replaced while it was in use: the new one is used"));
}

/* The log goes first: beside another database it would do harm. */
bool sqlite_file::set_aside(std::string& error) {
    std::string stem = options_.directory + "/results-damaged-";
    std::error_code failure;
    size_t there = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(options_.directory, failure)) {
        std::string other = entry.path().string();
        there += other.starts_with(stem) && other.ends_with(".db");
    }
    if (there >= max_set_aside) {
        error += "; " + std::to_string(there) + " damaged files were set aside in " +
                 options_.directory + " already, there may be a fault of the disk: move them away";
        return false;
    }
    {
        database damaged;
        std::string reason;
        database_open_reading(options_.directory, damaged, reason);
        std::vector<carried_agent> found = read_agents(damaged.get());
        if (!found.empty()) {
            carried_ = std::move(found);
        }
        for (carried_agent& agent : carried_) {
            if (agent.last_block.size() > hash_bytes) { /* the rest alone is of no use there */
                agent.last_block.clear();
            }
        }
    }
    std::string stamp = utc_time(wall_clock());
    std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
    std::string name = stem + stamp + ".db";
    for (int more = 2; inode_of(name) != 0; more++) {
        name = stem + stamp + "-" + std::to_string(more) + ".db";
    }
    for (const char* end : {"-wal", "-shm", ""}) {
        if (rename((path() + end).c_str(), (name + end).c_str()) != 0 && errno != ENOENT) {
            error += "; " + system_error("it cannot be set aside as " + name + end);
            return false;
        }
    }
    sync_directory(options_.directory);
    options_.tell(path() + " is damaged (" + error + "): it is kept as " + name +
                  ", and a new one is begun; " + std::to_string(carried_.size()) +
                  " agents could be read from it");
    return true;
}

/* Into a new file, what is known of the agents from the one before. */
bool sqlite_file::carry_over() {
    statement insert(db_.get(),
                     "INSERT OR IGNORE INTO agents (id, first_seen, last_seen, account, name, "
                     "last_block, address, version) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    bool ok = database_exec(db_.get(), "BEGIN IMMEDIATE") && insert.ok();
    for (auto a = carried_.begin(); ok && a != carried_.end(); ++a) {
        insert.bind(a->id).bind(a->first_seen).bind(a->last_seen).bind_text(a->account);
        insert.bind_text(a->name).bind_blob(a->last_block).bind_text(a->address);
        ok = insert.bind_text(a->version).run();
    }
    ok = ok && database_set_fact(db_.get(), "keep_days", options_.keep_days) &&
         database_exec(db_.get(), "COMMIT");
    if (ok) {
        carried_ = {};
    }
    return ok;
}
