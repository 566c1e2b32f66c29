#include "fleet/assigned.h"

#include "ingest/hash.h"
#include "plan/placeholder.h"

#include <cmath>
#include <cstring>
#include <set>
#include <tuple>

namespace {

using serial_function = std::function<uint64_t(std::string_view)>;

constexpr size_t npos = SIZE_MAX;
constexpr size_t most_removed = 200; /* remembered of those that are over */
constexpr double same_whole = 0.005; /* of it */

bool is_same_kind(const test_kind* one, const test_kind* other) {
    return one == other ||
           (one != nullptr && other != nullptr && one->record->code == other->record->code);
}

/* ---- which test is which ---- */

/* For each wanted test the one that it is now, by place among those that are there, both by name.
 * npos: it is new. */
class identities {
public:
    identities(const std::vector<assigned_test>& now, const std::vector<wanted_test>& wanted)
        : now_(now), wanted_(wanted), claimed_(wanted.size(), npos) {
        claim();
        drop_needless();
        taken_.insert(claimed_.begin(), claimed_.end());
    }

    size_t of(size_t wanted) const {
        const fleet_test& test = *wanted_[wanted].what;
        size_t place = claimed_[wanted] != npos ? claimed_[wanted] : own(test.name);
        bool free = place != npos && (place == claimed_[wanted] || !taken_.contains(place));
        return free && is_same_kind(now_[place].kind, test.kind) ? place : npos;
    }

private:
    size_t own(std::string_view name) const {
        auto found = std::lower_bound(
            now_.begin(), now_.end(), name,
            [](const assigned_test& test, std::string_view n) { return test.name < n; });
        return found != now_.end() && found->name == name
                   ? static_cast<size_t>(found - now_.begin())
                   : npos;
    }

    void claim() {
        std::set<size_t> given;
        for (size_t i = 0; i < wanted_.size(); ++i) {
            const fleet_test& test = *wanted_[i].what;
            if (test.was.empty() || test.was == test.name) {
                continue;
            }
            size_t before = own(test.was), present = own(test.name);
            bool heeded = present != npos && now_[present].was == test.was;
            if (before != npos && !heeded && is_same_kind(now_[before].kind, test.kind) &&
                given.insert(before).second) {
                claimed_[i] = before;
            }
        }
    }

    /* Of a test that is there under both names when the old name is to go on as it is. */
    void drop_needless() {
        for (bool again = true; again;) {
            again = false;
            for (size_t i = 0; i < wanted_.size(); ++i) {
                if (claimed_[i] != npos && own(wanted_[i].what->name) != npos &&
                    goes_on(wanted_[i].what->was)) {
                    claimed_[i] = npos;
                    again = true;
                }
            }
        }
    }

    bool goes_on(std::string_view name) const {
        auto found = std::lower_bound(
            wanted_.begin(), wanted_.end(), name,
            [](const wanted_test& test, std::string_view n) { return test.what->name < n; });
        return found != wanted_.end() && found->what->name == name &&
               claimed_[static_cast<size_t>(found - wanted_.begin())] == npos;
    }

