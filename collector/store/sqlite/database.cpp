#include "store/sqlite/database.h"

bool database_exec(sqlite3* db, const std::string& sql) {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

statement::statement(sqlite3* db, std::string_view sql) {
    sqlite3_stmt* handle = nullptr;
    prepared_ =
        sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), 0, &handle, nullptr);
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

/* A null pointer would be bound as NULL. */
static const char* address_of(std::string_view value) {
    return value.data() != nullptr ? value.data() : "";
}

statement& statement::bind_text(std::string_view value) {
    return bound(sqlite3_bind_text64(handle_.get(), ++bound_, address_of(value), value.size(),
                                     SQLITE_STATIC, SQLITE_UTF8));
}

statement& statement::bind_blob(std::string_view value) {
    return bound(sqlite3_bind_blob64(handle_.get(), ++bound_, address_of(value), value.size(),
                                     SQLITE_STATIC));
}

statement& statement::bind_unfilled_blob(size_t bytes) {
    return bound(sqlite3_bind_zeroblob64(handle_.get(), ++bound_, bytes));
}

int statement::step() {
    if (handle_ == nullptr) {
        return prepared_ != SQLITE_OK ? prepared_ : SQLITE_MISUSE;
    }
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

statement_cache::taken statement_cache::take(sqlite3* db, std::string_view sql) {
    auto found = kept_.find(sql);
    if (found == kept_.end()) {
        map fresh;
        found = fresh.try_emplace(std::string(sql), db, sql).first;
        return {*this, fresh.extract(found)};
    }
    return {*this, kept_.extract(found)};
}

void statement_cache::put_back(map::node_type&& node, unsigned epoch) {
    node.mapped().reset();
    if (epoch == epoch_ && node.mapped().ok()) {
        if (kept_.size() >= most) {
            kept_.clear();
        }
        kept_.insert(std::move(node));
    }
}

void statement_cache::clear() {
    kept_.clear();
    epoch_++;
}

bool database_fill_blob(sqlite3* db, const std::string& table, const char* column,
                        std::span<const std::string_view> pieces) {
    sqlite3_blob* blob = nullptr;
    bool ok = sqlite3_blob_open(db, "main", table.c_str(), column, sqlite3_last_insert_rowid(db), 1,
                                &blob) == SQLITE_OK;
    int64_t at = 0;
    for (auto piece = pieces.begin(); ok && piece != pieces.end(); ++piece) {
        ok = sqlite3_blob_write(blob, piece->data(), static_cast<int>(piece->size()),
                                static_cast<int>(at)) == SQLITE_OK;
        at += static_cast<int64_t>(piece->size());
    }
    return sqlite3_blob_close(blob) == SQLITE_OK && ok;
}

/* No constraint of ours can be broken by what is stored: an index that has lost a row does it. */
bool database_is_damaged(int result) {
    int primary = result & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_CONSTRAINT;
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
