/* The fleet by the API: reading it, applying it, and what became of changes. */
#include "api/difference.cpp"

#include "api/accept.h"
#include "api/live.h"
#include "api/live_changes.h"
#include "api_place.h"
#include "eventually.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace json = boost::json;

static const int64_t noon = api_noon;

class api_fleet_test : public api_place {
protected:
    void SetUp() override {
        api_place::SetUp();
        most_difference_bytes = 16u << 20;
    }

    static std::string load(uint32_t test) {
        return record_builder{.ui32 = {type_load_average, test, 7, 0},
                              .i64 = {noon},
                              .d64 = {0.5, 0.25, 0.125},
                              .strings = {"fine\n"}}
            .bytes();
    }

    void apply(int32_t revision, const std::string& text, bool has_text = true) {
        const std::string author = has_text ? "ann" : "collector";
        change_store(*with, [=](engine& e) {
            return e.append_fleet_revision({.revision = revision,
                                            .time = noon + revision,
                                            .author = author,
                                            .about = "a sentence",
                                            .text = text,
                                            .has_text = has_text});
        });
        fleet.now.revision = revision;
        fleet.now.time = noon + revision;
        fleet.now.author = author;
        fleet.now.about = "a sentence";
        if (has_text) {
            fleet.now.text_revision = revision;
            fleet.in_force = text;
        }
    }

    stored_change change(int64_t id, change_outcome outcome = change_outcome::sent,
                         const char* agent = "web-1", const char* test = "load") {
        return {.id = id,
                .revision = static_cast<int32_t>(id),
                .time = noon + id,
                .account = "a@b.c",
                .agent = agent,
                .test = test,
                .was = {},
                .action = static_cast<uint8_t>(change_action::change),
                .type = type_load_average,
                .number = 5,
                .sent = outcome == change_outcome::impossible ? 0 : noon + id + 1,
                .settled = noon + id + 2,
                .outcome = outcome,
                .reason = {}};
    }
    void put(const stored_change& what) {
        change_store(*with, [what](engine& e) { return e.put_change(what); });
    }

    /* What an applying of it is answered with. */
    static fleet_outcome some_outcome() {
        fleet_outcome done;
        done.revision = 7;
        done.notes.push_back({{9, 1}, "alerts: read, not heeded by this version"});
        fleet_difference& all = done.difference;
        all.added = 1;
        all.changed = 1;
        all.renamed = 1;
        all.intervals = 1;
        all.impossible = 1;
        all.unchanged = 11;
        all.agents_in_all = 3;
        all.agents_without = 1;
        all.groups_without = {"nobody"};
        fleet_difference::agent web{.account = "a@b.c",
                                    .name = "web-1",
                                    .groups = {"web servers", "everything"},
                                    .poll = 30,
                                    .check = 60,
                                    .about_intervals = "30s of web servers is shorter",
                                    .changes = {}};
        web.changes.push_back({.action = change_action::intervals});
        web.changes.push_back({.test = "root disk",
                               .action = change_action::change,
                               .type = type_disk,
                               .number = 4,
                               .reason = "10 % of 50 GB",
                               .fields = {{"free", "5 GB", "10 %"}, {"new", "", "x"}}});
        web.changes.push_back(
            {.test = "front", .was = "front page", .action = change_action::rename});
        web.changes.push_back({.test = "data",
                               .action = change_action::add,
                               .type = type_disk,
                               .impossible = "there is no disk /data"});
        all.agents.push_back(std::move(web));
        return done;
    }
    static std::string file() { return "version: 1\ngroups: []\n"; }
};

/* ---- reading ---- */

TEST_F(api_fleet_test, nothing_was_ever_applied) {
    json::value nothing = get("/api/v1/fleet");
    EXPECT_EQ(nothing.at("revision"), 0);
    EXPECT_TRUE(nothing.at("text").is_null());
    EXPECT_TRUE(nothing.at("time").is_null());
    EXPECT_EQ(nothing.at("read_only"), false);
    EXPECT_EQ(nothing.at("plan"), false);
    EXPECT_EQ(refused("/api/v1/fleet?revision=1", 404), "There is no revision 1; the newest is 0.");
    accept = "application/yaml";
    EXPECT_EQ(refused("/api/v1/fleet", 404), "There is no fleet yet: nothing was ever applied.");
    accept = "";
    EXPECT_EQ(ask("/api/v1/fleet/revisions").body, "{\"items\":[],\"next\":null}");
    EXPECT_EQ(ask("/api/v1/changes").body, "{\"items\":[],\"next\":null}");
}

