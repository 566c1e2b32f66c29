/* Stores a history of days within a second, by clocks of its own: for tests that end it at any
 * moment. tests/system/faults/test_host_store_killed.py writes the histories.
 *
 *   store_driver play STATE_DIR HISTORY DONE
 *   store_driver show STATE_DIR
 *   store_driver names STATE_DIR
 *
 * `play` does what the lines of HISTORY say. Those that it did are in DONE, which it extends, a
 * line with number and outcome for each, and are not done again. A block that is not in there is
 * handed in again, as an agent would that had no answer.
 *
 *   clock TIME               what the clocks show from now on
 *   block AGENT BYTES        a block; the bytes follow the line. Blocks that follow each other,
 * each of another agent, wait together settle DAY               until that day (days since the
 * epoch) is closed quiet N                  until what is kept stayed the same for N looks at it
 *   keep RAW FIVE HOUR EVENTS LEDGER   the days that are kept; the first line
 *
 * `show` prints all that is stored, so that two of it are the same where the same is stored.
 * `names` prints of each result, newest first, agent, test, location id, time, and the name and the
 * fields that the test had, with tabs between. */
#include "ingest/clock.h"
#include "ingest/ingest.h"
#include "state/history.h"
#include "store/engine.h"
#include "store/pack.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

std::atomic<int64_t> now = 0;
int64_t simulated_clock() {
    return now;
}
int64_t same_boot() {
    return 1;
}

[[noreturn]] void fail(const std::string& why) {
    fprintf(stderr, "store_driver: %s\n", why.c_str());
    exit(3);
}

int64_t number(const char*& at) {
    char* end;
    int64_t value = strtoll(at, &end, 10);
    if (end == at) {
        fail(std::string("no number: ") + at);
    }
    at = end;
    return value;
}

/* ---- play ---- */

class listener : public store_listener {
public:
    void on_record(const poll_block& /*from*/, const decoded_record& /*result*/) override {}
    void on_undecodable(const poll_block& /*from*/, size_t /*offset*/, size_t /*bytes*/,
                        const std::string& /*reason*/, const std::string& /*kept_as*/) override {}
    void on_problem(const std::string& text) override {
        fprintf(stderr, "told: %s\n", text.c_str());
    }
};

struct step {
    std::string word, rest, bytes;
};

std::vector<step> read_history(const char* path) {
    std::vector<step> steps;
    FILE* file = fopen(path, "rb");
    char line[256];
    while (file != nullptr && fgets(line, sizeof line, file) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        size_t word = strcspn(line, " ");
        step s{std::string(line, word), line + word, ""};
        if (s.word == "block") {
            const char* at = s.rest.c_str();
            number(at);
            s.bytes.resize(static_cast<size_t>(number(at)));
            if (fread(s.bytes.data(), 1, s.bytes.size(), file) != s.bytes.size()) {
                fail("the history ends in a block");
            }
        }
        steps.push_back(std::move(s));
    }
    if (file == nullptr || fclose(file) != 0 || steps.empty()) {
        fail("no history");
    }
    return steps;
}

/* Blocks that wait for their answers. */
class answers {
public:
    explicit answers(const char* path) : path_(path) {
        if (FILE* file = fopen(path, "r"); file != nullptr) {
            char line[64];
            size_t place;
            while (fgets(line, sizeof line, file) != nullptr) {
                /* The last line may be half there: it was not done. */
                if (strchr(line, '\n') != nullptr && sscanf(line, "%zu", &place) == 1) {
                    done_.insert(place);
                }
            }
            fclose(file);
        }
        file_ = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        /* Behind a line that is half there. */
        note_raw("\n");
    }
    ~answers() { close(file_); }
    answers(const answers&) = delete;
    answers& operator=(const answers&) = delete;

