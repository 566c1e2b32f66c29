#include "store/sqlite/earlier.h"

#include "base/files.h"
#include "store/sqlite/layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/* A position is the number of the day, from 1, and the row's id. */
constexpr int id_bits = 40;

class earlier_file final : public earlier_results {
public:
    explicit earlier_file(const std::function<void(const std::string&)>& damaged)
        : damaged_(damaged) {}

    bool open(const std::string& directory, std::string& error) {
        place_ = earlier_path(directory);
        return open_earlier(directory, db_, error) && read_days(error);
    }
    std::string place() const override { return place_; }
    int64_t count() override;
    bool for_each_record(int64_t position, const std::function<bool(const earlier_record&)>& each,
                         std::string& error) override;

private:
    bool read_days(std::string& error);
    void note_damage();

    std::string place_;
    database db_;
    std::vector<std::string> tables_; /* in the order of arrival */
    std::function<void(const std::string&)> damaged_;
};

/* Days that the first version made have no turn. */
bool earlier_file::read_days(std::string& error) {
    bool ok = database_tables(db_.get(), results_prefix, 8, tables_);
    std::vector<std::string> by_turn;
    statement rows(db_.get(), "SELECT 'results_' || day FROM days ORDER BY turn");
    while (rows.row()) {
        std::string table(rows.bytes(0));
        if (auto found = std::find(tables_.begin(), tables_.end(), table); found != tables_.end()) {
            tables_.erase(found);
            by_turn.push_back(table);
        }
    }
    tables_.insert(tables_.end(), by_turn.begin(), by_turn.end());
    error = ok ? "" : place_ + ": " + sqlite3_errmsg(db_.get());
    return ok;
}

/* Rows of a day are numbered from 1 without gaps. */
int64_t earlier_file::count() {
    int64_t all = 0;
    for (const std::string& table : tables_) {
        statement last(db_.get(), "SELECT max(id) FROM " + table);
        all += last.row() ? last.integer(0) : 0;
    }
    return all;
}

bool earlier_file::for_each_record(int64_t position,
                                   const std::function<bool(const earlier_record&)>& each,
                                   std::string& error) {
    error.clear();
    bool go_on = true;
    auto number = std::max<int64_t>(position >> id_bits, 1);
    int64_t after = position & ((int64_t{1} << id_bits) - 1);
    for (; go_on && number <= static_cast<int64_t>(tables_.size()); number++, after = 0) {
        statement rows(db_.get(), "SELECT id, agent, received, record FROM " +
                                      tables_[static_cast<size_t>(number - 1)] +
                                      " WHERE id > ? ORDER BY id");
        rows.bind(after);
        int result = SQLITE_ROW;
        while (go_on && (result = rows.step()) == SQLITE_ROW) {
            go_on = each({.position = number << id_bits | rows.integer(0),
                          .agent = rows.integer(1),
                          .received = rows.integer(2),
                          .record = rows.bytes(3)});
        }
        if (go_on && database_is_damaged(result)) {
            note_damage();
        } else if (go_on && result != SQLITE_DONE) {
            error = place_ + ": " + sqlite3_errmsg(db_.get());
            return false;
        }
    }
    return true;
}

/* Once. */
void earlier_file::note_damage() {
    if (damaged_) {
        std::exchange(damaged_, nullptr)(sqlite3_errmsg(db_.get()));
    }
}

/* ---- what stands in column latest of an agent, in layout 2 ---- */

/* Seven bits a byte, the lowest first. */
bool unpack(std::string_view& from, uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64 && !from.empty(); shift += 7) {
        auto byte = static_cast<unsigned char>(from.front());
        from.remove_prefix(1);
        value |= uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) {
            return true;
        }
    }
    return false;
}

/* Small numbers of either sign are short. */
bool unpack_signed(std::string_view& from, uint64_t& value) {
    bool whole = unpack(from, value);
    value = value >> 1 ^ ((value & 1) != 0 ? ~uint64_t{0} : 0);
    return whole;
}

/* For each test: what it has of number (1), time (2) and status (4); type; arrival, as the
 * difference to the test before; row; and what it has. */