TEST_F(api_fleet_test, the_one_in_force_and_older_ones) {
    apply(1, "version: 1 # first\n");
    apply(3, file());
    apply(5, "", false);
    fleet.now.agents = 2;
    fleet.now.tests = 9;
    fleet.now.unanswered = 1;
    json::value now = get("/api/v1/fleet");
    EXPECT_EQ(now.at("revision"), 5);
    EXPECT_EQ(now.at("text_revision"), 3);
    EXPECT_EQ(now.at("author"), "collector");
    EXPECT_EQ(now.at("time"), "2026-05-01T12:00:05Z");
    EXPECT_EQ(now.at("text"), json::value(file()));
    EXPECT_EQ(now.at("in_force"), true);
    EXPECT_EQ(now.at("agents"), 2);
    EXPECT_EQ(now.at("changes").at("unanswered"), 1);
    for (const char* same : {"3", "4", "5"}) {
        EXPECT_EQ(get(std::string("/api/v1/fleet?revision=") + same).at("text"),
                  json::value(file()))
            << same;
    }
    for (const char* old : {"1", "2"}) {
        json::value first = get(std::string("/api/v1/fleet?revision=") + old);
        EXPECT_EQ(first.at("text"), "version: 1 # first\n");
        EXPECT_EQ(first.at("revision"), 1);
        EXPECT_EQ(first.at("author"), "ann");
        EXPECT_EQ(first.at("in_force"), false);
        EXPECT_FALSE(first.as_object().contains("agents"));
    }
    EXPECT_EQ(refused("/api/v1/fleet?revision=6", 404), "There is no revision 6; the newest is 5.");
    refused("/api/v1/fleet?revision=0", 400);
}

TEST_F(api_fleet_test, as_yaml_where_that_is_wanted) {
    apply(1, "version: 1 # first\n");
    apply(3, file());
    for (const char* wants : {"application/yaml", "text/yaml", "application/x-yaml;q=0.5",
                              "application/yaml, application/json;q=0.9", "*/*;q=0.1, text/yaml"}) {
        accept = wants;
        api_answer answer = ask("/api/v1/fleet");
        EXPECT_EQ(answer.type, "application/yaml") << wants;
        EXPECT_EQ(answer.body, file());
    }
    for (const char* other : {"", "*/*", "application/json", "application/yaml;q=0.5, */*",
                              "text/html, */*;q=0.8", "application/yaml;q=0"}) {
        accept = other;
        EXPECT_EQ(ask("/api/v1/fleet").type, "application/json") << other;
    }
    accept = "application/yaml";
    api_answer first = ask("/api/v1/fleet?revision=2");
    EXPECT_EQ(first.body, "version: 1 # first\n");
    EXPECT_EQ(first.headers.at(0).first, "ETag");
    if_none_match = first.headers.at(0).second;
    EXPECT_EQ(ask("/api/v1/fleet?revision=1").status, 304);
    EXPECT_EQ(ask("/api/v1/fleet").status, 200);
}

/* Its text may have passwords in it. */
TEST_F(api_fleet_test, viewers_do_not_see_the_text) {
    apply(1, "version: 1 # first\n");
    apply(3, file());
    for (const char* which : {"/api/v1/fleet", "/api/v1/fleet?revision=1"}) {
        json::value seen = get(which, 200, "GET", "", role::viewer);
        EXPECT_TRUE(seen.at("text").is_null());
        EXPECT_TRUE(seen.at("content").is_null());
        EXPECT_EQ(get(which, 200, "GET", "", role::operates).at("content").at("version"), 1);
    }
    accept = "application/yaml";
    EXPECT_EQ(refused("/api/v1/fleet", 403, "GET", "", role::viewer),
              "The text needs the role operator, and \"ann\" is viewer: ask for JSON, which has "
              "the rest.");
}