    const std::vector<assigned_test>& now_;
    const std::vector<wanted_test>& wanted_;
    std::vector<size_t> claimed_;
    std::set<size_t> taken_;
};

/* ---- what a test is ---- */

std::vector<std::string> secrets_of(const wanted_test& test) {
    std::vector<std::string> found;
    for (const std::string& field : test.its_fields()) {
        for (std::string& name : secrets_in(field)) {
            if (std::find(found.begin(), found.end(), name) == found.end()) {
                found.push_back(std::move(name));
            }
        }
    }
    return found;
}

void append_text(std::string& to, std::string_view text) {
    to += std::to_string(text.size());
    to += ':';
    to += text;
}

test_digest digest_of(const wanted_test& test, const std::vector<std::string>& secrets,
                      const serial_function& serial_of) {
    std::string all = std::to_string(test.what->kind->record->code) + ' ';
    for (const std::string& field : test.its_fields()) {
        append_text(all, field);
    }
    for (const std::string& secret : secrets) {
        append_text(all, secret);
        all += std::to_string(serial_of(secret)) + ' ';
    }
    thread_local running_hash hash;
    hash.add(all);
    block_hash whole = hash.finish();
    test_digest digest;
    memcpy(digest.data(), whole.data(), digest.size());
    return digest;
}

std::string why_not(const wanted_test& test, const std::vector<std::string>& secrets,
                    const serial_function& serial_of) {
    if (!test.impossible.empty()) {
        return test.impossible;
    }
    for (const std::string& secret : secrets) {
        if (serial_of(secret) == 0) {
            return "the secret " + secret + " is not set";
        }
    }
    return "";
}

/* "there is no disk /x; there are /, /home": what there is comes and goes, and is no news. */
bool is_same_reason(std::string_view one, std::string_view other) {
    return one.substr(0, one.find(';')) == other.substr(0, other.find(';'));
}

/* ---- what is said of a change ---- */

std::string percent_text(double share) {
    char text[40];
    snprintf(text, sizeof(text), "%.6g %%", share);
    return text;
}

std::string about(const wanted_test& test) {
    const std::optional<double>& least = test.what->free_share;
    if (!least) {
        return "";
    }
    std::string share = percent_text(*least);
    if (test.whole_gb <= 0) {
        return share + " once the size of the disk is known";
    }
    char whole[40];
    snprintf(whole, sizeof(whole), "%.4g", test.whole_gb);
    return share + " of " + whole + " GB";
}

using shown_list = std::vector<std::pair<std::string, std::string>>;

const std::string* value_in(const shown_list& list, std::string_view key) {
    auto found =
        std::find_if(list.begin(), list.end(), [=](const auto& each) { return each.first == key; });
    return found != list.end() ? &found->second : nullptr;
}

std::vector<fleet_change::field> differences(const shown_list& from, const shown_list& to) {
    std::vector<fleet_change::field> found;
    for (const auto& [key, value] : to) {
        const std::string* before = value_in(from, key);
        if (before == nullptr || *before != value) {
            found.push_back({key, before != nullptr ? *before : "", value});
        }
    }
    for (const auto& [key, value] : from) {
        if (value_in(to, key) == nullptr) {
            found.push_back({key, value, ""});
        }
    }
    return found;
}

/* Why a test of which the file says the same as before is another. */
std::string about_change(const assigned_test& before, const wanted_test& now,
                         const std::vector<std::string>& secrets) {
    if (before.its_fields() == now.its_fields()) {
        std::string names;
        for (const std::string& secret : secrets) {
            names += names.empty() ? "" : ", ";
            names += secret;
        }
        return names.empty() ? "" : "another value of the secret " + names;
    }
    if (!now.found.empty() && before.found != now.found) {
        return "it is " + now.found + " now";
    }
    return now.what->free_share ? about(now) : "something of it that is not shown has changed";
}

/* ---- assigning ---- */

class assignment {
public:
    assignment(assigned_agent& now, const wanted_agent& wanted, int32_t revision,
               const serial_function& serial_of)
        : now_(now), wanted_(wanted), revision_(revision), serial_of_(serial_of),
          old_(std::move(now.tests)) {
        now_.tests.clear();
    }

    std::vector<fleet_change> make() {
        set_intervals();
        std::vector<bool> goes_on(old_.size(), false);
        identities who(old_, wanted_.tests);
        std::vector<size_t> places;
        for (size_t i = 0; i < wanted_.tests.size(); ++i) {
            places.push_back(who.of(i));
            if (places[i] != npos) {
                goes_on[places[i]] = true;
            }
        }
        begin_numbers();
        for (size_t i = 0; i < old_.size(); ++i) {
            if (!goes_on[i]) {
                remove(old_[i]);
            }
        }
        now_.tests.reserve(wanted_.tests.size());
        for (size_t i = 0; i < wanted_.tests.size(); ++i) {
            take(wanted_.tests[i], places[i] != npos ? &old_[places[i]] : nullptr);
        }
        forget_removed();
        note_newest();
        std::stable_sort(changes_.begin(), changes_.end(),
                         [](const fleet_change& one, const fleet_change& other) {
                             return std::tuple(std::string_view(one.test), rank(one.action)) <
                                    std::tuple(std::string_view(other.test), rank(other.action));
                         });
        return std::move(changes_);
    }

private:
    static int rank(change_action action) {
        return action == change_action::remove ? 0 : action == change_action::rename ? 1 : 2;
    }

