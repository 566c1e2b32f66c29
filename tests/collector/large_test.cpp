/* Bodies made to cost much: small ones that unpack to a lot, and records of millions of strings.
 * What they cost is counted in allocations, and whether others wait for them told by the order of
 * events. */
#include "ingest/ingest.cpp"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"
#include "counted_memory.h"
#include "ingest/body.h"
#include "packing.h"
#include "stored_records.h"

#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zlib.h>

namespace {

/* From its making to peak(): the most that was held at a time, SQLite's memory included. */
class memory_meter {
public:
    memory_meter() : before_(held) {
        most_held = before_;
        allocations = 0;
        sqlite3_memory_highwater(1);
    }
    size_t peak() const {
        return most_held - before_ + static_cast<size_t>(sqlite3_memory_highwater(0));
    }

private:
    size_t before_;
};

/* ---- the bodies ---- */

std::string head(uint32_t size, uint32_t i32, uint32_t strings, uint32_t nested) {
    std::string bytes;
    for (uint32_t word : {size, i32, uint32_t{1}, 0u, 0u, 0u, strings, nested}) {
        record_builder::append(bytes, word);
    }
    return bytes;
}

/* A record of type 99 around what fills it. */
std::string record_of(uint32_t strings, uint32_t nested, const std::string& tail) {
    std::string bytes = head(static_cast<uint32_t>(36 + tail.size()), 0, strings, nested);
    record_builder::append(bytes, uint32_t{99});
    bytes += tail;
    return bytes;
}

std::string repeated(const std::string& text, size_t count) {
    std::string all;
    all.reserve(text.size() * count);
    for (size_t i = 0; i < count; i++) {
        all += text;
    }
    return all;
}

std::string of_strings(size_t size) {
    size_t count = size / 2 - 18;
    return record_of(static_cast<uint32_t>(count), 0, repeated(std::string("a\0", 2), count));
}
std::string of_empty_strings(size_t size) {
    return record_of(static_cast<uint32_t>(size), 0, std::string(size - 36, '\0'));
}
std::string of_values(size_t size) {
    std::string bytes =
        head(static_cast<uint32_t>(size), static_cast<uint32_t>((size - 36) / 4), 0, 0);
    bytes.resize(size - 4, '\0');
    record_builder::append(bytes, uint32_t{99});
    return bytes;
}
std::string of_nested(size_t size) {
    size_t count = (size - 36) / 36;
    return record_of(0, static_cast<uint32_t>(count), repeated(record_of(0, 0, ""), count));
}
/* Every number of strings is tried, on every level, and none is right. */
std::string of_trials(size_t size) {
    std::string inner = with_word(record_of(0, 0, ""), 8, 2);
    for (int level = 0; level < 8; level++) {
        size_t count = size / 16 - 24;
        inner = record_of(static_cast<uint32_t>(count + 5), 1,
                          repeated(std::string("a\0", 2), count) + inner);
    }
    return inner;
}
std::string of_rows(size_t size) {
    return repeated(record_of(0, 0, ""), size / 36);
}
/* Every other record is none. */
std::string of_pieces(size_t size) {
    std::string good = record_of(0, 0, "");
    return repeated(good + with_word(good, 8, 99), size / 72);
}
std::string of_zeros(size_t size) {
    return std::string(size, '\0');
}

struct attack {
    const char* name;
    std::string (*make)(size_t);
};
const attack attacks[] = {{"strings", of_strings}, {"empty strings", of_empty_strings},
                          {"values", of_values},   {"nested", of_nested},
                          {"trials", of_trials},   {"rows", of_rows},
                          {"pieces", of_pieces},   {"zeros", of_zeros}};

constexpr size_t mb = 1 << 20;

} // namespace

TEST(large_body, unpacking_takes_what_comes_out_and_no_more) {
    for (size_t size : {3 * mb / 2, 20 * mb + 1}) {
        std::string wire = pack(of_strings(size)), plain, error;
        size_t announced = 36 + (size / 2 - 18) * 2;
        memory_meter meter;
        ASSERT_TRUE(unpack_body(wire, announced, 0, {}, plain, error)) << error;
        EXPECT_EQ(plain.size(), announced);
        EXPECT_LT(meter.peak(), announced + 64 * 1024);
        EXPECT_LT(allocations, 10u);
    }
}

TEST(large_body, what_a_small_one_cannot_become_is_refused_before_memory_is_taken) {
    std::string wire = pack(std::string(1000, 'x')), plain, error;
    memory_meter meter;
    EXPECT_FALSE(unpack_body(wire, 200 * mb, 0, {}, plain, error));
    EXPECT_LT(meter.peak(), 64 * 1024u);
}

