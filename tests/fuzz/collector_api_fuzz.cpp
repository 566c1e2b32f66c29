/* Whatever is asked of the API, by anybody: paths, parameters, bodies, tags. Input: one byte for
 * the method and the role, then lines: the target, If-None-Match (and Accept), and the rest is the
 * body. Asked of a store that has an agent with two tests, and names that wait, are admitted, are
 * revoked; what changes anything is only noted. */
#include "api/json.h"
#include "api/live.h"
#include "api/metric_text.h"
#include "api/route.h"
#include "api/services.h"
#include "base/text.h"
#include "fleet/assigned.h"
#include "fleet/service.h"
#include "fleet/wanted.h"
#include "fuzz.h"
#include "ingest/ingest.h"
#include "tests/support/decisions_in_memory.h"
#include "tests/support/open_metrics.h"

#include <boost/json.hpp>
#include <filesystem>
#include <future>
#include <string>
#include <string_view>

namespace {

class no_settings final : public decisions_in_memory {
    bool add_token(const stored_token& what, int64_t& id, std::string&) override {
        id = 7;
        return what.name != "taken";
    }
    bool drop_token(int64_t, std::string&) override { return true; }
    bool for_each_token(const std::function<void(const stored_token&)>& each,
                        std::string&) override {
        for (int64_t id : {1, 2, 3}) {
            stored_token token;
            token.id = id;
            token.role = 1;
            token.name = "a\nname";
            each(token);
        }
        return true;
    }
    bool find_token(const token_hash&, int64_t, std::optional<stored_token>&,
                    std::string&) override {
        return true;
    }
    /* What is decided goes well, and is forgotten with the next reading. */
    bool change_identity(std::string_view account, std::string_view agent,
                         const std::function<bool(stored_identity&)>& change,
                         std::string&) override {
        auto known = identities.find({std::string(account), std::string(agent)});
        stored_identity what = known != identities.end() ? known->second : stored_identity();
        what.account = account;
        what.agent = agent;
        forget();
        return change(what);
    }
    bool add_enrolment(const stored_enrolment&, std::string&) override {
        forget();
        return true;
    }
    bool put_secret(const stored_secret&, std::string&) override { return true; }
    bool drop_secret(std::string_view, std::string&) override { return true; }

    void forget() {
        changed(); /* twice: another process did it */
        changed();
    }
};

class no_ingest final : public ingest {
    void submit(poll_block, std::function<void(store_result)>) override {}
    void heard(std::string_view, std::string_view, int64_t, std::string_view,
               std::string_view) override {}
    void held_up(std::string_view, std::string_view) override {}
    void follow(plan_summary, std::vector<owned_definition>) override {}
    void follow_agents(std::vector<agent_plan>) override {}
    void update(std::function<bool(engine&)>, change_done done) override { done(true, ""); }
    void retire(int64_t, change_done done) override { done(true, ""); }
    queue_load waiting() override { return {}; }
};

constexpr int64_t noon = 1777636800;

void put(std::string& into, const void* bytes, size_t size) {
    into.append(static_cast<const char*>(bytes), size);
}

/* A load average. */
std::string record_of(uint32_t test, int64_t time, uint32_t status) {
    const std::string message = "a \"message\"\n";
    const double loads[] = {0.5, 0.25, 0.125};
    const uint32_t numbers[] = {66, test, 7, status};
    const auto size = static_cast<uint32_t>(32 + sizeof numbers + sizeof time + sizeof loads +
                                            message.size() + 1);
    const uint32_t head[] = {size, 0, 4, 1, 0, 3, 1, 0};
    std::string record;
    put(record, head, sizeof head);
    put(record, numbers, sizeof numbers);
    put(record, &time, sizeof time);
    put(record, loads, sizeof loads);
    put(record, message.c_str(), message.size() + 1);
    return record;
}

/* Reads each text and says what it would give an agent; applies none. */
class trying_fleet final : public fleet_service {
public:
    static constexpr const char in_force[] = "version: 1\ngroups: [] # \xc2\x9b\n";

