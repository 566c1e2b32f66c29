/* An agent as the protocol's table describes it, and random histories of what may happen between
 * it and a fleet: the file is edited, tests are renamed, move between groups, disks and interfaces
 * come and go, secrets are set and removed, answers are lost before or after they were executed,
 * agents and the collector are started anew. In the end the agent has what is wanted. */
#include "fleet/assigned.h"

#include "fleet_tests.h"
#include "plan/line.h"
#include "plan/placeholder.h"

#include <random>
#include <set>

namespace {

/* ---- the agent ---- */

struct model_agent {
    struct test {
        uint32_t results = 0;
        int32_t revision = 0;
        strings fields = {}; /* behind the location id */
        bool operator==(const test&) const = default;
    };
    std::map<test_place, test> tests = {};
    int32_t poll = 60, check = 0;
    size_t scans = 0, errors = 0;

    static bool complains(uint32_t list) {
        return list == protocol::process.code || list == protocol::network.code ||
               list == protocol::discovery.code;
    }

    void execute(const std::string& line) {
        command_line command = parse_line(line);
        ASSERT_EQ(why_refused(line, command), "") << line;
        ASSERT_EQ(line.find("${secret:"), line.npos) << line;
        if (command.command->does == protocol::command_effect::none) {
            int32_t seconds = 0;
            read_number(command.fields[2], seconds);
            (command.fields[0] == "POL" ? poll : check) = seconds;
            return;
        }
        test_place place = command.test();
        bool known = tests.contains(place);
        switch (command.command->does) {
        case protocol::command_effect::adds:
            errors += known && complains(place.list);
            if (!known) {
                set(place, command);
            }
            break;
        case protocol::command_effect::modifies:
            errors += !known && (complains(place.list) || place.list == protocol::disk.code);
            if (known) {
                set(place, command);
            }
            break;
        default:
            errors += !known && (complains(place.list) || place.list == protocol::disk.code);
            tests.erase(place);
        }
    }

    void execute_all(const std::string& text) {
        for (size_t from = 0, end; (end = text.find('\n', from)) != text.npos; from = end + 1) {
            execute(text.substr(from, end - from));
        }
    }

private:
    void set(const test_place& place, const command_line& command) {
        test& is = tests[place];
        is.results = command.results();
        read_number(command.fields[2], is.revision);
        is.fields.assign(command.fields.begin() + 3, command.fields.end());
        scans += place.list == protocol::discovery.code;
    }
};

/* ---- the world ---- */

class history {
public:
    explicit history(unsigned seed) : random_(seed) {
        proven_ = chance(70);
        about_secrets_ = proven_ && chance(20);
        edit();
        apply();
    }

    void step() {
        static const int on_secrets[] = {4, 4, 4, 6, 99, 99, 99};
        switch (about_secrets_ ? on_secrets[pick(7)] : pick(14)) {
        case 0:
        case 1:
            edit();
            break;
        case 2:
            rename();
            break;
        case 3:
            change_inventory();
            break;
        case 4:
            change_secrets();
            break;
        case 5:
            move_between_groups();
            break;
        case 6:
            agent_.tests.clear(); /* it is started anew */
            agent_.poll = 60;
            agent_.check = 0;
            is_logged_in_ = has_session_before_ = false;
            break;
        case 7: /* and the collector */
            restart_collector();
            break;
        case 8:
            if (chance(30)) {
                all_.intervals = {.poll = pick(3) + 30, .check = pick(3) + 30};
            }
            break;
        default:
            exchange();
        }
        if (chance(70)) {
            apply();
        }
        if (chance(20)) {
            repack();
        }
    }

    /* All goes well from now on. */
    void settle() {
        reliable_ = true;
        apply();
        for (int i = 0; i < 4; ++i) {
            exchange();
        }
        EXPECT_EQ(commands_after(now_, delivered_, proven_, expand_), "");
    }

    void check() {
        std::map<test_place, model_agent::test> wanted;
        for (const assigned_test& test : now_.tests) {
            bool secret = uses_secret(test);
            test_place place{test.kind->add->list, test.number};
            if (test.number == 0 || (secret && !proven_)) {
                continue;
            }
            if (!test.impossible.empty()) {
                /* The agent keeps what it has, or does not have it. */
                auto has = agent_.tests.find(place);
                if (has != agent_.tests.end()) {
                    EXPECT_LE(has->second.revision, test.revision);
                    wanted[place] = has->second;
                }
                continue;
            }
            model_agent::test& is = wanted[place];
            is.results = test.kind->record->code;
            is.revision = test.revision;
            for (const std::string& field : test.its_fields()) {
                is.fields.push_back(expanded(field).value_or("missing"));
            }
        }
        /* One that has not proven itself now may have had it before the test had secrets: none
         * here, as a history is proven or not from the beginning. */
        for (const auto& [place, test] : agent_.tests) {
            EXPECT_TRUE(wanted.contains(place)) << name_of(place) << " is too much";
        }
        for (const auto& [place, test] : wanted) {
            auto has = agent_.tests.find(place);
            if (has == agent_.tests.end()) {
                ADD_FAILURE() << name_of(place) << " is missing";
                continue;
            }
            EXPECT_EQ(has->second, test) << name_of(place) << ", revision " << has->second.revision
                                         << " instead of " << test.revision;
        }
        EXPECT_EQ(agent_.poll, now_.poll);
        EXPECT_EQ(agent_.check, now_.check);
        check_names();
    }

private:
    int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
    bool chance(int percent) { return pick(100) < percent; }

