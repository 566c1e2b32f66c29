#include "store/sqlite/database.h"

std::string database_path(const std::string& directory) {
    return directory + "/results.db";
}

bool database_exec(sqlite3* db, const std::string& sql) {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

statement::statement(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* handle = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &handle, nullptr);
    handle_.reset(handle);
}

statement& statement::bound(int result) {
    bind_result_ = bind_result_ == SQLITE_OK ? result : bind_result_;
    return *this;
}

statement& statement::bind(int64_t value) {
    return bound(sqlite3_bind_int64(handle_.get(), ++bound_, value));
}

statement& statement::bind(std::optional<int64_t> value) {
    return value ? bind(*value) : bound(sqlite3_bind_null(handle_.get(), ++bound_));
}

statement& statement::bind_text(std::string_view value) {
    return bound(sqlite3_bind_text64(handle_.get(), ++bound_, value.data(), value.size(),
                                     SQLITE_STATIC, SQLITE_UTF8));
}

statement& statement::bind_blob(std::string_view value) {
    return bound(
        sqlite3_bind_blob64(handle_.get(), ++bound_, value.data(), value.size(), SQLITE_STATIC));
}

statement& statement::bind_unfilled_blob(size_t bytes) {
    return bound(sqlite3_bind_zeroblob64(handle_.get(), ++bound_, bytes));
}

int statement::step() {
    return bind_result_ == SQLITE_OK ? sqlite3_step(handle_.get()) : bind_result_;
}

void statement::reset() {
    sqlite3_reset(handle_.get());
    bound_ = 0;
    bind_result_ = SQLITE_OK;
}

bool statement::run() {
    int result = step();
    reset();
    return result == SQLITE_DONE;
}

std::string_view statement::bytes(int column) const {
    const void* data = sqlite3_column_blob(handle_.get(), column);
    size_t size = static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column));
    return data != nullptr ? std::string_view(static_cast<const char*>(data), size)
                           : std::string_view();
}

bool database_fill_blob(sqlite3* db, const std::string& table, const char* column,
                        std::string_view bytes) {
    sqlite3_blob* blob = nullptr;
    bool ok =
        sqlite3_blob_open(db, "main", table.c_str(), column, sqlite3_last_insert_rowid(db), 1,
                          &blob) == SQLITE_OK &&
        sqlite3_blob_write(blob, bytes.data(), static_cast<int>(bytes.size()), 0) == SQLITE_OK;
    return sqlite3_blob_close(blob) == SQLITE_OK && ok;
}

static bool read_number(sqlite3* db, const char* sql, int64_t& number, std::string& error) {
    statement query(db, sql);
    if (query.ok() && query.row()) {
        number = query.integer(0);
        return true;
    }
    error = sqlite3_errmsg(db);
    return false;
}

bool database_check(sqlite3* db, database_layout& layout, std::string& error) {
    int64_t version, application, objects;
    if (!read_number(db, "PRAGMA user_version", version, error) ||
        !read_number(db, "PRAGMA application_id", application, error) ||
        !read_number(db, "SELECT count(*) FROM sqlite_schema", objects, error)) {
        return false;
    }
    if (version == 0 && application == 0 && objects == 0) {
        layout = database_layout::none;
        return true;
    }
    if (application != database_application_id) {
        error = "it is a database of another program";
        return false;
    }
    if (version < 1 || version > database_version) {
        error = "its layout has version " + std::to_string(version) +
                ", this program knows version " + std::to_string(database_version);
        return false;
    }
    layout = version == database_version ? database_layout::current : database_layout::old;
    return true;
}

bool database_open_reading(const std::string& directory, database& db, std::string& error) {
    std::string path = database_path(directory), reason;
    sqlite3* handle = nullptr;
    int result =
        sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    db.reset(handle);
    if (result != SQLITE_OK) {
        error = path + ": " + sqlite3_errstr(result);
        return false;
    }
    sqlite3_busy_timeout(handle, 2000);
    database_layout layout{};
    if (!database_exec(handle, "BEGIN") || !database_check(handle, layout, reason)) {
        reason = reason.empty() ? sqlite3_errmsg(handle) : reason;
    } else if (layout == database_layout::none) {
        reason = "there is nothing in it";
    } else if (layout == database_layout::old) {
        reason = "its layout is that of an earlier version; a start of the collector renews it";
    }
    error = reason.empty() ? "" : path + ": " + reason;
    return reason.empty();
}

/* No constraint of ours can be broken by what is stored: an index that has lost a row does it. */
bool database_is_damaged(int result) {
    int primary = result & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_CONSTRAINT;
}

bool database_days(sqlite3* db, std::vector<std::string>& tables) {
    statement query(db, "SELECT name FROM sqlite_schema WHERE type = 'table' AND name GLOB "
                        "'results_[0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]' ORDER BY name");
    if (!query.ok()) {
        return false;
    }
    int result;
    while ((result = query.step()) == SQLITE_ROW) {
        tables.emplace_back(query.bytes(0));
    }
    return result == SQLITE_DONE;
}

bool database_set_fact(sqlite3* db, const char* name, int64_t value) {
    statement replace(db, "INSERT OR REPLACE INTO facts VALUES (?, ?)");
    return replace.bind_text(name).bind(value).run();
}

std::optional<int64_t> database_fact(sqlite3* db, const char* name) {
    statement select(db, "SELECT value FROM facts WHERE name = ?");
    bool found = select.bind_text(name).row();
    return found ? std::optional(select.integer(0)) : std::nullopt;
}