TEST_F(api_fleet_test, revisions_page_by_page) {
    for (int32_t each = 1; each <= 6; each++) {
        apply(each, file(), each % 2 == 1);
    }
    EXPECT_EQ(pages("/api/v1/fleet/revisions", "revision", 4), "6 5 4 3 2 1");
    EXPECT_EQ(pages("/api/v1/fleet/revisions?applied=1", "revision", 1), "5 3 1");
    EXPECT_EQ(pages("/api/v1/fleet/revisions", "has_text", 100),
              "false true false true false true");
    EXPECT_EQ(column(get("/api/v1/fleet/revisions?limit=2"), "author"), "collector ann");
    refused("/api/v1/fleet/revisions?next=MTE", 400);
}

TEST_F(api_fleet_test, the_schema) {
    EXPECT_EQ(get("/api/v1/fleet/schema").at("type"), "object");
}

/* ---- applying ---- */

TEST_F(api_fleet_test, an_applying_is_answered_with_the_difference) {
    submit(load(5));
    fleet.outcome = some_outcome();
    json::value done = get("/api/v1/fleet?revision=0", 200, "PUT", file(), role::operates);
    EXPECT_EQ(fleet.asked, (std::vector<std::string>{"apply " + file() + " by ann on 0"}));
    EXPECT_EQ(done.at("revision"), 7);
    EXPECT_EQ(done.at("dry_run"), false);
    EXPECT_EQ(json_text(done.at("summary")),
              R"({"add":1,"change":1,"rename":1,"remove":0,"intervals":1,"impossible":1,)"
              R"("unchanged":11,"agents":3,"agents_changed":1,"agents_without":1,)"
              R"("groups_without":["nobody"]})");
    EXPECT_EQ(json_text(done.at("agents").at(0).at("agent")),
              R"({"id":1,"account":"a@b.c","name":"web-1"})");
    EXPECT_EQ(json_text(done.at("agents").at(0).at("groups")), R"(["web servers","everything"])");
    EXPECT_EQ(done.at("agents").at(0).at("about"), "30s of web servers is shorter");
    const json::array& changes = done.at("agents").at(0).at("changes").as_array();
    EXPECT_EQ(json_text(changes.at(0)),
              R"({"test":null,"was":null,"action":"intervals","type":null,"number":null,)"
              R"("impossible":null,"reason":null,"fields":[]})");
    EXPECT_EQ(json_text(changes.at(1)),
              R"({"test":"root disk","was":null,"action":"change","type":"disk","number":4,)"
              R"("impossible":null,"reason":"10 % of 50 GB","fields":[{"name":"free",)"
              R"("from":"5 GB","to":"10 %"},{"name":"new","from":null,"to":"x"}]})");
    EXPECT_EQ(changes.at(2).at("was"), "front page");
    EXPECT_EQ(changes.at(3).at("impossible"), "there is no disk /data");
    EXPECT_EQ(done.at("more"), 0);
    EXPECT_EQ(json_text(done.at("notes")),
              R"([{"line":9,"column":1,"text":"alerts: read, not heeded by this version"}])");
}

TEST_F(api_fleet_test, what_is_applied_is_audited) {
    fleet.outcome = some_outcome();
    EXPECT_EQ(ask("/api/v1/fleet", "PUT", file()).audit,
              "applied fleet revision 7: 1 added, 1 changed, 1 renamed, 1 intervals, 1 impossible");
    EXPECT_EQ(ask("/api/v1/fleet?dry_run=1", "PUT", file()).audit, "");
    fleet.outcome.difference = {};
    EXPECT_EQ(ask("/api/v1/fleet", "PUT", file()).audit,
              "applied fleet revision 7: no test changes");
    fleet.outcome.is_same = true;
    EXPECT_EQ(ask("/api/v1/fleet", "PUT", file()).audit, "");
    EXPECT_EQ(fleet.asked.size(), 4u);
}