    bool is_done(size_t place) const { return done_.count(place) != 0; }
    void note(size_t place, const char* outcome) {
        note_raw(std::to_string(place) + " " + outcome + "\n");
    }
    void begin() {
        std::lock_guard lock(mutex_);
        waiting_++;
    }
    void end(size_t place, store_result result) {
        std::lock_guard lock(mutex_);
        waiting_--;
        failed_ = failed_ || result == store_result::failed;
        if (result != store_result::failed) {
            note(place, result == store_result::stored ? "stored" : "duplicate");
        }
        changed_.notify_all();
    }
    /* False when one of them failed. */
    bool wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return waiting_ == 0; });
        return !failed_;
    }

private:
    void note_raw(const std::string& text) const {
        if (write(file_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            fail("cannot write " + path_);
        }
    }

    const std::string path_;
    int file_ = -1;
    std::set<size_t> done_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t waiting_ = 0;
    bool failed_ = false;
};

std::optional<int64_t> fact(const std::string& directory, const char* name) {
    std::string error;
    std::unique_ptr<result_reader> reader = open_reader(directory, error);
    return reader ? reader->read_fact(name) : std::nullopt;
}

void show(const std::string& directory, FILE* to, bool with_open);

std::string shown(const std::string& directory) {
    char* text = nullptr;
    size_t size = 0;
    FILE* to = open_memstream(&text, &size);
    show(directory, to, true);
    fclose(to);
    std::string copy(text, size);
    free(text);
    return copy;
}

void pause_ms(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int play(const std::string& directory, const char* history, const char* done) {
    std::vector<step> steps = read_history(history);
    answers noted(done);
    arrival_clock = simulated_clock;
    steady_clock = simulated_clock;
    boot_number = same_boot;
    ingest_options options;
    options.directory = directory;
    size_t place = 0;
    if (steps[0].word == "keep") {
        const char* at = steps[0].rest.c_str();
        options.keep_days = static_cast<int>(number(at));
        options.keep_5min_days = static_cast<int>(number(at));
        options.keep_hour_days = static_cast<int>(number(at));
        options.keep_event_days = static_cast<int>(number(at));
        options.keep_ledger_days = static_cast<int>(number(at));
        place++;
    }
    /* The clock goes on where it was. */
    for (size_t i = 0; i < steps.size() && (now == 0 || noted.is_done(i)); i++) {
        if (steps[i].word == "clock") {
            const char* at = steps[i].rest.c_str();
            now = number(at);
        }
    }
    listener told;
    std::string error;
    std::unique_ptr<ingest> store = ingest::open(options, &told, error);
    if (!store) {
        fail(error);
    }
    /* Nobody is silent here before the end. */
    store->follow({.every = {.poll = 3 * 86400, .check = 1800}, .tests = {}}, {});
    for (; place < steps.size(); place++) {
        const step& s = steps[place];
        const char* at = s.rest.c_str();
        if (s.word == "block") {
            if (!noted.is_done(place)) {
                int64_t agent = number(at);
                noted.begin();
                store->submit({.account = "torture@example.org",
                               .agent = "agent" + std::to_string(agent),
                               .plain = s.bytes,
                               .received = now,
                               .address = "192.0.2.1",
                               .version = "3.0"},
                              [&noted, place](store_result result) { noted.end(place, result); });
            }
            continue;
        }
        if (!noted.wait()) {
            fail("a block could not be stored");
        }
        if (noted.is_done(place)) {
            continue;
        }
        if (s.word == "clock") {
            now = number(at);
        } else if (s.word == "settle") {
            for (int64_t day = number(at); fact(directory, "closed_through").value_or(0) < day;) {
                pause_ms(2);
            }
        } else if (s.word == "quiet") {
            int64_t wanted = number(at);
            std::string before;
            for (int64_t same = 0; same < wanted; pause_ms(20)) {
                std::string text = shown(directory);
                same = text == before ? same + 1 : 0;
                before = std::move(text);
            }
        } else {
            fail("what is \"" + s.word + "\"?");
        }
        noted.note(place, "done");
    }
    return noted.wait() ? 0 : 3;
}

/* ---- show ---- */

unsigned long sum_of(std::string_view bytes) {
    return crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size()));
}

