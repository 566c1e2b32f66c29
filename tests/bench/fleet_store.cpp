/* A store with a history, and how long it takes to read it.
 *
 *   fleet_store fill STATE_DIR AGENTS DAYS INTERVAL_S [--noisy]
 *     the last so many days of a fleet, until now; with --noisy of values that pack worst
 *
 *   fleet_store fill-all ...
 *     the same, and all is kept, whatever its age
 *
 *   fleet_store repeat STATE_DIR DAYS
 *     the last whole day copied to those before
 *
 *   fleet_store query STATE_DIR QUERIES [--cold]
 *     how long reading takes
 *
 *   fleet_store drop STATE_DIR KEEP_DAYS SECONDS
 *     what polls wait while days are dropped
 *
 *   fleet_store samples AGENTS DAYS INTERVAL_S
 *     the same values in OpenMetrics' text form
 *
 * `repeat` is quick, and good for everything but reading single results of the days it makes.
 * `fill` also tells what of the processor a poll took to store, pack and roll up. `drop` sends 100
 * blocks a second, each when the one before is stored, so that they are transactions of their own;
 * it changes what is stored, like any run of a collector that keeps fewer days.
 *
 * `query` reads series of 30 days and of a day, the newest results of a test, the states of all
 * agents, and the events of a day; with --cold it has the file put out of the page cache before
 * each. */
#include "fleet.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"
#include "protocol/record.h"
#include "state/history.h"
#include "store/engine.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sqlite3.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t day_s = 86400;

std::atomic<int64_t> now = 0;
int64_t simulated_clock() {
    return now;
}

