/* The engine over SQLite: one connection that writes. Any error ends the transaction and closes the
 * file; the next one opens it anew. A full disk, a read-only file system or a lock that somebody
 * holds is thus got over without help; damage is recover()'s. */
#include "base/text.h"
#include "store/engine.h"
#include "store/sqlite/database.h"
#include "store/sqlite/latest.h"
#include "store/sqlite/sqlite_file.h"

#include <algorithm>
#include <map>

namespace {

constexpr size_t large_record = 1 << 20; /* bytes: is not copied for the database */

class sqlite_engine final : public engine {
public:
    explicit sqlite_engine(const engine_options& options) : options_(options), file_(options) {}

    bool start(std::string& error) {
        bool ok = file_.take_directory(reason_) && open();
        error = ok ? "" : reason_;
        return ok;
    }

    void look_after() override;
    bool begin() override { return (is_open() || open()) && go_on(execute("BEGIN IMMEDIATE")); }
    bool commit() override;
    bool find_agent(std::string_view account, std::string_view agent, int64_t received,
                    stored_agent& found) override;
    bool append(int64_t received, std::span<const decoded_record> results) override;
    bool append_undecodable(int64_t received, const undecodable_piece& piece) override;
    bool end_block(const agent_news& news, std::string_view last_block) override;
    void give_up() override;
    bool recover() override;
    const std::string& reason() const override { return reason_; }
    unsigned generation() const override { return file_.generation(); }

    bool is_open() const override { return file_.is_open(); }
    bool days_changed() override { return std::exchange(days_changed_, false); }
    drop_outcome days(std::vector<std::string>& by_turn) override;
    drop_outcome drop_day(const std::string& day, std::span<const fact> facts) override;
    std::optional<int64_t> read_fact(const char* name) override {
        return database_fact(file_.handle(), name);
    }
    bool set_fact(const char* name, int64_t value) override {
        return database_set_fact(file_.handle(), name, value);
    }

private:
    bool open();
    void release();
    bool execute(const char* sql) { return database_exec(file_.handle(), sql); }
    bool go_on(bool ok);
    bool prepare();
    bool use_day(int64_t received);
    bool append(int64_t received, const decoded_record& result);
    int read_days(std::vector<std::string>& by_turn);
    bool forget_all_but(const std::vector<std::string>& days);
    drop_outcome outcome_of(int result);

    const engine_options options_;
    sqlite_file file_;
    int failure_ = SQLITE_OK; /* a result code, and the reason for it in words */
    std::string reason_;
    int damaged_ = 0; /* transactions in turn that met damage */

    statement select_agent_, insert_agent_, update_agent_, insert_undecodable_, insert_result_;
    std::string day_; /* insert_result_ is for this one */
    bool days_changed_ = false;