void show_roll_up(FILE* to, const char* name, const std::string& test, int64_t day,
                  std::string_view data) {
    std::vector<bucket> buckets;
    if (!unpack_roll_up(data, buckets)) {
        fprintf(to, "%s %s %" PRId64 " is damaged\n", name, test.c_str(), day);
        return;
    }
    for (const bucket& b : buckets) {
        fprintf(to, "%s %s %" PRId64 " %u: %u results, %u ok, %u problem;", name, test.c_str(), day,
                b.start, b.count, b.ok, b.problem);
        for (const value_summary& v : b.values) {
            fprintf(to, " %u: %u %.5g %.4g %.5g;", v.id, v.count, v.min, v.mean, v.max);
        }
        fprintf(to, "\n");
    }
}

struct shown_agent {
    known_agent row;
    std::string account, name, packed;
    agent_state state;
};

void show_agent(result_reader& reader, shown_agent& agent, FILE* to, bool with_open) {
    const int64_t first_day = 0, last_day = 100000;
    std::string error;
    auto complain = [&](const std::string& what) {
        fprintf(to, "%s: %s cannot be read: %s\n", agent.name.c_str(), what.c_str(), error.c_str());
    };
    fprintf(to, "%s %s since %" PRId64 "\n", agent.name.c_str(),
            std::string(state_word(agent.state.worst())).c_str(), agent.state.since);
    if (with_open) {
        fprintf(to, "open since %" PRId64 ": %" PRIu64 "\n", agent.state.open_since,
                agent.state.open_bytes);
    }
    for (const test_status& t : agent.state.tests) {
        std::string test = agent.name + " " + std::to_string(t.type) + "/" +
                           (t.number ? std::to_string(*t.number) : "-");
        std::optional<known_test_row> row = reader.find_test(t.id);
        if (!row || row->agent != agent.row.id || row->type != t.type || row->number != t.number) {
            fprintf(to, "%s has the id of another test\n", test.c_str());
        }
        fprintf(to,
                "test %s %s since %" PRId64 " received %" PRId64 " time %" PRId64
                " claimed %" PRId64 " location %d status %d parts %u %u %u\n",
                test.c_str(), std::string(state_word(t.now)).c_str(), t.since, t.received, t.time,
                t.claimed, t.location.value_or(-1), t.status.value_or(-1), t.parts, t.bad_parts,
                t.parts_before);
        std::vector<result> found;
        if (!read_results(reader, t.id, INT64_MIN, INT64_MAX, SIZE_MAX, found, error)) {
            complain(test);
        }
        for (const result& r : found) {
            fprintf(to,
                    "result %s time %" PRId64 " claimed %" PRId64 " received %" PRId64
                    " %s %zu records:",
                    test.c_str(), r.time, r.claimed, r.received,
                    std::string(state_word(r.judged)).c_str(), r.records.size());
            for (const std::string& record : r.records) {
                fprintf(to, " %08lx", sum_of(record));
            }
            fprintf(to, "\n");
        }
        auto roll_ups = [&](resolution r, const char* name) {
            if (!reader.for_each_roll_up(
                    r, t.id, first_day, last_day,
                    [&](int64_t day, std::string_view data) {
                        show_roll_up(to, name, test, day, data);
                    },
                    error)) {
                complain(name + std::string(" of ") + test);
            }
        };
        roll_ups(resolution::five_minutes, "five");
        roll_ups(resolution::hour, "hour");
        std::vector<std::string> events;
        if (!reader.for_each_event(
                {.test = t.id},
                [&](const stored_event& e) {
                    std::string message(e.message);
                    std::replace(message.begin(), message.end(), '\n', '|');
                    events.push_back(std::to_string(e.time) + " " + std::to_string(e.from) + " " +
                                     std::to_string(e.to) + " " + message);
                    return true;
                },
                error)) {
            complain("events of " + test);
        }
        for (const std::string& event : events) {
            fprintf(to, "event %s %s\n", test.c_str(), event.c_str());
        }
    }
    std::map<int64_t, hour_counts> ledger;
    auto add = [&](int64_t hour, uint64_t received, uint64_t repeated, uint64_t missing) {
        hour_counts& sum = ledger[hour];
        sum.received += received;
        sum.repeated += repeated;
        sum.missing += missing;
    };
    const hour_counts& counted = agent.state.counts;
    add(counted.hour, counted.received, counted.repeated, counted.missing);
    if (!reader.for_each_ledger_row(
            agent.row.id, INT64_MIN, INT64_MAX,
            [&](const ledger_row& row) {
                add(row.hour, row.received, row.repeated, row.missing);
                return true;
            },
            error)) {
        complain("ledger");
    }
    for (const auto& [hour, counts] : ledger) {
        if (counts.received + counts.repeated + counts.missing != 0) {
            fprintf(to, "ledger %s %" PRId64 " %" PRIu64 " %" PRIu64 " %" PRIu64 "\n",
                    agent.name.c_str(), hour, counts.received, counts.repeated, counts.missing);
        }
    }
    for (const inventory_status& i : agent.state.inventories) {
        int64_t last_row = 0, time = INT64_MAX;
        for (bool more = true; more;) {
            more = false;
            if (!reader.read_inventory(
                    agent.row.id, i.type, time,
                    [&](const stored_inventory& found) {
                        more = found.row != last_row && found.time < time;
                        if (last_row == 0 && found.row != i.row) {
                            fprintf(to, "the state knows another inventory\n");
                        }
                        last_row = found.row;
                        time = found.time - 1;
                        fprintf(to, "inventory %s %u time %" PRId64 " %08lx\n", agent.name.c_str(),
                                i.type, found.time, sum_of(found.record));
                    },
                    error)) {
                complain("inventory");
            }
        }
    }
}

