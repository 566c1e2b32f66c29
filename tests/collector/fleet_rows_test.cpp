/* What agents are to do, as the engine keeps it: revisions, what was assigned, changes. Nothing of
 * SQLite in here. */
#include "kept_engine.h"

#include <chrono>

struct fleet_rows_test : kept_engine {
    void apply(int32_t revision, std::string_view text, const char* about = "applied") {
        EXPECT_TRUE(e->append_fleet_revision({.revision = revision,
                                              .time = noon + revision,
                                              .author = "anna",
                                              .about = about,
                                              .text = text,
                                              .has_text = true}))
            << e->reason();
    }
    void go_on_from(int32_t revision, int64_t time = noon) {
        EXPECT_TRUE(e->append_fleet_revision({.revision = revision,
                                              .time = time,
                                              .author = "collector",
                                              .about = "a disk was found",
                                              .text = "",
                                              .has_text = false}))
            << e->reason();
    }
    strings revisions(bool texts = true) {
        strings found;
        auto note = [&](const fleet_revision& r) {
            found.push_back(std::to_string(r.revision) + " " + std::to_string(r.time - noon) + " " +
                            std::string(r.author) + " " + std::string(r.about) +
                            (r.has_text ? " text:" : "") + std::string(r.text));
            return true;
        };
        EXPECT_TRUE(reader()->for_each_fleet_revision(texts, note, error)) << error;
        return found;
    }
    std::string fleet(int32_t revision) {
        std::string found = "none";
        auto note = [&](const fleet_revision& r) {
            EXPECT_TRUE(r.has_text);
            found = std::to_string(r.revision) + " " + std::string(r.text);
        };
        EXPECT_TRUE(reader()->read_fleet(revision, note, error)) << error;
        return found;
    }
    strings agents() {
        strings found;
        auto note = [&](const fleet_agent& a) {
            found.push_back(std::string(a.account) + "/" + std::string(a.agent) + " " +
                            std::string(a.assigned));
        };
        EXPECT_TRUE(reader()->for_each_fleet_agent(note, error)) << error;
        return found;
    }
    static stored_change change(int64_t id, int32_t revision, std::string_view agent,
                                std::string_view test) {
        return {.id = id,
                .revision = revision,
                .time = noon + id,
                .account = "a@b.c",
                .agent = agent,
                .test = test,
                .was = "",
                .action = 1,
                .type = 46,
                .number = 401,
                .reason = "it has not polled yet"};
    }
    void put(const stored_change& what) { EXPECT_TRUE(e->put_change(what)) << e->reason(); }
    /* Their ids. */
    std::string changes(const change_filter& which, size_t most = SIZE_MAX) {
        std::string found;
        auto note = [&](const stored_change& c) {
            found += (found.empty() ? "" : " ") + std::to_string(c.id);
            return --most > 0;
        };
        EXPECT_TRUE(reader()->for_each_change(which, note, error)) << error;
        return found;
    }
    static uint8_t outcome(change_outcome o) {
        return static_cast<uint8_t>(1u << static_cast<unsigned>(o));
    }
    template <typename Do>
    void until_done(Do drop) {
        drop_outcome outcome = drop_outcome::more;
        while (outcome == drop_outcome::more) {
            outcome = drop();
        }
        EXPECT_EQ(outcome, drop_outcome::done) << e->reason();
    }
};

/* ---- revisions ---- */

TEST_F(fleet_rows_test, revisions_are_read_newest_first) {
    EXPECT_EQ(revisions(), strings());
    EXPECT_EQ(fleet(INT32_MAX), "none");
    const std::string text = std::string("version: 1\n# \0 \xff\n", 17);
    within([&] {
        go_on_from(1);
        apply(2, text);
        go_on_from(5, noon + 5);
        apply(INT32_MAX, "", "emptied");
    });
    EXPECT_EQ(revisions(),
              (strings{"2147483647 2147483647 anna emptied text:", "5 5 collector a disk was found",
                       "2 2 anna applied text:" + text, "1 0 collector a disk was found"}));
    EXPECT_EQ(revisions(false)[2], "2 2 anna applied text:");
    EXPECT_EQ(fleet(1), "none");
    EXPECT_EQ(fleet(2), "2 " + text);
    EXPECT_EQ(fleet(5), "2 " + text) << "that of the one before";
    EXPECT_EQ(fleet(INT32_MAX - 1), "2 " + text);
    EXPECT_EQ(fleet(INT32_MAX), "2147483647 ") << "an empty text is one";
    size_t looked_at = 0;
    auto once = [&](const fleet_revision&) { return ++looked_at < 2; };
    EXPECT_TRUE(reader()->for_each_fleet_revision(false, once, error));
    EXPECT_EQ(looked_at, 2u);
}