TEST_F(api_fleet_test, a_trial_changes_nothing) {
    fleet.outcome = some_outcome();
    json::value done = get("/api/v1/fleet?dry_run", 200, "PUT", file(), role::operates);
    EXPECT_EQ(done.at("dry_run"), true);
    EXPECT_EQ(fleet.asked, (std::vector<std::string>{"try " + file()}));
    refused("/api/v1/fleet?dry_run", 403, "PUT", file(), role::viewer);
    refused("/api/v1/fleet", 403, "PUT", file(), role::viewer);
    refused("/api/v1/fleet", 401, "PUT", file(), role::none);
    EXPECT_EQ(fleet.asked.size(), 1u);
}

/* Of an agent that the store does not have, as one that polled before results were lost. */
TEST_F(api_fleet_test, an_agent_that_is_not_stored_has_no_id) {
    fleet.outcome = some_outcome();
    json::value done = get("/api/v1/fleet", 200, "PUT", file());
    EXPECT_TRUE(done.at("agents").at(0).at("agent").at("id").is_null());
}

/* What was done is said, whether or not the store can be read just then. */
TEST_F(api_fleet_test, ids_are_not_waited_for) {
    std::vector<reader_pool::lent> all;
    for (int i = 0; i < 4; i++) {
        all.push_back(stored.lend());
    }
    fleet.outcome = some_outcome();
    deadline = std::chrono::steady_clock::now();
    json::value done = get("/api/v1/fleet", 200, "PUT", file());
    EXPECT_TRUE(done.at("agents").at(0).at("agent").at("id").is_null());
    EXPECT_EQ(done.at("revision"), 7);
}

TEST_F(api_fleet_test, mistakes_are_all_told) {
    fleet.outcome.wrong = {{{3, 7}, "`htttp`: no such test; `http`?"}, {{4, 1}, "a key twice"}};
    json::value wrong = get("/api/v1/fleet?dry_run=1", 422, "PUT", file());
    EXPECT_EQ(wrong.at("detail"), "The fleet file has 2 mistakes: nothing was changed.");
    EXPECT_EQ(wrong.at("title"), "Unprocessable content");
    EXPECT_EQ(json_text(wrong.at("errors")),
              R"([{"line":3,"column":7,"text":"`htttp`: no such test; `http`?"},)"
              R"({"line":4,"column":1,"text":"a key twice"}])");
    fleet.outcome.wrong.pop_back();
    EXPECT_EQ(refused("/api/v1/fleet", 422, "PUT", file()),
              "The fleet file has 1 mistake: nothing was changed.");
    EXPECT_EQ(ask("/api/v1/fleet", "PUT", file()).audit, "");
}

TEST_F(api_fleet_test, an_empty_body_is_no_file) {
    EXPECT_EQ(refused("/api/v1/fleet", 400, "PUT", ""),
              "The body is empty: it has to be the fleet file. \"version: 1\" alone is one that "
              "has no tests.");
    EXPECT_TRUE(fleet.asked.empty());
}

/* Somebody applied another text since; what the collector went on from by itself is no matter. */
TEST_F(api_fleet_test, a_text_in_between_is_a_conflict) {
    apply(3, file());
    apply(5, "", false);
    for (const char* stale : {"0", "1", "2"}) {
        EXPECT_EQ(refused(std::string("/api/v1/fleet?revision=") + stale, 409, "PUT", file()),
                  std::string("The fleet is at revision 5, and not at ") + stale +
                      ": somebody applied another text since. Look at the difference again.");
    }
    EXPECT_EQ(refused("/api/v1/fleet?dry_run=1&revision=6", 409, "PUT", file()),
              "The fleet is at revision 5, and not at 6.");
    EXPECT_TRUE(fleet.asked.empty());
    for (const char* good : {"?revision=3", "?revision=4", "?revision=5&dry_run=1", ""}) {
        get(std::string("/api/v1/fleet") + good, 200, "PUT", file());
    }
    EXPECT_EQ(fleet.asked.size(), 4u);
    fleet.outcome.error = "Revision 6 came in between.";
    fleet.outcome.is_conflict = true;
    EXPECT_EQ(refused("/api/v1/fleet", 409, "PUT", file()), "Revision 6 came in between.");
    fleet.outcome.is_conflict = false;
    fleet.outcome.error = "It cannot be stored: disk full.";
    EXPECT_EQ(refused("/api/v1/fleet", 503, "PUT", file()), "It cannot be stored: disk full.");
    fleet.outcome.error = "There may be 5 tests, and these are 6.";
    fleet.outcome.is_too_large = true;
    EXPECT_EQ(refused("/api/v1/fleet", 422, "PUT", file()),
              "There may be 5 tests, and these are 6.");
}