/* Neither for each string nor for each nested record, nor for each piece that is none. */
TEST(large_body, decoding_allocates_nothing_for_what_is_in_a_record) {
    for (const attack& a : attacks) {
        std::string block = a.make(4 * mb);
        memory_meter meter;
        undecodable_summary bad;
        size_t strings = 0, nested = 0, records = 0;
        for (block_reader reader(block); reader.next(); records++) {
            if (!reader.good) {
                bad.add(reader);
                continue;
            }
            for (std::string_view text : reader.current.strings) {
                strings += text == "a";
            }
            for (size_t i = 0; i < reader.current.nested.size(); i++) {
                nested += reader.current.nested[i].size() == 36;
            }
        }
        /* A reason or two: no more than a line for a piece that is none, and none is kept. */
        EXPECT_LT(meter.peak(), 4096u) << a.name;
        EXPECT_LE(allocations, 4 + records) << a.name;
        EXPECT_EQ(strings, a.make == of_strings ? 2 * mb - 18 : 0) << a.name;
        EXPECT_EQ(nested, a.make == of_nested ? (4 * mb - 36) / 36 : 0) << a.name;
    }
}

TEST(large_record, strings_by_index_cost_a_step_each) {
    std::string block = of_strings(8 * mb), reason;
    record r;
    ASSERT_TRUE(decode_record(block, r, reason)) << reason;
    size_t right = 0;
    for (size_t i = 0; i < r.strings.size(); i++) { /* for ever, if each began at the front */
        right += r.strings[i] == "a";
    }
    EXPECT_EQ(right, r.strings.size());
    EXPECT_EQ(r.strings[5], "a"); /* also backwards */
}

TEST(large_record, strings_are_told_by_eight_bytes_at_a_time) {
    for (size_t length = 0; length < 40; length++) {
        for (size_t empty_at = 0; empty_at <= length; empty_at++) {
            std::string tail; /* strings of changing lengths, and an empty one */
            size_t count = 0;
            for (size_t i = 0; i < length; i++) {
                if (i == empty_at) {
                    tail.push_back('\0');
                }
                tail.append(1 + i * 7 % 11, static_cast<char>(i % 2 ? 0x80 : 1));
                tail.push_back('\0');
                count++;
            }
            record r;
            std::string reason, bytes = record_of(100, 0, tail);
            bool good = decode_record(bytes, r, reason);
            ASSERT_EQ(good, empty_at == length) << length << " " << empty_at;
            if (good) {
                ASSERT_EQ(r.strings.size(), count);
                size_t bytes_of_all = 0;
                for (std::string_view text : r.strings) {
                    bytes_of_all += text.size() + 1;
                }
                ASSERT_EQ(bytes_of_all, tail.size());
            }
            if (!tail.empty()) {
                bytes.back() = 'x'; /* the last one does not end */
                ASSERT_FALSE(decode_record(bytes, r, reason));
            }
        }
    }
}

TEST(large_record, one_that_no_agent_makes_is_put_aside) {
    record r;
    std::string reason;
    EXPECT_TRUE(decode_record(of_strings(record_max_size), r, reason)) << reason;
    EXPECT_FALSE(decode_record(of_strings(record_max_size + 2), r, reason));
    EXPECT_EQ(reason, "no record is as large as 33554434 bytes");
    std::string block = load_record(1, 2) + of_strings(record_max_size + 2) + load_record(1, 3);
    size_t good = 0, bad = 0;
    for (block_reader reader(block); reader.next();) {
        (reader.good ? good : bad)++;
    }
    EXPECT_EQ(good, 2u);
    EXPECT_EQ(bad, 1u);
}

/* ---- through the store ---- */

namespace {

const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct order_of_events : store_listener {
    std::mutex m;
    std::vector<std::string> seen;
    std::function<void(const poll_block&)> on_each; /* before it is noted */
    size_t records = 0;

    void note(const std::string& what) {
        std::lock_guard hold(m);
        seen.push_back(what);
    }
    void on_record(const poll_block& from, const decoded_record&) override {
        records++;
        if (on_each) {
            on_each(from);
        }
    }
    void on_undecodable(const poll_block& from, size_t, size_t, const std::string&,
                        const std::string&) override {
        note("undecodable of " + from.agent);
    }
};

struct large_block : testing::Test {
    scratch_directory directory;
    order_of_events told;
    ingest_options options{.directory = directory / "state"};
    std::unique_ptr<ingest> s;