TEST_F(fleet_rows_test, a_revision_is_given_once_and_no_damage) {
    within([&] { apply(7, "seven"); });
    for (int32_t again : {7, 6, 0, -1}) {
        ASSERT_TRUE(e->begin());
        stored_agent agent;
        EXPECT_TRUE(e->find_agent("a@b.c", "one", noon, agent));
        EXPECT_FALSE(e->append_fleet_revision({.revision = again, .text = "x", .has_text = true}));
        EXPECT_NE(e->reason().find("given before"), std::string::npos) << e->reason();
        EXPECT_FALSE(e->recover()) << "the file is not to blame";
    }
    EXPECT_EQ(revisions(), strings{"7 7 anna applied text:seven"});
    within([&] { apply(8, "eight"); });
    EXPECT_EQ(told, strings());
}

TEST_F(fleet_rows_test, a_transaction_that_is_given_up_leaves_nothing) {
    ASSERT_TRUE(e->begin());
    apply(1, "x");
    EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "b", .assigned = "c"}));
    put(change(1, 1, "b", "x"));
    e->give_up();
    EXPECT_EQ(revisions(), strings());
    within([&] { apply(1, "y"); });
    EXPECT_EQ(fleet(1), "1 y");
    EXPECT_EQ(agents(), strings());
    EXPECT_EQ(changes({}), "");
}

TEST_F(fleet_rows_test, the_newest_texts_are_kept) {
    const auto most = static_cast<int32_t>(most_fleet_texts);
    within([&] {
        go_on_from(1);
        for (int32_t i = 1; i <= most; i++) {
            apply(2 * i, std::to_string(i));
            go_on_from(2 * i + 1);
        }
    });
    EXPECT_EQ(fleet(2), "2 1");
    EXPECT_EQ(revisions(false).size(), 2u * most_fleet_texts) << "what was before the first went";
    within([&] { apply(5000, "new"); });
    EXPECT_EQ(fleet(3), "none");
    EXPECT_EQ(fleet(4), "4 2");
    EXPECT_EQ(fleet(5000), "5000 new");
    EXPECT_EQ(revisions(false).size(), 2u * most_fleet_texts - 1);
}

/* ---- agents ---- */

TEST_F(fleet_rows_test, what_an_agent_was_given_is_replaced) {
    const std::string packed("\0\1\2", 3);
    within([&] {
        EXPECT_TRUE(e->put_fleet_agent({.account = "b", .agent = "two", .assigned = "x"}));
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "two", .assigned = packed}));
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "\xff", .assigned = "y"}));
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "one", .assigned = "z"}));
    });
    EXPECT_EQ(agents(), (strings{"a/one z", "a/two " + packed, "a/\xff y", "b/two x"}));
    within([&] {
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "two", .assigned = "new"}));
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "one", .assigned = ""}));
        EXPECT_TRUE(e->put_fleet_agent({.account = "a", .agent = "none", .assigned = ""}));
    });
    EXPECT_EQ(agents(), (strings{"a/two new", "a/\xff y", "b/two x"}));
}

/* ---- changes ---- */

TEST_F(fleet_rows_test, a_change_comes_back_as_it_was_put) {
    const stored_change all = {.id = 5,
                               .revision = 7,
                               .time = noon,
                               .account = "a@b.c",
                               .agent = "web-1",
                               .test = "front page",
                               .was = "page",
                               .action = 3,
                               .type = UINT32_MAX,
                               .number = -801,
                               .sent = noon + 1,
                               .settled = noon + 2,
                               .outcome = change_outcome::confirmed,
                               .reason = "10 % of 50 GB"};
    within([&] {
        put(change(5, 1, "db-1", "load"));
        put(all);
    });
    size_t found = 0;
    auto same = [&](const stored_change& c) {
        found++;
        EXPECT_EQ(c.id, all.id);
        EXPECT_EQ(c.revision, all.revision);
        EXPECT_EQ(c.time, all.time);
        EXPECT_EQ(c.account, all.account);
        EXPECT_EQ(c.agent, all.agent);
        EXPECT_EQ(c.test, all.test);
        EXPECT_EQ(c.was, all.was);
        EXPECT_EQ(c.action, all.action);
        EXPECT_EQ(c.type, all.type);
        EXPECT_EQ(c.number, all.number);
        EXPECT_EQ(c.sent, all.sent);
        EXPECT_EQ(c.settled, all.settled);
        EXPECT_EQ(c.outcome, all.outcome);
        EXPECT_EQ(c.reason, all.reason);
        return true;
    };
    EXPECT_TRUE(reader()->for_each_change({}, same, error)) << error;
    EXPECT_EQ(found, 1u) << "in the place of the other";
    EXPECT_EQ(changes({.account = "a@b.c", .agent = "db-1"}), "");
    EXPECT_EQ(changes({.revision = 1}), "");
}