    /* The agent found last. */
    int64_t agent_ = 0;
    std::string last_block_, packed_;
    latest_results latest_;
};

bool sqlite_engine::open() {
    bool ok = file_.open(reason_);
    if (ok && !prepare()) {
        reason_.clear();
        file_.refuse(reason_); /* while what failed can still be asked for its reason */
        release();
        ok = false;
    }
    failure_ = ok ? SQLITE_OK : file_.failure();
    return ok;
}

void sqlite_engine::release() {
    for (statement* s :
         {&select_agent_, &insert_agent_, &update_agent_, &insert_undecodable_, &insert_result_}) {
        *s = statement();
    }
    day_.clear();
}

bool sqlite_engine::prepare() {
    sqlite3* db = file_.handle();
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

void sqlite_engine::look_after() {
    damaged_ = 0;
    if (is_open() && file_.was_replaced()) {
        release();
        file_.leave();
    }
}

/* Ends the transaction unless all is well. */
bool sqlite_engine::go_on(bool ok) {
    if (!ok) {
        int result = sqlite3_errcode(file_.handle());
        failure_ = result != SQLITE_OK ? result : SQLITE_ERROR;
        reason_ = sqlite3_errmsg(file_.handle());
        give_up();
    }
    return ok;
}

void sqlite_engine::give_up() {
    if (is_open()) {
        execute("ROLLBACK");
        release();
        file_.close();
    }
}

bool sqlite_engine::commit() {
    bool ok = go_on(execute("COMMIT"));
    damaged_ = ok ? 0 : damaged_;
    return ok;
}

/* Damage may be in what was read before only: it has to show in a file opened anew. */
bool sqlite_engine::recover() {
    if (!database_is_damaged(failure_) || ++damaged_ > 2) {
        return false;
    }
    return damaged_ == 1 || file_.set_aside(reason_);
}

bool sqlite_engine::find_agent(std::string_view account, std::string_view agent, int64_t received,
                               stored_agent& found) {
    latest_.unpack({});
    last_block_.clear();
    select_agent_.bind_text(account).bind_text(agent);
    int result = select_agent_.step();
    if (result == SQLITE_ROW) {
        agent_ = select_agent_.integer(0);
        last_block_ = select_agent_.bytes(1);
        latest_.unpack(select_agent_.bytes(2));
    }
    select_agent_.reset();
    bool ok = result == SQLITE_ROW;
    if (result == SQLITE_DONE) {
        insert_agent_.bind_text(account).bind_text(agent).bind(received);
        ok = insert_agent_.run();
        agent_ = sqlite3_last_insert_rowid(file_.handle());
    }
    found = {agent_, last_block_};
    return go_on(ok);
}

bool sqlite_engine::use_day(int64_t received) {
    std::string day = utc_day(received);
    if (day == day_) {
        return true;
    }
    std::string table = "results_" + day;
    statement turn(file_.handle(), "INSERT OR REPLACE INTO days "
                                   "SELECT ?, 1 + coalesce(max(turn), 0) FROM days");
    if (!database_exec(
            file_.handle(),
            "CREATE TABLE IF NOT EXISTS " + table +
                " (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
                " agent INTEGER NOT NULL, type INTEGER NOT NULL, test INTEGER,"
                " location INTEGER, time INTEGER, status INTEGER, record BLOB NOT NULL)") ||
        !turn.bind_text(day).run()) {
        return false;
    }
    days_changed_ = true;
    insert_result_ =
        statement(file_.handle(), "INSERT INTO " + table +
                                      " (received, agent, type, test, location, time, status,"
                                      " record) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    day_ = insert_result_.ok() ? day : "";
    return insert_result_.ok();
}

bool sqlite_engine::append(int64_t received, const decoded_record& result) {
    const record_summary& summary = result.summary;
    insert_result_.bind(received).bind(agent_).bind(int64_t{summary.type});
    insert_result_.bind(summary.test).bind(summary.location).bind(summary.time);
    insert_result_.bind(summary.status);
    std::string_view raw = result.content.raw;
    bool large = raw.size() > large_record;
    if (large) {
        insert_result_.bind_unfilled_blob(raw.size());
    } else {
        insert_result_.bind_blob(raw);
    }
    if (!insert_result_.run() ||
        (large && !database_fill_blob(file_.handle(), "results_" + day_, "record", raw))) {
        return false;
    }
    latest_.put(summary, received, sqlite3_last_insert_rowid(file_.handle()));
    return true;
}

bool sqlite_engine::append(int64_t received, std::span<const decoded_record> results) {
    return go_on(use_day(received) &&
                 std::all_of(results.begin(), results.end(), [&](const decoded_record& result) {
                     return append(received, result);
                 }));
}

bool sqlite_engine::append_undecodable(int64_t received, const undecodable_piece& piece) {
    insert_undecodable_.bind(received).bind(agent_);
    insert_undecodable_.bind(int64_t(piece.offset)).bind(int64_t(piece.bytes));
    return go_on(insert_undecodable_.bind_text(piece.reason).bind_text(piece.kept_as).run());
}

bool sqlite_engine::end_block(const agent_news& news, std::string_view last_block) {
    latest_.pack(packed_);
    update_agent_.bind(news.received).bind_blob(last_block).bind_blob(packed_);
    return go_on(update_agent_.bind_text(news.address).bind_text(news.version).bind(agent_).run());
}

/* ---- days ---- */

drop_outcome sqlite_engine::outcome_of(int result) {
    if (result == SQLITE_OK) {
        return drop_outcome::done;
    }
    reason_ = sqlite3_errstr(result);
    return database_is_damaged(result) ? drop_outcome::damaged : drop_outcome::failed;
}

drop_outcome sqlite_engine::days(std::vector<std::string>& by_turn) {
    return outcome_of(read_days(by_turn));
}

/* SQLITE_OK, or why they cannot be read. */
int sqlite_engine::read_days(std::vector<std::string>& by_turn) {
    statement query(file_.handle(), "SELECT day FROM days JOIN sqlite_schema "
                                    "ON name = 'results_' || day AND type = 'table' ORDER BY turn");
    int result = SQLITE_ERROR;
    while (query.ok() && (result = query.step()) == SQLITE_ROW) {
        by_turn.emplace_back(query.bytes(0));
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

drop_outcome sqlite_engine::drop_day(const std::string& day, std::span<const fact> facts) {
    sqlite3* db = file_.handle();
    std::vector<std::string> kept;
    bool ok = database_exec(db, "BEGIN IMMEDIATE; DROP TABLE results_" + day) &&
              statement(db, "DELETE FROM days WHERE day = ?").bind_text(day).run() &&
              read_days(kept) == SQLITE_OK && forget_all_but(kept) &&
              std::all_of(facts.begin(), facts.end(),
                          [&](const fact& f) { return set_fact(f.first, f.second); }) &&
              database_exec(db, "COMMIT");
    int result = ok ? SQLITE_OK : sqlite3_errcode(db);
    if (!ok) {
        database_exec(db, "ROLLBACK");
        result = result != SQLITE_OK ? result : SQLITE_ERROR;
    }
    return outcome_of(result);
}

/* What points to days that are gone. */
bool sqlite_engine::forget_all_but(const std::vector<std::string>& days) {
    sqlite3* db = file_.handle();
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
    latest_results latest;
    while (select.ok() && (result = select.step()) == SQLITE_ROW) {
        latest.unpack(select.bytes(1));
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

std::unique_ptr<engine> open_engine(const engine_options& options, std::string& error) {
    if (options.directory.empty()) {
        error = "no state directory is named";
        return nullptr;
    }
    auto opened = std::make_unique<sqlite_engine>(options);
    return opened->start(error) ? std::move(opened) : nullptr;
}