    /* ---- what is wanted ---- */

    std::string any_name() { return std::string(1, static_cast<char>('a' + pick(8))); }

    test_maker any_test(const std::string& name) {
        static const char* kinds[] = {"load",  "process", "network",   "disk", "disk",
                                      "mysql", "http",    "discovery", "snmp", "snmp table"};
        std::string kind = about_secrets_ ? "mysql" : kinds[pick(10)];
        test_maker test(name, kind);
        test.test.group = "own";
        if (kind == "disk") {
            static const char* places[] = {"/", "/a", "/b"};
            test.test.looks_for = test.test.fields[0] = places[pick(3)];
            if (chance(50)) {
                test.test.free_share = 10;
                test.test.fields[1] = "0";
            }
        } else if (kind == "network") {
            test.test.looks_for = test.test.fields[0] = chance(70) ? "eth0" : "eth10";
        } else if (kind == "mysql") {
            test.test.fields[4] = chance(50) ? "${secret:s}" : "${secret:t}";
        }
        test.test.fields.back() += std::to_string(pick(3));
        if (chance(20)) {
            test.test.was = any_name();
        }
        return test;
    }

    void edit() {
        for (int i = 0; i <= pick(3); ++i) {
            std::string name = any_name();
            if (chance(30)) {
                file_.erase(name);
            } else {
                file_.insert_or_assign(name, any_test(name));
            }
        }
    }

    void rename() {
        if (file_.empty()) {
            return;
        }
        auto which = std::next(file_.begin(), pick(static_cast<int>(file_.size())));
        std::string from = which->first, to = any_name();
        test_maker moved = which->second;
        if (auto there = file_.find(to); there != file_.end() && chance(50)) {
            test_maker other = there->second; /* they are exchanged */
            other.test.name = from;
            other.test.was = to;
            file_.insert_or_assign(from, other);
        } else {
            file_.erase(which);
        }
        moved.test.name = to;
        moved.test.was = from;
        file_.insert_or_assign(to, moved);
    }

    void move_between_groups() { in_group_ = !in_group_; }

    void change_inventory() {
        has_ = {};
        if (chance(90)) {
            has_.file_systems.emplace();
            for (const char* entry : {"/(/dev/sda|ext4)", "/a(/dev/sdb|ext4)", "/a(/dev/sdc|xfs)",
                                      "/b(/dev/sdd|ext4)"}) {
                if (chance(70)) {
                    has_.file_systems->push_back(entry);
                }
            }
        }
        if (chance(90)) {
            has_.interfaces.emplace();
            for (const char* name : {"eth1", "eth0", "eth10"}) {
                if (chance(60)) {
                    has_.interfaces->push_back(name);
                }
            }
        }
    }

    void change_secrets() {
        std::string name = chance(50) ? "s" : "t";
        if (chance(40)) {
            secrets_.erase(name);
        } else {
            ++serial_;
            secrets_[name] = {serial_, "value " + std::to_string(serial_)};
        }
    }

    void apply() {
        fleet all;
        all.intervals = all_.intervals;
        shared_tests tests;
        for (const auto& [name, maker] : file_) {
            tests.push_back(maker.make());
        }
        all.groups.push_back(group_of("own", {in_group_ ? "*" : "nobody"}, tests));
        assigned_agent before = now_;
        wanted_agent wanted = wanted_of(all, "me", "web-1", has_, now_.found());
        std::vector<fleet_change> changes =
            assign(now_, wanted, ++revision_, [this](std::string_view name) -> uint64_t {
                auto found = secrets_.find(name);
                return found != secrets_.end() ? found->second.first : 0;
            });
        note_numbers(before, changes);
        revision_ += pick(2);
        /* It is done at once. */
        std::string packed, again;
        now_.pack(packed);
        EXPECT_TRUE(assign(now_, wanted_of(all, "me", "web-1", has_, now_.found()), revision_ + 1,
                           [this](std::string_view name) -> uint64_t {
                               auto found = secrets_.find(name);
                               return found != secrets_.end() ? found->second.first : 0;
                           })
                        .empty());
        now_.pack(again);
        EXPECT_EQ(packed, again);
        names_.clear();
        for (const auto& [name, maker] : file_) {
            if (in_group_) {
                names_.push_back(name);
            }
        }
    }