TEST_F(fleet_rows_test, changes_are_filtered_and_newest_first) {
    within([&] {
        put(change(3, 1, "web-1", "load"));
        put(change(1, 1, "web-1", "page"));
        put(change(2, 1, "web-2", "page"));
        for (int64_t id = 4; id <= 7; id++) {
            stored_change c = change(id, 2, id % 2 == 0 ? "web-1" : "web-2", "page");
            c.outcome = static_cast<change_outcome>(id - 3);
            put(c);
        }
        stored_change other = change(8, 2, "web-1", "");
        other.account = "other";
        put(other);
    });
    EXPECT_EQ(changes({}), "8 7 6 5 4 3 2 1");
    EXPECT_EQ(changes({}, 3), "8 7 6");
    EXPECT_EQ(changes({.below = 6}), "5 4 3 2 1");
    EXPECT_EQ(changes({.below = INT64_MIN}), "");
    EXPECT_EQ(changes({.revision = 1}), "3 2 1");
    EXPECT_EQ(changes({.below = 3, .revision = 1}), "2 1");
    EXPECT_EQ(changes({.revision = 9}), "");
    EXPECT_EQ(changes({.account = "a@b.c", .agent = "web-1"}), "6 4 3 1");
    EXPECT_EQ(changes({.account = "other", .agent = "web-1"}), "8");
    EXPECT_EQ(changes({.below = 6, .revision = 2, .account = "a@b.c", .agent = "web-1"}), "4");
    EXPECT_EQ(changes({.test = "page"}), "7 6 5 4 2 1");
    EXPECT_EQ(changes({.account = "a@b.c", .agent = "web-1", .test = "load"}), "3");
    EXPECT_EQ(changes({.outcomes = outcome(change_outcome::sent)}), "4");
    EXPECT_EQ(changes({.outcomes = static_cast<uint8_t>(outcome(change_outcome::confirmed) |
                                                        outcome(change_outcome::impossible))}),
              "7 5");
    EXPECT_EQ(changes({.revision = 1, .outcomes = outcome(change_outcome::unanswered)}), "3 2 1");
    EXPECT_EQ(changes({.from = noon + 3, .to = noon + 6}), "5 4 3");
    EXPECT_EQ(changes({.from = noon + 6, .to = noon + 3}), "");
}

/* ---- dropping ---- */

TEST_F(fleet_rows_test, old_changes_go_and_revisions_without_texts_with_them) {
    within([&] {
        for (int64_t id = 1; id <= 500; id++) {
            put(change(id, 1, "web-1", "page"));
        }
        apply(1, "text");
        go_on_from(2, noon);
        go_on_from(3, noon + 1000);
        go_on_from(4, noon);
    });
    until_done([&] { return e->drop_changes(noon + 400); });
    EXPECT_EQ(changes({.below = 403}), "402 401 400");
    EXPECT_EQ(revisions(false).size(), 3u);
    EXPECT_EQ(revisions()[0].substr(0, 2), "4 ") << "the newest stays: the next one is above it";
    until_done([&] { return e->drop_changes(noon + 10000); });
    EXPECT_EQ(changes({}), "");
    EXPECT_EQ(revisions(false).size(), 2u);
    EXPECT_EQ(fleet(4), "1 text") << "texts stay";
    until_done([&] { return e->drop_changes(noon + 10000); });
}

/* ---- much of it ---- */

/* A thousand agents with twenty tests each. How long it takes is told with the test's result. */
TEST_F(fleet_rows_test, twenty_thousand_changes_are_one_transaction) {
    using clock = std::chrono::steady_clock;
    const std::string assigned(2000, 'x');
    for (const char* round : {"new", "sent", "confirmed"}) {
        const clock::time_point begun = clock::now();
        within([&] {
            for (int64_t id = 1; id <= 20000; id++) {
                const std::string agent = "agent-" + std::to_string(id / 20);
                const std::string test = "a test of some length " + std::to_string(id % 20);
                put(change(id, 1, agent, test));
                if (id % 20 == 0) {
                    EXPECT_TRUE(e->put_fleet_agent(
                        {.account = "a@b.c", .agent = agent, .assigned = assigned}));
                }
            }
        });
        const auto took =
            std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begun);
        RecordProperty(round, static_cast<int>(took.count()));
    }
    EXPECT_EQ(changes({.revision = 1}, 2), "20000 19999");
    EXPECT_EQ(agents().size(), 1000u);
}