TEST_F(api_fleet_test, a_file_rules) {
    apply(3, file());
    fleet.now.file = "/etc/vindral/fleet.yaml";
    fleet.now.file_trouble = "line 3: no such test";
    json::value now = get("/api/v1/fleet");
    EXPECT_EQ(now.at("file"), "/etc/vindral/fleet.yaml");
    EXPECT_EQ(now.at("read_only"), true);
    EXPECT_EQ(now.at("trouble"), "line 3: no such test");
    EXPECT_EQ(refused("/api/v1/fleet", 409, "PUT", file()),
              "The file /etc/vindral/fleet.yaml rules (--fleet): change that, and the collector "
              "reads it.");
    EXPECT_TRUE(fleet.asked.empty());
    get("/api/v1/fleet?dry_run=1", 200, "PUT", file()); /* what it would change may be asked */
}

TEST_F(api_fleet_test, a_plan_rules) {
    submit(load(5));
    for (bool is_null : {true, false}) {
        with->fleet = is_null ? nullptr : &fleet;
        fleet.now.is_planned = true;
        json::value now = get("/api/v1/fleet");
        EXPECT_EQ(now.at("plan"), true);
        EXPECT_EQ(now.at("read_only"), true);
        EXPECT_TRUE(now.at("text").is_null());
        for (const char* how : {"", "?dry_run=1"}) {
            EXPECT_EQ(refused(std::string("/api/v1/fleet") + how, 409, "PUT", file()),
                      "A plan of raw commands rules (--plan): a collector with one has no fleet. "
                      "Start it without, or with --fleet FILE.");
        }
        accept = "application/yaml";
        EXPECT_EQ(refused("/api/v1/fleet", 404),
                  "There is no fleet: a plan of raw commands rules.");
        accept = "";
        EXPECT_EQ(column(get("/api/v1/agents"), "groups"), "[]");
        EXPECT_EQ(column(get("/api/v1/agents?group=x"), "name"), "");
        EXPECT_EQ(column(get("/api/v1/changes?group=x"), "id"), "");
        EXPECT_EQ(ask("/metrics").body.find("vindral_fleet_revision"), std::string::npos);
    }
    EXPECT_TRUE(fleet.asked.empty());
}

/* Of what there is no room for it is said how much it is, and all of it counts. */
TEST_F(api_fleet_test, a_difference_that_is_too_large_is_cut) {
    fleet.outcome = some_outcome();
    fleet_difference::agent other = fleet.outcome.difference.agents[0];
    for (int i = 0; i < 50; i++) {
        other.name = "other-" + std::to_string(i);
        fleet.outcome.difference.agents.push_back(other);
    }
    json::value whole = get("/api/v1/fleet", 200, "PUT", file());
    EXPECT_EQ(whole.at("agents").as_array().size(), 51u);
    EXPECT_EQ(whole.at("more"), 0);
    for (size_t bytes : {0u, 100u, 900u, 3000u, 10000u}) {
        most_difference_bytes = bytes;
        json::value cut = get("/api/v1/fleet", 200, "PUT", file());
        size_t there = 0;
        for (const json::value& agent : cut.at("agents").as_array()) {
            there += agent.at("changes").as_array().size();
        }
        EXPECT_LT(json_text(cut).size(), bytes + 2000);
        EXPECT_EQ(there + cut.at("more").to_number<size_t>(), 51u * 4) << bytes;
        EXPECT_EQ(cut.at("summary").at("agents_changed"), 51);
    }
}

/* Hostile texts are escaped as in every answer. */
TEST_F(api_fleet_test, texts_are_escaped) {
    fleet.outcome = some_outcome();
    fleet.outcome.difference.agents[0].name = "we\"b\x1b\\";
    fleet.outcome.difference.agents[0].changes[1].fields[0].to = "\xff\n";
    json::value done = get("/api/v1/fleet", 200, "PUT", file());
    EXPECT_EQ(done.at("agents").at(0).at("agent").at("name"), "we\"b\x1b\\");
    EXPECT_EQ(ask("/api/v1/fleet", "PUT", file()).body.find('\x1b'), std::string::npos);
}