void show(const std::string& directory, FILE* to, bool with_open) {
    std::string error;
    std::unique_ptr<result_reader> reader = open_reader(directory, error);
    if (!reader) {
        fprintf(to, "cannot be opened: %s\n", error.c_str());
        return;
    }
    std::vector<shown_agent> agents;
    if (!reader->for_each_agent(
            [&](const known_agent& row) {
                agents.push_back({.row = row,
                                  .account = std::string(row.account),
                                  .name = std::string(row.agent),
                                  .packed = std::string(row.state),
                                  .state = {}});
            },
            error)) {
        fprintf(to, "agents cannot be read: %s\n", error.c_str());
    }
    for (shown_agent& agent : agents) {
        if (!agent.packed.empty() && !agent.state.unpack(agent.packed)) {
            fprintf(to, "the state of %s is damaged\n", agent.name.c_str());
        }
        show_agent(*reader, agent, to, with_open);
    }
    fprintf(to, "closed through %" PRId64 "\n", reader->read_fact("closed_through").value_or(-1));
}

int show_names(const std::string& directory) {
    std::string error;
    std::unique_ptr<result_reader> reader = open_reader(directory, error);
    std::vector<std::pair<std::string, test_status>> tests;
    agent_state state;
    auto note = [&](const known_agent& row) {
        state.unpack(row.state);
        for (const test_status& t : state.tests) {
            tests.emplace_back(row.agent, t);
        }
    };
    if (!reader || !reader->for_each_agent(note, error)) {
        fail(error);
    }
    for (const auto& [agent, test] : tests) {
        std::vector<result> found;
        if (!read_results(*reader, test.id, INT64_MIN, INT64_MAX, SIZE_MAX, found, error)) {
            fail(error);
        }
        for (const result& r : found) {
            printf("%s\t%d\t%d\t%" PRId64, agent.c_str(), test.number.value_or(0),
                   r.location.value_or(0), r.time);
            if (r.judged_by) {
                printf("\t%s\t%s", r.judged_by->name.c_str(), r.judged_by->text.c_str());
            }
            printf("\n");
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::string word = argc > 2 ? argv[1] : "";
    if (word == "show" && argc == 3) {
        show(argv[2], stdout, false);
        return 0;
    }
    if (word == "names" && argc == 3) {
        return show_names(argv[2]);
    }
    if (word == "play" && argc == 5) {
        return play(argv[2], argv[3], argv[4]);
    }
    fprintf(stderr, "usage: store_driver play STATE_DIR HISTORY DONE | show STATE_DIR |\n"
                    "                    names STATE_DIR\n");
    return 2;
}