    fleet_change& note(const assigned_test& test, change_action action) {
        changes_.push_back({.test = test.name,
                            .action = action,
                            .type = test.kind != nullptr ? test.kind->record->code : 0,
                            .number = test.number});
        return changes_.back();
    }

    void set_intervals() {
        fleet_change change{.action = change_action::intervals, .reason = wanted_.about_intervals};
        set_interval("poll", now_.poll, wanted_.poll, now_.poll_revision, change);
        set_interval("check", now_.check, wanted_.check, now_.check_revision, change);
        if (!change.fields.empty()) {
            changes_.push_back(std::move(change));
        }
    }

    void set_interval(const char* name, int32_t& now, int32_t wanted, int32_t& since,
                      fleet_change& change) const {
        if (now != wanted) {
            change.fields.push_back(
                {name, now == 0 ? "" : std::to_string(now) + "s", std::to_string(wanted) + "s"});
            now = wanted;
            since = revision_;
        }
    }

    /* Whatever was told of the agent: no number is given again. */
    void begin_numbers() {
        for (const assigned_test& test : old_) {
            note_number(test.number);
        }
        for (const removed_test& test : now_.removed) {
            note_number(test.number);
        }
    }

    void note_number(int32_t number) {
        if (number >= now_.next_number && number <= highest_believed) {
            now_.next_number = number + 1;
        }
    }

    void remove(assigned_test& test) {
        note(test, change_action::remove);
        take_away(test);
    }

    void take_away(assigned_test& test) {
        if (test.number != 0) {
            now_.removed.push_back({.name = test.name,
                                    .type = test.kind->record->code,
                                    .number = test.number,
                                    .revision = revision_});
        }
        test.number = test.added = test.revision = test.confirmed = test.returned = 0;
        test.digest = {};
    }

    void take(const wanted_test& wanted, assigned_test* before) {
        std::vector<std::string> secrets = secrets_of(wanted);
        std::string why = why_not(wanted, secrets, serial_of_);
        bool is_new = before == nullptr;
        assigned_test& test =
            now_.tests.emplace_back(is_new ? assigned_test() : std::move(*before));
        if (!is_new && test.name != wanted.what->name) {
            std::string was = std::exchange(test.name, wanted.what->name);
            note(test, change_action::rename).was = std::move(was);
        }
        test.name = wanted.what->name;
        test.kind = wanted.what->kind;
        if (why.empty()) {
            send(test, wanted, secrets);
        } else {
            keep_back(test, wanted, why, is_new);
        }
        test.group = wanted.what->group;
        test.was = wanted.what->was;
        test.what = wanted.what;
        test.fields = wanted.fields;
        if (!wanted.found.empty()) {
            test.found = wanted.found;
            test.whole_gb = wanted.whole_gb;
        }
    }

    void send(assigned_test& test, const wanted_test& wanted,
              const std::vector<std::string>& secrets) {
        test_digest digest = digest_of(wanted, secrets, serial_of_);
        if (test.number == 0) {
            if (now_.next_number >= INT32_MAX) {
                keep_back(test, wanted, "there is no number left for another test", false);
                return;
            }
            test.number = now_.next_number++;
            test.added = revision_;
            fleet_change& change = note(test, change_action::add);
            change.reason = about(wanted);
            change.fields = differences({}, wanted.what->shown);
        } else if (!test.impossible.empty() || digest != test.digest) {
            fleet_change& change = note(test, change_action::change);
            if (test.what) { /* otherwise what it was is not known */
                change.fields = differences(test.what->shown, wanted.what->shown);
                change.reason =
                    change.fields.empty() ? about_change(test, wanted, secrets) : about(wanted);
            }
            if (!test.impossible.empty()) {
                change.reason = "it can be sent again";
                test.returned = revision_;
            }
        } else {
            return;
        }
        test.revision = revision_;
        test.digest = digest;
        test.impossible.clear();
    }

