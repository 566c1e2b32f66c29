/* What is in settings.db: tokens, facts, identities, enrolments, secrets, the fleet. A source each.
 */
#ifndef VINDRAL_COLLECTOR_SQLITE_SETTINGS_H
#define VINDRAL_COLLECTOR_SQLITE_SETTINGS_H

#include "store/settings.h"
#include "store/sqlite/settings_file.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class sqlite_settings : public settings, private settings_file {
public:
    using settings_file::open;
    using settings_file::settings_file;

    uint64_t version() override { return settings_file::version(); }

    /* settings_tokens.cpp */
    bool add_token(const stored_token& what, int64_t& id, std::string& error) override;
    bool drop_token(int64_t id, std::string& error) override;
    bool for_each_token(const std::function<void(const stored_token&)>& each,
                        std::string& error) override;
    bool find_token(const token_hash& hash, int64_t now, std::optional<stored_token>& found,
                    std::string& error) override;

    /* settings_agents.cpp */
    bool for_each_identity(const std::function<void(const stored_identity&)>& each,
                           std::string& error) override;
    bool put_identity(const stored_identity& what, std::string& error) override;
    bool drop_identity(std::string_view account, std::string_view agent,
                       std::string& error) override;
    bool change_identity(std::string_view account, std::string_view agent,
                         const std::function<bool(stored_identity&)>& change,
                         std::string& error) override;
    bool admit_at_first(const std::vector<std::pair<std::string, std::string>>& names, int64_t now,
                        size_t& admitted, std::string& error) override;
    bool add_enrolment(const stored_enrolment& what, std::string& error) override;
    bool open_enrolment(const token_hash& hash, const token_hash& key, std::string_view account,
                        std::string_view agent, int64_t now, opened& what, stored_enrolment& found,
                        std::string& error) override;
    bool drop_enrolments(std::string_view account, std::string_view agent,
                         std::string& error) override;
    bool for_each_enrolment(const std::function<void(const stored_enrolment&)>& each,
                            std::string& error) override;

    /* settings_secrets.cpp */
    bool put_secret(const stored_secret& what, std::string& error) override;
    bool drop_secret(std::string_view name, std::string& error) override;
    bool for_each_secret(const std::function<void(const stored_secret&)>& each,
                         std::string& error) override;

    /* settings_fleet.cpp */
    bool keep_fleet(const fleet_copy& what, std::string& error) override;
    bool read_fleet_copy(std::optional<fleet_copy>& found, std::string& error) override;

private:
    /* The rows of a query, all read before `each` gets the first: it may ask for more. `read` is
     * false for what nobody of ours wrote. */
    template <typename Row>
    bool each_row(std::string_view sql, bool (*read)(const statement&, Row&),
                  const std::function<void(const Row&)>& each, std::string& error) {
        std::vector<Row> all;
        {
            const turn mine(*this);
            if (!ready(error)) {
                return false;
            }
            statement rows(db(), sql);
            int result;
            while ((result = rows.step()) == SQLITE_ROW) {
                Row row;
                if (read(rows, row)) {
                    all.push_back(std::move(row));
                }
            }
            if (result != SQLITE_DONE) {
                rows = statement();
                return fail(error);
            }
        }
        for (const Row& row : all) {
            each(row);
        }
        return true;
    }

    bool find_identity(stored_identity& what);
    bool write_identity(const stored_identity& what);
    bool find_enrolment(const token_hash& hash, std::optional<stored_enrolment>& found);
    bool write_enrolment(const stored_enrolment& what);
};

inline std::string_view bytes_of(const token_hash& hash) {
    return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

/* False when it is none. */
inline bool read_hash(std::string_view bytes, token_hash& out) {
    if (bytes.size() != out.size()) {
        return false;
    }
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

#endif
