#include "ingest/undecodable.cpp"

#include "collector_test_support.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/time.h>

using outcome = undecodable_files::outcome;
using namespace std::chrono_literals;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct undecodable_test : testing::Test {
    scratch_directory directory;
    std::string place = directory / "undecodable";
    undecodable_limits limits;
    undecodable_files::clock::time_point now{};
    std::unique_ptr<undecodable_files> files;
    std::string path, error;
    int blocks = 0, second = 0;

    void open() { files = std::make_unique<undecodable_files>(place, limits); }

    /* Another block of `bytes` bytes that are no record. Each file is a second younger than the one
     * before: times of files are too coarse for a test. */
    outcome keep(const std::string& agent, size_t bytes) {
        std::string hash = std::to_string(++blocks);
        hash.resize(32);
        outcome result = keep_as(agent, hash, std::string(bytes, 'x'));
        if (result == outcome::kept) {
            timeval times[2] = {{noon + ++second, 0}, {noon + second, 0}};
            EXPECT_EQ(utimes(path.c_str(), times), 0);
        }
        return result;
    }
    outcome keep_as(const std::string& agent, const std::string& hash, const std::string& block) {
        return files->keep("a@b.c", agent, noon, hash, block, block.size(), now, path, error);
    }
    size_t count() { return std::distance(fs::directory_iterator(place), {}); }
    size_t bytes_there() {
        size_t bytes = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator(place)) {
            bytes += entry.file_size();
        }
        return bytes;
    }
};

TEST_F(undecodable_test, pieces_between_records_are_kept_in_order) {
    open();
    std::string good = load_record(5, 1), bad = with_word(good, 12, 99);
    std::string block;
    for (int i = 0; i < 1000; i++) {
        block += good + bad;
    }
    undecodable_summary sum;
    for (block_reader reader(block); reader.next();) {
        if (!reader.good) {
            sum.add(reader);
        }
    }
    EXPECT_EQ(sum.bytes, 1000 * bad.size());
    EXPECT_EQ(sum.offset, good.size());
    EXPECT_EQ(sum.text(), "it is too small for the values it declares; and 999 more");
    ASSERT_EQ(files->keep("a@b.c", "web1", noon, "hash", block, sum.bytes, now, path, error),
              outcome::kept);
    std::string kept = read_text(path);
    ASSERT_EQ(kept.size(), sum.bytes);
    for (size_t i = 0; i < 1000; i++) {
        ASSERT_EQ(kept.compare(i * bad.size(), bad.size(), bad), 0);
    }
    EXPECT_EQ(count(), 1u); /* and no temporary one */
}

TEST_F(undecodable_test, the_same_block_is_written_once) {
    limits.rate = 1;
    open();
    EXPECT_EQ(keep_as("web1", "hash", "text"), outcome::kept);
    EXPECT_EQ(keep_as("web1", "hash", "text"), outcome::kept);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(files->report(now), "");
}

TEST_F(undecodable_test, what_is_too_long_is_cut) {
    limits.file = 10;
    open();
    EXPECT_EQ(keep("web1", 1000), outcome::kept);
    EXPECT_EQ(read_text(path), "xxxxxxxxxx");
    EXPECT_EQ(keep("web1", 10), outcome::kept);
    EXPECT_EQ(read_text(path), "xxxxxxxxxx");
}

TEST_F(undecodable_test, an_agent_has_its_share_and_its_oldest_make_room) {
    limits.bytes_per_agent = 1000;
    open();
    ASSERT_EQ(keep("other", 900), outcome::kept);
    std::string others = path;
    ASSERT_EQ(keep("web1", 400), outcome::kept);
    std::string first = path;
    ASSERT_EQ(keep("web1", 400), outcome::kept);
    std::string second = path;
    ASSERT_EQ(keep("web1", 201), outcome::kept);
    EXPECT_FALSE(fs::exists(first));
    EXPECT_TRUE(fs::exists(second));
    EXPECT_TRUE(fs::exists(others));
    limits.files_per_agent = 3;
    open(); /* a new start knows what is there */
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(keep("web1", 1), outcome::kept);
    }
    EXPECT_EQ(count(), 4u);
    EXPECT_TRUE(fs::exists(others));
}

TEST_F(undecodable_test, whoever_has_most_makes_room_in_all) {
    limits.bytes = 1000;
    open();
    ASSERT_EQ(keep("small", 100), outcome::kept);
    std::string small = path;
    ASSERT_EQ(keep("large", 300), outcome::kept);
    std::string oldest = path;
    ASSERT_EQ(keep("large", 300), outcome::kept);
    ASSERT_EQ(keep("third", 300), outcome::kept);
    ASSERT_EQ(keep("fourth", 300), outcome::kept);
    EXPECT_TRUE(fs::exists(small));
    EXPECT_FALSE(fs::exists(oldest));
    EXPECT_EQ(bytes_there(), 1000u);
    limits.files = 3;
    limits.rate = 10000;
    open();
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(keep("agent" + std::to_string(i), 1), outcome::kept);
        ASSERT_LE(count(), 4u - (i > 0));
    }
}

/* A file of a name that this module did not give, and what a kill left behind, count and go too. */
TEST_F(undecodable_test, files_of_other_names_count) {
    limits.bytes = 1000;
    open();
    fs::create_directory(place);
    write_text(place + "/20250101-0123456789abcdef.bin", std::string(800, 'x'));
    fs::create_directory(place + "/a directory");
    EXPECT_EQ(keep("web1", 300), outcome::kept);
    EXPECT_FALSE(fs::exists(place + "/20250101-0123456789abcdef.bin"));
    EXPECT_TRUE(fs::exists(place + "/a directory"));
}

TEST_F(undecodable_test, what_comes_too_fast_is_dropped_and_counted) {
    limits.rate_per_agent = 2;
    limits.rate = 3;
    open();
    EXPECT_EQ(keep("web1", 10), outcome::kept);
    EXPECT_EQ(keep("web1", 10), outcome::kept);
    EXPECT_EQ(keep("web1", 10), outcome::dropped);
    EXPECT_EQ(keep("web2", 10), outcome::kept);
    EXPECT_EQ(keep("web3", 10), outcome::dropped);
    EXPECT_EQ(count(), 3u);
    EXPECT_EQ(files->report(now), "20 bytes that are no record were not kept (2 times, last from "
                                  "web3 of a@b.c): too many came within an hour");
    EXPECT_EQ(files->report(now), "");
    EXPECT_EQ(keep("web3", 10), outcome::dropped);
    EXPECT_EQ(files->report(now), ""); /* not a line for each */
    now += 1h;
    EXPECT_EQ(files->report(now), "10 bytes that are no record were not kept (1 times, last from "
                                  "web3 of a@b.c): too many came within an hour");
    EXPECT_EQ(keep("web3", 10), outcome::kept);
}

TEST_F(undecodable_test, what_cannot_be_written_leaves_nothing) {
    open();
    write_text(place, "in the way");
    EXPECT_EQ(keep("web1", 10), outcome::failed);
    EXPECT_NE(error.find("Not a directory"), std::string::npos) << error;
    EXPECT_EQ(files->report(now), "");
}

TEST_F(undecodable_test, agents_are_told_apart) {
    std::set<std::string> tags;
    for (const char* name : {"web1", "web2", "", "web1 "}) {
        tags.insert(agent_tag("a@b.c", name));
        tags.insert(agent_tag("", name));
    }
    EXPECT_EQ(tags.size(), 8u);
    EXPECT_NE(agent_tag("ab", "c"), agent_tag("a", "bc"));
}
