/* How long the API takes for an answer, without a network: lists, series and events of a store that
 * fleet_store has filled.
 *
 *   api_bench STATE_DIR TIMES      also beside a collector that writes
 */
#include "api/route.h"
#include "api/services.h"
#include "ingest/ingest.h"
#include "tests/support/decisions_in_memory.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

double now_ms() {
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/* Nothing is changed here. */
class no_settings final : public decisions_in_memory {
    bool add_token(const stored_token&, int64_t&, std::string&) override { return false; }
    bool drop_token(int64_t, std::string&) override { return false; }
    bool for_each_token(const std::function<void(const stored_token&)>&, std::string&) override {
        return true;
    }
    bool find_token(const token_hash&, int64_t, std::optional<stored_token>&,
                    std::string&) override {
        return false;
    }
};

class no_ingest final : public ingest {
    void submit(poll_block, std::function<void(store_result)>) override {}
    void heard(std::string_view, std::string_view, int64_t, std::string_view,
               std::string_view) override {}
    void held_up(std::string_view, std::string_view) override {}
    void follow(plan_summary, std::vector<owned_definition>) override {}
    void follow_agents(std::vector<agent_plan>) override {}
    void update(std::function<bool(engine&)>, change_done) override {}
    void retire(int64_t, change_done) override {}
    queue_load waiting() override { return {}; }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: api_bench STATE_DIR TIMES\n");
        return 2;
    }
    const auto times = static_cast<size_t>(atoi(argv[2]));
    reader_pool stored(argv[1]);
    no_ingest results;
    event_hub hub;
    no_settings kept;
    counters counted;
    auto clock = [] { return int64_t{time(nullptr)}; };
    known_agents agents(kept, agents_mode::any, clock);
    known_secrets secrets(kept, argv[1]);
    api_services with{.stored = stored,
                      .results = results,
                      .hub = hub,
                      .kept = kept,
                      .agents = agents,
                      .where_agents_poll = {},
                      .secrets = secrets,
                      .counted = counted,
                      .now = clock,
                      .check_now = {},
                      .send_away = {},
                      .readiness = {},
                      .version = ""};
    auto ask = [&](const std::string& target) {
        api_request asked;
        asked.who.may = role::viewer;
        return answer_request("GET", target, asked, with);
    };
    size_t failed = 0;
    auto measure = [&](const char* what, auto target) {
        std::vector<double> took;
        size_t bytes = 0;
        for (size_t i = 0; i < times; i++) {
            const double began = now_ms();
            api_answer answer = ask(target(i));
            took.push_back(now_ms() - began);
            bytes += answer.body.size();
            if (answer.status != 200) {
                failed++;
                fprintf(stderr, "%s: %s\n", target(i).c_str(), answer.body.c_str());
            }
        }
        std::sort(took.begin(), took.end());
        printf("%-40s p50 %7.2f ms, p99 %7.2f ms, most %7.2f ms; %8.0f bytes\n", what,
               took[times / 2], took[times * 99 / 100], took.back(),
               static_cast<double>(bytes) / static_cast<double>(times));
    };
    auto fixed = [&](const char* target) {
        measure(target, [target](size_t) { return std::string(target); });
    };
    fixed("/api/v1/agents");
    fixed("/api/v1/agents?limit=1000");
    fixed("/api/v1/agents?state=problem");
    fixed("/api/v1/tests");
    fixed("/api/v1/tests?limit=1000");
    fixed("/api/v1/tests?state=problem");
    fixed("/api/v1/tests?state=unknown,stale");
    fixed("/api/v1/tests?q=ping+13");
    fixed("/api/v1/tests?q=nothing+like+it");
    fixed("/api/v1/events");
    fixed("/api/v1/events?q=nothing+like+it");
    fixed("/api/v1/ledger");
    auto test = [](size_t i) { return std::to_string((i * 7919 + 13) % 20000 + 1); };
    measure("a test", [&](size_t i) { return "/api/v1/tests/" + test(i); });
    measure("100 results of a test",
            [&](size_t i) { return "/api/v1/tests/" + test(i) + "/results"; });
    measure("series of a day", [&](size_t i) { return "/api/v1/tests/" + test(i) + "/series"; });
    measure("series of a day, 2000 points",
            [&](size_t i) { return "/api/v1/tests/" + test(i) + "/series?points=2000"; });
    auto days_ago = [](int days) {
        char text[32];
        time_t at = time(nullptr) - days * 86400;
        tm parts;
        gmtime_r(&at, &parts);
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
        return std::string(text);
    };
    measure("series of a week, 800 points", [&](size_t i) {
        return "/api/v1/tests/" + test(i) + "/series?points=800&from=" + days_ago(7);
    });
    measure("series of 30 days, 800 points", [&](size_t i) {
        return "/api/v1/tests/" + test(i) + "/series?points=800&from=" + days_ago(30);
    });
    return failed > 0 ? 1 : 0;
}
