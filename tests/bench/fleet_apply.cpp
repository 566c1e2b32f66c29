/* How long it takes to apply a fleet file to many agents.
 *
 *   fleet_apply STATE_DIR AGENTS TESTS [ROUNDS]
 *
 * Makes as many agents known, on a real store in STATE_DIR, which must not exist, and then has a
 * file with as many tests applied that changes one limit of each test, ROUNDS times (5): the
 * difference alone (a dry run), and applying, which computes it, too, and waits until all of it is
 * on disk. The first round is the one that gives the agents everything. */
#include "fleet/keeper.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

double seconds_since(std::chrono::steady_clock::time_point begun) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

std::string file_of(int tests, int round) {
    std::string text =
        "version: 1\ngroups:\n  - name: everything\n    agents: [\"*\"]\n    tests:\n";
    for (int i = 0; i < tests; i++) {
        text += "      page " + std::to_string(i) + ": {http: \"https://shop.example.org/" +
                std::to_string(i) +
                "\", contains: Welcome, within: " + std::to_string(1 + round % 50) + "s}\n";
    }
    return text;
}

/* Who logs in is known from then on. */
void make_known(fleet_keeper& keeper, int agents) {
    for (int i = 0; i < agents; i++) {
        session one;
        one.account = "me@example.org";
        one.agent = "host" + std::to_string(i);
        keeper.prepare(one, [] {});
    }
}

int measure(const std::string& directory, int agents, int tests, int rounds) {
    std::string error;
    std::vector<std::string> early;
    std::unique_ptr<fleet_keeper> keeper; /* outlives the store's thread */
    std::unique_ptr<ingest> store = ingest::open({.directory = directory}, nullptr, error);
    if (store) {
        keeper_options options;
        options.directory = directory;
        keeper = fleet_keeper::open(std::move(options), early, error);
    }
    if (!keeper || !keeper->start(*store, error)) {
        fprintf(stderr, "fleet_apply: %s\n", error.c_str());
        return 1;
    }
    make_known(*keeper, agents);
    printf("%d agents x %d tests\nround  difference  applying  changes\n", agents, tests);
    for (int round = 0; round < rounds; round++) {
        const std::string text = file_of(tests, round);
        auto begun = std::chrono::steady_clock::now();
        fleet_outcome outcome = keeper->try_out(text);
        const double difference = seconds_since(begun);
        begun = std::chrono::steady_clock::now();
        outcome = keeper->apply(text, "bench", {});
        const double applying = seconds_since(begun);
        if (!outcome.error.empty() || !outcome.wrong.empty()) {
            fprintf(stderr, "fleet_apply: %s\n", outcome.error.c_str());
            return 1;
        }
        printf("%5d  %8.3f s  %6.3f s  %zu\n", round + 1, difference, applying,
               outcome.difference.added + outcome.difference.changed);
    }
    rusage used;
    getrusage(RUSAGE_SELF, &used);
    printf("peak memory %ld MB\n", used.ru_maxrss / 1024);
    keeper->stop();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: fleet_apply STATE_DIR AGENTS TESTS [ROUNDS]\n");
        return 2;
    }
    struct stat status;
    if (stat(argv[1], &status) == 0) {
        fprintf(stderr, "fleet_apply: %s is there already\n", argv[1]);
        return 2;
    }
    return measure(argv[1], atoi(argv[2]), atoi(argv[3]), argc > 4 ? atoi(argv[4]) : 5);
}