    void SetUp() override {
        arrival_clock = wall_clock = [] { return noon; };
    }
    void TearDown() override {
        s.reset();
        slice = {};
        wall_clock = system_seconds;
        arrival_clock = epoch_seconds;
    }
    void open() {
        std::string error;
        s = ingest::open(options, &told, error);
        ASSERT_TRUE(s) << error;
    }
    std::future<store_result> submit(const std::string& agent, std::string plain) {
        auto result = std::make_shared<std::promise<store_result>>();
        s->submit({"a@b.c", agent, std::move(plain), noon}, [this, agent, result](store_result r) {
            told.note(agent + (r == store_result::stored      ? " stored"
                               : r == store_result::duplicate ? " repeated"
                                                              : " failed"));
            result->set_value(r);
        });
        return result->get_future();
    }
    std::vector<stored_record> records(const std::string& agent) {
        std::string error;
        auto reader = open_reader(options.directory, error);
        std::vector<stored_record> all;
        for (const stored_agent_row& row : stored_agents(*reader, error)) {
            if (row.name == agent) {
                all = records_of(*reader, row, error);
            }
        }
        EXPECT_EQ(error, "");
        return all;
    }
    std::vector<int64_t> times(const std::string& agent) {
        std::vector<int64_t> all;
        for (const stored_record& r : records(agent)) {
            all.push_back(r.summary().time.value_or(-1));
        }
        return all;
    }
};

std::string many_records(size_t count) {
    std::string block;
    for (size_t i = 0; i < count; i++) {
        block += load_record(5, static_cast<int64_t>(i));
    }
    return block;
}

std::vector<int64_t> counted(size_t count) {
    std::vector<int64_t> all(count);
    for (size_t i = 0; i < count; i++) {
        all[i] = static_cast<int64_t>(i);
    }
    return all;
}

/* Damages the root of a table; who has the file open finds that out. */
void spoil(const std::string& path, const std::string& table) {
    size_t root = 0;
    {
        sqlite3* handle = nullptr;
        sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
        database db(handle);
        statement q(handle, "SELECT rootpage FROM sqlite_schema WHERE name = ?");
        ASSERT_TRUE(q.bind_text(table).row());
        root = static_cast<size_t>(q.integer(0));
        q.reset();
        ASSERT_TRUE(database_exec(handle, "PRAGMA wal_checkpoint(TRUNCATE)"));
    }
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>((root - 1) * 8192)).write("damaged here", 12);
    }
    sqlite3* handle = nullptr;
    sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
    database db(handle);
    database_exec(handle, "DELETE FROM facts"); /* what is remembered of the file goes */
}

} // namespace

/* The block itself included, and besides it what the database keeps of any. What is packed
 * afterwards, when the block is gone, is read from the file and copied once. */
TEST_F(large_block, costs_at_most_twice_its_size) {
    const size_t cache = 17 * mb; /* 16, and what belongs to its pages */
    for (const attack& a : attacks) {
        open();
        submit("before", load_record(1, 1)).get();
        std::string block = a.make(sanitized ? 3 * mb : 30 * mb);
        const size_t size = block.capacity();
        memory_meter meter;
        EXPECT_EQ(submit("attacker", std::move(block)).get(), store_result::stored) << a.name;
        s.reset();
        EXPECT_LT(size + meter.peak(), 2 * size + cache) << a.name;
        std::filesystem::remove_all(options.directory);
    }
}

TEST_F(large_block, others_are_answered_between_its_slices) {
    options.large = 10000;
    slice.records = 10;
    open();
    std::future<store_result> small;
    told.on_each = [&](const poll_block& from) {
        if (from.agent == "large" && told.records == 10) { /* its first slice is stored */
            small = submit("small", load_record(1, 1));
        }
    };
    auto large = submit("large", many_records(500));
    EXPECT_EQ(large.get(), store_result::stored);
    EXPECT_EQ(small.get(), store_result::stored);
    EXPECT_EQ(told.seen, (std::vector<std::string>{"small stored", "large stored"}));
    EXPECT_EQ(told.records, 501u);
    EXPECT_EQ(times("large"), counted(500));
    EXPECT_EQ(submit("large", many_records(500)).get(), store_result::duplicate);
}

TEST_F(large_block, so_they_are_while_it_is_hashed) {
    options.large = 1000;
    slice.hashed = 64;
    open();
    std::promise<void> submitted;
    told.on_each = [&](const poll_block& from) {
        if (from.agent == "first") { /* the writer is held up until both others wait */
            submitted.get_future().wait();
        }
    };
    auto first = submit("first", load_record(1, 1));
    auto large = submit("large", many_records(100));
    auto small = submit("small", load_record(1, 1));
    submitted.set_value();
    EXPECT_EQ(large.get(), store_result::stored);
    EXPECT_EQ(told.seen,
              (std::vector<std::string>{"first stored", "small stored", "large stored"}));
}