/* One at a time is read; whoever else comes is told so within a second or so. */
TEST_F(api_fleet_test, one_text_at_a_time) {
    struct slow_fleet final : fleet_service {
        fleet_standing standing() const override { return {}; }
        std::string text(int32_t& revision) const override {
            revision = 0;
            return "";
        }
        fleet_outcome try_out(std::string_view) override {
            std::unique_lock hold(mutex);
            inside++;
            changed.notify_all();
            changed.wait(hold, [this] { return may_go; });
            return {};
        }
        fleet_outcome apply(std::string_view, const std::string&, std::optional<int32_t>) override {
            return {};
        }
        std::vector<std::string> groups_of(std::string_view, std::string_view) const override {
            return {};
        }
        std::vector<fleet_test_standing> tests_of(std::string_view,
                                                  std::string_view) const override {
            return {};
        }
        std::optional<fleet_test_standing> test_of(std::string_view, std::string_view, uint32_t,
                                                   int32_t) const override {
            return {};
        }
        std::mutex mutex;
        std::condition_variable changed;
        int inside = 0;
        bool may_go = false;
    } slow;
    with->fleet = &slow;
    int status = 0;
    std::thread first([&] { status = ask("/api/v1/fleet?dry_run=1", "PUT", file()).status; });
    {
        std::unique_lock hold(slow.mutex);
        slow.changed.wait(hold, [&] { return slow.inside == 1; });
    }
    EXPECT_EQ(refused("/api/v1/fleet", 503, "PUT", file()),
              "Another fleet file is being read: nothing was changed. Try again in a few seconds.");
    {
        std::lock_guard hold(slow.mutex);
        slow.may_go = true;
        slow.changed.notify_all();
    }
    first.join();
    EXPECT_EQ(status, 200);
    get("/api/v1/fleet", 200, "PUT", file());
}

/* ---- groups ---- */

TEST_F(api_fleet_test, agents_say_their_groups) {
    submit(load(5));
    submit(load(5), "web-2");
    submit(load(5), "db-1");
    fleet.groups = {{"a@b.c/web-1", {"web servers", "everything"}},
                    {"a@b.c/web-2", {"web servers"}},
                    {"a@b.c/db-1", {"everything"}}};
    EXPECT_EQ(column(get("/api/v1/agents"), "groups"),
              R"(["everything"] ["web servers","everything"] ["web servers"])");
    EXPECT_EQ(json_text(get("/api/v1/agents/a%40b.c%2Fweb-1").at("groups")),
              R"(["web servers","everything"])");
    EXPECT_EQ(pages("/api/v1/agents?group=web+servers", "name", 1), "web-1 web-2");
    EXPECT_EQ(pages("/api/v1/agents?group=everything&q=db", "name", 1), "db-1");
    EXPECT_EQ(column(get("/api/v1/agents?group=none"), "name"), "");
}

/* ---- changes ---- */

TEST_F(api_fleet_test, changes_newest_first) {
    submit(load(5));
    put(change(1, change_outcome::confirmed));
    put(change(2, change_outcome::impossible, "gone-1", "data"));
    put(change(3, change_outcome::unanswered, "web-1", "front page"));
    json::value list = get("/api/v1/changes");
    EXPECT_EQ(column(list, "id"), "3 2 1");
    EXPECT_EQ(column(list, "outcome"), "unanswered impossible confirmed");
    EXPECT_EQ(column(list, "agent.id"), "1 null 1");
    EXPECT_EQ(json_text(list.at("items").at(2)),
              R"({"id":1,"revision":1,"time":"2026-05-01T12:00:01Z","agent":{"id":1,)"
              R"("account":"a@b.c","name":"web-1"},"test":"load","was":null,"action":"change",)"
              R"("type":"load average","number":5,"sent":"2026-05-01T12:00:02Z",)"
              R"("settled":"2026-05-01T12:00:03Z","outcome":"confirmed","reason":null})");
    EXPECT_TRUE(list.at("items").at(1).at("sent").is_null());
    EXPECT_EQ(pages("/api/v1/changes", "id", 1), "3 2 1");
}