    fleet_standing standing() const override {
        fleet_standing now;
        now.revision = 3;
        now.time = noon;
        now.author = "a\nname";
        now.text_revision = 2;
        return now;
    }
    std::string text(int32_t& revision) const override {
        revision = 2;
        return in_force;
    }
    fleet_outcome try_out(std::string_view text) override {
        fleet_outcome outcome;
        outcome.revision = 2;
        fleet file;
        if (!read_fleet(text, file, outcome.wrong)) {
            require(!outcome.wrong.empty());
            return outcome;
        }
        outcome.notes = file.notes;
        const wanted_agent wanted = wanted_of(file, "a@b.c", "web-1", {}, {});
        assigned_agent now;
        outcome.difference.agents.push_back(
            {.account = "a@b.c",
             .name = "web-1",
             .groups = wanted.groups,
             .poll = wanted.poll,
             .check = wanted.check,
             .about_intervals = wanted.about_intervals,
             .changes = assign(now, wanted, 4, [](std::string_view) { return uint64_t{1}; })});
        return outcome;
    }
    fleet_outcome apply(std::string_view text, const std::string&,
                        std::optional<int32_t>) override {
        return try_out(text);
    }
    std::vector<std::string> groups_of(std::string_view, std::string_view) const override {
        return {"a group"};
    }
    std::vector<fleet_test_standing> tests_of(std::string_view, std::string_view) const override {
        return {};
    }
    std::optional<fleet_test_standing> test_of(std::string_view, std::string_view, uint32_t,
                                               int32_t) const override {
        return std::nullopt;
    }
};

class place {
public:
    place() {
        directory_ = make_directory();
        std::string error;
        std::unique_ptr<ingest> store = ingest::open({.directory = directory_}, nullptr, error);
        require(store != nullptr);
        for (int64_t time : {noon, noon + 60}) {
            std::promise<store_result> done;
            store->submit({"a@b.c", "web-1",
                           record_of(5, time, time == noon ? 0 : 2) + record_of(6, time, 0), time},
                          [&](store_result result) { done.set_value(result); });
            require(done.get_future().get() == store_result::stored);
        }
        pool_ = std::make_unique<reader_pool>(directory_);
        for (const char* name : {"web-1", "revoked"}) {
            stored_identity& who = kept_.identities[{"a@b.c", name}];
            who.account = "a@b.c";
            who.agent = name;
            who.by = "a\nname";
            (*name == 'r' ? who.revoked : who.admitted) = noon;
            who.highest = who.good_from = 1;
            who.issued = noon;
            who.ends = noon + 86400;
        }
        with_.reset(new api_services{
            .stored = *pool_,
            .results = none_,
            .hub = hub_,
            .kept = kept_,
            .agents = agents_,
            .where_agents_poll =
                [] {
                    return enrolment_place{"https://a.example:8443", protocol::sha256{}};
                },
            .secrets = secrets_,
            .counted = counted_,
            .now = [] { return noon + 120; },
            .check_now = [](std::string_view, std::string_view) { return true; },
            .send_away = [](std::string_view, std::string_view) {},
            .readiness =
                [](bool& ready) {
                    ready = true;
                    return std::vector<std::string>();
                },
            .version = "3.0",
            .fleet = &fleet_});
    }
    ~place() {
        with_.reset();
        pool_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    place(const place&) = delete;
    place& operator=(const place&) = delete;
    api_services& services() { return *with_; }
    /* Whatever was done to them before. */
    void wait() {
        bool promoted = false;
        std::string why;
        protocol::agent_identity who;
        uint32_t generation = 0;
        agents_.may_go_by("a@b.c", "polls", nullptr, "192.0.2.1", promoted);
        agents_.may_go_by("\xff", "web-1", nullptr, "192.0.2.1", promoted);
        agents_.enrol_by_name("a@b.c", "asks", {1}, "192.0.2.1", who, generation, why);
    }

private:
    std::string directory_;
    std::unique_ptr<reader_pool> pool_;
    no_ingest none_;
    event_hub hub_;
    no_settings kept_;
    known_agents agents_{kept_, agents_mode::proven, [] { return noon + 120; }};
    known_secrets secrets_{kept_, directory_};
    counters counted_;
    trying_fleet fleet_;
    std::unique_ptr<api_services> with_;
};

std::string_view take_line(std::string_view& text) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static place here;
    if (size == 0) {
        return 0;
    }
    static const char* const methods[] = {"GET", "POST", "DELETE", "HEAD", "PUT", "get", "", "GET"};
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::string_view rest = text;
    const std::string_view target = take_line(rest);
    api_request asked;
    asked.if_none_match = asked.accept = take_line(rest);
    asked.body = rest;
    asked.who = {static_cast<role>(data[0] >> 3 & 3), 1, "somebody", "192.0.2.1"};
    here.wait();
    api_answer answer = answer_request(methods[data[0] & 7], target, asked, here.services());

    require(answer.status >= 200 && answer.status <= 503);
    require(answer.status != 500);
    require(answer.body.find('\0') == std::string::npos && valid_utf8(answer.body) == answer.body);
    if (answer.type == open_metrics_type) {
        require(answer.status == 304 || open_metrics().read(answer.body).empty());
    } else if (answer.type == "application/yaml") {
        require(answer.body.empty() || answer.body == trying_fleet::in_force);
    } else if (!answer.body.empty() && answer.type != metric_text_type) {
        boost::json::error_code error;
        boost::json::value value = boost::json::parse(answer.body, error);
        require(!error && value.is_object());
        require((answer.status >= 400) == (answer.type == "application/problem+json"));
        if (answer.status >= 400) {
            require(value.at("status").as_int64() == answer.status);
            require(!value.at("detail").as_string().empty());
        }
    }
    require(answer.audit.empty() || printable(answer.audit) == answer.audit);
    for (const auto& [name, content] : answer.headers) {
        require(printable(content) == content); /* no line of somebody's own */
    }
    try {
        stream_filter(target, asked, here.services());
    } catch (const problem& what) {
        require(what.status >= 400 && what.status < 500);
    }
    return 0;
}