    void keep_back(assigned_test& test, const wanted_test& wanted, const std::string& why,
                   bool is_new) {
        bool is_there = test.number != 0;
        if (is_there && !wanted.impossible.empty() && !wanted.waits) {
            note(test, change_action::remove);
            take_away(test);
            is_there = false;
            is_new = true;
        }
        if (is_new || !is_same_reason(test.impossible, why)) {
            fleet_change& change =
                note(test, is_there ? change_action::change : change_action::add);
            change.impossible = why;
            if (!is_there || test.what) {
                change.fields =
                    differences(is_there ? test.what->shown : shown_list(), wanted.what->shown);
            }
        }
        test.impossible = why;
    }

    /* Those that are over, the oldest first, once they are many. */
    void forget_removed() {
        std::vector<removed_test>& removed = now_.removed;
        size_t over = static_cast<size_t>(std::count_if(
            removed.begin(), removed.end(), [](const removed_test& test) { return test.is_over; }));
        std::erase_if(removed, [&](const removed_test& test) {
            return test.is_over && over > most_removed && over-- > 0;
        });
    }

    void note_newest() {
        int32_t newest = std::max(now_.newest, now_.intervals_revision());
        for (const assigned_test& test : now_.tests) {
            newest = std::max(newest, test.revision);
        }
        for (const removed_test& test : now_.removed) {
            newest = std::max(newest, test.revision);
        }
        now_.newest = newest;
    }

    assigned_agent& now_;
    const wanted_agent& wanted_;
    const int32_t revision_;
    const serial_function& serial_of_;
    std::vector<assigned_test> old_;
    std::vector<fleet_change> changes_;
};

} // namespace

std::vector<fleet_change> assign(assigned_agent& now, const wanted_agent& wanted, int32_t revision,
                                 const serial_function& serial_of) {
    return assignment(now, wanted, revision, serial_of).make();
}

std::string_view action_word(change_action a) {
    switch (a) {
    case change_action::add:
        return "add";
    case change_action::change:
        return "change";
    case change_action::rename:
        return "rename";
    case change_action::remove:
        return "remove";
    case change_action::intervals:
        return "intervals";
    }
    return "";
}

bool note_whole(assigned_test& test, double whole_gb) {
    if (!std::isfinite(whole_gb) || whole_gb <= 0 ||
        std::abs(whole_gb - test.whole_gb) <= same_whole * test.whole_gb) {
        return false;
    }
    test.whole_gb = whole_gb;
    return true;
}

bool is_mounted(const assigned_test& test, const agent_inventory& has) {
    if (!has.file_systems) {
        return true; /* as far as anybody knows */
    }
    const std::vector<std::string>& there = *has.file_systems;
    return std::find(there.begin(), there.end(), test.found) != there.end();
}

assigned_test* assigned_agent::find(uint32_t type, int32_t number) {
    auto found = std::find_if(tests.begin(), tests.end(), [=](const assigned_test& test) {
        return number != 0 && test.number == number && test.kind != nullptr &&
               test.kind->record->code == type;
    });
    return found != tests.end() ? &*found : nullptr;
}

assigned_test* assigned_agent::find(std::string_view name) {
    auto found = std::lower_bound(
        tests.begin(), tests.end(), name,
        [](const assigned_test& test, std::string_view n) { return test.name < n; });
    return found != tests.end() && found->name == name ? &*found : nullptr;
}

std::map<std::string, found_before, std::less<>> assigned_agent::found() const {
    std::map<std::string, found_before, std::less<>> all;
    for (const assigned_test& test : tests) {
        if (!test.found.empty()) {
            all.emplace(test.name, found_before{test.found, test.whole_gb});
        }
    }
    return all;
}