TEST_F(large_block, large_ones_of_several_agents_take_turns) {
    options.large = 1000;
    slice.records = 10;
    open();
    std::promise<void> submitted;
    told.on_each = [&](const poll_block& from) {
        if (from.agent == "first") {
            submitted.get_future().wait();
        }
    };
    auto first = submit("first", load_record(1, 1));
    auto larger = submit("larger", many_records(500));
    auto large = submit("large", many_records(100));
    submitted.set_value();
    EXPECT_EQ(larger.get(), store_result::stored);
    EXPECT_EQ(told.seen,
              (std::vector<std::string>{"first stored", "large stored", "larger stored"}));
    EXPECT_EQ(times("large"), counted(100));
    EXPECT_EQ(times("larger"), counted(500));
}

/* They are told some at a time, however many agents there are. */
TEST_F(large_block, the_states_of_many_tests_take_little_memory) {
    open();
    std::string block;
    for (uint32_t test = 1; test <= agent_state::max_tests; test++) {
        block += load_record(test, 1);
    }
    const size_t agents = sanitized ? 2 : 40;
    for (size_t i = 0; i < agents; i++) {
        EXPECT_EQ(submit("agent" + std::to_string(i), block).get(), store_result::stored);
    }
    s.reset();
    open();
    size_t told_of = 0;
    memory_meter meter;
    std::string error;
    agent_state state;
    ASSERT_TRUE(open_reader(options.directory, error)
                    ->for_each_agent(
                        [&](const known_agent& row) {
                            EXPECT_TRUE(state.unpack(row.state));
                            told_of += state.tests.size();
                        },
                        error));
    EXPECT_EQ(told_of, agents * agent_state::max_tests);
    EXPECT_LT(meter.peak(), 16 * mb);
}

TEST_F(large_block, what_one_agent_or_address_may_have_waiting_is_bounded) {
    options.large = 2000;
    options.max_queued = 16000;
    open();
    std::promise<void> submitted;
    told.on_each = [&](const poll_block& from) {
        if (from.agent == "first") {
            submitted.get_future().wait();
        }
    };
    auto first = submit("first", load_record(1, 1));
    std::vector<std::future<store_result>> waiting;
    waiting.push_back(submit("greedy", many_records(100)));
    EXPECT_EQ(submit("greedy", many_records(101)).get(), store_result::failed); /* one large one */
    waiting.push_back(submit("other", many_records(101)));
    waiting.push_back(submit("greedy", many_records(5))); /* a sixteenth of small ones */
    waiting.push_back(submit("greedy", many_records(4)));
    EXPECT_EQ(submit("greedy", many_records(3)).get(), store_result::failed);
    waiting.push_back(submit("other", many_records(3)));

    auto from_address = [&](const std::string& agent) {
        auto result = std::make_shared<std::promise<store_result>>();
        s->submit({"a@b.c", agent, many_records(9), noon, "192.0.2.1"},
                  [result](store_result r) { result->set_value(r); });
        return result->get_future();
    };
    const size_t a_quarter = 4000 / many_records(9).size();
    for (size_t i = 0; i < a_quarter; i++) {
        waiting.push_back(from_address("agent" + std::to_string(i)));
    }
    EXPECT_EQ(from_address("one more").get(), store_result::failed);
    waiting.push_back(submit("third", many_records(3)));
    submitted.set_value();
    for (auto& result : waiting) {
        EXPECT_EQ(result.get(), store_result::stored);
    }
    EXPECT_EQ(submit("greedy", many_records(101)).get(), store_result::stored);
}

TEST_F(large_block, records_of_any_size_are_stored_as_they_came) {
    open();
    for (size_t size : {mb - 4, mb, mb + 4, 5 * mb}) {
        std::string block = of_strings(size) + load_record(5, 0) + of_strings(size);
        block += of_values(size);
        block[size / 2] = block[size - 3] = 'b';
        const std::string agent = "agent" + std::to_string(size);
        EXPECT_EQ(submit(agent, block).get(), store_result::stored);
        std::vector<std::string> sent, stored;
        for (block_reader reader(block); reader.next();) {
            sent.emplace_back(reader.current.raw);
        }
        for (const stored_record& r : records(agent)) {
            stored.push_back(r.raw);
        }
        std::sort(sent.begin(), sent.end()); /* what is packed comes test by test */
        std::sort(stored.begin(), stored.end());
        EXPECT_TRUE(stored == sent) << size;
    }
}

