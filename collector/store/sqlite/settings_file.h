/* settings.db as a file: made, opened, looked at, taken over from an earlier version, set aside
 * when it is damaged, followed when another takes its place. What is in it: sqlite_settings.h. */
#ifndef VINDRAL_COLLECTOR_SETTINGS_FILE_H
#define VINDRAL_COLLECTOR_SETTINGS_FILE_H

#include "store/settings.h"
#include "store/sqlite/database.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>

/* A fact: 1 when the first call of settings::admit_at_first() is over. */
inline constexpr char admitted_at_first[] = "admitted_at_first";

class settings_file {
public:
    settings_file(const std::string& directory, settings::tell_function tell);
    bool open(std::string& note, std::string& error);
    uint64_t version(); /* of settings */

    settings_file(const settings_file&) = delete;
    settings_file& operator=(const settings_file&) = delete;

protected:
    ~settings_file() = default;

    /* The turn of one call: what it has to tell is told behind it. */
    class turn {
    public:
        explicit turn(settings_file& of) : of_(of), lock_(of.mutex_) {}
        ~turn();
        turn(const turn&) = delete;
        turn& operator=(const turn&) = delete;

    private:
        settings_file& of_;
        std::unique_lock<std::mutex> lock_;
    };

    /* --- within a turn --- */
    /* Ahead of everything else. Clears `error`. */
    bool ready(std::string& error);
    /* False; `error` says what went wrong last. No statement that has a row may be alive. */
    bool fail(std::string& error);
    /* `work` in one transaction. False as well when it left `wanted` as it was, with nothing
     * changed; `error` is what it made of it then. With `quietly` version() stays. */
    bool change(const std::function<bool(bool& wanted)>& work, std::string& error,
                bool quietly = false);
    bool run(const std::string& sql) { return database_exec(db_.get(), sql); }
    sqlite3* db() const { return db_.get(); }

private:
    enum class state { good, damaged, unusable };
    struct file_id {
        dev_t device = 0;
        ino_t inode = 0;
        bool operator==(const file_id& other) const {
            return device == other.device && inode == other.inode;
        }
    };

    bool make_file(std::string& error);
    state open_file(std::string& error);
    state look_at(std::string& error);
    bool make_tables();
    bool take_over();
    bool is_beside_damaged() const;
    bool is_beside_authority() const;
    bool set_aside(std::string& note, std::string& error);
    std::optional<int64_t> number(const char* sql);
    file_id on_disk() const;

    const std::string directory_, path_;
    const settings::tell_function tell_;
    std::mutex mutex_;
    std::string untold_; /* a line for `tell` */
    database db_;
    bool is_begun_ = false; /* by the last open() */
    file_id file_;
    int64_t data_version_ = -1; /* as SQLite counts the changes of others */
    uint64_t changes_ = 0;      /* of anybody, and files that took the place */
};

#endif
