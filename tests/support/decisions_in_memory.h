/* Identities, enrolments and secrets as settings.db keeps them, in memory: what is left are the
 * tokens. */
#ifndef DECISIONS_IN_MEMORY_H
#define DECISIONS_IN_MEMORY_H

#include "store/settings.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class decisions_in_memory : public settings {
public:
    bool keep_fleet(const fleet_copy& what, std::string& error) override {
        error = decisions_failure;
        if (error.empty()) {
            const int32_t newest = fleet ? fleet->newest : 0;
            fleet = what;
            fleet->newest = std::max(newest, what.newest);
        }
        return error.empty();
    }
    bool read_fleet_copy(std::optional<fleet_copy>& found, std::string& error) override {
        error = decisions_failure;
        found = fleet;
        return error.empty();
    }
    std::optional<fleet_copy> fleet;

    using name = std::pair<std::string, std::string>;

    bool for_each_identity(const std::function<void(const stored_identity&)>& each,
                           std::string& error) override {
        error = decisions_failure;
        for (const auto& [called, what] : identities) {
            each(what);
        }
        return error.empty();
    }
    bool put_identity(const stored_identity& what, std::string& error) override {
        error = decisions_failure;
        if (error.empty()) {
            identities[{what.account, what.agent}] = what;
            changed();
        }
        return error.empty();
    }
    bool drop_identity(std::string_view account, std::string_view agent,
                       std::string& error) override {
        error = decisions_failure;
        changed();
        return error.empty() && identities.erase({std::string(account), std::string(agent)}) > 0;
    }
    bool change_identity(std::string_view account, std::string_view agent,
                         const std::function<bool(stored_identity&)>& change,
                         std::string& error) override {
        error = decisions_failure;
        stored_identity what;
        const name called{account, agent};
        if (auto found = identities.find(called); found != identities.end()) {
            what = found->second;
        }
        what.account = account;
        what.agent = agent;
        if (!error.empty() || !change(what)) {
            return false;
        }
        identities[called] = what;
        changed();
        return true;
    }
    bool admit_at_first(const std::vector<name>& names, int64_t now, size_t& admitted,
                        std::string& error) override {
        error = decisions_failure;
        admitted = 0;
        if (!error.empty() || std::exchange(was_asked_, true)) {
            return error.empty();
        }
        for (const name& each : names) {
            stored_identity what;
            what.account = each.first;
            what.agent = each.second;
            what.admitted = now;
            admitted += identities.try_emplace(each, what).second ? 1 : 0;
        }
        changed();
        return true;
    }
    bool add_enrolment(const stored_enrolment& what, std::string& error) override {
        error = decisions_failure;
        if (error.empty()) {
            enrolments.push_back(what);
            changed();
        }
        return error.empty();
    }
    bool open_enrolment(const token_hash& hash, const token_hash& key, std::string_view account,
                        std::string_view agent, int64_t now, opened& what, stored_enrolment& found,
                        std::string& error) override {
        error = decisions_failure;
        what = opened::no_token;
        for (stored_enrolment& each : enrolments) {
            if (each.hash != hash) {
                continue;
            }
            found = each;
            what = now >= each.ends ? opened::late
                   : (!account.empty() && account != each.account) ||
                           (!agent.empty() && agent != each.agent)
                       ? opened::other_name
                   : each.key && *each.key != key ? opened::used
                                                  : opened::yes;
            if (what == opened::yes && each.generation == 0 && error.empty()) {
                changed();
                stored_identity& who = identities[{each.account, each.agent}];
                who.account = each.account;
                who.agent = each.agent;
                who.admitted = who.admitted != 0 ? who.admitted : now;
                who.revoked = 0;
                each.key = key;
                each.generation = ++who.highest;
                found = each;
            }
        }
        return error.empty();
    }
    bool drop_enrolments(std::string_view account, std::string_view agent,
                         std::string& error) override {
        error = decisions_failure;
        if (error.empty()) {
            changed();
            std::erase_if(enrolments, [&](const stored_enrolment& each) {
                return each.account == account && each.agent == agent && each.generation == 0;
            });
        }
        return error.empty();
    }
    bool for_each_enrolment(const std::function<void(const stored_enrolment&)>& each,
                            std::string& error) override {
        error = decisions_failure;
        for (const stored_enrolment& what : enrolments) {
            each(what);
        }
        return error.empty();
    }
    bool put_secret(const stored_secret& what, std::string& error) override {
        error = decisions_failure;
        if (error.empty()) {
            secrets[what.name] = what;
            secrets[what.name].serial = ++last_serial_;
            changed();
        }
        return error.empty();
    }
    bool drop_secret(std::string_view called, std::string& error) override {
        error = decisions_failure;
        changed();
        return error.empty() && secrets.erase(std::string(called)) > 0;
    }
    bool for_each_secret(const std::function<void(const stored_secret&)>& each,
                         std::string& error) override {
        error = decisions_failure;
        for (const auto& [called, what] : secrets) {
            each(what);
        }
        return error.empty();
    }

    uint64_t version() override { return version_; }
    void changed() { version_++; } /* also by who writes into these */

    std::map<name, stored_identity> identities;
    std::vector<stored_enrolment> enrolments;
    std::map<std::string, stored_secret> secrets;
    std::string decisions_failure; /* with which every call fails */

private:
    std::atomic<uint64_t> version_ = 1;
    bool was_asked_ = false;
    uint64_t last_serial_ = 0;
};

/* With tokens that nobody asks for. */
class decisions_alone : public decisions_in_memory {
public:
    bool add_token(const stored_token&, int64_t&, std::string&) override { return false; }
    bool drop_token(int64_t, std::string&) override { return false; }
    bool for_each_token(const std::function<void(const stored_token&)>&, std::string&) override {
        return false;
    }
    bool find_token(const token_hash&, int64_t, std::optional<stored_token>&,
                    std::string&) override {
        return false;
    }
};

#endif
