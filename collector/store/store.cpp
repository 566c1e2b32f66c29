/* DESIGN
 *
 * One thread owns the database. It takes everything that waits, writes it in one transaction,
 * syncs, and only then tells the listener and answers. What an answer says is therefore on disk,
 * and whatever ends the process before the commit leaves nothing: the agent was not answered and
 * sends again.
 *
 * A large block is written in slices, one in each transaction and the blocks of other agents
 * between them, so that nobody waits for the whole of it. How far it got is in the agent's row,
 * behind the hash: a block that comes again after an end in its middle goes on from there. In a
 * file that takes the place of another it begins anew.
 *
 * A commit whose answer is lost is what makes blocks come twice. An agent has one block pending at
 * a time and sends it unchanged until it is accepted, so a repetition can only be of its last
 * stored block. The hash of that block is in the agent's row and changes in the transaction that
 * stores the records; it survives whatever the records survive.
 *
 * Any error of the database ends the transaction and closes the file; the next batch opens it anew.
 * A full disk, a read-only file system or a lock that somebody holds is thus got over without help.
 * Damage is not: when the file makes no sense although it was opened anew, it gets another name and
 * a new one is begun. Nothing is deleted, and a file that is damaged again and again does not fill
 * the disk: there are never more than max_set_aside of them.
 *
 * Which day expires is told by the order in which days were written to, not by the clock, which may
 * jump: of the days on which results arrived the last ones are kept. Days that a wrong clock made
 * up thus take their turn like any other, cost at most as many right ones, and those go one an
 * hour.
 */
#include "ingest/ingest.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "ingest/undecodable.h"
#include "protocol/record.h"
#include "store/database.h"
#include "store/latest.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <openssl/evp.h>
#include <optional>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <unordered_map>