/* Killed in the middle, a collector goes on behind what is stored when the block comes again. */
TEST_F(large_block, is_stored_once_whatever_ends_the_collector) {
    options.large = 1000;
    slice.records = 10;
    std::string block = many_records(300) + "text that is no record at all, whatever it may be";
    for (size_t end_at : {10u, 25u, 150u, 151u, 290u}) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            told.records = 0;
            told.on_each = [&](const poll_block&) {
                if (told.records == end_at) {
                    kill(getpid(), SIGKILL);
                }
            };
            open();
            submit("large", block).wait();
            _exit(1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << end_at;
        open();
        EXPECT_EQ(submit("large", block).get(), store_result::stored);
        EXPECT_EQ(times("large"), counted(300)) << end_at;
        EXPECT_EQ(submit("large", block).get(), store_result::duplicate);
        s.reset();
        std::filesystem::remove_all(options.directory);
    }
}

/* A slice is written again into the new file where the old one turns out to be damaged. */
TEST_F(large_block, is_whole_where_a_slice_has_to_be_tried_again) {
    options.large = 1000;
    slice.records = 10;
    open();
    EXPECT_EQ(submit("before", many_records(1000)).get(), store_result::stored);
    s.reset();
    spoil(database_path(options.directory), "blocks");
    open();
    EXPECT_EQ(submit("large", many_records(100)).get(), store_result::stored);
    EXPECT_EQ(times("large"), counted(100));
    EXPECT_EQ(times("before").size(), 0u); /* which are in the file that was set aside */
}

/* What it has of a block so far goes with the file: nothing of that was answered yet. */
TEST_F(large_block, begins_anew_in_the_file_that_follows_one_that_is_gone) {
    options.large = 1000;
    slice.records = 10;
    for (bool damaged : {false, true}) {
        SCOPED_TRACE(damaged ? "damaged" : "removed");
        told.records = 0;
        told.on_each = [&](const poll_block&) {
            if (told.records == 30) { /* three slices are stored */
                const std::string path = database_path(options.directory);
                damaged ? spoil(path, "agents") : (void)std::filesystem::remove(path);
            }
        };
        open();
        EXPECT_EQ(submit("large", many_records(100)).get(), store_result::stored);
        EXPECT_EQ(times("large"), counted(100));
        EXPECT_EQ(submit("large", many_records(100)).get(), store_result::duplicate);
        s.reset();
        std::filesystem::remove_all(options.directory);
    }
}

TEST_F(large_block, a_slice_that_cannot_be_stored_leaves_the_block_to_come_again) {
    options.large = 1000;
    slice.records = 10;
    open();
    const std::string aside = options.directory + "/undecodable";
    write_text(aside, "in the way");
    std::string block = many_records(100) + "text that is no record at all, whatever it may be";
    EXPECT_EQ(submit("large", block).get(), store_result::failed);
    EXPECT_EQ(submit("large", block).get(), store_result::failed);
    std::filesystem::remove(aside);
    EXPECT_EQ(submit("large", block).get(), store_result::stored);
    EXPECT_EQ(times("large"), counted(100));
    EXPECT_EQ(told.seen.back(), "large stored");
    EXPECT_EQ(std::count(told.seen.begin(), told.seen.end(), "undecodable of large"), 1);
}

/* What is dropped of it is counted, and its results are stored. */
TEST_F(large_block, a_thousand_pieces_a_poll_do_not_fill_the_disk) {
    struct problems : order_of_events {
        std::vector<std::string> lines;
        void on_problem(const std::string& text) override { lines.push_back(text); }
    } told_too;
    std::string error;
    s = ingest::open(options, &told_too, error);
    ASSERT_TRUE(s) << error;
    for (int i = 0; i < 100; i++) {
        std::string block = of_pieces(72000) + load_record(5, i);
        ASSERT_EQ(submit("attacker", block).get(), store_result::stored);
    }
    s.reset();
    size_t files =
        std::distance(std::filesystem::directory_iterator(options.directory + "/undecodable"), {});
    EXPECT_EQ(files, undecodable_limits().rate_per_agent);
    EXPECT_EQ(told_too.records, 100 * 1001u);
    ASSERT_EQ(told_too.lines.size(), 1u);
    EXPECT_NE(
        told_too.lines[0].find("that are no record were not kept (1 times, last from attacker "
                               "of a@b.c)"),
        std::string::npos)
        << told_too.lines[0];
}
