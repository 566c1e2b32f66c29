/* Does what a history says with the states of agents, without disk and clock, and prints what
 * became of them. tests/system/test_states.py writes the histories, and knows what is to be
 * printed.
 *
 * A history is lines on standard input; `now` is of the clock that never jumps, `time` of the one
 * that does, AGENT a number:
 *
 *   follow NOW POLL CHECK PLANNED [TYPE/NUMBER...]   what is to come
 *   own AGENT NOW POLL CHECK PLANNED [TYPE/NUMBER...]   what is to come of that agent
 *   block NOW TIME AGENT BYTES IS_FIRST   a block, or a slice of one; the bytes follow the line
 *   again NOW TIME AGENT BYTES            the same block as before
 *   heard NOW TIME AGENT                  a poll whose block could not be stored
 *   look NOW TIME MOST                    who is overdue, so many agents at a time
 *   pause NOW                             nothing could be stored
 *   start NOW                             the collector was started again
 *   show                                  states and ledger
 *   flush                                 prints a line with a full stop, and all that waits
 *
 * Printed are changes of state, each with the number of the line that made it. Between the lines
 * of a history every agent's state is kept packed, as the store keeps it. */
#include "state/agent_state.h"
#include "state/expectations.h"
#include "state/take.h"
#include "state/watch.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

struct stored {
    std::string packed;
    std::map<int64_t, hour_counts> ledger;
};

unsigned long line_number = 0;
expectations plans;
watch on_watch(0);
std::map<int64_t, stored> agents;
std::map<std::tuple<int64_t, uint32_t, std::optional<int32_t>>, int64_t> ids;
agent_state under_way; /* one for all agents, as the store has it */
outcome out;
int64_t next_row = 0;

[[noreturn]] void fail(const std::string& why) {
    fprintf(stderr, "state_driver: line %lu: %s\n", line_number, why.c_str());
    exit(1);
}

int64_t number(const char*& at) {
    char* end;
    int64_t value = strtoll(at, &end, 10);
    if (end == at) {
        fail("no number");
    }
    at = end;
    return value;
}

std::string key_text(uint32_t type, std::optional<int32_t> test) {
    return std::to_string(type) + "/" + (test ? std::to_string(*test) : "-");
}

stored& open_agent(int64_t id) {
    stored& found = agents[id];
    if (!under_way.unpack(found.packed) && !found.packed.empty()) {
        fail("a state that was packed cannot be unpacked");
    }
    return found;
}

void add(std::map<int64_t, hour_counts>& ledger, const hour_counts& counts) {
    hour_counts& sum = ledger[counts.hour];
    sum.received += counts.received;
    sum.repeated += counts.repeated;
    sum.missing += counts.missing;
}

void close_agent(int64_t id, stored& into) {
    for (const change& c : out.changes) {
        std::string message = c.message;
        std::replace(message.begin(), message.end(), '\n', '|');
        printf("%lu %" PRId64 " %s %" PRId64 " %s %s %s\n", line_number, id,
               c.of_agent ? "agent" : key_text(c.type, c.number).c_str(), c.time,
               std::string(state_word(c.from)).c_str(), std::string(state_word(c.to)).c_str(),
               message.c_str());
    }
    for (const hour_counts& hour : out.hours) {
        add(into.ledger, hour);
    }
    out.clear();
    under_way.pack(into.packed);
    agent_state copy;
    if (!copy.unpack(into.packed)) {
        fail("a state that was packed cannot be unpacked");
    }
}

const expected& plan_of(int64_t agent) {
    return plans.of("", std::to_string(agent));
}

patience patience_at(int64_t agent, int64_t now) {
    const expected& plan = plan_of(agent);
    return {.interval = plan.at(now).check, .stale_after = plan.stale_after(now)};
}

std::vector<decoded_record> decode(const std::string& block) {
    std::vector<decoded_record> found;
    block_reader reader(block);
    while (reader.next()) {
        if (!reader.good) {
            fail("no record: " + reader.reason);
        }
        found.push_back({reader.current, summarize(reader.current)});
    }
    return found;
}

std::string read_bytes(int64_t bytes) {
    std::string block(static_cast<size_t>(bytes), '\0');
    if (fread(block.data(), 1, block.size(), stdin) != block.size()) {
        fail("it ends in a block");
    }
    return block;
}

void hear(int64_t id, int64_t now, int64_t time) {
    if (on_watch.heard(id, now)) {
        take_heard(under_way, time, out);
    }
}

void take_block(const char* at) {
    int64_t now = number(at), time = number(at), id = number(at), bytes = number(at);
    bool is_first = number(at) != 0;
    std::string block = read_bytes(bytes);
    std::vector<decoded_record> records = decode(block);
    stored& agent = open_agent(id);
    if (is_first) {
        hear(id, now, time);
    }
    std::vector<size_t> places;
    take_results(under_way, records, time, patience_at(id, now), out, places);
    if (places.size() != records.size()) {
        fail("not a place for each record");
    }
    next_row++;
    for (size_t i = 0; i < records.size(); i++) {
        const record_summary& what = records[i].summary;
        if (is_inventory(what)) {
            if (places[i] != SIZE_MAX) {
                fail("an inventory has a place");
            }
            continue;
        }
        if (places[i] >= under_way.tests.size() ||
            under_way.tests[places[i]].key() != std::pair(what.type, what.test)) {
            fail("a record is not at its place");
        }
        test_status& test = under_way.tests[places[i]];
        int64_t& known = ids[{id, test.type, test.number}];
        if (test.id == 0) {
            if (known != 0) {
                fail("a test was forgotten");
            }
            known = static_cast<int64_t>(ids.size());
            test.id = known;
        }
        if (test.id != known) {
            fail("the id of another test");
        }
        test.block = next_row;
        if (what.test) {
            on_watch.came(id, {what.type, *what.test}, now);
        }
    }
    if (!std::is_sorted(
            under_way.tests.begin(), under_way.tests.end(),
            [](const test_status& a, const test_status& b) { return a.key() < b.key(); })) {
        fail("tests are not in order");
    }
    close_agent(id, agent);
}