namespace {

namespace fs = std::filesystem;

int64_t system_seconds() {
    return time(nullptr);
}
int64_t (*wall_clock)() = system_seconds; /* a test pins it */

const int64_t between_drops = 3600; /* seconds */
const size_t max_set_aside = 5;     /* damaged files in the directory */
int lock_wait_ms = 2000;            /* for the database's lock, when somebody else holds it */

class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    unique_fd& operator=(unique_fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

/* Never jumps. */
int64_t boot_seconds() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}
int64_t (*steady_clock)() = boot_seconds; /* a test pins it */

/* A number of this start of the machine, from which on steady_clock counts. */
int64_t read_boot_number() {
    unique_fd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char text[64];
    ssize_t got = file ? read(file.get(), text, sizeof(text)) : 0;
    return static_cast<int64_t>(
        std::hash<std::string_view>()({text, static_cast<size_t>(std::max<ssize_t>(got, 0))}) >> 1);
}
int64_t (*boot_number)() = read_boot_number;

std::string system_error(const std::string& what) {
    int error = errno;
    return what + ": " + std::generic_category().message(error);
}

/* Ours alone when we make it; what exists already keeps its mode. */
bool make_private_directory(const std::string& path) {
    if (mkdir(path.c_str(), 0700) == 0) {
        return true;
    }
    struct stat status;
    if (errno != EEXIST || stat(path.c_str(), &status) != 0) {
        return false;
    }
    errno = ENOTDIR;
    return S_ISDIR(status.st_mode);
}

bool sync_directory(const std::string& path) {
    unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory && fsync(directory.get()) == 0;
}

constexpr size_t hash_bytes = 32;

/* SHA-256 of bytes that come in pieces. */
class running_hash {
public:
    running_hash() : context_(EVP_MD_CTX_new()) {
        EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr);
    }
    void add(std::string_view bytes) {
        EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
    }
    std::string finish() {
        std::string hash(hash_bytes, '\0');
        EVP_DigestFinal_ex(context_.get(), reinterpret_cast<unsigned char*>(hash.data()), nullptr);
        return hash;
    }

private:
    struct release {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, release> context_;
};

std::string sha256(std::string_view bytes) {
    running_hash hash;
    hash.add(bytes);
    return hash.finish();
}

/* What is done of a large block in one go, some 50 ms of work: the rest waits for the others. The
 * last record of a slice may be one of record_max_size. */
struct slice_limits {
    size_t hashed = 16u << 20;
    size_t bytes = 4u << 20;
    size_t records = 8192;
    std::chrono::milliseconds decoding{20};
};
slice_limits slice; /* a test makes it small */

constexpr size_t large_record = 1 << 20; /* bytes: is not copied for the database */

/* What stands in an agent's row for a block that is stored up to `stored`: its hash, and that. */
std::string unfinished(const std::string& hash, uint64_t stored) {
    return hash + std::string(reinterpret_cast<const char*>(&stored), sizeof(stored));
}

/* Where to go on with the block of `hash`. */
size_t stored_before(const std::string& last_block, const std::string& hash, size_t size) {
    uint64_t stored = 0;
    if (last_block.size() == hash.size() + sizeof(stored) && last_block.starts_with(hash)) {
        memcpy(&stored, last_block.data() + hash.size(), sizeof(stored));
    }
    return stored < size ? stored : 0;
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

/* 0 when there is none. */
ino_t inode_of(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* An agent's row without what hangs on the results, for a new database. */
struct carried_agent {
    int64_t id, first_seen, last_seen;
    std::string account, name, last_block, address, version;
};

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

/* An agent's row. */
struct known {
    int64_t id = 0;
    std::string last_hash;
    latest_results latest;
};

struct job {
    poll_block block;
    std::function<void(store_result)> done;
    store_result result = store_result::failed;
    bool large = false;
    bool unfinished = false; /* after a batch: its next slice is for a later one */
    std::optional<running_hash> hashing;
    size_t hashed = 0;       /* bytes */
    std::string hash;        /* once it is known */
    size_t stored = 0;       /* bytes in slices that are committed */
    unsigned file = 0;       /* where these are: files_ at the time */
    size_t from = 0, to = 0; /* the slice, in `plain`; all of a block that is not large */
    undecodable_summary bad; /* of the slice */
    std::string kept_as;     /* empty when it was not kept */

    std::string_view part() const { return std::string_view(block.plain).substr(from, to - from); }
    bool last_part() const { return to == block.plain.size(); }
};

/* Blocks that wait, and how much of each agent and from each address. */
struct waiting_blocks {
    std::deque<job> jobs;
    size_t bytes = 0; /* the batch that is being written included */
    std::unordered_map<std::string, size_t> shares;

    static std::string agent(const poll_block& b) { return b.account + '\0' + b.agent; }
    static std::string address(const poll_block& b) { return b.address; }

    /* One that nothing of the same agent or address waits before is let in whatever its size, or
     * the largest would never be. */
    bool fits(const std::string& owner, size_t more, size_t most) const {
        auto share = shares.find(owner);
        return owner.empty() || share == shares.end() || share->second + more <= most;
    }
    void add(job j) {
        size_t more = j.block.plain.size();
        bytes += more;
        shares[agent(j.block)] += more;
        shares[address(j.block)] += more;
        jobs.push_back(std::move(j));
    }
    void leave(const poll_block& b) {
        bytes -= b.plain.size();
        for (const std::string& owner : {agent(b), address(b)}) {
            auto share = shares.find(owner);
            share->second -= b.plain.size();
            if (share->second == 0) {
                shares.erase(share);
            }
        }
    }
};

constexpr size_t looked_up_at_once = 100000; /* results, or one agent's */

/* A result to look up: the day of its table, its id there, and whose it is. */
struct wanted_row {
    std::string day;
    int64_t row;
    size_t agent;
};

struct agent_name {
    int64_t id;
    std::string account, name;
};

/* The last results of some agents, in the order in which the tables have them. A row that is gone
 * with its day is passed over, and so is one that is damaged, which is an error in the end: then
 * `error` says so, and true is returned all the same. */
bool look_up(sqlite3* db, const std::vector<agent_name>& agents, std::vector<wanted_row>& wanted,
             const std::vector<std::string>& days,
             const std::function<void(const latest_result&)>& each, std::string& error) {
    std::sort(wanted.begin(), wanted.end(), [](const wanted_row& a, const wanted_row& b) {
        return std::tie(a.day, a.row) < std::tie(b.day, b.row);
    });
    statement select;
    bool ok = true;
    for (size_t i = 0; ok && i < wanted.size(); i++) {
        const wanted_row& w = wanted[i];
        std::string table = "results_" + w.day;
        if (!std::binary_search(days.begin(), days.end(), table)) {
            continue;
        }
        if (i == 0 || wanted[i - 1].day != w.day) {
            select = statement(db, "SELECT received, record FROM " + table +
                                       " WHERE id = ? AND agent = ?");
        }
        select.bind(w.row).bind(agents[w.agent].id);
        int result = select.step();
        if (result == SQLITE_ROW) {
            each({.account = agents[w.agent].account,
                  .agent = agents[w.agent].name,
                  .received = select.integer(0),
                  .record = select.bytes(1)});
        }
        if (database_is_damaged(result)) {
            error = sqlite3_errmsg(db);
        }
        select.reset();
        ok = result == SQLITE_ROW || result == SQLITE_DONE || database_is_damaged(result);
    }
    return ok;
}

/* Some agents at a time: all of a large fleet's would take much memory. */
bool each_latest(sqlite3* db, const std::function<void(const latest_result&)>& each,
                 std::string& error) {
    std::vector<agent_name> agents;
    std::vector<wanted_row> wanted;
    std::vector<std::string> days;
    bool ok = database_days(db, days);
    statement query(db, "SELECT id, account, name, latest FROM agents ORDER BY id");
    int result = SQLITE_ERROR;
    while (ok && query.ok() && (result = query.step()) == SQLITE_ROW) {
        latest_results latest(query.bytes(3));
        for (const latest_entry& e : latest.entries()) {
            wanted.push_back({utc_day(e.received), e.row, agents.size()});
        }
        agents.push_back(
            {query.integer(0), std::string(query.bytes(1)), std::string(query.bytes(2))});
        if (wanted.size() >= looked_up_at_once) {
            ok = look_up(db, agents, wanted, days, each, error);
            agents.clear();
            wanted.clear();
        }
    }
    ok = ok && result == SQLITE_DONE && look_up(db, agents, wanted, days, each, error);
    if (!ok) {
        error = sqlite3_errmsg(db);
    }
    return error.empty();
}

class sqlite_store final : public ingest {
public:
    sqlite_store(const ingest_options& options, store_listener* listener, unique_fd lock)
        : options_(options), listener_(listener), lock_(std::move(lock)) {}

    ~sqlite_store() override {
        if (writer_.joinable()) {
            {
                std::lock_guard hold(mutex_);
                stopping_ = true;
            }
            wake_.notify_one();
            writer_.join();
        }
    }

    bool start(std::string& error) {
        if (!open_database(error)) {
            return false;
        }
        begin_expiry();
        expire();
        writer_ = std::thread([this] { write_batches(); });
        pthread_setname_np(writer_.native_handle(), "store");
        return true;
    }

    void submit(poll_block block, std::function<void(store_result)> done) override {
        if (block.plain.empty()) {
            done(store_result::stored);
            return;
        }
        {
            std::unique_lock hold(mutex_);
            const size_t size = block.plain.size();
            const bool large = size > options_.large;
            waiting_blocks& queue = large ? large_ : queue_;
            const size_t most = large ? options_.max_large_queued : options_.max_queued;
            if (queue.bytes >= most ||
                !queue.fits(waiting_blocks::agent(block), size, large ? 0 : most / 16) ||
                !queue.fits(waiting_blocks::address(block), size, large ? most : most / 4)) {
                hold.unlock();
                done(store_result::failed);
                return;
            }
            job j;
            j.block = std::move(block);
            j.done = std::move(done);
            j.large = large;
            queue.add(std::move(j));
        }
        wake_.notify_one();
    }

private:
    /* The writer thread. */
    void write_batches();
    bool take_batch(std::deque<job>& batch);
    void write_batch(std::deque<job>& batch);
    void tell(const job& j);
    void make_room(job& j);

    bool store_all(std::deque<job>& batch, std::string& error);
    int try_batch(std::deque<job>& batch, std::string& error);
    bool store_block(job& j);
    bool store_records(const job& j, int64_t agent, latest_results& latest);
    void choose_slice(job& j);
    bool keep_aside(job& j);
    bool hash_block(job& j);
    bool find_agent(const poll_block& block, known& agent);
    bool use_day(int64_t received);

    bool open_database(std::string& error);
    bool lock_is_held(std::string& error);
    bool open_file(std::string& error);
    bool renew_layout();
    bool prepare();
    void close_database();
    bool file_was_replaced() const;
    void look_after_file();
    bool set_aside(std::string& error);
    bool carry_over();

    void begin_expiry();
    void expire();
    int days_by_turn(std::vector<std::string>& days);
    int drop_day(const std::string& day);
    bool forget_all_but(const std::vector<std::string>& days);
    bool set_fact(const char* name, int64_t value);
    std::optional<int64_t> fact(const char* name);
    void report(std::string& last, const std::string& now, const char* again);
    void tell_problem(const std::string& text) const;

    std::string aside_directory() const { return options_.directory + "/undecodable"; }

    const ingest_options options_;
    store_listener* const listener_;
    unique_fd lock_;

    std::mutex mutex_; /* guards the next four */
    std::condition_variable wake_;
    waiting_blocks queue_, large_; /* of large_ the first is in work; one of an agent */
    bool stopping_ = false;

    /* Of the writer thread, once it runs. */
    database db_;
    dev_t device_ = 0; /* which file db_ is */
    ino_t inode_ = 0, wal_inode_ = 0;
    unsigned files_ = 0;                 /* grows when another one takes its place */
    int open_failure_ = SQLITE_OK;       /* of the last open_database() that failed */
    std::vector<carried_agent> carried_; /* of a file that is gone, for the one that follows */
    statement select_agent_, insert_agent_, update_agent_, insert_undecodable_, insert_result_;
    std::string day_;                     /* insert_result_ is for this one */
    bool days_changed_ = false;           /* expire() has something to look at */
    bool drop_at_once_ = false;           /* fewer days are to be kept than in the last run */
    int64_t next_drop_ = 0;               /* not before, by steady_clock */
    std::string trouble_, aside_trouble_; /* what was reported last; empty when all is well */
    std::string expiry_trouble_;
    undecodable_files aside_{aside_directory()};

    std::thread writer_;
};

bool sqlite_store::open_file(std::string& error) {
    std::string path = database_path(options_.directory);
    struct stat status;
    {
        /* Made here for the mode; SQLite gives its other files the mode of this one. Closed before
         * SQLite opens it, because closing a descriptor gives up the process's locks on its file.
         */
        unique_fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file || fstat(file.get(), &status) != 0) {
            error = system_error(path);
            return false;
        }
    }
    device_ = status.st_dev;
    inode_ = status.st_ino;
    sqlite3* handle = nullptr;
    int result = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
    db_.reset(handle);
    if (result != SQLITE_OK) {
        error = path + ": " + sqlite3_errstr(result);
        return false;
    }
    sqlite3_extended_result_codes(db_.get(), 1);
    sqlite3_busy_timeout(db_.get(), lock_wait_ms);
    return true;
}

/* Debian's SQLite overwrites what is deleted unless told not to: days are dropped, not shredded. */
static const char settings[] = "PRAGMA secure_delete = OFF;"
                               "PRAGMA synchronous = FULL;"
                               "PRAGMA temp_store = MEMORY;"
                               "PRAGMA cache_size = -16384;"
                               "PRAGMA wal_autocheckpoint = 4000;"
                               "PRAGMA journal_size_limit = 67108864";

static const char layout[] =
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
static const char renewal[] = "BEGIN IMMEDIATE;"
                              "ALTER TABLE agents ADD COLUMN address TEXT NOT NULL DEFAULT '';"
                              "ALTER TABLE agents ADD COLUMN version TEXT NOT NULL DEFAULT '';"
                              "ALTER TABLE agents ADD COLUMN latest BLOB NOT NULL DEFAULT x'';"
                              "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
                              "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);";

static bool fill_new_columns(sqlite3* db, std::map<int64_t, latest_results>& latest) {
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

bool sqlite_store::renew_layout() {
    std::map<int64_t, latest_results> latest;
    sqlite3* db = db_.get();
    bool ok = database_exec(db, renewal) && fill_new_columns(db, latest);
    statement update(db, "UPDATE agents SET latest = ? WHERE id = ?");
    for (auto agent = latest.begin(); ok && agent != latest.end(); ++agent) {
        std::string packed = agent->second.packed();
        ok = update.bind_blob(packed).bind(agent->first).run();
    }
    return ok && database_exec(db, "PRAGMA user_version = " + std::to_string(database_version) +
                                       "; COMMIT");
}

/* A directory that was made anew has no lock: another collector could use it too. */
bool sqlite_store::lock_is_held(std::string& error) {
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

bool sqlite_store::open_database(std::string& error) {
    open_failure_ = SQLITE_CANTOPEN;
    if (!lock_is_held(error) || !open_file(error)) {
        db_.reset();
        return false;
    }
    database_layout found{};
    std::string reason;
    bool ok = database_check(db_.get(), found, reason);
    bool empty = ok && found == database_layout::none;
    if (empty) {
        files_++;
        database_exec(db_.get(), "PRAGMA page_size = 8192");
    }
    ok = ok && database_exec(db_.get(), "PRAGMA journal_mode = WAL") &&
         database_exec(db_.get(), settings);
    if (ok && empty) {
        ok = database_exec(db_.get(), layout) &&
             database_exec(db_.get(),
                           "PRAGMA application_id = " + std::to_string(database_application_id) +
                               "; PRAGMA user_version = " + std::to_string(database_version) +
                               "; COMMIT") &&
             sync_directory(options_.directory);
    }
    if (ok && found == database_layout::old) {
        ok = renew_layout();
    }
    /* A commit whose sync failed may be read back from the log all the same, and its block would
     * count as a duplicate: what is in the log has to reach the disk before anything is answered.
     */
    ok = ok && database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)") && prepare();
    ok = ok && (!empty || carry_over());
    wal_inode_ = inode_of(database_path(options_.directory) + "-wal");
    if (!ok) {
        open_failure_ = sqlite3_errcode(db_.get());
        error = database_path(options_.directory) + ": " +
                (reason.empty() ? sqlite3_errmsg(db_.get()) : reason);
        close_database();
    }
    return ok;
}

bool sqlite_store::prepare() {
    sqlite3* db = db_.get();
    select_agent_ =
        statement(db, "SELECT id, last_block, latest FROM agents WHERE account = ? AND name = ?");
    insert_agent_ =
        statement(db, "INSERT INTO agents (account, name, first_seen, last_seen, last_block) "
                      "VALUES (?, ?, ?, 0, x'')");
    /* An address or a version that is not known leaves the last one. */
    update_agent_ = statement(db, "UPDATE agents SET last_seen = ?, last_block = ?, latest = ?, "
                                  "address = coalesce(nullif(?, ''), address), "
                                  "version = coalesce(nullif(?, ''), version) WHERE id = ?");
    insert_undecodable_ =
        statement(db, "INSERT INTO undecodable (received, agent, offset, bytes, reason, kept_as) "
                      "VALUES (?, ?, ?, ?, ?, ?)");
    return select_agent_.ok() && insert_agent_.ok() && update_agent_.ok() &&
           insert_undecodable_.ok();
}

void sqlite_store::close_database() {
    for (statement* s :
         {&select_agent_, &insert_agent_, &update_agent_, &insert_undecodable_, &insert_result_}) {
        *s = statement();
    }
    day_.clear();
    db_.reset();
}

/* Somebody removed or replaced the file: what goes into the old one could never be read. */
bool sqlite_store::file_was_replaced() const {
    struct stat status;
    return stat(database_path(options_.directory).c_str(), &status) != 0 ||
           status.st_dev != device_ || status.st_ino != inode_;
}

/* The agents of a file that is gone are known to the next one, but for the hash of their last
 * block: what of it was not answered yet had better come again. */
void sqlite_store::look_after_file() {
    if (!db_ || !file_was_replaced()) {
        return;
    }
    std::string path = database_path(options_.directory);
    bool removed = inode_of(path) == 0;
    if (removed) {
        carried_ = read_agents(db_.get());
        for (carried_agent& agent : carried_) {
            agent.last_block.clear();
        }
    }
    /* The log would be taken for the new file's. What it holds goes into the old one, which may
     * only have been moved. */
    bool own_log = inode_of(path + "-wal") == wal_inode_;
    database_exec(db_.get(), "PRAGMA wal_checkpoint(TRUNCATE)");
    close_database();
    files_++;
    for (const char* end : {"-wal", "-shm"}) {
        if (own_log) {
            unlink((path + end).c_str());
        }
    }
    tell_problem(path + (removed ? " was removed while it was in use: what it held is gone, a new "
                                   "one is begun as soon as there is a place for it"
                                 : " was replaced while it was in use: the new one is used"));
}

/* Gives the damaged file and what belongs to it other names. The log goes first: beside another
 * database it would do harm. False when that cannot be done; the file then stays in its place. */
bool sqlite_store::set_aside(std::string& error) {
    std::string path = database_path(options_.directory);
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
        if (rename((path + end).c_str(), (name + end).c_str()) != 0 && errno != ENOENT) {
            error += "; " + system_error("it cannot be set aside as " + name + end);
            return false;
        }
    }
    sync_directory(options_.directory);
    tell_problem(path + " is damaged (" + error + "): it is kept as " + name +
                 ", and a new one is begun; " + std::to_string(carried_.size()) +
                 " agents could be read from it");
    return true;
}

/* Into a new file, what is known of the agents from the one before. */
bool sqlite_store::carry_over() {
    statement insert(db_.get(),
                     "INSERT OR IGNORE INTO agents (id, first_seen, last_seen, account, name, "
                     "last_block, address, version) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    bool ok = database_exec(db_.get(), "BEGIN IMMEDIATE") && insert.ok();
    for (auto a = carried_.begin(); ok && a != carried_.end(); ++a) {
        insert.bind(a->id).bind(a->first_seen).bind(a->last_seen).bind_text(a->account);
        insert.bind_text(a->name).bind_blob(a->last_block).bind_text(a->address);
        ok = insert.bind_text(a->version).run();
    }
    ok = ok && set_fact("keep_days", options_.keep_days) && database_exec(db_.get(), "COMMIT");
    if (ok) {
        carried_ = {};
    }
    return ok;
}

bool sqlite_store::use_day(int64_t received) {
    std::string day = utc_day(received);
    if (day == day_) {
        return true;
    }
    std::string table = "results_" + day;
    statement turn(db_.get(), "INSERT OR REPLACE INTO days "
                              "SELECT ?, 1 + coalesce(max(turn), 0) FROM days");
    if (!database_exec(
            db_.get(),
            "CREATE TABLE IF NOT EXISTS " + table +
                " (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
                " agent INTEGER NOT NULL, type INTEGER NOT NULL, test INTEGER,"
                " location INTEGER, time INTEGER, status INTEGER, record BLOB NOT NULL)") ||
        !turn.bind_text(day).run()) {
        return false;
    }
    days_changed_ = true;
    insert_result_ =
        statement(db_.get(), "INSERT INTO " + table +
                                 " (received, agent, type, test, location, time, status,"
                                 " record) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    day_ = insert_result_.ok() ? day : "";
    return insert_result_.ok();
}

bool sqlite_store::find_agent(const poll_block& block, known& agent) {
    select_agent_.bind_text(block.account).bind_text(block.agent);
    int result = select_agent_.step();
    if (result == SQLITE_ROW) {
        agent.id = select_agent_.integer(0);
        agent.last_hash = select_agent_.bytes(1);
        agent.latest = latest_results(select_agent_.bytes(2));
    }
    select_agent_.reset();
    if (result != SQLITE_DONE) {
        return result == SQLITE_ROW;
    }
    insert_agent_.bind_text(block.account).bind_text(block.agent).bind(block.received);
    bool inserted = insert_agent_.run();
    agent.id = sqlite3_last_insert_rowid(db_.get());
    return inserted;
}

bool sqlite_store::store_records(const job& j, int64_t agent, latest_results& latest) {
    if (!use_day(j.block.received)) {
        return false;
    }
    for (block_reader reader(j.part()); reader.next();) {
        if (!reader.good) {
            continue;
        }
        record_summary summary = summarize(reader.current);
        insert_result_.bind(j.block.received).bind(agent).bind(int64_t{summary.type});
        insert_result_.bind(summary.test).bind(summary.location).bind(summary.time);
        std::string_view raw = reader.current.raw;
        bool large = raw.size() > large_record;
        insert_result_.bind(summary.status);
        large ? insert_result_.bind_unfilled_blob(raw.size()) : insert_result_.bind_blob(raw);
        if (!insert_result_.run() ||
            (large && !database_fill_blob(db_.get(), "results_" + day_, "record", raw))) {
            return false;
        }
        latest.put(summary, j.block.received, sqlite3_last_insert_rowid(db_.get()));
    }
    return true;
}

/* Walks over what the next slice holds: all of the block, unless that is large. */
void sqlite_store::choose_slice(job& j) {
    using clock = std::chrono::steady_clock;
    const clock::time_point until = clock::now() + slice.decoding;
    block_reader reader(std::string_view(j.block.plain).substr(j.from));
    size_t end = 0;
    for (size_t records = 0; reader.next(); records++) {
        if (!reader.good) {
            j.bad.add(reader);
        }
        end = reader.offset + reader.bytes;
        if (j.large && (end >= slice.bytes || records + 1 >= slice.records ||
                        (records % 64 == 63 && clock::now() >= until))) {
            break;
        }
    }
    j.to = j.from + end;
}

/* False when the pieces that are no records cannot be written: then the block must come again. What
 * is dropped because too much comes is no failure. */
bool sqlite_store::keep_aside(job& j) {
    std::string name = j.from == 0 ? j.hash : sha256(unfinished(j.hash, j.from));
    std::string path, error;
    auto outcome = aside_.keep(j.block.account, j.block.agent, j.block.received, name, j.part(),
                               j.bad.bytes, undecodable_files::clock::now(), path, error);
    if (outcome == undecodable_files::outcome::kept) {
        j.kept_as = path;
    }
    bool failed = outcome == undecodable_files::outcome::failed;
    report(aside_trouble_,
           failed ? "cannot keep aside what does not decode, its agent keeps it: " + error : "",
           "what does not decode is kept aside again");
    return !failed;
}

/* True when the whole hash is there. */
bool sqlite_store::hash_block(job& j) {
    if (!j.hash.empty()) {
        return true;
    }
    if (!j.hashing) {
        j.hashing.emplace();
    }
    std::string_view rest = std::string_view(j.block.plain).substr(j.hashed);
    std::string_view now = rest.substr(0, j.large ? slice.hashed : rest.size());
    j.hashing->add(now);
    j.hashed += now.size();
    if (j.hashed < j.block.plain.size()) {
        return false;
    }
    j.hash = j.hashing->finish();
    j.hashing.reset();
    return true;
}

/* False when the database failed; then the whole batch is lost. A block that cannot be kept for
 * reasons of its own just stays `failed`. */
bool sqlite_store::store_block(job& j) {
    j.result = store_result::failed;
    j.bad = {};
    j.kept_as.clear();
    j.unfinished = !hash_block(j);
    if (j.unfinished) {
        return true;
    }
    known agent;
    if (!find_agent(j.block, agent)) {
        return false;
    }
    if (j.hash == agent.last_hash) {
        j.result = store_result::duplicate;
        return true;
    }
    j.from = j.stored > 0 && j.file == files_
                 ? j.stored
                 : stored_before(agent.last_hash, j.hash, j.block.plain.size());
    choose_slice(j);
    if (j.bad.bytes > 0) {
        if (!keep_aside(j)) {
            return true;
        }
        if (!j.kept_as.empty()) {
            std::string reason = j.bad.text(), name = fs::path(j.kept_as).filename();
            insert_undecodable_.bind(j.block.received)
                .bind(agent.id)
                .bind(int64_t(j.from + j.bad.offset));
            insert_undecodable_.bind(int64_t(j.bad.bytes)).bind_text(reason).bind_text(name);
            if (!insert_undecodable_.run()) {
                return false;
            }
        }
    }
    if (!store_records(j, agent.id, agent.latest)) {
        return false;
    }
    j.result = store_result::stored;
    j.unfinished = !j.last_part();
    std::string mark = j.unfinished ? unfinished(j.hash, j.to) : j.hash;
    std::string latest = agent.latest.packed();
    update_agent_.bind(j.block.received).bind_blob(mark).bind_blob(latest);
    update_agent_.bind_text(j.block.address).bind_text(j.block.version).bind(agent.id);
    return update_agent_.run();
}

/* SQLITE_OK, or what failed; then nothing of the batch is stored. */
int sqlite_store::try_batch(std::deque<job>& batch, std::string& error) {
    if (!db_ && !open_database(error)) {
        return open_failure_;
    }
    bool ok = database_exec(db_.get(), "BEGIN IMMEDIATE");
    for (auto j = batch.begin(); ok && j != batch.end(); ++j) {
        ok = store_block(*j);
    }
    ok = ok && database_exec(db_.get(), "COMMIT");
    if (ok) {
        return SQLITE_OK;
    }
    int result = sqlite3_errcode(db_.get());
    error = sqlite3_errmsg(db_.get());
    database_exec(db_.get(), "ROLLBACK");
    close_database();
    return result != SQLITE_OK ? result : SQLITE_ERROR;
}

/* Damage may be in what was read before only: it has to show in a file opened anew. */
bool sqlite_store::store_all(std::deque<job>& batch, std::string& error) {
    look_after_file();
    int result = try_batch(batch, error);
    if (database_is_damaged(result)) {
        result = try_batch(batch, error);
    }
    if (database_is_damaged(result) && set_aside(error)) {
        result = try_batch(batch, error);
    }
    return result == SQLITE_OK;
}

class sqlite_reader final : public result_reader {
public:
    bool open(const std::string& directory, std::string& error) {
        place_ = database_path(directory);
        return database_open_reading(directory, db_, error);
    }
    std::string place() const override { return place_; }

    bool for_each_agent(const std::function<void(const known_agent&)>& each,
                        std::string& error) override {
        statement rows(db_.get(), "SELECT account, name, address, version, first_seen, last_seen "
                                  "FROM agents ORDER BY id");
        return for_each(
            rows, [&] { each(agent_of(rows)); }, error);
    }

    bool for_each_latest(const std::function<void(const latest_result&)>& each,
                         std::string& error) override {
        error.clear();
        return each_latest(db_.get(), each, error);
    }

    bool for_each_tested(
        const std::function<void(const known_agent&, std::span<const latest_entry>)>& each,
        std::string& error) override {
        statement rows(db_.get(), "SELECT account, name, address, version, first_seen, last_seen, "
                                  "latest FROM agents ORDER BY account, name");
        auto each_row = [&] {
            latest_results latest(rows.bytes(6));
            each(agent_of(rows), latest.entries());
        };
        return for_each(rows, each_row, error);
    }

private:
    static known_agent agent_of(const statement& row) {
        return {.account = row.bytes(0),
                .agent = row.bytes(1),
                .address = row.bytes(2),
                .version = row.bytes(3),
                .first_seen = row.integer(4),
                .last_seen = row.integer(5)};
    }
    template <typename Do>
    bool for_each(statement& rows, Do each, std::string& error) {
        int result = SQLITE_ERROR;
        while (rows.ok() && (result = rows.step()) == SQLITE_ROW) {
            each();
        }
        error = result == SQLITE_DONE ? "" : sqlite3_errmsg(db_.get());
        return result == SQLITE_DONE;
    }

    std::string place_;
    database db_;
};

void sqlite_store::tell_problem(const std::string& text) const {
    if (listener_ != nullptr) {
        listener_->on_problem(text);
    }
}

void sqlite_store::report(std::string& last, const std::string& now, const char* again) {
    if (now != last && listener_ != nullptr) {
        listener_->on_problem(now.empty() ? again : now);
    }
    last = now;
}

void sqlite_store::tell(const job& j) {
    if (listener_ == nullptr || j.result != store_result::stored) {
        return;
    }
    for (block_reader reader(j.part()); reader.next();) {
        if (reader.good) {
            listener_->on_record(j.block, {reader.current, summarize(reader.current)});
        }
    }
    if (!j.kept_as.empty()) {
        listener_->on_undecodable(j.block, j.from + j.bad.offset, j.bad.bytes, j.bad.text(),
                                  j.kept_as);
    }
}

void sqlite_store::write_batch(std::deque<job>& batch) {
    std::string error;
    bool ok = false;
    try {
        ok = store_all(batch, error);
    } catch (const std::exception& e) { /* no memory, most likely */
        error = e.what();
        close_database();
    }
    if (!ok) {
        for (job& j : batch) {
            j.result = store_result::failed;
            j.unfinished = false;
        }
    }
    try {
        report(trouble_, ok ? "" : "results cannot be stored, the agents keep them: " + error,
               "results are stored again");
    } catch (const std::exception&) { /* the next batch says it */
    }
    for (job& j : batch) {
        try {
            tell(j);
        } catch (const std::exception&) { /* stored all the same */
        }
        j.stored = j.to;
        j.file = files_;
        if (!j.unfinished) {
            make_room(j);
            j.done(j.result);
        }
    }
}

/* Before the answer: an agent that has one may send its next block at once. */
void sqlite_store::make_room(job& j) {
    std::lock_guard hold(mutex_);
    (j.large ? large_ : queue_).leave(j.block);
    std::string().swap(j.block.plain);
}

/* Everything that waits, and the next slice of one large block. False when the queue is empty for
 * good. Wakes up now and then for a file that is removed and for days to drop. */
bool sqlite_store::take_batch(std::deque<job>& batch) {
    std::unique_lock hold(mutex_);
    wake_.wait_for(hold, std::chrono::minutes(1),
                   [this] { return stopping_ || !queue_.jobs.empty() || !large_.jobs.empty(); });
    batch.swap(queue_.jobs);
    if (!large_.jobs.empty()) {
        batch.push_back(std::move(large_.jobs.front()));
        large_.jobs.pop_front();
    }
    return !batch.empty() || !stopping_;
}

void sqlite_store::write_batches() {
    std::deque<job> batch;
    while (take_batch(batch)) {
        if (!batch.empty()) {
            write_batch(batch);
        }
        if (!batch.empty() && batch.back().unfinished) { /* behind the others of its kind */
            std::lock_guard hold(mutex_);
            large_.jobs.push_back(std::move(batch.back()));
        }
        batch.clear();
        try {
            std::string dropped = aside_.report(undecodable_files::clock::now());
            if (!dropped.empty()) {
                tell_problem(dropped);
            }
            look_after_file();
            expire();
        } catch (const std::exception&) { /* no memory: at the next batch */
        }
    }
}

bool sqlite_store::set_fact(const char* name, int64_t value) {
    statement replace(db_.get(), "INSERT OR REPLACE INTO facts VALUES (?, ?)");
    return replace.bind_text(name).bind(value).run();
}

std::optional<int64_t> sqlite_store::fact(const char* name) {
    statement select(db_.get(), "SELECT value FROM facts WHERE name = ?");
    bool found = select.bind_text(name).row();
    return found ? std::optional(select.integer(0)) : std::nullopt;
}

/* A start is no reason to drop a day sooner after the last one; that fewer days are to be kept is
 * one to drop them all at once. */
void sqlite_store::begin_expiry() {
    std::optional<int64_t> last_run = fact("keep_days"); /* none in a renewed file */
    int64_t before = last_run.value_or(options_.keep_days);
    drop_at_once_ = options_.keep_days > 0 && (before == 0 || options_.keep_days < before);
    if (!drop_at_once_ && last_run != options_.keep_days) {
        set_fact("keep_days", options_.keep_days); /* otherwise with the drop */
    }
    next_drop_ = steady_clock();
    std::optional<int64_t> dropped = fact("dropped");
    if (dropped && !drop_at_once_) {
        /* Of another start of the machine: when that was cannot be known. */
        int64_t due = fact("boot") == boot_number() ? *dropped + between_drops : INT64_MAX;
        next_drop_ = std::clamp(due, next_drop_, next_drop_ + between_drops);
    }
    days_changed_ = true;
}

/* The days that were written to last stay: today's and keep_days before it. Of the others one goes
 * each hour. What fails is tried again later. */
void sqlite_store::expire() {
    if (options_.keep_days <= 0 || !days_changed_ || !db_ || steady_clock() < next_drop_) {
        return;
    }
    std::vector<std::string> days;
    int result = days_by_turn(days);
    size_t kept = static_cast<size_t>(options_.keep_days) + 1;
    size_t over = days.size() > kept ? days.size() - kept : 0;
    size_t dropped = 0, damaged = 0;
    for (size_t i = 0; i < over && (dropped == 0 || drop_at_once_); i++) {
        int dropping = drop_day(days[i]);
        result = dropping != SQLITE_OK ? dropping : result;
        if (dropping == SQLITE_OK) {
            dropped++;
        } else if (database_is_damaged(dropping)) {
            damaged++; /* it stays, and does not keep the next from going */
        } else {
            break;
        }
    }
    bool ok = result == SQLITE_OK || damaged > 0;
    ok = ok && (!drop_at_once_ || set_fact("keep_days", options_.keep_days));
    report(expiry_trouble_,
           result == SQLITE_OK
               ? ""
               : std::string("an old day cannot be dropped: ") + sqlite3_errstr(result),
           "old days are dropped again");
    if (dropped > 0 || !ok) {
        next_drop_ = steady_clock() + between_drops;
    }
    drop_at_once_ = drop_at_once_ && !ok;
    days_changed_ = !ok || over > dropped + damaged;
}

/* SQLITE_OK, or why they cannot be read. The one written to longest ago is the first. */
int sqlite_store::days_by_turn(std::vector<std::string>& days) {
    statement query(db_.get(), "SELECT day FROM days JOIN sqlite_schema "
                               "ON name = 'results_' || day AND type = 'table' ORDER BY turn");
    int result = SQLITE_ERROR;
    while (query.ok() && (result = query.step()) == SQLITE_ROW) {
        days.emplace_back(query.bytes(0));
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

/* SQLITE_OK, or why not. */
int sqlite_store::drop_day(const std::string& day) {
    sqlite3* db = db_.get();
    std::vector<std::string> kept;
    bool ok = database_exec(db, "BEGIN IMMEDIATE; DROP TABLE results_" + day) &&
              statement(db, "DELETE FROM days WHERE day = ?").bind_text(day).run() &&
              days_by_turn(kept) == SQLITE_OK && forget_all_but(kept) &&
              set_fact("dropped", steady_clock()) && set_fact("boot", boot_number()) &&
              database_exec(db, "COMMIT");
    if (!ok) {
        int result = sqlite3_errcode(db);
        database_exec(db, "ROLLBACK");
        return result != SQLITE_OK ? result : SQLITE_ERROR;
    }
    tell_problem("the results of day " + day + " are dropped: --keep-days " +
                 std::to_string(options_.keep_days));
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(aside_directory(), error)) {
        std::string day = entry.path().filename().string().substr(0, 8);
        if (std::find(kept.begin(), kept.end(), day) == kept.end()) {
            fs::remove(entry.path(), error);
        }
    }
    return SQLITE_OK;
}

/* What points to days that are gone. */
bool sqlite_store::forget_all_but(const std::vector<std::string>& days) {
    sqlite3* db = db_.get();
    auto kept = [&days, known = std::map<int64_t, bool>()](int64_t received) mutable {
        auto [day, fresh] = known.try_emplace(received / 86400);
        if (fresh) {
            day->second = std::find(days.begin(), days.end(), utc_day(received)) != days.end();
        }
        return day->second;
    };
    std::vector<std::pair<int64_t, std::string>> changed;
    statement select(db, "SELECT id, latest FROM agents");
    int result = SQLITE_ERROR;
    while (select.ok() && (result = select.step()) == SQLITE_ROW) {
        latest_results latest(select.bytes(1));
        if (latest.forget_unless(std::ref(kept))) {
            changed.emplace_back(select.integer(0), latest.packed());
        }
    }
    statement update(db, "UPDATE agents SET latest = ? WHERE id = ?");
    bool ok = result == SQLITE_DONE;
    for (auto c = changed.begin(); ok && c != changed.end(); ++c) {
        ok = update.bind_blob(c->second).bind(c->first).run();
    }
    return ok && database_exec(db, "DELETE FROM undecodable WHERE NOT EXISTS (SELECT 1 FROM days "
                                   "WHERE day = strftime('%Y%m%d', received, 'unixepoch'))");
}

} // namespace

std::unique_ptr<ingest> ingest::open(const ingest_options& options, store_listener* listener,
                                     std::string& error) {
    if (options.directory.empty()) {
        error = "no state directory is named";
        return nullptr;
    }
    ingest_options absolute = options;
    std::error_code failure;
    absolute.directory = fs::absolute(options.directory, failure).lexically_normal();
    fs::create_directories(fs::path(absolute.directory).parent_path(), failure);
    if (!make_private_directory(absolute.directory)) {
        error = system_error("state directory " + absolute.directory);
        return nullptr;
    }
    unique_fd lock = lock_directory(absolute.directory, error);
    if (!lock) {
        return nullptr;
    }
    auto opened = std::make_unique<sqlite_store>(absolute, listener, std::move(lock));
    if (!opened->start(error)) {
        return nullptr;
    }
    return opened;
}

std::unique_ptr<result_reader> open_reader(const std::string& directory, std::string& error) {
    auto reader = std::make_unique<sqlite_reader>();
    return reader->open(directory, error) ? std::move(reader) : nullptr;
}