TEST_F(api_fleet_test, changes_that_are_asked_for) {
    submit(load(5));
    for (int64_t id = 1; id <= 8; id++) {
        put(change(id, static_cast<change_outcome>(1 + id % 4), id % 2 == 0 ? "web-1" : "web-2",
                   id % 3 == 0 ? "load" : "front page"));
    }
    fleet.groups = {{"a@b.c/web-2", {"second"}}};
    EXPECT_EQ(pages("/api/v1/changes?agent=1", "id", 3), "8 6 4 2");
    EXPECT_EQ(pages("/api/v1/changes?agent=a%40b.c/web-1", "id", 100), "8 6 4 2");
    refused("/api/v1/changes?agent=a%40b.c/web-2", 404);
    EXPECT_EQ(pages("/api/v1/changes?group=second", "id", 3), "7 5 3 1");
    EXPECT_EQ(pages("/api/v1/changes?group=none", "id", 3), "");
    EXPECT_EQ(pages("/api/v1/changes?test=load", "id", 1), "6 3");
    EXPECT_EQ(pages("/api/v1/changes?test=loa", "id", 1), "");
    EXPECT_EQ(pages("/api/v1/changes?outcome=sent", "id", 3), "8 4");
    EXPECT_EQ(pages("/api/v1/changes?outcome=unanswered,impossible", "id", 2), "7 6 3 2");
    EXPECT_EQ(pages("/api/v1/changes?revision=4", "id", 2), "4");
    EXPECT_EQ(pages("/api/v1/changes?from=2026-05-01T12:00:03Z&to=2026-05-01T12:00:06Z", "id", 2),
              "5 4 3");
    refused("/api/v1/changes?from=2026-05-01T12:00:03Z&to=2026-05-01T12:00:03Z", 400);
    refused("/api/v1/changes?next=MTEKMgo", 400);
}

/* What nothing came of yet, or never will, of what the agent is to have now. */
TEST_F(api_fleet_test, changes_that_are_open) {
    submit(load(5));
    auto standing = [](const char* name, int32_t number, int32_t revision, const char* why) {
        fleet_test_standing test;
        test.name = name;
        test.kind = find_kind("load");
        test.number = number;
        test.revision = revision;
        test.impossible = why;
        return test;
    };
    fleet.tests["a@b.c/web-1"] = {standing("load", 5, 4, ""),
                                  standing("data", 0, 0, "no disk; there is /srv"),
                                  standing("late", 7, 9, "")};
    auto of = [&](int64_t id, change_outcome outcome, const char* test, int32_t number,
                  change_action action = change_action::change, const char* reason = "") {
        stored_change one = change(id, outcome, "web-1", test);
        one.number = number;
        one.action = static_cast<uint8_t>(action);
        one.reason = reason;
        put(one);
    };
    of(3, change_outcome::unanswered, "load", 5, change_action::change,
       "revision 4 took its place");
    of(4, change_outcome::sent, "load", 5);
    of(5, change_outcome::impossible, "data", 0, change_action::add, "no disk; there is /home");
    of(6, change_outcome::impossible, "found since", 0, change_action::add);
    of(7, change_outcome::sent, "gone", 6, change_action::remove);
    of(8, change_outcome::sent, "", 0, change_action::intervals);
    of(9, change_outcome::confirmed, "late", 7);
    of(10, change_outcome::unanswered, "", 0, change_action::intervals,
       "revision 11 took its place before it was sent");
    of(11, change_outcome::unanswered, "nobody's", 99);
    of(12, change_outcome::unanswered, "went", 8, change_action::remove, "the agent was retired");
    of(13, change_outcome::unanswered, "", 0, change_action::intervals, "the agent was retired");
    of(14, change_outcome::impossible, "data", 0, change_action::add, "nobody knows its disks");
    of(15, change_outcome::impossible, "load", 5, change_action::change, "no such secret");
    EXPECT_EQ(pages("/api/v1/changes?open=1", "id", 100), "8 7 5 4");
    EXPECT_EQ(pages("/api/v1/changes?open=1&outcome=impossible,confirmed", "id", 2), "5");
    EXPECT_EQ(pages("/api/v1/changes?open=0", "id", 2), "15 14 13 12 11 10 9 8 7 6 5 4 3");
    with->fleet = nullptr;
    EXPECT_EQ(pages("/api/v1/changes?open=1", "id", 2), "");
}