void unpack_latest(std::string_view packed, std::vector<left_test>& tests) {
    tests.clear();
    uint64_t received = 0;
    while (!packed.empty()) {
        uint64_t has, type, difference, row, number = 0, other;
        if (!unpack(packed, has) || !unpack(packed, type) || !unpack_signed(packed, difference) ||
            !unpack(packed, row) || ((has & 1) != 0 && !unpack_signed(packed, number)) ||
            ((has & 2) != 0 && !unpack_signed(packed, other)) ||
            ((has & 4) != 0 && !unpack_signed(packed, other))) {
            return;
        }
        received += difference;
        tests.push_back({static_cast<uint32_t>(type), static_cast<int32_t>(number),
                         static_cast<int64_t>(received)});
    }
}

} // namespace

bool for_each_earlier_agent(
    const std::string& directory,
    const std::function<void(std::string_view account, std::string_view agent,
                             std::span<const left_test> tests)>& each,
    std::string& error) {
    error.clear();
    database db;
    if (!earlier_is_there(directory) || !open_earlier(directory, db, error)) {
        if (!earlier_is_there(directory)) { /* not any more */
            error.clear();
        }
        return error.empty();
    }
    statement agents(db.get(), "SELECT account, name, latest FROM agents");
    if (!agents.ok()) { /* the first version's have no such column */
        return true;
    }
    std::vector<left_test> tests;
    int result = SQLITE_ROW;
    while ((result = agents.step()) == SQLITE_ROW) {
        unpack_latest(agents.bytes(2), tests);
        each(agents.bytes(0), agents.bytes(1), tests);
    }
    if (result != SQLITE_DONE && !database_is_damaged(result)) {
        error = earlier_path(directory) + ": " + sqlite3_errmsg(db.get());
    }
    return error.empty();
}

std::string earlier_path(const std::string& directory) {
    return directory + "/results-earlier.db";
}

bool earlier_is_there(const std::string& directory) {
    struct stat status;
    return stat(earlier_path(directory).c_str(), &status) == 0;
}

/* Out of WAL mode the file is whole without others beside it. That needs the file for itself. */
bool rename_to_earlier(const std::string& directory, database& db, std::string& error) {
    std::string from = database_path(directory), to = earlier_path(directory);
    if (earlier_is_there(directory)) {
        error = from + " was written by an earlier version, and so was " + to +
                ", which is not taken over yet: move one of them away";
        return false;
    }
    {
        statement leave_wal(db.get(), "PRAGMA journal_mode = DELETE");
        if (!leave_wal.row() || leave_wal.bytes(0) != "delete") {
            error = from + ": " + sqlite3_errmsg(db.get());
            return false;
        }
    }
    db.reset();
    if (rename(from.c_str(), to.c_str()) != 0 || !sync_directory(directory)) {
        error = system_error(from + " cannot be renamed to " + to);
        return false;
    }
    return true;
}

bool open_earlier(const std::string& directory, database& db, std::string& error) {
    std::string path = earlier_path(directory);
    sqlite3* handle = nullptr;
    int result =
        sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    db.reset(handle);
    database_layout layout{};
    if (result != SQLITE_OK) {
        error = sqlite3_errstr(result);
    } else if (database_check(handle, layout, error) && layout != database_layout::earlier) {
        error = "its layout is not that of an earlier version";
    }
    if (error.empty()) {
        sqlite3_extended_result_codes(handle, 1);
        sqlite3_busy_timeout(handle, 2000);
        return true;
    }
    error = path + ": " + error;
    return false;
}

std::unique_ptr<earlier_results>
read_earlier(const std::string& directory,
             const std::function<void(const std::string& reason)>& damaged, std::string& error) {
    error.clear();
    auto file = std::make_unique<earlier_file>(damaged);
    return file->open(directory, error) ? std::move(file) : nullptr;
}

bool remove_earlier(const std::string& directory) {
    return (unlink(earlier_path(directory).c_str()) == 0 || errno == ENOENT) &&
           sync_directory(directory);
}
