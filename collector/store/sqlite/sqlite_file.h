/* The writer's file, results.db, and what becomes of it: made and opened, renewed in its place when
 * the version before made it, renamed when an earlier one did (earlier.h), left when somebody
 * removes or replaces it, set aside when it is damaged. What is known of the agents goes into the
 * file that follows.
 *
 * In the state directory: results.db (with -wal and -shm beside it while it is open), lock (held by
 * the collector that uses the directory) and results-damaged-*.db, what results.db was before it
 * was damaged. The files are for their owner alone, and so is the directory when it is made here.
 *
 * Damage is not got over by opening the file anew. When it makes no sense although it was opened
 * anew, it gets another name and a new one is begun. Nothing is deleted, and a file that is damaged
 * again and again does not fill the disk: there are never more than max_set_aside of them. */
#ifndef VINDRAL_COLLECTOR_SQLITE_FILE_H
#define VINDRAL_COLLECTOR_SQLITE_FILE_H

#include "base/files.h"
#include "store/engine.h"
#include "store/sqlite/carried.h"
#include "store/sqlite/database.h"
#include "store/sqlite/layout.h"

#include <string>
#include <sys/types.h>

/* One thread. Statements have to be gone before the file is closed, left or set aside. */
class sqlite_file {
public:
    /* The directory's path is absolute. */
    explicit sqlite_file(const engine_options& options) : options_(options) {}

    /* Makes the directory, and takes it for this process until the end. */
    bool take_directory(std::string& error);

    /* On a full disk it may be that it can only be read: until settle() did what is to be done
     * before anything is written, and answered. Its failure is that of the handle. */
    bool open(std::string& error);
    bool settle();
    void close() { db_.reset(); }
    bool is_open() const { return db_ != nullptr; }
    sqlite3* handle() const { return db_.get(); }
    std::string path() const;

    /* Of the last open() or refuse() that failed; a result code of SQLite. */
    int failure() const { return failure_; }
    /* Closes a file that turned out to be of no use after open(); `error` is why. */
    void refuse(std::string& error);

    /* Whether somebody removed, replaced or emptied the file, or took its log away: what goes
     * there could never be read. leave() closes it then. A log that was taken away has to go into
     * the file first, which fails while somebody reads it. */
    bool was_replaced() const { return look() != found::in_place; }
    bool can_be_left() { return look() != found::without_log || empty_log(); }
    void leave();

    /* Gives the damaged file and what belongs to it other names. False when that cannot be done,
     * and why is added to `error`; the file then stays in its place. */
    bool set_aside(std::string& error);

    /* An earlier version's file turned out to be damaged: it gets a second name, and is still there
     * by that when the first is dropped. */
    void keep_damaged_earlier(const std::string& reason);
    bool drop_earlier();

    /* Grows whenever another file takes the place. */
    unsigned generation() const { return generation_; }

private:
    enum class found { in_place, removed, replaced, emptied, without_log };
    found look() const;
    bool empty_log();
    bool lock_is_held(std::string& error);
    bool open_handle(std::string& error);
    bool open_layout(database_layout& found, std::string& error);
    bool make(std::string& error);
    bool renew();
    void forget_earlier_that_is_done();

    const engine_options options_;
    unique_fd lock_;
    database db_;
    dev_t device_ = 0; /* which file db_ is */
    ino_t inode_ = 0, wal_inode_ = 0;
    unsigned generation_ = 0;
    bool is_settled_ = false;
    int failure_ = SQLITE_OK;
    std::string damaged_earlier_; /* the name that it gets when it could have no second one */
    carried_rows carried_;        /* of a file that is gone, for the one that follows */
};

#endif