/* ---- the stream ---- */

class api_live_changes_test : public api_fleet_test {
protected:
    std::vector<hub_message> heard(const std::string& query = "") {
        api_request asked;
        asked.who = {role::viewer, 1, "ann", "192.0.2.9"};
        const std::string target = "/api/v1/stream" + query;
        const hub_filter which = stream_filter(target, asked, *with);
        std::vector<hub_message> found;
        uint64_t position = 0;
        hub.read(position, which, SIZE_MAX, found, lost);
        return found;
    }
    bool lost = false;
};

TEST_F(api_live_changes_test, who_listens_is_told) {
    submit(load(5));
    std::atomic<int> woken = 0;
    hub.subscribe([&] { woken++; });
    live_changes told(hub, state);
    told.tell(change(1));
    told.tell(change(2, change_outcome::confirmed, "gone-1"));
    ASSERT_TRUE(eventually([&] { return heard().size() == 2; }));
    EXPECT_TRUE(eventually([&] { return woken > 0; }));
    EXPECT_FALSE(lost);
    json::value first = json::parse(*heard()[0].json);
    EXPECT_EQ(misfit(first, "change"), "");
    EXPECT_EQ(first.at("agent").at("id"), 1);
    EXPECT_EQ(heard()[0].agent, 1);
    EXPECT_EQ(heard()[0].test, 1) << "the test of that type and number";
    EXPECT_EQ(heard()[1].agent, 0);
    EXPECT_TRUE(json::parse(*heard()[1].json).at("agent").at("id").is_null());
    EXPECT_EQ(heard("?kind=change").size(), 2u);
    EXPECT_EQ(heard("?kind=result,event,agent").size(), 0u);
    EXPECT_EQ(heard("?kind=change&agent=1").size(), 1u);
    EXPECT_EQ(heard("?kind=change&test=1").size(), 1u);
}

TEST_F(api_live_changes_test, nobody_listens) {
    live_changes told(hub, state);
    const uint64_t before = hub.newest();
    told.tell(change(1));
    EXPECT_GT(hub.newest(), before) << "who comes back is told that something is lost";
    EXPECT_TRUE(heard().empty());
}

/* What there is no room for is told to be lost, and it goes on from there. */
TEST_F(api_live_changes_test, more_than_there_is_room_for) {
    submit(load(5));
    hub.subscribe([] {});
    live_changes told(hub, state, 0);
    told.tell(change(1));
    EXPECT_TRUE(heard().empty());
    live_changes few(hub, state, 3);
    for (int64_t id = 1; id <= 2000; id++) {
        few.tell(change(id));
    }
    EXPECT_TRUE(eventually([&] {
        few.tell(change(2001));
        return !heard("?kind=change").empty() && lost;
    }));
}

/* Also when there is no store to look in. */
TEST_F(api_live_changes_test, without_a_store) {
    hub.subscribe([] {});
    live_changes told(hub, directory / "nowhere");
    told.tell(change(1));
    EXPECT_TRUE(eventually([&] { return heard().size() == 1; }));
}

/* ---- metrics ---- */

TEST_F(api_fleet_test, prometheus_sees_the_fleet) {
    apply(3, file());
    fleet.now.agents = 4;
    fleet.now.tests = 9;
    fleet.now.waiting = 1;
    fleet.now.confirmed = 8;
    fleet.now.file_trouble = "x";
    const std::string text = ask("/metrics").body;
    for (const char* line :
         {"\nvindral_fleet_revision 3\n", "\nvindral_fleet_agents 4\n", "\nvindral_fleet_tests 9\n",
          "\nvindral_fleet_file_wrong 1\n", "\nvindral_fleet_changes{outcome=\"waiting\"} 1\n",
          "\nvindral_fleet_changes{outcome=\"confirmed\"} 8\n",
          "\nvindral_fleet_changes{outcome=\"impossible\"} 0\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
}
