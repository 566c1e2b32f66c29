/* Who makes room for whom, without a network. */
#include "ingest/admission.h"

#include <deque>
#include <gtest/gtest.h>
#include <vector>

using namespace std::chrono_literals;
using stage = admission::stage;
using verdict = admission::verdict;

namespace {

class admitting : public testing::Test {
protected:
    /* Made on first use, when a test has set the limits. */
    admission& all() {
        if (!all_) {
            all_ = std::make_unique<admission>(
                limits_, [this](admission::place& p, admission::need) { out_.push_back(&p); });
        }
        return *all_;
    }

    struct entry {
        admission::place place;
        verdict answer;
    };
    entry& come(uint64_t address) {
        entry& e = places_.emplace_back();
        e.answer = all().admit(e.place, address, now_);
        return e;
    }
    void wait(std::chrono::seconds time) { now_ += time; }

    admission_limits limits_{.most = 6, .most_per_address = 4, .patience = 2s, .memory = 128000};
    admission::time now_{100s};
    std::vector<admission::place*> out_; /* in the order of making room */
    std::unique_ptr<admission> all_;
    std::deque<entry> places_; /* gone before all_ */
};

using places = std::vector<admission::place*>;

} // namespace

TEST_F(admitting, the_most_crowded_address_gives_up_its_oldest) {
    entry& first = come(1);
    come(2);
    entry& second = come(1);
    come(1);
    come(2);
    come(1);
    EXPECT_EQ(come(3).answer, verdict::admitted);
    EXPECT_EQ(out_, places{&first.place});
    EXPECT_EQ(first.place.in(), stage::out);
    EXPECT_EQ(all().connections(), 6u);
    EXPECT_EQ(come(4).answer, verdict::admitted);
    EXPECT_EQ(out_, (places{&first.place, &second.place}));
}

TEST_F(admitting, nobody_is_put_out_for_one_who_would_have_as_many) {
    for (int i = 0; i < 3; ++i) {
        come(1);
        come(2);
    }
    EXPECT_EQ(come(1).answer, verdict::too_many);
    EXPECT_EQ(come(3).answer, verdict::admitted); /* three are more than one */
    EXPECT_EQ(come(3).answer, verdict::admitted); /* and more than two */
    EXPECT_EQ(come(3).answer, verdict::too_many); /* two each now */
    EXPECT_EQ(out_.size(), 2u);
}

TEST_F(admitting, of_an_address_those_unheard_go_first) {
    entry& heard = come(1);
    heard.place.set_stage(stage::heard, now_);
    entry& silent = come(1);
    come(1);
    come(1);
    come(2);
    come(2);
    come(3);
    EXPECT_EQ(out_, places{&silent.place});
    come(4); /* another silent one */
    EXPECT_EQ(heard.place.in(), stage::heard);
}

TEST_F(admitting, who_waits_for_us_stays) {
    limits_.patience = 0s;
    for (int i = 0; i < 4; ++i) {
        come(1).place.set_stage(stage::busy, now_);
    }
    entry& silent = come(2);
    entry& heard = come(3);
    heard.place.set_stage(stage::heard, now_);
    EXPECT_EQ(come(4).answer, verdict::admitted);
    EXPECT_EQ(out_, places{&silent.place});
    places_.back().place.set_stage(stage::busy, now_);
    EXPECT_EQ(come(5).answer, verdict::admitted);
    EXPECT_EQ(out_, (places{&silent.place, &heard.place}));
    places_.back().place.set_stage(stage::busy, now_);
    EXPECT_EQ(come(6).answer, verdict::too_many);
}

TEST_F(admitting, among_equals_only_those_go_who_have_had_their_time) {
    entry& oldest = come(1);
    for (uint64_t address = 2; address <= 6; ++address) {
        come(address);
    }
    wait(1s);
    EXPECT_EQ(come(7).answer, verdict::too_many);
    wait(1s);
    EXPECT_EQ(come(7).answer, verdict::admitted);
    EXPECT_EQ(out_, places{&oldest.place});
}

