#include "plan/logins.h"

#include <algorithm>

using protocol::command_def;
using protocol::command_effect;

namespace {

/* The first command for which `wanted` holds, or null. */
template <typename Wanted>
const command_def* find_command_if(Wanted wanted) {
    const command_def* found =
        std::find_if(std::begin(protocol::commands), std::end(protocol::commands), wanted);
    return found != std::end(protocol::commands) ? found : nullptr;
}

/* The list of an agent whose tests bring results of this type, 0 for none. */
uint32_t list_of(uint32_t type) {
    const command_def* found = find_command_if([=](const command_def& c) {
        return c.does == command_effect::adds && type != 0 && c.results == type;
    });
    return found != nullptr ? found->list : 0;
}

/* An agent logs an error when it is to remove one that it does not have. */
bool must_be_there(uint32_t list) {
    return list == protocol::disk.code || list == protocol::process.code ||
           list == protocol::network.code || list == protocol::discovery.code;
}

size_t bytes_of(const std::vector<plan_line>& lines) {
    size_t bytes = 0;
    for (const plan_line& line : lines) {
        bytes += line.text.size() + 1;
    }
    return bytes;
}

} // namespace

void login_plan::prepare(const std::vector<checked_line>& lines,
                         const std::map<test_place, bool>& at_agents, std::set<test_place> meant,
                         bool sure) {
    meant_ = std::move(meant);
    sure_ = sure;
    uses_.clear();
    planned_.clear();
    for (const checked_line& line : lines) {
        bool there = planned_.contains(line.test);
        bool sent = line.does == command_effect::none || line.adds() != there;
        uses_.push_back({sent, false, line.test});
        if (line.adds()) {
            planned_.insert(line.test);
        } else if (line.removes()) {
            planned_.erase(line.test);
        }
    }
    std::set<test_place> added;
    for (size_t i = 0; i < lines.size(); ++i) {
        const test_place& test = lines[i].test;
        if (lines[i].adds() && added.insert(test).second) {
            uses_[i].twice = test.list != protocol::snmp.code &&
                             test.list != protocol::discovery.code && planned_.contains(test);
        }
    }
    gone_.clear();
    for (const auto& [test, there] : at_agents) {
        /* Agents keep all SNMP tests in one list, and no modify command makes another kind of a
         * walk. Of other kinds, an add and a remove command in the plan do it without a word. */
        bool stays = there && (!sure_ || meant_.contains(test));
        if (test.list == protocol::snmp.code ? planned_.contains(test) || !stays
                                             : !added.contains(test) && !stays) {
            gone_.insert(test);
        }
    }
}

std::string login_plan::text_for_new(const std::vector<plan_line>& lines,
                                     const secret_tests& secrets, bool proven) const {
    std::string text;
    text.reserve(bytes_of(lines));
    for (size_t i = 0; i < lines.size(); ++i) {
        if (uses_[i].sent && secrets.is_told(i, proven)) {
            secrets.append(text, lines[i]);
        }
    }
    return text;
}

/* Whether a test that the agent has reported is to be removed, and is not among those gone. */
bool login_plan::is_to_go(const test_place& test, const known_test& known) const {
    if (test.list == 0 || gone_.contains(test) || (must_be_there(test.list) && !known.recent)) {
        return false;
    }
    return planned_.contains(test) ? test.list != protocol::discovery.code
                                   : sure_ && !meant_.contains(test);
}

std::string login_plan::text_for_running(const std::vector<plan_line>& lines,
                                         const std::vector<known_test>& known,
                                         const secret_tests& secrets, bool proven) const {
    std::string text;
    text.reserve(2 * bytes_of(lines));
    for (const test_place& test : gone_) {
        if (!secrets.is_kept_back(test, proven)) { /* it would not come again */
            append_removal(text, test);
        }
    }
    std::set<test_place> removed; /* besides these */
    for (const known_test& reported : known) {
        test_place test{list_of(reported.type), reported.id};
        if (is_to_go(test, reported) && !secrets.is_kept_back(test, proven) &&
            removed.insert(test).second) {
            append_removal(text, test);
        }
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        if (!uses_[i].sent || !secrets.is_told(i, proven)) {
            continue;
        }
        secrets.append(text, lines[i]);
        if (uses_[i].twice && !removed.contains(uses_[i].test)) {
            secrets.append(text, lines[i], 'M');
        }
    }
    return text;
}