void take_again(const char* at) {
    int64_t now = number(at), time = number(at), id = number(at);
    std::string block = read_bytes(number(at));
    std::vector<decoded_record> records = decode(block);
    stored& agent = open_agent(id);
    hear(id, now, time);
    take_repetition(under_way, records, time, out);
    close_agent(id, agent);
}

void only_hear(const char* at) {
    int64_t now = number(at), time = number(at), id = number(at);
    stored& agent = open_agent(id);
    hear(id, now, time);
    close_agent(id, agent);
}

void look(const char* at) {
    int64_t now = number(at), time = number(at);
    auto most = static_cast<size_t>(number(at));
    std::vector<watch::overdue> all, some;
    do {
        some.clear();
        on_watch.find_overdue(plan_of, now, most, some);
        if (some.size() > most) {
            fail("more agents than asked for");
        }
        all.insert(all.end(), some.begin(), some.end());
    } while (!some.empty());
    std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return std::pair(a.agent, a.silent) < std::pair(b.agent, b.silent);
    });
    for (watch::overdue& each : all) {
        stored& agent = open_agent(each.agent);
        if (each.silent) {
            take_silence(under_way, time, out);
        }
        std::sort(each.tests.begin(), each.tests.end());
        take_stale(under_way, each.tests, time, out);
        take_gone(under_way, each.gone, time, out);
        close_agent(each.agent, agent);
    }
}

void start(const char* at) {
    int64_t now = number(at);
    on_watch = watch(now);
    for (auto& [id, agent] : agents) {
        open_agent(id);
        on_watch.know(id, under_way.silent, now);
        for (const test_status& test : under_way.tests) {
            if (test.number) {
                on_watch.know(id, {test.type, *test.number},
                              test.now == state::stale     ? watch::standing::stale
                              : test.now == state::unknown ? watch::standing::gone
                                                           : watch::standing::awaited,
                              now);
            }
        }
    }
}

plan_summary plan_from(const char* at) {
    plan_summary summary;
    summary.every.poll = static_cast<int32_t>(number(at));
    summary.every.check = static_cast<int32_t>(number(at));
    summary.is_planned = number(at) != 0;
    while (*at == ' ') {
        auto type = static_cast<uint32_t>(number(at));
        at++;
        summary.tests.emplace_back(type, static_cast<int32_t>(number(at)));
    }
    return summary;
}

void follow(const char* at) {
    int64_t now = number(at);
    plans.follow(plan_from(at), now);
}

void follow_own(const char* at) {
    const std::string agent = std::to_string(number(at));
    int64_t now = number(at);
    const plan_summary summary = plan_from(at);
    const expectations::own one{.account = "", .agent = agent, .plan = &summary};
    plans.follow({&one, 1}, now);
}

void show() {
    for (auto& [id, agent] : agents) {
        open_agent(id);
        printf("agent %" PRId64 " %s since %" PRId64 "\n", id,
               std::string(state_word(under_way.worst())).c_str(), under_way.since);
        for (const test_status& test : under_way.tests) {
            printf("test %" PRId64 " %s %s since %" PRId64 " time %" PRId64 " reached %" PRId64
                   " received %" PRId64 " location %d shown %s since %" PRId64 "\n",
                   id, key_text(test.type, test.number).c_str(),
                   std::string(state_word(test.now)).c_str(), test.since, test.time, test.reached,
                   test.received, test.location.value_or(-1),
                   std::string(state_word(shown_state(under_way, test))).c_str(),
                   shown_since(under_way, test));
        }
        std::map<int64_t, hour_counts> ledger = agent.ledger;
        add(ledger, under_way.counts);
        for (const auto& [hour, counts] : ledger) {
            if (counts.received + counts.repeated + counts.missing != 0) {
                printf("hour %" PRId64 " %" PRId64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", id,
                       hour, counts.received, counts.repeated, counts.missing);
            }
        }
    }
}

} // namespace

int main() {
    static char line[1 << 16];
    static char output[1 << 16];
    setvbuf(stdout, output, _IOFBF, sizeof output);
    static const std::pair<const char*, void (*)(const char*)> steps[] = {
        {"block", take_block}, {"again", take_again}, {"heard", only_hear}, {"look", look},
        {"follow", follow},    {"start", start},      {"own", follow_own},
    };
    while (fgets(line, sizeof line, stdin) != nullptr) {
        line_number++;
        line[strcspn(line, "\n")] = '\0';
        const char* at = line + strcspn(line, " ");
        std::string word(line, static_cast<size_t>(at - line));
        auto step = std::find_if(std::begin(steps), std::end(steps),
                                 [&](const auto& s) { return word == s.first; });
        if (step != std::end(steps)) {
            step->second(at);
        } else if (word == "pause") {
            on_watch.pause(number(at));
        } else if (word == "show") {
            show();
        } else if (word == "flush") {
            printf(".\n");
            fflush(stdout);
        } else {
            fail("what is \"" + word + "\"?");
        }
    }
    return 0;
}