double seconds_now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec t;
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double processor_seconds(int who) {
    rusage used;
    getrusage(who, &used);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

std::string name_of(uint32_t agent) {
    char text[32];
    snprintf(text, sizeof text, "host%04u", agent);
    return text;
}

double megabytes_of(const std::string& directory) {
    double sum = 0;
    for (const char* name : {"/results.db", "/results.db-wal"}) {
        struct stat status;
        sum += stat((directory + name).c_str(), &status) == 0
                   ? static_cast<double>(status.st_size) / 1e6
                   : 0;
    }
    return sum;
}

/* When the oldest of what lies open arrived. */
int64_t oldest_open(const std::string& directory) {
    sqlite3* db = nullptr;
    sqlite3_stmt* look = nullptr;
    int64_t oldest = INT64_MAX;
    if (sqlite3_open_v2((directory + "/results.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
            SQLITE_OK &&
        sqlite3_prepare_v2(db, "SELECT received FROM blocks ORDER BY id LIMIT 1", -1, &look,
                           nullptr) == SQLITE_OK &&
        sqlite3_step(look) == SQLITE_ROW) {
        oldest = sqlite3_column_int64(look, 0);
    }
    sqlite3_finalize(look);
    sqlite3_close(db);
    return oldest;
}

/* Years in minutes leave no time for packing, which goes on between the blocks. */
void wait_for_packing(const std::string& directory) {
    for (int i = 0; i < 3000 && oldest_open(directory) < now - 3 * 3600; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

int fill(const std::string& directory, uint32_t agents, double days, int32_t interval,
         bool keep_all, bool is_noisy) {
    arrival_clock = simulated_clock;
    steady_clock = simulated_clock;
    const int64_t end = time(nullptr) / interval * interval;
    now = end - static_cast<int64_t>(days * day_s) / interval * interval;
    ingest_options options;
    options.directory = directory;
    if (keep_all) {
        options.keep_days = options.keep_5min_days = options.keep_hour_days = 0;
    }
    std::string error;
    std::unique_ptr<ingest> store = ingest::open(options, nullptr, error);
    if (!store) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    plan_summary plan;
    plan.every = {.poll = interval, .check = interval};
    store->follow(plan, {});
    std::vector<simulated_agent> fleet;
    for (uint32_t i = 0; i < agents; i++) {
        fleet.emplace_back(i);
    }
    std::mutex mutex;
    std::condition_variable changed;
    size_t waiting = 0;
    bool failed = false;
    const double began = seconds_now();
    int64_t passes = 0;
    for (; now + interval <= end; now = now + interval, passes++) {
        for (uint32_t i = 0; i < agents; i++) {
            std::string block;
            is_noisy ? fleet[i].add_noisy_pass(now, block) : fleet[i].add_pass(now, block);
            simulated_agent::add_inventories(now, block);
            {
                std::lock_guard lock(mutex);
                waiting++;
            }
            store->submit({.account = "fleet@example.org",
                           .agent = name_of(i),
                           .plain = std::move(block),
                           .received = now,
                           .address = "192.0.2.1",
                           .version = "3.0"},
                          [&](store_result result) {
                              std::lock_guard lock(mutex);
                              failed = failed || result != store_result::stored;
                              waiting--;
                              changed.notify_one();
                          });
        }
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return waiting == 0; });
        lock.unlock();
        if (now % 3600 < interval) {
            wait_for_packing(directory);
        }
    }
    double took = seconds_now() - began;
    double count = static_cast<double>(passes) * agents * simulated_agent::tests;
    store.reset();
    double size = megabytes_of(directory);
    printf("%.0f results of %u agents in %.0f s, %.0f a second; %.0f MB, %.1f bytes a result%s\n",
           count, agents, took, count / took, size, size * 1e6 / count,
           failed ? "; SOME WERE NOT STORED" : "");
    printf("%.1f us of the processor a poll\n",
           1e6 * (processor_seconds(RUSAGE_SELF) - processor_seconds(RUSAGE_THREAD)) /
               (static_cast<double>(passes) * agents));
    return failed ? 1 : 0;
}

struct drop_listener final : store_listener {
    void on_record(const poll_block&, const decoded_record&) override {}
    void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                        const std::string&) override {}
    void on_problem(const std::string& text) override {
        printf("after %.1f s: %s\n", seconds_now() - began, text.c_str());
    }
    const double began = seconds_now();
};

int drop(const std::string& directory, int keep, int seconds) {
    ingest_options options;
    options.directory = directory;
    options.keep_days = keep;
    std::string error;
    drop_listener listener;
    std::unique_ptr<ingest> store = ingest::open(options, &listener, error);
    if (!store) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    constexpr uint32_t agents = 100;
    std::vector<simulated_agent> fleet;
    for (uint32_t i = 0; i < agents; i++) {
        fleet.emplace_back(i);
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<double> took;
    bool failed = false;
    for (uint32_t turn = 0; seconds_now() < listener.began + seconds; turn++) {
        poll_block block = {.account = "fleet@example.org",
                            .agent = name_of(turn % agents),
                            .plain = {},
                            .received = time(nullptr),
                            .address = "192.0.2.1",
                            .version = "3.0"};
        fleet[turn % agents].add_pass(block.received, block.plain);
        bool done = false;
        const double began = seconds_now();
        store->submit(std::move(block), [&](store_result result) {
            std::lock_guard lock(mutex);
            failed = failed || result != store_result::stored;
            done = true;
            changed.notify_one();
        });
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return done; });
        took.push_back(1000 * (seconds_now() - began));
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::sort(took.begin(), took.end());
    const size_t polls = took.size();
    auto later =
        static_cast<size_t>(took.end() - std::upper_bound(took.begin(), took.end(), 200.0));
    printf("%zu polls waited p50 %.1f ms, p99 %.1f ms, p99.9 %.1f ms, most %.1f ms, %zu of them "
           "above 200 ms%s\n",
           polls, took[polls / 2], took[polls * 99 / 100], took[polls * 999 / 1000], took.back(),
           later, failed ? "; SOME WERE NOT STORED" : "");
    return failed ? 1 : 0;
}

/* Copies rows, with the keys of the layout that store/sqlite/layout.h describes. */
int repeat(const std::string& directory, int64_t days) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open((directory + "/results.db").c_str(), &db) == SQLITE_OK;
    auto execute = [&](const std::string& text) {
        ok = ok && sqlite3_exec(db, text.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    };
    auto name_of_day = [](int64_t day, size_t digits) {
        const time_t at = day * day_s;
        tm parts;
        char text[16];
        gmtime_r(&at, &parts);
        strftime(text, sizeof text, "%Y%m%d", &parts);
        return std::string(text, digits);
    };
    const int64_t last = time(nullptr) / day_s - 1;
    execute("PRAGMA synchronous = OFF");
    for (int64_t back = 1; back <= days; back++) {
        const std::string shift = std::to_string(back * day_s), day = name_of_day(last - back, 8);
        execute("BEGIN");
        execute("DROP TABLE IF EXISTS packed_" + day);
        execute("CREATE TABLE packed_" + day +
                " (id INTEGER PRIMARY KEY, received_first INTEGER, received_last INTEGER NOT NULL,"
                " first INTEGER NOT NULL, last INTEGER NOT NULL, results INTEGER NOT NULL,"
                " data BLOB NOT NULL)");
        execute("INSERT INTO packed_" + day + " SELECT id - " + shift + ", received_first - " +
                shift + ", received_last - " + shift + ", first - " + shift + ", last - " + shift +
                ", results, data FROM packed_" + name_of_day(last, 8));
        execute("INSERT OR REPLACE INTO days SELECT '" + day + "', min(turn) - 1 FROM days");
        for (const char* prefix : {"rollups5_", "rollups60_"}) {
            const std::string table = prefix + name_of_day(last - back, 6);
            execute("CREATE TABLE IF NOT EXISTS " + table +
                    " (id INTEGER PRIMARY KEY, data BLOB NOT NULL)");
            execute("INSERT OR REPLACE INTO " + table + " SELECT id - " + std::to_string(back) +
                    ", data FROM " + prefix + name_of_day(last, 6) +
                    " WHERE id % 1048576 = " + std::to_string(last));
        }
        execute("COMMIT");
    }
    if (!ok) {
        fprintf(stderr, "%s\n", sqlite3_errmsg(db));
    }
    sqlite3_close(db);
    return ok ? 0 : 1;
}

void put_out(const std::string& directory) {
    for (const char* name : {"/results.db", "/results.db-wal"}) {
        int file = open((directory + name).c_str(), O_RDONLY | O_CLOEXEC);
        if (file >= 0) {
            fdatasync(file);
            posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
            close(file);
        }
    }
}

struct known {
    int64_t agent, test;
};

int query(const std::string& directory, size_t queries, bool is_cold) {
    std::string error;
    const int64_t end = time(nullptr);
    std::vector<known> tests;
    agent_state state;
    auto each_agent = [&](result_reader& reader, const std::function<void(const known_agent&)>& f) {
        return reader.for_each_agent(
            [&](const known_agent& row) {
                state.unpack(row.state);
                f(row);
            },
            error);
    };
    if (std::unique_ptr<result_reader> reader = open_reader(directory, error); reader) {
        each_agent(*reader, [&](const known_agent& row) {
            for (const test_status& t : state.tests) {
                tests.push_back({row.id, t.id});
            }
        });
    }
    if (tests.empty()) {
        fprintf(stderr, "nothing is stored: %s\n", error.c_str());
        return 1;
    }
    size_t found = 0;
    bool ok = true;
    auto measure = [&](const char* what, size_t times, auto&& read) {
        std::vector<double> took, used;
        found = 0;
        for (size_t i = 0; i < times; i++) {
            if (is_cold) {
                put_out(directory);
            }
            const double began = seconds_now();
            const double used_before = seconds_now(CLOCK_PROCESS_CPUTIME_ID);
            std::unique_ptr<result_reader> reader = open_reader(directory, error);
            ok = reader && read(*reader, tests[(i * 7919 + 13) % tests.size()]) && ok;
            took.push_back(1000 * (seconds_now() - began));
            used.push_back(1000 * (seconds_now(CLOCK_PROCESS_CPUTIME_ID) - used_before));
        }
        std::sort(took.begin(), took.end());
        std::sort(used.begin(), used.end());
        printf("%-32s p50 %7.2f ms, p99 %7.2f ms, most %7.2f ms; of the processor p50 %.2f ms, p99 "
               "%.2f ms; %zu found\n",
               what, took[times / 2], took[times * 99 / 100], took.back(), used[times / 2],
               used[times * 99 / 100], found);
    };
    auto read_days = [&](int64_t days) {
        return [&, days](result_reader& reader, const known& which) {
            series all;
            bool read = read_series(reader, which.test, end - days * day_s, end, 800, all, error);
            found += all.time.size();
            return read;
        };
    };
    measure("series of 30 days", queries, read_days(30));
    measure("series of a day", queries, read_days(1));
    measure("newest 100 results of a test", queries, [&](result_reader& reader, const known& w) {
        std::vector<result> results;
        bool read = read_results(reader, w.test, end - day_s, end + day_s, 100, results, error);
        found += results.size();
        return read;
    });
    measure("states of all agents", std::max<size_t>(queries / 10, 1),
            [&](result_reader& reader, const known&) {
                return each_agent(reader, [&](const known_agent&) {
                    found += state.worst() == state::ok ? 1 : 0;
                });
            });
    measure("events of a day", std::max<size_t>(queries / 10, 1),
            [&](result_reader& reader, const known&) {
                return reader.for_each_event(
                    {.from = end - day_s, .to = end},
                    [&](const stored_event&) {
                        found++;
                        return true;
                    },
                    error);
            });
    if (!ok) {
        fprintf(stderr, "not all could be read: %s\n", error.c_str());
    }
    return ok ? 0 : 1;
}

/* Each value of each record a sample, all of a series together, as the format wants it. */
int samples(uint32_t agents, int64_t days, int32_t interval) {
    const int64_t end = time(nullptr) / interval * interval;
    std::string reason, block;
    for (uint32_t i = 0; i < agents; i++) {
        std::vector<std::string> lines(size_t{simulated_agent::tests} * 16);
        simulated_agent agent(i);
        for (int64_t at = end - days * day_s; at + interval <= end; at += interval) {
            block.clear();
            agent.add_pass(at, block);
            for (block_reader reader(block); reader.next();) {
                const record& r = reader.current;
                size_t test = r.ui32[1] - 1, column = 0;
                auto put = [&](double value) {
                    char text[160];
                    snprintf(text, sizeof text,
                             "vindral{host=\"%s\",test=\"%zu\",value=\"%zu\"} %.17g %" PRId64 "\n",
                             name_of(i).c_str(), test + 1, column, value, at);
                    lines[test * 16 + column++] += text;
                };
                for (size_t v = 0; v < r.d64.size(); v++) {
                    put(r.d64[v]);
                }
                for (size_t v = 3; v < r.ui32.size(); v++) { /* the status too */
                    put(r.ui32[v]);
                }
            }
        }
        for (const std::string& line : lines) {
            fwrite(line.data(), 1, line.size(), stdout);
        }
    }
    puts("# EOF");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::string word = argc > 1 ? argv[1] : "";
    auto at = [&](int i) { return atoi(argv[i]); };
    const bool is_noisy = argc > 1 && std::string(argv[argc - 1]) == "--noisy";
    argc -= is_noisy ? 1 : 0;
    if ((word == "fill" || word == "fill-all") && argc == 6) {
        return fill(argv[2], static_cast<uint32_t>(at(3)), atof(argv[4]), at(5), word == "fill-all",
                    is_noisy);
    }
    if (word == "repeat" && argc == 4) {
        return repeat(argv[2], at(3));
    }
    if (word == "query" && (argc == 4 || argc == 5)) {
        return query(argv[2], static_cast<size_t>(at(3)), argc == 5);
    }
    if (word == "drop" && argc == 5) {
        return drop(argv[2], at(3), at(4));
    }
    if (word == "samples" && argc == 5) {
        return samples(static_cast<uint32_t>(at(2)), at(3), at(4));
    }
    fprintf(stderr, "usage: fleet_store fill|fill-all STATE_DIR AGENTS DAYS INTERVAL_S [--noisy]\n"
                    "       fleet_store repeat STATE_DIR DAYS\n"
                    "       fleet_store query STATE_DIR QUERIES [--cold]\n"
                    "       fleet_store drop STATE_DIR KEEP_DAYS SECONDS\n"
                    "       fleet_store samples AGENTS DAYS INTERVAL_S\n");
    return 2;
}