TEST_F(admitting, a_full_address_gives_up_its_own_only) {
    come(2);
    entry& oldest = come(1);
    for (int i = 0; i < 3; ++i) {
        come(1);
    }
    EXPECT_EQ(come(1).answer, verdict::too_many_of_address);
    wait(2s);
    EXPECT_EQ(come(1).answer, verdict::admitted);
    EXPECT_EQ(out_, places{&oldest.place});
}

TEST_F(admitting, an_agent_has_few_connections_that_are_heard) {
    std::deque<admission::visit> visits;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(visits.emplace_back(come(uint64_t(i)).place, "me", "agent").one_of_few());
    }
    entry& more = come(5);
    EXPECT_FALSE(visits.emplace_back(more.place, "me", "agent").one_of_few());
    visits.pop_back();
    EXPECT_TRUE(admission::visit(more.place, "me", "other").one_of_few());
    visits.pop_front();
    EXPECT_TRUE(admission::visit(more.place, "me", "agent").one_of_few());
}

TEST_F(admitting, an_agent_gets_two_thirds_of_the_memory_and_an_address_three_quarters) {
    limits_.memory = 120000;
    entry &one = come(1), &two = come(1), &three = come(2);
    {
        admission::visit by(one.place, "me", "agent");
        admission::memory_share share(one.place);
        EXPECT_TRUE(share.add(80000));
        EXPECT_FALSE(share.add(1));
    }
    admission::memory_share first(one.place), second(two.place), third(three.place);
    EXPECT_TRUE(first.add(45000));
    EXPECT_TRUE(second.add(45000));
    EXPECT_FALSE(second.add(1));
    EXPECT_TRUE(third.add(20000));
    EXPECT_TRUE(out_.empty());
}

TEST_F(admitting, memory_comes_back) {
    entry& one = come(1);
    for (int i = 0; i < 3; ++i) {
        admission::visit by(one.place, "me", "agent");
        admission::memory_share share(one.place);
        EXPECT_TRUE(share.add(80000));
        EXPECT_EQ(share.held(), 80000u);
    }
}

/* One after the other takes what it can: less and less remains. */
TEST_F(admitting, who_holds_most_makes_room_for_who_holds_little) {
    limits_.most = limits_.most_per_address = 1000;
    std::deque<admission::memory_share> shares;
    for (uint64_t address = 1; address <= 20; ++address) {
        for (int i = 0; i < 20; ++i) {
            admission::memory_share& share = shares.emplace_back(come(address).place);
            while (share.held() < 10000 && share.add(500)) {
            }
        }
    }
    for (uint64_t address = 101; address <= 110; ++address) {
        admission::memory_share mine(come(address).place);
        EXPECT_TRUE(mine.add(1000));
        for (admission::place* p : out_) {
            EXPECT_NE(p, &places_.back().place);
        }
    }
    shares.clear();
    admission::memory_share rest(come(7).place);
    EXPECT_TRUE(rest.add(96000)); /* three quarters: all has come back, that of those out too */
}

TEST_F(admitting, equals_do_not_put_each_other_out) {
    limits_.memory = 10000;
    limits_.most = limits_.most_per_address = 1000;
    std::deque<admission::memory_share> shares;
    for (uint64_t address = 1; address <= 50; ++address) {
        shares.emplace_back(come(address).place).add(300);
    }
    EXPECT_TRUE(out_.empty());
    EXPECT_FALSE(shares.back().add(300));
}

TEST_F(admitting, one_that_is_out_gets_nothing_more) {
    limits_.patience = 0s;
    limits_.most = 1;
    entry& first = come(1);
    admission::memory_share share(first.place);
    EXPECT_TRUE(share.add(1000));
    come(2);
    EXPECT_EQ(out_, places{&first.place});
    first.place.set_stage(stage::busy, now_);
    EXPECT_EQ(first.place.in(), stage::out);
    EXPECT_FALSE(share.add(1));
}