    /* No number stands for another test, and no revision of it for another definition. */
    void note_numbers(const assigned_agent& before, const std::vector<fleet_change>& changes) {
        for (const assigned_test& test : now_.tests) {
            if (test.number == 0) {
                continue;
            }
            auto [known, is_new] = kinds_.emplace(test.number, test.kind);
            EXPECT_EQ(known->second, test.kind);
            EXPECT_FALSE(gone_.contains(test.number)) << test.number << " was given again";
            if (is_new) {
                EXPECT_EQ(test.revision, revision_);
                EXPECT_EQ(test.added, revision_);
                EXPECT_LT(highest_, test.number);
                highest_ = test.number;
            }
            if (!test.impossible.empty()) {
                continue;
            }
            strings fields = test.its_fields();
            auto [defined, first] = definitions_.emplace(std::pair(test.number, test.revision),
                                                         std::pair(fields, test.digest));
            EXPECT_EQ(defined->second, std::pair(fields, test.digest));
            if (first) {
                EXPECT_EQ(test.revision, revision_) << "what is new has a new revision";
            }
        }
        std::set<int32_t> present;
        for (const assigned_test& test : now_.tests) {
            present.insert(test.number);
        }
        for (const assigned_test& test : before.tests) {
            if (test.number != 0 && !present.contains(test.number)) {
                gone_.insert(test.number);
            }
        }
        bool is_other = now_.newest != before.newest;
        EXPECT_TRUE(!is_other || !changes.empty());
        EXPECT_LE(now_.newest, revision_);
    }

    void check_names() {
        strings names;
        for (const assigned_test& test : now_.tests) {
            names.push_back(test.name);
        }
        EXPECT_EQ(names, names_);
    }

    /* ---- what goes to and fro ---- */

    void repack() {
        std::string packed;
        now_.pack(packed);
        ASSERT_TRUE(now_.unpack(packed));
        apply(); /* what the tests are is known by the file alone */
    }

    void restart_collector() {
        repack();
        is_logged_in_ = false;
        has_session_before_ = !agent_.tests.empty() || has_session_before_;
    }

    void exchange() {
        if (now_.newest == 0) {
            return;
        }
        if (!reliable_ && chance(10)) {
            return;
        }
        if (is_logged_in_) {
            tell_results();
        }
        bool is_login = !is_logged_in_;
        bool has_run = has_session_before_ || !agent_.tests.empty();
        std::string text = is_login ? commands_for_login(now_, has_run, proven_, expand_)
                                    : commands_after(now_, delivered_, proven_, expand_);
        int32_t upto = now_.newest;
        int lost = reliable_ ? 0 : pick(6);
        if (lost == 1) {
            return; /* before it arrived */
        }
        agent_.execute_all(text);
        if (lost == 2) {
            return; /* nobody knows */
        }
        is_logged_in_ = true;
        has_session_before_ = false;
        delivered_ = upto;
    }

    void tell_results() {
        for (const auto& [place, test] : agent_.tests) {
            if (assigned_test* known = now_.find(test.results, place.id)) {
                if (test.revision <= known->revision && chance(80)) {
                    known->confirmed = std::max(known->confirmed, test.revision);
                }
            }
            if (test.results == protocol::disk.code && chance(30)) {
                if (assigned_test* known = now_.find(test.results, place.id)) {
                    note_whole(*known, 10 + pick(2));
                }
            }
        }
        for (removed_test& test : now_.removed) {
            const test_kind* kind = kind_of_record(test.type);
            test.is_over = test.is_over || (delivered_ >= test.revision &&
                                            !agent_.tests.contains({kind->add->list, test.number}));
        }
    }

    bool uses_secret(const assigned_test& test) const {
        return std::any_of(test.its_fields().begin(), test.its_fields().end(),
                           [](const std::string& field) { return !secrets_in(field).empty(); });
    }

    std::optional<std::string> expanded(std::string_view line) const {
        std::string text;
        placeholder at;
        size_t from = 0;
        for (; find_placeholder(line, from, at); from = at.end) {
            auto found = secrets_.find(at.name);
            if (found == secrets_.end()) {
                return std::nullopt;
            }
            text += line.substr(from, at.begin - from);
            text += found->second.second;
        }
        return text += line.substr(from);
    }

    std::mt19937 random_;
    bool proven_ = false, reliable_ = false;
    bool about_secrets_ = false; /* there are secrets, restarts and lost answers alone */

    std::map<std::string, test_maker> file_;
    fleet all_;
    bool in_group_ = true;
    agent_inventory has_;
    std::map<std::string, std::pair<uint64_t, std::string>, std::less<>> secrets_;
    uint64_t serial_ = 0;
    expand_function expand_ = [this](std::string_view line) { return expanded(line); };

    assigned_agent now_;
    int32_t revision_ = 0;
    strings names_;

    model_agent agent_;
    bool is_logged_in_ = false, has_session_before_ = false;
    int32_t delivered_ = 0;

    std::map<int32_t, const test_kind*> kinds_;
    std::set<int32_t> gone_;
    int32_t highest_ = 0;
    std::map<std::pair<int32_t, int32_t>, std::pair<strings, test_digest>> definitions_;
};

} // namespace

TEST(fleet_model, after_any_history_an_agent_has_what_is_wanted) {
    for (unsigned seed = 0; seed < 1000; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        history h(seed);
        for (int i = 0; i < 60; ++i) {
            h.step();
        }
        h.settle();
        h.check();
        if (HasFailure()) {
            break;
        }
    }
}
